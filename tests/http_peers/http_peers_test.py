"""
The example daemons and the HTTP programs of the world: Node's fetch, curl, Chromium and a raw socket, each directly
and through nginx and HAProxy, which keep their connections to the daemon and reuse them for whoever comes next.

Usage: http_peers_test.py APSTATD APCTL UBUSD UBUS [TEST...]

What each peer gets is the table in docs/http-peers.md, which is read here: a cell is what the test expects. Beyond
it, no body is ever taken for a request, and the next answer on a connection belongs to the next request.

Needs Debian's nginx-light, haproxy, nodejs, chromium and chromium-driver, and root: all of them meet in a private
network, where no port is taken.
"""

import contextlib
import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import unittest

import daemons
from apstatd import Daemon, Hardware, enter_private_network
from browser import Browser
from daemons import CURL, PATIENCE_S, Client, curl, die_with_the_test, wait_until

DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/http-peers.md")
ADDRESS = "127.0.0.1"
PORTS = {"nginx": 8001, "HAProxy": 8002, "HAProxy, adjusted": 8003}
PORTS_H2 = {"nginx": 8011, "HAProxy": 8012, "HAProxy, adjusted": 8013}
COLUMNS = ("GET", "POST", "chunked POST", "HEAD", "pipelined", "hidden request")
HIDDEN = b"POST /led?state=5 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"  # to be found in a body, and left there

NGINX = """
daemon off;
master_process off;
pid nginx.pid;
events {}
http {
	access_log off;
	client_body_temp_path body;
	proxy_temp_path proxy;
	fastcgi_temp_path fastcgi;
	uwsgi_temp_path uwsgi;
	scgi_temp_path scgi;
	upstream apstatd {
		server 127.0.0.1:@PORT@;
		keepalive 4;
	}
	server {
		listen 127.0.0.1:8001;
		listen 127.0.0.1:8011 ssl http2;
		ssl_certificate certificate.pem;
		ssl_certificate_key certificate.pem.key;
		location / {
			proxy_pass http://apstatd;
			proxy_http_version 1.1;
			proxy_set_header Connection "";
			proxy_set_header Host $http_host;
		}
	}
}
"""

# HAProxy writes all names of headers in lower case, whatever came, unless it is told otherwise.
HAPROXY = """
global
	h1-case-adjust content-length Content-Length
defaults
	mode http
	timeout connect 60s
	timeout client 60s
	timeout server 60s
	http-reuse always
listen lower
	bind 127.0.0.1:8002
	bind 127.0.0.1:8012 ssl crt certificate.pem alpn h2
	server apstatd 127.0.0.1:@PORT@
listen adjusted
	bind 127.0.0.1:8003
	bind 127.0.0.1:8013 ssl crt certificate.pem alpn h2
	option h1-case-adjust-bogus-server
	server apstatd 127.0.0.1:@PORT@
"""


MAKE_CERTIFICATE = (
    "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=apstatd"
    " -keyout certificate.pem.key -out certificate.pem"
)


def rows():
    """Of the table: what a client, on a way to the daemon, gets in each column."""
    found = {}
    with open(DOCUMENT, encoding="utf-8") as file:
        for line in file:
            cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
            if len(cells) == 2 + len(COLUMNS) and cells[2][:1].isdigit():
                found[cells[0], cells[1]] = dict(zip(COLUMNS, cells[2:]))
    return found


def url_of(port):
    scheme = "https" if port in PORTS_H2.values() else "http"
    return f"{scheme}://{ADDRESS}:{port}"


