// fileops_test.cpp -- absolute names and identity of files, with a real directory, a clock that the
// test sets and an allocator that fails when told to.
#include "fileops.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "fileops_fixture.h"
#include "support/alloc_failures.h"

// The record

TEST_F(FileOps, ANewRecordHasEmptyTablesAndNoCallback) {
    for (CUt_HashTable* table : {&data_->absname_cache,
                                 &data_->lower_absname_cache,
                                 &data_->not_found_table,
                                 &data_->stat_cache,
                                 &data_->canonical_by_name,
                                 &data_->canonical_by_checksum}) {
        EXPECT_EQ(table->keyType, 0u);
        EXPECT_EQ(table->numEntries, 0u);
    }
    EXPECT_EQ(data_->unique_fileno_cache.keyType, 16u);
    EXPECT_EQ(data_->canonical_by_unique_fileno.keyType, 16u);
    EXPECT_EQ(data_->os_mod, os_);
    EXPECT_EQ(data_->checksum_callback, gPy.Py_None);
    EXPECT_EQ(data_->dp, &gUnsafeGlobalDPData);
}

TEST_F(FileOps, ARecordOwnsItsReferences) {
    tFake* const callback = fake->make(fake->other_type, "callback");
    const Py_ssize_t os_count = os_->refcnt;
    const Py_ssize_t none_count = fake->none->refcnt;
    tFileOpsData* const data = create_file_ops_data(nullptr);
    EXPECT_EQ(os_->refcnt, os_count + 1);
    EXPECT_EQ(fake->none->refcnt, none_count + 1);
    EXPECT_EQ(set_checksum_callback(data, callback), 0);
    EXPECT_EQ(callback->refcnt, 2);
    EXPECT_EQ(fake->none->refcnt, none_count);
    destroy_file_ops_data(data);
    EXPECT_EQ(os_->refcnt, os_count);
    EXPECT_EQ(callback->refcnt, 1);
}

TEST_F(FileOps, AMissingOsModuleIsLoggedAndTheErrorCleared) {
    fake->sys.erase("module os");
    fake->sys["stderr"] = fake->make(fake->other_type, "stderr");
    log(kLogInternalFailures);
    tFileOpsData* const data = create_file_ops_data(&gUnsafeGlobalDPData);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->os_mod, nullptr);
    EXPECT_EQ(fake->written, "Failure to find os module\n");
    EXPECT_EQ(fake->displayed, "log file:ImportError: os;");
    EXPECT_EQ(fake->pending(), "");
    destroy_file_ops_data(data);
}

TEST_F(FileOps, CreationWithoutMemoryIsNull) {
    SKIP_WITHOUT_ALLOC_TAP();
    tAllocTapScope tap(1);
    tFileOpsData* const data = create_file_ops_data(nullptr);
    tap.stop();
    EXPECT_EQ(data, nullptr);
    destroy_file_ops_data(nullptr);
}

TEST_F(FileOps, DestroyFreesAllThatWasCached) {
    SKIP_WITHOUT_ALLOC_TAP();
    make_file("m.py");
    make_link(path("m.py"), "n.py");
    tAllocTapScope tap;
    tFileOpsData* const data = create_file_ops_data(nullptr);
    for (const char* name : {"m.py", "n.py", "missing.py", "/x/y.pyc"}) {
        register_canonical_pathname(data, name, name, nullptr);
        lookup_canonical_pathname(data, name, "other");
        samefile(data, name, "m.py");
    }
    destroy_file_ops_data(data);
    const long live = tap.live();
    tap.stop();
    EXPECT_EQ(live, 0);
}

// Pruning

TEST_F(FileOps, PrunesPycAndPyoInAnyCase) {
    const struct {
        const char* before;
        const char* after;
    } cases[] = {
        {"foo.PYC", "foo.PY"},
        {"a.pyc", "a.py"},
        {"a.pyo", "a.py"},
        {"a.PyO", "a.Py"},
        {".pyc", ".py"},
        {".pyo", ".py"},
        {"pyc", "pyc"},
        {"", ""},
        {"c", "c"},
        {"a.py", "a.py"},
        {"a.pyd", "a.pyd"},
        {"apyc", "apyc"},
        {"a.pyc.py", "a.pyc.py"},
        {"/x/y.pyc", "/x/y.py"},
        {"a.pycc", "a.pycc"},
        {"a.pyC", "a.py"},
    };
    for (const auto& test : cases) {
        char name[32];
        snprintf(name, sizeof(name), "%s", test.before);
        prune_py_c_or_o(name);
        EXPECT_STREQ(name, test.after) << test.before;
    }
}

