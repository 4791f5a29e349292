// fileops_fixture.h -- names and files for the tests, with a real directory, an interpreter made of
// structs and a clock that the test sets. For one source file of a program: it defines time().
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "fake_python.h"
#include "fileops.h"

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
