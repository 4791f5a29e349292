// Accessors on an interpreter made of fakes: versions, missing fields and failures at will.
#include "dbgcommon.h"

#include <stdlib.h>

#include "fake_python.h"

namespace {

class Frames : public FakePython {
protected:
    PyFrameObject* make_frame() { return as_frame(python_.make(python_.frame_type, "frame")); }
    PyFrameObject* make_frame_like() { return as_frame(python_.make(python_.other_type, "like")); }
    static PyFrameObject* as_frame(PyObject* obj) { return static_cast<PyFrameObject*>(obj); }
    static tFake* fields_of(PyFrameObject* frame) {
        PyObject* const obj = frame;
        return as_fake(obj);
    }
    PyCodeObject* make_code() {
        PyObject* const obj = python_.make(python_.other_type, "code");
        return static_cast<PyCodeObject*>(obj);
    }
    static tFake* fields_of(PyCodeObject* code) {
        PyObject* const obj = code;
        return as_fake(obj);
    }
};
class TraceObject : public Frames {};
class TraceLines : public Frames {};
class Suspended : public Frames {};
class Codes : public Frames {};
class Tracebacks : public Frames {};
class Borrowing : public Frames {};
class Strings : public FakePython {};
class Calls : public FakePython {};
class ThreadStates : public Frames {
protected:
    PyThreadState* own() { return python_.current; }
    PyThreadState* other() { return reinterpret_cast<PyThreadState*>(&other_); }
    tFakeThreadState other_;
};

// Frames.

TEST_F(Frames, FrameLikeWithNoneAsBackIsOutermost) {
    PyFrameObject* const frame = make_frame_like();
    fields_of(frame)->attrs["f_back"] = python_.none;
    const Py_ssize_t before = python_.none->refcnt;
    EXPECT_EQ(nullptr, get_frame_back(frame));
    EXPECT_EQ(1, is_outermost_frame(frame));
    EXPECT_EQ(before, python_.none->refcnt);
}

TEST_F(Frames, BackThatCannotBeMadeLeavesNoException) {
    PyFrameObject* const frame = make_frame();
    gPy.PyFrame_GetBack = [](PyFrameObject*) -> PyFrameObject* {
        fake->raise("MemoryError");
        return nullptr;
    };
    EXPECT_EQ(nullptr, get_frame_back(frame));
    EXPECT_EQ("", python_.pending());
    EXPECT_EQ(1, is_outermost_frame(frame));
    EXPECT_EQ("", python_.pending());
}

TEST_F(Frames, NoBackLeavesThePendingExceptionAlone) {
    PyFrameObject* const frame = make_frame();
    python_.raise("ValueError");
    EXPECT_EQ(nullptr, get_frame_back(frame));
    EXPECT_EQ("ValueError", python_.pending());
    gPy.PyErr_Clear();
}

TEST_F(Frames, BackIsANewReference) {
    for (PyFrameObject* const frame : {make_frame(), make_frame_like()}) {
        tFake* const caller = python_.make(python_.frame_type, "caller");
        fields_of(frame)->attrs["f_back"] = caller;
        EXPECT_EQ(as_frame(caller), get_frame_back(frame));
        EXPECT_EQ(2, caller->refcnt);
        EXPECT_EQ(0, is_outermost_frame(frame));
        EXPECT_EQ(2, caller->refcnt);
    }
}

TEST_F(Frames, SubtypeOfFrameIsAFrame) {
    tFake* const subtype = python_.make(python_.type_type, "my frame");
    subtype->attrs["base"] = python_.frame_type;
    gPy.frame_offsets.iblock = fake_offset(&tFake::f_iblock);
    tFake* const frame = python_.make(subtype);
    frame->f_iblock = 3;
    EXPECT_EQ(3, get_frame_iblock(as_frame(frame)));
}

TEST_F(Frames, NoBlockStackIsMinusOne) {
    EXPECT_EQ(-1, get_frame_iblock(make_frame()));
}

TEST_F(Frames, NoneAsGeneratorIsNoGenerator) {
    const Py_ssize_t before = python_.none->refcnt;
    python_.generator_of_frame = python_.none;
    EXPECT_EQ(nullptr, get_frame_generator(make_frame()));
    EXPECT_EQ(before, python_.none->refcnt);
    python_.generator_of_frame = python_.make(python_.generator_type);
    EXPECT_EQ(python_.generator_of_frame, get_frame_generator(make_frame()));
    EXPECT_EQ(2, python_.generator_of_frame->refcnt);
}

TEST_F(Frames, MissingAttributesOfFrameLikesAreNullAndCleared) {
    PyFrameObject* const like = make_frame_like();
    EXPECT_EQ(nullptr, get_frame_back(like));
    EXPECT_EQ(nullptr, get_frame_globals(like));
    EXPECT_EQ(nullptr, get_frame_locals(like));
    EXPECT_EQ(nullptr, get_frame_code(like));
    EXPECT_EQ(nullptr, get_frame_generator(like));
    EXPECT_EQ(nullptr, get_frame_builtins(like));
    EXPECT_EQ(-1, get_frame_lineno(like));
    EXPECT_EQ("", python_.pending());
}

TEST_F(Frames, NullFrameIsAnsweredNotFollowed) {
    EXPECT_EQ(nullptr, get_frame_back(nullptr));
    EXPECT_EQ(nullptr, get_frame_globals(nullptr));
    EXPECT_EQ(nullptr, borrow_frame_trace(nullptr));
    EXPECT_EQ(nullptr, get_frame_code(nullptr));
    EXPECT_EQ(-1, get_frame_lineno(nullptr));
    EXPECT_EQ(-1, get_frame_iblock(nullptr));
    EXPECT_EQ(0, get_frame_suspended_generator(nullptr));
    set_frame_trace(nullptr, python_.true_);
    EXPECT_EQ(0, set_frame_trace_lines(nullptr, 1));
    EXPECT_EQ(-1, get_code_firstlineno(nullptr));
    EXPECT_EQ(nullptr, get_code_filename(nullptr));
    EXPECT_EQ(nullptr, borrow_traceback_next(nullptr));
    EXPECT_EQ("", python_.pending());
}

TEST_F(Frames, ExceptionOfTheProgramSurvivesTheStackWalk) {
    PyFrameObject* const frame = make_frame();
    fields_of(frame)->attrs["f_back"] = nullptr;
    python_.raise("ThrownIntoGenerator");
    EXPECT_EQ(nullptr, get_frame_back(frame));
    EXPECT_EQ(1, is_outermost_frame(frame));
    EXPECT_EQ(0, get_frame_suspended_generator(frame));
    EXPECT_EQ("ThrownIntoGenerator", python_.pending());
}

TEST_F(Frames, AttributesOfFrameLikes) {
    PyFrameObject* const like = make_frame_like();
    fields_of(like)->attrs["f_globals"] = python_.true_;
    fields_of(like)->attrs["f_locals"] = python_.false_;
    fields_of(like)->attrs["f_lineno"] = python_.num(44);
    EXPECT_EQ(python_.true_, get_frame_globals(like));
    EXPECT_EQ(python_.false_, get_frame_locals(like));
    EXPECT_EQ(44, get_frame_lineno(like));
}

// The trace object.

TEST_F(TraceObject, AttributeWhereTheFieldIsUnknown) {
    PyFrameObject* const frame = make_frame();
    tFake* const trace = python_.make(python_.other_type, "trace");
    set_frame_trace(frame, trace);
    EXPECT_EQ(trace, borrow_frame_trace(frame));
    EXPECT_EQ(2, trace->refcnt);
    set_frame_trace(frame, nullptr);
    EXPECT_EQ(nullptr, borrow_frame_trace(frame)) << "None";
    EXPECT_EQ(1, trace->refcnt);
    EXPECT_EQ((std::vector<std::string>{"f_trace=trace", "f_trace=None"}), python_.set_attrs);
}

TEST_F(TraceObject, FailureOfTheAttributeIsLoggedAndCleared) {
    log_to_file();
    python_.fail_attr_set = true;
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    set_frame_trace(make_frame(), python_.true_);
    EXPECT_EQ("Exception raised when setting f_trace on frame", python_.written);
    EXPECT_EQ("log file:TypeError;", python_.displayed);
    EXPECT_EQ("", python_.pending());
}

TEST_F(TraceObject, FieldIsWrittenWithItsReferences) {
    gPy.frame_offsets.trace = fake_offset(&tFake::f_trace);
    PyFrameObject* const frame = make_frame();
    tFake* const first = python_.make(python_.other_type, "first");
    tFake* const second = python_.make(python_.other_type, "second");
    set_frame_trace(frame, first);
    set_frame_trace(frame, first);
    EXPECT_EQ(first, borrow_frame_trace(frame));
    EXPECT_EQ(2, first->refcnt);
    set_frame_trace(frame, second);
    EXPECT_EQ(1, first->refcnt);
    EXPECT_EQ(2, second->refcnt);
    set_frame_trace(frame, python_.none);
    EXPECT_EQ(nullptr, fields_of(frame)->f_trace);
    EXPECT_EQ(1, second->refcnt);
    EXPECT_TRUE(python_.set_attrs.empty());
}

TEST_F(TraceObject, NoneInTheFieldIsNoTraceObject) {
    gPy.frame_offsets.trace = fake_offset(&tFake::f_trace);
    PyFrameObject* const frame = make_frame();
    fields_of(frame)->f_trace = python_.none;
    EXPECT_EQ(nullptr, borrow_frame_trace(frame));
}

TEST_F(TraceObject, ProbedFieldIsUsedLikeADeclaredOne) {
    gProbed.frame_trace = fake_offset(&tFake::f_trace);
    PyFrameObject* const frame = make_frame();
    set_frame_trace(frame, python_.true_);
    EXPECT_EQ(python_.true_, fields_of(frame)->f_trace);
    EXPECT_EQ(python_.true_, borrow_frame_trace(frame));
    EXPECT_TRUE(python_.set_attrs.empty());
}

TEST_F(TraceObject, FrameLikesKeepTheAttribute) {
    gPy.frame_offsets.trace = fake_offset(&tFake::f_trace);
    PyFrameObject* const like = make_frame_like();
    set_frame_trace(like, python_.true_);
    EXPECT_EQ(nullptr, fields_of(like)->f_trace);
    EXPECT_EQ(python_.true_, borrow_frame_trace(like));
}

TEST_F(TraceObject, FirstObjectBringsTheLineFieldUpToDateUpTo39) {
    gPy.frame_offsets.trace = fake_offset(&tFake::f_trace);
    gPy.frame_offsets.lineno = fake_offset(&tFake::f_lineno);
    python_.line_number = 77;
    set_version(3, 9);
    PyFrameObject* const frame = make_frame();
    set_frame_trace(frame, python_.true_);
    EXPECT_EQ(77, fields_of(frame)->f_lineno);
    python_.line_number = 80;
    set_frame_trace(frame, python_.false_);
    EXPECT_EQ(77, fields_of(frame)->f_lineno) << "kept by the interpreter by now";
    python_.line_number = -1;
    PyFrameObject* const unknown = make_frame();
    fields_of(unknown)->f_lineno = 5;
    set_frame_trace(unknown, python_.true_);
    EXPECT_EQ(5, fields_of(unknown)->f_lineno);
    set_version(3, 10);
    PyFrameObject* const later = make_frame();
    set_frame_trace(later, python_.true_);
    EXPECT_EQ(0, fields_of(later)->f_lineno);
    EXPECT_EQ(2, python_.line_number_calls);
}

TEST_F(TraceObject, FreeThreadedBuildsKeepTheAttributeForWriting) {
    gProbed.frame_trace = fake_offset(&tFake::f_trace);
    gPy.pyobject_offsets.refcnt = -1;
    gPy.can_update_refcount_directly = 0;
    PyFrameObject* const frame = make_frame();
    set_frame_trace(frame, python_.true_);
    EXPECT_EQ((std::vector<std::string>{"f_trace=True"}), python_.set_attrs);
    fields_of(frame)->f_trace = python_.false_;
    EXPECT_EQ(python_.false_, borrow_frame_trace(frame));
}

TEST_F(TraceObject, FramesWithOpcodeEventsKeepTheAttributeFrom313On) {
    gProbed.frame_trace = fake_offset(&tFake::f_trace);
    gProbed.frame_trace_lines = fake_offset(&tFake::f_trace_lines);
    ASSERT_EQ(gProbed.frame_trace_lines + 1, fake_offset(&tFake::f_trace_opcodes));
    PyFrameObject* const frame = make_frame();
    fields_of(frame)->f_trace_opcodes = 1;
    set_version(3, 12);
    set_frame_trace(frame, python_.true_);
    EXPECT_TRUE(python_.set_attrs.empty());
    set_version(3, 13);
    set_frame_trace(frame, nullptr);
    EXPECT_TRUE(python_.set_attrs.empty()) << "taking away switches nothing";
    set_frame_trace(frame, python_.true_);
    EXPECT_EQ((std::vector<std::string>{"f_trace=True"}), python_.set_attrs);
}

// f_trace_lines.

TEST_F(TraceLines, SupportedFrom37OfVersion3) {
    const int versions[][3] = {{2, 7, 0}, {3, 6, 0}, {3, 7, 1}, {3, 14, 1}};
    for (const int(&version)[3] : versions) {
        set_version(version[0], version[1]);
        EXPECT_EQ(version[2], is_frame_trace_lines_supported());
    }
}

TEST_F(TraceLines, NothingHappensOn36) {
    set_version(3, 6);
    gProbed.frame_trace_lines = fake_offset(&tFake::f_trace_lines);
    PyFrameObject* const frame = make_frame();
    EXPECT_EQ(0, set_frame_trace_lines(frame, 0));
    EXPECT_EQ(1, fields_of(frame)->f_trace_lines);
    EXPECT_TRUE(python_.set_attrs.empty());
}

TEST_F(TraceLines, AttributeWhereTheFieldIsUnknown) {
    PyFrameObject* const frame = make_frame();
    EXPECT_EQ(0, set_frame_trace_lines(frame, 0));
    EXPECT_EQ(0, set_frame_trace_lines(frame, 2));
    EXPECT_EQ((std::vector<std::string>{"f_trace_lines=False", "f_trace_lines=True"}),
              python_.set_attrs);
    python_.fail_attr_set = true;
    EXPECT_EQ(-1, set_frame_trace_lines(frame, 0));
    EXPECT_EQ("TypeError", python_.pending());
}

TEST_F(TraceLines, ProbedFieldIsOneChar) {
    gProbed.frame_trace_lines = fake_offset(&tFake::f_trace_lines);
    PyFrameObject* const frame = make_frame();
    fields_of(frame)->f_trace_opcodes = 42;
    EXPECT_EQ(0, set_frame_trace_lines(frame, 0));
    EXPECT_EQ(0, fields_of(frame)->f_trace_lines);
    EXPECT_EQ(0, set_frame_trace_lines(frame, 512));
    EXPECT_EQ(1, fields_of(frame)->f_trace_lines);
    EXPECT_EQ(42, fields_of(frame)->f_trace_opcodes);
    EXPECT_TRUE(python_.set_attrs.empty());
    EXPECT_EQ(0, set_frame_trace_lines(make_frame_like(), 0));
    EXPECT_EQ(1u, python_.set_attrs.size());
}

// Suspended generators.

TEST_F(Suspended, StateOf310) {
    set_version(3, 10);
    PyFrameObject* const frame = make_frame();
    EXPECT_EQ(0, get_frame_suspended_generator(frame)) << "offset unknown";
    gPy.frame_offsets.state = fake_offset(&tFake::f_state);
    const int states[][2] = {{-2, 0}, {-1, 1}, {0, 1}, {1, 0}, {4, 0}};
    for (const int(&state)[2] : states) {
        fields_of(frame)->f_state = static_cast<int8_t>(state[0]);
        EXPECT_EQ(state[1], get_frame_suspended_generator(frame)) << state[0];
    }
    EXPECT_EQ(0, get_frame_suspended_generator(make_frame_like()));
}

TEST_F(Suspended, StateIsLogged) {
    log_to_file();
    set_version(3, 10);
    gPy.frame_offsets.state = fake_offset(&tFake::f_state);
    PyFrameObject* const frame = make_frame();
    fields_of(frame)->f_state = -1;
    get_frame_suspended_generator(frame);
    set_version(3, 9);
    gPy.frame_offsets.stacktop = fake_offset(&tFake::f_stacktop);
    fields_of(frame)->f_stacktop = reinterpret_cast<void*>(0xbeef);
    get_frame_suspended_generator(frame);
    EXPECT_EQ("STATE OF FRAME: -1\nSTACKTOP OF FRAME: beef\n", python_.written);
}

TEST_F(Suspended, StackTopUpTo39) {
    const int versions[][2] = {{2, 7}, {3, 9}};
    for (const int(&version)[2] : versions) {
        set_version(version[0], version[1]);
        gPy.frame_offsets.stacktop = -1;
        PyFrameObject* const frame = make_frame();
        fields_of(frame)->f_stacktop = frame;
        EXPECT_EQ(0, get_frame_suspended_generator(frame)) << "offset unknown";
        gPy.frame_offsets.stacktop = fake_offset(&tFake::f_stacktop);
        EXPECT_EQ(1, get_frame_suspended_generator(frame));
        fields_of(frame)->f_stacktop = nullptr;
        EXPECT_EQ(0, get_frame_suspended_generator(frame));
    }
}

TEST_F(Suspended, GeneratorIsAskedFrom311On) {
    PyFrameObject* const frame = make_frame();
    EXPECT_EQ(0, get_frame_suspended_generator(frame)) << "no generator";
    tFake* const gen = python_.make(python_.generator_type, "gen");
    python_.generator_of_frame = gen;
    gen->attrs["gi_suspended"] = python_.true_;
    EXPECT_EQ(1, get_frame_suspended_generator(frame));
    gen->attrs["gi_suspended"] = python_.false_;
    EXPECT_EQ(0, get_frame_suspended_generator(frame));
    EXPECT_EQ(1, gen->refcnt);
}

TEST_F(Suspended, FailureIsLoggedClearedAndNotSuspended) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    tFake* const gen = python_.make(python_.generator_type, "gen");
    python_.generator_of_frame = gen;
    EXPECT_EQ(0, get_frame_suspended_generator(make_frame()));
    EXPECT_EQ("Failure in get_frame_suspended_generator()\n", python_.written);
    EXPECT_EQ("", python_.pending());
    EXPECT_EQ(1, gen->refcnt);
}

