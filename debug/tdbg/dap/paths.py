"""Where the client and the program keep the same file, and how each of them writes it.

A client knows a file by the path that it has opened it by: through a link, on another machine, in
another copy.  Whatever spelling it has used comes back to it wherever the file is meant.  Lines and
columns may count from 0 for it, and paths may be URIs.
"""
from __future__ import absolute_import, division, print_function

import os
import re

from tdbg import compat

_real_path = os.path.realpath
_norm_path = os.path.normpath
_isabs = os.path.isabs
_join = os.path.join

kScheme = u"file://"
_kDrive = re.compile(r"^[A-Za-z]:([\\/]|$)")
_kEscape = re.compile(u"%([0-9A-Fa-f]{2})")
_kUnescaped = frozenset(bytearray(
    b"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~/"))


def paths_of(session):
    """The session's tPaths."""
    found = getattr(session, "paths", None)
    if found is None:
        found = session.paths = tPaths(session)
    return found


class tPaths(object):
    def __init__(self, session):
        self._session = session
        self._spellings = {}  # real path -> as the client writes it
        self._contents = {}   # the same, for files that may be elsewhere: path -> checksum
        self._known = {}      # path of the program -> as the client writes it

    # --- paths ---

    def from_client(self, text, remember=True):
        """Path in the program's file system, in the interpreter's own kind of string.

        remember: the client is to see this spelling from now on
        """
        text = compat.to_text(text)
        path = compat.to_native(_from_uri(text) if self._is_uri(text) else text)
        for local, remote in self._mappings():
            rest = _below(path, local)
            if rest is not None:
                path = _join(remote, *rest) if rest else remote
                break
        if not _isabs(path):
            path = _join(self._folder(), path)
        path = _norm_path(path)
        if remember:
            self.remember(text, path)
        return path

    def remember(self, text, path, checksum=""):
        """The client writes the path so.  checksum: of the file (see breakpoints)."""
        real = _real_path(path)
        if self._spellings.get(real) != text or self._contents.get(real, "") != checksum:
            self._spellings[real] = text
            if checksum:
                self._contents[real] = checksum
            self._known.clear()

    def to_client(self, path):
        """How the client writes a path of the program."""
        text = self._known.get(path)
        if text is None:
            text = self._known[path] = self._find_spelling(path)
        return text

    def name_of(self, path):
        """Last part of what the client writes."""
        text = self.to_client(path)
        return base_name(compat.to_text(_from_uri(text)))

    def is_known(self, path):
        """Whether the client has a file of its own for the path."""
        return self.to_client(path) != self._in_style(path)

    def _find_spelling(self, path):
        real = _real_path(path)
        if real in self._spellings:
            return self._spellings[real]
        table = self._session.server.breakpoints
        for known, text in list(self._spellings.items()):
            if table.is_same_file(real, known, self._contents.get(known, "")):
                return text
        for local, remote in self._mappings():
            for spelling in (path, real):
                rest = _below(spelling, remote)
                if rest is not None:
                    return self._in_style(_join_in_style(local, rest))
        return self._in_style(path)

    def _mappings(self):
        """[(local, remote)], the most special first."""
        config = self._session.config
        pairs = config.path_mappings if config is not None else ()
        pairs = [(local, _norm_path(_join(self._folder(), remote))) for local, remote in pairs]
        return sorted(pairs, key=lambda pair: -len(pair[0]))

    def _folder(self):
        return self._session.server.breakpoints.folder

    def _is_uri(self, text):
        return self._wants_uris() or text.startswith(kScheme)

    def _wants_uris(self):
        return (self._session.client or {}).get("pathFormat") == "uri"

    def _in_style(self, path):
        return _to_uri(path) if self._wants_uris() else compat.to_text(path)

    # --- lines and columns ---

    def line_from_client(self, line):
        return line + self._first("linesStartAt1")

    def line_to_client(self, line):
        return line - self._first("linesStartAt1")

    def column_from_client(self, column):
        return column + self._first("columnsStartAt1")

    def column_to_client(self, column):
        return column - self._first("columnsStartAt1")

    def _first(self, name):
        return 1 if (self._session.client or {}).get(name) is False else 0


def base_name(path):
    """Last part of a path of any system."""
    return path.replace("\\", "/").rstrip("/").rpartition("/")[2]


def is_of_windows(path):
    return _kDrive.match(path) is not None or path.startswith("\\\\")


def _below(path, folder):
    """Parts of the path below the folder; None when it is not there."""
    if is_of_windows(folder) or is_of_windows(path):
        parts, above = path.replace("\\", "/").split("/"), folder.replace("\\", "/").split("/")
    else:
        parts, above = path.split("/"), folder.split("/")
    parts = [part for part in parts if part not in ("", ".")]
    above = [part for part in above if part not in ("", ".")]
    begin = parts[:len(above)]
    if is_of_windows(folder):
        begin, above = [part.lower() for part in begin], [part.lower() for part in above]
    return parts[len(above):] if begin == above else None


def _join_in_style(folder, parts):
    separator = "\\" if is_of_windows(folder) and "/" not in folder else "/"
    return separator.join([folder.rstrip("/\\")] + parts) if parts else folder


def _from_uri(text):
    if not text.startswith(kScheme):
        return text
    path = text[len(kScheme):]
    if not path.startswith(u"/"):  # a host
        path = u"/" + path.partition(u"/")[2]
    data = bytearray()
    position = 0
    for found in _kEscape.finditer(path):
        data += path[position:found.start()].encode("utf-8", "replace")
        data.append(int(found.group(1), 16))
        position = found.end()
    data += path[position:].encode("utf-8", "replace")
    path = bytes(data).decode("utf-8", "replace")
    return path[1:] if _kDrive.match(path[1:]) else path


def _to_uri(path):
    text = compat.to_text(path)
    if text.startswith(kScheme):
        return text
    text = text.replace(u"\\", u"/")
    text = text if text.startswith(u"/") else u"/" + text
    data = text.encode("utf-8", "replace" if compat.PY2 else "surrogateescape")
    return kScheme + u"".join(
        compat.to_text(chr(byte)) if byte in _kUnescaped else u"%{:02X}".format(byte)
        for byte in bytearray(data))
