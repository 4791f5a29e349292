"""Imports of packages: in every form, failing ones and repeated ones too."""
from __future__ import print_function

import family
import family.inner.leaf
from family import sibling as brother, kName
from family.inner import *


def late():
    from family.inner import late as module
    return module.kValue


def missing():
    try:
        import family.nobody
    except ImportError:
        return "missing"
    return family


def broken():
    try:
        from family import broken as module
    except ZeroDivisionError as why:
        return str(why)
    return module


print(family.kName, kName, brother.greet("you"), family.inner.leaf.kLeaf, shared())
print(late(), late(), missing(), broken(), broken())
