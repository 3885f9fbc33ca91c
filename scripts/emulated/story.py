#!/usr/bin/python3 -B
"""Boots the emulated access point several times, shows what it does, and checks it: scripts/board runs it.

    story.py <folder of the board's parts> [file that receives what was shown]
"""

import contextlib
import datetime
import hashlib
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
import time

import machine

REFUSED = "Cowardly refusing to erase blocks"  # JFFS2, of what holds nothing of its own
MARK = b"\x85\x19"  # what JFFS2 begins each erase block with, in this byte order
CALIBRATION = {  # file in /lib/firmware: where in "EEPROM" its content begins, and how long it is
    "ath9k-eeprom-ahb-18100000.wmac.bin": (4096, 16384),
    "ath10k/cal-pci-0000:00:00.0.bin": (20480, 2116),
}
MOUNTS = {  # besides what the upper layer of the root is on
    "/": "overlay",
    "/system": "squashfs",
    "/proc": "proc",
    "/sys": "sysfs",
    "/sys/class/leds": "tmpfs",
    "/dev": "devtmpfs",
    "/tmp": "tmpfs",
}
FAILURE = "apinit: .*(fail|err=|unable|cannot|not found|killed)"
ERASERS = ["/usr/sbin/flash_eraseall", "/usr/sbin/flash_erase"]  # a script, and the program that it becomes
NOTE = "written on the first boot"
GUEST = "02:00:5e:00:00:99"
IDLE_KIB_MAX = 600
SYNCED_FILES = 25
LINES_MAX = 12
COLUMNS_MAX = 104
# These use no bus and take minutes on the board. The suite runs them for MIPS under qemu-user.
NOT_ON_THE_BOARD = "ubus_json.thousands_of_mutated_*:ubus_json.a_text_of_15_mib_*:ubus_json.nesting_beyond_2048_*"


# ---- What is shown ----


shown = []


def say(text):
    shown.append(text)
    print(text, flush=True)


def section(text):
    say(f"\n==> {text}")


def done(text):
    """Prints a check that has passed."""
    say(f"  ok  {text}")


def indented(text):
    return "".join(f"\n      {line}" for line in text.rstrip("\n").split("\n") if text)


def shortened(text, lines_max=LINES_MAX):
    lines = text.rstrip("\n").split("\n")
    if len(lines) > lines_max:
        lines[lines_max - 1 :] = ["..."]
    return "\n".join(line if len(line) <= COLUMNS_MAX else f"{line[:COLUMNS_MAX]}..." for line in lines)


class Board(machine.Machine):
    """A boot that shows commands and checks their output."""

    def must(self, held, fault, evidence=""):
        if not held:
            raise self.fault(fault + indented(evidence))

    def ask(self, command):
        """Returns the output of a command that must succeed."""
        output, status = self.run(command)
        self.must(status == 0, f"'{command}' ends with status {status}:", output)
        return output

    def show(self, command, *expected, lines_max=LINES_MAX):
        """As `ask`, and prints command and output. The output must contain all `expected` texts."""
        output = self.ask(command)
        for text in expected:
            self.must(text in output, f"'{command}' does not say '{text.strip()}':", output)
        say(f"    board# {command}" + indented(shortened(output, lines_max)))
        return output

    def wait_until(self, text, command):
        deadline = time.monotonic() + machine.PATIENCE_S
        while text not in (output := self.run(command)[0]):
            self.must(time.monotonic() < deadline, f"'{command}' never says '{text}':", output)

    def show_from_outside(self, *words):
        """Runs a command on this machine, which must succeed, and prints it with its output."""
        command = " ".join(f"'{word}'" if "\\" in word else word for word in words)
        try:
            result = subprocess.run(
                words,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                text=True,
                timeout=machine.PATIENCE_S,
                env={**os.environ, "no_proxy": "*"},
            )
        except subprocess.TimeoutExpired:
            raise self.fault(f"'{command}' does not end") from None
        output, status = result.stdout, result.returncode
        self.must(status == 0, f"'{command}' ends with status {status}:", output)
        say(f"    $ {command}" + indented(shortened(output)))
        return output

    def check_mounts(self, upper, kind):
        """Checks that the root is an overlay whose upper layer is on `upper`, of that kind, and all other mounts."""
        lines = [line.split() for line in self.show("cat /proc/mounts").splitlines()]
        kinds = {point: its_kind for _, point, its_kind, *_ in lines}
        options = {point: options for _, point, _, options, *_ in lines}
        self.must(f"upperdir={upper}/upper," in options["/"], f"the root is no overlay on {upper}")
        self.must(kinds == {**MOUNTS, upper: kind}, f"mounts are {kinds}, and not {MOUNTS} and {upper}: {kind}")

    def erasers(self):
        """The erasers that were started since power on, from the kernel's trace of started programs."""
        trace = "/sys/kernel/tracing/trace"
        self.ask("mount -t tracefs tracefs /sys/kernel/tracing")
        self.must("exec: filename=/usr/sbin/apinit " in self.ask(f"cat {trace}"), "there is no such trace")
        started = self.show(f"sed -n 's/.*exec: filename=\\(.*flash_erase[a-z]*\\) .*/\\1/p' {trace}")
        self.ask("umount /sys/kernel/tracing")
        return started.split()

    def memory_kib(self):
        """Prints the private dirty memory of apstatd, and returns it."""
        rollup = self.show("grep -E 'Rss|Private_Dirty' /proc/$(pidof apstatd)/smaps_rollup")
        return int(re.search(r"Private_Dirty: +(\d+) kB", rollup)[1])


