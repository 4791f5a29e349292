"""Programs that are debugged through the Debug Adapter Protocol: how they are started.

`tdbg serve` waits for a client, or calls one; an adapter starts a program with `--adapter`.  Both
check what can be checked and become the program, as launch.py does; its other end is make_server(),
in the new process.  What is secret goes through a pipe: the environment of a process can be read
for as long as it lives.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import bootstrap, compat, launch, nativelib

kUsage = (
    "usage: tdbg serve [--listen [HOST:]PORT | --connect HOST:PORT] [--wait-for-client]"
    " [--token-file FILE | --no-token] [--allow-remote] (FILE | -m MODULE | -c CODE) [ARGUMENTS]")
kEncodingVariable = "PYTHONIOENCODING"
kFlags = ("--wait-for-client", "--no-token", "--allow-remote")
kWithValue = ("--listen", "--connect", "--token-file", "--library")
kRefused, kRuns = "tdbg/refused", "tdbg/runs"  # events for the adapter


# --- before the program: `tdbg serve` -------------------------------------------------------------


def main(argv, package_folder):
    """Become the program; returns the exit status when that is refused."""
    from tdbg.dap import endpoint

    try:
        options, rest = parse(argv)
        if options is None:
            sys.stdout.write(kUsage + "\n")
            return 0
        program = launch.parse(rest)
        if program is None:
            raise launch.tRefused("no program given")
    except launch.tRefused as why:
        return refuse("{}; {}".format(why, kUsage))
    try:
        argv = launch.command_line_of(program)
        library = options["library"] or nativelib.find_library(package_folder)
        settings = open_door(options)
    except (launch.tRefused, nativelib.tNoLibrary, endpoint.tRefused) as why:
        return refuse(str(why))
    try:
        launch.become(argv, library, package_folder, settings)
    except launch.tRefused as why:
        remove_token_file(settings)
        return refuse(str(why))


def refuse(text):
    sys.stderr.write("tdbg: {}\n".format(compat.to_native(compat.to_text(text))))
    return launch.kUsageStatus


def parse(argv):
    """(options, words of the program); (None, None) when help is asked for."""
    options = {name[2:].replace("-", "_"): None for name in kWithValue}
    options.update((name[2:].replace("-", "_"), False) for name in kFlags)
    rest = list(argv)
    while rest and rest[0].startswith("--") and rest[0] != "--":
        word, equals, value = rest.pop(0).partition("=")
        name = word[2:].replace("-", "_")
        if word in kFlags and not equals:
            options[name] = True
        elif word in kWithValue:
            if not equals:
                if not rest:
                    raise launch.tRefused("{} needs a value".format(word))
                value = rest.pop(0)
            options[name] = value
        elif word == "--help":
            return None, None
        else:
            raise launch.tRefused("unknown option {}".format(word))
    if options["listen"] is not None and options["connect"] is not None:
        raise launch.tRefused("--listen and --connect exclude each other")
    if options["token_file"] is not None and options["no_token"]:
        raise launch.tRefused("--token-file and --no-token exclude each other")
    if options["allow_remote"] and options["no_token"]:
        raise launch.tRefused("--allow-remote needs a token")
    if not rest or rest[0].startswith("-") and rest[0] not in ("-m", "-c", "--", "-h"):
        raise launch.tRefused("no program given" if not rest else "unknown option " + rest[0])
    return options, rest


def open_door(options):
    """Listen or connect while a failure can still be told; settings for the new process."""
    from tdbg.dap import endpoint

    token = endpoint.take_token(os.environ)
    if options["token_file"] is not None:
        token = endpoint.read_token(options["token_file"])
    if options["no_token"]:
        token = None
    settings = {"front_end": "dap",
                "session": {"launched": False, "wait": options["wait_for_client"]}}
    if options["connect"] is not None:
        return dict(settings, **connect_to_client(options, token))
    host, port = endpoint.parse_address(options["listen"] or "0")
    listener = endpoint.listen(host, port, options["allow_remote"])
    notes, made = [], None
    if token is None and not options["no_token"]:
        token = endpoint.make_token()
        made = endpoint.write_token(token)
        notes.append("the token is in " + made)
    if port == 0 or notes:
        notes.insert(0, "listening on {}:{}".format(*listener.getsockname()[:2]))
        sys.stderr.write("tdbg: {}\n".format("; ".join(notes)))
        sys.stderr.flush()
    return dict(
        settings, family=int(listener.family), listener=hand_over(listener),
        allow_remote=options["allow_remote"], secret=secret_pipe(token), token_file=made)


def remove_token_file(settings):
    """The program could not be started."""
    if settings.get("token_file") is not None:
        os.remove(settings["token_file"])


def connect_to_client(options, token):
    from tdbg.dap import endpoint

    host, port = endpoint.parse_address(options["connect"])
    if token is None:
        endpoint.refuse_remote(host, port, False)
    connected = endpoint.connect(host, port)
    if token is None and not options["no_token"] and not endpoint.is_of_this_user(connected):
        raise launch.tRefused(
            "who listens on {}:{} is another user: that needs a token".format(host, port))
    return {"family": int(connected.family), "connected": hand_over(connected),
            "secret": secret_pipe(token)}


def hand_over(stream):
    """A descriptor of the stream for the process that this one is to become."""
    descriptor = high_descriptor(stream.fileno())
    stream.close()
    return descriptor


def high_descriptor(descriptor):
    """A copy that stays open when another program is executed, with a number out of the way."""
    import fcntl

    return fcntl.fcntl(descriptor, fcntl.F_DUPFD, bootstrap.kFirstDescriptor)


def secret_pipe(text):
    """Descriptor to read the text from, or None for None."""
    if text is None:
        return None
    reading, writing = os.pipe()
    os.write(writing, text.encode("utf-8"))
    os.close(writing)
    result = high_descriptor(reading)
    os.close(reading)
    return result


# --- before the program: for an adapter -----------------------------------------------------------


def main_for_adapter(argv, package_folder):
    """--adapter SOCKET [--no-debug] [--captured] [--library FILE] (FILE | -m MODULE | -c CODE)
    [...]"""
    rest = list(argv)
    library = None
    path, captured, debugs = None, False, True
    while rest:
        if rest[0] == launch.kForAdapter:
            path = rest[1]
        elif rest[0] == "--library":
            library = rest[1]
        elif rest[0] == "--no-debug":
            debugs = False
        elif rest[0] == "--captured":
            captured = True
        else:
            break
        rest = rest[2 if rest[0] in (launch.kForAdapter, "--library") else 1:]
    try:
        options = launch.parse(rest)
        if not debugs:
            argv = launch.command_line_of(options)
            tell_adapter(path, kRuns, {})
            return launch.execute(argv, dict(os.environ))
        argv = launch.command_line_of(options)
        library = library or find_or_build_library(package_folder)
        settings = {"front_end": "dap", "socket": path,
                    "session": {"launched": True, "folder": os.path.dirname(path)}}
        if captured:
            settings["captured"] = {kEncodingVariable: os.environ.get(kEncodingVariable)}
            os.environ.setdefault(kEncodingVariable, "utf-8")
        launch.become(argv, library, package_folder, settings)
    except (launch.tRefused, nativelib.tNoLibrary) as why:
        tell_refusal(path, str(why))
        return launch.kUsageStatus


def find_or_build_library(package_folder):
    try:
        return nativelib.find_library(package_folder)
    except nativelib.tNoLibrary:
        nativelib.build_library(package_folder)
        return nativelib.find_library(package_folder)


def tell_refusal(path, text):
    """In place of a debugger's first words."""
    if not tell_adapter(path, kRefused, {"text": compat.to_text(text)}):
        refuse(text)


