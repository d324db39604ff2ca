#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""tallyhive-mailhost with mail folders, messages and words that are not as they should be: each is answered by a line that
says what is wrong, and the rest of the mail is found as ever."""

import fcntl
import json
import os
import shutil
import subprocess
import unittest

from world import HOST, SANITIZED, Scenario

ALL = 'kMDItemContentType == "*"'
NOBODY = 65534


class OddMail(Scenario):
    def setUp(self):
        super().setUp()
        self.user = ()
        self.world.deliver("One")

    def host(self, *arguments, status=0, lines=0):
        """Runs it; returns its output, and the lines of standard error when there ought to be some."""
        result = self.run_host(*arguments)
        errors = result.stderr.splitlines()
        self.assertEqual((result.returncode, len(errors)), (status, lines), result.stderr)
        return (result.stdout, *errors) if lines else result.stdout

    def run_host(self, *arguments):
        return self.world.run(*self.user, HOST, *arguments)

    def found(self):
        """File name to library ID."""
        events = map(json.loads, self.run_host("find", ALL, "--json").stdout.splitlines())
        return {os.path.basename(event["path"]): event["libraryID"] for event in events}

    def stat(self):
        return json.loads(self.host("stat", "--json"))

    def failed(self):
        return {os.path.basename(entry["path"]): entry["reason"] for entry in self.stat()["failed"]}

    def as_nobody(self):
        """Root is refused nothing."""
        if os.geteuid() != 0:
            return
        self.user = ("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups")
        subprocess.run(["chown", "-Rh", f"{NOBODY}:{NOBODY}", str(self.world.root)], check=True)


class Folders(OddMail):
    def test_that_cannot_be_remembered_are_told_and_not_used(self):
        self.host("index", "--mail", self.world.mail)
        self.as_nobody()
        other = self.world.root / "Other"
        self.world.mail.rename(other)
        for folder in (self.world.folders["config"] / "tallyhive-mailhost", self.world.folders["config"]):
            folder.chmod(0o500)
            self.addCleanup(folder.chmod, 0o700)
        result = self.run_host("index", "--mail", other)
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertIn("the mail folders cannot be remembered; make ", result.stderr)

    def test_that_were_remembered_where_nobody_can_read_are_not_called_unknown(self):
        self.host("index", "--mail", self.world.mail)
        self.as_nobody()
        defaults = self.world.folders["config"] / "tallyhive-mailhost"
        defaults.chmod(0)
        self.addCleanup(defaults.chmod, 0o700)
        for command in ("index", "serve", "stat"):
            _, line = self.host(command, status=1, lines=1)
            self.assertIn("Permission denied; it names the mail folders: make it readable for you", line)

    def test_that_are_lost_with_the_defaults_are_to_be_named_again(self):
        self.host("index", "--mail", self.world.mail)
        damaged = b"bplist00 and no more"
        self.world.defaults.write_bytes(damaged)
        for command in ("index", "serve", "stat"):
            _, line = self.host(command, status=1, lines=1)
            self.assertIn("is damaged; it named the mail folders: name them again with tallyhive-mailhost index --mail DIR", line)
            self.assertEqual(self.world.defaults.read_bytes(), damaged)
        self.assertEqual(self.run_host("index", "--mail", self.world.mail).returncode, 0)
        self.assertEqual(self.stat()["mailFolders"][0]["state"], "readable")

    def test_of_the_host_that_cannot_be_written_may_stand_elsewhere(self):
        self.as_nobody()
        data = self.world.folders["data"]
        data.chmod(0o500)
        self.addCleanup(data.chmod, 0o700)
        for command in ("index", "serve"):
            _, line = self.host(command, "--mail", self.world.mail, status=1, lines=1)
            self.assertIn("make it writable for you, or choose another place with XDG_DATA_HOME", line)

    def test_that_another_keeps_are_waited_for_or_left_to_it(self):
        self.host("index", "--mail", self.world.mail)
        holders = {"index 123": "wait until it is done", "serve 123": "to name other folders end it first"}
        with open(self.world.folders["data"] / "tallyhive-mailhost" / "host.lock", "w", encoding="utf-8") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            for holder, advice in holders.items():
                lock.seek(0)
                print(holder, end="", file=lock, flush=True)
                for command in (("index",), ("index", "--dry-run"), ("serve",)):
                    _, line = self.host(*command, status=1, lines=1)
                    self.assertIn("process 123 (tallyhive-mailhost", line)
                    self.assertIn(advice, line)

    def test_that_are_missing_are_named_by_a_host_that_serves(self):
        self.host("index", "--mail", self.world.mail)
        self.world.mail.rename(self.world.root / "Away")
        host = self.world.serve(remembered=True)
        host.wait_for_line(f"the mail folder {self.world.mail} cannot be reached: ")

    def test_without_a_name_are_none(self):
        _, line = self.host("index", "--mail", "", status=1, lines=1)
        self.assertIn("--mail names no folder", line)

    def test_name_that_is_no_text_is_to_be_changed(self):
        os.mkdir(os.fsencode(self.world.mail) + b"/.Bad\xff")
        self.host("index", "--mail", self.world.mail)
        self.assertRegex(self.run_host("doctor").stdout, "its path is not UTF-8; rename it")

    def test_folder_without_mail_is_named_and_what_mail_is(self):
        empty = self.world.root / "empty"
        empty.mkdir()
        output, line = self.host("index", "--mail", empty, lines=1)
        self.assertIn("seen 0", output)
        self.assertRegex(line, f"there is no mail in {empty}; .*cur and new")
        output, line = self.host("index", "--mail", self.world.mail, "--mail", empty, lines=1)
        self.assertIn("seen 1, indexed 1", output)
        self.assertIn(str(empty), line)
        self.assertIn(str(empty), self.host("index", "--dry-run", "--mail", empty, lines=1)[1])

    def test_folder_around_another_with_all_the_mail_is_not_complained_of(self):
        self.host("index", "--mail", self.world.root, "--mail", self.world.mail)

    def test_folder_without_permission_is_refused_and_nothing_is_lost(self):
        closed = self.world.root / "closed"
        self.world.mail.rename(closed)
        self.world.deliver("Two")
        self.as_nobody()
        self.host("index", "--mail", self.world.mail)
        before = self.found()
        closed.chmod(0)
        self.addCleanup(closed.chmod, 0o700)
        for command in ("index", "serve"):
            _, line = self.host(command, "--mail", closed, status=1, lines=1)
            self.assertRegex(line, f"cannot read the mail folder {closed}: Permission denied; make it readable")
        self.assertIn("seen 1, indexed 0, unchanged 1", self.host("index"))
        self.assertEqual(self.found(), before)

    def test_remembered_folder_without_permission_keeps_its_mail(self):
        self.as_nobody()
        self.host("index", "--mail", self.world.mail)
        before = self.found()
        self.world.mail.chmod(0)
        self.addCleanup(self.world.mail.chmod, 0o700)
        output, line = self.host("index", lines=1)
        self.assertIn("removed 0", output)
        self.assertRegex(line, f"{self.world.mail} cannot be reached: Permission denied; its mail is kept")
        self.assertEqual(self.found(), {})
        (folder,) = self.stat()["mailFolders"]
        self.assertEqual((folder["state"], folder["reason"], folder["messages"]), ("unreadable", "Permission denied", 1))
        self.world.mail.chmod(0o700)
        self.assertIn("unchanged 1", self.host("index"))
        self.assertEqual(self.found(), before)

    def test_mailbox_and_message_without_permission_are_listed_until_they_can_be_read(self):
        closed = self.world.deliver("Closed box", folder=".Closed").parents[1]
        secret = self.world.deliver("Secret")
        self.as_nobody()
        for path in (closed, secret):
            path.chmod(0)
        self.addCleanup(closed.chmod, 0o700)
        self.assertIn("seen 3, indexed 1, unchanged 0, removed 0, incomplete 0, failed 2",
                      self.host("index", "--mail", self.world.mail))
        self.assertEqual(self.failed(), {".Closed": "Permission denied", secret.name: "Permission denied"})
        for path in (closed, secret):
            path.chmod(0o700)
        self.assertIn("seen 3, indexed 2, unchanged 1, removed 0, incomplete 0, failed 0", self.host("index"))
        self.assertEqual(self.failed(), {})

    def test_loops_of_links_end(self):
        (self.world.mail / ".Loop").symlink_to(".")
        (self.world.mail / "cur" / "again").symlink_to("../cur")
        (self.world.mail / "cur" / "2.self:2,").symlink_to("2.self:2,")
        self.assertIn("seen 3, indexed 1, unchanged 0, removed 0, incomplete 0, failed 2",
                      self.host("index", "--mail", self.world.mail))
        self.assertEqual(len(self.found()), 1)
        self.assertEqual(self.failed()["2.self:2,"], "it leads nowhere")
        loop = self.world.root / "loop"
        loop.symlink_to("loop")
        self.assertIn(f"cannot use the mail folder {loop}: Too many levels",
                      self.host("index", "--mail", loop, status=1, lines=1)[1])

    def test_names_that_are_not_utf8_are_listed_and_found_once_renamed(self):
        mail = os.fsencode(self.world.mail)
        os.makedirs(mail + b"/.b\xffd/cur")
        os.makedirs(mail + b"/.b\xffd/new")
        with open(mail + b"/cur/2.\xfe:2,S", "wb") as file:
            file.write(b"Subject: Two\n\nHello.\n")
        self.assertIn("seen 3, indexed 1, unchanged 0, removed 0, incomplete 0, failed 2",
                      self.host("index", "--mail", self.world.mail))
        self.assertEqual(self.failed(), {".b%FFd": "its path is not UTF-8", "2.%FE:2,S": "its path is not UTF-8"})
        os.rename(mail + b"/cur/2.\xfe:2,S", mail + b"/cur/2.ok:2,S")
        self.assertIn("indexed 1", self.host("index"))
        self.assertIn("2.ok:2,S", self.found())
        outer = os.fsencode(self.world.root) + b"/\xff"
        os.mkdir(outer)
        result = subprocess.run([str(HOST), "index", "--mail", outer], env=self.world.environment, capture_output=True,
                                check=False)
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr.decode(), r"\Atallyhive-mailhost: cannot use .*/%FF: its path is not UTF-8; rename it")

    def test_what_is_no_file_is_no_mail(self):
        os.mkfifo(self.world.mail / "cur" / "2.pipe:2,")
        (self.world.mail / "new" / "3.folder").mkdir()
        self.assertIn("seen 1, indexed 1", self.host("index", "--mail", self.world.mail))


class Messages(OddMail):
    def test_mailbox_of_100000_empty_files_is_indexed_whole(self):
        count = 5_000 if SANITIZED else 100_000
        for number in range(count):
            os.close(os.open(self.world.mail / "cur" / f"{1_600_000_000 + number}.empty:2,S", os.O_CREAT | os.O_WRONLY, 0o600))
        output = self.host("index", "--mail", self.world.mail)
        self.assertIn(f"seen {count + 1}, indexed {count + 1}, unchanged 0, removed 0, incomplete {count}, failed 0", output)
        paths = self.host("find", "com_apple_mail_read == 1", "--paths").splitlines()
        self.assertEqual((len(paths), len(set(paths))), (count + 1, count + 1))
        listed = self.host("stat")
        self.assertIn(f"incomplete {count}", listed)
        self.assertIn(f"and {count - 10} more; --json lists them all", listed)

    def test_message_not_read_whole_is_found_by_what_was_read_and_listed(self):
        parts = "".join(f"--b\nContent-Type: text/plain\n\nword{number}\n" for number in range(1_002))
        deep = "".join(f'Content-Type: multipart/mixed; boundary="b{n}"\n\n--b{n}\n' for n in range(102))
        for name, subject, headers, body, word, reason in (
                ("1.parts", "Parts", 'Content-Type: multipart/mixed; boundary="b"\n', parts, "word77", "more than 1000 parts"),
                ("2.deep", "Deep", "", deep, "", "nested more than 100 deep"),
                ("3.header", "Header", f"X-Long: {'x' * (1 << 20)}\n", "Kept body", "kept", "a header longer than 1048576"),
                ("4.text", "Text", "", "first " + "filling " * 140_000, "first", "text")):
            path = self.world.mail / "cur" / f"{name}:2,S"
            end = "" if name == "2.deep" else "\n"
            path.write_text(f"Subject: {subject}\n{headers}{end}{body}\n")
            with self.subTest(message=name):
                self.assertIn("incomplete 1", self.host("index", "--mail", self.world.mail))
                text = f' && kMDItemTextContent == "{word}"c' if word else ""
                self.assertEqual(self.host("find", f'kMDItemSubject == "{subject}"{text}', "--paths"), f"{path}\n")
                (entry,) = self.stat()["incomplete"]
                self.assertEqual(entry["path"], str(path))
                self.assertIn(reason, " ".join(entry["reasons"]))
                self.assertIn(f"  {path}: ", self.host("stat"))
            path.unlink()
        self.host("index")
        self.assertEqual(self.stat()["incomplete"], [])

    def test_partial_message_is_found_and_becomes_whole_under_its_id(self):
        box = self.world.root / "Store" / "Old.mbox" / "Messages"
        box.mkdir(parents=True)
        message = b"Subject: Half\n\nHello.\n"
        partial = box / "7.partial.emlx"
        partial.write_bytes(str(len(message)).encode() + b"\n" + message)
        self.host("index", "--mail", self.world.root / "Store")
        number = self.found()[partial.name]
        partial.rename(box / "7.emlx")
        self.host("index")
        self.assertEqual(self.found(), {"7.emlx": number})


class Words(OddMail):
    def setUp(self):
        super().setUp()
        self.host("index", "--mail", self.world.mail)

    def test_unknown_command_and_option_say_what_there_is(self):
        for arguments, text in ((("stet",), "there is no command stet; did you mean stat?"),
                                (("zzz",), "there is no command zzz; the commands are .*index"),
                                (("index", "--mial", "x"), "there is no option --mial; did you mean --mail?"),
                                (("index", "--mail"), "--mail"), (("find",), "QUERY")):
            with self.subTest(arguments=arguments):
                self.assertRegex(self.host(*arguments, status=2, lines=1)[1], text)
        self.assertEqual(len(self.found()), 1)

    def test_unknown_attribute_finds_nothing_and_says_what_may_be_meant(self):
        output, line = self.host("find", 'kMDItemSubjct == "One"', status=1, lines=1)
        self.assertEqual(output, "")
        self.assertIn("did you mean kMDItemSubject?", line)

    def test_date_that_does_not_exist_is_shown_in_its_place(self):
        result = self.run_host("find", "kMDItemContentCreationDate > $time.iso(2025-02-30)")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("^", result.stderr.splitlines()[-1])


if __name__ == "__main__":
    unittest.main()
