"""The commands of the prompt: one table, and a method for each.

A method gets the text after the command's name; a true result ends the stop.
"""
from __future__ import absolute_import, division, print_function

import collections
import inspect
import pprint
import shlex

from tdbg import compat, evaluate, private, stops
from tdbg.terminal import breakcommands, catchcommands, display
from tdbg.terminal.usage import number, tUsage

# names: the first is the one in full, the others are short for it.
tCommand = collections.namedtuple("tCommand", "names arguments help method")

_get_source_lines = inspect.getsourcelines
_get_block = inspect.getblock
_pformat = pprint.pformat
_split_words = shlex.split

kTable = [
    tCommand(("step", "s"), "", "Run to the next line, into functions that are called.", "do_step"),
    tCommand(("next", "n"), "", "Run to the next line of this function, or to its end.", "do_next"),
    tCommand(("until", "unt"), "[LINE]", "Run to a line greater than this one (or than or equal to "
             "LINE) in this function, or to its end.", "do_until"),
    tCommand(("return", "r"), "", "Run to the end of this function and show what it returns.",
             "do_return"),
    tCommand(("continue", "cont", "c"), "", "Run on.", "do_continue"),
    tCommand(("interrupt",), "", "Run on, with KeyboardInterrupt raised where the program is.",
             "do_interrupt"),
    tCommand(("break", "b"), "[[FILE:]LINE | [FILE:]FUNCTION[, CONDITION]]", "Stop there; without "
             "arguments, show all breakpoints.", "do_break"),
    tCommand(("tbreak",), "[FILE:]LINE | [FILE:]FUNCTION[, CONDITION]", "Stop there once.",
             "do_tbreak"),
    tCommand(("condition",), "NUMBER [CONDITION]", "Stop at the breakpoint only when the "
             "condition holds.", "do_condition"),
    tCommand(("ignore",), "NUMBER [COUNT] | EXCEPTION... | FILE:LINE | here", "Do not stop at the "
             "breakpoint that many times; never stop on exceptions of these types, or on any that "
             "is raised at that line (`here`: where this one was).", "do_ignore"),
    tCommand(("catch",), "[raised | uncaught | runner | none]... | EXCEPTION...", "Stop on all "
             "exceptions; on those that nothing will catch; on those that a test runner, server or "
             "thread will only print; on none. Or stop wherever one of these types is raised. "
             "Without arguments, show what stops.", "do_catch"),
    tCommand(("forget",), "EXCEPTION... | FILE:LINE | here | all", "Drop what `catch` and `ignore` "
             "have said of these types or places.", "do_forget"),
    tCommand(("enable",), "NUMBER...", "Stop at these breakpoints again.", "do_enable"),
    tCommand(("disable",), "NUMBER...", "Do not stop at these breakpoints.", "do_disable"),
    tCommand(("clear", "cl"), "[NUMBER... | FILE:LINE]", "Delete these breakpoints, or all.",
             "do_clear"),
    tCommand(("commands",), "[NUMBER]", "Give commands, one in a line, to be run when the "
             "breakpoint (default: the last one set) stops; `end` ends them, and so does one that "
             "runs the program; `silent` among them: do not show the stop.", "do_commands"),
    tCommand(("list", "l"), "[. | FIRST[, LAST]]", "Show eleven lines: those around the current "
             "one, then the following ones; `.` begins again; LAST less than FIRST is a count.",
             "do_list"),
    tCommand(("longlist", "ll"), "", "Show the whole function.", "do_longlist"),
    tCommand(("where", "bt", "w"), "", "Show the stack, the innermost frame last.", "do_where"),
    tCommand(("up", "u"), "[COUNT]", "Select a frame further out.", "do_up"),
    tCommand(("down", "d"), "[COUNT]", "Select a frame further in.", "do_down"),
    tCommand(("args", "a"), "", "Show the function's arguments.", "do_args"),
    tCommand(("locals",), "", "Show all local variables.", "do_locals"),
    tCommand(("p",), "EXPRESSION", "Show the value.", "do_print"),
    tCommand(("pp",), "EXPRESSION", "Show the value in lines.", "do_pretty_print"),
    tCommand(("languages",), "[NAME on | off]", "Whether templates of a library (jinja2) are "
             "debugged as source; `off` before it is imported. Without arguments, show which are.",
             "do_languages"),
    tCommand(("whatis",), "EXPRESSION", "Show the type of the value.", "do_whatis"),
    tCommand(("source",), "EXPRESSION", "Show the source of a function, class or module.",
             "do_source"),
    tCommand(("retval", "rv"), "", "Show what the function returns (after `return`).", "do_retval"),
    tCommand(("!",), "STATEMENT", "Execute in the selected frame; also for anything that is no "
             "command.", "do_statement"),
    tCommand(("help", "h"), "[COMMAND]", "Show all commands, or more of one.", "do_help"),
    tCommand(("restart", "run"), "[ARGUMENTS]", "Start the program from scratch.", "do_restart"),
    tCommand(("quit", "exit", "q"), "", "End the program (exit status 0); its exit functions run.",
             "do_quit"),
]


