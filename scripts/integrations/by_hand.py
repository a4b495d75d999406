"""Whether files of integrations/ that are written by hand have the OIDs of what they name, and may be
run where they are programs."""

import glob
import importlib.machinery
import importlib.util
import os
import re
import sys

from integrations.modules import ROOT, SOURCE

PLUGIN = "nagios/check_vexhost"
# Files whose OIDs are written from the modules are compared as a whole.
TEXTS = ("snmpd/*.conf", "snmptrapd/*.conf", "icinga/*.conf", "zabbix/trap-to-zabbix")
OID = re.compile(rf"\.?\b{re.escape(ROOT)}(?:\.\d+)*\b")


def plugin_oids(path):
    """The plugin's own table."""
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("check_vexhost", path)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module.OIDS


def wrong_in_table(oids, modules):
    return [f"{name} is not {oid}" for name, oid in oids.items()
            if name not in modules.variables or oid != "." + modules.oid(name)]


def wrong_in_text(text, modules):
    """Each line's OIDs, but for the suite's own, are those of the names in the comment before it."""
    found, names = [], []
    for line in text.splitlines():
        comment = re.match(r"\s*(#|//|/?\*)", line)
        oids = [oid.lstrip(".") for oid in OID.findall(line)]
        if comment:
            names += re.findall(r"\btlx\w+", line)
        named = [modules.oid(name) if name in modules.variables else name for name in names]
        if not comment:
            if oids and set(oids) != {ROOT} and sorted(oids) != sorted(named):
                found.append(f"{' '.join(oids)} is not {' '.join(names) or 'named before'}")
            names = []
    return found


def faults(modules):
    folder = os.path.join(SOURCE, "integrations")
    found = [f"integrations/{PLUGIN}: {what}" for what in wrong_in_table(
        plugin_oids(os.path.join(folder, PLUGIN)), modules)]
    for pattern in TEXTS:
        paths = glob.glob(os.path.join(folder, pattern))
        if not paths:
            found.append(f"integrations/{pattern}: there is none")
        for path in paths:
            with open(path, encoding="utf-8") as file:
                found += [f"{os.path.relpath(path, SOURCE)}: {what}"
                          for what in wrong_in_text(file.read(), modules)]
    for path in glob.glob(os.path.join(folder, "*/*")):
        if os.path.isfile(path):
            with open(path, "rb") as file:
                program = file.read(2) == b"#!"
            if program != bool(os.stat(path).st_mode & 0o100):
                found.append(f"{os.path.relpath(path, SOURCE)}: is "
                             f"{'a program that nobody may run' if program else 'no program'}")
    return found


def self_test(modules):
    load = modules.oid("tlxHoLoadOne")
    texts = {
        f"# The load (tlxHoLoadOne).\nmonitor .{load} > 2\n": 0,
        f"# The load (tlxHoLoadFive).\nmonitor .{load} > 2\n": 1,
        f"# The load.\nmonitor .{load} > 2\n": 1,
        f"# tlxHoLoadNone\nmonitor {load} > 2\n": 1,
        f"# tlxHoLoadOne\nother\nmonitor {load} > 2\n": 1,
        f"# Two: tlxHoLoadOne\n# and tlxHoUptime.\nmonitor -o {modules.oid('tlxHoUptime')} {load}\n": 0,
        f"view station included .{ROOT}\n": 0,
    }
    for text, expected in texts.items():
        said = wrong_in_text(text, modules)
        if len(said) != expected:
            raise SystemExit(f"{text}: {said}")
    said = wrong_in_table({"tlxHoLoadOne": "." + load, "tlxHoLoadFive": "." + load,
                           "tlxHoNothing": "." + load}, modules)
    if said != [f"tlxHoLoadFive is not .{load}", f"tlxHoNothing is not .{load}"]:
        raise SystemExit(said)
    print(f"{len(texts) + 1} examples judged")
