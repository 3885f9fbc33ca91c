"""Compiles a program that is nothing but one #include, twice over; or sees it refused with one clear line."""

import argparse
import os
import shlex
import subprocess

import house

parser = argparse.ArgumentParser()
parser.add_argument("--c", required=True)
parser.add_argument("--cxx", required=True)
parser.add_argument("--language", choices=["c11", "c++20"], required=True)
parser.add_argument("--header", required=True, help="with its quotes or angle brackets")
parser.add_argument("--include", required=True)
parser.add_argument("--system-include", nargs="*", default=[], help="folders of other libraries' headers")
parser.add_argument("--define", nargs="*", default=[], help="macros")
parser.add_argument("--package", help="the folder of apbase.pc, whose flags are used too")
parser.add_argument("--refused", help="what the one error says")
arguments = parser.parse_args()

as_c = arguments.language == "c11"
command = [
    arguments.c if as_c else arguments.cxx,
    "-x",
    "c" if as_c else "c++",
    f"-std={arguments.language}",
    *("-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only"),
    f"-I{arguments.include}",
    *(f"-D{macro}" for macro in arguments.define),
    *(f"-isystem{folder}" for folder in arguments.system_include),
    "/dev/stdin",
]
if arguments.package:
    environment = {**os.environ, "PKG_CONFIG_PATH": arguments.package}
    flags = house.run(["pkg-config", "--cflags", "apbase"], "pkg-config does not find apbase", env=environment)
    command[-1:-1] = shlex.split(flags)
# The declaration at the end keeps -Wpedantic from finding the file empty if the header declares nothing.
program = f"#include {arguments.header}\n#include {arguments.header}\nextern int anything;\n"
if not as_c:
    program += "#if !__cplusplus\n#error not C++\n#endif\n"

result = subprocess.run(command, input=program, capture_output=True, text=True, check=False)
if arguments.refused:
    errors = [line for line in result.stderr.splitlines() if "error" in line and not line.startswith(" ")]
    if len(errors) != 1 or arguments.refused not in errors[0]:
        print(result.stderr)
        house.fail(f"{arguments.header} is not refused with one line that says {arguments.refused!r}")
elif result.returncode != 0:
    print(result.stderr)
    house.fail(f"{arguments.header} does not compile alone as {arguments.language}")
