"""The template in a real Zabbix: server, database and web page from Debian's packages.

usage: zabbix_test.py BUILD ROOT [Zabbix[.test]]
"""

import json
import os
import shutil
import sys
import unittest
import urllib.parse

import room
from room import INTEGRATIONS, eventually, fetch

TEMPLATE = "vexhostd by SNMP"
SERVER = """LogType=console
DBHost=/tmp
DBName=zabbix
DBUser=postgres
StartPollers=3
StartPollersUnreachable=1
StartTrappers=1
StartPingers=0
StartDiscoverers=0
StartHTTPPollers=0
StartPreprocessors=1
StartSNMPTrapper=1
SNMPTrapperFile=/tmp/traps
CacheUpdateFrequency=2
ListenIP=127.0.0.1
PidFile=/tmp/zabbix_server.pid
SocketDir=/tmp
AllowRoot=1
"""
PAGE = """<?php
$DB['TYPE'] = 'POSTGRESQL';
$DB['SERVER'] = '/tmp';
$DB['PORT'] = '0';
$DB['DATABASE'] = 'zabbix';
$DB['USER'] = 'postgres';
$DB['PASSWORD'] = '';
$DB['SCHEMA'] = '';
$DB['ENCRYPTION'] = false;
$DB['KEY_FILE'] = '';
$DB['CERT_FILE'] = '';
$DB['CA_FILE'] = '';
$DB['VERIFY_HOST'] = false;
$DB['CIPHER_LIST'] = '';
$DB['VAULT_URL'] = '';
$DB['VAULT_DB_PATH'] = '';
$DB['VAULT_TOKEN'] = '';
$DB['DOUBLE_IEEE754'] = true;
$ZBX_SERVER = '127.0.0.1';
$ZBX_SERVER_PORT = '10051';
$IMAGE_FORMAT_DEFAULT = IMAGE_FORMAT_PNG;
"""
API = "http://127.0.0.1:8080/api_jsonrpc.php"


