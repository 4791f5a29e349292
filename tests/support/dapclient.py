"""A client of the Debug Adapter Protocol for tests.

    client = debug_directly(self, program)           # the debuggee alone, no adapter
    client.start_session({"stopOnEntry": True})      # initialize ... configurationDone
    stop = client.wait_stopped("entry")              # body of the event
    client.request("next", {"threadId": stop["threadId"]})

One thread reads; requests and events are found by what they are, whatever their order.  Nothing
sleeps: every wait ends with the message, with the end of the stream, or fails after kSeconds.
"""
from __future__ import absolute_import, division, print_function

import fcntl
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

from .library import library_path
from .marks import marks_of
from .programs import REPOSITORY, environment_with

kSeconds = 40
PACKAGE = os.path.join(REPOSITORY, "debug", "tdbg")


class NoAnswer(AssertionError):
    """What was waited for has not come."""


class Refused(AssertionError):
    """An error response; `response` is the whole message, `text` what it tells."""

    def __init__(self, response):
        error = (response.get("body") or {}).get("error") or {}
        self.response = response
        self.text = error.get("format") or response.get("message") or ""
        AssertionError.__init__(self, json.dumps([response.get("command"), self.text]))


class DapClient(object):
    """read(size) and write(bytes) of the other side's stream; close() ends both.

    let_go(): called by the thread that reads when it does so no more; a descriptor that is closed
    under it could be another file's when it reads on.
    """

    def __init__(self, read, write, close, let_go=lambda: None):
        self._read, self._write, self._close, self._let_go = read, write, close, let_go
        self._changed = threading.Condition()
        self._responses = {}  # request_seq -> response
        self._seq = 0
        self.messages = []    # everything received, in order
        self.events = []      # events nobody has waited for yet
        self.requests = []    # reverse requests nobody has answered yet
        self.at_end = False
        self._buffer = b""
        self.process = None   # of debug_directly() or start_adapter()
        self.capabilities = None
        reader = threading.Thread(target=self._read_all)
        reader.daemon = True
        reader.start()

    # --- messages ---

    def send(self, command, arguments=None, **more):
        """Send a request without waiting; returns its number."""
        message = dict({"type": "request", "command": command}, **more)
        if arguments is not None:
            message["arguments"] = arguments
        return self.send_message(message)

    def send_message(self, message):
        with self._changed:
            self._seq += 1
            message = dict({"seq": self._seq}, **message)
        data = json.dumps(message).encode("utf-8")
        self.send_bytes(b"Content-Length: " + str(len(data)).encode("ascii") + b"\r\n\r\n" + data)
        return message["seq"]

    def send_bytes(self, data):
        self._write(data)

    def response_to(self, seq, seconds=None):
        """The response to a request: the whole message."""
        return self._wait(lambda: self._responses.get(seq), "response {}".format(seq), seconds)

    def has_response_to(self, seq):
        return seq in self._responses

    def request(self, command, arguments=None, seconds=None):
        """The body of the response ({} where there is none); Refused for an error."""
        response = self.response_to(self.send(command, arguments), seconds)
        if not response.get("success"):
            raise Refused(response)
        return response.get("body") or {}

    def refused(self, command, arguments=None):
        """The text of the error response; fails when the request succeeds."""
        try:
            body = self.request(command, arguments)
        except Refused as why:
            return why.text
        raise AssertionError("{} succeeded: {!r}".format(command, body))

    def wait_event(self, name, predicate=None, seconds=None):
        """Body of the first event not yet taken that has the name and satisfies predicate(body)."""
        def find():
            for event in self.events:
                if event["event"] == name and (predicate is None
                                               or predicate(event.get("body") or {})):
                    self.events.remove(event)
                    return event
        return self._wait(find, "event " + name, seconds).get("body") or {}

    def seen_events(self, name):
        """Bodies of all events of that name so far, taken or not."""
        with self._changed:
            return [message.get("body") or {} for message in self.messages
                    if message.get("type") == "event" and message.get("event") == name]

    def wait_request(self, command, seconds=None):
        """A reverse request: the whole message."""
        def find():
            for message in self.requests:
                if message["command"] == command:
                    self.requests.remove(message)
                    return message
        return self._wait(find, "request " + command, seconds)

    def respond(self, request, body=None, success=True, message=None):
        response = {"type": "response", "request_seq": request["seq"], "success": success,
                    "command": request["command"]}
        if body is not None:
            response["body"] = body
        if message is not None:
            response["message"] = message
        self.send_message(response)

    def wait_end(self, seconds=None):
        """Until the other side closes the stream."""
        self._wait(lambda: self.at_end, "end of the stream", seconds)

    def _wait(self, find, what, seconds):
        end = time.time() + (seconds or kSeconds)
        with self._changed:
            while True:
                found = find()
                if found:
                    return found
                if self.at_end or time.time() >= end:
                    raise NoAnswer("no {}{}; the last messages:\n{}".format(
                        what, " before the end" if self.at_end else "",
                        "\n".join(json.dumps(message)[:600] for message in self.messages[-15:])))
                self._changed.wait(end - time.time())

    def _read_all(self):
        try:
            while True:
                message = self._read_message()
                if message is None:
                    break
                with self._changed:
                    self._take(message)
                    self._changed.notify_all()
        finally:
            self._let_go()
            with self._changed:
                self.at_end = True
                self._changed.notify_all()

    def _take(self, message):
        self.messages.append(message)
        if message["type"] == "response":
            self._responses[message["request_seq"]] = message
        elif message["type"] == "event":
            self.events.append(message)
        else:
            self.requests.append(message)

    def _read_message(self):
        while b"\r\n\r\n" not in self._buffer:
            if not self._fill():
                return None
        head, _, self._buffer = self._buffer.partition(b"\r\n\r\n")
        length = int(head.split(b":")[1])
        while len(self._buffer) < length:
            if not self._fill():
                return None
        data, self._buffer = self._buffer[:length], self._buffer[length:]
        return json.loads(data.decode("utf-8"))

    def _fill(self):
        try:
            data = self._read(65536)
        except (IOError, OSError, ValueError):
            data = b""
        self._buffer += data
        return bool(data)

    def close(self):
        """Hang up."""
        try:
            self._close()
        except (IOError, OSError, ValueError):
            pass

    # --- what every session does ---

    def initialize(self, **more):
        """The capabilities."""
        arguments = {"clientID": "test", "adapterID": "tdbg", "linesStartAt1": True,
                     "columnsStartAt1": True, "pathFormat": "path", "supportsVariableType": True,
                     "supportsVariablePaging": True}
        arguments.update(more)
        self.capabilities = self.request("initialize", arguments)
        return self.capabilities

    def start_session(self, arguments=None, request="launch", breakpoints=None, initialize=None):
        """initialize, launch or attach, breakpoints ({path: [line or SourceBreakpoint]}),
        configurationDone.

        Returns the bodies of the answers to setBreakpoints, by path.
        """
        if self.capabilities is None:
            self.initialize(**(initialize or {}))
        started = self.send(request, arguments or {})
        self.wait_event("initialized")
        answers = {}
        for path, places in (breakpoints or {}).items():
            answers[path] = self.set_breakpoints(path, places)
        self.request("configurationDone")
        response = self.response_to(started)
        if not response["success"]:
            raise Refused(response)
        return answers

    def set_breakpoints(self, path, places):
        """places: lines, names of marks in the file, or dicts of the protocol."""
        rows = []
        for place in places:
            row = dict(place) if isinstance(place, dict) else {"line": place}
            if not isinstance(row["line"], int):
                row["line"] = marks_of(path)[row["line"]]
            rows.append(row)
        return self.request("setBreakpoints",
                            {"source": {"path": path}, "breakpoints": rows})["breakpoints"]

    def wait_stopped(self, reason=None, seconds=None):
        """Body of the next `stopped`; fails when the reason is another."""
        stop = self.wait_event("stopped", seconds=seconds)
        if reason is not None and stop["reason"] != reason:
            raise AssertionError(
                "stopped for {!r} ({!r}), not {!r}".format(stop["reason"], stop, reason))
        return stop

    def stack(self, thread_id, **more):
        """The frames of a thread, the innermost first."""
        return self.request("stackTrace", dict({"threadId": thread_id}, **more))["stackFrames"]

    def place(self, thread_id):
        """(function, line) of the innermost frame; a marked line is given by its name."""
        frame = self.stack(thread_id, levels=1)[0]
        return (str(frame["name"]), self.line_name(frame))

    @staticmethod
    def line_name(frame):
        path = (frame.get("source") or {}).get("path")
        if path and os.path.exists(path):
            for name, number in marks_of(path).items():
                if number == frame["line"]:
                    return str(name)
        return frame["line"]

    def go(self, command, thread_id, reason="step", **more):
        """A command that resumes, and the stop that follows: ((function, line), body)."""
        self.request(command, dict({"threadId": thread_id}, **more))
        stop = self.wait_stopped(reason)
        return self.place(stop["threadId"]), stop

    def step(self, command, thread_id, **more):
        """(function, line) after a step."""
        return self.go(command, thread_id, **more)[0]

    def resume(self, thread_id):
        self.request("continue", {"threadId": thread_id})

    def evaluate(self, expression, frame_id=None, context="watch"):
        arguments = {"expression": expression, "context": context}
        if frame_id is not None:
            arguments["frameId"] = frame_id
        return self.request("evaluate", arguments)["result"]

    def locals_of(self, frame_id):
        """{name: text} of the frame's first scope."""
        scope = self.request("scopes", {"frameId": frame_id})["scopes"][0]
        rows = self.request("variables",
                            {"variablesReference": scope["variablesReference"]})["variables"]
        return {row["name"]: row["value"] for row in rows}

    def wait_exit(self, seconds=None):
        """Exit status of the process that was started (negative: the signal)."""
        return wait_for_process(self.process, seconds)


