"""The drop-ins for a host's snmpd, as a real one takes them.

usage: settings_test.py [TestClass[.test]]   (from anywhere; the files are those of the source tree)
"""

import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DROP_INS = os.path.join(SOURCE, "integrations/snmpd")
SYSTEM = ".1.3.6.1.2.1.1.3.0"        # in the view of the station
BEYOND = ".1.3.6.1.6.3.10.2.1.3.0"   # snmpEngineTime: in no view
# As the service unit of Debian 12 and 13 has it.
DEBIAN = ["-I", "-smux,mteTrigger,mteTriggerConf"]


def drop_in(name):
    with open(os.path.join(DROP_INS, name), encoding="utf-8") as file:
        return file.read()


def commented(text, pattern):
    """What a comment has to be copied, without its mark."""
    [found] = re.findall(rf"^#\s+({pattern})$", text, re.M)
    return found


class Settings(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.work = work.name
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("127.0.0.1", 0))
            self.address = f"127.0.0.1:{taken.getsockname()[1]}"
        kept = self.work + "/kept"
        os.mkdir(kept, 0o700)
        self.environment = {"PATH": os.environ["PATH"] + ":/usr/sbin", "HOME": self.work,
                            "MIBS": "", "SNMPCONFPATH": kept, "SNMP_PERSISTENT_DIR": kept}

    def start(self, text, options, kept=""):
        """snmpd with these lines, here instead of at the host's address; what it has said once it
        listens, or has ended."""
        with open(self.work + "/kept/snmpd.conf", "w", encoding="utf-8") as file:
            file.write(kept)
        with open(self.work + "/master.conf", "w", encoding="utf-8") as file:
            file.write(text.replace("udp:192.0.2.10:161", "udp:" + self.address).replace(
                "192.0.2.1/32", "127.0.0.1"))
        log = self.work + "/log"
        with open(log, "wb") as out:
            daemon = subprocess.Popen(["snmpd", "-f", "-Lo", "-c", self.work + "/master.conf",
                                       *options], env=self.environment, stdout=out, stderr=out)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        end = time.monotonic() + 60
        while True:
            with open(log, encoding="utf-8", errors="replace") as file:
                said = file.read()
            if "NET-SNMP version" in said or daemon.poll() is not None:
                return daemon.poll() is None, said
            self.assertLess(time.monotonic(), end, said)
            time.sleep(0.1)

    def get(self, oid, *options):
        """The answer; nothing when there is none."""
        done = subprocess.run(["snmpget", "-On", "-t", "1", "-r", "3", *options, self.address, oid],
                              env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, check=False)
        return done.stdout if done.returncode == 0 and "No Such" not in done.stdout else ""


class Monitor(Settings):
    def test_says_what_it_needs_of_the_service(self):
        text = drop_in("monitor.conf")
        runs, said = self.start(text + f"agentaddress udp:{self.address}\n", DEBIAN)
        self.assertTrue(runs, said)
        self.assertIn("Unknown token: monitor", said)
        line = commented(text, "ExecStart=/.*")
        self.assertTrue(line.startswith("ExecStart=/usr/sbin/snmpd "), line)
        options = re.search(r" (-I) (\S+)", line).groups()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("127.0.0.1", 0))
            self.address = f"127.0.0.1:{taken.getsockname()[1]}"
        runs, said = self.start(text + f"agentaddress udp:{self.address}\n", options)
        self.assertTrue(runs, said)
        self.assertNotRegex(said, r"Unknown token|[Ee]rror")


class User(Settings):
    WITH = ("-v3", "-u", "monitor", "-a", "SHA", "-x", "AES")

    def test_reads_its_view_encrypted_and_no_more(self):
        text = drop_in("station-v3.conf")
        create = commented(text, "createUser .*")
        passwords = re.findall('"([^"]+)"', create)
        self.assertEqual(len(passwords), 2, create)
        private, also_private = "first password", "second password"
        runs, said = self.start(text, DEBIAN, create.replace(f'"{passwords[0]}"', f'"{private}"').replace(
            f'"{passwords[1]}"', f'"{also_private}"') + "\n")
        self.assertTrue(runs, said)
        known = (*self.WITH, "-A", private, "-X", also_private)
        self.assertIn(SYSTEM, self.get(SYSTEM, *known, "-l", "authPriv"))
        self.assertEqual(self.get(BEYOND, *known, "-l", "authPriv"), "")
        self.assertEqual(self.get(SYSTEM, *known, "-l", "authNoPriv"), "")
        # What would let it read all, unencrypted, is warned of.
        self.assertRegex(text, r"# .*net-snmp-create-v3-user")
        self.assertNotRegex(text, r"#  +net-snmp-create-v3-user")


class Stations(Settings):
    def test_both_together(self):
        """Each opens the port; the second one's line is to be left out."""
        one, two = drop_in("station.conf"), drop_in("station-v3.conf")
        runs, said = self.start(one + two, DEBIAN)
        self.assertFalse(runs, said)
        self.assertRegex(two, r"#.*station\.conf")
        runs, said = self.start(one + re.sub("^agentaddress .*\n", "", two, flags=re.M), DEBIAN)
        self.assertTrue(runs, said)
        self.assertIn(SYSTEM, self.get(SYSTEM, "-v2c", "-cchange-this"))
        self.assertEqual(self.get(BEYOND, "-v2c", "-cchange-this"), "")


if __name__ == "__main__":
    unittest.main(verbosity=2)
