"""What a front end is told when a thread stops.

A stop holds frames, so it must not outlive the call that brought it: a front end that keeps one
keeps the program's objects alive.
"""
from __future__ import absolute_import, division, print_function

# Why the thread stopped.
kEntry = "entry"            # before the first line of the program
kStep = "step"              # a step command has come to its end
kReturn = "return"          # a function is about to return `value`
kException = "exception"    # an exception is raised, or passes through `frame` while stepping
kUncaught = "uncaught"      # nothing will catch the exception; the thread ends after this
kReported = "reported"      # what will catch the exception only prints or logs it
kPostMortem = "post-mortem"  # the exception is over; only to look at where it was raised
kPause = "pause"            # pause() was asked for
kBreakpoint = "breakpoint"  # the program called breakpoint(), or a breakpoint was hit

# What is shown first is where the exception was raised, not where it has come to.
kAtTheRaise = (kUncaught, kReported, kPostMortem)


class tThread(object):
    """The thread that stopped.  ident: as of _thread.get_ident(); name: as the program named it."""

    __slots__ = ("ident", "name", "is_main")

    def __init__(self, ident, name, is_main):
        self.ident, self.name, self.is_main = ident, name, is_main


class tStop(object):
    """One stop of one thread.

    thread    tThread
    reason    one of the constants above
    frame     the frame that stopped
    value     for kReturn: what the function returns
    exc_info  for exceptions: (type, value, traceback); on 2.7 the value may be the argument or None
              instead of an instance
    catcher   (frame, line) of the `except` clause that was foreseen to catch the exception, or None
    hits      [breakpoints.tHit]: the breakpoints that stop here, whatever the reason
    stack     [(frame, line)], the outermost first; frames of the debugger are left out.  A frame
              may be a sublanguages.tFrameView: code of a language that the program implements
    index     position in `stack` of the frame to show first
    is_within_line  the frame is in the middle of its line: it waits in native code, perhaps
    """

    __slots__ = ("thread", "reason", "frame", "value", "exc_info", "stack", "index", "hits",
                 "catcher", "is_within_line")

    def __init__(self, thread, reason, frame, stack, index, value=None, exc_info=None, hits=(),
                 catcher=None):
        self.thread, self.reason, self.frame = thread, reason, frame
        self.stack, self.index = stack, index
        self.value, self.exc_info = value, exc_info
        self.hits = hits
        self.catcher = catcher
        self.is_within_line = False


def collect_stack(frame, traceback, without_hidden):
    """([(frame, line)], index of `frame`): its callers, itself and what the traceback adds.

    without_hidden([(frame, line)]) -> those to show
    """
    stack = []
    position = frame
    while position is not None:
        stack.append((position, position.f_lineno))
        position = position.f_back
    stack.reverse()
    inner = []
    if traceback is not None and traceback.tb_frame is frame:
        stack[-1] = (frame, traceback.tb_lineno)
        traceback = traceback.tb_next
    while traceback is not None:
        inner.append((traceback.tb_frame, traceback.tb_lineno))
        traceback = traceback.tb_next
    shown = without_hidden(stack + inner)
    outer = len(without_hidden(stack)) if inner else len(shown)
    return shown, max(outer - 1, 0)
