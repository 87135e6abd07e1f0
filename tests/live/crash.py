"""The agent is killed, and started again over the table that it left."""

import json
import os
import random

from database import Published, Server, behind, mac, published
from rig import Agent, Reader, check, until

VLANS = (10, 20)
MACS = [mac(0x1000 + number) for number in range(120)]
PLACES = 3    # VTEPs at which a host may be
KILLS = 60


def vtep(vlan, address, place):
    """Tells where a host belongs: a record put together from two hosts shows."""
    return f"10.{vlan}.{int(address[-2:], 16)}.{place + 1}"


def whole(host):
    return host["vtep0"] in {vtep(host["vlan"], host["mac"], place) for place in range(PLACES)} and host["intf"] == "Vxlan1"


class Load:
    """A controller that adds, moves and deletes hosts, in no order."""

    def __init__(self, session, dice):
        self.controller = Published(session, VLANS)
        self.dice = dice
        self.there = {}  # (VLAN, MAC) to the place
        for vlan in VLANS:
            self.publish(vlan, MACS)

    def publish(self, vlan, addresses):
        chosen = {address: self.dice.randrange(PLACES) for address in addresses}
        self.controller.hosts(vlan, {address: vtep(vlan, address, place) for address, place in chosen.items()})
        self.there.update(((vlan, address), place) for address, place in chosen.items())

    def work(self, steps):
        for _ in range(steps):
            vlan = self.dice.choice(VLANS)
            some = self.dice.sample(MACS, self.dice.randrange(1, 20))
            for address in some:
                if self.there.pop((vlan, address), None) is not None:
                    self.controller.withdraw(vlan, address)
            self.publish(vlan, [address for address in some if self.dice.random() < 0.8])


def scenario_the_agent_is_killed_at_any_moment(rig, seed=1):
    dice = random.Random(seed)
    database = Server(rig).start()
    load = Load(database.session(), dice)
    agent = Agent(rig).follows(database.remote, quiet=0.05).start()
    reader = Reader(rig, whole)
    for _ in range(KILLS):
        # The kill finds it in its start, while it waits for the controller's state, or while it takes in changes.
        moment = dice.choice(["start", "wait", "work", "work"])
        if moment != "start":
            until("the agent answers", agent.answers)
        if moment == "work":
            until("the agent follows", agent.following)
        load.work(dice.randrange(1, 12))
        agent.kill()
        load.work(dice.randrange(4))
        agent.begin()
    until("the agent answers", agent.answers)
    load.work(10)
    after = published(database.session())
    check(after == {key: vtep(*key, place) for key, place in load.there.items()}, "the database has what was written")
    until("the table is what the database publishes", lambda: reader.vteps() == after)
    until("the agent follows", agent.following)
    check(reader.vteps() == after, "and stays so")
    check(not reader.torn, lambda: f"{len(reader.torn)} hosts that nobody wrote: {reader.torn[:3]}")
    check(reader.changes > len(MACS) * KILLS, lambda: f"the reader was there: {reader.changes} changes")


def scenario_hosts_of_an_earlier_run_stay_until_the_state_is_in(rig):
    """What is published meanwhile is there at once; what is published no more goes in the end."""
    database = Server(rig).start()
    controller = Published(database.session())
    controller.hosts(10, behind(MACS, ["10.0.0.2"]))
    first = Agent(rig).follows(database.remote).start()
    until("the first agent follows", first.following)
    reader = Reader(rig)
    until("the reader sees them all", lambda: len(reader.vteps()) == len(MACS))
    reader.marks()
    first.kill()
    for address in MACS[:20]:
        controller.withdraw(10, address)
    for address in MACS[20:40]:
        controller.withdraw(10, address)
    controller.hosts(10, behind(MACS[20:40], ["10.0.0.3"]))
    database.kill()

    second = Agent(rig, name="second").follows(database.remote, quiet=1000).start()
    check(database.remote in second.problems(), "the second agent has no database")
    check(len(reader.vteps()) == len(MACS) and not reader.gone, "all hosts are there")
    database.start()
    controller.session = database.session()
    controller.hosts(10, {mac(1): "10.0.0.4"})
    reader.sees(10, mac(1))
    moved = {(10, address): "10.0.0.3" for address in MACS[20:40]}
    until("moved hosts are where they are now", lambda: moved.items() <= reader.vteps().items())
    check(second.get("/agent/waitingForController") is True, "it is not quiet yet")
    check(not reader.gone, "no host has gone")
    second.kill()

    third = Agent(rig, name="third").follows(database.remote).start()
    until("the third agent follows", third.following)
    until("the table is what the database publishes", lambda: reader.vteps() == published(database.session()))
    check(reader.gone == {(10, address) for address in MACS[:20]}, "what was withdrawn has gone, and nothing else")
    reader.never_missed({(10, address) for address in MACS[20:]})


def scenario_the_recordings_of_a_crash_loop(rig):
    """The first end of the loop stays to be looked at, with the last three."""
    agent = Agent(rig, "--record", rig.path("journal"))
    for run in range(7):
        agent.start()
        check(agent.ask({"patch": {"mlag": {"mlagState": run + 1}}}) == {"ok": True}, "the agent takes a patch")
        agent.kill()
    agent.start()

    def recorded(name):
        lines = [line for line in rig.text(name).splitlines() if not line.startswith("#") and "patch" in line]
        return [json.loads(line)["patch"]["mlag"]["mlagState"] for line in lines]
    kept = {name: recorded(name) for name in sorted(os.listdir(rig.folder)) if name.startswith("journal.")}
    check(kept == {"journal.1": [7], "journal.2": [6], "journal.3": [5], "journal.first": [1]}, lambda: f"{kept}")
    agent.stop()
    check(rig.text("journal").splitlines()[-1].startswith('# {"ended"'), "an end as told is in the recording")


def scenario_the_traces_of_agents_that_are_gone(rig):
    """The last three stay and the latest crash; that of a living agent stays whatever is started beside it."""
    folder = rig.path("traces")
    os.mkdir(folder)
    agent = Agent(rig, "--trace-dir", folder)
    for _ in range(6):
        agent.start()
        agent.kill()
    agent.start()
    name = os.path.join(folder, "UbeVxlanControllerSm.rl")
    living = os.stat(name).st_ino
    for _ in range(8):
        rig.run([rig.programs["agent"], "replay", "-"], input="{}\n", env={**os.environ, "RINGLOG_DIR": folder})
    there = {os.stat(os.path.join(folder, file)).st_ino for file in os.listdir(folder)}
    check(living in there, "the agent's own is there")
    check(len(there) <= 6, lambda: f"and few others: {sorted(os.listdir(folder))}")
    check(not [file for file in os.listdir(folder) if file.endswith(".new")], "and none that was not finished")
    agent.stop()