# ---- The story ----


def tell_first_boot(boot):
    section('1. The first boot: "rootfs_data" is full of garbage')
    with boot() as board:
        board.show("xargs -0 </proc/1/cmdline", "/usr/sbin/apinit /etc/start\n")
        board.must("apinit: partition rootfs_data: mtd2\n" in board.said, "apinit has found no partition")
        done('apinit is process 1, and has found "rootfs_data"')
        refusals = board.show(f"dmesg | grep '{REFUSED}'")
        board.must(refusals.count("\n") == 1, "JFFS2 was tried and refused more than once")
        done("JFFS2 has refused the garbage, once")
        board.must(not re.search(FAILURE, board.said), "something has failed on the way")
        board.must(board.erasers() == ERASERS, "the eraser was not started exactly once")
        board.show("flash_erase --version | head -n 1", "(mtd-utils)")
        board.show("grep jffs2 /proc/mounts", "mtd2 /data jffs2 rw,")
        done("the eraser, that of mtd-utils, has run once, and JFFS2 takes what it has left")
        board.check_mounts("/data", "jffs2")
        done("the root is an overlay on flash memory, and the old one is under /system")
        done("everything that was mounted has moved along")
        refused, _ = board.run("echo >/system/etc/passwd")
        board.must("Read-only file system" in refused, "the old root can be written to:", refused)
        board.show("grep -H ^ /sys/class/leds/*/brightness",
            "blue:dome/brightness:255\n", "white:dome/brightness:0\n")
        done("the old root is as read-only as before, and the blue LED shines")
        board.show("cd /root")
        board.show(f"echo '{NOTE}' >note")
        board.show("head -c 300000 /dev/urandom >noise")
        noise = board.show("sha256sum noise")
        board.switch_off()
    return noise


def tell_what_was_erased(folder):
    with open(f"{folder}/rootfs_data", "rb") as image:
        content = image.read()
    begins = [content[at : at + len(MARK)] for at in range(0, len(content), machine.BLOCK_BYTES)]
    if set(begins) != {MARK}:
        raise machine.Fault(f"{begins.count(MARK)} of {len(begins)} erase blocks begin with JFFS2's mark")
    done(f"switched off; each of the {len(begins)} erase blocks in the image begins with JFFS2's mark")


def tell_second_boot(boot, noise):
    section("2. The second boot")
    with boot() as board:
        board.show("cd /root")
        board.show("cat note", NOTE)
        board.show("sha256sum noise", noise)
        done("what was written on the first boot is still there")
        board.must(REFUSED not in board.ask("dmesg"), "JFFS2 has refused its own work")
        board.must(board.erasers() == [], "the eraser was started")
        done("JFFS2 has refused nothing, and nothing was erased")
        board.switch_off()


def tell_fallback(boot):
    section('3. A boot without the partition "rootfs_data"')
    with boot(with_rootfs_data=False) as board:
        board.must("apinit: partition rootfs_data: none\n" in board.said, "there is such a partition")
        board.must("apinit: fallback to ramoverlay\n" in board.said, "apinit does not tell of the fallback")
        board.check_mounts("/tmp/root", "tmpfs")
        done("apinit has told of its fallback: the root is an overlay in RAM")
        board.must(board.ask("ls /root") == "", "there are files of an earlier boot")
        board.show("echo here >/root/note && cat /root/note", "here\n")
        done("it can be written to, and holds nothing of earlier boots")
        ask = ["curl", "-sS", "-o", "/dev/null", "-w", "%{http_code}\\n"]
        board.must(board.show_from_outside(*ask, board.url()) == "200\n", "that is not its page")
        done("the system has come up all the same: apstatd answers")
        board.switch_off()


