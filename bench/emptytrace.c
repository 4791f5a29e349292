/* emptytrace.c -- the floor of what tracing costs: C trace functions that do nothing.
   Built without Python's headers; the benchmark hands them to PyEval_SetTrace through ctypes. */

int empty_trace(void *obj, void *frame, int what, void *arg);
int lines_off_trace(void *obj, void *frame, int what, void *arg);

/* Offset of f_trace_lines in the frame object, set by the benchmark, which finds it by trial. */
int trace_lines_offset = 0;

int empty_trace(void *obj, void *frame, int what, void *arg) {
    (void)obj, (void)frame, (void)what, (void)arg;
    return 0;
}

/* The same with line events switched off in each frame at its call. */
int lines_off_trace(void *obj, void *frame, int what, void *arg) {
    (void)obj, (void)arg;
    if (what == 0) {
        ((char *)frame)[trace_lines_offset] = 0;
    }
    return 0;
}
