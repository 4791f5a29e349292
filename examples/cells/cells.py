"""Runs a notebook: cells of Python, between lines `# %%`, that share their names.

Try it with `./tdbg examples/cells/cells.py examples/cells/sales.cells`.

    (Tdb) tbreak Notebook.run
    (Tdb) continue
    (Tdb) break cell 2:6
    (Tdb) continue
    (Tdb) where
"""
from __future__ import absolute_import, division, print_function

import dis
import io
import re
import sys

kNames = "cell {}"  # what users call a cell
_names = re.compile(r"(?:cell )?([0-9]+)$")
_code_type = type((lambda: 0).__code__)


class Notebook(object):
    """cells: their texts, the first one is cell 1; names: those that they share."""

    def __init__(self, text):
        parts = re.split(r"(?m)^# %%.*\n", text)
        self.cells = [part for part in parts if part.strip()]
        self.names = {"__name__": "notebook"}
        self.debugging = Debugging(self)

    def run(self):
        for number in range(1, len(self.cells) + 1):  #@ next-cell
            self.run_cell(number)  #@ run-cell

    def run_cell(self, number):
        text = self.cells[number - 1].encode("utf-8")
        code = compile(text, kNames.format(number), "exec", 0, True)
        self.debugging.see(code)
        exec(code, self.names)


# --- for debuggers ----------------------------------------------------------------------------


class Debugging(object):
    """The code of cells is Python itself: only its files are none."""

    compiled = True

    def __init__(self, notebook):
        self._notebook = notebook
        self._codes = []

    def see(self, code):
        """A cell has been compiled."""
        self._codes.extend(_walk(code))
        if tdbg is not None:
            tdbg.register_sub_language(self)

    def entries(self):
        return [Notebook.run_cell]

    def functions(self):
        return self._codes

    def files(self):
        return [__file__]

    def place(self, frame, line):
        return frame.f_code.co_filename, line

    def title(self, frame):
        name = frame.f_code.co_name
        return "all of it" if name == "<module>" else name

    def globals(self, frame):
        return frame.f_globals

    def source(self, path):
        found = _names.match(path)
        number = int(found.group(1)) if found else 0
        return self._notebook.cells[number - 1] if self._has(number) else None

    def lines(self, path):
        text = self.source(path)
        if text is None:
            return None
        try:
            code = compile(text.encode("utf-8"), path, "exec", 0, True)
        except SyntaxError:
            return None
        return set(line for part in _walk(code) for _, line in dis.findlinestarts(part) if line)

    def find(self, name):
        found = _names.match(name)
        return kNames.format(found.group(1)) if found and self._has(int(found.group(1))) else None

    def _has(self, number):
        return 1 <= number <= len(self._notebook.cells)


def _walk(code):
    yield code
    for item in code.co_consts:
        if isinstance(item, _code_type):
            for inner in _walk(item):
                yield inner


try:
    import tdbg
except ImportError:
    tdbg = None


def main(path):
    with io.open(path, encoding="utf-8") as source:
        notebook = Notebook(source.read())
    if tdbg is not None:
        tdbg.register_sub_language(notebook.debugging)
    notebook.run()


if __name__ == "__main__":
    main(sys.argv[1])
