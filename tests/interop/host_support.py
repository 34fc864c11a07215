"""vidora-host as a process, and a plain RTSP connection to it."""
import hashlib
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

from peers import free_port

HOST, MEDIA = sys.argv[1:3]  # the path of vidora-host, the folder of the clips
LIVE = "cam/realmonitor?channel=1&subtype=0"
JPEG = "cam/realmonitor?channel=1&subtype=1"


def main():
    unittest.main(verbosity=2, argv=sys.argv[:1] + sys.argv[3:])


class Host:
    """vidora-host on a free port of loopback, or of another `address`; its output is kept in `lines`. What is `inside`
    stands in front of the command."""

    def __init__(self, *options, live=True, recordings=MEDIA, address="127.0.0.1", inside=()):
        self.address = address
        self.port = free_port()
        command = [*inside, HOST, "--listen", f"{address}:{self.port}"]
        if live:
            command += ["--live", f"{LIVE}={MEDIA}/clip.h264,{MEDIA}/clip.alaw",
                        "--live", f"{JPEG}={MEDIA}/clip.mjpeg", "--recordings", recordings]
        self.process = subprocess.Popen(command + list(options), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        self.lines = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.wait_for_line("listening on")

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(line.rstrip("\n"))

    def wait_for_line(self, pattern, limit=20.0):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            if any(re.search(pattern, line) for line in list(self.lines)):
                return
            if self.process.poll() is not None and not self.reader.is_alive():
                break
            time.sleep(0.02)
        raise AssertionError(f"no line with {pattern!r} in {self.lines}")

    def url(self, content=LIVE, user=None):
        login = f"{user}@" if user else ""
        return f"rtsp://{login}{self.address}:{self.port}/{content}"

    def stop(self, how=signal.SIGTERM):
        """Ends the host as its user would and gives the exit code."""
        self.process.send_signal(how)
        code = self.process.wait(30)
        self.reader.join(10)
        return code

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if self.process.poll() is None:
            code = self.stop()
            if kind is None:
                assert code == 0, (code, self.lines)


def is_run_of_loop(part, loop):
    """Is `part` a run of consecutive items of the endless repetition of `loop`?"""
    starts = [i for i, item in enumerate(loop) if item == part[0]]
    return any(all(part[k] == loop[(i + k) % len(loop)] for k in range(len(part))) for i in starts)


class Rtsp:
    """A plain RTSP connection for what no player does."""

    def __init__(self, host):
        self.url = host.url()
        self.sock = socket.create_connection(("127.0.0.1", host.port), timeout=20)
        self.buffer = b""
        self.cseq = 0
        self.session = None
        self.media = []  # (channel, bytes) of interleaved frames met while waiting for replies

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.sock.close()

    def _more(self):
        data = self.sock.recv(65536)
        if not data:
            raise EOFError("connection closed")
        self.buffer += data

    def take(self, size):
        """The next bytes, whatever they are."""
        while len(self.buffer) < size:
            self._more()
        data, self.buffer = self.buffer[:size], self.buffer[size:]
        return data

    def frame(self):
        """The next interleaved frame: (channel, bytes)."""
        while not self.media:
            if not self._take_frame():
                self._more()
        return self.media.pop(0)

    def _take_frame(self):
        size = int.from_bytes(self.buffer[2:4], "big")
        if self.buffer[:1] != b"$" or len(self.buffer) < 4 + size:
            return False
        self.media.append((self.buffer[1], self.buffer[4:4 + size]))
        self.buffer = self.buffer[4 + size:]
        return True

    def _reply(self):
        """The next reply: (status, headers, body); media on the way is kept."""
        while self.buffer[:1] in (b"", b"$") or b"\r\n\r\n" not in self.buffer:
            if not self._take_frame():
                self._more()
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        lines = head.decode().split("\r\n")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers.setdefault(name.strip().lower(), value.strip())
        size = int(headers.get("content-length", "0"))
        while len(self.buffer) < size:
            self._more()
        body, self.buffer = self.buffer[:size].decode(), self.buffer[size:]
        if "session" in headers:
            self.session = headers["session"].split(";")[0]
        return int(lines[0].split()[1]), headers, body

    def ask(self, method, *headers, url=None):
        self.cseq += 1
        lines = [f"{method} {url or self.url} RTSP/1.0", f"CSeq: {self.cseq}", "User-Agent: interop"]
        if self.session:
            lines.append(f"Session: {self.session}")
        self.sock.sendall(("\r\n".join(lines + list(headers)) + "\r\n\r\n").encode())
        return self._reply()

    def play(self, tracks, transport="RTP/AVP/TCP;unicast;interleaved={0}-{1}"):
        """Sets the first tracks up over this connection, on the channels 0, 2, ..., and plays them; PLAY's headers."""
        status, headers, sdp = self.ask("DESCRIBE", "Accept: application/sdp")
        assert status == 200
        base = headers.get("content-base", self.url + "/")
        for i, control in enumerate(re.findall(r"a=control:(\S+)", sdp.split("m=", 1)[1])[:tracks]):
            url = control if control.startswith("rtsp:") else base.rstrip("/") + "/" + control
            assert self.ask("SETUP", "Transport: " + transport.format(2 * i, 2 * i + 1), url=url)[0] == 200
        status, headers, _ = self.ask("PLAY", "Range: npt=0-")
        assert status == 200
        return headers


def digest_header(url, password, challenge):
    """What answers a challenge to DESCRIBE after RFC 2069, for the user "admin"."""
    known = dict(re.findall(r'(\w+)="([^"]*)"', challenge))
    md5 = lambda text: hashlib.md5(text.encode()).hexdigest()
    ha1 = md5(f"admin:{known['realm']}:{password}")
    response = md5(f"{ha1}:{known['nonce']}:{md5(f'DESCRIBE:{url}')}")
    return (f'Authorization: Digest username="admin", realm="{known["realm"]}", nonce="{known["nonce"]}", uri="{url}", '
            f'response="{response}"')
