"""The user's terminal: where commands come from and where the debugger writes.

The program may redirect, replace or close its streams as it likes, so everything here has
descriptors of its own. Editing of lines is the library module `readline`, of which a process has
only one: it is put to the debugger's use for the time of a prompt and given back in the
state that the program left it in.
"""
from __future__ import absolute_import, division, print_function

import io
import os
import sys

from tdbg import compat

try:
    import fcntl
except ImportError:
    fcntl = None

kFirstDescriptor = 100  # out of the way: the program gets the numbers it expects
kHistoryFile = "~/.tdbg_history"
kHistoryLines = 1000
kDelimiters = " \t\n`~!@#$%^&*()-=+[{]}\\|;:'\",<>/?"

_isatty = os.isatty
_read = os.read
_open = io.open


class tConsole(object):
    """is_terminal: a person may be typing; can_colour: escape sequences are understood."""

    def __init__(self):
        self.is_terminal = _is_terminal(0)
        self.out_is_terminal = self.is_terminal or _is_terminal(1)
        self._out = self._open_output()
        self._stdin = self._stdout = None
        self._input = _duplicate(0)
        self._editor = None
        if self.is_terminal and _is_terminal(1):
            self._editor = _make_editor()
        self.can_colour = self.out_is_terminal and _wants_colour(os.environ)

    def begin(self):
        """The program is about to run: remember its streams as they were given to it."""
        self._stdin, self._stdout = sys.stdin, sys.stdout

    def flush_program(self):
        """What the program has printed so far comes before what the debugger prints."""
        for stream in (self._stdout, sys.stderr):
            try:
                stream.flush()
            except BaseException:  # closed, or never there
                pass

    def write(self, text):
        try:
            self._out.write(compat.to_text(text))
            self._out.flush()
        except (IOError, OSError, ValueError):
            pass  # nobody is listening

    def read_line(self, prompt, complete=None):
        """One line without its end.  EOFError, KeyboardInterrupt as input() does."""
        if not self.is_terminal:
            self.write(prompt)
            return self._read_stream()
        if self._editor is None or not (_is_terminal(0) and _is_terminal(1)):
            self.write(prompt)
            return self._read_terminal()
        return self._editor.read_line(prompt, complete, self._stdin, self._stdout)

    def line_being_edited(self):
        return self._editor.line_being_edited() if self._editor is not None else ""

    def see_import(self, module):
        if self._editor is not None and getattr(module, "__name__", None) == "readline":
            self._editor.program_uses_it()

    def _read_stream(self):
        """A line and not one byte more: what follows may be for the program or for its next run."""
        data = b""
        while not data.endswith(b"\n"):
            byte = _read(self._input, 1)
            if not byte:
                break
            data += byte
        if not data:
            data = self._read_what_program_has_taken()
        if not data:
            raise EOFError
        return compat.to_text(data).rstrip(u"\r\n")

    def _read_what_program_has_taken(self):
        """The program's own reading may have taken in more than it has used so far."""
        try:
            return self._stdin.readline()
        except (AttributeError, IOError, OSError, ValueError):
            return ""

    def _read_terminal(self):
        data = _read(self._input, 4096)  # a terminal gives one line
        if not data:
            raise EOFError
        return data.decode(_encoding(), "replace").rstrip("\r\n")

    def _open_output(self):
        descriptor = None
        if self.is_terminal and not _is_terminal(1):
            try:
                descriptor = _move_up(os.open(os.ttyname(0), os.O_WRONLY | os.O_NOCTTY))
            except OSError:
                pass
        if descriptor is None:
            descriptor = _duplicate(1)
        return _open(
            descriptor, "w", encoding=_encoding(), errors="backslashreplace", newline="\n")


def _encoding():
    return getattr(sys.__stdout__, "encoding", None) or "utf-8"


def _is_terminal(descriptor):
    try:
        return _isatty(descriptor)
    except OSError:
        return False


def _wants_colour(environment):
    if environment.get("NO_COLOR"):
        return False
    return environment.get("TERM", "dumb") not in ("", "dumb")


