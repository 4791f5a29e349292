"""Children of the program: the client is asked to debug each in a session of its own.

Only for clients that announce it.  What a child needs to know is in one environment variable
(see tdbg/children.py); it makes itself known at a socket that is served here.
"""
from __future__ import absolute_import, division, print_function

import os

import _socket

from tdbg import atend, children, compat, threads
from tdbg.dap import endpoint, wire

kPolicyNone, kPolicyAll = "none", "all"
# Settings that hold for the children, too.
kInherited = (
    "justMyCode", "rules", "pathMappings", "subProcess", "childAttachTimeout",
    "exceptions", "threads", "stopAllThreads", "stepGranularity", "valueLimits", "templates",
    "jinja", "flask", "django", "showReturnValue")

_environ = os.environ
kSocketName = "children"
_path_variable = "PYTHONPATH"


def attach(session):
    session.on_configured(_begin)
    session.on_end(_end)


kRequests = {}


def _begin(session):
    if session.config.sub_process == kPolicyNone or not session.client.get(
            "supportsStartDebuggingRequest"):
        return
    nursery = session.nursery = tNursery(session)
    nursery.open()


def _end(session):
    nursery = getattr(session, "nursery", None)
    if nursery is not None:
        nursery.close()


class tNursery(object):
    """Where children announce themselves while a session lasts."""

    def __init__(self, session):
        self._session = session
        self._made = self._listener = None
        self._pid = os.getpid()
        self._before = {}

    def open(self):
        path = self._listen()
        library = getattr(self._session.server.core, "__file__", None)
        settings = {
            "socket": path, "seconds": self._session.config.child_attach_timeout,
            "library": library, "pid": self._pid,
            "all": self._session.config.sub_process == kPolicyAll,
            "startup": children.kStartupFolder, "pythonpath": _environ.get(_path_variable)}
        self._set(children.kVariable, compat.to_literal(settings))
        self._set(_path_variable, os.pathsep.join(
            part for part in (children.kStartupFolder, _environ.get(_path_variable)) if part))
        children.see_forks(settings)
        threads.start_own_thread(self._serve)

    def _listen(self):
        """Address of the socket: in the folder of the adapter that has started the program, so that
        it is removed even if the program is killed; else in one of our own.  In none for children,
        which often end by os._exit()."""
        shared = self._session.front_end.settings.get("folder")
        if self._session.front_end.settings.get("child"):
            self._listener, address = endpoint.listen_nowhere()
            return address
        if shared is not None:
            try:
                path = os.path.join(shared, kSocketName)
                self._listener = endpoint.listen_unix(path)
                return self._is_made(path, path)
            except (IOError, OSError, _socket.error):  # the adapter has gone and another one come
                pass
        folder = endpoint.make_private_folder()
        path = os.path.join(folder, kSocketName)
        self._listener = endpoint.listen_unix(path)
        return self._is_made(folder, path)

    def _is_made(self, made, path):
        self._made = made
        atend.remove_at_end(made)
        return path

    def close(self):
        """Children run on alone from here on."""
        children.see_forks(None)
        if os.getpid() != self._pid:
            return
        for name, value in self._before.items():
            if value is None:
                _environ.pop(name, None)
            else:
                _environ[name] = value
        self._before = {}
        listener, self._listener = self._listener, None
        if listener is not None:
            try:
                listener.shutdown(2)
            except (IOError, OSError):
                pass
            listener.close()
            if self._made is not None:
                atend.remove_now(self._made)

    def _set(self, name, value):
        self._before[name] = _environ.get(name)
        _environ[name] = value

    def _serve(self):
        while self._listener is not None:
            try:
                connected = endpoint.accept(self._listener)
                if endpoint.peer_of_unix(connected)[1] != os.getuid():
                    connected.close()
                    continue
                connected.settimeout(1.0)  # it speaks at once
                connection = wire.tConnection(connected)
                child = connection.read()
            except (IOError, OSError, wire.tBadHeader, wire.tBadMessage, AttributeError):
                if self._listener is None:
                    return
                continue
            if child is not None:
                self._ask(child, connection)
            else:
                connection.close()

    def _ask(self, child, connection):
        def answered(success, body):
            connection.write({"wait": bool(success)})
            connection.close()

        configuration = dict(
            (name, self._session.config.raw[name]) for name in kInherited
            if name in self._session.config.raw)
        configuration.update({
            "type": self._session.client.get("adapterID") or "tdbg", "request": "attach",
            "name": u"child {}".format(child.get("pid")), "socket": child.get("socket"),
            "subProcessId": child.get("pid")})
        if self._session.is_over:
            return answered(False, None)
        self._session.send_request(
            "startDebugging", {"request": "attach", "configuration": configuration}, answered)
