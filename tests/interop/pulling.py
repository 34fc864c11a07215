"""vidora-pull as a process, and GStreamer's RTSP server for it to pull from. The third argument of the test is the
path of vidora-pull, and is taken off."""
import json
import os
import subprocess
import sys
import unittest

from peers import outcome, read_file

PULL = sys.argv.pop(3)
HERE = os.path.dirname(os.path.abspath(__file__))


class GstServer:
    """gst_server.py with these options, and with `inside` in front of the command."""

    def __init__(self, media, *options, inside=()):
        self.process = subprocess.Popen([*inside, sys.executable, f"{HERE}/gst_server.py", media, *options],
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


def nal_units(path, leave_out=()):
    """The NAL units of a file but those of the types (ISO 14496-10 table 7-1)."""
    units = (unit.rstrip(b"\0") for unit in read_file(path).split(b"\0\0\1")[1:])
    return [unit for unit in units if unit[0] & 31 not in leave_out]


class PullTest(unittest.TestCase):
    def pull(self, url, *options, inside=()):
        """The exit code, the summary and the errors; nothing else may come."""
        code, output, errors = outcome(*inside, PULL, url, "--json", "--log", "error", *options)
        self.assertTrue(output.count(b"\n") == 1 and "Sanitizer" not in errors, (code, output, errors))
        return code, json.loads(output), errors

    def check_pull(self, url, *options, inside=(), pictures=50, letters="I"):
        """A pull that succeeds, with so many pictures and frames of these letters; its frames by letter."""
        code, summary, errors = self.pull(url, *options, inside=inside)
        self.assertEqual((code, summary["failure"], summary["lost"]), (0, None, 0), (summary, errors))
        frames = summary["frames"]
        self.assertGreaterEqual(sum(frames.get(letter, 0) for letter in "IPBJ"), pictures, summary)
        self.assertEqual([letter for letter in letters if letter not in frames], [], summary)
        self.assertGreaterEqual(summary["first_frame_ms"], 0)
        self.assertGreater(summary["bytes"], 10000)
        return frames

    def check_failure(self, words, url, *options):
        code, summary, errors = self.pull(url, *options)
        self.assertEqual(code, 1)
        self.assertIn(words, summary["failure"] or "", errors)
