"""packaging/rpm/vexhostd.spec: built with the rpmbuild of Debian, then installed into a root of its
own, upgraded and removed. The root is an overlay on a plain Debian: the scripts find a shell, and the
programs the libraries that they are linked with.

usage: rpm_test.py SOURCE WORK DEBIAN [Rpm[.test]]   (WORK: where it builds; DEBIAN: build/root/root)
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = ""
WORK = ""
DEBIAN = ""
INSIDE = "VEX_RPM_TEST_INSIDE"
SPEC = "packaging/rpm/vexhostd.spec"
# Not what any compiler does by itself.
FLAGS = "-O2 -g -fstack-clash-protection -DPACKAGERS_OWN_FLAG"
PRIVATE = ("libvexcommon", "libtlxci", "libkelmointrfc", "libqvev")


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)


def build(dist, for_debuggers=False):
    """The packages of one release; Debian's rpm does not know what is installed here. Where rpm is at
    home, its macros make packages for debuggers as well; Debian's want to be told."""
    top = f"{WORK}/rpm"
    spec, options = f"{SOURCE}/{SPEC}", []
    if for_debuggers:
        with open(spec, encoding="utf-8") as file:
            text = file.read()
        spec = f"{WORK}/vexhostd.spec"
        with open(spec, "w", encoding="utf-8") as file:
            file.write(text.replace("\n%prep\n", "\n%debug_package\n\n%prep\n"))
        options = ["--define", "_debugsource_packages 1"]
    made = run("rpmbuild", "-bb", "--nodeps", "--define", f"_topdir {top}", "--define",
               f"_sourcedir {WORK}", "--define", f"optflags {FLAGS}", "--define", f"dist {dist}",
               *options, spec,
               env={**os.environ, "PATH": f"/usr/lib/ccache:{os.environ['PATH']}"})
    with open(f"{WORK}/log{dist}", "w", encoding="utf-8") as log:
        log.write(made.stdout)
    if made.returncode != 0:
        raise AssertionError(made.stdout[-4000:])


