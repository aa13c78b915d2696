"""Runs the rows: programs alternate, and each repetition's ratio is taken to its own limit row."""
import argparse
import contextlib
import os
import re
import resource
import socket
import subprocess
import sys
import threading
import time

from results import MicroResult, Result
from rows import GROUPS, MICRO, ROWS

FOLDER = ""
LEFT_OUT = 77  # a program's exit code where its row cannot be had
TIME_LIMIT = 300  # seconds for one program
PLAIN = {"plain": "raw"}  # a peer that is the limit's program with another variant


class LeftOut(Exception):
    pass


def program(name):
    return os.path.join(FOLDER, name)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@contextlib.contextmanager
def started(arguments, **options):
    child = subprocess.Popen(arguments, stdout=subprocess.PIPE, text=True, **options)
    limit = threading.Timer(TIME_LIMIT, child.kill)
    limit.start()
    try:
        yield child
    finally:
        limit.cancel()
        child.kill()
        child.wait()


def figures(child, name):
    """Wall and cpu seconds, KiB, and what arrived: a near program's report, or the reason that there is none."""
    line = child.stdout.readline().split()
    if len(line) != 4:
        if child.wait() == LEFT_OUT:
            raise LeftOut
        raise RuntimeError(f"{name} failed with {child.returncode}")
    return [float(value) for value in line]


def near_path(row, name):
    return program(f"{row.near}_{PLAIN.get(name, name)}")


