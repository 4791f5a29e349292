"""Letting calls of the library fail, one by one: those into the interpreter and its allocations.

    faults = Faults()                  loads the library, imports it
    for place in faults.learn(work):   every place that work() leads to, in a child process
        faults.run(work, place)        work() in another child, where that place's call fails

A place is a function and the road to its call inside the library (faults.cpp).  Each run is a
forked child, so one that crashes or is left in a bad state takes nothing with it.
"""
from __future__ import absolute_import, division, print_function

import collections
import ctypes
import json
import os
import signal
import struct
import sys
import traceback
import unittest

from support.library import import_tracer, library_path

kSeconds = 20  # that one run may take
kShownRoad = 4  # offsets in the library that tell where a place is (addr2line -e tdbgtracer.so ...)

tPlace = collections.namedtuple("tPlace", "key name calls road")


class Outcome(object):
    """How a run ended: what work() returned, or `why` it did not;
    `failed` calls were made to fail."""

    def __init__(self, result, why, failed):
        self.result, self.why, self.failed = result, why, failed


def load_helper(path):
    """faults.so, which is built beside the library; skips the test when it was not."""
    helper = os.path.join(os.path.dirname(os.path.realpath(path)), "faults.so")
    if not os.path.exists(helper):
        raise unittest.SkipTest("no faults.so beside the library")
    if not hasattr(ctypes.CDLL(None), "gnu_get_libc_version"):
        raise unittest.SkipTest("a library's imports are found in the records of glibc only")
    native = ctypes.PyDLL(helper)
    native.faults_take_imports.argtypes = [ctypes.c_void_p]
    native.faults_take_slots.argtypes = [ctypes.c_void_p]
    native.faults_start.argtypes = [ctypes.c_size_t, ctypes.c_int, ctypes.c_long, ctypes.c_long]
    for name in ("faults_stop", "faults_count_of_allocations", "faults_count_of_blocks",
                 "faults_count_of_places"):
        getattr(native, name).restype = ctypes.c_long
    native.faults_place.restype = ctypes.c_size_t
    native.faults_place.argtypes = [
        ctypes.c_long, ctypes.POINTER(ctypes.c_char_p), ctypes.POINTER(ctypes.c_long),
        ctypes.POINTER(ctypes.c_size_t), ctypes.c_int]
    return native


class Faults(object):
    def __init__(self, before_import=False):
        """before_import: the import is part of the work, and only allocations can fail."""
        path = library_path()
        self.native = load_helper(path)
        library = ctypes.PyDLL(path)
        record = ctypes.addressof(ctypes.c_int.in_dll(library, "global_XPy_C_API_Data"))
        if self.native.faults_take_imports(record) != 0:
            raise AssertionError("the library's imports were not found")
        if not before_import:
            import_tracer()
            self.native.faults_take_slots(record)

    # --- in a child ---

    def run(self, work, place=None, at=1, count=1, allocation=False):
        """work() in a child where calls `at` and so on, `count` of them, fail; its outcome."""
        def child():
            self.native.faults_start(place.key if place else 0, int(allocation), at, count)
            result = work(self)
            return {"result": result, "failed": self.native.faults_stop()}

        answer, why = in_child(child)
        return Outcome(answer.get("result"), answer.get("raised") or why, answer.get("failed", 0))

    def learn(self, work):
        """(result of work(), places it led to, number of allocations); raises when it fails."""
        def child():
            self.native.faults_start(0, 0, 0, 0)
            result = work(self)
            places = [self.describe(number)
                      for number in range(self.native.faults_count_of_places())]
            return {"result": result, "places": places, "allocations": self.allocations}

        answer, why = in_child(child)
        if why or "raised" in answer:
            raise AssertionError(answer.get("raised") or why)
        return answer["result"], [tPlace(*row) for row in answer["places"]], answer["allocations"]

    def describe(self, number):
        name, calls, road = ctypes.c_char_p(), ctypes.c_long(), (ctypes.c_size_t * kShownRoad)()
        key = self.native.faults_place(
            number, ctypes.byref(name), ctypes.byref(calls), road, kShownRoad)
        return key, name.value.decode("ascii"), calls.value, ["{:#x}".format(offset)
                                                              for offset in road if offset]

    def stop(self):
        """Nothing fails any more: the rest of the work looks at what is left.  Every work ends
        like this, for what comes then is not counted."""
        self.failed = self.native.faults_stop()
        self.allocations = self.native.faults_count_of_allocations()
        self.native.faults_start(1, 0, 0, 0)  # a key that no place has


def end_of_child():
    """A library that counts what is run of it writes that down only when the process really
    exits."""
    counts = hasattr(ctypes.PyDLL(library_path()), "__gcov_master")
    return ctypes.CDLL(None).exit if counts else os._exit


def in_child(work):
    """(what work() returned in a forked child, why there is nothing)"""
    end = end_of_child()
    here, there = os.pipe()
    sys.stdout.flush()
    sys.stderr.flush()
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            os.close(here)
            signal.alarm(kSeconds)
            try:
                answer = work()
            except BaseException:
                answer = {"raised": traceback.format_exc()}
            send(there, json.dumps(answer).encode("ascii"))
            status = 0
        finally:
            end(status)
    os.close(there)
    data = receive(here)
    status = os.waitpid(pid, 0)[1]
    if not data:
        return {}, "ended with status {}".format(status)
    return json.loads(data.decode("ascii")), "status {}".format(status) if status else None


def send(descriptor, data):
    data = struct.pack("I", len(data)) + data
    while data:
        data = data[os.write(descriptor, data):]


def receive(descriptor):
    parts = []
    while True:
        part = os.read(descriptor, 1 << 16)
        if not part:
            os.close(descriptor)
            return b"".join(parts)[struct.calcsize("I"):]
        parts.append(part)
