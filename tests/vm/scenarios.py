"""The faults in the VM, and the events that the hypervisor and the peer must see."""

from dataclasses import dataclass

from vm import PERIOD, TICK, TIMEOUT

LOOK = PERIOD + 3 + 2  # seconds until a process is missed by name: a period, three looks, and their own time
SAMPLE = 2 * PERIOD + 3  # until a limit is seen crossed: a sample may lie across the fault

STARTED = ("start", "Process manager started")
LOAD_I6300ESB = "insmod /lib/modules/i6300esb.ko"
# The chip set's own watchdog. If left armed by mistake, it would fire after twice its initial 3 seconds.
LOAD_TCO = ("for m in intel_pmc_bxt iTCO_vendor_support lpc_ich; do insmod /lib/modules/$m.ko; done; "
            "insmod /lib/modules/iTCO_wdt.ko heartbeat=3")
SLOW_SCRIPT = (r"printf '#!/bin/sh\n[ -e /again ] || exit\necho vm: script runs > /dev/console\nsleep 100\n' > /slow; "
               "chmod +x /slow")
ENDING_AT_ONCE = r"""find_pids worker; printf '#!/bin/sh\n' > /new; chmod +x /new; mv /new /bin/worker"""

STOPPED_BURNER = "burner burn & find_pids burner; kill -STOP $pids"


@dataclass
class Scenario:
    name: str
    config: str
    fault: str  # what the guest does; all times count from its "vm: fault"
    notice: tuple | None  # what the log must say then, and within how many seconds
    fires: bool  # whether the hypervisor takes the VM down; if not, checked for the bound and 2 seconds more
    beats: str  # the heartbeat ends with the "fault", when it is "noticed", or goes on to the "end"
    before: tuple = (STARTED,)  # commands for the guest, and what the log must say after each
    driver: str = LOAD_I6300ESB
    never: str = "vm: halvo ended"  # what the log must not say
    beating: bool = True  # before the fault


def config(*sections, failover="ENABLE", timeout=TIMEOUT, limit=""):
    return f"""global res_monit_interval {PERIOD}
global wd_tick_interval {TICK}
global wd_timeout {timeout}
global vm_failover {failover}
{limit}
""" + "".join(sections)


# The victims are looked up first: that takes a while.
def lose(programs):
    return f"find_pids {programs}; say fault; kill -9 $pids"


def process(name, kind, action, more=""):
    command = {"NORMAL": f"/bin/{name} run", "DAEMON": f"/bin/{name} daemonize", "SYSTEM": "SYSTEM"}[kind]
    return f"""process name {name}
{name} process_type {kind}
{name} start_cmd "{command}"
{name} action {action}
""" + "".join(f"{name} {line}\n" for line in more.splitlines())


LUNET = process("lunet", "SYSTEM", "NOP")
WORKER = process("worker", "NORMAL", "PROC_RESTART")
CRITICAL = process("worker", "NORMAL", "VM_FAILOVER")
STORMY = process("worker", "NORMAL", "PROC_RESTART", "recur_fail_interval 60\nrecur_fail_restart_count 3")
SCRIPTED = process("worker", "NORMAL", "PROC_RESTART", 'pre_start_cmd "/slow"')
HOG = process("burner", "SYSTEM", "VM_FAILOVER", "proc_cpu_total_high_water 20")

TRIGGERED = "is terminated; VM failover is triggered"
CROSSED = ("VM failover is triggered", SAMPLE)
WILL_NOT = "VM failover will not happen"
DISABLED = ("halvo -w", "VM failover is disabled using CLI")
DISARMED = ("halvo -w", "/dev/watchdog disarmed")

SCENARIOS = (
    Scenario("all is well", config(WORKER, LUNET), "say fault", None, False, "end", never="user.alert"),
    Scenario("lost process, restarted", config(WORKER, LUNET), lose("worker"),
             ("No: of times spawned by process manager [2]", 2), False, "fault"),
    Scenario("kill -9 of the daemon", config(WORKER), lose("halvo"), None, True, "fault", never="disarmed"),
    Scenario("lost NORMAL process, VM_FAILOVER", config(CRITICAL), lose("worker"), (TRIGGERED, 2), True, "fault"),
    Scenario("lost DAEMON process, VM_FAILOVER", config(process("collector", "DAEMON", "VM_FAILOVER")),
             lose("collector"), (TRIGGERED, LOOK), True, "noticed"),
    Scenario("lost SYSTEM process, VM_FAILOVER", config(process("sensors", "SYSTEM", "VM_FAILOVER")),
             lose("sensors"), (TRIGGERED, LOOK), True, "noticed"),
    Scenario("restart storm", config(STORMY), lose("worker"),
             ("Process 'worker' respawned [4] times", 3), True, "fault", (STARTED, (ENDING_AT_ONCE, ""))),
    Scenario("VM memory watermark", config(WORKER, limit="global vm_mem_high_water 90000"),
             "say fault; dd if=/dev/zero of=/fill bs=1M count=80 2> /dev/null", CROSSED, True, "end"),
    Scenario("process CPU watermark, VM_FAILOVER", config(HOG), "find_pids burner; say fault; kill -CONT $pids",
             CROSSED, True, "end", ((STOPPED_BURNER, ""), STARTED)),
    Scenario("lunet's death", config(WORKER), lose("lunet"), ("Stopping heartbeat", 2), False, "fault"),
    Scenario("-w, then everything dies", config(CRITICAL), lose("worker halvo lunet sensors collector"),
             None, False, "fault", (STARTED, DISABLED), never="failover is triggered"),
    Scenario("-w while a script runs, then everything dies", config(SCRIPTED), lose("halvo"), None, False, "fault",
             ((SLOW_SCRIPT, ""), STARTED, ("> /again; find_pids worker; kill -9 $pids", "vm: script runs"), DISABLED),
             never="No: of times spawned", beating=False),
    Scenario("-w, then -r, then a loss", config(CRITICAL), lose("worker"), (TRIGGERED, 2), True, "fault",
             (STARTED, DISARMED, ("halvo -r", f"Current watchdog interval is {TIMEOUT}"))),
    Scenario("loss with failover DISABLE", config(CRITICAL, failover="DISABLE"), lose("worker"),
             (WILL_NOT, 2), False, "fault", never="watchdog interval"),
    Scenario("a driver that refuses the timeout", config(WORKER, timeout=2), "say fault; start",
             ("vm: halvo ended with status 1", 5), False, "fault", (), LOAD_TCO, "Process manager started", False),
)
