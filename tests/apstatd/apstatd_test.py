"""
The example daemon as its users meet it: a process, real curl, browsers' manners, and raw sockets.

Usage: apstatd_test.py APSTATD APCTL UBUSD UBUS [TEST...]

Every test starts a daemon of its own on a port that the kernel chooses, waits for the line that says it is
ready, and in the end stops it with a signal: the exit status has to be 0 and standard error empty, which in a
sanitized build means that nothing leaked. Run it as root: some tests use a network namespace of their own.
"""

import ctypes
import fcntl
import html.parser
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import daemons
from daemons import CURL, PATIENCE_S, Client, curl, libc_check, wait_until

COMMON = b"Server: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"
NUMBERS = {"pid", "uptime_s", "requests", "open_connections", "deferred_answers", "timers_fired"}


class Daemon(daemons.Daemon):
    def __init__(self, *options, **others):
        super().__init__("apstatd", *options, **others)


def run_to_its_end(*options, **popen):
    return daemons.run_to_its_end("apstatd", *options, **popen)


def enter_private_network():
    """Moves this process to a network namespace of its own, which has only a loopback device."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc_check(libc.unshare(0x40000000))  # CLONE_NEWNET
    with socket.socket() as any_socket:
        up_and_running = struct.pack("16sh", b"lo", 0x41)
        fcntl.ioctl(any_socket, 0x8914, up_and_running.ljust(40, b"\0"))  # SIOCSIFFLAGS


def cover_in_private(path, replacement):
    """Moves this process to a mount namespace of its own, where `path` is `replacement`."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc_check(libc.unshare(0x20000))  # CLONE_NEWNS
    libc_check(libc.mount(b"none", b"/", None, ctypes.c_ulong(0x44000), None))  # MS_REC | MS_PRIVATE
    libc_check(libc.mount(replacement.encode(), path.encode(), None, ctypes.c_ulong(0x1000), None))  # MS_BIND


def processes(wanted):
    """The processes, without those that have ended, that `wanted(parent, group)` holds for."""
    found = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/stat", encoding="latin-1") as file:
                state, parent, group = file.read().rpartition(")")[2].split()[:3]
        except (FileNotFoundError, ProcessLookupError):
            continue
        if state not in "ZX" and wanted(int(parent), int(group)):
            found.append(int(name))
    return found


def children_of(pid):
    return processes(lambda parent, group: parent == pid)


def started_children_of(pid):
    """Once each is what it was started to be, and no longer a copy of its parent."""

    def program_of(process):
        return os.readlink(f"/proc/{process}/exe")

    wait_until(lambda: program_of(pid) not in map(program_of, children_of(pid)), "each child is another program")
    return children_of(pid)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="latin-1") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Hardware:
    """
    What a board's kernel shows below /sys/class, as files in a folder: its LEDs, and the addresses of its
    radios.
    """

    WHITE, BLUE = "ubnt:white:dome", "ubnt:blue:dome"

    def __init__(self, leds=(WHITE, BLUE), radios=()):
        self.folder = tempfile.TemporaryDirectory()
        for led in leds:
            os.makedirs(os.path.join(self.folder.name, "leds", led))
        for phy, text in dict(radios).items():
            self.set_radio(phy, text)

    def set_radio(self, phy, text):
        folder = os.path.join(self.folder.name, "ieee80211", phy)
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "addresses"), "w", encoding="latin-1") as file:
            file.write(text)

    def led(self, led):
        """Its attributes, as they were last written."""
        found = {}
        folder = os.path.join(self.folder.name, "leds", led)
        for name in os.listdir(folder):
            with open(os.path.join(folder, name), encoding="latin-1") as file:
                found[name] = file.read()
        return found

    def start(self, *options):
        return Daemon(*options, prepare=lambda: cover_in_private("/sys/class", self.folder.name))


def add_interface(name, mac):
    """To the private network of this process."""
    subprocess.run(
        ["ip", "link", "add", name, "address", mac, "type", "veth", "peer", "name", "other"], check=True
    )


class DaemonTest(unittest.TestCase):
    """A test with a daemon, which is stopped and looked over in the end."""

    def setUp(self):
        self.daemon = Daemon()
        self.addCleanup(self.look_over, self.daemon)

    def look_over(self, daemon):
        daemons.look_over(self, daemon)

    def connect(self):
        client = self.daemon.connect()
        self.addCleanup(client.close)
        return client

    def get(self, target):
        with self.daemon.connect() as client:
            return client.get(target)


