// The table of breakpoints natively: answers that no method passes on, line tables of versions that
// are not at hand, and every place where memory can run out. What programs see of breakpoints is in
// tests/py/test_breakpoints*.py.
#include "bpops_internal.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "conames.h"
#include "fake_python.h"
#include "fileops.h"
#include "guards.h"
#include "support/alloc_failures.h"
#include "threadops.h"
#include "tracercore_internal.h"

namespace {

constexpr char kFile[] = "/folder/module.py";

// What the fake interpreter has beside fake_python.h.
struct tExtras {
    std::map<PyObject*, void*> entries;  // of code objects
    int tables_read = 0;                 // line tables that were asked for
    bool fail_lists = false;
};
tExtras* extras = nullptr;

// The fakes' own memory neither counts nor fails.
class tTapPause {
public:
    tTapPause() : was_counting_(gAllocTap.counting) { gAllocTap.counting = false; }
    tTapPause(const tTapPause&) = delete;
    tTapPause& operator=(const tTapPause&) = delete;
    ~tTapPause() { gAllocTap.counting = was_counting_; }

private:
    bool was_counting_;
};

PyObject* get_attr_counting_tables(PyObject* obj, const char* name) {
    extras->tables_read += strcmp(name, "co_lnotab") == 0;
    return fake_get_attr(obj, fake->str(name));
}

PyObject* call_co_lines(PyObject* obj, const char* method, const char*, ...) {
    if (strcmp(method, "co_lines") != 0) {
        return fake_call_method(obj, method, nullptr);
    }
    extras->tables_read++;
    return new_ref(static_cast<PyObject*>(as_fake(obj)->attrs["co_lines"]));
}

void bind_lists() {
    bind_fake_lists();
    gPy.PyList_New = [](Py_ssize_t size) -> PyObject* {
        const tTapPause pause;
        if (extras->fail_lists) {
            fake->raise("MemoryError: list");
            return nullptr;
        }
        tFake* const list = fake->make(fake->other_type, "list");
        list->items.resize(static_cast<size_t>(size));
        return list;
    };
    gPy.PyObject_GetIter = [](PyObject* obj) { return new_ref(obj); };
    gPy.PyIter_Next = [](PyObject* iter) -> PyObject* {
        tFake* const list = as_fake(iter);
        const size_t next = static_cast<size_t>(list->number);
        return next < list->items.size() ? new_ref(static_cast<PyObject*>(list->items[next]))
                                         : nullptr;
    };
}

void bind_code_objects() {
    gPy.PyCode_Type_ptr = fake->make(fake->type_type, "code");
    gPy._PyEval_RequestCodeExtraIndex = [](freefunc) { return Py_ssize_t{0}; };
    gPy._PyCode_GetExtra = [](PyObject* code, Py_ssize_t, void** extra) {
        const tTapPause pause;
        *extra = extras->entries[code];
        return 0;
    };
    gPy._PyCode_SetExtra = [](PyObject* code, Py_ssize_t, void* extra) {
        const tTapPause pause;
        extras->entries[code] = extra;
        return 0;
    };
    gPy.PyObject_GetAttrString = get_attr_counting_tables;
    gPy.PyObject_CallMethod = call_co_lines;
    gPy.PyBytes_Size = [](PyObject* obj) {
        return static_cast<Py_ssize_t>(as_fake(obj)->text.size());
    };
    gPy.PySequence_GetItem = [](PyObject* obj, Py_ssize_t index) {
        return new_ref(static_cast<PyObject*>(as_fake(obj)->items[static_cast<size_t>(index)]));
    };
    gPy.PyErr_SetString = [](PyObject*, const char* text) {
        const tTapPause pause;
        fake->raise(text);
    };
    gPy.PyUnicode_FromString = [](const char* text) {
        const tTapPause pause;
        return fake_string(text);
    };
    gPy.PyDict_New = []() -> PyObject* {
        const tTapPause pause;
        return fake->make(fake->other_type, "dict");
    };
    gPy.PyImport_ImportModule = [](const char*) -> PyObject* { return fake->str("os module"); };
    gPy.Py_GetRecursionLimit = [] { return 1000; };
    gPy.Py_SetRecursionLimit = [](int) {};
}

class Breakpoints : public FakePython {
protected:
    void SetUp() override {
        FakePython::SetUp();
        extras = &extras_;
        bind_lists();
        bind_code_objects();
        gPy.initialized = 1;
        gUseCanonicalPathnames = 0;
        forget_code_extra_index();
        files_ = create_file_ops_data(nullptr);
        names_ = static_cast<tCOPathnameTable*>(malloc(sizeof(tCOPathnameTable)));
        InitCOPathnameTable(names_, files_);
        data_ = static_cast<tBpOpsData*>(calloc(1, sizeof(tBpOpsData)));
        __tracer_init_bp_ops_data(data_, names_, gPy.Py_None, 1);
        td_ = {};
    }
    void TearDown() override {
        __tracer_clear_bp_ops_data(data_, names_, gPy.Py_None);
        free(data_);
        free_co_pathname_table(names_);
        free(names_);
        destroy_file_ops_data(files_);
        forget_code_extra_index();
        FakePython::TearDown();
    }
    int set(int line, const char* file = kFile, int temporary = 0, int ignore_count = 0) {
        return __tracer_set_break(data_, file, "", line, 1, temporary, gPy.Py_None, ignore_count);
    }
    tBp* head(int line) { return static_cast<tBp*>(find_hash_value(&data_->userbps, &line)); }
    // Of those bound to the module on the line, as they are visited.
    std::vector<int> bound_ids(int line, const char* module_file = kFile) {
        std::vector<int> ids;
        for (tBp* bp = find_bound_bps(data_, module_file, line); bp != nullptr;
             bp = bp->next_bound) {
            ids.push_back(bp->id);
        }
        return ids;
    }
    // A frame of a code object in kFile.
    PyFrameObject* make_frame(int first_line = 1) {
        code_ = python_.make(as_fake(gPy.PyCode_Type_ptr), "code object");
        code_->attrs["co_name"] = python_.str("f");
        code_->attrs["co_firstlineno"] = python_.num(first_line);
        tFake* const frame = python_.make(python_.frame_type, "frame");
        frame->attrs["f_code"] = code_;
        RegisterCOPathname(
            names_, static_cast<PyCodeObject*>(static_cast<PyObject*>(code_)), kFile, nullptr, 1);
        PyObject* const obj = frame;
        return static_cast<PyFrameObject*>(obj);
    }
    void set_lnotab(const std::string& increments) {
        std::string table;
        for (const char increment : increments) {
            table.push_back(2);
            table.push_back(increment);
        }
        code_->attrs["co_lnotab"] = python_.make(python_.bytes_type, table);
    }
    // Lines of co_lines(); -1 stands for None.
    void set_co_lines(const std::vector<int>& lines) {
        tFake* const list = python_.make(python_.other_type, "list");
        gPy.PyIter_Next = [](PyObject* iter) -> PyObject* {
            tFake* const items = as_fake(iter);
            const size_t next = static_cast<size_t>(items->number++);
            return next < items->items.size() ? new_ref(static_cast<PyObject*>(items->items[next]))
                                              : nullptr;
        };
        for (const int line : lines) {
            tFake* const item = python_.make(python_.other_type, "tuple");
            tFake* const number = line == -1 ? python_.none : python_.num(line);
            item->items = {python_.num(0), python_.num(2), number};
            list->items.push_back(item);
        }
        code_->attrs["co_lines"] = list;
    }
    bool stops(PyFrameObject* frame, int line, int update) {
        python_.line_number = line;
        return __tracer_break_here(data_, 1, &td_, frame, update) != 0;
    }

