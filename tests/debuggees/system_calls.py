"""Import the library, begin, debug a function, end: each phase marked by a call that fails."""
import os
import sys

try:
    from importlib import machinery, util
except ImportError:
    import imp


def mark(text):
    try:
        os.write(-1, text)
    except OSError:
        pass


def load(path):
    if sys.version_info[0] == 2:
        return imp.load_dynamic("tdbgtracer", path)
    loader = machinery.ExtensionFileLoader("tdbgtracer", path)
    spec = util.spec_from_file_location("tdbgtracer", path, loader=loader)
    module = util.module_from_spec(spec)
    loader.exec_module(module)
    return module


def none(*_):
    return None


def stop(frame):
    seen.append(frame.f_lineno)


def work():
    total = 0
    for i in range(200):
        total += i
        try:
            int("x")
        except ValueError:
            pass
    return total


seen = []
here = work.__code__.co_filename
default_import = __import__
work()
mark(b"import")
core = load(sys.argv[1])
mark(b"init")
core.init(1.0, 2, none, none, none, stop, none, none, none, none, default_import, {})
mark(b"run")
core.set_break(here, "", work.__code__.co_firstlineno + 3, 1, 0, "i == 5", 0)
core.start_trace()
work()
core.step_into()
work()
core.continue_run()
core.stop_trace()
core.reset()
mark(b"end")
files = [getattr(module, "__file__", None) for module in list(sys.modules.values())]
print("\n".join(name for name in files if name))
print(len(seen))
