#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A whole client of the exchange, as docs/exchange-format.md describes it.

client.py QUERY [--live]   prints what is found; with --live also what comes and goes, until Ctrl-C
"""
import os
import pathlib
import plistlib
import sys
import time
import urllib.parse
import uuid

PREFIX = " com.quorvane.tallyhive.mailplugin."  # the space is part of every name
DATA = pathlib.Path(os.environ.get("XDG_DATA_HOME") or pathlib.Path.home() / ".local/share") / "Mail/Tallyhive"
CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache") / "tallyhive/pasteboards"


def post(kind, **info):
    """Drops a request into "in". It gets its extension last, for the plug-in reads each message file once."""
    part = DATA / "in" / f"{uuid.uuid4()}.part"
    part.write_bytes(plistlib.dumps({"name": PREFIX + kind, "userInfo": {"clientName": "client.py", **info}}))
    return part.rename(part.with_suffix(".plist"))


def take(key, value):
    """Reads and deletes the messages in "out" that echo our key; all others are for other clients."""
    for file in DATA.glob("out/*.plist"):
        try:
            message = plistlib.loads(file.read_bytes())
        except FileNotFoundError:
            continue  # its owner took it just now
        if message.get("userInfo", {}).get(key) == value:
            file.unlink()
            yield message["name"].removeprefix(PREFIX), message["userInfo"]


def until(condition, seconds=5.0):
    """The condition's first true value. A client that can watch a folder need not ask again and again."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            sys.exit("no plug-in answers; is the host running?")
        time.sleep(0.02)
    return value


def batch(info, kind):
    """What lies on the pasteboard that a message names: a folder, with the type as a file in it."""
    return plistlib.loads((CACHE / info["batchName"] / urllib.parse.quote(PREFIX + kind)).read_bytes())


def main(query, live):
    token, name, gathered, error = str(uuid.uuid4()), f"client.py-{uuid.uuid4()}", False, None
    post("Connect", token=token, compatibilityVersion=1)
    until(lambda: list(take("token", token)))
    posted = [post("Search", uniqueName=name, queryString=query, sortingAttribute="com_apple_mail_dateReceived")]
    try:
        until(lambda: not posted[0].exists())
        while live or not gathered:
            messages = until(lambda: list(take("uniqueName", name)), seconds=1e9)
            gathered = gathered or any(kind == "QueryDidComplete" for kind, _ in messages)
            messages += take("uniqueName", name)  # files have no order: what a listing missed before the end
            for kind, info in sorted(messages, key=lambda message: message[1].get("batchNumber", 0)):
                if kind == "QueryHasUpdates":
                    for item in batch(info, "ResultsBatch")["messages"]:
                        print(item["libraryID"], item["attributes"]["kMDItemDisplayName"], item["kMDItemPath"], sep="\t")
                    posted.append(post("Clear", uniqueName=name, batchName=info["batchName"]))
                elif kind == "QueryHasRemovals":
                    print(*batch(info, "RemovalBatch")["messageIDs"], sep="\tgone\n", end="\tgone\n")
                elif "errorMessage" in info:
                    live, error = False, info["errorMessage"]
            sys.stdout.flush()
    except KeyboardInterrupt:
        pass
    until(lambda: not any(file.exists() for file in posted))  # a Cancel must overtake none of them
    post("Cancel", uniqueName=name)
    return error


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3) or sys.argv[2:] not in ([], ["--live"]):
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], live=len(sys.argv) == 3))
