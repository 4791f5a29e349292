"""Starts another interpreter and passes its status on."""
import os
import subprocess
import sys

child = os.path.join(os.path.dirname(os.path.abspath(__file__)), "child.py")
sys.exit(subprocess.call([sys.executable, child, "5"]) + 1)
