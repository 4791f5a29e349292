"""The user's start-up files, at home and in the current folder: commands for the first prompt.

The current folder may be anybody's.  Its file is read only when the user owns it, and nobody else
may write it: else whoever put it there would run code as the user.
"""
from __future__ import absolute_import, division, print_function

import io
import os
import stat

from tdbg import compat

kName = ".tdbgrc"
kComment = "#"
kOfOthers = stat.S_IWGRP | stat.S_IWOTH

_open = io.open
_nonblocking = getattr(os, "O_NONBLOCK", 0)  # a pipe of that name is not waited for


def read_all(cwd):
    """(commands, notices): of both files; what is wrong with one is a notice, a line of text."""
    commands, notices, seen = [], [], set()
    home = os.path.expanduser("~")
    for folder in (home if os.path.isabs(home) else None, cwd):
        if folder is None:
            continue
        path = os.path.join(folder, kName)
        real = os.path.realpath(path)
        if real in seen or not os.path.lexists(path):
            continue
        seen.add(real)
        try:
            commands += commands_in(read(path))
        except tNotRead as why:
            notices.append("{} is not read: {}".format(path, why))
        except (IOError, OSError) as why:
            notices.append("{} is not read: {}".format(path, why.strerror))
    return commands, notices


class tNotRead(Exception):
    """The file is not to be trusted."""


def read(path):
    """Text of the file, or tNotRead."""
    # Of a link, too: it might lead to what the user owns, but has not meant to be commands.
    if os.lstat(path).st_uid != os.geteuid():
        raise tNotRead("it belongs to another user")
    descriptor = os.open(path, os.O_RDONLY | _nonblocking)
    with _open(descriptor, "rb") as source:
        # Asked of what has been opened: the name may lead elsewhere by now.
        found = os.fstat(descriptor)
        if not stat.S_ISREG(found.st_mode):
            raise tNotRead("it is no ordinary file")
        if found.st_uid != os.geteuid():
            raise tNotRead("it belongs to another user")
        if found.st_mode & kOfOthers:
            raise tNotRead("other users may write it")
        return compat.to_text(source.read())


def commands_in(text):
    """Its lines; indented ones belong to the statement above them that ends in a colon."""
    commands, is_block = [], False
    for line in text.lstrip(u"\ufeff").splitlines():
        if not line.strip() or line.lstrip().startswith(kComment):
            continue
        if is_block and line[0].isspace():
            commands[-1] = commands[-1].rstrip(u"\n") + u"\n" + line.rstrip() + u"\n"
        else:
            commands.append(line.strip())
            is_block = line.rstrip().endswith(u":")
    return commands
