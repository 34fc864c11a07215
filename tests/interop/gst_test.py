#!/usr/bin/env python3
"""vidora-host with GStreamer's rtspsrc: gst_test.py HOST MEDIA [unittest arguments]."""
import unittest
from concurrent import futures

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from host_support import Host, main  # noqa: E402
from peers import gst_outcome  # noqa: E402
from relay import Relay  # noqa: E402

SECOND = Gst.SECOND


class Player:
    """rtspsrc with its streams decoded; counts what comes out and keeps the errors."""

    def __init__(self, url, protocols, extra=""):
        source = Gst.parse_launch(f'rtspsrc name=src location="{url}" protocols={protocols} latency=100 {extra}')
        self.pipeline = Gst.Pipeline.new(None)
        self.pipeline.add(source)
        self.branches = {}
        for kind in ("video", "audio"):
            branch = Gst.parse_bin_from_description(
                f"decodebin name=entry ! {kind}convert ! "
                f"fakesink name={kind} sync=false async=false signal-handoffs=true", False)
            branch.add_pad(Gst.GhostPad.new("sink", branch.get_by_name("entry").get_static_pad("sink")))
            self.pipeline.add(branch)
            self.branches[kind] = branch
        source.connect("pad-added", self.link)
        self.times = {"video": [], "audio": []}
        for kind, times in self.times.items():
            sink = self.pipeline.get_by_name(kind)
            sink.connect("handoff", lambda _sink, buffer, _pad, times=times: times.append(buffer.pts))
        self.bus = self.pipeline.get_bus()

    def link(self, _source, pad):
        """Each stream has its branch: links by a description's words, made for two pads at once, at times lose one."""
        kind = (pad.get_current_caps() or pad.query_caps()).get_structure(0).get_string("media")
        pad.link(self.branches[kind].get_static_pad("sink"))

    def __enter__(self):
        self.set_state(Gst.State.PLAYING)
        return self

    def __exit__(self, *_):
        self.pipeline.set_state(Gst.State.NULL)

    def set_state(self, state):
        assert self.pipeline.set_state(state) != Gst.StateChangeReturn.FAILURE

    def wait_for_pictures(self, count):
        self.wait(lambda: len(self.times["video"]) > count)

    def wait(self, done, limit=20.0):
        """Runs until `done` holds; an error message fails."""
        end = Gst.util_get_timestamp() + int(limit * SECOND)
        while not done():
            assert Gst.util_get_timestamp() < end, {kind: len(times) for kind, times in self.times.items()}
            message = self.bus.timed_pop_filtered(20 * Gst.MSECOND, Gst.MessageType.ERROR)
            assert message is None, message.parse_error()


class GStreamer(unittest.TestCase):
    def test_recording_is_paused_resumed_and_sought(self):
        with Host() as host, Player(host.url("1_0_clip.kav"), "tcp") as player:
            player.wait_for_pictures(20)
            player.set_state(Gst.State.PAUSED)
            player.pipeline.get_state(5 * SECOND)
            paused_at = len(player.times["video"])
            player.set_state(Gst.State.PLAYING)
            player.wait_for_pictures(paused_at + 10)
            ok, duration = player.pipeline.query_duration(Gst.Format.TIME)
            self.assertTrue(ok)
            self.assertAlmostEqual(duration / SECOND, 4.0, delta=0.2)
            self.assertTrue(player.pipeline.seek_simple(Gst.Format.TIME, Gst.SeekFlags.FLUSH, 0))
            # From the start again there are more pictures than were left.
            player.wait_for_pictures(len(player.times["video"]) + 70)

    def test_programs_end_well_with_a_password(self):
        with Host("--user", "admin:secret") as host, \
                Relay(host.port, words=(b"WWW-Authenticate: Digest", b"X-Authenticate-: Digest-")) as basic:
            recording = host.url("1_0_clip.kav")
            rows = [(url, protocols, end) for protocols in ("tcp", "udp")
                    for url, end in ((host.url(), "num-buffers=50"), (recording, ""),
                                     (recording.replace(str(host.port), str(basic.port)), ""))]
            with futures.ThreadPoolExecutor(len(rows)) as pool:
                programs = [pool.submit(self.play_with_password, *row) for row in rows]
                for row, program in zip(rows, programs):
                    with self.subTest(row=row):
                        self.assertEqual((0, ""), program.result())

    @staticmethod
    def play_with_password(url, protocols, end):
        return gst_outcome(*f"rtspsrc location={url} user-id=admin user-pw=secret protocols={protocols} name=source "
                           f"source. ! rtph264depay ! avdec_h264 ! fakesink {end} "
                           f"source. ! rtppcmadepay ! alawdec ! fakesink {end}".split())

    def test_recording_is_played_to_its_last_picture(self):
        for options in ((), ("--as-described",)):
            with Host(*options) as host, Player(host.url("1_0_clip.kav"), "tcp") as player:
                self.assertIsNotNone(player.bus.timed_pop_filtered(60 * SECOND, Gst.MessageType.EOS))
                self.assertEqual(100, len(player.times["video"]))


if __name__ == "__main__":
    Gst.init(None)
    main()
