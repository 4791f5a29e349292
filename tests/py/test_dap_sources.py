"""Sources, modules and rules on the user's own code over the Debug Adapter Protocol."""
from __future__ import absolute_import, division, print_function

import io
import os
import unittest
import zipfile

from support import TestCase
from support.dapclient import debug_directly
from support.dapstops import next_stop, run_to_end

kOncePerVersion = True

MAIN = u'''\
# coding: latin-1
import linecache
import sys
sys.path.insert(0, "archive.zip")
import packed

TEXT = u"""def made(function):
    return function()  #@ made
"""
linecache.cache["<made>"] = (len(TEXT), None, TEXT.splitlines(True), "<made>")


def stop():
    return 1  #@ stop


packed.work(stop)
exec(compile(TEXT, "<made>", "exec"))
made(stop)
exec(compile(TEXT, "<string>", "exec"))
made(stop)
x = "\xe4"  #@ end
'''

PACKED = '''\
def work(function):
    before = 1
    return function()  #@ packed
'''


class SourceTest(TestCase):
    def setUp(self):
        self.folder = os.path.realpath(self.make_dir())
        self.main = self.make_file("main.py", MAIN.encode("latin-1"), self.folder)
        with zipfile.ZipFile(os.path.join(self.folder, "archive.zip"), "w") as archive:
            archive.writestr("packed.py", PACKED)

    def start(self, arguments=None, breakpoints=None, program=None, **options):
        client = debug_directly(self, program or self.main, cwd=self.folder, **options)
        client.start_session(arguments or {}, breakpoints=breakpoints)
        return client


class Sources(SourceTest):
    def test_by_path_and_by_reference(self):
        client = self.start(breakpoints={self.main: ["stop"]})
        found = []

        def look(stop):
            found.append(client.stack(stop.thread_id)[1]["source"])
            if len(found) == 1:
                text = client.request("source",
                                      {"source": {"path": self.main}, "sourceReference": 0})
                self.assertEqual(text["content"], MAIN)
                packed = {"source": found[0], "breakpoints": [{"line": 2}, {"line": 9}]}
                rows = client.request("setBreakpoints", packed)["breakpoints"]
                self.assertEqual([row["verified"] for row in rows], [True, False])

        run_to_end(client, look)
        packed, made, string = found
        self.assertEqual([source["name"] for source in found], ["packed.py", "<made>", "<string>"])
        references = [source["sourceReference"] for source in found]
        self.assertEqual(len(set(references)), 3)
        self.assertTrue(all(reference > 0 for reference in references))
        self.assertNotIn("path", made)

    def test_texts(self):
        client = self.start(breakpoints={self.main: ["stop"]})

        def text_of(source):
            return client.request("source", {
                "source": source, "sourceReference": source["sourceReference"]})["content"]

        for expected in (PACKED, "def made(function):\n    return function()  #@ made\n", None):
            stop = next_stop(client)
            source = client.stack(stop.thread_id)[1]["source"]
            if expected is None:
                self.assertIn("<string>", client.refused("source", {
                    "source": source, "sourceReference": source["sourceReference"]}))
            else:
                self.assertEqual(text_of(source), expected)
            if expected == PACKED:
                for arguments in ({"sourceReference": 99}, {"sourceReference": -1}, {"source": {}},
                                  {"sourceReference": 0}, {"source": {"path": "/no/such/file"}},
                                  {"source": {"path": self.folder}}, {"sourceReference": "x"}):
                    self.assertNotEqual(client.refused("source", arguments), "")
            client.resume(stop.thread_id)
        self.assertEqual(run_to_end(client), [])

    def test_breakpoint_in_text_without_a_file(self):
        program = self.make_file("twice.py", (
            "import linecache\n"
            "TEXT = 'def made():\\n    first = 1\\n    return first\\nmade()\\n'\n"
            "linecache.cache['<made>'] = (len(TEXT), None, TEXT.splitlines(True), '<made>')\n"
            "def run():\n"
            "    exec(compile(TEXT, '<made>', 'exec'), {'stop': stop})\n"
            "def stop():\n"
            "    return 1\n"
            "import sys\n"
            "sys.path.insert(0, 'archive.zip')\n"
            "import packed\n"
            "packed.work(stop)\n"
            "packed.work(stop)\n"
            "packed.work(run)\n"
            "packed.work(run)\n"), self.folder)
        packed = os.path.join(self.folder, "archive.zip", "packed.py")
        client = self.start(program=program, breakpoints={program: [{"line": 7}]})
        stop = next_stop(client)
        source = client.stack(stop.thread_id)[1]["source"]
        rows = client.request("setBreakpoints",
                              {"source": source, "breakpoints": [{"line": 2}]})["breakpoints"]
        self.assertEqual((rows[0]["verified"], rows[0]["source"]["sourceReference"]),
                         (True, source["sourceReference"]))
        by_path = client.set_breakpoints(packed, [1, {"line": 2}])
        self.assertEqual([(row["verified"], row["line"]) for row in by_path],
                         [(True, 1), (True, 2)])
        self.assertEqual(
            client.request("source", {"source": {"path": packed}})["content"], PACKED)
        client.resume(stop.thread_id)
        stops = run_to_end(client)
        self.assertEqual([(found.name, found.line) for found in stops], [
            ("work", 2), ("stop", 7), ("work", 2), ("work", 2)])

    def test_text_of_the_command_line(self):
        code = ("def f():\n    return 1\nimport sys\nf()\n"
                "breakpoint() if sys.version_info >= (3, 7) else None\n")
        client = self.start(program=["-c", code], arguments={"stopOnEntry": True})
        stop = next_stop(client)
        source = stop.frame["source"]
        self.assertEqual(source["name"], "<string>")
        text = client.request("source",
                              {"source": source, "sourceReference": source["sourceReference"]})
        self.assertEqual(text["content"].rstrip("\n"), code.rstrip("\n"))
        client.resume(stop.thread_id)
        run_to_end(client)


