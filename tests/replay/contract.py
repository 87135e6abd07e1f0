#!/usr/bin/env python3
"""The contract of `vxlan-agent replay`, from outside: what is refused and how it says so, exit codes, the order of things.

contract.py AGENT
"""
import json
import subprocess
import sys
import tempfile
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

    def test_integers_have_their_ranges(self):
        mac = "/controller/fdb/5010/macVtepTable/02:00:00:00:00:09"
        for value in (-1, 4294967296, 2**64, -2**64, 1e30):
            out_of_range = "integer out of range 0 to 4294967295"
            self.refused({"mlag": {"mlagState": value}}, "/mlag/mlagState", out_of_range)
            self.refused({"mlag": {"bumStatus": {"bumReplicationMode": value}}}, "/mlag/bumStatus/bumReplicationMode", out_of_range)
            self.refused({"hardware": {"bumStatus": {"bumReplicationMode": value}}}, "/hardware/bumStatus/bumReplicationMode",
                         out_of_range)
            self.refused(fdb("5010", macVtepTable={"02:00:00:00:00:09": host("10.0.0.2", moveCount=value)}), mac + "/moveCount",
                         out_of_range)
        self.refused(fdb("5010", macVtepTable={"02:00:00:00:00:09": host("10.0.0.2", hostAttr=256)}), mac + "/hostAttr",
                     "integer out of range 0 to 255")
        self.refused({"vlanVniMap": {"Vxlan1": {"20": 1e30}}}, "/vlanVniMap/Vxlan1/20", "VNI out of range 1 to 16777215")
        self.refused({"mlag": {"mlagState": 1e3}}, "/mlag/mlagState", "an integer was expected, not 1000.0")

    def test_every_member_has_one_type(self):
        mac, host_of = "02:00:00:00:00:09", lambda **members: fdb("5010", macVtepTable={"02:00:00:00:00:09": members})
        bum = lambda members: {"mlag": {"bumStatus": {"bumVtepList": {"10": {"02:00:00:00:00:09": members}}}}}
        for patch, pointer, reason in (
                ({"vtiStatus": {"Vxlan1": {"datapathLearning": "true"}}}, "/vtiStatus/Vxlan1/datapathLearning", "true or false"),
                ({"vtiStatus": {"Vxlan1": {"localVtepAddr": 7}}}, "/vtiStatus/Vxlan1/localVtepAddr", "an IPv4 address"),
                ({"vtiStatus": {"Vxlan1": {"dgwVtepAddr": "x"}}}, "/vtiStatus/Vxlan1/dgwVtepAddr", "is not a dotted IPv4 address"),
                ({"vtiStatus": {"Vxlan1": True}}, "/vtiStatus/Vxlan1", "an object was expected, not boolean"),
                ({"vlanVniMap": {"Vxlan1": []}}, "/vlanVniMap/Vxlan1", "an object was expected, not array"),
                ({"vlanVniMap": {"Vxlan1": {"20": "5020"}}}, "/vlanVniMap/Vxlan1/20", "a VNI as an integer was expected, not string"),
                ({"mlag": {"vtepAddr": {"x": True}}}, "/mlag/vtepAddr/x", "an IPv4 address was expected"),
                ({"mlag": {"bumStatus": []}}, "/mlag/bumStatus", "an object was expected"),
                ({"mlag": {"x": None}}, "/mlag/x", "unknown member"),
                (bum({"x": None}), f"/mlag/bumStatus/bumVtepList/10/{mac}/x", "unknown member"),
                (bum({"bumVtepIpListType": "1"}), f"/mlag/bumStatus/bumVtepList/10/{mac}/bumVtepIpListType", "an integer"),
                (bum({"remoteVtepAddr": {"10.0.0.1": 1}}), f"/mlag/bumStatus/bumVtepList/10/{mac}/remoteVtepAddr/10.0.0.1",
                 "true or false was expected"),
                (bum({"remoteVtepAddr": {"10.0.0.300": True}}), f"/mlag/bumStatus/bumVtepList/10/{mac}/remoteVtepAddr/10.0.0.300",
                 "is not a dotted IPv4 address"),
                ({"mlag": {"bumStatus": {"bumVtepList": {"4095": None}}}}, "/mlag/bumStatus/bumVtepList/4095", "VLAN out of range"),
                ({"mlag": {"bumStatus": {"bumVtepList": {"10": {"x": None}}}}}, "/mlag/bumStatus/bumVtepList/10/x", "not a MAC address"),
                ({"hardware": {"x": None}}, "/hardware/x", "unknown member"),
                ({"controller": {"x": None}}, "/controller/x", "unknown member"),
                ({"controller": {"fdb": {"5020": 1}}}, "/controller/fdb/5020", '"announced" or an object was expected, not number'),
                ({"controller": {"fdb": {"5020": "Announced"}}}, "/controller/fdb/5020", '"announced" or an object was expected'),
                ({"controller": {"fdb": {"05020": None}}}, "/controller/fdb/05020", "without leading zeros"),
                ({"controller": {"state": {"s": 1}}}, "/controller/state/s", '"announced" or an object was expected'),
                ({"controller": {"state": {"s": {"x": 1}}}}, "/controller/state/s/x", "unknown member"),
                ({"controller": {"state": {"s": {"convergenceInProgress": 1}}}}, "/controller/state/s/convergenceInProgress",
                 "true or false was expected"),
                (host_of(vtepIp="10.0.0.2", x=1), f"/controller/fdb/5010/macVtepTable/{mac}/x", "unknown member"),
                (fdb("5010", macVtepFloodListTable={mac: []}), f"/controller/fdb/5010/macVtepFloodListTable/{mac}", "an object"),
                (fdb("5010", macVtepFloodListTable={mac: {"x": None}}), f"/controller/fdb/5010/macVtepFloodListTable/{mac}/x",
                 "is not a dotted IPv4 address"),
                (fdb("5010", macVtepMultiPathTable={mac: {"10.0.0.1": "yes"}}),
                 f"/controller/fdb/5010/macVtepMultiPathTable/{mac}/10.0.0.1", "true or false was expected")):
            with self.subTest(pointer):
                self.refused(patch, pointer, reason)
        self.refused([], "", "an object was expected, not array")
        self.refused(None, "", "an object was expected, not null")

    def test_a_name_that_is_no_interface(self):
        for section in ("vtiStatus", "vlanVniMap"):
            self.refused({section: {"": {}}}, f"/{section}/", "an interface has a name")
            self.refused({section: {"x" * 24: {}}}, f"/{section}/{'x' * 24}", "longer than 23")
            for code in (0, 10, 0x7f):
                self.refused({section: {f"a{chr(code)}b": {}}}, f"/{section}/a\\u00{code:02x}b", "control character")

    def test_a_place_is_named_as_a_json_pointer_on_one_line(self):
        self.refused({"a/b~c\nd": 1}, "/a~1b~0c\\u000ad", "unknown member")

    def test_a_second_state_beside_one_that_is_instantiated(self):
        state = lambda **entries: {"patch": {"controller": {"state": entries}}}
        for second, code in ((state(b={}), 2), (state(b="announced"), 0), (state(a=None, b={}), 0), (state(a="announced"), 2)):
            self.assertEqual(replay(state(a={}), second)[0], code, second)

    def test_the_last_of_many_members_refuses_them_all(self):
        self.refused({"vtiStatus": {"Vxlan2": {"controllerClientMode": True}},
                      "controller": {"fdb": {"5010": None, "5020": {"x": 1}}}}, "/controller/fdb/5020/x", "unknown member")


