"""Ends with a status of its own, from within calls, and has something to do at the exit."""
from __future__ import print_function

import atexit
import sys


def last_words(word):
    print("last", word)


def leave(depth):
    if depth == 0:
        print("leaving")
        sys.exit(3)
    try:
        leave(depth - 1)
    finally:
        print("depth", depth)


atexit.register(last_words, "word")
leave(2)
