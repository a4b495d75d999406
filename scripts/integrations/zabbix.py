"""The template for Zabbix 6.0."""

import hashlib

from integrations.modules import HEAD, quoted

TEMPLATE = "vexhostd by SNMP"
GROUP = "Templates/vexhostd"
DELAY, SLOW, DISCOVERY = "{$VEXHOST.DELAY}", "{$VEXHOST.DELAY.SLOW}", "{$VEXHOST.DELAY.DISCOVERY}"
MEGABYTE, PERCENT = "1048576", "%"

# What the template's macros are at first, and what they are for.
MACROS = [
    ("{$VEXHOST.DELAY}", "1m", "Between two questions for what changes."),
    ("{$VEXHOST.DELAY.SLOW}", "1h", "Between two questions for what hardly changes."),
    ("{$VEXHOST.DELAY.DISCOVERY}", "10m", "Between two looks for new rows."),
    ("{$VEXHOST.CPU.MAX}", "95", "Processors busy for half an hour, in per cent."),
    ("{$VEXHOST.MEMORY.MIN}", "5", "Memory available, in per cent of all."),
    ("{$VEXHOST.SWAP.MIN}", "10", "Swap space free, in per cent of all."),
    ("{$VEXHOST.FS.WARN}", "85", "Space used, in per cent; can be set for one by context."),
    ("{$VEXHOST.FS.CRIT}", "95", "Space used, in per cent; can be set for one by context."),
    ("{$VEXHOST.INODES.MAX}", "90", "Inodes used, in per cent; can be set for one by context."),
    ("{$VEXHOST.FS.MATCHES}", "^.+$", "The file systems that are discovered."),
    ("{$VEXHOST.FS.NOT_MATCHES}", " on /(run|dev|sys|proc)(/|$)", "Those that are left out."),
    ("{$VEXHOST.AGE.MAX}", "5m", "The age of values that are taken for old."),
]

# Scalars: name, delay, unit, multiplier, whether -1 means that it is not known.
SCALARS = {
    "tlxHoMibCondition": ("Condition", DELAY, "", None, False),
    "tlxHoName": ("Operating system", SLOW, None, None, False),
    "tlxHoVersion": ("Operating system: version", SLOW, None, None, False),
    "tlxHoDesc": ("Operating system: description", SLOW, None, None, False),
    "tlxHoSystemName": ("Host name", SLOW, None, None, False),
    "tlxHoSystemRole": ("Role", SLOW, None, None, False),
    "tlxHoSystemRoleDetail": ("Role: detail", SLOW, None, None, False),
    "tlxHoGUIDCanonical": ("GUID", SLOW, None, None, False),
    "tlxHoPhysicalMemorySize": ("Memory: size", DELAY, "B", MEGABYTE, True),
    "tlxHoPhysicalMemoryFree": ("Memory: free", DELAY, "B", MEGABYTE, True),
    "tlxHoMemoryAvailable": ("Memory: available", DELAY, "B", MEGABYTE, True),
    "tlxHoMemoryCached": ("Memory: cached", DELAY, "B", MEGABYTE, True),
    "tlxHoPagingMemorySize": ("Swap: size", DELAY, "B", MEGABYTE, True),
    "tlxHoPagingMemoryFree": ("Swap: free", DELAY, "B", MEGABYTE, True),
    "tlxHoAgentVersion": ("Agent: version", SLOW, None, None, False),
    "tlxHoAgentStart": ("Agent: start", DELAY, "unixtime", None, True),
    "tlxHoAgentLastPoll": ("Agent: last poll", DELAY, "unixtime", None, True),
    "tlxHoAgentPollDuration": ("Agent: duration of the last poll", DELAY, "s", "0.001", True),
    "tlxHoAgentFailedPolls": ("Agent: failed polls", DELAY, "", None, True),
    "tlxHoLoadOne": ("Load: 1 minute", DELAY, "", "0.01", True),
    "tlxHoLoadFive": ("Load: 5 minutes", DELAY, "", "0.01", True),
    "tlxHoLoadFifteen": ("Load: 15 minutes", DELAY, "", "0.01", True),
    "tlxHoUptime": ("Uptime", DELAY, "uptime", None, True),
}


