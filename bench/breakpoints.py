"""What breakpoints cost, in the program and when they are set; beside it what bdb's cost.

Runs inside the measured interpreter: breakpoints.py ROUNDS [--quick] [--chart]. Every case of every
round is a forked child, the cases interleaved. Prints {case: {"min": ..., "median": ...}} as JSON.
--quick does a fiftieth of the work, enough to see that everything runs; --chart measures the hot
function with more and more breakpoints instead.
"""
from __future__ import absolute_import, division, print_function

import json
import shutil
import sys
import tempfile

import hotcases
import oncecases
import stopcases
from children import measure_rounds
from program import FUNCTIONS, Program

CHART_COUNTS = [0, 1, 3, 10, 30, 100, 300, 1000, 3000, 10000]


def summarize(values):
    return {'min': min(values), 'median': sorted(values)[len(values) // 2]}


def main():
    rounds = int(sys.argv[1])
    haste = 50 if '--quick' in sys.argv else 1
    if '--chart' in sys.argv:
        cases = hotcases.counting_cases(CHART_COUNTS)
    else:
        cases = hotcases.make_cases() + oncecases.CASES + stopcases.CASES
    folder = tempfile.mkdtemp(prefix='tdbg-bench-')
    try:
        program = Program(folder, FUNCTIONS // haste)
        program.haste = haste
        values = measure_rounds(cases, rounds, program)
        print(json.dumps(dict((name, summarize(v)) for name, v in values.items())))
    finally:
        shutil.rmtree(folder)


main()
