"""
The page of apstatd in a real browser: what a person sees, presses and is told.

Usage: page_test.py APSTATD APCTL UBUSD UBUS [TEST...]

Needs Debian's chromium and chromium-driver, and root: daemon and browser meet in a private network, which
nothing else can disturb and where nothing can be loaded from outside, and the daemon's LEDs and radios are
files (apstatd.Hardware). A test that fails leaves a picture of the page in the current folder.
"""

import re
import unittest

import daemons
from apstatd import Hardware, add_interface, enter_private_network
from browser import Browser
from daemons import wait_until

STEADY, WHITE, BLUE, NO_LIGHT = "none", "rgb(255, 255, 255)", "rgb(29, 107, 255)", "rgba(0, 0, 0, 0)"


class PageTest(unittest.TestCase):
    """The page of a daemon on a board, in a browser that the tests of a class share."""

    size = {"width": 1280, "height": 800}
    radios = {"phy0": "02:00:5e:00:00:10\n", "phy1": "02:00:5e:00:00:11\n"}

    @classmethod
    def setUpClass(cls):
        enter_private_network()
        add_interface("eth0", "02:00:5e:00:00:01")
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.stop)
        cls.browser.set_size(**cls.size)

    def setUp(self):
        self.hardware = Hardware(radios=self.radios)
        self.addCleanup(self.hardware.folder.cleanup)
        self.start()
        self.browser.complaints()
        self.browser.open(self.daemon.url)
        self.wait_for_state("Running")

    def run(self, result=None):
        self.result = result
        return super().run(result)

    def tearDown(self):
        if any(test is self for test, _ in self.result.failures + self.result.errors):
            self.browser.take_picture(f"page-{self.id()}.png")

    def start(self, *options):
        self.daemon = self.hardware.start(*options)
        self.addCleanup(daemons.look_over, self, self.daemon)

    def text(self, selector):
        return self.browser.run("return document.querySelector(arguments[0]).innerText", selector)

    def texts(self, selector):
        script = "return [...document.querySelectorAll(arguments[0])].map(found => found.innerText)"
        return self.browser.run(script, selector)

    def wait_for_text(self, selector, wanted):
        wait_until(lambda: self.text(selector) == wanted,
            lambda: f"for {wanted} in {selector}: {self.text(selector)}")  # fmt: skip

    def wait_for_state(self, wanted):
        self.wait_for_text("#state", wanted)

    def press(self, name):
        self.browser.click(f"//button[text()='{name}']")

    def dome(self):
        """The colour of the ring, its animation and that one's period."""
        script = "const ring = getComputedStyle(document.querySelector('#led i'), '::after');"
        script += "return [ring.borderTopColor, ring.animationName, ring.animationDuration]"
        return self.browser.run(script)

    def wait_for_dome(self, *wanted):
        wait_until(lambda: self.dome() == [*wanted], lambda: f"for {wanted}: {self.dome()}")

    def pressed(self):
        return self.texts("button[aria-pressed=true]")

    def plot(self):
        """The counts of steps, or heights, that the plot has bars for, newest last."""
        path = self.browser.run("return document.querySelector('#history path').getAttribute('d')")
        return [30 - float(top) for top in re.findall(r"V([0-9.]+)h", path)]


