"""The plugin under a real Icinga 2 with the configuration that we ship, from Debian's packages.

usage: icinga_test.py BUILD ROOT [Icinga[.test]]
"""

import base64
import json
import re
import ssl
import sys
import unittest
import urllib.error
import urllib.request

import room
from room import INTEGRATIONS, eventually

API = "https://localhost:5665/v1/"
CHECKS = ("filesystems", "inodes", "mounts", "cpu", "memory", "swap", "load", "condition",
          "siblings", "age")
MEMORY = ("MemTotal: 8192000 kB\nMemFree: 1024000 kB\nMemAvailable: 4096000 kB\n"
          "Cached: 2048000 kB\nSwapTotal: 2048000 kB\nSwapFree: 1024000 kB\n")
HOST = """
object Host "server" {
  import "generic-host"
  check_command = "dummy"
  address = "127.0.0.1"
  vars.vexhost = true
  vars.vexhost_config = "/etc/icinga2/vexhost.secret"
  vars.vexhost_limits["swap"] = { vexhost_warning = "40", vexhost_critical = "60" }
  vars.vexhost_limits["cpu"] = { vexhost_window = "1m" }
  vars.vexhost_limits["mounts"] = { vexhost_exclude = [ "/srv/g*", "/srv/nothing" ] }
}
object ApiUser "test" { password = "made up", permissions = [ "*" ] }
object ApiUser "traps" {
  password = "traps' own"
  permissions = [ "actions/process-check-result" ]
}
"""
OK, WARNING, CRITICAL, UNKNOWN = range(4)


