"""The numbers by which a client knows threads, frames and other objects."""
from __future__ import absolute_import, division, print_function

from tdbg import compat
from tdbg.dap.requests import tRequestError


class tFrameRef(object):
    """A frame that the client knows by number."""

    __slots__ = ("thread_id", "frame", "line")

    def __init__(self, thread_id, frame, line):
        self.thread_id, self.frame, self.line = thread_id, frame, line


class tHandles(object):
    """Numbers of objects that live as long as a stop; a number is never used twice."""

    kWhat = "the reference"

    def __init__(self):
        self._objects = {}
        self._next = 1
        self._lock = compat.allocate_lock()

    def new(self, thing):
        with self._lock:
            number = self._next
            self._next += 1
            self._objects[number] = thing
        return number

    def get(self, number):
        try:
            return self._objects[number]
        except KeyError:
            raise tRequestError(
                "{} {} has gone: the program has run since".format(self.kWhat, number))

    def clear(self):
        with self._lock:
            self._objects = {}


class tFrames(tHandles):
    """The same frame of a thread has the same number for as long as the stop lasts."""

    kWhat = "the frame"

    def __init__(self):
        tHandles.__init__(self)
        self._ids = {}

    def id_of(self, thread_id, frame, line):
        key = (thread_id, id(frame), line)
        number = self._ids.get(key)
        if number is None:
            number = self._ids[key] = self.new(tFrameRef(thread_id, frame, line))
        return number

    def clear(self):
        self._ids = {}
        tHandles.clear(self)


class tThreadIds(object):
    """Small numbers from 1 on, for the life of the process."""

    def __init__(self):
        self._ids, self._idents = {}, {}
        self._next = 1
        self._lock = compat.allocate_lock()

    def id_of(self, ident):
        with self._lock:
            number = self._ids.get(ident)
            if number is None:
                number = self._ids[ident] = self._next
                self._idents[number] = ident
                self._next += 1
            return number

    def ident_of(self, thread_id):
        try:
            return self._idents[thread_id]
        except KeyError:
            raise tRequestError("there is no thread {}".format(thread_id))

    def is_known(self, ident):
        return ident in self._ids

    def all(self):
        """[(thread_id, ident)]"""
        with self._lock:
            return sorted(self._idents.items())

    def forget(self, ident):
        """The thread has ended: its ident may be used anew.  Its number, or None."""
        with self._lock:
            number = self._ids.pop(ident, None)
            if number is not None:
                del self._idents[number]
            return number
