"""Reads every #include: arrows point to a lower floor or the same room, and the system stays in platform/."""
import os
import re
import sys

TOP = sys.argv[1]
FLOOR = {"platform": 1, "core": 2, "misc": 2, "media": 3, "net": 3, "msg": 4, "http": 4, "rtsp": 5, "text": 5, "": 6}
NO_SOCKETS = {"media", "misc"}
SYSTEM = re.compile(r"<((?:sys|linux|net|netinet|arpa)/[\w/]+\.h|(?:netdb|pthread|poll|unistd|sched|pwd|fcntl|dirent|signal)\.h|csignal)>")
# The rooms of the tool; its main stands above them.
TOOL = os.path.join(TOP, "apps", "nuvika")
TOOL_FLOOR = {"base": 1, "page": 2, "cameras": 2, "recording": 3, "simulation": 3, "commands": 4, ".": 5}
ALLOWED = {"core": {"sys/uio.h"}, "net": {"sys/uio.h", "netinet/in.h", "sys/socket.h"}, "http": {"sys/uio.h"}}

rooms, faults = {}, []
for folder, _, files in os.walk(os.path.join(TOP, "src")):
    room = os.path.relpath(folder, os.path.join(TOP, "src")).split(os.sep)[0].replace(".", "")
    for name in files:
        rooms.setdefault(name, room)


def check(path, room):
    with open(path) as file:
        for number, line in enumerate(file, 1):
            at = f"{os.path.relpath(path, TOP)}:{number}"
            include = re.match(r'\s*#include\s+["<]([^">]+)[">]', line)
            if not include:
                continue
            target = include.group(1)
            system = SYSTEM.search(line)
            if system and room != "platform" and system.group(1) not in ALLOWED.get(room, set()):
                faults.append(f"{at}: {target}: only platform/ includes the system's headers")
            name = os.path.basename(target)
            if target.startswith("KepNuvikaUtil/") and name not in rooms:
                faults.append(f"{at}: no public header {name}")
            if name not in rooms or (not target.startswith("KepNuvikaUtil/") and "/" not in target):
                continue
            other = rooms[name]
            if name == "Export.h":  # every room's
                continue
            if other != room and FLOOR[other] >= FLOOR[room]:
                faults.append(f"{at}: {room or 'top'} (floor {FLOOR[room]}) includes {other} (floor {FLOOR[other]})")
            if path.endswith(".h") and not path.endswith("_p.h") and name.endswith("_p.h"):
                faults.append(f"{at}: a public header includes a private one")
            if room in NO_SOCKETS and (other == "net" or (other == "platform" and name not in {"Clock_p.h", "Thread_p.h"})):
                faults.append(f"{at}: {room} sees no socket, and of the system clock and threads only")


for folder, _, files in os.walk(os.path.join(TOP, "src")):
    room = os.path.relpath(folder, os.path.join(TOP, "src")).split(os.sep)[0].replace(".", "")
    for name in files:
        if name.endswith((".h", ".cpp")):
            check(os.path.join(folder, name), room)
for folder, _, files in os.walk(TOOL):
    room = os.path.relpath(folder, TOOL)
    for name in files:
        if not name.endswith((".h", ".cpp")):
            continue
        with open(os.path.join(folder, name)) as file:
            for number, line in enumerate(file, 1):
                include = re.match(r'\s*#include\s+"(?:(\w+)/)?\w+\.h"', line)
                other = include and (include.group(1) or room)
                if other and other != room and TOOL_FLOOR[other] >= TOOL_FLOOR[room]:
                    faults.append(f"apps/nuvika/{room}/{name}:{number}: {room} includes {other}")
for user in ("apps", "examples", "bench"):
    for folder, _, files in os.walk(os.path.join(TOP, user)):
        for name in files:
            if not name.endswith((".h", ".cpp")):
                continue
            with open(os.path.join(folder, name)) as file:
                for number, line in enumerate(file, 1):
                    if re.match(r'\s*#include\s+["<](?:[a-z]+/)?\w+_p\.h', line):
                        faults.append(f"{user}/{name}:{number}: sees a private header")
print("\n".join(faults) or f"{len(rooms)} files, every arrow points down")
sys.exit(1 if faults else 0)