    tExtras extras_;
    tFileOpsData* files_ = nullptr;
    tCOPathnameTable* names_ = nullptr;
    tBpOpsData* data_ = nullptr;
    tFake* code_ = nullptr;
    tThreadData td_ = {};
};

class Presence : public Breakpoints {};
class BreakpointMemory : public Breakpoints {};

TEST_F(Breakpoints, AnIdIsTakenEvenWhenTheRecordFails) {
    SKIP_WITHOUT_ALLOC_TAP();
    EXPECT_EQ(set(3), 1);
    {
        tAllocTapScope tap(1);
        EXPECT_EQ(set(3), -1);
    }
    EXPECT_EQ(set(3), 3);
}

TEST_F(Breakpoints, DisablingAnswersZeroWhetherOrNotItDisabledSome) {
    EXPECT_EQ(__tracer_enable_breaks(data_, kFile, 3, 1), 0);
    set(3);
    EXPECT_EQ(__tracer_enable_breaks(data_, kFile, 3, 0), 0);
    EXPECT_EQ(head(3)->enabled, 0);
    EXPECT_EQ(__tracer_enable_breaks(data_, kFile, 3, 1), 1);
    EXPECT_EQ(head(3)->enabled, 1);
}

TEST_F(Breakpoints, IgnoringAndConditionsTellWhetherAnyMatched) {
    set(3);
    EXPECT_EQ(__tracer_ignore_breaks(data_, "/other.py", 3, 4), 0);
    EXPECT_EQ(__tracer_ignore_breaks(data_, kFile, 3, 4), 1);
    EXPECT_EQ(__tracer_set_breaks_cond(data_, kFile, 4, gPy.Py_None), 0);
    EXPECT_EQ(__tracer_set_breaks_cond(data_, kFile, 3, python_.str("x")), 1);
    EXPECT_STREQ(head(3)->cond, "x");
    EXPECT_EQ(__tracer_set_breaks_cond(data_, kFile, 3, gPy.Py_None), 1);
    EXPECT_EQ(head(3)->cond, nullptr);
}

TEST_F(Breakpoints, ALineHasAnEntryOnlyWhileItHasBreakpoints) {
    set(3);
    set(3, "/other.py");
    __tracer_clear_breaks(data_, kFile, 3);
    EXPECT_EQ(data_->userbps.numEntries, 1u);
    EXPECT_STREQ(head(3)->user_filename, "/other.py");
    __tracer_clear_breaks(data_, "/other.py", 3);
    EXPECT_EQ(data_->userbps.numEntries, 0u);
}

TEST_F(Breakpoints, ClearingMakesPresenceStaleEvenWhereNothingMatched) {
    set(3, "/other.py");
    tOwnedRef before(new_ref(names_->bp_version));
    __tracer_clear_breaks(data_, kFile, 3);
    EXPECT_NE(names_->bp_version, before.borrow());
    EXPECT_NE(head(3), nullptr);
}

TEST_F(Breakpoints, AProbeChangesNothingAndStopsInSpiteOfAnIgnoreCount) {
    PyFrameObject* const frame = make_frame();
    set(3, kFile, 1, 2);
    EXPECT_TRUE(stops(frame, 3, 0));
    EXPECT_EQ(head(3)->hit_count, 0);
    EXPECT_EQ(head(3)->ignore_count, 2);
    EXPECT_EQ(data_->changed_bps, nullptr);
    EXPECT_FALSE(stops(frame, 3, 1));
    EXPECT_FALSE(stops(frame, 3, 1));
    EXPECT_TRUE(stops(frame, 3, 1));
    EXPECT_EQ(head(3), nullptr);
    ASSERT_NE(data_->changed_bps, nullptr);
    EXPECT_EQ(data_->changed_bps->deleted, 1);
    EXPECT_EQ(data_->changed_bps->hit_count, 3);
    EXPECT_FALSE(stops(frame, 3, 1));
}

TEST_F(Breakpoints, WhatIsNoFrameNeverStops) {
    set(3);
    EXPECT_FALSE(stops(static_cast<PyFrameObject*>(gPy.Py_None), 3, 1));
}

TEST_F(Breakpoints, ACompiledModuleIsKnownUnderItsSourceName) {
    set(3);
    __tracer_resolve_bp_filenames(data_, "/folder/module.pyc");
    EXPECT_STREQ(head(3)->module_filename, kFile);
    EXPECT_EQ(data_->unique_import_count, 1);
    __tracer_resolve_bp_filenames(data_, "/folder/module.PYO");
    EXPECT_EQ(data_->unique_import_count, 2);  // "/folder/module.PY" is another name
    __tracer_resolve_bp_filenames(data_, nullptr);
    EXPECT_EQ(data_->unique_import_count, 2);
}

TEST_F(Breakpoints, ANameTooLongForTheBufferIsNoModule) {
    std::string longest(kResolveBufferSize - 1, 'x');
    longest[0] = '/';
    __tracer_resolve_bp_filenames(data_, (longest + "x").c_str());
    EXPECT_EQ(data_->unique_import_count, 0);
    __tracer_resolve_bp_filenames(data_, longest.c_str());
    EXPECT_EQ(data_->unique_import_count, 1);
}

TEST_F(Breakpoints, OnceBoundItStaysBound) {
    __tracer_resolve_bp_filenames(data_, kFile);
    set(3);
    __tracer_resolve_bp_filenames(data_, "/folder/module.py2");
    EXPECT_STREQ(head(3)->module_filename, kFile);
}

TEST_F(Breakpoints, ThoseOfOneLineAreVisitedNewestFirstHoweverTheyWereBound) {
    const int compiled = set(3, "/folder/module.pyc");  // waits in another list
    const int first = set(3);
    set(3, "/other.py");
    const int second = set(3);
    set(4);
    __tracer_resolve_bp_filenames(data_, kFile);
    const int third = set(3);
    EXPECT_EQ(bound_ids(3), (std::vector<int>{third, second, first, compiled}));
    EXPECT_EQ(bound_ids(3, "/other.py"), std::vector<int>());
    __tracer_resolve_bp_filenames(data_, "/other.py");
    EXPECT_EQ(bound_ids(3, "/other.py").size(), 1u);
    __tracer_clear_breaks(data_, kFile, 3);
    EXPECT_EQ(bound_ids(3), std::vector<int>{compiled});
    EXPECT_EQ(lists_of(data_)->module_bps.numEntries, 2u);
    __tracer_clear_all_breaks(data_);
    EXPECT_EQ(bound_ids(3), std::vector<int>());
    EXPECT_EQ(lists_of(data_)->module_bps.numEntries, 0u);
}

TEST_F(Breakpoints, WhatWasKnownOfAModuleChangesWithItsBreakpoints) {
    PyFrameObject* const frame = make_frame();
    for (int i = 0; i < 3; i++) {
        set(3, "/other.py");
        EXPECT_FALSE(stops(frame, 3, 1));
        EXPECT_FALSE(has_module_bps(data_, kFile));
        set(3);
        EXPECT_TRUE(stops(frame, 3, 1));
        EXPECT_TRUE(has_module_bps(data_, kFile));
        __tracer_clear_breaks(data_, kFile, 3);
    }
    set(3);
    __tracer_clear_bp_ops_data(data_, names_, gPy.Py_None);
    EXPECT_EQ(__tracer_find_module(data_, kFile, nullptr), nullptr);
    EXPECT_FALSE(has_module_bps(data_, kFile));
}

TEST_F(Breakpoints, ALineIsFreeWhereOnlyOtherFilesHaveBreakpointsOnIt) {
    PyFrameObject* const frame = make_frame();
    EXPECT_TRUE(is_line_known_without_bps(data_, 3, frame));
    set(3, "/other.py");
    EXPECT_TRUE(is_line_known_without_bps(data_, 4, frame));
    EXPECT_FALSE(is_line_known_without_bps(data_, 3, frame));  // the module is not known yet
    EXPECT_FALSE(stops(frame, 3, 1));
    EXPECT_TRUE(is_line_known_without_bps(data_, 3, frame));
    set(3);
    EXPECT_FALSE(is_line_known_without_bps(data_, 3, frame));
    EXPECT_TRUE(stops(frame, 3, 1));
    gUseCanonicalPathnames = 1;
    __tracer_clear_breaks(data_, kFile, 3);
    EXPECT_FALSE(is_line_known_without_bps(data_, 3, frame));
    gUseCanonicalPathnames = 0;
    EXPECT_TRUE(is_line_known_without_bps(data_, 3, frame));
    EXPECT_FALSE(is_line_known_without_bps(data_, 3, static_cast<PyFrameObject*>(gPy.Py_None)));
}

TEST_F(Breakpoints, ThePathThatIsKnownIsHeldUntilAnotherIs) {
    PyFrameObject* const frame = make_frame();
    set(3);
    set(3, "/other.py");
    EXPECT_TRUE(stops(frame, 3, 1));
    EXPECT_TRUE(stops(frame, 3, 1));  // the first one has made the module known
    PyObject* const path = lists_of(data_)->known_path;
    ASSERT_NE(path, nullptr);
    EXPECT_STREQ(lists_of(data_)->known_file, kFile);
    const Py_ssize_t references = XPy_GetRefCnt(path);
    __tracer_resolve_bp_filenames(data_, "/other.py");
    EXPECT_TRUE(stops(frame, 3, 1));  // its own still stands, whatever else is known
    EXPECT_NE(__tracer_find_module(data_, "/other.py", nullptr), nullptr);
    EXPECT_EQ(lists_of(data_)->known_path, nullptr);
    EXPECT_EQ(XPy_GetRefCnt(path), references - 1);
    EXPECT_TRUE(stops(frame, 3, 1));
    EXPECT_EQ(lists_of(data_)->known_path, path);
    __tracer_clear_bp_ops_data(data_, names_, gPy.Py_None);
    EXPECT_EQ(XPy_GetRefCnt(path), references - 1);
    EXPECT_FALSE(stops(frame, 3, 1));
}

TEST_F(Breakpoints, ACodeObjectWhosePathChangesIsInItsNewFile) {
    PyFrameObject* const frame = make_frame();
    set(3);
    EXPECT_TRUE(stops(frame, 3, 1));
    PyObject* const code = code_;
    RegisterCOPathname(names_, static_cast<PyCodeObject*>(code), "/other.py", nullptr, 1);
    EXPECT_FALSE(stops(frame, 3, 1));
    set(3, "/other.py");
    EXPECT_TRUE(stops(frame, 3, 1));
}

// The tracer's own table, so that a line event may meet a breakpoint.
class LineEvents : public Breakpoints {
protected:
    void SetUp() override {
        Breakpoints::SetUp();
        __tracer_init_bp_ops_data(&gSelf.bp_ops_data, names_, gPy.Py_None, 1);
        gSelf.tracing = 1;
        gSelf.mutex_thread_id = -1;
        gPy.PyThread_acquire_lock = [](PyThread_type_lock, int) { return 0; };
        gPy.PyEval_SaveThread = []() -> PyThreadState* { return nullptr; };
        gPy.PyEval_RestoreThread = [](PyThreadState*) {};
        gPy._Py_IsFinalizing = [] { return 0; };
        gSelf.mutex = reinterpret_cast<PyThread_type_lock>(this);
    }
    void TearDown() override {
        __tracer_clear_bp_ops_data(&gSelf.bp_ops_data, names_, gPy.Py_None);
        gSelf = {};
        Breakpoints::TearDown();
    }
    // With an exception pending; what is pending afterwards.
    std::string dispatch(int line) {
        tDispatchCtx ctx = {};
        ctx.frame = make_frame();
        ctx.thread_data = &td_;
        python_.line_number = line;
        python_.raise("of the program");
        EXPECT_EQ(dispatch_line(&ctx), 0);
        std::string pending = python_.pending();
        gPy.PyErr_Clear();
        return pending;
    }
};

TEST_F(LineEvents, WithoutTheMutexAtABreakpointWhatWasPendingIsGone) {
    __tracer_set_break(&gSelf.bp_ops_data, kFile, "", 3, 1, 0, gPy.Py_None, 0);
    EXPECT_EQ(dispatch(4), "of the program");
    EXPECT_EQ(dispatch(3), "");
}

TEST_F(Breakpoints, ANameOfAnyLengthIsFoundAgain) {
    for (const size_t length : {kKnownFileSize - 2, kKnownFileSize - 1, kKnownFileSize}) {
        const std::string name = "/" + std::string(length - 1, 'y');
        __tracer_resolve_bp_filenames(data_, name.c_str());
        for (int i = 0; i < 2; i++) {
            ASSERT_NE(__tracer_find_module(data_, name.c_str(), nullptr), nullptr);
            EXPECT_EQ(__tracer_find_module(data_, name.c_str(), nullptr), name);
        }
    }
}

TEST_F(Breakpoints, ALineIsFoundByAnyNumber) {
    const std::vector<int> lines = {0, 1, 127, 128, 255, 256, 65535, 8388608, 2147483647, -1, -2};
    for (const int line : lines) {
        set(line);
    }
    for (const int line : lines) {
        ASSERT_NE(find_line_entry(&data_->userbps, line), nullptr) << line;
        EXPECT_EQ(find_line_entry(&data_->userbps, line), find_hash_entry(&data_->userbps, &line));
        EXPECT_EQ(find_line_entry(&data_->userbps, line ^ 0x01000000), nullptr);
    }
}

// As if the file had been asked for some seconds earlier.
void age_failed_stats(tFileOpsData* files, tBp* bp) {
    constexpr intptr_t kLongAgo = kNotFoundSeconds + 1;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&files->not_found_table, &search);
         entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        const intptr_t then = reinterpret_cast<intptr_t>(entry->clientData) - kLongAgo;
        entry->clientData = reinterpret_cast<void*>(then);  // NOLINT(performance-no-int-to-ptr)
    }
    bp->missing_since -= kLongAgo;
}

