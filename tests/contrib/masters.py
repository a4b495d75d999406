"""A private host for the masters that contrib/net-snmp compares: namespaces, vexhostd behind one snmpd
after the other, and other subagents beside it. Everything ends with the process that imports this.
"""

import atexit
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
INSIDE = "VEX_MASTERS_INSIDE"
STOCK = ["/usr/sbin/snmpd"]
PATCHED = [os.environ.get("VEX_PATCHED_SNMPD", os.path.join(SOURCE, "build/net-snmp/snmpd"))]
GETBULK = "agentXGetBulk yes\n"
PROCESSORS = 256
MODULES = "-Isnmp_mib,system_mib,vacm_vars,vacm_conf,usmUser,usmConf,agentx"
SERVED = (1, 3, 6, 1, 4, 1, 4891)


def enter():
    """Begins the program anew in namespaces of its own, and makes the host's facts. Needs root."""
    if os.environ.get(INSIDE) != "1":
        os.environ[INSIDE] = "1"
        os.makedirs("/var/spool/quorix", exist_ok=True)
        os.execvp("unshare", ["unshare", "--mount", "--net", "--ipc", "--pid", "--fork",
                              "--kill-child", "--mount-proc", "--propagation", "private",
                              sys.executable, *sys.argv])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for place in ("/tmp", "/run", "/var/spool/quorix"):
        subprocess.run(["mount", "-t", "tmpfs", "masters", place], check=True)
    with open("/etc/passwd", encoding="utf-8") as file:
        users = [line for line in file if not line.startswith("_vexhostd:")]
    cover("/etc/passwd", "".join(users) + "_vexhostd:x:990:990::/nonexistent:/usr/sbin/nologin\n")


