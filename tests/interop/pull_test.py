#!/usr/bin/env python3
"""vidora-pull against vidora-host and GStreamer's RTSP server: pull_test.py HOST MEDIA PULL [unittest arguments]."""
import contextlib
import json
import os
import signal
import socket
import subprocess
import threading

from pulling import PULL, GstServer, PullTest, nal_units
from gst_server import PASSWORD, USER
from host_support import JPEG, MEDIA, Host, is_run_of_loop, main
from peers import Folder, frame_digests, free_port, read_file, wait_for
from streams import jpeg_images

RECORDING = "1_0_clip.kav"
CLIP = f"{MEDIA}/clip.h264"
LOGIN = ("--user", USER, "--password", PASSWORD)
# Parameter sets, which both ends repeat, and delimiters, which the server adds.
NOT_PICTURES = (7, 8, 9)


class FromTheHost(PullTest):
    def setUp(self):
        self.folder = self.enterContext(Folder())
        self.host = self.enterContext(Host())

    def test_live_by_every_road(self):
        path = self.folder("out.h264")
        for options in (("--kind", "rtp"), ("--transport", "udp"), ("--kind", "kx")):
            with self.subTest(options=options):
                frames = self.check_pull(self.host.url(), "--seconds", "4", "--out", path, *options)
                self.assertGreater(frames["A"], 50)
                # Every picture of the file decodes, and its NAL units are those of the clip.
                digests = frame_digests("-i", path)[0]
                self.assertGreater(len(digests), 60)
                self.assertTrue(is_run_of_loop(digests, frame_digests("-i", CLIP)[0]))
                self.assertFalse([unit[:8] for unit in set(nal_units(path)) - set(nal_units(CLIP))])

    def test_sound_and_jpeg_files_hold_what_was_sent(self):
        sound, images = self.folder("out.alaw"), self.folder("out.mjpeg")
        self.check_pull(self.host.url(RECORDING), "--out", sound)
        self.check_pull(self.host.url(JPEG), "--seconds", "3", "--out", images, letters="J")
        self.assertTrue(read_file(f"{MEDIA}/clip.alaw").startswith(read_file(sound)))
        self.assertGreater(os.path.getsize(sound), 25000)
        # The headers are made anew from what RTP carries.
        decoded = frame_digests("-i", images)[0]
        self.assertTrue(is_run_of_loop(decoded, frame_digests("-i", f"{MEDIA}/clip.mjpeg")[0]))
        self.assertEqual(len(decoded), len(jpeg_images(read_file(images))))

    def test_recording_is_stored_and_served_again(self):
        for kind in ("rtp", "kx"):
            copy = f"2_0_{kind}.kav"
            self.check_pull(self.host.url(RECORDING), "--kind", kind, "--out", self.folder(copy), pictures=100)
            with self.subTest(kind=kind), Host(recordings=self.folder.name) as again:
                digests = frame_digests("-rtsp_transport", "tcp", "-i", again.url(copy))
                self.assertEqual(digests[0], frame_digests("-i", CLIP)[0])
                self.assertGreater(len(digests[1]), 80)

    def test_parts_and_rates_of_a_recording(self):
        url = self.host.url(RECORDING)
        whole = self.check_pull(url, pictures=100)
        for options, least, most in ((("--start", "2"), 20, 60), (("--end", "2"), 20, 80), (("--speed", "2"), 100, 100)):
            frames = self.check_pull(url, *options, pictures=least)
            self.assertLessEqual(frames["I"] + frames["P"], most, options)
        for options in (("--speed", "8"), ("--start", "0", "--end", "3", "--speed", "-1")):  # key frames only
            frames = self.check_pull(url, *options, pictures=2)
            self.assertEqual(list(frames), ["I"], options)
            self.assertLessEqual(frames["I"], whole["I"])

    def test_signal_ends_in_order(self):
        puller = subprocess.Popen([PULL, self.host.url(), "--json"], stdout=subprocess.PIPE)
        self.host.wait_for_line("connect, peer")
        wait_for(lambda: os.path.exists(f"/proc/{puller.pid}/task") and len(self.host.lines) > 1, "it runs")
        self.check_pull(self.host.url(), "--seconds", "2", pictures=30)  # the other one has run as long
        puller.send_signal(signal.SIGINT)
        output = puller.communicate(timeout=30)[0]
        self.assertEqual(puller.returncode, 0, output)
        self.assertGreater(json.loads(output)["frames"]["P"], 10)
        self.host.wait_for_line("disconnect, peer")


