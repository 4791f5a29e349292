"""A debugger for programs of Python 2.7 and 3.6 to 3.14.

tdbg.dbgserver   the debug server: lives in the debugged process, drives the native core and
                 offers stops and commands to one front end; knows nothing of terminals
tdbg.terminal    the front end for a terminal
tdbg.launch      starts a program under the debugger (`python -m tdbg PROGRAM`)

Importing the package does nothing; see README.md for the command line.
"""

__all__ = ["dbgserver", "terminal"]