def cover(path, text):
    """The file with other content, for who is in here."""
    handle, other = tempfile.mkstemp(prefix="cover.")
    with os.fdopen(handle, "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(other, 0o644)
    subprocess.run(["mount", "--bind", other, path], check=True)


def dotted(name):
    return ".".join(map(str, name))


def eventually(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return
        time.sleep(0.05)
    raise AssertionError(f"not within {seconds} s: {what() if callable(what) else what}")


# ---- The codec: as much of BER as questions and answers want -------------------------------------


def tagged(tag, content):
    length = len(content)
    if length < 128:
        return bytes((tag, length)) + content
    return bytes((tag, 0x82)) + struct.pack(">H", length) + content


def integer(value):
    return tagged(2, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def oid_text(name):
    groups = bytearray()
    for number in (name[0] * 40 + name[1], *name[2:]):
        part = [number & 0x7F]
        while number > 0x7F:
            number >>= 7
            part.append(number & 0x7F | 0x80)
        groups += bytes(reversed(part))
    return tagged(6, bytes(groups))


def taken(text):
    """The tag, the content and what is after them."""
    length, at = text[1], 2
    if length > 127:
        at += length & 0x7F
        length = int.from_bytes(text[2:at], "big")
    if len(text) < at + length:
        raise ValueError("cut off")
    return text[0], text[at:at + length], text[at + length:]


def fields(text):
    found = []
    while text:
        tag, content, text = taken(text)
        found.append((tag, content))
    return found


def oid_of(content):
    numbers, number = [], 0
    for byte in content:
        number = number << 7 | byte & 0x7F
        if byte < 128:
            numbers.append(number)
            number = 0
    first = min(numbers[0] // 40, 2)
    return (first, numbers[0] - 40 * first, *numbers[1:])


GET, NEXT, BULK = 0xA0, 0xA1, 0xA5
V1, V2C, V3 = 0, 1, 3


class Manager:
    """Asks the master; the answer is its error status, its error index and its variables as they came."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(("127.0.0.1", 161))
        self.engine = b""
        self.number = 1000

    def close(self):
        self.socket.close()

    def exchange(self, message, seconds):
        """All answers that come until then, late ones to earlier questions among them."""
        end = time.monotonic() + seconds
        try:
            self.socket.send(message)
            while time.monotonic() < end:
                self.socket.settimeout(max(end - time.monotonic(), 0.001))
                yield self.socket.recv(65536)
        except (TimeoutError, ConnectionRefusedError):
            return

    def v3(self, user, pdu, size):
        """A message without authentication; and one that asks whose engine this is, before the first."""
        security = tagged(0x30, tagged(4, self.engine) + integer(0) + integer(0) + tagged(4, user) +
                          tagged(4, b"") + tagged(4, b""))
        head = integer(self.number) + integer(size) + tagged(4, b"\x04") + integer(3)
        scoped = tagged(0x30, tagged(4, self.engine) + tagged(4, b"") + pdu)
        return tagged(0x30, integer(V3) + tagged(0x30, head) + tagged(4, security) + scoped)

    def ask(self, kind, names, once=0, repetitions=0, who=b"public", version=V2C, size=65507,
            seconds=300):
        self.number += 1
        bindings = b"".join(tagged(0x30, oid_text(name) + b"\x05\x00") for name in names)
        pdu = tagged(kind, integer(self.number) + integer(once) + integer(repetitions) +
                     tagged(0x30, bindings))
        if version == V3:
            if not self.engine:
                report = next(self.exchange(self.v3(b"", tagged(
                    GET, integer(1) + integer(0) + integer(0) + tagged(0x30, b"")), 65507), seconds))
                security = fields(fields(taken(report)[1])[2][1])[0][1]
                self.engine = fields(security)[0][1]
            message = self.v3(who, pdu, size)
        else:
            message = tagged(0x30, integer(version) + tagged(4, who) + pdu)
        for answer in self.exchange(message, seconds):
            parts = fields(taken(answer)[1])
            tag, content = fields(parts[3][1])[2] if version == V3 else parts[2]
            number, status, index, variables = (field for _, field in fields(content))
            if int.from_bytes(number, "big") == self.number:
                return tag, int.from_bytes(status, "big"), int.from_bytes(index, "big"), variables
        return None

    def walk(self):
        """All names that there are."""
        names = [(1, 3)]
        while True:
            _, status, _, variables = self.ask(BULK, names[-1:], repetitions=50)
            for _, variable in fields(variables):
                (_, content), (value, _) = fields(variable)
                if status or value == 0x82:
                    return names[1:]
                names.append(oid_of(content))


def names_of(variables):
    return [oid_of(fields(variable)[0][1]) for _, variable in fields(variables)]


# ---- Programs ------------------------------------------------------------------------------------


class Host:
    """One vexhostd that polls once, at its start, with its files below work; any snmpd after any other."""

    def __init__(self, work, release=os.path.join(SOURCE, "build/release")):
        self.work, self.release = work, release
        self.master = None
        self.manager = None
        os.makedirs(f"{work}/conf")
        self.write("conf/vexhostd.conf", f"agentXSocket {work}/agentx\n")
        cover("/proc/stat", "cpu  1000 0 1000 8000 0 0 0 0 0 0\n" + "".join(
            f"cpu{n} 1000 0 1000 8000 0 0 0 0 0 0\n" for n in range(PROCESSORS)))
        # tests/support/probe.h: the clocks as they are, a quick start, no alarms.
        page = struct.pack("<qqqIII", 0, 0, 0, 1, 100, 1)
        with open(f"{work}/probe", "wb") as file:
            file.write(page.ljust(4096, b"\0"))
        self.start_agent()

    def start_agent(self):
        self.agent = self.start("vexhostd", [f"{self.release}/bin/vexhostd", "-p", "60"], {
            "SNMPCONFPATH": f"{self.work}/conf", "MADE_UP_PROBE": f"{self.work}/probe",
            "LD_PRELOAD": f"{self.release}/lib/libmade_up_probe.so"})

    def write(self, name, text):
        with open(f"{self.work}/{name}", "w", encoding="utf-8") as file:
            file.write(text)

    def start(self, name, command, environment=None):
        with open(f"{self.work}/{name}.log", "ab") as log:
            process = subprocess.Popen(command, env={
                "PATH": os.environ["PATH"], "LC_ALL": "C", "MIBS": "",
                "SNMP_PERSISTENT_DIR": f"{self.work}/{name}", **(environment or {})},
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        atexit.register(process.kill)
        return process

    def log(self, name):
        with open(f"{self.work}/{name}.log", encoding="utf-8", errors="replace") as file:
            return file.read()

    def start_master(self, program, lines, modules=MODULES):
        self.stop_master()
        self.write("snmpd.conf", f"master agentx\nagentXSocket {self.work}/agentx\n"
                   "dontLogTCPWrappersConnects yes\nexactEngineID 0x800013700161626364\n" + lines)
        command = [*program, "-f", "-Le", "-C", "-c", f"{self.work}/snmpd.conf"]
        if modules:
            command.append(modules)
        self.master = self.start("snmpd", [*command, "udp:127.0.0.1:161"])
        self.manager = Manager()
        eventually(lambda: self.serves(SERVED), lambda: self.log("snmpd") + self.log("vexhostd"))

    def stop_master(self):
        if self.master:
            self.manager.close()
            self.master.send_signal(signal.SIGTERM)
            if self.master.wait(60) != 0:
                raise AssertionError(f"snmpd ended with {self.master.returncode}:\n{self.log('snmpd')}")
            self.master = None

    def serves(self, name, prefix=()):
        """Whether what follows the name stands below the prefix, or else below the name."""
        prefix = prefix or name
        answer = self.manager.ask(NEXT, [name], seconds=1)
        return answer is not None and answer[1] == 0 and \
            names_of(answer[3])[0][:len(prefix)] == prefix
