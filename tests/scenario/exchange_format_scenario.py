#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The messages that docs/exchange-format.md shows, sent to the real host, and its answers beside those shown."""

import plistlib
import re
import signal
import unittest

from world import PREFIX, ROOT, Scenario, wait_for

DOCUMENT = (ROOT / "docs" / "exchange-format.md").read_text(encoding="utf-8")
EXAMPLES = [text.encode() for text in re.findall(r"```xml\n(.*?)```", DOCUMENT, re.DOTALL)]
MESSAGES = {message["name"].removeprefix(PREFIX): message for message in map(plistlib.loads, EXAMPLES) if "name" in message}
BATCHES = [batch for batch in map(plistlib.loads, EXAMPLES) if "name" not in batch]


def shape(value):
    """Which keys a value has and of which types; of an array the first element tells."""
    if isinstance(value, dict):
        return {key: shape(member) for key, member in value.items()}
    if isinstance(value, list):
        return [shape(value[0])] if value else []
    return type(value).__name__


class TheExchange(Scenario):
    def setUp(self):
        super().setUp()
        self.maxDiff = None
        self.mail = self.world.deliver("Plum cake")
        self.world.deliver("Apple tree")
        self.host = self.world.serve()
        self.client = self.world.client("example")
        self.name = MESSAGES["Search"]["userInfo"]["uniqueName"]

    def send(self, kind, **changes):
        """The example of that kind; without changes byte for byte."""
        content = next(text for text in EXAMPLES if plistlib.loads(text).get("name") == PREFIX + kind)
        if changes:
            message = plistlib.loads(content)
            message["userInfo"].update(changes)
            content = plistlib.dumps(message)
        return self.client.post_bytes(content)

    def answer(self, kind, number=1):
        return self.client.wait_for_kind(self.name, kind, number)[-1]

    def assert_as_shown(self, kind, user_info):
        self.assertEqual(shape(user_info), shape(MESSAGES[kind]["userInfo"]))

    def test_names_all_messages(self):
        self.assertEqual(set(MESSAGES), {"Connect", "Search", "Clear", "Cancel", "Terminate", "PluginReady", "QueryDidStart",
                                         "QueryHasUpdates", "QueryHasRemovals", "QueryDidComplete", "PluginQuit"})
        self.assertEqual(len(BATCHES), 2)

    def test_connect_is_answered_as_shown(self):
        self.send("Connect")
        ready = wait_for(lambda: self.client.take(lambda m: m["userInfo"].get("token")), "PluginReady")[0]
        self.assertEqual(ready, MESSAGES["PluginReady"])

    def test_search_is_answered_as_shown(self):
        self.send("Search")
        self.assertEqual(self.answer("QueryDidStart"), MESSAGES["QueryDidStart"]["userInfo"])
        first = self.answer("QueryHasUpdates")
        self.answer("QueryDidComplete")

        results = self.client.read(first)
        shown = BATCHES[0]
        self.assertEqual(len(results["messages"]), 2)
        for key in shown["messages"][0]["attributes"]:
            self.assertEqual(shape(results["messages"][0]["attributes"][key]), shape(shown["messages"][0]["attributes"][key]))
        for item in (results["messages"][0], shown["messages"][0]):
            item["attributes"] = {}
        self.assertEqual(shape(results), shape(shown))

        self.world.deliver("Plum tart")
        second = self.answer("QueryHasUpdates", 2)
        self.assert_as_shown("QueryHasUpdates", second)
        self.assertEqual(second["pendingBatches"], [{"batchNumber": 1, "batchName": first["batchName"]}])
        self.assertRegex(first["batchName"], r"\A[0-9a-f]{16,}-[0-9a-f]{32}\Z")

        self.mail.unlink()
        removed = self.answer("QueryHasRemovals")
        self.assert_as_shown("QueryHasRemovals", removed)
        self.assertEqual(shape(self.client.read(removed, "RemovalBatch")), shape(BATCHES[1]))

        self.client.wait_taken(self.send("Clear", batchName=first["batchName"]))
        self.assertEqual(list((self.world.pasteboards / first["batchName"]).iterdir()), [])
        self.client.wait_taken(self.send("Cancel"))
        self.host.wait_for_line("active query count: 0")
        self.assertEqual(self.host.count("ERROR"), 0)

    def test_query_that_is_none_is_answered_as_shown(self):
        shown = MESSAGES["QueryDidComplete"]["userInfo"]
        request = {key: shown[key] for key in ("uniqueName", "clientName", "queryString")}
        self.client.post("Search", **request)
        self.assertEqual(self.answer("QueryDidComplete"), shown)

    def test_terminate_ends_the_query(self):
        self.send("Search")
        self.answer("QueryDidComplete")
        self.client.wait_taken(self.send("Terminate"))
        self.host.wait_for_line("active query count: 0")

    def test_quit_is_told_as_shown(self):
        self.send("Search")
        self.answer("QueryDidComplete")
        self.host.send(signal.SIGTERM)
        quit_notice = wait_for(lambda: self.client.take(lambda m: m["name"] == PREFIX + "PluginQuit"), "PluginQuit")[0]
        self.assertEqual(quit_notice, MESSAGES["PluginQuit"])


if __name__ == "__main__":
    unittest.main()