def tell_adapter(path, event, body):
    from tdbg.dap import endpoint, wire

    try:
        connection = wire.tConnection(endpoint.connect_unix(path))
    except (IOError, OSError):
        return False
    done = connection.write({"type": "event", "event": event, "body": body})
    connection.close()
    return done


# --- in the program's process ---------------------------------------------------------------------


def make_server(core, settings):
    """The debug server of a program that was started in one of the ways above.

    settings: of bootstrap.py, with one of

    socket      path of the adapter's socket
    connected   descriptor of a connection to the client
    listener    descriptor of a listening socket; allow_remote; token_file: see open_door_in()
    family      of connected and listener
    secret      descriptor to read the token from, or None
    session     see frontend.tDapFrontEnd
    captured    {variable: text or None} to be put back, where the adapter reads the output
    """
    from tdbg import api, dbgserver
    from tdbg.dap import endpoint, frontend, requests, wire

    # A thread of ours could not import while another one is stopped.
    requests.load_modules()
    if "captured" in settings:
        undo_capture(settings["captured"])
    front_end = frontend.tDapFrontEnd(settings.get("session"))
    server = dbgserver.tServer(core, front_end)
    front_end.attach(server)
    api.take_over(front_end)
    token = read_secret(settings.get("secret"))
    if "socket" in settings:
        front_end.begin(wire.tConnection(endpoint.connect_unix(settings["socket"])))
    elif "connected" in settings:
        connected = endpoint.socket_of_descriptor(settings["connected"], settings["family"])
        begin_with_token(front_end, endpoint.without_delay(connected), token)
    elif "listener" in settings:
        listener = endpoint.socket_of_descriptor(settings["listener"], settings["family"])
        open_door_in(
            front_end, listener, token, settings["allow_remote"], settings["token_file"])
    return server


