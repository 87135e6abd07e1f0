"""What a switch's traffic is not to notice: that its agent, the database or the controller goes and comes back."""

from database import Chain
from bed import FLOOD, Bed, Ping
from rig import check, until


class Traffic:
    """Pings by a row of their own, and such as are flooded because nobody says where h3a is."""

    def __init__(self, bed):
        bed.controller.withdraw("h3a")
        until("leaf 1 does not know h3a", lambda: bed.leaves[1].leads("h3a"))
        self.pings = [Ping(bed, "h1a", "h2a"), Ping(bed, "h1a", "h3a")]

    def goes_on(self):
        for ping in self.pings:
            ping.goes_through()

    def lost_nothing(self):
        for ping in self.pings:
            ping.lost_nothing()


def restart(bed, leaf, meanwhile=lambda: None):
    bed.leaves[leaf].kill()
    meanwhile()
    bed.leaves[leaf].start()
    until(f"leaf {leaf} has settled", bed.leaves[leaf].settled)


def scenario_the_agents_are_killed_five_times(rig):
    bed = Bed(rig)
    traffic = Traffic(bed)
    for number in range(5):
        restart(bed, 1 + number % 3)
        traffic.goes_on()
    traffic.lost_nothing()


def scenario_what_changed_while_the_agent_was_dead_is_made_up_for(rig):
    bed = Bed(rig)
    traffic = Traffic(bed)
    gone = bed.leaves[1].rows("vx5020")

    def meanwhile():
        bed.controller.withdraw("h2b")
        bed.controller.move("h3b", 2)

    restart(bed, 1, meanwhile)
    until("h2b is gone", lambda: bed.leaves[1].leads("h2b", vni=5020))
    until("h3b is elsewhere", lambda: bed.leaves[1].leads("h3b", 2, vni=5020))
    check(bed.leaves[1].leads(FLOOD, 2, 3, vni=5020), lambda: f"the floods were {gone} and are others")
    traffic.lost_nothing()


def scenario_the_agent_is_stopped_and_started(rig):
    bed = Bed(rig)
    traffic = Traffic(bed)
    bed.leaves[1].stop()
    traffic.goes_on()
    bed.leaves[1].start()
    until("leaf 1 has settled", bed.leaves[1].settled)
    traffic.lost_nothing()


def scenario_the_database_is_killed_and_started_again(rig):
    bed = Bed(rig)
    traffic = Traffic(bed)
    for _ in range(2):
        bed.lab("database", "kill")
        for leaf in bed.leaves.values():
            until(f"leaf {leaf.number} has lost it", lambda leaf=leaf: leaf.database()["session"] != "following")
        traffic.goes_on()
        bed.lab("database", "start")
        bed.settle()
        traffic.goes_on()
    traffic.lost_nothing()


def scenario_a_vni_is_renumbered(rig):
    bed = Bed(rig)
    traffic = Traffic(bed)
    bed.controller.change(10, tunnel_key=6010)
    for leaf in bed.leaves.values():
        until(f"leaf {leaf.number} has the new device alone", lambda leaf=leaf: leaf.devices() == {
            "vxb10", "vxb20", "vx5020", "vx6010"})
    bed.settle()
    check(bed.leaves[1].leads("h2a", 2, vni=6010), "leaf 1 does not lead to h2a with the new VNI")
    traffic.lost_nothing()


def scenario_a_controller_chain_is_stopped_and_started(rig):
    """Leaf 1 follows a controller that takes back all that it has published before it ends."""
    chain = Chain(rig)
    for leaf in (2, 3):
        chain.hypervisor(f"hv{leaf}", f"10.0.0.{leaf}")
        chain.port(f"h{leaf}a", f"02:00:00:00:10:0{leaf}", f"hv{leaf}")
    chain.start_controller()
    bed = Bed(rig)
    key = until("the controller gives the VNI", chain.tunnel_key)
    bed.controller.change(10, tunnel_key=key)
    bed.leaves[1].stop()
    bed.leaves[1].follows_instead(chain.remote)
    bed.leaves[1].start()
    for host, leaf in (("h2a", 2), ("h3a", 3)):
        until(f"leaf 1 knows {host}", lambda host=host, leaf=leaf: bed.leaves[1].leads(host, leaf, vni=key))
    bed.settle()
    pings = [Ping(bed, "h1a", "h2a"), Ping(bed, "h1a", "h3a")]
    for _ in range(2):
        chain.stop_controller()
        for ping in pings:
            ping.goes_through(100)
        chain.start_controller()
        until("the controller has published again", lambda: chain.tunnel_key() == key)
        until("leaf 1 has settled", bed.leaves[1].settled)
        for ping in pings:
            ping.goes_through()
    for ping in pings:
        ping.lost_nothing()
