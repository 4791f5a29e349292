"""Packages for node, as a lock file has them."""
import hashlib
import os
import re
import shutil
import subprocess

kFiles = ("package.json", "package-lock.json", ".npmrc")
kInstallSeconds = 240
kAskSeconds = 30
kOldestNode = (18, 15)  # has reporters of test results


def install(source, folder):
    """None when what the files in `source` ask for is in the folder, else why not."""
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
            ["npm", "ci", "--loglevel=error"], cwd=folder, stdin=subprocess.DEVNULL,
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
