// stand_in.h -- loads the stand-in interpreter, in any version, with any of its names taken out.
// A name is taken out of a copy of the file (its entry in the dynamic symbol table becomes an
// undefined symbol), so the library looks it up and misses it just as with a real interpreter.
#pragma once

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "xpy_c_api.h"

// A module definition outlives its module, so it is never freed: no leak.
extern "C" const char* __lsan_default_suppressions();
extern "C" inline __attribute__((used)) const char* __lsan_default_suppressions() {
    return "leak:XPy_CreatePy3ModuleDef";
}

using tNames = std::set<std::string>;

// Names that only Python 2 has, and those that make a build a special one.
inline const tNames kPython2Names = {"Py_InitModule4",
                                     "Py_InitModule4_64",
                                     "Py_InitModule4TraceRefs",
                                     "Py_InitModule4TraceRefs_64",
                                     "PyInt_AsSsize_t",
                                     "PyInt_AsLong",
                                     "PyInt_FromLong",
                                     "PyInt_FromSsize_t"};
inline const tNames kPython3Names = {"PyModule_Create2", "PyModule_Create2TraceRefs"};
inline const tNames kSpecialBuildNames = {"_Py_GetThreadLocal_Addr",
                                          "_Py_NegativeRefcount",
                                          "_Py_INCREF_IncRefTotal",
                                          "_Py_DECREF_DecRefTotal",
                                          "_Py_RefTotal"};

inline tNames operator+(const tNames& a, const tNames& b) {
    tNames all = a;
    all.insert(b.begin(), b.end());
    return all;
}

inline tNames operator-(const tNames& a, const tNames& b) {
    tNames rest = a;
    for (const std::string& name : b) {
        rest.erase(name);
    }
    return rest;
}

// What a release build of the family does not have.
inline tNames absent_in_python_3() {
    return kPython2Names + kSpecialBuildNames;
}

inline tNames absent_in_python_2() {
    return kPython3Names + kSpecialBuildNames;
}

inline std::vector<char> read_bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(file), {});
}

// Turns the dynamic symbols of these names into undefined ones. Returns how many were found.
inline size_t take_out(std::vector<char>* image, const tNames& names) {
    char* const base = image->data();
    const ElfW(Ehdr)* const header = reinterpret_cast<const ElfW(Ehdr)*>(base);
    const ElfW(Shdr)* const sections = reinterpret_cast<const ElfW(Shdr)*>(base + header->e_shoff);
    size_t found = 0;
    for (size_t i = 0; i < header->e_shnum; i++) {
        if (sections[i].sh_type != SHT_DYNSYM) {
            continue;
        }
        const char* const strings = base + sections[sections[i].sh_link].sh_offset;
        ElfW(Sym)* const symbols = reinterpret_cast<ElfW(Sym)*>(base + sections[i].sh_offset);
        for (size_t s = 0; s < sections[i].sh_size / sizeof(ElfW(Sym)); s++) {
            if (names.count(strings + symbols[s].st_name) != 0) {
                symbols[s].st_value = 0;
                symbols[s].st_shndx = SHN_UNDEF;
                found++;
            }
        }
    }
    return found;
}

// A loaded stand-in. The library's record begins anew with it and is cleared with it.
class tStandIn {
public:
    explicit tStandIn(const tNames& absent = absent_in_python_3()) {
        static const std::vector<char> original = read_bytes(TDBG_STAND_IN);
        std::vector<char> image = original;
        EXPECT_EQ(take_out(&image, absent), absent.size()) << "a name is not in the stand-in";
        write_copy(image);
        handle_ = dlopen(path_, RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(handle_, nullptr) << dlerror();
        function<void (*)()>("stand_in_reset")();
        global_XPy_C_API_Data = {};
        gFailOnImport = 0;
    }
    tStandIn(const tStandIn&) = delete;
    tStandIn& operator=(const tStandIn&) = delete;
    ~tStandIn() {
        global_XPy_C_API_Data = {};
        gTellReferenceTotal = nullptr;
        gFailOnImport = 0;
        dlclose(handle_);
        unlink(path_);
    }

    void* dll_ptr() { return path_; }
    int start() { return XPy_InitializeWithDllPtr(path_); }

    template <class Fn>
    Fn function(const char* name) {
        return reinterpret_cast<Fn>(dlsym(handle_, name));
    }
    void* symbol(const char* name) { return dlsym(handle_, name); }

    void push(const char* name, long answer) {
        function<void (*)(const char*, long)>("stand_in_push")(name, answer);
    }
    void push(const char* name, const void* answer) { push(name, reinterpret_cast<long>(answer)); }
    long calls(const char* name) { return function<long (*)(const char*)>("stand_in_calls")(name); }
    std::string last_error() { return function<const char* (*)()>("stand_in_last_error")(); }

    // What the interpreter says about itself.
    void set_version(long major, long minor, long micro = 0) {
        push("PySys_GetObject", &object_);
        push("PyObject_GetItem", &object_);
        push("PyLong_FromSsize_t", &object_);
        for (const char* name : {"PyLong_AsSsize_t", "PyInt_AsSsize_t"}) {
            push(name, major);
            push(name, minor);
            push(name, micro);
            push(name, 1013L);
        }
    }

private:
    void write_copy(const std::vector<char>& image) {
        const int fd = mkstemps(path_, 3);
        EXPECT_NE(fd, -1);
        EXPECT_EQ(write(fd, image.data(), image.size()), static_cast<ssize_t>(image.size()));
        close(fd);
    }

    char path_[64] = "/tmp/tdbg-stand-in-XXXXXX.so";
    void* handle_ = nullptr;
    long object_[16] = {};
};

// Starts the stand-in as this version; the standard error of the start is returned.
inline std::string start_and_read_stderr(tStandIn* stand_in, int expected) {
    testing::internal::CaptureStderr();
    const int result = stand_in->start();
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, expected) << text;
    return text;
}
