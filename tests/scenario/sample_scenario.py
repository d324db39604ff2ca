#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Mail of every kind of mail folder, through both programs, against what other readers say of it: ours always, and other
people's, which is no part of the sources, where it is."""

import csv
import datetime
import json
import os
import shutil
import unittest

from world import CLIENT, HOST, ROOT, SAMPLE, Scenario

ALL = 'kMDItemContentType == "*"'
QUERY_ONLY = ("kMDItemAdditionalRecipientEmailAddresses",)
# A letter of the column "agree" vouches for its field.
FIELDS = {"M": ("message_id", "kMDItemIdentifier"), "S": ("subject", "kMDItemSubject"),
          "F": ("from_addr", "kMDItemAuthorEmailAddresses"), "T": ("to_addrs", "kMDItemPrimaryRecipientEmailAddresses"),
          "N": ("from_name", "kMDItemAuthors"), "D": ("date", "kMDItemContentCreationDate")}
MAILDIR_FLAGS = {"com_apple_mail_read": "S", "com_apple_mail_flagged": "F", "com_apple_mail_repliedTo": "R"}
EMLX_BITS = {"com_apple_mail_read": 0, "com_apple_mail_flagged": 4, "com_apple_mail_repliedTo": 2}


def seconds(iso):
    return str(int(datetime.datetime.fromisoformat(iso.replace("Z", "+00:00")).timestamp())) if iso else ""


def ours(letter, value):
    if letter == "D":
        return seconds(value)
    if letter == "T":
        return ",".join(value or [])
    return (value[0] if value else "") if isinstance(value, list) else value or ""


