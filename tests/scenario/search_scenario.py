#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""One search from the request to its batches, and a live query that goes on."""

import unittest

from world import PREFIX, Scenario, wait_for


class Searching(Scenario):
    def serve_with(self, count=0):
        if count:
            self.world.deliver_many(count)
            self.world.index()
        self.host = self.world.serve("--mail", self.world.maildir())
        self.client = self.world.client()

    def test_batches_carry_what_was_asked_and_what_was_found(self):
        path = self.world.deliver("Plum cake", sender="Ada Brightwater <ada@example.org>")
        self.world.deliver("Other")
        self.serve_with()
        self.client.search("one", query='kMDItemSubject == "plum*"cd', extra={"kept": [True]})
        (update,) = self.client.gathered("one")
        start = self.client.of_kind("one", "QueryDidStart")
        self.assertEqual(len(start), 1)
        self.assertEqual(start[0]["extra"], {"kept": [True]})
        self.assertEqual((update["batchNumber"], update["foundItemCount"], update["pendingBatches"]), (1, 1, []))
        self.assertEqual(update["extra"], {"kept": [True]})
        batch = self.client.read(update)
        self.assertEqual(sorted(batch), ["batchNumber", "clientName", "foundItemCount", "messages", "queryString",
                                         "uniqueName"])
        self.assertEqual(batch["queryString"], 'kMDItemSubject == "plum*"cd')
        (item,) = batch["messages"]
        self.assertEqual((item["kMDItemPath"], item["index"]), (str(path), 0))
        self.assertEqual(item["attributes"]["kMDItemAuthors"], ["Ada Brightwater"])
        self.assertEqual(item["attributes"]["_kMDItemExternalID"], str(item["libraryID"]))
        self.assertEqual(item["attributes"]["kMDItemContentType"], "public.email-message")

    def test_3300_messages_come_in_three_batches(self):
        self.serve_with(3300)
        self.client.search("all")
        updates = self.client.gathered("all")
        self.assertEqual([len(self.client.read(update)["messages"]) for update in updates], [750, 1500, 1050])
        self.assertEqual([update["foundItemCount"] for update in updates], [750, 2250, 3300])
        self.assertEqual([len(update["pendingBatches"]) for update in updates], [0, 1, 2])
        items = [item for update in updates for item in self.client.read(update)["messages"]]
        self.assertEqual([item["index"] for item in items], list(range(3300)))
        self.assertEqual(len({item["libraryID"] for item in items}), 3300)

    def test_search_without_a_query_finds_all_mail_and_an_empty_one_too(self):
        self.serve_with(2)
        self.client.search("none")
        self.client.search("empty", query="")
        for unique in ("none", "empty"):
            self.client.gathered(unique)
            self.assertEqual(len(self.client.subjects(unique)), 2)

    def test_results_are_sorted_by_the_attribute_asked_for(self):
        for subject, day in (("b", 2), ("c", 3), ("a", 1)):
            self.world.deliver(subject, date=f"Mon, {day:02} May 2025 10:00:00 +0000")
        self.serve_with()
        self.client.search("up", sortingAttribute="kMDItemContentCreationDate", sortAscending=True)
        self.client.search("down", sortingAttribute="kMDItemContentCreationDate")
        self.client.search("plain")
        for unique in ("up", "down", "plain"):
            self.client.gathered(unique)
        self.assertEqual(self.client.subjects("up"), ["a", "b", "c"])
        self.assertEqual(self.client.subjects("down"), ["c", "b", "a"])
        self.assertEqual(self.client.subjects("plain"), ["a", "c", "b"], "newest first, as delivered")

    def test_query_that_does_not_parse_completes_with_the_error(self):
        self.serve_with(1)
        self.client.search("bad", query="kMDItemSubject == ")
        (info,) = self.client.wait_for_kind("bad", "QueryDidComplete")
        self.assertEqual((info["errorDomain"], info["errorCode"], info["errorMessage"]),
                         ("CSSearchQueryErrorDomain", -2002, "The query is invalid."))
        self.assertEqual(info["notification"], "completed")
        self.host.wait_for_line("THMPMailPlugin QUERY ERROR: ")

    def test_query_text_that_closes_the_mail_clause_finds_mail_only(self):
        self.serve_with(2)
        self.client.search("escape", query='true) || (1 == 1')
        self.client.wait_for_kind("escape", "QueryDidComplete")
        self.assertLessEqual(len(self.client.subjects("escape")), 2)

    def test_mistyped_keys_count_as_missing(self):
        self.serve_with(2)
        self.client.post("Search", uniqueName=7, queryString="x")
        self.client.post("Search", uniqueName=["one"], queryString="x")
        self.client.search("odd", query=5, sortingAttribute=[1], lineageName={"a": 1}, sortAscending="maybe")
        self.client.gathered("odd")
        self.assertEqual(len(self.client.subjects("odd")), 2)

    def test_each_log_line_of_a_search_stands_in_the_log_in_order(self):
        self.serve_with(1)
        self.client.search("logged", query='kMDItemSubject == "*"', version="9")
        (update,) = self.client.gathered("logged")
        self.client.wait_taken(self.client.clear(update))
        self.client.wait_taken(self.client.cancel("logged"))
        name = update["batchName"]
        expected = [
            f"THMPMailPlugin received {PREFIX}Search / client - 9",
            'THMPMailPlugin query kMDItemSubject == "*"',
            f"THMPMailPlugin post {PREFIX}QueryDidStart",
            "THMPMailPlugin found items 1",
            f"THMPMailPlugin post {PREFIX}QueryHasUpdates / {name} - 1 - 1",
            "THMPMailPlugin gather ended",
            f"THMPMailPlugin post {PREFIX}QueryDidComplete - 1",
            f"THMPMailPlugin received {PREFIX}Clear / client - {name}",
            f"THMPMailPlugin received {PREFIX}Cancel / client",
            "THMPMailPlugin cancel query",
        ]
        wait_for(lambda: [entry[2] for entry in self.world.stored_log() if entry[1] == "logged"] == expected,
                 "the stored log on disk")
        lines = [line for line in self.host.lines if "TallyhiveMailPlugin - logged - " in line]
        self.assertEqual([line.split(" - logged - ", 1)[1] for line in lines], expected)


