"""Small functions to step through. `stop()` makes the tracer stop at the next line."""
from __future__ import print_function


def add(first, second):
    total = first + second  #@ add-first
    return total  #@ add-last


def calls(stop):
    stop()
    total = add(1, 2)  #@ calls-add
    total += add(3, 4)  #@ calls-again
    return total  #@ calls-last


def passes_on(stop):
    stop()
    return add(1, 2)  #@ passes


def calls_passes_on(stop):
    value = passes_on(stop)
    return value + 1  #@ passed


def loops(stop):
    stop()
    for number in range(2):  #@ loop-for
        add(number, 1)  #@ loop-body
    return number  #@ loop-last


def one_line(stop):
    stop()
    for number in range(3): add(number, 1)  #@ one-line
    return number  #@ one-last


def straight(stop):
    stop()
    first = 1  #@ range-first
    second = first + 1
    third = second + 1  #@ range-end
    fourth = third + 1  #@ range-after
    return fourth  #@ range-last


def goes_back(stop):
    stop()
    number = 0  #@ back-first
    while number < 2:  #@ back-while
        number += 1  #@ back-body
    return number  #@ back-last


def factorial(stop, number=3):
    if number == 3: stop()
    if number == 1:  #@ fact-test
        return 1
    below = factorial(stop, number - 1)  #@ fact-call
    return number * below  #@ fact-last


def deep(stop, number=3):
    if number == 0:
        stop()
        return 0  #@ deep-bottom
    below = deep(stop, number - 1)
    return below + 1  #@ deep-last


# --- generators ---


def numbers():
    first = 1  #@ gen-first
    yield first  #@ gen-yield
    second = 2  #@ gen-second
    yield second  #@ gen-yield-again
    third = 3  #@ gen-last


def consumes(stop):
    stop()
    total = 0  #@ consumes-first
    for number in numbers():  #@ consumes-for
        total += number  #@ consumes-body
    return total  #@ consumes-last


def takes_next(stop):
    stop()
    generator = numbers()  #@ next-make
    first = next(generator)  #@ next-one
    second = next(generator)  #@ next-two
    return first + second  #@ next-last


def sums_expression(stop):
    stop()
    total = sum(add(number, 1) for number in range(2))  #@ sum
    return total  #@ sum-last


# --- exceptions ---


def fails():
    value = 1  #@ fails-first
    raise ValueError(value)  #@ fails-raise


def catches(stop):
    stop()
    try:  #@ catches-try
        fails()  #@ catches-call
    except ValueError:  #@ catches-except
        caught = True  #@ catches-caught
    return caught  #@ catches-last


def does_not_catch(stop):
    stop()
    fails()  #@ lets-through


def catches_below(stop):
    try:
        does_not_catch(stop)  #@ below-call
    except ValueError:  #@ below-except
        return "caught"  #@ below-last


def cleans_up(stop, log):
    stop()
    try:  #@ cleans-try
        fails()  #@ cleans-call
    finally:
        log.append("cleaned")  #@ cleans-finally


def survives_cleaning(stop):
    log = []
    try:
        cleans_up(stop, log)  #@ survives-call
    except ValueError:  #@ survives-except
        return log  #@ survives-last


# --- bodies ---


def defines_class(stop):
    stop()
    class Made(object):  #@ class-line
        one = 1  #@ class-one
        two = 2  #@ class-two
    return Made.one + Made.two  #@ class-last


def calls_lambda(stop):
    stop()
    value = (lambda x: add(x, 1))(1)  #@ lambda-line
    return value  #@ lambda-last
