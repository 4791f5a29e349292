// bpops_condition.cpp -- the condition of a breakpoint, a Python expression evaluated in its frame.
// It is compiled at the first hit and kept: a hot line's never-true condition then costs what the
// expression costs.
#include "bpops_internal.h"

static constexpr int kEvalInput = 258;  // the interpreter's start symbol for one expression

// Known to every interpreter; not in the record, since nothing else needs them.
using tCompileString = PyObject* (*)(const char* text, const char* filename, int start);
using tEvalCode = PyObject* (*)(PyObject* code, PyObject* globals, PyObject* locals);

struct tCompiler {
    tCompileString compile;
    tEvalCode eval;
    bool looked_up;
};

static const tCompiler& get_compiler() {
    static constinit tCompiler compiler = {};
    if (!compiler.looked_up) {
        compiler.compile =
            reinterpret_cast<tCompileString>(XPy_LookupPythonFunction("Py_CompileString"));
        compiler.eval = reinterpret_cast<tEvalCode>(XPy_LookupPythonFunction("PyEval_EvalCode"));
        compiler.looked_up = true;
    }
    return compiler;
}

// New ref, or null with an exception set.
static PyObject* run_condition(tBp* bp, PyObject* globals, PyObject* locals) {
    const tCompiler& compiler = get_compiler();
    if (compiler.compile == nullptr || compiler.eval == nullptr) {
        return gPy.PyRun_String(bp->cond, kEvalInput, globals, locals);
    }
    if (bp->cond_code == nullptr) {
        bp->cond_code = compiler.compile(bp->cond, "<string>", kEvalInput);
    }
    // Held: the expression may change or clear its own breakpoint.
    tOwnedRef code(new_ref(bp->cond_code));
    tCoreUnlock unlocked;
    return code ? compiler.eval(code.borrow(), globals, locals) : nullptr;
}

static bool has_fast_locals_to_copy() {
    return gPy.frame_offsets.locals != -1;  // up to 3.10 f_locals is what was copied last
}

tCondition evaluate_condition(tBp* bp, PyFrameObject* frame) {
    tSavedErrno keep_errno;
    tRecursionHeadroom room(kRecursionHeadroom);
    tSavedError saved;
    if (has_fast_locals_to_copy()) {
        gPy.PyFrame_FastToLocals(frame);
    }
    tOwnedRef globals(get_frame_globals(frame));
    tOwnedRef locals(globals ? get_frame_locals(frame) : nullptr);
    tOwnedRef result(locals ? run_condition(bp, globals.borrow(), locals.borrow()) : nullptr);
    const int truth = result ? gPy.PyObject_IsTrue(result.borrow()) : -1;
    if (truth == -1 || gPy.PyErr_Occurred() != nullptr) {
        return kConditionBroken;
    }
    return truth == 1 ? kConditionTrue : kConditionFalse;
}
