#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The client library with the real host: what its handlers hear, and what it leaves behind."""

import re
import subprocess
import unittest

from world import BUILD, PATIENCE, PREFIX, SANITIZED, Scenario, wait_for

PLUM = 'kMDItemSubject == "Plum*"'


class Probe:
    def __init__(self, world, *arguments):
        self.process = subprocess.Popen([str(BUILD / "bin" / "client_probe"), *arguments], env=world.environment, text=True, bufsize=1,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def say(self, line):
        self.process.stdin.write(line + "\n")

    def hear(self):
        return self.process.stdout.readline().rstrip("\n")

    def hear_until(self, line):
        heard = []
        while not heard or heard[-1] != line:
            heard.append(self.hear())
            if heard[-1] == "":
                raise AssertionError(f"the probe has ended: {heard}")
        return heard

    def end(self):
        self.process.stdin.close()
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        return status


class TheClientLibrary(Scenario):
    def probe(self, *arguments):
        probe = Probe(self.world, *arguments)

        def end():
            if probe.process.poll() is None:
                probe.process.kill()
                probe.process.wait()
            probe.process.stdin.close()
            probe.process.stdout.close()
        self.addCleanup(end)
        return probe

    def connected(self):
        probe = self.probe()
        self.assertEqual(probe.hear(), "connected to version 1")
        return probe

    def gathered(self, name, lineage="-"):
        """A host with one message, and a probe whose search has found it."""
        self.world.deliver("Plum cake")
        host = self.world.serve()
        probe = self.connected()
        probe.say(f"search {name} {lineage} {PLUM}")
        probe.hear_until(f"{name} gathered")
        return host, probe

    def requests_are_taken(self):
        wait_for(lambda: not list(self.world.inbox.iterdir()), "the requests to be taken")

    def left_nothing(self, host):
        self.requests_are_taken()
        host.wait_for_line("active query count: 0")
        self.assertEqual([m["name"] for m in self.world.messages_in(self.world.outbox)], [PREFIX + "PluginReady"])
        # Those of removals are the plug-in's to keep.
        left = [file.name for file in self.world.pasteboards.glob("*/*") if not file.name.endswith(".RemovalBatch")]
        self.assertEqual(left, [])
        self.assertEqual(host.count("ERROR"), 0)

    def test_says_in_time_that_no_plug_in_answers(self):
        probe = self.probe("200")
        self.assertEqual(probe.hear(), 'no plug-in answers; start a host with "tallyhive-mailhost serve"')
        self.assertEqual(probe.process.wait(PATIENCE), 3)

    def test_hears_what_is_found_then_what_comes_and_goes_and_leaves_nothing(self):
        plum = self.world.deliver("Plum cake")
        host = self.world.serve()
        probe = self.connected()
        probe.say(f"search a - {PLUM}")
        heard = probe.hear_until("a gathered")
        self.assertEqual(heard[0], "a batch 1")
        self.assertRegex(heard[1], r"\Aa found \d+ Plum cake\Z")
        identifier = heard[1].split()[2]
        self.world.deliver("Plum tart")
        self.assertEqual(probe.hear(), "a batch 2")
        self.assertRegex(probe.hear(), r"\Aa found \d+ Plum tart\Z")
        plum.unlink()
        self.assertEqual(probe.hear(), f"a removed {identifier}")
        self.assertEqual(probe.end(), 0)
        self.left_nothing(host)

    def test_takes_many_batches_in_their_order(self):
        count = 2000 if SANITIZED else 4000
        self.world.deliver_many(count)
        self.world.index()
        host = self.world.serve()
        probe = self.connected()
        probe.say("search a -")
        heard = probe.hear_until("a gathered")
        batches = [line for line in heard if line.startswith("a batch")]
        self.assertEqual(batches, [f"a batch {number}" for number in range(1, len(batches) + 1)])
        self.assertEqual(len(heard) - len(batches) - 1, count)
        probe.end()
        self.left_nothing(host)

    def test_ends_a_query_that_is_none_with_its_reason(self):
        self.world.deliver("Plum cake")
        self.world.serve()
        probe = self.connected()
        probe.say("search a - kMDItemSubject ==")
        self.assertEqual(probe.hear(), "a ended failed -2002 The query is invalid.")

    def test_calls_no_handler_after_cancel_not_even_inside_one(self):
        for _ in range(1000):
            self.world.deliver("Plum cake")
        self.world.index()
        host = self.world.serve()
        probe = self.connected()
        probe.say("cancel-in-handler a")
        probe.say(f"search a - {PLUM}")
        self.assertEqual(probe.hear(), "a batch 1")
        for _ in range(750):
            self.assertIn("a found", probe.hear())
        host.wait_for_line("THMPMailPlugin cancel query")
        probe.say(f"search b - {PLUM}")
        self.assertEqual(probe.hear(), "b batch 1")
        probe.end()
        self.left_nothing(host)

    def test_tells_when_the_plug_in_does_not_take_note_of_the_end_and_has_it_cancelled_still(self):
        host, probe = self.gathered("a")
        self.requests_are_taken()
        with host.stopped():
            probe.say("patience 100")
            self.assertEqual(probe.end(), 4)
        host.wait_for_line("THMPMailPlugin cancel query")
        self.left_nothing(host)

    def test_cancel_right_after_search_overtakes_nothing(self):
        self.world.deliver("Plum cake")
        host = self.world.serve()
        probe = self.connected()
        probe.say(f"search a - {PLUM}\ncancel a")
        host.wait_for_line("THMPMailPlugin cancel query")
        probe.end()
        self.left_nothing(host)

    def test_a_newer_search_of_the_lineage_ends_the_older_one(self):
        host, probe = self.gathered("a", lineage="tree")
        # A Clear that comes after its search's end is told as an error.
        self.requests_are_taken()
        probe.say(f"search b tree {PLUM}")
        probe.hear_until("b gathered")
        self.world.deliver("Plum tart")
        self.assertEqual(probe.hear(), "b batch 2")
        probe.end()
        self.left_nothing(host)

    def test_a_batch_that_is_kept_stays_until_it_is_cleared(self):
        host, probe = self.gathered("a+")
        self.assertEqual(self.filled_pasteboards(), 1)
        probe.say("clear a+")
        wait_for(lambda: self.filled_pasteboards() == 0, "the batch to be taken back")
        probe.end()
        self.left_nothing(host)

    def filled_pasteboards(self):
        return sum(any((self.world.pasteboards / name).iterdir()) for name in self.world.pasteboard_names())

    def test_a_search_ends_with_its_host(self):
        host, probe = self.gathered("a")
        host.quit()
        self.assertEqual(probe.hear(), "a ended host-gone 0 the mail host has quit")

    def test_a_search_whose_host_was_killed_ends_when_the_next_one_starts(self):
        host, probe = self.gathered("a")
        host.kill()
        self.world.serve()
        self.assertEqual(probe.hear(), "a ended host-gone 0 the mail host has quit")

    def test_a_search_that_is_begun_while_no_host_runs_waits_for_the_next_one(self):
        self.world.deliver("Plum cake")
        host = self.world.serve()
        probe = self.connected()
        host.quit()
        probe.say(f"search a - {PLUM}")
        wait_for(lambda: list(self.world.inbox.iterdir()), "the request")
        self.world.serve()
        heard = probe.hear_until("a gathered")
        self.assertTrue(re.fullmatch(r"a found \d+ Plum cake", heard[1]), heard)


if __name__ == "__main__":
    unittest.main()
