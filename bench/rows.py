"""The rows of the bench. One line each: what runs at both ends, how much, and what is to be reached."""
from typing import NamedTuple

MB = 1_000_000


class Row(NamedTuple):
    """`near` is the prefix of the near programs; `far` is the far side's command line. A far side that is given
    {port} or {ports} is started when the near side listens; another listens itself.

    {amount}, {rounds} (with those of the warm-up) and {bytes} (of messages) are filled in."""
    group: str
    title: str
    goal: str
    near: str
    mode: str
    far: str
    amount: int
    connections: int
    programs: dict  # near program: its variant; "raw" is the limit row
    kind: str = "rate"  # rate: throughput and cpu; cpu: paced, so cpu and memory; memory: KiB for each connection
    unit: str = "/s"
    path_ms: int = 0
    environment: dict = {}


def all_of(*names, variant=""):
    return dict.fromkeys(names, variant)


def tcp(title, goal, mode, far, amount, connections, programs, **more):
    return Row("tcp", title, goal, "near", mode, far, amount, connections, programs, **more)


TUNED = {"BENCH_TUNED": "1"}  # the library leaves buffer sizes to the kernel
TCP = ("raw", "nuvika", "asio", "libuv", "qt")
HTTP = ("raw", "nuvika", "curl", "qt")


def streams():
    yield tcp("one TCP stream received, heavy profile", "1.0, cpu 0.9", "recv", "far source {amount}", 3000 * MB, 1,
                {**all_of(*TCP), "nuvika": "heavy"}, unit="MB/s")
    yield tcp("one TCP stream sent, heavy profile", "1.0, cpu 1.15", "send", "far sink {amount}", 3000 * MB, 1,
                {**all_of(*TCP), "nuvika": "heavy"}, unit="MB/s")
    for mode, far, verb in (("recv", "source", "received"), ("send", "sink", "sent")):
        yield tcp(f"one TCP stream {verb}, medium profile", "0.60", mode, f"far {far} {{amount}}", 1000 * MB, 1,
                    {"raw": "", "plain": "medium", "nuvika": "medium"}, unit="MB/s")
    yield tcp("one TCP stream received, medium profile at both ends", "0.80", "recv", "far source {amount} {medium}",
                1000 * MB, 1, {"raw": "", "plain": "medium", "nuvika": "medium"}, unit="MB/s")
    for mode, far, verb in (("recv", "source", "received"), ("send", "sink", "sent")):
        yield tcp(f"one TCP stream {verb}, buffers that the kernel tunes", "1.0", mode, f"far {far} {{amount}}",
                    3000 * MB, 1, {"raw": "", "nuvika": "medium"}, unit="MB/s", environment=TUNED)


def connections():
    yield tcp("64-byte ping-pong, one connection", "0.92", "ping", "far echo", 30000, 1, all_of(*TCP))
    yield tcp("1,000 connections echoing 256 bytes, all active", "0.92, cpu 1.15", "echo",
                "far load {port} {rounds} {connections}", 200000, 1000, all_of(*TCP))
    yield tcp("5,000 connections, all active", "0.90, cpu 1.2", "echo", "far load {port} {rounds} {connections}",
                150000, 5000, all_of(*TCP))
    yield tcp("1,000 connections, one active at a time", "0.80", "echo", "far one {port} {rounds} {connections}",
                20000, 1000, all_of(*TCP))
    yield tcp("accepted connections", "0.97, cpu 1.45", "accept", "far connects {port} {rounds}", 12000, 1, all_of(*TCP))
    yield tcp("accepted connections, a TCP socket on each", "0.9, cpu 1.6", "acceptsocket",
                "far connects {port} {rounds}", 12000, 1, all_of(*TCP))
    yield tcp("connects", "0.85, cpu 1.5", "connect", "far hangup", 12000, 1, all_of(*TCP))


