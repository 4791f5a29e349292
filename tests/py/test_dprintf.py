"""The diagnostic log on a real interpreter, through the library's exported functions."""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import os
import sys
import unittest

from support import TestCase, growth_of_references, has, library_path, load_native, needs

kLogFilenames, kLogCore, kLogInternalFailures = 2, 4, 64
kDefaultMask = 84

_functions = {
    "set_dprintf_file": (None, [ctypes.py_object, ctypes.c_int, ctypes.c_void_p]),
    "set_dprintf_mask": (None, [ctypes.c_int]),
    "get_dprintf_mask": (ctypes.c_int, []),
    "do_dprintf_repr": (None, [ctypes.c_int, ctypes.c_char_p, ctypes.py_object, ctypes.c_char_p]),
    "do_dlogexception": (None, []),
    "dprint_no_tstate": (None, [ctypes.c_int, ctypes.c_char_p]),
    "dprint_check_str": (ctypes.c_char_p, [ctypes.c_char_p]),
    "dprint_check_pystr": (ctypes.c_char_p, [ctypes.py_object]),
    "get_dprintf_frame_str1": (ctypes.c_char_p, [ctypes.py_object]),
    "get_dprintf_repr_str1": (ctypes.c_char_p, [ctypes.c_void_p, ctypes.py_object]),
    "get_code_firstlineno": (ctypes.c_int, [ctypes.py_object]),
}


class LogFile(object):
    """What the debug server hands over: anything with write and flush."""

    def __init__(self, on_write=None):
        self.lines = []
        self.flushes = 0
        self.on_write = on_write

    def write(self, text):
        self.lines.append(text)
        if self.on_write is not None:
            self.on_write()

    def flush(self):
        self.flushes += 1

    @property
    def text(self):
        return "".join(self.lines)


class LogTestCase(TestCase):
    def setUp(self):
        self.native = load_native(_functions)

    def tearDown(self):
        self.native.set_dprintf_file(None, -1, None)

    def log_to(self, log):
        self.native.set_dprintf_file(log, -1, None)
        return log

    def log_line(self, kind, text):
        """One line, as the library's call sites write it."""
        self.native.do_dprintf(ctypes.c_int(kind), b"%s", ctypes.c_char_p(text))

    def native_fileno(self):
        return ctypes.c_int.in_dll(self.native, "gDPrintfNativeFileno").value


