#!/usr/bin/env python3
"""Compares gpu_monitor with nvidia-smi on this machine; called by scripts/check_real_gpu.sh.

    compare.py --program GPU_MONITOR [--probe PROBE] [--tuning]

One line per check: "ok NAME: seen ..., expected ...", "FAIL ..." or "skipped NAME: why".
"""

import argparse
import csv
import json
import os
import re
import signal
import subprocess
import sys
import time

MIB = 1024 * 1024

# ---- The tolerances, all of them ----

# What nvidia-smi calls it (older drivers' names last), gpu_monitor's key, what turns gpu_monitor's value into
# nvidia-smi's unit, the tolerance in that unit, and the tolerance as a share of the value; the larger one counts.
# None: the texts must be the same.
IDENTITY_FIELDS = [
    (["name"], "name", None, None, 0),
    (["uuid"], "uuid", None, None, 0),
    (["pci.bus_id"], "pci_bus_id", None, None, 0),
    (["driver_version"], "driver_version", None, None, 0),
    (["vbios_version"], "vbios_version", None, None, 0),
]
# Limits are printed with two decimals and sizes in whole MiB, so this much is rounding.
CONSTANT_FIELDS = [
    (["memory.total"], "vram_total_bytes", MIB, 1, 0),
    (["enforced.power.limit"], "power_limit_watts", 1, 0.01, 0),
    (["power.default_limit"], "default_power_limit_watts", 1, 0.01, 0),
    (["power.min_limit"], "minimum_power_limit_watts", 1, 0.01, 0),
    (["power.max_limit"], "maximum_power_limit_watts", 1, 0.01, 0),
]
# Asked before and after each sample, which must lie between both answers or beyond them by no more than this.
MOVING_FIELDS = [
    (["temperature.gpu"], "temperature_c", 1, 2, 0),
    (["utilization.gpu"], "gpu_utilization_percent", 1, 10, 0),
    (["utilization.memory"], "memory_utilization_percent", 1, 10, 0),
    (["utilization.encoder"], "encoder_utilization_percent", 1, 10, 0),
    (["utilization.decoder"], "decoder_utilization_percent", 1, 10, 0),
    (["memory.used"], "vram_used_bytes", MIB, 16, 0),
    (["power.draw"], "power_watts", 1, 5, 0.1),
    (["fan.speed"], "fan_percent", 1, 3, 0),
    (["clocks.current.graphics", "clocks.gr"], "graphics_clock_mhz", 1, 30, 0.02),
    (["clocks.current.sm", "clocks.sm"], "sm_clock_mhz", 1, 30, 0.02),
    (["clocks.current.memory", "clocks.mem"], "memory_clock_mhz", 1, 10, 0),
    (["clocks.current.video", "clocks.video"], "video_clock_mhz", 1, 30, 0.02),
    (["pstate"], "performance_state", 1, 0, 0),
    (["pcie.link.gen.current", "pcie.link.gen.gpucurrent"], "pcie_generation", 1, 0, 0),
    (["pcie.link.width.current"], "pcie_width", 1, 0, 0),
    (["clocks_event_reasons.active", "clocks_throttle_reasons.active"], "performance_limit_reasons", 1, None, 0),
]
# A moving value may jump between two readings that lie around the sample, so it gets this many attempts. The last
# ones are asked for only where the earlier ones did not fit.
ATTEMPTS = 5
# A cycle may take this much longer than its queries made directly: milliseconds, and a share.
CYCLE_SLACK_MS, CYCLE_SLACK_SHARE = 5, 0.25
# What a process holds on purpose, and by how much the two tools' figures of it may differ: MiB.
HELD_MIB, PROCESS_SLACK_MIB = 256, 2
# How far a locked graphics clock may be off, MHz, and how long a change may take to show: seconds.
LOCK_SLACK_MHZ, SETTLE_SECONDS = 30, 10

