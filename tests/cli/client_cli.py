#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""tallyhive-mail from outside: what it prints, how it ends, what it leaves."""

import contextlib
import datetime
import fcntl
import html.parser
import json
import os
import plistlib
import pty
import re
import signal
import struct
import subprocess
import termios
import unicodedata
import unittest
import urllib.parse
import uuid

from world import CLIENT, PATIENCE, PREFIX, SANITIZED, Scenario, wait_for


class Running:
    """The client in the background, its standard output read line by line as it comes."""

    def __init__(self, world, *arguments, prefix=()):
        self.process = subprocess.Popen([*prefix, str(CLIENT), *map(str, arguments)], env=world.environment,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def line(self):
        return self.process.stdout.readline()

    def event(self):
        return json.loads(self.line())

    def end(self, number):
        self.process.send_signal(number)
        self.process.communicate(timeout=PATIENCE)
        return self.process.returncode


class Terminal:
    """The client on a terminal of `columns`: its standard output there, its standard error on another one."""

    def __init__(self, world, columns, *arguments, **environment):
        ends = []
        for _ in range(2):
            main, other = pty.openpty()
            fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            ends.append((main, other))
        (out, out_end), (err, err_end) = ends
        inherited = {key: value for key, value in world.environment.items() if key != "NO_COLOR"}
        process = subprocess.Popen([str(CLIENT), *map(str, arguments)], env={**inherited, **environment}, stdin=subprocess.DEVNULL,
                                   stdout=out_end, stderr=err_end)
        os.close(out_end)
        os.close(err_end)
        self.out, self.err = self.all_of(out), self.all_of(err)
        self.status = process.wait(60)
        self.lines = self.out.splitlines()

    @staticmethod
    def all_of(descriptor):
        """Until the last writer has gone, which a terminal tells by an error."""
        output = b""
        with contextlib.suppress(OSError):
            while part := os.read(descriptor, 65536):
                output += part
        os.close(descriptor)
        return output.decode().replace("\r\n", "\n")


def width(text):
    """The columns that a text takes, for texts without marks."""
    return sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


def events(result):
    return [json.loads(line) for line in result.stdout.splitlines()]


class WithAHost(Scenario):
    def setUp(self):
        super().setUp()
        self.first = self.world.deliver("Plum cake", sender="Ada Brightwater <ada@example.org>")
        self.second = self.world.deliver("Apple tree", sender="Bruno <bruno@example.org>", flags="FS")
        self.host = self.world.serve()

    def running(self, *arguments, **options):
        client = Running(self.world, *arguments, **options)

        def end():
            if client.process.poll() is None:
                client.process.kill()
            client.process.communicate()
        self.addCleanup(end)
        return client

    def cancelled(self):
        self.host.wait_for_line("THMPMailPlugin cancel query")
        self.assertEqual(self.host.count("active query count: 0"), 1)


class Starting(unittest.TestCase):
    @unittest.skipIf(SANITIZED, "the sanitizers bring the C++ library along")
    def test_loads_no_library_that_takes_long(self):
        loaded = subprocess.run(["ldd", str(CLIENT)], capture_output=True, text=True, check=True).stdout
        self.assertIn("libc.so", loaded)
        self.assertNotRegex(loaded, r"libstdc\+\+|libfmt")


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

    def test_sorting_is_asked_for(self):
        for name in ("kMDItemSubject", "subject"):
            for more, expected in (((), ["Plum cake", "Apple tree"]), (("--ascending",), ["Apple tree", "Plum cake"])):
                subjects = [event["attributes"]["kMDItemSubject"]
                            for event in events(self.world.search("--json", "--sort", name, *more))[1:-1]]
                self.assertEqual(subjects, expected, name)

    def test_every_attribute_that_is_found_can_be_sorted_by(self):
        found = events(self.world.search("--json", "subject:plum"))[1]
        for name in found["attributes"]:
            self.assertEqual(self.world.search("--explain", "--sort", name).returncode, 0, name)

    def test_unique_name_is_the_one_given(self):
        self.assertEqual(events(self.world.search("--json", "--unique", "mine"))[0]["uniqueName"], "mine")

    def test_client_goes_by_the_name_given(self):
        self.world.search("--client", "another", "subject:plum")
        self.assertTrue(any("another" in line for line in self.host.lines))

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

    def test_nothing_of_a_pipe_is_for_a_terminal(self):
        for arguments in ((), ("--json",), ("--paths",), ("--timeline",)):
            result = self.world.search(*arguments)
            self.assertEqual(result.stderr, "")
            self.assertNotIn("\x1b", result.stdout)

    def test_reader_of_a_pipe_has_the_terminal_for_itself(self):
        main, other = pty.openpty()
        for arguments in ((), ("--json",), ("--timeline",)):
            result = subprocess.run([str(CLIENT), "search", *arguments], env=self.world.environment, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=other, timeout=PATIENCE)
            self.assertTrue(result.stdout)
        os.close(other)
        self.assertEqual(Terminal.all_of(main), "")

    def test_file_leaves_the_terminal_to_say_how_many(self):
        main, other = pty.openpty()
        with open(self.world.root / "found", "wb") as file:
            subprocess.run([str(CLIENT), "search"], env=self.world.environment, stdin=subprocess.DEVNULL, stdout=file, stderr=other,
                           timeout=PATIENCE, check=True)
        os.close(other)
        self.assertRegex(Terminal.all_of(main), r"\A2 messages in ")

    def test_output_that_cannot_be_written_is_told(self):
        for command in (("search",), ("search", "--json"), ("connect",), ("--version",)):
            with open("/dev/full", "w") as full:
                result = subprocess.run([str(CLIENT), *command], env=self.world.environment, stdin=subprocess.DEVNULL,
                                        stdout=full, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
            self.assertEqual((result.returncode, result.stderr),
                             (2, "tallyhive-mail: standard output cannot be written: No space left on device\n"), command)

    def test_colour_goes_by_option_then_by_the_environment_then_by_the_terminal(self):
        query = "subject:plum"
        self.assertIn("\x1b[", Terminal(self.world, 80, "search", query).out)
        self.assertIn("\x1b[", Terminal(self.world, 80, "search", query, NO_COLOR="").out)
        self.assertNotIn("\x1b", Terminal(self.world, 80, "search", query, NO_COLOR="1").out)
        self.assertNotIn("\x1b", Terminal(self.world, 80, "search", query, "--color=never").out)
        self.assertIn("\x1b[", Terminal(self.world, 80, "search", query, "--color=always", NO_COLOR="1").out)
        self.assertIn("\x1b[", self.world.search(query, "--color", "always").stdout)


class OnATerminal(WithAHost):
    def setUp(self):
        super().setUp()
        self.world.deliver("夏休みの予定とそのほかのいろいろなこと", sender="花子 <hanako@example.org>")
        self.world.deliver("evil \x1b[31m\x07 \u202efdp\u202c \x9b2J end", sender="Eve <eve@example.org>")
        wait_for(lambda: self.world.search("--paths").stdout.count("\n") == 4, "the messages")

    def test_table_has_date_author_and_subject(self):
        terminal = Terminal(self.world, 80, "search", "subject:plum", "--color=never")
        self.assertRegex(terminal.out, r"\A\d{4}-\d\d-\d\d \d\d:\d\d  Ada Brightwater       Plum cake\n\Z")
        self.assertEqual(terminal.status, 0)

    def test_lines_fit_every_width(self):
        for columns in (1, 5, 20, 29, 30, 40, 59, 60, 100):
            lines = Terminal(self.world, columns, "search", "--color=never").lines
            self.assertEqual(len(lines), 4)
            for line in lines:
                self.assertLessEqual(width(line), columns)

    def test_narrow_one_shows_the_subject(self):
        self.assertEqual(Terminal(self.world, 20, "search", "subject:plum", "--color=never").out, "Plum cake\n")
        self.assertRegex(Terminal(self.world, 30, "search", "subject:plum", "--color=never").out, r"\A\d{4}-\d\d-\d\d  Plum cake\n\Z")

    def test_says_how_many_were_found_and_how_fast(self):
        self.assertRegex(Terminal(self.world, 80, "search").err, r"\A4 messages in \d+\.\d\d s\n\Z")
        self.assertRegex(Terminal(self.world, 80, "search", "subject:plum").err, r"\A1 message in \d+\.\d\d s\n\Z")
        nothing = Terminal(self.world, 80, "search", "subject:nothing")
        self.assertRegex(nothing.err, r"\A0 messages in ")
        self.assertEqual((nothing.out, nothing.status), ("", 1))

    def test_gets_nothing_that_it_would_act_on(self):
        for form in ((), ("--json",), ("--paths",), ("--timeline",)):
            terminal = Terminal(self.world, 80, "search", "from:eve", "--color=never", *form)
            for hostile in ("\x1b", "\x07", "\x9b", "\u202e"):
                self.assertNotIn(hostile, terminal.out)
        self.assertIn("evil \\x1B[31m\\x07 fdp", Terminal(self.world, 80, "search", "from:eve", "--color=never").out)

    def test_json_there_means_what_it_means_in_a_pipe(self):
        shown = json.loads(Terminal(self.world, 80, "search", "from:eve", "--json").lines[1])
        self.assertEqual(shown, events(self.world.search("from:eve", "--json"))[1])


class Shorthand(WithAHost):
    def setUp(self):
        super().setUp()
        self.world.deliver("Travel plans", sender="Chidi <chidi@example.org>", to="Ada Brightwater <ada@example.org>", flags="",
                           second=1_600_000_000, body="We meet at the lighthouse.")
        self.world.deliver("Drawing", sender="Danièle <d@example.org>", flags="R", second=1_650_000_000, headers=(
            'MIME-Version: 1.0\nContent-Disposition: attachment; filename="plan.txt"\n'))
        wait_for(lambda: self.world.search("--paths").stdout.count("\n") == 4, "the messages")

    def found(self, *words):
        result = self.world.search("--json", *words)
        self.assertIn(result.returncode, (0, 1), result.stderr)
        return sorted(event["attributes"]["kMDItemSubject"] for event in events(result) if event["event"] == "found")

    def test_finds_people(self):
        self.assertEqual(self.found("from:ada"), ["Plum cake"])
        self.assertEqual(self.found("to:ada"), ["Travel plans"])
        self.assertEqual(self.found("with:ada"), ["Plum cake", "Travel plans"])
        self.assertEqual(self.found("with:ADA@example"), ["Plum cake", "Travel plans"])
        self.assertEqual(self.found('with:"ada bright"'), ["Plum cake", "Travel plans"])
        self.assertEqual(self.found("from:daniele"), ["Drawing"])

    def test_finds_words_in_subject_and_text(self):
        self.assertEqual(self.found("subject:avel"), ["Travel plans"])
        self.assertEqual(self.found("lightho"), ["Travel plans"])
        self.assertEqual(self.found("ighthouse"), [])
        self.assertEqual(self.found("meet", "lighthouse"), ["Travel plans"])
        self.assertEqual(self.found("meet plum"), [])
        self.assertEqual(self.found('"the lighthouse"'), ["Travel plans"])

    def test_finds_by_date(self):
        self.assertEqual(self.found("before:2021"), ["Travel plans"])
        self.assertEqual(self.found("after:2021", "before:2023-01-01"), ["Drawing"])
        self.assertEqual(self.found("after:2022-05", "before:2023"), [])

    def test_finds_by_state(self):
        self.assertEqual(self.found("has:attachment"), ["Drawing"])
        self.assertEqual(self.found("is:unread"), ["Drawing", "Travel plans"])
        self.assertEqual(self.found("is:read"), ["Apple tree", "Plum cake"])
        self.assertEqual(self.found("is:flagged"), ["Apple tree"])
        self.assertEqual(self.found("is:answered"), ["Drawing"])

    def test_minus_turns_a_term_around(self):
        self.assertEqual(self.found("-with:ada", "--", "-is:flagged"), ["Drawing"])
        self.assertEqual(self.found("-from:ada", "-from:bruno", "-drawing"), ["Travel plans"])

    def test_words_of_one_query_are_all_meant(self):
        self.assertIn("Apple", self.world.search("is:flagged", "tre").stdout)
        self.assertEqual(self.world.search("plum", "apple").returncode, 1)

    def test_signs_that_mean_nothing_here_are_told_of_when_nothing_is_found(self):
        for words in (("pl*m",), ("plum", "&&", "cake")):
            result = self.world.search(*words)
            self.assertEqual((result.returncode, result.stdout), (1, ""))
            self.assertIn("stand for themselves in words", result.stderr)
        self.assertEqual(self.world.search("nothing-like-it").stderr, "")
        self.assertEqual(self.world.search('kMDItemSubject == "nothing*"').stderr, "")

    def test_explained_predicate_finds_the_same(self):
        for query in ("with:ada", "plum", "-is:read after:2021", 'subject:"plum cake"', "has:attachment"):
            predicate = self.world.search("--explain", query).stdout.rstrip("\n")
            self.assertEqual(self.found(predicate), self.found(query), predicate)


class Timeline(WithAHost):
    def setUp(self):
        super().setUp()
        self.world.deliver("Old", sender="Ada <ada@example.org>", second=1_690_000_000)       # 2023-07
        self.world.deliver("Own", sender="Robin <robin@example.org>", to="Ada <ada@example.org>", second=1_695_000_000)   # 2023-09
        self.world.deliver("Sent", to="Ada <ada@example.org>", folder=".Sent", second=1_690_000_001)
        wait_for(lambda: self.world.search("--paths").stdout.count("\n") == 5, "the messages")

    def test_pipe_gets_a_month_a_line_without_gaps(self):
        result = self.world.search("--timeline")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "2023-07\t1\t1\n2023-08\t0\t0\n2023-09\t0\t1\n2023-10\t0\t0\n2023-11\t0\t2\n")

    def test_own_address_tells_sent_mail(self):
        result = self.world.search("--timeline", "--me", "ROBIN@example.org", "subject:own")
        self.assertEqual(result.stdout, "2023-09\t1\t0\n")

    def test_json_has_an_event_for_each_month(self):
        result = self.world.search("--timeline", "--json", "before:2023-09")
        start, month, gathered = events(result)
        self.assertEqual((start["event"], start["schema"]), ("start", "tallyhive.search/1"))
        self.assertEqual(month, {"event": "month", "month": "2023-07", "sent": 1, "received": 1})
        self.assertEqual(gathered, {"event": "gathered", "found": 2, "batches": 1})

    def test_terminal_gets_a_drawing_that_fits_it(self):
        for columns in (16, 20, 80):
            terminal = Terminal(self.world, columns, "search", "--timeline", "--color=never")
            self.assertRegex(terminal.out, r"\A4 received\sby month\n")
            self.assertIn("█", terminal.out)
            self.assertIn("2023", terminal.lines[-1])
            self.assertTrue(all(len(line) <= columns for line in terminal.lines), terminal.out)
            self.assertRegex(terminal.err, r"5 messages in \d+\.\d\d s\n\Z")

    def test_of_nothing_ends_with_1(self):
        result = self.world.search("--timeline", "subject:nothing")
        self.assertEqual((result.returncode, result.stdout), (1, ""))

    def test_of_a_query_that_fails_prints_nothing(self):
        result = self.world.search("--timeline", "kMDItemSubject == ")
        self.assertEqual((result.returncode, result.stdout), (2, ""))


class Page(html.parser.HTMLParser):
    """What a browser would find in a report."""

    def __init__(self, text):
        super().__init__()
        self.tags, self.attributes, self.text = set(), [], ""
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        self.attributes += attributes

    def handle_data(self, data):
        self.text += data


class Report(WithAHost):
    def setUp(self):
        super().setUp()
        self.file = self.world.root / "report.html"

    def test_is_written_whole_and_for_its_user_alone(self):
        result = self.world.search("with:ada", "--report", self.file)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))
        self.assertEqual(self.file.stat().st_mode & 0o7777, 0o600)
        self.assertEqual([path for path in self.world.root.iterdir() if path.name.startswith(".")], [])
        page = Page(self.file.read_text(encoding="utf-8"))
        self.assertIn("with:ada", page.text)
        self.assertIn("Plum cake", page.text)
        self.assertIn("Ada Brightwater", page.text)
        self.assertIn("svg", page.tags)

    def test_hostile_mail_stays_text(self):
        self.world.deliver("</title><script>alert(1)</script>", sender='"<img src=http://evil.example/x>" <eve@example.org>')
        wait_for(lambda: self.world.search("from:eve").returncode == 0, "the message")
        self.assertEqual(self.world.search("from:eve", "--report", self.file).returncode, 0)
        page = Page(self.file.read_text(encoding="utf-8"))
        self.assertIn("<script>alert(1)</script>", page.text)
        self.assertIn("<img src=http://evil.example/x>", page.text)
        self.assertEqual(page.tags & {"script", "img", "a", "link", "iframe", "object", "form", "base"}, set())
        self.assertEqual([name for name, _ in page.attributes if name in ("src", "href") or name.startswith("on")], [])

    def test_stands_beside_other_output(self):
        result = self.world.search("--json", "--report", self.file)
        self.assertEqual(events(result)[-1]["event"], "gathered")
        self.assertTrue(self.file.exists())
        self.file.unlink()
        self.assertEqual(self.world.search("--timeline", "--report", self.file).stdout, "2023-11\t0\t2\n")
        self.assertTrue(self.file.exists())

    def test_terminal_is_told_where_it_is(self):
        terminal = Terminal(self.world, 80, "search", "--report", self.file)
        self.assertEqual(terminal.err, f"2 messages in {self.file}\n")

    def test_older_one_is_kept_unless_there_is_a_new_one(self):
        self.file.write_text("an older one")
        for query, status in (("subject:nothing", 1), ("kMDItemSubject == ", 2), ("is:purple", 2)):
            result = self.world.search(query, "--report", self.file)
            self.assertEqual(result.returncode, status)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
            self.assertEqual(self.file.read_text(), "an older one")
        self.assertEqual(self.world.search("--report", self.file).returncode, 0)
        self.assertIn("<!DOCTYPE html>", self.file.read_text(encoding="utf-8"))

    def test_that_cannot_be_written_is_told_before_anything_is_asked(self):
        for place in (self.world.root / "missing" / "r.html", self.world.root, "/dev/full", ""):
            result = self.world.search("--json", "--report", place)
            self.assertEqual((result.returncode, result.stdout), (2, ""), place)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
        self.assertEqual(self.host.count("THMPMailPlugin received"), 0)


