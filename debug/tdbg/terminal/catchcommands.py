"""The commands on exceptions: which types stop, which do not, and where none does."""
from __future__ import absolute_import, division, print_function

import re

from tdbg import compat, evaluate, exceptions
from tdbg.terminal.usage import tUsage

kNone, kHere, kEverything = "none", "here", "all"

_name = re.compile(r"[A-Za-z_]\w*(\.[A-Za-z_]\w*)*$")


class tCatchCommands(object):
    """Part of tCommands, beside tBreakCommands."""

    @property
    def _rules(self):
        return self._terminal.server.exceptions

    def do_catch(self, text):
        words = _words(text)
        if not words:
            return self._show_rules()
        if all(word in exceptions.kAll or word == kNone for word in words):
            self._rules.stop_on([word for word in words if word != kNone])
            return self._show_wanted()
        names = [self._type_name(word) for word in words]
        self._rules.set_types(
            set(self._rules.always).union(names), set(self._rules.never).difference(names))
        for name in names:
            self._display.line(u"{} stops wherever it is raised.".format(name))

    def ignore_exceptions(self, text):
        """`ignore` for what is no number."""
        place = self._place_of_exceptions(text)
        if place is not None:
            self._rules.ignore_place(*place)
            return self._display.line(u"No exception stops at {}.".format(_place_text(place)))
        names = [self._type_name(word) for word in _words(text)]
        self._rules.set_types(
            set(self._rules.always).difference(names), set(self._rules.never).union(names))
        for name in names:
            self._display.line(u"{} never stops.".format(name))

    def do_forget(self, text):
        if not text:
            raise tUsage("forget what? `catch` lists all rules; `forget all` drops them")
        if text == kEverything:
            self._rules.set_types()
            self._rules.clear_places()
            self._rules.stop_on(exceptions.kDefault)
            return self._show_rules()
        place = self._place_of_exceptions(text)
        if place is not None:
            return self._forget_place(place)
        known = set(self._rules.always).union(self._rules.never)
        names = [word if word in known else self._type_name(word) for word in _words(text)]
        for name in names:
            if name not in known:
                raise tUsage("there is no rule on {}".format(name))
        self._rules.set_types(
            set(self._rules.always).difference(names), set(self._rules.never).difference(names))
        for name in names:
            self._display.line(u"No rule on {} any more.".format(name))

    def _forget_place(self, place):
        try:
            self._rules.heed_place(*place)
        except ValueError:
            raise tUsage("exceptions are not ignored at {}".format(_place_text(place)))
        self._display.line(u"Exceptions stop at {} again.".format(_place_text(place)))

    def _place_of_exceptions(self, text):
        """(path, line) of `here` or FILE:LINE; None for anything else."""
        if text == kHere:
            stop = self._terminal.stop
            if stop.exc_info is None:
                raise tUsage("no exception has been raised here")
            return self._terminal.server.place_of_exception(stop)
        if ":" not in text:
            return None
        return self._find_place(text)[:2]

    def _type_name(self, word):
        """The full name of a type that the user names; as it is where there is none yet."""
        if not _name.match(word):
            raise tUsage("{} is no name of an exception".format(word))
        result = evaluate.evaluate_limited(word, self._terminal.frame)
        if not result.ok:
            return compat.to_native(word)
        kind = result.value
        if not exceptions.is_exception_type(kind):
            raise tUsage("{} is no exception".format(word))
        return exceptions.full_name_of(kind)

    def _show_rules(self):
        self._show_wanted()
        for title, names in ((u"Always", self._rules.always), (u"Never", self._rules.never)):
            if names:
                self._display.line(u"{}: {}".format(title, u", ".join(names)))
        for place in self._rules.ignored_places():
            self._display.line(u"Not at {}".format(_place_text(place)))

    def _show_wanted(self):
        self._display.line(u"Exceptions that stop: {}".format(
            u", ".join(self._rules.wanted) or kNone))


def _words(text):
    return text.replace(",", " ").split()


def _place_text(place):
    return u"{}:{}".format(compat.to_text(place[0]), place[1])