TEST_F(Breakpoints, AFileThatComesIntoBeingIsFoundWhenTheDiskIsAskedAgain) {
    char folder[] = "/tmp/bpops_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string names[] = {std::string(folder) + "/a.py", std::string(folder) + "/b.py"};
    const std::string link_name = std::string(folder) + "/link.py";
    for (const std::string& name : names) {
        FILE* const file = fopen(name.c_str(), "w");
        ASSERT_NE(file, nullptr);
        fclose(file);
    }
    set(3, link_name.c_str());
    __tracer_resolve_bp_filenames(data_, names[0].c_str());
    EXPECT_GE(head(3)->missing_since, 0);
    ASSERT_EQ(link(names[1].c_str(), link_name.c_str()), 0);
    age_failed_stats(files_, head(3));
    __tracer_resolve_bp_filenames(data_, names[1].c_str());
    EXPECT_STREQ(head(3)->module_filename, names[1].c_str());
    for (const std::string& name : {names[0], names[1], link_name}) {
        unlink(name.c_str());
    }
    rmdir(folder);
}

TEST_F(Breakpoints, AModuleThatIsNoFileIsKnownByItsNameAlone) {
    const char kInArchive[] = "/folder/library.zip/module.py";
    set(3, "/bin/sh");  // is there
    set(3, kInArchive);
    set(3, "/folder/library.zip/module.pyc");
    __tracer_resolve_bp_filenames(data_, kInArchive);
    EXPECT_EQ(bound_ids(3, kInArchive), (std::vector<int>{3, 2}));
}

