"""Measures halvo beside its baselines and prints the tables of docs/performance.md. Runs inside scripts/in-vm, which
shows the repository as /mnt: "bench.py SECONDS". It listens to the heartbeat for SECONDS on an idle machine, and again
on a busy one.

The two sides are measured in turns where possible, A B A B, so that a disturbance hits both; the heartbeats run side
by side.
"""

import collections
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
from pathlib import Path
from statistics import median, quantiles

BUILD = "/mnt/build-bench"
HALVO = f"{BUILD}/halvo"
FIRST, BASELINE, PRELOAD = (f"{BUILD}/bench/{name}" for name in ("first", "baseline", "libnofile_preload.so"))
HALVO_SOCKET, BASELINE_SOCKET = "/tmp/halvo_socket", "/tmp/baseline_socket"
# Runs a daemon beside others, with its socket out of their way.
ALONE = ("unshare", "--mount", "sh", "-c", 'mount -t tmpfs tmpfs /tmp && exec "$@"', "sh")
BASELINE_ADDRESS, HEARTBEAT_PORT = "127.0.0.2", 54321
STAMP = struct.Struct("qq")  # the record that bench/first writes, and a timespec
SO_TIMESTAMPNS, SO_RCVBUFFORCE = 35, 33
PATIENCE = 30  # seconds, for events that take milliseconds, or seconds under valgrind
GAP = 0.003  # seconds between two deaths, in which the log takes the lines about the first
WINDOW = int(sys.argv[1])


def p99(values):
    return quantiles(values, n=100)[98]


def spawn(*command):
    return os.posix_spawnp(command[0], [str(word) for word in command], os.environ)


def spawn_server(role, path):
    pid = spawn(BASELINE, role, path)
    while not os.path.exists(path):
        os.sched_yield()
    return pid


def end(*pids):
    for pid in pids:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)


def numbers(*command):
    """The lines of numbers that a command prints."""
    text = subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE, text=True).stdout
    return [[int(word) for word in line.split()] for line in text.splitlines()]


def replace(path, text):
    """Renames a new file over the path: daemons that watch the old file keep its contents."""
    Path(path + ".new").write_text(text + "\n", encoding="ascii")
    os.rename(path + ".new", path)


def open_peer(address):
    """A heartbeat's peer; the kernel stamps the datagrams, and keeps them until they are read."""
    peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    peer.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    peer.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 22)
    peer.settimeout(PATIENCE)
    peer.bind((address, HEARTBEAT_PORT))
    return peer


def take_intervals(peer):
    """The milliseconds between the datagrams since the last time."""
    stamps = []
    while select.select([peer], [], [], 0)[0]:
        seconds, nanoseconds = STAMP.unpack(peer.recvmsg(16, 64)[1][0][2])
        stamps.append(seconds * 1000 + nanoseconds / 1e6)
    return [after - before for before, after in zip(stamps, stamps[1:])]


class Supervisor:
    """halvo or the bare loop, which keeps `count` processes alive; each process reports its first instruction."""

    made = 0

    def __init__(self, count, baseline=False, wrapper=(), ring=0, interval=2):
        Supervisor.made += 1
        self.count, self.interval, self.pids, self.latencies = count, interval, [], []
        path = f"/var/fifo{self.made}"
        os.mkfifo(path)
        self.fifo = os.open(path, os.O_RDWR)
        if not baseline:
            self.peer = open_peer(f"127.0.1.{self.made}")
            replace("/var/heartbeat_info", f"eth8_0 127.0.1.{self.made} 127.0.0.1")
            replace("/etc/config/halvo.conf", self.configuration(f"{FIRST} {path}", ring))
        before = time.monotonic_ns()
        self.pid = spawn(*((BASELINE, "restart", count, FIRST, path) if baseline else (*wrapper, HALVO)))
        self.start_us = (max(self.read_stamps(), default=before) - before) / 1000
        if not baseline:
            self.peer.recv(16)  # now it has read both files

    def configuration(self, command, ring):
        lines = [f"global res_monit_interval {self.interval}", "global vm_failover DISABLE"]
        for name in (f"p{number}" for number in range(self.count)):
            lines += [f"process name {name}", f"{name} process_type NORMAL", f"{name} action PROC_RESTART",
                      f'{name} start_cmd "{command}"']
            if ring:
                lines += [f"{name} recur_fail_interval 2", f"{name} recur_fail_restart_count {ring}"]
        return "\n".join(lines)

    def read_stamps(self):
        data = b""
        while len(data) < self.count * STAMP.size:
            if not select.select([self.fifo], [], [], PATIENCE)[0]:
                raise TimeoutError(f"{self.count} processes did not all begin")
            data += os.read(self.fifo, self.count * STAMP.size - len(data))
        self.pids, stamps = zip(*STAMP.iter_unpack(data)) if data else ((), ())
        return stamps

    def strike(self):
        before = time.monotonic_ns()
        for pid in self.pids:
            os.kill(pid, signal.SIGKILL)
        self.latencies += [(stamp - before) / 1000 for stamp in self.read_stamps()]

    def end(self):
        end(self.pid)
        for pid in self.pids:
            os.kill(pid, signal.SIGKILL)