def cameras():
    title, far = "200 MJPEG cameras over HTTP, ", "far_cameras pictures {connections} %d 1460"
    peers = all_of("asio", "curl", "qt")
    yield Row("cameras", title + "10 pictures a second each", "cpu 1.25", "near_mjpeg", "watch", far % 10, 10000, 200,
              {"raw": "", "nuvika": "", **peers}, "cpu")
    yield Row("cameras", title + "the most pictures", "1.0", "near_mjpeg", "watch", far % 0, 40000, 200,
              {"raw": "2097152", "plain": "medium", "nuvika": "", **peers})
    yield Row("cameras", title + "the most pictures, buffers that the kernel tunes", "1.0", "near_mjpeg", "watch", far % 0,
              40000, 200, {"raw": "2097152", "nuvika": "", "curl": ""}, environment=TUNED)
    yield Row("cameras", "200 RTP streams, 85,000 packets a second, statistics included", "cpu 1.15, none lost",
              "near_rtp", "rtp", "far_cameras rtp {amount} 85000 {ports}", 500000, 200,
              all_of("raw", "nuvika", "asio", "qt"), "cpu")
    yield Row("cameras", "200 RTP streams, gaps counted only, as the peers of the row above do", "cpu 1.15, none lost",
              "near_rtp", "rtp", "far_cameras rtp {amount} 85000 {ports}", 500000, 200,
              {"raw": "", "nuvika": "gaps", "asio": ""}, "cpu")
    for used in ("", " used"):
        said = ", used once" if used else ""
        for profile in ("light", "medium", "heavy"):
            peers = ("raw", "asio", "libuv", "qt") if profile == "medium" else ()
            yield Row("cameras", f"an idle connection of 5,000, {profile} profile{said}", "2 to 3 KiB", "near_idle", "idle",
                      "far_cameras hold", 1, 5000, {**all_of(*peers, variant="medium" + used), "nuvika": profile + used},
                      "memory")
        yield Row("cameras", f"an idle TLS connection of 1,000{said}", "30 KiB", "near_idle", "tls", "far tlsecho", 1, 1000,
                  all_of("raw", "nuvika", "qt", variant="medium" + used), "memory")


def rtsp():
    for mode, said in (("tcp", "interleaved"), ("udp", "UDP")):
        programs = all_of("raw", "nuvika", "avformat", "gstreamer")
        yield Row("rtsp", f"1,000 RTSP sessions, {said}, 85,000 packets a second", "cpu 1.3, none lost", "near_rtsp", mode,
                  "far_rtsp {connections} {amount} 85000", 510000, 1000, programs, "cpu")
        yield Row("rtsp", f"an idle RTSP session of 1,000, {said}", "32 KiB", "near_rtsp", "idle" + mode,
                  "far_rtsp {connections} 0 0", 1, 1000, programs, "memory")


def datagrams():
    def row(title, goal, mode, far, amount, programs):
        return Row("udp", title, goal, "near_udp", mode, far, amount, 1, programs)
    peers = ("raw", "nuvika", "asio", "libuv", "qt")
    yield row("datagrams of 1200 bytes received", "1.0, cpu 1.1", "udprecv", "far datagrams {port}", 1000000, all_of(*peers))
    yield row("datagrams received in runs", "cpu 0.35", "udprecv", "far runs {port}", 1000000, all_of(*peers))
    yield row("datagrams sent one by one, back to back", "0.95", "udpsend", "far drain", 200000, {**all_of(*peers), "plain": "sendto"})
    yield row("datagrams sent one by one, one each millisecond", "0.95", "udppaced", "far drain", 2000, {**all_of(*peers), "plain": "sendto"})
    yield row("pictures of 30 packets sent in one call", "cpu 0.25", "udpbatch", "far drain", 600000, all_of("raw", "nuvika"))


def messages():
    def row(title, goal, mode, far, amount, *names):
        return Row("msg", title, goal, "near_msg", mode, far, amount, 1, all_of("raw", "nuvika", *names))
    yield row("framed 108-byte messages received", "0.60", "msgrecv", "far frames {amount}", 5000000, "asio", "qt")
    yield row("framed 108-byte messages sent", "0.50", "msgsend", "far framesink {bytes}", 5000000, "asio", "qt")
    yield row("the same encrypted, received", "0.80", "msgrecvenc", "far eframes {amount}", 2000000)


def tls():
    def row(title, goal, mode, far, amount, programs, unit="/s", **more):
        return Row("tls", title, goal, "near_tls", mode, far, amount, 1, programs, unit=unit, **more)
    for mode, far, verb, goal in (("tlsrecv", "tlssource", "received", "1.0, cpu 1.1"), ("tlssend", "tlssink", "sent", "1.0, cpu 0.9")):
        yield row(f"TLS stream {verb}", goal, mode, f"far {far} {{amount}}", 1000 * MB, all_of("raw", "nuvika", "asio", "qt"), "MB/s")
        yield row(f"TLS stream {verb}, buffers that the kernel tunes", "1.0", mode, f"far {far} {{amount}}", 1000 * MB,
                  all_of("raw", "nuvika"), "MB/s", environment=TUNED)
    yield row("full TLS handshakes", "", "tlshello", "far tlsfull", 2000, all_of("raw", "nuvika", "qt"))
    yield row("resumed TLS handshakes", "", "tlshello", "far tlsresumed", 2000, all_of("raw", "nuvika", "qt", variant="resumed"))


