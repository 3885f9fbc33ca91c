"""Builds and runs a small C program against the library, the way a daemon's author would."""

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


def use_pkg_config():
    environment["PKG_CONFIG_PATH"] = str(installed_library / "pkgconfig")
    flags = house.run(
        ["pkg-config", "--cflags", "--libs", "apbase"], "pkg-config does not find apbase", env=environment
    )
    program = scratch / "program"
    house.run(
        [arguments.c, "-std=c11", "-Wall", "-Wextra", "-Werror", "-o", program, source / "program.c"]
        + shlex.split(flags),
        "the program does not build with pkg-config's flags",
    )
    environment["LD_LIBRARY_PATH"] = str(installed_library)
    return program


def use_cmake(folder, *options):
    """Configures and builds the project in `folder` with CMake's defaults, without a build type."""
    build = scratch / "build"
    house.run(
        [arguments.cmake, "-S", folder, "-B", build, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *options],
        f"the {arguments.way} project does not configure",
        env=environment,
    )
    house.run([arguments.cmake, "--build", build], f"the {arguments.way} project does not build", env=environment)
    return build / "program"


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
    program = use_cmake(source / "add_subdirectory", f"-DAPBASE_TREE={arguments.tree}")
    build = program.parent
    # Nothing but the library, and what it is linked to here, may come along: no tests, no example, no warning
    # flags, nothing to install.
    tree = pathlib.Path(arguments.tree)
    expected = {tree / "lib", tree / "boards", tree / "host/libubox", tree / "host/libubus"}
    commands = json.loads((build / "compile_commands.json").read_text())
    for command in commands:
        name = command["file"]
        if "-Werror" in shlex.split(command["command"]):
            house.fail(f"{name} is compiled with -Werror inside another project")
        if name.endswith("program.c") and "-Wextra" in command["command"]:
            house.fail("the library's warning flags reach the project that uses it")
        if not name.endswith("program.c") and pathlib.Path(name).parent not in expected:
            house.fail(f"{name} is built inside another project")
    listed = house.run(["ctest", "--test-dir", build, "--show-only"], "ctest fails")
    if "Total Tests: 0" not in listed:
        house.fail("the library's tests are registered inside another project")
    house.run([arguments.cmake, "--install", build, "--prefix", scratch / "prefix"], "cmake --install fails")
    if any(path.is_file() for path in (scratch / "prefix").rglob("*")):
        house.fail("the library is installed by a project that only uses it")
    return program


program = {
    "pkg_config": use_pkg_config,
    "find_package": use_find_package,
    "add_subdirectory": use_add_subdirectory,
}[arguments.way]()
printed = house.run([program], "the program fails", env=environment)
if printed != "hello from a timeout\n":
    house.fail(f"the program printed {printed!r}")
shutil.rmtree(scratch)
