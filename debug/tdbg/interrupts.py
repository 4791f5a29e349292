"""Ctrl-C: pauses the program instead of raising KeyboardInterrupt in it.

While the program keeps the interpreter's default handler, ours stands in its place, also under
the name signal.default_int_handler: a program that compares the two (asyncio, unittest) finds them
equal.  As soon as the program installs a handler of its own, that one gets every signal.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import compat

_getpid = os.getpid
_get_signal = compat.signal.getsignal
_set_signal = compat.signal.signal
_real_handler = compat.signal.default_int_handler
_kInterrupt = compat.signal.SIGINT
kName = "default_int_handler"

# What has come of a pause.
kPending = "pending"  # the program will stop at its next line
kStopped = "stopped"  # it was stopped, and may go on
kRaise = "raise"      # it may go on with KeyboardInterrupt, as without a debugger


class tInterrupts(object):
    """pause(frame): called in the main thread, in the context of the signal handler that has
    interrupted the frame; says what has come of it, one of the constants above."""

    def __init__(self, pause):
        self._pause = pause
        self._pid = _getpid()
        self._handler = self._make_handler()
        self._replaced = None

    def install(self):
        """Take the signal, unless the program was started with it ignored."""
        if _get_signal(_kInterrupt) is not _real_handler:
            return
        _set_signal(_kInterrupt, self._handler)
        _rename(_real_handler, self._handler)
        if hasattr(os, "register_at_fork"):
            os.register_at_fork(after_in_child=self._give_back)

    def remove(self):
        self._give_back()

    def _give_back(self):
        if _get_signal(_kInterrupt) is self._handler:
            _set_signal(_kInterrupt, _real_handler)
        _rename(self._handler, _real_handler)

    def _make_handler(self):
        def default_int_handler(number, frame):
            """The default handler for SIGINT installed by Python.

            It raises KeyboardInterrupt.
            """
            if _getpid() != self._pid:  # a forked child is not debugged
                self._give_back()
                return _real_handler(number, frame)
            # A second one before the stop interrupts what blocks the program, as without us.
            _set_signal(_kInterrupt, _real_handler)
            outcome = self._pause(frame)
            if outcome != kPending:
                self._take_again()
            if outcome == kRaise:
                return _real_handler(number, frame)
        return default_int_handler

    def _take_again(self):
        if _get_signal(_kInterrupt) is _real_handler and (
                compat.signal.default_int_handler is self._handler):
            _set_signal(_kInterrupt, self._handler)

    def begin_prompt(self):
        """While the user is asked, Ctrl-C is for the prompt: it raises KeyboardInterrupt there.

        Only the main thread may change handlers, and only it gets the signal.
        """
        self._replaced = None
        try:
            handler = _get_signal(_kInterrupt)
            if handler is not None and handler is not _real_handler:
                _set_signal(_kInterrupt, _real_handler)
            self._replaced = handler
        except ValueError:  # another thread
            pass

    def end_prompt(self):
        handler, self._replaced = self._replaced, None
        if handler is None:
            return
        if handler is _real_handler and compat.signal.default_int_handler is self._handler:
            handler = self._handler  # the one that paused the program gave way to the default
        if handler is not _real_handler:
            _set_signal(_kInterrupt, handler)


def _rename(old, new):
    """Let the modules that publish the default handler publish another one."""
    for module in (compat.signal, sys.modules.get("signal")):
        if getattr(module, kName, None) is old:
            setattr(module, kName, new)
