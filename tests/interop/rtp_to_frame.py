#!/usr/bin/env python3
"""RTP that FFmpeg and GStreamer make, rebuilt by our depacketiser: the elementary stream is the source's.

Argument: the path of convert_streams.
"""
import re
import sys

from peers import Folder, check, ffmpeg, frame_digests, gst, run
from streams import (H264, JPEG, MPEG2TS, MPEG4, ffmpeg_rtp, frame_packets, h264_frames, jpeg_images, jpeg_scan, make_h264,
                     make_mpeg4, make_video, mpeg4_frames, packets_of, unpack_frames)


def times(step):
    """25 frames a second in the clock of the output."""
    return ["-c", "copy", "-bsf:v", f"setts=pts=N*{step}:dts=N*{step}"]


def rebuild(program, packets, enc_type, config=b""):
    return unpack_frames(run(program, "rtp", str(enc_type), "96", config.hex(), data=frame_packets(packets)))


def nal_kinds(packets):
    return {packet[12] & 31 for packet in packets}


def gst_rtp(folder, words):
    gst(*words, "!", "rtpstreampay", "!", "filesink", "location=" + folder("packets"))
    return packets_of(folder.read("packets"))


def check_pictures(folder, name, demuxer, got, want):
    """Both streams decode to the same pictures."""
    digests = [frame_digests("-f", demuxer, "-i", folder.write("stream." + demuxer, stream)) for stream in (got, want)]
    check(digests[0] == digests[1], f"{name}: pictures")


def test_h264(program, folder):
    frames = h264_frames(make_h264(folder))
    clip_in = ["-fflags", "+genpts", "-r", "25", "-i", folder("clip.h264")]
    copy = clip_in + times(3600)
    ffmpeg(*clip_in, *times(40), folder("clip.mkv"))  # a file that has time stamps
    source = ["filesrc", "location=" + folder("clip.mkv"), "!", "matroskademux", "!", "h264parse", "!"]
    pay = ["rtph264pay", "pt=96", "mtu=1000"]
    runs = {
        "FFmpeg STAP-A and FU-A": (ffmpeg_rtp(copy), {24, 28}),
        "GStreamer FU-A": (gst_rtp(folder, source + pay), {28}),
        "GStreamer STAP-A": (gst_rtp(folder, source + pay + ["aggregate-mode=max-stap"]), {24, 28}),
    }
    for name, (packets, kinds) in runs.items():
        check(kinds <= nal_kinds(packets), f"H.264 {name}: packets are of these kinds")
        got = rebuild(program, packets, H264)
        check([frame for _, _, frame in got] == frames, f"H.264 {name}: {len(frames)} frames byte for byte")
        check([pts for _, pts, _ in got] == [i * 40 for i in range(len(frames))], f"H.264 {name}: time stamps")
        check(b"".join(letter for letter, _, _ in got) == b"IPPPPPPPPP" * 3, f"H.264 {name}: types")
    small = make_h264(folder, ["-slice-max-size", "900"])
    packets = ffmpeg_rtp(copy + ["-rtpflags", "h264_mode0"])
    check(not nal_kinds(packets) & {24, 28}, "FFmpeg single NAL units: packets are of no other kind")
    got = rebuild(program, packets, H264)
    check(b"".join(frame for _, _, frame in got) == small, "H.264 FFmpeg single NAL units, many slices: byte for byte")
    check(len(got) == 30, "H.264 FFmpeg single NAL units, many slices: frames")


def jpeg_with_q(packets, quality):
    """The same packets with Q below 128, so without their tables."""
    out = []
    for packet in packets:
        main, rest = packet[12:20], packet[20:]
        if int.from_bytes(main[1:4], "big") == 0:
            assert rest[:4] == b"\0\0\0\x80", "no tables in the first packet"
            rest = rest[4 + 128:]
        out.append(packet[:12] + main[:5] + bytes([quality]) + main[6:] + rest)
    return out


def check_jpeg(program, folder, name, packets, clip):
    """Rebuilds the clip, and gives its stream."""
    got = [image for _, _, image in rebuild(program, packets, JPEG)]
    images = jpeg_images(clip)
    check(len(got) == len(images), f"{name}: {len(images)} images")
    # A receiver makes headers of its own, so that the scans are compared, and then the pictures.
    check([jpeg_scan(image) for image in got] == [jpeg_scan(image) for image in images], f"{name}: scans")
    check_pictures(folder, name, "mjpeg", b"".join(got), clip)
    return b"".join(got)


