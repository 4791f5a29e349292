"""tdbg.listen(), tdbg.connect(), tdbg.wait_for_client(): clients for a program that runs already.

Until a client attaches, and after it has gone, the program is not traced.
"""
from __future__ import absolute_import, division, print_function

import errno
import os
import sys

from tdbg import atend, attach, dbgserver, launch, nativelib, serve
from tdbg.dap import endpoint, frontend, requests, wire

_front_end = None  # of this process
_door = None


def listen(address=("127.0.0.1", 0), token=None, token_file=None, no_token=False,
           allow_remote=False):
    """Let an editor attach; (host, port) that it has to connect to.

    address is a port or (host, port); port 0 is any.  The token is given, in a file that only its
    user can read, or in the environment (TDBG_TOKEN); else one is made, and standard error tells
    the file.  Where the debugger is there already, nothing happens: the answer is None.
    """
    global _door
    host, port = _address(address)
    given = endpoint.take_token(os.environ)
    token = token or given
    if token_file is not None:
        token = endpoint.read_token(token_file)
    if no_token:
        if allow_remote:
            raise ValueError("allow_remote needs a token")
        token = None
    if _is_served():
        return None
    front_end = start()
    listener = endpoint.listen(host, port, allow_remote)
    made = None
    if token is None and not no_token:
        token = endpoint.make_token()
        made = endpoint.write_token(token)
        sys.stderr.write("tdbg: listening on {}:{}; the token is in {}\n".format(
            listener.getsockname()[0], listener.getsockname()[1], made))
        sys.stderr.flush()  # before 3.9 it is buffered where it is no terminal
    _door = serve.open_door_in(front_end, listener, token, allow_remote, made)
    return _door.address


def connect(address, token=None):
    """Call an editor that listens; as listen()."""
    host, port = _address(address)
    token = token or endpoint.take_token(os.environ)
    if _is_served():
        return
    if token is None:
        endpoint.refuse_remote(host, port, False)
    connected = endpoint.connect(host, port)
    if token is None and not endpoint.is_of_this_user(connected):
        connected.close()
        raise endpoint.tRefused(
            "who listens on {}:{} is another user: that needs a token".format(host, port))
    serve.begin_with_token(start(), connected, token)


def wait_for_client(seconds=None):
    """Until an editor has attached and set its breakpoints; whether it has."""
    if _front_end is None:
        raise RuntimeError("nobody can attach: call tdbg.listen() or tdbg.connect() first")
    return _front_end.wait_for_client(seconds)


def start(library=None):
    """The front end of this process; made at the first call, which must come in the main thread."""
    global _front_end
    if _front_end is not None:
        return _front_end
    if attach.is_running():
        raise RuntimeError("the program is being debugged in a terminal")
    launch.refuse_unknown_version()
    attach.refuse_other_threads("tdbg.listen() or tdbg.connect()")
    if library is not None:
        core = nativelib.load_library(library)
    else:
        core = nativelib.find_and_load(os.path.dirname(os.path.abspath(__file__)))
    requests.load_modules()  # before tracing: a thread of ours could not import during a stop
    _front_end = front_end = frontend.tDapFrontEnd({"launched": False})
    server = dbgserver.tServer(core, front_end)
    front_end.attach(server)
    server.start_unnoticed()
    front_end.is_live = True
    front_end.leave_alone()
    return front_end


def serve_socket(path, library):
    """Serve the adapter that has brought the debugger into this process."""
    try:
        connected = endpoint.connect_unix(path)
    except EnvironmentError as why:
        if why.errno != errno.ECONNREFUSED:
            raise
        return atend.remove(os.path.dirname(path))  # the adapter has been killed
    connection = wire.tConnection(connected)
    try:
        front_end = start(library)
        if front_end.session is not None:
            raise RuntimeError("another client is attached to this process")
    except Exception as why:
        connection.write({"type": "event", "event": serve.kRefused, "body": {"text": str(why)}})
        connection.close()
    else:
        front_end.begin(connection)


def take_over(front_end):
    """The program was started with this front end."""
    global _front_end
    _front_end = front_end


def _is_served():
    return _front_end is not None and (_front_end.is_launched or _door is not None
                                       or _front_end.session is not None)


def _address(address):
    if isinstance(address, tuple):
        return address[0] or endpoint.kLoopback, int(address[1])
    return endpoint.parse_address(str(address))