class Modules(SourceTest):
    def test_module_that_gets_its_file_late(self):
        """As __main__ does where the client is ready before the program."""
        late = self.make_file("late.py", u"", self.folder)
        program = self.make_file("program.py", (
            "import sys, types\n"
            "late = sys.modules['late'] = types.ModuleType('late')\n"
            "x = 1  #@ begin\n"
            "late.__file__ = {!r}\n"
            "x = 2  #@ end\n").format(late), self.folder)
        client = self.start(program=program, breakpoints={program: ["begin", "end"]})
        stop = next_stop(client)
        modules = client.request("modules")["modules"]
        self.assertEqual([row.get("path") for row in modules if row["name"] == "late"], [None])
        client.resume(stop.thread_id)
        stop = next_stop(client)
        sources = [source["path"] for source in client.request("loadedSources")["sources"]]
        self.assertIn(late, sources)
        self.assertEqual(
            [event["source"]["path"] for event in client.seen_events("loadedSource")
             if event["reason"] == "changed"], [late])
        client.resume(stop.thread_id)
        self.assertEqual(run_to_end(client), [])

    def test_modules_and_their_events(self):
        helper = self.make_file("helper.py", u"__version__ = '1.2'\n", self.folder)
        self.make_file("pack/__init__.py", u"", self.folder)
        inner = self.make_file("pack/inner.py", u"x = 1\n", self.folder)
        program = self.make_file("program.py", (
            "import sys  #@ begin\n"
            "import helper, pack.inner\n"
            "import helper\n"
            "x = 1  #@ end\n"), self.folder)
        client = self.start(program=program, breakpoints={program: ["begin", "end"]})
        stop = next_stop(client)
        before = client.request("modules")
        self.assertEqual(before["totalModules"], len(before["modules"]))
        names = [row["name"] for row in before["modules"]]
        self.assertIn("__main__", names)
        self.assertNotIn("helper", names)
        ids = [row["id"] for row in before["modules"]]
        self.assertEqual(len(set(ids)), len(ids))
        part = client.request("modules", {"startModule": 1, "moduleCount": 2})
        self.assertEqual((part["modules"], part["totalModules"]),
                         (before["modules"][1:3], len(names)))
        self.assertEqual(client.request("modules",
                                        {"startModule": 10 ** 6, "moduleCount": 5})["modules"], [])
        client.resume(stop.thread_id)
        stop = next_stop(client)
        news = dict((event["module"]["name"], event) for event in client.seen_events("module"))
        self.assertEqual(len(news), len(client.seen_events("module")))
        for name, path in (("helper", helper), ("pack.inner", inner)):
            self.assertEqual(news[name]["reason"], "new")
            self.assertEqual((news[name]["module"]["path"], news[name]["module"]["isUserCode"]),
                             (path, True))
        self.assertEqual(news["helper"]["module"]["version"], "1.2")
        sources = [source["path"] for source in client.request("loadedSources")["sources"]]
        self.assertEqual(len(sources), len(set(sources)))
        for path in (program, helper, inner):
            self.assertIn(path, sources)
        self.assertIn(helper,
                      [event["source"]["path"] for event in client.seen_events("loadedSource")])
        after = client.request("modules")["modules"]
        self.assertEqual(after[:len(names)], before["modules"])
        library = [row for row in after if row["name"] == "os"][0]
        self.assertFalse(library["isUserCode"])
        self.assertEqual([row["name"] for row in after if str(row["name"]).startswith("tdbg.")], [])
        client.resume(stop.thread_id)
        self.assertEqual(run_to_end(client), [])


