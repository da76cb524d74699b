#!/usr/bin/env python3
"""Compares what NVML clients show of simulated boards with what gpu_monitor reads; called by scripts/check_clients.sh.

    compare.py --build FOLDER [--pcp FOLDER] [--rust-wrapper PROGRAM] [--nvtop PROGRAM]

What a client shows is a dictionary from (GPU, name of the reading) to the value. Names and units are those of
`gpu_monitor sample --json`; a process is a reading of its own, named by its id. Each client is compared in two states:
"held", a recording of one moment of all kinds of boards, where every reading has to be the same, and "living", where
boards share locks, limits and processes with gpu_monitor and only what lasts is compared.
"""

import argparse
import collections
import itertools
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

KINDS = "desktop,laptop,datacenter,old,workstation"
LIVING_KINDS = "desktop,laptop,datacenter"
LIVING_CHANGES = [["set-power", "--gpu", "0", "250.125"], ["lock-clocks", "--gpu", "0", "1500", "5001"]]
# Programs end while the boards live, which changes memory and processes. A comparison in between is made anew.
ATTEMPTS = 5
SCREEN_SECONDS = 20

IDENTITY = {"name", "uuid", "pci_bus_id", "driver_version", "vbios_version", "index"}
LIMITS = {f"{which}power_limit_watts" for which in ("", "default_", "minimum_", "maximum_")}
LASTING = IDENTITY | LIMITS | {"vram_total_bytes", "bar1_total_bytes", "vram_used_bytes", "process"}
LASTING_OF_LOCKED = LASTING | {"graphics_clock_mhz", "sm_clock_mhz", "memory_clock_mhz", "video_clock_mhz"}

# A number as a client prints it, and what its last digit stands for; 0 where the client gives all there is.
Number = collections.namedtuple("Number", "value resolution", defaults=[0])


def printed(text, unit=1):
    """A number that a client prints for people: with its decimals, in `unit` of gpu_monitor's."""
    decimals = len(text.partition(".")[2])
    return Number(float(text) * unit, 10**-decimals * unit)


def run(command, environment=None, errors=None):
    """What a command prints, and its process id."""
    process = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=errors, text=True)
    output, _ = process.communicate()
    if process.returncode != 0:
        sys.exit(f"compare: {' '.join(map(str, command))} failed with {process.returncode}")
    return output, process.pid


def process_name(pid, client_pid):
    """The name of a process as a reading. Each client sees itself on the boards, in gpu_monitor's place."""
    return "process client" if int(pid) == client_pid else f"process {pid}"


class Monitor:
    def __init__(self, build):
        self.program = build / "bin" / "gpu_monitor"

    def read(self, environment):
        output, own_pid = run([self.program, "sample", "--json"], environment)
        readings = {}
        for gpu in json.loads(output)["gpus"]:
            for process in gpu.pop("processes", []):
                readings[gpu["index"], process_name(process["pid"], own_pid)] = process["vram_used_bytes"]
            readings.update({(gpu["index"], name): value for name, value in gpu.items()})
        return readings


class Client:
    def close(self):
        """Ends what the client needed while it was compared."""


class Pcp(Client):
    """The agent of Performance Co-Pilot, asked without its daemon."""

    name = "PCP's agent"
    # What its metrics are called here. Its fan speed and its bus id cannot be compared: docs/simulator.md says why.
    METRICS = {
        "cardname": "name",
        "carduuid": "uuid",
        "temperature": "temperature_c",
        "perfstate": "performance_state",
        "gpuactive": "gpu_utilization_percent",
        "memactive": "memory_utilization_percent",
        "memused": "vram_used_bytes",
        "memtotal": "vram_total_bytes",
        "power": "power_watts",
        "proc.memused": "process",
    }

    def __init__(self, folder):
        self.folder = folder
        self.agent = f"{folder}/usr/lib/pcp/pmdas/nvidia"
        self.libraries = str(next(pathlib.Path(folder).rglob("libpcp.so.3")).parent)
        self.version = self.run({}, "--version")[0].split()[-1]

    def run(self, environment, *arguments):
        libraries = f"{environment.get('LD_LIBRARY_PATH', '')}:{self.libraries}"
        own = {"PCP_CONF": f"{self.folder}/etc/pcp.conf", "PCP_BINADM_DIR": f"{self.folder}/usr/lib/pcp/bin"}
        command = [f"{self.folder}/usr/bin/pminfo", *arguments]
        return run(command, environment | own | {"LD_LIBRARY_PATH": libraries}, errors=subprocess.STDOUT)

    def shows(self, gpu, name, value):
        return name.split()[0] in self.METRICS.values()

    def read(self, environment):
        with tempfile.NamedTemporaryFile("w") as metric_names:
            metric_names.write(f'#define NVML 120\nroot {{ nvidia }}\n#include "{self.agent}/pmns"\n')
            metric_names.flush()
            agent = f"add,120,{self.agent}/pmda_nvidia.so,nvidia_init"
            metrics = [f"nvidia.{metric}" for metric in self.METRICS]
            output, pid = self.run(
                environment, "-L", "-n", metric_names.name, "-K", "clear", "-K", agent, "-f", *metrics
            )
        readings = {}
        for line in output.splitlines():
            if line.startswith("nvidia."):
                name = self.METRICS[line.removeprefix("nvidia.")]
            elif found := re.match(r' +inst \[\d+ or "gpu(\d+)(?:::(\d+))?"\] value "?([^"]*)', line):
                gpu, process, value = found.groups()
                key = process_name(process, pid) if process else name
                readings[int(gpu), key] = Number(int(value) / 1000) if name == "power_watts" else value
        return readings


