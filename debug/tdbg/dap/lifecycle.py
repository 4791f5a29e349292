"""Requests for the beginning and the end of a session."""
from __future__ import absolute_import, division, print_function

import os

from tdbg import atend, compat, currentframes, evaluate, threads
from tdbg.dap import capabilities
from tdbg.dap import config as configs
from tdbg.dap.requests import get_optional, tRequest, tRequestError

kRestSeconds = 0.2

_kill = os.kill
_current_frames = currentframes.current_frames
_getpid = os.getpid
_pthread_kill = getattr(compat.signal, "pthread_kill", None)
_get_signal = compat.signal.getsignal


def initialize(session, arguments):
    if session.client is not None:
        raise tRequestError("`initialize` comes once")
    session.client = arguments
    return capabilities.of_debuggee()


def launch(session, arguments):
    if not session.front_end.is_launched:
        raise tRequestError("this program runs already: attach to it", True)
    return _start(session, arguments, configs.kLaunch)


def attach_to(session, arguments):
    return _start(session, arguments, configs.kAttach)


def _start(session, arguments, kind):
    if session.config is not None:
        raise tRequestError("the session has been started already")
    try:
        config = _Config(kind, arguments)
    except configs.tConfigError as why:
        raise tRequestError("{}".format(why), True)
    session.config = config
    for text in config.warnings:
        session.output("console", text + "\n")
    if session.has_entered:
        session.run_in_core(session.front_end.trace_again)
    session.call_all(session.configured_hooks)

    def go_on():
        session.tell_initialized()
        session.begin_when_configured()
    session.then(go_on)
    return session.answer_later()


class _Config(configs.tConfig):
    """The adapter has used most of it; a debuggee that is attached to needs none of the rest."""

    def _check(self):
        if self.kind == configs.kLaunch and self.raw.get("program") is None:
            return  # what runs is known
        configs.tConfig._check(self)


def configuration_done(session, arguments):
    if session.configuration_done:
        raise tRequestError("`configurationDone` comes once")

    def go_on():
        session.configuration_done = True
        session.begin_when_configured()
    session.then(go_on)


def disconnect(session, arguments):
    terminate = get_optional(arguments, "terminateDebuggee", bool, session.front_end.is_launched)
    session.then(lambda: session.end(terminate))


def terminate(session, arguments):
    """Ask the program to end: as Ctrl-C does, unless configured otherwise."""
    wanted = "KeyboardInterrupt" if session.config is None else session.config.on_terminate
    session.is_ending = True

    def end():
        session.holder.call_off()
        if wanted == "KeyboardInterrupt":
            _interrupt(session)
        else:
            number = compat.signal.SIGTERM if wanted == "SIGTERM" else compat.signal.SIGKILL
            if _get_signal(number) == compat.signal.SIG_DFL:  # it has no end of its own
                atend.remove_files()
            _kill(_getpid(), number)
            if session.is_stopped:
                session.go_on()
    session.then(end)


def _interrupt(session):
    main = session.server.main_ident
    stop = session.current_stop
    if stop is not None and stop.thread.ident == main:
        session.forget_stop()

        def command():
            session.core.raise_exception(0, KeyboardInterrupt())
            session.server.continue_run()
        session.current_stop = None
        session.executor.finish(command)
        return
    if _get_signal(compat.signal.SIGINT) in (compat.signal.SIG_IGN, compat.signal.SIG_DFL, None):
        _raise_in(main)
    else:
        # In a stop it is seen for certain, and the thread may wait at the same place after it.
        place = None if session.is_stopped else _place_of(main)
        _send_interrupt(main)
        if place is not None:
            threads.start_own_thread(lambda: interrupt_again_at(main, place))
    if session.is_stopped:
        session.go_on()


def _send_interrupt(ident):
    if _pthread_kill is not None:
        _pthread_kill(ident, compat.signal.SIGINT)
    else:
        _kill(_getpid(), compat.signal.SIGINT)


def interrupt_again_at(main, place):
    """A thread that has just left us the interpreter, to wait for something, may not have begun to
    when its signal comes: nothing would wake it.  Whether it had to be sent again."""
    is_lost = threads.is_at_rest(_getpid(), kRestSeconds) and _place_of(main) == place
    if is_lost:
        _send_interrupt(main)
    return is_lost


def _place_of(ident):
    frame = _current_frames().get(ident)
    return None if frame is None else (id(frame), frame.f_lasti)


def _raise_in(ident):
    """For a program that ignores the signal: at its next line of Python."""
    if evaluate._set_async_exc is not None:
        evaluate._set_async_exc(evaluate._thread_number(ident),
                                evaluate._py_object(KeyboardInterrupt))


def cancel(session, arguments):
    session.cancel(get_optional(arguments, "requestId", int))


kRequests = {
    "initialize": tRequest(initialize),
    "launch": tRequest(launch),
    "attach": tRequest(attach_to),
    "configurationDone": tRequest(configuration_done),
    "disconnect": tRequest(disconnect),
    "terminate": tRequest(terminate),
    "cancel": tRequest(cancel),
}
