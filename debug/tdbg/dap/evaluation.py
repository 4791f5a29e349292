"""The requests `evaluate` and `setExpression`.

What an expression may do depends on who asks.  The user who types into the console may do
anything, statements too, as long as it takes.  A watch is evaluated within a limit; what is under
the mouse pointer only if that runs no code of the program.  The clipboard gets values whole.
"""
from __future__ import absolute_import, division, print_function

import ast

from tdbg import compat, evaluate, framecode, sublanguages
from tdbg.dap import peek, statics, values, variables
from tdbg.dap.requests import get, get_optional, kSeconds, kStopped, tRequest, tRequestError

kRepl, kHover, kClipboard = "repl", "hover", "clipboard"
kFull = ",full"
kClipboardSeconds = 10.0


def evaluate_text(session, arguments):
    text = get(arguments, "expression", str)
    context = get_optional(arguments, "context", str, "watch")
    ref = variables.find_frame(session, get_optional(arguments, "frameId", int))
    job = _tEvaluation(session, arguments, ref)
    if not text.strip():
        return {"result": u"", "variablesReference": 0}
    task = session.executor.task()
    if task is not None:
        task.label = variables.one_line(text)
    if context == kHover:
        return job.hover(text)
    if context == kRepl:
        return _tell_late(session, task, lambda: job.run(text))
    return job.watch(text, context == kClipboard)


def _tell_late(session, task, run):
    """run(), whose outcome is written to the console if the request had to be answered before."""
    try:
        body = run()
    except tRequestError as why:
        if task is not None and task.done.is_set:
            session.output("console", u"`{}`: {}\n".format(task.label, why.text))
        raise
    if task is not None and task.done.is_set:
        session.output("console", u"`{}`: {}\n".format(task.label, body["result"]))
    return body


def attach(session):
    session.console_jobs = {}  # id of a request's arguments -> what interrupts it
    session.on_resume(_interrupt_all)
    session.on_cancel(interrupt)


def _interrupt_all(session):
    """The program is to go on: it cannot while the console has its thread."""
    for job in list(session.console_jobs.values()):
        job.interrupt()


def interrupt(session, arguments):
    """The client has cancelled the request with these arguments while it was being served."""
    job = session.console_jobs.get(id(arguments))
    if job is not None:
        job.interrupt()


class _tEvaluation(object):
    def __init__(self, session, arguments, ref):
        self._session, self._arguments, self._ref = session, arguments, ref
        self._frame = variables.frame_of(session, ref)
        self._extra = variables.extra_names(session, ref)
        self._in_hex = variables.is_in_hex(arguments)

    # --- contexts ---

    def hover(self, text):
        try:
            value = peek.peek(text, self._frame, self._extra)
        except SyntaxError:
            raise tRequestError("not an expression")
        except (peek.tUnsafe, peek.tUnknown) as why:
            raise tRequestError(variables.one_line(compat.to_text(str(why))))
        renderer = values.tRenderer(variables.limits_of(self._session), None, self._in_hex)
        return self._response(value, renderer.text(value), text)

    def watch(self, text, is_whole):
        expression, is_full = self._strip_format(text)
        result = evaluate.evaluate_limited(
            expression, self._frame, self._extra, values.kSecondsInAll)
        if not result.ok:
            raise _error(result.error)
        return self._show(result.value, expression, is_whole or is_full)

    def run(self, text):
        job = evaluate.tInterruptible()
        jobs = self._session.console_jobs
        jobs[id(self._arguments)] = job
        try:
            return self._run(text)
        except (tRequestError, KeyboardInterrupt):
            if job.has_struck:
                raise tRequestError("cancelled")
            raise
        finally:
            jobs.pop(id(self._arguments), None)
            job.close()

    def _run(self, text):
        expression, is_full = self._strip_format(text)
        source, tail = self._split(expression)
        value, is_expression = None, False
        for part in (source, tail):
            if part is not None:
                value = self._execute(part)
        if tail is None:
            self._tell_changes()
            return {"result": u"", "variablesReference": 0}
        if source is not None or _may_assign(tail):
            self._tell_changes()
        if value is None and framecode.is_call(tail):
            return {"result": u"", "variablesReference": 0}
        return self._show(value, expression if source is None else None, is_full)

    # --- parts ---

    def _strip_format(self, text):
        """(expression, whether the whole value is wanted)"""
        bare = text.rstrip()
        if bare.endswith(kFull) and not sublanguages.is_view(self._frame):
            name = kFull[1:]
            if name not in self._frame.f_locals and name not in self._frame.f_globals:
                return bare[:-len(kFull)], True
        return text, False

    def _split(self, text):
        """(statements but the last one, the last one if it is an expression), as trees."""
        if sublanguages.is_view(self._frame):
            return None, text
        try:
            return None, framecode.parse_expression(text, self._frame)
        except SyntaxError:
            pass
        try:
            tree = framecode.parse_statements(text, self._frame)
        except BaseException:
            raise _error(evaluate.describe_error())
        if not tree.body or not isinstance(tree.body[-1], ast.Expr):
            return tree, None
        tail = ast.Expression(tree.body.pop().value)
        return tree, tail

    def _execute(self, tree):
        if sublanguages.is_view(self._frame):
            result = evaluate.execute(tree, self._frame, self._session.server.core)
            if not result.ok:
                raise _error(result.error)
            return result.value
        try:
            core = None if self._ref is None else self._session.server.core
            return framecode.run(tree, self._frame, core, self._extra)
        except BaseException:
            text = evaluate.describe_error()
        raise _error(text)

    def _tell_changes(self):
        """Variables are shown that are others now."""
        if (self._session.client or {}).get("supportsInvalidatedEvent"):
            self._session.send_event("invalidated", {"areas": ["variables"]})

    def _show(self, value, expression, is_whole):
        if is_whole:
            return self._response(value, values.whole_text(value, self._in_hex), expression)
        page = self._page()
        text, more = page.describe(value, _as_parent(expression))
        more["result"] = text
        return more

    def _response(self, value, text, expression):
        more = self._page().openable(value, _as_parent(expression))
        if (self._session.client or {}).get("supportsVariableType"):
            more["type"] = statics.type_name(value)
        more["result"] = text
        return more

    def _page(self):
        return variables.tPage(
            self._session, variables.tHolder(self._ref), self._arguments)


