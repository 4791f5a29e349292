"""Folders that are gone when the adapter is, even if that is killed: a small process of its own,
which waits for the other end of a pipe to be closed, removes them.
"""
import os
import shutil
import subprocess
import threading

from tdbg.dap import endpoint

kLeave, kTake = b"leave\n", b"take\n"
kKeeper = 'while read word; do last=$word; done; [ "$last" = leave ] || rm -rf -- "$1"'


class tFolder:
    """One that only this user can enter; `with` removes it.

    path
    lifeline   descriptor; a process that inherits it keeps the folder, should we be killed
    """

    def __init__(self):
        self.path = endpoint.make_private_folder()
        reading, self.lifeline = os.pipe()
        try:
            # A session of its own: what ends us must not end it.
            self._keeper = subprocess.Popen(
                ["/bin/sh", "-c", kKeeper, "tdbg", self.path], stdin=reading,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd="/",
                env={"PATH": os.defpath}, start_new_session=True)
        except OSError:  # one can do without
            self._keeper = None
        finally:
            os.close(reading)

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        shutil.rmtree(self.path, ignore_errors=True)
        os.close(self.lifeline)
        if self._keeper is not None:  # others may still have the lifeline
            threading.Thread(target=self._keeper.wait, daemon=True).start()

    def leave_to_another(self):
        """Until take_back(), somebody else removes it if we are killed."""
        self._tell(kLeave)

    def take_back(self):
        self._tell(kTake)

    def _tell(self, word):
        try:
            os.write(self.lifeline, word)
        except OSError:  # the keeper has been killed
            pass
