"""The wheels: built once, installed without a network for every interpreter, and used there."""
import concurrent.futures
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile

import interpreters as finder

kHere = os.path.dirname(os.path.abspath(__file__))
kRepository = os.path.dirname(os.path.dirname(kHere))
kSeconds = 300
kAtOnce = 2
kPlatforms = {64: "manylinux_2_17_x86_64", 32: "manylinux_2_17_i686"}
kOldestGlibc = (2, 17)
kEnvironmentsSince = (3, 7)  # whose `venv` and pip know such wheels; older ones get a folder
kOptions = ["--quiet", "--no-index", "--no-deps", "--disable-pip-version-check", "--no-compile"]


def run(argv, **options):
    """(status, output)"""
    options.setdefault("stdin", subprocess.DEVNULL)
    environment = {name: text for name, text in os.environ.items() if not name.startswith("PYTHON")}
    environment.update(options.pop("env", {}))
    done = subprocess.run(
        argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=kSeconds, env=environment,
        **options)
    return done.returncode, done.stdout.decode("utf-8", "replace")


def library_for(bits):
    """As built by ./check; None when there is none."""
    library = os.environ["TDBG_TEST_LIBRARY"]
    if bits == 32:
        library = re.sub(r"64(/[^/]*)$", r"32\1", library)
    return library if os.path.exists(library) else None


def pip_python():
    """An interpreter whose pip can install for others; None when there is none."""
    found = [item.path for item in finder.find_interpreters()
             if item.version[:2] >= (3, 9) and item.name.startswith("pyenv-")]
    for python in [sys.executable, "/usr/bin/python3"] + found:
        status, output = run([python, "-c", "import pip; print(pip.__version__)"])
        version = re.match(r"(\d+)\.(\d+)", output)
        if status == 0 and version and tuple(map(int, version.groups())) >= (22, 3):
            return python
    return None


class Wheels(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="tdbg-wheels-")
        cls.addClassCleanup(shutil.rmtree, cls.folder, True)
        cls.pip = pip_python()
        if cls.pip is None:
            raise unittest.SkipTest("no interpreter has pip 22.3 or later")
        cls.wheels = {}
        for bits in kPlatforms:
            library = library_for(bits)
            if library is None:
                continue
            status, output = run([
                sys.executable, os.path.join(kRepository, "packaging", "build-wheels"), "--bits",
                str(bits), "--library", library, "--out", cls.folder])
            if status != 0 and "No matching distribution found" in output:
                raise unittest.SkipTest("no interpreter has setuptools and wheel, and pip cannot "
                                        "fetch them")
            assert status == 0, output
            cls.wheels[bits] = glob.glob(os.path.join(cls.folder,
                                                      "tdbg-*{}.whl".format(kPlatforms[bits])))[0]
        cls.program = os.path.join(cls.folder, "prog.py")
        with open(cls.program, "w") as out:
            out.write("import sys\nx = 20 + 3\nprint(x)\nsys.exit(7)\n")

    def environment(self, item):
        """(words that start the interpreter, the command `tdbg`, variables),
        with the package installed."""
        folder = tempfile.mkdtemp(dir=self.folder)
        wheel = self.wheels[item.bits]
        if item.name.startswith("pyenv-") and item.version[:2] >= kEnvironmentsSince:
            self.must([item.path, "-m", "venv", "--without-pip", folder])
            python = os.path.join(folder, "bin", "python")
            self.must([self.pip, "-m", "pip", "--python", python, "install"] + kOptions + [wheel])
            return [python], [os.path.join(folder, "bin", "tdbg")], {}
        self.must([self.pip, "-m", "pip", "install", "--target", folder, "--only-binary=:all:",
                   "--implementation", "py", "--python-version", "{}.{}".format(*item.version[:2]),
                   "--abi", "none", "--platform", kPlatforms[item.bits]] + kOptions + [wheel])
        return [item.path], [item.path, os.path.join(folder, "bin", "tdbg")], {"PYTHONPATH": folder}

    def must(self, argv):
        status, output = run(argv)
        self.assertEqual(status, 0, output)

    def use(self, item):
        python, command, variables = self.environment(item)
        for start in (python + ["-m", "tdbg"], command):
            self.assertEqual(run(start + ["--version"], env=variables, cwd="/"),
                             (0, "tdbg 1.0.0\n"))
            status, output = run(
                start + [self.program], env=variables, cwd="/",
                input=b"next\nnext\np x * 2\ncontinue\n", stdin=None)
            self.assertEqual(status, 7, output)
            self.assertRegex(output, r"(?m)^(\(Tdb\) )*46$")
        if item.version[:2] >= (3, 6):
            body = (b'{"seq": 1, "type": "request", "command": "initialize", '
                b'"arguments": {"adapterID": "tdbg"}}')
            status, output = run(
                command + ["adapter"], env=variables, stdin=None,
                input=b"Content-Length: %d\r\n\r\n%s" % (len(body), body))
            self.assertEqual(status, 0, output)
            self.assertIn('"supportsConfigurationDoneRequest"', output)

    def test_every_interpreter(self):
        found = [item for item in finder.find_interpreters()
                 if item.supported and not item.is_built and item.variant == "release"
                 and (item.name.startswith("pyenv-") or item.bits == 32)
                 and item.bits in self.wheels]
        if not found:
            self.skipTest("neither pyenv's interpreters nor 32-bit ones are there")
        with concurrent.futures.ThreadPoolExecutor(kAtOnce) as pool:
            running = [(item, pool.submit(self.use, item)) for item in found]
        for item, future in running:
            with self.subTest(item.name):
                future.result()

    def test_names_and_contents(self):
        for bits, path in self.wheels.items():
            self.assertEqual(os.path.basename(path),
                             "tdbg-1.0.0-py2.py3-none-{}.whl".format(kPlatforms[bits]))
            with zipfile.ZipFile(path) as wheel:
                names = set(wheel.namelist())
                library = wheel.extract("tdbg/tdbgtracer.so", self.folder)
            package = os.path.join(kRepository, "debug")
            tracked = [
                os.path.relpath(os.path.join(folder, name), package)
                for folder, _, files in os.walk(package + "/tdbg")
                for name in files if not name.endswith((".pyc", ".so"))]
            self.assertEqual(set(tracked) - names, set())
            symbols = run(["readelf", "-V", "-d", library])[1]
            versions = {tuple(map(int, text.split(".")))
                        for text in re.findall(r"GLIBC_(\d+\.\d+)", symbols)}
            self.assertTrue(versions and max(versions) <= kOldestGlibc, versions)
            self.assertEqual(set(re.findall(r"Shared library: \[(.*)\]", symbols)),
                             {"libc.so.6", "libdl.so.2", "libpthread.so.0"})


