#!/usr/bin/python3
"""soak.py SECONDS BUILD SEED: the storm that the daemon has to survive, inside scripts/in-vm (see soak).

At once, each from a thread of its own: kills of all kinds, clients with good and bad options, junk on the
socket, live updates with good and faulty files, SIGUSR1, a rewritten address file. Meanwhile and after it, it
looks for a sanitizer's report, memory or descriptors that stay behind, a process that runs twice or stays a
zombie, a start or a death that is not accounted for, a keepalive that comes late. What the host saw is left in
BUILD/soak.log. Exit status 1 when anything was found.
"""
import glob
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from collections import Counter, defaultdict, namedtuple
from statistics import median

SECONDS, BUILD, SEED = float(sys.argv[1]), sys.argv[2], sys.argv[3]
HALVO = BUILD + "/halvo"
QUIET = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
GAP_LIMIT = 2.0  # seconds between two keepalives: wd_tick_interval and one more
# kB; ASan's allocator goes on touching pages of its own for long: there LeakSanitizer is the judge.
GROWTH_LIMIT = {"build": 256, "build-asan": 8192, "build-tsan": 4096}[os.path.basename(BUILD)]
# A small quarantine is soon full.
ENVIRONMENT = {"PATH": os.environ["PATH"], "TSAN_OPTIONS": "log_path=/var/sanitizer",
               "UBSAN_OPTIONS": "print_stacktrace=1", "ASAN_OPTIONS":
               "verify_asan_link_order=0:log_path=/var/sanitizer:quarantine_size_mb=1"}
VM = {"res_monit_interval": 2, "wd_tick_interval": 1, "wd_timeout": 8, "vm_failover": "ENABLE"}


def entry(process_type, start_cmd, action="PROC_RESTART", **more):
    return {"process_type": process_type, "start_cmd": f'"{start_cmd}"', "action": action, **more}


PROCESSES = {
    "plain_a": entry("NORMAL", "/tmp/plain_a run"),
    "plain_b": entry("NORMAL", "/tmp/plain_b run", recur_fail_interval=2, recur_fail_restart_count=20),
    "pre": entry("NORMAL", "/tmp/pre run", pre_start_cmd='"/bin/sleep 0.02"'),
    "post": entry("NORMAL", "/tmp/post run", post_start_cmd='"/bin/sleep 0.02"'),
    "both": entry("NORMAL", "/tmp/both run", pre_start_cmd='"/bin/true"', post_start_cmd='"/bin/true"',
                  recur_fail_interval=2, recur_fail_restart_count=60),
    "burner": entry("NORMAL", "/tmp/burner run", proc_cpu_total_high_water=3),
    "fat": entry("NORMAL", "/tmp/fat run"),
    "daemon_a": entry("DAEMON", "/tmp/daemon_a daemonize"),
    "daemon_b": entry("DAEMON", "/tmp/daemon_b daemonize", pre_start_cmd='"/bin/true"'),
    "lunet": entry("SYSTEM", "SYSTEM", "NOP"),
}
NORMALS = [name for name in PROCESSES if PROCESSES[name]["process_type"] == "NORMAL"]
DETACHED = [name for name in PROCESSES if name not in NORMALS]
RARELY_KILLED = ["burner", "fat", *DETACHED]  # they are to become ACTIVE, and that takes 10 seconds

# Changes of PROCESSES that a live update takes over, and those that it must refuse, with its answer.
GOOD = [{}, {"fat": {"proc_mem_high_water": 1}}, {"fat": {"proc_cpu_total_low_water": 100}},
        {"burner": {"start_cmd": '"/tmp/burner burn"'}}, {"daemon_b": {"action": "NOP"}},
        {"pre": {"pre_start_cmd": '"/bin/true again"'}, "post": {"stop_cmd": '"/bin/true"'}}]
FAULTY = [({"fat": {"process_type": "DAEMON"}}, "process type cannot be changed on the fly"),
          ({"fat": {"process_type": None}}, "Error in reading config file"),
          ({"fat": {"start_cmd": "unquoted"}}, "Error in reading config file"),
          ({"fat": {"start_cmd": '"/tmp/missing"'}}, "start command doesn't exist"),
          ({"pre": {"pre_start_cmd": '"/tmp/missing"'}}, "Script mentioned in pre-start command"),
          ({"both": {"recur_fail_interval": 3}}, "Recurring failure management parameters cannot be changed")]
