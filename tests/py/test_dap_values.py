"""Values as text, their children, and expressions for these: without a session."""
from __future__ import absolute_import, division, print_function

import array
import collections
import math
import sys
import threading
import types
import unittest

from support import TestCase, needs

kOncePerVersion = True

PY2 = sys.version_info[0] == 2
kMillion = 10 ** 6


class Plain(object):
    shared = 7

    def __init__(self):
        self.zeta, self._hidden, self.alpha = 1, 2, "three"

    @property
    def computed(self):
        CALLS.append("computed")
        return 5


class Slotted(object):
    __slots__ = ("left", "right", "unset")

    def __init__(self):
        self.left, self.right = 1, [2]


class Hostile(object):
    """Everything that can be asked of it fails."""

    def __init__(self):
        object.__setattr__(self, "inside", 1)

    def __getattribute__(self, name):
        CALLS.append(name)
        raise KeyError(name)

    __getattr__ = __getattribute__

    @property
    def __class__(self):
        CALLS.append("__class__")
        return dict


class LoudList(list):
    def __getitem__(self, index):
        CALLS.append("getitem")
        return "not it"

    def __iter__(self):
        CALLS.append("iter")
        return iter(())

    def __len__(self):
        CALLS.append("len")
        return 0


class LoudDict(dict):
    def __getitem__(self, key):
        CALLS.append("getitem")
        return "not it"

    def items(self):
        CALLS.append("items")
        return []

    __iter__ = keys = values = items

    def __len__(self):
        CALLS.append("len")
        return 0


class Endless(object):
    def __repr__(self):
        while True:
            pass


class Stubborn(object):
    """Lets no exception through."""

    def __repr__(self):
        count = 0
        while True:
            try:
                while True:
                    count += 1
            except BaseException:
                if STOP:
                    return "ended"
                STOP.append(1)


class Raises(object):
    def __repr__(self):
        raise ValueError("no\nway")


class Exits(object):
    def __repr__(self):
        sys.exit(3)


class Recurses(object):
    def __repr__(self):
        return repr(self)


class NoText(object):
    def __repr__(self):
        return 5


class OddText(str if not PY2 else unicode):  # noqa: F821
    def __getitem__(self, index):
        CALLS.append("text")
        return "not it"

    __len__ = lambda self: CALLS.append("len") or 0  # noqa: E731


class Meta(type):
    def __getattribute__(self, name):
        CALLS.append(name)
        raise KeyError(name)


CALLS, STOP = [], []
Point = collections.namedtuple("Point", "x y")


class ValuesTest(TestCase):
    def setUp(self):
        del CALLS[:], STOP[:]

    def text(self, value, seconds=0.1, safe=False, **options):
        from tdbg import evaluate
        from tdbg.dap import values

        limiter = None if safe else evaluate.tLimiter(seconds, 5)
        limits = values.tLimits(options.pop("string", 1000), options.pop("items", 100))
        return values.tRenderer(limits, limiter, **options).text(value)

    def children(self, value):
        from tdbg.dap import children

        return children.children_of(value)

    def named(self, value):
        return [(child.name, child.value) for child in self.children(value).named()]