class RustWrapper(Client):
    """The Rust wrapper of NVML, in a program of ours that prints a line "GPU NAME VALUE" for each reading."""

    name = "Rust wrapper"
    # It knows architectures up to Ampere only; the other ones are gpu_monitor's own.
    LACKS = {"architecture", "time", "timestamp_seconds", "performance_limits"}

    def __init__(self, program):
        self.program = program
        locked = pathlib.Path(program).parents[2].joinpath("Cargo.lock").read_text()
        self.version = re.search(r'name = "nvml-wrapper"\nversion = "(.*)"', locked)[1]

    def shows(self, gpu, name, value):
        return name not in self.LACKS

    def read(self, environment):
        output, pid = run([self.program], environment)
        readings = {}
        for line in output.splitlines():
            gpu, name, value = line.split(" ", 2)
            if name == "process":
                process, value = value.split()
                name = process_name(process, pid)
            # gpu_monitor leaves them out where there are none.
            if (name, value) != ("performance_limit_reasons", "0"):
                readings[int(gpu), name] = value
        return readings


class Nvtop(Client):
    """nvtop, which shows its readings on a terminal only: one of tmux."""

    name = "nvtop"
    RATE = r"X: ([\d.]+ [KMG])iB/s"
    # What is found where on the lines of a board, and the last digit's unit in gpu_monitor's.
    PATTERNS = {
        "name": r" Device \d+ \[(.*?)\]",
        "pcie_generation": r" GEN +(\d+)@",
        "pcie_width": r"@ *(\d+)x",
        "pcie_receive_mib_per_second": "R" + RATE,
        "pcie_transmit_mib_per_second": "T" + RATE,
        "graphics_clock_mhz": r"^ GPU (\d+)MHz",
        "memory_clock_mhz": r" MEM (\d+)MH",
        "temperature_c": r" TEMP +(\d+)",
        "fan_percent": r" FAN +(\d+)%",
        "power_watts": r" POW +(\d+) ",
        "power_limit_watts": r" POW .*/ +(\d+) W",
        "gpu_utilization_percent": r"^ GPU\[\|* *(\d+)%\]",
        "vram_used_bytes": r" MEM\[\|* *([\d.]+)Gi/",
        "vram_total_bytes": r" MEM\[.*/([\d.]+)Gi\]",
        "encoder_utilization_percent": r" ENC\[\|* *(\d+)%",
        "decoder_utilization_percent": r" DEC\[\|* *(\d+)%",
    }
    HIDDEN_ZEROS = {"encoder_utilization_percent", "decoder_utilization_percent"}
    UNITS = {"K": 1 / 1024, "M": 1, "G": 1024}

    def __init__(self, program):
        self.program = program
        self.version = run([program, "--version"])[0].split()[-1]
        self.folder = tempfile.TemporaryDirectory()
        self.tmux = ["tmux", "-S", f"{self.folder.name}/socket", "-f", "/dev/null"]
        # The server is there before anything is compared, because it is one more process that boards could show.
        self.run_tmux("new-session", "-d", "sleep", "infinity")
        # What it says at its end can be read, too.
        self.run_tmux("set-option", "-g", "remain-on-exit", "on")

    def close(self):
        self.run_tmux("kill-server")
        self.folder.cleanup()

    def shows(self, gpu, name, value):
        hidden = name in self.HIDDEN_ZEROS and value == 0 or (gpu, name) == (0, "process client")
        return name.split()[0] in {*self.PATTERNS, "process"} and not hidden

    def run_tmux(self, *arguments):
        return subprocess.run([*self.tmux, *arguments], check=True, stdout=subprocess.PIPE, text=True).stdout

    def read(self, environment):
        ours = [f"-e{name}={environment[name]}" for name in environment if name.startswith(("NVML_", "LD_LIBRARY_"))]
        command = [self.program, "--no-plot", "--no-color", "--delay", "2"]
        size = ["-x", "100", "-y", "80"]
        self.run_tmux("new-session", "-d", "-s", "nvtop", *size, *ours, *command, "--config-file", "/nonexistent")
        pid = int(self.run_tmux("display-message", "-p", "-t", "nvtop", "#{pane_pid}"))
        readings, deadline = {}, time.monotonic() + SCREEN_SECONDS
        while time.monotonic() < deadline:
            earlier, readings = readings, self.parse(self.run_tmux("capture-pane", "-p", "-t", "nvtop"), pid)
            if readings and readings.keys() == earlier.keys():
                break
            time.sleep(0.7)  # some of nvtop's periods
        self.run_tmux("kill-session", "-t", "nvtop")
        return readings

    def parse(self, screen, pid):
        readings, gpu = {}, None
        for line in screen.splitlines():
            if found := re.match(r" Device (\d+) ", line):
                gpu = int(found[1])
            if found := re.match(r" +(\d+) +\S+ +(\d+) +(?:Graphic|Compute)\S* +\S+ +(\d+)MiB ", line):
                readings[int(found[2]), process_name(found[1], pid)] = printed(found[3], 2**20)
            for name, pattern in self.PATTERNS.items():
                if found := re.search(pattern, line):
                    readings[gpu, name] = self.value(name, found[1])
        return readings

    def value(self, name, text):
        if name == "name":
            return text
        if name.endswith("_per_second"):
            return printed(text[:-2], self.UNITS[text[-1]])
        return printed(text, 2**30 if name.endswith("_bytes") else 1)