TEST_F(Breakpoints, AFileThatIsNowhereIsForgottenInTheEnd) {
    for (int i = 0; i < 20000; i++) {
        set(3, ("/nowhere/" + std::to_string(i)).c_str());
    }
    EXPECT_LE(lists_of(data_)->unknown_files.numEntries, 4096u);
    __tracer_clear_all_breaks(data_);
    EXPECT_EQ(lists_of(data_)->waiting_files.numEntries, 0u);
    EXPECT_EQ(lists_of(data_)->unknown_files.numEntries, 0u);
}

TEST_F(Breakpoints, ClearingTheDataStartsIdsAnewAndKeepsTheChecksumFlag) {
    __tracer_enable_checksums(data_, 7);
    __tracer_resolve_bp_filenames(data_, kFile);
    set(3);
    __tracer_clear_bp_ops_data(data_, names_, gPy.Py_None);
    EXPECT_EQ(data_->checksums_enabled, 7);
    EXPECT_EQ(data_->loaded_modules.numEntries, 0u);
    EXPECT_EQ(data_->unique_import_count, 1);  // only grows
    EXPECT_EQ(set(3), 1);
}

TEST_F(Presence, ALineOfTheFunctionAnswersYesUntilTheSetChanges) {
    PyFrameObject* const frame = make_frame(10);
    set_co_lines({10, 11, 12});
    set(12);
    EXPECT_EQ(tracer_any_bps(data_, frame), 1);
    EXPECT_EQ(tracer_any_bps(data_, frame), 1);
    EXPECT_EQ(extras_.tables_read, 1);
    set(500);
    set_co_lines({10, 11, 12});
    EXPECT_EQ(tracer_any_bps(data_, frame), 1);
    EXPECT_EQ(extras_.tables_read, 2);
    __tracer_clear_breaks(data_, kFile, 12);
    set_co_lines({10, 11, 12});
    EXPECT_EQ(tracer_any_bps(data_, frame), 0);
}

