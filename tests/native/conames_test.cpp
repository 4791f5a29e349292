// The pathname table where the interpreter fails, and its two ways to keep entries. What it does on
// real interpreters is in tests/py/test_conames.py.
#include "conames.h"

#include <errno.h>
#include <stdlib.h>

#include "fake_python.h"
#include "fileops.h"

namespace {

// What the fake interpreter has beside fake_python.h: lists, dicts, addresses and extra slots.
struct tContainers {
    std::map<PyObject*, std::map<std::string, std::pair<tFake*, tFake*>>> dicts;
    std::map<PyObject*, void*> extra;
    int list_failures = 0;  // how many of the next lists cannot be made
    int address_objects = 0;
    int extra_reads = 0;
    int index_requests = 0;
    Py_ssize_t index = 3;
    bool fail_read = false;
    bool fail_write = false;
    bool fail_delete = false;
    int deletes = 0;
    freefunc free_func = nullptr;
};
tContainers* box = nullptr;

std::string key_of(PyObject* key) {
    return as_fake(key)->text + std::to_string(as_fake(key)->number);
}

PyObject* make_list(Py_ssize_t size) {
    if (box->list_failures > 0) {
        --box->list_failures;
        fake->raise("MemoryError: list");
        return nullptr;
    }
    tFake* const list = fake->make(as_fake(gPy.PyList_Type_ptr), "list");
    list->items.resize(static_cast<size_t>(size));
    return list;
}

int set_list_item(PyObject* list, Py_ssize_t index, PyObject* item) {
    tFake*& slot = as_fake(list)->items[static_cast<size_t>(index)];
    tFake* const old = slot;
    slot = as_fake(item);
    XPy_DoDecRef(old);
    return 0;
}

PyObject* borrow_dict_item(PyObject* dict, PyObject* key) {
    const auto found = box->dicts[dict].find(key_of(key));
    return found != box->dicts[dict].end() ? found->second.second : nullptr;
}

int set_dict_item(PyObject* dict, PyObject* key, PyObject* value) {
    box->dicts[dict][key_of(key)] = {as_fake(new_ref(key)), as_fake(new_ref(value))};
    return 0;
}

int delete_dict_item(PyObject* dict, PyObject* key) {
    box->deletes++;
    const auto found = box->dicts[dict].find(key_of(key));
    if (box->fail_delete || found == box->dicts[dict].end()) {
        fake->raise("KeyError");
        return -1;
    }
    const auto [old_key, old_value] = found->second;
    box->dicts[dict].erase(found);
    XPy_DoDecRef(old_key);
    XPy_DoDecRef(old_value);
    return 0;
}

int next_dict_item(PyObject* dict, Py_ssize_t* pos, PyObject** key, PyObject** value) {
    auto& items = box->dicts[dict];
    if (*pos >= static_cast<Py_ssize_t>(items.size())) {
        return 0;
    }
    auto item = items.begin();
    std::advance(item, (*pos)++);
    *key = item->second.first;
    *value = item->second.second;
    return 1;
}

int read_extra(PyObject* code, Py_ssize_t index, void** extra) {
    box->extra_reads++;
    if (box->fail_read || index != box->index) {
        fake->raise("SystemError: extra");
        return -1;
    }
    *extra = box->extra[code];
    return 0;
}

int write_extra(PyObject* code, Py_ssize_t index, void* extra) {
    if (box->fail_write || index != box->index) {
        fake->raise("MemoryError: extra");
        return -1;
    }
    box->extra[code] = extra;
    return 0;
}

void bind_containers() {
    gPy.PyList_Type_ptr = fake->make(fake->type_type, "list");
    gPy.PyDict_Type_ptr = fake->make(fake->type_type, "dict");
    gPy.PyCode_Type_ptr = fake->make(fake->type_type, "code");
    gPy.PyList_New = make_list;
    gPy.PyList_SetItem = set_list_item;
    gPy.PyList_GetItem = [](PyObject* list, Py_ssize_t index) -> PyObject* {
        return as_fake(list)->items[static_cast<size_t>(index)];
    };
    gPy.PyDict_New = []() -> PyObject* { return fake->make(as_fake(gPy.PyDict_Type_ptr), "dict"); };
    gPy.PyDict_GetItem = borrow_dict_item;
    gPy.PyDict_SetItem = set_dict_item;
    gPy.PyDict_DelItem = delete_dict_item;
    gPy.PyDict_Next = next_dict_item;
    gPy.PyLong_FromVoidPtr = [](void* pointer) -> PyObject* {
        box->address_objects++;
        return fake->num(reinterpret_cast<Py_ssize_t>(pointer));
    };
    gPy.PyLong_AsVoidPtr = [](PyObject* obj) {
        return reinterpret_cast<void*>(as_fake(obj)->number);
    };
    gPy._PyCode_GetExtra = read_extra;
    gPy._PyCode_SetExtra = write_extra;
    gPy._PyEval_RequestCodeExtraIndex = [](freefunc free_func) {
        box->index_requests++;
        box->free_func = free_func;
        if (box->index < 0) {
            fake->raise("no more slots");
        }
        return box->index;
    };
}

class CodeNames : public FakePython {
protected:
    void SetUp() override {
        FakePython::SetUp();
        box = &containers_;
        bind_containers();
        gPy.initialized = 1;
        forget_code_extra_index();
        table_ = static_cast<tCOPathnameTable*>(malloc(sizeof(tCOPathnameTable)));
        InitCOPathnameTable(table_, nullptr);
    }
    void TearDown() override {
        free_co_pathname_table(table_);
        free(table_);
        forget_code_extra_index();
        FakePython::TearDown();
    }
    void use_dict() { set_version(3, 6); }
    PyCodeObject* make_code(const char* name = "f") {
        tFake* const code = python_.make(as_fake(gPy.PyCode_Type_ptr), "code object");
        code->attrs["co_name"] = python_.str(name);
        XPy_DoIncRef(code->attrs["co_name"]);
        return static_cast<PyCodeObject*>(static_cast<PyObject*>(code));
    }
    bool has_entry(PyCodeObject* code) {
        return find_code_entry(table_, code, &path_, &any_bps_, &version_);
    }
    std::string name_of(PyCodeObject* code) {
        const char* const text = LookupCOPathname(table_, code);
        return text != nullptr ? text : "(none)";
    }
    int register_name(PyCodeObject* code, const char* name) {
        return RegisterCOPathname(table_, code, name, nullptr, 0);
    }
    void expect_logged(const char* text) {
        EXPECT_NE(python_.written.find(text), std::string::npos) << python_.written;
    }

