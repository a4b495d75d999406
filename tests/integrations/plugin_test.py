"""How the plugin for Nagios and Icinga judges, by answers of a made-up host. tests/host/plugin_test.cpp
has it before the agent.

usage: plugin_test.py [TestClass[.test]]   (from anywhere; the plugin is that of the source tree)
"""

import contextlib
import importlib.machinery
import importlib.util
import io
import os
import re
import subprocess
import sys
import unittest
import unittest.mock

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PLUGIN = os.path.join(SOURCE, "integrations/nagios/check_vexhost")
HOST = ".1.3.6.1.4.1.4891.11"
DETAIL = HOST + ".2.200"
OK, WARNING, CRITICAL, UNKNOWN = range(4)
ANSWERS, FAILING, SILENT = 1, 2, 3


def loaded():
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("check_vexhost", PLUGIN)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


def shown(value, hexadecimal):
    """A value as net-snmp's commands print it without modules."""
    if isinstance(value, int):
        return str(value)
    octets = value if isinstance(value, bytes) else value.encode()
    if not octets:
        return '""'
    if not hexadecimal and all(32 <= c < 127 or 9 <= c <= 13 for c in octets):
        return '"' + octets.decode().replace("\\", "\\\\").replace('"', '\\"') + '"'
    lines = ["".join(f"{c:02X} " for c in octets[at:at + 16]) for at in range(0, len(octets), 16)]
    return '"' + "\n".join(lines) + '"'


class Host:
    """What a host's snmpd answers, as {OID: value}."""

    def __init__(self):
        self.values = {
            HOST + ".1.3.0": 2, DETAIL + ".4.2.0": 1, DETAIL + ".4.3.0": 2 ** 31 - 1,
            DETAIL + ".4.5.0": 0, HOST + ".2.5.1.0": 4000, HOST + ".2.5.2.0": 10,
            DETAIL + ".1.1.0": 3000, HOST + ".2.5.3.0": 1000, HOST + ".2.5.4.0": 1000,
            DETAIL + ".5.2.0": 125}
        self.said, self.status = "", 0
        for row in range(2):
            for column, value in enumerate((row, 10, 20, 30, 40), 2):
                self.values[f"{HOST}.2.3.1.1.{column}.{row}"] = value
        self.file_system(0, "/", 1000, 100, 10)
        self.file_system(1, "/proc", 0, 0, 0)
        self.sibling(0, "host", 1, 2, -1)

    def file_system(self, row, directory, total, used, percent, state=ANSWERS):
        octets = directory if isinstance(directory, bytes) else directory.encode()
        columns = (row, b"/dev/sda on " + octets, total, used, percent, 200 if total else 0,
                   20 if total else 0)
        for column, value in enumerate(columns, 2):
            self.values[f"{HOST}.2.4.1.1.{column}.{row}"] = value
        for column, value in enumerate(("/dev/sda", octets, "ext4", 2, state), 2):
            self.values[f"{DETAIL}.2.1.1.{column}.{row}"] = value

    def sibling(self, row, name, present, condition, health):
        for column, value in ((2, name), (3, present), (4, condition), (7, health)):
            self.values[f"{DETAIL}.3.1.1.{column}.{row}"] = value

    def without(self, prefix):
        self.values = {o: v for o, v in self.values.items() if not o.startswith(prefix)}

    def answer(self, command, **options):
        """In place of subprocess.run()."""
        self.environment = options["env"]
        if self.status:
            return subprocess.CompletedProcess(command, self.status, b"", self.said.encode())
        asked = [word for word in command if word.startswith(".1.")]
        lines = []
        for oid in asked:
            if command[0] == "snmpget":
                found = {oid: self.values[oid]} if oid in self.values else {}
            else:
                found = {o: v for o, v in self.values.items() if o.startswith(oid + ".")}
            lines += [f"{o} = {shown(v, '-Ox' in command)}" for o, v in found.items()] or \
                [f"{oid} = No Such Object available on this agent at this OID"]
        return subprocess.CompletedProcess(command, 0, "\n".join(lines + [""]).encode(),
                                           self.said.encode())


class Plugin(unittest.TestCase):
    def setUp(self):
        self.plugin, self.host = loaded(), Host()

    def check(self, *arguments):
        """Its status and what it prints, without its name and state."""
        out = io.TextIOWrapper(io.BytesIO(), encoding="utf-8")
        with unittest.mock.patch.object(self.plugin.subprocess, "run", self.host.answer), \
                unittest.mock.patch.object(sys, "argv", ["check_vexhost", "-H", "h", *arguments]), \
                contextlib.redirect_stdout(out):
            try:
                status = self.plugin.main()
            except SystemExit as end:
                status = end.code
            out.flush()
            text = out.buffer.getvalue().decode()
        name = ("OK", "WARNING", "CRITICAL", "UNKNOWN")[status]
        self.assertTrue(text.startswith(f"VEXHOST {name} - "), text)
        return status, text[len(f"VEXHOST {name} - "):].rstrip("\n")


