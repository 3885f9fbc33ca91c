"""
apstatd is told to stop, with connections, answers and children of every kind.

Usage: shutdown_test.py APSTATD APCTL UBUSD UBUS [TEST...]
"""

import os
import select
import signal

import daemons
from apstatd import Daemon, DaemonTest, processes, started_children_of
from daemons import Client


class Shutdown(DaemonTest):
    """Each ends with the checks of DaemonTest: exit status 0, nothing on standard error."""

    def owe_answers(self, *targets):
        clients = []
        for target in targets:
            clients.append(self.connect())
            clients[-1].send(b"GET %s HTTP/1.1\r\n\r\n" % target.encode())
        self.daemon.wait_for(deferred_answers=len(targets))
        return clients

    def check_all_unavailable(self, clients):
        for client in clients:
            self.assertEqual(client.read().code, 503)
            self.assertEqual(client.read_to_the_end(), b"")

    def test_either_signal_stops_an_idle_daemon(self):
        self.assertEqual(self.daemon.stop(signal.SIGTERM), 0)
        for daemon in (Daemon(), Daemon()):
            self.assertEqual(daemon.stop(signal.SIGINT), 0)
            self.look_over(daemon)

    def test_stops_although_its_parent_ignores_the_signals(self):
        def ignore():
            signal.signal(signal.SIGINT, signal.SIG_IGN)
            signal.signal(signal.SIGTERM, signal.SIG_IGN)

        for number in (signal.SIGINT, signal.SIGTERM):
            daemon = Daemon(prepare=ignore)
            self.assertEqual(daemon.stop(number), 0)
            self.look_over(daemon)

    def test_stops_with_connections_open(self):
        fresh, used = [self.connect() for _ in range(10)], [self.connect() for _ in range(10)]
        for client in used:
            client.get("/")
        self.daemon.wait_for(open_connections=21)
        self.assertEqual(self.daemon.stop(), 0)
        for client in fresh + used:
            self.assertEqual(client.read_to_the_end(), b"")

    def test_stops_with_requests_received_in_part(self):
        half_a_head = b"GET / HTTP/1.1\r\nX-Long: " + b"x" * 50000
        half_a_body = b"POST /echo HTTP/1.1\r\nContent-Length: 9\r\n\r\nhalf"
        for sent in (b"\r\n", b"GET", half_a_head, half_a_body):
            self.connect().send(b"GET / HTTP/1.1\r\n\r\n" + sent)
        self.daemon.wait_for(open_connections=5, requests=5)
        self.assertEqual(self.daemon.stop(), 0)

    def test_stops_with_answers_that_nobody_reads(self):
        client = self.connect()
        client.send(b"GET / HTTP/1.1\r\n\r\n" * 3600)  # some 40 MB of answers, more than the kernel takes
        while self.daemon.status()["requests"] < 500:
            pass
        self.assertEqual(self.daemon.stop(), 0)

    def test_stops_with_slow_answers_owed_and_says_so(self):
        clients = self.owe_answers(*["/slow?ms=30000"] * 10)
        self.assertEqual(self.daemon.stop(), 0)
        self.check_all_unavailable(clients)

    def test_stops_with_slow_answers_owed_to_peers_that_have_gone(self):
        for index, client in enumerate(self.owe_answers(*["/slow?ms=30000"] * 10)):
            (Client.close if index % 2 else Client.reset)(client)
        self.daemon.status()
        self.assertEqual(self.daemon.stop(), 0)

    def test_stops_with_more_requests_waiting_behind_a_slow_answer(self):
        client = self.connect()
        client.send(b"GET /slow?ms=30000 HTTP/1.1\r\n\r\n" + b"GET /status HTTP/1.1\r\n\r\n" * 1000)
        self.daemon.wait_for(deferred_answers=1)
        self.assertEqual(self.daemon.stop(), 0)
        answers = client.read_to_the_end()
        self.assertEqual(answers.count(b"HTTP/1.1 "), answers.count(b"HTTP/1.1 503 "))

    def stop_with_children(self, count):
        """Stops the daemon, which has `count` of them; they and what they started end with it."""
        children = started_children_of(self.daemon.process.pid)
        self.assertEqual(len(children), count)
        deaths = [os.pidfd_open(pid) for pid in processes(lambda parent, group: group in children)]
        self.assertGreaterEqual(len(deaths), count)
        self.assertEqual(self.daemon.stop(), 0)
        for death in deaths:
            self.assertEqual(select.select([death], [], [], 10)[0], [death])
            os.close(death)
        self.assertEqual(processes(lambda parent, group: group in children), [])

    def test_stops_with_children_running_and_ends_them(self):
        clients = self.owe_answers(*["/run?seconds=30"] * 3)
        self.stop_with_children(3)
        self.check_all_unavailable(clients)

    def test_stops_with_children_running_for_peers_that_have_gone(self):
        for index, client in enumerate(self.owe_answers(*["/run?seconds=30"] * 4)):
            (Client.close if index % 2 else Client.reset)(client)
        self.stop_with_children(4)

    def test_stops_with_everything_at_once_and_two_signals(self):
        clients = self.owe_answers("/slow?ms=30000", "/run?seconds=30", "/slow?ms=30000", "/run?seconds=30")
        idle = [self.connect() for _ in range(5)]
        idle[0].send(b"GET /")
        self.daemon.wait_for(open_connections=10)
        self.daemon.process.send_signal(signal.SIGINT)
        self.assertEqual(self.daemon.stop(signal.SIGTERM), 0)
        self.check_all_unavailable(clients)

    def test_stops_while_requests_keep_coming(self):
        client = self.connect()
        client.send(b"GET / HTTP/1.1\r\n\r\n" * 2000)
        client.read()
        self.assertEqual(self.daemon.stop(), 0)

    def test_the_port_can_be_taken_again_at_once(self):
        client = self.connect()
        client.get("/")
        port = self.daemon.address[1]
        self.assertEqual(self.daemon.stop(), 0)
        again = Daemon("--port", str(port))
        self.addCleanup(self.look_over, again)
        self.assertEqual(again.address[1], port)


if __name__ == "__main__":
    daemons.main(__doc__)
