#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Applications that quit, by themselves or killed, and what that does to the clients' queries."""

import os
import subprocess
import sys
import unittest

from world import Scenario, wait_for

CLIENT_EDITION = "com.quorvane.tallyhive"
OTHER_EDITION = "com.quorvane.tallyhive-vendalo"

# Holds its file locked until its standard input ends; removes it first when told so.
APPLICATION = """
import fcntl, os, sys
path = f"{sys.argv[1]}/{sys.argv[2]}.{os.getpid()}"
descriptor = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
fcntl.flock(descriptor, fcntl.LOCK_EX)
print(path, flush=True)
if sys.stdin.readline():
    os.unlink(path)
"""


class Application:
    def __init__(self, world, identifier):
        world.applications.mkdir(parents=True, exist_ok=True, mode=0o700)
        self.process = subprocess.Popen([sys.executable, "-c", APPLICATION, str(world.applications), identifier],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.path = self.process.stdout.readline().strip()

    def quit(self):
        """Takes its file away itself."""
        self.process.communicate("quit\n")

    def kill(self):
        self.process.kill()
        self.process.communicate()


class ApplicationsThatQuit(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver()
        self.running = [Application(self.world, identifier)
                        for identifier in (CLIENT_EDITION, OTHER_EDITION, "org.example.calculator")]
        self.addCleanup(lambda: [application.kill() for application in self.running])
        self.host = self.world.serve()
        self.client = self.world.client("A")
        self.client.search("one")
        self.client.gathered("one")

    def ended(self):
        self.host.wait_for_line("THMPMailPlugin terminate client A")

    def not_ended(self):
        # The plug-in hears of applications in order: this third one ends the query for certain.
        before = self.host.count("terminate client")
        self.assertEqual(before, 0)
        self.running[2].quit()
        self.ended()
        self.assertEqual(self.host.count("terminate client"), 1)

    def test_any_other_application_ends_every_client(self):
        other = self.world.client("B")
        other.search("two")
        other.gathered("two")
        self.running[2].quit()
        self.ended()
        self.host.wait_for_line("THMPMailPlugin terminate client B")

    def test_one_edition_that_quits_while_the_other_runs_ends_nothing(self):
        self.running[0].quit()
        self.not_ended()

    def test_last_edition_that_quits_ends_every_client(self):
        self.running[0].quit()
        self.running[1].quit()
        self.ended()

    def test_killed_application_counts_as_quit_and_its_file_is_removed(self):
        self.running[2].kill()
        self.ended()
        wait_for(lambda: not os.path.exists(self.running[2].path), "the file of the killed application to go")

    def test_killed_edition_no_longer_counts_as_running(self):
        self.running[0].kill()
        self.running[1].quit()
        self.ended()


if __name__ == "__main__":
    unittest.main()
