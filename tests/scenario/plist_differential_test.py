#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares our property-list readers and writer with CPython's plistlib.

usage: plist_differential_test.py PLIST_TOOL [SEED]

Random values, written by plistlib in both encodings, must come back from the tool with every value
of the same kind. Of damaged files, what both sides accept must be the same value. Where only one
side accepts, that is a known difference (see refused_by_us_only and accepted_by_us_only) or a
failure.
"""

import datetime
import math
import plistlib
import random
import struct
import subprocess
import sys

VALUES = 3000
MUTATIONS = 8
EPOCH = datetime.datetime(2001, 1, 1)
PIECES = ["a", "key", "é", "€", "😀", "\n", "&<>\"'", "]]>", " ", "\u0000"]


class RandomValues:
    def __init__(self, seed, for_xml):
        self.random = random.Random(seed)
        self.for_xml = for_xml

    def text(self):
        # XML has no form for a NUL.
        pieces = [p for p in PIECES if not self.for_xml or p.isprintable() or p == "\n"]
        count = self.random.choice([0, 1, 1, 2, 3, 20])
        return "".join(self.random.choice(pieces) for _ in range(count))

    def integer(self):
        low, high = self.random.choice([(-10, 300), (-(2**63), 2**63 - 1), (2**63, 2**64 - 1), (-70000, 70000)])
        return self.random.randint(low, high)

    def real(self):
        special = [0.0, -0.0, 1.5, math.inf, -math.inf, math.nan, 5e-324, 1.7976931348623157e308]
        if self.random.random() < 0.3:
            return self.random.choice(special)
        return self.random.uniform(-1e6, 1e6)

    def date(self):
        moment = EPOCH + datetime.timedelta(seconds=self.random.randint(-63_000_000_000, 250_000_000_000))
        if not self.for_xml:
            moment += datetime.timedelta(microseconds=self.random.choice([0, 500_000]))
        return moment

    def data(self):
        return self.random.randbytes(self.random.choice([0, 1, 2, 3, 14, 15, 300]))

    def value(self, depth):
        makers = [
            lambda: self.random.random() < 0.5,
            self.integer,
            self.real,
            self.date,
            self.data,
            self.text,
        ]
        if depth > 0:
            makers += [
                lambda: [self.value(depth - 1) for _ in range(self.random.choice([0, 1, 3, 16]))],
                lambda: {self.text(): self.value(depth - 1) for _ in range(self.random.choice([0, 1, 3, 16]))},
            ]
        return self.random.choice(makers)()


def same(a, b):
    """Equality by value and kind."""
    pairs = [(a, b)]
    while pairs:
        a, b = pairs.pop()
        if type(a) is not type(b):
            return False
        if isinstance(a, float):
            if struct.pack(">d", a) != struct.pack(">d", b) and not (math.isnan(a) and math.isnan(b)):
                return False
        elif isinstance(a, list):
            if len(a) != len(b):
                return False
            pairs += zip(a, b)
        elif isinstance(a, dict):
            if a.keys() != b.keys():
                return False
            pairs += [(a[key], b[key]) for key in a]
        elif a != b:
            return False
    return True


def through(tool, files):
    """What the tool makes of each file: its bytes, or None and the error's text."""
    stream = b"".join(struct.pack(">I", len(f)) + f for f in files)
    run = subprocess.run([tool, "--frames"], input=stream, stdout=subprocess.PIPE, check=True)
    answers, out = [], run.stdout
    position = 0
    while position < len(out):
        (length,) = struct.unpack_from(">I", out, position)
        frame = out[position + 4 : position + 4 + length]
        position += 4 + length
        answers.append((frame[1:], "") if frame[:1] == b"+" else (None, frame[1:].decode("utf-8", "replace")))
    assert len(answers) == len(files), "the tool did not answer every file"
    return answers


def mutated(random_, data):
    data = bytearray(data)
    for _ in range(random_.choice([1, 1, 1, 2, 5])):
        if not data:
            break
        at = random_.randrange(len(data))
        kind = random_.randrange(6)
        if kind == 0:
            data[at] = random_.randrange(256)
        elif kind == 1:
            data[at] ^= 1 << random_.randrange(8)
        elif kind == 2:
            del data[at : at + random_.randrange(1, 9)]
        elif kind == 3:
            end = at + random_.randrange(1, 9)
            data[at:at] = data[at:end]
        elif kind == 4:
            data[at] = random_.choice([0x00, 0x7F, 0x80, 0xFF, 0x0F, 0x10, 0x5F, 0xA1, 0xD1])
        else:  # the trailer, or what stands near the end
            at = max(0, len(data) - random_.randrange(1, 41))
            data[at] = random_.randrange(256)
    return bytes(data)


