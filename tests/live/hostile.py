"""What the world does to an agent: peers that are no database, clients that do not read, disks that are full. Each gives a
clear message, and the agent goes on answering."""

import fcntl
import json
import os
import signal
import socket
import subprocess

from database import SCHEMA, Published, Server, behind, free_ports, mac, tools
from rig import Agent, Lines, end_with_parent, check, until

OTHER_NAME = {"name": "pets", "version": "1.0.0", "tables": {"Cat": {"columns": {"name": {"type": "string"}}}}}


class Impostor:
    """Something that listens where a database server should, and says what the scenario wants."""

    def __init__(self, rig):
        self.path = rig.path("db.sock")
        self.remote = "unix:" + self.path
        self.listening = socket.socket(socket.AF_UNIX)
        self.listening.bind(self.path)
        self.listening.listen()
        self.listening.settimeout(60)
        rig.closing.append(self.listening.close)

    def accept(self):
        """The agent's connection, when its first request is there."""
        peer = self.listening.accept()[0]
        peer.settimeout(60)
        check(peer.recv(1 << 16), "the agent asks for something")
        return peer


def goes_on(agent, *words):
    """The log and `show problems` have these words, and the agent carries out what it is asked for."""
    def told(text):
        return all(word in text for word in words)
    until(f"the log says {words}", lambda: told(agent.log()))
    until(f"`show problems` says {words}", lambda: told(agent.problems()))
    patch = {"mlag": {"vtepAddr": {"peer": f"10.9.9.{len(agent.log()) % 250 + 1}"}}}
    check(agent.ask({"patch": patch}) == {"ok": True}, "the agent takes a patch")
    check(agent.get("/input/mlag/vtepAddr") == patch["mlag"]["vtepAddr"], "and carries it out")


def scenario_a_database_of_another_name(rig):
    with open(rig.path("pets.ovsschema"), "w", encoding="utf-8") as file:
        json.dump(OTHER_NAME, file)
    database = Server(rig, schema=rig.path("pets.ovsschema")).start()
    goes_on(Agent(rig).follows(database.remote).start(), database.remote, 'no schema of database "hardware_vtep"')


def scenario_a_schema_without_a_column(rig):
    """It is named with its table."""
    tools()
    with open(SCHEMA, encoding="utf-8") as file:
        schema = json.load(file)
    del schema["tables"]["Logical_Switch"]["columns"]["tunnel_key"]
    schema["tables"]["Physical_Switch"]["columns"]["tunnel_ips"] = {"type": "integer"}
    schema.pop("cksum", None)
    with open(rig.path("less.ovsschema"), "w", encoding="utf-8") as file:
        json.dump(schema, file)
    database = Server(rig, schema=rig.path("less.ovsschema")).start()
    goes_on(Agent(rig).follows(database.remote).start(), database.remote, "Logical_Switch", "tunnel_key",
            "Physical_Switch", "tunnel_ips")


def scenario_nobody_listens(rig):
    tcp = f"tcp:127.0.0.1:{free_ports(1)[0]}"
    agent = Agent(rig).follows(tcp).start()
    goes_on(agent, tcp, "Connection refused")
    check(agent.log().count("Connection refused") == 1, "said once, not at every attempt")


def scenario_garbage_on_the_wire(rig):
    impostor = Impostor(rig)
    agent = Agent(rig).follows(impostor.remote).start()
    impostor.accept().sendall(b"SSH-2.0-x\r\n")
    goes_on(agent, impostor.remote, "this is not OVSDB: a message begins with byte 83 instead of '{'")


def scenario_an_answer_that_is_no_json(rig):
    impostor = Impostor(rig)
    agent = Agent(rig).follows(impostor.remote).start()
    impostor.accept().sendall(b'{"id":"schema",,"result":nonsense}')
    goes_on(agent, impostor.remote, "JSON")


def scenario_a_peer_that_closes_its_half(rig):
    impostor = Impostor(rig)
    agent = Agent(rig).follows(impostor.remote).start()
    peer = impostor.accept()
    peer.shutdown(socket.SHUT_WR)
    goes_on(agent, impostor.remote, "the peer closed the connection")


def scenario_a_message_of_a_hundred_megabytes(rig):
    """No more of it is taken than a message may have while the session is made; the agent answers as ever."""
    impostor = Impostor(rig)
    agent = Agent(rig).follows(impostor.remote).start()
    peer = impostor.accept()
    piece = b'"xxxxxxxxxxxxxxxx",' * 50_000
    taken = 0
    try:
        peer.sendall(b'{"id":"schema","error":null,"result":[')
        for _ in range(105):
            peer.sendall(piece)
            taken += len(piece)
            check(agent.ask({"get": "/agent/pid"}) == {"value": agent.process.pid}, "the agent answers meanwhile")
    except (BrokenPipeError, ConnectionResetError):
        pass
    check(taken < 10 * len(piece), lambda: f"the session is left soon: {taken} bytes were taken")
    goes_on(agent, impostor.remote, "a message is larger than the 256 KiB allowed")


