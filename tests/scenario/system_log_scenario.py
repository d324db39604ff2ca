#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the host writes to the journal or the syslog daemon. Both are found at fixed places, so each test stands up its own
there, in a mount namespace of its own; that takes root."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import unittest

from world import HOST, PATIENCE, Scenario

# Run in the namespace: /run and /dev are private to it.
JOURNAL, SYSLOG = "/run/systemd/journal/socket", "/dev/log"


def in_the_namespace(place, folder, command):
    """Serves `place`, runs the host until it is ready and lets it quit. Prints its standard error and what was logged."""
    def mount(*arguments):
        subprocess.run(["mount", *arguments], check=True)
    mount("-t", "tmpfs", "tmpfs", folder)
    for device in ("null", "urandom"):
        open(f"{folder}/{device}", "w").close()
        mount("--bind", f"/dev/{device}", f"{folder}/{device}")
    mount("--rbind", folder, "/dev")
    mount("-t", "tmpfs", "tmpfs", "/run")
    os.makedirs(os.path.dirname(place), exist_ok=True)
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind(place)
    log.settimeout(PATIENCE)
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE) as host:
        logged = []
        while not logged or b"the index is up to date" not in logged[-1]:
            logged.append(log.recv(65536))
        host.send_signal(signal.SIGTERM)
        error = host.stderr.read().decode()
        host.wait(PATIENCE)
    log.setblocking(False)
    try:
        while True:
            logged.append(log.recv(65536))
    except BlockingIOError:
        pass
    print(json.dumps({"status": host.returncode, "error": error.splitlines(), "logged": [line.decode() for line in logged]}))


def can_have_a_namespace():
    return os.geteuid() == 0 and shutil.which("unshare") is not None and subprocess.run(
        ["unshare", "-m", "mount", "-t", "tmpfs", "tmpfs", "/run"], capture_output=True).returncode == 0


@unittest.skipUnless(can_have_a_namespace(), "this needs a mount namespace of its own")
class SystemLog(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver()

    def serve(self, place):
        folder = self.world.root / "dev"
        folder.mkdir()
        result = subprocess.run(["unshare", "-m", sys.executable, "-B", __file__, "--in-the-namespace", place, str(folder),
                                 str(HOST), "serve", "--mail", str(self.world.mail)],
                                env=self.world.environment, capture_output=True, text=True, timeout=2 * PATIENCE)
        self.assertEqual(result.returncode, 0, result.stderr)
        answer = json.loads(result.stdout)
        self.assertEqual(answer["status"], 0)
        self.assertIn("TallyhiveMailPlugin - n/a - THMPMailPlugin create instance", answer["error"])
        return answer

    @unittest.skipUnless("libsystemd" in subprocess.run([str(HOST), "--version"], capture_output=True, text=True).stdout,
                         "built without the journal's library")
    def test_journal_has_every_line_of_standard_error_once(self):
        answer = self.serve(JOURNAL)
        fields = [dict(field.split("=", 1) for field in entry.splitlines()) for entry in answer["logged"]]
        self.assertEqual([entry["MESSAGE"] for entry in fields], answer["error"])
        self.assertEqual({(entry["SYSLOG_IDENTIFIER"], entry["PRIORITY"]) for entry in fields}, {("tallyhive-mailhost", "5")})

    def test_syslog_daemon_has_every_line_of_standard_error_once(self):
        answer = self.serve(SYSLOG)
        lines = [re.fullmatch(r"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d tallyhive-mailhost(?:\[\d+\])?: (.*?)\0?", line)
                 for line in answer["logged"]]
        self.assertTrue(all(lines), answer["logged"])
        self.assertEqual([line[2] for line in lines], answer["error"])
        self.assertEqual({int(line[1]) % 8 for line in lines}, {5})


if __name__ == "__main__":
    if sys.argv[1:2] == ["--in-the-namespace"]:
        in_the_namespace(sys.argv[2], sys.argv[3], sys.argv[4:])
    else:
        unittest.main()
