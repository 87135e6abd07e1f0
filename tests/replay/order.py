#!/usr/bin/env python3
"""The single changes that a patch is carried out as, and their order, as the handlers of the client see them.

order.py AGENT
"""
import json
import os
import re
import subprocess
import sys
import unittest

AGENT = sys.argv.pop(1)
# The text of the trace for a change, and its name here; the content of the parentheses is put behind the name.
MARKS = {
    "vti": r"::handleControllerClientMode\(\)()",
    "map": r"VtiVlanVniMapSm::handleVlanVniMapUpdate\(.* vlanId (\d+)$",
    "vti map": r"handleVlanVniMapVti\(Qnet::IntfId\)  intf: (\S+)$",
    "list": r"\(Vxlan::MacVlanPair\) handleBumVtepList ([0-9a-f:]+)$",
    "peer mode": r"RmxMlagBumStatusSmBase::handleBumReplicationMode\(\) handleBumReplicationModeinited()",
    "mlag": r"handleMlagState\(\)  (\d+)$",
    "own mode": r"VxlanControllerClientSm::handleBumReplicationMode\(\)  init()",
    "state": r"handleRmxStateBaseDir\(Kel::Name\) handleRmxStateBaseDir entry subdir (added|deleted)",
    "vni": r"handleControllerVniBaseDir\(Kel::Name\)  name (\d+)$",
    "host": r"RmxPerVniFdbStatusSmBase::handleRmxHostTable\(Qnet::EthAddr\) macAddr: (\S+)",
    "multipath": r"VccPerVniFdbStatusSm::handleMacVtepMultiPathTable\(Qnet::EthAddr\)  init()",
    "flood list": r"handleMacVtepFloodListTable\(Qnet::EthAddr\)  mac (\S+)$",
    "flood": r"VccMacVtepFloodListTableSm::handleVtepIpFloodList\(Qnet::IpAddr\).*?(\d+\.\d+\.\d+\.\d+)",
}
BASE = {"vtiStatus": {"Vxlan1": {"controllerClientMode": True, "localVtepAddr": "10.0.0.1"}},
        "vlanVniMap": {"Vxlan1": {"9": 5009, "10": 5010, "100": 5100}}, "mlag": {"mlagState": 4},
        "hardware": {"bumStatus": {"bumReplicationMode": 3}}}


def mac(number):
    return f"02:00:00:00:00:{number:02x}"


def trace(*patches):
    text = "".join(json.dumps({"patch": patch}) + "\n" for patch in patches)
    run = subprocess.run([AGENT, "replay", "-"], input=text, capture_output=True, text=True, check=False,
                         env={**os.environ, "KEL_TRACE": "VxlanController=8"})
    assert run.returncode == 0, run.stderr
    return run.stderr.splitlines()[:-1]


def changes(before, patch, *kinds):
    """What a patch sets off after the patches before it, of these kinds."""
    seen = []
    for line in trace(*before, patch)[len(trace(*before)):]:
        for kind in kinds:
            found = re.search(MARKS[kind], line)
            if found:
                seen.append(f"{kind} {found.group(1)}".rstrip())
    return seen


