"""What the packages do on a plain Debian of the suite that they are made for, from installation to purging: their scripts run by apt
and dpkg, the agent behind the stock snmpd. In namespaces of its own, on an overlay of that Debian;
without systemd running (tests/vm has that), so that what the scripts ask of it is written down by a
systemctl in its place.

usage: life_test.py PACKAGES DEBIAN [Life[.test]]   (build/packages, build/root/root)
VEX_OLD_PACKAGES has the packages of 0.1.0 for the tests of upgrades (scripts/build-old-packages);
VEX_COMPILER_ROOT a Debian of that suite with a compiler and what the packages are built with, where
it is not this machine's own suite.
"""

import contextlib
import glob
import json
import os
import re
import shlex
import shutil
import signal
import stat
import subprocess
import socket
import sys
import tempfile
import threading
import time
import unittest

PACKAGES = ""
DEBIAN = ""
INSIDE = "VEX_LIFE_TEST_INSIDE"

SUITE = ".1.3.6.1.4.1.4891"
REGISTRY = "/var/spool/quorix/kelmo/registry"
DROP_IN = "/etc/snmp/snmpd.conf.d/vexhostd.conf"
WANTED = "/etc/systemd/system/multi-user.target.wants/vexhostd.service"
# What dpkg, apt, the dynamic linker and systemd-sysusers keep of any package's coming and going: a user
# that a package made stays, so that no other one gets its number and what may be left of its files.
ACCOUNTS = re.compile(r"/(proc|sys|dev|run|tmp|packages|var/(log|cache)|var/lib/(dpkg|apt))(/|$)"
                      r"|/etc/(ld\.so\.cache|g?shadow-?|passwd-?|group-?|\.pwd\.lock)$")
# Every unit is enabled and runs; snmpd's is not reloaded where procps is missing. What needs no
# running systemd is done by the real one.
SYSTEMCTL = """#!/bin/sh
case "$*" in
  *is-enabled*) echo enabled ;;
  *is-active*) ;;
  *--root=*) exec /run/real-systemctl "$@" ;;
  *)
    echo "$*" >>/run/systemctl.log
    case "$*" in *"reload snmpd.service") [ ! -e /run/no-procps ] ;; esac
    ;;
esac
"""
# The same, but a service manager that is listening does what is asked for the agent.
MANAGED = """#!/bin/sh
case "$*" in
  *is-enabled*) echo enabled ;;
  *is-active*) ;;
  *--root=*) exec /run/real-systemctl "$@" ;;
  *vexhostd.service)
    echo "$*" >/run/manager/asked
    cat /run/manager/answer >/dev/null
    ;;
  "reload snmpd.service"|*" reload snmpd.service") kill -HUP "$(cat /run/snmpd.number)" ;;
esac
"""
# Between a manager's question that was answered and the next one that is.
LONGEST_GAP = 2.0
# What the machine that runs this lends: a script that follows a link out of its tree ends up here.
LENT = [f"/dev/{name}" for name in ("null", "zero", "full", "random", "urandom", "tty")]


