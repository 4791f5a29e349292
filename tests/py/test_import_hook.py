"""The import hook: what it tells the debug server, and that imports are as before."""
from __future__ import absolute_import, division, print_function

import sys
import threading
import unittest

from support import TestCase, debuggee
from support.tracing import Session, ThreadSession, import_debuggee, kBuiltins

steps = import_debuggee("steps")

try:
    import _thread
except ImportError:
    import thread as _thread

try:
    from importlib import reload
except ImportError:
    reload = kBuiltins.reload


class HookCase(TestCase):
    def setUp(self):
        self.folder = self.make_dir()
        sys.path.insert(0, self.folder)
        self.seen = []
        self.session = Session(import_cb=self.import_cb)
        self.tracer = self.session.tracer

    def import_cb(self, module):
        if module.__name__ not in ("io", "_io"):  # importing itself imports them
            self.seen.append(module.__name__)

    def make_module(self, name, text="value = 1\n"):
        self.make_file(name + ".py", text, self.folder)
        return name

    def traced(self, function):
        """Call it under the tracer; only what it imports itself is kept."""
        def program(stop):
            del self.seen[:]
            return function()
        return self.session.run(program)


class HookTest(HookCase):
    def test_each_imported_module_is_told(self):
        self.make_module("leaf")
        self.make_module("root", "import leaf\nimport leaf\n")
        self.traced(lambda: __import__("root"))
        self.assertEqual(self.seen, ["leaf", "leaf", "root"])

    def test_an_import_inside_the_callback_is_not_told(self):
        self.make_module("outer")
        self.make_module("within")

        def import_cb(module):
            self.import_cb(module)
            if module.__name__ == "outer":
                __import__("within")

        self.session.import_cb = import_cb
        self.session.init()
        self.traced(lambda: __import__("outer"))
        self.assertEqual(self.seen, ["outer"])
        self.assertIn("within", sys.modules)

    def test_nothing_is_told_while_not_tracing(self):
        self.make_module("quiet")
        __import__("quiet")
        self.session.run(lambda stop: None)
        del self.seen[:]
        __import__("quiet")
        self.assertEqual(self.seen, [])

    def test_the_modules_that_are_there_are_told_at_the_start(self):
        self.tracer.start_trace()
        self.tracer.stop_trace()
        self.assertIn("sys", self.seen)
        self.assertIn("support.tracing", self.seen)

    def test_the_result_and_the_arguments_are_those_of_the_default(self):
        def program():
            import os.path as path
            from xml.dom import minidom
            return [
                __import__("xml.dom"), __import__("xml.dom", fromlist=["minidom"]),
                __import__("xml.dom", globals(), locals(), [], 0), path, minidom]

        first, second, third, path, minidom = self.traced(program)
        self.assertIs(first, sys.modules["xml"])
        self.assertIs(second, sys.modules["xml.dom"])
        self.assertIs(third, sys.modules["xml"])
        self.assertIs(path, sys.modules["os"].path)
        self.assertIs(minidom, sys.modules["xml.dom.minidom"])

    def test_failing_imports_fail_as_before(self):
        self.make_module("broken", "1 // 0\n")

        def program():
            caught = []
            for name in ("broken", "broken", "no_such_module"):
                try:
                    __import__(name)
                except (ZeroDivisionError, ImportError) as why:
                    caught.append(type(why).__name__)
            return caught

        caught = self.traced(program)
        self.assertEqual(caught[:2], ["ZeroDivisionError"] * 2)
        self.assertIn(caught[2], ("ImportError", "ModuleNotFoundError"))
        self.assertEqual(self.seen, [])
        self.assertRaises(TypeError, self.traced, kBuiltins.__import__)

    def test_a_failing_callback_does_not_reach_the_program(self):
        self.make_module("victim")

        def import_cb(module):
            raise KeyError("callback")

        self.session.import_cb = import_cb
        self.session.init()
        module = self.traced(lambda: __import__("victim"))
        self.assertEqual(module.value, 1)

    def test_the_exception_being_handled_is_kept(self):
        self.make_module("handled")

        def program():
            try:
                steps.fails()
            except ValueError:
                import handled
                return handled.value, sys.exc_info()[0]

        self.assertEqual(self.traced(program), (1, ValueError))

    def test_stepping_goes_through_an_import_line(self):
        self.make_module("stepped", "one = 1\ntwo = 2\n")

        def program(stop):
            stop()
            import stepped
            return stepped.two

        self.assertEqual(self.session.run(program, *["step_over"] * 3), 2)
        self.assertEqual([stop[:2] for stop in self.session.stops],
                         [("line", "program"), ("line", "program"), ("return", "program")])

    def test_step_into_enters_a_module(self):
        name = self.make_module("entered", "one = 1\ntwo = 2\n")

        def until_module(frame):
            if frame.f_globals.get("__name__") == name:
                self.session.tracer.continue_run()
                found.append(frame.f_lineno)
            else:
                self.session.tracer.step_into()
                self.session.script.append(until_module)

        found = []

        def program(stop):
            stop(); __import__(name)

        self.session.run(program, until_module)
        self.assertEqual(found, [1])

    def test_no_stops_while_the_callback_runs(self):
        self.make_module("loud")
        self.session.import_cb = lambda module: steps.add(1, 2)
        self.session.init()

        def program(stop):
            stop(); __import__("loud")

        self.session.run(program, *["step_into"] * 2000)
        self.assertNotIn("add", [stop[1] for stop in self.session.stops])