class Help(unittest.TestCase):
    """Usage, manual page and completions know the same words."""

    def read(self, *names):
        with open(os.path.join(kRepository, *names)) as source:
            return source.read().replace("\\-", "-")

    def usage(self):
        tdbg = [sys.executable, os.path.join(kRepository, "debug", "tdbg")]
        return "".join(run(tdbg + words)[1]
                       for words in (["--help"], ["adapter", "--help"], ["serve", "--help"]))

    def test_same_options(self):
        wanted = set(re.findall(r"--[a-z-]+", self.usage()))
        self.assertIn("--wait-for-client", wanted)
        for names in (("docs", "tdbg.1"), ("packaging", "completions", "tdbg"),
                      ("packaging", "completions", "_tdbg")):
            self.assertEqual(wanted - set(re.findall(r"--[a-z-]+", self.read(*names))),
                             set(), names)

    def test_manual_page(self):
        if not shutil.which("groff"):
            self.skipTest("groff is not installed")
        path = os.path.join(kRepository, "docs", "tdbg.1")
        done = subprocess.run(["groff", "-man", "-Tutf8", "-P-cbou", "-ww", path],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertIn(b"SYNOPSIS", done.stdout)

    def completions(self, *words):
        script = os.path.join(kRepository, "packaging", "completions", "tdbg")
        text = ('. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tdbg; '
                'printf "%s\\n" "${COMPREPLY[@]}"')
        return run(["bash", "-c", text, script, "tdbg"] + list(words), cwd=kHere)[1].split()

    def test_bash(self):
        self.assertEqual(self.completions("ad"), ["adapter"])
        self.assertEqual(self.completions("--python", "3.1"),
                         ["3.10", "3.11", "3.12", "3.13", "3.14"])
        self.assertEqual(self.completions("adapter", "--po"), ["--port"])
        self.assertEqual(self.completions("--python", "3.9", "serve", "--li"), ["--listen"])
        self.assertEqual(self.completions("accep"), ["acceptance.js"])
        self.assertIn("--post-mortem", self.completions("--"))

    def test_zsh(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        path = os.path.join(kRepository, "packaging", "completions", "_tdbg")
        self.assertEqual(run(["zsh", "-n", path]), (0, ""))


if __name__ == "__main__":
    unittest.main()