// Absolute names

TEST_F(FileOps, ARelativeNameIsResolvedOnceAndThenCached) {
    const char* const first = get_absname(data_, "m.py");
    EXPECT_EQ(first, path("m.py"));
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(get_absname(data_, "m.py"), first);
    EXPECT_EQ(get_absname_forward_slash_names(data_, "m.py"), first);
    EXPECT_EQ(absname("other.py"), "/other.py");
}

TEST_F(FileOps, AbsoluteNamesAreNotNormalised) {
    for (const char* name : {"/a/../b//./c", "/", "//", "/a/", "/.."}) {
        EXPECT_EQ(absname(name), name);
    }
    EXPECT_EQ(data_->absname_cache.numEntries, 5u);
}

TEST_F(FileOps, ResolvesDotsAndDoubledSlashes) {
    make_file("a/b/keep");
    ASSERT_EQ(chdir(path("a/b").c_str()), 0);
    const struct {
        const char* name;
        const char* result;  // under the test's directory
    } cases[] = {
        {"x.py", "/a/b/x.py"},
        {"./x.py", "/a/b/x.py"},
        {"../x.py", "/a/x.py"},
        {"../../x.py", "/x.py"},
        {"c//x.py", "/a/b/c/x.py"},
        {"c/", "/a/b/c"},
        {"c/../x.py", "/a/b/x.py"},
        {"c/./d/../../x", "/a/b/x"},
        {".", "/a/b"},
        {"..", "/a"},
        {"", "/a/b"},
        {"...", "/a/b/..."},
        {".x", "/a/b/.x"},
        {"..x", "/a/b/..x"},
        {"c//..//d///", "/a/b/d"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(absname(test.name), dir_ + test.result) << test.name;
    }
}

TEST_F(FileOps, ANameThatClimbsAboveTheRootIsNoLongerAbsolute) {
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(absname("x"), "/x");
    EXPECT_EQ(absname("../x"), "x");
    EXPECT_EQ(absname("a/../../x"), "x");
    EXPECT_EQ(absname("../../x/y"), "x/y");
    EXPECT_EQ(absname(".."), "");
    EXPECT_EQ(absname("."), "");
}

TEST_F(FileOps, ResolvesNamesOfManyParts) {
    std::string name;
    std::string expected = dir_;
    for (int i = 0; i < 35; i++) {
        name += (i != 0 ? "/p" : "p") + std::to_string(i);
        expected += "/p" + std::to_string(i);
    }
    EXPECT_EQ(absname(name), expected);
}

TEST_F(FileOps, LogsHowANameIsResolved) {
    ASSERT_EQ(chdir("/usr"), 0);
    log(kLogFilenames);
    absname("./a/../m.py");
    EXPECT_EQ(fake->written,
              "In __posix_absname: resolving ./a/../m.py in /usr\n"
              "parts[0] = \n"
              "parts[1] = usr\n"
              "parts[2] = .\n"
              "parts[2] = a\n"
              "parts[3] = ..\n"
              "parts[2] = m.py\n"
              "resolved ./a/../m.py to /usr/m.py\n");
    fake->written.clear();
    absname("./a/../m.py");
    EXPECT_EQ(fake->written, "");
    absname("/x");
    EXPECT_EQ(fake->written, "resolved /x to /x\n");
}

TEST_F(FileOps, WithoutAWorkingDirectoryARelativeNameHasNoAbsoluteOne) {
    ASSERT_EQ(mkdir(path("gone").c_str(), 0700), 0);
    ASSERT_EQ(chdir(path("gone").c_str()), 0);
    ASSERT_EQ(rmdir(path("gone").c_str()), 0);
    log(kLogFilenames | kLogInternalFailures);
    EXPECT_EQ(absname("m.py"), "(null)");
    const std::string line = "getcwd() returned NULL; errno = " + std::to_string(ENOENT) + "\n";
    EXPECT_EQ(fake->written, line);
    EXPECT_EQ(absname("/m.py"), "/m.py");
    fake->written.clear();
    EXPECT_EQ(lookup("m.py"), "(null)");
    EXPECT_EQ(fake->written, line);
    fake->written.clear();
    EXPECT_EQ(add("m.py"), "(null)");
    EXPECT_EQ(fake->written, line + "Failure: register_canonical_pathname()\n");
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    EXPECT_EQ(absname("m.py"), path("m.py"));
}

TEST_F(FileOps, AnAbsoluteNameOfAnotherThreadStays) {
    // The log's file runs Python code, in the middle of resolving, and asks for the same name.
    log(kLogFilenames);
    const char* others = nullptr;
    fake->on_write = [&] {
        if (others == nullptr) {
            others = get_absname(data_, "m.py");
        }
    };
    const char* const ours = get_absname(data_, "m.py");
    fake->on_write = nullptr;
    EXPECT_NE(others, nullptr);
    EXPECT_EQ(ours, others);
    EXPECT_EQ(others, path("m.py"));
}

TEST_F(FileOps, AbsoluteNamesSurviveEachFailedAllocation) {
    SKIP_WITHOUT_ALLOC_TAP();
    bool has_failed = true;
    for (int n = 1; has_failed; n++) {
        ASSERT_LT(n, 50);
        tAllocTapScope tap(n);
        tFileOpsData* const data = create_file_ops_data(nullptr);
        bool is_null = true;
        bool right = false;
        if (data != nullptr) {
            const char* const name = get_absname(data, "a/b/c/d/e/f/g/h/i/../j");
            is_null = name == nullptr;
            right = !is_null && strstr(name, "/a/b/c/d/e/f/g/h/j") != nullptr;
        }
        destroy_file_ops_data(data);
        has_failed = tap.has_failed();
        const long live = tap.live();
        tap.stop();
        EXPECT_TRUE(is_null ? has_failed : right) << n;
        EXPECT_EQ(live, 0) << n;
    }
}

// Identity

TEST_F(FileOps, TheUniqueNumberIsDeviceAndInode) {
    const std::string name = make_file("m.py");
    struct stat expected;
    ASSERT_EQ(stat(name.c_str(), &expected), 0);
    tUniqueFileno number = {};
    boolean found = 0;
    EXPECT_EQ(get_unique_file_number(data_, name.c_str(), &number, &found), 0);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(number.dev, expected.st_dev);
    EXPECT_EQ(number.ino, expected.st_ino);
    EXPECT_NE(number.ino, 0u);
}

TEST_F(FileOps, AMissingFileHasTheNumberZero) {
    EXPECT_FALSE(exists(path("missing.py")));
    EXPECT_FALSE(exists(path("missing/m.py")));
    EXPECT_FALSE(exists(""));
    EXPECT_FALSE(exists(std::string(10000, 'x')));
}

TEST_F(FileOps, AStatIsKeptForTheLifeOfTheRecord) {
    const std::string name = make_file("m.py");
    EXPECT_TRUE(exists(name));
    ASSERT_EQ(unlink(name.c_str()), 0);
    gNow += 1000000;
    EXPECT_TRUE(exists(name));
}

TEST_F(FileOps, AFailedStatIsBelievedForLessThanThreeSeconds) {
    const std::string name = path("late.py");
    EXPECT_FALSE(exists(name));
    make_file("late.py");
    gNow += 2;
    EXPECT_FALSE(exists(name));
    gNow += 1;
    EXPECT_TRUE(exists(name));
    EXPECT_EQ(data_->not_found_table.numEntries, 0u);
}

TEST_F(FileOps, AVanishedNameIsMissingForLessThanThreeSecondsThenAskedAgain) {
    const std::string name = path("m.py");
    EXPECT_FALSE(exists(name));
    gNow += 3;
    EXPECT_FALSE(exists(name));  // asked again, and again not there
    make_file("m.py");
    gNow += 2;
    EXPECT_FALSE(exists(name));
    gNow += 1;
    EXPECT_TRUE(exists(name));
}

TEST_F(FileOps, AClockThatIsSetBackDoesNotHideAFile) {
    const std::string name = path("m.py");
    EXPECT_FALSE(exists(name));
    make_file("m.py");
    gNow -= 2;
    EXPECT_FALSE(exists(name));
    gNow -= 1;
    EXPECT_TRUE(exists(name));
}

TEST_F(FileOps, AFailedStatAtTimeZeroIsRemembered) {
    gNow = 0;
    EXPECT_FALSE(exists(path("m.py")));
    make_file("m.py");
    EXPECT_FALSE(exists(path("m.py")));
}

TEST_F(FileOps, ANullStatInTheCacheMeansMissing) {
    const std::string name = make_file("m.py");
    int is_new = 0;
    ASSERT_NE(create_hash_entry(&data_->stat_cache, name.c_str(), &is_new), nullptr);
    EXPECT_FALSE(exists(name));
}

TEST_F(FileOps, IdentitySurvivesEachFailedAllocation) {
    SKIP_WITHOUT_ALLOC_TAP();
    const std::string name = make_file("m.py");
    const std::string missing = path("missing.py");
    for (int n = 1; n <= 2; n++) {  // the stat, then its entry
        tAllocTapScope tap(n);
        const bool found = exists(name);
        const long live = tap.live();
        tap.stop();
        EXPECT_FALSE(found);
        EXPECT_EQ(live, 0);
    }
    tAllocTapScope tap(1);  // the entry of a missing name
    const bool found = exists(missing);
    tap.stop();
    EXPECT_FALSE(found);
    EXPECT_EQ(data_->not_found_table.numEntries, 0u);
    EXPECT_TRUE(exists(name));
}

// Same file

TEST_F(FileOps, APrefixIsTheSameFileWithoutTouchingTheDisk) {
    EXPECT_EQ(same("/x/m.py", "/x/m.pyc"), 1);
    EXPECT_EQ(same("/x/m.py", "/x/m.py"), 1);
    EXPECT_EQ(same("/a/x", "/a/x.py"), 1);
    EXPECT_EQ(same("", "/a/x.py"), 1);
    EXPECT_EQ(data_->stat_cache.numEntries, 0u);
    EXPECT_EQ(data_->not_found_table.numEntries, 0u);
    EXPECT_EQ(same("/x/m.pyc", "/x/m.py"), 0);
    EXPECT_GT(data_->not_found_table.numEntries, 0u);
}

TEST_F(FileOps, HardLinksAreTheSameFile) {
    const std::string a = make_file("a/m.py");
    const std::string b = make_link(a, "b/other.py");
    const std::string c = make_file("c/m.py");
    EXPECT_EQ(same(a, b), 1);
    EXPECT_EQ(same(b, a), 1);
    EXPECT_EQ(same(a, c), 0);
    EXPECT_EQ(same(a, path("missing.py")), 0);
    EXPECT_EQ(same(path("missing.py"), a), 0);
    EXPECT_EQ(same(path("missing1.py"), path("missing2.py")), 0);
}

TEST_F(FileOps, SymbolicLinksAreTheSameFile) {
    const std::string a = make_file("a.py");
    ASSERT_EQ(symlink(a.c_str(), path("b.py").c_str()), 0);
    EXPECT_EQ(same(a, path("b.py")), 1);
}

TEST_F(FileOps, CompiledFilesDecideWhenBothExist) {
    const std::string a = make_file("a/m.py");
    const std::string b = make_link(a, "b/m.py");
    const std::string ac = make_file("a/m.pyc");
    EXPECT_EQ(same(a, b), 1);  // only one compiled file: the sources decide
    make_file("b/m.pyc");
    gNow += 3;
    EXPECT_EQ(same(a, b), 0);
    const std::string c = make_file("c/m.py");
    make_link(ac, "c/m.pyc");
    EXPECT_EQ(same(a, c), 1);
}

TEST_F(FileOps, SameFileSurvivesEachFailedAllocation) {
    SKIP_WITHOUT_ALLOC_TAP();
    const std::string a = make_file("a.py");
    const std::string b = make_link(a, "b.py");
    EXPECT_EQ(same(a, b), 1);  // both stats are cached now
    for (int n = 1; n <= 2; n++) {
        tAllocTapScope tap(n);
        const int result = same(a, b);
        const long live = tap.live();
        const bool has_failed = tap.has_failed();
        tap.stop();
        EXPECT_TRUE(has_failed);
        EXPECT_EQ(result, 1);
        EXPECT_EQ(live, 0);
    }
}
