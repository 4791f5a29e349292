"""The breakpoints of a debug session: numbers, places, conditions and counts.

The core knows breakpoints by file and line, and by ids of its own; users know them by numbers, and
change one of two on a line.  So this table is the truth, and a line of the core's is cleared and
written anew whenever one of its breakpoints changes.  Disabled ones are not written at all: in
the core they would still slow the code around them.  What the core counts is fetched from its
list of changes, and added to what was counted before the line was last written.

The core resolves files by device and inode, so a module may be imported under any name, now or
later; here every file has one spelling, its real path.  A copy with the same contents is the same
file, too, for breakpoints with a checksum.

Who decides whether a hit stops?  The core, as far as it can, for it is many times faster: it
evaluates conditions that do not change anything (is_plain()) and passes over the hits before the
one that is wanted.  The core does not tell how a condition came out, so such a one is evaluated
again at the stop.  Every other condition is evaluated once, here: the core then stops at
each hit, and judge() says that there was nothing to stop for.
"""
from __future__ import absolute_import, division, print_function

import os

from tdbg import codelines, codeplaces, compat, evaluate, sublanguages
from tdbg.breakrecords import tBreakpoint, tHit, tHitCondition, tRefused
from tdbg.checksums import has_checksum, tail_of
from tdbg.conditions import check_condition, is_plain, tExpression

_same_file = os.path.samefile

kMaxIgnored = 0x7fffffff  # the core counts in a C int
# A breakpoint that the core looks for in every file that it comes to, and never finds.
kWatch = ("/dev/null/any", "any", kMaxIgnored)  # file, checksum, line


