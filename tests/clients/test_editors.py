"""Editors with the configurations of docs/editors.md: launch, breakpoint, step, variable."""
import importlib.machinery
import importlib.util
import json
import os
import re
import select
import shutil
import signal
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
        return [number for number, text in enumerate(source, 1)
                if text.rstrip().endswith("#@ " + mark)][0]


class Editors(unittest.TestCase):

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.program = shutil.copy(kProgram, self.folder)
        self.command = command = self.put(
            "tdbg", "#!/bin/sh\nexec '{}' '{}' --library '{}' \"$@\"\n".format(
                sys.executable, os.path.join(kRepository, "debug", "tdbg"),
                os.environ["TDBG_TEST_LIBRARY"]))
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
        shown = screen.tScreen([editor, "{}:{}".format(self.program, line)], self.environment,
                               self.folder)
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
            [editor, "-Q", "--batch", "-l", "dape", "-l", settings, "-l",
             os.path.join(kHere, "dape.el"), "--eval", "(drive {} {} {})".format(
                 *map(json.dumps, (self.program, marked_line("double"), results)))],
            env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, timeout=kSeconds)
        output = done.stdout.decode("utf-8", "replace")[-3000:]
        self.assertTrue(os.path.exists(results), output)
        with open(results) as source:
            told = json.load(source)
        self.assertEqual(told, [
            ["double", marked_line("double")], "45", ["double", marked_line("double-end")], "90",
            True], output)

    def test_vscode(self):
        """The editor's own server and extension host; its window is a browser without a screen."""
        browser = self.client("vscode")
        self.put("work/.vscode/launch.json", self.configuration("json"))
        self.put("work/.vscode/settings.json", json.dumps(
            {"tdbg.adapter": [self.command, "adapter"]}))
        program = shutil.copy(kProgram, os.path.join(self.folder, "work"))
        self.put_extensions()
        results = os.path.join(self.folder, "results")
        os.mkfifo(results)
        told = os.open(results, os.O_RDWR)  # for reading; there is always a writer
        self.addCleanup(os.close, told)
        plan = {"program": program, "line": marked_line("double"), "configuration": "This file",
                "expressions": ["value", "result"]}
        self.environment.update(
            SHELL="/bin/sh", TDBG_TEST_RESULTS=results, TDBG_TEST_PLAN=json.dumps(plan))
        token = self.put("token", os.urandom(16).hex())
        server = self.start([
            os.path.join(os.path.dirname(browser), "serve"), "--host", "127.0.0.1", "--port", "0",
            "--connection-token-file", token, "--accept-server-license-terms",
            "--telemetry-level", "off", "--disable-workspace-trust",
            "--server-data-dir", os.path.join(self.folder, "data"),
            "--extensions-dir", os.path.join(self.folder, "extensions")])
        port = self.read_until(server.stdout.fileno(), r"agent listening on (\d+)").group(1)
        with open(token) as source:
            self.start([
                browser, "--no-sandbox", "--no-zygote", "--disable-gpu", "--disable-dev-shm-usage",
                "--remote-debugging-port=0",
                "--user-data-dir=" + os.path.join(self.folder, "window"),
                "http://127.0.0.1:{}/?tkn={}&folder={}/work".format(
                    port, source.read(), self.folder)])
        self.assertEqual(json.loads(self.read_until(told, r"(.*)\n").group(1)), [
            True, ["breakpoint", "double", marked_line("double"), "45"],
            ["step", "double", marked_line("double-end"), "90"], 1, "This file"])

    def put_extensions(self):
        """Ours as it is packed, and the one that plays the user."""
        source = os.path.join(kRepository, "editors", "vscode")
        with open(os.path.join(source, "package.json")) as text:
            files = json.load(text)["files"]
        for name in files + ["package.json"]:
            with open(os.path.join(source, name)) as text:
                self.put("extensions/tdbg.tdbg-1.0.0/" + name, text.read())
        self.put("extensions/tdbg.driver-1.0.0/package.json", json.dumps({
            "name": "driver", "publisher": "tdbg", "version": "1.0.0",
            "engines": {"vscode": "^1.80.0"}, "main": "./driver.js",
            "activationEvents": ["onStartupFinished"]}))
        with open(os.path.join(kHere, "vscode", "driver.js")) as text:
            self.put("extensions/tdbg.driver-1.0.0/driver.js", text.read())

    def start(self, argv):
        """A program with children; its output is read by read_until()."""
        process = subprocess.Popen(
            argv, env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self.addCleanup(end_group, process)
        return process

    def read_until(self, stream, pattern):
        """The match in what comes from the stream; a failure at its end, or when it is late."""
        text = ""
        while True:
            ready, _, _ = select.select([stream], [], [], kSeconds)
            data = os.read(stream, 4096) if ready else b""
            text += data.decode("utf-8", "replace")
            found = re.search(pattern, text)
            if found:
                return found
            self.assertTrue(data, text[-3000:])


def end_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except OSError:
        pass
    process.stdout.close()
    process.wait()


if __name__ == "__main__":
    unittest.main()
