"""The debug adapter: what an editor starts; it starts the program and speaks to both.

Runs on any Python from 3.6 on, whatever the program runs on.  `python -m tdbg.adapter` speaks
through its standard streams, with --port N to clients of that port.
"""
