// fileops_canonical_test.cpp -- the registry of canonical names, its forms for Python, and
// checksums, with real files and an allocator that fails when told to.
#include <vector>

#include "fileops_fixture.h"
#include "support/alloc_failures.h"

// The registry

TEST_F(FileOps, RegisteringTwiceChangesNothing) {
    EXPECT_EQ(lookup("/x/m.py"), "(null)");
    EXPECT_EQ(add("/x/m.py"), "+/x/m.py");
    EXPECT_EQ(add("/x/m.py"), "/x/m.py");
    EXPECT_EQ(lookup("/x/m.py"), "/x/m.py");
    EXPECT_EQ(data_->canonical_by_name.numEntries, 1u);
    EXPECT_EQ(data_->canonical_by_unique_fileno.numEntries, 0u);
    EXPECT_STREQ(register_canonical_pathname(data_, "/x/m.py", nullptr, nullptr), "/x/m.py");
}

TEST_F(FileOps, CompiledNamesAreRegisteredAsTheirSources) {
    EXPECT_EQ(add("/x/m.pyc"), "+/x/m.py");
    EXPECT_EQ(add("/x/m.pyo"), "/x/m.py");
    EXPECT_EQ(lookup("/x/m.PYC"), "(null)");  // pruned to m.PY
    EXPECT_EQ(lookup("/x/m.py"), "/x/m.py");
}

TEST_F(FileOps, RelativeNamesAreRegisteredUnderTheirAbsoluteOnes) {
    EXPECT_EQ(add("sub/../m.pyc"), "+" + path("m.py"));
    EXPECT_EQ(lookup("m.py"), path("m.py"));
    EXPECT_EQ(lookup(path("m.py")), path("m.py"));
}

TEST_F(FileOps, AHardLinkGetsTheNameRegisteredFirst) {
    const std::string a = make_file("a/m.py");
    const std::string b = make_link(a, "b/m.py");
    const std::string c = make_link(a, "c/m.py");
    EXPECT_EQ(add(a), "+" + a);
    EXPECT_EQ(lookup(b), a);  // by its number, before it is registered
    EXPECT_EQ(data_->canonical_by_name.numEntries, 1u);
    EXPECT_EQ(add(b), "+" + a);
    EXPECT_EQ(add(c), "+" + a);
    EXPECT_EQ(add(b), a);
    EXPECT_EQ(lookup(a), a);
    EXPECT_EQ(lookup(b), a);
    EXPECT_EQ(data_->canonical_by_unique_fileno.numEntries, 1u);
}

TEST_F(FileOps, TheFirstNameStaysCanonicalWhenItsFileIsGone) {
    const std::string a = make_file("a.py");
    const std::string b = make_link(a, "b.py");
    add(a);
    ASSERT_EQ(unlink(a.c_str()), 0);
    EXPECT_EQ(add(b), "+" + a);
}

TEST_F(FileOps, AChecksumFindsTheFileOnAnotherMachine) {
    add("/here/m.py", "abc");
    EXPECT_EQ(lookup("/there/m.py", "abc"), "/here/m.py");
    EXPECT_EQ(lookup("/there/m.py", "other"), "(null)");
    EXPECT_EQ(lookup("/there/m.py", ""), "(null)");
    EXPECT_EQ(lookup("/there/m.py"), "(null)");
    EXPECT_EQ(data_->canonical_by_name.numEntries, 1u);
}

TEST_F(FileOps, NameAndFileComeBeforeTheChecksum) {
    const std::string a = make_file("a.py");
    const std::string b = make_link(a, "b.py");
    add(a);
    add("/x/c.py", "sum");
    EXPECT_EQ(lookup(a, "sum"), a);
    EXPECT_EQ(lookup(b, "sum"), a);
    EXPECT_EQ(lookup("/x/d.py", "sum"), "/x/c.py");
}

TEST_F(FileOps, AnEmptyChecksumIsNotRegistered) {
    add("/x/m.py", "");
    EXPECT_EQ(data_->canonical_by_checksum.numEntries, 0u);
}

