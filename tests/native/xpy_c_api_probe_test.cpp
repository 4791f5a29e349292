// xpy_c_api_probe_test.cpp -- what start-up proves on live objects, in every interpreter at hand.
#include <gtest/gtest.h>

#include "guards.h"
#include "support/interpreter.h"
#include "xpy_c_api_fallbacks.h"
#include "xpy_c_api_internal.h"

namespace {

constexpr int kEvalInput = 258;
constexpr int kFileInput = 257;

// Value of an expression in a namespace with the builtins. New ref.
PyObject* evaluate(const char* text, int start = kEvalInput) {
    tOwnedRef globals(gPy.PyDict_New());
    gPy.PyDict_SetItemString(globals.borrow(), "__builtins__", gPy.PyEval_GetBuiltins());
    return gPy.PyRun_String(text, start, globals.borrow(), globals.borrow());
}

long long to_number(PyObject* obj) {
    tOwnedRef number(obj);
    return number ? gPy.PyLong_AsLongLong(number.borrow()) : -1;
}

TEST(Probe, EveryFieldIsFoundOnEverySupportedVersion) {
    run_in_each_interpreter([] {
        EXPECT_NE(gProbed.frame_trace, -1);
        EXPECT_NE(gProbed.code_flags, -1);
        EXPECT_EQ(gProbed.frame_trace_lines != -1, version_at_least(3, 7));
        if (gPy.frame_offsets.trace != -1) {
            EXPECT_EQ(gProbed.frame_trace, gPy.frame_offsets.trace);
        }
        EXPECT_EQ(gPy.PyErr_Occurred(), nullptr);
    });
}

TEST(Probe, FieldsFollowTheAttributes) {
    run_in_each_interpreter([] {
        tOwnedRef frame(evaluate("(lambda *a: __import__('sys')._getframe())()"));
        ASSERT_TRUE(is_frame(frame.borrow()));
        tOwnedRef marker(gPy.PyList_New(0));
        EXPECT_EQ(gPy.PyObject_SetAttrString(frame.borrow(), "f_trace", marker.borrow()), 0);
        EXPECT_EQ(read_field<PyObject*>(frame.borrow(), gProbed.frame_trace), marker.borrow());
        if (gProbed.frame_trace_lines != -1) {
            EXPECT_EQ(read_field<char>(frame.borrow(), gProbed.frame_trace_lines), 1);
            gPy.PyObject_SetAttrString(frame.borrow(), "f_trace_lines", gPy.Py_False);
            EXPECT_EQ(read_field<char>(frame.borrow(), gProbed.frame_trace_lines), 0);
        }
        tOwnedRef code(gPy.PyObject_GetAttrString(frame.borrow(), "f_code"));
        EXPECT_EQ(read_field<int>(code.borrow(), gProbed.code_flags),
                  to_number(gPy.PyObject_GetAttrString(code.borrow(), "co_flags")));
    });
}

TEST(Probe, DoesNothingWhileAnExceptionIsPending) {
    run_in_each_interpreter([] {
        gPy.PyErr_SetString(gPy.PyExc_ValueError, "the program's own");
        probe_live_objects();
        EXPECT_EQ(gProbed.frame_trace, -1);
        EXPECT_EQ(gProbed.code_flags, -1);
        EXPECT_NE(gPy.PyErr_GivenExceptionMatches(gPy.PyErr_Occurred(), gPy.PyExc_ValueError), 0);
        gPy.PyErr_Clear();
    });
}

int gEvents = 0;

TEST(Probe, WorksUnderATraceFunctionThatSeesNothingOfIt) {
    run_in_each_interpreter([] {
        if (gPy.tstate_offsets.tracing == -1) {
            return;  // a version after the last known
        }
        gPy.PyEval_SetTrace(
            [](PyObject*, PyFrameObject*, int, PyObject*) {
                gEvents++;
                return 0;
            },
            nullptr);
        const tProbedOffsets before = gProbed;
        gEvents = 0;
        probe_live_objects();
        EXPECT_EQ(gEvents, 0);
        EXPECT_EQ(gProbed.frame_trace, before.frame_trace);
        EXPECT_EQ(gProbed.frame_trace_lines, before.frame_trace_lines);
        EXPECT_EQ(gProbed.code_flags, before.code_flags);
        XPy_DoDecRef(evaluate("(lambda: 1)()"));
        EXPECT_GT(gEvents, 0);  // still installed
        gPy.PyEval_SetTrace(nullptr, nullptr);
    });
}

TEST(Probe, BrokenBuiltinsLeaveTheSlowRoad) {
    run_in_each_interpreter([] {
        XPy_DoDecRef(evaluate("import sys\nsys._getframe = None\n", kFileInput));
        probe_live_objects();
        EXPECT_EQ(gProbed.frame_trace, -1);
        EXPECT_EQ(gProbed.frame_trace_lines, -1);
        EXPECT_NE(gProbed.code_flags, -1);
        EXPECT_EQ(gPy.PyErr_Occurred(), nullptr);
    });
}

TEST(RealInterpreter, UnraisableErrorIsReportedAndCleared) {
    run_in_each_interpreter([] {
        gPy.PyErr_SetString(gPy.PyExc_ValueError, "the program's own");
        testing::internal::CaptureStderr();
        Backup_PyErr_FormatUnraisable("in number %d", 5);
        XPy_DoDecRef(evaluate("import sys\nsys.stderr.flush()\n", kFileInput));
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_NE(text.find("in number 5"), std::string::npos) << text;
        EXPECT_NE(text.find("the program's own"), std::string::npos) << text;
        EXPECT_EQ(gPy.PyErr_Occurred(), nullptr);
    });
}

}  // namespace
