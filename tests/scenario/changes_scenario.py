#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Mail that changes while the host serves. After each change a fresh search finds what stands on disk, each message once,
and a live query that began before it all agrees with the fresh one."""

import contextlib
import itertools
import json
import os
import shutil
import sqlite3
import subprocess
import unittest

from world import HOST, SANITIZED, Scenario, wait_for

ALL = 'kMDItemContentType == "*"'
OTHER_USER = 65534


class LiveQuery:
    """One live query, its deliveries put together as they come."""

    def __init__(self, world, query=ALL):
        self.client = world.client("live")
        self.unique = f"live {query}"
        self.read = {"QueryHasUpdates": 0, "QueryHasRemovals": 0}
        self.found = []  # library IDs, in the order found
        self.removed = []
        self.client.search(self.unique, query=query)
        self.client.gathered(self.unique)

    def look(self):
        """The library IDs that it shows now."""
        for kind, batch in (("QueryHasUpdates", "ResultsBatch"), ("QueryHasRemovals", "RemovalBatch")):
            for info in self.client.of_kind(self.unique, kind)[self.read[kind]:]:
                self.read[kind] += 1
                content = self.client.read(info, batch)
                self.client.clear(info)
                self.found += [item["libraryID"] for item in content.get("messages", [])]
                self.removed += [int(text) for text in content.get("messageIDs", [])]
        return sorted(set(self.found) - set(self.removed))


class ChangingMail(Scenario):
    def setUp(self):
        super().setUp()
        self.numbers = itertools.count()
        self.inbox = self.world.maildir()
        self.work = self.world.maildir(".Work")
        for number in range(3):
            self.world.deliver(f"Inbox {number}")
            self.world.deliver(f"Work {number}", folder=".Work")

    def serve(self, **options):
        self.host = self.world.serve("--mail", str(self.world.mail), **options)
        self.live = LiveQuery(self.world)
        self.check()

    def test_update_that_fails_is_tried_again_without_a_further_change(self):
        self.serve()

        def rename(name, to):
            with contextlib.closing(sqlite3.connect(self.world.library)) as library:
                library.execute(f"ALTER TABLE {name} RENAME TO {to}")
        rename("messages", "elsewhere")
        self.world.deliver("Late")
        self.host.wait_for_line("the index could not be brought up to date")
        rename("elsewhere", "messages")
        self.host.wait_for_line("the index is brought up to date again")
        self.check()

    def on_disk(self):
        return sorted(str(path) for part in ("cur", "new") for path in self.world.mail.rglob(f"{part}/*"))

    def fresh(self, query=ALL):
        """Path to library ID, by a search of its own."""
        client = self.world.client("fresh")
        unique = f"fresh {next(self.numbers)}"
        client.search(unique, query=query)
        found = []
        for info in client.gathered(unique):
            found += [(item["kMDItemPath"], item["libraryID"]) for item in client.read(info)["messages"]]
            client.clear(info)
        client.cancel(unique)
        self.assertEqual(len(dict(found)), len(found), "a file was found twice")
        self.assertEqual(len({number for _, number in found}), len(found), "a message was found twice")
        return dict(found)

    def settled(self, paths=None):
        """Until a fresh search finds just these files, all that stand on disk unless given."""
        paths = self.on_disk() if paths is None else paths
        return wait_for(lambda: sorted(found := self.fresh()) == paths and [found], "a fresh search that finds what is there")[0]

    def check(self):
        """Returns what a fresh search finds, when the live query agrees with it."""
        found = self.settled()
        wait_for(lambda: self.live.look() == sorted(found.values()), "the live query to agree with a fresh search")
        self.assertEqual(len(self.live.found), len(set(self.live.found)), "a message was delivered twice")
        self.assertEqual(len(self.live.removed), len(set(self.live.removed)), "a message was removed twice")
        return found

    @staticmethod
    def with_flags(path, flags):
        return path.parent.parent / "cur" / f"{path.name.split(':2,')[0]}:2,{flags}"

    def test_flags_and_the_step_from_new_to_cur_keep_the_id(self):
        self.serve()
        path = self.world.deliver("Changing", flags=None)
        number = self.check()[str(path)]
        flagged = LiveQuery(self.world, "com_apple_mail_flagged == 1")
        for flags in ("", "S", "FS", "FRS", "S", "FS"):
            path = path.rename(self.with_flags(path, flags))
            self.assertEqual(self.check()[str(path)], number)
            wait_for(lambda: (str(path) in self.fresh("com_apple_mail_flagged == 1")) == ("F" in flags), "the flag")
        self.assertEqual(self.live.found.count(number), 1)
        self.assertEqual(self.live.removed, [])
        # Once removed it stays removed in a live query, though it matches again.
        wait_for(lambda: flagged.look() == [] and flagged.removed == [number], "the flag's removal")

    def test_messages_that_move_between_folders_are_new_where_they_arrive(self):
        self.serve()
        before = self.check()
        moved = self.inbox / "cur" / next(name for name in sorted(os.listdir(self.inbox / "cur")))
        there = moved.rename(self.work / "cur" / moved.name)
        after = self.check()
        self.assertGreater(after[str(there)], max(before.values()))
        self.assertEqual(self.live.removed, [before[str(moved)]])
        there.rename(moved)
        again = self.check()
        self.assertGreater(again[str(moved)], after[str(there)], "an ID was given out twice")
        for path in before.keys() - {str(moved)}:
            self.assertEqual(again[path], before[path])

    def test_files_that_go_and_come_back_are_new_messages(self):
        self.serve()
        path = self.world.deliver("Back and forth")
        before = self.check()
        aside = path.rename(self.world.root / "aside")
        self.check()
        aside.rename(path)
        self.assertGreater(self.check()[str(path)], before[str(path)])

    def test_folders_are_made_renamed_removed_and_come_back(self):
        self.serve()
        kept = self.check()
        self.world.deliver("Made", folder=".Made")
        self.check()
        (self.world.mail / ".Made").rename(self.world.mail / ".Renamed")
        self.check()
        self.world.deliver("Into the renamed one", folder=".Renamed")
        before = self.check()
        (self.world.mail / ".Renamed").rename(self.world.root / "aside")
        self.check()
        (self.world.root / "aside").rename(self.world.mail / ".Renamed")
        after = self.check()
        back = [number for path, number in after.items() if "/.Renamed/" in path]
        self.assertEqual(len(back), 2)
        self.assertGreater(min(back), max(before.values()))
        self.world.deliver("Into the one that came back", folder=".Renamed")
        self.check()
        shutil.rmtree(self.world.mail / ".Renamed")
        self.assertEqual(self.check(), kept)

    def test_nested_folders_move_with_all_below_them(self):
        self.serve()
        for folder in ("Projects", "Projects/Lake", "Projects/Lake/Deep"):
            self.world.deliver(folder, folder=folder)
        loose = self.world.mail / "Loose" / "Letters"
        loose.mkdir(parents=True)
        self.check()
        (self.world.mail / "Projects").rename(self.world.mail / "Done")
        self.check()
        (self.world.mail / "Done" / "Lake").rename(self.world.mail / "Lake")
        self.world.deliver("After the move", folder="Lake/Deep")
        self.check()
        shutil.rmtree(self.world.mail / "Lake" / "cur")
        (self.world.mail / "Lake" / "new").rmdir()
        wait_for(lambda: not any("/Lake/cur/" in path for path in self.fresh()), "the mailbox without its parts to be gone")

    def test_burst_comes_whole_and_once(self):
        self.serve()
        count = 1000 if SANITIZED else 10000
        for path in self.world.deliver_many(count, flags=None, folder=".Work")[::2]:
            path.rename(self.with_flags(path, "S"))
        found = self.check()
        self.assertEqual(len(found), count + 6)
        self.assertEqual(self.live.removed, [])

    def test_lost_events_lose_no_change(self):
        self.serve()
        before = self.check()
        gone = self.world.deliver("Gone")
        self.world.deliver("Moved along", folder=".Old.Name")
        self.check()
        flagged = next(path for path in sorted(self.inbox.glob("cur/*")) if path != gone)
        number = before[str(flagged)]
        with self.host.stopped():
            self.lose_events()
            gone.unlink()
            (self.world.mail / ".Old.Name").rename(self.world.mail / ".New.Name")
            self.world.deliver("Arrived", folder=".Made")
            self.world.deliver("Arrived")
            flagged = flagged.rename(self.with_flags(flagged, "FS"))
        found = self.check()
        self.assertEqual(found[str(flagged)], number)
        # What appeared unseen is followed from now on.
        for folder in (".Made", ".New.Name"):
            self.world.deliver("Later", folder=folder)
            self.check()

    def test_mail_folder_replaced_while_events_are_lost_is_followed_again(self):
        self.serve()
        with self.host.stopped():
            self.lose_events()
            self.world.mail.rename(self.world.root / "Old mail")
            shutil.copytree(self.world.root / "Old mail", self.world.mail)
        self.check()
        self.world.deliver("Later")
        self.check()

    def lose_events(self):
        """More than are kept for a program that does not read them."""
        with open("/proc/sys/fs/inotify/max_queued_events", encoding="ascii") as limit:
            enough = int(limit.read()) // 4 + 100
        place = self.inbox / "cur" / "1.flood:2,"
        other = self.inbox / "new" / "1.flood"
        place.write_text("Subject: Flood\n\n")
        for _ in range(enough):
            os.rename(place, other)
            os.rename(other, place)

    # Mail folders that go and come back as a whole

    def away_and_back(self, take_away, bring_back, reason):
        """What holds of a mail folder that is missing for a while. Both callables return the folder where its mail stands."""
        before = self.check()
        aside = take_away()
        self.settled([])
        (state,) = json.loads(self.world.run(HOST, "stat", "--json").stdout)["mailFolders"]
        self.assertEqual((state["path"], state["state"], state["messages"]), (str(self.world.mail), "missing", len(before)))
        self.assertRegex(state["reason"], reason)
        gone = min(path for path in before if path.startswith(str(self.inbox / "cur")))
        (aside / "cur" / os.path.basename(gone)).unlink()
        new = "1800000000.came.meanwhile:2,"
        (aside / "cur" / new).write_text("Subject: Came meanwhile\n\nHello.\n")
        bring_back()
        after = self.check()
        self.assertEqual({path: number for path, number in after.items() if path in before},
                         {path: number for path, number in before.items() if path != gone})
        self.assertGreater(after[str(self.inbox / "cur" / new)], max(before.values()))
        self.assertEqual(self.live.removed, [before[gone]], "removals of mail that was only out of reach")
        self.world.deliver("Followed again", folder=".Work")
        self.check()

    def test_mail_folder_whose_parent_is_renamed_is_missing_until_it_is_back(self):
        disk = self.world.root / "disk"
        disk.mkdir()
        self.world.mail = self.world.mail.rename(disk / "Mail")
        self.inbox, self.work = self.world.mail, self.world.mail / ".Work"
        self.serve()
        self.away_and_back(lambda: disk.rename(self.world.root / "elsewhere") / "Mail",
                           lambda: (self.world.root / "elsewhere").rename(disk), "No such file")

    def test_mail_folder_that_is_unmounted_is_missing_until_it_is_mounted_again(self):
        disk = self.mounted()
        self.serve()
        self.away_and_back(lambda: self.unmount() and disk, lambda: self.mount(disk), "mounted")

    def test_host_that_starts_while_the_mail_folder_is_not_mounted_keeps_its_ids(self):
        disk = self.mounted()
        self.serve()
        before = self.check()
        self.host.quit()
        self.unmount()
        self.assertIn("mounted", self.world.run(HOST, "index").stderr)
        host = self.world.serve(remembered=True)
        self.settled([])
        self.mount(disk)
        self.assertEqual(self.settled(), before)
        self.assertEqual(host.quit(), 0)

    def test_mailbox_below_a_mail_folder_that_is_unmounted_is_gone(self):
        shutil.rmtree(self.work)
        disk = self.mounted(self.work)
        for part in ("cur", "new", "tmp"):
            (disk / part).mkdir()
        self.world.deliver("On the other disk", folder=".Work")
        self.serve()
        self.unmount(self.work)
        self.check()
        self.mount(disk, self.work)
        self.check()
        self.world.deliver("Followed again", folder=".Work")
        self.check()

    def mounted(self, place=None):
        """Puts the mail at `place` on a file system of its own; returns where it stands otherwise."""
        place = place or self.world.mail
        disk = self.world.root / "disk"
        if place.is_dir():
            place.rename(disk)
        else:
            disk.mkdir()
        place.mkdir()
        if not self.mount(disk, place):
            self.skipTest("may not mount here")
        self.addCleanup(subprocess.run, ["umount", "--lazy", str(place)], stderr=subprocess.DEVNULL, check=False)
        return disk

    def mount(self, disk, place=None):
        return subprocess.run(["mount", "--bind", str(disk), str(place or self.world.mail)], stderr=subprocess.DEVNULL,
                              check=False).returncode == 0

    def unmount(self, place=None):
        subprocess.run(["umount", "--lazy", str(place or self.world.mail)], check=True)
        return True

    def test_folders_that_may_not_be_read_for_a_while_keep_their_ids(self):
        other = self.other_user() if os.geteuid() == 0 else ()
        self.serve(prefix=other)
        before = self.check()
        self.work.chmod(0)
        self.world.deliver("Beside it")
        wait_for(lambda: any(entry["path"] == str(self.work) for entry in
                             json.loads(self.world.run(*other, HOST, "stat", "--json").stdout)["failed"]), "stat to name it")
        self.work.chmod(0o700)
        after = self.check()
        self.assertEqual({path: after[path] for path in before}, before)
        self.world.mail.chmod(0)
        self.settled([])
        self.world.mail.chmod(0o700)
        self.assertEqual(self.check(), after)
        self.assertEqual(self.live.removed, [])

    def other_user(self):
        """Root is refused nothing. What goes before a program so that it runs as a user who owns this world."""
        subprocess.run(["chown", "-Rh", f"{OTHER_USER}:{OTHER_USER}", str(self.world.root)], check=True)
        return ("setpriv", f"--reuid={OTHER_USER}", f"--regid={OTHER_USER}", "--clear-groups")


if __name__ == "__main__":
    unittest.main()
