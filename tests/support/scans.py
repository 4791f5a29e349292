"""What handlers.scan() says at a raise, and what becomes of the exception then."""
from __future__ import absolute_import, division, print_function

import sys
import textwrap

from tdbg import handlers
from tdbg.handlers import kUncaught

from .case import TestCase

kProbe = """\
import sys
class Base(Exception): pass
class Derived(Base): pass
class Swallow(object):
    def __enter__(self): return self
    def __exit__(self, *info): return True
class Keep(Swallow):
    def __exit__(self, *info): return None
"""


class Probe(object):
    """Runs source that calls boom(kind): that asks for the verdict, then raises."""

    def __init__(self, source, reports=None, raise_at=1):
        self.verdicts, self.raised = [], []
        self.reports, self.raise_at = reports, raise_at
        self.calls = 0
        self.names = {"boom": self.boom, "group": self.group, "__name__": "probed"}
        exec(compile(kProbe + textwrap.dedent(source), "<probed>", "exec"), self.names)

    def boom(self, kind=ValueError, value=None):
        self.calls += 1
        if self.calls < self.raise_at:
            return
        value = kind("boom") if value is None else value
        if not self.raised:
            verdict = handlers.scan(
                sys._getframe(), value.__class__, value, self.reports, self.outermost)
            self.verdicts.append(verdict.answer)
            self.raised.append(value)
            raise value

    def group(self, *kinds):
        compound = getattr(handlers.compat.builtins, "ExceptionGroup")
        self.boom(value=compound("several", [kind("part") for kind in kinds]))

    def enter(self):
        self.outermost = sys._getframe()
        case = self.names["case"]
        case()

    def run(self):
        """The verdict, and whether the exception came out."""
        try:
            self.enter()
        except BaseException as error:
            if not self.raised:
                raise
            escaped = error is self.raised[0]
        else:
            escaped = False
        return self.verdicts[0], escaped


class ScanCase(TestCase):
    def check(self, expected, source, escapes=None, **options):
        """The verdict is `expected`; what the program does agrees with it."""
        verdict, escaped = Probe(source, **options).run()
        self.assertEqual(verdict, expected)
        if escapes is None:
            escapes = expected == kUncaught
        self.assertEqual(escaped, escapes)