class Icinga(unittest.TestCase):
    def setUp(self):
        self.room = room.Room(self)

    # ---- The station

    def start_station(self):
        one = self.room
        one.ok("install", INTEGRATIONS + "/nagios/check_vexhost", "/usr/lib/nagios/plugins/")
        one.write("/etc/icinga2/vexhost.secret", "community=public\n", 0o400)
        one.ok("chown", "nagios", "/etc/icinga2/vexhost.secret")
        # From the overlay's lower layer into the upper one it cannot copy it.
        one.write("/etc/icinga2/constants.conf", one.read("/etc/icinga2/constants.conf"))
        one.ok("icinga2", "api", "setup", "--cn", "localhost")
        for name in ("hosts", "services", "apt", "notifications", "downtimes"):
            one.write(f"/etc/icinga2/conf.d/{name}.conf", "")
        # A minute between two checks becomes two seconds.
        templates = one.read("/etc/icinga2/conf.d/templates.conf")
        hasty = re.sub(r"_interval = \w+", "_interval = 2s",
                       templates.replace("max_check_attempts = 5", "max_check_attempts = 2"))
        self.assertNotEqual(hasty, templates)
        one.write("/etc/icinga2/conf.d/templates.conf", hasty)
        one.write("/etc/icinga2/conf.d/server.conf", HOST)
        one.write("/etc/icinga2/conf.d/vexhost.conf",
                  one.read(INTEGRATIONS + "/icinga/vexhost.conf"))
        one.write("/etc/icinga2/traps.secret",
                  "url=https://localhost:5665\nuser=traps\npassword=traps' own\n"
                  "ca=/var/lib/icinga2/certs/ca.crt\n", 0o400)
        one.ok("/usr/lib/icinga2/prepare-dirs", "/etc/default/icinga2")
        checked = one.ok("icinga2", "daemon", "-C")
        self.assertNotRegex(checked, r"\] (warning|critical)/", checked)
        one.start("icinga2", "icinga2", "daemon", "-x", "warning")
        eventually(lambda: one.runs() and self.ask("status"), 60, lambda: one.log("icinga2"))

    def ask(self, path, body=None, user="test:made up"):
        """The results; nothing while nobody answers."""
        context = ssl.create_default_context(
            cafile=self.room.path("/var/lib/icinga2/certs/ca.crt"))
        request = urllib.request.Request(
            API + path, data=json.dumps(body).encode() if body else None,
            headers={"Accept": "application/json",
                     "Authorization": "Basic " + base64.b64encode(user.encode()).decode()})
        try:
            with urllib.request.urlopen(request, timeout=30, context=context) as answer:
                return json.load(answer)["results"]
        except urllib.error.HTTPError:
            raise
        except OSError:
            return None

    def services(self):
        return {o["attrs"]["name"]: o["attrs"] for o in self.ask("objects/services")}

    def state(self, check):
        """Its state once it is certain, and what the plugin has said."""
        service = self.services()["vexhost " + check]
        result = service["last_check_result"]
        if not result or service["state_type"] != 1:
            return None, ""
        return int(service["state"]), result["output"].strip()

    def becomes(self, check, state, words, seconds=90):
        def reached():
            is_now, said = self.state(check)
            return self.room.runs() and is_now == state and re.search(words, said)
        return eventually(reached, seconds, lambda: f"{check}: {self.state(check)} "
                          f"{self.room.log('icinga2')}")

    def performance(self, check):
        """{label: [value, warning, critical, least, most]}, in the plugin's own unit."""
        result = self.services()["vexhost " + check]["last_check_result"]
        found = {}
        for item in result["performance_data"]:
            match = re.fullmatch(r"'?([^'=]+)'?=(-?[\d.]+)([A-Za-z%]*);?(.*)", item)
            self.assertIsNotNone(match, item)
            found[match[1]] = [float(match[2]), *match[4].split(";")]
        return found

    # ---- The test

    def test_checks(self):
        one = self.room
        one.proc("meminfo", MEMORY)
        one.proc("loadavg", "0.50 1.25 2.00 1/80 11206\n")
        processors = room.Processors(one, busy=True)
        self.addCleanup(processors.end)
        for directory, used in (("/srv/good", 10), ("/srv/full", 97)):
            one.mount(directory, 100, used)
        conf = one.read(INTEGRATIONS + "/snmptrapd/vexhost.conf").replace("change-this", "public")
        one.write("/tmp/snmptrapd.conf", conf + "traphandle default "
                  f"{INTEGRATIONS}/icinga/trap-to-icinga /etc/icinga2/traps.secret\n")
        one.start("snmptrapd", "snmptrapd", "-f", "-Lo", "-C", "-m", "", "-c", "/tmp/snmptrapd.conf",
                   "udp:127.0.0.1:162")
        one.start_snmpd("trap2sink 127.0.0.1 public\n")
        one.start_agent()
        self.start_station()

        # Notifications become passive results.
        one.ok("snmpset", "-v2c", "-cprivate", "127.0.0.1", ".1.3.6.1.4.1.4891.11.2.1.3.0", "s",
               "by | the \"way\"")
        self.told(OK, r"^tlxHoTestNotification: .*by \? the \"way\"$")
        one.ok("snmptrap", "-v2c", "-cpublic", "127.0.0.1", "", ".1.3.6.1.4.1.4891.0.11020",
               ".1.3.6.1.4.1.4891.250.1", "s", "made up")
        self.told(WARNING, r"^tlxHoHealthNotification: made up$")
        # Another's trap is nobody's, and a sender that Icinga does not know is said to be one.
        handler = [INTEGRATIONS + "/icinga/trap-to-icinga", "/etc/icinga2/traps.secret"]
        trap = ".1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.4.1.4891.0.11020\n.1.3.6.1.4.1.4891.250.1 \"x\"\n"
        sender = "there\nUDP: [{}]:1234->[127.0.0.1]:162\n"
        self.assertEqual(one.run(*handler, text=sender.format("127.0.0.1") +
                                 trap.replace("4891.0", "4892.0")), (0, ""))
        self.assertEqual(one.run(*handler, text=sender.format("192.0.2.9") + trap),
                         (1, "trap-to-icinga: no host of Icinga's has the address 192.0.2.9\n"))
        self.told(WARNING, r"^tlxHoHealthNotification: made up$")

        # Each is a service with a state, and with values that are the agent's own.
        self.assertEqual({name for name in self.services()},
                         {"vexhost " + check for check in CHECKS} | {"vexhost notifications"})
        self.becomes("filesystems", CRITICAL, r"^VEXHOST CRITICAL - /srv/full 97 % full$")
        rows = {o["tlxHoMountDirectory"]: one.dump(f"host/filesys.{n.rsplit('.', 1)[1]}")
                for n, o in one.dump("host/mount.*").items()}
        figures = self.performance("filesystems")
        self.assertEqual(set(figures), {"/srv/good", "/srv/full"})
        for directory, row in rows.items():
            [row] = row.values()
            used, total = row["tlxHoFileSysSpaceUsed"], row["tlxHoFileSysSpaceTotal"]
            self.assertEqual(figures[directory],
                             [used, f"{total * 85 // 100}", f"{total * 95 // 100}", "0", f"{total}"])
        self.becomes("memory", OK, r"^VEXHOST OK - memory 50 % used, 4000 of 8000 MB available$")
        self.assertEqual(self.performance("memory"),
                         {"memory": [4000, "7200", "7600", "0", "8000"]})
        # The host's own limits, and patterns.
        self.becomes("swap", WARNING, r"^VEXHOST WARNING - swap 50 % used of 2000 MB$")
        self.becomes("mounts", OK, r"^VEXHOST OK - /srv/full answers$")
        self.becomes("inodes", OK, r"of its inodes used")
        self.becomes("load", OK, r"^VEXHOST OK - load 1\.25 over 5m, 0\.62 a processor$")
        self.becomes("condition", OK, r"^VEXHOST OK - condition (unassessed|normal)$")
        self.becomes("siblings", OK, r"^VEXHOST OK - ")
        self.becomes("age", OK, r"^VEXHOST OK - values \d+ s old, 0 failed polls$")
        # A minute is not known at once; then it is a busy one.
        self.becomes("cpu", CRITICAL, r"2 processors (99|100) % busy over 1m", 150)
        processors.busy = False
        self.assertNotIn("public", json.dumps(self.ask("objects/services")))

        # What is made good is OK again.
        one.fill("/srv/full", 30)
        self.becomes("filesystems", OK, r"^VEXHOST OK - ")

        # The agent is gone: one service says so, and the others are not to be reached.
        one.stop("vexhostd")
        self.becomes("age", UNKNOWN, r"^VEXHOST UNKNOWN - snmpd answers and vexhostd does not: ")
        eventually(lambda: not any(self.services()["vexhost " + check]["last_reachable"]
                                   for check in CHECKS if check != "age"), 60, "the dependencies")
        one.start_agent()
        self.becomes("age", OK, r"^VEXHOST OK - ")
        eventually(lambda: all(self.services()["vexhost " + check]["last_reachable"]
                               for check in CHECKS), 60, "the dependencies again")

    def told(self, state, words):
        def reached():
            service = self.services()["vexhost notifications"]
            result = service["last_check_result"] or {"output": ""}
            return self.room.runs() and int(service["state"]) == state and \
                re.search(words, result["output"].strip())
        eventually(reached, 60, lambda: f"{self.services()['vexhost notifications']} "
                   f"{self.room.log('snmptrapd')} {self.room.log('icinga2')}")


if __name__ == "__main__":
    sys.exit(room.main(__doc__))
