#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What library and index come through: kills at any moment, a full disk, and index files that are not what they were. Each
ends in a right answer under the IDs of before."""

import contextlib
import json
import os
import random
import resource
import shutil
import signal
import sqlite3
import subprocess
import unittest

from world import HOST, SANITIZED, Scenario, wait_for

SEED = int(os.environ.get("THMP_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 30)
# On each commit a part of the kills; THMP_KILLS=200 for all of them.
KILLS = int(os.environ.get("THMP_KILLS", "8" if SANITIZED else "40"))
KILLED_BUILDS = KILLS * 13 // 20
KILLED_HOSTS = KILLS - KILLED_BUILDS
MESSAGES = 300 if SANITIZED else 1200
BOXES = 6
SENDERS = 7
WORDS = ("plover", "heron", "egret", "stork", "crane")

LASTING = {"library.sqlite", "library.sqlite-wal", "library.sqlite-shm", "host.lock",
           "index.sqlite", "index.sqlite-wal", "index.sqlite-shm", "index.sqlite-columns"}


class Mail:
    """The mail on disk, and what of it a search has to find."""

    def __init__(self, world, chance):
        self.world = world
        self.chance = chance
        self.messages = {}  # by the part of the name that stays: path, sender, word
        self.made = 0

    def deliver(self, count=1):
        for _ in range(count):
            self.made += 1
            sender, word = self.made % SENDERS, WORDS[self.made % len(WORDS)]
            path = self.world.deliver(f"Message {self.made}", sender=f"S <s{sender}@example.org>", flags="",
                                      folder=f"box{self.made % BOXES}", body=f"Seen by the lake: one {word}, no more.")
            self.messages[self.name(path)] = (path, sender, word)

    @staticmethod
    def name(path):
        return os.path.basename(path).split(":2,")[0]

    def change_one(self):
        name = self.chance.choice(list(self.messages))
        path, sender, word = self.messages[name]
        kind = self.chance.random()
        if kind < 0.4:
            self.deliver()
        elif kind < 0.8:
            place = path.with_name(name + self.chance.choice((":2,", ":2,S", ":2,FS", ":2,RS")))
            path.rename(place)
            self.messages[name] = (place, sender, word)
        else:
            path.unlink()
            del self.messages[name]

    def paths(self, sender=None, word=None):
        return {str(path) for path, from_, said in self.messages.values()
                if sender in (None, from_) and word in (None, said)}


class Surviving(Scenario):
    def setUp(self):
        super().setUp()
        self.seed = SEED
        self.chance = random.Random(self.seed)
        self.mail = Mail(self.world, self.chance)
        self.index_file = self.world.folders["cache"] / "tallyhive-mailhost" / "index.sqlite"
        self.known = {}  # name to library ID, of every message ever found

    def run(self, result=None):
        with self.subTest(seed=SEED):
            return super().run(result)

    def find(self, query):
        """Paths and library IDs. None while there is no index to ask."""
        result = self.world.run(HOST, "find", query, "--json")
        if result.returncode > 1 or "tallyhive" in result.stderr:
            return None
        return {event["path"]: event["libraryID"] for event in map(json.loads, result.stdout.splitlines())}

    def check_ids(self, found):
        for path, number in found.items():
            name = self.mail.name(path)
            self.assertEqual(self.known.setdefault(name, number), number, f"{name}, seed {self.seed}")
        self.assertEqual(len(set(self.known.values())), len(self.known), f"an ID of two, seed {self.seed}")

    def check_all(self):
        """What stands in the index is what is on disk."""
        found = self.find('* == "*"')
        self.assert_same(found, self.mail.paths())
        self.check_ids(found)
        sender, word = self.chance.randrange(SENDERS), self.chance.choice(WORDS)
        by_sender = self.find(f'kMDItemAuthorEmailAddresses == "s{sender}@example.org"')
        self.assert_same(by_sender, self.mail.paths(sender=sender))
        by_word = self.find(f'kMDItemTextContent == "{word}"cdw')
        self.assert_same(by_word, self.mail.paths(word=word))

    def assert_same(self, found, there):
        self.assertIsNotNone(found, "no answer")
        self.assertEqual((sorted(set(found) - there)[:3], sorted(there - set(found))[:3]), ([], []),
                         f"{len(found)} found of {len(there)}, seed {self.seed}")

    def check_no_litter(self):
        for folder in (self.world.library.parent, self.index_file.parent):
            self.assertLessEqual({entry.name for entry in folder.iterdir()}, LASTING, f"seed {self.seed}")

    def try_index(self, **options):
        return self.world.run(HOST, "index", "--mail", self.world.mail, **options)

    def stat(self):
        result = self.world.run(HOST, "stat", "--json")
        return json.loads(result.stdout) if result.returncode == 0 else None


class Killed(Surviving):
    def kill_index(self):
        process = subprocess.Popen([str(HOST), "index", "--mail", str(self.world.mail)], env=self.world.environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(self.chance.random() ** 2 * 0.2)
        process.kill()
        process.wait()

    def test_builds_killed_at_any_moment_are_gone_on_with(self):
        self.mail.deliver(MESSAGES)
        for number in range(KILLED_BUILDS):
            self.kill_index()
            self.mail.change_one()
            if number % 10 == 9 and (found := self.find('* == "*"')):
                self.check_ids(found)
            if number % 40 == 39:
                self.world.index()
                self.check_all()
                # The next kills have a whole build before them again.
                for file in self.index_file.parent.iterdir():
                    file.unlink()
        self.world.index()
        self.check_all()
        self.check_no_litter()

    def test_hosts_killed_while_mail_comes_changes_and_goes_follow_it_after_the_next_start(self):
        self.mail.deliver(MESSAGES // 4)
        self.world.index()
        self.check_all()
        for number in range(KILLED_HOSTS):
            host = self.world.serve(ready=False)
            moment = self.chance.random() ** 2 * 0.25
            for _ in range(self.chance.randrange(12)):
                with contextlib.suppress(subprocess.TimeoutExpired):
                    host.process.wait(moment / 12)
                self.mail.change_one()
            with contextlib.suppress(subprocess.TimeoutExpired):
                host.process.wait(moment)
            host.kill()
            if number % 20 == 19 or number == KILLED_HOSTS - 1:
                host = self.world.serve()
                self.check_all()
                client = self.world.client()
                client.search("one", f'kMDItemTextContent == "{WORDS[0]}"cdw', kMDItemSubject=1)
                client.gathered("one")
                self.assertEqual(len(client.subjects("one")), len(self.mail.paths(word=WORDS[0])))
                self.assertEqual(host.quit(), 0)
                self.assertEqual(self.world.pasteboard_names(), [])
        self.check_no_litter()
        self.assertEqual([path.name for path in self.world.inbox.iterdir()], [])


class OnAFullDisk(Surviving):
    def small_disk(self, folder, size):
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=700", "none", str(folder)],
                                 capture_output=True)
        if mounted.returncode != 0:
            self.skipTest("no file system can be mounted here")
        self.addCleanup(subprocess.run, ["umount", "-l", str(folder)], check=True)

    @staticmethod
    def make_room(folder):
        subprocess.run(["mount", "-o", "remount,size=100m", str(folder)], check=True)

    def assert_says_what_to_do(self, text):
        self.assertEqual(len(text.splitlines()), 1, text)
        self.assertIn("no space is left", text)
        self.assertIn("make room", text)

    def fill_while_indexing(self, folder, size):
        self.small_disk(folder, size)
        self.mail.deliver(MESSAGES)
        full = self.try_index()
        self.assertEqual(full.returncode, 1, full.stdout)
        self.assert_says_what_to_do(full.stderr)
        self.check_ids(self.find('* == "*"') or {})
        self.make_room(folder)
        self.world.index()
        self.check_all()
        self.check_no_litter()

    def test_index_that_does_not_fit_says_so_and_is_whole_once_there_is_room(self):
        self.fill_while_indexing(self.world.folders["cache"], "300k")

    def test_library_that_does_not_fit_says_so_and_is_whole_once_there_is_room(self):
        self.fill_while_indexing(self.world.folders["data"], "200k")

    def test_disk_without_any_room_is_named(self):
        for folder in ("cache", "data"):
            with self.subTest(folder):
                self.small_disk(self.world.folders[folder], "4k")
                (self.world.folders[folder] / "all of it").touch()
                self.mail.deliver()
                full = self.try_index()
                self.assertEqual(full.returncode, 1)
                self.assert_says_what_to_do(full.stderr)
                self.make_room(self.world.folders[folder])
                self.world.index()
                self.check_all()

    def test_host_goes_on_by_itself_once_there_is_room(self):
        for folder in ("cache", "data"):
            with self.subTest(folder):
                self.mail.deliver(20)
                self.world.index()
                self.check_all()
                place = self.world.folders[folder]
                kept = self.world.root / "kept"
                shutil.copytree(place, kept)
                self.small_disk(place, "8m")
                shutil.copytree(kept, place, dirs_exist_ok=True)
                shutil.rmtree(kept)
                host = self.world.serve()
                ballast = place / "ballast"
                with open(ballast, "wb", buffering=0) as file, contextlib.suppress(OSError):
                    while file.write(bytes(4096)):
                        pass
                self.mail.deliver(MESSAGES // 2)
                host.wait_for_line("could not be brought up to date")
                (line,) = [line for line in host.lines if "could not be brought up to date" in line][:1]
                self.assert_says_what_to_do(line)
                self.check_ids(self.find('* == "*"'))
                ballast.unlink()
                self.make_room(place)
                host.wait_for_line("the index is brought up to date again")
                wait_for(lambda: len(self.find('* == "*"')) == len(self.mail.messages), "the mail that came last")
                self.check_all()
                self.assertEqual(host.quit(), 0)
                subprocess.run(["umount", "-l", str(place)], check=True)
                self._cleanups.pop()
                shutil.rmtree(place)
                place.mkdir(mode=0o700)

    def test_files_that_may_not_grow_end_the_run_with_one_line(self):
        def small_files():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (150_000, 150_000))
        self.mail.deliver(MESSAGES)
        stopped = self.try_index(preexec_fn=small_files)
        self.assertEqual(stopped.returncode, 1)
        self.assertEqual(len(stopped.stderr.splitlines()), 1, stopped.stderr)
        self.world.index()
        self.check_all()


class NotWhatItWas(Surviving):
    def setUp(self):
        super().setUp()
        self.mail.deliver(MESSAGES // 4)
        self.world.index()
        self.check_all()

    def test_columns_of_another_moment_are_left_aside(self):
        """As a kill leaves them between the file and its commit: an older file, a half of one, one of another index."""
        columns = self.index_file.with_name(self.index_file.name + "-columns")
        older = columns.read_bytes()
        self.delete()
        self.world.index()
        newer = columns.read_bytes()
        for bytes_ in (older, newer[:len(newer) // 2], b"", newer[:-1] + b"?"):
            columns.write_bytes(bytes_)
            self.mail.change_one()
            self.check_all_but_the_last_change()
            self.world.index()
            self.check_all()

    def check_all_but_the_last_change(self):
        found = self.find('kMDItemSubject == "*"')
        self.assertIsNotNone(found)
        self.assertLessEqual(abs(len(found) - len(self.mail.paths())), 1)

    def delete(self):
        for file in self.index_file.parent.iterdir():
            file.unlink()

    def take_other_version(self):
        with contextlib.closing(sqlite3.connect(self.index_file)) as database:
            database.execute("PRAGMA user_version = 77")

    def test_file_that_was_deleted_is_made_anew_and_that_is_said(self):
        self.delete()
        result = self.try_index()
        self.assertEqual(result.stderr, "tallyhive-mailhost: the index is gone; it is made anew from the mail\n")
        self.check_all()

    def test_file_of_another_version_is_made_anew_and_that_is_said(self):
        self.take_other_version()
        host = self.world.serve()
        self.assertEqual(host.count("the index is of another version of this program; it is made anew from the mail"), 1)
        self.check_all()

    def test_first_build_is_no_news(self):
        shutil.rmtree(self.world.folders["cache"])
        shutil.rmtree(self.world.folders["data"])
        self.assertEqual(self.try_index().stderr, "")


class DuringABuild(Surviving):
    def test_search_is_answered_from_what_is_there_and_stat_says_how_much_that_is(self):
        self.mail.deliver(MESSAGES)
        process = subprocess.Popen([str(HOST), "index", "--mail", str(self.world.mail)], env=self.world.environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        # Held in the middle of the build, after a mailbox or two.
        def some():
            process.send_signal(signal.SIGSTOP)
            found = self.find('* == "*"')
            if found:
                return found
            process.send_signal(signal.SIGCONT)
            return None
        try:
            found = wait_for(some, "the first messages")
            self.assertLess(len(found), len(self.mail.paths()))
            self.assertLess(set(found), self.mail.paths())
            status = self.stat()
            self.assertEqual(status["keeper"], {"command": "index", "process": process.pid})
            self.assertEqual(status["coverage"]["seen"], len(self.mail.paths()))
            self.assertEqual(status["coverage"]["indexed"], len(found))
            self.assertEqual(status["coverage"]["waiting"], len(self.mail.paths()) - len(found))
            self.check_ids(found)
        finally:
            process.send_signal(signal.SIGCONT)
        self.assertEqual(process.wait(), 0)
        self.check_all()


if __name__ == "__main__":
    unittest.main()