def test_jpeg(program, folder):
    words = ["-c:v", "mjpeg", "-huffman", "default", "-pix_fmt", "yuvj420p", "-f", "mjpeg"]
    clip = make_video(folder, "clip.mjpeg", words, frames=6)
    packets = ffmpeg_rtp(["-framerate", "25", "-f", "mjpeg", "-i", folder("clip.mjpeg"), "-c", "copy"])
    check_jpeg(program, folder, "JPEG FFmpeg", packets, clip)
    for pixels, quality in (("I420", 10), ("I420", 49), ("I420", 50), ("I420", 51), ("I420", 95), ("Y42B", 75)):
        raw = "location=" + folder("raw.mjpeg")
        gst("videotestsrc", "num-buffers=6", "!", f"video/x-raw,width=320,height=240,format={pixels},framerate=25/1",
            "!", "jpegenc", f"quality={quality}", "!", "filesink", raw)
        clip = folder.read("raw.mjpeg")
        packets = gst_rtp(folder, ["filesrc", raw, "!", "jpegparse", "!", "rtpjpegpay", "pt=96"])
        name = f"JPEG GStreamer {pixels} quality {quality}"
        check_jpeg(program, folder, name + ", tables in band", packets, clip)
        # No sender at hand leaves the tables out: an image of this quality has just the tables that Q stands for.
        packets = jpeg_with_q(packets, quality)
        got = check_jpeg(program, folder, name + ", Q", packets, clip)
        # GStreamer's own depacketiser makes the same pictures of such packets.
        gst("filesrc", "location=" + folder.write("q.rtp", frame_packets(packets)), "!",
            "application/x-rtp-stream,media=video,clock-rate=90000,encoding-name=JPEG,payload=96", "!",
            "rtpstreamdepay", "!", "rtpjpegdepay", "!", "filesink", "location=" + folder("peer.mjpeg"))
        check_pictures(folder, name + ", Q, as GStreamer sees it", "mjpeg", got, folder.read("peer.mjpeg"))


def test_mpeg4(program, folder):
    clip = make_mpeg4(folder, "-q:v", "4")
    frames = mpeg4_frames(clip)
    config = clip[:clip.index(b"\0\0\1\xb3")]
    clip_in = ["-framerate", "25", "-f", "m4v", "-i", folder("clip.m4v")]
    from_ffmpeg = ffmpeg_rtp(clip_in + ["-c", "copy"])
    ffmpeg(*clip_in, *times(40), folder("clip.mkv"))
    from_gstreamer = gst_rtp(folder, ["filesrc", "location=" + folder("clip.mkv"), "!", "matroskademux", "!",
                                      "mpeg4videoparse", "!", "rtpmp4vpay", "pt=96", "mtu=1000"])
    # GStreamer puts small pictures together into one packet, so that only FFmpeg's are counted, and leaves the
    # configuration to the session description.
    for name, packets in (("FFmpeg", from_ffmpeg), ("GStreamer", from_gstreamer)):
        got = [frame for _, _, frame in rebuild(program, packets, MPEG4, config)]
        check(packets is from_gstreamer or got == frames, f"MPEG-4 {name}: frames")
        rebuilt = b"".join(got)
        check(rebuilt.replace(config, b"") == clip.replace(config, b""), f"MPEG-4 {name}: byte for byte")
        check(rebuilt.startswith(config), f"MPEG-4 {name}: begins with a configuration")
        check_pictures(folder, f"MPEG-4 {name}", "m4v", rebuilt, clip)


def check_ts(program, folder, name, packets, frames, demuxer="h264"):
    """The frames of a transport stream, byte for byte, and the pictures that they decode to."""
    check(any(packet[12 + 188 * 3 + 1] & 0x40 for packet in packets), f"{name}: frames begin inside packets")
    got = [frame for _, _, frame in rebuild(program, packets, MPEG2TS)]
    # The last frame's end shows only when another one begins. GStreamer keeps what doesn't fill a packet to itself.
    begun = len(re.findall(rb"(?s)\x00\x00\x01\xe0..[\x80-\x8f]", b"".join(packet[12:] for packet in packets)))
    check(begun > len(frames) - 3 and len(got) == begun - 1, f"{name}: {begun - 1} frames")
    check(got == frames[:begun - 1], f"{name}: byte for byte")
    check_pictures(folder, name, demuxer, b"".join(got), b"".join(frames[:begun - 1]))


def test_ts(program, folder):
    frames = h264_frames(make_h264(folder))
    clip_in = ["-fflags", "+genpts", "-r", "25", "-i", folder("clip.h264")]
    check_ts(program, folder, "TS FFmpeg", ffmpeg_rtp(clip_in + times(3600), "rtp_mpegts"), frames)
    ffmpeg(*clip_in, *times(40), folder("clip.mkv"))
    packets = gst_rtp(folder, ["filesrc", "location=" + folder("clip.mkv"), "!", "matroskademux", "!", "h264parse", "!",
                               "mpegtsmux", "!", "rtpmp2tpay", "pt=96"])
    check_ts(program, folder, "TS GStreamer", packets, frames)


with Folder() as temporary:
    for test in (test_h264, test_jpeg, test_mpeg4, test_ts):
        test(sys.argv[1], temporary)
