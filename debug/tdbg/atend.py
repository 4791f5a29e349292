"""What the debugger has to do, and files that it has to remove, at the end of the program.

The functions are the interpreter's, of `atexit`: not called where the program is killed or ends by
os._exit(), but in each fork that ends otherwise.
"""
from __future__ import absolute_import, division, print_function

import atexit
import os
import shutil
import sys

from tdbg import compat, private

_kName = "atexit"
# There an import makes the module anew where it is not found, and the functions that the one before
# was given are never called.
kMakesAnew = (3, 6) <= sys.version_info[:2] < (3, 10)

_getpid, _unlink, _is_folder, _rmtree = os.getpid, os.unlink, os.path.isdir, shutil.rmtree
_files = {}  # path of a file or folder -> process id of its owner
_begun = []  # true once there has been one


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


def remove_at_end(path):
    """A file or folder that belongs to this process; forks leave it alone."""
    if not _begun:
        _begun.append(True)
        call_at_end(remove_files)
    _files[path] = _getpid()


def remove_now(path):
    """The same before the end."""
    if _files.pop(path, None) == _getpid():
        remove(path)


def remove_files():
    """All of them: the process ends, or is about to be killed."""
    for path in list(_files):
        remove_now(path)


def remove(path):
    """A file or folder, if it is there."""
    try:
        if _is_folder(path):
            _rmtree(path, True)
        else:
            _unlink(path)
    except EnvironmentError:  # somebody else has removed it
        pass
