// faults.cpp -- makes any call fail that the library makes into the interpreter or the C library.
// Loaded beside the built library (tests/support/faults.py): each function slot of its record, and
// each allocation among its imports, gets a thunk that counts the call and then either goes on to
// the real function with all arguments as they are or answers as that function does when it fails.
//
// Where a call comes from matters, since one helper serves many: calls are told apart by the chain
// of return addresses inside the library (it keeps frame pointers). Such a chain is a "place"; a
// test learns the places of a scenario and then lets the n-th call from one of them fail.
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <type_traits>

#include "libc_compat.h"
#include "xpy_c_api.h"

extern "C" int faults_dladdr(const void* address, Dl_info* info);
LIBC_SYMBOL("faults_dladdr, dladdr", "GLIBC_2.2.5", "GLIBC_2.0");

// The vector registers may hold arguments of a call that a thunk passes on.
#pragma GCC target("general-regs-only")

// Unused, but named by the functions of the header.
constinit XPy_C_API_Data global_XPy_C_API_Data = {};

#define FAULTS_API extern "C" __attribute__((visibility("default")))
#define FAULTS_HIDDEN extern "C" __attribute__((visibility("hidden")))

namespace {

// How a function says that it failed.
enum tManner : int {
    kNeverFails,
    kNullRaises,  // null with an exception
    kNull,        // null alone, also "not there"
    kMinusOneRaises,
    kMinusOne,
    kZeroRaises,
    kZero,
};

struct tPoint {
    const char* name;
    void* real;
    tManner manner;
};

struct tManners {
    const char* name;
    tManner manner;
};

// What the result's type does not tell.
constexpr tManners kManners[] = {
    {"PyErr_Occurred", kNeverFails},
    {"PyErr_Format", kNeverFails},
    {"PyErr_NoMemory", kNeverFails},
    {"PyErr_GivenExceptionMatches", kNeverFails},
    {"PyErr_GetRaisedException", kNeverFails},
    {"PyErr_GetHandledException", kNeverFails},
    {"PyThreadState_Get", kNeverFails},
    {"PyThreadState_Next", kNeverFails},
    {"PyThreadState_GetInterpreter", kNeverFails},
    {"PyInterpreterState_ThreadHead", kNeverFails},
    {"PyEval_SaveThread", kNeverFails},
    {"PyEval_GetBuiltins", kNeverFails},
    {"PyFrame_GetCode", kNeverFails},
    {"PyFrame_GetGlobals", kNeverFails},
    {"PyFrame_GetBuiltins", kNeverFails},
    {"PyFrame_GetLineNumber", kNeverFails},
    {"PyModule_GetDict", kNeverFails},
    {"PyCallable_Check", kNeverFails},
    {"PyType_IsSubtype", kNeverFails},
    {"PyGILState_Ensure", kNeverFails},
    {"PyThread_acquire_lock", kNeverFails},
    {"PyThread_get_thread_ident", kNeverFails},
    {"PyThread_tss_get", kNeverFails},
    {"PyThread_tss_set", kNeverFails},  // but for a thread's first one: see the core's lock
    {"Py_GetRecursionLimit", kNeverFails},
    {"_Py_IsFinalizing", kNeverFails},
    {"_PyInterpreterState_GetEvalFrameFunc", kNeverFails},
    {"PyDict_Next", kNeverFails},
    {"PyList_Size", kNeverFails},  // only for what is no list: the library looks at the type first
    {"PyTuple_Size", kNeverFails},
    {"PyTuple_GetItem", kNeverFails},  // and at the length, which for a list may change meanwhile
    {"PyFrame_GetBack", kNeverFails},  // null is the outermost frame's answer, and another program
    {"PyThreadState_GetFrame", kNeverFails},
    {"PyFrame_GetGenerator", kNull},
    {"PySys_GetObject", kNull},
    {"PyDict_GetItem", kNull},
    {"PyDict_GetItemString", kNull},
    {"_PyObject_GetDictPtr", kNull},
    {"PyThreadState_New", kNull},
    {"PyThread_allocate_lock", kNull},
    {"PyThread_tss_alloc", kNull},
    {"PyThread_tss_create", kMinusOne},
    {"PyThread_acquire_lock_timed", kZero},
    {"PyThread_start_new_thread", kMinusOne},
    {"Py_AddPendingCall", kMinusOne},
    {"Py_AtExit", kMinusOne},
    {"_PyEval_RequestCodeExtraIndex", kMinusOne},
    {"PyArg_ParseTuple", kZeroRaises},
    {"PyArg_ParseTupleAndKeywords", kZeroRaises},
};

constexpr tManner manner_of(const char* name, tManner by_type) {
    for (const tManners& each : kManners) {
        if (__builtin_strcmp(each.name, name) == 0) {
            return each.manner;
        }
    }
    return by_type;
}

template <class Result>
constexpr tManner manner_by_type() {
    if constexpr (std::is_pointer_v<Result>) {
        return kNullRaises;
    } else if constexpr (std::is_integral_v<Result>) {
        return kMinusOneRaises;
    } else {
        return kNeverFails;  // void
    }
}

constexpr int kSlots = 0
#define XPY_SLOT(rule, result, name, params, backup) +1
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT
    ;

// Imports of the library from the C library that may fail.
constexpr const char* kImports[] = {"malloc", "calloc", "realloc", "strdup", "vasprintf", "free"};
enum tImport { kMalloc, kCalloc, kRealloc, kStrdup, kVasprintf, kFree, kImportCount };
constexpr int kPoints = kSlots + static_cast<int>(kImportCount);

tPoint gPoints[kPoints];

// ---- Places ----

constexpr int kDepth = 6;  // return addresses that tell one place from another
constexpr int kMaxPlaces = 1 << 13;

struct tPlace {
    uintptr_t key;  // 0 = free
    int point;
    long calls;
    uintptr_t road[kDepth];  // offsets of the return addresses in the library, innermost first
};

tPlace gPlaces[2 * kMaxPlaces];
long gPlaceCount;
int gOrder[kMaxPlaces];  // of first calls
int gIsOn;
uintptr_t gFailKey;   // the place that fails; 0 = none
int gFailAllocation;  // instead: allocations, counted together
long gFailAt;         // number of the call that fails first, from 1
long gFailCount;      // how many fail from there on
long gCalls;          // of that place so far
long gAllocations;    // calls of all allocating functions so far
long gFailed;         // how many have failed
long gLive;           // blocks that the library allocated and has not freed
int gBusy;            // spin lock: free-threaded builds call from many threads
uintptr_t gBase;
uintptr_t gTextBegin;
uintptr_t gTextEnd;

bool is_in_library(uintptr_t address) {
    return gTextBegin <= address && address < gTextEnd;
}

// The chain of callers inside the library. frame: the frame pointer of the one that returns to
// `caller`, good as long as that is in the library (a tail call has somebody else's).
void trace_road(uintptr_t* road, uintptr_t caller, const uintptr_t* frame) {
    for (int i = 0; i < kDepth && is_in_library(caller); i++) {
        road[i] = caller - gBase;
        caller = frame[1];
        frame = reinterpret_cast<const uintptr_t*>(frame[0]);
    }
}

uintptr_t key_of(int point, const uintptr_t* road) {
    uintptr_t key = static_cast<uintptr_t>(point) + 1;
    for (int i = 0; i < kDepth; i++) {
        key = key * 1000003u + road[i];
        key ^= key >> 15;
    }
    return key | 2;
}

tPlace* find_place(uintptr_t key, int point, const uintptr_t* road) {
    unsigned long index = key % (2 * kMaxPlaces);
    while (gPlaces[index].key != 0 && gPlaces[index].key != key) {
        index = (index + 1) % (2 * kMaxPlaces);
    }
    tPlace* const place = &gPlaces[index];
    if (place->key == 0 && gPlaceCount < kMaxPlaces) {
        place->key = key;
        place->point = point;
        for (int i = 0; i < kDepth; i++) {
            place->road[i] = road[i];
        }
        gOrder[gPlaceCount++] = static_cast<int>(index);
    }
    return place;
}

void lock() {
    while (__atomic_exchange_n(&gBusy, 1, __ATOMIC_ACQUIRE) != 0) {
    }
}

void unlock() {
    __atomic_store_n(&gBusy, 0, __ATOMIC_RELEASE);
}

bool is_allocation(int point) {
    return point >= kSlots;
}

bool is_due(long number) {
    return number >= gFailAt && number < gFailAt + gFailCount;
}

// Whether this call is to fail.
bool count_call(int point, uintptr_t caller, const uintptr_t* frame) {
    uintptr_t road[kDepth] = {};
    trace_road(road, caller, frame);
    const uintptr_t key = key_of(point, road);
    bool fails = false;
    if (gFailKey == 0 && !gFailAllocation) {
        find_place(key, point, road)->calls++;
    } else if (gFailKey == key) {
        fails = is_due(++gCalls);
    }
    if (is_allocation(point)) {
        gAllocations++;
        fails = fails || (gFailAllocation != 0 && is_due(gAllocations));
    }
    gFailed += fails ? 1 : 0;
    return fails;
}

bool is_to_fail(int point, uintptr_t caller, const uintptr_t* frame) {
    if (!gIsOn || gPoints[point].manner == kNeverFails) {
        return false;
    }
    lock();
    const bool fails = count_call(point, caller, frame);
    unlock();
    return fails;
}

// ---- Failing ----

long raise_no_memory(long result) {
    using tSetString = void (*)(PyObject*, const char*);
    static const tSetString set_string =
        reinterpret_cast<tSetString>(tdbg_dlsym(RTLD_DEFAULT, "PyErr_SetString"));
    static PyObject** const error =
        static_cast<PyObject**>(tdbg_dlsym(RTLD_DEFAULT, "PyExc_MemoryError"));
    set_string(*error, "injected");
    return result;
}

long fail_null_raises() {
    return raise_no_memory(0);
}
long fail_minus_one_raises() {
    return raise_no_memory(-1);
}
long long fail_long_raises() {
    return raise_no_memory(-1);
}
long fail_null() {
    return 0;
}
long fail_minus_one() {
    return -1;
}

int fail_with_null_result(PyObject*, PyObject*, PyObject** result) {
    *result = nullptr;
    return static_cast<int>(raise_no_memory(-1));
}

int fail_and_drop_item(PyObject*, Py_ssize_t, PyObject* item) {
    using tDecRef = void (*)(PyObject*);
    static const tDecRef drop = reinterpret_cast<tDecRef>(tdbg_dlsym(RTLD_DEFAULT, "Py_DecRef"));
    drop(item);
    return static_cast<int>(raise_no_memory(-1));
}

int fail_item(PyObject*, PyObject** item) {
    *item = nullptr;
    return static_cast<int>(raise_no_memory(-1));
}

template <class Fn>
void* address_of(Fn* function) {
    return reinterpret_cast<void*>(function);
}

void* failure_of(int point) {
    const char* const name = gPoints[point].name;
    if (strcmp(name, "PyDict_GetItemRef") == 0 || strcmp(name, "PyDict_Pop") == 0) {
        return address_of(fail_with_null_result);
    }
    if (strcmp(name, "PyTuple_SetItem") == 0 || strcmp(name, "PyList_SetItem") == 0) {
        return address_of(fail_and_drop_item);
    }
    if (strcmp(name, "PyIter_NextItem") == 0) {
        return address_of(fail_item);
    }
    if (strcmp(name, "PyLong_AsLongLong") == 0) {
        return address_of(fail_long_raises);
    }
    switch (gPoints[point].manner) {
        case kNullRaises:
        case kZeroRaises:
            return address_of(fail_null_raises);
        case kMinusOneRaises:
            return address_of(fail_minus_one_raises);
        case kNull:
        case kZero:
            return address_of(fail_null);
        case kMinusOne:
            return address_of(fail_minus_one);
        default:
            return gPoints[point].real;
    }
}

}  // namespace

