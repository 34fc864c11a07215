#!/usr/bin/env python3
"""Multicast of vidora-host, read by FFmpeg in a network namespace of its own: multicast_test.py HOST MEDIA."""
import sys
import unittest

from host_support import LIVE, MEDIA, Host, is_run_of_loop, main
from peers import frame_digests, in_namespace_of_its_own


class Multicast(unittest.TestCase):
    def check(self, kind, *source):
        pictures = frame_digests("-i", f"{MEDIA}/clip.h264")[0]
        options = ["--live", f"{LIVE}={MEDIA}/clip.h264,{MEDIA}/clip.alaw",
                   "--multicast", f"{LIVE}=239.1.2.3:30000,{kind}", "--multicast-if", "127.0.0.1"]
        with Host(*options, live=False) as host:
            digests = frame_digests(*(source or ("-rtsp_transport", "udp_multicast", "-i", host.url())), "-map", "0:v",
                                    "-t", "4", joins=kind == "ts")
        self.assertGreater(len(digests[0]), 60)
        self.assertTrue(is_run_of_loop(digests[0][5:], pictures))

    def test_rtp_by_its_description(self):
        self.check("rtp")

    def test_transport_stream_in_bare_datagrams(self):
        self.check("ts", "-i", "udp://239.1.2.3:30000?localaddr=127.0.0.1")


if __name__ == "__main__":
    in_namespace_of_its_own(sys.argv)
    main()
