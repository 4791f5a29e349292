"""The debugger's own threads import nothing:
another thread may be stopped in the middle of an import."""
from __future__ import absolute_import, division, print_function

import hashlib

from support import TestCase
from support.dapclient import Refused, debug_directly

kOncePerVersion = True

kProgram = """\
from __future__ import print_function
import sys
import threading
from tdbg import threads as own

ASKED = set()


class Finder(object):  # asked for every module that is not there
    @staticmethod
    def note(name):
        if own.is_own_thread(own.compat.get_ident()):
            ASKED.add(name)

    def find_spec(self, name, path=None, target=None):
        self.note(name)

    def find_module(self, name, path=None):
        self.note(name)


sys.meta_path.insert(0, Finder())
if sys.version_info[0] == 2:  # whose one lock is taken for every import
    import __builtin__
    plain = __builtin__.__import__

    def asking(name, *args, **kwargs):
        Finder.note(name)
        return plain(name, *args, **kwargs)
    __builtin__.__import__ = asking


class Thing(object):
    def __init__(self):
        self.number, self.text, self.rows = 1, u"x", [1, 2]

    @property
    def lazy(self):
        return 5


def work(thing):
    inner = {"a": thing, 1: (2, 3), u"\\xe4": b"b"}
    thing.number += 1  #@ stop
    thing.number += 1
    try:
        raise KeyError("key")
    except KeyError:
        pass
    return inner  #@ last


def wait():
    GO.wait()


GO = threading.Event()
thread = threading.Thread(target=wait, name="waits")
thread.start()
work(Thing())
GO.set()
thread.join()
print("end")  #@ end
"""


class Imports(TestCase):

    def test_none_by_threads_of_the_debugger(self):
        path = self.make_file("main.py", kProgram)
        other = self.make_file("other.py", "x = 1\n")
        client = debug_directly(self, path)
        client.initialize()
        started = client.send("launch", {"stopOnEntry": True, "redirectOutput": True,
                                         "console": "integratedTerminal",
                                         "subProcess": "none", "showReturnValue": True})
        client.wait_event("initialized")
        client.request("configurationDone")
        client.response_to(started)
        thread = client.wait_stopped("entry")["threadId"]
        client.set_breakpoints(path, ["stop"])
        client.resume(thread)
        client.wait_stopped("breakpoint")
        self.ask_everything(client, thread, path, other)
        client.request("next", {"threadId": thread})
        client.wait_stopped("step")
        client.set_breakpoints(path, [])
        self.assertEqual(client.go("continue", thread, "exception")[1]["threadId"], thread)
        client.request("exceptionInfo", {"threadId": thread})
        client.request("tdbg/ignoreException", {"threadId": thread})
        client.set_breakpoints(path, [{"line": "last", "logMessage": "n is {thing.number}"}, "end"])
        client.resume(thread)
        client.wait_stopped("breakpoint")
        frame = client.stack(thread)[0]["id"]
        self.assertEqual(client.evaluate("sorted(ASKED)", frame), "[]")
        client.resume(thread)
        self.assertEqual(client.wait_exit(), 0)

    def ask_everything(self, client, thread, path, other):
        frame = client.stack(thread)[0]["id"]
        scopes = client.request("scopes", {"frameId": frame})["scopes"]
        for scope in scopes:
            rows = client.request("variables",
                                  {"variablesReference": scope["variablesReference"]})["variables"]
            for row in rows[:8]:
                if row["variablesReference"]:
                    client.request("variables", {"variablesReference": row["variablesReference"]})
        digest = hashlib.sha256(b"x = 1\n").hexdigest()
        for command, arguments in (
                ("threads", None), ("modules", {}), ("loadedSources", None),
                ("pause", {"threadId": thread}),
                ("source", {"source": {"path": path}, "sourceReference": 0}),
                ("setBreakpoints", {"source": {"path": "/elsewhere/other.py", "checksums": [
                    {"algorithm": "SHA256", "checksum": digest}]}, "breakpoints": [{"line": 1}]}),
                ("setBreakpoints", {"source": {"path": other}, "breakpoints": [
                    {"line": 1, "condition": "x ==", "hitCondition": "%2"}]}),
                ("breakpointLocations", {"source": {"path": other}, "line": 1}),
                ("setFunctionBreakpoints",
                 {"breakpoints": [{"name": "Thing.lazy"}, {"name": "json.dumps"}]}),
                ("setFunctionBreakpoints", {"breakpoints": []}),
                ("setExceptionBreakpoints", {"filters": ["uncaught", "runner"], "filterOptions": [
                    {"filterId": "raised", "condition": "KeyError, socket.timeout"}]}),
                ("evaluate", {"expression": "thing.lazy + [n for n in [1]][0]", "frameId": frame}),
                ("evaluate", {"expression": "thing.text", "frameId": frame, "context": "hover"}),
                ("evaluate", {"expression": "for i in range(2):\n    y = i\n", "frameId": frame,
                              "context": "repl"}),
                ("evaluate", {"expression": "inner", "frameId": frame, "context": "clipboard"}),
                ("setExpression", {"expression": "thing.number", "value": "7", "frameId": frame}),
                ("completions", {"text": "thing.", "column": 7, "frameId": frame}),
                ("gotoTargets", {"source": {"path": path}, "line": 1}),
                ("stepInTargets", {"frameId": frame}), ("tdbg/tasks", {"threadId": thread}),
                ("tdbg/setRules", {"rules": [{"module": "json", "include": False}]}),
                ("exceptionInfo", {})):
            try:
                client.request(command, arguments)
            except Refused:
                pass
        # A worker, too, in the place of the stopped thread.
        stuck = client.send("evaluate", {
            "expression": "GO.wait(1.5) if sys.version_info[0] > 2 else "
                          "__import__('time').sleep(1.5)",
            "frameId": frame, "context": "repl"})
        client.evaluate("inner", frame)
        client.request("completions", {"text": "thing.", "column": 7, "frameId": frame})
        client.response_to(stuck)