    tContainers containers_;
    tCOPathnameTable* table_ = nullptr;
    PyObject* path_ = nullptr;
    PyObject* any_bps_ = nullptr;
    PyObject* version_ = nullptr;
};

class ExtraSlot : public CodeNames {};
class EntryDict : public CodeNames {
protected:
    void SetUp() override {
        CodeNames::SetUp();
        use_dict();
    }
};
class AnyBreakpoints : public CodeNames {};
class Choosing : public CodeNames {};

TEST_F(ExtraSlot, IsRequestedOnceAndTellsHowEntriesAreFreed) {
    EXPECT_EQ(box->index_requests, 0);
    name_of(make_code());
    name_of(make_code());
    EXPECT_EQ(box->index_requests, 1);
    EXPECT_EQ(box->free_func, FreeExtraCodeData);
}

TEST_F(ExtraSlot, FindingAnEntryIsOneRead) {
    PyCodeObject* const code = make_code();
    register_name(code, "/p/a.py");
    box->extra_reads = 0;
    box->address_objects = 0;
    EXPECT_TRUE(has_entry(code));
    EXPECT_EQ(box->extra_reads, 1);
    EXPECT_EQ(box->address_objects, 0);
    EXPECT_EQ(as_fake(path_)->text, "/p/a.py");
    EXPECT_EQ(any_bps_, gPy.Py_None);
    EXPECT_EQ(version_, gPy.Py_None);
}

TEST_F(ExtraSlot, CodeWithoutAnEntryIsNotFound) {
    EXPECT_FALSE(has_entry(make_code()));
    EXPECT_FALSE(has_entry(nullptr));
    EXPECT_FALSE(has_entry(static_cast<PyCodeObject*>(gPy.Py_None)));
}

TEST_F(ExtraSlot, AFailedRequestMeansTheDictForTheRestOfTheProcess) {
    box->index = -1;
    PyCodeObject* const code = make_code();
    EXPECT_EQ(register_name(code, "/p/a.py"), 0);
    EXPECT_EQ(python_.pending(), "");
    EXPECT_EQ(box->dicts[table_->filename_for_co].size(), 1u);
    box->index = 3;
    EXPECT_EQ(name_of(code), "/p/a.py");
    EXPECT_EQ(box->index_requests, 1);
}

TEST_F(ExtraSlot, TheRequestKeepsTheProgramsError) {
    python_.raise("the program's own");
    box->index = -1;
    has_entry(make_code());
    EXPECT_EQ(python_.pending(), "the program's own");
}

TEST_F(ExtraSlot, IsNotAskedForBefore37) {
    use_dict();
    register_name(make_code(), "/p/a.py");
    EXPECT_EQ(box->index_requests, 0);
    EXPECT_EQ(box->extra_reads, 0);
}

TEST_F(ExtraSlot, AFailedReadIsLoggedAndMeansNotRegistered) {
    PyCodeObject* const code = make_code();
    register_name(code, "/p/a.py");
    log_to_file();
    box->fail_read = true;
    EXPECT_EQ(LookupCOPathname(table_, code), nullptr);
    expect_logged("failure in LookupCOPathname()");
    EXPECT_EQ(python_.pending(), "");
    EXPECT_FALSE(has_entry(code));
    EXPECT_EQ(python_.pending(), "");
    EXPECT_EQ(RegisterCOPathname(table_, code, "/p/b.py", nullptr, 1), -1);
    box->fail_read = false;
    EXPECT_EQ(name_of(code), "/p/a.py");
}

TEST_F(ExtraSlot, AnEntryThatCannotBeMadeIsLogged) {
    log_to_file();
    box->list_failures = 1;
    PyCodeObject* const code = make_code();
    EXPECT_EQ(register_name(code, "/p/a.py"), -1);
    expect_logged("Failure: CreateNewEntry()\n");
    EXPECT_EQ(python_.pending(), "");
    EXPECT_FALSE(has_entry(code));
}

TEST_F(ExtraSlot, AnEntryThatCannotBeStoredIsReleased) {
    box->fail_write = true;
    PyCodeObject* const code = make_code();
    const Py_ssize_t before = XPy_GetRefCnt(gPy.Py_None);
    EXPECT_EQ(register_name(code, "/p/a.py"), -1);
    EXPECT_EQ(python_.pending(), "");
    EXPECT_EQ(XPy_GetRefCnt(gPy.Py_None), before + 4);  // of the list, which the fake never empties
    int lists_alive = 0;
    for (const auto& obj : fake_objects) {
        lists_alive += obj->type == gPy.PyList_Type_ptr && !obj->is_dead;
    }
    EXPECT_EQ(lists_alive, 0);
}

TEST_F(ExtraSlot, FreeingAnEntryIsSafeAtAnyTime) {
    PyObject* const entry = CreateNewEntry();
    FreeExtraCodeData(nullptr);  // code objects without an entry
    gPy.initialized = 0;
    FreeExtraCodeData(entry);  // nobody to call any more
    EXPECT_EQ(XPy_GetRefCnt(entry), 1);
    gPy.initialized = 1;
    FreeExtraCodeData(entry);
    EXPECT_TRUE(as_fake(entry)->is_dead);
}

TEST_F(ExtraSlot, NoneInPlaceOfAnEntryIsLogged) {
    log_to_file();
    set_dprintf_mask(kLogFilenames);
    PyCodeObject* const code = make_code();
    box->extra[code] = gPy.Py_None;
    EXPECT_EQ(LookupCOPathname(table_, code), nullptr);
    expect_logged("None entry in CO pathname table\n");
    EXPECT_FALSE(has_entry(code));
    EXPECT_EQ(register_name(code, "/p/a.py"), 0);
    EXPECT_EQ(name_of(code), "/p/a.py");
}

TEST_F(ExtraSlot, AnEntryWithoutANameIsLogged) {
    log_to_file();
    set_dprintf_mask(kLogFilenames);
    PyCodeObject* const code = make_code();
    SetAnyBpsInCodeObject(table_, code, gPy.Py_True);
    EXPECT_EQ(LookupCOPathname(table_, code), nullptr);
    expect_logged("None pathname in CO pathname table entry\n");
}

TEST_F(ExtraSlot, RegistrationIsLogged) {
    log_to_file();
    set_dprintf_mask(kLogFilenames);
    register_name(make_code("fun"), "/p/a.py");
    expect_logged("Registering /p/a.py as pathname for code object ");
    expect_logged(" (fun)\n");
}

TEST_F(ExtraSlot, OperationsKeepTheProgramsError) {
    PyCodeObject* const code = make_code();
    python_.raise("the program's own");
    register_name(code, "/p/a.py");
    box->list_failures = 1;
    register_name(make_code(), "/p/a.py");
    name_of(code);
    name_of(make_code());
    SetAnyBpsInCodeObject(table_, code, gPy.Py_True);
    XPy_DoDecRef(GetAnyBpsInCodeObject(table_, code));
    ClearAnyBpsInAllCodeObjects(table_);
    __tracer_get_relative_path(table_, nullptr, gPy.Py_None);
    GetContainingClass(code, gPy.Py_None);
    EXPECT_EQ(python_.pending(), "the program's own");
}

TEST_F(EntryDict, AHitMakesNoAddressObject) {
    PyCodeObject* const code = make_code();
    register_name(code, "/p/a.py");
    box->address_objects = 0;
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(has_entry(code));
        EXPECT_EQ(name_of(code), "/p/a.py");
    }
    EXPECT_EQ(box->address_objects, 0);
}

