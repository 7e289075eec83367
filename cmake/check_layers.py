#!/usr/bin/env python3
"""Says which includes of src/ point up. Run by `./dev check`; a folder that is not listed here is an error as well.

usage: check_layers.py <source folder>
"""

import pathlib
import re
import sys

# What each folder of src/ may include besides itself. Includes point down; folders of one floor do not know each other,
# and the TCP server stands alone, on the ground.
ALLOWED = {
    "base": [],
    "values": ["base"],
    "loop": ["base"],
    "pool": ["base"],
    "transport": ["base", "values", "loop", "pool"],
    "calls": ["base", "values", "loop", "pool", "transport"],
    "largedata": ["base", "values", "loop", "pool", "transport", "calls"],
    "client": ["base", "values", "loop", "pool", "transport", "calls", "largedata"],
    "server": ["base", "values", "loop", "pool", "transport", "calls", "largedata"],
    # It stands on the public headers, as the programs that it is for do.
    "rpc": ["base"],
    "tcpserver": ["base"],
}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)
ANY_INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.MULTILINE)

# Pure rooms: they are tested and fuzzed without a loop.
WITHOUT_LIBUV = ["base", "values", "pool"]


def problems_of(path, src):
    here = path.relative_to(src)
    if len(here.parts) < 2:
        return [f"{path}: lies in no folder of src/"]
    room = here.parts[0]
    if room not in ALLOWED:
        return [f"{path}: the folder {room}/ has no floor; give it one in {__file__}"]

    found = []
    text = path.read_text(encoding="utf-8")
    for name in INCLUDE.findall(text):
        if name.startswith("mivo/"):
            continue
        target = pathlib.PurePosixPath(name)
        # "room/file.h" from the top of src/, or a neighbour by its bare name.
        other = target.parts[0] if len(target.parts) > 1 else room
        if ".." in target.parts or other not in ALLOWED:
            found.append(f'{path}: "{name}" is not written from the top of src/')
        elif other != room and other not in ALLOWED[room]:
            found.append(f'{path}: {room}/ must not include "{name}"')
    for name in ANY_INCLUDE.findall(text):
        if room in WITHOUT_LIBUV and (name == "uv.h" or name.startswith("uv/") or name == "mivo/tcpserver.h"):
            found.append(f"{path}: {room}/ must not include <{name}>")
        if room == "tcpserver" and name.startswith("mivo/") and name not in ("mivo/tcpserver.h", "mivo/export.h"):
            found.append(f"{path}: the TCP server stands alone and must not include <{name}>")
    return found


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    src = pathlib.Path(sys.argv[1])
    files = sorted(path for path in src.rglob("*") if path.suffix in (".h", ".cpp"))
    if not files:
        sys.exit(f"{src}: no sources")
    found = [problem for path in files for problem in problems_of(path, src)]
    for problem in found:
        print(problem, file=sys.stderr)
    print(f"{len(files)} files, {len(found)} includes that do not point down")
    sys.exit(1 if found else 0)


main()
