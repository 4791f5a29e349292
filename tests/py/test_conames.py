"""Which file a code object belongs to, through the library's exported functions."""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import os
import sys
import weakref

from support.capabilities import capability, has, needs
from support.conames import (
    NamesCase, compile_code, frame_of, kLongestName, kObject, kPointer, kShell, kText, to_bytes,
    to_text,
)
from support.references import growth_of_references


@capability("code_extra")
def _code_extra():
    """Code objects have a slot for our entry; else there is a dictionary."""
    return sys.version_info >= (3, 7)


class SpecialNameTest(NamesCase):
    def test_shell_names_are_special(self):
        for name, expected in [
                (kShell, 1), (kShell + "7", 1), (kShell[:-1], 0), ("", 0), (" " + kShell, 0),
                (kShell.upper(), 0)]:
            self.assertEqual(self.call("__is_special_filename", to_bytes(name)), expected, name)

    def test_names_that_stand_for_themselves(self):
        for name, expected in [
                ("", 1), ("<string>", 1), ("<>", 1), ("<stdin>", 1), (kShell + "1", 1),
                ("<frozen importlib>", 0), ("<frozen ", 0), ("<frozen", 0), ("<frozen>", 1),
                ("<", 0), (">", 0), ("<a", 0), ("a>", 0), ("/p/m.py", 0)]:
            self.assertEqual(self.call("always_use_co_filename", name), expected, name)

    def test_nothing_and_no_text_do_not_stand_for_themselves(self):
        for obj in (kObject(), None, 7, ["<string>"]):
            self.assertEqual(self.call("always_use_co_filename", obj), 0)


