"""Waiting for another thread without the program's `threading`."""
from __future__ import absolute_import, division, print_function

import threading

from support import TestCase
from tdbg import signals

kOncePerVersion = True
kRounds = 3000
kPatience = 30


class Signals(TestCase):

    def test_set_twice_is_one_wait(self):
        signal = signals.tSignal()
        self.assertFalse(signal.wait(0))
        signal.set()
        signal.set()
        self.assertTrue(signal.wait(0))
        self.assertFalse(signal.wait(0))

    def test_many_set_it_while_one_waits(self):
        # A lock that is released anew while it is being handed over ends a debugging build.
        signal = signals.tSignal()
        counts = [0, 0, 0]

        def count(place):
            for _ in range(kRounds):
                counts[place] += 1
                signal.set()
        threads = [threading.Thread(target=count, args=(place,)) for place in range(len(counts))]
        for thread in threads:
            thread.start()
        while sum(counts) < kRounds * len(counts):
            self.assertTrue(signal.wait(kPatience), counts)
        for thread in threads:
            thread.join()

    def test_interrupted_wait_loses_nothing(self):
        """An exception that comes when the lock has been taken, before the wait has noted it."""
        class Interrupted(Exception):
            pass

        class Lock(object):
            def __init__(self, lock):
                self.lock, self.release = lock, lock.release

            def acquire(self, *arguments):
                self.lock.acquire(*arguments)
                raise Interrupted

        signal = signals.tSignal()
        plain = signal._lock
        signal.set()
        signal._lock = Lock(plain)
        self.assertRaises(Interrupted, signal.wait, 0)
        signal._lock = plain
        self.assertTrue(signal.wait(0))  # look what there is to do
        self.assertFalse(signal.wait(0))
        signal.set()
        self.assertTrue(signal.wait(0))

    def test_what_happens_once_lets_all_go(self):
        done = signals.tDone()
        passed = []
        threads = [threading.Thread(target=lambda: passed.append(done.wait(kPatience)))
                   for _ in range(5)]
        for thread in threads:
            thread.start()
        self.assertFalse(done.wait(0))
        done.set()
        done.set()
        for thread in threads:
            thread.join()
        self.assertEqual(passed, [True] * 5)
        self.assertTrue(done.wait(0))
