/* emptytrace.c -- the floor of what tracing costs: C trace functions that do nothing or next to it.
   Built without Python's headers; the benchmark installs them through ctypes. */

#include <stddef.h>
#include <time.h>

typedef int (*trace_function)(void *obj, void *frame, int what, void *arg);
typedef void *(*call_function)(void *callable, ...);

enum { CALL = 0, LINE = 2 };

/* Offset of f_trace_lines in the frame object, set by the benchmark, which finds it by trial. */
int trace_lines_offset = 0;

int empty_trace(void *obj, void *frame, int what, void *arg) {
    (void)obj, (void)frame, (void)what, (void)arg;
    return 0;
}

/* The same with line events switched off in each frame at its call. */
int lines_off_trace(void *obj, void *frame, int what, void *arg) {
    (void)obj, (void)arg;
    if (what == CALL) {
        ((char *)frame)[trace_lines_offset] = 0;
    }
    return 0;
}

/* When a line event came, in seconds of the clock that the benchmark reads as well. */
double arrival = 0.0;
int stamp_clock = CLOCK_MONOTONIC;

static void stamp_arrival(void) {
    struct timespec now;
    clock_gettime(stamp_clock, &now);
    if (stamp_clock == CLOCK_REALTIME) {
        now.tv_nsec -= now.tv_nsec % 1000; /* as Python 2 reads it, or the difference is biased */
    }
    arrival = (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

/* Notes the arrival of each line event and hands all events to the trace function proper. */
trace_function stamped = NULL;

int stamping_trace(void *obj, void *frame, int what, void *arg) {
    if (what == LINE) {
        stamp_arrival();
    }
    return stamped(obj, frame, what, arg);
}

/* The floor of a stop: calls a Python function, the trace object, at each line. */
call_function call_with_objects = NULL; /* PyObject_CallFunctionObjArgs */

int calling_trace(void *obj, void *frame, int what, void *arg) {
    (void)arg;
    if (what == LINE) {
        stamp_arrival();
        /* The result, None, is not released: a few thousand more references to it. */
        return call_with_objects(obj, frame, (void *)NULL) == NULL ? -1 : 0;
    }
    return 0;
}
