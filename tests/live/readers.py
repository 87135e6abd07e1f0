"""What local users can do to an agent at its control socket, and what those who may patch still can."""

import contextlib
import json
import os
import sys

from database import mac
from rig import Agent, Lines, Skip, check, until

CROWD = os.path.join(os.path.dirname(os.path.realpath(__file__)), "crowd.py")
STRANGERS = (65534, 1, 2, 3)  # users that are nobody here
HOSTS = 20_000
BUDGET = 2_000 + 5_000        # items of a turn, and of what may begin in it
CLIENT = {"vtiStatus": {"Vxlan1": {"controllerClientMode": True}}, "vlanVniMap": {"Vxlan1": {"10": 5010}},
          "controller": {"fdb": {"5010": {}}}}


def agent_with_hosts(rig, *options):
    """One that everybody may read from."""
    if os.geteuid() != 0:
        raise Skip("only the superuser can be several users")
    os.chmod(rig.folder, 0o755)
    agent = Agent(rig, "--socket-read-all", *options).start()
    hosts = {mac(number): {"vtepIp": "10.0.0.2"} for number in range(HOSTS)}
    check(agent.ask({"patch": CLIENT}) == {"ok": True}, "the agent takes a client")
    check(agent.ask({"patch": {"controller": {"fdb": {"5010": {"macVtepTable": hosts}}}}}) == {"ok": True}, "and hosts")
    return agent


@contextlib.contextmanager
def as_user(user):
    """Who connects within is taken for this user."""
    os.setegid(user)
    os.seteuid(user)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)


def crowd(rig, agent, clients, rounds=None):
    """Hostile clients, shared out among the strangers."""
    processes = []
    for number, user in enumerate(STRANGERS):
        command = [sys.executable, "-B", CROWD, "--socket", agent.socket, "--clients", str(clients // len(STRANGERS)),
                   "--user", str(user), "--seed", str(number + 1), *(["--rounds", str(rounds)] if rounds else [])]
        processes.append(rig.start(f"crowd{number}", command))
    until("the crowd has begun", lambda: all("begun" in rig.text(f"crowd{number}.log") for number in range(len(STRANGERS))))
    return processes


def scenario_two_hundred_hostile_clients(rig):
    """No turn of the loop has more than its items, and what the superuser asks for is answered within a few turns."""
    agent = agent_with_hosts(rig)
    input_before = agent.get("/input")
    processes = crowd(rig, agent, 200, rounds=300)
    asked = 0
    while any(process.poll() is None for process in processes):
        lines = Lines(agent.socket)
        lines.file.write(b'{"get":"/agent/loop/turns"}\n{"call":"problems"}\n{"get":"/agent/loop/turns"}\n')
        lines.file.flush()
        first, problems, last = lines.hear(), lines.hear(), lines.hear()
        check(problems.get("value") == [], lambda: f"no request has met an error: {json.dumps(problems)}")
        turns = last["value"] - first["value"]
        check(turns <= 8, f"two requests are answered within a few turns: {turns}")
        lines.close()
        asked += 1
    check(asked > 0 and all(process.returncode == 0 for process in processes), "the crowd went on to its end")
    control = agent.get("/agent/control")
    check(control["mostItems"] <= BUDGET, lambda: f"no turn has more than its items: {control}")
    check(control["refused"] > 0 and control["dropped"] > 0, lambda: f"the crowd was heard: {control}")
    check(agent.get("/input") == input_before, "and has changed nothing")


def scenario_flush_in_a_hostile_crowd(rig):
    agent = agent_with_hosts(rig)
    crowd(rig, agent, 200)
    agent.hang_up()
    flushed = Lines(agent.socket).ask({"call": "flush"})
    check(flushed.get("value", {}).get("hosts") == HOSTS, lambda: f"the switch is flushed: {flushed}")
    check(agent.get("/agent/outOfService"), "and out of service")


def scenario_idle_clients_of_one_user(rig):
    """They keep out neither the superuser nor another user."""
    agent = agent_with_hosts(rig)
    agent.hang_up()
    with as_user(STRANGERS[0]):
        idle = [Lines(agent.socket) for _ in range(64)]
    check(agent.ask({"patch": {"mlag": {"mlagState": 1}}}) == {"ok": True}, "the superuser is let in")
    with as_user(STRANGERS[1]):
        other = Lines(agent.socket)
    check(other.ask({"get": "/input/mlag/mlagState"}) == {"value": 1}, "another user is let in")
    check("too many clients of this user" in idle[-1].hear()["error"]["reason"], "the user is told of its limit")
    check(agent.get("/agent/control/clients") <= 18, "the user has sixteen places")


def scenario_one_host_is_one_look_up(rig):
    """Readers that follow single hosts cost the same however many hosts there are."""
    agent = agent_with_hosts(rig)
    followers = [Lines(agent.socket) for _ in range(8)]
    for number, lines in enumerate(followers):
        for topic in range(16):
            kind = ("receivedHosts", "l2Rib/hosts")[topic % 2]
            answer = lines.ask({"subscribe": f"/output/{kind}/10/{mac(16 * number + topic)}"})
            check(answer["value"]["vtepIp"] == "10.0.0.2", "the host is there")
    change = {"controller": {"fdb": {"5010": {"macVtepTable": {mac(17): {"vtepIp": "10.0.0.3"}}}}}}
    check(agent.ask({"patch": change}) == {"ok": True}, "a host moves")
    check(followers[1].hear()["merge"]["vtepIp"] == "10.0.0.3", "its follower is told")
    most = agent.get("/agent/control/mostItems")
    check(most < HOSTS // 10, lambda: f"no turn has looked at all hosts: {most}")
