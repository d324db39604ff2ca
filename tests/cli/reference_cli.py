#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Help, manual page and completions of both programs name the same commands and options, and the completions work."""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import tempfile
import unittest

from world import BUILD, CLIENT, HOST, PATIENCE, ROOT

PROGRAMS = {"tallyhive-mail": CLIENT, "tallyhive-mailhost": HOST}
FOR_ALL = {"-h", "--help", "--version"}


def run(*arguments):
    return subprocess.run([str(argument) for argument in arguments], capture_output=True, text=True, check=False,
                          stdin=subprocess.DEVNULL, timeout=PATIENCE)


def output_of(*arguments):
    result = run(*arguments)
    assert result.returncode == 0, f"{arguments}: {result.stderr}"
    return result.stdout


# Each gives a dictionary: the options by command, those of the program itself under "".

def section(text, heading):
    found = re.search(rf"^{heading}:\n((?:  .*\n)*)", text, re.M)
    return found.group(1) if found else ""


def options_in_help(text):
    lines = re.findall(r"^  (-[-\w,]+)", section(text, "Options"), re.M)
    return {name for names in lines for name in names.split(",")}


def from_help(program):
    top = output_of(program, "--help")
    commands = re.findall(r"^  (\w\S*)", section(top, "Subcommands"), re.M)
    return {"": options_in_help(top)} | {name: options_in_help(output_of(program, name, "--help")) for name in commands}


def bold_options(lines):
    return {name for line in lines for name in re.findall(r"\*(-[-\w]+)\*", line)}


class ManualPage:
    def __init__(self, name):
        self.text = (ROOT / f"docs/man/{name}.1.scd").read_text(encoding="utf-8")

    def part(self, heading):
        return re.search(rf"^# {heading}\n(.*?)(?=^# |\Z)", self.text, re.M | re.S).group(1)

    def described(self, text):
        return bold_options(line for line in text.splitlines() if line.startswith("*-"))

    def shared(self, text):
        return bold_options(line for line in text.splitlines() if line.startswith("Shared: "))

    def commands(self):
        return dict(re.findall(r"^## (\S+)\n(.*?)(?=^## |\Z)", self.part("COMMANDS"), re.M | re.S))

    def options(self):
        return {"": FOR_ALL} | {name: self.described(text) | self.shared(text) | FOR_ALL
                                for name, text in self.commands().items()}

    def synopsis(self, name):
        return set(re.findall(rf"^\*{name} (\w+)\*", self.part("SYNOPSIS"), re.M))


def from_fish(script):
    found = {"": set()}
    for line in script.splitlines():
        match = re.match(r"complete -c \S+ -n '(not )?__fish_seen_subcommand_from ([^']*)'(.*?)(?: -d .*)?$", line)
        if not match:
            continue
        top, names, rest = match.groups()
        command = "" if top else names
        found.setdefault(command, set())
        found[command] |= {"--" + name for name in re.findall(r" -l (\S+)", rest)}
        found[command] |= {"-" + name for name in re.findall(r" -s (\S)", rest)}
        if top and (offered := re.search(r" -a (\S+)", rest)):
            found.setdefault(offered.group(1), set())
    return found


def from_zsh(script):
    def options(text):
        return set(re.findall(r"^ +'(?:\([^)]*\)|\*)(-[-\w]+)=?\[", text, re.M))
    top, rest = script.split("case $state in")
    found = {"": options(top)}
    for name, text in re.findall(r"^ +(\S+)\) _arguments -S(.*?);;$", rest, re.M | re.S):
        found[name] = options(text)
    return found


class Bash:
    """What a bash that has read the script offers, asked as readline asks it."""

    def __init__(self, name, script):
        self.name, self.script = name, script

    def offers(self, *words):
        code = ('eval "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); compopt() { :; }; '
                'function=$(complete -p "$1"); function=${function#*-F }; "${function%% *}"; printf "%s\\n" "${COMPREPLY[@]}"')
        result = run("bash", "--norc", "-c", code, "bash", self.script, self.name, *words)
        assert result.returncode == 0 and result.stderr == "", result.stderr
        return result.stdout.split()

    def options(self):
        top = self.offers("")
        commands = [word for word in top if not word.startswith("-")]
        return {"": set(top) - set(commands)} | {command: set(self.offers(command, "")) for command in commands}


class TheReference(unittest.TestCase):
    def test_manual_pages_name_what_the_programs_take(self):
        for name, program in PROGRAMS.items():
            self.assertEqual(ManualPage(name).options(), from_help(program), name)

    def test_manual_pages_describe_the_options_that_commands_share(self):
        for name in PROGRAMS:
            page = ManualPage(name)
            shared = set().union(*map(page.shared, page.commands().values()))
            self.assertEqual(page.described(page.part("SHARED OPTIONS")), shared | FOR_ALL, name)

    def test_manual_pages_show_each_command_in_their_synopsis(self):
        for name in PROGRAMS:
            self.assertEqual(ManualPage(name).synopsis(name), set(ManualPage(name).commands()))

    def test_completions_name_what_the_programs_take(self):
        for name, program in PROGRAMS.items():
            truth = from_help(program)
            self.assertGreater(len(truth), 4)
            scripts = {shell: output_of(program, "--completion", shell) for shell in ("bash", "zsh", "fish")}
            self.assertEqual(Bash(name, scripts["bash"]).options(), truth, name)
            self.assertEqual(from_zsh(scripts["zsh"]), truth, name)
            self.assertEqual(from_fish(scripts["fish"]), truth, name)

    def test_built_completions_are_those_of_the_programs(self):
        for name, program in PROGRAMS.items():
            for shell, file in (("bash", name), ("zsh", f"_{name}"), ("fish", f"{name}.fish")):
                built = (BUILD / "completions" / file).read_text(encoding="utf-8")
                self.assertEqual(built, output_of(program, "--completion", shell), file)

    def test_another_shell_is_wrong_usage(self):
        for program in PROGRAMS.values():
            result = run(program, "--completion", "csh")
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertEqual(result.stderr.count("\n"), 1)


