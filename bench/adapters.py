#!/usr/bin/env python3
"""Compare this debugger with debugpy through the same client, in turns: one table.

debugpy is Debian's package as tools/fetch-clients unpacks it; it has compiled parts for 3.13.
Times are the least of all rounds, for whatever else the machine does only adds to them, and so
does compiling modules in the first one.

  bench/adapters.py --python ~/.pyenv/versions/3.13.0/bin/python [--lib build/64] [--rounds 5]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

kHere = os.path.dirname(os.path.abspath(__file__))
kRepository = os.path.dirname(kHere)
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(kRepository, "tests"))
from support import dapclient  # noqa: E402

kSteps = 100
kLoops = 1000000
kSeconds = 120
kClients = os.path.join(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"),
                        "tdbg", "clients")
kDebugpy = os.path.join(kClients, "debugpy", "usr", "lib", "python3", "dist-packages")

kStart = "def work():\n    x = 1  #@ here\n    return x\n\n\nwork()\n"
kSteppers = "def work():\n    x = 1  #@ here\n" + "    x += 1\n" * (kSteps + 5) + "\n\nwork()\n"
kWide = ("def work():\n" + "".join("    v{0} = {0}\n".format(n) for n in range(1000))
         + "    return v0  #@ here\n\n\nwork()\n")
kHot = """\
import time


def other():
    return 0  #@ here


def hot(count):
    total = 0
    for number in range(count):
        total += number
    return total  #@ last


