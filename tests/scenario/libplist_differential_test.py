#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares our property lists with libplist's, both ways, on random values.

usage: libplist_differential_test.py PLIST_TOOL [SEED]

What libplist writes in either encoding must come to us with every value of the same kind, and what we write must come to
libplist so. CPython's plistlib, which plist_differential_test.py holds us against, says which value a file has. Exit
status 77 where there is no libplist.
"""

import ctypes
import datetime
import plistlib
import struct
import sys

from plist_differential_test import RandomValues, same, through

VALUES = 2000


class Libplist:
    def __init__(self):
        self.library = ctypes.CDLL("libplist-2.0.so.3")
        handle, size = ctypes.c_void_p, ctypes.c_uint32
        self.library.plist_from_memory.argtypes = [ctypes.c_char_p, size, ctypes.POINTER(handle)]
        self.library.plist_free.argtypes = [handle]
        for name in ("bin", "xml"):
            getattr(self.library, f"plist_to_{name}").argtypes = [handle, ctypes.POINTER(handle), ctypes.POINTER(size)]
            getattr(self.library, f"plist_to_{name}_free").argtypes = [handle]

    def rewritten(self, data, encoding):
        """The file in the other words of libplist: "bin" or "xml"."""
        value, answer, length = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_uint32()
        self.library.plist_from_memory(data, len(data), ctypes.byref(value))
        assert value, f"libplist cannot read {data!r}"
        getattr(self.library, f"plist_to_{encoding}")(value, ctypes.byref(answer), ctypes.byref(length))
        written = ctypes.string_at(answer, length.value)
        getattr(self.library, f"plist_to_{encoding}_free")(answer)
        self.library.plist_free(value)
        return written


def text_with_nul(value, encoding):
    """libplist's texts are C's, and end there."""
    return isinstance(value, str) and "\0" in value


def negative_zero(value, encoding):
    """It drops the sign in XML, and takes it for any other zero of the same file in the binary encoding."""
    return isinstance(value, float) and struct.pack(">d", value) == struct.pack(">d", -0.0)


def year_of_three_digits_in_xml(value, encoding):
    """It leaves out the zeros before them, which no reader expects."""
    return encoding == "xml" and isinstance(value, datetime.datetime) and value.year < 1000


LEFT_OUT = [text_with_nul, negative_zero, year_of_three_digits_in_xml]


def left_out(value, encoding):
    """The name of the first thing in the value that libplist cannot say, or None."""
    pending = [value]
    while pending:
        value = pending.pop()
        if isinstance(value, list):
            pending += value
        elif isinstance(value, dict):
            pending += [*value, *value.values()]
        for cannot_say in LEFT_OUT:
            if cannot_say(value, encoding):
                return cannot_say.__name__
    return None


def check(tool, libplist, seed, encoding):
    source = RandomValues(seed, for_xml=encoding == "xml")
    values = [source.value(depth) for depth in (0, 1, 4) for _ in range(VALUES)]
    reasons = [left_out(value, encoding) for value in values]
    values = [value for value, reason in zip(values, reasons) if not reason]
    assert len(values) > VALUES, "most values were left out"

    theirs = [libplist.rewritten(plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False), encoding) for value in values]
    for value, data, (ours, error) in zip(values, theirs, through(tool, theirs)):
        assert ours is not None, f"libplist's {encoding} was refused: {error}\n{value!r}\n{data!r}"
        got = plistlib.loads(ours, fmt=plistlib.FMT_BINARY)
        assert same(got, value), f"libplist's {encoding} came as another value\n{value!r}\n{got!r}"
        back = plistlib.loads(libplist.rewritten(ours, encoding))
        assert same(back, value), f"ours came to libplist as another value ({encoding})\n{value!r}\n{back!r}"
    counts = {name: reasons.count(name) for name in sorted({reason for reason in reasons if reason})}
    print(f"{encoding}: {len(values)} values the same both ways; left out: {counts or 'none'}")


def main():
    tool = sys.argv[1]
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 20_240_229
    print(f"seed {seed}")
    try:
        libplist = Libplist()
    except OSError:
        print("no libplist here")
        return 77
    for encoding in ("bin", "xml"):
        check(tool, libplist, seed, encoding)
    return 0


if __name__ == "__main__":
    sys.exit(main())
