// The C interface of the host table's reader: hosts (MAC address and VLAN) that a VXLAN agent keeps in shared
// memory.
//
// A reader takes no lock, writes nothing, and waits for nobody. Each host is seen whole, as it was written at
// one instant. Nothing here raises an exception, ends the process, or changes its signals. A handle belongs
// to one thread at a time; several handles are independent of each other.
//
// The interface is kept for years. Structures grow at their ends alone, out of their reserved room, and say
// their size; enumerators and functions are added, never changed. A caller ignores what it does not know:
// events, error codes and values of fields that this header does not name.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VXLAN_HOSTS_API __attribute__((visibility("default")))

// What a call returns that failed; every one is below 0. vxlan_hosts_error() has the text.
enum {
  VXLAN_HOSTS_EINVAL = -1,  // an argument: a null pointer, a size that is too small, a user that there is not
  VXLAN_HOSTS_EREFUSED =
      -2,  // what is under the name is no table of hosts, belongs to a stranger, or may not be read
  VXLAN_HOSTS_EDAMAGED = -3,  // the table is damaged; the reader goes over to the one that takes its place
  VXLAN_HOSTS_ENOMEM = -4,    // there is no memory
  VXLAN_HOSTS_ESTOPPED = -5,  // the caller's own function ended the call
  VXLAN_HOSTS_EFAILED = -6    // anything else
};

// Families of addresses, as a number in vxlan_hosts_address.
enum { VXLAN_HOSTS_NO_ADDRESS = 0, VXLAN_HOSTS_IPV4 = 4, VXLAN_HOSTS_IPV6 = 6 };

// An address, its first byte first: 4 bytes of IPv4, 16 of IPv6, zeros behind.
typedef struct vxlan_hosts_address {
  uint32_t family;
  uint8_t bytes[16];
} vxlan_hosts_address;

// A host. Set `size` to sizeof(vxlan_host) in one that you pass; in one that you get, it is what the library
// filled.
typedef struct vxlan_host {
  uint32_t size;
  uint8_t mac[6];           // as it is written, first byte first
  uint16_t vlan;            // 1 to 4094
  uint32_t entry_type;      // where it came from; 10: the controller
  uint32_t dest_type;       // 1: behind a VTEP
  double last_update_time;  // seconds of the writer's monotonic clock
  uint64_t sequence;
  uint32_t move_count;
  uint32_t host_attr;
  uint32_t learn_attr;
  uint32_t flags;
  char intf[24];  // the interface, ended by a zero byte; empty: none
  vxlan_hosts_address vtep[2];
  uint64_t reserved[4];  // zeros
} vxlan_host;

// How the table stands. Set `size` before the call.
typedef struct vxlan_hosts_state {
  uint32_t size;
  uint32_t attached;    // 1: there is a table; 0: not yet, and all else is 0
  uint64_t generation;  // a number that no other table under this name has had
  uint64_t turn;   // number of the last publication: what is deleted or added together, is so in one turn
  uint64_t hosts;  // at the last publication
  uint64_t limit;  // the most hosts that the table may have
  uint64_t reserved[4];
} vxlan_hosts_state;

// How far a table was followed. All zeros: from the very beginning. Its content is the library's.
typedef struct vxlan_hosts_cursor {
  uint64_t generation;
  uint64_t change;
  uint64_t reserved[2];
} vxlan_hosts_cursor;

// The events of a changed host.
enum {
  VXLAN_HOSTS_BEGIN = 1,  // begin again: forget every host; all that there are follow. The host is null
  VXLAN_HOSTS_IS = 2,     // added or replaced: the host as it is at present
  VXLAN_HOSTS_GONE = 3    // deleted: of the host, `mac` and `vlan` alone
};

// A reader of one table.
typedef struct vxlan_hosts vxlan_hosts;

// Called for each host of a walk, and for each event. The host is valid during the call. Returns 0 to go on.
// It must not raise an exception, nor use the handle.
typedef int (*vxlan_hosts_visit)(void* context, const vxlan_host* host);
typedef int (*vxlan_hosts_follow)(void* context, int event, const vxlan_host* host);

// Opens the table `name`: "/name" in shared memory, or the path of a file. It is read if it belongs to root,
// to the own user, or to `owner`, a user by name or number (null: nobody else), and nobody else may write to
// it. That there is no such table yet is no error: the reader is empty until there is. Returns 0, or an
// error, and null in `*hosts`.
VXLAN_HOSTS_API int vxlan_hosts_open(const char* name, const char* owner, vxlan_hosts** hosts);

// Closes it; null is no error.
VXLAN_HOSTS_API void vxlan_hosts_close(vxlan_hosts* hosts);

// Returns 0 and how the table stands, or an error.
VXLAN_HOSTS_API int vxlan_hosts_stand(vxlan_hosts* hosts, vxlan_hosts_state* state);

// Looks a host up. Returns 1 and the host, 0 when it is not there, or an error.
VXLAN_HOSTS_API int vxlan_hosts_lookup(vxlan_hosts* hosts, const uint8_t mac[6], uint16_t vlan,
                                       vxlan_host* host);

// Visits every host, in no order. One that is there from beginning to end is met once; one that comes or goes
// meanwhile, perhaps. The same turn before and after: it was the content of that turn. Returns how many, or
// an error.
VXLAN_HOSTS_API int64_t vxlan_hosts_walk(vxlan_hosts* hosts, vxlan_hosts_visit visit, void* context);

// Reports the changes since `cursor`, and moves it. A host that changed several times is reported with its
// last state. All hosts are reported, after VXLAN_HOSTS_BEGIN, at the first call, when another table took the
// name, and when more has changed than the table remembers. Returns the number of hosts reported, or an
// error: then the cursor stays, and the next call reports them again.
VXLAN_HOSTS_API int64_t vxlan_hosts_changes(vxlan_hosts* hosts, vxlan_hosts_cursor* cursor,
                                            vxlan_hosts_follow follow, void* context);

// What went wrong in the last call of this thread that failed; empty when none did. Valid until the next
// failure.
VXLAN_HOSTS_API const char* vxlan_hosts_error(void);

// The version of this interface that the library has: 1.
VXLAN_HOSTS_API uint32_t vxlan_hosts_version(void);

#ifdef __cplusplus
}
#endif
