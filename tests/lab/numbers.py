"""Hosts by the thousand, from the database to the kernel."""

from bed import VLANS, Bed, vtep
from database import mac
from rig import until

HOSTS = 3000


def scenario_thousands_of_hosts_come_move_and_go(rig):
    bed = Bed(rig)
    leaf, controller = bed.leaves[1], bed.controller
    addresses = [mac(number) for number in range(1, HOSTS + 1)]

    def are_at(place):
        rows = leaf.rows("vx5010")
        return all(rows.get(address) == {vtep(place)} for address in addresses)

    switch, (place, _) = controller.switch(VLANS["a"]), controller.place(2)
    controller.session.transact(*({"op": "insert", "table": "Ucast_Macs_Remote", "row": {
        "MAC": address, "logical_switch": switch, "locator": place}} for address in addresses))
    until("all have come", lambda: are_at(2))
    place, _ = controller.place(3)
    for part in range(0, HOSTS, 500):
        controller.session.transact(*({"op": "update", "table": "Ucast_Macs_Remote", "where": [["MAC", "==", address]],
                                       "row": {"locator": place}} for address in addresses[part:part + 500]))
    until("all have moved", lambda: are_at(3))
    bed.settle()
    controller.session.transact({"op": "delete", "table": "Ucast_Macs_Remote", "where": []})
    until("all have gone", lambda: not leaf.rows("vx5010").keys() & set(addresses))
    bed.settle()
