#!/usr/bin/env python3
"""NAT sessions between two homes: nat_test.py VIDORA_HOST MEDIA VIDORA_PULL EXAMPLE_NAT_PAIR.

A device and a viewer stand behind a router each, which translates the addresses of what leaves and drops what comes
unasked. Between the routers is a network with the rendezvous."""
import os
import shutil
import signal
import subprocess
import sys
import unittest

from peers import SKIPPED, Folder, frame_digests, ip

HOST, MEDIA, PULL, PAIR = sys.argv[1:5]
LIVE = "cam/realmonitor?channel=1&subtype=0"
DEVICE, DEVICE_ROUTER, MIDDLE, VIEWER_ROUTER, VIEWER = NAMES = [f"vidora{os.getpid()}{side}" for side in "abcde"]
POINT = "10.81.0.1:4000"

RULES = """
table ip vidora {
    chain translate { type nat hook postrouting priority 100; oifname "out" masquerade; }
    chain guard { type filter hook input priority 0; iifname "out" ct state new drop; }
}
"""


def inside(namespace, *command, **named):
    return subprocess.run(["ip", "netns", "exec", namespace, *command], check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, **named)


def join(one, device, address, other, other_device, other_address):
    ip("link", "add", device, "netns", one, "type", "veth", "peer", "name", other_device, "netns", other)
    for namespace, name, text in ((one, device, address), (other, other_device, other_address)):
        ip("-n", namespace, "addr", "add", text + "/24", "dev", name)
        ip("-n", namespace, "link", "set", name, "up")


def lay_home(home, router, number, side):
    """A host whose router has the outer address 10.8<number>.0.2."""
    join(home, "in", f"192.168.{number}.2", router, "home", f"192.168.{number}.1")
    join(router, "out", f"10.8{number}.0.2", MIDDLE, side, f"10.8{number}.0.1")
    ip("-n", home, "route", "add", "default", "via", f"192.168.{number}.1")
    ip("-n", router, "route", "add", "default", "via", f"10.8{number}.0.1")
    inside(router, "nft", "-f", "-", input=RULES)


class Program:
    """A program in a namespace that says when it is ready; ended by a signal."""

    def __init__(self, namespace, *command, ready="listening"):
        self.process = subprocess.Popen(["ip", "netns", "exec", namespace, *command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        line = self.process.stdout.readline()
        assert ready in line, (command, line)

    def close(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.communicate(timeout=30)


class BetweenHomes(unittest.TestCase):
    def setUp(self):
        for namespace in NAMES:
            ip("netns", "add", namespace)
            self.addCleanup(ip, "netns", "del", namespace)
            ip("-n", namespace, "link", "set", "lo", "up")
            inside(namespace, "sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward")
        lay_home(DEVICE, DEVICE_ROUTER, 1, "left")
        lay_home(VIEWER, VIEWER_ROUTER, 2, "right")
        self.start(MIDDLE, PAIR, "point", POINT)

    def start(self, *command):
        program = Program(*command)
        self.addCleanup(program.close)
        return program

    def view(self, count=200, name="camera"):
        return subprocess.Popen(["ip", "netns", "exec", VIEWER, PAIR, "viewer", POINT, name, LIVE, str(count)])

    def test_viewers_at_once_and_after_one_another(self):
        host = self.start(DEVICE, HOST, "--listen", "127.0.0.1:8554", "--live", f"{LIVE}={MEDIA}/clip.h264",
                          "--nat", POINT, "--nat-name", "camera", "--timeout", "5")
        self.assertEqual(self.view(name="nobody").wait(60), 1)
        self.assertEqual(self.view().wait(60), 0)
        viewers = [self.view() for _ in range(4)]
        self.assertEqual([viewer.wait(60) for viewer in viewers], [0] * 4)
        self.assertIsNone(host.process.poll())

    def test_whole_pictures_to_a_user_of_the_device(self):
        self.start(DEVICE, HOST, "--listen", "127.0.0.1:8554", "--recordings", MEDIA, "--user", "admin:secret",
                   "--nat", POINT, "--nat-name", "camera")
        with Folder() as folder:
            for password, code in (("wrong", 1), ("secret", 0)):
                pull = subprocess.run(["ip", "netns", "exec", VIEWER, PULL, "--nat", POINT, "--nat-name", "camera",
                                       "--user", "admin", "--password", password, "--out", folder("out.h264"),
                                       "rtsp://camera/1_0_clip.kav"], timeout=100, check=False)
                self.assertEqual(pull.returncode, code)  # the end of the recording is told
            self.assertEqual(frame_digests("-i", folder("out.h264")), frame_digests("-i", f"{MEDIA}/clip.h264"))

    def test_the_example_shows_a_camera_at_home(self):
        self.start(DEVICE, HOST, "--listen", "127.0.0.1:8554", "--live", f"{LIVE}={MEDIA}/clip.h264")
        self.start(DEVICE, PAIR, "device", POINT, "camera", "127.0.0.1:8554")
        self.assertEqual(self.view().wait(60), 0)


def can_translate():
    """Whether namespaces and their rules can be made here."""
    if shutil.which("nft") is None or ip("netns", "add", NAMES[0], check=False) != 0:
        return False
    try:
        inside(NAMES[0], "nft", "-f", "-", input=RULES)
        return True
    except subprocess.CalledProcessError:
        return False
    finally:
        ip("netns", "del", NAMES[0])


if __name__ == "__main__":
    if not can_translate():
        print("skipped: network namespaces with address translation cannot be made here")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2, argv=sys.argv[:1] + sys.argv[5:])