def wait_for_process(process, seconds=None):
    done = threading.Event()
    waiter = threading.Thread(target=lambda: (process.wait(), done.set()))
    waiter.daemon = True
    waiter.start()
    done.wait(seconds or kSeconds)
    if not done.is_set():
        raise NoAnswer("process {} does not end".format(process.pid))
    return process.returncode


# --- ways to a debuggee ----------------------------------------------------------------------


def client_of_socket(connected):
    return DapClient(connected.recv, connected.sendall, lambda: connected.shutdown(2),
                     connected.close)


def client_of_process(process):
    """For a process that speaks through its standard streams."""
    def write(data):
        process.stdin.write(data)
        process.stdin.flush()

    def close():
        process.stdin.close()
    # The reader's own: whoever ends the process closes the other one.
    reading = os.dup(process.stdout.fileno())
    if sys.version_info[0] == 2:  # where children would inherit it
        fcntl.fcntl(reading, fcntl.F_SETFD, fcntl.FD_CLOEXEC)
    client = DapClient(
        lambda size: os.read(reading, size), write, close, lambda: os.close(reading))
    client.process = process
    return client


def debug_directly(test, program, args=(), env=None, cwd=None, flags=(), session=None,
                   inherited=(), **streams):
    """A program in the debugger with this client at the other end of its socket, without an
    adapter.

    program: a path, or a list such as ["-m", "module"].  inherited: descriptors that it gets, too.
    streams: stdin, stdout, stderr of Popen.
    """
    folder = tempfile.mkdtemp()
    test.addCleanup(shutil.rmtree, folder, True)
    path = os.path.join(folder, "socket")
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        listener.bind(path)
        listener.listen(1)
        listener.settimeout(kSeconds)
        if sys.version_info[0] == 2:
            streams["close_fds"] = not inherited
        else:
            streams["pass_fds"] = inherited
        target = [program] if not isinstance(program, list) else program
        argv = [sys.executable] + list(flags) + target + list(args)
        process = subprocess.Popen(
            argv, env=debuggee_environment(argv, path, env, cwd, session), cwd=cwd, **streams)
        test.addCleanup(end_process, process)
        connected, _ = listener.accept()
    finally:
        listener.close()
    connected.settimeout(None)
    client = client_of_socket(connected)
    client.process = process
    test.addCleanup(client.close)
    return client


