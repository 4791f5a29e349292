"""Measures every workload under every variant, interleaved, and prints the least times as JSON.

Runs inside the measured interpreter: measure.py ROUNDS SIZE [WORKLOAD...]. Each measurement is a
forked child, so that none inherits what tracing did to the code of another. Time is the child's
processor time, all threads included.
"""
from __future__ import absolute_import, division, print_function

import json
import os
import sys
import traceback

from variants import VARIANTS
from workloads import WORKLOADS


def cpu_seconds():
    times = os.times()
    return times[0] + times[1]


try:
    from time import process_time as cpu_seconds  # finer, from 3.3 on
except ImportError:
    import resource

    def cpu_seconds():
        usage = resource.getrusage(resource.RUSAGE_SELF)
        return usage.ru_utime + usage.ru_stime


def run_workload(start, workload, size):
    """Seconds, or None where the variant does not exist on this interpreter."""
    if not start():
        return None
    began = cpu_seconds()
    workload(size)
    return cpu_seconds() - began


def measure_in_child(start, workload, size):
    reader, writer = os.pipe()
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            seconds = run_workload(start, workload, size)
            os.write(writer, repr(seconds).encode('ascii'))
            status = 0
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(status)
    os.close(writer)
    text = os.read(reader, 100).decode('ascii')
    os.close(reader)
    _, status = os.waitpid(pid, 0)
    if status != 0 or not text:
        raise SystemExit('a measured process failed: status %d' % status)
    return None if text == 'None' else float(text)


def main():
    rounds, size = int(sys.argv[1]), int(sys.argv[2])
    wanted = sys.argv[3:]
    best = {}
    for _ in range(rounds):
        for workload in WORKLOADS:
            if wanted and workload.__name__ not in wanted:
                continue
            times = best.setdefault(workload.__name__, {})
            for name, start in VARIANTS:
                seconds = measure_in_child(start, workload, size)
                if seconds is not None:
                    times[name] = min(times.get(name, seconds), seconds)
    print(json.dumps(best))


main()
