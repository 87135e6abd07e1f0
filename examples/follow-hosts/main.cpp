// Follows the table of hosts that a VXLAN agent keeps in shared memory: prints all there are, then each
// change.
//
//   follow-hosts NAME [EVENTS]
//
// NAME is the table, such as /vxlan-agent.hosts. Ends after so many lines; without a number it goes on.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <thread>

#include "Files/Owners.h"
#include "Memtab/Reader.h"
#include "Vxlan/types/L2RibHost.h"

namespace {

using Reader = Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue>;

// Prints a line for each event, and knows when it has printed enough.
class Printer {
 public:
  explicit Printer(long most) : most_(most) {}

  bool done() const { return most_ != 0 && printed_ >= most_; }
  void begin() { print() << "= all hosts:" << std::endl; }
  void is(const Bridging::MacVlanPair& key, const L2Rib::HostValue& host) {
    print() << "+ " << key << " behind " << host.dest.vtepAddr(L2Rib::CiVtepIndex::First).text() << std::endl;
  }
  void gone(const Bridging::MacVlanPair& key) { print() << "- " << key << std::endl; }

 private:
  std::ostream& print() {
    ++printed_;
    return std::cout;
  }

  long most_;
  long printed_ = 0;
};

void follow(Reader& reader, Printer& printer) {
  Memtab::Position position;
  while (!printer.done()) {
    const Memtab::Followed followed = reader.follow(
        position,
        [&](const Bridging::MacVlanPair& key, const std::optional<L2Rib::HostValue>& host) {
          host ? printer.is(key, *host) : printer.gone(key);
        },
        [&] { printer.begin(); });
    if (followed.calls == 0 && !printer.done()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: follow-hosts NAME [EVENTS]\n";
    return 2;
  }
  try {
    // The agent's own user may own the table, beside root and the user who runs this.
    Reader reader(argv[1], L2Rib::hostSchema, Files::userOf("vxlan-agent"));
    Printer printer(argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0);
    follow(reader, printer);
    return 0;
  } catch (const Memtab::Error& error) {
    std::cerr << "follow-hosts: " << error.what() << '\n';
    return 2;
  }
}
