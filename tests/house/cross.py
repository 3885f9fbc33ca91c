"""A cross-build that lacks something says in one line what, and what to do. Nothing is built."""

import argparse
import pathlib
import re
import shutil

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
parser.add_argument("--cmake", required=True)
parser.add_argument("--without-emulator", action="store_true", help="look at only that, in this tree")
parser.add_argument("--toolchain", help="with it")
arguments = parser.parse_args()

tree = pathlib.Path(arguments.tree)
scratch = pathlib.Path(house.fresh_folder(arguments.scratch))


def check_refused(source, toolchain, expected, *options):
    command = [arguments.cmake, "-G", "Ninja", "-S", source, "-B", scratch / "build", *options]
    result = house.attempt([*command, f"-DCMAKE_TOOLCHAIN_FILE={toolchain}"])
    # What it calls an error is a paragraph: where that is, and the text, whose lines CMake may break.
    said = [" ".join(paragraph.split()) for paragraph in result.stderr.split("\n\n")]
    if result.returncode == 0 or not re.match(rf"CMake Error at [^ ]+ \(message\): {re.escape(expected)}", said[0]):
        house.fail(f"cmake does not refuse it with '{expected}': status {result.returncode}, {said}")


def check_in_a_copy():
    copy = scratch / "tree"
    shutil.copytree(tree / "cmake", copy / "cmake")
    (copy / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\nproject(probe LANGUAGES C CXX)\n")
    for target in ("mips", "mipsel"):
        missing = f"apbase: there is no complete {copy}/build/sysroot/{target}; run scripts/sysroot {target}"
        check_refused(copy, copy / f"cmake/{target}.cmake", missing)
        # As an interrupted run leaves it.
        (copy / f"build/sysroot/{target}/usr/lib").mkdir(parents=True)
        check_refused(copy, copy / f"cmake/{target}.cmake", missing)

    # A processor that nobody has a compiler for.
    (copy / "build/sysroot/abacus").mkdir()
    (copy / "build/sysroot/abacus/complete").touch()
    toolchain = copy / "cmake/abacus.cmake"
    toolchain.write_text("set(CMAKE_SYSTEM_PROCESSOR abacus)\ninclude(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)\n")
    missing = "apbase: there is no abacus-linux-gnu-gcc; install g++-abacus-linux-gnu"
    check_refused(copy, toolchain, missing)


def check_emulator():
    name = pathlib.Path(arguments.toolchain).stem
    missing = f"apbase: there is no qemu-{name} to run tests with; install qemu-user, or build without tests"
    check_refused(tree, arguments.toolchain, f"{missing} (-DAPBASE_TESTS=OFF)", "-DAPBASE_EMULATOR=OFF")


if arguments.without_emulator:
    check_emulator()
else:
    check_in_a_copy()
