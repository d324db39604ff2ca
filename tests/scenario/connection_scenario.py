#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The handshake, and the control messages that end queries and clients."""

import unittest
import plistlib

from world import PREFIX, Scenario, wait_for


class Connecting(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver()
        self.host = self.world.serve()

    def test_answer_echoes_the_payload_and_adds_the_version_keys(self):
        client = self.world.client("Tallyhive")
        info = client.connect(version="7", extra=[1, "two"])["userInfo"]
        self.assertEqual(info["clientName"], "Tallyhive")
        self.assertEqual(info["extra"], [1, "two"])
        self.assertEqual(info["compatibilityVersion"], 1)
        self.assertIsInstance(info["version"], str)
        self.assertIsInstance(info["majorVersion"], str)

    def test_ready_at_the_start_has_exactly_the_version_keys(self):
        ready = [message["userInfo"] for message in self.world.messages_in(self.world.outbox)
                 if message["name"] == PREFIX + "PluginReady"]
        self.assertEqual([sorted(info) for info in ready], [["compatibilityVersion", "majorVersion", "version"]])

    def test_failed_check_alerts_once_and_is_answered_all_the_same(self):
        client = self.world.client()
        client.connect(checkVersion=True, compatibilityVersion=2)
        client.connect(checkVersion=True, compatibilityVersion=3)
        self.host.wait_for_line("Tallyhive Mail plug-in needs an update")
        self.host.quit()
        self.assertEqual(self.host.count("Tallyhive Mail plug-in needs an update"), 1)

    def test_check_passes_for_one_in_each_form_of_a_number(self):
        for value in (1, 1.0, True):
            with self.subTest(value=value):
                self.world.close()
                self.setUp()
                self.world.client().connect(checkVersion=True, compatibilityVersion=value)
                self.host.quit()
                self.assertEqual(self.host.count("needs an update"), 0)

    def test_check_fails_for_a_text_and_for_a_missing_version(self):
        for value in ("1", None):
            with self.subTest(value=value):
                self.world.close()
                self.setUp()
                self.world.client().connect(checkVersion=True, compatibilityVersion=value)
                self.host.wait_for_line("needs an update")

    def test_connect_with_the_name_of_a_dead_query_gets_no_answer(self):
        client = self.world.client()
        client.wait_taken(client.post("Connect", uniqueName="nobody", token="x"))
        client.connect()  # answered later than the other would have been
        self.assertEqual(client.take(lambda m: m["userInfo"].get("token") == "x"), [])

    def test_xml_requests_are_read_too(self):
        client = self.world.client()
        client.post("Connect", _format=plistlib.FMT_XML, token="xml")
        wait_for(lambda: client.take(lambda m: m["userInfo"].get("token") == "xml"), "the answer")


class Ending(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver_many(3)
        self.host = self.world.serve()
        self.client = self.world.client("A")

    def start(self, unique, client=None, **keys):
        client = client or self.client
        client.search(unique, **keys)
        client.gathered(unique)

    def names_at_quit(self):
        self.host.quit()
        quits = [message["userInfo"]["activeNames"] for message in self.world.messages_in(self.world.outbox)
                 if message["name"] == PREFIX + "PluginQuit"]
        self.assertEqual(len(quits), 1)
        return sorted(quits[0])

    def test_cancelled_query_says_nothing_more(self):
        self.start("one")
        self.client.wait_taken(self.client.cancel("one"))
        before = len(self.client.look("one"))
        self.world.deliver("Late")
        # A query that lives shows when the message has been delivered to those that do.
        self.start("two", query='kMDItemSubject == "Late"')
        wait_for(lambda: "Late" in self.client.subjects("two"), "the late message")
        self.assertEqual(len(self.client.look("one")), before)
        self.assertEqual(self.names_at_quit(), ["two"])

    def test_cancel_returns_the_batches_that_were_not_cleared(self):
        self.start("one")
        batch = self.client.gathered("one")[0]
        self.client.wait_taken(self.client.cancel("one"))
        self.assertEqual(list((self.world.pasteboards / batch["batchName"]).iterdir()), [])
        self.client.wait_taken(self.client.clear(batch))
        self.host.wait_for_line("PASTEBOARD USE ERROR. Pasteboard client mismatch")

    def test_cancel_under_another_client_name_ends_the_query(self):
        self.start("one")
        self.client.wait_taken(self.client.cancel("one", clientName="B"))
        self.assertEqual(self.names_at_quit(), [])

    def test_cancel_and_terminate_without_their_names_do_nothing(self):
        self.start("one")
        self.client.wait_taken(self.client.post("Cancel"), self.client.post("Terminate", clientName=None),
                               self.client.cancel("unknown"))
        self.assertEqual(self.names_at_quit(), ["one"])

    def test_terminate_ends_all_of_a_client_and_the_names_it_gives(self):
        other = self.world.client("B")
        self.start("a1")
        self.start("a2")
        self.start("b1", other)
        self.start("b2", other)
        self.client.wait_taken(self.client.post("Terminate", activeNames=["b1", "unknown"]))
        self.assertEqual(self.names_at_quit(), ["b2"])

    def test_newer_search_of_a_lineage_replaces_the_older_ones_of_that_client(self):
        other = self.world.client("B")
        self.start("old", lineageName="L")
        self.start("else", lineageName="M")
        self.start("plain")
        self.start("theirs", other, lineageName="L")
        self.start("new", lineageName="L")
        self.assertEqual(self.names_at_quit(), ["else", "new", "plain", "theirs"])

    def test_second_search_of_one_name_silences_the_first(self):
        self.start("one", query='kMDItemSubject == "Message*"')
        first = self.client.gathered("one")[0]
        self.client.search("one", query='kMDItemSubject == "Late"')
        self.client.wait_for_kind("one", "QueryDidComplete", 2)
        self.world.deliver("Message Late")
        self.world.deliver("Late")
        wait_for(lambda: len(self.client.of_kind("one", "QueryHasUpdates")) == 2, "the second query's find")
        second = self.client.of_kind("one", "QueryHasUpdates")[-1]
        self.assertEqual(second["batchNumber"], 1)
        self.assertEqual(second["pendingBatches"], [])
        # The first one's batch stays where it is; its Clear finds no entry any more.
        self.client.wait_taken(self.client.clear(first))
        self.host.wait_for_line("PASTEBOARD USE ERROR. Pasteboard mismatch")
        self.assertEqual(self.names_at_quit(), ["one"])

    def test_clear_returns_the_pasteboard_and_the_next_batch_takes_it(self):
        self.start("one")
        batch = self.client.gathered("one")[0]
        self.client.wait_taken(self.client.clear(batch))
        self.start("two")
        self.assertEqual(self.client.gathered("two")[0]["batchName"], batch["batchName"])

    def test_hostile_clears_change_nothing(self):
        self.start("one")
        batch = self.client.gathered("one")[0]
        posts = [self.client.post("Clear", uniqueName="one", batchName=name)
                 for name in ("../../defaults.plist", "", ".", "x" * 5000, "a\0b")]
        posts += [self.client.clear(batch, clientName="B"), self.client.clear(batch, uniqueName="two"),
                  self.client.post("Clear", uniqueName="one"), self.client.post("Clear", batchName=batch["batchName"])]
        self.client.wait_taken(*posts)
        self.assertEqual(self.client.read(batch)["batchNumber"], 1)
        self.assertGreaterEqual(self.host.count("Pasteboard client mismatch"), 6)
        self.assertEqual(self.host.count("Pasteboard query mismatch"), 1)
        self.client.wait_taken(self.client.clear(batch))
        self.assertEqual(list((self.world.pasteboards / batch["batchName"]).iterdir()), [])


if __name__ == "__main__":
    unittest.main()
