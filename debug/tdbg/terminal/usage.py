"""How a command refuses, and the numbers that commands take."""
from __future__ import absolute_import, division, print_function


class tUsage(Exception):
    """The command was called wrongly; the text is for the user."""


def number(text, kind):
    """The number in the text, which should be a `kind`."""
    try:
        return int(text)
    except ValueError:
        raise tUsage("{} is no {}".format(text, kind))