class Page(DaemonTest):
    class Reader(html.parser.HTMLParser):
        VOID = {"meta", "link"}

        def __init__(self):
            super().__init__()
            self.open = []
            self.ids = []
            self.tags = []
            self.declarations = []
            self.mistakes = []

        def handle_decl(self, decl):
            self.declarations.append((decl, list(self.tags)))

        def handle_starttag(self, tag, attrs):
            self.tags.append((tag, dict(attrs)))
            self.ids += [value for name, value in attrs if name == "id"]
            if tag not in self.VOID:
                self.open.append(tag)

        def handle_endtag(self, tag):
            if not self.open or self.open.pop() != tag:
                self.mistakes.append(tag)

    def read_page(self):
        answer = self.get("/")
        reader = self.Reader()
        reader.feed(answer.body.decode("utf-8"))
        reader.close()
        return answer, reader

    def test_page_is_sent_as_html_to_curl(self):
        answer = curl("--include", self.daemon.url + "/")
        head, body = answer.split(b"\r\n\r\n", 1)
        self.assertTrue(head.startswith(b"HTTP/1.1 200 OK\r\n"), head)
        self.assertIn(b"Content-Type: text/html; charset=utf-8", head)
        self.assertIn(b"Content-Length: %d\r\n" % len(body), head)
        self.assertTrue(body.startswith(b"<!DOCTYPE html>\n"))

    def test_page_is_whole_html_with_language_title_and_a_viewport(self):
        _, page = self.read_page()
        self.assertEqual(page.declarations, [("DOCTYPE html", [])])
        self.assertEqual((page.open, page.mistakes), ([], []))
        self.assertEqual(page.tags[0], ("html", {"lang": "en"}))
        tags = [tag for tag, _ in page.tags]
        for tag in ("html", "head", "title", "body", "h1"):
            self.assertEqual(tags.count(tag), 1, tag)
        self.assertIn(("meta", {"charset": "utf-8"}), page.tags)
        self.assertTrue(any(attributes.get("name") == "viewport" for _, attributes in page.tags))
        self.assertEqual(len(page.ids), len(set(page.ids)))

    def test_page_needs_nothing_but_the_status(self):
        answer, page = self.read_page()
        for tag, attributes in page.tags:
            self.assertNotIn("src", attributes, tag)
            self.assertTrue(attributes.get("href", "data:,").startswith("data:"), tag)
        self.assertNotIn(b"//", answer.body)
        self.assertNotIn(b"url(", answer.body)
        self.assertEqual(re.findall(rb"fetch\('([^']*)'\)", answer.body), [b"/status"])
        self.assertRegex(answer.body, rb"setTimeout\(refresh, [1-9][0-9]{3}\)")

    def test_page_has_a_place_for_every_value_of_the_status(self):
        _, page = self.read_page()
        self.assertEqual(set(page.ids) - {"state"}, set(self.daemon.status()))

    def test_page_is_the_path_of_a_target_that_is_a_host_only(self):
        with self.daemon.connect() as client:
            by_host = client.get("http://apstatd")
            self.assertEqual(by_host.bytes, client.get("/").bytes)
            self.assertEqual(json.loads(client.get("http://apstatd/status").body)["requests"], 3)


