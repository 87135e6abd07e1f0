"""Kernels that lack something: the agent says what, in words that a reader understands, and does what can be done."""

import os

from bed import FLOOD, Bed
from rig import Skip, check, until


def given_a_kernel_without(rig, what):
    library = os.environ.get("LAB_LACKS_LIBRARY")
    if not library:
        raise Skip("there is no library to stand between the agent and the kernel (LAB_LACKS_LIBRARY)")
    return Bed(rig, {"LD_PRELOAD": library, "LAB_LACKS": what}, settled=False)


def says(leaf, *texts):
    until(f"leaf {leaf.number} says it", lambda: leaf.answers() and all(text in leaf.problems() for text in texts))


def scenario_no_nexthop_objects(rig):
    bed = given_a_kernel_without(rig, "nexthops")
    says(bed.leaves[1], "the kernel has no nexthop objects", "rows lead to addresses")
    bed.settle()
    check(bed.reaches("h1a", "h2a"), "h2a is not reached")
    bed.controller.move("h3a", 2)
    until("leaf 1 follows", lambda: bed.leaves[1].leads("h3a", 2))
    bed.controller.change(10, replication_mode="service_node")
    until("of a set of type any the first is used", lambda: bed.leaves[1].leads(FLOOD, 2))


def scenario_no_nexthops_for_rows(rig):
    bed = given_a_kernel_without(rig, "nexthops for rows")
    says(bed.leaves[1], "the kernel has no nexthop groups for forwarding rows", "rows lead to addresses")
    bed.settle()
    check(bed.reaches("h1a", "h2a"), "h2a is not reached")


def scenario_no_vxlan_devices(rig):
    bed = given_a_kernel_without(rig, "vxlan")
    says(bed.leaves[1], "VLAN 10", "VLAN 20", "the kernel has no VXLAN devices")


def scenario_no_bridges(rig):
    bed = given_a_kernel_without(rig, "bridge")
    says(bed.leaves[1], "VLAN 10", "VLAN 20", "the kernel has no bridges")
