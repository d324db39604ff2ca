#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""tallyhive-mailhost doctor from outside: every line in each of its states, each fault a real one.

Root is refused nothing, so what root starts here runs as a user without rights."""

import contextlib
import fcntl
import os
import plistlib
import re
import resource
import shutil
import sqlite3
import subprocess
import unittest

from world import BUILD, HOST, PREFIX, Scenario, World, wait_for

NOBODY = 65534
# A user of its own for the test that takes all watches of a user.
NOBODY_ELSE = 65533
BUNDLE = BUILD / "lib" / "tallyhive-mailhost" / "plug-ins" / "TallyhiveMailPlugin.mailbundle"
LINE = re.compile(r"(ok|warn|fail) +(user defaults|mail folder|[a-z-]+)  +(\S.*)")


class DoctorTest(Scenario):
    USER = NOBODY

    def setUp(self):
        super().setUp()
        self.user = ()
        if os.geteuid() == 0:
            self.user = ("setpriv", f"--reuid={self.USER}", f"--regid={self.USER}", "--clear-groups")
        # What a test has closed is opened again, or it could not be removed.
        self.addCleanup(subprocess.run, ["chmod", "-R", "u+rwx", str(self.world.root)], check=True)

    def own(self):
        """The world is that of the user whom the programs run as."""
        if self.user:
            subprocess.run(["chown", "-Rh", f"{self.USER}:{self.USER}", str(self.world.root)], check=True)

    def run_host(self, *arguments):
        program, *rest = (*self.user, HOST)
        return self.world.run(program, *rest, *arguments)

    def doctor(self, *arguments, status=0, own=True):
        """Its lines as (level, subject, text)."""
        if own:
            self.own()
        result = self.run_host("doctor", *arguments)
        self.assertEqual((result.returncode, result.stderr), (status, ""), result.stdout)
        found = [LINE.fullmatch(line) for line in result.stdout.splitlines()]
        self.assertTrue(found and all(found), result.stdout)
        return [match.groups() for match in found]

    def assert_line(self, lines, level, subject, text):
        """One of the lines about `subject` is of that level and says `text`."""
        self.assertTrue(any(line[:2] == (level, subject) and re.search(text, line[2]) for line in lines),
                        f"no {level} {subject} {text!r} in " + "\n".join(map(str, lines)))

    def index(self, *arguments):
        self.own()
        result = self.run_host("index", *(arguments or ("--mail", self.world.mail)))
        self.assertEqual(result.returncode, 0, result.stderr)

    def serve(self):
        self.world.maildir()
        self.own()
        host = self.world.serve(prefix=self.user)
        wait_for(self.remembers_mail_folders, "the mail folders in the user defaults")
        return host

    def remembers_mail_folders(self):
        with contextlib.suppress(FileNotFoundError):
            return plistlib.loads(self.world.defaults.read_bytes()).get("mailFolders")

    @property
    def index_file(self):
        return self.world.folders["cache"] / "tallyhive-mailhost" / "index.sqlite"


class Report(DoctorTest):
    def test_world_in_order_is_all_ok(self):
        self.world.deliver_many(3)
        self.serve()
        lines = self.doctor()
        self.assertEqual([line for line in lines if line[0] != "ok"], [])
        self.assertEqual([line[1] for line in lines],
                         ["host", "plug-in", "exchange", "in", "out", "pasteboards", "applications", "mail folder",
                          "watches", "library", "index", "coverage"])

    def test_empty_world_has_what_to_do_and_nothing_fails(self):
        lines = self.doctor()
        self.assertEqual({line[0] for line in lines}, {"ok", "warn"})
        self.assert_line(lines, "warn", "library", "begin with tallyhive-mailhost index --mail DIR")

    def test_it_makes_and_changes_nothing(self):
        def state():
            return sorted((str(path), path.lstat().st_mtime_ns, path.lstat().st_mode, path.lstat().st_ino)
                          for path in self.world.root.rglob("*"))
        before = state()
        self.doctor()
        self.assertEqual(state(), before)

        self.world.deliver_many(3)
        self.index()
        for database in (self.world.library, self.index_file):
            with sqlite3.connect(database) as connection:
                connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
            connection.close()
            self.assertEqual([path.name for path in database.parent.glob(database.name + "-[ws]*")], [])
        self.own()
        before = state()
        self.assert_line(self.doctor(), "ok", "coverage", "3 of 3 messages")
        self.assertEqual(state(), before)

    def test_colour_is_for_those_who_ask_for_it(self):
        def has_colour(*arguments):
            return "\x1b[" in self.run_host("doctor", *arguments).stdout
        self.own()
        self.assertFalse(has_colour())
        self.assertTrue(has_colour("--color=always"))
        self.assertFalse(has_colour("--color=never"))
        self.world.environment["NO_COLOR"] = "1"
        self.assertFalse(has_colour())

    def test_help_is_answered_before_anything_is_looked_at(self):
        self.world.environment["XDG_DATA_HOME"] = str(self.world.root / "none")
        for option in ("--help", "--version"):
            result = self.run_host("doctor", option)
            self.assertEqual(result.returncode, 0)
            self.assertNotIn("plug-in  ", result.stdout)
        self.assertIn("changes nothing", self.run_host("doctor", "--help").stdout)

    def test_wrong_usage_ends_with_2(self):
        self.assertEqual(self.run_host("doctor", "--heal").returncode, 2)

    def test_what_a_name_says_to_a_terminal_is_shown_escaped(self):
        self.world.deliver(folder="a\x1b[31mb\nc")
        self.index("--mail", self.world.mail / "a\x1b[31mb\nc")
        self.assert_line(self.doctor(), "ok", "mail folder", re.escape(r"/a\x1B[31mb c: 1 mailbox"))

    def test_reader_that_leaves_early_is_no_fault(self):
        self.own()
        reading, writing = os.pipe()
        os.close(reading)
        with os.fdopen(writing, "wb") as output:
            process = subprocess.run([*self.user, str(HOST), "doctor"], env=self.world.environment, stdout=output,
                                     stderr=subprocess.PIPE, check=False)
        self.assertEqual((process.returncode, process.stderr), (0, b""))


class HostLine(DoctorTest):
    def test_ok_with_one_that_serves(self):
        host = self.serve()
        self.assert_line(self.doctor(), "ok", "host", rf"process {host.process.pid} \(tallyhive-mailhost serve\)")

    def test_warn_with_none(self):
        self.assert_line(self.doctor(), "warn", "host", "none serves; start one with tallyhive-mailhost serve")

    def test_warn_while_one_only_indexes(self):
        folder = self.world.folders["data"] / "tallyhive-mailhost"
        folder.mkdir(mode=0o700)
        with open(folder / "host.lock", "w", encoding="ascii") as lock:
            lock.write("index 4711")
            lock.flush()
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assert_line(self.doctor(), "warn", "host", r"process 4711 \(tallyhive-mailhost index\) is at work")


class PluginLine(DoctorTest):
    def setUp(self):
        super().setUp()
        self.bundle = self.world.root / "Copy.mailbundle"
        shutil.copytree(BUNDLE, self.bundle)
        self.information = self.bundle / "Contents" / "Info.plist"

    def change(self, **changes):
        content = {**plistlib.loads(self.information.read_bytes()), **changes}
        self.information.write_bytes(plistlib.dumps({key: value for key, value in content.items() if value is not None}))

    def fails(self, text):
        self.assert_line(self.doctor("--plug-in", self.bundle, status=1), "fail", "plug-in",
                         re.escape(str(self.bundle)) + ".*" + text + ".*; install it anew")

    def test_ok_says_its_version(self):
        self.change(CFBundleShortVersionString="7.8.9")
        self.assert_line(self.doctor("--plug-in", self.bundle), "ok", "plug-in", "version 7.8.9, fits this host")

    def test_fail_when_it_is_missing(self):
        shutil.rmtree(self.bundle)
        self.fails("cannot be used")

    def test_fail_when_it_is_of_another_host(self):
        self.change(THMPPlatformInterfaceVersion=1)
        self.fails("another version of this host")

    def test_fail_when_it_does_not_say_for_which_host_it_is(self):
        self.change(THMPPlatformInterfaceVersion=None)
        self.fails("another version of this host")

    def test_fail_when_it_is_no_shared_object(self):
        (self.bundle / "Contents" / "Linux" / "TallyhiveMailPlugin.so").write_bytes(b"no ELF")
        self.fails("cannot be used")

    def test_fail_when_its_information_is_damaged_or_silent(self):
        self.change(CFBundleShortVersionString=None)
        self.fails("does not tell its version")
        self.information.write_bytes(b"<plist><dict>")
        self.fails("cannot be used")
        self.information.unlink()
        self.fails("cannot be used")

    def test_host_starts_with_what_fits(self):
        self.own()
        host = self.world.serve("--plug-in", str(self.bundle), "--mail", str(self.world.root), prefix=self.user)
        self.assertEqual(host.quit(), 0)


class ExchangeLines(DoctorTest):
    def make(self):
        for folder in (self.world.inbox, self.world.outbox):
            folder.mkdir(parents=True)
        for folder in (self.world.inbox, self.world.outbox, self.world.exchange):
            folder.chmod(0o700)

    def put(self, folder, kind, seconds=0, **user_info):
        path = folder / f"{kind}{len(list(folder.iterdir()))}.plist"
        path.write_bytes(plistlib.dumps({"name": PREFIX + kind, "userInfo": user_info}))
        status = path.stat()
        os.utime(path, (status.st_atime, status.st_mtime - seconds))
        return path

    def test_ok_with_private_and_empty_folders(self):
        self.make()
        lines = self.doctor()
        self.assert_line(lines, "ok", "exchange", re.escape(str(self.world.exchange)) + "$")
        for name in ("in", "out"):
            self.assert_line(lines, "ok", name, "^nothing waits$")

    def test_warn_before_the_first_host(self):
        self.assert_line(self.doctor(), "warn", "exchange", "is not there yet; the plug-in makes it")

    def test_fail_when_one_is_gone_while_a_host_serves(self):
        self.serve()
        shutil.rmtree(self.world.exchange)
        self.world.exchange.parent.chmod(0o500)
        lines = self.doctor(status=1)
        self.assert_line(lines, "fail", "exchange", "is not there and cannot be made in .*: Permission denied; make that folder writable")

    def test_warn_when_others_can_look_into_one(self):
        self.make()
        for folder, subject in ((self.world.exchange, "exchange"), (self.world.inbox, "in"), (self.world.outbox, "out")):
            folder.chmod(0o755)
            self.assert_line(self.doctor(), "warn", subject,
                             re.escape(f"{folder} has mode 0755; run chmod 700 '{folder}'"))
            folder.chmod(0o700)

    def test_fail_when_the_user_cannot_use_one(self):
        self.make()
        for folder, subject in ((self.world.inbox, "in"), (self.world.outbox, "out"), (self.world.exchange, "exchange")):
            folder.chmod(0o500)
            self.assert_line(self.doctor(status=1), "fail", subject, "has mode 0500; run chmod 700")
            folder.chmod(0o700)

    def test_fail_when_one_cannot_be_reached(self):
        self.make()
        self.world.exchange.parent.chmod(0o600)
        self.assert_line(self.doctor(status=1), "fail", "exchange", "cannot be reached: Permission denied; look at")

    def test_fail_when_something_else_stands_in_the_place(self):
        self.make()
        self.world.inbox.rmdir()
        self.world.inbox.write_text("")
        self.world.outbox.rmdir()
        self.world.outbox.symlink_to(self.world.root / "nowhere")
        lines = self.doctor(status=1)
        self.assert_line(lines, "fail", "in", "is no folder; move it out of the way")
        self.assert_line(lines, "fail", "out", "is a link that leads nowhere; remove it")

    def test_fail_when_one_is_missing_and_cannot_be_made(self):
        self.own()
        for name in ("data", "cache"):
            self.world.folders[name].chmod(0o500)
        lines = self.doctor(status=1, own=False)
        for subject, place in (("exchange", "data"), ("library", "data"), ("index", "cache")):
            self.assert_line(lines, "fail", subject,
                             f"cannot be made in {self.world.folders[place]}: Permission denied; make that folder writable")

    @unittest.skipUnless(os.geteuid() == 0, "only root can give a folder away")
    def test_fail_when_one_belongs_to_another_user(self):
        self.make()
        self.own()
        os.chown(self.world.inbox, 0, 0)
        self.assert_line(self.doctor(status=1, own=False), "fail", "in", "belongs to another user; give it back")

    def test_warn_of_requests_that_nobody_takes(self):
        self.make()
        self.put(self.world.inbox, "Connect", 7200)
        self.put(self.world.inbox, "Search")
        (self.world.inbox / "not a request.part").write_text("")
        self.assert_line(self.doctor(), "warn", "in", "^2 requests, the oldest 2 h old, and nobody to answer")

    def test_warn_of_a_request_that_the_host_leaves(self):
        self.serve()
        path = self.world.inbox / "broken.plist"
        path.write_text("no property list")
        self.assert_line(self.doctor(), "ok", "in", "^1 request on the way$")
        os.utime(path, (1, 1))
        self.assert_line(self.doctor(), "warn", "in", "^1 request, .* the host could not read or remove them")

    def test_warn_of_messages_that_no_client_took(self):
        self.make()
        path = self.put(self.world.outbox, "QueryDidStart", uniqueName="a")
        self.assert_line(self.doctor(), "ok", "out", "^1 message on the way$")
        os.utime(path, (1, 1))
        self.assert_line(self.doctor(), "warn", "out", "^1 message that no client took")

    def test_messages_for_all_may_lie_as_long_as_they_like(self):
        self.make()
        self.put(self.world.outbox, "PluginQuit", 7200)
        self.put(self.world.outbox, "PluginReady", 7200)
        self.assert_line(self.doctor(), "ok", "out", "^nothing waits but 2 notices for all$")
        self.put(self.world.outbox, "PluginReady", 7200, clientName="gone")
        self.assert_line(self.doctor(), "warn", "out", "^1 message that no client took")


class LeftOvers(DoctorTest):
    def test_pasteboards_of_a_host_that_was_killed(self):
        self.assert_line(self.doctor(), "ok", "pasteboards", "none")
        self.world.deliver_many(3)
        host = self.serve()
        client = self.world.client()
        client.search("one", 'kMDItemSubject == "*"')
        self.own()  # root's request is the user's from here on
        client.gathered("one")
        self.assert_line(self.doctor(), "ok", "pasteboards", "in use")
        host.kill()
        self.assert_line(self.doctor(), "warn", "pasteboards", "left by a host that is gone; the next start")

    def test_pasteboards_behind_a_link_are_a_failure(self):
        self.world.pasteboards.parent.mkdir(mode=0o700)
        self.world.pasteboards.symlink_to(self.world.root)
        self.assert_line(self.doctor(status=1), "fail", "pasteboards", "is a link, which is refused; remove it")

    def test_pasteboards_that_others_can_read_are_a_warning(self):
        self.world.pasteboards.mkdir(parents=True)
        self.world.pasteboards.parent.chmod(0o700)
        self.world.pasteboards.chmod(0o711)
        self.assert_line(self.doctor(), "warn", "pasteboards", "mode 0711; run chmod 700")

    def test_applications(self):
        self.assert_line(self.doctor(), "ok", "applications", "none has run yet")
        self.world.applications.mkdir(parents=True)
        self.world.applications.chmod(0o700)
        (self.world.applications / f"com.example.client.{os.getpid()}").touch(mode=0o600)
        self.assert_line(self.doctor(), "ok", "applications", "^1 running$")
        stale = self.world.applications / "com.example.client.4194305"
        stale.touch(mode=0o600)
        self.assert_line(self.doctor(), "warn", "applications", re.escape(f"{stale} is stale"))
        self.assertTrue(stale.exists())
        self.world.applications.chmod(0o000)
        self.assert_line(self.doctor(status=1), "fail", "applications", "mode 0000; run chmod 700")


class MailFolderLines(DoctorTest):
    def test_ok_with_mail(self):
        self.world.deliver(folder="a")
        self.world.deliver(folder="b")
        self.index()
        self.assert_line(self.doctor(), "ok", "mail folder", re.escape(str(self.world.mail)) + ": 2 mailboxes$")

    def test_warn_when_none_is_named(self):
        self.assert_line(self.doctor(), "warn", "mail folder", "none is named yet; name one with")

    def test_warn_without_mail_in_it(self):
        self.world.mail.mkdir()
        self.index()
        self.assert_line(self.doctor(), "warn", "mail folder", "no mail in it")

    def test_warn_when_a_folder_in_it_is_closed(self):
        self.world.deliver(folder="a")
        self.world.deliver(folder="closed")
        self.index()
        (self.world.mail / "closed").chmod(0o000)
        self.assert_line(self.doctor(), "warn", "mail folder", "1 folder in it cannot be read, such as .*/closed: .*chmod")

    def test_each_folder_has_its_line_and_a_missing_or_closed_one_fails(self):
        for name in "abc":
            self.world.deliver(folder=name)
        self.index(*(argument for name in "abc" for argument in ("--mail", self.world.mail / name)))
        shutil.rmtree(self.world.mail / "a")
        (self.world.mail / "b").chmod(0o000)
        lines = self.doctor(status=1)
        self.assert_line(lines, "fail", "mail folder", "/a: No such file or directory; its mail is not found until")
        self.assert_line(lines, "fail", "mail folder", "/b: Permission denied; its mail is not found until")
        self.assert_line(lines, "ok", "mail folder", "/c: 1 mailbox")

    def test_empty_folder_in_the_place_of_the_mail_fails(self):
        self.world.deliver()
        self.index()
        self.world.mail.rename(self.world.root / "away")
        self.world.mail.mkdir()
        self.assert_line(self.doctor(status=1), "fail", "mail folder", "is its file system mounted")

    def test_user_defaults_that_cannot_be_read_fail(self):
        self.world.deliver()
        self.index()
        self.world.defaults.chmod(0o000)
        self.assert_line(self.doctor(status=1), "fail", "user defaults", "cannot read .*Permission denied; it names the mail folders: make it readable for you")
        self.world.defaults.chmod(0o600)
        self.world.defaults.write_bytes(b"bplist00 and no more")
        self.assert_line(self.doctor(status=1), "fail", "user defaults", "is damaged; it named the mail folders: name them again")


@unittest.skipUnless(os.geteuid() == 0, "it would take all watches of the user who tests")
class WatchesLine(DoctorTest):
    USER = NOBODY_ELSE

    def test_fail_when_all_instances_are_taken_unless_a_host_has_its_own(self):
        self.assert_line(self.doctor(), "ok", "watches", r"^0 folders of mail, the system watches \d+ for a user$")
        with self.all_taken():
            self.assert_line(self.doctor(status=1), "fail", "watches",
                             r"inotify instances of this user are taken.*run sudo sysctl fs.inotify.max_user_instances=\d+$")
        self.serve()
        with self.all_taken():
            self.assert_line(self.doctor(), "ok", "watches", "3 folders")

    def all_taken(self):
        """A process of the user holds all that there are, for as long as the result is entered."""
        def become():
            most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
            resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        take = ("import ctypes, sys\nlibc = ctypes.CDLL(None)\ntaken = 0\n"
                "while taken < 100000 and libc.inotify_init1(0) >= 0:\n    taken += 1\n"
                "print(taken, flush=True)\nsys.stdin.read()\n")
        process = subprocess.Popen([*self.user, "python3", "-c", take], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   preexec_fn=become)
        self.addCleanup(process.kill)
        if int(process.stdout.readline()) == 100000:
            process.communicate()
            self.skipTest("this system has no end of instances")
        return process


class StoreLines(DoctorTest):
    def setUp(self):
        super().setUp()
        self.world.deliver_many(3)
        self.index()

    def change(self, database, statement):
        connection = sqlite3.connect(database)
        connection.execute(statement)
        connection.commit()
        connection.close()

    def damage(self, database):
        self.change(database, "PRAGMA wal_checkpoint(TRUNCATE)")
        with open(database, "r+b") as file:
            file.seek(4096)
            file.write(b"\xff" * 4096)

    def test_ok(self):
        lines = self.doctor()
        self.assert_line(lines, "ok", "library", "^sound, 3 messages in 1 mailbox$")
        self.assert_line(lines, "ok", "index", r"^sound, brought up to date \d+ s ago$")
        self.assert_line(lines, "ok", "coverage", "^3 of 3 messages indexed, waiting 0, incomplete 0, failed 0$")

    def test_library_that_is_damaged_closed_or_of_another_version_fails(self):
        kept = self.world.library.read_bytes()
        self.damage(self.world.library)
        self.assert_line(self.doctor(status=1), "fail", "library", "is damaged: .*; put a copy in its place")
        self.world.library.write_bytes(b"no database at all" * 1000)
        self.assert_line(self.doctor(status=1), "fail", "library", "is damaged: ")
        self.world.library.write_bytes(kept)
        self.change(self.world.library, "PRAGMA user_version = 9999")
        self.assert_line(self.doctor(status=1), "fail", "library", "of another version of this program")
        self.world.library.chmod(0o000)
        self.assert_line(self.doctor(status=1), "fail", "library", "cannot be read: Permission denied; run chmod 600")

    def test_index_that_is_gone_or_of_another_version_is_a_warning(self):
        self.change(self.index_file, "PRAGMA user_version = 9999")
        self.assert_line(self.doctor(), "warn", "index", "of another version.*; tallyhive-mailhost index makes it anew")
        shutil.rmtree(self.index_file.parent)
        self.assert_line(self.doctor(), "warn", "index", "is gone; tallyhive-mailhost index makes it anew")

    def test_index_that_is_damaged_or_closed_fails(self):
        self.index_file.chmod(0o000)
        self.assert_line(self.doctor(status=1), "fail", "index", "cannot be read: Permission denied; run chmod 600")
        self.index_file.chmod(0o600)
        self.damage(self.index_file)
        self.assert_line(self.doctor(status=1), "fail", "index", "is damaged: .*makes it anew, nothing is lost")

    def test_coverage_warns_of_mail_that_waits(self):
        self.world.deliver()
        self.assert_line(self.doctor(), "warn", "coverage",
                         "^3 of 4 messages indexed, waiting 1, .*; go on with tallyhive-mailhost index$")

    def test_coverage_warns_of_mail_that_cannot_be_opened(self):
        self.world.deliver().chmod(0o000)
        self.index()
        self.assert_line(self.doctor(), "warn", "coverage",
                         "^3 of 4 messages indexed, waiting 0, incomplete 0, failed 1; tallyhive-mailhost stat says which")

    def test_coverage_fails_when_the_index_lacks_a_part(self):
        self.change(self.index_file, "DROP TABLE failed")
        self.assert_line(self.doctor(status=1), "fail", "coverage", "cannot be read to their ends; run tallyhive-mailhost")

    def test_name_with_signs_of_an_address_is_no_other_file(self):
        world = World()
        self.addCleanup(world.close)
        data = world.root / "50%41 ?#d"
        data.mkdir(mode=0o700)
        world.environment["XDG_DATA_HOME"] = str(data)
        world.deliver_many(2)
        self.world = world
        self.index()
        self.change(data / "tallyhive-mailhost" / "library.sqlite", "PRAGMA wal_checkpoint(TRUNCATE)")
        self.assert_line(self.doctor(), "ok", "library", "sound, 2 messages")


if __name__ == "__main__":
    unittest.main()
