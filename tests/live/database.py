"""Real database servers that a controller publishes into: one alone, a cluster of three, and a whole controller chain."""

import itertools
import json
import os
import socket

from rig import Failure, Skip, check, kill, program, until

SCHEMA = "/usr/share/openvswitch/vtep.ovsschema"
NAME = "hardware_vtep"


def tools():
    """Raises Skip where there is no database server."""
    found = {name: program(name) for name in ("ovsdb-server", "ovsdb-tool", "ovsdb-client")}
    if not os.path.exists(SCHEMA):
        raise Skip("the hardware_vtep schema is not installed")
    return found


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


class Session:
    """JSON-RPC with a server, one request at a time."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(60)
        try:
            self.socket.connect(path)
        except OSError:
            self.socket.close()
            raise
        self.decoder = json.JSONDecoder()
        self.pending = ""

    def request(self, method, *params):
        self.socket.sendall(json.dumps({"id": "q", "method": method, "params": params}).encode())
        while True:
            message = self._message()
            if message.get("id") == "q":
                return message
            self.socket.sendall(json.dumps({"id": message["id"], "result": message["params"], "error": None}).encode())

    def _message(self):
        while True:
            try:
                message, end = self.decoder.raw_decode(self.pending)
                self.pending = self.pending[end:].lstrip()
                return message
            except ValueError:
                more = self.socket.recv(1 << 20)
                if not more:
                    raise ConnectionError("the server closed the connection") from None
                self.pending += more.decode()

    def transact(self, *operations, database=NAME):
        results = self.request("transact", database, *operations)["result"]
        for result in results:
            check("error" not in (result or {}), f"transaction: {result}")
        return results

    def select(self, table, *columns, where=(), database=NAME):
        return self.transact({"op": "select", "table": table, "where": list(where), "columns": list(columns)},
                             database=database)[0]["rows"]

    def close(self):
        self.socket.close()


class Server:
    """One database server."""

    def __init__(self, rig, name="db", schema=SCHEMA, create=True):
        self.rig = rig
        self.name = name
        self.tools = tools()
        self.socket = rig.path(name + ".sock")
        self.file = rig.path(name + ".db")
        self.remote = "unix:" + self.socket
        self.process = None
        if create:
            rig.run([self.tools["ovsdb-tool"], "create", self.file, schema])

    def start(self, *options):
        if os.path.exists(self.socket):
            os.unlink(self.socket)
        self.process = self.rig.start(self.name, [
            self.tools["ovsdb-server"], "--no-chdir", "-vconsole:warn", "--unixctl=" + self.rig.path(self.name + ".uctl"),
            "--remote=punix:" + self.socket, *options, self.file])
        until(f"database server {self.name} listens", self.listens)
        return self

    def listens(self):
        check(self.process.poll() is None, f"database server {self.name} has ended")
        try:
            self.session().close()
            return True
        except OSError:  # its file is there before it listens
            return False

    def kill(self):
        kill(self.process)

    def session(self):
        return Session(self.socket)

    def says(self, column):
        """What the server says about itself: "connected", "leader"."""
        try:
            session = self.session()
            rows = session.select("Database", column, where=[["name", "==", NAME]], database="_Server")
            session.close()
            return bool(rows) and rows[0][column] is True
        except (OSError, Failure):
            return False


class Cluster:
    """Three members on the loopback device."""

    def __init__(self, rig):
        raft = [f"tcp:127.0.0.1:{port}" for port in free_ports(3)]
        self.members = []
        for number, address in enumerate(raft):
            member = Server(rig, f"m{number}", create=False)
            words = ["create-cluster", member.file, SCHEMA] if number == 0 else ["join-cluster", member.file, NAME]
            rig.run([member.tools["ovsdb-tool"], *words, address, *raft[:number][:1]])
            member.start()
            until(f"member {number} is connected", lambda member=member: member.says("connected"))
            self.members.append(member)

    def remotes(self):
        return [member.remote for member in self.members]

    def leader(self):
        def found():
            return next((member for member in self.members
                         if member.process.poll() is None and member.says("leader")), None)
        return until("there is a leader", found)


class Chain:
    """A whole controller: northbound and southbound database, the central daemon, and the daemon that publishes into the
    switch's database. Its network "blue" is bound to leaf1's VLAN 10; ports of it are at the hypervisor hv4."""

    def __init__(self, rig):
        self.rig = rig
        self.programs = {name: program(name) for name in (
            "ovn-northd", "ovn-controller-vtep", "ovn-nbctl", "ovn-sbctl", "ovn-appctl", "vtep-ctl")}
        self.environment = {**os.environ, "OVN_RUNDIR": rig.folder, "OVS_RUNDIR": rig.folder}
        self.vtep = Server(rig, "vtep").start()
        self.north = Server(rig, "nb", "/usr/share/ovn/ovn-nb.ovsschema").start()
        self.south = Server(rig, "sb", "/usr/share/ovn/ovn-sb.ovsschema").start()
        self.controller = None
        self.remote = self.vtep.remote
        self.ctl("vtep-ctl", self.vtep, "add-ps leaf1 -- set Physical_Switch leaf1 tunnel_ips=10.0.0.1 -- add-port leaf1 t0"
                                        " -- add-ls ls10 -- bind-ls leaf1 t0 10 ls10")
        self.ctl("ovn-nbctl", self.north, "init")
        self.ctl("ovn-sbctl", self.south, "init")
        rig.start("northd", [
            self.programs["ovn-northd"], "--no-chdir", "-vconsole:warn", "--unixctl=" + rig.path("northd.uctl"),
            "--ovnnb-db=" + self.north.remote, "--ovnsb-db=" + self.south.remote], env=self.environment)
        self.ctl("ovn-nbctl", self.north, "ls-add blue -- lsp-add blue bv -- lsp-set-type bv vtep -- lsp-set-options bv"
                                          " vtep-physical-switch=leaf1 vtep-logical-switch=ls10"
                                          " -- lsp-set-addresses bv unknown")
        self.hypervisor("hv4", "10.0.0.4")

    def ctl(self, tool, server, words, *more):
        self.rig.run([self.programs[tool], "--timeout=50", "--db=" + server.remote, *words.split(), *more],
                     env=self.environment)

    def hypervisor(self, name, address):
        self.ctl("ovn-sbctl", self.south, f"chassis-add {name} vxlan {address}")

    def port(self, name, mac, hypervisor="hv4"):
        """A port of "blue" there with this MAC."""
        self.ctl("ovn-nbctl", self.north, f"--wait=sb lsp-add blue {name} -- lsp-set-addresses {name}", mac)
        self.ctl("ovn-sbctl", self.south, f"lsp-bind {name} {hypervisor}")

    def tunnel_key(self):
        """The VNI that the controller has given the network; none while there is none."""
        session = self.vtep.session()
        key = session.select("Logical_Switch", "tunnel_key")[0]["tunnel_key"]
        session.close()
        return None if isinstance(key, list) else key

    def start_controller(self):
        self.controller = self.rig.start("controller", [
            self.programs["ovn-controller-vtep"], "--no-chdir", "-vconsole:warn",
            "--vtep-db=" + self.vtep.remote, "--ovnsb-db=" + self.south.remote], env=self.environment)

    def stop_controller(self):
        """Cleanly: it takes back what it published before it ends."""
        until("the controller listens", lambda: os.path.exists(self._control()))
        self.rig.run([self.programs["ovn-appctl"], "-t", self._control(), "exit"], env=self.environment)
        self.controller.wait(60)

    def _control(self):
        return self.rig.path(f"ovn-controller-vtep.{self.controller.pid}.ctl")


# --- what a controller writes

def mac(number):
    return ":".join(f"{byte:02x}" for byte in (2, *number.to_bytes(5, "big")))


def insert(table, row, name=None):
    return {"op": "insert", "table": table, "row": row, **({"uuid-name": name} if name else {})}


def locator(address, name=None):
    return insert("Physical_Locator", {"dst_ip": address, "encapsulation_type": "vxlan_over_ipv4"}, name)


class Published:
    """What a controller has published in a database of which the switch is leaf1: logical switches with hosts and a
    flood list each. VLAN n is VNI 5000 + n."""

    def __init__(self, session, vlans=(10,)):
        self.session = session
        self.switches = {}  # VLAN to the row of its logical switch
        rows = session.transact(*(insert("Logical_Switch", {
            "name": f"ls{vlan}", "tunnel_key": 5000 + vlan, "replication_mode": "source_node"}) for vlan in vlans))
        for vlan, row in zip(vlans, rows):
            self.switches[vlan] = row["uuid"]
        bindings = ["map", [[vlan, uuid] for vlan, uuid in self.switches.items()]]
        session.transact(insert("Physical_Port", {"name": "t0", "vlan_bindings": bindings}, "port"),
                         insert("Physical_Switch", {"name": "leaf1", "tunnel_ips": "10.0.0.1",
                                                    "ports": ["named-uuid", "port"]}, "leaf"),
                         insert("Global", {"switches": ["named-uuid", "leaf"]}))

    def hosts(self, vlan, vteps):
        """Adds hosts: MAC to VTEP. One transaction."""
        places = {row["dst_ip"]: row["_uuid"]  # those that no row names any more are gone
                  for row in self.session.select("Physical_Locator", "dst_ip", "_uuid")}
        names = {address: f"l{number}" for number, address in enumerate(sorted(set(vteps.values()) - places.keys()))}
        places.update((address, ["named-uuid", name]) for address, name in names.items())
        self.session.transact(
            *(locator(address, name) for address, name in names.items()),
            *(insert("Ucast_Macs_Remote", {"MAC": address, "logical_switch": self.switches[vlan],
                                           "locator": places[vtep]}) for address, vtep in vteps.items()))

    def flood(self, vlan, address):
        """Frames to everybody in the VLAN go to this VTEP."""
        rows = self.session.select("Physical_Locator", "_uuid", where=[["dst_ip", "==", address]])
        operations = [] if rows else [locator(address, "l")]
        place = rows[0]["_uuid"] if rows else ["named-uuid", "l"]
        self.session.transact(
            *operations, insert("Physical_Locator_Set", {"locators": ["set", [place]]}, "s"),
            insert("Mcast_Macs_Remote", {"MAC": "unknown-dst", "logical_switch": self.switches[vlan],
                                         "locator_set": ["named-uuid", "s"]}))

    def withdraw(self, vlan, address):
        self.session.transact({"op": "delete", "table": "Ucast_Macs_Remote", "where": self._row(vlan, address)})

    def _row(self, vlan, address):
        return [["MAC", "==", address], ["logical_switch", "==", self.switches[vlan]]]


def published(session):
    """(VLAN, MAC) to VTEP, as the rows say. VLAN n is VNI 5000 + n."""
    vteps = {json.dumps(row["_uuid"]): row["dst_ip"] for row in session.select("Physical_Locator", "_uuid", "dst_ip")}
    vlans = {json.dumps(row["_uuid"]): row["tunnel_key"] - 5000
             for row in session.select("Logical_Switch", "_uuid", "tunnel_key")}
    return {(vlans[json.dumps(row["logical_switch"])], row["MAC"]): vteps[json.dumps(row["locator"])]
            for row in session.select("Ucast_Macs_Remote", "MAC", "logical_switch", "locator")}


def behind(addresses, vteps):
    """Each MAC behind one of the VTEPs, by turns."""
    return dict(zip(addresses, itertools.cycle(vteps)))