// The function that a thunk goes on to.
FAULTS_HIDDEN __attribute__((used)) void* faults_choose(int point,
                                                        uintptr_t caller,
                                                        const uintptr_t* frame) {
    return is_to_fail(point, caller, frame) ? failure_of(point) : gPoints[point].real;
}

namespace {

template <int kPoint>
__attribute__((naked)) void thunk() {
#if defined(__x86_64__)
    asm volatile(
        "push %%rax; push %%rdi; push %%rsi; push %%rdx; push %%rcx; push %%r8; push %%r9\n\t"
        "mov %0, %%edi; mov 56(%%rsp), %%rsi; mov %%rbp, %%rdx\n\t"
        "call faults_choose\n\t"
        "mov %%rax, %%r11\n\t"
        "pop %%r9; pop %%r8; pop %%rcx; pop %%rdx; pop %%rsi; pop %%rdi; pop %%rax\n\t"
        "jmp *%%r11"
        :
        : "i"(kPoint));
#else
    asm volatile(
        "mov (%%esp), %%eax; push %%ebp; push %%eax; push %0\n\t"
        "call faults_choose\n\t"
        "add $12, %%esp\n\t"
        "jmp *%%eax"
        :
        : "i"(kPoint));
#endif
}

template <int kIndex, int kEnd>
void fill_thunks(void** thunks) {
    if constexpr (kEnd - kIndex == 1) {
        thunks[kIndex] = address_of(thunk<kIndex>);
    } else {
        constexpr int kMiddle = (kIndex + kEnd) / 2;
        fill_thunks<kIndex, kMiddle>(thunks);
        fill_thunks<kMiddle, kEnd>(thunks);
    }
}

void** thunks() {
    static void* all[kSlots] = {};
    if (all[0] == nullptr) {
        fill_thunks<0, kSlots>(all);
    }
    return all;
}

// ---- Allocations ----

// What stands in their places calls the real one itself, to know whether there is a block.
template <class Fn>
Fn* real_import(tImport which) {
    return reinterpret_cast<Fn*>(gPoints[kSlots + static_cast<int>(which)].real);
}

bool allocation_fails(tImport which, const void* caller, const void* frame) {
    // frame: that of the stand-in, whose first word is the caller's.
    const bool fails = is_to_fail(kSlots + static_cast<int>(which),
                                  reinterpret_cast<uintptr_t>(caller),
                                  *static_cast<const uintptr_t* const*>(frame));
    errno = fails ? ENOMEM : errno;
    return fails;
}

#define FAILS(which) \
    allocation_fails(which, __builtin_return_address(0), __builtin_frame_address(0))

void note_block(const void* block, int change) {
    if (block != nullptr) {
        __atomic_add_fetch(&gLive, change, __ATOMIC_RELAXED);
    }
}

void* take_malloc(size_t size) {
    void* const block = FAILS(kMalloc) ? nullptr : real_import<void*(size_t)>(kMalloc)(size);
    note_block(block, 1);
    return block;
}

void* take_calloc(size_t count, size_t size) {
    void* const block =
        FAILS(kCalloc) ? nullptr : real_import<void*(size_t, size_t)>(kCalloc)(count, size);
    note_block(block, 1);
    return block;
}

void* take_realloc(void* old, size_t size) {
    void* const block =
        FAILS(kRealloc) ? nullptr : real_import<void*(void*, size_t)>(kRealloc)(old, size);
    note_block(old == nullptr ? block : nullptr, 1);
    return block;
}

char* take_strdup(const char* text) {
    char* const block = FAILS(kStrdup) ? nullptr : real_import<char*(const char*)>(kStrdup)(text);
    note_block(block, 1);
    return block;
}

int take_vasprintf(char** text, const char* format, va_list arguments) {
    const int length =
        FAILS(kVasprintf)
            ? -1
            : real_import<int(char**, const char*, va_list)>(kVasprintf)(text, format, arguments);
    note_block(length == -1 ? nullptr : *text, 1);
    return length;
}

void take_free(void* block) {
    note_block(block, -1);
    real_import<void(void*)>(kFree)(block);
}

void* const kStandIns[] = {
    address_of(take_malloc),
    address_of(take_calloc),
    address_of(take_realloc),
    address_of(take_strdup),
    address_of(take_vasprintf),
    address_of(take_free),
};

// ---- The library's imports ----

struct tLibrary {
    uintptr_t base;
    const ElfW(Dyn) * dynamic;
};

int note_library(dl_phdr_info* info, size_t, void* arg) {
    tLibrary* const library = static_cast<tLibrary*>(arg);
    if (info->dlpi_addr != library->base) {
        return 0;
    }
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type == PT_DYNAMIC) {
            library->dynamic = reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + header.p_vaddr);
        } else if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
            gTextBegin = info->dlpi_addr + header.p_vaddr;
            gTextEnd = gTextBegin + header.p_memsz;
        }
    }
    return 1;
}

