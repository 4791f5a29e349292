"""One breakpoint: what it is, at which hits it stops, and why it cannot be."""
from __future__ import absolute_import, division, print_function

import re

from tdbg import compat


class tRefused(Exception):
    """The breakpoint cannot be set or changed so; the text is one line for the user."""


class tHitCondition(object):
    """At which hits to stop: the text is N or ==N, >=N, >N, <=N, <N, %N."""

    kPattern = re.compile(r"\s*(==|>=|<=|>|<|%)?\s*([0-9]{1,18})\s*$")

    def __init__(self, text):
        found = self.kPattern.match(text)
        if found is None:
            raise tRefused("the hit condition is none of N, ==N, >=N, >N, <=N, <N, %N: {}".format(
                compat.to_native(text.strip())))
        self.text = text
        self._sign, self._number = found.group(1) or "==", int(found.group(2))
        if self._number == 0 and self._sign == "%" or self.next_after(0) is None:
            raise tRefused("no hit can be {}".format(compat.to_native(text.strip())))

    def next_after(self, count):
        """Number of the first hit to stop at after so many, from 1 on; None: there is none."""
        number, following = self._number, count + 1
        if self._sign == "%":
            return count - count % number + number
        if self._sign in (">=", ">"):
            return max(following, number + (self._sign == ">"))
        if self._sign == "==":
            return number if number >= following else None
        return following if following < number + (self._sign == "<=") else None

    def stops_at(self, count):
        return self.next_after(count - 1) == count


class tBreakpoint(object):
    """One breakpoint.  To be read; changed by the methods of tBreakpoints only.

    number     from 1 on, never used twice
    path       real path of the file; line: the one that stops
    function   name of the function whose calls it stops at, or None
    condition  text of an expression, or None
    hit_condition  tHitCondition, or None
    on_hit     function (breakpoint, frame) to call instead of stopping, or None
    checksum   of the contents, for files that are not where `path` says; or ""
    inside     {(name, first line)} of the only code objects to stop in; empty: any
    ignore     number of hits that will still not stop
    hits       how often its line was reached while it was enabled
    passes     how often, of these, its condition held
    """

    __slots__ = ("number", "path", "line", "function", "condition", "ignore", "hits",
                 "enabled", "temporary", "hit_condition", "on_hit", "checksum", "inside", "passes",
                 "core_id", "counted", "by_server", "code")

    def __init__(self, number, path, line):
        self.number, self.path, self.line = number, path, line
        self.function = self.condition = self.hit_condition = self.on_hit = None
        self.ignore = self.hits = self.passes = 0
        self.enabled, self.temporary = True, False
        self.checksum = ""
        self.inside = frozenset()
        self.core_id = None  # None: the core does not have it
        self.counted = 0     # hits of the core's record that are in `hits` already
        self.by_server = False  # judge() evaluates the condition
        self.code = None     # then: the condition's tExpression

    def as_settings(self):
        """What a new run needs, as plain values."""
        return {
            "number": self.number, "path": self.path, "line": self.line,
            "function": self.function, "condition": self.condition, "ignore": self.ignore,
            "enabled": self.enabled, "temporary": self.temporary}


class tHit(object):
    """A breakpoint that made a stop.  error: why its condition could not be told, or None."""

    __slots__ = ("breakpoint", "error")

    def __init__(self, breakpoint, error=None):
        self.breakpoint, self.error = breakpoint, error
