#!/usr/bin/env python3
"""Measures what hostile clients cost: the loop's longest stalls, and how long the superuser waits.

    hostile.py --agent FILE --vxlanctl FILE --memtab FILE [--hosts N] [--clients N] [--seconds N] [--nice N] [--tiny]

As the superuser, the clients are of four other users. A stall is the time between two polls of the agent's loop; the agent
counts them in buckets, and what is printed are those of the crowd alone, with the flush at its end. The agent has
the priority that the systemd unit gives it (--nice). What it waited for a processor stands beside the stalls.
"""

import os
import re
import sys
import time
import urllib.request

import bench
import readers
from database import free_ports
from rig import Lines


def main():
    options = bench.options_of("Measures the agent among hostile clients.", {"hosts": 500, "clients": 8, "seconds": 1},
                               hosts=100_000, clients=200, seconds=300, nice=-10)
    readers.HOSTS = options.hosts
    return bench.measure(options, lambda rig: among_hostile_clients(rig, options))


class Stalls:
    """The stalls of an agent's loop: how many were longer than each bound, in milliseconds."""

    def __init__(self, port):
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=60) as page:
            text = page.read().decode()
        below = {float(bound): int(float(count)) for bound, count in
                 re.findall(r'vxlan_agent_loop_stall_seconds_bucket{le="([^"]*)"} (\S+)', text)}
        self.turns = below[float("inf")]
        self.longer = {bound * 1000: self.turns - count for bound, count in below.items() if bound >= 0.005 and bound < 9}

    def since(self, before):
        longer = {bound: count - before.longer[bound] for bound, count in self.longer.items()}
        told = ", ".join(f"{count} longer than {bound:g} ms" for bound, count in sorted(longer.items()) if count != 0)
        return f"{self.turns - before.turns} turns, {told or 'none longer than 5 ms'}"


def scheduling(pid):
    """Seconds on a processor, and how often the agent was taken off one while it had work."""
    with open(f"/proc/{pid}/schedstat", encoding="utf-8") as file:
        ran, waited, _ = (int(number) for number in file.read().split())
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        taken = next(int(line.split()[1]) for line in file if line.startswith("nonvoluntary"))
    return ran * 1e-9, waited * 1e-9, taken


def among_hostile_clients(rig, options):
    port = free_ports(1)[0]
    agent = readers.agent_with_hosts(rig, "--metrics", f"127.0.0.1:{port}")
    os.setpriority(os.PRIO_PROCESS, agent.process.pid, options.nice)
    stalls, scheduled = Stalls(port), scheduling(agent.process.pid)
    print(f"{options.hosts} hosts; the longest stall while they came in {agent.get('/agent/loop/longestStall') * 1000:.1f} ms",
          flush=True)
    readers.crowd(rig, agent, options.clients)
    end = time.monotonic() + options.seconds
    waits = []
    while time.monotonic() < end:
        began = time.monotonic()
        lines = Lines(agent.socket)
        lines.ask({"get": "/agent/uptime"})
        waits.append(time.monotonic() - began)
        lines.close()
        time.sleep(0.2)
    control, crowd = agent.get("/agent/control"), Stalls(port)
    ran, waited, taken = (at_end - at_begin for at_end, at_begin in zip(scheduling(agent.process.pid), scheduled))
    print(f"{options.clients} clients for {options.seconds} s: {control}")
    print(f"among them {crowd.since(stalls)}; the longest of all {agent.get('/agent/loop/longestStall') * 1000:.1f} ms")
    print(f"the agent ran for {ran:.1f} s, waited {waited:.1f} s for a processor, and was taken off one {taken} times")
    waits.sort()
    print(f"the superuser connects and is answered within {waits[len(waits) // 2] * 1000:.1f} ms in the median, "
          f"{waits[-1] * 1000:.1f} ms at worst, of {len(waits)}")
    with open(f"/proc/{agent.process.pid}/status", encoding="utf-8") as file:
        print(next(line for line in file if line.startswith("VmHWM:")).strip())
    began = time.monotonic()
    flushed = Lines(agent.socket).ask({"call": "flush"})
    print(f"flush of {flushed['value']['hosts']} hosts answered after {(time.monotonic() - began) * 1000:.1f} ms")
    print(f"while it was carried out {Stalls(port).since(crowd)}; "
          f"the longest of all {agent.get('/agent/loop/longestStall') * 1000:.1f} ms")


if __name__ == "__main__":
    sys.exit(main())