# Asked to judge the fields above. Drivers that have the first one do not count it in memory.used, but the library does;
# the second one is the limit where the enforced limit cannot be read.
RESERVED_FIELD, CONFIGURED_LIMIT_FIELD = "memory.reserved", "power.limit"
NOT_THERE = {"[N/A]", "N/A", "[Not Supported]", "Not Supported"}


class Checks:
    """Prints the checks and counts the failures."""

    failures = 0

    def judge(self, name, holds, seen, expected):
        print(f"{'ok' if holds else 'FAIL'} {name}: seen {seen}, expected {expected}", flush=True)
        self.failures += not holds

    def skip(self, name, why):
        print(f"skipped {name}: {why}", flush=True)


class Smi:
    """Asks nvidia-smi. Which fields it knows depends on the driver, so that is found out first."""

    def __init__(self):
        fields = [names for names, *_ in IDENTITY_FIELDS + CONSTANT_FIELDS + MOVING_FIELDS]
        fields += [["index"], [RESERVED_FIELD], [CONFIGURED_LIMIT_FIELD]]
        refused = set()
        while True:
            # What this driver calls a field, by the field's first name here.
            self.names = {}
            for names in fields:
                self.names.update({names[0]: name for name in reversed(names) if name not in refused})
            answer = self._ask()
            unknown = re.search(r'Field "([^"]+)" is not a valid field', answer.stdout + answer.stderr)
            if answer.returncode == 0 or unknown is None or unknown.group(1) in refused:
                return
            refused.add(unknown.group(1))

    @staticmethod
    def run(*arguments):
        return subprocess.run(["nvidia-smi", *arguments], capture_output=True, text=True, check=False)

    def _ask(self):
        return self.run("--query-gpu=" + ",".join(self.names.values()), "--format=csv,noheader,nounits")

    def gpus(self):
        """One dictionary per GPU, by the first name of each field."""
        answer = self._ask()
        if answer.returncode != 0:
            sys.exit(f"check_real_gpu: nvidia-smi fails: {answer.stdout.strip() or answer.stderr.strip()}")
        rows = csv.reader(answer.stdout.splitlines(), skipinitialspace=True)
        return [dict(zip(self.names, (value.strip() for value in row))) for row in rows]

    def gpu(self, uuid):
        return next((gpu for gpu in self.gpus() if gpu["uuid"] == uuid), None)

    def supported_clocks(self, index):
        """Pairs of memory and graphics clock; None where the driver lists none."""
        answer = self.run("-i", str(index), "--query-supported-clocks=memory,graphics", "--format=csv,noheader,nounits")
        lines = [line for line in answer.stdout.splitlines() if line.strip()]
        if answer.returncode != 0 or not lines or any(word in lines[0] for word in NOT_THERE):
            return None
        return {tuple(int(clock) for clock in line.split(",")) for line in lines}

    def compute_processes(self, uuid):
        """MiB by process."""
        answer = self.run("--query-compute-apps=gpu_uuid,pid,used_memory", "--format=csv,noheader,nounits")
        rows = [[cell.strip() for cell in line.split(",")] for line in answer.stdout.splitlines() if line.strip()]
        return {int(row[1]): int(row[2]) for row in rows if len(row) == 3 and row[0] == uuid and row[2].isdigit()}


class Monitor:
    """Runs gpu_monitor."""

    def __init__(self, program):
        self.program = program

    def run(self, *arguments):
        return subprocess.run([self.program, *arguments], capture_output=True, text=True, check=False)

    def query(self, *arguments):
        """What it prints as JSON; one object, or a list of them where it prints one per line."""
        answer = self.run(*arguments, "--json")
        if not answer.stdout.strip():
            raise RuntimeError(answer.stderr.strip())
        if arguments[0] == "stream":
            return [json.loads(line) for line in answer.stdout.splitlines()]
        return json.loads(answer.stdout)

    def gpus(self):
        """Identity and sample of every GPU by UUID."""
        document = self.query("sample")
        shared = {"driver_version": document.get("driver_version")}
        return {gpu.get("uuid", ""): {**shared, **gpu} for gpu in document["gpus"]}