# What we refuse and plistlib accepts, by what our error says.
REFUSED_BY_US_ONLY = {
    "binary": [
        "overlapping objects",  # our bound on time and memory
        "an object that contains itself",
        "a key that is no text",
        "a null",
        "no header or no trailer",  # plistlib lets the trailer overlap the rest
        "an offset size not 1 to 8",
        "a reference size not 1 to 8",
        "more objects than the offset table has room for",  # plistlib reads on in the trailer
        "an offset outside the objects",
        "an offset table outside the file",
        "an object longer than the file",  # reaches into the offset table
        "cut short",
        "a count of no integer",
        "an integer of unknown size",  # plistlib reads any power of two
        "an integer beyond 64 bits",
        "an unknown kind of object",
        "an archiver's reference",
        "a date of unknown size",
    ],
    "xml": [
        "an undeclared entity",  # plistlib leaves it out
        "unknown encoding",  # Python knows more
        "an unknown element",
        "an element inside a text or number",
        "text outside an element that holds text",
        "an integer, real, boolean, date or data that cannot be read",
        "no value",
        "a second value",
        "a plist element inside another",
    ],
}


def plistlib_reads(data, kind):
    """(accepted, value, the error that is behind a refusal)"""
    # Told to read the binary encoding, plistlib does not look at the header.
    fmt = None if kind == "binary" else plistlib.FMT_XML
    try:
        return True, plistlib.loads(data, fmt=fmt), None
    except Exception as error:  # plistlib lets errors of many kinds through
        return False, None, error.__context__ or error


def accepted_by_us_only(error, kind):
    """Whether plistlib's refusal is one of those that we do not share."""
    if kind == "binary":
        # A lone surrogate, and a date outside the years 1 to 9999.
        return isinstance(error, OverflowError) or (
            isinstance(error, UnicodeDecodeError) and error.encoding.startswith("utf-16")
        )
    return isinstance(error, AttributeError)  # white space about a date


def check_values(tool, seed, kind):
    """The files that were written, after each came back with its value."""
    fmt = plistlib.FMT_BINARY if kind == "binary" else plistlib.FMT_XML
    source = RandomValues(seed, for_xml=kind == "xml")
    values = [source.value(4) for _ in range(VALUES)]
    files = [plistlib.dumps(value, fmt=fmt, sort_keys=False) for value in values]
    for i, (answer, error) in enumerate(through(tool, files)):
        expected = plistlib.loads(files[i], fmt=fmt)
        assert answer is not None, f"{kind} value {i} was refused: {error}\n{values[i]!r}"
        got = plistlib.loads(answer, fmt=plistlib.FMT_BINARY)
        assert same(got, expected), f"{kind} value {i} came back as another\n{expected!r}\n{got!r}"
    return files


def check_damage(tool, seed, kind, files):
    random_ = random.Random(seed + 1)
    damaged = [mutated(random_, f) for f in files if len(f) < 5000 for _ in range(MUTATIONS)]
    both = ours = theirs = 0
    for data, (answer, error) in zip(damaged, through(tool, damaged)):
        accepted, value, reason = plistlib_reads(data, kind)
        if answer is None:
            if accepted:
                theirs += 1
                known = any(text in error for text in REFUSED_BY_US_ONLY[kind])
                assert known, f"refused: {error}\n{value!r:.200}\n{data!r}"
        elif accepted:
            both += 1
            got = plistlib.loads(answer, fmt=plistlib.FMT_BINARY)
            assert same(got, value), f"read as another value\n{data!r}\n{value!r}\n{got!r}"
        else:
            ours += 1
            assert accepted_by_us_only(reason, kind), f"accepted, but {reason!r:.200}\n{data!r}"
    print(f"{kind}: {len(damaged)} damaged files, read by both {both}, by us only {ours}, by plistlib only {theirs}")


def main():
    tool = sys.argv[1]
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 20_240_229
    print(f"seed {seed}")
    for kind in ("binary", "xml"):
        files = check_values(tool, seed, kind)
        check_damage(tool, seed, kind, files)


if __name__ == "__main__":
    main()
