#!/usr/bin/env python3
"""Measures hosts from the database through the agent to the kernel, beside `bridge -batch` of the same rows in the same run.

    lab.py --agent FILE --vxlanctl FILE [--hosts N] [--tiny]

A row is what happens to one agent, until it has nothing more to do and says that the kernel has everything. Before the time
"said" the database had not yet taken all of it in. The stall is the longest time that the agent's loop did not look at its
descriptors, as the agent itself measures it, since it started; processor time is the agent's.
"""

import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
for folder in ("../../tests/lab", "../../tests/live"):
    sys.path.insert(0, os.path.join(HERE, folder))

from bed import Bed  # noqa: E402
from database import behind, insert, locator, mac  # noqa: E402
from rig import PATIENCE, Rig, Skip, check  # noqa: E402

VTEPS = [f"10.1.{number // 250}.{number % 250 + 2}" for number in range(64)]
PART = 5000
FIRST = 1 << 24  # far from the addresses of the bed's own hosts
SAMPLE, STILL = 0.02, 25  # seconds, and samples without work that show that it is done


class Sheet:
    def __init__(self, hosts):
        self.hosts = hosts
        print(f"{'':44} {'said s':>8} {'wall s':>8} {'hosts/s':>9} {'cpu s':>8} {'stall ms':>9}")

    def row(self, what, wall, cpu, said=None, stall=None):
        said, stall = ("" if said is None else f"{said:.3f}", "" if stall is None else f"{stall * 1000:.1f}")
        print(f"{what:44} {said:>8} {wall:8.3f} {self.hosts / wall:9.0f} {cpu:8.3f} {stall:>9}", flush=True)


def worked(leaf):
    """The seconds that the agent has been at work."""
    with open(f"/proc/{leaf.pid()}/schedstat", encoding="utf-8") as file:
        return int(file.read().split()[0]) * 1e-9


def measured(sheet, what, leaf, hosts, action=lambda: None, fresh=False):
    """From the action on, until the agent has come to rest with that many hosts in the kernel. To look is not to disturb: the
    agent is asked when it rests."""
    began = time.monotonic()
    before = 0 if fresh else worked(leaf)
    action()
    said = time.monotonic() - began
    last, still = time.monotonic(), 0
    work = worked(leaf)
    while True:
        time.sleep(SAMPLE)
        more = worked(leaf)
        still = 0 if more - work > SAMPLE / 10 else still + 1
        last = last if still else time.monotonic()
        work = more
        if still >= STILL and complete(leaf, hosts):
            break
        check(time.monotonic() - began < 5 * PATIENCE, f"{what}: does not come to rest")
    sheet.row(what, last - began, work - before, said, leaf.get("/agent/loop/longestStall"))


def complete(leaf, hosts):
    if not leaf.answers() or not leaf.following():
        return False
    kinds = leaf.get("/agent/kernel")
    return kinds["hosts"]["there"] == hosts and all(kind["differing"] == 0 for kind in kinds.values())


class Hosts:
    """Rows of ls10, 5,000 to a transaction."""

    def __init__(self, bed, count):
        self.session = bed.controller.session
        self.switch = bed.controller.switch(10)
        self.addresses = [mac(FIRST + number) for number in range(count)]
        self.rows = []  # of the hosts, in the order of their addresses

    @staticmethod
    def parts(all_of_them):
        return (all_of_them[first:first + PART] for first in range(0, len(all_of_them), PART))

    def places(self):
        return {row["dst_ip"]: row["_uuid"] for row in self.session.select("Physical_Locator", "dst_ip", "_uuid")}

    def publish(self):
        self.rows = []
        for part in self.parts(self.addresses):
            there = self.places()  # those that no row names are gone
            new = {vtep: f"l{number}" for number, vtep in enumerate(VTEPS) if vtep not in there}
            places = {**there, **{vtep: ["named-uuid", name] for vtep, name in new.items()}}
            results = self.session.transact(
                *(locator(vtep, name) for vtep, name in new.items()),
                *(insert("Ucast_Macs_Remote", {"MAC": address, "logical_switch": self.switch, "locator": places[vtep]})
                  for address, vtep in behind(part, VTEPS).items()))
            self.rows += [result["uuid"][1] for result in results[len(new):]]

    def withdraw(self):
        self.session.transact({"op": "delete", "table": "Ucast_Macs_Remote", "where": []})

    def move(self):
        """Each to the next VTEP."""
        places = self.places()
        nexts = behind(self.rows, VTEPS[1:] + VTEPS[:1])
        for part in self.parts(list(nexts.items())):
            self.session.transact(*({"op": "update", "table": "Ucast_Macs_Remote", "where": [["_uuid", "==", ["uuid", row]]],
                                     "row": {"locator": places[vtep]}} for row, vtep in part))

def bridge_batch(rig, bed, sheet, hosts):
    """The same rows by iproute2, in a namespace where nobody listens."""
    path = rig.path("rows.batch")
    with open(path, "w", encoding="utf-8") as file:
        for address, vtep in behind(hosts.addresses, VTEPS).items():
            file.write(f"fdb replace {address} dev yard dst {vtep} self static\nfdb replace {address} dev yard master static\n")
    for command in ("ip link add yards type bridge", "ip link set yards up",
                    "ip link add yard type vxlan id 5010 dstport 4789 local 192.168.20.1 nolearning",
                    "ip link set yard master yards up"):
        bed.run("h1b", command)
    began = time.monotonic()
    process = subprocess.Popen([*bed.within("h1b"), "bridge", "-batch", path])
    _, status, usage = os.wait4(process.pid, 0)
    check(status == 0, "bridge -batch fails")
    sheet.row("bridge -batch of the same rows", time.monotonic() - began, usage.ru_utime + usage.ru_stime)


def measure(rig, options):
    bed = Bed(rig, leaves=1)
    leaf, hosts, sheet = bed.leaves[1], Hosts(bed, options.hosts), Sheet(options.hosts)
    hosts.withdraw()
    leaf.stop()
    hosts.publish()
    count = len(hosts.addresses)
    bridge_batch(rig, bed, sheet, hosts)
    measured(sheet, "the agent starts, with all in the database", leaf, count, leaf.begin, fresh=True)
    measured(sheet, "all move to another VTEP, 5,000 at a time", leaf, count, hosts.move)
    leaf.kill()
    measured(sheet, "the agent is killed and starts again", leaf, count, leaf.begin, fresh=True)
    measured(sheet, "all are withdrawn at once", leaf, 0, hosts.withdraw)
    measured(sheet, "all are published again, 5,000 at a time", leaf, count, hosts.publish)


def main():
    parser = argparse.ArgumentParser(description="Measures hosts from the database to the kernel.")
    for name in ("agent", "vxlanctl"):
        parser.add_argument("--" + name, required=True, metavar="FILE", help=f"the program {name}")
    parser.add_argument("--hosts", type=int, default=100_000)
    parser.add_argument("--tiny", action="store_true", help="a run that says nothing but that it runs")
    options = parser.parse_args()
    if options.tiny:
        options.hosts = 500
    rig = Rig({name: os.path.realpath(getattr(options, name)) for name in ("agent", "vxlanctl")})
    try:
        measure(rig, options)
        return 0
    except Skip as skip:
        print(f"skipped: {skip}")
        return 77
    except Exception:
        print(rig.logs())
        raise
    finally:
        rig.close()


if __name__ == "__main__":
    sys.exit(main())