class Rule:
    """A discovery: which rows, by which column they are known, and their items."""

    def __init__(self, table, name, macro, column, items, more=(), conditions=()):
        self.table, self.name, self.macro, self.column = table, name, macro, column
        self.items, self.more, self.conditions = items, more, conditions


# Rows are found again by the column that describes them each time that a value is fetched: a row's
# number may be another row's once the agent is started again.
RULES = [
    Rule("tlxHoCpuUtilTable", "Processors", "{#CPU}", "tlxHoCpuUtilUnitIndex",
         {"tlxHoCpuUtilMin": ("Processor {#CPU}: busy, 1 minute", DELAY, PERCENT, None, True),
          "tlxHoCpuUtilFiveMin": ("Processor {#CPU}: busy, 5 minutes", DELAY, PERCENT, None, True),
          "tlxHoCpuUtilThirtyMin": ("Processor {#CPU}: busy, 30 minutes", DELAY, PERCENT, None,
                                    True),
          "tlxHoCpuUtilHour": ("Processor {#CPU}: busy, 1 hour", DELAY, PERCENT, None, True)}),
    Rule("tlxHoFileSysTable", "File systems", "{#DESC}", "tlxHoFileSysDesc",
         {"tlxHoFileSysSpaceTotal": ("{#DESC}: size", DELAY, "B", MEGABYTE, True),
          "tlxHoFileSysSpaceUsed": ("{#DESC}: used", DELAY, "B", MEGABYTE, True),
          "tlxHoFileSysPercentSpaceUsed": ("{#DESC}: used, in per cent", DELAY, PERCENT, None,
                                           True),
          "tlxHoFileSysAllocUnitsTotal": ("{#DESC}: inodes", DELAY, "", None, True),
          "tlxHoFileSysAllocUnitsUsed": ("{#DESC}: inodes used", DELAY, "", None, True),
          "tlxHoMountReadOnly": ("{#DESC}: read-only", DELAY, "", None, True),
          "tlxHoMountState": ("{#DESC}: answers", DELAY, "", None, True)},
         more=[("{#TOTAL}", "tlxHoFileSysSpaceTotal"), ("{#TYPE}", "tlxHoMountType")],
         # What has no blocks (proc, sysfs) has no size.
         conditions=[("{#DESC}", "{$VEXHOST.FS.MATCHES}", True),
                     ("{#DESC}", "{$VEXHOST.FS.NOT_MATCHES}", False),
                     ("{#TOTAL}", "^[1-9]", True)]),
    Rule("tlxHoSiblingTable", "Sibling agents", "{#SIBLING}", "tlxHoSiblingName",
         {"tlxHoSiblingPresent": ("{#SIBLING}: agent is there", DELAY, "", None, True),
          "tlxHoSiblingCondition": ("{#SIBLING}: condition", DELAY, "", None, True),
          "tlxHoSiblingHealth": ("{#SIBLING}: health", DELAY, "", None, True)},
         more=[("{#PRESENT}", "tlxHoSiblingPresent")],
         conditions=[("{#PRESENT}", "^1$", True)]),
    Rule("tlxHoSwVerTable", "Software", "{#SOFTWARE}", "tlxHoSwVerName",
         {"tlxHoSwVerVersion": ("{#SOFTWARE}: version", SLOW, None, None, False),
          "tlxHoSwVerStatus": ("{#SOFTWARE}: status", SLOW, "", None, False),
          "tlxHoSwVerType": ("{#SOFTWARE}: type", SLOW, "", None, False),
          "tlxHoSwKind": ("{#SOFTWARE}: kind", SLOW, "", None, False)},
         conditions=[("{#SOFTWARE}", "^.+$", True)]),
    Rule("tlxHoFwVerTable", "Firmware", "{#FIRMWARE}", "tlxHoFwVerDisplayName",
         {"tlxHoFwVerVersion": ("{#FIRMWARE}: version", SLOW, None, None, False),
          "tlxHoFwKindOwner": ("{#FIRMWARE}: belongs to", SLOW, "", None, False),
          "tlxHoFwKindDevice": ("{#FIRMWARE}: device", SLOW, "", None, False)},
         more=[("{#LOCATION}", "tlxHoFwVerLocation")],
         conditions=[("{#FIRMWARE}", "^.+$", True)]),
]

