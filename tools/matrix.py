"""docs/matrix.md: what every test said under every interpreter, and why a cell has no count.

The results of each interpreter are kept below build/ as soon as they are complete, so that a run
that was interrupted goes on where it was.  They are good for as long as nothing in the tree, the
library or the interpreter changes, and only without failures.
"""

import collections
import hashlib
import json
import os
import subprocess
import time

kPath = os.path.join("docs", "matrix.md")

kHead = """\
# Every interpreter

One library per word size serves them all. `./check --matrix` wrote this page on {date}{revision},
from all interpreters that it found, could fetch (tools/fetch-interpreters) or had built
(tools/build-interpreters). The tests of the library run under each of them; where those of the
debugger's Python part ran, which knows neither word sizes nor C libraries, the table by interpreter
tells. A cell tells how many tests **passed / failed** with which C library; skipped ones are below.
A letter stands for a reason; {dash}: there is no such build of this version.

"""

kDash = "\u2013"
kBits = (64, 32)
kVersions = ["2.6", "2.7"] + ["3.{}".format(minor) for minor in range(15)]

# In the order of the page's columns.
kVariants = {
    "release": "release", "trace_refs": "`Py_TRACE_REFS`", "pydebug": "`Py_DEBUG` alone",
    "free_threaded": "free-threaded", "free_threaded_no_lock": "free-threaded, lock off",
    "narrow": "16-bit text",
}

kNoInterpreter = (
    "No interpreter of this version within reach: the oldest release that Debian's mirrors carry "
    "has 2.7 and"
    " 3.9. What stands for it: the native tests start the library on an interpreter that is "
    "nothing but names, of both"
    " families, with every name missing in turn, and check its structure tables.")
kNotPackaged = (
    "No distribution ships it, and of the variants that tools/build-interpreters builds a "
    "neighbour stands for it.")
kNoSource = (
    "Could not be built: the archive lists the source package, but no longer holds its files "
    "(`--again` asks"
    " again), and none of its suites has the build as a package.")
kNotFinished = (
    "Its tests were not finished when this page was written; the next run goes on with them.")
kOffsets = " The structures' offsets are compared with those that a compiler gives for its headers."


# --- which builds there can be --------------------------------------------------------------


def exists(version, variant):
    """Whether CPython can be built so."""
    major, minor = (int(part) for part in version.split("."))
    if variant == "pydebug":  # until then a debug build traced references, too
        return (major, minor) >= (3, 8)
    if variant in ("free_threaded", "free_threaded_no_lock"):
        return (major, minor) >= (3, 13)
    if variant == "narrow":
        return (major, minor) < (3, 3)
    return True


def why_missing(version, bits, variant, measured, not_built):
    """measured: {(version, bits, variant)} whose offsets are tested;
    not_built: {(version, variant)}"""
    plain = "free_threaded" if variant == "free_threaded_no_lock" else variant
    if version == "2.6" or version in ("3.0", "3.1", "3.2", "3.3", "3.4", "3.5"):
        return kNoInterpreter
    reason = kNoSource if bits == 64 and (version, plain) in not_built else kNotPackaged
    return reason + (kOffsets if (version, bits, plain) in measured else "")


def measured_layouts(folder):
    with open(os.path.join(folder, "tests", "data", "layouts.json"), encoding="utf-8") as source:
        return {(row["version"], row["bits"], row["variant"]) for row in json.load(source)["rows"]}


# --- results that are kept ------------------------------------------------------------------


class tKept:
    """Results of tests/run.py by interpreter, in a folder that is emptied when the tree changes."""

    def __init__(self, repository, build, libraries):
        self.folder = os.path.join(build, "matrix")
        os.makedirs(self.folder, exist_ok=True)
        key = key_of_tree(repository, libraries)
        if self.read("tree.json") != key:
            for name in os.listdir(self.folder):
                os.unlink(os.path.join(self.folder, name))
            with open(os.path.join(self.folder, "tree.json"), "w") as out:
                json.dump(key, out)

    def read(self, name):
        try:
            with open(os.path.join(self.folder, name), encoding="utf-8") as source:
                return json.load(source)
        except (OSError, ValueError):
            return None

    def rows_of(self, item):
        """The results under an interpreter, or None."""
        results = self.read(item.name + ".json")
        path = os.path.join(self.folder, item.name + ".json")
        if results is None or os.path.getmtime(path) < os.path.getmtime(
                os.path.realpath(item.path)):
            return None
        return results["results"]

    def is_good(self, item):
        rows = self.rows_of(item)
        return rows is not None and all(row["status"] != "failed" for row in rows)


def key_of_tree(repository, libraries):
    """Hash of all that a test could depend on:
    every file of the tree but the pages, and the libraries."""
    listing = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=repository, stdout=subprocess.PIPE, check=True).stdout
    files = [os.path.join(repository, os.fsdecode(name))
             for name in sorted(listing.split(b"\0")) if name]
    total = hashlib.sha256()
    for path in files + list(libraries):
        if path != os.path.join(repository, kPath) and os.path.isfile(path):
            with open(path, "rb") as source:
                total.update(os.fsencode(path) + b"\0" + hashlib.sha256(source.read()).digest())
    return total.hexdigest()