TEST_F(FileOps, TheFirstFileOfAChecksumStaysAndTheOtherIsLogged) {
    log(kLogFilenames);
    add("/x/m.py", "abc");
    EXPECT_EQ(fake->written, "");
    EXPECT_EQ(add("/y/m.py", "abc"), "+/y/m.py");
    EXPECT_EQ(fake->written,
              "Duplicate files for checksum: canonical = '/x/m.py'; other = '/y/m.py'\n");
    EXPECT_EQ(lookup("/z/m.py", "abc"), "/x/m.py");
    EXPECT_EQ(lookup("/y/m.py", "abc"), "/y/m.py");
    EXPECT_EQ(data_->canonical_by_checksum.numEntries, 1u);
}

TEST_F(FileOps, AKnownNameCanStillGetAChecksum) {
    add("/x/m.py");
    EXPECT_EQ(add("/x/m.py", "abc"), "/x/m.py");
    EXPECT_EQ(lookup("/y/m.py", "abc"), "/x/m.py");
}

TEST_F(FileOps, AChecksumLeadsToTheNameItCameWith) {
    const std::string a = make_file("a.py");
    const std::string b = make_link(a, "b.py");
    add(a);
    EXPECT_EQ(add(b, "abc"), "+" + a);
    EXPECT_EQ(lookup("/elsewhere.py", "abc"), b);
}

TEST_F(FileOps, RegistrationSurvivesEachFailedAllocation) {
    SKIP_WITHOUT_ALLOC_TAP();
    const std::string name = make_file("m.py");
    bool has_failed = true;
    for (int n = 1; has_failed; n++) {
        ASSERT_LT(n, 60);
        tAllocTapScope tap(n);
        tFileOpsData* const data = create_file_ops_data(nullptr);
        boolean is_new = 77;
        const char* canonical = nullptr;
        const char* again = nullptr;
        if (data != nullptr) {
            canonical = register_canonical_pathname(data, "./m.pyc", "abc", &is_new);
        }
        const bool right = canonical == nullptr || name == canonical;
        const bool flag_right = data == nullptr || is_new == (canonical != nullptr ? 1 : 0);
        if (data != nullptr) {
            again = register_canonical_pathname(data, name.c_str(), "abc", nullptr);
        }
        const bool again_right = again == nullptr ? tap.has_failed() : name == again;
        destroy_file_ops_data(data);
        has_failed = tap.has_failed();
        const long live = tap.live();
        tap.stop();
        EXPECT_TRUE(right) << n;
        EXPECT_TRUE(flag_right) << n;
        EXPECT_TRUE(again_right) << n;
        EXPECT_EQ(live, 0) << n;
    }
    EXPECT_FALSE(has_failed);
}

TEST_F(FileOps, FailuresOfTheRegistryAreLogged) {
    SKIP_WITHOUT_ALLOC_TAP();
    const std::string name = make_file("m.py");
    EXPECT_TRUE(exists(name));  // its stat is cached
    const struct {
        int fail_at;
        const char* log;
        const char* result;
    } cases[] = {
        {1,
         "Failure: get_absname_for_canonical()\nFailure: register_canonical_pathname()\n",
         "(null)"},
        {2, "Failure: register_canonical_in_by_unique_fileno()\n", nullptr},
        {3, "Failure: register_canonical_in_by_unique_fileno()\n", nullptr},
        {4, "Failure: register_canonical_pathname()\n", "(null)"},
        {5, "Failure: register_canonical_pathname()\n", "(null)"},
        {6, "Failure: register_canonical_in_by_checksum()\n", nullptr},
        {7, "Failure: register_canonical_in_by_checksum()\n", nullptr},
    };
    log(kLogInternalFailures);
    for (const auto& test : cases) {
        tFileOpsData* const data = create_file_ops_data(&gUnsafeGlobalDPData);
        tUniqueFileno number = {};
        boolean found = 0;
        get_unique_file_number(data, name.c_str(), &number, &found);
        fake->written.clear();
        // Only the first failure counts, so that the log itself has memory.
        tAllocTapScope tap(test.fail_at);
        const char* const result = register_canonical_pathname(data, name.c_str(), "abc", nullptr);
        tap.stop();
        EXPECT_EQ(fake->written, test.log) << test.fail_at;
        EXPECT_STREQ(result != nullptr ? result : "(null)",
                     test.result != nullptr ? test.result : name.c_str())
            << test.fail_at;
        // With memory again, nothing of the failure is left.
        EXPECT_STREQ(register_canonical_pathname(data, name.c_str(), "abc", nullptr), name.c_str());
        EXPECT_STREQ(lookup_canonical_pathname(data, "/other.py", "abc"), name.c_str());
        destroy_file_ops_data(data);
    }
}

