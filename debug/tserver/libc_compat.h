// libc_compat.h -- the C library as of 2.17, whatever it is built with.
// An old Python lives on an old system, so no symbol of this library may ask for a newer version.
// Since 2.33 and 2.34 the default names of stat, dlopen and friends are new ones; these are the
// old, equally good, entry points of the same functions.
#pragma once

#include <dlfcn.h>
#include <errno.h>
#include <sys/stat.h>

#if defined(__x86_64__)
#define LIBC_SYMBOL(name, version64, version32) __asm__(".symver " name "@" version64)
#elif defined(__i386__)
#define LIBC_SYMBOL(name, version64, version32) __asm__(".symver " name "@" version32)
#else
#error "x86 Linux only"
#endif

extern "C" {
void* tdbg_dlopen(const char* file_name, int mode);
void* tdbg_dlsym(void* handle, const char* name);
int tdbg_dlclose(void* handle);
int tdbg_xstat64(int version, const char* path, struct stat64* result);

// What pthread_atfork() is made of, which is linked into each library that calls it. musl has none
// of it but has pthread_atfork() itself, and loads this library all the same.
extern void* __dso_handle __attribute__((visibility("hidden")));
int __register_atfork(void (*before)(), void (*in_parent)(), void (*in_child)(), void* dso_handle)
    __attribute__((weak));
}

LIBC_SYMBOL("tdbg_dlopen, dlopen", "GLIBC_2.2.5", "GLIBC_2.1");
LIBC_SYMBOL("tdbg_dlsym, dlsym", "GLIBC_2.2.5", "GLIBC_2.0");
LIBC_SYMBOL("tdbg_dlclose, dlclose", "GLIBC_2.2.5", "GLIBC_2.0");
LIBC_SYMBOL("tdbg_xstat64, __xstat64", "GLIBC_2.2.5", "GLIBC_2.2");

// Layout version that __xstat64 is told: the kernel's own on 64-bit, the C library's on 32-bit.
inline constexpr int kStatVersion = sizeof(void*) == 8 ? 1 : 3;

// As stat(), with 64-bit device, inode and size in both word sizes. 0 or -1 with errno.
inline int libc_stat(const char* path, struct stat64* result) {
#if defined(__SANITIZE_ADDRESS__)
    return stat64(path, result);  // the sanitizer has an __xstat64 of its own, without a version
#else
    return tdbg_xstat64(kStatVersion, path, result);
#endif
}

// As pthread_atfork(), of which only the last part is wanted. 0 or an error number.
inline int libc_atfork_in_child(void (*in_child)()) {
    if (__register_atfork != nullptr) {
        return __register_atfork(nullptr, nullptr, in_child, __dso_handle);
    }
    using tAtFork = int (*)(void (*)(), void (*)(), void (*)());
    const auto at_fork = reinterpret_cast<tAtFork>(tdbg_dlsym(RTLD_DEFAULT, "pthread_atfork"));
    return at_fork != nullptr ? at_fork(nullptr, nullptr, in_child) : ENOSYS;
}
