"""Packets between the hosts of the test bed: who reaches whom, by which way, and how often."""

from bed import FLOOD, Bed, Mailbox, Wire, address, vtep
from rig import check, until

HOSTS = ("h1a", "h2a", "h3a", "h1b", "h2b", "h3b")


def same(found, wanted, what):
    check(found == wanted, f"{what}: {found} instead of {wanted}")


def scenario_hosts_of_a_vlan_reach_each_other(rig):
    bed = Bed(rig)
    for one in HOSTS:
        for other in HOSTS:
            if one != other and one[2] == other[2]:
                check(bed.reaches(one, other), f"{one} does not reach {other}")
    for leaf in bed.leaves.values():
        same(leaf.problems().splitlines()[1:], [], f"problems of leaf {leaf.number}")


def scenario_packets_go_to_the_right_vtep_with_the_right_vni(rig):
    bed = Bed(rig)
    wire = Wire(bed, 1)
    for host, leaf, vni in (("h2a", 2, 5010), ("h3a", 3, 5010), ("h2b", 2, 5020), ("h3b", 3, 5020)):
        check(bed.reaches("h1" + host[2], host), f"{host} is not reached")
        ways = until("the packets are on the wire", lambda host=host: wire.carried(f"> {address(host)}: ICMP echo request"))
        same(set(ways), {(vtep(leaf), vni)}, f"the way of packets for {host}")
    wire.stop()


def scenario_an_unknown_host_is_reached_by_flooding(rig):
    bed = Bed(rig)
    bed.controller.withdraw("h3a")
    until("leaf 1 does not know h3a", lambda: bed.leaves[1].leads("h3a"))
    wire = Wire(bed, 1)
    check(bed.reaches("h1a", "h3a"), "h3a is not reached")
    requests = until("the packets are on the wire", lambda: wire.carried(f"> {address('h3a')}: ICMP echo request"))
    same(set(requests), {(vtep(2), 5010), (vtep(3), 5010)}, "where the packets for it went")
    wire.stop()


def scenario_vlans_stay_apart(rig):
    bed = Bed(rig)
    boxes = {host: Mailbox(bed, host) for host in HOSTS}
    bed.run("h1b", "ip addr add 192.168.10.9/24 dev eth0")  # it may claim to be in the other's network
    check(not bed.reaches("h1b", "h2a"), "h1b reaches h2a")
    boxes["h1a"].shout("for VLAN 10")
    boxes["h1b"].shout("for VLAN 20")
    for host in ("h2a", "h3a"):
        same(boxes[host].until("for VLAN 10"), [], f"what {host} heard before")
    for host in ("h2b", "h3b"):
        same(boxes[host].until("for VLAN 20"), [], f"what {host} heard before")


def scenario_a_flood_reaches_each_vtep_exactly_once(rig):
    bed = Bed(rig)
    boxes = {host: Mailbox(bed, host) for host in ("h1a", "h2a", "h3a")}
    wire = Wire(bed, 1)
    for number in range(100):
        boxes["h1a"].shout(f"shout {number}")
    boxes["h1a"].shout("the end")
    wanted = [f"shout {number}" for number in range(100)]
    same(boxes["h2a"].until("the end"), wanted, "what h2a heard")
    same(boxes["h3a"].until("the end"), wanted, "what h3a heard")
    # Its own stack tells h1a what it shouts. A copy from the wire would have come before the answer.
    boxes["h2a"].shout("an answer")
    same(boxes["h1a"].until("an answer"), [*wanted, "the end"], "what h1a heard of itself")
    ways = until("all are on the wire", lambda: len(found := wire.carried("> 192.168.10.255.")) >= 202 and found)
    same(sorted(ways), sorted([(vtep(2), 5010), (vtep(3), 5010)] * 101), "the ways of the broadcasts")
    wire.stop()


def scenario_a_flood_to_any_reaches_exactly_one(rig):
    bed = Bed(rig)
    for host in ("h2a", "h3a"):
        check(bed.reaches("h1a", host), f"{host} is not reached")
    bed.controller.change(10, replication_mode="service_node")
    until("leaf 1 floods to a group", lambda: any(
        row["mac"] == FLOOD and "nhid" in row for row in bed.leaves[1].kernel("bridge fdb show dev vx5010")))
    check(bed.leaves[1].leads(FLOOD, 2, 3), "leaf 1 floods to another group")
    ears = {host: Mailbox(bed, host) for host in ("h2a", "h3a")}
    wanted = [f"shout {number}" for number in range(40)]
    for text in wanted:
        mouth = Mailbox(bed, "h1a", port=0)  # a flow of its own
        mouth.shout(text)
    heard = {}
    for host, ear in ears.items():
        mouth.tell(host, "the end")
        heard[host] = ear.until("the end")
    same(sorted(heard["h2a"] + heard["h3a"]), sorted(wanted), "what was heard by one or the other")
    check(all(heard.values()), f"all flows went to one VTEP: {heard}")
