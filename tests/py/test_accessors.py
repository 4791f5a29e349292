"""Frames, code, tracebacks, generators and thread states read on a real interpreter."""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import inspect
import sys
import threading
import unittest

from support import TestCase, growth_of_references, has, load_native, needs

_object = ctypes.py_object
_pointer = ctypes.c_void_p
_int = ctypes.c_int

# {name: number of objects taken}; the result is a new reference.
_new_references = {
    "get_frame_back": 1, "get_frame_code": 1, "get_frame_generator": 1, "get_frame_builtins": 1,
    "get_frame_globals": 1, "get_frame_locals": 1, "get_frame_filename": 1,
    "get_frame_code_name": 1, "get_traceback_frame": 1, "get_code_name": 1,
    "get_code_filename": 1, "do_one_arg_call": 2, "do_two_arg_call": 3, "do_three_arg_call": 4,
}
_borrowed = ("borrow_frame_trace", "borrow_traceback_frame", "borrow_traceback_next",
             "borrow_code_name", "borrow_code_filename")
_functions = {
    "is_outermost_frame": (_int, [_object]),
    "get_frame_lineno": (_int, [_object]),
    "get_frame_iblock": (_int, [_object]),
    "set_frame_trace": (None, [_object, _pointer]),
    "is_frame_trace_lines_supported": (_int, []),
    "set_frame_trace_lines": (_int, [_object, _int]),
    "get_frame_suspended_generator": (_int, [_object]),
    "get_code_firstlineno": (_int, [_object]),
    "get_generator_suspended": (_int, [_object]),
    "string_objects_equal": (_int, [_object, _object]),
    "pyobjects_equal": (_int, [_object, _object]),
    "get_imported_module": (_pointer, [ctypes.c_char_p]),
    "_pystring_to_c_string": (ctypes.c_char_p, [_object]),
    "get_thread_state_frame": (_pointer, [_pointer]),
    "get_stack_depth": (_int, [_pointer]),
    "borrow_thread_state_traceobj": (_pointer, [_pointer]),
    "borrow_thread_state_interp": (_pointer, [_pointer]),
    "get_thread_state_thread_id": (ctypes.c_ulong, [_pointer]),
    "get_thread_state_use_tracing": (_int, [_pointer]),
    "get_thread_state_tracing": (_int, [_pointer]),
    "add_to_thread_state_tracing": (None, [_pointer, _int]),
    "set_thread_state_trace_cfunc": (_int, [_pointer, _pointer, _pointer]),
    "get_thread_state_what_event": (_int, [_pointer]),
}
_functions.update((name, (_pointer, [_object] * count)) for name, count in _new_references.items())
_functions.update((name, (_pointer, [_object])) for name in _borrowed)

_trace_function = ctypes.PYFUNCTYPE(_int, _pointer, _pointer, _int, _pointer)


class AccessorTestCase(TestCase):
    def setUp(self):
        self.native = load_native(_functions)

    def get(self, name, *arguments):
        """Result of a get_... function: the object, or "null"."""
        address = getattr(self.native, name)(*arguments)
        if not address:
            return "null"
        result = ctypes.cast(address, _object).value
        ctypes.pythonapi.Py_DecRef(_object(result))
        return result

    def borrow(self, name, *arguments):
        """Result of a borrow_... function: the object, or "null"."""
        address = getattr(self.native, name)(*arguments)
        return ctypes.cast(address, _object).value if address else "null"

    def set_trace(self, frame, trace):
        self.native.set_frame_trace(frame, None if trace is None else id(trace))

    def thread_state(self):
        get = ctypes.pythonapi.PyThreadState_Get
        get.restype, get.argtypes = _pointer, []
        return get()


class FrameLike(object):
    """A frame of a sub-language."""
    f_back = None
    f_trace = None
    f_globals = {"g": 1}
    f_locals = {"l": 2}
    f_lineno = 17


