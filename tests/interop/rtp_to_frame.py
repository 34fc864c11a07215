#!/usr/bin/env python3
"""RTP that FFmpeg and GStreamer make, rebuilt by our depacketiser: the elementary stream is the source's.

Argument: the path of convert_streams.
"""
import sys

from streams import (FFMPEG, Folder, H264, JPEG, MPEG4, check, ffmpeg_rtp, frame_packets, gst, h264_frames, jpeg_images,
                     jpeg_scan, make_h264, make_video, mpeg4_frames, need, packets_of, picture_hashes, run,
                     unpack_frames)



def times(step):
    """25 frames a second in the clock of the output."""
    return ["-c", "copy", "-bsf:v", f"setts=pts=N*{step}:dts=N*{step}"]



def rebuild(program, packets, enc_type, config=b""):
    return unpack_frames(run([program, "rtp", str(enc_type), "96", config.hex()], frame_packets(packets)))


def nal_kinds(packets):
    return {packet[12] & 31 for packet in packets}


def gst_rtp(folder, words):
    gst(*words, "!", "rtpstreampay", "!", "filesink", "location=" + folder("packets"))
    with open(folder("packets"), "rb") as framed:
        return packets_of(framed.read())


def check_frames(name, got, want, step_ms=40):
    check([frame for _, _, frame in got] == want, f"{name}: {len(want)} frames byte for byte")
    check([pts for _, pts, _ in got] == [i * step_ms for i in range(len(want))], f"{name}: time stamps")


def test_h264(program, folder):
    clip = make_h264(folder)
    frames = h264_frames(clip)
    clip_in = ["-fflags", "+genpts", "-r", "25", "-i", folder("clip.h264")]
    copy = clip_in + times(3600)
    run(FFMPEG + clip_in + times(40) + [folder("clip.mkv")])  # a file that has time stamps
    source = ["filesrc", "location=" + folder("clip.mkv"), "!", "matroskademux", "!", "h264parse", "!"]
    pay = ["rtph264pay", "pt=96", "mtu=1000"]
    runs = {
        "FFmpeg STAP-A and FU-A": (ffmpeg_rtp(copy), {24, 28}),
        "GStreamer FU-A": (gst_rtp(folder, source + pay), {28}),
        "GStreamer STAP-A": (gst_rtp(folder, source + pay + ["aggregate-mode=max-stap"]), {24, 28}),
    }
    for name, (packets, kinds) in runs.items():
        check(kinds <= nal_kinds(packets), f"{name}: packets are of these kinds")
        got = rebuild(program, packets, H264)
        check_frames("H.264 " + name, got, frames)
        letters = "".join(letter.decode() for letter, _, _ in got)
        check(letters == "IPPPPPPPPP" * 3, f"H.264 {name}: types")
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
        main = packet[12:20]
        rest = packet[20:]
        if int.from_bytes(main[1:4], "big") == 0:
            if rest[:4] != b"\0\0\0\x80":
                raise AssertionError("no tables in the first packet")
            rest = rest[4 + 128:]
        out.append(packet[:12] + main[:5] + bytes([quality]) + main[6:] + rest)
    return out


def check_jpeg(folder, name, got, clip):
    images = jpeg_images(clip)
    check(len(got) == len(images), f"{name}: {len(images)} images")
    # A receiver makes headers of its own, so that the scans are compared, and then the pictures.
    check([jpeg_scan(image) for _, _, image in got] == [jpeg_scan(image) for image in images], f"{name}: scans")
    source = picture_hashes(folder.write("source.mjpeg", clip), "mjpeg")
    check(picture_hashes(folder.write("rebuilt.mjpeg", b"".join(image for _, _, image in got)), "mjpeg") == source,
          f"{name}: pictures")