TEST_F(EntryDict, CodeObjectsThatShareACacheSlotKeepTheirOwnEntries) {
    std::vector<PyCodeObject*> codes;
    for (size_t i = 0; i < 3 * kCodeEntryCacheSize; i++) {
        codes.push_back(make_code());
        ASSERT_EQ(register_name(codes.back(), std::to_string(i).c_str()), 0);
        table_->collect_count = 0;
    }
    for (size_t i = 0; i < codes.size(); i++) {
        ASSERT_TRUE(has_entry(codes[i]));
        ASSERT_EQ(as_fake(path_)->text, std::to_string(i));
    }
}

TEST_F(EntryDict, FindingAnEntryNeverSweeps) {
    PyCodeObject* const code = make_code();
    register_name(code, "/p/a.py");
    table_->collect_count = 4999;
    has_entry(code);
    EXPECT_EQ(table_->collect_count, 4999);
}

TEST_F(EntryDict, ASweepTakesDeadCodeOutOfTheCacheToo) {
    PyCodeObject* const code = make_code();
    register_name(code, "/p/a.py");
    XPy_DoDecRef(code);  // ours; the table's is left
    CollectGarbage(table_);
    EXPECT_TRUE(as_fake(code)->is_dead);
    EXPECT_FALSE(has_entry(code));
    EXPECT_TRUE(box->dicts[table_->filename_for_co].empty());
}