class NewImportsTest(HookCase):
    def test_executed_modules_are_listed_once_for_each_execution(self):
        name = self.make_module("again")
        path = self.folder + "/again.py"

        def program():
            self.tracer.get_new_imports()
            module = __import__(name)
            first = self.tracer.get_new_imports()
            reload(module)
            return first, self.tracer.get_new_imports(), self.tracer.get_new_imports()

        first, after_reload, rest = self.traced(program)
        self.assertEqual(first, [path])
        self.assertEqual(after_reload, [path])
        self.assertEqual(rest, [])

    def test_importing_again_does_not_execute(self):
        name = self.make_module("once")

        def program():
            self.tracer.get_new_imports()
            __import__(name)
            __import__(name)
            return self.tracer.get_new_imports()

        self.assertEqual(self.traced(program), [self.folder + "/once.py"])

    def test_code_of_no_file_is_not_listed(self):
        def program():
            self.tracer.get_new_imports()
            for name in ("<string>", "<made up>", ""):
                eval(compile("1 + 1", name, "eval"), {})
                eval(compile("x = 1", name, "exec"), {"__name__": "made_up"})
            return self.tracer.get_new_imports()

        self.assertEqual(self.traced(program), [])

    def test_what_runs_at_the_start_is_listed(self):
        self.tracer.start_trace()
        files = self.tracer.get_new_imports()
        self.tracer.stop_trace()
        self.assertIn(sys.modules["__main__"].__file__.replace(".pyc", ".py"), files)

    def test_before_the_start_there_are_none(self):
        self.assertEqual(self.tracer.get_new_imports(), [])


class RegisterTest(HookCase):
    def test_a_module_is_told_and_its_path_given(self):
        path = self.tracer.register_module(steps)
        self.assertEqual(path, debuggee("steps.py"))
        self.assertEqual(self.seen, ["steps"])

    def test_what_is_no_module_is_refused(self):
        for wrong in (42, "steps", None):
            self.assertRaisesRegex(
                TypeError, "^object is not a module instance$", self.tracer.register_module, wrong)


class AdoptionTest(TestCase):
    def trace_functions_around_an_import(self, session):
        """Of a thread that the tracer has not seen begin."""
        session.tracer.set_use_eval_frame(0)
        done = threading.Event()
        traced = []

        def target():
            try:
                traced.append(sys.gettrace())
                import sys as again
                traced.append(again.gettrace())
            finally:
                done.set()

        def program(stop):
            _thread.start_new_thread(target, ())
            done.wait()

        session.run(program)
        return traced

    def test_the_first_import_of_an_unknown_thread_adopts_it(self):
        session = ThreadSession()
        self.assertEqual(self.trace_functions_around_an_import(session),
                         [None, session.tracer.trace_dispatch])

    def test_a_thread_that_is_not_to_be_debugged_is_not_adopted(self):
        session = ThreadSession()
        session.tracer.set_debug_thread_cb(lambda tstate_id: tstate_id == main)
        main = session.tracer.get_current_tstate_id()
        self.assertEqual(self.trace_functions_around_an_import(session), [None, None])

    def test_after_the_end_nobody_is_adopted(self):
        session = ThreadSession()
        session.run(lambda stop: None)
        import json
        self.assertTrue(json)
        self.assertIsNone(sys.gettrace())


if __name__ == "__main__":
    unittest.main()