class Texts(ValuesTest):
    def test_plain_values_look_as_repr_has_them(self):
        for value in (0, -5, 2 ** 70, 1.5, 1j, True, None, "a'b", b"ab\0", u"\xe9\u20ac", [], (),
                      {}, (1,), [1, [2]], {"a": (1, 2)}, set([1]), bytearray(b"xy"), Ellipsis, int,
                      len, range(3), array.array("i", [1, 2]), collections.deque([1, 2], 5)):
            expected = repr(value) if not (PY2 and isinstance(value, set)) else "{1}"
            self.assertEqual(self.text(value), expected)
        self.assertEqual(self.text(frozenset([1])), "frozenset({1})")
        self.assertEqual(self.text(set()), "set()")

    def test_subclasses(self):
        self.assertEqual(self.text(Point(1, "b")), "Point(x=1, y='b')")
        text = self.text(collections.defaultdict(list, {1: 2}))
        self.assertEqual(text, "defaultdict({}, {{1: 2}})".format(repr(list)))
        self.assertEqual(self.text(collections.OrderedDict([("b", 1), ("a", 2)])),
                         "OrderedDict({'b': 1, 'a': 2})")
        self.assertEqual(self.text(LoudList([1, 2])), "[1, 2]")
        self.assertEqual(self.text(LoudDict(a=1)), "{'a': 1}")
        self.assertEqual(CALLS, [])

    def test_numbers_in_hexadecimal(self):
        self.assertEqual(self.text([255, (-16, True), 1.5], in_hex=True),
                         "[0xff, (-0x10, True), 1.5]")

    def test_large_numbers_cost_nothing(self):
        self.assertRegex(self.text(1 << 10 ** 7), r"^<int of 10000001 bits: 0x8000.*\.\.\.>$")
        self.assertRegex(self.text(-(1 << 10 ** 7)), r"^<int of 10000001 bits: -0x8000.*\.\.\.>$")

    def test_long_texts_are_cut_and_say_so(self):
        text = self.text("x" * 50 * kMillion)
        self.assertEqual(text, "'" + "x" * 1000
                         + "...' (50000000 {})".format("bytes" if PY2 else "characters"))
        self.assertEqual(self.text(bytearray(b"y" * 3000), string=4),
                         "bytearray(b'yyyy...') (3000 bytes)")
        self.assertLess(len(self.text(["x" * kMillion] * 100)), 1500)
        self.assertEqual(self.text("abc", string=3), "'abc'")

    def test_large_containers_show_their_beginning(self):
        numbers = list(range(kMillion))
        for value in (numbers, tuple(numbers), set(numbers), dict.fromkeys(numbers),
                      collections.deque(numbers), array.array("i", numbers), {1: numbers},
                      [numbers], dict.fromkeys(numbers).keys()):
            text = self.text(value)
            self.assertLess(len(text), 2200)
            self.assertIn("...", text)
        self.assertEqual(self.text(numbers, items=3), "[0, 1, 2, ...]")
        self.assertEqual(self.text({"a": 1}, items=1), "{'a': 1}")

    def test_cycles_and_depth_end(self):
        loop = [1]
        loop.append(loop)
        self.assertEqual(self.text(loop), "[1, [...]]")
        entries = {}
        entries["me"] = entries
        self.assertEqual(self.text(entries), "{'me': {...}}")
        deep = []
        for _ in range(10 ** 5):
            deep = [deep]
        self.assertEqual(self.text(deep), "[" * 7 + "..." + "]" * 7)

    def test_bad_reprs(self):
        self.assertEqual(self.text(Raises()), "<Raises object: repr failed: ValueError: no\nway>")
        self.assertEqual(self.text(Exits()), "<Exits object: repr failed: SystemExit: 3>")
        self.assertIn("repr failed: ", self.text(Recurses()))
        self.assertIn("repr failed: TypeError: ", self.text(NoText()))
        self.assertEqual(self.text([1, Raises(), 2]),
                         "[1, <Raises object: repr failed: ValueError: no\nway>, 2]")

    def test_repr_that_takes_too_long(self):
        self.assertEqual(self.text(Endless()), "<Endless object: repr takes too long>")
        self.assertEqual(self.text([1, Endless(), 2]),
                         "[1, <Endless object: repr takes too long>, 2]")
        self.assertEqual(self.text(Stubborn()), "ended")  # struck again
        total = 0
        for number in range(10 ** 5):  # nothing comes later
            total += number
        self.assertEqual(self.text(3), "3")

    def test_liars(self):
        class Odd(object):
            def __repr__(self):
                return OddText("fine")

        self.assertEqual(self.text(Odd()), "fine")
        self.assertEqual(CALLS, [])
        strange = Meta("Strange", (object,), {})
        self.assertRegex(self.text(strange()), "^<.*Strange object at 0x")
        self.assertIn("Strange", self.text(strange))
        self.assertRegex(self.text(Hostile()), "^<.*Hostile object at 0x")
        self.assertEqual(CALLS, [])

    def test_safe_texts_run_no_code(self):
        for value in (Endless(), [Raises()], {Exits(): Recurses()}, Point(Raises(), 1),
                      Raises().__repr__):
            self.assertIn("object at 0x", self.text(value, safe=True))
        self.assertEqual(self.text([1, "a", {2: None}], safe=True), "[1, 'a', {2: None}]")

    @needs("!python2")
    def test_enums_and_dataclasses(self):
        import enum

        kind = enum.Enum("Color", "RED")
        self.assertEqual(self.text(kind.RED, safe=True), "<Color.RED: 1>")
        if sys.version_info >= (3, 7):
            import dataclasses

            made = dataclasses.make_dataclass("Made", [("a", int), ("b", list)])
            self.assertEqual(self.text(made(1, list(range(kMillion))), safe=True, items=2),
                             "Made(a=1, b=[0, 1, ...])")

    @needs("python2")
    def test_old_classes(self):
        class Old:
            def __init__(self):
                self.x = 1

        class OldText(Old):
            def __repr__(self):
                return "mine"

        self.assertRegex(self.text(Old()), "Old object at 0x")
        self.assertEqual(self.text(OldText()), "mine")
        self.assertEqual(self.named(Old()), [("x", 1), ("(class)", Old)])
        self.assertEqual(self.text(Old), "<class 'test_dap_values.Old'>")

    def test_whole_texts(self):
        from tdbg.dap import values

        self.assertEqual(len(values.whole_text("x" * kMillion)), kMillion + 2)
        self.assertEqual(len(values.whole_text(list(range(10 ** 5)))), 688890)
        self.assertEqual(values.whole_text(255, True), "0xff")
        self.assertTrue(values.whole_text(1 << 10 ** 6).startswith("0x1000"))
        self.assertTrue(values.whole_text(10 ** 9000 if not PY2 else 1).startswith(("0x", "1")))
        self.assertIn("repr failed: ValueError", values.whole_text(Raises()))


