"""Makes the rules of nft_commit.c by lib/nft, by direct calls, and by `nft -f`, each in its own network namespace."""

import json
import os
import re
import shutil
import subprocess

from servers import Failure

WAYS = {
    "apbase": "lib/nft",
    "direct": "libnftnl and libmnl directly",
    "nft": "`nft -f`",
}
CHAIN = ["ip", "bench", "rules"]
LIMITS = ["/proc/sys/net/core/wmem_default", "/proc/sys/net/core/rmem_default"]
RAISED_BYTES = 4 << 20


def nft_program():
    program = shutil.which("nft", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if not program:
        raise Failure("there is no nft")
    return program


class RaisedLimits:
    """Raises the default sizes of socket queues, for the whole machine. A separate shell restores them when its pipe is
    closed, however this program ends.
    """

    def __init__(self):
        with_before = []
        for path in LIMITS:
            with open(path) as file:
                with_before += [path, str(int(file.read()))]
        script = 'read end; while [ $# -gt 0 ]; do echo "$2" >"$1"; shift 2; done'
        command = ["sh", "-c", script, "sh", *with_before]
        self._restorer = subprocess.Popen(command, stdin=subprocess.PIPE, start_new_session=True)
        try:
            for path in LIMITS:
                with open(path, "w") as file:
                    file.write(str(RAISED_BYTES))
        except BaseException:
            self.restore()
            raise

    @staticmethod
    def possible():
        return os.geteuid() == 0 and all(os.access(path, os.W_OK) for path in LIMITS)

    def restore(self):
        self._restorer.stdin.close()
        if self._restorer.wait() != 0:
            raise Failure(f"{' and '.join(LIMITS)} are still raised")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.restore()


class Rules:
    """`count` rules of one kind of nft_commit.c, in `transactions` transactions."""

    def __init__(self, bench, kind, count, transactions=1):
        self._bench = bench
        self._program = os.path.join(bench.binaries, "bench/nft_commit")
        self._nft = nft_program()
        self.kind, self.count = kind, count
        self.texts = [self._text(i * count // transactions, count // transactions) for i in range(transactions)]

    def _text(self, first, count):
        path = os.path.join(self._bench.scratch, f"rules-{self.kind}-{first}-{count}.nft")
        with open(path, "w") as file:
            subprocess.run([self._program, "text", self.kind, str(first), str(count)], stdout=file, check=True)
        return path

    def _run(self, *commands):
        """Runs the commands in a new network namespace, one after the other. Returns the output of the last one."""
        script = " && ".join(" ".join(f"'{word}'" for word in command) for command in commands)
        command = ["taskset", "-c", str(self._bench.cpu), "unshare", "--net"]
        command += [] if os.geteuid() == 0 else ["--map-root-user"]
        result = subprocess.run([*command, "sh", "-c", script], capture_output=True, text=True)
        if result.returncode != 0:
            raise Failure(f"nft: {(result.stderr.strip() or 'failed').splitlines()[-1]}")
        return result.stdout

    def _empty_chain(self):
        return [self._nft, f"add table ip {CHAIN[1]}; add chain {' '.join(CHAIN)}"]

    def _make(self, way):
        """The command that commits the rules in one transaction."""
        if way == "nft":
            return [self._nft, "-f", self.texts[0]]
        return [self._program, "send", way, self.kind, str(self.count)]

    def listing(self, way):
        """The chain as `nft` lists it, without handles."""
        made = self._run(self._empty_chain(), self._make(way), [self._nft, "-j", "list", "chain", *CHAIN])
        rules = [entry["rule"] for entry in json.loads(made)["nftables"] if "rule" in entry]
        for rule in rules:
            del rule["handle"]
        if len(rules) != self.count:
            raise Failure(f"{way} has made {len(rules)} rules instead of {self.count}")
        return rules

    def require_same_listings(self):
        if not self.listing("apbase") == self.listing("direct") == self.listing("nft"):
            raise Failure("the rules that were made differ")

    def seconds(self, rounds):
        """By way: for each round, how long the rules took to build and to commit."""
        words = [self._program, "rounds", str(rounds), self.kind, str(self.count), self._nft, *self.texts]
        lines = self._run(words).splitlines()
        times = zip(*([int(word) / 1e9 for word in line.split()] for line in lines))
        return dict(zip(WAYS, times))

    def _counted(self, tool, pattern, command, *before):
        report = os.path.join(self._bench.scratch, "nft-count")
        option = "--callgrind-out-file" if tool == "callgrind" else "--log-file"
        wrapper = ["valgrind", f"--tool={tool}", f"{option}={report}"]
        self._run(*before, [*wrapper, *command])
        with open(report) as file:
            return int(re.search(pattern, file.read(), re.M)[1].replace(",", ""))

    def _instructions(self, *commands):
        return self._counted("callgrind", r"^(?:summary|totals): (\d+)", *commands)

    def _allocations(self, *commands):
        return self._counted("memcheck", r"total heap usage: ([\d,]+) allocs", *commands)

    def to_build(self, way):
        """User instructions and allocations of the whole process. None for `nft`: it always sends."""
        if way == "nft":
            return None
        command = [self._program, "build", way, self.kind, str(self.count)]
        return self._instructions(command), self._allocations(command)

    def to_make(self, way):
        """The same for building and sending."""
        command, before = self._make(way), self._empty_chain()
        return self._instructions(command, before), self._allocations(command, before)
