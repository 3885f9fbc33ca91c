"""lib/ itself must be on no include path: lib/time.h would hide the system header there."""

import argparse
import json
import os
import pathlib
import shlex

import house

parser = argparse.ArgumentParser()
parser.add_argument("--build", required=True)
parser.add_argument("--prefix", required=True)
parser.add_argument("--libdir", required=True)
arguments = parser.parse_args()

commands = json.loads(pathlib.Path(arguments.build, "compile_commands.json").read_text())
flags = [flag for command in commands for flag in shlex.split(command["command"])]
if len(commands) < 5 or not any(flag.startswith("-I") for flag in flags):
    house.fail("compile_commands.json does not look like this build's")
house_pc = pathlib.Path(arguments.prefix, arguments.libdir, "pkgconfig")
flags += shlex.split(
    house.run(
        ["pkg-config", "--cflags", "apbase"],
        "pkg-config does not find apbase",
        env={**os.environ, "PKG_CONFIG_PATH": str(house_pc)},
    )
)
for flag, following in zip(flags, [*flags[1:], ""]):
    if flag in ("-I", "-isystem", "-iquote", "-idirafter"):
        folder = following
    elif flag.startswith("-I"):
        folder = flag[2:]
    else:
        continue
    if os.path.exists(os.path.join(folder, "evloop.h")):
        house.fail(f"the folder of the public headers is on an include path: {flag} {following}")
