"""Files for MRTG, collectd and telegraf."""

from integrations.modules import HEAD
from integrations.snmp_exporter import LABELS

MEGABYTE = 1048576
# Scalars that are worth a curve: a name, and what a value is multiplied with.
CURVES = {
    "tlxHoPhysicalMemorySize": ("memory_size_bytes", MEGABYTE),
    "tlxHoPhysicalMemoryFree": ("memory_free_bytes", MEGABYTE),
    "tlxHoMemoryAvailable": ("memory_available_bytes", MEGABYTE),
    "tlxHoMemoryCached": ("memory_cached_bytes", MEGABYTE),
    "tlxHoPagingMemorySize": ("swap_size_bytes", MEGABYTE),
    "tlxHoPagingMemoryFree": ("swap_free_bytes", MEGABYTE),
    "tlxHoLoadOne": ("load1", 0.01),
    "tlxHoLoadFive": ("load5", 0.01),
    "tlxHoLoadFifteen": ("load15", 0.01),
    "tlxHoUptime": ("uptime_seconds", 1),
    "tlxHoMibCondition": ("condition", 1),
    "tlxHoAgentLastPoll": ("last_poll_timestamp_seconds", 1),
    "tlxHoAgentPollDuration": ("poll_duration_seconds", 0.001),
    "tlxHoAgentFailedPolls": ("failed_polls", 1),
}
# Columns, by table: a mount's row has the number of its file system's.
COLUMNS = {
    "tlxHoCpuUtilTable": {
        "tlxHoCpuUtilMin": ("cpu_percent_1m", 1), "tlxHoCpuUtilFiveMin": ("cpu_percent_5m", 1),
        "tlxHoCpuUtilThirtyMin": ("cpu_percent_30m", 1), "tlxHoCpuUtilHour": ("cpu_percent_1h", 1)},
    "tlxHoFileSysTable": {
        "tlxHoFileSysSpaceTotal": ("filesystem_size_bytes", MEGABYTE),
        "tlxHoFileSysSpaceUsed": ("filesystem_used_bytes", MEGABYTE),
        "tlxHoFileSysPercentSpaceUsed": ("filesystem_used_percent", 1),
        "tlxHoFileSysAllocUnitsTotal": ("filesystem_inodes", 1),
        "tlxHoFileSysAllocUnitsUsed": ("filesystem_inodes_used", 1),
        "tlxHoMountReadOnly": ("filesystem_readonly", 1),
        "tlxHoMountState": ("filesystem_state", 1)},
    "tlxHoSiblingTable": {
        "tlxHoSiblingPresent": ("sibling_present", 1),
        "tlxHoSiblingCondition": ("sibling_condition", 1),
        "tlxHoSiblingHealth": ("sibling_health", 1)},
}
# Two of MRTG's curves a picture, a unit, what they are divided by for people, and the greatest value that
# is believed.
PICTURES = [
    ("memory", "tlxHoMemoryAvailable", "tlxHoPhysicalMemorySize", "MB", "available", "size", 1,
     2147483647),
    ("swap", "tlxHoPagingMemoryFree", "tlxHoPagingMemorySize", "MB", "free", "size", 1, 2147483647),
    ("load", "tlxHoLoadOne", "tlxHoLoadFifteen", "tasks", "1 minute", "15 minutes", 100, 10000000),
    ("polls", "tlxHoAgentPollDuration", "tlxHoAgentFailedPolls", "ms", "last poll", "failed polls",
     1, 2147483647),
]


def mrtg(modules):
    text = HEAD + """# For MRTG, with your host and community in place of HOST and COMMUNITY. Scalars alone: MRTG
# knows a row by its number, and that is another row's once the agent is started again. MRTG keeps whole
# numbers from 0 on alone: hundredths are shown as ones, and -1 (not known) is shown as MaxBytes.
WorkDir: /var/www/mrtg
Options[_]: gauge, growright, nopercent, noinfo
"""
    for name, one, two, unit, legend_one, legend_two, divisor, most in PICTURES:
        scale = (f"Factor[vexhost-{name}]: {1 / divisor:g}\n"
                 f"YTicsFactor[vexhost-{name}]: {1 / divisor:g}\n") if divisor != 1 else ""
        text += (f"\nTarget[vexhost-{name}]: {modules.oid(one)}.0&{modules.oid(two)}.0:"
                 f"COMMUNITY@HOST\n{scale}"
                 f"MaxBytes[vexhost-{name}]: {most}\n"
                 f"Title[vexhost-{name}]: HOST: {name}\nPageTop[vexhost-{name}]: "
                 f"<h1>HOST: {name}</h1>\nYLegend[vexhost-{name}]: {unit}\n"
                 f"ShortLegend[vexhost-{name}]: &nbsp;{unit}\n"
                 f"LegendI[vexhost-{name}]: {legend_one}\nLegendO[vexhost-{name}]: {legend_two}\n")
    return text


