"""Command line of the adapter."""
import os
import signal
import sys
import threading

from tdbg.adapter import schema, session
from tdbg.dap import endpoint, wire

kUsage = "usage: tdbg adapter [--port N [--host H]] [--token-file FILE] [--allow-remote] [--no-token]"
kUsageStatus = 2


class tUsage(Exception):
    """In one line."""


class tOptions:
    """What the sessions of this adapter have in common.

    token           that clients of our port show; None: the user id of the other end is enough
    debuggee_token  shown to programs that are attached to by port
    """

    def __init__(self):
        self.port = self.library = self.token = self.token_file = self.debuggee_token = None
        self.host = ""
        self.allow_remote = self.no_token = self.needs_token = False
        self.schema = schema.tSchema()
        self.failures = 0
        self.on_failure = None

    def count_failure(self):
        self.failures += 1
        if self.failures >= endpoint.kMaxFailures and self.on_failure is not None:
            self.on_failure()

    def for_client(self, needs_token):
        other = tOptions.__new__(tOptions)
        other.__dict__.update(self.__dict__, needs_token=needs_token, count_failure=self.count_failure)
        return other


def parse(argv):
    options = tOptions()
    rest = list(argv)
    while rest:
        word, equals, value = rest.pop(0).partition("=")
        name = word[2:].replace("-", "_")
        if word in ("--allow-remote", "--no-token") and not equals:
            setattr(options, name, True)
        elif word in ("--port", "--host", "--token-file", "--library"):
            if not equals:
                if not rest:
                    raise tUsage("{} needs a value".format(word))
                value = rest.pop(0)
            setattr(options, name, value)
        elif word in ("-h", "--help"):
            return None
        else:
            raise tUsage("unknown option {}".format(word))
    if options.port is None:
        if options.host:
            raise tUsage("--host needs --port")
    elif not options.port.isdigit() or int(options.port) > 65535:
        raise tUsage("{!r} is no port".format(options.port))
    if options.no_token and options.allow_remote:
        raise tUsage("--allow-remote needs a token")
    return options


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
    session.tSession(connection, options).run()
    return 0


def serve_port(options, given):
    """One client after the other, and beside it those that debug its children."""
    if options.allow_remote and options.token is None:
        options.token = given
        if options.token is None:
            options.token = endpoint.make_token()
            say("the token is in {}".format(endpoint.write_token(options.token)))
    listener = endpoint.listen(options.host, int(options.port), options.allow_remote)
    say("listening on {}:{}".format(*listener.getsockname()[:2]))
    options.on_failure = lambda: os._exit(kUsageStatus)
    while True:
        connected = endpoint.without_delay(endpoint.accept(listener))
        threading.Thread(target=serve_connection, args=(connected, options), daemon=True).start()


def serve_connection(connected, options):
    same_user = endpoint.is_of_this_user(connected)
    if not same_user and options.token is None and not options.no_token:
        connected.close()
        return
    needs_token = not options.no_token and (options.token_file is not None or not same_user)
    session.tSession(wire.tConnection(connected), options.for_client(needs_token)).run()


def say(text):
    """On standard error: standard output may be the protocol's."""
    sys.stderr.write("tdbg: {}\n".format(text))
    sys.stderr.flush()
