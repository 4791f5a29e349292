// fileops_test.cpp -- names and files, with a real directory, an interpreter made of structs, a
// clock that the test sets and an allocator that fails when told to.
#include "fileops.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "fake_python.h"
#include "guards.h"
#include "support/alloc_failures.h"

static constinit time_t gNow = 0;

// Stands before the C library's clock, in the whole program.
extern "C" time_t time(time_t* result) noexcept {
    if (result != nullptr) {
        *result = gNow;
    }
    return gNow;
}

namespace {

PyObject* fake_import(const char* name) {
    const auto found = fake->sys.find(std::string("module ") + name);
    if (found == fake->sys.end()) {
        fake->raise(std::string("ImportError: ") + name);
        return nullptr;
    }
    return new_ref(static_cast<PyObject*>(found->second));
}

// Knows the one format that is used here; the value is an object with the text "(name, number)".
PyObject* fake_build_value(const char* format, ...) {
    EXPECT_STREQ(format, "zi");
    va_list args;
    va_start(args, format);
    const char* const name = va_arg(args, const char*);
    const int number = va_arg(args, int);
    va_end(args);
    return fake->str("(" + std::string(name != nullptr ? name : "None") + ", " +
                     std::to_string(number) + ")");
}

std::function<PyObject*(PyObject* callable, PyObject* args)> gOnCall;

}  // namespace

class FileOps : public FakePython {
protected:
    void SetUp() override {
        FakePython::SetUp();
        gPy.PyImport_ImportModule = fake_import;
        gPy.Py_BuildValue = fake_build_value;
        os_ = fake->sys["module os"] = fake->make(fake->other_type, "os");
        gNow = 1000;
        std::string start = testing::TempDir() + "fileops-XXXXXX";
        ASSERT_NE(mkdtemp(start.data()), nullptr);
        char* const real = realpath(start.c_str(), nullptr);
        dir_ = real;
        free(real);
        ASSERT_EQ(chdir(dir_.c_str()), 0);
        data_ = create_file_ops_data(&gUnsafeGlobalDPData);
        ASSERT_NE(data_, nullptr);
    }
    void TearDown() override {
        gOnCall = nullptr;
        destroy_file_ops_data(data_);
        ASSERT_EQ(chdir("/"), 0);
        std::filesystem::remove_all(dir_);
        FakePython::TearDown();
    }

    // Lets this category through to the log file.
    void log(int mask) {
        log_to_file();
        set_dprintf_mask(static_cast<tDPrintfLogMask>(mask));
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string make_file(const std::string& name) {
        const std::string full = path(name);
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        FILE* const file = fopen(full.c_str(), "w");
        EXPECT_NE(file, nullptr);
        fclose(file);
        return full;
    }
    std::string make_link(const std::string& target, const std::string& name) {
        const std::string full = path(name);
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        EXPECT_EQ(link(target.c_str(), full.c_str()), 0);
        return full;
    }
    std::string absname(const std::string& name) {
        const char* const result = get_absname(data_, name.c_str());
        return result != nullptr ? result : "(null)";
    }
    bool exists(const std::string& name) {
        tUniqueFileno number = {77, 77};
        boolean found = 77;
        EXPECT_EQ(get_unique_file_number(data_, name.c_str(), &number, &found), 0);
        EXPECT_TRUE(found == 0 || found == 1);
        if (!found) {
            EXPECT_EQ(number.dev, 0u);
            EXPECT_EQ(number.ino, 0u);
        }
        return found != 0;
    }
    int same(const std::string& a, const std::string& b) {
        return samefile(data_, a.c_str(), b.c_str());
    }
    std::string lookup(const std::string& name, const char* checksum = nullptr) {
        const char* const result = lookup_canonical_pathname(data_, name.c_str(), checksum);
        return result != nullptr ? result : "(null)";
    }
    // The canonical name, with a + in front when the name was new.
    std::string add(const std::string& name, const char* checksum = nullptr) {
        boolean is_new = 77;
        const char* const result =
            register_canonical_pathname(data_, name.c_str(), checksum, &is_new);
        EXPECT_TRUE(is_new == 0 || is_new == 1);
        return std::string(is_new ? "+" : "") + (result != nullptr ? result : "(null)");
    }
    void call_with(std::function<PyObject*(PyObject*, PyObject*)> on_call) {
        gOnCall = std::move(on_call);
        gPy.PyObject_CallObject = [](PyObject* callable, PyObject* args) {
            return gOnCall(callable, args);
        };
    }

    tFileOpsData* data_ = nullptr;
    tFake* os_ = nullptr;
    std::string dir_;
};

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
