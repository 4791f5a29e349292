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
from support.tracing import kDefaultImport

kOnceWhenQuick = True
kWhole = os.environ.get("TDBG_FAULT_SHARE") == "1"
kThinner = int(os.environ.get("TDBG_FAULT_SHARE") or 1)
kShare = 1 if kWhole else 16 * kThinner  # one of so many calls is tried
kShareWhileLogging = 1 if kWhole else 96 * kThinner
kShareOfAllocations = 1 if kWhole else 32 * kThinner
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
    # too; and canonical pathnames that stay on know more of them.
    raised = " ".join(report["raised"])
    told = report["log"] or "work_in" in raised or "set_use_canonical_pathnames" in raised
    if not told and report["blocks"] > expected["blocks"] + kBlocksMore:
        troubles.append("{} blocks, not {}".format(report["blocks"], expected["blocks"]))
    return troubles


def name_of(place, call):
    return "{0.name} at {1}, call {2} of {0.calls}".format(place, " < ".join(place.road), call)


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
        attempts = [(name_of(place, call), {"place": place, "at": call})
                    for place in places if name in (None, place.name)
                    for call in sorted({1, place.calls})]
        self.fail_each(faults, work, expected, attempts[number::parts])

    def fail_calls_of_log(self, number, parts):
        """Those that are made while logging alone."""
        faults, work = Faults(), Work(True)
        known = {place.key for place in faults.learn(Work(False))[1]}
        expected, places, _ = faults.learn(work)
        self.assert_good(expected)
        attempts = [(name_of(place, 1), {"place": place}) for place in places
                    if place.key not in known]
        self.assertGreater(len(attempts), 500)
        self.fail_each(faults, work, expected, attempts[number::parts])

    def fail_allocations(self, number, parts):
        faults, work = Faults(), Work(False)
        expected, _, count = faults.learn(work)
        self.assert_good(expected)
        self.assertGreater(count, 1000)
        self.fail_each(faults, work, expected, [
            ("allocation {}".format(at), {"allocation": True, "at": at})
            for at in range(1 + number, count + 1, parts)])


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
        self.fail_allocations(number_of_interpreter() % kShareOfAllocations, kShareOfAllocations)

    def test_no_allocation_succeeds_for_a_while(self):
        faults, work = Faults(), Work(False)
        expected, _, count = faults.learn(work)
        self.fail_each(faults, work, expected, [
            ("allocations from {}".format(at), {"allocation": True, "at": at, "count": 20})
            for at in range(1, count, 20 * min(kShareOfAllocations, 4))])

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
        self.assertGreater(count, 0)
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


kOutOfMemory = "MemoryError: Out of memory"
kNoRecord = "RuntimeError: Unable to get debugger per-thread data"
kFile = scenario.steps.__file__.replace(".pyc", ".py")
kBreaks = 20  # on a line: more than the tracer has room for without asking for memory