TEST_F(Suspended, CoroutinesHaveTheirOwnAttributeAndOthersNone) {
    tFake* const coro = python_.make(python_.coroutine_type, "coro");
    coro->attrs["cr_suspended"] = python_.true_;
    EXPECT_EQ(1, get_generator_suspended(coro));
    gPy.PyCoro_Type_ptr = nullptr;
    EXPECT_EQ(0, get_generator_suspended(coro));
    EXPECT_EQ(0, get_generator_suspended(python_.none));
}

TEST_F(Suspended, BoolAttribute) {
    tFake* const obj = python_.make(python_.other_type);
    PyObject* cache = nullptr;
    python_.fail_strings = 1;
    EXPECT_EQ(-1, get_bool_attrib(obj, "flag", &cache));
    EXPECT_EQ("MemoryError", python_.pending());
    gPy.PyErr_Clear();
    EXPECT_EQ(-1, get_bool_attrib(obj, "flag", &cache));
    EXPECT_EQ("AttributeError: flag", python_.pending());
    gPy.PyErr_Clear();
    PyObject* const name = cache;
    ASSERT_NE(nullptr, name);
    obj->attrs["flag"] = python_.num(3);
    EXPECT_EQ(1, get_bool_attrib(obj, "flag", &cache));
    obj->attrs["flag"] = python_.num(0);
    EXPECT_EQ(0, get_bool_attrib(obj, "flag", &cache));
    obj->attrs["flag"] = python_.make(python_.other_type, "no truth");
    EXPECT_EQ(-1, get_bool_attrib(obj, "flag", &cache));
    EXPECT_EQ("ValueError: truth", python_.pending());
    EXPECT_EQ(1, obj->attrs["flag"]->refcnt);
    EXPECT_EQ(name, cache);
}

