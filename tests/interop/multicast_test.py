#!/usr/bin/env python3
"""Multicast on networks as cameras have them: multicast_test.py HOST MEDIA PULL CLIENT [unittest arguments].

A server namespace and a viewer namespace are joined by two cables, s0-r0 and s1-r1. The other side of each test is
players of the viewer, or sockets that listen on one of the cables only."""
import ctypes
import os
import socket
import struct
import sys

from pulling import GstServer, PullTest

CLIENT = sys.argv.pop(3)

from host_support import HOST, LIVE, MEDIA, Host, is_run_of_loop, main  # noqa: E402
from peers import SKIPPED, Folder, frame_digests, free_port, free_udp_ports, gst_outcome, ip, outcome  # noqa: E402

SERVER, VIEWER = (f"vidora{os.getpid()}{side}" for side in "sv")
IN_SERVER, IN_VIEWER = (("ip", "netns", "exec", namespace) for namespace in (SERVER, VIEWER))
GROUP, GROUP6, PORT = "239.7.8.9", "[ff15::789]", 30000
AUDIO = PORT + 2
ADDRESS = {"s0": "10.90.0.1", "s1": "10.91.0.1"}
ADDRESS6 = "fd00:91::1"
SO_BINDTODEVICE, IP_RECVTTL, IP_TTL = 25, 12, 2
HOME = open("/proc/self/ns/net", encoding="ascii")  # the test's own namespace
LIBC = ctypes.CDLL(None, use_errno=True)


def server_ip(command):
    ip("-n", SERVER, *command.split())


def enter_namespace(namespace):
    if LIBC.setns(namespace.fileno(), 0) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def kind_of(data):
    return "ts" if data[0] == 0x47 else {96: "video", 8: "audio", 33: "ts"}[data[1] & 0x7F]


class Listener:
    """A socket of the viewer that hears what comes to one port of a group by one cable."""

    def __init__(self, device, port, group=GROUP):
        family = socket.AF_INET6 if ":" in group else socket.AF_INET
        group = group.strip("[]")
        with open(f"/run/netns/{VIEWER}", encoding="ascii") as namespace:
            enter_namespace(namespace)
        try:
            self.socket = socket.socket(family, socket.SOCK_DGRAM)
            self.socket.setsockopt(socket.SOL_SOCKET, SO_BINDTODEVICE, device.encode() + b"\0")
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
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
        """The kind, the address of its sender and its TTL; None if nothing comes."""
        self.socket.settimeout(limit)
        try:
            data, control, _, sender = self.socket.recvmsg(2048, 64)
        except (TimeoutError, BlockingIOError):
            return None
        ttl = [struct.unpack("@i", item)[0] for _, kind, item in control if kind == IP_TTL]
        return kind_of(data), sender[0].split("%")[0], ttl[0] if ttl else None

    def drain(self):
        """What has come so far. On these cables a datagram is there when the send returns."""
        return list(iter(lambda: self.receive(0), None))


