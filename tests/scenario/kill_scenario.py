#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A host that is killed at any moment, and at any step of what it writes: a request that is gone from "in" has its answer, in
"out" and on the pasteboards all is whole, and the next start leaves nothing of it and handles nothing twice."""

import contextlib
import itertools
import os
import plistlib
import random
import shutil
import subprocess
import unittest
import uuid

from world import PREFIX, SANITIZED, Scenario, wait_for

SEED = int(os.environ.get("THMP_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 30)
# On each commit a part of the kills; THMP_KILLS=2000 for many.
KILLS = int(os.environ.get("THMP_KILLS", "6" if SANITIZED else "40"))
# What makes a file, gives it its name and takes it away.
CALLS = ("linkat", "unlinkat", "mkdirat", "write", "pwrite64", "fsync,fdatasync", "rename,renameat,renameat2", "ftruncate",
         "flock")
MESSAGES = 12


class Killed(Scenario):
    def setUp(self):
        super().setUp()
        self.chance = random.Random(SEED)
        self.world.deliver_many(MESSAGES)
        self.world.index()
        self.client = self.world.client()
        self.tokens = set()  # of all requests ever sent
        self.kills = 0

    def run(self, result=None):
        with self.subTest(seed=SEED):
            return super().run(result)

    # One life of a host

    def start(self, prefix=()):
        self.sent = {}  # the file of a request to its token
        self.given_up = set()  # batches that we have cleared, or whose query we have cancelled
        self.host = self.world.serve(ready=False, prefix=prefix)

    def alive(self):
        return self.host.process.poll() is None

    def until(self, condition):
        """Waits for it, and gives up when the host has ended."""
        return wait_for(lambda: condition() or not self.alive(), "an answer or the end of the host") and condition()

    def is_ready(self):
        return any(message["name"] == PREFIX + "PluginReady" and "clientName" not in message["userInfo"]
                   for message in self.world.messages_in(self.world.outbox, but=self.host.before))

    def request(self, kind, token, **keys):
        self.tokens.add(token)
        self.sent[self.client.post(kind, token=token, **keys)] = (kind, token)

    def answers(self):
        """Token to the messages that answer it; all in "out" is whole."""
        found = {}
        for path in self.world.outbox.iterdir() if self.world.outbox.is_dir() else ():
            if path.name in self.host.before or path.suffix != ".plist":
                continue
            message = plistlib.loads(path.read_bytes())
            found.setdefault(message["userInfo"].get("token"), []).append(message)
        return found

    def of_kind(self, token, kind):
        return [message["userInfo"] for message in self.answers().get(token, ()) if message["name"] == PREFIX + kind]

    def ask_something(self):
        token = uuid.uuid4().hex
        chosen = self.chance.randrange(6)
        if chosen < 2:
            self.request("Connect", token)
        elif chosen < 4:
            self.request("Search", token, uniqueName=token, queryString=None)
        elif chosen == 4:
            self.world.deliver()
        else:
            for updates in list(self.answers().values()):
                for info in (message["userInfo"] for message in updates):
                    if "batchName" in info and self.chance.randrange(2):
                        self.given_up.add(info["batchName"])
                        self.client.clear(info, token="clear")

    def play(self):
        """All that a search goes through, in order, as far as the host lives."""
        if not self.until(self.is_ready):
            return
        connect, search = uuid.uuid4().hex, uuid.uuid4().hex
        self.request("Connect", connect)
        self.until(lambda: self.of_kind(connect, "PluginReady"))
        self.request("Search", search, uniqueName=search, queryString=None)
        self.until(lambda: self.of_kind(search, "QueryDidComplete"))
        self.world.deliver()
        self.until(lambda: len(self.of_kind(search, "QueryHasUpdates")) > 1)
        for info in self.of_kind(search, "QueryHasUpdates")[:1]:
            self.given_up.add(info["batchName"])
            cleared = self.client.clear(info, token="clear")
            self.until(lambda: not cleared.exists())
        self.given_up.update(info["batchName"] for info in self.of_kind(search, "QueryHasUpdates"))
        cancelled = self.client.cancel(search, token="cancel")
        self.until(lambda: not cancelled.exists())

    # What holds

    def check_killed(self):
        """The host is dead. Nothing was told to quit, so nobody has tidied up."""
        answers = self.answers()
        in_flight = 0
        for path, (kind, token) in self.sent.items():
            expected = PREFIX + ("PluginReady" if kind == "Connect" else "QueryDidStart")
            given = sum(message["name"] == expected for message in answers.get(token, ()))
            self.assertLessEqual(given, 1, f"{kind} answered twice")
            if path.exists():
                in_flight += given
            else:
                self.assertEqual(given, 1, f"{kind} is gone without an answer")
        self.assertLessEqual(in_flight, 1, "one request at a time is handled")
        self.check_none_again(answers)
        for messages in answers.values():
            self.check_batches([message["userInfo"] for message in messages if message["name"] == PREFIX + "QueryHasUpdates"])
        self.check_all_whole()

    def check_batches(self, updates):
        numbers = sorted(info["batchNumber"] for info in updates)
        self.assertEqual(numbers, list(range(1, len(numbers) + 1)))
        for info in updates:
            if info["batchName"] in self.given_up:
                continue
            batch = self.client.read(info)
            self.assertEqual((batch["uniqueName"], batch["batchNumber"]), (info["uniqueName"], info["batchNumber"]))

    def check_all_whole(self):
        for folder in (self.world.inbox, self.world.outbox):
            for path in folder.glob("*.plist"):
                self.assertIn("name", plistlib.loads(path.read_bytes()))
        for name in self.world.pasteboard_names():
            for path in (self.world.pasteboards / name).iterdir():
                if not path.name.startswith("."):
                    self.assertIn("uniqueName", plistlib.loads(path.read_bytes()))
        if self.world.defaults.exists():
            defaults = plistlib.loads(self.world.defaults.read_bytes())
            self.assertTrue(all(len(entry) == 3 for entry in defaults.get("THMPMailPlugin.log", ())))

    def check_none_again(self, answers):
        """What an earlier host had in its hands is not handled again."""
        before = self.tokens - {token for _, token in self.sent.values()}
        self.assertEqual(before & set(answers), set(), "handled once more")

    def check_next_start(self):
        """It swallows what lay in "in", tidies up, answers nothing of before, and works."""
        self.start()
        self.host.wait_for_ready()
        self.client.connect()
        # The answer comes before its request goes.
        wait_for(lambda: not list(self.world.inbox.iterdir()), "an empty inbox")
        self.assertEqual([path.name for path in self.world.outbox.iterdir() if path.suffix != ".plist"], [])
        self.assertEqual(self.world.pasteboard_names(), [])
        self.assertEqual([path.name for path in self.world.pasteboards.parent.glob("*/*")], [], "locks of dead hosts")
        self.check_none_again(self.answers())

    def check_end(self):
        """All mail is found, and a quit leaves nothing."""
        self.host.wait_for_line("the index is up to date")
        self.client.search("last")
        self.client.gathered("last")
        self.assertEqual(len(self.client.subjects("last")), self.world.delivered)
        self.assertEqual(self.host.quit(), 0)
        self.assertEqual(self.world.pasteboard_names(), [])
        self.assertEqual(list(self.world.inbox.iterdir()), [])
        plistlib.loads(self.world.defaults.read_bytes())

    def kill(self):
        self.host.kill()
        self.kills += 1
        self.check_killed()


class AtAnyMoment(Killed):
    def kill_within(self, seconds):
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.host.process.wait(self.chance.random() ** 2 * seconds)
        self.kill()

    def test_no_request_is_lost_or_handled_twice_and_nothing_is_left_half(self):
        self.start()
        for _ in range(KILLS):
            self.until(self.is_ready)
            for _ in range(self.chance.randrange(12)):
                self.ask_something()
            self.kill_within(0.08)
            if self.chance.randrange(4) == 0:
                self.start()
                self.kill_within(0.05)
            self.check_next_start()
        self.check_end()
        print(f"{self.kills} kills at any moment, {len(self.tokens)} requests", flush=True)


@unittest.skipIf(SANITIZED, "a sanitizer's own calls would be counted")
class AtEachStep(Killed):
    """At the first such call of a thread, the second, and so on until the host lives through all that it is asked."""

    def setUp(self):
        super().setUp()
        works = shutil.which("strace") and subprocess.run(["strace", "-D", "-o", "/dev/null", "true"],
                                                          capture_output=True).returncode == 0
        if not works:
            self.skipTest("strace cannot follow a program here")

    def test_no_request_is_lost_or_handled_twice_and_nothing_is_left_half(self):
        for call in CALLS:
            for step in itertools.count(1):
                prefix = ("strace", "-D", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={call}",
                          "-e", f"inject={call}:signal=KILL:when={step}")
                with self.subTest(call=call, step=step):
                    self.start(prefix)
                    self.play()
                    survived = self.alive()
                    self.kill()
                    self.check_next_start()
                    self.kill()
                if survived:
                    break
        self.start()
        self.host.wait_for_ready()
        self.check_end()
        print(f"{self.kills} kills, half of them at a chosen call, {len(self.tokens)} requests", flush=True)


if __name__ == "__main__":
    unittest.main()
