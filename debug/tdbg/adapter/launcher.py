"""Parent of a program that an adapter has started: tells how it ends, and ends it with the adapter.

  launcher.py SOCKET new-session|terminal PIPES PROGRAM [ARGUMENT...]

Runs in the terminal of the editor (runInTerminal) or below the adapter.  SOCKET is the adapter's:
lines go to it, `started PID`, `exited STATUS` (128+n for a signal), `failed TEXT`, and come from
it: `signal N`, `kill` (the whole group), `release` (the program outlives its adapter), and at the
end `heard`.  When the adapter has gone without a word, the program is asked to end, and killed
after a moment.

PIPES: descriptors of the program's output that the adapter reads, separated by commas, or "-".
When the program is released, they are emptied here so that it can go on writing.

The adapter removes the folder of its socket; when it has gone before, this program does.

A small program of its own, without imports that take time: it starts with every session.
"""
import errno
import os
import select
import signal
import sys

import _socket

kEndSeconds = 1.0
kHeard = b"heard\n"
kStartFailed = 127
kSockets = ("launcher", "debuggee", "children")  # all that there may be in the adapter's folder


class tLauncher:
    def __init__(self, path, mode, pipes):
        self.own_group = mode == "new-session"
        self.pipes = [int(pipe) for pipe in pipes.split(",")] if pipes != "-" else []
        self.folder = os.path.dirname(path)
        self.adapter = _socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM)
        self.adapter.connect(path)
        self.lines = b""
        self.released = False
        self.left_alone = False
        self.child = None
        self.wakeup, self.waker = os.pipe()

    def run(self, argv):
        """The exit status."""
        os.set_blocking(self.waker, False)
        signal.set_wakeup_fd(self.waker)
        signal.signal(signal.SIGCHLD, lambda number, frame: None)
        for number in (signal.SIGINT, signal.SIGQUIT):
            signal.signal(number, signal.SIG_IGN)  # of the terminal: meant for the program
        if not self.start(argv):
            return kStartFailed
        status = self.wait()
        self.tell("exited {}".format(status))
        return status

    def part(self):
        """The adapter has heard how it ended, and tells so; or it has gone."""
        if self.adapter is None:
            return
        data = None
        try:
            self.adapter.shutdown(_socket.SHUT_WR)
            self.adapter.settimeout(kEndSeconds)  # it may be stopped
            while data != b"" and kHeard not in self.lines:
                data = self.adapter.recv(4096)
                self.lines += data
        except _socket.timeout:
            pass
        except OSError:
            data = b""
        if data == b"":
            self.remove_folder()
        self.adapter.close()  # a debugging build of the interpreter tells of forgotten ones

    def start(self, argv):
        """Whether the program runs; the reason comes through a pipe that its start closes."""
        reading, writing = os.pipe()
        self.child = os.fork()
        if self.child == 0:
            try:
                self.become(argv)
            except OSError as why:
                os.write(writing, os.fsencode("cannot run {}: {}".format(argv[0], why.strerror)))
            finally:
                os._exit(kStartFailed)
        os.close(writing)
        why = os.read(reading, 4096)
        os.close(reading)
        if why:
            os.waitpid(self.child, 0)
            self.tell("failed " + os.fsdecode(why))
            return False
        self.tell("started {}".format(self.child))
        # What the program is to be alone with: else its output has no end.
        nothing = os.open(os.devnull, os.O_RDWR)
        if self.own_group:
            for descriptor in range(3):
                os.dup2(nothing, descriptor)
        os.close(nothing)
        return True

    def become(self, argv):
        """In the child: as if there were no launcher."""
        signal.set_wakeup_fd(-1)
        for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGCHLD, signal.SIGPIPE,
                       signal.SIGXFSZ):
            signal.signal(number, signal.SIG_DFL)
        if self.own_group:
            os.setpgid(0, 0)
        for pipe in self.pipes:
            os.close(pipe)
        os.execvp(argv[0], argv)

    def wait(self):
        while True:
            pid, status = os.waitpid(self.child, os.WNOHANG)
            if pid:
                return os.WEXITSTATUS(status) if os.WIFEXITED(status) else 128 + os.WTERMSIG(status)
            sources = [self.wakeup]
            if self.adapter is not None:
                sources.append(self.adapter)
            if self.released:
                sources += self.pipes
            seconds = kEndSeconds if self.left_alone else None
            ready = select.select(sources, [], [], seconds)[0]
            if not ready:
                self.send_signal(signal.SIGKILL, group=True)
                self.left_alone = False
            for source in ready:
                self.serve(source)

    def serve(self, source):
        if source is self.adapter:
            self.read_adapter()
            return
        data = os.read(source, 65536)
        if not data and source in self.pipes:
            self.pipes.remove(source)

    def read_adapter(self):
        try:
            data = self.adapter.recv(4096)
        except OSError:
            data = b""
        if not data:
            self.adapter.close()
            self.adapter = None
            self.remove_folder()
            if not self.released:
                self.left_alone = True
                self.send_signal(signal.SIGTERM)
                self.send_signal(signal.SIGCONT)
            return
        self.lines += data
        while b"\n" in self.lines:
            line, _, self.lines = self.lines.partition(b"\n")
            self.obey(line.decode("ascii").split())

    def remove_folder(self):
        """Nobody listens there any more."""
        for name in kSockets:
            try:
                os.unlink(os.path.join(self.folder, name))
            except OSError:
                pass
        try:
            os.rmdir(self.folder)
        except OSError:
            pass

    def obey(self, words):
        if words[0] == "signal":
            self.send_signal(int(words[1]))
        elif words[0] == "kill":
            self.send_signal(signal.SIGKILL, group=True)
        elif words[0] == "release":
            self.released = True

    def send_signal(self, number, group=False):
        """The child has not been waited for, so its number is its own."""
        try:
            if group and self.own_group:
                os.killpg(self.child, number)
            else:
                os.kill(self.child, number)
        except OSError as why:
            if why.errno not in (errno.ESRCH, errno.EPERM):
                raise

    def tell(self, text):
        if self.adapter is not None:
            try:
                self.adapter.sendall(os.fsencode(text.replace("\n", " ") + "\n"))
            except OSError:
                pass


def main(argv):
    launcher = tLauncher(*argv[:3])
    status = launcher.run(argv[3:])
    launcher.part()
    return status


if __name__ == "__main__":
    status = main(sys.argv[1:])
    sys.stdout = sys.stderr = None
    os._exit(status)