class Proxy:
    """A proxy in front of a daemon, as a child of ours with its files in a folder of its own."""

    def __init__(self, program, options, configuration, daemon, ports):
        self.folder = tempfile.TemporaryDirectory()
        path = os.path.join(self.folder.name, "configuration")
        with open(path, "w", encoding="ascii") as file:
            file.write(configuration.replace("@PORT@", str(daemon.address[1])))
        subprocess.run(MAKE_CERTIFICATE.split(), cwd=self.folder.name, capture_output=True, check=True)
        program = shutil.which(program, path=os.environ["PATH"] + ":/usr/sbin")
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [program, *options.split(), path],
            stdin=subprocess.DEVNULL,
            stdout=self.errors,
            stderr=self.errors,
            cwd=self.folder.name,
            preexec_fn=die_with_the_test,
        )
        for port in ports:
            wait_until(lambda port=port: self._accepts(port), "the proxy is there")

    def _accepts(self, port):
        if self.process.poll() is not None:
            self.errors.seek(0)
            raise AssertionError(f"the proxy has ended: {self.errors.read().decode()}")
        with socket.socket() as client:
            return client.connect_ex((ADDRESS, port)) == 0

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.errors.close()
        self.folder.cleanup()


def start_nginx(daemon, configuration=NGINX):
    return Proxy("nginx", "-p . -e error.log -c", configuration, daemon, (PORTS["nginx"], PORTS_H2["nginx"]))


def start_haproxy(daemon):
    ports = [port for name, port in [*PORTS.items(), *PORTS_H2.items()] if name != "nginx"]
    return Proxy("haproxy", "-db -f", HAPROXY, daemon, ports)


class Request:
    def __init__(self, method, target, body=None, chunked=False):
        self.method = method
        self.target = target
        self.body = body
        self.chunked = chunked

    def text(self, host, length_name="Content-Length"):
        """As a raw socket sends it."""
        head = f"{self.method} {self.target} HTTP/1.1\r\nHost: {host}\r\n".encode()
        if self.body is None:
            return head + b"\r\n"
        if self.chunked:
            chunk = b"%x\r\n%b\r\n0\r\n\r\n" % (len(self.body), self.body)
            return head + b"Transfer-Encoding: chunked\r\n\r\n" + chunk
        return head + b"%b: %d\r\n\r\n" % (length_name.encode(), len(self.body)) + self.body

    def plain(self):
        """As JSON has it."""
        body = None if self.body is None else self.body.decode()
        return {"method": self.method, "target": self.target, "body": body, "chunked": self.chunked}


# Each client asks one after the other, on one connection as long as that stays open, and returns a code and a body
# for each request.


def ask_raw(port, requests, length_name="Content-Length"):
    """A new connection is made only once the one before has been announced to end, and has ended."""
    answers = []
    with contextlib.ExitStack() as clients:
        client = None
        for request in requests:
            client = client or clients.enter_context(Client((ADDRESS, port)))
            client.send(request.text(f"{ADDRESS}:{port}", length_name))
            answer = client.read(has_body=request.method != "HEAD")
            answers.append((answer.code, answer.body))
            if re.search(rb"(?i)\r\nConnection: close\r\n", answer.bytes):
                if rest := client.read_to_the_end():
                    raise AssertionError(f"after the last answer there came {rest!r}")
                client = None
    return answers


def ask_raw_in_lower_case(port, requests):
    return ask_raw(port, requests, "content-length")


def curl_words(request, url, folder, index):
    words = ["--output", f"{folder}/{index}", "--write-out", "%{http_code}\n", url + request.target]
    if request.method == "HEAD":
        return ["--head", *words]
    if request.body is None:
        return words
    with open(f"{folder}/body{index}", "wb") as file:
        file.write(request.body)
    if request.chunked:
        # From a pipe its length is not known.
        return ["--request", "POST", "--header", "Expect:", "--upload-file", "-", *words]
    return ["--data-binary", f"@{folder}/body{index}", *words]


def ask_curl(port, requests, *options):
    url = url_of(port)
    with tempfile.TemporaryDirectory() as folder:
        words = []
        for index, request in enumerate(requests):
            words += ["--next"] if index else []
            words += [*CURL[1:], *options, *curl_words(request, url, folder, index)]
        body = next((request.body for request in requests if request.chunked), b"")
        result = subprocess.run([CURL[0], *words], input=body, capture_output=True, timeout=PATIENCE_S, check=False)
        codes = [int(code) for code in result.stdout.split()]
        answers = []
        for index, (request, code) in enumerate(zip(requests, codes)):
            with open(f"{folder}/{index}", "rb") as file:
                answers.append((code, file.read() if request.method != "HEAD" else b""))
    if result.returncode != 0:
        raise AssertionError(f"curl {words}: {result.stderr.decode()}")
    return answers


