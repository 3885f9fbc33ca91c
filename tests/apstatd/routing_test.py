"""
What apstatd answers to requests of every form: unknown paths and methods, old versions, pipelines, malformed ones.

Usage: routing_test.py APSTATD APCTL UBUSD UBUS [TEST...]
"""

import daemons
from apstatd import COMMON, DaemonTest
from daemons import Client, curl


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


if __name__ == "__main__":
    daemons.main(__doc__)