class tCommands(breakcommands.tBreakCommands, catchcommands.tCatchCommands):
    """terminal: the tTerminal that the commands work for."""

    def __init__(self, terminal):
        breakcommands.tBreakCommands.__init__(self, terminal)
        self._by_name = {}
        for command in kTable:
            for name in command.names:
                self._by_name[name] = getattr(self, command.method)
        self._listed = None  # (frame, last line shown by list)

    def names(self):
        return [name for name in self._by_name if name != "!"]

    def find(self, name):
        """Method of a command, or None."""
        return self._by_name.get(name)

    def begin_stop(self):
        self._listed = None

    def end_stop(self):
        self._listed = None

    # --- running ---

    def do_step(self, text):
        self._terminal.server.step_into()
        return True

    def do_next(self, text):
        self._terminal.server.step_over(self._terminal.frame)
        return True

    def do_until(self, text):
        frame, line = self._terminal.entry
        if text:
            wanted = self._number(text)
            if wanted <= line:
                raise tUsage("`until` goes forward: line {} is not after {}".format(wanted, line))
            line = wanted - 1
        self._terminal.server.run_to_line(line + 1, frame)
        return True

    def do_return(self, text):
        self._terminal.server.step_out(self._terminal.frame)
        return True

    def do_continue(self, text):
        self._terminal.server.continue_run()
        return True

    def do_interrupt(self, text):
        self._terminal.interrupt()
        return True

    def do_restart(self, text):
        arguments = None
        if text:
            arguments = [compat.to_native(word) for word in _split_words(compat.to_native(text))]
        self._terminal.restart(arguments)

    def do_quit(self, text):
        self._terminal.quit()
        return True

    # --- source ---

    def do_list(self, text):
        frame, line = self._terminal.entry
        first, last = self._range_to_list(text, frame, line)
        raised = self._terminal.raised_line(frame)
        if not self._display.source_of(frame):
            raise tUsage("no source for {}".format(self._display.file_of(frame)))
        shown = self._display.show_lines(frame, first, last, line, raised)
        if shown < last - first + 1:
            self._display.line(u"[EOF]")
        self._listed = (frame, first + shown - 1 if shown else last)

    def _range_to_list(self, text, frame, line):
        if text and text != ".":
            words = [word.strip() for word in text.split(",")]
            first = self._number(words[0])
            if len(words) == 1:
                return max(first - display.kAround, 1), first + display.kAround
            last = self._number(words[1])
            return first, first + last if last < first else last
        if not text and self._listed is not None and self._listed[0] is frame:
            first = self._listed[1] + 1
            return first, first + 2 * display.kAround
        first = max(line - display.kAround, 1)
        return first, first + 2 * display.kAround

    def do_longlist(self, text):
        frame, line = self._terminal.entry
        lines = self._display.source_of(frame)
        if not lines:
            raise tUsage("no source for {}".format(self._display.file_of(frame)))
        first, last = 1, len(lines)
        if display.is_function(frame.f_code):
            first = frame.f_code.co_firstlineno
            last = first + len(_get_block(lines[first - 1:])) - 1
        self._display.show_lines(frame, first, last, line, self._terminal.raised_line(frame))

    def do_source(self, text):
        value = self._value(text, "source")
        try:
            with private.borrowed():
                lines, first = _get_source_lines(value)
        except Exception as why:
            raise tUsage(str(why))
        for number, line in enumerate(lines, max(first, 1)):
            text = compat.to_text(line).rstrip()
            self._display.line(u"{:>3}  \t{}".format(number, text).rstrip())

    # --- stack ---

    def do_where(self, text):
        self._display.show_stack(self._terminal.stack, self._terminal.index)

    def do_up(self, text):
        self._move(-self._count(text), "Oldest frame")

    def do_down(self, text):
        self._move(self._count(text), "Newest frame")

    def _move(self, distance, refusal):
        last = len(self._terminal.stack) - 1
        index = self._terminal.index
        if (distance < 0 and index == 0) or (distance > 0 and index == last):
            raise tUsage(refusal)
        self._terminal.select(min(max(index + distance, 0), last))

    # --- values ---

    def do_args(self, text):
        self._display.show_named_values(evaluate.arguments_of(self._terminal.frame))

    def do_locals(self, text):
        names = self._terminal.frame.f_locals
        self._display.show_named_values((name, names[name]) for name in sorted(names))

    def do_print(self, text):
        self._display.line(evaluate.full_text(self._value(text, "p")))

    def do_pretty_print(self, text):
        self._display.line(evaluate.pretty_text(self._value(text, "pp"), _pformat))

    def do_whatis(self, text):
        self._display.line(self._display.kind_of(self._value(text, "whatis")))

    def do_retval(self, text):
        stop = self._terminal.stop
        if stop.reason != stops.kReturn:
            raise tUsage("not at the end of a function")
        self._display.line(evaluate.full_text(stop.value))

    def do_statement(self, text):
        if not text:
            return
        result = evaluate.execute(text, self._terminal.frame, self._terminal.server.core)
        if not result.ok:
            raise tUsage(result.error)
        if result.is_expression and result.value is not None:
            self._display.line(evaluate.full_text(result.value))

    def _value(self, text, name):
        if not text:
            raise tUsage("{} needs an expression".format(name))
        result = evaluate.evaluate(text, self._terminal.frame)
        if not result.ok:
            raise tUsage(result.error)
        return result.value

    def do_languages(self, text):
        languages, words = self._terminal.server.languages, text.split()
        if not words:
            for name, state in sorted(languages.ready().items()):
                self._display.line(u"{}: {}".format(name, state))
            return
        if len(words) != 2 or words[1] not in ("on", "off"):
            raise tUsage("languages needs a name and `on` or `off`")
        try:
            languages.set_ready(words[0], words[1] == "on")
        except KeyError:
            raise tUsage("no language {}".format(words[0]))
        except ValueError as why:
            raise tUsage(str(why))

    # --- help ---

    def do_help(self, text):
        if not text:
            for command in kTable:
                self._show_help(command)
            self._display.line(u"An empty line repeats the last command; `;;` separates commands; "
                               u"Ctrl-C stops the running program.")
            return
        for command in kTable:
            if text in command.names:
                return self._show_help(command)
        raise tUsage("no command {}".format(text))

    def _show_help(self, command):
        names = u", ".join(command.names)
        head = (names + u" " + command.arguments).strip()
        if len(head) > 26:
            self._display.line(head)
            head = u""
        self._display.line(u"{:<27}{}".format(head, command.help))

    @staticmethod
    def _number(text):
        return number(text, "line number")

    @staticmethod
    def _count(text):
        count = number(text or 1, "count")
        return count if count > 0 else 10 ** 6
