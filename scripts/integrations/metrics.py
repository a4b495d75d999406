"""Whether rules, consoles and dashboards use what there is: metrics that snmp_exporter's module or a
recording rule makes, and labels that these have."""

import glob
import json
import os
import re

from integrations.modules import SOURCE
from integrations.snmp_exporter import Exporter

RULES = "integrations/prometheus/vexhost.rules.yml"
USERS = (RULES, "integrations/prometheus/consoles/*.html", "integrations/grafana/*.json")
NAME = re.compile(r"\b(?:tlx(?:Ho|Ap)\w*|vexhost:[\w:]+)")
# Where a name is a label's.
LABELS = re.compile(r"labels\.\w+|sortByLabel \\?\"\w+|\{\{\w+\}\}|\{[^{}]*\}|"
                    r",\s*\"\w+\"(?=[,)])|\b(?:by|without|on|ignoring|group_left|group_right) ?\([^)]*\)", re.I)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def texts(value):
    """Every text in a JSON value, a line each: its own braces are no selector's."""
    if isinstance(value, dict):
        return "".join(texts(inner) for inner in value.values())
    if isinstance(value, list):
        return "".join(texts(inner) for inner in value)
    return value + "\n" if isinstance(value, str) else ""


def known(modules, rules):
    """The metrics, and the labels that they have besides those that Prometheus gives."""
    exporter = Exporter(modules)
    metrics = set(exporter.samples())
    # A text has itself as a label, and 1 as its value.
    labels = set().union(*(exporter.labels_of(name) for name in metrics)) | \
        {name for name in metrics if modules.is_text(name)}
    # What a rule joins several to.
    labels |= set(re.findall(r"label_join\(.*?,\s*\"(\w+)\", \"[^\"]*\", \"", rules, re.S))
    return metrics | set(re.findall(r"^ *- record: (\S+)", rules, re.M)), labels


def unknown(text, metrics, labels):
    """What a text uses and there is not."""
    found = []
    for place in LABELS.findall(text):
        found += [f"the label {name}" for name in NAME.findall(place) if name not in labels]
    found += [f"the metric {name}" for name in NAME.findall(LABELS.sub(" ", text))
              if name not in metrics]
    return sorted(set(found))


def faults(modules):
    metrics, labels = known(modules, read(os.path.join(SOURCE, RULES)))
    found = []
    for pattern in USERS:
        paths = glob.glob(os.path.join(SOURCE, pattern))
        if not paths:
            found.append(f"{pattern}: there is none")
        for path in paths:
            text = read(path)
            text = texts(json.loads(text)) if path.endswith(".json") else text
            found += [f"{os.path.relpath(path, SOURCE)}: there is not {what}"
                      for what in unknown(text, metrics, labels)]
    return found


def self_test(modules):
    metrics, labels = known(modules, "  - record: vexhost:one:ratio\n    expr: label_join(tlxHoLoadOne, "
                            "\"tlxHoOne\", \" on \", \"tlxHoMountDevice\", \"tlxHoMountType\")\n")
    cases = {
        "tlxHoNothing / 100": ["the metric tlxHoNothing"],
        "tlxHoLoadOne{instance=\"a\"} + vexhost:one:ratio": [],
        "vexhost:two:ratio": ["the metric vexhost:two:ratio"],
        "tlxHoFileSysDesc > 1": ["the metric tlxHoFileSysDesc"],
        "tlxHoMountState{tlxHoMountDirectry=~\"/srv\"}": ["the label tlxHoMountDirectry"],
        "avg without (tlxHoCpuUtilRow) (tlxHoCpuUtilMin)": ["the label tlxHoCpuUtilRow"],
        "{{ $labels.tlxHoSiblingNames }}": ["the label tlxHoSiblingNames"],
        "{{tlxHoSiblingName}}": [],
        "query (printf \"tlxHoName{instance=%q}\" $host) .Labels.tlxHoName": [],
        "label_join(tlxHoMountState > 1, \"tlxHoTwo\", \" \", \"tlxHoMountDevice\", \"tlxHoMount\")":
            ["the label tlxHoMount", "the label tlxHoTwo"],
        "vexhost:one:ratio{tlxHoOne=\"a\"}": [],
        "sortByLabel \"tlxHoLoadOne\"": ["the label tlxHoLoadOne"],
    }
    for text, expected in cases.items():
        said = unknown(text, metrics, labels)
        if said != expected:
            raise SystemExit(f"{text}: {said}, not {expected}")
    print(f"{len(cases)} examples judged")
