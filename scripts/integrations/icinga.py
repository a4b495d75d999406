"""snmptrapd's handler for Icinga 2."""

from integrations.modules import HEAD

# A notification's severity as a plugin's status.
STATUS = {"INFORMATIONAL": 0, "WARNING": 1, "MINOR": 1, "MAJOR": 2, "CRITICAL": 2}

HANDLER = '''
"""snmptrapd's handler for Icinga 2: each notification of the agent becomes a passive result of the
service "vexhost notifications" (vexhost.conf) of the host that has the sender's address. In
snmptrapd.conf:

    traphandle default /usr/share/vexhostd/integrations/icinga/trap-to-icinga /etc/icinga2/traps.secret

That file, which snmptrapd's user alone can read, has lines NAME=VALUE:

    url=https://NODENAME:5665
    user=traps
    password=...
    ca=/var/lib/icinga2/certs/ca.crt

and Icinga an ApiUser of that name with the permission "actions/process-check-result".
snmptrapd gives the sender's name, its address (UDP: [192.0.2.10]:161->[...]:162), and then lines with
an OID and its value."""

import base64
import json
import re
import ssl
import sys
import urllib.error
import urllib.request

TRAP_OID = ".1.3.6.1.6.3.1.1.4.1.0"
SERVICE = "vexhost notifications"
# OID: what it is, and the status.
NOTIFICATIONS = {
@@NOTIFICATIONS@@}
TEXT = ".@@TEXT@@"


def settings(path):
    found = {}
    with open(path, encoding="utf-8") as file:
        for line in file:
            name, sign, value = line.strip().partition("=")
            if sign and not name.startswith("#"):
                found[name.strip()] = value.strip()
    missing = {"url", "user", "password", "ca"} - set(found)
    if missing:
        raise ValueError(f"{path}: there is no {' and no '.join(sorted(missing))}")
    return found


def numeric(oid):
    """An OID from snmptrapd, which without `outputOption n` has a word for the first number."""
    return re.sub(r"^iso(?=\\.)", ".1", oid)


def received(lines):
    """The sender's address, and the values by OID."""
    # IPv6 comes with its brackets doubled.
    address = re.search(r"\\[+([^\\[\\]]+)\\]", lines[1] if len(lines) > 1 else "")
    values, last = {}, None
    for line in lines[2:]:
        if re.match(r"(\\.1|iso)(\\.\\d+)+( |$)", line):
            last, _, value = line.partition(" ")
            last = numeric(last)
            values[last] = value
        elif last:
            values[last] += " " + line  # a text with a line end in it
    return address[1] if address else None, values


def text_of(values):
    for oid, value in values.items():
        if oid == TEXT or oid.startswith(TEXT + "."):
            if len(value) > 1 and value[0] == value[-1] == '"':
                value = re.sub(r"\\\\(.)", r"\\1", value[1:-1])
            # What is behind a bar is performance data.
            return "".join(c if c.isprintable() and c != "|" else "?" for c in value)
    return ""


def main(arguments):
    if len(arguments) != 1:
        print("usage: trap-to-icinga FILE", file=sys.stderr)
        return 2
    address, values = received(sys.stdin.buffer.read().decode("utf-8", "replace").splitlines())
    known = NOTIFICATIONS.get(numeric(values.get(TRAP_OID, "")))
    if not address or not known:
        return 0  # another's
    name, status = known
    told = settings(arguments[0])
    # The address is a variable of the filter, never a part of it.
    body = {"type": "Service", "filter_vars": {"sender": address, "wanted": SERVICE},
            "filter": "service.name == wanted && "
                      "(host.address == sender || host.address6 == sender)",
            "exit_status": status, "plugin_output": f"{name}: {text_of(values)}"}
    key = base64.b64encode(f"{told['user']}:{told['password']}".encode()).decode()
    request = urllib.request.Request(
        told["url"].rstrip("/") + "/v1/actions/process-check-result",
        data=json.dumps(body).encode(),
        headers={"Accept": "application/json", "Content-Type": "application/json",
                 "Authorization": "Basic " + key})
    context = ssl.create_default_context(cafile=told["ca"])
    try:
        with urllib.request.urlopen(request, timeout=20, context=context) as answer:
            answer.read()
    except urllib.error.HTTPError as error:
        # Where nothing matches, Icinga says 404, or 500 without a result.
        if error.code != 404 and not re.search(rb'"results": *\\[\\]', error.read()):
            raise
        print(f"trap-to-icinga: no host of Icinga's has the address {address}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except (OSError, ValueError) as error:
        print(f"trap-to-icinga: {error}", file=sys.stderr)
        sys.exit(1)
'''


def files(modules):
    lines = "".join(f'    ".{one.oid}": ("{name}", {STATUS[one.severity]}),\n'
                    for name, one in modules.notifications().items())
    text = "#!/usr/bin/env python3\n" + HEAD.rstrip("\n") + HANDLER
    return {"icinga/trap-to-icinga": text.replace("@@NOTIFICATIONS@@", lines).replace(
        "@@TEXT@@", modules.oid("tlxTrapDescription"))}