class Status(DaemonTest):
    def test_status_is_json_with_these_numbers(self):
        status = json.loads(curl(self.daemon.url + "/status"))
        self.assertEqual(set(status), NUMBERS | {"board", "led", "history"})
        self.assertTrue(all(type(status[name]) is int for name in NUMBERS), status)
        self.assertEqual(status["pid"], self.daemon.process.pid)
        self.assertEqual(status["requests"], 1)
        self.assertEqual(status["open_connections"], 1)
        self.assertEqual(status["deferred_answers"], 0)
        self.assertEqual(status["timers_fired"], 0)
        self.assertIn(status["uptime_s"], range(int(time.monotonic() - self.daemon.started) + 2))

    def test_status_names_its_type(self):
        self.assertEqual(self.get("/status").headers["Content-Type"], "application/json")

    def test_status_counts_every_request_whatever_its_answer(self):
        client = self.connect()
        for target in ("/", "/nope", "/slow?ms=0", "/slow?ms=x", "/run"):
            client.get(target)
        client.ask(b"POST / HTTP/1.1\r\n\r\n")
        client.ask(b"POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
        self.assertEqual(json.loads(client.get("/status").body)["requests"], 8)

    def test_status_counts_open_connections_as_they_come_and_go(self):
        self.daemon.wait_for(open_connections=1)
        clients = [self.connect() for _ in range(5)]
        self.daemon.wait_for(open_connections=6)
        for client in clients[:3]:
            client.close()
        self.daemon.wait_for(open_connections=3)
        clients[3].reset()
        self.daemon.wait_for(open_connections=2)

    def test_status_counts_the_timers_of_slow_answers(self):
        client = self.connect()
        for count in range(4):
            self.assertEqual(self.daemon.status()["timers_fired"], count)
            client.get("/slow?ms=1")

    def test_status_has_an_uptime_that_grows(self):
        first = self.daemon.status()["uptime_s"]
        self.get("/slow?ms=2100")
        self.assertGreaterEqual(self.daemon.status()["uptime_s"], first + 2)


class HardwareTest(DaemonTest):
    """A test of a daemon on a board, once `start` has been called."""

    def setUp(self):
        """The daemon is not started yet."""

    def start(self, **parts):
        self.hardware = Hardware(**parts)
        self.addCleanup(self.hardware.folder.cleanup)
        self.daemon = self.hardware.start()
        self.addCleanup(self.look_over, self.daemon)

    def post_led(self, query):
        with self.daemon.connect() as client:
            return client.ask(b"POST /led%s HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % query.encode())


class Board(HardwareTest):
    RADIOS = {"phy0": "02:00:5e:00:00:10\n", "phy1": "02:00:5e:00:00:11\n02:00:5e:00:00:12\n"}
    MODES = {"phy1": 14, "phy0": 25}
    SWITCH = {"device": "switch0", "cpu": "0", "cpu_lan": "0", "wan": "2", "lan": "3"}

    def setUp(self):
        """A network of our own, with and without the board's interface, until the test has ended."""
        libc = ctypes.CDLL(None, use_errno=True)
        network = os.open("/proc/self/ns/net", os.O_RDONLY)
        self.addCleanup(os.close, network)
        self.addCleanup(lambda: libc_check(libc.setns(network, 0x40000000)))  # CLONE_NEWNET
        enter_private_network()

    def board(self):
        return self.daemon.status()["board"]

    def radios(self, **macs):
        return [{"phy": phy, "mode": mode, "mac": macs.get(phy)} for phy, mode in self.MODES.items()]

    def test_board_is_described_with_its_addresses(self):
        add_interface("eth0", "02:00:5e:00:00:01")
        self.start(radios=self.RADIOS)
        expected = {
            "id": "unifiacpro",
            "vendor": "Ubiquiti",
            "model": "UniFi AC PRO",
            "interfaces": {"wan": "eth0", "lan": None},
            "radios": self.radios(phy0="02:00:5e:00:00:10", phy1="02:00:5e:00:00:11"),
            "switch": self.SWITCH,
            "mac_addresses": ["02:00:5e:00:00:01", "02:00:5e:00:00:11", "02:00:5e:00:00:10"],
        }
        self.assertEqual(self.board(), expected)

    def test_board_has_null_for_what_is_not_there_and_nothing_is_logged(self):
        self.start()
        board = self.board()
        self.assertEqual(board["radios"], self.radios())
        self.assertIsNone(board["mac_addresses"])
        self.assertEqual((board["id"], board["switch"]), ("unifiacpro", self.SWITCH))

    def test_board_has_the_address_of_a_radio_although_the_other_is_missing(self):
        add_interface("eth0", "02:00:5e:00:00:01")
        self.start(radios={"phy0": self.RADIOS["phy0"]})
        board = self.board()
        self.assertEqual(board["radios"], self.radios(phy0="02:00:5e:00:00:10"))
        self.assertIsNone(board["mac_addresses"])

    def test_board_has_no_list_of_addresses_without_its_interface(self):
        self.start(radios=self.RADIOS)
        board = self.board()
        self.assertEqual(board["radios"][0]["mac"], "02:00:5e:00:00:11")
        self.assertIsNone(board["mac_addresses"])

    def test_board_is_looked_at_when_the_daemon_starts_and_not_for_each_request(self):
        self.start(radios=self.RADIOS)
        before = self.board()
        for phy in self.RADIOS:
            self.hardware.set_radio(phy, "02:00:5e:00:00:99\n")
        self.assertEqual(self.board(), before)


class Led(HardwareTest):
    OFF = {"trigger": "none", "brightness": "0"}
    BLINK = {"trigger": "timer"}
    SHOWN = (
        {Hardware.WHITE: OFF, Hardware.BLUE: OFF},
        {Hardware.WHITE: BLINK, Hardware.BLUE: OFF},
        {Hardware.WHITE: OFF, Hardware.BLUE: {"trigger": "none", "brightness": "255"}},
        {Hardware.WHITE: {**BLINK, "delay_on": "100", "delay_off": "100"}, Hardware.BLUE: OFF},
        {Hardware.WHITE: {**BLINK, "delay_on": "1000", "delay_off": "1000"}, Hardware.BLUE: OFF},
        {Hardware.WHITE: OFF, Hardware.BLUE: BLINK},
    )

    def leds(self):
        return {name: self.hardware.led(name) for name in (Hardware.WHITE, Hardware.BLUE)}

    def test_led_is_null_until_it_is_set(self):
        self.start()
        self.assertIsNone(self.daemon.status()["led"])
        self.assertEqual(self.leds(), {Hardware.WHITE: {}, Hardware.BLUE: {}})

    def check_shown(self, state):
        """Files keep what an earlier state has written into them, so only what this one writes counts."""
        for led, attributes in self.SHOWN[state].items():
            self.assertLessEqual(attributes.items(), self.hardware.led(led).items(), (state, led))

    def test_led_sets_each_state_and_says_which(self):
        self.start()
        for state in (1, 4, 0, 3, 2, 5):
            answer = self.post_led(f"?state={state}")
            self.assertEqual((answer.code, json.loads(answer.body)), (200, {"state": state}))
            self.assertEqual(answer.headers["Content-Type"], "application/json")
            self.check_shown(state)
            self.assertEqual(self.daemon.status()["led"], state)

    def test_led_is_set_by_curl(self):
        self.start()
        url = self.daemon.url + "/led?state=2"
        self.assertEqual(json.loads(curl("--request", "POST", url)), {"state": 2})
        self.assertEqual(self.leds(), self.SHOWN[2])

    def test_led_refuses_what_is_no_state_and_changes_nothing(self):
        self.start()
        self.post_led("?state=2")
        texts = ("", "6", "9", "/", ":", "x", "-1", "+1", "01", "1.0", "%31")
        bad = ["?state=" + text for text in texts]
        bad += ["", "?", "?state", "?state1", "?led=1", "?State=1", "?states=1", "?state=1&a", "?a&state=1"]
        for query in bad:
            self.assertEqual(self.post_led(query).code, 400, query)
        self.assertEqual(self.daemon.status()["led"], 2)
        self.assertEqual(self.leds(), self.SHOWN[2])

    def test_led_refuses_other_methods(self):
        self.start()
        for method in (b"GET", b"PUT", b"DELETE", b"OPTIONS"):
            with self.daemon.connect() as client:
                self.assertEqual(client.ask(method + b" /led?state=1 HTTP/1.1\r\n\r\n").code, 405)
        self.assertIsNone(self.daemon.status()["led"])

    def test_led_that_the_board_lacks_is_logged_and_its_state_is_kept(self):
        self.start(leds=())
        self.assertEqual(json.loads(self.post_led("?state=5").body), {"state": 5})
        self.assertEqual(self.daemon.status()["led"], 5)
        self.assertEqual(self.daemon.stop(), 0)
        files = (Hardware.WHITE + "/trigger", Hardware.WHITE + "/brightness", Hardware.BLUE + "/trigger")
        logged = [f"led: unable to open /sys/class/leds/{file}: err=-2" for file in files]
        self.assertEqual(self.daemon.read_stderr().splitlines(), logged)
        self.daemon.stderr.close()


class History(DaemonTest):
    def history(self):
        status = self.daemon.status()
        history = status["history"]
        self.assertEqual(history["step_s"], 5)
        self.assertEqual(len(history["requests"]), 60)
        self.assertEqual(sum(history["requests"]), status["requests"])
        return history["requests"]

    def test_history_has_every_request_from_the_first_on(self):
        self.assertEqual(sum(self.history()), 1)
        for _ in range(20):
            self.get("/param?x=1")
        self.assertEqual(sum(self.history()), 22)

    def test_history_moves_on_while_nobody_asks(self):
        self.assertEqual(self.history()[-3:], [0, 0, 1])
        self.get("/slow?ms=12000")  # two steps end, or with a start that took long, perhaps three
        newest = self.history()
        self.assertIn(newest, ([*[0] * (59 - ended), 2, *[0] * (ended - 1), 1] for ended in (2, 3)))


class Echo(DaemonTest):
    def echo(self, client, body, headers=b""):
        head = b"POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\n%sContent-Length: %d\r\n\r\n" % (headers, len(body))
        return client.ask(head + body)

    def test_echo_returns_what_curl_sends(self):
        body = bytes(range(256)) * 100
        with tempfile.NamedTemporaryFile() as file:
            file.write(body)
            file.flush()
            answer = curl(
                "--data-binary", "@" + file.name, "--header", "Content-Type: image/x-test", "--include",
                self.daemon.url + "/echo",
            )  # fmt: skip
        head, received = answer.split(b"\r\n\r\n", 1)
        self.assertEqual(received, body)
        self.assertTrue(head.startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertIn(b"\r\nContent-Type: image/x-test", head)

    def test_echo_returns_bodies_of_any_length_up_to_the_limit(self):
        client = self.connect()
        for length in (0, 1, 127, 128, 511, 512, 513, 4096, 65535, 65536, 66480):
            body = os.urandom(length)
            answer = self.echo(client, body)
            self.assertEqual(answer.code, 200)
            self.assertEqual(answer.body, body, length)
            self.assertEqual(answer.headers["Content-Length"], str(length))

    def test_echo_returns_the_largest_body_when_its_head_has_been_read_before(self):
        client = self.connect()
        body = os.urandom(66560)
        # The answer to the first request shows that the head, which came with it, has been read.
        client.ask(b"GET /status HTTP/1.1\r\n\r\nPOST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 66560\r\n\r\n")
        self.assertEqual(client.ask(body).body, body)

    def test_echo_refuses_a_body_above_the_limit_and_closes(self):
        client = self.connect()
        client.send(b"POST /echo HTTP/1.1\r\nContent-Length: 66561\r\n\r\n")
        self.assertEqual(client.read().status_line, "HTTP/1.1 400 Bad Request")
        self.assertEqual(client.read_to_the_end(), b"")

    def test_echo_without_a_type_is_just_bytes(self):
        answer = self.echo(self.connect(), b"<b>hello</b>")
        self.assertEqual(answer.headers["Content-Type"], "application/octet-stream")
        self.assertEqual(answer.headers["X-Content-Type-Options"], "nosniff")

    def test_echo_returns_a_type_of_any_length(self):
        client = self.connect()
        for length in list(range(1, 700, 7)) + [5000, 60000]:
            content_type = "text/" + "x" * length
            answer = self.echo(client, b"body", b"Content-Type: %s\r\n" % content_type.encode())
            self.assertEqual(answer.headers["Content-Type"], content_type)
            self.assertEqual(answer.body, b"body")
        self.assertEqual(client.get("/nope").code, 404)

    def test_echo_keeps_a_folded_type_in_one_line(self):
        answer = self.echo(self.connect(), b"body", b"Content-Type: text/plain;\r\n\tcharset=utf-8\r\n")
        self.assertEqual(answer.headers["Content-Type"], "text/plain; charset=utf-8")


class Param(DaemonTest):
    def values(self, *queries):
        with self.daemon.connect() as client:
            return [client.get("/param" + query).body for query in queries]

    def test_param_shows_the_value_to_curl(self):
        answer = curl("--get", "--data-urlencode", "x=a b&c=d/<é>", "--include", self.daemon.url + "/param")
        head, body = answer.split(b"\r\n\r\n", 1)
        self.assertEqual(body.decode(), "x=a b&c=d/<é>\n")
        self.assertTrue(head.startswith(b"HTTP/1.1 200 OK\r\n"))

    def test_param_is_found_wherever_it_stands(self):
        queries = ["?x=1", "?x=1&y=2", "?y=2&x=1", "?y=2&x=1&z=3", "?&&x=1"]
        queries += ["?X=1", "?a&X=1", "?%78=1", "?a=b&%78=1"]
        self.assertEqual(self.values(*queries), [b"x=1\n"] * len(queries))

    def test_param_that_comes_twice_has_its_first_value(self):
        self.assertEqual(self.values("?x=1&x=2", "?a&x=1&x=2"), [b"x=1\n", b"x=1\n"])

    def test_param_is_decoded(self):
        self.assertEqual(
            self.values("?x=a+b", "?x=%41%42%43", "?x=a%20b&y=c", "?a=1&x=%3Cscript%3E", "?x=100%", "?x=a=b"),
            [b"x=a b\n", b"x=ABC\n", b"x=a b\n", b"x=<script>\n", b"x=100\n", b"x=a=b\n"],
        )

    def test_param_without_a_value_is_empty(self):
        self.assertEqual(self.values("?x", "?x=", "?a&x", "?a&x=&b"), [b"x=\n"] * 4)

    def test_param_that_is_missing_is_a_bad_request(self):
        with self.daemon.connect() as client:
            for query in ("", "?", "?y=1", "?xx=1", "?y=x", "?=1", "?&"):
                self.assertEqual(client.get("/param" + query).code, 400, query)

    def test_param_is_plain_text_so_markup_is_harmless(self):
        answer = self.get("/param?x=<script>alert(1)</script>")
        self.assertEqual(answer.body, b"x=<script>alert(1)</script>\n")
        self.assertEqual(answer.headers["Content-Type"], "text/plain; charset=utf-8")
        self.assertEqual(answer.headers["X-Content-Type-Options"], "nosniff")

    def test_param_can_be_as_long_as_a_request(self):
        text = "y" * 60000
        self.assertEqual(self.get("/param?x=" + text).body, f"x={text}\n".encode())

    def test_param_has_exactly_this_answer(self):
        expected = b"HTTP/1.1 200 OK\r\n" + COMMON + b"Content-Length: 8\r\n"
        expected += b"X-Content-Type-Options: nosniff\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n"
        self.assertEqual(self.get("/param?x=hello").bytes, expected + b"x=hello\n")


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


class Routing(DaemonTest):
    ROUTES = {"/": "GET", "/status": "GET", "/echo": "POST", "/param": "GET", "/slow": "GET", "/run": "GET"}
    ROUTES |= {"/leds": "GET", "/bus": "GET"}

    def error_page(self, version, code, reason):
        page = f"<html><body><h1>{code} - {reason}</h1><p>Error</p></body></html>".encode()
        head = b"Content-Type: text/html\r\nContent-Length: %d\r\n\r\n" % len(page)
        return f"HTTP/1.{version} {code} {reason}\r\n".encode() + COMMON + head + page

    def test_unknown_paths_are_not_found(self):
        client = self.connect()
        paths = ["/nope", "//", "//status", "/status/", "/statu", "/statusx", "/STATUS"]
        paths += ["/%73tatus", "/./status", "/param=x"]
        for path in paths:
            for method in (b"GET", b"POST"):
                answer = client.ask(method + b" " + path.encode() + b" HTTP/1.1\r\n\r\n")
                self.assertEqual(answer.bytes, self.error_page(1, 404, "Not found"), path)

    def test_a_query_does_not_change_the_path(self):
        client = self.connect()
        self.assertEqual(client.get("/?").bytes, client.get("/").bytes)
        self.assertEqual(client.get("/?/nope").bytes, client.get("/").bytes)
        self.assertEqual(client.get("/status?x=1").code, 200)

    def test_the_other_method_is_not_allowed(self):
        client = self.connect()
        for path, method in self.ROUTES.items():
            other = {"GET": "POST", "POST": "GET"}[method]
            answer = client.ask(f"{other} {path} HTTP/1.1\r\n\r\n".encode())
            self.assertEqual(answer.bytes, self.error_page(1, 405, "Method Not Allowed"), path)

    def test_unknown_methods_are_not_allowed(self):
        client = self.connect()
        for method in ("PUT", "DELETE", "OPTIONS", "get", "Post", "head", "X"):
            for path in self.ROUTES:
                if len(method + path) < 4:
                    continue  # too short for the server
                answer = client.ask(f"{method} {path} HTTP/1.1\r\n\r\n".encode())
                self.assertEqual(answer.bytes, self.error_page(1, 405, "Method Not Allowed"))

    def test_an_unknown_method_on_an_unknown_path_is_not_found(self):
        answer = self.connect().ask(b"DELETE /nope HTTP/1.1\r\n\r\n")
        self.assertEqual(answer.bytes, self.error_page(1, 404, "Not found"))

    def test_curl_asking_for_the_head_only_gets_it(self):
        head = curl("--head", self.daemon.url + "/")
        self.assertTrue(head.startswith(b"HTTP/1.1 200 OK\r\n"), head)

    def test_http_1_0_is_answered_in_kind_and_closed(self):
        starts = {"/param?x=1": b"HTTP/1.0 200 OK\r\n", "/nope": b"HTTP/1.0 404 Not found\r\n"}
        for target, start in starts.items():
            with self.daemon.connect() as client:
                client.send(f"GET {target} HTTP/1.0\r\n\r\n".encode())
                self.assertTrue(client.read_to_the_end().startswith(start))
        self.assertEqual(curl("--http1.0", self.daemon.url + "/slow?ms=10"), b"done\n")

    def test_connection_close_is_confirmed_and_closes_after_the_answer(self):
        for target in ("/param?x=1", "/slow?ms=10", "/run", "/nope"):
            with self.daemon.connect() as client:
                client.send(f"GET {target} HTTP/1.1\r\nConnection: close\r\n\r\n".encode())
                answer = client.read()
                if answer.code == 200:
                    self.assertEqual(answer.headers["Connection"], "close")
                self.assertEqual(client.read_to_the_end(), b"")

    def test_curl_uses_one_connection_for_all_it_asks(self):
        targets = ("/", "/status", "/param?x=1", "/nope", "/slow?ms=10", "/run", "/slow?ms=bad", "/echo")
        arguments = []
        for target in targets:
            arguments += ["--output", "/dev/null", self.daemon.url + target]
        told = curl("--write-out", "%{http_code} %{num_connects}\n", *arguments).decode().split("\n")[:-1]
        codes = (200, 200, 200, 404, 200, 200, 400, 405)
        self.assertEqual(told, [f"{code} {0 if index else 1}" for index, code in enumerate(codes)])

    def test_requests_sent_byte_by_byte_have_the_same_answers(self):
        requests = (
            b"GET / HTTP/1.1\r\n\r\n",
            b"GET /param?a=1&x=a%20b HTTP/1.1\r\nHost: apstatd\r\n\r\n",
            b"POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Type: text/x\r\nContent-Length: 5\r\n\r\nhello",
            b"GET /slow?ms=1 HTTP/1.1\r\n\r\n",
            b"GET /run?code=200 HTTP/1.1\r\n\r\n",
            b"GET /nope HTTP/1.1\r\n\r\n",
            b"POST / HTTP/1.1\r\n\r\n",
        )
        whole, pieces = self.connect(), self.connect()
        for request in requests:
            for index in range(len(request)):
                pieces.send(request[index : index + 1])
            self.assertEqual(pieces.read().bytes, whole.ask(request).bytes)

    def test_pipelined_requests_are_answered_in_order(self):
        client = self.connect()
        numbers = range(500)
        client.send(b"".join(b"GET /param?x=%d HTTP/1.1\r\n\r\n" % number for number in numbers))
        self.assertEqual([client.read().body for _ in numbers], [b"x=%d\n" % number for number in numbers])

    def test_malformed_requests_get_400_and_the_daemon_goes_on(self):
        bad = (
            b"nonsense\r\n\r\n",
            b"GET /\r\n\r\n",
            b"GET / HTTP/2.0\r\n\r\n",
            b"GET status HTTP/1.1\r\n\r\n",
            b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n",
            b"GET / HTTP/1.1\r\nno colon\r\n\r\n",
            b"POST /echo HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
            b"POST /echo HTTP/1.1\r\nContent-Length: 5x\r\n\r\nhello",
        )
        for request in bad:
            with self.daemon.connect() as client:
                client.send(request)
                self.assertRegex(client.read_to_the_end(), rb"\AHTTP/1\.[01] 400 Bad Request\r\n")
        self.assertEqual(self.daemon.status()["requests"], 1)

    def test_connections_that_send_nothing_or_half_a_request_do_no_harm(self):
        half_a_body = b"POST /echo HTTP/1.1\r\nContent-Length: 9\r\n\r\nhalf"
        for sent in (b"", b"\r\n", b"G", b"GET /slow?ms=5000", half_a_body):
            for leave in (Client.close, Client.reset):
                client = self.daemon.connect()
                client.send(sent)
                leave(client)
        self.daemon.wait_for(open_connections=1, deferred_answers=0)


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