class Rules(SourceTest):
    PROGRAM = (
        "import sys  #@ begin\n"
        "sys.path.append('site-packages')\n"
        "import installed, vendored, fnmatch\n"
        "def own():\n"
        "    return 1  #@ own\n"
        "installed.call(own)  #@ installed\n"
        "vendored.call(own)  #@ vendored\n"
        "fnmatch.fnmatch('a', 'b')  #@ library\n"
        "x = 1  #@ end\n")
    CALL = "def call(function):\n    return function()  #@ call\n"

    def run_rules(self, arguments=None, rules=None, mark="installed"):
        """[(module, mark)] where stepping in goes from the marked line, until the next one."""
        self.make_file("site-packages/installed.py", self.CALL, self.folder)
        self.make_file("vendored.py", self.CALL, self.folder)
        program = self.make_file("program.py", self.PROGRAM, self.folder)
        client = self.start(arguments, program=program, breakpoints={program: [mark]})
        stop = next_stop(client)
        answer = client.request("tdbg/setRules", {"rules": rules}) if rules is not None else None
        found = []
        for _ in range(12):
            client.request("stepIn", {"threadId": stop.thread_id})
            stop = next_stop(client)
            if stop is None or (stop.name == "<module>"
                                and os.path.basename(stop.path) == "program.py"):
                break
            found.append(os.path.basename(stop.path)[:-3])
        return sorted(set(found)), answer

    def test_only_the_users_own_by_default(self):
        self.assertEqual(self.run_rules()[0], ["program"])
        self.assertEqual(self.run_rules(mark="vendored")[0], ["program", "vendored"])

    def test_all_code(self):
        self.assertEqual(self.run_rules({"justMyCode": False})[0], ["installed", "program"])
        self.assertIn("fnmatch", self.run_rules({"justMyCode": False}, mark="library")[0])

    def test_ordered_rules(self):
        rules = [{"module": "installed", "include": True}, {"path": "**/vend*", "include": False},
                 {"path": "*", "include": True}]
        self.assertEqual(self.run_rules({"justMyCode": rules})[0], ["installed", "program"])
        self.assertEqual(self.run_rules({"justMyCode": rules}, mark="vendored")[0], ["program"])

    def test_changed_while_stopped(self):
        found, answer = self.run_rules(rules=False)
        self.assertEqual((found, answer["justMyCode"], answer["rules"]),
                         (["installed", "program"], False, []))
        rules = [{"module": "inst*", "include": True}]
        found, answer = self.run_rules(rules=rules)
        self.assertEqual((found, answer["justMyCode"], answer["rules"]),
                         (["installed", "program"], True, rules))

    def test_wrong_rules(self):
        client = self.start({"stopOnEntry": True})
        stop = next_stop(client)
        for rules in (None, 1, "x", {}, [1], [{}], [{"path": "a"}], [{"include": True}],
                      [{"path": "a", "module": "b", "include": True}],
                      [{"path": 1, "include": True}], [{"path": "a", "include": 1}]):
            self.assertNotEqual(client.refused("tdbg/setRules", {"rules": rules}), "", rules)
        client.resume(stop.thread_id)
        run_to_end(client)