class FrameBlock(AccessorTestCase):
    def test_back_of_a_real_frame(self):
        frame = sys._getframe()
        self.assertIs(self.get("get_frame_back", frame), frame.f_back)
        self.assertEqual(self.native.is_outermost_frame(frame), 0)
        while frame.f_back is not None:
            frame = frame.f_back
        self.assertEqual(self.get("get_frame_back", frame), "null")
        self.assertEqual(self.native.is_outermost_frame(frame), 1)

    def test_frame_like_with_none_as_back_is_outermost(self):
        like = FrameLike()
        self.assertEqual(self.get("get_frame_back", like), "null")
        self.assertEqual(self.native.is_outermost_frame(like), 1)
        like.f_back = other = FrameLike()
        self.assertIs(self.get("get_frame_back", like), other)
        self.assertEqual(self.native.is_outermost_frame(like), 0)

    def test_namespaces(self):
        local = 5
        frame = sys._getframe()
        self.assertIs(self.get("get_frame_globals", frame), globals())
        self.assertEqual(self.get("get_frame_builtins", frame)["len"], len)
        frame.f_locals  # brings a dictionary up to date on versions that have one
        self.assertEqual(self.get("get_frame_locals", frame)["local"], local)
        like = FrameLike()
        self.assertIs(self.get("get_frame_globals", like), like.f_globals)
        self.assertIs(self.get("get_frame_locals", like), like.f_locals)

    def test_code_line_and_names(self):
        frame = sys._getframe()
        code = frame.f_code
        self.assertIs(self.get("get_frame_code", frame), code)
        self.assertEqual(self.get("get_frame_code_name", frame), code.co_name)
        self.assertEqual(self.get("get_frame_filename", frame), code.co_filename)
        line = self.native.get_frame_lineno(frame); expected = frame.f_lineno
        self.assertEqual(line, expected)
        self.assertEqual(self.native.get_frame_lineno(FrameLike()), 17)

    def test_block_depth(self):
        frame = sys._getframe()
        outside = self.native.get_frame_iblock(frame)
        try:
            inside = self.native.get_frame_iblock(frame)
        finally:
            pass
        self.assertEqual((outside, inside), (0, 1) if has("frame_iblock") else (-1, -1))

    def test_objects_that_are_no_frames_are_refused(self):
        for thing in (None, 5, FrameLike()):
            self.assertEqual(self.get("get_frame_code", thing), "null")
            self.assertEqual(self.get("get_frame_generator", thing), "null")
            self.assertEqual(self.native.get_frame_suspended_generator(thing), 0)
            self.assertEqual(self.native.get_frame_iblock(thing), -1)

    @needs("total_refcount")
    def test_nothing_leaks(self):
        frame = sys._getframe()
        native = self.native
        gc.collect()

        def read_all():
            for name in ("get_frame_back", "get_frame_code", "get_frame_globals",
                         "get_frame_builtins", "get_frame_filename", "get_frame_code_name"):
                self.get(name, frame)
            self.set_trace(frame, native)
            self.borrow("borrow_frame_trace", frame)
            self.set_trace(frame, None)
            native.set_frame_trace_lines(frame, 1)
            native.get_stack_depth(None)
            native.get_frame_suspended_generator(frame)

        self.assertEqual(growth_of_references(read_all), 0)


