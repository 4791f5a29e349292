# coding: utf-8
"""The terminal's start-up files: what they may do, and which of them are not read."""
from __future__ import absolute_import, division, print_function

import os
import re

from support import TestCase
from support.terminal import run_commands

kOncePerVersion = True

kProgram = """\
def f(n):
    return n + 1
x = f(1)
y = f(x)
print('end')
"""


class StartupFiles(TestCase):

    def setUp(self):
        self.home, self.here = self.make_dir(), self.make_dir()
        self.path = self.make_file("prog.py", kProgram)

    def write(self, text, folder, mode=0o600):
        path = self.make_file(".tdbgrc", text, folder)
        os.chmod(path, mode)
        return path

    def run_it(self, *commands):
        return run_commands(list(commands), self.path, cwd=self.here, env={"HOME": self.home})

    def test_home_then_the_current_folder(self):
        self.write("# of all programs\nbreak 2\np 'home'\n", self.home)
        self.write("p 'here' ;; p 'more'\n\nfor i in range(5):\n    j = i * 2\np ('j', j)\n",
                   self.here)
        done = self.run_it("break", "c", "p n", "c", "c")
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertRegex(done.out, (
            r"(?s)> \S+prog\.py\(1\).*Breakpoint 1 at .*:2.*home.*here.*more.*\('j', 8\).*"
            r"\(Tdb\) .*prog\.py:2.*\(Tdb\) .*\(2\)f\(\).*\(Tdb\) 1\n"
            r".*\(Tdb\) .*\(2\)f\(\).*end\n"))

    def test_file_that_resumes_goes_on_at_the_next_stop(self):
        self.write("b 2\ncommands 1\n  silent\n  p ('n is', n)\nend\nc\np ('second', n)\n",
                   self.home)
        done = self.run_it("c", "c")
        self.assertEqual(done.status, 0, done)
        self.assertEqual(re.findall(r"\('(n is|second)', (\d)\)", done.out), [
            ("n is", "1"), ("second", "1"), ("n is", "2")], done)

    def test_same_folder_is_read_once_and_a_restart_not_at_all(self):
        self.here = self.home
        self.write("b 2\np 'once'\n", self.home)
        done = self.run_it("restart", "b", "c", "q")
        self.assertEqual((done.out.count("once"), done.out.count("Breakpoint 1 at")), (1, 1), done)
        self.assertIn("(2)f()", done.out)

    def test_what_others_may_write_is_not_read(self):
        own = self.write("p 'must not be'\n", self.home, 0o620)
        for mode in (0o620, 0o602):
            os.chmod(own, mode)
            done = self.run_it("q")
            self.assertIn("tdbg: {} is not read: other users may write it\n".format(own), done.out)
            self.assertNotIn("must not be", done.out)
        os.remove(own)
        os.mkfifo(own)
        self.assertIn("is not read: it is no ordinary file", self.run_it("q").out)
        os.remove(own)
        os.mkdir(own)
        self.assertIn("is not read", self.run_it("q").out)

    def test_what_others_own_is_not_read(self):
        from tdbg.terminal import startupfile

        class Status(object):  # as the system tells it
            def __init__(self, found, uid):
                self.st_uid, self.st_mode = uid, found.st_mode

        path = self.write("p 'must not be'\n", self.here)
        other = os.geteuid() + 1
        originals = os.lstat, os.fstat
        self.addCleanup(lambda: (setattr(os, "lstat", originals[0]),
                                 setattr(os, "fstat", originals[1])))
        for name, original in zip(("lstat", "fstat"), originals):
            setattr(os, name, lambda of, original=original: Status(original(of), other))
            try:
                startupfile.read(path)
            except startupfile.tNotRead as why:
                self.assertEqual(str(why), "it belongs to another user")
            else:
                self.fail("read in spite of " + name)
            setattr(os, name, original)
        self.assertEqual(startupfile.read(path), u"p 'must not be'\n")
        if os.geteuid() == 0:
            os.chown(path, 12345, 12345)
            done = self.run_it("q")
            self.assertIn("tdbg: {} is not read: it belongs to another user\n".format(path),
                          done.out)
            self.assertNotIn("must not be", done.out)

    def test_text_that_is_none(self):
        self.write(b"p '\xff\xfe'\np \xc3\xa4\nnonsense here\np 'last'\n", self.home)
        done = self.run_it("q")
        self.assertEqual(done.status, 0, done)
        self.assertIn("last", done.out)
