// Layout tables and the arithmetic on them. A wrong row compiles, so every table is asserted for
// both word sizes below and compared with the interpreters' own headers by the tests.
#include "xpy_c_api_layouts.h"

#include <stdio.h>
#include <string.h>

struct tWideStringList {  // PyWideStringList
    Py_ssize_t length;
    wchar_t** items;
};

struct tErrStackItem {  // _PyErr_StackItem up to 3.10
    PyObject* exc_type;
    PyObject* exc_value;
    PyObject* exc_traceback;
    tErrStackItem* previous_item;
};

static constexpr XPy_FieldWithSize kObjectHead = {kObjectHeadName, 0};
static constexpr XPy_FieldWithSize kVarObjectHead = {kVarObjectHeadName, 0};

// Object header up to 3.11.
constexpr XPy_FieldWithSize pre312_pyobject_fields[] = {
    field<Py_ssize_t>("ob_refcnt"),
    field<void*>("ob_type"),
};

// Object header of 3.12 and 3.13 with 4-byte pointers.
constexpr XPy_FieldWithSize py312_13_32bit_pyobject_fields[] = {
    field<Py_ssize_t>("ob_refcnt"),
    field<void*>("ob_type"),
};

// Object header of 3.14 and later with 4-byte pointers.
constexpr XPy_FieldWithSize py314_32bit_pyobject_fields[] = {
    field<Py_ssize_t>("ob_refcnt"),
    field<void*>("ob_type"),
};

// Object header of 3.12 and 3.13 with 8-byte pointers: the count is the lower half of the word
// (immortal objects, PEP 683).
constexpr XPy_FieldWithSize py312_13_64bit_pyobject_fields[] = {
    field<uint32_t>("ob_refcnt"),
    field<uint32_t>("ob_refcnt_high"),
    field<void*>("ob_type"),
};

// Object header of 3.14 and later with 8-byte pointers: the upper half of the word became two
// fields of its own.
constexpr XPy_FieldWithSize py314_64bit_pyobject_fields[] = {
    field<uint32_t>("ob_refcnt"),
    field<uint16_t>("ob_overflow"),
    field<uint16_t>("ob_flags"),
    field<void*>("ob_type"),
};

// Object header of free-threaded builds, 3.13 and later (before 3.14 ob_flags was padding).
constexpr XPy_FieldWithSize free_t_pyobject_fields[] = {
    field<uintptr_t>("ob_tid"),
    field<uint16_t>("ob_flags"),
    field<uint8_t>("ob_mutex"),
    field<uint8_t>("ob_gc_bits"),
    field<uint32_t>("ob_ref_local"),
    field<Py_ssize_t>("ob_ref_shared"),
    field<void*>("ob_type"),
    kEndOfFields,
};

// Type object from 3.8 on, where tp_vectorcall_offset took the place of tp_print.
constexpr XPy_FieldWithSize typeobject_fields[] = {
    kVarObjectHead,
    field<void*>("tp_name"),
    field<Py_ssize_t>("tp_basicsize"),
    field<Py_ssize_t>("tp_itemsize"),
    field<void*>("tp_dealloc"),
    field<Py_ssize_t>("tp_vectorcall_offset"),
    field<void*>("tp_getattr"),
    field<void*>("tp_setattr"),
    field<void*>("tp_as_async"),
    field<void*>("tp_repr"),
    field<void*>("tp_as_number"),
    field<void*>("tp_as_sequence"),
    field<void*>("tp_as_mapping"),
    field<void*>("tp_hash"),
    field<void*>("tp_call"),
    field<void*>("tp_str"),
    field<void*>("tp_getattro"),
    field<void*>("tp_setattro"),
    field<void*>("tp_as_buffer"),
    field<unsigned long>("tp_flags"),
    field<void*>("tp_doc"),
    field<void*>("tp_traverse"),
    field<void*>("tp_clear"),
    field<void*>("tp_richcompare"),
    field<Py_ssize_t>("tp_weaklistoffset"),
    field<void*>("tp_iter"),
    field<void*>("tp_iternext"),
    field<void*>("tp_methods"),
    field<void*>("tp_members"),
    field<void*>("tp_getset"),
    field<void*>("tp_base"),
    {nullptr, 0},
};

