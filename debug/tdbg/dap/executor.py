"""Runs what requests ask for on the stopped thread, and elsewhere while that one is stuck.

The stopped thread waits in serve(); run() hands it a job.  A job that calls code of the program may
stay in native code for any time, where nothing can end it: then run() gives up waiting, and the
jobs that follow run on worker threads until the stopped one is free again.

Should the program be told to go on before that, it goes on without the thread, which is left
behind: others may stop meanwhile.  It does what it was told when its job has ended.

While the program is merely held (see pausing.py), the thread that holds it serves in the place of
a stopped one.
"""
from __future__ import absolute_import, division, print_function

import sys

from tdbg import compat, signals, threads
from tdbg.dap.requests import tRequestError

kPatience = 0.7  # seconds after which a job counts as stuck, whether its caller still waits or not
kGrace = 0.2     # that a job gets to end in when the program is told to go on
kLookAgain = 0.1

_get_ident = compat.get_ident


class tTooSlow(Exception):
    """The job has not ended within its time; it is still being run."""


class tNotStopped(Exception):
    """There is no stopped thread to run the job."""


class tTask(object):
    """One job.  on_done(task): called when it has an answer, on the thread that has it; must not
    fail.

    done      there is an answer
    is_over   the job has ended, perhaps long after the answer
    label     what the user knows it by, or None
    """

    def __init__(self, job, needs_stop=True, on_done=None):
        self.job, self.needs_stop, self.on_done = job, needs_stop, on_done
        self.value = self.error = self.label = None
        self.done = signals.tDone()
        self.is_over = False
        self._answers = [True]  # one may be given

    def execute(self):
        value = error = None
        try:
            value = self.job()
        except BaseException:
            error = sys.exc_info()
        # First, so that what is asked for after the answer finds a thread that is not stuck.
        self.is_over = True
        self.job = None
        self._answer(value, error)
        error = None

    def refuse(self, error):
        """Answer with an exception, though the job may be running still."""
        self._answer(None, (type(error), error, None))

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

    def _answer(self, value, error):
        try:
            self._answers.pop()
        except IndexError:
            return
        self.value, self.error = value, error
        self.done.set()
        if self.on_done is not None:
            self.on_done(self)


class tService(object):
    """The time in which one thread serves.

    commands   what it was told by finish(), for afterwards
    firsts     what is to be done before any thread of the program runs
    is_left    the program goes on without it, and it must not touch anything before it `may_return`
    """

    def __init__(self, ident, native_id=None, is_brief=False):
        self.ident, self.native_id, self.is_brief = ident, native_id, is_brief
        self.commands, self.firsts = [], []
        self.current = self.stuck = None
        self.is_left = False
        self.may_return, self.over = signals.tDone(), signals.tDone()


