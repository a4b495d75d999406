"""The manual pages and documents: that they are sound, and that they say what is the case.

usage: docs_test.py BUILD-DIRECTORY [TestClass[.test]]
"""

import os
import re
import string
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(SOURCE, "scripts"))
import machine_paths  # noqa: E402 pylint: disable=wrong-import-position
PAGES = {name: os.path.join(SOURCE, "docs", "man", name)
         for name in ("vexhostd.8", "vexhostd.conf.5", "vexreg.1")}
PRODUCT = ("agent", "common", "identity", "monitors", "status", "detail", "software", "firmware", "framework",
           "hardware", "platform")
BUILD = ""


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          check=False, **options)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def rendered(page):
    """The page as plain text, every paragraph on one line."""
    environment = dict(os.environ, MANWIDTH="2000", LC_ALL="C.UTF-8")
    return run("man", "-P", "cat", "-l", PAGES[page], env=environment).stdout


def product_sources():
    for folder in PRODUCT:
        for directory, _, names in os.walk(os.path.join(SOURCE, folder)):
            for name in names:
                if name.endswith((".cpp", ".h")):
                    yield os.path.join(directory, name)


class Pages(unittest.TestCase):
    def test_man_has_nothing_to_say(self):
        for page, path in PAGES.items():
            with self.subTest(page):
                shown = run("man", "--warnings", "-E", "UTF-8", "-P", "cat", "-l", path)
                self.assertEqual((shown.returncode, shown.stderr), (0, ""))
                self.assertIn("NAME", shown.stdout)

    def test_man_would_notice(self):
        broken = run("man", "--warnings", "-E", "UTF-8", "-P", "cat", "-l", "-",
                     input=".Dd today\n.Dt A 1\n.Os\n.Sh NAME\n.nosuchmacro x\n")
        self.assertNotEqual(broken.stderr, "")

    def test_mandoc_has_nothing_to_say(self):
        for page, path in PAGES.items():
            with self.subTest(page):
                lint = run("mandoc", "-T", "lint", "-W", "warning", path)
                self.assertEqual((lint.returncode, lint.stdout), (0, ""))

    def test_references_lead_to_pages(self):
        """To one of these, or to a page of Debian that the programs' packages bring along."""
        known = set(PAGES) | {f"{name}.{section}" for name, section in (
            ("snmpd", 8), ("tput", 1), ("snmpd.conf", 5), ("snmp.conf", 5), ("snmp_config", 5),
            ("statvfs", 3), ("uname", 2), ("errno", 3), ("ftok", 3), ("sd_notify", 3), ("sh", 1), ("rpm", 8), ("dpkg", 1), ("grep", 1),
            ("cut", 1), ("awk", 1), ("pidof", 8), ("ps", 1), ("sort", 1))}
        for page, path in PAGES.items():
            for name, section in re.findall(r"\bXr (\S+) (\d)", read(path)):
                self.assertIn(f"{name}.{section}", known, page)


