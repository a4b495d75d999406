"""A machine for stations: the Debian that scripts/make-root has made with the stations' packages, in
namespaces of its own and on an overlay in memory, with the agent of a build behind a real snmpd on a
made-up host. Whoever is started in it ends with it.
"""

import html
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

INSIDE = "VEX_STATIONS_INSIDE"
SUITE = ".1.3.6.1.4.1.4891"
PREFIX = "/opt/vexhostd"
INTEGRATIONS = PREFIX + "/share/vexhostd/integrations"
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
PATH = f"{PREFIX}/sbin:{PREFIX}/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

BUILD = ""
ROOT = ""


def eventually(condition, seconds, what):
    """Waits until the condition gives something, and returns it. what: a text, or what makes it."""
    end = time.monotonic() + seconds
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} s: {what() if callable(what) else what}")
        time.sleep(0.5)


def fetch(url, body=None, headers=None):
    """The answer as text; nothing when nobody answers yet."""
    request = urllib.request.Request(url, data=body, headers=headers or {})
    try:
        with urllib.request.urlopen(request, timeout=30) as answer:
            return answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.read().decode()
    except OSError:
        return None


class Room:
    def __init__(self, case):
        self.work = tempfile.mkdtemp(prefix="stations.")
        self.started = {}
        case.addCleanup(self.leave)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "vexhostd-room", self.work],
                       check=True)
        self.root = self.work + "/root"
        for directory in ("upper", "work", "root"):
            os.mkdir(f"{self.work}/{directory}")
        subprocess.run(["mount", "-t", "overlay", "-o",
                        f"lowerdir={ROOT},upperdir={self.work}/upper,workdir={self.work}/work",
                        "vexhostd-room", self.root], check=True)
        for kind, place in (("proc", "proc"), ("sysfs", "sys"), ("tmpfs", "run"), ("tmpfs", "tmp"),
                            ("tmpfs", "dev"), ("tmpfs", "var/spool")):
            subprocess.run(["mount", "-t", kind, "vexhostd-room", f"{self.root}/{place}"],
                           check=True)
        for name in DEVICES:
            device = os.stat(f"/dev/{name}")
            os.mknod(f"{self.root}/dev/{name}", 0o20666, device.st_rdev)
            os.chmod(f"{self.root}/dev/{name}", 0o666)
        os.symlink("/proc/self/fd", f"{self.root}/dev/fd")
        os.mkdir(f"{self.root}/dev/shm", 0o1777)
        os.chmod(f"{self.root}/dev/shm", 0o1777)
        os.chmod(f"{self.root}/tmp", 0o1777)
        os.chmod(f"{self.root}/run", 0o755)
        os.mkdir(f"{self.root}/var/spool/quorix")
        subprocess.run(["cmake", "--install", BUILD, "--prefix", self.root + PREFIX],
                       check=True, stdout=subprocess.DEVNULL)
        shutil.copy(BUILD + "/bin/simulated_controller", self.path("/usr/local/bin"))
        self.mounts = {}
        self.devices = iter("abcdefghijklmnopqrstuvwxyz")
        self.write("/etc/hosts", "127.0.0.1 localhost\n")

    def leave(self):
        for process in reversed(self.started.values()):
            process.kill()
            process.wait()
        subprocess.run(["umount", "--recursive", "--lazy", self.work], check=True)
        os.rmdir(self.work)

    def path(self, path):
        return self.root + path

    def read(self, path):
        with open(self.path(path), encoding="utf-8", errors="replace") as file:
            return file.read()

    def write(self, path, text, mode=0o644):
        os.makedirs(os.path.dirname(self.path(path)), exist_ok=True)
        if os.path.islink(self.path(path)):
            os.unlink(self.path(path))
        with open(self.path(path), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(path), mode)

    # ---- Programs

    def command(self, command, user):
        return ["chroot", *([f"--userspec={user}"] if user else []), self.root, *command]

    def environment(self, more):
        return {"PATH": PATH, "LC_ALL": "C.UTF-8", "HOME": "/root", **(more or {})}

    def run(self, *command, user=None, environment=None, timeout=120, text=None):
        """Its status and what it said."""
        done = subprocess.run(self.command(command, user), env=self.environment(environment),
                              input=text if text is not None else "", stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=timeout, check=False)
        return done.returncode, done.stdout

    def ok(self, *command, **options):
        status, output = self.run(*command, **options)
        if status != 0:
            raise AssertionError(f"{command}: {status}: {output}")
        return output

    def start(self, name, *command, user=None, environment=None):
        """In the background, with a log of that name in /run."""
        with open(self.path(f"/run/{name}.log"), "a", encoding="utf-8") as log:
            self.started[name] = subprocess.Popen(
                self.command(command, user), env=self.environment(environment),
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd="/")
        return self.started[name]

    def stop(self, name):
        process = self.started.pop(name)
        process.terminate()
        if process.wait(timeout=60) not in (0, -15):
            raise AssertionError(f"{name} ended with {process.returncode}: {self.log(name)}")

    def log(self, name):
        return self.read(f"/run/{name}.log")[-6000:]

    def runs(self, *names):
        for name in names or self.started:
            if self.started[name].poll() is not None:
                raise AssertionError(f"{name} has ended: {self.log(name)}")
        return True

    # ---- The host

    def mount(self, directory, megabytes, used):
        """A file system of its own of so many megabytes, so many of them in use."""
        os.makedirs(self.path(directory), exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={megabytes}m", "vexhostd-room",
                        self.path(directory)], check=True)
        self.mounts[directory] = "/dev/vd" + next(self.devices)
        self.fill(directory, used)
        self.list_mounts()

    def fill(self, directory, megabytes):
        with open(self.path(directory) + "/used", "wb") as file:
            file.truncate(0)
            file.write(b"x" * (megabytes << 20))

    def unmount(self, directory):
        del self.mounts[directory]
        self.list_mounts()
        subprocess.run(["umount", "--lazy", self.path(directory)], check=True)

    def list_mounts(self):
        """What the agent finds: each of the made-up ones on a device of its own."""
        self.write("/etc/mtab", "".join(f"{device} {directory} ext4 rw 0 0\n"
                                        for directory, device in self.mounts.items()))

    def proc(self, name, text):
        """Covers an entry of /proc; again and again."""
        source = "/run/proc-" + name.replace("/", "-")
        known = os.path.exists(self.path(source))
        self.write(source, text)
        if not known:
            subprocess.run(["mount", "--bind", self.path(source), self.path("/proc/" + name)],
                           check=True)

    def install_software(self, packages):
        """What dpkg lists: {name: version}."""
        lines = "".join(f"ii  {name}  {version}  amd64  Made up\n"
                        for name, version in packages.items())
        self.write("/usr/local/bin/dpkg", "#!/bin/sh\ncase $1 in\n-l*) cat <<'END'\n" + lines +
                   "END\n;;\n--print-architecture) echo amd64 ;;\nesac\n", 0o755)
        self.write("/var/lib/dpkg/available", "")

    def start_controller(self):
        """A management controller, whose firmware is listed."""
        self.start("controller", "simulated_controller", "version=1.05", "generation=6")
        eventually(lambda: self.runs("controller") and
                   os.path.exists(self.path("/run/quorix/tlxci.sock")), 20, "the controller")

    def start_snmpd(self, more=""):
        self.write("/etc/snmp/snmpd.conf",
                   "agentaddress 127.0.0.1\nmaster agentx\nagentXSocket /run/agentx\n"
                   "rocommunity public 127.0.0.1\nrwcommunity private 127.0.0.1\n" + more)
        self.write("/etc/snmp/vexhostd.conf", "agentXSocket /run/agentx\ncommunity public\n")
        self.start("snmpd", "snmpd", "-f", "-C", "-c", "/etc/snmp/snmpd.conf", "-Lo")

    def start_agent(self):
        self.start("vexhostd", "vexhostd", "-p", "2", environment={"SNMPCONFPATH": "/etc/snmp"})
        eventually(lambda: self.runs("vexhostd") and
                   self.get(".1.3.6.1.4.1.4891.11.2.200.4.3.0").isdigit(), 60,
                   lambda: "a first poll: " + self.log("vexhostd"))

    def get(self, oid):
        return self.run("snmpget", "-v2c", "-cpublic", "-Oqv", "127.0.0.1", oid)[1].strip()

    def dump(self, *objects):
        return json.loads(self.ok("vexreg", "dump", *objects))


    # ---- A browser

    def browse(self, url, picture, width=1100, height=700, first=None):
        """The page's text as a browser has it once its scripts have run. picture: the name of a
        picture of it, which is kept in the directory VEX_PICTURES where that is set. first: a page
        to be fetched before, with the same cookies."""
        browser = ["sh", "-c", "exec \"$@\" 2>/run/browser.log", "sh", "chromium-headless-shell", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                   "--user-data-dir=/tmp/browser", "--virtual-time-budget=20000",
                   f"--window-size={width},{height}"]
        if first:
            self.ok(*browser, "--dump-dom", first)
        text = self.ok(*browser, "--dump-dom", url)
        path = f"/tmp/{picture}.png"
        self.ok(*browser, f"--screenshot={path}", url)
        # Flat pages: few colours do, and a picture is read over a network.
        self.ok("pngquant", "--force", "--output", path, "64", path)
        with open(self.path(path), "rb") as file:
            head = file.read(24)
        found = head[:8], *(int.from_bytes(head[i:i + 4], "big") for i in (16, 20))
        if found != (b"\x89PNG\r\n\x1a\n", width, height):
            raise AssertionError(f"{url}: no picture of {width} by {height}: {found}")
        kept = os.environ.get("VEX_PICTURES")
        if kept:
            shutil.copy(self.path(path), kept)
        text = re.sub(r"<(script|style)\b.*?</\1>", " ", text, flags=re.S)
        return re.sub(r"\s+", " ", html.unescape(re.sub(r"<[^>]*>", " ", text)))


