"""Measures every workload under every variant, interleaved, and prints the least times as JSON.

Runs inside the measured interpreter: measure.py ROUNDS SIZE [WORKLOAD...]. Each measurement is a
forked child. Time is the child's processor time, all threads included.
"""
from __future__ import absolute_import, division, print_function

import json
import sys

from children import cpu_seconds, measure_rounds
from variants import VARIANTS
from workloads import WORKLOADS


def time_workload(start, workload, size):
    """Seconds, or None where the variant does not exist on this interpreter."""
    if not start():
        return None
    began = cpu_seconds()
    workload(size)
    return cpu_seconds() - began


def make_case(start, workload):
    return lambda size: time_workload(start, workload, size)


def main():
    rounds, size = int(sys.argv[1]), int(sys.argv[2])
    wanted = sys.argv[3:]
    cases = [((workload.__name__, name), make_case(start, workload))
             for workload in WORKLOADS if not wanted or workload.__name__ in wanted
             for name, start in VARIANTS]
    best = {}
    for (workload, name), times in measure_rounds(cases, rounds, size).items():
        best.setdefault(workload, {})[name] = min(times)
    print(json.dumps(best))


main()