class Lines(LogTestCase):
    def test_default_mask_writes_core_and_drops_filenames(self):
        log = self.log_to(LogFile())
        self.assertEqual(self.native.get_dprintf_mask(), kDefaultMask)
        self.log_line(kLogFilenames, b"a name\n")
        self.assertEqual(log.lines, [])
        self.log_line(kLogCore, b"core\n")
        self.assertEqual((log.lines, log.flushes), (["core\n"], 1))

    def test_none_as_file_logs_nothing_whatever_the_descriptor(self):
        reader, writer = os.pipe()
        self.native.set_dprintf_file(None, writer, None)
        self.assertEqual(self.native_fileno(), -1)
        self.assertIsNone(ctypes.c_void_p.in_dll(self.native, "gDPrintfFile").value)
        self.log_line(kLogCore, b"core\n")
        self.native.dprint_no_tstate(kLogCore, b"plain\n")
        os.close(writer)
        self.assertEqual(os.read(reader, 100), b"")
        os.close(reader)

    def test_descriptor_takes_plain_text(self):
        reader, writer = os.pipe()
        self.native.set_dprintf_file(LogFile(), writer, None)
        self.native.dprint_no_tstate(kLogFilenames, b"not in the mask\n")
        self.native.dprint_no_tstate(kLogCore, b"100% plain\n")
        os.close(writer)
        self.assertEqual(os.read(reader, 100), b"100% plain\n")
        os.close(reader)

    def test_formats_are_the_interpreters(self):
        log = self.log_to(LogFile())
        self.native.do_dprintf(
            ctypes.c_int(kLogCore), b"%d %i %x %zd %ld %s %c|%%\n", ctypes.c_int(-1),
            ctypes.c_int(2), ctypes.c_int(255), ctypes.c_ssize_t(-3), ctypes.c_long(4), b"text",
            ctypes.c_int(65))
        self.assertEqual(log.lines, ["-1 2 ff -3 4 text A|%\n"])

    def test_line_inside_a_line_is_lost(self):
        log = LogFile(lambda: self.log_line(kLogCore, b"inner\n"))
        self.log_to(log)
        self.log_line(kLogCore, b"outer\n")
        self.log_line(kLogCore, b"next\n")
        self.assertEqual(log.lines, ["outer\n", "next\n"])

    def test_thread_without_state_writes_only_plain_text(self):
        log = LogFile()
        reader, writer = os.pipe()
        self.native.set_dprintf_file(log, writer, None)
        unlocked = ctypes.CDLL(library_path())  # lets go of the interpreter for the call
        unlocked.do_dprintf(ctypes.c_int(kLogCore), b"line\n")
        unlocked.do_dlogexception()
        unlocked.dprint_no_tstate(ctypes.c_int(kLogCore), b"plain\n")
        os.close(writer)
        self.assertEqual((log.lines, os.read(reader, 100)), ([], b"plain\n"))
        os.close(reader)

    def test_failing_file_disturbs_nobody(self):
        def fail():
            raise RuntimeError("disk full")
        log = self.log_to(LogFile(fail))
        self.log_line(kLogCore, b"one\n")
        log.flush = fail
        self.log_line(kLogCore, b"two\n")
        self.log_to(object())
        self.log_line(kLogCore, b"three\n")
        self.assertEqual(log.lines, ["one\n", "two\n"])

    def test_file_is_not_traced_while_it_writes(self):
        log = self.log_to(LogFile())
        events = []

        def trace(frame, event, arg):
            events.append(frame.f_code.co_name)
            return trace

        sys.settrace(trace)
        try:
            self.log_line(kLogCore, b"line\n")
            after_the_line()
        finally:
            sys.settrace(None)
        self.assertEqual(log.lines, ["line\n"])
        self.assertIn("after_the_line", events)
        self.assertNotIn("write", events)
        self.assertNotIn("flush", events)

    def test_file_is_held_and_released(self):
        class Watched(LogFile):
            pass
        log = Watched()
        baseline = sys.getrefcount(log)
        self.native.set_dprintf_file(log, -1, None)
        self.native.set_dprintf_file(log, -1, None)
        self.assertGreater(sys.getrefcount(log), baseline)
        self.native.set_dprintf_file(None, -1, None)
        self.assertEqual(sys.getrefcount(log), baseline)

    @needs("total_refcount")
    def test_lines_leak_nothing(self):
        log = LogFile()
        log.write = lambda text: None
        self.log_to(log)
        line = ctypes.c_char_p(b"line\n")
        kind = ctypes.c_int(kLogCore)
        gc.collect()
        self.assertEqual(
            growth_of_references(lambda: self.native.do_dprintf(kind, b"%s", line)), 0)


def after_the_line():
    return 1


