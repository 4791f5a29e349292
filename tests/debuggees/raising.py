"""Exceptions: caught, passed on, replaced, swallowed, and one that nobody catches."""
from __future__ import print_function

import sys


class Trouble(Exception):
    pass


class Context(object):
    def __init__(self, swallows):
        self.swallows = swallows

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        print("leaving with", kind and kind.__name__)
        return self.swallows


def fail(depth):
    if depth == 0:
        raise Trouble("at the bottom")
    fail(depth - 1)
    print("never")


def caught_at_once():
    try:
        raise ValueError("1")
    except ValueError as why:
        return str(why)


def caught_by_caller():
    try:
        fail(2)
    except (KeyError, Trouble) as why:
        result = str(why)
    else:
        result = "nothing"
    return result


def with_finally(log):
    try:
        try:
            fail(1)
        finally:
            log.append("finally")
    except Trouble:
        log.append("except")
    return log


def return_from_finally():
    try:
        raise KeyError("lost")
    finally:
        return "found"


def replaced():
    try:
        int("x")
    except ValueError:
        raise Trouble("instead")


def passed_on():
    try:
        fail(0)
    except Trouble:
        raise


def swallowed():
    with Context(True):
        fail(1)
    with Context(False):
        pass
    return "swallowed"


def in_loop():
    done = []
    for number in range(4):
        try:
            if number == 1:
                continue
            if number == 3:
                break
            done.append(1 // number)
        except ZeroDivisionError:
            done.append("infinite")
        finally:
            done.append(number)
    return done


def pending():
    try:
        fail(0)
    except Trouble:
        inner = caught_at_once()
        return inner, sys.exc_info()[0].__name__


def main():
    print(caught_at_once(), caught_by_caller())
    print(with_finally([]), return_from_finally())
    for function in (replaced, passed_on):
        try:
            function()
        except Trouble as why:
            print(function.__name__, why)
    print(swallowed(), in_loop(), pending())
    with Context(False):
        fail(1)


main()
