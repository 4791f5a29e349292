"""Command line of the adapter."""
import _socket
import os
import signal
import sys
import threading

from tdbg.adapter import schema, session
from tdbg.dap import endpoint, wire

kUsage = ("usage: tdbg adapter [--port N [--host H]] [--token-file FILE] [--allow-remote] "
          "[--no-token]")
kUsageStatus = 2


class tUsage(Exception):
    """In one line."""


class tOptions:
    """What is the same for all clients of this adapter.

    token           that clients of our port show; None: the user id of the other end is enough
    debuggee_token  shown to programs that are attached to by port
    """

    def __init__(self):
        self.port = self.library = self.token = self.token_file = self.debuggee_token = None
        self.host = ""
        self.allow_remote = self.no_token = False
        self.schema = schema.tSchema()


class tDesk:
    """Tells the clients apart: one at a time, and beside it those that debug its children.

    Made for standard streams and for a port; session.tSession asks it.
    """

    def __init__(self, needs_token=False, port=None):
        self.needs_token = needs_token
        self._port = port

    def admit(self, client_arguments, arguments):
        """None, or why this client cannot begin to debug."""
        return self._port.admit(client_arguments, arguments) if self._port is not None else None

    def leave(self):
        """The client that was admitted has gone."""
        if self._port is not None:
            self._port.leave()

    def announce(self, arguments):
        """The client has been told of a child."""
        if self._port is not None:
            self._port.announced.append(child_of(arguments))

    def count_failure(self):
        """A wrong token."""
        if self._port is not None:
            self._port.count_failure()


def child_of(arguments):
    """What says which child is meant, in arguments of `attach`."""
    return {name: arguments.get(name) for name in ("socket", "connect", "subProcessId")}


class tPort:
    """The adapter's port.  Nobody listens there while a client is being served, unless it can serve
    children, which come as clients of their own."""

    def __init__(self, options):
        self._options = options
        self._listener = endpoint.listen(options.host, int(options.port), options.allow_remote)
        self.address = self._listener.getsockname()[:2]
        self.announced = []
        self._failures = 0
        self._is_busy = False
        self._changed = threading.Condition()

    def serve(self):
        """Until too many tokens were wrong."""
        while True:
            try:
                connected = endpoint.without_delay(endpoint.accept(self._listener))
            except OSError:
                if not self._listen_again():
                    return
                continue
            threading.Thread(target=self._serve_connection, args=(connected,), daemon=True).start()

    def _listen_again(self):
        """Once the client that was admitted has gone; False after too many wrong tokens."""
        with self._changed:
            self._changed.wait_for(lambda: not self._is_busy)
            if self._failures >= endpoint.kMaxFailures:
                return False
            self._listener = endpoint.listen(
                self.address[0], self.address[1], self._options.allow_remote)
        return True

    def _serve_connection(self, connected):
        options = self._options
        same_user = endpoint.is_of_this_user(connected)
        if not same_user and options.token is None and not options.no_token:
            connected.close()
            return
        needs_token = not options.no_token and (options.token_file is not None or not same_user)
        desk = tDesk(needs_token, self)
        session.tSession(wire.tConnection(connected), options, desk).run()

    def admit(self, client_arguments, arguments):
        with self._changed:
            if not self._is_busy:
                self._is_busy = True
                if not client_arguments.get("supportsStartDebuggingRequest"):
                    self._stop_listening()
                return None
            child = child_of(arguments)
            if child in self.announced:
                self.announced.remove(child)
                return None
        return "this adapter serves another client"

    def leave(self):
        with self._changed:
            self._is_busy = False
            self._changed.notify_all()

    def count_failure(self):
        with self._changed:
            self._failures += 1
            if self._failures >= endpoint.kMaxFailures:
                self._stop_listening()

    def _stop_listening(self):
        try:
            self._listener.shutdown(_socket.SHUT_RDWR)
        except OSError:
            pass  # already
        self._listener.close()


def parse(argv):
    options = tOptions()
    rest = list(argv)
    while rest:
        word, equals, value = rest.pop(0).partition("=")
        name = word[2:].replace("-", "_")
        if word in ("--allow-remote", "--no-token") and not equals:
            setattr(options, name, True)
        elif word in ("--port", "--host", "--token-file", "--library"):
            if not equals and not rest:
                raise tUsage("{} needs a value".format(word))
            setattr(options, name, value if equals else rest.pop(0))
        elif word in ("-h", "--help"):
            return None
        else:
            raise tUsage("unknown option {}".format(word))
    _check(options)
    return options


def _check(options):
    """Whether the options go together."""
    if options.port is None:
        if options.host:
            raise tUsage("--host needs --port")
    elif not options.port.isdigit() or int(options.port) > 65535:
        raise tUsage("{!r} is no port".format(options.port))
    if options.no_token and options.allow_remote:
        raise tUsage("--allow-remote needs a token")


def main(argv):
    """The exit status."""
    if sys.version_info < (3, 6):
        sys.stderr.write("tdbg: the adapter needs Python 3.6 or later (the program may have any)\n")
        return kUsageStatus
    try:
        options = parse(argv)
        if options is None:
            print(kUsage)
            return 0
        given = endpoint.take_token(os.environ)
        options.debuggee_token = given
        if options.token_file is not None:
            options.token = options.debuggee_token = endpoint.read_token(options.token_file)
        if options.port is None:
            return serve_stdio(options)
        return serve_port(options, given)
    except (tUsage, endpoint.tRefused) as why:
        sys.stderr.write("tdbg: {}; {}\n".format(why, kUsage))
        return kUsageStatus
    except KeyboardInterrupt:
        return 128 + signal.SIGINT


def serve_stdio(options):
    connection = wire.connection_of_stdio()
    session.tSession(connection, options, tDesk()).run()
    return 0


def serve_port(options, given):
    if options.allow_remote and options.token is None:
        options.token = given
        if options.token is None:
            options.token = endpoint.make_token()
            say("the token is in {}".format(endpoint.write_token(options.token)))
    port = tPort(options)
    say("listening on {}:{}".format(*port.address))
    port.serve()
    say("closed after {} wrong tokens".format(endpoint.kMaxFailures))
    return kUsageStatus


def say(text):
    """On standard error: standard output may be the protocol's."""
    sys.stderr.write("tdbg: {}\n".format(text))
    sys.stderr.flush()
