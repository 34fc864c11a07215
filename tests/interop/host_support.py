"""What the interoperability tests share: vidora-host as a process, the peers' commands, a plain RTSP connection."""
import contextlib
import hashlib
import os
import re
import signal
import socket
import subprocess
import sys
import threading
import time

HOST = None   # path of vidora-host
MEDIA = None  # folder of the clips
LIVE = "cam/realmonitor?channel=1&subtype=0"
JPEG = "cam/realmonitor?channel=1&subtype=1"


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


class Host:
    """vidora-host on a free port of loopback; its output is kept in `lines`."""

    def __init__(self, *options, live=True, prefix=()):
        self.port = free_port()
        command = list(prefix) + [HOST, "--listen", f"127.0.0.1:{self.port}"]
        if live:
            command += ["--live", f"{LIVE}={MEDIA}/clip.h264,{MEDIA}/clip.alaw",
                        "--live", f"{JPEG}={MEDIA}/clip.mjpeg", "--recordings", MEDIA]
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
            for line in list(self.lines):
                if re.search(pattern, line):
                    return line
            if self.process.poll() is not None and not self.reader.is_alive():
                break
            time.sleep(0.02)
        raise AssertionError(f"no line with {pattern!r} in {self.lines}")

    def url(self, content=LIVE, user=None):
        login = f"{user}@" if user else ""
        return f"rtsp://{login}127.0.0.1:{self.port}/{content}"

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


def run(*command, limit=60, check=True):
    """Runs a peer to its end: (exit code, output, errors)."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=limit,
                          stdin=subprocess.DEVNULL)
    if check:
        assert done.returncode == 0, (command, done.returncode, done.stderr[-2000:])
    return done.returncode, done.stdout, done.stderr


def frame_digests(*source, joins=False):
    """Digests of the decoded frames of an FFmpeg source by stream: {stream: [digest]}.

    Decoding errors fail, unless the reader `joins` a stream that runs, whose first pictures refer to others.
    """
    _, text, errors = run("ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", *source, "-f", "framemd5", "-")
    assert joins or not errors.strip(), errors
    digests = {}
    for line in text.splitlines():
        if not line.startswith("#"):
            fields = [field.strip() for field in line.split(",")]
            digests.setdefault(int(fields[0]), []).append(fields[5])
    return digests


def is_run_of_loop(part, loop):
    """Is `part` a run of consecutive items of the endless repetition of `loop`?"""
    starts = [i for i, item in enumerate(loop) if item == part[0]]
    return any(all(part[k] == loop[(i + k) % len(loop)] for k in range(len(part))) for i in starts)


class Rtsp:
    """A plain RTSP connection for what no player does."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=20)
        self.buffer = b""
        self.cseq = 0
        self.session = None
        self.media = []  # (channel, bytes) of interleaved frames met while waiting for replies

    def close(self):
        self.sock.close()

    def _more(self):
        data = self.sock.recv(65536)
        if not data:
            raise EOFError("connection closed")
        self.buffer += data

    def send(self, method, url, headers=()):
        self.cseq += 1
        lines = [f"{method} {url} RTSP/1.0", f"CSeq: {self.cseq}", "User-Agent: interop"]
        if self.session:
            lines.append(f"Session: {self.session}")
        self.sock.sendall(("\r\n".join(lines + list(headers)) + "\r\n\r\n").encode())

    def take(self, size):
        """The next bytes, whatever they are."""
        while len(self.buffer) < size:
            self._more()
        data, self.buffer = self.buffer[:size], self.buffer[size:]
        return data

    def frame(self):
        """The next interleaved frame: (channel, bytes)."""
        while True:
            if self.media:
                return self.media.pop(0)
            if not self._take_frame():
                self._more()

    def _take_frame(self):
        if len(self.buffer) < 4 or self.buffer[:1] != b"$":
            return False
        size = int.from_bytes(self.buffer[2:4], "big")
        if len(self.buffer) < 4 + size:
            return False
        self.media.append((self.buffer[1], self.buffer[4:4 + size]))
        self.buffer = self.buffer[4 + size:]
        return True

    def reply(self):
        """The next reply: (status, headers, body); media on the way is kept."""
        while True:
            while self._take_frame():
                pass
            if self.buffer[:1] not in (b"", b"$") and b"\r\n\r\n" in self.buffer:
                break
            self._more()
        head, rest = self.buffer.split(b"\r\n\r\n", 1)
        lines = head.decode().split("\r\n")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers.setdefault(name.strip().lower(), value.strip())
        size = int(headers.get("content-length", "0"))
        self.buffer = rest
        while len(self.buffer) < size:
            self._more()
        body, self.buffer = self.buffer[:size].decode(), self.buffer[size:]
        if "session" in headers:
            self.session = headers["session"].split(";")[0]
        return int(lines[0].split()[1]), headers, body

    def ask(self, method, url, *headers):
        self.send(method, url, headers)
        return self.reply()


def digest_header(user, password, method, uri, challenge):
    """The value of an Authorization header after RFC 2069."""
    fields = dict(re.findall(r'(\w+)="([^"]*)"', challenge))
    md5 = lambda text: hashlib.md5(text.encode()).hexdigest()
    ha1 = md5(f"{user}:{fields['realm']}:{password}")
    response = md5(f"{ha1}:{fields['nonce']}:{md5(f'{method}:{uri}')}")
    return (f'Digest username="{user}", realm="{fields["realm"]}", nonce="{fields["nonce"]}", uri="{uri}", '
            f'response="{response}"')


@contextlib.contextmanager
def within(seconds):
    """Fails when the block takes longer."""
    started = time.monotonic()
    yield
    assert time.monotonic() - started < seconds, f"took {time.monotonic() - started:.1f} s"
