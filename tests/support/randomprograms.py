"""Random small programs: every kind of statement that the running interpreter has, and no other.

    text, code = make_program(seed, path)

The same seed gives the same program under the same version. A program ends by itself after some
hundred lines at most. What it may use stands in HEAD, which is run before it in the same namespace
and is another file (kHeadLine says where it begins, kFirstLine where a program does: so no line of
the one, the other and of a text given to exec is the same). What it does it tells by OUT(...), and
RUN(function) runs a function in another thread to its end: these two are given to it.

Values that generators and coroutines yield are tuples, and no others are: so whoever sees a return
event knows whether the frame will go on (generator expressions yield no None). Who has made a
generator that may be suspended when it is left closes it, by shut(): no program depends on the time
at which the last reference goes.
"""
from __future__ import absolute_import, division, print_function

import random
import sys

kVersion = sys.version_info[:2]
kAssigned = ["a", "b", "c"]  # whoever assigns them has his own
kIndent = "    "
kCalls = 20  # of functions, in a whole program
kFunctions = [0, 1, 1, 1, 2, 2, 3, 5]  # besides the first one
kHeadLine = 101
kFirstLine = 501

kHead = '''
TICK = [0]
TOP = 1


class Fault(Exception):
    pass


class Worse(Fault):
    pass


class Other(Exception):
    pass


class Guard(object):
    def __init__(self, swallows):
        self.swallows = swallows

    def __enter__(self):
        OUT("enter")
        return self

    def __exit__(self, kind, value, trace):
        OUT("exit", kind and kind.__name__)
        return self.swallows


class Count(object):
    def __init__(self, number):
        self.number = number

    def __iter__(self):
        return self

    def __next__(self):
        if self.number <= 0:
            raise StopIteration
        self.number -= 1
        return self.number

    next = __next__

    @property
    def left(self):
        return self.number


class Meta(type):
    def __new__(meta, name, bases, space):
        OUT("made", name, len(bases))
        return type.__new__(meta, name, bases, space)

    def __call__(cls, *values):
        OUT("called", cls.__name__)
        return type.__call__(cls, *values)

    def __len__(cls):
        return 2


class Made(Meta("Made", (object,), {})):
    def __init__(self, number=0):
        self.number = number

    def __add__(self, other):
        return self.number + other

    def __call__(self, *values, **named):
        return sum(values) + len(named)

    def __getattr__(self, name):
        if name.startswith("no"):
            raise AttributeError(name)
        return len(name)

    def __getitem__(self, key):
        if key > 3:
            raise IndexError(key)
        return key

    def __iter__(self):
        for one in range(self.number):
            yield (one,)


class Field(object):
    def __get__(self, owner, kind):
        return 5

    def __set__(self, owner, value):
        OUT("set", value)


def wrapped(function):
    def call(*args, **keywords):
        return function(*args, **keywords)
    return call


def counted(times):
    def decorate(function):
        def call(*args, **keywords):
            for _ in range(times - 1):
                function(*args, **keywords)
            return function(*args, **keywords)
        return call
    return decorate


def shut(generator):
    for _ in range(20):
        try:
            return generator.close() if hasattr(generator, "close") else None
        except RuntimeError:
            OUT("refuses")


def more(d):
    TICK[0] += 1
    return d > 0 and TICK[0] < CALLS
'''

kAsyncHead = '''
class Wait(object):
    def __init__(self, number):
        self.number = number

    def __await__(self):
        got = yield ("wait", self.number)
        return self.number


class AsyncGuard(object):
    async def __aenter__(self):
        OUT("aenter")
        await Wait(1)

    async def __aexit__(self, kind, value, trace):
        OUT("aexit", kind and kind.__name__)
        return kind is Fault


async def areceive(d, x):
    await Wait(x)
    return x + 1


def drive(task):
    while True:
        try:
            OUT("step", task.send(None))
        except StopIteration as end:
            return end.value
        except StopAsyncIteration:
            return None


async def ashut(stream):
    for _ in range(20):
        try:
            return await stream.aclose()
        except RuntimeError:
            OUT("refuses")
'''

