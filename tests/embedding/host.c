/* A program that embeds an interpreter found at run time.
 *
 *   host LIBPYTHON PROGRAM ROUNDS SCRIPT [SCRIPT...]
 *
 * Each round starts the interpreter, runs the scripts one after another in its main module, and ends
 * the interpreter.  With ROUNDS "sub" there is one round, and each script runs in a subinterpreter of
 * its own.  PROGRAM tells the interpreter where its library is.  Status: 0, 1 for a script that
 * failed, 2 for anything else.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

static void* gLibrary;

static void* find(const char* name) {
    void* const found = dlsym(gLibrary, name);
    if (found == NULL) {
        fprintf(stderr, "host: no %s\n", name);
        exit(2);
    }
    return found;
}

static void set_program_name(const char* name) {
    static wchar_t wide[4096];
    if (dlsym(gLibrary, "PyUnicode_FromString") == NULL) { /* version 2 takes bytes */
        ((void (*)(const char*))find("Py_SetProgramName"))(name);
        return;
    }
    mbstowcs(wide, name, sizeof(wide) / sizeof(wide[0]) - 1);
    ((void (*)(const wchar_t*))find("Py_SetProgramName"))(wide);
}

static int run_file(const char* path) {
    FILE* const script = fopen(path, "r");
    if (script == NULL) {
        return 2;
    }
    return ((int (*)(FILE*, const char*, int))find("PyRun_SimpleFileEx"))(script, path, 1) != 0;
}

static int run_in_subinterpreter(const char* path) {
    void* const main_state = ((void* (*)(void))find("PyThreadState_Get"))();
    void* const state = ((void* (*)(void))find("Py_NewInterpreter"))();
    if (state == NULL) {
        return 2;
    }
    const int status = run_file(path);
    ((void (*)(void*))find("Py_EndInterpreter"))(state);
    ((void* (*)(void*))find("PyThreadState_Swap"))(main_state);
    return status;
}

int main(int argc, char** argv) {
    if (argc < 5) {
        return 2;
    }
    gLibrary = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
    if (gLibrary == NULL) {
        fprintf(stderr, "host: %s\n", dlerror());
        return 2;
    }
    set_program_name(argv[2]);
    const int in_subinterpreters = strcmp(argv[3], "sub") == 0;
    const int rounds = in_subinterpreters ? 1 : atoi(argv[3]);
    int status = 0;
    for (int round = 0; round < rounds; round++) {
        ((void (*)(int))find("Py_InitializeEx"))(0);
        for (int i = 4; i < argc; i++) {
            status |= in_subinterpreters ? run_in_subinterpreter(argv[i]) : run_file(argv[i]);
        }
        ((void (*)(void))find("Py_Finalize"))();
        printf("round %d ended\n", round);
        fflush(stdout);
    }
    return status;
}
