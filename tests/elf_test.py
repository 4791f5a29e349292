#!/usr/bin/env python3
"""What the built library exports, which texts it says and what it needs from the system.

Works on the file alone (with readelf), so it says the same for both word sizes on any machine.
Under sanitizers (--sanitized) the compiler adds libraries and start-up code of its own; then only
the exported names and the texts are compared.

  tests/elf_test.py --library build/tdbgtracer.so [--names tests/data/exported_names.txt]
"""

import argparse
import os
import re
import subprocess
import sys
import unittest

kNamesFile = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data", "exported_names.txt")
# Texts of the log, of exceptions and of standard error that others search for: C literals, one a
# line. A text that is reworded is lost to them.
kMessagesFile = os.path.join(os.path.dirname(kNamesFile), "messages.txt")
kNewestLibc = (2, 17)

# What a library may name as needed. The dynamic loader itself is named on some word sizes.
kAllowedLibraries = {
    "libc.so.6", "libdl.so.2", "libpthread.so.0", "ld-linux.so.2", "ld-linux-x86-64.so.2",
}
# Added by the linker or the compiler's start files.
kOwnOfTheTools = {"_init", "_fini", "__bss_start", "_edata", "_end"}
# Undefined weak symbols of the compiler's start files.
kWeakOfTheTools = {
    "_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__gmon_start__",
    "__cxa_finalize",
}

# Ways to the environment, to files that nobody has named, to other programs and to the network.
kNeverAsked = re.compile(
    r"(_*(secure_)?getenv|_*environ|putenv|setenv|unsetenv|open(at)?(64)?|f(re|d)?open(64)?|creat"
    r"|opendir|scandir|glob|wordexp|readlink|realpath|exec.*|system|popen|posix_spawn.*|v?fork"
    r"|socket|connect|bind|getaddrinfo|gethostby.*)$")
# What musl does not have: the library is loaded there because it asks for them weakly.
kNotInMusl = {"__register_atfork"}

gArguments = None


def readelf(*options):
    done = subprocess.run(
        ["readelf", "-W", *options, gArguments.library], stdout=subprocess.PIPE, check=True)
    return done.stdout.decode()


class tSymbol:
    """One row of the dynamic symbol table."""

    def __init__(self, columns):
        self.kind, self.binding, self.visibility, section = columns[3:7]
        self.defined = section != "UND"
        self.name, _, self.version = columns[7].replace("@@", "@").partition("@")


def read_symbols():
    symbols = []
    for line in readelf("--dyn-syms").splitlines():
        columns = re.sub(r"\[[^]]*\]", "", line).split()
        if len(columns) >= 8 and columns[0].rstrip(":").isdigit():
            symbols.append(tSymbol(columns))
    return symbols


def read_needed():
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", readelf("--dynamic")))


def version_of(text):
    """"GLIBC_2.3.4" -> (2, 3, 4); None for other names."""
    match = re.fullmatch(r"GLIBC_([0-9.]+)", text)
    return tuple(int(part) for part in match.group(1).split(".")) if match else None


def list_names():
    with open(gArguments.names) as names:
        return names.read().split()


class ExportedNames(unittest.TestCase):
    def test_list_is_sorted_and_has_no_name_twice(self):
        self.assertEqual(list_names(), sorted(set(list_names())))

    def test_every_listed_name_is_exported(self):
        exported = {symbol.name for symbol in read_symbols() if symbol.defined}
        self.assertEqual(sorted(set(list_names()) - exported), [])

    def test_nothing_else_is_exported(self):
        exported = {symbol.name for symbol in read_symbols() if symbol.defined}
        exported = {name for name in exported if not name.startswith("__odr_asan")}
        self.assertEqual(sorted(exported - kOwnOfTheTools - set(list_names())), [])

    def test_no_name_is_mangled(self):
        self.assertEqual([name for name in list_names() if name.startswith("_Z")], [])

    def test_exported_names_cannot_be_replaced_from_outside(self):
        wrong = [
            symbol.name for symbol in read_symbols()
            if symbol.defined and symbol.visibility != "PROTECTED"
            and symbol.name not in kOwnOfTheTools | {"PyInit_tdbgtracer", "inittdbgtracer"}
            and not symbol.name.startswith("__odr_asan")
        ]
        self.assertEqual(wrong, [])


def list_messages():
    with open(kMessagesFile) as messages:
        return messages.read().splitlines()


