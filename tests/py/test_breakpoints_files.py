"""Which file a breakpoint is in: names of all kinds, set before and after the code is there."""
from __future__ import absolute_import, division, print_function

import io
import os
import py_compile
import runpy
import shutil
import sys
import unittest
import zipfile

from support import needs, run_script
from support.breaks import BreakCase, kCanonical, kSynonyms, reload_module
from support.marks import line_of

kOnceWhenQuick = True
kLogBreakpoints = 8  # category of the log
kModule = """
    def f(value=1):
        result = value  #@ f
        return result

    top = 1  #@ top
    """


class Checksums(object):
    """The server's checksum callback: the contents of the file; writes down what it was asked."""

    def __init__(self):
        self.asked = []

    def __call__(self, name):
        self.asked.append(name)
        return self.of(name)

    def of(self, name):
        try:
            with io.open(name, "rb") as source:
                return "sum-{}".format(sum(bytearray(source.read())))
        except (IOError, OSError, ValueError):
            return None


class FileCase(BreakCase):
    def setUp(self):
        BreakCase.setUp(self)
        self.folder = self.make_dir()
        self.path = self.write("target.py", kModule, self.folder)
        self.addCleanup(os.chdir, os.getcwd())

    def call_f(self, name="target", folder=None):
        """Import the module and call its function, under the tracer."""
        return self.run_traced(lambda: self.load(name, folder or self.folder).f(7))

    def break_in_f(self, path=None, **options):
        return self.break_at(self.path, "f", file=path, **options)