# ---- Values ----


def is_told(text):
    return text not in NOT_THERE


def number(text):
    """nvidia-smi's value as a number; None for other text, such as an error in brackets."""
    try:
        return int(text, 16) if text.startswith("0x") else float(text[1:] if text.startswith("P") else text)
    except ValueError:
        return None


def show(value):
    return "nothing" if value is None else f"{value:.10g}" if isinstance(value, float) else str(value)


def fits(seen, answers, tolerance, share):
    """Whether a value lies where nvidia-smi's answers put it. A mask has no neighbourhood: it must be one of them."""
    if tolerance is None:
        return seen in answers
    slack = max(tolerance, share * max(abs(answer) for answer in answers))
    return min(answers) - slack <= seen <= max(answers) + slack


def expectation(answers, tolerance, share):
    if tolerance is None:
        return " or ".join(sorted({show(answer) for answer in answers}))
    slack = max(tolerance, share * max(abs(answer) for answer in answers))
    low, high = show(min(answers)), show(max(answers))
    return (low if low == high else f"{low} to {high}") + (f" +-{show(float(slack))}" if slack else "")


def judged_value(field, gpu):
    """What nvidia-smi says of a field, with what the library counts differently; None where it was not asked."""
    text = gpu.get(field)
    if field == "memory.used" and text is not None and number(text) is not None:
        return str(number(text) + (number(gpu.get(RESERVED_FIELD, "0")) or 0))
    if field == "enforced.power.limit" and (text is None or not is_told(text)):
        return gpu.get(CONFIGURED_LIMIT_FIELD)
    return text


# ---- Fields of a sample ----


def judge_field(row, told, sample):
    """Result: whether it holds (None: cannot be judged), what is seen, what is expected."""
    names, key, unit, tolerance, share = row
    texts = [judged_value(names[0], gpu) for gpu in told]
    seen = sample.get(key)
    if None in texts:
        return None, None, f"this driver's nvidia-smi has no {names[0]}"
    if not any(is_told(text) for text in texts):
        return seen is None, show(seen), f"nothing ({texts[0]})"
    if unit is None:
        return seen in texts, show(seen), " or ".join(sorted(set(texts)))
    answers = [number(text) for text in texts]
    if None in answers:
        return None, None, f"nvidia-smi says {texts[0]}, then {texts[-1]}"
    # Nothing limits the clocks, which JSON leaves out.
    if key == "performance_limit_reasons" and seen is None:
        seen = 0
    if seen is None:
        return False, "nothing", expectation(answers, tolerance, share)
    value = seen if unit == 1 else seen / unit
    return fits(value, answers, tolerance, share), show(value), expectation(answers, tolerance, share)


def check_samples(checks, smi, monitor):
    """Compares every field of every GPU; moving ones that do not fit are tried again."""
    pending = None
    for attempt in range(1, ATTEMPTS + 1):
        before, samples, after = smi.gpus(), monitor.gpus(), smi.gpus()
        if pending is None:
            checks.judge("gpus", sorted(samples) == sorted(gpu["uuid"] for gpu in before), ", ".join(sorted(samples)),
                         ", ".join(sorted(gpu["uuid"] for gpu in before)))
            pending = [(gpu["uuid"], row) for gpu in before if gpu["uuid"] in samples
                       for row in IDENTITY_FIELDS + CONSTANT_FIELDS + MOVING_FIELDS]
        tried, pending = pending, []
        for uuid, row in tried:
            told = [gpu for gpu in before + after if gpu["uuid"] == uuid]
            holds, seen, expected = judge_field(row, told, samples.get(uuid, {}))
            name = f"gpu {told[0]['index']} {row[1]}"
            if holds is None:
                checks.skip(name, expected)
            elif not holds and row in MOVING_FIELDS and attempt < ATTEMPTS:
                pending.append((uuid, row))
            else:
                checks.judge(name, holds, seen, expected + (f", attempt {attempt}" if attempt > 1 else ""))


