#!/usr/bin/env python3
"""vidora-host with files that change, links, long scans and output that nobody reads: host_robust_test.py HOST MEDIA."""
import contextlib
import fcntl
import json
import os
import select
import signal
import struct
import subprocess
import sys
import time
import types
import unittest
from collections import Counter

from host_support import HOST, JPEG, LIVE, MEDIA, Host, Rtsp, main
from peers import Folder, free_port, wait_for

CLIP = "1_0_clip.kav"
F_SETPIPE_SZ = 1031


def read_clip():
    with open(os.path.join(MEDIA, CLIP), "rb") as file:
        return file.read()


def describe(host, content):
    """The status and body of the answer on a connection of its own."""
    with Rtsp(host) as peer:
        status, _, body = peer.ask("DESCRIBE", url=host.url(content))
        return status, body


def is_alive(host):
    with Rtsp(host) as peer:
        return peer.ask("OPTIONS")[0] == 200 and describe(host, LIVE)[0] == 200


def open_files(host):
    folder = f"/proc/{host.process.pid}/fd"
    paths = []
    for name in os.listdir(folder):
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            paths.append(os.readlink(os.path.join(folder, name)))
    return paths


def proc_value(host, name, key):
    with open(f"/proc/{host.process.pid}/{name}") as file:
        return int(dict(line.split(":", 1) for line in file)[key].split()[0])


