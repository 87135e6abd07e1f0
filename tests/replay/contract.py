#!/usr/bin/env python3
"""The contract of `vxlan-agent replay`, from outside: what is refused and how it says so, exit codes, the order of things.

contract.py AGENT
"""
import json
import subprocess
import sys
import unittest

AGENT = sys.argv.pop(1)
CLIENT = {"vtiStatus": {"Vxlan1": {"controllerClientMode": True, "localVtepAddr": "10.0.0.1"}},
          "vlanVniMap": {"Vxlan1": {"10": 5010}}}


def host(vtep, **more):
    return {"vtepIp": vtep, **more}


def fdb(vni, **tables):
    return {"controller": {"fdb": {vni: tables}}}


def replay(*lines, options=()):
    """Runs lines (objects, or text as it stands); returns exit code, dumps and messages."""
    text = "".join((line if isinstance(line, str) else json.dumps(line)) + "\n" for line in lines)
    run = subprocess.run([AGENT, "replay", *options, "-"], input=text, capture_output=True, text=True, check=False)
    return run.returncode, [json.loads(dump) for dump in run.stdout.splitlines()], run.stderr.splitlines()


class Refusals(unittest.TestCase):
    def refused(self, patch, pointer, reason):
        before = {"patch": {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:01": host("10.0.0.2")}),}}
        dump = {"dump": True}
        code, dumps, messages = replay(before, dump, {"patch": patch}, dump, options=["--keep-going"])
        self.assertEqual(code, 2, messages)
        self.assertEqual(messages[0].split(": ", 2)[0:2], ["-:3", "patch"])
        self.assertTrue(messages[0].startswith(f"-:3: patch: {pointer}: "), messages[0])
        self.assertIn(reason, messages[0])
        self.assertEqual(dumps[0], dumps[1], "a refused patch changes nothing")

    def test_a_vlan_out_of_range(self):
        for vlan in ("0", "4095", "5000"):
            self.refused({"vlanVniMap": {"Vxlan1": {vlan: 5020}}}, f"/vlanVniMap/Vxlan1/{vlan}",
                         "VLAN out of range 1 to 4094")

    def test_a_vlan_with_a_leading_zero(self):
        self.refused({"vlanVniMap": {"Vxlan1": {"010": 5020}}}, "/vlanVniMap/Vxlan1/010", "leading zeros")

    def test_a_vni_out_of_range(self):
        self.refused({"vlanVniMap": {"Vxlan1": {"20": 0}}}, "/vlanVniMap/Vxlan1/20", "VNI out of range")
        self.refused({"vlanVniMap": {"Vxlan1": {"20": 16777216}}}, "/vlanVniMap/Vxlan1/20", "VNI out of range")
        self.refused(fdb("0"), "/controller/fdb/0", "VNI out of range")
        self.refused(fdb("16777216"), "/controller/fdb/16777216", "VNI out of range")

    def test_a_bad_mac(self):
        self.refused(fdb("5010", macVtepTable={"02:00:00:00:00": host("10.0.0.2")}),
                     "/controller/fdb/5010/macVtepTable/02:00:00:00:00", "is not a MAC address")

    def test_a_bad_address(self):
        for address in ("10.0.0.256", "10.0.0", "10.0.0.01", "fe80::1", ""):
            self.refused(fdb("5010", macVtepTable={"02:00:00:00:00:09": host(address)}),
                         "/controller/fdb/5010/macVtepTable/02:00:00:00:00:09/vtepIp", "is not a dotted IPv4 address")

    def test_a_wrong_type(self):
        self.refused({"vtiStatus": {"Vxlan1": {"controllerClientMode": 1}}},
                     "/vtiStatus/Vxlan1/controllerClientMode", "true or false was expected")
        self.refused({"vtiStatus": []}, "/vtiStatus", "an object was expected")
        self.refused({"vlanVniMap": {"Vxlan1": {"20": 1.5}}}, "/vlanVniMap/Vxlan1/20", "integer was expected")
        self.refused({"mlag": {"mlagState": -1}}, "/mlag/mlagState", "out of range")

    def test_an_unknown_member(self):
        self.refused({"vti": {}}, "/vti", "unknown member")
        self.refused({"vtiStatus": {"Vxlan1": {"mode": True}}}, "/vtiStatus/Vxlan1/mode", "unknown member")
        self.refused({"hardware": {"bumStatus": {"bumVtepList": {}}}}, "/hardware/bumStatus/bumVtepList", "unknown member")

    def test_a_vni_with_two_vlans_of_one_vti(self):
        self.refused({"vlanVniMap": {"Vxlan1": {"20": 5010}}}, "/vlanVniMap/Vxlan1/20", "VLAN 10 of this VTI")

    def test_a_vlan_on_two_vtis(self):
        self.refused({"vlanVniMap": {"Vxlan2": {"10": 6010}}}, "/vlanVniMap/Vxlan2/10", "VTI Vxlan1")

    def test_a_host_without_a_vtep(self):
        self.refused(fdb("5010", macVtepTable={"02:00:00:00:00:09": {"moveCount": 1}}),
                     "/controller/fdb/5010/macVtepTable/02:00:00:00:00:09", "needs a vtepIp")
        self.refused(fdb("5010", macVtepTable={"02:00:00:00:00:01": {"vtepIp": None}}),
                     "/controller/fdb/5010/macVtepTable/02:00:00:00:00:01", "needs a vtepIp")

    def test_announcing_what_is_instantiated(self):
        self.refused({"controller": {"fdb": {"5010": "announced"}}}, "/controller/fdb/5010", "instantiated already")

    def test_a_second_state(self):
        self.refused({"controller": {"state": {"a": {}, "b": {}}}}, "/controller/state/b", "one state")

    def test_the_same_mac_twice(self):
        self.refused(fdb("5010", macVtepTable={"0a:00:00:00:00:01": host("10.0.0.2"), "0A:00:00:00:00:01": host("10.0.0.3")}),
                     "/controller/fdb/5010/macVtepTable/0a:00:00:00:00:01", "twice")

    def test_the_last_of_many_members_refuses_them_all(self):
        self.refused({"vtiStatus": {"Vxlan2": {"controllerClientMode": True}},
                      "controller": {"fdb": {"5010": None, "5020": {"x": 1}}}}, "/controller/fdb/5020/x", "unknown member")


class Lines(unittest.TestCase):
    def test_bad_json_names_the_line(self):
        code, _, messages = replay({"advance": 1}, "{", {"advance": 1})
        self.assertEqual(code, 2)
        self.assertTrue(messages[0].startswith("-:2: not JSON"), messages[0])
        self.assertIn("lines 2,", messages[-1], "the replay stops there")

    def test_a_member_of_a_line_that_does_not_exist(self):
        code, _, messages = replay({"pacth": {}})
        self.assertEqual((code, messages[0]), (2, "-:1: line: /pacth: unknown member"))

    def test_comments_and_blank_lines_count_as_lines_of_the_file(self):
        _, _, messages = replay("# a comment", "", "[]")
        self.assertTrue(messages[0].startswith("-:3: "), messages[0])

    def test_a_failed_expectation_says_what_it_wanted_and_the_replay_goes_on(self):
        code, dumps, messages = replay({"expect": {"markedForDelCount": 3}}, {"dump": "/markedForDelCount"})
        self.assertEqual(code, 1)
        self.assertEqual(messages[0], "-:1: expect: /markedForDelCount: want 3, have 0")
        self.assertEqual(dumps, [0])

    def test_refused_counts_more_than_failed(self):
        code, _, _ = replay({"expect": {"markedForDelCount": 3}}, {"x": 1}, options=["--keep-going"])
        self.assertEqual(code, 2)

    def test_bad_usage(self):
        self.assertEqual(subprocess.run([AGENT, "replay"], capture_output=True, check=False).returncode, 2)
        self.assertEqual(subprocess.run([AGENT, "replay", "/nowhere/x"], capture_output=True, check=False).returncode, 2)

    def test_a_line_that_never_comes_to_rest(self):
        code, _, messages = replay(
            {"patch": {**CLIENT, "controller": {"state": {"s": {"convergenceInProgress": True}},
                                                "fdb": {"5010": {"macVtepTable": {"02:00:00:00:00:01": host("10.0.0.2")}}}}}},
            {"patch": {"controller": {"fdb": {"5010": None}}}},
            {"maxProcessTime": 0, "patch": {"controller": {"state": {"s": {"convergenceInProgress": False}}}}})
        self.assertEqual(code, 2, messages)
        self.assertIn("not idle after 10,000,000 turns", messages[0])

    def test_a_dump_that_leads_nowhere_is_null(self):
        self.assertEqual(replay({"dump": "/nowhere/1"})[1], [None])

    def test_an_array_matches_whole_and_a_fraction_nearly(self):
        base = {"patch": {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:01": host("10.0.0.2")})}}
        self.assertEqual(replay({"advance": 0.1}, {"advance": 0.2}, base, {"expect": {"receivedHosts": {"10": {
            "02:00:00:00:00:01": {"lastUpdateTime": 0.3}}}, "client": {"perVni": [5010]}}})[0], 0)
        self.assertEqual(replay(base, {"expect": {"client": {"perVni": []}}})[0], 1)


class Documents(unittest.TestCase):
    def test_the_empty_output_document(self):
        self.assertEqual(replay({"dump": True})[1][0], {
            "client": {"vxlanControllerClientMode": False, "datapathLearningMode": True, "perVni": [], "trackers": [],
                       "mlagBumStatus": False},
            "receivedHosts": {}, "markedForDelCount": 0, "l2Rib": {"hosts": {}, "floodSets": {}},
            "hardware": {"bumReplicationMode": 0, "bumVtepList": {}}, "clientView": {"convergenceInProgress": False},
            "convergenceStatus": {"unicastDeferredDeletionInProgress": False, "bumDeferredDeletionInProgress": False}})

    def test_a_restart_keeps_the_inputs_and_what_is_published(self):
        base = {"patch": {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:01": host("10.0.0.2")})}}
        code, dumps, _ = replay(base, {"dump": True}, {"restart": True}, {"dump": True})
        self.assertEqual(code, 0)
        self.assertEqual(dumps[0], dumps[1])

    def test_every_section_can_be_removed(self):
        everything = {**CLIENT, "mlag": {"mlagState": 4, "vtepAddr": {"x": "10.0.0.9"}, "bumStatus": {
            "bumReplicationMode": 3, "bumVtepList": {"10": {"00:00:00:00:00:00": {"remoteVtepAddr": {"10.0.0.2": True}}}}}},
            "hardware": {"bumStatus": {"bumReplicationMode": 3}},
            "controller": {"state": {"s": {"convergenceInProgress": True}},
                           "fdb": {"5010": {"macVtepTable": {"02:00:00:00:00:01": host("10.0.0.2")},
                                            "macVtepFloodListTable": {"00:00:00:00:00:00": {"10.0.0.2": True}},
                                            "macVtepMultiPathTable": {"00:00:00:00:00:01": {"10.0.0.2": True}}}}}}
        for section in everything:
            code, _, messages = replay({"patch": everything}, {"patch": {section: None}}, {"patch": everything})
            self.assertEqual(code, 0, (section, messages))


if __name__ == "__main__":
    unittest.main()
