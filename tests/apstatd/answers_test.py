"""
apstatd's routes as curl and raw sockets see them: the page's source, status, history, echo and parameters.

Usage: answers_test.py APSTATD APCTL UBUSD UBUS [TEST...]
"""

import html.parser
import json
import os
import re
import tempfile
import time

import daemons
from apstatd import COMMON, DaemonTest
from daemons import curl

NUMBERS = {"pid", "uptime_s", "requests", "open_connections", "deferred_answers", "timers_fired"}


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


if __name__ == "__main__":
    daemons.main(__doc__)