class tExecutor(object):
    """on_waiting(): called when there is a task for which nobody serves; on_left(): when nobody
    serves any more.

    lender              lending.tLender; without one, whoever is stuck holds the program up
    on_left_behind(ident, label)    the program goes on without the thread
    on_error(where)     the debugger itself has failed
    """

    def __init__(self, on_waiting=None, on_left=None):
        self._lock = compat.allocate_lock()
        self._signal = signals.tSignal()
        self._queue = []
        self._service = None    # tService
        self._behind = {}       # ident -> tService that was left behind
        self._workers = []      # tWorker, idle ones
        self._worker_idents = set()
        self._on_waiting = on_waiting or (lambda: None)
        self._on_left = on_left or (lambda: None)
        self.lender = None
        self.on_left_behind = lambda ident, label: None
        self.on_error = lambda where: None

    @property
    def is_serving(self):
        """False from finish() on, though the thread may be at its last job."""
        service = self._service
        return service is not None and not service.commands

    def is_on_duty(self):
        """Whether the calling thread runs a job for requests: then it need not ask for another."""
        ident, service = _get_ident(), self._service
        return ident in self._worker_idents or ident in self._behind or (
            service is not None and service.ident == ident)

    def is_stuck(self):
        """Whether the stopped thread is in a job that takes too long."""
        service = self._service
        return service is not None and _is_running(service.stuck)

    def is_behind(self, ident):
        """Whether the program goes on without the thread, which runs a job still."""
        return ident in self._behind

    def redirect(self, ident, command):
        """What a thread that was left behind is to do when it returns; whether it is such a one."""
        service = self._behind.get(ident)
        if service is None:
            return False
        service.commands[:] = [command]
        return True

    def task(self):
        """The tTask that the calling thread runs, or None."""
        ident = _get_ident()
        service = self._behind.get(ident) or self._service
        if service is not None and service.ident == ident:
            return service.current
        return None

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
            service = self._service
            if service is None or service.current is not task or task.is_over:
                return
            service.stuck = task
            waiting, self._queue = self._queue, []
        for other in waiting:
            self._give_to_worker(other)
        # Whoever has set a limit has an answer of their own.
        if task.on_done is not None and threads.waits_for_lock(service.native_id, kLookAgain):
            task.refuse(tRequestError(
                "this waits for another thread, and while the program is stopped those do not run"))

    # --- the serving thread ---

    def serve(self, announce=None, interrupted=None):
        """Run jobs until finish() is called; returns all that is to be called then.

        announce(): called when requests can come
        interrupted(exception): a signal handler of the program has raised it, in the main thread
        """
        service = tService(_get_ident(), threads.native_id())
        with self._lock:
            self._service = service
        try:
            while True:
                try:
                    if announce is not None:
                        self._announce(announce)
                        announce = None
                    self._work(service)
                    break
                except BaseException:
                    # It comes between any two steps; what was begun is taken up again.
                    if interrupted is None:
                        raise
                    interrupted(sys.exc_info()[1])
        finally:
            self._leave(service)
        return service.commands if service.is_left else service.firsts + service.commands

    def _announce(self, announce):
        if self.lender is None:
            return announce()
        self.lender.begin()
        try:
            announce()
        finally:
            self.lender.end()

    def _work(self, service):
        while not service.is_left:
            task = self._next(service)
            if task is not None:
                self._execute(service, task)
            elif service.commands:
                return
            else:
                self._signal.wait()
        self._return(service)

    def run_waiting(self):
        """Run what waits, on the calling thread, which holds the program for this moment."""
        service = tService(_get_ident(), is_brief=True)
        with self._lock:
            if self._service is not None:
                return
            self._service = service
        try:
            while True:
                task = self._next(service)
                if task is None:
                    return
                self._execute(service, task)
        finally:
            self._leave(service)

    def finish(self, command, first=None):
        """End serve() when the job at hand is done; whether anybody serves.

        command()  on the thread that serves, at its end
        first()    before any thread of the program runs: on that thread, too, unless it is stuck
        """
        with self._lock:
            service = self._service
            if service is None or service.is_brief:
                return False
            if first is not None:
                service.firsts.append(first)
            service.commands.append(command)
            is_busy = bool(self._queue) or _is_running(service.current)
        self._signal.set()
        if is_busy and service.ident != _get_ident():
            if not threads.start_own_thread(lambda: self._see_off(service)):
                self._see_off(service)
        return True

    def has_waiting(self):
        return bool(self._queue)

    def _next(self, service):
        with self._lock:
            # One may be left from before an interruption.
            if not _is_running(service.current):
                is_next = self._queue and not service.is_left
                service.current = self._queue.pop(0) if is_next else None
            return service.current

    def _execute(self, service, task):
        try:
            task.execute()
        finally:
            with self._lock:
                service.current = None
                if service.stuck is task:
                    service.stuck = None

    def _leave(self, service):
        with self._lock:
            is_left = service.is_left
            if not is_left:
                self._end_service(service)
                refused, waiting = self._sort_queue()
        if is_left:
            return self._return(service)
        for task in refused:
            task.refuse(tNotStopped("the program runs again"))
        if waiting:
            self._on_waiting()
        self._on_left()

    def _end_service(self, service):
        service.over.set()
        service.current = service.stuck = None
        self._service = None

    def _sort_queue(self):
        """(tasks that have become impossible, whether others wait)"""
        refused = [task for task in self._queue if task.needs_stop]
        self._queue = [task for task in self._queue if not task.needs_stop]
        return refused, bool(self._queue)

    # --- a thread that is left behind ---

    def _see_off(self, service):
        """The program is to go on: with the serving thread, or without it."""
        if service.over.wait(kGrace) or self.lender is None or not self.lender.switch_on():
            return
        with self._lock:
            if service.over.is_set or service.is_left:
                return
            service.is_left = True
            self._behind[service.ident] = service
            task = service.current
            self._service = None
            refused, waiting = self._sort_queue()
        for first in service.firsts:
            try:
                first()
            except Exception:
                self.on_error("going on")
        self.lender.give_back_for(service.ident, service.native_id)
        service.may_return.set()
        if _is_running(task):
            task.refuse(tRequestError("the program goes on; the thread does when this has ended"))
        for other in refused:
            other.refuse(tNotStopped("the program runs again"))
        self.on_left_behind(service.ident, None if task is None else task.label)
        if waiting:
            self._on_waiting()
        self._on_left()

    def _return(self, service):
        """The job has ended: wait until the thread may stop others."""
        service.may_return.wait()
        self.lender.take_back()
        with self._lock:
            if self._behind.get(service.ident) is service:
                del self._behind[service.ident]
            service.over.set()

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


def _is_running(task):
    return task is not None and not task.is_over


class tWorker(object):
    """A thread that runs tasks while the stopped one cannot; it waits for the next for ever."""

    def __init__(self, executor):
        self._executor = executor
        self._signal = signals.tSignal()
        self._given = []

    def give(self, task):
        self._given.append(task)
        self._signal.set()

    def run(self):
        self._executor.worker_begins()
        while True:
            self._signal.wait()
            if not self._given:  # a signal that comes late
                continue
            task = self._given.pop()
            task.execute()
            task = None
            self._executor.worker_is_free(self)
