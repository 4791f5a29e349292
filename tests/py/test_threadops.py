"""The per-thread records and their table, through the library's exported functions."""
from __future__ import absolute_import, division, print_function

import ctypes
import sys
import threading

from support.capabilities import needs
from support.case import TestCase
from support.library import load_native
from support.references import growth_of_references

kWordBits = 8 * ctypes.sizeof(ctypes.c_void_p)


class tThreadData(ctypes.Structure):
    """The record's prescribed fields; private ones may follow."""

    _fields_ = [
        ("tracing", ctypes.c_int),
        ("tstate_trace_function_set", ctypes.c_int),
        ("tstate_id", ctypes.c_ssize_t),
        ("thread_id", ctypes.c_long),
        ("debug_thread_policy", ctypes.c_int),
        ("thread_name", ctypes.c_void_p),
        ("bot_frame", ctypes.c_void_p),
        ("stop_frame", ctypes.c_void_p),
        ("return_frame", ctypes.c_void_p),
        ("curr_frame", ctypes.c_void_p),
        ("step_over_lineno_start", ctypes.c_int),
        ("step_over_lineno_end", ctypes.c_int),
        ("stop_when_exited_stop_frame", ctypes.c_int),
        ("sub_language_marker", ctypes.c_void_p),
        ("sub_language_hook", ctypes.c_void_p),
        ("exiting_on_exception", ctypes.c_int),
        ("pending_exc", ctypes.c_void_p),
        ("dbgserver_mutex_acquired_count", ctypes.c_int),
        ("removed_from_table", ctypes.c_int),
        ("need_f_trace_update", ctypes.c_int),
        ("active_dispatch_ctx", ctypes.c_void_p),
    ]


pRecord = ctypes.POINTER(tThreadData)
kObject = ctypes.py_object
kPointer = ctypes.c_void_p

kFunctions = {
    "init_threadops": (None, []),
    "get_thread_ident": (ctypes.c_long, []),
    "allocate_thread_mutex": (kPointer, []),
    "acquire_thread_mutex": (ctypes.c_int, [kPointer, ctypes.c_int]),
    "release_thread_mutex": (None, [kPointer]),
    "new_thread_data": (pRecord, [kPointer]),
    "reinit_thread_data_for_tstate": (None, [pRecord, kPointer]),
    "free_thread_data": (None, [pRecord]),
    "init_thread_table": (None, [kPointer]),
    "find_thread_data": (pRecord, [kPointer, kPointer]),
    "remove_thread_data": (None, [kPointer, kPointer]),
    "clear_thread_table": (None, [kPointer]),
    "get_current_thread_data": (pRecord, [kPointer]),
    "get_other_thread_data": (pRecord, [kPointer, kPointer]),
    "id_for_tstate_ptr": (kObject, [kPointer]),
    "tstate_ptr_for_id": (kPointer, [kObject]),
    "get_thread_data_by_outer_frame_dict": (kObject, [kPointer]),
    "find_thread_data_from_frame": (pRecord, [kObject, kObject]),
}


def address_of(record):
    return ctypes.cast(record, kPointer).value


def as_signed(address):
    return address - (1 << kWordBits) if address >> (kWordBits - 1) else address


class ThreadCase(TestCase):
    def setUp(self):
        self.native = load_native(kFunctions)
        self.table = self.new_table()
        ctypes.pythonapi.PyThreadState_Get.restype = kPointer
        self.tstate = ctypes.pythonapi.PyThreadState_Get()
        self.other = self.fake_tstate()

    def new_table(self):
        storage = (kPointer * 64)()
        self.native.init_thread_table(ctypes.addressof(storage))
        self.addCleanup(self.native.clear_thread_table, ctypes.addressof(storage))
        self.keep = getattr(self, "keep", []) + [storage]
        return ctypes.addressof(storage)

    def fake_tstate(self):
        """Readable memory at an address that is no thread state's."""
        storage = (ctypes.c_char * 4096)()
        self.keep.append(storage)
        return ctypes.addressof(storage)