// The borrow rule.

TEST_F(Borrowing, AttributeOfTheOwnerIsBorrowed) {
    PyCodeObject* const code = make_code();
    fields_of(code)->attrs["co_name"] = python_.str("f");
    EXPECT_EQ(fields_of(code)->attrs["co_name"], borrow_code_name(code));
    EXPECT_EQ(1, fields_of(code)->attrs["co_name"]->refcnt);
}

TEST_F(Borrowing, AttributeMadeOnTheFlyIsRefused) {
    log_to_file();
    PyCodeObject* const code = make_code();
    fields_of(code)->makes_attributes = true;
    EXPECT_EQ(nullptr, borrow_code_name(code));
    EXPECT_EQ(nullptr, borrow_code_filename(code));
    EXPECT_EQ("borrow_attrib failed\nborrow_attrib failed\n", python_.written);
    EXPECT_TRUE(fake_objects[fake_objects.size() - 1]->is_dead ||
                fake_objects[fake_objects.size() - 2]->is_dead);
}

TEST_F(Borrowing, WithoutACountTheAttributeIsAskedForTwice) {
    gPy.pyobject_offsets.refcnt = -1;
    gPy.can_update_refcount_directly = 0;
    PyCodeObject* const code = make_code();
    fields_of(code)->attrs["co_name"] = python_.str("f");
    EXPECT_EQ(fields_of(code)->attrs["co_name"], borrow_code_name(code));
    EXPECT_EQ(1, fields_of(code)->attrs["co_name"]->refcnt);
    fields_of(code)->makes_attributes = true;
    EXPECT_EQ(nullptr, borrow_code_name(code));
}

