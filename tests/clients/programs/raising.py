"""Exceptions: one that is handled, one that ends the program."""


class Refused(ValueError):
    pass


def check(number):
    if number > 1:
        raise Refused("too much: {}".format(number))  #@ raise


def handled():
    try:
        check(2)
    except ValueError:
        return "handled"


handled()
try:
    {}["missing"]  #@ lookup
except KeyError:
    check(3)
