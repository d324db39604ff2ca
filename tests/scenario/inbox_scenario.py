#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What clients, and others, put into "in": each request once, nothing else disturbs."""

import os
import plistlib
import shutil
import unittest

from world import PREFIX, Scenario, wait_for

READ_FAILURE = "THMPMailPlugin. Failed to read message file: "


class Requests(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver()
        self.host = self.world.serve()
        self.client = self.world.client()

    def test_burst_of_requests_is_answered_each_once(self):
        for number in range(2000):
            self.client.post("Connect", number=number)
        answers = []
        wait_for(lambda: answers.extend(self.client.take(lambda m: "number" in m["userInfo"])) or len(answers) >= 2000,
                 "2,000 answers")
        self.client.connect()
        answers.extend(self.client.take(lambda m: "number" in m["userInfo"]))
        self.assertEqual(sorted(m["userInfo"]["number"] for m in answers), list(range(2000)))
        # A request goes after its answer was posted.
        wait_for(lambda: not list(self.world.inbox.iterdir()), "an empty inbox")

    def test_broken_files_are_logged_once_and_stay(self):
        broken = {
            "empty.plist": b"",
            "text.plist": b"hello",
            "cut.plist": plistlib.dumps({"name": "x" * 100}, fmt=plistlib.FMT_BINARY)[:40],
            "array.plist": plistlib.dumps([1, 2], fmt=plistlib.FMT_BINARY),
            "entity.plist": b'<?xml version="1.0"?><!DOCTYPE plist [<!ENTITY a "b">]><plist><string>&a;</string></plist>',
            "UPPER.PLIST": b"bplist00",
        }
        paths = [self.client.post_bytes(content, name) for name, content in broken.items()]
        self.host.wait_for_line(READ_FAILURE, len(broken))
        for _ in range(3):
            self.client.connect()
        self.assertEqual(self.host.count(READ_FAILURE), len(broken))
        self.assertTrue(all(path.exists() for path in paths))

    def test_things_that_are_no_files_disturb_nothing(self):
        os.mkfifo(self.world.inbox / "fifo.plist")
        (self.world.inbox / "folder.plist").mkdir()
        (self.world.inbox / "folder.plist" / "inner.plist").write_bytes(b"")
        (self.world.inbox / "dangling.plist").symlink_to("/nonexistent")
        (self.world.inbox / "note.txt").write_text("hello")
        self.host.wait_for_line(READ_FAILURE, 3)
        self.client.connect()
        self.assertEqual(self.host.count(READ_FAILURE), 3)
        self.assertTrue((self.world.inbox / "folder.plist" / "inner.plist").exists())

    def test_link_is_read_through_and_the_link_is_deleted(self):
        target = self.world.root / "request"
        target.write_bytes(plistlib.dumps({"name": PREFIX + "Connect", "userInfo": {"token": "linked"}}))
        (self.world.inbox / "link.plist").symlink_to(target)
        wait_for(lambda: self.client.take(lambda m: m["userInfo"].get("token") == "linked"), "the answer")
        wait_for(lambda: not (self.world.inbox / "link.plist").is_symlink(), "the link to go")
        self.assertTrue(target.exists())

    def test_messages_for_nobody_are_taken_without_an_answer(self):
        before = len(list(self.world.outbox.iterdir()))
        posts = [self.client.post_bytes(plistlib.dumps(message)) for message in (
            {"name": PREFIX + "Unknown", "userInfo": {}}, {"userInfo": {"uniqueName": "x"}}, {"name": 7}, {},
            {"name": PREFIX.strip() + "Connect"}, {"name": PREFIX + "Search", "userInfo": "text"},
            {"name": PREFIX + "Terminate", "userInfo": {"clientName": "x", "activeNames": 5}})]
        self.client.wait_taken(*posts)
        self.assertEqual(len(list(self.world.outbox.iterdir())), before)

    def test_inbox_that_is_replaced_is_watched_again(self):
        self.world.inbox.rename(self.world.inbox.with_name("old"))
        self.world.inbox.mkdir(mode=0o700)
        self.client.connect()
        shutil.rmtree(self.world.inbox)
        self.world.inbox.mkdir(mode=0o700)
        self.client.connect()
        self.assertGreaterEqual(self.host.count("tallyhive: "), 1)

    def test_answers_of_others_and_strays_in_out_are_left(self):
        stray = self.world.outbox / "stray.txt"
        stray.write_text("hello")
        self.client.connect()
        self.assertTrue(stray.exists())


if __name__ == "__main__":
    unittest.main()
