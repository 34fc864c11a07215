#!/usr/bin/env python3
"""The example servers, read by FFmpeg and by the example client: example_test.py LIVE CLIENT PROXY RECORDING NAT
NAT_FRAMES MEDIA."""
import contextlib
import subprocess
import sys

from peers import Folder, ffmpeg, frame_digests, free_port, outcome

LIVE, CLIENT, PROXY, RECORDING, NAT, NAT_FRAMES, MEDIA = sys.argv[1:]
CHANNEL = "cam/realmonitor?channel=1&subtype=0"


@contextlib.contextmanager
def listening(*command):
    """Runs an example until an empty line ends it; gives its process."""
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert "listening" in process.stdout.readline()
        yield process
        if process.poll() is None:
            process.communicate("\n", timeout=20)
        assert process.returncode == 0, (command, process.returncode)
    finally:
        process.kill()


@contextlib.contextmanager
def server(program, *arguments):
    """The same for an example that listens on a port; gives that too."""
    port = free_port()
    with listening(program, str(port), *arguments) as process:
        yield port, process


def url(port, content=CHANNEL):
    return f"rtsp://127.0.0.1:{port}/{content}"


def check_live(port, digest):
    digests = frame_digests("-rtsp_transport", "tcp", "-i", url(port), "-t", "2")[0]
    assert len(digests) > 5 and set(digests) == {digest}, digests
    code, lines, errors = outcome(CLIENT, url(port), "5")
    assert code == 0 and lines.decode().count("type fb, ") == 5, (code, lines, errors)


with Folder() as folder:
    image = folder("image.jpg")
    ffmpeg("-f", "lavfi", "-i", "testsrc=size=320x240", "-pix_fmt", "yuvj420p", "-huffman", "default", "-frames:v", "1",
           image)
    picture = frame_digests("-i", image)[0][0]
    with server(LIVE, image) as (port, process), server(PROXY, f"127.0.0.1:{port}") as (proxy_port, _):
        check_live(port, picture)
        check_live(proxy_port, picture)
        point = f"127.0.0.1:{free_port()}"
        with listening(NAT, "point", point), listening(NAT, "device", point, "camera", f"127.0.0.1:{port}"):
            assert outcome(NAT, "viewer", point, "camera", CHANNEL, "5")[0] == 0
            code, lines, errors = outcome(NAT_FRAMES, point, "camera", CHANNEL, "5")
            assert code == 0 and lines.decode().count(" bytes") == 5, (code, lines, errors)
        process.communicate("\n", timeout=20)
        code, _, errors = outcome(CLIENT, url(port), "5")
        assert code == 1 and "ended" in errors, (code, errors)

pictures = frame_digests("-i", f"{MEDIA}/clip.h264")[0]
with server(RECORDING, f"{MEDIA}/1_0_clip.kav") as (port, _):
    digests = frame_digests("-rtsp_transport", "tcp", "-i", url(port, "movie.kav"))
    assert digests[0] == pictures and len(digests[1]) > 40, (len(digests[0]), len(digests[1]))
    # From a key frame near the third second to the end.
    rest = frame_digests("-rtsp_transport", "tcp", "-ss", "2", "-i", url(port, "movie.kav"))[0]
    assert 10 < len(rest) < 60 and pictures[-10:] == rest[-10:], len(rest)
    code, _, _ = outcome(CLIENT, url(port, "other.kav"), "5")
    assert code == 1, code