TEST_F(EntryDict, ASweepGoesOnUntilABatchIsNotFull) {
    std::vector<PyCodeObject*> codes;
    for (int i = 0; i < 200; i++) {
        codes.push_back(make_code());
        register_name(codes.back(), "/p/a.py");
        XPy_DoDecRef(codes.back());
    }
    CollectGarbage(table_);
    EXPECT_TRUE(box->dicts[table_->filename_for_co].empty());
    EXPECT_EQ(box->deletes, 200);
    EXPECT_EQ(table_->collect_count, 0);
}

TEST_F(EntryDict, AFailedRemovalIsLoggedAndKeepsTheCodeObject) {
    log_to_file();
    std::vector<PyCodeObject*> codes;
    for (int i = 0; i < 120; i++) {
        codes.push_back(make_code());
        register_name(codes.back(), "/p/a.py");
        XPy_DoDecRef(codes.back());
    }
    box->fail_delete = true;
    table_->collect_count = 4999;
    python_.raise("the program's own");
    name_of(make_code());
    expect_logged(
        "FATAL ERROR: UNEXPECTED EXCEPTION in conames, CollectGarbage (PyDict_DelItem)\n");
    EXPECT_EQ(box->deletes, 100);  // and no second batch, which would be the same
    EXPECT_EQ(table_->collect_count, 0);
    EXPECT_EQ(python_.pending(), "the program's own");
    for (PyCodeObject* const code : codes) {
        EXPECT_EQ(XPy_GetRefCnt(code), 1);
    }
}

TEST_F(EntryDict, FreeingTheTableReleasesItsCodeObjects) {
    PyCodeObject* const code = make_code();
    register_name(code, "/p/a.py");
    EXPECT_EQ(XPy_GetRefCnt(code), 2);
    free_co_pathname_table(table_);
    EXPECT_EQ(XPy_GetRefCnt(code), 1);
    EXPECT_FALSE(has_entry(code));
    InitCOPathnameTable(table_, nullptr);
    EXPECT_EQ(register_name(code, "/p/b.py"), 0);
    EXPECT_EQ(name_of(code), "/p/b.py");
}

TEST_F(EntryDict, ADictEntryThatCannotBeStoredTakesNoReference) {
    gPy.PyDict_SetItem = [](PyObject*, PyObject*, PyObject*) {
        fake->raise("MemoryError");
        return -1;
    };
    PyCodeObject* const code = make_code();
    EXPECT_EQ(register_name(code, "/p/a.py"), -1);
    EXPECT_EQ(XPy_GetRefCnt(code), 1);
    EXPECT_EQ(python_.pending(), "");
    EXPECT_FALSE(has_entry(code));
}

