#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks a built bundle: one exported symbol, no library but the allowed ones, never unloaded, an
information dictionary that names the shared object, and an entry point that refuses what it does
not speak.

Usage: check_bundle.py BUNDLE [--sanitized]

A sanitized build links the sanitizer's runtime and cannot be loaded here, so only the symbols, the
flag and the dictionary are looked at."""

import ctypes
import plistlib
import re
import subprocess
import sys
from pathlib import Path

ENTRY_POINT = "THMPMailPluginStart"
ALLOWED_LIBRARIES = {
    "libsqlite3.so.0", "libexpat.so.1", "libutf8proc.so.2", "libstdc++.so.6", "libm.so.6",
    "libgcc_s.so.1", "libc.so.6", "ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"}
TEXT_KEYS = ("CFBundleVersion", "CFBundleShortVersionString", "THMPMailPluginBundleVersion")


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def exported_symbols(library):
    lines = output_of("nm", "-D", "--defined-only", str(library)).splitlines()
    return [line.split()[-1] for line in lines]


def main():
    bundle = Path(sys.argv[1])
    sanitized = "--sanitized" in sys.argv[2:]
    faults = []

    information = plistlib.loads((bundle / "Contents/Info.plist").read_bytes())
    library = bundle / "Contents/Linux" / information["CFBundleExecutable"]
    if information["CFBundleIdentifier"] != "com.quorvane.tallyhive.mailplugin":
        faults.append(f"bundle identifier {information['CFBundleIdentifier']}")
    for key in TEXT_KEYS:
        if not isinstance(information.get(key), str) or not information[key]:
            faults.append(f"no text under {key}")

    header = (Path(__file__).parents[1] / "platform/platform.h").read_text(encoding="utf-8")
    expected = int(re.search(r"kPlatformInterfaceVersion = (\d+);", header).group(1))
    if information.get("THMPPlatformInterfaceVersion") != expected:
        faults.append(f"interface version {information.get('THMPPlatformInterfaceVersion')}, not {expected}")

    if exported_symbols(library) != [ENTRY_POINT]:
        faults.append(f"exported symbols: {exported_symbols(library)}")
    dynamic = output_of("readelf", "-dW", str(library)).splitlines()
    if not any("FLAGS_1" in line and "NODELETE" in line for line in dynamic):
        faults.append("not marked as never unloaded")

    if not sanitized:
        needed = {line.split("[")[1].rstrip("]") for line in dynamic if "(NEEDED)" in line}
        if needed - ALLOWED_LIBRARIES:
            faults.append(f"links {sorted(needed - ALLOWED_LIBRARIES)}")
        start = getattr(ctypes.CDLL(str(library)), ENTRY_POINT)
        start.restype = ctypes.c_bool
        if start(None):
            faults.append("starts without a platform")
        if start(ctypes.byref(ctypes.c_uint32(0xFFFFFFFF))):
            faults.append("starts with another version of the interface")

    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
