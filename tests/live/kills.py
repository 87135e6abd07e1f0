"""The agent is killed again and again while a controller never pauses, a reader looks on, and the kernel forwards.

KILLS in the environment says how often, KILLS_SEED which choices are made: KILLS=1000 takes some minutes.
"""

import collections
import json
import os
import random
import subprocess
import threading

from crash import MACS, VLANS, Load, whole
from database import Server, mac, published
from kernel import Monitor, Namespace
from rig import Agent, Reader, check, program, until

STEADY = [mac(0x2000 + number) for number in range(64)]  # published before the first kill, and never touched
MOMENTS = ["start", "answers", "follows", "settled"]


class Churn(Load):
    """A load that goes on by itself until it is stopped."""

    def __init__(self, session, dice):
        super().__init__(session, dice)
        for vlan in VLANS:
            self.publish(vlan, STEADY)
            self.controller.flood(vlan, f"10.{vlan}.0.1")
        self.steady = {(vlan, address) for vlan in VLANS for address in STEADY}
        self.rounds = 0
        self.failure = None
        self.going = False
        self.thread = None

    def start(self):
        self.going = True
        self.thread = threading.Thread(target=self._go, daemon=True)
        self.thread.start()

    def _go(self):
        try:
            while self.going:
                self.work(1)
                self.rounds += 1
        except Exception as failure:  # told where the scenario looks
            self.failure = failure

    def stop(self):
        self.going = False
        self.thread.join()
        check(self.failure is None, lambda: f"the churn has ended: {self.failure}")


class Forwarding(Namespace):
    """The kernel's side."""

    def _json(self, *command):
        done = subprocess.run([*self.prefix, *command], capture_output=True, text=True, check=True)
        return json.loads(done.stdout or "[]")

    def leads(self):
        """(VLAN, MAC) to VTEP, of the rows of hosts."""
        hops = {hop["id"]: hop for hop in self._json(program("ip"), "-json", "nexthop", "show")}

        def vtep(row):
            if "dst" in row:
                return row["dst"]
            return " ".join(sorted(hops[member["id"]]["gateway"] for member in hops[row["nhid"]]["group"]))
        return {(vlan, row["mac"]): vtep(row) for vlan in VLANS
                for row in self._json(self.bridge, "-json", "fdb", "show", "dev", f"vx{5000 + vlan}")
                if row["mac"].startswith("02:") and ("dst" in row or "nhid" in row)}


def reached(agent, moment):
    """Whether the agent has come so far in its life that it may be killed there."""
    if moment == "start":
        return True
    if not agent.answers():
        return False
    return {"answers": lambda: True, "follows": lambda: agent.database()["session"] == "following",
            "settled": agent.following}[moment]()


def scenario_nothing_is_missed_and_nothing_torn(rig):
    kills, seed = int(os.environ.get("KILLS", "12")), int(os.environ.get("KILLS_SEED", "1"))
    print(f"{kills} kills, seed {seed}", flush=True)
    dice = random.Random(seed)
    namespace = Forwarding(rig)
    database = Server(rig).start()
    churn = Churn(database.session(), random.Random(seed + 1))
    agent = Agent(rig, "--kernel", "--converge-max", "0.5", prefix=namespace.prefix)
    agent.follows(database.remote, quiet=0.05).start()
    until("the agent follows", agent.following)
    until("the kernel has the hosts", lambda: namespace.leads() == published(database.session()))
    monitor = Monitor(rig, namespace)
    monitor.hears(namespace, "vx5010")
    reader = Reader(rig, whole)
    until("the reader sees them all", lambda: len(reader.vteps()) == len(churn.there))
    reader.marks()

    churn.start()
    count = collections.Counter()
    for _ in range(kills):
        moment = dice.choice(MOMENTS)
        until(f"the agent is where it is to be killed: {moment}", lambda moment=moment: reached(agent, moment))
        agent.kill()
        count[moment] += 1
        check(churn.failure is None, lambda: f"the churn has ended: {churn.failure}")
        agent.begin()
    churn.stop()

    until("the agent answers", agent.answers)
    after = published(database.session())
    check(after.keys() == churn.there.keys(), "the database has what was written")
    until("the agent follows", agent.following)
    until("the table is what the database publishes", lambda: reader.vteps() == after)
    until("the kernel is what the database publishes", lambda: namespace.leads() == after)
    until("the agent finds nothing that differs",
          lambda: all(kind["differing"] == 0 for kind in agent.get("/agent/kernel", {"": {"differing": 1}}).values()))
    lost = [row for row in monitor.gone if any(address in row for address in STEADY)]
    print(f"{sum(count.values())} kills {dict(count)}, {churn.rounds} rounds of churn, {reader.changes} records read, "
          f"{len(reader.torn)} torn, {len(reader.gone & churn.steady)} steady hosts missed by the reader, "
          f"{len(monitor.gone)} rows left the kernel, {len(lost)} of steady hosts", flush=True)
    check(not reader.torn, lambda: f"{len(reader.torn)} hosts that nobody wrote: {reader.torn[:3]}")
    reader.never_missed(churn.steady)
    check(not lost, lambda: f"{len(lost)} rows of steady hosts were away for a moment: {lost[:3]}")
    check(churn.rounds > kills and reader.changes > len(MACS), "there was churn, and the reader was there")