class Limits(ValuesTest):
    def test_quick_calls_share_a_watch(self):
        from tdbg import evaluate

        made, original = [], evaluate.tWatch
        evaluate.tWatch = lambda seconds: made.append(seconds) or original(seconds)
        try:
            limiter = evaluate.tLimiter(30)
            self.assertEqual(
                limiter.map(lambda item: limiter.call(lambda: item + 1), range(500), None),
                list(range(1, 501)))
        finally:
            evaluate.tWatch = original
        self.assertEqual(made, [30])
        self.assertEqual(threading.active_count(), 1)

    def test_slow_ones_do_not_spoil_the_others(self):
        from tdbg import evaluate

        limiter = evaluate.tLimiter(0.05, 60)
        values = [1, Endless(), "a", Endless(), None]
        texts = limiter.map(lambda value: limiter.call(lambda: repr(value)), values,
                            lambda value: "slow")
        self.assertEqual(texts, ["1", "slow", "'a'", "slow", "None"])

    def test_what_is_left_when_the_time_is_over(self):
        from tdbg import evaluate

        limiter = evaluate.tLimiter(0.05, 0.1)
        texts = limiter.map(lambda value: limiter.call(lambda: repr(value)), [Endless()] * 50,
                            lambda value: "slow")
        self.assertEqual(texts, ["slow"] * 50)
        self.assertRaises(evaluate.tTooSlow, limiter.call, int)


