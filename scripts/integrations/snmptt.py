"""The notifications for snmptt."""

from integrations.modules import HEAD

SEVERITIES = {"tlxHoTestNotification": "Normal", "tlxHoHealthNotification": "Warning"}


def files(modules):
    text = HEAD + "# For snmptt: add this file to snmptt_conf_files in snmptt.ini.\n"
    for name, (oid, words, objects) in modules.notifications().items():
        text += (f"\nEVENT {name} .{oid} \"Host\" {SEVERITIES[name]}\n"
                 f"FORMAT ${len(objects)}\n"
                 "SDESC\n" + words + "\nVariables:\n" +
                 "".join(f"  {i}: {o} ({modules.oid(o)})\n" for i, o in enumerate(objects, 1)) +
                 "EDESC\n")
    return {"snmptt/snmptt.conf": text}
