#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""tallyhive-mailhost from outside: index and find."""

import contextlib
import fcntl
import json
import os
import pty
import select
import shutil
import signal
import struct
import subprocess
import termios
import unittest

from world import HOST, PATIENCE, Scenario, World, wait_for


class Indexing(Scenario):
    def test_coverage_is_one_line(self):
        self.world.deliver_many(3)
        self.assertEqual(self.world.index(), "seen 3, indexed 3, unchanged 0, removed 0, incomplete 0, failed 0\n")
        self.world.deliver()
        path = self.world.deliver()
        path.rename(path.with_name(path.name + "F"))
        self.assertEqual(self.world.index(), "seen 5, indexed 2, unchanged 3, removed 0, incomplete 0, failed 0\n")
        path.with_name(path.name + "F").unlink()
        self.assertEqual(self.world.index(), "seen 4, indexed 0, unchanged 4, removed 1, incomplete 0, failed 0\n")

    def test_dry_run_only_counts(self):
        self.world.deliver_many(3)
        temporary = self.world.root / "tmp"
        temporary.mkdir()
        self.world.environment["TMPDIR"] = str(temporary)
        self.assertIn("seen 3, indexed 3", self.world.index("--dry-run", "--mail", self.world.mail))
        for folder in (*self.world.folders.values(), temporary):
            self.assertEqual(list(folder.iterdir()), [], "something was made")
        self.assertEqual(self.world.run(HOST, "find", '* == "*"').returncode, 1)
        self.assertEqual(self.world.run(HOST, "index").returncode, 2, "its mail folders were remembered")
        self.assertIn("seen 3, indexed 3", self.world.index())

    def test_dry_run_counts_what_the_run_then_does(self):
        kept, renamed, gone, closed = self.world.deliver_many(4, folder="a")
        self.world.deliver("Elsewhere", folder="b")
        self.world.index()
        renamed.rename(renamed.with_name(renamed.name + "F"))
        gone.unlink()
        closed.unlink()
        closed.symlink_to("nowhere")
        (self.world.mail / "a" / "cur" / "9.empty:2,").touch()
        shutil.rmtree(self.world.mail / "b")
        ids = self.ids()
        counted = self.world.index("--dry-run")
        # An empty file is known to be incomplete when it is read.
        self.assertEqual(counted, "seen 4, indexed 1, unchanged 2, removed 3, incomplete 0, failed 1\n")
        self.assertEqual({path: ids[path] for path in self.ids()}, self.ids())
        self.assertEqual(self.world.index(), counted.replace("incomplete 0", "incomplete 1"))
        self.assertEqual(self.world.index("--dry-run"),
                         "seen 4, indexed 0, unchanged 3, removed 0, incomplete 1, failed 1\n")
        self.assertIn(str(kept), self.ids())

    def test_mail_folders_are_remembered_and_the_last_ones_count(self):
        self.world.deliver("One", folder="a")
        self.world.deliver("Two", folder="b")
        self.world.index("--mail", self.world.mail / "a", "--mail", self.world.mail / "b")
        self.assertIn("seen 2, indexed 0", self.world.index("--dry-run"))
        self.assertIn("seen 1, indexed 0, unchanged 1, removed 1", self.world.index("--mail", self.world.mail / "b"))
        self.assertEqual(self.found(), ["Two"])
        self.assertEqual(self.remembered(), [str(self.world.mail / "b")])

    def remembered(self):
        return [folder["path"] for folder in json.loads(self.world.run(HOST, "stat", "--json").stdout)["mailFolders"]]

    def test_mail_folders_are_remembered_absolute_and_without_links(self):
        self.world.deliver(folder="a")
        (self.world.root / "link").symlink_to("Mail")
        self.world.run(HOST, "index", "--mail", "link/../Mail/./a/", cwd=self.world.root)
        self.assertEqual(self.remembered(), [str(self.world.mail / "a")])
        self.assertIn("unchanged 1", self.world.index("--mail", self.world.root / "link" / "a"))

    def test_folders_given_to_serve_are_remembered_at_once(self):
        self.world.deliver(folder="a")
        self.world.serve("--mail", str(self.world.mail / "a"))
        self.assertEqual(self.remembered(), [str(self.world.mail / "a")])

    def test_wrong_folder_replaces_no_remembered_one(self):
        self.world.deliver()
        self.world.index()
        result = self.world.run(HOST, "index", "--mail", self.world.mail, "--mail", self.world.root / "nowhere")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(self.remembered(), [str(self.world.mail)])

    def test_leaves_no_write_ahead_log(self):
        self.world.deliver_many(3)
        self.world.index()
        self.assertEqual(sorted(path.name for path in self.world.root.rglob("*.sqlite*")),
                         ["index.sqlite", "index.sqlite-columns", "library.sqlite"])

    def test_host_that_quits_during_its_first_update_says_so(self):
        self.world.deliver_many(2000)
        host = self.world.serve(indexed=False)
        self.assertEqual(host.quit(), 0)
        waiting = json.loads(self.world.run(HOST, "stat", "--json").stdout)["coverage"]["waiting"]
        self.assertEqual(host.count("the index is up to date") > 0, waiting == 0)
        self.assertEqual(host.count("told to quit with ") > 0, waiting > 0)

    def test_while_a_host_serves_it_says_which_and_ends_with_1(self):
        self.world.deliver()
        host = self.world.serve()
        for arguments in ((), ("--dry-run",), ("--mail", self.world.root)):
            result = self.world.run(HOST, "index", *arguments)
            self.assertEqual((result.returncode, result.stdout), (1, ""))
            self.assertRegex(result.stderr, rf"\A[^\n]*process {host.process.pid} [^\n]*keeps the index [^\n]*\n\Z")
        self.assertEqual(self.remembered(), [str(self.world.mail)])

    def found(self, query='* == "*"'):
        result = self.world.run(HOST, "find", query, "--json")
        return sorted(json.loads(line)["attributes"]["kMDItemSubject"] for line in result.stdout.splitlines())

    def test_wrong_mail_folder_ends_with_1_and_is_named(self):
        file = self.world.root / "file"
        file.write_text("")
        for path in (self.world.root / "nowhere", file):
            result = self.world.run(HOST, "index", "--mail", path)
            self.assertEqual(result.returncode, 1)
            self.assertEqual(len(result.stderr.splitlines()), 1)
            self.assertIn(str(path), result.stderr)

    def test_without_any_mail_folder_it_says_so_and_ends_with_2(self):
        result = self.world.run(HOST, "index")
        self.assertEqual(result.returncode, 2)
        self.assertIn("--mail", result.stderr)

    def test_folder_without_mail_is_no_error(self):
        self.world.mail.mkdir()
        self.assertIn("seen 0", self.world.index())

    def test_mail_is_never_changed(self):
        self.world.deliver_many(5)
        before = {path: (path.stat().st_mtime_ns, path.read_bytes()) for path in self.world.mail.rglob("*") if path.is_file()}
        self.world.index()
        after = {path: (path.stat().st_mtime_ns, path.read_bytes()) for path in self.world.mail.rglob("*") if path.is_file()}
        self.assertEqual(before, after)

    def test_interrupted_run_ends_with_130_and_the_next_goes_on(self):
        self.world.deliver_many(4000)
        process = subprocess.Popen([str(HOST), "index", "--mail", str(self.world.mail)], env=self.world.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        wait_for(lambda: process.poll() is not None or self.world.library.exists(), "the library")
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 130, errors)
        self.assertIn("goes on", errors)
        coverage = self.world.index()
        self.assertIn("seen 4000", coverage)
        self.assertEqual(len(self.found()), 4000)

    def test_nothing_of_progress_stands_where_standard_error_is_no_terminal(self):
        self.world.deliver_many(2000)
        self.assertEqual(self.world.run(HOST, "index", "--mail", self.world.mail).stderr, "")

    def test_progress_bar_has_rate_and_remaining_time_and_goes_at_the_end(self):
        self.world.deliver_many(2000)
        shown = self.index_on_a_terminal(80)
        self.assertRegex(shown, r"\r\x1b\[K\[#+\.+\] 500 of 2000, \d+ a second, \d+ s left")
        self.assertTrue(shown.endswith("\r\x1b[K"))

    def test_progress_fits_a_narrow_terminal(self):
        self.world.deliver_many(2000)
        for columns in (20, 40):
            shutil.rmtree(self.world.folders["cache"])
            # What happened to the index stands on a line of its own.
            shown = self.index_on_a_terminal(columns).rpartition("\n")[2]
            drawn = [line for line in shown.split("\r\x1b[K") if line]
            self.assertTrue(drawn and all(len(line) < columns for line in drawn), drawn)
            self.assertIn("500 of 2000", drawn[0])

    def index_on_a_terminal(self, columns):
        """What it writes to standard error there."""
        main, other = pty.openpty()
        self.addCleanup(os.close, main)
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        process = subprocess.Popen([str(HOST), "index", "--mail", str(self.world.mail)], env=self.world.environment,
                                   stdout=subprocess.PIPE, stderr=other, text=True)
        os.close(other)
        shown = b""
        with contextlib.suppress(OSError):
            while select.select([main], [], [], PATIENCE)[0]:
                shown += os.read(main, 65536)
        self.assertIn("indexed 2000", process.communicate(timeout=PATIENCE)[0])
        return shown.decode()

    def test_lost_index_is_made_anew_with_the_same_ids(self):
        self.world.deliver_many(20)
        self.world.index()
        ids = self.ids()
        shutil.rmtree(self.world.folders["cache"])
        self.world.index()
        self.assertEqual(self.ids(), ids)

    def ids(self):
        result = self.world.run(HOST, "find", '* == "*"', "--json")
        return {event["path"]: event["libraryID"] for event in map(json.loads, result.stdout.splitlines())}

    def test_damaged_index_is_set_aside_and_made_anew(self):
        self.world.deliver_many(20)
        self.world.index()
        ids = self.ids()
        index = self.world.folders["cache"] / "tallyhive-mailhost" / "index.sqlite"
        for leftover in index.parent.glob("index.sqlite-*"):
            leftover.unlink()
        index.write_bytes(b"garbage" * 1000)
        self.assertIn("indexed 20", self.world.index())
        self.assertEqual(self.ids(), ids)
        self.assertTrue(list(index.parent.glob("index.sqlite.damaged-*")))


