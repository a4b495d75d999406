"""A small AgentX subagent (RFC 2741) that answers a GetBulk rightly, or wrongly in any way there is."""

import bisect
import socket
import struct
import threading
import time

OPEN, REGISTER, GET, NEXT, BULK, RESPONSE = 1, 3, 5, 6, 7, 18
INTEGER, NO_OBJECT, END = 2, 128, 130
TOO_BIG, GENERAL, PROCESSING = 1, 5, 268
HEADER = ">BBBBIIII"
NETWORK_ORDER = 0x10

# What it does with a GetBulk.
MOODS = (
    "answers",
    "refuses",      # as a subagent does that has none
    "fails",        # with genErr
    "too big",
    "few",          # two repetitions and a half
    "too few",      # not even one
    "too many",     # one variable more than asked for
    "goes back",    # the third repetition is the first once more
    "unscoped",     # goes on after the end of the range
    "ends",         # says that there is nothing after the first repetition
)


def encode_oid(name):
    return struct.pack(">BBBB", len(name), 0, 0, 0) + struct.pack(f">{len(name)}I", *name)


def decode_oid(text):
    """The name, whether it is included, and what follows."""
    count, prefix, include = text[0], text[1], text[2]
    name = struct.unpack(f">{count}I", text[4:4 + 4 * count])
    if prefix:
        name = (1, 3, 6, 1, prefix, *name)
    return name, bool(include), text[4 + 4 * count:]


def encode_variable(kind, name, value):
    data = struct.pack(">i", value) if kind == INTEGER else b""
    return struct.pack(">HH", kind, 0) + encode_oid(name) + data


class Subagent(threading.Thread):
    """Connects again whenever the master is gone. The table's values are integers; None cannot be read."""

    def __init__(self, path, regions, table):
        super().__init__(daemon=True)
        self.path, self.regions, self.table = path, regions, table
        self.names = sorted(table)
        self.mood = "answers"
        self.bulks = self.sessions = 0
        self.connection = None
        self.session = 0

    def run(self):
        while True:
            try:
                with socket.socket(socket.AF_UNIX) as self.connection:
                    self.connection.connect(self.path)
                    self.serve()
            except (OSError, EOFError):
                pass
            time.sleep(0.1)

    def receive(self):
        head = self.read(20)
        _, kind, flags, _, self.session, transaction, packet, length = struct.unpack(HEADER, head)
        if not flags & NETWORK_ORDER:
            raise AssertionError("the master does not keep to the session's byte order")
        return kind, transaction, packet, self.read(length)

    def read(self, length):
        text = b""
        while len(text) < length:
            part = self.connection.recv(length - len(text))
            if not part:
                raise EOFError
            text += part
        return text

    def send(self, kind, session, transaction, packet, payload):
        self.connection.sendall(struct.pack(HEADER, 1, kind, NETWORK_ORDER, 0, session, transaction,
                                            packet, len(payload)) + payload)

    def serve(self):
        self.send(OPEN, 0, 0, 1, b"\0\0\0\0" + encode_oid(()) + struct.pack(">I", 4) + b"test")
        self.receive()
        session = self.session
        for number, region in enumerate(self.regions):
            self.send(REGISTER, session, 0, number + 2, struct.pack(">BBBB", 0, 100, 0, 0) +
                      encode_oid(region))
        self.sessions += 1
        while True:
            kind, transaction, packet, payload = self.receive()
            if kind != RESPONSE:
                self.answer(session, kind, transaction, packet, payload)

    def following(self, name, included, end):
        at = (bisect.bisect_left if included else bisect.bisect_right)(self.names, name)
        if at == len(self.names) or (end and self.names[at] >= end):
            return END, name, 0
        return INTEGER, self.names[at], self.table[self.names[at]]

    def bulk(self, ranges, once, repetitions):
        """The variables, as lists by repetition."""
        first = [self.following(*one) for one in ranges[:once]]
        at = ranges[once:]
        rounds = []
        for _ in range(repetitions if at else 0):
            row = [self.following(*one) for one in at]
            rounds.append(row)
            at = [(found[1], False, () if self.mood == "unscoped" else one[2])
                  for found, one in zip(row, at)]
            if all(found[0] == END for found in row):
                break
        return first, rounds

    def answer(self, session, kind, transaction, packet, payload):
        error = index = 0
        found = []
        once = repetitions = 0
        if kind == BULK:
            self.bulks += 1
            once, repetitions = struct.unpack(">HH", payload[:4])
            payload = payload[4:]
        ranges = []
        while payload and kind in (GET, NEXT, BULK):
            name, included, payload = decode_oid(payload)
            end, _, payload = decode_oid(payload)
            ranges.append((name, included, end))
        mood = self.mood
        if kind == BULK and mood in ("hangs up", "is silent"):
            if mood == "hangs up":
                raise EOFError
            return
        if kind == GET:
            found = [(INTEGER, name, self.table[name]) if name in self.table else (NO_OBJECT, name, 0)
                     for name, _, _ in ranges]
        elif kind == NEXT:
            found = [self.following(*one) for one in ranges]
        elif kind == BULK:
            first, rounds = self.bulk(ranges, once, repetitions)
            if mood == "goes back" and len(rounds) > 3:
                rounds[2] = rounds[0]
            elif mood == "ends":
                rounds[1:] = [[(END, name, 0) for _, name, _ in rounds[0]]] * (len(rounds) - 1)
            found = first + [variable for row in rounds for variable in row]
            if mood == "few":
                found = found[:len(ranges) + (len(ranges) - once) * 3 // 2]
            elif mood == "too few":
                found = found[:len(ranges) - 1]
            elif mood == "too many":
                found += found[-1:] * (once + (len(ranges) - once) * repetitions + 1 - len(found))
            error = {"refuses": PROCESSING, "fails": GENERAL, "too big": TOO_BIG}.get(mood, 0)
            index = 1 if mood == "fails" else 0
        for at, (variable, _, value) in enumerate(found):
            if variable == INTEGER and value is None:
                error, index = GENERAL, at + 1
                break
        variables = b"" if error else b"".join(encode_variable(*one) for one in found)
        self.send(RESPONSE, session, transaction, packet,
                  struct.pack(">IHH", 0, error, index) + variables)
