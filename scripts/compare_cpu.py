#!/usr/bin/env python3
"""Compares what the live view costs with another monitor of the same simulated GPUs: CPU time and bytes written.

    compare_cpu.py [--program GPU_MONITOR] [--boards 8] [--sizes 80x24,200x60] [--rounds 3] [--seconds 60]
                   [--fill SECONDS] -- COMMAND...

COMMAND is the other monitor, with its refresh set to once a second. It finds the simulated NVML by LD_LIBRARY_PATH, for
example:

    compare_cpu.py -- nvtop -d 10
    compare_cpu.py -- chroot /srv/trixie env LD_LIBRARY_PATH=/sim nvtop -d 10

Both run in pseudo-terminals that somebody reads. Rounds alternate; a table has the sums over all rounds, user and
system time together. With --fill, both start once, the view samples ten times a second for so long (10 minutes fill
its histories), and is set to once a second before the rounds. Otherwise each round starts both anew.
"""

import argparse
import fcntl
import os
import pathlib
import pty
import select
import signal
import struct
import sys
import termios
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WARM_UP_SECONDS = 5


class Monitor:
    """A program in a pseudo-terminal, from its start to its end."""

    def __init__(self, command, size, environment):
        width, height = (int(number) for number in size.split("x"))
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            fcntl.ioctl(1, termios.TIOCSWINSZ, struct.pack("4H", height, width, 0, 0))
            os.execvpe(command[0], command, environment)
        self.output = 0

    def live(self, *others, seconds):
        """Reads what this and the other programs write."""
        end = time.monotonic() + seconds
        monitors = {monitor.terminal: monitor for monitor in (self, *others)}
        while (rest := end - time.monotonic()) > 0:
            for terminal in select.select(list(monitors), [], [], rest)[0]:
                try:
                    monitors[terminal].output += len(os.read(terminal, 1 << 16))
                except OSError:
                    sys.exit("compare_cpu: a program has ended: start it by hand to see why.")

    def cpu_seconds(self):
        """All threads' time on a processor, in nanoseconds where /proc/PID/stat has hundredths of a second."""
        threads = pathlib.Path(f"/proc/{self.pid}/task").iterdir()
        return sum(int((thread / "schedstat").read_text().split()[0]) for thread in threads) / 1e9

    def press(self, keys):
        os.write(self.terminal, keys.encode())

    def end(self):
        os.kill(self.pid, signal.SIGTERM)
        os.close(self.terminal)
        os.waitpid(self.pid, 0)


class Cost:
    def __init__(self):
        self.seconds = self.cpu = self.output = 0

    def add(self, monitor, others, seconds):
        cpu, output = monitor.cpu_seconds(), monitor.output
        monitor.live(*others, seconds=seconds)
        self.cpu += monitor.cpu_seconds() - cpu
        self.output += monitor.output - output
        self.seconds += seconds

    def __str__(self):
        return f"{1000 * self.cpu / self.seconds:8.2f} ms/s {self.output / self.seconds:9.0f} bytes/s"


def compare(options, size, start_view, start_other):
    view_cost, other_cost = Cost(), Cost()
    if options.fill:
        view, other = start_view("100", size), start_other(size)
        view.live(other, seconds=options.fill)
        view.press("iii")  # From 100 ms over 200 ms and 500 ms to 1 s.
        view.live(other, seconds=WARM_UP_SECONDS)
        for _ in range(options.rounds):
            view_cost.add(view, [other], options.seconds)
            other_cost.add(other, [view], options.seconds)
        view.end()
        other.end()
    else:
        for _ in range(options.rounds):
            for cost, start in ((view_cost, lambda: start_view("1000", size)), (other_cost, lambda: start_other(size))):
                monitor = start()
                monitor.live(seconds=WARM_UP_SECONDS)
                cost.add(monitor, [], options.seconds)
                monitor.end()
    print(f"{size:8} view {view_cost}   other {other_cost}   CPU {view_cost.cpu / other_cost.cpu:.2f}"
          f"   bytes {view_cost.output / other_cost.output:.2f}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default=str(ROOT / "build/release/bin/gpu_monitor"))
    parser.add_argument("--boards", default="8")
    parser.add_argument("--sizes", default="80x24,200x60")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--fill", type=int, default=0)
    parser.add_argument("command", nargs="+")
    options = parser.parse_args()

    environment = dict(os.environ, TERM="xterm-256color", LANG="C.UTF-8", LC_ALL="C.UTF-8", NVML_SIM_BOARDS=options.boards)
    simulator = str(pathlib.Path(options.program).parent.parent / "simulator")
    view = [options.program, "watch", "--simulate=" + options.boards, "--interval"]

    def start_view(interval, size):
        return Monitor([*view, interval], size, environment)

    def start_other(size):
        return Monitor(options.command, size, dict(environment, LD_LIBRARY_PATH=simulator))

    for size in options.sizes.split(","):
        compare(options, size, start_view, start_other)


if __name__ == "__main__":
    sys.exit(main())
