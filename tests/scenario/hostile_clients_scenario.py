#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Clients that ask for too much, say too much or never clean up: others are served all the same, and what they cost is bounded.

THMP_FLOOD sets how many queries, names and files a flood has (400, with sanitizers 150).
"""

import os
import plistlib
import random
import time
import unittest

from world import PREFIX, SANITIZED, Scenario, wait_for

FLOOD = int(os.environ.get("THMP_FLOOD", "150" if SANITIZED else "400"))
QUITS = int(os.environ.get("THMP_QUITS", "5" if SANITIZED else "20"))
READ_FAILURE = "THMPMailPlugin. Failed to read message file: "


class HostileClients(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver(subject="Something to find")
        self.host = self.world.serve()
        self.client = self.world.client("well behaved")
        self.names = []

    def threads(self):
        return len(os.listdir(f"/proc/{self.host.process.pid}/task"))

    def resident_bytes(self):
        with open(f"/proc/{self.host.process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def flood(self, **user_info):
        """Live queries, each of another name; returns once all have gathered."""
        self.names = [f"flood {number}" for number in range(FLOOD)]
        for name in self.names:
            self.client.post("Search", uniqueName=name, queryString='kMDItemSubject == "nothing has this"', **user_info)
        complete = set()

        def all_complete():
            for message in self.client.take(lambda m: str(m["userInfo"].get("uniqueName")).startswith("flood")):
                if message["name"] == PREFIX + "QueryDidComplete":
                    complete.add(message["userInfo"]["uniqueName"])
            return len(complete) == FLOOD
        wait_for(all_complete, f"{FLOOD} queries to gather")

    def others_are_served(self, unique="search"):
        self.client.connect()
        self.client.search(unique)
        self.client.gathered(unique)
        self.assertEqual(self.client.subjects(unique), ["Something to find"])
        self.client.wait_taken(self.client.cancel(unique))

    def live_queries_at_quit(self):
        self.assertEqual(self.host.quit(), 0)
        quits = [message["userInfo"] for message in self.world.messages_in(self.world.outbox)
                 if message["name"] == PREFIX + "PluginQuit"]
        self.assertEqual(len(quits), 1)
        return set(quits[0]["activeNames"])

    def test_queries_without_a_client_cost_no_threads_and_little_memory(self):
        self.flood(clientName=[])
        threads, memory = self.threads(), self.resident_bytes()
        first = set(self.names)
        names, self.names = self.names, []
        for name in names:
            self.client.post("Search", uniqueName="second " + name, clientName=7, queryString='kMDItemSubject == "none"')
        wait_for(lambda: sum(message["name"] == PREFIX + "QueryDidComplete" for message in
                             self.world.messages_in(self.world.outbox)) == FLOOD, "the second flood to gather")
        self.assertEqual(self.threads(), threads)
        # With sanitizers what is freed is kept for a while.
        if not SANITIZED:
            self.assertLess((self.resident_bytes() - memory) / FLOOD, 32 * 1024)
        self.others_are_served()
        # Nobody's client is terminated by the end of one.
        self.client.wait_taken(self.client.post("Terminate", clientName="nobody", activeNames=[]))
        self.assertEqual(self.live_queries_at_quit(), first | {"second " + name for name in first})

    def test_client_of_many_queries_ends_with_one_message(self):
        self.flood(clientName="greedy")
        self.others_are_served()
        self.client.wait_taken(self.client.post("Terminate", clientName="greedy"))
        self.others_are_served("search after")
        self.assertEqual(self.live_queries_at_quit(), set())

    def test_thousands_of_names_to_terminate_end_those_that_live(self):
        self.client.search("living", clientName="greedy")
        self.client.gathered("living")
        names = [f"no query {number}" for number in range(20 * FLOOD)]
        self.client.wait_taken(self.client.post("Terminate", clientName="greedy", activeNames=[*names, "living"]))
        self.others_are_served()
        self.assertEqual(self.live_queries_at_quit(), set())

    def test_messages_beyond_the_limits_are_refused_once_and_stay(self):
        million = plistlib.dumps({"name": PREFIX + "Terminate", "userInfo": {
            "clientName": "greedy", "activeNames": ["a"] * 1_000_000}}, fmt=plistlib.FMT_BINARY)
        large = plistlib.dumps({"name": PREFIX + "Connect", "userInfo": {"payload": bytes(20_000_000)}},
                               fmt=plistlib.FMT_BINARY)
        paths = [self.client.post_bytes(million), self.client.post_bytes(large)]
        self.host.wait_for_line(READ_FAILURE, 2)
        self.others_are_served()
        self.assertEqual(self.host.count(READ_FAILURE), 2)
        self.assertTrue(all(path.exists() for path in paths))

    def test_names_and_texts_of_a_megabyte_are_names_and_texts(self):
        name = "n" * 1_000_000
        self.client.search(name, clientName="c" * 1_000_000, query='kMDItemSubject == "Something*"')
        update, = self.client.gathered(name)
        self.assertEqual(len(self.client.read(update)["messages"]), 1)
        self.client.wait_taken(self.client.cancel(name, clientName="c" * 1_000_000))
        self.client.search("bad", query="(" * 1_000_000)
        completion, = self.client.wait_for_kind("bad", "QueryDidComplete")
        self.assertIn("errorMessage", completion)
        self.others_are_served()
        self.assertEqual(self.live_queries_at_quit(), set())

    def test_document_type_that_lies_elsewhere_is_not_fetched(self):
        # Whoever opened it would wait for a writer.
        fifo = self.world.root / "plist.dtd"
        os.mkfifo(fifo)
        request = plistlib.dumps({"name": PREFIX + "Connect", "userInfo": {"token": "elsewhere"}}).decode()
        start = request.index("<!DOCTYPE")
        end = request.index(">", start)
        self.client.post_bytes((request[:start] + f'<!DOCTYPE plist SYSTEM "file://{fifo}"' + request[end:]).encode())
        wait_for(lambda: self.client.take(lambda m: m["userInfo"].get("token") == "elsewhere"), "the answer")

    def test_full_inbox_is_emptied_at_the_start_but_for_what_cannot_be_read(self):
        """The start's own scan comes before all handlers, so that what it takes reaches nobody; what a second scan takes beside
        it, which the removals set off, may be answered, but not twice."""
        self.host.quit()
        poisoned = self.client.post_bytes(b"bplist00", "0 poisoned.plist")
        waiting = [self.client.post("Connect", number=number) for number in range(FLOOD)]
        self.host = self.world.serve()
        self.client.connect()
        wait_for(lambda: list(self.world.inbox.iterdir()) == [poisoned], "an inbox with that one alone")
        answered = [m["userInfo"]["number"] for m in self.client.take(lambda m: "number" in m["userInfo"])]
        self.assertEqual(len(answered), len(set(answered)), answered)
        self.assertLess(len(answered), len(waiting))
        self.assertEqual(self.host.count(READ_FAILURE), 1)

    def test_many_broken_files_are_read_once_each_and_hold_up_nobody(self):
        with self.host.stopped():
            for number in range(2 * FLOOD):
                (self.world.inbox / f"broken{number}.plist").write_bytes(b"bplist00")
        self.host.wait_for_line(READ_FAILURE, 2 * FLOOD)
        for number in range(3):
            self.others_are_served(f"search {number}")
        self.assertEqual(self.host.count(READ_FAILURE), 2 * FLOOD)
        self.assertEqual(len(list(self.world.inbox.iterdir())), 2 * FLOOD)

    def test_client_that_never_clears_keeps_its_batches_until_its_query_ends(self):
        self.client.search("deaf")
        self.client.gathered("deaf")
        rounds = 30
        for number in range(rounds):
            self.world.deliver(subject=f"Late {number}")
            self.client.wait_for_kind("deaf", "QueryHasUpdates", number + 2)
        updates = self.client.of_kind("deaf", "QueryHasUpdates")
        self.assertEqual([info["batchNumber"] for info in updates], list(range(1, rounds + 2)))
        self.assertEqual(len(set(info["batchName"] for info in updates)), rounds + 1)
        self.assertEqual(self.client.subjects("deaf"), ["Something to find", *(f"Late {n}" for n in range(rounds))])
        self.assertEqual([entry["batchNumber"] for entry in updates[-1]["pendingBatches"]], list(range(1, rounds + 1)))
        self.client.wait_taken(self.client.cancel("deaf"))
        wait_for(lambda: len(self.world.pasteboard_names()) <= 5, "the pasteboards to go")

    def test_host_may_quit_at_any_moment_of_a_busy_exchange(self):
        self.host.quit()
        moments = random.Random(11)
        for round_ in range(QUITS):
            host = self.world.serve(indexed=False)
            for number in range(20):
                self.client.post("Search", uniqueName=f"{round_} {number}")
                if number % 3 == 0:
                    self.client.post("Cancel", uniqueName=f"{round_} {number // 2}")
            deadline = time.monotonic() + moments.random() * 0.05
            while time.monotonic() < deadline:
                self.client.take(lambda m: m["name"] != PREFIX + "PluginQuit")
            self.assertEqual(host.quit(), 0, host.lines[-5:])
            quits = self.client.take(lambda m: m["name"] == PREFIX + "PluginQuit")
            self.assertEqual(len(quits), 1)
            self.client.take(lambda m: True)
            # Once it has released its pasteboards none is made.
            self.assertEqual(self.world.pasteboard_names(), [])


if __name__ == "__main__":
    unittest.main()