// Interpreter state of 3.6, up to the frame-evaluation function.
constexpr XPy_FieldWithSize py3d6_interpreter_state_fields[] = {
    field<void*>("next"),
    field<void*>("tstate_head"),
    field<void*>("modules"),
    field<void*>("modules_by_index"),
    field<void*>("sysdict"),
    field<void*>("builtins"),
    field<void*>("importlib"),
    field<void*>("codec_search_path"),
    field<void*>("codec_search_cache"),
    field<void*>("codec_error_registry"),
    field<int>("codecs_initialized"),
    field<int>("fscodec_initialized"),
    field<int>("dlopenflags"),
    field<void*>("builtins_copy"),
    field<void*>("import_func"),
    field<void*>("eval_frame"),
    kEndOfFields,
};

// _PyCoreConfig of 3.7.
constexpr XPy_FieldWithSize py3d7_core_config_fields[] = {
    field<int>("install_signal_handlers"),
    field<int>("ignore_environment"),
    field<int>("use_hash_seed"),
    field<unsigned long>("hash_seed"),
    field<void*>("allocator"),
    field<int>("dev_mode"),
    field<int>("faulthandler"),
    field<int>("tracemalloc"),
    field<int>("import_time"),
    field<int>("show_ref_count"),
    field<int>("show_alloc_count"),
    field<int>("dump_refs"),
    field<int>("malloc_stats"),
    field<int>("coerce_c_locale"),
    field<int>("coerce_c_locale_warn"),
    field<int>("utf8_mode"),
    field<void*>("program_name"),
    field<int>("argc"),
    field<void*>("argv"),
    field<void*>("program"),
    field<int>("nxoption"),
    field<void*>("xoptions"),
    field<int>("nwarnoption"),
    field<void*>("warnoptions"),
    field<void*>("module_search_path_env"),
    field<void*>("home"),
    field<int>("nmodule_search_path"),
    field<void*>("module_search_paths"),
    field<void*>("executable"),
    field<void*>("prefix"),
    field<void*>("base_prefix"),
    field<void*>("exec_prefix"),
    field<void*>("base_exec_prefix"),
    field<int>("_disable_importlib"),
    kEndOfFields,
};

// _PyMainInterpreterConfig of 3.7.
constexpr XPy_FieldWithSize py3d7_main_interpreter_config_fields[] = {
    field<int>("install_signal_handlers"),
    field<void*>("argv"),
    field<void*>("executable"),
    field<void*>("prefix"),
    field<void*>("base_prefix"),
    field<void*>("exec_prefix"),
    field<void*>("base_exec_prefix"),
    field<void*>("warnoptions"),
    field<void*>("xoptions"),
    field<void*>("module_search_path"),
    kEndOfFields,
};

// Interpreter state of 3.7; the two configurations get their sizes at start-up.
XPy_FieldWithSize py3d7_interpreter_state_fields[] = {
    field<void*>("next"),
    field<void*>("tstate_head"),
    field<int64_t>("id"),
    field<int64_t>("id_refcount"),
    field<void*>("id_mutex"),
    field<void*>("modules"),
    field<void*>("modules_by_index"),
    field<void*>("sysdict"),
    field<void*>("builtins"),
    field<void*>("importlib"),
    field<int>("check_interval"),
    field<long>("num_threads"),
    field<size_t>("pythread_stacksize"),
    field<void*>("codec_search_path"),
    field<void*>("codec_search_cache"),
    field<void*>("codec_error_registry"),
    field<int>("codecs_initialized"),
    field<int>("fscodec_initialized"),
    {"core_config", kFilledInLater},
    {"config", kFilledInLater},
    field<int>("dlopenflags"),
    field<void*>("builtins_copy"),
    field<void*>("import_func"),
    field<void*>("eval_frame"),
    kEndOfFields,
};

