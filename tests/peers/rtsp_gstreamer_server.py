"""GStreamer's RTSP server with a stream for each payload: rtsp_gstreamer_server.py ADDRESS PORT DIGEST BASIC TLS SECONDS
[PEM]. Prints a line when it listens. Each client has a stream of its own, those of /shared/h264 and the like the same.
/tcp is to be had over TCP only, /group by multicast from interface v only; /sizes doubles its size after three seconds.
On the ports DIGEST and BASIC viewer logs in with p@ss; TLS is served with a PEM file of certificate and key."""
import sys

import gi
gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import Gio, GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

VIDEO = "videotestsrc is-live=true pattern=ball ! capsfilter name=size caps=video/x-raw,format=I420,width=320,height=240,framerate=20/1 ! "
H264 = VIDEO + "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=20 ! rtph264pay name=pay0 pt=96 "
STREAMS = {
    "/h264": H264,
    "/h265": VIDEO + "x265enc tune=zerolatency speed-preset=ultrafast key-int-max=20 ! rtph265pay name=pay0 pt=96",
    "/jpeg": VIDEO + "jpegenc ! rtpjpegpay name=pay0 pt=26",
    "/aac": "audiotestsrc is-live=true ! avenc_aac ! rtpmp4gpay name=pay0 pt=97",
    "/both": H264 + "audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay name=pay1 pt=0",
    "/tcp": H264,
    "/group": H264,
    "/sizes": H264,
}


def grow(_, media):
    size = media.get_element().get_by_name("size")
    GLib.timeout_add_seconds(3, size.set_property, "caps", Gst.Caps.from_string("video/x-raw,format=I420,width=640,height=480,framerate=20/1"))


def serve(port, streams, auth=None):
    server = GstRtspServer.RTSPServer(service=port, address=ADDRESS)
    server.set_auth(auth)
    for path, launch in streams.items():
        factory = GstRtspServer.RTSPMediaFactory()
        factory.set_launch(f"( {launch} )")
        factory.set_shared(path.startswith("/shared"))
        factory.add_role_from_structure(Gst.Structure.from_string(
            "viewer, media.factory.access=(boolean)true, media.factory.construct=(boolean)true")[0])
        if path == "/tcp":
            factory.set_protocols(GstRtsp.RTSPLowerTrans.TCP)
        if path == "/group":
            groups = GstRtspServer.RTSPAddressPool()
            groups.add_range("239.255.78.1", "239.255.78.1", 5004, 5005, 1)
            factory.set_address_pool(groups)
            factory.set_multicast_iface("v")
            factory.set_protocols(GstRtsp.RTSPLowerTrans.UDP_MCAST)
        if path == "/sizes":
            factory.connect("media-configure", grow)
        server.get_mount_points().add_factory(path, factory)
    server.attach(None)
    return server


Gst.init(None)
ADDRESS, PLAIN, DIGEST, BASIC, TLS, SECONDS, *PEM = sys.argv[1:]
viewer = GstRtspServer.RTSPToken()
viewer.set_string("media.factory.role", "viewer")
digest, basic, tls = (GstRtspServer.RTSPAuth() for _ in range(3))
digest.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
digest.add_digest("viewer", "p@ss", viewer)
basic.add_basic(GstRtspServer.RTSPAuth.make_basic("viewer", "p@ss"), viewer)
ONE = {"/h264": H264}
servers = [serve(PLAIN, {**STREAMS, **{"/shared" + path: launch for path, launch in STREAMS.items()}}), serve(DIGEST, ONE, digest), serve(BASIC, ONE, basic)]
if PEM:
    tls.set_tls_certificate(Gio.TlsCertificate.new_from_file(PEM[0]))
    tls.set_default_token(viewer)
    servers.append(serve(TLS, ONE, tls))
loop = GLib.MainLoop()
GLib.timeout_add_seconds(int(SECONDS), loop.quit)
print("ready", flush=True)
loop.run()
