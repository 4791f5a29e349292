"""A session with a client of the protocol that is stopped in a frame, for tests of its values."""
from __future__ import absolute_import, division, print_function

import os
import time

from . import TestCase
from .dapclient import debug_directly

kAnswered = 1.0   # seconds within which every value is answered
kSlack = 4.0      # of a loaded machine


class DapFrameTest(TestCase):
    def start(self, text, mark, initialize=None, arguments=None, **options):
        self.path = self.make_file("main.py", text, os.path.realpath(self.make_dir()))
        self.client = client = debug_directly(self, self.path, **options)
        client.start_session(arguments or {}, breakpoints={self.path: [mark]},
                             initialize=initialize)
        return self.stop_here()

    def stop_here(self, reason="breakpoint"):
        self.thread = self.client.wait_stopped(reason)["threadId"]
        self.frame = self.client.stack(self.thread)[0]["id"]
        return self.client

    def scopes(self, frame=None):
        rows = self.client.request("scopes", {"frameId": frame or self.frame})["scopes"]
        return dict((row["name"], row) for row in rows)

    def rows(self, reference, **more):
        return self.client.request("variables",
                                   dict(more, variablesReference=reference))["variables"]

    def scope(self, name="Locals", frame=None):
        rows = self.rows(self.scopes(frame)[name]["variablesReference"])
        return dict((row["name"], row) for row in rows)

    def opened(self, row, **more):
        rows = self.rows(row["variablesReference"], **more)
        return dict((row["name"], row) for row in rows)

    def evaluate(self, expression, context="repl", **more):
        arguments = dict(more, expression=expression, context=context)
        arguments.setdefault("frameId", self.frame)
        return self.client.request("evaluate", arguments)

    def result(self, expression, context="repl", **more):
        return self.evaluate(expression, context, **more)["result"]

    def refused(self, expression, context="watch", **more):
        arguments = dict(more, expression=expression, context=context)
        arguments.setdefault("frameId", self.frame)
        return self.client.refused("evaluate", arguments)

    def labels(self, text, column=None, **more):
        arguments = dict(more, text=text, column=len(text) + 1 if column is None else column)
        arguments.setdefault("frameId", self.frame)
        return [row["label"] for row in self.client.request("completions", arguments)["targets"]]

    def quick(self, function, *args, **more):
        """What each request must keep to."""
        begin = time.time()
        try:
            return function(*args, **more)
        finally:
            self.assertLess(time.time() - begin, kAnswered + kSlack)
