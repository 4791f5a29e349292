"""Library modules that belong to the debugger alone.

The program must find in sys.modules what it would find without a debugger, so the modules that the
debugger has loaded are taken out. Some of them load others when they are used: such calls are
made inside `borrowed()`.
"""
from __future__ import absolute_import, division, print_function

import sys
import warnings  # noqa: F401  must be among the debugger's modules, for quiet()

_modules = {}  # name -> module
_left = set()  # names of those that the program is to find
_borrowing = [0]  # how many blocks are running


def take_out(names):
    """Remove modules from the program's sight."""
    for name in names:
        if name not in _left:
            _modules[name] = sys.modules.pop(name)


def leave_in(name):
    """The program is to find this module, which the debugger has loaded, from now on."""
    _left.add(name)


def is_borrowing():
    """Whether sys.modules holds modules of the debugger now."""
    return _borrowing[0] > 0


class borrowed(object):
    """While the block runs, the debugger's modules are where imports find them.

    What is imported in the block becomes the debugger's, too.  Code of the program must not run
    in it.
    """

    def __enter__(self):
        # None stands for a module that may not be imported, or on version 2 is not there.
        _borrowing[0] += 1
        self._before = set(sys.modules)
        for name in set(_modules) - self._before:
            sys.modules[name] = _modules[name]

    def __exit__(self, *exc_info):
        if _modules:  # else everything is the program's
            take_out(set(sys.modules) - self._before)
        _borrowing[0] -= 1


class quiet(borrowed):
    """borrowed(), and warnings of the interpreter about what runs in the block are not shown."""

    def __enter__(self):
        borrowed.__enter__(self)
        # The interpreter asks the module that it finds by name, which may be the program's.
        warnings = sys.modules["warnings"]
        self._catcher = warnings.catch_warnings()
        self._catcher.__enter__()
        warnings.simplefilter("ignore")

    def __exit__(self, *exc_info):
        self._catcher.__exit__(*exc_info)
        borrowed.__exit__(self, *exc_info)
