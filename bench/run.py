#!/usr/bin/env python3
"""Measures, and prints tables in Markdown on stdout; progress goes to stderr. With --write each section's tables also
go to a file of its own in docs/figures.

Run it through scripts/bench, which installs and builds what this needs.
"""

import argparse
import datetime
import json
import os
import platform
import re
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile

import bus_peers
import nft_peers
import servers
from servers import ANSWER_BYTES, HERE, TITLES, Client, Failure, IdleConnections, Line

IDLE_COUNT = 5000
RESIDENT_COUNT = 2000
SOAK_CALLS = 500_000
SOAK_RESTARTS = 100
PIPELINE_DEPTH = 16
FIGURES = os.path.join(HERE, "../docs/figures")


class Bench:
    """The binaries, the options and the CPU that all sections use."""

    def __init__(self, binaries, scratch, quick, raise_limits):
        self.binaries = binaries
        self.scratch = scratch
        self.quick = quick
        self.raise_limits = raise_limits
        self.conclusions = []  # of the section that runs
        usable = sorted(os.sched_getaffinity(0))
        self.cpu = usable[-1]  # the server's and wrk's; this program keeps to the others
        if len(usable) > 1:
            os.sched_setaffinity(0, usable[:-1])
        has_daemon = os.path.exists(servers.apstatd_program(binaries))
        self.ours = "apstatd" if has_daemon else "apbase"
        self.kinds = ["bare", *(["apstatd"] if has_daemon else []), "apbase", "nginx", "evhttp"]

    def line(self, kinds=None, **options):
        return Line(kinds or self.kinds, self.binaries, self.scratch, **options)

    def pick(self, quick, full):
        return quick if self.quick else full

    def conclude(self, text, value):
        self.conclusions.append(f"- {text}: {number(value)}")

    def run(self, name):
        """The title of a section, and its tables, with the conclusions after them."""
        self.conclusions = []
        title, tables = SECTIONS[name](self)
        text = tables.rstrip("\n") + "\n"
        return title, text + "\n" + "\n".join(self.conclusions) + "\n" if self.conclusions else text


