"""The base class of the tests."""
from __future__ import absolute_import, division, print_function

import io
import os
import shutil
import tempfile
import unittest


class TestCase(unittest.TestCase):
    """unittest.TestCase with the later names under 2.7, and files of its own."""

    maxDiff = None
    longMessage = True

    if not hasattr(unittest.TestCase, "assertRaisesRegex"):
        assertRaisesRegex = unittest.TestCase.assertRaisesRegexp
        assertRegex = unittest.TestCase.assertRegexpMatches

        def assertNotRegex(self, text, pattern, msg=None):
            self.assertNotRegexpMatches(text, pattern, msg)

        def assertCountEqual(self, first, second, msg=None):
            self.assertItemsEqual(first, second, msg)

    def make_dir(self):
        """New directory, by its real name; removed after the test."""
        path = os.path.realpath(tempfile.mkdtemp(prefix="tdbg-test-"))
        self.addCleanup(shutil.rmtree, path, ignore_errors=True)
        return path

    def make_file(self, name, text, folder=None):
        """Path of a new file of that name (in a new directory unless told); text or bytes."""
        path = os.path.join(folder or self.make_dir(), name)
        if not os.path.isdir(os.path.dirname(path)):
            os.makedirs(os.path.dirname(path))
        data = text if isinstance(text, bytes) else text.encode("utf-8")
        with io.open(path, "wb") as out:
            out.write(data)
        return path


def time_limit(seconds):
    """Decorate a test method or class that needs another limit than the runner's."""
    def decorate(test):
        test.tdbg_time_limit = seconds
        return test
    return decorate
