"""docs/matrix.md: what every test said under every interpreter, as the last full run saw it."""

import os
import time

kPath = os.path.join("docs", "matrix.md")

kHead = """\
# Every interpreter

One library per word size serves them all. `./check --matrix` wrote this page on {date}: every test of
the tree under every interpreter that it found, could fetch or had built (tools/build-interpreters).

| version | bits | variant | C library | passed | failed | skipped | interpreter |
|---|---|---|---|---|---|---|---|
"""

kVariants = {
    "release": "release", "trace_refs": "`Py_TRACE_REFS`", "pydebug": "`Py_DEBUG`",
    "free_threaded": "free-threaded", "free_threaded_no_lock": "free-threaded, lock off",
    "narrow": "16-bit characters",
}


def write(folder, interpreters, rows, missing, skips):
    """Write the page below `folder`.

    rows     {name: (passed, failed, skipped)}
    missing  [(name, reason)] of interpreters that were wanted and not there
    skips    [(how often, reason, where)]
    """
    lines = [kHead.format(date=time.strftime("%Y-%m-%d"))]
    for item in sorted(interpreters, key=lambda item: (item.version, item.bits, item.variant, item.name)):
        lines.append(row_of(item, rows.get(item.name)))
    if missing:
        lines.append("\nNot there:\n\n")
        lines.extend("- {}: {}\n".format(*each) for each in missing)
    if skips:
        lines.append("\nSkipped tests, by reason:\n\n| times | reason | where |\n|---|---|---|\n")
        for times, reason, where in sorted(skips, key=lambda skip: (-skip[0], skip[1])):
            lines.append("| {} | {} | {} |\n".format(times, reason.replace("|", "\\|"), where))
    with open(os.path.join(folder, kPath), "w", encoding="utf-8") as page:
        page.write("".join(lines))


def row_of(item, counts):
    version = "{}.{}.{}".format(*item.version)
    if item.is_static:
        variant = kVariants[item.variant] + ", no shared libpython"
    else:
        variant = kVariants[item.variant]
    passed, failed, skipped = counts if counts is not None else ("not run", "", "")
    return "| {} | {} | {} | {} | {} | {} | {} | {} |\n".format(
        version, item.bits, variant, item.libc, passed, failed, skipped, item.name)
