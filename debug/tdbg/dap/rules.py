"""Which code is the user's own: what steps may end in, and what is shown as less important.

Without rules everything is that does not come with the interpreter or from an installed package.
Rules come first: an ordered list of (kind, pattern, include), where the first that fits decides.
Breakpoints never ask: they stop in any code.
"""
from __future__ import absolute_import, division, print_function

import fnmatch
import os
import re
import sys

from tdbg import checksums, compat
from tdbg.dap import paths
from tdbg.dap.config import _rules as _read_rules
from tdbg.dap.config import tConfigError
from tdbg.dap.requests import kAnytime, tRequest, tRequestError

kPath, kModule = "path", "module"
kInstalled = ("/site-packages/", "/dist-packages/")

_translate = fnmatch.translate
_real_path = os.path.realpath
_isabs = os.path.isabs
_here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def _library_folders():
    """Folders of the standard library, the interpreter's and that of a virtual environment."""
    folders = set()
    for path in (os.__file__, getattr(re, "__file__", "")):
        for folder in (os.path.dirname(path), os.path.dirname(_real_path(path))):
            # A module of a package, as `re` is in later versions, lies one folder deeper.
            if os.path.basename(folder) == "re":
                folder = os.path.dirname(folder)
            if folder:
                folders.add(folder + "/")
    version = "python{}{}.zip/".format(*sys.version_info[:2])
    return tuple(folders) + tuple(
        os.path.join(prefix, "lib", version) for prefix in set((sys.prefix, sys.exec_prefix)))


_libraries = _library_folders()
_own_folders = tuple(set((_here + "/", _real_path(_here) + "/")))


class tRules(object):
    """just_my_code: False: all code is the user's; rules: as above.

    to_client: function (path) -> the client's spelling, which patterns may mean, too
    """

    def __init__(self, just_my_code=True, rules=(), to_client=None):
        self.just_my_code = just_my_code
        self.rules = list(rules)
        self._to_client = to_client
        self._tests = [
            (_make_test(kind, pattern), kind, include) for kind, pattern, include in self.rules]
        self._known = {}

    def is_user_file(self, path, module=None):
        """path: of the source; module: its name, or None."""
        key = (path, module)
        answer = self._known.get(key)
        if answer is None:
            answer = self._known[key] = self._decide(path, module)
        return answer

    def _decide(self, path, module):
        if is_own_file(path):
            return False
        for test, kind, include in self._tests:
            if kind == kModule:
                if module is not None and test(module):
                    return include
            elif test(path) or test(_real_path(path)) or self._fits_client(test, path):
                return include
        return not self.just_my_code or is_of_program(path)

    def _fits_client(self, test, path):
        return self._to_client is not None and test(compat.to_native(self._to_client(path)))


def is_own_file(path):
    """Whether the file is a part of the debugger."""
    return path.startswith(_own_folders)


def is_of_program(path):
    """Whether the file is no part of the interpreter or of an installed package."""
    if path.startswith("<frozen "):
        return False
    if any(part in path for part in kInstalled):
        return False
    return not path.startswith(_libraries) and not _real_path(path).startswith(_libraries)


def _make_test(kind, pattern):
    """function (text) -> whether the pattern fits: `*` stands for any text, `**` likewise."""
    if kind == kModule:
        match = re.compile(_translate(pattern)).match
        inner = re.compile(_translate(pattern + ".*")).match
        return lambda name: bool(match(name) or inner(name))
    if paths.is_of_windows(pattern):
        pattern = pattern.replace("\\", "/").lower()
        match = re.compile(_translate(pattern)).match
        inner = re.compile(_translate(pattern.rstrip("/") + "/*")).match
        return lambda path: bool(
            match(path.replace("\\", "/").lower()) or inner(path.replace("\\", "/").lower()))
    pattern = os.path.expanduser(pattern).replace("**/", "*").replace("**", "*")
    if not pattern.startswith(("/", "*", "<")):
        pattern = "*/" + pattern
    match = re.compile(_translate(pattern)).match
    inner = re.compile(_translate(pattern.rstrip("/") + "/*")).match  # a folder means all in it
    return lambda path: bool(match(path) or inner(path))


# --- the rules in force -----------------------------------------------------------------------

_current = [tRules()]


def current():
    """The tRules in force."""
    return _current[0]


def is_user_code(frame):
    """Whether a step may end in the frame."""
    name = frame.f_globals.get("__name__")
    return _current[0].is_user_file(
        _file_of(frame.f_code.co_filename), name if isinstance(name, str) else None)


_files = {}  # name of a code object's file -> its path


def _file_of(name):
    path = _files.get(name)
    if path is None:
        path = name
        if path.endswith(checksums.kSuffixes):
            path = path[:-1]
        if not _isabs(path) and not path.startswith("<"):
            path = os.path.abspath(path)
        _files[name] = path
    return path


def attach(session):
    session.on_configured(_configure)
    session.on_end(_reset)


def _configure(session):
    config = session.config
    _set(session, config.just_my_code, config.rules)


def _reset(session):
    _current[0] = tRules()


def _set(session, just_my_code, rules):
    _current[0] = tRules(just_my_code, rules, paths.paths_of(session).to_client)


def set_rules(session, arguments):
    """`tdbg/setRules`: {"rules": a bool or a list, as the argument justMyCode}."""
    value = arguments.get("rules")
    if isinstance(value, bool):
        _set(session, value, [])
    else:
        try:
            _set(session, True, _read_rules("rules", value))
        except tConfigError as why:
            raise tRequestError("{}".format(why))
    if (session.client or {}).get("supportsInvalidatedEvent"):
        session.send_event("invalidated", {"areas": ["stacks"]})
    return {"justMyCode": current().just_my_code, "rules": [
        {kind: pattern, "include": include} for kind, pattern, include in current().rules]}


kRequests = {"tdbg/setRules": tRequest(set_rules, kAnytime)}
