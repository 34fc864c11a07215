#!/usr/bin/env python3
"""The example multicast client in a network namespace of its own, reading from vidora-host and FFmpeg:
multicast_client_test.py HOST MEDIA CLIENT."""
import subprocess
import sys
import unittest

from host_support import LIVE, MEDIA, Host, main
from peers import in_namespace_of_its_own, outcome

ARGUMENTS = list(sys.argv)
CLIENT = sys.argv.pop(3)
GROUP, PORT = "239.1.2.3", 30000


class MulticastClient(unittest.TestCase):
    def check(self, kind):
        code, text, errors = outcome(CLIENT, GROUP, str(PORT), kind, "60")
        self.assertEqual(code, 0, errors)
        lines = text.decode().splitlines()
        self.assertEqual(len(lines), 60)
        for line in lines:
            self.assertRegex(line, "^type f[bcd], [1-9][0-9]* bytes$")
        self.assertGreater(len({line.split()[1] for line in lines}), 1)  # key frames and others

    def check_host(self, kind):
        with Host("--live", f"{LIVE}={MEDIA}/clip.h264,{MEDIA}/clip.alaw", "--multicast",
                  f"{LIVE}={GROUP}:{PORT},{kind}", "--multicast-if", "127.0.0.1", live=False):
            self.check(kind)

    def test_rtp_of_the_host(self):
        self.check_host("rtp")

    def test_transport_stream_of_the_host(self):
        self.check_host("ts")

    def test_transport_stream_of_ffmpeg(self):
        sender = subprocess.Popen(["ffmpeg", "-nostdin", "-v", "error", "-re", "-stream_loop", "-1", "-i",
                                   f"{MEDIA}/clip.h264", "-c", "copy", "-f", "mpegts",
                                   f"udp://{GROUP}:{PORT}?pkt_size=1316&localaddr=127.0.0.1"])
        try:
            self.check("ts")
        finally:
            sender.terminate()
            sender.wait(30)


if __name__ == "__main__":
    in_namespace_of_its_own(ARGUMENTS)
    main()