def tell_calibration(board, folder):
    section('4. What dev_init has exported from the flash partition "EEPROM"')
    with open(f"{folder}/EEPROM", "rb") as image:
        eeprom = image.read()
    board.show("cd /lib/firmware")
    for file, (offset, length) in CALIBRATION.items():
        board.show(f"sha256sum {file}", hashlib.sha256(eeprom[offset : offset + length]).hexdigest())
        done(f"this is what the emulated EEPROM holds from {offset} to {offset + length}")
    stat = "stat -c '%i %z %n' " + " ".join(CALIBRATION)
    before = board.show(stat)
    board.show("apinit --change-this-machine --no-overlay true", "apinit: true has ended with status 0\n")
    after = board.ask(stat)
    board.must(after == before, "a second run has changed a file:", after)
    done("a second run changes neither file")
    board.show("cd /sys/class")
    addresses = board.show("cat net/eth0/address ieee80211/phy1/macaddress ieee80211/phy0/macaddress")
    board.show("apinit --show | tail -n 6")
    listed = json.loads(board.ask("apinit --show"))["mac_addresses"]
    board.must(len(set(listed)) == 3 and listed == addresses.split(), f"listed are {listed}")
    done("dev_get_mac_json_array yields these three addresses")


def tell_firewall(board):
    section("5. The firewall, in the board's kernel")
    board.must(board.ask("nft list ruleset") == "", "there are rules before there is a firewall")
    board.show("apfw --change-this-machine up")
    rules = board.show("nft list ruleset", "redirect to :8080", "update @clients { ether saddr", lines_max=60)
    chains = re.findall(r"chain (\w+) {", rules)
    board.must(chains == ["prerouting", "portal", "forward", "input"], f"the chains are {chains}")
    done("the board's own nft reads back all chains of apfw")
    board.show(f"apfw --change-this-machine block {GUEST}")
    board.show("nft list set inet apfw blocked", f"elements = {{ {GUEST} }}")
    board.show("apfw status", f"blocked:\n  {GUEST}\n")
    done("a guest is blocked; nft sees it, and apfw reads it back")
    board.show("apfw --change-this-machine down")
    board.must(board.show("nft list ruleset") == "", "there are rules left")
    done("nothing is left of it")


def tell_daemons(board, real_bus):
    section("6. apstatd, from outside and on the bus")
    board.wait_until('"reachable": true', "wget -qO- http://127.0.0.1:8081/aps")
    idle_kib = board.memory_kib()
    board.must(idle_kib <= IDLE_KIB_MAX, f"that is more than {IDLE_KIB_MAX} KiB of private dirty memory")
    done(f"apstatd, idle, has {idle_kib} KiB of private dirty memory, and may have {IDLE_KIB_MAX}")
    status = json.loads(board.show_from_outside("curl", "-fsS", board.url("status")))
    pid = int(board.ask("pidof apstatd"))
    board.must((status["pid"], status["board"]["id"]) == (pid, "unifiacpro"), "that is not apstatd's status")
    done("curl gets its status")
    board.show_from_outside("curl", "-fsS", "-X", "POST", board.url("led?state=5"))
    board.show("grep -H ^ /sys/class/leds/*/trigger", "blue:dome/trigger:timer\n")
    done("curl has had the blue LED blink")
    board.show("ubus list", "apctl\n", "apstat\n")
    # The real command shows nothing of messages that are JSON text; apctl reads them.
    shown = '"json": null' if real_bus else f'"pid": {pid},'
    board.show("ubus call apstat status", shown)
    access_points = json.loads(board.show("wget -qO- http://127.0.0.1:8081/aps"))
    names = [entry["name"] for entry in access_points if entry["reachable"]]
    board.must(names == ["apstat"], f"apctl reaches {names}")
    done("apstatd is on the bus, has announced itself to apctl, and apctl reaches it there")
    measured = board.show_from_outside("wrk", "-t1", "-c8", "-d5s", "--timeout", "60s", board.url("status"))
    rate = float(re.search(r"Requests/sec: +([\d.]+)", measured)[1])
    wrong = re.search("Non-2xx|Socket errors", measured)
    board.must(rate > 0 and not wrong, "not all that wrk has asked for was answered:", measured)
    done(f"wrk has had {rate:.0f} requests a second answered, and none that was not")
    busy_kib = board.memory_kib()
    board.must(busy_kib <= IDLE_KIB_MAX, f"that is more than {IDLE_KIB_MAX} KiB of private dirty memory")
    done(f"apstatd now has {busy_kib} KiB of private dirty memory")


