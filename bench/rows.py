"""Runs the bench's rows: programs alternate, each repetition's ratio is taken to its own limit row."""
import argparse
import contextlib
import os
import re
import resource
import socket
import statistics
import subprocess
import sys
import time

FOLDER = ""
MB = 1_000_000

# group, row, near mode, far mode, amount, connections, {program: variant}
ROWS = [
    ("tcp", "one TCP stream received, heavy profile", "recv", "source", 3000 * MB, 1,
     {"raw": "", "nuvika": "heavy", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "one TCP stream sent, heavy profile", "send", "sink", 3000 * MB, 1,
     {"raw": "", "nuvika": "heavy", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "one TCP stream received, medium profile", "recv", "source", 1000 * MB, 1, {"raw": "", "nuvika": "medium"}),
    ("tcp", "one TCP stream sent, medium profile", "send", "sink", 1000 * MB, 1, {"raw": "", "nuvika": "medium"}),
    ("tcp", "one TCP stream received, medium profile at both ends", "recv", "source", 1000 * MB, 1, {"raw": "", "nuvika": "medium"}),
    ("tcp", "64-byte ping-pong, one connection", "ping", "echo", 30000, 1,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "1,000 connections echoing 256 bytes, all active", "echo", "load", 200000, 1000,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "5,000 connections, all active", "echo", "load", 150000, 5000,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "1,000 connections, one active at a time", "echo", "one", 20000, 1000,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "accepted connections", "accept", "connects", 12000, 1,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("tcp", "accepted connections, a TCP socket on each", "acceptsocket", "connects", 5000, 1, {"raw": "", "nuvika": ""}),
    ("udp", "datagrams of 1200 bytes received", "udprecv", "datagrams", 1000000, 1,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("udp", "datagrams sent one by one, back to back", "udpsend", "drain", 200000, 1,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("udp", "datagrams sent one by one, one each millisecond", "udppaced", "drain", 2000, 1,
     {"raw": "", "nuvika": "", "asio": "", "libuv": "", "qt": ""}),
    ("udp", "datagrams sent 30 at a time", "udpbatch", "drain", 600000, 1, {"raw": "", "nuvika": ""}),
    ("msg", "framed 108-byte messages received", "msgrecv", "frames", 5000000, 1, {"raw": "", "nuvika": "", "qt": ""}),
    ("msg", "framed 108-byte messages sent", "msgsend", "framesink", 5000000, 1, {"raw": "", "nuvika": "", "qt": ""}),
    ("msg", "the same encrypted, received", "msgrecvenc", "eframes", 2000000, 1, {"raw": "", "nuvika": ""}),
    ("tls", "TLS stream received", "tlsrecv", "tlssource", 1000 * MB, 1, {"raw": "", "nuvika": "", "asio": "", "qt": ""}),
    ("tls", "TLS stream sent", "tlssend", "tlssink", 1000 * MB, 1, {"raw": "", "nuvika": "", "asio": "", "qt": ""}),
    ("tls", "full TLS handshakes", "tlshello", "tlsfull", 2000, 1, {"raw": "", "nuvika": "", "qt": ""}),
    ("tls", "resumed TLS handshakes", "tlshello", "tlsresumed", 2000, 1, {"raw": "resumed", "nuvika": "resumed", "qt": "resumed"}),
    ("http", "HTTP GET of 200 bytes, one kept-alive connection", "http", "http", 30000, 1,
     {"raw": "small/200", "nuvika": "small/200", "curl": "small/200", "qt": "small/200"}),
    ("http", "the same with tracing on", "http", "http", 10000, 1, {"raw": "small/200", "nuvika": "small/200"}),
    ("http", "HTTP body of 500 MB", "http", "http", 1, 1,
     {"raw": "big/500000000", "nuvika": "big/500000000", "curl": "big/500000000", "qt": "big/500000000"}),
    ("http", "chunked body of 200 MB", "http", "http", 1, 1,
     {"raw": "chunked/200000000", "nuvika": "chunked/200000000", "curl": "chunked/200000000", "qt": "chunked/200000000"}),
    ("http", "multipart/x-mixed-replace, parts of 40 KB", "http", "http", 1, 1,
     {"raw": "parts/20000", "nuvika": "parts/20000", "curl": "parts/20000", "qt": "parts/20000"}),
]


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@contextlib.contextmanager
def started(arguments, **options):
    child = subprocess.Popen(arguments, stdout=subprocess.PIPE, text=True, **options)
    try:
        yield child
    finally:
        child.kill()
        child.wait()


def program(name):
    return os.path.join(FOLDER, name)


def run_once(row, name, scale):
    _, title, mode, far, amount, connections, variants = row
    if name == "qt" and connections > 1:
        amount //= 20  # its time grows with its sockets; rates are compared, so less work is fair
    amount = max(int(amount * scale), connections * 2, 1) if amount > 1 else 1
    variant = variants[name]
    if scale < 1 and amount == 1:
        variant = re.sub(r"\d+", lambda m: str(max(int(int(m.group()) * scale), 10)), variant)
    environment = dict(os.environ, **({"NUVIKA_LOG": "1"} if "tracing" in title else {}))
    near = [near_program(row, name)]
    if far in ("load", "one", "connects", "datagrams"):
        port = free_port()
        near_mode = "accept" if name == "raw" and mode == "acceptsocket" else mode
        with started([*near, near_mode, str(port), str(amount), str(connections), variant], env=environment) as child:
            if child.stdout.readline().strip() != "ready":
                raise RuntimeError(f"{name} does not listen")
            rounds = amount + connections if far == "load" else amount + 1
            with started([program("far"), far, str(port), str(rounds), str(connections)]):
                line = child.stdout.readline()
    else:
        end = ["medium"] if "both ends" in title and name != "raw" else []
        far_amount = amount * 108 if mode == "msgsend" else amount
        with started([program("far"), far, str(far_amount), *end]) as peer:
            port = peer.stdout.readline().strip()
            result = subprocess.run([*near, mode, port, str(amount), str(connections), variant], env=environment,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=300)
            line = result.stdout
    wall, cpu = line.split()[-2:]
    return float(wall) / amount, max(float(cpu), 1e-6) / amount


def near_program(row, name):
    prefix = {"udp": "near_udp_", "msg": "near_msg_", "tls": "near_tls_"}.get(row[0], "near_")
    return program(prefix + name)


def middle(values):
    return f"{statistics.median(values):.2f} ({min(values):.2f}–{max(values):.2f})"


def shown(row, rate):
    if row[2] in ("recv", "send", "tlsrecv", "tlssend"):
        return f"{rate / 1e6:.0f} MB/s"
    return f"{rate:.2f}/s" if rate < 100 else f"{rate:.0f}/s"


def run_rows(group, repeats, scale):
    print("| row | program | throughput to the limit | cpu to the limit | rate |\n|---|---|---|---|---|")
    for row in ROWS:
        if row[0] != group:
            continue
        names = [n for n in row[6] if os.path.exists(near_program(row, n))]
        walls, cpus = {n: [] for n in names}, {n: [] for n in names}
        for _ in range(repeats):
            for name in names:
                wall, cpu = run_once(row, name, scale)
                walls[name].append(wall)
                cpus[name].append(cpu)
        for name in names:
            speed = [l / w for l, w in zip(walls["raw"], walls[name])]
            cost = [c / l for l, c in zip(cpus["raw"], cpus[name])]
            print(f"| {row[1]} | {name if name != 'raw' else 'limit (plain calls)'} | {middle(speed)} | {middle(cost)} "
                  f"| {shown(row, 1 / statistics.median(walls[name]))} |", flush=True)


def idle_rows(repeats, scale):
    """Cost must not grow with sockets that only exist: 10 active among many idle connections."""
    print("\n| 10 active among | rounds a second | cpu a round, us |\n|---|---|---|")
    for count in (10, 100, 1000, 10000):
        rates, costs = [], []
        for _ in range(repeats):
            port, rounds = free_port(), max(int(100000 * scale), 1000)
            with started([program("near_nuvika"), "echo", str(port), str(rounds), str(count)]) as child:
                child.stdout.readline()
                idle = []
                for _ in range(count - 10):
                    s = socket.socket()
                    s.connect(("127.0.0.1", port))
                    idle.append(s)
                time.sleep(0.3 + count * 0.0005)  # until the near side has taken them all
                begin, before = time.monotonic(), cpu_of(child.pid)
                with started([program("far"), "load", str(port), str(rounds + 10), "10"]):
                    child.stdout.readline()
                    rates.append(rounds / (time.monotonic() - begin))
                    costs.append((cpu_of(child.pid, before) - before) / rounds * 1e6)
                for s in idle:
                    s.close()
        print(f"| {count} | {statistics.median(rates):.0f} | {statistics.median(costs):.1f} |", flush=True)


def cpu_of(pid, otherwise=0.0):
    try:
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except OSError:
        return otherwise


def server_rows(repeats, seconds):
    """Our HTTP server and nginx under wrk, with one connection and with 64."""
    def rate(port, connections):
        out = subprocess.run(["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", f"http://127.0.0.1:{port}/small.txt"],
                             capture_output=True, text=True).stdout
        return float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))

    folder = os.path.join(FOLDER, "nginx")
    os.makedirs(folder + "/www", exist_ok=True)
    with open(folder + "/www/small.txt", "w") as file:
        file.write("x" * 200)
    print("\n| HTTP server, 200 bytes, wrk | 1 connection, requests/s | 64 connections, requests/s | cpu a request with 64, us |\n|---|---|---|---|")
    results = {"nuvika": [], "nginx": []}
    for _ in range(repeats):
        for name in results:
            port = free_port()
            if name == "nuvika":
                server = started([program("near_nuvika"), "httpserver", str(port)])
            else:
                with open(folder + "/nginx.conf", "w") as file:
                    file.write(f"daemon off; master_process off; pid {folder}/pid; error_log {folder}/error.log;"
                               "events { worker_connections 512; } http { access_log off; keepalive_requests 100000000;"
                               f" open_file_cache max=10; server {{ listen 127.0.0.1:{port}; root {folder}/www; }} }}")
                server = started(["nginx", "-p", folder, "-c", folder + "/nginx.conf", "-e", folder + "/error.log"])
            with server as child:
                time.sleep(0.5)
                one = rate(port, 1)
                before, begin = cpu_of(child.pid), time.monotonic()
                many = rate(port, 64)
                cost = (cpu_of(child.pid) - before) / (many * seconds) * 1e6
                results[name].append((one, many, cost))
    for name, values in results.items():
        print(f"| {name} | {middle([v[0] for v in values])} | {middle([v[1] for v in values])} | {middle([v[2] for v in values])} |", flush=True)


def micro_rows(repeats, scale):
    if not os.path.exists(program("micro")):
        return
    out = subprocess.run([program("micro"), f"--benchmark_repetitions={max(repeats, 2)}", "--benchmark_report_aggregates_only=true",
                          f"--benchmark_min_time={0.3 * min(scale * 4, 1):.3f}"], capture_output=True, text=True).stdout
    times = {name: float(value) for name, value in re.findall(r"(\w+?)(?:/iterations:\d+)?_median\s+([\d.]+) ns", out)}
    print("\n| micro row | program | ns | to the limit |\n|---|---|---|---|")
    for limit, name in [("poolLimit", n) for n in ("poolNuvika", "poolBoost")] + [("poolMutexLimit", "poolMutexNuvika")] \
            + [("fifoLimit", n) for n in ("fifoNuvika", "fifoEvbuffer")] + [("headLimit", n) for n in ("headNuvika", "headBeast")] \
            + [("digestLimit", n) for n in ("digestNuvika", "digestPoco") if n in times] \
            + [("rtpLimit", n) for n in ("rtpNuvika", "rtpGstreamer") if n in times] \
            + [("sdpLimit", n) for n in ("sdpNuvika", "sdpNuvikaCached", "sdpGstreamer") if n in times] \
            + [("tokenLimit", n) for n in ("tokenNuvika", "tokenNewContext")] \
            + [("commandLimit", n) for n in ("commandNuvika", "commandBoost")]:
        print(f"| {limit[:-5]} | {name} | {times[name]:.0f} | {times[name] / times[limit]:.2f} |", flush=True)


def main():
    global FOLDER
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("groups", nargs="*")
    parser.add_argument("-n", type=int, default=5)
    parser.add_argument("--brief", action="store_true", help="each program once, without judging time")
    options = parser.parse_args()
    FOLDER = options.folder
    repeats, scale = (1, 0.01) if options.brief else (options.n, 1.0)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))
    groups = options.groups or ["tcp", "udp", "msg", "tls", "http", "idle", "server", "micro"]
    for group in groups:
        if group in ("tcp", "udp", "msg", "tls", "http"):
            run_rows(group, repeats, scale)
        elif group == "idle":
            idle_rows(repeats, scale)
        elif group == "server":
            server_rows(repeats, 1 if options.brief else 3)
        elif group == "micro":
            micro_rows(repeats, scale)
        else:
            sys.exit(f"bench/run: no group {group}: tcp, udp, msg, tls, http, idle, server, micro")


if __name__ == "__main__":
    main()
