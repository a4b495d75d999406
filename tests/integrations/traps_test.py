"""What snmptrapd gives its handlers with our settings, and what the handler for Icinga makes of it.

usage: traps_test.py [TestClass[.test]]   (from anywhere; the files are those of the source tree)
"""

import importlib.machinery
import importlib.util
import io
import json
import os
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
INTEGRATIONS = os.path.join(SOURCE, "integrations")
TRAP = ".1.3.6.1.4.1.4891.0.11003"


def loaded(path):
    """A program of ours as a module."""
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("handler", os.path.join(INTEGRATIONS, path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("handler", loader))
    loader.exec_module(module)
    return module


class Snmptrapd(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.work = work.name

    def path(self, name):
        return os.path.join(self.work, name)

    def read(self, name):
        try:
            with open(self.path(name), encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def test_handlers_are_given_numbers(self):
        """The first lines that a handler is given, with the drop-in alone and Debian's options."""
        with open(self.path("handler"), "w", encoding="utf-8") as file:
            file.write(f"#!/bin/sh\ncat >{self.work}/coming && "
                       f"mv {self.work}/coming {self.work}/come\n")
        os.chmod(self.path("handler"), 0o755)
        with open(os.path.join(INTEGRATIONS, "snmptrapd/vexhost.conf"), encoding="utf-8") as file:
            text = file.read().replace("change-this", "public")
        with open(self.path("snmptrapd.conf"), "w", encoding="utf-8") as file:
            file.write(text + f"traphandle default {self.work}/handler\n")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("127.0.0.1", 0))
            address = f"127.0.0.1:{taken.getsockname()[1]}"
        environment = {"PATH": os.environ["PATH"] + ":/usr/sbin", "HOME": self.work, "MIBS": "",
                       "SNMPCONFPATH": self.work, "SNMP_PERSISTENT_DIR": self.work}
        with open(self.path("log"), "wb") as log, subprocess.Popen(
                ["snmptrapd", "-f", "-Lo", "-C", "-c", self.path("snmptrapd.conf"),
                 "udp:" + address], env=environment, stdout=log, stderr=log) as daemon:
            try:
                end = time.monotonic() + 60
                while not self.read("come"):
                    self.assertIsNone(daemon.poll(), self.read("log"))
                    self.assertLess(time.monotonic(), end, self.read("log"))
                    # Again and again: it may not listen yet.
                    subprocess.run(["snmptrap", "-v2c", "-cpublic", address, "", TRAP,
                                    ".1.3.6.1.4.1.4891.250.1.0", "s", "by the way"],
                                   env=environment, check=True, stderr=subprocess.DEVNULL)
                    time.sleep(0.2)
            finally:
                daemon.terminate()
        lines = self.read("come").splitlines()
        self.assertEqual(lines[3:], [f".1.3.6.1.6.3.1.1.4.1.0 {TRAP}",
                                     '.1.3.6.1.4.1.4891.250.1.0 "by the way"'])
        self.assertIn(f".1.3.6.1.6.3.1.1.4.1.0 = OID: {TRAP}", self.read("log"))


class Icinga(unittest.TestCase):
    def results(self, text, bad=""):
        """What Icinga is asked to take for what snmptrapd has given."""
        handler = loaded("icinga/trap-to-icinga")
        asked = []

        def answer(request, **_):
            asked.append(json.loads(request.data))
            return io.BytesIO(b"{}")

        with tempfile.NamedTemporaryFile("w", suffix=".secret") as secret, \
                unittest.mock.patch.object(handler.ssl, "create_default_context"), \
                unittest.mock.patch.object(handler.urllib.request, "urlopen", answer), \
                unittest.mock.patch.object(
                    sys, "stdin", io.TextIOWrapper(io.BytesIO(text.encode()))):
            secret.write("url=https://there:5665\nuser=u\npassword=p\nca=/ca\n")
            secret.flush()
            self.assertEqual(handler.main([secret.name]), 0)
        return [(a["filter_vars"]["sender"], a["exit_status"], a["plugin_output"]) for a in asked]

    def test_takes_both_forms_of_an_oid(self):
        """A snmptrapd without the option -On, and without modules, writes iso for the first 1."""
        for first in (".1", "iso"):
            given = ("there\nUDP: [192.0.2.10]:161->[192.0.2.1]:162\n"
                     f"{first}.3.6.1.2.1.1.3.0 0:0:00:08.97\n"
                     f"{first}.3.6.1.6.3.1.1.4.1.0 {first}.3.6.1.4.1.4891.0.11003\n"
                     f"{first}.3.6.1.4.1.4891.11.2.1.3.0 \"hello\"\n"
                     f"{first}.3.6.1.4.1.4891.250.1.0 \"iso.3 said\nhello\"\n")
            self.assertEqual(self.results(given), [
                ("192.0.2.10", 0, "tlxHoTestNotification: iso.3 said hello")], first)
            self.assertEqual(self.results(given.replace("4891.0", "4892.0")), [], first)


if __name__ == "__main__":
    unittest.main(verbosity=2)
