#!/usr/bin/env python3
"""Find the interpreters that the tests run under.

Looks at pyenv's versions, at what tools/fetch-interpreters and tools/build-interpreters have put
into the user's cache, and at the system's own. Each interpreter is asked what it is; one found
twice is listed once. Importable (`find_interpreters`, `find_missing`) and runnable (prints a
table).
"""

import argparse
import concurrent.futures
import glob
import json
import os
import re
import subprocess
import sys

kAskSeconds = 60

# Runs under every version, so: no f-strings, nothing newer than 2.6.
kQuestions = """\
import struct, sys
maps = open("/proc/self/maps").read()
libc, static = "unknown", False
try:
    import ctypes
    process = ctypes.CDLL(None)
    static = hasattr(process, "Py_Initialize") and "libpython" not in maps
    if hasattr(process, "gnu_get_libc_version"):
        process.gnu_get_libc_version.restype = ctypes.c_char_p
        libc = "glibc " + process.gnu_get_libc_version().decode()
    elif "-linux-musl/libc.so" in maps:  # it tells its version when it is run
        import re, subprocess
        program = re.search("/.*-linux-musl/libc.so", maps).group()
        told = subprocess.Popen([program], stderr=subprocess.PIPE).communicate()[1].decode()
        libc = "musl " + re.search("Version (.*)", told).group(1)
except (ImportError, AttributeError):
    pass
try:
    from importlib.machinery import EXTENSION_SUFFIXES as suffixes
except ImportError:
    import imp
    suffixes = [row[0] for row in imp.get_suffixes() if row[2] == imp.C_EXTENSION]
try:
    import sysconfig
    free_threaded = bool(sysconfig.get_config_var("Py_GIL_DISABLED"))
except ImportError:
    free_threaded = False
print("tells:%d.%d.%d|%d|%d|%d|%d|%s|%d|%s|%d" % (
    sys.version_info[0], sys.version_info[1], sys.version_info[2], 8 * struct.calcsize("P"),
    hasattr(sys, "getobjects"), hasattr(sys, "gettotalrefcount"), free_threaded,
    ",".join(suffixes), sys.maxunicode == 0xffff, libc, static))
"""

kBuilt = "built-"
kNoLock = "+nolock"
kOldest = (2, 6)
kNewest = (3, 14)

# What a full run of the tests wants: (version, bits, variant).
kWanted = (
    [("2.7", 64, "release"), ("2.7", 64, "trace_refs")]
    + [("3.{}".format(minor), 64, "release") for minor in range(6, 15)]
    + [("3.14", 64, "pydebug"), ("3.14", 64, "free_threaded")]
    + [("2.7", 32, "release"), ("2.7", 32, "trace_refs")]
    + [("3.{}".format(minor), 32, "release") for minor in (9, 11, 13, 14)]
)


class tInterpreter:
    """One interpreter.

    name      as shown and selected, for example "pyenv-3.8.18-64" or "debian-2.7-dbg-32"
    path      program or launcher to start
    version   (major, minor, micro)
    bits      word size, 32 or 64
    variant   "release", "trace_refs" (Py_TRACE_REFS), "pydebug" (Py_DEBUG without that),
              "free_threaded", "free_threaded_no_lock", "narrow" (2.7 with 16-bit characters)
    environment  variables that make it so: a free-threaded interpreter is there twice, once as it
              comes, which switches its lock on for the library, and once with that forbidden
    debug     whether it counts references (Py_DEBUG, of any variant)
    suffixes  endings of extension modules, the preferred one first
    libc      the C library that it runs with, for example "glibc 2.36"
    is_static whether the program holds the interpreter's functions itself (no libpython)
    """

    def __init__(self, name, path, version, bits, variant, debug, suffixes, libc, is_static):
        self.name, self.path = name, path
        self.version, self.bits, self.variant = version, bits, variant
        self.debug, self.suffixes, self.libc = debug, suffixes, libc
        self.is_static = is_static
        self.environment = {}
        if variant == "free_threaded":  # it says that it switches its lock on for the library
            self.environment = {"PYTHONWARNINGS": "ignore:The global interpreter "
                                                  "lock:RuntimeWarning"}

    def without_lock(self):
        """The same free-threaded interpreter with its lock off whatever is imported."""
        twin = tInterpreter(self.name + kNoLock, self.path, self.version, self.bits,
                            "free_threaded_no_lock", self.debug, self.suffixes, self.libc,
                            self.is_static)
        twin.environment = {"PYTHON_GIL": "0"}
        return twin

    @property
    def minor(self):
        return "{}.{}".format(*self.version[:2])

    @property
    def is_built(self):
        """Whether tools/build-interpreters made it: a variant for the full matrix of tests."""
        return self.name.startswith(kBuilt)

    @property
    def supported(self):
        return kOldest <= self.version[:2] <= kNewest

    @property
    def module_suffix(self):
        """Ending of the library's file name when installed for this interpreter."""
        return "_d.so" if "_d.so" in self.suffixes else ".so"

    def as_dict(self):
        return {name: getattr(self, name) for name in (
            "name", "path", "version", "bits", "variant", "debug", "suffixes", "libc", "supported"
        )}


