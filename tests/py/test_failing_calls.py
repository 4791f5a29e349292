"""Every call that the library makes into the interpreter and every allocation, made to fail in
turn.

The session is tests/support/faults/scenario.py; what must hold is told there.  All calls are tried
under one interpreter, elsewhere a share of them, another one under each; TDBG_FAULT_SHARE=1 in the
environment tries everything, TDBG_FAULT_SHARE=6 a sixth of what is tried otherwise.
"""
from __future__ import absolute_import, division, print_function

import gc
import os
import sys
import unittest

from support import TestCase, has, import_tracer, needs, once, time_limit
from support.faults import Faults, in_child, nomemory, scenario

kWhole = os.environ.get("TDBG_FAULT_SHARE") == "1"
kThinner = int(os.environ.get("TDBG_FAULT_SHARE") or 1)
kShare = 1 if kWhole else 16 * kThinner  # one of so many calls is tried
kShareWhileLogging = 1 if kWhole else 48 * kThinner
kShareOfAllocations = 1 if kWhole else 4 * kThinner
# Up to that one each of the interpreter's allocations fails.
kDense = 1 << 30 if kWhole else 20 if kThinner == 1 else 8
kLimit = 7200 if kWhole else 150
kRounds = 6  # until one leaves nothing: the first ones fill caches
kGrowth = 8  # of what one round may leave
kBlocksMore = 12  # names that a run may have come to know and the one without failures not
kReached = 0.9  # of the runs: what depends on the clock may not come to its n-th call


class Work(object):
    def __init__(self, log):
        self.log = log

    def __call__(self, faults):
        """The session with faults, one without, and what is left of both."""
        tracer = import_tracer()
        report = scenario.run(tracer, self.log)
        faults.stop()
        report["failed"], report["log"] = faults.failed, self.log
        report["again"], report["after"] = scenario.run_again(tracer)
        report["blocks"] = faults.native.faults_count_of_blocks()
        return report


def find_troubles(outcome, expected):
    if outcome.why:
        return [outcome.why]
    report = outcome.result
    troubles = report["troubles"] + report["again"]
    if report["after"] != expected["after"]:
        troubles.append("stops afterwards: {}".format(report["after"]))
    # Who tells of an exception, a log or a thread that ends, runs modules that then have names,
    # too.
    told = report["log"] or "work_in_thread" in " ".join(report["raised"])
    if not told and report["blocks"] > expected["blocks"] + kBlocksMore:
        troubles.append("{} blocks, not {}".format(report["blocks"], expected["blocks"]))
    return troubles


class FailingCase(TestCase):
    def assert_good(self, report):
        self.assertEqual((report["troubles"], report["raised"], report["again"]), ([], [], []))
        self.assertIn(["line", "calls", scenario.kLines + 3], report["after"])
        self.assertGreater(len(report["stops"]), 60)

    def fail_each(self, faults, work, expected, attempts):
        """attempts: (what to call it, arguments of Faults.run)"""
        reached, wrong = 0, []
        for name, arguments in attempts:
            outcome = faults.run(work, **arguments)
            troubles = find_troubles(outcome, expected)
            if troubles:
                wrong.append("{}: {}".format(name, "\n".join(troubles)))
            reached += bool(outcome.result and outcome.result["failed"])
        self.assertEqual(wrong, [])
        self.assertGreater(len(attempts), 0)
        self.assertGreaterEqual(reached, int(kReached * len(attempts)))

    def fail_calls(self, log, number=0, parts=1, name=None):
        """name: of the only function that fails."""
        faults, work = Faults(), Work(log)
        expected, places, _ = faults.learn(work)
        self.assert_good(expected)
        self.assertGreater(len(places), 500)
        attempts = [
            ("{0.name} at {1}, call {2} of {0.calls}".format(place, " < ".join(place.road), call),
             {"place": place, "at": call})
            for place in places if name in (None, place.name)
            for call in sorted({1, place.calls})]
        self.fail_each(faults, work, expected, attempts[number::parts])


def number_of_interpreter():
    return sys.version_info[1] * 5 + has("32bit") * 2 + has("total_refcount")


@needs("fork")
class FailingCalls(FailingCase):
    @time_limit(kLimit)
    def test_a_share_of_the_calls(self):
        self.fail_calls(False, number_of_interpreter() % kShare, kShare)

    @time_limit(kLimit)
    def test_a_share_of_the_calls_while_logging(self):
        self.fail_calls(True, number_of_interpreter() % kShareWhileLogging, kShareWhileLogging)

    def test_lengths_while_logging(self):
        """What the log alone asks for must not leave an exception, either."""
        self.fail_calls(True, name="PySequence_Length")

    @time_limit(kLimit)
    def test_a_share_of_the_allocations(self):
        self.fail_allocations(kShareOfAllocations)

    def fail_allocations(self, parts):
        faults, work = Faults(), Work(False)
        expected, _, count = faults.learn(work)
        self.assert_good(expected)
        self.assertGreater(count, 60)
        number = number_of_interpreter() % parts
        self.fail_each(faults, work, expected, [
            ("allocation {}".format(at), {"allocation": True, "at": at})
            for at in range(1 + number, count + 1, parts)])

    def test_no_allocation_succeeds_for_a_while(self):
        faults, work = Faults(), Work(False)
        expected, _, count = faults.learn(work)
        self.fail_each(faults, work, expected, [
            ("allocations from {}".format(at), {"allocation": True, "at": at, "count": 20})
            for at in range(1, count, 20)])

    def test_allocations_of_the_import(self):
        """Each may end the import with an exception; the next one works."""
        def work(faults):
            try:
                imported = import_tracer()
            except (ImportError, MemoryError, SystemError) as why:
                imported = None
            faults.stop()
            sys.modules.pop("tdbgtracer", None)
            again, after = scenario.run_again(import_tracer())
            return {"imported": imported is not None, "again": again, "after": after,
                    "failed": faults.failed}

        faults = Faults(before_import=True)
        expected, _, count = faults.learn(work)
        self.assertEqual((expected["imported"], expected["again"]), (True, []))
        for at in range(1, count + 1, kThinner):
            outcome = faults.run(work, allocation=True, at=at)
            self.assertIsNone(outcome.why, at)
            self.assertEqual((outcome.result["again"], outcome.result["after"]),
                             ([], expected["after"]), at)