class RelativePathTest(NamesCase):
    def test_string_in_a_module_with_a_file_is_the_modules_file(self):
        self.assertEqual(self.relative("<string>", __file__="/p/m.py"), "/p/m.py")
        self.assertEqual(self.relative("<string>", __file__="/p/m.pyc"), "/p/m.py")

    def test_string_in_a_module_without_a_file_stays(self):
        self.assertEqual(self.relative("<string>"), "<string>")

    def test_no_name_at_all(self):
        self.assertEqual(self.relative(None), "<string>")
        self.assertEqual(self.relative(None, __file__="/p/m.py"), "/p/m.py")
        self.assertEqual(self.relative(kObject(), __file__="/p/m.py"), "/p/m.py")

    def test_a_module_file_that_is_no_string_does_not_count(self):
        for no_string in (None, 7, ["/p/m.py"]):
            self.assertEqual(self.relative("/p/x.py", __file__=no_string), "/p/x.py")

    def test_globals_that_are_no_dict_do_not_count(self):
        for no_dict in (None, [], kObject()):
            path = self.call("__tracer_get_relative_path", self.address, no_dict, "/p/x.py")
            self.assertEqual(to_text(path), "/p/x.py")

    def test_without_a_module_file_the_code_objects_name_counts(self):
        self.assertEqual(self.relative("/no/such.pyc"), "/no/such.py")

    def test_frozen_code_has_the_modules_file(self):
        self.assertEqual(self.relative("<frozen zipimport>", __file__="/p/z.py"), "/p/z.py")
        self.assertEqual(self.relative("<frozen zipimport>"), "<frozen zipimport>")

    def test_shell_input_is_used_as_it_is(self):
        self.assertEqual(self.relative(kShell + "1", __file__="/p/m.py"), kShell + "1")

    def test_pseudo_names_are_used_as_they_are(self):
        for name in ("", "<stdin>", "<doctest a>"):
            self.assertEqual(self.relative(name, __file__="/p/m.py"), name)

    def test_a_compiled_twin_means_the_code_objects_name(self):
        for gfile, co_filename, expected in [
                ("/p/m.pyc", "/p/m.py", "/p/m.py"), ("/p/m.pyO", "/p/m.py", "/p/m.py"),
                ("/p/m.py", "/p/m.pyc", "/p/m.py"), ("/p/m.py", "/p/m.py", "/p/m.py"),
                ("/ab", "/abc", "/abc"), ("/abo", "/ab", "/ab")]:
            self.assertEqual(self.relative(co_filename, __file__=gfile), expected)

    def test_names_that_only_look_alike_are_no_twins(self):
        for gfile, co_filename in [
                ("/a", "/ac"), ("/p/m.py", "/p/m.pyx"), ("/p/m.py", "/p/m.pycc"),
                ("/p/m.py", "/p/n.py")]:
            self.assertEqual(self.relative(co_filename, __file__=gfile), gfile)

    def test_an_unreadable_name_gives_way_to_the_modules_file(self):
        self.assertEqual(self.relative("/build/m.py", __file__="/p/m.pyc"), "/p/m.py")

    def test_a_readable_name_wins_over_a_source_module_file(self):
        path = self.make_file("other.py", "pass\n")
        self.assertEqual(self.relative(path, __file__="/p/m.py"), path)
        self.assertEqual(self.relative(path, __file__=""), path)
        self.assertEqual(self.relative(path, __file__="/" + "p" * kLongestName + ".pyc"), path)

    def copies(self, second_name="m.py", second_text="pass\n", second_time=1000000000):
        """A file, and another one in another folder."""
        first = self.make_file("m.py", "pass\n")
        second = self.make_file(second_name, second_text)
        os.utime(first, (1000000000, 1000000000))
        os.utime(second, (1000000000, second_time))
        return first, second

    def test_an_equal_copy_beside_the_compiled_file_wins(self):
        built, here = self.copies()
        self.assertEqual(self.relative(built, __file__=here + "c"), here)
        self.assertEqual(self.relative(built, __file__=here + "O"), here)

    def test_another_file_beside_the_compiled_file_does_not_win(self):
        for other in ({"second_text": "pass # longer\n"}, {"second_time": 1000000001},
                      {"second_name": "n.py"}):
            built, here = self.copies(**other)
            self.assertEqual(self.relative(built, __file__=here + "c"), built)

    def test_a_compiled_file_without_its_source_does_not_win(self):
        built, here = self.copies()
        os.remove(here)
        self.assertEqual(self.relative(built, __file__=here + "c"), built)

    def test_a_name_of_more_than_32000_characters_is_too_long(self):
        longest = "/" + "x" * (kLongestName - 1)
        self.assertEqual(self.relative(longest), longest)
        self.assertEqual(self.relative(longest + "y"), "<filename too long>")
        self.assertEqual(
            self.relative("<string>", __file__=longest + "y"), "<filename too long>")

    def test_the_result_is_in_the_tables_buffer(self):
        self.relative("/p/x.pyc")
        self.assertEqual(self.table.codefile, b"/p/x.py")

    @needs("python2")
    def test_any_bytes_are_a_name(self):
        self.assertEqual(self.relative(b"/p/\xff.pyc"), b"/p/\xff.py")

    @needs("!python2")
    def test_a_name_without_utf8_form_counts_as_none(self):
        self.assertEqual(self.relative("/p/\udc80.py", __file__="/p/m.py"), "/p/m.py")
        self.assertEqual(self.relative("/p/x.py", __file__="/p/\udc80.py"), "/p/x.py")

    def test_errno_is_kept(self):
        ctypes.set_errno(0)
        native = ctypes.PyDLL(self.native._name, use_errno=True)
        function = native["__tracer_get_relative_path"]
        function.restype = kText
        function.argtypes = [kPointer, kObject, kObject]
        ctypes.set_errno(77)
        function(self.address, {"__file__": "/p/m.py"}, "/no/such.py")
        self.assertEqual(ctypes.get_errno(), 77)