TEST_F(Borrowing, MissingAttributeIsLoggedAndCleared) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    EXPECT_EQ(nullptr, borrow_code_name(make_code()));
    EXPECT_EQ("borrow_attrib failed\n", python_.written);
    EXPECT_EQ("log file:AttributeError: co_name;", python_.displayed);
    EXPECT_EQ("", python_.pending());
}

// Tracebacks.

TEST_F(Tracebacks, OnlyRealFramesAndTracebacksComeOut) {
    tFake* const tb = python_.make(python_.traceback_type, "tb");
    tFake* const frame = python_.make(python_.frame_type, "frame");
    tFake* const next = python_.make(python_.traceback_type, "next");
    tb->attrs["tb_frame"] = frame;
    tb->attrs["tb_next"] = next;
    EXPECT_EQ(as_frame(frame), borrow_traceback_frame(tb));
    EXPECT_EQ(next, borrow_traceback_next(tb));
    EXPECT_EQ(1, frame->refcnt);
    EXPECT_EQ(as_frame(frame), get_traceback_frame(tb));
    EXPECT_EQ(2, frame->refcnt);
    const Py_ssize_t before = python_.none->refcnt;
    tb->attrs["tb_frame"] = python_.none;
    tb->attrs["tb_next"] = python_.none;
    EXPECT_EQ(nullptr, borrow_traceback_frame(tb));
    EXPECT_EQ(nullptr, get_traceback_frame(tb));
    EXPECT_EQ(nullptr, borrow_traceback_next(tb));
    EXPECT_EQ(before, python_.none->refcnt);
}

