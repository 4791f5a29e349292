"""The debug server in the test's own process."""
from __future__ import absolute_import, division, print_function

from .library import import_tracer


def run_under_server(front_end, work):
    """front_end.result = work(), with a server for this front end; the server.  The first stop is
    here, on the way to work()."""
    from tdbg import dbgserver

    server = front_end.server = dbgserver.tServer(import_tracer(), front_end)
    server.start()
    try:
        front_end.result = work()
    finally:
        server.leave_alone()
    return server
