"""What a program writes into its pipes, as texts in the order of arrival."""
import codecs
import os
import select
import threading

kReadSize = 65536
# Of one stream at a time, so that one that never pauses does not keep us from the rest.
kMaxReads = 16


class tOutput:
    """Reads pipes in a thread of its own.

    on_text(category, text) is called by one thread at a time.

    Reading never waits for the one who asks: a program that writes much is slowed down by the
    client at most, never by us.
    """

    def __init__(self, on_text):
        self._on_text = on_text
        self._streams = {}  # descriptor -> (category, decoder)
        self._lock = threading.Lock()

    def add(self, descriptor, category):
        """Owns the descriptor from here on."""
        os.set_blocking(descriptor, False)
        decoder = codecs.getincrementaldecoder("utf-8")(errors="replace")
        self._streams[descriptor] = (category, decoder)

    def start(self):
        threading.Thread(target=self._run, daemon=True).start()

    def drain(self):
        """All that was written before the call is passed on."""
        with self._lock:
            for descriptor in list(self._streams):
                while self._read(descriptor):
                    pass

    def _run(self):
        while self._streams:
            poll = select.poll()
            for descriptor in list(self._streams):
                poll.register(descriptor, select.POLLIN)
            ready = poll.poll()
            with self._lock:
                for descriptor, _ in ready:
                    self._read_some(descriptor)

    def _read_some(self, descriptor):
        """Not all there is: the other pipes wait."""
        for _ in range(kMaxReads):
            if not self._read(descriptor):
                return

    def _read(self, descriptor):
        """False when there is nothing to read, or nothing any more."""
        if descriptor not in self._streams:
            return False
        category, decoder = self._streams[descriptor]
        try:
            data = os.read(descriptor, kReadSize)
        except BlockingIOError:
            return False
        except OSError:
            data = b""
        text = decoder.decode(data, final=not data)
        if text:
            self._on_text(category, text)
        if not data:
            del self._streams[descriptor]
            os.close(descriptor)
        return bool(data)