class Names(FileCase):
    """Under any name of the file, whichever regime decides about names."""

    def test_set_before_the_import(self):
        self.break_in_f()
        self.break_at(self.path, "top")
        self.call_f()
        self.assertEqual(self.hits(), ["top", "f"])

    def test_set_after_the_import(self):
        self.load("target", self.folder)
        self.break_in_f()
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_set_by_the_program_between_import_and_call(self):
        def program():
            module = self.load("target", self.folder)
            self.break_in_f()
            return module.f(1)
        self.run_traced(program)
        self.assertEqual(self.hits(), ["f"])

    def test_bound_when_a_module_is_registered(self):
        """The import hook or the server tells of a module; no line of it needs to run first."""
        count = self.tracer.get_registered_module_count()
        module = self.load("target", self.folder)
        self.break_in_f()
        self.tracer.register_module(module)
        self.assertEqual(self.tracer.get_registered_module_count(), count + 1)
        self.tracer.register_module(module)
        self.assertEqual(self.tracer.get_registered_module_count(), count + 1)
        self.run_traced(module.f)
        self.assertEqual(self.hits(), ["f"])

    def test_the_number_of_registered_files_only_grows(self):
        """By it the server tells that it has compared a breakpoint with all there are."""
        module = self.load("target", self.folder)
        self.tracer.register_module(module)
        count = self.tracer.get_registered_module_count()
        self.assertGreater(count, 0)
        self.tracer.reset()
        self.assertEqual(self.tracer.get_registered_module_count(), count)
        self.tracer.register_module(module)
        self.assertEqual(self.tracer.get_registered_module_count(), count + 1)
        self.session.init()
        self.assertEqual(self.tracer.get_registered_module_count(), count + 1)

    def test_importlib_goes_past_the_hook_and_is_noticed(self):
        importlib = __import__("importlib")
        sys.path.insert(0, self.folder)
        self.break_in_f()
        self.run_traced(lambda: importlib.import_module("target").f())
        self.assertEqual(self.hits(), ["f"])

    def test_a_module_under_another_name(self):
        self.break_in_f()

        def program():
            space = {"__name__": "something.else_", "__file__": self.path}
            with open(self.path) as source:
                exec(compile(source.read(), self.path, "exec"), space)
            space["f"]()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["f"])

    def test_code_without_a_file_of_its_module(self):
        self.break_in_f()

        def program():
            space = {}
            with open(self.path) as source:
                exec(compile(source.read(), self.path, "exec"), space)
            space["f"]()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["f"])

    def test_exec_of_a_text_counts_as_the_file_of_its_module(self):
        """A text's code object is called "<string>"; breakpoints of no file are in it."""
        self.break_in_f()
        self.break_at(self.path, "top")
        with open(self.path) as source:
            text = source.read()

        def program():
            exec(text, {"__name__": "x"})
        self.run_traced(program)
        self.assertEqual(self.hits(), [])

    def test_the_name_of_a_compiled_file(self):
        self.break_in_f(self.path + "c")
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_a_compiled_file_without_its_source(self):
        lone = self.make_dir()
        compiled = os.path.join(lone, "lone.pyc")
        source = self.write("lone.py", kModule)
        py_compile.compile(source, compiled, doraise=True)
        os.unlink(source)
        self.break_at(self.path, "f", file=os.path.join(lone, "lone.py"))
        self.call_f("lone", lone)
        self.assertEqual([stop for stop in self.hits()], [line_of(self.path, "f")])

    def test_a_compiled_file_whose_source_moved_with_it(self):
        """The code remembers where it was compiled; that file is gone."""
        old, new = self.make_dir(), self.make_dir()
        source = self.write("moved.py", kModule, old)
        py_compile.compile(source, os.path.join(new, "moved.pyc"), doraise=True)
        shutil.move(source, os.path.join(new, "moved.src"))
        self.break_at(self.path, "f", file=os.path.join(new, "moved.py"))
        self.call_f("moved", new)
        self.assertEqual(self.hits(), [line_of(self.path, "f")])

    def test_from_a_zip_archive(self):
        archive = os.path.join(self.folder, "all.zip")
        with zipfile.ZipFile(archive, "w") as out:
            out.write(self.path, "zipped.py")
        self.break_in_f(os.path.join(archive, "zipped.py"))
        self.call_f("zipped", archive)
        self.assertEqual(self.hits(), [line_of(self.path, "f")])

    def test_the_module_comes_through_a_linked_folder(self):
        link = os.path.join(self.make_dir(), "link")
        os.symlink(self.folder, link)
        self.break_in_f()
        self.call_f(folder=link)
        self.assertEqual(self.hits(), ["f"])

    def test_the_breakpoint_comes_through_a_linked_folder(self):
        link = os.path.join(self.make_dir(), "link")
        os.symlink(self.folder, link)
        self.break_in_f(os.path.join(link, "target.py"))
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_both_names_of_a_linked_folder_in_one_program(self):
        link = os.path.join(self.make_dir(), "link")
        os.symlink(self.folder, link)
        self.break_in_f()
        self.break_in_f(os.path.join(link, "target.py"))

        def program():
            self.load("target", link).f()
            del sys.modules["target"]
            sys.path.remove(link)
            self.load("target", self.folder).f()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["f", "f"])

    def test_a_linked_file(self):
        link = os.path.join(self.make_dir(), "other_name.py")
        os.symlink(self.path, link)
        self.break_in_f(link)
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_a_hard_link(self):
        link = os.path.join(self.make_dir(), "other_name.py")
        os.link(self.path, link)
        self.break_in_f(link)
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_a_relative_entry_of_the_module_path(self):
        os.chdir(self.folder)
        sys.path.insert(0, os.curdir)
        self.break_in_f()
        self.run_traced(lambda: self.load("target").f())
        self.assertEqual(self.hits(), ["f"])

    def test_the_program_changes_directory_after_a_relative_import(self):
        os.chdir(os.path.dirname(self.folder))
        sys.path.insert(0, os.path.basename(self.folder))
        self.break_in_f()
        elsewhere = self.make_dir()

        def program():
            module = self.load("target")
            module.f()
            os.chdir(elsewhere)
            module.f()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["f", "f"])

    def test_set_after_the_program_changed_directory(self):
        os.chdir(self.folder)
        sys.path.insert(0, os.curdir)
        elsewhere = self.make_dir()

        def program():
            module = self.load("target")
            module.f()
            os.chdir(elsewhere)
            self.break_in_f()
            module.f()
        self.run_traced(program)
        self.assertEqual(len(self.hits()), 1)  # the mark cannot be read under a relative name

    def test_two_files_of_one_base_name(self):
        other_folder = self.make_dir()
        other = self.write("target.py", kModule, other_folder)

        def program():
            self.load("target", self.folder).f()
            del sys.modules["target"]
            sys.path.remove(self.folder)
            self.load("target", other_folder).f()
        number, other_number = self.break_in_f(), self.break_at(other, "f", enabled=0)
        self.run_traced(program)
        self.assertEqual(len(self.hits()), 1)
        self.assertEqual(self.changed()[1], {number: (0, 1)})
        self.tracer.enable_breaks(other, line_of(other, "f"), 1)
        self.tracer.enable_breaks(self.path, line_of(self.path, "f"), 0)
        sys.path.remove(other_folder)
        del sys.modules["target"]
        self.run_traced(program)
        self.assertEqual(self.changed()[1], {other_number: (0, 1)})

    def test_packages_have_many_files_of_one_base_name(self):
        paths = [self.write(os.path.join(name, "__init__.py"), kModule, self.folder)
                 for name in ("one", "two")]
        self.break_at(paths[1], "f")
        self.call_f("one")
        self.assertEqual(self.hits(), [])
        self.call_f("two")
        self.assertEqual(self.hits(), ["f"])

    def test_letters_that_are_not_ascii(self):
        name = "na\xefve_\u20ac" if sys.version_info[0] > 2 else "na\xc3\xafve"
        for part in (name, "with space", "quote'\"\\", "[1]*?"):
            folder = os.path.join(self.folder, part)
            path = self.write("module_of_" + str(len(part)) + ".py", kModule, folder)
            self.break_at(path, "f")
            self.call_f(os.path.basename(path)[:-3], folder)
            self.assertEqual(len(self.hits()), 1, repr(part))
            self.tracer.clear_all_breaks()

    @needs("python2")
    def test_bytes_that_are_no_text(self):
        folder = os.path.join(self.folder, "\xff\xfe")
        path = self.write("strange.py", kModule, folder)
        self.break_at(path, "f")
        self.call_f("strange", folder)
        self.assertEqual(self.hits(), ["f"])

    @needs("!python2")
    def test_undecodable_names_are_refused_and_their_code_runs(self):
        """Such a file can be run but not be named in a breakpoint; the others keep working."""
        folder = os.path.join(os.fsencode(self.folder), b"\xff\xfe")
        os.mkdir(folder)
        shutil.copy(self.path, os.path.join(folder, b"strange.py"))
        name = os.fsdecode(folder)
        self.assertRaises(
            UnicodeError, self.tracer.set_break, os.path.join(name, "strange.py"), "", 2,
            1, 0, None, 0)
        self.assertEqual(self.tracer.get_file_breaks(self.path), [])
        self.break_in_f()

        def program():
            return self.load("strange", name).f(3) + self.load("target", self.folder).f(4)
        self.assertEqual(self.run_traced(program), 7)
        self.assertEqual(self.hits(), ["f"])

    def test_a_very_long_name(self):
        deep = self.folder
        while len(deep) < 3000:
            deep = os.path.join(deep, "d" * 200)
        os.makedirs(deep)
        path = self.write("deep.py", kModule, deep)
        self.break_at(path, "f")
        self.call_f("deep", deep)
        self.assertEqual(self.hits(), ["f"])

    def test_names_that_no_file_can_have(self):
        for name in ("/" + "x" * 40000, "<string>", "<frozen importlib>", "/", "."):
            self.break_in_f(name)
        self.break_in_f()
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_reload_runs_the_lines_again(self):
        self.break_at(self.path, "top")
        self.break_in_f()

        def program():
            module = self.load("target", self.folder)
            reload_module(module).f()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["top", "top", "f"])

    def test_a_file_that_is_replaced_and_reloaded(self):
        self.break_in_f()

        def program():
            module = self.load("target", self.folder)
            module.f()
            os.rename(self.path, self.path + ".old")
            shutil.copyfile(self.path + ".old", self.path)
            os.utime(self.path, (1, 1))  # the new file is another one to the import system as well
            reload_module(module).f()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["f", "f"])

    def test_runpy_of_a_path(self):
        self.break_at(self.path, "top")
        self.run_traced(lambda: runpy.run_path(self.path, run_name="__main__"))
        self.assertEqual(self.hits(), ["top"])

    def test_runpy_of_a_module_and_its_import(self):
        """The same file as __main__ and under its own name."""
        sys.path.insert(0, self.folder)
        self.break_at(self.path, "top")
        self.break_in_f()

        def program():
            runpy.run_module("target", run_name="__main__")["f"]()
            self.load("target").f()
        self.run_traced(program)
        self.assertEqual(self.hits(), ["top", "f", "top", "f"])

    def test_a_breakpoint_in_a_file_never_loaded(self):
        self.break_in_f("/no/such/folder/target.py")
        self.call_f()
        self.assertEqual(self.hits(), [])

    def test_a_cleared_breakpoint_waits_no_more(self):
        self.break_in_f()
        self.clear_at(self.path, "f")
        self.call_f()
        self.assertEqual(self.hits(), [])

    def test_start_and_stop_of_tracing_keep_what_is_bound(self):
        self.break_in_f()
        for _ in range(3):
            self.call_f()
        self.assertEqual(self.hits(), ["f"] * 3)

    def test_with_the_log_on(self):
        """Writing the log runs Python code in the middle of everything."""
        log = LoudLog(self)
        self.tracer.set_dprintf_file(log, -1, -1)
        self.tracer.set_dprintf_mask(kLogBreakpoints)
        self.break_in_f("elsewhere.py")
        self.break_in_f()
        log.meddle_again = True
        self.call_f()
        log.meddle_again = False
        self.tracer.set_dprintf_file(None, -1, -1)
        self.assertEqual(self.hits(), ["f"])
        self.assertGreater(log.calls, 100)


