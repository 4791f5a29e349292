"""What the library asks of the system: nothing but memory and the identity of loaded files."""
from __future__ import absolute_import, division, print_function

import os
import re
import subprocess
import sys

from support import TestCase, capability, debuggee, library_path, needs, run_program

# Any phase: memory, locks, and who and where we are.
kEverywhere = {
    "mmap", "mmap2", "munmap", "mprotect", "brk", "madvise", "mremap", "futex", "futex_time64",
    "getpid", "gettid", "clock_gettime", "clock_gettime64", "time", "getcwd", "rt_sigprocmask",
    "sched_yield",
}
# The dynamic loader's and the interpreter's own work at an import.
kOfLoading = {
    "open", "openat", "read", "pread64", "close", "fstat", "fstat64", "newfstatat", "statx",
    "stat", "stat64", "lstat", "lstat64", "access", "lseek", "_llseek", "readlink", "getdents64",
    "fcntl", "fcntl64",  # of musl's loader
}
kLoaded = re.compile(
    r"(tdbgtracer[^/]*\.so|/ld\.so\.(cache|preload)|lib(dl|pthread|c)[-.][^/]*|/)$")
kStat = {"stat", "stat64", "newfstatat", "statx", "lstat", "lstat64", "fstatat64"}
kMark = re.compile(r'write\(-1, "(\w+)"')
kCall = re.compile(r"^(?:\d+ +)?(?:\[pid +\d+\] )?(\w+)\((.*)")
kPath = re.compile(r'"((?:[^"\\]|\\.)*)"')


@capability("strace")
def _strace():
    """strace is there and may trace."""
    try:
        with open(os.devnull, "w") as nothing:
            argv = ["strace", "-o", os.devnull, "true"]
            return subprocess.call(argv, stdout=nothing, stderr=nothing) == 0
    except OSError:
        return False


@needs("strace")
class SystemCalls(TestCase):
    def test_import_init_and_a_debugging_run(self):
        log = os.path.join(self.make_dir(), "calls")
        done = run_program([
            "strace", "-f", "-s", "4096", "-o", log, sys.executable, "-W", "ignore",
            debuggee("system_calls.py"), library_path()])
        self.assertEqual((done.status, done.err), (0, ""), done)
        lines = done.out.split()
        self.assertGreater(int(lines.pop()), 200, "lines were stepped through")
        phases = self.read(log)
        self.assertEqual(sorted(phases), ["end", "import", "init", "run"])
        for name, _ in phases["import"]:
            self.assertIn(name, kEverywhere | kOfLoading)
        opened = [path for name, path in phases["import"] if name in ("open", "openat")]
        self.assertEqual([path for path in opened if not kLoaded.search(path)], [])
        self.assertTrue(
            [path for path in opened if path.endswith(os.path.basename(library_path()))])
        self.assertEqual([call for call in phases["init"] if call[0] not in kEverywhere], [])
        self.check_run(phases["run"], lines)

    def check_run(self, calls, files):
        """Files are only identified, and only those of modules and breakpoints."""
        others = [call for call in calls if call[0] not in kEverywhere | kStat]
        self.assertEqual(others, [])
        known = set(files)
        known.update(name[:-1] for name in files if name.endswith((".pyc", ".pyo")))
        known.update(name + "c" for name in files)
        known.update((debuggee("system_calls.py"), os.path.abspath(debuggee("system_calls.py"))))
        self.assertEqual([path for name, path in calls if name in kStat and path not in known], [])

    def read(self, log):
        """{phase: [(system call, first text among its arguments)]}"""
        phases, current = {}, None
        with open(log) as source:
            for line in source:
                call = kCall.match(line)
                mark = kMark.search(line)
                if mark:
                    current = phases.setdefault(mark.group(1), [])
                elif call and current is not None:
                    path = kPath.search(call.group(2))
                    current.append((call.group(1), path.group(1) if path else ""))
        return phases