def ask(path):
    """Answers of the interpreter as a dictionary; a string says why there are none."""
    env = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    try:
        done = subprocess.run(
            [path, "-c", kQuestions],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            timeout=kAskSeconds, env=env, encoding="utf-8", errors="replace",
        )
    except (OSError, subprocess.TimeoutExpired) as why:
        return "does not start: {}".format(why)
    # Debug builds of version 2 may add lines of their own.
    lines = [line for line in done.stdout.splitlines() if line.startswith("tells:")]
    if done.returncode != 0 or not lines:
        return "does not run: {}".format((done.stderr.strip().splitlines() or ["no answer"])[-1])
    version, bits, trace_refs, debug, free, suffixes, narrow, libc, static = lines[0][len(
        "tells:"):].split("|")
    return {
        "version": tuple(int(part) for part in version.split(".")),
        "bits": int(bits),
        "variant": (
            "free_threaded" if free == "1" else "trace_refs" if trace_refs == "1"
            else "pydebug" if debug == "1" else "narrow" if narrow == "1" else "release"
        ),
        "debug": debug == "1",
        "suffixes": suffixes.split(","),
        "libc": libc,
        "is_static": static == "1",
    }


# --- where to look --------------------------------------------------------------------------


def pyenv_candidates():
    roots = [os.environ.get("PYENV_ROOT"), os.path.join(os.path.expanduser("~"), ".pyenv")]
    for root in roots:
        if root:
            for path in glob.glob(os.path.join(root, "versions", "*", "bin", "python")):
                yield "pyenv", path


def cache_candidates():
    for row in fetched() + built():
        if row["ok"]:
            yield row["name"], row["launcher"]


def system_candidates():
    for path in glob.glob("/usr/bin/python*") + glob.glob("/usr/local/bin/python*"):
        if re.match(r"^python(\d(\.\d+)?(-dbg|d|t|td)?)?$", os.path.basename(path)):
            yield "system", path


def fetched():
    """What tools/fetch-interpreters says of each interpreter that it knows."""
    return ask_tool("fetch-interpreters")


def built():
    """The same of tools/build-interpreters."""
    return ask_tool("build-interpreters")


def ask_tool(name):
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), name)
    done = subprocess.run(
        [sys.executable, script, "--list", "--json"], stdout=subprocess.PIPE, check=True,
        timeout=kAskSeconds
    )
    return json.loads(done.stdout.decode())


def name_for(origin, answers, path):
    """The cache names its own; others are named by origin, exact version, variant and bits."""
    if origin.startswith(("debian-", kBuilt)):
        return origin
    exact = "{}.{}.{}".format(*answers["version"])
    variant = "" if answers["variant"] == "release" else answers["variant"] + "-"
    return "{}-{}-{}{}".format(origin, exact, variant, answers["bits"])