kIsAsync = kVersion >= (3, 6)
HEAD = "\n" * (kHeadLine - 1) + kHead.replace("CALLS", str(kCalls)) + (
    kAsyncHead if kIsAsync else "")


class Writer(object):
    """Builds the text of one program, line by line."""

    def __init__(self, seed):
        self.random = random.Random(seed).random
        self.lines = []
        self.depth = 0
        self.plain, self.generators, self.tasks, self.streams = [], [], [], []
        self.names = ["x"]
        self.loops = 0
        self.kind = "plain"  # of the function being written
        self.budget = 0
        self.made = 0

    # --- chance ---

    def below(self, limit):
        return int(self.random() * limit)

    def pick(self, values):
        return values[self.below(len(values))]

    def chance(self, share):
        return self.random() < share

    # --- text ---

    def put(self, text):
        self.lines.append(kIndent * self.depth + text if text else "")

    def put_all(self, texts):
        for text in texts:
            self.put(text)

    def block(self, head, *writers):
        self.put(head)
        self.depth += 1
        for write in writers:
            write()
        self.depth -= 1

    def fresh(self, stem):
        self.made += 1
        return "{}{}".format(stem, self.made)

    # --- expressions: all are small integers ---

    def name(self):
        return self.pick(self.names)

    def atom(self):
        return self.name() if self.chance(0.7) else str(self.below(7))

    def call(self):
        function = self.pick(self.plain) if self.plain else None
        if function is None:
            return self.atom()
        form = self.pick(["{0}(d - 1, {1})", "{0}(d - 1, {1})", "{0}(d - 1, x={1})",
                          "{0}(*[d - 1, {1}])", "{0}(\n        d - 1,\n        {1})",
                          "{0}(**dict(d=d - 1, x={1}))", "{0}(d - 1, *({1},), **{{}})"])
        return "({} if more(d) else {})".format(form.format(function, self.atom()), self.atom())

    def expression(self, depth=2):
        if depth <= 0:
            return self.atom()
        one = lambda: self.expression(depth - 1)
        kinds = [
            lambda: "({} + {}) % 11".format(one(), one()),
            lambda: "({}\n        + {}) % 7".format(one(), one()),
            lambda: "({} if {} else {})".format(one(), self.test(), one()),
            lambda: "({} and {} or {})".format(one(), one(), one()),
            lambda: "sum([i * {} for i in range({})]) % 13".format(self.atom(), self.below(4)),
            lambda: "sum(i + {} for i in range({}) if i % 2) % 5".format(self.atom(),
                                                                         self.below(5)),
            lambda: "len({{i: {} for i in range({})}})".format(self.atom(), self.below(4)),
            lambda: "len({{i % 2 for i in Count({})}})".format(self.below(4)),
            lambda: "(lambda y: (y + {}) % 9)({})".format(self.atom(), one()),
            lambda: "(lambda y={}: (\n        y + 1) % 9)()".format(self.atom()),
            lambda: "sorted([{}, {}], key=lambda y: -y)[0]".format(one(), one()),
            lambda: "list(map(lambda y: y % 3, [{}, 4]))[0]".format(one()),
            lambda: "Count({}).left".format(self.below(5)),
            lambda: "[{},\n        {},\n        {}][{} % 3]".format(one(), one(), one(), one()),
            lambda: "sum([i * j + {} for i in range({}) for j in range(i)])".format(
                self.atom(), self.below(4)),
            lambda: "len([[j for j in range(i)] for i in range({})])".format(self.below(4)),
            lambda: "(Made({}) + {})".format(self.atom(), one()),
            lambda: "Made()({}, *[{}], z={})".format(self.atom(), one(), self.atom()),
            lambda: "Made({}){}".format(self.below(4), self.pick(
                [".name", ".number", "[1]", "[2]", ".none", "[5]"])),
            lambda: "len({})".format(self.pick(["Made", "list(Made(2))", "'ab'[1:]", "(x, 1)"])),
            lambda: "eval('y + {}', {{'y': {}}})".format(self.below(4), self.atom()),
            self.call, self.call, self.call, self.atom,
        ]
        if kVersion >= (3, 6):
            kinds.append(
                lambda: "len(f\"{{{}}}-{{{}}}\")".format(self.atom(), self.call_on_one_line()))
        if kVersion >= (3, 5):
            kinds.append(lambda: "len([*range({}), *[{}]])".format(self.below(4), one()))
            kinds.append(lambda: "len({{**{{1: {}}}, 2: 3}})".format(one()))
        if kVersion >= (3, 8):
            kinds.append(lambda: "((w := {}) + w) % 9".format(one()))
            kinds.append(lambda: "len([v for i in range({}) if (v := i + {})])".format(
                self.below(4), self.atom()) if self.kind != "class" else self.atom())
        if kVersion >= (3, 12):
            kinds.append(
                lambda: "len(f'{{\n        {}\n        }}{{x!r:>{{4}}}}')".format(self.atom()))
        if kVersion >= (3, 14):
            kinds.append(lambda: "len(t'{{{}}}-{{x}}'.values)".format(self.atom()))
        if self.kind == "task":
            kinds.append(lambda: "((await Wait({})) + 1)".format(self.below(9)))
            if self.tasks:
                kinds += [lambda: "((await {}(d - 1, {})) if more(d) else 1)".format(
                    self.pick(self.tasks), self.atom())] * 2
        return self.pick(kinds)()

    def call_on_one_line(self):
        return self.call().replace("\n       ", "").replace("  ", " ")

    def test(self):
        return self.pick([
            "{} > {}", "{} % 2 == {} % 2", "not {} < {}", "{} and {}", "{} > 3 or {} < 2",
            "any(i == {} for i in ({}, 2))",
        ]).format(self.atom(), self.atom())

    # --- statements ---

    def body(self):
        names = list(self.names)  # what is assigned here may not be assigned behind it
        for _ in range(1 + self.below(3)):
            self.statement()
            if self.budget < 0:
                break
        self.names = names

    def statement(self):
        self.budget -= 1
        if self.budget < 0 or self.depth > 5:
            self.put("OUT({!r}, {})".format("s{}".format(self.made), self.atom()))
            return
        self.pick(self.kinds_of_statement())()

    def kinds_of_statement(self):
        kinds = [self.assign, self.assign, self.tell, self.tell, self.branch, self.loop_for,
                 self.loop_while, self.attempt, self.attempt, self.attempt_finally, self.guarded,
                 self.fail, self.local_function, self.local_class, self.use_generator, self.check,
                 self.leave, self.augment, self.delete, self.make_class, self.run_text, self.unpack,
                 self.recursion, self.local_generator, self.import_module]
        if self.kind == "class":
            kinds = [self.assign, self.tell, self.branch, self.loop_for, self.attempt, self.guarded,
                     self.fail, self.local_function, self.augment, self.unpack]
        elif self.chance(0.006):
            kinds = [self.in_thread]
        elif self.chance(0.05):
            kinds = [self.change_top]
        if self.loops:
            kinds += [self.jump, self.jump]
        if kVersion >= (3, 10):
            kinds.append(self.match)
        if kVersion >= (3, 11) and not self.loops:
            kinds.append(self.attempt_group)
        if kVersion >= (3, 12):
            kinds.append(self.generic_function)
        if self.kind in ("generator", "stream"):
            kinds += [self.give] * 4
        if self.kind == "generator" and kVersion >= (3, 3) and self.generators:
            kinds += [self.delegate] * 2
        if self.kind in ("task", "stream") and kVersion >= (3, 6):
            kinds += [self.async_for, self.async_with, self.async_comprehension]
        return kinds

    def assign(self):
        name = self.pick(kAssigned)
        self.put("{} = {}".format(name, self.expression()))
        if name not in self.names:
            self.names.append(name)

    def augment(self):
        name = self.name()
        self.put("{0} = ({0} + {1}) % 17".format(name, self.expression(1)))

    def delete(self):
        self.put("z = {}".format(self.expression(1)))
        self.put(self.pick([
            "OUT(z); del z", "z = [z, {0}]; del z[0]; OUT(z)",
            "z = Made(z); del z.number; OUT(z.number)", "z = dict(a=z); del z['a'], z; OUT({0})",
            "del z; OUT(z)"]).format(self.atom()))

    def unpack(self):
        forms = ["p, q = {}, {}", "(p, [q, _]) = {}, (1, {})", "p = q = {}; q = {}",
                 "p, q = Made({}), {}", "p = {{}}; p[{}] = {}; q = len(p)"]
        if kVersion >= (3,):
            forms += ["p, *q = {}, {}, 3", "*_, p, q = {}, {}"]
        if kVersion >= (3, 6):
            forms.append("p: int = {}; q: 'str' = {}")
        self.put(self.pick(forms).format(self.expression(1), self.atom()))
        self.put("OUT(q)")

    def change_top(self):
        name = self.fresh("f")
        self.block("def {}(y):".format(name), lambda: self.put("global TOP"),
                   lambda: self.put("TOP = (TOP + y) % 7"))
        self.put("{}({}); OUT(TOP)".format(name, self.atom()))

    def import_module(self):
        self.put(self.pick(["import math; OUT(math.floor({}))",
                            "from operator import add; OUT(add(1, {}))",
                            "import sys as z; OUT(len(z.argv) * 0 + {})"]).format(self.atom()))

    def recursion(self):
        name = self.fresh("r")
        body = self.pick(["1 if y <= 0 else y + {0}(y - 1)", "y and {0}(y - 1) + 1",
                          "[1, y // {1}][y > 1] and (y and {0}(y - 1))"])
        self.block("def {}(y):".format(name),
                   lambda: self.put("return " + body.format(name, self.below(3))))
        self.put("OUT({}({}))".format(name, self.below(6)))

    def run_text(self):
        text = self.pick([
            "y = {0}\\nOUT(x + y)",
            "for i in range({0}):\\n    OUT(i)\\n    x += i",
            "def e(y):\\n    return y + {0}\\nOUT(e(x))",
            "try:\\n    {0} // x\\nexcept ZeroDivisionError:\\n    OUT(1)",
            "OUT([i for i in range({0})])\\nraise KeyError({0})",
            "OUT((lambda y: y)({0}))",
            "class E(Made):\\n    z = {0}",
        ]).format(self.below(4))
        form = self.pick([
            "exec('{}', {{'OUT': OUT, 'x': {}, 'Made': Made}})",
            "exec(compile('{}', '<string>', 'exec'), dict(OUT=OUT, x={}, Made=Made))"])
        self.put(form.format(text, self.atom()))

    def in_thread(self):
        name = self.fresh("thread")
        self.block("def {}():".format(name), lambda: self.as_function("plain", self.body))
        self.put("RUN({})".format(name))

    def local_generator(self):
        name, held = self.fresh("gen"), self.fresh("g")
        self.block("def {}(y):".format(name), lambda: self.as_function(
            "generator", lambda: [self.give(), self.body(), self.give()], "y"))
        self.put("{} = {}({})".format(held, name, self.atom()))
        self.block("try:", lambda: self.put(self.pick([
            "OUT(next({0})); OUT({0}.send(None))", "OUT(list({0}))", "OUT([i for i in {0}])",
            "OUT(next({0}))", "OUT(sum(1 for _ in {0}))", "OUT({0}.throw(Fault(2)))",
            "OUT(sorted({0}, key=lambda y: y[0]))", "for i in {0}: break",
            "OUT(dict((i, 1) for i in {0}))"]).format(held)))
        self.block("finally:", lambda: self.put("shut({})".format(held)))

    def tell(self):
        self.put("OUT({!r}, {})".format(self.fresh("o"), self.expression()))

    def check(self):
        self.put("assert {}, {}".format(self.test(), self.atom()))

    def branch(self):
        self.block("if {}:".format(self.test()), self.body)
        if self.chance(0.4):
            self.block("elif {}:".format(self.test()), self.body)
        if self.chance(0.5):
            self.block("else:", self.body)

    def in_loop(self):
        self.loops += 1
        self.body()
        self.loops -= 1

    def loop_for(self):
        name = self.fresh("i")
        source = self.pick(["range({})".format(self.below(4)), "[1, {}]".format(self.atom()),
                            "Count({})".format(self.below(4))])
        if self.generators and self.chance(0.5):
            held = self.fresh("g")
            self.put("{} = {}(d - 1, {}) if more(d) else [(1,)]".format(
                held, self.pick(self.generators), self.atom()))
            self.block("try:", lambda: self.block("for {} in {}:".format(name, held), self.in_loop))
            self.block("finally:", lambda: self.put("shut({})".format(held)))
            return
        elif self.chance(0.2):
            self.put("for {} in {}: OUT({})".format(name, source, name))
        else:
            self.block("for {} in {}:".format(name, source),
                       lambda: self.names.append(name), self.in_loop)
            self.names.remove(name)
        if self.chance(0.3):
            self.block("else:", self.body)

    def loop_while(self):
        name = self.fresh("n")
        self.put("{} = {}".format(name, 1 + self.below(3)))
        self.block("while {}:".format(self.pick(["{0}", "{0} > 0", "True and {0}"]).format(name)),
                   lambda: self.put("{0} -= 1".format(name)), self.in_loop)
        if self.chance(0.3):
            self.block("else:", self.body)

    def jump(self):
        self.block("if {}:".format(self.test()), lambda: self.put(self.pick(["break", "continue"])))

    def fail(self):
        self.block("if {}:".format(self.test()), lambda: self.put(self.pick([
            "raise Fault({})".format(self.atom()), "raise Worse",
            "raise Other({})".format(self.atom()), "{}.missing".format(self.name()),
            "[][{}]".format(self.atom()), "1 // 0",
        ])))

    def attempt(self):
        self.block("try:", self.body, self.fail)
        kinds = ["except Worse:", "except Fault as why:", "except (Other, ZeroDivisionError):",
                 "except IndexError:", "except Exception as why:", "except:"]
        first = self.below(len(kinds))
        chosen = [kind for number, kind in enumerate(kinds) if number >= first and self.chance(0.6)]
        for kind in chosen or ["except Exception:"]:
            self.block(kind, self.body, self.maybe_raise_again)
        if self.chance(0.3):
            self.block("else:", self.body)
        if self.chance(0.3):
            self.block("finally:", self.in_finally)

    def maybe_raise_again(self):
        if self.chance(0.15):
            self.put("raise")
        elif self.chance(0.15):
            self.put("raise Other(1)"
                     + (self.pick(["", " from None", " from Fault(2)", " from KeyError"])
                        if kVersion >= (3,) else ""))

    def in_finally(self):
        # No continue before 3.8: it is no syntax there.
        loops, self.loops = self.loops, self.loops if kVersion >= (3, 8) else 0
        self.body()
        self.loops = loops

    def attempt_finally(self):
        self.block("try:", self.body)
        self.block("finally:", self.in_finally)

    def attempt_group(self):
        leaves, kind = self.leave, self.kind
        self.leave, self.kind = self.tell, "inner"  # none of return, yield, await in a handler
        self.block("try:", lambda: self.put(self.pick([
            "raise ExceptionGroup('g', [Fault(1), Worse(2)])", "raise Fault(3)",
            "raise ExceptionGroup('h', [Other(1), ExceptionGroup('i', [Fault(4)])])",
            "OUT('no group')", "1 // 0"])))
        self.block("except* Worse as why:", self.body_without_loops, self.maybe_raise_again)
        if self.chance(0.5):
            self.block("except* (Fault, Other):", self.body_without_loops)
        if self.chance(0.2):
            self.block("except* Exception as why:", self.body_without_loops, self.maybe_raise_again)
        if self.chance(0.2):
            self.block("else:", self.body_without_loops)
        if self.chance(0.3):
            self.block("finally:", self.body_without_loops)
        self.leave, self.kind = leaves, kind

    def body_without_loops(self):
        self.put("OUT({!r}, {})".format(self.fresh("g"), self.expression(1)))

    def guarded(self):
        swallows = self.pick(["True", "False", "True"])
        head = self.pick([
            "with Guard({0}):", "with Guard({0}) as g:", "with Guard({0}), Guard(False):"])
        if kVersion >= (3, 10):
            head = self.pick([head, "with (Guard({0}),\n            Guard(True) as g):"])
        self.block(head.format(swallows), self.body)

    def leave(self):
        is_bare = self.kind == "stream" or (self.kind == "generator" and kVersion < (3, 3))
        value = "" if is_bare else " " + self.expression(1)
        if self.chance(0.5):
            self.block("if {}:".format(self.test()), lambda: self.put("return" + value))
        elif self.loops or self.depth > 2:
            self.put("return" + value)
        else:
            self.tell()

    def match(self):
        if self.chance(0.3):
            self.put("match {}:".format(
                self.pick(["Made({})", "{{1: {}}}", "({}, 2)"]).format(self.atom())))
            self.depth += 1
            self.block("case Made(number=1 | 2 as m):", lambda: self.put("OUT(m)"))
            self.block("case {1: m, **rest} if m > 2:", self.body)
            self.block("case (int() as m, 2) | [m]:", lambda: self.put("OUT(m)"))
            self.block("case Made(name=m) | m:", self.body)
            self.depth -= 1
            return
        self.put("match [{}, {}]:".format(self.expression(1), self.atom()))
        self.depth += 1
        self.block("case [0, m]:", self.body)
        self.block("case [m, {}] if m > {}:".format(self.below(4), self.atom()), self.body)
        if self.chance(0.5):
            self.block("case [1 | 2 | 3, *_]:", self.body)
        if self.chance(0.7):
            self.block("case _:", self.body)
        self.depth -= 1

    # --- functions within functions ---

    def as_function(self, kind, write, *parameters):
        """Write what belongs to a function of its own inside this one."""
        saved = self.names, self.loops, self.kind
        outer = [name for name in self.names if name not in kAssigned or self.chance(0.3)]
        self.names, self.loops, self.kind = outer + list(parameters), 0, kind
        write()
        self.names, self.loops, self.kind = saved

    def local_function(self):
        name, inner = self.fresh("f"), []
        if kVersion >= (3,) and self.chance(0.4) and "a" in self.names:
            inner.append(lambda: self.put("nonlocal a"))
            inner.append(lambda: self.put("a = (a + y) % 5"))
        for _ in range(self.below(3) if self.chance(0.3) else 0):
            self.put(self.pick(["@wrapped", "@counted(2)"]))
        forms = ["y, step={}", "y, step={}", "y=1, step={}, *rest, **named"]
        if kVersion >= (3,):
            forms.append("y, *, step={}")
            forms.append("y: int, step: {0} = {0}")
        if kVersion >= (3, 8):
            forms.append("y, /, step={}, **named")
        self.block("def {}({}):".format(name, self.pick(forms).format(self.atom())), *inner + [
            lambda: self.as_function("plain", self.tell, "y", "step"),
            lambda: self.as_function("plain", lambda: self.put("return " + self.expression(1)),
                                     "y", "step")])
        self.put("OUT({!r}, {}({}))".format(name, name, self.atom()))

    def generic_function(self):
        name = self.fresh("t")
        self.block("def {}[T: int](y: T) -> T:".format(name), lambda: self.put("return y"))
        self.put("type {}_alias = list[T0]".format(name) if self.chance(0.3)
                 else "OUT({}({}))".format(name, self.atom()))

    def local_class(self):
        name = self.fresh("C")
        if self.chance(0.3):
            self.put("@wrapped")
        self.block("class {}({}):".format(name, self.pick(["object", "Count", "Guard"])),
                   lambda: self.put("made = [i for i in range({})]".format(self.below(3))),
                   lambda: self.put("note = {}".format(self.below(9))),
                   lambda: self.block("def method(self, y):",
                                      lambda: self.put("OUT(self.note)"),
                                      lambda: self.put("return len(self.made) + y")))
        self.put("OUT({0}({1}).method({2}))".format(name, self.below(3), self.atom()))

    def make_class(self):
        """With a metaclass, or statements of all kinds in its body."""
        name = self.fresh("C")
        bases = ["Made", "Made, Fault", "Made"]
        if kVersion >= (3,):
            bases += ["object, metaclass=Meta", "Made, metaclass=Meta"]
        self.block("class {}({}):".format(name, self.pick(bases)),
                   lambda: self.as_function("class", self.body),
                   lambda: self.put(
                       self.pick(["field = Field()", "pair = (1,\n            2)", "pass"])),
                   lambda: self.block("def __init__(self, number=2):",
                                      lambda: self.put("self.number = number"),
                                      lambda: self.put("self.field = number")),
                   lambda: self.block("def twice(self):",
                                      lambda: self.as_function("plain", self.tell, "self.number")))
        self.put(
            "{0}({1}).twice(); OUT(len(vars({0}({2}))))".format(name, self.atom(), self.below(3)))

    # --- generators ---

    def give(self):
        self.put(self.pick(["yield ({!r}, {})", "a = yield ({!r}, {})"]).format(
            self.fresh("y"), self.expression(1)))
        if self.lines[-1].strip().startswith("a = "):
            self.put("a = a or 1")
            if "a" not in self.names:
                self.names.append("a")

    def delegate(self):
        self.block("if more(d):", lambda: self.put("{}yield from {}(d - 1, {})".format(
            self.pick(["", "q = "]), self.pick(self.generators), self.atom())))

    def use_generator(self):
        if not self.generators:
            return self.tell()
        name = self.fresh("g")
        self.put("{} = {}(d - 1, {}) if more(d) else iter([])".format(
            name, self.pick(self.generators), self.atom()))
        for _ in range(1 + self.below(3)):
            self.put("OUT(next({}, 'end'))".format(name))
        self.pick([
            lambda: self.put(("del {}" if kVersion >= (3, 13) else "shut({})").format(name)),
            lambda: self.put(
                "OUT({0}.send(None)) if hasattr({0}, 'send') else OUT(0)".format(name)),
            lambda: self.put("shut({})".format(name)),
            lambda: self.put("OUT(list({}))".format(name)),
            lambda: self.throw_into(name),
            lambda: self.put("OUT(max({}, key=lambda y: y, default=0) if {} else sum(1 for _ "
                             "in {}))".format(
                name, "True" if kVersion >= (3, 4) else "False", name)
                if kVersion >= (3, 4) else "OUT(len(list({})))".format(name)),
        ])()
        if not self.lines[-1].strip().startswith("del "):
            self.put("shut({})".format(name))

    def throw_into(self, name):
        def throw():
            self.put("if hasattr({}, 'throw'):".format(name))
            self.put(kIndent + "OUT({}.throw({}))".format(name, self.pick(
                ["Fault(1)", "Other(2)", "KeyError", "GeneratorExit"])))
        self.block("try:", throw)
        self.block("except (Fault, Other, KeyError, GeneratorExit, StopIteration):",
                   lambda: self.put("OUT('thrown')"))

    # --- coroutines ---

    def async_for(self):
        source = ("{}(d - 1, {})".format(self.pick(self.streams), self.atom())
                  if self.streams else "empty()")
        held = self.fresh("s")
        self.put("{} = {}".format(held, source))
        self.block("try:", lambda: self.block(
            "async for _ in {}:".format(held), lambda: self.put("OUT(_)"), self.in_loop))
        self.block("finally:", lambda: self.put("await ashut({})".format(held)))

    def async_with(self):
        self.block("async with AsyncGuard():", self.body)

    def async_comprehension(self):
        if self.kind == "task" and self.streams:
            self.put("OUT([y async for y in {}(d - 1, {})])".format(
                self.pick(self.streams), self.atom()))
        else:
            self.tell()

    # --- the program ---

    def function(self, kind):
        name = self.fresh({"plain": "f", "generator": "gen", "task": "task",
                           "stream": "stream"}[kind])
        head = {"task": "async def ", "stream": "async def "}.get(kind, "def ")
        if kind == "plain" and self.chance(0.2):
            self.put("@wrapped")
        self.kind, self.names, self.budget = kind, ["x"], 4 + self.below(14)
        self.block("{}{}(d, x):".format(head, name), self.function_body)
        self.put("")
        self.put("")
        {"plain": self.plain, "generator": self.generators, "task": self.tasks,
         "stream": self.streams}[kind].append(name)

    def function_body(self):
        if self.kind in ("generator", "stream"):
            self.give()
        for _ in range(2 + self.below(3)):
            self.statement()
        if self.kind in ("plain", "task"):
            self.put("return {}".format(self.expression(1)))

    def program(self):
        is_async = kIsAsync
        more_kinds = ["plain", "plain", "generator"] + ["task", "stream"] * is_async
        kinds = [self.pick(["plain", "generator"])] + [
            self.pick(more_kinds) for _ in range(self.pick(kFunctions))]
        for kind in kinds:
            self.function(kind)
        self.kind, self.names, self.budget = "module", ["x"], 6
        self.put("d = 3")
        self.put("x = {}".format(self.below(9)))
        for name in self.plain + self.generators + self.tasks + self.streams:
            self.block("try:", lambda name=name: self.put_all(self.top_call(name)))
            self.block("except Exception as why:",
                       lambda: self.put("OUT('failed', type(why).__name__)"))
        if self.plain and self.chance(0.3):
            self.put_all(self.top_call(self.pick(self.plain)))
        return "\n" * (kFirstLine - 1) + "\n".join(self.lines) + "\n"

    def top_call(self, name):
        if name in self.tasks:
            return ["OUT(drive({}(d, x)))".format(name)]
        if name in self.streams:
            return ["s = {}(d, x)".format(name), "try:"] + [kIndent + step for step in self.pick([
                ["OUT(drive(s.__anext__()))"],
                ["OUT(drive(s.asend(None)))", "OUT(drive(s.asend(2)))"],
                ["OUT(drive(s.__anext__()))", "OUT(drive(s.athrow(Fault(1))))"],
            ])] + ["finally:", kIndent + "drive(ashut(s))"]
        if name in self.generators:
            return ["OUT(list({}(d, x)))".format(name)]
        return ["OUT({}(d, x))".format(name)]


def make_program(seed, path):
    """Text of a program that compiles, and its code; the few that do not are left out."""
    number = 0
    while True:
        text = Writer(seed * 100 + number).program()
        try:
            return text, compile(text, path, "exec", 0, True)
        except SyntaxError:
            number += 1
            if number > 50:
                raise


if __name__ == "__main__":
    print(HEAD + "\n" + make_program(int(sys.argv[1]), "<program>")[0].lstrip("\n"))