class SampleMail:
    """What is asked of both. A sample says how many messages it has and how many answers it must give at least."""

    def lend(self):
        """Where the mail is."""
        raise NotImplementedError

    def setUp(self):
        super().setUp()
        folder = self.lend().resolve()
        with open(folder / "manifest.tsv", encoding="utf-8", newline="") as manifest:
            self.rows = {str(folder / row["path"]): row
                         for row in csv.DictReader(manifest, delimiter="\t", quoting=csv.QUOTE_NONE)}
        self.coverage = self.world.index("--mail", folder)

    def find(self, query=ALL):
        lines = self.world.run(HOST, "find", query, "--json").stdout.splitlines()
        return {event["path"]: event for event in map(json.loads, lines)}

    def test_every_message_is_found_by_both_programs(self):
        self.assertEqual(len(self.rows), self.messages)
        self.assertRegex(self.coverage, rf"^seen {self.messages}, indexed {self.messages}, unchanged 0, removed 0, "
                                        r"incomplete \d+, failed 0$")
        found = self.find()
        self.assertEqual(sorted(found), sorted(self.rows))
        self.world.serve(remembered=True)
        lines = self.world.run(CLIENT, "search", ALL, "--json").stdout.splitlines()
        events = [event for event in map(json.loads, lines) if event["event"] == "found"]
        self.assertEqual(len(events), self.messages)
        for event in events:
            same = found[event["path"]]
            shown = {"kMDItemDisplayName": os.path.basename(event["path"]), **same["attributes"]}
            self.assertEqual((event["libraryID"], event["attributes"]), (same["libraryID"], shown))

    def test_the_manifest_agrees(self):
        compared, different = 0, []
        found = self.find()
        for path, row in self.rows.items():
            attributes = found[path]["attributes"]
            pairs = [(column, ours(letter, attributes.get(attribute)), row[column])
                     for letter, (column, attribute) in FIELDS.items() if letter in row["agree"]]
            if row["received"]:
                pairs.append(("received", seconds(attributes.get("kMDItemMailDateReceived")), row["received"]))
            for column, value, theirs in pairs:
                if column == "from_name" and not theirs:
                    theirs = row["from_addr"]  # without a name ours is the address
                compared += 1
                if value != theirs:
                    different.append(f"{row['path']}: {column}: ours {value!r}, theirs {theirs!r}")
        self.assertGreater(compared, self.more_fields_than)
        self.assertLessEqual(len(different), compared // 100, "\n".join(different))

    def test_copies_are_asked_for_as_the_manifest_has_them(self):
        rows = [(path, row) for path, row in self.rows.items() if row["cc_addrs"] and "C" in row["agree"]]
        rows = rows[::self.step]
        self.assertGreater(len(rows), self.more_copies_than)
        for path, row in rows:
            query = " && ".join(f'{QUERY_ONLY[0]} == "{address}"c' for address in row["cc_addrs"].split(","))
            self.assertIn(path, self.find(query), query)

    def test_flags_are_those_of_the_name_or_of_the_list_behind_the_message(self):
        found = self.find()
        for path, row in self.rows.items():
            attributes = found[path]["attributes"]
            if row["format"] == "maildir":
                expected = {name: letter in row["flags"] for name, letter in MAILDIR_FLAGS.items()}
            elif row["flags"]:
                expected = {name: bool(int(row["flags"]) >> bit & 1) for name, bit in EMLX_BITS.items()}
            else:
                continue
            self.assertEqual({name: bool(attributes[name]) for name in expected}, expected, path)

    def test_text_is_found_by_its_words(self):
        rows = [(path, row["words"].split()) for path, row in self.rows.items() if len(row["words"].split()) > 2]
        rows = rows[::self.step]
        self.assertGreater(len(rows), self.more_texts_than)
        for path, words in rows:
            query = " && ".join(f'kMDItemTextContent == "{word}"cd' for word in words)
            self.assertIn(path, self.find(query), query)

    def test_folders_have_their_names(self):
        for folder, place in self.mailboxes:
            expected = sorted(path for path, row in self.rows.items() if row["path"].startswith(place))
            self.assertGreater(len(expected), 0)
            self.assertEqual(sorted(self.find(f'kMDItemMailboxes == "{folder}"')), expected)

    def test_partial_messages_and_what_was_not_read_whole_are_there(self):
        partial = [path for path in self.rows if path.endswith(".partial.emlx")]
        self.assertEqual(len(partial), self.partial)
        found = self.find()
        self.assertEqual([path for path in partial if found[path]["attributes"].get("kMDItemAttachmentPaths")], partial)
        status = json.loads(self.world.run(HOST, "stat", "--json").stdout)
        self.assertEqual(status["coverage"]["seen"], self.messages)
        self.assertEqual(status["coverage"]["indexed"], self.messages)
        for entry in status["incomplete"]:
            self.assertIn(entry["path"], found)


class OwnMail(SampleMail, Scenario):
    messages, partial, step = 9, 1, 1
    more_fields_than, more_copies_than, more_texts_than = 50, 2, 6
    mailboxes = (("mailbox.inbox", ("Maildir/cur/", "Maildir/new/", "emlx/INBOX.mbox/")),
                 ("mailbox.lists.garden", ("Maildir/.Lists.garden/",)), ("mailbox.eml", ("eml/",)))

    def lend(self):
        mail = self.world.root / "sample"
        shutil.copytree(ROOT / "tests" / "data" / "mail", mail)
        for folder in (mail / "Maildir", mail / "Maildir" / ".Lists.garden"):
            for part in ("cur", "new", "tmp"):
                (folder / part).mkdir(exist_ok=True)
        return mail


if SAMPLE.is_dir():
    class RealMail(SampleMail, Scenario):
        messages, partial, step = 624, 4, 12
        more_fields_than, more_copies_than, more_texts_than = 3500, 10, 40
        mailboxes = (("mailbox.international.日本語", ("Maildir/.International.&ZeVnLIqe-/",)),
                     ("mailbox.inbox", ("Maildir/cur/", "Maildir/new/", "emlx/INBOX.mbox/")),
                     ("mailbox.archive", ("emlx/Archive.mbox/", "Maildir/.Archive/")), ("mailbox.eml", ("eml/",)))

        def lend(self):
            return SAMPLE


if __name__ == "__main__":
    unittest.main()
