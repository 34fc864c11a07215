#!/usr/bin/env python3
"""Our transport and program streams, read by FFmpeg; transport streams of FFmpeg and GStreamer, read by us.

Argument: the path of convert_streams.
"""
import json
import sys

from peers import Folder, check, ffmpeg, frame_digests, gst, run
from streams import (H264, MP3, MPEG4, h264_frames, make_audio, make_h264, make_mpeg4, make_video, mpeg4_frames,
                     pack_frames, unpack_frames)


def probe(path, what):
    return json.loads(run("ffprobe", "-v", "error", "-of", "json", "-show_" + what, path))[what]


def video_frames(frames, is_key):
    """With a type letter, at 25 a second."""
    return [(b"I" if is_key(frame) else b"P", index * 40, frame) for index, frame in enumerate(frames)]


def has_sps(frame):
    return frame[4] & 31 == 7


def make_mp3(folder):
    """Frames of an MP3 stream, 24 ms each."""
    stream = make_audio(folder, "clip.mp3", "-t", "1", "-c:a", "libmp3lame", "-b:a", "64k", "-write_xing", "0",
                        "-id3v2_version", "0")
    places = [(int(packet["pos"]), int(packet["size"])) for packet in probe(folder("clip.mp3"), "packets")]
    return [(b"A", index * 24, stream[at:at + size]) for index, (at, size) in enumerate(places)]


def check_output(program, folder, name, enc_type, frames, audio):
    codec = {H264: "h264", MPEG4: "mpeg4"}[enc_type]
    demuxer = {H264: "h264", MPEG4: "m4v"}[enc_type]
    source = frame_digests("-f", demuxer, "-i", folder.write("source", b"".join(frame for _, _, frame in frames)))
    merged = sorted(frames + audio, key=lambda frame: (frame[1], frame[0] == b"A"))
    for mode, demuxer in (("to_ts", "mpegts"), ("to_ps", "mpeg")):
        path = folder.write("out." + mode, run(program, mode, str(enc_type), str(MP3), data=pack_frames(merged)))
        title = f"{name} {mode[3:].upper()}"
        kinds = sorted((stream["codec_type"], stream["codec_name"]) for stream in probe(path, "streams"))
        check([kind for kind in kinds if kind[0] == "video"] == [("video", codec)], f"{title}: video track")
        check(not audio or "audio" in [kind[0] for kind in kinds], f"{title}: audio track")
        digests = {kind: frame_digests("-f", demuxer, "-i", path, "-map", "0:" + kind)[0]
                   for kind in ("va" if audio else "v")}
        check(digests["v"] == source[0], f"{title}: the source's pictures")
        check(not audio or len(digests["a"]) >= len(audio) - 1, f"{title}: sound")
        packets = [packet for packet in probe(path, "packets") if packet["codec_type"] == "video" and "pts" in packet]
        check([int(packet["pts"]) for packet in packets] == [pts * 90 for _, pts, _ in frames],
              f"{title}: time stamps")


def test_output(program, folder):
    audio = make_mp3(folder)
    h264 = video_frames(h264_frames(make_h264(folder)), has_sps)
    check_output(program, folder, "H.264", H264, h264, [])
    check_output(program, folder, "H.264 and MP3", H264, h264, audio)
    mpeg4 = video_frames(mpeg4_frames(make_mpeg4(folder, "-q:v", "4")), lambda frame: frame[3] in (0xB0, 0xB3))
    check_output(program, folder, "MPEG-4", MPEG4, mpeg4, [])
    # Frames of several hundred kilobytes, beyond what a PES packet can tell the length of.
    clip = make_h264(folder, ["-vf", "scale=640x480,noise=alls=60:allf=t", "-qp", "24"])
    big = video_frames(h264_frames(clip)[:12], has_sps)
    check(100000 < max(len(frame) for _, _, frame in big) < 500000, "large frames are large")
    check_output(program, folder, "large H.264", H264, big, [])


def check_input(program, name, path, frames):
    with open(path, "rb") as stream:
        got = unpack_frames(run(program, "ts", data=stream.read()))
    # The last frame's end shows only when another one begins.
    check([frame for _, _, frame in got] == frames[:-1], f"{name}: frames byte for byte")
    check(b"".join(letter for letter, _, _ in got) == (b"IPPPPPPPPP" * 3)[:-1], f"{name}: types")


def test_input(program, folder):
    frames = h264_frames(make_h264(folder))
    clip_in = ["-fflags", "+genpts", "-r", "25", "-i", folder("clip.h264")]
    times = ["-bsf:v", "setts=pts=N*3600:dts=N*3600"]
    ffmpeg(*clip_in, "-c", "copy", *times, "-f", "mpegts", folder("clip.ts"))
    check_input(program, "FFmpeg", folder("clip.ts"), frames)
    ffmpeg(*clip_in, "-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", "1.2", "-map", "0:v", "-map", "1:a", "-c:v",
           "copy", *times, "-c:a", "mp2", "-f", "mpegts", folder("both.ts"))
    check_input(program, "FFmpeg with sound", folder("both.ts"), frames)
    gst("filesrc", "location=" + folder("clip.ts"), "!", "tsdemux", "!", "h264parse", "!", "mpegtsmux", "!",
        "filesink", "location=" + folder("gst.ts"))
    check_input(program, "GStreamer", folder("gst.ts"), frames)
    # Streams as encoders write them: three-byte start codes, long SEI in front of key frames, other codecs.
    for demuxer, words in (("h264", ["-c:v", "libx264", "-preset", "veryfast", "-threads", "1"]),
                           ("m4v", ["-c:v", "mpeg4"]), ("mpegvideo", ["-c:v", "mpeg2video"])):
        make_video(folder, "clip.es", [*words, "-bf", "0", "-g", "10", "-f", "mpegts"])
        got = unpack_frames(run(program, "ts", data=folder.read("clip.es")))
        check(b"".join(letter for letter, _, _ in got) == (b"IPPPPPPPPP" * 3)[:-1], f"{demuxer}: types")
        path = folder.write("got." + demuxer, b"".join(frame for _, _, frame in got))
        want = frame_digests("-f", "mpegts", "-i", folder("clip.es"))[0]
        check(frame_digests("-f", demuxer, "-i", path)[0] == want[:-1], f"{demuxer}: {len(want) - 1} pictures")
    # And what we write ourselves, with the time stamps that its clock references tell.
    packed = pack_frames(video_frames(frames, has_sps))
    got = unpack_frames(run(program, "ts", data=run(program, "to_ts", str(H264), str(MP3), data=packed)))
    check(got == unpack_frames(packed)[:-1], "our own: frames, types and time stamps")


with Folder() as temporary:
    test_output(sys.argv[1], temporary)
    test_input(sys.argv[1], temporary)