class LoudLog(object):
    """A log that sets and clears breakpoints while it is written to, every now and then."""

    def __init__(self, case):
        self.case, self.calls, self.meddle_again = case, 0, False

    def write(self, text):
        self.calls += 1
        if not self.meddle_again or self.calls % 7:
            return
        self.meddle_again = False
        tracer = self.case.tracer
        line = line_of(self.case.path, "f")
        for name in ("elsewhere.py", "/x/another.py"):
            tracer.clear_breaks(name, line)
            tracer.set_break(name, "", line, 1, 0, "x", 0)
            tracer.set_breaks_cond(name, line, "y")
        tracer.get_file_breaks("elsewhere.py")
        self.meddle_again = True

    def flush(self):
        pass


class CanonicalNames(Names):
    regime = kCanonical


class Copies(FileCase):
    """A file that is the same in content alone: only checksums make the two one."""

    def setUp(self):
        FileCase.setUp(self)
        self.sums = Checksums()
        self.session.checksum_cb = self.sums
        self.session.init()
        self.tracer.set_use_canonical_pathnames(self.regime)
        self.tracer.set_autoquit(0)
        self.copy = os.path.join(self.make_dir(), "target.py")
        shutil.copyfile(self.path, self.copy)

    def break_in_copy(self, **options):
        return self.break_at(self.path, "f", file=self.copy,
                             checksum=self.sums.of(self.copy), **options)

    def test_a_copy_matches_by_its_checksum_before_the_import(self):
        self.tracer.enable_checksums(1)
        self.break_in_copy()
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_a_copy_matches_by_its_checksum_after_the_import(self):
        self.tracer.enable_checksums(1)
        self.run_traced(lambda: self.load("target", self.folder))
        self.break_in_copy()
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_a_copy_does_not_match_while_checksums_are_off(self):
        self.tracer.enable_checksums(0)
        self.break_in_copy()
        self.call_f()
        self.break_in_copy()
        self.call_f()
        self.assertEqual(self.hits(), [])
        self.assertEqual(self.sums.asked, [])

    def test_switching_checksums_on_works_for_the_next_breakpoint(self):
        self.tracer.enable_checksums(0)
        self.run_traced(lambda: self.load("target", self.folder))
        first = self.break_in_copy()
        self.tracer.enable_checksums(1)
        self.call_f()
        self.assertEqual(self.hits(), [])
        second = self.break_in_copy()
        self.call_f()
        self.assertEqual(self.hits(), ["f"] if self.regime == kSynonyms else [])
        self.assertEqual(sorted(row[1] for row in self.tracer.get_file_breaks(self.copy)),
                         [first, second])

    def test_another_checksum_does_not_match(self):
        self.tracer.enable_checksums(1)
        self.break_at(self.path, "f", file=self.copy, checksum="sum-0")
        self.call_f()
        self.assertEqual(self.hits(), [])

    def test_a_first_try_without_checksum_does_not_spoil_the_second(self):
        self.tracer.enable_checksums(1)
        self.run_traced(lambda: self.load("target", self.folder))
        self.break_at(self.path, "f", file=self.copy)
        self.break_in_copy()
        self.call_f()
        self.assertEqual(self.hits(), ["f"])

    def test_an_empty_checksum_never_matches(self):
        self.session.checksum_cb = lambda name: ""
        self.session.init()
        self.tracer.set_use_canonical_pathnames(self.regime)
        self.tracer.enable_checksums(1)
        self.break_at(self.path, "f", file=self.copy, checksum="")
        self.call_f()
        self.assertEqual(self.hits(), [])

    def test_a_checksum_that_is_no_text_never_matches(self):
        for answer in (None, 5, b"\xff", u"\ud800", ["x"]):
            self.session.checksum_cb = lambda name: answer
            self.session.init()
            self.tracer.set_use_canonical_pathnames(self.regime)
            self.tracer.enable_checksums(1)
            self.break_at(self.path, "f", file=self.copy, checksum="5")
            self.assertEqual(self.call_f(), 7)
            self.assertEqual(self.hits(), [], repr(answer))
            self.tracer.destroy()

    def test_a_failing_callback_matches_nothing(self):
        def fails(name):
            raise RuntimeError("no checksum")
        self.session.checksum_cb = fails
        self.session.init()
        self.tracer.set_use_canonical_pathnames(self.regime)
        self.tracer.enable_checksums(1)
        self.break_in_copy()
        self.break_in_f()
        self.assertEqual(self.call_f(), 7)
        self.assertEqual(self.hits(), ["f"])

    def test_a_callback_that_changes_the_breakpoints(self):
        sums, tracer, line = self.sums, self.tracer, line_of(self.path, "f")

        def meddles(name):
            tracer.clear_breaks(self.copy, line)
            tracer.set_break(self.copy, "", line, 1, 0, None, 0)
            tracer.get_file_breaks(self.copy)
            return sums.of(name)
        self.session.checksum_cb = meddles
        self.session.init()
        tracer.set_use_canonical_pathnames(self.regime)
        tracer.enable_checksums(1)
        self.assertGreater(self.break_in_copy(), 0)
        self.assertEqual(self.call_f(), 7)
        self.break_in_copy()
        self.assertEqual(self.call_f(), 7)

    def test_a_callback_that_clears_everything(self):
        sums, tracer = self.sums, self.tracer

        def clears(name):
            tracer.clear_all_breaks()
            return sums.of(name)
        self.session.checksum_cb = clears
        self.session.init()
        tracer.set_use_canonical_pathnames(self.regime)
        tracer.enable_checksums(1)
        self.run_traced(lambda: self.load("target", self.folder))
        self.break_in_copy()
        self.assertEqual(self.call_f(), 7)


