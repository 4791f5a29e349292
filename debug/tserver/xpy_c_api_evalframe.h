// xpy_c_api_evalframe.h -- the interpreter's frame-evaluation function of the calling thread's
// interpreter, in its three generations, and the fork hook.
// Getters give null, setters -1 where the running version has no such function.
#pragma once

#include "xpy_c_api.h"

// 3.6 - 3.8.
TDBG_API tEvalFrameNoThreadState XPy_GetEvalFrameFunctionNoThreadState();
TDBG_API int XPy_SetEvalFrameFunctionNoThreadState(tEvalFrameNoThreadState func);

// 3.9 and 3.10.
TDBG_API tEvalFrameWithThreadState XPy_GetEvalFrameFunctionWithThreadState();
TDBG_API int XPy_SetEvalFrameFunctionWithThreadState(tEvalFrameWithThreadState func);

// 3.11.
TDBG_API tEvalFrameInterpreterFrame XPy_GetEvalFrameFunctionPyInterpreterFrame();
TDBG_API int XPy_SetEvalFrameFunctionPyInterpreterFrame(tEvalFrameInterpreterFrame func);

// Refreshes cached_pid. Runs in the forked child's only thread. No GIL.
TDBG_API void XPy_OnForkInChild();