class Processors:
    """/proc/stat of two processors that are busy, or not."""

    def __init__(self, one, busy):
        self.one, self.busy, self.ticks = one, busy, [1000, 1000]
        self.over = threading.Event()
        self.write()
        self.thread = threading.Thread(target=self.go_on, daemon=True)
        self.thread.start()

    def write(self):
        line = f"{self.ticks[0]} 0 0 {self.ticks[1]} 0 0 0 0 0 0\n"
        self.one.proc("stat", f"cpu  {self.ticks[0] * 2} 0 0 {self.ticks[1] * 2} 0 0 0 0 0 0\n"
                              f"cpu0 {line}cpu1 {line}intr 0\nctxt 0\nbtime 1709600000\n"
                              "processes 1\n")

    def go_on(self):
        while not self.over.wait(0.5):
            self.ticks[0 if self.busy else 1] += 50
            self.write()

    def end(self):
        self.over.set()
        self.thread.join()


def main(document):
    """Runs the tests of the calling module in namespaces."""
    global BUILD, ROOT
    if len(sys.argv) < 3:
        print(document.strip(), file=sys.stderr)
        return 2
    if os.environ.get(INSIDE) != "1":
        return subprocess.run(
            ["unshare", "--mount", "--net", "--pid", "--uts", "--ipc", "--fork", "--kill-child",
             "--mount-proc", "--propagation", "private", sys.executable, *sys.argv],
            env=dict(os.environ, **{INSIDE: "1"}), check=False).returncode
    BUILD, ROOT = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    if not shutil.which("cmake") or not os.path.isdir(ROOT + "/usr"):
        print(f"{ROOT} is no root: make it with scripts/make-root", file=sys.stderr)
        return 1
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    os.umask(0o022)
    ran = unittest.main(module="__main__", argv=[sys.argv[0], *sys.argv[3:]], exit=False,
                        verbosity=2)
    return 0 if ran.result.wasSuccessful() and ran.result.testsRun > 0 else 1
