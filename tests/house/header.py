"""Compiles a program that is nothing but one #include, twice over."""

import argparse
import subprocess

import house

parser = argparse.ArgumentParser()
parser.add_argument("--c", required=True)
parser.add_argument("--cxx", required=True)
parser.add_argument("--language", choices=["c11", "c++20"], required=True)
parser.add_argument("--header", required=True, help="with its quotes or angle brackets")
parser.add_argument("--include", required=True)
parser.add_argument("--system-include", nargs="*", default=[], help="folders of other libraries' headers")
arguments = parser.parse_args()

as_c = arguments.language == "c11"
command = [
    arguments.c if as_c else arguments.cxx,
    "-x",
    "c" if as_c else "c++",
    f"-std={arguments.language}",
    *("-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only"),
    f"-I{arguments.include}",
    *(f"-isystem{folder}" for folder in arguments.system_include),
    "/dev/stdin",
]
# The declaration behind keeps -Wpedantic from finding the file empty if the header declares nothing.
program = f"#include {arguments.header}\n#include {arguments.header}\nextern int anything;\n"
if not as_c:
    program += "#if !__cplusplus\n#error not C++\n#endif\n"

result = subprocess.run(command, input=program, capture_output=True, text=True, check=False)
if result.returncode != 0:
    print(result.stderr)
    house.fail(f"{arguments.header} does not compile alone as {arguments.language}")