class Finding(Scenario):
    def setUp(self):
        super().setUp()
        self.first = self.world.deliver("Plum cake", sender="Ada <ada@example.org>")
        self.world.deliver("Apple tree", sender="Bruno <bruno@example.org>", flags="F")
        self.world.index()

    def find(self, *arguments):
        return self.world.run(HOST, "find", *arguments)

    def on_a_terminal(self, *arguments):
        main, other = pty.openpty()
        self.addCleanup(os.close, main)
        process = subprocess.Popen([str(HOST), *arguments], env=self.world.environment, stdin=subprocess.DEVNULL,
                                   stdout=other, stderr=other)
        os.close(other)
        shown = b""
        with contextlib.suppress(OSError):
            while select.select([main], [], [], PATIENCE)[0]:
                shown += os.read(main, 65536)
        process.wait(60)
        return shown.decode()

    def test_table_json_and_paths(self):
        self.assertRegex(self.find('kMDItemSubject == "plum*"c').stdout, r"\A\S+ \S+\tAda\tPlum cake\n\Z")
        (found,) = map(json.loads, self.find('kMDItemSubject == "plum*"c', "--json").stdout.splitlines())
        self.assertEqual(list(found), ["event", "index", "libraryID", "path", "attributes"])
        self.assertEqual(found["attributes"]["kMDItemAuthorEmailAddresses"], ["ada@example.org"])
        self.assertEqual(self.find('kMDItemSubject == "plum*"c', "--paths", "-0").stdout, f"{self.first}\0")

    def test_path_on_a_terminal_has_nothing_that_it_would_act_on(self):
        odd = self.first.with_name("1.odd\x1b[31m\x07:2,S")
        self.first.rename(odd)
        self.world.index()
        query = 'kMDItemSubject == "plum*"c'
        shown = self.on_a_terminal("find", "--paths", query)
        self.assertIn(f"{odd.parent}/1.odd\\x1B[31m\\x07:2,S", shown)
        self.assertEqual(self.find("--paths", query).stdout, f"{odd}\n")

    def test_output_that_cannot_be_written_is_told(self):
        for command in (("find", "true"), ("explain", "true"), ("stat",), ("doctor",), ("index",), ("--help",), ("--version",)):
            with open("/dev/full", "w") as full:
                result = subprocess.run([str(HOST), *command], env=self.world.environment, stdin=subprocess.DEVNULL,
                                        stdout=full, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
            self.assertEqual(result.returncode, 1, command)
            self.assertIn("tallyhive-mailhost: standard output cannot be written: No space left on device\n",
                          result.stderr)

    def test_exit_status_says_whether_anything_was_found(self):
        self.assertEqual(self.find('kMDItemSubject == "*"').returncode, 0)
        self.assertEqual(self.find('kMDItemSubject == "nothing"').returncode, 1)

    def test_syntax_error_shows_the_place(self):
        result = self.find('kMDItemSubject == "a" kMDItemSubject')
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stdout, "")
        lines = result.stderr.splitlines()
        self.assertEqual(lines[-1].index("^"), lines[-2].rindex("kMDItemSubject"))

    def test_query_language(self):
        for query, subjects in (
                ('kMDItemSubject == "PLUM CAKE"', []), ('kMDItemSubject == "PLUM CAKE"c', ["Plum cake"]),
                ('kMDItemSubject == "*e"', ["Apple tree", "Plum cake"]), ('kMDItemSubject == "?lum*"', ["Plum cake"]),
                ('com_apple_mail_flagged == 1', ["Apple tree"]), ('!(com_apple_mail_flagged == 1)', ["Plum cake"]),
                ('kMDItemSubject == "plum*"c || kMDItemAuthors == "Bruno"', ["Apple tree", "Plum cake"]),
                ('kMDItemSubject == "plum*"c && kMDItemAuthors == "Bruno"', []),
                ('kMDItemContentCreationDate < $time.now', ["Apple tree", "Plum cake"]),
                ('kMDItemTextContent == "words"', ["Apple tree", "Plum cake"]), ('unknownAttribute == "*"', [])):
            with self.subTest(query=query):
                found = [json.loads(line)["attributes"]["kMDItemSubject"]
                         for line in self.find(query, "--json").stdout.splitlines()]
                self.assertEqual(sorted(found), subjects)

    def test_works_while_a_host_serves(self):
        self.world.serve()
        self.world.deliver("Late")
        wait_for(lambda: self.find('kMDItemSubject == "Late"').returncode == 0, "the late message")

    def test_without_an_index_it_says_how_to_make_one(self):
        world = World()
        self.addCleanup(world.close)
        result = world.run(HOST, "find", "true")
        self.assertEqual(result.returncode, 1)
        self.assertIn("tallyhive-mailhost index", result.stderr)

    def test_index_that_cannot_be_used_is_not_called_missing(self):
        index = self.world.folders["cache"] / "tallyhive-mailhost" / "index.sqlite"
        for rest in index.parent.glob("index.sqlite-*"):
            rest.unlink()
        index.write_bytes(b"no database" * 1000)
        for command in (("find", "true"), ("stat",)):
            result = self.world.run(HOST, *command)
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr, r"\Atallyhive-mailhost: .*tallyhive-mailhost doctor says why\n\Z")

    def test_wrong_usage_ends_with_2_and_one_line_that_says_what_to_do(self):
        for arguments, line in (((), "name a command: index, serve, find, explain, stat, doctor; see tallyhive-mailhost --help"),
                                (("bogus",), "there is no command bogus; the commands are index, serve, find, explain, stat, doctor"),
                                (("serve", "--nothing"), "there is no option --nothing; see tallyhive-mailhost serve --help"),
                                (("--color", "never", "stat"), "--color belongs behind the command: tallyhive-mailhost stat --color"),
                                (("find",), "QUERY is required; see tallyhive-mailhost find --help")):
            result = self.world.run(HOST, *arguments)
            self.assertEqual((result.returncode, result.stderr), (2, f"tallyhive-mailhost: {line}\n"))

    def test_message_without_a_subject_is_shown_by_its_file_as_the_client_does(self):
        path = self.world.mail / "cur" / "1.nameless:2,S"
        path.write_text("From: Ada <ada@example.org>\n\nNo subject.\n")
        self.world.index()
        self.assertIn(path.name, self.find('kMDItemTextContent == "No"').stdout)
        found = json.loads(self.find('kMDItemTextContent == "No"', "--json").stdout)
        self.world.serve()
        lines = self.world.search("--json", 'kMDItemTextContent == "No"').stdout.splitlines()
        self.assertIn(found, [json.loads(line) for line in lines])
        self.assertEqual(found["attributes"]["kMDItemDisplayName"], path.name)

    def test_index_that_is_gone_is_told_from_one_that_was_never_made(self):
        for file in (self.world.folders["cache"] / "tallyhive-mailhost").glob("index.*"):
            file.unlink()
        result = self.find("true")
        self.assertEqual(result.returncode, 1)
        self.assertIn("the index is gone; tallyhive-mailhost index makes it anew", result.stderr)

    def test_mail_folder_that_is_missing_keeps_its_messages_out_and_their_ids(self):
        before = self.find("true", "--json").stdout
        self.world.mail.rename(self.world.root / "Away")
        self.assertEqual(self.find("true").returncode, 1)
        (self.world.root / "Away").rename(self.world.mail)
        self.assertEqual(self.find("true", "--json").stdout, before)


if __name__ == "__main__":
    unittest.main()
