"""Calls within calls, and every way of returning."""
from __future__ import print_function


def factorial(number):
    if number < 2:
        return 1
    return number * factorial(number - 1)


def is_even(number):
    return True if number == 0 else is_odd(number - 1)


def is_odd(number):
    return False if number == 0 else is_even(number - 1)


def ackermann(m, n):
    if m == 0:
        return n + 1
    if n == 0:
        return ackermann(m - 1, 1)
    return ackermann(m - 1, ackermann(m, n - 1))


def nothing():
    pass


def bare_return(flag):
    if flag:
        return
    print("not returned yet")
    return None


def from_loop(numbers):
    for number in numbers:
        if number > 2:
            return number
    else:
        return -1


def from_while(limit):
    total = 0
    while True:
        total += 1
        if total == 2:
            continue
        if total > limit:
            break
    return total


def with_defaults(first=factorial(3), *rest, **named):
    return (
        first,
        len(rest),
        sorted(named.items()),
    )


def main():
    print(factorial(5), is_even(7), is_odd(7))
    print(ackermann(2, 2))
    print(nothing(), bare_return(True), bare_return(False))
    print(from_loop([1, 2, 3, 4]), from_loop([]), from_while(4))
    print(with_defaults(), with_defaults(1, 2, x=factorial(2)))
    value = factorial(2) + factorial(
        3)
    print(value); print(value + 1)


if __name__ == "__main__":
    main()