class Options(unittest.TestCase):
    @staticmethod
    def taken_by_vexhostd():
        """The letters that it does not call unknown. All tries end at -h, before anything is made."""
        with tempfile.TemporaryDirectory() as work:
            tries = {letter: subprocess.Popen(
                [os.path.join(BUILD, "bin", "vexhostd"), f"-{letter}", "1", "-h"], cwd=work,
                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
                for letter in string.ascii_letters}
            said = {letter: started.communicate(timeout=100)[1]
                    for letter, started in tries.items()}
        return {letter for letter, text in said.items()
                if "Unknown command line option" not in text}

    def test_of_vexhostd(self):
        page = set(re.findall(r"^\.It Fl (\w)", read(PAGES["vexhostd.8"]), re.M))
        usage = run(os.path.join(BUILD, "bin", "vexhostd"), "-h").stderr
        printed = set(re.findall(r"^  -(\w)", usage, re.M))
        self.assertTrue(printed, usage)
        # Those it takes and does not print: help itself, and the watchdog, which is not for all.
        self.assertEqual(page, printed | {"h", "z"})
        self.assertEqual(page, self.taken_by_vexhostd())
        synopsis = rendered("vexhostd.8").split("DESCRIPTION")[0]
        self.assertEqual(set("".join(re.findall(r"\[-(\w+)", synopsis))), page)

    def vexreg(self, *words):
        help_text = run(os.path.join(BUILD, "bin", "vexreg"), *words, "--help")
        self.assertEqual(help_text.returncode, 0)
        return help_text.stdout

    def commands(self):
        listed = self.vexreg().split("Subcommands:\n")[1].split("\n\n")[0]
        return re.findall(r"^  (\w+) ", listed, re.M)

    def test_commands_of_vexreg(self):
        page = read(PAGES["vexreg.1"])
        section = page.split(".Ss Commands")[1].split(".Ss Options")[0]
        self.assertEqual(re.findall(r"^\.It Cm (\w+)", section, re.M), self.commands())
        synopsis = page.split(".Sh DESCRIPTION")[0]
        self.assertEqual(re.findall(r"^\.Cm (\w+)", synopsis, re.M), self.commands())

    def test_options_of_vexreg(self):
        printed = set()
        for words in [()] + [(command,) for command in self.commands()]:
            text = self.vexreg(*words)
            printed |= set(re.findall(r"^  (?:-[hV],)?(--[a-z]+)", text, re.M))
        page = read(PAGES["vexreg.1"]).split(".Ss Options")[1].split(".Sh DOCTOR")[0]
        listed = {"-" + option for option in re.findall(r"\bFl (-[a-z]+)", page)}
        self.assertEqual(listed, printed)

    def man_help(self, program):
        return run(os.path.join(SOURCE, "scripts", "man-help"), "--program", program)

    def test_the_page_has_the_help_of_each_command(self):
        compared = self.man_help(os.path.join(BUILD, "bin", "vexreg"))
        self.assertEqual((compared.returncode, compared.stderr), (0, ""))

    def test_a_help_that_changed_is_noticed(self):
        with tempfile.TemporaryDirectory() as directory:
            program = os.path.join(directory, "vexreg")
            with open(program, "w", encoding="utf-8") as file:
                file.write(f"#!/bin/sh\n{os.path.join(BUILD, 'bin', 'vexreg')} \"$@\" |"
                           " sed 's/^Removes an object$/Removes it/'\n")
            os.chmod(program, 0o755)
            compared = self.man_help(program)
        self.assertEqual(compared.returncode, 1)
        self.assertIn("'Removes an object', and the command 'Removes it'", compared.stderr)

    @staticmethod
    def doctor_section():
        return read(PAGES["vexreg.1"]).split(".Sh DOCTOR")[1].split("\n.Sh ")[0]

    @staticmethod
    def items_of(section):
        return [item.strip() for line in re.findall(r"^\.It (.*)", section, re.M)
                for item in line.split(",")]

    def test_doctor_prints_what_the_page_lists(self):
        """Each check that doctor prints here begins with an item of the page."""
        items = self.items_of(self.doctor_section())
        # On an empty registry, so that no group is there.
        findings = run(os.path.join(BUILD, "bin", "vexreg"), "--root", "/nonexistent",
                       "doctor").stdout.splitlines()
        self.assertGreater(len(findings), 15)
        for finding in findings:
            self.assertTrue(any(finding[6:].startswith(item) for item in items), finding)

    @staticmethod
    def without_check(items):
        """The items that no text of doctor begins with."""
        folder = os.path.join(SOURCE, "tools", "vexreg")
        code = "".join(re.sub(r"//.*", "", read(os.path.join(folder, name)))
                       for name in ("doctor.cpp", "findings.cpp", "host_facts.cpp"))
        texts = re.findall(r'"([A-Za-z][^"\\]*)"', code)
        programs = re.findall(r'JudgeProcess\("(\w+)"', code)
        return [item for item in items if item not in programs and
                not any(text == item + " " or
                        text.startswith((item + ": ", item + " of 127.0.0.1: "))
                        for text in texts)]

    def test_the_page_lists_what_doctor_prints(self):
        items = self.items_of(self.doctor_section())
        self.assertGreater(len(items), 12)
        self.assertEqual(self.without_check(items), [])

    def test_a_check_that_is_made_up_is_noticed(self):
        made_up = ["power supply", "cpu", "groups", "value of", "EVs", "snmpd on TCP port 161",
                   "mount"]
        self.assertEqual(self.without_check(made_up), made_up)


class Sources(unittest.TestCase):
    # What is no source or trace of the agent.
    PLUMBING = {"/bin/sh", "/dev/null", "/dev/null/vexhostd", "/proc/self/task", "/proc/self/fd", "/proc/self/fd/", "/proc/self/fd/%d", "/proc",
                "/proc/net/unix", "/tmp"}

    def test_every_path_of_the_code_is_described(self):
        text = rendered("vexhostd.8") + rendered("vexhostd.conf.5")
        found = set()
        for path in product_sources():
            for literal in re.findall(r'"((?:[^"\\\n]|\\.)*)"', re.sub(r"//.*", "", read(path))):
                found |= set(re.findall(
                    rf"(?<![\w.*/]){machine_paths.BEGINNING}[^ ;,`\\\"']*", literal))
        self.assertGreater(len(found), 20)
        for path in sorted(found - self.PLUMBING):
            # Programs are listed by their names, patterns as they stand.
            name = os.path.basename(path) if path.startswith(("/sbin", "/usr/sbin")) else path
            name = re.sub(r"/(smbios_entry_point|DMI)$", "", name)
            name = re.sub(r"-%\.63s$", "-RELEASE", name)
            name = re.sub(r"/%s$", "", name)
            self.assertTrue(name in text, f"{path} is in no manual")

    # What the agent learns by a call that names no path: where the manual says so.
    CALLS = {r"\bgetservbyname\(": "/etc/services", r"\bSIOCGIFHWADDR\b": "hardware address of eth0",
             r"\blocaltime_r\(": "/etc/localtime", r"\buname\(": "uname(2)",
             r"\bftok\(": "/opt/qv", r"\bstatvfs\(": "statvfs(3)"}
    # Calls of this kind that the agent would be new in making.
    NO_CALLS = (r"\b(getaddrinfo|gethostby\w+|gethostname|getifaddrs|if_nametoindex|getpw\w+|"
                r"getgr\w+|sysinfo|sysconf|get_nprocs\w*|getloadavg|semget|msgget|getutx?ent|"
                r"getservbyport|getprotoby\w+)\(")

    def test_every_call_without_a_path_is_described(self):
        text = rendered("vexhostd.8")
        code = "".join(re.sub(r"//.*", "", read(path)) for path in product_sources())
        for call, described in self.CALLS.items():
            self.assertRegex(code, call)
            self.assertIn(described, text)
        self.assertNotRegex(code, self.NO_CALLS)

    def test_every_variable_of_the_environment_is_described(self):
        text = rendered("vexhostd.8")
        names = set()
        for path in product_sources():
            names |= set(re.findall(r'getenv\("(\w+)"\)', read(path)))
        self.assertIn("NOTIFY_SOCKET", names)
        for name in names:
            self.assertIn(name, text)

    def test_capabilities_are_those_of_the_service(self):
        unit = read(os.path.join(SOURCE, "packaging", "vexhostd.service.in"))
        kept = re.search(r"^CapabilityBoundingSet=(.*)$", unit, re.M).group(1).split()
        self.assertEqual(set(re.findall(r"\.Dv (CAP_\w+)", read(PAGES["vexhostd.8"]))), set(kept))

    def test_every_own_token_is_described(self):
        text = read(PAGES["vexhostd.conf.5"])
        code = read(os.path.join(SOURCE, "framework", "snmp", "snmp_files.cpp"))
        own = re.findall(r'register_config_handler\(application\.c_str\(\), "(\w+)"', code)
        self.assertEqual(sorted(own), ["agentXPerms", "agentXSocket", "community", "pollInterval"])
        for token in own:
            self.assertIn(f".It Ic {token} ", text)


class Documents(unittest.TestCase):
    def test_the_list_of_variables_has_all(self):
        listed = re.findall(r"^#+ (tlx\w+)$", read(os.path.join(SOURCE, "docs", "variables.md")),
                            re.M)
        table = read(os.path.join(BUILD, "mibs", "mib_table.cpp"))
        served = re.findall(r'^    \{"(tlx\w+)", kOids', table, re.M)
        self.assertGreater(len(served), 50)
        self.assertEqual(set(served) - set(listed), set())

    def test_the_news_are_of_this_version(self):
        """NEWS begins with the version that is built, and has each release once."""
        releases = re.findall(r"^(\d+\.\d+\.\d+)\n=+$", read(os.path.join(SOURCE, "NEWS")), re.M)
        version = re.search(r"^project\(vexhostd VERSION ([\d.]+)",
                            read(os.path.join(SOURCE, "CMakeLists.txt")), re.M).group(1)
        self.assertEqual(releases[0], version, "describe this version at the top of NEWS")
        self.assertEqual(len(set(releases)), len(releases))

    def test_every_decision_has_a_subject_and_a_date(self):
        folder = os.path.join(SOURCE, "docs", "decisions")
        decisions = [name for name in os.listdir(folder) if name.endswith(".md")]
        self.assertGreater(len(decisions), 5)
        for name in decisions:
            text = read(os.path.join(folder, name))
            self.assertRegex(text, r"\A# [^\n;]+\n\n20\d\d-\d\d-\d\d\n\n", name)
            # What is decided at another time is a decision of its own.
            self.assertEqual(len(re.findall(r"^20\d\d-\d\d-\d\d$", text, re.M)), 1, name)

    def test_files_that_are_named_exist(self):
        documents = [os.path.join(SOURCE, "README.md"), os.path.join(SOURCE, "CONTRIBUTING.md")]
        folder = os.path.join(SOURCE, "docs")
        documents += [os.path.join(folder, name) for name in os.listdir(folder)
                      if name.endswith(".md")]
        named = 0
        for document in documents:
            for path in self.files_named(read(document)):
                # A document of the folder is named by its name alone there.
                places = [os.path.join(SOURCE, path), os.path.join(os.path.dirname(document), path)]
                self.assertTrue(any(map(os.path.exists, places)), f"{document}: {path}")
                named += 1
        self.assertGreater(named, 20)

    @staticmethod
    def files_named(text):
        """Those of the tree's folders, and documents by their names alone."""
        folders = "|".join(name for name in os.listdir(SOURCE)
                           if os.path.isdir(os.path.join(SOURCE, name)) and re.fullmatch(r"[a-z]+", name))
        return [path for path in re.findall(rf"`((?:{folders}|decisions)/[\w./-]*|[a-z-]+\.md)`", text)
                if not path.startswith("build/") and "NAME" not in path]

    def test_a_file_that_is_named_is_seen_in_any_folder(self):
        for folder in ("agent", "bench", "cmake", "contrib", "debian", "detail", "integrations", "packages",
                       "decisions"):
            self.assertEqual(self.files_named(f"See `{folder}/made_up.x`."), [f"{folder}/made_up.x"])

    def test_the_readme_tells_what_an_installation_has_of_it(self):
        here, source = read(os.path.join(SOURCE, "README.md")).split("\n## More\n")[1].split(
            "\nIn the source tree alone:\n")
        installed = read(os.path.join(SOURCE, "docs", "CMakeLists.txt"))
        names = re.compile(r"`(?:docs/)?([\w./-]+)`")
        for name in names.findall(here):
            self.assertRegex(installed, rf"[ /]{re.escape(name)}[ )\n]")
        for name in names.findall(source):
            self.assertNotRegex(installed, rf"[ /]{re.escape(name)}[ )\n]")
        self.assertGreater(len(names.findall(here)), 5)

    def test_pictures_are_there_and_small(self):
        folder = os.path.join(SOURCE, "docs")
        shown = set()
        for name in os.listdir(folder):
            if name.endswith(".md"):
                shown |= set(re.findall(r"!\[[^]]+\]\((pictures/[\w.-]+)\)",
                                        read(os.path.join(folder, name))))
        self.assertEqual(shown, {f"pictures/{n}" for n in
                                 os.listdir(os.path.join(folder, "pictures"))})
        self.assertGreaterEqual(len(shown), 3)
        for name in shown:
            with open(os.path.join(folder, name), "rb") as file:
                picture = file.read()
            self.assertEqual(picture[:8], b"\x89PNG\r\n\x1a\n", name)
            self.assertLess(len(picture), 150 << 10, name)


if __name__ == "__main__":
    BUILD = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
