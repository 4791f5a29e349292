"""The program's side of the protocol, as the adapter sees it: a connection that may be lost."""
import queue
import threading

from tdbg.dap import wire


class tDebuggee:
    """The debugger inside the program.

    on_event(message), on_request(message), on_end() come on one thread.
    """

    def __init__(self, connection, on_event, on_request, on_end):
        self._connection = connection
        self._handlers = (on_event, on_request, on_end)
        self._pending = {}  # seq -> function(response)
        self._client_seqs = {}  # client's seq -> ours
        self._lock = threading.Lock()
        self._queue = queue.Queue()  # the program may be slow to read
        self._reader = threading.Thread(target=self._read, daemon=True)
        self.is_gone = False

    def start(self):
        threading.Thread(target=self._write, daemon=True).start()
        self._reader.start()

    def request(self, command, arguments, on_response, client_seq=None):
        """on_response(message); a made-up one when the program ends first."""
        seq = self._connection.next_seq()
        message = {"seq": seq, "type": "request", "command": command}
        if arguments is not None:
            message["arguments"] = arguments
        with self._lock:
            gone = self.is_gone
            if not gone:
                self._pending[seq] = (command, on_response)
                if client_seq is not None:
                    self._client_seqs[client_seq] = seq
        if gone:
            on_response(self._lost(command))
        else:
            self._queue.put(message)

    def seq_of(self, client_seq):
        """Our number for a request of the client's; 0 = no such."""
        with self._lock:
            return self._client_seqs.get(client_seq, 0)

    def respond(self, message):
        self._queue.put(message)

    def finish(self):
        """Take what has been sent, as the program has ended; returns when all of it is handled."""
        self._connection.end_reading()
        if threading.current_thread() is not self._reader:
            self._reader.join()

    def close(self):
        self._connection.close()

    def _write(self):
        while True:
            message = self._queue.get()
            if message is None or not self._connection.write(message):
                return

    def _read(self):
        on_event, on_request, on_end = self._handlers
        while True:
            try:
                message = self._connection.read()
            except (wire.tBadHeader, wire.tBadMessage):
                message = None
            if message is None:
                break
            kind = message.get("type")
            if kind == "event":
                on_event(message)
            elif kind == "request":
                on_request(message)
            else:
                self._take_response(message)
        self._lose_all()
        on_end(self)

    def _take_response(self, message):
        with self._lock:
            _, on_response = self._pending.pop(message.get("request_seq"), (None, None))
        if on_response is not None:
            on_response(message)

    def _lose_all(self):
        with self._lock:
            self.is_gone = True
            pending, self._pending = list(self._pending.values()), {}
        self._queue.put(None)
        self._connection.close()
        for command, on_response in pending:
            on_response(self._lost(command))

    @staticmethod
    def _lost(command):
        return {"type": "response", "success": False, "command": command, "lost": True,
                "message": "the program has ended"}
