#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "agent/kernel/Messages.h"
#include "agent/kernel/Options.h"

// Requests and reports as rtnetlink messages (linux/rtnetlink.h, linux/neighbour.h, linux/nexthop.h), and
// back.
namespace Agent::Kernel {

// Netlink messages one after the other, for one sendmsg.
class Messages {
 public:
  // Appends the request with this sequence number; every request but a dump asks for an acknowledgement.
  void add(const Request& request, std::uint32_t sequence);
  void clear() { size_ = 0; }
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  const char* data() const { return buffer_.data(); }

 private:
  std::vector<char> buffer_;
  std::size_t size_ = 0;
};

// An answer to a request.
struct Answer {
  int error = 0;     // An errno; 0 is an acknowledgement.
  std::string text;  // The kernel's own words if it has some, else the errno's; empty without error.
};

Answer readAnswer(const nlmsghdr& message);
// Whether a dump saw tables that changed meanwhile.
bool readInterrupted(const nlmsghdr& message);
// The errno that a dump ended with; 0 is success.
int readDone(const nlmsghdr& message);
// Reads RTM_NEWLINK or RTM_DELLINK; nothing for a bridge's own report on its port.
std::optional<Link> readLink(const nlmsghdr& message);
// Reads RTM_NEWLINK of the family AF_BRIDGE, a bridge's report on its port; nothing for any other.
std::optional<BridgePort> readBridgePort(const nlmsghdr& message);
// Reads RTM_NEWNEIGH or RTM_DELNEIGH; nothing for an entry of another family or of a VLAN within a bridge.
std::optional<FdbEntry> readEntry(const nlmsghdr& message);
// Reads RTM_NEWNEXTHOP or RTM_DELNEXTHOP.
std::optional<Nexthop> readNexthop(const nlmsghdr& message);

}  // namespace Agent::Kernel