class TraceObject(AccessorTestCase):
    def test_none_is_null(self):
        frame = sys._getframe()
        self.assertIsNone(frame.f_trace)
        self.assertEqual(self.borrow("borrow_frame_trace", frame), "null")
        self.assertEqual(self.borrow("borrow_frame_trace", FrameLike()), "null")

    def test_set_and_borrowed(self):
        def trace(*arguments):
            return None
        for frame in (sys._getframe(), FrameLike()):
            before = sys.getrefcount(trace)
            self.set_trace(frame, trace)
            self.set_trace(frame, trace)
            self.assertIs(frame.f_trace, trace)
            self.assertIs(self.borrow("borrow_frame_trace", frame), trace)
            self.assertEqual(sys.getrefcount(trace), before + 1)
            self.set_trace(frame, None)
            self.assertIsNone(frame.f_trace)
            self.assertEqual(sys.getrefcount(trace), before)

    def test_attribute_and_function_agree(self):
        frame = sys._getframe()
        first, second = (lambda *a: None), (lambda *a: None)
        frame.f_trace = first
        self.assertIs(self.borrow("borrow_frame_trace", frame), first)
        self.set_trace(frame, second)
        self.assertIs(frame.f_trace, second)
        frame.f_trace = None
        self.assertEqual(self.borrow("borrow_frame_trace", frame), "null")

    def test_late_trace_object_keeps_the_line_right(self):
        def late():
            frame = sys._getframe()
            value = 1
            value += 1
            self.set_trace(frame, self)
            return frame, frame.f_lineno, self.native.get_frame_lineno(frame)
        frame, attribute, asked = late()
        # up to 3.9 the line is known as of the moment the trace object came, then kept by tracing
        offset = 5 if sys.version_info >= (3, 10) else 4
        self.assertEqual((attribute, asked), (frame.f_code.co_firstlineno + offset,) * 2)

    def test_late_trace_object_gives_the_outcome_of_the_attribute(self):
        def late(how):
            frame = sys._getframe()
            value = 1
            value += 1
            how(frame)
            return (frame.f_lineno - frame.f_code.co_firstlineno,
                    self.native.get_frame_lineno(frame) - frame.f_code.co_firstlineno)

        def by_attribute(frame):
            frame.f_trace = self.id

        def by_function(frame):
            trace = self.id
            self.set_trace(frame, trace)

        self.assertEqual(late(by_function), late(by_attribute))

    @needs("trace_opcodes")
    def test_frame_that_wants_opcode_events_gets_the_same_events(self):
        def run(how):
            events = []

            def watched():
                frame = sys._getframe()
                frame.f_trace_opcodes = True
                how(frame)
                value = 1
                return value

            def on_event(_, address, what, argument):
                frame = ctypes.cast(address, _object).value
                if frame.f_code is watched.__code__:
                    events.append((what, frame.f_lineno - frame.f_code.co_firstlineno))
                return 0

            self.with_c_trace(on_event, watched)
            return [event for event in events if event[1] >= 3]

        trace = self

        def by_attribute(frame):
            frame.f_trace = trace

        def by_function(frame):
            self.set_trace(frame, trace)

        run(by_attribute)  # 3.12 sends them from the second time on that a trace function is set
        self.assertEqual(run(by_function), run(by_attribute))

    def with_c_trace(self, on_event, function):
        with_c_trace(on_event, function)


def with_c_trace(on_event, function):
    """Call function with on_event as the thread's C trace function."""
    set_trace = ctypes.pythonapi.PyEval_SetTrace
    set_trace.restype, set_trace.argtypes = None, [_pointer, _pointer]
    callback = _trace_function(on_event)
    set_trace(ctypes.cast(callback, _pointer).value, None)
    try:
        function()
    finally:
        set_trace(None, None)