TEST_F(FileOps, ALookUpWithoutMemoryIsLogged) {
    SKIP_WITHOUT_ALLOC_TAP();
    add("/x/m.py");
    log(kLogInternalFailures);
    tAllocTapScope tap(1);
    const char* const result = lookup_canonical_pathname(data_, "/x/m.py", nullptr);
    tap.stop();
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(fake->written, "Failure: get_absname_for_canonical()\n");
}

TEST_F(FileOps, WithoutALogEverythingStillWorks) {
    tFileOpsData* const data = create_file_ops_data(nullptr);
    EXPECT_STREQ(register_canonical_pathname(data, "m.py", "s", nullptr), path("m.py").c_str());
    EXPECT_STREQ(register_canonical_pathname(data, "n.py", "s", nullptr), path("n.py").c_str());
    destroy_file_ops_data(data);
}

TEST_F(FileOps, ANullRecordKnowsNothing) {
    const std::string name = make_file("m.py");
    tUniqueFileno number = {1, 1};
    boolean found = 1;
    EXPECT_EQ(get_absname(nullptr, "m.py"), nullptr);
    EXPECT_EQ(get_unique_file_number(nullptr, name.c_str(), &number, &found), 0);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(samefile(nullptr, name.c_str(), "/x/m.py"), 0);
    EXPECT_EQ(lookup_canonical_pathname(nullptr, name.c_str(), "sum"), nullptr);
    EXPECT_EQ(register_canonical_pathname(nullptr, name.c_str(), "sum", &found), nullptr);
    EXPECT_EQ(lookup_canonical_result(nullptr, "/x", nullptr), gPy.Py_None);
    EXPECT_EQ(as_fake(register_canonical_result(nullptr, "/x", nullptr))->text, "(None, 0)");
    EXPECT_EQ(set_checksum_callback(nullptr, gPy.Py_None), 0);
    EXPECT_EQ(get_checksum_for_pathname(nullptr, fake->str("/x")), gPy.Py_None);
}

// Forms for Python

TEST_F(FileOps, PseudoFilesPassThroughBothForms) {
    tFake* const name = fake->str("<string>");
    EXPECT_EQ(lookup_canonical_pathname_pystr(data_, name, gPy.Py_None), name);
    EXPECT_EQ(name->refcnt, 2);
    tFake* const registered = as_fake(register_canonical_pathname_pystr(data_, name, gPy.Py_None));
    EXPECT_NE(registered, name);
    EXPECT_EQ(registered->text, "<string>");
    EXPECT_EQ(registered->refcnt, 1);
    EXPECT_EQ(as_fake(lookup_canonical_result(data_, "<stdin>", "x"))->text, "<stdin>");
    EXPECT_EQ(as_fake(register_canonical_result(data_, "<stdin>", "x"))->text, "(<stdin>, 0)");
    EXPECT_EQ(data_->canonical_by_name.numEntries, 0u);
    EXPECT_EQ(data_->canonical_by_checksum.numEntries, 0u);
}

