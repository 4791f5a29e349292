"""The debug server's front end for clients of the protocol: it lives as long as the process, and
serves one client after the other.  What the program's threads tell goes to the client's session.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import compat, currentframes, dbgserver, pausing, signals, stops, threads
from tdbg.dap import executor as executors
from tdbg.dap import numbers
from tdbg.dap import session as sessions

_getpid = os.getpid
_current_frames = currentframes.current_frames

# Up to 3.9 a thread does not tell its end, and the core would know the next one of the same address
# as ignored: there, ignored ones are traced and only never stop.
kIgnoredStayTraced = (3, 6) <= sys.version_info[:2] < (3, 10)


class tDapFrontEnd(dbgserver.tFrontEnd):
    """settings: {"launched": bool: whether an adapter has started the program for its client,
    "wait": bool: whether the program is to wait for a client before its first line,
    "child": bool: whether it is the child of one that is debugged}.

    attach(server) once; then, for each client, begin(connection), with a wire.tConnection.
    """

    kStopsAtLinesOnly = True

    def __init__(self, settings=None):
        self.settings = settings or {}
        self.is_launched = bool(self.settings.get("launched"))
        self.server = None
        self.session = None
        self.executor = executors.tExecutor(self._on_waiting, self._on_left)
        self.holder = None
        self.thread_ids = numbers.tThreadIds()
        self.is_live = False       # the program's first line has been reached
        self.is_tracing = False
        self.entry_stop = None     # while the program waits at its first line for the client
        self._pid = _getpid()
        self._ended = set()        # idents of threads that are about to be gone
        self._client = signals.tDone()  # a client has attached and is configured

    def attach(self, server):
        self.server = server
        self.holder = pausing.tHolder(
            server, self.executor, self._on_hold, lambda where: server.tell_internal_error(where))
        self.thread_ids.id_of(server.main_ident)

    def begin(self, connection):
        """Serve a client from now on; returns its tSession.  Any thread."""
        before = self.session
        if before is not None:  # its client has gone, but it may be leaving the program still
            before.over.wait(sessions.kDetachSeconds)
        session = sessions.tSession(self, connection)
        self.session = session
        if self.is_live:  # the program's thread has not seen this session
            session.has_entered = True
        session.start()
        return session

    def wait_for_client(self, seconds=None):
        """Until a client has attached and sent configurationDone; whether one has."""
        return self._client.wait(seconds)

    def tell_configured(self):
        self._client.set()

    # --- of the server: on the program's threads ---

    def on_stop(self, stop):
        if _getpid() != self._pid:  # a forked child, which nobody debugs
            return self.server.continue_run()
        self.holder.tell_stopped(stop.thread.ident)
        try:
            if stop.reason == stops.kEntry:
                self._stop_at_entry(stop)
            else:
                self._stop_at(stop)
        except KeyboardInterrupt:
            self._interrupted(sys.exc_info()[1])

    def passes(self, stop):
        session = self.session
        if session is None or not session.is_configured or stop.reason == stops.kEntry:
            return False
        if not session.policy_of(stop.thread.ident):
            if not kIgnoredStayTraced:
                self.server.ask_policies()  # it had no name yet when the core asked
            return True
        return session.passes(stop)

    def thread_policy(self, ident):
        session = self.session
        if _getpid() != self._pid:
            return 1
        self._ended.discard(ident)
        self.see_thread(ident)
        return 1 if session is None or kIgnoredStayTraced else session.policy_of(ident)

    def on_thread_end(self, ident):
        if _getpid() != self._pid or ident == self.server.main_ident:
            return
        self.holder.forget_thread(ident)
        self._ended.add(ident)
        number = self.thread_ids.forget(ident)
        if number is not None and self.session is not None:
            self.session.tell_thread("exited", number)

    def on_idle(self):
        self.scan_threads()

    def on_import(self, module):
        session = self.session
        if session is not None and _getpid() == self._pid:
            session.call_all(session.import_hooks, module)

    def on_notice(self, text):
        if self.session is not None:
            self.session.output("console", "tdbg: " + text + "\n")

    def on_internal_error(self, text):
        if self.session is not None:
            self.session.output("console", "tdbg: internal error: {}\n".format(text))

    # --- stops ---

    def _stop_at_entry(self, stop):
        self.is_live = self.is_tracing = True
        session = self.session
        if session is None and not self.settings.get("wait"):
            return self.leave_alone()
        self.entry_stop = stop
        try:
            self._serve(lambda: self.session is not None and self.session.tell_entered())
        finally:
            self.entry_stop = None

    def _stop_at(self, stop):
        session = self.session
        if session is None or not session.is_configured or session.is_ending:
            return self.server.continue_run()
        session.current_stop = stop
        try:
            self._serve(lambda: session.tell_stop(stop))
        finally:
            session.current_stop = None

    def _serve(self, announce):
        """Be at the client's service, until it sends the program on."""
        interrupts = []
        for command in self.executor.serve(announce, interrupts.append):
            command()
        for interrupt in interrupts[:1]:
            self._interrupted(interrupt)

    def _interrupted(self, exception):
        """A signal handler of the program has raised an exception here: it is the program's."""
        self.server.core.raise_exception(0, exception)

    def _on_hold(self, ident):
        """The program is held, on a thread of the debugger's own."""
        session = self.session
        if session is None or not session.is_configured:
            return
        session.held = ident
        try:
            self._serve(lambda: session.tell_hold(ident))
        finally:
            session.held = None

    def leave_alone(self):
        """The program runs on untraced.  Where the core may be called."""
        self.is_tracing = False
        self.server.leave_alone()

    def trace_again(self):
        if not self.is_tracing:
            self.is_tracing = True
            self.server.start_again()

    def _on_waiting(self):
        if self.is_live:
            self.holder.wake()

    def _on_left(self):
        if self.is_live and self.holder.is_wanted:
            self.holder.wake()

    # --- threads ---

    def see_thread(self, ident):
        if not self.thread_ids.is_known(ident):
            number = self.thread_ids.id_of(ident)
            if self.session is not None:
                self.session.tell_thread("started", number)

    def scan_threads(self):
        """Find what has begun or ended unseen."""
        running = _current_frames()
        idents = set(ident for ident in running if not threads.is_own_thread(ident))
        running = None
        self._ended.intersection_update(idents)
        for ident in idents - self._ended:
            self.see_thread(ident)
        registered = getattr(sys.modules.get("threading"), "_active", {})
        for number, ident in self.thread_ids.all():
            if ident not in idents and ident not in registered:
                self.on_thread_end(ident)

    def name_of_thread(self, ident):
        try:
            return compat.to_text(self.server.thread_name(ident))
        except Exception:
            return compat.to_text(str(ident))