class Order(unittest.TestCase):
    def test_the_sections_come_in_order(self):
        patch = {"controller": {"fdb": {"5009": {}}, "state": {"s": {}}}, "hardware": {"bumStatus": {"bumReplicationMode": 0}},
                 "mlag": {"mlagState": 5, "bumStatus": {"bumReplicationMode": 3, "bumVtepList": {"10": {mac(1): {}}}}},
                 "vlanVniMap": {"Vxlan1": {"100": None}}, "vtiStatus": {"Vxlan2": {}}}
        self.assertEqual(changes([BASE], patch, "vti", "map", "list", "own mode", "state"),
                         ["vti", "map 100", f"list {mac(1)}:10", "own mode", "state added"])
        self.assertEqual(changes([BASE], patch, "state", "vni")[-2:], ["state added", "vni 5009"])
        # A VTI's change looks at the state of the pair, too.
        del patch["vtiStatus"]
        self.assertEqual(changes([BASE], patch, "list", "peer mode", "mlag", "own mode"),
                         [f"list {mac(1)}:10", "peer mode", "mlag 5", "own mode"])

    def test_removals_come_before_settings_and_keys_by_value(self):
        patch = {"vlanVniMap": {"Vxlan1": {"100": None, "9": None, "20": 5020, "3": 5003, "10": 5011}}}
        self.assertEqual(changes([BASE], patch, "map"), [f"map {vlan}" for vlan in (9, 10, 100, 3, 10, 20)],
                         "a VLAN that gets another VNI is removed and set")
        vnis = {"controller": {"fdb": {"100": {}, "9": "announced", "7": "announced"}}}
        self.assertEqual(changes([BASE, vnis], {"controller": {"fdb": {"100": None, "9": None, "8": "announced", "10": {}}}}, "vni"),
                         ["vni 9", "vni 100", "vni 8", "vni 10"])
        self.assertEqual(changes([BASE, vnis], {"controller": {"fdb": None}}, "vni"), ["vni 7", "vni 9", "vni 100"])
        lists = {"mlag": {"bumStatus": {"bumVtepList": {"100": {mac(1): {}}, "9": {mac(2): {}, mac(1): {}}, "10": {mac(1): {}}}}}}
        patch = {"mlag": {"bumStatus": {"bumVtepList": {"100": None, "10": {mac(2): {}, mac(3): {}, mac(1): None}, "9": None}}}}
        self.assertEqual(changes([BASE, lists], patch, "list"), [
            f"list {mac(1)}:9", f"list {mac(2)}:9", f"list {mac(1)}:100", f"list {mac(1)}:10", f"list {mac(2)}:10", f"list {mac(3)}:10"])

    def test_all_removals_of_all_vtis_come_first(self):
        two = {"vlanVniMap": {"Vxlan2": {"30": 5030, "4": 5004}}}
        self.assertEqual(changes([BASE, two], {"vlanVniMap": {"Vxlan1": {"11": 5011}, "Vxlan2": {"30": None}}}, "map"),
                         ["map 30", "map 11"])
        self.assertEqual(changes([BASE, two], {"vlanVniMap": {"Vxlan1": {"9": None}, "Vxlan2": None}}, "map", "vti map"),
                         ["map 4", "map 30", "vti map Vxlan2", "map 9"], "first each of its VLANs, then the map")
        self.assertEqual(changes([BASE, two], {"vlanVniMap": {"Vxlan1": {"10": None}, "Vxlan2": {"10": 5010}}}, "map"),
                         ["map 10", "map 10"], "a VLAN may move from a VTI to another")

    def test_the_tables_of_a_vni_come_in_order(self):
        before = {"controller": {"fdb": {"5010": {
            "macVtepTable": {mac(9): {"vtepIp": "10.0.0.2"}, mac(5): {"vtepIp": "10.0.0.2"}},
            "macVtepFloodListTable": {mac(9): {"10.0.0.11": True}, mac(8): {}}, "macVtepMultiPathTable": {mac(7): {"10.0.0.2": True}}}}}}
        patch = {"controller": {"fdb": {"5010": {
            "macVtepFloodListTable": {mac(9): {"10.0.0.9": True, "10.0.0.10": True, "10.0.0.11": None}, mac(8): None, mac(2): {}},
            "macVtepMultiPathTable": {mac(7): None},
            "macVtepTable": {mac(9): None, mac(5): None, mac(6): {"vtepIp": "10.0.0.3"}, mac(1): {"vtepIp": "10.0.0.3"}}}}}}
        self.assertEqual(changes([BASE, before], patch, "host", "multipath", "flood list", "flood"), [
            f"host {mac(5)}", f"host {mac(9)}", f"host {mac(1)}", f"host {mac(6)}", "multipath", f"flood list {mac(8)}",
            f"flood list {mac(2)}", "flood 10.0.0.11", "flood 10.0.0.10", "flood 10.0.0.9"], "addresses by their text")

    def test_a_host_is_replaced_as_one_change(self):
        host = lambda **members: {"controller": {"fdb": {"5010": {"macVtepTable": {mac(1): members}}}}}
        before = [BASE, host(vtepIp="10.0.0.2", moveCount=1)]
        self.assertEqual(changes(before, host(vtepIp="10.0.0.3", moveCount=2, hostAttr=3), "host"), [f"host {mac(1)}"])
        self.assertEqual(changes(before, host(vtepIp="10.0.0.2", hostAttr=None), "host"), [], "it is that already")
        paths = lambda **vteps: {"controller": {"fdb": {"5010": {"macVtepMultiPathTable": {mac(1): vteps}}}}}
        self.assertEqual(changes([BASE, paths(**{"10.0.0.2": True})], paths(**{"10.0.0.2": None, "10.0.0.3": True, "10.0.0.4": True}),
                                 "multipath"), ["multipath"])
        there = {"controller": {"fdb": {"5010": {}}}}
        gone = {"controller": {"fdb": {"5010": {"macVtepMultiPathTable": {mac(1): None}}}}}
        self.assertEqual(changes([BASE, there], paths(), "multipath"), ["multipath"], "also without an address")
        self.assertEqual(changes([BASE, there, paths()], gone, "multipath"), ["multipath"])

    def test_what_is_already_as_asked_changes_nothing(self):
        everything = {**BASE, "controller": {"state": {"s": {"convergenceInProgress": True}}, "fdb": {"5009": "announced", "5010": {
            "macVtepTable": {mac(1): {"vtepIp": "10.0.0.2"}}, "macVtepFloodListTable": {mac(1): {"10.0.0.2": True}},
            "macVtepMultiPathTable": {mac(2): {"10.0.0.2": True}}}}}}
        self.assertEqual(trace(everything, everything)[len(trace(everything)):], [])
        nothing = {"vtiStatus": {"Vxlan7": None}, "vlanVniMap": {"Vxlan7": None, "Vxlan1": {"7": None}},
                   "mlag": {"vtepAddr": {"x": None}, "bumStatus": {"bumVtepList": {"7": None, "9": {mac(1): None}}}},
                   "controller": {"state": {"x": None}, "fdb": {"7": None, "5010": {"macVtepTable": {mac(7): None}}}}}
        self.assertEqual(trace(everything, nothing)[len(trace(everything)):], [])

    def test_what_is_new_is_filled_before_it_is_entered(self):
        vni = {"controller": {"fdb": {"5010": {"macVtepTable": {mac(1): {"vtepIp": "10.0.0.2"}},
                                              "macVtepFloodListTable": {mac(1): {"10.0.0.2": True, "10.0.0.3": True}}}}}}
        self.assertEqual(changes([BASE], vni, "vni", "host", "flood list", "flood"),
                         ["vni 5010", f"host {mac(1)}", f"flood list {mac(1)}"])
        announced = {"controller": {"fdb": {"5010": "announced"}}}
        self.assertEqual(changes([BASE, announced], vni, "vni", "host"), ["vni 5010", f"host {mac(1)}"])
        self.assertEqual(changes([BASE, vni], {"controller": {"fdb": {"5010": None}}}, "vni", "host", "flood list"), ["vni 5010"],
                         "an entity that is removed is removed whole")
        vti = {"vtiStatus": {"Vxlan2": {"controllerClientMode": True, "localVtepAddr": "10.0.0.3"}}}
        self.assertEqual(changes([BASE], vti, "vti"), ["vti"])


if __name__ == "__main__":
    unittest.main()