TEST_F(FileOps, OnlyBothBracketsMakeAPseudoFile) {
    for (const char* name : {"<a", "a>", "<"}) {
        EXPECT_EQ(lookup_canonical_result(data_, name, nullptr), gPy.Py_None);
    }
    EXPECT_EQ(as_fake(lookup_canonical_result(data_, "<>", nullptr))->text, "<>");
    EXPECT_EQ(lookup_canonical_result(data_, "", nullptr), gPy.Py_None);
}

TEST_F(FileOps, LookUpAnswersNoneOrANewString) {
    tFake* const name = fake->str("/x/m.pyc");
    const Py_ssize_t none_count = fake->none->refcnt;
    EXPECT_EQ(lookup_canonical_pathname_pystr(data_, name, gPy.Py_None), gPy.Py_None);
    EXPECT_EQ(fake->none->refcnt, none_count + 1);
    EXPECT_EQ(as_fake(register_canonical_pathname_pystr(data_, name, fake->str("sum")))->text,
              "/x/m.py");
    tFake* const found = as_fake(lookup_canonical_pathname_pystr(data_, name, nullptr));
    EXPECT_EQ(found->text, "/x/m.py");
    EXPECT_EQ(found->refcnt, 1);
    EXPECT_EQ(
        as_fake(lookup_canonical_pathname_pystr(data_, fake->str("/y"), fake->str("sum")))->text,
        "/x/m.py");
    EXPECT_EQ(name->refcnt, 1);
}

TEST_F(FileOps, RegisterTellsTheModuleWhetherTheNameIsNew) {
    EXPECT_EQ(as_fake(register_canonical_result(data_, "/x/m.pyc", nullptr))->text, "(/x/m.py, 1)");
    EXPECT_EQ(as_fake(register_canonical_result(data_, "/x/m.py", "sum"))->text, "(/x/m.py, 0)");
    EXPECT_EQ(as_fake(lookup_canonical_result(data_, "/y", "sum"))->text, "/x/m.py");
}

TEST_F(FileOps, RegistrationFromPythonIsLogged) {
    log(kLogFilenames);
    register_canonical_pathname_pystr(data_, fake->str("/x/m.pyc"), gPy.Py_None);
    EXPECT_EQ(fake->written,
              "Registered canonical in register_canonical_pathname_pystr()\n"
              "  pathname=/x/m.pyc\n"
              "  canonical=/x/m.py\n");
}

TEST_F(FileOps, ALookUpFailsWhileAPythonErrorIsPending) {
    log(kLogInternalFailures);
    fake->raise("ValueError");
    EXPECT_EQ(lookup_canonical_pathname_pystr(data_, fake->str("/x"), gPy.Py_None), nullptr);
    EXPECT_EQ(fake->written, "Failure in get_canonical_pathname_pystr()\n");
    EXPECT_EQ(fake->pending(), "ValueError");
}

TEST_F(FileOps, AFoundNameThatMakesNoStringIsAnError) {
    add("/x/m.py");
    fake->fail_strings = 1;
    EXPECT_EQ(lookup_canonical_result(data_, "/x/m.py", nullptr), nullptr);
    EXPECT_EQ(fake->pending(), "MemoryError");
}

TEST_F(FileOps, AnArgumentWithoutTextIsAnError) {
    log(kLogInternalFailures);
    tFake* const bad = fake->str("unencodable");
    EXPECT_EQ(lookup_canonical_pathname_pystr(data_, bad, gPy.Py_None), nullptr);
    EXPECT_EQ(fake->pending(), "UnicodeEncodeError");
    EXPECT_EQ(fake->written, "Failure in get_canonical_pathname_pystr()\n");
    gPy.PyErr_Clear();
    EXPECT_EQ(lookup_canonical_pathname_pystr(data_, fake->str("/x"), bad), nullptr);
    EXPECT_EQ(fake->pending(), "UnicodeEncodeError");
    gPy.PyErr_Clear();
    EXPECT_EQ(register_canonical_pathname_pystr(data_, bad, gPy.Py_None), nullptr);
    EXPECT_EQ(fake->pending(), "UnicodeEncodeError");
    EXPECT_EQ(data_->canonical_by_name.numEntries, 0u);
}

