"""Running a program with the library that watches over its memory and over undefined behaviour."""
from __future__ import absolute_import, division, print_function

import os
import subprocess
import sys
import unittest

from support.capabilities import has

# One interpreter is enough, and the others are not to report a skip each.
is_under_test = sys.version_info[:2] == (3, 11) and has("64bit") and not has("total_refcount")


def _path_of_runtime(name):
    """The sanitizer's library as the compiler names it; None when there is none."""
    try:
        path = subprocess.check_output(["gcc", "-print-file-name=lib{}.so".format(name)])
    except (OSError, subprocess.CalledProcessError):
        return None
    path = path.decode("ascii", "replace").strip()
    return path if os.path.isabs(path) else None


def environment():
    """What to add to a child's environment (TDBG_ASAN_LIB_DIR names the library's folder).

    Skips the test where there is no such library, or no run-time library of the compiler.
    """
    folder = os.environ.get("TDBG_ASAN_LIB_DIR")
    if not folder or not os.path.exists(os.path.join(folder, "tdbgtracer.so")):
        raise unittest.SkipTest("no sanitized library (TDBG_ASAN_LIB_DIR)")
    runtimes = [_path_of_runtime("asan"), _path_of_runtime("ubsan")]
    if None in runtimes:
        raise unittest.SkipTest("no run-time library of the sanitizers")
    return {
        "TDBG_LIB_DIR": folder, "PYTHONMALLOC": "malloc", "LD_PRELOAD": " ".join(runtimes),
        "ASAN_OPTIONS": "detect_leaks=0", "UBSAN_OPTIONS": "print_stacktrace=1"}