@needs("fork")
class OutOfMemory(TestCase):
    """What a function says when an allocation of its own fails, and what is left."""

    def each_failure(self, prepare, call, look):
        """(what was raised as text, or None; what look() says), of every allocation in turn."""
        faults = getattr(self, "faults", None) or Faults()  # no process has two of them
        tracer, self.faults = import_tracer(), faults

        def child():
            scenario.Server(tracer).init(1)
            prepare(tracer)
            faults.native.faults_start(0, 1, at, 1)
            try:
                raised = None
                call(tracer)
            except Exception as why:
                raised = "{}: {}".format(type(why).__name__, why)
            failed = faults.native.faults_stop()
            return {"raised": raised, "failed": failed, "looks": look(tracer)}

        found = []
        for at in range(1, 200):
            answer, why = in_child(child)
            self.assertEqual((answer.get("raised"), why), (answer.get("raised"), None))
            self.assertIn("looks", answer, answer)
            if not answer["failed"]:
                self.assertIsNone(answer["raised"])
                break
            found.append((answer["raised"], answer["looks"]))
        return found

    def test_a_breakpoint_is_there_or_is_not(self):
        for path in ("/nowhere/file.py", kFile):
            found = self.each_failure(
                lambda tracer: tracer.register_module(scenario.steps),
                lambda tracer: tracer.set_break(path, "sum", 3, 1, 0, "a > 1", 0),
                lambda tracer: len(tracer.get_breaks(path, 3)))
            self.assertEqual(set(found) - {(None, 1)}, {(kOutOfMemory, 0)}, path)

    def test_lists_are_told_whole_the_next_time(self):
        def prepare(tracer):
            for _ in range(kBreaks):
                tracer.set_break(kFile, "", 3, 1, 1, None, 0)
            tracer.register_module(scenario.steps)

        for get in (lambda tracer: tracer.get_breaks(kFile, 3),
                    lambda tracer: tracer.get_file_breaks(kFile)):
            found = self.each_failure(prepare, get, lambda tracer: len(get(tracer)))
            self.assertEqual(set(found), {(kOutOfMemory, kBreaks)})

    def test_lists_say_the_same_whoever_had_no_memory(self):
        """The interpreter's own exception has another text, or none."""
        faults, tracer = Faults(), import_tracer()

        def work(faults):
            scenario.Server(tracer).init(1)
            tracer.set_break(kFile, "", 3, 1, 0, None, 0)
            said = []
            for get in (lambda: tracer.get_breaks(kFile, 3), lambda: tracer.get_file_breaks(kFile),
                        tracer.get_changed_bps_lists):
                try:
                    get()
                except Exception as why:
                    said.append("{}: {}".format(type(why).__name__, why))
            faults.stop()
            return said

        outcomes = [faults.run(work, place) for place in faults.learn(work)[1]
                    if place.name in ("PyList_New", "PyList_Append", "PyTuple_New")]
        said = [text for outcome in outcomes for text in outcome.result or ()]
        self.assertGreaterEqual(len(said), 6)
        self.assertEqual(set(said), {kOutOfMemory})

    def test_changes_are_told_the_next_time(self):
        def change_many(tracer):
            tracer.register_module(scenario.steps)
            for _ in range(kBreaks):
                tracer.set_break(kFile, "", scenario.kLines + 1, 1, 1, None, 0)
            tracer.start_trace()
            scenario.steps.calls(int)  # the temporary ones are gone then, in the changed list
            tracer.stop_trace()

        found = self.each_failure(
            change_many, lambda tracer: tracer.get_changed_bps_lists(),
            lambda tracer: sum(map(len, tracer.get_changed_bps_lists())))
        self.assertEqual([raised for raised, _ in found], [kOutOfMemory] * len(found))
        self.assertEqual({left for _, left in found}, {kBreaks})

    def test_an_ignored_place_is_there_or_is_not(self):
        found = self.each_failure(
            lambda tracer: None, lambda tracer: tracer.ignore_exception_loc(kFile, 3, 1),
            lambda tracer: tracer.exception_loc_ignored(kFile, 3))
        self.assertEqual(set(found) - {(None, 1)}, {(kOutOfMemory, 0)})

    def test_who_has_no_record_and_gets_none(self):
        for name, arguments, said in (
                ("step_over", (), kOutOfMemory), ("step_over_line", (), kOutOfMemory),
                ("step_over_line_range", (1, 2), kOutOfMemory), ("step_out", (), kOutOfMemory),
                ("step_out_to_frame", (None,), kOutOfMemory), ("stop", (), kOutOfMemory),
                ("continue_run", (), kOutOfMemory), ("acquire_dbgserver_mutex", (), kNoRecord),
                ("raise_exception", (0, None), kNoRecord)):
            found = self.each_failure(
                lambda tracer: tracer.thread_exiting(),
                lambda tracer: getattr(tracer, name)(*arguments),
                lambda tracer: tracer.get_tracing())
            self.assertIn((said, 0), found[:2], name)
            self.assertLessEqual({raised for raised, _ in found}, {said, kOutOfMemory}, name)

    def test_init_after_an_import_without_memory(self):
        """Where that came to its end all the same, for want of nothing but the core's records."""
        def work(faults):
            raised = None
            try:
                tracer = import_tracer()
                try:
                    tracer.init(0.0, 0, int, int, int, int, int, int, int, None,
                                kDefaultImport, {})
                except MemoryError as why:
                    raised = str(why)
            except (ImportError, MemoryError):
                pass
            faults.stop()
            return [raised, scenario.run_again(import_tracer())[0]]

        faults = Faults(before_import=True)
        outcomes = [faults.run(work, allocation=True, at=at, count=1 << 30) for at in range(1, 5)]
        self.assertEqual([outcome.why for outcome in outcomes], [None] * 4)
        self.assertEqual([outcome.result[1] for outcome in outcomes], [[]] * 4)
        self.assertIn("Out of memory", [outcome.result[0] for outcome in outcomes])


@needs("fork")
@once
class All(FailingCase):
    """Under one interpreter nothing is left out."""

    kParts = {"calls": 6, "allocations": 4, "calls_of_log": 2}


def _add_parts():
    for kind, parts in All.kParts.items():
        for number in range(parts):
            def test(self, kind=kind, number=number, parts=parts):
                if kind == "calls":
                    self.fail_calls(False, number, parts * kThinner)
                else:
                    getattr(self, "fail_" + kind)(number, parts * kThinner)

            setattr(All, "test_{}_part_{}".format(kind, number + 1), time_limit(300)(test))


_add_parts()


if __name__ == "__main__":
    unittest.main()
