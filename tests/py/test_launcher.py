"""./tdbg: the interpreter it finds, and what it says when there is something in the way."""
from __future__ import absolute_import, division, print_function

import os
import shutil
import struct
import sys
import unittest

from support import REPOSITORY, TestCase, library_path, run_program

kOncePerVersion = True

LAUNCHER = os.path.join(REPOSITORY, "tdbg")
BITS = 8 * struct.calcsize("P")


def elf_head(word_class, machine):
    """The first bytes of a program for that machine."""
    return b"\x7fELF" + struct.pack("<BBB9xHH", word_class, 1, 1, 2, machine)


class Refusals(TestCase):
    def refused(self, *arguments, **options):
        done = run_program([LAUNCHER] + list(arguments), **options)
        self.assertEqual((done.status, done.out), (2, ""), done)
        self.assertEqual(len(done.err.splitlines()), 1, done)
        self.assertTrue(done.err.startswith("tdbg: "), done)
        return done.err

    def make_program(self, name, data):
        path = self.make_file(name, data)
        os.chmod(path, 0o755)
        return path

    def test_unknown_version(self):
        self.assertIn('no interpreter "9.9"', self.refused("--python", "9.9", "prog.py"))
        self.assertIn('no interpreter "nonsense"', self.refused("--python=nonsense", "prog.py"))

    def test_missing_path(self):
        self.assertIn("no interpreter at /no/such", self.refused("--python", "/no/such", "prog.py"))

    def test_path_that_is_no_program(self):
        self.assertIn("not executable",
                      self.refused("--python", self.make_file("python", "x"), "prog.py"))
        self.assertIn("is a folder", self.refused("--python", self.make_dir(), "prog.py"))

    def test_option_without_value(self):
        self.assertIn("--python needs", self.refused("--python"))

    def test_other_machine(self):
        for word_class, machine in ((2, 183), (1, 40), (2, 243), (2, 3)):
            path = self.make_program("python", elf_head(word_class, machine))
            self.assertIn("another type of machine", self.refused("--python", path, "prog.py"))

    def test_program_that_is_no_interpreter(self):
        path = self.make_program("python", "#!/bin/sh\nexit 3\n")
        self.assertIn("does not run as a Python interpreter",
                      self.refused("--python", path, "prog.py"))
        path = self.make_program("python", "#!/bin/sh\necho hello\n")
        self.assertIn("is not a Python interpreter", self.refused("--python", path, "prog.py"))

    def test_machine_told_by_the_interpreter(self):
        path = self.make_program("python", "#!/bin/sh\necho tells 64 3.9 aarch64\n")
        self.assertIn("another type of machine (aarch64)",
                      self.refused("--python", path, "prog.py"))

    def test_version_that_is_not_supported(self):
        path = self.make_program("python", "#!/bin/sh\necho tells 64 3.5 x86_64\n")
        self.assertIn("is Python 3.5; ", self.refused("--python", path, "prog.py"))


