"""Values to look at and to change."""
from __future__ import print_function

shared = "outside"


class Thing(object):
    def __init__(self):
        self.size = 7

    @property
    def area(self):
        return self.size ** 2


def look():
    numbers = list(range(1000))
    table = {"one": 1, "two": [2, 3]}
    text = u"gr\u00fcn \U0001f333"
    thing = Thing()
    count = 5
    print("before", count)  #@ look
    print("after", count, thing.size, table["one"])
    return numbers, text


look()