def line(*cells):
    print(f"| {' | '.join(str(cell) for cell in cells)} |", flush=True)


def table(title, *heads):
    print(f"\n{title}\n")
    line(*heads)
    print(f"|{'---|' * len(heads)}")


def row(what, unit, value, baseline, ratio_limit=None, limit=None, digits=0):
    limits = [f"{bound:g} {name}" for bound, name in ((ratio_limit, "x"), (limit, unit)) if bound is not None]
    missed = (ratio_limit is not None and value / baseline > ratio_limit) or (limit is not None and value > limit)
    line(f"{what}, {unit}", f"{value:.{digits}f}", f"{baseline:.{digits}f}", f"{value / baseline:.2f}",
         " and ".join(limits) + (": missed" if missed else ""))


def start_struck():
    struck = {limit: Supervisor(1, wrapper=(*ALONE, "prlimit", f"--nofile={limit}:{limit}")) for limit in (1024, 20000)}
    struck[1048576] = Supervisor(1, wrapper=(*ALONE, "env", f"LD_PRELOAD={PRELOAD}"))
    struck |= {f"ring {nodes}": Supervisor(1, wrapper=ALONE, ring=nodes) for nodes in (1, 10, 60)}
    struck |= {"bare": Supervisor(1, baseline=True), "bare ten": Supervisor(10, baseline=True)}
    return struck | {"ten": Supervisor(10, wrapper=ALONE)}


def show_deaths(struck):
    for count, rounds in ((1, 300), (10, 30)):
        for _ in range(rounds):
            for supervisor in (each for each in struck.values() if each.count == count):
                time.sleep(GAP)
                supervisor.strike()
    latencies = {name: supervisor.latencies for name, supervisor in struck.items()}
    for what, name, baseline, most in (("one dies", 1024, "bare", 1.5), ("ten die together", "ten", "bare ten", 1.6)):
        for kind, figure, limit in (("median", median, most), ("p99", p99, 3)):
            row(f"{what}: to the successor's first instruction, {kind}", "us", figure(latencies[name]),
                figure(latencies[baseline]), limit)
    for limit in (20000, 1048576):
        row(f"one dies, {limit} descriptors allowed (baseline: 1024), median", "us", median(latencies[limit]),
            median(latencies[1024]), 1.1)
    for supervisor in struck.values():
        supervisor.end()


def run_ns(*tasks):
    """Processor time of the tasks; a pattern stands for all threads of a process."""
    return sum(int(path.read_text().split()[0]) for task in tasks for path in Path("/proc").glob(f"{task}/schedstat"))


def listen(load, halvo_peer, bare_peer):
    take_intervals(halvo_peer)
    take_intervals(bare_peer)
    time.sleep(WINDOW)
    ours, bare = take_intervals(halvo_peer), take_intervals(bare_peer)
    for kind, figure, limit in (("p50", median, None), ("p99", p99, 1.2), ("longest", max, None)):
        row(f"heartbeat interval, {load}: {kind}", "ms", figure(ours), figure(bare), limit, digits=3)


def show_heartbeats(idle):
    """Returns the processor time of a pass in microseconds, by the number of processes."""
    halvo, bare_peer = idle[10], open_peer(BASELINE_ADDRESS)
    beat = spawn(BASELINE, "beat", BASELINE_ADDRESS, HEARTBEAT_PORT)
    reader = spawn(BASELINE, "pass", halvo.interval, *halvo.pids)
    tasks = {"halvo": (f"{halvo.pid}/task/*",), "bare": (beat, reader)}
    tasks |= {count: (f"{daemon.pid}/task/{daemon.pid}",) for count, daemon in idle.items()}
    before = {name: run_ns(*each) for name, each in tasks.items()}
    listen("idle", halvo.peer, bare_peer)
    spent = {name: run_ns(*each) - before[name] for name, each in tasks.items()}
    row("processor time a minute, idle, 10 processes", "ms",
        *(spent[name] / 1e6 * 60 / WINDOW for name in ("halvo", "bare")), digits=1)
    burners = [spawn("sh", "-c", "while :; do :; done") for _ in range(os.cpu_count())]
    listen("every processor busy", halvo.peer, bare_peer)
    end(*burners, beat, reader)
    return {count: spent[count] / 1000 / round(WINDOW / daemon.interval) for count, daemon in idle.items()}


