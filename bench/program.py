"""The program whose breakpoints are measured, written into a folder.

  hot.py      a hot function; another function stands below it
  many.py     20,000 small functions
  other/      1,000 files of ten lines, whose line numbers collide with the hot function's
  modules/    90 modules to import, compiled already, and the program that imports them
"""
from __future__ import absolute_import, division, print_function

import os
import py_compile
import sys

LINES_A_TURN = 3.05  # line events of the loop: three, and every twentieth time a fourth
HOT_SOURCE = '''
def hot(turns):
    total = 0
    for i in range(turns):
        total += i
        if total > 1000000:
            total -= 1000000
    if turns < 0:
        total = -1
    return total


def other(turns):
    total = turns
    return total
'''
HOT_LINE, NEVER_LINE, OTHER_LINE = 5, 9, 14
FUNCTIONS = 20000
OTHER_FILES, OTHER_LINES = 1000, 10
MODULES = 90

FUNCTION_SOURCE = '''def f{0}():
    a = 1
    b = 2
    return a + b


'''
CLASS_SOURCE = '''class Class{0}(object):
    limit = {0}

    def is_over(self, number):
        if number > self.limit:
            return True
        return False


'''


def write_file(path, text):
    with open(path, 'w') as out:
        out.write(text)


def run_source(path, source):
    write_file(path, source)
    space = {'__name__': 'program', '__file__': path}
    exec(compile(source, path, 'exec'), space)
    return space


class Program(object):
    def __init__(self, folder, functions=FUNCTIONS):
        self.hot_path = os.path.join(folder, 'hot.py')
        self.hot = run_source(self.hot_path, HOT_SOURCE)['hot']
        self.many_path = os.path.join(folder, 'many.py')
        space = run_source(self.many_path, ''.join(
            FUNCTION_SOURCE.format(i) for i in range(functions)))
        self.many = [space['f%d' % i] for i in range(functions)]
        self.other_paths = [os.path.join(folder, 'other', 'file%d.py' % i)
                            for i in range(OTHER_FILES)]
        os.mkdir(os.path.join(folder, 'other'))
        for path in self.other_paths:
            write_file(path, 'x = 1\n' * OTHER_LINES)
        self.modules_folder = os.path.join(folder, 'modules')
        self.write_modules()

    def write_modules(self):
        os.mkdir(self.modules_folder)
        names = ['module%d' % i for i in range(MODULES)]
        source = ''.join(CLASS_SOURCE.format(i) + FUNCTION_SOURCE.format(i) for i in range(10))
        for name in names:
            self.write_module(name, source + 'f1()\nf2()\n')
        self.write_module('imports_all', ''.join('import %s\n' % name for name in names))

    def write_module(self, name, source):
        path = os.path.join(self.modules_folder, name + '.py')
        write_file(path, source)
        py_compile.compile(path, doraise=True)

    def import_modules(self):
        sys.path.insert(0, self.modules_folder)
        __import__('imports_all')

    def other_places(self, count):
        """(file, line) of `count` breakpoints in other files;
        all lines of a file, then the next."""
        return [(path, line) for path in self.other_paths
                for line in range(1, OTHER_LINES + 1)][:count]