def find_interpreters(broken=None):
    """Every interpreter that runs, sorted by version, word size and name.

    broken: list that gets a (path, reason) for each one that does not.
    """
    candidates = []
    seen = set()
    for origin, path in [*cache_candidates(), *pyenv_candidates(), *system_candidates()]:
        real = os.path.realpath(path)
        if real not in seen and os.access(real, os.X_OK):
            seen.add(real)
            candidates.append((origin, path))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 1) as pool:
        answers_of_all = list(pool.map(ask, [path for _, path in candidates]))
    found = {}
    for (origin, path), answers in zip(candidates, answers_of_all):
        if isinstance(answers, str):
            if broken is not None:
                broken.append((path, answers))
            continue
        name = name_for(origin, answers, path)
        found.setdefault(name, tInterpreter(name, path, **answers))
        if answers["variant"] == "free_threaded":
            found.setdefault(name + kNoLock, found[name].without_lock())
    return sorted(found.values(), key=lambda item: (item.version, item.bits, item.name))


def describe_path(path):
    """Record of the interpreter at a path given by the user; raises ValueError with the reason."""
    answers = ask(path)
    if isinstance(answers, str):
        raise ValueError("{}: {}".format(path, answers))
    return tInterpreter(name_for("given", answers, path), path, **answers)


def find_missing(interpreters, broken=()):
    """[(name, reason)] of the wanted ones that are not among `interpreters`."""
    have = {(item.minor, item.bits, item.variant) for item in interpreters}
    reasons = reasons_of_fetch()
    missing = []
    for version, bits, variant in kWanted:
        if (version, bits, variant) not in have:
            name = "python-{}{}-{}".format(version,
                                           "" if variant == "release" else "-" + variant, bits)
            reason = reasons.get((version, bits, variant in ("trace_refs", "pydebug")))
            if variant == "free_threaded":
                reason = ("no distribution has it; tools/build-interpreters builds it for "
                          "./check --matrix")
            elif reason is None:
                reason = ("neither among pyenv's versions nor the system's, and not fetched "
                          "from Debian")
            missing.append((name, reason))
    return missing


def reasons_of_fetch():
    return {
        (row["version"], row["bits"], row["debug"]): row["reason"] for row in fetched()
        if not row["ok"]
    }


def select(interpreters, names):
    """Those that `names` mean (a name, the start of one up to a dash or dot, or a path)."""
    chosen = []
    for name in names:
        if os.sep in name:
            real = os.path.realpath(name)
            # as it comes
            match = [item for item in interpreters if os.path.realpath(item.path) == real][:1]
            match = match or [describe_path(name)]
        else:
            match = [item for item in interpreters if item.name == name]
            match = match or [item for item in interpreters if fits(item, name)]
        if not match:
            raise ValueError("no interpreter {!r}; tools/interpreters.py lists all".format(name))
        chosen.extend(item for item in match if item not in chosen)
    return chosen


def fits(item, name):
    """"3.8", "pyenv-3.8" and "3.9-32" all mean something without naming it in full."""
    pattern = re.escape(name) + r"($|[.-])"
    rest = item.name.partition("-")[2]
    return bool(
        re.match(pattern, item.name)
        or re.match(pattern, rest)
        or name == "{}-{}".format(item.minor, item.bits)
    )


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--json", action="store_true", help="print records instead of a table")
    parser.add_argument("--paths", action="store_true", help="print paths only")
    parser.add_argument("name", nargs="*", help="only these")
    arguments = parser.parse_args(argv)
    broken = []
    interpreters = find_interpreters(broken)
    if arguments.name:
        try:
            interpreters = select(interpreters, arguments.name)
        except ValueError as why:
            print(why, file=sys.stderr)
            return 2
    if arguments.json:
        print(json.dumps([item.as_dict() for item in interpreters], indent=1))
        return 0
    if arguments.paths:
        print("\n".join(item.path for item in interpreters))
        return 0
    for item in interpreters:
        version = "{}.{}.{}".format(*item.version)
        note = "" if item.supported else "  (not supported: only to test the refusal)"
        print("{:24} {:8} {:3} {:14} {}{}".format(item.name, version, item.bits, item.variant,
                                                  item.path, note))
    if not arguments.name:
        for path, reason in broken:
            print("broken   {}: {}".format(path, reason))
        for name, reason in find_missing(interpreters):
            print("missing  {}: {}".format(name, reason))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
