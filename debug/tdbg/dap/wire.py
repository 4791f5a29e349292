"""Messages of the Debug Adapter Protocol on a byte stream, for both sides.

A message is a JSON object behind a header, `Content-Length: N` and an empty line.  Only such bytes
are taken: whoever sends anything else, a browser for one, is not a client.
"""
from __future__ import absolute_import, division, print_function

import errno
import json
import os
import sys

from tdbg import compat

kFields = (b"content-length", b"content-type")
kMaxHeader = 1024
kMaxLength = 256 * 1024 * 1024
kReadSize = 65536
kWhole = (int, type(sys.maxsize + 1))  # bool is one of them
kNoSignal = 0x4000  # MSG_NOSIGNAL, which version 2 does not name

_dumps = json.dumps
_loads = json.loads
_read = os.read
_write = os.write
_close = os.close


class tBadHeader(Exception):
    """What came is no header of the protocol; where the next message begins is unknown."""


class tBadMessage(Exception):
    """The message behind a good header is no JSON object; the next one may be."""


class tConnection(object):
    """One peer.  stream: a socket, or anything with its recv, sendall and close.

    read() belongs to one thread, write() to all.
    """

    def __init__(self, stream):
        self._stream = stream
        self._buffer = b""
        self._lock = compat.allocate_lock()
        self._seq = 0
        self._is_open = True

    @property
    def is_open(self):
        """False once the peer is known to be gone, or after close()."""
        return self._is_open

    def read(self):
        """The next message; None when the peer has gone."""
        length = self._read_header()
        if length is None:
            return None
        while len(self._buffer) < length:
            if not self._receive(length - len(self._buffer)):
                return None
        data, self._buffer = self._buffer[:length], self._buffer[length:]
        return decode(data)

    def write(self, message):
        """Send a message; whether the peer was still there.  A missing `seq` is filled in."""
        with self._lock:
            if "seq" not in message:
                self._seq += 1
                message = dict(message, seq=self._seq)
            data = encode(message)
            if not self._is_open:
                return False
            try:
                self._send(b"Content-Length: " + str(len(data)).encode("ascii")
                           + b"\r\n\r\n" + data)
            except (IOError, OSError):
                self._is_open = False
            return self._is_open

    def next_seq(self):
        """A number for a message whose answer is to be recognised."""
        with self._lock:
            self._seq += 1
            return self._seq

    def close(self):
        """Also ends a read() in another thread."""
        self._is_open = False
        for name in ("shutdown", "close"):
            try:
                end = getattr(self._stream, name, None)
                if end is not None:
                    end(2) if name == "shutdown" else end()
            except (IOError, OSError):
                pass

    def end_reading(self):
        """read() delivers what has arrived, then None,
        whoever may still have the other end open."""
        try:
            self._stream.shutdown(0)
        except (IOError, OSError):
            pass

    def _read_header(self):
        """The length that is announced; None at the end of the stream."""
        while True:
            _refuse_other_protocols(self._buffer)
            head, empty_line, rest = self._buffer.partition(b"\r\n\r\n")
            if empty_line:
                self._buffer = rest
                return _length_in(head)
            if len(self._buffer) > kMaxHeader:
                raise tBadHeader("the header has no end")
            if not self._receive(kReadSize):
                return None

    def _receive(self, size):
        """False at the end of the stream."""
        while True:
            try:
                data = self._stream.recv(kReadSize)
            except (IOError, OSError) as why:
                if why.errno == errno.EINTR:
                    continue
                data = b""
            if not data:
                self._is_open = False
                return False
            # Large messages come in many pieces: no copy of all of it for each.
            if size > kReadSize:
                data = self._receive_many(data, size)
            self._buffer += data
            return True

    def _receive_many(self, first, size):
        pieces = [first]
        size -= len(first)
        while size > 0:
            try:
                data = self._stream.recv(min(size, kReadSize))
            except (IOError, OSError) as why:
                if why.errno == errno.EINTR:
                    continue
                data = b""
            if not data:
                break
            pieces.append(data)
            size -= len(data)
        return b"".join(pieces)

    def _send(self, data):
        if isinstance(self._stream, tFiles):
            return self._stream.sendall(data)
        view = memoryview(data)
        while len(view) > 0:
            try:
                # Not sendall(): on version 2 a signal would leave it unknown how much is sent.
                view = view[self._stream.send(view, kNoSignal):]
            except (IOError, OSError) as why:
                if why.errno != errno.EINTR:
                    raise