class Failures(Plugin):
    def test_the_reason_is_shown(self):
        """net-snmp's commands say first that they have made directories."""
        self.host.status = 1
        made = "Created directory: /tmp/x\nCreated directory: /tmp/x/cert_indexes\n"
        self.host.said = made + "Timeout: No Response from h:161.\n"
        self.assertEqual(self.check("-k", "load"), (UNKNOWN, "Timeout: No Response from h:161."))
        self.host.said = made
        self.assertEqual(self.check("-k", "load"), (UNKNOWN, "snmpget ended with 1"))


class Names(Plugin):
    def test_any_directory_has_its_name(self):
        names = ("/srv/größere Daten auf Platte", "/srv/\"quoted\"", "/srv/back\\slash", "/srv/a\nb",
                 "/srv/41 42 ", "")
        for name in names:
            self.host.file_system(1, name, 100, 90, 90)
            seen = re.sub(r"\n", "?", name)
            for patterns in (("--include", name), ("--exclude", "/")):
                status, text = self.check("-k", "filesystems", *patterns)
                self.assertEqual((status, text.split(" | ")[0]), (WARNING, f"{seen} 90 % full"))

    def test_octets_that_are_no_text(self):
        """A name that was cut within a character, by itself and by a pattern."""
        self.host.file_system(1, b"/srv/gr\xc3", 100, 90, 90)
        for pattern in ("/srv/gr?", os.fsdecode(b"/srv/gr\xc3")):
            status, text = self.check("-k", "filesystems", "--include", pattern)
            self.assertEqual((status, text.split(" | ")[0]), (WARNING, "/srv/gr? 90 % full"))


class Agent(Plugin):
    def test_an_agent_that_is_gone_is_said_to_be(self):
        """snmpd answers, and has nothing of the agent's."""
        self.host.values = {}
        gone = ("snmpd answers and vexhostd does not: it does not run, or this community is shown "
                "nothing of it")
        for check in (*self.plugin.CHECKS, "all"):
            self.assertEqual(self.check("-k", check), (UNKNOWN, gone))

    def test_an_agent_without_details_is_there(self):
        self.host.without(DETAIL)
        self.assertEqual(self.check("-k", "age"),
                         (UNKNOWN, "this agent does not say when it polled"))
        self.assertEqual(self.check("-k", "filesystems")[0], OK)


class Labels(Plugin):
    def test_each_comes_once(self):
        self.host.file_system(1, "/srv", 100, 90, 90)
        _, text = self.check()
        labels = re.findall(r"'([^']*)'=", text.split(" | ")[1])
        self.assertEqual(sorted(labels), sorted(set(labels)))
        for label in ("/", "/srv", "/ inodes", "/srv inodes", "cpu", "memory"):
            self.assertIn(label, labels)