TEST_F(Presence, LinesThatAreNoneAreSkipped) {
    PyFrameObject* const frame = make_frame(10);
    set_co_lines({-1, 10, -1, -1, 11});
    set(11);
    EXPECT_EQ(tracer_any_bps(data_, frame), 1);
}

TEST_F(Presence, AFileWithoutBreakpointsIsNotWalked) {
    PyFrameObject* const frame = make_frame(10);
    set_co_lines({10});
    set(10, "/other.py");
    EXPECT_EQ(tracer_any_bps(data_, frame), 0);
    EXPECT_EQ(extras_.tables_read, 0);
}

TEST_F(Presence, ADisabledBreakpointKeepsItsCodeTraced) {
    PyFrameObject* const frame = make_frame(10);
    set_co_lines({10});
    set(10);
    __tracer_enable_breaks(data_, kFile, 10, 0);
    EXPECT_EQ(tracer_any_bps(data_, frame), 1);
}

TEST_F(Presence, ALineNumberThatIsNoNumberIsAFailure) {
    PyFrameObject* const frame = make_frame(10);
    set_co_lines({10});
    code_->attrs["co_lines"]->items[0]->items[2] = python_.str("ten");
    set(10);
    EXPECT_EQ(tracer_any_bps(data_, frame), -1);
    EXPECT_EQ(python_.pending(), "");
}

