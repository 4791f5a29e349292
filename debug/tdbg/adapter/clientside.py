"""What a session sends to its client, and how the client's requests are checked."""
import threading

from tdbg.adapter import schema
from tdbg.dap import wire


class tClient:
    """The client at a wire.tConnection; schema: its requests' schema.tSchema."""

    def __init__(self, connection, requests_schema):
        self._connection, self._schema = connection, requests_schema
        self._lock = threading.RLock()
        self._reverse = {}  # seq of a request to the client -> function(response)
        self.read, self.write, self.close = connection.read, connection.write, connection.close

    def check(self, message, is_first):
        """Raises schema.tWrong; is_first: nothing was asked before."""
        seq = message.get("seq")
        if not isinstance(seq, int) or isinstance(seq, bool):
            if isinstance(seq, float) and seq.is_integer():
                message["seq"] = int(seq)
            else:
                raise schema.tWrong("`seq` must be a whole number")
        self._schema.check(message)
        command = message["command"]
        if is_first and command not in ("initialize", "disconnect"):
            raise schema.tWrong(
                "`{}` comes too early: `initialize` is the first request".format(command))
        if not self._schema.knows(command):
            raise schema.tWrong("there is no request `{}`".format(command))

    def respond(self, request, body=None):
        self.write(wire.answer(request, body))

    def fail(self, request, text, show_user=False):
        self.write(wire.refusal(request, text, show_user))

    def send_event(self, name, body=None):
        message = {"type": "event", "event": name}
        if body is not None:
            message["body"] = body
        self.write(message)

    def tell(self, text):
        """A line of the debugger's own among the program's output."""
        self.send_event("output", {"category": "console", "output": text + "\n"})

    def ask(self, command, arguments, on_response):
        """A request to the client; on_response(response) on the thread that reads its messages."""
        seq = self._connection.next_seq()
        with self._lock:
            self._reverse[seq] = on_response
        self.write({"seq": seq, "type": "request", "command": command, "arguments": arguments})

    def take_response(self, message):
        """The client's answer to ask()."""
        with self._lock:
            on_response = self._reverse.pop(message.get("request_seq"), None) if isinstance(
                message.get("request_seq"), int) else None
        if on_response is not None:
            on_response(message)
