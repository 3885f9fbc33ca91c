"""
The example apfw: the command, the kernel, the system's `nft` and real packets between private network namespaces.

Usage: apfw_test.py APFW [TEST...]

Run it as root, who may make network namespaces. They end with the processes that hold them, and these with the
test.
"""

import contextlib
import ctypes
import errno
import json
import os
import pathlib
import select
import socket
import struct
import subprocess
import sys
import unittest

from daemons import PATIENCE_S, die_with_the_test, libc_check, skip_if_emulated, wait_until

APFW = ""  # its path, from the command line

UP_TABLE = {"table": {"family": "inet", "name": "apfw"}}
EPERM, ENOENT, ENFILE = "Operation not permitted", "No such file or directory", "Too many open files in system"
NOT_UP = f"{ENOENT} (the firewall is not up)"

GUEST_IP, OTHER_IP, AP_IP, SERVER_IP = "10.1.0.2", "10.1.0.3", "10.1.0.1", "192.0.2.2"
GUEST_IP6, AP_IP6, SERVER_IP6 = "fd00:1::2", "fd00:1::1", "fd00:2::2"
GUEST_MAC, OTHER_MAC = "02:00:00:00:00:a2", "02:00:00:00:00:a3"


class Namespace:
    """A network namespace, as long as a process of ours that sits in it."""

    def __init__(self, test):
        self.holder = subprocess.Popen(
            ["unshare", "--net", "sh", "-c", "echo; exec cat"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            preexec_fn=die_with_the_test,
        )
        test.addCleanup(self._end)
        if not self.holder.stdout.readline():
            raise AssertionError("no network namespace can be made")
        self.pid = self.holder.pid
        self.run("ip", "link", "set", "lo", "up")

    def _end(self):
        self.holder.kill()
        self.holder.communicate()

    @contextlib.contextmanager
    def entered(self):
        """What the block opens or starts is in the namespace, and stays there."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/thread-self/ns/net") as outside, open(f"/proc/{self.pid}/ns/net") as inside:
            libc_check(libc.setns(inside.fileno(), 0))
            try:
                yield
            finally:
                libc_check(libc.setns(outside.fileno(), 0))

    def attempt(self, *command, text=None):
        with self.entered():
            return subprocess.run(
                command,
                input=text or "",
                capture_output=True,
                text=True,
                timeout=PATIENCE_S,
                check=False,
                preexec_fn=die_with_the_test,
            )

    def run(self, *command, text=None):
        """The output of a command; a failure fails the test."""
        result = self.attempt(*command, text=text)
        if result.returncode != 0:
            raise AssertionError(f"{command}: status {result.returncode}: {result.stderr}")
        return result.stdout

    def ip(self, *commands):
        self.run("ip", "-batch", "-", text="\n".join(commands) + "\n")

    def nft_json(self, *words):
        return [item for item in json.loads(self.run("nft", "-j", *words))["nftables"] if "metainfo" not in item]

    def elements(self, name):
        (listed,) = self.nft_json("list", "set", "inet", "apfw", name)
        return listed["set"].get("elem", [])

    def socket(self, kind, address=None, family=socket.AF_INET):
        with self.entered():
            opened = socket.socket(family, kind)
        opened.settimeout(PATIENCE_S)
        opened.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if address:
            opened.bind(address)
        if address and kind == socket.SOCK_STREAM:
            opened.listen()
        return opened


def without_handles(value):
    if isinstance(value, list):
        return [without_handles(item) for item in value]
    if isinstance(value, dict):
        return {key: without_handles(item) for key, item in value.items() if key != "handle"}
    return value


def generation(namespace):
    """The number of transactions that have changed the ruleset."""
    get_generation, done = 10 << 8 | 16, 10 << 8 | 15  # NFT_MSG_GETGEN, NFT_MSG_NEWGEN
    with namespace.entered():
        netlink = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 12)  # NETLINK_NETFILTER
    with netlink:
        netlink.settimeout(PATIENCE_S)
        netlink.send(struct.pack("=IHHIIBBH", 20, get_generation, 1, 1, 0, 0, 0, 0))
        answer = netlink.recv(4096)
    if struct.unpack_from("=H", answer, 4)[0] != done:
        raise AssertionError(f"no generation: {answer.hex()}")
    return struct.unpack_from(">I", answer, 24)[0]  # the first attribute, NFTA_GEN_ID


class Command(unittest.TestCase):
    """The command, in a namespace of its own."""

    def setUp(self):
        self.ap = Namespace(self)

    def apfw(self, *arguments):
        return self.ap.attempt(APFW, *arguments)

    def check(self, arguments, output=""):
        """The command succeeds, and this is all that it says."""
        result = self.apfw(*arguments)
        self.assertEqual((result.returncode, result.stderr, result.stdout), (0, "", output), arguments)

    def check_fails(self, arguments, text, status=1, output=""):
        result = self.apfw(*arguments)
        found = (result.returncode, result.stderr, result.stdout)
        self.assertEqual(found, (status, f"apfw: {text}\n", output), arguments)


@skip_if_emulated("the emulator opens no sockets of netfilter")
class OneNamespace(Command):
    """The command and the ruleset, without packets."""

    def ruleset(self):
        return without_handles(self.ap.nft_json("list", "ruleset"))

    def blocked(self):
        return sorted(self.ap.elements("blocked"))


class TheRuleset(OneNamespace):
    def listed(self, kind, **wanted):
        items = [item[kind] for item in self.ruleset() if kind in item]
        return [item for item in items if wanted.items() <= item.items()]

    def rules(self, chain):
        return [rule["expr"] for rule in self.listed("rule", chain=chain)]

    def check_rules(self, chain, *rules):
        self.assertEqual(self.rules(chain), [list(rule) for rule in rules], chain)

    @staticmethod
    def match(left, right, operator="=="):
        return {"match": {"op": operator, "left": left, "right": right}}

    def meta(self, key, value, operator="=="):
        return self.match({"meta": {"key": key}}, value, operator)

    def port(self, protocol, number):
        return self.match({"payload": {"protocol": protocol, "field": "dport"}}, number)

    def check_ruleset(self, guest, portal, rate):
        accept, drop = {"accept": None}, {"drop": None}
        source = {"payload": {"protocol": "ether", "field": "saddr"}}
        limit = {"limit": {"rate": rate, "burst": 0, "per": "second", "inv": True,
                           "rate_unit": "bytes", "burst_unit": "bytes"}}
        seen = {"set": {"op": "update", "elem": {"elem": {"val": source, "timeout": 300}},
                        "set": "@clients", "stmt": [limit]}}

        def mark(value):
            return {"mangle": {"key": {"meta": {"key": "mark"}}, "value": value}}

        def reject(**how):
            return {"reject": how}

        self.check_rules(
            "prerouting",
            [self.meta("iifname", guest, "!="), accept],
            [seen, drop],
            [mark(0x67)],
            [self.match(source, "@blocked"), mark(0x62)],
        )
        self.check_rules(
            "portal", [self.meta("mark", 0x62), self.port("tcp", 80), {"redirect": {"port": portal}}]
        )
        self.check_rules("forward", [self.meta("mark", 0x67), accept], [self.meta("iifname", guest), drop])
        self.check_rules(
            "input",
            [self.meta("iifname", guest, "!="), accept],
            [self.meta("l4proto", "icmp"), accept],
            [self.meta("l4proto", "ipv6-icmp"), accept],
            [self.port("udp", 53), accept],
            [self.port("tcp", 53), accept],
            [self.port("udp", 67), accept],
            [self.port("udp", 547), accept],
            [self.port("tcp", portal), accept],
            [self.meta("l4proto", "tcp"), reject(type="tcp reset")],
            [reject(type="icmpx", expr="admin-prohibited")],
        )

    def test_up_builds_one_table_with_two_sets_and_four_chains(self):
        self.check(["up"])
        self.assertEqual(self.listed("table"), [UP_TABLE["table"]])
        common = {"family": "inet", "table": "apfw", "type": "ether_addr", "size": 1024}
        self.assertEqual(
            self.listed("set"),
            [{**common, "name": "blocked"}, {**common, "name": "clients", "flags": ["timeout"]}],
        )
        self.assertIn("flags dynamic,timeout", self.ap.run("nft", "list", "ruleset"))  # JSON leaves it out
        chains = [(c["name"], c["type"], c["hook"], c["prio"], c["policy"]) for c in self.listed("chain")]
        self.assertEqual(
            chains,
            [
                ("prerouting", "filter", "prerouting", -150, "accept"),
                ("portal", "nat", "prerouting", -100, "accept"),
                ("forward", "filter", "forward", 0, "accept"),
                ("input", "filter", "input", 0, "accept"),
            ],
        )

    def test_the_rules_have_the_default_interface_port_and_rate(self):
        self.check(["up"])
        self.check_ruleset("br-guest", 8080, 1250000)

    def test_options_reach_the_rules(self):
        self.check(["up", "--rate", "4294967295", "--portal", "65535", "--guest", "fifteen-letters"])
        self.check_ruleset("fifteen-letters", 65535, 4294967295)
        self.check(["up", "--guest", "x", "--rate", "1", "--portal", "1"])
        self.check_ruleset("x", 1, 1)

    def test_the_last_of_two_equal_options_counts(self):
        self.check(["up", "--portal", "1", "--portal", "2"])
        self.check_ruleset("br-guest", 2, 1250000)

    def test_what_up_builds_can_be_fed_back_to_nft(self):
        self.check(["up"])
        built = self.ruleset()
        text = self.ap.run("nft", "list", "ruleset")
        self.ap.run("nft", "-f", "-", text="flush ruleset\n" + text)
        self.assertEqual(self.ruleset(), built)

    def test_up_is_one_transaction(self):
        self.ap.run("nft", "add", "table", "inet", "other")
        before = generation(self.ap)
        self.check(["up"])
        self.assertEqual(generation(self.ap), before + 1)
        self.check(["up"])
        self.assertEqual(generation(self.ap), before + 2)

    def test_down_block_and_unblock_are_one_transaction_each_and_status_is_none(self):
        self.check(["up"])
        before = generation(self.ap)
        for count, command in enumerate((["block", GUEST_MAC], ["unblock", GUEST_MAC], ["down"]), 1):
            self.apfw("status")
            self.check(command)
            self.assertEqual(generation(self.ap), before + count, command)

    def test_up_again_replaces_the_firewall_and_forgets_who_was_blocked(self):
        self.check(["up"])
        built = self.ruleset()
        self.check(["block", GUEST_MAC])
        self.ap.run("nft", "add", "rule", "inet", "apfw", "input", "drop")
        self.check(["up"])
        self.assertEqual(self.ruleset(), built)

    def test_up_replaces_a_table_of_the_name_whatever_it_is(self):
        self.ap.run("nft", "-f", "-", text="table inet apfw { set blocked { type ipv4_addr; }; chain input {}; }")
        self.check(["up"])
        self.check_ruleset("br-guest", 8080, 1250000)

    def test_down_leaves_nothing(self):
        self.check(["up"])
        self.check(["down"])
        self.assertEqual(self.ruleset(), [])

    def test_up_and_down_leave_other_tables_alone(self):
        self.ap.run("nft", "-f", "-", text="table ip apfw { chain c { accept; }; }\ntable inet other { chain c {}; }")
        others = self.ruleset()
        self.check(["up"])
        self.assertEqual([item for item in self.ruleset() if item in others], others)
        self.assertIn(UP_TABLE, self.ruleset())
        self.check(["down"])
        self.assertEqual(self.ruleset(), others)


class TheBlocked(OneNamespace):
    def test_block_adds_an_address_and_unblock_deletes_it(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        self.check(["block", OTHER_MAC])
        self.assertEqual(self.blocked(), [GUEST_MAC, OTHER_MAC])
        self.check(["unblock", GUEST_MAC])
        self.assertEqual(self.blocked(), [OTHER_MAC])

    def test_whoever_is_blocked_may_be_blocked_again(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        self.check(["block", GUEST_MAC])
        self.assertEqual(self.blocked(), [GUEST_MAC])

    def test_capital_digits_are_the_same_address(self):
        self.check(["up"])
        self.check(["block", "02:AB:CD:EF:Ab:cD"])
        self.assertEqual(self.blocked(), ["02:ab:cd:ef:ab:cd"])
        self.check(["unblock", "02:ab:cd:ef:ab:cd"])
        self.assertEqual(self.blocked(), [])

    def test_every_byte_of_an_address_counts(self):
        self.check(["up"])
        for mac in ("00:00:00:00:00:00", "ff:ff:ff:ff:ff:ff", "01:23:45:67:89:ab"):
            self.check(["block", mac])
        self.assertEqual(self.blocked(), ["00:00:00:00:00:00", "01:23:45:67:89:ab", "ff:ff:ff:ff:ff:ff"])

    def test_unblocking_one_that_is_not_blocked_is_refused(self):
        self.check(["up"])
        self.check(["block", OTHER_MAC])
        text = f"the kernel refused to unblock the guest: {ENOENT} (it is not blocked, or the firewall is not up)"
        self.check_fails(["unblock", GUEST_MAC], f"unblock: {text}")
        self.assertEqual(self.blocked(), [OTHER_MAC])

    def fill(self, count):
        macs = [f"06:00:00:00:{index >> 8:02x}:{index & 255:02x}" for index in range(count)]
        self.ap.run("nft", "-f", "-", text=f"add element inet apfw blocked {{ {', '.join(macs)} }}\n")
        return macs

    def test_more_than_1024_are_not_blocked(self):
        self.check(["up"])
        macs = self.fill(1023)
        self.check(["block", GUEST_MAC])
        text = f"block: the kernel refused to block the guest: {ENFILE} (too many are blocked)"
        self.check_fails(["block", OTHER_MAC], text)
        self.assertEqual(self.blocked(), sorted([*macs, GUEST_MAC]))

    def test_status_lists_1024_blocked_which_the_kernel_sends_in_many_parts(self):
        self.check(["up"])
        macs = self.fill(1024)
        result = self.apfw("status")
        head, *listed, tail = result.stdout.removeprefix("the firewall is up\n").splitlines()
        self.assertEqual((head, tail, result.returncode, result.stderr), ("blocked:", "seen lately:", 0, ""))
        self.assertEqual(sorted(listed), [f"  {mac}" for mac in macs])


class TheStatus(OneNamespace):
    def test_status_of_a_firewall_that_is_up(self):
        self.check(["up"])
        self.check(["status"], "the firewall is up\nblocked:\nseen lately:\n")

    def test_status_lists_who_is_blocked(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        self.check(["status"], f"the firewall is up\nblocked:\n  {GUEST_MAC}\nseen lately:\n")

    def test_status_fails_when_the_firewall_is_not_up(self):
        self.check_fails(["status"], f"status: the kernel refused to list it: {NOT_UP}")
        self.check(["up"])
        self.check(["down"])
        self.check_fails(["status"], f"status: the kernel refused to list it: {NOT_UP}")


class Refusals(OneNamespace):
    def test_down_when_it_is_not_up(self):
        self.check_fails(["down"], f"down: the kernel refused to delete it: {NOT_UP}")

    def test_block_when_it_is_not_up(self):
        self.check_fails(["block", GUEST_MAC], f"block: the kernel refused to block the guest: {NOT_UP}")
        self.assertEqual(self.ruleset(), [])

    def test_unblock_when_it_is_not_up(self):
        text = f"the kernel refused to unblock the guest: {ENOENT} (it is not blocked, or the firewall is not up)"
        self.check_fails(["unblock", GUEST_MAC], f"unblock: {text}")

    def test_without_the_right_to_it_nothing_is_done(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        built = self.ruleset()
        for command, refused in (
            (["up"], "the firewall"),
            (["down"], "to delete it"),
            (["status"], "to list it"),
            (["block", OTHER_MAC], "to block the guest"),
            (["unblock", GUEST_MAC], "to unblock the guest"),
        ):
            result = self.ap.attempt("setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin", APFW, *command)
            text = f"apfw: {command[0]}: the kernel refused {refused}: {EPERM} (run it as root)\n"
            self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", text))
        self.assertEqual(self.ruleset(), built)

    def table_is_listed(self):
        try:
            return len(self.ruleset()) == 2
        except json.JSONDecodeError:
            return False  # the ruleset changed while nft listed it: the listing is not one document

    def test_up_that_is_refused_half_way_changes_nothing(self):
        """The table belongs to another process: it is the second message that the kernel refuses."""
        with self.ap.entered():
            owner = subprocess.Popen(
                ["nft", "-i"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, preexec_fn=die_with_the_test
            )
        self.addCleanup(owner.communicate)
        owner.stdin.write(b"add table inet apfw { flags owner; }\nadd chain inet apfw mine\n")
        owner.stdin.flush()
        wait_until(self.table_is_listed, "the table has an owner")
        owned = self.ruleset()
        self.check_fails(["up"], f"up: the kernel refused the firewall: {EPERM} (run it as root)")
        self.assertEqual(self.ruleset(), owned)


class TheMachine(OneNamespace):
    """Where process 1 has its network, it is the machine's, which is changed by who says so only."""

    AS_PROCESS_1 = ("unshare", "--pid", "--fork", "--mount-proc", "--")
    # Where a process finds its namespaces. The rest of /proc stays, which a sanitized program needs.
    WITHOUT_NAMESPACES = ("unshare", "--mount", "sh", "-ec", 'mount -t tmpfs tmpfs /proc/$$/ns; exec "$@"', "sh")

    def check_refused(self, *words):
        result = self.ap.attempt(*words)
        text = "nothing has been changed, as this network is the machine's own: see --change-this-machine in apfw --help"
        expected = (2, "", f"apfw: {words[words.index(APFW) + 1]}: {text}\n")
        self.assertEqual((result.returncode, result.stdout, result.stderr), expected)

    def test_without_being_told_to_nothing_is_changed_in_the_network_of_process_1(self):
        self.check_refused(*self.AS_PROCESS_1, APFW, "up")
        self.assertEqual(self.ruleset(), [])
        self.check(["up"])
        built = self.ruleset()
        for command in (["up", "--rate", "1"], ["down"], ["block", GUEST_MAC], ["unblock", GUEST_MAC]):
            self.check_refused(*self.AS_PROCESS_1, APFW, *command)
        self.assertEqual(self.ruleset(), built)

    def test_being_told_to_it_changes_the_network_of_process_1(self):
        for command in (["up"], ["block", GUEST_MAC]):
            self.ap.run(*self.AS_PROCESS_1, APFW, "--change-this-machine", *command)
        self.assertEqual(self.blocked(), [GUEST_MAC])
        for command in (["unblock", GUEST_MAC], ["down"]):
            self.ap.run(*self.AS_PROCESS_1, APFW, "--change-this-machine", *command)
        self.assertEqual(self.ruleset(), [])

    def test_status_is_told_in_the_network_of_process_1(self):
        self.check(["up"])
        self.assertIn("the firewall is up\n", self.ap.run(*self.AS_PROCESS_1, APFW, "status"))

    def test_a_network_that_cannot_be_compared_is_not_changed(self):
        self.check_refused(*self.WITHOUT_NAMESPACES, APFW, "up")
        self.assertEqual(self.ruleset(), [])

    def test_who_may_not_look_at_process_1_changes_the_network_of_its_own_user_namespace(self):
        own = ("unshare", "--user", "--map-root-user", "--net", "sh", "-ec")
        self.assertIn("table inet apfw", self.ap.run(*own, '"$0" up; nft list ruleset', APFW))
        self.assertEqual(self.ruleset(), [])


class TheCommandLine(Command):
    """Nothing here comes as far as the kernel, as the exit status tells."""

    def check_usage(self, arguments, text):
        self.check_fails(arguments, text, status=2)

    def test_help_explains_commands_and_options(self):
        result = self.apfw("--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        words = ("up", "down", "status", "block MAC", "unblock MAC", "--guest", "--portal", "--rate")
        words += ("--change-this-machine", "-h", "--version")
        for text in (*words, "br-guest", "8080", "1250000"):
            self.assertIn(text, result.stdout)

    def test_anything_but_a_command_gets_the_usage_on_standard_error(self):
        usage = self.apfw("--help").stdout
        wrong = ([], [""], ["UP"], ["upp"], ["u"], ["--guest", "x"], ["-x"], ["--help", "up"], ["-h", "up"], [GUEST_MAC])
        wrong += (["--version", "up"], ["--change-this-machine"], ["--change-this-machine", "--help"])
        wrong += (["--change-this-machine", "--change-this-machine", "up"], ["--change-this-machine=1", "up"])
        for arguments in wrong:
            result = self.apfw(*arguments)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (2, "", usage), arguments)

    def test_macs_of_another_form_are_refused(self):
        for mac in (
            "",
            ":",
            "02",
            "02:00:00:00:00",
            "02:00:00:00:00:",
            "02:00:00:00:00:a",
            "2:00:00:00:00:a2",
            "02:00:00:00:00:a2:",
            "02:00:00:00:00:a2:00",
            ":02:00:00:00:00:a2",
            "02:00:00:00:00:a22",
            "002:00:00:00:00:a2",
            "02-00-00-00-00-a2",
            "0200.0000.00a2",
            "0200000000a2",
            "02:00:00:00:00:g2",
            "02:00:00:00:00:0x",
            "0x:00:00:00:00:a2",
            "02:00:00:00:00: 2",
            "+2:00:00:00:00:a2",
            "-2:00:00:00:00:a2",
            " 02:00:00:00:00:a2",
            "02:00:00:00:00:a2 ",
            "02:00:00:00:00:a2\n",
            "02::00:00:00:0:a2",
            "02:00:00;00:00:a2",
            "02:00:00:00:00:é",
            "blocked",
            "10.1.0.2",
            "x" * 1000,
        ):
            for command in ("block", "unblock"):
                self.check_usage([command, mac], f"bad MAC '{mac}': not six bytes such as 02:00:5e:10:00:01")

    def test_block_and_unblock_need_one_mac(self):
        for command in ("block", "unblock"):
            self.check_usage([command], f"command '{command}' needs a MAC")
            text = f"unexpected argument '{OTHER_MAC}', see apfw --help"
            self.check_usage([command, GUEST_MAC, OTHER_MAC], text)

    def test_down_and_status_take_nothing(self):
        for command in ("down", "status"):
            self.check_usage([command, GUEST_MAC], f"unexpected argument '{GUEST_MAC}', see apfw --help")
            self.check_usage([command, "--rate", "1"], "unexpected argument '--rate', see apfw --help")

    def test_bad_options_are_refused(self):
        for option in ("--rat", "--rates", "--change-this-machine", "-r", "rate", "", "--rate=1", GUEST_MAC, "--help"):
            self.check_usage(["up", option, "1"], f"bad option '{option}', see apfw --help")

    def test_options_without_their_value_are_refused(self):
        for option in ("--guest", "--portal", "--rate"):
            self.check_usage(["up", option], f"option '{option}' needs a value")
            self.check_usage(["up", "--rate", "1", option], f"option '{option}' needs a value")

    def test_interfaces_that_no_kernel_has_are_refused(self):
        for name in ("", "sixteen-letters-", "x" * 1000):
            self.check_usage(["up", "--guest", name], f"bad interface '{name}': not 1 to 15 characters")

    def test_ports_and_rates_out_of_range_are_refused(self):
        not_numbers = ("", "0", "00", "-1", "+1", " 1", "1 ", "0x50", "80a", "a", "1.5", "9" * 40)
        for port in (*not_numbers, "65536", "4294967376"):
            self.check_usage(["up", "--portal", port], f"bad port '{port}': not a number from 1 to 65535")
        for rate in (*not_numbers, "4294967296", "18446744073709551617"):
            self.check_usage(["up", "--rate", rate], f"bad rate '{rate}': not a number from 1 to 4294967295")


class Packets(OneNamespace):
    """
    Two guests on the bridge of an access point, which forwards to a server. What is dropped is told by what
    comes behind it on the same way: packets of a path stay in order.
    """

    def setUp(self):
        super().setUp()
        self.guest, self.other, self.server = Namespace(self), Namespace(self), Namespace(self)
        self.ap.ip(
            "link add br-guest type bridge",
            f"link add name guest1 type veth peer name eth0 address {GUEST_MAC} netns {self.guest.pid}",
            f"link add name guest2 type veth peer name eth0 address {OTHER_MAC} netns {self.other.pid}",
            f"link add name wan type veth peer name eth0 netns {self.server.pid}",
            "link set guest1 master br-guest",
            "link set guest2 master br-guest",
            f"address add {AP_IP}/24 dev br-guest",
            f"address add {AP_IP6}/64 dev br-guest nodad",
            "address add 192.0.2.1/24 dev wan",
            "address add fd00:2::1/64 dev wan nodad",
            *(f"link set {name} up" for name in ("guest1", "guest2", "wan", "br-guest")),
        )
        with self.ap.entered():
            for switch in ("ipv4/ip_forward", "ipv6/conf/all/forwarding"):
                pathlib.Path("/proc/sys/net", switch).write_text("1")
        self.join(self.guest, f"{GUEST_IP}/24", AP_IP, f"{GUEST_IP6}/64", AP_IP6)
        self.join(self.other, f"{OTHER_IP}/24", AP_IP, "fd00:1::3/64", AP_IP6)
        self.join(self.server, f"{SERVER_IP}/24", "192.0.2.1", f"{SERVER_IP6}/64", "fd00:2::1")

    @staticmethod
    def join(namespace, address, router, address6, router6):
        namespace.ip(
            f"address add {address} dev eth0",
            f"address add {address6} dev eth0 nodad",
            "link set eth0 up",
            f"route add default via {router}",
            f"route add ::/0 via {router6}",
        )

    def open(self, namespace, kind, address=None, family=socket.AF_INET):
        opened = namespace.socket(kind, address, family)
        self.addCleanup(opened.close)
        return opened

    def receiver(self, family=socket.AF_INET):
        return self.open(self.server, socket.SOCK_DGRAM, ("", 5000), family)

    def sender(self, namespace, address=(SERVER_IP, 5000), family=socket.AF_INET):
        sender = self.open(namespace, socket.SOCK_DGRAM, family=family)
        sender.connect(address)
        return sender

    def check_that_blocking_stops(self, receiver, sender):
        self.check(["up"])
        sender.send(b"let on")
        self.assertEqual(receiver.recv(100), b"let on")
        self.check(["block", GUEST_MAC])
        sender.send(b"blocked")
        self.check(["unblock", GUEST_MAC])
        sender.send(b"let on again")
        self.assertEqual(receiver.recv(100), b"let on again")

    def test_packets_of_a_guest_pass_until_it_is_blocked_and_again_when_it_is_not(self):
        self.check_that_blocking_stops(self.receiver(), self.sender(self.guest))

    def test_the_same_holds_for_ipv6(self):
        family = socket.AF_INET6
        sender = self.sender(self.guest, (SERVER_IP6, 5000), family)
        self.check_that_blocking_stops(self.receiver(family), sender)

    def test_blocking_one_guest_is_nothing_to_another(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        receiver = self.receiver()
        self.sender(self.guest).send(b"blocked")
        self.sender(self.other).send(b"other")
        self.assertEqual(receiver.recv(100), b"other")

    def test_after_down_packets_of_a_blocked_guest_pass(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        self.check(["down"])
        receiver = self.receiver()
        self.sender(self.guest).send(b"down")
        self.assertEqual(receiver.recv(100), b"down")

    def connect(self, namespace, address):
        client = self.open(namespace, socket.SOCK_STREAM)
        client.connect(address)
        return client

    def http_is_answered_by(self, listeners):
        """Which of the listeners, by their names, the guest reaches as the server's port 80."""
        client = self.connect(self.guest, (SERVER_IP, 80))
        ready = select.select(listeners.values(), [], [], PATIENCE_S)[0]
        (name,) = [name for name, listener in listeners.items() if listener in ready]
        accepted, source = listeners[name].accept()
        with accepted:
            self.assertEqual(source[0], GUEST_IP)
            accepted.sendall(name.encode())
        with client:
            return client.recv(100).decode()

    def test_http_of_a_blocked_guest_is_answered_by_the_portal(self):
        for options, port in (([], 8080), (["--portal", "8888"], 8888)):
            listeners = {
                "portal": self.open(self.ap, socket.SOCK_STREAM, ("", port)),
                "server": self.open(self.server, socket.SOCK_STREAM, ("", 80)),
            }
            self.check(["up", *options])
            self.assertEqual(self.http_is_answered_by(listeners), "server")
            self.check(["block", GUEST_MAC])
            self.assertEqual(self.http_is_answered_by(listeners), "portal")
            self.check(["unblock", GUEST_MAC])
            self.assertEqual(self.http_is_answered_by(listeners), "server")
            for listener in listeners.values():
                listener.close()

    def test_a_blocked_guest_that_asks_the_portal_itself_reaches_it(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        self.open(self.ap, socket.SOCK_STREAM, ("", 8080))
        self.connect(self.guest, (AP_IP, 8080))

    def test_other_tcp_of_a_guest_to_this_machine_is_reset(self):
        self.open(self.ap, socket.SOCK_STREAM, ("", 22))
        self.connect(self.guest, (AP_IP, 22))
        self.check(["up"])
        with self.assertRaises(ConnectionRefusedError):
            self.connect(self.guest, (AP_IP, 22))
        self.connect(self.server, ("192.0.2.1", 22))

    def test_other_udp_of_a_guest_to_this_machine_is_told_that_it_is_prohibited(self):
        self.check(["up"])
        receiver = self.open(self.ap, socket.SOCK_DGRAM, ("", 161))
        for address, family, told in (
            (AP_IP, socket.AF_INET, errno.EHOSTUNREACH),
            (AP_IP6, socket.AF_INET6, errno.EACCES),
        ):
            sender = self.sender(self.guest, (address, 161), family)
            sender.send(b"prohibited")
            with self.assertRaises(OSError) as caught:
                sender.recv(100)
            self.assertEqual(caught.exception.errno, told)
        self.sender(self.server, ("192.0.2.1", 161)).send(b"not a guest")
        self.assertEqual(receiver.recv(100), b"not a guest")

    def test_dns_and_dhcp_of_a_blocked_guest_reach_this_machine(self):
        self.check(["up"])
        self.check(["block", GUEST_MAC])
        for port in (53, 67):
            receiver = self.open(self.ap, socket.SOCK_DGRAM, ("", port))
            self.sender(self.guest, (AP_IP, port)).send(b"question")
            self.assertEqual(receiver.recv(100), b"question")
        self.open(self.ap, socket.SOCK_STREAM, ("", 53))
        self.connect(self.guest, (AP_IP, 53))

    def test_what_a_guest_sends_beyond_its_rate_is_dropped(self):
        """60 times 1028 bytes come in an instant; at 2000 bytes a second they would take half a minute."""
        self.check(["up", "--rate", "2000"])
        receiver = self.receiver()
        sender = self.sender(self.guest)
        for _ in range(60):
            sender.send(bytes(1000))
        self.sender(self.other).send(b"other")  # has a measure of its own
        count = 0
        while receiver.recv(2000) != b"other":
            count += 1
        self.assertLess(count, 30)

    def test_what_a_guest_sends_below_its_rate_passes(self):
        self.check(["up", "--rate", "100000"])
        receiver = self.receiver()
        sender = self.sender(self.guest)
        for _ in range(60):
            sender.send(bytes(1000))
        for _ in range(60):
            self.assertEqual(receiver.recv(2000), bytes(1000))

    def test_guests_that_send_are_seen_for_five_minutes(self):
        self.check(["up"])
        receiver = self.receiver()
        for namespace in (self.guest, self.other):
            self.sender(namespace).send(b"seen")
            receiver.recv(100)
        elements = {item["elem"]["val"]: item["elem"] for item in self.ap.elements("clients")}
        self.assertEqual(sorted(elements), [GUEST_MAC, OTHER_MAC])
        for element in elements.values():
            self.assertEqual(element["timeout"], 300)
            self.assertLessEqual(element["expires"], 300)
            self.assertGreater(element["expires"], 300 - PATIENCE_S)
            self.assertEqual(element["limit"]["rate"], 1250000)
        head, *listed = self.apfw("status").stdout.splitlines()[2:]
        self.assertEqual((head, sorted(listed)), ("seen lately:", [f"  {GUEST_MAC}", f"  {OTHER_MAC}"]))

    def test_only_guests_are_seen(self):
        self.check(["up", "--guest", "wan"])
        receiver = self.receiver()
        self.sender(self.guest).send(b"not a guest")
        receiver.recv(100)
        self.assertNotIn(GUEST_MAC, str(self.ap.elements("clients")))


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    global APFW
    APFW = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)


if __name__ == "__main__":
    main()
