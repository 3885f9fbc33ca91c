"""The stand-in of the message bus builds and installs without the rest of the tree, and the rest builds without it: against
the libraries of that installation, or, where there are none, up to one line that says what is missing."""

import argparse
import json
import pathlib
import re
import shlex
import shutil

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
parser.add_argument("--cmake", required=True)
arguments = parser.parse_args()

tree = pathlib.Path(arguments.tree)
scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
prefix = scratch / "bus"
library = scratch / "tree"

# Nothing is found but what this test names, even where the system has a bus.
NO_BUS = [f"-DAPBASE_{name}=" for name in ("UBUS_LIBRARY", "UBOX_LIBRARY", "UBUS_INCLUDE_DIR", "UBOX_INCLUDE_DIR")]


def configure(source, build, *options):
    command = [arguments.cmake, "-G", "Ninja", "-S", source, "-B", build, "-DCMAKE_BUILD_TYPE=Debug", *options]
    return house.attempt([*command, "-DAPBASE_TESTS=OFF", "-DAPBASE_EXAMPLES=OFF", "-DSTANDIN_TESTS=OFF"])


def build_alone(source, build, *options):
    result = configure(source, build, *options)
    if result.returncode != 0:
        print(result.stdout, result.stderr)
        house.fail(f"{source} cannot be configured alone")
    house.run([arguments.cmake, "--build", build], f"{source} does not build alone")


def check_refused(expected, *options):
    result = configure(library, scratch / "refused", *NO_BUS, *options)
    said = [" ".join(paragraph.split()) for paragraph in result.stderr.split("\n\n")]
    error = re.match(r"CMake Error at \S+ \(message\): (.*?)( Call Stack.*)?$", said[0])
    if result.returncode == 0 or not error or error[1] != expected:
        house.fail(f"cmake does not refuse it with '{expected}': status {result.returncode}, {said}")
    shutil.rmtree(scratch / "refused")


shutil.copytree(tree / "standin", scratch / "standin", ignore=shutil.ignore_patterns("tests"))
build_alone(scratch / "standin", scratch / "standin_build")
house.run([arguments.cmake, "--install", scratch / "standin_build", "--prefix", prefix], "it does not install alone")
version = house.run([prefix / "bin/ubus", "--version"], "the installed command does not start")
if not re.fullmatch(r"ubus \d+\.\d+\.\d+\n", version):
    house.fail(f"the installed command says {version!r}")

library.mkdir()
for name in ("CMakeLists.txt", "cmake", "lib", "boards"):
    (shutil.copytree if (tree / name).is_dir() else shutil.copy)(tree / name, library / name)
missing = "apbase: libubox and libubus are not installed here, and there is no standin/ to build in their place"
check_refused(missing)
check_refused(missing, "-DAPBASE_BUS=system")
check_refused(missing, "-DAPBASE_BUS=standin")

build_alone(library, scratch / "build", f"-DCMAKE_PREFIX_PATH={prefix}", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
commands = json.loads((scratch / "build/compile_commands.json").read_text())
if not any(str(prefix / "include") in shlex.split(command["command"]) for command in commands):
    house.fail("the library is built with another bus than the one that was named")
linked = house.run(["ldd", scratch / "build/libapbase.so"], "the library cannot be read")
for name in ("libubox.so", "libubus.so"):
    if not re.search(rf"{name} => {re.escape(str(prefix))}/lib\S*/{name} ", linked):
        house.fail(f"the library does not find {name} in {prefix}")
shutil.rmtree(scratch)
