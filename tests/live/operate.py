"""What an operator does with a running agent."""

from database import Published, Server, behind, mac
from rig import Agent, Reader, check, until

FEW = [mac(number) for number in range(1, 101)]


def _following(rig):
    database = Server(rig).start()
    controller = Published(database.session())
    controller.hosts(10, behind(FEW, ["10.0.0.2", "10.0.0.3"]))
    controller.flood(10, "10.0.0.2")
    agent = Agent(rig).follows(database.remote).start()
    until("the agent follows", agent.following)
    return controller, agent


def scenario_a_flushed_switch_is_out_of_service_until_the_next_start(rig):
    controller, agent = _following(rig)
    reader = Reader(rig)
    until("the reader sees them all", lambda: len(reader.vteps()) == len(FEW))

    answer = agent.ask({"call": "flush"})
    check(answer["value"] == {"hosts": 100, "floodSets": 1}, f"flush tells what it removed: {answer}")
    until("the reader sees none", lambda: not reader.vteps())
    check(agent.get("/output/l2Rib") == {"hosts": {}, "floodSets": {}}, "nothing is left")

    controller.hosts(10, behind([mac(200)], ["10.0.0.2"]))
    until("the agent has read the new row", lambda: agent.database()["rows"]["Ucast_Macs_Remote"] == 101)
    check(agent.get("/output/l2Rib") == {"hosts": {}, "floodSets": {}}, "what is published stays out")
    check(agent.get("/agent/outOfService"), "the agent says so")
    told = agent.ask({"call": "explain", "params": {"mac": mac(200), "vlan": 10}})["value"]
    check("out of service" in told["verdict"], f"explain says so: {told}")

    agent.stop()
    agent.start()
    until("the agent follows", agent.following)
    until("all are back", lambda: len(reader.vteps()) == 101)


def scenario_explain_follows_a_mac_from_its_row(rig):
    _, agent = _following(rig)
    told = agent.ask({"call": "explain", "params": {"mac": FEW[0], "vlan": 10}})["value"]
    check(told["published"] and told["verdict"] == "the host forwards", f"{told}")
    row = told["steps"][0]
    check(row["step"] == "controller database" and row["ok"] is True, f"{row}")
    check(row["detail"].endswith("behind 10.0.0.2 counts; published"), f"the row in words: {row}")
    check(row["account"]["logicalSwitches"][0]["unicast"]["published"] is not None, "and as members")


def scenario_what_the_database_owns_cannot_be_patched(rig):
    """From the start on, also before the database has been reached."""
    agent = Agent(rig).follows("unix:" + rig.path("nobody.sock")).start()
    for patch, pointer in (({"vtiStatus": {"Vxlan1": {"controllerClientMode": False}}}, "/vtiStatus/Vxlan1/controllerClientMode"),
                           ({"vtiStatus": {"Vxlan0": {}}}, "/vtiStatus/Vxlan0"),
                           ({"vlanVniMap": {"Vxlan0": {"20": 2}}}, "/vlanVniMap/Vxlan0/20"),
                           ({"vlanVniMap": None}, "/vlanVniMap"),
                           ({"controller": {"state": {"mine": {}}}}, "/controller/state/mine"),
                           ({"controller": {"state": None}}, "/controller/state"),
                           ({"controller": {"fdb": {"1": "announced"}}}, "/controller/fdb/1"),
                           ({"hardware": {"bumStatus": {"bumReplicationMode": 0}}}, "/hardware/bumStatus/bumReplicationMode")):
        answer = agent.ask({"patch": patch})
        check(answer.get("error") == {"kind": "refused", "pointer": pointer, "reason": "owned by ovsdb"}, f"{patch}: {answer}")
    check(agent.ask({"patch": {"mlag": {"mlagState": 1}}}) == {"ok": True}, "the rest may be")


def scenario_vtis_that_do_not_map_the_same_vnis_are_refused(rig):
    """What would end the agent at the next convergence."""
    agent = Agent(rig).start()
    given = {"vtiStatus": {"Vxlan1": {"controllerClientMode": True}}, "hardware": {"bumStatus": {"bumReplicationMode": 3}},
             "vlanVniMap": {"Vxlan1": {"10": 1}},
             "controller": {"state": {"s": {}}, "fdb": {"1": {"macVtepFloodListTable": {"ff:ff:ff:ff:ff:ff": {"10.0.0.1": True}}}}}}
    check(agent.ask({"patch": given}) == {"ok": True}, "one VTI")
    answer = agent.ask({"patch": {"vlanVniMap": {"Vxlan0": {"20": 2}}}})
    check(answer["error"] == {
        "kind": "refused", "pointer": "/vlanVniMap",
        "reason": "VTI Vxlan0 lacks VNI 1; VTI Vxlan1 lacks VNI 2: VTIs that map anything map the same VNIs"}, f"{answer}")
    check(agent.ask({"patch": {"vlanVniMap": {"Vxlan0": {}}}}) == {"ok": True}, "a map of nothing")
    more = {"controller": {"fdb": {"1": {"macVtepFloodListTable": {"ff:ff:ff:ff:ff:ff": {"10.0.0.2": True}}}}}}
    check(agent.ask({"patch": more}) == {"ok": True}, "the flood list grows")
    for converging in (True, False):
        flag = {"controller": {"state": {"s": {"convergenceInProgress": converging}}}}
        check(agent.ask({"patch": flag}) == {"ok": True}, "a convergence")
    until("it is over", lambda: not agent.get("/output/convergenceStatus/bumDeferredDeletionInProgress"))
    check(agent.get("/output/l2Rib/floodSets/10/ff:ff:ff:ff:ff:ff/dests") == ["10.0.0.1", "10.0.0.2"], "it has grown")
