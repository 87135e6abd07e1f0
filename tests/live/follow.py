"""The agent below a database that dies and comes back. Another process reads the host table all the while; no host that
is published before and after may ever be missing."""

from database import Chain, Cluster, Published, Server, behind, mac, published
from rig import Agent, Reader, check, until

FEW = [mac(number) for number in range(1, 301)]
VTEPS = ["10.0.0.2", "10.0.0.3", "10.0.0.4"]


def scenario_a_database_is_killed_and_started_again(rig):
    database = Server(rig).start()
    controller = Published(database.session(), vlans=(10, 20))
    controller.hosts(10, behind(FEW, VTEPS))
    controller.hosts(20, behind(FEW, VTEPS))
    controller.flood(10, "10.0.0.2")
    agent = Agent(rig).follows(database.remote).start()
    until("the agent follows", agent.following)
    reader = Reader(rig)
    before = published(database.session())
    until("the reader sees them all", lambda: reader.vteps() == before)
    reader.marks()

    database.kill()
    until("the agent has lost the database", lambda: agent.database()["session"] != "following")
    check(reader.vteps() == before, "hosts stay while the database is away")
    check(database.remote in agent.problems(), "what is wrong with the session is a problem")

    database.start()
    _again(controller, database).hosts(10, {mac(1000): "10.0.0.3"})
    reader.sees(10, mac(1000))
    until("the agent follows again", agent.following)
    reader.never_missed(before)
    check(reader.vteps() == published(database.session()), "the table is what the database publishes")
    check(agent.get("/output/l2Rib/floodSets/10/00:00:00:00:00:00/dests") == ["10.0.0.2"], "the flood list is there")
    check(agent.problems().count("\n") == 1, lambda: f"nothing is wrong any more: {agent.problems()}")


def scenario_a_database_comes_back_without_some_hosts(rig):
    """Those that are gone go, and no others."""
    database = Server(rig).start()
    controller = Published(database.session())
    controller.hosts(10, behind(FEW, VTEPS))
    agent = Agent(rig).follows(database.remote).start()
    until("the agent follows", agent.following)
    reader = Reader(rig)
    before = published(database.session())
    until("the reader sees them all", lambda: reader.vteps() == before)
    reader.marks()
    database.kill()
    aside = Server(rig, "aside", create=False)  # the same rows, where the agent does not see them change
    aside.file = database.file
    _again(controller, aside.start())
    for address in FEW[:20]:
        controller.withdraw(10, address)
    aside.kill()
    until("the agent has lost the database", lambda: agent.database()["session"] != "following")
    database.start()
    after = published(database.session())
    until("the table is what the database publishes", lambda: reader.vteps() == after)
    check(reader.gone == {(10, address) for address in FEW[:20]}, lambda: f"20 hosts were away: {sorted(reader.gone)}")
    reader.never_missed(after)


def scenario_the_leader_of_a_cluster_is_killed(rig):
    cluster = Cluster(rig)
    leader = cluster.leader()
    controller = Published(leader.session())
    controller.hosts(10, behind(FEW, VTEPS))
    remotes = sorted(cluster.remotes(), key=lambda remote: remote != leader.remote)
    agent = Agent(rig).follows(*remotes).start()
    until("the agent follows", agent.following)
    check(agent.database()["remote"] == leader.remote, "the agent follows the leader")
    reader = Reader(rig)
    before = published(leader.session())
    until("the reader sees them all", lambda: reader.vteps() == before)
    reader.marks()

    leader.kill()
    _again(controller, cluster.leader()).hosts(10, {mac(1000): "10.0.0.3"})
    reader.sees(10, mac(1000))
    until("the agent follows again", agent.following)
    check(agent.database()["remote"] != leader.remote, "the agent follows another member")
    check(agent.database()["resumptions"] > 0, "it went on where it was")
    reader.never_missed(before)
    check(reader.vteps() == published(cluster.leader().session()), "the table is what the database publishes")


def scenario_a_controller_is_stopped_and_started_again(rig):
    """It takes back everything before it ends, and publishes it again."""
    chain = Chain(rig)
    macs = [mac(number) for number in range(0x1001, 0x1004)]
    for number, address in enumerate(macs):
        chain.port(f"vm{number}", f"{address} 192.168.10.{number + 1}")
    chain.start_controller()
    agent = Agent(rig).follows(chain.remote).start()
    reader = Reader(rig)
    for address in macs:
        check(reader.sees(10, address)["vtep0"] == "10.0.0.4", "the host is behind hv4")
    until("the agent follows", agent.following)
    reader.marks()
    flooded = agent.get("/output/l2Rib/floodSets/10")

    chain.stop_controller()
    session = chain.vtep.session()
    until("the database is wiped", lambda: not session.select("Ucast_Macs_Remote", "MAC"))
    until("the agent has seen it", lambda: agent.database()["rows"]["Ucast_Macs_Remote"] == 0)
    check(agent.get("/output/clientView/convergenceInProgress"), "the agent takes it for a convergence")
    check(agent.get("/output/l2Rib/floodSets/10") == flooded, "the flood list stays")
    check({key[1] for key in reader.vteps()} == set(macs), "the hosts stay")

    chain.start_controller()
    chain.port("vm9", f"{mac(0x1009)} 192.168.10.9")
    reader.sees(10, mac(0x1009))
    until("the agent follows again", agent.following)
    reader.never_missed({(10, address) for address in macs})
    check({key[1] for key in reader.vteps()} == {*macs, mac(0x1009)}, "the table is what the controller publishes")


def _again(controller, server):
    """The same controller, in a session with another server."""
    controller.session = server.session()
    return controller
