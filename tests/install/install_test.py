#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An install in a folder of its own: what stands where, that the programs run there, and that others can build on it."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

import world
from world import BUILD, ROOT, Scenario

CMAKE = os.environ.get("THMP_CMAKE", "cmake")
COMPILER = os.environ.get("CXX", "c++")
BUNDLE = "lib/tallyhive-mailhost/plug-ins/TallyhiveMailPlugin.mailbundle/Contents"
WARNINGS = "-Wall -Wextra -Wpedantic -Werror"


def run(*arguments, **options):
    result = subprocess.run([str(argument) for argument in arguments], capture_output=True, text=True, **options)
    assert result.returncode == 0, f"{arguments}: {result.stdout}{result.stderr}"
    return result.stdout


def blocks(kind):
    """The code of that kind in the guide for makers of clients."""
    return re.findall(rf"^```{kind}\n(.*?)^```", (ROOT / "docs/clients.md").read_text(encoding="utf-8"), re.M | re.S)


class AnInstall(Scenario):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="tallyhive-install-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        cls.prefix = cls.folder / "a prefix"
        run(CMAKE, "--install", BUILD, "--prefix", cls.prefix)
        cls.libraries = cls.one("**/libtallyhive-client.so").parent
        shutil.copy(ROOT / "docs/clients.md", cls.folder)
        cls.source = cls.folder / "source"
        cls.source.mkdir()
        (cls.source / "example.cc").write_text(blocks("cpp")[0])
        (cls.source / "CMakeLists.txt").write_text(blocks("cmake")[0])

    @classmethod
    def one(cls, pattern):
        found = list(cls.prefix.glob(pattern))
        assert len(found) == 1, f"{pattern}: {found}"
        return found[0]

    def installed(self, program):
        return self.prefix / "bin" / program

    def serve(self):
        """The installed host, which finds the plug-in by itself."""
        was = world.HOST
        world.HOST = self.installed("tallyhive-mailhost")
        self.addCleanup(setattr, world, "HOST", was)
        return self.world.serve()

    def finds_the_plum(self, program):
        plum = self.world.deliver("Plum cake")
        self.world.deliver("Apple tree")
        self.serve()
        result = self.world.run(program, timeout=60)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, f"{plum}\n", ""))

    def test_stands_where_the_system_looks(self):
        for path in ("bin/tallyhive-mail", "bin/tallyhive-mailhost", "include/tallyhive/client.h",
                     "share/systemd/user/tallyhive-mailhost.service",
                     "share/bash-completion/completions/tallyhive-mail", "share/bash-completion/completions/tallyhive-mailhost",
                     "share/zsh/site-functions/_tallyhive-mail", "share/zsh/site-functions/_tallyhive-mailhost",
                     "share/fish/vendor_completions.d/tallyhive-mail.fish",
                     "share/fish/vendor_completions.d/tallyhive-mailhost.fish",
                     f"{BUNDLE}/Info.plist", f"{BUNDLE}/Linux/TallyhiveMailPlugin.so"):
            self.assertTrue((self.prefix / path).is_file(), path)

    @unittest.skipUnless(shutil.which("scdoc"), "scdoc is not installed")
    def test_brings_its_manual(self):
        pages = {str(path.relative_to(self.prefix)) for path in self.prefix.glob("share/man/*/*")}
        self.assertEqual(pages, {"share/man/man1/tallyhive-mail.1", "share/man/man1/tallyhive-mailhost.1",
                                 "share/man/man5/tallyhive-exchange.5", "share/man/man7/tallyhive-query.7"})
        for page in pages:
            self.assertRegex((self.prefix / page).read_text(), r'(?m)^\.TH "tallyhive-')

    def test_has_one_header(self):
        self.assertEqual([path.name for path in self.prefix.glob("include/**/*.h")], ["client.h"])

    def test_runs_on_a_small_mailbox(self):
        plum = self.world.deliver("Plum cake", sender="Ada <ada@example.org>")
        self.world.deliver("Apple tree")
        self.serve()
        found = self.world.run(self.installed("tallyhive-mail"), "search", "--paths", "from:ada", "plum")
        self.assertEqual((found.returncode, found.stdout), (0, f"{plum}\n"))
        directly = self.world.run(self.installed("tallyhive-mailhost"), "find", "--paths", 'kMDItemSubject == "Plum*"')
        self.assertEqual((directly.returncode, directly.stdout), (0, f"{plum}\n"))

    def test_builds_a_client_with_cmake(self):
        build = self.folder / "with-cmake"
        run(CMAKE, "-S", self.source, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={COMPILER}",
            f"-DCMAKE_CXX_FLAGS={WARNINGS}")
        run(CMAKE, "--build", build)
        self.finds_the_plum(build / "example")

    def test_refuses_a_client_of_another_minor_version(self):
        source = self.folder / "another"
        source.mkdir()
        shutil.copy(self.source / "example.cc", source)
        (source / "CMakeLists.txt").write_text(re.sub(r"Client 0\.1 ", "Client 0.2 ", blocks("cmake")[0]))
        result = subprocess.run([CMAKE, "-S", source, "-B", source / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}",
                                 f"-DCMAKE_CXX_COMPILER={COMPILER}"], capture_output=True, text=True, check=False)
        self.assertNotEqual(result.returncode, 0)
        self.assertIn('compatible with requested version "0.2"', result.stderr)

    def test_builds_a_client_with_pkg_config(self):
        # A blank in a path is more than a command substitution carries; the prefix of a package has none.
        prefix = self.folder / "moved"
        if not prefix.exists():
            shutil.copytree(self.prefix, prefix, symlinks=True)
        libraries = prefix / self.libraries.relative_to(self.prefix)
        environment = dict(os.environ, PKG_CONFIG_PATH=str(libraries / "pkgconfig"))
        command = blocks("sh")[0].replace("c++ ", f"{COMPILER} {WARNINGS} ", 1)
        run("sh", "-ec", command, cwd=self.source, env=environment)
        self.world.environment["LD_LIBRARY_PATH"] = str(libraries)
        self.finds_the_plum(self.source / "example")

    def test_takes_nothing_along_but_the_system_s_libraries(self):
        needed = run("objdump", "-p", self.libraries / "libtallyhive-client.so")
        libraries = set(re.findall(r"NEEDED +(\S+)", needed))
        self.assertIn("libexpat.so.1", libraries)
        self.assertLessEqual(libraries, {"libexpat.so.1", "libutf8proc.so.2", "libsystemd.so.0", "libstdc++.so.6", "libm.so.6",
                                         "libgcc_s.so.1", "libc.so.6", "ld-linux-x86-64.so.2"})

    def test_shows_of_the_library_the_client_alone(self):
        symbols = run("nm", "-DC", "--defined-only", self.libraries / "libtallyhive-client.so")
        ours = {line.split(" ", 2)[2] for line in symbols.splitlines() if "tallyhive" in line or "thmp" in line}
        self.assertIn("tallyhive::Client::dispatch()", ours)
        for name in ours:
            self.assertNotIn("thmp::", name)

    def test_the_unit_starts_the_installed_program(self):
        unit = (self.prefix / "share/systemd/user/tallyhive-mailhost.service").read_text()
        self.assertIn(f'ExecStart="{self.installed("tallyhive-mailhost")}" serve\n', unit)

    def test_a_staged_install_stays_in_its_stage(self):
        stage = self.folder / "stage"
        run(CMAKE, "--install", BUILD, "--prefix", "/usr", env=dict(os.environ, DESTDIR=str(stage)))
        self.assertEqual([entry.name for entry in stage.iterdir()], ["usr"])
        self.assertTrue((stage / "usr" / BUNDLE / "Info.plist").is_file())
        unit = stage / "usr/share/systemd/user/tallyhive-mailhost.service"
        self.assertIn('ExecStart="/usr/bin/tallyhive-mailhost" serve\n', unit.read_text())


if __name__ == "__main__":
    unittest.main()