// An increment of 0xfe: two lines back where it is signed, 254 forth where it is not.
int any_bps_after(tBpOpsData* data, PyFrameObject* frame, tFake* code, int line) {
    extras->entries.clear();
    RegisterCOPathname(data->co_pathname_table,
                       static_cast<PyCodeObject*>(static_cast<PyObject*>(code)),
                       kFile,
                       nullptr,
                       1);
    __tracer_clear_all_breaks(data);
    __tracer_set_break(data, kFile, "", line, 1, 0, gPy.Py_None, 0);
    return tracer_any_bps(data, frame);
}

TEST_F(Presence, IncrementsAreSignedFrom38On) {
    for (const int minor : {8, 9, 10}) {
        set_version(3, minor);
        PyFrameObject* const frame = make_frame(100);
        set_lnotab("\x05\xfe");
        EXPECT_EQ(any_bps_after(data_, frame, code_, 100), 1) << minor;
        EXPECT_EQ(any_bps_after(data_, frame, code_, 105), 1) << minor;
        EXPECT_EQ(any_bps_after(data_, frame, code_, 103), 1) << minor;
        EXPECT_EQ(any_bps_after(data_, frame, code_, 105 + 254), 0) << minor;
        EXPECT_EQ(any_bps_after(data_, frame, code_, 104), 0) << minor;
    }
}

