"""Requests that show threads, their stacks, and the tasks of asyncio."""
from __future__ import absolute_import, division, print_function

import sys

from tdbg import compat, currentframes, stops
from tdbg.dap import paths, rules, sources
from tdbg.dap.requests import get, get_optional, kStopped, tRequest, tRequestError

_current_frames = currentframes.current_frames

kFramesAtOnce = 1000  # where the client does not say how many
kMaxAwaits = 1000


def threads(session, arguments):
    front_end = session.front_end
    front_end.scan_threads()
    rows = []
    for number, ident in front_end.thread_ids.all():
        rows.append({"id": number, "name": front_end.name_of_thread(ident)})
    return {"threads": rows}


def stack_trace(session, arguments):
    number = get(arguments, "threadId", int)
    ident = session.thread_ids.ident_of(number)
    first = get_optional(arguments, "startFrame", int, 0)
    levels = get_optional(arguments, "levels", int, 0)
    if first < 0 or levels < 0:
        raise tRequestError("no such frames")
    if not session.is_stopped:
        raise tRequestError("the program is not stopped")
    stack = stack_of(session, number, ident)
    last = min(first + (levels or kFramesAtOnce), len(stack))
    shape = get_optional(arguments, "format", dict, {})
    rows = []
    for index in range(first, last):
        frame, line = stack[len(stack) - 1 - index]
        rows.append(describe_frame(session, number, frame, line, shape))
    return {"stackFrames": rows, "totalFrames": len(stack)}


def stack_of(session, number, ident):
    """[(frame, line)], the outermost first."""
    stop = session.stop_of(number)
    if stop is not None:
        return stop.stack
    stack = session.stacks.get(number)
    if stack is None:
        frame = _current_frames().get(ident)
        if frame is None:
            return []
        stack = session.stacks[number] = stops.collect_stack(
            frame, None, session.server.without_hidden)[0]
    return stack


def describe_frame(session, thread_id, frame, line, shape=()):
    name = compat.to_text(frame.f_code.co_name)
    if "module" in shape and shape["module"]:
        module = frame.f_globals.get("__name__")
        if isinstance(module, compat.string_types):
            name = compat.to_text(module) + u"." + name
    if "line" in shape and shape["line"]:
        name = u"{}:{}".format(name, line)
    row = {
        "id": session.frames.id_of(thread_id, frame, line), "name": name,
        "line": paths.paths_of(session).line_to_client(line),
        "column": paths.paths_of(session).column_to_client(1)}
    source = sources.source_of_frame(session, frame)
    if source is not None:
        row["source"] = source
    if not rules.is_user_code(frame):
        row["presentationHint"] = "subtle"
    return row


# --- tasks of asyncio ---------------------------------------------------------------------------


def tasks(session, arguments):
    """Each unfinished task with the chain of what it awaits, the innermost frame first."""
    number = get_optional(arguments, "threadId", int)
    wanted = None if number is None else session.thread_ids.ident_of(number)
    rows = []
    for ident, task in find_tasks():
        if wanted is not None and ident is not None and ident != wanted:
            continue
        thread_id = None if ident is None else session.thread_ids.id_of(ident)
        frames = [describe_frame(session, thread_id or number or 1, frame, frame.f_lineno)
                  for frame in await_stack(task)]
        row = {"name": name_of_task(task), "state": state_of_task(task), "stackFrames": frames}
        if thread_id is not None:
            row["threadId"] = thread_id
        rows.append(row)
    rows.sort(key=lambda row: row["name"])
    return {"tasks": rows}


def find_tasks():
    """[(ident of the thread whose loop runs it or None, task)]"""
    asyncio = sys.modules.get("asyncio")
    module = sys.modules.get("asyncio.tasks")
    if asyncio is None or module is None:
        return []
    loops = find_loops()
    found = {}
    for name in ("_all_tasks", "_scheduled_tasks", "_eager_tasks"):
        for task in _items(getattr(module, name, None)):
            found[id(task)] = task
    for task in _items(getattr(getattr(module, "Task", None), "_all_tasks", None)):
        found[id(task)] = task  # 3.6
    if hasattr(module, "_scheduled_tasks"):  # 3.14 keeps most of them where only this sees them
        for loop, _ in loops.values():
            try:
                for task in asyncio.all_tasks(loop):
                    found[id(task)] = task
            except Exception:
                pass
    rows = []
    for task in found.values():
        try:
            if not task.done():
                loop = getattr(task, "_loop", None)
                rows.append((loops.get(id(loop), (None, None))[1], task))
        except Exception:
            pass
    return rows


def _items(weak_set):
    try:
        return list(weak_set or ())
    except Exception:  # it changes meanwhile
        return []


def find_loops():
    """{id of loop: (loop, ident of the thread that runs it)}"""
    loops = {}
    for ident, frame in _current_frames().items():
        while frame is not None:
            if frame.f_code.co_name in ("run_forever", "_run_once"):
                loop = frame.f_locals.get("self")
                if hasattr(loop, "create_task"):
                    loops[id(loop)] = (loop, ident)
            frame = frame.f_back
    return loops


def await_stack(task):
    """The frames that a task is in, the innermost first."""
    get_coro = getattr(task, "get_coro", None)
    thing = get_coro() if get_coro is not None else getattr(task, "_coro", None)
    frames = []
    while thing is not None and len(frames) < kMaxAwaits:
        frame = None
        for name in ("cr_frame", "gi_frame", "ag_frame"):
            frame = frame or getattr(thing, name, None)
        if frame is not None:
            frames.append(frame)
        following = None
        for name in ("cr_await", "gi_yieldfrom", "ag_await"):
            following = following or getattr(thing, name, None)
        thing = following
    frames.reverse()
    return frames


def name_of_task(task):
    get_name = getattr(task, "get_name", None)
    try:
        if get_name is not None:
            return compat.to_text(str(get_name()))
        coro = getattr(task, "_coro", None)
        return compat.to_text(getattr(coro, "__qualname__", "") or type(task).__name__)
    except Exception:
        return u"task"


def state_of_task(task):
    if getattr(task, "_fut_waiter", None) is not None:
        return "waiting"
    return "running" if any(
        frame.f_code is running.f_code and frame is running
        for running in _all_frames() for frame in await_stack(task)[:1]) else "ready"


def _all_frames():
    for frame in list(_current_frames().values()):
        while frame is not None:
            yield frame
            frame = frame.f_back


kRequests = {
    "threads": tRequest(threads),
    "stackTrace": tRequest(stack_trace),
    "tdbg/tasks": tRequest(tasks, kStopped),
}
