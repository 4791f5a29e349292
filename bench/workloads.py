"""The programs whose slow-down is measured: eight ways of spending time in Python code.

Each function takes a size and returns a value that tells whether it really did its work. At size 1
an untraced run takes some tens of milliseconds.
"""
from __future__ import absolute_import, division, print_function

import json.decoder
import json.encoder
import json.scanner
import threading


def line_loop(size):
    total = 0
    for i in range(300000 * size):
        total += i
        if total > 1000000:
            total -= 1000000
    return total


def fib(n):
    if n < 2:
        return n
    return fib(n - 1) + fib(n - 2)


def recursion(size):
    return [fib(21) for _ in range(4 * size)][-1]


class Account(object):
    def __init__(self, owner):
        self.owner = owner
        self.balance = 0

    @property
    def is_open(self):
        return self.owner is not None

    def deposit(self, amount):
        if self.is_open:
            self.balance += amount
        return self.balance

    def __add__(self, other):
        result = type(self)(self.owner)
        result.deposit(self.balance + other.balance)
        return result


def objects(size):
    total = Account('total')
    for i in range(15000 * size):
        account = Account(i)
        account.deposit(i)
        total = total + account
    return total.balance


def find(table, key):
    if key not in table:
        raise KeyError(key)
    return table[key]


def exceptions(size):
    missed = 0
    table = {1: 'one'}
    for i in range(40000 * size):
        try:
            find(table, i % 3)
        except KeyError:
            missed += 1
    return missed


def numbers(n):
    for i in range(n):
        yield i


def squares(items):
    for item in items:
        yield item * item


def generators(size):
    return sum(x for x in squares(numbers(80000 * size)) if x % 2)


def text(size):
    words = {}
    for i in range(40000 * size):
        word = 'w%d' % (i % 500)
        words[word] = words.get(word, 0) + len(word)
        word.upper().replace('W', 'x').split('x')
    return len(words)


class PurePythonDecoder(json.JSONDecoder):
    def __init__(self):
        json.JSONDecoder.__init__(self)
        self.parse_string = json.decoder.py_scanstring
        self.scan_once = json.scanner.py_make_scanner(self)


def pure_python_json(size):
    document = {'items': [{'id': i, 'name': 'item %d' % i, 'tags': ['a', 'b']} for i in range(40)]}
    json.encoder.c_make_encoder = None
    encoder = json.encoder.JSONEncoder()
    decoder = PurePythonDecoder()
    for _ in range(12 * size):
        document = decoder.decode(''.join(encoder.iterencode(document)))
    return len(document['items'])


def threads(size):
    results = []

    def work():
        total = 0
        for i in range(60000 * size):
            total += i % 7
        results.append(fib(15) + total)

    workers = [threading.Thread(target=work) for _ in range(4)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    return len(results)


WORKLOADS = [line_loop, recursion, objects, exceptions, generators, text, pure_python_json, threads]
