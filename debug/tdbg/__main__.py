"""`python -m tdbg`, or this file or its folder as the program: see launch.py."""
from __future__ import absolute_import, division, print_function

import os
import sys

_folder = os.path.dirname(os.path.abspath(__file__))
if __package__ in (None, ""):
    sys.path[0] = os.path.dirname(_folder)

from tdbg import launch  # noqa: E402

sys.exit(launch.main(sys.argv[1:], _folder))
