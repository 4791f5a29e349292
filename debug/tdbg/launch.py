"""`python -m tdbg PROGRAM`: check what can be checked, then become the debugged process.

Runs in a process of its own, which ends by executing the interpreter anew with the program as
its ordinary argument; see startup/sitecustomize.py for the rest.
"""
from __future__ import absolute_import, division, print_function

import errno
import os
import sys
import warnings

from tdbg import bootstrap, compat, nativelib

kUsageStatus = 2
kEndOfArchive = b"PK\5\6"
kForAdapter = "--adapter"  # SOCKET: the adapter starts a program
kUsage = """\
usage: tdbg [--python X] [--post-mortem] PROGRAM [ARGUMENTS]
       tdbg [--python X] [--post-mortem] -m MODULE [ARGUMENTS]
       tdbg [--python X] [--post-mortem] -c CODE [ARGUMENTS]
       tdbg adapter [OPTIONS]
       tdbg [--python X] serve [OPTIONS] (PROGRAM | -m MODULE | -c CODE) [ARGUMENTS]

Debug a Python program in the terminal. It stops before its first line; type `help` there.
`adapter` is what an editor starts (Debug Adapter Protocol, through standard input and output or
a port); `serve` runs a program that an editor can attach to. Both have a `--help` of their own.

  --python X     the interpreter: a version (3.9), a name or a path (default: python3); comes first
  --post-mortem  stop only when an exception ends the program
  -m MODULE      run a module as `python -m` does
  -c CODE        run this text
  -h, --help     this text
  --version      the version of the debugger
"""


class tRefused(Exception):
    """The program cannot be started; the text is one line for the user."""


def run():
    """The installed command."""
    sys.exit(main(sys.argv[1:], os.path.dirname(os.path.abspath(__file__))))


def main(argv, package_folder):
    """Run the command line; returns the exit status when there is nothing to debug."""
    try:
        argv = switch_interpreter(argv, package_folder)
    except tRefused as why:
        sys.stderr.write("tdbg: {}\n".format(compat.to_native(compat.to_text(str(why)))))
        return kUsageStatus
    if argv[:1] == ["--version"]:
        from tdbg import __version__

        sys.stdout.write("tdbg {}\n".format(__version__))
        return 0
    command = command_of(argv)
    if command is not None:
        return command(package_folder)
    try:
        options = parse(argv)
        if options is None:
            sys.stdout.write(kUsage)
            return 0
        start(options, package_folder)
    except (tRefused, nativelib.tNoLibrary) as why:
        sys.stderr.write("tdbg: {}\n".format(compat.to_native(compat.to_text(str(why)))))
        return kUsageStatus


def switch_interpreter(argv, package_folder):
    """Become the interpreter that --python names; without it, the rest of the command line."""
    word, equals, value = argv[0].partition("=") if argv else ("", "", "")
    if word != "--python":
        return argv
    if not equals and len(argv) < 2:
        raise tRefused("--python needs a version or a path")
    wanted, rest = (value, argv[1:]) if equals else (argv[1], argv[2:])
    python = find_python(wanted)
    execute([python, os.path.join(package_folder, "__main__.py")] + rest, dict(os.environ))


def find_python(wanted):
    """Path of the interpreter that the user means by a version, a name or a path."""
    import glob

    if os.sep in wanted:
        return wanted
    names = ["python" + wanted, wanted] if wanted[:1].isdigit() else [wanted]
    for name in names:
        for folder in os.environ.get("PATH", os.defpath).split(os.pathsep):
            path = os.path.join(folder, name)
            if os.access(path, os.X_OK) and not os.path.isdir(path) and runs(path):
                return path
    for root in (os.environ.get("PYENV_ROOT", ""), os.path.expanduser("~/.pyenv")):
        for pattern in (wanted, wanted + ".*"):
            for path in sorted(glob.glob(os.path.join(root, "versions", pattern, "bin", "python"))):
                return path
    raise tRefused("no interpreter \"{}\" on the PATH or among pyenv's versions".format(wanted))


