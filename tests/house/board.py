"""What scripts/board says when it cannot go on: one line that names what is wrong, and what a hung boot showed."""

import argparse
import fcntl
import os
import shlex
import shutil
import sys

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True, help="a folder of this test's own")
parser.add_argument("--case", required=True)
arguments = parser.parse_args()

sys.path.insert(0, f"{arguments.tree}/scripts/emulated")
import machine  # noqa: E402

programs = f"{arguments.scratch}/programs"


def put_program(name, script):
    """A program found before the machine's own."""
    path = f"{programs}/{name}"
    with open(path, "w") as file:
        file.write(f"#!/bin/sh\n{script}\n")
    os.chmod(path, 0o755)
    return path


def expect_one_line(command, status, *words, path, console=()):
    """The command fails with that status, and one line on standard error has all of the words. No other line
    follows but the console's last ones, which are told as such."""
    result = house.attempt(command, env={"PATH": path, "LC_ALL": "C"})
    lines = result.stderr.splitlines()
    followed = ["    The last lines of its console:", *(f"      {line}" for line in console)] if console else []
    if result.returncode != status or lines[1:] != followed or not lines[0].startswith("scripts/board: "):
        house.fail(f"status {result.returncode} and {lines} of {command}")
    for word in words:
        if word not in lines[0]:
            house.fail(f"'{word}' is missing in: {lines[0]}")
    return result.stdout


def refuses_unknown_arguments():
    for words in (["--nonsense"], ["story"], [""], ["--shell", "--nonsense"], ["--shell", "now"]):
        command = [f"{arguments.tree}/scripts/board", *words]
        if expect_one_line(command, 2, f"'{words[-1]}'", "scripts/board --help", path=os.environ["PATH"]):
            house.fail(f"something else is said about {words}")


def names_a_missing_emulator():
    for script in ("story.py", "shell.py"):
        command = [sys.executable, "-B", f"{arguments.tree}/scripts/emulated/{script}", arguments.scratch]
        expect_one_line(command, 1, machine.EMULATOR, "install Debian's package qemu-system-mips", path=programs)


def names_a_missing_kernel():
    put_program(machine.EMULATOR, "exit 1")
    for script in ("story.py", "shell.py"):
        command = [sys.executable, "-B", f"{arguments.tree}/scripts/emulated/{script}", arguments.scratch]
        expect_one_line(command, 1, f"{arguments.scratch}/kernel", "run scripts/board", path=programs)


def names_a_missing_terminal():
    command = [f"{arguments.tree}/scripts/board", "--shell"]
    if expect_one_line(command, 1, "--shell needs a terminal", path=os.environ["PATH"]):
        house.fail("it has begun all the same")


def copied_scripts():
    """In a tree that has nothing yet."""
    tree = f"{arguments.scratch}/tree"
    shutil.copytree(f"{arguments.tree}/scripts", f"{tree}/scripts")
    return tree


def names_another_run():
    tree = copied_scripts()
    os.makedirs(f"{tree}/build/board")
    with open(f"{tree}/build/board/lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        command = [f"{tree}/scripts/board"]
        if expect_one_line(command, 1, "another run is using build/board", path=os.environ["PATH"]):
            house.fail("it has begun all the same")


def names_a_lost_network():
    put_program("dpkg-query", "echo installed")
    put_program("apt-get", "exit 100")
    tree = copied_scripts()
    path = f"{programs}:{os.environ['PATH']}"
    said = expect_one_line([f"{tree}/scripts/board"], 1, "is the network there?", path=path)
    if "Fetching" not in said:
        house.fail(f"not shown what is being done, but: {said}")


def names_a_missing_kernel_package():
    """On a machine whose apt knows other packages only."""
    put_program("dpkg-query", "echo installed")
    put_program("apt-cache", "echo 'E: No packages found' >&2; exit 100")
    tree = copied_scripts()
    put_program("apt-get", f": >{shlex.quote(tree)}/build/board/apt/lists/some_dists_list")
    path = f"{programs}:{os.environ['PATH']}"
    expect_one_line([f"{tree}/scripts/board"], 1, "linux-image-4kc-malta", "source", path=path)


def boot(script, patience_s):
    """Boots an emulator that has said its last words; what is wrong then."""
    emulator = put_program(machine.EMULATOR, f"seq 100; echo last words; {script}")
    with machine.Machine([emulator], f"{arguments.scratch}/log") as board:
        board.wait_for("last words\n", "say them")
        machine.PATIENCE_S = patience_s
        try:
            board.boot()
        except machine.Fault as fault:
            return str(fault)
    house.fail("it comes up")


def expect_last_lines(fault, *words):
    first, heading, *lines = fault.split("\n")
    for word in words:
        if word not in first:
            house.fail(f"'{word}' is missing in: {first}")
    expected = [str(number) for number in range(82, 101)] + ["last words"]
    if "last lines of its console" not in heading or [line.strip() for line in lines] != expected:
        house.fail(f"the last lines are shown as {[heading, *lines]}")


def ends_a_boot_that_hangs_and_shows_its_last_lines():
    fault = boot("exec sleep infinity", 0.1)
    expect_last_lines(fault, "it did not come to a shell's prompt within 0.1 s, and was ended")


def shows_the_last_lines_of_a_machine_that_ends():
    expect_last_lines(boot("exit 0", machine.PATIENCE_S), "ended by itself", "come to a shell's prompt")


def shows_the_last_lines_of_a_machine_that_no_longer_hears_what_is_typed():
    for name in ("kernel", "first.cpio.gz", "root.squashfs"):
        open(f"{arguments.scratch}/{name}", "w").close()
    put_program(machine.EMULATOR, "exec <&-; printf 'x\\n~ # \\n'; exit 0")
    command = [sys.executable, "-B", f"{arguments.tree}/scripts/emulated/story.py", arguments.scratch]
    expect_one_line(command, 1, "ended by itself", "start a shell", path=programs, console=["x", "~ # "])


cases = [refuses_unknown_arguments, names_a_missing_emulator, names_a_missing_kernel, names_a_lost_network]
cases += [names_a_missing_kernel_package, names_a_missing_terminal, names_another_run]
cases += [ends_a_boot_that_hangs_and_shows_its_last_lines, shows_the_last_lines_of_a_machine_that_ends]
cases += [shows_the_last_lines_of_a_machine_that_no_longer_hears_what_is_typed]
house.fresh_folder(arguments.scratch)
os.mkdir(programs)
{case.__name__: case for case in cases}[arguments.case]()
