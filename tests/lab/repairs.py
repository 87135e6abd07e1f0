"""Others change the kernel behind the agent's back: what is the agent's is put back, what is not is left alone."""

from bed import FLOOD, Bed, mac
from rig import check, until

STRANGER = "02:ff:00:00:00:01"
STRANGER_AT_PORT = "02:ff:00:00:00:02"


def all_is_there(leaf):
    return leaf.leads("h2a", 2) and leaf.leads("h3a", 3) and leaf.leads(FLOOD, 2, 3) and leaf.settled()


def scenario_what_others_delete_comes_back(rig):
    bed = Bed(rig)
    leaf = bed.leaves[1]
    row = f"bridge fdb del {mac('h2a')} dev vx5010"
    for command in (f"{row} self", f"{row} master", f"bridge fdb del {FLOOD} dev vx5010 dst 10.0.0.3 self",
                    "ip nexthop flush", "ip link set vx5010 down", "ip link set t0 nomaster", "ip link set vx5010 nomaster",
                    "ip link del vx5010", "ip link del vxb10"):
        repairs = leaf.get("/agent/kernelStatus/counters/repairs")
        leaf.change(command)
        until(f"after '{command}' all is there again", lambda: all_is_there(leaf))
        check(bed.reaches("h1a", "h2a") and bed.reaches("h1a", "h3a"), f"nobody is reached after '{command}'")
        print(f"{command}: {leaf.get('/agent/kernelStatus/counters/repairs') - repairs} repairs")


def scenario_a_renamed_bridge_and_learning_at_a_port(rig):
    bed = Bed(rig)
    leaf = bed.leaves[1]
    leaf.change("ip link set vxb10 name elsewhere")
    until("all is there", lambda: all_is_there(leaf))
    check(bed.reaches("h1a", "h2a") and bed.reaches("h1a", "h3a"), "nobody is reached by the renamed bridge")
    check("vxb10" not in leaf.devices(), "there is a second bridge")
    leaf.change("bridge link set dev vx5010 learning on")
    until("it does not learn any more",
          lambda: leaf.kernel("bridge -d link show dev vx5010")[0]["learning"] is False and all_is_there(leaf))


def scenario_what_others_turn_elsewhere_is_turned_back(rig):
    bed = Bed(rig)
    leaf = bed.leaves[1]
    leaf.change(f"bridge fdb replace {mac('h2a')} dev t0 master static")
    until("the bridge's row leads out again", lambda: not leaf.at_port("h2a"))
    groups = [one for one in leaf.kernel("ip nexthop show") if "group" in one]
    group = next(row["nhid"] for row in leaf.kernel("bridge fdb show dev vx5010")
                 if row["mac"] == mac("h2a") and "nhid" in row)
    other = next(one["group"][0]["id"] for one in groups if one["id"] != group)
    leaf.change(f"ip nexthop replace id {group} group {other} fdb")
    until("the group leads to leaf 2 again", lambda: all_is_there(leaf))
    check(bed.reaches("h1a", "h2a"), "h2a is not reached")


def scenario_what_is_others_stays(rig):
    bed = Bed(rig)
    leaf = bed.leaves[1]
    leaf.change(f"bridge fdb add {STRANGER} dev vx5010 dst 10.0.0.9 self static")
    leaf.change(f"bridge fdb append {FLOOD} dev vx5010 dst 10.0.0.9 self static")
    leaf.change(f"bridge fdb add {STRANGER_AT_PORT} dev t0 master static")
    leaf.change("ip nexthop add id 7 via 10.0.0.9 fdb")

    def untouched(when):
        rows = leaf.rows("vx5010")
        check(rows.get(STRANGER) == {"10.0.0.9"}, lambda: f"{when}: the unicast row is not there: {rows}")
        check("10.0.0.9" in rows[FLOOD], lambda: f"{when}: the flood row is not there: {rows}")
        check(any(row["mac"] == STRANGER_AT_PORT for row in leaf.kernel("bridge fdb show br vxb10")),
              f"{when}: the bridge's row is not there")
        check(any(one["id"] == 7 for one in leaf.kernel("ip nexthop show")), f"{when}: the nexthop is not there")

    bed.controller.move("h3a", 2)
    until("leaf 1 follows", lambda: leaf.leads("h3a", 2))
    untouched("after a move")
    leaf.kill()
    leaf.start()
    until("leaf 1 has settled", leaf.settled)
    untouched("after a restart")
    bed.lab("db", "del-mcast-remote", "ls10", "unknown-dst", "10.0.0.3")
    until("leaf 1 floods to leaf 2 alone", lambda: leaf.rows("vx5010")[FLOOD] == {"10.0.0.2", "10.0.0.9"})
    untouched("after a change of the floods")
