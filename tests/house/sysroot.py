"""scripts/sysroot, in a copy of the tree, where it cannot do its work: it ends with one line that says why."""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
arguments = parser.parse_args()

# What scripts/sysroot would install.
PACKAGES = ("autoconf", "automake", "cmake", "dpkg-dev", "libtool", "make", "ninja-build", "pkg-config")

scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
shutil.copytree(pathlib.Path(arguments.tree, "scripts"), scratch / "scripts")


def check_ends(expected, *options, command=(), said="", upstream="", path=os.environ["PATH"]):
    environment = {**os.environ, "APBASE_UPSTREAM": str(upstream), "PATH": path}
    result = house.attempt([*command, scratch / "scripts/sysroot", *options], env=environment)
    found = (result.returncode, result.stdout, result.stderr)
    expected = (1, said, f"scripts/sysroot: {expected}\n")
    if found != expected:
        house.fail(f"scripts/sysroot {' '.join(options)}: {found}, not {expected}")


for options in ((), ("x86",), ("mipsel64",), ("",), ("mips", "mipsel")):
    check_ends("which one? scripts/sysroot mipsel, or scripts/sysroot mips", *options)
missing = scratch / "archives"
check_ends(f"there is no folder {missing}, which APBASE_UPSTREAM names", "mips", upstream=missing)
if (scratch / "build").exists():
    house.fail("scripts/sysroot has begun though it was not told what to make")

# Without a network it must not come so far as to install something.
for target, what in (("mipsel", "packages of mipsel"), ("mips", "lists of source packages")):
    for package in (*PACKAGES, f"g++-{target}-linux-gnu"):
        if subprocess.run(["dpkg-query", "-W", package], capture_output=True, check=False).returncode != 0:
            print(f"skipped: {package} is not installed, which scripts/sysroot would do")
            sys.exit(77)
    log = scratch / f"build/sysroot/apt/{target}/log"
    message = f"no list of Debian's packages could be fetched: is the network there? (apt's output: {log})"
    said = f"==> Fetching {what} from Debian\n"
    check_ends(message, target, command=("unshare", "--net"), said=said)
    if (scratch / f"build/sysroot/{target}/complete").exists():
        house.fail(f"without a network, build/sysroot/{target} is called complete")

# Archives of sources are taken before Debian is asked, the latest of each name.
archives = scratch / "archives"
archives.mkdir()
for name in ("jansson-2.9.tar.gz", "jansson-2.14.tar.gz", "jansson-doc-3.tar.gz"):
    (archives / name).write_text("no archive\n")
check_ends(f"{archives}/jansson-2.14.tar.gz does not unpack", "mips", upstream=archives)

# What neither has, nothing takes the place of. This apt-get has lists of packages, and nothing that is in them.
programs = scratch / "programs"
programs.mkdir()
(programs / "apt-get").write_text("""#!/bin/sh
[ "$4" = update ] || { echo "E: Failed to fetch it: 404  Not Found"; exit 100; }
touch "${3%/*}/lists/probe_dists_probe"
""")
(programs / "apt-get").chmod(0o755)
log = scratch / "build/sysroot/apt/mips/log"
wanted = "APBASE_UPSTREAM can name a folder that has jansson-<version>.tar.gz"
message = f"Debian does not serve the source of jansson (apt's output: {log}); {wanted}"
path = f"{programs}:{os.environ['PATH']}"
check_ends(message, "mips", said="==> Fetching lists of source packages from Debian\n", path=path)
if (scratch / "build/sysroot/mips/complete").exists():
    house.fail("without sources, build/sysroot/mips is called complete")
