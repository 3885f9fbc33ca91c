"""scripts/bus, in a copy of the tree, where it cannot do its work: it ends with one line that says why."""

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

# What scripts/bus would install.
PACKAGES = ("ca-certificates", "cmake", "gcc", "git", "libc6-dev", "libjson-c-dev", "ninja-build", "pkg-config")
for package in PACKAGES:
    if subprocess.run(["dpkg-query", "-W", package], capture_output=True, check=False).returncode != 0:
        print(f"skipped: {package} is not installed, which scripts/bus would do")
        sys.exit(77)

scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
shutil.copytree(pathlib.Path(arguments.tree, "scripts"), scratch / "scripts")
archives = scratch / "archives"
archives.mkdir()


def check_ends(expected, *options, said="", upstream="", path=os.environ["PATH"]):
    environment = {**os.environ, "APBASE_UPSTREAM": str(upstream), "PATH": path}
    result = house.attempt([scratch / "scripts/bus", *options], env=environment)
    found = (result.returncode, result.stdout, result.stderr)
    expected = (1, said, f"scripts/bus: {expected}\n")
    if found != expected:
        house.fail(f"scripts/bus {' '.join(options)}: {found}, not {expected}")
    if (scratch / "build/bus/host").exists():
        house.fail("scripts/bus calls complete what it has not built")


for options in ((), ("x86",), ("mipsel64",), ("",), ("host", "mips")):
    check_ends("which one? scripts/bus host, scripts/bus mipsel, or scripts/bus mips", *options)
for machine in ("mipsel", "mips"):
    check_ends(f"build/sysroot/{machine}, or json-c in it, is missing; run scripts/sysroot {machine}", machine)

archive = archives / "libubox-2026.02.13.tar.gz"
check_ends(f"there is no {archive} (APBASE_UPSTREAM names the folder of the archives)", "host", upstream=archives)
archive.write_text("no archive\n")
check_ends(f"{archive} does not unpack", "host", upstream=archives)

# No repository answers this git.
programs = scratch / "programs"
programs.mkdir()
(programs / "git").write_text('#!/bin/sh\ncase " $* " in *" fetch "*) echo unreachable >&2; exit 128 ;; esac\n')
(programs / "git").chmod(0o755)
repository = "https://git.openwrt.org/project/libubox.git"
log = scratch / "build/bus/work/host/git.log"
message = f"libubox cannot be fetched from {repository}; APBASE_UPSTREAM can name a folder that has {archive.name} "
message += f"(git's output: {log})"
said = f"==> Fetching libubox 2026.02.13 from {repository}\n"
check_ends(message, "host", said=said, path=f"{programs}:{os.environ['PATH']}")
if "unreachable" not in log.read_text():
    house.fail("scripts/bus does not keep what git says")
