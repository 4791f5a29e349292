"""What is done while a random program runs (Plan), and a model of the tracer's rules, which tells
every stop from the program's events.  Only differential.py uses this; what it is for is told there.
"""
from __future__ import absolute_import, division, print_function

import collections
import random
import sys

kLinesDependOnWatching = sys.version_info < (3, 10)

kConditions = [None, None, "TICK[0] % 2", "x > 3", "d == 2", "a and x", "1 // 0", "TICK[0] > 5"]
kCommands = ["step_into", "step_over", "step_over", "step_over_line", "step_over_line_range",
             "step_out", "continue_run", "continue_run", "stop"]
kSteps = 120
kRevisions = 20

# What happened: one event of a frame. `frame` and `parent` are numbers of activations (0: outside).
tEvent = collections.namedtuple(
    "tEvent", "what frame parent name line offset value is_stop_iteration is_yield conditions")


class Plan(object):
    """What is done at each stop, by its number: the same for the tracer and for the model."""

    def __init__(self, seed, lines):
        self.random = random.Random(seed).random
        self.lines = lines
        self.breaks_at_begin = [self.new_break() for _ in range(self.below(7))]
        self.exception_mode = self.below(2)
        self.use_idle_thread, self.use_eval_frame = self.below(2), self.below(2)
        self.steps = [self.new_step() for _ in range(kSteps)]

    def below(self, limit):
        return int(self.random() * limit)

    def pick(self, values):
        return values[self.below(len(values))]

    def new_break(self):
        return (self.pick(self.lines), self.random() < 0.9, self.random() < 0.2,
                self.pick(kConditions), self.pick([0, 0, 0, 1, 3]))

    def new_step(self):
        """(command, breakpoint to set or None, line to clear or None, lines of the range)"""
        return (self.pick(kCommands),
                self.new_break() if self.random() < 0.08 else None,
                self.pick(self.lines) if self.random() < 0.08 else None,
                self.below(4))

    def step(self, number):
        return self.steps[number % len(self.steps)]

    def conditions(self):
        """{line: condition texts} of every breakpoint that may be."""
        found = {}
        for row in self.breaks_at_begin + [step[1] for step in self.steps if step[1]]:
            if row[3] is not None:
                found.setdefault(row[0], set()).add(row[3])
        return found


class tModelBreak(object):
    def __init__(self, number, row):
        self.id = number
        self.line, self.enabled, self.temporary, self.condition, self.ignore = row
        self.hits = 0