// PyConfig of 3.8.
constexpr XPy_FieldWithSize py3d8_pyconfig_fields[] = {
    field<int>("_config_init"),
    field<int>("isolated"),
    field<int>("use_environment"),
    field<int>("dev_mode"),
    field<int>("install_signal_handlers"),
    field<int>("use_hash_seed"),
    field<unsigned long>("hash_seed"),
    field<int>("faulthandler"),
    field<int>("tracemalloc"),
    field<int>("import_time"),
    field<int>("show_ref_count"),
    field<int>("show_alloc_count"),
    field<int>("dump_refs"),
    field<int>("malloc_stats"),
    field<void*>("filesystem_encoding"),
    field<void*>("filesystem_errors"),
    field<void*>("pycache_prefix"),
    field<int>("parse_argv"),
    field<tWideStringList>("argv"),
    field<void*>("program_name"),
    field<tWideStringList>("xoptions"),
    field<tWideStringList>("warnoptions"),
    field<int>("site_import"),
    field<int>("bytes_warning"),
    field<int>("inspect"),
    field<int>("interactive"),
    field<int>("optimization_level"),
    field<int>("parser_debug"),
    field<int>("write_bytecode"),
    field<int>("verbose"),
    field<int>("quiet"),
    field<int>("user_site_directory"),
    field<int>("configure_c_stdio"),
    field<int>("buffered_stdio"),
    field<void*>("stdio_encoding"),
    field<void*>("stdio_errors"),
    field<void*>("check_hash_pycs_mode"),
    field<int>("pathconfig_warnings"),
    field<void*>("pythonpath_env"),
    field<void*>("home"),
    field<int>("module_search_paths_set"),
    field<tWideStringList>("module_search_paths"),
    field<void*>("executable"),
    field<void*>("base_executable"),
    field<void*>("prefix"),
    field<void*>("base_prefix"),
    field<void*>("exec_prefix"),
    field<void*>("base_exec_prefix"),
    field<int>("skip_source_first_line"),
    field<void*>("run_command"),
    field<void*>("run_module"),
    field<void*>("run_filename"),
    field<int>("_install_importlib"),
    field<int>("_init_main"),
    kEndOfFields,
};

// Interpreter state of 3.8; the configuration gets its size at start-up.
XPy_FieldWithSize py3d8_interpreter_state_fields[] = {
    field<void*>("next"),
    field<void*>("tstate_head"),
    field<int64_t>("id"),
    field<int64_t>("id_refcount"),
    field<int>("requires_idref"),
    field<void*>("id_mutex"),
    field<int>("finalizing"),
    field<void*>("modules"),
    field<void*>("modules_by_index"),
    field<void*>("sysdict"),
    field<void*>("builtins"),
    field<void*>("importlib"),
    field<int>("check_interval"),
    field<long>("num_threads"),
    field<size_t>("pythread_stacksize"),
    field<void*>("codec_search_path"),
    field<void*>("codec_search_cache"),
    field<void*>("codec_error_registry"),
    field<int>("codecs_initialized"),
    field<void*>("fscodec.encoding"),
    field<void*>("fscodec.errors"),
    field<int>("fscodec.error_handler"),
    {"config", kFilledInLater},
    field<int>("dlopenflags"),
    field<void*>("dict"),
    field<void*>("builtins_copy"),
    field<void*>("import_func"),
    field<void*>("eval_frame"),
    kEndOfFields,
};