class RegistrationTest(NamesCase):
    def test_an_unregistered_code_object_has_no_name(self):
        self.assertIsNone(self.lookup(compile_code("/p/a.py")))

    def test_the_first_name_stays_unless_forced(self):
        code = compile_code("/p/a.py")
        self.assertEqual(self.register(code, "/p/1.py"), 0)
        self.assertEqual(self.lookup(code), "/p/1.py")
        self.assertEqual(self.register(code, "/p/2.py"), 0)
        self.assertEqual(self.lookup(code), "/p/1.py")
        self.assertEqual(self.register(code, "/p/3.py", force=1), 0)
        self.assertEqual(self.lookup(code), "/p/3.py")

    def test_the_same_name_again_keeps_the_text_where_it_is(self):
        code = compile_code("/p/a.py")
        look = self.native["LookupCOPathname"]
        look.restype = kPointer
        self.register(code, "/p/1.py")
        before = look(kPointer(self.address), kObject(code))
        self.register(code, "/p/1.py", force=1)
        self.assertEqual(look(kPointer(self.address), kObject(code)), before)

    def test_what_is_no_code_object_is_refused(self):
        for no_code in (None, 7, self.lookup, kObject()):
            self.assertEqual(self.register(no_code, "/p/1.py"), -1)
            self.assertIsNone(self.lookup(no_code))
            self.assertIsNone(self.any_bps(no_code))

    def test_equal_code_objects_are_registered_apart(self):
        first, second = compile_code("/p/a.py"), compile_code("/p/a.py")
        self.register(first, "/p/1.py")
        self.assertIsNone(self.lookup(second))

    def test_an_entry_has_four_items_none_of_them_known(self):
        self.assertEqual(self.call("CreateNewEntry"), [None] * 4)

    @needs("!python2")
    def test_a_name_that_is_no_utf8_is_not_registered(self):
        code = compile_code("/p/a.py")
        self.assertEqual(self.register(code, b"/p/\xff.py"), -1)
        self.assertIsNone(self.lookup(code))

    @needs("code_extra")
    def test_an_entry_dies_with_its_code_object(self):
        code = compile_code("/p/a.py")
        self.register(code, "/p/1.py")
        alive = weakref.ref(code)
        del code
        gc.collect()
        self.assertIsNone(alive())
        self.assertFalse(self.table.filename_for_co)

    @needs("code_extra")
    def test_look_ups_are_not_counted_where_nothing_is_swept(self):
        self.lookup(compile_code("/p/a.py"))
        self.assertEqual(self.table.collect_count, 0)

    @needs("total_refcount")
    def test_registering_leaks_nothing(self):
        def cycle():
            code = compile_code("/p/a.py")
            self.register(code, "/p/1.py")
            self.register(code, "/p/2.py", force=1)
            self.call("SetAnyBpsInCodeObject", self.address, code, True)
            self.any_bps(code)
            self.lookup(code)
            if not has("code_extra"):
                self.table.collect_count = 4999
                del code
                self.lookup(compile_code("/p/b.py"))

        self.assertEqual(growth_of_references(cycle), 0)


