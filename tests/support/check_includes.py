#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every #include keeps to the arrows between the folders, and the core includes no header of an operating system."""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

# What each folder may include besides itself. Tests may also include platform/fake and tests/support.
CORE = {
    "base": set(),
    "platform": {"base"},
    "paths": {"base", "platform"},
    "messaging": {"base", "platform", "paths"},
    "maillibrary": {"base", "platform"},
    "search": {"base", "platform", "messaging", "maillibrary"},
    "plugin": {"base", "platform", "paths", "messaging", "maillibrary", "search"},
    "host/query": {"base"},
}
OTHERS = {
    "platform/fake": {"base", "platform"},
    "platform/linux": {"base", "platform"},
    "console": {"base"},
    "host/store": {"base", "platform", "platform/linux", "host/query"},
    "host/index": {"base", "platform", "platform/linux", "host/query", "host/store"},
    "host/adapter": {"base", "platform", "host/query", "host/store", "host/index"},
    "host": {"base", "platform", "platform/linux", "paths", "messaging", "console", "host/query", "host/store", "host/index", "host/adapter"},
    "client": {"base", "platform", "platform/linux", "messaging", "console"},
}
ARROWS = CORE | OTHERS
# Of messaging these share the formats alone.
SHARE_FORMATS = {"search", "client", "host"}
FORMATS = {"messaging/message_names.h"}
LIBRARIES_OF_THE_CORE = {"expat.h", "sqlite3.h", "utf8proc.h"}
OPERATING_SYSTEM = re.compile(r"^(sys/|linux/|unistd|fcntl|dirent|pwd|poll|pthread|signal\.h|dlfcn|mach/|dispatch/|Foundation)")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^">]+)[">]')
CONDITION = re.compile(r"^\s*#\s*(?:el)?if.*(__linux__|__APPLE__|_WIN32|__unix__)")


def folder_of(path):
    for depth in (2, 1):
        name = "/".join(path.split("/")[:depth])
        if name in ARROWS and path.count("/") >= depth:
            return name
    return None


def problems_of(path):
    folder = folder_of(path)
    if folder is None:
        return
    stem = path.rsplit("/", 1)[-1].rsplit(".", 1)[0]
    test = "test" in stem or stem.endswith("_fixture")
    for number, line in enumerate((ROOT / path).read_text(encoding="utf-8").splitlines(), 1):
        place = f"{path}:{number}"
        if folder in CORE and not test and CONDITION.match(line):
            yield f"{place}: the core knows no operating system"
        match = INCLUDE.match(line)
        if not match:
            continue
        kind, header = match.groups()
        if kind == "<":
            if folder in CORE and not test:
                if OPERATING_SYSTEM.match(header):
                    yield f"{place}: {header} belongs to an operating system"
                elif header.endswith(".h") and header not in LIBRARIES_OF_THE_CORE and "/" not in header:
                    yield f"{place}: {header} is no library of the core"
            continue
        target = folder_of(header)
        if target is None:
            if not (test and header.startswith("tests/support/")):
                yield f"{place}: {header} is not named from the root of the tree"
            continue
        if target == folder or target in ARROWS[folder]:
            if folder in SHARE_FORMATS and target == "messaging" and header not in FORMATS:
                yield f"{place}: of messaging {folder} shares the formats alone"
            continue
        if not (test and target in ("platform/fake", "platform/linux")):
            yield f"{place}: {folder} may not include {target}"


def main():
    files = subprocess.run(["git", "ls-files", "*.cc", "*.h"], cwd=ROOT, check=True, capture_output=True, text=True)
    found = [problem for path in files.stdout.split() for problem in problems_of(path)]
    print("\n".join(found) if found else "every include keeps to the arrows")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