// Thread state of Python 2.
constexpr XPy_FieldWithSize py2_tstate_fields[] = {
    field<void*>("next"),
    field<void*>("interp"),
    field<void*>("frame"),
    field<int>("recursion_depth"),
    field<int>("tracing"),
    field<int>("use_tracing"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("curexc_type"),
    field<void*>("curexc_value"),
    field<void*>("curexc_traceback"),
    field<void*>("exc_type"),
    field<void*>("exc_value"),
    field<void*>("exc_traceback"),
    field<void*>("dict"),
    field<int>("tick_counter"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.0 - 3.3.
constexpr XPy_FieldWithSize py3d0_tstate_fields[] = {
    field<void*>("next"),          field<void*>("interp"),       field<void*>("frame"),
    field<int>("recursion_depth"), field<char>("overflowed"),    field<char>("recursion_critical"),
    field<int>("tracing"),         field<int>("use_tracing"),    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),   field<void*>("c_profileobj"), field<void*>("c_traceobj"),
    field<void*>("curexc_type"),   field<void*>("curexc_value"), field<void*>("curexc_traceback"),
    field<void*>("exc_type"),      field<void*>("exc_value"),    field<void*>("exc_traceback"),
    field<void*>("dict"),          field<int>("tick_counter"),   field<int>("gilstate_counter"),
    field<void*>("async_exc"),     field<long>("thread_id"),     kEndOfFields,
};

// Thread state of 3.4 - 3.6: doubly linked, and the tick counter is gone.
constexpr XPy_FieldWithSize py3d4_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<void*>("frame"),
    field<int>("recursion_depth"),
    field<char>("overflowed"),
    field<char>("recursion_critical"),
    field<int>("tracing"),
    field<int>("use_tracing"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("curexc_type"),
    field<void*>("curexc_value"),
    field<void*>("curexc_traceback"),
    field<void*>("exc_type"),
    field<void*>("exc_value"),
    field<void*>("exc_traceback"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.7 - 3.9: exception states became a stack.
constexpr XPy_FieldWithSize py3d7_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<void*>("frame"),
    field<int>("recursion_depth"),
    field<char>("overflowed"),
    field<char>("recursion_critical"),
    field<int>("stackcheck_counter"),
    field<int>("tracing"),
    field<int>("use_tracing"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("curexc_type"),
    field<void*>("curexc_value"),
    field<void*>("curexc_traceback"),
    field<tErrStackItem>("exc_state"),
    field<void*>("exc_info"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<unsigned long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.10: use_tracing moved to a record on the C stack.
constexpr XPy_FieldWithSize py3d10_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<void*>("frame"),
    field<int>("recursion_depth"),
    field<int>("recursion_headroom"),
    field<int>("stackcheck_counter"),
    field<int>("tracing"),
    field<void*>("cframe"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("curexc_type"),
    field<void*>("curexc_value"),
    field<void*>("curexc_traceback"),
    field<tErrStackItem>("exc_state"),
    field<void*>("exc_info"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<unsigned long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.11: no frame objects any more, only the C frame record.
constexpr XPy_FieldWithSize py3d11_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<int>("_initialized"),
    field<int>("_static"),
    field<int>("recursion_remaining"),
    field<int>("recursion_limit"),
    field<int>("recursion_headroom"),
    field<int>("tracing"),
    field<int>("tracing_what"),
    field<void*>("cframe"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("curexc_type"),
    field<void*>("curexc_value"),
    field<void*>("curexc_traceback"),
    field<void*>("exc_info"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<unsigned long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.12.
constexpr XPy_FieldWithSize py3d12_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<unsigned>("status"),
    field<int>("py_recursion_remaining"),
    field<int>("py_recursion_limit"),
    field<int>("c_recursion_remaining"),
    field<int>("recursion_headroom"),
    field<int>("tracing"),
    field<int>("what_event"),
    field<void*>("cframe"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("current_exception"),
    field<void*>("exc_info"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<unsigned long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.13: the C frame record is gone.
constexpr XPy_FieldWithSize py3d13_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<uintptr_t>("eval_breaker"),
    field<unsigned>("_status"),
    field<int>("whence"),
    field<int>("state"),
    field<int>("py_recursion_remaining"),
    field<int>("py_recursion_limit"),
    field<int>("c_recursion_remaining"),
    field<int>("recursion_headroom"),
    field<int>("tracing"),
    field<int>("what_event"),
    field<void*>("current_frame"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("current_exception"),
    field<void*>("exc_info"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<unsigned long>("thread_id"),
    kEndOfFields,
};

// Thread state of 3.14.
constexpr XPy_FieldWithSize py3d14_tstate_fields[] = {
    field<void*>("prev"),
    field<void*>("next"),
    field<void*>("interp"),
    field<uintptr_t>("eval_breaker"),
    field<unsigned>("_status"),
    field<int>("holds_gil"),
    field<int>("_whence"),
    field<int>("state"),
    field<int>("py_recursion_remaining"),
    field<int>("py_recursion_limit"),
    field<int>("recursion_headroom"),
    field<int>("tracing"),
    field<int>("what_event"),
    field<void*>("current_frame"),
    field<void*>("c_profilefunc"),
    field<void*>("c_tracefunc"),
    field<void*>("c_profileobj"),
    field<void*>("c_traceobj"),
    field<void*>("current_exception"),
    field<void*>("exc_info"),
    field<void*>("dict"),
    field<int>("gilstate_counter"),
    field<void*>("async_exc"),
    field<unsigned long>("thread_id"),
    kEndOfFields,
};

// C frame record of 3.11. 3.10 is given the same table though its record has no current frame
// ({int use_tracing; previous}); nothing reads the field there.
constexpr XPy_FieldWithSize py3d10_cframe_fields[] = {
    field<uint8_t>("use_tracing"),
    field<void*>("current_frame"),
    field<void*>("previous"),
    kEndOfFields,
};

// C frame record of 3.12.
constexpr XPy_FieldWithSize py3d12_cframe_fields[] = {
    field<void*>("current_frame"),
    field<void*>("previous"),
    kEndOfFields,
};

// PyModuleDef, all of Python 3.
constexpr XPy_FieldWithSize py3_mod_def_fields[] = {
    kObjectHead,
    field<void*>("m_base.m_init"),
    field<Py_ssize_t>("m_base.m_index"),
    field<void*>("m_base.m_copy"),
    field<void*>("m_name"),
    field<void*>("m_doc"),
    field<Py_ssize_t>("m_size"),
    field<void*>("m_methods"),
    field<void*>("m_slots"),
    field<void*>("m_traverse"),
    field<void*>("m_clear"),
    field<void*>("m_free"),
    kEndOfFields,
};

// Frame object of Python 2 and of 3.0 - 3.3.
constexpr XPy_FieldWithSize frame_fields_pre_py3d4[] = {
    kVarObjectHead,
    field<void*>("f_back"),
    field<void*>("f_code"),
    field<void*>("f_builtins"),
    field<void*>("f_globals"),
    field<void*>("f_locals"),
    field<void*>("f_valuestack"),
    field<void*>("f_stacktop"),
    field<void*>("f_trace"),
    field<void*>("f_exc_type"),
    field<void*>("f_exc_value"),
    field<void*>("f_exc_traceback"),
    field<void*>("f_tstate"),
    field<int>("f_lasti"),
    field<int>("f_lineno"),
    field<int>("f_iblock"),
    kEndOfFields,
};

// Frame object of 3.4 - 3.6.
constexpr XPy_FieldWithSize frame_fields_py3d4[] = {
    kVarObjectHead,
    field<void*>("f_back"),
    field<void*>("f_code"),
    field<void*>("f_builtins"),
    field<void*>("f_globals"),
    field<void*>("f_locals"),
    field<void*>("f_valuestack"),
    field<void*>("f_stacktop"),
    field<void*>("f_trace"),
    field<void*>("f_exc_type"),
    field<void*>("f_exc_value"),
    field<void*>("f_exc_traceback"),
    field<void*>("f_gen"),
    field<int>("f_lasti"),
    field<int>("f_lineno"),
    field<int>("f_iblock"),
    kEndOfFields,
};

// Frame object of 3.7 - 3.9: per-frame switches for line and opcode events.
constexpr XPy_FieldWithSize frame_fields_py3d7[] = {
    kVarObjectHead,
    field<void*>("f_back"),
    field<void*>("f_code"),
    field<void*>("f_builtins"),
    field<void*>("f_globals"),
    field<void*>("f_locals"),
    field<void*>("f_valuestack"),
    field<void*>("f_stacktop"),
    field<void*>("f_trace"),
    field<char>("f_trace_lines"),
    field<char>("f_trace_opcodes"),
    field<void*>("f_gen"),
    field<int>("f_lasti"),
    field<int>("f_lineno"),
    field<int>("f_iblock"),
    kEndOfFields,
};

// Frame object of 3.10: stack depth and state instead of the stack top pointer.
constexpr XPy_FieldWithSize frame_fields_py3d10[] = {
    kVarObjectHead,
    field<void*>("f_back"),
    field<void*>("f_code"),
    field<void*>("f_builtins"),
    field<void*>("f_globals"),
    field<void*>("f_locals"),
    field<void*>("f_valuestack"),
    field<void*>("f_trace"),
    field<int>("f_stackdepth"),
    field<char>("f_trace_lines"),
    field<char>("f_trace_opcodes"),
    field<void*>("f_gen"),
    field<int>("f_lasti"),
    field<int>("f_lineno"),
    field<int>("f_iblock"),
    field<signed char>("f_state"),
    kEndOfFields,
};

static constexpr bool same_text(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

// Size of a row; type_offset is where the object header has its type pointer. -1 = not known.
static constexpr Py_ssize_t get_row_size(const XPy_FieldWithSize& row, Py_ssize_t type_offset) {
    constexpr Py_ssize_t kWord = sizeof(void*);
    if (same_text(row.name, kObjectHeadName)) {
        return type_offset > 0 ? type_offset + kWord : -1;
    }
    if (same_text(row.name, kVarObjectHeadName)) {
        return type_offset > 0 ? type_offset + 2 * kWord : -1;
    }
    return row.size;
}

// Fields are aligned to their own size, at most to a word: an 8-byte integer is 4-aligned on i386,
// and a structure has the alignment of its widest member.
static constexpr Py_ssize_t align_up(Py_ssize_t offset, Py_ssize_t size) {
    constexpr Py_ssize_t kWord = sizeof(void*);
    const Py_ssize_t alignment = size < kWord ? size : kWord;
    const Py_ssize_t excess = offset % alignment;
    return excess == 0 ? offset : offset + alignment - excess;
}

static constexpr Py_ssize_t lay_out(const char* name,
                                    const XPy_FieldWithSize* fields,
                                    Py_ssize_t type_offset) {
    Py_ssize_t offset = 0;
    for (const XPy_FieldWithSize* row = fields; row->name != nullptr; ++row) {
        const Py_ssize_t size = get_row_size(*row, type_offset);
        if (size < 1) {
            return -1;
        }
        if (row != fields) {
            offset = align_up(offset, size);
        }
        if (name != nullptr && same_text(row->name, name)) {
            return offset;
        }
        offset += size;
    }
    return name != nullptr ? -1 : offset;
}

Py_ssize_t FindFieldOffsetMissingOk(const char* name, const XPy_FieldWithSize* fields) {
    return lay_out(name, fields, gPy.pyobject_offsets.type);
}

Py_ssize_t FindFieldOffset(const char* name, const XPy_FieldWithSize* fields) {
    const Py_ssize_t offset = FindFieldOffsetMissingOk(name, fields);
    if (offset == -1) {
        fprintf(stderr, "Unable to find field offset for: %s\n", name != nullptr ? name : "");
    }
    return offset;
}

Py_ssize_t FindSizeOfAllFields(const XPy_FieldWithSize* fields) {
    return FindFieldOffsetMissingOk(nullptr, fields);
}

int SetFieldSize(XPy_FieldWithSize* fields, const char* name, Py_ssize_t size) {
    for (XPy_FieldWithSize* row = fields; row->name != nullptr; ++row) {
        if (strcmp(row->name, name) == 0) {
            row->size = size;
            return 1;
        }
    }
    return 0;
}

// The layouts as numbers, for a release build of either word size.
static constexpr bool at(const XPy_FieldWithSize* fields,
                         const char* name,
                         Py_ssize_t offset32,
                         Py_ssize_t offset64) {
    constexpr Py_ssize_t kReleaseTypeOffset = sizeof(void*);
    return lay_out(name, fields, kReleaseTypeOffset) == (sizeof(void*) == 8 ? offset64 : offset32);
}
static_assert(at(free_t_pyobject_fields, "ob_flags", 4, 8));
static_assert(at(free_t_pyobject_fields, "ob_mutex", 6, 10));
static_assert(at(free_t_pyobject_fields, "ob_type", 16, 24));
static_assert(at(typeobject_fields, "tp_basicsize", 16, 32));
static_assert(at(typeobject_fields, "tp_vectorcall_offset", 28, 56));
static_assert(at(typeobject_fields, "tp_flags", 84, 168));
static_assert(at(typeobject_fields, "tp_base", 128, 256));
static_assert(at(frame_fields_py3d7, "f_back", 12, 24));
static_assert(at(frame_fields_py3d7, "f_code", 16, 32));
static_assert(at(frame_fields_py3d7, "f_builtins", 20, 40));
static_assert(at(frame_fields_py3d7, "f_globals", 24, 48));
static_assert(at(frame_fields_py3d7, "f_locals", 28, 56));
static_assert(at(frame_fields_py3d7, "f_stacktop", 36, 72));
static_assert(at(frame_fields_py3d7, "f_trace", 40, 80));
static_assert(at(frame_fields_py3d7, "f_lineno", 56, 108));
static_assert(at(frame_fields_py3d7, "f_iblock", 60, 112));
static_assert(at(frame_fields_py3d10, "f_trace", 36, 72));
static_assert(at(frame_fields_py3d10, "f_lineno", 56, 100));
static_assert(at(frame_fields_py3d10, "f_iblock", 60, 104));
static_assert(at(frame_fields_py3d10, "f_state", 64, 108));
static_assert(at(frame_fields_pre_py3d4, "f_lineno", 64, 124));
static_assert(at(frame_fields_pre_py3d4, "f_iblock", 68, 128));
static_assert(at(frame_fields_py3d4, "f_lineno", 64, 124));
static_assert(at(frame_fields_py3d4, "f_iblock", 68, 128));
static_assert(at(py3d12_tstate_fields, "tracing", 32, 44));
static_assert(at(py3d12_tstate_fields, "what_event", 36, 48));
static_assert(at(py3d12_tstate_fields, "cframe", 40, 56));
static_assert(at(py3d12_tstate_fields, "c_tracefunc", 48, 72));
static_assert(at(py3d12_tstate_fields, "c_traceobj", 56, 88));
static_assert(at(py3d12_tstate_fields, "thread_id", 80, 136));
static_assert(at(py3d13_tstate_fields, "tracing", 44, 60));
static_assert(at(py3d13_tstate_fields, "what_event", 48, 64));
static_assert(at(py3d13_tstate_fields, "current_frame", 52, 72));
static_assert(at(py3d13_tstate_fields, "c_tracefunc", 60, 88));
static_assert(at(py3d13_tstate_fields, "c_traceobj", 68, 104));
static_assert(at(py3d13_tstate_fields, "thread_id", 92, 152));
static_assert(at(py3d14_tstate_fields, "tracing", 44, 60));
static_assert(at(py3d14_tstate_fields, "what_event", 48, 64));
static_assert(at(py3d14_tstate_fields, "current_frame", 52, 72));
static_assert(at(py3d14_tstate_fields, "c_tracefunc", 60, 88));
static_assert(at(py3d14_tstate_fields, "c_traceobj", 68, 104));
static_assert(at(py3d14_tstate_fields, "thread_id", 92, 152));
static_assert(at(py2_tstate_fields, "frame", 8, 16));
static_assert(at(py2_tstate_fields, "tracing", 16, 28));
static_assert(at(py2_tstate_fields, "use_tracing", 20, 32));
static_assert(at(py2_tstate_fields, "c_tracefunc", 28, 48));
static_assert(at(py2_tstate_fields, "c_traceobj", 36, 64));
static_assert(at(py2_tstate_fields, "thread_id", 80, 144));
static_assert(at(py3d0_tstate_fields, "thread_id", 84, 144));
static_assert(at(py3d10_cframe_fields, "current_frame", 4, 8));
static_assert(at(py3d12_cframe_fields, "current_frame", 0, 0));
static_assert(at(py3d7_core_config_fields, nullptr, 136, 220));
static_assert(at(py3d7_main_interpreter_config_fields, nullptr, 40, 80));
static_assert(at(py3d8_pyconfig_fields, nullptr, 232, 360));
static_assert(at(py3d6_interpreter_state_fields, "eval_frame", 60, 112));
static_assert(at(py3_mod_def_fields, "m_name", 20, 40));
static_assert(at(py3_mod_def_fields, "m_slots", 36, 72));
static_assert(at(py3_mod_def_fields, "m_free", 48, 96));
static_assert(at(pre312_pyobject_fields, "ob_type", 4, 8));
static_assert(at(py3d4_tstate_fields, "thread_id", 84, 152));
static_assert(at(py3d7_tstate_fields, "thread_id", 96, 176));
static_assert(at(py3d10_tstate_fields, "thread_id", 96, 176));
static_assert(at(py3d10_tstate_fields, "cframe", 32, 48));
static_assert(at(py3d11_tstate_fields, "cframe", 40, 56));
static_assert(at(py3d11_tstate_fields, "thread_id", 88, 152));
static_assert(lay_out("f_back", frame_fields_py3d7, 0) == -1);  // header not known yet
