"""One VM, seen from outside: its serial line, the hypervisor's events and the peer that gets its heartbeat."""

import ctypes
import json
import selectors
import shlex
import socket
import subprocess
import time

TICK, TIMEOUT, PERIOD = 1, 4, 2  # wd_tick_interval, wd_timeout, res_monit_interval
BOUND = TICK + TIMEOUT
MAGIC = bytes((0xAB, 0xBA, 0xDC, 0xFE))
SLACK = 0.5  # seconds, for events that must happen at once; the guest's processor is emulated
CLONE_NEWNET = 0x40000000
# The tests' own guest, which ends when the watchdog fires.
SMALL = "-m 256 -no-reboot -initrd {folder}/initrd -append 'console=ttyS0 quiet panic=-1'"


class Failed(Exception):
    pass


def require(condition, complaint):
    if not condition:
        raise Failed(complaint)


class Vm:
    def __init__(self, folder, show=lambda vm, kind, text: None, options=SMALL):
        self.show, self.lines, self.beats, self.seen = show, [], [], 0
        self.fired = self.gone = None
        self.began = time.monotonic()
        self.serial, serial = socket.socketpair()
        self.qmp, qmp = socket.socketpair()
        # Every guest sends to the same port of 10.0.2.2, which is this thread's 127.0.0.1: in a network of its
        # own it is this guest's alone, and nothing can leave the machine.
        require(ctypes.CDLL(None).unshare(CLONE_NEWNET) == 0, "unshare failed")
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        self.peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.peer.bind(("127.0.0.1", 54321))
        command = f"""qemu-system-x86_64 -M q35 -accel tcg -display none -nodefaults {options.format(folder=folder)}
            -serial stdio -chardev socket,id=qmp,fd={qmp.fileno()} -mon chardev=qmp,mode=control
            -kernel {folder}/kernel
            -device i6300esb -global ICH9-LPC.noreboot=false -action watchdog=reset
            -netdev user,id=net -device rtl8139,netdev=net,romfile="""
        self.process = subprocess.Popen(
            shlex.split(command), stdin=serial, stdout=serial, stderr=serial, pass_fds=[qmp.fileno()])
        serial.close()
        qmp.close()
        self.qmp.sendall(b'{"execute": "qmp_capabilities"}')
        self.sources = selectors.DefaultSelector()
        for source, taker in ((self.serial, self.take_log), (self.qmp, self.take_event)):
            self.sources.register(source, selectors.EVENT_READ, (self.split_lines(source), taker))
        self.sources.register(self.peer, selectors.EVENT_READ, (lambda: [self.peer.recv(2048)], self.take_beat))

    def split_lines(self, source):
        rest = b""

        def lines():
            nonlocal rest
            try:
                data = source.recv(65536)
            except ConnectionResetError:  # it has ended before it read everything
                data = b""
            if not data:
                self.sources.unregister(source)
                self.gone = self.gone or source is self.qmp
            *whole, rest = (rest + data).split(b"\n")
            return whole
        return lines

    def take_log(self, line):
        text = line.decode(errors="replace").strip()
        self.lines.append((time.monotonic(), text))
        self.show(self, "log", text)

    def take_event(self, line):
        event = json.loads(line)
        if event.get("event") == "WATCHDOG":
            self.fired = self.fired or time.monotonic()
            self.show(self, "event", f"WATCHDOG, action {event['data']['action']}")

    def take_beat(self, datagram):
        require(datagram == MAGIC, f"the peer got {datagram.hex()}")
        self.beats.append(time.monotonic())
        self.show(self, "beat", "")

    def wait(self, what, seconds, found):
        """Takes what comes until found() gives something, which it returns."""
        deadline = time.monotonic() + seconds
        while not (result := found()):
            left = deadline - time.monotonic()
            require(left > 0, f"{what}: not seen within {seconds:.1f} s")
            require(not self.gone, f"{what}: not seen, the VM has ended")
            for key, _ in self.sources.select(min(left, 0.5)):
                receive, take = key.data
                for part in receive():
                    take(part)
            self.show(self, "time", "")
        return result

    def wait_line(self, text, seconds):
        """Waits for a line with the text, after the one that was last waited for. Returns the time when it came."""
        def found():
            while self.seen < len(self.lines):
                when, line = self.lines[self.seen]
                self.seen += 1
                if text in line:
                    return when
            return None
        return self.wait(f'"{text}"', seconds, found)

    def tell(self, command):
        self.serial.sendall(command.encode() + b"\n")

    def end(self):
        self.process.kill()
        self.process.wait()
        for source in (self.serial, self.qmp, self.peer, self.sources):
            source.close()