class TraceLines(AccessorTestCase):
    def test_supported_where_frames_have_the_attribute(self):
        supported = hasattr(sys._getframe(), "f_trace_lines")
        self.assertEqual(self.native.is_frame_trace_lines_supported(), int(supported))

    def test_attribute_follows(self):
        frame = sys._getframe()
        supported = hasattr(frame, "f_trace_lines")
        for flag in (0, 0, 7, 1, 0, 1):
            self.assertEqual(self.native.set_frame_trace_lines(frame, flag), 0)
            if supported:
                self.assertIs(frame.f_trace_lines, bool(flag))
                self.assertIs(frame.f_trace_opcodes, False)
        self.assertEqual(hasattr(frame, "f_trace_lines"), supported)

    def test_line_events_stop_and_come_back_at_the_next_line(self):
        lines = []

        def watched():
            frame = sys._getframe()
            self.native.set_frame_trace_lines(frame, 0)
            first = 1
            second = 2
            self.native.set_frame_trace_lines(frame, 1)
            third = 3
            return first, second, third

        def on_event(_, address, what, argument):
            frame = ctypes.cast(address, _object).value
            if what == 2 and frame.f_code is watched.__code__:
                lines.append(frame.f_lineno - frame.f_code.co_firstlineno)
            return 0

        with_c_trace(on_event, watched)
        supported = hasattr(sys._getframe(), "f_trace_lines")
        self.assertEqual(lines, [1, 2, 6, 7] if supported else [1, 2, 3, 4, 5, 6, 7])

    def test_frame_like_gets_the_attribute(self):
        like = FrameLike()
        self.assertEqual(self.native.set_frame_trace_lines(like, 0), 0)
        self.assertEqual(getattr(like, "f_trace_lines", "none"),
                         False if self.native.is_frame_trace_lines_supported() else "none")


class Borrowing(AccessorTestCase):
    def test_attribute_made_on_the_fly_is_refused(self):
        class Maker(object):
            @property
            def co_name(self):
                return "".join(["made", str(id(self))])
            co_filename = tb_frame = tb_next = co_name

        class Keeper(object):
            co_name = "".join(["kept", "name"])

        log = []
        file_type = type("File", (), {"write": lambda self, text: log.append(text),
                                      "flush": lambda self: None})
        self.native.set_dprintf_file(_object(file_type()), _int(-1), None)
        self.assertEqual(self.borrow("borrow_code_name", Maker()), "null")
        self.assertEqual(log, ["borrow_attrib failed\n"])
        self.assertEqual(self.borrow("borrow_traceback_frame", Maker()), "null")
        self.assertEqual(self.borrow("borrow_traceback_next", Maker()), "null")
        self.assertEqual(self.borrow("borrow_code_name", Keeper()), Keeper.co_name)
        self.assertEqual(len(log), 3)
        self.native.set_dprintf_file(_object(None), _int(-1), None)

    def test_missing_attribute_is_null_and_raises_nothing(self):
        for name in _borrowed:
            self.assertEqual(self.borrow(name, 5), "null", name)


class Tracebacks(AccessorTestCase):
    def test_frames_down_the_traceback(self):
        def fail():
            raise KeyError("x")
        try:
            fail()
        except KeyError:
            tb = sys.exc_info()[2]
        self.assertIs(self.borrow("borrow_traceback_frame", tb), tb.tb_frame)
        self.assertIs(self.get("get_traceback_frame", tb), tb.tb_frame)
        inner = self.borrow("borrow_traceback_next", tb)
        self.assertIs(inner, tb.tb_next)
        self.assertEqual(self.borrow("borrow_traceback_next", inner), "null")

    def test_what_is_no_frame_and_no_traceback_is_null(self):
        class Odd(object):
            tb_frame = tb_next = "text"
        self.assertEqual(self.borrow("borrow_traceback_frame", Odd()), "null")
        self.assertEqual(self.get("get_traceback_frame", Odd()), "null")
        self.assertEqual(self.borrow("borrow_traceback_next", Odd()), "null")
        self.assertEqual(self.borrow("borrow_traceback_frame", None), "null")


class Codes(AccessorTestCase):
    def test_name_file_and_first_line(self):
        code = Codes.test_name_file_and_first_line.__code__
        self.assertEqual(self.borrow("borrow_code_name", code), code.co_name)
        self.assertEqual(self.borrow("borrow_code_filename", code), code.co_filename)
        self.assertEqual(self.get("get_code_name", code), code.co_name)
        self.assertEqual(self.get("get_code_filename", code), code.co_filename)
        self.assertEqual(self.native.get_code_firstlineno(code), code.co_firstlineno)

    def test_first_line_that_is_no_number_raises(self):
        class Odd(object):
            co_firstlineno = "text"
        self.assertRaises(TypeError, self.native.get_code_firstlineno, Odd())


