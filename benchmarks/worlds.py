# SPDX-License-Identifier: Apache-2.0
"""The programs that are compared, each in a world of its own below one temporary folder: ours, mu and notmuch."""
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
PATIENCE = 600.0
CRASHES = 20


class Failure(Exception):
    """What a person has to be told; ends the comparison."""


class Run:
    """One whole process: seconds to its end, seconds to its first output byte, processor seconds, peak bytes, output."""

    def __init__(self, command, environment, keep=False, crashes=False):
        begun = time.monotonic()
        self.first, self.lines, self.output = None, 0, b""
        with subprocess.Popen([str(word) for word in command], env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as process:
            try:
                while chunk := os.read(process.stdout.fileno(), 1 << 20):
                    if self.first is None:
                        self.first = time.monotonic() - begun
                    self.lines += chunk.count(b"\n")
                    if keep:
                        self.output += chunk
                _, status, usage = os.wait4(process.pid, 0)
            except BaseException:
                process.kill()
                raise
            self.seconds = time.monotonic() - begun
            process.returncode = os.waitstatus_to_exitcode(status)
        self.peak = usage.ru_maxrss * 1024
        self.processor = usage.ru_utime + usage.ru_stime
        self.status = process.returncode
        if self.status not in (0, 1) and not (crashes and self.status < 0):  # 1: nothing was found
            raise Failure(f"{command[0]} ended with {self.status}: {' '.join(map(str, command))}")


def disk_bytes(folder):
    return sum(os.lstat(os.path.join(place, name)).st_blocks * 512 for place, _, names in os.walk(folder) for name in names)


def lend_mail(source, target):
    """A second tree over the same files, so that a message can be added without touching the first."""
    def link(one, other):
        try:
            os.link(one, other)
        except OSError:
            shutil.copy2(one, other)
    shutil.copytree(source, target, copy_function=link)


class Ours:
    name = "ours"

    def __init__(self, folder, mail, build):
        self.folder, self.mail = folder, mail
        self.host_program, self.client_program = build / "bin" / "tallyhive-mailhost", build / "bin" / "tallyhive-mail"
        self.probe_program = build / "bin" / "exchange-probe"
        self.environment = dict(os.environ, HOME=str(folder), TZ="UTC", LC_ALL="C.UTF-8")
        for name in ("data", "config", "cache", "runtime"):
            (folder / name).mkdir(parents=True, mode=0o700)
            self.environment[f"XDG_{name.upper()}_{'DIR' if name == 'runtime' else 'HOME'}"] = str(folder / name)
        self.host = None
        self.log = folder / "host.log"

    def _stores(self):
        return [self.folder / "data" / "tallyhive-mailhost", self.folder / "cache" / "tallyhive-mailhost"]

    def first_index(self):
        for store in self._stores():
            shutil.rmtree(store, ignore_errors=True)
        return Run([self.host_program, "index", "--mail", self.mail], self.environment)

    def disk(self):
        return sum(map(disk_bytes, self._stores()))

    def start(self):
        with open(self.log, "wb") as log:
            self.host = subprocess.Popen([str(self.host_program), "serve"], env=self.environment, stdin=subprocess.DEVNULL,
                                         stdout=subprocess.DEVNULL, stderr=log)

    def serve(self):
        """A host that serves, its first walk over the mail at its end."""
        self.start()
        deadline = time.monotonic() + PATIENCE
        while b"the index is up to date" not in self.log.read_bytes():
            if self.host.poll() is not None or time.monotonic() > deadline:
                raise Failure(f"tallyhive-mailhost does not serve: {self.log.read_text(errors='replace')[-400:]}")
            time.sleep(0.01)

    def stop(self):
        if self.host is None:
            return
        self.host.send_signal(signal.SIGTERM)
        try:
            self.host.wait(20)
        except subprocess.TimeoutExpired:
            self.host.kill()
            self.host.wait()
        self.host = None

    def resident(self):
        for line in pathlib.Path(f"/proc/{self.host.pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
        raise Failure("the host has ended")

    def search(self, predicate):
        words = [predicate] if predicate else []
        return Run([self.client_program, "search", "--timeout", "60", "--json", *words], self.environment)

    def probe(self, *words):
        run = Run([self.probe_program, *words], self.environment, keep=True)
        if run.status != 0:
            raise Failure("exchange-probe had no answer")
        return [float(line) for line in run.output.split()]

    @staticmethod
    def contact(address):
        """All mail from or to an address."""
        return f'kMDItemAuthorEmailAddresses == "{address}"c || kMDItemRecipientEmailAddresses == "{address}"c'


class Mu:
    name = "mu"

    def __init__(self, folder, mail, batch=None):
        self.home, self.mail, self.batch = folder / f"store{batch or ''}", mail, batch
        if batch:
            self.name = f"mu, batches of {batch}"
        folder.mkdir(parents=True, exist_ok=True)
        self.environment = dict(os.environ, HOME=str(folder), MU_HOME=str(self.home), XDG_CACHE_HOME=str(folder), LC_ALL="C.UTF-8", NO_COLOR="1")

    def _command(self, *words):
        return ["mu", words[0], f"--muhome={self.home}", *words[1:]]

    def first_index(self):
        shutil.rmtree(self.home, ignore_errors=True)
        batch = [f"--batch-size={self.batch}"] if self.batch else []
        Run(self._command("init", f"--maildir={self.mail}", *batch), self.environment)
        return self.index()

    def index(self, *words):
        """mu 1.8 can crash on much mail; the next run goes on after the last commit, and its time counts too."""
        lost = 0.0
        for _ in range(CRASHES):
            run = Run(self._command("index", "--quiet", *words), self.environment, crashes=True)
            run.seconds += lost
            if run.status >= 0:
                return run
            lost = run.seconds
        raise Failure(f"mu has crashed {CRASHES} times")

    def disk(self):
        return disk_bytes(self.home)

    def find(self, query):
        return Run(self._command("find", "--format=json", query), self.environment)

    @staticmethod
    def contact(address):
        return f"contact:{address}"


class Notmuch:
    name = "notmuch"

    def __init__(self, folder, mail):
        self.store, self.configuration = folder / "store", folder / "configuration"
        folder.mkdir(parents=True)
        self.configuration.write_text(f"[database]\npath={self.store}\nmail_root={mail}\nhook_dir={folder}/hooks\n[new]\ntags=inbox\n"
                                      "[user]\nname=Robin Hale\nprimary_email=robin@hale.example.org\n[maildir]\nsynchronize_flags=true\n")
        self.environment = dict(os.environ, HOME=str(folder), NOTMUCH_CONFIG=str(self.configuration), XDG_CACHE_HOME=str(folder),
                                XDG_CONFIG_HOME=str(folder), XDG_DATA_HOME=str(folder), LC_ALL="C.UTF-8")

    def first_index(self):
        shutil.rmtree(self.store, ignore_errors=True)
        self.store.mkdir()
        return Run(["notmuch", "new", "--quiet"], self.environment)

    def disk(self):
        return disk_bytes(self.store)

    def show(self, query):
        return Run(["notmuch", "show", "--format=json", "--body=false", "--entire-thread=false", query], self.environment)


def say(text):
    print(f"  {text}", file=sys.stderr, flush=True)
