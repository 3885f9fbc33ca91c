"""
The two example daemons and the message bus between them: real processes, a real bus daemon (the one built
here, or what the environment variable UBUSD names), the `ubus` command, curl, and a client that speaks the bus's
protocol by itself, for what no library would send.

Usage: apctl_test.py APSTATD APCTL UBUSD UBUS [TEST...]

Every test has a bus of its own on a socket in a folder of its own. In the end all daemons are stopped with a
signal: the exit status has to be 0 and standard error empty, which in a sanitized build means that nothing leaked.
Run it as root: the bus lets nobody else add objects.
"""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import unittest

import daemons
from daemons import PATIENCE_S, PROGRAMS, curl, wait_until

INVALID_ARGUMENT, METHOD_NOT_FOUND = 2, 3
LEDS = {"power": True, "wlan": False}  # as apstatd starts
APS_MAX = 32  # that apctl keeps


class Bus:
    """A bus daemon that can be started and killed, and what there is to reach it."""

    def __init__(self, test):
        self.test = test
        self.folder = tempfile.mkdtemp()
        test.addCleanup(shutil.rmtree, self.folder)
        self.path = os.path.join(self.folder, "bus")
        self.process = None
        test.addCleanup(self.kill)

    def start(self):
        self.process = subprocess.Popen(
            [os.environ.get("UBUSD", PROGRAMS["ubusd"]), "-s", self.path],
            stdin=subprocess.DEVNULL,
            preexec_fn=daemons.die_with_the_test,
        )
        wait_until(self._accepts, "the bus is there")

    def _accepts(self):
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(self.path) == 0

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def restart(self):
        self.kill()
        self.start()

    def command(self, *words):
        return [PROGRAMS["ubus"], "-s", self.path, *words]

    def run(self, *words):
        return subprocess.run(
            self.command(*words),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=PATIENCE_S,
            check=False,
        )

    def call(self, path, method, **arguments):
        """The answer to a call with a JSON message; a failure of the call fails the test."""
        return self.call_raw(path, method, json_attribute(json.dumps(arguments).encode()))

    def call_raw(self, path, method, content):
        """The same with any content. The command `ubus` of a device writes no such messages, nor reads them."""
        client = RawClient(self.test, self)
        client.send_call(client.id_of(path), method, content)
        status, told = client.answer()
        client.socket.close()
        if status != 0:
            raise AssertionError(f"{path} {method} {content}: status {status}")
        return json_of(told[RawClient.CONTENT])

    def objects(self):
        return self.run("list").stdout.split()

    def wait_for_objects(self, *paths):
        wait_until(lambda: self.objects() == sorted(paths), lambda: f"for {paths}: {self.objects()}")


def padded(data):
    return data + bytes(-len(data) % 4)


def attribute(number, payload):
    return padded(struct.pack(">I", number << 24 | len(payload) + 4) + payload)


def named(kind, name, value):
    head = padded(struct.pack(">H", len(name)) + name + b"\0")
    return padded(struct.pack(">I", 0x80000000 | kind << 24 | len(head + value) + 4) + head + value)


def json_attribute(text):
    return named(0, b"json", text)


def json_of(content):
    """What the first attribute says; it is named "json"."""
    (word,) = struct.unpack(">I", content[:4])
    assert word >> 24 == 0x80 and content[4:10] == b"\0\4json", content
    return json.loads(content[12 : word & 0xFFFFFF])


class RawClient:
    """A client of the bus that sends any bytes as the content of a call, or of a notification."""

    ADD_OBJECT, LOOKUP, INVOKE, SUBSCRIBE, NOTIFY, DATA, STATUS = 6, 4, 5, 8, 10, 2, 1
    OBJECT_ID, METHOD, CONTENT, TARGET = 3, 4, 7, 8  # attributes

    def __init__(self, test, bus):
        self.socket = socket.socket(socket.AF_UNIX)
        test.addCleanup(self.socket.close)
        self.socket.settimeout(PATIENCE_S)
        self.socket.connect(bus.path)
        self.seq = 0
        self.read()  # the bus says hello

    def send(self, kind, peer, attributes):
        self.seq = self.seq + 1 & 0xFFFF
        self.socket.sendall(struct.pack(">BBHI", 0, kind, self.seq, peer) + attribute(0, attributes))

    def receive(self, count):
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                raise ConnectionError("the bus has hung up")
            data += piece
        return data

    def read(self):
        """The next message: its type, its sequence number and its attributes by their ids."""
        _, kind, seq, _, length = struct.unpack(">BBHII", self.receive(12))
        body = self.receive(length - 4)
        found = {}
        while body:
            (word,) = struct.unpack(">I", body[:4])
            size = word & 0xFFFFFF
            found[word >> 24 & 0x7F] = body[4:size]
            body = body[size + -size % 4 :]
        return kind, seq, found

    def answer(self):
        """The status of the latest request, and what came before that."""
        told = {}
        while True:
            kind, seq, found = self.read()
            if seq == self.seq and kind == self.STATUS:
                return struct.unpack(">I", found[1])[0], told
            if seq == self.seq and kind == self.DATA:
                told |= found

    def ask(self, kind, peer, attributes):
        self.send(kind, peer, attributes)
        return self.answer()

    def id_of(self, path):
        status, told = self.ask(self.LOOKUP, 0, attribute(2, path.encode() + b"\0"))
        assert status == 0, status
        return struct.unpack(">I", told[3])[0]

    def send_call(self, object_id, method, content):
        number = struct.pack(">I", object_id)
        parts = attribute(3, number) + attribute(4, method.encode() + b"\0") + attribute(7, content)
        self.send(self.INVOKE, object_id, parts)

    def call(self, object_id, method, content):
        self.send_call(object_id, method, content)
        return self.answer()[0]

    def add_object(self, path):
        """With one method, or nobody would find it."""
        parts = attribute(2, path.encode() + b"\0") + attribute(6, named(2, b"set_led", b""))
        status, told = self.ask(self.ADD_OBJECT, 0, parts)
        assert status == 0, status
        return struct.unpack(">I", told[3])[0]

    def notify(self, object_id, name, content):
        number = struct.pack(">I", object_id)
        parts = attribute(3, number) + attribute(4, name.encode() + b"\0") + attribute(7, content)
        self.send(self.NOTIFY, object_id, parts + attribute(10, b"\1"))

    def wait_for_subscriber(self):
        """Until the bus says that somebody has subscribed to an object of ours."""
        while True:
            kind, _, found = self.read()
            if kind == self.NOTIFY and found.get(9) == b"\1":
                return


