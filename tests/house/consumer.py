"""Builds and runs a small program and a daemon on the message bus, in C, the way their author would."""

import argparse
import json
import os
import pathlib
import shlex
import shutil

import house

parser = argparse.ArgumentParser()
parser.add_argument("--way", choices=["pkg_config", "find_package", "add_subdirectory"], required=True)
parser.add_argument("--source", required=True)
parser.add_argument("--tree", required=True)
parser.add_argument("--prefix", required=True)
parser.add_argument("--libdir", required=True)
parser.add_argument("--scratch", required=True)
parser.add_argument("--cmake", required=True)
parser.add_argument("--c", required=True)
arguments = parser.parse_args()

scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
source = pathlib.Path(arguments.source)
installed_library = pathlib.Path(arguments.prefix, arguments.libdir)
environment = {**os.environ, "CC": arguments.c, "CMAKE_GENERATOR": "Ninja"}


def compile_with_pkg_config(name, *packages):
    flags = house.run(
        ["pkg-config", "--cflags", "--libs", *packages], f"pkg-config does not find {packages}", env=environment
    )
    house.run(
        [arguments.c, "-std=c11", "-Wall", "-Wextra", "-Werror", "-o", scratch / name, source / f"{name}.c"]
        + shlex.split(flags),
        f"the {name} does not build with pkg-config's flags",
    )


def use_pkg_config():
    """Returns the folder of the programs, like the functions for the other ways."""
    environment["PKG_CONFIG_PATH"] = str(installed_library / "pkgconfig")
    compile_with_pkg_config("program", "apbase")
    compile_with_pkg_config("daemon", "apbase", "apbase-bus", "jansson")
    environment["LD_LIBRARY_PATH"] = str(installed_library)
    return scratch


def use_cmake(folder, *options):
    """Configures and builds the project in `folder` with CMake's defaults, without a build type."""
    build = scratch / "build"
    house.run(
        [arguments.cmake, "-S", folder, "-B", build, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *options],
        f"the {arguments.way} project does not configure",
        env=environment,
    )
    house.run([arguments.cmake, "--build", build], f"the {arguments.way} project does not build", env=environment)
    return build


def use_find_package():
    where = f"-DCMAKE_PREFIX_PATH={arguments.prefix}"
    for wanted in ("2.0", "0.9"):
        result = house.attempt(
            [arguments.cmake, "-S", source / "find_package", "-B", scratch / "refused", where, f"-DWANTED={wanted}"],
            env=environment,
        )
        if result.returncode == 0 or "version" not in result.stderr:
            house.fail(f"find_package(apbase {wanted}) takes version 1")
    return use_cmake(source / "find_package", where, "-DWANTED=1.0")


def use_add_subdirectory():
    build = use_cmake(source / "add_subdirectory", f"-DAPBASE_TREE={arguments.tree}")
    # Nothing but the library, and what it is linked to here, may come along: no tests, no example, no warning
    # flags, nothing to install.
    tree = pathlib.Path(arguments.tree)
    expected = {tree / path for path in ("lib", "lib/internal", "boards", "standin/libubox", "standin/libubus")}
    commands = json.loads((build / "compile_commands.json").read_text())
    for command in commands:
        name = command["file"]
        if "-Werror" in shlex.split(command["command"]):
            house.fail(f"{name} is compiled with -Werror inside another project")
        own = pathlib.Path(name).parent == source
        if own and "-Wextra" in command["command"]:
            house.fail("the library's warning flags reach the project that uses it")
        if not own and pathlib.Path(name).parent not in expected:
            house.fail(f"{name} is built inside another project")
    listed = house.run(["ctest", "--test-dir", build, "--show-only"], "ctest fails")
    if "Total Tests: 0" not in listed:
        house.fail("the library's tests are registered inside another project")
    house.run([arguments.cmake, "--install", build, "--prefix", scratch / "prefix"], "cmake --install fails")
    if any(path.is_file() for path in (scratch / "prefix").rglob("*")):
        house.fail("the library is installed by a project that only uses it")
    return build


programs = {
    "pkg_config": use_pkg_config,
    "find_package": use_find_package,
    "add_subdirectory": use_add_subdirectory,
}[arguments.way]()
printed = house.run([programs / "program"], "the program fails", env=environment)
if printed != "hello from a timeout\n":
    house.fail(f"the program printed {printed!r}")
# It has to find its libraries to get there.
result = house.attempt([programs / "daemon", "/nonexistent/bus"], env=environment)
if result.returncode != 1 or result.stderr != "daemon: no bus\n":
    house.fail(f"the daemon ended with status {result.returncode} and said {result.stderr!r}")
shutil.rmtree(scratch)
