"""A terminal just good enough to read what an editor has drawn: text and the movements between."""
import codecs
import errno
import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time

kRows, kColumns = 40, 120
kSeconds = 60
kReadSeconds = 0.2
_sequence = re.compile("\x1b(?:\\[([<=>?]*)([0-9;:]*)[ -/]*([@-~])|\\][^\x07\x1b]*(?:\x07|\x1b\\\\)"
                       "|[PX^_].*?\x1b\\\\|[()][0-9A-Za-z]|[=>78cDEHM])", re.DOTALL)
# Asked by editors as they start: what is this terminal?  Answered as by one that knows little.
_answers = {("", "c"): "\x1b[?6c", ("", "n"): "\x1b[1;1R"}


class tScreen:
    """A program on a pseudo-terminal, and what it shows."""

    def __init__(self, argv, env, cwd):
        self._rows = [[" "] * kColumns for _ in range(kRows)]
        self._row = self._column = 0
        self._rest = ""
        self._decode = codecs.getincrementaldecoder("utf-8")("replace").decode
        self._master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", kRows, kColumns, 0, 0))
        self.process = subprocess.Popen(
            argv, stdin=slave, stdout=slave, stderr=slave, env=env, cwd=cwd, start_new_session=True)
        os.close(slave)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        os.close(self._master)

    def type(self, text):
        os.write(self._master, text.encode("utf-8"))

    def text(self):
        return "\n".join("".join(row).rstrip() for row in self._rows)

    def wait_for(self, pattern, seconds=kSeconds):
        """The match, as soon as the screen shows it."""
        end = time.monotonic() + seconds
        while True:
            found = re.search(pattern, self.text())
            if found:
                return found
            if time.monotonic() >= end or not self._read():
                raise AssertionError(
                    "the screen does not show {!r} but\n{}".format(pattern, self.text()))

    def _read(self):
        """False at the end of the program."""
        if not select.select([self._master], [], [], kReadSeconds)[0]:
            return True
        try:
            data = os.read(self._master, 65536)
        except OSError as why:
            if why.errno != errno.EIO:
                raise
            data = b""
        self._show(self._rest + self._decode(data))
        return bool(data)

    def _show(self, text):
        place = 0
        while place < len(text):
            if text[place] == "\x1b":
                found = _sequence.match(text, place)
                if not found:
                    break  # the rest of it comes later
                if found.group(3):
                    self._obey(found.group(1), found.group(2), found.group(3))
                place = found.end()
            else:
                self._put(text[place])
                place += 1
        self._rest = text[place:]

    def _put(self, character):
        if character == "\r":
            self._column = 0
        elif character == "\n":
            self._row = min(self._row + 1, kRows - 1)
        elif character == "\b":
            self._column = max(self._column - 1, 0)
        elif character >= " ":
            if self._column < kColumns:
                self._rows[self._row][self._column] = character
            self._column += 1

    def _obey(self, mark, numbers, letter):
        if mark:
            if mark == "?" and letter == "u":
                self.type("\x1b[?0u")
            return
        given = [int(number or 0) for number in re.split("[;:]", numbers)]
        count = max(given[0], 1)
        if letter in "Hf":
            self._row = min(count, kRows) - 1
            self._column = min(max(given[1] if len(given) > 1 else 1, 1), kColumns) - 1
        elif letter in "ABCD":
            down, right = {"A": (-count, 0), "B": (count, 0), "C": (0, count),
                           "D": (0, -count)}[letter]
            self._row = min(max(self._row + down, 0), kRows - 1)
            self._column = min(max(self._column + right, 0), kColumns - 1)
        elif letter == "G":
            self._column = min(count, kColumns) - 1
        elif letter == "d":
            self._row = min(count, kRows) - 1
        elif letter == "J":
            for row in range(0 if given[0] else self._row, kRows):
                first = self._column if row == self._row and not given[0] else 0
                self._rows[row][first:] = [" "] * (kColumns - first)
        elif letter == "K":
            first = 0 if given[0] else self._column
            self._rows[self._row][first:] = [" "] * (kColumns - first)
        elif ("", letter) in _answers:
            self.type(_answers["", letter])
