// fake_python.h -- an interpreter made of a few structs, for the modules that only use the record.
// A test fills the record with these functions, so that versions, failures and missing fields that
// no interpreter at hand shows can be walked through, in both word sizes.
// Objects live until the program ends, since the modules keep attribute names for ever; a count
// that reaches 0 is remembered, not acted on.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dbgcommon.h"
#include "dprintf.h"

struct tFake : PyTypeObject {
    Py_ssize_t refcnt;
    PyTypeObject* type;
    std::string text;                     // of strings; name of everything else
    Py_ssize_t number = 0;                // of ints
    std::map<std::string, tFake*> attrs;  // owned
    bool makes_attributes = false;        // each look-up gives an object that nobody else holds
    std::vector<tFake*> items;            // of tuples, owned
    bool is_dead = false;
    // as frame, where the record's offsets point
    PyObject* f_trace = nullptr;
    int f_lineno = 0;
    int f_iblock = 0;
    int8_t f_state = 0;
    void* f_stacktop = nullptr;
    char f_trace_lines = 1;
    char f_trace_opcodes = 0;
};

struct tFakeThreadState {
    unsigned long thread_id = 0;
    int tracing = 0;
    int use_tracing = 0;
    int what_event = 0;
    PyObject* c_traceobj = nullptr;
    tFake* frame = nullptr;
};

inline std::vector<std::unique_ptr<tFake>> fake_objects;

struct tFakePython {
    tFake* type_type = nullptr;
    tFake* frame_type = nullptr;
    tFake* traceback_type = nullptr;
    tFake* generator_type = nullptr;
    tFake* coroutine_type = nullptr;
    tFake* str_type = nullptr;
    tFake* bytes_type = nullptr;
    tFake* other_type = nullptr;
    tFake* none = nullptr;
    tFake* true_ = nullptr;
    tFake* false_ = nullptr;

    tFakeThreadState thread_state;
    PyThreadState* current = nullptr;
    PyObject* error[3] = {nullptr, nullptr, nullptr};  // owned

    std::map<std::string, tFake*> sys;  // owned
    std::string written;                // what went to files with write
    std::string displayed;              // "file:exception;" per displayed exception
    int flushes = 0;
    int enters = 0;
    int leaves = 0;
    bool fail_format = false;
    int fail_strings = 0;  // how many of the next strings cannot be made
    bool fail_write = false;
    bool fail_flush = false;
    bool fail_attr_set = false;
    bool no_repr = false;
    int repr_calls = 0;
    int line_number = 0;  // what the line-number slot says
    int line_number_calls = 0;
    tFake* generator_of_frame = nullptr;  // what the generator slot says
    std::function<void()> on_write;
    std::function<void()> on_repr;
    std::vector<std::string> set_attrs;
    std::vector<std::pair<PyThreadState*, PyObject*>> traces_set;
    int other_trace_result = 0;

    tFake* make(tFake* type, const std::string& text = "") {
        fake_objects.push_back(std::make_unique<tFake>());
        tFake* const obj = fake_objects.back().get();
        obj->refcnt = 1;
        obj->type = type;
        obj->text = text;
        return obj;
    }
    tFake* str(const std::string& text) { return make(str_type, text); }
    tFake* num(Py_ssize_t number) {
        tFake* const obj = make(other_type, "int");
        obj->number = number;
        return obj;
    }
    void raise(const std::string& text) {
        for (PyObject*& part : error) {
            XPy_DoDecRef(part);
            part = nullptr;
        }
        error[0] = make(type_type, text);
    }
    std::string pending() const {
        return error[0] != nullptr ? static_cast<tFake*>(error[0])->text : "";
    }
};

inline tFakePython* fake = nullptr;

inline tFake* as_fake(PyObject* obj) {
    return static_cast<tFake*>(obj);
}

template <class T>
Py_ssize_t fake_offset(T tFake::*field) {
    static tFake probe;
    return reinterpret_cast<char*>(&(probe.*field)) - reinterpret_cast<char*>(&probe);
}

template <class T>
Py_ssize_t fake_ts_offset(T tFakeThreadState::*field) {
    static tFakeThreadState probe;
    return reinterpret_cast<char*>(&(probe.*field)) - reinterpret_cast<char*>(&probe);
}

inline PyObject* fake_get_attr(PyObject* obj, PyObject* name) {
    EXPECT_EQ("", fake->pending()) << "no call with an error pending";
    if (obj == nullptr) {
        ADD_FAILURE() << "an interpreter would crash";
        return nullptr;
    }
    tFake* const owner = as_fake(obj);
    if (owner->makes_attributes) {
        return fake->str("made on the fly");
    }
    const auto found = owner->attrs.find(as_fake(name)->text);
    if (found == owner->attrs.end()) {
        fake->raise("AttributeError: " + as_fake(name)->text);
        return nullptr;
    }
    return new_ref(static_cast<PyObject*>(found->second));
}

