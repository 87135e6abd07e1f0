"""Reads the table of hosts that a VXLAN agent keeps in shared memory.

    import vxlan_hosts

    with vxlan_hosts.Hosts("/vxlan-agent.hosts", owner="vxlan-agent") as hosts:
        print(hosts.lookup("02:00:00:00:00:01", 10))
        for host in hosts:
            print(host.mac, host.vlan, host.vteps)
        for event, host in hosts.changes():    # everything at first, after BEGIN; then what changed since
            ...

It stands on libvxlan-hosts.so.1, the C interface of the reader. A reader takes no lock and never disturbs the writer.
"""

import ctypes
import ipaddress
from dataclasses import dataclass

BEGIN, IS, GONE = 1, 2, 3


class Error(Exception):
    """A table that cannot be read, or a wrong argument; the text says which and why."""


@dataclass(frozen=True)
class Host:
    """A host; of one that is gone, mac and vlan alone."""

    mac: str
    vlan: int
    vteps: tuple = ()
    interface: str = ""
    entry_type: int = 0
    dest_type: int = 0
    last_update_time: float = 0.0
    sequence: int = 0
    move_count: int = 0
    host_attr: int = 0
    learn_attr: int = 0
    flags: int = 0


class _Address(ctypes.Structure):
    _fields_ = [("family", ctypes.c_uint32), ("bytes", ctypes.c_uint8 * 16)]


class _Host(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("mac", ctypes.c_uint8 * 6), ("vlan", ctypes.c_uint16),
                ("entry_type", ctypes.c_uint32), ("dest_type", ctypes.c_uint32), ("last_update_time", ctypes.c_double),
                ("sequence", ctypes.c_uint64), ("move_count", ctypes.c_uint32), ("host_attr", ctypes.c_uint32),
                ("learn_attr", ctypes.c_uint32), ("flags", ctypes.c_uint32), ("intf", ctypes.c_char * 24),
                ("vtep", _Address * 2), ("reserved", ctypes.c_uint64 * 4)]


class _State(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("attached", ctypes.c_uint32), ("generation", ctypes.c_uint64),
                ("turn", ctypes.c_uint64), ("hosts", ctypes.c_uint64), ("limit", ctypes.c_uint64),
                ("reserved", ctypes.c_uint64 * 4)]


class _Cursor(ctypes.Structure):
    _fields_ = [("generation", ctypes.c_uint64), ("change", ctypes.c_uint64), ("reserved", ctypes.c_uint64 * 2)]


_VISIT = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(_Host))
_FOLLOW = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_int, ctypes.POINTER(_Host))

_library = ctypes.CDLL("libvxlan-hosts.so.1")
_library.vxlan_hosts_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_void_p)]
_library.vxlan_hosts_close.argtypes = [ctypes.c_void_p]
_library.vxlan_hosts_close.restype = None
_library.vxlan_hosts_stand.argtypes = [ctypes.c_void_p, ctypes.POINTER(_State)]
_library.vxlan_hosts_lookup.argtypes = [ctypes.c_void_p, ctypes.c_uint8 * 6, ctypes.c_uint16, ctypes.POINTER(_Host)]
_library.vxlan_hosts_walk.argtypes = [ctypes.c_void_p, _VISIT, ctypes.c_void_p]
_library.vxlan_hosts_walk.restype = ctypes.c_int64
_library.vxlan_hosts_changes.argtypes = [ctypes.c_void_p, ctypes.POINTER(_Cursor), _FOLLOW, ctypes.c_void_p]
_library.vxlan_hosts_changes.restype = ctypes.c_int64
_library.vxlan_hosts_error.restype = ctypes.c_char_p


def _checked(result):
    if result < 0:
        raise Error(_library.vxlan_hosts_error().decode(errors="replace"))
    return result


def _address(address):
    if address.family == 4:
        return str(ipaddress.IPv4Address(bytes(address.bytes[:4])))
    if address.family == 6:
        return str(ipaddress.IPv6Address(bytes(address.bytes)))
    return None


def _host(raw):
    return Host(":".join(f"{byte:02x}" for byte in raw.mac), raw.vlan,
                tuple(address for address in map(_address, raw.vtep) if address is not None),
                raw.intf.decode(errors="replace"), raw.entry_type, raw.dest_type, raw.last_update_time, raw.sequence,
                raw.move_count, raw.host_attr, raw.learn_attr, raw.flags)


class Hosts:
    """A reader of one table, for one thread at a time.

    name: "/name" in shared memory, or the path of a file. owner: one more user, by name or number, whose table is read,
    beside root's and one's own. There need not be a table yet.
    """

    def __init__(self, name, owner=None):
        self._handle = ctypes.c_void_p()
        self._cursor = _Cursor()
        _checked(_library.vxlan_hosts_open(name.encode(), None if owner is None else str(owner).encode(),
                                           ctypes.byref(self._handle)))

    def close(self):
        _library.vxlan_hosts_close(self._handle)
        self._handle = ctypes.c_void_p()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _state(self):
        state = _State(size=ctypes.sizeof(_State))
        _checked(_library.vxlan_hosts_stand(self._handle, ctypes.byref(state)))
        return state

    @property
    def attached(self):
        """Whether there is a table."""
        return self._state().attached != 0

    @property
    def generation(self):
        return self._state().generation

    @property
    def turn(self):
        """Number of the last publication."""
        return self._state().turn

    def __len__(self):
        return self._state().hosts

    def lookup(self, mac, vlan):
        """The host of a MAC address, such as "02:00:00:00:00:01", and a VLAN; None when it is not there."""
        try:
            octets = bytes.fromhex(mac.replace(":", ""))
        except ValueError:
            octets = b""
        if len(octets) != 6 or not 0 <= vlan <= 0xffff:
            raise Error(f'"{mac}" and {vlan} are no MAC address and VLAN')
        host = _Host(size=ctypes.sizeof(_Host))
        found = _checked(_library.vxlan_hosts_lookup(self._handle, (ctypes.c_uint8 * 6)(*octets), vlan,
                                                     ctypes.byref(host)))
        return _host(host) if found else None

    def __iter__(self):
        """All hosts, in no order."""
        hosts = []

        def visit(_, host):
            hosts.append(_host(host.contents))
            return 0

        _checked(_library.vxlan_hosts_walk(self._handle, _VISIT(visit), None))
        return iter(hosts)

    def changes(self):
        """What has changed since the last call, as pairs of IS or GONE and the host. (BEGIN, None) says that what was
        known counts no longer: all hosts follow. It comes at the first call."""
        events = []

        def follow(_, event, host):
            if event in (BEGIN, IS, GONE):
                events.append((event, _host(host.contents) if host else None))
            return 0

        _checked(_library.vxlan_hosts_changes(self._handle, ctypes.byref(self._cursor), _FOLLOW(follow), None))
        return events