class Subscriber(RawClient):
    """One that is there; its notifications are read with `next`."""

    def __init__(self, test, bus, path):
        super().__init__(test, bus)
        status, told = self.ask(self.ADD_OBJECT, 0, b"")
        assert status == 0, status
        ours = attribute(self.OBJECT_ID, told[self.OBJECT_ID])
        target = attribute(self.TARGET, struct.pack(">I", self.id_of(path)))
        status, _ = self.ask(self.SUBSCRIBE, 0, ours + target)
        assert status == 0, status

    def skip_to(self, notification):
        while self.next() != notification:
            pass

    def next(self):
        """The next notification as {name: content}."""
        kind = None
        while kind != self.INVOKE:
            kind, _, found = self.read()
        return {found[self.METHOD].rstrip(b"\0").decode(): json_of(found[self.CONTENT])}


# What must not pass for the JSON of a message, whatever it is asked to mean.
NOT_JSON = {
    "no attribute": b"",
    "another attribute": named(0, b"jsno", b'{"led": "power", "on": false}'),
    "nothing": json_attribute(b""),
    "a scalar": json_attribute(b"42"),
    "a text": json_attribute(b'"power"'),
    "half an object": json_attribute(b'{"led": "power", "on": fal'),
    "more than an object": json_attribute(b'{"led": "power", "on": false} {}'),
    "a zero behind": json_attribute(b'{"led": "power", "on": false}\0'),
    "a zero inside": json_attribute(b'{"led": "po\0wer", "on": false}'),
    "an escaped zero": json_attribute(b'{"led": "power\\u0000", "on": false}'),
    "invalid UTF-8": json_attribute(b'{"led": "power\xff", "on": false}'),
    "a surrogate": json_attribute(b'{"led": "power\\ud800", "on": false}'),
    "a huge number": json_attribute(b'{"led": "power", "on": 1e999999}'),
    "a huge integer": json_attribute(b'{"led": "power", "on": %s}' % (b"9" * 1000)),
    "deep nesting": json_attribute(b"[" * 200000),
    "a string attribute with its zero": named(3, b"json", b'{"led": "power", "on": false}\0'),
    "a number": named(5, b"json", b"\0\0\0\1"),
    "a table": named(2, b"json", named(3, b"led", b"power\0")),
    "a string without its zero": named(3, b"json", b'{"led": "power", "on": false}'),
    "a name without its end": struct.pack(">IH", 0x80000000 | 8, 500) + b"js",
}

NOT_AN_LED = (
    [],
    {},
    {"led": "power"},
    {"on": False},
    {"led": "power", "on": 0},
    {"led": "power", "on": "false"},
    {"led": "power", "on": None},
    {"led": 1, "on": False},
    {"led": ["power"], "on": False},
    {"led": "", "on": False},
    {"led": "POWER", "on": False},
    {"led": "no such LED", "on": False},
    {"led": "power ", "on": False},
    {"led": "p" * 15, "on": False},
    {"led": "p" * 16, "on": False},
    {"led": "p" * 100000, "on": False},
    {"led": "päwer", "on": False},
)


