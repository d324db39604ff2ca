# SPDX-License-Identifier: Apache-2.0
"""A world for one scenario: folders of its own, a mailbox, a real host, and clients written with nothing but plistlib.

Nothing here waits for time to pass: every wait is for something that the programs do, and gives up loudly after PATIENCE.
"""

import atexit
import contextlib
import os
import pathlib
import plistlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import uuid

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("THMP_BUILD", ROOT / "build"))


def for_all_users(build):
    """Where another user can run the programs, too: what was built, or a copy when that lies in a folder closed to others."""
    if os.geteuid() != 0 or all(folder.stat().st_mode & 0o001 for folder in build.parents):
        return build
    copy = pathlib.Path(tempfile.mkdtemp(prefix="tallyhive-programs-"))
    atexit.register(shutil.rmtree, copy)
    copy.chmod(0o755)
    (copy / "bin").mkdir()
    for program in ("tallyhive-mailhost", "tallyhive-mail"):
        shutil.copy2(build / "bin" / program, copy / "bin")
    shutil.copytree(build / "lib", copy / "lib")
    return copy


PROGRAMS = for_all_users(BUILD)
HOST = PROGRAMS / "bin" / "tallyhive-mailhost"
CLIENT = PROGRAMS / "bin" / "tallyhive-mail"
SAMPLE = pathlib.Path(os.environ.get("THMP_MAIL_SAMPLE", ROOT.parent / "shared" / "mail-sample"))
# The host indexes politely, behind all else that a busy machine does.
PATIENCE = 240.0
# With sanitizers and other checkers all is many times as slow: what is only there for its number is scaled down.
SANITIZED = BUILD.name in ("build-asan", "build-tsan", "build-gcc-asan", "build-gcc-tsan", "build-debug-mode",
                           "build-coverage", "build-valgrind")

sys.path.insert(0, str(ROOT / "tests" / "support"))

# A program that runs host and client, with its arguments, as Valgrind.
UNDER = os.environ.get("THMP_UNDER", "").split()

PREFIX = " com.quorvane.tallyhive.mailplugin."


def wait_for(condition, what, patience=PATIENCE):
    """The condition's first true value. Other processes cannot wake us, so it is asked again and again."""
    deadline = time.monotonic() + patience
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"gave up waiting for {what}")
        time.sleep(0.005)


