"""The messages of one client: requests read and answered, events and reverse requests sent.

tExchange knows what a request is and on which thread it is served, not what it is about.  Requests
that are kAnytime are answered on the thread that reads them, in their order; those that are
kStopped wait in a queue, from which a second thread hands them to the stopped one (executor.py).
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import compat, evaluate, signals, threads
from tdbg.dap import executor as executors
from tdbg.dap import requests, wire
from tdbg.dap.requests import kStopped, tRequestError

_get_ident = compat.get_ident

kUninitialized = ("initialize", "disconnect")
kLater = object()  # a handler's answer: the response is sent elsewhere


class tExchange(object):
    """What a session does with messages; tSession adds what it knows of the program.

    client       arguments of `initialize`; None before
    is_over      nothing is read or sent any more
    started_by   the request launch or attach, until it is answered
    """

    def __init__(self, connection, executor):
        self.executor = executor
        self.client = None
        self.is_over = False
        self.started_by = None
        self.cancel_hooks = []
        self._connection = connection
        self._pending = {}         # number of a reverse request -> on_response
        self._after = {}           # ident -> functions for after the response
        self._waiting = []         # requests for the stopped thread
        self._unlimited = []       # those of them that are being served, for as long as they take
        self._arrived = signals.tSignal()
        self._lock = compat.allocate_lock()
        self._request = None       # the one that the reader's thread is at
        self._table = {}           # command -> tRequest

    def start(self):
        start = threads.start_own_thread
        if not (start(self._read_all) and start(self._run_waiting)):
            raise RuntimeError("no thread can be started")

    def _client_is_gone(self):
        """The connection has ended.  On the reader's thread."""
        raise NotImplementedError

    # --- for handler modules ---

    def on_cancel(self, function):
        self.cancel_hooks.append(function)

    def then(self, function):
        self._after.setdefault(_get_ident(), []).append(function)

    def answer_later(self):
        """launch and attach are answered when everything has been said."""
        self.started_by = self._request
        return kLater

    # --- sending ---

    def send_event(self, name, body=None):
        message = {"type": "event", "event": name}
        if body is not None:
            message["body"] = body
        self._send(message)

    def send_request(self, command, arguments, on_response=None):
        number = self._connection.next_seq()
        self._pending[number] = on_response
        self._send({"type": "request", "seq": number, "command": command, "arguments": arguments})

    def output(self, category, text, **more):
        self.send_event("output", dict(more, category=category, output=compat.to_text(text)))

    def _send(self, message):
        if self.is_over:
            return
        try:
            self._connection.write(message)
        except Exception:  # the client has gone, or a message cannot be said: the program goes on
            pass

    def call_all(self, functions, *arguments):
        """Call hooks; the results that are not None.  One that fails does not disturb others."""
        results = []
        for function in functions:
            try:
                result = function(self, *arguments)
                if result is not None:
                    results.append(result)
            except Exception:
                self.tell_failure(getattr(function, "__name__", "hook"))
        return results

    def tell_failure(self, where):
        self.output("console", u"tdbg: internal error: {}: {}\n".format(where, describe_failure()))

    # --- reading ---

    def _read_all(self):
        try:
            self._read_on()
        except wire.tBadHeader:
            pass
        except Exception:
            self.tell_failure("reading")
        # Not in a `finally`: when the process ends under this thread, nobody has gone.
        self._client_is_gone()

    def _read_on(self):
        while not self.is_over:
            try:
                message = self._connection.read()
            except wire.tBadMessage as why:
                self._refuse({}, "not a message of the protocol: {}".format(why))
                continue
            if message is None:
                break
            self._take(message)

    def _take(self, message):
        kind = message.get("type")
        if kind == "response":
            self._take_response(message)
        elif kind != "request":
            self._refuse(message, "not a request")
        elif not isinstance(message.get("command"), compat.string_types):
            self._refuse(message, "a request without a command")
        else:
            self._take_request(message)

    def _take_response(self, message):
        on_response = self._pending.pop(_hashable(message.get("request_seq")), None)
        if on_response is not None:
            try:
                on_response(bool(message.get("success")), message.get("body"))
            except Exception:
                self.tell_failure("response")

    def _take_request(self, message):
        command = message["command"]
        request = self._table.get(command)
        arguments = message.get("arguments")
        if request is None:
            name = compat.to_text(command)[:100]
            return self._refuse(message, u"unknown request {}".format(name))
        if arguments is None:
            arguments = {}
        if not isinstance(arguments, dict):
            return self._refuse(message, "the arguments must be an object")
        if self.client is None and command not in kUninitialized:
            return self._refuse(message, "the first request must be `initialize`")
        if request.where == kStopped:
            with self._lock:
                self._waiting.append((message, request, arguments))
            self._arrived.set()
        else:
            self._request = message
            self._answer(message, lambda: request.handler(self, arguments))

    def _answer(self, message, job):
        """Run a job and send what comes of it."""
        ident = _get_ident()
        self._after.pop(ident, None)
        try:
            body = job()
        except BaseException:
            self._after.pop(ident, None)
            self._refuse_with_exception(message)
        else:
            if body is not kLater:
                self.respond(message, body)
        for function in self._after.pop(ident, ()):
            try:
                function()
            except Exception:
                self.tell_failure("after " + compat.to_native(message["command"]))

    def respond(self, message, body=None):
        self._send(wire.answer(message, body))

    def _refuse_with_exception(self, message):
        kind, why = sys.exc_info()[:2]
        if kind is executors.tNotStopped:
            return self._refuse(message, "the program is not stopped")
        if kind is executors.tTooSlow:
            return self._refuse(message, "this takes too long; it is still being tried")
        if isinstance(why, tRequestError):
            return self._refuse(message, why.text, why.show_user)
        self._refuse(message, describe_failure())

    def _refuse(self, message, text, show_user=False):
        text = compat.to_text(text)
        self._send(wire.refusal(message, text, show_user))

    # --- requests for the stopped thread, one after the other ---

    def _run_waiting(self):
        while not self.is_over:
            self._arrived.wait()
            while True:
                with self._lock:
                    row = self._waiting.pop(0) if self._waiting else None
                if row is None:
                    break
                try:
                    self._run_one(*row)
                except Exception:
                    self.tell_failure("request")
                row = None

    def _run_one(self, message, request, arguments):
        if not self.executor.is_serving:
            return self._refuse(message, "the program is not stopped")
        try:
            limit = request.limit(arguments)
        except Exception:
            limit = requests.kSeconds
        if limit is None:
            row = (message, request, arguments)
            with self._lock:
                self._unlimited.append(row)

            def on_done(task):
                with self._lock:
                    self._unlimited.remove(row)
                self._answer(message, task.result)
            task = self.executor.submit(lambda: request.handler(self, arguments), on_done)
            if not task.done.wait(executors.kPatience):
                self.executor.give_up(task)
        else:
            self._answer(message, lambda: self._run_limited(request, arguments, limit))

    def _run_limited(self, request, arguments, limit):
        afters = []

        def job():
            ident = _get_ident()
            self._after.pop(ident, None)
            try:
                return request.handler(self, arguments)
            finally:
                afters.extend(self._after.pop(ident, ()))
        try:
            body = self.executor.run(job, limit)
        except executors.tTooSlow:
            if getattr(request, "on_slow", None) is None:
                raise
            body = request.on_slow(self, arguments)
        for function in afters:
            self.then(function)
        return body

    def cancel(self, number):
        """Drop a request that has not begun; interrupt one without a limit that has."""
        with self._lock:
            rows = [row for row in self._waiting if row[0].get("seq") == number]
            self._waiting = [row for row in self._waiting if row[0].get("seq") != number]
            running = [row[2] for row in self._unlimited if row[0].get("seq") == number]
        for row in rows:
            self._refuse(row[0], "cancelled")
        for arguments in running:
            self.call_all(self.cancel_hooks, arguments)


def _hashable(value):
    return value if isinstance(value, (int, float)) else None


def describe_failure():
    """Type, text and place of the exception being handled."""
    kind, value, tb = sys.exc_info()
    try:
        text = compat.to_text(evaluate.describe_exception(kind, value))
        while tb is not None and tb.tb_next is not None:
            tb = tb.tb_next
        if tb is not None:
            text += u" ({}:{})".format(
                compat.to_text(os.path.basename(tb.tb_frame.f_code.co_filename)), tb.tb_lineno)
        return text
    finally:
        tb = None
