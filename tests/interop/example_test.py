#!/usr/bin/env python3
"""The example host, read by FFmpeg and by the example client: example_test.py HOST CLIENT."""
import subprocess
import sys

from peers import Folder, ffmpeg, frame_digests, free_port, outcome

with Folder() as folder:
    image = folder("image.jpg")
    ffmpeg("-f", "lavfi", "-i", "testsrc=size=320x240", "-pix_fmt", "yuvj420p", "-huffman", "default", "-frames:v", "1",
           image)
    port = free_port()
    host = subprocess.Popen([sys.argv[1], str(port), image], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    assert "listening" in host.stdout.readline()
    url = f"rtsp://127.0.0.1:{port}/cam/realmonitor?channel=1&subtype=0"
    digests = frame_digests("-rtsp_transport", "tcp", "-i", url, "-t", "2")[0]
    assert len(digests) > 5 and set(digests) == set(frame_digests("-i", image)[0]), digests
    code, lines, errors = outcome(sys.argv[2], url, "5")
    assert code == 0 and lines.decode().count("type fb, ") == 5, (code, lines, errors)
    host.communicate("\n", timeout=20)
    assert host.returncode == 0, host.returncode
    code, _, errors = outcome(sys.argv[2], url, "5")
    assert code == 1 and "ended" in errors, (code, errors)
