"""Packages and sources of any Debian suite and architecture, without touching the system's apt.

apt does the resolving, downloading and verifying, in a state of its own below the cache: the
system's package lists, caches and configuration are read (mirror, proxy, keys) and never
written, and no root rights are needed.
"""

import glob
import os
import re
import subprocess

kReasonLength = 300
kNetworkSeconds = 20  # one connection or one stalled transfer
kUpdateSeconds = 240  # all package lists of one suite
kDownloadSeconds = 600  # one package with its dependencies

kTriplets = {"amd64": "x86_64-linux-gnu", "i386": "i386-linux-gnu"}

kNoNetwork = re.compile(
    r"could not connect|unable to connect|could not resolve|temporary failure resolving"
    r"|connection timed out|took longer", re.IGNORECASE
)


class tFailure(Exception):
    """Why one interpreter cannot be had; the text is for the user."""


def cache_dir():
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(base, "tdbg", "interpreters")


# --- running programs -----------------------------------------------------------------------


def run(argv, seconds, **kwargs):
    """Output of a program that must succeed (text, both streams together)."""
    try:
        done = subprocess.run(
            argv,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            timeout=seconds,
            encoding="utf-8",
            errors="replace",
            **kwargs,
        )
    except FileNotFoundError:
        raise tFailure("{} is not installed".format(argv[0]))
    except subprocess.TimeoutExpired:
        raise tFailure("{} took longer than {} s".format(os.path.basename(argv[0]), seconds))
    if done.returncode != 0:
        raise tFailure("{}: {}".format(os.path.basename(argv[0]), telling_line(done.stdout)))
    return done.stdout


def telling_line(output):
    """What a failing program said is wrong: apt's first error, else the last line."""
    lines = [line.strip() for line in output.splitlines() if line.strip()] or ["(no output)"]
    errors = [line for line in lines if line.startswith("E:")]
    return (errors or lines[-1:])[0][:kReasonLength]


# --- what the system's apt knows ------------------------------------------------------------

kDebianSuite = re.compile(
    r"^(stable|oldstable|oldoldstable|testing|unstable|sid|experimental"
    r"|buster|bullseye|bookworm|trixie|forky|duke)(-updates|-security|-backports|/updates)?$"
)


def find_mirrors():
    """{"main": address, "security": address or None} from the system's own apt configuration."""
    text = run(["apt-get", "indextargets", "--format", "$(REPO_URI)|$(RELEASE)",
                "Created-By: Packages"], 30)
    mirrors = {"main": None, "security": None}
    for line in text.splitlines():
        address, _, suite = line.strip().partition("|")
        if not kDebianSuite.match(suite) or address.startswith("cdrom:"):
            continue
        kind = "security" if suite.endswith(("-security", "/updates")) else "main"
        if mirrors[kind] is None:
            mirrors[kind] = address
    if mirrors["main"] is None:
        raise tFailure("apt's configuration names no Debian archive")
    return mirrors


def system_settings():
    """The system's settings for transfers (proxies and so on), as configuration lines."""
    kept = []
    for line in run(["apt-config", "dump"], 30).splitlines():
        name, _, value = line.partition(" ")
        if not name.startswith("Acquire::") or value == '"";':
            continue
        if name.startswith(("Acquire::IndexTargets", "Acquire::Changelogs", "Acquire::Languages")):
            continue
        kept.append(line)
    return kept


def find_keys():
    """Files with the archive's keys. Keys taken out of service are not among them."""
    keys = {}
    for folder in ("/usr/share/keyrings", "/etc/apt/trusted.gpg.d"):
        for path in sorted(glob.glob(os.path.join(folder, "debian-archive-*"))):
            stem, extension = os.path.splitext(os.path.basename(path))
            if extension in (".gpg", ".asc", ".pgp") and "removed" not in stem:
                keys[stem] = path
    if not keys:
        raise tFailure("no keys of the Debian archive (package debian-archive-keyring)")
    return keys


# --- a private apt --------------------------------------------------------------------------


