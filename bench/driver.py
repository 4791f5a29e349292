"""Builds what is measured, and runs the scripts of this folder in an interpreter."""
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
TREE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(TREE, 'tools'))

import interpreters  # noqa: E402


def build_library(bits, folder):
    build = os.path.join(folder, 'build-%d' % bits)
    subprocess.check_call(['cmake', '-S', TREE, '-B', build, '-DCMAKE_BUILD_TYPE=Release',
                           '-DTDBG_BUILD_TESTS=OFF',
                           '-DTDBG_M32=%s' % ('ON' if bits == 32 else 'OFF')],
                          stdout=subprocess.DEVNULL)
    subprocess.check_call(['cmake', '--build', build, '--target', 'tdbgtracer', '-j2'],
                          stdout=subprocess.DEVNULL)
    return build


def link_debug_name(build):
    """Debug builds of Python 2 look for the name with _d alone."""
    try:
        os.symlink('tdbgtracer.so', os.path.join(build, 'tdbgtracer_d.so'))
    except FileExistsError:  # perhaps since just now, by another measurement of the same library
        pass


def read_bits(build):
    """Word size of a built library."""
    with open(os.path.join(build, 'tdbgtracer.so'), 'rb') as library:
        return 32 * library.read(5)[4]


def build_empty_library(bits, folder):
    target = os.path.join(folder, 'emptytrace-%d.so' % bits)
    subprocess.check_call(['gcc', '-O2', '-m%d' % bits, '-shared', '-fPIC', '-o', target,
                           os.path.join(HERE, 'emptytrace.c')])
    return target


def word_size(command):
    code = 'import struct; print(struct.calcsize("P") * 8)'
    return int(subprocess.check_output(command + ['-c', code]))


def make_command(interpreter):
    """A free-threaded interpreter is there twice, once with a variable that keeps its lock off."""
    variables = ['%s=%s' % variable for variable in sorted(interpreter.environment.items())]
    return ['env'] + variables + [interpreter.path]


def find_pythons(wanted):
    """[(name, command)] of the interpreters to measure; a command is a list."""
    found = [(i.name, make_command(i)) for i in interpreters.find_interpreters() if i.supported]
    if not wanted:
        return found
    paths = [(os.path.basename(os.path.dirname(os.path.dirname(p))) or p, [p])
             for p in wanted if os.sep in p]
    names = [w for w in wanted if os.sep not in w]
    return paths + [(name, command) for name, command in found if any(w in name for w in names)]


class Bench(object):
    """Runs a script of this folder in an interpreter, with the libraries of its word size."""

    def __init__(self, folder, libraries):
        self.folder = folder
        self.built = {}
        self.libraries = {read_bits(build): build for build in libraries}

    def run(self, command, script, *arguments):
        bits = word_size(command)
        if bits not in self.built:
            library = self.libraries.get(bits) or build_library(bits, self.folder)
            link_debug_name(library)
            self.built[bits] = library, build_empty_library(bits, self.folder)
        env = dict(os.environ, TDBG_LIB_DIR=self.built[bits][0],
                   TDBG_EMPTY_LIB=self.built[bits][1], PYTHONDONTWRITEBYTECODE='1')
        output = subprocess.check_output(
            command + [os.path.join(HERE, script)] + [str(a) for a in arguments], env=env)
        lines = [line for line in output.decode('ascii').splitlines() if line.startswith('{')]
        return json.loads(lines[-1])
