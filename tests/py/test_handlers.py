"""Whether an exception will be caught: blocks and clauses,
at the raise and against what happens."""
from __future__ import absolute_import, division, print_function

import sys
import unittest

from support import needs
from support.scans import Probe, ScanCase
from tdbg.handlers import kCaught, kUncaught, kUnknown

kOncePerVersion = True


class OneFrame(ScanCase):
    def test_nothing_around_it(self):
        self.check(kUncaught, "def case(): boom()")

    def test_matching_clause(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except ValueError: pass
        """)

    def test_clause_for_another_type(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                except KeyError: pass
                except (OSError, IndexError): pass
        """)

    def test_clause_for_a_base_class(self):
        self.check(kCaught, """
            def case():
                try: boom(Derived)
                except KeyError: pass
                except Base: pass
        """)
        self.check(kUncaught, """
            def case():
                try: boom(Base)
                except Derived: pass
        """)

    def test_bare_except(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except: pass
        """)

    def test_bare_except_after_a_clause(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except KeyError: raise
                except: pass
        """)

    def test_tuple_in_a_variable(self):
        self.check(kCaught, """
            kinds = (KeyError, ValueError)
            def case():
                try: boom()
                except kinds: pass
        """)
        self.check(kUncaught, """
            def case():
                kinds = (KeyError, Base)
                try: boom()
                except kinds as error: pass
        """)

    def test_name_of_an_enclosing_function(self):
        self.check(kCaught, """
            def outer(kind):
                def inner():
                    try: boom()
                    except kind: pass
                inner()
            def case(): outer(ValueError)
        """)

    def test_dotted_name(self):
        self.check(kCaught, """
            import socket
            def case():
                try: boom(OSError if sys.version_info >= (3,) else socket.error)
                except socket.error: pass
        """)
        self.check(kUncaught, """
            import socket
            def case():
                try: boom()
                except socket.timeout: pass
        """)

    def test_attribute_of_a_class(self):
        self.check(kUncaught, """
            class Model(object):
                class Missing(Exception): pass
            def case():
                try: boom()
                except Model.Missing: pass
        """)

    def test_computed_expression_may_catch(self):
        self.check(kUnknown, """
            def kinds(): return KeyError
            def case():
                try: boom()
                except kinds(): pass
        """, escapes=True)

    def test_attribute_of_an_instance_is_not_computed(self):
        self.check(kUnknown, """
            class Owner(object):
                @property
                def kind(self): raise AssertionError('evaluated by the debugger')
            owner = Owner()
            def case():
                try: boom()
                except owner.kind: pass
        """, escapes=False)

    def test_comparing_classes_runs_no_code_of_the_program(self):
        self.check(kUncaught, """
            class Meta(type):
                def __eq__(self, other): raise AssertionError('run by the debugger')
                __hash__ = type.__hash__
            Odd = Meta('Odd', (Exception,), {})
            def case():
                try: boom(Odd)
                except KeyError: pass
        """)

    def test_name_that_is_not_there_may_catch(self):
        self.check(kUnknown, """
            def case():
                try: boom()
                except missing: pass
        """, escapes=False)

    def test_else_and_handler_are_outside_of_the_try(self):
        self.check(kUncaught, """
            def case():
                try: pass
                except ValueError: pass
                else: boom()
        """)
        self.check(kUncaught, """
            def case():
                try: {}['x']
                except KeyError: boom()
                except ValueError: pass
        """)

    def test_module_level(self):
        self.check(kCaught, """
            text = compile('try: boom()\\nexcept ValueError: pass', '<module>', 'exec')
            def case(): exec(text, globals())
        """)

    def test_type_and_value_of_an_old_style_class(self):
        if sys.version_info[0] > 2:
            return self.skipTest("no old-style classes")
        self.check(kCaught, """
            class Old: pass
            class Older(Old): pass
            def case():
                try: boom(lambda text: Older())
                except Old: pass
        """)


class Raising(ScanCase):
    """Clauses that let the exception go on."""

    def test_bare_raise(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                except ValueError: raise
        """)

    def test_bare_raise_after_other_work(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                except ValueError as error:
                    for i in range(3):
                        if i: str(error)
                    try: {}['x']
                    except KeyError: pass
                    raise
        """, escapes=sys.version_info[0] > 2)  # version 2 raises the latest one, the KeyError

    def test_bare_raise_on_some_ways_only(self):
        self.check(kUnknown, """
            def case():
                try: boom()
                except ValueError:
                    if len(sys.argv) > 1000: raise
        """, escapes=False)

    def test_bare_raise_into_an_outer_clause(self):
        self.check(kCaught, """
            def case():
                try:
                    try: boom()
                    except ValueError as error: raise
                except ValueError: pass
        """)

    def test_another_exception_in_its_place(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except ValueError: raise KeyError('instead')
        """)

    def test_return_in_the_clause(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except ValueError as error: return str(error)
        """)

    def test_break_and_continue_in_the_clause(self):
        for word in ("break", "continue"):
            self.check(kCaught, """
                def case():
                    for i in range(2):
                        try: boom()
                        except ValueError: {}
            """.format(word))