class FromGStreamer(PullTest):
    def test_every_codec_by_tcp_and_udp(self):
        with Folder() as folder, GstServer(MEDIA) as server:
            path = folder("out.h264")
            for words in (("--transport", "tcp"), ("--transport", "udp")):
                # The last picture of MPEG-4 has no mark that it is over.
                for name, options, pictures, letters in (("h264", ("--out", path), 100, "IP"), ("mpeg4", (), 99, "IP"),
                                                         ("jpeg", ("--seconds", "2"), 1, "J"),
                                                         ("both", ("--seconds", "2"), 1, "IPA")):
                    with self.subTest(words=words, name=name):
                        self.check_pull(f"rtsp://127.0.0.1:{server.port}/{name}", *words, *options, pictures=pictures,
                                        letters=letters)
                # What was pulled to the end is the clip, picture by picture and byte by byte.
                self.assertTrue(nal_units(path, NOT_PICTURES) == nal_units(CLIP, NOT_PICTURES))
                self.assertEqual(frame_digests("-i", path), frame_digests("-i", CLIP))

    def test_passwords(self):
        for kind in ("basic", "digest"):
            with self.subTest(kind=kind), GstServer(MEDIA, "--auth", kind) as server:
                url = f"rtsp://127.0.0.1:{server.port}/h264"
                self.check_pull(url, *LOGIN, pictures=100)
                self.check_failure("unauthorised", url)
                self.check_failure("unauthorised", url, "--user", USER, "--password", "no")
                self.check_failure("not found", f"{url}/none", *LOGIN)

    def test_receiver_reports(self):
        """RFC 3550 6.4.1: the reports name the last sender report, so that the server measures its way there and back."""
        with GstServer(MEDIA) as server:
            self.check_pull(f"rtsp://127.0.0.1:{server.port}/both", "--transport", "udp", "--seconds", "12",
                            letters="IPA")
            reports = server.end()
        answers = [report for report in reports if report["lsr"]]
        self.assertTrue(answers, reports)
        for report in answers:
            self.assertEqual((report["fraction"], report["lost"]), (0, 0))
            self.assertGreater(report["dlsr"], 0)
            self.assertLess(report["round_trip"], 65536)


class Failing(PullTest):
    def test_what_failed_is_told_in_words(self):
        with Host() as host, socket.create_server(("127.0.0.1", 0)) as silent:
            for words, url, *options in (
                    ("not found", host.url("none.kav")),
                    ("no JPEG pictures", host.url(), "--out", "/tmp/never.mjpeg"),
                    ("cannot be written", host.url(), "--out", "/nonexistent/a.kav"),
                    ("is no .kav", host.url(), "--out", "a.mp4"),
                    ("refused", f"rtsp://127.0.0.1:{free_port()}/a"),
                    ("no address", "rtsp://no.such.host.invalid/a"),
                    ("no RTSP URL", "http://127.0.0.1/"),
                    ("timed out", f"rtsp://127.0.0.1:{silent.getsockname()[1]}/a")):
                with self.subTest(words=words):
                    self.check_failure(words, url, *options)

    def test_servers_that_fall_silent(self):
        with Host() as host:
            self.addCleanup(host.process.send_signal, signal.SIGCONT)
            for transport in ("tcp", "udp"):
                puller = subprocess.Popen([PULL, host.url(), "--transport", transport, "--idle-timeout", "2", "--json"],
                                          stdout=subprocess.PIPE)
                host.wait_for_line("connect, peer")
                host.lines.clear()
                self.pull(host.url(), "--seconds", "1")  # the other one plays as well
                host.process.send_signal(signal.SIGSTOP)
                output = puller.communicate(timeout=60)[0]
                host.process.send_signal(signal.SIGCONT)
                self.assertIn("idle", json.loads(output)["failure"])
                self.assertEqual(puller.returncode, 1)


CAMERA_SDP = ("v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\na=control:*\r\n"
              "m=video 0 RTP/AVP 26\r\na=control:track0\r\nm=audio 0 RTP/AVP 8\r\na=control:track1\r\na=sendonly\r\n")


def serve_camera(listener, speaker_port, requests):
    """Answers one client as a camera with a loudspeaker and nothing else."""
    connection = listener.accept()[0]
    with contextlib.suppress(ConnectionError), connection, connection.makefile("r", newline="\r\n") as text:
        for line in text:
            head = {name: rest for name, _, rest in (header.partition(":") for header in iter(text.readline, "\r\n"))}
            requests.append((line.split()[0], head))
            extra, body = "", ""
            if line.startswith("DESCRIBE"):
                body = CAMERA_SDP
                extra = f"Content-Type: application/sdp\r\nContent-Length: {len(body)}\r\n"
            if line.startswith("SETUP"):
                extra = f"Transport:{head['Transport'].rstrip()};server_port={speaker_port}-{speaker_port + 1}\r\n"
            connection.sendall(f"RTSP/1.0 200 OK\r\nCSeq:{head['CSeq']}Session: 1\r\n{extra}\r\n{body}".encode())


class BackChannel(PullTest):
    def test_file_reaches_the_loudspeaker(self):
        sound = read_file(f"{MEDIA}/clip.alaw")[:4000]
        requests = []
        with Folder() as folder, socket.create_server(("127.0.0.1", 0)) as listener, \
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as speaker:
            speaker.bind(("127.0.0.1", 0))
            speaker.settimeout(30)
            threading.Thread(target=serve_camera, args=(listener, speaker.getsockname()[1], requests),
                             daemon=True).start()
            puller = subprocess.Popen([PULL, f"rtsp://127.0.0.1:{listener.getsockname()[1]}/camera", "--transport",
                                       "udp", "--back-channel", folder.write("a.alaw", sound), "--json"],
                                      stdout=subprocess.PIPE)
            heard = b""
            while len(heard) < len(sound):
                packet = speaker.recv(2048)
                if packet[1] & 0x7F == 8:  # A-law; reports come to the same port
                    heard += packet[12:]
            puller.send_signal(signal.SIGTERM)
            summary = json.loads(puller.communicate(timeout=30)[0])
        self.assertEqual(heard, sound)
        self.assertEqual(dict(requests)["DESCRIBE"]["Require"].strip(), "www.onvif.org/ver20/backchannel")
        self.assertEqual((puller.returncode, summary["failure"]), (1, "no media came"))


if __name__ == "__main__":
    main()