def count_between(calls, name):
    """The median number of system calls from one call of that name to the next, the next one included."""
    at = [number for number, call in enumerate(calls) if call == name]
    return median(after - before for before, after in zip(at, at[1:]))


def show_system_calls(idle):
    daemons = {count: idle[count] for count in (0, 3)}
    traces = [subprocess.Popen(["strace", "-q", "-f", "-o", f"/tmp/trace{count}", "-p", str(daemon.pid)])
              for count, daemon in daemons.items()]
    time.sleep(4 * daemons[0].interval)
    for trace in traces:
        trace.send_signal(signal.SIGINT)
        trace.wait()
    for count, daemon in daemons.items():
        calls = collections.defaultdict(list)
        for tid, call in re.findall(r"^(\d+) +(\w+)\(", Path(f"/tmp/trace{count}").read_text(), re.MULTILINE):
            calls[int(tid)].append(call)
        beats = max(calls.values(), key=lambda thread: thread.count("sendto"))
        row(f"system calls a heartbeat, {count} processes", "calls", count_between(beats, "sendto"), 6, 1)
        row(f"system calls a pass, {count} processes", "calls", count_between(calls[daemon.pid], "clock_nanosleep"),
            3 * (2 + 2 * count) + 1, 1)


def rollup(pid, *keys):
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return sum(int(re.search(rf"^{key}: +(\d+)", text, re.MULTILINE)[1]) for key in keys)


def start_crowd(count, program=BASELINE):
    crowd = subprocess.Popen([program, "crowd", str(count)], stdout=subprocess.PIPE)
    crowd.stdout.readline()
    return crowd


def show_memory(pid, sleeper):
    for what, keys, limit in (("proportional", ("Pss",), 700), ("resident", ("Rss",), None),
                              ("private", ("Private_Clean", "Private_Dirty"), None)):
        row(f"memory, 10 processes: {what}", "kB", rollup(pid, *keys), rollup(sleeper, *keys), limit=limit)


def measure_mappings(pid):
    sizes, key = collections.Counter(), ()
    for words in map(str.split, Path(f"/proc/{pid}/smaps").read_text().splitlines()):
        if "-" in words[0] and not words[0].endswith(":"):
            kind = "code" if "x" in words[1] else "data" if "w" in words[1] else "constants"
            key = (os.path.basename(words[5]) if len(words) > 5 else "zeroed data, thread stacks, arenas", kind)
        elif words[0] in ("Rss:", "Pss:"):
            sizes[*key, words[0]] += int(words[1])
    return sizes


def show_clients():
    bare = spawn_server("serve", BASELINE_SOCKET)
    ours, theirs, served, bare_served = [], [], [], []
    for _ in range(20):
        ours += numbers(BASELINE, "run", 15, HALVO, "-s")
        theirs += numbers(BASELINE, "run", 15, BASELINE, "client", HALVO_SOCKET)
        served += numbers(BASELINE, "requests", 50, HALVO_SOCKET)
        bare_served += numbers(BASELINE, "requests", 50, BASELINE_SOCKET)
    times, peaks = zip(*(map(median, zip(*runs)) for runs in (ours, theirs)))
    row("halvo -s, exec to exit, median", "ms", *(ns / 1e6 for ns in times), 1.3, 0.9, 3)
    row("halvo -s, peak memory", "kB", *peaks)
    row("a status request, median", "us", *(median(ns for ns, in runs) / 1000 for runs in (served, bare_served)), 1.3,
        digits=1)
    end(bare)


def measure_starts():
    """Medians for halvo and the bare loop, by the number of processes."""
    starts = collections.defaultdict(list)
    for _ in range(20):
        for count, baseline in ((count, baseline) for count in (1, 3, 10) for baseline in (False, True)):
            started = Supervisor(count, baseline)
            starts[count, baseline].append(started.start_us)
            started.end()
    return {key: median(times) for key, times in starts.items()}


