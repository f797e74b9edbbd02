#!/usr/bin/python3
"""Long endless replays over TCP and over UDP, verified by the receiver, while the memory, the
descriptors, the threads and the pace of both programs are watched. Whatever grows or drifts
ends it with status 1 and a sentence on standard error.

Writes soak.csv (a line per look at the processes) and pace.csv (a line per slice of the receiver's
measurement: how far the bytes are behind the wanted rate). soak_plot.py draws them.
Usage: soak.py [--build FOLDER] [--out FOLDER] [--minutes N] [--quick]
"""
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import harness
from harness import free_port, start, stop, wait_for

SOURCE_BYTES = 64 << 20
FRAMES = 20000
DATAGRAM = 500
MBPS = {"tcp": 100, "udp": 50}
SHORTEST = 10  # seconds per transport
LOOKS = 1000  # at most, per transport
SHORTEST_STEP = 0.25  # seconds between two looks
WARM_UP = 0.1  # of the run: connecting, filling buffers, touching pages for the first time

# What may lie between the medians of a run's first and last quarter.
KILOBYTES_OF_GROWTH = 256
# The sender never gives a compiled filter back, one for each pass over a capture: for "udp" up to
# 12 instructions of 8 bytes, and the heap's own share.
BYTES_OF_A_FILTER = 112
SECONDS_OF_DRIFT = 0.01
PROCESSES = ("sender", "receiver")


class Replay:
    """One endless replay and its receiver."""

    def __init__(self, options, protocol, source, seconds, scratch):
        self.protocol = protocol
        self.json = scratch / f"{protocol}.json"
        port = free_port()
        words = ["--protocol", protocol, "--port", port, "--filepath", source, "--loopback", 0]
        words += ["--mbps", MBPS[protocol]]
        if protocol == "udp":
            words += ["--filetype", 1, "--filter", "udp"]
        self._sender_words = [options.build / "replay_sender", *words]
        # The rate is looked at slice by slice, below; a verdict on the whole would be milder.
        receiver_words = [options.build / "replay_receiver", *words, "--duration", seconds]
        self._receiver_words = [*receiver_words, "--json", self.json, "--tolerance", 100]
        self._port = port
        self.sender = self.receiver = None

    def begin(self):
        """Over TCP the sender has to listen first, over UDP the receiver."""
        if self.protocol == "tcp":
            self.sender = start(*self._sender_words)
            wait_for("tcp", self._port, self.sender)
            self.receiver = start(*self._receiver_words)
        else:
            self.receiver = start(*self._receiver_words)
            wait_for("udp", self._port, self.receiver)
            self.sender = start(*self._sender_words)

    def end(self):
        """Both exit statuses, and what the receiver says of the run."""
        received = end_of(self.receiver, "receiver")
        self.sender.send_signal(harness.signal.SIGINT)
        sent = end_of(self.sender, "sender")
        return {"sender": sent, "receiver": received}, json.loads(self.json.read_text())

    def abandon(self):
        for process in (self.sender, self.receiver):
            if process is not None and process.poll() is None:
                stop(process, harness.signal.SIGKILL)


def end_of(process, name):
    """The exit status of a program that is to end now."""
    try:
        return process.wait(60)
    except subprocess.TimeoutExpired:
        raise SystemExit(f"soak: the {name} does not end") from None


def look_at(process):
    """Resident kilobytes, open descriptors and threads of a process."""
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text().split("\n")
    values = dict(line.split(":\t", 1) for line in status if ":\t" in line)
    return {
        "resident_kb": int(values["VmRSS"].split()[0]),
        "descriptors": len(os.listdir(f"/proc/{process.pid}/fd")),
        "threads": int(values["Threads"]),
    }


def watch(replay, seconds, samples):
    """Looks at both processes until shortly before the receiver's time is over."""
    step = max(SHORTEST_STEP, seconds / LOOKS)
    begin = time.monotonic()
    looks = []
    while (now := time.monotonic() - begin) < seconds - 2 * step:
        for name in PROCESSES:
            process = getattr(replay, name)
            if process.poll() is not None:
                sys.exit(f"{replay.protocol}: the {name} has ended with {process.returncode}")
            look = {"process": name, "seconds": round(now, 3), **look_at(process)}
            samples.add(protocol=replay.protocol, **look)
            looks.append(look)
        time.sleep(step)
    return looks


def lags(protocol, report, samples):
    """(seconds, lag) per slice: how much later its last byte came than the rate asks for."""
    measured = report["measured"]
    seconds_per_byte = 8 / (MBPS[protocol] * 1e6)
    total, found = 0, []
    for number, slice_ in enumerate(measured["intervals"][:-1], 1):
        total += slice_["bytes"]
        end = number * measured["interval_ns"] / 1e9
        found.append((end, end - total * seconds_per_byte))
        samples.add(protocol=protocol, seconds=f"{end:.3f}", lag_seconds=f"{found[-1][1]:.6f}")
    return found