def runs(python):
    """A version manager's stand-in may have no such version."""
    import subprocess

    with open(os.devnull, "r+") as nothing:
        status = subprocess.call(
            [python, "-c", ""], stdin=nothing, stdout=nothing, stderr=nothing)
        return status == 0


def command_of(argv):
    """function(package_folder) for the command lines that do not debug in the terminal, or None."""
    rest = list(argv)
    library = [rest.pop(0), rest.pop(0)] if rest[:1] == ["--library"] and len(rest) > 1 else []
    if rest[:1] == ["adapter"]:
        return lambda folder: run_adapter(library + rest[1:])
    if rest[:1] == ["serve"] or kForAdapter in rest[:1]:
        from tdbg import serve

        if rest[0] == kForAdapter:
            return lambda folder: serve.main_for_adapter(library + rest, folder)
        return lambda folder: serve.main(library + rest[1:], folder)
    return None


def run_adapter(argv):
    if sys.version_info < (3, 6):
        sys.stderr.write("tdbg: the adapter needs Python 3.6 or later (the program may have any)\n")
        return kUsageStatus
    from tdbg.adapter import main as adapter

    status = adapter.main(argv)
    sys.stderr.flush()
    os._exit(status)  # threads that wait for a program are not waited for


def parse(argv):
    """{"library", "module", "code", "program", "arguments"}; None when help is asked for."""
    options = {"library": None, "module": None, "code": None, "program": None, "arguments": []}
    rest = list(argv)
    while rest and rest[0].startswith("-") and rest[0] != "-":
        word = rest.pop(0)
        if word in ("-h", "--help"):
            return None
        if word == "--":
            break
        if word == "--post-mortem":
            options["post_mortem"] = True
            continue
        if word == "--python":
            raise tRefused("--python must come before the other options")
        if word not in ("-m", "-c", "--library"):
            raise tRefused("unknown option {} (tdbg --help lists all)".format(word))
        if not rest:
            raise tRefused("{} needs an argument".format(word))
        if word in ("-m", "-c"):
            options["module" if word == "-m" else "code"] = rest.pop(0)
            options["arguments"] = rest
            return options
        options["library"] = rest.pop(0)
    if not rest:
        raise tRefused("no program given (tdbg --help tells more)")
    options["program"] = rest.pop(0)
    options["arguments"] = rest
    return options


def start(options, package_folder):
    """Become the process that is debugged in the terminal."""
    argv = command_line_of(options)
    library = options["library"] or nativelib.find_library(package_folder)
    become(argv, library, package_folder, {"post_mortem": options.get("post_mortem", False)})


def become(argv, library, package_folder, more_settings):
    """Execute the interpreter, with the debugger in it.  more_settings: for bootstrap.py."""
    settings = {
        "library": os.path.abspath(library),
        "argv": argv,
        "pythonpath": os.environ.get(bootstrap.kPathVariable),
        "cwd": os.getcwd(),
    }
    settings.update(more_settings)
    execute(argv, bootstrap.settings_to_environment(
        os.environ, settings, os.path.join(package_folder, "startup"), compat.to_literal))


def command_line_of(options):
    """Words that run the program; tRefused when they would not get as far as its first line."""
    refuse_unusable_interpreter()
    if options["module"] is not None:
        check_module(options["module"])
        target = ["-m", options["module"]]
    elif options["code"] is not None:
        check_source(options["code"], "<string>")
        target = ["-c", options["code"]]
    else:
        check_program(options["program"])
        target = [options["program"]]
    return [sys.executable] + interpreter_flags() + target + options["arguments"]


def execute(argv, environment):
    try:
        os.execve(argv[0], argv, environment)
    except OSError as why:
        raise tRefused("cannot run {}: {}".format(argv[0], why.strerror))


def refuse_unknown_version():
    version = sys.version_info[:2]
    if version != (2, 7) and not (3, 6) <= version <= (3, 14):
        raise tRefused("Python {}.{} is not supported: 2.7 and 3.6 to 3.14 are".format(*version))


def refuse_unusable_interpreter():
    refuse_unknown_version()
    if sys.flags.no_site or sys.flags.ignore_environment:
        raise tRefused("the interpreter's options -E, -I and -S leave no way into the program")
    if not sys.executable:
        raise tRefused("the interpreter does not know its own path")