class Children(ValuesTest):
    def check(self, value, **names):
        """Each child's expression yields the child,
        without code of the program where it matters."""
        found = self.children(value)
        names = dict(names, value=value, sys=sys)
        checked = []
        for child in found.indexed(0, min(found.indexed_count, 200)) + found.named():
            expression = child.expression("value")
            if expression is None:
                continue
            expected = child.get() if child.get is not None else child.value
            got = eval(expression, names)
            if got is not expected:
                self.assertEqual((expression, got), (expression, expected))
            checked.append(child)
        return checked

    def test_plain_values_have_none(self):
        for value in (1, 1 << 80, "a", u"b", b"c", None, True, 1.5, Ellipsis, len, [], {},
                      (), object()):
            self.assertIsNone(self.children(value), value)

    def test_items(self):
        for value in ([1, [2]], (1, 2), set([1, "b"]), frozenset([3]), collections.deque([4, 5]),
                      array.array("d", [1.5]), bytearray(b"ab"), range(5), LoudList([1, 2]),
                      {"a": 1}.keys(), {"a": 1}.items(), {1: 2}.values()):
            if PY2 and value == range(5):
                value = xrange(5)  # noqa: F821
            found = self.children(value)
            del CALLS[:]
            self.check(value)
            self.assertEqual(CALLS, [])
        self.assertEqual(self.children(LoudList([1, 2])).indexed_count, 2)
        view = memoryview(bytearray(b"ab"))
        self.assertEqual(self.children(view).indexed_count, 2)
        if not PY2:
            self.check(view)
        found = self.children(list(range(kMillion)))
        self.assertEqual(found.indexed_count, kMillion)
        self.assertEqual([child.value for child in found.indexed(kMillion - 2, kMillion)],
                         [kMillion - 2, kMillion - 1])

    def test_entries_with_keys_of_any_kind(self):
        class Key(object):
            pass

        entries = {"a": 1, u"\xe9": 2, b"b": 3, 4: 5, 1.5: 6, None: 7, (1, ("x",)): 8, Key(): 9,
                   float("nan"): 10, frozenset([1]): 11, True: 12, "x" * 5000: 13, -1: 14,
                   (Key(),): 15}
        checked = self.check(entries)
        self.assertEqual(len(checked), len(entries))
        by_value = dict((child.value, child.expression("d")) for child in checked)
        self.assertEqual(by_value[1], "d['a']")
        self.assertEqual(by_value[7], "d[None]")
        self.assertEqual(by_value[8], "d[(1, ('x',))]")
        del CALLS[:]
        loud = self.check(LoudDict(a=1, b=2))
        self.assertEqual([child.name for child in loud if child.name], ["(class)"])
        self.assertEqual(CALLS, [])
        self.check(collections.OrderedDict([("b", 1), ("a", 2)]))
        self.check(collections.defaultdict(list, a=[1]))

    def test_order_of_an_ordered_dict(self):
        entries = collections.OrderedDict((name, 1) for name in "cab")
        entries["c"] = entries.pop("c")
        self.assertEqual([child.key for child in self.children(entries).named()], list("abc"))
        if not PY2:
            entries.move_to_end("b", last=False)
            self.assertEqual([child.key for child in self.children(entries).named()], list("bac"))
            self.assertEqual(self.text(entries), "OrderedDict({'b': 1, 'a': 1, 'c': 1})")

    def test_many_entries_have_numbers(self):
        found = self.children(dict.fromkeys(range(kMillion)))
        self.assertEqual((found.indexed_count, found.named()), (kMillion, []))
        self.assertEqual([child.key for child in found.indexed(10, 12)], [10, 11])

    def test_attributes(self):
        plain = Plain()
        found = self.children(plain).named()
        self.assertEqual([(child.name, child.kind, child.visibility) for child in found], [
            (name, kind, visibility) for name, kind, visibility in (
                ("alpha", "data", "public"), ("zeta", "data", "public"),
                ("_hidden", "data", "private"), ("computed", "property", "public"),
                ("(class)", "class", "public"))
        ] if PY2 else [
            ("zeta", "data", "public"), ("alpha", "data", "public"), ("_hidden", "data", "private"),
            ("computed", "property", "public"), ("(class)", "class", "public")])
        self.assertEqual(CALLS, [])
        self.check(plain)
        self.assertEqual(CALLS, ["computed", "computed"])

    def test_attributes_with_odd_names(self):
        plain = Plain()
        plain.__dict__.update({"two words": 1, "class": 2, "computed": 3})
        if not PY2:
            plain.__dict__[5] = 4
        names = dict((child.value, child.expression("x")) for child in self.check(plain)
                     if child.get is None)
        self.assertEqual(names[3], "x.__dict__['computed']")
        self.assertEqual(names.get(4, "x.__dict__[5]"), "x.__dict__[5]")
        self.assertEqual(self.text(names[1]),
                         self.text("x.__dict__['two words']" if not PY2 else names[1]))

    def test_slots(self):
        self.assertEqual(self.named(Slotted())[:2], [("left", 1), ("right", [2])])
        self.assertEqual([child.name for child in self.check(Slotted())],
                         ["left", "right", "(class)"])

    def test_hostile_objects(self):
        found = self.check(Hostile(), object=object)
        self.assertEqual([child.name for child in found], ["inside", "(class)"])
        self.assertEqual(CALLS, [])
        strange = Meta("Strange", (object,), {"x": 1})
        self.assertIn(("x", 1), self.named(strange))
        self.assertEqual(CALLS, [])

    def test_native_objects(self):
        self.assertIn(("start", 1), self.named(slice(1, 2, 3)))
        error = None
        try:
            raise EnvironmentError(2, "text", "name")
        except EnvironmentError as caught:
            error = caught
        named = dict(self.named(error))
        self.assertEqual((named["errno"], named["filename"], named["args"]),
                         (2, "name", (2, "text")))
        self.assertEqual("__traceback__" in named, not PY2)
        del error, named
        generator = (item for item in [1])
        self.assertIn("gi_frame", dict(self.named(generator)))
        method = dict(self.named(Plain().__init__))
        self.assertEqual(method["__func__"].__name__, "__init__")

    def test_functions_and_their_closures(self):
        inner = 5

        def function(argument=[1]):
            return inner

        function.mark = 2
        found = self.check(function)
        self.assertIn(("(closure) inner", 5), [(child.name, child.value) for child in found])
        self.assertIn(("mark", 2), [(child.name, child.value) for child in found])
        if sys.version_info >= (3, 7):
            found[0].set(6)
            self.assertEqual(function(), 6)

    def test_classes_and_modules(self):
        found = dict((child.name, child) for child in self.check(Plain))
        self.assertEqual(found["shared"].expression("C"), "C.shared")
        self.assertEqual(found["computed"].expression("C"), "C.__dict__['computed']")
        self.assertEqual(found["__init__"].kind, "method")
        module = types.ModuleType("made")
        module.a, module.__all__, module._b = 1, [], 2
        names = [child.name for child in self.check(module)]
        self.assertEqual(names[:2], ["a", "_b"])
        self.assertIn("__all__", names[2:])

    def test_namedtuples_by_field(self):
        found = self.check(Point(1, [2]))
        self.assertEqual([(child.name, child.value) for child in found[:2]], [("x", 1), ("y", [2])])
        self.assertNotIn("x", [child.name for child in found[2:]])

    def test_setting(self):
        value, entries, plain, slotted = [1, 2], {"a": 1}, Plain(), Slotted()
        self.children(value).indexed(1, 2)[0].set(5)
        self.children(entries).named()[0].set(6)
        [child for child in self.children(plain).named() if child.name == "alpha"][0].set(7)
        self.children(slotted).named()[0].set(8)
        self.assertEqual((value, entries, plain.alpha, slotted.left), ([1, 5], {"a": 6}, 7, 8))
        self.assertIsNone(self.children((1, 2)).indexed(0, 1)[0].set)
        self.assertIsNone(self.children(set([1])).indexed(0, 1)[0].set)

    def test_arrays_of_numpy(self):
        class ndarray(array.array):
            __module__ = "numpy"

        class Outer(object):  # what numpy has is native; an array of the library stands in
            pass

        from tdbg.dap import children

        self.assertTrue(children._is_ndarray(ndarray))
        self.assertFalse(children._is_ndarray(Outer))
        value = ndarray("d", [1.0, 2.5])
        self.assertEqual([child.value for child in children._ndarray_children(value).indexed(0, 2)],
                         [1.0, 2.5])

    def test_values_of_the_library_that_only_read_memory(self):
        import datetime

        named = dict(self.named(datetime.datetime(2020, 1, 2)))
        self.assertEqual((named["year"], named["day"]), (2020, 2))
        self.assertTrue(math.isnan(float("nan")))


