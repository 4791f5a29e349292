"""Waiting for another thread, with the interpreter's plain locks alone.

The program's `threading` is not to be touched: it may be patched, and not even be loaded.
"""
from __future__ import absolute_import, division, print_function

import time

from tdbg import compat

_sleep = time.sleep
_now = getattr(time, "monotonic", time.time)

kFirstNap, kLongestNap = 0.0002, 0.005  # 2.7 has no timed wait


class tSignal(object):
    """One thread waits until another has called set(); the wait takes the signal away.

    The wait may end without a signal after an exception of a signal handler: whoever waits looks
    for what there is to do.
    """

    def __init__(self):
        self._lock = compat.allocate_lock()
        self._lock.acquire()
        # Empty while it is set.  The lock is released once per signal: from 3.13 on a released lock
        # may still be on its way to the one who waits, and is not to be released again there.
        self._unset = {0: True}

    def set(self):
        """Also when it is set already."""
        if self._unset.pop(0, None) is None:
            return
        try:
            self._lock.release()
        except Exception:
            pass  # thread.error or RuntimeError: not locked

    def wait(self, seconds=None):
        """False when the time is over.  An exception of a signal handler leaves it as it was."""
        if not self._unset:
            # It is set, or an exception came between the two last steps below.
            self._lock.acquire(False)
        elif seconds is None:
            self._lock.acquire()
        elif not compat.PY2:
            if not self._lock.acquire(True, max(seconds, 0)):
                return False
        elif not _nap_until(lambda: self._lock.acquire(False), seconds):
            return False
        self._unset[0] = True
        return True


class tDone(object):
    """Something that happens once; any number of threads may wait for it."""

    def __init__(self):
        self._lock = compat.allocate_lock()
        self._lock.acquire()
        self.is_set = False

    def set(self):
        if not self.is_set:
            self.is_set = True
            self._lock.release()

    def wait(self, seconds=None):
        """False when the time is over."""
        if self.is_set:
            return True
        if seconds is None:
            self._lock.acquire()
        elif compat.PY2:
            return _nap_until(lambda: self.is_set, seconds)
        elif not self._lock.acquire(True, max(seconds, 0)):
            return False
        self._lock.release()
        return True


def _nap_until(holds, seconds):
    """The wait of 2.7; False when the time is over."""
    end = _now() + seconds
    nap = kFirstNap
    while not holds():
        left = end - _now()
        if left <= 0:
            return False
        _sleep(min(nap, left))
        nap = min(nap * 2, kLongestNap)
    return True
