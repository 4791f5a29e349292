/* A program that embeds an interpreter.
 *
 *   host LIBPYTHON PROGRAM ROUNDS [HOW:]SCRIPT...
 *
 * Each round starts the interpreter, runs the scripts one after another, and ends the interpreter.
 * LIBPYTHON is "linked" for the library that the host is linked with, else it is loaded from there.
 * PROGRAM tells the interpreter where its library is.  HOW is where a script runs instead of in the
 * main module of the main interpreter:
 *
 *   sub     in a subinterpreter of its own
 *   own     in one that has an interpreter lock of its own, too (3.12 and later)
 *   beside  the same in another thread, while the rest of the round runs
 *   fork    in a forked child
 *
 * Status: 0, 1 for a script that failed, 2 for anything else.
 */
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wchar.h>

/* As the interpreter's own header files have them. */
typedef struct {
    int use_main_obmalloc, allow_fork, allow_exec, allow_threads, allow_daemon_threads;
    int check_multi_interp_extensions, gil;
} tConfig;

typedef struct {
    int type;
    const char *func, *message;
    int exit_code;
} tStatus;

enum { kOwnLock = 2 };

static void* gLibrary;

static void* find(const char* name) {
    void* const found = dlsym(gLibrary, name);
    if (found == NULL) {
        fprintf(stderr, "host: no %s\n", name);
        exit(2);
    }
    return found;
}

static void call(const char* name) {
    ((void (*)(void))find(name))();
}

static void* ask(const char* name) {
    return ((void* (*)(void))find(name))();
}

static void* pass(const char* name, void* value) {
    return ((void* (*)(void*))find(name))(value);
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

static void* new_interpreter_with_own_lock(void) {
    const tConfig config = {0, 0, 0, 1, 0, 1, kOwnLock};
    void* state = NULL;
    ((tStatus(*)(void**, const tConfig*))find("Py_NewInterpreterFromConfig"))(&state, &config);
    return state;
}

static int run_in_subinterpreter(const char* path, int with_own_lock) {
    void* const main_state = ask("PyThreadState_Get");
    void* const state = with_own_lock ? new_interpreter_with_own_lock() : ask("Py_NewInterpreter");
    if (state == NULL) {
        return 2;
    }
    const int status = run_file(path);
    pass("Py_EndInterpreter", state);
    if (with_own_lock) { /* the other one's is given up with it */
        pass("PyEval_RestoreThread", main_state);
    } else {
        pass("PyThreadState_Swap", main_state);
    }
    return status;
}

static void* run_beside(void* path) {
    void* const state = pass("PyThreadState_New", ask("PyInterpreterState_Main"));
    pass("PyEval_RestoreThread", state);
    const long status = run_in_subinterpreter(path, 1);
    pass("PyThreadState_Clear", state);
    call("PyThreadState_DeleteCurrent");
    return (void*)status;
}

static int run_in_child(const char* path) {
    const int is_told_before = dlsym(gLibrary, "PyOS_BeforeFork") != NULL; /* 3.7 and later */
    int status = 0;
    if (is_told_before) {
        call("PyOS_BeforeFork");
    }
    const pid_t child = fork();
    if (child == 0) {
        call(is_told_before ? "PyOS_AfterFork_Child" : "PyOS_AfterFork");
        status = run_file(path);
        call("Py_Finalize");
        fflush(stdout);
        _exit(status);
    }
    if (is_told_before) {
        call("PyOS_AfterFork_Parent");
    }
    return waitpid(child, &status, 0) != child || !WIFEXITED(status) ? 2 : WEXITSTATUS(status);
}

static int has_prefix(const char** script, const char* how) {
    const size_t length = strlen(how);
    if (strncmp(*script, how, length) != 0) {
        return 0;
    }
    *script += length;
    return 1;
}

static int run_round(char** scripts, int count) {
    pthread_t thread;
    int is_thread_there = 0;
    int status = 0;
    for (int i = 0; i < count; i++) {
        const char* path = scripts[i];
        if (has_prefix(&path, "sub:")) {
            status |= run_in_subinterpreter(path, 0);
        } else if (has_prefix(&path, "own:")) {
            status |= run_in_subinterpreter(path, 1);
        } else if (has_prefix(&path, "fork:")) {
            status |= run_in_child(path);
        } else if (has_prefix(&path, "beside:")) {
            is_thread_there = pthread_create(&thread, NULL, run_beside, (void*)path) == 0;
            status |= is_thread_there ? 0 : 2;
        } else {
            status |= run_file(path);
        }
    }
    if (is_thread_there) {
        void* of_thread = NULL;
        void* const state = ask("PyEval_SaveThread");
        pthread_join(thread, &of_thread);
        pass("PyEval_RestoreThread", state);
        status |= (int)(long)of_thread;
    }
    return status;
}

int main(int argc, char** argv) {
    if (argc < 5) {
        return 2;
    }
    const char* const library = strcmp(argv[1], "linked") == 0 ? NULL : argv[1];
    gLibrary = dlopen(library, RTLD_NOW | RTLD_GLOBAL);
    if (gLibrary == NULL) {
        fprintf(stderr, "host: %s\n", dlerror());
        return 2;
    }
    set_program_name(argv[2]);
    int status = 0;
    for (int round = 0; round < atoi(argv[3]); round++) {
        ((void (*)(int))find("Py_InitializeEx"))(0);
        status |= run_round(argv + 4, argc - 4);
        call("Py_Finalize");
        printf("round %d ended\n", round);
        fflush(stdout);
    }
    return status;
}