TEST_F(Tracebacks, FailedBorrowIsNullNotACrash) {
    tFake* const no_tb = python_.make(python_.other_type, "not a traceback");
    EXPECT_EQ(nullptr, borrow_traceback_frame(no_tb));
    EXPECT_EQ(nullptr, borrow_traceback_next(no_tb));
    EXPECT_EQ(nullptr, get_traceback_frame(no_tb));
    EXPECT_EQ(nullptr, borrow_traceback_frame(nullptr));
    EXPECT_EQ("", python_.pending());
}

// Code objects.

TEST_F(Codes, NamesOfTheFramesCode) {
    PyFrameObject* const frame = make_frame();
    EXPECT_EQ(nullptr, get_frame_filename(frame)) << "no code";
    EXPECT_EQ(python_.none, get_frame_code_name(frame));
    PyCodeObject* const code = make_code();
    tFake* const name = fields_of(code)->attrs["co_name"] = python_.str("f");
    tFake* const filename = fields_of(code)->attrs["co_filename"] = python_.str("f.py");
    fields_of(frame)->attrs["f_code"] = fields_of(code);
    EXPECT_EQ(filename, get_frame_filename(frame));
    EXPECT_EQ(name, get_frame_code_name(frame));
    EXPECT_EQ(2, name->refcnt);
    EXPECT_EQ(name, get_code_name(code));
    EXPECT_EQ(3, name->refcnt);
    EXPECT_EQ(filename, get_code_filename(code));
    EXPECT_EQ(3, filename->refcnt);
    EXPECT_EQ(1, fields_of(code)->refcnt);
}