class RecordTest(ThreadCase):
    def assert_initial(self, record, tstate):
        none = id(None)
        expected = dict.fromkeys([name for name, _ in tThreadData._fields_], 0)
        for name, kind in tThreadData._fields_:
            if kind is kPointer:
                expected[name] = None
        expected.update(
            tstate_id=as_signed(tstate), thread_id=record.contents.thread_id,
            debug_thread_policy=-1, bot_frame=none, return_frame=none, curr_frame=none,
            step_over_lineno_start=-1, step_over_lineno_end=-1, need_f_trace_update=1)
        found = dict((name, getattr(record.contents, name)) for name, _ in tThreadData._fields_)
        self.assertEqual(found, expected)

    def test_a_new_record_has_its_initial_values(self):
        record = self.native.new_thread_data(self.tstate)
        self.assert_initial(record, self.tstate)
        self.native.free_thread_data(record)

    def test_the_thread_id_is_the_interpreters(self):
        record = self.native.get_current_thread_data(self.table)
        self.assertEqual(record.contents.thread_id, self.native.get_thread_ident())

    def test_the_thread_id_is_refreshed_on_every_call(self):
        record = self.native.get_current_thread_data(self.table)
        for _ in range(2):
            record.contents.thread_id = -7
            self.native.get_current_thread_data(self.table)
            self.assertEqual(record.contents.thread_id, self.native.get_thread_ident())

    def test_asking_as_another_thread_does_not_refresh_the_thread_id(self):
        record = self.native.get_current_thread_data(self.table)
        record.contents.thread_id = -7
        again = self.native.get_other_thread_data(self.table, self.tstate)
        self.assertEqual(address_of(again), address_of(record))
        self.assertEqual(record.contents.thread_id, -7)

    def test_reinit_for_the_same_thread_state_keeps_the_policy(self):
        record = self.native.new_thread_data(self.tstate)
        record.contents.debug_thread_policy = 1
        record.contents.tracing = 1
        self.native.reinit_thread_data_for_tstate(record, self.tstate)
        self.assertEqual(record.contents.debug_thread_policy, 1)
        record.contents.debug_thread_policy = -1
        self.assert_initial(record, self.tstate)
        self.native.free_thread_data(record)

    def test_reinit_for_another_thread_state_resets_the_policy(self):
        record = self.native.new_thread_data(self.tstate)
        record.contents.debug_thread_policy = 1
        self.native.reinit_thread_data_for_tstate(record, self.other)
        self.assert_initial(record, self.other)
        self.native.free_thread_data(record)

    def owned_fields(self):
        return ["thread_name", "bot_frame", "stop_frame", "return_frame", "curr_frame",
                "sub_language_marker", "sub_language_hook", "pending_exc"]

    def fill(self, record, obj):
        for name in self.owned_fields():
            ctypes.pythonapi.Py_IncRef(kObject(obj))
            setattr(record.contents, name, id(obj))

    def test_reinit_and_free_drop_every_reference(self):
        obj = object()
        before = sys.getrefcount(obj)
        record = self.native.new_thread_data(self.tstate)
        self.fill(record, obj)
        self.assertEqual(sys.getrefcount(obj), before + len(self.owned_fields()))
        self.native.reinit_thread_data_for_tstate(record, self.tstate)
        self.assertEqual(sys.getrefcount(obj), before)
        self.fill(record, obj)
        self.native.free_thread_data(record)
        self.assertEqual(sys.getrefcount(obj), before)

    def test_a_destructor_run_by_reinit_sees_a_whole_record(self):
        record = self.native.new_thread_data(self.tstate)
        seen = []

        class Noisy(object):
            def __del__(self):
                seen.append((record.contents.bot_frame, record.contents.thread_name))

        noisy = Noisy()
        ctypes.pythonapi.Py_IncRef(kObject(noisy))
        record.contents.thread_name = id(noisy)
        del noisy
        self.native.reinit_thread_data_for_tstate(record, self.tstate)
        self.assertEqual(seen, [(id(None), None)])
        self.native.free_thread_data(record)

    @needs("total_refcount")
    def test_records_leak_nothing(self):
        def cycle():
            self.native.get_current_thread_data(self.table)
            self.native.get_other_thread_data(self.table, self.other)
            self.native.clear_thread_table(self.table)

        self.assertEqual(growth_of_references(cycle), 0)


