"""Every code has one name, one row in docs/errors.md and one place with its number; comments name only those."""
import os
import re
import sys

TOP = sys.argv[1]
HEADER, TABLE, CONSTANTS = "src/net/NuvikaError.h", "src/platform/linux/ErrorCodes.cpp", "src/platform/ErrorCodes_p.h"
faults = []


def text_of(path):
    with open(os.path.join(TOP, path)) as file:
        return file.read()


def compare(what, found, expected):
    faults.extend(f"{what} lacks {each}" for each in sorted(expected - found))
    faults.extend(f"{what} has {each}, which no code is" for each in sorted(found - expected))


named = re.findall(r"^    e(\w+) = (\d+),? ?(?:///<.*)?$", text_of(HEADER), re.M)
codes = {int(number) for _, number in named}
if len(codes) != len(named) or len(named) < 40:
    faults.append(f"{HEADER}: {len(named)} names of {len(codes)} codes")
table = {int(n) for n in re.findall(r'^    \{\w+, (\d+)\},|^    \{(\d+), "', text_of(TABLE), re.M) for n in n if n}
constants = {int(n) for n in re.findall(r"^constexpr int k\w+ = (\d+);", text_of(CONSTANTS), re.M)}
rows = re.findall(r"^\| (\d+) \| (\w+) \|(.*)\|(.*)\|$", text_of("docs/errors.md"), re.M)
compare(HEADER, codes, table | constants)
compare("docs/errors.md", {f"{number} {name}" for number, name, _, _ in rows}, {f"{number} {name}" for name, number in named})
faults.extend(f"docs/errors.md: {row[0]} tells no cause or no next step" for row in rows if not (row[2].strip() and row[3].strip()))

# Codes by number: public comments name codes that exist, and code uses the names. (5 and 55 are too common to look for.)
for folder, _, files in os.walk(os.path.join(TOP, "src")):
    for name in files:
        path = os.path.relpath(os.path.join(folder, name), TOP)
        if path in (HEADER, TABLE, CONSTANTS):
            continue
        for number, line in enumerate(text_of(path).splitlines(), 1):
            code, _, comment = line.partition("//")
            where = f"{path}:{number}"
            for each in re.findall(r"(?<![\d,.])(?:99\d|100[1-9]\d|101\d\d|110[0-1]\d)(?![\d,.]\d)\b", comment):
                if int(each) not in codes:
                    faults.append(f"{where}: the comment names {each}, which is no code")
            if not path.endswith(".h") or path.endswith("_p.h"):
                faults.extend(f"{where}: {each} stands by its number" for each in re.findall(r"\b\d+\b", code)
                              if int(each) in codes and int(each) > 900)
            faults.extend(f"{where}: a failure told by its number" for _ in
                          re.findall(r"\b(?:error|fail|failLater|errorClose|socketError|setLastError)\((?:[1-9]\d?|[6-9]\d\d|\d{4,})\b", code))
print("\n".join(faults) or f"{len(codes)} codes, each with a name and a row")
sys.exit(1 if faults else 0)