class Lines(unittest.TestCase):
    # A host that waits for its deletion while the controller converges, and the end of the convergence.
    MARKED = ({"patch": {**CLIENT, "controller": {"state": {"s": {"convergenceInProgress": True}},
                                                  "fdb": {"5010": {"macVtepTable": {"02:00:00:00:00:01": host("10.0.0.2")}}}}}},
              {"patch": {"controller": {"fdb": {"5010": None}}}})
    CONVERGED = {"patch": {"controller": {"state": {"s": {"convergenceInProgress": False}}}}}

    def test_bad_json_names_the_line(self):
        code, _, messages = replay({"advance": 1}, "{", {"advance": 1})
        self.assertEqual(code, 2)
        self.assertEqual(messages[0], "-:2: not JSON at byte 2")
        self.assertIn("lines 2,", messages[-1], "the replay stops there")

    def test_a_member_of_a_line_that_does_not_exist(self):
        code, _, messages = replay({"pacth": {}})
        self.assertEqual((code, messages[0]), (2, "-:1: line: /pacth: unknown member"))

    def test_what_is_no_line(self):
        for line, message in (("[]", "line: : an object was expected, not array"), ("3", "line: : an object was expected, not number"),
                              ('{"advance":1} {}', "not JSON at byte 15"), ('{"advance":NaN}', "not JSON at byte 12"),
                              ('{"advance":1e999}', "a number is out of range"),
                              ('{"advance":1}\0x', "not JSON at byte 14"), ('{"advance":1,}', "not JSON at byte 14")):
            self.assertEqual(replay(line)[::2], (2, [f"-:1: {message}", "lines 1, patches 0, expectations passed 0, failed 0, "
                                                     "virtual seconds 0"]), line)

    def test_a_line_is_refused_before_it_can_exhaust_the_stack(self):
        for member in ("tickPerRead", "maxProcessTime", "patch", "restart", "advance", "turns", "expect", "dump"):
            for deep in ("[" * 100000 + "]" * 100000, '{"a":' * 100000 + "1" + "}" * 100000):
                code, _, messages = replay(f'{{"{member}":{deep}}}')
                self.assertEqual((code, messages[0]), (2, "-:1: nested deeper than 64 levels"), member)

    def test_each_member_of_a_line_has_its_form(self):
        for member, bad in (("tickPerRead", (-1, None, "1", True, 1e16)), ("maxProcessTime", (-0.1, None, [])),
                            ("advance", (-1, None, "1", True, 1e16)), ("turns", (-1, 1.0, None, "3", 2**64)),
                            ("restart", (1, None, "true")), ("expect", (None, [], True)), ("dump", (False, None, 1, "x", "/~2"))):
            for value in bad:
                code, dumps, messages = replay({"advance": 3, "patch": CLIENT, member: value}, {"dump": "/client/trackers"},
                                               options=["--keep-going"])
                self.assertEqual((code, dumps), (2, [[]]), (member, value))
                self.assertTrue(messages[0].startswith(f"-:1: line: /{member}: "), messages[0])
                self.assertTrue(messages[1].endswith("patches 0, expectations passed 0, failed 0, virtual seconds 0"), messages[1])

    def test_line_ends_and_blank_lines(self):
        code, dumps, messages = replay('\ufeff{"advance":1}\r', "\r", " \t", "# \r", '{"advance":1}\r')
        self.assertEqual((code, dumps, messages), (0, [], ["lines 2, patches 0, expectations passed 0, failed 0, virtual seconds 2"]))
        run = subprocess.run([AGENT, "replay", "-"], input='{"advance":1}\n{"dump":"/markedForDelCount"}', capture_output=True,
                             text=True, check=False)
        self.assertEqual((run.returncode, run.stdout), (0, "0\n"), "the last line needs no end")

    def test_the_sum_has_every_digit_of_the_time(self):
        self.assertTrue(replay({"advance": 1234567.25})[2][0].endswith("virtual seconds 1234567.25"))

    def test_comments_and_blank_lines_count_as_lines_of_the_file(self):
        _, _, messages = replay("# a comment", "", "[]")
        self.assertTrue(messages[0].startswith("-:3: "), messages[0])

    def test_a_failed_expectation_says_what_it_wanted_and_the_replay_goes_on(self):
        code, dumps, messages = replay({"expect": {"markedForDelCount": 3}}, {"dump": "/markedForDelCount"})
        self.assertEqual(code, 1)
        self.assertEqual(messages[0], "-:1: expect: /markedForDelCount: want 3, have 0")
        self.assertEqual(dumps, [0])
        self.assertTrue(messages[-1].startswith("lines 2, patches 0, expectations passed 0, failed 1,"), messages[-1])

    def test_a_failed_expectation_says_what_is_there(self):
        base = {"patch": {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:01": host("10.0.0.2")})}}
        parts = {"receivedHosts": None, "l2Rib": {"hosts": None}}, {"receivedHosts": {"10": 5}, "l2Rib": {"hosts": {"10": None}}}
        for expected in parts:
            code, dumps, messages = replay(base, {"expect": expected, "dump": True})
            self.assertEqual(code, 1)
            for message in messages[:2]:
                pointer, have = message.split(" ")[2].rstrip(":"), json.loads(message.split(", have ", 1)[1])
                part = dumps[0]
                for name in pointer.split("/")[1:]:
                    part = part[name]
                self.assertEqual(have, part)
        for expected in ({"receivedHosts": {"10": {}, "20": None}}, {"l2Rib": {"hosts": {"10": {"02:00:00:00:00:02": None}}}},
                         {"nowhere": None}, {"l2Rib": {}}):
            self.assertEqual(replay(base, {"expect": expected})[0], 0, expected)
        for expected in ({"receivedHosts": {"20": {}}}, {"nowhere": {}}, {"l2Rib": {"hosts": {"20": {}}}},
                         {"receivedHosts": {"10": {"02:00:00:00:00:02": {}}}}, {"client": {"perVni": {}}}):
            self.assertEqual(replay(base, {"expect": expected})[0], 1, expected)

    def test_refused_counts_more_than_failed(self):
        code, _, _ = replay({"expect": {"markedForDelCount": 3}}, {"x": 1}, options=["--keep-going"])
        self.assertEqual(code, 2)

    def test_bad_usage(self):
        self.assertEqual(subprocess.run([AGENT, "replay"], capture_output=True, check=False).returncode, 2)
        self.assertEqual(subprocess.run([AGENT, "replay", "/nowhere/x"], capture_output=True, check=False).returncode, 2)

    def test_a_line_that_never_comes_to_rest(self):
        stuck = "the activity loop does not go idle: tickPerRead, {} s, is not below maxProcessTime, {} s"
        for tick, budget in ((0, 0), (0.01, 0.01), (2, 0.5)):
            members = {"tickPerRead": tick, "maxProcessTime": budget}
            for turns in ({}, {"turns": 2**64 - 1}, {"advance": 1}):
                code, _, messages = replay(*self.MARKED, {**members, **turns, **self.CONVERGED})
                self.assertEqual((code, len(messages)), (2, 2), messages)
                self.assertIn("-:3: " + stuck.format(tick, budget), messages[0])
            self.assertEqual(replay(*self.MARKED, {**members, "turns": 9999, **self.CONVERGED})[0], 0)

    def test_a_tick_below_the_budget_comes_to_rest(self):
        code, dumps, messages = replay(*self.MARKED, {"tickPerRead": 0.009, "maxProcessTime": 0.01, **self.CONVERGED},
                                       {"dump": "/markedForDelCount"})
        self.assertEqual((code, dumps), (0, [0]), messages)

    def test_a_tick_above_the_budget_where_every_run_changes_something(self):
        # The flood sets of many VLANs lose what is stale, one VLAN a run: nothing is marked, and the line ends well.
        vlans = range(10, 60)
        lists = lambda *vteps: {str(5000 + vlan): {"macVtepFloodListTable": {"00:00:00:00:00:00": {vtep: True for vtep in vteps}}}
                                for vlan in vlans}
        base = {"vtiStatus": CLIENT["vtiStatus"], "vlanVniMap": {"Vxlan1": {str(vlan): 5000 + vlan for vlan in vlans}},
                "hardware": {"bumStatus": {"bumReplicationMode": 3}},
                "controller": {"state": {"s": {"convergenceInProgress": True}}, "fdb": lists("10.0.0.2", "10.0.0.3")}}
        gone = {vni: {"macVtepFloodListTable": {"00:00:00:00:00:00": {"10.0.0.3": None}}} for vni in lists()}
        code, dumps, messages = replay({"patch": base}, {"patch": {"controller": {"fdb": gone}}},
                                       {"tickPerRead": 1, "maxProcessTime": 0.01, **self.CONVERGED},
                                       {"dump": "/l2Rib/floodSets/10"}, {"dump": "/l2Rib/floodSets/59"})
        self.assertEqual(code, 0, messages)
        self.assertEqual([dump["00:00:00:00:00:00"]["dests"] for dump in dumps], [["10.0.0.2"]] * 2)

    def test_a_dump_that_leads_nowhere_is_null(self):
        for pointer in ("/nowhere/1", "/client/perVni/0", "/client/perVni/-", "/client/perVni/01", "/client/perVni/x",
                        "/client/perVni/99999999999999999999", "/markedForDelCount/x"):
            self.assertEqual(replay({"dump": pointer})[1], [None], pointer)
        self.assertEqual(replay({"dump": ""})[1], replay({"dump": True})[1])

    def test_the_client_is_built_before_the_first_line_and_the_loop_has_not_turned(self):
        both = {"unicastDeferredDeletionInProgress": True, "bumDeferredDeletionInProgress": True}
        neither = {name: False for name in both}
        self.assertEqual(replay({"turns": 0, "dump": "/convergenceStatus"}, {"turns": 1, "dump": "/convergenceStatus"},
                                {"restart": True, "turns": 0, "dump": "/convergenceStatus"},
                                {"restart": False, "dump": "/convergenceStatus"})[1], [both, neither, both, neither])

    def test_reads_of_the_time_move_it_on(self):
        more = lambda number: fdb("5010", macVtepTable={f"02:00:00:00:00:0{number}": host("10.0.0.2")})
        time = "/receivedHosts/10/02:00:00:00:00:0{}/lastUpdateTime"
        code, dumps, messages = replay({"patch": CLIENT}, {"tickPerRead": 0.5, "advance": 5}, {"patch": more(1)}, {"patch": more(2)},
                                       {"tickPerRead": 0, "patch": more(3)}, {"dump": time.format(1)}, {"dump": time.format(2)},
                                       {"dump": time.format(3)})
        self.assertEqual((code, dumps), (0, [5.0, 5.5, 6.0]), "a read returns the time before it moves it on")
        self.assertTrue(messages[-1].endswith("virtual seconds 6"), messages[-1])

    def test_an_advance_first_fires_what_is_due_and_then_moves_the_time(self):
        # The job reads the time twice: for its deadline, and before the one host that it looks at.
        code, dumps, messages = replay(*self.MARKED, {"maxProcessTime": 10, "tickPerRead": 1, "turns": 0, **self.CONVERGED},
                                       {"advance": 5, "dump": "/markedForDelCount"})
        self.assertEqual((code, dumps), (0, [0]))
        self.assertTrue(messages[-1].endswith("virtual seconds 8"), "one read when it was scheduled, two of the job, and 5")

    def test_a_restart_brings_the_budget_back_to_its_default(self):
        ended = {"tickPerRead": 1, "turns": 1, **self.CONVERGED, "dump": "/markedForDelCount"}
        self.assertEqual(replay(*self.MARKED, {"maxProcessTime": 100}, ended)[1], [0])
        self.assertEqual(replay(*self.MARKED, ended)[1], [1])
        again = {"patch": {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:01": host("10.0.0.2")})}}
        self.assertEqual(replay({"maxProcessTime": 100, "restart": True}, *self.MARKED, ended)[1], [1])
        self.assertEqual(replay(again, {"maxProcessTime": 100}, *self.MARKED, ended)[1], [0])

    def test_the_members_of_a_line_are_carried_out_in_order(self):
        # The patch before the restart, the restart before the time moves on, and all of it before the dump.
        base = {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:01": host("10.0.0.2")})}
        code, dumps, _ = replay({"dump": "/receivedHosts/10/02:00:00:00:00:01/lastUpdateTime", "expect": {"client": {"perVni": [5010]}},
                                 "advance": 7, "restart": True, "patch": base, "tickPerRead": 1})
        self.assertEqual(code, 0)
        self.assertTrue(1 <= dumps[0] < 7, "written at 0 by the patch, anew by the restart, and not by what came later")

    def test_files_are_runs_of_their_own(self):
        with tempfile.TemporaryDirectory() as folder:
            paths = []
            for number, lines in enumerate(([{"patch": CLIENT, "advance": 2}], [{"expect": {"client": {"trackers": ["Vxlan1"]}}}],
                                            [{"x": 1}, {"advance": 1}], [{"advance": 4, "dump": "/client/trackers"}])):
                paths.append(f"{folder}/{number}.jsonl")
                with open(paths[-1], "w", encoding="utf-8") as journal:
                    journal.write("\n".join(map(json.dumps, lines)))
            for options, lines, seconds, dump in (((), 3, 2, ""), (("--keep-going",), 5, 7, "[]\n")):
                run = subprocess.run([AGENT, "replay", *options, *paths], capture_output=True, text=True, check=False)
                self.assertEqual((run.returncode, run.stdout), (2, dump))
                self.assertEqual(run.stderr.splitlines(), [
                    f'{paths[1]}:1: expect: /client/trackers: want ["Vxlan1"], have []', f"{paths[2]}:1: line: /x: unknown member",
                    f"lines {lines}, patches 1, expectations passed 0, failed 1, virtual seconds {seconds}"])
            for unreadable in (folder, folder + "/none"):
                run = subprocess.run([AGENT, "replay", unreadable], capture_output=True, text=True, check=False)
                self.assertEqual(run.returncode, 2)
                self.assertTrue(run.stderr.startswith(f"{unreadable}: cannot be read: "), run.stderr)

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

    def test_what_is_listed_ascends(self):
        vteps = {address: True for address in ("10.0.0.9", "10.0.0.10", "9.0.0.1")} | {"10.0.0.3": False}
        patch = {"vtiStatus": {"b": {"controllerClientMode": True}}, "vlanVniMap": {"b": {"10": 5010, "9": 900}, "a2": {}, "a10": {}},
                 "mlag": {"mlagState": 4, "bumStatus": {"bumReplicationMode": 3, "bumVtepList": {"10": {
                     "02:00:00:00:00:0A": {"bumVtepIpListType": 2, "remoteVtepAddr": vteps}}}}},
                 "hardware": {"bumStatus": {"bumReplicationMode": 3}},
                 "controller": {"fdb": {"5010": {"macVtepFloodListTable": {"02:00:00:00:00:0B": vteps}}, "900": {}}}}
        _, (client, hardware, mirrored), _ = replay({"patch": patch}, {"dump": "/client"}, {"dump": "/hardware"},
                                                    {"dump": "/hardware/bumVtepList/10/02:00:00:00:00:0a"})
        self.assertEqual(client["trackers"], ["a10", "a2", "b"], "interfaces by text")
        self.assertEqual(hardware["bumVtepList"].keys(), {"10"})
        self.assertEqual(mirrored, {"bumVtepIpListType": 2, "remoteVtepAddr": ["9.0.0.1", "10.0.0.9", "10.0.0.10"]},
                         "addresses by value, and those that are true")
        one = {**patch, "vlanVniMap": {"b": {"10": 5010, "9": 900}}}
        _, (vnis, floods), _ = replay({"patch": one}, {"dump": "/client/perVni"}, {"dump": "/l2Rib/floodSets"})
        self.assertEqual(vnis, [900, 5010])
        self.assertEqual(floods, {"10": {"02:00:00:00:00:0b": {"floodSetType": 1, "dests": ["9.0.0.1", "10.0.0.9", "10.0.0.10"]}}},
                         "a VLAN without a flood set is left out")

    def test_a_host_has_all_its_members(self):
        base = {"patch": {**CLIENT, **fdb("5010", macVtepTable={"02:00:00:00:00:0A": host("10.0.0.2", moveCount=4294967295,
                                                                                          hostAttr=255)})}}
        expected = {"intf": "Vxlan1", "entryType": 10, "vtepIp": "10.0.0.2", "moveCount": 4294967295, "hostAttr": 255,
                    "lastUpdateTime": 1.5}
        _, dumps, _ = replay({"advance": 1.5}, base, {"dump": "/l2Rib/hosts"}, {"dump": "/receivedHosts"})
        self.assertEqual(dumps, [{"10": {"02:00:00:00:00:0a": expected}},
                                 {"10": {"02:00:00:00:00:0a": {**expected, "markedForDel": False}}}])
        moved = {"patch": fdb("5010", macVtepTable={"02:00:00:00:00:0a": {"moveCount": None, "hostAttr": None}})}
        self.assertEqual(replay(base, moved, {"expect": {"receivedHosts": {"10": {"02:00:00:00:00:0a": {
            "vtepIp": "10.0.0.2", "moveCount": 0, "hostAttr": 16}}}}})[0], 0, "null is the default")

    def test_a_host_that_equals_the_default_counts_as_absent(self):
        zero = lambda **members: fdb("5010", macVtepTable={"00:00:00:00:00:00": members})
        base = {"patch": {**CLIENT, **zero(vtepIp="10.0.0.2")}}
        self.assertEqual(replay(base, {"dump": "/client/perVni"}, {"patch": zero(vtepIp="0.0.0.0"), "expect": {
            "receivedHosts": {"10": None}, "l2Rib": {"hosts": {"10": None}}}})[0], 0)
        # While the controller converges it is marked, once, whatever is said of it again.
        code, dumps, messages = replay({"patch": {"controller": {"state": {"s": {"convergenceInProgress": True}}}}}, base,
                                       {"patch": zero(vtepIp="0.0.0.0", moveCount=0, hostAttr=16), "dump": "/markedForDelCount"},
                                       {"patch": {"vtiStatus": {"Vxlan2": {}}}}, {"patch": zero(vtepIp="0.0.0.0")},
                                       {"patch": fdb("5010", macVtepTable={"00:00:00:00:00:00": None}), "dump": "/markedForDelCount"},
                                       {"patch": zero(vtepIp="10.0.0.3"), "dump": "/markedForDelCount"})
        self.assertEqual((code, dumps), (0, [1, 1, 0]), messages)

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