ADDRESSES = ["eth8_0 127.0.0.1 127.0.0.2\n", "eth4_0 127.0.0.1 127.0.0.1\n", "eth8_0  \n", "", "eth8_0 300.1 x"]
# What a client prints with an option; how often it is used, in 21.
ANSWERS = {"-c": "Global: Config details:", "-s": "Halvo: Status:", "-r": "", "-w": "VM failover is",
           "-h": "Usage:", "-cs": "Halvo: Status:", "-x": "invalid option", "junk": "invalid option"}
OPTION_WEIGHTS = (6, 6, 3, 1, 1, 2, 1, 1)
# The storm gives no cause for any of these in the log.
FORBIDDEN = re.compile("is exiting|Fork failed|execvp failed|buffer is full|going to failover|is triggered|"
                       "Watchdog device|tickling failed|set timeout|Not able to (stop|init|close)|already closed")

counts, findings, over, ending = Counter(), Counter(), threading.Event(), threading.Event()
kills = defaultdict(set)  # (pid, start time) of what the storm has killed, by name


def found(where, what):
    findings[where] += 1
    if findings[where] <= 10:
        print(time.strftime("%T"), f"FOUND ({where}): {what}", flush=True)


def config(changes, **vm):
    text = "".join(f"global {key} {value}\n" for key, value in {**VM, **vm}.items())
    for name in PROCESSES:
        text += f"process name {name}\n"
        for key, value in {**PROCESSES[name], **changes.get(name, {})}.items():
            text += f"{name} {key} {value}\n" if value is not None else ""
    return text


class Host:
    """The log and the device, as halvo_host tells them."""

    def __init__(self):
        self.changed, self.lines, self.last_ping, self.worst_gap = threading.Condition(), [], None, 0.0
        self.started, self.killed, self.ended = Counter(), Counter(), defaultdict(Counter)  # ended: pids
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        command = [BUILD + "/tools/halvo_host", "--color=never"]
        stream = subprocess.Popen(command, stdout=subprocess.PIPE, env=ENVIRONMENT).stdout
        with open(BUILD + "/soak.log", "wb", buffering=0) as log:
            for line in stream:
                log.write(line)
                moment, source, text = line.decode(errors="replace").rstrip("\n").split(None, 2)
                with self.changed:
                    take = self.take_device if source == "DEVICE" else self.take_log
                    take(float(moment), text)
                    self.lines.append(text)
                    self.changed.notify_all()

    def take_device(self, now, text):
        gap = now - self.last_ping if self.last_ping is not None else 0
        self.worst_gap = max(self.worst_gap, gap)
        if gap > GAP_LIMIT or text.startswith("EXPIRED"):
            found("keepalives", f"{text} after {gap:.3f} s at +{now}")
        if re.match("open$|settimeout|keepalive$", text):
            self.last_ping = now
        elif text == "close":
            self.last_ping = None
        counts[text] += 1

    def take_log(self, now, text):
        if match := re.match(r"Process '(\w+)' started; start cmd", text):
            self.started[match[1]] += 1
        elif match := re.match(r"Process '(\w+)' terminated; pid \[(\d+)\]", text):
            self.ended[match[1]][int(match[2])] += 1
        elif match := re.match(r"The  process '(\w+)' is killed by halvo", text):
            self.killed[match[1]] += 1
        elif FORBIDDEN.search(text) and not ending.is_set():
            found("log", f"+{now} {text}")
        counts["crossings"] += " usage[" in text
        counts["reports"] += text == "Global: Config details:"
        counts["changes"] += "has changed. Reinit" in text

    def wait_for(self, text, after, patience):
        with self.changed:
            return self.changed.wait_for(lambda: any(text in line for line in self.lines[after:]), patience)


Process = namedtuple("Process", "pid name state parent start")


def look_at(pid):
    try:
        with open(f"/proc/{pid}/stat") as file:
            head, _, tail = file.read().rpartition(")")
    except OSError:
        return None
    fields = tail.split()
    return Process(int(pid), head.partition("(")[2], fields[0], int(fields[1]), fields[19])


def all_processes():
    return list(filter(None, map(look_at, filter(str.isdigit, os.listdir("/proc")))))


def alive(name, processes):
    """What detaches itself counts once it has; its first parent is on the way out then."""
    parent = daemon.pid if name in NORMALS else 1
    return [p for p in processes if p.name == name and p.state not in "ZX" and p.parent == parent]


def still_alive(process):
    now = look_at(process.pid)
    return now is not None and now.start == process.start and now.state not in "ZX"


