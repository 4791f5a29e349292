// xpy_c_api_layouts_test.cpp -- the layout tables against the interpreters' own headers, and the
// arithmetic on them. layouts.inc holds measured offsets (tools/make-layout-data makes it).
#include "xpy_c_api_layouts.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

namespace {

enum tVariant { kRelease, kTraceRefs, kPyDebug, kFreeThreaded };

struct tMeasured {
    int minor;  // of Python 3; -1 = 2.7
    int bits;
    tVariant variant;
    const char* field;  // name in the record, "structure.field"
    Py_ssize_t offset;  // -1 = the version has no such field
};

constexpr tMeasured kMeasured[] = {
#define MEASURED(minor, bits, variant, field, offset) {minor, bits, variant, field, offset},
#include "layouts.inc"
#undef MEASURED
};

constexpr int kBits = sizeof(void*) * 8;

// A record for a version, as start-up would leave it.
void discover(int minor, tVariant variant) {
    global_XPy_C_API_Data = {};
    gPy.major_version = minor < 0 ? 2 : 3;
    gPy.minor_version = minor < 0 ? 7 : minor;
    gPy.pydebug_build = variant == kTraceRefs;
    discover_header_layout(variant == kFreeThreaded);
    discover_type_layout();
    discover_frame_layout();
    discover_cframe_layout();
    discover_thread_state_layout();
    discover_interpreter_state_layout();
}

struct tRecordField {
    const char* name;
    Py_ssize_t offset;
};

Py_ssize_t get_discovered(const std::string& name) {
    const tRecordField fields[] = {
        {"pyobject.refcnt", gPy.pyobject_offsets.refcnt},
        {"pyobject.type", gPy.pyobject_offsets.type},
        {"pyobject.mutex", gPy.pyobject_offsets.mutex},
        {"pyobject.overflow", gPy.pyobject_offsets.overflow},
        {"pyobject.flags", gPy.pyobject_offsets.flags},
        {"typeobject.tp_basicsize", gPy.typeobject_offsets.tp_basicsize},
        {"typeobject.tp_vectorcall_offset", gPy.typeobject_offsets.tp_vectorcall_offset},
        {"typeobject.tp_flags", gPy.typeobject_offsets.tp_flags},
        {"typeobject.tp_base", gPy.typeobject_offsets.tp_base},
        {"frame.lineno", gPy.frame_offsets.lineno},
        {"frame.code", gPy.frame_offsets.code},
        {"frame.builtins", gPy.frame_offsets.builtins},
        {"frame.trace", gPy.frame_offsets.trace},
        {"frame.iblock", gPy.frame_offsets.iblock},
        {"frame.locals", gPy.frame_offsets.locals},
        {"frame.globals", gPy.frame_offsets.globals},
        {"frame.back", gPy.frame_offsets.back},
        {"frame.stacktop", gPy.frame_offsets.stacktop},
        {"frame.state", gPy.frame_offsets.state},
        {"tstate.next", gPy.tstate_offsets.next},
        {"tstate.interp", gPy.tstate_offsets.interp},
        {"tstate.frame", gPy.tstate_offsets.frame},
        {"tstate.c_tracefunc", gPy.tstate_offsets.c_tracefunc},
        {"tstate.c_traceobj", gPy.tstate_offsets.c_traceobj},
        {"tstate.thread_id", gPy.tstate_offsets.thread_id},
        {"tstate.tracing", gPy.tstate_offsets.tracing},
        {"tstate.use_tracing", gPy.tstate_offsets.use_tracing},
        {"tstate.cframe", gPy.tstate_offsets.cframe},
        {"tstate.what_event", gPy.tstate_offsets.what_event},
        {"cframe.current_frame", gPy.cframe_offsets.current_frame},
        {"interpreter_state.eval_frame", gPy.interpreter_state_offsets.eval_frame},
        {"mod_def.m_name", FindFieldOffset("m_name", py3_mod_def_fields)},
        {"mod_def.m_doc", FindFieldOffset("m_doc", py3_mod_def_fields)},
        {"mod_def.m_size", FindFieldOffset("m_size", py3_mod_def_fields)},
        {"mod_def.m_methods", FindFieldOffset("m_methods", py3_mod_def_fields)},
        {"mod_def.m_slots", FindFieldOffset("m_slots", py3_mod_def_fields)},
        {"mod_def.m_traverse", FindFieldOffset("m_traverse", py3_mod_def_fields)},
        {"mod_def.m_clear", FindFieldOffset("m_clear", py3_mod_def_fields)},
        {"mod_def.m_free", FindFieldOffset("m_free", py3_mod_def_fields)},
    };
    for (const tRecordField& field : fields) {
        if (name == field.name) {
            return field.offset;
        }
    }
    ADD_FAILURE() << "unknown field " << name;
    return -2;
}

class Layouts : public testing::Test {
protected:
    void TearDown() override { global_XPy_C_API_Data = {}; }
};

TEST_F(Layouts, AgreeWithTheInterpretersHeaders) {
    int compared = 0;
    for (const tMeasured& row : kMeasured) {
        if (row.bits != kBits) {
            continue;
        }
        discover(row.minor, row.variant);
        EXPECT_EQ(get_discovered(row.field), row.offset)
            << (row.minor < 0 ? "2.7" : "3." + std::to_string(row.minor)) << " variant "
            << row.variant << " " << row.field;
        compared++;
    }
    EXPECT_GT(compared, 500);
}

TEST_F(Layouts, EveryVersionAndBuildIsCompared) {
    for (const int minor : {-1, 6, 7, 8, 9, 10, 11, 12, 13, 14}) {
        for (const tVariant variant : {kRelease, kTraceRefs}) {
            int rows = 0;
            for (const tMeasured& row : kMeasured) {
                rows += row.bits == kBits && row.minor == minor && row.variant == variant;
            }
            EXPECT_GE(rows, 20) << minor << " " << variant;
        }
    }
}

TEST_F(Layouts, DocumentedNumbersOf32BitBuilds) {
    if (kBits != 32) {
        GTEST_SKIP() << "numbers of 32-bit builds";
    }
    discover(8, kRelease);
    EXPECT_EQ(gPy.pyobject_offsets.refcnt, 0);
    EXPECT_EQ(gPy.pyobject_offsets.type, 4);
    EXPECT_EQ(gPy.max_align, 12);
    EXPECT_EQ(gPy.frame_offsets.back, 12);
    EXPECT_EQ(gPy.frame_offsets.iblock, 60);
    EXPECT_EQ(gPy.interpreter_state_offsets.eval_frame, 344);
    discover(8, kTraceRefs);
    EXPECT_EQ(gPy.pyobject_offsets.refcnt, 8);
    EXPECT_EQ(gPy.pyobject_offsets.type, 12);
    EXPECT_EQ(gPy.frame_offsets.back, 20);
    EXPECT_EQ(gPy.frame_offsets.iblock, 68);
    discover(7, kRelease);
    EXPECT_EQ(gPy.interpreter_state_offsets.eval_frame, 268);
    discover(6, kRelease);
    EXPECT_EQ(gPy.interpreter_state_offsets.eval_frame, 60);
    discover(0, kRelease);
    EXPECT_EQ(gPy.tstate_offsets.thread_id, 84);
    EXPECT_EQ(FindSizeOfAllFields(py3d7_core_config_fields), 136);
    EXPECT_EQ(FindSizeOfAllFields(py3d7_main_interpreter_config_fields), 40);
    EXPECT_EQ(FindSizeOfAllFields(py3d8_pyconfig_fields), 232);
}

TEST_F(Layouts, OffsetsOfOldVersionsAreAbsentNotZero) {
    discover(7, kRelease);
    EXPECT_EQ(gPy.typeobject_offsets.tp_base, -1);
    EXPECT_EQ(gPy.max_align, -1);
    EXPECT_EQ(gPy.cframe_offsets.current_frame, -1);
    EXPECT_EQ(gPy.frame_offsets.state, -1);
    EXPECT_EQ(gPy.tstate_offsets.cframe, -1);
    EXPECT_EQ(gPy.tstate_offsets.what_event, -1);
    EXPECT_EQ(gPy.pyobject_offsets.mutex, -1);
}

TEST_F(Layouts, UnknownVersionLeavesWhatIsKnownOfThreadStates) {
    discover(14, kRelease);
    const XPyThreadStateOffsets known = gPy.tstate_offsets;
    gPy.minor_version = 15;
    testing::internal::CaptureStderr();
    discover_thread_state_layout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Cannot find tstate fields for this python version\n");
    EXPECT_EQ(memcmp(&known, &gPy.tstate_offsets, sizeof(known)), 0);
}

TEST_F(Layouts, FrameOffsetsAreAbsentFrom311On) {
    for (const int minor : {11, 12, 13, 14}) {
        discover(minor, kRelease);
        const Py_ssize_t* const offsets = reinterpret_cast<const Py_ssize_t*>(&gPy.frame_offsets);
        for (size_t i = 0; i < sizeof(gPy.frame_offsets) / sizeof(Py_ssize_t); i++) {
            EXPECT_EQ(offsets[i], -1) << minor << " " << i;
        }
    }
}

TEST_F(Layouts, Python310UsesTheDirectFrameField) {
    discover(10, kRelease);
    EXPECT_EQ(gPy.tstate_offsets.frame, 3 * Py_ssize_t{sizeof(void*)});
    EXPECT_EQ(gPy.tstate_offsets.cframe, -1);
    EXPECT_EQ(gPy.tstate_offsets.use_tracing, -1);
    EXPECT_EQ(gPy.frame_offsets.stacktop, -1);
    EXPECT_NE(gPy.frame_offsets.state, -1);
    EXPECT_EQ(gPy.cframe_offsets.current_frame, Py_ssize_t{sizeof(void*)});
}

TEST_F(Layouts, HeaderOfMajorVersionsOtherThan3IsTheOldOne) {
    global_XPy_C_API_Data = {};
    gPy.major_version = 4;
    gPy.minor_version = 14;
    discover_header_layout(0);
    EXPECT_EQ(gPy.pyobject_offsets.refcnt, 0);
    EXPECT_EQ(gPy.pyobject_offsets.overflow, -1);
}

TEST(Search, NameThatIsNotThere) {
    gPy.pyobject_offsets.type = sizeof(void*);
    testing::internal::CaptureStderr();
    EXPECT_EQ(FindFieldOffsetMissingOk("no_such_field", py2_tstate_fields), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(FindFieldOffset("no_such_field", typeobject_fields), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unable to find field offset for: no_such_field\n");
    EXPECT_EQ(FindFieldOffsetMissingOk("ob_none", free_t_pyobject_fields), -1);
}

TEST(Search, RowWithoutSizeStopsIt) {
    XPy_FieldWithSize fields[] = {
        field<int>("first"), {"open", kFilledInLater}, field<int>("last"), kEndOfFields};
    EXPECT_EQ(FindFieldOffsetMissingOk("first", fields), 0);
    EXPECT_EQ(FindFieldOffsetMissingOk("open", fields), -1);
    EXPECT_EQ(FindFieldOffsetMissingOk("last", fields), -1);
    EXPECT_EQ(FindSizeOfAllFields(fields), -1);
    EXPECT_EQ(SetFieldSize(fields, "open", 2), 1);
    EXPECT_EQ(FindFieldOffsetMissingOk("open", fields), 4);
    EXPECT_EQ(FindFieldOffsetMissingOk("last", fields), 8);
    EXPECT_EQ(FindSizeOfAllFields(fields), 12);
    EXPECT_EQ(SetFieldSize(fields, "none", 2), 0);
}

TEST(Search, HeaderThatIsNotKnownYet) {
    for (const Py_ssize_t type_offset : {Py_ssize_t{-1}, Py_ssize_t{0}}) {
        gPy.pyobject_offsets.type = type_offset;
        EXPECT_EQ(FindFieldOffsetMissingOk("f_back", frame_fields_py3d7), -1);
        EXPECT_EQ(FindFieldOffsetMissingOk("m_name", py3_mod_def_fields), -1);
    }
    gPy.pyobject_offsets.type = sizeof(void*);
    EXPECT_EQ(FindFieldOffsetMissingOk("f_back", frame_fields_py3d7),
              3 * Py_ssize_t{sizeof(void*)});
}

TEST(Search, FirstRowIsNotAlignedAndSmallOnesPack) {
    const XPy_FieldWithSize fields[] = {field<char>("a"),
                                        field<char>("b"),
                                        field<short>("c"),
                                        field<char>("d"),
                                        field<int64_t>("e"),
                                        field<char>("f"),
                                        {"g", 4 * sizeof(void*)},
                                        kEndOfFields};
    constexpr Py_ssize_t kWord = sizeof(void*);
    EXPECT_EQ(FindFieldOffsetMissingOk("b", fields), 1);
    EXPECT_EQ(FindFieldOffsetMissingOk("c", fields), 2);
    EXPECT_EQ(FindFieldOffsetMissingOk("e", fields), 8);
    EXPECT_EQ(FindFieldOffsetMissingOk("g", fields), 16 + kWord);
}

TEST(Search, WholeSizeIsNotRoundedUp) {
    const XPy_FieldWithSize fields[] = {field<void*>("a"), field<char>("b"), kEndOfFields};
    EXPECT_EQ(FindSizeOfAllFields(fields), Py_ssize_t{sizeof(void*) + 1});
}

}  // namespace