other()
began = time.process_time()
hot({})
print("seconds", time.process_time() - began)
""".format(kLoops)


class tPeer:
    """How an adapter is started."""

    def __init__(self, name, argv, cache, **variables):
        self.name, self.argv = name, argv
        # Compiled in the first round, as an installation has them.
        self.environment = dict(os.environ, PYTHONPYCACHEPREFIX=cache, **variables)
        self.environment.pop("PYTHONDONTWRITEBYTECODE", None)

    def start(self, cleanups):
        process = subprocess.Popen(
            self.argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            env=self.environment)
        client = dapclient.client_of_process(process)
        # The client's thread must not read from what is opened next under the same number.
        cleanups += [lambda: dapclient.end_process(process), client.wait_end, process.kill,
                     client.close]
        return client


class tBench:
    def __init__(self, python, library, folder):
        self.python, self.folder = python, folder
        cache = os.path.join(folder, "cache")
        package = os.path.join(kRepository, "debug", "tdbg")
        self.peers = [
            tPeer("tdbg", [python, package, "--library", library, "adapter"], cache),
            tPeer("debugpy", [python, "-m", "debugpy.adapter"], cache, PYTHONPATH=kDebugpy)]
        self.best = {}

    def note(self, what, peer, value):
        row = self.best.setdefault(what, {})
        row[peer] = min(row.get(peer, value), value)

    def file_of(self, text):
        # the client remembers marks by the name
        path = os.path.join(self.folder, "prog{}.py".format(len(text)))
        with open(path, "w") as out:
            out.write(text)
        return path

    def session(self, peer, text, marks, measure):
        """measure(client, began, thread) at the first stop;
        times are counted from the start of the adapter."""
        path = self.file_of(text)
        cleanups = []
        try:
            began = time.perf_counter()
            client = peer.start(cleanups)
            client.initialize()
            launched = time.perf_counter()
            client.start_session(
                {"program": path, "console": "internalConsole", "cwd": self.folder,
                 "redirectOutput": True, "subProcess": False, "python": self.python},
                breakpoints={path: marks})
            thread = client.wait_stopped("breakpoint", kSeconds)["threadId"]
            stopped = time.perf_counter()
            measure(client, thread, stopped - began, stopped - launched)
            client.request("continue", {"threadId": thread})
            if "last" in marks:
                thread = client.wait_stopped("breakpoint", kSeconds)["threadId"]
                client.request("continue", {"threadId": thread})
            client.wait_event("terminated", seconds=kSeconds)
            return client
        finally:
            for clean in reversed(cleanups):
                clean()

    def measure_start(self, peer):
        def measure(client, thread, whole, launch):
            self.note("adapter started to first stop, s", peer.name, whole)
            self.note("launch request to first stop, s", peer.name, launch)
            pid = client.wait_event("process")["systemProcessId"]
            self.note("memory of the stopped program, MB", peer.name, memory_of(pid))
        self.session(peer, kStart, ["here"], measure)

    def measure_steps(self, peer):
        def measure(client, thread, *_):
            for _ in range(kSteps):
                began = time.perf_counter()
                client.request("next", {"threadId": thread})
                client.wait_stopped("step")
                self.note("one step, ms", peer.name, 1000 * (time.perf_counter() - began))
            began = time.perf_counter()
            client.stack(thread)
            self.note("stack after a step, ms", peer.name, 1000 * (time.perf_counter() - began))
        self.session(peer, kSteppers, ["here"], measure)

    def measure_scope(self, peer):
        def measure(client, thread, *_):
            frame = client.stack(thread)[0]["id"]
            began = time.perf_counter()
            reference = client.request("scopes",
                                       {"frameId": frame})["scopes"][0]["variablesReference"]
            rows = client.request("variables", {"variablesReference": reference})["variables"]
            seconds = time.perf_counter() - began
            assert sum(row["name"].startswith("v") for row in rows) == 1000, (peer.name, rows[:3])
            self.note("scope of 1,000 variables, ms", peer.name, 1000 * seconds)
        self.session(peer, kWide, ["here"], measure)

    def measure_hot(self, peer, what, marks):
        client = self.session(peer, kHot, marks, lambda *_: None)
        text = "".join(body["output"] for body in client.seen_events("output"))
        self.note(what, peer.name, float(re.search(r"seconds (\S+)", text).group(1)))

    def run(self, rounds):
        for _ in range(rounds):
            for peer in self.peers:
                self.measure_start(peer)
                self.measure_steps(peer)
                self.measure_scope(peer)
                self.measure_hot(peer, "breakpoint in another function, s", ["here"])
                self.measure_hot(peer, "breakpoint in the hot function, s", ["here", "last"])
            self.measure_plain()

    def measure_plain(self):
        """The same without a debugger."""
        path = self.file_of(kHot)
        text = subprocess.check_output([self.python, path]).decode()
        for what in ("breakpoint in another function, s", "breakpoint in the hot function, s"):
            self.note(what, "no debugger", float(text.split()[1]))
        waiting = subprocess.Popen([self.python, "-c",
                                    "import time; print(1, flush=True); time.sleep(600)"],
                                   stdout=subprocess.PIPE)
        waiting.stdout.readline()
        self.note("memory of the stopped program, MB", "no debugger", memory_of(waiting.pid))
        waiting.kill()
        waiting.communicate()


def memory_of(pid):
    """Megabytes of its own that the process has in memory."""
    with open("/proc/{}/smaps_rollup".format(pid)) as source:
        kilobytes = sum(int(line.split()[1]) for line in source if line.startswith("Private_"))
    return kilobytes / 1024


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--python", required=True,
                        help="the interpreter, of 3.13 for debugpy's compiled parts")
    parser.add_argument("--lib", default=os.path.join(kRepository, "build", "64"))
    parser.add_argument("--rounds", type=int, default=5)
    arguments = parser.parse_args()
    if not os.path.isdir(kDebugpy):
        parser.error("no debugpy: tools/fetch-clients debugpy fetches it")
    folder = tempfile.mkdtemp()
    try:
        bench = tBench(os.path.abspath(arguments.python),
                       os.path.abspath(os.path.join(arguments.lib, "tdbgtracer.so")), folder)
        bench.run(arguments.rounds)
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    names = ["tdbg", "debugpy", "no debugger"]
    print("| | " + " | ".join(names) + " |\n|---|" + "---|" * len(names))
    for what, row in bench.best.items():
        print("| {} | {} |".format(
            what, " | ".join("{:.3g}".format(row[name]) if name in row else "" for name in names)))


if __name__ == "__main__":
    main()
