"""Clips, elementary streams and RTP packets for the tests of the converters."""
import re
import socket
import struct
import threading

from peers import ffmpeg

H264, MPEG4, JPEG, MPEG2TS, MPEG_AUDIO, AUDIO, MP3 = 1, 2, 3, 4, 5, 6, 9


def make_video(folder, name, codec_words, frames=30, size="320x240"):
    ffmpeg("-f", "lavfi", "-i", f"testsrc=size={size}:rate=25", "-frames:v", str(frames), *codec_words, folder(name))
    return folder.read(name)


def make_h264(folder, extra=()):
    """A clip whose start codes all have four bytes, without the encoder's message about itself."""
    clip = make_video(folder, "clip.h264",
                      ["-c:v", "libx264", "-preset", "veryfast", "-bf", "0", "-g", "10", "-threads", "1", *extra,
                       "-bsf:v", "filter_units=remove_types=6", "-f", "h264"])
    clip = b"".join(b"\0\0\0\1" + nal.rstrip(b"\0") for nal in clip.split(b"\0\0\1")[1:])
    folder.write("clip.h264", clip)
    return clip


def make_mpeg4(folder, *extra):
    return make_video(folder, "clip.m4v", ["-c:v", "mpeg4", "-g", "10", *extra, "-f", "m4v"])


def make_audio(folder, name, *words):
    ffmpeg("-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000", "-t", "2", "-ac", "1", *words, folder(name))
    return folder.read(name)


def pictures(stream, code, is_picture):
    """Cuts a stream with start codes behind each unit that holds a picture."""
    frames = []
    at = 0
    starts = list(re.finditer(code, stream))
    for index, start in enumerate(starts):
        end = starts[index + 1].start() if index + 1 < len(starts) else len(stream)
        if is_picture(stream[start.end()]):
            frames.append(stream[at:end])
            at = end
    return frames


def h264_frames(stream):
    return pictures(stream, b"\0\0\0\1", lambda code: code & 31 in (1, 5))


def mpeg4_frames(stream):
    return pictures(stream, b"\0\0\1", lambda code: code == 0xB6)


def jpeg_images(stream):
    return [b"\xff\xd8\xff" + image for image in stream.split(b"\xff\xd8\xff")[1:]]


def jpeg_scan(image):
    """What stands behind the header of the scan, without the end of the image."""
    at = image.index(b"\xff\xda")
    scan = image[at + 2 + struct.unpack(">H", image[at + 2:at + 4])[0]:]
    return scan[:-2] if scan.endswith(b"\xff\xd9") else scan


def pack_frames(frames):
    """(letter, milliseconds, bytes) to what our program reads."""
    return b"".join(struct.pack("<cQI", letter, pts, len(data)) + data for letter, pts, data in frames)


def unpack_frames(data):
    frames = []
    at = 0
    while at < len(data):
        letter, pts, size = struct.unpack_from("<cQI", data, at)
        at += 13
        frames.append((letter, pts, data[at:at + size]))
        at += size
    return frames


def frame_packets(packets):
    """RTP packets as a file of RFC 4571."""
    return b"".join(struct.pack(">H", len(packet)) + packet for packet in packets)


def packets_of(framed):
    packets = []
    at = 0
    while at < len(framed):
        size = struct.unpack_from(">H", framed, at)[0]
        packets.append(framed[at + 2:at + 2 + size])
        at += 2 + size
    return packets


def ffmpeg_rtp(words, muxer="rtp"):
    """The RTP packets that FFmpeg sends; `words` are its input and codec."""
    for _ in range(5):
        packets = [with_type_96(packet) for packet in receive_rtp(words, muxer)]
        numbers = [struct.unpack_from(">H", packet, 2)[0] for packet in packets]
        if all((after - before) & 0xFFFF == 1 for before, after in zip(numbers, numbers[1:])):
            return packets
    raise AssertionError("the machine is too busy to receive a few packets")


def with_type_96(packet):
    return packet[:1] + bytes([packet[1] & 0x80 | 96]) + packet[2:]


def receive_rtp(words, muxer):
    packets = []
    done = threading.Event()

    def receive():
        while True:
            try:
                packets.append(sock.recv(65536))
            except socket.timeout:
                if done.is_set():
                    return

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        sock.bind(("127.0.0.1", 0))
        sock.settimeout(0.2)
        thread = threading.Thread(target=receive)
        thread.start()
        try:
            # RTCP goes where nobody listens.
            url = f"rtp://127.0.0.1:{sock.getsockname()[1]}?pkt_size=1200&rtcpport=9"
            ffmpeg(*words, "-f", muxer, url)
        finally:
            done.set()
            thread.join()
    return packets
