"""Sub-language hooks: loading, activation, categories of frames, stops, stepping, exceptions."""
from __future__ import absolute_import, division, print_function

import os
import sys
import threading
import types

from support import TestCase, growth_of_references, needs
from support.tracing import Session, kDefaultImport

kEngine = """
def render(nodes, stop=None):
    if stop:
        stop()
    for node in nodes:
        call(node)
    return 'rendered'

def call(node):
    hidden = 1
    return node()

def key():
    first = 1
    second = 2
    return 'key'

def key_calls(function):
    value = function()
    after = value
    return after

def key_raises():
    raise ValueError('in the template')

def other_marker(node):
    return node()

def generator_marker(node):
    yield node()
    yield node()
"""

kUser = """
def ordinary():
    line = 1
    return line

def raises():
    raise KeyError('ordinary')

def outer(render, nodes, stop):
    stop()
    render(nodes)
    last = 1
    return last
"""

kTemplate = "/templates/page.html"
kException, kCall, kLine, kReturn = -1, 0, 1, 2
kRun, kInto, kInKey, kOver = -1, 0, 1, 2


def code_of(function):
    return function.__code__


class Hook(object):
    """Answers from attributes, and writes down what it is asked."""

    def __init__(self, engine):
        self.markers = [code_of(engine.render)]
        self.keys = [code_of(engine.key), code_of(engine.key_calls), code_of(engine.key_raises)]
        self.paths = [(os.path.dirname(engine.__file__), 1)]
        self.asked = []
        self.loads = []
        self.stops = lambda frame, event, mode: 0
        self.place = lambda frame, flag: (kTemplate, frame.f_lineno)
        self.step_out = lambda frame: frame.f_back

    def _GetMarkerFrames(self):
        self.loads.append("markers")
        return self.markers() if callable(self.markers) else self.markers

    def _GetModulePaths(self):
        self.loads.append("paths")
        return self.paths() if callable(self.paths) else self.paths

    def _GetSubLanguageFrames(self):
        self.loads.append("frames")
        return self.keys() if callable(self.keys) else self.keys

    def _StopHere(self, frame, event, mode):
        self.asked.append((frame.f_code.co_name, event, mode))
        return self.stops(frame, event, mode)

    def _TranslateFrame(self, frame, flag):
        self.asked.append(("translate", frame.f_code.co_name, flag))
        return self.place(frame, flag)

    def _GetStepOutFrame(self, frame):
        self.asked.append(("step out", frame.f_code.co_name))
        return self.step_out(frame)

    def _Eval(self, text, frame):
        self.asked.append(("eval", text))
        return eval(text, {}, frame.f_locals)


class SubLanguageCase(TestCase):
    exception_mode = 0

    def setUp(self):
        self.engine = self.load("engine", kEngine)
        self.user = self.load("user", kUser)
        self.session = Session(exception_mode=self.exception_mode)
        self.tracer = self.session.tracer
        self.hook = Hook(self.engine)

    def load(self, name, text):
        module = types.ModuleType(str(name))
        module.__file__ = self.make_file(name + ".py", text)
        code = compile(text, module.__file__, "exec", dont_inherit=True)
        exec(code, module.__dict__)
        return module

    def register(self, *hooks):
        for hook in hooks or (self.hook,):
            self.tracer.register_sub_language_hook(hook)

    def render(self, *nodes, **keywords):
        """Render under the tracer; the script begins where render() is entered."""
        script = keywords.pop("script", ())
        stop = keywords.pop("stop", True)
        result = []
        self.session.run(
            lambda ask: result.append(self.engine.render(nodes, ask if stop else None)), *script)
        return result[0]

    def category(self, frame):
        return self.tracer.sub_language_get_frame_category(
            self.tracer.get_current_tstate_id(), frame)

    def active(self):
        return self.tracer.sub_language_get_active_hook(self.tracer.get_current_tstate_id())

    def lines(self, stops=None):
        return [stop[1] for stop in (stops or self.session.stops) if stop[0] == "line"]


