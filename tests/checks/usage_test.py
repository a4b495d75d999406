"""Scripts that are called wrongly, or on a machine that lacks what they want, say so and do nothing.

usage: usage_test.py SOURCE
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = ""


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

    def test_without_what_they_want(self):
        for name in ("on-suite", "make-root", "fetch-vm-parts", "build-packages-in", "build-old-packages",
                     "lint-packages-in", "demo"):
            for words in ([], ["--help"]):
                with self.subTest(name, words=words):
                    status, text = said("scripts/" + name, *words)
                    self.assertEqual(status, 2, text)
                    self.assertTrue(text.startswith(name + " "), text)
                    self.assertNotIn("unbound", text)

    def test_a_suite_without_a_command(self):
        status, text = said("scripts/on-suite", "bookworm")
        self.assertEqual(status, 2, text)
        self.assertTrue(text.startswith("on-suite SUITE "), text)

    def test_parts_beside_all_of_them(self):
        for words in (["--all", "x"], ["--all", "tsan"], ["nothing"]):
            status, text = said("test", *words)
            self.assertEqual(status, 2, text)
            self.assertTrue(text.startswith("test ["), text)

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
