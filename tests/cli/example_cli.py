#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The example client against the real host."""

import re
import signal
import subprocess
import sys
import unittest

from world import PREFIX, ROOT, Scenario, wait_for

EXAMPLE = ROOT / "examples" / "client.py"


class TheExample(Scenario):
    def setUp(self):
        super().setUp()
        self.plum = self.world.deliver("Plum cake", sender="Ada <ada@example.org>")
        self.apple = self.world.deliver("Apple tree")

    def run_example(self, *arguments):
        return self.world.run(sys.executable, EXAMPLE, *arguments)

    def start_example(self, *arguments):
        process = subprocess.Popen([sys.executable, str(EXAMPLE), *arguments], env=self.world.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

        def end():
            if process.poll() is None:
                process.kill()
            process.communicate()
        self.addCleanup(end)
        return process

    def left_nothing(self, host):
        wait_for(lambda: not list(self.world.inbox.iterdir()), "the requests to be taken")
        host.wait_for_line("active query count: 0")
        self.assertEqual([m["name"] for m in self.world.messages_in(self.world.outbox)], [PREFIX + "PluginReady"])
        for name in self.world.pasteboard_names():
            self.assertEqual(list((self.world.pasteboards / name).iterdir()), [])
        self.assertEqual(host.count("ERROR"), 0)

    def test_prints_what_is_found_and_leaves_nothing(self):
        host = self.world.serve()
        result = self.run_example('kMDItemSubject == "*plum*"c')
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertRegex(result.stdout, rf"\A\d+\tPlum cake\t{re.escape(str(self.plum))}\n\Z")
        self.left_nothing(host)

    def test_takes_more_than_one_batch(self):
        self.world.deliver_many(1000)
        self.world.index()
        self.world.serve()
        result = self.run_example('kMDItemSubject == "Message *"')
        self.assertEqual(len(result.stdout.splitlines()), 1000)

    def test_live_sees_mail_come_and_go_until_interrupted(self):
        host = self.world.serve()
        process = self.start_example('kMDItemSubject == "Plum*"', "--live")
        self.assertIn("Plum cake", process.stdout.readline())
        tart = self.world.deliver("Plum tart")
        self.assertIn(f"Plum tart\t{tart}", process.stdout.readline())
        self.plum.unlink()
        self.assertRegex(process.stdout.readline(), r"\A\d+\tgone\n\Z")
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(60), 0)
        self.assertEqual(process.stderr.read(), "")
        wait_for(lambda: not list(self.world.inbox.iterdir()), "the requests to be taken")
        host.wait_for_line("active query count: 0")

    def test_tells_of_a_query_that_is_none(self):
        self.world.serve()
        result = self.run_example("kMDItemSubject ==")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, "The query is invalid.\n")

    def test_without_arguments_says_what_it_does(self):
        result = self.run_example()
        self.assertEqual(result.returncode, 1)
        self.assertIn("client.py QUERY [--live]", result.stderr)


if __name__ == "__main__":
    unittest.main()