class Controlling(WithAHost):
    def live(self, *arguments):
        client = self.running("search", "--live", "--json", "subject:plum", *arguments)
        for event in ("start", "found", "gathered"):
            self.assertEqual(client.event()["event"], event)
        return client

    def query_count(self):
        lines = [line for line in list(self.host.lines) if "active query count:" in line]
        return int(lines[-1].rsplit(" ", 1)[1]) if lines else None

    def test_cancel_ends_one_search(self):
        self.live("--unique", "one")
        self.live("--unique", "two")
        result = self.world.run(CLIENT, "cancel", "one")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))
        self.host.wait_for_line("active query count: 1")

    def test_terminate_ends_all_of_a_client(self):
        self.live("--client", "mine")
        self.live("--client", "mine")
        self.live("--client", "theirs")
        result = self.world.run(CLIENT, "terminate", "--client", "mine")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))
        self.host.wait_for_line("THMPMailPlugin terminate client mine")
        self.host.wait_for_line("THMPMailPlugin cancel query", 2)
        wait_for(lambda: self.query_count() == 1, "the searches to end")

    def test_both_come_after_a_connect(self):
        self.world.run(CLIENT, "cancel", "nobody")
        self.world.run(CLIENT, "terminate", "--client", "nobody")
        received = [line for line in self.host.lines if "THMPMailPlugin received" in line]
        self.assertEqual([re.search(PREFIX + r"(\w+)", line)[1] for line in received], ["Connect", "Cancel", "Connect", "Terminate"])

    def test_nothing_of_them_is_left(self):
        before = sorted(self.world.outbox.iterdir())
        self.world.run(CLIENT, "cancel", "nobody")
        self.world.run(CLIENT, "terminate")
        self.assertEqual(list(self.world.inbox.iterdir()), [])
        self.assertEqual(sorted(self.world.outbox.iterdir()), before)


