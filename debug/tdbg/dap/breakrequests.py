"""The client's requests for breakpoints: what they say, checked, as `breaks` takes it."""
from __future__ import absolute_import, division, print_function

import os

from tdbg import breakpoints, checksums, compat
from tdbg.dap import sources
from tdbg.dap.breaks import breaks_of
from tdbg.dap.paths import paths_of
from tdbg.dap.requests import get, get_optional, kAnytime, tRequest, tRequestError

_is_file = os.path.isfile

_kAlgorithms = {"MD5": "md5", "SHA1": "sha1", "SHA256": "sha256"}


def attach(session):
    breaks = breaks_of(session)
    session.on_stop(breaks.tell_stop)
    session.on_import(breaks.see_import)
    session.on_end(breaks.clear)


def _optional_text(row, name):
    text = get_optional(row, name, str)
    return text if text is not None and text.strip() else None


def _rows(arguments, name):
    rows = get_optional(arguments, name, list, [])
    if not all(isinstance(row, dict) for row in rows):
        raise tRequestError("the argument `{}` must be a list of objects".format(name))
    return rows


def _checksum_in(source):
    """Text for checksums.has_checksum(): the best checksum that the client has sent, or ''."""
    best = ""
    for row in _rows(source, "checksums"):
        kind = _kAlgorithms.get(row.get("algorithm"))
        digest = row.get("checksum")
        if kind is not None and isinstance(digest, compat.string_types) and kind > best:
            best = "{}:{}".format(kind, compat.to_native(digest).strip().lower())
    return best


def _file_in(session, source, remember=True):
    """(path or name of code, reference) that a Source of the protocol means."""
    reference = sources.reference_in(source, {})
    if reference:
        return sources.sources_of(session).path_of(reference), reference
    text = get_optional(source, "path", str)
    if not text:
        raise tRequestError("the source has neither a path nor a number")
    paths = paths_of(session)
    path = paths.from_client(text, remember)
    if remember:
        checksum = _checksum_in(source) or (checksums.kSameAs + path if _is_file(path) else "")
        paths.remember(text, path, checksum)
    return path, 0


def set_breakpoints(session, arguments):
    source = get(arguments, "source", dict)
    paths = paths_of(session)
    if "breakpoints" in arguments and arguments["breakpoints"] is not None:
        rows = [
            (paths.line_from_client(get(row, "line", int)), _optional_text(row, "condition"),
             _optional_text(row, "hitCondition"), _optional_text(row, "logMessage"))
            for row in _rows(arguments, "breakpoints")]
    else:
        lines = get_optional(arguments, "lines", list, [])
        rows = [(paths.line_from_client(get({"line": line}, "line", int)), None, None, None)
                for line in lines]
    is_modified = get_optional(arguments, "sourceModified", bool, False)
    checksum = _checksum_in(source)
    path, reference = _file_in(session, source)
    found = session.run_in_core(
        lambda: breaks_of(session).set_source(path, reference, checksum, rows, is_modified))
    return {"breakpoints": found}


def set_function_breakpoints(session, arguments):
    rows = [
        (get(row, "name", str), _optional_text(row, "condition"),
         _optional_text(row, "hitCondition"))
        for row in _rows(arguments, "breakpoints")]
    return {"breakpoints": session.run_in_core(lambda: breaks_of(session).set_functions(rows))}


def breakpoint_locations(session, arguments):
    paths = paths_of(session)
    path, reference = _file_in(session, get(arguments, "source", dict), remember=False)
    first = paths.line_from_client(get(arguments, "line", int))
    last = get_optional(arguments, "endLine", int)
    last = first if last is None else paths.line_from_client(last)

    def find():
        try:
            if reference:
                source = sources.sources_of(session).tree_of(reference)
            else:
                source = session.server.breakpoints.source(path)
            return source.lines_with_code(first, last)
        except breakpoints.tRefused:
            return []

    lines = session.run_in_core(find)
    return {"breakpoints": [{"line": paths.line_to_client(line)} for line in lines]}


kRequests = {
    "setBreakpoints": tRequest(set_breakpoints, kAnytime),
    "setFunctionBreakpoints": tRequest(set_function_breakpoints, kAnytime),
    "breakpointLocations": tRequest(breakpoint_locations, kAnytime),
}
