// Loaded before the agent (LD_PRELOAD), it makes the kernel look as if it lacked what LAB_LACKS names:
// "nexthops", "nexthops for rows", "vxlan" or "bridge". The requests of the agent for it are changed on their
// way into what no kernel knows; the answer is the kernel's own.
#include <dlfcn.h>
#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::uint16_t noSuchMessage = 0x3f0;
constexpr std::uint16_t noSuchAttribute = 100;
constexpr std::size_t attributeHead = sizeof(nlattr);
constexpr std::size_t messageHead = sizeof(nlmsghdr);

constexpr std::size_t padded(std::size_t length) {
  return (length + 3U) & ~std::size_t{3};
}

std::string_view lacks() {
  const char* what = std::getenv("LAB_LACKS");
  return what == nullptr ? std::string_view() : what;
}

// The kind of a device is an attribute of its own: length, type, and text.
void renameKind(char* begin, char* end, std::string_view kind) {
  std::string attribute;
  attribute.push_back(static_cast<char>(attributeHead + kind.size() + 1));
  attribute.append({'\0', IFLA_INFO_KIND, '\0'}).append(kind).push_back('\0');
  char* found = std::search(begin, end, attribute.begin(), attribute.end());
  if (found != end) found[attributeHead] = '?';
}

void renameAttribute(char* begin, char* end, std::uint16_t type) {
  while (begin < end && static_cast<std::size_t>(end - begin) >= attributeHead) {
    nlattr head{};
    std::memcpy(&head, begin, sizeof(head));
    if (head.nla_len < attributeHead) return;
    if (head.nla_type == type) head.nla_type = noSuchAttribute;
    std::memcpy(begin, &head, sizeof(head));
    begin += padded(head.nla_len);
  }
}

void change(nlmsghdr& head, char* body, char* end) {
  const bool nexthop = head.nlmsg_type >= RTM_NEWNEXTHOP && head.nlmsg_type <= RTM_GETNEXTHOP;
  if (nexthop && lacks() == "nexthops") {
    head.nlmsg_type = noSuchMessage;
  } else if (head.nlmsg_type == RTM_NEWNEXTHOP && lacks() == "nexthops for rows") {
    renameAttribute(body + padded(sizeof(nhmsg)), end, NHA_FDB);
  } else if (head.nlmsg_type == RTM_NEWLINK) {
    renameKind(body, end, lacks());
  }
}

void changeAll(std::vector<char>& messages) {
  std::size_t at = 0;
  while (at + messageHead <= messages.size()) {
    nlmsghdr head{};
    char* begin = messages.data() + at;
    std::memcpy(&head, begin, sizeof(head));
    const std::size_t length = std::min<std::size_t>(head.nlmsg_len, messages.size() - at);
    if (length < messageHead) return;
    change(head, begin + messageHead, begin + length);
    std::memcpy(begin, &head, sizeof(head));
    at += padded(length);
  }
}

bool toKernel(int fd) {
  int domain = 0;
  socklen_t size = sizeof(domain);
  return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_NETLINK;
}

}  // namespace

extern "C" ssize_t send(int fd, const void* data, std::size_t size, int flags) {
  using Send = ssize_t (*)(int, const void*, std::size_t, int);
  static const Send real = reinterpret_cast<Send>(::dlsym(RTLD_NEXT, "send"));
  if (lacks().empty() || !toKernel(fd)) return real(fd, data, size, flags);
  const char* begin = static_cast<const char*>(data);
  std::vector<char> messages(begin, begin + size);
  changeAll(messages);
  return real(fd, messages.data(), size, flags);
}
