"""Prometheus with snmp_exporter, from Debian's packages, against the real agent.

usage: prometheus_test.py BUILD ROOT [Promtool|Exporter|Prometheus]
"""

import ctypes
import json
import os
import re
import sys
import unittest
import urllib.parse

import room
from room import INTEGRATIONS, eventually, fetch

FILES = INTEGRATIONS + "/prometheus"
DOCUMENTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs")
API = "http://127.0.0.1:9090"
MEMORY = ("MemTotal: 8192000 kB\nMemFree: 1024000 kB\nMemAvailable: {} kB\nCached: 2048000 kB\n"
          "SwapTotal: 2048000 kB\nSwapFree: 1024000 kB\n")
# Minutes of the alerts' waiting become seconds, and what counts as old is less: this test has not
# the time. The half hour of the processors becomes a minute.
HASTE = [(r"for: \d+m", "for: 2s"), (r"\[15m\]", "[20s]"), (r"last_poll_age_seconds > 300",
                                                           "last_poll_age_seconds > 20"),
         (r"\(vexhost:cpu_utilisation:ratio30m\)", "(vexhost:cpu_utilisation:ratio1m)")]
CONFIGURATION = """
global: {scrape_interval: 2s, scrape_timeout: 2s, evaluation_interval: 1s}
rule_files: [/tmp/vexhost.rules.yml]
scrape_configs:
  - job_name: vexhost
    metrics_path: /snmp
    params: {module: [vexhost]}
    static_configs: [{targets: [127.0.0.1]}]
    relabel_configs:
      - {source_labels: [__address__], target_label: __param_target}
      - {source_labels: [__param_target], target_label: instance}
      - {target_label: __address__, replacement: "127.0.0.1:9116"}
"""
# What changes all the time, or is of the station's own.
MOVING = {"tlxHoAgentLastPoll", "tlxHoAgentPollDuration"}