def ask(option):
    """A client's run. Returns what it printed."""
    counts["requests"] += 1
    refused = ANSWERS[option] == "invalid option"
    try:
        run = subprocess.run([HALVO, option], env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True,
                             text=True, timeout=60)
    except subprocess.TimeoutExpired:
        found("requests", f"halvo {option} was not answered within 60 s")
        return ""
    if run.returncode != refused or ANSWERS[option] not in run.stdout:
        found("requests", f"halvo {option}: {run.returncode} {run.stdout[:200]} {run.stderr[:2000]}")
    return run.stdout


def update(text, answer):
    counts["updates"] += 1
    with open("/etc/config/new", "w") as file:
        file.write(text)
    os.replace("/etc/config/new", "/etc/config/halvo.conf")  # other clients may have it read at any time
    reply = ask("-r")
    if answer not in reply:
        found("updates", f"not '{answer}' but {reply[:300]!r}")


# ---- The storm: each of these is called again and again by a thread and makes its own pause.

def kill_one(dice, name):
    processes = alive(name, all_processes())
    for process in processes:
        try:
            fd = os.pidfd_open(process.pid)
        except ProcessLookupError:
            continue
        if still_alive(process):
            signal.pidfd_send_signal(fd, dice.choice((signal.SIGKILL, signal.SIGTERM, signal.SIGSEGV)))
            kills[name].add((process.pid, process.start))
        os.close(fd)
    return bool(processes)


def kill_some(dice):
    share = dice.choice((0.1, 0.1, 0.1, 0.3, 1.0))
    names = [name for name in PROCESSES if dice.random() < share * (0.1 if name in RARELY_KILLED else 1)]
    mark = len(host.lines)
    for name in names:
        kill_one(dice, name)
        if name == "lunet":
            while not over.is_set() and alive(name, all_processes()):
                over.wait(0.005)
            subprocess.run(["/tmp/lunet", "daemonize"], check=True, **QUIET)
    if names and names[0] in NORMALS and dice.random() < 0.3:
        host.wait_for(f"Process '{names[0]}' started", mark, 5)
        while not over.is_set() and not kill_one(dice, names[0]):
            over.wait(0.005)  # from fork to exec it has no name yet
        counts["young"] += 1
    over.wait(dice.choice((14, *[dice.random()] * 30)))


def ask_something(dice):
    ask(dice.choices(list(ANSWERS), OPTION_WEIGHTS)[0])
    over.wait(dice.uniform(0, 1.5))


def update_something(dice):
    failover = dice.choice(("ENABLE", "ENABLE", "DISABLE"))
    kind = dice.choices(("good", "faulty", "junk", "short", "limit"), (10, 5, 1, 1, 1))[0]
    if kind == "good":
        update(config(dice.choice(GOOD), vm_failover=failover, version=dice.randrange(10),
                      wd_timeout=dice.randrange(5, 9), debug_mode=dice.choice(("ENABLE", "DISABLE"))),
               "updated successfully")
    elif kind == "faulty":
        changes, answer = dice.choice(FAULTY)
        update(config(changes, vm_failover=failover), answer)
    elif kind == "junk":
        update("".join(map(chr, dice.choices(range(1, 127), k=4000))), "Error in reading config file")
    elif kind == "short":
        update(config({}).rpartition("process name")[0], "cannot be changed on the fly")
    else:  # in two steps: failover is switched on before a new limit is taken over
        mark = len(host.lines)
        update(config({}, vm_failover="DISABLE", vm_mem_high_water=1), "updated successfully")
        if not host.wait_for("VM memory usage[", mark, 60):
            found("updates", "the VM's limit was not crossed within 60 s")
        update(config({}, vm_failover="DISABLE"), "updated successfully")
    over.wait(dice.uniform(0, 4))


def send_junk(dice):
    counts["raw connections"] += 1
    request = dice.randrange(-9, 9).to_bytes(4, "little", signed=True)
    request += dice.randbytes(dice.choice((0, 8192, 8192, 30000)))
    kind = dice.choice(("silent", "vanish", "vanish", "short", "whole", "whole", "whole"))
    text = {"silent": b"", "short": request[:dice.randrange(1, 4)]}.get(kind, request)
    with socket.socket(socket.AF_UNIX) as connection:
        for option in (socket.SO_SNDTIMEO, socket.SO_RCVTIMEO):  # with settimeout() connect() would not wait
            connection.setsockopt(socket.SOL_SOCKET, option, struct.pack("ll", 60, 0))
        try:
            connection.connect("/tmp/halvo_socket")
            connection.sendall(text)
            while kind != "vanish" and connection.recv(65536):
                pass
        except BlockingIOError:
            found("raw connections", f"{kind}: neither answered nor closed within 60 s")
        except (ConnectionResetError, BrokenPipeError):
            pass  # it was closed before all was read
    over.wait(dice.uniform(0, 3))