class World:
    def __init__(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="tallyhive-world-"))
        self.folders = {name: self.root / name for name in ("data", "config", "cache", "runtime")}
        for folder in self.folders.values():
            folder.mkdir(mode=0o700)
        self.environment = dict(os.environ)
        self.environment.update(
            XDG_DATA_HOME=str(self.folders["data"]), XDG_CONFIG_HOME=str(self.folders["config"]),
            XDG_CACHE_HOME=str(self.folders["cache"]), XDG_RUNTIME_DIR=str(self.folders["runtime"]),
            HOME=str(self.root), TZ="UTC", LC_ALL="C.UTF-8")
        self.mail = self.root / "Mail"
        self.exchange = self.folders["data"] / "Mail" / "Tallyhive"
        self.inbox = self.exchange / "in"
        self.outbox = self.exchange / "out"
        self.pasteboards = self.folders["cache"] / "tallyhive" / "pasteboards"
        self.applications = self.folders["runtime"] / "tallyhive" / "applications"
        self.defaults = self.folders["config"] / "tallyhive-mailhost" / "defaults.plist"
        self.library = self.folders["data"] / "tallyhive-mailhost" / "library.sqlite"
        self.delivered = 0
        self.hosts = []
        self.client_running = None

    def close(self):
        for host in self.hosts:
            host.kill()
        shutil.rmtree(self.root, ignore_errors=True)

    # Mail

    def maildir(self, name=""):
        folder = self.mail / name if name else self.mail
        for part in ("cur", "new", "tmp"):
            (folder / part).mkdir(parents=True, exist_ok=True)
        return folder

    def deliver(self, subject="Hello", sender="Ada <ada@example.org>", to="Robin <robin@example.org>", flags="S",
                folder="", date="Mon, 05 May 2025 10:00:00 +0000", second=None, body="A few words.", headers=""):
        """One message, whole in one step. Returns its path."""
        box = self.maildir(folder)
        self.delivered += 1
        second = 1_700_000_000 + self.delivered if second is None else second
        name = f"{second}.M{self.delivered}.world"
        temporary = box / "tmp" / name
        temporary.write_text(
            f"From: {sender}\nTo: {to}\nSubject: {subject}\nDate: {date}\nMessage-ID: <{name}@example.org>\n{headers}"
            f"Content-Type: text/plain; charset=utf-8\n\n{body}\n", encoding="utf-8")
        place = box / "new" / name if flags is None else box / "cur" / f"{name}:2,{flags}"
        temporary.rename(place)
        return place

    def deliver_many(self, count, **options):
        return [self.deliver(subject=f"Message {number}", **options) for number in range(count)]

    # Programs

    def run(self, program, *arguments, **options):
        options.setdefault("timeout", PATIENCE)
        return subprocess.run([*UNDER, str(program), *map(str, arguments)], env=self.environment, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, **options)

    def index(self, *arguments):
        result = self.run(HOST, "index", *(arguments or ("--mail", self.mail)))
        assert result.returncode == 0, result.stderr
        return result.stdout

    def serve(self, *arguments, ready=True, indexed=True, remembered=False, **options):
        """A host that serves, the world's mail unless it goes by the remembered folders. With `indexed`, its first walk over
        the mail has ended."""
        if not arguments and not remembered:
            arguments = ("--mail", str(self.mail))
        host = Host(self, arguments, **options)
        self.hosts.append(host)
        if ready:
            host.wait_for_ready()
        if indexed and ready:
            host.wait_for_line("the index is up to date")
        return host

    def client(self, name="client"):
        return Client(self, name)

    def search(self, *arguments, **options):
        return self.run(CLIENT, "search", "--timeout", PATIENCE, *arguments, **options)

    # What is there

    def stored_log(self):
        with contextlib.suppress(FileNotFoundError):
            return plistlib.loads(self.defaults.read_bytes()).get("THMPMailPlugin.log", [])
        return []

    def pasteboard_names(self):
        return sorted(entry.name for entry in self.pasteboards.iterdir()) if self.pasteboards.is_dir() else []

    def messages_in(self, folder, but=()):
        """All readable messages of a folder, none taken, without those of the names `but`."""
        found = []
        for path in folder.iterdir() if folder.is_dir() else ():
            with contextlib.suppress(FileNotFoundError):
                if path.suffix == ".plist" and path.name not in but:
                    found.append(plistlib.loads(path.read_bytes()))
        return found