def ask_curl_h2(port, requests):
    return ask_curl(port, requests, "--http2", "--insecure")


# What Node and Chromium run; a fetch there reuses connections by itself.
FETCH = """async (url, requests) => {
	const answers = [];
	for (const request of requests) {
		const bytes = request.body === null ? null : new TextEncoder().encode(request.body);
		const options = {method: request.method, body: bytes};
		if (request.chunked) {
			options.duplex = 'half';
			options.body = new ReadableStream({start(stream) { stream.enqueue(bytes); stream.close(); }});
		}
		const answer = await fetch(url + request.target, options);
		answers.push([answer.status, await answer.text()]);
	}
	return answers;
}"""


def fetcher(run):
    """A client that asks by fetch; `run` calls FETCH with its arguments, and returns what that returns."""

    def ask(port, requests):
        answers = run(url_of(port), [request.plain() for request in requests])
        return [(code, text.encode()) for code, text in answers]

    return ask


class Node:
    """Node, which takes a line of arguments at a time."""

    SCRIPT = f"""
        require('readline').createInterface({{input: process.stdin}}).on('line', async line =>
            console.log(JSON.stringify(await ({FETCH})(...JSON.parse(line)))));
    """

    def __init__(self):
        self.process = subprocess.Popen(
            ["node", "-e", self.SCRIPT],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            preexec_fn=die_with_the_test,
        )

    def run(self, *arguments):
        self.process.stdin.write(json.dumps(arguments).encode() + b"\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def stop(self):
        self.process.kill()
        self.process.communicate()


class PeersTest(unittest.TestCase):
    """A daemon with LEDs, in a private network."""

    options = ()

    @classmethod
    def setUpClass(cls):
        enter_private_network()

    def setUp(self):
        hardware = Hardware()
        self.addCleanup(hardware.folder.cleanup)
        self.daemon = hardware.start("--port", "0", *self.options)
        self.addCleanup(daemons.look_over, self, self.daemon)

    def start(self, proxy):
        self.addCleanup(proxy.stop)

    def start_proxies(self):
        self.start(start_nginx(self.daemon))
        self.start(start_haproxy(self.daemon))

    def ways(self):
        """To the daemon, and the ports at which clients enter them."""
        return {"none": self.daemon.address[1], **PORTS}


class Table(PeersTest):
    """Each client with one test for its rows."""

    def setUp(self):
        super().setUp()
        self.table = rows()
        self.asked = 0

    def own(self):
        """A request whose answer is no other's, and that answer."""
        self.asked += 1
        return Request("GET", f"/param?x={self.asked}"), (200, b"x=%d\n" % self.asked)

    def question(self, column):
        """What is asked there, and the answer if it is a good one."""
        if column == "GET":
            return self.own()
        if column == "HEAD":
            return Request("HEAD", self.own()[0].target), (200, b"")
        body = HIDDEN if column == "hidden request" else b"sent in %s" % column.encode()
        return Request("POST", "/echo", body, chunked=column == "chunked POST"), (200, body)

    def check_row(self, client, way, ask, port):
        """After each question comes another on the same connection, and then one of a stranger."""
        row = self.table[client, way]
        for column in COLUMNS:
            with self.subTest(client=client, proxy=way, column=column):
                if row[column] == "-":
                    continue
                if column == "pipelined":
                    self.check_pipelined(port)
                else:
                    self.check_column(ask, port, column, row[column])
                self.check_stranger(PORTS.get(way, port))
                self.assertIsNone(self.daemon.status()["led"], "a body was executed")

    def check_column(self, ask, port, column, cell):
        question, answer = self.question(column)
        next_question, next_answer = self.own()
        answers = ask(port, [question, next_question])
        if cell == "200":
            self.assertEqual(answers, [answer, next_answer])
        else:
            self.assertEqual((str(answers[0][0]), *answers[1:]), (cell, next_answer))

    def check_stranger(self, port):
        question, answer = self.own()
        with Client((ADDRESS, port)) as stranger:
            self.assertEqual(stranger.ask(question.text(ADDRESS)).body, answer[1])

    def check_pipelined(self, port):
        questions, answers = zip(*(self.own() for _ in range(3)))
        with Client((ADDRESS, port)) as client:
            client.send(b"".join(question.text(ADDRESS) for question in questions))
            self.assertEqual([client.read().body for _ in questions], [body for _, body in answers])

    def test_raw_socket_on_every_way(self):
        self.start_proxies()
        for way, port in self.ways().items():
            self.check_row("raw socket", way, ask_raw, port)

    def test_raw_socket_with_names_in_lower_case(self):
        self.check_row("raw socket, lower case", "none", ask_raw_in_lower_case, self.daemon.address[1])

    def test_curl_on_every_way(self):
        self.start_proxies()
        for way, port in self.ways().items():
            self.check_row("curl", way, ask_curl, port)

    def test_curl_with_http_2_through_every_proxy(self):
        self.start_proxies()
        for way, port in PORTS_H2.items():
            self.check_row("curl, HTTP/2", way, ask_curl_h2, port)

    def test_fetch_of_node_on_every_way(self):
        node = Node()
        self.addCleanup(node.stop)
        self.start_proxies()
        for way, port in self.ways().items():
            self.check_row("fetch of Node", way, fetcher(node.run), port)

    def test_chromium_on_every_way(self):
        browser = Browser("--ignore-certificate-errors")
        self.addCleanup(browser.stop)
        ask = fetcher(lambda *arguments: browser.run(f"return ({FETCH})(...arguments)", *arguments))
        self.start_proxies()
        for client, ports in (("Chromium", self.ways()), ("Chromium, HTTP/2", PORTS_H2)):
            for way, port in ports.items():
                browser.open(url_of(port) + "/param?x=page")
                self.check_row(client, way, ask, port)

    def test_proxies_use_a_connection_for_many_clients(self):
        """Not for each: one may still be busy with the end of an answer when the next client comes."""
        self.start_proxies()
        before = self.daemon.status()["open_connections"]
        for port in PORTS.values():
            for _ in range(20):
                self.check_stranger(port)
        after = self.daemon.status()["open_connections"]
        self.assertLess(after - before, 10 * len(PORTS))


class Refusals(PeersTest):
    """What is refused before anybody looks at what it asks for."""

    LENGTHS = (
        b"content-length: %d",
        b"CONTENT-LENGTH: %d",
        b"Content-length: %d",
        b"Content-Length : %d",
        b"Content-Length\t: %d",
        b"Content-Length\x0b: %d",
        b"Content-\x7fLength: %d",
        b" Content-Length: %d",
        b"Transfer-Encoding: chunked",
        b"transfer-encoding: chunked",
        b"TRANSFER-ENCODING: identity",
        b"Transfer-Encoding : chunked",
        b"X: 1\r\ncontent-length:\r\n %d",
        b"X: 1\nContent-Length: %d",
        b"X: 1\rContent-Length: %d",
        b"X: 1\r\r\n\tContent-Length: %d",
        b"X: 1\r\n\t\nContent-Length: %d",
    )
    LENIENT = (b"Content-Length: +%d", b"Content-Length: -0", b"Content-Length: \x0b%d")

    def ask(self, request):
        with self.daemon.connect() as client:
            return client.ask(request)

    def post_led(self, state, *lines):
        lines = b"".join(line.encode("latin-1") + b"\r\n" for line in lines)
        return self.ask(b"POST /led?state=%d HTTP/1.1\r\n%b\r\n" % (state, lines))

    def check_refused(self, *lines):
        answer = self.post_led(5, *lines)
        self.assertEqual(answer.status_line, "HTTP/1.1 403 ", lines)
        self.assertIsNone(self.daemon.status()["led"], lines)

    def check_obeyed(self, *lines):
        """Each time there is something to change."""
        state = 5 if self.daemon.status()["led"] == 2 else 2
        self.assertEqual(self.post_led(state, *lines).body, b'{"state": %d}\n' % state, lines)
        self.assertEqual(self.daemon.status()["led"], state, lines)

    def test_a_hidden_request_is_obeyed_where_it_is_not_hidden(self):
        self.ask(HIDDEN)
        self.assertEqual(self.daemon.status()["led"], 5)

    def check_length(self, line, method=b"POST", more=b""):
        with self.daemon.connect() as client:
            line = line.replace(b"%d", b"%d" % len(HIDDEN))
            client.send(method + b" /echo HTTP/1.1\r\n%b\r\n%bHost: 127.0.0.1\r\n\r\n%b" % (line, more, HIDDEN))
            rest = client.read_to_the_end()
        self.assertTrue(rest.startswith(b"HTTP/1.1 400 Bad Request\r\n"), (line, rest))
        self.assertEqual(rest.count(b"HTTP/1."), 1, (line, rest))
        self.assertIn(b"\r\nConnection: close\r\n", rest)
        self.assertIsNone(self.daemon.status()["led"], line)

    def test_a_length_that_is_not_understood_is_refused_and_the_connection_closed(self):
        for line in self.LENGTHS + self.LENIENT:
            for method in (b"POST", b"GET", b"PUT"):
                self.check_length(line, method)

    def test_a_length_that_is_understood_does_not_make_up_for_one_that_is_not(self):
        for line in self.LENGTHS:
            self.check_length(line, more=b"Content-Length: 0\r\n")

    def test_a_length_in_the_target_is_none(self):
        for line_end in (b"\n", b"\r", b"\r\n"):
            target = b"/echo?1234567" + line_end + b"Content-Length:%d" % len(HIDDEN)
            with self.daemon.connect() as client:
                client.send(b"POST " + target + b" HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" + HIDDEN)
                self.assertTrue(client.read_to_the_end().startswith(b"HTTP/1.1 400 Bad Request\r\n"), target)
            self.assertIsNone(self.daemon.status()["led"], target)

    def test_names_that_only_look_alike_are_headers_like_any_other(self):
        for line in ("Content-Lengths: 9", "X-Content-Length: 9", "Content-Lengt: 9", "Transfer-Encodings: x"):
            self.check_obeyed("Host: 127.0.0.1", line)

    def test_what_is_no_name_of_ours_may_change_nothing(self):
        self.check_refused()
        port = self.daemon.address[1]
        for host in (
            "example.com", f"example.com:{port}", "127.0.0.2", "127.0.0.1.example.com", "localhost.example.com",
            "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:80x", "127.0.0.1 ,", "[::1]", "0.0.0.0",
            "user@127.0.0.1", "127.0.0.1/", "127.0.0.1%00", "127.0.0.1?", " ", "x" * 300, "127.0.0.1\0", "apstatd",
            "12", "127.0.0.1\r\n\t80", "2130706433", "127.1",
        ):  # fmt: skip
            self.check_refused(f"Host: {host}")
        self.check_refused("Host: 127.0.0.1", "Host: example.com")
        self.check_refused("Host: example.com", "host: 127.0.0.1")

    def test_our_address_and_localhost_are_names_of_ours(self):
        for host in ("127.0.0.1", "127.0.0.1:80", "localhost", "LocalHost:8080"):
            for name in ("Host", "host", "HOST"):
                self.check_obeyed(f"{name}: {host}")
                self.check_obeyed(f"{name}: \t{host} ")

    def test_localhost_is_no_name_of_another_address(self):
        subprocess.run(["ip", "address", "add", "192.0.2.1/32", "dev", "lo"], check=True)
        daemon = Daemon("--address", "0.0.0.0", "--port", "0")
        self.addCleanup(daemons.look_over, self, daemon)
        with Client(("192.0.2.1", daemon.address[1])) as client:
            for host, code in ((b"localhost", 403), (b"127.0.0.1", 403), (b"0.0.0.0", 403), (b"192.0.2.1", 200)):
                request = b"POST /echo HTTP/1.1\r\nHost: %b\r\n\r\n" % host
                self.assertEqual(client.ask(request).code, code, host)

    def test_a_page_of_another_host_may_change_nothing(self):
        port = self.daemon.address[1]
        for origin in (
            "null", "http://example.com", f"http://example.com:{port}", "http://127.0.0.1:1", "http://localhost",
            f"http://127.0.0.1:{port}/", f"ftp://127.0.0.1:{port}", f"127.0.0.1:{port}", "http://127.0.0.1", " ",
            f"http://127.0.0.1:{port}.example.com", f"http://127.0.0.1:{port} http://example.com",
        ):  # fmt: skip
            for name in ("Origin", "origin"):
                self.check_refused(f"Host: 127.0.0.1:{port}", f"{name}: {origin}")
        own = f"http://127.0.0.1:{port}"
        self.check_refused(f"Host: 127.0.0.1:{port}", f"Origin: {own}", "origin: http://example.com")
        self.check_refused(f"Host: example.com:{port}", f"Origin: http://example.com:{port}")

    def test_a_page_of_ours_may(self):
        for origin in ("http://127.0.0.1:9", "https://127.0.0.1:9", "HTTP://127.0.0.1:9"):
            for name in ("Origin", "origin"):
                self.check_obeyed("Host: 127.0.0.1:9", f"{name}: {origin}")

    def test_the_host_of_an_absolute_target_is_the_same(self):
        for host, code in ((b"127.0.0.1", 200), (b"example.com", 403), (b"127.0.0.1:1", 403), (b"", 200)):
            request = b"POST http://%b/echo HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % host
            self.assertEqual(self.ask(request).code, code, host)

    def test_what_changes_nothing_is_answered_under_any_name(self):
        request = b"GET /param?x=1 HTTP/1.1\r\nHost: example.com\r\nOrigin: null\r\n\r\n"
        self.assertEqual(self.ask(request).body, b"x=1\n")

    def test_a_connection_goes_on_after_a_refusal_of_its_sender(self):
        with self.daemon.connect() as client:
            body = b"POST /echo HTTP/1.1\r\nHost: example.com\r\nContent-Length: %d\r\n\r\n" % len(HIDDEN)
            self.assertEqual(client.ask(body + HIDDEN).code, 403)
            self.assertEqual(client.get("/param?x=1").body, b"x=1\n")
            self.assertIsNone(self.daemon.status()["led"])

    def test_apctl_refuses_the_same(self):
        apctl = daemons.Daemon("apctl")
        self.addCleanup(daemons.look_over, self, apctl)
        body = b'{"name": "hall", "led": "power", "on": true}'
        for lines, code in (
            (b"Host: 127.0.0.1\r\nContent-Length", 404),  # there is no access point of that name
            (b"Host: example.com\r\nContent-Length", 403),
            (b"Host: 127.0.0.1\r\nOrigin: null\r\nContent-Length", 403),
            (b"Host: 127.0.0.1\r\ncontent-length", 400),
        ):
            with apctl.connect() as client:
                request = b"POST /led HTTP/1.1\r\n%b: %d\r\n\r\n%b" % (lines, len(body), body)
                self.assertEqual(client.ask(request).code, code, lines)


class Named(PeersTest):
    """A daemon that has been told the name it is reached by."""

    options = ("--host", "ap.example")

    def echo(self, port, host, *lines):
        lines = "".join(line + "\r\n" for line in (f"Host: {host}", *lines))
        with Client((ADDRESS, port)) as client:
            return client.ask(f"POST /echo HTTP/1.1\r\n{lines}\r\n".encode()).code

    def test_it_is_reached_by_that_name_and_its_address(self):
        port = self.daemon.address[1]
        hosts = {"ap.example": 200, "AP.example:443": 200, "127.0.0.1": 200, "ap.example.com": 403, "example": 403}
        for host, code in hosts.items():
            self.assertEqual(self.echo(port, host), code, host)

    def test_what_cannot_be_such_a_name_is_refused_at_start(self):
        for host in ("", "ap:80", "ap/", "http://ap", "a b", "%"):
            result = daemons.run_to_its_end("apstatd", "--host", host)
            message = f"apstatd: bad host '{host}': a name without a port is wanted\n"
            self.assertEqual((result.returncode, result.stderr), (2, message))

    def test_pages_that_a_proxy_serves_under_that_name_are_its_own(self):
        self.start_proxies()
        for port in PORTS.values():
            self.assertEqual(self.echo(port, "ap.example", "Origin: https://ap.example"), 200)
            self.assertEqual(self.echo(port, "ap.example", "Origin: https://example.com"), 403)


class Pages(PeersTest):
    """What pages that somebody has open can do, in Chromium."""

    SCRIPT = """
        return (async (url) => {
            const options = {method: 'POST', mode: 'no-cors'};
            return (await fetch(url + '/led?state=5', options)).status;
        })(...arguments)"""

    def test_only_our_own_page_changes_something(self):
        port = self.daemon.address[1]
        other = Daemon()
        self.addCleanup(daemons.look_over, self, other)
        browser = Browser("--host-resolver-rules=MAP rebound.example 127.0.0.1")
        self.addCleanup(browser.stop)
        for page, code in (
            (f"http://rebound.example:{port}", 403),
            (f"http://127.0.0.1:{other.address[1]}", 0),  # where the code is not shown to the page
            (f"http://localhost:{port}", 200),
            (f"http://127.0.0.1:{port}", 200),
        ):
            self.set_led(2)
            target = self.daemon.url if code == 0 else page
            browser.open(page + "/param?x=page")
            self.assertEqual(browser.run(self.SCRIPT, target), code, page)
            self.assertEqual(self.daemon.status()["led"], 5 if code == 200 else 2, page)

    def set_led(self, state):
        with self.daemon.connect() as client:
            client.ask(b"POST /led?state=%d HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % state)


class Manners(PeersTest):
    """What else clients do that a handler would not expect."""

    def test_a_body_that_waits_to_be_asked_for_is_answered_once_it_comes(self):
        with self.daemon.connect() as client:
            head = b"POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 4\r\n"
            client.send(head + b"Expect: 100-continue\r\n\r\n")
            self.assertEqual(client.ask(b"body").body, b"body")

    def test_a_peer_that_sends_no_more_gets_its_answers(self):
        requests = b"GET /param?x=1 HTTP/1.1\r\n\r\n", b"GET /slow?ms=1 HTTP/1.1\r\n\r\n"
        for request, body in zip(requests, (b"x=1\n", b"done\n")):
            with self.daemon.connect() as client:
                client.send(request)
                client.socket.shutdown(socket.SHUT_WR)
                self.assertEqual(client.read().body, body)
                self.assertEqual(client.read_to_the_end(), b"")

    def test_http_2_to_the_daemon_itself_is_refused(self):
        result = subprocess.run([*CURL, "--http2-prior-knowledge", self.daemon.url], capture_output=True, check=False)
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(curl("--http2", self.daemon.url + "/param?x=1"), b"x=1\n")

    def test_head_tells_what_get_would_and_sends_no_body(self):
        for target in ("/", "/param?x=1", "/slow?ms=1", "/run?code=3"):
            with self.daemon.connect() as client:
                request = f" {target} HTTP/1.1\r\n\r\n".encode()
                page = client.ask(b"GET" + request)
                client.send(b"HEAD" + request)
                head = client.read(has_body=False)
                self.assertEqual(head.bytes + page.body, page.bytes)
                self.assertEqual(client.get("/param?x=next").body, b"x=next\n")

    def test_head_of_what_there_is_not_sends_no_page(self):
        with self.daemon.connect() as client:
            for target, code in (("/nope", 404), ("/echo", 405), ("/param", 400)):
                client.send(f"HEAD {target} HTTP/1.1\r\n\r\n".encode())
                self.assertEqual(client.read(has_body=False).code, code)
                self.assertEqual(client.get("/param?x=next").body, b"x=next\n")


if __name__ == "__main__":
    daemons.main(__doc__)
