"""
apstatd on a board: what it tells of the hardware, and the LEDs that it sets.

Usage: board_test.py APSTATD APCTL UBUSD UBUS [TEST...]
"""

import ctypes
import json
import os

import daemons
from apstatd import Hardware, HardwareTest, add_interface, enter_private_network
from daemons import curl, libc_check


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


if __name__ == "__main__":
    daemons.main(__doc__)