class tFiles(object):
    """A stream of two file descriptors, which it owns."""

    def __init__(self, reading, writing):
        self._reading, self._writing = reading, writing

    def recv(self, size):
        return _read(self._reading, size)

    def sendall(self, data):
        while data:
            data = data[_write(self._writing, data):]

    def close(self):
        for descriptor in {self._reading, self._writing}:
            _close(descriptor)


def _refuse_other_protocols(data):
    """tBadHeader as soon as the first line cannot be a field of a header."""
    name, colon, _ = data[:kMaxHeader].partition(b":")
    name = name.lower()
    for field in kFields:
        if name == field or (not colon and field.startswith(name)):
            return
    raise tBadHeader("not a header of the protocol: {!r}".format(data[:40]))


def _length_in(head):
    length = None
    for line in head.split(b"\r\n"):
        name, _, value = line.partition(b":")
        name, value = name.strip().lower(), value.strip()
        if name == kFields[0]:
            if not value.isdigit() or length is not None:
                raise tBadHeader("no length: {!r}".format(line[:40]))
            length = int(value)
        elif name != kFields[1]:
            raise tBadHeader("unknown field {!r}".format(line[:40]))
    if length is None or length > kMaxLength:
        raise tBadHeader("no length or too great a one")
    return length


# --- one message ------------------------------------------------------------------------------


def encode(message):
    """ASCII bytes: what lies outside, halves of surrogate pairs too, goes as escapes."""
    try:
        text = _dumps(message, separators=(",", ":"), allow_nan=False)
    except (TypeError, ValueError):
        text = _dumps(_presentable(message), separators=(",", ":"), allow_nan=False)
    return text.encode("ascii")


def decode(data):
    """The JSON object in the bytes, or tBadMessage."""
    try:
        if compat.PY2:
            text = data.decode("utf-8")
        else:
            text = data.decode("utf-8", "surrogatepass")
        message = _loads(
            text, parse_constant=_refuse_constant,
            object_hook=None if compat.is_gil_enabled() else _tSharedDict)
    except Exception as why:  # RecursionError is a RuntimeError before 3.5
        raise tBadMessage("{}: {}".format(type(why).__name__, why))
    if not isinstance(message, dict):
        raise tBadMessage("a message is an object, not {}".format(type(message).__name__))
    return message


class _tSharedDict(dict):
    """For the threads of 3.13 without an interpreter lock.  dict.get() locks the dict there, and
    once more where another thread has made it or the value: for that it waits for itself, which
    takes 40 turns of the scheduler and so as good as for ever beside threads that compute."""

    __slots__ = ()

    def get(self, key, default=None):
        return self[key] if key in self else default


def _refuse_constant(name):
    raise ValueError(name + " is no JSON")


def _presentable(value):
    """What JSON can hold of a value: undecodable bytes are replaced, NaN is null."""
    if value is None or isinstance(value, kWhole):
        return value
    if isinstance(value, (bytes, compat.text_type)):
        return compat.to_text(value)
    if isinstance(value, float):
        return value if value - value == 0 else None
    if isinstance(value, dict):
        return {compat.to_text(key) if isinstance(key, bytes) else str(key): _presentable(item)
                for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [_presentable(item) for item in value]
    return compat.to_text(repr(value))


def connection_of_stdio():
    """A connection over standard input and output, which nobody else can use from here on."""
    reading, writing = os.dup(0), os.dup(1)
    nothing = os.open(os.devnull, os.O_RDWR)
    os.dup2(nothing, 0)
    os.dup2(2, 1)
    os.close(nothing)
    sys.stdout = sys.stderr
    return tConnection(tFiles(reading, writing))


# --- responses --------------------------------------------------------------------------------


def answer(request, body=None):
    """The response to a request that was granted."""
    message = {"type": "response", "request_seq": request.get("seq", 0), "success": True,
               "command": request["command"]}
    if body is not None:
        message["body"] = body
    return message


def refusal(request, text, show_user):
    """The response to one that was not, which may lack anything; show_user: whether the editor
    should put the text before the user (it may show it anyhow)."""
    seq, command = request.get("seq"), request.get("command")
    # `format` is a pattern, in which braces mean variables.
    return {
        "type": "response", "success": False, "message": text,
        "request_seq": seq if isinstance(seq, int) else 0,
        "command": command if isinstance(command, compat.string_types) else "",
        "body": {"error": {"id": 1, "format": text.replace("{", "(").replace("}", ")"),
                           "showUser": show_user}}}
