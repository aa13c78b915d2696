"""GStreamer's rtpbin receiving a group on loopback: prints what it thinks of the stream, as JSON.

Run by the system's own python, for which Debian packages GStreamer: GROUP PORT SECONDS"""
import json
import sys

import gi

gi.require_version("Gst", "1.0")
from gi.repository import GLib, Gst  # noqa: E402

group, port, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
Gst.init(None)
pipeline = Gst.parse_launch(
    f"rtpbin name=bin udpsrc address={group} port={port} multicast-iface=lo buffer-size=1000000"
    " caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=JPEG,payload=26 ! bin.recv_rtp_sink_0"
    f" udpsrc address={group} port={port + 1} multicast-iface=lo ! bin.recv_rtcp_sink_0"
    " bin. ! rtpjpegdepay ! jpegdec ! fakesink name=end signal-handoffs=true sync=false")
pictures, faults = [], []
pipeline.get_by_name("end").connect("handoff", lambda sink, buffer, pad: pictures.append(buffer.get_size()))
seen = set()
pipeline.get_by_name("bin").connect("on-new-ssrc", lambda b, number, ssrc: seen.add(ssrc))
bus = pipeline.get_bus()
bus.add_signal_watch()
bus.connect("message::error", lambda b, message: faults.append(message.parse_error()[0].message))
loop = GLib.MainLoop()
GLib.timeout_add(int(seconds * 1000), loop.quit)
pipeline.set_state(Gst.State.PLAYING)
loop.run()

session = pipeline.get_by_name("bin").emit("get-internal-session", 0)
sources = []
for ssrc in seen:
    source = session.emit("get-source-by-ssrc", ssrc).props.stats
    if source.get_value("is-sender"):
        sources.append({"packets": source.get_value("packets-received"), "lost": source.get_value("packets-lost"),
                        "reports": source.get_value("have-sr"), "ntp": source.get_value("sr-ntptime")})
pipeline.set_state(Gst.State.NULL)
print(json.dumps({"pictures": len(pictures), "size": pictures[0] if pictures else 0, "sources": sources, "faults": faults}))
