"""A debugger for programs of Python 2.7 and 3.6 to 3.14.

tdbg.set_trace() in a program stops it there, whether it runs under the debugger or not
tdbg.listen(), tdbg.connect() let an editor attach to the program
tdbg.wait_for_client() waits for it
tdbg.register_sub_language() tells of a language that the program implements: templates, say
tdbg.post_mortem() shows where an exception was raised; tdbg.pm() the last one that was printed

tdbg.dbgserver   the debug server: lives in the debugged process, drives the native core and
                 offers stops and commands to one front end; knows nothing of terminals
tdbg.terminal    the front end for a terminal
tdbg.launch      starts a program under the debugger (`python -m tdbg PROGRAM`)

Importing the package does nothing; see README.md for the command line.
"""
from __future__ import absolute_import, division, print_function

import functools

__all__ = [
    "connect", "dbgserver", "listen", "pm", "post_mortem", "register_sub_language",
    "set_trace", "terminal", "wait_for_client"]


class _Attaching(object):
    """Iterating over it starts the debugger if need be, and then stops the program.

    The core stops in the innermost Python frame.  That has to be the caller's: so set_trace() is
    no Python function, and what is one here has returned by the time of the stop.
    """

    def __iter__(self):
        from tdbg import attach

        return attach.steps_to_stop()


def register_sub_language(language):
    """Tell the debugger of a language that the program implements; to be called again whenever its
    functions have changed.  Without a debugger nothing comes of it.  See docs/sublanguages.md."""
    from tdbg import sublanguages

    sublanguages.register(language)


def post_mortem(traceback=None):
    """Look at the frames of a traceback (default: of the exception being handled) at a prompt.

    The program goes on when the prompt is left.  ValueError when there is no traceback.
    """
    from tdbg import postmortem

    postmortem.post_mortem(traceback)


def pm():
    """post_mortem() for the exception that the interpreter has printed last."""
    from tdbg import postmortem

    postmortem.pm()


__version__ = "1.0.0"

current_server = None  # dbgserver.tServer at work in this process

def listen(*args, **options):
    """See tdbg.api."""
    from tdbg import api

    return api.listen(*args, **options)


def connect(*args, **options):
    """See tdbg.api."""
    from tdbg import api

    return api.connect(*args, **options)


def wait_for_client(seconds=None):
    """See tdbg.api."""
    from tdbg import api

    return api.wait_for_client(seconds)


# Under the debugger this is the core's own function.
set_trace = functools.partial(max, _Attaching())
