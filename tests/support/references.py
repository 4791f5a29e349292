"""Finding leaked references, on interpreters that count them all."""
from __future__ import absolute_import, division, print_function

import gc
import sys


def growth_of_references(operation, warm_up=5, rounds=50, repeats=8):
    """References gained per call of `operation`, 0 where nothing leaks.

    Interpreters settle late (caches, specialised code, free lists), so measuring is repeated until
    one measurement shows no leak; a leak shows in every one.  Needs "total_refcount".
    """
    for _ in range(warm_up):
        operation()
    smallest = None
    for _ in range(repeats):
        gain = _gain_of(operation, rounds)
        if gain < rounds:  # what the measuring itself keeps is a handful, a leak at least `rounds`
            return 0
        smallest = gain if smallest is None else min(smallest, gain)
    return smallest // rounds


def _gain_of(operation, rounds):
    gc.collect()
    before = sys.gettotalrefcount()
    for _ in range(rounds):
        operation()
    gc.collect()
    return sys.gettotalrefcount() - before
