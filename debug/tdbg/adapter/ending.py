"""How a program that was launched is ended: asked, more sternly each time that it does not."""
import signal
import threading

from tdbg.dap import config


class tEnding:
    """One program's.  debuggee: the debugger in it, or None; first: one of config.kEndings."""

    def __init__(self, program, debuggee, first):
        self._program, self._debuggee = program, debuggee
        steps = (self._interrupt, self._ask_to_end, self._program.kill)
        self._steps = steps[config.kEndings.index(first):]
        self._hurry = threading.Event()

    def start(self, seconds):
        """Begin; seconds: for each step."""
        threading.Thread(target=self._run, args=(seconds,), daemon=True).start()

    def hurry(self):
        """Go on to the next step at once, or stop waiting as the program has ended."""
        self._hurry.set()

    def _run(self, seconds):
        for step in self._steps:
            step()
            self._hurry.wait(seconds)
            if self._program.ended.is_set():
                return
            self._hurry.clear()

    def _interrupt(self):
        """The debugger in the program lets it go on, and raises KeyboardInterrupt in it."""
        def answered(response):
            if not response.get("success"):
                self._program.signal(signal.SIGINT)

        if self._debuggee is None:
            self._program.signal(signal.SIGINT)
        else:
            self._debuggee.request("terminate", {}, answered)

    def _ask_to_end(self):
        self._program.signal(signal.SIGTERM)
        self._program.signal(signal.SIGCONT)