class RegisterTest(SubLanguageCase):
    def test_it_answers_none_and_keeps_the_hook(self):
        before = sys.getrefcount(self.hook)
        self.assertIsNone(self.tracer.register_sub_language_hook(self.hook))
        self.assertGreater(sys.getrefcount(self.hook), before)

    def test_arguments(self):
        self.assertRaises(TypeError, self.tracer.register_sub_language_hook)
        self.assertRaises(TypeError, self.tracer.register_sub_language_hook, 1, 2)

    def test_queries_without_a_hook(self):
        self.assertIsNone(self.active())
        self.assertEqual(self.category(sys._getframe()), -1)
        self.assertEqual(self.category(None), -1)
        self.assertIsNone(self.tracer.sub_language_get_active_hook(0))
        self.assertRaises(IndexError, self.tracer.sub_language_get_active_hook)
        self.assertRaises(IndexError, self.tracer.sub_language_get_frame_category, 0)
        self.assertRaises(TypeError, self.tracer.sub_language_get_active_hook, "x")

    def test_a_hook_without_methods_does_no_harm(self):
        self.register(object(), 42, None)
        self.assertEqual(self.render(self.engine.key), "rendered")

    @needs("total_refcount")
    def test_init_lets_go_of_hooks(self):
        def once():
            self.session.init()
            self.register()
            self.render(self.engine.key)
            del self.hook.asked[:], self.hook.loads[:], self.session.stops[:]
            self.tracer.get_new_imports()
        self.assertEqual(growth_of_references(once), 0)