TEST_F(AnyBreakpoints, AnswerCountsOnlyForItsVersion) {
    PyCodeObject* const code = make_code();
    EXPECT_EQ(GetAnyBpsInCodeObject(table_, code), nullptr);
    ASSERT_EQ(SetAnyBpsInCodeObject(table_, code, gPy.Py_False), 0);
    const Py_ssize_t before = XPy_GetRefCnt(gPy.Py_False);
    PyObject* const answer = GetAnyBpsInCodeObject(table_, code);
    EXPECT_EQ(answer, gPy.Py_False);
    EXPECT_EQ(XPy_GetRefCnt(gPy.Py_False), before + 1);
    XPy_DoDecRef(answer);
    ASSERT_TRUE(has_entry(code));
    EXPECT_EQ(any_bps_, gPy.Py_False);
    EXPECT_EQ(version_, table_->bp_version);
    ClearAnyBpsInAllCodeObjects(table_);
    EXPECT_EQ(GetAnyBpsInCodeObject(table_, code), nullptr);
    ASSERT_TRUE(has_entry(code));
    EXPECT_NE(version_, table_->bp_version);
}

TEST_F(AnyBreakpoints, AVersionThatCannotBeMadeIsReportedAndOldAnswersStillGo) {
    PyCodeObject* const code = make_code();
    SetAnyBpsInCodeObject(table_, code, gPy.Py_True);
    box->list_failures = 1;
    errno = ENOENT;
    testing::internal::CaptureStdout();
    const int status = ClearAnyBpsInAllCodeObjects(table_);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failure: ClearAnyBpsInAllCodeObjects()");
    EXPECT_EQ(status, -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(python_.pending(), "");
    EXPECT_EQ(GetAnyBpsInCodeObject(table_, code), nullptr);
    EXPECT_EQ(SetAnyBpsInCodeObject(table_, code, gPy.Py_True), 0);
    PyObject* const answer = GetAnyBpsInCodeObject(table_, code);
    EXPECT_EQ(answer, gPy.Py_True);
    XPy_DoDecRef(answer);
}

TEST_F(AnyBreakpoints, AnEntryThatCannotBeMadeIsAFailure) {
    ClearAnyBpsInAllCodeObjects(table_);
    box->list_failures = 1;
    EXPECT_EQ(SetAnyBpsInCodeObject(table_, make_code(), gPy.Py_True), -1);
    EXPECT_EQ(python_.pending(), "");
}

TEST_F(Choosing, ATextWithoutUtf8FormIsNoName) {
    PyObject* const bad = python_.str("unencodable");
    EXPECT_EQ(always_use_co_filename(bad), 0);
    EXPECT_STREQ(__tracer_get_relative_path(table_, nullptr, bad), "<string>");
    EXPECT_EQ(python_.pending(), "");
}

TEST_F(Choosing, ATooLongNameIsLogged) {
    log_to_file();
    gPy.PyUnicode_FromFormatV = [](const char* format, va_list) -> PyObject* {
        return fake->str(format);
    };
    const std::string name(kMaxFilenameLength + 1, 'x');
    EXPECT_STREQ(__tracer_get_relative_path(table_, nullptr, python_.str(name)),
                 "<filename too long>");
    expect_logged("FAILURE: File name too long: %s\n");
}

TEST_F(Choosing, WithoutTheConstantThereIsNoModuleFile) {
    XPy_DoDecRef(table_->filestring);
    table_->filestring = nullptr;
    EXPECT_STREQ(__tracer_get_relative_path(table_, gPy.PyDict_New(), python_.str("/p/a.py")),
                 "/p/a.py");
}

TEST_F(Choosing, WhatIsNoFrameIsACFrame) {
    EXPECT_STREQ(__tracer_get_full_path(table_, nullptr), "<cframe>");
    EXPECT_STREQ(__tracer_get_full_path(table_, static_cast<PyFrameObject*>(gPy.Py_None)),
                 "<cframe>");
}

TEST_F(Choosing, AFrameWithoutCodeHasNoPath) {
    log_to_file();
    gPy.PyFrame_GetCode = [](PyFrameObject*) -> PyCodeObject* { return nullptr; };
    gPy.PyFrame_GetGlobals = [](PyFrameObject*) -> PyObject* { return nullptr; };
    PyObject* const frame = python_.make(python_.frame_type, "frame");
    python_.raise("the program's own");
    EXPECT_EQ(__tracer_get_full_path(table_, static_cast<PyFrameObject*>(frame)), nullptr);
    expect_logged("Failure in __tracer_get_full_path()\n");
    EXPECT_EQ(__resolve_full_path_for_frame(table_, static_cast<PyFrameObject*>(frame), 0),
              nullptr);
    expect_logged("Failure in __resolve_full_path_for_frame()\n");
    EXPECT_EQ(python_.pending(), "the program's own");
}

}  // namespace
