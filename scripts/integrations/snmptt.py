"""The notifications for snmptt."""

from integrations.modules import HEAD


def files(modules):
    text = HEAD + """# For snmptt: add this file to snmptt_conf_files in snmptt.ini. snmptrapd.conf needs the line
# `outputOption n`, which ../snmptrapd/vexhost.conf has: snmptt knows OIDs by their numbers.
"""
    for name, one in modules.notifications().items():
        text += (f"\nEVENT {name} .{one.oid} \"Status Events\" {one.severity}\n"
                 f"FORMAT {one.message}\nSDESC\n{one.words}\nVariables:\n" +
                 "".join(f"  {i}: {o} ({modules.oid(o)})\n"
                         for i, o in enumerate(one.objects, 1)) + "EDESC\n")
    return {"snmptt/snmptt.conf": text}