class LoadTest(SubLanguageCase):
    def test_it_waits_for_the_first_call_event(self):
        self.register()
        self.assertEqual(self.hook.loads, [])
        self.render(self.engine.key)
        self.assertEqual(self.hook.loads, ["markers", "paths", "frames"])

    def stays_pending(self, asked):
        self.register()
        self.render(self.engine.key, stop=False)
        first = len(self.hook.loads)
        self.assertEqual(self.hook.loads, asked * (first // len(asked)))
        self.assertGreater(first, len(asked))  # on each call event
        self.render(self.engine.key, stop=False)
        self.assertGreater(len(self.hook.loads), first)
        self.assertEqual(self.hook.asked, [])

    def test_without_markers_it_is_asked_again(self):
        self.hook.markers = []
        self.stays_pending(["markers"])

    def test_failing_markers_are_asked_again(self):
        self.hook.markers = lambda: 1 // 0
        self.stays_pending(["markers"])

    def test_markers_that_are_no_sequence_are_asked_again(self):
        self.hook.markers = 42
        self.stays_pending(["markers"])

    def test_markers_that_cannot_be_stored_are_asked_again(self):
        self.hook.markers = [[]]
        self.stays_pending(["markers"])

    def test_without_paths_it_is_asked_again(self):
        self.hook.paths = []
        self.stays_pending(["markers", "paths"])

    def test_failing_paths_are_asked_again(self):
        self.hook.paths = lambda: 1 // 0
        self.stays_pending(["markers", "paths"])

    def test_without_key_frames_it_is_asked_again(self):
        self.hook.keys = []
        self.stays_pending(["markers", "paths", "frames"])

    def test_key_frames_in_no_list_are_asked_again(self):
        self.hook.keys = tuple(self.hook.keys)
        self.stays_pending(["markers", "paths", "frames"])

    def test_one_that_loads_later_is_asked_no_more(self):
        markers, self.hook.markers = self.hook.markers, []
        self.register()
        self.render(self.engine.key)
        self.hook.markers = markers
        self.render(self.engine.key)
        del self.hook.loads[:]
        self.render(self.engine.key)
        self.assertEqual(self.hook.loads, [])

    def test_one_that_cannot_load_does_not_keep_others_from_it(self):
        other = Hook(self.engine)
        other.markers = []
        self.register(other, self.hook)
        seen = []
        self.render(lambda: seen.append(self.active()))
        self.assertEqual(seen, [self.hook])

    def test_a_hook_registered_by_another_while_that_loads_is_loaded_too(self):
        second = Hook(self.engine)
        second.markers = [code_of(self.engine.other_marker)]

        def markers():
            self.register(second)
            return [code_of(self.engine.render)]

        self.hook.markers = markers
        self.register()
        self.render(self.engine.key)
        self.render(self.engine.key)
        self.assertEqual(second.loads, ["markers", "paths", "frames"])

    def test_init_reset_and_destroy_while_it_loads(self):
        class Codes(list):
            def __getitem__(self, index):
                operation()
                return list.__getitem__(self, index)

        operations = [lambda: None, self.tracer.reset, self.tracer.destroy, self.tracer.stop_trace,
                      self.session.init]
        for operation in operations:
            for name in ("markers", "paths", "keys"):
                self.session.init()
                hook = Hook(self.engine)
                good = getattr(hook, name)

                def answer():
                    operation()
                    return Codes(good) if name == "markers" else good

                setattr(hook, name, answer)
                self.register(hook)
                self.render(self.engine.key)
        self.session.init()
        self.render(self.engine.key)
        self.assertEqual(self.session.stops[-1][:2], ("line", "render"))

    def test_an_import_asks_the_active_hook_for_more_key_frames(self):
        imported = []
        self.session.import_cb = imported.append
        self.session.init()
        self.register()

        def imports():
            del self.hook.loads[:]
            kDefaultImport("json")
            __import__("json")
            self.hook.keys.append(code_of(self.user.ordinary))
            __import__("json")

        self.render(imports)
        self.assertEqual(self.hook.loads, ["frames"] * 2)
        seen = []
        self.hook.stops = lambda frame, event, mode: seen.append(frame.f_code.co_name)
        self.render(self.user.ordinary)
        self.assertIn("ordinary", seen)

    def test_a_failing_import_cb_and_a_failing_hook(self):
        def fails(module):
            raise RuntimeError("ours")

        self.session.import_cb = fails
        self.session.init()
        self.register()

        def imports():
            self.hook.keys = lambda: 1 // 0
            return __import__("json")

        self.assertEqual(self.render(imports), "rendered")


class ActivationTest(SubLanguageCase):
    def test_active_from_the_marker_to_its_return(self):
        self.register()
        seen = []

        def program(stop):
            seen.append(self.active())
            self.engine.render([lambda: seen.append(self.active())])
            seen.append(self.active())

        self.session.run(program)
        self.assertEqual(seen, [None, self.hook, None])

    def test_an_inner_marker_changes_nothing(self):
        inner = Hook(self.engine)
        inner.markers = [code_of(self.engine.other_marker)]
        self.register(self.hook, inner)
        seen = []

        def look():
            seen.append(self.active())

        self.render(lambda: self.engine.other_marker(look), look,
                    lambda: self.engine.render([look]), look)
        self.assertEqual(seen, [self.hook] * 4)

    def test_a_marker_left_by_an_exception_ends_it(self):
        self.register()
        seen = []

        def program(stop):
            for _ in range(2):
                try:
                    self.engine.render([self.user.raises])
                except KeyError:
                    seen.append(self.active())

        self.session.run(program)
        self.assertEqual(seen, [None, None])

    def test_a_generator_as_marker_is_active_while_it_runs(self):
        self.hook.markers = [code_of(self.engine.generator_marker)]
        self.register()
        seen = []

        def program(stop):
            for _ in self.engine.generator_marker(lambda: seen.append(self.active())):
                seen.append(self.active())

        self.session.run(program)
        self.assertEqual(seen, [self.hook, None] * 2)

    def test_another_thread_is_not_concerned(self):
        self.session.thread_hooks_cb = lambda install: threading.settrace(
            self.tracer.bootstrap_new_thread if install else None)
        self.session.init()
        self.register()
        seen = []

        def look():
            seen.append(self.active())

        def start():
            thread = threading.Thread(target=look)
            thread.start()
            thread.join()

        self.render(start, look)
        self.assertEqual(seen, [None, self.hook])

    def test_the_marker_frame_is_let_go(self):
        self.register()

        class Witness(object):
            pass

        import weakref
        alive = []

        def program(stop):
            witness = Witness()
            alive.append(weakref.ref(witness))
            self.engine.render([lambda: witness])

        self.session.run(program)
        self.assertIsNone(alive[0]())


class CategoryTest(SubLanguageCase):
    def categories(self, *functions):
        found = []

        def look():
            frame = sys._getframe()
            while frame is not None and frame.f_code.co_name != "render":
                found.append((frame.f_code.co_name, self.category(frame)))
                frame = frame.f_back

        for function in functions:
            self.render(lambda: function(look))
        return [row for row in found if row[0] not in ("look", "<lambda>")]

    def test_key_frames_hidden_frames_and_others(self):
        self.register()
        self.assertEqual(self.categories(self.engine.key_calls),
                         [("key_calls", 1), ("call", 0)])
        self.assertEqual(self.categories(lambda look: look()), [("call", 0)])

    def test_ordinary_frames_and_non_frames(self):
        self.register()
        seen = []
        self.render(lambda: seen.extend(
            self.category(what) for what in (sys._getframe(), None, 42, object())))
        self.assertEqual(seen, [-1] * 4)

    def test_the_first_prefix_decides(self):
        path = self.engine.__file__
        for paths, expected in [
                ([(path, 0), (path, 1)], -1), ([(path, 1), (path, 0)], 0),
                ([("/nowhere", 1), (path, 0)], -1), ([("", 7)], 0), ([(path + "x", 1)], -1),
                ([(path, -1)], 0), (((path, 1),), 0), ([[path, True]], 0)]:
            self.session.init()
            hook = Hook(self.engine)
            hook.paths = paths
            self.register(hook)
            self.assertEqual(self.categories(lambda look: look()), [("call", expected)], paths)

    def test_bad_paths_do_no_harm(self):
        path = os.path.dirname(self.engine.__file__)
        for paths in ([(path, "no number")], [(path,)], [42], [(42, 1)], [None], [(None, None)],
                      [()], "x"):
            for mode in (0, 1):
                self.session.exception_mode = mode
                self.session.init()
                hook = Hook(self.engine)
                hook.paths = paths
                self.register(hook)

                def node():
                    try:
                        self.engine.key_raises()
                    except ValueError:
                        pass
                    return [self.category(sys._getframe(depth)) for depth in range(3)]

                self.assertEqual(
                    self.render(node, self.engine.key, script=["step_into"] * 20), "rendered")

    def test_answers_are_kept_for_the_life_of_the_process(self):
        self.register()
        self.assertEqual(self.categories(lambda look: look()), [("call", 0)])
        self.hook.paths[:] = [("/nowhere", 1)]
        self.assertEqual(self.categories(lambda look: look()), [("call", 0)])

    def test_a_failing_hash_of_the_hook_is_no_answer(self):
        class Unhashable(Hook):
            fail = False

            def __hash__(self):
                if self.fail:
                    raise RuntimeError("no hash")
                return 1

        hook = Unhashable(self.engine)
        self.register(hook)
        found = []

        def node():
            hook.fail = True
            found.append(self.category(sys._getframe(1)))
            hook.fail = False
            found.append(self.category(sys._getframe(1)))

        self.render(node, script=["step_into"] * 5)
        self.assertEqual(found[-1], 0)


class StopTest(SubLanguageCase):
    def asked_of(self, name):
        return [row[1:] for row in self.hook.asked if row[0] == name]

    def test_a_key_frame_is_asked_on_each_event(self):
        self.register()
        self.render(self.engine.key, stop=False)
        self.assertEqual([event for event, mode in self.asked_of("key")],
                         [kCall, kLine, kLine, kLine, kReturn])
        self.assertEqual(set(mode for event, mode in self.asked_of("key")), {kRun})

    def test_its_answer_stops(self):
        self.register()
        for event, kind in [(kCall, "line"), (kLine, "line"), (kReturn, "return")]:
            del self.session.stops[:]
            answers = [1]
            self.hook.stops = lambda frame, what, mode: what == event and answers and answers.pop()
            self.render(self.engine.key, stop=False)
            self.assertEqual([stop[:2] for stop in self.session.stops], [(kind, "key")])

    def test_its_exception_does_not_stop_and_does_no_harm(self):
        self.register()
        self.hook.stops = lambda frame, event, mode: 1 // 0
        self.assertEqual(self.render(self.engine.key, stop=False), "rendered")
        self.assertEqual(self.session.stops, [])

    def test_an_answer_without_a_truth_does_not_stop(self):
        class NoTruth(object):
            def __bool__(self):
                raise RuntimeError("neither")
            __nonzero__ = __bool__

        self.register()
        self.hook.stops = lambda frame, event, mode: NoTruth()
        self.assertEqual(self.render(self.engine.key, stop=False), "rendered")
        self.assertEqual(self.session.stops, [])

    def test_hidden_frames_never_stop(self):
        self.register()
        self.render(self.engine.key, self.user.ordinary, script=["step_into"] * 30)
        self.assertNotIn("call", [stop[1] for stop in self.session.stops])
        self.assertIn("ordinary", [stop[1] for stop in self.session.stops])

    def test_modes(self):
        """How the thread steps, as the hook is told."""
        def mode_of(*script):
            self.tracer.continue_run()
            del self.hook.asked[:]
            self.hook.stops = lambda frame, event, mode: (
                frame.f_code.co_name == "key_calls" and event == kLine and mode in (kRun, kInto)
                and not self.asked_stop.append(1) and len(self.asked_stop) == 1)
            self.asked_stop = []
            self.render(lambda: self.engine.key_calls(self.user.ordinary), script=script,
                        stop=False)
            rows = [row for row in self.hook.asked if row[0] == "key_calls" and row[1] == kLine]
            return [row[2] for row in rows]

        self.register()
        self.assertEqual(mode_of("continue_run"), [kRun] * 3)
        self.assertEqual(mode_of(*["step_into"] * 30), [kRun, kInto, kInto])
        self.assertEqual(mode_of("step_over"), [kRun, kOver, kOver])
        self.assertEqual(mode_of(lambda frame: self.tracer.step_out_to_frame(frame)),
                         [kRun, kInKey, kInKey])
        self.assertEqual(mode_of(lambda frame: self.tracer.step_out_to_frame(frame.f_back)),
                         [kRun, kRun, kRun])

    def test_ordinary_frames_stop_as_always(self):
        self.register()
        self.render(self.user.ordinary, script=["step_into"] * 30)
        self.assertIn(("line", "ordinary"), [stop[:2] for stop in self.session.stops])

    def test_stepping_over_the_marker_stops_behind_it(self):
        self.register()
        self.session.run(lambda stop: self.user.outer(self.engine.render, [self.engine.key], stop),
                         "step_over", "step_over")
        self.assertEqual(self.lines(), ["outer"] * 3)

    def test_operations_inside_stop_here(self):
        for operation in (self.tracer.stop_trace, self.tracer.reset, self.tracer.destroy,
                          self.session.init, self.tracer.step_into, self.tracer.continue_run,
                          lambda: self.tracer.bootstrap_new_thread(sys._getframe(), "call", None)):
            self.session.init()
            hook = Hook(self.engine)
            hook.stops = lambda frame, event, mode: operation()
            self.register(hook)
            self.assertEqual(self.render(self.engine.key), "rendered")
            self.assertFalse(self.tracer.is_dbgserver_mutex_held())


class BreakpointTest(SubLanguageCase):
    def hits(self):
        return [row[-1] for row in self.tracer.get_file_breaks(kTemplate)]

    def setUp(self):
        SubLanguageCase.setUp(self)
        self.hook.stops = lambda frame, event, mode: event == kLine and mode == kInKey
        self.hook.place = lambda frame, flag: (
            kTemplate, 100 + frame.f_lineno - frame.f_code.co_firstlineno)
        self.register()

    def test_one_in_the_template_stops(self):
        self.tracer.set_break(kTemplate, "", 102, 1, 0, None, 0)
        self.render(self.engine.key, stop=False)
        self.assertEqual([stop[:2] for stop in self.session.stops], [("line", "key")])
        self.assertEqual(self.hits(), [1])

    def test_one_line_event_is_one_hit(self):
        self.tracer.set_break(kTemplate, "", 102, 1, 0, "False", 0)
        self.render(self.engine.key, stop=False)
        self.assertEqual((self.session.stops, self.hits()), ([], [1]))

    def test_one_line_event_is_one_hit_while_stepping(self):
        self.tracer.set_break(kTemplate, "", 102, 1, 0, "False", 0)
        self.render(self.engine.key, script=["step_into"] * 50)
        self.assertEqual(self.hits(), [1])

    def test_ignored_hits_are_counted_once_each(self):
        self.tracer.set_break(kTemplate, "", 102, 1, 0, None, 2)
        self.render(*[self.engine.key] * 2, stop=False)
        self.assertEqual((self.session.stops, self.hits()), ([], [2]))
        self.render(self.engine.key, stop=False)
        self.assertEqual(([stop[1] for stop in self.session.stops], self.hits()), (["key"], [3]))

    def test_conditions_are_the_hooks(self):
        self.tracer.set_break(kTemplate, "", 102, 1, 0, "first == 1", 0)
        self.render(self.engine.key, stop=False)
        self.assertEqual(self.lines(), ["key"])
        self.assertEqual(self.hook.asked.count(("eval", "first == 1")), 1)


class StepOutTest(SubLanguageCase):
    def step_out_of_key(self):
        answers = [1]
        self.hook.stops = lambda frame, event, mode: (
            event == kLine and frame.f_code.co_name == "key" and answers and answers.pop())
        failed = []

        def leave(frame):
            try:
                self.tracer.step_out()
            except Exception as why:
                failed.append(type(why))
                self.tracer.continue_run()

        self.render(lambda: self.user.outer(lambda nodes: self.engine.key(), (), lambda: None),
                    script=[leave], stop=False)
        return failed

    def test_the_hook_names_the_frame(self):
        self.hook.step_out = lambda frame: frame.f_back.f_back
        self.register()
        self.assertEqual(self.step_out_of_key(), [])
        self.assertEqual([stop[:2] for stop in self.session.stops],
                         [("line", "key"), ("line", "outer")])
        self.assertEqual(self.hook.asked.count(("step out", "key")), 1)

    def test_its_exception_is_the_callers(self):
        self.hook.step_out = lambda frame: 1 // 0
        self.register()
        self.assertEqual(self.step_out_of_key(), [ZeroDivisionError])
        self.assertEqual(self.lines(), ["key"])

    def test_none_is_the_next_event(self):
        self.hook.step_out = lambda frame: None
        self.register()
        self.assertEqual(self.step_out_of_key(), [])
        self.assertGreater(len(self.session.stops), 1)

    def test_what_is_no_frame_is_refused(self):
        for wrong in (42, "frame", object()):
            self.session.init()
            hook = self.hook = Hook(self.engine)
            hook.step_out = lambda frame: wrong
            self.register(hook)
            self.assertEqual(self.step_out_of_key(), [TypeError])


class ExceptionTest(SubLanguageCase):
    exception_mode = 1

    def raise_in(self, function):
        def node():
            try:
                function()
            except (ValueError, KeyError):
                pass

        self.render(node, stop=False)
        return [stop[:2] + stop[3:] for stop in self.session.stops]

    def test_a_key_frame_is_reported_when_the_hook_says_so(self):
        self.register()
        self.assertEqual(self.raise_in(self.engine.key_raises), [])
        self.assertIn(("key_raises", kException, -1), self.hook.asked)
        self.hook.stops = lambda frame, event, mode: event == kException
        stops = self.raise_in(self.engine.key_raises)
        self.assertEqual(stops[0], ("exception", "key_raises", "ValueError"))
        self.assertIn(("translate", "key_raises", 1), self.hook.asked)

    def test_hidden_frames_report_nothing(self):
        self.hook.keys = [code_of(self.engine.key)]
        self.register()
        self.assertEqual(self.raise_in(self.engine.key_raises), [])

    def test_ordinary_frames_report_as_always(self):
        self.register()
        self.assertEqual(self.raise_in(self.user.raises)[:1],
                         [("exception", "raises", "KeyError")])

    def test_the_translated_place_is_filtered(self):
        self.hook.stops = lambda frame, event, mode: event == kException
        self.hook.place = lambda frame, flag: (kTemplate, 12)
        self.register()
        self.tracer.ignore_exception_loc(kTemplate, 12, 1)
        self.assertEqual(self.raise_in(self.engine.key_raises), [])
        self.tracer.ignore_exception_loc(kTemplate, 12, 0)
        self.assertNotEqual(self.raise_in(self.engine.key_raises), [])

    def test_a_place_made_on_the_fly(self):
        """The file name of the hook's answer may live no longer than it is looked at."""
        class Place(object):
            def __len__(self):
                return 2

            def __getitem__(self, index):
                return "".join(["/temp", "lates/", "x" * 200]) if index == 0 else 12

        self.hook.stops = lambda frame, event, mode: event == kException
        self.hook.place = lambda frame, flag: Place()
        self.register()
        self.tracer.ignore_exception_loc("/templates/" + "x" * 200, 12, 1)
        self.assertEqual(self.raise_in(self.engine.key_raises), [])

    def test_a_failing_translation_reports_nothing(self):
        self.hook.stops = lambda frame, event, mode: event == kException
        self.register()
        for answer in (lambda: 1 // 0, lambda: None, lambda: (), lambda: (kTemplate,),
                       lambda: (42, 12), lambda: (kTemplate, "x")):
            self.hook.place = lambda frame, flag: answer()
            self.assertEqual(self.raise_in(self.engine.key_raises), [], answer)

    def test_a_failing_question_reports_nothing(self):
        self.hook.stops = lambda frame, event, mode: 1 // 0
        self.register()
        self.assertEqual(self.raise_in(self.engine.key_raises), [])


if __name__ == "__main__":
    import unittest
    unittest.main()
