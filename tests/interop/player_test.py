#!/usr/bin/env python3
"""vidora-host with mpv, and what FFmpeg records: player_test.py HOST MEDIA [unittest arguments].

RECORD_SECONDS in the environment records for longer."""
import contextlib
import os
import unittest

from host_support import HOST, LIVE, Host, main
from peers import Folder, ffmpeg, outcome

SECONDS = int(os.environ.get("RECORD_SECONDS", "12"))  # two sender reports and the first one
NO_PTS = -2**63  # of pictures before FFmpeg knows how they are reordered
EDGE = 8  # units at the beginning and the end, where pictures miss those that are shown between them
PICTURE_MS, G711_MS, MPEG_AUDIO_MS = 40, 40, 24


class Mpv(unittest.TestCase):
    def test_live_and_recording_over_tcp_and_udp(self):
        with Host("--user", "admin:secret") as host:
            for content in (LIVE, "1_0_clip.kav"):
                for transport in ("tcp", "udp"):
                    with self.subTest(content=content, transport=transport):
                        code, output, errors = outcome(
                            "mpv", "--no-config", "--vo=null", "--ao=null", f"--rtsp-transport={transport}",
                            "--frames=40", "--term-playing-msg=${video-format} ${audio-codec-name}",
                            host.url(content, user="admin:secret"))
                        self.assertEqual(code, 0, (output, errors))
                        self.assertIn(b"h264 pcm_alaw", output)


class TimeStamps(unittest.TestCase):
    """A sender report must not move the time line of who dates by it."""

    @classmethod
    def setUpClass(cls):
        cls.folder = cls.enterClassContext(Folder())
        inputs = ("-f", "lavfi", "-i", f"testsrc=size=320x240:rate=25:duration={SECONDS + 8}", "-f", "lavfi", "-i",
                  f"sine=sample_rate=48000:duration={SECONDS + 8}")
        ffmpeg(*inputs, "-c:v", "libx264", "-preset", "ultrafast", "-threads", "1", "-bf", "2", "-g", "25",
               "-x264-params", "slices=1", cls.folder("b.mp4"), "-vn", "-ac", "1", "-c:a", "mp2", cls.folder("b.mp2"))
        for name, audio in (("alaw", ""), ("mpa", f",{cls.folder('b.mp2')}")):
            code, _, errors = outcome(HOST, "--live", f"a={cls.folder('b.mp4')}{audio}", "--make-kav",
                                      cls.folder(f"{name}.kav"))
            assert code == 0, errors

    def steps(self, url, transport):
        """The steps between the time stamps of a recording of each stream, in milliseconds; pictures by their order."""
        code, text, errors = outcome("ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", transport, "-i", url, "-t",
                                     str(SECONDS), "-c", "copy", "-f", "framecrc", "-", limit=SECONDS + 120)
        self.assertEqual(code, 0, errors)
        ticks, times = {}, {}
        for line in text.decode().splitlines():
            if line.startswith("#tb"):
                stream, base = line[4:].split(": ")
                ticks[stream] = 1000 * int(base.split("/")[0]) / int(base.split("/")[1])
            elif line[0] != "#":
                stream, _, pts = [field.strip() for field in line.split(",")[:3]]
                if int(pts) != NO_PTS:
                    times.setdefault(stream, []).append(int(pts) * ticks[stream])
        ordered = {stream: sorted(values) for stream, values in times.items()}
        return [[b - a for a, b in zip(values[EDGE:-EDGE], values[EDGE + 1:-EDGE])] for _, values in sorted(ordered.items())]

    def test_recorded_time_stamps_have_even_steps_over_sender_reports(self):
        with contextlib.ExitStack() as stack:
            live = ("--live", f"alaw={self.folder('alaw.kav')}", "--live", f"mpa={self.folder('mpa.kav')}")
            host = stack.enter_context(Host(*live, live=False))
            rows = [(f"{name}", transport, step) for name, step in (("alaw", G711_MS), ("mpa", MPEG_AUDIO_MS))
                    for transport in ("tcp", "udp")]
            for name, transport, audio_ms in rows:
                with self.subTest(name=name, transport=transport):
                    video, audio = self.steps(host.url(name), transport)
                    for steps, wanted in ((video, PICTURE_MS), (audio, audio_ms)):
                        # A tick of the source's clock, which is a millisecond.
                        self.assertGreater(len(steps), SECONDS * 1000 / wanted * 0.8)
                        self.assertLessEqual(max(abs(step - wanted) for step in steps), 1.01,
                                             [step for step in steps if abs(step - wanted) > 1.01])


if __name__ == "__main__":
    main()
