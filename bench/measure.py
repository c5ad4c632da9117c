# SPDX-License-Identifier: Apache-2.0
"""What a monitor costs: CPU time a refresh, memory, bytes to the terminal, time to first figures."""
import statistics
import subprocess
import sys
import time

from monitors import zorva
from programs import InTerminal, Server, cpu_seconds, has_children, resident_kib

FIRST_REFRESHES = 3  # are not yet the steady state
SLOW_PANEL_CYCLES = 3  # the panels on top of zorva's full screen are filled every third second


class Measured:
    """None: could not be measured. The CPU times are milliseconds a refresh."""

    def __init__(self, monitor):
        self.name, self.ours = monitor.name, monitor.ours
        self.cpu_ms = self.server_ms = None
        self.cycle_ms = None  # from one refresh to the next, as it was
        self.rss_kib = self.server_rss_kib = None
        self.bytes_per_second = None
        self.start_ms = self.slowest_start_ms = None

    @property
    def all_rss_kib(self):
        return None if self.rss_kib is None else self.rss_kib + (self.server_rss_kib or 0)


def warn(text):
    print(f"bench: {text}", file=sys.stderr)


def start(monitor, server):
    command = monitor.command + (["-p", str(server.port)] if server else [])
    return InTerminal(command, monitor.environment)


def first_figures(monitor, server, starts):
    """The program, at its last start, and the milliseconds that each took."""
    times = []
    for i in range(starts):
        program = start(monitor, server)
        try:
            seconds = program.wait_for(monitor.figures, 10)
            if seconds is None:
                raise RuntimeError("no figures in 10 s")
        except BaseException:
            program.stop()
            raise
        times.append(seconds * 1000)
        if i + 1 < starts:
            program.stop()
    return program, times


class Reading:
    """The counters at a moment."""

    def __init__(self, program, pids):
        self.cpu = [cpu_seconds(pid) for pid in pids]
        self.time = time.monotonic()
        self.bytes, self.bursts = program.bytes, program.bursts


def read_steady(monitor, program, pids, refreshes):
    """Two readings with so many refreshes between them, and how many they were."""
    if not monitor.steady_bursts:
        refreshes += -refreshes % SLOW_PANEL_CYCLES
        time.sleep(FIRST_REFRESHES)
        before = Reading(program, pids)
        time.sleep(refreshes)
        return before, Reading(program, pids), refreshes
    # Both readings are taken as the output of a refresh begins, at the same point of its cycle.
    program.wait_for_bursts(program.bursts + FIRST_REFRESHES, 20)
    before = Reading(program, pids)
    program.wait_for_bursts(before.bursts + refreshes, 3 * refreshes)
    after = Reading(program, pids)
    if after.bursts == before.bursts:
        raise RuntimeError("no refreshes")
    return before, after, after.bursts - before.bursts


def measure_steady(result, monitor, program, server, refreshes):
    pids = [program.pid] + ([server.pid] if server else [])
    before, after, count = read_steady(monitor, program, pids, refreshes)
    if any(has_children(pid) for pid in pids):
        warn(f"{monitor.name} has started processes, which are not in its figures")
    used = [(late - early) / count * 1000 for early, late in zip(before.cpu, after.cpu)]
    seconds = after.time - before.time
    result.cpu_ms = sum(used)
    result.cycle_ms = seconds / count * 1000
    result.bytes_per_second = (after.bytes - before.bytes) / seconds
    result.rss_kib = resident_kib(program.pid)
    if server:
        result.server_ms = used[1]
        result.server_rss_kib = resident_kib(server.pid)


def measure(monitor, binaries, refreshes, starts):
    """What fails is told and leaves its figures unknown; the other monitors go on."""
    result = Measured(monitor)
    server = program = None
    if not monitor.installed():
        warn(f"{monitor.name} is not installed")
        return result
    try:
        if monitor.ours:
            server = Server(binaries, monitor.server_options, monitor.environment)
        program, times = first_figures(monitor, server, starts)
        result.start_ms, result.slowest_start_ms = statistics.median(times), max(times)
        measure_steady(result, monitor, program, server, refreshes)
    except (OSError, RuntimeError, subprocess.SubprocessError) as problem:
        warn(f"{monitor.name}: {problem}")
    finally:
        if program:
            program.stop()
        if server:
            server.stop()
    return result


def measure_clients(binaries, count, refreshes):
    """CPU milliseconds a refresh of a server, and of so many clients together."""
    monitor = zorva(binaries, "-b")
    server = Server(binaries, environment=monitor.environment)
    clients = []
    try:
        for i in range(count):
            clients.append(start(monitor, server))
            time.sleep(1 / count)  # users do not all start at one moment
        for client in clients:
            if client.wait_for(monitor.figures, 10) is None:
                raise RuntimeError(f"no figures with {count} clients")
        time.sleep(FIRST_REFRESHES - 1)  # the first one has been seen
        pids = [server.pid] + [one.pid for one in clients]
        before = [cpu_seconds(pid) for pid in pids]
        began = time.monotonic()
        time.sleep(refreshes)
        used = [cpu_seconds(pid) - early for pid, early in zip(pids, before)]
        seconds = time.monotonic() - began
        return used[0] / seconds * 1000, sum(used[1:]) / seconds * 1000
    finally:
        for client in clients:
            client.stop()
        server.stop()


def bytes_while_still(binaries, server_options, seconds):
    """Bytes to the terminal while no figure changes: files stand in for the machine."""
    monitor = zorva(binaries)
    server = Server(binaries, server_options, monitor.environment)
    program = None
    try:
        program = start(monitor, server)
        if program.wait_for(monitor.figures, 10) is None:
            raise RuntimeError("no figures of the files")
        time.sleep(4)
        before = program.bytes
        time.sleep(seconds)
        if before < program.bytes:
            warn(f"written: {program.text[before - program.bytes:][:200]!r}")
        return program.bytes - before
    finally:
        if program:
            program.stop()
        server.stop()