class Patterns(unittest.TestCase):
    """What needs no program."""

    def make(self, *rules, **more):
        from tdbg.dap import rules as module

        return module.tRules(more.get("just_my_code", True), rules, more.get("to_client"))

    def test_defaults(self):
        rules = self.make()
        for path, expected in (
                ("/home/me/a.py", True), ("<string>", True),
                ("<frozen importlib._bootstrap>", False),
                ("/usr/lib/python3/dist-packages/x/y.py", False),
                ("/v/lib/python3.8/site-packages/z.py", False),
                (os.__file__.replace(".pyc", ".py"), False),
                (io.__file__.replace(".pyc", ".py"), False)):
            self.assertEqual(rules.is_user_file(path), expected, path)
            if not path.startswith("<frozen"):
                self.assertTrue(self.make(just_my_code=False).is_user_file(path), path)
        import tdbg

        own = os.path.join(os.path.dirname(os.path.abspath(tdbg.__file__)), "dbgserver.py")
        self.assertFalse(self.make(("path", "*", True), just_my_code=False).is_user_file(own))

    def test_paths(self):
        for pattern, path, expected in (
                ("/a/b", "/a/b/c.py", True), ("/a/b/", "/a/b/c.py", True),
                ("/a/b", "/a/bc.py", False), ("**/lib/*.py", "/x/lib/a.py", True),
                ("**/lib/**", "/x/lib/y/a.py", True), ("lib", "/x/lib/a.py", True),
                ("a.py", "/x/a.py", True), ("a.py", "/x/ba.py", False),
                ("/x/?.py", "/x/a.py", True), ("<string>", "<string>", True),
                ("/x/[ab].py", "/x/b.py", True)):
            rules = self.make(("path", pattern, False))
            self.assertEqual(rules.is_user_file(path), not expected, (pattern, path))

    def test_modules(self):
        for pattern, name, expected in (
                ("a", "a", True), ("a", "a.b", True), ("a", "ab", False), ("a.*", "a.b", True),
                ("*.b", "a.b", True), ("a", None, False)):
            rules = self.make(("module", pattern, False))
            self.assertEqual(rules.is_user_file("/x/y.py", name), not expected, (pattern, name))

    def test_first_that_fits_decides(self):
        rules = self.make(("path", "/a/b", True), ("path", "/a", False), ("path", "/a", True))
        self.assertTrue(rules.is_user_file("/a/b/c.py"))
        self.assertFalse(rules.is_user_file("/a/c.py"))

    def test_paths_of_the_client(self):
        rules = self.make(
            ("path", "C:\\Work\\Lib", False),
            to_client=lambda path: path.replace("/remote/", "c:\\work\\"))
        self.assertFalse(rules.is_user_file("/remote/lib\\a.py"))
        self.assertTrue(rules.is_user_file("/remote/a.py"))


if __name__ == "__main__":
    unittest.main()