def http():
    def row(title, goal, what, amount=1, names=HTTP, **more):
        return Row("http", title, goal, "near", "http", "far http", amount, 1, all_of(*names, variant=what), **more)
    yield row("HTTP GET of 200 bytes, one kept-alive connection", "0.80, cpu 1.4", "small/200", 30000)
    yield row("the same with tracing on", "", "small/200", 10000, ("raw", "nuvika"), environment={"NUVIKA_LOG": "1"})
    yield row("HTTP body of 500 MB", "0.95, cpu 1.2", "big/500000000")
    yield row("HTTP body of 500 MB, buffers that the kernel tunes", "0.95", "big/500000000", names=("raw", "nuvika"), environment=TUNED)
    yield row("chunked body of 200 MB", "1.0, cpu 1.2", "chunked/200000000")
    yield Row("http", "multipart/x-mixed-replace, parts of 40 KB", "1.1, cpu 1.35", "near_mjpeg", "watch",
              "far_cameras pictures {connections} 0", 40000, 1,
              {"raw": "262144", "nuvika": "", "asio": "", "curl": "", "qt": "manager"})
    yield Row("http", "the same, buffers that the kernel tunes", "1.1, cpu 1.35", "near_mjpeg", "watch",
              "far_cameras pictures {connections} 0", 40000, 1, {"raw": "262144", "nuvika": "", "curl": ""}, environment=TUNED)


def path():
    """Over a path whose round trip takes 50 ms: with the profile's buffers, and with those that the kernel tunes."""
    def row(title, near, mode, far, amount, programs, **more):
        return Row("path", title + ", 50 ms away", "", near, mode, far, amount, 1, programs, unit="MB/s", path_ms=50, **more)
    for mode, far, verb in (("recv", "far source {amount}", "received"), ("send", "far sink {amount}", "sent")):
        stream = f"one TCP stream of 20 MB {verb}"
        yield row(f"{stream}, heavy profile", "near", mode, far, 20 * MB, {"raw": "", "nuvika": "heavy"})
        yield row(f"{stream}, medium profile", "near", mode, far, 20 * MB, {"raw": "", "nuvika": "medium"})
        yield row(f"{stream}, tuned buffers", "near", mode, far, 20 * MB, {"raw": "", "nuvika": "medium", "qt": ""}, environment=TUNED)
    body = all_of("raw", "nuvika", variant="big/20000000")
    yield row("HTTP body of 20 MB", "near", "http", "far http", 1, body)
    yield row("HTTP body of 20 MB, tuned buffers", "near", "http", "far http", 1, all_of(*HTTP, variant="big/20000000"), environment=TUNED)
    yield row("TLS stream of 20 MB received, tuned buffers", "near_tls", "tlsrecv", "far tlssource {amount}", 20 * MB,
              all_of("raw", "nuvika", "qt"), environment=TUNED)


ROWS = [row for rows in (cameras, rtsp, streams, connections, datagrams, messages, tls, http, path) for row in rows()]
GROUPS = ["cameras", "rtsp", "tcp", "udp", "msg", "tls", "http", "path", "idle", "server", "micro"]

# Micro rows, times in ns by Google Benchmark: title, goal, limit, ours, peers
MICRO = [
    ("block pool, 64 blocks of 4096", "1.3", "poolLimit", "poolNuvika", ["poolBoost"]),
    ("block pool with its mutex", "0.9", "poolMutexLimit", "poolMutexNuvika", []),
    ("byte FIFO put, peek, consume, 64 KiB", "1.4", "fifoLimit", "fifoNuvika", ["fifoEvbuffer"]),
    ("RTP header check and reads", "2.5", "rtpLimit", "rtpNuvika", ["rtpGstreamer"]),
    ("SDP of 25 lines parsed", "4.0", "sdpLimit", "sdpNuvika", ["sdpGstreamer"]),
    ("SDP from the cache", "1.5", "sdpLimit", "sdpNuvikaCached", []),
    ("HTTP head with 12 fields", "5.5", "headLimit", "headNuvika", ["headBeast"]),
    ("Digest credentials", "1.4", "digestLimit", "digestNuvika", ["digestPoco"]),
    ("AES-CBC tokens of 100 bytes", "1.18", "tokenLimit", "tokenNuvika", ["tokenNewContext"]),
    ("command line with 12 parameters", "2.0", "commandLimit", "commandNuvika", ["commandBoost", "commandQt"]),
]
