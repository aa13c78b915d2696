"""RTP with real peers: ffmpeg and GStreamer as senders, GStreamer as a receiver, and a relay that loses and swaps."""
import json
import os
import re
import select
import socket
import subprocess
import threading
import time
import unittest

from peers import PeerTest, TOOL, demo, free_ports, process

FFMPEG = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-re", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=20",
          "-re", "-f", "lavfi", "-i", "sine"]
SYSTEM_PYTHON = "/usr/bin/python3"  # Debian's GStreamer bindings belong to it


def ffmpeg_to(host, port, seconds, sdp, query=""):
    return [*FFMPEG, "-map", "0", "-c:v", "libx264", "-preset", "ultrafast", "-g", "20", "-t", str(seconds), "-f", "rtp",
            f"rtp://{host}:{port}{query}", "-map", "1", "-c:a", "pcm_mulaw", "-ar", "8000", "-t", str(seconds),
            "-f", "rtp", f"rtp://{host}:{port + 2}{query}", "-sdp_file", sdp, "-y"]


def summary(text):
    """By kind of media: packets, lost, sender reports, gaps."""
    found = re.findall(r"^(\w+) \S.*: (\d+) packets, (\d+) lost .*, (\d+) sender reports, (\d+) gaps$", text, re.M)
    return {kind: tuple(map(int, rest)) for kind, *rest in found}


class Relay(threading.Thread):
    """Passes datagrams on from one port to another; drops and swaps some by their place."""

    def __init__(self, source, target, drop, swap):
        super().__init__(daemon=True)
        self.target, self.drop, self.swap = target, drop, swap
        self.passed = self.dropped = self.swapped = 0
        self.stopped = threading.Event()
        self.out, *self.sockets = (socket.socket(type=socket.SOCK_DGRAM) for _ in range(3))
        for offset, s in enumerate(self.sockets):
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
            s.bind(("127.0.0.1", source + offset))

    def send(self, data):
        self.out.sendto(data, ("127.0.0.1", self.target))
        self.passed += 1

    def run(self):
        held, count = None, 0
        while not self.stopped.is_set():
            for s in select.select(self.sockets, [], [], 0.05)[0]:
                data = s.recv(65536)
                if s is self.sockets[1]:
                    self.out.sendto(data, ("127.0.0.1", self.target + 1))
                    continue
                count += 1
                passes = count <= 2 or held is not None
                if not passes and count % self.drop == 0:
                    self.dropped += 1
                elif not passes and count % self.swap == 0:
                    held = data
                else:
                    self.send(data)
                    if held is not None:
                        self.send(held)
                        self.swapped += 1
                        held = None

    def end(self):
        self.stopped.set()
        self.join()
        for s in [*self.sockets, self.out]:
            s.close()