class Logging(WithAHost):
    def test_prints_the_stored_log(self):
        self.world.run(CLIENT, "connect")
        wait_for(lambda: any("received" in entry[2] for entry in self.world.stored_log()), "the log on disk")
        result = self.world.run(CLIENT, "log")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        stored = self.world.stored_log()
        lines = result.stdout.splitlines()
        self.assertEqual(len(lines), len(stored))
        for line, (date, query, text) in zip(lines, stored):
            self.assertEqual(line.split("\t"), [date.strftime("%Y-%m-%d %H:%M:%S"), query, text])

    def test_follow_goes_on_with_new_lines_each_once(self):
        client = self.running("log", "--follow")
        self.assertIn("THMPMailPlugin", client.line())
        self.world.search("--unique", "followed", "subject:plum")
        line = client.line()
        while "\tfollowed\t" not in line:
            line = client.line()
        client.process.send_signal(signal.SIGINT)
        output, _ = client.process.communicate(timeout=PATIENCE)
        self.assertEqual(client.process.returncode, 130)
        lines = (line + output).splitlines()
        self.assertEqual(len([line for line in lines if "THMPMailPlugin received" in line and "Search" in line]), 1, lines)

    def test_follow_ends_when_its_reader_has_gone(self):
        wait_for(self.world.stored_log, "the log on disk")
        client = self.running("log", "--follow")
        client.line()
        client.process.stdout.close()
        self.assertEqual(client.process.wait(60), 0)
        self.assertEqual(client.process.stderr.read(), "")

    def test_terminal_gets_lines_apart_by_blanks(self):
        wait_for(self.world.stored_log, "the log on disk")
        terminal = Terminal(self.world, 80, "log", "--color=never")
        self.assertRegex(terminal.lines[0], r"\A\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  \S+  THMPMailPlugin ")
        self.assertIn("\x1b[", Terminal(self.world, 80, "log").out)