class Host:
    """A running `tallyhive-mailhost serve`, its standard error kept line by line."""

    def __init__(self, world, arguments, environment=None, prefix=(), umask=-1):
        self.world = world
        # Answers of an earlier host, which this one has not taken away yet, are none of its own.
        self.before = {path.name for path in world.outbox.iterdir()} if world.outbox.is_dir() else set()
        # A file: what was said before something is seen to be done is there then.
        self.errors = tempfile.TemporaryFile()
        self.read, self.rest, self.offset = [], b"", 0
        self.process = subprocess.Popen([*prefix, *UNDER, str(HOST), "serve", *arguments], env=environment or world.environment,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.errors,
                                        text=True, errors="replace", umask=umask)

    @property
    def lines(self):
        """All that it has said by now."""
        if not self.errors.closed:
            self._read()
        return self.read

    def _read(self):
        while piece := os.pread(self.errors.fileno(), 1 << 20, self.offset):
            self.offset += len(piece)
            self.rest += piece
        *whole, self.rest = self.rest.split(b"\n")
        self.read += (line.decode(errors="replace") for line in whole)

    def _ended(self):
        return self.process.poll() is not None

    def wait_for_ready(self):
        def ready():
            if self._ended():
                raise AssertionError(f"the host has ended: {self.lines}")
            return any(message["name"] == PREFIX + "PluginReady" and "clientName" not in message["userInfo"]
                       for message in self.world.messages_in(self.world.outbox, but=self.before))
        wait_for(lambda: any("THMPMailPlugin create instance" in line for line in self.lines) and ready(), "PluginReady")

    def wait_for_line(self, text, count=1):
        wait_for(lambda: self.count(text) >= count, f"{count} x {text!r} in {self.lines[-20:]}")

    def count(self, text):
        return sum(text in line for line in self.lines)

    def send(self, number):
        self.process.send_signal(number)

    @contextlib.contextmanager
    def stopped(self):
        """Whatever is done inside finds a host that does nothing."""
        self.send(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED | os.WNOWAIT)
        yield
        self.send(signal.SIGCONT)

    def quit(self, number=signal.SIGTERM):
        """Tells it to quit; returns its exit status."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        self._read()
        self.errors.close()
        return status

    def kill(self):
        if not self._ended():
            self.process.kill()
            self.wait()


class Client:
    """A client of the exchange, written from its description alone."""

    def __init__(self, world, name):
        self.world = world
        self.name = name
        self.taken = {}  # unique name to its messages, in the order taken
        self.asked = {}  # unique name to the file of its last search
        self.batches = {}
        world.inbox.mkdir(parents=True, exist_ok=True, mode=0o700)

    def post(self, kind, _format=plistlib.FMT_BINARY, **user_info):
        user_info.setdefault("clientName", self.name)
        message = {"name": PREFIX + kind, "userInfo": {k: v for k, v in user_info.items() if v is not None}}
        return self.post_bytes(plistlib.dumps(message, fmt=_format))

    def post_bytes(self, content, name=None):
        name = name or f"{uuid.uuid4().hex}.plist"
        temporary = self.world.inbox / f"{uuid.uuid4().hex}.part"
        temporary.write_bytes(content)
        temporary.rename(self.world.inbox / name)
        return self.world.inbox / name

    def take(self, own):
        """Reads and deletes the messages in "out" that `own` claims."""
        found = []
        for path in sorted(self.world.outbox.iterdir()):
            if path.suffix != ".plist":
                continue
            try:
                message = plistlib.loads(path.read_bytes())
            except FileNotFoundError:
                continue
            if own(message):
                path.unlink()
                found.append(message)
        return found

    def connect(self, **user_info):
        token = uuid.uuid4().hex
        self.post("Connect", token=token, **user_info)
        return wait_for(lambda: self.take(lambda m: m["name"] == PREFIX + "PluginReady" and
                                          m.get("userInfo", {}).get("token") == token), "the answer to Connect")[0]

    def search(self, unique, query=None, **user_info):
        self.taken.setdefault(unique, [])
        user_info.setdefault("version", "1")
        self.asked[unique] = self.post("Search", uniqueName=unique, queryString=query, **user_info)
        return self.asked[unique]

    def look(self, unique):
        taken = self.take(lambda m: m.get("userInfo", {}).get("uniqueName") == unique)
        self.taken.setdefault(unique, []).extend(taken)
        return self.taken[unique]

    def of_kind(self, unique, kind):
        return [message["userInfo"] for message in self.look(unique) if message["name"] == PREFIX + kind]

    def wait_for_kind(self, unique, kind, count=1):
        return wait_for(lambda: len(found := self.of_kind(unique, kind)) >= count and found, f"{count} x {kind} of {unique}")

    def gathered(self, unique):
        """Waits for the end of gathering and for its request to go, which it does last; then all updates that came, in their order."""
        self.wait_for_kind(unique, "QueryDidComplete")
        if unique in self.asked:
            self.wait_taken(self.asked[unique])
        return sorted(self.of_kind(unique, "QueryHasUpdates"), key=lambda info: info["batchNumber"])

    def read(self, info, kind="ResultsBatch"):
        path = self.world.pasteboards / info["batchName"] / urllib.parse.quote(PREFIX + kind, safe="-._~")
        return plistlib.loads(path.read_bytes())

    def clear(self, info, **changes):
        return self.post("Clear", **{"uniqueName": info["uniqueName"], "batchName": info["batchName"], **changes})

    def cancel(self, unique, **changes):
        return self.post("Cancel", uniqueName=unique, **changes)

    def wait_taken(self, *paths):
        """Until the plug-in has taken the requests."""
        wait_for(lambda: not any(path.exists() for path in paths), "requests to be taken")

    def subjects(self, unique):
        """Of all results so far, batch by batch."""
        updates = sorted(self.of_kind(unique, "QueryHasUpdates"), key=lambda info: info["batchNumber"])
        return [item["attributes"].get("kMDItemSubject") for info in updates for item in self.read(info)["messages"]]


class Scenario(unittest.TestCase):
    def setUp(self):
        self.world = World()
        self.addCleanup(self.world.close)
