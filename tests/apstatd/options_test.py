"""
apstatd's command line.

Usage: options_test.py APSTATD APCTL UBUSD UBUS [TEST...]
"""

import select
import socket
import subprocess
import unittest

import daemons
from apstatd import Daemon, enter_private_network, run_to_its_end
from daemons import PATIENCE_S, Client


class Options(unittest.TestCase):
    def check_refused(self, result, text):
        self.assertNotEqual(result.returncode, 0)
        self.assertGreater(result.returncode, 0, "it was ended by a signal")
        self.assertEqual(result.stdout, "")
        self.assertRegex(result.stderr, r"\Aapstatd: [^\n]+\n\Z")
        self.assertIn(text, result.stderr)

    def start(self, *options, prepare=None):
        daemon = Daemon(*options, prepare=prepare)
        self.addCleanup(self.stop, daemon)
        return daemon

    def stop(self, daemon):
        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(daemon.read_stderr(), "")
        daemon.stderr.close()

    def test_help_explains_options_and_routes(self):
        result = run_to_its_end("--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        for text in ("--address", "--port", "--help", "/status", "/led", "/echo", "/param", "/slow", "/run"):
            self.assertIn(text, result.stdout)

    def test_defaults_are_port_8080_of_the_loopback_address(self):
        daemon = self.start("--", prepare=enter_private_network)
        self.assertEqual(daemon.ready_line, "apstatd: listening on http://127.0.0.1:8080/")

    def test_port_0_is_a_free_port(self):
        first, second = self.start("--port", "0"), self.start("--port=0")
        self.assertNotEqual(first.address[1], second.address[1])

    def test_address_is_where_it_listens_and_nowhere_else(self):
        daemon = self.start("--address", "127.0.0.2", "--port", "0")
        self.assertEqual(daemon.address[0], "127.0.0.2")
        daemon.status()
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", daemon.address[1]), PATIENCE_S)

    def test_address_may_be_a_name(self):
        daemon = self.start("--port", "0", "--address", "localhost")
        self.assertEqual(daemon.address[0], "127.0.0.1")
        daemon.status()

    def test_address_may_be_every_address(self):
        daemon = self.start("--port", "0", "--address", "0.0.0.0")
        self.assertEqual(daemon.address[0], "0.0.0.0")
        daemon.status()
        Client(("127.0.0.2", daemon.address[1])).close()

    def test_the_last_of_repeated_options_counts(self):
        daemon = self.start("--port", "1", "--address", "192.0.2.1", "--port", "0", "--address", "127.0.0.1")
        daemon.status()

    def test_ready_line_reaches_a_pipe_at_once(self):
        command = [daemons.PROGRAMS["apstatd"], "--bus", daemons.NO_BUS, "--port", "0"]
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.assertEqual(select.select([process.stdout], [], [], PATIENCE_S)[0], [process.stdout])
        self.assertRegex(process.stdout.readline(), rb"\Aapstatd: listening on http://127.0.0.1:[0-9]+/\n\Z")
        process.terminate()
        without_bus = f"apstatd: there is no bus at {daemons.NO_BUS}: looking for it once a second\n"
        self.assertEqual(process.stdout.read(), without_bus.encode())
        process.stdout.close()
        self.assertEqual(process.wait(PATIENCE_S), 0)

    def test_a_port_that_is_taken_is_a_clear_message(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            result = run_to_its_end("--port", str(port))
        self.check_refused(result, f"cannot listen on 127.0.0.1:{port}: Address already in use")

    def test_a_second_daemon_on_the_same_port_is_refused_and_the_first_goes_on(self):
        daemon = self.start("--port", "0")
        self.check_refused(run_to_its_end("--port", str(daemon.address[1])), "Address already in use")
        self.assertEqual(daemon.status()["requests"], 1)

    def test_bad_ports_are_refused(self):
        numbers = ("-1", "+1", " 1", "1 ", "65536", "99999", "4294967297", "1" * 400, "0x50")
        for port in (*numbers, "", "x", "80x", "http"):
            self.check_refused(run_to_its_end("--port", port), f"bad port '{port}'")
            self.check_refused(run_to_its_end("--port=" + port), f"bad port '{port}'")

    def test_unknown_options_are_refused(self):
        for option in ("--nope", "--nope=1", "-x", "-p", "-xyz", "--help=x"):
            self.check_refused(run_to_its_end(option), f"bad option '{option}'")
            self.check_refused(run_to_its_end("--port", "0", option, "0"), f"bad option '{option}'")

    def test_options_without_their_value_are_refused(self):
        for option in ("--port", "--address"):
            self.check_refused(run_to_its_end(option), f"option '{option}' needs a value")
        self.check_refused(run_to_its_end("--port", "0", "--address"), "option '--address' needs a value")

    def test_extra_arguments_are_refused(self):
        for word in ("extra", "", "-", "80"):
            self.check_refused(run_to_its_end(word), f"unexpected argument '{word}'")
            self.check_refused(run_to_its_end("--port", "0", word), f"unexpected argument '{word}'")
            self.check_refused(run_to_its_end(word, "--help"), f"unexpected argument '{word}'")
        self.check_refused(run_to_its_end("--", "--help"), "unexpected argument '--help'")

    def test_an_address_of_another_machine_is_refused(self):
        result = run_to_its_end("--address", "192.0.2.1", "--port", "0")
        self.check_refused(result, "cannot listen on 192.0.2.1:0: Cannot assign requested address")

    def test_an_address_that_cannot_be_found_is_refused(self):
        for address in ("no-such-host.invalid", "256.0.0.1", "a b", ""):
            result = run_to_its_end("--address", address, "--port", "0", preexec_fn=enter_private_network)
            self.check_refused(result, f"cannot listen on {address}:0: ")


if __name__ == "__main__":
    daemons.main(__doc__)