class Promtool(unittest.TestCase):
    def setUp(self):
        self.room = room.Room(self)

    def test_rules(self):
        said = self.room.ok("promtool", "check", "rules", FILES + "/vexhost.rules.yml")
        self.assertRegex(said, r"SUCCESS: \d+ rules found")
        said = self.room.ok("promtool", "test", "rules", FILES + "/vexhost.rules.test.yml")
        self.assertIn("SUCCESS", said)
        # Every alert has one that fires it.
        alerts = re.findall(r"- alert: (\w+)", self.room.read(FILES + "/vexhost.rules.yml"))
        tests = self.room.read(FILES + "/vexhost.rules.test.yml")
        fired = re.findall(r"- alertname: (\w+)\n(?:(?! {6}- ).*\n)*? +exp_labels|"
                           r"- alertname: (\w+)\n.*\n +exp_alerts:\n", tests)
        self.assertEqual({a or b for a, b in fired}, set(alerts))

    def test_what_the_documents_say(self):
        """Prometheus takes the configurations that are printed there."""
        one, found = self.room, 0
        for name in ("first-station", "fleet"):
            with open(f"{DOCUMENTS}/{name}.md", encoding="utf-8") as file:
                blocks = re.findall(r"(?:^    .*\n)+", file.read(), re.M)
            for block in blocks:
                if re.match(r"    (global|rule_files|scrape_configs):", block):
                    one.write("/tmp/vexhost.rules.yml", one.read(FILES + "/vexhost.rules.yml"))
                    one.write("/tmp/printed.yml", re.sub("^    ", "", block, flags=re.M))
                    said = one.ok("promtool", "check", "config", "/tmp/printed.yml")
                    self.assertIn("SUCCESS", said)
                    found += 1
        self.assertEqual(found, 2)

    def test_a_first_station(self):
        """As the document says, in the files that Debian brings, and others' modules beside."""
        one = self.room
        with open(f"{DOCUMENTS}/first-station.md", encoding="utf-8") as file:
            section = file.read().split("\n## Prometheus\n")[1].split("\n## ")[0]
        [block] = re.findall(r"^    rule_files:.*\n(?:    .*\n)+", section, re.M)
        configuration = one.read("/etc/prometheus/prometheus.yml")
        for key, entries in re.findall(r"^    (\w+):\n((?:     .*\n)+)", block, re.M):
            changed = re.sub(f"^{key}:\n", f"{key}:\n" + re.sub("^    ", "", entries, flags=re.M),
                             configuration, flags=re.M)
            self.assertNotEqual(changed, configuration, key)
            configuration = changed
        self.assertIn("vexhost", configuration)
        one.write("/etc/prometheus/prometheus.yml", configuration)
        one.write("/etc/prometheus/vexhost.rules.yml", one.read(FILES + "/vexhost.rules.yml"))
        said = one.ok("promtool", "check", "config", "/etc/prometheus/prometheus.yml")
        self.assertRegex(said, r"SUCCESS: \d+ rules found")
        self.assertIn("job_name: node", configuration)
        self.assertIn("job_name: vexhost", configuration)
        # The command that brings the module keeps another one.
        one.write("/etc/prometheus/snmp.yml", "other:\n  walk: [1.3.6.1.2.1.1]\n")
        [command] = re.findall(r"^    (.*\bsnmp-0\.21\.yml.*?)(?: +#.*)?$", section, re.M)
        one.ok("sh", "-c", f"cd {FILES} && " + command.replace("sudo ", ""))
        one.start("exporter", "prometheus-snmp-exporter",
                  "--config.file=/etc/prometheus/snmp.yml", "--web.listen-address=127.0.0.1:9116")
        shown = eventually(lambda: one.runs() and fetch("http://127.0.0.1:9116/config"), 60,
                           lambda: one.log("exporter"))
        for module in ("other", "vexhost"):
            self.assertRegex(shown, rf"(?m)^{module}:$")

    def test_export(self):
        one = self.room
        one.mount("/srv/one", 100, 10)
        one.start_snmpd()
        one.start_agent()
        text = one.ok("vexreg", "export")
        self.assertGreater(text.count("\n"), 50)
        status, said = one.run("promtool", "check", "metrics", text=text)
        self.assertEqual((status, said), (0, ""))


class Exporter(unittest.TestCase):
    """snmp_exporter refuses all of a host for one sample that is no UTF-8, or comes twice."""

    def test_no_mount_costs_the_others(self):
        one = room.Room(self)
        one.mount("/srv/one", 100, 10)
        # Cut within a character in the description, of no UTF-8, alike in all that is shown.
        long = "/srv/" + "d" * 90 + "\u00e4" * 30
        twin = "/srv/" + "/".join("t" * 100 for _ in range(4))
        for name in (long.encode(), b"/srv/no\xff\xfe", (twin + "1").encode(), (twin + "2").encode()):
            os.makedirs(one.path("").encode() + name)
        with open(one.path("/etc/mtab"), "ab") as file:
            for name in (long.encode(), b"/srv/no\xff\xfe", (twin + "1").encode(),
                         (twin + "2").encode()):
                file.write(b"/dev/odd " + name + b" ext4 rw 0 0\n")
        one.start_snmpd()
        one.start_agent()
        one.start("exporter", "prometheus-snmp-exporter",
                  f"--config.file={FILES}/snmp-0.21.yml", "--web.listen-address=127.0.0.1:9116")
        url = "http://127.0.0.1:9116/snmp?module=vexhost&target=127.0.0.1"
        text = eventually(lambda: one.runs() and fetch(url), 60, lambda: one.log("exporter"))
        self.assertNotIn("An error has occurred", text)
        sizes = re.findall(r"^tlxHoFileSysSpaceTotal\{.*tlxHoMountDirectory=\"([^\"]*)\"", text, re.M)
        self.assertEqual(sorted(sizes), sorted(["/srv/one", long, "/srv/no??", twin[:255], twin[:255]]))
        self.assertIn("tlxHoMountState{", text)


