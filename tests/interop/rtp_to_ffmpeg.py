#!/usr/bin/env python3
"""Frames cut by the packetiser, read by FFmpeg from RTP: it must decode what it decodes from the source file.

Arguments: the program rtp_sender, and a codec of CODECS. A clip is made with FFmpeg, split into frames and sent over
loopback; FFmpeg reads it by an SDP file and decodes it. Both decodes must be equal to the bit, and without a complaint.
"""
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time

VIDEO = ["-f", "lavfi", "-i", "testsrc2=size=640x480:rate=25", "-frames:v", "60"]
AUDIO = ["-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000", "-t", "2", "-ac", "1"]

# codec: source file, how FFmpeg makes it, enc_type, payload type, clock, frame type, milliseconds a frame, SDP lines
CODECS = {
    "h264": ("clip.h264", VIDEO + ["-c:v", "libx264", "-pix_fmt", "yuv420p", "-bf", "0", "-g", "25", "-crf", "12",
                                   "-x264-params", "sliced-threads=0:slices=1"],
             1, 96, 90000, "I", 40, "a=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=1"),
    "mpeg4": ("clip.m4v", VIDEO + ["-c:v", "mpeg4", "-bf", "0", "-g", "25", "-q:v", "3", "-f", "m4v"],
              2, 96, 90000, "I", 40, "a=rtpmap:96 MP4V-ES/90000"),
    "jpeg": ("clip.mjpeg", VIDEO + ["-c:v", "mjpeg", "-huffman", "default", "-pix_fmt", "yuvj420p", "-q:v", "3"],
             3, 26, 90000, "J", 40, "a=rtpmap:26 JPEG/90000"),
    "pcma": ("clip.wav", AUDIO + ["-c:a", "pcm_alaw", "-ar", "8000"],
             6, 8, 8000, "A", 20, "a=rtpmap:8 PCMA/8000"),
    "mp2": ("clip.mp2", AUDIO + ["-c:a", "mp2", "-b:a", "128k"],
            5, 14, 90000, "A", 24, "a=rtpmap:14 MPA/90000"),
}


def ffmpeg(*args, **kwargs):
    return subprocess.run(["ffmpeg", "-nostdin", "-hide_banner", *args], check=True, **kwargs)


def split_h264(data):
    """Access units of one slice each, every NAL unit behind a four-byte start code."""
    frames, frame = [], b""
    for nal in re.split(b"\x00*\x00\x00\x01", data)[1:]:
        frame += b"\0\0\0\1" + nal
        if nal[0] & 31 in (1, 5):
            frames.append(frame)
            frame = b""
    return frames


def split_mpeg4(data):
    """Pictures with the headers in front of them."""
    ends = [match.start() for match in re.finditer(b"\0\0\1\xb0|\0\0\1\xb3|\0\0\1\xb6", data)] + [len(data)]
    frames, start = [], 0
    for at, end in zip(ends, ends[1:]):
        if data[at + 3] == 0xB6:
            frames.append(data[start:end])
            start = end
    return frames


def split_mp2(data):
    """Frames of MPEG-1 layer II at 128 kb/s and 48 kHz, which have no padding."""
    return [data[at:at + 384] for at in range(0, len(data) - 383, 384)]


def split(codec, data):
    if codec == "h264":
        return split_h264(data)
    if codec == "mpeg4":
        return split_mpeg4(data)
    if codec == "jpeg":
        return [b"\xff\xd8" + part for part in data.split(b"\xff\xd8")[1:]]
    if codec == "mp2":
        return split_mp2(data)
    body = data[data.index(b"data") + 8:]
    return [body[at:at + 160] for at in range(0, len(body) // 160 * 160, 160)]


def free_port():
    """An even port that is free together with the next one."""
    for port in range(20000 + os.getpid() % 2000 * 10, 60000, 2):
        try:
            for each in (port, port + 1):
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
                    sock.bind(("127.0.0.1", each))
            return port
        except OSError:
            continue
    raise RuntimeError("no free port")


def wait_bound(port, process):
    """Waits until somebody listens on both ports."""
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline and process.poll() is None:
        with open("/proc/net/udp", encoding="ascii") as table:
            text = table.read()
        if all(f":{each:04X} " in text for each in (port, port + 1)):
            return
        time.sleep(0.02)
    raise RuntimeError("FFmpeg doesn't listen")


def decode_args(video):
    if video:
        return ["-fps_mode", "passthrough", "-f", "framemd5", "-"]
    return ["-f", "s16le", "-"]


def digest(video, output):
    """The pictures' digests without their times, or the samples."""
    if not video:
        return output
    return [line.rsplit(",", 1)[1].strip() for line in output.decode().splitlines() if not line.startswith("#")]


def main(sender, codec):
    if shutil.which("ffmpeg") is None:
        print("ffmpeg isn't there")
        return 77
    source, make, enc_type, payload_type, clock, frame_type, period, attributes = CODECS[codec]
    video = frame_type != "A"
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, source)
        ffmpeg("-v", "error", *make, path)
        with open(path, "rb") as handle:
            frames = split(codec, handle.read())
        if codec == "pcma":  # whole frames only, so that both decodes have the same end
            path = os.path.join(folder, "clip.al")
            with open(path, "wb") as handle:
                handle.write(b"".join(frames))
        demuxer = {"pcma": ["-f", "alaw", "-ar", "8000", "-ac", "1"]}.get(codec, [])
        expected = digest(video, ffmpeg("-v", "error", *demuxer, "-i", path, *decode_args(video),
                                        stdout=subprocess.PIPE).stdout)
        if codec == "mpeg4":  # the configuration stands in the first frame only
            config = frames[0][:frames[0].index(b"\0\0\1\xb6")]
            attributes += f"\na=fmtp:96 profile-level-id=1;config={config.hex()}"
        port = free_port()
        sdp = os.path.join(folder, "clip.sdp")
        with open(sdp, "w", encoding="ascii") as handle:
            handle.write(f"v=0\no=- 0 0 IN IP4 127.0.0.1\ns=-\nc=IN IP4 127.0.0.1\nt=0 0\n"
                         f"m={'video' if video else 'audio'} {port} RTP/AVP {payload_type}\n{attributes}\n")
        reader = subprocess.Popen(
            ["ffmpeg", "-nostdin", "-hide_banner", "-v", "warning", "-threads", "1", "-protocol_whitelist",
             "file,udp,rtp", "-buffer_size", "4000000", "-i", sdp, *decode_args(video)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            wait_bound(port, reader)
            records = b"".join(struct.pack(">IQ", len(frame), 1000 + i * period) + frame
                               for i, frame in enumerate(frames))
            subprocess.run([sender, str(port), str(enc_type), str(payload_type), str(clock), frame_type],
                           input=records, check=True, timeout=60)
            output, complaints = reader.communicate(timeout=60)
        finally:
            reader.kill()
            reader.wait()
    received = digest(video, output)
    print(f"{codec}: {len(frames)} frames sent, largest {max(map(len, frames))} bytes; "
          f"{len(received)} of {len(expected)} {'pictures' if video else 'bytes'} decoded")
    print(complaints.decode())
    faults = re.findall(r"(?i).*(?:error|corrupt|conceal|invalid|missed|truncat|lost).*", complaints.decode())
    return 0 if len(frames) > 50 and received == expected and not faults else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
