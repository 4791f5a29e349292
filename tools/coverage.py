#!/usr/bin/env python3
"""How much of the library the tests run: lines and branches of each file, by gcov.

Reads what a build with -DTDBG_COVERAGE=ON has counted since it was made (the counts add up over all
processes).  `./check --coverage` builds, runs the tests and prints the table.

  tools/coverage.py BUILD-FOLDER            the table
  tools/coverage.py BUILD-FOLDER --missing  and the lines that nothing has run
"""

import argparse
import collections
import glob
import json
import os
import subprocess
import sys

kObjects = os.path.join("CMakeFiles", "tserver_objects.dir", "debug", "tserver")
kSource = os.path.join("debug", "tserver") + os.sep

tCounts = collections.namedtuple("tCounts", "lines run_lines branches run_branches")


def read_counts(folder):
    """{file below debug/tserver: ({line: count}, {(line, index): count})}"""
    files = {}
    for path in sorted(glob.glob(os.path.join(folder, kObjects, "*.gcda"))):
        done = subprocess.run(
            ["gcov", "--json-format", "--stdout", "--branch-probabilities", path],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True, cwd=folder,
        )
        for text in done.stdout.decode().splitlines():
            add_object(files, json.loads(text))
    return files


def add_object(files, data):
    for entry in data["files"]:
        place = entry["file"].rfind(kSource)
        if place < 0:
            continue
        lines, branches = files.setdefault(entry["file"][place + len(kSource):], ({}, {}))
        for line in entry["lines"]:
            number = line["line_number"]
            lines[number] = lines.get(number, 0) + line["count"]
            # Templates and inline functions come once per object: a branch is run if one of them
            # ran it.
            for index, branch in enumerate(line["branches"]):
                key = (number, index)
                branches[key] = branches.get(key, 0) + branch["count"]


def counts_of(lines, branches):
    return tCounts(len(lines), sum(1 for n in lines.values() if n), len(branches),
                   sum(1 for n in branches.values() if n))


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def total_of(files):
    rows = [counts_of(*each) for each in files.values()]
    return tCounts(*(sum(column) for column in zip(*rows))) if rows else tCounts(0, 0, 0, 0)


def print_table(files, missing=False):
    print("{:36}{:>14}{:>9}{:>16}{:>9}".format("", "lines", "", "branches", ""))
    for name in sorted(files):
        print_row(name, counts_of(*files[name]))
        if missing:
            print("    not run: " + ranges_of(files[name][0]))
    print_row("all", total_of(files))


def print_row(name, counts):
    print("{:36}{:>7}/{:<6}{:>7.1f} %{:>9}/{:<6}{:>7.1f} %".format(
        name, counts.run_lines, counts.lines, percent(counts.run_lines, counts.lines),
        counts.run_branches, counts.branches, percent(counts.run_branches, counts.branches)))


def ranges_of(lines):
    """"3, 7-9" for the lines with a count of 0."""
    ranges = []
    previous = None
    for number in sorted(lines):
        if lines[number]:
            previous = None
        elif previous is not None:
            ranges[-1][1] = previous = number
        else:
            ranges.append([number, number])
            previous = number
    texts = [str(first) if first == last else "{}-{}".format(first, last)
             for first, last in ranges]
    return ", ".join(texts) or "-"


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder")
    parser.add_argument("--missing", action="store_true",
                        help="list the lines that nothing has run")
    arguments = parser.parse_args(argv)
    files = read_counts(os.path.abspath(arguments.folder))  # gcov runs in there
    if not files:
        print("nothing was counted in " + arguments.folder, file=sys.stderr)
        return 2
    print_table(files, arguments.missing)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