class Machine:
    """The plain Debian, to be written to."""

    def __init__(self, work):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "vexhostd-life", work], check=True)
        self.root = work + "/root"
        for directory in ("upper", "work", "root"):
            os.mkdir(f"{work}/{directory}")
        subprocess.run(["mount", "-t", "overlay", "-o",
                        f"lowerdir={DEBIAN},upperdir={work}/upper,workdir={work}/work",
                        "vexhostd-life", self.root], check=True)
        for kind, place in (("proc", "proc"), ("sysfs", "sys"), ("tmpfs", "run"),
                            ("devpts", "dev/pts")):
            subprocess.run(["mount", "-t", kind, "vexhostd-life", f"{self.root}/{place}"],
                           check=True)
        shutil.copytree(PACKAGES, self.path("/packages"))

    def path(self, path):
        return self.root + path

    def check_inside(self, path):
        """An absolute link leads out of the machine to whoever is not in it."""
        real = os.path.realpath(self.path(path))
        if not real.startswith(self.root + "/"):
            raise AssertionError(f"{path} is {real}")

    def exists(self, path):
        return os.path.lexists(self.path(path))

    def read(self, path):
        with open(self.path(path), encoding="utf-8") as file:
            return file.read()

    def write(self, path, text, mode=0o644):
        self.check_inside(path)
        os.makedirs(os.path.dirname(self.path(path)), exist_ok=True)
        with open(self.path(path), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(path), mode)

    def start(self, *command, **options):
        return subprocess.Popen(["chroot", self.root, *command], env={
            "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "LC_ALL": "C", "HOME": "/root", "DEBIAN_FRONTEND": "noninteractive"}, **options)

    def run(self, *command):
        process = self.start(*command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True)
        output, _ = process.communicate(timeout=180)
        return process.returncode, output

    def files(self):
        """Every file with its kind, mode, owner, and its text or where it points."""
        found = {}
        for directory, names, files in os.walk(self.root):
            for name in names + files:
                path = os.path.join(directory, name)
                inside = path[len(self.root):]
                if ACCOUNTS.match(inside):
                    continue
                info = os.lstat(path)
                contents = None
                if stat.S_ISREG(info.st_mode):
                    contents = (info.st_size, info.st_mtime)
                elif stat.S_ISLNK(info.st_mode):
                    contents = os.readlink(path)
                found[inside] = (stat.filemode(info.st_mode), info.st_uid, info.st_gid, contents)
            names[:] = [n for n in names
                        if not ACCOUNTS.match(os.path.join(directory, n)[len(self.root):])]
        return found


def lent():
    """The machine's own devices, but for their times: others use them, too."""
    return {path: (info.st_ino, info.st_mode, info.st_uid, info.st_gid, info.st_rdev)
            for path in LENT for info in [os.lstat(path)]}


def eventually(condition, seconds=30):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.1)
    return True


class ServiceManager(threading.Thread):
    """Starts, stops and restarts the agent as the unit has systemd do it, when a script asks."""

    def __init__(self, machine, started):
        super().__init__(daemon=True)
        self.machine = machine
        self.started = started
        self.agent = None
        self.done = []
        os.mkdir(machine.path("/run/manager"))
        for name in ("asked", "answer"):
            os.mkfifo(machine.path(f"/run/manager/{name}"))
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(machine.path("/run/manager/notify"))
        self.socket.settimeout(60)

    def start_agent(self):
        [unit] = {os.path.realpath(path) for path in glob.glob(
            self.machine.path("/usr/lib/systemd/system/vexhostd.service"))}
        with open(unit, encoding="utf-8") as file:
            line = re.search(r"^ExecStart=(.*)$", file.read(), re.M).group(1)
        with open(self.machine.path("/run/vexhostd.log"), "a", encoding="utf-8") as output:
            self.agent = self.machine.start(
                "env", "NOTIFY_SOCKET=/run/manager/notify", *shlex.split(line),
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self.started.append(self.agent)
        while "READY=1" not in self.socket.recv(4096).decode().split("\n"):
            pass

    def stop_agent(self):
        self.agent.terminate()
        if self.agent.wait(30) != 0:
            self.done.append(f"ended with {self.agent.returncode}")

    def run(self):
        while True:
            try:
                with open(self.machine.path("/run/manager/asked"), encoding="utf-8") as fifo:
                    asked = fifo.read().split()
            except FileNotFoundError:
                return  # the machine is gone
            verb = next(word for word in asked if not word.startswith("-"))
            if verb in ("stop", "restart") and self.agent is not None:
                self.stop_agent()
                self.agent = None
            if verb in ("start", "restart"):
                self.start_agent()
            self.done.append(verb)
            with open(self.machine.path("/run/manager/answer"), "w", encoding="utf-8"):
                pass


class Station(threading.Thread):
    """Asks for one variable all the while, and keeps how long it went without an answer."""

    def __init__(self, machine, name):
        super().__init__(daemon=True)
        self.machine = machine
        self.name_asked = name
        self.values = set()
        self.seen = []  # when a value came first
        self.gap = 0.0
        self.answers = 0
        self.over = threading.Event()

    def run(self):
        start = last = time.monotonic()
        while not self.over.is_set():
            began = time.monotonic()
            # No modules' directory: dpkg replaces what is in it meanwhile.
            status, output = self.machine.run("snmpget", "-v2c", "-cpublic", "-On", "-t1", "-r0",
                                              "-M", "/nowhere", "-m", "", "127.0.0.1", self.name_asked)
            if status == 0 and "No Such" not in output:
                self.answers += 1
                if output.strip() not in self.values:
                    self.seen.append(f"{began - start:.2f} s: {output.strip()}")
                self.values.add(output.strip())
                self.gap = max(self.gap, began - last)
                last = began
            time.sleep(0.02)
        self.gap = max(self.gap, time.monotonic() - last)

    def end(self):
        self.over.set()
        self.join()


class Life(unittest.TestCase):
    def setUp(self):
        work = tempfile.mkdtemp()
        self.addCleanup(os.rmdir, work)
        self.addCleanup(subprocess.run, ["umount", "--recursive", "--lazy", work], check=True)
        before = lent()
        self.addCleanup(lambda: self.assertEqual(lent(), before))
        self.machine = Machine(work)
        self.assertFalse(os.path.samefile("/dev/null", self.machine.path("/dev/null")))
        self.started = []
        self.addCleanup(self.end_all)

    def end_all(self):
        for process in self.started:
            process.kill()
            process.wait()

    def ok(self, *command):
        status, output = self.machine.run(*command)
        self.assertEqual(status, 0, f"{command}: {output}")
        return output

    def install(self):
        # By apt, so that what the package depends on must be there.
        return self.ok("sh", "-c", "apt-get install --yes /packages/vexhostd_*.deb "
                                   "/packages/vexhostd-dev_*.deb")

    def daemon(self, unit, log):
        """Starts what the unit starts."""
        line = re.search(r"^ExecStart=(.*)$", self.machine.read(unit), re.M).group(1)
        with open(self.machine.path(log), "w", encoding="utf-8") as output:
            process = self.machine.start(*shlex.split(line), stdin=subprocess.DEVNULL,
                                         stdout=output, stderr=output)
        self.started.append(process)
        return process

    def walk(self, start=SUITE):
        _, output = self.machine.run("snmpwalk", "-v2c", "-cpublic", "-On", "127.0.0.1", start)
        return output.splitlines()

    def visible(self):
        lines = self.walk()
        return bool(lines) and lines[0].startswith(SUITE + ".") and "No more" not in lines[0]

    def pretend_systemd(self):
        shutil.copy(self.machine.path("/usr/bin/systemctl"), self.machine.path("/run/real-systemctl"))
        self.machine.write("/run/systemctl", SYSTEMCTL, 0o755)
        subprocess.run(["mount", "--bind", self.machine.path("/run/systemctl"),
                        self.machine.path("/usr/bin/systemctl")], check=True)
        os.makedirs(self.machine.path("/run/systemd/system"))

    def asked_of_systemd(self):
        """What was asked since the last time."""
        log = "/run/systemctl.log"
        asked = self.machine.read(log).splitlines() if self.machine.exists(log) else []
        self.machine.write(log, "")
        return [re.sub(r"--(quiet|system)\s*", "", line).strip() for line in asked]

    def newer_package(self):
        """The same package with a higher version."""
        tree = self.machine.path("/tmp/newer")
        [package] = glob.glob(PACKAGES + "/vexhostd_*.deb")
        subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
        with open(tree + "/DEBIAN/control", encoding="utf-8") as file:
            control = file.read()
        with open(tree + "/DEBIAN/control", "w", encoding="utf-8") as file:
            file.write(re.sub(r"^Version: (.*)$", r"Version: \1+newer", control, flags=re.M))
        subprocess.run(["dpkg-deb", "-Znone", "-b", tree, tree + ".deb"], check=True,
                       stdout=subprocess.DEVNULL)
        shutil.rmtree(tree)
        return "/tmp/newer.deb"

    # ---- Without systemd

    def test_installed_and_purged_where_no_systemd_runs(self):
        before = self.machine.files()
        self.install()
        self.assertIn(os.readlink(self.machine.path(WANTED)),
                      ("/lib/systemd/system/vexhostd.service",
                       "/usr/lib/systemd/system/vexhostd.service"))
        modes = {path: (kind, owner, group) for path, (kind, owner, group, _) in
                 self.machine.files().items()}
        for path, kind in (("/usr/sbin/vexhostd", "-rwxr-xr-x"), ("/usr/bin/vexreg", "-rwxr-xr-x"),
                           ("/usr/lib/vexhostd/libvexcommon.so", "-rw-r--r--"),
                           ("/lib/systemd/system/vexhostd.service", None),
                           ("/etc/snmp/vexhostd.conf", "-rw-r-----"), (DROP_IN, "-rw-r--r--")):
            if kind is not None:
                self.assertEqual(modes[path], (kind, 0, 0), path)
            self.assertTrue(os.path.isfile(self.machine.path(path)), path)
        # Nothing of it may be written by anybody but root.
        listed = self.ok("dpkg", "-L", "vexhostd", "vexhostd-dev").split("\n")
        for path in filter(None, listed):
            if path.startswith("/") and path in modes and not modes[path][0].startswith("l"):
                self.assertNotIn("w", modes[path][0][5] + modes[path][0][8], path)
        self.assertEqual(self.ok("dpkg", "--audit"), "")
        self.assertEqual(self.ok("dpkg", "--verify", "vexhostd"), "")

        self.ok("dpkg", "--remove", "vexhostd-dev", "vexhostd")
        self.assertFalse(self.machine.exists("/usr/sbin/vexhostd"))
        self.assertTrue(self.machine.exists("/etc/snmp/vexhostd.conf"))
        self.ok("dpkg", "--purge", "vexhostd")
        self.assertEqual(self.machine.files(), before)

    # ---- What stands in the way of a purge

    def test_a_purge_goes_through_and_stays_in_its_place(self):
        machine = self.machine
        self.install()
        self.ok("dpkg", "--purge", "vexhostd-dev")
        self.ok("dpkg", "--remove", "vexhostd")
        spool, kelmo = "/var/spool/quorix", "/var/spool/quorix/kelmo"
        ours = ("host/cpu.0", "tlxhoguid.dat", "tlxhosystemrole.dat", "tlxhosystemroledetail.dat",
                "tlxhoguid.dat.replaced.1", ".tlxhosystemrole.dat.new",
                ".tlxhosystemroledetail.dat.new", "vexhostd.traps")
        mounted = []

        def fill(registry):
            for name in ours:
                machine.write(f"{registry}/{name}", "something\n")

        def below(directory):
            return sorted(os.path.relpath(os.path.join(at, name), machine.path(directory))
                          for at, names, files in os.walk(machine.path(directory))
                          for name in names + files)

        def link(target, path, owner):
            os.makedirs(os.path.dirname(machine.path(path)), exist_ok=True)
            machine.check_inside(path)
            os.symlink(os.path.relpath(target, os.path.dirname(path)), machine.path(path))
            os.lchown(machine.path(path), owner, owner)

        def purge():
            # What dpkg has the script do.
            self.ok("/var/lib/dpkg/info/vexhostd.postrm", "purge")

        @contextlib.contextmanager
        def case(what, **parameters):
            with self.subTest(what, **parameters):
                try:
                    yield
                finally:
                    for path in mounted:
                        subprocess.run(["umount", machine.path(path)], check=True)
                    mounted.clear()
                    for path in (spool, "/srv/elsewhere"):
                        if os.path.islink(machine.path(path)):
                            os.remove(machine.path(path))
                        elif machine.exists(path):
                            shutil.rmtree(machine.path(path))

        # The administrator's links are followed, and left.
        for path, rest in ((spool, "/kelmo/registry"), (kelmo, "/registry"), (REGISTRY, "")):
            with case("root's link", path=path):
                link("/srv/elsewhere", path, 0)
                os.makedirs(machine.path("/srv/elsewhere"))
                fill("/srv/elsewhere" + rest)
                purge()
                self.assertEqual(below("/srv/elsewhere"), [])
                self.assertTrue(os.path.islink(machine.path(path)))

        # Another user's are not: what is there is not the agent's.
        for path, rest in ((spool, "/kelmo/registry"), (kelmo, "/registry"), (REGISTRY, "")):
            with case("another user's link", path=path):
                link("/srv/elsewhere", path, 1000)
                os.makedirs(machine.path("/srv/elsewhere"))
                fill("/srv/elsewhere" + rest)
                purge()
                for name in ours:
                    self.assertTrue(machine.exists(f"/srv/elsewhere{rest}/{name}"), name)
        with case("a link in the place of the objects"):
            machine.write("/srv/elsewhere/precious", "something\n")
            link("/srv/elsewhere", REGISTRY + "/host", 1000)
            purge()
            self.assertEqual(below("/srv/elsewhere"), ["precious"])
            self.assertFalse(machine.exists(spool))

        # Somebody's mount.
        for path, left in ((spool, []), (REGISTRY, []), (REGISTRY + "/host", []),
                           (REGISTRY + "/host/other", ["precious"])):
            with case("a mount", path=path):
                os.makedirs(machine.path(path))
                subprocess.run(["mount", "-t", "tmpfs", "vexhostd-life", machine.path(path)],
                               check=True)
                mounted.append(path)
                fill(REGISTRY)
                if left:
                    machine.write(path + "/precious", "something\n")
                purge()
                self.assertEqual(below(path), left)
                for name in ours:
                    self.assertFalse(machine.exists(f"{REGISTRY}/{name}"), name)

        # What is no file cannot be removed as one; the rest is.
        with case("a directory in the place of a file"):
            machine.write(REGISTRY + "/host/cpu.0", "something\n")
            os.mkdir(machine.path(REGISTRY + "/tlxhoguid.dat"))
            machine.write(REGISTRY + "/tlxhosystemrole.dat", "something\n")
            self.ok("dpkg", "--purge", "vexhostd")
            self.assertEqual(below(REGISTRY), ["tlxhoguid.dat"])
            self.assertEqual(machine.run("dpkg-query", "-W", "vexhostd")[0], 1)

    # ---- Behind the stock snmpd

    def test_snmpd_reads_again_where_no_systemd_runs(self):
        self.ok("/etc/init.d/snmpd", "start")
        self.assertTrue(eventually(lambda: self.walk(".1.3.6.1.2.1.1.1")[:1] != [] and
                                   " = STRING: " in self.walk(".1.3.6.1.2.1.1.1")[0]))
        snmpd = self.machine.read("/run/snmpd.pid")
        # Not against the administrator's policy.
        self.machine.write("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", 0o755)
        self.install()
        agent = self.daemon("/lib/systemd/system/vexhostd.service", "/run/vexhostd.log")
        self.assertTrue(eventually(
            lambda: "connected to the master" in self.machine.read("/run/vexhostd.log")))
        self.assertFalse(self.visible())
        os.remove(self.machine.path("/usr/sbin/policy-rc.d"))
        self.ok("dpkg", "--install", self.newer_package())
        self.assertTrue(eventually(self.visible))
        self.ok("dpkg", "--purge", "vexhostd-dev", "vexhostd")
        self.assertTrue(eventually(lambda: not self.visible()))
        # It is the same snmpd, and the agent behind it has not gone.
        self.assertEqual(self.machine.read("/run/snmpd.pid"), snmpd)
        self.assertIsNone(agent.poll())
        # One that does not run is not started.
        self.ok("/etc/init.d/snmpd", "stop")
        self.install()
        self.ok("dpkg", "--purge", "vexhostd-dev", "vexhostd")
        self.assertFalse(self.machine.exists("/run/snmpd.pid"))


    def test_visible_behind_the_stock_snmpd(self):
        before = self.machine.files()
        snmpd = self.daemon("/lib/systemd/system/snmpd.service", "/run/snmpd.log")
        self.assertTrue(eventually(lambda: self.walk(".1.3.6.1.2.1.1.1")[0].startswith(
            ".1.3.6.1.2.1.1.1.0 = STRING: ")))
        self.install()
        drop_in = self.machine.read(DROP_IN)
        agent = self.daemon("/lib/systemd/system/vexhostd.service", "/run/vexhostd.log")
        registry = self.machine.path(REGISTRY)
        self.assertTrue(eventually(lambda: glob.glob(registry + "/host/hwinfo*") or
                                   len(glob.glob(registry + "/host/*")) > 5))
        # The agent is there, and the stock view hides it.
        self.assertIn("No more variables left in this MIB View", self.walk()[0])
        self.assertIn("FAIL  subtree", self.machine.run("vexreg", "doctor")[1])
        # What the package's script has systemd do.
        self.assertIn("ExecReload=/bin/kill -HUP $MAINPID",
                      self.machine.read("/lib/systemd/system/snmpd.service"))
        snmpd.send_signal(signal.SIGHUP)
        self.assertTrue(eventually(self.visible))
        # The agent may still be publishing what it finds.
        self.assertTrue(eventually(lambda: len(self.walk()) > 50))
        # Nothing more is to be done.
        self.assertTrue(eventually(lambda: self.machine.run("vexreg", "doctor")[0] == 0))
        # By name, as the README says.
        by_name = self.ok("snmpwalk", "-v2c", "-cpublic", "-M",
                          "/usr/share/snmp/mibs:/usr/share/vexhostd/smi", "-m", "QUORIX-HOST-MIB",
                          "127.0.0.1", "quorixHost")
        self.assertIn("QUORIX-HOST-MIB::tlxHoPhysicalMemorySize.0 = INTEGER: ", by_name)
        # It is the drop-in that shows it.
        os.remove(self.machine.path(DROP_IN))
        snmpd.send_signal(signal.SIGHUP)
        self.assertTrue(eventually(lambda: not self.visible()))
        self.machine.write(DROP_IN, drop_in)
        snmpd.send_signal(signal.SIGHUP)
        self.assertTrue(eventually(self.visible))
        # Through all that the session stood.
        self.assertNotIn("lost the master agent", self.machine.read("/run/vexhostd.log"))
        self.check_sibling()

        # All that the agent ever saves, and what remains of it in the end.
        self.machine.write("/etc/snmp/snmpd.conf.d/sets.conf", "rwcommunity private 127.0.0.1\n")
        snmpd.send_signal(signal.SIGHUP)
        for name, value in (("tlxHoSystemRole", "s a role"), ("tlxHoSystemRoleDetail", "s a detail"),
                            ("tlxHoGUID", "x 000102030405060708090A0B0C0D0E0F")):
            self.assertTrue(eventually(lambda: self.set(name, value)), name)
        agent.terminate()
        self.assertEqual(agent.wait(20), 0)
        self.assertEqual(sorted(os.listdir(registry)), ["tlxhoguid.dat", "tlxhosystemrole.dat",
                                                        "tlxhosystemroledetail.dat"])
        os.remove(self.machine.path("/etc/snmp/snmpd.conf.d/sets.conf"))
        os.remove(self.machine.path("/usr/local/bin/sibling"))
        self.ok("dpkg", "--purge", "vexhostd-dev", "vexhostd")
        after = self.machine.files()
        changed = {path for path in before.keys() | after.keys()
                   if before.get(path) != after.get(path)}
        self.assertEqual({path for path in changed
                          if not path.startswith(("/var/lib/snmp", "/var/agentx"))}, set())

    def set(self, name, value):
        status, _ = self.machine.run(
            "snmpset", "-v2c", "-cprivate", "-M", "/usr/share/snmp/mibs:/usr/share/vexhostd/smi",
            "-m", "QUORIX-HOST-MIB", "127.0.0.1", f"{name}.0", *value.split(" ", 1))
        return status == 0

    def check_sibling(self):
        """An agent built on the development package runs beside this one."""
        source = glob.glob(self.machine.path("/usr/share/doc/vexhostd-dev/examples/*/sibling.c"))[0]
        flags = subprocess.run(
            ["pkg-config", "--cflags", "--libs", "vexhostd"], check=True, text=True,
            stdout=subprocess.PIPE, env={
                **os.environ, "PKG_CONFIG_PATH": self.machine.path("/usr/share/pkgconfig")}).stdout
        # Where the compiler sees the machine's files.
        there, chroot = self.machine.root, []
        compiler_root = os.environ.get("VEX_COMPILER_ROOT")
        if compiler_root:
            # Another suite's compiler: this machine's C library may be newer than the program would find.
            there, chroot = "/mnt", ["chroot", compiler_root]
            subprocess.run(["mount", "--bind", self.machine.root, compiler_root + there], check=True)
        flags = [re.sub("^-([IL])", r"-\1" + there, flag) for flag in flags.split()]
        subprocess.run([*chroot, "cc", source.replace(self.machine.root, there, 1), *flags,
                        "-o", there + "/usr/local/bin/sibling"], check=True,
                       env={**os.environ, "TMPDIR": there + "/tmp"})
        if compiler_root:
            subprocess.run(["umount", compiler_root + there], check=True)
        sibling = self.machine.start("sibling", "-p")
        self.started.append(sibling)
        self.assertTrue(eventually(lambda: self.machine.exists(REGISTRY + "/example/clock")))
        self.assertIn('"exampleSeconds": 0', self.ok("vexreg", "dump", "example/clock"))
        sibling.terminate()
        self.assertEqual(sibling.wait(20), 0)
        self.assertFalse(self.machine.exists(REGISTRY + "/example"))

    # ---- What dpkg tells the agent

    def made_package(self, name, version):
        tree = self.machine.path(f"/tmp/{name}")
        os.makedirs(tree + "/DEBIAN")
        with open(tree + "/DEBIAN/control", "w", encoding="utf-8") as file:
            file.write(f"Package: {name}\nVersion: {version}\nArchitecture: all\n"
                       "Maintainer: nobody <nobody@quorix.invalid>\nDescription: a test\n")
        subprocess.run(["dpkg-deb", "-Znone", "-b", tree, tree + ".deb"], check=True,
                       stdout=subprocess.DEVNULL)
        return f"/tmp/{name}.deb"

    def listed(self, name):
        """The versions of the package in the software table; some names have the architecture."""
        _, output = self.machine.run("vexreg", "dump")
        try:
            objects = json.loads(output)
        except ValueError:
            return None
        return [data["tlxHoSwVerVersion"] for path, data in objects.items()
                if path.startswith("host/swver.") and
                re.fullmatch(re.escape(name) + "(_[a-z0-9]+)?", data["tlxHoSwVerName"])]

    def test_what_dpkg_installs_is_listed_at_the_next_poll(self):
        machine = self.machine
        self.install()
        machine.write("/etc/snmp/vexhostd.conf", "pollInterval 2\n", 0o640)
        self.daemon("/lib/systemd/system/vexhostd.service", "/run/vexhostd.log")
        self.assertTrue(eventually(lambda: self.listed("vexhostd")))
        self.assertEqual(self.listed("qv-health"), [])
        self.ok("dpkg", "--install", self.made_package("qv-health", "1.2-3"))
        self.assertTrue(eventually(lambda: self.listed("qv-health") == ["1.2-3"]))
        self.ok("dpkg", "--purge", "qv-health")
        self.assertTrue(eventually(lambda: self.listed("qv-health") == []))

    def test_the_hook_holds_up_no_dpkg_and_goes_with_the_package(self):
        machine = self.machine
        hook, available = "/etc/dpkg/dpkg.cfg.d/vexhostd", "/var/lib/dpkg/available"
        self.install()
        self.assertTrue(machine.exists(hook))
        # Nothing is made that was not there.
        os.remove(machine.path(available))
        package = self.made_package("qv-health", "1.2-3")
        self.assertNotIn("vexhostd", self.ok("dpkg", "--install", package))
        self.assertFalse(machine.exists(available))
        # Nor does a file that refuses stop dpkg.
        machine.write(available, "")
        subprocess.run(["mount", "--bind", machine.path(available), machine.path(available)],
                       check=True)
        subprocess.run(["mount", "-o", "remount,bind,ro", machine.path(available)], check=True)
        self.ok("dpkg", "--purge", "qv-health")
        subprocess.run(["umount", machine.path(available)], check=True)
        # Not the purge but the removal takes it away; dpkg has nothing to say either way.
        self.ok("dpkg", "--remove", "vexhostd-dev", "vexhostd")
        self.assertFalse(machine.exists(hook))
        self.assertTrue(machine.exists("/etc/snmp/vexhostd.conf"))
        self.ok("dpkg", "--install", package)
        self.ok("dpkg", "--purge", "qv-health", "vexhostd")

    # ---- Upgrades

    def test_an_upgrade_and_the_way_back_lose_nothing(self):
        machine = self.machine
        [old] = glob.glob(os.environ["VEX_OLD_PACKAGES"] + "/vexhostd_0.1.0*.deb")
        [new] = glob.glob(PACKAGES + "/vexhostd_*.deb")
        shutil.copy(old, machine.path("/packages/old.deb"))
        shutil.copy(new, machine.path("/packages/new.deb"))
        machine.write("/etc/snmp/snmpd.conf.d/sets.conf", "rwcommunity private 127.0.0.1\n")
        snmpd = self.daemon("/lib/systemd/system/snmpd.service", "/run/snmpd.log")
        shutil.copy(machine.path("/usr/bin/systemctl"), machine.path("/run/real-systemctl"))
        machine.write("/run/systemctl", MANAGED, 0o755)
        machine.write("/run/snmpd.number", str(snmpd.pid))
        subprocess.run(["mount", "--bind", machine.path("/run/systemctl"),
                        machine.path("/usr/bin/systemctl")], check=True)
        os.makedirs(machine.path("/run/systemd/system"))
        manager = ServiceManager(machine, self.started)
        manager.start()

        self.ok("dpkg", "--install", "/packages/old.deb")
        self.assertEqual(manager.done, ["start"])
        snmpd.send_signal(signal.SIGHUP)
        self.assertTrue(eventually(self.visible))
        kept = {"tlxHoSystemRole": "a role", "tlxHoSystemRoleDetail": "a detail",
                "tlxHoGUID": "0:1:2:3:4:5:6:7:8:9:a:b:c:d:e:f"}
        for name, value in kept.items():
            kind = "x 000102030405060708090A0B0C0D0E0F" if name == "tlxHoGUID" else "s " + value
            self.assertTrue(eventually(lambda name=name, kind=kind: self.set(name, kind)), name)
        changed = machine.read("/etc/snmp/vexhostd.conf") + "pollInterval 5\n"
        machine.write("/etc/snmp/vexhostd.conf", changed, 0o640)

        # 0.1.0 writes what was set to its files at the next poll.
        self.assertTrue(eventually(
            lambda: '"tlxHoSystemRole": "a role"' in self.machine.run("vexreg", "dump")[1]))

        def value(name):
            return self.ok("snmpget", "-v2c", "-cpublic", "-Oqv", "-M",
                           "/usr/share/snmp/mibs:/usr/share/vexhostd/smi", "-m", "QUORIX-HOST-MIB",
                           "127.0.0.1", name + ".0").strip().strip('" ')
        role = self.ok("snmptranslate", "-M", "/usr/share/snmp/mibs:/usr/share/vexhostd/smi", "-m",
                       "QUORIX-HOST-MIB", "-On", "QUORIX-HOST-MIB::tlxHoSystemRole.0").strip()
        for package, version in (("new", self.version(new)), ("old", "0.1.0"),
                                 ("new", self.version(new))):
            with self.subTest(f"to {version}"):
                agent = manager.agent.pid
                manager.done.clear()
                station = Station(machine, role)
                station.start()
                self.assertTrue(eventually(lambda s=station: s.answers > 3))
                self.ok("dpkg", "--install", f"/packages/{package}.deb")
                # The values of the new one, once the first poll is over, are these as well.
                time_over = time.monotonic() + 5
                self.assertTrue(eventually(lambda t=time_over: time.monotonic() > t))
                station.end()
                print(f"to {version}: longest gap {station.gap:.2f} s, {station.answers} answers; "
                      f"{station.seen}")
                self.assertEqual(manager.done, ["restart"])
                self.assertNotEqual(manager.agent.pid, agent)
                self.assertIsNone(manager.agent.poll())
                self.assertEqual(self.ok("dpkg-query", "-Wf", "${Version}", "vexhostd"), version)
                self.assertEqual(station.values, {f'{role} = STRING: "a role"'})
                self.assertLess(station.gap, LONGEST_GAP)
                self.assertEqual({name: value(name) for name in kept}, kept)
                self.assertEqual(value("tlxHoOsCommonPollFreq"), "5 seconds")
                self.assertEqual(machine.read("/etc/snmp/vexhostd.conf"), changed)
                # The agent itself answers: a set is taken.
                self.assertTrue(eventually(lambda: self.set("tlxHoSystemRole", "s a role")))

    def version(self, package):
        return subprocess.run(["dpkg-deb", "-f", package, "Version"], check=True, text=True,
                              stdout=subprocess.PIPE).stdout.strip()

    # ---- With systemd

    def test_what_the_scripts_ask_of_systemd(self):
        self.pretend_systemd()
        before = self.machine.files()
        self.install()
        self.assertEqual(self.asked_of_systemd(),
                         ["reload snmpd.service", "daemon-reload", "start vexhostd.service"])

        # An upgrade restarts once, and leaves alone what the administrator changed.
        changed = self.machine.read("/etc/snmp/vexhostd.conf") + "pollInterval 5\n"
        self.machine.write("/etc/snmp/vexhostd.conf", changed, 0o640)
        newer = self.newer_package()
        self.ok("dpkg", "--install", newer)
        self.assertTrue(self.ok("dpkg-query", "-Wf", "${Version}", "vexhostd").endswith("+newer"))
        asked = self.asked_of_systemd()
        self.assertEqual([line for line in asked if "vexhostd" in line],
                         ["restart vexhostd.service"])
        self.assertEqual(self.machine.read("/etc/snmp/vexhostd.conf"), changed)
        self.assertTrue(self.machine.exists(WANTED))

        # The registry, as a killed agent leaves it, with a sibling's objects.
        for name in ("host/cpu.0", "tlxhoguid.dat", "tlxhosystemrole.dat",
                     "tlxhosystemroledetail.dat", "tlxhoguid.dat.replaced.5",
                     ".tlxhoguid.dat.new", "storage/disk.1"):
            self.machine.write(f"{REGISTRY}/{name}", "something\n")

        self.ok("dpkg", "--purge", "vexhostd-dev")
        self.asked_of_systemd()
        self.ok("dpkg", "--remove", "vexhostd")
        self.assertEqual(self.asked_of_systemd()[:1], ["stop vexhostd.service"])
        self.assertTrue(self.machine.exists(REGISTRY + "/tlxhoguid.dat"))

        self.ok("dpkg", "--purge", "vexhostd")
        self.assertIn("reload snmpd.service", self.asked_of_systemd())
        left = self.machine.files().keys() - before.keys()
        spool = "/var/spool/quorix"
        self.assertEqual(left, {spool, spool + "/kelmo", REGISTRY, REGISTRY + "/storage",
                                REGISTRY + "/storage/disk.1"})

        # With nobody else in it, the registry goes as well. A reload that fails is made up for, and a
        # file whose time cannot be set is left.
        shutil.rmtree(self.machine.path(REGISTRY + "/storage"))
        self.machine.write("/run/no-procps", "")
        available = self.machine.path("/var/lib/dpkg/available")
        subprocess.run(["mount", "--bind", available, available], check=True)
        subprocess.run(["mount", "-o", "remount,bind,ro", available], check=True)
        self.install()
        subprocess.run(["umount", available], check=True)
        instead = "kill --kill-whom=main --signal=HUP snmpd.service"
        self.assertEqual(self.asked_of_systemd(),
                         ["reload snmpd.service", instead, "daemon-reload", "start vexhostd.service"])
        self.machine.write(REGISTRY + "/tlxhoguid.dat", "something\n")
        self.ok("dpkg", "--purge", "vexhostd-dev", "vexhostd")
        asked = self.asked_of_systemd()
        self.assertIn("reload snmpd.service", asked)
        self.assertEqual(asked[asked.index("reload snmpd.service") + 1], instead)
        self.assertEqual(self.machine.files(), before)

    def test_a_policy_against_starting_is_kept(self):
        self.pretend_systemd()
        self.machine.write("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", 0o755)
        self.install()
        self.ok("dpkg", "--install", self.newer_package())
        self.ok("dpkg", "--purge", "vexhostd-dev", "vexhostd")
        self.assertEqual(set(self.asked_of_systemd()), {"daemon-reload"})


if __name__ == "__main__":
    if not os.environ.get(INSIDE):
        os.execvpe("unshare", ["unshare", "--mount", "--net", "--pid", "--uts", "--ipc", "--fork",
                               "--kill-child", "--mount-proc", "--propagation", "private",
                               sys.executable, *sys.argv], {**os.environ, INSIDE: "1"})
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    PACKAGES = os.path.abspath(sys.argv.pop(1))
    DEBIAN = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