# Triggers: where they stand (a table, or none), name, expression, priority. $(NAME) is the item.
# None is raised by what is not known: -1 never becomes a value.
TRIGGERS = [
    (None, "Condition raised: a threshold is violated", "last($(tlxHoMibCondition))=3", "WARNING"),
    (None, "Condition severe: a threshold is violated", "last($(tlxHoMibCondition))=4", "HIGH"),
    (None, "Memory is short",
     "max($(tlxHoMemoryAvailable),10m)<"
     "last($(tlxHoPhysicalMemorySize))*{$VEXHOST.MEMORY.MIN}/100", "WARNING"),
    (None, "Swap space is short",
     "max($(tlxHoPagingMemoryFree),10m)<last($(tlxHoPagingMemorySize))*{$VEXHOST.SWAP.MIN}/100",
     "WARNING"),
    # Not known for the agent's first half hour: a few minutes of data are no half hour.
    (None, "Processors are busy", "last($(vexhost.cpu30))>{$VEXHOST.CPU.MAX}", "WARNING"),
    (None, "The agent's values are old",
     "fuzzytime($(tlxHoAgentLastPoll),{$VEXHOST.AGE.MAX})=0", "HIGH"),
    (None, "The agent does not answer", "nodata($(tlxHoAgentStart),{$VEXHOST.AGE.MAX})=1", "HIGH"),
    (None, "The agent's polls fail", "change($(tlxHoAgentFailedPolls))>0", "WARNING"),
    (None, "The agent was started", "change($(tlxHoAgentStart))<>0", "INFO"),
    ("tlxHoFileSysTable", "{#DESC} is filling",
     "min($(tlxHoFileSysPercentSpaceUsed),10m)>{$VEXHOST.FS.WARN:\"{#DESC}\"} and "
     "last($(tlxHoFileSysPercentSpaceUsed))<={$VEXHOST.FS.CRIT:\"{#DESC}\"}", "WARNING"),
    ("tlxHoFileSysTable", "{#DESC} is full",
     "last($(tlxHoFileSysPercentSpaceUsed))>{$VEXHOST.FS.CRIT:\"{#DESC}\"}", "HIGH"),
    ("tlxHoFileSysTable", "{#DESC} is short of inodes",
     "last($(tlxHoFileSysAllocUnitsTotal))>0 and last($(tlxHoFileSysAllocUnitsUsed))>"
     "last($(tlxHoFileSysAllocUnitsTotal))*{$VEXHOST.INODES.MAX:\"{#DESC}\"}/100", "WARNING"),
    ("tlxHoFileSysTable", "{#DESC} does not answer; its figures are old",
     "last($(tlxHoMountState))=3", "HIGH"),
    ("tlxHoFileSysTable", "{#DESC} cannot be asked for its figures",
     "min($(tlxHoMountState),10m)=2 and last($(tlxHoMountState))=2", "WARNING"),
    # Not what has been read-only from the start: a live system's image is so by intent.
    ("tlxHoFileSysTable", "{#DESC} has become read-only",
     "last($(tlxHoMountReadOnly))=1 and max($(tlxHoMountReadOnly),1d)=2", "WARNING"),
    ("tlxHoSiblingTable", "{#SIBLING}: raised",
     "last($(tlxHoSiblingHealth))=3 or last($(tlxHoSiblingCondition))=3", "WARNING"),
    ("tlxHoSiblingTable", "{#SIBLING}: severe",
     "last($(tlxHoSiblingHealth))=4 or last($(tlxHoSiblingCondition))=4", "HIGH"),
    ("tlxHoSiblingTable", "{#SIBLING}: the agent has gone",
     "last($(tlxHoSiblingPresent))=2", "WARNING"),
    ("tlxHoSwVerTable", "{#SOFTWARE} has another version", "change($(tlxHoSwVerVersion))<>0",
     "INFO"),
    ("tlxHoFwVerTable", "{#FIRMWARE} has another version", "change($(tlxHoFwVerVersion))<>0",
     "INFO"),
]
# A notification's severity as a trigger's priority; none where it is no problem.
PRIORITIES = {"INFORMATIONAL": None, "WARNING": "WARNING", "MINOR": "AVERAGE", "MAJOR": "HIGH",
              "CRITICAL": "DISASTER"}

