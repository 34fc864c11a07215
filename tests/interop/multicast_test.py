#!/usr/bin/env python3
"""Multicast of vidora-host, read by FFmpeg in a network namespace of its own: multicast_test.py HOST MEDIA."""
import os
import subprocess
import sys
import unittest

import host_support as support
from host_support import Host, frame_digests, is_run_of_loop


class Multicast(unittest.TestCase):
    def test_rtp_and_transport_stream_reach_the_group(self):
        pictures = frame_digests("-i", f"{support.MEDIA}/clip.h264")[0]
        for kind in ("rtp", "ts"):
            with self.subTest(kind=kind):
                options = ["--live", f"{support.LIVE}={support.MEDIA}/clip.h264,{support.MEDIA}/clip.alaw",
                           "--multicast", f"{support.LIVE}=239.1.2.3:30000,{kind}", "--multicast-if", "127.0.0.1"]
                with Host(*options, live=False) as host:
                    digests = frame_digests("-rtsp_transport", "udp_multicast", "-i", host.url(), "-map", "0:v", "-t", "4")
                    self.assertGreater(len(digests[0]), 60)
                    self.assertTrue(is_run_of_loop(digests[0][5:], pictures))


if __name__ == "__main__":
    support.HOST, support.MEDIA = sys.argv[1:3]
    if os.environ.get("VIDORA_IN_NAMESPACE") != "1":
        environment = dict(os.environ, VIDORA_IN_NAMESPACE="1")
        os.execvpe("unshare", ["unshare", "-n", sys.executable] + sys.argv, environment)
    for command in ("ip link set lo up multicast on", "ip route add 224.0.0.0/4 dev lo"):
        subprocess.run(command.split(), check=True)
    del sys.argv[1:3]
    unittest.main(verbosity=2)