class Living(Scenario):
    def setUp(self):
        super().setUp()
        self.first = self.world.deliver("Lake one")
        self.host = self.world.serve()
        self.client = self.world.client()

    def live(self, unique="live", query='kMDItemSubject == "Lake*"'):
        self.client.search(unique, query=query)
        self.client.gathered(unique)
        return unique

    def test_mail_that_arrives_is_found(self):
        self.live()
        self.world.deliver("Lake two")
        self.client.wait_for_kind("live", "QueryHasUpdates", 2)
        self.assertEqual(self.client.subjects("live"), ["Lake one", "Lake two"])
        self.assertEqual(self.client.of_kind("live", "QueryHasUpdates")[1]["foundItemCount"], 2)

    def test_mail_that_goes_is_removed(self):
        self.live()
        item = self.client.read(self.client.gathered("live")[0])["messages"][0]
        self.first.unlink()
        (removal,) = self.client.wait_for_kind("live", "QueryHasRemovals")
        self.assertEqual(removal["batchNumber"], 1)
        batch = self.client.read(removal, "RemovalBatch")
        self.assertEqual(batch["messageIDs"], [str(item["libraryID"])])
        self.client.wait_taken(self.client.clear(removal))
        self.host.wait_for_line(f"Pasteboard mismatch: {removal['batchName']} - 0")

    def test_flag_change_is_neither_found_nor_removed(self):
        self.live()
        self.live("flagged", "com_apple_mail_flagged == 1")
        self.first.rename(self.first.with_name(self.first.name + "F"))
        # The query that asks for the flag shows that the change has been taken up.
        self.client.wait_for_kind("flagged", "QueryHasUpdates")
        self.assertEqual(len(self.client.of_kind("live", "QueryHasUpdates")), 1)
        self.assertEqual(self.client.of_kind("live", "QueryHasRemovals"), [])
        self.assertTrue(self.client.read(self.client.gathered("flagged")[0])["messages"][0]["kMDItemPath"].endswith("F"))

    def test_mail_that_stops_matching_is_removed(self):
        self.live("unread", "com_apple_mail_read != 1")
        unread = self.world.deliver("Lake unread", flags="")
        self.client.wait_for_kind("unread", "QueryHasUpdates")
        unread.rename(unread.with_name(unread.name + "S"))
        self.client.wait_for_kind("unread", "QueryHasRemovals")

    def test_message_once_removed_is_not_reported_again(self):
        self.live("unread", "com_apple_mail_read != 1")
        path = self.world.deliver("Lake back", flags="")
        self.client.wait_for_kind("unread", "QueryHasUpdates")
        seen = path.with_name(path.name + "S")
        path.rename(seen)
        self.client.wait_for_kind("unread", "QueryHasRemovals")
        seen.rename(path)
        self.world.deliver("Lake marker", flags="")
        wait_for(lambda: "Lake marker" in self.client.subjects("unread"), "the later message")
        self.assertEqual(self.client.subjects("unread").count("Lake back"), 1)

    def test_burst_of_2000_messages_comes_whole_and_once(self):
        self.live()
        self.world.deliver_many(2000, sender="Burst <burst@example.org>")
        self.live("burst", 'kMDItemAuthorEmailAddresses == "burst@example.org"')
        wait_for(lambda: len(self.client.subjects("burst")) >= 2000, "the burst")
        subjects = self.client.subjects("burst")
        self.assertEqual(sorted(subjects), sorted({f"Message {number}" for number in range(2000)}))

    def test_mail_in_a_new_folder_is_found(self):
        self.live()
        self.world.deliver("Lake three", folder=".Archive.2025")
        wait_for(lambda: "Lake three" in self.client.subjects("live"), "mail of the new folder")


if __name__ == "__main__":
    unittest.main()
