"""Eight queens: recursion and a generator.

  ./tdbg examples/queens.py 5

Try `step` into place(), `return` to see what it gives back, `up` and `args` along the recursion.
"""
from __future__ import print_function

import sys


def is_safe(queens, column):
    """Whether a queen may stand in the column of the next row."""
    row = len(queens)
    for other_row, other_column in enumerate(queens):
        distance = row - other_row
        if other_column in (column, column - distance, column + distance):
            return False
    return True


def place(size, queens=()):
    """Yield every way to complete the board."""
    if len(queens) == size:
        yield queens
        return
    for column in range(size):
        if is_safe(queens, column):
            for solution in place(size, queens + (column,)):
                yield solution


def draw(queens):
    return "\n".join(
        " ".join("Q" if column == queen else "." for column in range(len(queens)))
        for queen in queens)


def main(size):
    solutions = list(place(size))
    print("{} solutions for {} queens; the first one:".format(len(solutions), size))
    if solutions:
        print(draw(solutions[0]))
    return 0 if solutions else 1


if __name__ == "__main__":
    sys.exit(main(int(sys.argv[1]) if len(sys.argv) > 1 else 6))