class BusTest(unittest.TestCase):
    """A test with a bus, which runs, and daemons, which are looked over in the end."""

    def setUp(self):
        self.bus = Bus(self)
        self.bus.start()

    def start(self, program, *options):
        daemon = daemons.Daemon(program, "--port", "0", *options, bus=self.bus.path)
        self.addCleanup(daemons.look_over, self, daemon)
        return daemon

    def start_both(self):
        apctl, apstatd = self.start("apctl"), self.start("apstatd")
        self.wait_for_ap(apctl, "apstat")
        self.wait_for_announcement(apstatd)
        return apctl, apstatd

    def stop(self, daemon):
        daemons.look_over(self, daemon)

    def kill(self, daemon):
        """Without a chance to say good-bye."""
        daemon.process.kill()
        daemon.wait()
        self.assertEqual(daemon.read_stderr(), "")
        daemon.stderr.close()

    def aps(self, apctl):
        return {ap["name"]: ap for ap in apctl.ask_json("/aps")}

    def wait_for_ap(self, apctl, name, **wanted):
        """Until apctl has an access point of this name that is within reach and has these values."""
        wanted = {"reachable": True} | wanted

        def matches():
            ap = self.aps(apctl).get(name)
            return ap if ap and wanted.items() <= ap.items() else None

        return wait_until(matches, lambda: f"for {name} {wanted}: {self.aps(apctl)}")

    def wait_for_announcement(self, apstatd, **wanted):
        return apstatd.wait_for("/bus", connected=True, subscribed=True, announced=True, **wanted)

    def subscribe(self, path):
        return Subscriber(self, self.bus, path)


class Joining(BusTest):
    def test_both_find_each_other_whoever_comes_first(self):
        for first, second in (("apctl", "apstatd"), ("apstatd", "apctl")):
            running = {first: self.start(first)}
            running[second] = self.start(second)
            ap = self.wait_for_ap(running["apctl"], "apstat", object="apstat", leds=LEDS)
            self.assertEqual(ap["url"], running["apstatd"].url + "/")
            self.wait_for_announcement(running["apstatd"], access_points=1, object="apstat")
            self.assertEqual(self.bus.objects(), ["apctl", "apstat"])
            for daemon in running.values():
                self.stop(daemon)
            self.assertEqual(self.bus.objects(), [])

    def test_a_bus_that_starts_late_is_joined(self):
        self.bus.kill()
        apctl, apstatd = self.start("apctl"), self.start("apstatd")
        nothing = {"connected": False, "subscribed": False, "announced": False, "access_points": 0}
        self.assertEqual(apstatd.ask_json("/bus"), {"object": "apstat"} | nothing)
        self.bus.start()
        self.wait_for_ap(apctl, "apstat")
        self.wait_for_announcement(apstatd, access_points=1)

    def test_without_a_bus_the_rest_works_and_nothing_is_said(self):
        self.bus.kill()
        apctl, apstatd = self.start("apctl"), self.start("apstatd")
        self.assertEqual(curl(apstatd.url + "/slow?ms=3500"), b"done\n")  # meanwhile each looks for a bus
        self.assertEqual(apstatd.status()["timers_fired"], 1)
        self.assertEqual(apstatd.ask_json("/leds"), LEDS)
        self.assertEqual(apctl.ask_json("/aps"), [])
        for daemon in (apctl, apstatd):
            self.assertEqual(daemon.process.poll(), None)
            self.stop(daemon)

    def test_without_apctl_nothing_is_said(self):
        apstatd = self.start("apstatd")
        apstatd.wait_for("/bus", connected=True, subscribed=False, announced=False)
        self.assertEqual(curl(apstatd.url + "/slow?ms=3500"), b"done\n")
        self.assertEqual(self.bus.call("apstat", "status")["timers_fired"], 1)
        self.stop(apstatd)

    def test_a_bus_that_restarts_is_joined_again(self):
        apctl, apstatd = self.start_both()
        for _ in range(3):
            self.bus.kill()
            apstatd.wait_for("/bus", connected=False, subscribed=False, announced=False, access_points=0)
            wait_until(lambda: not self.aps(apctl)["apstat"]["reachable"], "apctl has noticed")
            self.bus.start()
            self.wait_for_ap(apctl, "apstat")
            self.wait_for_announcement(apstatd, access_points=1)
            self.assertEqual(self.bus.call("apstat", "status")["pid"], apstatd.process.pid)
            self.assertEqual(len(apctl.ask_json("/aps")), 1)

    def test_leds_work_in_every_direction_after_a_restart_of_the_bus(self):
        apctl, apstatd = self.start_both()
        self.bus.restart()
        self.wait_for_announcement(apstatd)
        self.wait_for_ap(apctl, "apstat")
        self.bus.call("apstat", "set_led", led="power", on=False)
        self.wait_for_ap(apctl, "apstat", leds={"power": False, "wlan": False})
        curl("--data", '{"name": "apstat", "led": "wlan", "on": true}', apctl.url + "/led")
        apstatd.wait_for("/leds", power=False, wlan=True)
        self.wait_for_ap(apctl, "apstat", leds={"power": False, "wlan": True})

    def test_a_led_changed_while_there_was_no_apctl_is_announced(self):
        apctl, apstatd = self.start_both()
        self.stop(apctl)
        self.bus.call("apstat", "set_led", led="wlan", on=True)
        apctl = self.start("apctl")
        self.wait_for_ap(apctl, "apstat", leds={"power": True, "wlan": True})

    def test_a_restarted_apctl_hears_from_everybody_again(self):
        apctl, apstatd = self.start_both()
        for end in (self.stop, self.kill, self.stop):
            end(apctl)
            apstatd.wait_for("/bus", connected=True, subscribed=False, announced=False)
            apctl = self.start("apctl")
            self.wait_for_ap(apctl, "apstat", object="apstat", leds=LEDS)
            self.wait_for_announcement(apstatd, access_points=1)

    def test_a_restarted_apstatd_is_found_again(self):
        apctl, apstatd = self.start_both()
        for end in (self.stop, self.kill, self.stop):
            end(apstatd)
            wait_until(lambda: not self.aps(apctl)["apstat"]["reachable"], "apctl has noticed")
            apstatd = self.start("apstatd")
            self.wait_for_ap(apctl, "apstat", url=apstatd.url + "/")
            self.assertEqual(len(apctl.ask_json("/aps")), 1)
            self.bus.call("apstat", "set_led", led="wlan", on=True)
            self.wait_for_ap(apctl, "apstat", leds={"power": True, "wlan": True})

    def test_named_access_points_share_a_bus(self):
        apctl = self.start("apctl")
        names = ["attic", "hall", "x" * 24]
        running = {name: self.start("apstatd", "--name", name) for name in names}
        for name in names:
            self.wait_for_ap(apctl, name, object="apstat." + name, url=running[name].url + "/")
            self.wait_for_announcement(running[name], access_points=3, object="apstat." + name)
        self.bus.call("apstat.hall", "set_led", led="power", on=False)
        self.wait_for_ap(apctl, "hall", leds={"power": False, "wlan": False})
        self.assertEqual(running["attic"].ask_json("/leds"), LEDS)
        self.assertEqual(self.aps(apctl)["attic"]["leds"], LEDS)
        self.assertEqual(self.bus.objects(), ["apctl"] + ["apstat." + name for name in names])

    def test_a_second_daemon_of_the_same_name_says_so_and_the_first_goes_on(self):
        first = self.start("apstatd")
        first.wait_for("/bus", connected=True)
        second = daemons.Daemon("apstatd", "--port", "0", bus=self.bus.path)
        second.wait_for("/bus", connected=True)
        self.assertEqual(self.bus.call("apstat", "status")["pid"], first.process.pid)
        self.assertEqual(second.stop(), 0)
        self.assertEqual(
            second.read_stderr(), "unable to add the object apstat to the bus: Invalid argument\n"
        )
        second.stderr.close()
        self.assertEqual(self.bus.call("apstat", "status")["pid"], first.process.pid)

    def ignores_sigpipe(self, pid):
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            ignored = int(re.search(r"^SigIgn:\t([0-9a-f]+)$", file.read(), re.MULTILINE)[1], 16)
        return bool(ignored & 1 << signal.SIGPIPE - 1)

    def test_a_child_of_run_does_not_inherit_what_libubus_ignores(self):
        apstatd = self.start("apstatd")
        apstatd.wait_for("/bus", connected=True)
        self.assertTrue(self.ignores_sigpipe(apstatd.process.pid))
        with apstatd.connect() as client:
            client.send(b"GET /run?seconds=30 HTTP/1.1\r\n\r\n")
            apstatd.wait_for(deferred_answers=1)
            pid = apstatd.process.pid
            with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
                child = int(file.read())
            self.assertFalse(self.ignores_sigpipe(child))