inline int fake_set_attr(PyObject* obj, PyObject* name, PyObject* value) {
    EXPECT_NE(nullptr, obj) << "an interpreter would crash";
    if (fake->fail_attr_set) {
        fake->raise("TypeError");
        return -1;
    }
    fake->set_attrs.push_back(as_fake(name)->text + "=" + as_fake(value)->text);
    tFake*& slot = as_fake(obj)->attrs[as_fake(name)->text];
    tFake* const old = slot;
    slot = as_fake(new_ref(value));
    XPy_DoDecRef(old);
    return 0;
}

inline PyObject* fake_string(const char* text) {
    EXPECT_EQ("", fake->pending()) << "no call with an error pending";
    if (fake->fail_strings > 0) {
        --fake->fail_strings;
        fake->raise("MemoryError");
        return nullptr;
    }
    return fake->str(text);
}

inline PyObject* fake_format(const char* format, va_list args) {
    if (fake->fail_format) {
        fake->raise("ValueError: format");
        return nullptr;
    }
    char text[10000];
    vsnprintf(text, sizeof(text), format, args);
    return fake->str(text);
}

inline int fake_write(PyObject* line, PyObject*, int) {
    if (fake->fail_write) {
        fake->raise("OSError");
        return -1;
    }
    if (fake->on_write) {
        fake->on_write();
    }
    fake->written += as_fake(line)->text;
    return 0;
}

inline PyObject* fake_call_method(PyObject*, const char*, const char*, ...) {
    ++fake->flushes;
    if (fake->fail_flush) {
        fake->raise("OSError");
        return nullptr;
    }
    return new_ref(static_cast<PyObject*>(fake->none));
}

inline PyObject* fake_sys_get(const char* name) {
    const auto found = fake->sys.find(name);
    return found != fake->sys.end() ? found->second : nullptr;
}

inline int fake_sys_set(const char* name, PyObject* value) {
    tFake*& slot = fake->sys[name];
    tFake* const old = slot;
    slot = as_fake(new_ref(value));
    XPy_DoDecRef(old);
    return 0;
}

inline void fake_display(PyObject* type, PyObject*, PyObject*) {
    fake->displayed += fake->sys["stderr"]->text + ":" + as_fake(type)->text + ";";
}

inline PyObject* fake_repr(PyObject* obj) {
    ++fake->repr_calls;
    if (fake->on_repr) {
        fake->on_repr();
    }
    if (fake->no_repr) {
        fake->raise("RuntimeError: repr");
        return nullptr;
    }
    return fake->str("<" + as_fake(obj)->text + ">");
}

inline void fake_fetch(PyObject** type, PyObject** value, PyObject** tb) {
    *type = fake->error[0];
    *value = fake->error[1];
    *tb = fake->error[2];
    fake->error[0] = fake->error[1] = fake->error[2] = nullptr;
}

inline void fake_restore(PyObject* type, PyObject* value, PyObject* tb) {
    for (PyObject* const part : fake->error) {
        XPy_DoDecRef(part);
    }
    fake->error[0] = type;
    fake->error[1] = value;
    fake->error[2] = tb;
}

// Fills the record; a fixture calls it in SetUp. Version 3.11 with the direct count; no offsets
// but the header's and the thread state's.
inline void bind_fake_objects() {
    gPy.pyobject_offsets = {.refcnt = fake_offset(&tFake::refcnt),
                            .type = fake_offset(&tFake::type),
                            .mutex = -1,
                            .overflow = -1,
                            .flags = -1};
    gPy.Py_IncRef = [](PyObject* obj) { ++as_fake(obj)->refcnt; };
    gPy.Py_DecRef = [](PyObject* obj) { as_fake(obj)->is_dead = --as_fake(obj)->refcnt == 0; };
    gPy.PyType_IsSubtype = [](PyTypeObject* a, PyTypeObject* b) {
        return static_cast<int>(as_fake(a)->attrs.count("base") != 0 &&
                                as_fake(a)->attrs["base"] == b);
    };
    fake->type_type = fake->make(nullptr, "type");
    fake->type_type->type = fake->type_type;
    const auto new_type = [](const char* name) { return fake->make(fake->type_type, name); };
    gPy.PyFrame_Type_ptr = fake->frame_type = new_type("frame");
    gPy.PyTraceBack_Type_ptr = fake->traceback_type = new_type("traceback");
    gPy.PyGen_Type_ptr = fake->generator_type = new_type("generator");
    gPy.PyCoro_Type_ptr = fake->coroutine_type = new_type("coroutine");
    gPy.PyUnicode_Type_ptr = fake->str_type = new_type("str");
    gPy.PyBytes_Type_ptr = fake->bytes_type = new_type("bytes");
    fake->other_type = new_type("other");
    gPy.Py_None = fake->none = fake->make(fake->other_type, "None");
    gPy.Py_True = fake->true_ = fake->make(fake->other_type, "True");
    gPy.Py_False = fake->false_ = fake->make(fake->other_type, "False");
}