def interpreter_flags():
    """Options of the interpreter that the user gave to this process."""
    words = getattr(sys, "orig_argv", None)
    if not words:
        import subprocess

        return subprocess._args_from_interpreter_flags()
    flags = words[1:len(words) - len(sys.argv[1:])]
    return flags[:-2] if flags[-2:-1] == ["-m"] else flags[:-1]


# --- what would fail before the first line ----------------------------------------------------


def check_program(path):
    """tRefused unless the interpreter can run the file, folder or archive."""
    try:
        with open(path, "rb") as source:
            text = source.read()
    except (IOError, OSError) as why:
        if why.errno == errno.EISDIR:
            return check_folder(path)
        raise tRefused("cannot open {}: {}".format(path, why.strerror))
    if kEndOfArchive in text:  # the module takes longer to import than all else here
        import zipfile

    if kEndOfArchive in text and zipfile.is_zipfile(path):
        with zipfile.ZipFile(path) as archive:
            if "__main__.py" not in archive.namelist() and "__main__.pyc" not in archive.namelist():
                raise tRefused("{} has no __main__ module".format(path))
        return
    if not path.endswith((".pyc", ".pyo")):
        check_source(text, path)


def check_folder(path):
    main = os.path.join(path, "__main__.py")
    if not os.path.exists(main):
        raise tRefused("{} is a folder without a __main__.py".format(path))
    check_program(main)


def check_source(text, path):
    """tRefused with place and reason when the source does not compile."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            compile(text, path, "exec", 0, True)
    except SyntaxError as why:
        place = "{}, line {}".format(path, why.lineno) if why.lineno else path
        raise tRefused("{} in {}: {}".format(type(why).__name__, place, why.msg))
    except (TypeError, ValueError) as why:  # null bytes
        raise tRefused("{} is no Python source: {}".format(path, why))


def check_module(name):
    """tRefused unless there is such a module to run; packages of it are not imported."""
    parts = name.split(".")
    if not all(parts):
        raise tRefused("{!r} is not the name of a module".format(name))
    sys.path[0] = ""  # as `-m` searches
    find = find_module_2 if compat.PY2 else find_module_3
    path, is_package = find(name, parts)
    if is_package:
        path, is_package = find(name + ".__main__", parts + ["__main__"])
    if path is not None and path.endswith(".py") and os.path.exists(path):
        with open(path, "rb") as source:
            check_source(source.read(), path)


def find_module_3(name, parts):
    """(source path or None, whether it is a package)"""
    import importlib.util
    from importlib.machinery import PathFinder

    try:
        spec = importlib.util.find_spec(parts[0])
    except (ImportError, ValueError):
        spec = None
    for count in range(2, len(parts) + 1):
        if spec is None:
            break
        if spec.submodule_search_locations is None:
            outer = ".".join(parts[:count - 1])
            raise tRefused("no module named {}: {} is not a package".format(name, outer))
        spec = PathFinder.find_spec(".".join(parts[:count]), spec.submodule_search_locations)
    if spec is None:
        if parts[-1] == "__main__":
            raise tRefused("the package {} has no __main__ module".format(".".join(parts[:-1])))
        raise tRefused("no module named {}".format(name))
    return (spec.origin if spec.has_location else None), spec.submodule_search_locations is not None


def find_module_2(name, parts):
    import imp
    import pkgutil

    path, location, kind = None, None, None
    for part in parts:
        try:
            opened, location, (_, _, kind) = imp.find_module(part, path)
        except ImportError:
            if path is None and pkgutil.find_loader(part) is not None:
                return None, False  # in an archive: the interpreter will tell
            if part == "__main__" and path is not None:
                raise tRefused("the package {} has no __main__ module".format(".".join(parts[:-1])))
            raise tRefused("no module named {}".format(name))
        if opened:
            opened.close()
        path = [location] if kind == imp.PKG_DIRECTORY else []
    return (location if kind == imp.PY_SOURCE else None), kind == imp.PKG_DIRECTORY
