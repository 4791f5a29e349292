"""Arguments of the requests `launch` and `attach`: one table of names, types and defaults.

Names and meanings follow what configurations for Python commonly have.  null and "" are the same as
absent; what is not known is told once and otherwise ignored; a wrong type is an error.
"""
from __future__ import absolute_import, division, print_function

from tdbg import compat

kLaunch, kAttach = "launch", "attach"
kConsoles = ("internalConsole", "integratedTerminal", "externalTerminal")
kEndings = ("KeyboardInterrupt", "SIGTERM", "kill")
kChildPolicies = ("none", "ask", "all")
kThreadPolicies = ("debug", "ignore")
kGranularities = ("statement", "line")
kLoopback = "127.0.0.1"
kMaxPort = 65535
kLimitString, kLimitItems, kLimitMs = 1000, 100, 200


class tConfigError(Exception):
    """An argument has the wrong type or a value that makes no sense; the text names it."""


class tConfig(object):
    """What is to be done, with defaults filled in.  Paths are as the client wrote them.

    kind                     kLaunch or kAttach
    warnings                 texts for the console
    raw                      the arguments themselves
    program, module, code    text or None; a launch has exactly one
    args                     list of texts, or one text for a shell
    python                   list of texts: the interpreter and its options; None = the adapter's
    python_args, cwd, env_file       list; text or None; text or None
    env                      {name: text, or None to remove it}
    console                  one of kConsoles
    stop_on_entry, no_debug, redirect_output, show_return_value, stop_all_threads   bool
    just_my_code             bool
    rules                    ordered list of (kind "path" or "module", pattern, include: bool)
    path_mappings            list of (local folder, remote folder)
    sub_process              one of kChildPolicies: which children the client is asked for; "ask":
                             those that the program starts, "all": those that other programs below
                             it start, too
    child_attach_timeout, kill_timeout    seconds
    exceptions_always, exceptions_never   lists of type names;  exceptions_runners  bool
    threads_default, threads_rules        policy; list of (glob of the name, policy)
    step_granularity         "statement" or "line"
    limit_string, limit_items, limit_ms   of values
    templates                list of names of sub-languages
    on_terminate             one of kEndings
    token                    text or None
    connect, listen          (host, port) or None
    process_id, sub_process_id, socket    attach: int, int, text; or None
    """

    def __init__(self, kind, arguments):
        self.kind = kind
        self.warnings = []
        self.raw = arguments = dict(arguments or {})
        given = {name: value for name, value in arguments.items()
                 if value is not None and value != ""}
        for name, (attribute, read, default) in kKeys.items():
            setattr(self, attribute, read(name, given[name]) if name in given else default())
        self._merge(given)
        self._check()
        unknown = sorted(
            name for name in given
            if name not in kKeys and name not in kOtherKeys and not name.startswith(("_", "$")))
        if unknown:
            self.warnings.append(
                "these settings are not known and have no effect: {}".format(", ".join(
                    compat.to_native(name) for name in unknown)))

    def _merge(self, given):
        """Settings that can be written in more than one way."""
        if self.python is None:
            self.python = self.python_path
        self.exceptions_always = self.exceptions.get("always", [])
        self.exceptions_never = self.exceptions.get("never", [])
        self.exceptions_runners = self.exceptions.get("runners", True)
        self.threads_default, self.threads_rules = self.threads
        self.limit_string = self.value_limits.get("string", kLimitString)
        self.limit_items = self.value_limits.get("items", kLimitItems)
        self.limit_ms = self.value_limits.get("timeMs", kLimitMs)
        value = given.get("justMyCode")
        if isinstance(value, list):
            self.just_my_code, self.rules = True, _rules("justMyCode", value)
        if self.port is not None and self.connect is None and self.kind == kAttach:
            self.connect = (self.host or kLoopback, self.port)
        for name in ("jinja", "flask", "django"):
            if getattr(self, name) is True:
                language = "django" if name == "django" else "jinja2"
                if language not in self.templates:
                    self.templates.append(language)
        if self.redirect_output is None:
            self.redirect_output = self.console == kConsoles[0]

    def _check(self):
        if self.kind == kLaunch:
            names = [name for name in ("program", "module", "code")
                     if getattr(self, name) is not None]
            if len(names) != 1:
                raise tConfigError("exactly one of `program`, `module` and `code` is needed" + (
                    ", not " + " and ".join(names) if names else ""))
            return
        ways = [name for name in ("connect", "listen", "process_id", "socket")
                if getattr(self, name) is not None]
        if len(ways) > 1:
            raise tConfigError("more than one way to attach: " + ", ".join(
                {"process_id": "processId"}.get(name, name) for name in ways))


