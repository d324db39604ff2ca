#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""soak.py [--minutes M]: a host under load for a long time. Mail arrives, changes its flags and goes, many times a second;
live queries follow it, for clients that clear their batches, that never do, and that die and are succeeded. Now and then
everything is halted and compared: the items of each live query, put together from its messages alone, with a fresh search
and with the mail on disk; the folder of pasteboards, name by name, with what is pending; descriptors, threads and memory.

Prints a line each minute and a table at the end. The exit status is 1 when anything was not as it should be."""

import argparse
import collections
import contextlib
import dataclasses
import os
import pathlib
import plistlib
import random
import re
import signal
import sys
import time
import urllib.parse
import uuid

from applications_scenario import CLIENT_EDITION, Application
from world import PREFIX, World, wait_for

BOXES = 20
SENDERS = 30
TOPICS = 12
WORDS = ("plover", "heron", "egret", "stork")
FLAGS = ("", "S", "F", "FS", "RS", "FRS")
KINDS = {"clears": 30, "forgets": 10, "dies": 10}
REMOVAL = re.compile(re.escape(f"post {PREFIX}QueryHasRemovals / ") + r"(\S+)")
TERMINATED = re.compile(r"THMPMailPlugin terminate client (\S+)")
TROUBLE = re.compile(r" ERROR|tallyhive: .*(cannot|could not|damaged|dropped)")
# What a host may keep of a batch that is out: its names, its tags and its place in the lists.
BYTES_A_PASTEBOARD = 1024


class Wrong(Exception):
    """Something that must not be."""


@dataclasses.dataclass
class Mail:
    path: pathlib.Path
    sender: int
    topic: int
    word: str

    @property
    def name(self):
        return stable(self.path.name)

    @property
    def flags(self):
        return self.path.name.partition(":2,")[2]


def stable(name):
    """What of a file's name no flag changes."""
    return os.path.basename(name).partition(":2,")[0]


class Mailbox:
    """The mail on disk, and what a query has to find of it."""

    def __init__(self, world, chance):
        self.world = world
        self.chance = chance
        self.mails = {}
        self.names = []
        self.done = collections.Counter()

    def arrive(self, flags=None):
        sender, topic, word = self.chance.randrange(SENDERS), self.chance.randrange(TOPICS), self.chance.choice(WORDS)
        path = self.world.deliver(f"topic{topic:02} of {self.world.delivered}", sender=f"S <s{sender}@example.org>",
                                  folder=f"box{self.chance.randrange(BOXES)}", flags=flags,
                                  body=f"Seen by the lake: one {word}, no more. " * 6)
        mail = Mail(path, sender, topic, word)
        self.mails[mail.name] = mail
        self.names.append(mail.name)
        self.done["arrived"] += 1

    def change_flags(self):
        mail = self.mails[self.chance.choice(self.names)]
        mail.path = mail.path.rename(mail.path.parent.parent / "cur" / f"{mail.name}:2,{self.chance.choice(FLAGS)}")
        self.done["changed"] += 1

    def go(self):
        place = self.chance.randrange(len(self.names))
        self.names[place], self.names[-1] = self.names[-1], self.names[place]
        self.mails.pop(self.names.pop()).path.unlink()
        self.done["gone"] += 1

    def change(self):
        kind = self.chance.randrange(10)
        if kind < 2:
            self.arrive()
        elif kind < 4:
            self.go()
        else:
            self.change_flags()


def subjects():
    """What the live queries ask, each with what it must find."""
    yield "com_apple_mail_flagged == 1", lambda mail: "F" in mail.flags
    yield "com_apple_mail_read == 0", lambda mail: "S" not in mail.flags
    yield 'kMDItemContentType == "*"', lambda mail: True
    for sender in range(SENDERS):
        yield f'kMDItemAuthorEmailAddresses == "s{sender}@example.org"', lambda mail, at=sender: mail.sender == at
    for topic in range(TOPICS):
        yield f'kMDItemSubject == "topic{topic:02}*"', lambda mail, at=topic: mail.topic == at
    for word in WORDS:
        yield f'kMDItemTextContent == "{word}"cdw', lambda mail, at=word: mail.word == at
    yield 'kMDItemSubject == "topic00*" || kMDItemSubject == "topic01*"', lambda mail: mail.topic < 2


