"""Breakpoints as a client sets them: by source, all at once, and by the names of functions.

What the client wishes (tWish) and what the program has (breakpoints of the shared table, `sites`)
differ: a line moves to the next one with code, a function may be in several modules, and a wish
whose file or function is not there yet waits for an import.  A wish keeps its number as long as
the client repeats it.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import breakpoints, checksums, codelines, compat, conditions, private
from tdbg.dap import logpoints, rules, sources
from tdbg.dap.functionnames import code_below, find_new_code, look_up, plain_name
from tdbg.dap.paths import base_name, is_of_windows, paths_of

_real_path = os.path.realpath
_is_file = os.path.isfile
_stat = os.stat
_isabs = os.path.isabs
_join = os.path.join

_module_type = type(os)

kPending, kFailed = "pending", "failed"


class tWish(object):
    """One breakpoint of the client.

    number         its id for the client
    path           of the file in the program's file system, or name of code without a file; None
                   for functions.  reference: of such code, or 0
    line, name     where it was wanted: one of them is None
    condition, hits, log    texts or None
    sites          [breakpoints.tBreakpoint] that stand for it
    message        why there are none, or None;  reason: kPending, kFailed, or None
    is_bound       there is no need to look at further imports
    mark           of the file (see _mark_of()) when its lines were looked at, or None
    """

    def __init__(self, number, path, line, name, condition, hits, log):
        self.number, self.path, self.line, self.name = number, path, line, name
        self.condition, self.hits, self.log = condition, hits, log
        self.reference = 0
        self.checksum = ""
        self.sites = []
        self.message = self.reason = None
        self.is_bound = False
        self.mark = None

    @property
    def key(self):
        return self.line, self.name, self.condition, self.hits, self.log


class tBreaks(object):
    """Those of one session.  The methods are for run_in_core(), and callbacks."""

    def __init__(self, session):
        self._session = session
        self._paths = paths_of(session)
        self._by_source = {}   # path or name -> [tWish]
        self._functions = []   # [tWish]
        self._next = 1
        self._by_site = {}     # number of a table's breakpoint -> tWish
        self._modules = {}     # name -> id of the module, of those that have been looked at
        self._told = {}        # number of a wish -> last Breakpoint told
        self._is_busy = False  # reading a source may import a codec

    @property
    def _table(self):
        return self._session.server.breakpoints

    # --- requests ---

    def set_source(self, path, reference, checksum, rows, is_modified):
        """rows: [(line, condition, hits, log)] in the order wanted; their Breakpoints."""
        old = self._by_source.pop(path, [])
        keep = dict(
            (wish.key, wish) for wish in old if not is_modified and wish.checksum == checksum)
        same_line = dict((wish.line, wish) for wish in reversed(old))
        wishes = []
        for line, condition, hits, log in rows:
            wish = keep.pop((line, None, condition, hits, log), None)
            if wish is None:
                wish = self._new_wish(path, line, None, condition, hits, log, same_line)
                wish.reference, wish.checksum = reference, checksum
            same_line.pop(line, None)
            wishes.append(wish)
        self._by_source[path] = wishes
        return self._replace(old, wishes)

    def set_functions(self, rows):
        """rows: [(name, condition, hits)]; their Breakpoints."""
        old, self._functions = self._functions, []
        keep = dict((wish.key, wish) for wish in old)
        same_name = dict((wish.name, wish) for wish in reversed(old))
        for name, condition, hits in rows:
            wish = keep.pop((None, name, condition, hits, None), None)
            if wish is None:
                wish = self._new_wish(None, None, name, condition, hits, None, same_name)
            same_name.pop(name, None)
            self._functions.append(wish)
        return self._replace(old, self._functions)

    def _new_wish(self, path, line, name, condition, hits, log, before):
        """before: {line or name: tWish} whose number may be taken over."""
        former = before.pop(line if name is None else name, None)
        number = former.number if former is not None else self._next
        self._next = max(self._next, number + 1)
        return tWish(number, path, line, name, condition, hits, log)

    def _replace(self, old, wishes):
        self._is_busy = True
        try:
            kept = set(map(id, wishes)).intersection(map(id, old))
            for wish in old:
                if id(wish) not in kept:
                    self._drop(wish)
            for wish in wishes:
                if id(wish) not in kept:
                    self._place(wish)
        finally:
            self._is_busy = False
        self._watch()
        found = [self.describe(wish) for wish in wishes]
        for wish, row in zip(wishes, found):
            self._told[wish.number] = row
        return found

    def _drop(self, wish):
        for bp in wish.sites:
            self._by_site.pop(bp.number, None)
            self._table.remove(bp)
        wish.sites = []
        self._told.pop(wish.number, None)

    def clear(self, _=None):
        """The client goes."""
        for wish in self._all():
            self._drop(wish)
        self._by_source.clear()
        self._functions = []
        self._watch()

    def _all(self):
        found = list(self._functions)
        for wishes in self._by_source.values():
            found.extend(wishes)
        return found

    # --- from wishes to places ---

    def _place(self, wish):
        try:
            on_hit = None
            if wish.log is not None:
                on_hit = self._make_writer(logpoints.tLogMessage(wish.log))
            if wish.hits:
                breakpoints.tHitCondition(wish.hits)
            conditions.check_condition(wish.condition)
            wish.mark = None
            if wish.name is not None:
                self._place_function(wish)
            elif wish.reference:
                self._add(wish, wish.path, wish.line, on_hit,
                          source=sources.sources_of(self._session).tree_of(wish.reference))
                wish.is_bound = True
            else:
                wish.mark = _mark_of(wish.path)
                self._place_line(wish, on_hit)
        except breakpoints.tRefused as why:
            wish.message, wish.reason, wish.is_bound = "{}".format(why), kFailed, True

    def _place_line(self, wish, on_hit):
        if _is_file(wish.path):
            checksum = wish.checksum or checksums.kSameAs + wish.path
            self._add(wish, _real_path(wish.path), wish.line, on_hit, checksum=checksum)
            wish.is_bound = True
            return
        found = sources.sources_of(self._session)
        reference = found.reference_of_module(wish.path)
        if reference:  # a member of an archive
            self._add(wish, wish.path, wish.line, on_hit, source=found.tree_of(reference))
            wish.is_bound = True
            return
        if wish.checksum:
            # Any file of that name may be it; whether the line has code, its import will show.
            self._add(wish, wish.path, wish.line, on_hit, checksum=wish.checksum, exactly=True)
        wish.message, wish.reason = self._why_not(wish.path), kPending

    def _why_not(self, path):
        text = "there is no file {} for the program".format(path)
        name = base_name(path)
        others = []
        for module in list(sys.modules.values()):
            other = sources.file_of_module(module)
            if other is not None and base_name(other) == name and other not in others:
                others.append(other)
        if others:
            text += "; a loaded file of that name is {}".format(", ".join(sorted(others)[:3]))
            if is_of_windows(base_name(path)) or not self._paths.is_known(others[0]):
                text += " (see pathMappings)"
        return text

    def _add(self, wish, path, line, on_hit=None, **more):
        bp = self._table.add(
            path, line, wish.condition, hit_condition=wish.hits, on_hit=on_hit, **more)
        wish.sites.append(bp)
        wish.message = wish.reason = None
        self._by_site[bp.number] = wish

    def _make_writer(self, message):
        def write(_bp, frame):
            try:
                self._session.output(
                    "console", message.write(frame) + u"\n",
                    line=self._paths.line_to_client(frame.f_lineno),
                    source=sources.source_of_frame(self._session, frame))
            except Exception:
                self._session.tell_failure("log point")
        return write

    # --- functions ---

    def _place_function(self, wish):
        self._find_function(wish, [(name, module) for name, module in list(sys.modules.items())])
        if not wish.sites:
            wish.message = "no function {} has been loaded yet".format(compat.to_native(wish.name))
            wish.reason = kPending

    def _find_function(self, wish, modules):
        """Add the places of the function in these modules; whether there were any."""
        name = plain_name(wish.name)
        before = len(wish.sites)
        loaded = False
        for module_name, module in modules:
            if not isinstance(module_name, str) or not isinstance(module, _module_type):
                continue
            if name.startswith(module_name + "."):
                loaded = True
                self._find_in_module(wish, module, name[len(module_name) + 1:], ending=False)
            path = sources.file_of_module(module)
            if path is not None and rules.is_of_program(path):
                self._find_in_module(wish, module, name, ending="." not in name)
        if not loaded and not wish.sites:
            self._find_on_disk(wish, name)
        return len(wish.sites) > before

    def _find_in_module(self, wish, module, name, ending):
        """ending: the name may be the end of a longer one."""
        code = code_below(look_up(module, name))
        if code is not None:
            path = code.co_filename
            path = path if _isabs(path) else _join(self._table.folder, path)
            self._add_function(wish, _real_path(path), codelines.first_line_of(code))
            return
        path = sources.file_of_module(module)
        if path is None or not path.endswith(".py") or not _is_file(path):
            return
        try:
            functions = self._table.source(path).functions()
        except breakpoints.tRefused:
            return
        self._add_functions(wish, _real_path(path), functions, name, ending)

    def _add_functions(self, wish, path, functions, name, ending):
        for full_name, line in codelines.functions_named(functions, name).items():
            if ending or full_name == name:
                self._add_function(wish, path, line)

    def _find_on_disk(self, wish, name):
        """A function of a module that has not been imported."""
        parts = name.split(".")
        for count in range(len(parts) - 1, 0, -1):
            path = self._table.find_module(".".join(parts[:count]))
            if path is None:
                continue
            try:
                line = self._table.source(path).functions().get(".".join(parts[count:]))
            except breakpoints.tRefused:
                line = None
            if line is not None:
                self._add_function(wish, path, line)
            return

    def _add_function(self, wish, path, line):
        for bp in wish.sites:
            if (bp.path, bp.line) == (path, line):
                return
        try:
            self._add(wish, path, line, function=wish.name)
        except breakpoints.tRefused as why:
            wish.message, wish.reason = "{}".format(why), kFailed

    # --- code that is seen for the first time ---

    def _watch(self):
        """Ask for files while there is a wish that one may fulfil."""
        wanted = any(
            not wish.is_bound or (wish.reason == kFailed and wish.mark is not None)
            for wish in self._all())
        self._table.watch_files(self._see_file if wanted else None)

    def _see_file(self, name):
        """Comes before the file's code runs, so that what is called while it is imported stops."""
        if self._is_busy or private.is_borrowing():
            return
        self._is_busy = True
        try:
            path = _real_path(name)
            if path.endswith(checksums.kSuffixes):
                path = path[:-1]
            if not rules.is_own_file(path):
                code = find_new_code(path, self._table)
                for wish in self._all():
                    self._see_file_of(wish, name, path, code)
        finally:
            self._is_busy = False
        self._watch()

    def _see_file_of(self, wish, name, path, code):
        if wish.name is None:
            if not wish.reference and base_name(wish.path) == base_name(name):
                self._see_file_of_line(wish, name, path)
        elif code is not None and wish.reason != kFailed and self._see_functions(wish, code):
            self._tell(wish)

    def _see_file_of_line(self, wish, name, path):
        is_there = _real_path(wish.path) == path
        if wish.is_bound and (
                wish.mark is None or not is_there or _mark_of(wish.path) == wish.mark):
            return
        if not is_there or wish.reason is not None or _mark_of(wish.path) != wish.mark:
            self._place_anew(wish, [name])
        wish.is_bound = wish.is_bound or is_there
        self._tell(wish)

    def _place_anew(self, wish, paths):
        """paths: of files that have been loaded."""
        self._drop_sites(wish)
        wish.is_bound = False
        self._place(wish)
        self._bind_elsewhere(wish, paths)

    def _see_functions(self, wish, code):
        """Whether some of the new code's functions have the name."""
        name = plain_name(wish.name)
        before = len(wish.sites)
        for module in code.modules:
            if name.startswith(module + "."):
                self._add_functions(
                    wish, code.path, code.functions(), name[len(module) + 1:], ending=False)
        if rules.is_of_program(code.path):
            self._add_functions(wish, code.path, code.functions(), name, ending="." not in name)
        return len(wish.sites) > before

    # --- imports ---

    def see_import(self, _session, _module):
        """Something was imported: look for what is waited for."""
        if self._is_busy or private.is_borrowing():
            return
        self._is_busy = True
        try:
            news = self._new_modules()
            if news:
                self._look_through(news)
        finally:
            self._is_busy = False
        self._watch()

    def _look_through(self, news):
        paths = [path for path in [
            sources.file_of_module(module) for _, module in news] if path is not None]
        for wish in self._all():
            if wish.reason == kFailed or (wish.name is None and wish.is_bound):
                continue
            if wish.name is not None:
                if self._find_function(wish, news):
                    self._tell(wish)
            elif any(base_name(path) == base_name(wish.path) for path in paths):
                self._place_anew(wish, paths)
                self._tell(wish)
            elif wish.reason == kPending and _is_file(wish.path):
                self._try_early(wish)

    def _try_early(self, wish):
        """The file has come into being, but is perhaps still being written."""
        message = wish.message
        self._place_anew(wish, [])
        if wish.reason is None:
            self._tell(wish)
        else:
            wish.message, wish.reason = message, kPending
        wish.is_bound = False

    def _new_modules(self):
        if not any(wish.name is not None or not wish.is_bound for wish in self._all()):
            return []
        news = []
        for name in list(sys.modules):
            module = sys.modules.get(name)
            if module is not None and self._modules.get(name) != id(module) and (
                    not sources.is_loading(module)):
                self._modules[name] = id(module)
                news.append((name, module))
        return news

    def _bind_elsewhere(self, wish, paths):
        """The file is not where the client says, but one of these may be it by its contents."""
        for path in paths:
            if not wish.checksum or wish.is_bound:
                continue
            if checksums.has_checksum(path, wish.path, wish.checksum):
                self._drop_sites(wish)
                self._paths.remember(self._paths.to_client(wish.path), path)
                wish.path, wish.message, wish.reason = path, None, None
                self._place(wish)

    def _drop_sites(self, wish):
        for bp in wish.sites:
            self._by_site.pop(bp.number, None)
            self._table.remove(bp)
        wish.sites = []

    def _tell(self, wish):
        row = self.describe(wish)
        if self._told.get(wish.number) != row:
            self._told[wish.number] = row
            self._session.send_event("breakpoint", {"reason": "changed", "breakpoint": row})

    # --- answers ---

    def describe(self, wish):
        """Breakpoint of the protocol."""
        row = {"id": wish.number, "verified": bool(wish.sites) and wish.reason is None}
        if wish.message is not None:
            row["message"] = compat.to_text(wish.message)
            row["reason"] = wish.reason
        line = wish.sites[0].line if wish.sites else wish.line
        if line is not None:
            row["line"] = self._paths.line_to_client(line)
        found = sources.sources_of(self._session)
        if wish.reference:
            row["source"] = found.of_path(wish.path)
        elif wish.path is not None and _is_file(wish.path):
            row["source"] = found.of_path(wish.path)
        elif wish.path is not None:
            text = self._paths.to_client(wish.path)
            row["source"] = {"name": compat.to_text(base_name(wish.path)), "path": text}
        elif wish.sites and _is_file(wish.sites[0].path):
            row["source"] = found.of_path(wish.sites[0].path)
        return row

    def tell_stop(self, session, stop):
        """What a `stopped` event says of the breakpoints."""
        wishes, errors = [], []
        for hit in stop.hits:
            wish = self._by_site.get(hit.breakpoint.number)
            if wish is not None and wish not in wishes:
                wishes.append(wish)
            if hit.error is not None:
                errors.append((hit.breakpoint.condition, hit.error))
        if not wishes:
            return None
        body = {"hitBreakpointIds": [wish.number for wish in wishes]}
        if all(wish.name is not None for wish in wishes):
            body["reason"] = "function breakpoint"
        for condition, error in errors:
            text = u"the condition `{}` failed: {}".format(
                compat.to_text(condition), compat.to_text(error))
            body["description"] = body["text"] = text
            session.output(
                "stderr", text + u"\n", line=self._paths.line_to_client(stop.frame.f_lineno),
                source=sources.source_of_frame(session, stop.frame))
        return body


def _mark_of(path):
    """What changes when the file does; None without a file."""
    try:
        status = _stat(path)
    except (OSError, ValueError):
        return None
    return status.st_mtime, status.st_size, status.st_ino


def breaks_of(session):
    """The session's tBreaks."""
    found = getattr(session, "breaks", None)
    if found is None:
        found = session.breaks = tBreaks(session)
    return found
