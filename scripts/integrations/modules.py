"""What the MIB modules say, for whoever writes files from it."""

import importlib.machinery
import importlib.util
import os
import re
import sys

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FILES = ("QUORIX-MIB.txt", "QUORIX-HOST-MIB.txt", "QUORIX-HOST-DETAIL-MIB.txt",
         "QUORIX-APPLIANCE-MIB.txt")
ROOT = "1.3.6.1.4.1.4891"
HEAD = "# Written by scripts/make-integrations from the modules in mibs/. Do not edit.\n"


def quoted(text):
    """A text in YAML."""
    return "'" + text.replace("'", "''") + "'"


def generator():
    loader = importlib.machinery.SourceFileLoader(
        "generate_mib_table", os.path.join(SOURCE, "mibs", "generate-mib-table"))
    sys.dont_write_bytecode = True
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


def sentence(element):
    """The first sentence of a DESCRIPTION."""
    text = " ".join((element.findtext("description") or "").split())
    return re.split(r"(?<=[a-z0-9)'\]])[.;:] ", text + " ")[0].rstrip(" .") + "."


def dotted(oid):
    return ".".join(str(n) for n in oid)


class Notification:
    """What a module says of one: its OID, the first sentence, the names of what it carries, and what
    stands in comments in the form that snmptt's own converter reads: the message, with $1 for the
    first of what it carries, and the severity."""

    def __init__(self, element, texts):
        self.oid, self.words = element.get("oid"), sentence(element)
        self.objects = [o.get("name") for o in element.iterfind("objects/object")]
        name = element.get("name")
        found = re.search(rf"^{name} NOTIFICATION-TYPE.*?"
                          r"--#SUMMARY \"(.*?)\"\n +--#ARGUMENTS {([\d, ]*)}\n +--#SEVERITY (\w+)",
                          texts, re.M | re.S)
        if not found:
            raise SystemExit(f"make-integrations: {name} has no summary, arguments and severity")
        summary, arguments, self.severity = found.groups()
        numbers = iter(int(n) + 1 for n in arguments.split(","))
        self.message = re.sub("%s", lambda _: f"${next(numbers)}", summary)


class Modules:
    """The variables and notifications by name. Who asks for a name that there is not ends the
    program."""

    def __init__(self):
        make = generator()
        self.roots = make.dump([os.path.join(SOURCE, "mibs", name) for name in FILES])
        self.types = make.types_of(self.roots)
        self.texts = ""
        for name in FILES:
            with open(os.path.join(SOURCE, "mibs", name), encoding="ascii") as file:
                self.texts += file.read()
        self.variables = {v["name"]: v for v in make.variables_of(self.roots)}
        self.elements, self.tables = {}, {}
        for root in self.roots.values():
            for scalar in root.iterfind("nodes/scalar"):
                self.elements[scalar.get("name")] = scalar
            for table in root.iterfind("nodes/table"):
                self.elements[table.get("name")] = table
                for column in table.iterfind("row/column"):
                    self.elements[column.get("name")] = column
                    self.tables[column.get("name")] = table

    def of(self, names, name):
        if name not in names:
            raise SystemExit(f"make-integrations: {name} is in no module")
        return names[name]

    def in_order(self):
        """Names and variables, in the order of their OIDs."""
        return sorted(self.variables.items(), key=lambda item: item[1]["oid"])

    def oid(self, name):
        return dotted(self.of(self.variables, name)["oid"])

    def is_text(self, name):
        return self.of(self.variables, name)["type"] == 2

    def is_number(self, name):
        return self.of(self.variables, name)["type"] == 1

    def first_sentence(self, name):
        return sentence(self.of(self.elements, name))

    def numbers(self, name):
        """An enumeration's numbers and names."""
        element = self.of(self.elements, name).find("syntax")[0]
        while element is not None:
            found = element.findall("namednumber")
            if found:
                return {int(n.get("number")): n.get("name") for n in found}
            reference = element if element.tag == "type" else element.find("parent")
            if reference is None:
                return {}
            if reference.get("name") == "TruthValue":
                return {1: "true", 2: "false"}
            element = self.types.get((reference.get("module"), reference.get("name")))
        return {}

    def notifications(self):
        """The notifications by name."""
        return {n.get("name"): Notification(n, self.texts)
                for root in self.roots.values()
                for n in root.iterfind("notifications/notification")}