# --- the page -------------------------------------------------------------------------------


def write(folder, interpreters, results, not_built, skips):
    """Write the page below `folder`.

    results    {name: [{"test", "status", ...}]}
    not_built  {(version, variant)} that tools/build-interpreters tried in vain
    skips      [(how often, reason, where)]
    """
    lines = [kHead.format(date=time.strftime("%Y-%m-%d"), revision=revision_of(folder), dash=kDash)]
    lines += grid(interpreters, results, measured_layouts(folder), not_built)
    lines += libraries_of(interpreters)
    lines += details(interpreters, results, front_end_files(folder))
    lines += failures(interpreters, results)
    lines += ["\n## Skipped tests, by reason\n\n| times | reason | where |\n|---|---|---|\n"]
    for times, reason, where in sorted(skips, key=lambda skip: (-skip[0], skip[1])):
        lines.append(
            "| {} | {} | {} |\n".format(times, " ".join(reason.split()).replace("|", "\\|"), where))
    with open(os.path.join(folder, kPath), "w", encoding="utf-8") as page:
        page.write("".join(lines))


def revision_of(folder):
    done = subprocess.run(
        ["git", "describe", "--always", "--dirty=, with changes"], cwd=folder,
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return " at revision " + done.stdout.decode().strip() if done.returncode == 0 else ""


def grid(interpreters, results, measured, not_built):
    letters = collections.OrderedDict()  # reason -> letter
    lines = ["| version | bits | {} |\n".format(" | ".join(kVariants.values())),
             "|---|---|{}\n".format("---|" * len(kVariants))]
    for version in kVersions:
        for bits in kBits:
            cells = []
            for variant in kVariants:
                here = [item for item in interpreters if (item.minor, item.bits, item.variant) == (
                    version, bits, variant)]
                if here:
                    if any(item.name not in results for item in here):
                        letters.setdefault(kNotFinished, "abcdefgh"[len(letters)])
                    cells.append("<br>".join(
                        cell_of(item, results.get(item.name), letters.get(kNotFinished))
                        for item in here))
                elif not exists(version, variant):
                    cells.append(kDash)
                else:
                    reason = why_missing(version, bits, variant, measured, not_built)
                    cells.append(letters.setdefault(reason, "abcdefgh"[len(letters)]))
            lines.append("| {} | {} | {} |\n".format(version, bits, " | ".join(cells)))
    lines.append("\n")
    lines += ["- **{}**: {}\n".format(letter, reason) for reason, letter in letters.items()]
    return lines


def cell_of(item, rows, letter):
    more = ", static" if item.is_static else ""
    if rows is None:
        return "{} ({}{})".format(letter, item.libc, more)
    counts = counts_of(rows)
    return "{} / {} ({}{})".format(counts["passed"], counts["failed"], item.libc, more)


def counts_of(rows):
    return collections.Counter(row["status"] for row in rows or [])


def libraries_of(interpreters):
    names = {item.libc for item in interpreters if " " in item.libc}
    glibc = sorted((name for name in names if name.startswith("glibc ")), key=version_in)
    musl = ", ".join(sorted(names - set(glibc)))
    return [
        "\n## C libraries\n\n",
        "Oldest: {}. Newest: {}. The library needs nothing newer than glibc 2.17, which a test of "
        "its symbols checks in both word sizes. ".format(glibc[0], glibc[-1]) if glibc else "",
        "The same file runs with {}.\n".format(musl) if musl else
        "musl: no distribution at hand has an interpreter that runs with it, and "
        "tools/build-interpreters has built none.\n",
    ]


def version_in(libc):
    return [int(part) for part in libc.split()[-1].split(".")]


def front_end_files(folder):
    """Names of the test files that need not run under every interpreter."""
    tests = os.path.join(folder, "tests", "py")
    names = set()
    for name in os.listdir(tests):
        if name.endswith(".py"):
            with open(os.path.join(tests, name), encoding="utf-8") as source:
                if "kOncePerVersion = True" in source.read():
                    names.add(name[:-len(".py")])
    return names


def details(interpreters, results, front_end):
    lines = ["\n## By interpreter\n\n",
             "| version | bits | variant | C library | passed | failed | skipped | of the Python "
             "part | interpreter |\n",
             "|---|---|---|---|---|---|---|---|---|\n"]
    for item in sorted(interpreters,
                       key=lambda item: (item.version, item.bits, item.variant, item.name)):
        rows = results.get(item.name)
        counts = counts_of(rows)
        numbers = [counts[status] for status in ("passed", "failed", "skipped")]
        numbers.append(sum(row["test"].partition(".")[0] in front_end for row in rows or []))
        lines.append("| {} | {} | {} | {} | {} | {} | {} | {} | {} |\n".format(
            "{}.{}.{}".format(*item.version), item.bits,
            kVariants[item.variant]
            + (", no shared libpython" if item.is_static else ""), item.libc,
            *(numbers if rows is not None else ["not finished", "", "", ""]), item.name))
    return lines


def failures(interpreters, results):
    rows = ["- {}: {}\n".format(item.name, row["test"]) for item in interpreters
            for row in results.get(item.name) or [] if row["status"] == "failed"]
    return ["\n## Failed\n\n"] + (rows or ["None.\n"])
