"""What differs between Python 2.7 and 3.x, under one name each.

Everything is bound here at import: a debugged program may patch or replace any module later.
"""
from __future__ import absolute_import, division, print_function

import sys

PY2 = sys.version_info[0] == 2


class _OldStyle:
    pass


if PY2:
    import __builtin__ as builtins
    import repr as reprlib  # noqa: F401
    import signal
    import thread as _thread

    text_type = builtins.unicode
    string_types = (builtins.basestring,)
    old_style_class = type(_OldStyle)
    read_terminal_line = builtins.raw_input
    kNoLocalsToFast = False
else:
    import builtins
    import reprlib
    import _signal as signal  # built in, below the module of the library
    import _thread

    text_type = str
    string_types = (str,)
    old_style_class = ()  # there are none: isinstance() says so
    read_terminal_line = builtins.input
    # Frames' f_locals write through since 3.13.
    kNoLocalsToFast = sys.version_info >= (3, 13)

get_ident = _thread.get_ident
allocate_lock = _thread.allocate_lock
start_new_thread = _thread.start_new_thread
default_import = builtins.__import__

# The core adopts every thread at its first frame where it can get in there.
kAdoptsThreads = (3, 6) <= sys.version_info[:2] <= (3, 11)
# Also after its hook has been taken out.
kAdoptsThreadsAgain = (3, 6) <= sys.version_info[:2] <= (3, 10)

# False where a free-threaded interpreter runs without its lock, True before there was such a thing.
is_gil_enabled = getattr(sys, "_is_gil_enabled", lambda: True)

if PY2:
    from itertools import imap as lazy_map

    def to_literal(value):
        """ASCII text that ast.literal_eval() turns back into the value."""
        return repr(value)
else:
    lazy_map = map
    to_literal = ascii


def to_text(data):
    """Text of anything that may be bytes on version 2."""
    if isinstance(data, bytes):
        return data.decode("utf-8", "replace")
    return data


def to_native(text):
    """What print and repr take for granted: bytes on version 2, text on version 3."""
    if PY2 and isinstance(text, text_type):
        return text.encode("utf-8", "replace")
    return text