class tApt:
    """apt for one suite and architecture, with lists, cache and configuration of its own.

    sources: lists of source packages instead of those of binary ones
    """

    def __init__(self, base, suite, arch, mirrors, sources=False):
        self.suite, self.arch = suite, arch
        self.kind = "deb-src" if sources else "deb"
        self.home = os.path.join(base, "apt", "{}-{}-{}".format(self.kind, suite, arch))
        self.config = os.path.join(self.home, "apt.conf")
        self.archives = os.path.join(self.home, "archives")
        for folder in ("lists/partial", "archives/partial", "etc/keys", "etc/parts", "log"):
            os.makedirs(os.path.join(self.home, folder), exist_ok=True)
        self.write_sources(mirrors)
        self.link_keys()
        self.write_config()
        open(os.path.join(self.home, "status"), "w").close()  # nothing is installed

    def write_sources(self, mirrors):
        lines = []
        for suite in self.suite.split("+"):
            kind = "security" if suite.endswith("-security") else "main"
            if mirrors[kind] is None:
                raise tFailure("apt's configuration names no archive of security updates")
            lines.append("{} [arch={}] {} {} main\n".format(self.kind, self.arch,
                                                            mirrors[kind], suite))
        with open(os.path.join(self.home, "etc", "sources.list"), "w") as out:
            out.writelines(lines)

    def link_keys(self):
        folder = os.path.join(self.home, "etc", "keys")
        for name in os.listdir(folder):
            os.unlink(os.path.join(folder, name))
        for stem, path in find_keys().items():
            with open(path, "rb") as key:
                armoured = key.read(5) == b"-----"
            os.symlink(path, os.path.join(folder, stem + (".asc" if armoured else ".gpg")))

    def write_config(self):
        user = "root" if os.geteuid() == 0 else ""  # apt's own user may not reach the cache
        settings = {
            "Dir::State": self.home,
            "Dir::State::lists": os.path.join(self.home, "lists"),
            "Dir::State::status": os.path.join(self.home, "status"),
            "Dir::Cache": self.home,
            "Dir::Cache::archives": self.archives,
            "Dir::Log": os.path.join(self.home, "log"),
            # Without the system's hooks, which may tidy up the system's own cache.
            "Dir::Etc::main": "/dev/null",
            "Dir::Etc::parts": os.path.join(self.home, "etc", "parts"),
            "Dir::Etc::preferences": "/dev/null",
            "Dir::Etc::preferencesparts": os.path.join(self.home, "etc", "parts"),
            "Dir::Etc::sourcelist": os.path.join(self.home, "etc", "sources.list"),
            "Dir::Etc::sourceparts": "/dev/null",
            "Dir::Etc::trusted": "/dev/null",
            "Dir::Etc::trustedparts": os.path.join(self.home, "etc", "keys"),
            "APT::Architecture": self.arch,
            "APT::Sandbox::User": user,
            "APT::Install-Recommends": "false",
            "APT::Get::Assume-Yes": "true",
            "APT::Get::AllowUnauthenticated": "false",
            "Acquire::AllowInsecureRepositories": "false",
            "Acquire::Languages": "none",
            # Lists of old suites are no longer renewed; the signature is what counts.
            "Acquire::Check-Valid-Until": "false",
            "Acquire::Retries": "1",
            "Acquire::http::Timeout": str(kNetworkSeconds),
            "Acquire::https::Timeout": str(kNetworkSeconds),
            "Acquire::ftp::Timeout": str(kNetworkSeconds),
            "Debug::NoLocking": "false",
        }
        with open(self.config, "w") as out:
            out.write("".join(line + "\n" for line in system_settings()))
            out.write("".join('{} "{}";\n'.format(name, value) for name, value in settings.items()))
            out.write(
                '#clear APT::Architectures;\nAPT::Architectures {{ "{}"; }};\n'.format(self.arch))

    def call(self, seconds, *argv, cwd=None):
        env = dict(os.environ, APT_CONFIG=self.config, LC_ALL="C.UTF-8",
                   DEBIAN_FRONTEND="noninteractive")
        return run(list(argv), seconds, env=env, cwd=cwd or self.home)

    def update(self):
        self.call(kUpdateSeconds, "apt-get", "-q", "update", "--error-on=any")

    def has(self, package):
        return bool(self.call(60, "apt-cache", "madison", package).strip())

    def closure(self, package):
        """[(package, version)] of the package and all it depends on."""
        text = self.call(60, "apt-get", "-q", "-s", "install", package)
        return re.findall(r"^Inst (\S+) \((\S+) ", text, re.MULTILINE)

    def download(self, package):
        """Paths of the verified package files of the closure."""
        closure = self.closure(package)
        self.call(kDownloadSeconds, "apt-get", "-q", "--download-only", "install", package)
        return [self.archive_of(name, version) for name, version in closure]

    def download_alone(self, packages):
        """Paths of the verified files of the packages, without what they depend on."""
        folder = os.path.join(self.home, "alone")
        os.makedirs(folder, exist_ok=True)
        self.call(kDownloadSeconds, "apt-get", "-q", "download", *packages, cwd=folder)
        return [max(glob.glob(os.path.join(folder, package + "_*.deb")), key=os.path.getmtime)
                for package in packages]

    def download_source(self, package):
        """Folder with the verified files of the newest source package of that name."""
        folder = os.path.join(self.home, "source", package)
        os.makedirs(folder, exist_ok=True)
        self.call(kDownloadSeconds, "apt-get", "-q", "--download-only", "source",
                  package, cwd=folder)
        return folder

    def archive_of(self, name, version):
        stem = "{}_{}_".format(name.split(":")[0], version.replace(":", "%3a"))
        for arch in (self.arch, "all"):
            path = os.path.join(self.archives, stem + arch + ".deb")
            if os.path.exists(path):
                return path
        raise tFailure("apt downloaded no {}*.deb".format(stem))
