"""What packages are made from: the source package, and the description of the rpm packages as rpm reads it.
Neither is built.

usage: source_test.py SOURCE [TestClass[.test]]
"""

import glob
import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE = ""
SPEC = "packaging/rpm/vexhostd.spec"


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=True, **options).stdout


def tracked():
    listed = subprocess.run(["git", "-c", "safe.directory=*", "ls-files", "-z"], cwd=SOURCE, check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    return [path for path in listed.split("\0") if path and os.path.lexists(f"{SOURCE}/{path}")]


class Debian(unittest.TestCase):
    def test_the_source_package_has_every_file_and_nothing_that_was_built(self):
        with tempfile.TemporaryDirectory() as work:
            tree = work + "/a tree"
            os.mkdir(tree)
            files = tracked()
            subprocess.run(["tar", "-C", SOURCE, "-cf", work + "/files.tar", "--null", "-T", "-"],
                           input="\0".join(files), text=True, check=True)
            subprocess.run(["tar", "-C", tree, "-xf", work + "/files.tar", "--no-same-owner"], check=True)
            os.makedirs(tree + "/build/release/bin")
            with open(tree + "/build/release/bin/vexhostd", "w", encoding="utf-8") as file:
                file.write("built")
            run("dpkg-source", "-Zgzip", "-z1", "--build", os.path.basename(tree), cwd=work)
            [archive] = glob.glob(work + "/*.tar.gz")
            inside = {path.split("/", 1)[1] for path in run("tar", "-tf", archive).splitlines()
                      if not path.endswith("/")}
        # dpkg-source leaves out what only a clone wants.
        self.assertEqual(inside, {path for path in files if os.path.basename(path) != ".gitignore"})


class Rpm(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.spec = run("rpmspec", "-P", f"{SOURCE}/{SPEC}")

    def section(self, name):
        """What rpm makes of a section, up to the next one."""
        return re.search(rf"^%{name}\n(.*?)(?=^%[a-z]+)", self.spec, re.M | re.S).group(1)

    def test_a_removal_ends_both_units(self):
        self.assertIn(" vexhostd.service vexhostd-export.timer ", self.section("preun"))

    def test_the_scripts_have_their_own_comments(self):
        self.assertNotIn("stand-in", self.section("preun"))
        self.assertIn("stand-in", self.section("posttrans"))


if __name__ == "__main__":
    SOURCE = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
