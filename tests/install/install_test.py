"""cmake --install and the target uninstall, as a packager and an administrator use them.

usage: install_test.py BUILD [TestClass[.test]]   (BUILD: a build tree, whose compiler is used)
"""

import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = ""
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# Directories as distributions have them, and some that nobody has.
ODD = {"SBINDIR": "libexec/agents", "BINDIR": "tools/bin", "LIBDIR": "lib64/private/vexhostd",
       "SYSCONFDIR": "conf", "MANDIR": "man", "DATAROOTDIR": "data", "INCLUDEDIR": "inc"}


def run(*command, status=0, cwd=None, **environment):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, cwd=cwd, env={**os.environ, **environment})
    if status is not None and done.returncode != status:
        raise AssertionError(f"{command}: {done.returncode}\n{done.stdout[-4000:]}")
    return done.stdout


def tree(top):
    """All paths below a directory."""
    return sorted(os.path.relpath(os.path.join(path, name), top)
                  for path, directories, files in os.walk(top) for name in directories + files)


def mode(path):
    return os.stat(path).st_mode & 0o777


class Work(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.work = work.name

    def read(self, path):
        with open(path, encoding="utf-8") as file:
            return file.read()


class Installation(Work):
    """Of a copy of the build tree, in its own place: an overlay that only this process sees, so that
    nothing is compiled again but what an option changes."""

    def setUp(self):
        super().setUp()
        self.build = BUILD
        layer = tempfile.mkdtemp(prefix="install-", dir=os.path.dirname(BUILD))
        self.addCleanup(shutil.rmtree, layer, ignore_errors=True)
        for part in ("upper", "work"):
            os.mkdir(f"{layer}/{part}")
        run("mount", "-t", "overlay", "overlay", "-o",
            f"lowerdir={BUILD},upperdir={layer}/upper,workdir={layer}/work", BUILD)
        self.addCleanup(run, "umount", "--lazy", BUILD)
        # Not what others have installed from there, or do meanwhile: that shows through an overlay.
        os.makedirs(BUILD + "/installed", exist_ok=True)
        run("mount", "-t", "tmpfs", "tmpfs", BUILD + "/installed")
        self.addCleanup(run, "umount", "--lazy", BUILD + "/installed")

    def configure(self, *options):
        run("cmake", "-S", SOURCE, "-B", self.build, "-DVEX_TESTS=OFF", "-DVEX_BENCH=OFF", *options)
        run("cmake", "--build", self.build)


class Places(Installation):
    def test_odd_places_below_a_staged_prefix(self):
        self.configure(*(f"-DCMAKE_INSTALL_{name}={place}" for name, place in ODD.items()))
        stage, prefix = self.work + "/stage", "/srv/odd-place"
        os.mkdir(stage)
        run("cmake", "--install", self.build, "--prefix", prefix, DESTDIR=stage)
        top = stage + prefix
        paths = tree(top)
        for path in ("libexec/agents/vexhostd", "tools/bin/vexreg",
                     "lib64/private/vexhostd/libvexcommon.so", "conf/snmp/vexhostd.conf",
                     "conf/snmp/snmpd.conf.d/vexhostd.conf", "man/man8/vexhostd.8",
                     "data/snmp/mibs/QUORIX-HOST-MIB.txt", "inc/vexhostd/platform/framework.h",
                     "data/pkgconfig/vexhostd.pc", "lib/systemd/system/vexhostd.service"):
            self.assertIn(path, paths)
        # Nothing in the places that were not asked for.
        self.assertEqual({path.split("/")[0] for path in paths},
                         {"libexec", "tools", "lib64", "conf", "man", "data", "inc", "lib"})
        self.assertEqual([path for path in tree(top + "/lib")],
                         ["systemd", "systemd/system", "systemd/system/vexhostd-export.service",
                          "systemd/system/vexhostd-export.timer",
                          "systemd/system/vexhostd.service", "sysusers.d",
                          "sysusers.d/vexhostd.conf"])
        self.assertEqual(os.listdir(stage), ["srv"])
        self.assertEqual(mode(top + "/conf/snmp/vexhostd.conf"), 0o640)

        unit = self.read(top + "/lib/systemd/system/vexhostd.service")
        self.assertIn(f"\nExecStart={prefix}/libexec/agents/vexhostd -i\n", unit)
        self.assertIn(f"\nEnvironment=SNMPCONFPATH={prefix}/conf/snmp:", unit)
        self.assertNotIn("@", re.sub(r"@[a-z-]+", "", unit))
        export = self.read(top + "/lib/systemd/system/vexhostd-export.service")
        self.assertIn(f"\nExecStart={prefix}/tools/bin/vexreg export ", export)
        pc = self.read(top + "/data/pkgconfig/vexhostd.pc")
        self.assertIn(f"\nlibdir={prefix}/lib64/private/vexhostd\n", pc)
        self.assertIn(f"\nincludedir={prefix}/inc\n", pc)

        # It runs from there: the libraries are found from where the program stands.
        self.assertIn("-p", run(top + "/libexec/agents/vexhostd", "-h", status=None))
        linked = run("ldd", top + "/libexec/agents/vexhostd")
        self.assertIn(f"=> {os.path.realpath(top)}/libexec/agents/../../lib64/private/vexhostd/", linked)
        self.assertNotIn("not found", linked)
        self.assertRegex(run(top + "/tools/bin/vexreg", "--version"), r"\d+\.\d+\.\d+")

        run("cmake", "--build", self.build, "--target", "uninstall", DESTDIR=stage)
        self.assertEqual(tree(stage), [])

    def test_a_destdir_from_where_one_stands(self):
        self.configure()
        run("timeout", "20", "cmake", "--install", self.build, "--prefix", "/srv/odd",
            "--component", "headers", cwd=self.work, DESTDIR="stage")
        self.assertIn("stage/srv/odd/share/pkgconfig/vexhostd.pc", tree(self.work))
        self.assertEqual(os.listdir(self.work), ["stage"])
        # The target runs in the build tree, where that would be another one.
        self.assertIn("from /", run("cmake", "--build", self.build, "--target", "uninstall",
                                    status=1, DESTDIR="stage"))
        run("cmake", "--build", self.build, "--target", "uninstall", DESTDIR=self.work + "/stage")
        self.assertEqual(tree(self.work), [])

    def test_what_stood_there_before_stays(self):
        self.configure()
        prefix = self.work + "/prefix"
        os.makedirs(prefix + "/share/man/man8")
        os.makedirs(prefix + "/bin")
        with open(prefix + "/bin/other", "w", encoding="utf-8") as file:
            file.write("another's")
        before = tree(prefix)
        run("cmake", "--install", self.build, "--prefix", prefix)
        # Twice, as after a change.
        run("cmake", "--install", self.build, "--prefix", prefix)
        self.assertIn("lib/libvexcommon.so", tree(prefix))
        run("cmake", "--build", self.build, "--target", "uninstall")
        self.assertEqual(tree(prefix), before)

        # A configuration that was changed is the administrator's, in both directions.
        run("cmake", "--install", self.build, "--prefix", prefix)
        conf = prefix + "/etc/snmp/vexhostd.conf"
        with open(conf, "a", encoding="utf-8") as file:
            file.write("pollInterval 30\n")
        run("cmake", "--install", self.build, "--prefix", prefix)
        self.assertIn("pollInterval 30\n", self.read(conf))
        run("cmake", "--build", self.build, "--target", "uninstall")
        self.assertEqual(tree(prefix), sorted(before + ["etc", "etc/snmp", "etc/snmp/vexhostd.conf"]))
        self.assertIn("pollInterval 30\n", self.read(conf))
        # Nothing is installed now.
        self.assertIn("Nothing was installed", run("cmake", "--build", self.build, "--target",
                                                   "uninstall", status=1))

    def test_what_cannot_be_removed_is_not_forgotten(self):
        self.configure()
        prefix = self.work + "/prefix"
        run("cmake", "--install", self.build, "--prefix", prefix, "--component", "headers")
        run("mount", "--bind", "-o", "ro", prefix, prefix)
        try:
            said = run("cmake", "--build", self.build, "--target", "uninstall", status=1)
        finally:
            run("umount", "--lazy", prefix)
        self.assertIn(prefix + "/share/pkgconfig/vexhostd.pc", said)
        run("cmake", "--build", self.build, "--target", "uninstall")
        self.assertEqual(tree(self.work), [])

    def test_one_installation_does_not_make_another_forgotten(self):
        self.configure()
        for place, stage in (("one", ""), ("two", ""), ("one", "/stage")):
            run("cmake", "--install", self.build, "--prefix", f"{self.work}/{place}",
                "--component", "headers", DESTDIR=stage and self.work + stage)
        # The last one goes; the others are named, and stay until it is done again.
        said = run("cmake", "--build", self.build, "--target", "uninstall", DESTDIR="")
        self.assertEqual(sorted(os.listdir(self.work)), ["one", "stage"])
        self.assertIn(self.work + "/one\n", said)
        self.assertIn(f"DESTDIR={self.work}/stage", said)
        run("cmake", "--build", self.build, "--target", "uninstall", DESTDIR="")
        self.assertEqual(os.listdir(self.work), ["stage"])
        # Which there are is said.
        self.assertIn(self.work + "/stage", run("cmake", "--build", self.build, "--target",
                                                "uninstall", status=1, DESTDIR=""))
        run("cmake", "--build", self.build, "--target", "uninstall", DESTDIR=self.work + "/stage/")
        self.assertEqual(tree(self.work), [])

    def test_programs_elsewhere_than_below_the_prefix(self):
        prefix = self.work + "/prefix"
        self.configure(f"-DCMAKE_INSTALL_SBINDIR={self.work}/agents", f"-DCMAKE_INSTALL_PREFIX={prefix}")
        run("cmake", "--install", self.build)
        self.assertIn(f"=> {prefix}/lib/libvexcommon.so", run("ldd", self.work + "/agents/vexhostd"))
        # They look for their libraries below the prefix that they were built for.
        self.assertIn(f"-DCMAKE_INSTALL_PREFIX={self.work}/other", run(
            "cmake", "--install", self.build, "--prefix", self.work + "/other", status=1))
        self.assertFalse(os.path.exists(self.work + "/other"))

    def test_the_default_layout(self):
        self.configure()
        for prefix, configuration in (("/usr", "etc"), ("/usr/local", "usr/local/etc"),
                                      ("/opt/vex", "etc/opt/vex"), ("/", "etc")):
            with tempfile.TemporaryDirectory() as stage:
                run("cmake", "--install", self.build, "--prefix", prefix, DESTDIR=stage)
                paths = tree(stage)
                self.assertIn(configuration + "/snmp/vexhostd.conf", paths)
                for path in ("sbin/vexhostd", "bin/vexreg", "lib/libvexcommon.so", "lib/libqvev.so",
                             "share/snmp/mibs/QUORIX-MIB.txt", "share/man/man1/vexreg.1",
                             "share/bash-completion/completions/vexreg",
                             "share/zsh/site-functions/_vexreg",
                             "share/fish/vendor_completions.d/vexreg.fish",
                             "lib/systemd/system/vexhostd.service"):
                    self.assertIn((prefix + "/" + path).lstrip("/"), paths)
                unit = self.read(stage + prefix + "/lib/systemd/system/vexhostd.service")
                self.assertIn(f"\nExecStart={prefix.rstrip('/')}/sbin/vexhostd -i\n", unit)
                self.assertEqual("SNMPCONFPATH" in unit, configuration != "etc")


class Completion(Installation):
    def test_is_made_again_with_the_command(self):
        for shell, name in (("bash", "vexreg"), ("zsh", "_vexreg"), ("fish", "vexreg.fish")):
            with self.subTest(shell):
                script = f"{self.build}/tools/completion/{shell}/{name}"
                build = ("cmake", "--build", self.build, "--target", f"vexreg_completion_{shell}")
                run(*build)
                # As one that was made before the command was linked anew.
                with open(script, "w", encoding="utf-8") as file:
                    file.write("old\n")
                os.utime(f"{self.build}/bin/vexreg")
                run(*build)
                self.assertEqual(self.read(script),
                                 run(f"{self.build}/bin/vexreg", "completion", shell))


class Components(Installation):
    def test_each_by_itself_and_all_of_it(self):
        self.configure()
        everything = self.work + "/all of it, 100%"
        run("cmake", "--install", self.build, "--prefix", everything)
        files = {}
        for component in ("program", "configuration", "headers", "documentation", "integrations"):
            place = f"{self.work}/{component}"
            run("cmake", "--install", self.build, "--prefix", place, "--component", component)
            files[component] = {path for path in tree(place) if os.path.isfile(f"{place}/{path}")}
            self.assertTrue(files[component], component)
        union = set().union(*files.values())
        self.assertEqual(len(union), sum(len(some) for some in files.values()))
        self.assertEqual(union, {path for path in tree(everything)
                                 if os.path.isfile(f"{everything}/{path}")})
        self.assertIn("include/vexhostd/platform/framework.h", files["headers"])
        self.assertIn("share/pkgconfig/vexhostd.pc", files["headers"])
        self.assertIn("share/doc/vexhostd/examples/sibling/sibling.c", files["headers"])
        self.assertIn("etc/snmp/vexhostd.conf", files["configuration"])
        self.assertIn("share/doc/vexhostd/third-party-notices", files["documentation"])
        self.assertIn("share/vexhostd/dpkg.cfg", files["integrations"])
        self.assertIn("share/vexhostd/integrations/prometheus/snmp.yml", files["integrations"])
        self.assertIn("share/vexhostd/integrations/nagios/check_vexhost", files["integrations"])
        self.assertIn("share/vexhostd/integrations/icinga/vexhost.conf", files["integrations"])

        # What the pkg-config file says is what an agent is built with.
        with open(self.work + "/sibling.c", "w", encoding="utf-8") as file:
            file.write('#include "platform/framework.h"\nint main(void) { return 0; }\n')
        flags = run("pkg-config", "--cflags", "vexhostd",
                    PKG_CONFIG_PATH=everything + "/share/pkgconfig")
        run("cc", "-fsyntax-only", *shlex.split(flags), self.work + "/sibling.c")
        flags = run("pkg-config", "--libs", "vexhostd",
                    PKG_CONFIG_PATH=everything + "/share/pkgconfig")
        self.assertIn(f"-L{everything}/lib", shlex.split(flags))
        self.assertIn(f"-Wl,-rpath,{everything}/lib", shlex.split(flags))

        # And the unit is a unit, whatever the directory's name.
        units = everything + "/lib/systemd/system"
        named = everything.replace("%", "%%")
        self.assertIn(f'\nExecStart="{named}/sbin/vexhostd" -i\n', self.read(units + "/vexhostd.service"))
        self.assertIn(f'\nEnvironment="SNMPCONFPATH={named}/etc/snmp:/etc/snmp:/usr/share/snmp"\n',
                      self.read(units + "/vexhostd.service"))
        self.assertIn(f'\nExecStart="{named}/bin/vexreg" export ',
                      self.read(units + "/vexhostd-export.service"))


class Demo(Work):
    """What ./run ends in, on a terminal that tmux plays."""

    def tmux(self, *command):
        return run("tmux", "-L", "vex-demo-" + os.path.basename(self.work), "-f", "/dev/null", *command)

    def shown(self, text, seconds=60):
        end = time.monotonic() + seconds
        while text not in (screen := self.tmux("capture-pane", "-p")):
            if time.monotonic() > end:
                self.fail(f"never shown: {text}\n{screen}")
            time.sleep(0.2)
        return screen

    def test_values_then_the_live_view_with_its_keys(self):
        prefix = self.work + "/prefix"
        run("cmake", "--install", BUILD, "--prefix", prefix)
        before = os.listdir("/var/spool")
        self.tmux("new-session", "-d", "-x", "100", "-y", "40",
                  f"{SOURCE}/scripts/demo {prefix} 2>&1 | tee {self.work}/pipe-is-no-terminal;"
                  f" {SOURCE}/scripts/demo {prefix}; echo status $?; sleep 600")
        self.addCleanup(self.tmux, "kill-server")
        # Behind a pipe it is the stream, which Ctrl-C ends.
        self.shown("vexreg watch memory cpu")
        self.tmux("send-keys", "C-c")
        # On the terminal itself it is the full screen, which q leaves.
        self.shown("? tells the keys")
        self.shown("Changed lately")
        self.tmux("send-keys", "?")
        self.shown("quit")
        self.tmux("send-keys", "Escape")
        self.tmux("send-keys", "q")
        screen = self.shown("status 0")
        # The values are still there: the view had a screen of its own.
        self.assertIn("tlxHoPhysicalMemoryFree.0 = INTEGER: ", screen)
        self.assertEqual(os.listdir("/var/spool"), before)
        self.assertEqual(run("pgrep", "-f", prefix + "/s?bin/", status=None), "")

    def test_shows_values_where_no_mount_table_is(self):
        prefix = self.work + "/prefix"
        run("cmake", "--install", BUILD, "--prefix", prefix)
        # As in a minimal root: an /etc of this test's own namespace, without the table.
        layer = self.work + "/layer"
        os.mkdir(layer)
        with subprocess.Popen(["unshare", "--mount", "--propagation", "private", "bash", "-euc", f"""
                mount -t tmpfs -o mode=755 vexhostd-test {layer}
                mkdir {layer}/upper {layer}/work
                mount -t overlay -o lowerdir=/etc,upperdir={layer}/upper,workdir={layer}/work vexhostd-test /etc
                rm -f /etc/mtab
                exec {SOURCE}/scripts/demo {prefix}"""],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as demo:
            self.addCleanup(demo.terminate)
            said = []
            for line in demo.stdout:
                said.append(line)
                if "tlxHoPhysicalMemorySize.0 = " in line:
                    break
            demo.terminate()
            said.append(demo.communicate(timeout=60)[0])
        self.assertRegex("".join(said), r"tlxHoPhysicalMemorySize\.0 = INTEGER: [1-9]")


class Refusals(Work):
    """What cannot be built is refused by cmake, with a sentence."""

    def setUp(self):
        super().setUp()
        self.build = self.work + "/build"

    def refusal(self, *options):
        shutil.rmtree(self.build, ignore_errors=True)
        return " ".join(run("cmake", "-S", SOURCE, "-B", self.build, "-G", "Ninja", *options,
                            status=1).split())

    def test_other_processors(self):
        sentence = "vexhostd is for 64-bit little-endian processors (amd64, arm64)"
        # Nothing is linked, so that the libraries of these processors need not be there.
        alone = "-DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY"
        self.assertIn(sentence, self.refusal(alone, "-DCMAKE_C_FLAGS=-m32", "-DCMAKE_CXX_FLAGS=-m32"))
        self.assertIn(sentence, self.refusal(
            alone, *(f"-DCMAKE_{language}_COMPILER{what}" for language, compiler in
                     (("C", "clang"), ("CXX", "clang++"))
                     for what in ("=" + compiler, "_TARGET=s390x-linux-gnu"))))

    def test_missing_libraries_are_named_with_their_packages(self):
        complete = self.work + "/complete"
        run("cmake", "-S", SOURCE, "-B", complete, "-G", "Ninja")
        for option, package in (("VEX_FOUND_net_snmp_HEADER=", "libsnmp-dev"),
                                ("VEX_FOUND_net_snmp_netsnmpagent=", "libsnmp-dev"),
                                ("VEX_FOUND_ncurses_tinfo=", "libncurses-dev"),
                                ("CMAKE_DISABLE_FIND_PACKAGE_CLI11=ON", "libcli11-dev"),
                                ("CMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON", "nlohmann-json3-dev"),
                                ("SMIDUMP=", "smitools"),
                                ("CMAKE_DISABLE_FIND_PACKAGE_Python3=ON", "python3"),
                                ("CMAKE_DISABLE_FIND_PACKAGE_GTest=ON", "libgtest-dev"),
                                ("CMAKE_DISABLE_FIND_PACKAGE_benchmark=ON", "libbenchmark-dev"),
                                ("VEX_FOUND_libseccomp_HEADER=", "libseccomp-dev")):
            name, value = option.split("=")
            # What cmake knows of the compiler need not be found out ten times.
            shutil.rmtree(self.build, ignore_errors=True)
            os.mkdir(self.build)
            shutil.copytree(complete + "/CMakeFiles", self.build + "/CMakeFiles")
            said = " ".join(run("cmake", "-S", SOURCE, "-B", self.build, "-G", "Ninja",
                                "-DVEX_TESTS=ON", "-DVEX_BENCH=ON", f"-D{name}={value}",
                                status=1).split())
            self.assertRegex(said, f"Missing: .*apt install {package};")

    def test_the_program_alone_wants_nothing_of_the_tests(self):
        run("cmake", "-S", SOURCE, "-B", self.build, "-G", "Ninja",
            *(f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in ("GTest", "benchmark")))

    def test_what_cannot_be_installed_anywhere(self):
        for name in ("CMAKE_INSTALL_BINDIR", "CMAKE_INSTALL_SBINDIR", "CMAKE_INSTALL_LIBDIR",
                     "VEX_INSTALL_UNITDIR"):
            self.assertIn(f"{name} is empty", self.refusal(f"-D{name}="))

    def test_what_no_compiler_makes(self):
        gcc = ("-DCMAKE_C_COMPILER=gcc", "-DCMAKE_CXX_COMPILER=g++")
        self.assertIn("VEX_FUZZ wants clang", self.refusal("-DVEX_FUZZ=ON", *gcc))
        self.assertIn("VEX_COVERAGE wants clang", self.refusal("-DVEX_COVERAGE=ON", *gcc))
        self.assertIn("VEX_SANITIZE is foo", self.refusal("-DVEX_SANITIZE=foo"))
        self.assertIn("no build type Foo", self.refusal("-DCMAKE_BUILD_TYPE=Foo"))
        # Types are what whoever builds calls them.
        run("cmake", "-S", SOURCE, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Foo",
            "-DCMAKE_CXX_FLAGS_FOO=-O2")
        flags = [self.flags("-DCMAKE_BUILD_TYPE=" + name, CXXFLAGS="")[0] for name in ("Release", "release")]
        self.assertEqual(*flags)

    def test_a_build_among_the_sources(self):
        source = self.work + "/source"
        os.mkdir(source)
        shutil.copy(SOURCE + "/CMakeLists.txt", source)
        self.assertIn("in a directory of its own", " ".join(run("cmake", ".", cwd=source, status=1).split()))

    def flags(self, *options, **environment):
        """What one source is compiled with, and what one program is linked with."""
        shutil.rmtree(self.build, ignore_errors=True)
        run("cmake", "-S", SOURCE, "-B", self.build, "-G", "Ninja", *options, **environment)
        ninja = self.read(self.build + "/build.ninja")
        return (re.search(r"agent\.cpp\.o:.*?FLAGS = ([^\n]*)", ninja, re.S).group(1).split(),
                re.search(r"build bin/vexhostd:.*?LINK_FLAGS = ([^\n]*)", ninja, re.S).group(1).split())

    # What a packager may give, and the part by which all flags about the same are known.
    THEIRS = {"-D_FORTIFY_SOURCE=1": "FORTIFY", "-fno-stack-protector": "stack-protector",
              "-fno-stack-clash-protection": "stack-clash", "-fcf-protection=none": "cf-protection",
              "-fstrict-aliasing": "strict-aliasing", "-fno-function-sections": "function-sections",
              "-fno-data-sections": "data-sections",
              "-ffile-prefix-map=/here=/there": "prefix-map"}
    LINKERS = {"-Wl,--no-as-needed": "as-needed", "-Wl,--no-gc-sections": "gc-sections",
               "-Wl,-z,norelro": "relro", "-Wl,-z,lazy": "-z,lazy"}

    def assert_they_stand(self, flags, theirs):
        for flag, about in theirs.items():
            self.assertEqual([each for each in flags if about in each], [flag])

    def test_flags_from_outside_stand(self):
        theirs, linkers = " ".join(self.THEIRS), " ".join(self.LINKERS)
        for options, environment in (
                ([], {"CXXFLAGS": "-O1 " + theirs, "LDFLAGS": linkers}),
                (["-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 " + theirs,
                  "-DCMAKE_EXE_LINKER_FLAGS_RELEASE=" + linkers], {})):
            with self.subTest(options):
                flags, linked = self.flags(*options, **environment)
                self.assert_they_stand(flags, self.THEIRS)
                self.assert_they_stand(linked, self.LINKERS)
                self.assertNotIn("-Wl,-z,now", linked)
                self.assertNotIn("-Werror", flags)

    def test_and_are_ours_where_nothing_is_given(self):
        # Those of the other language are no word about this one.
        flags, linked = self.flags(CFLAGS=" ".join(self.THEIRS), CXXFLAGS="", LDFLAGS="")
        for flag in ("-fno-strict-aliasing", "-ffunction-sections", "-fstack-protector-strong",
                     "-fstack-clash-protection", f"-ffile-prefix-map={SOURCE}=."):
            self.assertIn(flag, flags)
        for flag in ("-Wl,--as-needed", "-Wl,--gc-sections", "-Wl,-z,relro", "-Wl,-z,now"):
            self.assertIn(flag, linked)
        flags, _ = self.flags("-DVEX_PREFIX_MAP=OFF", CXXFLAGS="")
        self.assertEqual([flag for flag in flags if "prefix-map" in flag], [])


if __name__ == "__main__":
    if "VEX_INSTALL_ALONE" not in os.environ:
        # In a mount namespace of its own.
        os.environ["VEX_INSTALL_ALONE"] = "1"
        os.execvp("unshare", ["unshare", "--mount", sys.executable, *sys.argv])
    BUILD = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
