"""What an agent below a real database records, and what comes out when it is replayed."""

import json
import subprocess

import recorded
from database import Published, Server, behind, mac
from rig import Agent, Lines, check, until


def replay(rig, text):
    """What `vxlan-agent replay` prints for this journal."""
    done = subprocess.run([rig.programs["agent"], "replay", "-"], input=text, capture_output=True, text=True, check=False)
    check(done.returncode == 0, lambda: f"the replay ended with {done.returncode}: {done.stderr}")
    return done.stdout


def scenario_a_recording_replays_to_what_was(rig):
    """A database that is populated, killed, started again and changed, recorded, comes to the same end in virtual time."""
    journal, output = recorded.record(rig)
    first = replay(rig, journal + '{"dump":true}\n')
    check(replay(rig, journal + '{"dump":true}\n') == first, "and it does so again, byte by byte")
    check(recorded.timeless(json.loads(first)) == recorded.timeless(output),
          lambda: f"the agent said {output}, the replay {first}")


def scenario_a_recording_of_a_converging_controller_replays_to_what_was(rig):
    """With the paced deletions at the end of the convergence, and a table that an earlier agent left."""
    database = Server(rig).start()
    session = database.session()
    controller = Published(session, vlans=(10, 20))
    controller.hosts(10, behind([mac(number) for number in range(2000)], ["10.0.0.2", "10.0.0.3"]))
    controller.flood(10, "10.0.0.2")
    earlier = Agent(rig).follows(database.remote).start()
    until("the earlier agent follows", earlier.following)
    earlier.kill()

    agent = Agent(rig, "--record", rig.path("journal")).follows(database.remote).start()
    until("the agent follows", agent.following)
    everywhere = {"op": "update", "table": "Global", "where": []}
    session.transact({**everywhere, "row": {"other_config": ["map", [["converging", "true"]]]}})
    until("the controller converges", lambda: agent.get("/output/clientView/convergenceInProgress"))
    for number in range(0, 2000, 100):
        controller.withdraw(10, mac(number))
    controller.hosts(20, behind([mac(number) for number in range(0, 2000, 100)], ["10.0.0.3"]))
    session.transact({**everywhere, "row": {"other_config": ["map", []]}})
    until("the convergence has ended", lambda: not agent.get("/output/clientView/convergenceInProgress"))
    until("what is stale is gone", lambda: agent.get("/output/convergenceStatus") == {
        "unicastDeferredDeletionInProgress": False, "bumDeferredDeletionInProgress": False})
    until("the agent follows", agent.following)
    output = recorded.dump(agent)
    check(len(output["l2Rib"]["hosts"]["10"]) == 1980, "20 hosts have left the VLAN")
    agent.stop()
    played = replay(rig, rig.text("journal") + '{"dump":true}\n')
    check(recorded.timeless(json.loads(played)) == recorded.timeless(output), "the replay says what the agent said")


def scenario_a_huge_patch_does_what_it_does_in_one_piece(rig):
    """The agent carries it out in slices; a replay in one. Others are answered meanwhile, and have to wait with patches."""
    before = {"vtiStatus": {"Vxlan1": {"controllerClientMode": True, "localVtepAddr": "10.0.0.1"}},
              "vlanVniMap": {"Vxlan1": {str(10 + number): 5010 + number for number in range(6)}},
              "controller": {"fdb": {"5010": _hosts(0, 6000, 2), "5011": _hosts(0, 50, 2), "5012": "announced",
                                     "5013": _hosts(0, 3000, 2)}}}
    gone = {mac(number): None for number in range(0, 6000, 3)}
    patch = {"vtiStatus": {"Vxlan2": {}},
             "controller": {"fdb": {"5010": {"macVtepTable": _hosts(0, 9000, 3)["macVtepTable"] | gone,
                                             "macVtepFloodListTable": {"00:00:00:00:00:00": {"10.0.0.3": True}}},
                                    "5011": _hosts(20, 70, 4), "5012": _hosts(0, 3000, 5), "5013": None,
                                    "5014": _hosts(0, 2000, 6), "50150": _hosts(0, 10, 7)}}}
    agent = Agent(rig).start()
    check(agent.ask({"patch": before}) == {"ok": True}, "the agent takes what comes before")
    wrong = {"controller": {"fdb": {**patch["controller"]["fdb"], "50160": {"macVtepTable": {mac(1): {"vtepIp": "x"}}}}}}
    known = agent.get("/input")
    check("/controller/fdb/50160/macVtepTable" in agent.ask({"patch": wrong})["error"]["pointer"], "a wrong one is refused")
    check(agent.get("/input") == known, "and changes nothing")

    huge, other = Lines(agent.socket), Lines(agent.socket)
    huge.say({"patch": patch})
    other.say({"patch": {"vtiStatus": {"Vxlan3": {}}}})
    check(huge.hear() == {"ok": True} and other.hear() == {"ok": True}, "both are carried out")
    lines = [{"patch": before}, {"patch": patch}, {"patch": {"vtiStatus": {"Vxlan3": {}}}}, {"dump": True}]
    played = replay(rig, "".join(json.dumps(line) + "\n" for line in lines))
    check(recorded.timeless(recorded.dump(agent)) == recorded.timeless(json.loads(played)), "the replay says the same")
    huge.close()
    other.close()


def _hosts(first, last, vtep):
    return {"macVtepTable": {mac(number): {"vtepIp": f"10.0.0.{vtep}"} for number in range(first, last)}}


def scenario_the_kept_recording_replays_as_ever(rig):
    """One that was recorded long ago: every byte of the output is as it was, the times of virtual time included."""
    with open(recorded.JOURNAL, encoding="utf-8") as journal, open(recorded.OUTPUT, encoding="utf-8") as output:
        check(replay(rig, journal.read()) == output.read(), "the replay prints what it printed then")
