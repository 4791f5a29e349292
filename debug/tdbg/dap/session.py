"""A debugging session: one client of the protocol, and what it is told of the program.

The front end (frontend.py) makes one for each client; how its messages are read and answered is in
exchange.py.

For handler modules, a session has:

server         the dbgserver.tServer;  .core is its native module
config         config.tConfig, from `launch` or `attach` on (before: None)
client         arguments of `initialize`
frames         numbers of frames:  id_of(thread_id, frame, line) -> int;
               get(frame_id) -> numbers.tFrameRef
handles        numbers of anything else that lives as long as a stop: new(object) -> int from 1 on;
               get(int) -> object.  Both raise tRequestError for numbers of the past
thread_ids     numbers of threads: id_of(ident), ident_of(thread_id)
executor       see executor.py
stop_of(thread_id)          the stops.tStop that a thread is in, or None
current_stop                the tStop that is served, or None (also None when merely paused)
send_event(name, body)      on any thread; never raises
send_request(command, arguments, on_response)    a reverse request; on_response(success, body)
output(category, text, **more)                   an `output` event; never raises
run_in_core(function)       function() where the core may be called and the breakpoints changed: on
                            the stopped thread if there is one, else with the debug-server mutex
                            held; its result, or its exception
then(function)              function() once the response to the request at hand has been sent
return_values               [(frame's function name, value)] that functions have returned during the
                            last step; empty unless config.show_return_value

To be told (each takes a callable, in attach(session)):

on_stop(f)       f(session, stop): a `stopped` event is about to be sent; may return a dict that is
                 merged into its body (hitBreakpointIds, text, description)
filter_stops(f)  f(session, stop) -> true to pass: the thread is not to stop after all.  It runs on
                 the thread, which goes on as it did: stepping is not disturbed.  It may take
                 entries out of stop.hits; a stop for breakpoints alone passes when none is left
on_resume(f)     f(session): numbers have become invalid, the program runs
on_import(f)     f(session, module): on the importing thread
on_cancel(f)     f(session, arguments): the client does not want the answer any more to a request
                 without a limit of time that is being served; any thread
on_configured(f) f(session): launch or attach has come, session.config is there
on_end(f)        f(session): the client goes; undo what it asked for (breakpoints are removed by
                 their module).  Runs where the core may be called
"""
from __future__ import absolute_import, division, print_function

import fnmatch
import os
import sys

from tdbg import atend, compat, signals, stops
from tdbg.dap import exchange, numbers, requests

_getpid = os.getpid
_kill = os.kill
_fits = fnmatch.fnmatchcase

kKeptReturnValues = 20
kDetachSeconds = 5.0
kReasons = {
    stops.kEntry: "entry", stops.kStep: "step", stops.kReturn: "step", stops.kPause: "pause",
    stops.kBreakpoint: "breakpoint"}