def test_jpeg(program, folder):
    words = ["-c:v", "mjpeg", "-huffman", "default", "-pix_fmt", "yuvj420p", "-f", "mjpeg"]
    clip = make_video(folder, "clip.mjpeg", words, frames=6)
    packets = ffmpeg_rtp(["-framerate", "25", "-f", "mjpeg", "-i", folder("clip.mjpeg"), "-c", "copy"])
    check_jpeg(folder, "JPEG FFmpeg", rebuild(program, packets, JPEG), clip)
    raw = folder("raw.mjpeg")
    for pixels, quality in (("I420", 10), ("I420", 49), ("I420", 50), ("I420", 51), ("I420", 95), ("Y42B", 75)):
        gst("videotestsrc", "num-buffers=6", "!", f"video/x-raw,width=320,height=240,format={pixels},framerate=25/1",
            "!", "jpegenc", f"quality={quality}", "!", "filesink", "location=" + raw)
        with open(raw, "rb") as images:
            clip = images.read()
        packets = gst_rtp(folder, ["filesrc", "location=" + raw, "!", "jpegparse", "!", "rtpjpegpay", "pt=96"])
        name = f"JPEG GStreamer {pixels} quality {quality}"
        check_jpeg(folder, name + ", tables in band", rebuild(program, packets, JPEG), clip)
        # No sender at hand leaves the tables out: an image of this quality has just the tables that Q stands for.
        packets = jpeg_with_q(packets, quality)
        got = rebuild(program, packets, JPEG)
        check_jpeg(folder, name + ", Q", got, clip)
        check_jpeg_peer(folder, name, packets, got)


def check_jpeg_peer(folder, name, packets, got):
    """GStreamer's own depacketiser makes the same pictures of such packets."""
    framed = folder.write("q.rtp", frame_packets(packets))
    gst("filesrc", "location=" + framed, "!",
        "application/x-rtp-stream,media=video,clock-rate=90000,encoding-name=JPEG,payload=96", "!", "rtpstreamdepay",
        "!", "rtpjpegdepay", "!", "filesink", "location=" + folder("peer.mjpeg"))
    ours = folder.write("rebuilt.mjpeg", b"".join(image for _, _, image in got))
    check(picture_hashes(folder("peer.mjpeg"), "mjpeg") == picture_hashes(ours, "mjpeg"),
          f"{name}, Q: GStreamer sees the same pictures")


def test_mpeg4(program, folder):
    clip = make_video(folder, "clip.m4v", ["-c:v", "mpeg4", "-g", "10", "-q:v", "4", "-f", "m4v"])
    frames = mpeg4_frames(clip)
    config = clip[:clip.index(b"\0\0\1\xb3")]
    ffmpeg = ffmpeg_rtp(["-framerate", "25", "-f", "m4v", "-i", folder("clip.m4v"), "-c", "copy"])
    run(FFMPEG + ["-framerate", "25", "-f", "m4v", "-i", folder("clip.m4v")] + times(40) + [folder("clip.mkv")])
    gstreamer = gst_rtp(folder, ["filesrc", "location=" + folder("clip.mkv"), "!", "matroskademux", "!",
                                 "mpeg4videoparse", "!", "rtpmp4vpay", "pt=96", "mtu=1000"])
    # GStreamer puts small pictures together into one packet, so that only FFmpeg's are counted, and leaves the
    # configuration to the session description.
    for name, packets, count in (("FFmpeg", ffmpeg, len(frames)), ("GStreamer", gstreamer, None)):
        got = [frame for _, _, frame in rebuild(program, packets, MPEG4, config)]
        check(count is None or [frame for frame in got] == frames, f"MPEG-4 {name}: frames")
        rebuilt = b"".join(got)
        check(rebuilt.replace(config, b"") == clip.replace(config, b""), f"MPEG-4 {name}: byte for byte")
        check(rebuilt.startswith(config), f"MPEG-4 {name}: begins with a configuration")
        path = folder.write("rebuilt.m4v", rebuilt)
        check(picture_hashes(path, "m4v") == picture_hashes(folder("clip.m4v"), "m4v"), f"MPEG-4 {name}: pictures")


def main():
    need("ffmpeg", "ffprobe", "gst-launch-1.0")
    program = sys.argv[1]
    with Folder() as folder:
        for test in (test_h264, test_jpeg, test_mpeg4):
            test(program, folder)


if __name__ == "__main__":
    main()