def clear_type_cache():
    getattr(sys, "_clear_internal_caches", getattr(sys, "_clear_type_cache", None))()


@needs("fork", "!python2", "module:_testcapi")
class InterpreterWithoutMemory(FailingCase):
    """The interpreter's n-th allocation in each call of the tracer fails, or in each part of the
    program.

    There it may be the program's, a callback's or one on the tracer's behalf, so any of them may
    raise MemoryError; a crash, another exception, blocks that are left and a later session that is
    not like any other are the tracer's fault, and so are references that are left by its own calls.
    (3.11 itself leaves some.)  Nothing is compiled, no function is made and no thread begins
    meanwhile, for some interpreters crash or hang then.
    """

    def setUp(self):
        if hasattr(sys, "gettotalrefcount"):
            self.skipTest("debug builds assert what does not hold without memory")
        if has("trace_refs"):
            self.skipTest("the interpreter gives up when its table of objects has no memory")
        if has("free_threaded"):
            self.skipTest("PyList_New crashes there when it has no memory for the items")
        if sys.version_info[:2] == (3, 10):
            self.skipTest("3.10 has no memory for co_lnotab and crashes")

    def session(self, around, log):
        try:
            return scenario.run(
                self.tracer, log, imports=False, threads=False, conditions=False, **around)
        except MemoryError:  # between two of them
            return {"stops": [], "troubles": [], "raised": ["session"]}

    def rounds(self, around, log):
        """The session until it leaves no more than once before: what became of all."""
        self.faults.stop()
        troubles, left = [], [self.count_left()]
        for _ in range(kRounds):
            report = self.session(around, log)
            undo_tracing(self.tracer)
            again, after = scenario.run_again(self.tracer)
            troubles += report["troubles"] + again
            left.append(self.count_left())
            references, blocks = [max(column) + kGrowth for column in zip(*left[:-1])]
            if left[-1][1] <= blocks and ("around_part" in around or left[-1][0] <= references):
                break
        else:
            troubles.append("each time, more references and blocks are left: {}".format(left))
        return {"troubles": troubles, "after": after, "raised": report["raised"]}

    def count_left(self):
        clear_type_cache()  # which keeps names of attributes
        gc.collect()
        return sys.getallocatedblocks(), self.faults.native.faults_count_of_blocks()

    def fail_in(self, where, numbers, log=False):
        self.faults, self.tracer = Faults(), import_tracer()
        expected, why = in_child(lambda: self.rounds({}, log))
        self.assertIsNone(why)
        self.assertEqual((expected["troubles"], expected["raised"]), ([], []))
        wrong, raised = [], 0
        for number in numbers:
            around = {where: nomemory.failing(number)}
            answer, why = in_child(lambda: self.rounds(around, log))
            if why or "troubles" not in answer:
                troubles = [why or answer["raised"]]
            else:
                troubles = answer["troubles"]
            if not troubles and answer["after"] != expected["after"]:
                troubles = ["stops afterwards: {}".format(answer["after"])]
            if troubles:
                wrong.append("allocation {}: {}".format(number, "\n".join(troubles)))
            raised += bool(answer.get("raised"))
        self.assertEqual(wrong, [])
        self.assertGreater(raised, 3)

    @time_limit(kLimit)
    def test_in_calls_of_the_tracer(self):
        self.fail_in("around_call", nomemory.numbers_up_to(400, kDense))

    @time_limit(kLimit)
    def test_in_calls_of_the_tracer_while_logging(self):
        self.fail_in("around_call", nomemory.numbers_up_to(100, kDense // 2), log=True)

    @time_limit(kLimit)
    def test_in_parts_of_the_program(self):
        self.fail_in("around_part", nomemory.numbers_up_to(1200, kDense))


def undo_tracing(tracer):
    """3.11 leaves its own count raised when it has no memory for the lines of the code it
    traces."""
    if sys.version_info[:2] == (3, 11):
        tracer.add_to_tstate_tracing(-tracer.get_tstate_tracing())


@needs("fork")
@once
class AllCalls(FailingCase):
    kParts = 6

    def fail_part(self, number):
        self.fail_calls(False, number, self.kParts * kThinner)


def _add_parts():
    for number in range(AllCalls.kParts):
        def test(self, number=number):
            self.fail_part(number)

        setattr(AllCalls, "test_part_{}".format(number + 1), time_limit(300)(test))


_add_parts()


if __name__ == "__main__":
    unittest.main()
