// alloc_failures.h -- the C library's allocator with a tap: counts calls, notes sizes and fails the
// n-th one. Include it in one source file of a test program; it defines malloc and friends for the
// whole program. A sanitizer brings its own allocator, so there nothing is counted or failed:
// tests start with SKIP_WITHOUT_ALLOC_TAP().
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kHasAllocTap = false;
#else
inline constexpr bool kHasAllocTap = true;
#endif

#define SKIP_WITHOUT_ALLOC_TAP()                                   \
    do {                                                           \
        if (!kHasAllocTap) {                                       \
            GTEST_SKIP() << "the sanitizer has its own allocator"; \
        }                                                          \
    } while (0)

struct tAllocTap {
    bool counting;
    long allocations;  // since counting began
    long frees;        // of non-null pointers, since counting began
    long resizes;      // allocations that only resized a block
    size_t last_size;  // bytes of the last allocation
    long fail_at;      // number of the allocation that fails, from 1; 0 = none
    long fail_count;   // how many fail from there on
    long failed;       // how many have failed
};
inline tAllocTap gAllocTap = {};

// Counts, and fails the n-th allocation (0: none) and, if told so, those after it, in its scope.
class tAllocTapScope {
public:
    explicit tAllocTapScope(long fail_at = 0, long fail_count = 1) {
        gAllocTap = {true, 0, 0, 0, 0, fail_at, fail_count, 0};
    }
    tAllocTapScope(const tAllocTapScope&) = delete;
    tAllocTapScope& operator=(const tAllocTapScope&) = delete;
    ~tAllocTapScope() { stop(); }
    void stop() { gAllocTap.counting = false; }
    long allocations() const { return gAllocTap.allocations; }
    long frees() const { return gAllocTap.frees; }
    // Blocks allocated and not freed; a failed allocation is none.
    long live() const {
        return gAllocTap.allocations - gAllocTap.resizes - gAllocTap.failed - gAllocTap.frees;
    }
    size_t last_size() const { return gAllocTap.last_size; }
    bool has_failed() const { return gAllocTap.failed > 0; }
};

#if !defined(__SANITIZE_ADDRESS__)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void __libc_free(void* old);
}

// True when this allocation is to fail.
inline bool tap_allocation(size_t size) {
    if (!gAllocTap.counting) {
        return false;
    }
    gAllocTap.allocations++;
    gAllocTap.last_size = size;
    const long past = gAllocTap.allocations - gAllocTap.fail_at;
    if (gAllocTap.fail_at == 0 || past < 0 || past >= gAllocTap.fail_count) {
        return false;
    }
    gAllocTap.failed++;
    errno = ENOMEM;
    return true;
}

extern "C" {
void* malloc(size_t size) noexcept {
    return tap_allocation(size) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
    return tap_allocation(count * size) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) noexcept {
    if (tap_allocation(size)) {
        return nullptr;
    }
    if (gAllocTap.counting && old != nullptr) {
        gAllocTap.resizes++;
    }
    return __libc_realloc(old, size);
}

void free(void* old) noexcept {
    if (gAllocTap.counting && old != nullptr) {
        gAllocTap.frees++;
    }
    __libc_free(old);
}
}
#endif
