"""Runs each measurement in a forked child, so that none inherits what tracing did to another."""
from __future__ import absolute_import, division, print_function

import json
import os
import traceback

try:
    from time import process_time as cpu_seconds  # all threads of the process
except ImportError:
    import resource

    def cpu_seconds():
        usage = resource.getrusage(resource.RUSAGE_SELF)
        return usage.ru_utime + usage.ru_stime


def measure_in_child(case, *arguments):
    """What `case` returns there: a number, or None where it does not exist on this interpreter."""
    reader, writer = os.pipe()
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            os.write(writer, json.dumps(case(*arguments)).encode('ascii'))
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
    return json.loads(text)


def measure_rounds(cases, rounds, *arguments):
    """{name: value of each round}, the cases (name, function) interleaved."""
    values = {}
    for _ in range(rounds):
        for name, case in cases:
            value = measure_in_child(case, *arguments)
            if value is not None:
                values.setdefault(name, []).append(value)
    return values