# A driver that lists clocks and cannot lock them; the library then lists none.
NO_LOCKS = "NVML locked-clock control is not supported by this driver."


def check_clock_lists(checks, smi, monitor):
    for gpu in monitor.query("clocks")["gpus"]:
        ours = {(group["memory_clock_mhz"], clock) for group in gpu["supported"]
                for clock in group["graphics_clocks_mhz"]}
        theirs = smi.supported_clocks(gpu["index"])
        name = f"gpu {gpu['index']} supported clocks"
        if theirs is None and ours:
            checks.skip(name, "nvidia-smi lists none")
        elif theirs and gpu["status"] == NO_LOCKS:
            checks.skip(name, NO_LOCKS)
        else:
            checks.judge(name, ours == (theirs or set()), f"{len(ours)} pairs, {gpu['status']}",
                         f"the same {len(theirs or [])} pairs")


# ---- The sampler ----


def check_lifecycle(checks, probe):
    if not probe:
        checks.skip("start, pause, resume, stop", "there is no C++ compiler to build a host with")
        return
    lines = subprocess.run([probe, "lifecycle"], capture_output=True, text=True, check=False).stdout.splitlines()
    for line in lines:
        print(line, flush=True)
    checks.failures += sum(line.startswith("FAIL") for line in lines)
    checks.judge("lifecycle ended", len(lines) == 5, f"{len(lines)} checks", "5 checks")


def check_interrupt(checks, monitor):
    """A sampler that is asked to end while it may be in the middle of a cycle."""
    stream = subprocess.Popen([monitor.program, "stream", "--interval", "100", "--json"], stdout=subprocess.PIPE)
    stream.stdout.readline()
    begin = time.monotonic()
    stream.send_signal(signal.SIGTERM)
    try:
        stream.communicate(timeout=30)
        seen = f"status {stream.returncode} after {time.monotonic() - begin:.2f} s"
    except subprocess.TimeoutExpired:
        stream.kill()
        stream.communicate()
        seen = "nothing within 30 s"
    checks.judge("stop by signal", stream.returncode == 0, seen, "status 0 within 30 s")


