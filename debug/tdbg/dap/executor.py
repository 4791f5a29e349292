"""Runs what requests ask for on the stopped thread, and elsewhere while that one is stuck.

The stopped thread waits in serve(); run() hands it a job.  A job that calls code of the program may
stay in native code for any time, where nothing can end it: then run() gives up waiting, and the
jobs that follow run on worker threads until the stopped one is free again.

While the program is merely held (see pausing.py), the thread that holds it serves in the place of
a stopped one.
"""
from __future__ import absolute_import, division, print_function

import sys

from tdbg import compat, signals, threads

kPatience = 0.9  # seconds after which a job counts as stuck, whether its caller still waits or not

_get_ident = compat.get_ident


class tTooSlow(Exception):
    """The job has not ended within its time; it is still being run."""


class tNotStopped(Exception):
    """There is no stopped thread to run the job."""


class tTask(object):
    """One job.  on_done(task): called on the thread that has run it; must not fail."""

    def __init__(self, job, needs_stop=True, on_done=None):
        self.job, self.needs_stop, self.on_done = job, needs_stop, on_done
        self.value = self.error = None
        self.done = signals.tDone()

    def execute(self):
        try:
            self.value = self.job()
        except BaseException:
            self.error = sys.exc_info()
        self._end()

    def refuse(self, error):
        self.error = (type(error), error, None)
        self._end()

    def result(self):
        if self.error is None:
            return self.value
        error, self.error = self.error, None
        try:
            if isinstance(error[1], BaseException):
                raise error[1]
            raise error[0](error[1])  # an old-style class of version 2
        finally:
            error = None

    def _end(self):
        # First, so that what is asked for after the answer finds a thread that is not stuck.
        self.done.set()
        self.job = None
        if self.on_done is not None:
            self.on_done(self)


class tExecutor(object):
    """on_waiting(): called when there is a task for which nobody serves; on_left(): when nobody serves
    any more."""

    def __init__(self, on_waiting=None, on_left=None):
        self._lock = compat.allocate_lock()
        self._signal = signals.tSignal()
        self._queue = []
        self._server = None     # ident of the serving thread
        self._current = None    # task that it runs
        self._stuck = None      # task that it runs for too long
        self._commands = []
        self._workers = []      # tWorker, idle ones
        self._worker_idents = set()
        self._on_waiting = on_waiting or (lambda: None)
        self._on_left = on_left or (lambda: None)

    @property
    def is_serving(self):
        """False from finish() on, though the thread may be at its last job."""
        return self._server is not None and not self._commands

    def is_on_duty(self):
        """Whether the calling thread runs a job for requests: then it need not ask for another."""
        ident = _get_ident()
        return ident == self._server or ident in self._worker_idents

    def is_stuck(self):
        """Whether the stopped thread is in a job that takes too long."""
        return self._stuck is not None and not self._stuck.done.is_set

    def run(self, job, seconds=None, needs_stop=True):
        """job() on the stopped thread: its result, or its exception.

        seconds     how long to wait (None: for ever), then tTooSlow
        needs_stop  tNotStopped when no thread is stopped; else the job waits for whoever holds the
                    program next
        """
        if self.is_on_duty():
            return job()
        task = self.submit(job, needs_stop=needs_stop)
        if not task.done.wait(seconds):
            self.give_up(task)
            raise tTooSlow()
        return task.result()

    def submit(self, job, on_done=None, needs_stop=True):
        """The same without waiting; returns the tTask."""
        task = tTask(job, needs_stop, on_done)
        with self._lock:
            is_serving, is_stuck = self.is_serving, self.is_stuck()
            if (is_serving and not is_stuck) or (not is_serving and not needs_stop):
                self._queue.append(task)
        if is_stuck and is_serving:
            self._give_to_worker(task)
        elif is_serving:
            self._signal.set()
        elif needs_stop:
            task.refuse(tNotStopped("no thread is stopped"))
        else:
            self._on_waiting()
        return task

    def give_up(self, task):
        """Nobody waits for the task any more: those behind it must not, either."""
        with self._lock:
            if self._current is not task or task.done.is_set:
                return
            self._stuck = task
            waiting, self._queue = self._queue, []
        for other in waiting:
            self._give_to_worker(other)

    # --- the serving thread ---

    def serve(self, announce=None, interrupted=None):
        """Run jobs until finish() is called; returns all that was given there.

        announce(): called when requests can come
        interrupted(exception): a signal handler of the program has raised it, in the main thread
        """
        with self._lock:
            self._server = _get_ident()
            self._commands = []
        try:
            while True:
                try:
                    if announce is not None:
                        announce()
                        announce = None
                    self._work()
                    break
                except BaseException:
                    # It comes between any two steps; what was begun is taken up again.
                    if interrupted is None:
                        raise
                    interrupted(sys.exc_info()[1])
        finally:
            self._leave()
        return self._commands

    def _work(self):
        while True:
            task = self._next()
            if task is not None:
                self._execute(task)
            elif self._commands:
                return
            else:
                self._signal.wait()

    def run_waiting(self):
        """Run what waits, on the calling thread, which holds the program for this moment."""
        with self._lock:
            if self._server is not None:
                return
            self._server = _get_ident()
        try:
            while True:
                task = self._next()
                if task is None:
                    return
                self._execute(task)
        finally:
            self._leave()

    def finish(self, command):
        """End serve() when the job at hand is done; whether anybody serves."""
        with self._lock:
            if self._server is None:
                return False
            self._commands.append(command)
        self._signal.set()
        return True

    def has_waiting(self):
        return bool(self._queue)

    def _next(self):
        with self._lock:
            # One may be left from before an interruption.
            if self._current is None or self._current.done.is_set:
                self._current = self._queue.pop(0) if self._queue else None
            return self._current

    def _execute(self, task):
        try:
            task.execute()
        finally:
            with self._lock:
                self._current = None
                if self._stuck is task:
                    self._stuck = None

    def _leave(self):
        with self._lock:
            self._server = self._current = self._stuck = None
            refused = [task for task in self._queue if task.needs_stop]
            self._queue = [task for task in self._queue if not task.needs_stop]
            waiting = bool(self._queue)
        for task in refused:
            task.refuse(tNotStopped("the program runs again"))
        if waiting:
            self._on_waiting()
        self._on_left()

    # --- workers ---

    def _give_to_worker(self, task):
        with self._lock:
            worker = self._workers.pop() if self._workers else None
        if worker is None:
            worker = tWorker(self)
            if not threads.start_own_thread(worker.run):
                return task.refuse(tNotStopped("the stopped thread is busy"))
        worker.give(task)

    def worker_begins(self):
        self._worker_idents.add(_get_ident())

    def worker_is_free(self, worker):
        with self._lock:
            self._workers.append(worker)


class tWorker(object):
    """A thread that runs tasks while the stopped one cannot; it waits for the next for ever."""

    def __init__(self, executor):
        self._executor = executor
        self._signal = signals.tSignal()
        self._task = None

    def give(self, task):
        self._task = task
        self._signal.set()

    def run(self):
        self._executor.worker_begins()
        while True:
            self._signal.wait()
            task, self._task = self._task, None
            if task is None:
                continue
            task.execute()
            task = None
            self._executor.worker_is_free(self)