@needs("!code_extra")
class DictTest(NamesCase):
    def entries(self):
        return ctypes.cast(self.table.filename_for_co, kObject).value

    def test_the_dict_is_made_when_first_needed(self):
        code = compile_code("/p/a.py")
        self.assertFalse(self.table.filename_for_co)
        self.lookup(code)
        self.assertFalse(self.table.filename_for_co)
        self.register(code, "/p/1.py")
        self.assertEqual(list(self.entries().values()), [["/p/1.py", None, None, None]])
        self.assertEqual([key & sys.maxsize for key in self.entries()], [id(code) & sys.maxsize])

    def test_the_table_keeps_code_objects_alive_with_one_reference(self):
        code = compile_code("/p/a.py")
        before = sys.getrefcount(code)
        for force in (0, 1):
            self.register(code, "/p/1.py", force)
            self.assertEqual(sys.getrefcount(code), before + 1)

    def test_look_ups_and_registrations_are_counted(self):
        code = compile_code("/p/a.py")
        self.lookup(code)
        self.register(code, "/p/1.py")
        self.lookup(code)
        self.assertEqual(self.table.collect_count, 3)

    def test_dead_code_objects_go_on_the_5000th_look_up(self):
        living = compile_code("/p/a.py")
        self.register(living, "/p/1.py")
        codes = [compile_code("/p/%d.py" % number) for number in range(250)]
        for code in codes:
            self.register(code, "/p/1.py")
        alive = [weakref.ref(code) for code in codes]
        del codes, code
        for _ in range(4999 - self.table.collect_count):
            self.lookup(living)
        self.assertEqual(self.table.collect_count, 4999)
        self.assertEqual(len([ref for ref in alive if ref() is not None]), 250)
        self.assertEqual(self.lookup(living), "/p/1.py")
        self.assertEqual(self.table.collect_count, 0)
        self.assertEqual([ref for ref in alive if ref() is not None], [])
        self.assertEqual(len(self.entries()), 1)
        self.assertEqual(sys.getrefcount(living), sys.getrefcount(compile_code("/p/a.py")) + 2)

    def test_a_callback_during_the_sweep_may_register_and_look_up(self):
        living = compile_code("/p/a.py")
        seen = []

        def on_death(_):
            code = compile_code("/p/late.py")
            self.register(code, "/p/late.py")
            seen.append((self.lookup(code), self.lookup(living)))

        self.register(living, "/p/1.py")
        codes = [compile_code("/p/%d.py" % number) for number in range(150)]
        for code in codes:
            self.register(code, "/p/1.py")
        refs = [weakref.ref(code, on_death) for code in codes]
        del codes, code
        self.table.collect_count = 4999
        self.assertEqual(self.lookup(living), "/p/1.py")
        self.assertEqual(seen, [("/p/late.py", "/p/1.py")] * len(refs))

    def test_a_none_entry_means_not_registered(self):
        code = compile_code("/p/a.py")
        self.register(compile_code("/p/b.py"), "/p/b.py")
        self.entries()[id(code)] = None
        self.assertIsNone(self.lookup(code))
        self.assertIsNone(self.any_bps(code))


class AnyBpsTest(NamesCase):
    def test_nothing_is_cached_at_first(self):
        code = compile_code("/p/a.py")
        self.assertIsNone(self.any_bps(code))
        self.register(code, "/p/a.py")
        self.assertIsNone(self.any_bps(code))
        self.call("ClearAnyBpsInAllCodeObjects", self.address)
        self.assertIsNone(self.any_bps(code))

    def test_the_answer_is_cached_beside_the_name(self):
        code = compile_code("/p/a.py")
        self.register(code, "/p/a.py")
        for answer in (True, False):
            self.assertEqual(self.call("SetAnyBpsInCodeObject", self.address, code, answer), 0)
            self.assertIs(self.any_bps(code), answer)
        self.assertEqual(self.lookup(code), "/p/a.py")

    def test_code_without_a_name_has_an_answer_but_still_no_name(self):
        code = compile_code("<string>")
        self.call("SetAnyBpsInCodeObject", self.address, code, True)
        self.assertIs(self.any_bps(code), True)
        self.assertIsNone(self.lookup(code))

    def test_a_new_version_makes_every_answer_stale(self):
        codes = [compile_code("/p/a.py") for _ in range(3)]
        for code in codes:
            self.call("SetAnyBpsInCodeObject", self.address, code, True)
        self.assertEqual(self.call("ClearAnyBpsInAllCodeObjects", self.address), 0)
        self.assertEqual([self.any_bps(code) for code in codes], [None] * 3)
        self.call("SetAnyBpsInCodeObject", self.address, codes[1], False)
        self.assertEqual([self.any_bps(code) for code in codes], [None, False, None])

    def test_the_version_is_a_fresh_empty_list(self):
        self.call("ClearAnyBpsInAllCodeObjects", self.address)
        first = ctypes.cast(self.table.bp_version, kObject).value
        self.call("ClearAnyBpsInAllCodeObjects", self.address)
        second = ctypes.cast(self.table.bp_version, kObject).value
        self.assertEqual((first, second), ([], []))
        self.assertIsNot(first, second)


