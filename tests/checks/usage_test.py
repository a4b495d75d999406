"""Scripts that are called wrongly, or on a machine that lacks what they want, say so and do nothing.

usage: usage_test.py SOURCE
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = ""
# Programs that nobody calls by hand, by how their paths begin: why they need not explain themselves.
CALLED_BY_OTHERS = {
    ".ci/run": "the machine that builds every change calls it as it is",
    "debian/": "dpkg-buildpackage and autopkgtest call what is there",
    "integrations/icinga/trap-to-icinga": "snmptrapd calls it for each notification",
    "integrations/zabbix/trap-to-zabbix": "snmptrapd calls it for each notification",
    "mibs/generate-mib-table": "the build calls it",
    "tests/captures/replay": "ctest calls it, with a folder of the build",
    "tests/contrib/bulk_test.py": "unittest's own options",
    "tests/heavy/completion-in-shells": "ctest calls it, with a program of the build",
    "tests/heavy/report-in-browser": "ctest calls it, with a program of the build",
    "tests/vm/": "ctest and scripts/proof call what is there, or it runs in the virtual machine",
}
PASSES_OPTIONS_ON = {"scripts/build-packages": "to dpkg-buildpackage"}
# argparse's own words are good enough for who calls it on a station.
WITH_WORDS_OF_ITS_OWN = {"integrations/nagios/check_vexhost"}


def programs():
    """Every one in the tree, but for what is built in it."""
    for place, folders, files in os.walk(SOURCE):
        folders[:] = [f for f in folders
                      if not (f in (".git", ".cache", "node_modules", "__pycache__")
                              or place == SOURCE and f.startswith(("build", "obj-")))]
        for name in files:
            path = os.path.join(place, name)
            if os.path.isfile(path) and os.access(path, os.X_OK):
                with open(path, "rb") as file:
                    if file.read(2) == b"#!":
                        yield os.path.relpath(path, SOURCE)


def called_by_hand():
    return sorted(p for p in programs() if not p.startswith(tuple(CALLED_BY_OTHERS)))


def begins(program):
    """How what it says of itself begins, up to the colon."""
    with open(f"{SOURCE}/{program}", encoding="utf-8") as file:
        text = file.read(4000).split("\n", 1)[1].lstrip('#" ')
    return " ".join(text.split(":")[0].split())


def alone(program, *words):
    """Calls it where it can do no harm, should it not refuse: the tree cannot be written, and there is
    no network. Its exit status, its output and its errors."""
    done = subprocess.run(
        ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "sh", "-euc",
         'mount --bind "$1" "$1"; mount -o remount,ro,bind "$1"; cd "$1"; shift; exec timeout 60 "$@"',
         "sh", SOURCE, "./" + program, *words],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    return done.returncode, done.stdout, done.stderr


def said(*command, path=None):
    """Its exit status and its words; a path is looked into before all others."""
    environment = {**os.environ, "PATH": (path + ":" if path else "") + os.environ["PATH"]}
    done = subprocess.run(["timeout", "60", f"{SOURCE}/{command[0]}", *command[1:]], env=environment,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


class Usage(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        os.chmod(work.name, 0o755)
        self.work = work.name

    def program(self, name, text):
        with open(f"{self.work}/{name}", "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(f"{self.work}/{name}", 0o755)

    def refuses(self, program, *words):
        """It says in one line how it is called, and does nothing."""
        status, output, errors = alone(program, *words)
        self.assertEqual((status, output), (2, ""), errors)
        self.assertTrue(errors.startswith("usage: " + begins(program)), errors)
        self.assertEqual(errors.count("\n"), 1, errors)

    def test_each_says_what_it_does(self):
        for program in called_by_hand():
            with self.subTest(program):
                status, output, errors = alone(program, "--help")
                self.assertEqual((status, errors), (0, ""), output)
                self.assertIn(os.path.basename(program), output.split("\n", 1)[0])
                if program not in WITH_WORDS_OF_ITS_OWN:
                    self.assertIn(":", output.split("\n\n", maxsplit=1)[0])
                    self.assertEqual(" ".join(output.split(":")[0].split()), begins(program))

    def test_options_that_they_do_not_know(self):
        for program in called_by_hand():
            if program not in {*PASSES_OPTIONS_ON, *WITH_WORDS_OF_ITS_OWN}:
                with self.subTest(program):
                    self.refuses(program, "--nonsense")

    def test_words_where_none_is_wanted(self):
        without = [p for p in called_by_hand() if not re.search(r"\b[A-Z]+\b", begins(p))]
        self.assertIn("run", without)
        for program in without:
            if program not in {*PASSES_OPTIONS_ON, *WITH_WORDS_OF_ITS_OWN}:
                with self.subTest(program):
                    self.refuses(program, "nonsense")

    def test_names_and_numbers_that_are_none(self):
        for program, *words in (("scripts/build-matrix", "gcc-Debug", "gcc-x"), ("scripts/fuzz",),
                                ("scripts/fuzz", "x"), ("scripts/fuzz", "--minutes"),
                                ("scripts/fuzz", "--keep", "--minutes", "x"),
                                ("scripts/measure", "/nonexistent"), ("scripts/measure", "--beside"),
                                ("scripts/measure", "--beside", "/nonexistent"),
                                ("scripts/cross-arm64", "--inside", "x"),
                                ("scripts/soak", "--minutes", "1", "/nonexistent"),
                                ("scripts/measure-vexreg", "x"), ("contrib/net-snmp/measure", "1", "2", "3")):
            with self.subTest(program, words=words):
                self.refuses(program, *words)
        status, output, errors = alone("scripts/proof", "sets", "x")
        self.assertEqual((status, output, errors), (2, "", "proof: there is no proof x\n"))

    def test_exceptions_that_are_none(self):
        every = list(programs())
        for path in (*CALLED_BY_OTHERS, *PASSES_OPTIONS_ON, *WITH_WORDS_OF_ITS_OWN):
            self.assertTrue(any(p.startswith(path) for p in every), path)

    def test_without_what_they_want(self):
        for name in ("on-suite", "make-root", "fetch-vm-parts", "build-packages-in", "build-old-packages",
                     "lint-packages-in", "demo"):
            with self.subTest(name):
                self.refuses("scripts/" + name)

    def test_a_suite_without_a_command(self):
        self.refuses("scripts/on-suite", "bookworm")

    def test_parts_beside_all_of_them(self):
        for words in (["--all", "x"], ["--all", "tsan"], ["nothing"]):
            self.refuses("test", *words)

    def test_a_list_that_does_not_exist(self):
        status, text = said("scripts/install-packages", "build", "tests")
        self.assertEqual((status, text.count("\n")), (2, 1), text)
        self.assertIn("no list tests", text)

    def test_package_archives_that_cannot_be_reached(self):
        self.program("dpkg-query", "exit 1\n")
        self.program("apt-get", "echo 'W: Failed to fetch http://deb.invalid/InRelease' >&2\n")
        self.program("apt-cache", "exit 0\n")
        status, text = said("scripts/install-packages", "build", path=self.work)
        self.assertEqual(status, 1, text)
        self.assertIn("Failed to fetch http://deb.invalid/InRelease", text)
        self.assertIn("Needed: the network", text)

    def test_a_root_that_cannot_be_made_leaves_nothing(self):
        # This process's own network, without an interface that is up.
        done = subprocess.run(["unshare", "--net", f"{SOURCE}/scripts/make-root", self.work + "/root"],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertIn("Needed: the network", done.stdout)
        self.assertEqual(os.listdir(self.work + "/root"), ["lock"])

    def test_a_user_without_sudo(self):
        # A tree that anybody may read, on a machine without that program.
        tree = self.work + "/tree"
        os.mkdir(tree)
        for name in ("run", "test", "scripts", "packages"):
            copy = shutil.copytree if os.path.isdir(f"{SOURCE}/{name}") else shutil.copy
            copy(f"{SOURCE}/{name}", f"{tree}/{name}")
        os.mkdir(self.work + "/usr")
        for command in (["./run"], ["./test", "checks"], ["scripts/on-suite", "bookworm", "true"],
                        ["scripts/make-root", self.work + "/root"]):
            with self.subTest(command[0]):
                done = subprocess.run(
                    ["unshare", "--mount", "sh", "-euc", f"""
                        mount -t tmpfs tmpfs {self.work}/usr
                        mkdir {self.work}/usr/up {self.work}/usr/work
                        mount -t overlay overlay -o lowerdir=/usr/bin,upperdir={self.work}/usr/up,\
workdir={self.work}/usr/work /usr/bin
                        rm -f /usr/bin/sudo
                        cd {tree}
                        exec setpriv --reuid=65534 --regid=65534 --clear-groups timeout 60 "$@" """,
                     "sh", *command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                    check=False)
                self.assertEqual(done.returncode, 1, done.stdout)
                self.assertIn("not root, and there is no sudo", done.stdout)
                self.assertEqual(done.stdout.count("\n"), 1, done.stdout)


if __name__ == "__main__":
    SOURCE = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