uintptr_t dynamic_value(const tLibrary& library, ElfW(Sxword) tag) {
    for (const ElfW(Dyn)* entry = library.dynamic; entry->d_tag != DT_NULL; entry++) {
        if (entry->d_tag == tag) {
            return entry->d_un.d_ptr;
        }
    }
    return 0;
}

void replace_import(void** place, int point) {
    const uintptr_t page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    void* const page =
        reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(place) & ~(page_size - 1));
    mprotect(page, page_size, PROT_READ | PROT_WRITE);
    gPoints[point].real = *place;
    *place = kStandIns[point - kSlots];
}

#if defined(__x86_64__)
using tRelocation = ElfW(Rela);
constexpr ElfW(Sxword) kTable = DT_RELA, kTableSize = DT_RELASZ;
unsigned symbol_of(const tRelocation& entry) {
    return static_cast<unsigned>(ELF64_R_SYM(entry.r_info));
}
#else
using tRelocation = ElfW(Rel);
constexpr ElfW(Sword) kTable = DT_REL, kTableSize = DT_RELSZ;
unsigned symbol_of(const tRelocation& entry) {
    return ELF32_R_SYM(entry.r_info);
}
#endif

void replace_imports_in(const tLibrary& library, uintptr_t table, size_t size) {
    const ElfW(Sym)* const symbols =
        reinterpret_cast<const ElfW(Sym)*>(dynamic_value(library, DT_SYMTAB));
    const char* const strings = reinterpret_cast<const char*>(dynamic_value(library, DT_STRTAB));
    const tRelocation* const entries = reinterpret_cast<const tRelocation*>(table);
    for (size_t i = 0; i < size / sizeof(tRelocation); i++) {
        const unsigned symbol = symbol_of(entries[i]);
        if (symbol == 0) {
            continue;
        }
        for (int which = 0; which < kImportCount; which++) {
            if (strcmp(strings + symbols[symbol].st_name, kImports[which]) == 0) {
                replace_import(reinterpret_cast<void**>(library.base + entries[i].r_offset),
                               kSlots + which);
            }
        }
    }
}

