"""Finding leaked references, on interpreters that count them all."""
from __future__ import absolute_import, division, print_function

import gc
import sys


def growth_of_references(operation, warm_up=5, rounds=20, repeats=3):
    """References gained per call of `operation`, the smallest of several measurements.

    0 where nothing leaks: a leak shows in every measurement, the noise of caches does not.
    Needs "total_refcount".
    """
    for _ in range(warm_up):
        operation()
    gains = []
    for _ in range(repeats):
        gc.collect()
        before = sys.gettotalrefcount()
        for _ in range(rounds):
            operation()
        gc.collect()
        gains.append(sys.gettotalrefcount() - before)
    # What the measuring itself keeps is a handful, a leak at least `rounds`.
    return min(gains) // rounds if min(gains) >= rounds else 0
