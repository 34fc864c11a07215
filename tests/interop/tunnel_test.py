#!/usr/bin/env python3
"""vidora-host with players that tunnel RTSP through HTTP: tunnel_test.py HOST MEDIA [unittest arguments]."""
import unittest

from gst_test import Gst, Player
from host_support import MEDIA, Host, is_run_of_loop, main
from peers import frame_digests, outcome

TUNNEL = ("-rtsp_transport", "http")


class FFmpeg(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pictures = frame_digests("-i", f"{MEDIA}/clip.h264")[0]

    def check(self, host, user=None):
        digests = frame_digests(*TUNNEL, "-i", host.url(user=user), "-t", "3")
        self.assertGreater(len(digests[0]), 40)
        self.assertGreater(len(digests[1]), 40)
        self.assertTrue(is_run_of_loop(digests[0], self.pictures))
        # The end of the GET's reply, which has no length, is an error to this player.
        digests = frame_digests(*TUNNEL, "-i", host.url("1_0_clip.kav", user), joins=True)
        self.assertEqual(digests[0], self.pictures)

    def test_live_and_recording(self):
        with Host() as host:
            self.check(host)

    def test_live_and_recording_with_digest(self):
        with Host("--user", "admin:secret") as host:
            self.check(host, "admin:secret")
            code, _, errors = outcome("ffprobe", "-v", "error", *TUNNEL, host.url(user="admin:wrong"))
            self.assertNotEqual(code, 0)
            self.assertIn("401", errors)


class GStreamer(unittest.TestCase):
    def check(self, host, *login):
        # The tunnel is asked for by the scheme; in it media are interleaved.
        for url, least in ((host.url(), 75), (host.url("1_0_clip.kav"), 60)):
            with Player(url.replace("rtsp:", "rtsph:"), "tcp", *login) as player:
                player.wait_for_pictures(least)

    def test_live_and_recording(self):
        with Host() as host:
            self.check(host)

    def test_live_and_recording_with_digest(self):
        with Host("--user", "admin:secret") as host:
            self.check(host, "user-id=admin user-pw=secret")


if __name__ == "__main__":
    Gst.init(None)
    main()