def median(values):
    return sorted(values)[len(values) // 2]


def check_cycle(checks, monitor, probe, indices):
    """A cycle is what lies between two samples of a GPU besides the interval."""
    lines = monitor.query("stream", "--interval", "100", "--count", "20")
    times = [line["timestamp_seconds"] for line in lines if line["index"] == indices[0]]
    checks.judge("stream of 20 cycles", len(lines) == 20 * len(indices), f"{len(lines)} samples",
                 f"{20 * len(indices)} samples")
    distances = [(later - earlier) * 1000 for earlier, later in zip(times, times[1:])]
    checks.judge("shortest interval", min(distances) >= 100, f"{min(distances):.3f} ms", "100 ms or more")
    cycle = median(distances) - 100
    name = f"cycle over {len(indices)} GPUs"
    if not probe:
        checks.skip(name, f"it takes {cycle:.3f} ms; there is no C++ compiler to make the same queries directly")
        return
    answers = [subprocess.run([probe, "cost", str(index)], capture_output=True, text=True, check=False)
               for index in indices]
    if any(answer.returncode != 0 for answer in answers):
        checks.judge(name, False, answers[0].stderr.strip(), "the cost of the queries made directly")
        return
    direct = sum(float(answer.stdout) for answer in answers)
    bound = direct * (1 + CYCLE_SLACK_SHARE) + CYCLE_SLACK_MS
    checks.judge(name, cycle <= bound, f"{cycle:.3f} ms",
                 f"{bound:.3f} ms at most; the queries made directly take {direct:.3f} ms")


# ---- Processes ----

HOLDER = f"""
import ctypes, sys
cuda = ctypes.CDLL("libcuda.so.1")
context, memory, device = ctypes.c_void_p(), ctypes.c_uint64(), ctypes.c_int()
for step, result in (
    ("cuInit", lambda: cuda.cuInit(0)),
    ("cuDeviceGet", lambda: cuda.cuDeviceGet(ctypes.byref(device), 0)),
    ("cuDevicePrimaryCtxRetain", lambda: cuda.cuDevicePrimaryCtxRetain(ctypes.byref(context), device)),
    ("cuCtxSetCurrent", lambda: cuda.cuCtxSetCurrent(context)),
    ("cuMemAlloc", lambda: cuda.cuMemAlloc_v2(ctypes.byref(memory), ctypes.c_size_t({HELD_MIB * MIB}))),
):
    code = result()
    if code != 0:
        sys.exit(f"{{step}} answers {{code}}")
print("holding", flush=True)
sys.stdin.read()
"""


class MemoryHolder:
    """A process that holds video memory of one GPU while it is entered; `why_not` says why it could not."""

    def __init__(self, uuid):
        self.environment = {**os.environ, "CUDA_VISIBLE_DEVICES": uuid}

    def __enter__(self):
        self.process = subprocess.Popen([sys.executable, "-c", HOLDER], env=self.environment, text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        holds = self.process.stdout.readline().strip() == "holding"
        self.why_not = None if holds else (self.process.stderr.read().strip() or "it ended").splitlines()[-1]
        return self

    def __exit__(self, *_):
        self.process.communicate()


def listed_processes(monitor, index):
    """MiB by process."""
    line = monitor.query("stream", "--interval", "100", "--count", "1", "--gpu", str(index))[-1]
    return {process["pid"]: process["vram_used_bytes"] / MIB for process in line["processes"]}


def check_processes(checks, smi, monitor, gpu):
    index, uuid = gpu["index"], gpu["uuid"]
    name = f"gpu {index} process list"
    earlier = listed_processes(monitor, index)
    with MemoryHolder(uuid) as holder:
        if holder.why_not:
            checks.skip(name, f"no process can be made to hold video memory: {holder.why_not}")
            return
        theirs, ours = smi.compute_processes(uuid), listed_processes(monitor, index)
    # In a container the driver may list processes by the ids that the host knows, or not at all.
    appeared = {pid: mib for pid, mib in ours.items() if pid not in earlier and mib >= HELD_MIB}
    if not theirs and not appeared:
        checks.skip(name, "neither tool lists the process that holds video memory, as is usual in a container")
        return
    seen = ", ".join(f"{pid}: {mib:.0f} MiB" for pid, mib in appeared.items()) or "none"
    checks.judge(name, len(appeared) >= 1, seen,
                 f"a new process with {HELD_MIB} MiB or more, here {holder.process.pid}")
    for pid, mib in theirs.items():
        seen = ours.get(pid)
        checks.judge(f"gpu {index} process {pid}", seen is not None and abs(seen - mib) <= PROCESS_SLACK_MIB,
                     f"{show(seen)} MiB", f"{mib} MiB +-{PROCESS_SLACK_MIB}")
    later = listed_processes(monitor, index)
    left = sorted(set(appeared) & set(later))
    checks.judge(f"gpu {index} process gone", not left, left or "none", "none")


# ---- Changes ----


def settles(condition):
    """Whether `condition` holds within the time in which a change must show."""
    deadline = time.monotonic() + SETTLE_SECONDS
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.2)
    return True


def changed(checks, name, answer):
    """Whether gpu_monitor made a change. What this user or this GPU may not do at all is no failure."""
    if answer.returncode in (3, 4):
        checks.skip(name, answer.stderr.strip())
    else:
        checks.judge(name, answer.returncode == 0, f"status {answer.returncode} {answer.stderr.strip()}".strip(),
                     "status 0")
    return answer.returncode == 0


def tune_power(checks, smi, monitor, gpu):
    index, name = str(gpu["index"]), f"gpu {gpu['index']} power limit"
    told = smi.gpu(gpu["uuid"])
    current, lowest = (number(told.get(field, "")) for field in (CONFIGURED_LIMIT_FIELD, "power.min_limit"))
    if current is None or lowest is None or current - 1 < lowest:
        checks.skip(name, f"limit {told.get(CONFIGURED_LIMIT_FIELD)}, lowest {told.get('power.min_limit')}: "
                          "no room for one watt less")
        return

    def told_limit():
        return number(smi.gpu(gpu["uuid"])[CONFIGURED_LIMIT_FIELD])

    def check_told(what, watts):
        holds = settles(lambda: abs(told_limit() - watts) <= 0.01)
        checks.judge(f"{name} {what}, by nvidia-smi", holds, f"{told_limit()} W", f"{watts} W")

    taken = False
    try:
        taken = changed(checks, f"{name} set", monitor.run("set-power", "--gpu", index, str(current - 1)))
        if taken:
            check_told("set", current - 1)
    finally:
        # Also when the change seemed to fail: an interrupted program may have made it before.
        answer = monitor.run("set-power", "--gpu", index, str(current))
    if taken and changed(checks, f"{name} back", answer):
        check_told("back", current)


def tune_clocks(checks, smi, monitor, gpu):
    index, name = str(gpu["index"]), f"gpu {gpu['index']} locked clocks"
    clocks = monitor.query("clocks", "--gpu", index)["gpus"][0]
    if not clocks["can_control"]:
        checks.skip(name, clocks["status"])
        return
    # The memory clock that a busy GPU has, and a graphics clock that heat and power do not keep it from.
    group = max(clocks["supported"], key=lambda group: group["memory_clock_mhz"])
    graphics, memory = median(group["graphics_clocks_mhz"]), group["memory_clock_mhz"]

    def told_clock():
        told = smi.gpu(gpu["uuid"])
        return number(told["clocks.current.graphics"])

    taken = False
    try:
        # An idle GPU may rest below its lock; one with a context does not.
        with MemoryHolder(gpu["uuid"]):
            answer = monitor.run("lock-clocks", "--gpu", index, str(graphics), str(memory))
            taken = changed(checks, f"{name} set", answer)
            if taken:
                holds = settles(lambda: abs(told_clock() - graphics) <= LOCK_SLACK_MHZ)
                checks.judge(f"{name} set, by nvidia-smi", holds, f"{told_clock()} MHz",
                             f"{graphics} MHz +-{LOCK_SLACK_MHZ} for graphics within {SETTLE_SECONDS} s")
    finally:
        answer = monitor.run("reset-clocks", "--gpu", index)
    # nvidia-smi does not show locks, and an idle GPU may run at any clock, so only the answer can be checked.
    if taken:
        changed(checks, f"{name} reset", answer)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--probe", default="")
    parser.add_argument("--tuning", action="store_true")
    options = parser.parse_args()
    checks, smi, monitor = Checks(), Smi(), Monitor(options.program)
    gpus = list(monitor.gpus().values())
    check_samples(checks, smi, monitor)
    check_clock_lists(checks, smi, monitor)
    check_lifecycle(checks, options.probe)
    check_interrupt(checks, monitor)
    check_cycle(checks, monitor, options.probe, [gpu["index"] for gpu in gpus])
    for gpu in gpus:
        check_processes(checks, smi, monitor, gpu)
    for gpu in gpus if options.tuning else []:
        tune_power(checks, smi, monitor, gpu)
        tune_clocks(checks, smi, monitor, gpu)
    print(f"{checks.failures} checks failed." if checks.failures else "No check failed.")
    return 1 if checks.failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except RuntimeError as failure:
        sys.exit(f"check_real_gpu: gpu_monitor fails: {failure}")