inline void bind_fake_errors() {
    gPy.PyErr_Occurred = [] { return fake->error[0]; };
    gPy.PyErr_Fetch = fake_fetch;
    gPy.PyErr_Restore = fake_restore;
    gPy.PyErr_Clear = [] { fake_restore(nullptr, nullptr, nullptr); };
    gPy.PyErr_NormalizeException = [](PyObject**, PyObject**, PyObject**) {};
    gPy.PyErr_Display = fake_display;
}

inline void bind_fake_strings() {
    const auto contents = [](PyObject* obj) -> const char* {
        if (as_fake(obj)->text == "unencodable") {
            fake->raise("UnicodeEncodeError");
            return nullptr;
        }
        return as_fake(obj)->text.c_str();
    };
    gPy._PyUnicode_AsString = contents;
    gPy.PyBytes_AsString = [](PyObject* obj) { return &as_fake(obj)->text[0]; };
    gPy.PyString_AsString = [](PyObject* obj) { return &as_fake(obj)->text[0]; };
    gPy.PyUnicode_FromString = fake_string;
    gPy.PyString_FromString = fake_string;
    gPy.PyUnicode_FromFormatV = fake_format;
    gPy.PyString_FromFormatV = fake_format;
    gPy.PyLong_AsSsize_t = [](PyObject* obj) {
        if (as_fake(obj)->text != "int") {
            fake->raise("TypeError: int");
            return Py_ssize_t{-1};
        }
        return as_fake(obj)->number;
    };
    gPy.PyInt_AsSsize_t = gPy.PyLong_AsSsize_t;
    gPy.PyLong_FromSsize_t = [](Py_ssize_t number) -> PyObject* { return fake->num(number); };
    gPy.PyInt_FromSsize_t = gPy.PyLong_FromSsize_t;
}

inline void bind_fake_calls() {
    gPy.PyObject_GetAttr = fake_get_attr;
    gPy.PyObject_SetAttr = fake_set_attr;
    gPy.PyObject_Repr = fake_repr;
    gPy.PyObject_CallMethod = fake_call_method;
    gPy.PyObject_IsTrue = [](PyObject* obj) {
        if (as_fake(obj)->text == "no truth") {
            fake->raise("ValueError: truth");
            return -1;
        }
        return static_cast<int>(as_fake(obj)->number != 0);
    };
    gPy.PyObject_GetItem = [](PyObject* obj, PyObject* key) { return fake_get_attr(obj, key); };
    gPy.PyFile_WriteObject = fake_write;
    gPy.PySys_GetObject = fake_sys_get;
    gPy.PySys_SetObject = fake_sys_set;
    gPy.PyTuple_New = [](Py_ssize_t) -> PyObject* { return fake->make(fake->other_type, "tuple"); };
    gPy.PyTuple_SetItem = [](PyObject* tuple, Py_ssize_t, PyObject* item) {
        as_fake(tuple)->items.push_back(as_fake(item));
        return 0;
    };
    gPy.PyObject_CallObject = [](PyObject* callable, PyObject* args) -> PyObject* {
        std::string text = as_fake(callable)->text + "(";
        for (tFake* const item : as_fake(args)->items) {
            text += item->text + ",";
        }
        return fake->str(text + ")");
    };
}

inline void bind_fake_frames() {
    gPy.PyFrame_GetLineNumber = [](PyFrameObject*) {
        ++fake->line_number_calls;
        return fake->line_number;
    };
    gPy.PyFrame_GetBack = [](PyFrameObject* frame) -> PyFrameObject* {
        PyObject* const obj = frame;
        tFake* const back = static_cast<tFake*>(obj)->attrs["f_back"];
        return static_cast<PyFrameObject*>(new_ref(static_cast<PyObject*>(back)));
    };
    gPy.PyFrame_GetCode = [](PyFrameObject* frame) -> PyCodeObject* {
        PyObject* const obj = frame;
        tFake* const code = static_cast<tFake*>(obj)->attrs["f_code"];
        return static_cast<PyCodeObject*>(new_ref(static_cast<PyObject*>(code)));
    };
    gPy.PyFrame_GetGenerator = [](PyFrameObject*) {
        return new_ref(static_cast<PyObject*>(fake->generator_of_frame));
    };
}

