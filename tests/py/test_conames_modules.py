"""Code of a whole module: what is registered for its file, and the class that a function is in."""
from __future__ import absolute_import, division, print_function

import types

from support.capabilities import needs
from support.conames import NamesCase, compile_code, kObject
from support.references import growth_of_references

kModule = """
import os
from os.path import join

def f():
    def g():
        return lambda: 1
    return [x for x in g]

class C:
    def m(self): pass
    class Inner(object):
        def i(self): pass

class D(object):
    def m(self): pass
    same = C
    inherited = C.m

f_again = f
D.itself = D
bound = D().m
"""


class SweepTest(NamesCase):
    def new_module(self, source=kModule):
        names = {"__name__": "m"}
        exec(compile_code("/p/m.py", source), names)
        return names

    def all_code(self, code):
        found = [code]
        for constant in code.co_consts:
            if isinstance(constant, types.CodeType):
                found.extend(self.all_code(constant))
        return found

    def code_of(self, function):
        return getattr(function, "__func__", function).__code__

    def module_code(self, names):
        codes = self.all_code(names["f"].__code__)
        for function in (names["C"].m, names["C"].Inner.i, names["D"].m):
            codes.append(self.code_of(function))
        return codes

    def test_all_code_of_the_module_is_registered(self):
        names = self.new_module()
        codes = self.module_code(names)
        self.assertEqual(self.sweep(names), len(codes))
        self.assertEqual([self.lookup(code) for code in codes], ["/p/m.py"] * len(codes))

    def test_code_of_other_modules_is_left_alone(self):
        names = self.new_module()
        self.sweep(names)
        self.assertIsNone(self.lookup(names["join"].__code__))

    def test_a_second_sweep_replaces_names_only_by_force(self):
        names = self.new_module()
        self.sweep(names)
        self.sweep(names, "/p/2.py")
        self.assertEqual(self.lookup(names["f"].__code__), "/p/m.py")
        self.sweep(names, "/p/3.py", force=1)
        self.assertEqual(self.lookup(names["f"].__code__), "/p/3.py")

    def test_what_is_no_dict_has_no_code(self):
        for no_dict in (None, [], kObject()):
            self.assertEqual(self.sweep(no_dict), 0)

    def test_the_sweep_goes_ten_levels_deep(self):
        lines = [" " * level + "class C:" for level in range(12)]
        lines = [line + "\n" + " " * level + " def m(self): pass"
                 for level, line in enumerate(lines)]
        names = self.new_module("\n".join(lines))
        found = []
        cls = names["C"]
        while cls is not None:
            found.append(self.code_of(cls.__dict__["m"]))
            cls = cls.__dict__.get("C")
        self.sweep(names)
        # The module's names are level 0, the first class is level 1 and its method level 2.
        self.assertEqual([self.lookup(code) is not None for code in found],
                         [True] * 8 + [False] * 4)

    def test_constants_count_as_levels(self):
        lines = [" " * level + "def f():" for level in range(12)] + [" " * 12 + "pass"]
        names = self.new_module("\n".join(lines))
        codes = self.all_code(names["f"].__code__)
        self.assertEqual(self.sweep(names), 9)
        self.assertEqual([self.lookup(code) is not None for code in codes],
                         [True] * 9 + [False] * 3)

    def test_no_code_of_the_program_runs(self):
        names = self.new_module("""
class Meta(type):
    def __getattribute__(cls, name):
        calls.append(name)
        return type.__getattribute__(cls, name)

class Trap(object):
    def __getattr__(self, name):
        calls.append(name)
        raise AttributeError(name)

calls = []
trap = Trap()
cls = Meta("cls", (), {"m": lambda self: 1})
""")
        m = type.__getattribute__(names["cls"], "__dict__")["m"].__code__
        del names["calls"][:]
        self.sweep(names)
        self.new_object(self.call("GetContainingClass", compile_code("/p/x.py"), names))
        self.assertEqual(names["calls"], [])
        self.assertEqual(self.lookup(m), "/p/m.py")

    @needs("total_refcount")
    def test_the_sweep_leaks_nothing(self):
        names = self.new_module()
        self.assertEqual(growth_of_references(lambda: self.sweep(names)), 0)


class ContainingClassTest(NamesCase):
    def setUp(self):
        super(ContainingClassTest, self).setUp()
        self.names = {"__name__": "m"}
        exec(compile_code("/p/m.py", """
def f(): pass
class Old:
    def o(self): pass
class New(object):
    def n(self): pass
    @staticmethod
    def s(): pass
    @classmethod
    def c(cls): pass
    class Inner(object):
        def i(self): pass
    not_code = 7
New.itself = New
"""), self.names)

    def containing(self, function):
        code = getattr(function, "__func__", function).__code__
        return self.new_object(self.call("GetContainingClass", code, self.names))

    def test_a_method_is_in_its_class(self):
        names = self.names
        self.assertIs(self.containing(names["Old"].o), names["Old"])
        self.assertIs(self.containing(names["New"].n), names["New"])
        self.assertIs(self.containing(names["New"].Inner.i), names["New"].Inner)

    def test_static_and_class_methods_are_in_their_class(self):
        for function in (self.names["New"].s, self.names["New"].c):
            self.assertIs(self.containing(function), self.names["New"])

    def test_a_function_of_the_module_is_in_no_class(self):
        self.assertIsNone(self.containing(self.names["f"]))
        self.assertIsNone(self.containing(self.containing))

    def test_without_a_module_there_is_no_class(self):
        for no_dict in (None, kObject()):
            self.assertFalse(self.call("GetContainingClass", compile_code("/p/a.py"), no_dict))

    def test_a_class_has_its_name(self):
        for cls, name in ((self.names["Old"], "Old"), (self.names["New"].Inner, "Inner")):
            self.assertEqual(self.new_object(self.call("GetPyClassName", cls)), name)

    def test_what_has_no_name_gives_none(self):
        self.assertFalse(self.call("GetPyClassName", 7))

    @needs("total_refcount")
    def test_the_search_leaks_nothing(self):
        def search():  # the interpreter settles late here: its own free lists fill up
            self.containing(self.names["New"].Inner.i)

        self.assertEqual(growth_of_references(search, warm_up=500), 0)