def silent_mount(path):
    """A file system whose server never answers, until the descriptor is closed."""
    device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    data = f"fd={device},rootmode=40000,user_id=0,group_id=0".encode()
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(b"silent", path.encode(), b"fuse.silent", 0, data) != 0:
        raise OSError(ctypes.get_errno(), "mount")
    return device


class Prometheus(unittest.TestCase):
    def setUp(self):
        self.room = room.Room(self)

    def start_station(self):
        one = self.room
        rules = one.read(FILES + "/vexhost.rules.yml")
        for pattern, hasty in HASTE:
            changed = re.sub(pattern, hasty, rules)
            self.assertNotEqual(changed, rules, pattern)
            rules = changed
        one.write("/tmp/vexhost.rules.yml", rules)
        one.write("/tmp/prometheus.yml", CONFIGURATION)
        one.start("exporter", "prometheus-snmp-exporter",
                  f"--config.file={FILES}/snmp-0.21.yml", "--web.listen-address=127.0.0.1:9116")
        one.start("prometheus", "prometheus", "--config.file=/tmp/prometheus.yml",
                  "--storage.tsdb.path=/tmp/data", "--web.listen-address=127.0.0.1:9090",
                  f"--web.console.templates={FILES}/consoles",
                  "--web.console.libraries=/etc/prometheus/console_libraries")

    def query(self, expression):
        """[(labels, value)]"""
        answer = fetch(f"{API}/api/v1/query?" + urllib.parse.urlencode({"query": expression}))
        if answer is None:
            return []
        answer = json.loads(answer)
        self.assertEqual(answer["status"], "success", f"{expression}: {answer}")
        return [(s["metric"], float(s["value"][1])) for s in answer["data"]["result"]]

    def alerts(self):
        return sorted({labels["alertname"] for labels, _ in
                       self.query("ALERTS{alertstate=\"firing\"}")})

    def differences(self):
        """Where Prometheus has another value than the registry."""
        variables, rows = {}, []
        for name, values in self.room.dump("host/*").items():
            if re.search(r"\.\d+$", name):
                # A row beside another table's describes that one's as well.
                rows.append((name.rsplit(".", 1), values))
            else:
                variables.update(values)
        known = {(group, n): values for (group, n), values in map(
            lambda row: (tuple(row[0]), row[1]), rows)}
        beside = {"host/filesys": "host/mount", "host/swkind": "host/swver",
                  "host/fwkind": "host/fwver"}
        rows = [dict(values, **known.get((beside.get(group), n), {}))
                for (group, n), values in rows]
        found, seen = [], set()
        for labels, value in self.query("{__name__=~\"tlx.*\"}"):
            name = labels["__name__"]
            known = {k: v for k, v in labels.items() if k.startswith("tlx") and not
                     k.endswith("Row")}
            seen.add(name)
            if name in MOVING:
                continue
            if name in variables:
                expected = variables[name]
                if isinstance(expected, str):
                    value, expected = known.get(name, ""), expected
            else:
                match = [r for r in rows if name in r and
                         all(str(r.get(k, "")) == v for k, v in known.items())]
                expected = match[0][name] if len(match) >= 1 else None
            if value != expected:
                found.append(f"{name}{known}: {value}, not {expected}")
        for name in ("tlxHoCpuUtilMin", "tlxHoFileSysSpaceUsed", "tlxHoMountState",
                     "tlxHoSiblingHealth", "tlxHoPhysicalMemorySize", "tlxHoLoadFive",
                     "tlxHoSystemName", "tlxHoAgentStart"):
            if name not in seen:
                found.append(f"{name}: not there")
        return found

    def fires(self, name, seconds=90):
        eventually(lambda: name in self.alerts() and self.room.runs(), seconds,
                   lambda: f"{name}: {self.alerts()}")

    def ends(self, name, seconds=90):
        eventually(lambda: name not in self.alerts() and self.room.runs(), seconds,
                   lambda: f"the end of {name}: {self.alerts()}")

    def dashboard(self):
        """The expressions of the dashboard that have no sample here."""
        board = json.loads(self.room.read(INTEGRATIONS + "/grafana/vexhost.json"))
        expressions = [t["expr"].replace("$instance", "127.0.0.1")
                       for panel in board["panels"] for t in panel["targets"]]
        self.assertGreater(len(expressions), 15)
        return [e for e in expressions if not self.query(e)]

    def console(self, page):
        text = fetch(f"{API}/consoles/{page}")
        self.assertNotIn("error", text.lower())
        return re.sub(r"\s+", " ", re.sub(r"<[^>]*>", " ", text.split("</style>")[1]))

    def threshold(self, severity):
        data = bytearray(600)
        oid = b".1.3.6.1.4.1.4891.11.2.4.1.1.1.2.0"
        data[8:8 + len(oid)] = oid
        data[292], data[552] = severity, 1
        with open(self.room.path("/tmp/threshold"), "wb") as file:
            file.write(data)
        self.room.ok("vexreg", "put", "threshold/entry.1", "--data", "/tmp/threshold")

    def test_values_and_alerts(self):
        one = self.room
        one.proc("meminfo", MEMORY.format(4096000))
        one.proc("loadavg", "0.50 1.25 2.00 1/80 11206\n")
        one.proc("uptime", "350735.47 234388.90\n")
        processors = room.Processors(one, busy=True)
        self.addCleanup(processors.end)
        for directory, used in (("/srv/good", 10), ("/srv/filling", 90), ("/srv/full", 97)):
            one.mount(directory, 100, used)
        one.install_software({"kelmo": "9.2.1-4", "vexfoo": "1.0", "bash": "5.2"})
        one.start_controller()
        one.start_snmpd()
        one.start_agent()
        self.start_station()

        # What is served is what stands in the registry.
        eventually(lambda: one.runs() and self.alerts(), 60, "the first alert")
        eventually(lambda: not self.differences(), 120, lambda: self.differences()[:10])
        self.fires("VexhostFilesystemFilling")
        self.fires("VexhostFilesystemFull")
        self.fires("VexhostProcessorsBusy", 150)
        self.assertEqual(self.alerts(), ["VexhostFilesystemFilling", "VexhostFilesystemFull",
                                         "VexhostProcessorsBusy"])
        processors.busy = False

        # What the dashboard shows is there, but for what this host has not.
        self.assertEqual([e for e in self.dashboard()
                          if not re.search("tlxHoSibling|ratio5m", e)], [])
        hosts = self.console("vexhost.html")
        self.assertRegex(hosts, r"127\.0\.0\.1 unassessed|127\.0\.0\.1 normal")
        self.assertRegex(hosts, r"/dev/vdc on /srv/full, 97%")
        host = self.console("vexhost-host.html?instance=127.0.0.1")
        for words in ("VexhostFilesystemFull: /dev/vdc on /srv/full", "Load, 5 minutes 1.25",
                      "Memory 7.812GiB, available 3.906GiB", "Swap space 50% of 1.953GiB",
                      "/dev/vda on /srv/good 10% 100MiB", "Uptime 4d"):
            self.assertIn(words, host)
        # As a browser shows them, which runs the scripts of Prometheus' own page.
        seen = one.browse(f"{API}/consoles/vexhost.html", "prometheus-hosts", 900, 220)
        for words in ("127.0.0.1", "/dev/vdc on /srv/full, 97%"):
            self.assertIn(words, seen)
        seen = one.browse(f"{API}/consoles/vexhost-host.html?instance=127.0.0.1", "prometheus-host",
                          900, 830)
        for words in ("VexhostFilesystemFull: /dev/vdc on /srv/full", "Load, 5 minutes 1.25",
                      "/dev/vda on /srv/good 10% 100MiB"):
            self.assertIn(words, seen)
        seen = one.browse(f"{API}/graph?" + urllib.parse.urlencode({
            "g0.range_input": "1m", "g0.tab": "0", "g0.expr":
            "vexhost:filesystem_used:ratio"}), "prometheus-graph", 1000, 940)
        for directory in ("good", "filling", "full"):
            self.assertIn(f"/srv/{directory}", seen)

        # Each of the others fires, and all end.
        one.proc("meminfo", MEMORY.format(81920))
        self.fires("VexhostMemoryShort")
        one.proc("meminfo", MEMORY.format(4096000))

        os.makedirs(one.path("/srv/inodes"))
        room.subprocess.run(["mount", "-t", "tmpfs", "-o", "nr_inodes=20,size=10m", "room",
                             one.path("/srv/inodes")], check=True)
        for number in range(18):
            one.write(f"/srv/inodes/{number}", "")
        one.mounts["/srv/inodes"] = "/dev/vdx"
        one.list_mounts()
        self.fires("VexhostInodesShort")
        del one.mounts["/srv/inodes"]

        one.mounts["/srv/nowhere"] = "/dev/vdy"
        one.list_mounts()
        self.fires("VexhostFilesystemFailing")
        del one.mounts["/srv/nowhere"]
        one.list_mounts()
        mtab = one.read("/etc/mtab")
        one.write("/etc/mtab", mtab.replace("/srv/good ext4 rw", "/srv/good ext4 ro"))
        self.fires("VexhostFilesystemReadOnly")

        os.makedirs(one.path("/srv/silent"))
        device = silent_mount(one.path("/srv/silent"))
        one.write("/etc/mtab", mtab + "silent /srv/silent fuse.silent rw 0 0\n")
        self.fires("VexhostFilesystemSilent")
        os.close(device)
        room.subprocess.run(["umount", "--lazy", one.path("/srv/silent")], check=True)
        os.unlink(one.path("/etc/mtab"))
        self.fires("VexhostPollsFail")
        one.list_mounts()

        self.threshold(4)
        self.fires("VexhostConditionRaised")
        self.threshold(6)
        self.fires("VexhostConditionSevere")
        one.ok("vexreg", "rm", "threshold/entry.1")

        # A sibling agent: a process of its name, and what it publishes.
        room.shutil.copy(one.path("/usr/bin/sleep"), one.path("/usr/sbin/vexscsi"))
        one.ok("vexreg", "put", "scsi/mib", "int:5", "int:6", "int:3")
        one.start("sibling", "/usr/sbin/vexscsi", "1000")
        self.fires("VexhostHardwareRaised")
        self.assertRegex(self.console("vexhost-host.html?instance=127.0.0.1"), "SCSI.* raised")
        self.assertEqual([e for e in self.dashboard()
                          if not re.search("ratio5m", e)], [])
        one.ok("vexreg", "put", "scsi/mib", "int:5", "int:6", "int:4")
        self.fires("VexhostHardwareSevere")
        one.stop("sibling")
        one.ok("vexreg", "rm", "scsi/mib")

        # A poll that hangs: values are served, and get older.
        os.mkfifo(one.path("/run/hangs"))
        room.subprocess.run(["mount", "--bind", one.path("/run/hangs"), one.path("/proc/loadavg")],
                            check=True)
        self.fires("VexhostValuesOld")
        room.subprocess.run(["umount", "--lazy", one.path("/proc/loadavg")], check=True)
        with open(one.path("/run/hangs"), "w", encoding="utf-8") as file:
            file.write("0.50 1.25 2.00 1/80 11206\n")

        one.stop("vexhostd")
        self.fires("VexhostAgentGone")
        one.stop("snmpd")
        self.fires("VexhostHostGone")
        one.start_snmpd()
        one.start_agent()
        for directory in ("/srv/filling", "/srv/full"):
            one.fill(directory, 10)
        eventually(lambda: not self.alerts(), 120, lambda: f"no alert: {self.alerts()}")
        eventually(lambda: not self.differences(), 60, lambda: self.differences()[:10])


if __name__ == "__main__":
    sys.exit(room.main(__doc__))