# Two rows may have the same description, Zabbix's keys not: the first one counts.
FIRST_OF_EACH = """var seen = {};
return JSON.stringify(JSON.parse(value).filter(function (row) {
    var known = seen.hasOwnProperty(row['%s']);
    seen[row['%s']] = true;
    return !known;
}));"""

COLOURS = ["1A7C11", "F63100", "2774A4", "A54F10", "FC6EA3"]
# Graphs: name, and their items; {#...} in the name makes it one for each row.
GRAPHS = [
    (None, "Memory", ["tlxHoPhysicalMemorySize", "tlxHoMemoryAvailable", "tlxHoMemoryCached",
                      "tlxHoPhysicalMemoryFree"]),
    (None, "Load", ["tlxHoLoadOne", "tlxHoLoadFive", "tlxHoLoadFifteen"]),
    (None, "Processors", ["vexhost.cpu"]),
    ("tlxHoCpuUtilTable", "Processor {#CPU}", ["tlxHoCpuUtilMin", "tlxHoCpuUtilFiveMin"]),
    ("tlxHoFileSysTable", "{#DESC}", ["tlxHoFileSysSpaceTotal", "tlxHoFileSysSpaceUsed"]),
]


def identity(*words):
    """A UUID of version 4's form, always the same for the same thing: an import then changes what is
    there already."""
    digits = list(hashlib.sha256("/".join(("vexhostd",) + words).encode()).hexdigest()[:32])
    digits[12] = "4"
    digits[16] = "89ab"[int(digits[16], 16) % 4]
    return "".join(digits)


def yaml(value, depth=0):
    """The lines of a value made of dictionaries, lists and texts."""
    pad = "  " * depth
    lines = []
    items = value.items() if isinstance(value, dict) else ((None, v) for v in value)
    for key, inner in items:
        head = f"{pad}{key}:" if key is not None else f"{pad}-"
        if isinstance(inner, str):
            if "\n" in inner:
                lines.append(f"{head} |")
                lines += [f"{pad}  {line}" if line else "" for line in inner.split("\n")]
            else:
                lines.append(f"{head} {quoted(inner)}")
            continue
        below = yaml(inner, depth + 1)
        if key is None:
            below[0] = pad + "- " + below[0].lstrip()
            lines += below
        else:
            lines += [head] + below
    return lines


