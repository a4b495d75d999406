"""The packages once more: the source package from a copy of the tree with other times and modes, and
from that source package the others, by dpkg-buildpackage itself, in another folder, at another time,
with another umask, locale, time zone, home and number of processes, and without a compiler's cache.
They are the same bit for bit. Both are built with the same packages installed: where SUITE has a build
root (scripts/build-packages-in), in that; else on this machine. (Another kernel's headers alone change
a compiler's debugging information: how often it collects garbage shows in its location lists.)

usage: reproducible_test.py SOURCE PACKAGES WORK [SUITE]
"""

import filecmp
import glob
import os
import shutil
import subprocess
import sys

SOURCE, PACKAGES, WORK = (os.path.abspath(path) for path in sys.argv[1:4])
SUITE = sys.argv[4] if len(sys.argv) > 4 else None
# Its letters are sorted and changed to capitals otherwise than anywhere else.
LOCALE = "tr_TR.UTF-8"


def names(directory, *kinds):
    return sorted(os.path.basename(path) for kind in kinds
                  for path in glob.glob(f"{directory}/*{kind}"))


def different(made, *kinds):
    """Those of the packages that are not the same there."""
    here, there = names(PACKAGES, *kinds), names(made, *kinds)
    assert here == there and len(here) >= len(kinds), (here, there)
    print("compared:", *here, flush=True)
    return [name for name in here
            if not filecmp.cmp(f"{PACKAGES}/{name}", f"{made}/{name}", shallow=False)]


def main():
    shutil.rmtree(WORK, ignore_errors=True)
    tree = WORK + "/somewhere/else"
    os.makedirs(tree)
    os.umask(0o077)
    environment = {**os.environ, "TZ": "Pacific/Kiritimati", "HOME": WORK, "USER": "somebody",
                   "CCACHE_DISABLE": "1"}

    copy = subprocess.Popen(["tar", "-C", SOURCE, "-c", "--exclude=./.git", "--exclude=./build*",
                             "."], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-C", tree, "-x", "--touch"], stdin=copy.stdout, check=True)
    if copy.wait() != 0:
        raise SystemExit("the tree cannot be copied")
    subprocess.run([tree + "/scripts/build-packages", "--build=source"], check=True, env=environment)
    bad = different(tree + "/build/packages", ".dsc", ".tar.xz")

    locales = WORK + "/locales"
    os.mkdir(locales)
    subprocess.run(["localedef", "-i", "tr_TR", "-f", "UTF-8", f"{locales}/{LOCALE}"], check=True)
    environment |= {"LOCPATH": locales, "LC_ALL": LOCALE, "LANGUAGE": "tr",
                    "DEB_BUILD_OPTIONS": "nocheck parallel=1", "DEB_BUILD_PROFILES": "nocheck"}
    month = subprocess.run(["date", "--date=2026-01-01", "+%B"], stdout=subprocess.PIPE, text=True,
                           check=True, env=environment).stdout
    assert month == "Ocak\n", f"the locale is not in use: {month}"
    unpacked = WORK + "/unpacked/here"
    os.mkdir(WORK + "/unpacked")
    [dsc] = glob.glob(PACKAGES + "/*.dsc")
    subprocess.run(["dpkg-source", "-x", dsc, unpacked], check=True, stdout=subprocess.DEVNULL)
    with open(WORK + "/log", "w", encoding="utf-8") as log:
        build = ["dpkg-buildpackage", "--no-sign", "--build=binary"]
        if SUITE:
            # What is this directory here is /packages there.
            settings = [f"{name}={value.replace(WORK, '/packages')}"
                        for name, value in environment.items() if value != os.environ.get(name)]
            build = [f"{SOURCE}/scripts/build-packages-in", SUITE, WORK, "env",
                     "--chdir=/packages" + unpacked.removeprefix(WORK), *settings, *build]
        subprocess.run(build, check=True, cwd=unpacked, env=None if SUITE else environment,
                       stdout=log, stderr=log)
    assert len(names(PACKAGES, ".deb")) >= 3
    bad += different(os.path.dirname(unpacked), ".deb")
    assert not bad, f"{bad} differ; compare {PACKAGES} and {WORK}"
    shutil.rmtree(WORK)


main()