class Rpm(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        with open(f"{SOURCE}/CMakeLists.txt", encoding="utf-8") as file:
            cls.version = re.search(r"^project\(vexhostd VERSION (\S+)", file.read(), re.M).group(1)
        subprocess.run(["tar", "-C", SOURCE, "-cJf", f"{WORK}/vexhostd-{cls.version}.tar.xz",
                        "--exclude=./.git", "--exclude=./build*", "--exclude=./fuzz/corpus",
                        f"--transform=s,^\\.,vexhostd-{cls.version},", "."], check=True,
                       env={**os.environ, "XZ_OPT": "-0"})
        build(".first")
        build(".newer", for_debuggers=True)

    def package(self, dist, name="vexhostd"):
        [found] = glob.glob(f"{WORK}/rpm/RPMS/*/{name}-{self.version}-1{dist}.*.rpm")
        return found

    def ask(self, *what):
        done = run("rpm", "-qp", *what, self.package(".first"))
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout.splitlines()

    def test_the_spec_is_for_the_version_of_this_tree(self):
        with open(f"{SOURCE}/{SPEC}", encoding="utf-8") as file:
            self.assertIn(f"\nVersion:        {self.version}\n", file.read())

    def test_the_flags_are_the_packagers(self):
        with open(f"{WORK}/log.first", encoding="utf-8") as log:
            [line] = [line for line in log if " -c " in line and "/agent/agent.cpp" in line]
        for flag in FLAGS.split():
            self.assertIn(flag, line.split())
        # rpm maps the build's folders itself.
        self.assertNotIn("prefix-map", line)

    def test_debuggers_find_the_sources(self):
        listed = run("rpm", "-qpl", self.package(".newer", "vexhostd-debugsource")).stdout
        self.assertIn("/agent/agent.cpp\n", listed)
        self.assertIn("/framework/process/main_loop.cpp\n", listed)
        listed = run("rpm", "-qpl", self.package(".newer", "vexhostd-debuginfo")).stdout
        self.assertRegex(listed, r"/usr/sbin/vexhostd-\S*\.debug\n")

    def test_the_libraries_are_where_the_system_has_them_and_nobody_elses(self):
        files = self.ask("--list")
        for name in PRIVATE:
            self.assertIn(f"/usr/lib64/vexhostd/{name}.so", files)
            [line] = [line for line in self.ask("--list", "--verbose")
                      if line.endswith(f"/usr/lib64/vexhostd/{name}.so")]
            self.assertTrue(line.startswith("-rwxr-xr-x"), line)
            for line in self.ask("--provides") + self.ask("--requires"):
                self.assertNotIn(name, line)
        self.assertIn("libnetsnmp.so", "\n".join(self.ask("--requires")))
        # Nor is anything wanted for what stations run.
        self.assertNotIn("/usr/bin/env", self.ask("--requires"))

    def test_the_notices_are_a_licence(self):
        [path] = self.ask("--licensefiles")
        self.assertTrue(path.endswith("/third-party-notices"), path)

    def test_configuration(self):
        self.assertEqual(sorted(self.ask("--configfiles")),
                         ["/etc/snmp/snmpd.conf.d/vexhostd.conf", "/etc/snmp/vexhostd.conf"])
        # What may come to hold a community is not for everybody.
        [line] = [line for line in self.ask("--list", "--verbose")
                  if line.endswith(" /etc/snmp/vexhostd.conf")]
        self.assertTrue(line.startswith("-rw-r-----"), line)

    def rpm(self, *command):
        # Its database does not know what Debian's does.
        known = [] if command[0] == "--query" else ["--nodeps", "--force-debian"]
        done = run("rpm", "--root", self.root, *known, *command)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def test_installed_upgraded_and_removed(self):
        work = tempfile.mkdtemp()
        self.addCleanup(os.rmdir, work)
        self.addCleanup(subprocess.run, ["umount", "--recursive", "--lazy", work], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "vexhostd-rpm", work], check=True)
        self.root = work + "/root"
        for name in ("upper", "work", "root"):
            os.mkdir(f"{work}/{name}")
        subprocess.run(["mount", "-t", "overlay", "-o",
                        f"lowerdir={DEBIAN},upperdir={work}/upper,workdir={work}/work",
                        "vexhostd-rpm", self.root], check=True)
        configuration = self.root + "/etc/snmp/vexhostd.conf"
        snmpd = self.root + "/etc/snmp/snmpd.conf"

        # snmpd's configuration reads the folder here, so nothing is to be said.
        with open(snmpd, encoding="utf-8") as file:
            stock = file.read()
        self.assertIn("\nincludeDir /etc/snmp/snmpd.conf.d", stock)
        said = self.rpm("--install", self.package(".first"), self.package(".first", "vexhostd-devel"))
        # systemd-sysusers names the user that it made; nothing else is said.
        self.assertRegex(said, r"\A(Creating (group|user) '_vexhostd' .*\n)*\Z")
        self.assertEqual(self.rpm("--verify", "vexhostd", "vexhostd-devel"), "")
        # The programs find their libraries; vexreg has been started.
        done = run("chroot", self.root, "vexreg", "--version")
        self.assertEqual((done.returncode, done.stdout.strip().split()[-1]), (0, self.version))
        libraries = run("chroot", self.root, "ldd", "/usr/sbin/vexhostd").stdout
        for name in PRIVATE:
            self.assertIn(f"/usr/sbin/../lib64/vexhostd/{name}.so", libraries)
        with open(self.root + "/usr/lib/systemd/system/vexhostd.service", encoding="utf-8") as unit:
            self.assertIn("\nExecStart=/usr/sbin/vexhostd ", unit.read())
        with open(self.root + "/etc/snmp/snmpd.conf.d/vexhostd.conf", encoding="utf-8") as drop_in:
            self.assertIn("\nview systemview included .1.3.6.1.4.1.4891\n", drop_in.read())
        with open(self.root + "/usr/lib64/pkgconfig/vexhostd.pc", encoding="utf-8") as file:
            self.assertIn("libdir=/usr/lib64/vexhostd\n", file.read())

        # The stock snmpd.conf of these distributions does not.
        with open(snmpd, "w", encoding="utf-8") as file:
            file.write(stock.replace("includeDir", "#includeDir"))
        with open(configuration, "a", encoding="utf-8") as file:
            file.write("pollInterval 5\n")
        said = self.rpm("--upgrade", self.package(".newer"), self.package(".newer", "vexhostd-devel"))
        self.assertIn("    includeDir /etc/snmp/snmpd.conf.d\n", said)
        self.assertIn(f"vexhostd-{self.version}-1.newer", self.rpm("--query", "vexhostd"))
        with open(configuration, encoding="utf-8") as file:
            self.assertTrue(file.read().endswith("pollInterval 5\n"))

        self.rpm("--erase", "vexhostd", "vexhostd-devel")
        for path in ("usr/sbin/vexhostd", "usr/lib64/vexhostd", "usr/share/vexhostd",
                     "usr/include/vexhostd", "etc/snmp/vexhostd.conf",
                     "usr/lib/systemd/system/vexhostd.service"):
            self.assertFalse(os.path.lexists(f"{self.root}/{path}"), path)
        # What was changed is kept, under another name.
        with open(configuration + ".rpmsave", encoding="utf-8") as file:
            self.assertTrue(file.read().endswith("pollInterval 5\n"))


if __name__ == "__main__":
    if not os.environ.get(INSIDE):
        os.execvpe("unshare", ["unshare", "--mount", "--propagation", "private",
                               sys.executable, *sys.argv], {**os.environ, INSIDE: "1"})
    SOURCE = os.path.abspath(sys.argv.pop(1))
    WORK = os.path.abspath(sys.argv.pop(1))
    DEBIAN = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
