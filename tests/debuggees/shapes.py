"""Code that is not simply a function: decorators, comprehensions, lambdas, class bodies."""
from __future__ import print_function

import functools


def announce(function):
    @functools.wraps(function)
    def wrapper(*args, **kw):
        print("calling", function.__name__)
        return function(*args, **kw)
    return wrapper


def repeat(times):
    def decorate(function):
        def wrapper(*args):
            return [function(*args) for _ in range(times)]
        return wrapper
    return decorate


@announce
@repeat(2)
def shout(word):
    return word.upper()


class Meta(type):
    def __new__(mcs, name, bases, namespace):
        namespace["made_by"] = "Meta"
        return type.__new__(mcs, name, bases, namespace)


Base = Meta("Base", (object,), {})


class Shape(Base):
    """A class body with statements in it."""
    sides = 0
    names = [letter
             for letter in "ab"]
    if sides == 0:
        kind = "round"
    else:
        kind = "edgy"

    class Inner(object):
        depth = 2

    def __init__(self, size):
        self._size = size

    @property
    def size(self):
        return self._size

    @size.setter
    def size(self, value):
        self._size = value

    @staticmethod
    def area(radius=(lambda: 3)()):
        return radius * radius

    @classmethod
    def make(cls, *sizes):
        return [cls(size) for size in sizes]

    def __lt__(self, other):
        return self.size < other.size

    def __del__(self):
        pass


def make_adder(first):
    def add(second):
        return first + second
    return add


def comprehensions():
    squares = [number * number for number in range(4) if number % 2]
    table = {key: [value for value in range(key)] for key in range(3)}
    letters = {letter for letter in "abca"}
    lazy = (left + right for left in "ab" for right in "cd")
    return squares, table, sorted(letters), list(lazy)


def logic(first, second):
    return (first and second) or (
        not first) if second else (lambda: "lazy")()


def main():
    print(shout("word"))
    shape = Shape(2)
    shape.size = shape.size + 1
    print(shape.size, Shape.area(), Shape.kind, Shape.names, Shape.Inner.depth, Shape.made_by)
    print([each.size for each in sorted(Shape.make(3, 1, 2))])
    print(make_adder(1)(2), comprehensions(), logic(1, 0), logic(0, 1))
    print(sorted("bca", key=lambda letter: -ord(letter)))
    namespace = {}
    exec("def made(x):\n    y = x + 1\n    return y\nresult = made(1)\n", namespace)
    print(namespace["result"], eval("[n for n in (1, 2)]"))


main()
