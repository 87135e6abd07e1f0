// Writes a table of hosts as it is told on standard input: "is NUMBER", "del NUMBER", "publish" (answered by
// a line).
#include <iostream>
#include <string>

#include "Kel/Activity.h"
#include "Vxlan/types/HostInput.h"

int main(int, char** argv) {
  L2Rib::HostInput hosts({.name = argv[1], .limit = 1000});
  std::string command;
  std::uint32_t number = 0;
  while (std::cin >> command) {
    if (command == "publish") {
      Kel::ActivityLoop::instance().turn();
      std::cout << "published" << std::endl;
      continue;
    }
    std::cin >> number;
    L2Rib::Host host;
    host.key = {Qnet::EthAddr(0x020000000000 + number), Bridging::VlanId(10)};
    host.dest = L2Rib::CiDest(L2Rib::DestType::VxlanVtep);
    host.dest.vtepAddrIs(L2Rib::CiVtepIndex::First, Qnet::IpAddr(0x0a000000 + number));
    command == "is" ? hosts.hostIs(host) : hosts.hostDel(host.key);
  }
}