TEST_F(Codes, FirstLineAndItsFailuresStayPending) {
    log_to_file();
    PyCodeObject* const code = make_code();
    fields_of(code)->attrs["co_firstlineno"] = python_.num(31);
    EXPECT_EQ(31, get_code_firstlineno(code));
    fields_of(code)->attrs["co_firstlineno"] = python_.num(-1);
    EXPECT_EQ(-1, get_code_firstlineno(code));
    EXPECT_EQ("", python_.written);
    fields_of(code)->attrs["co_firstlineno"] = python_.str("no number");
    EXPECT_EQ(-1, get_code_firstlineno(code));
    EXPECT_EQ("get_code_firstlineno", python_.written);
    EXPECT_EQ("TypeError: int", python_.pending());
    gPy.PyErr_Clear();
    EXPECT_EQ(-1, get_code_firstlineno(make_code()));
    EXPECT_EQ("AttributeError: co_firstlineno", python_.pending());
}

// Strings, modules, calls.

TEST_F(Strings, EqualOnlyWhenBothAreStrings) {
    EXPECT_EQ(1, string_objects_equal(python_.str("a"), python_.str("a")));
    EXPECT_EQ(0, string_objects_equal(python_.str("a"), python_.str("b")));
    EXPECT_EQ(0, string_objects_equal(python_.str("a"), python_.none));
    EXPECT_EQ(0, string_objects_equal(nullptr, python_.str("a")));
    EXPECT_EQ(0, string_objects_equal(python_.str("unencodable"), python_.str("unencodable")));
    EXPECT_EQ("", python_.pending());
}

