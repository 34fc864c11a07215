#!/usr/bin/env python3
"""Puts descriptions that FFmpeg makes through the library, and lets FFmpeg receive a stream by what it wrote.

Arguments: interop_protocol, ffmpeg, ffprobe.
"""
import os
import socket
import subprocess
import sys
import tempfile
import time

VIDEO = ["-re", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25"]
AUDIO = ["-re", "-f", "lavfi", "-i", "sine=sample_rate=48000"]
STREAMS = [
    # Options, address, and what ffprobe finds.
    (VIDEO + ["-c:v", "mpeg4", "-g", "5"], "127.0.0.1", "mpeg4,320,240"),
    (AUDIO + ["-c:a", "aac", "-ac", "2"], "127.0.0.1", "aac,48000,2"),
    (AUDIO + ["-c:a", "pcm_mulaw", "-ar", "8000", "-ac", "1"], "[::1]", "pcm_mulaw,8000,1"),
]


def free_port():
    """An even UDP port (RFC 3550 11), free a moment ago; its odd neighbour is taken to be free as well."""
    while True:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            if probe.getsockname()[1] % 2 == 0:
                return probe.getsockname()[1]


def read_when_complete(path, sender):
    """The description, as soon as the sender has written it whole."""
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline and sender.poll() is None:
        if os.path.exists(path):
            with open(path, "rb") as handle:
                text = handle.read()
            if b"\r\nm=" in text and text.endswith(b"\r\n"):
                return text
        time.sleep(0.02)  # there is no event to wait for: FFmpeg writes the file at its leisure
    raise RuntimeError("FFmpeg wrote no description")


def receive(program, ffmpeg, ffprobe, folder, options, address):
    made, written = os.path.join(folder, "made.sdp"), os.path.join(folder, "written.sdp")
    if os.path.exists(made):
        os.remove(made)
    command = [ffmpeg, "-hide_banner", "-loglevel", "error", "-nostdin"] + options
    sender = subprocess.Popen(command + ["-t", "60", "-f", "rtp", f"rtp://{address}:{free_port()}", "-sdp_file", made])
    try:
        text = read_when_complete(made, sender)
        subprocess.run([program, "sdp", made, written], check=True)
        with open(written, "rb") as handle:
            rewritten = handle.read()
        if rewritten != text:
            raise RuntimeError(f"not the same description:\n{text.decode()}\n{rewritten.decode()}")
        probe = subprocess.run(
            [ffprobe, "-hide_banner", "-loglevel", "error", "-protocol_whitelist", "file,rtp,udp", "-show_entries",
             "stream=codec_name,width,height,sample_rate,channels", "-of", "csv=p=0", written],
            check=True, stdout=subprocess.PIPE, timeout=60)
        return probe.stdout.decode().strip()
    finally:
        sender.terminate()
        sender.wait(10)


def main(program, ffmpeg, ffprobe):
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        for options, address, wanted in STREAMS:
            found = receive(program, ffmpeg, ffprobe, folder, options, address)
            print(f"{address}: {found}")
            failures += found != wanted
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