class FullPathTest(NamesCase):
    def test_what_is_no_frame(self):
        for no_frame in (None, 7, self):
            self.assertEqual(self.full(no_frame), "<cframe>")

    def test_a_registered_name_is_the_answer(self):
        frame = frame_of("/p/a.py")
        self.register(frame.f_code, "/p/other.py")
        self.assertEqual(self.full(frame), "/p/other.py")

    def test_a_computed_name_is_not_registered(self):
        frame = frame_of("/p/a.pyc")
        self.assertEqual(self.full(frame), "/p/a.py")
        self.assertIsNone(self.lookup(frame.f_code))

    def test_a_relative_name_becomes_absolute(self):
        frame = frame_of("folder/a.py")
        self.assertEqual(self.full(frame), os.path.join(os.getcwd(), "folder/a.py"))

    def test_names_that_stand_for_themselves_stay(self):
        for name in ("<string>", "<stdin>", kShell + "1"):
            self.assertEqual(self.full(frame_of(name, {"__file__": "/p/m.py"})), name)

    def test_the_modules_file_counts(self):
        frame = frame_of("/build/m.py", {"__file__": "/p/m.pyc"})
        self.assertEqual(self.full(frame), "/p/m.py")

    def test_eight_texts_stay_where_they_are(self):
        look = self.native["__tracer_get_full_path"]
        look.restype = kPointer
        frames = [frame_of("<%d>" % number) for number in range(8)]
        texts = [look(kPointer(self.address), kObject(frame)) for frame in frames]
        for number, text in enumerate(texts):
            self.assertEqual(to_text(ctypes.string_at(text)), "<%d>" % number)
        again = [look(kPointer(self.address), kObject(frame)) for frame in frames]
        self.assertEqual(again, texts)

    @needs("!python2")
    def test_a_name_without_utf8_form_has_no_path(self):
        self.assertIsNone(self.full(frame_of("/p/\udc80.py")))
        self.assertEqual(self.full(frame_of("/p/\udc80.py", {"__file__": "/p/m.py"})), "/p/m.py")

    @needs("python2")
    def test_any_bytes_are_a_path(self):
        self.assertEqual(self.full(frame_of(b"/p/\xff.py")), b"/p/\xff.py")

    @needs("total_refcount")
    def test_asking_leaks_nothing(self):
        frames = [frame_of("/p/a.py"), frame_of("<string>"), frame_of("b.py"), None]
        self.register(frames[0].f_code, "/p/a.py")

        def ask():
            for frame in frames:
                self.full(frame)

        self.assertEqual(growth_of_references(ask), 0)


class LogThatUsesTheBuffer(object):
    """A log file that asks for another name with each line, as another thread may meanwhile."""

    def __init__(self, case):
        self.case = case
        self.lines = []

    def write(self, line):
        self.lines.append(line)
        self.case.relative("/other.py")

    def flush(self):
        pass


class BufferTest(NamesCase):
    kLogFilenames = 2

    def setUp(self):
        super(BufferTest, self).setUp()
        self.log = LogThatUsesTheBuffer(self)
        sinks = self.call("create_dp_data")
        self.call("set_dp_data_mask", sinks, self.kLogFilenames)
        self.call("set_dp_data_file_obj", sinks, self.log, -1, None)
        self.call("InitCOPathnameTable", self.address, self.call("create_file_ops_data", sinks))
        self.call("set_dprintf_mask", self.kLogFilenames)
        self.call("set_dprintf_file", self.log, -1, None)
        self.addCleanup(self.call, "set_dprintf_file", None, -1, None)
        self.addCleanup(self.call, "set_dp_data_file_obj", sinks, None, -1, None)

    def test_a_resolved_name_is_not_that_of_another_thread(self):
        code = compile_code("mine.py")
        expected = os.path.join(os.getcwd(), "mine.py")
        self.assertEqual(self.resolve({}, "mine.py", code), expected)
        self.assertEqual(self.lookup(code), expected)
        self.assertIn("resolving 'mine.py'\n", self.log.lines)

    def test_a_computed_name_is_not_that_of_another_thread(self):
        expected = os.path.join(os.getcwd(), "mine.py")
        frame = frame_of("mine.py")
        self.assertEqual(self.full(frame), expected)
        self.assertEqual(self.full(frame), expected)
        self.assertIn("resolved mine.py to {}\n".format(expected), self.log.lines)


