// dbgtracermodule_test.cpp -- the module's creation on interpreters that no machine has any more.
#include "dbgtracermodule.h"

#include <gtest/gtest.h>

#include "support/stand_in.h"

namespace {

TEST(ModuleEntry, RefusesPython25AndKeepsTheModule) {
    long module[16] = {};
    tStandIn stand_in(absent_in_python_2());
    stand_in.set_version(2, 5);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    stand_in.push("Py_InitModule4", module);
    const long dropped_at_start = stand_in.calls("Py_DecRef");
    EXPECT_EQ(PyInit_tdbgtracer(), nullptr);
    EXPECT_EQ(stand_in.last_error(), "Python 2.5 and before are not supported");
    EXPECT_EQ(gModuleSelf, reinterpret_cast<PyObject*>(module));
    EXPECT_EQ(stand_in.calls("Py_DecRef"), dropped_at_start);
    EXPECT_EQ(stand_in.calls("PyObject_SetAttrString"), 0);
}

TEST(ModuleEntry, Takes26) {
    long module[16] = {};
    tStandIn stand_in(absent_in_python_2());
    stand_in.set_version(2, 6);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    stand_in.push("Py_InitModule4", module);
    EXPECT_EQ(PyInit_tdbgtracer(), reinterpret_cast<PyObject*>(module));
    EXPECT_EQ(stand_in.calls("PyObject_SetAttrString"), 1);
}

TEST(ModuleEntry, FailsWithoutItsAttribute) {
    long module[16] = {};
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    stand_in.push("PyModule_Create2", module);
    stand_in.push("PyObject_SetAttrString", -1L);
    EXPECT_EQ(PyInit_tdbgtracer(), nullptr);
}

TEST(ModuleEntry, FailsWithoutAModule) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(PyInit_tdbgtracer(), nullptr);
    EXPECT_EQ(stand_in.calls("PyModule_Create2"), 1);
    EXPECT_EQ(stand_in.calls("PyObject_SetAttrString"), 0);
}

}  // namespace