class Launching(TestCase):
    """With a tree of its own, in which the core is built already."""

    def make_tree(self):
        tree = self.make_dir()
        for name in ("debug", "cmake", "CMakeLists.txt"):
            os.symlink(os.path.join(REPOSITORY, name), os.path.join(tree, name))
        build = os.path.join(tree, "build", str(BITS))
        os.makedirs(build)
        os.symlink(library_path(), os.path.join(build, "tdbgtracer.so"))
        open(os.path.join(build, "tdbg-built"), "w").close()
        with open(LAUNCHER) as source:
            launcher = self.make_file("tdbg", source.read(), tree)
        os.chmod(launcher, 0o755)
        return tree

    def test_program_by_path_of_the_interpreter(self):
        tree = self.make_tree()
        path = self.make_file("prog.py", "import sys\nprint(sys.version_info[:2], sys.argv[1:])\n"
                                         "sys.exit(3)\n")
        done = run_program([os.path.join(tree, "tdbg"), "--python", sys.executable, path, "a b",
                            "--python", "c"],
                           stdin="n\nc\n")
        self.assertEqual((done.status, done.err), (3, ""), done)
        self.assertIn("['a b', '--python', 'c']", done.out)

    def test_text_as_the_program(self):
        tree = self.make_tree()
        done = run_program([os.path.join(tree, "tdbg"), "--python", sys.executable, "-c",
                            "import sys; sys.exit(len(sys.argv))", "-x"], stdin="c\n")
        self.assertEqual((done.status, done.err), (2, ""), done)

    def test_serving_and_the_adapter(self):
        tree = self.make_tree()
        start = [os.path.join(tree, "tdbg"), "--python", sys.executable]
        done = run_program(start + ["serve", "--no-token", "--listen", "0", "-c", "print(1)"])
        self.assertEqual((done.status, done.out), (0, "1\n"), done)
        self.assertRegex(done.err, r"^tdbg: listening on 127\.0\.0\.1:\d+\n$")
        for words in (["serve"], ["serve", "--nonsense", "x"], ["adapter", "--nonsense"]):
            done = run_program(start + words)
            self.assertEqual((done.status, done.out, len(done.err.splitlines())), (2, "", 1), done)

    def test_by_a_link_from_elsewhere(self):
        tree = self.make_tree()
        link = os.path.join(self.make_dir(), "debugger")
        os.symlink(os.path.join(tree, "tdbg"), link)
        path = self.make_file("prog.py", "print('hello')\n")
        done = run_program([link, "--python", sys.executable, path], stdin="c\n",
                           cwd=os.path.dirname(path))
        self.assertIn("hello\n", done.out)
        self.assertEqual(done.status, 0, done)

    def test_default_is_python3_of_the_path(self):
        folder = self.make_dir()
        python = self.make_file("python3",
                                "#!/bin/sh\nexec {} \"$@\"\n".format(sys.executable), folder)
        os.chmod(python, 0o755)
        done = run_program([LAUNCHER, "--help"],
                           env={"PATH": folder + os.pathsep + os.environ["PATH"]})
        self.assertEqual(done.status, 0, done)
        self.assertIn("usage: tdbg", done.out)

    def test_version_needs_no_core(self):
        tree = self.make_tree()
        shutil.rmtree(os.path.join(tree, "build"))
        done = run_program([os.path.join(tree, "tdbg"), "--python", sys.executable, "--version"])
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertRegex(done.out, r"^tdbg \d+\.\d+")
        self.assertFalse(os.path.exists(os.path.join(tree, "build")))

    def test_failed_build_is_told(self):
        tree = self.make_tree()
        os.remove(os.path.join(tree, "CMakeLists.txt"))
        self.make_file("CMakeLists.txt",
                       "cmake_minimum_required(VERSION 3.18)\nmessage(FATAL_ERROR nope)\n", tree)
        os.remove(os.path.join(tree, "build", str(BITS), "tdbg-built"))
        tools = self.make_dir()
        for name in ("g++", "cmake", "make"):  # whether or not they are installed
            os.chmod(self.make_file(name, "#!/bin/sh\necho CMake Error: nope\nexit 1\n", tools),
                     0o755)
        if BITS == 32:  # the compiler must look able
            os.chmod(self.make_file("g++", "#!/bin/sh\nexit 0\n", tools), 0o755)
        done = run_program([os.path.join(tree, "tdbg"), "--python", sys.executable, "prog.py"],
                           env={"PATH": tools + os.pathsep + os.environ["PATH"]})
        self.assertEqual((done.status, done.out), (2, ""), done)
        self.assertIn("tdbg: the build failed; all of it is in ", done.err)
        self.assertIn("Error: nope", done.err)

    def test_tree_that_was_moved_is_configured_anew(self):
        tree = self.make_tree()
        folder = os.path.join(tree, "build", str(BITS))
        cache = os.path.join(folder, "CMakeCache.txt")
        tools = self.make_dir()
        for name in ("g++", "cmake", "make"):
            os.chmod(self.make_file(name, "#!/bin/sh\nexit 0\n", tools), 0o755)
        for home, is_kept in ((tree, True), (os.path.join(tree, "gone"), False)):
            self.make_file("CMakeCache.txt",
                           "A:STRING=b\nCMAKE_HOME_DIRECTORY:INTERNAL={}\n".format(home), folder)
            os.remove(os.path.join(folder, "tdbg-built"))
            done = run_program([os.path.join(tree, "tdbg"), "--python", sys.executable, "--build"],
                               env={"PATH": tools + os.pathsep + os.environ["PATH"]})
            self.assertEqual(done.status, 0, done)
            self.assertEqual(os.path.exists(cache), is_kept, home)
            self.assertTrue(os.path.exists(os.path.join(folder, "tdbg-built")), home)

    def test_missing_tools_are_named(self):
        tree = self.make_tree()
        os.remove(os.path.join(tree, "build", str(BITS), "tdbg-built"))
        tools = self.make_dir()
        for name in ("sh", "od", "env", "grep", "head", "tail", "readlink", "dirname", "find",
                     "mkdir", "touch", "uname", "cat", "rm", "mv", "getconf"):
            for folder in ("/usr/bin", "/bin"):
                if os.path.exists(os.path.join(folder, name)):
                    os.symlink(os.path.join(folder, name), os.path.join(tools, name))
                    break
        os.chmod(self.make_file("id", "#!/bin/sh\necho 1000\n", tools), 0o755)
        done = run_program([os.path.join(tree, "tdbg"), "--python", sys.executable, "prog.py"],
                           env={"PATH": tools})
        self.assertEqual((done.status, done.out), (2, ""), done)
        self.assertRegex(done.err,
                         r"please install these packages and try again:  "
                         r"apt-get install g\+\+ cmake make")


if __name__ == "__main__":
    unittest.main()
