#include "Vxlan/types/HostInput.h"

#include <algorithm>
#include <ostream>

#include "Memtab/BusError.h"

namespace L2Rib {
namespace {

Memtab::Options tableOptions(const HostInput::Options& options) {
  Memtab::Options table;
  table.name = options.name;
  table.schema = hostSchema;
  table.fields = hostFields;
  table.limit = options.limit;
  table.mode = options.mode;
  table.owner = options.owner;
  table.replaceDamaged = options.replaceDamaged;
  table.seed = options.seed;
  return table;
}

Host hostOf(const Bridging::MacVlanPair& key, const HostValue& value) {
  Host host;
  static_cast<HostValue&>(host) = value;
  host.key = key;
  return host;
}

template <class Record>
std::optional<Host> hostOf(const Record& record) {
  return record ? std::optional(hostOf(record->first, record->second)) : std::nullopt;
}

}  // namespace

InlineIntf::InlineIntf(const Qnet::IntfId& intf) {
  const std::string& text = intf.text();
  if (text.size() > Qnet::IntfId::maxLength) {
    Kel::throwRangeException("interface name \"" + text + "\" is longer than " +
                             std::to_string(Qnet::IntfId::maxLength) + " characters");
  }
  std::copy(text.begin(), text.end(), text_.begin());
}

HostInput::HostInput(const Options& options) : table_(tableOptions(options)) {
  Kel::ActivityLoop::instance().atTurnEnd(&publish, this);
}

HostInput::~HostInput() {
  Kel::ActivityLoop::instance().forgetTurnEnd(this);
  table_.publish();
}

void HostInput::publish(void* self) {
  static_cast<HostInput*>(self)->table_.publish();
}

void HostInput::signal(const Bridging::MacVlanPair& key) {
  if (reactors() != 0) {
    changed_.signal(key);
  }
}

Host HostInput::host(const Bridging::MacVlanPair& key) const {
  return findHost(key).value_or(Host());
}

std::optional<Host> HostInput::findHost(const Bridging::MacVlanPair& key) const {
  const auto value = table_.find(key);
  return value ? std::optional(hostOf(key, *value)) : std::nullopt;
}

bool HostInput::hasHost(const Bridging::MacVlanPair& key) const {
  return table_.contains(key);
}

std::size_t HostInput::hosts() const {
  return table_.size();
}

std::size_t HostInput::limit() const {
  return table_.limit();
}

std::uint64_t HostInput::bytesTaken() const {
  return table_.bytesTaken();
}

const std::string& HostInput::damage() const {
  return table_.damage();
}

bool HostInput::replacing() const {
  return table_.replacing();
}

void HostInput::takePlace() {
  table_.takePlace();
}

std::size_t HostInput::sweep(std::size_t atMost) {
  return table_.sweep(atMost);
}

void HostInput::refusalsAre(Refusals refusals) {
  refusals_ = std::move(refusals);
}

// False when the table refused the host and somebody looks after it.
bool HostInput::write(const Host& host) {
  if (!refusals_.refused) {
    table_.is(host.key, host);
    return true;
  }
  try {
    table_.is(host.key, host);
  } catch (const Memtab::Error& why) {
    refusals_.refused(host, why);
    return false;
  }
  refusals_.done(host.key, false);
  return true;
}

void HostInput::hostIs(const Host& host) {
  if (!write(host)) {
    return;
  }
  signal(host.key);
  Kel::ActivityLoop::instance().turnHasWritten();
}

void HostInput::hostDel(const Bridging::MacVlanPair& key) {
  const bool removed = table_.del(key);
  if (refusals_.done) {
    refusals_.done(key, true);
  }
  if (removed) {
    signal(key);
    Kel::ActivityLoop::instance().turnHasWritten();
  }
}

// As of any collection: a handler of its own, so that the keyed callbacks come behind the whole one, and all
// of it is one turn for readers.
void HostInput::hostDelAll() {
  if (table_.empty()) {
    return;
  }
  Kel::ActivityLoop::instance().asHandler([&] {
    for (auto host = table_.first(); host; host = table_.next(host->first)) {
      hostDel(host->first);
    }
    changed_.signalWhole();
  });
}

void HostInput::endOnTruncation(const char* program) {
  Memtab::endOnTruncation(program);
}

std::optional<Host> HostInput::firstHost() const {
  return hostOf(table_.first());
}

std::optional<Host> HostInput::nextHost(const Bridging::MacVlanPair& key) const {
  return hostOf(table_.next(key));
}

std::ostream& operator<<(std::ostream& stream, const Host& host) {
  return stream << host.key << " on " << host.dest.intf().text() << " behind "
                << host.dest.vtepAddr(CiVtepIndex::First) << ", moves " << host.moveCount;
}

}  // namespace L2Rib
