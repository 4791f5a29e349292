"""Source files as the client sees them, and the modules that they belong to.

What the client can open itself it gets as a path, in its own spelling.  Code that is in no file (a
member of an archive, what exec() was given) gets a number; its text comes from where tracebacks
find it, or, for `python -c`, from the command line.
"""
from __future__ import absolute_import, division, print_function

import io
import os
import re
import sys

from tdbg import breakpoints, checksums, codelines, compat, private, sublanguages
from tdbg.dap import rules
from tdbg.dap.paths import base_name, paths_of
from tdbg.dap.requests import get_optional, kAnytime, tRequest, tRequestError

kMimeType = "text/x-python"
kMark = b"\xef\xbb\xbf"  # of UTF-8; the codec that knows of it would have to be imported
_kCoding = re.compile(br"^[ \t\f]*#.*?coding[:=][ \t]*([-\w.]+)")

_is_file = os.path.isfile
_isabs = os.path.isabs
_open = io.open


class tSources(object):
    """References and modules of one session."""

    def __init__(self, session):
        self._session = session
        self._paths = paths_of(session)
        self._references = {}  # path -> reference
        self._texts = [None]   # reference -> (path, name in code objects, globals of the code)
        self._is_file = {}     # path -> whether it is a file
        self._modules = {}     # name -> (number, id of the module, path)
        self._count = 0
        self._configured = False

    # --- one source ---

    def of_frame(self, frame):
        name = frame.f_code.co_filename
        path = name
        if not name.startswith("<") and not sublanguages.is_view(frame):
            path = self._session.server.core.get_frame_file(frame) or name
        module = frame.f_globals.get("__name__")
        module = module if isinstance(module, str) else None
        return self.of_path(path, name, frame.f_globals, module)

    def of_path(self, path, name=None, space=None, module=None):
        """path: of the source or, as it is called by code objects, `name`; space: globals there."""
        if path.endswith(checksums.kSuffixes):
            path = path[:-1]
        found = self._is_file.get(path)
        if found is None:
            found = self._is_file[path] = _is_file(path)
        source = {"name": compat.to_text(base_name(path))}
        if found or (_isabs(path) and self._paths.is_known(path)):
            source["path"] = self._paths.to_client(path)
            source["name"] = self._paths.name_of(path)
        else:
            source["name"] = compat.to_text(path if path.startswith("<") else base_name(path))
            if not path.startswith("<"):
                source["path"] = self._paths.to_client(path)
            source["sourceReference"] = self.reference_of(path, name or path, space)
        if not rules.current().is_user_file(path, module):
            source["presentationHint"] = "deemphasize"
        return source

    def reference_of(self, path, name, space):
        number = self._references.get(path)
        if number is None:
            number = self._references[path] = len(self._texts)
            self._texts.append((path, name, space))
        elif space is not None:
            self._texts[number] = (path, name, space)
        return number

    def reference_of_module(self, path):
        """Reference for the path of a loaded module that is in no file of its own; 0: none is."""
        for name, module in list(sys.modules.items()):
            if file_of_module(module) == path and not _is_file(path):
                return self.reference_of(path, path, _own_dict(module))
        return 0

    def path_of(self, reference):
        """Path that the core knows the source of a reference by, `<string>` for example."""
        if not 0 < reference < len(self._texts):
            raise tRequestError("there is no source {}".format(reference))
        return self._texts[reference][0]

    def lines_of(self, reference):
        """Its lines; an empty list when nobody knows them."""
        path = self.path_of(reference)
        name, space = self._texts[reference][1:]
        lines = codelines.lines_without_file(name, space)
        lines = lines or codelines.lines_without_file(path, space)
        if not lines and name == "<string>":
            text = _text_of_command()
            lines = text.splitlines(True) if text is not None else []
        return lines

    def tree_of(self, reference):
        """codelines.tSource of a reference; breakpoints.tRefused."""
        lines = self.lines_of(reference)
        name = self.path_of(reference)
        if not lines:
            raise breakpoints.tRefused("no source for {}".format(name))
        try:
            return codelines.tSource(name, lines)
        except codelines.tNoSource as why:
            raise breakpoints.tRefused("{}".format(why))

    # --- modules ---

    def of_module(self, name, path):
        return self.of_path(path, space=_own_dict(sys.modules.get(name)) or None, module=name)

    def scan(self):
        """Take note of what was imported; [module as the protocol has it, new or changed]."""
        news = []
        modules = sys.modules
        for name in list(modules):
            module = modules.get(name)
            known = self._modules.get(name)
            if module is None or is_loading(module) or (
                    known is not None and known[1] == id(module) and known[2] is not None):
                continue
            path = file_of_module(module)  # __main__ is there before it gets one
            if known is not None and known[2] == path:
                self._modules[name] = (known[0], id(module), path)
                continue
            if not isinstance(name, str) or not _is_module(module) or (
                    path is not None and rules.is_own_file(path)):
                continue
            reason = "changed" if known is not None else "new"
            if known is None:
                self._count += 1
            number = known[0] if known is not None else self._count
            self._modules[name] = (number, id(module), path)
            news.append((reason, name, number, path))
        return news

    def describe(self, name, number, path):
        """Module of the protocol."""
        found = {"id": number, "name": compat.to_text(name)}
        user = path is not None and rules.current().is_user_file(path, name)
        if path is not None:
            found["path"] = self._paths.to_client(path)
        found["isUserCode"] = user
        version = _own_dict(sys.modules.get(name)).get("__version__")
        if isinstance(version, str):
            found["version"] = compat.to_text(version)
        return found

    def tell_news(self, *_):
        """Events for what was imported since the last time, once the program runs for the client."""
        if not self._configured or private.is_borrowing():
            return
        news = self.scan()
        if not self._session.is_configured:
            return
        for reason, name, number, path in news:
            self._session.send_event("module", {
                "reason": reason, "module": self.describe(name, number, path)})
            if path is not None and path.endswith(".py"):
                self._session.send_event("loadedSource", {
                    "reason": reason, "source": self.of_module(name, path)})

    def configure(self, _=None):
        """What was there before the program runs for this client can be asked for."""
        config = self._session.config
        if config.program:
            self._paths.remember(
                compat.to_text(config.program),
                self._paths.from_client(config.program, remember=False))
        self.scan()
        self._configured = True

    def modules(self):
        self.tell_news()
        rows = [(number, name, path) for name, (number, _, path) in self._modules.items()]
        return [self.describe(name, number, path) for number, name, path in sorted(rows)]

    def loaded(self):
        self.tell_news()
        found = {}
        for name, (_, _, path) in list(self._modules.items()):
            if path is not None and path.endswith(".py") and path not in found:
                found[path] = self.of_module(name, path)
        return [found[path] for path in sorted(found)]


