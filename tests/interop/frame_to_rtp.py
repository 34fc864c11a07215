#!/usr/bin/env python3
"""Frames cut by our packetiser, read by FFmpeg from RTP: it decodes what it decodes from the source, to the bit.

Argument: the path of convert_streams.
"""
import re
import socket
import struct
import subprocess
import sys

from peers import Folder, check, ffmpeg, free_udp_ports, read_digests, run, wait_for
from streams import (AUDIO, H264, JPEG, MPEG4, MPEG_AUDIO, h264_frames, jpeg_images, make_audio, make_h264, make_mpeg4,
                     make_video, mpeg4_frames, pack_frames)


def pieces(data, size):
    return [data[at:at + size] for at in range(0, len(data) - size + 1, size)]


def queued_bytes(port):
    """Bytes that wait in the UDP socket on `port`, None if there is no such socket."""
    with open("/proc/net/udp", encoding="ascii") as table:
        for line in table:
            words = line.split()
            if words[1].endswith(f":{port:04X}"):
                return int(words[4].split(":")[1], 16)
    return None


def send(stream, port):
    """Sends the packets of an interleaved stream, no faster than they are read, and an RTCP BYE behind them."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        at = 0
        while at < len(stream):
            dollar, _, size = struct.unpack_from(">BBH", stream, at)
            assert dollar == 0x24 and at + 4 + size <= len(stream), "the interleaved stream is broken"
            sock.sendto(stream[at + 4:at + 4 + size], ("127.0.0.1", port))
            wait_for(lambda: queued_bytes(port) < 65536, "a packet is read")
            at += 4 + size
        wait_for(lambda: queued_bytes(port) == 0, "the last packet is read")
        ssrc = stream[12:16]
        # A compound packet begins with a report (RFC 3550 6.1).
        sock.sendto(b"\x80\xc9\0\1" + ssrc + b"\x81\xcb\0\1" + ssrc, ("127.0.0.1", port + 1))


def decode(folder, stream, media, payload_type, attributes, output):
    """What FFmpeg decodes from the packets, and what it complains of."""
    port = free_udp_ports()
    sdp = folder.write("clip.sdp", (f"v=0\no=- 0 0 IN IP4 127.0.0.1\ns=-\nc=IN IP4 127.0.0.1\nt=0 0\n"
                                    f"m={media} {port} RTP/AVP {payload_type}\n{attributes}\n").encode())
    reader = subprocess.Popen(
        ["ffmpeg", "-nostdin", "-hide_banner", "-v", "warning", "-protocol_whitelist", "file,udp,rtp", "-buffer_size",
         "1000000", "-i", sdp, "-y", *output, folder("decoded")], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        wait_for(lambda: reader.poll() is not None or None not in (queued_bytes(port), queued_bytes(port + 1)),
                 "FFmpeg listens")
        send(stream, port)
        complaints = reader.communicate(timeout=60)[1]
    finally:
        reader.kill()
        reader.wait()
    return folder.read("decoded"), complaints.decode(errors="replace")


def check_codec(program, folder, name, frames, enc_type, payload_type, clock, step_ms, attributes, source):
    if enc_type in (MPEG_AUDIO, AUDIO):
        media, letter, output, content = "audio", b"A", ["-f", "s16le"], lambda samples: samples
    else:
        media, letter, output = "video", b"I", ["-fps_mode", "passthrough", "-f", "framemd5"]
        content = lambda decoded: read_digests(decoded)[0]
    want = content(ffmpeg(*source, *output, "-"))
    stream = run(program, "to_rtp", str(enc_type), str(payload_type), str(clock),
                 data=pack_frames([(letter, 1000 + i * step_ms, frame) for i, frame in enumerate(frames)]))
    decoded, complaints = decode(folder, stream, media, payload_type, attributes, output)
    faults = re.findall(r"(?i).*(?:error|corrupt|conceal|invalid|missed|truncat|lost|missing).*", complaints)
    check(not faults, f"{name}: no complaint" + "".join(faults))
    check(content(decoded) == want,
          f"{name}: {len(frames)} frames of up to {max(map(len, frames))} bytes are decoded to the bit")
    check(len(want) >= len(frames), f"{name}: none of them is missing")


def main(program):
    with Folder() as folder:
        clip = make_h264(folder, ["-crf", "5", "-x264-params", "sliced-threads=0:slices=1"])
        check_codec(program, folder, "H.264", h264_frames(clip), H264, 96, 90000, 40,
                    "a=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=1", ["-i", folder("clip.h264")])
        clip = make_mpeg4(folder, "-bf", "0", "-q:v", "2")
        config = clip[:clip.index(b"\0\0\1\xb6")].hex()
        check_codec(program, folder, "MPEG-4", mpeg4_frames(clip), MPEG4, 96, 90000, 40,
                    f"a=rtpmap:96 MP4V-ES/90000\na=fmtp:96 profile-level-id=1;config={config}",
                    ["-f", "m4v", "-i", folder("clip.m4v")])
        clip = make_video(folder, "clip.mjpeg", ["-c:v", "mjpeg", "-huffman", "default", "-pix_fmt", "yuvj420p", "-q:v",
                                                 "2"])
        check_codec(program, folder, "JPEG", jpeg_images(clip), JPEG, 26, 90000, 40, "a=rtpmap:26 JPEG/90000",
                    ["-i", folder("clip.mjpeg")])
        clip = make_audio(folder, "clip.al", "-c:a", "pcm_alaw", "-ar", "8000")
        check_codec(program, folder, "G.711", pieces(clip, 160), AUDIO, 8, 8000, 20, "a=rtpmap:8 PCMA/8000",
                    ["-f", "alaw", "-ar", "8000", "-ac", "1", "-i", folder("clip.al")])
        # Layer II at 128 kb/s and 48 kHz: 384 bytes a frame, without padding.
        clip = make_audio(folder, "clip.mp2", "-c:a", "mp2", "-b:a", "128k")
        check_codec(program, folder, "MPEG audio", pieces(clip, 384), MPEG_AUDIO, 14, 90000, 24,
                    "a=rtpmap:14 MPA/90000", ["-i", folder("clip.mp2")])


main(sys.argv[1])