class Exceptions(LogTestCase):
    def fail_with_exception(self):
        """An internal failure that logs, and leaves its AttributeError pending."""
        with self.assertRaisesRegex(AttributeError, "co_firstlineno"):
            self.native.get_code_firstlineno(7)

    def test_pending_exception_survives_its_log_lines(self):
        log = self.log_to(LogFile())
        self.fail_with_exception()
        self.assertTrue(log.text.startswith("get_code_firstlineno"), log.lines)
        self.assertIn("AttributeError", log.text)
        self.assertNotIn("EXCEPTION IN DEBUG TRACER", log.text)

    def test_stderr_is_put_back(self):
        self.log_to(LogFile())
        old, references = sys.stderr, sys.getrefcount(sys.stderr)
        self.fail_with_exception()
        self.assertIs(sys.stderr, old)
        self.assertEqual(sys.getrefcount(sys.stderr), references)

    def test_traceback_is_logged(self):
        log = LogFile()

        class Failing(object):
            @property
            def co_firstlineno(self):
                raise KeyError("from the property")

        self.log_to(log)
        self.assertRaises(KeyError, self.native.get_code_firstlineno, Failing())
        self.assertIn("Traceback (most recent call last)", log.text)
        self.assertIn("in co_firstlineno", log.text)
        self.assertIn("KeyError", log.text)

    def test_nothing_pending_nothing_logged(self):
        log = self.log_to(LogFile())
        self.native.do_dlogexception()
        self.assertEqual(log.lines, [])

    def test_silent_after_an_exception_without_stderr(self):
        log = self.log_to(LogFile())
        old, sys.stderr = sys.stderr, None
        try:
            self.fail_with_exception()
        finally:
            sys.stderr = old
        self.assertEqual(log.lines, ["get_code_firstlineno"])
        self.log_line(kLogCore, b"line\n")
        self.fail_with_exception()
        self.assertEqual(log.lines, ["get_code_firstlineno"])


class Descriptions(LogTestCase):
    def test_repr_is_called_but_not_written(self):
        log = self.log_to(LogFile())
        calls = []

        class Noisy(object):
            def __repr__(self):
                calls.append(1)
                return "noisy"

        class Failing(object):
            def __repr__(self):
                calls.append(2)
                raise ValueError("no repr")

        self.native.do_dprintf_repr(kLogCore, b"a", Noisy(), b"b\n")
        self.native.do_dprintf_repr(kLogCore, b"a", Failing(), b"b\n")
        self.native.do_dprintf_repr(kLogFilenames, b"a", Noisy(), b"b\n")
        self.assertEqual((calls, log.lines), ([1, 2], []))

    def test_frame_description(self):
        frame = sys._getframe()
        code = frame.f_code
        text = self.native.get_dprintf_frame_str1(frame).decode("ascii"); line = frame.f_lineno
        self.assertEqual(text, "line {} of {} ({}: {})".format(
            line, code.co_name, code.co_filename, code.co_firstlineno))

    def test_frame_description_is_at_most_4000_characters(self):
        namespace = {"sys": sys}
        exec(compile("frame = sys._getframe()", "x" * 9000, "exec"), namespace)
        text = self.native.get_dprintf_frame_str1(namespace["frame"])
        self.assertEqual(len(text), 4000)
        self.assertTrue(text.endswith(b"xxxx"))

    def test_repr_description_is_at_most_4000_characters(self):
        self.assertEqual(len(self.native.get_dprintf_repr_str1(None, "x" * 9000)), 4000)

    def test_repr_that_fails_is_replaced(self):
        class Failing(object):
            def __repr__(self):
                raise ValueError("no repr")
        self.assertEqual(self.native.get_dprintf_repr_str1(None, Failing()),
                         b"exception getting repr in fill_str_with_repr()")

    def test_non_ascii_string_is_not_written(self):
        self.log_to(LogFile())
        self.assertEqual(self.native.dprint_check_str(b"caf\xc3\xa9"), b"(non-ascii string)")
        # 2.x cannot give the text of such an object at all
        self.assertEqual(self.native.dprint_check_pystr(u"caf\xe9"),
                         b"(NULL)" if has("python2") else b"(non-ascii string)")
        self.assertEqual(self.native.dprint_check_pystr(u"plain"), b"plain")
        self.assertEqual(self.native.dprint_check_pystr("native"), b"native")
        self.assertEqual(self.native.dprint_check_pystr(5), b"(non-PyString PyObject*)")
        self.assertEqual(self.native.dprint_check_str(None), b"(NULL)")

    def test_text_that_cannot_be_encoded(self):
        self.log_to(LogFile())
        self.assertIn(self.native.dprint_check_pystr(u"\ud800"), (b"(NULL)", b"(non-ascii string)"))


if __name__ == "__main__":
    unittest.main()
