"""Find and load the native core, the extension module `tdbgtracer`.

It is loaded by its path: debug builds of version 2 look for other file names, and the program's
sys.path is none of our business.
"""
from __future__ import absolute_import, division, print_function

import os
import struct
import sys
import warnings

kModule = "tdbgtracer"


class tNoLibrary(Exception):
    """There is no core for this interpreter; the text says where it was looked for."""


def word_size():
    return 8 * struct.calcsize("P")


def find_library(package_folder):
    """Path of the core for the running interpreter: beside the package, then where it is built."""
    tree = os.path.dirname(os.path.dirname(package_folder))
    places = [package_folder, os.path.join(tree, "build", str(word_size()))]
    for place in places:
        path = os.path.join(place, kModule + ".so")
        if os.path.exists(path):
            return path
    raise tNoLibrary("no {}.so for {} bits in {}".format(kModule, word_size(), " or ".join(places)))


def build_library(package_folder):
    """Have the core built where find_library() looks; tNoLibrary where the tree is not at hand."""
    import subprocess

    script = os.path.join(os.path.dirname(os.path.dirname(package_folder)), "tdbg")
    if not os.path.isfile(script):
        raise tNoLibrary("no {}.so for {} bits, nor the tree to build it in".format(
            kModule, word_size()))
    try:
        with open(os.devnull) as nothing:  # the program's input is for its commands
            status = subprocess.call(
                ["/bin/sh", script, "--python", sys.executable, "--build"], stdin=nothing)
    except (IOError, OSError) as why:
        raise tNoLibrary("cannot build the core: {}".format(why))
    if status != 0:
        raise tNoLibrary("the core cannot be built")


def find_and_load(package_folder):
    """The core of this process, loaded or even built if need be."""
    if kModule in sys.modules:
        return sys.modules[kModule]
    try:
        path = find_library(package_folder)
    except tNoLibrary:
        build_library(package_folder)
        path = find_library(package_folder)
    return load_library(path)


def load_library(path):
    """The module at the path; a module of that name that is loaded already is taken instead."""
    if kModule in sys.modules:
        return sys.modules[kModule]
    with warnings.catch_warnings():
        # Free-threaded builds say that the module needs the global lock; the user knows.
        warnings.simplefilter("ignore")
        return _load(path)


def _load(path):
    try:
        from importlib import machinery, util
    except ImportError:
        import imp

        return imp.load_dynamic(kModule, path)
    loader = machinery.ExtensionFileLoader(kModule, path)
    spec = util.spec_from_file_location(kModule, path, loader=loader)
    module = util.module_from_spec(spec)
    sys.modules[kModule] = module
    try:
        loader.exec_module(module)
    except BaseException:
        sys.modules.pop(kModule, None)
        raise
    return module