void name_points() {
    int point = 0;
#define XPY_SLOT(rule, result, name, params, backup) \
    gPoints[point++] = {#name, nullptr, manner_of(#name, manner_by_type<result>())};
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT
    for (const char* const name : kImports) {
        gPoints[point++] = {name, nullptr, kNull};
    }
}

}  // namespace

// ---- For Python ----

// Takes the allocations of the library in hand; before it is imported, if those of the import are
// to be counted. symbol: any address in the library. 0, or -1.
FAULTS_API int faults_take_imports(void* symbol) {
    Dl_info info;
    if (faults_dladdr(symbol, &info) == 0) {
        return -1;
    }
    tLibrary library = {reinterpret_cast<uintptr_t>(info.dli_fbase), nullptr};
    dl_iterate_phdr(note_library, &library);
    if (library.dynamic == nullptr) {
        return -1;
    }
    gBase = library.base;
    name_points();
    replace_imports_in(library, dynamic_value(library, kTable), dynamic_value(library, kTableSize));
    replace_imports_in(
        library, dynamic_value(library, DT_JMPREL), dynamic_value(library, DT_PLTRELSZ));
    return 0;
}

// Takes the interpreter's functions in hand; after the import, which finds them.
FAULTS_API void faults_take_slots(XPy_C_API_Data* record) {
    int point = 0;
    void** const all = thunks();
#define XPY_SLOT(rule, result, name, params, backup)                         \
    if (record->name != nullptr) {                                           \
        gPoints[point].real = reinterpret_cast<void*>(record->name);         \
        record->name = reinterpret_cast<decltype(record->name)>(all[point]); \
    }                                                                        \
    point++;
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT
}