class NotKnown(Plugin):
    def state(self, *arguments):
        status, text = self.check(*arguments)
        return status, text.split(" | ")[0]

    def test_swap(self):
        for size, free, expected in ((0, 0, (OK, "no swap")),
                                     (0, -1, (OK, "no swap")),
                                     (-1, -1, (UNKNOWN, "the swap space is not known")),
                                     (1000, -1, (UNKNOWN, "the free swap space is not known"))):
            self.host.values[HOST + ".2.5.3.0"] = size
            self.host.values[HOST + ".2.5.4.0"] = free
            self.assertEqual(self.state("-k", "swap"), expected)
        self.host.without(HOST + ".2.5.3.0")
        self.assertEqual(self.state("-k", "swap"), (UNKNOWN, "the swap space is not known"))

    def test_siblings(self):
        self.host.sibling(1, "appliance", 1, -1, -1)
        self.host.sibling(2, "rack", 2, -1, -1)
        self.host.sibling(3, "odd", 1, 9, -1)
        # One that judges nothing is nobody's concern, until somebody names it.
        self.assertEqual(self.state("-k", "siblings", "--exclude", "odd"), (OK, "host normal"))
        self.assertEqual(self.state("-k", "siblings", "--include", "appliance"),
                         (UNKNOWN, "appliance not known"))
        self.assertEqual(self.state("-k", "siblings"), (UNKNOWN, "odd not known"))
        self.assertEqual(self.state("-k", "siblings", "--include", "rack"),
                         (CRITICAL, "rack agent is not there"))
        self.assertEqual(self.state("-k", "siblings", "--include", "nobody"),
                         (UNKNOWN, "no such sibling"))
        # A cell that did not come is no sign that the agent is away.
        self.host.without(DETAIL + ".3.1.1.3.1")
        self.assertEqual(self.state("-k", "siblings", "--include", "appliance"),
                         (UNKNOWN, "appliance not known"))

    def test_a_file_system_without_figures_does_not_disappear(self):
        for column, value in ((4, None), (4, -1), (6, None), (6, -1)):
            self.host.file_system(1, "/srv", 100, 10, 10)
            oid = f"{HOST}.2.4.1.1.{column}.1"
            self.host.values[oid] = value
            if value is None:
                del self.host.values[oid]
            self.assertEqual(self.state("-k", "filesystems"),
                             (UNKNOWN, "the figures of /srv are not known"))
        self.host.file_system(1, "/srv", 100, 10, 10)
        for column, value in ((7, None), (7, -1), (8, None), (8, -1)):
            self.host.file_system(1, "/srv", 100, 10, 10)
            oid = f"{HOST}.2.4.1.1.{column}.1"
            self.host.values[oid] = value
            if value is None:
                del self.host.values[oid]
            self.assertEqual(self.state("-k", "inodes"),
                             (UNKNOWN, "the figures of /srv are not known"))

    def test_old_figures_are_not_taken_for_new_ones(self):
        for state, word in ((FAILING, "failing"), (SILENT, "silent")):
            self.host.file_system(1, "/srv", 100, 10, 10, state)
            self.assertEqual(self.state("-k", "filesystems"),
                             (UNKNOWN, f"/srv {word}, was 10 % full"))
            self.host.file_system(1, "/srv", 100, 96, 96, state)
            self.assertEqual(self.state("-k", "filesystems"),
                             (CRITICAL, f"/srv {word}, was 96 % full"))
            # It has never answered.
            self.host.file_system(1, "/srv", 0, 0, 0, state)
            self.assertEqual(self.state("-k", "filesystems"),
                             (UNKNOWN, f"/srv {word}, its figures are not known"))
        self.host.file_system(1, "/srv", 100, 10, 10)
        self.assertEqual(self.state("-k", "filesystems"), (OK, "/ 10 % full, 1 more"))

    def test_a_row_that_moves_between_two_questions(self):
        """The agent has given it another number meanwhile."""
        answer, asked = self.host.answer, []

        def moving(command, **options):
            asked.append(command)
            if len(asked) == 3:
                self.host.without(HOST + ".2.4.1.1.")
                self.host.file_system(7, "/", 1000, 100, 10)
            return answer(command, **options)

        self.host.answer = moving
        self.host.without(DETAIL + ".2")
        self.assertEqual(self.state("-k", "filesystems"), (OK, "/ 10 % full"))

    def test_processors(self):
        self.host.without(HOST + ".2.3")
        self.assertEqual(self.state("-k", "load"), (UNKNOWN, "no processors are listed"))


class Arguments(Plugin):
    def test_a_range_that_begins_below_0(self):
        for arguments in (("-w", "-5:5"), ("--warning", "-5:5"), ("-w=-5:5",), ("-w-5:5",)):
            self.assertEqual(self.check("-k", "load", "-c", "9", *arguments)[0], OK, arguments)
        self.assertEqual(self.check("-k", "load", "-c", "9", "-w", "-5:0.1")[0], WARNING)

    def test_refuses_what_cannot_be_meant(self):
        for arguments in (("-k", "mounts", "-w", "5"), ("-k", "condition", "-c", "5"),
                          ("-k", "siblings", "-w", "5"), ("-k", "memory", "--include", "x"),
                          ("-k", "age", "--exclude", "x"), ("-k", "memory", "--window", "1h"),
                          ("-k", "load", "-w", "\uff15"), ("-t", "1e9"), ("-t", "nan"),
                          ("-t", "inf"), ("-t", "-1")):
            status, text = self.check(*arguments)
            self.assertEqual(status, UNKNOWN, arguments)
            self.assertNotRegex(text, r"Error|VEXHOST", arguments)
            self.assertTrue(re.search(r"--?\w|no range", text), (arguments, text))

    def test_tells_its_version(self):
        with open(os.path.join(SOURCE, "CMakeLists.txt"), encoding="utf-8") as file:
            version = re.search(r"^project\(vexhostd VERSION ([\d.]+)", file.read(), re.M)[1]
        for option in ("-V", "--version"):
            done = subprocess.run([sys.executable, PLUGIN, option], stdout=subprocess.PIPE,
                                  text=True, check=False)
            self.assertEqual((done.returncode, done.stdout),
                             (0, f"check_vexhost {version}\n"))

    def test_the_load_has_its_limits(self):
        """Of the whole load, as the value is."""
        self.assertIn("'load5'=1.25;8;20;0", self.check("-k", "load")[1])

    def test_a_value_of_another_type(self):
        self.host.values[HOST + ".2.5.1.0"] = "text"
        self.assertEqual(self.check("-k", "memory"),
                         (UNKNOWN, "tlxHoPhysicalMemorySize is no number: text"))


if __name__ == "__main__":
    unittest.main(verbosity=2, warnings="ignore")
