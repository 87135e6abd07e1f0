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
