"""What a request is to its handler, and the table of all of them.

A handler module has a table `kRequests = {"scopes": tRequest(scopes, kStopped), ...}` and, where it
wants to be told of the session's life, a function `attach(session)`, called once per session.

    def scopes(session, arguments):
        frame = session.frames.get(get(arguments, "frameId", int))
        return {"scopes": [...]}          # body of the response, or None

A handler refuses by raising tRequestError; any other exception becomes an error response with its
type, text and place, and the session goes on.

What the modules offer each other:
    sources.source_of_frame(session, frame) -> Source of the protocol as a dict, or None
    rules.is_user_code(frame) -> bool: whether a step may end in the frame
    breaks: filters stops (session.filter_stops), so that log points and hit counts do not stop
"""
from __future__ import absolute_import, division, print_function

import importlib
import os
import sys

from tdbg import compat

kAnytime = "anytime"  # at once, on the reader thread: may not wait, nor run code of the program
kStopped = "stopped"  # on the stopped thread, or a worker in its place; refused while all run

# Those that are kStopped are answered within this time; what they run goes on (see executor.py).
kSeconds = 0.9

kModules = (
    "lifecycle", "runcontrol", "threadview", "breakrequests", "exceptions", "sources", "rules",
    "variables", "evaluation", "completion",
    "subprocesses", "teeing")


class tRequestError(Exception):
    """The request is refused; the text is one line for the user.

    show_user: whether the editor should put it before the user (it may show it anyhow).
    """

    def __init__(self, text, show_user=False):
        Exception.__init__(self, text)
        self.text = compat.to_text(text)
        self.show_user = show_user


class tRequest(object):
    """One row of the table.

    handler  function(session, arguments) -> body or None
    where    kAnytime or kStopped
    seconds  for kStopped: after how long the client gets an error instead; None: never, the
             answer comes when it comes; or a function(arguments) that tells.  Requests behind one
             that takes long are served by a worker in the meantime
    on_slow  for kStopped: function(session, arguments) -> body, instead of that error; it gets the
             dict that the handler got, and may run beside it, where code of the program may not be
             run
    """

    __slots__ = ("handler", "where", "seconds", "on_slow")

    def __init__(self, handler, where=kAnytime, seconds=kSeconds, on_slow=None):
        self.handler, self.where, self.seconds = handler, where, seconds
        self.on_slow = on_slow

    def limit(self, arguments):
        return self.seconds(arguments) if callable(self.seconds) else self.seconds


kMissing = object()
_names_of_kinds = {
    int: "a whole number", float: "a number", bool: "true or false", list: "a list",
    dict: "an object", compat.text_type: "a text"}
_whole = (int, type(sys.maxsize + 1))


def get(arguments, name, kind):
    """An argument that must be there.

    kind: int, float, bool, list, dict, str (texts come as compat.text_type on every version)
    """
    value = arguments.get(name)
    if value is None:
        raise tRequestError("the argument `{}` is missing".format(name))
    return _checked(name, value, kind)


def get_optional(arguments, name, kind, default=None):
    """The same, or the default where it is missing or null."""
    value = arguments.get(name)
    return default if value is None else _checked(name, value, kind)


def _checked(name, value, kind):
    if kind in (str, bytes, compat.text_type):
        good, kind = isinstance(value, compat.string_types), compat.text_type
        value = compat.to_text(value) if good else value
    elif kind is int:
        # Some clients write every number as one with a fraction.
        if isinstance(value, float) and value == value // 1:
            value = int(value)
        good = isinstance(value, _whole) and not isinstance(value, bool)
    elif kind is float:
        good = isinstance(value, _whole + (float,)) and not isinstance(value, bool)
    else:
        good = isinstance(value, kind)
    if not good:
        raise tRequestError("the argument `{}` must be {}".format(name, _names_of_kinds[kind]))
    return value


def load_modules():
    """The handler modules."""
    return [importlib.import_module("tdbg.dap." + name) for name in kModules
            if os.path.exists(os.path.join(os.path.dirname(__file__), name + ".py"))]


def table_of(modules):
    """{command: tRequest} of all modules."""
    table = {}
    for module in modules:
        table.update(getattr(module, "kRequests", {}))
    return table
