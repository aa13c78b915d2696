"""The library exports its public classes and functions, and nothing else."""
import os
import re
import subprocess
import sys

library, top = sys.argv[1:]
names = set()
for folder, _, files in os.walk(os.path.join(top, "src")):
    for name in files:
        if not name.endswith(".h") or name.endswith("_p.h"):
            continue
        with open(os.path.join(folder, name)) as file:
            text = file.read()
        names.update(re.findall(r"(?:class|struct) KEPNUVIKAUTIL_EXPORT (\w+)", text))
        names.update(re.findall(r"KEPNUVIKAUTIL_EXPORT [\w:<>*& ]*?[ *&](\w+|operator[<>]+)\(", text))
        names.update(re.findall(r"KEPNUVIKAUTIL_EXPORT extern const \w+ (\w+);", text))
        names.update(re.findall(r"^namespace (\w+)", text, re.M))
out = subprocess.run(["nm", "-DC", "--defined-only", library], capture_output=True, text=True, check=True).stdout
strangers = []
for line in out.splitlines():
    symbol = line.split(" ", 2)[2]
    symbol = re.sub(r"^(vtable|typeinfo|typeinfo name|guard variable) for |^(non-virtual|virtual) thunk to ", "", symbol)
    if re.match(r"operator(<<|>>)\(QDataStream&", symbol):
        continue
    if re.match(r"[\w~]+", symbol).group().lstrip("~") not in names:
        strangers.append(symbol)
print("\n".join(strangers) or f"{len(out.splitlines())} symbols, all public")
sys.exit(1 if strangers or not names else 0)