class TableTest(ThreadCase):
    def test_a_record_is_made_once_and_found_again(self):
        self.assertFalse(self.native.find_thread_data(self.table, self.tstate))
        record = self.native.get_current_thread_data(self.table)
        self.assertTrue(record)
        for found in (
                self.native.get_current_thread_data(self.table),
                self.native.get_other_thread_data(self.table, self.tstate),
                self.native.find_thread_data(self.table, self.tstate)):
            self.assertEqual(address_of(found), address_of(record))

    def test_every_thread_state_has_its_own_record(self):
        mine = self.native.get_current_thread_data(self.table)
        others = self.native.get_other_thread_data(self.table, self.other)
        self.assertNotEqual(address_of(mine), address_of(others))
        self.assertEqual(others.contents.tstate_id, as_signed(self.other))

    def test_tables_do_not_mix_their_records(self):
        second = self.new_table()
        mine = address_of(self.native.get_current_thread_data(self.table))
        theirs = address_of(self.native.get_current_thread_data(second))
        self.assertNotEqual(mine, theirs)
        self.assertEqual(address_of(self.native.get_current_thread_data(self.table)), mine)
        self.assertEqual(address_of(self.native.get_current_thread_data(second)), theirs)

    def test_removing_forgets_the_record(self):
        self.native.get_current_thread_data(self.table).contents.tracing = 5
        self.native.remove_thread_data(self.table, self.tstate)
        self.assertFalse(self.native.find_thread_data(self.table, self.tstate))
        self.assertEqual(self.native.get_current_thread_data(self.table).contents.tracing, 0)

    def test_removing_what_is_not_there_does_nothing(self):
        self.native.remove_thread_data(self.table, self.other)
        self.assertFalse(self.native.find_thread_data(self.table, self.other))

    def test_a_record_that_holds_the_mutex_twice_survives_its_removal(self):
        record = self.native.get_current_thread_data(self.table)
        record.contents.dbgserver_mutex_acquired_count = 2
        self.native.remove_thread_data(self.table, self.tstate)
        self.assertEqual(record.contents.removed_from_table, 1)
        self.assertEqual(record.contents.dbgserver_mutex_acquired_count, 2)
        self.assertFalse(self.native.find_thread_data(self.table, self.tstate))
        fresh = self.native.get_current_thread_data(self.table)
        self.assertNotEqual(address_of(fresh), address_of(record))
        self.native.free_thread_data(record)
        again = self.native.get_current_thread_data(self.table)
        self.assertEqual(address_of(again), address_of(fresh))

    def test_clearing_follows_the_same_rule_for_every_record(self):
        held = self.native.get_current_thread_data(self.table)
        held.contents.dbgserver_mutex_acquired_count = 1
        self.native.get_other_thread_data(self.table, self.other)
        self.native.clear_thread_table(self.table)
        self.assertEqual(held.contents.removed_from_table, 1)
        for tstate in (self.tstate, self.other):
            self.assertFalse(self.native.find_thread_data(self.table, tstate))
        fresh = self.native.get_current_thread_data(self.table)
        self.assertNotEqual(address_of(fresh), address_of(held))
        self.native.free_thread_data(held)

    def test_a_destructor_run_by_clearing_may_use_the_table(self):
        seen = []
        native, table, tstate = self.native, self.table, self.tstate

        class Noisy(object):
            def __del__(self):
                seen.append(bool(native.find_thread_data(table, tstate)))
                native.get_current_thread_data(table).contents.tracing = 9

        for owner in (self.tstate, self.other):
            noisy = Noisy()
            ctypes.pythonapi.Py_IncRef(kObject(noisy))
            self.native.get_other_thread_data(self.table, owner).contents.thread_name = id(noisy)
            del noisy
        self.native.clear_thread_table(self.table)
        self.assertEqual(seen, [False, True])
        record = self.native.find_thread_data(self.table, self.tstate)
        self.assertEqual(record.contents.tracing, 9)

    def test_many_threads_each_find_their_own_record(self):
        found = {}
        all_made = threading.Event()
        lock = threading.Lock()

        def run(number):
            with lock:
                found[number] = [address_of(self.native.get_current_thread_data(self.table))]
                if len(found) == len(threads):
                    all_made.set()
            all_made.wait()
            found[number].append(address_of(self.native.get_current_thread_data(self.table)))

        threads = [threading.Thread(target=run, args=(number,)) for number in range(20)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(len(set(first for first, _ in found.values())), len(threads))
        for first, again in found.values():
            self.assertEqual(first, again)


class IdentTest(ThreadCase):
    def test_without_a_thread_identity_function_the_answer_is_1(self):
        function = kPointer.in_dll(self.native, "gGetThreadIdentFunc")
        function.value = None
        self.assertEqual(self.native.get_thread_ident(), 1)
        self.native.init_threadops()
        self.assertTrue(function.value)
        ctypes.pythonapi.PyThread_get_thread_ident.restype = ctypes.c_long
        self.assertEqual(
            self.native.get_thread_ident(), ctypes.pythonapi.PyThread_get_thread_ident())


class IdTest(ThreadCase):
    kAddresses = [0x1000, (1 << (kWordBits - 1)) - 16, 1 << (kWordBits - 1), (1 << kWordBits) - 16]

    def test_an_id_is_the_address_as_a_signed_number(self):
        for address in self.kAddresses:
            self.assertEqual(self.native.id_for_tstate_ptr(address), as_signed(address))

    def test_both_forms_of_an_id_lead_back_to_the_address(self):
        for address in self.kAddresses:
            self.assertEqual(self.native.tstate_ptr_for_id(as_signed(address)), address)
            self.assertEqual(self.native.tstate_ptr_for_id(address), address)

    @needs("python2")
    def test_plain_ints_and_longs_lead_back(self):
        self.assertEqual(self.native.tstate_ptr_for_id(int(4096)), 4096)
        self.assertEqual(self.native.tstate_ptr_for_id(eval("4096L")), 4096)

    def test_what_is_no_id_raises(self):
        self.assertRaises(TypeError, self.native.tstate_ptr_for_id, "4096")
        self.assertRaises(TypeError, self.native.tstate_ptr_for_id, None)
        self.assertRaises(OverflowError, self.native.tstate_ptr_for_id, 1 << kWordBits)


class OuterFrameTest(ThreadCase):
    def set_bot_frame(self, record, frame):
        ctypes.pythonapi.Py_IncRef(kObject(frame))
        old = record.contents.bot_frame
        record.contents.bot_frame = id(frame)
        if old:
            ctypes.pythonapi.Py_DecRef(kPointer(old))

    def test_only_records_with_an_outermost_frame_are_in_the_dict(self):
        mine = self.native.get_current_thread_data(self.table)
        self.native.get_other_thread_data(self.table, self.other)
        frame = sys._getframe()
        self.assertEqual(self.native.get_thread_data_by_outer_frame_dict(self.table), {})
        self.set_bot_frame(mine, frame)
        self.assertEqual(
            self.native.get_thread_data_by_outer_frame_dict(self.table),
            {frame: as_signed(address_of(mine))})

    def test_a_record_is_found_from_any_inner_frame(self):
        mine = self.native.get_current_thread_data(self.table)
        self.set_bot_frame(mine, sys._getframe())
        frames = self.native.get_thread_data_by_outer_frame_dict(self.table)

        def inner():
            return self.native.find_thread_data_from_frame(sys._getframe(), frames)

        for found in (inner(), (lambda: inner())(),
                      self.native.find_thread_data_from_frame(sys._getframe(), frames)):
            self.assertEqual(address_of(found), address_of(mine))
        outer = sys._getframe().f_back
        self.assertFalse(self.native.find_thread_data_from_frame(outer, frames))

    def test_no_frame_finds_nothing(self):
        self.assertFalse(self.native.find_thread_data_from_frame(kObject(), {}))

    @needs("total_refcount")
    def test_the_walk_leaks_nothing(self):
        mine = self.native.get_current_thread_data(self.table)
        self.set_bot_frame(mine, sys._getframe())

        def walk():
            frames = self.native.get_thread_data_by_outer_frame_dict(self.table)
            self.native.find_thread_data_from_frame(sys._getframe(), frames)
            self.native.find_thread_data_from_frame(sys._getframe(), {})

        self.assertEqual(growth_of_references(walk), 0)


class LockTest(ThreadCase):
    def test_a_missing_lock_counts_as_acquired(self):
        self.assertEqual(self.native.acquire_thread_mutex(None, 0), 1)
        self.native.release_thread_mutex(None)

    def test_a_free_lock_is_acquired_and_a_held_one_only_by_waiting(self):
        lock = self.native.allocate_thread_mutex()
        self.assertEqual(self.native.acquire_thread_mutex(lock, 0), 1)
        self.assertEqual(self.native.acquire_thread_mutex(lock, 0), 0)
        self.native.release_thread_mutex(lock)
        self.assertEqual(self.native.acquire_thread_mutex(lock, 1), 1)
        self.native.release_thread_mutex(lock)

    def test_a_waiting_thread_lets_others_run(self):
        lock = self.native.allocate_thread_mutex()
        self.native.acquire_thread_mutex(lock, 0)
        about_to_wait = threading.Event()
        acquired = []

        def wait():
            about_to_wait.set()
            acquired.append(self.native.acquire_thread_mutex(lock, 1))

        thread = threading.Thread(target=wait)
        thread.start()
        about_to_wait.wait()
        self.native.release_thread_mutex(lock)  # never reached if the waiter kept the lock
        thread.join()
        self.assertEqual(acquired, [1])
        self.assertEqual(self.native.acquire_thread_mutex(lock, 0), 0)