class tBreakpoints(codeplaces.tCodePlaces):
    """core, folder, languages: see tCodePlaces; on_conditions(exist): there are conditions from now
    on, and whether the core evaluates some of them."""

    def __init__(self, core, folder=None, languages=None, on_conditions=lambda exist: None):
        codeplaces.tCodePlaces.__init__(self, core, folder, languages)
        self._on_conditions = on_conditions
        if languages is not None:
            languages.on_change = self._move_to_code
        self._by_number = {}
        self._by_place = {}    # (path, line) -> {number: breakpoint}
        self._by_core_id = {}
        self._core_ids = {}    # (path, line) -> ids that the core has there
        self._conditions = {}  # line -> {core id: breakpoint whose condition the core evaluates}
        self._next = 1
        self._live = False  # the core keeps breakpoints from its start on
        self._entries = {}  # id of code, offset, line -> (whether a call begins there, the code)
        self._checksums = {}  # last part of a path -> {(path, checksum): how many breakpoints}
        self._searched = {}   # path -> how many files the core knew when it looked for copies of it
        self._is_same = {}  # (path, path and checksum of a breakpoint) -> whether they are one file
        self._on_new_file = None  # see watch_files()

    def go_live(self):
        """The core has been started: give it what was set before."""
        self._live = True
        self._set_watch()
        for place in list(self._by_place):
            self._write(*place)

    # --- looking ---

    def all(self):
        """Every breakpoint, by number, with its counts as of now."""
        self._collect()
        return [self._by_number[number] for number in sorted(self._by_number)]

    def get(self, number):
        """Breakpoint of a number; tRefused when there is none."""
        self._collect()
        if number not in self._by_number:
            raise tRefused("no breakpoint {}".format(number))
        return self._by_number[number]

    def at(self, path, line):
        """All on a line (of a path as find_file() gives it), by number."""
        return [bp for bp in self.all() if bp.path == path and bp.line == line]

    # --- setting and changing ---

    def add(self, path, line, condition=None, temporary=False, function=None, frame=None,
            hit_condition=None, on_hit=None, checksum="", source=None, exactly=False):
        """Set a breakpoint; the tBreakpoint, whose line is the first with code from `line` on.

        path      as find_file() gives it
        function  only to be remembered: find_function() tells where one begins
        frame     of the program, for files that only its import system can read
        source    the codelines.tSource, where that is known
        exactly   take the line as it is, without looking at the source; so does a function
                  whose source cannot be found
        the others are tBreakpoint's, hit_condition as text
        """
        bp = tBreakpoint(self._next, path, line)
        if not exactly:
            bp.line, bp.inside = self._place_in_source(path, line, function, frame, source)
        check_condition(condition)
        bp.condition, bp.temporary, bp.function = condition or None, temporary, function
        bp.hit_condition = tHitCondition(hit_condition) if hit_condition else None
        bp.on_hit, bp.checksum = on_hit, checksum
        self._arm(bp)
        try:
            self._insert(bp)
        except Exception as why:  # a name that has no spelling in UTF-8
            self._take_out(bp)
            raise tRefused("{}".format(why))
        return bp

    def _place_in_source(self, path, line, function, frame, source):
        try:
            source = source or self.source(path, frame)
        except tRefused:
            if function is None:
                raise
            return line, frozenset()
        return codeplaces.place_in(source, line)

    def remove(self, bp):
        self._collect()
        if self._take_out(bp):
            self._write(bp.path, bp.line)

    def set_enabled(self, bp, enabled):
        self._change(bp, "enabled", enabled)

    def set_condition(self, bp, condition):
        """condition: text, or None for none."""
        check_condition(condition)
        self._change(bp, "condition", condition or None)

    def set_hit_condition(self, bp, text):
        """text: of a tHitCondition, or None for none.  Hits are counted anew."""
        condition = tHitCondition(text) if text else None
        bp.passes = bp.ignore = 0
        self._change(bp, "hit_condition", condition)

    def set_on_hit(self, bp, function):
        bp.on_hit = function

    def set_ignore(self, bp, count):
        self._change(bp, "ignore", max(count, 0))

    def _change(self, bp, name, value):
        self._collect()
        if self._by_number.get(bp.number) is not bp:
            raise tRefused("breakpoint {} is gone".format(bp.number))
        if getattr(bp, name) != value:
            setattr(bp, name, value)
            bp.code = None
            self._arm(bp)
            self._write(bp.path, bp.line)

    def _insert(self, bp):
        self._collect()
        self._next = max(self._next, bp.number) + 1
        self._put_in(bp)
        self._write(bp.path, bp.line)

    def _put_in(self, bp):
        self._by_number[bp.number] = bp
        self._by_place.setdefault((bp.path, bp.line), {})[bp.number] = bp
        if bp.checksum:
            found = self._checksums.setdefault(tail_of(bp.path), {})
            key = (bp.path, bp.checksum)
            found[key] = found.get(key, 0) + 1

    def _take_out(self, bp):
        """Whether it was there."""
        on_line = self._by_place.get((bp.path, bp.line), {})
        on_line.pop(bp.number, None)
        if not on_line:
            self._by_place.pop((bp.path, bp.line), None)
        if self._by_number.pop(bp.number, None) is None:
            return False
        if bp.checksum:
            found = self._checksums[tail_of(bp.path)]
            key = (bp.path, bp.checksum)
            found[key] -= 1
            if not found[key]:
                del found[key]
        return True

    def _arm(self, bp):
        """Who judges its hits, and how many of them need not be looked at."""
        # Without an interpreter lock nobody can look what the core evaluates on another thread.
        bp.by_server = bool(
            bp.inside or bp.function is not None or bp.condition and not (
                is_plain(bp.condition) and compat.is_gil_enabled()))
        if bp.hit_condition is not None:
            following = bp.hit_condition.next_after(bp.passes)
            bp.ignore = 0 if following is None else min(following - bp.passes - 1, kMaxIgnored)

    def watch_files(self, function):
        """function(path) is called when the core has come to the first code of a file and nothing
        of it has run yet, and now and then for another file.  None: no longer."""
        is_set, self._on_new_file = self._on_new_file is not None, function
        if is_set and function is None and self._live:
            self._core.clear_breaks(kWatch[0], kWatch[2])
        elif not is_set and self._live:
            self._set_watch()

    def _set_watch(self):
        if self._on_new_file is not None:
            file, checksum, line = kWatch
            self._core.enable_checksums(0)  # for the files that it knows already
            try:
                self._core.set_break(file, checksum, line, 1, 0, None, 0)
            finally:
                self._core.enable_checksums(1)

    # --- from one run to the next ---

    def as_settings(self):
        return [bp.as_settings() for bp in self.all()]

    def restore(self, settings):
        """Set again what as_settings() told, under the same numbers."""
        for row in settings:
            bp = tBreakpoint(row["number"], row["path"], row["line"])
            for name in ("function", "condition", "ignore", "enabled", "temporary"):
                setattr(bp, name, row[name])
            try:
                bp.inside = frozenset(self.source(bp.path).one_line_functions(bp.line))
            except tRefused:
                pass
            self._arm(bp)
            self._insert(bp)

    # --- the core's table ---

    def _write(self, path, line):
        """Bring the core's records of a line up to date.  Its changes must have been collected."""
        if not self._live:
            return
        name = compat.to_native(path)
        on_line = self._by_place.get((path, line), {})
        for core_id in self._core_ids.pop((path, line), ()):
            self._by_core_id.pop(core_id, None)
            self._forget_condition(line, core_id)
        self._core.clear_breaks(name, line)
        for _, bp in sorted(on_line.items()):
            bp.core_id, bp.counted = None, 0
            if bp.enabled and not _is_over(bp):
                bp.core_id = self._set_break(bp, name)
                self._by_core_id[bp.core_id] = bp
                self._core_ids.setdefault((path, line), []).append(bp.core_id)
                if bp.condition is not None:
                    if not bp.by_server:
                        self._conditions.setdefault(line, {})[bp.core_id] = bp
                    self._on_conditions(bool(self._conditions))

    def _forget_condition(self, line, core_id):
        on_line = self._conditions.get(line, {})
        if on_line.pop(core_id, None) is not None and not on_line:
            del self._conditions[line]
            self._on_conditions(bool(self._conditions))

    def _set_break(self, bp, name):
        condition, temporary, ignore = bp.condition, int(bp.temporary), bp.ignore
        if bp.by_server:
            condition, temporary, ignore = None, 0, 0
        if bp.hit_condition is not None:
            temporary = 0
        arguments = (name, compat.to_native(bp.checksum), bp.line, 1, temporary,
                     compat.to_native(condition), ignore)
        if not bp.checksum:
            return self._core.set_break(*arguments)
        # The core compares with every file that it knows: once for all breakpoints of a file.
        known = self._core.get_registered_module_count()
        self._core.enable_checksums(int(self._searched.get(bp.path) != known))
        self._searched[bp.path] = known
        try:
            return self._core.set_break(*arguments)
        finally:
            self._core.enable_checksums(1)

    def _collect(self):
        """Take over what the core has counted; [(tBreakpoint, new hits, ignored ones, deleted)]."""
        if not self._live:
            return []
        deleted, changed = self._core.get_changed_bps_lists()
        if not deleted and not changed:
            return []
        by_id = self._by_core_id
        news = []
        for row in changed:
            bp = by_id.get(row[2])
            if bp is None:
                continue
            hits = row[7] - bp.counted
            ignored = 0 if bp.by_server else bp.ignore - row[6]
            bp.hits += hits
            bp.passes += ignored
            bp.counted = row[7]
            bp.ignore -= ignored
            news.append((bp, hits, ignored, False))
        for core_id in deleted:
            bp = by_id.get(core_id)
            if bp is None:
                continue
            bp.hits += 1
            bp.ignore = 0
            bp.core_id = None
            self._forget_condition(bp.line, core_id)
            self._take_out(bp)
            news.append((bp, 1, 0, True))
        news.sort(key=lambda row: row[0].number)
        return news

    def condition_at(self, frame):
        """((file, line), what the core has counted there) where it evaluates a condition when a
        frame stands at it; else None.  On any thread."""
        for bp in list(self._conditions.get(frame.f_lineno, {}).values()):
            if self._is_at(bp, frame):
                counts = self._core.get_breaks(compat.to_native(bp.path), bp.line)
                return (frame.f_code.co_filename, bp.line), counts
        return None

    # --- at a stop ---

    def judge(self, frame, uncounted=False):
        """([tHit] of the breakpoints that make the frame stop at its line, whether the core has
        stopped there only for others, which do not); once for each line event.

        uncounted: the core has stopped without a look at breakpoints
        """
        hits, passed = [], False
        news = self._collect()
        if uncounted:
            news.extend(self._count_here(frame))
        for bp, count, ignored, deleted in news:
            if not self._is_at(bp, frame):
                continue
            stops, error = True, None
            if not deleted:
                if bp.by_server:
                    stops, error = self._judge_by_server(bp, frame)
                else:
                    stops, error = self._judge_by_core(bp, frame, count, ignored)
                if stops is None:  # the core did not stop for it
                    continue
            if stops and error is None and bp.on_hit is not None:
                stops = False
                bp.on_hit(bp, frame)
            if stops:
                hits.append(tHit(bp, error))
            else:
                passed = True
        return hits, passed

    def _count_here(self, frame):
        """What _collect() would give if the core had counted the hits at the frame's line."""
        news = []
        on_line = self._by_place.get((self.path_of(frame), frame.f_lineno), {})
        for bp in [on_line[number] for number in sorted(on_line)]:
            if bp.core_id is None:
                continue
            bp.hits += 1
            ignored, deleted = 0, False
            if not bp.by_server and self._core_would_stop(bp, frame):
                if bp.ignore > 0:
                    ignored = 1
                    bp.ignore -= 1
                    bp.passes += 1
                elif bp.temporary and bp.hit_condition is None:
                    deleted = True
                    self._take_out(bp)
                self._write(bp.path, bp.line)
            news.append((bp, 1, ignored, deleted))
        return news

    def _core_would_stop(self, bp, frame):
        if bp.condition is None:
            return True
        result = evaluate.evaluate_limited(bp.condition, frame)
        return not result.ok or bool(result.value)

    def _judge_by_core(self, bp, frame, count, ignored):
        """(whether the breakpoint stops, what is wrong with its condition)"""
        if count <= ignored:
            return None, None
        if bp.condition is not None:
            # The core does not tell how the condition came out.
            result = evaluate.evaluate_limited(bp.condition, frame)
            if not result.ok:
                return True, result.error
            if not result.value:
                return None, None
        return self._passes(bp), None

    def _judge_by_server(self, bp, frame):
        code = frame.f_code
        if bp.inside and (code.co_name, code.co_firstlineno) not in bp.inside or (
                bp.function is not None and not self._is_entry(frame)):
            bp.hits -= 1
            return False, None
        if bp.condition is not None:
            try:
                if bp.code is None:
                    bp.code = tExpression(bp.condition)
                if not bp.code.value(frame):
                    return False, None
            except BaseException:
                return True, evaluate.describe_error()
        if not self._passes(bp):
            return False, None
        if bp.temporary:
            self._take_out(bp)
            self._write(bp.path, bp.line)
        return True, None

    def _is_entry(self, frame):
        if sublanguages.is_view(frame):
            return True
        code = frame.f_code
        key = (id(code), frame.f_lasti, frame.f_lineno)
        if key not in self._entries:
            self._entries[key] = (codelines.is_entry(code, *key[1:]), code)
        return self._entries[key][0]

    def _passes(self, bp):
        """A hit whose condition holds; whether it stops."""
        bp.passes += 1
        if bp.hit_condition is None:
            if bp.by_server and bp.ignore > 0:
                bp.ignore -= 1
                return False
            return True
        self._arm(bp)
        if _is_over(bp) or (bp.ignore > 0 and not bp.by_server):
            self._write(bp.path, bp.line)
        return bp.hit_condition.stops_at(bp.passes)

    def forget_event(self, frame):
        """A step has ended at the frame's return or exception, which the core counts as a hit of
        the breakpoints on that line: take that back."""
        for bp, count, ignored, deleted in self._collect():
            if not self._is_at(bp, frame) or count < 1:
                continue
            bp.hits -= 1
            if deleted:
                self._put_in(bp)
            elif ignored < 1:
                continue
            else:
                bp.passes -= 1
                bp.ignore += 1
            self._write(bp.path, bp.line)

    def _is_at(self, bp, frame):
        if bp.line != frame.f_lineno:
            return False
        path = self.path_of(frame)
        return path == bp.path or self.is_same_file(path, bp.path, bp.checksum)

    def is_same_file(self, path, other, checksum=""):
        """Whether the path is the other file under another name, or has the checksum."""
        key = (path, other, checksum)
        if key not in self._is_same:
            try:
                same = _same_file(path, other)
            except (OSError, ValueError):
                same = False
            self._is_same[key] = same or has_checksum(path, other, checksum)
        return self._is_same[key]

    def checksum_of(self, name):
        """What the core asks of a file: text that equals the checksum of a breakpoint if the file
        has the contents of the breakpoint's."""
        if self._on_new_file is not None:
            self._on_new_file(name)
        for path, checksum in sorted(self._checksums.get(tail_of(name), ())):
            if has_checksum(name, path, checksum):
                return compat.to_native(checksum)
        return ""

    def _move_to_code(self):
        """A language can tell which lines of its files stop."""
        for bp in self.all():
            source = self._languages.source_of(bp.path)
            line = None if source is None else source.line_with_code(bp.line)
            if line not in (None, bp.line):
                self._take_out(bp)
                self._write(bp.path, bp.line)
                bp.line = line
                self._put_in(bp)
                self._write(bp.path, line)


def _is_over(bp):
    """Whether no hit to come will stop."""
    return bp.hit_condition is not None and bp.hit_condition.next_after(bp.passes) is None