class ResolveTest(NamesCase):
    def test_the_path_is_registered_for_the_code(self):
        code = compile_code("/p/a.pyc")
        self.assertEqual(self.resolve({}, "/p/a.pyc", code), "/p/a.py")
        self.assertEqual(self.lookup(code), "/p/a.py")

    def test_a_name_registered_before_is_replaced(self):
        code = compile_code("/p/a.py")
        self.register(code, "/old.py")
        self.resolve({}, "/p/a.py", code)
        self.assertEqual(self.lookup(code), "/p/a.py")

    def test_names_without_a_file_have_no_path(self):
        for name in ("", "<string>", "<stdin>", "<frozen zipimport>"):
            self.assertIsNone(self.resolve({}, name))

    def test_the_special_name_rule_comes_before_the_modules_file(self):
        code = compile_code("<string>")
        self.assertEqual(self.resolve({"__file__": "/p/m.py"}, "<string>", code), "<string>")
        self.assertEqual(self.resolve({}, kShell + "1", code), kShell + "1")
        self.assertIsNone(self.lookup(code))

    def test_a_module_alone_has_its_file(self):
        self.assertEqual(self.resolve({"__file__": "/p/m.pyc"}, kObject()), "/p/m.py")
        self.assertIsNone(self.resolve({}, kObject()))

    def test_everything_in_the_module_is_registered_on_request(self):
        names = {"__file__": "/p/m.py"}
        exec(compile_code("/p/m.py", "def f(): pass\ndef g(): pass"), names)
        self.resolve(names, kObject())
        self.assertIsNone(self.lookup(names["f"].__code__))
        self.register(names["g"].__code__, "/old.py")
        self.resolve(names, kObject(), register_all=1)
        self.assertEqual(self.lookup(names["f"].__code__), "/p/m.py")
        self.assertEqual(self.lookup(names["g"].__code__), "/old.py")

    def resolve_frame(self, frame):
        return to_text(
            self.call("__resolve_full_path_for_frame", self.address, frame, 0))

    def test_a_frames_path_is_registered(self):
        frame = frame_of("/build/m.py", {"__file__": "/p/m.py"})
        self.assertEqual(self.resolve_frame(frame), "/p/m.py")
        self.assertEqual(self.lookup(frame.f_code), "/p/m.py")

    def test_what_is_no_frame_has_no_path(self):
        self.assertIsNone(self.resolve_frame(None))
        self.assertIsNone(self.resolve_frame(7))


class CanonicalTest(NamesCase):
    def test_the_first_name_of_a_file_is_the_path_of_all(self):
        self.use_canonical_pathnames()
        first = self.make_file("m.py", "pass\n")
        second = os.path.join(self.make_dir(), "n.py")
        os.link(first, second)
        self.assertEqual(self.resolve({}, first), first)
        code = compile_code(second)
        self.assertEqual(self.resolve({}, second, code), first)
        self.assertEqual(self.lookup(code), first)

    def test_a_frame_is_registered_by_asking(self):
        self.use_canonical_pathnames()
        frame = frame_of("/p/a.py")
        self.register(frame.f_code, "/not/canonical.py")
        self.assertEqual(self.full(frame), "/p/a.py")
        self.assertEqual(self.lookup(frame.f_code), "/p/a.py")

    def test_names_that_stand_for_themselves_stay(self):
        self.use_canonical_pathnames()
        self.assertEqual(self.full(frame_of("<stdin>")), "<stdin>")
