#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How a host starts, quits, is killed, and starts again."""

import pathlib
import plistlib
import shutil
import signal
import stat
import unittest

from world import BUILD, HOST, PREFIX, Scenario, wait_for

BUNDLE = BUILD / "lib" / "tallyhive-mailhost" / "plug-ins" / "TallyhiveMailPlugin.mailbundle"


class Starting(Scenario):
    def test_requests_that_wait_at_the_start_are_deleted_unanswered(self):
        self.world.deliver()
        client = self.world.client()
        waiting = [client.post("Connect", number=number) for number in range(50)]
        self.world.serve()
        client.connect()
        self.assertFalse(any(path.exists() for path in waiting))
        self.assertEqual(client.take(lambda m: "number" in m["userInfo"]), [])

    def test_out_is_emptied_of_messages_and_of_our_own_litter(self):
        self.world.maildir()
        self.world.outbox.mkdir(parents=True)
        for name in ("old.plist", "OLD.PLIST", ".x.tmp-1", "kept.txt"):
            (self.world.outbox / name).write_bytes(b"")
        self.world.inbox.mkdir()
        (self.world.inbox / ".x.tmp-client").write_bytes(b"")
        self.world.serve()
        names = {entry.name for entry in self.world.outbox.iterdir() if entry.suffix != ".plist"}
        self.assertEqual(names, {"kept.txt"})
        self.assertEqual(len(list(self.world.outbox.glob("*.plist"))), 1)
        self.assertTrue((self.world.inbox / ".x.tmp-client").exists())

    def test_everything_made_is_private_to_the_user(self):
        self.world.deliver()
        self.world.serve(umask=0)
        client = self.world.client()
        client.search("one")
        client.gathered("one")
        wait_for(self.world.defaults.exists, "the user defaults")
        for folder in self.world.folders.values():
            for path in folder.rglob("*"):
                mode = stat.S_IMODE(path.lstat().st_mode)
                self.assertEqual(mode & 0o077, 0, f"{path} has mode {mode:o}")

    def test_plugin_answers_before_a_large_mailbox_is_indexed(self):
        self.world.deliver_many(3000)
        host = self.world.serve(indexed=False)
        self.world.client().connect()
        self.assertEqual(host.count("the index is up to date"), 0)
        host.wait_for_line("the index is up to date")

    def test_without_mail_folders_the_command_says_so(self):
        result = self.world.run(HOST, "serve")
        self.assertEqual(result.returncode, 2)
        self.assertIn("--mail", result.stderr)

    def test_mail_folder_that_does_not_exist_is_named(self):
        result = self.world.run(HOST, "serve", "--mail", self.world.root / "nowhere")
        self.assertEqual(result.returncode, 1)
        self.assertIn("nowhere", result.stderr)
        self.assertEqual(len(result.stderr.splitlines()), 1)

    def test_mail_folders_are_remembered(self):
        self.world.deliver("Remembered")
        self.world.index("--mail", self.world.mail)
        self.world.deliver("Later")
        self.world.serve(remembered=True)
        self.assertEqual(self.world.run(HOST, "find", 'kMDItemSubject == "Later"').returncode, 0)

    def test_second_host_says_who_serves(self):
        self.world.deliver()
        host = self.world.serve()
        for arguments in (("serve", "--mail", self.world.mail), ("index", "--mail", self.world.mail)):
            result = self.world.run(HOST, *arguments)
            self.assertEqual(result.returncode, 1)
            self.assertIn(str(host.process.pid), result.stderr)
            self.assertEqual(len(result.stderr.splitlines()), 1)
        self.world.client().connect()

    def test_bundle_that_is_missing_or_does_not_fit_ends_the_host(self):
        self.world.maildir()
        wrong = self.world.root / "Wrong.mailbundle"
        shutil.copytree(BUNDLE, wrong)
        (wrong / "Contents" / "Linux" / "TallyhiveMailPlugin.so").write_bytes(b"no shared object")
        for bundle in (self.world.root / "missing", wrong):
            result = self.world.run(HOST, "serve", "--mail", self.world.mail, "--plug-in", bundle)
            self.assertEqual(result.returncode, 1, result.stderr)
            self.assertIn(str(bundle), result.stderr.splitlines()[-1])

    def test_plugin_without_a_data_folder_stays_inert_and_the_host_goes_on(self):
        self.world.deliver()
        (self.world.folders["data"] / "Mail").write_text("in the way")
        self.world.outbox = self.world.root / "none"
        host = self.world.serve(ready=False)
        host.wait_for_line("the index is up to date")
        self.assertEqual(host.count("Failed to create data directory for the Tallyhive Mail plug-in"), 1)
        self.assertEqual(host.count("create instance"), 0)
        self.assertEqual(host.quit(), 0)


