"""The front end for a terminal: pdb's commands on a prompt.

frontend    stops in, commands out
commands    the table of commands and what each does; those on breakpoints are in breakcommands
display     how stops, source and values look
startupfile  the user's commands for the first prompt
lineinput   the user's terminal: reading lines with history and completion, writing
completion  what Tab offers
"""
from __future__ import absolute_import, division, print_function

from tdbg.terminal.frontend import tTerminal

__all__ = ["tTerminal"]
