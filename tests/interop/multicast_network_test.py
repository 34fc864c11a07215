#!/usr/bin/env python3
"""Multicast of a live channel on networks as cameras have them: multicast_network_test.py MULTICAST_CHANNEL.

A server namespace and a viewer namespace are joined by two cables, s0-r0 and s1-r1. The other side of each test is
sockets of the viewer that listen on one of the cables only."""
import ctypes
import os
import socket
import struct
import subprocess
import sys
import unittest

DRIVER = sys.argv[1]
SERVER, VIEWER = (f"vidora{os.getpid()}{side}" for side in "sv")
GROUP, GROUP6, PORT = "239.7.8.9", "ff15::789", 30000
AUDIO = PORT + 2
ADDRESS = {"s0": "10.90.0.1", "s1": "10.91.0.1"}
ADDRESS6 = "fd00:91::1"
SO_BINDTODEVICE, IP_RECVTTL, IP_TTL = 25, 12, 2
SKIPPED = 77  # the exit code that ctest knows
HOME = open("/proc/self/ns/net", encoding="ascii")  # the test's own namespace
LIBC = ctypes.CDLL(None, use_errno=True)


def ip(*words, check=True):
    return subprocess.run(["ip", *words], check=check, stderr=subprocess.PIPE, text=True).returncode


def server_ip(command):
    ip("-n", SERVER, *command.split())


def add_address(device, address=None):
    server_ip(f"addr add {address or ADDRESS[device]}/24 dev {device}")


def enter_namespace(namespace):
    if LIBC.setns(namespace.fileno(), 0) != 0:
        raise OSError(ctypes.get_errno(), "setns")


class Listener:
    """A socket of the viewer that hears what comes to one port of a group by one cable."""

    def __init__(self, device, port, group=GROUP):
        family = socket.AF_INET6 if ":" in group else socket.AF_INET
        with open(f"/run/netns/{VIEWER}", encoding="ascii") as namespace:
            enter_namespace(namespace)
        try:
            self.socket = socket.socket(family, socket.SOCK_DGRAM)
            self.socket.setsockopt(socket.SOL_SOCKET, SO_BINDTODEVICE, device.encode() + b"\0")
            self.socket.bind((group, port))
            index = socket.if_nametoindex(device)
            if family == socket.AF_INET6:
                self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                                       socket.inet_pton(family, group) + struct.pack("@I", index))
            else:
                self.socket.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
                self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                       socket.inet_aton(group) + struct.pack("=4xI", index))
        finally:
            enter_namespace(HOME)

    def receive(self, limit=20.0):
        """The text, the address of its sender and its TTL; None if nothing comes."""
        self.socket.settimeout(limit)
        try:
            data, control, _, sender = self.socket.recvmsg(2048, 64)
        except (TimeoutError, BlockingIOError):
            return None
        ttl = [struct.unpack("@i", item)[0] for _, kind, item in control if kind == IP_TTL]
        return data.decode(), sender[0].split("%")[0], ttl[0] if ttl else None

    def heard(self):
        """Whether anything has come. On these cables a datagram is there when the send returns."""
        return self.receive(0) is not None

    def close(self):
        self.socket.close()