class Model(object):
    """The rules of stopping, over a list of events; `observed` decides only what may be either.

    passed: numbers of the stops at which it has decided wrongly: there was another stop like that.
    """

    def __init__(self, plan, events, observed, first_id, passed=()):
        self.plan, self.events, self.observed = plan, events, observed
        self.passed = dict(passed)  # number of a stop -> how many events are no such stop
        self.decided = []  # numbers of the stops that might have been none
        self.stops = []
        self.breaks = []
        self.next_id = first_id
        self.stop_frame, self.return_frame = "any", None
        self.range = None
        for row in plan.breaks_at_begin:
            self.add_break(row)

    def add_break(self, row):
        self.breaks.insert(0, tModelBreak(self.next_id, row))
        self.next_id += 1

    def run(self):
        for event in self.events:
            getattr(self, "on_" + event.what)(event)

    def counts(self):
        return sorted((item.line, item.id, item.ignore, item.hits) for item in self.breaks)

    # --- the rules ---

    def breaks_here(self, event):
        stop = False
        for item in [item for item in self.breaks if item.line == event.line and item.enabled]:
            item.hits += 1
            if item.condition is not None and not (event.conditions or {}).get(item.condition, 2):
                continue
            if item.condition is not None and event.conditions[item.condition] == 2:
                stop = True
                continue
            if item.ignore > 0:
                item.ignore -= 1
                continue
            if item.temporary:
                self.breaks.remove(item)
            stop = True
        return stop

    def stops_by_step(self, event):
        if self.stop_frame is None:
            return False
        if self.stop_frame == "any":
            self.breaks_here(event)
            return True
        if event.frame == self.stop_frame and not self.is_in_range(event):
            self.breaks_here(event)
            return True
        return False

    def is_in_range(self, event):
        if self.range is None:
            return False
        if not self.range_is_sure:
            seen = self.seen_next()
            return seen is None or (seen[1], seen[3]) != (event.name, event.offset)
        return self.range[0] <= (event.line or 0) <= self.range[1]

    def seen_next(self):
        number = len(self.stops)
        return self.observed[number] if number < len(self.observed) else None

    def on_call(self, event):
        pass

    def on_line(self, event):
        if self.stops_by_step(event) or self.breaks_here(event):
            self.stop("line", event, None)

    def on_return(self, event):
        if self.return_frame == event.frame:
            stops = not event.is_yield
        else:
            stops = self.stops_by_step(event)
        if stops:
            self.stop("return", event, event.value)

    def on_exception(self, event):
        by_step = self.stops_by_step(event)
        if not (by_step or self.plan.exception_mode == 1):
            return
        if not event.is_stop_iteration:
            self.stop("exception", event, event.value)
        elif self.stop_frame not in ("any", None):  # either, see above
            seen = self.seen_next()
            for kind, value in (("line", None), ("exception", event.value)):
                wanted = (kind, event.name, event.line, event.offset, value)
                if seen and without_lines([seen]) == without_lines([wanted]):
                    self.decide(kind, event, value)
                    break

    def decide(self, kind, event, value):
        number = len(self.stops)
        if self.passed.get(number, 0) > 0:
            self.passed[number] -= 1
            return
        self.decided.append(number)
        self.stop(kind, event, value)

    # --- commands ---

    def stop(self, kind, event, value):
        number = len(self.stops)
        self.stops.append((kind, event.name, event.line, event.offset, value))
        command, new_break, cleared, length = self.plan.step(number)
        if new_break is not None:
            self.add_break(new_break)
        if cleared is not None:
            self.breaks = [item for item in self.breaks if item.line != cleared]
        self.range = None
        # Where the tracer is shown another line now, it may be shown others in the range, too.
        self.range_is_sure = self.line_shown(number) == event.line
        if command == "stop":
            self.stop_frame = "any"
            return
        self.stop_frame, self.return_frame = {
            "step_into": ("any", None), "continue_run": (None, None),
            "step_out": (event.parent, event.frame),
        }.get(command, (event.frame, event.frame))
        if command == "step_over_line":
            self.range = (event.line or 0, event.line or 0)
        elif command == "step_over_line_range":
            line = self.line_shown(number) or 0
            self.range = (line, line + length)

    def line_shown(self, number):
        """Of a stop: the range begins at the line that the tracer was shown."""
        own = self.stops[number]
        seen = self.observed[number] if number < len(self.observed) else own
        return (seen if without_lines([seen]) == without_lines([own]) else own)[2]


def run_model(plan, events, observed, first_id):
    """The model that tells the stops observed, if there is one."""
    passed = collections.Counter()
    for _ in range(kRevisions):
        model = Model(plan, events, observed, first_id, passed)
        model.run()
        if without_lines(model.stops) == without_lines(observed) or not model.decided:
            break
        same = number_of_same(without_lines(model.stops), without_lines(observed))
        passed[max([number for number in model.decided if number <= same] or model.decided)] += 1
    return model


def without_lines(stops):
    """Without them where they depend on how the frame was watched."""
    if not kLinesDependOnWatching:
        return stops
    return [stop[:2] + (0,) + stop[3:] for stop in stops]


def number_of_same(some, others):
    """At the beginning of both."""
    number = 0
    while number < min(len(some), len(others)) and some[number] == others[number]:
        number += 1
    return number
