"""Who may talk to the debugger: addresses, tokens, and the port that a debuggee listens on.

Whoever controls a debugger runs any code.  So ports are for this machine alone unless told
otherwise; a client of a port shows a token, which is never in a command line; sockets between our
own processes lie in a folder that only their user can enter.
"""
from __future__ import absolute_import, division, print_function

import binascii
import errno
import os
import stat
import struct

import _socket

from tdbg import compat, signals
from tdbg.dap import capabilities, wire

try:
    from _operator import _compare_digest
except ImportError:  # version 2
    from operator import _compare_digest

kLoopback = "127.0.0.1"
kTokenVariable = "TDBG_TOKEN"
kTokenBytes = 16
kMaxFailures = 3
kHandshakeSeconds = 10
kHandshakeRequests = 50
kPeerCredentials = 17  # SO_PEERCRED
kBacklog = 8
kEstablished = "01"

_open = open
_os_open, _fdopen, _close = os.open, os.fdopen, os.close
_chmod, _getuid, _mkdir = os.chmod, os.getuid, os.mkdir


class tRefused(Exception):
    """The address or the token cannot be used; the text is one line for the user."""


# --- addresses ----------------------------------------------------------------------------------


def parse_address(text):
    """(host, port) of PORT, :PORT, HOST:PORT or [HOST]:PORT.  No host means this machine."""
    host, colon, port = text.rpartition(":")
    if host.startswith("[") and host.endswith("]"):
        host = host[1:-1]
    elif ":" in host:
        raise tRefused("{!r}: an IPv6 address is written in brackets, [::1]:PORT".format(text))
    if not port.isdigit() or int(port) > 65535:
        raise tRefused("{!r} is no address (PORT or HOST:PORT)".format(text))
    return host or kLoopback, int(port)


def resolve(host, port):
    """[(family, socket address)] of a host, or tRefused."""
    host = host or kLoopback
    try:
        # As bytes: for text the interpreter loads the tables of international names.
        rows = _socket.getaddrinfo(
            host if isinstance(host, bytes) else host.encode("utf-8"), port, 0, _socket.SOCK_STREAM)
    except (_socket.error, UnicodeError) as why:
        raise tRefused("cannot find the host {}: {}".format(host, _reason(why)))
    return [(row[0], row[4]) for row in rows]


def is_loopback(address):
    """Whether a socket address (or the first part of it) is this machine's own."""
    host = address[0] if isinstance(address, tuple) else address
    return host.startswith("127.") or host in ("::1", "localhost") or host.startswith("::ffff:127.")


def refuse_remote(host, port, allow_remote):
    """Socket addresses to listen on; tRefused for one that others can reach, unless allowed."""
    found = resolve(host, port)
    if not allow_remote and not all(is_loopback(address) for _, address in found):
        raise tRefused(
            "{} can be reached from other machines: that needs --allow-remote".format(host))
    return found


def listen(host, port, allow_remote=False):
    """A listening TCP socket, or tRefused."""
    why = None
    for family, address in refuse_remote(host, port, allow_remote):
        try:
            listener = not_for_children(_socket.socket(family, _socket.SOCK_STREAM))
            listener.setsockopt(_socket.SOL_SOCKET, _socket.SO_REUSEADDR, 1)
            listener.bind(address)
            listener.listen(kBacklog)
            return listener
        except (_socket.error, OSError) as error:
            why = error
    raise tRefused("cannot listen on {}:{}: {}".format(host, port, _reason(why)))


def connect(host, port):
    """A connected TCP socket, or tRefused."""
    why = None
    for family, address in resolve(host, port):
        connected = None
        try:
            connected = not_for_children(_socket.socket(family, _socket.SOCK_STREAM))
            connected.connect(address)
            return without_delay(connected)
        except (_socket.error, OSError) as error:
            why = error
            if connected is not None:
                connected.close()
    raise tRefused("cannot connect to {}:{}: {}".format(host, port, _reason(why)))


def accept(listener):
    """A new connected socket."""
    if hasattr(listener, "_accept"):
        descriptor, _ = listener._accept()
        return _socket.socket(listener.family, listener.type, listener.proto, fileno=descriptor)
    return not_for_children(listener.accept()[0])


def not_for_children(stream):
    """The socket is closed where another program is executed (it is so from version 3 on)."""
    if compat.PY2:
        import fcntl

        fcntl.fcntl(stream.fileno(), fcntl.F_SETFD, fcntl.FD_CLOEXEC)
    return stream


def without_delay(connected):
    """Small messages are sent at once."""
    try:
        connected.setsockopt(_socket.IPPROTO_TCP, _socket.TCP_NODELAY, 1)
    except (_socket.error, OSError):
        pass  # not of that kind
    return connected


