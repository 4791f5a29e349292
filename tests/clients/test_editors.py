"""Editors with the configurations of docs/editors.md: launch, breakpoint, step, variable."""
import importlib.machinery
import importlib.util
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import screen

kHere = os.path.dirname(os.path.abspath(__file__))
kRepository = os.path.dirname(os.path.dirname(kHere))
kProgram = os.path.join(kHere, "programs", "walk.py")
kSeconds = 120
kF5, kF9, kF10 = "\x1b[15~", "\x1b[20~", "\x1b[21~"


def load_tool(name):
    """A script of tools/ as a module."""
    path = os.path.join(kRepository, "tools", name)
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"), path)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


fetch_clients = load_tool("fetch-clients")


def marked_line(mark):
    with open(kProgram) as source:
        return [number for number, text in enumerate(source, 1) if text.rstrip().endswith("#@ " + mark)][0]


class Editors(unittest.TestCase):

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.program = shutil.copy(kProgram, self.folder)
        self.command = command = self.put("tdbg", "#!/bin/sh\nexec '{}' '{}' --library '{}' \"$@\"\n".format(
            sys.executable, os.path.join(kRepository, "debug", "tdbg"), os.environ["TDBG_TEST_LIBRARY"]))
        os.chmod(command, 0o755)
        self.environment = dict(
            os.environ, HOME=self.folder, TERM="xterm-256color", LC_ALL="C.UTF-8",
            XDG_CONFIG_HOME=os.path.join(self.folder, "config"),
            XDG_CACHE_HOME=os.path.join(self.folder, "cache"))

    def put(self, name, text):
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as out:
            out.write(text)
        return path

    def configuration(self, language):
        """The block of the page for users."""
        with open(os.path.join(kRepository, "docs", "editors.md")) as source:
            block = re.search("```{}\n(.*?)```".format(language), source.read(), re.DOTALL).group(1)
        return block.replace("/path/to/tdbg", self.command)

    def client(self, name):
        path = fetch_clients.find_client(name)
        if path is None:
            self.skipTest("no {}: tools/fetch-clients could not fetch it".format(name))
        return path

    def test_helix(self):
        editor = self.client("helix")
        self.put("config/helix/languages.toml", self.configuration("toml"))
        self.put("config/helix/config.toml", self.configuration("ini"))
        line = marked_line("double")
        shown = screen.tScreen([editor, "{}:{}".format(self.program, line)], self.environment, self.folder)
        self.addCleanup(shown.close)
        shown.wait_for(r"def double\(value\)")
        shown.type(kF9)
        shown.wait_for(r"(?m)^[●▲◯⊚] +{} .*result = value".format(line))
        shown.type(":debug-start file {}\r".format(self.program))
        shown.wait_for(r"Thread 1 stopped because of breakpoint")
        shown.type(":debug-eval value + 100\r")
        shown.wait_for(r"(?m)^145$")
        shown.type(kF10)
        shown.wait_for(r"Thread 1 stopped because of step")
        shown.wait_for(r"(?m)^▶ +{} .*return result".format(marked_line("double-end")))
        shown.type(":debug-eval [result, len(str(value))]\r")
        shown.wait_for(r"(?m)^\[90, 2\]$")
        shown.type(kF5)
        shown.wait_for(r"Terminated debugging session")
        shown.type(":quit!\r")
        shown.process.wait(kSeconds)

    def test_dape(self):
        editor = self.client("emacs")
        settings = self.put("settings.el", self.configuration("elisp"))
        results = os.path.join(self.folder, "results")
        done = subprocess.run(
            [editor, "-Q", "--batch", "-l", "dape", "-l", settings, "-l", os.path.join(kHere, "dape.el"),
             "--eval", "(drive {} {} {})".format(*map(json.dumps, (self.program, marked_line("double"), results)))],
            env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, timeout=kSeconds)
        output = done.stdout.decode("utf-8", "replace")[-3000:]
        self.assertTrue(os.path.exists(results), output)
        with open(results) as source:
            told = json.load(source)
        self.assertEqual(told, [
            ["double", marked_line("double")], "45", ["double", marked_line("double-end")], "90", True], output)


if __name__ == "__main__":
    unittest.main()