def collectd(modules):
    text = HEAD + """# For collectd 5.10 and later, in /etc/collectd/collectd.conf.d. Put in your host and community.
LoadPlugin snmp
LoadPlugin match_regex
LoadPlugin match_value

<Plugin snmp>
"""
    names = []

    def data(name, told, rule=None):
        short, factor = told
        names.append(short)
        lines = [f'<Data "{short}">', '  Type "gauge"',
                 f'  Table {"true" if rule else "false"}', f'  PluginInstance "{short}"']
        if rule:
            lines.append(f'  TypeInstanceOID "{modules.oid(LABELS[rule][0])}"')
        lines.append(f'  Values "{modules.oid(name)}{"" if rule else ".0"}"')
        if factor != 1:
            lines.append(f"  Scale {factor}")
        return "".join(f"  {line}\n" for line in lines + ["</Data>"])

    for name, told in CURVES.items():
        text += data(name, told)
    for table, columns in COLUMNS.items():
        for name, told in columns.items():
            text += data(name, told, table)
    text += "".join(f"  {line}\n" for line in (
        '<Host "HOST">', '  Address "HOST"', "  Version 2", '  Community "COMMUNITY"',
        *(f'  Collect "{name}"' for name in names), "  Interval 60", "</Host>"))
    return text + """</Plugin>

# -1 is not known, and is not kept: of these values alone.
PostCacheChain "vexhost"
<Chain "vexhost">
  <Rule "not_known">
    <Match "regex">
      Plugin "^snmp$"
      PluginInstance "^(""" + "|".join(names) + """)$"
    </Match>
    <Match "value">
      Max -0.0000001
      Satisfy "Any"
    </Match>
    Target "stop"
  </Rule>
  Target "write"
</Chain>
"""


def telegraf(modules):
    text = HEAD + """# For telegraf, in /etc/telegraf/telegraf.d. Put in your hosts and community. Rows are told apart
# by what they describe; their numbers are no tags.
[[inputs.snmp]]
  agents = ["udp://HOST:161"]
  version = 2
  community = "COMMUNITY"
  name = "vexhost"
"""

    def field(path, name, told, tag=False):
        short, factor = told
        lines = [f"[[{path}.field]]", f'  name = "{short}"', f'  oid = ".{modules.oid(name)}'
                 f'{"" if modules.variables[name]["column"] else ".0"}"']
        if tag:
            lines.append("  is_tag = true")
        return "".join(f"    {line}\n" for line in lines), short, factor

    scaled = {}
    for name, told in CURVES.items():
        lines, short, factor = field("inputs.snmp", name, told)
        text += lines
        scaled[short] = factor
    for table, columns in COLUMNS.items():
        short_table = "vexhost_" + next(iter(columns.values()))[0].split("_")[0]
        text += f'  [[inputs.snmp.table]]\n    name = "{short_table}"\n'
        for label in LABELS[table]:
            text += field("inputs.snmp.table", label, (label, 1), True)[0]
        for name, told in columns.items():
            lines, short, factor = field("inputs.snmp.table", name, told)
            text += lines
            scaled[short] = factor
    return text + """
# -1 is not known, and no field; megabytes become bytes, thousandths and hundredths ones.
[[processors.starlark]]
  namepass = ["vexhost*"]
  source = '''
SCALES = {
""" + "".join(f'    "{short}": {factor},\n' for short, factor in scaled.items() if factor != 1) + \
        """}

def apply(metric):
    for name, value in metric.fields.items():
        if type(value) == "int" and value < 0:
            metric.fields.pop(name)
        elif name in SCALES:
            metric.fields[name] = value * SCALES[name]
    return metric
'''
"""


def files(modules):
    return {"mrtg/vexhost.cfg": mrtg(modules), "collectd/vexhost.conf": collectd(modules),
            "telegraf/vexhost.conf": telegraf(modules)}