class Generators(AccessorTestCase):
    def states(self, generator, frame_of, is_running):
        """Answers for a generator not started, running and suspended."""
        frame = frame_of(generator)
        answers = [self.native.get_frame_suspended_generator(frame)]
        next(generator)
        answers.append(is_running[0])
        answers.append(self.native.get_frame_suspended_generator(frame))
        return answers

    def expected(self):
        if sys.version_info < (3, 10):
            return [1, 0, 1]
        if sys.version_info < (3, 11):
            return [0, 1, 1]
        return [0, 0, 1]

    def test_suspended_by_state_of_the_frame(self):
        running = []

        def generate():
            running.append(self.native.get_frame_suspended_generator(sys._getframe()))
            yield 1

        self.assertEqual(self.states(generate(), lambda gen: gen.gi_frame, running),
                         self.expected())

    def test_plain_frames_are_not_suspended_generators(self):
        expected = int(sys.version_info[:2] == (3, 10))  # running counts there
        frame = sys._getframe()
        self.assertEqual(self.native.get_frame_suspended_generator(frame), expected)
        self.assertEqual(self.native.get_frame_suspended_generator(frame.f_back), expected)

    def test_generator_of_a_frame(self):
        def generate():
            yield 1
        generator = generate()
        next(generator)
        known = generator if has("api:PyFrame_GetGenerator") else "null"
        self.assertEqual(self.get("get_frame_generator", generator.gi_frame), known)
        self.assertEqual(self.get("get_frame_generator", sys._getframe()), "null")

    @needs("api:PyFrame_GetGenerator")
    def test_suspended_attribute(self):
        def generate():
            yield 1
        generator = generate()
        self.assertEqual(self.native.get_generator_suspended(generator), 0)
        next(generator)
        self.assertEqual(self.native.get_generator_suspended(generator), 1)
        self.assertEqual(list(generator), [])
        self.assertEqual(self.native.get_generator_suspended(generator), 0)
        self.assertEqual(self.native.get_generator_suspended(5), 0)

    @needs("syntax:async def f(): pass", "api:PyFrame_GetGenerator")
    def test_coroutines(self):
        namespace = {}
        exec("class Wait(object):\n    def __await__(self):\n        yield 1\n"
             "async def work():\n    await Wait()\n", namespace)
        coroutine = namespace["work"]()
        coroutine.send(None)
        self.assertEqual(self.native.get_generator_suspended(coroutine), 1)
        self.assertEqual(self.native.get_frame_suspended_generator(coroutine.cr_frame), 1)
        coroutine.close()