class Template:
    def __init__(self, modules):
        self.modules = modules
        self.maps = {}

    def value_map(self, name):
        """The name of the map for the values of a variable, or nothing."""
        numbers = self.modules.numbers(name)
        if not numbers:
            return None
        for known, values in self.maps.items():
            if values == numbers:
                return known
        self.maps[name] = numbers
        return name

    def key(self, name, rule=None):
        return f"{name}[{rule.macro}]" if rule else name

    def item(self, name, told, rule=None):
        words, delay, unit, multiplier, unknown = told
        oid = self.modules.oid(name)
        place = f'{oid}["index","{self.modules.oid(rule.column)}","{rule.macro}"]' if rule \
            else oid + ".0"
        text = self.modules.is_text(name)
        steps = []
        if unknown:
            steps.append({"type": "IN_RANGE", "parameters": ["0", ""],
                          "error_handler": "DISCARD_VALUE"})
        if multiplier:
            steps.append({"type": "MULTIPLIER", "parameters": [multiplier]})
        item = {"uuid": identity("item", self.key(name, rule)), "name": words,
                "type": "SNMP_AGENT", "snmp_oid": place, "key": self.key(name, rule),
                "delay": delay}
        if text:
            item.update({"trends": "0", "value_type": "CHAR"})
        else:
            fraction = multiplier is not None and "." in multiplier
            item.update({"value_type": "FLOAT" if fraction else "UNSIGNED"})
            if unit:
                item["units"] = unit
        item["description"] = self.modules.first_sentence(name)
        mapped = self.value_map(name)
        if mapped:
            item["valuemap"] = {"name": mapped}
        if steps:
            item["preprocessing"] = steps
        item["tags"] = [{"tag": "component", "value": (rule.name if rule else "Host").lower()}]
        return item

    def trigger(self, name, expression, priority, rule=None):
        found = []
        parts = expression.split("$(")
        text = parts[0]
        for part in parts[1:]:
            item, rest = part.split(")", 1)
            if item not in found:
                found.append(item)
            text += f"/{TEMPLATE}/{self.key(item, rule)}{rest}"
        trigger = {"uuid": identity("trigger", name), "expression": text, "name": name,
                   "priority": priority}
        if priority == "INFO":
            trigger["manual_close"] = "YES"
        return found, trigger

    def place(self, items, of, rule=None):
        """Puts the triggers of one item beside it, and returns the others, for that is where Zabbix
        reads them."""
        others = []
        for table, name, expression, priority in TRIGGERS:
            if table != of:
                continue
            found, trigger = self.trigger(name, expression, priority, rule)
            if len(found) > 1:
                others.append(trigger)
                continue
            item = next(i for i in items if i["key"] == self.key(found[0], rule))
            item.setdefault("trigger_prototypes" if rule else "triggers", []).append(trigger)
        return others

    def graph(self, name, items, rule=None):
        return {"uuid": identity("graph", name), "name": name, "graph_items": [
            {"sortorder": str(n), "color": COLOURS[n],
             "item": {"host": TEMPLATE, "key": self.key(item, rule)}}
            for n, item in enumerate(items)]}

    def rule(self, rule):
        items = [self.item(name, told, rule) for name, told in rule.items.items()]
        others = self.place(items, rule.table, rule)
        columns = [(rule.macro, rule.column), *rule.more]
        conditions = [dict({"macro": macro, "value": value},
                           **({} if wanted else {"operator": "NOT_MATCHES_REGEX"}),
                           formulaid="ABCDEFGH"[n])
                      for n, (macro, value, wanted) in enumerate(rule.conditions)]
        made = {"uuid": identity("rule", rule.table), "name": rule.name, "type": "SNMP_AGENT",
                "snmp_oid": "discovery[" + ",".join(
                    f"{macro},{self.modules.oid(column)}" for macro, column in columns) + "]",
                "key": rule.table, "delay": DISCOVERY}
        if conditions:
            made["filter"] = {"evaltype": "AND", "conditions": conditions}
        made.update({"lifetime": "7d",
                     "description": self.modules.first_sentence(rule.table) +
                     " Kept apart by what they describe; row numbers change.",
                     "item_prototypes": items})
        if others:
            made["trigger_prototypes"] = others
        graphs = [self.graph(name, items, rule) for table, name, items in GRAPHS
                  if table == rule.table]
        if graphs:
            made["graph_prototypes"] = graphs
        made["preprocessing"] = [{"type": "JAVASCRIPT",
                                  "parameters": [FIRST_OF_EACH % (rule.macro, rule.macro)]}]
        return made

    def traps(self):
        items = []
        for name, one in self.modules.notifications().items():
            words, priority = one.words, PRIORITIES[one.severity]
            short = one.oid.removeprefix("1.3.6.1.4.1.").replace(".", r"\.")
            key = f'snmptrap["({name}|{short})([^0-9]|$)"]'
            item = {"uuid": identity("item", key), "name": f"Notification: {name}",
                    "type": "SNMP_TRAP", "key": key, "delay": "0", "trends": "0",
                    "value_type": "LOG", "description": words,
                    "logtimefmt": "yyyy-MM-ddThh:mm:ss",
                    "tags": [{"tag": "component", "value": "notifications"}]}
            if priority:
                item["triggers"] = [{
                    "uuid": identity("trigger", name),
                    "expression": f"length(last(/{TEMPLATE}/{key}))>0",
                    # Each one is a problem of its own, until somebody closes it: none says that it
                    # is over.
                    "recovery_mode": "NONE", "name": f"{name} has come",
                    "priority": priority, "description": words, "type": "MULTIPLE",
                    "manual_close": "YES"}]
            items.append(item)
        return items

    def calculated(self):
        def item(key, name, formula, words):
            return {"uuid": identity("item", key), "name": name, "type": "CALCULATED", "key": key,
                    "delay": DELAY, "value_type": "FLOAT", "units": PERCENT, "params": formula,
                    "description": words,
                    # Until the first values have come.
                    "preprocessing": [{"type": "CHECK_NOT_SUPPORTED", "parameters": [""],
                                       "error_handler": "DISCARD_VALUE"}],
                    "tags": [{"tag": "component", "value": "host"}]}
        return [
            item("vexhost.cpu", "Processors: busy, 1 minute",
                 "avg(last_foreach(//tlxHoCpuUtilMin[*]))", "The average over all processors."),
            item("vexhost.cpu30", "Processors: busy, 30 minutes",
                 "avg(last_foreach(//tlxHoCpuUtilThirtyMin[*]))", "The average over all processors."),
            item("vexhost.memory", "Memory: used, in per cent",
                 "100*(1-last(//tlxHoMemoryAvailable)/last(//tlxHoPhysicalMemorySize))",
                 "What cannot be given to programs. Caches do not count: they give way."),
        ]

    def dashboard(self):
        def field(kind, place, /, **value):
            value = dict({"host": TEMPLATE}, **value)
            return {"type": kind, "name": place, "value": value}

        def value(key, name, x):
            return {"type": "ITEM", "name": name, "x": str(x), "width": "6", "height": "3",
                    "fields": [field("ITEM", "itemid", key=key)]}

        def graph(name, x, y):
            return {"type": "GRAPH_CLASSIC", "name": name, "x": str(x), "y": str(y), "width": "8",
                    "height": "5", "fields": [field("GRAPH", "graphid", name=name)]}

        def prototypes(name, title, y):
            return {"type": "GRAPH_PROTOTYPE", "name": title, "y": str(y), "width": "24",
                    "height": "6", "fields": [
                        {"type": "INTEGER", "name": "columns", "value": "3"},
                        field("GRAPH_PROTOTYPE", "graphid", name=name)]}

        return {"uuid": identity("dashboard"), "name": "Host", "pages": [{"widgets": [
            value("tlxHoMibCondition", "Condition", 0),
            value("vexhost.cpu", "Processors", 6),
            value("vexhost.memory", "Memory", 12),
            value("tlxHoUptime", "Uptime", 18),
            graph("Processors", 0, 3), graph("Memory", 8, 3), graph("Load", 16, 3),
            prototypes("{#DESC}", "File systems", 8),
            prototypes("Processor {#CPU}", "Each processor", 14)]}]}

    def text(self):
        items = [self.item(name, told) for name, told in SCALARS.items()] + self.calculated()
        others = self.place(items, None)
        template = {
            "uuid": identity("template"), "template": TEMPLATE, "name": TEMPLATE,
            "description": "A host with vexhostd, over SNMP. Rows are kept apart by what they "
                           "describe; -1 (not known) never becomes a value.",
            "groups": [{"name": GROUP}], "items": items + self.traps(),
            "discovery_rules": [self.rule(rule) for rule in RULES],
            "macros": [{"macro": macro, "value": value, "description": words}
                       for macro, value, words in MACROS],
            "dashboards": [self.dashboard()],
        }
        template["valuemaps"] = [
            {"uuid": identity("map", name), "name": name,
             "mappings": [{"value": str(number), "newvalue": word}
                          for number, word in sorted(numbers.items())]}
            for name, numbers in self.maps.items()]
        export = {"version": "6.0", "date": "2026-11-22T00:00:00Z",
                  "groups": [{"uuid": identity("group"), "name": GROUP}],
                  "templates": [template], "triggers": others,
                  "graphs": [self.graph(name, items) for table, name, items in GRAPHS
                             if table is None]}
        return HEAD + "\n".join(yaml({"zabbix_export": export})) + "\n"


def files(modules):
    return {"zabbix/vexhost-6.0.yaml": Template(modules).text()}
