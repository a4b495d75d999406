#!/usr/bin/env python3
"""snmpd with contrib/net-snmp's patch answers as Debian's does, whatever it is asked and whoever is behind.

usage: bulk_test.py [TestClass[.test]]
"""

import os
import random
import sys
import tempfile
import time
import unittest

import masters
from masters import BULK, GET, NEXT, V1, V2C, V3, PATCHED, STOCK, dotted
from subagent import MOODS, Subagent

EXTENDS = 12
EXTENDED = (1, 3, 6, 1, 4, 1, 8072)
BEFORE, AFTER = (1, 3, 6, 1, 4, 1, 4890, 1), (1, 3, 6, 1, 4, 1, 4892, 1)
# Views that hide all of a region or nothing.
WHOLE = ("public", "others")
ASKED = int(os.environ.get("VEX_QUESTIONS", "400"))


def table(prefix, columns, rows, value=7):
    return {(*prefix, 1, column, row): value + column * row
            for column in range(1, columns + 1) for row in rows}


class Masters(unittest.TestCase):
    """vexhostd, a subagent of net-snmp's library and a small one, whose region is also in the midst of
    vexhostd's table, behind one master after the other. Nothing that they serve changes."""

    @classmethod
    def setUpClass(cls):
        cls.host = masters.Host(tempfile.mkdtemp(prefix="masters."))
        cls.host.start_master(STOCK, "rocommunity public\n")
        masters.eventually(cls.look_around, lambda: f"no table is whole: {cls.columns}, {cls.scalars}")
        cls.split = (*cls.columns[1], 100)
        cls.small = Subagent(f"{cls.host.work}/agentx", [BEFORE, AFTER, cls.split], {
            **table(BEFORE, 3, range(1, 40)), **table(AFTER, 4, range(1, 200, 3)),
            **table(cls.split, 2, range(5))})
        cls.small.start()
        cls.host.write("extend.conf", f"agentXSocket {cls.host.work}/agentx\nagentXPingInterval 1\n" +
                       "".join(f"extend -cacheTime -1 x{n} /bin/echo {'y' * n}\n" for n in range(EXTENDS)))
        cls.host.start("extend", [*STOCK, "-f", "-Le", "-X", "-C", "-c",
                                  f"{cls.host.work}/extend.conf", "-Iextend"])
        cls.start(STOCK)
        cls.names = cls.host.manager.walk()
        for prefix in (BEFORE, AFTER, cls.split, EXTENDED, (1, 3, 6, 1, 2, 1, 1), (1, 3, 6, 1, 6, 3, 16)):
            if sum(name[:len(prefix)] == prefix for name in cls.names) < 5:
                raise AssertionError(f"nothing of {dotted(prefix)} is served")

    @classmethod
    def look_around(cls):
        """The columns of the longest table, that of the processors, and the scalars."""
        columns = {}
        for name in cls.host.manager.walk():
            if name[:7] == masters.SERVED:
                columns.setdefault(name[:-1], []).append(name)
        cls.columns = sorted(column for column, names in columns.items()
                             if len(names) == masters.PROCESSORS)
        cls.scalars = sorted(names[0] for names in columns.values() if len(names) == 1)
        return len(cls.columns) >= 4 and len(cls.scalars) >= 10

    @classmethod
    def start(cls, program, lines=""):
        """All that is served at all times, and users with views of it."""
        column = cls.columns
        holes = [f"excluded .{dotted(column[2])}", f"excluded .{dotted(cls.scalars[3])}",
                 f"excluded .{dotted(column[0])}.7", f"excluded .{dotted(column[3])}.255",
                 # One row of all columns.
                 f"excluded .{dotted(column[0])}.9 " + cls.mask(column[0]),
                 f"excluded .{dotted(AFTER)}.1.2"]
        served = f"included .{dotted(masters.SERVED)}"
        views = {
            "public": [served],
            "holes": [served, *holes],
            "row": [f"included .{dotted(column[0])}.200 " + cls.mask(column[0])],
            "column": [f"included .{dotted(column[-1])}"],
            "others": [],
        }
        everything = ["included .1.3.6.1.2.1.1", "excluded .1.3.6.1.2.1.1.3",
                      "excluded .1.3.6.1.2.1.1.8", "excluded .1.3.6.1.2.1.1.9",
                      "included .1.3.6.1.6.3.16", "included .1.3.6.1.4.1.4890",
                      "included .1.3.6.1.4.1.4892", f"included .{dotted(EXTENDED)}"]
        text = ""
        for name, rules in views.items():
            text += "".join(f"view {name} {rule}\n" for rule in everything + rules)
            text += f"rocommunity {name} 127.0.0.1 -V {name}\ncreateUser u{name}\n" \
                    f"rouser u{name} noauth -V {name}\n"
        sessions = cls.small.sessions
        # Nobody is given up because the machine is busy.
        if "agentXTimeout" not in lines:
            lines += "agentXTimeout 60\n"
        cls.host.start_master(program, text + lines)
        # The small subagent has a part of vexhostd's tree: only a column of vexhostd's own shows that it is there.
        masters.eventually(lambda: cls.small.sessions > sessions and cls.host.serves(BEFORE) and
                           cls.host.serves(AFTER) and cls.host.serves(cls.split) and
                           cls.host.serves(cls.columns[0]),
                           lambda: cls.host.log("snmpd"))
        masters.eventually(lambda: cls.host.serves(EXTENDED), lambda: cls.host.log("extend"))
        cls.views = list(views)

    @staticmethod
    def mask(column):
        """That of an OID one longer than the column, in which the column does not matter."""
        bits = "".join("0" if at == len(column) - 1 else "1" for at in range(len(column) + 1))
        bits += "1" * (-len(bits) % 8)
        return ":".join(f"{int(bits[at:at + 8], 2):02x}" for at in range(0, len(bits), 8))

    def questions(self, seed, count, names=None, kinds=(BULK,) * 8 + (NEXT,),
                  versions=(V2C, V2C, V3)):
        pick = random.Random(seed)
        names = names or self.names
        regions = [BEFORE, AFTER, self.split, EXTENDED, masters.SERVED, *self.columns]

        def start():
            name = pick.choice(names)
            return pick.choice((
                lambda: name, lambda: name, lambda: name[:pick.randrange(2, len(name))],
                lambda: (*name, 0), lambda: (*name[:-1], name[-1] + 1),
                lambda: (*name[:-1], max(name[-1] - 1, 0)), lambda: (*name[:-1], 4294967295),
                lambda: pick.choice(regions), lambda: pick.choice(self.columns),
                lambda: (*pick.choice(self.columns), pick.randrange(300)),
                lambda: pick.choice(((0, 0), (1, 3), (1, 3, 6, 1, 6, 9), (2, 1), (1, 3, 6, 1, 4, 1)))))()

        def starts():
            if pick.random() < 0.3:  # a table, column beside column
                row = pick.choice(((), (pick.randrange(300),), (250,), (99,)))
                return [(*column, *row) for column in self.columns[:pick.randrange(1, 7)]]
            return [start() for _ in range(pick.choice((1, 1, 1, 2, 3, 4, 8, 12)))]

        found = []
        for _ in range(count):
            kind = pick.choice(kinds)
            version = pick.choice(versions if kind == BULK else (V1, V2C, V3))
            view = pick.choice(self.views)
            asked = starts()
            question = {"kind": kind, "names": asked, "version": version,
                        "who": (("u" if version == V3 else "") + view).encode()}
            if kind == BULK:
                question["once"] = pick.choice((0, 0, 0, 1, 2, len(asked), len(asked) + 3))
                if view not in WHOLE:
                    # Where a view hides the last repetition of a column, net-snmp 5.9.3 goes on in the next
                    # one, and may never answer: no column but the last is repeated.
                    question["once"] = max(question["once"], len(asked) - 1)
                question["repetitions"] = pick.choice((0, 1, 2, 3, 10, 10, 25, 50, 100, 1000, 70000,
                                                       2147483647, pick.randrange(1, 120)))
            found.append(question)
        return found

    def answers(self, questions):
        return [self.host.manager.ask(**question) for question in questions]

    def assert_same(self, questions, expected, found):
        self.assertEqual(len(expected), len(found))
        # What comes with an error counts for nothing: the question, or what net-snmp had found until then.
        expected, found = ([one[:3] + (b"",) if one and one[1] else one for one in answers]
                           for answers in (expected, found))
        told = [f"{question}\nstock   {self.shown(one)}\npatched {self.shown(other)}"
                for question, one, other in zip(questions, expected, found) if one != other]
        self.assertFalse(told, f"{len(told)} of {len(questions)} answers differ:\n" + "\n".join(told[:3]))

    @staticmethod
    def shown(answer):
        if answer is None:
            return "nothing"
        return f"{answer[1:3]} " + " ".join(
            f"{dotted(masters.oid_of(name))}={tag:02x}:{value.hex()[:16]}" for (_, name), (tag, value) in
            (masters.fields(one) for _, one in masters.fields(answer[3])))

    def compare(self, questions, lines=""):
        """By the stock master, then by the patched one; how many GetBulks the small subagent had of it."""
        self.start(STOCK, lines)
        bulks = self.small.bulks
        expected = self.answers(questions)
        self.assertEqual(self.small.bulks, bulks)
        self.start(PATCHED, lines + masters.GETBULK)
        found = self.answers(questions)
        self.assert_same(questions, expected, found)
        variables = sum(len(masters.fields(one[3])) for one in expected if one)
        print(f"{self.id().rsplit('.', 1)[1]}: {len(questions)} questions, {variables} variables, "
              f"{self.small.bulks - bulks} GetBulks to the small subagent", flush=True)
        return self.small.bulks - bulks