class Channel:
    """The driver in the server's namespace."""

    def __init__(self, kind, local_ip, group=GROUP, port=PORT):
        self.log = []
        self.process = subprocess.Popen(["ip", "netns", "exec", SERVER, DRIVER], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.opened = self.tell(f"open {kind} {group} {port} {local_ip or '-'}")

    def tell(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        for line in self.process.stdout:
            if line in ("done\n", "refused\n"):
                return line == "done\n"
            self.log.append(line)
        raise AssertionError(f"the driver has gone: {self.log}")

    def put(self):
        self.tell("put")

    def count(self, text):
        return sum(text in line for line in self.log)

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        assert self.process.wait(30) == 0


class MulticastNetwork(unittest.TestCase):
    def setUp(self):
        for namespace in (SERVER, VIEWER):
            ip("netns", "add", namespace)
            self.addCleanup(ip, "netns", "del", namespace)
        for i in range(2):
            ip("link", "add", f"s{i}", "netns", SERVER, "type", "veth", "peer", "name", f"r{i}", "netns", VIEWER)
            ip("-n", VIEWER, "link", "set", f"r{i}", "up")
            ip("-n", VIEWER, "addr", "add", f"10.9{i}.0.2/24", "dev", f"r{i}")
            for rule in ("all", f"r{i}"):  # what comes from a wrong address is to be seen
                ip("netns", "exec", VIEWER, "sh", "-c", f"echo 0 > /proc/sys/net/ipv4/conf/{rule}/rp_filter")

    def bring_up(self, *devices):
        for device in devices:
            server_ip(f"link set {device} up")
            add_address(device)

    def listen(self, device, *ports, group=GROUP):
        listeners = [Listener(device, port, group) for port in ports]
        for listener in listeners:
            self.addCleanup(listener.close)
        return listeners

    def open(self, *arguments, **named):
        channel = Channel(*arguments, **named)
        self.addCleanup(channel.close)
        self.assertTrue(channel.opened, channel.log)
        return channel

    def test_two_interfaces(self):
        self.bring_up("s0", "s1")
        wrong = self.listen("r0", PORT, AUDIO)
        video, audio = self.listen("r1", PORT, AUDIO)
        for default_route in (False, True):
            if default_route:
                server_ip("route add default via 10.90.0.2")
            for kind in ("rtp", "ts"):
                for local_ip in (ADDRESS["s1"], "s1"):
                    with self.subTest(default_route=default_route, kind=kind, local_ip=local_ip):
                        channel = self.open(kind, local_ip)
                        channel.put()
                        self.assertEqual(("video", ADDRESS["s1"], 64), video.receive())
                        if kind == "rtp":
                            self.assertEqual(("audio", ADDRESS["s1"], 64), audio.receive())
                        self.assertFalse(any(listener.heard() for listener in wrong))
                        self.assertEqual(0, channel.count("send failed"), channel.log)

    def test_link_local_group_keeps_its_ttl(self):
        self.bring_up("s0", "s1")
        (video,) = self.listen("r1", PORT, group="224.0.0.77")
        self.open("rtp", "s1", group="224.0.0.77").put()
        self.assertEqual(("video", ADDRESS["s1"], 1), video.receive())

    def check_network_comes_later(self, local_ip, device):
        channel = self.open("rtp", local_ip)
        listeners = self.listen(device.replace("s", "r"), PORT, AUDIO)
        self.bring_up("s0")
        for _ in range(3):
            channel.put()
        self.assertFalse(any(listener.heard() for listener in listeners))
        self.assertEqual(1, channel.count("udp send failed"), channel.log)
        self.bring_up("s1")
        if local_ip is None:
            server_ip(f"route add default dev {device}")
        channel.put()
        for listener in listeners:
            self.assertEqual((ADDRESS[device], 64), listener.receive()[1:])
        self.assertEqual(1, channel.count("goes on"), channel.log)

    def test_network_comes_later_by_address(self):
        self.check_network_comes_later(ADDRESS["s1"], "s1")

    def test_network_comes_later_by_name(self):
        self.check_network_comes_later("s1", "s1")

    def test_network_comes_later_by_route(self):
        self.check_network_comes_later(None, "s0")

    def check_address_changes(self, local_ip):
        self.bring_up("s0", "s1")
        route = "route replace 239.0.0.0/8 dev s1"
        server_ip(route)
        listeners = self.listen("r1", PORT, AUDIO)
        channel = self.open("rtp", local_ip)
        channel.put()
        for listener in listeners:
            self.assertEqual(ADDRESS["s1"], listener.receive()[1])
        server_ip(f"addr del {ADDRESS['s1']}/24 dev s1")
        channel.put()
        if local_ip is not None:  # without, it is the system that chooses
            self.assertFalse(any(listener.heard() for listener in listeners), "sent from another's address")
        add_address("s1", "10.91.0.7")
        server_ip(route)  # went with the address
        while any(listener.heard() for listener in listeners):
            pass
        channel.put()
        for listener in listeners:
            self.assertEqual("10.91.0.7", listener.receive()[1])

    def test_address_changes_of_interface_by_address(self):
        self.check_address_changes(ADDRESS["s1"])

    def test_address_changes_of_interface_by_name(self):
        self.check_address_changes("s1")

    def test_address_changes_of_route(self):
        self.check_address_changes(None)

    def test_ipv6_group(self):
        self.bring_up("s0", "s1")
        for address in (ADDRESS6, "fd00:91::2"):
            server_ip(f"addr add {address}/64 dev s1 nodad")
        video, audio = self.listen("r1", PORT, AUDIO, group=GROUP6)
        for local_ip in (ADDRESS6, "s1", ADDRESS["s1"], "fd00:91::2"):
            with self.subTest(local_ip=local_ip):
                self.open("rtp", local_ip, group=GROUP6).put()
                heard = [listener.receive() for listener in (video, audio)]
                self.assertEqual(["video", "audio"], [item[0] for item in heard])
                for _, sender, _ in heard:
                    self.assertIn(sender, (local_ip,) if ":" in local_ip else (ADDRESS6, "fd00:91::2"))

    def test_base_port_without_room_is_refused(self):
        self.bring_up("s0", "s1")
        for port, opened in ((65532, True), (65534, False), (65535, False)):
            channel = Channel("rtp", "s1", port=port)
            self.addCleanup(channel.close)
            self.assertEqual(opened, channel.opened, port)


if __name__ == "__main__":
    if ip("netns", "add", VIEWER, check=False) != 0:
        print("skipped: network namespaces can't be made here")
        sys.exit(SKIPPED)
    ip("netns", "del", VIEWER)
    unittest.main(verbosity=2, argv=sys.argv[:1] + sys.argv[2:])
