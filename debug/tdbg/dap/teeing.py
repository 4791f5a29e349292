"""What the program prints is the client's to see as well, where no adapter reads its output: in a
terminal, or after attaching.  Only on request (redirectOutput).

The streams sys.stdout and sys.stderr are replaced, and with them the binary streams below that the
program gets from them.  What bypasses all these (the descriptors, a stream that was kept from
before) goes where it went.
"""
from __future__ import absolute_import, division, print_function

import codecs
import collections
import os
import sys

from tdbg import atend, compat, signals, threads
from tdbg.dap import config as configs

kNames = ("stdout", "stderr")
kPatience = 1.0     # seconds that the program waits, each time, for a client that does not read
kLargest = 4096     # characters of an unfinished line that are kept back

kRequests = {}
_getpid = os.getpid
_find_decoder = codecs.getincrementaldecoder


def attach(session):
    session.on_configured(_begin)
    session.on_end(_end)


def _begin(session):
    config = session.config
    if config.raw.get("redirectOutput") is not True:
        return
    if config.kind == configs.kLaunch and config.console == configs.kConsoles[0]:
        return  # the adapter reads it
    mouth = session.tee = tMouth(session)
    if mouth.start():
        mouth.put_in()


def _end(session):
    mouth = getattr(session, "tee", None)
    if mouth is not None:
        mouth.take_out()


class tMouth(object):
    """Tells one client what is written, on a thread of the debugger's own.

    The program's threads must not do it: a signal handler that stops them there would keep the
    connection locked.
    """

    def __init__(self, session):
        self._session = session
        self._pid = _getpid()
        self._waiting = collections.deque()  # (category, text, tDone)
        self._arrived = signals.tSignal()
        self._tees = []

    def start(self):
        return threads.start_own_thread(self._run)

    def put_in(self):
        for name in kNames:
            stream = getattr(sys, name, None)
            if stream is not None:
                tee = tTee(stream, name, self)
                self._tees.append((name, tee, stream))
                setattr(sys, name, tee)
        atend.call_at_end(self.finish)

    def finish(self):
        """The program ends, and soon our thread cannot run any more."""
        for _, tee, _ in self._tees:
            tee.let_go()

    def take_out(self):
        atend.do_not_call(self.finish)
        for name, tee, stream in self._tees:
            if getattr(sys, name, None) is tee:  # else the program has put in another since
                setattr(sys, name, stream)
            tee.let_go()
        self._arrived.set()

    def say(self, category, text):
        """Returns when it has been told."""
        if _getpid() != self._pid or self._session.is_over:
            return
        done = signals.tDone()
        self._waiting.append((category, text, done))
        self._arrived.set()
        done.wait(kPatience)

    def _run(self):
        while not self._session.is_over:
            self._arrived.wait()
            while self._waiting:
                category, text, done = self._waiting.popleft()
                self._session.output(category, text)
                done.set()


class tHeard(object):
    """What is written into one stream by way of its tees, until a line of it is told.

    Threads may write at a time.  No lock: one that has it might be stopped there, by its breakpoint
    or another's, and whoever evaluates a print() at that stop would wait for it.
    """

    def __init__(self, category, mouth, encoding):
        self._category, self.mouth = category, mouth
        self._parts = collections.deque()
        self._length = 0
        self._decoder = _make_decoder(encoding)

    def hear_text(self, text):
        if self.mouth is None:
            return
        if isinstance(text, bytes):
            return self.hear_bytes(text)
        self._parts.append(text)
        self._length += len(text)
        if text.endswith(u"\n") or self._length > kLargest:
            self.tell()

    def hear_bytes(self, data):
        if self.mouth is not None:
            text = self._decoder.decode(data)
            if text:
                self.hear_text(text)

    def tell(self):
        parts = []
        self._length = 0
        try:
            while True:
                parts.append(self._parts.popleft())
        except IndexError:
            pass
        mouth = self.mouth
        if parts and mouth is not None:
            mouth.say(self._category, u"".join(parts))

    def end(self):
        if self.mouth is not None:
            self.hear_text(self._decoder.decode(b"", True))
            self.tell()
            self.mouth = None


def _make_decoder(encoding):
    try:
        return _find_decoder(encoding or "utf-8")("replace")
    except (LookupError, TypeError):
        return _find_decoder("utf-8")("replace")


class tListening(object):
    """A stream in the place of another, which does all but tell what is written."""

    def __init__(self, stream, heard):
        self._stream, self._heard = stream, heard

    def writelines(self, lines):
        for line in lines:
            self.write(line)

    def flush(self):
        result = self._stream.flush()
        self._heard.tell()
        return result

    def detach(self):
        return tByteTee(self._stream.detach(), self._heard)

    def __getattr__(self, name):
        return getattr(self._stream, name)

    def __iter__(self):
        return iter(self._stream)

    def __enter__(self):
        self._stream.__enter__()
        return self

    def __exit__(self, *exc_info):
        self._heard.tell()
        return self._stream.__exit__(*exc_info)

    def __repr__(self):
        return repr(self._stream)


class tTee(tListening):
    """In the place of one of the program's text streams."""

    def __init__(self, stream, category, mouth):
        encoding = getattr(stream, "encoding", None)
        tListening.__init__(self, stream, tHeard(category, mouth, encoding))

    def write(self, text):
        if compat.PY2 and isinstance(text, compat.text_type):
            # `print` asks a file for its encoding, and nothing else.
            encoding = getattr(self._stream, "encoding", None) or "ascii"
            result = self._stream.write(text.encode(encoding))
        else:
            result = self._stream.write(text)
        if isinstance(text, compat.string_types):
            self._heard.hear_text(text)
        return result

    def let_go(self):
        self._heard.end()

    @property
    def buffer(self):
        return tByteTee(self._stream.buffer, self._heard)


class tByteTee(tListening):
    """In the place of the binary stream below, or of the one without a buffer below that."""

    def write(self, data):
        result = self._stream.write(data)
        if self._heard.mouth is not None:
            data = data if isinstance(data, bytes) else memoryview(data).tobytes()
            # One without a buffer tells how much it has taken, None for nothing.
            self._heard.hear_bytes(data[:result or 0])
        return result

    @property
    def raw(self):
        return tByteTee(self._stream.raw, self._heard)
