"""A plain TCP relay in front of a server, which cuts what clients send and changes what they get."""
import itertools
import socket
import threading
import time

PAUSE = 0.0003  # between two pieces, so that the server mostly reads each by itself


class Relay:
    """Listens on a free port of loopback; what clients send goes on in pieces of the `sizes`, which are repeated, and
    of what they get `words` are replaced by others of the same length."""

    def __init__(self, port, sizes=(65536,), words=(b"", b"")):
        self.server = ("127.0.0.1", port)
        self.sizes = sizes
        self.words = words
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.socks = [self.listener]
        self._start(self._accept)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for sock in self.socks:
            self._end(sock)

    @staticmethod
    def _start(work, *arguments):
        threading.Thread(target=work, args=arguments, daemon=True).start()

    @staticmethod
    def _end(sock):
        try:
            sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # it has ended by itself
        sock.close()

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            server = socket.create_connection(self.server)
            server.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.socks += [client, server]
            self._start(self._pass_on, client, server, itertools.cycle(self.sizes))
            self._start(self._pass_on, server, client, None)

    def _pass_on(self, source, target, sizes):
        try:
            while data := source.recv(65536):
                while data and sizes:
                    size = next(sizes)
                    target.sendall(data[:size])
                    data = data[size:]
                    time.sleep(PAUSE)
                target.sendall(data.replace(*self.words) if self.words[0] else data)
        except OSError:
            pass  # one side has gone
        self._end(source)
        self._end(target)
