"""One client and its program: checks what the client asks, and passes it on.

client (editor) <-> tSession <-> tDebuggee, the debugger inside the program

The debuggee speaks the protocol itself.  Between the two, this side starts and ends the program
(program.py, ending.py), shows its output, and keeps the breakpoints, so that they live through a
restart (memory.py); while there is no debugger, it answers itself (standin.py); all else is passed
on, with new sequence numbers.  No message waits for another one: the client's requests are read on
one thread, what the program's side sends on a second, and what the program writes on a third.
"""
import threading

from tdbg.adapter import debuggee as debuggees
from tdbg.adapter import clientside, ending, memory, program, schema, standin
from tdbg.dap import capabilities, config, endpoint, wire

kNew, kInitialized, kStarting = "new", "initialized", "starting"
kRunning, kEnded = "running", "ended"

kAnswerSeconds = 2.0    # for the program's side to let go of the program
kDisconnectSeconds = 1.0  # for each step of ending a program whose client is leaving
# Events instead of a debugger.
kRefusedEvent = "tdbg/refused"  # the program cannot be run
kRunsEvent = "tdbg/runs"        # it is going to run, without one
kAsStarted = ("exited", "terminated")  # told by whoever has started the program


class tSession:
    """options: main.tOptions; desk: main.tDesk."""

    def __init__(self, client, options, desk):
        self._client = clientside.tClient(client, options.schema)
        self._options, self._desk = options, desk
        self._admitted = False
        self._lock = threading.RLock()
        self._state = kNew
        self._client_arguments = {}
        self._config = None
        self._start_request = None  # launch, attach or restart that is not answered yet
        self._program = None
        self._debuggee = None
        self._messenger = None      # the same, or one who only tells how the start went
        self._connecting = None     # what an attach waits for; to be closed
        self._waiting = []          # requests for a program that is being started
        self._memory = memory.tMemory()
        self._stand_in = standin.tStandIn(self._client, self._memory)
        self._replays = False       # the client is not asked for breakpoints again
        self._restarting = None
        self._refusal = None
        self._threads = set()
        self._ending = None         # the ending.tEnding of the program that is being ended
        self._is_leaving = False
        self._done = threading.Event()
        self._ended_event = threading.Event()
        self._stderr_tail = ""

    # --- the client's messages ---

    def run(self):
        """Until the client has gone and its program has been seen to."""
        try:
            while not self._done.is_set():
                try:
                    message = self._client.read()
                except wire.tBadMessage as why:
                    self._client.fail({}, "not understood: {}".format(why))
                    continue
                except wire.tBadHeader:
                    break
                if message is None:
                    break
                self._handle(message)
        finally:
            self._see_to_program()
            self._client.close()
            if self._admitted:
                self._desk.leave()

    def _handle(self, message):
        if message.get("type") == "response":
            return self._client.take_response(message)
        try:
            self._client.check(message, is_first=self._state == kNew)
        except schema.tWrong as why:
            return self._client.fail(message, str(why))
        handler = kHandlers.get(message["command"], tSession._relay)
        try:
            handler(self, message)
        except program.tCannotStart as why:
            self._client.fail(message, str(why), show_user=True)
        except (config.tConfigError, endpoint.tRefused) as why:
            self._client.fail(message, str(why), show_user=True)
        except Exception as why:  # ours: the session goes on
            self._client.fail(message, "internal error: {}: {}".format(type(why).__name__, why))

    # --- initialize, launch, attach ---

    def _initialize(self, request):
        if self._state != kNew:
            return self._client.fail(request, "`initialize` was there already")
        self._client_arguments = request.get("arguments", {})
        self._state = kInitialized
        self._client.respond(request, capabilities.kCapabilities)

    def _begin(self, request, kind):
        """Check what launch and attach have in common."""
        if self._state != kInitialized:
            raise config.tConfigError("a program is being debugged already")
        arguments = request.get("arguments", {})
        if self._desk.needs_token and not endpoint.same_token(
                self._options.token or "", arguments.get("token")):
            self._client.fail(request, "the token is missing or wrong", show_user=True)
            self._desk.count_failure()
            self._done.set()
            self._client.close()
            return False
        self._config = config.tConfig(kind, arguments)
        if kind == config.kLaunch:
            arguments.pop("token", None)  # it was for us
        if not self._admitted:
            refused = self._desk.admit(self._client_arguments, arguments)
            if refused is not None:
                raise config.tConfigError(refused)
            self._admitted = True
        if self._config.warnings:
            self._client.tell("\n".join("tdbg: " + text for text in self._config.warnings))
        self._start_request = request
        self._state = kStarting
        return True

    def _launch(self, request):
        if self._begin(request, config.kLaunch):
            self._start_program(request)

    def _start_program(self, request):
        kind = self._config.console
        in_terminal = kind != config.kConsoles[0]
        if in_terminal and not self._client_arguments.get("supportsRunInTerminalRequest"):
            self._client.tell("tdbg: this editor has no terminal to run programs in; they have no "
                              "input here")
            self._config.console, in_terminal = config.kConsoles[0], False
            if self._config.raw.get("redirectOutput") is None:
                self._config.redirect_output = True
        self._program = program.tProgram(self._config, self, self._options.library)
        self._refusal, self._stderr_tail = None, ""
        try:
            self._program.start(
                (lambda arguments, answered: self._client.ask("runInTerminal", arguments, answered))
                if in_terminal else None,
                self._client_arguments.get("supportsArgsCanBeInterpretedByShell", False))
        except program.tCannotStart:
            self._program, self._start_request, self._state = None, None, kInitialized
            raise

    def _attach(self, request):
        from tdbg.adapter import attaching

        if not self._begin(request, config.kAttach):
            return
        try:
            self._connecting = attaching.connector_of(self._config, self._options)
        except Exception:
            self._state, self._start_request = kInitialized, None
            raise
        if self._connecting.note:
            self._client.tell("tdbg: " + self._connecting.note)
        threading.Thread(target=self._connect, args=(self._connecting,), daemon=True).start()

    def _connect(self, connecting):
        try:
            connected = connecting.connect()
        except (endpoint.tRefused, OSError) as why:
            return self._fail_start(getattr(why, "strerror", None) or str(why))
        if connected is None or self._done.is_set():
            return
        arguments = dict(self._start_request.get("arguments", {}))
        token = arguments.get("token") or self._options.debuggee_token
        if token:
            arguments["token"] = token
        self._start_request["arguments"] = arguments
        self.on_debuggee(wire.tConnection(connected))

    def _fail_start(self, text):
        with self._lock:
            request, self._start_request = self._start_request, None
            waiting, self._waiting = self._waiting, []
            if self._state == kStarting:
                is_first = request and request["command"] != "restart"
                self._state = kInitialized if is_first else kEnded
            self._program = None
        if request is not None:
            self._client.fail(request, text, show_user=True)
        for message in waiting:
            self._client.fail(message, "there is no program")

    # --- calls of tProgram ---

    def on_output(self, category, text):
        if category is not None:
            self._client.send_event("output", {"category": category, "output": text})
        if self._debuggee is None:
            self._stderr_tail = (self._stderr_tail + text)[-1000:]

    def on_started(self, pid):
        if self._config.no_debug:
            self._client.send_event("process", {
                "name": self._config.program or self._config.module or "-c", "systemProcessId": pid,
                "isLocalProcess": True, "startMethod": "launch"})

    def on_debuggee(self, connection):
        with self._lock:
            if self._start_request is None:
                return connection.close()
            debuggee = debuggees.tDebuggee(
                connection, self._take_event, self._take_request, self._lose_debuggee)
            self._messenger = debuggee
            if not self._config.no_debug:
                self._debuggee = debuggee
            debuggee.start()
        if not self._config.no_debug:
            debuggee.request("initialize", self._client_arguments, self._initialized_debuggee)

    def _initialized_debuggee(self, response):
        """The debugger in the program is there (or has refused, which its end will tell)."""
        if response.get("lost"):
            return
        request = self._start_request
        is_first = request["command"] != "restart"
        arguments = dict(request.get("arguments") or {} if is_first else self._config.raw)
        command = "launch" if self._config.kind == config.kLaunch else "attach"
        if command == "launch":
            arguments["console"] = self._config.console  # an editor without terminals gets another
        self._debuggee.request(command, arguments, self._started)
        with self._lock:
            waiting, self._waiting = self._waiting, []
            self._state = kRunning
        for message in waiting:
            self._relay(message)

    def _started(self, response):
        """The answer to launch, attach or the second half of restart."""
        if response.get("lost"):
            return  # the end of the program answers
        with self._lock:
            request, self._start_request = self._start_request, None
        if request is None:
            return
        if response.get("success"):
            self._client.respond(request, response.get("body"))
        else:
            if self._program is None:  # the client may try again, with another token for one
                with self._lock:
                    debuggee, self._debuggee, self._messenger = self._debuggee, None, None
                    self._state = kInitialized
                debuggee.close()
            self._pass_response(request, response)

    def on_exit(self, status, why):
        """The program has ended and all its output has been sent."""
        if self._ending is not None:
            self._ending.hurry()
        messenger = self._messenger
        if messenger is not None:
            messenger.finish()
        with self._lock:
            restarting, self._restarting = self._restarting, None
            self._debuggee = self._messenger = None
        if restarting is not None:
            return self._start_again(restarting)
        if self._start_request is not None:
            self._fail_start(self._reason_of_failure(status, why))
            return self._ended_event.set()
        self._finish(status)

    def _reason_of_failure(self, status, why):
        if self._refusal or why:
            return self._refusal or why
        lines = self._stderr_tail.strip().splitlines()
        return "the interpreter ended with status {} before the program began{}".format(
            status, ": " + lines[-1] if lines else "")

    def _finish(self, status):
        with self._lock:
            if self._state == kEnded:
                return
            self._state = kEnded
        if status is not None:
            self._client.send_event("exited", {"exitCode": status})
        self._client.send_event("terminated", {})
        self._ended_event.set()

    # --- what the program's side sends ---

    def _take_event(self, message):
        name, body = message.get("event"), message.get("body") or {}
        if name == kRefusedEvent:
            self._refusal = str(body.get("text"))
            return
        if name == kRunsEvent and self._config.no_debug:
            return self._start_undebugged()
        if name in kAsStarted and self._program is not None:
            return
        if name == "initialized" and self._replay():
            return
        if name == "stopped" and self._program is not None:
            self._program.drain_output()  # what it wrote before comes first
        if name == "thread":
            (self._threads.add if body.get("reason") == "started" else self._threads.discard)(
                body.get("threadId"))
        elif name == "breakpoint" and isinstance(body.get("breakpoint"), dict):
            self._memory.translate(body["breakpoint"])
        elif name == "stopped" and "hitBreakpointIds" in body:
            body["hitBreakpointIds"] = [
                self._memory.number(number) for number in body["hitBreakpointIds"]]
        message.pop("seq", None)
        self._client.write(message)
        if name == "terminated":
            with self._lock:
                self._state = kEnded

    def _take_request(self, message):
        """Children are the only thing that a program may ask the client for."""
        debuggee, seq = self._debuggee, message.get("seq")

        def answer(success, **more):
            if debuggee is not None:
                debuggee.respond(dict({
                    "type": "response", "request_seq": seq, "success": success,
                    "command": message.get("command")}, **more))

        if message.get("command") != "startDebugging" or not self._client_arguments.get(
                "supportsStartDebuggingRequest"):
            return answer(False, message="the client does not know this request")
        child = (message.get("arguments") or {}).get("configuration") or {}
        self._desk.announce(child)
        self._client.ask("startDebugging", message.get("arguments"), lambda response: answer(
            bool(response.get("success")), body=response.get("body") or {}))

    def _lose_debuggee(self, debuggee):
        """The connection to the program's side has ended; a program that we started may go on."""
        with self._lock:
            if self._debuggee is debuggee and self._program is None:
                self._debuggee = None
            else:
                return
            request = self._start_request
        if request is not None:
            return self._fail_start(self._refusal or "the program has closed the connection")
        self._finish(None)

    def _replay(self):
        """Send the program what was set before it; whether that is all that it needs.

        Nobody else sends requests at this time, but a client that does not wait for `initialized`.
        """
        with self._lock:
            alone = self._replays or self._stand_in.is_configured
            self._replays = self._stand_in.is_configured = False
        for kept in self._memory.all():
            self._debuggee.request(
                kept.command, kept.arguments,
                lambda response, kept=kept: self._take_replay(kept, response))
        if alone:
            self._debuggee.request("configurationDone", {}, lambda response: None)
        return alone

    def _take_replay(self, kept, response):
        for row in self._memory.adopt(kept, response):
            self._client.send_event("breakpoint", {"reason": "changed", "breakpoint": row})

    # --- all other requests ---

    def _relay(self, request):
        command = request["command"]
        with self._lock:
            state, debuggee = self._state, self._debuggee
            if state == kStarting and not self._config.no_debug:
                self._waiting.append(request)
                return
        if state == kInitialized:
            return self._stand_in.answer_early(request)
        if self._config.no_debug:
            return self._stand_in.answer_undebugged(request, has_ended=state == kEnded)
        if command == "configurationDone" and state == kEnded:
            return self._client.respond(request)  # it was too quick
        if state == kEnded or debuggee is None:
            return self._client.fail(request, "the program has ended")

        def answered(response):
            if command in memory.kKeptRequests and response.get("success"):
                self._memory.keep_answered(request, response)
            self._pass_response(request, response)

        debuggee.request(command, request.get("arguments"), answered, request["seq"])

    def _pass_response(self, request, response):
        if response.get("lost"):
            return self._client.fail(request, response["message"])
        response.pop("seq", None)
        response["request_seq"] = request["seq"]
        response["command"] = request["command"]
        self._client.write(response)

    def _start_undebugged(self):
        with self._lock:
            request, self._start_request = self._start_request, None
            waiting, self._waiting = self._waiting, []
            self._state = kRunning
        self._client.send_event("initialized")
        if request is not None:
            self._client.respond(request)
        for message in waiting:
            self._relay(message)

    def _cancel(self, request):
        arguments = request.get("arguments", {})
        debuggee = self._debuggee
        if "requestId" in arguments and debuggee is not None:
            seq = debuggee.seq_of(arguments["requestId"])
            if seq:
                arguments["requestId"] = seq
                return self._relay(request)
        self._client.respond(request)  # it has been answered, or is none of ours

    # --- restart, terminate, disconnect ---

    def _restart(self, request):
        if self._config is None or self._config.kind != config.kLaunch:
            return self._client.fail(
                request, "only a program that was launched can be started again")
        with self._lock:
            if self._start_request is not None or self._restarting is not None or self._is_leaving:
                busy = True
            else:
                busy, ended = False, self._state == kEnded
                arguments = (request.get("arguments") or {}).get("arguments")
                if arguments:
                    self._config = config.tConfig(config.kLaunch, arguments)
                if not ended:
                    self._restarting = request
        if busy:
            return self._client.fail(request, "the program is just being started or ended")
        if ended:
            return self._start_again(request)
        self._program.kill()

    def _start_again(self, request):
        for thread in sorted(self._threads):
            self._client.send_event("thread", {"reason": "exited", "threadId": thread})
        with self._lock:
            self._threads.clear()
            self._memory.begin_next_run()
            self._replays = True
            self._start_request, self._state = request, kStarting
            self._ended_event.clear()
            self._ending = None
        try:
            self._start_program(request)
        except program.tCannotStart as why:
            self._client.fail(request, str(why), show_user=True)
            self._finish(None)

    def _terminate(self, request):
        if self._state == kEnded:
            # some clients ask when they are told that it has ended
            return self._client.respond(request)
        if self._state == kInitialized or self._program is None and self._debuggee is None:
            return self._client.fail(request, "there is no program")
        if self._program is None:
            return self._relay(request)
        self._client.respond(request)
        self._end_program(self._config.kill_timeout)

    def _end_program(self, seconds):
        """Ask it to end, more sternly each time that it does not; a second call hurries."""
        with self._lock:
            if self._ending is not None:
                return self._ending.hurry()
            self._ending = ending.tEnding(
                self._program, self._debuggee, self._config.on_terminate)
        self._ending.start(seconds)

    def _disconnect(self, request):
        if self._state == kNew:
            self._client.respond(request)
            self._done.set()
            return
        arguments = request.get("arguments") or {}
        terminates = arguments.get("terminateDebuggee")
        if self._leave(terminates, arguments, request):
            self._client.respond(request)

    def _see_to_program(self):
        """The client has gone."""
        if not self._done.is_set():
            self._leave(None, {}, None)
        if self._connecting is not None:
            self._connecting.close()

    def _leave(self, terminates, arguments, request):
        """Whether the request is still to be answered; sets _done when nothing is left to do."""
        launched = self._program is not None and not self._program.ended.is_set()
        if launched and terminates is not False:
            with self._lock:
                self._restarting = None
                self._is_leaving = True
            self._end_program(min(self._config.kill_timeout, kDisconnectSeconds))
            self._ended_event.wait()
            self._done.set()
            return request is not None
        if launched:
            self._program.release()
        debuggee = self._debuggee
        if debuggee is not None and self._state != kEnded:
            arguments = dict(arguments, terminateDebuggee=bool(terminates))
            answered = threading.Event()
            debuggee.request("disconnect", arguments, lambda response: answered.set())
            answered.wait(kAnswerSeconds)
            debuggee.close()
        if self._connecting is not None:
            self._connecting.close()
        self._done.set()
        return request is not None


kHandlers = {
    "initialize": tSession._initialize,
    "launch": tSession._launch,
    "attach": tSession._attach,
    "restart": tSession._restart,
    "terminate": tSession._terminate,
    "disconnect": tSession._disconnect,
    "cancel": tSession._cancel,
}
