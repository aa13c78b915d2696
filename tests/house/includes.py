"""Reads every #include: arrows point to a lower floor or the same room, and the system stays in platform/."""
import os
import re
import sys

TOP = sys.argv[1]
FLOOR = {"platform": 1, "core": 2, "misc": 2, "media": 3, "net": 3, "msg": 4, "http": 4, "rtsp": 5, "text": 5, "": 6}
NO_SOCKETS = {"media", "misc"}
SOURCES = os.path.join(TOP, "src")
SYSTEM = re.compile(r"(?:(?:sys|linux|net|netinet|arpa)/[\w/]+\.h|(?:netdb|pthread|poll|unistd|sched|pwd|fcntl|dirent|signal)\.h|csignal)$")
# The rooms of the tool; its main stands above them.
TOOL = os.path.join(TOP, "apps", "nuvika")
TOOL_FLOOR = {"base": 1, "page": 2, "cameras": 2, "recording": 3, "simulation": 3, "commands": 4, ".": 5}
ALLOWED = {"core": {"sys/uio.h"}, "net": {"sys/uio.h", "netinet/in.h", "sys/socket.h"}, "http": {"sys/uio.h"}}

rooms, faults = {}, []


def includes(top):
    """Each #include below: the file's path, its folder within, where it stands, whether it names ours, and what it names."""
    for folder, _, files in os.walk(top):
        for name in files:
            if name.endswith((".h", ".cpp")):
                path = os.path.join(folder, name)
                with open(path) as file:
                    for number, line in enumerate(file, 1):
                        if found := re.match(r'\s*#include\s+(["<])([^">]+)[">]', line):
                            yield path, os.path.relpath(folder, top), f"{os.path.relpath(path, TOP)}:{number}", *found.groups()


def check(path, room, at, quote, target):
    system = quote == "<" and SYSTEM.match(target)
    name = os.path.basename(target)
    if system and room != "platform" and target not in ALLOWED.get(room, set()):
        faults.append(f"{at}: {target}: only platform/ includes the system's headers")
    if target.startswith("KepNuvikaUtil/") and name not in rooms:
        faults.append(f"{at}: no public header {name}")
    if name not in rooms or name == "Export.h" or (not target.startswith("KepNuvikaUtil/") and "/" not in target):
        return  # Export.h is every room's
    other = rooms[name]
    if other != room and FLOOR[other] >= FLOOR[room]:
        faults.append(f"{at}: {room or 'top'} (floor {FLOOR[room]}) includes {other} (floor {FLOOR[other]})")
    if path.endswith(".h") and not path.endswith("_p.h") and name.endswith("_p.h"):
        faults.append(f"{at}: a public header includes a private one")
    if room in NO_SOCKETS and (other == "net" or (other == "platform" and name not in {"Clock_p.h", "Thread_p.h"})):
        faults.append(f"{at}: {room} sees no socket, and of the system clock and threads only")


def room_of(inner):
    return inner.split(os.sep)[0].replace(".", "")


for folder, _, files in os.walk(SOURCES):
    for name in files:
        rooms.setdefault(name, room_of(os.path.relpath(folder, SOURCES)))
for path, inner, at, quote, target in includes(SOURCES):
    check(path, room_of(inner), at, quote, target)
for path, room, at, quote, target in includes(TOOL):
    other = os.path.dirname(target) or room
    if quote == '"' and other != room and re.fullmatch(r"(\w+/)?\w+\.h", target) and TOOL_FLOOR[other] >= TOOL_FLOOR[room]:
        faults.append(f"{at}: {room} includes {other}")
for user in ("apps", "examples", "bench"):
    for path, _, at, _, target in includes(os.path.join(TOP, user)):
        if re.match(r"(?:[a-z]+/)?\w+_p\.h", target):
            faults.append(f"{at}: sees a private header")
print("\n".join(faults) or f"{len(rooms)} files, every arrow points down")
sys.exit(1 if faults else 0)
