#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes a small Maildir++ of invented people and messages, the same for the same seed.

make_mailbox.py FOLDER [--messages N] [--seed S]     a mailbox; FOLDER must not exist yet
make_mailbox.py --drop FOLDER [--subject TEXT]       one more message from Ada; prints its path
"""

import argparse
import datetime
import email.message
import email.policy
import email.utils
import os
import pathlib
import random
import sys

PEOPLE = [
    ("Ada Brightwater", "ada@brightwater.example"),
    ("Bruno Keller", "bruno.keller@keller-holz.example"),
    ("Chidi Okonkwo", "chidi@okonkwo.example"),
    ("Danièle Lefèvre", "daniele@lefevre.example"),
    ("Emil Sørensen", "emil@soerensen.example"),
    ("Fatima Zahra", "fatima@zahra.example"),
    ("Greta Weiß", "greta@weiss.example"),
    ("花子 山田", "hanako@yamada.example"),
    ("Ivan Petrov", "ivan.petrov@petrov.example"),
    ("Garden List", "garden@lists.example"),
]
ME = ("Robin Hale", "robin@hale.example")
WEIGHTS = [9, 6, 4, 4, 3, 3, 3, 2, 2, 5]
TOPICS = [
    "Lunch on Thursday", "Invoice 2291", "The apple trees", "Photographs from the lake", "Train to Göttingen",
    "Minutes of the meeting", "Recipe: plum cake", "夏休みの予定", "Repair of the roof", "Choir practice moved",
    "Book club: next title", "Travel insurance", "Seeds for spring", "Rent for the workshop", "Happy birthday! 🎂",
]
SENTENCES = [
    "The boxes are in the hall, next to the old clock.", "Could you look at the second page again?",
    "We meet at the station at a quarter past nine.", "The roof needs new tiles before the winter.",
    "I have attached the plan; please print it in colour.", "Les pommes sont mûres, venez les cueillir.",
    "Grüße an alle, und bringt warme Jacken mit.", "来週の水曜日に会いましょう。",
    "The invoice is due at the end of the month.", "Nobody has seen the key to the garden gate.",
]
FOLDERS = {"": 0.55, ".Archive": 0.2, ".Lists.garden": 0.15, ".Sent": 0.1}
START = datetime.datetime(2024, 1, 8, 7, 30, tzinfo=datetime.timezone.utc)


def address(person):
    return email.utils.formataddr(person, charset="utf-8")


def compose(rng, number, sender, recipients, subject, date):
    message = email.message.EmailMessage(policy=email.policy.default)
    message["From"] = address(sender)
    message["To"] = ", ".join(address(person) for person in recipients)
    if rng.random() < 0.2:
        message["Cc"] = address(rng.choice(PEOPLE))
    if subject:
        message["Subject"] = subject
    message["Date"] = date
    message["Message-ID"] = f"<{number}.{rng.getrandbits(32):08x}@{sender[1].split('@')[1]}>"
    if rng.random() < 0.1:
        message["X-Priority"] = rng.choice(["1 (Highest)", "5 (Lowest)"])
    if sender[1] == "garden@lists.example":
        message["List-Id"] = "Garden <garden.lists.example>"
    body = "\n\n".join(rng.sample(SENTENCES, rng.randint(2, 5))) + f"\n\n{sender[0]}\n"
    message.set_content(body, cte=rng.choice(["8bit", "quoted-printable", "base64"]))
    shape = rng.random()
    if shape < 0.2:
        paragraphs = "".join(f"<p>{line}</p>" for line in body.splitlines() if line)
        message.add_alternative(f"<html><body>{paragraphs}</body></html>", subtype="html")
    elif shape < 0.35:
        name = rng.choice(["plan.pdf", "Übersicht.pdf", "lake-01.jpg", "list.txt"])
        kind = {"pdf": ("application", "pdf"), "jpg": ("image", "jpeg"), "txt": ("text", "plain")}[name.rsplit(".")[-1]]
        message.add_attachment(rng.randbytes(rng.randint(200, 4000)), maintype=kind[0], subtype=kind[1], filename=name)
    return message


def deliver(folder, number, date, message, flags, fresh):
    for part in ("cur", "new", "tmp"):
        (folder / part).mkdir(parents=True, exist_ok=True)
    seconds = int(date.timestamp())
    name = f"{seconds}.M{number}P{4000 + number % 97}.mailbox"
    temporary = folder / "tmp" / name
    temporary.write_bytes(message.as_bytes(policy=message.policy.clone(linesep="\n")))
    os.utime(temporary, (seconds, seconds))
    place = folder / "new" / name if fresh else folder / "cur" / f"{name}:2,{flags}"
    temporary.rename(place)
    return place


def make(folder, count, seed):
    rng = random.Random(seed)
    random.seed(seed)  # the library draws the boundaries of parts from it
    folder.mkdir(parents=True)
    date = START
    for number in range(count):
        date += datetime.timedelta(minutes=rng.randint(30, 8200))
        box = rng.choices(list(FOLDERS), list(FOLDERS.values()))[0]
        other = PEOPLE[-1] if box == ".Lists.garden" else rng.choices(PEOPLE, WEIGHTS)[0]
        sender, recipients = (ME, [other]) if box == ".Sent" else (other, [ME])
        subject = None if rng.random() < 0.02 else rng.choice(["", "", "Re: ", "Fwd: "]) + rng.choice(TOPICS)
        message = compose(rng, number, sender, recipients, subject, date)
        flags = "".join(flag for flag, chance in (("F", 0.08), ("R", 0.2), ("S", 0.85)) if rng.random() < chance)
        where = folder / box if box else folder
        deliver(where, number, date, message, flags, fresh=box == "" and rng.random() < 0.05)


def drop(folder, subject):
    now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
    rng = random.Random(os.getpid())
    message = compose(rng, os.getpid(), PEOPLE[0], [ME], subject, now)
    print(deliver(folder, os.getpid(), now, message, "", fresh=True))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--messages", type=int, default=320)
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--drop", action="store_true")
    parser.add_argument("--subject", default="Are you coming to the lake?")
    options = parser.parse_args()
    if options.drop:
        drop(options.folder, options.subject)
    elif options.folder.exists():
        sys.exit(f"{options.folder} exists already; name a folder that does not")
    else:
        make(options.folder, options.messages, options.seed)


if __name__ == "__main__":
    main()
