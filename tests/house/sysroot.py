"""scripts/sysroot, in a copy of the tree, where it cannot do its work: it ends with one line that says why."""

import argparse
import pathlib
import shutil
import subprocess
import sys

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
arguments = parser.parse_args()

scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
shutil.copytree(pathlib.Path(arguments.tree, "scripts"), scratch / "scripts")


def check_ends(expected, *options, command=(), said=""):
    result = house.attempt([*command, scratch / "scripts/sysroot", *options])
    found = (result.returncode, result.stdout, result.stderr)
    expected = (1, said, f"scripts/sysroot: {expected}\n")
    if found != expected:
        house.fail(f"scripts/sysroot {' '.join(options)}: {found}, not {expected}")


for options in ((), ("x86",), ("mipsel64",), ("",), ("mips", "mipsel")):
    check_ends("which one? scripts/sysroot mipsel, or scripts/sysroot mips", *options)
if (scratch / "build").exists():
    house.fail("scripts/sysroot has begun though it was not told what to make")

# Without a network it must not come so far as to install something.
for target, what in (("mipsel", "packages of mipsel"), ("mips", "lists of source packages")):
    for package in ("cmake", "make", "ninja-build", "pkg-config", "dpkg-dev", f"g++-{target}-linux-gnu"):
        if subprocess.run(["dpkg-query", "-W", package], capture_output=True, check=False).returncode != 0:
            print(f"skipped: {package} is not installed, which scripts/sysroot would do")
            sys.exit(77)
    log = scratch / f"build/sysroot/apt/{target}/log"
    message = f"no list of Debian's packages could be fetched: is the network there? (apt's output: {log})"
    said = f"==> Fetching {what} from Debian\n"
    check_ends(message, target, command=("unshare", "--net"), said=said)
    if (scratch / f"build/sysroot/{target}/complete").exists():
        house.fail(f"without a network, build/sysroot/{target} is called complete")
