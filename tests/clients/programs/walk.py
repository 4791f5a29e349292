"""Functions to stop in and to step through."""
from __future__ import print_function

import sys


def double(value):
    result = value * 2  #@ double
    return result  #@ double-end


def add_up(count):
    total = 0  #@ add-up
    for number in range(count):
        total += number  #@ loop
    doubled = double(
        total)  #@ call
    return doubled  #@ after-call


class Box(object):
    def open(self, key):
        return key + 1  #@ open


def main():
    print("begin")  #@ begin
    sys.stdout.flush()
    first = add_up(10)
    second = Box().open(first)  #@ box
    print("end", second)  #@ end
    sys.stderr.write("to stderr\n")
    return 3


sys.exit(main())  #@ main
