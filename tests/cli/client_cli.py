#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""tallyhive-mail from outside: what it prints, how it ends, what it leaves."""

import contextlib
import json
import os
import pty
import select
import signal
import subprocess
import unittest

from world import CLIENT, PREFIX, Scenario, wait_for


class Running:
    """The client in the background, its standard output read line by line as it comes."""

    def __init__(self, world, *arguments):
        self.process = subprocess.Popen([str(CLIENT), *map(str, arguments)], env=world.environment,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def line(self):
        return self.process.stdout.readline()

    def event(self):
        return json.loads(self.line())

    def end(self, number):
        self.process.send_signal(number)
        self.process.communicate(timeout=60)
        return self.process.returncode


def events(result):
    return [json.loads(line) for line in result.stdout.splitlines()]


class WithAHost(Scenario):
    def setUp(self):
        super().setUp()
        self.first = self.world.deliver("Plum cake", sender="Ada Brightwater <ada@example.org>")
        self.second = self.world.deliver("Apple tree", sender="Bruno <bruno@example.org>", flags="FS")
        self.host = self.world.serve()

    def running(self, *arguments):
        client = Running(self.world, *arguments)

        def end():
            if client.process.poll() is None:
                client.process.kill()
            client.process.communicate()
        self.addCleanup(end)
        return client

    def cancelled(self):
        self.host.wait_for_line("THMPMailPlugin cancel query")
        self.assertEqual(self.host.count("active query count: 0"), 1)


class Connecting(WithAHost):
    def test_prints_the_version_keys(self):
        for arguments in ((), ("--check",)):
            result = self.world.run(CLIENT, "connect", *arguments)
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            self.assertRegex(result.stdout, r"\Aversion: \S+\nmajorVersion: \S+\ncompatibilityVersion: 1\n\Z")
        self.assertEqual(self.host.count("needs an update"), 0)

    def test_takes_its_answer_and_leaves_those_of_others(self):
        before = len(list(self.world.outbox.iterdir()))
        self.world.run(CLIENT, "connect")
        self.assertEqual(len(list(self.world.outbox.iterdir())), before)


class Searching(WithAHost):
    def test_table_in_a_pipe_has_whole_lines_apart_by_tabs(self):
        result = self.world.search('kMDItemSubject == "*"')
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "2025-05-05 10:00\tBruno\tApple tree\n2025-05-05 10:00\tAda Brightwater\tPlum cake\n"
                         .replace("2025-05-05 10:00", self.received()))

    def received(self):
        line = self.world.search("subject:plum").stdout
        return line.split("\t")[0]

    def test_json_events_in_their_order(self):
        result = self.world.search("--json", "subject:plum")
        start, found, gathered = events(result)
        self.assertEqual(list(start), ["event", "schema", "uniqueName"])
        self.assertEqual((start["event"], start["schema"]), ("start", "tallyhive.search/1"))
        self.assertRegex(start["uniqueName"], r"\Atallyhive-mail-[0-9a-f]{32}\Z")
        self.assertEqual(list(found), ["event", "index", "libraryID", "path", "attributes"])
        self.assertEqual((found["event"], found["index"], found["path"]), ("found", 0, str(self.first)))
        self.assertEqual(found["attributes"]["kMDItemContentCreationDate"], "2025-05-05T10:00:00Z")
        self.assertEqual(gathered, {"event": "gathered", "found": 1, "batches": 1})

    def test_paths_end_with_a_line_feed_or_a_nul(self):
        self.assertEqual(self.world.search("--paths", "subject:plum").stdout, f"{self.first}\n")
        self.assertEqual(self.world.search("--paths", "-0", "subject:plum").stdout, f"{self.first}\0")

    def test_nothing_found_ends_with_1(self):
        result = self.world.search("--json", "subject:nothing")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(events(result)[-1], {"event": "gathered", "found": 0, "batches": 0})

    def test_query_that_fails_ends_with_2_and_says_so(self):
        result = self.world.search("--json", "kMDItemSubject == ")
        self.assertEqual(result.returncode, 2)
        complete = events(result)[-1]
        self.assertEqual(complete, {"event": "complete", "found": 0, "batches": 0, "errorCode": -2002,
                                    "errorDomain": "CSSearchQueryErrorDomain", "errorMessage": "The query is invalid."})
        self.assertEqual(len(result.stderr.splitlines()), 1)

    def test_words_without_operators_are_the_shorthand(self):
        self.assertIn("Plum", self.world.search("with:ada").stdout)
        self.assertIn("Apple", self.world.search("is:flagged", "tre").stdout)
        self.assertEqual(self.world.search("plum", "apple").returncode, 1)
        self.assertEqual(self.world.search("before:2025-13").returncode, 2)

    def test_sorting_is_asked_for(self):
        subjects = [event["attributes"]["kMDItemSubject"]
                    for event in events(self.world.search("--json", "--sort", "kMDItemSubject", "--ascending"))[1:-1]]
        self.assertEqual(subjects, ["Apple tree", "Plum cake"])

    def test_finished_search_leaves_no_query_no_batch_and_no_file(self):
        self.world.search("--json")
        self.cancelled()
        wait_for(lambda: not list(self.world.inbox.iterdir()), "the requests to be taken")
        self.assertEqual([m["name"] for m in self.world.messages_in(self.world.outbox)], [PREFIX + "PluginReady"])
        for name in self.world.pasteboard_names():
            self.assertEqual(list((self.world.pasteboards / name).iterdir()), [])
        self.assertEqual(self.host.count("ERROR"), 0)

    def test_large_result_is_complete_and_in_order(self):
        self.world.deliver_many(3300)
        # A find shows that the index has taken the mail up.
        wait_for(lambda: self.world.search("--json").stdout.count('"event":"found"') == 3302, "the index")
        found = [event for event in events(self.world.search("--json")) if event["event"] == "found"]
        self.assertEqual([event["index"] for event in found], list(range(3302)))

    def test_control_characters_of_mail_are_escaped(self):
        self.world.deliver("evil \x1b[31mred\x07 end", sender="Eve <eve@example.org>")
        wait_for(lambda: self.world.search("from:eve").returncode == 0, "the message")
        output = self.world.search("from:eve").stdout
        self.assertNotIn("\x1b", output)
        self.assertIn("\\x1B[31mred\\x07 end", output)

    def test_terminal_gets_lines_that_fit_it(self):
        main, other = pty.openpty()
        self.addCleanup(os.close, main)
        import fcntl
        import struct
        import termios
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 20, 0, 0))
        subprocess.run([str(CLIENT), "search", "subject:plum"], env={**self.world.environment, "NO_COLOR": "1"}, stdout=other,
                       stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, timeout=60)
        os.close(other)
        output = b""
        with contextlib.suppress(OSError):
            while select.select([main], [], [], 0)[0]:
                output += os.read(main, 4096)
        lines = output.decode().split("\r\n")
        self.assertTrue(any("Plum" in line for line in lines), lines)
        self.assertTrue(all(len(line) <= 20 for line in lines), lines)


