"""The front end for a terminal: shows stops and runs the prompt."""
from __future__ import absolute_import, division, print_function

import codeop
import re

from tdbg import breakpoints, compat, dbgserver, exceptions, interrupts, private, stops
from tdbg.terminal import breakcommands, commands, completion, display, lineinput, startupfile

kPrompt = "(Tdb) "
kMorePrompt = "  ... "
kSeparator = breakcommands.kSeparator

# Looks like a command, but is a statement of the program's names: `n = 1`, `c.x`, `s[0]`.
_statement = re.compile(r"\w+(\s*=[^=]|\.|\[)")
_word = re.compile(r"[A-Za-z_]\w*")
_compile_command = codeop.compile_command


class tTerminal(dbgserver.tFrontEnd):
    """program: the tProgram that is debugged.

    While a thread is stopped: stop, stack and index (the selected frame's place in it).
    """

    def __init__(self, program):
        self.program = program
        self.console = lineinput.tConsole()
        self.server = None
        self.display = None
        self.stop = None
        self.stack, self.index = [], 0
        self._commands = None
        self._completer = None
        self._interrupts = None
        self._last_line = ""     # what an empty line repeats
        self._pending = []       # commands of the line still to run
        self._notices = []       # of the start-up files
        self._last_thread = None
        self._ended = False      # the user has said that the program may end
        self._begun = False      # there has been a stop
        self._raise_here = False  # the signal handler, which asks the user, is to raise
        self._post_mortem = False  # nothing stops before an uncaught exception

    def attach(self, server):
        """server: the tServer; its stops come here from now on."""
        self.server = server
        self.display = display.tDisplay(self.console, server.core, self.program.cwd)
        self._commands = commands.tCommands(self)
        self._completer = completion.tCompleter(
            self._commands.names(), self.console.line_being_edited, lambda: self.frame,
            self._commands.complete_place)
        self._interrupts = interrupts.tInterrupts(self._pause)

    def restore(self, settings):
        """Set the breakpoints again that an earlier run has left."""
        self.server.breakpoints.restore(settings.get("breakpoints", []))
        self._commands.lists = dict(settings.get("commands", {}))
        for name in settings.get("languages_off", ()):
            self.server.languages.set_ready(name, False)
        self._post_mortem = settings.get("post_mortem", False)
        default = {"wanted": (exceptions.kUncaught,)} if self._post_mortem else {}
        self.server.exceptions.restore(settings.get("exceptions", default))
        if "breakpoints" not in settings:  # a new run has what the commands have set
            self._pending, self._notices = startupfile.read_all(self.program.cwd)

    @property
    def entry(self):
        """(frame, line) of the selected frame."""
        return self.stack[self.index]

    @property
    def frame(self):
        return self.stack[self.index][0]

    # --- what the server tells ---

    def on_stop(self, stop):
        if stop.reason == stops.kEntry and self._post_mortem and not stop.hits:
            return self.server.continue_run()
        if not self._begun:
            self._begun = True
            self.console.begin()
            if stop.reason != stops.kPostMortem:
                self._interrupts.install()
        self._interrupts.begin_prompt()
        try:
            self._talk(stop)
        finally:
            self._commands.end_stop()
            self.stop, self.stack, self.index = None, [], 0
            self._interrupts.end_prompt()

    def on_import(self, module):
        self.console.see_import(module)

    def on_notice(self, text):
        self.console.write(u"tdbg: {}\n".format(compat.to_text(text)))

    def on_internal_error(self, text):
        self.console.write(u"tdbg: internal error: {}\n".format(compat.to_text(text)))

    # --- one stop ---

    def _talk(self, stop):
        self.stop, self.stack, self.index = stop, stop.stack, stop.index
        self._commands.begin_stop()
        self.console.flush_program()
        changed = stop.thread.ident != self._last_thread
        first = self._last_thread is None
        self._last_thread = stop.thread.ident
        lines, silent = self._commands.take_lists(stop.hits)
        self._pending = lines + self._pending
        if not silent:
            self.display.show_stop(stop, changed and not first)
            self._show_selected()
        while self._notices:
            self.on_notice(self._notices.pop(0))
        while not self._run_line():
            pass

    def _show_selected(self):
        at_end = self.stop.reason == stops.kReturn and self.frame is self.stop.frame
        self.display.show_entry(self.entry, self.stop.value, at_end)

    def select(self, index):
        self.index = index
        self._show_selected()

    def raised_line(self, frame):
        """Line that raised or called, where it is not the one that the frame is at."""
        if self.stop.exc_info is None:
            return None
        tb = self.stop.exc_info[2]
        while tb is not None:
            if tb.tb_frame is frame:
                return tb.tb_lineno
            tb = tb.tb_next
        return None

    def _run_line(self):
        """Read and run one command; true when the stop is over."""
        try:
            line = self._next_line()
            if line is None:
                return self.quit()
            return self._run_command(line)
        except KeyboardInterrupt:
            self._pending = []
            self.display.line()
        except (commands.tUsage, breakpoints.tRefused) as why:
            self.display.error(why)
        return False

    def _next_line(self):
        """Text of the next command; None at the end of the input."""
        if self._pending:
            return self._next_pending()
        try:
            line = self.console.read_line(kPrompt, self._completer.complete).strip()
        except EOFError:
            self.display.line()
            return None
        if not line:
            line = self._last_line
        self._last_line = line
        if kSeparator in line:
            parts = [part.strip() for part in line.split(kSeparator)]
            line, self._pending = parts[0], parts[1:]
        return line

    def _next_pending(self):
        line, colons, rest = self._pending.pop(0).partition(kSeparator)
        if colons:
            self._pending.insert(0, rest.strip())
        return line.strip(" ")

    def read_more(self, prompt):
        """A line that belongs to the command at hand: what waits comes before the user's."""
        if self._pending:
            return self._next_pending()
        return self.console.read_line(prompt)

    def _run_command(self, line):
        if not line:
            return False
        if line.startswith("!"):
            return self._commands.do_statement(self._complete_statement(line[1:].strip()))
        if line.startswith("?"):
            return self._commands.do_help(line[1:].strip())
        word = _word.match(line)
        method = self._commands.find(word.group()) if word else None
        if method is None or _statement.match(line):
            return self._commands.do_statement(self._complete_statement(line))
        if word.group() in ("list", "l"):
            self._last_line = "list"  # repeated, it goes on
        return method(line[word.end():].strip())

    def _complete_statement(self, text):
        """The text and, when it is the beginning of a statement, its further lines."""
        lines = [text]
        while self._is_incomplete(u"\n".join(lines)):
            try:
                lines.append(self.console.read_line(kMorePrompt))
            except EOFError:
                break
        return u"\n".join(compat.to_text(line) for line in lines)

    @staticmethod
    def _is_incomplete(text):
        try:
            with private.quiet():
                return _compile_command(text, "<debugger>", "single") is None
        except (SyntaxError, ValueError, OverflowError):
            return False  # wrong rather than incomplete: executing it tells how

    def _pause(self, frame):
        """Ctrl-C was typed while the program runs; in the context of a signal handler."""
        self.console.write(u"\n")
        if not self.server.pause_here(frame):
            self.server.pause()
            self.console.write(u"[stops at the next line; Ctrl-C again raises KeyboardInterrupt]\n")
            return interrupts.kPending
        wanted, self._raise_here = self._raise_here, False
        return interrupts.kRaise if wanted else interrupts.kStopped

    def interrupt(self):
        """Go on with KeyboardInterrupt raised where the program is."""
        if self.server.is_over(self.stop):
            raise commands.tUsage("the program is at its end")
        self._raise_here = self.stop.is_within_line
        if not self._raise_here:
            self.server.core.raise_exception(0, KeyboardInterrupt())
        self.server.continue_run()

    # --- ending ---

    def quit(self):
        """End the program; after an uncaught exception let it end as it would have."""
        if self.stop.reason == stops.kPostMortem:
            self.server.continue_run()
            return True
        if self.stop.reason == stops.kUncaught and self.stop.thread.is_main:
            self.server.continue_run()
            self.server.leave_alone()
            return True
        self._interrupts.remove()
        self.program.end(self.server.core, 0)

    def restart(self, arguments):
        try:
            self.program.restart(arguments, {
                "breakpoints": self.server.breakpoints.as_settings(),
                "exceptions": self.server.exceptions.as_settings(),
                "languages_off": [name for name, state in self.server.languages.ready().items()
                                  if state == "off"],
                "commands": self._commands.lists})
        except (OSError, ValueError) as why:
            raise commands.tUsage("cannot restart: {}".format(why))
