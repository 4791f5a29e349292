"""What the client has set, kept for the next run of the program: breakpoints and step rules.

Each run numbers its breakpoints from 1 on.  The client must not meet a number twice, and knows a
breakpoint that is set again in the next run by its first number.
"""
import collections
import threading

# Kept and sent again to the next run of the program, by what they replace.
kBreakpointRequests = (
    "setBreakpoints", "setFunctionBreakpoints", "setExceptionBreakpoints", "setDataBreakpoints",
    "setInstructionBreakpoints")
kKeptRequests = kBreakpointRequests + ("tdbg/setRules",)

kNumbersPerRun = 1000000
kEarlyRun = 900  # stands for one in the numbers of breakpoints that are set before the first run


class tKept:
    """A request, and the numbers by which the client knows its breakpoints."""

    def __init__(self, command, arguments):
        self.command, self.arguments = command, arguments
        self.numbers = []

    def key(self):
        """Equal for requests of which the later one replaces the earlier."""
        source = self.arguments["source"] if self.command == "setBreakpoints" else {}
        return self.command, source.get("path") or source.get("name"), source.get("sourceReference")


class tMemory:
    """Any thread."""

    def __init__(self):
        self._lock = threading.Lock()
        self._kept = collections.OrderedDict()  # tKept.key() -> tKept
        self._aliases = {}  # number of a breakpoint -> number that the client knows
        self._run = 0
        self._early = 0

    def begin_next_run(self):
        self._run += 1

    def keep(self, kept):
        with self._lock:
            self._kept[kept.key()] = kept

    def all(self):
        """[tKept], in the order in which the first one of each key came."""
        with self._lock:
            return list(self._kept.values())

    def keep_unnumbered(self, request):
        """A request whose breakpoints the client has no numbers for."""
        kept = tKept(request["command"], request.get("arguments", {}))
        kept.numbers = [None for _ in kept.arguments.get("breakpoints") or ()]
        self.keep(kept)

    def keep_early(self, request):
        """Before there is a program; returns the client's rows: nothing is known of them yet."""
        kept = tKept(request["command"], request.get("arguments", {}))
        rows = []
        for _ in kept.arguments.get("breakpoints") or kept.arguments.get("filters") or ():
            self._early += 1
            rows.append({"id": self._early + kEarlyRun * kNumbersPerRun, "verified": False,
                         "message": "the program has not been started yet"})
        kept.numbers = [row["id"] for row in rows]
        self.keep(kept)
        return rows

    def keep_answered(self, request, response):
        """What the program has taken; puts the client's numbers into its answer."""
        kept = tKept(request["command"], request.get("arguments", {}))
        for row in _rows_of(response):
            self.translate(row)
            kept.numbers.append(row.get("id"))
        self.keep(kept)

    def adopt(self, kept, response):
        """What was kept has been set again: rows that the client is to be told of."""
        changed = []
        for row, number in zip(_rows_of(response), kept.numbers):
            if number is not None and isinstance(row.get("id"), int):
                self._aliases[self._number_in_all(row["id"])] = number
                row["id"] = number
                changed.append(row)
        return changed

    def translate(self, breakpoint):
        """Put the client's number into a breakpoint of the present run."""
        if isinstance(breakpoint.get("id"), int):
            breakpoint["id"] = self.number(breakpoint["id"])

    def number(self, number):
        """The client's number for a breakpoint of the present run."""
        number = self._number_in_all(number)
        return self._aliases.get(number, number)

    def _number_in_all(self, number):
        return number + self._run * kNumbersPerRun


def _rows_of(response):
    rows = (response.get("body") or {}).get("breakpoints")
    return rows if isinstance(rows, list) else ()
