#!/usr/bin/env python3
"""The example of a single track between two FFmpegs, by the description that the first one writes.

Arguments: the path of example_single_track, and the folder of the clips.
"""
import os
import re
import subprocess
import sys

from peers import Folder, check, ffmpeg, frame_digests, free_udp_ports, is_whole_sdp, read_file, run, wait_for

READ = ["ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y", "-protocol_whitelist", "file,rtp,udp", "-i"]


def relayed(program, folder, source, result):
    """Lets FFmpeg send, the example pass on, and another FFmpeg receive into a file by these options."""
    to_us, to_them = free_udp_ports(), free_udp_ports()
    made, other, out = folder("made.sdp"), folder("other.sdp"), folder("out")
    sender = subprocess.Popen(["ffmpeg", "-hide_banner", "-nostdin", "-v", "quiet", "-re", *source, "-c",
                               "copy", "-f", "rtp", f"rtp://127.0.0.1:{to_us}", "-sdp_file", made])
    relay = None
    try:
        wait_for(lambda: is_whole_sdp(made), "FFmpeg writes its description")
        text = read_file(made).decode()
        folder.write("other.sdp", re.sub(r"(m=\w+) \d+", rf"\1 {to_them}", text).encode())
        relay = subprocess.Popen([program, made, str(to_us), str(to_them)], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True)
        assert "receiving" in relay.stdout.readline()
        run(*READ, other, *result, out)
        print(relay.communicate("\n", timeout=60)[0].strip())
        assert relay.returncode == 0, relay.returncode
        return out
    finally:
        for process in (relay, sender):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait(20)


with Folder() as temporary:
    clip = temporary("clip.h264")
    ffmpeg("-f", "lavfi", "-i", "testsrc=size=160x120:rate=25", "-frames:v", "1500", "-c:v", "libx264",
           "-preset", "ultrafast", "-g", "10", clip)
    pictures = frame_digests("-i", clip)[0]
    received = relayed(sys.argv[1], temporary, ["-i", clip], ["-frames:v", "60", "-c", "copy", "-f", "h264"])
    # It joins a running stream: the pictures before the first key frame are of no use.
    good = set(frame_digests("-i", received, joins=True)[0]) & set(pictures)
    check(len(good) >= 20, f"H.264: {len(good)} pictures are those of the clip")

with Folder() as temporary:
    clip = os.path.join(sys.argv[2], "clip.alaw")
    received = read_file(relayed(sys.argv[1], temporary,
                                 ["-stream_loop", "-1", "-f", "alaw", "-ar", "8000", "-ac", "1", "-i", clip],
                                 ["-t", "2", "-c", "copy", "-f", "alaw"]))
    check(len(received) >= 8000 and received[:8000] in 2 * read_file(clip), "G.711: a second of sound is the clip's")