// Counts calls by their places from now on; with a key, that place fails at its n-th call; with
// fail_allocation, the n-th of all allocations does. n = 0: nothing fails.
FAULTS_API void faults_start(uintptr_t key, int fail_allocation, long fail_at, long fail_count) {
    gFailKey = key;
    gFailAllocation = fail_allocation;
    gFailAt = fail_at;
    gFailCount = fail_count;
    gCalls = gAllocations = gFailed = 0;
    gIsOn = 1;
}

FAULTS_API long faults_stop() {
    gIsOn = 0;
    return gFailed;
}

FAULTS_API long faults_count_of_allocations() {
    return gAllocations;
}

// Blocks that the library has allocated since it was taken in hand and not freed.
FAULTS_API long faults_count_of_blocks() {
    return gLive;
}

FAULTS_API long faults_count_of_places() {
    return gPlaceCount;
}

// The place met as number `index`: its key; name, number of calls and `depth` offsets in the
// library are stored, of the call and of those that led to it.
FAULTS_API uintptr_t
faults_place(long index, const char** name, long* calls, uintptr_t* road, int depth) {
    const tPlace& place = gPlaces[gOrder[index]];
    *name = gPoints[place.point].name;
    *calls = place.calls;
    for (int i = 0; i < depth && i < kDepth; i++) {
        road[i] = place.road[i];
    }
    return place.key;
}
