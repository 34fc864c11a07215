#!/usr/bin/env python3
"""vidora-host with players that tunnel RTSP through HTTP: tunnel_test.py HOST MEDIA [unittest arguments]."""
import contextlib
import unittest

from gst_test import Gst, Player
from host_support import MEDIA, Host, is_run_of_loop, main
from peers import frame_digests
from relay import Relay

TUNNEL = ("-rtsp_transport", "http")
RECORDING = "1_0_clip.kav"
# With or without Digest; straight, or through a relay that cuts requests at every place: into single bytes, or into
# pieces that grow and so meet every place of a quantum and of a request.
ROWS = ((None, None), ("admin:secret", None), (None, range(1, 97)), ("admin:secret", (1,)))


@contextlib.contextmanager
def tunnelled_host(user, sizes):
    """Gives what makes the URL of a content."""
    with contextlib.ExitStack() as stack:
        host = stack.enter_context(Host(*(("--user", user) if user else ())))
        port = stack.enter_context(Relay(host.port, sizes)).port if sizes else host.port
        yield lambda *words, **names: host.url(*words, **names).replace(f":{host.port}/", f":{port}/")


class Players(unittest.TestCase):
    def test_ffmpeg(self):
        pictures = frame_digests("-i", f"{MEDIA}/clip.h264")[0]
        for user, sizes in ROWS:
            with self.subTest(user=user, sizes=sizes), tunnelled_host(user, sizes) as url:
                digests = frame_digests(*TUNNEL, "-i", url(user=user), "-t", "2")
                self.assertGreater(len(digests[0]), 30)
                self.assertGreater(len(digests[1]), 30)
                self.assertTrue(is_run_of_loop(digests[0], pictures))
                # The end of the GET's reply, which has no length, is an error to this player.
                digests = frame_digests(*TUNNEL, "-i", url(RECORDING, user), joins=True)
                self.assertEqual(digests[0], pictures)

    def test_gstreamer(self):
        # The tunnel is asked for by the scheme; in it media are interleaved.
        for user, sizes in ROWS:
            login = "user-id=admin user-pw=secret" if user else ""
            with self.subTest(user=user, sizes=sizes), tunnelled_host(user, sizes) as url:
                for location, least in ((url(), 50), (url(RECORDING), 60)):
                    with Player(location.replace("rtsp:", "rtsph:"), "tcp", login) as player:
                        player.wait_for_pictures(least)


if __name__ == "__main__":
    Gst.init(None)
    main()
