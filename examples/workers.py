"""Worker threads that take jobs from a queue.

  ./tdbg examples/workers.py

`step` into start() or put a `breakpoint()` into work() (3.7 and later): a stop in another thread
says which one it is.
"""
from __future__ import print_function

import threading

try:
    import queue
except ImportError:
    import Queue as queue


def factors(number):
    """Prime factors, the smallest first."""
    found = []
    divisor = 2
    while number > 1:
        while number % divisor == 0:
            found.append(divisor)
            number //= divisor
        divisor += 1
    return found


def work(jobs, results):
    while True:
        number = jobs.get()
        if number is None:
            return
        results[number] = factors(number)


def main():
    jobs = queue.Queue()
    results = {}
    workers = [
        threading.Thread(target=work, args=(jobs, results), name="worker-{}".format(i + 1))
        for i in range(2)
    ]
    for worker in workers:
        worker.start()
    for number in (60, 97, 1001, 4096):
        jobs.put(number)
    for worker in workers:
        jobs.put(None)
    for worker in workers:
        worker.join()
    for number in sorted(results):
        print(number, "=", " * ".join(str(factor) for factor in results[number]))


if __name__ == "__main__":
    main()
