"""The packages of build/packages as files: what is in them, lintian, and building on the one for
development. What they do on a machine is in life_test.py.

usage: packages_test.py BUILD-OF-THE-PACKAGES [TestClass[.test]]
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PACKAGES = ""
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# One function of each library that has a header beside the framework's.
USER = """
#include <stddef.h>
#include <stdint.h>
#include <platform/channel.h>
#include <platform/ev.h>
#include <platform/smbios.h>
int use(void);
int use(void) {
  int status = 0;
  uint32_t length = 0, timeout = 0;
  return InitSMBIOS() + get_ev("NAME", NULL, &length) +
         TlxCiSend(NULL, NULL, 0, &status, &timeout);
}
"""


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)


def package(name):
    found = glob.glob(f"{PACKAGES}/{name}_*.deb")
    if len(found) != 1:
        raise AssertionError(f"{name}: {found}")
    return found[0]


class Files(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.root = work.name
        for name in ("vexhostd", "vexhostd-dev"):
            subprocess.run(["dpkg-deb", "-x", package(name), self.root], check=True)

    def field(self, name):
        done = run("dpkg-deb", "-f", package("vexhostd"), name)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout.strip()

    def test_what_an_administrator_looks_for_is_there(self):
        for path in ("usr/sbin/vexhostd", "usr/bin/vexreg", "usr/lib/vexhostd/libvexcommon.so",
                     "usr/lib/vexhostd/libtlxci.so", "usr/lib/vexhostd/libkelmointrfc.so",
                     "usr/lib/vexhostd/libqvev.so", "usr/share/snmp/mibs/QUORIX-MIB.txt",
                     "usr/share/snmp/mibs/QUORIX-HOST-MIB.txt",
                     "usr/share/snmp/mibs/QUORIX-APPLIANCE-MIB.txt",
                     "usr/share/snmp/mibs/QUORIX-HOST-DETAIL-MIB.txt",
                     "usr/share/man/man8/vexhostd.8.gz", "usr/share/man/man1/vexreg.1.gz",
                     "usr/share/man/man5/vexhostd.conf.5.gz",
                     "usr/share/bash-completion/completions/vexreg",
                     "usr/share/zsh/vendor-completions/_vexreg",
                     "usr/share/fish/vendor_completions.d/vexreg.fish",
                     "usr/share/vexhostd/integrations/prometheus/snmp.yml",
                     "usr/share/vexhostd/integrations/nagios/check_vexhost",
                     "usr/share/vexhostd/integrations/icinga/vexhost.conf",
                     "usr/share/vexhostd/integrations/icinga/trap-to-icinga",
                     "usr/share/vexhostd/smi/SNMPv2-SMI.txt", "usr/libexec/vexhostd-standin",
                     "usr/share/doc/vexhostd/README.md.gz",
                     "usr/share/doc/vexhostd/docs/troubleshooting.md.gz",
                     "usr/share/doc/vexhostd/docs/variables.md.gz",
                     "usr/share/doc/vexhostd/third-party-notices",
                     "etc/snmp/vexhostd.conf", "etc/snmp/snmpd.conf.d/vexhostd.conf",
                     "usr/share/doc/vexhostd/copyright", "usr/share/doc/vexhostd/changelog.gz",
                     "usr/include/vexhostd/platform/framework.h"):
            self.assertTrue(os.path.isfile(f"{self.root}/{path}"), path)

    def test_the_unit_starts_what_is_installed(self):
        # One place alone: where the suite has its units.
        [path] = [path for path in (self.root + "/lib/systemd/system/vexhostd.service",
                                    self.root + "/usr/lib/systemd/system/vexhostd.service")
                  if os.path.exists(path)]
        with open(path, encoding="utf-8") as unit:
            self.assertIn("\nExecStart=/usr/sbin/vexhostd ", unit.read())
        # What nobody has asked for is there, and neither started nor enabled by the package.
        for name in ("service", "timer"):
            self.assertTrue(os.path.isfile(f"{os.path.dirname(path)}/vexhostd-export.{name}"))
        scripts = subprocess.run(["dpkg-deb", "-I", package("vexhostd"), "postinst"], check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
        # Enabled again is what an administrator had enabled.
        self.assertIn("debian-installed 'vexhostd-export.timer'", scripts)
        self.assertNotRegex(scripts, r"deb-systemd-invoke.*vexhostd-export")

    def test_dpkg_gets_a_hook_that_goes_with_the_package(self):
        # A link, and so no conffile, which would stay after a removal.
        link = self.root + "/etc/dpkg/dpkg.cfg.d/vexhostd"
        self.assertTrue(os.path.islink(link))
        target = os.path.join("/etc/dpkg/dpkg.cfg.d", os.readlink(link))
        with open(self.root + os.path.normpath(target), encoding="utf-8") as file:
            options = [line for line in file.read().splitlines() if not line.startswith("#")]
        [hook] = options
        name, command = hook.split("=", 1)
        self.assertEqual(name, "post-invoke")
        # It may fail; dpkg must not.
        with tempfile.TemporaryDirectory() as empty:
            done = run("sh", "-c", command.replace("/var/lib/dpkg", empty + "/absent"))
            self.assertEqual((done.returncode, done.stdout), (0, ""))
            self.assertEqual(os.listdir(empty), [])

    def test_hardened_as_debian_wants_it(self):
        libraries = glob.glob("usr/lib/vexhostd/*", root_dir=self.root)
        self.assertEqual(sorted(map(os.path.basename, libraries)),
                         ["libkelmointrfc.so", "libqvev.so", "libtlxci.so", "libvexcommon.so", "vexreg-replay.so"])
        programs = ["usr/sbin/vexhostd", "usr/bin/vexreg", "usr/libexec/vexhostd-standin"] + libraries
        for path in programs:
            with self.subTest(path):
                file = f"{self.root}/{path}"
                self.assertIn("BIND_NOW", run("readelf", "-dW", file).stdout)
                self.assertIn("GNU_RELRO", run("readelf", "-lW", file).stdout)
                self.assertRegex(run("readelf", "-hW", file).stdout, r"Type: +DYN")
                # A function begins where an indirect branch may come to. (The note that says so of a
                # whole file wants it of the C library's start files as well.)
                if self.field("Architecture") == "amd64":
                    self.assertGreater(run("objdump", "-d", file).stdout.count("endbr64"), 5)

    def test_the_flags_are_the_packagers(self):
        with open(PACKAGES + "/log", encoding="utf-8") as log:
            lines = [line for line in log if " -c " in line and "agent/agent.cpp" in line]
        self.assertTrue(lines)
        for flag in ("-O2", "-fstack-clash-protection", "-fstack-protector-strong",
                     "-ffile-prefix-map="):
            self.assertIn(flag, lines[0])
        # Whatever this suite's dpkg says, alone.
        theirs = run("dpkg-buildflags", "--get", "CPPFLAGS").stdout
        [fortify] = set(re.findall(r"-D_FORTIFY_SOURCE=\d", lines[0]))
        self.assertIn(fortify, theirs.split())
        self.assertNotIn("-O0", lines[0])

    def test_a_source_package_has_nothing_that_was_built(self):
        # Straight from a tree in which somebody has been working.
        tree = self.root + "/work/tree"
        shutil.copytree(SOURCE + "/debian", tree + "/debian")
        for path in ("build/release/program", ".git/config", "scripts/build-packages"):
            os.makedirs(os.path.dirname(f"{tree}/{path}"), exist_ok=True)
            with open(f"{tree}/{path}", "w", encoding="utf-8") as file:
                file.write("something\n")
        done = run("dpkg-source", "-b", tree, cwd=self.root + "/work")
        self.assertEqual(done.returncode, 0, done.stdout)
        [made] = glob.glob(self.root + "/work/*.tar.xz")
        listed = run("tar", "-tf", made).stdout.split()
        self.assertLess({"tree/debian/control", "tree/scripts/build-packages"}, set(listed))
        # The folder itself stays, empty: another one of that name is the project's.
        self.assertEqual([path for path in listed
                          if "/.git/" in path or ("/build/" in path and path != "tree/build/")], [])

    def test_symbols_for_a_debugger_are_in_packages_of_their_own(self):
        self.assertTrue(glob.glob(PACKAGES + "/vexhostd-dbgsym_*.deb"))

    def test_recommended_is_what_the_readme_uses(self):
        self.assertEqual(self.field("Recommends"), "snmp")

    def test_each_suite_has_a_version_below_the_next_ones(self):
        version = self.field("Version")
        upstream = version.partition("~")[0]
        order = ["0.1.0", f"{upstream}~deb12u1", f"{upstream}~deb13u1", f"{upstream}~ubuntu24.04.1",
                 upstream]
        self.assertIn(version, order[1:])
        for lower, higher in zip(order, order[1:]):
            done = run("dpkg", "--compare-versions", lower, "lt", higher)
            self.assertEqual(done.returncode, 0, f"{lower} {higher}")

    def test_depends_on_snmpd_and_what_it_is_linked_with(self):
        # Since 13, some libraries have names that say how wide their time is.
        depends = [entry.split()[0].removesuffix("t64") for entry in self.field("Depends").split(",")]
        for name in ("snmpd", "libc6", "libsnmp40", "libstdc++6"):
            self.assertIn(name, depends)

    def test_what_an_administrator_changes_is_a_conffile(self):
        done = run("dpkg-deb", "-I", package("vexhostd"), "conffiles")
        self.assertEqual(sorted(done.stdout.split()),
                         ["/etc/snmp/snmpd.conf.d/vexhostd.conf", "/etc/snmp/vexhostd.conf"])

    def test_stripped_and_found_from_where_they_stand(self):
        for path in ["usr/sbin/vexhostd"] + glob.glob("usr/lib/vexhostd/*.so", root_dir=self.root):
            self.assertNotIn(".debug_info", run("readelf", "-SW", f"{self.root}/{path}").stdout)
        # Not those of the machine: there are none.
        libraries = run("ldd", self.root + "/usr/sbin/vexhostd").stdout
        for name in ("vexcommon", "tlxci", "kelmointrfc", "qvev"):
            self.assertIn(f"{self.root}/usr/sbin/../lib/vexhostd/lib{name}.so", libraries)

    def needed(self, program):
        """The libraries of the package that a program is linked with."""
        listed = re.findall(r"Shared library: \[(.*)\]", run("readelf", "-dW", program).stdout)
        return {name for name in listed
                if os.path.exists(f"{self.root}/usr/lib/vexhostd/{name}")}

    def test_an_agent_can_be_built_on_it(self):
        source = self.root + "/usr/share/doc/vexhostd-dev/examples/sibling/sibling.c"
        environment = {**os.environ, "PKG_CONFIG_SYSROOT_DIR": self.root,
                       "PKG_CONFIG_PATH": self.root + "/usr/share/pkgconfig"}
        flags = run("pkg-config", "--cflags", "--libs", "vexhostd", env=environment)
        self.assertEqual(flags.returncode, 0, flags.stdout)
        for compiler in (["cc", "-std=c11", "-D_DEFAULT_SOURCE"], ["c++", "-xc++", "-std=c++20"]):
            done = run(*compiler, "-Wall", "-Wextra", "-Werror", source, *flags.stdout.split(),
                       "-o", self.root + "/sibling")
            self.assertEqual((done.returncode, done.stdout), (0, ""))
        # The other libraries are linked where something of theirs is used, and only there.
        common = {"libvexcommon.so"}
        self.assertEqual(self.needed(self.root + "/sibling"), common)
        user = self.root + "/user.c"
        with open(user, "w", encoding="utf-8") as file:
            file.write(USER)
        done = run("cc", "-Wall", "-Wextra", "-Werror", source, user, *flags.stdout.split(),
                   "-o", self.root + "/sibling")
        self.assertEqual((done.returncode, done.stdout), (0, ""))
        self.assertEqual(self.needed(self.root + "/sibling"),
                         common | {"libkelmointrfc.so", "libqvev.so", "libtlxci.so"})
        version = run("pkg-config", "--modversion", "vexhostd", env=environment)
        self.assertEqual(version.stdout.strip(), self.field("Version").partition("~")[0])


class Lintian(unittest.TestCase):
    def lint(self, *files):
        with tempfile.TemporaryDirectory() as leavings:
            return run("lintian", "--allow-root", "-EIL", "+pedantic", "--fail-on",
                       "error,warning,info,pedantic,experimental", "--tag-display-limit", "0", *files,
                       env={**os.environ, "TMPDIR": leavings})

    def test_finds_nothing(self):
        done = self.lint(*glob.glob(PACKAGES + "/*.changes"))
        # How many were overridden is said as well.
        found = [line for line in done.stdout.splitlines() if not line.startswith("N: ")]
        self.assertEqual(found, [])

    def test_and_would_find_something(self):
        with tempfile.TemporaryDirectory() as work:
            subprocess.run(["dpkg-deb", "-R", package("vexhostd-dev"), work + "/tree"], check=True)
            os.remove(work + "/tree/usr/share/doc/vexhostd-dev/copyright")
            subprocess.run(["dpkg-deb", "-b", work + "/tree", work + "/bad.deb"], check=True,
                           stdout=subprocess.DEVNULL)
            done = self.lint(work + "/bad.deb")
            self.assertNotEqual(done.returncode, 0)
            self.assertIn("no-copyright-file", done.stdout)


if __name__ == "__main__":
    PACKAGES = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
