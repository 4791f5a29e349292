"""The debugger's part in the first moments of the debugged process (see startup/sitecustomize.py).

What `tdbg.launch` has to say comes in one environment variable, which is gone again, like every
other trace of the start, before the program's first line.
"""
from __future__ import absolute_import, division, print_function

import ast
import os
import sys

from tdbg import compat, nativelib, private, program

kVariable = program.kVariable
kPathVariable = "PYTHONPATH"
kHookModule = "sitecustomize"

kFirstDescriptor = 100

# What stays: the debugger itself.
kShared = ("tdbg", nativelib.kModule)

_exit_process = os._exit


def settings_to_environment(environment, settings, startup_folder, to_literal):
    """Environment for the process to be debugged."""
    path = settings["pythonpath"]
    result = dict(environment)
    result[kVariable] = to_literal(settings)
    result[kPathVariable] = startup_folder + (os.pathsep + path if path else "")
    return result


def start(startup_folder, loaded):
    """Begin debugging, then hand on to the real start-up module.  loaded: names of the modules
    that were there before the debugger's first one."""
    if kVariable not in os.environ:
        return _start_child(startup_folder, loaded)
    settings = ast.literal_eval(os.environ[kVariable])
    original_environment = dict(os.environ)
    _clear_traces(startup_folder, settings)

    def make_server():
        try:
            return _make_server(settings, original_environment)
        except Exception as why:
            _give_up("{}: {}".format(type(why).__name__, why), settings)
    _start_server(make_server, loaded)


def _start_child(startup_folder, loaded):
    """A process that the program has started.  It runs as it would, with or without a client."""
    from tdbg import children

    _start_server(lambda: children.start(startup_folder), loaded)


def _start_server(make, loaded):
    """make() gives a server, or None where nothing is to be debugged."""
    # Libraries below us keep files open (libffi does): not with a number that the program
    # counts on.
    taken = _take_low_descriptors()
    try:
        server = make()
    finally:
        for descriptor in taken:
            os.close(descriptor)
    _forget_modules(loaded)
    try:
        _import_real_hook_module()
    finally:
        if server is not None:
            server.start_with_program()


def _clear_traces(startup_folder, settings):
    del os.environ[kVariable]
    if settings["pythonpath"] is None:
        os.environ.pop(kPathVariable, None)
    else:
        os.environ[kPathVariable] = settings["pythonpath"]
    sys.path[:] = [path for path in sys.path if path != startup_folder]
    sys.path_importer_cache.pop(startup_folder, None)


def _take_low_descriptors():
    """Open every free descriptor below the debugger's own."""
    taken = []
    try:
        taken.append(os.open(os.devnull, os.O_RDONLY))
        while taken[-1] < kFirstDescriptor:
            taken.append(os.dup(taken[-1]))
    except OSError:  # as many as there are
        pass
    return taken


def _make_server(settings, original_environment):
    core = nativelib.load_library(settings["library"])
    if settings.get("front_end") == "dap":
        from tdbg import serve

        return serve.make_server(core, settings)
    from tdbg import dbgserver, terminal

    this_program = program.tProgram(settings["argv"], original_environment, settings["cwd"])
    front_end = terminal.tTerminal(this_program)
    server = dbgserver.tServer(core, front_end)
    front_end.attach(server)
    front_end.restore(settings)
    return server


def _forget_modules(loaded):
    """The program finds no library module loaded that it would not find without a debugger.

    It may have one of the same name of its own.  Not on version 2, which at its end empties every
    module, in an order that does not know of those taken out.
    """
    if compat.PY2:
        return
    private.take_out(
        name for name in set(sys.modules) - loaded
        if name.split(".")[0] not in kShared and name != kHookModule)


def _import_real_hook_module():
    """Behave as if the import of the start-up module went on to the next one on the path."""
    sys.modules.pop(kHookModule, None)
    __import__(kHookModule)  # its ImportError is also what site expects where there is none


def _give_up(text, settings):
    if "socket" in settings:
        from tdbg import serve

        serve.tell_refusal(settings["socket"], text)
        _exit_process(2)
    if "listener" in settings:
        from tdbg import serve

        serve.remove_token_file(settings)
    os.write(2, "tdbg: cannot debug here: {}\n".format(text).encode("utf-8", "replace"))
    _exit_process(2)
