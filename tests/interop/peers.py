"""Independent programs as the tests run them, and what they are given and leave behind."""
import os
import random
import socket
import subprocess
import tempfile
import time


SKIPPED = 77  # the exit code that ctest knows


def outcome(*command, data=b"", limit=120):
    """Runs a program to its end: (exit code, output, errors as text)."""
    done = subprocess.run(command, input=data, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=limit)
    return done.returncode, done.stdout, done.stderr.decode(errors="replace")


def ip(*words, check=True):
    """The exit code of ip(8)."""
    return subprocess.run(["ip", *words], check=check, stderr=subprocess.PIPE, text=True).returncode


def is_whole_sdp(path):
    """Has FFmpeg, at its leisure, written all of the description?"""
    text = open(path, "rb").read() if os.path.exists(path) else b""
    return b"\r\nm=" in text and text.endswith(b"\r\n")


def run(*command, data=b""):
    """The output of a program that must succeed."""
    code, output, errors = outcome(*command, data=data)
    assert code == 0, (command, code, errors[-2000:])
    return output


def ffmpeg(*words):
    return run("ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y", *words)


def gst(*words):
    run("gst-launch-1.0", "-q", *words)


def gst_outcome(*words, inside=()):
    """The exit code and the errors of a pipeline with rtspsrc. At its end rtspsrc may cut its own PAUSE by its TEARDOWN
    and take that for an end of file, whatever the server does, once in two hundred: then it is tried again."""
    for _ in range(4):
        code, _, errors = outcome(*inside, "gst-launch-1.0", "-q", *words)
        if "gst_rtspsrc_pause" not in errors:
            break
    return code, errors


def read_digests(text):
    """Of FFmpeg's list of frames: {stream: [digest]}, without their times."""
    digests = {}
    for line in text.decode().splitlines():
        if not line.startswith("#"):
            fields = line.split(",")
            digests.setdefault(int(fields[0]), []).append(fields[-1].strip())
    return digests


def frame_digests(*source, joins=False, inside=()):
    """Digests of the decoded frames of an FFmpeg source by stream.

    Decoding errors fail, unless the reader `joins` a stream that runs, whose first pictures refer to others.
    """
    code, text, errors = outcome(*inside, "ffmpeg", "-nostdin", "-hide_banner", "-v", "error", *source, "-f", "framemd5",
                                 "-")
    # A pair of ports that another program has just taken: FFmpeg says so, and takes the next one.
    faults = [line for line in errors.splitlines() if "bind failed: Address already in use" not in line]
    assert code == 0 and (joins or not faults), (code, errors[-2000:])
    return read_digests(text)


def check(condition, what):
    assert condition, what
    print("ok: " + what)


def wait_for(condition, what):
    deadline = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < deadline, "waited too long: " + what
        time.sleep(0.005)


def read_file(path):
    with open(path, "rb") as file:
        return file.read()


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def free_udp_ports():
    """An even port that is free together with the next one (RFC 3550 11); not the same for tests that run at once."""
    for port in random.sample(range(20000, 32000, 2), 1000):
        try:
            for each in (port, port + 1):
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
                    sock.bind(("127.0.0.1", each))
            return port
        except OSError:
            continue
    raise AssertionError("no free port")


class Folder(tempfile.TemporaryDirectory):
    """A folder that goes with the test: called with a file's name it gives the path."""

    def __enter__(self):
        return self

    def __call__(self, name):
        return os.path.join(self.name, name)

    def read(self, name):
        return read_file(self(name))

    def write(self, name, data):
        with open(self(name), "wb") as file:
            file.write(data)
        return self(name)
