#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seeds of the fuzz targets that people thought of, the same each time.

make_seeds.py [FOLDER]          into FOLDER/TARGET/NAME, by default the seeds beside this script
make_seeds.py --large FOLDER    inputs of almost 1 MiB that cost much, which are made for a test and not kept

Seeds that a fuzzer has found stand beside these under the SHA-1 of their bytes; finds begin with "find-".
"""

import datetime
import email.message
import email.policy
import pathlib
import plistlib
import random
import struct
import sys

HERE = pathlib.Path(__file__).resolve().parent
PREFIX = " com.quorvane.tallyhive.mailplugin."
WHEN = datetime.datetime(2024, 3, 13, 10, 20, 30)

VALUES = {
    "empty": {},
    "message": {"name": PREFIX + "Search", "userInfo": {"uniqueName": "q0", "clientName": "c0", "queryString": "a == 1"}},
    "kinds": {"t": True, "i": -7, "u": 2**63, "r": 0.5, "d": WHEN, "b": b"\x00\xff", "s": "é 日本 😀", "a": [1, [2, []]]},
    "shared": {"a": ["same text"] * 9, "b": ["same text"] * 9},
    "scalar": "text",
    "long": {"text": "x" * 300, "data": b"y" * 300, "array": list(range(300))},
    "log": {"THMPMailPlugin.log": [[WHEN, "name", "line"], [WHEN, "n/a", "text"], ["no date", 1], 7], "other": {"k": 1}},
    "batch": {"batchNumber": 1, "uniqueName": "q0", "messages": [{"libraryID": 7, "index": 0, "attributes": {"kMDItemSubject": "s"}}]},
}


def nested(depth):
    value = []
    for _ in range(depth):
        value = [value]
    return value


def binary_with(objects, refs=1, top=0, offset_size=1):
    """A binary property list of raw objects."""
    body, offsets = b"bplist00", []
    for each in objects:
        offsets.append(len(body))
        body += each
    table = len(body)
    body += b"".join(offset.to_bytes(offset_size, "big") for offset in offsets)
    return body + struct.pack(">5xBBBQQQ", 0, offset_size, refs, len(objects), top, table)


def binary_plist():
    for name, value in VALUES.items():
        yield name, plistlib.dumps(value, fmt=plistlib.FMT_BINARY)
    yield "deep", plistlib.dumps(nested(60), fmt=plistlib.FMT_BINARY)
    yield "cycle", binary_with([b"\xa1\x00"])
    yield "shared-bomb", binary_with([bytes([0xA8]) + bytes([i + 1]) * 8 for i in range(12)] + [b"\x09"])
    yield "reference-past-the-end", binary_with([b"\xa1\x09"])
    yield "odd-utf16", binary_with([b"\x62\xd8\x00\x00a"])
    yield "not-ascii", binary_with([b"\x52\xff\xc3"])
    yield "key-no-text", binary_with([b"\xd1\x01\x01", b"\x09"])
    yield "key-twice", binary_with([b"\xd2\x01\x01\x02\x02", b"\x51k", b"\x09"])
    yield "date-nan", binary_with([b"\x33\x7f\xf8" + bytes(6)])
    yield "real-nan", binary_with([b"\x23\x7f\xf8" + bytes(6)])
    yield "integer-16", binary_with([b"\x14" + bytes(8) + b"\xff" * 8])
    yield "count-overflow", binary_with([b"\xaf\x13" + b"\xff" * 8])
    yield "wide-tables", binary_with([b"\xa1" + (1).to_bytes(8, "big"), b"\x51a"], refs=8, offset_size=8)
    yield "uid", binary_with([b"\x80\x01"])
    yield "magic-alone", b"bplist0"


def xml_plist():
    for name, value in VALUES.items():
        yield name, plistlib.dumps(value, fmt=plistlib.FMT_XML)
    wrap = b'<?xml version="1.0"?><plist version="1.0">%s</plist>'
    for name, inside in {
        "hexadecimal": b"<integer>-0x1F</integer>", "plus": b"<integer>+7</integer>", "large": b"<integer>18446744073709551615</integer>",
        "reals": b"<array><real>1e309</real><real>nan</real><real>-inf</real><real>.5</real></array>",
        "cdata": b"<string><![CDATA[<a>&amp;]]></string>", "numeric": b"<string>&#13;&#x1F600;&apos;</string>",
        "base64": b"<data> AAEC\n Aw== </data>", "bad-base64": b"<data>A</data>", "comment": b"<!-- c --><true/>",
        "two-roots": b"<true/><true/>", "key-alone": b"<dict><key>a</key></dict>", "unclosed": b"<array><dict>",
        "date": b"<date>2024-03-13T10:20:30Z</date>", "unknown": b"<uid>1</uid>", "deep": b"<array>" * 40 + b"</array>" * 40,
    }.items():
        yield name, wrap % inside
    yield "entities", b'<!DOCTYPE p [<!ENTITY a "aa"><!ENTITY b "&a;&a;">]><plist><string>&b;</string></plist>'
    yield "external", b'<!DOCTYPE p SYSTEM "file:///etc/passwd"><plist><string>&x;</string></plist>'
    yield "utf-16", (wrap % b"<string>x</string>").decode().encode("utf-16")
    yield "latin-1", b'<?xml version="1.0" encoding="ISO-8859-1"?><plist><string>\xe9</string></plist>'
    yield "bom", b"\xef\xbb\xbf" + wrap % b"<true/>"


def text(value):
    value = value if isinstance(value, bytes) else value.encode()
    return struct.pack(">H", len(value)) + value


def message_sequences():
    random_steps = random.Random(1)
    message = plistlib.dumps(VALUES["message"], fmt=plistlib.FMT_BINARY)
    search = b"\x00" + text(message) + b"\x00"
    yield "raw-search", search
    yield "search-and-delivery", search + bytes([4, 0, 2, 1, 0, 0, 2, 0, 0, 0, 2, 0])
    yield "broken-file", b"\x00" + text(b"no plist") + b"\x00" + search
    yield "search-in-xml", b"\x00" + text(plistlib.dumps(VALUES["message"])) + b"\x01"
    for number in range(8):
        yield f"steps-{number}", random_steps.randbytes(120)


def control_messages():
    """Bytes that say: operation, then its choices; see takeStep()."""
    searches = bytes([0, 0, 0, 0, 0, 0, 1, 0, 0, 0])
    delivered = bytes([5, 0, 0, 5, 0, 1, 5, 1, 2])
    yield "same-lineage", searches + delivered
    yield "cancel", searches + delivered + bytes([1, 0, 0])
    yield "clear", searches + delivered + bytes([2, 1, 0, 1, 2, 1, 0, 1])
    yield "terminate", searches + delivered + bytes([3, 0, 2, 0, 1])
    yield "application-quits", searches + delivered + bytes([4, 0, 0])
    yield "other-edition-runs", searches + delivered + bytes([4, 0, 2])
    yield "same-name", bytes([0, 0, 0, 2, 0]) * 2 + delivered
    yield "removal-and-clear", searches + bytes([6, 1, 2, 1, 0, 1])
    yield "completion", searches + delivered + bytes([8, 1, 7, 1, 1])
    random_steps = random.Random(2)
    for number in range(8):
        yield f"steps-{number}", bytes(random_steps.choice([0, 0, 1, 2, 3, 5, 5, 6, 7, 8, random_steps.randrange(9)]) if i % 4 == 0
                                       else random_steps.randrange(12) for i in range(200))


def log_format():
    arguments = bytes([5, 1]) + (2**64 - 7).to_bytes(8, "big") + bytes([4]) + text("a text") + bytes([3]) + struct.pack(">d", 1.5) + bytes([7]) + bytes(8) + bytes([0])
    for number, form in enumerate(["%@ / %@ - %@", "%d %s %f %@ %@", "%3$@ %1$d %2$s", "%*d|%-*.*f|", "%n%n%@", "100 %", "%%%q%ll",
                                   "%999999999d", "%9$@", "%+08.3f % d %#x %#o %c", "%.2s%.0f%g%e", "plain", "%'d %hhd %zu %p"]):
        yield f"format-{number:02}", arguments + form.encode()
    yield "invalid-utf8", arguments + b"%.1@ \xff\xc3 %@"
    yield "long", arguments + b"%1024d" * 40 + b"%@"


def query_text():
    for number, query in enumerate([
            'a == "x"', "a != x && b > 6.5 || !(true)", "InRange(b, 1, $time.today(-1d))", 'FieldMatch(a, x, "y*"cd)', '* == "*plum*"cdw',
            '** == "apple"wt', "a[cd]==[w]'x'", "kMDItemContentCreationDate >= $time.this_week(-2)", "$time.iso(2024-03-13T10:00Z) > a",
            "kMDItemTextContent == \"an appl*\"cdwt", "x) || (1", "a == \"\\*\\\"\"", "a = 'un\nclosed", "a == $time.now(-0.5)",
            "kMDItemSubject == \"*e\u0301*\"d", "((((a==1))))", "!" * 40 + "true", "a == " + "*" * 50, "b == ?????", "a==1&&" * 30 + "true",
            "from:ada has:attachment \"plum cake\"", "-is:read after:2024-03 before:2025", "with:bo subject:x", "from: \"", "日本 ß", "has:nothing",
            "InRange(b,$time.today,$time.yesterday)", "a == TRUE", "false && true || FALSE", "a < \"9\"", "a == \"straSSE\"c", "authors == ada"]):
        yield f"query-{number:02}", query.encode()
    yield "invalid-utf8", b"a == \xff"
    yield "nul", b"a == \0"


def mails():
    policy = email.policy.default
    plain = email.message.EmailMessage(policy=policy)
    plain["From"] = "Ada Brightwater <ada@brightwater.example>"
    plain["To"] = "Robin Hale <robin@hale.example>, undisclosed: ;"
    plain["Subject"] = "Train to Göttingen 日本"
    plain["Date"] = "Wed, 13 Mar 2024 10:20:30 +0100"
    plain["Message-ID"] = "<1.a@brightwater.example>"
    plain.set_content("Grüße\n\nAda\n", cte="quoted-printable")
    yield "plain", bytes(plain)
    plain.add_alternative("<html><head><style>p{}</style></head><body><p>Gr&uuml;&#223;e<br>&lt;b&gt;</p><!-- x --></body></html>", subtype="html")
    plain.set_boundary("in-two-forms")
    yield "alternative", bytes(plain)
    plain.add_attachment(b"%PDF\x00", maintype="application", subtype="pdf", filename="Übersicht.pdf")
    plain.set_boundary("with-a-plan")
    yield "attachment", bytes(plain)
    yield "no-header", b"\r\nbody only\r\n"
    yield "header-only", b"Subject: x"
    yield "encoded-words", b"Subject: =?utf-8?B?w6k=?= =?iso-8859-1?q?=E9_x?= =?bad?x?=\nFrom: =?utf-8?q?Ada?= <ada@x>, b@y\n\nx\n"
    yield "parameters", b"Content-Type: text/plain; charset*0*=utf-8''%C3; charset*1*=%A9; name=\"a\\\"b\nContent-Disposition: attachment; filename*=latin1'en'%E9.txt\n\nx\n"
    yield "nested", b"Content-Type: multipart/mixed; boundary=a\n\n--a\nContent-Type: message/rfc822\n\nSubject: in\nContent-Type: multipart/digest; boundary=b\n\n--b\n\nSubject: deep\n\n--b--\n--a\nContent-Type: multipart/alternative; boundary=a\n\n--a--\n"
    yield "base64-torn", b"Content-Transfer-Encoding: base64\nContent-Type: text/html; charset=utf-16\n\nPABiAD4A=x\x00\n"
    yield "dates", b"Date: Fri, 31 Dec 999999 23:59:60 -9999\nReceived: from a by b; Thu, 1 Jan 1970 00:00:00 +0000\nReceived: ;\n\n"
    yield "charsets", b"Content-Type: text/plain; charset=\"x-unknown-8bit\"\n\n\xff\xfe\x80 \xc3\n"
    yield "uuencode", b"Content-Transfer-Encoding: x-uuencode\n\nbegin 644 a\n#0V%T\n`\nend\n"
    yield "folded", b"Subject: a\n\tb\n  c\nX-Priority: 1 (Highest)\nReferences: <a@b> <c@d>\nList-Id: G <g.l>\nX-Empty:\n: no name\nno colon\n\nx"
    yield "mbox-from", b"From ada Wed Mar 13 10:20:30 2024\nSubject: s\n\n>From x\n"
    yield "smime", b"Content-Type: multipart/signed; protocol=\"application/pgp-signature\"; micalg=pgp-sha1; boundary=s\n\n--s\nContent-Type: text/plain; format=flowed\n\nflowed \ntext\n--s\nContent-Type: application/pgp-signature\n\n-----BEGIN PGP SIGNATURE-----\n--s--\n"


def mail_file():
    for name, mail in mails():
        yield name + "-maildir", b"\x00" + mail
        yield name + "-eml", b"\x01" + mail
    trailer = plistlib.dumps({"flags": 8590195713, "date-received": 1710321630, "original-mailbox": "imap://x/INBOX"})
    for name, mail in mails():
        yield name + "-emlx", b"\x02%-10d\n" % len(mail) + mail + trailer
    yield "emlx-count-lies", b"\x0299999999\nSubject: x\n\ny\n" + trailer
    yield "emlx-no-count", b"\x02Subject: x\n\ny\n"


def pasteboard_entry():
    for name, value in VALUES.items():
        yield name, text("q") + text(PREFIX + "ResultsBatch") + plistlib.dumps(value, fmt=plistlib.FMT_BINARY)
    for number, name in enumerate(["..", "../..", ".", "", "/", "../secret", "a/../..", "planted-1/..", "planted-1/../..", "a\0b", "x" * 300]):
        yield f"name-{number:02}", text(name) + text(name) + plistlib.dumps({}, fmt=plistlib.FMT_BINARY)


def defaults_file():
    for name, value in VALUES.items():
        yield name, plistlib.dumps(value, fmt=plistlib.FMT_BINARY)
        yield name + "-xml", plistlib.dumps(value, fmt=plistlib.FMT_XML)
    for name, log in {"log-text": "x", "log-dictionary": {"a": 1}, "log-short": [[WHEN]], "log-future": [[datetime.datetime(9999, 1, 1), "a", "b"]],
                      "log-long": [[WHEN, "n", "l"]] * 600, "log-empty": [[], [[]], {}]}.items():
        yield name, plistlib.dumps({"THMPMailPlugin.log": log}, fmt=plistlib.FMT_BINARY)
    yield "torn", plistlib.dumps(VALUES["log"], fmt=plistlib.FMT_BINARY)[:-20]
    yield "nothing", b""


def paths_and_bookmarks():
    pairs = [("/home/ada/Library", "/home/ada"), ("~/Library/Mail", "~bo/x"), ("/a//b/./../c/", "/a/b"), ("..", "../.."), ("/..", "/"),
             ("~", "~/"), ("~nobody/x", "~bo"), ("./~", "~/."), ("/l/two", "/l/one"), ("/l/one/../two", "one"), ("/Library/../Library", ""),
             ("/home/ada/../ada/Library", "/home/adam"), ("a\0b", "/\0"), ("é", "e\u0301"), ("/" * 40, "." * 40), ("x" * 300, "/" + "y" * 5000)]
    for number, (a, b) in enumerate(pairs):
        yield f"paths-{number:02}", text(a) + text(b) + b"\x01\x20\x00"
    for name, mark in {"elsewhere": {"path": "/tmp", "device": 1, "inode": 2}, "relative": {"path": "tmp"}, "number": {"path": 7}, "text": "/tmp",
                       "file": {"path": "/etc/passwd", "device": 1, "inode": 1}, "nul": {"path": "/tmp\0x"}}.items():
        yield f"bookmark-{name}", text("") + text("") + b"\x00" + plistlib.dumps(mark, fmt=plistlib.FMT_BINARY)


TARGETS = [binary_plist, xml_plist, message_sequences, control_messages, log_format, query_text, mail_file, pasteboard_entry,
           defaults_file, paths_and_bookmarks]


LARGE = (1 << 20) - 64


def filled(unit, end="", begin=""):
    return (begin + unit * ((LARGE - len((begin + end).encode())) // len(unit.encode())) + end).encode()


def counted(form, count):
    """As many of `form` as fit, each with its own number."""
    return "".join(form.format(i) for i in range(count)).encode()[:LARGE]


def large_binary_plist():
    def container(kind, count):
        return bytes([kind | 0xF, 0x12]) + struct.pack(">I", count)

    def references(count):
        return b"".join(struct.pack(">I", i + 1)[1:] for i in range(count))

    for name, shared in {"booleans": b"\x09", "texts": b"\x5f\x10\x14" + b"x" * 20, "dictionaries": b"\xd0", "reals": b"\x23" + bytes(8)}.items():
        yield f"shared-{name}", binary_with([container(0xA0, 999_000) + b"\x01" * 999_000, shared], offset_size=4)
    for name, own in {"arrays": b"\xa0", "dictionaries": b"\xd0", "texts": b"\x51x", "wide-texts": b"\x61\0x"}.items():
        yield f"own-{name}", binary_with([container(0xA0, 110_000) + references(110_000)] + [own] * 110_000, refs=3, offset_size=3)
    # One level of many that share many, as far as the limits let it come.
    yield "shared-arrays", binary_with([container(0xA0, 400_000) + b"\1" * 400_000, b"\xa8" + b"\2" * 8, b"\x09"], offset_size=3)
    yield "shared-pairs", binary_with([container(0xA0, 400_000) + b"\1" * 400_000, b"\xd1\2\3", b"\x51k", b"\x09"], offset_size=3)
    yield "pairs", binary_with([container(0xA0, 75_000) + references(75_000)] + [b"\xd1\x01\x24\xf9\x01\x24\xf9"] * 75_000 + [b"\x51k"],
                               refs=3, offset_size=3)
    yield "one-text", binary_with([b"\x5f\x12" + struct.pack(">I", 1_000_000) + b"x" * 1_000_000], offset_size=4)
    yield "one-wide-text", binary_with([b"\x6f\x12" + struct.pack(">I", 500_000) + b"\x30\x42" * 500_000], offset_size=4)
    yield "integers", plistlib.dumps(list(range(85_000)), fmt=plistlib.FMT_BINARY)
    yield "texts", plistlib.dumps([f"t{i}" for i in range(70_000)], fmt=plistlib.FMT_BINARY)
    yield "keys", plistlib.dumps({f"t{i}": i for i in range(40_000)}, fmt=plistlib.FMT_BINARY)
    yield "keys-backwards", binary_keys(40_000)


def binary_keys(count):
    """A dictionary whose keys come in falling order."""
    keys = list(range(count, 0, -1))
    body = bytes([0xDF, 0x12]) + struct.pack(">I", count) + b"".join(i.to_bytes(3, "big") for i in keys) + b"\0\0\1" * count
    return binary_with([body] + [b"\x56" + b"%06d" % i for i in range(count)], refs=3, offset_size=3)


def large_xml_plist():
    for name, unit in {"booleans": "<true/>", "arrays": "<array/>", "integers": "<integer>1</integer>", "texts": "<string>é</string>",
                       "empty-texts": "<string/>", "dictionaries": "<dict/>", "reals": "<real>.1</real>", "pairs": "<dict><key>k</key><true/></dict>",
                       "dates": "<date>2024-03-13T10:20:30Z</date>", "data": "<data>AA==</data>", "comments": "<!---->"}.items():
        yield name, filled(unit, "</array></plist>", "<plist><array>")
    yield "keys", ("<plist><dict>" + "".join(f"<key>{i}</key><true/>" for i in range(43_000)) + "</dict></plist>").encode()
    yield "keys-backwards", ("<plist><dict>" + "".join(f"<key>{i}</key><true/>" for i in range(40_000, 0, -1)) + "</dict></plist>").encode()
    yield "deep", filled("<array>")
    yield "digits", filled("7", "</integer></plist>", "<plist><integer>")
    yield "real-digits", filled("7", "</real></plist>", "<plist><real>0.")
    yield "characters", filled("&#65;", "</string></plist>", "<plist><string>")
    yield "sections", filled("<![CDATA[x]]>", "</string></plist>", "<plist><string>")
    yield "base64", filled("AAAA", "</data></plist>", "<plist><data>")
    yield "base64-blanks", filled("A \n", "</data></plist>", "<plist><data>")
    yield "attributes", ("<plist " + "".join(f"a{i}='' " for i in range(100_000)))[:LARGE - 10].encode() + b"><true/></plist>"
    yield "one-name", filled("x", "/>", "<")
    yield "blanks", filled(" ", "<true/></plist>", "<plist>")


def large_query_text():
    for number, unit in enumerate(["a==1&&", "a==x||", 'a=="x*y"cd||', 'b=="x y*"cdwt||', "true||", "!a==x||", "a>$time.iso(2024-03-13)||", "a>$time.now||",
                                   "InRange(a,1,2)||", "(" * 200 + "a==1" + ")" * 200 + "||", 'kMDItemSubject=="*x*"cd||', "!!!!true||", "a==2024-03-13||",
                                   'a=="$time.now"||', "InRange(a,$time.today,$time.now)||", "a==1&&b==1||", "FieldMatch(a,1)||", "subject==é||"]):
        yield f"operands-{number:02}", filled(unit, "true")
    yield "names", ("".join(f"a{i}==x||" for i in range(90_000)) + "true").encode()
    for name, unit in {"values": ",x", "numbers": ",1", "dates": ",2024-03-13", "modified": ',"x*"cdwt', "times": ",$time.now"}.items():
        yield name, filled(unit, ")", "FieldMatch(a")
    for name, unit in {"literal": "x", "words": "x ", "stars": "x*", "ones": "?", "mixed": "?x", "marks": "\u0301", "sharp": "ß", "escapes": "\\x",
                       "composed": "e\u0301", "hangul": "\u1100\u1161\u11a8", "ligature": "\ufdfa"}.items():
        yield name, filled(unit, '"cdw', 'a=="')
    yield "words-each", filled("x ", '"cdwt', 'a=="')
    yield "words-by-themselves", filled("日", '"cdwt', 'a=="')
    yield "words-of-many", filled('a=="' + "x " * 1000 + '"cdwt||', "true")
    yield "digits", filled("7", "", "a==")
    yield "name", filled("a", "==1")
    yield "bound", filled("x", '",1)', 'InRange(a,"')
    yield "time", filled("9", ")", "a==$time.now(")
    yield "iso", filled("9", ")", "a==$time.iso(")
    yield "blanks", filled(" ", "true")


def large_mail_file():
    for name, unit in {"headers": "X-A: b\n", "addresses": "a@b, ", "references": "<a@b> ", "words": "=?utf-8?q?a?= ", "folded": "\n\tx", "comments": "("}.items():
        yield name, filled(unit, "\n\nbody\n", "\0From: x@y\nTo: " if unit != "X-A: b\n" else "\0")
    for name, unit in {"commas": ",", "names": '"" <a@b>,', "groups": "a:b@c;", "angles": "<", "quotes": '"\\"', "routes": "<@a:b@c>,", "dots": "a.",
                       "words-in-names": "=?utf-8?q?a?= <a@b>,", "short-words": "=?u?q?a?=", "bytes": "\x80@b,", "colons": ":", "at": "@", "semicolons": ";", "blanks": "a@b ",
                       "quoted-blanks": '"a"@b ', "groups-open": "a:b@c,", "lines": "a@b\n "}.items():
        yield "to-" + name, filled(unit, "\n\n", "\0To: ")
    yield "words-unknown", filled("=?a?x? ", "?=\n\n", "\0Subject: ")
    yield "words-many-charsets", b"\0Subject: " + counted("=?c{}?q?a?= ", 80_000) + b"\n\n"
    yield "words-charsets", filled("=?iso-2022-jp?q?a?= =?utf-16?q?a?= =?koi8-r?q?a?= ", "\n\n", "\0Subject: ")
    known = ["iso-8859-%d" % i for i in range(2, 17)] + ["cp125%d" % i for i in range(9)] + ["koi8-u", "big5", "euc-kr", "euc-jp", "gb18030", "tis-620"]
    yield "words-known-charsets", filled("".join(f"=?{charset}?q?a?= " for charset in known), "\n\n", "\0Subject: ")
    yield "field-windows", b"\0Subject: " + b"\x82" * 900_000 + b"\n\n"
    yield "words-one", filled("=C3", "?=\n\n", "\0Subject: =?utf-8?q?")
    yield "words-torn", filled("=FF", "?=\n\n", "\0Subject: =?utf-16?q?")
    yield "blanks", filled("\u2003", "\n\n", "\0Subject: ")
    for name in ["Keywords", "X-Gmail-Labels", "Comments", "Message-ID", "Date", "X-Priority", "Status"]:
        yield "field-" + name.lower(), filled("a,", "\n\n", f"\0{name}: ")
    for name in ["Delivered-To", "To", "Received", "Subject", "References"]:
        yield "fields-" + name.lower(), filled(f"{name}: a@b;x\n", "\n", "\0")
    yield "names-of-fields", b"\0" + counted("a{}:b\n", 140_000)
    yield "date-digits", filled("1 ", "\n\n", "\0Date: ")
    yield "parts", filled("--a\n\nx\n", "--a--\n", "\0Content-Type: multipart/mixed; boundary=a\n\n")
    yield "parts-html", filled("--a\nContent-Type: text/html\n\n<\n", "--a--\n", "\0Content-Type: multipart/mixed; boundary=a\n\n")
    yield "parts-attached", filled("--a\nContent-Disposition: attachment; filename=x\n\n", "", "\0Content-Type: multipart/mixed; boundary=a\n\n")
    yield "parts-named-in-words", filled("--a\nContent-Type: x/y; name==?utf-8?q?x?=\n\n", "", "\0Content-Type: multipart/mixed; boundary=a\n\n")
    yield "parts-charsets", filled("--a\nContent-Type: text/plain; charset=koi8-r\n\n\x80\n", "", "\0Content-Type: multipart/mixed; boundary=a\n\n")
    for kind in ["mixed", "alternative"]:
        outer = "".join(f"Content-Type: multipart/{kind}; boundary=b{i:02}\n\n--b{i:02}\n" for i in range(98))
        yield f"nested-{kind}", filled("Content-Type: text/html\n\n--b97\n", "", "\0" + outer)
        yield f"nested-{kind}-lines", filled("--b\n", "", "\0" + outer + "\n")
        yield f"nested-{kind}-dashes", filled("--b98\n", "", "\0" + outer + "\n")
    yield "nested", b"\0" + counted("Content-Type: multipart/mixed; boundary=b{0}\n\n--b{0}\n", 20_000)
    yield "messages", filled("Content-Type: message/rfc822\n\n", "", "\0")
    yield "digest", filled("--a\n\nTo: x\n\n", "", "\0Content-Type: multipart/digest; boundary=a\n\n")
    yield "parameters", filled("; p*0=a", "\n\nx\n", "\0Content-Type: text/plain")
    yield "parameters-pieces", b"\0Content-Type: text/plain" + counted("; p*{}=a", 80_000) + b"\n\nx\n"
    yield "parameters-encoded", b"\0Content-Type: text/plain" + counted("; name*{}*=%E9", 60_000) + b"\n\nx\n"
    yield "parameters-names", b"\0Content-Disposition: attachment" + counted("; p{}=a", 90_000) + b"\n\nx\n"
    yield "parameters-words", filled("=?utf-8?q?a?= ", "\"\n\nx\n", "\0Content-Type: text/plain; name=\"")
    yield "content-fields", b"\0" + counted("Content-{}: x\n", 90_000)
    yield "content-types", filled("Content-Type: text/plain\n", "\n", "\0")
    yield "boundaries", filled("Content-Type: multipart/mixed; boundary\n", "\n--a\n", "\0")
    body = "\0Content-Type: text/html; charset=utf-8\n\n"
    for name, unit in {"tags": "<p><b>", "entities": "&amp;", "comments-open": "<!--", "angles": "<", "quotes": "<a b=\"", "one-quote": "<a b='>", "numbers": "&#x2003;",
                       "scripts": "<script></b", "tag-open": "<a ", "ampersands": "&", "declarations": "<!a", "closes": "</"}.items():
        yield "html-" + name, filled(unit, "", body)
    for charset in ["utf-16", "iso-2022-jp", "utf-7", "gb18030", "koi8-r", "hz", "none"]:
        yield "charset-" + charset, filled("\u00e9\x1b$B", "", f"\0Content-Type: text/plain; charset={charset}\n\n")
    yield "base64", filled("QUJD\n", "", "\0Content-Transfer-Encoding: base64\n\n")
    yield "quoted", filled("=41=\n", "", "\0Content-Transfer-Encoding: quoted-printable\n\n")
    yield "uuencode", filled("M" + "0" * 60 + "\n", "", "\0Content-Transfer-Encoding: x-uuencode\n\nbegin 644 a\n")
    yield "yenc", filled("=y\n", "", "\0Content-Transfer-Encoding: yenc\n\n=ybegin line=128 size=9 name=a\n")
    yield "line", filled("x", "", "\0\n")
    yield "lines", filled("\n", "", "\0\n")
    yield "nul", filled("\0", "", "\0\n")
    yield "white", filled(" x", "", "\0\n")
    yield "emlx-trailer", b"\x0210\nSubject: x" + next(large_xml_plist())[1]


def large_log_format():
    for name, unit in {"objects": "%@", "widths": "%1024d", "positions": "%1$*1$@", "unknown": "%q", "percents": "%%", "reals": "%f", "precise": "%.1024f",
                       "far": "%99$@", "texts": "%s", "flags": "%-+ #0'd"}.items():
        yield name, b"\1\4\0\3abc" + filled(unit)
    yield "one-number", b"\1\4\0\3abc" + filled("9", "d", "%")
    yield "text", b"\1\4\xff\xff" + b"x" * 0xFFFF + filled("%@")[:LARGE - 0xFFFF]
    yield "real", b"\1\3" + struct.pack(">d", 1e308) + filled("%f")
    yield "bytes", b"\0" + b"\xff" * LARGE


def large_pasteboard_entry():
    for name, content in large_binary_plist():
        yield name, content


def large_defaults_file():
    for name, content in large_binary_plist():
        yield name, content
    for name, content in large_xml_plist():
        yield "xml-" + name, content
    yield "log", plistlib.dumps({"THMPMailPlugin.log": [[WHEN, "n", f"line {i}"] for i in range(30_000)]}, fmt=plistlib.FMT_BINARY)


def large_paths_and_bookmarks():
    for name, unit in {"slashes": "/", "dots": "/.", "parents": "/a/..", "parents-after": "../", "names": "/a", "tilde": "~", "one": "a", "nul": "\0"}.items():
        yield name, filled(unit)
    yield "bookmark", plistlib.dumps({"path": "/" * 1_000_000, "device": 1, "inode": 1}, fmt=plistlib.FMT_BINARY)
    yield "bookmark-keys", plistlib.dumps({f"t{i}": i for i in range(40_000)}, fmt=plistlib.FMT_BINARY)


LARGE_TARGETS = [large_binary_plist, large_xml_plist, large_query_text, large_mail_file, large_log_format, large_pasteboard_entry, large_defaults_file,
                 large_paths_and_bookmarks]


def main():
    large = sys.argv[1:2] == ["--large"]
    words = sys.argv[1 + large:]
    folder = pathlib.Path(words[0]) if words else HERE / "seeds"
    count = 0
    for target in LARGE_TARGETS if large else TARGETS:
        place = folder / target.__name__.removeprefix("large_")
        place.mkdir(parents=True, exist_ok=True)
        for name, content in target():
            (place / name).write_bytes(content)
            count += 1
    print(f"{count} seeds in {folder}")


if __name__ == "__main__":
    main()
