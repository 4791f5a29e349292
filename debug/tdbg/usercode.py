"""Which threads evaluate what the user has written, at this moment.

Whoever has to know whether a thread in a callback is in code of the program, or still in the
debugger's, cannot look at its frames where there is no interpreter lock.
"""
from __future__ import absolute_import, division, print_function

from tdbg import compat

_get_ident = compat.get_ident
_running = set()  # idents


def call(function, *args):
    """function(*args), which is the user's code or runs it."""
    ident = _get_ident()
    if ident in _running:
        return function(*args)
    _running.add(ident)
    try:
        return function(*args)
    finally:
        _running.discard(ident)


def is_running(ident):
    """Whether the thread is in a call()."""
    return ident in _running


def forget_thread(ident):
    """It is gone."""
    _running.discard(ident)


def forget_other_threads():
    """After a fork: they do not exist in the child."""
    _running.intersection_update((_get_ident(),))