class LiveQuery:
    """What one live query has told."""

    def __init__(self, client, unique, text, matches):
        self.client, self.unique, self.text, self.matches = client, unique, text, matches
        self.found = {}  # library ID to the stable name
        self.removed = set()
        self.pending = set()  # names of pasteboards with results that the host has not taken back
        self.numbers = {"QueryHasUpdates": set(), "QueryHasRemovals": set()}
        self.kinds = collections.Counter()
        self.is_read = True  # until its client ends it: then its pasteboards may go at any moment

    def take_results(self, batch):
        for item in batch["messages"]:
            number = item["libraryID"]
            if number in self.found:
                raise Wrong(f"{self.unique}: message {number} was delivered twice")
            self.found[number] = stable(item["kMDItemPath"])

    def take_removals(self, batch):
        for number in map(int, batch["messageIDs"]):
            if number in self.removed and not self.text.startswith("com_apple_mail_"):
                raise Wrong(f"{self.unique}: message {number} was removed twice")
            self.removed.add(number)

    def items(self):
        """Removals are numbered apart from results, and may be read before them. What came and went at once may be removed
        without having been found, and what changed to and fro removed more than once."""
        return {number: name for number, name in self.found.items() if number not in self.removed}

    def expected(self, mails):
        """Of what is on disk; what was removed once stays removed."""
        gone = {self.found.get(number) for number in self.removed}
        return {mail.name for mail in mails.values() if mail.name not in gone and self.matches(mail)}

    def check_numbers(self):
        for kind, numbers in self.numbers.items():
            if numbers != set(range(1, len(numbers) + 1)):
                raise Wrong(f"{self.unique}: gaps in the numbers of {kind}")


class Client:
    """Has one live query at a time, and its own manner."""

    def __init__(self, soak, name, kind, text, matches):
        self.soak, self.name, self.kind, self.text, self.matches = soak, name, kind, text, matches
        self.query = None
        self.alive = True
        self.next_step = None

    def begin(self, now):
        self.alive = True
        unique = f"{self.name}-{uuid.uuid4().hex[:8]}"
        self.query = self.soak.register(LiveQuery(self, unique, self.text, self.matches))
        self.soak.post("Search", uniqueName=unique, clientName=self.name, queryString=self.text, version="1")
        self.next_step = None if self.kind == "clears" else now + self.soak.chance.uniform(60, 240)

    def step(self, now):
        if self.next_step is None or now < self.next_step:
            return
        self.next_step = None
        if self.kind == "dies" and self.alive:
            self.alive = False
            self.next_step = now + self.soak.chance.uniform(5, 20)
            self.soak.done["deaths"] += 1
        elif self.kind == "dies":
            self.end("Terminate", clientName=self.name)
        else:
            self.end("Cancel", clientName=self.name, uniqueName=self.query.unique)

    def end(self, kind, **user_info):
        query, self.query = self.query, None
        query.is_read = False

        def ended():
            self.soak.look()
            self.soak.forget(query)
            self.begin(time.monotonic())
        self.soak.post(kind, then=ended, **user_info)