class Living(WithAHost):
    def live(self, *arguments, **options):
        client = self.running("search", "--live", "--json", *(arguments or ("subject:plum",)), **options)
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

    def test_closed_terminal_may_be_ignored(self):
        client = self.live(prefix=("sh", "-c", 'trap "" HUP; exec "$@"', "sh"))  # as nohup(1) starts programs
        client.process.send_signal(signal.SIGHUP)
        self.world.deliver("Plum tree")
        self.assertEqual(client.event()["event"], "found")
        self.assertEqual(client.end(signal.SIGINT), 130)

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
        for command in (("connect",), ("search", "x"), ("search", "--report", self.world.root / "r.html"), ("cancel", "x"),
                        ("terminate",)):
            result = self.world.run(CLIENT, *command, "--timeout", "0.2")
            self.assertEqual(result.returncode, 3)
            self.assertEqual(len(result.stderr.splitlines()), 1)
            self.assertIn("tallyhive-mailhost serve", result.stderr)
        self.assertFalse((self.world.root / "r.html").exists())

    def test_request_that_nobody_reads_is_taken_back(self):
        for command in (("connect",), ("search", "x"), ("cancel", "x"), ("terminate",)):
            self.world.run(CLIENT, *command, "--timeout", "0.1")
            self.assertEqual(list(self.world.inbox.iterdir()), [], command)
            client = Running(self.world, *command)
            wait_for(lambda: list(self.world.inbox.iterdir()), "the request")
            client.process.send_signal(signal.SIGINT)
            client.process.communicate(timeout=PATIENCE)
            self.assertEqual(client.process.returncode, 130)
            self.assertEqual(list(self.world.inbox.iterdir()), [], command)

    def test_batches_that_cannot_be_read_are_told_and_the_others_shown(self):
        client = self.searching()
        whole = self.batch("Plum")
        for number, content in enumerate((whole[:-1], whole, None), 1):
            self.announce(number, content)
        self.answer("QueryDidComplete")
        wait_for(lambda: self.take_requests() or client.process.poll() is not None, "the end")
        output, errors = client.process.communicate()
        self.assertEqual([event.get("libraryID", event.get("found")) for event in map(json.loads, output.splitlines())], [7, 1])
        damaged, missing = errors.splitlines()
        self.assertIn("a batch of results could not be read: Binary property list: ", damaged)
        self.assertIn("No such file or directory; search again", missing)
        self.assertEqual(client.process.returncode, 0)

    def test_batch_is_cleared_before_it_is_printed(self):
        client = self.searching()
        self.announce(1, self.batch("Plum" * 250_000))  # more than a pipe holds that nobody reads
        cleared = wait_for(lambda: [*self.world.inbox.glob("*.plist")], "the batch to be cleared")[0]
        request = plistlib.loads(cleared.read_bytes())
        self.assertEqual((request["name"], request["userInfo"]["batchName"]), (PREFIX + "Clear", "batch1"))
        self.answer("QueryDidComplete")
        self.assertEqual(client.event()["libraryID"], 7)
        self.assertEqual(client.event()["found"], 1)
        wait_for(lambda: self.take_requests() or client.process.poll() is not None, "the end")
        client.process.communicate()
        self.assertEqual(client.process.returncode, 0)

    def searching(self):
        """A client whose search has been taken."""
        client = Running(self.world, "search", "--json", "--unique", "u", "x")
        request = wait_for(lambda: self.world.inbox.is_dir() and [*self.world.inbox.glob("*.plist")], "the request")[0]
        request.unlink()
        return client

    @staticmethod
    def batch(subject):
        message = {"index": 0, "libraryID": 7, "kMDItemPath": "/7.eml", "attributes": {"kMDItemSubject": subject}}
        return plistlib.dumps({"messages": [message]}, fmt=plistlib.FMT_BINARY)

    def announce(self, number, content):
        batch = self.world.pasteboards / f"batch{number}"
        batch.mkdir(parents=True, mode=0o700)
        if content:
            (batch / urllib.parse.quote(PREFIX + "ResultsBatch", safe="-._~")).write_bytes(content)
        self.answer("QueryHasUpdates", batchNumber=number, batchName=batch.name)

    def take_requests(self):
        for path in self.world.inbox.glob("*.plist"):
            path.unlink(missing_ok=True)

    def answer(self, kind, **info):
        """As the plug-in would post it."""
        part = self.world.outbox / "answer.part"
        part.write_bytes(plistlib.dumps({"name": PREFIX + kind, "userInfo": {"uniqueName": "u", **info}}, fmt=plistlib.FMT_BINARY))
        part.rename(self.world.outbox / f"{uuid.uuid4().hex}.plist")

    def test_explain_needs_no_host(self):
        for query, predicate in (("subject:plum after:2024-02", 'kMDItemSubject == "*plum*"cd && com_apple_mail_dateReceived >= '
                                                                "$time.iso(2024-02-01)"),
                                 ('kMDItemSubject ==   "x"', 'kMDItemSubject ==   "x"'), ("", "")):
            result = self.world.search("--explain", query)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, predicate + "\n", ""))
        self.assertEqual(list(self.world.folders["data"].iterdir()), [])

    def test_query_that_is_not_understood_says_what_to_do(self):
        for query, hint in (("before:2026-02-30", "there is no 2026-02-30 in the calendar"),
                            ("after:tomorow", "write it as 2026, 2026-05 or 2026-05-31"),
                            ("fron:ada", 'did you mean "from:"?'), ("is:unraed", "did you mean is:unread?"),
                            ("is:purple", "use is:unread"), ("has:wings", "use has:attachment"), ("from:", "needs a text"),
                            ('"plum', "not closed"), ("--sort=subjet", "did you mean subject?")):
            result = self.world.search(query)
            self.assertEqual((result.returncode, result.stdout), (2, ""), query)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
            self.assertIn(hint, result.stderr)
        self.assertEqual(list(self.world.folders["data"].iterdir()), [])

    def test_log_that_is_not_there_ends_with_1_and_says_where_it_would_be(self):
        result = self.world.run(CLIENT, "log")
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertIn(str(self.world.defaults), result.stderr)

    def test_log_that_is_broken_ends_with_2_and_is_left_alone(self):
        self.world.defaults.parent.mkdir(parents=True)
        self.world.defaults.write_bytes(b"bplist00 and nothing more")
        result = self.world.run(CLIENT, "log")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn(str(self.world.defaults), result.stderr)
        self.assertEqual(self.world.defaults.read_bytes(), b"bplist00 and nothing more")

    def test_log_to_come_is_followed_from_its_first_line(self):
        self.world.deliver("Plum")
        client = Running(self.world, "log", "-f")
        self.addCleanup(client.process.communicate)
        self.addCleanup(client.process.kill)
        self.assertIn("no log yet", client.process.stderr.readline())
        self.world.serve()
        first = client.line()
        wait_for(self.world.stored_log, "the log on disk")
        self.assertEqual(first.rstrip("\n").split("\t")[2], self.world.stored_log()[0][2])

    def test_log_shows_control_characters_escaped(self):
        self.world.defaults.parent.mkdir(parents=True)
        date = datetime.datetime(2025, 5, 5, 10, 0, 0)
        self.world.defaults.write_bytes(plistlib.dumps({"THMPMailPlugin.log": [[date, "q\ty", "a\n\x07b"], "no entry"]},
                                                       fmt=plistlib.FMT_BINARY))
        result = self.world.run(CLIENT, "log")
        self.assertEqual((result.returncode, result.stdout), (0, "2025-05-05 10:00:00\tq y\ta \\x07b\n"))

    def test_request_waits_for_a_host_that_starts(self):
        self.world.deliver("Plum")
        self.world.index()
        for command in (("connect",), ("search", "--json", "subject:plum")):
            client = Running(self.world, *command, "--timeout", "60")
            wait_for(lambda: self.world.inbox.is_dir() and list(self.world.inbox.iterdir()), "the request")
            host = self.world.serve()
            output, _ = client.process.communicate(timeout=PATIENCE)
            self.assertEqual(client.process.returncode, 0, output)
            host.quit()

    def test_help_and_version_touch_no_folder(self):
        commands = [(), ("connect",), ("search",), ("cancel",), ("terminate",), ("log",)]
        for arguments in [(*command, option) for command in commands for option in ("--help", "--version")]:
            result = self.world.run(CLIENT, *arguments)
            self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
            self.assertTrue(result.stdout)
        for folder in self.world.folders.values():
            self.assertEqual(list(folder.iterdir()), [])

    def test_version_names_program_and_libraries(self):
        first, second = self.world.run(CLIENT, "--version").stdout.splitlines()
        self.assertRegex(first, r"\Atallyhive-mail \d+\.\d+\.\d+\Z")
        for library in ("Expat", "utf8proc", "fmt", "nlohmann-json", "CLI11"):
            self.assertRegex(second, library + r" \d+\.\d+")

    def test_help_names_every_option(self):
        text = self.world.run(CLIENT, "search", "--help").stdout
        for option in ("--sort", "--ascending", "--lineage", "--unique", "--live", "--json", "--paths", "-0", "--timeline", "--report",
                       "--me", "--explain", "--client", "--timeout", "--color"):
            self.assertIn(option, text)

    def test_help_of_a_command_closes_with_what_belongs_to_it(self):
        closing = self.world.run(CLIENT, "--help").stdout.splitlines()[-1]
        self.assertIn("COMMAND --help", closing)
        search = self.world.run(CLIENT, "search", "--help").stdout
        for text in ("Exit status: ", "from:TEXT", "--sort takes date"):
            self.assertIn(text, search)
        for command in ("connect", "search", "cancel", "terminate", "log"):
            self.assertNotIn(closing, self.world.run(CLIENT, command, "--help").stdout)

    def test_wrong_usage_ends_with_2_and_one_line_that_says_what_to_do(self):
        for arguments, hint in (
                ((), "name a command"), (("dance",), "--help"), (("serach", "x"), "did you mean search?"),
                (("search", "--nonsense"), "--help"), (("search", "--jsno"), "did you mean --json?"),
                (("search", "--json", "--paths"), "choose one"), (("search", "--timeline", "--paths"), "choose one"),
                (("search", "-0"), "--paths"), (("search", "--timeline", "--live"), "leave out --live"),
                (("search", "--report", "r", "--live"), "leave out --live"),
                (("search", "--timeline", "--sort", "date"), "leave out --sort"), (("search", "--me", "a@x"), "--timeline"),
                (("search", "--explain", "--json"), "--explain"), (("search", "--report"), "--report"),
                (("search", "--color", "red"), "auto, always"), (("connect", "--timeout", "soon"), "number of seconds"),
                (("connect", "--timeout", "-1"), "number of seconds"), (("cancel",), "NAME"), (("cancel", "a", "b"), "cancel"),
                (("terminate", "now"), "terminate"), (("log", "x"), "log"), (("connect", "x"), "connect"),
                (("search", b"plum \xff"), "UTF-8"), (("cancel", b"\xff"), "UTF-8"), (("connect", "--client", b"\xff"), "UTF-8")):
            result = subprocess.run([str(CLIENT), *arguments], env=self.world.environment, capture_output=True, text=True,
                                    stdin=subprocess.DEVNULL, timeout=PATIENCE)
            self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
            self.assertIn(hint, result.stderr)
        self.assertEqual(list(self.world.folders["data"].iterdir()), [])

    def test_folder_that_cannot_be_made_is_named(self):
        (self.world.folders["data"] / "Mail").write_text("in the way")
        result = self.world.run(CLIENT, "connect")
        self.assertEqual(result.returncode, 3)
        self.assertIn(str(self.world.folders["data"] / "Mail"), result.stderr)


if __name__ == "__main__":
    unittest.main()
