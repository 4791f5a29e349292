"""Threads that share queues. What each thread executes does not depend on the others' speed."""
from __future__ import print_function

import threading

try:
    import queue
except ImportError:
    import Queue as queue

kWorkers = 3
kItems = 4


class Worker(threading.Thread):
    def __init__(self, number, results):
        threading.Thread.__init__(self)
        self.number = number
        self.items = queue.Queue()
        self.results = results

    def run(self):
        total = 0
        while True:
            item = self.items.get()
            if item is None:
                break
            total += square(item)
        self.results[self.number] = total


def square(number):
    return number * number


def count_to(limit, results):
    count = 0
    for number in range(limit):
        count += number
    results["count"] = count


def failing(results):
    try:
        raise ValueError("in a thread")
    except ValueError as why:
        results["failing"] = str(why)


def main():
    results = {}
    threads = [Worker(number, results) for number in range(kWorkers)]
    for worker in threads:
        for item in range(kItems + worker.number):
            worker.items.put(item)
        worker.items.put(None)
    threads.append(threading.Thread(target=count_to, args=(5, results)))
    threads.append(threading.Thread(target=failing, args=(results,)))
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for key in sorted(results, key=str):
        print(key, results[key])


main()