def settled(values):
    """What evenly spread values are behind the warm-up."""
    return values[int(len(values) * WARM_UP) :]


def quarters(values):
    """The medians of the first and the last quarter."""
    values = settled(values)
    quarter = len(values) // 4
    return statistics.median(values[:quarter]), statistics.median(values[-quarter:])


def kept_by_design(name, protocol, report):
    """Kilobytes of filters between the middles of the first and the last quarter."""
    if (name, protocol) != ("sender", "udp"):
        return 0
    passes = report["measured"]["messages"] / FRAMES
    return passes * (1 - WARM_UP) * 3 / 4 * BYTES_OF_A_FILTER / 1024


def troubles_of_process(name, looks, kept):
    first, last = quarters([look["resident_kb"] for look in looks])
    if last - first - kept > KILOBYTES_OF_GROWTH:
        yield f"the {name}'s memory grows: from {first:.0f} to {last:.0f} kB, {kept:.0f} by design"
    for what in ("descriptors", "threads"):
        values = settled([look[what] for look in looks])
        if min(values) != max(values):
            yield f"the {name}'s {what} vary: from {min(values)} to {max(values)}"


def troubles_of_report(report):
    verified, measured = report["verified"], report["measured"]
    if verified["fault_count"] != 0:
        yield f"{verified['fault_count']} faults, the first one: {verified['faults'][0]}"
    if report["end_reason"] != "duration":
        yield f"the receiver ended for another reason: {report['end_reason']}"
    if measured["bytes"] == 0 or verified["matched_bytes"] < measured["bytes"] - 2 * 10240:
        yield f"{verified['matched_bytes']} of {measured['bytes']} bytes were verified"


def troubles_of_pace(behind):
    first, last = quarters([lag for _, lag in behind])
    if abs(last - first) > SECONDS_OF_DRIFT:
        yield f"the pace drifts: {first * 1e3:.3f} ms behind at first, {last * 1e3:.3f} at last"


def soak(options, protocol, source, seconds, files, scratch):
    """The sentences that tell what was wrong with one long replay."""
    replay = Replay(options, protocol, source, seconds, scratch)
    try:
        replay.begin()
        looks = watch(replay, seconds, files["soak"])
        statuses, report = replay.end()
    finally:
        replay.abandon()
    found = [f"the {name} ended with {status}" for name, status in statuses.items() if status]
    found += troubles_of_report(report)
    behind = lags(protocol, report, files["pace"])
    found += troubles_of_pace(behind)
    for name in PROCESSES:
        own = [look for look in looks if look["process"] == name]
        found += troubles_of_process(name, own, kept_by_design(name, protocol, report))
    tell(protocol, report, looks, behind)
    return [f"{protocol}: {sentence}" for sentence in found]


def tell(protocol, report, looks, behind):
    measured = report["measured"]
    print(
        f"{protocol}: {measured['messages']} messages, {measured['bytes']} bytes"
        f" in {measured['duration_ns'] / 1e9:.0f} s at {MBPS[protocol]} Mbps",
        file=sys.stderr,
    )
    for name in PROCESSES:
        first, last = quarters([k["resident_kb"] for k in looks if k["process"] == name])
        kept = kept_by_design(name, protocol, report)
        print(
            f"  {name}: {first:.0f} kB at first, {last:.0f} kB at last ({kept:.0f} kB by design)",
            file=sys.stderr,
        )
    first, last = quarters([lag for _, lag in behind])
    print(f"  behind: {first * 1e3:.3f} ms at first, {last * 1e3:.3f} ms at last", file=sys.stderr)


def main():
    options = harness.options(__doc__, minutes=60.0)
    seconds = SHORTEST if options.quick else options.minutes * 60 / len(MBPS)
    if seconds < SHORTEST:
        sys.exit(f"at least {SHORTEST * len(MBPS) / 60:.2f} minutes are needed")
    process_columns = ["protocol", "process", "seconds", "resident_kb", "descriptors", "threads"]
    files = {
        "soak": harness.Samples(options.out / "soak.csv", process_columns),
        "pace": harness.Samples(options.out / "pace.csv", ["protocol", "seconds", "lag_seconds"]),
    }
    found = []
    with tempfile.TemporaryDirectory() as folder:
        scratch = pathlib.Path(folder)
        harness.write_data(scratch / "tcp", SOURCE_BYTES)
        harness.write_capture(scratch / "udp", DATAGRAM, FRAMES)
        for protocol in MBPS:
            found += soak(options, protocol, scratch / protocol, seconds, files, scratch)
    print(*found, sep="\n", end="\n" if found else "", file=sys.stderr)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
