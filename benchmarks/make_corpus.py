#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes invented mail: a Maildir++ of any number of messages, the same bytes for the same number.

make_corpus.py COUNT FOLDER [--lean]    --lean: short texts, about 2 kB a message in place of about 5

One contact has 200 messages whatever the number, one has a twelfth of all, the others follow Zipf's law. A third has HTML
beside its text, a seventh has an attachment, most are answers in threads.
"""
import argparse
import base64
import itertools
import multiprocessing
import os
import pathlib
import random
import time

BLOCK = 1000  # messages made by one task; the seed of each is its number
FOLDERS = ("", ".Archive", ".Archive.2019", ".Work", ".Work.Projects", ".Lists", ".Family", ".Sent")
BEGIN, SPAN = 1_420_070_400, 10 * 365 * 86_400  # ten years from 2015 on
ME = "Robin Hale <robin@hale.example.org>"
MEDIUM, HEAVY = "mina.medium@example.org", "hugo.heavy@example.org"
MEDIUM_MESSAGES, HEAVY_SHARE = 200, 12
SYLLABLES = "ba be bi bo da de di do fa fe ga go ha hi ka ke ki ko la le li lo ma me mi mo na no pa po ra re ri ro sa se ta te to va wi zo".split()
NAMES = ("Ada Brook", "Zoë Núñez", "Søren Åberg", "Jürgen Weiß", "Ольга Громова", "田中 花子", "Peter Young", "Clara Vogel", "Łukasz Nowak", "Emma Castro")
world = None


class World:
    """Words, sentences and people: what all messages draw from."""

    def __init__(self, count, lean):
        chance = random.Random("world")
        self.count, self.lean = count, lean
        words = list(dict.fromkeys("".join(chance.choices(SYLLABLES, k=chance.choice((1, 2, 2, 3, 3, 3, 4, 5)))) for _ in range(90_000)))
        self.words = words[:50_000]
        likely = list(itertools.accumulate(1 / (rank + 3) for rank in range(len(self.words))))
        self.sentences = [" ".join(chance.choices(self.words, cum_weights=likely, k=chance.randint(5, 22))).capitalize() + "."
                          for _ in range(40_000)]
        self.people = []
        for number in range(max(300, int(count ** 0.75))):
            name = NAMES[chance.randrange(len(NAMES))]
            if not name.isascii():
                name = f"=?utf-8?B?{base64.b64encode(name.encode()).decode()}?="
            self.people.append(f"{name} <{chance.choice(self.words)}.{number}@{chance.choice(SYLLABLES)}mail.example.com>")
        self.person_weights = list(itertools.accumulate(1 / (rank + 20) for rank in range(len(self.people))))
        step = max(1, count // MEDIUM_MESSAGES)
        self.medium = set(range(0, step * MEDIUM_MESSAGES, step))


def date_of(seconds):
    return time.strftime("%a, %d %b %Y %H:%M:%S +0000", time.gmtime(seconds))


def text_of(chance):
    length = 250 if world.lean else min(14_000, int(chance.lognormvariate(7.7, 0.8)))
    lines, size = [], 0
    while size < length:
        line = chance.choice(world.sentences)
        lines.append(line if len(line) < 900 else line[:900])
        size += len(line)
        if chance.random() < 0.2:
            lines.append("")
    lines.append(f"Reference {chance.getrandbits(40):010x}.")
    return "\n".join(lines) + "\n"


def leaf(kind, text):
    return f"Content-Type: {kind}; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n{text}"


def content_of(chance):
    text = text_of(chance)
    if chance.random() < 0.35:
        half = text[:len(text) // 2 + 1]
        page = "<html><body>" + "".join(f"<p>{line}</p>\n" for line in half.split("\n")) + "</body></html>\n"
        content = ('Content-Type: multipart/alternative; boundary="=_two"\n\n'
                   f"--=_two\n{leaf('text/plain', half)}\n--=_two\n{leaf('text/html', page)}\n--=_two--\n")
    else:
        content = leaf("text/plain", text)
    if not world.lean and chance.random() < 0.14:
        data = base64.encodebytes(chance.randbytes(300 + chance.randrange(2500))).decode()
        name = f"{chance.choice(world.words)}.pdf"
        content = (f'Content-Type: multipart/mixed; boundary="=_all"\n\n--=_all\n{content}\n--=_all\nContent-Type: application/pdf\n'
                   f'Content-Disposition: attachment; filename="{name}"\nContent-Transfer-Encoding: base64\n\n{data}\n--=_all--\n')
    return content


def other_of(chance, number):
    if number in world.medium:
        return f"Mina Medium <{MEDIUM}>"
    if chance.randrange(HEAVY_SHARE) == 0:
        return f"Hugo Heavy <{HEAVY}>"
    return chance.choices(world.people, cum_weights=world.person_weights)[0]


def message(chance, number, seconds, thread):
    other = other_of(chance, number)
    sent = chance.random() < 0.3
    sender, recipient = (ME, other) if sent else (other, ME)
    if not thread["ids"]:
        thread["subject"] = " ".join(chance.choice(world.words[:6000]) for _ in range(chance.randint(2, 6))).capitalize()
    own = f"{number}.{chance.getrandbits(40):x}@example.org"
    headers = [f"Return-Path: <{sender[sender.index('<') + 1:-1]}>",
               f"Received: from mx.example.org ([192.0.2.{number % 250}])\n\tby mail.hale.example.org with ESMTPS; {date_of(seconds + 3)}",
               f"From: {sender}", f"To: {recipient}"]
    if chance.random() < 0.2:
        headers.append("Cc: " + ",\n\t".join(chance.choices(world.people, cum_weights=world.person_weights, k=chance.randint(1, 5))))
    headers += [f"Subject: {'Re: ' if thread['ids'] else ''}{thread['subject']}", f"Date: {date_of(seconds)}", f"Message-ID: <{own}>"]
    if thread["ids"]:
        headers += [f"In-Reply-To: <{thread['ids'][-1]}>", "References: " + "\n\t".join(f"<{one}>" for one in thread["ids"][-6:])]
    headers.append("MIME-Version: 1.0")
    thread["ids"].append(own)
    return ("\n".join(headers) + "\n" + content_of(chance)).encode(), ".Sent" if sent else thread["folder"]


def make_block(task):
    block, folder = task
    chance = random.Random(f"block {block}")
    threads = []
    for number in range(block * BLOCK, min(world.count, (block + 1) * BLOCK)):
        if not threads or chance.random() < 0.45:
            threads = threads[-30:] + [{"ids": [], "folder": chance.choice(FOLDERS[:-1])}]
        seconds = BEGIN + SPAN * number // world.count
        content, place = message(chance, number, seconds, chance.choice(threads))
        flags = "".join(flag for flag, share in (("F", 0.05), ("R", 0.2), ("S", 0.85)) if chance.random() < share)
        path = f"{folder}/{place}/cur/{seconds}.M{number}.example:2,{flags}"
        with open(path, "wb") as file:
            file.write(content)
        os.utime(path, (seconds, seconds))


def make(count, folder, lean=False):
    """Made beside its place and moved there whole, so that what stands there is complete."""
    global world
    folder = pathlib.Path(folder)
    unfinished = folder.with_name(folder.name + ".unfinished")
    for name in FOLDERS:
        for part in ("cur", "new", "tmp"):
            (unfinished / name / part).mkdir(parents=True, exist_ok=True)
    world = World(count, lean)
    with multiprocessing.get_context("fork").Pool() as pool:
        for _ in pool.imap_unordered(make_block, ((block, unfinished) for block in range((count + BLOCK - 1) // BLOCK))):
            pass
    unfinished.rename(folder)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("count", type=int)
    parser.add_argument("folder")
    parser.add_argument("--lean", action="store_true")
    options = parser.parse_args()
    make(options.count, options.folder, options.lean)
