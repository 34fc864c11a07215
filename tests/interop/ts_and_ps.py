#!/usr/bin/env python3
"""Our transport and program streams, read by FFmpeg; transport streams of FFmpeg and GStreamer, read by us.

Argument: the path of convert_streams.
"""
import json
import sys

from streams import (FFMPEG, Folder, H264, MP3, MPEG4, check, gst, h264_frames, make_h264, make_video, mpeg4_frames,
                     need, pack_frames, picture_hashes, run, unpack_frames)


def probe(path, what):
    return json.loads(run(["ffprobe", "-v", "error", "-of", "json", "-show_" + what, path]))[what]


def video_frames(frames, is_key):
    """With a type letter, at 25 a second."""
    return [(b"I" if is_key(frame) else b"P", index * 40, frame) for index, frame in enumerate(frames)]


def make_mp3(folder):
    """Frames of an MP3 stream, 24 ms each."""
    path = folder("clip.mp3")
    run(FFMPEG + ["-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", "1", "-c:a", "libmp3lame", "-b:a", "64k",
                  "-write_xing", "0", "-id3v2_version", "0", path])
    with open(path, "rb") as clip:
        stream = clip.read()
    places = [(int(packet["pos"]), int(packet["size"])) for packet in probe(path, "packets")]
    return [(b"A", index * 24, stream[at:at + size]) for index, (at, size) in enumerate(places)]


def check_output(program, folder, name, enc_type, frames, source_hashes, audio):
    merged = sorted(frames + audio, key=lambda frame: (frame[1], frame[0] == b"A"))
    for mode, demuxer in (("to_ts", "mpegts"), ("to_ps", "mpeg")):
        stream = run([program, mode, str(enc_type), str(MP3)], pack_frames(merged))
        path = folder.write("out." + mode, stream)
        title = f"{name} {mode[3:].upper()}"
        # FFmpeg's messages at this level would be about damage; its result is not 0 if it can't read the file.
        kinds = sorted((stream["codec_type"], stream["codec_name"]) for stream in probe(path, "streams"))
        codec = {H264: "h264", MPEG4: "mpeg4"}[enc_type]
        check([kind for kind in kinds if kind[0] == "video"] == [("video", codec)], f"{title}: video track")
        check(not audio or "audio" in [kind[0] for kind in kinds], f"{title}: audio track")
        check(picture_hashes(path, demuxer) == source_hashes, f"{title}: the source's pictures")
        packets = [packet for packet in probe(path, "packets") if packet["codec_type"] == "video" and "pts" in packet]
        check([int(packet["pts"]) for packet in packets] == [pts * 90 for _, pts, _ in frames],
              f"{title}: time stamps")
        if audio:
            check(len(picture_hashes(path, demuxer, "a")) >= len(audio) - 1, f"{title}: sound")


def test_output(program, folder):
    audio = make_mp3(folder)
    make_h264(folder)
    with open(folder("clip.h264"), "rb") as clip:
        h264 = video_frames(h264_frames(clip.read()), lambda frame: frame[4] & 31 == 7)
    hashes = picture_hashes(folder("clip.h264"), "h264")
    check_output(program, folder, "H.264", H264, h264, hashes, [])
    check_output(program, folder, "H.264 and MP3", H264, h264, hashes, audio)
    clip = make_video(folder, "clip.m4v", ["-c:v", "mpeg4", "-g", "10", "-q:v", "4", "-f", "m4v"])
    mpeg4 = video_frames(mpeg4_frames(clip), lambda frame: frame[3] in (0xB0, 0xB3))
    check_output(program, folder, "MPEG-4", MPEG4, mpeg4, picture_hashes(folder("clip.m4v"), "m4v"), [])
    # Frames of several hundred kilobytes, beyond what a PES packet can tell the length of.
    clip = make_h264(folder, ["-vf", "scale=640x480,noise=alls=60:allf=t", "-qp", "24"])
    big = video_frames(h264_frames(clip)[:12], lambda frame: frame[4] & 31 == 7)
    check(100000 < max(len(frame) for _, _, frame in big) < 500000, "large frames are large")
    folder.write("clip.h264", b"".join(frame for _, _, frame in big))
    check_output(program, folder, "large H.264", H264, big, picture_hashes(folder("clip.h264"), "h264"), [])


def check_input(program, name, path, frames, letters):
    with open(path, "rb") as stream:
        got = unpack_frames(run([program, "ts"], stream.read()))
    # The last frame's end shows only when another one begins.
    check([frame for _, _, frame in got] == frames[:len(frames) - 1], f"{name}: frames byte for byte")
    check(b"".join(letter for letter, _, _ in got) == letters[:len(frames) - 1], f"{name}: types")


def test_input(program, folder):
    frames = h264_frames(make_h264(folder))
    letters = b"IPPPPPPPPP" * 3
    clip_in = ["-fflags", "+genpts", "-r", "25", "-i", folder("clip.h264")]
    times = ["-bsf:v", "setts=pts=N*3600:dts=N*3600"]
    run(FFMPEG + clip_in + ["-c", "copy", *times, "-f", "mpegts", folder("clip.ts")])
    check_input(program, "FFmpeg", folder("clip.ts"), frames, letters)
    run(FFMPEG + clip_in + ["-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", "1.2", "-map", "0:v", "-map", "1:a",
                            "-c:v", "copy", *times, "-c:a", "mp2", "-f", "mpegts", folder("both.ts")])
    check_input(program, "FFmpeg with sound", folder("both.ts"), frames, letters)
    gst("filesrc", "location=" + folder("clip.ts"), "!", "tsdemux", "!", "h264parse", "!", "mpegtsmux", "!",
        "filesink", "location=" + folder("gst.ts"))
    check_input(program, "GStreamer", folder("gst.ts"), frames, letters)
    # And what we write ourselves, with the time stamps that its clock references tell.
    packed = pack_frames(video_frames(frames, lambda frame: frame[4] & 31 == 7))
    got = unpack_frames(run([program, "ts"], run([program, "to_ts", str(H264), str(MP3)], packed)))
    check(got == unpack_frames(packed)[:len(frames) - 1], "our own: frames, types and time stamps")


def main():
    need("ffmpeg", "ffprobe", "gst-launch-1.0")
    program = sys.argv[1]
    with Folder() as folder:
        test_output(program, folder)
        test_input(program, folder)


if __name__ == "__main__":
    main()