class Zabbix(unittest.TestCase):
    def setUp(self):
        self.room = room.Room(self)
        self.token = None

    # ---- The station

    def start_station(self):
        data = "/tmp/data"
        program = "/usr/lib/postgresql/" + os.listdir(
            self.room.path("/usr/lib/postgresql"))[0] + "/bin/"
        shutil.rmtree(self.room.path(data), ignore_errors=True)
        self.room.ok(program + "initdb", "-D", data, "-A", "trust", "-E", "UTF8", "--no-sync",
                     user="postgres")
        self.room.start("database", program + "postgres", "-D", data, "-k", "/tmp", "-h", "",
                        "-c", "fsync=off", user="postgres")
        psql = ["psql", "-h", "/tmp", "-U", "postgres", "-q", "-v", "ON_ERROR_STOP=1"]
        eventually(lambda: self.room.runs() and self.room.run(*psql, "-c", "select 1")[0] == 0, 60,
                   "the database")
        self.room.ok(*psql, "-c", "create database zabbix")
        for part in ("schema", "images", "data"):
            self.room.ok("sh", "-c", f"zcat /usr/share/zabbix-server-pgsql/{part}.sql.gz | " +
                         " ".join(psql) + " zabbix >/dev/null", timeout=300)
        self.room.write("/tmp/server.conf", SERVER)
        self.room.write("/tmp/traps", "")
        self.room.write("/etc/zabbix/zabbix.conf.php", PAGE)
        self.room.start("server", "zabbix_server", "-f", "-c", "/tmp/server.conf")
        self.room.start("page", "php", "-d", "date.timezone=UTC", "-d", "post_max_size=32M",
                        "-d", "max_execution_time=300", "-d", "memory_limit=512M",
                        "-S", "127.0.0.1:8080", "-t", "/usr/share/zabbix",
                        environment={"PHP_CLI_SERVER_WORKERS": "4"})
        eventually(lambda: self.room.runs() and fetch("http://127.0.0.1:8080/"), 60, "the page")
        self.token = self.ask("user.login", username="Admin", password="zabbix")

    def ask(self, method, **parameters):
        body = {"jsonrpc": "2.0", "method": method, "params": parameters, "id": 1,
                "auth": self.token}
        answer = fetch(API, json.dumps(body).encode(), {"Content-Type": "application/json-rpc"})
        try:
            answer = json.loads(answer)
        except (TypeError, ValueError):
            raise AssertionError(f"{method}: {answer}: {self.room.log('page')}") from None
        if "error" in answer:
            raise AssertionError(f"{method}: {answer['error']}")
        return answer["result"]

    def bring(self):
        """Imports the template, and makes the host with it."""
        rule = {"createMissing": True, "updateExisting": True}
        rules = {name: rule for name in ("groups", "templates", "items", "triggers", "graphs",
                                         "discoveryRules", "templateDashboards", "valueMaps")}
        text = self.room.read(INTEGRATIONS + "/zabbix/vexhost-6.0.yaml")
        self.assertTrue(self.ask("configuration.import", format="yaml", source=text, rules=rules))
        [template] = self.ask("template.get", filter={"host": TEMPLATE}, selectDashboards="extend")
        self.assertEqual([d["name"] for d in template["dashboards"]], ["Host"])
        [group] = self.ask("hostgroup.create", name="Hosts")["groupids"]
        [self.host] = self.ask(
            "host.create", host="host", status=1, groups=[{"groupid": group}],
            templates=[{"templateid": template["templateid"]}],
            macros=[{"macro": "{$VEXHOST.DELAY}", "value": "3s"},
                    {"macro": "{$VEXHOST.DELAY.SLOW}", "value": "3s"},
                    {"macro": "{$VEXHOST.DELAY.DISCOVERY}", "value": "5s"}],
            interfaces=[{"type": 2, "main": 1, "useip": 1, "ip": "127.0.0.1", "dns": "",
                         "port": "161",
                         "details": {"version": 2, "community": "public", "bulk": 1}}])["hostids"]
        # Asked for once the server knows all of it: an item that it meets before its macros is not
        # supported until it has a value.
        self.room.ok("zabbix_server", "-c", "/tmp/server.conf", "-R", "config_cache_reload")
        self.ask("host.update", hostid=self.host, status=0)
        # A second import changes nothing.
        self.assertTrue(self.ask("configuration.import", format="yaml", source=text, rules=rules))

    def items(self):
        return {item["key_"]: item for item in self.ask(
            "item.get", hostids=self.host, output=["key_", "lastvalue", "state", "error",
                                                   "lastclock", "snmp_oid"])}

    def problems(self):
        return sorted(p["name"] for p in self.ask("problem.get", hostids=self.host))

    def faults(self):
        """What the server says is wrong with items, discoveries and triggers."""
        found = [f"{key}: {i['error']}" for key, i in self.items().items() if i["state"] == "1"]
        found += [f"{r['key_']}: {r['error']}" for r in self.ask(
            "discoveryrule.get", hostids=self.host, output=["key_", "error"]) if r["error"]]
        found += [f"{t['description']}: {t['error']}" for t in self.ask(
            "trigger.get", hostids=self.host, output=["description", "error", "state"])
            if t["error"]]
        return found

    # ---- The test

    def test_the_template(self):
        one = self.room
        one.proc("meminfo", "MemTotal: 8192000 kB\nMemFree: 1024000 kB\nMemAvailable: 4096000 kB\n"
                            "Cached: 2048000 kB\nSwapTotal: 2048000 kB\nSwapFree: 2048000 kB\n")
        one.proc("loadavg", "0.50 1.25 2.00 1/80 11206\n")
        processors = room.Processors(one, busy=False)
        self.addCleanup(processors.end)
        for directory, used in (("/srv/gone", 1), ("/srv/quiet", 10), ("/srv/full", 97),
                                ("/srv/last", 20)):
            one.mount(directory, 100, used)
        one.install_software({"kelmo": "9.2.1-4", "vexfoo": "1.0", "bash": "5.2"})
        one.start_controller()
        one.start_snmpd("trap2sink 127.0.0.1 public\n")
        one.start_agent()
        self.start_station()
        one.write("/tmp/snmptrapd.conf", "disableAuthorization yes\ntraphandle default "
                  f"{INTEGRATIONS}/zabbix/trap-to-zabbix /tmp/traps\n")
        one.start("snmptrapd", "snmptrapd", "-f", "-On", "-Lo", "-C", "-c", "/tmp/snmptrapd.conf",
                  "udp:127.0.0.1:162")
        self.bring()

        # Everything has come, and nothing is wrong.
        used = 'tlxHoFileSysPercentSpaceUsed[{}]'
        row = {"gone": used.format("/dev/vda on /srv/gone"),
               "quiet": used.format("/dev/vdb on /srv/quiet"),
               "full": used.format("/dev/vdc on /srv/full"),
               "last": used.format("/dev/vdd on /srv/last")}

        def value(key):
            return self.items().get(key, {}).get("lastvalue", "")

        eventually(lambda: one.runs() and value(row["full"]) == "97", 180,
                   lambda: f"a file system: {self.faults()} {self.room.log('server')}")
        eventually(lambda: self.problems() == ["/dev/vdc on /srv/full is full"], 120,
                   lambda: f"its problem: {self.problems()}")
        eventually(lambda: value("vexhost.memory").startswith("50"), 60, "memory")
        eventually(lambda: self.items()["vexhost.cpu"]["lastclock"] != "0", 120,
                   "the processors")
        self.assertLess(float(value("vexhost.cpu")), 10)
        self.assertEqual(value("tlxHoMemoryAvailable"), str(4000 << 20))
        self.assertEqual(value("tlxHoFileSysSpaceTotal[/dev/vdc on /srv/full]"), str(100 << 20))
        self.assertEqual(value("tlxHoMountState[/dev/vdc on /srv/full]"), "1")
        dumped = one.dump("host/cpu.*")
        processors = {str(o["tlxHoCpuUtilUnitIndex"]) for o in dumped.values()}
        self.assertEqual({key for key in self.items() if key.startswith("tlxHoCpuUtilMin[")},
                         {f"tlxHoCpuUtilMin[{n}]" for n in processors})
        for table, name in (("swver", "tlxHoSwVerName"), ("fwver", "tlxHoFwVerDisplayName")):
            version = name.replace("DisplayName", "Version").replace("Name", "Version")
            expected = {f"{version}[{o[name]}]": o[version]
                        for o in one.dump(f"host/{table}.*").values()}
            self.assertTrue(expected, table)
            eventually(lambda: {key: i["lastvalue"] for key, i in self.items().items()
                                if key.startswith(version + "[")} == expected, 60,
                       lambda: f"{expected}: {self.faults()}")
        eventually(lambda: not self.faults(), 60, lambda: self.faults())
        # An average over an hour is not known yet: no value at all, and none below 0 anywhere.
        self.assertEqual(value("tlxHoCpuUtilHour[0]"), "0")
        self.assertEqual(self.items()["tlxHoCpuUtilHour[0]"]["lastclock"], "0")
        self.assertEqual([k for k, i in self.items().items() if i["lastvalue"].startswith("-")], [])

        # The dashboard as a browser shows it, in the language that needs no locale of the root's.
        self.ask("settings.update", default_lang="en_GB")
        page = "http://127.0.0.1:8080/"
        board = f"zabbix.php?action=host.dashboard.view&hostid={self.host}&from=now-5m&to=now"
        seen = one.browse(page + board, "zabbix-host", 1500, 1000, first=page + "index.php?" +
                          urllib.parse.urlencode({"name": "Admin", "password": "zabbix",
                                                  "autologin": 1, "enter": "Sign in"}))
        for words in (r"Condition \d.* normal \(2\)", r"Processors \d.* %", r"Memory \d.* 50 \.00 %",
                      r"Uptime \d.* \d+:\d\d", "File systems .*/dev/vdc on /srv/full"):
            self.assertRegex(seen, words)
        self.assertNotRegex(seen, "(?i)cannot|not found|no permissions|no data")
        problems = one.browse(page + "zabbix.php?action=problem.view&filter_set=1",
                              "zabbix-problems", 1500, 760)
        self.assertIn("/dev/vdc on /srv/full is full", problems)

        # A notification reaches its item and no other, and raises nothing that it should not.
        traps = {name: next(key for key in self.items() if key.startswith(f'snmptrap["({name}|'))
                 for name in ("tlxHoTestNotification", "tlxHoHealthNotification")}
        one.ok("snmpset", "-v2c", "-cprivate", "127.0.0.1", ".1.3.6.1.4.1.4891.11.2.1.3.0", "s",
               "by the way")
        eventually(lambda: "by the way" in value(traps["tlxHoTestNotification"]), 60,
                   lambda: f"a trap: {one.read('/tmp/traps')} {one.log('snmptrapd')}")
        self.assertEqual(value(traps["tlxHoHealthNotification"]), "")
        one.ok("snmptrap", "-v2c", "-cpublic", "127.0.0.1", "", ".1.3.6.1.4.1.4891.0.11020",
               ".1.3.6.1.4.1.4891.250.1", "s", "made up")
        eventually(lambda: "tlxHoHealthNotification has come" in self.problems(), 60,
                   "a notification's problem")

        # The first mount goes while the agent is away: the rows behind it have other numbers now.
        # Nothing is raised, and nothing takes another one's figures.
        def number(directory):
            return next(name for name, o in one.dump("host/filesys.*").items()
                        if o["tlxHoFileSysDesc"].endswith(directory))

        before = number("/srv/full")
        events = {e["eventid"] for e in self.ask("event.get", hostids=self.host)}
        one.stop("vexhostd")
        one.unmount("/srv/gone")
        one.start_agent()
        self.assertNotEqual(number("/srv/full"), before)
        clock = int(self.items()[row["full"]]["lastclock"])
        eventually(lambda: all(int(self.items()[row[n]]["lastclock"]) > clock + 20
                               for n in ("quiet", "full", "last")), 180, "values of the others")
        self.assertEqual({name: value(row[name]) for name in ("quiet", "full", "last")},
                         {"quiet": "10", "full": "97", "last": "20"})
        for name, expected in (("gone", {"1"}), ("quiet", {"10"}), ("full", {"97"}),
                               ("last", {"20"})):
            kept = self.ask("history.get", itemids=self.items()[row[name]]["itemid"], history=3)
            self.assertEqual({h["value"] for h in kept}, expected, name)
        raised = [e["name"] for e in self.ask("event.get", hostids=self.host)
                  if e["eventid"] not in events and e["value"] == "1"]
        self.assertEqual([n for n in raised if n != "The agent was started"], [])
        self.assertIn("/dev/vdc on /srv/full is full", self.problems())

        # It is made good, and the problem ends.
        one.fill("/srv/full", 30)
        eventually(lambda: "/dev/vdc on /srv/full is full" not in self.problems(), 120,
                   "the problem's end")
        one.runs()


if __name__ == "__main__":
    sys.exit(room.main(__doc__))
