"""Reads from the built library what it needs at run time and how it is protected."""

import argparse
import re

import house

parser = argparse.ArgumentParser()
parser.add_argument("--readelf", required=True)
parser.add_argument("--nm", required=True)
parser.add_argument("--library", dest="shared_object", required=True)
parser.add_argument("--soname", required=True)
parser.add_argument("--others", nargs="*", default=[], help="the other libraries that it needs, without .so")
parser.add_argument("--bus-folder", help="where the stand-in of the message bus lies, if it is used")
parser.add_argument("--fortified", action="store_true", help="an optimised build")
arguments = parser.parse_args()


def readelf(option):
    return house.run([arguments.readelf, "-W", option, arguments.shared_object], "the library cannot be read")


problems = []


def check(holds, problem):
    if not holds:
        problems.append(problem)


dynamic = readelf("--dynamic")
# The dynamic linker is part of libc; some targets name it for the stack protector's sake.
needed = {re.sub(r"\.so.*", "", name) for name in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)}
needed = {name for name in needed if not re.fullmatch(r"ld-linux.*|ld", name)}
expected = {"libc", *arguments.others}
check(not expected - needed, f"it does not need {', '.join(sorted(expected - needed))}")
check(not needed - expected, f"it needs {', '.join(sorted(needed - expected))}")
soname = re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)
check(soname == [arguments.soname], f"its soname is {soname}, not {arguments.soname}")
check("BIND_NOW" in dynamic or re.search(r"FLAGS_1\).*\bNOW\b", dynamic), "symbols are bound lazily (no BIND_NOW)")
check("TEXTREL" not in dynamic, "its code is changed when it is loaded (TEXTREL)")
folders = re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", dynamic)
allowed = [arguments.bus_folder] if arguments.bus_folder else []
# CMake keeps room for another path of the same length.
check([folder.rstrip(":") for folder in folders] == allowed, f"it names folders to find libraries in (RPATH): {folders}")

segments = readelf("--segments")
check("GNU_RELRO" in segments, "there is no GNU_RELRO segment")
stack = re.search(r"GNU_STACK\s+(?:0x\w+\s+){5}([RWE ]+?)\s+0x", segments)
check(stack and "E" not in stack[1], "the stack is executable")
for flags in re.findall(r"LOAD\s+(?:0x\w+\s+){5}([RWE ]+?)\s+0x", segments):
    check(not ("W" in flags and "E" in flags), "a segment is writable and executable")

# One entry is the C run-time's own, and one installs the board; a third would be a C++ constructor.
entry_bytes = 8 if "ELF64" in readelf("--file-header") else 4
start_up = re.search(r"\(INIT_ARRAYSZ\)\s+(\d+)", dynamic)
check(start_up and int(start_up[1]) <= 2 * entry_bytes, "a C++ constructor runs when the library is loaded")

undefined = house.run(
    [arguments.nm, "-D", "--undefined-only", "--without-symbol-versions", arguments.shared_object],
    "the library's symbols cannot be read",
)
undefined = set(re.findall(r"\S+$", undefined, flags=re.MULTILINE))
check(undefined & {"__stack_chk_fail", "__stack_chk_guard"}, "functions are built without the stack protector")
if arguments.fortified:
    fortified = {name for name in undefined if re.fullmatch(r"__\w+_chk", name)}
    check(fortified, "no call is fortified (_FORTIFY_SOURCE)")
    plain = undefined & {"printf", "fprintf", "vfprintf", "sprintf", "snprintf", "vsnprintf", "vasprintf", "syslog", "vsyslog"}
    check(not plain, f"{', '.join(sorted(plain))} is called without _FORTIFY_SOURCE's check")

if problems:
    house.fail(f"{arguments.shared_object}: {'; '.join(problems)}")