class Answers(Masters):
    def test_stock_answers_the_same_twice(self):
        """What the others compare does not change by itself."""
        questions = self.questions(1, 100)
        self.start(STOCK)
        before = self.answers(questions)
        self.start(STOCK)
        self.assert_same(questions, before, self.answers(questions))
        self.assertGreater(sum(one is not None and one[1] == 0 for one in before), 50)

    def test_any_question(self):
        self.assertGreater(self.compare(self.questions(2, ASKED)), ASKED // 40)

    def test_long_answers(self):
        """More repetitions than a subagent, or an answer, holds."""
        self.assertGreater(self.compare(self.questions(3, ASKED // 4),
                                        "maxGetbulkResponses 20000\nmaxGetbulkRepeats 0\n"), 0)

    def test_short_messages(self):
        """Answers that are cut. Not of version 3: net-snmp 5.9.3 may cut such a one without an end."""
        self.compare(self.questions(7, ASKED // 4, versions=(V2C,), kinds=(BULK,)),
                     "sendMessageMaxSize 1472\n")

    def test_few_repetitions(self):
        self.compare(self.questions(4, ASKED // 4), "maxGetbulkRepeats 4\n")

    def test_subagents_of_the_library(self):
        names = [name for name in self.names if name[:7] == EXTENDED]
        self.compare(self.questions(5, ASKED // 4, names))

    def test_bulk_in_version_1(self):
        """There is none: no answer, or the same one."""
        question = {"kind": BULK, "names": [masters.SERVED], "repetitions": 5, "version": V1,
                    "seconds": 2}
        self.compare([question])

    def test_without_the_setting_nothing_is_passed_on(self):
        questions = self.questions(6, ASKED // 8)
        self.start(STOCK)
        expected = self.answers(questions)
        self.start(PATCHED)
        bulks = self.small.bulks
        self.assert_same(questions, expected, self.answers(questions))
        self.assertEqual(self.small.bulks, bulks)


class Subagents(Masters):
    def tearDown(self):
        self.small.mood = "answers"

    def questions_of_the_small_one(self, seed):
        names = [name for name in self.names if name[:8] in (BEFORE, AFTER)]
        return self.questions(seed, 40, names)

    def test_moods(self):
        for seed, mood in enumerate(MOODS):
            with self.subTest(mood):
                self.small.mood = mood
                bulks = self.compare(self.questions_of_the_small_one(100 + seed))
                said = self.host.log("snmpd").count("does not answer GetBulk")
                if mood == "refuses":
                    self.assertEqual((bulks, said), (1, 1))
                else:
                    self.assertGreater(bulks, 5)

    def test_a_value_that_cannot_be_read(self):
        sick = sorted(self.small.table)[60]
        value, self.small.table[sick] = self.small.table[sick], None
        try:
            questions = self.questions_of_the_small_one(200)
            self.compare(questions)
            self.assertIn(5, [one and one[1] for one in self.answers(questions)])
        finally:
            self.small.table[sick] = value

    def test_one_that_leaves(self):
        """In the midst of a GetBulk: an error for this question, and the others are served on."""
        for mood in ("hangs up", "is silent"):
            with self.subTest(mood):
                self.start(PATCHED, masters.GETBULK + "agentXTimeout 1\nagentXRetries 0\n")
                self.small.mood = mood
                bulks, sessions = self.small.bulks, self.small.sessions
                for names in ([BEFORE], [BEFORE, self.columns[0]], [self.columns[0], AFTER, BEFORE]):
                    answer = self.host.manager.ask(BULK, names, repetitions=10)
                    self.assertEqual(answer and answer[1], 5, self.shown(answer))
                    masters.eventually(lambda n=sessions: self.small.sessions > n,
                                       "the subagent does not come back")
                    sessions = self.small.sessions
                    masters.eventually(lambda: self.host.serves(AFTER), "nor is it served")
                self.assertGreaterEqual(self.small.bulks, bulks + 3)
                answer = self.host.manager.ask(BULK, [self.columns[0]], repetitions=50)
                self.assertEqual((answer[1], len(masters.fields(answer[3]))), (0, 50))
                self.small.mood = "answers"
                answer = self.host.manager.ask(BULK, [BEFORE], repetitions=10)
                self.assertEqual((answer[1], len(masters.fields(answer[3]))), (0, 10))


if __name__ == "__main__":
    masters.enter()
    began = time.monotonic()
    program = unittest.main(argv=sys.argv, exit=False, verbosity=2)
    print(f"{time.monotonic() - began:.0f} s", flush=True)
    sys.exit(not program.result.wasSuccessful())
