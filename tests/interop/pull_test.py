#!/usr/bin/env python3
"""vidora-pull against vidora-host, in a network namespace of its own: pull_test.py HOST MEDIA PULL [unittest arguments]."""
import contextlib
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import unittest

from peers import Folder, frame_digests, free_port, in_namespace_of_its_own, outcome, read_file, wait_for

PULL = sys.argv.pop(3)

from host_support import HOST, JPEG, LIVE, MEDIA, Host, is_run_of_loop, main  # noqa: E402
from streams import jpeg_images  # noqa: E402

RECORDING = "1_0_clip.kav"


def pull(url, *options):
    """The exit code and the summary; nothing else may come."""
    code, output, errors = outcome(PULL, url, "--json", "--log", "error", *options)
    assert output.count(b"\n") == 1 and "Sanitizer" not in errors, (code, output, errors)
    summary = json.loads(output)
    return code, summary, errors


def nal_units(stream):
    return [unit.rstrip(b"\0") for unit in stream.split(b"\0\0\1")[1:]]


class Pulling(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(Folder())

    def check_pull(self, url, *options, pictures=50):
        code, summary, errors = pull(url, *options)
        self.assertEqual((code, summary["failure"], summary["lost"]), (0, None, 0), (summary, errors))
        frames = summary["frames"]
        self.assertGreaterEqual(sum(frames.get(letter, 0) for letter in "IPBJ"), pictures, summary)
        self.assertGreaterEqual(summary["first_frame_ms"], 0)
        self.assertGreater(summary["bytes"], 10000)
        return summary

    def check_h264(self, path, least):
        """Every picture of the file decodes, and its NAL units are those of the clip."""
        digests = frame_digests("-i", path)[0]
        self.assertGreater(len(digests), least)
        self.assertTrue(is_run_of_loop(digests, frame_digests("-i", f"{MEDIA}/clip.h264")[0]))
        source = set(nal_units(read_file(f"{MEDIA}/clip.h264")))
        self.assertFalse([unit[:8] for unit in nal_units(read_file(path)) if unit not in source])

    def test_live_by_every_road(self):
        path = self.folder("out.h264")
        with Host() as host:
            for options in (("--kind", "rtp"), ("--transport", "udp"), ("--kind", "kx")):
                with self.subTest(options=options):
                    summary = self.check_pull(host.url(), "--seconds", "4", "--out", path, *options)
                    self.assertGreater(summary["frames"]["A"], 50)
                    self.assertIn("I", summary["frames"])
                    self.check_h264(path, 60)

    def test_multicast(self):
        path = self.folder("out.h264")
        with Host("--multicast", f"{LIVE}=239.1.2.3:30000,rtp", "--multicast-if", "127.0.0.1") as host:
            self.check_pull(host.url(), "--transport", "multicast", "--seconds", "4", "--out", path)
            self.check_h264(path, 50)

    def test_sound_and_jpeg_files_hold_what_was_sent(self):
        sound, images = self.folder("out.alaw"), self.folder("out.mjpeg")
        with Host() as host:
            self.check_pull(host.url(RECORDING), "--out", sound)
            self.check_pull(host.url(JPEG), "--seconds", "3", "--out", images)
        self.assertTrue(read_file(f"{MEDIA}/clip.alaw").startswith(read_file(sound)))
        self.assertGreater(os.path.getsize(sound), 25000)
        # The headers are made anew from what RTP carries.
        decoded = frame_digests("-i", images)[0]
        self.assertTrue(is_run_of_loop(decoded, frame_digests("-i", f"{MEDIA}/clip.mjpeg")[0]))
        self.assertEqual(len(decoded), len(jpeg_images(read_file(images))))

    def test_recording_is_stored_and_served_again(self):
        for kind in ("rtp", "kx"):
            with self.subTest(kind=kind):
                with Host() as host:
                    self.check_pull(host.url(RECORDING), "--kind", kind, "--out", self.folder("2_0_copy.kav"),
                                    pictures=100)
                with Host(recordings=self.folder.name) as host:
                    digests = frame_digests("-rtsp_transport", "tcp", "-i", host.url("2_0_copy.kav"))
                    self.assertEqual(digests[0], frame_digests("-i", f"{MEDIA}/clip.h264")[0])
                    self.assertGreater(len(digests[1]), 80)

    def test_parts_and_rates_of_a_recording(self):
        with Host() as host:
            url = host.url(RECORDING)
            whole = self.check_pull(url, pictures=100)["frames"]
            for options, least, most in ((("--start", "2"), 20, 60), (("--end", "2"), 20, 80),
                                         (("--speed", "2"), 100, 100)):
                frames = self.check_pull(url, *options, pictures=least)["frames"]
                self.assertLessEqual(frames["I"] + frames["P"], most, options)
            for options in (("--speed", "8"), ("--start", "0", "--end", "3", "--speed", "-1")):  # key frames only
                frames = self.check_pull(url, *options, pictures=2)["frames"]
                self.assertEqual(list(frames), ["I"], options)
                self.assertLessEqual(frames["I"], whole["I"])

    def test_signal_ends_in_order(self):
        with Host() as host:
            puller = subprocess.Popen([PULL, host.url(), "--json"], stdout=subprocess.PIPE)
            host.wait_for_line("connect, peer")
            wait_for(lambda: os.path.exists(f"/proc/{puller.pid}/task") and len(host.lines) > 1, "it runs")
            with socket.create_connection(("127.0.0.1", host.port)):
                self.check_pull(host.url(), "--seconds", "2", pictures=30)  # the other one has run as long
            puller.send_signal(signal.SIGINT)
            output = puller.communicate(timeout=30)[0]
            self.assertEqual(puller.returncode, 0, output)
            self.assertGreater(json.loads(output)["frames"]["P"], 10)
            host.wait_for_line("disconnect, peer")


class Failing(unittest.TestCase):
    def check_failure(self, words, url, *options):
        code, summary, errors = pull(url, *options)
        self.assertEqual(code, 1)
        self.assertIn(words, summary["failure"] or "", errors)
        return summary

    def test_login(self):
        with Host("--user", "admin:secret") as host:
            for url, options in ((host.url(user="admin:secret"), ()),
                                 (host.url(), ("--user", "admin", "--password", "secret"))):
                code, summary, _ = pull(url, "--seconds", "1", *options)
                self.assertEqual((code, summary["failure"]), (0, None))
            for user in ("admin:wrong", "nobody:secret", None):
                self.check_failure("unauthorised", host.url(user=user))

    def test_what_failed_is_told_in_words(self):
        with Host() as host:
            self.check_failure("not found", host.url("none.kav"))
            self.check_failure("no JPEG pictures", host.url(), "--out", "/tmp/never.mjpeg")
            self.check_failure("cannot be written", host.url(), "--out", "/nonexistent/a.kav")
            self.check_failure("is no .kav", host.url(), "--out", "a.mp4")
        self.check_failure("refused", f"rtsp://127.0.0.1:{free_port()}/a")
        self.check_failure("no address", "rtsp://no.such.host.invalid/a")
        self.check_failure("no RTSP URL", "http://127.0.0.1/")

    def test_silent_servers(self):
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen()
            self.check_failure("timed out", f"rtsp://127.0.0.1:{listener.getsockname()[1]}/a")
        with Host() as host:
            for transport in ("tcp", "udp"):
                puller = subprocess.Popen([PULL, host.url(), "--transport", transport, "--idle-timeout", "2", "--json"],
                                          stdout=subprocess.PIPE)
                host.wait_for_line("connect, peer")
                host.lines.clear()
                self.addCleanup(host.process.send_signal, signal.SIGCONT)
                pull(host.url(), "--seconds", "1")  # the other one plays as well
                host.process.send_signal(signal.SIGSTOP)
                output = puller.communicate(timeout=60)[0]
                host.process.send_signal(signal.SIGCONT)
                self.assertIn("idle", json.loads(output)["failure"])
                self.assertEqual(puller.returncode, 1)


class Camera(threading.Thread):
    """A server with a loudspeaker and nothing else: keeps the datagrams that reach the port of its back channel."""

    SDP = ("v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\na=control:*\r\n"
           "m=video 0 RTP/AVP 26\r\na=control:track0\r\n"
           "m=audio 0 RTP/AVP 8\r\na=control:track1\r\na=sendonly\r\n")

    def __init__(self):
        super().__init__(daemon=True)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.speaker.bind(("127.0.0.1", 0))
        self.url = f"rtsp://127.0.0.1:{self.listener.getsockname()[1]}/camera"
        self.requests = []

    def run(self):
        connection = self.listener.accept()[0]
        with contextlib.suppress(ConnectionError), connection, connection.makefile("r", newline="\r\n") as text:
            for line in text:
                head = [line] + list(iter(text.readline, "\r\n"))
                self.requests.append("".join(head))
                connection.sendall(self.reply(head).encode())

    def reply(self, head):
        extra, body = "", ""
        if head[0].startswith("DESCRIBE"):
            body = self.SDP
            extra = f"Content-Type: application/sdp\r\nContent-Length: {len(body)}\r\n"
        if head[0].startswith("SETUP"):
            transport = next(line for line in head if line.startswith("Transport:")).strip()
            port = self.speaker.getsockname()[1]
            extra = f"{transport};server_port={port}-{port + 1}\r\n"
        cseq = next(line for line in head if line.startswith("CSeq:"))
        return f"RTSP/1.0 200 OK\r\n{cseq}Session: 1\r\n{extra}\r\n{body}"


class BackChannel(unittest.TestCase):
    def test_file_reaches_the_loudspeaker(self):
        sound = read_file(f"{MEDIA}/clip.alaw")[:4000]
        camera = Camera()
        camera.start()
        camera.speaker.settimeout(30)
        with Folder() as folder:
            puller = subprocess.Popen([PULL, camera.url, "--transport", "udp", "--back-channel",
                                       folder.write("a.alaw", sound), "--json"], stdout=subprocess.PIPE)
            heard = b""
            while len(heard) < len(sound):
                packet = camera.speaker.recv(2048)
                if packet[1] & 0x7F == 8:  # A-law; reports come to the same port
                    heard += packet[12:]
            puller.send_signal(signal.SIGTERM)
            summary = json.loads(puller.communicate(timeout=30)[0])
        self.assertEqual(heard, sound)
        asked = next(request for request in camera.requests if request.startswith("DESCRIBE"))
        self.assertIn("Require: www.onvif.org/ver20/backchannel", asked)
        self.assertEqual((puller.returncode, summary["failure"]), (1, "no media came"))


if __name__ == "__main__":
    in_namespace_of_its_own(sys.argv[:3] + [PULL] + sys.argv[3:])
    main()