class CanonicalCopies(Copies):
    regime = kCanonical

    def test_a_copy_matches_by_its_checksum_after_the_import(self):
        """Only what is registered with its checksum can be found by it: checksums are on then."""
        Copies.test_a_copy_matches_by_its_checksum_after_the_import(self)

    def test_a_name_registered_by_the_server_binds(self):
        """Any registered canonical name will do, whoever registered it."""
        self.tracer.enable_checksums(1)
        self.tracer.register_canonical_pathname(self.path, "shared")
        self.break_at(self.path, "f", file="/elsewhere/target.py", checksum="shared")
        self.call_f()
        self.assertEqual(self.hits(), ["f"])


class Scripts(FileCase):
    """Whole programs: the script itself as __main__, and imported again by name."""

    def test_main_imported_again(self):
        path = self.write("script.py", """
            import os, sys
            sys.path[:0] = {path!r}
            def main():
                here = 1  #@ main
                return here
            if __name__ == "__main__":
                from support.tracing import Session
                session = Session()
                session.tracer.set_use_canonical_pathnames({regime})
                session.tracer.set_autoquit(0)
                session.tracer.set_break(os.path.realpath(__file__), "", 5, 1, 0, None, 0)
                session.tracer.start_trace()
                session.tracer.continue_run()
                main()
                import script
                script.main()
                session.tracer.stop_trace()
                print([stop[:2] for stop in session.stops])
            """.format(path=[entry for entry in sys.path if entry], regime=self.regime),
                          self.folder)
        done = run_script(path)
        self.assertEqual(done.out, "[('line', 'main'), ('line', 'main')]\n", done)
        done = run_script("script.py", cwd=self.folder)  # __main__'s file may be relative
        self.assertEqual(done.out, "[('line', 'main'), ('line', 'main')]\n", done)


class CanonicalScripts(Scripts):
    regime = kCanonical


if __name__ == "__main__":
    unittest.main()