class StringsAndCalls(AccessorTestCase):
    def test_strings_equal(self):
        class Mine(str):
            pass
        equal = self.native.string_objects_equal
        self.assertEqual(equal("a", "a"), 1)
        self.assertEqual(equal("a", u"a"), 1)
        self.assertEqual(equal(Mine("a"), "a"), 1)
        self.assertEqual(equal("a", "b"), 0)
        self.assertEqual(equal("5", 5), 0)
        self.assertEqual(equal(None, None), 0)
        self.assertEqual(self.native.pyobjects_equal(5, 5.0), 1)
        self.assertEqual(self.native.pyobjects_equal([1], [2]), 0)

    def test_text_of_strings(self):
        text = self.native._pystring_to_c_string
        self.assertEqual(text("plain"), b"plain")
        self.assertIsNone(text(5))
        self.assertEqual(text(u"caf\xe9"), None if has("python2") else b"caf\xc3\xa9")
        self.assertIsNone(text(u"\ud800"))

    def test_imported_module(self):
        self.assertIs(self.get("get_imported_module", b"sys"), sys)
        self.assertEqual(self.get("get_imported_module", b"no.such.module"), "null")

    def test_calls(self):
        def echo(*arguments):
            return arguments
        self.assertEqual(self.get("do_one_arg_call", echo, 1), (1,))
        self.assertEqual(self.get("do_two_arg_call", echo, 1, "b"), (1, "b"))
        self.assertEqual(self.get("do_three_arg_call", echo, 1, "b", None), (1, "b", None))
        self.assertRaises(ZeroDivisionError, self.native.do_one_arg_call, lambda x: x // 0, 1)


class ThreadStates(AccessorTestCase):
    def test_frame_depth_and_id(self):
        state = self.thread_state()
        # the innermost frame is that of get() itself, which has returned by now
        self.assertIs(self.get("get_thread_state_frame", state).f_back, sys._getframe())
        self.assertEqual(self.native.get_stack_depth(None), len(inspect.stack(0)))
        self.assertEqual(self.native.get_stack_depth(state), len(inspect.stack(0)))
        self.assertEqual(self.native.get_thread_state_thread_id(state), thread_id())
        self.assertTrue(self.native.borrow_thread_state_interp(state))

    def test_depth_without_a_python_frame_is_0(self):
        interp = self.native.borrow_thread_state_interp(self.thread_state())
        new = ctypes.pythonapi.PyThreadState_New
        new.restype, new.argtypes = _pointer, [_pointer]
        state = new(interp)
        self.assertEqual(self.native.get_stack_depth(state), 0)
        for name in ("PyThreadState_Clear", "PyThreadState_Delete"):
            function = getattr(ctypes.pythonapi, name)
            function.restype, function.argtypes = None, [_pointer]
            function(state)

    def test_tracing_counter_and_flags(self):
        state = self.thread_state()
        before = self.native.get_thread_state_tracing(state)
        self.native.add_to_thread_state_tracing(state, 3)
        raised = self.native.get_thread_state_tracing(state)
        self.native.add_to_thread_state_tracing(state, -3)
        after = self.native.get_thread_state_tracing(state)
        supported = has("api:PyThreadState_EnterTracing") or sys.version_info < (3, 11)
        self.assertEqual((raised, after), (before + 3 if supported else before, before))
        self.assertEqual(self.native.get_thread_state_use_tracing(state),
                         0 if sys.version_info < (3, 10) else 1)
        event = self.native.get_thread_state_what_event(state)
        if sys.version_info < (3, 12):
            self.assertEqual(event, -1)

    def test_trace_function_of_the_own_thread(self):
        events = []

        def on_event(obj, frame, what, argument):
            events.append(what)
            return 0

        callback = _trace_function(on_event)
        token = object()
        state = self.thread_state()
        address = ctypes.cast(callback, _pointer).value
        result = self.native.set_thread_state_trace_cfunc(state, address, id(token))
        after_start = self.native.borrow_thread_state_traceobj(state)
        removed = self.native.set_thread_state_trace_cfunc(state, None, None)
        self.assertEqual((result, removed, after_start), (0, 0, id(token)))
        self.assertIn(2, events)
        self.assertIsNone(self.native.borrow_thread_state_traceobj(state))

    def test_trace_function_of_another_thread(self):
        started, finish = threading.Event(), threading.Event()
        states = []

        def work():
            states.append(self.thread_state())
            started.set()
            finish.wait()

        thread = threading.Thread(target=work)
        thread.start()
        started.wait()

        def on_event(obj, frame, what, argument):
            return 0

        callback = _trace_function(on_event)
        token = object()
        address = ctypes.cast(callback, _pointer).value
        result = self.native.set_thread_state_trace_cfunc(states[0], address, id(token))
        found = self.native.borrow_thread_state_traceobj(states[0])
        removed = self.native.set_thread_state_trace_cfunc(states[0], None, None)
        finish.set()
        thread.join()
        if (3, 10) <= sys.version_info[:2] <= (3, 12):
            self.assertEqual((result, removed, found), (0, 0, id(token)))
        else:
            self.assertEqual((result, removed, found), (-1, -1, None))


def thread_id():
    """The thread's id as an unsigned long; 2.x shows it signed."""
    return ctypes.c_ulong(threading.current_thread().ident).value


if __name__ == "__main__":
    unittest.main()
