"""First code of a process that is to be debugged.

The interpreter imports a module of this name before it runs the program. `tdbg.launch` puts this
folder at the front of the module path for that one import: so the program is run by the
interpreter itself, with no frame of the debugger below it, and everything that depends on
how a program is started (argv, path, exit status, exit functions, signals) is as without us.

The real module of this name, if there is one, is imported in its turn; this one leaves no trace.
"""
import os
import sys


def _start():
    loaded = set(sys.modules)
    here = os.path.dirname(os.path.abspath(__file__))
    folder = os.path.dirname(os.path.dirname(here))
    sys.path.insert(0, folder)
    try:
        from tdbg import bootstrap
    finally:
        sys.path.remove(folder)
        sys.path_importer_cache.pop(folder, None)
    bootstrap.start(here, loaded)


def _supported():
    """A child of the program may be run by any interpreter; see children.py."""
    return "TDBG_START" in os.environ or sys.version_info[:2] == (2, 7) or (
        3, 6) <= sys.version_info[:2] <= (3, 14)


def _leave_alone():
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path[:] = [path for path in sys.path if os.path.abspath(path) != here]
    sys.modules.pop("sitecustomize", None)
    __import__("sitecustomize")


if _supported():
    _start()
else:
    _leave_alone()