class Messages(unittest.TestCase):
    def test_list_is_sorted_and_has_no_text_twice(self):
        self.assertEqual(list_messages(), sorted(set(list_messages())))

    def test_every_listed_text_is_in_the_library(self):
        with open(gArguments.library, "rb") as library:
            contents = library.read()
        missing = [
            text for text in list_messages()
            if text.encode().decode("unicode_escape").encode() + b"\0" not in contents
        ]
        self.assertEqual(missing, [])


class Needs(unittest.TestCase):
    def setUp(self):
        if gArguments.sanitized:
            self.skipTest("sanitizers add libraries of their own")

    def test_only_the_c_library(self):
        self.assertEqual(sorted(read_needed() - kAllowedLibraries), [])
        self.assertIn("libc.so.6", read_needed())

    def test_no_symbol_of_the_interpreter(self):
        wrong = [symbol.name for symbol in read_symbols()
                 if not symbol.defined and re.match(r"_?Py", symbol.name)]
        self.assertEqual(wrong, [])

    def test_no_symbol_without_an_owner(self):
        wrong = [
            symbol.name for symbol in read_symbols()
            if not symbol.defined and symbol.name and not symbol.version
            and symbol.name not in kWeakOfTheTools
        ]
        self.assertEqual(wrong, [])

    def test_no_c_library_newer_than_2_17(self):
        newer = sorted({
            "{} {}".format(symbol.name, symbol.version) for symbol in read_symbols()
            if not symbol.defined and (version_of(symbol.version) or (0,)) > kNewestLibc
        })
        self.assertEqual(newer, [])

    def test_no_other_version_names_than_the_c_librarys(self):
        others = sorted({
            symbol.version for symbol in read_symbols()
            if not symbol.defined and symbol.version and version_of(symbol.version) is None
        })
        self.assertEqual(others, [])

    def test_nothing_that_reads_the_environment_or_opens_files(self):
        self.assertEqual([symbol.name for symbol in read_symbols()
                          if not symbol.defined and kNeverAsked.match(symbol.name)], [])

    def test_what_musl_lacks_is_asked_for_weakly(self):
        found = [symbol for symbol in read_symbols() if symbol.name in kNotInMusl]
        self.assertEqual([symbol.name for symbol in found if symbol.binding != "WEAK"], [])

    def test_version_table_asks_for_nothing_newer(self):
        asked = set(re.findall(r"Name: (GLIBC_\S+)", readelf("--version-info")))
        self.assertTrue(asked)
        self.assertEqual([name for name in asked if version_of(name) > kNewestLibc], [])


class Loading(unittest.TestCase):
    def setUp(self):
        if gArguments.sanitized:
            self.skipTest("sanitizers add start-up code of their own")

    def test_no_code_of_ours_runs_at_load_time(self):
        # One entry each is the compiler's own (frame_dummy, __do_global_dtors_aux).
        word = 8 if "ELF64" in readelf("--file-header") else 4
        sizes = dict(re.findall(r"\((INIT_ARRAYSZ|FINI_ARRAYSZ)\)\s+(\d+) \(bytes\)",
                                readelf("--dynamic")))
        for name, size in sizes.items():
            self.assertLessEqual(int(size), word, name)

    def test_relocations_are_read_only_after_start(self):
        self.assertIn("GNU_RELRO", readelf("--segments"))
        dynamic = readelf("--dynamic")
        self.assertRegex(dynamic, r"BIND_NOW|\(FLAGS_1\).*NOW")
        self.assertNotIn("TEXTREL", dynamic)

    def test_stack_is_not_executable(self):
        stack = [line for line in readelf("--segments").splitlines() if "GNU_STACK" in line]
        self.assertEqual(len(stack), 1)
        self.assertNotRegex(stack[0], r"\bRWE\b|\bR?W?E\b")

    def test_stacks_are_guarded(self):
        self.assertIn("__stack_chk_fail",
                      {symbol.name for symbol in read_symbols() if not symbol.defined})

    def test_nothing_is_searched_in_a_directory_of_the_builder(self):
        self.assertNotRegex(readelf("--dynamic"), r"\((RPATH|RUNPATH)\)")


def main():
    global gArguments
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--library", required=True, help="the built tdbgtracer.so")
    parser.add_argument("--names", default=kNamesFile, help="what it must export, a name a line")
    parser.add_argument("--sanitized", action="store_true", help="built with sanitizers")
    gArguments, rest = parser.parse_known_args()
    unittest.main(argv=sys.argv[:1] + rest)


if __name__ == "__main__":
    main()
