"""Files that are the same by their contents, wherever they are."""
from __future__ import absolute_import, division, print_function

import io
import os

from tdbg import private

_split_path = os.path.split
_get_size = os.path.getsize
_open = io.open

kSuffixes = (".pyc", ".pyo")
kSameAs = "same as "  # a checksum that is no number: the contents of this file


def has_checksum(path, other, checksum):
    """Whether a file has the checksum, which was given for the file `other`.

    Files of other names are never the same: many are equal by chance, __init__.py most of all.
    """
    if not checksum or tail_of(path) != tail_of(other):
        return False
    kind, _, digest = checksum.partition(":")
    try:
        if checksum.startswith(kSameAs):
            original = checksum[len(kSameAs):]
            size = _get_size(path)
            return size > 0 and size == _get_size(original) and _read(path) == _read(original)
        with private.borrowed():
            import hashlib

            return hashlib.new(kind, _read(path)).hexdigest() == digest
    except (IOError, OSError, ValueError):
        return False


def tail_of(path):
    folder, name = _split_path(path.replace("\\", "/"))
    if name.endswith(kSuffixes):
        name = name[:-1]
    return (_split_path(folder)[1], name) if name.startswith("__") else name


def _read(path):
    with _open(path, "rb") as file:
        return file.read()
