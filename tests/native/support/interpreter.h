// interpreter.h -- real interpreters for native tests: each is loaded from its shared library into
// a forked child, so one program can try many and a crash is one failed test.
//   run_in_each_interpreter([] { EXPECT_...; });   the body runs in the child, library bound
// Which ones: TDBG_TEST_LIBPYTHON (a file name), else what is found in pyenv's folder, in the
// user's cache and on the system. Those of the other word size cannot be loaded and are left out.
#pragma once

#include <dlfcn.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "xpy_c_api.h"

inline void add_files(const std::string& pattern, std::vector<std::string>* files) {
    glob_t found = {};
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0) {
        files->insert(files->end(), found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
}

// File names of the interpreters' shared libraries for this word size; may be empty.
inline std::vector<std::string> find_libpythons() {
    std::vector<std::string> files;
    const char* const named = getenv("TDBG_TEST_LIBPYTHON");
    if (named != nullptr) {
        files.push_back(named);
        return files;
    }
    const char* const home = getenv("HOME");
    const std::string cache =
        std::string(home != nullptr ? home : "") + "/.cache/tdbg/interpreters";
    if (sizeof(void*) == 8) {
        add_files(std::string(home != nullptr ? home : "") +
                      "/.pyenv/versions/*/lib/libpython[23].*.so.1.0",
                  &files);
        add_files(cache + "/roots/*/usr/lib/x86_64-linux-gnu/libpython[23].*.so.1.0", &files);
        add_files("/usr/lib/x86_64-linux-gnu/libpython3.*.so.1.0", &files);
    } else {
        add_files(cache + "/roots/*/usr/lib/i386-linux-gnu/libpython[23].*.so.1.0", &files);
    }
    return files;
}

// The folder that holds the interpreter's lib/ (".../x/lib/libpython..." or, on Debian,
// ".../usr/lib/<triplet>/libpython...") is its home.
inline std::string home_of(const std::string& library) {
    return library.substr(0, library.rfind("/lib/"));
}

// Loads the library. In the cache's folders it stands among libraries that this system may lack for
// the word size; the one that it is linked with is taken from there.
inline void* load_libpython(const std::string& library) {
    for (const char* const folder : {"/usr/lib/", "/lib/"}) {
        const size_t usr = library.rfind("/usr/lib/");
        if (usr != std::string::npos && usr != 0) {
            const std::string triplet = library.substr(usr + strlen("/usr/lib/"));
            const std::string beside =
                library.substr(0, usr) + folder + triplet.substr(0, triplet.find('/'));
            dlopen((beside + "/libz.so.1").c_str(), RTLD_NOW | RTLD_GLOBAL);
        }
    }
    return dlopen(library.c_str(), RTLD_NOW | RTLD_GLOBAL);
}

// Starts the interpreter in this process and binds the library to it.
inline bool start_interpreter(const std::string& library) {
    setenv("PYTHONHOME", home_of(library).c_str(), 1);
    setenv("PYTHONNOUSERSITE", "1", 1);
    void* const handle = load_libpython(library);
    if (handle == nullptr) {
        return false;
    }
    reinterpret_cast<void (*)(int)>(dlsym(handle, "Py_InitializeEx"))(0);
    return XPy_InitializeWithDllPtr(const_cast<char*>(library.c_str())) == 0;
}

// Can it be loaded here at all (an old library may need others that this system lacks)?
inline bool can_load(const std::string& library) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(load_libpython(library) != nullptr ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

template <class Body>
inline void run_in_interpreter(const std::string& library, Body body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const bool started = start_interpreter(library);
        EXPECT_TRUE(started);
        if (started) {
            body();
        }
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << library;
}

// Skips, with the reason, when there is no interpreter for this word size.
template <class Body>
inline void run_in_each_interpreter(Body body) {
    int tried = 0;
    for (const std::string& library : find_libpythons()) {
        if (can_load(library)) {
            run_in_interpreter(library, body);
            tried++;
        }
    }
    if (tried == 0) {
        GTEST_SKIP() << "no shared library of an interpreter with " << 8 * sizeof(void*)
                     << "-bit words found (TDBG_TEST_LIBPYTHON names one)";
    }
}
