"""scripts/fleet with two hosts: that it measures, and what.

usage: fleet_test.py SCRIPT [Fleet[.test]]
"""

import json
import os
import signal
import subprocess
import sys
import time
import unittest

SCRIPT = sys.argv[1] if len(sys.argv) > 1 else ""


def fleet(*arguments):
    return subprocess.run([SCRIPT, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, timeout=600, check=False)


class Fleet(unittest.TestCase):
    def test_two_hosts(self):
        done = fleet("2", "--seconds", "20", "--interval", "5", "--json")
        self.assertEqual(done.returncode, 0, done.stderr)
        found = json.loads(done.stdout)
        self.assertEqual((found["hosts"], found["failed_scrapes"]), (2, 0))
        self.assertIn(found["scrapes"], range(5, 11))
        self.assertGreater(found["samples_a_scrape"], 100)
        times = found["scrape_seconds"]
        self.assertTrue(0 < times["least"] <= times["median"] <= times["p99"] <= times["most"] < 5,
                        times)
        # Several variables an answer, with their names and values.
        self.assertGreater(found["variables_a_scrape"], found["samples_a_scrape"])
        self.assertIn(int(found["packets_a_scrape"]), range(20, int(found["variables_a_scrape"])))
        self.assertGreater(found["bytes_a_scrape"], 20 * found["variables_a_scrape"])
        self.assertEqual(set(found["host_cpu_percent"]), {"snmpd", "vexhostd"})
        for value in found["host_cpu_percent"].values():
            self.assertTrue(0 < value < 100, found)
        self.assertGreater(found["host_private_bytes"], 1 << 20)
        self.assertGreater(found["host_proportional_bytes"], found["host_private_bytes"])
        self.assertEqual(set(found["station_cpu_percent"]), {"Prometheus", "snmp_exporter"})
        for value in (*found["station_cpu_percent"].values(), *found["station_bytes"].values()):
            self.assertGreater(value, 0)

    def test_whatever_ends_it_leaves_nothing(self):
        def hosts(marker):
            found = []
            for pid in filter(str.isdigit, os.listdir("/proc")):
                try:
                    with open(f"/proc/{pid}/environ", "rb") as file:
                        if marker in file.read():
                            found.append(int(pid))
                except OSError:
                    pass  # it has ended, or is the kernel's
            return found

        def becomes(condition):
            end = time.monotonic() + 60
            while not condition():
                self.assertLess(time.monotonic(), end)
                time.sleep(0.2)

        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            name = f"of-this-test-{os.getpid()}-{number}"
            started = subprocess.Popen([SCRIPT, "2"], env=dict(os.environ, VEX_FLEET_TEST=name),
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            marker = f"VEX_FLEET_TEST={name}".encode()
            # The script and its namespaces, and of each host a shell, snmpd and the agent.
            becomes(lambda m=marker: len(hosts(m)) >= 8)
            started.send_signal(number)
            started.wait(timeout=60)
            becomes(lambda m=marker: not hosts(m))

    def test_refuses_what_it_cannot_do(self):
        for arguments in (["0"], ["4001"], ["2", "--seconds", "20"], ["two"]):
            self.assertEqual(fleet(*arguments).returncode, 2, arguments)


if __name__ == "__main__":
    sys.exit(unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2))
