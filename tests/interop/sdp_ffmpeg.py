#!/usr/bin/env python3
"""Puts descriptions that FFmpeg makes through the library, and lets FFmpeg receive a stream by what it wrote.

Argument: the path of interop_protocol.
"""
import subprocess
import sys

from peers import Folder, check, free_udp_ports, is_whole_sdp, run, wait_for

VIDEO = ["-re", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25"]
AUDIO = ["-re", "-f", "lavfi", "-i", "sine=sample_rate=48000"]
STREAMS = [
    # Options, address, and what ffprobe finds.
    (VIDEO + ["-c:v", "mpeg4", "-g", "5"], "127.0.0.1", "mpeg4,320,240"),
    (AUDIO + ["-c:a", "aac", "-ac", "2"], "127.0.0.1", "aac,48000,2"),
    (AUDIO + ["-c:a", "pcm_mulaw", "-ar", "8000", "-ac", "1"], "[::1]", "pcm_mulaw,8000,1"),
]


def receive(program, folder, options, address):
    made, written = folder("made.sdp"), folder("written.sdp")
    sender = subprocess.Popen(["ffmpeg", "-hide_banner", "-v", "error", "-nostdin", *options, "-t", "60", "-f", "rtp",
                               f"rtp://{address}:{free_udp_ports()}", "-sdp_file", made])
    try:
        wait_for(lambda: is_whole_sdp(made), "FFmpeg writes its description")
        run(program, "sdp", made, written)
        check(folder.read("written.sdp") == folder.read("made.sdp"), "the same description")
        return run("ffprobe", "-v", "error", "-protocol_whitelist", "file,rtp,udp", "-show_entries",
                   "stream=codec_name,width,height,sample_rate,channels", "-of", "csv=p=0", written).decode().strip()
    finally:
        sender.terminate()
        sender.wait(10)


for stream, host, wanted in STREAMS:
    with Folder() as temporary:
        found = receive(sys.argv[1], temporary, stream, host)
        check(found == wanted, f"{host}: {found}")