class Counted:
    """A program under callgrind: put `wrapper` before its command, and store its pid in `pid`."""

    def __init__(self, name):
        self.name, self.pid = name, 0
        self.wrapper = ("valgrind", "-q", "--tool=callgrind", "--separate-threads=yes", "--compress-strings=no",
                        f"--callgrind-out-file=/tmp/{name}")

    def dump(self):
        subprocess.run(["vgdb", f"--pid={self.pid}", "dump"], check=True, capture_output=True, timeout=PATIENCE)

    def per_call(self, function):
        """Instructions of the calling thread for each call of the function, from the first dump to the second."""
        for text in (path.read_text() for path in Path("/tmp").glob(f"{self.name}.2-*")):
            calls = sum(map(int, re.findall(rf"^cfn={function}\b.*\ncalls=(\d+)", text, re.MULTILINE)))
            if calls:
                return int(re.search(r"^totals: (\d+)", text, re.MULTILINE)[1]) / calls
        raise LookupError(f"{function} was not called")


def show_instructions():
    halvo, beat, reader = counted = Counted("halvo"), Counted("beat"), Counted("pass")
    supervisor = Supervisor(10, wrapper=halvo.wrapper)
    halvo.pid = supervisor.pid
    beat.pid = spawn(*beat.wrapper, BASELINE, "beat", BASELINE_ADDRESS, HEARTBEAT_PORT)
    reader.pid = spawn(*reader.wrapper, BASELINE, "pass", 2, *supervisor.pids)
    for seconds in (12, 8):  # until the processes are sampled; then the counted time
        time.sleep(seconds)
        for each in counted:
            each.dump()
    row("instructions a heartbeat", "user", halvo.per_call("halvo_confirm_held_pid"), beat.per_call("send_beat"))
    row("instructions a pass, 10 processes", "user", halvo.per_call("halvo_system_memory_usage"),
        reader.per_call("read_proc") * 22)


def show_growth(struck, pass_us, starts, memory_kb):
    table("With its processes", "processes", "start to the last one's first instruction, us", "bare loop, us",
          "processor time of a pass, us", "memory of its own, kB")
    for count in (1, 3, 10):
        line(count, *(f"{figure:.0f}" for figure in (starts[count, False], starts[count, True], pass_us[count])),
             memory_kb[count])
    table("With the nodes of the ring", "nodes", "one dies: successor's first instruction, median, us", "p99, us")
    for nodes in (1, 10, 60):
        line(nodes, *(f"{figure(struck[f'ring {nodes}'].latencies):.0f}" for figure in (median, p99)))
    table("With the other processes of the VM", "processes", "looking for one DAEMON or SYSTEM process, ms")
    for size in (100, 1000, 10000):
        with start_crowd(size) as crowd:
            line(size, f"{median(ns for ns, _ in numbers(BASELINE, 'run', 7, 'sh', '-c', 'pidof lunet')) / 1e6:.1f}")
            crowd.kill()


def measure():
    shutil.copy(BASELINE, "/tmp/lunet")
    lunet = start_crowd(0, "/tmp/lunet")
    struck = start_struck()
    # Started now, so that their processes are old enough to be sampled. The client reaches the last one.
    idle = {count: Supervisor(count, wrapper=ALONE) for count in (0, 1, 3)} | {10: Supervisor(10, interval=6)}
    table("Figures", "figure", "halvo", "baseline", "ratio", "target")
    show_deaths(struck)
    pass_us = show_heartbeats(idle)
    show_system_calls(idle)
    memory_kb = {count: rollup(daemon.pid, "Anonymous") for count, daemon in idle.items()}
    for count in (0, 1, 3):
        idle[count].end()  # memory shared with them would count only in part
    show_memory(idle[10].pid, lunet.pid)
    mappings = measure_mappings(idle[10].pid)
    show_clients()
    idle[10].end()
    starts = measure_starts()
    row("server start to the tenth process's first instruction, median", "us", starts[10, False], starts[10, True], 2)
    show_instructions()
    show_growth(struck, pass_us, starts, memory_kb)
    table("Where the memory is", "mapping", "contents", "resident, kB", "proportional, kB")
    for name, kind in dict.fromkeys(key[:2] for key, kilobytes in mappings.most_common() if kilobytes):
        line(name, kind, mappings[name, kind, "Rss:"], mappings[name, kind, "Pss:"])
    lunet.kill()


def main():
    log = spawn_server("log", "/dev/log")
    try:
        measure()
    finally:
        end(log)


main()
