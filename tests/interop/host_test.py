#!/usr/bin/env python3
"""vidora-host with FFmpeg and plain RTSP peers: host_test.py HOST MEDIA [unittest arguments]."""
import base64
import contextlib
import re
import time
import unittest

from host_support import HOST, JPEG, LIVE, MEDIA, Host, Rtsp, digest_header, is_run_of_loop, main
from peers import Folder, ffmpeg, frame_digests, outcome


class Playing(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pictures = frame_digests("-i", f"{MEDIA}/clip.h264")[0]

    def test_pictures_and_sound_arrive_bit_exactly(self):
        jpegs = frame_digests("-i", f"{MEDIA}/clip.mjpeg")[0]
        with Host() as host:
            for content, loop, seconds, least in ((LIVE, self.pictures, "5", 100), (JPEG, jpegs, "2", 40)):
                for transport in ("tcp", "udp"):
                    with self.subTest(content=content, transport=transport):
                        digests = frame_digests("-rtsp_transport", transport, "-i", host.url(content), "-t", seconds)
                        self.assertGreater(len(digests[0]), least)
                        self.assertTrue(is_run_of_loop(digests[0], loop))
                        self.assertGreater(len(digests.get(1, ())), least if content == LIVE else -1)

    def test_recording_plays_to_its_end(self):
        with Host() as host:
            for transport in ("tcp", "udp"):
                digests = frame_digests("-rtsp_transport", transport, "-i", host.url("1_0_clip.kav"))
                self.assertEqual(digests[0], self.pictures, transport)
            # The second and third of its four seconds.
            content = "cam/playback?channel=1&subtype=0&starttime=2020_09_13_12_26_41&endtime=2020_09_13_12_26_42"
            digests = frame_digests("-rtsp_transport", "tcp", "-i", host.url(content))
            self.assertEqual(digests[0], self.pictures[25:75])

    def test_standards_way_is_the_default(self):
        for options, scale in (((), "2"), (("--as-described",), None)):
            with Host(*options) as host, Rtsp(host) as peer:
                peer.url = host.url("1_0_clip.kav")
                peer.play(1)
                told = peer.ask("PLAY", "Range: npt=0-", "Scale: 2.0")[1].get("scale")
                self.assertEqual(told[:1] if told else None, scale)

    def test_edges_go_only_where_they_may(self):
        with Host() as origin:
            allowed = f"127.0.0.1:{origin.port}"
            for options, status in ((("--proxy-to", allowed), 200), (("--proxy-to", "127.0.0.1"), 200), ((), 404)):
                with Host(*options, live=False) as edge, Rtsp(edge) as peer:
                    url = edge.url(f"{LIVE}?proxy={allowed}")
                    self.assertEqual(peer.ask("DESCRIBE", "Accept: application/sdp", url=url)[0], status)

    def test_sender_reports_relate_sound_to_pictures(self):
        reports = {}
        with Host("--timeout", "60") as host, Rtsp(host) as peer:
            headers = peer.play(2)
            first = [int(time) for time in re.findall(r"rtptime=(\d+)", headers["rtp-info"])]
            end = time.monotonic() + 30
            while len(reports) < 2 and time.monotonic() < end:
                channel, data = peer.frame()
                if channel in (1, 3) and data[1] == 200:
                    reports[channel - 1] = (int.from_bytes(data[8:16], "big") / 2**32, int.from_bytes(data[16:20], "big"))
        self.assertEqual(set(reports), {0, 2})
        # Both clocks have run equally long since the beginning.
        video = (reports[0][1] - first[0]) % 2**32 / 90000 - reports[0][0]
        audio = (reports[2][1] - first[1]) % 2**32 / 8000 - reports[2][0]
        self.assertLess(abs(video - audio), 0.3)


class Login(unittest.TestCase):
    def test_right_password_plays_and_wrong_one_gets_401_each_time(self):
        with Host("--user", "admin:secret", "--user", "guest:") as host:
            digests = frame_digests("-rtsp_transport", "tcp", "-i", host.url(user="admin:secret"), "-t", "1")
            self.assertGreater(len(digests[0]), 10)
            for user in ("admin:wrong", "nobody:secret", None):
                code, _, errors = outcome("ffprobe", "-v", "error", "-rtsp_transport", "tcp", host.url(user=user))
                self.assertNotEqual(code, 0)
                self.assertIn("401", errors)

    def test_every_answer_is_judged_afresh(self):
        with Host("--user", "admin:secret") as host:
            with Rtsp(host) as peer:
                status, headers, _ = peer.ask("DESCRIBE")
                self.assertEqual(status, 401)
                challenge = headers["www-authenticate"]
                # No kind of URL is free.
                self.assertEqual(peer.ask("DESCRIBE", url=peer.url + "&proto=Onvif")[0], 401)
                # An answer counts for its request alone.
                for url, other in ((peer.url, "OPTIONS"), (f"{peer.url}0", "DESCRIBE"), (host.url(JPEG), "DESCRIBE")):
                    header = digest_header(peer.url, "secret", challenge)
                    self.assertEqual(peer.ask(other, header, url=url)[0], 401)
                for password, status in (("wrong", 401), ("wrong", 401), ("wrong", 401), ("secret", 200)):
                    self.assertEqual(peer.ask("DESCRIBE", digest_header(peer.url, password, challenge))[0], status)
            with Rtsp(host) as peer:
                peer.ask("DESCRIBE")
                made_up = 'realm="Vidora" nonce="00000000' + "0" * 32 + '"'
                self.assertEqual(peer.ask("DESCRIBE", digest_header(peer.url, "secret", made_up))[0], 401)
                self.assertEqual(peer.ask("DESCRIBE", "Authorization: Basic YWRtaW46c2VjcmV0")[0], 200)

    def test_expired_nonce_is_refused(self):
        with Host("--user", "admin:secret", "--nonce-lifetime", "1") as host, Rtsp(host) as peer:
            challenge = peer.ask("DESCRIBE")[1]["www-authenticate"]
            time.sleep(2.5)  # the nonce's own time, in whole seconds
            self.assertEqual(peer.ask("DESCRIBE", digest_header(peer.url, "secret", challenge))[0], 401)


class Log(unittest.TestCase):
    def test_no_secret_is_logged_and_no_line_repeats_without_pause(self):
        secrets = ("s3cr3t-word", base64.b64encode(b"admin:s3cr3t-word").decode(), "response=\"")
        with Host("--user", "admin:s3cr3t-word", "--log", "trace") as host:
            with Rtsp(host) as peer:
                challenge = peer.ask("DESCRIBE")[1]["www-authenticate"]
                digest = digest_header(peer.url, "s3cr3t-word", challenge)
                basic = f"Authorization: Basic {secrets[1]}"
                self.assertEqual(peer.ask("WEIRD", basic)[0], 501)
                self.assertEqual(peer.ask("DESCRIBE", digest)[0], 200)
                for url in (host.url(user="admin:s3cr3t-word"), host.url("x?proxy=admin:s3cr3t-word@127.0.0.1:9"),
                            host.url("none?password=s3cr3t-word"), host.url("a.kav?authbasic=" + secrets[1])):
                    for method in ("DESCRIBE", "SETUP", "PLAY"):
                        peer.ask(method, basic, url=url)
                for _ in range(300):
                    self.assertEqual(peer.ask("WEIRD", basic, digest)[0], 501)
            with Rtsp(host) as peer:
                with contextlib.suppress(EOFError, ConnectionError):
                    peer.sock.sendall(f"GARBAGE {peer.url}\r\n{basic}\r\n\r\n\r\n".encode())
                    peer.take(1)
            self.assertEqual(host.stop(), 0)
        self.assertEqual([line for line in host.lines if any(secret in line for secret in secrets)], [])
        self.assertTrue(any("WEIRD" in line for line in host.lines))
        self.assertLess(sum("WEIRD" in line for line in host.lines), 60)  # each takes milliseconds, not seconds
        self.assertTrue(any(re.search(r"\d+ (more )?lines .*passed over", line) for line in host.lines))


class Files(unittest.TestCase):
    def test_what_cannot_be_sent_is_refused_with_a_reason(self):
        h264 = ("-pix_fmt", "yuv420p", "-c:v", "libx264", "-threads", "1", "-f", "h264")
        mjpeg = ("-c:v", "mjpeg", "-f", "mjpeg")
        with Folder() as folder:
            for name, reason, options in (
                    ("slices.h264", "several slices", h264 + ("-bf", "0", "-x264-params", "slices=4")),
                    ("b.h264", "B pictures", h264 + ("-bf", "2", "-x264-params", "slices=1")),
                    ("own_tables.mjpeg", "Huffman", mjpeg + ("-pix_fmt", "yuvj420p", "-huffman", "optimal")),
                    ("sampling.mjpeg", "4:2:0", mjpeg + ("-pix_fmt", "yuvj422p", "-huffman", "default"))):
                ffmpeg("-f", "lavfi", "-i", "testsrc=size=320x240:duration=0.4", *options, folder(name))
                code, _, errors = outcome(HOST, "--as-described", "--live", f"a={folder(name)}")
                self.assertEqual(code, 1)
                self.assertIn(reason, errors)
            code, _, errors = outcome(HOST, "--live", f"a?channel=1&subtype=0={MEDIA}/none.h264")
            self.assertEqual(code, 1)
            self.assertIn("none.h264: cannot be read", errors)
        for wrong in ("nothing", "a#b=c.h264", "/a=c.h264"):
            self.assertEqual(outcome(HOST, "--live", wrong)[0], 105)

    def test_files_in_containers_play_under_any_name(self):
        with Folder() as folder:
            ffmpeg("-f", "lavfi", "-i", "testsrc=size=320x240:rate=25:duration=2", "-f", "lavfi", "-i",
                   "sine=duration=2", "-c:v", "libx264", "-threads", "1", "-bf", "2", "-g", "25", "-x264-params",
                   "slices=3", folder("b.mp4"))
            pictures = frame_digests("-i", folder("b.mp4"))[0]
            options = []
            for name, ending in (("front-door", "mp4"), ("gate/yard?side=left&n=2", "mkv"), ("x", "ts")):
                ffmpeg("-i", folder("b.mp4"), "-c", "copy", folder(f"copy.{ending}"))
                self.assertEqual(outcome(HOST, "--live", f"a={folder(f'copy.{ending}')}", "--make-kav",
                                         folder(f"{ending}.kav"))[0], 0)
                options += ["--live", f"{name}={folder(f'copy.{ending}')}"]
            ffmpeg("-i", folder("b.mp4"), "-c:v", "libx264", "-bf", "0", "-x264-params", "slices=3:aud=1:threads=1",
                   folder("raw.h264"))
            options += ["--live", f"raw={folder('raw.h264')}"]
            with Host(*options, live=False) as live, Host(recordings=folder.name) as recorded:
                digests = frame_digests("-rtsp_transport", "udp", "-i", live.url("raw"), "-t", "1")
                self.assertTrue(is_run_of_loop(digests[0], frame_digests("-i", folder("raw.h264"))[0]))
                for name in ("front-door", "front-door/", "gate/yard?side=left&n=2", "x"):
                    digests = frame_digests("-rtsp_transport", "tcp", "-i", live.url(name), "-t", "1")
                    self.assertGreater(len(digests[1]), 15)
                    self.assertTrue(is_run_of_loop(digests[0], pictures), name)
                for ending, transport in (("mp4", "tcp"), ("mkv", "udp"), ("ts", "udp")):
                    digests = frame_digests("-rtsp_transport", transport, "-i", recorded.url(f"{ending}.kav"))
                    self.assertEqual(digests[0], pictures, ending)
                self.assertNotEqual(outcome("ffprobe", "-v", "error", live.url("back-door"))[0], 0)
            code, _, errors = outcome("env", "PATH=", HOST, "--live", f"a={folder('b.mp4')}", "--make-kav", folder("k"))
            self.assertEqual(code, 1)
            self.assertIn("needs the ffmpeg program", errors)


if __name__ == "__main__":
    main()
