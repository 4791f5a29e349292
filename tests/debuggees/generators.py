"""Generators in all their moods, and iterators that are none."""
from __future__ import print_function


def count(limit):
    number = 0
    while number < limit:
        yield number
        number += 1


def nested(limit):
    for outer in count(limit):
        for inner in count(outer):
            yield outer, inner


def listener():
    heard = []
    try:
        while True:
            word = yield len(heard)
            heard.append(word)
    finally:
        print("heard", heard)


def forgiving():
    while True:
        try:
            yield "ready"
        except ValueError as why:
            yield "forgave {}".format(why)


def bare():
    yield
    yield


def raising():
    yield 1
    raise KeyError("from a generator")


class Countdown(object):
    def __init__(self, start):
        self.left = start

    def __iter__(self):
        return self

    def __next__(self):
        if self.left == 0:
            raise StopIteration
        self.left -= 1
        return self.left

    next = __next__


def main():
    print(list(count(3)), list(nested(3)))
    print(sum(number * 2 for number in count(4)))
    for left in Countdown(2):
        print("left", left)
    ear = listener()
    print(next(ear), ear.send("a"), ear.send("b"))
    ear.close()
    soft = forgiving()
    print(next(soft), soft.throw(ValueError("this")), next(soft))
    soft.close()
    print(list(bare()))
    try:
        for number in raising():
            print(number)
    except KeyError as why:
        print("caught", why)
    unused = count(1)
    unused.close()
    print(list(unused))
    try:
        next(Countdown(0))
    except StopIteration:
        print("no next")


main()
