"""A program that the adapter starts: how it is run, what it writes, how it ends."""
import os
import shlex
import shutil
import subprocess
import sys
import threading

import _socket

from tdbg.adapter import environment, output
from tdbg.dap import endpoint, wire

kHere = os.path.dirname(os.path.abspath(__file__))
kLauncher = os.path.join(kHere, "launcher.py")
kMain = os.path.join(os.path.dirname(kHere), "__main__.py")
kLostStatus = 129  # its terminal was closed, and its launcher with it
kKinds = {"integratedTerminal": "integrated", "externalTerminal": "external"}


class tCannotStart(Exception):
    """In one line, for the user."""


class tProgram:
    """One run.  owner gets the calls (each on a thread of ours):

    on_output(category, text)
    on_started(pid)
    on_debuggee(connection)   the program's side of the debugger has connected
    on_exit(status, why)      once; why: text when it could not be run at all
    """

    def __init__(self, config, owner, library=None):
        self.config, self._owner, self._library = config, owner, library
        self.pid = None
        self.ended = threading.Event()
        self.folder = None
        self._launcher = None   # connection to it
        self._process = None    # the launcher, where it is our child
        self._output = output.tOutput(owner.on_output)
        self._listeners = []
        self._lock = threading.Lock()
        self._status = None

    # --- start ---

    def start(self, run_in_terminal, shell_reads_arguments=False):
        """run_in_terminal(arguments, on_response): None to run it below the adapter.

        tCannotStart for what can be seen at once.
        """
        config = self.config
        cwd = os.path.abspath(os.path.expanduser(config.cwd or os.curdir))
        if not os.path.isdir(cwd):
            raise tCannotStart("`cwd`: there is no folder {}".format(cwd))
        changes = self._environment_changes()
        self.folder = endpoint.make_private_folder()
        try:
            self._listen("launcher", self._serve_launcher)
            self._listen("debuggee", self._serve_debuggee)
        except OSError as why:
            self._clean_up()
            raise tCannotStart("cannot make a socket in {}: {}".format(self.folder, why.strerror))
        in_shell = run_in_terminal and shell_reads_arguments and isinstance(config.args, str)
        try:
            command = self._command(cwd, in_shell)
            if run_in_terminal is None:
                self._start_below(command, changes, cwd)
            else:
                self._start_in_terminal(run_in_terminal, command, changes, cwd, in_shell)
        except tCannotStart:
            self._clean_up()
            raise

    def _environment_changes(self):
        """{name: text or None}"""
        changes = {endpoint.kTokenVariable: None} if endpoint.kTokenVariable in os.environ else {}
        if self.config.env_file is not None:
            try:
                changes.update(environment.read_file(
                    os.path.expanduser(self.config.env_file), dict(os.environ)))
            except (OSError, UnicodeError) as why:
                raise tCannotStart("`envFile`: cannot read {}: {}".format(
                    self.config.env_file, getattr(why, "strerror", None) or why))
        changes.update(self.config.env)
        return changes

    def _command(self, cwd, in_shell):
        config = self.config
        python = list(config.python or [sys.executable])
        python[0] = os.path.expanduser(python[0])
        if os.sep not in python[0]:
            python[0] = shutil.which(python[0]) or shutil.which("python" + python[0]) or python[0]
        words = python + config.python_args + [kMain]
        words += ["--adapter", os.path.join(self.folder, "debuggee")]
        if config.no_debug:
            words += ["--no-debug"]
        if self._library is not None:
            words += ["--library", self._library]
        if not in_shell and self._is_captured():
            words += ["--captured"]
        if config.module is not None:
            words += ["-m", config.module]
        elif config.code is not None:
            words += ["-c", config.code]
        else:
            words += ["--", os.path.expanduser(config.program)]
        if isinstance(config.args, list):
            return words + config.args
        if in_shell:
            return [shlex.quote(word) for word in words] + [config.args]
        try:
            return words + shlex.split(config.args)
        except ValueError as why:
            raise tCannotStart("`args`: {}".format(why))

    def _is_captured(self):
        return self.config.console == "internalConsole"

    def _start_below(self, command, changes, cwd):
        variables = dict(os.environ)
        for name, value in changes.items():
            if value is None:
                variables.pop(name, None)
            else:
                variables[name] = value
        pipes, mine = {}, []
        for category in ("stdout", "stderr"):
            reading, writing = os.pipe()
            pipes[category] = writing
            mine.append(reading)
            if self.config.redirect_output:
                self._output.add(reading, category)
            else:
                self._output.add(reading, None)
        try:
            self._process = subprocess.Popen(
                self._launcher_command("new-session", mine) + command,
                stdin=subprocess.DEVNULL, stdout=pipes["stdout"], stderr=pipes["stderr"],
                env=variables, cwd=cwd, pass_fds=mine, start_new_session=True)
        except (OSError, ValueError) as why:
            raise tCannotStart("cannot start a process: {}".format(why))
        finally:
            for descriptor in pipes.values():
                os.close(descriptor)
        self._output.start()

    def _start_in_terminal(self, run_in_terminal, command, changes, cwd, in_shell):
        launcher = self._launcher_command("terminal", [])
        if in_shell:
            launcher = [shlex.quote(word) for word in launcher]
        arguments = {
            "kind": kKinds[self.config.console],
            "title": "tdbg: " + (
                self.config.module or os.path.basename(self.config.program or "-c")),
            "cwd": cwd,
            "args": launcher + command,
        }
        if changes:
            arguments["env"] = changes
        if in_shell:
            arguments["argsCanBeInterpretedByShell"] = True

        def answered(response):
            if not response.get("success"):
                self._end(None, "the editor cannot run it in a terminal: {}".format(
                    response.get("message") or "no reason given"))

        run_in_terminal(arguments, answered)

    def _launcher_command(self, mode, pipes):
        # -S and -E: nothing of the user's set-up has to be loaded to start a process.
        return [sys.executable, "-S", "-E", kLauncher, os.path.join(self.folder, "launcher"), mode,
                ",".join(map(str, pipes)) or "-"]

    # --- what arrives ---

    def _listen(self, name, serve):
        path = os.path.join(self.folder, name)
        listener = endpoint.listen_unix(path)
        thread = threading.Thread(target=serve, args=(listener,), daemon=True)
        self._listeners.append((path, listener, thread))
        thread.start()

    def _accept(self, listener):
        """A connection of our own user's; None when nobody is to come any more
        (_stop_listening)."""
        try:
            while True:
                connected = endpoint.accept(listener)
                pid, uid = endpoint.peer_of_unix(connected)
                if pid != os.getpid() and uid == os.getuid():
                    return connected
                connected.close()
                if pid == os.getpid():
                    return None
        except OSError:
            return None

    def _stop_listening(self):
        """Whoever has connected before is still heard."""
        for path, listener, thread in self._listeners:
            if thread is threading.current_thread():
                continue
            try:
                endpoint.connect_unix(path).close()  # comes last
            except OSError:
                continue
            thread.join()

    def _serve_launcher(self, listener):
        connected = self._accept(listener)
        if connected is None:
            return
        with self._lock:
            self._launcher = connected
        status, why, lines = kLostStatus, None, b""
        while True:
            try:
                data = connected.recv(4096)
            except OSError:
                data = b""
            if not data:
                break
            lines += data
            while b"\n" in lines:
                line, _, lines = lines.partition(b"\n")
                word, _, rest = os.fsdecode(line).partition(" ")
                if word == "started":
                    self.pid = int(rest)
                    self._owner.on_started(self.pid)
                elif word == "exited":
                    status = int(rest)
                elif word == "failed":
                    status, why = None, rest
        self._tell("heard")
        self._end(status, why)

    def _serve_debuggee(self, listener):
        connected = self._accept(listener)
        if connected is not None:
            self._owner.on_debuggee(wire.tConnection(connected))
            self._accept(listener)  # there is but one; this is for _stop_listening()

    # --- end ---

    def _end(self, status, why=None):
        with self._lock:
            if self.ended.is_set():
                return
            self.ended.set()
        self._output.drain()
        self._stop_listening()
        self._clean_up()
        if self._process is not None:
            self._process.wait()
        self._owner.on_exit(status, why)

    def drain_output(self):
        self._output.drain()

    def signal(self, number):
        self._tell("signal {}".format(int(number)))

    def kill(self):
        if self._launcher is None:
            self._end(None, "it was never started")  # the editor's terminal may still try: in vain
        self._tell("kill")

    def release(self):
        """It may outlive the adapter."""
        self._tell("release")

    def _tell(self, line):
        with self._lock:
            if self._launcher is not None:
                try:
                    self._launcher.sendall(line.encode("ascii") + b"\n")
                except OSError:
                    pass

    def _clean_up(self):
        for _, listener, _ in self._listeners:
            try:
                listener.shutdown(_socket.SHUT_RDWR)
            except OSError:
                pass
            listener.close()
        shutil.rmtree(self.folder, ignore_errors=True)