TEST_F(Strings, UnconvertibleIsLoggedWithItsReprAndCleared) {
    log_to_file();
    set_dprintf_mask(kLogFilenames);
    EXPECT_EQ(nullptr, _pystring_to_c_string(python_.str("unencodable")));
    EXPECT_EQ("FAILURE: Could not convert unicode to UTF-8: <unencodable>", python_.written);
    EXPECT_EQ("", python_.pending());
    EXPECT_EQ(nullptr, _pystring_to_c_string(nullptr));
    EXPECT_EQ(nullptr, _pystring_to_c_string_copy(python_.str("unencodable")));
}

TEST_F(Strings, CopyBelongsToTheCaller) {
    tFake* const text = python_.str("text");
    char* const copy = _pystring_to_c_string_copy(text);
    EXPECT_STREQ("text", copy);
    EXPECT_NE(text->text.c_str(), copy);
    free(copy);
}

TEST_F(Strings, ImportedModuleOrNothingPending) {
    tFake* const modules = python_.make(python_.other_type, "modules");
    python_.sys["modules"] = modules;
    modules->attrs["os"] = python_.true_;
    const Py_ssize_t before = python_.true_->refcnt;
    EXPECT_EQ(python_.true_, get_imported_module("os"));
    EXPECT_EQ(before + 1, python_.true_->refcnt);
    EXPECT_EQ(nullptr, get_imported_module("no_such"));
    EXPECT_EQ("", python_.pending());
    EXPECT_EQ(1, modules->refcnt);
    python_.sys.clear();
    EXPECT_EQ(nullptr, get_imported_module("os"));
}

TEST_F(Strings, NamesAreMadeOnce) {
    tNameCache cache = {};
    python_.fail_strings = 1;
    EXPECT_EQ(nullptr, borrow_name(&cache, "name"));
    gPy.PyErr_Clear();
    PyObject* const name = borrow_name(&cache, "name");
    EXPECT_EQ("name", as_fake(name)->text);
    EXPECT_EQ(name, borrow_name(&cache, "name"));
    EXPECT_EQ(1, as_fake(name)->refcnt);
}

TEST_F(Calls, ArgumentsInOrderAndReferencesKept) {
    tFake* const callable = python_.make(python_.other_type, "f");
    EXPECT_EQ("f(True,)", as_fake(do_one_arg_call(callable, python_.true_))->text);
    EXPECT_EQ("f(True,False,)",
              as_fake(do_two_arg_call(callable, python_.true_, python_.false_))->text);
    EXPECT_EQ("f(True,None,False,)",
              as_fake(do_three_arg_call(callable, python_.true_, nullptr, python_.false_))->text);
    gPy.PyTuple_New = [](Py_ssize_t) -> PyObject* { return nullptr; };
    EXPECT_EQ(nullptr, do_one_arg_call(callable, python_.true_));
}

TEST_F(Calls, SymbolsOfTheProcess) {
    EXPECT_NE(nullptr, lookup_python_function("malloc"));
    EXPECT_EQ(nullptr, lookup_python_function("no_such_symbol_anywhere"));
}

// Thread states.

