"""GStreamer's RTSP server as an independent server to pull from: gst_server.py MEDIA [--auth basic|digest] [--groups]

    /h264       H.264 of MEDIA/clip.h264, once, from the start for each client
    /jpeg       JPEG pictures
    /mpeg4      MPEG-4 pictures, once
    /both       H.264 with G.711 A-law
    /shared     H.264 of one encoder, for all clients (with --groups over multicast as well)

The first line of output is the port. While clients play, lines of JSON tell what their receiver reports say (RFC 3550
6.4.2): {"lost": packets, "fraction": of 256, "jitter": clock ticks, "lsr":, "dlsr":, "round_trip": 1/65536 s}.
"""
import argparse
import json
import signal
import subprocess
import sys
import tempfile

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

USER, PASSWORD = "viewer", "pass word"
X264 = "x264enc bframes=0 key-int-max=25 tune=zerolatency sliced-threads=false threads=1 speed-preset=ultrafast"
PICTURES = "videotestsrc {0} ! video/x-raw,format=I420,width=320,height=240,framerate=25/1"


def mounts(media, mp4):
    clip = f"filesrc location={media}/clip.h264 ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au"
    tone = "audiotestsrc is-live=true samplesperbuffer=320 ! audio/x-raw,rate=8000,channels=1 ! alawenc"
    live = PICTURES.format("is-live=true")
    return {
        "/h264": f"{clip} ! rtph264pay name=pay0 pt=96 config-interval=0 aggregate-mode=none",
        "/jpeg": f"{live} ! jpegenc ! rtpjpegpay name=pay0 pt=26",
        "/mpeg4": f"filesrc location={mp4} ! qtdemux ! mpeg4videoparse ! rtpmp4vpay name=pay0 pt=96 config-interval=1",
        "/both": f"{live} ! {X264} ! rtph264pay name=pay0 pt=96 {tone} ! rtppcmapay name=pay1 pt=8",
        "/shared": f"{live} ! {X264} ! rtph264pay name=pay0 pt=96",
    }


def report_blocks(media):
    for i in range(media.n_streams()):
        session = media.get_stream(i).get_rtpsession()
        stats = session.get_property("stats") if session else None
        for source in (stats.get_value("source-stats") or []) if stats else []:
            if source.get_value("internal") or not source.get_value("have-rb"):
                continue
            names = {"lost": "rb-packetslost", "fraction": "rb-fractionlost", "jitter": "rb-jitter", "lsr": "rb-lsr",
                     "dlsr": "rb-dlsr", "round_trip": "rb-round-trip"}
            yield {name: source.get_value(field) for name, field in names.items()}


def watch(factory, media):
    def tell():
        for block in report_blocks(media):
            print(json.dumps(block), flush=True)
        return media.get_status() == GstRtspServer.RTSPMediaStatus.PREPARED
    media.connect("prepared", lambda _: GLib.timeout_add(500, tell))


def make_auth(kind):
    auth = GstRtspServer.RTSPAuth()
    token = GstRtspServer.RTSPToken()
    token.set_string(GstRtspServer.RTSP_TOKEN_MEDIA_FACTORY_ROLE, USER)
    if kind == "basic":
        auth.set_supported_methods(GstRtsp.RTSPAuthMethod.BASIC)
        auth.add_basic(GstRtspServer.RTSPAuth.make_basic(USER, PASSWORD), token)
    else:
        auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
        auth.add_digest(USER, PASSWORD, token)
    return auth


def make_factory(path, launch, options):
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(f"( {launch} )")
    factory.set_shared(path == "/shared")
    factory.connect("media-configure", watch)
    if path == "/shared" and options.groups:
        pool = GstRtspServer.RTSPAddressPool()
        pool.add_range("239.255.77.1", "239.255.77.1", options.groups, options.groups + 9, 1)
        factory.set_address_pool(pool)
        factory.set_bind_mcast_address(True)
    protocols = GstRtsp.RTSPLowerTrans.TCP | GstRtsp.RTSPLowerTrans.UDP | GstRtsp.RTSPLowerTrans.UDP_MCAST
    factory.set_protocols(protocols)
    if options.auth:
        permissions = GstRtspServer.RTSPPermissions()
        permissions.add_permission_for_role(USER, GstRtspServer.RTSP_PERM_MEDIA_FACTORY_ACCESS, True)
        permissions.add_permission_for_role(USER, GstRtspServer.RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, True)
        factory.set_permissions(permissions)
    return factory


def make_mp4(folder):
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-t", "4", "-c:v",
                    "mpeg4", "-g", "12", "-bf", "0", f"{folder}/clip.mp4"], check=True)
    return f"{folder}/clip.mp4"


def serve(options, folder):
    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address(options.address)
    server.set_service("0")
    if options.auth:
        server.set_auth(make_auth(options.auth))
    for path, launch in mounts(options.media, make_mp4(folder)).items():
        server.get_mount_points().add_factory(path, make_factory(path, launch, options))
    if server.attach(None) == 0:
        sys.exit("the server can't listen")
    print(server.get_bound_port(), flush=True)
    loop = GLib.MainLoop()
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
    loop.run()


def main():
    reader = argparse.ArgumentParser()
    reader.add_argument("media")
    reader.add_argument("--address", default="127.0.0.1")
    reader.add_argument("--auth", choices=["basic", "digest"])
    reader.add_argument("--groups", type=int, default=0, help="first port of the multicast group")
    options = reader.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        serve(options, folder)


if __name__ == "__main__":
    main()