class InBash(unittest.TestCase):
    def setUp(self):
        self.client = Bash("tallyhive-mail", output_of(CLIENT, "--completion", "bash"))
        self.host = Bash("tallyhive-mailhost", output_of(HOST, "--completion", "bash"))

    def test_offers_what_begins_as_typed(self):
        self.assertEqual(self.client.offers("sea"), ["search"])
        self.assertEqual(self.client.offers("search", "--tim"), ["--timeline", "--timeout"])
        self.assertEqual(self.host.offers("find", "a query", "--pa"), ["--paths"])

    def test_offers_values_after_a_blank_and_after_an_equals_sign(self):
        self.assertEqual(self.client.offers("search", "--color", "a"), ["auto", "always"])
        self.assertEqual(self.client.offers("search", "--color", "=", "n"), ["never"])
        self.assertEqual(self.client.offers("search", "--color", "="), ["auto", "always", "never"])

    def test_offers_nothing_where_only_the_user_knows(self):
        self.assertEqual(self.client.offers("search", "--lineage", ""), [])

    def test_offers_folders_for_mail(self):
        self.assertEqual(self.host.offers("serve", "--mail", str(ROOT / "examp")), [str(ROOT / "examples")])
        self.assertEqual(self.host.offers("serve", "--mail", str(ROOT / "READM")), [])

    def test_offers_files_for_a_report(self):
        self.assertEqual(self.client.offers("search", "--report", str(ROOT / "READM")), [str(ROOT / "README.md")])

    def test_offers_values_that_the_programs_take(self):
        for option in ("--sort", "--color"):
            words = self.client.offers("search", option, "")
            self.assertGreater(len(words), 2)
            for word in words:
                self.assertEqual(run(CLIENT, "search", "--explain", option, word, "plum").returncode, 0, word)
        for word in self.host.offers("explain", "--color", ""):
            self.assertEqual(run(HOST, "explain", "--color", word, "true").returncode, 0, word)

    def test_completes_a_line_as_it_is_typed(self):
        with tempfile.TemporaryDirectory() as folder:
            script = pathlib.Path(folder, "completion")
            script.write_text(self.client.script)
            child, terminal = pty.fork()
            if child == 0:
                os.chdir(folder)
                environment = {"PATH": os.environ["PATH"], "HOME": folder, "TERM": "dumb", "PS1": "ready> ", "INPUTRC": "/dev/null"}
                os.execvpe("bash", ["bash", "--norc", "--noprofile", "-i"], environment)
            self.addCleanup(os.close, terminal)
            self.addCleanup(os.waitpid, child, 0)
            self.read_until(terminal, "ready> ")
            os.write(terminal, b"source completion\n")
            self.read_until(terminal, "ready> ")
            os.write(terminal, b"echo; tallyhive-mail sea\t--rep\tcomp\t")
            self.read_until(terminal, "tallyhive-mail search --report completion ")
            os.write(terminal, b"\x15exit\n")

    def read_until(self, terminal, text):
        seen = ""
        while text not in seen:
            readable, _, _ = select.select([terminal], [], [], PATIENCE)
            self.assertTrue(readable, f"no {text!r} in {seen!r}")
            seen += os.read(terminal, 4096).decode()


class InOtherShells(unittest.TestCase):
    @unittest.skipUnless(shutil.which("fish"), "fish is not installed")
    def test_fish_offers_the_same(self):
        script = output_of(CLIENT, "--completion", "fish")
        offered = output_of("fish", "--no-config", "-c", f"{script}\ncomplete -C 'tallyhive-mail search --t'")
        self.assertEqual([line.split("\t")[0] for line in offered.splitlines()], ["--timeline", "--timeout"])

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh_reads_the_script(self):
        for program in PROGRAMS.values():
            self.assertEqual(output_of("zsh", "-fnc", output_of(program, "--completion", "zsh")), "")


class TheExchangePage(unittest.TestCase):
    def test_names_what_stands_in_messages_and_no_more(self):
        header = (ROOT / "messaging/message_names.h").read_text(encoding="utf-8")
        page = (ROOT / "docs/man/tallyhive-exchange.5.scd").read_text(encoding="utf-8")
        named = {name.replace("\\", "") for name in re.findall(r"\*([\w\\]+)\*", page)}
        names = set(re.findall(r'" com\.quorvane\.tallyhive\.mailplugin\.(\w+)"', header))
        keys = set(re.findall(r'Key\[\] = "(\w+)"', header)) | {"completed"}
        self.assertGreater(len(names), 12)
        self.assertGreater(len(keys), 25)
        self.assertEqual(named - {"_"}, names | keys)


if __name__ == "__main__":
    unittest.main()
