// exceptops_frames.cpp -- the exception that each frame has seen, kept until the exception leaves
// the frame. A record holds its frame and, through the traceback, the frame's callers, so those of
// frames that nobody else knows any more are collected.
#include "exceptops.h"

#include "dprintf.h"
#include "guards.h"
#include "xpy_c_api.h"

static constexpr int kMaxCollectedPerPass = 100;
static constexpr int kMaxTracebackEntries = 1000;

static bool has_traceback(PyObject* exc_info) {
    return is_instance_of(exc_info, gPy.PyTuple_Type_ptr) && gPy.PyTuple_Size(exc_info) == 3 &&
           is_instance_of(gPy.PyTuple_GetItem(exc_info, 2), gPy.PyTraceBack_Type_ptr);
}

// The frame called by `caller` on the stack of `frame`, borrowed; null when caller is not on it.
static PyFrameObject* borrow_frame_inside(PyFrameObject* frame, PyFrameObject* caller) {
    PyFrameObject* inside = frame;
    tOwnedFrame back(get_frame_back(frame));
    while (back && back.borrow() != caller) {
        inside = back.borrow();
        back.reset(get_frame_back(inside));
    }
    return back ? inside : nullptr;
}

// References to the frame from its own recorded traceback: one per entry that is in the frame, and
// one from the frame that it called, which knows it as its caller.
static Py_ssize_t count_own_references(PyFrameObject* frame, PyObject* traceback) {
    Py_ssize_t count = 0;
    PyFrameObject* last_inside = nullptr;
    PyObject* tb = traceback;
    for (int i = 0; i < kMaxTracebackEntries && tb != nullptr; i++) {
        PyFrameObject* const tb_frame = borrow_traceback_frame(tb);
        if (tb_frame == frame) {
            count++;
        } else if (tb_frame != nullptr) {
            PyFrameObject* const inside = borrow_frame_inside(tb_frame, frame);
            count += inside != nullptr && inside != last_inside;
            last_inside = inside != nullptr ? inside : last_inside;
        }
        tb = borrow_traceback_next(tb);
    }
    return count;
}

// Nothing but the debugger's own book-keeping refers to the frame.
static bool is_garbage(PyObject* key, PyObject* exc_info) {
    const Py_ssize_t references = XPy_GetRefCnt(key);
    if (references <= 1) {
        return references == 1;  // -1: counts cannot be read here, so nothing is collected
    }
    return has_traceback(exc_info) && is_frame(key) &&
           count_own_references(static_cast<PyFrameObject*>(key),
                                gPy.PyTuple_GetItem(exc_info, 2)) == references - 1;
}

// Steals the references: dropping one record may run code that drops others.
static int delete_keys(PyObject* dict, PyObject* const* keys, int count) {
    int result = 0;
    for (int i = 0; i < count; i++) {
        tOwnedRef key(keys[i]);
        if (gPy.PyDict_DelItem(dict, key.borrow()) == -1) {
            DPRINTF(kLogExceptions, "PyDict_DelItem failed in gc_exc_info_for_frame()\n");
            result = -1;
        }
    }
    return result;
}

// 0, or -1 with an exception set.
static int gc_exc_info_for_frame(PyObject* dict) {
    PyObject* garbage[kMaxCollectedPerPass];
    int count = 0;
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (count < kMaxCollectedPerPass && gPy.PyDict_Next(dict, &pos, &key, &value)) {
        if (is_garbage(key, value)) {
            garbage[count++] = new_ref(key);
        }
    }
    return delete_keys(dict, garbage, count);
}

int set_frame_exc_info(tExcData* exc_data, PyFrameObject* frame, PyObject* exc_info) {
    DPRINTF(kLogExceptions,
            "entering set_frame_exc_info for frame %s\n",
            get_dprintf_frame_str1(frame));
    if (exc_data->exc_info_for_frame != nullptr) {
        if (gc_exc_info_for_frame(exc_data->exc_info_for_frame) == -1) {
            DPRINTF(kLogExceptions, "  set_frame_exc_info cleared exception\n");
        }
        gPy.PyErr_Clear();
    }
    // Dropping a record may run code of the program; what it did to our dict is looked at afresh.
    if (exc_data->exc_info_for_frame == nullptr) {
        exc_data->exc_info_for_frame = gPy.PyDict_New();
    }
    if (exc_data->exc_info_for_frame == nullptr) {
        return -1;
    }
    tOwnedRef dict(new_ref(exc_data->exc_info_for_frame));
    return gPy.PyDict_SetItem(dict.borrow(), frame, exc_info);
}

PyObject* find_frame_exc_info(tExcData* exc_data, PyFrameObject* frame) {
    return exc_data->exc_info_for_frame != nullptr
               ? gPy.PyDict_GetItem(exc_data->exc_info_for_frame, frame)
               : nullptr;
}

int forget_frame_exc_info(tExcData* exc_data, PyFrameObject* frame) {
    DPRINTF(kLogExceptions,
            "entering forget_frame_exc_info for frame %s\n",
            get_dprintf_frame_str1(frame));
    if (exc_data->exc_info_for_frame == nullptr) {
        return 0;
    }
    tSavedError saved;
    tOwnedRef dict(new_ref(exc_data->exc_info_for_frame));
    if (gPy.PyDict_Contains(dict.borrow(), frame) == 1 &&
        gPy.PyDict_DelItem(dict.borrow(), frame) == -1) {
        gPy.PyErr_Clear();
    }
    if (gc_exc_info_for_frame(dict.borrow()) == -1) {
        gPy.PyErr_Clear();
    }
    if (dict.borrow() == exc_data->exc_info_for_frame && gPy.PyDict_Size(dict.borrow()) < 1) {
        set_owned<PyObject>(&exc_data->exc_info_for_frame, nullptr);
    }
    return 0;
}