class Living(WithAHost):
    def live(self, *arguments):
        client = self.running("search", "--live", "--json", *(arguments or ("subject:plum",)))
        self.assertEqual(client.event()["event"], "start")
        self.assertEqual(client.event()["event"], "found")
        self.assertEqual(client.event()["event"], "gathered")
        return client

    def test_shows_what_comes_and_what_goes(self):
        client = self.live()
        late = self.world.deliver("Plum jam")
        found = client.event()
        self.assertEqual((found["event"], found["path"], found["index"]), ("found", str(late), 1))
        late.unlink()
        self.assertEqual(client.event(), {"event": "removed", "id": str(found["libraryID"])})
        self.assertEqual(client.end(signal.SIGINT), 130)

    def test_signals_cancel_the_query(self):
        for number, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129)):
            with self.subTest(signal=number):
                cancelled = self.host.count("THMPMailPlugin cancel query")
                client = self.live()
                self.assertEqual(client.end(number), status)
                self.host.wait_for_line("THMPMailPlugin cancel query", cancelled + 1)

    def test_closed_output_is_a_quiet_cancel(self):
        client = self.live()
        client.process.stdout.close()
        self.assertEqual(client.process.wait(60), 0)
        self.assertEqual(client.process.stderr.read(), "")
        self.cancelled()

    def test_host_that_quits_ends_the_search_with_3(self):
        client = self.live()
        self.host.quit()
        self.assertEqual(client.process.wait(60), 3)
        self.assertEqual(len(client.process.stderr.read().splitlines()), 1)

    def test_new_host_after_a_kill_ends_the_search_with_3(self):
        client = self.live()
        self.host.kill()
        self.world.serve()
        self.assertEqual(client.process.wait(60), 3)
        self.assertIn("anew", client.process.stderr.read())

    def test_newer_search_of_the_lineage_silences_it(self):
        self.live("--lineage", "L", "subject:plum")
        self.assertEqual(self.world.search("--lineage", "L", "subject:plum").returncode, 0)
        self.assertEqual(self.host.count("THMPMailPlugin cancel query"), 2)

    def test_table_marks_what_came_and_went(self):
        client = self.running("search", "--live", "subject:plum")
        self.assertIn("Plum cake", client.line())
        self.host.wait_for_line("gather ended")
        wait_for(lambda: not list(self.world.inbox.iterdir()), "the batch to be cleared")
        late = self.world.deliver("Plum jam")
        self.assertRegex(client.line(), r"\A\+ .*Plum jam\n\Z")
        late.unlink()
        self.assertRegex(client.line(), r"\A- .*Plum jam\n\Z")


