"""Functions of the debugger that are called at the end of the program.

They are the interpreter's, of `atexit`: not called where the program is killed or ends by
os._exit(), but in each fork that ends otherwise.
"""
from __future__ import absolute_import, division, print_function

import atexit
import sys

from tdbg import compat, private

_kName = "atexit"
# There an import makes the module anew where it is not found, and the functions that the one before
# was given are never called.
kMakesAnew = (3, 6) <= sys.version_info[:2] < (3, 10)


def call_at_end(function):
    """Call function() when the program ends."""
    _module().register(function)


def do_not_call(function):
    """Take that back, where it can be done: version 2 calls it all the same."""
    if not compat.PY2:
        _module().unregister(function)


def _module():
    if not kMakesAnew:
        return atexit
    private.leave_in(_kName)
    return sys.modules.setdefault(_kName, atexit)
