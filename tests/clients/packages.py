"""Packages for node, as a lock file has them."""
import hashlib
import json
import os
import re
import shutil
import subprocess

kFiles = ("package.json", "package-lock.json", ".npmrc")
kInstallSeconds = 240
kAskSeconds = 30
kOldestNode = (18, 15)  # has reporters of test results
kFetch = ["npm", "ci"]
kRepository = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def install(source, folder):
    """None when what the files in `source` ask for is in the folder; else what is missing, why, and
    how to come by it."""
    why_not = try_to_install(source, folder)
    if why_not is None:
        return None
    with open(os.path.join(source, "package.json")) as manifest:
        names = sorted(json.load(manifest)["devDependencies"])
    text = "no {}: {}; where node {}.{} or later, npm and a network are, it is fetched ({} in {})"
    return text.format(
        ", ".join(names), why_not, kOldestNode[0], kOldestNode[1], " ".join(kFetch),
        os.path.relpath(folder, kRepository))


def try_to_install(source, folder):
    """None or why not."""
    for program in ("node", "npm"):
        if not shutil.which(program):
            return "{} is not installed".format(program)
    found = re.match(r"v(\d+)\.(\d+)", ask(["node", "--version"]))
    if not found or (int(found.group(1)), int(found.group(2))) < kOldestNode:
        return "node is older than {}.{}".format(*kOldestNode)
    digest = hashlib.sha256()
    os.makedirs(folder, exist_ok=True)
    for name in kFiles:
        path = os.path.join(source, name)
        with open(path, "rb") as text:
            digest.update(text.read())
        shutil.copy(path, folder)
    stamp = os.path.join(folder, "node_modules", ".installed-" + digest.hexdigest()[:16])
    if os.path.exists(stamp):
        return None
    why_not = run_npm(folder)
    if why_not is None:
        open(stamp, "w").close()
    return why_not


def run_npm(folder):
    try:
        done = subprocess.run(
            kFetch + ["--loglevel=error"], cwd=folder, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=kInstallSeconds)
    except subprocess.TimeoutExpired:
        return "npm ci took longer than {} s".format(kInstallSeconds)
    if done.returncode == 0:
        return None
    lines = [line for line in done.stdout.decode("utf-8", "replace").splitlines()
             if "error" in line]
    return "npm ci failed: " + " ".join(lines[:2])[:200]


def ask(argv):
    try:
        return subprocess.run(
            argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            timeout=kAskSeconds).stdout.decode()
    except (OSError, subprocess.TimeoutExpired):
        return ""