def sizes(row, name, scale):
    amount, connections, variant = row.amount, row.connections, row.programs[name]
    if name == "qt" and row.mode == "echo" and connections > 1:
        amount //= 20  # its time grows with its sockets; rates are compared, so less work is fair
    if scale < 1 and (row.kind == "memory" or row.mode == "echo"):
        connections = max(connections // 20, 10)
    if amount > 1:
        amount = max(int(amount * scale), connections * 2, 1)
    elif scale < 1 and row.kind != "memory":
        variant = re.sub(r"\d+", lambda m: str(max(int(int(m.group()) * scale), 10)), variant)
    return amount, connections, variant


def run_once(row, name, scale):
    amount, connections, variant = sizes(row, name, scale)
    known = {"amount": amount, "connections": connections, "bytes": amount * 108, "port": free_port(), "ports": "",
             "rounds": amount + (connections if row.far.startswith("far load") else 1),
             "medium": "medium" if name != "raw" else ""}
    near = [near_path(row, name), row.mode, str(known["port"]), str(amount), str(connections), variant]
    options = {"env": {**os.environ, **row.environment}}
    if "NUVIKA_LOG" in row.environment:
        options["stderr"] = subprocess.DEVNULL

    def far():
        words = row.far.format(**known).split()
        return [program(words[0]), *words[1:]]

    if row.path_ms:
        near[2] = "PORT"
        with started([program("path"), str(row.path_ms), *far(), "--", *near], **options) as child:
            wall, cpu, memory, arrived = figures(child, name)
    elif "{port" in row.far:
        with started(near, **options) as child:
            word, *ports = (child.stdout.readline() or "nothing").split()
            if word != "ready":
                raise RuntimeError(f"{name} does not listen")
            known["ports"] = " ".join(ports)
            with started(far()):
                wall, cpu, memory, arrived = figures(child, name)
    else:
        with started(far()) as peer:
            near[2] = peer.stdout.readline().strip()
            with started(near, **options) as child:
                wall, cpu, memory, arrived = figures(child, name)
    return {"wall": max(wall, 1e-9) / amount, "cpu": max(cpu, 1e-6) / amount, "memory": memory,
            "lost": amount - arrived if arrived else 0}


def row_results(group, repeats, scale):
    for row in (row for row in ROWS if row.group == group):
        result = Result(row.title, row.goal, row.kind, row.unit)
        names = [name for name in row.programs if os.path.exists(near_path(row, name))]
        for _ in range(repeats):
            for name in names:
                try:
                    result.add(name, run_once(row, name, scale))
                except LeftOut:
                    print(f"bench: {row.title}: {name} is left out", file=sys.stderr)
                    names = [] if name == "nuvika" else [other for other in names if other != name]
                except (RuntimeError, OSError, subprocess.SubprocessError) as error:
                    sys.exit(f"bench/run: {row.title}: {error}")
        if "nuvika" in result.runs:
            yield result


def cpu_of(pid, otherwise=0.0):
    try:
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except OSError:
        return otherwise


def idle_results(repeats, scale):
    """Cost must not grow with sockets that only exist: 10 active among many idle connections."""
    for count in (10, 100, 1000, 10000):
        result = Result(f"10 active among {count:,} connections", "flat")
        for _ in range(repeats):
            port, rounds = free_port(), max(int(100000 * scale), 1000)
            with started([program("near_nuvika"), "echo", str(port), str(rounds), str(count)]) as child:
                child.stdout.readline()
                idle = [socket.create_connection(("127.0.0.1", port)) for _ in range(count - 10)]
                time.sleep(0.3 + count * 0.0005)  # until the near side has taken them all
                begin, before = time.monotonic(), cpu_of(child.pid)
                with started([program("far"), "load", str(port), str(rounds + 10), "10"]):
                    figures(child, "nuvika")
                    result.add("nuvika", {"wall": (time.monotonic() - begin) / rounds, "memory": 0, "lost": 0,
                                          "cpu": max(cpu_of(child.pid, before) - before, 1e-6) / rounds})
                for s in idle:
                    s.close()
        yield result


def started_server(name, port):
    if name != "nginx":
        return started([program(f"near_{name}"), "httpserver", str(port)])
    folder = os.path.join(FOLDER, "nginx")
    os.makedirs(folder + "/www", exist_ok=True)
    with open(folder + "/www/small.txt", "w") as file:
        file.write("x" * 200)
    with open(folder + "/nginx.conf", "w") as file:
        file.write(f"daemon off; master_process off; pid {folder}/pid; error_log {folder}/error.log;"
                   "events { worker_connections 512; } http { access_log off; keepalive_requests 100000000;"
                   f" open_file_cache max=10; server {{ listen 127.0.0.1:{port}; root {folder}/www; }} }}")
    return started(["nginx", "-p", folder, "-c", folder + "/nginx.conf", "-e", folder + "/error.log"])


def server_results(repeats, seconds):
    """An answer of 200 bytes: our HTTP server, nginx and the limit under wrk."""
    goals = {1: "0.87", 64: "cpu 1.2"}
    results = {count: Result(f"HTTP server, 200 bytes, wrk with {count} connection{'s' * (count > 1)}", goal)
               for count, goal in goals.items()}
    for _ in range(repeats):
        for name in ("raw", "nuvika", "nginx"):
            port = free_port()
            with started_server(name, port) as child:
                time.sleep(0.5)
                for count, result in results.items():
                    before = cpu_of(child.pid)
                    out = subprocess.run(["wrk", "-t1", f"-c{count}", f"-d{seconds}s", f"http://127.0.0.1:{port}/small.txt"],
                                         capture_output=True, text=True).stdout
                    total = re.search(r"(\d+) requests in", out)
                    if total is None or "Non-2xx" in out or int(total.group(1)) == 0:
                        sys.exit(f"bench/run: {result.title}: {name} failed")
                    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
                    result.add(name, {"wall": 1 / rate, "cpu": max(cpu_of(child.pid) - before, 1e-2) / int(total.group(1)),
                                      "memory": 0, "lost": 0})
    yield from results.values()


def micro_results(repeats, scale):
    if not os.path.exists(program("micro")):
        return
    done = subprocess.run([program("micro"), f"--benchmark_repetitions={max(repeats, 2)}", "--benchmark_report_aggregates_only=true",
                           f"--benchmark_min_time={0.3 * min(scale * 4, 1):.3f}"], capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"bench/run: micro failed with {done.returncode}: {done.stderr[-500:]}")
    times = {name: float(value) for name, value in re.findall(r"(\w+?)(?:/iterations:\d+)?_median\s+([\d.]+) ns", done.stdout)}
    for row in MICRO:
        yield MicroResult(row, times)


def results_of(group, options):
    repeats, scale = (1, 0.01) if options.brief else (options.n, 1.0)
    if group == "idle":
        return idle_results(repeats, scale)
    if group == "server":
        return server_results(repeats, 1 if options.brief else 3)
    if group == "micro":
        return micro_results(repeats, scale)
    return row_results(group, repeats, scale)


def fill(path, summaries):
    """Puts the lines into the document's table, each in the place of the line that begins with its title."""
    with open(path) as file:
        lines = file.read().split("\n")
    for summary in summaries:
        start = summary[:summary.index("|", 1) + 1]
        places = [i for i, line in enumerate(lines) if line.startswith(start)]
        if len(places) != 1:
            sys.exit(f"bench/run: {path} has no row '{start}'")
        lines[places[0]] = summary
    with open(path, "w") as file:
        file.write("\n".join(lines))


def main():
    global FOLDER
    parser = argparse.ArgumentParser(prog="bench/run")
    parser.add_argument("folder", help=argparse.SUPPRESS)
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=", ".join(GROUPS) + "; without one all of them")
    parser.add_argument("-n", type=int, default=5, help="repetitions")
    parser.add_argument("--brief", action="store_true", help="each program once, without judging time")
    parser.add_argument("--markdown", action="store_true", help="one line for each row, as docs/performance.md has them")
    parser.add_argument("--fill", metavar="FILE", help="the same, and into FILE's table")
    options = parser.parse_intermixed_args()
    FOLDER = options.folder
    unknown = set(options.groups) - set(GROUPS)
    if unknown:
        sys.exit(f"bench/run: no group {', '.join(unknown)}: {', '.join(GROUPS)}")
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))
    short = options.markdown or options.fill
    print("| row | goal | ours | best peer | Qt's class |\n|---|---|---|---|---|" if short else
          "| row | program | throughput to the limit | cpu to the limit | measured |\n|---|---|---|---|---|")
    summaries = []
    for group in options.groups or GROUPS:
        for result in results_of(group, options):
            summaries.append(result.summary())
            for line in [summaries[-1]] if short else result.lines():
                print(line, flush=True)
    if options.fill:
        fill(options.fill, summaries)


if __name__ == "__main__":
    main()
