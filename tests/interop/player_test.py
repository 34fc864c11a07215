#!/usr/bin/env python3
"""What FFmpeg records of vidora-host: player_test.py HOST MEDIA [unittest arguments].

RECORD_SECONDS in the environment records for longer."""
import os
import unittest
from concurrent import futures

from host_support import HOST, Host, main
from peers import Folder, ffmpeg, outcome

SECONDS = int(os.environ.get("RECORD_SECONDS", "7"))  # a sender report behind the first one
NO_PTS = -2**63  # of pictures before FFmpeg knows how they are reordered
EDGE = 8  # units at the beginning and the end, where pictures miss those that are shown between them
PICTURE_MS, G711_MS, MPEG_AUDIO_MS = 40, 40, 24


class TimeStamps(unittest.TestCase):
    """A sender report must not move the time line of who dates by it."""

    @classmethod
    def setUpClass(cls):
        cls.folder = cls.enterClassContext(Folder())
        pictures = ("-f", "lavfi", "-i", f"testsrc=size=320x240:rate=25:duration={SECONDS + 8}")
        sound = ("-f", "lavfi", "-i", f"sine=sample_rate=48000:duration={SECONDS + 8}")
        ffmpeg(*sound, "-ac", "1", "-c:a", "mp2", cls.folder("sound.mp2"))
        for b_pictures in ("0", "2"):
            ffmpeg(*pictures, *sound, "-c:v", "libx264", "-preset", "ultrafast", "-threads", "1", "-bf", b_pictures,
                   "-g", "25", cls.folder(f"{b_pictures}.mp4"))
        for name, files in (("alaw", "0.mp4"), ("mpa", "0.mp4,sound.mp2"), ("b", "2.mp4")):
            files = ",".join(cls.folder(file) for file in files.split(","))
            code, _, errors = outcome(HOST, "--live", f"a={files}", "--make-kav", cls.folder(f"{name}.kav"))
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
        names = {"alaw": G711_MS, "mpa": MPEG_AUDIO_MS, "b": G711_MS}
        live = [word for name in names for word in ("--live", f"{name}={self.folder(f'{name}.kav')}")]
        rows = [(content, transport, audio_ms) for name, audio_ms in names.items() for content in (name, f"{name}.kav")
                for transport in ("tcp", "udp")]
        with Host(*live, "--recordings", self.folder.name, live=False) as host, \
                futures.ThreadPoolExecutor(len(rows)) as pool:
            recorded = [pool.submit(self.steps, host.url(content), transport) for content, transport, _ in rows]
            for (content, transport, audio_ms), steps in zip(rows, recorded):
                for kind, values, wanted in zip(("video", "audio"), steps.result(), (PICTURE_MS, audio_ms)):
                    with self.subTest(content=content, transport=transport, kind=kind):
                        # A tick of the source's clock, which is a millisecond.
                        self.assertGreater(len(values), (SECONDS - 3) * 1000 / wanted)
                        self.assertEqual([step for step in values if abs(step - wanted) > 1.01], [])


if __name__ == "__main__":
    main()