def socket_of_descriptor(descriptor, family=_socket.AF_INET):
    """The socket that another program has left open for this one."""
    if compat.PY2:
        found = _socket.fromfd(descriptor, family, _socket.SOCK_STREAM)
        _close(descriptor)
        return found
    return _socket.socket(family, _socket.SOCK_STREAM, 0, fileno=descriptor)


def _reason(why):
    return getattr(why, "strerror", None) or str(why)


# --- sockets in the file system -------------------------------------------------------------------


def make_private_folder():
    """A new folder that only this user can enter."""
    folder = os.path.join(_temporary_folder(), "tdbg-" + make_token()[:16])
    _mkdir(folder, stat.S_IRWXU)  # fails where there is anything of that name
    return folder


def _temporary_folder():
    folder = os.environ.get("TMPDIR")
    # The path of a socket may not be longer than 107 bytes.
    return folder if folder and len(folder) < 60 and os.access(folder, os.W_OK) else "/tmp"


def listen_unix(path):
    """A listening socket at the path, which only this user can use."""
    listener = not_for_children(_socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM))
    listener.bind(path)
    _chmod(path, stat.S_IRUSR | stat.S_IWUSR)
    listener.listen(kBacklog)
    return listener


def listen_nowhere():
    """(listening socket, its address): one of Linux's that no folder holds, so that nothing of it
    is left however the process ends.  Anybody may connect, and look at peer_of_unix()."""
    address = "\0tdbg-" + make_token()[:16]
    listener = not_for_children(_socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM))
    listener.bind(address)
    listener.listen(kBacklog)
    return listener, address


def connect_unix(path):
    """A connected socket; OSError (IOError) when nobody listens."""
    connected = not_for_children(_socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM))
    connected.connect(path)
    return connected


# --- who is at the other end ----------------------------------------------------------------------


def peer_of_unix(connected):
    """(process id, user id) at the other end of a Unix socket."""
    data = connected.getsockopt(_socket.SOL_SOCKET, kPeerCredentials, struct.calcsize("3i"))
    pid, uid, _ = struct.unpack("3i", data)
    return pid, uid


def user_of_peer(connected):
    """User id at the other end of a TCP connection within this machine; None if it is not known."""
    try:
        if connected.family == _socket.AF_UNIX:
            return peer_of_unix(connected)[1]
        own, peer = connected.getsockname(), connected.getpeername()
        table = "/proc/net/tcp" if connected.family == _socket.AF_INET else "/proc/net/tcp6"
        return _user_in_table(table, [_as_in_table(peer), _as_in_table(own), kEstablished])
    except (_socket.error, OSError, IOError, ValueError, IndexError):
        return None


def _user_in_table(table, wanted):
    """User id of the connection with these addresses and state; None when there is none."""
    with _open(table) as source:
        for line in source:
            fields = line.split()
            if fields[1:4] == wanted:
                return int(fields[7])
    return None


def is_of_this_user(connected):
    """Whether a user of this machine with our id is at the other end, for sure."""
    return is_loopback(_peer_name(connected)) and user_of_peer(connected) == _getuid()


def _peer_name(connected):
    try:
        return connected.getpeername()
    except (_socket.error, OSError):
        return ("", 0)