def _error(text):
    return tRequestError(variables.one_line(compat.to_text(text)))


def _may_assign(tree):
    return not isinstance(tree, ast.Expression) or not isinstance(
        tree.body, (ast.Name, ast.Attribute))


def _as_parent(expression):
    """Text that can be followed by `.x` or `[0]`; None for None."""
    if expression is None:
        return None
    text = compat.to_text(expression).strip()
    try:
        tree = framecode.parse_expression(text, framecode.tGlobals({}))
    except SyntaxError:
        return None
    if isinstance(tree.body, (ast.Name, ast.Attribute, ast.Subscript, ast.Call)) and (
            u"\n" not in text and u"#" not in text):
        return text
    return u"(" + text + (u"\n)" if u"#" in text else u")")


def set_expression(session, arguments):
    target = get(arguments, "expression", str).strip()
    ref = variables.find_frame(session, get_optional(arguments, "frameId", int))
    frame = variables.frame_of(session, ref)
    tree = _target_tree(target, frame)
    value = variables.evaluate_new(session, ref, get(arguments, "value", str))
    try:
        evaluate.call_with_limit(
            lambda: _assign(session, tree, frame, ref, value), values.kSecondsInAll)
    except evaluate.tTooSlow:
        raise tRequestError(u"setting {} takes too long".format(target))
    except BaseException:
        raise _error(evaluate.describe_error())
    return variables.describe_set(
        session, variables.tHolder(ref), arguments, value, _as_parent(target))


def _target_tree(target, frame):
    try:
        tree = framecode.parse_expression(target, frame)
    except SyntaxError:
        raise tRequestError(u"{} cannot be assigned to".format(target))
    if not isinstance(tree.body, (ast.Name, ast.Attribute, ast.Subscript)):
        raise tRequestError(u"{} cannot be assigned to".format(target))
    return tree


def _assign(session, tree, frame, ref, value):
    core = session.server.core
    if isinstance(tree.body, ast.Name):
        name = tree.body.id
        if ref is None or (name in frame.f_globals and name not in frame.f_locals):
            frame.f_globals[name] = value
        else:
            framecode.set_local(frame, name, value, core)
        return
    # The value comes in under a name that no program has.
    tree.body.ctx = ast.Store()
    statement = ast.Assign([tree.body], ast.Name(kValueName, ast.Load()))
    module = framecode.parse_statements("0", frame)
    module.body[:] = [ast.fix_missing_locations(ast.copy_location(statement, tree.body))]
    framecode.run(module, frame, None, {kValueName: value})


kValueName = "__debugger_value__"


def _seconds(arguments):
    context = arguments.get("context")
    if context == kRepl:
        return None
    return kClipboardSeconds if context == kClipboard else kSeconds


def _slow(session, arguments):
    raise tRequestError("this takes too long; it goes on in the program's thread")


kRequests = {
    "evaluate": tRequest(evaluate_text, kStopped, _seconds, _slow),
    "setExpression": tRequest(set_expression, kStopped, on_slow=_slow),
}