def _duplicate(descriptor):
    """A copy that children do not inherit, with a high number; the null device if closed."""
    try:
        copy = fcntl.fcntl(descriptor, fcntl.F_DUPFD, kFirstDescriptor)
    except (IOError, OSError):
        return _move_up(os.open(os.devnull, os.O_RDWR))
    fcntl.fcntl(copy, fcntl.F_SETFD, fcntl.FD_CLOEXEC)
    return copy


def _move_up(descriptor):
    copy = _duplicate(descriptor)
    os.close(descriptor)
    return copy


# --- editing ----------------------------------------------------------------------------------


def _make_editor():
    try:
        hook = _find_input_hook()
        before = hook.value if hook is not None else None
        import readline
    except ImportError:
        return None
    editor = tEditor(readline, hook)
    if hook is not None:
        hook.value = before
    return editor


def _find_input_hook():
    """The interpreter's pointer to the function that input() reads lines with, or None."""
    try:
        import ctypes

        return ctypes.c_void_p.in_dll(ctypes.pythonapi, "PyOS_ReadlineFunctionPointer")
    except Exception:
        return None


class tEditor(object):
    """Line editing with the debugger's own history, completion and key bindings.

    hook: importing `readline` changes how input() reads for the whole process; by the hook it does
    so only while the debugger reads, unless the program has imported the module itself.
    """

    def __init__(self, readline, hook):
        self._readline = readline
        self._hook = hook
        self._function = hook.value if hook is not None else None
        self._path = os.path.expanduser(kHistoryFile)
        self._lines = _load_history(self._path)
        if "libedit" in (readline.__doc__ or ""):
            readline.parse_and_bind("bind ^I rl_complete")
        else:
            readline.parse_and_bind("tab: complete")

    def program_uses_it(self):
        if self._hook is not None:
            self._hook.value = self._function

    def line_being_edited(self):
        return self._readline.get_line_buffer()

    def read_line(self, prompt, complete, stdin, stdout):
        saved = self._take(complete)
        streams = sys.stdin, sys.stdout
        try:
            sys.stdin, sys.stdout = stdin, stdout
            line = compat.to_text(compat.read_terminal_line(prompt))
        finally:
            sys.stdin, sys.stdout = streams
            self._give_back(saved)
        self._remember(line)
        return line

    def _take(self, complete):
        readline = self._readline
        saved = (
            readline.get_completer(), readline.get_completer_delims(), self._history(),
            self._hook.value if self._hook is not None else None)
        self._set_history(self._lines)
        readline.set_completer(complete)
        readline.set_completer_delims(kDelimiters)
        if self._hook is not None:
            self._hook.value = self._function
        return saved

    def _give_back(self, saved):
        completer, delimiters, lines, function = saved
        self._readline.set_completer(completer)
        self._readline.set_completer_delims(delimiters)
        self._set_history(lines)
        if self._hook is not None:
            self._hook.value = function

    def _history(self):
        count = self._readline.get_current_history_length()
        return [self._readline.get_history_item(i + 1) for i in range(count)]

    def _set_history(self, lines):
        self._readline.clear_history()
        for line in lines:
            self._readline.add_history(line)

    def _remember(self, line):
        line = compat.to_native(line)
        if not line.strip() or self._lines[-1:] == [line]:
            return
        self._lines.append(line)
        del self._lines[:-kHistoryLines]
        _append_history(self._path, line)


def _load_history(path):
    try:
        with _open(path, encoding="utf-8", errors="replace") as source:
            lines = source.read().splitlines()
    except (IOError, OSError):
        return []
    if len(lines) > 2 * kHistoryLines:
        lines = lines[-kHistoryLines:]
        try:
            with _open(path, "w", encoding="utf-8") as target:
                target.write(u"\n".join(lines) + u"\n")
        except (IOError, OSError):
            pass
    return [compat.to_native(line) for line in lines[-kHistoryLines:]]


def _append_history(path, line):
    try:
        descriptor = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)
        with _open(descriptor, "a", encoding="utf-8") as target:
            target.write(compat.to_text(line) + u"\n")
    except (IOError, OSError):
        pass