class Quitting(Scenario):
    def setUp(self):
        super().setUp()
        self.world.deliver_many(5)
        self.host = self.world.serve()
        self.client = self.world.client()

    def quits(self):
        return [message["userInfo"] for message in self.world.messages_in(self.world.outbox)
                if message["name"] == PREFIX + "PluginQuit"]

    def test_quit_names_the_live_queries_and_releases_every_pasteboard(self):
        for unique in ("one", "two"):
            self.client.search(unique)
            self.client.gathered(unique)
        self.assertEqual(len(self.world.pasteboard_names()), 2)
        self.assertEqual(self.host.quit(), 0)
        (info,) = self.quits()
        self.assertEqual(sorted(info["activeNames"]), ["one", "two"])
        self.assertEqual(info["compatibilityVersion"], 1)
        self.assertEqual(self.world.pasteboard_names(), [])

    def test_closed_terminal_is_a_quit_unless_it_was_to_be_ignored(self):
        self.assertEqual(self.host.quit(signal.SIGHUP), 0)
        self.assertEqual(len(self.quits()), 1)
        host = self.world.serve(prefix=("sh", "-c", 'trap "" HUP; exec "$@"', "sh"))  # as nohup(1) starts programs
        host.send(signal.SIGHUP)
        self.world.client().connect()
        self.assertEqual(host.quit(), 0)

    def test_quit_without_queries_names_none(self):
        self.assertEqual(self.host.quit(signal.SIGINT), 0)
        self.assertEqual([info["activeNames"] for info in self.quits()], [[]])

    def test_quit_removes_the_stored_log(self):
        self.client.connect()
        wait_for(self.world.stored_log, "the stored log")
        self.host.quit()
        self.assertNotIn("THMPMailPlugin.log", plistlib.loads(self.world.defaults.read_bytes()))

    def test_killed_host_leaves_nothing_that_the_next_start_does_not_clean(self):
        self.client.search("one")
        update = self.client.gathered("one")[0]
        self.host.kill()
        self.assertEqual(len(self.client.read(update)["messages"]), 5, "the batch can still be read")
        self.world.serve()
        self.assertEqual(self.world.pasteboard_names(), [])
        self.client.search("two")
        self.client.gathered("two")
        self.assertEqual(len(self.client.subjects("two")), 5)

    def test_library_ids_outlive_a_kill_and_a_lost_index(self):
        self.client.search("one")
        before = {item["kMDItemPath"]: item["libraryID"]
                  for update in self.client.gathered("one") for item in self.client.read(update)["messages"]}
        self.host.kill()
        shutil.rmtree(self.world.folders["cache"] / "tallyhive-mailhost")
        self.world.serve()
        self.client.search("two")
        after = {item["kMDItemPath"]: item["libraryID"]
                 for update in self.client.gathered("two") for item in self.client.read(update)["messages"]}
        self.assertEqual(before, after)

    def test_activation_disturbs_nothing(self):
        self.host.send(signal.SIGUSR1)
        self.client.connect()
        self.assertEqual(self.host.quit(), 0)

    def test_nothing_is_left_running(self):
        self.assertEqual(self.host.quit(), 0)
        self.assertFalse(pathlib.Path(f"/proc/{self.host.process.pid}").exists())


if __name__ == "__main__":
    unittest.main()
