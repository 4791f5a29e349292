"""`python -m tdbg.adapter`, or this folder as the program: see main.py."""
from __future__ import absolute_import, division, print_function

import os
import sys

_here = os.path.dirname(os.path.abspath(__file__))
if __package__ in (None, ""):
    sys.path[0] = os.path.dirname(os.path.dirname(_here))

if sys.version_info < (3, 6):
    sys.stderr.write("tdbg: the adapter needs Python 3.6 or later (the program may have any)\n")
    sys.exit(2)

from tdbg.adapter import main  # noqa: E402

_status = main.main(sys.argv[1:])
sys.stderr.flush()
os._exit(_status)  # threads that wait for a program are not waited for