# --- types ------------------------------------------------------------------------------------


def _wrong(name, wanted):
    return tConfigError("`{}` must be {}".format(compat.to_native(name), wanted))


def _is_text(value):
    return isinstance(value, compat.string_types)


def _is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def _text(name, value):
    if not _is_text(value) or u"\0" in compat.to_text(value):
        raise _wrong(name, "a text")
    return compat.to_native(value)


def _flag(name, value):
    if not isinstance(value, bool):
        raise _wrong(name, "true or false")
    return value


def _texts(name, value):
    if not isinstance(value, list) or not all(map(_is_text, value)):
        raise _wrong(name, "a list of texts")
    return [_text(name, item) for item in value]


def _text_or_texts(name, value):
    if _is_text(value):
        return [_text(name, value)]
    if isinstance(value, list) and value:
        return _texts(name, value)
    raise _wrong(name, "a text or a list of texts")


def _arguments(name, value):
    if _is_text(value):
        return _text(name, value)
    if isinstance(value, list) and all(_is_text(item) or _is_number(item) for item in value):
        return [_text(name, item) if _is_text(item) else str(item) for item in value]
    raise _wrong(name, "a list of texts or a text")


def _code(name, value):
    return "\n".join(_text_or_texts(name, value))


def _seconds(name, value):
    if not _is_number(value) or not 0 <= value < 1e6:
        raise _wrong(name, "a number of seconds")
    return float(value)


def _positive(name, value):
    if not _is_number(value) or value <= 0 or value != int(value):
        raise _wrong(name, "a positive whole number")
    return int(value)


def _whole(name, value):
    """A number that may come as text (from an input box of the editor)."""
    if _is_text(value) and value.strip().isdigit():
        return int(value)
    return _positive(name, value)


def _port(name, value):
    if value == 0 and not isinstance(value, bool):
        return 0
    number = _whole(name, value)
    if number > kMaxPort:
        raise _wrong(name, "a port")
    return number


def _one_of(choices):
    def read(name, value):
        if value not in choices:
            raise _wrong(name, "one of " + ", ".join(choices))
        return compat.to_native(value)
    return read


def _environment(name, value):
    if not isinstance(value, dict):
        raise _wrong(name, "an object")
    result = {}
    for key, item in value.items():
        if isinstance(item, bool) or not (item is None or _is_text(item) or _is_number(item)):
            raise _wrong("{}.{}".format(name, compat.to_native(key)), "a text or null")
        if not key or "=" in key:
            raise _wrong(name,
                         "an object of variables: {!r} is no name".format(compat.to_native(key)))
        if item is not None:
            item = _text(name, item) if _is_text(item) else str(item)
        result[_text(name, key)] = item
    return result


def _members(name, value, readers):
    """{name: value} of an object's members, null and "" as absent."""
    if not isinstance(value, dict):
        raise _wrong(name, "an object")
    unknown = set(value) - set(readers)
    if unknown:
        raise _wrong(name, "an object with " + ", ".join(sorted(readers)))
    return {key: readers[key]("{}.{}".format(name, key), item)
            for key, item in value.items() if item is not None and item != ""}


def _address(name, value):
    if _is_text(value) or _is_number(value):
        return (kLoopback, _port(name, value))
    found = _members(name, value, {"host": _text, "port": _port})
    if "port" not in found:
        raise _wrong(name, "an object with `host` and `port`")
    return (found.get("host", kLoopback), found["port"])


def _objects(name, value):
    if not isinstance(value, list) or not all(isinstance(item, dict) for item in value):
        raise _wrong(name, "a list of objects")
    return value


def _mappings(name, value):
    result = []
    for item in _objects(name, value):
        found = _members(name, item, {"localRoot": _text, "remoteRoot": _text})
        if len(found) == 2:
            result.append((found["localRoot"], found["remoteRoot"]))
    return result