class Announcing(BusTest):
    def announcement(self, name="hall", **others):
        return {"name": name, "object": f"apstat.{name}", "url": "http://192.0.2.1/", "leds": {}} | others

    def test_announcement_is_accepted_and_listed(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        leds = {f"led-{index}": index % 2 == 0 for index in range(8)}
        answer = self.bus.call("apctl", "announce", **self.announcement(leds=leds))
        self.assertEqual(answer, {"accepted": True})
        (ap,) = apctl.ask_json("/aps")
        self.assertIn(ap.pop("last_seen_s"), range(PATIENCE_S))
        self.assertEqual(ap, self.announcement(leds=leds) | {"reachable": False})

    def test_announcement_of_a_known_name_replaces_what_was_known(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        for url in ("http://192.0.2.1/", "http://192.0.2.2/"):
            self.bus.call("apctl", "announce", **self.announcement(url=url))
        self.assertEqual([ap["url"] for ap in apctl.ask_json("/aps")], ["http://192.0.2.2/"])

    def test_announcement_is_notified_with_all_names(self):
        apctl, _ = self.start_both()
        subscriber = self.subscribe("apctl")
        self.bus.call("apctl", "announce", **self.announcement())
        self.assertEqual(subscriber.next(), {"aps": {"names": ["apstat", "hall"]}})
        self.bus.call("apctl", "announce", **self.announcement("attic"))
        self.assertEqual(subscriber.next(), {"aps": {"names": ["apstat", "hall", "attic"]}})

    def test_url_is_shown_as_json_whatever_it_is(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        url = 'http://"\\\n\t</script>é☃/'
        self.bus.call("apctl", "announce", **self.announcement(url=url))
        self.assertEqual(apctl.ask_json("/aps")[0]["url"], url)

    def test_hostile_announcements_are_invalid_arguments(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        good = self.announcement()
        bad = [good | {key: value} for key in good for value in (None, 1, [], True, ["x"], "", "x" * 100000)]
        bad = [content for content in bad if content["url"] != ""]
        bad += [{name: good[name] for name in good if name != key} for key in good]
        bad += [good | {"name": name} for name in ("x" * 25, "a b", "a/b", "é", "a\n")]
        bad += [good | {"object": path} for path in ("x" * 32, "*", "apstat.*", "a b", "é")]
        bad += [good | {"url": "http://" + "x" * 57}, good | {"url": "é" * 32}]
        bad_leds = ({"a": 1}, {"a": None}, {"": True}, {"x" * 16: True}, {"a b": True})
        bad += [good | {"leds": leds} for leds in bad_leds]
        bad += [good | {"leds": {f"{index}": True for index in range(9)}}, [good], [], {}]
        client = RawClient(self, self.bus)
        apctl_id = client.id_of("apctl")
        for content in bad:
            status = client.call(apctl_id, "announce", json_attribute(json.dumps(content).encode()))
            self.assertEqual(status, INVALID_ARGUMENT, f"{content}"[:200])
        for what, content in NOT_JSON.items():
            self.assertEqual(client.call(apctl_id, "announce", content), INVALID_ARGUMENT, what)
        self.assertEqual(apctl.ask_json("/aps"), [])

    def test_unknown_methods_are_not_found(self):
        self.start_both()
        client = RawClient(self, self.bus)
        for path in ("apctl", "apstat"):
            self.assertEqual(client.call(client.id_of(path), "reboot", b""), METHOD_NOT_FOUND)

    def test_strangers_beyond_the_bound_take_each_others_places_only(self):
        apctl, apstatd = self.start_both()
        for index in range(3 * APS_MAX):
            # It counts as a stranger once it has been looked for in vain.
            answer = self.bus.call("apctl", "announce", **self.announcement(f"stranger-{index}"))
            self.assertEqual(answer, {"accepted": True})
            names = {ap["name"] for ap in apctl.ask_json("/aps")}
            self.assertEqual(len(names), min(index + 2, APS_MAX))
            self.assertLessEqual({"apstat", f"stranger-{index}"}, names)
        newest = {f"stranger-{index}" for index in range(3 * APS_MAX - (APS_MAX - 1), 3 * APS_MAX)}
        self.assertEqual(names, newest | {"apstat"})
        self.bus.call("apstat", "set_led", led="wlan", on=True)
        self.wait_for_ap(apctl, "apstat", leds={"power": True, "wlan": True})
        self.wait_for_announcement(apstatd, access_points=APS_MAX)

    def test_one_more_than_fits_is_not_accepted_while_all_are_within_reach(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        client = RawClient(self, self.bus)
        for index in range(APS_MAX):
            client.add_object(f"apstat.{index}")
            self.bus.call("apctl", "announce", **self.announcement(f"{index}"))
            self.wait_for_ap(apctl, f"{index}")
        answer = self.bus.call("apctl", "announce", **self.announcement("one-more"))
        self.assertEqual(answer, {"accepted": False})
        self.assertEqual(self.bus.call("apctl", "announce", **self.announcement("7")), {"accepted": True})
        self.assertEqual(len(apctl.ask_json("/aps")), APS_MAX)
        apstatd = daemons.Daemon("apstatd", "--port", "0", bus=self.bus.path)
        apstatd.wait_for("/bus", subscribed=True, announced=False)
        wait_until(lambda: "not accepted" in apstatd.read_stderr(), "apstatd says so")
        self.assertEqual(apstatd.stop(), 0)
        self.assertEqual(apstatd.read_stderr(), "apctl has not accepted the announcement\n")
        apstatd.stderr.close()

    def test_an_access_point_may_move_to_another_object(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        client = RawClient(self, self.bus)
        old, new = client.add_object("old"), client.add_object("new")
        for path in ("old", "new"):
            self.bus.call("apctl", "announce", **self.announcement(object=path, leds={"wlan": False}))
            self.wait_for_ap(apctl, "hall", object=path)
            client.wait_for_subscriber()
        client.notify(new, "led", json_attribute(b'{"led": "wlan", "on": true}'))
        self.wait_for_ap(apctl, "hall", leds={"wlan": True})
        client.notify(old, "led", json_attribute(b'{"led": "wlan", "on": false}'))
        client.ask(client.LOOKUP, 0, b"")  # it has been passed on
        self.bus.call("apctl", "announce", **self.announcement("other"))
        self.assertEqual(self.aps(apctl)["hall"]["leds"], {"wlan": True})

    def test_an_object_that_cannot_be_subscribed_to_is_out_of_reach(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        for path in ("apctl", "nobody", "ubus"):  # its own is refused by the bus
            self.bus.call("apctl", "announce", **self.announcement(object=path))
            self.assertEqual([ap["reachable"] for ap in apctl.ask_json("/aps")], [False])


class Leds(BusTest):
    def push(self, apctl, body):
        request = f"POST /led HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body
        with apctl.connect() as client:
            return client.ask(request)

    def push_led(self, apctl, name, led, on):
        return self.push(apctl, json.dumps({"name": name, "led": led, "on": on}).encode())

    def test_status_tells_by_bus_what_it_tells_by_http_and_the_leds(self):
        apstatd = self.start("apstatd", "--name", "hall")
        self.bus.wait_for_objects("apstat.hall")
        by_http, by_bus = apstatd.status(), self.bus.call("apstat.hall", "status")
        self.assertEqual(set(by_bus) - set(by_http), {"name", "leds"})
        self.assertEqual((by_bus["name"], by_bus["leds"]), ("hall", LEDS))
        self.assertEqual(by_bus["pid"], apstatd.process.pid)
        self.assertEqual(by_bus["requests"], 1)
        # It is asked for nothing, so it does not matter what it is sent.
        for content in (b"", named(5, b"x", b"\0\0\0\1")):
            self.assertEqual(self.bus.call_raw("apstat.hall", "status", content)["name"], "hall")

    def test_set_led_answers_with_the_new_state_and_keeps_it(self):
        apstatd = self.start("apstatd")
        self.bus.wait_for_objects("apstat")
        for led, on in (("wlan", True), ("power", False), ("power", False), ("wlan", False)):
            self.assertEqual(self.bus.call("apstat", "set_led", led=led, on=on), {"led": led, "on": on})
            self.assertEqual(apstatd.ask_json("/leds")[led], on)
            self.assertEqual(self.bus.call("apstat", "status")["leds"][led], on)

    def test_hostile_set_led_is_an_invalid_argument_and_changes_nothing(self):
        apstatd = self.start("apstatd")
        self.bus.wait_for_objects("apstat")
        client = RawClient(self, self.bus)
        apstat_id = client.id_of("apstat")
        for content in NOT_AN_LED:
            status = client.call(apstat_id, "set_led", json_attribute(json.dumps(content).encode()))
            self.assertEqual(status, INVALID_ARGUMENT, f"{content}"[:100])
        for what, content in NOT_JSON.items():
            self.assertEqual(client.call(apstat_id, "set_led", content), INVALID_ARGUMENT, what)
        self.assertEqual(apstatd.ask_json("/leds"), LEDS)
        self.assertEqual(client.call(apstat_id, "set_led", json_attribute(b'{"led":"power","on":false}')), 0)
        self.assertEqual(apstatd.ask_json("/leds"), LEDS | {"power": False})

    def test_every_change_is_notified_and_nothing_else(self):
        self.start("apstatd")
        self.bus.wait_for_objects("apstat")
        subscriber = self.subscribe("apstat")
        self.bus.call("apstat", "set_led", led="power", on=False)
        self.assertEqual(subscriber.next(), {"led": {"led": "power", "on": False}})
        for led, on in (("wlan", False), ("power", False), ("wlan", True), ("wlan", True), ("power", True)):
            self.bus.call("apstat", "set_led", led=led, on=on)
        self.assertEqual(subscriber.next(), {"led": {"led": "wlan", "on": True}})
        self.assertEqual(subscriber.next(), {"led": {"led": "power", "on": True}})

    def test_notified_changes_are_shown_by_apctl(self):
        apctl, _ = self.start_both()
        for led, on in (("wlan", True), ("power", False), ("wlan", False)):
            self.bus.call("apstat", "set_led", led=led, on=on)
            wait_until(lambda: self.aps(apctl)["apstat"]["leds"][led] == on, f"{led} is {on}")

    def test_hostile_notifications_change_nothing(self):
        apctl = self.start("apctl")
        self.bus.wait_for_objects("apctl")
        client = RawClient(self, self.bus)
        ours = client.add_object("hostile")
        self.bus.call("apctl", "announce", name="hostile", object="hostile", url="x", leds=LEDS)
        self.wait_for_ap(apctl, "hostile")
        for content in NOT_AN_LED:
            client.notify(ours, "led", json_attribute(json.dumps(content).encode()))
        for content in NOT_JSON.values():
            client.notify(ours, "led", content)
        client.notify(ours, "dark", json_attribute(b'{"led": "power", "on": false}'))
        client.notify(ours, "led", json_attribute(b'{"led": "wlan", "on": true}'))
        self.wait_for_ap(apctl, "hostile", leds={"power": True, "wlan": True})

    def test_hostile_notifications_of_apctl_do_not_disturb_apstatd(self):
        client = RawClient(self, self.bus)
        ours = client.add_object("apctl")
        apstatd = self.start("apstatd")
        client.wait_for_subscriber()
        for content in (*NOT_JSON.values(), json_attribute(b"[1]"), json_attribute(b'{"names": 3}')):
            client.notify(ours, "aps", content)
        client.notify(ours, "led", json_attribute(b'{"names": ["a"]}'))
        client.notify(ours, "aps", json_attribute(b'{"names": ["a", 2, null]}'))
        apstatd.wait_for("/bus", access_points=3, announced=False)
        self.stop(apstatd)

    def test_pushed_led_reaches_the_access_point_and_comes_back(self):
        apctl, apstatd = self.start_both()
        subscriber = self.subscribe("apctl")
        for on in (True, False):
            text = json.dumps({"name": "apstat", "led": "wlan", "on": on})
            self.assertEqual(json.loads(curl("--data", text, apctl.url + "/led")), {"sent": True})
            subscriber.skip_to({"led": {"led": "wlan", "on": on, "name": "apstat"}})
            apstatd.wait_for("/leds", power=True, wlan=on)
            self.wait_for_ap(apctl, "apstat", leds={"power": True, "wlan": on})

    def test_pushed_led_goes_to_the_one_that_is_named(self):
        apctl = self.start("apctl")
        running = {name: self.start("apstatd", "--name", name) for name in ("attic", "hall")}
        for name in running:
            self.wait_for_ap(apctl, name)
        self.assertEqual(self.push_led(apctl, "hall", "wlan", True).code, 200)
        running["hall"].wait_for("/leds", wlan=True)
        self.assertEqual(running["attic"].ask_json("/leds"), LEDS)

    def test_requests_that_are_no_led_are_bad_requests(self):
        apctl, apstatd = self.start_both()
        half = b'{"name": "apstat"'
        for text in (b"", b"x", b"[]", b"{}", b'"apstat"', half, b"[" * 60000, b"\xff", b"\0"):
            self.assertEqual(self.push(apctl, text).code, 400, text[:100])
        for content in NOT_AN_LED:
            if isinstance(content, dict):
                text = json.dumps({"name": "apstat"} | content).encode()
                self.assertIn(self.push(apctl, text[:60000]).code, (400, 404), text[:100])
        for name in (None, 1, ["apstat"]):
            self.assertEqual(self.push_led(apctl, name, "power", False).code, 400, name)
        self.assertEqual(self.push(apctl, b'{"led": "power", "on": false}').code, 400)
        self.assertEqual(apstatd.ask_json("/leds"), LEDS)

    def test_unknown_access_points_and_leds_are_not_found(self):
        apctl, apstatd = self.start_both()
        for name in ("", "nobody", "apstat.", "APSTAT", "x" * 5000, "é"):
            self.assertEqual(self.push_led(apctl, name, "power", False).code, 404, name)
        self.assertEqual(self.push_led(apctl, "apstat", "disco", True).code, 404)
        self.assertEqual(apstatd.ask_json("/leds"), LEDS)

    def test_access_points_out_of_reach_are_unavailable(self):
        apctl, apstatd = self.start_both()
        self.stop(apstatd)
        self.assertEqual(self.push_led(apctl, "apstat", "power", False).code, 503)
        self.bus.kill()
        self.assertEqual(self.push_led(apctl, "apstat", "power", False).code, 503)
        self.assertEqual(self.push_led(apctl, "nobody", "power", False).code, 404)

    def test_push_that_is_not_answered_is_logged_and_forgotten(self):
        apctl, apstatd = self.start_both()
        apstatd.process.send_signal(signal.SIGSTOP)
        try:
            self.assertEqual(self.push_led(apctl, "apstat", "power", False).code, 200)
            wait_until(apctl.read_stderr, "it is logged")
        finally:
            apstatd.process.send_signal(signal.SIGCONT)
        apstatd.wait_for("/leds", power=False)  # it was late only
        self.wait_for_ap(apctl, "apstat", leds=LEDS | {"power": False})
        self.assertEqual(apctl.stop(), 0)
        self.assertEqual(apctl.read_stderr(), "ubus-ureq-async: timeout\n")
        apctl.stderr.truncate(0)


class Routing(BusTest):
    def test_paths_and_methods_that_there_are_not(self):
        apctl = self.start("apctl")
        with apctl.connect() as client:
            for target in ("/", "/nope", "/aps/", "/aps/apstat", "/led/", "/status"):
                self.assertEqual(client.get(target).code, 404, target)
            self.assertEqual(client.get("/led").code, 405)
            self.assertEqual(client.ask(b"POST /aps HTTP/1.1\r\n\r\n").code, 405)
            self.assertEqual(client.get("/aps?x=1").body, b"[]\n")


class Shutdown(BusTest):
    """Each ends with the checks of the end: exit status 0, and nothing unexpected on standard error."""

    def push_led(self, apctl, on=False):
        text = json.dumps({"name": "apstat", "led": "power", "on": on})
        self.assertEqual(json.loads(curl("--data", text, apctl.url + "/led")), {"sent": True})

    def test_either_signal_stops_either_daemon_with_and_without_a_bus(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            for daemon in self.start_both():
                self.assertEqual(daemon.stop(number), 0)
        self.bus.kill()
        for number in (signal.SIGTERM, signal.SIGINT):
            for program in ("apctl", "apstatd"):
                self.assertEqual(self.start(program).stop(number), 0)

    def test_stops_at_once_after_the_start(self):
        for _ in range(5):
            apctl, apstatd = self.start("apctl"), self.start("apstatd")
            self.assertEqual(apstatd.stop(), 0)  # the other one might miss it, and say so
            self.assertEqual(apctl.stop(), 0)

    def test_stops_while_the_bus_is_away(self):
        both = self.start_both()
        self.bus.kill()
        for daemon in both:
            self.assertEqual(daemon.stop(), 0)

    def test_stops_when_the_bus_has_just_come_back(self):
        apctl, apstatd = self.start_both()
        self.bus.restart()
        self.assertEqual(apstatd.stop(), 0)
        self.assertEqual(apctl.stop(), 0)

    def test_stops_with_calls_in_flight_that_it_gives_up(self):
        apctl, apstatd = self.start_both()
        apstatd.process.send_signal(signal.SIGSTOP)
        try:
            for _ in range(5):
                self.push_led(apctl)
            self.assertEqual(apctl.stop(), 0)
        finally:
            apstatd.process.send_signal(signal.SIGCONT)
        self.assertRegex(apctl.read_stderr(), r"\A(ubus-ureq-async: (error: 7|timeout)\n){5}\Z")
        apctl.stderr.truncate(0)

    def test_stops_with_an_announcement_in_flight(self):
        client = RawClient(self, self.bus)
        client.add_object("apctl")  # never answers a call
        apstatd = self.start("apstatd")
        client.wait_for_subscriber()
        while client.read()[0] != client.INVOKE:
            pass
        self.assertEqual(apstatd.stop(), 0)

    def test_announcement_that_is_not_answered_is_sent_again(self):
        client = RawClient(self, self.bus)
        client.add_object("apctl")
        apstatd = self.start("apstatd")
        for _ in range(2):
            kind, found = 0, {}
            while kind != client.INVOKE:
                kind, _, found = client.read()
            self.assertEqual(found[4], b"announce\0")
        self.assertFalse(apstatd.ask_json("/bus")["announced"])

    def test_stops_while_announcements_keep_coming(self):
        apctl, apstatd = self.start_both()
        client = RawClient(self, self.bus)
        apctl_id = client.id_of("apctl")
        over = threading.Event()

        def keep_announcing():
            # Never more of them unanswered than the bus would queue: it drops the rest, answers included.
            content = '{{"name": "x{}", "object": "y", "url": "z", "leds": {{}}}}'
            with contextlib.suppress(OSError):  # in the end the connection is shut down
                while not over.is_set():
                    for index in range(100):
                        client.send_call(apctl_id, "announce", json_attribute(content.format(index).encode()))
                    while client.read()[1] != client.seq:
                        pass

        thread = threading.Thread(target=keep_announcing)
        thread.start()
        try:
            wait_until(lambda: len(self.aps(apctl)) == APS_MAX, "the table is full")
            self.assertTrue(self.aps(apctl)["apstat"]["reachable"])
            self.assertEqual(apctl.stop(), 0)
        finally:
            over.set()
            client.socket.shutdown(socket.SHUT_RDWR)
            thread.join()
        self.assertEqual(apstatd.stop(), 0)

    def test_stops_with_answers_owed_and_a_bus(self):
        _, apstatd = self.start_both()
        with apstatd.connect() as slow, apstatd.connect() as run:
            slow.send(b"GET /slow?ms=30000 HTTP/1.1\r\n\r\n")
            run.send(b"GET /run?seconds=30 HTTP/1.1\r\n\r\n")
            apstatd.wait_for(deferred_answers=2)
            self.assertEqual(apstatd.stop(), 0)
            self.assertEqual([slow.read().code, run.read().code], [503, 503])


class Options(unittest.TestCase):
    def check_refused(self, program, options, text):
        result = daemons.run_to_its_end(program, *options)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertEqual(result.stderr, f"{program}: {text}\n")

    def test_help_of_apctl_explains_options_routes_and_methods(self):
        result = daemons.run_to_its_end("apctl", "--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        for text in ("--address", "--port", "--bus", "--help", "/aps", "/led", "announce"):
            self.assertIn(text, result.stdout)
        self.assertNotIn("--name", result.stdout)

    def test_help_of_apstatd_explains_what_there_is_on_the_bus(self):
        result = daemons.run_to_its_end("apstatd", "--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        for text in ("--bus", "--name", "/leds", "/bus", "set_led", "apctl"):
            self.assertIn(text, result.stdout)

    def test_names_that_would_not_do_are_refused(self):
        for name in ("", "x" * 25, "a b", "a/b", "é", "*", "a\n"):
            text = f"bad name '{name}': 1 to 24 of A-Z, a-z, 0-9, '-', '_' and '.'"
            self.check_refused("apstatd", ["--name", name], text)

    def test_apctl_has_no_name(self):
        self.check_refused("apctl", ["--name", "x"], "bad option '--name', see apctl --help")

    def test_a_bus_whose_path_is_too_long_for_a_socket_is_refused(self):
        path = "/" + "x" * 107
        for program in ("apctl", "apstatd"):
            text = f"bad bus '{path}': too long for the path of a socket"
            self.check_refused(program, ["--bus", path], text)
            daemon = daemons.Daemon(program, "--port", "0", bus=path[:107])
            daemons.look_over(self, daemon)

    def test_options_without_their_value_are_refused(self):
        for program, option in (("apctl", "--bus"), ("apstatd", "--bus"), ("apstatd", "--name")):
            self.check_refused(program, [option], f"option '{option}' needs a value")


if __name__ == "__main__":
    daemons.main(__doc__)
