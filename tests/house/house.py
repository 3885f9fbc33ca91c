"""What the scripts of this folder share: run a command, stop with one clear line."""

import os
import shlex
import shutil
import subprocess
import sys


def fail(message):
    """Ends the test; `message` is one line."""
    sys.exit(f"FAILED: {message}")


def run(command, what, **options):
    """Runs `command`; if it fails, shows what it printed and ends the test. Returns its standard output."""
    result = attempt(command, **options)
    if result.returncode != 0:
        sys.stderr.write(result.stdout + result.stderr)
        fail(f"{what} (status {result.returncode} of: {shlex.join(map(str, command))})")
    return result.stdout


def attempt(command, **options):
    """Runs `command` and returns its result, whatever that is."""
    try:
        return subprocess.run(
            command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, **options
        )
    except FileNotFoundError:
        fail(f"{command[0]} is not installed (scripts/test installs everything)")


def fresh_folder(path):
    """Empties `path`, or makes it."""
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path
