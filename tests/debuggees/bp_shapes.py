"""One function for each shape of code whose lines debuggers are known to get wrong."""
from __future__ import absolute_import, division, print_function


def keep(function):
    return function


def first_line():
    one = 1  #@ first
    return one


def one_liner(): return 1  #@ one-liner


def only_docstring():
    """Nothing but this."""


def with_docstring():
    """The first line of code comes after this one.

    #@ inside-docstring
    """
    return 1  #@ after-docstring


def decorated():
    @keep  #@ decorator
    def inner(  #@ def
            a,
            b=keep(2),  #@ default
            c=keep(
                3)):  #@ default-second-line
        return a + b + c  #@ decorated-body
    return inner(1)  #@ decorated-call


def several_decorators():
    @keep
    @keep  #@ second-decorator
    def inner():
        return 4
    return inner()


def long_call():
    total = sum([  #@ call-first
        1,
        keep(2),  #@ call-argument
        3,
    ])  #@ call-last
    return total


def chained_call():
    return (  #@ chain-first
        "a,b"
        .replace(",", " ")  #@ chain-second
        .split()
    )


def long_string():
    text = """one
    two  #@ inside-string
    three"""
    return len(text)  #@ after-string


def long_expression(a=1, b=2):
    value = a + \
        b + \
        keep(a)  #@ continued
    return (value
            and b
            and value + b)


def conditional_expression(flag=True):
    return (1
            if flag
            else 2)


def semicolons():
    a = 1; b = 2; return a + b  #@ semicolons


def one_line_if(flag=False):
    if flag: return 1  #@ one-line-if
    return 2


class Context(object):
    def __init__(self, swallows=False):
        self.swallows = swallows

    def __enter__(self):
        return self

    def __exit__(self, *info):
        return self.swallows  #@ exit


def with_block():
    with Context() as first, \
            Context() as second:  #@ with-second
        inside = 1  #@ with-body
    return inside  #@ with-after


def with_raising():
    with Context(swallows=True):  #@ with-raising
        raise KeyError(1)
    return 1


def tries():
    done = []
    try:  #@ try
        done.append(1)  #@ try-body
    except KeyError:  #@ except-unused
        done.append(2)
    else:  #@ try-else
        done.append(3)
    finally:  #@ finally
        done.append(4)  #@ finally-body
    return done


def catches():
    try:
        raise KeyError(1)  #@ raise
    except (ValueError,  #@ except-first
            KeyError) as why:
        return why.args[0]  #@ except-body
    finally:
        last = 1  #@ finally-after-return


def re_raises():
    try:
        try:
            raise KeyError(1)
        finally:
            inner = 1  #@ finally-in-flight
    except KeyError:
        return inner


def for_else():
    for i in range(2):  #@ for
        last = i  #@ for-body
    else:  #@ for-else
        last = 9  #@ for-else-body
    return last


def while_else(count=2):
    while count:  #@ while
        count -= 1  #@ while-body
        if count == 5:
            break
        continue
    else:
        count = 7  #@ while-else
    return count


def loop_with_break():
    for i in range(10):
        if i == 2:
            break  #@ break
    return i


def lambdas():
    double = lambda x: x * 2  #@ lambda
    triple = lambda x: (
        x * 3)  #@ lambda-second
    return double(2) + triple(3)


def sorts():
    return sorted([3, 1, 2], key=lambda x:
                  -x)  #@ key


def comprehensions():
    squares = [i * i for i in range(3)]  #@ list
    table = {i: i
             for i in range(2)}  #@ dict-second
    pairs = [
        (i, j)  #@ nested-element
        for i in range(2)
        for j in range(2)  #@ nested-for
        if i != j
    ]
    lazy = sum(i for i in range(3))  #@ generator-expression
    return len(squares) + len(table) + len(pairs) + lazy


def makes_class():
    class Made(object):  #@ class
        """A docstring."""
        attribute = 1  #@ class-body
        other = attribute + 1

        def method(self):
            return self.attribute  #@ method

        @property
        def prop(self):
            return self.other  #@ property

        @staticmethod
        def static():
            return 5  #@ static
    made = Made()  #@ class-made
    return made.method() + made.prop + made.static()


def numbers(count):
    for i in range(count):
        got = yield i  #@ yield
        ignored = got  #@ resumed
    return


def generators():
    running = numbers(20)  #@ make-generator
    return sum(running)


def sends():
    running = numbers(3)
    next(running)
    running.send(5)
    running.close()
    return 1


def throws():
    def catching():
        try:
            yield 1
        except KeyError:
            yield 2  #@ thrown
    running = catching()
    next(running)
    return running.throw(KeyError(1))


def closures():
    count = [0]

    def add():
        count[0] += 1  #@ closure
        return count[0]
    add()
    return add()


def recursion(n=4):
    if n == 0:
        return 0  #@ recursion-end
    return n + recursion(n - 1)  #@ recursion


def asserts(value=1):
    assert value, "message"  #@ assert
    assert (value and
            keep(value))
    return value


def deletes():
    a = b = 1
    del a, b  #@ delete
    global unused  #@ global
    pass  #@ pass
    return 1


def nothing_after_return():
    return 1
    never = 2  #@ unreachable


def unpacks():
    (a,
     b), c = (1, 2), 3  #@ unpack
    print_nothing = [a,
                     b, c]
    return print_nothing


def long_line_table():
    start = 1






    # Line tables write big jumps as several small ones. (Blank lines above belong here.)









































































































































    end = start + 1  #@ far
    return end


def backwards():
    value = [
        keep(1) for _ in range(1)
    ] if keep(
        True) else None  #@ backwards
    return value


def everything():
    return [function() for function in kShapes]


kShapes = [
    first_line, one_liner, only_docstring, with_docstring, decorated, several_decorators, long_call,
    chained_call, long_string, long_expression, conditional_expression, semicolons, one_line_if,
    with_block, with_raising, tries, catches, re_raises, for_else, while_else, loop_with_break,
    lambdas, sorts, comprehensions, makes_class, generators, sends, throws, closures, recursion,
    asserts, deletes, nothing_after_return, unpacks, long_line_table, backwards,
]
