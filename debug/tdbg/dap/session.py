"""A debugging session: one client of the protocol, and what it is told of the program.

tDapFrontEnd is the debug server's front end; it lives as long as the process, and serves one client
after the other.  tSession is the conversation with one client.

For handler modules, a session has:

server         the dbgserver.tServer;  .core is its native module
config         config.tConfig, from `launch` or `attach` on (before: None)
client         arguments of `initialize`
frames         numbers of frames:  id_of(thread_id, frame, line) -> int;  get(frame_id) -> tFrameRef
handles        numbers of anything else that lives as long as a stop: new(object) -> int from 1 on;
               get(int) -> object.  Both raise tRequestError for numbers of the past
thread_ids     numbers of threads: id_of(ident), ident_of(thread_id)
executor       see executor.py
stop_of(thread_id)          the stops.tStop that a thread is in, or None
current_stop                the tStop that is served, or None (also None when merely paused)
send_event(name, body)      on any thread; never raises
send_request(command, arguments, on_response)    a reverse request; on_response(success, body)
output(category, text, **more)                   an `output` event; never raises
run_in_core(function)       function() where the core may be called and the breakpoints changed: on the
                            stopped thread if there is one, else with the debug-server mutex held;
                            its result, or its exception
lock_core()                 deprecated way of writing the same: `with session.lock_core():` is not to
                            be had, for a block cannot be moved to another thread

To be told (each takes a callable, in attach(session)):

on_stop(f)       f(session, stop): a `stopped` event is about to be sent; may return a dict that is
                 merged into its body (hitBreakpointIds, text, description)
filter_stops(f)  f(session, stop) -> true to pass: the thread is not to stop after all.  It runs on
                 the thread, which goes on as it did: stepping is not disturbed.  It may take entries
                 out of stop.hits; a stop for breakpoints alone passes when none is left
on_resume(f)     f(session): numbers have become invalid, the program runs
on_import(f)     f(session, module): on the importing thread
on_configured(f) f(session): launch or attach has come, session.config is there
on_end(f)        f(session): the client goes; undo what it asked for (breakpoints are removed by
                 their module).  Runs where the core may be called
"""
from __future__ import absolute_import, division, print_function

from tdbg import dbgserver


class tFrameRef(object):
    """A frame that the client knows by number."""

    __slots__ = ("thread_id", "frame", "line")

    def __init__(self, thread_id, frame, line):
        self.thread_id, self.frame, self.line = thread_id, frame, line


class tDapFrontEnd(dbgserver.tFrontEnd):
    """settings: {"launched": bool}: whether an adapter has started the program for its client.

    attach(server) once; then, for each client, begin(connection), with a wire.tConnection.
    """

    def __init__(self, settings=None):
        self.settings = settings or {}
        self.server = None
        self.session = None

    def attach(self, server):
        self.server = server

    def begin(self, connection):
        """Serve a client from now on; returns its tSession.  Any thread."""
        raise NotImplementedError

    def wait_for_client(self, seconds=None):
        """Until a client has attached and sent configurationDone; whether one has."""
        raise NotImplementedError


class tSession(object):
    pass
