#include "agent/kernel/Wire.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <cstring>
#include <system_error>

namespace Agent::Kernel {

namespace {

constexpr std::size_t mostOfOneMessage = std::size_t{72}
                                         << 10U;  // A group of the most members that there can be.
constexpr std::uint16_t typeMask = 0x3fff;        // Without NLA_F_NESTED and NLA_F_NET_BYTEORDER.

std::array<std::uint8_t, 6> octets(Mac mac) {
  std::array<std::uint8_t, 6> out{};
  for (unsigned n = 0; n < 6; ++n) {
    out.at(n) = static_cast<std::uint8_t>(mac.bits >> (8 * (5 - n)));
  }
  return out;
}

// The attributes in `size` octets from `first` on, each given to `use` with its type.
template <typename Use>
void forEachAttribute(const void* first, std::size_t size, Use use) {
  const auto* attribute = static_cast<const nlattr*>(first);
  auto left = static_cast<int>(size);
  while (mnl_attr_ok(attribute, left)) {
    use(static_cast<std::uint16_t>(attribute->nla_type & typeMask), *attribute);
    left -= static_cast<int>((attribute->nla_len + 3U) & ~3U);
    attribute = mnl_attr_next(attribute);
  }
}

template <typename Header, typename Use>
const Header* readMessage(const nlmsghdr& message, Use use) {
  std::size_t payload = mnl_nlmsg_get_payload_len(&message);
  if (payload < sizeof(Header)) {
    return nullptr;
  }
  const void* attributes = mnl_nlmsg_get_payload_offset(&message, sizeof(Header));
  forEachAttribute(attributes, payload - ((sizeof(Header) + 3U) & ~3U), use);
  return static_cast<const Header*>(mnl_nlmsg_get_payload(&message));
}

template <typename Use>
void forEachNested(const nlattr& attribute, Use use) {
  forEachAttribute(mnl_attr_get_payload(&attribute), mnl_attr_get_payload_len(&attribute), use);
}

template <typename Value>
Value read(const nlattr& attribute) {
  Value value{};
  if (mnl_attr_get_payload_len(&attribute) >= sizeof(value)) {
    std::memcpy(&value, mnl_attr_get_payload(&attribute), sizeof(value));
  }
  return value;
}

Ip4 readIp4(const nlattr& attribute) {
  if (mnl_attr_get_payload_len(&attribute) != 4) {
    return {};
  }
  return {ntohl(read<std::uint32_t>(attribute))};
}

std::string readText(const nlattr& attribute) {
  const char* text = mnl_attr_get_str(&attribute);
  return {text, strnlen(text, mnl_attr_get_payload_len(&attribute))};
}

// ---------------------------------------------------------------------------------------------- requests

template <typename Header>
Header& begin(nlmsghdr& message, std::uint16_t type, std::uint16_t flags) {
  message.nlmsg_type = type;
  message.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  return *static_cast<Header*>(mnl_nlmsg_put_extra_header(&message, sizeof(Header)));
}

void putIp4(nlmsghdr& message, std::uint16_t type, Ip4 ip) {
  mnl_attr_put_u32(&message, type, htonl(ip.bits));
}

ndmsg& putEntry(nlmsghdr& message, std::uint16_t type, std::uint16_t flags, const FdbEntry& entry) {
  auto& header = begin<ndmsg>(message, type, flags);
  header.ndm_family = AF_BRIDGE;
  header.ndm_ifindex = entry.device;
  header.ndm_flags = entry.table == Table::device ? NTF_SELF : NTF_MASTER;
  auto address = octets(entry.mac);
  mnl_attr_put(&message, NDA_LLADDR, address.size(), address.data());
  return header;
}

void put(nlmsghdr& message, const FdbAdd& add) {
  std::uint16_t flags = NLM_F_ACK | NLM_F_CREATE;
  flags |= add.how == FdbAdd::How::create    ? NLM_F_EXCL
           : add.how == FdbAdd::How::replace ? NLM_F_REPLACE
                                             : NLM_F_APPEND;
  ndmsg& header = putEntry(message, RTM_NEWNEIGH, flags, add.entry);
  bool device = add.entry.table == Table::device;
  header.ndm_state = device ? NUD_NOARP | NUD_REACHABLE : NUD_REACHABLE;
  if (add.entry.marked) {
    header.ndm_flags |= NTF_EXT_LEARNED;
  }
  if (add.entry.nexthop != 0) {
    mnl_attr_put_u32(&message, NDA_NH_ID, add.entry.nexthop);
  }
  if (add.entry.dst) {
    putIp4(message, NDA_DST, add.entry.dst);
  }
}

void put(nlmsghdr& message, const FdbDel& del) {
  putEntry(message, RTM_DELNEIGH, NLM_F_ACK, del.entry);
  if (del.entry.dst) {
    putIp4(message, NDA_DST, del.entry.dst);
  }
}

void put(nlmsghdr& message, const FdbGet& get) {
  ndmsg& header = putEntry(message, RTM_GETNEIGH, NLM_F_ACK, get.entry);
  if (get.entry.table == Table::device) {
    return;
  }
  header.ndm_ifindex = 0;
  header.ndm_flags = 0;
  mnl_attr_put_u32(&message, NDA_MASTER, static_cast<std::uint32_t>(get.entry.bridge));
}

void put(nlmsghdr& message, const NexthopSet& set) {
  auto& header = begin<nhmsg>(message, RTM_NEWNEXTHOP, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE);
  const Nexthop& nexthop = set.nexthop;
  header.nh_family = nexthop.members.empty() ? AF_INET : AF_UNSPEC;
  header.nh_protocol = nexthop.protocol;
  mnl_attr_put_u32(&message, NHA_ID, nexthop.id);
  mnl_attr_put(&message, NHA_FDB, 0, nullptr);
  if (nexthop.members.empty()) {
    putIp4(message, NHA_GATEWAY, nexthop.gateway);
    return;
  }
  std::vector<nexthop_grp> group;
  for (NexthopId id : nexthop.members) {
    group.push_back({id, 0, 0, 0});
  }
  mnl_attr_put(&message, NHA_GROUP, group.size() * sizeof(nexthop_grp), group.data());
}

void put(nlmsghdr& message, const NexthopDel& del) {
  begin<nhmsg>(message, RTM_DELNEXTHOP, NLM_F_ACK);
  mnl_attr_put_u32(&message, NHA_ID, del.id);
}

void put(nlmsghdr& message, const LinkAdd& add) {
  auto& header = begin<ifinfomsg>(message, RTM_NEWLINK, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
  bool bridge = add.kind == LinkKind::bridge;
  if (bridge) {
    header.ifi_flags = header.ifi_change = IFF_UP;
  }
  mnl_attr_put_strz(&message, IFLA_IFNAME, add.name.c_str());
  if (add.group != 0) {
    mnl_attr_put_u32(&message, IFLA_GROUP, add.group);
  }
  if (add.master != 0) {
    mnl_attr_put_u32(&message, IFLA_MASTER, static_cast<std::uint32_t>(add.master));
  }
  nlattr* info = mnl_attr_nest_start(&message, IFLA_LINKINFO);
  mnl_attr_put_strz(&message, IFLA_INFO_KIND, bridge ? "bridge" : "vxlan");
  nlattr* data = mnl_attr_nest_start(&message, IFLA_INFO_DATA);
  if (bridge) {
    mnl_attr_put_u8(&message, IFLA_BR_MCAST_SNOOPING, 0);
  } else {
    mnl_attr_put_u32(&message, IFLA_VXLAN_ID, add.vni);
    putIp4(message, IFLA_VXLAN_LOCAL, add.local);
    mnl_attr_put_u16(&message, IFLA_VXLAN_PORT, htons(add.port));
    mnl_attr_put_u8(&message, IFLA_VXLAN_LEARNING, 0);
  }
  mnl_attr_nest_end(&message, data);
  mnl_attr_nest_end(&message, info);
}

void putLinkInfo(nlmsghdr& message, const LinkSet& set) {
  nlattr* info = mnl_attr_nest_start(&message, IFLA_LINKINFO);
  if (set.local || set.learning) {
    mnl_attr_put_strz(&message, IFLA_INFO_KIND, "vxlan");
    nlattr* data = mnl_attr_nest_start(&message, IFLA_INFO_DATA);
    if (set.local) {
      putIp4(message, IFLA_VXLAN_LOCAL, *set.local);
    }
    if (set.learning) {
      mnl_attr_put_u8(&message, IFLA_VXLAN_LEARNING, *set.learning ? 1 : 0);
    }
    mnl_attr_nest_end(&message, data);
  }
  if (set.portLearning || set.portIsolated) {
    mnl_attr_put_strz(&message, IFLA_INFO_SLAVE_KIND, "bridge");
    nlattr* data = mnl_attr_nest_start(&message, IFLA_INFO_SLAVE_DATA);
    if (set.portLearning) {
      mnl_attr_put_u8(&message, IFLA_BRPORT_LEARNING, *set.portLearning ? 1 : 0);
    }
    if (set.portIsolated) {
      mnl_attr_put_u8(&message, IFLA_BRPORT_ISOLATED, *set.portIsolated ? 1 : 0);
    }
    mnl_attr_nest_end(&message, data);
  }
  mnl_attr_nest_end(&message, info);
}

void put(nlmsghdr& message, const LinkSet& set) {
  auto& header = begin<ifinfomsg>(message, RTM_NEWLINK, NLM_F_ACK);
  header.ifi_index = set.index;
  if (set.up) {
    header.ifi_change = IFF_UP;
    header.ifi_flags = *set.up ? IFF_UP : 0;
  }
  if (set.group) {
    mnl_attr_put_u32(&message, IFLA_GROUP, *set.group);
  }
  if (set.alias) {
    mnl_attr_put_strz(&message, IFLA_IFALIAS, set.alias->c_str());
  }
  if (set.master) {
    mnl_attr_put_u32(&message, IFLA_MASTER, static_cast<std::uint32_t>(*set.master));
  }
  if (set.local || set.learning || set.portLearning || set.portIsolated) {
    putLinkInfo(message, set);
  }
}

void put(nlmsghdr& message, const LinkDel& del) {
  begin<ifinfomsg>(message, RTM_DELLINK, NLM_F_ACK).ifi_index = del.index;
}

void put(nlmsghdr& message, const Dump& dump) {
  switch (dump.what) {
    case Dump::What::links:
      begin<ifinfomsg>(message, RTM_GETLINK, NLM_F_DUMP);
      mnl_attr_put_u32(&message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
      break;
    case Dump::What::nexthops:
      begin<nhmsg>(message, RTM_GETNEXTHOP, NLM_F_DUMP);
      break;
    case Dump::What::entries:
      begin<ndmsg>(message, RTM_GETNEIGH, NLM_F_DUMP).ndm_family = AF_BRIDGE;
      break;
  }
}

// ----------------------------------------------------------------------------------------------- reports

void readVxlan(const nlattr& data, Link& link) {
  forEachNested(data, [&link](std::uint16_t type, const nlattr& attribute) {
    if (type == IFLA_VXLAN_ID) {
      link.vni = read<std::uint32_t>(attribute);
    }
    if (type == IFLA_VXLAN_LOCAL) {
      link.local = readIp4(attribute);
    }
    if (type == IFLA_VXLAN_PORT) {
      link.port = ntohs(read<std::uint16_t>(attribute));
    }
    if (type == IFLA_VXLAN_LEARNING) {
      link.learning = read<std::uint8_t>(attribute) != 0;
    }
  });
}

void readPortSettings(const nlattr& data, bool& learning, bool& isolated) {
  forEachNested(data, [&](std::uint16_t type, const nlattr& attribute) {
    if (type == IFLA_BRPORT_LEARNING) {
      learning = read<std::uint8_t>(attribute) != 0;
    }
    if (type == IFLA_BRPORT_ISOLATED) {
      isolated = read<std::uint8_t>(attribute) != 0;
    }
  });
}

void readLinkInfo(const nlattr& info, Link& link) {
  const nlattr* data = nullptr;
  const nlattr* slaveData = nullptr;
  std::string kind;
  std::string slaveKind;
  forEachNested(info, [&](std::uint16_t type, const nlattr& attribute) {
    if (type == IFLA_INFO_KIND) {
      kind = readText(attribute);
    }
    if (type == IFLA_INFO_DATA) {
      data = &attribute;
    }
    if (type == IFLA_INFO_SLAVE_KIND) {
      slaveKind = readText(attribute);
    }
    if (type == IFLA_INFO_SLAVE_DATA) {
      slaveData = &attribute;
    }
  });
  if (kind == "bridge") {
    link.kind = LinkKind::bridge;
  }
  if (kind == "vxlan") {
    link.kind = LinkKind::vxlan;
  }
  if (link.kind == LinkKind::vxlan && data != nullptr) {
    readVxlan(*data, link);
  }
  if (slaveKind == "bridge" && slaveData != nullptr) {
    readPortSettings(*slaveData, link.portLearning, link.portIsolated);
  }
}

Mac readMac(const nlattr& attribute) {
  auto address = read<std::array<std::uint8_t, 6>>(attribute);
  Mac mac;
  for (std::uint8_t octet : address) {
    mac.bits = (mac.bits << 8U) | octet;
  }
  return mac;
}

}  // namespace

void Messages::add(const Request& request, std::uint32_t sequence) {
  if (buffer_.size() < size_ + mostOfOneMessage) {
    buffer_.resize(size_ + mostOfOneMessage);
  }
  nlmsghdr& message = *mnl_nlmsg_put_header(buffer_.data() + size_);
  message.nlmsg_seq = sequence;
  std::visit([&message](const auto& what) { put(message, what); }, request);
  size_ += (message.nlmsg_len + 3U) & ~3U;
}

Answer readAnswer(const nlmsghdr& message) {
  Answer answer;
  std::size_t payload = mnl_nlmsg_get_payload_len(&message);
  if (payload < sizeof(nlmsgerr)) {
    return {EBADMSG, "a truncated answer"};
  }
  const auto* header = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message));
  answer.error = -header->error;
  if (answer.error == 0) {
    return answer;
  }
  answer.text = std::generic_category().message(answer.error);
  if ((message.nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
    return answer;
  }
  std::size_t skip = sizeof(nlmsgerr);
  if ((message.nlmsg_flags & NLM_F_CAPPED) == 0) {
    skip += ((header->msg.nlmsg_len + 3U) & ~3U) - sizeof(nlmsghdr);
  }
  if (skip >= payload) {
    return answer;
  }
  forEachAttribute(mnl_nlmsg_get_payload_offset(&message, skip), payload - skip,
                   [&answer](std::uint16_t type, const nlattr& attribute) {
                     if (type == NLMSGERR_ATTR_MSG) {
                       answer.text += ": " + readText(attribute);
                     }
                   });
  return answer;
}

bool readInterrupted(const nlmsghdr& message) {
  return (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
}

int readDone(const nlmsghdr& message) {
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(int)) {
    return 0;
  }
  return -*static_cast<const int*>(mnl_nlmsg_get_payload(&message));
}

std::optional<Link> readLink(const nlmsghdr& message) {
  Link link;
  const auto* header = readMessage<ifinfomsg>(message, [&link](std::uint16_t type, const nlattr& attribute) {
    if (type == IFLA_IFNAME) {
      link.name = readText(attribute);
    }
    if (type == IFLA_IFALIAS) {
      link.alias = readText(attribute);
    }
    if (type == IFLA_GROUP) {
      link.group = read<std::uint32_t>(attribute);
    }
    if (type == IFLA_MASTER) {
      link.master = read<IfIndex>(attribute);
    }
    if (type == IFLA_LINKINFO) {
      readLinkInfo(attribute, link);
    }
  });
  if (header == nullptr || header->ifi_family != AF_UNSPEC) {
    return std::nullopt;
  }
  link.index = header->ifi_index;
  link.up = (header->ifi_flags & static_cast<unsigned>(IFF_UP)) != 0;
  return link;
}

std::optional<BridgePort> readBridgePort(const nlmsghdr& message) {
  BridgePort port;
  bool told = false;
  const auto* header = readMessage<ifinfomsg>(message, [&](std::uint16_t type, const nlattr& attribute) {
    if (type == IFLA_MASTER) {
      port.bridge = read<IfIndex>(attribute);
    }
    if (type == IFLA_PROTINFO) {
      told = true;
      readPortSettings(attribute, port.learning, port.isolated);
    }
  });
  if (header == nullptr || header->ifi_family != AF_BRIDGE || !told || port.bridge == 0) {
    return std::nullopt;
  }
  port.index = header->ifi_index;
  return port;
}

std::optional<FdbEntry> readEntry(const nlmsghdr& message) {
  FdbEntry entry;
  std::uint16_t vlan = 0;
  const auto* header = readMessage<ndmsg>(message, [&](std::uint16_t type, const nlattr& attribute) {
    switch (type) {
      case NDA_LLADDR:
        entry.mac = readMac(attribute);
        break;
      case NDA_DST:
        entry.dst = readIp4(attribute);
        break;
      case NDA_NH_ID:
        entry.nexthop = read<NexthopId>(attribute);
        break;
      case NDA_MASTER:
        entry.bridge = read<IfIndex>(attribute);
        break;
      case NDA_VLAN:
        vlan = read<std::uint16_t>(attribute);
        break;
      default:
        break;
    }
  });
  if (header == nullptr || header->ndm_family != AF_BRIDGE || vlan != 0) {
    return std::nullopt;
  }
  entry.device = header->ndm_ifindex;
  entry.table = entry.bridge != 0 ? Table::bridge : Table::device;
  entry.marked = (header->ndm_flags & NTF_EXT_LEARNED) != 0;
  bool lasting =
      (header->ndm_state & (NUD_NOARP | NUD_PERMANENT)) != 0 || (header->ndm_flags & NTF_STICKY) != 0;
  entry.learned = entry.table == Table::bridge && !entry.marked && !lasting;
  return entry;
}

std::optional<Nexthop> readNexthop(const nlmsghdr& message) {
  Nexthop nexthop;
  const auto* header = readMessage<nhmsg>(message, [&nexthop](std::uint16_t type, const nlattr& attribute) {
    if (type == NHA_ID) {
      nexthop.id = read<NexthopId>(attribute);
    }
    if (type == NHA_FDB) {
      nexthop.fdb = true;
    }
    if (type == NHA_GATEWAY) {
      nexthop.gateway = readIp4(attribute);
    }
    if (type != NHA_GROUP) {
      return;
    }
    const auto* members = static_cast<const nexthop_grp*>(mnl_attr_get_payload(&attribute));
    std::size_t count = mnl_attr_get_payload_len(&attribute) / sizeof(nexthop_grp);
    for (std::size_t n = 0; n < count; ++n) {
      nexthop.members.push_back(members[n].id);
    }
  });
  if (header == nullptr) {
    return std::nullopt;
  }
  nexthop.protocol = header->nh_protocol;
  return nexthop;
}

}  // namespace Agent::Kernel