def sources_of(session):
    """The session's tSources."""
    found = getattr(session, "sources", None)
    if found is None:
        found = session.sources = tSources(session)
    return found


def source_of_frame(session, frame):
    """Source of the protocol for a frame's code."""
    return sources_of(session).of_frame(frame)


def source_of_path(session, path):
    """The same for a file."""
    return sources_of(session).of_path(path)


def file_of_module(module):
    """Path of a module's source, or of what it was loaded from; None without a file."""
    path = _own_dict(module).get("__file__")
    if not isinstance(path, compat.string_types) or not path:
        return None
    if path.endswith(checksums.kSuffixes):
        path = path[:-1]
    return compat.to_native(path if _isabs(path) else os.path.abspath(path))


def _own_dict(module):
    """The namespace; nothing that a stand-in for a module computes."""
    try:
        found = object.__getattribute__(module, "__dict__")
        return found if isinstance(found, dict) else {}
    except AttributeError:
        return {}


def is_loading(module):
    """Whether its code is still running for the first time."""
    try:
        return bool(object.__getattribute__(_own_dict(module)["__spec__"], "_initializing"))
    except (KeyError, AttributeError):
        return False


def _is_module(module):
    return "__name__" in _own_dict(module)


def _text_of_command():
    """What follows `-c` in the command line of the interpreter."""
    arguments = getattr(sys, "orig_argv", None)
    if arguments is None:
        try:
            with _open("/proc/self/cmdline", "rb") as file:
                data = file.read().split(b"\0")
            arguments = [part.decode("utf-8", "replace") for part in data]
        except (IOError, OSError):
            return None
    for place, word in enumerate(arguments[:-1]):
        if place and word.startswith("-") and not word.startswith("--") and word.endswith("c"):
            return compat.to_text(arguments[place + 1])
    return None


def read_text(path):
    """Text of a source file, by its own encoding; tRequestError."""
    try:
        with _open(path, "rb") as file:
            data = file.read()
    except (IOError, OSError) as why:
        raise tRequestError("cannot read {}: {}".format(path, why.strerror))
    encoding = "utf-8"
    data = data[len(kMark):] if data.startswith(kMark) else data
    for line in data.split(b"\n", 2)[:2]:
        found = _kCoding.match(line)
        if found:
            encoding = found.group(1).decode("ascii")
            break
    try:
        text = data.decode(encoding)
    except (LookupError, UnicodeDecodeError):
        text = data.decode("utf-8", "replace")
    return text.replace(u"\r\n", u"\n").replace(u"\r", u"\n")


# --- requests ---------------------------------------------------------------------------------


def attach(session):
    sources = sources_of(session)
    session.on_configured(sources.configure)
    session.on_import(sources.tell_news)
    session.on_stop(lambda session, stop: sources.tell_news())


def reference_in(source, arguments):
    """Number in a Source of the protocol, 0 when it is a path."""
    source = source or {}
    return get_optional(source, "sourceReference", int, 0) or get_optional(
        arguments, "sourceReference", int, 0)


def source(session, arguments):
    given = get_optional(arguments, "source", dict, {})
    reference = reference_in(given, arguments)
    if not reference:
        path = get_optional(given, "path", str)
        if path is None:
            raise tRequestError("neither a path nor a number of a source")
        path = paths_of(session).from_client(path, False)
        reference = 0 if _is_file(path) else sources_of(session).reference_of_module(path)
        if not reference:
            return {"content": read_text(path), "mimeType": kMimeType}
    sources = sources_of(session)
    lines = session.run_in_core(lambda: sources.lines_of(reference))
    if not lines:
        raise tRequestError("the source of {} is not known".format(sources.path_of(reference)))
    return {"content": u"".join(lines), "mimeType": kMimeType}


def loaded_sources(session, arguments):
    return {"sources": session.run_in_core(sources_of(session).loaded)}


def modules(session, arguments):
    first = get_optional(arguments, "startModule", int, 0)
    count = get_optional(arguments, "moduleCount", int, 0)
    found = session.run_in_core(sources_of(session).modules)
    last = first + count if count > 0 else len(found)
    return {"modules": found[max(first, 0):max(last, 0)], "totalModules": len(found)}


kRequests = {
    "source": tRequest(source, kAnytime),
    "loadedSources": tRequest(loaded_sources, kAnytime),
    "modules": tRequest(modules, kAnytime),
}