TEST_F(FileOps, RegistrationThatFailsAnswersNone) {
    SKIP_WITHOUT_ALLOC_TAP();
    tFake* const name = fake->str("/x/m.py");
    tAllocTapScope tap(1);
    PyObject* const result = register_canonical_pathname_pystr(data_, name, gPy.Py_None);
    tap.stop();
    EXPECT_EQ(result, gPy.Py_None);
    EXPECT_EQ(fake->pending(), "");
}

TEST_F(FileOps, StringsAreOfTheVersionsNativeType) {
    set_version(2, 7);
    gPy._PyUnicode_AsString = nullptr;
    gPy.PyUnicode_FromString = nullptr;
    tFake* const name = fake->make(fake->bytes_type, "/x/m.py");
    EXPECT_EQ(as_fake(register_canonical_pathname_pystr(data_, name, name))->text, "/x/m.py");
    EXPECT_EQ(as_fake(lookup_canonical_pathname_pystr(data_, name, name))->text, "/x/m.py");
}

// Checksums

TEST_F(FileOps, WithoutACallbackThereIsNoChecksum) {
    call_with([](PyObject*, PyObject*) -> PyObject* {
        ADD_FAILURE() << "called";
        return nullptr;
    });
    tFake* const name = fake->str("/x/m.py");
    const Py_ssize_t none_count = fake->none->refcnt;
    EXPECT_EQ(get_checksum_for_pathname(data_, name), gPy.Py_None);
    EXPECT_EQ(fake->none->refcnt, none_count + 1);
    set_checksum_callback(data_, nullptr);
    EXPECT_EQ(get_checksum_for_pathname(data_, name), gPy.Py_None);
    set_checksum_callback(data_, gPy.Py_None);
    EXPECT_EQ(get_checksum_for_pathname(data_, name), gPy.Py_None);
}

TEST_F(FileOps, TheCallbackIsAskedWithThePathnameObject) {
    tFake* const callback = fake->make(fake->other_type, "callback");
    tFake* const name = fake->str("/x/m.py");
    tFake* const answer = fake->str("abc");
    set_checksum_callback(data_, callback);
    call_with([&](PyObject* callable, PyObject* args) {
        EXPECT_EQ(callable, callback);
        EXPECT_EQ(as_fake(args)->items, std::vector<tFake*>{name});
        return new_ref(static_cast<PyObject*>(answer));
    });
    EXPECT_EQ(get_checksum_for_pathname(data_, name), answer);
    EXPECT_EQ(answer->refcnt, 2);
    EXPECT_EQ(callback->refcnt, 2);
}

TEST_F(FileOps, AFailedCallbackIsLoggedClearedAndAnsweredNone) {
    fake->sys["stderr"] = fake->make(fake->other_type, "stderr");
    set_checksum_callback(data_, fake->make(fake->other_type, "callback"));
    call_with([](PyObject*, PyObject*) -> PyObject* {
        fake->raise("RuntimeError: no checksum");
        return nullptr;
    });
    log(kLogInternalFailures);
    EXPECT_EQ(get_checksum_for_pathname(data_, fake->str("/x/m.py")), gPy.Py_None);
    EXPECT_EQ(fake->written, "Failure in get_checksum_for_pathname()\n");
    EXPECT_EQ(fake->displayed, "log file:RuntimeError: no checksum;");
    EXPECT_EQ(fake->pending(), "");
}

TEST_F(FileOps, ACallbackMayReplaceItself) {
    tFake* const first = fake->make(fake->other_type, "first");
    set_checksum_callback(data_, first);
    XPy_DoDecRef(first);  // the record's is the only reference left
    call_with([&](PyObject*, PyObject*) {
        set_checksum_callback(data_, gPy.Py_None);
        EXPECT_FALSE(first->is_dead);
        return static_cast<PyObject*>(fake->str("abc"));
    });
    EXPECT_EQ(as_fake(get_checksum_for_pathname(data_, fake->str("/x")))->text, "abc");
    EXPECT_TRUE(first->is_dead);
}