inline void bind_fake_threads() {
    gPy.tstate_offsets = {.next = -1,
                          .interp = -1,
                          .frame = -1,
                          .c_tracefunc = -1,
                          .c_traceobj = fake_ts_offset(&tFakeThreadState::c_traceobj),
                          .thread_id = fake_ts_offset(&tFakeThreadState::thread_id),
                          .tracing = fake_ts_offset(&tFakeThreadState::tracing),
                          .use_tracing = -1,
                          .cframe = -1,
                          .what_event = -1};
    fake->current = reinterpret_cast<PyThreadState*>(&fake->thread_state);
    gPy.PyThreadState_Get = [] { return fake->current; };
    gPy.PyThreadState_GetFrame = [](PyThreadState* tstate) {
        PyObject* const frame = reinterpret_cast<tFakeThreadState*>(tstate)->frame;
        return static_cast<PyFrameObject*>(new_ref(frame));
    };
    gPy.PyThreadState_EnterTracing = [](PyThreadState* tstate) {
        ++reinterpret_cast<tFakeThreadState*>(tstate)->tracing;
        ++fake->enters;
    };
    gPy.PyThreadState_LeaveTracing = [](PyThreadState* tstate) {
        --reinterpret_cast<tFakeThreadState*>(tstate)->tracing;
        ++fake->leaves;
    };
    gPy.PyEval_SetTrace = [](Py_tracefunc, PyObject* obj) {
        fake->traces_set.push_back({fake->current, obj});
    };
    gPy._PyEval_SetTrace = [](PyThreadState* tstate, Py_tracefunc, PyObject* obj) {
        fake->traces_set.push_back({tstate, obj});
        if (fake->other_trace_result != 0) {
            fake->raise("RuntimeError: audit");
        }
        return fake->other_trace_result;
    };
}

// For those who need lists; in the fixture there are none.
inline void bind_fake_lists() {
    gPy.PyList_New = [](Py_ssize_t size) -> PyObject* {
        tFake* const list = fake->make(fake->other_type, "list");
        list->items.resize(static_cast<size_t>(size));
        return list;
    };
    gPy.PyList_Append = [](PyObject* list, PyObject* item) {
        as_fake(list)->items.push_back(as_fake(new_ref(item)));
        return 0;
    };
    gPy.PyList_SetItem = [](PyObject* list, Py_ssize_t index, PyObject* item) {
        as_fake(list)->items[static_cast<size_t>(index)] = as_fake(item);
        return 0;
    };
    gPy.PyList_GetItem = [](PyObject* list, Py_ssize_t index) -> PyObject* {
        return as_fake(list)->items[static_cast<size_t>(index)];
    };
}

// All of it but the lists, as version 3.11.
inline void bind_fake_interpreter() {
    gPy = XPy_C_API_Data{};
    gPy.major_version = 3;
    gPy.minor_version = 11;
    gPy.can_update_refcount_directly = 1;
    gPy.frame_offsets = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    bind_fake_objects();
    bind_fake_errors();
    bind_fake_strings();
    bind_fake_calls();
    bind_fake_frames();
    bind_fake_threads();
}

// The fixture: a new interpreter of version 3.11 per test, the log off.
class FakePython : public testing::Test {
protected:
    void SetUp() override {
        fake = &python_;
        old_api_ = global_XPy_C_API_Data;
        old_probed_ = gProbed;
        gProbed = {-1, -1, -1};
        bind_fake_interpreter();
        gDPrintfMask = kDefaultLogMask;
        gDPrintfFile = nullptr;
        gDPrintfNativeFileno = -1;
        init_dp_data(&gUnsafeGlobalDPData, 1);
    }
    void TearDown() override {
        set_dprintf_file(nullptr, -1, nullptr);
        clear_dp_data(&gUnsafeGlobalDPData);
        gUnsafeGlobalDPData = {};
        global_XPy_C_API_Data = old_api_;
        gProbed = old_probed_;
    }
    void set_version(int major, int minor) {
        gPy.major_version = major;
        gPy.minor_version = minor;
    }
    // Switches the log on; returns its file.
    tFake* log_to_file() {
        tFake* const file = python_.make(python_.other_type, "log file");
        set_dprintf_file(file, -1, nullptr);
        return file;
    }

    tFakePython python_;

private:
    XPy_C_API_Data old_api_;
    tProbedOffsets old_probed_;
};