def _rules(name, value):
    result = []
    for item in _objects(name, value):
        found = _members(name, item, {"path": _text, "module": _text, "include": _flag})
        kinds = [kind for kind in ("path", "module") if kind in found]
        if len(kinds) != 1 or "include" not in found:
            raise _wrong(name, "a list of rules, each with `path` or `module`, and `include`")
        result.append((kinds[0], found[kinds[0]], found["include"]))
    return result


def _just_my_code(name, value):
    if isinstance(value, list):
        return True  # see _merge()
    return _flag(name, value)


def _sub_process(name, value):
    if isinstance(value, bool):
        return "ask" if value else "none"
    return _one_of(kChildPolicies)(name, value)


def _exceptions(name, value):
    return _members(name, value, {"always": _texts, "never": _texts, "runners": _flag})


def _threads(name, value):
    policy = _one_of(kThreadPolicies)
    found = _members(name, value, {"default": policy, "rules": _objects})
    rules = [_members(name + ".rules", item, {"name": _text, "policy": policy})
             for item in found.get("rules", ())]
    if not all(len(rule) == 2 for rule in rules):
        raise _wrong(name + ".rules", "a list of objects with `name` and `policy`")
    return found.get("default", kThreadPolicies[0]), [(rule["name"], rule["policy"])
                                                      for rule in rules]


def _limits(name, value):
    return _members(name, value, {"string": _positive, "items": _positive, "timeMs": _positive})


def _just(value):
    return lambda: value


_none = _just(None)

# name: (attribute, function(name, value) that checks, function that makes the default)
kKeys = {
    "program": ("program", _text, _none),
    "module": ("module", _text, _none),
    "code": ("code", _code, _none),
    "args": ("args", _arguments, list),
    "python": ("python", _text_or_texts, _none),
    "pythonPath": ("python_path", _text_or_texts, _none),
    "pythonArgs": ("python_args", _texts, list),
    "cwd": ("cwd", _text, _none),
    "env": ("env", _environment, dict),
    "envFile": ("env_file", _text, _none),
    "console": ("console", _one_of(kConsoles), _just(kConsoles[0])),
    "stopOnEntry": ("stop_on_entry", _flag, _just(False)),
    "noDebug": ("no_debug", _flag, _just(False)),
    "redirectOutput": ("redirect_output", _flag, _none),
    "showReturnValue": ("show_return_value", _flag, _just(False)),
    "justMyCode": ("just_my_code", _just_my_code, _just(True)),
    "rules": ("rules", _rules, list),
    "pathMappings": ("path_mappings", _mappings, list),
    "subProcess": ("sub_process", _sub_process, _just("ask")),
    "childAttachTimeout": ("child_attach_timeout", _seconds, _just(2.0)),
    "exceptions": ("exceptions", _exceptions, dict),
    "threads": ("threads", _threads, _just((kThreadPolicies[0], []))),
    "stopAllThreads": ("stop_all_threads", _flag, _just(True)),
    "stepGranularity": ("step_granularity", _one_of(kGranularities), _just(kGranularities[0])),
    "valueLimits": ("value_limits", _limits, dict),
    "templates": ("templates", _texts, list),
    "jinja": ("jinja", _flag, _none),
    "flask": ("flask", _flag, _none),
    "django": ("django", _flag, _none),
    "onTerminate": ("on_terminate", _one_of(kEndings), _just(kEndings[0])),
    "killTimeout": ("kill_timeout", _seconds, _just(5.0)),
    "token": ("token", _text, _none),
    "connect": ("connect", _address, _none),
    "listen": ("listen", _address, _none),
    "host": ("host", _text, _none),
    "port": ("port", _port, _none),
    "processId": ("process_id", _whole, _none),
    "subProcessId": ("sub_process_id", _whole, _none),
    "socket": ("socket", _text, _none),
}

# Settings of editors and of other debuggers that mean nothing here: no warning.
kOtherKeys = frozenset((
    "type", "request", "name", "debugServer", "preLaunchTask", "postDebugTask", "presentation",
    "internalConsoleOptions", "serverReadyAction", "suppressMultipleSessionWarning",
    "windows", "linux", "osx", "workspaceFolder", "debugOptions", "clientOS", "gevent", "sudo",
    "logToFile", "debugLauncherPath", "debugAdapterPath", "debugAdapterPython", "purpose",
    "consoleName", "consoleTitle", "variablePresentation", "autoReload", "dap-server-path",
))
