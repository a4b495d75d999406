"""The packages once more, made from a copy of the tree in another folder, at another time, with another
umask, locale, time zone and home, and without a compiler's cache: they are the same bit for bit.

usage: reproducible_test.py SOURCE PACKAGES WORK
"""

import filecmp
import glob
import os
import shutil
import subprocess
import sys

SOURCE, PACKAGES, WORK = (os.path.abspath(path) for path in sys.argv[1:])


def main():
    shutil.rmtree(WORK, ignore_errors=True)
    tree = WORK + "/somewhere/else"
    os.makedirs(tree)
    os.umask(0o077)
    copy = subprocess.Popen(["tar", "-C", SOURCE, "-c", "--exclude=./.git", "--exclude=./build*",
                             "."], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-C", tree, "-x", "--touch"], stdin=copy.stdout, check=True)
    if copy.wait() != 0:
        raise SystemExit("the tree cannot be copied")
    environment = {**os.environ, "TZ": "Pacific/Kiritimati", "LANG": "C.UTF-8", "HOME": WORK,
                   "CCACHE_DISABLE": "1", "USER": "somebody",
                   "DEB_BUILD_OPTIONS": "parallel=1"}
    subprocess.run([tree + "/scripts/build-packages"], check=True, env=environment)
    made = tree + "/build/packages"
    names = sorted(os.path.basename(path) for path in glob.glob(PACKAGES + "/*.deb"))
    again = sorted(os.path.basename(path) for path in glob.glob(made + "/*.deb"))
    assert names == again and len(names) >= 3, (names, again)
    source = [os.path.basename(path) for path in glob.glob(PACKAGES + "/*.dsc")]
    different = [name for name in names + source
                 if not filecmp.cmp(f"{PACKAGES}/{name}", f"{made}/{name}", shallow=False)]
    assert not different, f"{different} differ; compare {PACKAGES} and {made}"
    print("the same:", *(names + source))
    shutil.rmtree(WORK)


main()