def scenario_a_control_client_that_never_reads(rig):
    """What waits for it is bounded, and nobody else waits."""
    agent = Agent(rig).start()
    hosts = {mac(number): {"vtepIp": "10.0.0.2"} for number in range(20_000)}
    for number in range(5):
        check(agent.ask({"patch": {"controller": {"fdb": {str(7000 + number): {"macVtepTable": hosts}}}}}) == {"ok": True},
              "the agent takes hosts")
    deaf = Lines(agent.socket)
    before = _memory(agent)
    for _ in range(100):
        deaf.file.write(b'{"get":"/input/controller"}\n')  # some 10 MB each
    deaf.file.write(b'{"subscribe":"/input/controller"}\n')
    deaf.file.flush()
    for number in range(20):
        change = {"controller": {"fdb": {"7000": {"macVtepTable": {mac(0): {"vtepIp": f"10.0.1.{number}"}}}}}}
        check(agent.ask({"patch": change}) == {"ok": True}, "others are answered")
    check(agent.get("/input/controller/fdb/7000/macVtepTable/" + mac(0))["vtepIp"] == "10.0.1.19", "and right")
    check(_memory(agent) < before + 500_000, lambda: f"memory is bounded: {before} kB, then {_memory(agent)} kB")
    deaf.close()


def scenario_a_table_that_is_full(rig):
    """What does not fit is left out, which is said, and is there when there is room for all."""
    database = Server(rig).start()
    controller = Published(database.session())
    agent = Agent(rig, "--table-limit", "100").follows(database.remote).start()
    controller.hosts(10, behind([mac(number) for number in range(150)], ["10.0.0.2"]))
    goes_on(agent, "table-full", rig.table, "limit of 100 records")
    check(agent.get("/agent/table/hosts") == 100, "the table has what fits")
    for number in range(0, 150, 2):
        controller.withdraw(10, mac(number))
    until("the rest is in the table",
          lambda: set(agent.get("/output/l2Rib/hosts/10", {})) == {mac(number) for number in range(1, 150, 2)})
    until("nothing is wrong any more", lambda: "table-full" not in agent.problems())


def scenario_a_recording_that_is_no_file(rig):
    """A FIFO without a reader, a device, a link: the agent does not start, and does not hang."""
    os.mkfifo(rig.path("fifo"), 0o600)
    os.symlink(rig.path("elsewhere"), rig.path("link"))
    for path in (rig.path("fifo"), rig.path("link"), "/dev/full"):
        agent = Agent(rig, "--record", path)
        agent.begin()
        check(agent.process.wait(60) == 2, "the agent does not start")
        check(path in agent.log() and "not a regular file" in agent.log(), agent.log())
    check(not os.path.exists(rig.path("elsewhere")), "and follows no link")


def scenario_a_disk_that_becomes_full(rig):
    """What was recorded until then can be replayed."""
    disk = rig.disk("disk", "64k")
    journal = os.path.join(disk, "journal")
    agent = Agent(rig, "--record", journal).start()
    for number in range(40):
        hosts = {mac(number * 100 + host): {"vtepIp": "10.0.0.2"} for host in range(100)}
        check(agent.ask({"patch": {"controller": {"fdb": {"7000": {"macVtepTable": hosts}}}}}) == {"ok": True},
              "the agent takes hosts")
    goes_on(agent, "the recording ends here", journal, "No space left on device")
    check(agent.get("/agent/vnis/7000/hosts") == 4000, "the agent has all of them")
    done = subprocess.run([rig.programs["agent"], "replay", journal], capture_output=True, text=True, check=False)
    check(done.returncode == 0 and " 0 patches" not in done.stderr, lambda: f"the journal is whole: {done.stderr}")


def scenario_a_recording_that_cannot_be_made(rig):
    agent = Agent(rig, "--record", rig.path("no/such/folder"))
    agent.begin()
    check(agent.process.wait(60) == 2, "the agent does not start")
    check("the recording" in agent.log() and "No such file or directory" in agent.log(), agent.log())


