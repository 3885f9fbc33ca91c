"""
apstatd's answers that come later: after a delay, or when a child process has ended.

Usage: deferred_test.py APSTATD APCTL UBUSD UBUS [TEST...]
"""

import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time

import daemons
from apstatd import Daemon, DaemonTest, cover_in_private, cpu_seconds, started_children_of
from daemons import CURL, PATIENCE_S, Client, curl


class Slow(DaemonTest):
    def test_slow_answers_after_its_delay(self):
        client = self.connect()
        for delay_ms in (0, 1, 300):
            start = time.monotonic()
            answer = client.get(f"/slow?ms={delay_ms}")
            self.assertGreaterEqual(time.monotonic() - start, delay_ms / 1000)
            self.assertEqual((answer.code, answer.body), (200, b"done\n"))

    def test_slow_takes_a_second_unless_told_otherwise(self):
        start = time.monotonic()
        self.assertEqual(curl(self.daemon.url + "/slow"), b"done\n")
        self.assertGreaterEqual(time.monotonic() - start, 1)

    def test_slow_refuses_a_delay_that_is_no_number_within_bounds(self):
        client = self.connect()
        bad = ("", "x", "-1", "+5", "%2b5", "%205", "5%20", "1.5", "0x10", "30001", "4294967296", "9" * 400)
        for text in bad:
            self.assertEqual(client.get("/slow?ms=" + text).code, 400, text)
            self.assertEqual(client.get("/slow?a=b&ms=" + text).code, 400, text)
        self.assertEqual(client.get("/slow?ms").code, 400)
        self.assertEqual(self.daemon.status()["deferred_answers"], 0)

    def test_slow_accepts_a_delay_of_30_seconds(self):
        client = self.connect()
        client.send(b"GET /slow?a=b&ms=30000 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=1)

    def test_slow_answers_do_not_wait_for_each_other(self):
        start = time.monotonic()
        curls = [
            subprocess.Popen(
                [*CURL, self.daemon.url + "/slow?ms=3000"],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
            )
            for _ in range(20)
        ]
        self.assertEqual([process.communicate(timeout=PATIENCE_S)[0] for process in curls], [b"done\n"] * 20)
        self.assertEqual([process.returncode for process in curls], [0] * 20)
        self.assertLess(time.monotonic() - start, 20 * 3)
        self.assertEqual(self.daemon.status()["timers_fired"], 20)

    def test_slow_answer_leaves_the_daemon_free_for_others(self):
        slow = self.connect()
        slow.send(b"GET /slow?ms=30000 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=1)
        self.assertEqual(self.get("/param?x=1").body, b"x=1\n")
        self.assertEqual(self.get("/slow?ms=1").body, b"done\n")
        self.assertEqual(self.daemon.status()["deferred_answers"], 1)

    def test_slow_answer_holds_back_the_requests_behind_it(self):
        client = self.connect()
        targets = (b"/param?x=1", b"/slow?ms=300", b"/param?x=2")
        client.send(b"".join(b"GET %s HTTP/1.1\r\n\r\n" % target for target in targets))
        self.assertEqual([client.read().body for _ in range(3)], [b"x=1\n", b"done\n", b"x=2\n"])

    def test_slow_answer_may_find_its_peer_gone(self):
        clients = [self.daemon.connect() for _ in range(2)]
        for client in clients:
            client.send(b"GET /slow?ms=5000 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=2, open_connections=3)
        clients[0].close()
        clients[1].reset()
        self.daemon.wait_for(deferred_answers=0, open_connections=1, timers_fired=2)

    def test_slow_answer_still_reaches_a_peer_that_only_stopped_sending(self):
        client = self.connect()
        client.send(b"GET /slow?ms=1000 HTTP/1.1\r\n\r\n")
        client.socket.shutdown(socket.SHUT_WR)
        self.assertEqual(client.read().body, b"done\n")
        self.assertEqual(client.read_to_the_end(), b"")

    def test_slow_answer_to_a_peer_that_has_gone_costs_no_cpu_time(self):
        clients = [self.daemon.connect() for _ in range(10)]
        for client in clients:
            client.send(b"GET /slow?ms=6000 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=10)
        for index, client in enumerate(clients):
            (Client.close if index % 2 else Client.reset)(client)
        pid = self.daemon.process.pid
        before = cpu_seconds(pid)
        self.get("/slow?ms=4000")
        self.assertLess(cpu_seconds(pid) - before, 2)


class Run(DaemonTest):
    def run_code(self, query):
        return json.loads(self.get("/run" + query).body)

    def test_run_answers_curl_with_the_exit_code(self):
        self.assertEqual(json.loads(curl(self.daemon.url + "/run?code=3")), {"exit_code": 3, "reported": 3})

    def test_run_is_told_codes_above_127_as_negative_numbers(self):
        expected = {0: 0, 1: 1, 127: 127, 128: -128, 200: -56, 255: -1}
        for code, reported in expected.items():
            self.assertEqual(self.run_code(f"?code={code}"), {"exit_code": code, "reported": reported})

    def test_run_without_a_code_ends_with_0(self):
        self.assertEqual(self.run_code(""), {"exit_code": 0, "reported": 0})

    def test_run_finds_its_parameters_in_any_order(self):
        self.assertEqual(self.run_code("?seconds=0&code=7")["exit_code"], 7)
        self.assertEqual(self.run_code("?code=7&seconds=0")["exit_code"], 7)

    def test_run_takes_the_seconds_asked_for(self):
        start = time.monotonic()
        self.assertEqual(self.run_code("?code=9&seconds=1")["exit_code"], 9)
        self.assertGreaterEqual(time.monotonic() - start, 1)

    def test_run_refuses_numbers_out_of_bounds_and_other_text(self):
        client = self.connect()
        for text in ("", "x", "-1", "+1", "256", "1;id", "$(id)", "%601%60", "1%0aid", "9" * 400):
            self.assertEqual(client.get("/run?code=" + text).code, 400, text)
        for text in ("", "x", "-1", "31", "1;id"):
            self.assertEqual(client.get("/run?code=1&seconds=" + text).code, 400, text)
        self.assertEqual(self.daemon.status()["deferred_answers"], 0)

    def test_run_is_answered_long_before_an_idle_connection_wakes_the_loop(self):
        self.daemon.status()
        start = time.monotonic()
        self.run_code("?seconds=1")
        self.assertLess(time.monotonic() - start, 30)

    def test_run_ended_by_a_signal_is_reported_as_0(self):
        client = self.connect()
        client.send(b"GET /run?seconds=30&code=5 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=1)
        (child,) = started_children_of(self.daemon.process.pid)
        os.killpg(child, signal.SIGKILL)
        self.assertEqual(json.loads(client.read().body), {"exit_code": 0, "reported": 0})

    def test_run_gives_its_child_a_process_group_and_no_descriptor(self):
        client = self.connect()
        client.send(b"GET /run?seconds=30 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=1)
        (child,) = started_children_of(self.daemon.process.pid)
        self.assertEqual(os.getpgid(child), child)
        self.assertEqual(sorted(os.listdir(f"/proc/{child}/fd")), ["0", "1", "2"])

    def test_run_gives_its_child_no_blocked_signal(self):
        # In place of a shell, which may clear the mask itself: 100 and the number of blocked signals.
        with tempfile.NamedTemporaryFile("w", delete=False) as script:
            script.write(f"#!{sys.executable} -IS\nimport signal, sys\n")
            script.write("sys.exit(100 + len(signal.pthread_sigmask(signal.SIG_BLOCK, [])))\n")
        self.addCleanup(os.unlink, script.name)
        os.chmod(script.name, 0o755)
        daemon = Daemon(prepare=lambda: cover_in_private("/bin/sh", script.name))
        self.addCleanup(self.look_over, daemon)
        with daemon.connect() as client:
            self.assertEqual(json.loads(client.get("/run").body)["exit_code"], 100)

    def test_run_leaves_no_zombie(self):
        for code in range(5):
            self.run_code(f"?code={code}")
        with open(f"/proc/{self.daemon.process.pid}/task/{self.daemon.process.pid}/children") as file:
            self.assertEqual(file.read(), "")

    def test_run_may_find_its_peer_gone(self):
        clients = [self.daemon.connect() for _ in range(2)]
        for client in clients:
            client.send(b"GET /run?seconds=5 HTTP/1.1\r\n\r\n")
        self.daemon.wait_for(deferred_answers=2, open_connections=3)
        clients[0].close()
        clients[1].reset()
        self.daemon.wait_for(deferred_answers=0, open_connections=1)

    def test_run_starts_no_more_than_32_children_at_a_time(self):
        clients = [self.connect() for _ in range(33)]
        for count, client in enumerate(clients[:32], start=1):
            client.send(b"GET /run?seconds=30 HTTP/1.1\r\n\r\n")
            self.daemon.wait_for(deferred_answers=count)
        self.assertEqual(clients[32].get("/run").code, 503)
        os.killpg(started_children_of(self.daemon.process.pid)[0], signal.SIGKILL)
        self.daemon.wait_for(deferred_answers=31)
        self.assertEqual(clients[32].get("/run?code=4").body, b'{"exit_code": 4, "reported": 4}\n')

    def test_run_works_for_a_parent_that_ignores_its_children(self):
        daemon = Daemon(prepare=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.addCleanup(self.look_over, daemon)
        with daemon.connect() as client:
            self.assertEqual(json.loads(client.get("/run?code=6").body)["exit_code"], 6)


if __name__ == "__main__":
    daemons.main(__doc__)