class Peeks(ValuesTest):
    def peek(self, source, **names):
        from tdbg import framecode
        from tdbg.dap import peek

        return peek.peek(source, framecode.tGlobals(names))

    def test_what_is_harmless(self):
        plain, entries = Plain(), {"a": [1, 2], 3: (4,)}
        for source, value in (
                ("x", 5), ("p.alpha", "three"), ("p.shared", 7), ("d['a'][1]", 2), ("d[3][0]", 4),
                ("d['a'][-1:]", [2]), ("x + 1", 6), ("-x * 2", -10), ("not x", False),
                ("x > 4", True), ("1 < x < 3", False), ("x is x", True),
                ("m.pi", math.pi), ("'text'", "text"), ("(x, 1)", (5, 1)), ("s.left", 1),
                ("P.shared", 7), ("None", None), ("d['a'] is d['a']", True), ("len", len),
                ("1.5", 1.5)):
            self.assertEqual(
                self.peek(source, x=5, p=plain, d=entries, m=math, s=Slotted(), P=Plain),
                value, source)

    def test_what_is_not(self):
        from tdbg.dap import peek

        loud = LoudDict(a=1)
        for source in ("f()", "p.computed", "h.inside", "l[0]", "d['a']", "[i for i in l]",
                       "lambda: 1", "p + p", "p == p", "1 ** 9", "l and p", "x if x else p",
                       "10 ** 10", "e[p]", "strange.x"):
            self.assertRaises(
                peek.tUnsafe, self.peek, source, f=Plain, p=Plain(), h=Hostile(), l=LoudList([1]),
                d=loud, x=1, e={}, strange=Meta("Strange", (object,), {"x": 1}))
        self.assertEqual(CALLS, [])
        for source in ("nothing", "p.nothing", "l[5]", "d['b']"):
            self.assertRaises(peek.tUnknown, self.peek, source, p=Plain(), l=[1], d={})
        self.assertRaises(SyntaxError, self.peek, "x = 1")

    def test_missing_entries_are_not_made(self):
        from tdbg.dap import peek

        made = collections.defaultdict(list)
        self.assertRaises(peek.tUnknown, self.peek, "d['a']", d=made)
        self.assertEqual(len(made), 0)


