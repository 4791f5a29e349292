"""Count words of the standard input, or of the files named.

  ./tdbg examples/wordcount.py README.md

Comprehensions, context managers, nested functions and closures.
"""
from __future__ import print_function

import collections
import contextlib
import re
import sys


@contextlib.contextmanager
def opened(path):
    if path == "-":
        yield sys.stdin
        return
    source = open(path)
    try:
        yield source
    finally:
        source.close()


def make_counter():
    """A function that counts, and the counts that it fills."""
    counts = collections.defaultdict(int)

    def count(line):
        for word in re.findall(r"[A-Za-z]+", line):
            counts[word.lower()] += 1

    return count, counts


def main(paths):
    count, counts = make_counter()
    for path in paths or ["-"]:
        with opened(path) as source:
            for line in source:
                count(line)
    ranked = sorted(counts.items(), key=lambda item: (-item[1], item[0]))
    width = max([len(word) for word, _ in ranked[:10]] or [0])
    for word, number in ranked[:10]:
        print("{:{}} {:5}".format(word, width, number))


if __name__ == "__main__":
    main(sys.argv[1:])
