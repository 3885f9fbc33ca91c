"""Runs tests of the library under valgrind's memcheck: no call of ours may give it a reason to complain.

Only programs that leave malloc alone (without tests/support/memory.h) can be run so.
"""

import argparse
import glob
import os
import sys

import house

parser = argparse.ArgumentParser()
parser.add_argument("--programs", required=True, help="the folder of the test programs")
parser.add_argument("--scratch", required=True)
parser.add_argument("--run", nargs=2, action="append", metavar=("PROGRAM", "TESTS"), required=True)
arguments = parser.parse_args()

scratch = house.fresh_folder(arguments.scratch)
for program, tests in arguments.run:
    result = house.attempt(
        [
            *("valgrind", "--quiet", "--error-exitcode=1"),
            f"--log-file={os.path.join(scratch, program)}.%p", # one for each child that a test forks, too
            *(os.path.join(arguments.programs, program), f"--gtest_filter={tests}"),
        ]
    )
    complaints = ""
    for path in sorted(glob.glob(os.path.join(scratch, "*"))):
        with open(path, encoding="utf-8", errors="replace") as file:
            complaints += file.read()
    if complaints or result.returncode != 0:
        sys.stderr.write(complaints or result.stdout + result.stderr)
        house.fail(f"{program} {'makes memcheck complain' if complaints else 'fails under memcheck'}")
    if "[  PASSED  ] 0 tests" in result.stdout:
        house.fail(f"{program} has no tests {tests}")
