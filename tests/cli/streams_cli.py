#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Both programs when a standard stream is full, closed or without a reader: the exit status stays what it is, and no file
of theirs takes the stream's place."""

import os
import signal
import subprocess
import unittest

from world import CLIENT, HOST, PATIENCE, Scenario


class Streams(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver("Plum cake")
        self.world.index()

    def shell(self, redirections, *command):
        return self.world.run("bash", "-c", f'"$@" {redirections}', "bash", *command)

    def test_error_that_cannot_be_told_ends_as_one_that_can(self):
        missing = self.world.root / "missing"
        for command, status in (((CLIENT, "search", "is:x"), 2), ((CLIENT, "search", "--timeout", 0, "plum"), 3),
                                ((HOST, "find", "a =="), 2), ((HOST, "index", "--mail", missing), 1),
                                ((HOST, "serve", "--plug-in", missing), 1), ((HOST, "bogus"), 2)):
            for redirections in ("2>/dev/full", "2>&-", ">&- 2>&-", "<&- >&- 2>&-"):
                with self.subTest(command=command, redirections=redirections):
                    self.assertEqual(self.shell(redirections, *command).returncode, status)

    def test_update_goes_on_when_its_lines_cannot_be_told(self):
        self.world.mail.rename(self.world.root / "Away")
        self.assertEqual(self.shell("2>/dev/full", HOST, "index").returncode, 0)

    def test_no_file_of_the_host_stands_where_a_stream_was_closed(self):
        with subprocess.Popen(["bash", "-c", 'exec "$1" serve <&- >&- 2>&-', "bash", str(HOST)],
                              env=self.world.environment) as host:
            self.addCleanup(host.wait)
            self.addCleanup(host.kill)
            self.world.search("plum")  # it serves
            for stream in range(3):
                self.assertEqual(os.readlink(f"/proc/{host.pid}/fd/{stream}"), "/dev/null")
            self.assertIn(f"process {host.pid} ", self.world.run(HOST, "index").stderr)
            host.send_signal(signal.SIGTERM)
            self.assertEqual(host.wait(PATIENCE), 0)

    def test_reader_that_has_gone_is_no_failure(self):
        for command in ((HOST, "--version"), (HOST, "find", "--help"), (CLIENT, "--version"), (CLIENT, "--help"),
                        (HOST, "find", 'kMDItemSubject == "*"')):
            with self.subTest(command=command):
                reader, writer = os.pipe()
                os.close(reader)
                result = subprocess.run([str(word) for word in command], env=self.world.environment, stdout=writer,
                                        stderr=subprocess.PIPE, timeout=PATIENCE, check=False)
                os.close(writer)
                self.assertEqual((result.returncode, result.stderr), (0, b""))


if __name__ == "__main__":
    unittest.main()