def tell_power_cut(board):
    section("7. The power is cut in the middle of writing")
    board.show("cd /root")
    board.show("while :; do head -c 200000 /dev/urandom >unsynced; done &")
    step = "head -c 20000 /dev/urandom >$f; echo writing $f; sync; sha256sum $f; n=$((n + 1))"
    command = f"n=0; while f=synced.$n; do {step}; done"
    say(f"    board# {command}")
    board.type(command)
    sums = []
    while len(sums) < SYNCED_FILES:
        sums.append(board.wait_for(r"[0-9a-f]{64}  synced\.\d+\n", "write and sync a file")[0])
    last = board.wait_for(rf"writing synced\.{SYNCED_FILES}\n", "begin another file")[0]
    board.cut_power()
    say(indented(f"{shortened(''.join(sums), 4)}\n{last}")[1:])
    done(f"the emulator was killed after {SYNCED_FILES} files, while it was syncing the next")
    return sums


def tell_boot_after_power_cut(board, noise, sums):
    board.check_mounts("/data", "jffs2")
    board.must(REFUSED not in board.ask("dmesg"), "JFFS2 has refused its own work")
    board.must(board.erasers() == [], "the eraser was started")
    done("the board comes up on what it had")
    board.show("cd /root")
    board.show("ls -l | tail -n 2", " unsynced\n")
    board.show("sha256sum noise synced.*", noise, *sums, lines_max=4)
    done("nothing is lost of what was synced")


def tell_tests(board):
    section("8. The tests of what uses the message bus, on the board, against the real one")
    partition = re.search(r'mtd(\d+): .* "tests"', board.show("mkdir /tmp/tests; cat /proc/mtd"))[1]
    board.show(f"mount -t squashfs -o ro /dev/mtdblock{partition} /tmp/tests")
    board.show("export UBUSD=/usr/sbin/ubusd LD_LIBRARY_PATH=/tmp/tests/lib")
    board.show(f"export GTEST_FILTER='-{NOT_ON_THE_BOARD}'")
    count = 0
    for program in board.ask("ls /tmp/tests/*_test").split():
        passed = board.show(f"{program} --gtest_brief=1", "[  PASSED  ] ")
        count += int(re.search(r"PASSED  ] (\d+) tests", passed)[1])
    done(f"all of them pass, {count} tests")


def tell(top, folder):
    started = time.monotonic()
    boots = 0
    real_bus = machine.has_tests(top)

    @contextlib.contextmanager
    def boot(with_rootfs_data=True):
        nonlocal boots
        boots += 1
        words = machine.command_line(top, folder, with_rootfs_data)
        with Board(words, f"{top}/console-{boots}.log") as board:
            board.boot()
            say(f"    (there is a shell {time.monotonic() - board.started:.1f} s after power on)")
            board.wait_until("apstatd: listening", "cat /tmp/log")
            yield board

    machine.make_flash(folder)
    noise = tell_first_boot(boot)
    tell_what_was_erased(folder)
    tell_second_boot(boot, noise)
    tell_fallback(boot)
    with boot() as board:
        tell_calibration(board, folder)
        tell_firewall(board)
        tell_daemons(board, real_bus)
        sums = tell_power_cut(board)
    with boot() as board:
        tell_boot_after_power_cut(board, noise, sums)
        if real_bus:
            tell_tests(board)
        board.switch_off()
    section(f"All of it holds, after {boots} boots and {time.monotonic() - started:.0f} s")


def processor():
    with open("/proc/cpuinfo") as file:
        models = re.findall(r"^model name\s*:\s*(.+)$", file.read(), re.M) or [platform.machine()]
    return f"{os.cpu_count()} x {models[0]}"


def write_transcript(path, top):
    emulator = subprocess.run([machine.EMULATOR, "--version"], capture_output=True, text=True, check=True).stdout
    bus = "the real one" if machine.has_tests(top) else "the stand-in"
    head = [
        "# A run of the emulated access point",
        "",
        "Written by `scripts/board --write`, not by hand. [board.md](../board.md) says how to read it.",
        "",
        f"- {datetime.date.today()}; {processor()}, of which the emulator uses one",
        f"- {emulator.splitlines()[0]}; the message bus is {bus}",
        "",
        "Times and requests a second are those of an emulated processor, and say nothing about a real one. The figures",
        "of memory are those of a real MIPS kernel.",
    ]
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write("\n".join([*head, "", "```", "\n".join(shown).strip("\n"), "```"]) + "\n")


def main():
    top, *transcript = sys.argv[1:]
    machine.look_for_parts(top)
    with tempfile.TemporaryDirectory(prefix="board-", dir=top) as folder:
        tell(top, folder)
    for path in transcript:
        write_transcript(path, top)


if __name__ == "__main__":
    machine.run_script(main)