class Columns(ValuesTest):
    def test_words_and_expressions_at_the_end(self):
        from tdbg.dap import completion

        for text, expected in (
                ("x + a.b", "a.b"), ("f(a.b", "a.b"), ("a.b[0]", "a.b[0]"), ("a . b", "a . b"),
                ("'text'", "'text'"), ("[1, 2]", "[1, 2]"), ("d['a.b'].c", "d['a.b'].c"),
                ("f(1).x", "f(1).x"), ("", ""), ("x +", ""), (u"\xe9t\xe9.x", u"\xe9t\xe9.x"),
                ("d[')'].x", "d[')'].x"), ("return a", "a"), ("a]", "")):
            self.assertEqual(completion.expression_at_end(text), expected, text)

    def test_units_of_columns(self):
        from tdbg.dap import completion

        text = u"\U0001f600\xe9b"
        self.assertEqual(completion.take_units(text, 3), text[:-1])
        self.assertEqual(completion.take_units(text, 100), text)
        self.assertEqual(completion.take_units(text, -1), u"")
        self.assertEqual(completion.count_units(text), 4)

    def test_inside_of_texts_and_comments(self):
        from tdbg.dap import completion

        for text, expected in (("'abc", True), ("'abc'", False), ("x # y", True), ("'#' + ", False),
                               ("'''a' ", True), (r"'\'", True), ("", False)):
            self.assertEqual(completion.is_in_text(text), expected, text)


if __name__ == "__main__":
    unittest.main()
