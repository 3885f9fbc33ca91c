"""Builds the tree with the default options by one compiler and as one build type; a warning fails the test.

With --tests the test programs are compiled, too, as far as it takes to find their warnings.
"""

import argparse
import json
import os
import shlex

import house

COMPILERS = {"gcc": ("gcc", "g++"), "clang": ("clang-14", "clang++-14")}

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
parser.add_argument("--cmake", required=True)
parser.add_argument("--compiler", choices=COMPILERS, required=True)
parser.add_argument("--type", required=True)
parser.add_argument("--bus", required=True, help="as APBASE_BUS")
parser.add_argument("--tests", action="store_true", help="compile the test programs, and nothing else")
arguments = parser.parse_args()

what = f"{arguments.compiler} as {arguments.type}"
c, cxx = COMPILERS[arguments.compiler]
build = house.fresh_folder(arguments.scratch)
house.run(
    [
        *(arguments.cmake, "-S", arguments.tree, "-B", build, "-G", "Ninja"),
        *(f"-DCMAKE_C_COMPILER={c}", f"-DCMAKE_CXX_COMPILER={cxx}", f"-DCMAKE_BUILD_TYPE={arguments.type}"),
        *(f"-DAPBASE_BUS={arguments.bus}", f"-DAPBASE_TESTS={'ON' if arguments.tests else 'OFF'}"),
    ],
    f"{what} cannot be configured",
)
if arguments.tests:
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        commands = json.load(file)
    folders = tuple(os.path.join(arguments.tree, folder) for folder in ("tests/", "standin/tests/"))
    sources = [each for each in commands if each["file"].startswith(folders)]
    headers = [each for each in commands if os.path.basename(each["file"]).startswith("cmake_pch")]
    if not sources:
        house.fail("there are no tests to compile")
    for each in headers:
        house.run(shlex.split(each["command"]), f"the headers do not compile by {what}", cwd=each["directory"])
    for each in sources:
        house.run(
            [*shlex.split(each["command"]), "-fsyntax-only"],
            f"{os.path.relpath(each['file'], arguments.tree)} does not compile by {what}",
            cwd=each["directory"],
        )
else:
    output = house.run([arguments.cmake, "--build", build, "--parallel", "1"], f"{what} does not build")
    if "warning:" in output: # of a tool that takes no -Werror, such as the linker
        print(output)
        house.fail(f"{what} builds with a warning")