def say(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def number(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.2f}" if value < 100 else f"{value:.0f}"


def spread(values):
    """From 8 values on the middle half, otherwise all."""
    low, high = min(values), max(values)
    if len(values) >= 8:
        low, _, high = statistics.quantiles(values, n=4)
    return f"{low:.2f} to {high:.2f}"


def markdown(head, rows):
    """The first column is text, the others are numbers."""
    lines = ["| " + " | ".join(head) + " |"]
    lines.append("|" + "|".join([" --- "] + [" ---: "] * (len(head) - 1)) + "|")
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def children_cpu_seconds():
    """CPU time of all children that have ended."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def wrk(bench, server, seconds, *, depth=1, connections=10, close=False):
    """One run of the load generator. Returns the requests, and the seconds of CPU time of server and wrk.

    The two share one CPU and keep it busy, so on a machine with nothing else to do that is the time it took;
    on any other it leaves out what others took.
    """
    before = server.cpu_seconds() + children_cpu_seconds()
    command = ["taskset", "-c", str(bench.cpu), "wrk", "-t1", f"-c{connections}", f"-d{seconds}s"]
    command += ["-s", os.path.join(HERE, "wrk.lua")]
    command += ["-H", "Host: 127.0.0.1"]
    if close:
        command += ["-H", "Connection: close"]
    result = subprocess.run([*command, server.url(), "--", str(depth)], capture_output=True, text=True)
    counted = re.search(r"^counted (\d+) (\d+)$", result.stdout, re.M)
    if not counted:
        raise Failure("wrk: " + (result.stderr.strip() or result.stdout.strip() or "no result").splitlines()[-1])
    requests, errors = (int(text) for text in counted.groups())
    if errors or not requests:
        raise Failure(f"{server.kind}: {errors} errors and {requests} answers counted by wrk")
    return requests, server.cpu_seconds() + children_cpu_seconds() - before


def rotated(items, turns):
    turns %= len(items)
    return items[turns:] + items[:turns]


def ends_as_wrk_expects(server, close=False, **_):
    """wrk sends further requests unless the answer announces the end of the connection."""
    if not close or b"\r\nConnection: close\r\n" in server.answer(close):
        return True
    say(f"{server.kind} is left out: its answers do not announce the end of the connection")
    return False


def rates(bench, title, **mode):
    """Requests per second of CPU time of each server. The servers take turns in each round."""
    rounds, seconds = bench.pick(3, 9), bench.pick(1, 3)
    line = bench.line(close=mode.get("close", False), cpu=bench.cpu)
    running = line.start_all()
    try:
        kinds = [kind for kind in line.kinds if ends_as_wrk_expects(running[kind], **mode)]
        result = {kind: [] for kind in kinds}
        for kind in kinds:
            wrk(bench, running[kind], 1, **mode)
        for turn in range(rounds):
            say(f"{title}: round {turn + 1} of {rounds}")
            for kind in rotated(kinds, turn):
                requests, cpu_seconds = wrk(bench, running[kind], seconds, **mode)
                result[kind].append(requests / cpu_seconds)
    finally:
        servers.stop_all(running)
    return result


def rate_table(result):
    """Ratios are taken within a round."""
    ratios = {kind: [a / b for a, b in zip(values, result["bare"])] for kind, values in result.items()}
    rows = []
    for kind in sorted(result, key=lambda kind: -statistics.median(ratios[kind])):
        rate, ratio = statistics.median(result[kind]), statistics.median(ratios[kind])
        rows.append([TITLES[kind], f"{rate:,.0f}", f"{ratio:.2f}", spread(ratios[kind])])
    return markdown(["server", "requests a CPU second", "ratio to bare", "spread"], rows)


def relative(result, kind, other):
    return statistics.median(a / b for a, b in zip(result[kind], result[other]))


def section_keep_alive(bench):
    result = rates(bench, "keep-alive")
    ours = bench.ours
    bench.conclude("rate, of the bare server's", relative(result, ours, "bare"))
    bench.conclude("rate, of nginx's", relative(result, ours, "nginx"))
    bench.conclude("rate, of evhttp's", relative(result, ours, "evhttp"))
    return "Keep-alive, 10 connections", rate_table(result)


def section_close(bench):
    result = rates(bench, "a connection per request", close=True)
    ours = bench.ours if bench.ours in result else "apbase"
    bench.conclude("rate, of the bare server's", relative(result, ours, "bare"))
    return "A connection per request, 10 at a time", rate_table(result)


def section_pipelined(bench):
    result = rates(bench, "pipelined", depth=PIPELINE_DEPTH)
    bench.conclude("rate, of the bare server's", relative(result, bench.ours, "bare"))
    bench.conclude("rate of the plain handler, of the bare server's", relative(result, "apbase", "bare"))
    bench.conclude("rate, of nginx's", relative(result, bench.ours, "nginx"))
    return f"Pipelined {PIPELINE_DEPTH} deep, 10 connections", rate_table(result)


def cpu_per_request(bench, server, seconds):
    before = server.cpu_seconds()
    requests, _ = wrk(bench, server, seconds)
    return (server.cpu_seconds() - before) * 1e6 / requests


def section_idle(bench):
    rounds, seconds = bench.pick(3, 9), bench.pick(1, 3)
    line = bench.line(cpu=bench.cpu)
    running = line.start_all()
    alone = {kind: [] for kind in line.kinds}
    beside = {kind: [] for kind in line.kinds}
    try:
        for server in running.values():
            wrk(bench, server, 1)
        for turn in range(rounds):
            say(f"idle connections: round {turn + 1} of {rounds}")
            for kind in rotated(line.kinds, turn):
                server = running[kind]
                # The two in turns, so that neither always comes first.
                if turn % 2 == 0:
                    alone[kind].append(cpu_per_request(bench, server, seconds))
                with IdleConnections(server, IDLE_COUNT) as idle:
                    beside[kind].append(cpu_per_request(bench, server, seconds))
                    if idle.still_open() != IDLE_COUNT:
                        raise Failure(f"{kind} has closed idle connections")
                if turn % 2 == 1:
                    alone[kind].append(cpu_per_request(bench, server, seconds))
    finally:
        servers.stop_all(running)
    rows = []
    for kind in line.kinds:
        ratios = [b / a for a, b in zip(alone[kind], beside[kind])]
        rows.append([TITLES[kind], number(statistics.median(alone[kind])), number(statistics.median(beside[kind]))])
        rows[-1] += [f"{statistics.median(ratios):.2f}", spread(ratios)]
        if kind == bench.ours:
            bench.conclude(f"CPU a request beside {IDLE_COUNT:,} idle connections, of one alone", statistics.median(ratios))
    head = ["server", "CPU µs a request", f"with {IDLE_COUNT:,} idle", "ratio", "spread"]
    return f"{IDLE_COUNT:,} idle keep-alive connections beside 10 busy ones", markdown(head, rows)


def section_memory(bench):
    line = bench.line()
    result = {}
    for kind in line.kinds:
        say(f"resident memory: {kind}")
        result[kind] = []
        for _ in range(3):
            with line.start(kind) as server:
                before = server.resident_bytes()
                with IdleConnections(server, RESIDENT_COUNT):
                    result[kind].append((server.resident_bytes() - before) / RESIDENT_COUNT)
    median = {kind: statistics.median(values) for kind, values in result.items()}
    rows = []
    for kind in line.kinds:
        ratios = [value / median["evhttp"] for value in result[kind]]
        rows.append([TITLES[kind], number(median[kind]), f"{median[kind] / median['evhttp']:.2f}", spread(ratios)])
    ours = median[bench.ours] / median["evhttp"]
    bench.conclude("memory of an idle connection, of evhttp's", ours)
    text = markdown(["server", "bytes a connection", "ratio to evhttp", "spread"], rows)
    return f"Resident memory of {RESIDENT_COUNT:,} idle connections", text


def per_request(line, kind, wrapper, read, fewer, more, depth=1):
    """Runs a server twice, with different numbers of requests on one connection, and counts the difference."""
    counted = []
    for requests in (fewer, more):
        with line.start(kind, wrapper=wrapper) as server:
            client = Client(server.port)
            client.ask_again(server.request() * depth, ANSWER_BYTES * depth, requests // depth)
            client.close()
        counted.append(read())
    names = set(counted[0]) | set(counted[1])
    difference = more // depth * depth - fewer // depth * depth
    return {name: (counted[1].get(name, 0) - counted[0].get(name, 0)) / difference for name in names}


def syscall_table(bench, line, depth):
    report = os.path.join(bench.scratch, "strace")

    def read():
        with open(report) as file:
            rows = [row.split() for row in file]
        return {row[1]: int(row[0]) for row in rows if len(row) == 2 and row[0].isdigit() and row[1] != "total"}

    rows = []
    for kind in line.kinds:
        say(f"system calls, {depth} deep: {kind}")
        wrapper = ["strace", "-f", "-c", "-U", "calls,name", "-o", report]
        calls = per_request(line, kind, wrapper, read, 1000, bench.pick(2000, 5000), depth)
        listed = sorted(((round(count, 2), name) for name, count in calls.items() if count >= 0.005), reverse=True)
        rows.append([TITLES[kind], f"{sum(calls.values()):.2f}", ", ".join(f"{n} {c:.2f}" for c, n in listed)])
        if kind == bench.ours:
            bench.conclude(f"system calls a request, {depth} deep", round(sum(calls.values()), 2))
    return markdown([f"{depth} deep", "calls", "which"], rows)


def section_syscalls(bench):
    line = bench.line()
    text = "\n".join(syscall_table(bench, line, depth) for depth in (1, PIPELINE_DEPTH))
    return "System calls of a keep-alive request on one connection", text


def section_instructions(bench):
    kinds = [kind for kind in bench.kinds if kind != "nginx"]  # would need a valgrind for its worker
    line = bench.line(kinds)
    profile = os.path.join(bench.scratch, "callgrind")
    log = os.path.join(bench.scratch, "memcheck")

    def read_instructions():
        with open(profile) as file:
            return {"": int(re.search(r"^(?:summary|totals): (\d+)", file.read(), re.M)[1])}

    def read_allocations():
        with open(log) as file:
            return {"": int(re.search(r"total heap usage: ([\d,]+) allocs", file.read())[1].replace(",", ""))}

    rows = []
    for kind in kinds:
        say(f"instructions and allocations: {kind}")
        wrapper = ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={profile}"]
        instructions = per_request(line, kind, wrapper, read_instructions, 500, bench.pick(1500, 5500))[""]
        wrapper = ["valgrind", "--tool=memcheck", "--leak-check=no", f"--log-file={log}"]
        allocations = per_request(line, kind, wrapper, read_allocations, 500, 1500)[""]
        rows.append([TITLES[kind], number(instructions), f"{allocations:.2f}"])
        if kind == bench.ours:
            bench.conclude("instructions a request", instructions)
    head = ["server", "instructions", "allocations"]
    return "User instructions and allocations of a keep-alive request on one connection", markdown(head, rows)


class Micro:
    """The results of one program of micro-benchmarks: nanoseconds by group, implementation and size, of several rounds.
    In each round the compared implementations run one right after the other."""

    def __init__(self, bench, program):
        self.times = {}
        rounds = bench.pick(5, 21)
        for turn in range(rounds):
            say(f"{program}: round {turn + 1} of {rounds}")
            self._round(bench, program)

    def _round(self, bench, program):
        report = os.path.join(bench.scratch, f"{program}.json")
        command = ["taskset", "-c", str(bench.cpu), os.path.join(bench.binaries, "bench", program)]
        command += [f"--benchmark_out={report}", "--benchmark_out_format=json"]
        command += [f"--benchmark_min_time={bench.pick(0.02, 0.05)}"]
        result = subprocess.run(command, capture_output=True, text=True)
        if result.returncode != 0:
            raise Failure(f"{program}: {(result.stderr.strip() or 'failed').splitlines()[-1]}")
        with open(report) as file:
            runs = json.load(file)["benchmarks"]
        for run in runs:
            if run.get("error_occurred"):
                raise Failure(f"{program}: {run['name']}: {run['error_message']}")
            group, implementation, size = run["run_name"].split("/")[:3]
            self.times.setdefault((group, implementation, int(size)), []).append(1e9 / run["items_per_second"])

    def groups(self):
        return list(dict.fromkeys(group for group, _, _ in self.times))

    def implementations(self, group):
        return list(dict.fromkeys(name for g, name, _ in self.times if g == group))

    def sizes(self, group):
        return sorted({size for g, _, size in self.times if g == group})

    def ratios(self, group, size, reference, implementation="apbase"):
        """Within each round. The reference is another implementation, or another size of the same one."""
        other = (group, reference, size) if isinstance(reference, str) else (group, implementation, reference)
        return [a / b for a, b in zip(self.times[group, implementation, size], self.times[other])]

    def ratio(self, *arguments):
        return statistics.median(self.ratios(*arguments))

    def table(self, reference, size_title):
        """Nanoseconds an operation, and the ratio of apbase's to the reference."""
        text = ""
        for group in self.groups():
            names = self.implementations(group)
            head = [f"{group}: {size_title}", *(f"{name}, ns" for name in names)]
            if reference in names:
                head += [f"apbase : {reference}", "spread"]
            rows = []
            for size in self.sizes(group):
                medians = [statistics.median(self.times[group, name, size]) for name in names]
                rows.append([f"{size:,}", *(number(median) for median in medians)])
                if reference in names:
                    rows[-1] += [f"{self.ratio(group, size, reference):.2f}", spread(self.ratios(group, size, reference))]
            text += markdown(head, rows) + "\n"
        return text


def section_timers(bench):
    micro = Micro(bench, "timer_bench")
    for group in ("rearm the oldest", "rearm any"):
        slowest = max(micro.ratio(group, size, 10) for size in micro.sizes(group))
        bench.conclude(f"{group}, slowest of 10 to 10,000 timers, of 10 timers", slowest)
        worst = max(micro.ratio(group, size, "libevent") for size in micro.sizes(group))
        bench.conclude(f"{group}, worst of 10 to 10,000 timers, of libevent", worst)
    ratio = micro.ratio("immediate beside idle ones", 10000, 0)
    bench.conclude("an immediate timer beside 10,000 idle ones, of one beside none", ratio)
    return "Timers", micro.table("libevent", "timers")


def section_dispatch(bench):
    micro = Micro(bench, "loop_bench")
    ratio = micro.ratio("read and write a byte", 1, "bare epoll")
    bench.conclude("a byte read and written, of a bare loop", ratio)
    return "Dispatch of an event", micro.table("bare epoll", "ready at once")


def section_htable(bench):
    micro = Micro(bench, "htable_bench")
    for group in micro.groups():
        worst = max(micro.ratio(group, size, "GHashTable") for size in micro.sizes(group))
        text = f"{group}, worst of 10 to 10,000 entries, of GHashTable"
        bench.conclude(text, worst)
    return "Hash table", micro.table("GHashTable", "entries")


def section_buffer(bench):
    return "Byte buffer, pieces of 200 bytes", Micro(bench, "buffer_bench").table("libevent", "pieces")


def bus_rounds(bench, kind, rounds, count):
    """For each form and round: the round trips a second, and the microseconds of CPU time of one."""
    pairs = {}
    result = {form: [] for form in bus_peers.FORMS}
    try:
        for form in bus_peers.FORMS:
            pairs[form] = bus_peers.CallPair(bench, form, cpu=bench.cpu)
            pairs[form].calls(kind, count // 4)
        for turn in range(rounds):
            say(f"bus, {kind} calls: round {turn + 1} of {rounds}")
            for form in rotated(list(bus_peers.FORMS), turn):
                seconds, cpu_seconds = pairs[form].calls(kind, count)
                result[form].append((count / seconds, cpu_seconds / count * 1e6))
    finally:
        for pair in pairs.values():
            pair.stop()
    return result


def bus_instructions(bench, form, kind):
    """User instructions of a round trip, of the caller and the called together."""
    profile = os.path.join(bench.scratch, "callgrind-bus")
    wrapper = ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={profile}"]
    fewer, more = 200, bench.pick(700, 2200)

    def read():
        with open(profile) as file:
            return int(re.search(r"^(?:summary|totals): (\d+)", file.read(), re.M)[1])

    counted = {"caller": [], "called": []}
    for count in (fewer, more):
        with bus_peers.CallPair(bench, form) as pair:
            pair.calls(kind, count, wrapper=wrapper)
        counted["caller"].append(read())
        with bus_peers.CallPair(bench, form, wrapper=wrapper) as pair:
            pair.calls(kind, count)
        counted["called"].append(read())
    return sum((after - before) / (more - fewer) for before, after in counted.values())


BUS_CALLS = {"async": "ubus_req_async_to", "retry": "ubus_retry_request_invoke: a look-up and a call"}
BUS_TITLE = "calls with JSON both ways over the message bus, one after the other"


def section_bus(bench):
    text = ""
    for kind, title in BUS_CALLS.items():
        result = bus_rounds(bench, kind, bench.pick(7, 31), bench.pick(1000, 4000))
        cpu = {form: [microseconds for _, microseconds in values] for form, values in result.items()}
        rows, before = [], None
        for form, form_title in bus_peers.FORMS.items():
            rows.append([form_title, number(statistics.median(rate for rate, _ in result[form]))])
            rows[-1] += [number(statistics.median(cpu[form])), "", ""]
            if before:
                # A share of the time of libubus, the bus daemon and the kernel: jansson's time is not in it.
                shares = [(b - a) / plain * 100 for a, b, plain in zip(cpu[before], cpu[form], cpu["plain"])]
                rows[-1][-2:] = [f"{statistics.median(shares):+.1f}", spread(shares)]
            before = form
        bench.conclude(f"{kind} calls, % that lib/ubus adds", statistics.median(shares))
        text += markdown([title, "round trips a second", "CPU µs", "% of the first added", "spread"], rows) + "\n"
    return f"Time of {BUS_TITLE}", text


def section_bus_counts(bench):
    text = ""
    for kind, title in BUS_CALLS.items():
        counts = {}
        for form in bus_peers.FORMS:
            say(f"bus, {kind} calls: instructions, {form}")
            counts[form] = bus_instructions(bench, form, kind)
        rows = [[form_title, number(counts[form])] for form, form_title in bus_peers.FORMS.items()]
        bench.conclude(f"{kind} calls, instructions that lib/ubus adds", counts["apbase"] - counts["loop"])
        text += markdown([title, "instructions"], rows) + "\n"
    return f"User instructions of {BUS_TITLE}", text


def section_bus_soak(bench):
    wanted, restarts = bench.pick(SOAK_CALLS // 10, SOAK_CALLS), bench.pick(SOAK_RESTARTS // 6, SOAK_RESTARTS)
    every = wanted // (restarts + 1)
    samples = list(bus_peers.soak(bench, wanted, every, lambda count: say(f"bus soak: {count:,} of {wanted:,} calls")))
    if len(samples) != restarts + 1:
        raise Failure(f"soak: {len(samples) - 1} restarts instead of {restarts}")
    begin = -(-len(samples) // 10)
    rows = []
    for name, resident in zip(("calling", "called"), zip(*samples)):
        settled, most = resident[begin], max(resident[begin:])
        rows.append([name, number(resident[0] / 1024), number(settled / 1024), number(most / 1024)])
        rows[-1] += [number(resident[-1] / 1024)]
        bench.conclude(f"{name} daemon, KiB more after 10 % of the run", (most - settled) / 1024)
    head = ["daemon", "resident KiB at the start", "after 10 %", "most since", "at the end"]
    title = f"{wanted:,} calls over a message bus that is restarted {restarts} times"
    return title, markdown(head, rows)


def section_nft_build(bench):
    micro = Micro(bench, "nft_build_bench")
    ratio = micro.ratio("10 expressions", 1000, "libnftnl")
    bench.conclude("1,000 rules of 10 expressions, of direct calls", ratio)
    return "Building nftables rules, a rule", micro.table("libnftnl", "rules in a transaction")


def section_nft_counts(bench):
    """The difference of two runs with different numbers of rules."""
    fewer, more = nft_peers.Rules(bench, "long", 50), nft_peers.Rules(bench, "long", bench.pick(100, 200))

    def per_rule(count_of, way):
        low, high = count_of(fewer, way), count_of(more, way)
        return low and [(b - a) / (more.count - fewer.count) for a, b in zip(low, high)]

    counted, rows = {}, []
    for way, title in nft_peers.WAYS.items():
        say(f"nft: instructions and allocations, {title}")
        build, make = per_rule(nft_peers.Rules.to_build, way), per_rule(nft_peers.Rules.to_make, way)
        counted[way] = build
        rows.append([title, *([number(count) for count in build] if build else ["", ""]), *map(number, make)])
    ours, direct = counted["apbase"], counted["direct"]
    bench.conclude("instructions to build a rule, of direct calls", ours[0] / direct[0])
    bench.conclude("allocations to build a rule, more than direct calls", ours[1] - direct[1])
    head = ["a rule of 10 expressions", "instructions to build", "allocations", "to build and send", "allocations"]
    return "User instructions and allocations of an nftables rule", markdown(head, rows)


def nft_commits(bench, kind, count, transactions):
    """A table, and the ratio of lib/nft to `nft -f`."""
    rules = nft_peers.Rules(bench, kind, count, transactions)
    what = {"long": "10 expressions", "short": "3 expressions", "replace": "10 expressions, replaced"}[kind]
    title = f"{count:,} × {what}; transactions: {transactions}"
    say(f"nft: {title}")
    seconds = rules.seconds(bench.pick(5, 31))
    rows = []
    for way, way_title in nft_peers.WAYS.items():
        ratios = [a / b for a, b in zip(seconds[way], seconds["nft"])]
        median = statistics.median(seconds[way])
        rows.append([way_title, number(median * 1e3), number(count / median)])
        rows[-1] += [f"{statistics.median(ratios):.2f}", spread(ratios)]
    head = [title, "ms", "rules a second", "ratio to `nft -f`", "spread"]
    return markdown(head, rows), relative(seconds, "apbase", "nft")


def section_nft_commit(bench):
    for kind in ("long", "short"):
        nft_peers.Rules(bench, kind, 200).require_same_listings()
    text = nft_commits(bench, "long", 1, 1)[0] + "\n"
    table, ratio = nft_commits(bench, "long", 1000, 5)
    text += table + "\n"
    bench.conclude("1,000 rules in 5 transactions, of `nft -f`'s time", ratio)
    if not bench.raise_limits:
        say("nft: 1,000 rules in one transaction are left out without --raise-limits")
        return "Building and committing nftables rules", text
    with nft_peers.RaisedLimits():
        for kind in ("long", "short", "replace"):
            nft_peers.Rules(bench, kind, 1000).require_same_listings()
            table, ratio = nft_commits(bench, kind, 1000, 1)
            text += table + "\n"
            bench.conclude(f"1,000 rules in one transaction ({kind}), of `nft -f`'s time", ratio)
    return "Building and committing nftables rules", text


def section_size(bench):
    library = os.path.realpath(os.path.join(bench.binaries, "libapbase.so"))
    stripped = os.path.join(bench.scratch, "stripped.so")
    subprocess.run(["strip", "-o", stripped, library], check=True)
    sizes = subprocess.run(["size", stripped], capture_output=True, text=True, check=True).stdout.splitlines()[1]
    text_bytes, data_bytes, bss_bytes = (int(word) for word in sizes.split()[:3])
    row = [f"{size:,}" for size in (os.path.getsize(stripped), text_bytes, data_bytes, bss_bytes)]
    return "The stripped library, bytes", markdown(["", "file", "text", "data", "bss"], [["libapbase.so", *row]])


SECTIONS = {
    "keep-alive": section_keep_alive,
    "close": section_close,
    "pipelined": section_pipelined,
    "idle": section_idle,
    "memory": section_memory,
    "syscalls": section_syscalls,
    "instructions": section_instructions,
    "timers": section_timers,
    "dispatch": section_dispatch,
    "htable": section_htable,
    "buffer": section_buffer,
    "bus": section_bus,
    "bus-counts": section_bus_counts,
    "bus-soak": section_bus_soak,
    "nft-build": section_nft_build,
    "nft-counts": section_nft_counts,
    "nft-commit": section_nft_commit,
    "size": section_size,
}


def first_line(*command):
    try:
        result = subprocess.run(command, capture_output=True, text=True)
    except FileNotFoundError:
        return "?"
    return (result.stdout.strip() or result.stderr.strip() or "?").splitlines()[0]


def machine():
    with open("/proc/cpuinfo") as file:
        models = re.findall(r"^model name\s*:\s*(.+)$", file.read(), re.M) or [platform.machine()]
    with open("/etc/os-release") as file:
        system = re.search(r'^PRETTY_NAME="?([^"\n]+)', file.read(), re.M)[1]
    kernel = ".".join(platform.release().split(".")[:2])
    nginx = first_line(servers.nginx_program() or "nginx", "-v").removeprefix("nginx version: ")
    libraries = {name: first_line("pkg-config", "--modversion", name) for name in ("libevent", "glib-2.0")}
    facts = [
        f"{os.cpu_count()} x {models[0]}, {platform.machine()}; {system}, Linux {kernel}",
        f"{first_line('c++', '--version')}; {', '.join(f'{name} {text}' for name, text in libraries.items())}",
        f"{nginx}; {' '.join(first_line('wrk', '-v').split()[:2])}; {first_line('valgrind', '--version')}",
        f"{datetime.date.today()}, load average {os.getloadavg()[0]:.2f} at the start",
    ]
    return "\n".join(f"- {fact}" for fact in facts) + "\n"


def write_figures(name, title, text, facts):
    os.makedirs(FIGURES, exist_ok=True)
    with open(os.path.join(FIGURES, f"{name}.md"), "w") as file:
        file.write(f"# {title}\n\nWritten by `scripts/bench --write {name}`, not by hand. ")
        file.write(f"[How it is measured](README.md)\n\n{facts}\n{text}")


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Prints tables of ratios in Markdown.")
    parser.add_argument("--write", action="store_true", help="also write each table to docs/figures/<section>.md")
    parser.add_argument("--quick", action="store_true", help="few and short rounds: a first look")
    parser.add_argument(
        "--raise-limits",
        action="store_true",
        help="raise net.core.wmem_default and rmem_default of this machine where that is needed, and set them back",
    )
    parser.add_argument("--binaries", default=os.path.join(HERE, "../build/release-bench"), help=argparse.SUPPRESS)
    parser.add_argument("section", nargs="*", metavar="section", help="one of: " + ", ".join(SECTIONS) + "; default all")
    options = parser.parse_args()
    for name in options.section:
        if name not in SECTIONS:
            parser.error(f"no section {name}; there are: {', '.join(SECTIONS)}")
    if options.raise_limits and not nft_peers.RaisedLimits.possible():
        parser.error("--raise-limits takes root's rights")
    if options.write and options.quick:
        parser.error("--write takes full rounds, not --quick")
    servers.raise_descriptor_limit()
    facts = machine()
    print(facts, flush=True)
    scratch = tempfile.mkdtemp(prefix="apbase-bench-")
    try:
        bench = Bench(os.path.abspath(options.binaries), scratch, options.quick, options.raise_limits)
        for name in options.section or SECTIONS:
            title, text = bench.run(name)
            print(f"### {title}\n\n{text}", flush=True)
            if options.write:
                write_figures(name, title, text, facts)
    except Failure as failure:
        sys.exit(f"bench: {failure}")
    finally:
        shutil.rmtree(scratch)


if __name__ == "__main__":
    main()
