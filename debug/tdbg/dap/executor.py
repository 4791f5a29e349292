"""Runs what requests ask for on the stopped thread, and elsewhere while that one is stuck.

The stopped thread waits in serve(); run() hands it a job.  A job that calls code of the program may
stay in native code for any time, where nothing can end it: then run() gives up waiting, and the
jobs that follow run on worker threads until the stopped one is free again.
"""
from __future__ import absolute_import, division, print_function


class tTooSlow(Exception):
    """The job has not ended within its time; it is still being run."""


class tExecutor(object):
    def run(self, job, seconds=None):
        """job() on the stopped thread: its result, or its exception.

        seconds: how long to wait (None: for ever), then tTooSlow.
        RuntimeError when no thread is stopped.
        """
        raise NotImplementedError

    def submit(self, job, on_done):
        """The same without waiting: on_done(result, exc_info) is called on the executing thread."""
        raise NotImplementedError

    def serve(self):
        """On the stopped thread: run jobs until finish() is called; returns what that was given."""
        raise NotImplementedError

    def finish(self, command):
        """End serve() when the job at hand is done."""
        raise NotImplementedError