def _as_in_table(address):
    family = _socket.AF_INET6 if ":" in address[0] else _socket.AF_INET
    data = _socket.inet_pton(family, address[0])
    words = struct.unpack("={}I".format(len(data) // 4), data)
    return "".join("{:08X}".format(word) for word in words) + ":{:04X}".format(address[1])


# --- tokens ---------------------------------------------------------------------------------------


def make_token():
    return binascii.hexlify(os.urandom(kTokenBytes)).decode("ascii")


def write_token(token):
    """Path of a new file with the token, which only this user can read."""
    folder = os.environ.get("XDG_RUNTIME_DIR")
    if not folder or not os.access(folder, os.W_OK):
        folder = _temporary_folder()
    path = os.path.join(folder, "tdbg-token-" + make_token()[:16])
    descriptor = _os_open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, stat.S_IRUSR | stat.S_IWUSR)
    with _fdopen(descriptor, "wb") as out:
        out.write(token.encode("ascii") + b"\n")
    return path


def read_token(path):
    """The token in a file of the user's own, or tRefused."""
    try:
        descriptor = _os_open(path, os.O_RDONLY)
    except OSError as why:
        raise tRefused("cannot read the token in {}: {}".format(path, _reason(why)))
    with _fdopen(descriptor, "rb") as source:
        status = os.fstat(descriptor)
        if status.st_uid != _getuid() or status.st_mode & (stat.S_IRWXG | stat.S_IRWXO):
            raise tRefused(
                "{} must belong to you, and nobody else may read it (chmod 600)".format(path))
        try:
            token = source.read(4096).decode("utf-8").strip()
        except (UnicodeError, IOError, OSError):
            token = ""
    if not token:
        raise tRefused("there is no token in {}".format(path))
    return token


def take_token(environment):
    """The token in the environment, which then no longer has it; None without one."""
    return environment.pop(kTokenVariable, None) or None


def same_token(wanted, given):
    """In a time that does not tell how much of it is right."""
    if not isinstance(given, compat.string_types):
        return False
    return _compare_digest(_token_bytes(wanted), _token_bytes(given))


def _token_bytes(token):
    return token if isinstance(token, bytes) else token.encode("utf-8", "replace")


# --- a port with a door ---------------------------------------------------------------------------


class tDoor(object):
    """Lets in one client after the other, each with the token.

    token       text; None admits everybody
    on_client   function(connection), called for each client that was let in: a wire.tConnection
                that still delivers the client's requests `initialize` and `attach`

    While a client is in, nobody listens.  Three wrong tokens close the door for good.
    """

    def __init__(self, listener, token, on_client, allow_remote=False):
        self._listener = listener
        self.address = listener.getsockname()[:2]
        self._token, self._on_client = token, on_client
        self._allow_remote = allow_remote
        self._failures = 0
        self._closed = False

    def serve(self):
        """Runs until the door is closed; for a thread of the debugger's own."""
        while not self._closed and self._failures < kMaxFailures:
            try:
                if self._listener is None:
                    self._listener = listen(self.address[0], self.address[1], self._allow_remote)
                connected = accept(self._listener)
            except (_socket.error, OSError, IOError) as why:
                if why.errno in (errno.EINTR, errno.ECONNABORTED):
                    continue
                break
            except tRefused:
                break
            client = self._admit(without_delay(connected))
            if client is not None:
                self._stop_listening()
                self._on_client(client)
                client.wait_until_closed()
        self._stop_listening()

    def close(self):
        self._closed = True
        self._stop_listening()

    def _stop_listening(self):
        listener, self._listener = self._listener, None
        if listener is not None:
            try:
                listener.shutdown(2)  # wakes an accept() in another thread
            except (_socket.error, OSError, IOError):
                pass
            listener.close()

    def _admit(self, connected):
        """The connection as the session gets it, or None."""
        if not self._allow_remote and not is_loopback(connected.getpeername()):
            connected.close()
            return None
        connected.settimeout(kHandshakeSeconds)
        connection = wire.tConnection(connected)
        try:
            first = handshake(connection, self._is_right)
        except wire.tBadHeader:
            first = None
        if first is None:
            connection.close()
            return None
        connected.settimeout(None)
        return tAdmitted(connection, first)

    def _is_right(self, token):
        if self._token is None or same_token(self._token, token):
            return True
        self._failures += 1
        return False


def handshake(connection, is_right):
    """Talk to a client until it has shown its token; the requests to be replayed, or None."""
    first = []
    for _ in range(kHandshakeRequests):
        try:
            request = connection.read()
        except wire.tBadMessage as why:
            refuse(connection, {}, str(why))
            continue
        if request is None:
            return None
        command = request.get("command")
        if request.get("type") != "request" or not isinstance(request.get("seq"), int):
            refuse(connection, request, "a request is expected")
        elif command == "initialize" and not first:
            respond(connection, request, capabilities.of_debuggee())
            first.append(request)
        elif command == "disconnect":
            respond(connection, request)
            return None
        elif not first or command not in ("attach", "launch"):
            refuse(connection, request,
                   "`{}` comes too early: first `initialize`, then `attach`".format(
                       compat.to_native(command)
                       if isinstance(command, compat.string_types) else command))
        else:
            arguments = request.get("arguments")
            token = arguments.pop("token", None) if isinstance(arguments, dict) else None
            if is_right(token):
                return first + [request]
            refuse(connection, request,
                   "the token is missing" if token is None else "the token is wrong")
            return None
    return None


def respond(connection, request, body=None):
    connection.write(wire.answer(request, body))


def refuse(connection, request, text):
    connection.write(wire.refusal(request, text, show_user=True))


class tAdmitted(object):
    """A wire.tConnection whose first requests are read again,
    without a second answer to the first."""

    def __init__(self, connection, first):
        self._connection, self._first = connection, list(first)
        self._answered = first[0]["seq"]
        self._gone = signals.tDone()
        self._lock = compat.allocate_lock()

    @property
    def is_open(self):
        return self._connection.is_open

    def read(self):
        if self._first:
            return self._first.pop(0)
        try:
            message = self._connection.read()
        except wire.tBadHeader:
            self._tell_gone()
            raise
        if message is None:
            self._tell_gone()
        return message

    def write(self, message):
        if self._answered is not None and message.get("request_seq") == self._answered:
            self._answered = None
            return self._connection.is_open
        return self._connection.write(message)

    def next_seq(self):
        return self._connection.next_seq()

    def close(self):
        self._connection.close()
        self._tell_gone()

    def wait_until_closed(self):
        self._gone.wait()

    def _tell_gone(self):
        with self._lock:
            self._gone.set()
