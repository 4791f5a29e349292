"""Ways to a program that runs already: its port, a port of ours, a socket, its process."""
import _socket

from tdbg.adapter import injecting
from tdbg.dap import endpoint


class tWay:
    """connect() returns a socket (None when closed meanwhile); endpoint.tRefused, OSError.

    note  text for the console, or None
    """

    note = None

    def connect(self):
        raise NotImplementedError

    def close(self):
        """End a connect() in another thread."""


class tPort(tWay):
    """A program that listens."""

    def __init__(self, address):
        self._address = address

    def connect(self):
        return endpoint.connect(*self._address)


class tSocket(tWay):
    """A program that listens on a socket in the file system."""

    def __init__(self, path):
        self._path = path

    def connect(self):
        try:
            return endpoint.connect_unix(self._path)
        except OSError as why:
            raise endpoint.tRefused("cannot connect to {}: {}".format(self._path, why.strerror))


class tListening(tWay):
    """A program that is going to call."""

    def __init__(self, address, options):
        self._listener = endpoint.listen(address[0], address[1], options.allow_remote)
        self._allow_remote = options.allow_remote
        self.address = self._listener.getsockname()[:2]
        self.note = "waiting for a program at {}:{}".format(*self.address)

    def connect(self):
        try:
            while True:
                connected = endpoint.accept(self._listener)
                if self._allow_remote or endpoint.is_of_this_user(connected):
                    return endpoint.without_delay(connected)
                connected.close()
        except OSError:
            return None
        finally:
            self._listener.close()

    def close(self):
        try:
            self._listener.shutdown(_socket.SHUT_RDWR)
        except OSError:
            pass


def connector_of(config, options):
    """The tWay that a configuration of `attach` asks for; endpoint.tRefused."""
    if config.connect is not None:
        return tPort(config.connect)
    if config.listen is not None:
        return tListening(config.listen, options)
    if config.socket is not None:
        return tSocket(config.socket)
    if config.process_id is not None:
        return injecting.tProcess(config.process_id, options)
    if config.sub_process_id is not None:
        raise endpoint.tRefused("no child process {} waits here".format(config.sub_process_id))
    raise endpoint.tRefused("`attach` needs one of `connect`, `listen` and `processId`")