class Recordings(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(Folder())

    def host(self, *options):
        return Host(*options, recordings=self.folder.name)

    def write_hole(self, name, size):
        with open(self.folder(name), "wb") as file:
            file.truncate(size)

    def test_file_that_shrinks_ends_nothing_but_its_players(self):
        self.folder.write("long.kav", read_clip() * 200)
        self.write_hole("hole.kav", 1 << 36)
        with self.host() as host, Rtsp(host) as player, Rtsp(host) as asker:
            player.url = host.url("long.kav")
            player.play(1)
            player.frame()
            asker.sock.sendall(f"DESCRIBE {host.url('hole.kav')} RTSP/1.0\r\nCSeq: 1\r\n\r\n".encode())
            wait_for(lambda: any("hole.kav" in path for path in open_files(host)), "the scan begins")
            for name in ("long.kav", "hole.kav"):
                os.truncate(self.folder(name), 50)
            self.assertEqual(asker._reply()[0], 404)
            while True:  # what was read before, and then the end
                try:
                    player.take(1)
                except (EOFError, ConnectionError):
                    break
            self.assertEqual(describe(host, "long.kav")[0], 404)
            self.assertTrue(is_alive(host))

    def test_long_scan_holds_up_its_askers_only(self):
        self.write_hole("1_0_hole.kav", 1 << 40)  # takes long, as every byte is looked at
        self.folder.write("good.kav", read_clip())
        names = ["1_0_hole.kav", "cam/playback?channel=1&subtype=0&starttime=2020_09_13_12_26_41"] * 6
        with self.host() as host:
            askers = [self.enterContext(Rtsp(host)) for _ in names]
            for asker, name in zip(askers, names):
                asker.sock.sendall(f"DESCRIBE {host.url(name)} RTSP/1.0\r\nCSeq: 1\r\n\r\n".encode())
            wait_for(lambda: any("1_0_hole.kav" in path for path in open_files(host)), "the scan begins")
            self.assertTrue(is_alive(host))
            self.assertEqual(describe(host, "good.kav")[0], 200)
            self.assertEqual(select.select([asker.sock for asker in askers], [], [], 0)[0], [])
            # A search looks at the end of each file, so that it is open twice for a moment; a second scan stays.
            wait_for(lambda: sum("1_0_hole.kav" in path for path in open_files(host)) == 1, "there is one scan")

    def test_no_file_is_kept_open_and_what_is_deleted_is_free(self):
        names = [f"1_0_{i}.kav" for i in range(60)]
        for name in names:
            self.folder.write(name, read_clip())
        with self.host() as host:
            before = len(open_files(host))
            at = "cam/playback?channel=1&subtype=0&starttime={}_09_13_12_26_41"
            self.assertEqual(describe(host, at.format(2033))[0], 404)
            self.assertEqual(describe(host, at.format(2020))[0], 200)
            for name in names:
                self.assertEqual(describe(host, name)[0], 200)
                os.unlink(self.folder(name))
            wait_for(lambda: len(open_files(host)) <= before, "all files are closed")
            self.assertFalse([path for path in open_files(host) if path.endswith("(deleted)")])

    def test_file_is_read_once_and_what_it_grows_by(self):
        size = 200 << 20
        self.write_hole("hole.kav", size)
        with self.host() as host:
            reads = []
            for grow in (0, 0, 0, 1 << 20, 0):
                with open(self.folder("hole.kav"), "ab") as file:
                    file.write(b"\0" * grow)
                before = proc_value(host, "io", "rchar")
                self.assertEqual(describe(host, "hole.kav")[0], 404)
                reads.append(proc_value(host, "io", "rchar") - before)
            self.assertGreaterEqual(reads[0], size)
            self.assertLess(sum(reads[1:]), 8 << 20, reads)

    def test_index_of_a_growing_file_is_that_of_the_whole(self):
        clip = read_clip()
        self.folder.write("whole.kav", clip)
        lengths = []
        with self.host() as host:
            wanted = describe(host, "whole.kav")[1].split("a=range:")[1].split("\r\n")[0]
            for end in (len(clip) // 3, len(clip) // 3 + 1000, len(clip) // 2, len(clip)):
                with open(self.folder("part.kav"), "ab") as file:
                    file.write(clip[file.tell():end])
                status, sdp = describe(host, "part.kav")
                self.assertEqual(status, 200)
                lengths.append(sdp.split("a=range:")[1].split("\r\n")[0])
        self.assertEqual(lengths[-1], wanted)
        self.assertLess(float(lengths[0].split("-")[1]), float(wanted.split("-")[1]))

    def test_clients_that_go_on_after_a_refusal_do_no_harm(self):
        self.folder.write("1_0_bad.kav", read_clip()[1000:2000])
        with self.host() as host:
            for content in ("1_0_bad.kav", "cam/playback?channel=1&subtype=0&starttime=2020_09_13_12_26_41"):
                for method in ("SETUP", "PLAY", "PAUSE"):
                    with Rtsp(host) as peer:
                        head = f"DESCRIBE {host.url(content)} RTSP/1.0\r\nCSeq: 1\r\n\r\n"
                        go_on = f"{method} {host.url(content)} RTSP/1.0\r\nCSeq: 2\r\nRange: clock=20200913T122641Z-\r\n"
                        peer.sock.sendall((head + go_on + "Transport: RTP/AVP/TCP;interleaved=0-1\r\n\r\n").encode())
                        self.assertEqual(peer._reply()[0], 404)
            self.assertTrue(is_alive(host))

    def test_memory_of_an_index_is_bounded(self):
        blocks = bytes((0x81, 0, 5, 25, 0x80, 0, 40, 30))
        size = 24 + len(blocks) + 8
        head = struct.pack("<4sBBBBIIIHBB", b"KXAV", 0xFB, 0, 0, 0, 1, size, 0x50D6C6A9, 0, len(blocks), 0)
        frame = head + blocks + b"kxav" + struct.pack("<I", size)
        self.folder.write("many.kav", frame * (5 << 20))
        with self.host() as host:
            self.assertTrue(is_alive(host))
            before = proc_value(host, "status", "VmRSS")
            describe(host, "many.kav")
            self.assertLess(proc_value(host, "status", "VmHWM") - before, 64 << 10)
            self.assertTrue(is_alive(host))

    def test_links_out_of_the_folder_are_refused(self):
        with Folder() as outside:
            secret = outside.write("secret.kav", read_clip())
            os.symlink(secret, self.folder("1_0_link.kav"))
            os.symlink(outside.name, self.folder("way"))
            self.folder.write("inside.bin", read_clip())
            os.symlink(self.folder("inside.bin"), self.folder("2_0_link.kav"))
            with self.host() as host:
                at = "cam/playback?channel={}&subtype=0&starttime=2020_09_13_12_26_41"
                for content, status in ((at.format(1), 404), ("1_0_link.kav", 404), ("way/secret.kav", 404),
                                        ("../" + os.path.basename(outside.name) + "/secret.kav", 404),
                                        (at.format(2), 200), ("2_0_link.kav", 200)):
                    self.assertEqual(describe(host, content)[0], status, content)


class Ending(unittest.TestCase):
    def test_host_and_players_end_at_a_signal_whatever_is_played(self):
        with Folder() as folder:
            folder.write("long.kav", read_clip() * 50)
            for content, way in ((LIVE, "tcp"), (LIVE, "udp"), (LIVE, "http"), ("long.kav", "tcp"), ("long.kav", "udp")):
                with self.subTest(content=content, way=way), Host(recordings=folder.name) as host:
                    player = subprocess.Popen(["ffmpeg", "-nostdin", "-v", "quiet", "-rtsp_transport", way, "-i",
                                               host.url(content), "-c", "copy", "-f", "framecrc", "-flush_packets", "1", "-"],
                                              stdout=subprocess.PIPE)
                    self.addCleanup(player.kill)
                    while not player.stdout.readline().startswith(b"0,"):
                        pass
                    begin = time.monotonic()
                    self.assertEqual(host.stop(), 0, host.lines)
                    host_sec = time.monotonic() - begin
                    player.communicate(timeout=60)  # it ends by itself, since it is told
                    print(f"host {host_sec:.2f} s, player {time.monotonic() - begin:.2f} s", file=sys.stderr)
                    # Half a second on a machine that has nothing else to do; a wait for somebody is many.
                    self.assertLess(host_sec, 5.0)

    def test_players_of_a_group_are_told(self):
        with Host("--multicast", f"{LIVE}=239.7.8.10:30100", "--multicast-if", "127.0.0.1") as host, Rtsp(host) as peer:
            peer.play(1, "RTP/AVP;multicast")
            self.assertEqual(host.stop(), 0, host.lines)
            with self.assertRaises((EOFError, ConnectionError)):
                peer.take(1)

    def test_player_that_loses_frames_causes_a_line_a_second(self):
        with Host("--fps", "240") as host, Rtsp(host) as player:
            player.url = host.url(JPEG)
            player.play(1)
            lost = lambda: [line for line in list(host.lines) if "lost packet" in line]
            wait_for(lambda: len(lost()) >= 3, "what waits is older than ten seconds, and drops with each frame")
            self.assertLess(max(Counter(line.split()[0] for line in lost()).values()), 3, host.lines)

    def test_players_are_told(self):
        with Host() as host, Rtsp(host) as peer:
            peer.play(2)
            peer.frame()
            self.assertEqual(host.stop(signal.SIGINT), 0, host.lines)
            self.assertFalse([line for line in host.lines if "Sanitizer" in line or "runtime error" in line])
            last = {}
            with contextlib.suppress(EOFError):
                while True:
                    channel, data = peer.frame()
                    last[channel] = data
        for channel in (1, 3):  # the last compound packet of each track holds a BYE (RFC 3550 6.6)
            data = last[channel]
            types = []
            while data:
                types.append(data[1])
                data = data[4 + 4 * int.from_bytes(data[2:4], "big"):]
            self.assertIn(203, types)

    def test_second_signal_ends_it_at_once(self):
        with Host() as host:
            for number in (signal.SIGSTOP, signal.SIGTERM, signal.SIGINT, signal.SIGCONT):
                host.process.send_signal(number)  # both are there when it goes on
            self.assertIn(host.process.wait(30), (-signal.SIGTERM, -signal.SIGINT))


class Output(unittest.TestCase):
    def start(self, *options):
        """A host with small pipes for its output, which nobody reads yet."""
        port = free_port()
        process = subprocess.Popen([HOST, "--listen", f"127.0.0.1:{port}", "--live",
                                    f"{LIVE}={MEDIA}/clip.h264", *options], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        for pipe in (process.stdout, process.stderr):
            fcntl.fcntl(pipe, F_SETPIPE_SZ, 4096)
        process.stdout.readline()  # it listens

        return types.SimpleNamespace(port=port, process=process,
                                     url=lambda content=LIVE: f"rtsp://127.0.0.1:{port}/{content}")

    def test_unread_output_holds_up_nobody(self):
        host = self.start("--log", "trace")
        for i in range(600):
            describe(host, "nothing" + "x" * 200)
        self.assertTrue(is_alive(host))
        host.process.send_signal(signal.SIGTERM)
        output, errors = host.process.communicate(timeout=30)
        self.assertEqual(host.process.returncode, 0)
        self.assertTrue(b" lines dropped: " in errors)
        self.assertTrue(b" connect, peer 127.0.0.1" in output)

    def test_json_is_all_that_comes(self):
        host = self.start("--json", "--stats", "1")
        for content in ("a?token=\x1b[31m", f"{LIVE}&proxy=@", "x?proxy=a:b@", "", "none.kav?"):
            describe(host, content)
        with Rtsp(host) as peer:
            peer.play(1)
            peer.frame()
        lines = [host.process.stdout.readline() for _ in range(3)]
        host.process.send_signal(signal.SIGTERM)
        lines += host.process.communicate(timeout=30)[0].splitlines()
        events = [json.loads(line) for line in lines]
        self.assertIn("connect", [line.get("event") for line in events])


if __name__ == "__main__":
    main()
