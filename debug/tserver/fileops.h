// fileops.h -- one file, many names: absolute names, identity on disk, canonical pathnames.
// A source file reaches us as a relative name, a .pyc name, a hard link or a copy from another
// machine. The registry makes the first name registered for a file (by name, by device and inode,
// or by checksum of its contents) the canonical one of all later names. Every question to the file
// system is cached, so that events in unknown files cost no system call: absolute names and
// successful stats for the life of the record, failed stats for less than 3 seconds.
// Texts handed out belong to the record and live as long as it does. Everything here needs the
// interpreter lock, which alone guards the record. A null record, which is what start-up without
// memory leaves, knows no name and finds no file.
#pragma once

#include "dbgtracerhash.h"

struct tDPData;

inline constexpr intptr_t kNotFoundSeconds = 3;  // a failed stat is believed for less than this

// A file's identity; also a 16-byte hash key, so both halves are always written.
struct tUniqueFileno {
    uint64_t dev;  // 0 for a missing file
    uint64_t ino;  // 0 for a missing file
};
static_assert(sizeof(tUniqueFileno) == 16);
inline constexpr unsigned kHashFilenoKeys = sizeof(tUniqueFileno);

struct tFileOpsData {
    CUt_HashTable absname_cache;        // name as passed in -> owned absolute name
    CUt_HashTable lower_absname_cache;  // stays empty where case matters in names
    CUt_HashTable not_found_table;      // name -> seconds of its failed stat, in the slot itself
    CUt_HashTable stat_cache;           // name -> owned struct stat64; null: missing
    CUt_HashTable unique_fileno_cache;  // stays empty where the numbers come with the stat
    CUt_HashTable canonical_by_unique_fileno;  // tUniqueFileno -> owned canonical pathname
    CUt_HashTable canonical_by_name;           // absolute name -> owned canonical pathname
    CUt_HashTable canonical_by_checksum;       // checksum -> owned absolute name, the first of it
    PyObject* os_mod;             // owned: the module; null when it could not be imported
    PyObject* checksum_callback;  // owned: called with a pathname; None until set
    tDPData* dp;                  // borrowed: the log's sinks; null: nothing is logged
};

// How breakpoint files are matched: 0 = any name of the same file (on disk, or equal checksum),
// else by canonical pathname.
TDBG_API boolean gUseCanonicalPathnames;

// New record, to be given to destroy_file_ops_data; null when out of memory. Null is ignored.
TDBG_API tFileOpsData* create_file_ops_data(tDPData* dp);
TDBG_API void destroy_file_ops_data(tFileOpsData* data);

// Absolute form of a name; null when out of memory or without a working directory (logged). A name
// with a leading slash is taken as it is.
TDBG_API const char* get_absname_forward_slash_names(tFileOpsData* data, const char* name);
TDBG_API const char* get_absname(tFileOpsData* data, const char* name);  // the same

// "x.pyc" and "x.pyo" (any case) lose the last character. In place.
TDBG_API void prune_py_c_or_o(char* name);

// Always 0; what cannot be found out counts as missing.
TDBG_API int get_unique_file_number(tFileOpsData* data,
                                    const char* pathname,
                                    tUniqueFileno* number,
                                    boolean* exists);

// 1 when both names lead to the same file or mod_file begins with user_file, else 0.
TDBG_API int samefile(tFileOpsData* data, const char* user_file, const char* mod_file);

// Canonical pathname of a file that is registered under any name; null when there is none.
// checksum may be null.
TDBG_API const char* lookup_canonical_pathname(tFileOpsData* data,
                                               const char* pathname,
                                               const char* checksum);
// The same, registering a name not seen before. Null when out of memory or without an absolute
// name (logged). checksum and is_new may be null; is_new: 1 when the name was not known yet.
TDBG_API const char* register_canonical_pathname(tFileOpsData* data,
                                                 const char* pathname,
                                                 const char* checksum,
                                                 boolean* is_new);

// Keeps a new reference to the callable or None. Returns 0.
TDBG_API int set_checksum_callback(tFileOpsData* data, PyObject* callable);
// New ref: what the callback says of the pathname; None without a callback or when it failed.
TDBG_API PyObject* get_checksum_for_pathname(tFileOpsData* data, PyObject* pathname);

// Forms for Python; a "<...>" name is no file and comes back as it is. checksum: text or None.
// New ref; null with an exception set. Lookup answers None when nothing is registered.
TDBG_API PyObject* lookup_canonical_pathname_pystr(tFileOpsData* data,
                                                   PyObject* pathname,
                                                   PyObject* checksum);
TDBG_API PyObject* register_canonical_pathname_pystr(tFileOpsData* data,
                                                     PyObject* pathname,
                                                     PyObject* checksum);

// The bodies of the module's two methods, from texts; checksum may be null. New ref; null with an
// exception set. Lookup: name or None. Register: tuple (name or None, 1 when the name is new).
PyObject* lookup_canonical_result(tFileOpsData* data, const char* pathname, const char* checksum);
PyObject* register_canonical_result(tFileOpsData* data, const char* pathname, const char* checksum);
