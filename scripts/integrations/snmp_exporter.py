"""Modules for snmp_exporter, in both of its forms."""

from integrations.modules import HEAD, quoted

# The labels of a table's rows: columns by which a station knows them. A row's number is none: it
# goes to another row when the agent is started again. But where two rows may have the same labels, the
# number stays beside them, since two samples with the same ones would cost the whole scrape; the rules
# leave it out. So would a label that is no UTF-8, as tlxHoFileSysDesc is when it was cut.
LABELS = {
    "tlxHoCpuUtilTable": ["tlxHoCpuUtilUnitIndex"],
    # Not there before the start is complete, and two long directories may agree in what is shown.
    "tlxHoFileSysTable": ["tlxHoMountDirectory", "tlxHoMountDevice", "tlxHoMountType"],
    "tlxHoMountTable": ["tlxHoMountDirectory", "tlxHoMountDevice", "tlxHoMountType"],
    "tlxHoSiblingTable": ["tlxHoSiblingName"],
    # Names may come twice.
    "tlxHoSwVerTable": ["tlxHoSwVerName", "tlxHoSwVerVersion"],
    "tlxHoFwVerTable": ["tlxHoFwVerDisplayName", "tlxHoFwVerVersion", "tlxHoFwVerLocation"],
    "tlxHoSwKindTable": ["tlxHoSwKindName", "tlxHoSwVerVersion"],
    "tlxHoFwKindTable": ["tlxHoFwKindName", "tlxHoFwVerVersion", "tlxHoFwKindLocation"],
}
KEEP_ROW = {"tlxHoFileSysTable", "tlxHoMountTable", "tlxHoSwVerTable", "tlxHoFwVerTable", "tlxHoSwKindTable",
            "tlxHoFwKindTable"}
# What a time series says nothing about: hexadecimal arrays, dates, what never changes.
LEFT_OUT = {"tlxHoMibStatusArray", "tlxHoMibHealthStatusArray", "tlxHoClientLastModified",
            "tlxHoSwVerDate", "tlxHoGUID", "tlxHoTrapFlags", "tlxHoCodeServer",
            "tlxHoWebMgmtPort", "tlxHoGenericData", "tlxHoConfigChangedDate",
            "tlxHoSwVerVersionBinary", "tlxHoFwVerXmlString", "tlxHoFwVerKeyString",
            "tlxHoCpuUtilHwLocation"}


class Exporter:
    def __init__(self, modules):
        self.modules = modules
        self.labels = set().union(*LABELS.values())
        for name in self.labels | LEFT_OUT:
            modules.oid(name)

    def wanted(self):
        return [(name, variable) for name, variable in self.modules.in_order()
                if variable["access"] != "kNotify" and name not in LEFT_OUT]

    def samples(self):
        """What becomes a metric: a label is none of its own, nor is a text in a table."""
        return [name for name, variable in self.wanted()
                if name not in self.labels and
                (not variable["column"] or self.modules.is_number(name))]

    def labels_of(self, name):
        """The labels of a metric that a rule or a picture may use."""
        table = self.modules.tables.get(name)
        if table is None:
            return []
        row = [table.find("row/column").get("name")] if table.get("name") in KEEP_ROW else []
        return LABELS[table.get("name")] + row

    def lookups(self, table):
        row = table.find("row/column").get("name")
        lines = []
        for label in LABELS[table.get("name")]:
            kind = "gauge" if self.modules.is_number(label) else "DisplayString"
            lines += [f"- labels: [{row}]", f"  labelname: {label}",
                      f"  oid: {self.modules.oid(label)}", f"  type: {kind}"]
        if table.get("name") not in KEEP_ROW:
            lines += ["- labels: []", f"  labelname: {row}"]
        return lines

    def metric(self, name):
        names = self.modules.numbers(name)
        oid = self.modules.oid(name)
        kind = "DisplayString" if self.modules.is_text(name) else "gauge"
        lines = [f"- name: {name}", f"  oid: {oid}", f"  type: {kind}",
                 f"  help: {quoted(self.modules.first_sentence(name) + ' - ' + oid)}"]
        if self.modules.variables[name]["column"]:
            table = self.modules.tables[name]
            lines += ["  indexes:", f"  - labelname: {table.find('row/column').get('name')}",
                      "    type: gauge", "  lookups:"] + \
                     ["  " + line for line in self.lookups(table)]
        if names and kind == "gauge":
            lines += ["  enum_values:"] + [f"    {n}: {names[n]}" for n in sorted(names)]
        return lines

    def module(self):
        metrics = [line for name in self.samples() for line in self.metric(name)]
        # Whole rows: a walk of each column for itself would have every answer filled up with what is
        # behind that column, several times what is wanted.
        entries = dict.fromkeys(self.modules.tables[n].find("row").get("oid")
                                for n, v in self.wanted() if v["column"])
        scalars = [self.modules.oid(n) + ".0" for n, v in self.wanted() if not v["column"]]
        return (["walk:"] + [f"- {oid}" for oid in entries] + ["get:"] +
                [f"- {oid}" for oid in scalars] + ["metrics:"] + metrics)


def indented(lines, by):
    return "".join(" " * by + line + "\n" for line in lines)


def snmp_yml(module):
    return (HEAD + "# For snmp_exporter 0.23 and later. Put your own community or user into auths.\n"
            "auths:\n  vexhost_v2:\n    version: 2\n    community: public\n"
            "  vexhost_v3:\n    version: 3\n    username: monitor\n    security_level: authPriv\n"
            "    auth_protocol: SHA\n    password: change-this\n    priv_protocol: AES\n"
            "    priv_password: change-this-too\n"
            "modules:\n  vexhost:\n" + indented(module, 4) +
            "    max_repetitions: 50\n    retries: 1\n    timeout: 5s\n")


def snmp_021_yml(module):
    return (HEAD + "# For snmp_exporter before 0.23 (Debian 12). Put your own community into auth.\n"
            "vexhost:\n" + indented(module, 2) +
            "  version: 2\n  max_repetitions: 50\n  retries: 1\n  timeout: 5s\n"
            "  auth:\n    community: public\n")


def files(modules):
    module = Exporter(modules).module()
    return {"prometheus/snmp.yml": snmp_yml(module),
            "prometheus/snmp-0.21.yml": snmp_021_yml(module)}