class MulticastNetwork(PullTest):
    def setUp(self):
        for namespace in (SERVER, VIEWER):
            ip("netns", "add", namespace)
            self.addCleanup(ip, "netns", "del", namespace)
            ip("-n", namespace, "link", "set", "lo", "up")
        for i in range(2):
            ip("link", "add", f"s{i}", "netns", SERVER, "type", "veth", "peer", "name", f"r{i}", "netns", VIEWER)
            ip("-n", VIEWER, "link", "set", f"r{i}", "up")
            ip("-n", VIEWER, "addr", "add", f"10.9{i}.0.2/24", "dev", f"r{i}")
            for rule in ("all", f"r{i}"):  # what comes from a wrong address is to be seen
                ip("netns", "exec", VIEWER, "sh", "-c", f"echo 0 > /proc/sys/net/ipv4/conf/{rule}/rp_filter")
        ip("-n", VIEWER, "route", "add", "224.0.0.0/4", "dev", "r1")

    def bring_up(self, *devices):
        for device in devices:
            server_ip(f"link set {device} up")
            server_ip(f"addr add {ADDRESS[device]}/24 dev {device}")

    def listen(self, device, *ports, group=GROUP):
        listeners = [Listener(device, port, group) for port in ports]
        for listener in listeners:
            self.addCleanup(listener.socket.close)
        return listeners

    def host(self, kind, local_ip, *words, group=GROUP, address="127.0.0.1"):
        """A host that sends pictures and sound to a group by one interface."""
        words += ("--multicast-if", local_ip) if local_ip else ()
        return self.enterContext(Host("--live", f"{LIVE}={MEDIA}/clip.h264,{MEDIA}/clip.alaw", "--multicast",
                                      f"{LIVE}={group}:{PORT},{kind}", *words, "--log", "warn", live=False,
                                      address=address, inside=IN_SERVER))

    def check_client(self, kind):
        code, text, errors = outcome(*IN_VIEWER, CLIENT, GROUP, str(PORT), kind, "60")
        self.assertEqual(code, 0, errors)
        lines = text.decode().splitlines()
        self.assertEqual(len(lines), 60)
        for line in lines:
            self.assertRegex(line, "^type f[bcd], [1-9][0-9]* bytes$")
        self.assertGreater(len({line.split()[1] for line in lines}), 1)  # key frames and others

    def check_players(self, kind, *source, words=()):
        """FFmpeg and the example client."""
        self.bring_up("s1")
        host = self.host(kind, "s1", *words, address=ADDRESS["s1"])
        digests = frame_digests(*(source or ("-rtsp_transport", "udp_multicast", "-i", host.url())), "-map", "0:v",
                                "-t", "4", joins=kind == "ts", inside=IN_VIEWER)
        self.assertGreater(len(digests[0]), 60)
        self.assertTrue(is_run_of_loop(digests[0][5:], frame_digests("-i", f"{MEDIA}/clip.h264")[0]))
        self.check_client(kind)
        return host

    def check_gstreamer(self, url, *depayload):
        """rtspsrc joins the group that the description names, and 50 pictures are decoded."""
        pipeline = ("rtspsrc", f"location={url}", "protocols=udp-mcast", "!", *depayload, "!", "avdec_h264", "!",
                    "fakesink", "num-buffers=50")
        self.assertEqual(gst_outcome(*pipeline, inside=IN_VIEWER), (0, ""))

    def test_players_of_rtp(self):
        host = self.check_players("rtp")
        self.check_gstreamer(host.url(), "rtph264depay")
        ip("-n", VIEWER, "route", "del", "224.0.0.0/4")  # the connection tells the interface
        self.check_pull(host.url(), "--transport", "multicast", "--seconds", "4", inside=IN_VIEWER)

    def test_pull_on_the_host_of_the_server(self):
        """The connection goes to its one address, and the group to the other network."""
        self.bring_up("s0", "s1")
        server_ip("route add 224.0.0.0/4 dev s1")
        host = self.host("rtp", "s1", address=ADDRESS["s0"])
        self.check_pull(host.url(), "--transport", "multicast", "--seconds", "4", inside=IN_SERVER)

    def test_players_of_a_transport_stream_in_bare_datagrams(self):
        self.check_players("ts", "-i", f"udp://{GROUP}:{PORT}?localaddr=10.91.0.2", words=["--as-described"])

    def test_players_of_a_transport_stream_in_rtp(self):
        self.check_gstreamer(self.check_players("ts").url(), "rtpmp2tdepay", "!", "tsdemux", "!", "h264parse")

    def test_pull_from_gstreamer(self):
        self.bring_up("s1")
        server_ip("route add 224.0.0.0/4 dev s1")
        words = ("--address", ADDRESS["s1"], "--groups", str(free_udp_ports()))
        with Folder() as folder, GstServer(MEDIA, *words, inside=IN_SERVER) as server:
            self.check_pull(f"rtsp://{ADDRESS['s1']}:{server.port}/shared", "--transport", "multicast", "--seconds", "3",
                            "--out", folder("out.h264"), inside=IN_VIEWER)
            self.assertGreater(len(frame_digests("-i", folder("out.h264"))[0]), 50)

    def test_two_interfaces(self):
        self.bring_up("s0", "s1")
        for default_route in (False, True):
            if default_route:
                server_ip("route add default via 10.90.0.2")
            for kind, local_ip, group, ttl in (("rtp", ADDRESS["s1"], GROUP, 64), ("rtp", "s1", GROUP, 64),
                                               ("ts", ADDRESS["s1"], GROUP, 64), ("ts", "s1", GROUP, 64),
                                               ("rtp", "s1", "224.0.0.77", 1)):  # link-local
                with self.subTest(default_route=default_route, kind=kind, local_ip=local_ip, group=group):
                    wrong = self.listen("r0", PORT, AUDIO, group=group)
                    video, audio = self.listen("r1", PORT, AUDIO, group=group)
                    host = self.host(kind, local_ip, group=group)
                    first = "ts" if kind == "ts" else "video"
                    self.assertEqual((first, ADDRESS["s1"], ttl), video.receive())
                    if kind == "rtp":
                        self.assertEqual(("audio", ADDRESS["s1"], ttl), audio.receive())
                    host.stop()
                    self.assertFalse(any(listener.drain() for listener in wrong))
                    self.assertFalse([line for line in host.lines if "send failed" in line])

    def test_network_comes_later(self):
        for local_ip, device in ((ADDRESS["s1"], "s1"), ("s1", "s1"), (None, "s0")):
            with self.subTest(local_ip=local_ip):
                host = self.host("rtp", local_ip)
                listeners = self.listen(device.replace("s", "r"), PORT, AUDIO)
                self.bring_up("s0")
                host.wait_for_line("udp send failed")
                self.assertFalse(any(listener.drain() for listener in listeners))
                self.bring_up("s1")
                if local_ip is None:
                    server_ip(f"route add default dev {device}")
                for listener in listeners:
                    self.assertEqual((ADDRESS[device], 64), listener.receive()[1:])
                host.wait_for_line("goes on")
                host.stop()
                for words in ("udp send failed", "goes on"):
                    self.assertEqual(1, sum(words in line for line in host.lines), host.lines)
                for each in ("s0", "s1"):
                    server_ip(f"addr flush dev {each}")
                    server_ip(f"link set {each} down")

    def test_address_changes(self):
        self.bring_up("s0", "s1")
        for i, local_ip in enumerate((ADDRESS["s1"], "s1", None)):
            with self.subTest(local_ip=local_ip):
                server_ip("route replace 239.0.0.0/8 dev s1")
                listeners = self.listen("r1", PORT, AUDIO)
                host = self.host("rtp", local_ip)
                for listener in listeners:
                    self.assertEqual(ADDRESS["s1"], listener.receive()[1])
                server_ip("addr flush dev s1")
                if local_ip is not None:  # without, it is the system that chooses
                    host.wait_for_line("udp send failed")
                server_ip("addr add 10.91.0.7/24 dev s1")
                server_ip("route replace 239.0.0.0/8 dev s1")  # went with the address
                for listener in listeners:
                    senders = {listener.receive()[1]}
                    while "10.91.0.7" not in senders:
                        senders.add(listener.receive()[1])
                    self.assertTrue(local_ip is None or senders <= {ADDRESS["s1"], "10.91.0.7"}, senders)
                host.stop()
                server_ip("addr flush dev s1")
                server_ip(f"addr add {ADDRESS['s1']}/24 dev s1")

    def test_ipv6_group(self):
        self.bring_up("s0", "s1")
        for address in (ADDRESS6, "fd00:91::2"):
            server_ip(f"addr add {address}/64 dev s1 nodad")
        for local_ip in (ADDRESS6, "s1", ADDRESS["s1"], "fd00:91::2"):
            with self.subTest(local_ip=local_ip):
                listeners = self.listen("r1", PORT, AUDIO, group=GROUP6)
                host = self.host("rtp", local_ip, group=GROUP6)
                for listener, kind in zip(listeners, ("video", "audio")):
                    heard, sender, _ = listener.receive()
                    self.assertEqual(kind, heard)
                    self.assertIn(sender, (local_ip,) if ":" in local_ip else (ADDRESS6, "fd00:91::2"))
                host.stop()

    def test_base_port_without_room_is_refused(self):
        self.bring_up("s0", "s1")
        for port in (65534, 65535):
            code, _, errors = outcome(*IN_SERVER, HOST, "--listen", f"127.0.0.1:{free_port()}", "--live",
                                      f"{LIVE}={MEDIA}/clip.h264,{MEDIA}/clip.alaw", "--multicast",
                                      f"{LIVE}={GROUP}:{port},rtp", "--multicast-if", "s1")
            self.assertEqual(1, code)
            self.assertIn("cannot be sent to", errors)


if __name__ == "__main__":
    if ip("netns", "add", VIEWER, check=False) != 0:
        print("skipped: network namespaces can't be made here")
        sys.exit(SKIPPED)
    ip("netns", "del", VIEWER)
    main()