def debuggee_environment(argv, path, env=None, cwd=None, session=None):
    """What the launcher hands to the process that is to be debugged."""
    environment = environment_with(env)
    settings = {
        "library": library_path(), "argv": argv, "pythonpath": environment.get("PYTHONPATH"),
        "cwd": cwd or os.getcwd(), "front_end": "dap", "socket": path,
        "session": dict({"launched": True}, **(session or {}))}
    startup = os.path.join(PACKAGE, "startup")
    path = environment.get("PYTHONPATH")
    environment["PYTHONPATH"] = startup + (os.pathsep + path if path else "")
    environment["TDBG_START"] = repr(settings) if sys.version_info[0] == 2 else ascii(settings)
    return environment


def adapter_python():
    """A Python 3 that can run the adapter: the test's own where it is one."""
    if sys.version_info[0] == 3:
        return sys.executable
    for folder in os.environ.get("PATH", "").split(os.pathsep) + ["/usr/bin"]:
        path = os.path.join(folder, "python3")
        if os.path.exists(path) and not is_script(path):  # it may need more than it is given
            return path
    raise LookupError("no python3 for the adapter")


def is_script(path):
    with open(path, "rb") as source:
        return source.read(2) == b"#!"


def adapter_argv(*arguments):
    return [adapter_python(), PACKAGE, "--library", library_path(), "adapter"] + list(arguments)


def start_adapter(test, *arguments, **options):
    """A client of an adapter that speaks through its standard streams."""
    process = subprocess.Popen(
        adapter_argv(*arguments), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        close_fds=True, **options)
    test.addCleanup(end_process, process)
    client = client_of_process(process)
    test.addCleanup(client.close)
    return client


def launch_through_adapter(test, program, arguments=None, breakpoints=None, **options):
    """A program that an adapter has launched; (client, answers to setBreakpoints)."""
    client = start_adapter(test, **options)
    configuration = {"program": program, "python": sys.executable}
    configuration.update(arguments or {})
    return client, client.start_session(configuration, breakpoints=breakpoints)


def end_process(process):
    if process.poll() is None:
        try:
            process.kill()
        except OSError:
            pass
    process.wait()
    for stream in (process.stdin, process.stdout, process.stderr):
        if stream is not None:
            stream.close()
