"""What is written for MRTG, collectd, telegraf and snmptt, taken by these programs themselves from
Debian's packages, against the real agent. Debian has no telegraf: its file is parsed as TOML.

usage: collectors_test.py BUILD ROOT [Collectors[.test]]
"""

import glob
import re
import sys
import tomllib
import unittest

import room
from room import INTEGRATIONS, eventually


class Collectors(unittest.TestCase):
    def setUp(self):
        self.room = room.Room(self)
        self.room.proc("meminfo", "MemTotal: 8192000 kB\nMemFree: 1024000 kB\n"
                                  "MemAvailable: 4096000 kB\nCached: 2048000 kB\n"
                                  "SwapTotal: 2048000 kB\nSwapFree: 1024000 kB\n")
        self.room.proc("loadavg", "0.50 1.25 2.00 1/80 11206\n")
        self.room.mount("/srv/one", 100, 10)
        self.room.mount("/srv/two", 100, 97)

    def start(self, more=""):
        self.room.start_snmpd(more)
        self.room.start_agent()

    def named(self, path):
        """A file of ours with this machine in it."""
        return self.room.read(f"{INTEGRATIONS}/{path}").replace("HOST", "127.0.0.1").replace(
            "COMMUNITY", "public")

    def test_mrtg(self):
        self.start()
        one = self.room
        one.ok("mkdir", "/tmp/mrtg")
        one.write("/tmp/mrtg.cfg", self.named("mrtg/vexhost.cfg").replace("/var/www/mrtg",
                                                                         "/tmp/mrtg"))
        self.assertEqual(one.run("mrtg", "--check", "/tmp/mrtg.cfg"), (0, ""))
        # The first runs complain that there is no log yet.
        for _ in range(3):
            one.ok("mrtg", "/tmp/mrtg.cfg")
        expected = {"memory": "4000 8000", "swap": "1000 2000", "load": "50 200"}
        for name, values in expected.items():
            first = one.read(f"/tmp/mrtg/vexhost-{name}.log").splitlines()[0]
            self.assertRegex(first, rf"^\d+ {values}$", name)
        # Not known: the greatest value, as the file says, and none below 0.
        one.proc("meminfo", "MemTotal: 8192000 kB\nMemFree: 1024000 kB\n")
        eventually(lambda: one.get(".1.3.6.1.4.1.4891.11.2.200.1.1.0") == "-1", 30,
                   "a kernel that does not say what is available")
        for _ in range(2):
            one.ok("mrtg", "/tmp/mrtg.cfg")
        for name in expected:
            self.assertNotIn("-", one.read(f"/tmp/mrtg/vexhost-{name}.log"), name)
        self.assertIn("shown as MaxBytes", self.named("mrtg/vexhost.cfg"))
        self.assertRegex(one.read("/tmp/mrtg/vexhost-memory.log").splitlines()[0],
                         r"^\d+ 2147483647 8000$")

    def test_collectd(self):
        self.start()
        one = self.room
        one.write("/tmp/collectd.conf",
                  "FQDNLookup false\nHostname station\nInterval 1\nPIDFile \"/tmp/collectd.pid\"\n"
                  "LoadPlugin csv\nLoadPlugin logfile\n<Plugin logfile>\nLogLevel info\n"
                  "File STDOUT\n</Plugin>\n<Plugin csv>\nDataDir \"/tmp/csv\"\n</Plugin>\n" +
                  self.named("collectd/vexhost.conf").replace("Interval 60", "Interval 1"))
        self.assertEqual(one.run("collectd", "-t", "-C", "/tmp/collectd.conf")[0], 0)
        one.start("collectd", "collectd", "-f", "-C", "/tmp/collectd.conf")

        def values():
            found = {}
            for path in glob.glob(one.path("/tmp/csv/127.0.0.1/*/*")):
                match = re.match(r".*/snmp-(\w+)/gauge(?:-(.*))?-\d{4}-\d\d-\d\d$", path)
                with open(path, encoding="utf-8") as file:
                    last = file.read().splitlines()[-1].split(",")[-1]
                if match and re.match(r"-?[\d.]+$", last):
                    found[match[1], match[2]] = float(last)
            return found

        eventually(lambda: one.runs() and ("cpu_percent_1m", "0") in values(), 120,
                   lambda: f"a processor: {values()} {one.log('collectd')}")
        found = values()
        self.assertEqual(found["memory_available_bytes", None], 4000 << 20)
        self.assertEqual(found["load5", None], 1.25)
        self.assertEqual(found["filesystem_used_percent", "_srv_two"], 97)
        self.assertEqual(found["filesystem_size_bytes", "_srv_one"], 100 << 20)
        self.assertEqual(found["filesystem_state", "_srv_one"], 1)
        # Not known yet: no value, and none below 0 anywhere.
        self.assertNotIn(("cpu_percent_1h", "0"), found)
        self.assertEqual({k: v for k, v in found.items() if v < 0}, {})
        self.assertNotIn("rror", one.log("collectd"))
        one.stop("collectd")

    def test_telegraf(self):
        self.start()
        with open(self.room.path(f"{INTEGRATIONS}/telegraf/vexhost.conf"), "rb") as file:
            parsed = tomllib.load(file)
        [snmp] = parsed["inputs"]["snmp"]
        [starlark] = parsed["processors"]["starlark"]
        self.assertIn("def apply(metric):", starlark["source"])
        oids = [field["oid"] for field in snmp["field"]]
        self.assertGreater(len(oids), 10)
        for oid in oids:
            self.assertTrue(self.room.get(oid).lstrip("-").isdigit(), oid)
        self.assertEqual([t["name"] for t in snmp["table"]],
                         ["vexhost_cpu", "vexhost_filesystem", "vexhost_sibling"])
        for table in snmp["table"]:
            self.assertTrue(any(field.get("is_tag") for field in table["field"]))
            for field in table["field"]:
                walked = self.room.ok("snmpwalk", "-v2c", "-cpublic", "-On", "127.0.0.1",
                                      field["oid"])
                self.assertNotIn("No Such", walked, field)

    def test_snmptt_converts_the_module(self):
        """To the same as ours."""
        one = self.room
        smi = room.PREFIX + "/share/snmp/mibs:" + room.PREFIX + "/share/vexhostd/smi"
        one.ok("snmpttconvertmib", f"--in={room.PREFIX}/share/snmp/mibs/QUORIX-HOST-MIB.txt",
               "--out=/tmp/converted.conf", environment={"MIBDIRS": smi, "MIBS": "ALL"})

        def events(text):
            return re.findall(r"^EVENT (\w+) \.?([\d.]+) \"(.*)\" (\w+)\nFORMAT (.*)$", text, re.M)

        converted = events(one.read("/tmp/converted.conf"))
        self.assertEqual(len(converted), 2)
        self.assertEqual(converted, events(one.read(f"{INTEGRATIONS}/snmptt/snmptt.conf")))

    def test_snmptt(self):
        one = self.room
        one.write("/tmp/snmptt.ini",
                  "[General]\nmode = standalone\nnet_snmp_perl_enable = 0\n"
                  "[Logging]\nlog_enable = 1\nlog_file = /tmp/snmptt.log\nstdout_enable = 0\n"
                  "syslog_enable = 0\nunknown_trap_log_enable = 1\n"
                  "unknown_trap_log_file = /tmp/unknown.log\n"
                  f"[TrapFiles]\nsnmptt_conf_files = <<END\n{INTEGRATIONS}/snmptt/snmptt.conf\n"
                  "END\n")
        # Our own file for snmptrapd, with the line that it has as a comment.
        conf = one.read(f"{INTEGRATIONS}/snmptrapd/vexhost.conf").replace("change-this", "public")
        handler = re.search(r"^# (traphandle default .*snmptt)$", conf, re.M)[1]
        one.write("/tmp/snmptrapd.conf", conf + handler + " --ini=/tmp/snmptt.ini\n")
        one.start("snmptrapd", "snmptrapd", "-f", "-Lo", "-C", "-c", "/tmp/snmptrapd.conf",
                  "udp:127.0.0.1:162")
        self.start("trap2sink 127.0.0.1 public\n")
        one.ok("snmpset", "-v2c", "-cprivate", "127.0.0.1", ".1.3.6.1.4.1.4891.11.2.1.3.0", "s",
               "by the way")

        def logged():
            try:
                return one.read("/tmp/snmptt.log")
            except FileNotFoundError:
                return ""

        eventually(lambda: "by the way" in logged(), 60,
                   lambda: f"a trap: {logged()} {one.log('snmptrapd')}")
        one.ok("snmptrap", "-v2c", "-cpublic", "127.0.0.1", "", ".1.3.6.1.4.1.4891.0.11020",
               ".1.3.6.1.4.1.4891.250.1", "s", "made up")
        eventually(lambda: "made up" in logged(), 60, "another")
        self.assertRegex(logged(), r"\.1\.3\.6\.1\.4\.1\.4891\.0\.11003 INFORMATIONAL "
                                   r"\"Status Events\" .*by the way")
        self.assertRegex(logged(), r"\.1\.3\.6\.1\.4\.1\.4891\.0\.11020 WARNING "
                                   r"\"Status Events\" .*has changed: made up")


if __name__ == "__main__":
    sys.exit(room.main(__doc__))