class Soak:
    def __init__(self, options):
        self.options = options
        self.chance = random.Random(options.seed)
        self.world = World()
        self.mailbox = Mailbox(self.world, self.chance)
        self.queries = {}  # by unique name
        self.ended = set()
        self.waiting = []  # requests that have not been taken, and what follows
        self.left = {}  # files in "out" for the dead, by unique name
        self.seen = set()  # names of those files, and of what is for everybody
        self.removals = set()  # pasteboards that are out for good
        self.terminated = collections.Counter()
        self.done = collections.Counter()
        self.halted = []  # what was measured while all was still
        self.clients = []

    # The exchange

    def post(self, kind, then=None, **user_info):
        message = {"name": PREFIX + kind, "userInfo": user_info}
        temporary = self.world.inbox / f"{uuid.uuid4().hex}.part"
        temporary.write_bytes(plistlib.dumps(message, fmt=plistlib.FMT_BINARY))
        request = temporary.with_suffix(".plist")
        temporary.rename(request)
        self.waiting.append((request, then))
        self.done["requests"] += 1

    def register(self, query):
        self.queries[query.unique] = query
        return query

    def forget(self, query):
        """It has ended: nothing of it comes any more."""
        self.ended.add(query.unique)
        del self.queries[query.unique]
        if query.client.alive:
            query.check_numbers()
        for path in self.left.pop(query.unique, ()):
            path.unlink()

    def read_lines(self):
        lines = self.host.lines
        for line in lines:
            self.removals.update(REMOVAL.findall(line))
            self.terminated.update(TERMINATED.findall(line))
            if TROUBLE.search(line):
                raise Wrong(f"the host says: {line}")
        lines.clear()

    def look(self):
        """Takes all that lies in "out"."""
        for entry in list(os.scandir(self.world.outbox)):
            if entry.name in self.seen or not entry.name.endswith(".plist"):
                continue
            path = pathlib.Path(entry.path)
            message = plistlib.loads(path.read_bytes())
            info = message.get("userInfo", {})
            unique = info.get("uniqueName")
            if unique in self.ended:
                raise Wrong(f"{message['name']} of {unique}, which had ended")
            query = self.queries.get(unique)
            if query is None:
                self.seen.add(entry.name)
                continue
            self.take(query, message["name"].removeprefix(PREFIX), info)
            if query.client.alive:
                path.unlink()
            else:
                self.seen.add(entry.name)
                self.left.setdefault(unique, []).append(path)

    def take(self, query, kind, info):
        self.done[kind] += 1
        query.kinds[kind] += 1
        if "errorCode" in info:
            raise Wrong(f"{query.unique}: {info['errorMessage']}")
        if kind in query.numbers:
            if info["batchNumber"] in query.numbers[kind]:
                raise Wrong(f"{query.unique}: {kind} {info['batchNumber']} twice")
            query.numbers[kind].add(info["batchNumber"])
        if kind == "QueryHasUpdates":
            query.pending.add(info["batchName"])
            if query.client.alive and query.is_read:
                query.take_results(self.read(info, "ResultsBatch"))
            if query.client.alive and query.is_read and query.client.kind != "forgets":
                self.post("Clear", then=lambda: query.pending.discard(info["batchName"]), uniqueName=query.unique,
                          clientName=query.client.name, batchName=info["batchName"])
        elif kind == "QueryHasRemovals" and query.client.alive and query.is_read:
            query.take_removals(self.read(info, "RemovalBatch"))

    def read(self, info, kind):
        file = self.world.pasteboards / info["batchName"] / urllib.parse.quote(PREFIX + kind, safe="-._~")
        batch = plistlib.loads(file.read_bytes())
        if (batch["uniqueName"], batch["batchNumber"]) != (info["uniqueName"], info["batchNumber"]):
            raise Wrong(f"{info['uniqueName']}: the batch of another on its pasteboard")
        return batch

    def turn(self):
        """One turn of all clients."""
        self.read_lines()
        self.look()
        waiting, self.waiting = self.waiting, []
        for request, then in waiting:
            if request.exists():
                self.waiting.append((request, then))
            elif then:
                then()
        if self.host.process.poll() is not None:
            raise Wrong(f"the host has ended with {self.host.process.returncode}")

    # What is compared

    def until(self, condition, what):
        def turned():
            self.turn()
            return condition()
        wait_for(turned, what)

    def fresh(self, text):
        query = self.register(LiveQuery(Client(self, "fresh", "clears", text, None), f"fresh-{uuid.uuid4().hex}", text, None))
        paths = {}
        take_results = query.take_results

        def take(batch):
            take_results(batch)
            paths.update((item["libraryID"], item["kMDItemPath"]) for item in batch["messages"])
        query.take_results = take
        self.post("Search", uniqueName=query.unique, clientName="fresh", queryString=text, version="1")
        self.until(lambda: query.kinds["QueryDidComplete"] and not self.waiting, "a fresh search")
        self.post("Cancel", uniqueName=query.unique, clientName="fresh")
        self.until(lambda: not self.waiting, "its cancel")
        self.look()
        self.forget(query)
        return paths

    def agrees(self, query):
        return set(query.items().values()) == query.expected(self.mailbox.mails)

    def difference(self, query):
        has, due = set(query.items().values()), query.expected(self.mailbox.mails)
        return f"{query.unique} ({query.text}): has {sorted(has - due)[:3]} too many, lacks {sorted(due - has)[:3]}"

    def compare(self):
        """All is still; each live query against a fresh search and the mail on disk."""
        alive = [client.query for client in self.clients if client.alive and client.query]
        try:
            self.until(lambda: not self.waiting and all(map(self.agrees, alive)), "live queries that agree with the mail")
        except AssertionError as error:
            raise Wrong("; ".join(self.difference(query) for query in alive if not self.agrees(query)) or str(error)) from None
        on_disk = {str(path) for part in ("cur", "new") for path in self.world.mail.glob(f"*/{part}/*")}
        if on_disk != {str(mail.path) for mail in self.mailbox.mails.values()}:
            raise AssertionError("the mailbox is not what it was made")
        for query in alive:
            found = self.fresh(query.text)
            if {stable(path) for path in found.values()} != {m.name for m in self.mailbox.mails.values() if query.matches(m)}:
                raise Wrong(f"a fresh search for {query.text} does not find what is on disk")
            if not set(found.values()) <= on_disk or len(set(found.values())) != len(found):
                raise Wrong(f"a fresh search for {query.text} finds files that are not there, or one twice")
            if query.items() != {number: stable(path) for number, path in found.items() if number not in query.removed}:
                raise Wrong(f"{query.unique} and a fresh search differ in their library IDs")
            query.check_numbers()
        self.done["compared"] += len(alive)

    def pasteboards(self):
        names = set(self.world.pasteboard_names())
        pending = set().union(*(query.pending for query in self.queries.values())) if self.queries else set()
        return names, pending

    def compare_pasteboards(self):
        def explained():
            names, pending = self.pasteboards()
            return pending <= names and len(names - pending - self.removals) <= 5
        try:
            self.until(lambda: not self.waiting and explained(), "the pasteboards to be those that are pending")
        except AssertionError:
            names, pending = self.pasteboards()
            raise Wrong(f"{len(pending - names)} pending pasteboards are not there, "
                        f"{len(names - pending - self.removals)} are there for nothing") from None

    # What is measured

    def measure(self):
        status = pathlib.Path(f"/proc/{self.host.process.pid}/status").read_text(encoding="utf-8")
        value = lambda key: int(re.search(rf"^{key}:\s+(\d+)", status, re.MULTILINE)[1])
        names, pending = self.pasteboards()
        return {"descriptors": len(os.listdir(f"/proc/{self.host.process.pid}/fd")), "threads": value("Threads"),
                "rss": value("VmRSS"), "anonymous": value("RssAnon"), "pasteboards": len(names), "pending": len(pending),
                "removals": len(self.removals), "idle": len(names - pending - self.removals)}

    def print_line(self, minute, rate):
        now = self.measure()
        print(f"{minute:4} min  {rate:5.1f} changes/s  {len(self.mailbox.mails):6} mails  {len(self.queries):3} queries  "
              f"{now['descriptors']:3} descriptors  {now['threads']:2} threads  {now['rss'] / 1024:6.1f} MiB "
              f"({now['anonymous'] / 1024:5.1f} its own)  {now['pasteboards']:6} pasteboards: {now['pending']} pending, "
              f"{now['removals']} removals, {now['idle']} idle", flush=True)

    def halt(self, minute):
        """Compares, measures; every other time the clients' application dies with all their queries."""
        began = time.monotonic()
        self.compare()
        self.compare_pasteboards()
        self.halted.append({"minute": minute} | self.measure())
        self.done["halts"] += 1
        if self.done["halts"] % 2 == 0:
            self.application_dies()
        return time.monotonic() - began

    def application_dies(self):
        names = {client.name for client in self.clients if client.query}
        before = self.terminated.copy()
        self.application.kill()
        self.until(lambda: all(self.terminated[name] > before[name] for name in names), "the end of all clients' queries")
        self.look()
        for client in self.clients:
            if client.query:
                self.forget(client.query)
            client.query = None
        self.compare_pasteboards()
        self.application = Application(self.world, CLIENT_EDITION)
        for client in self.clients:
            client.begin(time.monotonic())
        self.done["applications that died"] += 1

    def check_flat(self):
        """Against the first time that all was still after five minutes; a shorter run says nothing."""
        steady = [at for at in self.halted if at["minute"] >= 5]
        for at in steady:
            first = steady[0]
            if at["threads"] > first["threads"] or at["descriptors"] > first["descriptors"] + 2:
                raise Wrong(f"descriptors or threads have grown: {first} then {at}")
            out = at["pasteboards"] - first["pasteboards"]
            allowed = first["anonymous"] * 1.02 + max(0, out) * BYTES_A_PASTEBOARD / 1024
            if at["anonymous"] > allowed:
                raise Wrong(f"memory has grown: {first} then {at}")

    # The whole

    def start(self):
        for _ in range(self.options.mails):
            self.mailbox.arrive(flags=self.chance.choice(FLAGS))
        self.mailbox.done.clear()
        self.application = Application(self.world, CLIENT_EDITION)
        self.host = self.world.serve()
        kinds = [kind for kind, count in KINDS.items() for _ in range(count)]
        texts = list(subjects())
        assert len(texts) == len(kinds), len(texts)
        # The flags' queries find ever less, for what they removed stays removed: their clients begin anew.
        kinds = kinds[-2:] + kinds[:-2]
        for number, (kind, (text, matches)) in enumerate(zip(kinds, texts)):
            self.clients.append(Client(self, f"client{number}", kind, text, matches))
        for client in self.clients:
            client.begin(time.monotonic())
        self.until(lambda: all(client.query.kinds["QueryDidComplete"] for client in self.clients), "the first results")

    def run(self):
        self.start()
        minutes, rate = self.options.minutes, self.options.rate
        halts = [minutes * part / 6 for part in range(1, 7)]
        length = 60 if minutes >= 2 else minutes * 10
        passed = paused = 0.0
        done = reported = 0
        began = time.monotonic()
        next_line = length
        while halts:
            now = time.monotonic()
            passed = now - began - paused
            self.turn()
            for client in self.clients:
                client.step(now)
            for _ in range(min(rate, int(passed * rate) - done)):
                self.mailbox.change()
                done += 1
            if passed >= next_line:
                self.print_line(round(passed / 60, 1) if length < 60 else round(passed / 60), (done - reported) / length)
                reported = done
                next_line += length
            if passed >= halts[0] * 60:
                paused += self.halt(halts.pop(0))
            time.sleep(0.01)
        self.rate = done / passed
        self.check_flat()
        names = len(self.world.pasteboard_names())
        began = time.monotonic()
        self.host.send(signal.SIGTERM)
        wait_for(lambda: self.host.process.poll() is not None, "the end of the host", patience=1800)
        self.quitting = f"{time.monotonic() - began:.1f} s, with {names} pasteboards"
        status = self.host.wait()
        self.read_lines()
        if status != 0 or self.world.pasteboard_names() or list(self.world.inbox.iterdir()):
            raise Wrong(f"the host ended with {status} and left something")

    def print_table(self):
        rows = [("changes a second", f"{self.rate:.1f} of {self.options.rate}"),
                *((f"mails that {kind}", count) for kind, count in sorted(self.mailbox.done.items())),
                *((kind, count) for kind, count in sorted(self.done.items()))]
        for at in self.halted:
            rows.append((f"still at {at['minute']:.1f} min", f"{at['descriptors']} descriptors, {at['threads']} threads, "
                         f"{at['rss'] / 1024:.1f} MiB, {at['anonymous'] / 1024:.1f} of its own, {at['pasteboards']} pasteboards: "
                         f"{at['pending']} pending, {at['removals']} removals, {at['idle']} idle"))
        first, last = self.halted[0], self.halted[-1]
        if last["pasteboards"] > first["pasteboards"] and last["minute"] > 5:
            grown = (last["anonymous"] - first["anonymous"]) * 1024 / (last["pasteboards"] - first["pasteboards"])
            rows.append(("growth of memory", f"{grown:.0f} bytes for each pasteboard that has come to be out"))
        rows.append(("quit", self.quitting))
        for name, value in rows:
            print(f"{name:24} {value}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--mails", type=int, default=20_000)
    parser.add_argument("--rate", type=int, default=20, help="changes a second")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 30))
    soak = Soak(parser.parse_args())
    print(f"seed {soak.options.seed}", flush=True)
    with contextlib.closing(soak.world):
        try:
            soak.run()
        except (Wrong, AssertionError, OSError) as error:
            print(f"WRONG: {error}", flush=True)
            return 1
        soak.print_table()
    return 0


if __name__ == "__main__":
    sys.exit(main())
