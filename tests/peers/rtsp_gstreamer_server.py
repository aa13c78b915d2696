"""GStreamer's RTSP server with a stream for each payload: rtsp_gstreamer_server.py PORT LOGIN_PORT SECONDS. Prints a
line when it listens. Each client has a stream of its own, those of /shared/h264 and the like the same. /tcp is to be
had over TCP only; what LOGIN_PORT has is for viewer with p@ss, by Digest."""
import sys

import gi
gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

VIDEO = "videotestsrc is-live=true pattern=ball ! video/x-raw,format=I420,width=320,height=240,framerate=20/1 ! "
H264 = VIDEO + "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=20 ! rtph264pay name=pay0 pt=96 "
STREAMS = {
    "/h264": H264,
    "/h265": VIDEO + "x265enc tune=zerolatency speed-preset=ultrafast key-int-max=20 ! rtph265pay name=pay0 pt=96",
    "/jpeg": VIDEO + "jpegenc ! rtpjpegpay name=pay0 pt=26",
    "/aac": "audiotestsrc is-live=true ! avenc_aac ! rtpmp4gpay name=pay0 pt=97",
    "/both": H264 + "audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay name=pay1 pt=0",
    "/tcp": H264,
}


def serve(port, streams, auth=None):
    server = GstRtspServer.RTSPServer(service=port, address="127.0.0.1")
    server.set_auth(auth)
    for path, launch in streams.items():
        factory = GstRtspServer.RTSPMediaFactory()
        factory.set_launch(f"( {launch} )")
        factory.set_shared(path.startswith("/shared"))
        if auth:
            factory.add_role_from_structure(Gst.Structure.from_string(
                "viewer, media.factory.access=(boolean)true, media.factory.construct=(boolean)true")[0])
        if path == "/tcp":
            factory.set_protocols(GstRtsp.RTSPLowerTrans.TCP)
        server.get_mount_points().add_factory(path, factory)
    server.attach(None)
    return server


Gst.init(None)
login = GstRtspServer.RTSPAuth()
login.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
token = GstRtspServer.RTSPToken()
token.set_string("media.factory.role", "viewer")
login.add_digest("viewer", "p@ss", token)
SHARED = {"/shared" + path: launch for path, launch in STREAMS.items()}
servers = serve(sys.argv[1], {**STREAMS, **SHARED}), serve(sys.argv[2], {"/h264": H264}, login)
loop = GLib.MainLoop()
GLib.timeout_add_seconds(int(sys.argv[3]), loop.quit)
print("ready", flush=True)
loop.run()
