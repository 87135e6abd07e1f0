#!/usr/bin/env python3
"""Measures `vxlan-agent run` as a whole below a real database, beside `ovsdb-client dump` of the same table in the same run.

    live.py --agent FILE --vxlanctl FILE --memtab FILE [--hosts N] [--vlans N] [--switches N] [--tiny]

A row is an agent of its own, or what happens to the one of the row above. The stall is the longest time that the agent's loop
did not look at its descriptors, as the agent itself measures it, since it started; processor time is what was used in the row;
memory is the most that the process ever had.
"""

import os
import subprocess
import sys
import time

import bench
from database import Published, Server, behind, mac, tools
from rig import Agent, until

VTEPS = [f"10.0.{number // 250}.{number % 250 + 2}" for number in range(32)]
BATCH = 5000


class Sheet:
    def __init__(self):
        print(f"{'':44} {'wall s':>8} {'cpu s':>8} {'stall ms':>9} {'memory MB':>10}")

    @staticmethod
    def row(what, wall, cpu, stall, memory):
        stall = "" if stall is None else f"{stall * 1000:.1f}"
        print(f"{what:44} {wall:8.3f} {cpu:8.3f} {stall:>9} {memory / 1024:10.1f}", flush=True)


class Measured:
    """What happens to an agent within a `with` is a row."""

    def __init__(self, sheet, what, agent):
        self.sheet, self.what, self.agent = sheet, what, agent

    def __enter__(self):
        self.began, self.cpu = time.monotonic(), self.cpu_of()
        return self

    def __exit__(self, kind, *_):
        if kind is None:
            wall = time.monotonic() - self.began
            cpu = self.cpu_of() - self.cpu
            stall = self.agent.get("/agent/loop/longestStall")
            with open(f"/proc/{self.agent.process.pid}/status", encoding="utf-8") as file:
                memory = int(next(line for line in file if line.startswith("VmHWM:")).split()[1])
            self.sheet.row(self.what, wall, cpu, stall, memory)

    def cpu_of(self):
        if self.agent.process is None or self.agent.process.poll() is not None:
            return 0
        with open(f"/proc/{self.agent.process.pid}/stat", encoding="utf-8") as file:
            user, system = file.read().rsplit(")", 1)[1].split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def yardstick(sheet, database):
    """The database's own client, reading the same table."""
    began = time.monotonic()
    process = subprocess.Popen([tools()["ovsdb-client"], "dump", database.remote, "hardware_vtep", "Ucast_Macs_Remote"],
                               stdout=subprocess.DEVNULL)
    _, _, usage = os.wait4(process.pid, 0)
    sheet.row("ovsdb-client dump", time.monotonic() - began, usage.ru_utime + usage.ru_stime, None, usage.ru_maxrss)


def has(agent, hosts):
    until(f"{hosts} hosts are in the table", lambda: agent.get("/agent/table/hosts") == hosts)


def below_a_database(rig, sheet, options):
    database = Server(rig).start()
    vlans = range(10, 10 + options.vlans)
    controller = Published(database.session(), vlans)
    for number, vlan in enumerate(vlans):
        macs = [mac(host) for host in range(number, options.hosts, options.vlans)]
        for first in range(0, len(macs), BATCH):
            controller.hosts(vlan, behind(macs[first:first + BATCH], VTEPS))
    agent = Agent(rig).follows(database.remote)
    for _ in range(3):
        yardstick(sheet, database)
        with Measured(sheet, "the agent, from its start to all in the table", agent):
            agent.start()
            has(agent, options.hosts)
        until("the agent follows", agent.following)
        agent.stop()
        os.unlink("/dev/shm" + rig.table)
    agent.start()
    has(agent, options.hosts)
    until("the agent follows", agent.following)
    with Measured(sheet, "the database killed and started again", agent):
        database.kill()
        until("the database is lost", lambda: agent.database()["session"] != "following")
        database.start()
        until("the agent follows", agent.following)
    agent.kill()
    with Measured(sheet, "the agent killed and started again", agent):
        agent.start()
        until("the agent follows", agent.following)
    with Measured(sheet, "the controller converges, with nothing lost", agent):
        session = database.session()
        everywhere = {"op": "update", "table": "Global", "where": []}
        session.transact({**everywhere, "row": {"other_config": ["map", [["converging", "true"]]]}})
        until("the agent converges", lambda: agent.database()["converging"])
        session.transact({**everywhere, "row": {"other_config": ["map", []]}})
        until("the agent follows", agent.following)
    with Measured(sheet, "all withdrawn", agent):
        session.transact({"op": "delete", "table": "Ucast_Macs_Remote", "where": []})
        has(agent, 0)
    agent.stop()
    database.kill()


def over_the_control_socket(rig, sheet, options):
    client = {"vtiStatus": {"Vxlan1": {"controllerClientMode": True}}, "vlanVniMap": {"Vxlan1": {"10": 5010}}}

    def patch(agent, value):
        hosts = {mac(number): value for number in range(options.hosts)}
        agent.ask({"patch": {"controller": {"fdb": {"5010": {"macVtepTable": hosts}}}}})

    agent = Agent(rig).start()
    agent.ask({"patch": {**client, "controller": {"fdb": {"5010": {}}}}})
    with Measured(sheet, "a patch of all hosts at the control socket", agent):
        patch(agent, {"vtepIp": "10.0.0.2"})
    with Measured(sheet, "one that moves them all", agent):
        patch(agent, {"vtepIp": "10.0.0.3"})
    with Measured(sheet, "one that removes them all", agent):
        patch(agent, None)
    agent.stop()
    agent.start()
    agent.ask({"patch": client})
    with Measured(sheet, "one of all hosts that makes their VNI", agent):
        patch(agent, {"vtepIp": "10.0.0.2"})
    agent.stop()


def many_logical_switches(rig, sheet, options):
    """What a change of the VLANs costs where there are many."""
    database = Server(rig, "wide").start()
    controller = Published(database.session(), range(1, 1 + options.switches))
    agent = Agent(rig).follows(database.remote)
    with Measured(sheet, f"{options.switches} logical switches", agent):
        agent.start()
        until("all VLANs are mapped", lambda: len(agent.get("/input/vlanVniMap/Vxlan1", {})) == options.switches)
        until("the agent follows", agent.following)
    with Measured(sheet, "one of them with another key", agent):
        controller.session.transact({"op": "update", "table": "Logical_Switch", "where": [["name", "==", "ls1"]],
                                     "row": {"tunnel_key": 99999}})
        until("the VLAN is mapped", lambda: agent.get("/input/vlanVniMap/Vxlan1/1") == 99999)
    with Measured(sheet, "all of them with other keys", agent):
        controller.session.transact(*(
            {"op": "update", "table": "Logical_Switch", "where": [["_uuid", "==", uuid]], "row": {"tunnel_key": 20000 + vlan}}
            for vlan, uuid in controller.switches.items()))
        until("the VLANs are mapped", lambda: set(agent.get("/input/vlanVniMap/Vxlan1").values()) ==
              {20000 + vlan for vlan in controller.switches})
    agent.stop()


PARTS = {"database": below_a_database, "control": over_the_control_socket, "switches": many_logical_switches}


def main():
    options = bench.options_of("Measures the agent as a whole below a real database.", {"hosts": 500, "switches": 50},
                               only=tuple(PARTS), hosts=100_000, vlans=10, switches=4000)
    sheet = Sheet()
    parts = [part for name, part in PARTS.items() if options.only in (None, name)]
    return bench.measure(options, *(lambda rig, part=part: part(rig, sheet, options) for part in parts))


if __name__ == "__main__":
    sys.exit(main())