class Finally(ScanCase):
    def test_goes_on(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                finally: str()
        """)

    def test_goes_on_into_a_clause(self):
        self.check(kCaught, """
            def case():
                try:
                    try: boom()
                    finally: str()
                except ValueError: pass
        """)

    def test_returns(self):
        self.check(kCaught, """
            def case():
                try: boom()
                finally: return 1
        """)

    def test_breaks(self):
        self.check(kCaught, """
            def case():
                while True:
                    try: boom()
                    finally: break
        """)

    @needs("syntax:while 1:\n try: pass\n finally: continue")
    def test_continues(self):
        self.check(kCaught, """
            def case():
                for i in (1, 2):
                    try: boom()
                    finally: continue
        """)

    def test_own_loop_in_it(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                finally:
                    for i in range(3):
                        if i == 1: continue
                        if i == 2: break
                    while i:
                        i = 0
        """)

    def test_own_handlers_in_it(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                finally:
                    try: {}['x']
                    except KeyError: pass
                    finally: str()
                    with Swallow(): pass
        """)

    def test_return_from_the_try_passes_it(self):
        self.check(kUncaught, """
            def case():
                for i in range(2):
                    try:
                        if i: return boom()
                        continue
                    finally: str()
        """)

    def test_raises_in_it(self):
        self.check(kUncaught, """
            def case():
                try:
                    try: str()
                    finally: boom()
                except KeyError: pass
        """)


class With(ScanCase):
    def test_may_swallow(self):
        self.check(kUnknown, """
            def case():
                with Swallow(): boom()
        """, escapes=False)

    def test_may_swallow_several(self):
        self.check(kUnknown, """
            def case():
                with Swallow() as one, Keep() as two: boom()
        """, escapes=False)

    def test_passes_on_what_it_is_known_to(self):
        for manager in (
                "Keep()", "open('/dev/null')", "open('/dev/null', mode='r') as f", "lock",
                "threading.Lock()", "io.open('/dev/null') as f, lock", "Keep() as kept"):
            self.check(kUncaught, """
                import io, threading
                lock = threading.Lock()
                def case():
                    with {}: boom()
            """.format(manager))

    def test_passes_on_into_a_clause(self):
        self.check(kCaught, """
            def case():
                try:
                    with Keep(): boom()
                except ValueError: pass
        """)

    def test_manager_that_is_not_to_be_foreseen(self):
        for manager in ("make()", "Sometimes()", "Odd()", "keeps[0]", "Keep() if boom else None",
                        "(lambda: Swallow())()"):
            self.check(kUnknown, """
                class Sometimes(Keep):
                    def __exit__(self, kind, value, tb): return kind is ValueError
                class Odd(Keep):
                    def __new__(cls): return Swallow()
                keeps = [Swallow()]
                def make(): return Swallow()
                def case():
                    with {}: boom()
            """.format(manager), escapes="if boom" in manager)

    def test_its_own_expression_is_outside(self):
        self.check(kUncaught, """
            def case():
                with boom(): pass
        """)

    def test_behind_it(self):
        self.check(kUncaught, """
            def case():
                with Swallow(): pass
                boom()
        """)


@needs("syntax:try:\n pass\nexcept* ValueError:\n pass")
class Groups(ScanCase):
    def test_all_parts_are_caught(self):
        self.check(kCaught, """
            def case():
                try: group(ValueError, KeyError)
                except* ValueError: pass
                except* (KeyError, OSError): pass
        """)

    def test_a_part_remains(self):
        verdict, _ = Probe("""
            def case():
                try: group(ValueError, KeyError)
                except* ValueError: pass
        """).run()
        self.assertEqual(verdict, kUncaught)

    def test_the_rest_is_caught_further_out(self):
        self.check(kCaught, """
            def inner():
                try: group(ValueError, KeyError)
                except* ValueError: pass
            def case():
                try: inner()
                except* LookupError: pass
        """)

    def test_plain_exception(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except* ValueError: pass
        """)
        self.check(kUncaught, """
            def case():
                try: boom()
                except* KeyError: pass
        """)

    def test_computed_expression(self):
        self.check(kUnknown, """
            def kinds(): return ValueError
            def case():
                try: boom()
                except* kinds(): pass
        """, escapes=False)

    def test_group_in_a_plain_clause(self):
        self.check(kCaught, """
            def case():
                try: group(ValueError)
                except ExceptionGroup: pass
        """)
        self.check(kUncaught, """
            def case():
                try: group(ValueError)
                except ValueError: pass
        """)

    def test_nested_groups(self):
        self.check(kCaught, """
            def case():
                inner = ExceptionGroup('inner', [KeyError(), OSError()])
                try: boom(value=ExceptionGroup('outer', [inner, ValueError()]))
                except* (ValueError, KeyError): pass
                except* OSError: pass
        """)


if __name__ == "__main__":
    unittest.main()
