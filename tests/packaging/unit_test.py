"""The service's unit as it is installed: what systemd says of it, and what it must not have.

usage: unit_test.py BUILD [TestClass[.test]]   (BUILD: a build tree)
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

BUILD = ""
# systemd.exec(5) of systemd 252: whatever gives a service mounts of its own, by itself or because it
# implies another one. ProtectHostname and ProtectClock do not; PrivateNetwork does in later ones.
# Credentials are a mount in the host's own table. Three ...Directories are older names of ...Paths.
OWN_MOUNTS = """
    BindLogSockets BindPaths BindReadOnlyPaths DynamicUser ExecPaths ExtensionDirectories
    ExtensionImages ImportCredential InaccessibleDirectories InaccessiblePaths IPCNamespacePath
    LoadCredential LoadCredentialEncrypted LogNamespace MountAPIVFS MountFlags MountImages
    NetworkNamespacePath NoExecPaths PrivateDevices PrivateIPC PrivateMounts PrivateNetwork
    PrivatePIDs PrivateTmp PrivateUsers ProcSubset ProtectControlGroups ProtectHome
    ProtectKernelLogs ProtectKernelModules ProtectKernelTunables ProtectProc ProtectSystem
    ReadOnlyDirectories ReadOnlyPaths ReadWriteDirectories ReadWritePaths RootDirectory
    RootEphemeral RootHash RootHashSignature RootImage RootImageOptions RootVerity SetCredential
    SetCredentialEncrypted TemporaryFileSystem""".split()
# Out of ten; the comparable daemons of Debian 12 are between 6.0 and 9.6. The three capabilities of the
# SNMP process's starter, which take rights away, count as if the agent had them: 0.6.
WORST_SCORE = 4.2


def assignments(unit):
    return [tuple(line.split("=", 1)) for line in unit.splitlines()
            if "=" in line and not line.startswith(("#", ";"))]


def own_mounts(unit):
    """The options of the unit that give the service mounts of its own."""
    return [name for name, _ in assignments(unit) if name.strip() in OWN_MOUNTS]


def analyze(*arguments, **environment):
    return subprocess.run(["systemd-analyze", *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False,
                          env={**os.environ, **environment})


class Installed(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.prefix = os.path.join(work.name, "tree")
        subprocess.run(["cmake", "--install", BUILD, "--prefix", self.prefix], check=True,
                       stdout=subprocess.DEVNULL)
        self.path = os.path.join(self.prefix, "lib/systemd/system/vexhostd.service")
        with open(self.path, encoding="utf-8") as file:
            self.unit = file.read()

    def write(self, unit):
        with open(self.path, "w", encoding="utf-8") as file:
            file.write(unit)

    def all_of(self, name):
        return [value for key, value in assignments(self.unit) if key == name]


class Unit(Installed):
    def verify(self):
        # Looks for the manual pages as well.
        run = analyze("verify", self.path, MANPATH=self.prefix + "/share/man")
        return run.returncode, run.stdout

    def test_systemd_has_nothing_to_say(self):
        self.assertEqual(self.verify(), (0, ""))

    def test_nor_of_what_writes_for_node_exporter(self):
        for kind in ("service", "timer"):
            path = self.path.replace("vexhostd.service", f"vexhostd-export.{kind}")
            run = analyze("verify", path, MANPATH=self.prefix + "/share/man")
            self.assertEqual((run.returncode, run.stdout), (0, ""))
            with open(path, encoding="utf-8") as file:
                unit = dict(assignments(file.read()))
            if kind == "service":
                self.assertTrue(unit["ExecStart"].startswith(self.prefix + "/bin/vexreg export "))

    def test_and_would_say_it(self):
        for bad in (self.unit.replace("UMask=", "Umask="),
                    self.unit.replace("/sbin/vexhostd", "/sbin/vexhost"),
                    self.unit.replace("@resources", "@resource"),
                    self.unit.replace("man:vexhostd(8)", "man:vexhost(8)")):
            self.assertNotEqual(bad, self.unit)
            self.write(bad)
            self.assertNotEqual(self.verify(), (0, ""))

    def test_the_program_is_the_one_beside_it(self):
        program, option = self.all_of("ExecStart")[0].split(" ", 1)
        self.assertEqual(program, self.prefix + "/sbin/vexhostd")
        self.assertTrue(os.access(program, os.X_OK))
        self.assertTrue(option)

    def test_the_prefix_is_the_one_on_the_machine_when_the_tree_is_staged(self):
        with tempfile.TemporaryDirectory() as stage:
            subprocess.run(["cmake", "--install", BUILD, "--prefix", "/usr"], check=True,
                           stdout=subprocess.DEVNULL, env={**os.environ, "DESTDIR": stage})
            with open(stage + "/usr/lib/systemd/system/vexhostd.service", encoding="utf-8") as unit:
                self.assertIn("\nExecStart=/usr/sbin/vexhostd ", unit.read())

    def test_it_tells_systemd_and_comes_back(self):
        self.assertEqual(self.all_of("Type"), ["notify"])
        self.assertEqual(self.all_of("Restart"), ["on-failure"])
        self.assertRegex(self.all_of("WatchdogSec")[0], r"^[1-9][0-9]*s$")

    def test_it_comes_after_snmpd_and_does_not_fall_with_it(self):
        self.assertEqual(self.all_of("After"), ["snmpd.service"])
        self.assertEqual(self.all_of("Wants"), ["snmpd.service"])
        for bond in ("Requires", "Requisite", "BindsTo", "PartOf", "Upholds"):
            self.assertEqual(self.all_of(bond), [])


class Hardening(Installed):
    def score(self):
        run = analyze("security", "--offline=yes", "--no-pager", self.path)
        self.assertEqual(run.returncode, 0, run.stdout)
        return float(re.search(r"Overall exposure level .*: ([0-9.]+) ", run.stdout).group(1))

    def test_the_score_stays_good(self):
        score = self.score()
        print(f"systemd-analyze security: {score} (at most {WORST_SCORE})")
        self.assertLessEqual(score, WORST_SCORE)
        threshold = analyze("security", "--offline=yes", "--no-pager",
                            f"--threshold={int(WORST_SCORE * 10)}", self.path)
        self.assertEqual(threshold.returncode, 0)

    def test_and_would_get_worse(self):
        self.write("\n".join(line for line in self.unit.splitlines()
                             if not line.startswith("CapabilityBoundingSet=")))
        self.assertGreater(self.score(), WORST_SCORE)

    def test_no_mounts_of_its_own(self):
        self.assertEqual(own_mounts(self.unit), [])

    def test_and_each_option_would_be_noticed(self):
        for option in OWN_MOUNTS:
            bad = self.unit.replace("[Install]", f"{option}=yes\n[Install]")
            self.assertEqual(own_mounts(bad), [option])


if __name__ == "__main__":
    BUILD = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
