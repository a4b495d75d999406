"""The MIB modules as the net-snmp tools read them, and the generator of the framework's table.

usage: mibs_test.py [TestClass[.test]]   (from anywhere; the modules are those of the source tree)
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MIBS = os.path.join(SOURCE, "mibs")
BASE = os.path.join(MIBS, "base")
MODULES = ["QUORIX-MIB", "QUORIX-HOST-MIB", "QUORIX-HOST-DETAIL-MIB", "QUORIX-APPLIANCE-MIB"]
SUITE = ".1.3.6.1.4.1.4891"
# Neither the caller's settings nor the machine's: a stock machine has no modules of its own.
ENVIRONMENT = {"PATH": os.environ["PATH"], "SNMPCONFPATH": "/nonexistent", "HOME": "/nonexistent"}


def translate(*arguments, modules="ALL", directories=f"{MIBS}:{BASE}"):
    return subprocess.run(["snmptranslate", "-M", directories, "-m", modules, *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          env=ENVIRONMENT, check=False)


class Names(unittest.TestCase):
    """What a manager on a machine without any base modules gets."""

    def resolve(self, name, oid, **how):
        for options, given, wanted in ((["-On"], name, SUITE + oid),
                                       ([], SUITE + oid, name)):
            run = translate(*options, given, **how)
            self.assertEqual((run.returncode, run.stderr, run.stdout.strip()), (0, "", wanted))

    def test_resolve_both_ways_without_a_warning(self):
        for modules in ("ALL", "QUORIX-HOST-MIB", "QUORIX-HOST-MIB:QUORIX-APPLIANCE-MIB"):
            for directories in (f"{MIBS}:{BASE}", f"{BASE}:{MIBS}"):
                with self.subTest(modules=modules, directories=directories):
                    how = {"modules": modules, "directories": directories}
                    self.resolve("QUORIX-HOST-MIB::quorixHost", ".11", **how)
                    self.resolve("QUORIX-HOST-MIB::tlxHoMibCondition.0", ".11.1.3.0", **how)
                    self.resolve("QUORIX-HOST-MIB::tlxHoFileSysDesc.7", ".11.2.4.1.1.3.7", **how)
                    self.resolve("QUORIX-HOST-MIB::tlxHoTestNotification", ".0.11003", **how)
                    self.resolve("QUORIX-HOST-MIB::tlxHoHealthNotification", ".0.11020", **how)
                    self.resolve("QUORIX-MIB::tlxTrapDescription.0", ".250.1.0", **how)
        self.resolve("QUORIX-APPLIANCE-MIB::tlxApApplianceDescription.0", ".21.2.2.2.0")
        self.resolve("QUORIX-HOST-DETAIL-MIB::tlxHoMountState.7", ".11.2.200.2.1.1.6.7")

    def test_what_every_notification_carries_resolves(self):
        for name, oid in (("sysUpTime", ".1.3.6.1.2.1.1.3.0"),
                          ("snmpTrapOID", ".1.3.6.1.6.3.1.1.4.1.0")):
            run = translate(oid)
            self.assertEqual((run.stderr, run.stdout.strip()), ("", f"SNMPv2-MIB::{name}.0"))

    def test_the_documented_line_says_nothing_of_other_modules(self):
        with open(os.path.join(MIBS, "..", "docs", "mib.md"), encoding="utf-8") as file:
            [line] = re.findall(r"^    mibs (\S+)$", file.read(), re.M)
        self.assertEqual(set(line.split(":")), {"SNMPv2-MIB", *MODULES} - {"QUORIX-MIB"})
        with tempfile.TemporaryDirectory() as others:
            # As net-snmp's own, whose base modules Debian leaves out.
            with open(os.path.join(others, "OTHER-MIB.txt"), "w", encoding="ascii") as file:
                file.write("OTHER-MIB DEFINITIONS ::= BEGIN\nIMPORTS ifIndex FROM IF-MIB;\n"
                           "other OBJECT IDENTIFIER ::= { ifIndex 1 }\nEND\n")
            directories = f"{others}:{MIBS}:{BASE}"
            self.assertNotEqual(translate("sysUpTime", "-IR", modules="ALL",
                                          directories=directories).stderr, "")
            run = translate("-IR", "-On", "sysUpTime", "tlxHoLoadOne", "tlxApApplianceId",
                            modules=line, directories=directories)
            self.assertEqual((run.stderr, run.stdout.split()), (
                "", [".1.3.6.1.2.1.1.3", SUITE + ".11.2.200.5.1", SUITE + ".21.2.2.1"]))

    def test_plain_names_resolve(self):
        run = translate("-IR", "-On", "tlxHoFwVerTable", "tlxApMibCondition")
        self.assertEqual((run.stderr, run.stdout.split()), ("", [SUITE + ".11.2.7.1",
                                                                 SUITE + ".21.1.3"]))

    def test_every_object_is_linked_and_described(self):
        run = translate("-Tz")
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        listed = dict(line.replace('"', "").split() for line in run.stdout.splitlines() if line)
        defined = set()
        for module in MODULES:
            with open(os.path.join(MIBS, module + ".txt"), encoding="ascii") as file:
                text = file.read()
            defined |= set(re.findall(r"^(\w+) +(?:OBJECT-TYPE|NOTIFICATION-TYPE|MODULE-IDENTITY|"
                                      r"OBJECT IDENTIFIER ::=)", text, re.M))
        self.assertGreater(len(defined), 80)
        for name in defined:
            self.assertTrue(listed.get(name, "").startswith(SUITE[1:]), name)

    def test_details(self):
        def details(name):
            run = translate("-Td", "-IR", name)
            # Where no other program of net-snmp's has run, this one makes its directory.
            said = re.sub(r"^Created directory: .*\n", "", run.stderr, flags=re.M)
            self.assertEqual(said, "")
            return run.stdout
        self.assertIn("{appliance(1), linux(14)}", details("tlxHoOsType"))
        self.assertIn("{unassessed(1), normal(2), raised(3), severe(4)}",
                      details("tlxApMibCondition"))
        self.assertIn('DISPLAY-HINT\t"2d-1d-1d,1d:1d:1d"', details("tlxHoConfigChangedDate"))
        self.assertIn('UNITS\t\t"megabytes"', details("tlxHoPhysicalMemorySize"))
        self.assertIn("(0..512)", details("tlxHoSystemRoleDetail"))
        self.assertIn("MAX-ACCESS\tread-write", details("tlxHoGUID"))
        self.assertIn("INDEX\t\t{ tlxHoSwVerRow }", details("tlxHoSwVerEntry"))
        self.assertIn("OBJECTS\t{ tlxHoGenericData, tlxTrapDescription }",
                      details("tlxHoTestNotification"))
        self.assertIn("OBJECTS\t{ tlxTrapDescription }", details("tlxHoHealthNotification"))

    def test_real_base_modules_win_over_stand_ins_that_come_before_them(self):
        with tempfile.TemporaryDirectory() as real:
            for file in os.listdir(BASE):
                with open(os.path.join(BASE, file), encoding="ascii") as stand_in:
                    text = stand_in.read()
                with open(os.path.join(real, file), "w", encoding="ascii") as out:
                    out.write(text.replace("-- The paths from the root",
                                           "experimental OBJECT IDENTIFIER ::= { internet 3 }\n"
                                           "-- The paths from the root"))
            run = translate("-On", "SNMPv2-SMI::experimental", "QUORIX-HOST-MIB::quorixHost",
                            directories=f"{BASE}:{real}:{MIBS}")
            self.assertEqual((run.stderr, run.stdout.split()),
                             ("", [".1.3.6.1.3", SUITE + ".11"]))


class Generator(unittest.TestCase):
    """generate-mib-table refuses what the framework could not serve."""

    def generate(self, change=None, module="QUORIX-HOST-MIB", options=()):
        """Returns the generator's exit status, messages and output for changed modules."""
        with tempfile.TemporaryDirectory() as work:
            for name in MODULES:
                shutil.copy(os.path.join(MIBS, name + ".txt"), work)
            if change:
                path = os.path.join(work, module + ".txt")
                with open(path, encoding="ascii") as file:
                    text = file.read()
                changed = change(text)
                self.assertNotEqual(text, changed, "the change changes nothing")
                with open(path, "w", encoding="ascii") as file:
                    file.write(changed)
            output = os.path.join(work, "table.cpp")
            run = subprocess.run([os.path.join(MIBS, "generate-mib-table"), *options, output] +
                                 [os.path.join(work, name + ".txt") for name in MODULES],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                 check=False)
            made = None
            if os.path.exists(output):
                with open(output, encoding="ascii") as file:
                    made = file.read()
            return run.returncode, run.stdout + run.stderr, made

    def refused(self, message, pattern, replacement, module="QUORIX-HOST-MIB"):
        status, messages, made = self.generate(
            lambda text: re.sub(pattern, replacement, text, count=1, flags=re.S), module)
        self.assertEqual((status, made), (1, None), messages)
        self.assertIn(message, messages)

    def test_takes_the_modules_as_they_are(self):
        status, messages, made = self.generate()
        self.assertEqual((status, messages), (0, ""))
        self.assertIn('{"tlxHoGUID", ', made)

    def test_takes_them_in_any_folder(self):
        with tempfile.TemporaryDirectory(prefix="a folder ") as work:
            shutil.copytree(MIBS, work + "/mibs")
            run = subprocess.run([work + "/mibs/generate-mib-table", work + "/table.cpp"] +
                                 [f"{work}/mibs/{name}.txt" for name in MODULES],
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual((run.returncode, run.stdout), (0, ""))

    def test_writes_the_words_of_the_modules(self):
        status, messages, made = self.generate(options=["--words"])
        self.assertEqual((status, messages), (0, ""))
        self.assertIn('{{1, "appliance"}, {14, "linux"}}', made)
        self.assertRegex(made, r'"tlxHoMibCondition", "QuorixCondition", "", "", kLabels\d+, {}')
        self.assertIn('"tlxHoCpuUtilHour", "", "percent", "not known yet", {}, {}', made)
        self.assertIn('"tlxHoPagingMemoryFree", "", "megabytes", "not known", {}, {}', made)
        self.assertIn('"tlxHoOsCommonPollFreq", "", "seconds", "", {}, {}', made)
        self.assertIn('{9, "array controllers"}', made)
        self.assertIn('{11, "host"}', made)

    def test_is_the_same_each_time(self):
        self.assertEqual(self.generate(), self.generate())

    def test_takes_the_revision_from_the_newest_revision_clause(self):
        status, messages, made = self.generate(lambda text: re.sub(
            r'LAST-UPDATED "\d+Z"', 'LAST-UPDATED "209901010000Z"', text.replace(
                '    REVISION "', '    REVISION "209901010000Z"\n'
                '    DESCRIPTION "Revision 3.14. More."\n    REVISION "', 1)))
        self.assertEqual((status, messages), (0, ""))
        self.assertRegex(made, r'\{11, "host", kOids \+ \d+, 8, 3, 14\},')
        self.assertRegex(made, r'\{21, "appliance", kOids \+ \d+, 8, \d+, \d+\},')

    def test_refuses_a_revision_without_numbers(self):
        self.refused("'Revision N.N'", r"Revision \d+\.\d+\.", "First revision.")

    def test_refuses_what_smidump_cannot_parse(self):
        self.refused("smidump", r"MAX-ACCESS read-only", "MAX-ACCESS read-sometimes")
        self.refused("smidump", r"::= { tlxHoMibRev 3 }", "::= { tlxHoMibRave 3 }")
        self.refused("smidump", r"FROM QUORIX-MIB;", "FROM QUORIX-NO-MIB;")

    def test_refuses_a_start_of_a_group_that_peers_cannot_read(self):
        self.refused("{ group 1 2 } must be its MibRevMinor", r"{ tlxHoMibRev 2 }",
                     "{ tlxHoMibRev 4 }")

    def test_refuses_a_number_given_twice(self):
        self.refused("already registered", r"{ tlxHoMisc 2 }", "{ tlxHoMisc 1 }")

    def test_refuses_a_table_that_is_not_indexed_by_its_row_number(self):
        self.refused("the index must be the row number",
                     r"INDEX { tlxHoCpuUtilRow }(.*tlxHoCpuUtilUnitIndex OBJECT-TYPE\n *SYNTAX "
                     r"Integer32)", r"INDEX { tlxHoCpuUtilUnitIndex }\1 (0..9999)")
        self.refused("the index must be the row number",
                     r"(tlxHoCpuUtilRow OBJECT-TYPE\n[^\n]*\n *MAX-ACCESS) not-accessible",
                     r"\1 read-only")

    def test_refuses_types_that_the_framework_does_not_have(self):
        self.refused("a variable is", r"(tlxHoTrapFlags OBJECT-TYPE\n *SYNTAX) Integer32",
                     r"\1 OBJECT IDENTIFIER")
        self.refused("a variable is", r"(tlxHoTrapFlags OBJECT-TYPE\n *SYNTAX) Integer32",
                     r"\1 OCTET STRING")
        self.refused("its size is not within", r"SIZE \(0\.\.80\)", "SIZE (0..2000)",
                     "QUORIX-APPLIANCE-MIB")

    def test_refuses_a_scalar_that_nobody_can_reach(self):
        self.refused("has no place", r"(tlxHoTrapFlags OBJECT-TYPE\n[^\n]*\n *MAX-ACCESS) read-only"
                     r"(.*)\n *tlxHoTrapFlags,", r"\1 not-accessible\2")
        self.refused("must be the one object", r"(tlxHoTrapFlags OBJECT-TYPE\n[^\n]*\n *MAX-ACCESS) "
                     r"read-only", r"\1 accessible-for-notify")

    def test_tells_how_it_is_used(self):
        run = subprocess.run([os.path.join(MIBS, "generate-mib-table")], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual(run.returncode, 2)
        self.assertIn("usage: generate-mib-table", run.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