class tSession(exchange.tExchange):
    """See above.  is_configured: configurationDone has come; held: ident of the thread for which
    the program is held without having stopped, or None."""

    def __init__(self, front_end, connection):
        exchange.tExchange.__init__(self, connection, front_end.executor)
        self.front_end, self.server = front_end, front_end.server
        self.holder, self.thread_ids = front_end.holder, front_end.thread_ids
        self.frames, self.handles = numbers.tFrames(), numbers.tHandles()
        self.config = None
        self.current_stop = None
        self.held = None
        self.is_configured = self.is_ending = False
        self.configuration_done = False
        self.has_entered = front_end.is_live
        self.return_values = []
        self.stacks = {}           # of threads that are not stopped, until the program runs
        self.told_initialized = False
        self.stop_hooks, self.stop_filters, self.resume_hooks = [], [], []
        self.import_hooks, self.configured_hooks, self.end_hooks = [], [], []
        self.over = signals.tDone()
        modules = requests.load_modules()
        self._table = requests.table_of(modules)
        for module in modules:
            if hasattr(module, "attach"):
                module.attach(self)

    @property
    def core(self):
        return self.server.core

    # --- for handler modules ---

    def on_stop(self, function):
        self.stop_hooks.append(function)

    def filter_stops(self, function):
        self.stop_filters.append(function)

    def on_resume(self, function):
        self.resume_hooks.append(function)

    def on_import(self, function):
        self.import_hooks.append(function)

    def on_configured(self, function):
        self.configured_hooks.append(function)

    def on_end(self, function):
        self.end_hooks.append(function)

    def stop_of(self, thread_id):
        stop = self.current_stop
        if stop is not None and self.thread_ids.id_of(stop.thread.ident) == thread_id:
            return stop
        return None

    def run_in_core(self, function):
        if not self.front_end.is_live or self.executor.is_on_duty():
            return function()
        return self.executor.run(function, needs_stop=False)

    # --- what the client is told ---

    def tell_entered(self):
        """The program waits at its first line."""
        self.has_entered = True
        self.tell_initialized()
        self.begin_when_configured()

    def tell_initialized(self):
        """Once the client has said what it wants, and breakpoints can be set."""
        with self._lock:
            if self.config is None or not self.has_entered or self.told_initialized:
                return
            self.told_initialized = True
        self.send_event("initialized")

    def begin_when_configured(self):
        """Answer launch or attach, and let the program go, as soon as all is said."""
        with self._lock:
            ready = (
                self.configuration_done and self.config is not None and self.has_entered
                and self.started_by is not None)
            message, self.started_by = self.started_by, None if ready else self.started_by
        if not ready:
            return
        self.run_in_core(self._apply_configuration)
        self.is_configured = True
        self.respond(message)
        self.send_event("process", {
            "name": compat.to_text(str(self._program_name())), "systemProcessId": _getpid(),
            "isLocalProcess": True, "startMethod": self.config.kind,
            "pointerSize": 64 if sys.maxsize > 2 ** 32 else 32})
        self.front_end.tell_configured()
        stop = self.front_end.entry_stop
        if stop is not None:
            self._begin_at(stop)

    def _apply_configuration(self):
        self.core.set_debug_all_threads(int(self.config.stop_all_threads))
        self.server.ask_policies()

    def _program_name(self):
        main = sys.modules.get("__main__")
        name = getattr(main, "__file__", None)
        return name if isinstance(name, compat.string_types) and name else sys.executable

    def _begin_at(self, stop):
        if self.config.no_debug:
            return self.executor.finish(self.front_end.leave_alone)
        stop.hits = self._hits_at_entry(stop)
        if stop.hits:
            stop.reason = stops.kBreakpoint
        if stop.hits or self.config.stop_on_entry:
            self.current_stop = stop
            self.tell_stop(stop)
        else:
            self.executor.finish(self.server.continue_run)

    def _hits_at_entry(self, stop):
        """Of breakpoints that were set at the line where the program waits."""
        def look():
            return self.server.breakpoints.judge(stop.frame, uncounted=True)[0]
        try:
            return self.run_in_core(look)
        except Exception:
            self.tell_failure("entry")
            return []

    def passes(self, stop):
        """Whether a stop is none for this client; on the thread."""
        had_hits = bool(stop.hits)
        if any(self.call_all(self.stop_filters, stop)):
            return True
        return had_hits and not stop.hits and stop.reason == stops.kBreakpoint

    def tell_stop(self, stop):
        self.holder.forget_wish()
        body = {
            "reason": kReasons.get(stop.reason, "exception"),
            "threadId": self.thread_ids.id_of(stop.thread.ident), "allThreadsStopped": True}
        for more in self.call_all(self.stop_hooks, stop):
            if isinstance(more, dict):
                body.update(more)
        self.send_event("stopped", body)

    def tell_hold(self, ident):
        self.holder.forget_wish()
        self.send_event("stopped", {
            "reason": "pause", "threadId": self.thread_ids.id_of(ident), "allThreadsStopped": True})

    def tell_thread(self, reason, thread_id):
        if self.client is not None and self.told_initialized:
            self.send_event("thread", {"reason": reason, "threadId": thread_id})

    def policy_of(self, ident):
        """Whether the thread is debugged, by the configuration's rules."""
        config = self.config
        if config is None or ident == self.server.main_ident:
            return 1
        policy = config.threads_default
        if config.threads_rules:
            name = compat.to_native(self.front_end.name_of_thread(ident))
            for pattern, wanted in config.threads_rules:
                if _fits(name, pattern):
                    policy = wanted
                    break
        return 0 if policy == "ignore" else 1

    # --- going on ---

    @property
    def is_stopped(self):
        return self.current_stop is not None or self.held is not None

    def note_return(self, frame, value):
        if self.config is not None and self.config.show_return_value:
            self.return_values.append((compat.to_text(frame.f_code.co_name), value))
            del self.return_values[:-kKeptReturnValues]

    def forget_stop(self):
        """What the client knows of the stop is no longer true."""
        self.frames.clear()
        self.handles.clear()
        self.stacks = {}
        self.call_all(self.resume_hooks)

    def go_on(self, ident=None, stepper=None):
        """Let the program run; stepper: for the step that the thread makes.  After the response."""
        stop, held = self.current_stop, self.held
        self.forget_stop()
        self.return_values = []

        def first():  # for threads that the one which serves is not
            if stepper is not None and (stop is None or stop.thread.ident != ident):
                self.holder.plan_step(ident, stepper)
            if stop is None and (stepper is None or held != ident):
                self.holder.send_on(held)

        def command():
            if stop is None:
                return
            if stepper is not None and stop.thread.ident == ident:
                stepper.start(stop)
            else:
                self.server.continue_run()
        # From now on the program counts as running, though the thread is still to hear of it.
        self.current_stop = self.held = None
        self.executor.finish(command, first)

    # --- the end ---

    def _client_is_gone(self):
        if self.is_over:
            return
        self.end(terminate=self.front_end.is_launched)

    def end(self, terminate, close=True):
        """The client goes.  On the reader's thread."""
        if self.is_over:
            return
        self.is_ending = True
        try:
            if terminate:
                self._end_program()
            else:
                self._detach()
        except Exception:
            self.tell_failure("end")
        finally:
            self.is_over = True
            if self.front_end.session is self:
                self.front_end.session = None
            self._arrived.set()
            self._connection.close()
            self.over.set()

    def _detach(self):
        """Leave the program alone, stopped or not."""
        if not self.front_end.is_live:
            return

        def undo():
            self.call_all(self.end_hooks)
            self.front_end.leave_alone()
        self.holder.call_off()
        held = self.held
        self.forget_stop()
        done = signals.tDone()

        def leave():
            try:
                if held is not None:
                    self.holder.send_on(held)
                undo()
            finally:
                done.set()
        if self.executor.finish(lambda: None, leave):
            # Who attaches next must not be undone.
            done.wait(kDetachSeconds)
        else:
            self.run_in_core(undo)

    def _end_program(self):
        atend.remove_files()
        _kill(_getpid(), compat.signal.SIGTERM)
        if self.executor.is_serving:
            self.executor.finish(self.front_end.leave_alone)
        seconds = 5.0 if self.config is None else self.config.kill_timeout
        signals.tSignal().wait(seconds)
        _kill(_getpid(), compat.signal.SIGKILL)
