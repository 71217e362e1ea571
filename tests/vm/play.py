"""Plays a scenario in a VM and checks the events seen from outside."""

import shlex

from vm import BOUND, SLACK, TIMEOUT, TICK, require

BOOT, STEP = 60, 15  # seconds; generous, since both processors may be busy
BEATS = 21  # before the fault: a second of them


def prepare(scenario, vm):
    vm.wait_line("vm: ready", BOOT)
    vm.tell(scenario.driver)
    vm.tell(f"printf %b {shlex.quote(scenario.config.replace(chr(10), chr(92) + 'n'))} > /etc/config/halvo.conf")
    for command, text in scenario.before:
        vm.tell(command)
        if text:
            vm.wait_line(text, STEP)
    if scenario.beating:
        vm.wait("a second of heartbeats", STEP, lambda: len(vm.beats) >= BEATS)
        check_rate(vm.beats)


def check_rate(beats):
    rate = (len(beats) - 1) / (beats[-1] - beats[0])
    require(15 <= rate <= 25, f"{rate:.1f} heartbeats a second")


def play(scenario, vm):
    """Returns the cells of the table: when the fault was noticed, the last heartbeat, the event, the limit."""
    prepare(scenario, vm)
    vm.tell(scenario.fault)
    fault = noticed = vm.wait_line("vm: fault", STEP)
    if scenario.notice:
        text, limit = scenario.notice
        noticed = vm.wait_line(text, limit)
    if scenario.fires:
        end = vm.wait("the hypervisor's event", BOUND + SLACK, lambda: vm.fired)
        vm.wait("the VM's end", STEP, lambda: vm.gone)
        require(end - fault >= TIMEOUT - TICK - SLACK, "the watchdog fired too early")
        require(end - noticed <= BOUND, "the watchdog fired too late")
    else:
        vm.tell(f"sleep {BOUND + 2}; say later")
        end = vm.wait_line("vm: later", BOUND + 2 + STEP)
        require(not vm.fired, "the watchdog fired")
    require(not any(scenario.never in line for _, line in vm.lines), f'"{scenario.never}" was seen')
    check_last_beat(scenario, vm, {"fault": fault, "noticed": noticed, "end": end}[scenario.beats])
    if scenario.beats == "end":
        check_rate(vm.beats)
    allowed = f"<= {noticed - fault + BOUND:.1f}" if scenario.fires else "none"
    return [f"{when - fault:.2f}" if when else "-" for when in
            (scenario.notice and noticed, vm.beats and vm.beats[-1], vm.fired)] + [allowed]


def check_last_beat(scenario, vm, expected):
    last = vm.beats[-1] if vm.beats else expected
    require(last <= expected + SLACK, f"a heartbeat came {last - expected:.2f} s too late")
    require(last >= expected - SLACK or not scenario.beating, f"the heartbeat ended {expected - last:.2f} s early")
