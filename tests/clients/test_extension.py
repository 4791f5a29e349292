"""The extension for Visual Studio Code: its manifest, its program, its package."""
import json
import os
import re
import shutil
import subprocess
import sys
import unittest
import zipfile

import packages

kHere = os.path.dirname(os.path.abspath(__file__))
kRepository = os.path.dirname(os.path.dirname(kHere))
kExtension = os.path.join(kRepository, "editors", "vscode")
kBuild = os.path.join(kRepository, "build", "vscode")
kSeconds = 120
sys.path.insert(0, os.path.join(kRepository, "debug"))
from tdbg.dap import config  # noqa: E402

kAttachOnly = {"connect", "listen", "host", "port", "processId", "subProcessId", "socket", "token"}
kLaunchOnly = {"program", "module", "code", "args", "python", "pythonPath", "pythonArgs", "cwd",
               "env", "envFile", "console", "stopOnEntry", "noDebug"}
kEnums = {
    "console": config.kConsoles, "onTerminate": config.kEndings,
    "stepGranularity": config.kGranularities, "subProcess": (True, False) + config.kChildPolicies}
kOfEditor = {"name", "type", "request"}
# Tells what the extension registers, with a stand-in for the editor.
kStandIn = """
const Module = require('module');
const told = {};
const vscode = {
    workspace: { getConfiguration: (name) => ({
        get: (key) => (told.read = `${name}.${key}`, ['a', 'adapter', 'b']),
    }) },
    window: { activeTextEditor: { document: { languageId: 'python' } } },
    DebugAdapterExecutable: class { constructor(command, args) { told.starts = [command, args]; } },
    debug: {
        registerDebugAdapterDescriptorFactory(type, factory) {
            told.type = type;
            factory.createDebugAdapterDescriptor({});
        },
        registerDebugConfigurationProvider(type, provider) {
            told.made = provider.resolveDebugConfiguration(undefined, {});
            told.kept = provider.resolveDebugConfiguration(undefined, { type, name: 'x' });
        },
    },
};
const load = Module._load;
Module._load = (name, ...rest) => (name === 'vscode' ? vscode : load(name, ...rest));
const context = { subscriptions: [] };
require(process.argv[1]).activate(context);
told.subscriptions = context.subscriptions.length;
console.log(JSON.stringify(told));
"""


class Extension(unittest.TestCase):

    def setUp(self):
        with open(os.path.join(kExtension, "package.json")) as source:
            self.manifest = json.load(source)
        self.debugger = self.manifest["contributes"]["debuggers"][0]

    def test_attributes_are_those_of_the_adapter(self):
        attributes = self.debugger["configurationAttributes"]
        launch, attach = (set(attributes[kind]["properties"]) for kind in ("launch", "attach"))
        everything = set(config.kKeys)
        self.assertEqual(launch, everything - kAttachOnly)
        self.assertEqual(attach, everything - kLaunchOnly)
        self.assertEqual((self.debugger["type"], self.debugger["languages"]), ("tdbg", ["python"]))

    def test_values_are_those_of_the_adapter(self):
        for kind in ("launch", "attach"):
            properties = self.debugger["configurationAttributes"][kind]["properties"]
            for name, schema in properties.items():
                self.assertTrue(schema.get("description"), name)
                self.assertEqual(tuple(schema.get("enum", ())), kEnums.get(name, ()), name)
                if "default" in schema and "$" not in str(schema["default"]):
                    self.check_default(kind, name, schema["default"])

    def check_default(self, kind, name, value):
        given = {} if kind == "attach" else {"program": "x"}
        default = config.tConfig(kind, given)
        told = config.tConfig(kind, dict(given, **{name: value}))
        self.assertEqual(told.warnings, [], name)
        if name not in ("host", "redirectOutput"):
            attribute = config.kKeys[name][0]
            # What was not given and what was switched off are the same.
            self.assertEqual(
                getattr(told, attribute) or None, getattr(default, attribute) or None, name)

    def test_examples_are_understood(self):
        bodies = self.debugger["initialConfigurations"] + [
            snippet["body"] for snippet in self.debugger["configurationSnippets"]]
        with open(os.path.join(kRepository, "docs", "editors.md")) as source:
            bodies += json.loads(re.search(r"```json\n(.*?)```", source.read(),
                                           re.DOTALL).group(1))["configurations"]
        kinds = set()
        for body in bodies:
            properties = self.debugger["configurationAttributes"][body["request"]]["properties"]
            self.assertEqual((set(body) - kOfEditor) - set(properties), set(), body["name"])
            self.assertEqual(body["type"], "tdbg")
            given = {name: self.filled_in(value) for name, value in body.items()}
            self.assertEqual(config.tConfig(body["request"], given).warnings, [], body["name"])
            kinds.add(body["request"])
        self.assertEqual(kinds, {"launch", "attach"})

    def filled_in(self, value):
        """A snippet's value as the editor hands it on."""
        if isinstance(value, dict):
            return {name: self.filled_in(item) for name, item in value.items()}
        if isinstance(value, list):
            return [self.filled_in(item) for item in value]
        if not isinstance(value, str):
            return value
        value = re.sub(r"\$\{\d+:(.*?)\}", r"\1", value)
        if value.startswith("^"):
            value = json.loads(value[1:].replace("\\$", "$"))
        return 4711 if value == "${command:pickProcess}" else value

    def test_program_starts_the_adapter(self):
        if not shutil.which("node"):
            self.skipTest("node is not installed")
        done = subprocess.run(
            ["node", "-e", kStandIn, os.path.join(kExtension, "extension.js")],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=kSeconds, check=True)
        told = json.loads(done.stdout.decode())
        self.assertEqual(told["type"], "tdbg")
        self.assertIn(told["read"], self.manifest["contributes"]["configuration"]["properties"])
        self.assertEqual(told["starts"], ["a", ["adapter", "b"]])
        self.assertEqual((told["made"]["type"], told["made"]["program"]), ("tdbg", "${file}"))
        self.assertEqual((told["kept"], told["subscriptions"]), ({"type": "tdbg", "name": "x"}, 2))

    def test_package(self):
        why_not = packages.install(kExtension, kBuild)
        if why_not is not None:
            self.skipTest(why_not)
        for name in ("extension.js", "README.md", "LICENSE"):
            shutil.copy(os.path.join(kExtension, name), kBuild)
        target = os.path.join(kBuild, "tdbg.vsix")
        done = subprocess.run(
            [os.path.join("node_modules", ".bin", "vsce"), "package", "--no-dependencies",
             "--allow-missing-repository", "--out", target], cwd=kBuild, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=kSeconds)
        self.assertEqual(done.returncode, 0, done.stdout.decode("utf-8", "replace"))
        with zipfile.ZipFile(target) as archive:
            names = set(archive.namelist())
            packed = json.loads(archive.read("extension/package.json").decode())
        self.assertEqual(packed["contributes"], self.manifest["contributes"])
        self.assertTrue({"extension/extension.js", "extension.vsixmanifest"} <= names, names)
        self.assertFalse([name for name in names if "node_modules" in name])


if __name__ == "__main__":
    unittest.main()