class Rtp(PeerTest):
    def description(self, host, port, query=""):
        """ffmpeg's own SDP file for this destination."""
        name = os.path.join(self.folder, "stream.sdp")
        subprocess.run(ffmpeg_to(host, port, 0.1, name, query), check=True, timeout=30)
        return name

    def receive(self, sender, description, seconds, *options, prefix=()):
        """What the tool sees of a sender that starts after it, sends what it has, and may end when it likes."""
        with process([*prefix, TOOL, "rtp", description, "--seconds", str(seconds), *options], stdout=subprocess.PIPE,
                     stderr=subprocess.STDOUT, text=True) as child:
            self.assertIn("Receiving", child.stdout.readline())
            with process([*prefix, *sender]):
                text = child.stdout.read()
            self.assertEqual(child.wait(10), 0, text)
        return summary(text), text

    def check_summary(self, seen, text, pictures):
        for kind, least in (("video", pictures), ("audio", 150)):
            packets, lost, reports, _ = seen[kind]
            self.assertGreaterEqual(packets, least, text)
            self.assertEqual((lost, reports > 0), (0, True), text)

    def check_ffmpeg(self, host, query="", *options, prefix=()):
        port = free_ports()
        description = self.description(host if not prefix else "127.0.0.1", port, query if not prefix else "")
        if prefix:
            with open(description) as file:
                text = file.read().replace("127.0.0.1", host)
            self.write("stream.sdp", text)
        seen, text = self.receive(ffmpeg_to(host, port, 4, os.devnull, query), description, 7, *options, prefix=prefix)
        self.check_summary(seen, text, 80)
        self.assertEqual([gaps for *_, gaps in seen.values()], [0, 0], text)
        year = time.strftime("%Y-", time.gmtime())
        self.assertIn("sender's clock " + year, text)

    def test_ffmpeg_unicast(self):
        self.check_ffmpeg("127.0.0.1")

    def test_ffmpeg_ipv6(self):
        self.check_ffmpeg("[::1]")

    def test_ffmpeg_multicast(self):
        self.check_ffmpeg("239.255.77.40", "?ttl=0", "--interface", "127.0.0.1", prefix=self.set_up_network(self.own_network("rtp"), "route add 239.0.0.0/8 dev lo"))

    def test_gstreamer_sends_with_reports(self):
        port = free_ports()
        description = self.write("gst.sdp", "v=0\no=- 1 1 IN IP4 127.0.0.1\ns=gst\nc=IN IP4 127.0.0.1\n"
                                 f"m=video {port} RTP/AVP 26\nm=audio {port + 2} RTP/AVP 0\n")
        branch = ("{source} ! bin.send_rtp_sink_{n} bin.send_rtp_src_{n} ! udpsink host=127.0.0.1 port={rtp}"
                  " bin.send_rtcp_src_{n} ! udpsink host=127.0.0.1 port={rtcp} sync=false async=false ")
        video = "videotestsrc is-live=true num-buffers=60 ! video/x-raw,format=I420,width=160,height=120,framerate=15/1 ! jpegenc ! rtpjpegpay"
        audio = "audiotestsrc is-live=true num-buffers=180 samplesperbuffer=160 ! audio/x-raw,rate=8000 ! mulawenc ! rtppcmupay min-ptime=20000000 max-ptime=20000000"
        pipeline = "rtpbin name=bin " + branch.format(source=video, n=0, rtp=port, rtcp=port + 1) \
            + branch.format(source=audio, n=1, rtp=port + 2, rtcp=port + 3)
        seen, text = self.receive(["gst-launch-1.0", "-q", *pipeline.split()], description, 8)
        self.check_summary(seen, text, 60)

    def test_gstreamer_receives_what_we_send(self):
        with demo("--cameras", "1", "--multicast"):
            time.sleep(1)
            # The first simulated camera's group.
            out = subprocess.run([SYSTEM_PYTHON, os.path.join(os.path.dirname(__file__), "rtp_gstreamer_receiver.py"),
                                  "239.255.77.1", "5004", "6"], capture_output=True, text=True, timeout=60)
        self.assertEqual(out.returncode, 0, out.stderr)
        seen = json.loads(out.stdout)
        self.assertEqual(seen["faults"], [])
        self.assertGreaterEqual(seen["pictures"], 50, seen)
        self.assertEqual(seen["size"], 320 * 240 * 3 // 2, "decoded pictures of the right size")
        self.assertEqual(len(seen["sources"]), 1, seen)
        source = seen["sources"][0]
        self.assertLessEqual(source["lost"], 0, "a packet before its probation counts below zero: %s" % seen)
        self.assertGreater(source["packets"], 150, seen)
        self.assertTrue(source["reports"], "sender reports are accepted")
        unix = (source["ntp"] >> 32) - 2208988800
        self.assertLess(abs(unix - time.time()), 20, "the report's clock is the wall clock")

    def relayed(self, drop, swap):
        """What ffmpeg sends through a relay, as the tool reports it, beside what the relay did."""
        from_port, to_port = free_ports(), free_ports()
        description = self.write("relayed.sdp", f"v=0\no=- 1 1 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nm=audio {to_port} RTP/AVP 0\n")
        relay = Relay(from_port, to_port, drop, swap)
        relay.start()
        sender = [*FFMPEG, "-map", "1", "-c:a", "pcm_mulaw", "-ar", "8000", "-t", "5", "-f", "rtp", f"rtp://127.0.0.1:{from_port}?pkt_size=172"]
        seen, text = self.receive(sender, description, 8)
        relay.end()
        return relay, seen["audio"], text

    def test_loss_is_reported_as_it_was_made(self):
        relay, (packets, lost, _, gaps), text = self.relayed(10, 1 << 30)
        self.assertGreater(relay.dropped, 15, text)
        self.assertEqual((packets, lost, gaps > 0), (relay.passed, relay.dropped, True), text)

    def test_what_is_only_out_of_order_is_neither_lost_nor_a_gap(self):
        relay, (packets, lost, _, gaps), text = self.relayed(1 << 30, 7)
        self.assertGreater(relay.swapped, 20, text)
        self.assertEqual((packets, lost, gaps), (relay.passed, 0, 0), text)

    def test_sdp_shows_what_it_dropped(self):
        name = self.write("odd.sdp", "v=0\r\no=- 1 1 IN IP4 0.0.0.0\r\ns=x\r\nt=0 0\r\na=tool:x\r\n"
                          "m=video 0 RTP/AVP 96\r\nc=IN IP4 0.0.0.0\r\nc=IN IP4 0.0.0.0\r\nnonsense\r\n")
        out, errors = self.check_tool(0, "sdp", name)
        self.assertEqual(out.decode().splitlines(), ["v=0", "o=- 1 1 IN IP4 0.0.0.0", "s=x", "a=tool:x", "m=video 0 RTP/AVP 96", "c=IN IP4 0.0.0.0"])
        self.assertEqual(errors.splitlines(), ["line 4 dropped: t=0 0", "line 8 dropped: c=IN IP4 0.0.0.0",
                                               "line 9 dropped: nonsense",
                                               "4 session lines, 0 time descriptions, 1 media descriptions; 3 lines dropped"])
        self.check_tool(1, "rtp", name)  # a port of 0 is no stream
        self.check_tool(26, "sdp", self.path("absent"))
        self.check_tool(2, "rtp")

    def test_demo_shows_a_camera_that_loses_packets(self):
        text = self.check_tool(0, "demo", "--port", "0", "--seconds", "5", "--cameras", "2", "--loss", "10")[0].decode()
        found = re.search(r"camera 1 by RTP: (\d+) packets, (\d+) lost, (\d+) gaps", text)
        self.assertIsNotNone(found, text)
        packets, lost, gaps = map(int, found.groups())
        self.assertGreater(lost, 5, text)
        self.assertLess(lost, packets, text)
        self.assertGreater(gaps, 2, text)
        self.assertNotIn("camera 2 by RTP", text, "the other one loses nothing")


if __name__ == "__main__":
    unittest.main()