class WithoutAHost(Scenario):
    def test_no_plugin_ends_with_3_after_the_timeout(self):
        for command in (("connect",), ("search", "x")):
            result = self.world.run(CLIENT, *command, "--timeout", "0.2")
            self.assertEqual(result.returncode, 3)
            self.assertEqual(len(result.stderr.splitlines()), 1)
            self.assertIn("tallyhive-mailhost serve", result.stderr)

    def test_request_waits_for_a_host_that_starts(self):
        self.world.deliver("Plum")
        self.world.index()
        for command in (("connect",), ("search", "--json", "subject:plum")):
            client = Running(self.world, *command, "--timeout", "60")
            wait_for(lambda: self.world.inbox.is_dir() and list(self.world.inbox.iterdir()), "the request")
            host = self.world.serve()
            output, _ = client.process.communicate(timeout=60)
            self.assertEqual(client.process.returncode, 0, output)
            host.quit()

    def test_help_and_version_touch_no_folder(self):
        for arguments in (("--help",), ("--version",), ("search", "--help"), ("connect", "--help")):
            result = self.world.run(CLIENT, *arguments)
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            self.assertTrue(result.stdout)
        self.assertEqual(list(self.world.folders["data"].iterdir()), [])

    def test_wrong_usage_ends_with_2_and_one_line(self):
        for arguments in ((), ("dance",), ("search", "--json", "--paths"), ("search", "-0"), ("search", "--color", "red"),
                          ("connect", "--timeout", "soon"), ("search", "--nonsense")):
            result = self.world.run(CLIENT, *arguments)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)

    def test_folder_that_cannot_be_made_is_named(self):
        (self.world.folders["data"] / "Mail").write_text("in the way")
        result = self.world.run(CLIENT, "connect")
        self.assertEqual(result.returncode, 3)
        self.assertIn(str(self.world.folders["data"] / "Mail"), result.stderr)


if __name__ == "__main__":
    unittest.main()
