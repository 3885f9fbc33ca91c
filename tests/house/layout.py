"""Looks whether lib/internal/abi.cc asserts the layout of every public record, compiles it and the modules for a 32-bit
target, so that the assertions are checked, and looks where the `registered` bit of struct evloop_io lies in an object file of that
target."""

import argparse
import pathlib
import re

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--tools", required=True, help="prefix of the compiler's name; empty for this machine's")
parser.add_argument("--only-bit", action="store_true", help="only look for the bit")
parser.add_argument("--scratch", required=True)
arguments = parser.parse_args()

tree = pathlib.Path(arguments.tree)
scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
compile_cxx = [f"{arguments.tools}g++", "-std=c++20", "-fno-exceptions", "-fno-rtti", "-O2", "-D_FILE_OFFSET_BITS=64"]
# This machine's C library must not be found for the target: of its headers only these. The message bus has the
# same records everywhere.
others = scratch / "include"
others.mkdir()
for header in ("jansson.h", "jansson_config.h", "libnftnl", "libmnl", "mbedtls"):
    (others / header).symlink_to(f"/usr/include/{header}")
compile_cxx += [f"-isystem{others}", f"-isystem{tree}/standin/include"]
compile_cxx += ["-Wall", "-Wextra", "-Werror", f"-I{tree}", "-c", "-o", scratch / "module.o"]


def members(body):
    """The names that a record's body declares, without bits, which have no offset."""
    for declaration in re.sub(r"/\*.*?\*/", "", body, flags=re.DOTALL).split(";"):
        function = re.search(r"\(\*(\w+)\)\(", declaration)
        if function:
            yield function[1]
        elif declaration.strip() and ":" not in declaration:
            for each in declaration.split(","):
                yield re.search(r"(\w+)(\[\w+\])?$", each.strip())[1]


def check_completeness():
    """The size of every public record is asserted, and the place of every member but the first."""
    assertions = (tree / "lib/internal/abi.cc").read_text()
    sized = set(re.findall(r"^LAYOUT_SIZE\((\w+), \d+\);", assertions, re.MULTILINE))
    placed = set(re.findall(r"^LAYOUT_FIELD\((\w+), (\w+), \d+\);", assertions, re.MULTILINE))
    headers = "".join(header.read_text() for header in (tree / "lib").glob("*.h"))
    records = re.findall(r"^struct (\w+) \{\n(.*?)^\}", headers, re.MULTILINE | re.DOTALL)
    if not records:
        house.fail("the headers have no record")
    for record, body in records:
        if record not in sized:
            house.fail(f"no assertion pins the size of struct {record}")
        for member in list(members(body))[1:]:
            if (record, member) not in placed:
                house.fail(f"no assertion pins the place of {member} in struct {record}")


def check_asserts():
    """The assertions hold, and they are looked at: one that is false does not compile."""
    probe = scratch / "probe.cc"
    probe.write_text('#include "lib/internal/abi.cc"\nstatic_assert(abi_is_targets);\n')
    house.run([*compile_cxx, probe], "the layout of a 32-bit target is not what the assertions count on")
    for wrong in ("LAYOUT_SIZE(evloop_io, 13);", "LAYOUT_FIELD(evloop_io, fd, 8);"):
        probe.write_text(f'#include "lib/internal/abi.cc"\n{wrong}\n')
        if house.attempt([*compile_cxx, probe]).returncode == 0:
            house.fail(f"an assertion that is false compiles: {wrong}")

    modules = sorted([*(tree / "lib").glob("*.cc"), *(tree / "boards").glob("*.cc")])
    if not modules:
        house.fail("there is no module to compile")
    for module in modules:
        house.run([*compile_cxx, module], f"{module.name} does not compile for {arguments.tools}")


def check_bit():
    """In a constant with nothing but `registered` set, one byte is 0x80, behind `cb` and `fd`."""
    probe = scratch / "probe.c"
    probe.write_text(
        '#include "lib/evloop.h"\n'
        '__attribute__((section(".probe"))) const struct evloop_io probe = {.registered = 1};\n'
        '__attribute__((section(".width"))) const char width = sizeof(void *);\n'
    )
    assembled = scratch / "probe.o"
    house.run(
        [f"{arguments.tools}gcc", "-std=c11", f"-I{tree}", "-c", "-o", assembled, probe], "the probe does not compile"
    )

    def section(name):
        raw = scratch / "section"
        command = [f"{arguments.tools}objcopy", "-O", "binary", f"--only-section={name}"]
        command += [f"--set-section-flags={name}=alloc", assembled, raw]
        house.run(command, "objcopy fails")
        return raw.read_bytes()

    width = section(".width")[0]
    if arguments.tools and width != 4:
        house.fail(f"{arguments.tools}gcc is not for a 32-bit target")
    place = width + 4
    record = section(".probe")
    expected = bytearray(len(record))
    expected[place] = 0x80
    if record != expected:
        house.fail(f"with only `registered` set, struct evloop_io reads {record.hex(' ')}, not {expected.hex(' ')}")


if not arguments.only_bit:
    check_completeness()
    check_asserts()
check_bit()