TEST_F(ThreadStates, StackDepth) {
    EXPECT_EQ(0, get_stack_depth(nullptr)) << "no Python frame";
    tFake* const outer = python_.make(python_.frame_type, "outer");
    tFake* const inner = python_.make(python_.frame_type, "inner");
    inner->attrs["f_back"] = outer;
    outer->attrs["f_back"] = nullptr;
    python_.thread_state.frame = inner;
    EXPECT_EQ(2, get_stack_depth(nullptr));
    other_.frame = outer;
    EXPECT_EQ(1, get_stack_depth(other()));
    EXPECT_EQ(1, inner->refcnt);
    EXPECT_EQ(1, outer->refcnt);
}

TEST_F(ThreadStates, TracingCounterGoesThroughTheInterpreter) {
    add_to_thread_state_tracing(own(), -2);
    EXPECT_EQ(0, python_.enters);
    EXPECT_EQ(2, python_.leaves);
    add_to_thread_state_tracing(own(), 3);
    EXPECT_EQ(3, python_.enters);
    add_to_thread_state_tracing(own(), 0);
    EXPECT_EQ(3, python_.enters);
    EXPECT_EQ(2, python_.leaves);
    increment_thread_state_tracing(own());
    EXPECT_EQ(2, get_thread_state_tracing(own()));
    decrement_thread_state_tracing(own());
    EXPECT_EQ(1, get_thread_state_tracing(own()));
}

TEST_F(ThreadStates, UseTracingCountsAsOnWhereThereIsNoField) {
    EXPECT_EQ(1, get_thread_state_use_tracing(own()));
    set_thread_state_use_tracing(own(), 0);
    gPy.tstate_offsets.use_tracing = fake_ts_offset(&tFakeThreadState::use_tracing);
    EXPECT_EQ(0, get_thread_state_use_tracing(own()));
    set_thread_state_use_tracing(own(), 255);
    EXPECT_EQ(255, python_.thread_state.use_tracing);
}

TEST_F(ThreadStates, WhatEventIsMinusOneWhereThereIsNoField) {
    EXPECT_EQ(-1, get_thread_state_what_event(own()));
    gPy.tstate_offsets.what_event = fake_ts_offset(&tFakeThreadState::what_event);
    python_.thread_state.what_event = 12;
    EXPECT_EQ(12, get_thread_state_what_event(own()));
}

TEST_F(ThreadStates, ThreadIdIsAWholeLong) {
    python_.thread_state.thread_id = ~0ul - 1;
    EXPECT_EQ(~0ul - 1, get_thread_state_thread_id(own()));
    python_.thread_state.c_traceobj = python_.none;
    EXPECT_EQ(python_.none, borrow_thread_state_traceobj(own()));
}

TEST_F(ThreadStates, TraceFunctionOfTheOwnThread) {
    set_version(3, 9);
    EXPECT_EQ(0, set_thread_state_trace_cfunc(own(), nullptr, python_.true_));
    ASSERT_EQ(1u, python_.traces_set.size());
    EXPECT_EQ(own(), python_.traces_set[0].first);
    EXPECT_EQ(python_.true_, python_.traces_set[0].second);
}

TEST_F(ThreadStates, OtherThreadsTraceFunctionOnlyOn310To312) {
    const int versions[][3] = {
        {2, 7, -1}, {3, 9, -1}, {3, 10, 0}, {3, 11, 0}, {3, 12, 0}, {3, 13, -1}, {3, 14, -1}};
    for (const int(&version)[3] : versions) {
        set_version(version[0], version[1]);
        python_.traces_set.clear();
        EXPECT_EQ(version[2], set_thread_state_trace_cfunc(other(), nullptr, python_.true_));
        EXPECT_EQ(version[2] == 0 ? 1u : 0u, python_.traces_set.size()) << version[1];
    }
}

TEST_F(ThreadStates, FailureOfTheOtherThreadIsReturnedLoggedAndCleared) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    python_.other_trace_result = -7;
    EXPECT_EQ(-7, set_thread_state_trace_cfunc(other(), nullptr, nullptr));
    EXPECT_EQ("_PyEval_SetTrace raised exception\n", python_.written);
    EXPECT_EQ("log file:RuntimeError: audit;", python_.displayed);
    EXPECT_EQ("", python_.pending());
}

TEST_F(ThreadStates, NoCurrentThreadStateIsNull) {
    EXPECT_EQ(own(), borrow_current_thread_state());
    python_.current = nullptr;
    EXPECT_EQ(nullptr, borrow_current_thread_state());
}

}  // namespace
