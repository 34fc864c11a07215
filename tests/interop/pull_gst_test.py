#!/usr/bin/env python3
"""vidora-pull against GStreamer's RTSP server: pull_gst_test.py MEDIA PULL [unittest arguments]."""
import json
import os
import subprocess
import sys
import unittest

from gst_server import PASSWORD, USER
from peers import Folder, frame_digests, free_udp_ports, outcome, read_file, run

MEDIA, PULL = sys.argv[1:3]
HERE = os.path.dirname(os.path.abspath(__file__))
LOGIN = ("--user", USER, "--password", PASSWORD)
# The server binds its groups' ports for itself alone, so that a receiver needs a host of its own.
SERVER, VIEWER = (f"vidora{os.getpid()}{side}" for side in "gw")
ADDRESS = {SERVER: "10.92.0.1", VIEWER: "10.92.0.2"}
# ISO 14496-10 table 7-1: parameter sets, which both ends repeat, and delimiters, which the server adds.
NOT_PICTURES = (7, 8, 9)


class Server:
    def __init__(self, *options, inside=()):
        self.process = subprocess.Popen([*inside, sys.executable, f"{HERE}/gst_server.py", MEDIA, *options],
                                        stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        """Ends the server; what its clients' reports told it."""
        self.process.terminate()
        lines = self.process.communicate(timeout=30)[0].splitlines()
        return [json.loads(line) for line in lines]


def pull(url, *options, inside=()):
    code, output, errors = outcome(*inside, PULL, url, "--json", "--log", "error", *options)
    return code, json.loads(output), errors


def nal_units(path):
    units = (unit.rstrip(b"\0") for unit in read_file(path).split(b"\0\0\1")[1:])
    return [unit for unit in units if unit[0] & 31 not in NOT_PICTURES]


class Pulling(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(Folder())

    def check_pull(self, url, *options, inside=(), least=0, letters="IP"):
        code, summary, errors = pull(url, *options, inside=inside)
        self.assertEqual((code, summary["failure"], summary["lost"]), (0, None, 0), errors)
        for letter in letters:
            self.assertGreater(summary["frames"].get(letter, 0), 0, summary)
        self.assertGreaterEqual(sum(summary["frames"].values()), least, summary)

    def check_file(self, path):
        """What was pulled to the end is the clip, picture by picture and byte by byte."""
        self.assertTrue(nal_units(path) == nal_units(f"{MEDIA}/clip.h264"))
        self.assertEqual(frame_digests("-i", path), frame_digests("-i", f"{MEDIA}/clip.h264"))

    def test_every_codec_by_tcp_and_udp(self):
        path = self.folder("out.h264")
        with Server() as server:
            url = f"rtsp://127.0.0.1:{server.port}"
            for transport in ("tcp", "udp"):
                with self.subTest(transport=transport):
                    words = ("--transport", transport)
                    self.check_pull(f"{url}/h264", *words, "--out", path, least=100)
                    self.check_file(path)
                    # The last picture of MPEG-4 has no mark that it is over.
                    self.check_pull(f"{url}/mpeg4", *words, least=99)
                    self.check_pull(f"{url}/jpeg", *words, "--seconds", "2", letters="J")
                    self.check_pull(f"{url}/both", *words, "--seconds", "2", letters="IPA")

    def test_passwords(self):
        for kind in ("basic", "digest"):
            with self.subTest(kind=kind), Server("--auth", kind) as server:
                url = f"rtsp://127.0.0.1:{server.port}/h264"
                self.check_pull(url, *LOGIN, least=100)
                for wrong in ((), ("--user", USER, "--password", "no")):
                    code, summary, _ = pull(url, *wrong)
                    self.assertNotEqual(code, 0)
                    self.assertIn("unauthorised", summary["failure"])
                code, summary, _ = pull(f"{url}/none", *LOGIN)
                self.assertNotEqual(code, 0)
                self.assertIn("not found", summary["failure"])

    def test_receiver_reports(self):
        """RFC 3550 6.4.1: the reports name the last sender report, so that the server measures its way there and back."""
        with Server() as server:
            self.check_pull(f"rtsp://127.0.0.1:{server.port}/both", "--transport", "udp", "--seconds", "12",
                            letters="IPA")
            reports = server.end()
        answers = [report for report in reports if report["lsr"]]
        self.assertTrue(answers, reports)
        for report in answers:
            self.assertEqual((report["fraction"], report["lost"]), (0, 0))
            self.assertGreater(report["dlsr"], 0)
            self.assertLess(report["round_trip"], 65536)

    def test_multicast(self):
        if os.geteuid() != 0 or subprocess.run(["ip", "netns", "add", SERVER]).returncode != 0:
            self.skipTest("network namespaces can't be made here")
        self.addCleanup(lambda: [run("ip", "netns", "del", name) for name in (SERVER, VIEWER)])
        run("ip", "netns", "add", VIEWER)
        run("ip", "link", "add", "cable", "netns", SERVER, "type", "veth", "peer", "name", "cable", "netns", VIEWER)
        for name, address in ADDRESS.items():
            for words in (f"addr add {address}/24 dev cable", "link set cable up", "link set lo up",
                          "route add 224.0.0.0/4 dev cable"):
                run("ip", "-n", name, *words.split())
        port = str(free_udp_ports())
        with Server("--address", ADDRESS[SERVER], "--groups", port, inside=("ip", "netns", "exec", SERVER)) as server:
            self.check_pull(f"rtsp://{ADDRESS[SERVER]}:{server.port}/shared", "--transport", "multicast", "--seconds",
                            "3", "--out", self.folder("out.h264"), inside=("ip", "netns", "exec", VIEWER), least=50)
        self.assertGreater(len(frame_digests("-i", self.folder("out.h264"))[0]), 50)


if __name__ == "__main__":
    unittest.main(verbosity=2, argv=sys.argv[:1] + sys.argv[3:])