# ---- The comparison ----

State = collections.namedtuple("State", "name environment lasts")


def agrees(expected, shown):
    value, resolution = shown if isinstance(shown, Number) else (shown, 0)
    if isinstance(expected, str):
        return value == expected
    return float(value) == expected or abs(float(value) - expected) < resolution


def differences(expected, shown):
    for key in sorted(expected.keys() | shown.keys()):
        if key not in expected or key not in shown or not agrees(expected[key], shown[key]):
            value = shown.get(key)
            value = value.value if isinstance(value, Number) else value
            yield f"GPU {key[0]} {key[1]}: gpu_monitor {expected.get(key)}, client {value}"


def compare(monitor, client, state):
    """How many readings were compared, and what differs."""

    def read_monitor():
        readings = monitor.read(state.environment).items()
        return {key: value for key, value in readings if client.shows(*key, value) and state.lasts(*key)}

    for _ in range(ATTEMPTS):
        before = read_monitor()
        shown = {key: value for key, value in client.read(state.environment).items() if state.lasts(*key)}
        if before == read_monitor():
            return len(before), list(differences(before, shown))
    return 0, [f"what gpu_monitor reads changed during each of {ATTEMPTS} attempts"]


def lasts_while_living(gpu, name):
    # The clocks of the first board are locked.
    return name.split()[0] in (LASTING_OF_LOCKED if gpu == 0 else LASTING)


def states(monitor, build, folder):
    simulated = os.environ | {"LD_LIBRARY_PATH": str(build / "simulator")}
    recording = folder / "held.csv"
    row, _ = run([monitor.program, "stream", "--csv", "--count", "1"], simulated | {"NVML_SIM_BOARDS": KINDS})
    recording.write_text(row)
    living = simulated | {"NVML_SIM_BOARDS": LIVING_KINDS, "NVML_SIM_STATE": str(folder / "state.json")}
    for change in LIVING_CHANGES:
        run([monitor.program, *change, "--json"], living)
    held = simulated | {"NVML_SIM_BOARDS": f"recording:{recording}"}
    return [State("held", held, lambda gpu, name: True), State("living", living, lasts_while_living)]


def compare_all(monitor, clients, build):
    """The lines of the table, and what differs."""
    table, problems = [], []
    with tempfile.TemporaryDirectory() as folder:
        for client, state in itertools.product(clients, states(monitor, build, pathlib.Path(folder))):
            count, found = compare(monitor, client, state)
            table.append((client.name, client.version, state.name, f"{count} readings", "differs" if found else "same"))
            problems += [f"{client.name}, {state.name}: {problem}" for problem in found]
    return table, problems


def main():
    for name in [name for name in os.environ if name.startswith("NVML_SIM_")]:
        del os.environ[name]
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--pcp", dest="clients", action="append", type=Pcp)
    parser.add_argument("--rust-wrapper", dest="clients", action="append", type=RustWrapper)
    parser.add_argument("--nvtop", dest="clients", action="append", type=Nvtop)
    options = parser.parse_args()
    monitor = Monitor(options.build)
    try:
        table, problems = compare_all(monitor, options.clients, options.build)
    finally:
        for client in options.clients:
            client.close()
    for line in problems:
        print(line)
    for row in table:
        print("{:14}{:8}{:8}{:>13}  {}".format(*row))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