TEST_F(Presence, IncrementsOf27AreUnsigned) {
    PyFrameObject* const frame = make_frame(100);
    set_lnotab("\x05\xfe");
    set_version(2, 7);  // the entries stay where 3.11 put the first
    EXPECT_EQ(any_bps_after(data_, frame, code_, 105), 1);
    EXPECT_EQ(any_bps_after(data_, frame, code_, 105 + 254), 1);
    EXPECT_EQ(any_bps_after(data_, frame, code_, 103), 0);
}

TEST_F(Presence, IncrementsOf36And37CountUnderEitherReading) {
    set_version(3, 7);
    PyFrameObject* const frame = make_frame(100);
    set_lnotab("\x05\xfe");
    EXPECT_EQ(any_bps_after(data_, frame, code_, 103), 1);
    EXPECT_EQ(any_bps_after(data_, frame, code_, 105 + 254), 1);
    EXPECT_EQ(any_bps_after(data_, frame, code_, 104), 0);
}

TEST_F(BreakpointMemory, EachFailureLeavesTheTableWhole) {
    SKIP_WITHOUT_ALLOC_TAP();
    PyFrameObject* const frame = make_frame(3);
    set_co_lines({3});
    tFake* const condition = python_.str("x");
    for (long n = 1; n < 200; n++) {
        tAllocTapScope tap(n);
        const int id = set(3, n % 2 == 0 ? kFile : "/other/file.py");
        __tracer_resolve_bp_filenames(data_, kFile);
        __tracer_set_breaks_cond(data_, kFile, 3, condition);
        __tracer_set_breaks_cond(data_, kFile, 3, gPy.Py_None);
        stops(frame, 3, 1);
        const bool failed = tap.has_failed();
        tap.stop();
        // Every record is bound and listed with its module, or waits.
        unsigned bound = 0;
        for (tBp* bp = head(3); bp != nullptr; bp = bp->next_user) {
            bound += bp->module_filename != nullptr;
        }
        EXPECT_EQ(bound_ids(3).size(), bound) << n;
        EXPECT_TRUE(id > 0 || failed) << n;
        __tracer_clear_bp_ops_data(data_, names_, gPy.Py_None);
        EXPECT_EQ(lists_of(data_)->module_bps.numEntries, 0u);
    }
}

TEST_F(BreakpointMemory, ListsThatCannotBeMadeLeaveTheChangesForNextTime) {
    PyFrameObject* const frame = make_frame();
    set(3, kFile, 1);
    EXPECT_TRUE(stops(frame, 3, 1));
    extras_.fail_lists = true;
    EXPECT_EQ(__tracer_get_changed_bps_lists(data_), nullptr);
    EXPECT_NE(python_.pending(), "");
    gPy.PyErr_Clear();
    EXPECT_EQ(__tracer_get_breaks(data_, kFile, 3), nullptr);
    gPy.PyErr_Clear();
    EXPECT_EQ(__tracer_get_file_breaks(data_, kFile), nullptr);
    gPy.PyErr_Clear();
    extras_.fail_lists = false;
    tOwnedRef both(__tracer_get_changed_bps_lists(data_));
    ASSERT_TRUE(both);
    EXPECT_EQ(as_fake(both.borrow())->items[0]->items.size(), 1u);
    EXPECT_EQ(data_->changed_bps, nullptr);
}

}  // namespace
