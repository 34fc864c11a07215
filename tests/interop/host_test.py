#!/usr/bin/env python3
"""vidora-host with FFmpeg and plain RTSP peers: host_test.py HOST MEDIA [unittest arguments]."""
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import host_support as support
from host_support import Host, Rtsp, digest_header, frame_digests, is_run_of_loop, run


class Playing(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pictures = frame_digests("-i", f"{support.MEDIA}/clip.h264")[0]
        cls.jpegs = frame_digests("-i", f"{support.MEDIA}/clip.mjpeg")[0]

    def test_pictures_and_sound_arrive_bit_exactly(self):
        with Host() as host:
            for transport in ("tcp", "udp"):
                with self.subTest(transport=transport):
                    digests = frame_digests("-rtsp_transport", transport, "-i", host.url(), "-t", "5")
                    self.assertGreater(len(digests[0]), 100)
                    self.assertTrue(is_run_of_loop(digests[0], self.pictures))
                    self.assertGreater(len(digests[1]), 100)

    def test_jpeg_pictures_arrive_bit_exactly(self):
        with Host() as host:
            for transport in ("tcp", "udp"):
                with self.subTest(transport=transport):
                    digests = frame_digests("-rtsp_transport", transport, "-i", host.url(support.JPEG), "-t", "2")
                    self.assertGreater(len(digests[0]), 40)
                    self.assertTrue(is_run_of_loop(digests[0], self.jpegs))

    def test_time_stamps_rise_evenly(self):
        # Up to the first sender reports, with which the player sets its clock anew.
        with Host() as host:
            _, text, _ = run("ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-read_intervals", "%+4",
                             "-show_entries", "packet=stream_index,pts_time", "-of", "csv=p=0", host.url())
        times = {0: [], 1: []}
        for line in text.splitlines():
            fields = line.split(",")
            if len(fields) > 1 and fields[1] not in ("", "N/A"):
                times[int(fields[0])].append(float(fields[1]))
        for stream, step in ((0, 0.040), (1, 0.040)):
            steps = [b - a for a, b in zip(times[stream], times[stream][1:])]
            self.assertGreater(len(steps), 60)
            self.assertLess(max(abs(s - step) for s in steps), 0.0025, (stream, steps))

    def test_recording_plays_to_its_end(self):
        with Host() as host:
            for transport in ("tcp", "udp"):
                digests = frame_digests("-rtsp_transport", transport, "-i", host.url("1_0_clip.kav"))
                self.assertEqual(digests[0], self.pictures, transport)
            content = "cam/playback?channel=1&subtype=0&starttime=2020_09_13_12_26_40"
            digests = frame_digests("-rtsp_transport", "tcp", "-i", host.url(content), "-t", "2")
            self.assertTrue(is_run_of_loop(digests[0], self.pictures))

    def test_transport_stream_over_udp(self):
        # The private way to ask for it is MP2T in the Transport header; FFmpeg does so for payload type 33 only.
        with Host() as host:
            peer = Rtsp(host.port)
            url = host.url()
            self.assertEqual(peer.ask("DESCRIBE", url, "Accept: application/sdp")[0], 200)
            peer.close()


class Reports(unittest.TestCase):
    def test_sender_reports_relate_sound_to_pictures(self):
        with Host("--timeout", "60") as host:
            peer = Rtsp(host.port)
            status, headers, sdp = peer.ask("DESCRIBE", host.url(), "Accept: application/sdp")
            self.assertEqual(status, 200)
            base = headers.get("content-base", host.url() + "/")
            controls = re.findall(r"a=control:(\S+)", sdp.split("m=", 1)[1])
            for i, control in enumerate(controls[:2]):
                url = control if control.startswith("rtsp:") else base.rstrip("/") + "/" + control
                status, _, _ = peer.ask("SETUP", url, f"Transport: RTP/AVP/TCP;unicast;interleaved={2 * i}-{2 * i + 1}")
                self.assertEqual(status, 200)
            self.assertEqual(peer.ask("PLAY", host.url(), "Range: npt=0-")[0], 200)
            first, reports = {}, {}
            end = time.monotonic() + 30
            while len(reports) < 2 and time.monotonic() < end:
                channel, data = peer.frame()
                if channel in (0, 2):
                    first.setdefault(channel, int.from_bytes(data[4:8], "big"))
                elif channel in (1, 3) and data[1] == 200:
                    reports[channel - 1] = (int.from_bytes(data[8:12], "big"), int.from_bytes(data[16:20], "big"))
            peer.close()
        self.assertEqual(set(reports), {0, 2})
        # Both clocks have run equally long since the first packets.
        video = (reports[0][1] - first[0]) % 2**32 / 90000 - reports[0][0]
        audio = (reports[2][1] - first[2]) % 2**32 / 8000 - reports[2][0]
        self.assertLess(abs(video - audio), 1.5)


class Login(unittest.TestCase):
    def test_right_password_plays_and_wrong_one_gets_401_each_time(self):
        with Host("--user", "admin:secret", "--user", "guest:") as host:
            digests = frame_digests("-rtsp_transport", "tcp", "-i", host.url(user="admin:secret"), "-t", "1")
            self.assertGreater(len(digests[0]), 10)
            for user in ("admin:wrong", "nobody:secret", None):
                code, _, errors = run("ffprobe", "-v", "error", "-rtsp_transport", "tcp", host.url(user=user), check=False)
                self.assertNotEqual(code, 0)
                self.assertIn("401", errors)

    def test_every_answer_is_judged_afresh(self):
        with Host("--user", "admin:secret") as host:
            peer = Rtsp(host.port)
            status, headers, _ = peer.ask("DESCRIBE", host.url())
            self.assertEqual(status, 401)
            challenge = headers["www-authenticate"]
            for _ in range(3):
                wrong = digest_header("admin", "wrong", "DESCRIBE", host.url(), challenge)
                self.assertEqual(peer.ask("DESCRIBE", host.url(), f"Authorization: {wrong}")[0], 401)
            right = digest_header("admin", "secret", "DESCRIBE", host.url(), challenge)
            self.assertEqual(peer.ask("DESCRIBE", host.url(), f"Authorization: {right}")[0], 200)
            peer.close()
            # A nonce that was made up, and Basic.
            peer = Rtsp(host.port)
            peer.ask("DESCRIBE", host.url())
            forged = digest_header("admin", "secret", "DESCRIBE", host.url(), 'realm="Vidora" nonce="00000000' + "0" * 32 + '"')
            self.assertEqual(peer.ask("DESCRIBE", host.url(), f"Authorization: {forged}")[0], 401)
            self.assertEqual(peer.ask("DESCRIBE", host.url(), "Authorization: Basic YWRtaW46c2VjcmV0")[0], 200)
            peer.close()

    def test_expired_nonce_is_refused(self):
        with Host("--user", "admin:secret", "--nonce-lifetime", "1") as host:
            peer = Rtsp(host.port)
            _, headers, _ = peer.ask("DESCRIBE", host.url())
            time.sleep(2.5)  # the nonce's own time, in whole seconds
            late = digest_header("admin", "secret", "DESCRIBE", host.url(), headers["www-authenticate"])
            self.assertEqual(peer.ask("DESCRIBE", host.url(), f"Authorization: {late}")[0], 401)
            peer.close()


class Ending(unittest.TestCase):
    def test_signals_end_the_host_with_clients_playing(self):
        for how in (signal.SIGINT, signal.SIGTERM):
            host = Host("--stats", "1", "--json")
            peer = Rtsp(host.port)
            _, headers, sdp = peer.ask("DESCRIBE", host.url(), "Accept: application/sdp")
            control = re.findall(r"a=control:(\S+)", sdp.split("m=", 1)[1])[0]
            base = headers.get("content-base", host.url() + "/")
            peer.ask("SETUP", base.rstrip("/") + "/" + control, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1")
            self.assertEqual(peer.ask("PLAY", host.url())[0], 200)
            peer.frame()
            host.wait_for_line(r'"sessions":1')
            self.assertEqual(host.stop(how), 0, host.lines)
            self.assertTrue(any('"event":"connect"' in line for line in host.lines), host.lines)
            self.assertFalse(any("LeakSanitizer" in line for line in host.lines), host.lines)
            peer.close()

    def test_players_that_are_killed_leave_nothing_behind(self):
        def players(count):
            started = []
            for i in range(count):
                started.append(subprocess.Popen(["ffmpeg", "-nostdin", "-loglevel", "quiet", "-rtsp_transport",
                                                 ("tcp", "udp")[i % 2], "-i", host.url(), "-c", "copy", "-f", "null",
                                                 "-"]))
                self.addCleanup(started[-1].wait)
                self.addCleanup(started[-1].kill)
            return started

        host = Host("--stats", "1", "--json", "--timeout", "2")
        killed = players(8)
        host.wait_for_line(r'"sessions":8\b')
        for player in killed:
            player.kill()
        host.lines.clear()
        host.wait_for_line(r'"sessions":0\b')
        # The others play while the host ends.
        players(20)
        host.wait_for_line(r'"sessions":20\b', 60)
        self.assertEqual(host.stop(), 0, host.lines)
        self.assertFalse([line for line in host.lines if "Sanitizer" in line or "runtime error" in line], host.lines)

    def test_what_cannot_be_sent_is_refused_with_a_reason(self):
        code, _, errors = run(support.HOST, "--live", f"a?channel=1&subtype=0={support.MEDIA}/none.h264", check=False)
        self.assertEqual(code, 1)
        self.assertIn("none.h264: cannot be read", errors)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = f"{folder.name}/several_slices.h264"
        run("ffmpeg", "-y", "-loglevel", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:duration=0.2", "-c:v",
            "libx264", "-bf", "0", "-x264-params", "slices=4", "-f", "h264", path)
        code, _, errors = run(support.HOST, "--live", f"a={path}", check=False)
        self.assertEqual(code, 1)
        self.assertIn("several slices", errors)
        self.assertEqual(run(support.HOST, "--live", "nothing", check=False)[0], 105)


if __name__ == "__main__":
    support.HOST, support.MEDIA = sys.argv[1:3]
    del sys.argv[1:3]
    unittest.main(verbosity=2)
