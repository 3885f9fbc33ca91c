"""
apinit's command line.

Usage: options_test.py APINIT [TEST...]
"""

import subprocess
import unittest

import machine
from daemons import PATIENCE_S


class CommandLine(unittest.TestCase):
    """Nothing of this gets as far as to look at the machine."""

    def ask(self, *arguments):
        return subprocess.run(
            [machine.PROGRAMS["apinit"], *arguments],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=PATIENCE_S,
            check=False,
        )

    def check_refused(self, message, *arguments):
        result = self.ask(*arguments)
        expected = (2, "", f"apinit: {message}, see apinit --help\n")
        self.assertEqual((result.returncode, result.stdout, result.stderr), expected)

    def test_help_names_every_option(self):
        result = self.ask("--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        options = ("--quiet", "--no-overlay", "--change-this-machine", "--show", "--help", "-h", "--version")
        for text in (*options, "COMMAND [ARGUMENT]..."):
            self.assertIn(text, result.stdout)

    def test_unknown_options_are_refused(self):
        for option in ("--nope", "-x", "--show=1"):
            self.check_refused(f"bad option '{option}'", option)
            self.check_refused(f"bad option '{option}'", "--quiet", option, "true")

    def test_a_command_is_needed(self):
        usage = self.ask("--help").stdout
        for options in ((), ("--quiet",), ("--no-overlay", "--")):
            result = self.ask(*options)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (2, "", usage))

    def test_show_starts_no_command(self):
        self.check_refused("unexpected argument 'true'", "--show", "true")

    def test_show_goes_with_no_other_option(self):
        for option in ("--quiet", "--no-overlay", "--change-this-machine"):
            self.check_refused("no other option goes with '--show'", "--show", option)
            self.check_refused("no other option goes with '--show'", option, "--show")

    def test_help_fails_where_it_cannot_be_printed(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = subprocess.run([machine.PROGRAMS["apinit"], "--help"], stdout=full, stderr=subprocess.PIPE, check=False)
        self.assertEqual((result.returncode, result.stderr), (1, b"apinit: cannot print the help\n"))


if __name__ == "__main__":
    machine.main(__doc__)