def attach_running(path, library):
    """What an adapter has brought into a running process; its socket is at the path."""
    from tdbg import api

    api.serve_socket(path, library)


def open_door_in(front_end, listener, token, allow_remote, token_file=None):
    """Serve clients from a thread of the debugger's own; returns the tDoor.

    token_file: path of a file that was made for clients to read the token, or None; it is removed
    when no more of them are let in, and at the program's end.
    """
    from tdbg import atend, threads
    from tdbg.dap import endpoint

    close_at_exec(listener)
    door = endpoint.tDoor(listener, token, front_end.begin, allow_remote)
    if token_file is not None:
        atend.remove_at_end(token_file)

    def serve():
        door.serve()
        atend.remove_now(token_file)

    threads.start_own_thread(serve)
    return door


def begin_with_token(front_end, connected, token):
    """Serve the client at the other end, once it has shown the token if there is one."""
    from tdbg import threads
    from tdbg.dap import endpoint, wire

    close_at_exec(connected)
    connection = wire.tConnection(connected)

    def serve():
        try:
            first = endpoint.handshake(
                connection, lambda given: token is None or endpoint.same_token(token, given))
        except wire.tBadHeader:
            first = None
        if first is None:
            connection.close()
        else:
            front_end.begin(endpoint.tAdmitted(connection, first))

    threads.start_own_thread(serve)


def close_at_exec(stream):
    import fcntl

    fcntl.fcntl(stream.fileno(), fcntl.F_SETFD, fcntl.FD_CLOEXEC)


def read_secret(descriptor):
    if descriptor is None:
        return None
    text = os.read(descriptor, 4096).decode("utf-8")
    os.close(descriptor)
    return text


def undo_capture(variables):
    """The variables are as before; output that goes into a pipe is sent by lines."""
    for name, value in variables.items():
        if value is None:
            os.environ.pop(name, None)
        else:
            os.environ[name] = value
    for name in ("stdout", "stderr"):
        stream = getattr(sys, name, None)
        try:
            by_lines(name, stream)
        except Exception:  # the program goes without
            pass


def by_lines(name, stream):
    if compat.PY2:
        if name == "stdout":  # the other one is not buffered
            renewed = os.fdopen(stream.fileno(), "w", 1)
            _streams.append((stream, renewed))
            setattr(sys, name, renewed)
            setattr(sys, "__{}__".format(name), renewed)
    elif hasattr(stream, "reconfigure"):
        stream.reconfigure(line_buffering=True)
    elif not stream.line_buffering:
        import io

        encoding, errors = stream.encoding, stream.errors
        renewed = io.TextIOWrapper(stream.detach(), encoding, errors, line_buffering=True)
        renewed.mode = "w"
        setattr(sys, name, renewed)
        setattr(sys, "__{}__".format(name), renewed)


_streams = []
