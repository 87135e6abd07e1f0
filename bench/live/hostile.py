#!/usr/bin/env python3
"""Measures what hostile clients cost: the loop's longest stall, and how long the superuser waits.

    hostile.py --agent FILE --vxlanctl FILE --memtab FILE [--hosts N] [--clients N] [--seconds N] [--tiny]

As the superuser, the clients are of four other users. The longest stall is the agent's own figure, over the time of the
crowd alone where the agent tells the sum of the stalls in buckets, and else since the start.
"""

import argparse
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../tests/live"))

import readers  # noqa: E402
from rig import Lines, Rig, Skip  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description="Measures the agent among hostile clients.")
    for name in ("agent", "vxlanctl", "memtab"):
        parser.add_argument("--" + name, required=True, metavar="FILE", help=f"the program {name}")
    parser.add_argument("--hosts", type=int, default=100_000)
    parser.add_argument("--clients", type=int, default=200)
    parser.add_argument("--seconds", type=int, default=300)
    parser.add_argument("--tiny", action="store_true", help="a run that says nothing but that it runs")
    options = parser.parse_args()
    if options.tiny:
        options.hosts, options.clients, options.seconds = 500, 8, 1
    readers.HOSTS = options.hosts
    rig = Rig({name: os.path.realpath(getattr(options, name)) for name in ("agent", "vxlanctl", "memtab")})
    try:
        measure(rig, options)
    except Skip as skip:
        print(f"skipped: {skip}")
        return 77
    finally:
        rig.close()
    return 0


def measure(rig, options):
    agent = readers.agent_with_hosts(rig)
    before = agent.get("/agent/loop/longestStall")
    print(f"{options.hosts} hosts; the longest stall while they came in {before * 1000:.1f} ms", flush=True)
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
    loop, control = agent.get("/agent/loop"), agent.get("/agent/control")
    print(f"{options.clients} clients for {options.seconds} s: {control}")
    print(f"the longest stall {loop['longestStall'] * 1000:.1f} ms (it was {before * 1000:.1f} ms before), {loop['turns']} turns")
    waits.sort()
    print(f"the superuser connects and is answered within {waits[len(waits) // 2] * 1000:.1f} ms in the median, "
          f"{waits[-1] * 1000:.1f} ms at worst, of {len(waits)}")
    with open(f"/proc/{agent.process.pid}/status", encoding="utf-8") as file:
        print(next(line for line in file if line.startswith("VmHWM:")).strip())
    began = time.monotonic()
    flushed = Lines(agent.socket).ask({"call": "flush"})
    print(f"flush of {flushed['value']['hosts']} hosts answered after {(time.monotonic() - began) * 1000:.1f} ms")


if __name__ == "__main__":
    sys.exit(main())
