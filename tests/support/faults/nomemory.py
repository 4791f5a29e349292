"""The interpreter's own allocations, made to fail in turn by _testcapi (3.6 and later,
where it is there)."""
from __future__ import absolute_import, division, print_function


def failing(number):
    """Calls a function with arguments, while the allocation after `number` others fails."""
    import _testcapi

    def call(function, arguments):
        _testcapi.set_nomemory(number, number + 1)
        try:
            return function(*arguments)
        finally:
            _testcapi.remove_mem_hooks()
    return call


def numbers_up_to(limit, dense):
    """0, 1, 2 ... up to dense, and then ever fewer."""
    number = 0
    while number < limit:
        yield number
        number += 1 + max(0, number - dense) // 6
