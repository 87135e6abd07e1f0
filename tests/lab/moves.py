"""A host moves while another pings it every 5 ms. It stands behind two leaves at once, so that what is lost is lost on the
way."""

import itertools
import re
import time

from bed import Bed, Ping, Twin, Wire, address, vtep
from rig import check, until


def scenario_a_hundred_moves_lose_only_what_went_to_the_old_place(rig):
    bed = Bed(rig)
    twin = Twin(bed, "h2a", "h3a")
    bed.controller.withdraw("h3a")
    until("leaf 1 does not know h3a", lambda: bed.leaves[1].leads("h3a"))
    wire = Wire(bed, 1)
    ping = Ping(bed, "h1a", "h2a")
    words = []  # of the controller: when, from where, to where
    for move in range(100):
        old, new = (2, 3) if move % 2 == 0 else (3, 2)
        twin.appears(new)
        until("the new leaf has it at its port", lambda new=new: bed.leaves[new].at_port("h2a"))
        words.append((time.time(), old, new))
        bed.controller.move("h2a", new)
        for leaf in (1, old):
            until(f"leaf {leaf} follows", lambda leaf=leaf, new=new: bed.leaves[leaf].leads("h2a", new))
        ping.goes_through()
    ping.stop()
    wire.stop()
    check(not ping.doubled, f"doubled: {ping.doubled}")
    sent = requests(wire, "h2a")
    check(sent.keys() >= set(ping.answers), "tcpdump has missed some")
    ways = [vtep(2), *(vtep(new) for _, _, new in words)]
    check(turns(sent) == ways, lambda: f"the ways of the packets: {turns(sent)}")
    # A packet may be lost while the controller's word is on its way to leaf 1 and the old leaf has heard it.
    for number in ping.lost:
        when, where = sent[number]
        said = [word for word in words if word[0] <= when]
        check(said and where == vtep(said[-1][1]),
              lambda number=number, where=where, said=said: f"packet {number}, sent to {where}, was lost after {said[-1:]}")
    print(f"lost, all of them sent to the old place: {len(ping.lost)} in {len(words)} moves")


def requests(wire, host):
    """Sequence number to when each request for the host was sent, and to which VTEP."""
    pattern = re.compile(re.escape(f"> {address(host)}: ICMP echo request") + r".* seq (\d+)")
    return {int(found[1]): (when, where) for when, where, _, inside in wire.packets if (found := pattern.search(inside))}


def turns(sent):
    """The VTEPs that packets were sent to, as time goes by."""
    return [where for where, _ in itertools.groupby(where for _, where in sorted(sent.values()))]