def scenario_a_second_agent_by_mistake(rig):
    """It does not start, and does not touch what the first one records."""
    first = Agent(rig, "--record", rig.path("journal")).start()
    check(first.ask({"patch": {"mlag": {"mlagState": 1}}}) == {"ok": True}, "the agent takes a patch")
    recorded = rig.text("journal")
    second = Agent(rig, "--record", rig.path("journal"), name="second")
    second.begin()
    check(second.process.wait(60) == 2, "the second agent does not start")
    check(rig.table in second.log(), lambda: f"it says why: {second.log()}")
    check("mlagState" in recorded and rig.text("journal") == recorded, "the recording is as it was")
    first.stop()
    first.start()
    check(rig.text("journal.1").startswith(recorded), "and kept by the next run")


def scenario_memory_that_is_full_for_a_moment(rig):
    """The hosts that the table refused are in it as soon as there is memory again, and are reported until then."""
    disk = rig.disk("memory", "6m")
    database = Server(rig).start()
    controller = Published(database.session())
    agent = Agent(rig, "--table-limit", "40000").follows(database.remote)
    agent.options[agent.options.index("--table") + 1] = os.path.join(disk, "table")
    agent.start()
    filler = os.path.join(disk, "filler")
    try:
        with open(filler, "wb", buffering=0) as file:
            while True:
                file.write(bytes(4096))
    except OSError:
        pass
    hosts = [mac(number) for number in range(20_000)]
    for first in range(0, len(hosts), 2000):
        controller.hosts(10, behind(hosts[first:first + 2000], ["10.0.0.2"]))
    until("the agent has read all rows", lambda: agent.database()["rows"]["Ucast_Macs_Remote"] == len(hosts))
    until("hosts wait", lambda: agent.get("/agent/table/waiting", 0) + agent.get("/agent/table/hosts") == len(hosts))
    goes_on(agent, "table-memory", "hosts wait for a place in the table", "No space left on device")
    there = agent.get("/output/l2Rib/hosts/10", {})
    absent = next(address for address in hosts if address not in there)
    told = agent.ask({"call": "explain", "params": {"mac": absent, "vlan": 10}})["value"]
    check("refused and waits" in told["verdict"] and not told["published"], lambda: f"explain says so: {told['verdict']}")
    os.unlink(filler)
    until("all hosts are in the table", lambda: agent.get("/agent/table/hosts") == len(hosts))
    check("table-memory" not in agent.problems(), "and nothing is wrong any more")


def _with_stderr(rig, agent, writer):
    """Starts an agent that says what it says to a descriptor."""
    agent.process = subprocess.Popen([rig.programs["agent"], "run", *agent.options], stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=writer, preexec_fn=end_with_parent)
    rig.processes.append(agent.process)
    os.close(writer)
    until("the agent answers", agent.answers)


def _says_much(agent, lines):
    for _ in range(lines):
        agent.process.send_signal(signal.SIGHUP)
        check(agent.ask({"get": "/agent/pid"}) == {"value": agent.process.pid}, "the agent answers")


def scenario_nobody_reads_what_the_agent_says(rig):
    """A pipe that is full holds up nothing, and what does not fit is counted."""
    agent = Agent(rig)
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
    _with_stderr(rig, agent, writer)
    _says_much(agent, 3000)
    with os.fdopen(reader, "rb", buffering=0) as log:
        said = b""
        while b"lines were left out here" not in said:
            some = log.read(65536)
            check(some, "the agent is there")
            said += some
            agent.process.send_signal(signal.SIGHUP)
    agent.stop()


def scenario_the_reader_of_what_the_agent_says_has_gone(rig):
    agent = Agent(rig)
    reader, writer = os.pipe()
    _with_stderr(rig, agent, writer)
    os.close(reader)
    _says_much(agent, 20)
    agent.stop()


def scenario_a_request_for_metrics_that_never_ends(rig):
    """Nobody else waits, and the agent's end does not either."""
    port = free_ports(1)[0]
    agent = Agent(rig, "--metrics", f"127.0.0.1:{port}").start()
    halves = []
    for _ in range(40):
        half = socket.create_connection(("127.0.0.1", port), timeout=60)
        half.sendall(b"GET /metrics HT")
        halves.append(half)
    with socket.create_connection(("127.0.0.1", port), timeout=60) as client:
        client.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
        page = b"".join(iter(lambda: client.recv(65536), b""))
    check(page.startswith(b"HTTP/1.1 200 OK") and b"\nvxlan_agent_hosts 0\n" in page, lambda: f"the page is served: {page[:200]}")
    agent.stop()
    for half in halves:
        half.close()


def _memory(agent):
    """What the agent has in memory, in kB."""
    with open(f"/proc/{agent.process.pid}/status", encoding="utf-8") as file:
        return int(next(line for line in file if line.startswith("VmRSS:")).split()[1])