def disturb(dice):
    counts["signals"] += 1
    daemon.send_signal(signal.SIGUSR1)
    over.wait(dice.uniform(0, 2))
    counts["rewrites"] += 1
    with open("/var/heartbeat_info", "w") as file:
        file.write(dice.choice(ADDRESSES))
    over.wait(dice.uniform(0, 2))


STORM = [kill_some, update_something, *[ask_something] * 3, *[send_junk] * 2, disturb]


def rage(number):
    dice = random.Random(f"{SEED} {number}")
    while not over.is_set():
        try:
            STORM[number](dice)
        except Exception as failure:
            found("the storm", f"{STORM[number].__name__}: {failure!r}")


# ---- What is looked at meanwhile

class Watch:
    def __init__(self):
        self.zombies, self.oldest_zombie, self.memory = {}, 0.0, []

    def run(self, until):
        while (now := time.monotonic()) < until:
            if daemon.poll() is not None:
                return found("the daemon", f"it ended with status {daemon.returncode}")
            self.look_at_processes(now)
            if not self.memory or now - self.memory[-1][0] > 2:
                with open(f"/proc/{daemon.pid}/status") as file:
                    status = dict(line.split(":", 1) for line in file)
                self.memory.append((now, *(int(status[key].split()[0]) for key in ("VmRSS", "VmData"))))
            time.sleep(max(0, now + 0.1 - time.monotonic()))

    def look_at_processes(self, now):
        counts["samples"] += 1
        processes = all_processes()
        zombies = [p for p in processes if p.state == "Z" and p.parent in (daemon.pid, 1)]
        self.zombies = {p: self.zombies.get(p, now) for p in zombies}
        for process, since in self.zombies.items():
            if now - since > max(1.0, self.oldest_zombie):
                found("zombies", f"for {now - since:.1f} s: {process}")
            self.oldest_zombie = max(self.oldest_zombie, now - since)
        for name in PROCESSES:
            several = alive(name, processes)
            if len(several) > 1 and sum(map(still_alive, several)) > 1:
                found("double processes", str(several))

    def growth(self, column):
        """kB from the median of the second eighth of the time to that of the last one."""
        values, eighth = [row[column] for row in self.memory], max(1, len(self.memory) // 8)
        growth = int(median(values[-eighth:]) - median(values[eighth:2 * eighth]))
        if growth > GROWTH_LIMIT:
            found("memory", f"grown by {growth} kB: {values[::max(1, eighth // 2)]}")
        return f"{values[eighth]} kB, later {growth:+} kB"


def count_descriptors():
    """The fewest within three seconds: a pass or a request has some more for a moment."""
    fewest, until = 10**6, time.monotonic() + 3
    while time.monotonic() < until:
        fewest = min(fewest, len(os.listdir(f"/proc/{daemon.pid}/fd")))
        time.sleep(0.05)
    return fewest


# ---- The end

def faults_of_accounts():
    """A NORMAL process is started once more for each of its deaths, and it dies only when it is killed. One
    that is found by name is started again only when it was killed; several kills may make one loss."""
    spawned = {part.split("'")[0]: int((re.search(r"spawned by process manager: (\d+)", part) or "00")[1])
               for part in ask("-s").split("Process '")[1:]}
    processes = all_processes()
    with host.changed:
        for name in PROCESSES:
            ended, started = host.ended[name], host.started[name]
            killed = Counter(pid for pid, _ in kills[name])
            if len(alive(name, processes)) != 1:
                yield f"{name} runs {len(alive(name, processes))} times"
            if spawned.get(name) != started:
                yield f"{name}: {spawned.get(name)} starts reported, {started} logged"
            if name in NORMALS and started != ended.total() + 1:
                yield f"{name}: {started} starts, {ended.total()} deaths"
            if name in NORMALS and (killed - ended or (ended - killed).total() > host.killed[name]):
                yield f"{name}: killed but not dead {killed - ended}, dead but not killed {ended - killed}"
            if name in DETACHED and started > killed.total():
                yield f"{name}: {started} starts, {killed.total()} kills"


def settle():
    """The last deaths are made good soon; a DAEMON's when it was there for 10 seconds, and a pass or two."""
    until = time.monotonic() + 60
    while (faults := list(faults_of_accounts())) and time.monotonic() < until:
        time.sleep(1)
    for fault in faults:
        found("starts and deaths", fault)


def end_daemon():
    """By a fork that fails, so that the daemon ends itself and LeakSanitizer gets its exit."""
    ending.set()
    open("/tmp/no_fork", "w").close()
    kill_one(random.Random(SEED), "plain_a")
    try:
        daemon.wait(60)
    except subprocess.TimeoutExpired:
        daemon.kill()
    if daemon.returncode != 1 or not host.wait_for("Process manager is exiting", 0, 10):
        found("the daemon", f"no fatal exit, status {daemon.returncode}")


def read_reports():
    for path in [*glob.glob("/var/sanitizer.*"), "/var/daemon.out"]:
        with open(path, errors="replace") as file:
            if text := file.read():
                found("sanitizers", f"{path}: {text[:8000]}")
    leaks = "/var/leaks"  # written by leaks_preload
    if "asan" in BUILD and (not os.path.exists(leaks) or open(leaks).read() != "0\n"):
        found("sanitizers", "leaks were found or not looked for")


def start_daemon():
    """Starts the daemon with what it finds running already; it must not have lost anything to begin with."""
    os.chdir("/tmp")
    for name in PROCESSES:
        shutil.copy(BUILD + "/tools/probe", f"/tmp/{name}")
        if name in DETACHED:
            subprocess.run([f"/tmp/{name}", "daemonize"], check=True, **QUIET)
    with open("/etc/config/halvo.conf", "w") as file:
        file.write(config({}))
    with open("/var/heartbeat_info", "w") as file:
        file.write(ADDRESSES[0])
    preload = f"{BUILD}/tools/libwatchdog_preload.so:{BUILD}/tools/libleaks_preload.so"
    with open("/var/daemon.out", "w") as output:
        return subprocess.Popen([HALVO], env={**ENVIRONMENT, "LD_PRELOAD": preload}, stdin=subprocess.DEVNULL,
                                stdout=output, stderr=output)


def rage_and_watch(watch):
    threads = [threading.Thread(target=rage, args=(number,), daemon=True) for number in range(len(STORM))]
    for thread in threads:
        thread.start()
    watch.run(time.monotonic() + SECONDS)
    over.set()
    for thread in threads:
        thread.join()


def end_storm(before):
    update(config({}), "updated successfully")
    settle()
    after = count_descriptors()
    if after != before:
        found("descriptors", f"{before} before, {after} afterwards")
    end_daemon()


def show(watch, before):
    """A row for each kind of finding, and for what there was besides."""
    deaths = sum(ended.total() for ended in host.ended.values())
    samples = f"{counts['samples']} samples"
    rows = {
        "starts and deaths": f"{sum(map(len, kills.values()))} kills ({counts['young']} young), {host.killed.total()} "
                             f"by halvo, {deaths} NORMAL deaths, {host.started.total()} starts",
        "double processes": samples,
        "zombies": f"{samples}, oldest {watch.oldest_zombie:.2f} s",
        "keepalives": f"{counts['keepalive']}, armed {counts['open']} times, at most {host.worst_gap:.3f} s apart",
        "requests": counts["requests"],
        "updates": counts["updates"],
        "raw connections": counts["raw connections"],
        "SIGUSR1": f"{counts['signals']}, {counts['reports']} reports in the log",
        "address file": f"{counts['rewrites']} rewrites, {counts['changes']} changes noticed",
        "limits": f"{counts['crossings']} crossings",
        "log": f"{len(host.lines)} lines",
        "descriptors": f"{before} at rest",
        "memory": f"VmRSS {watch.growth(1)}; VmData {watch.growth(2)}",
        "sanitizers": "with a look for leaks at the end" if "asan" in BUILD else "",
    }
    print(f"{'what':<18} {'count':<76} finding   (seed {SEED}, {SECONDS:.0f} s, {os.path.basename(BUILD)})")
    for what in dict.fromkeys([*rows, *findings]):
        print(f"{what:<18} {rows.get(what, ''):<76} {findings[what] or 'none'}")


def main():
    watch = Watch()
    if not host.wait_for("Process manager started", 0, 60):
        sys.exit("soak: the daemon did not start")
    before = count_descriptors()
    rage_and_watch(watch)
    if daemon.poll() is None:
        end_storm(before)
    read_reports()
    show(watch, before)
    sys.exit(findings.total() > 0)


if __name__ == "__main__":
    host = Host()
    host.wait_for("ready at", 0, 10)
    daemon = start_daemon()
    main()