class Desktop(PageTest):
    def test_page_shows_the_board_and_the_console_stays_empty(self):
        self.assertEqual(self.text("h1"), "UniFi AC PRO")
        self.assertEqual(self.text(".vendor"), "Ubiquiti")
        self.assertEqual(self.texts(".radios li"),
            ["phy1\nmode 14\n02:00:5e:00:00:11", "phy0\nmode 25\n02:00:5e:00:00:10"])  # fmt: skip
        self.assertEqual(self.texts(".ports li"), ["WAN\nport 2, eth0", "LAN\nport 3"])
        self.assertEqual(self.text(".wired"), "Switch switch0, CPU on port 0")
        self.assertEqual(self.texts(".macs dt"), ["eth0", "phy1", "phy0"])
        self.assertEqual(self.texts(".macs dd"), [f"02:00:5e:00:00:{end}" for end in ("01", "11", "10")])
        self.assertEqual(self.text("#pid"), str(self.daemon.process.pid))
        self.assertRegex(self.text("#uptime_s"), r"\A[0-9]+ seconds?\Z")
        self.assertEqual(self.browser.complaints(), [])

    def test_led_buttons_change_the_dome_and_the_leds(self):
        self.assertEqual((self.pressed(), self.dome()[:2]), ([], [NO_LIGHT, STEADY]))
        for name, white, blue, *dome in (
            ("Blue", "none", "none", BLUE, STEADY, "0s"),
            ("White blink", "timer", "none", WHITE, "blink", "1s"),
            ("White fast", "timer", "none", WHITE, "blink", "0.2s"),
            ("White slow", "timer", "none", WHITE, "blink", "2s"),
            ("Blue blink", "none", "timer", BLUE, "blink", "1s"),
            ("Off", "none", "none", NO_LIGHT, STEADY, "0s"),
        ):
            self.press(name)
            self.wait_for_dome(*dome)
            self.assertEqual(self.pressed(), [name])
            leds = [self.hardware.led(led)["trigger"] for led in (Hardware.WHITE, Hardware.BLUE)]
            self.assertEqual(leds, [white, blue], name)

    def test_dome_follows_what_others_set(self):
        with self.daemon.connect() as client:
            client.ask(b"POST /led?state=5 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
        self.wait_for_dome(BLUE, "blink", "1s")
        self.assertEqual(self.pressed(), ["Blue blink"])

    def test_led_buttons_work_with_the_keyboard(self):
        tab, enter = "\ue004", "\ue007"
        self.browser.press_keys(tab, tab, enter)
        self.wait_for_dome(BLUE, STEADY, "0s")
        self.browser.press_keys(tab, " ")
        self.wait_for_dome(BLUE, "blink", "1s")

    def test_plot_grows_with_the_requests(self):
        wait_until(self.plot, "there is a plot")
        with self.daemon.connect() as client:
            for _ in range(300):
                client.get("/param?x=1")

        def peak():
            return int(re.fullmatch(r"at most ([0-9]+) in 5 seconds", self.text(".peak"))[1])

        wait_until(lambda: peak() >= 60, "the plot has them")  # in one step, or some
        self.assertEqual(max(self.plot()), 29)
        self.assertGreaterEqual(int(self.text("#requests")), 300)
        self.assertEqual(self.text(".oldest"), "5 minutes ago")

    def test_page_says_when_the_daemon_has_gone_and_recovers(self):
        self.press("Blue")
        self.wait_for_dome(BLUE, STEADY, "0s")
        self.assertEqual(self.daemon.stop(), 0)
        self.wait_for_state("No answer")
        self.press("White slow")
        failure = "led?state=4 - Failed to load resource"
        wait_until(lambda: failure in " ".join(self.browser.complaints()), "it is in vain")
        port = self.daemon.address[1]
        self.start("--port", str(port))
        self.wait_for_state("Running")
        self.assertEqual(self.text("#pid"), str(self.daemon.process.pid))
        self.assertEqual((self.pressed(), self.dome()[0]), ([], NO_LIGHT))

    def test_page_follows_the_users_preferences(self):
        def background():
            return self.browser.run("return getComputedStyle(document.body).backgroundColor")

        self.press("White fast")
        self.wait_for_dome(WHITE, "blink", "0.2s")
        self.browser.prefer(color_scheme="light")
        light = background()
        self.browser.prefer(color_scheme="dark", reduced_motion="reduce")
        self.addCleanup(self.browser.prefer)
        self.assertEqual((light, background()), ("rgb(242, 244, 247)", "rgb(14, 18, 24)"))
        self.assertEqual(self.dome()[:2], [WHITE, STEADY])


class Markup(PageTest):
    radios = {"phy0": "<img src=x onerror=document.title='broken'>\n", "phy1": "<b>bold</b>&amp;\n"}

    def test_text_of_the_board_is_never_markup(self):
        self.assertEqual(self.texts(".radios code"), [self.radios[phy].strip() for phy in ("phy1", "phy0")])
        self.assertEqual(self.browser.run("return document.querySelectorAll('img, code *').length"), 0)
        self.assertEqual(self.browser.complaints(), [])


class Phone(PageTest):
    size = {"width": 375, "height": 667, "phone": True}

    def test_phone_needs_no_scrolling_sideways(self):
        script = "const page = document.scrollingElement;"
        script += "return [page.scrollWidth, page.clientWidth, innerWidth]"
        self.assertEqual(self.browser.run(script), [375, 375, 375])

    def test_phone_has_buttons_of_the_size_of_a_finger_that_work(self):
        script = "const buttons = [...document.querySelectorAll('button')];"
        script += "return buttons.map(button => button.getBoundingClientRect())"
        buttons = self.browser.run(script)
        self.assertEqual(len(buttons), 6)
        for button in buttons:
            self.assertGreaterEqual(min(button["width"], button["height"]), 40)
        self.press("Blue")
        self.wait_for_dome(BLUE, STEADY, "0s")
        self.assertEqual(self.hardware.led(Hardware.BLUE)["brightness"], "255")


if __name__ == "__main__":
    daemons.main(__doc__)
