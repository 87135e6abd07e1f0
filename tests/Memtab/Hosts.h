#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "Memtab/Reader.h"
#include "Memtab/Writer.h"

// The records of these tests: as large as a host of the layer-2 RIB, and with a checksum, so that one that
// was never written whole gives itself away.
namespace Memtab::Test {

using Key = std::uint64_t;

struct Host {
  Key key;
  std::uint64_t stamp;
  std::array<std::uint64_t, 10> body;
  std::uint64_t checksum;

  bool operator==(const Host&) const = default;
};
static_assert(sizeof(Host) == 104);

inline std::uint64_t checksumOf(const Host& host) {
  std::uint64_t sum = host.key * 31 + host.stamp;
  for (const std::uint64_t word : host.body) {
    sum = sum * 31 + word;
  }
  return sum;
}

// Every word of it depends on the stamp.
inline Host hostOf(Key key, std::uint64_t stamp) {
  Host host{key, stamp, {}, 0};
  for (std::size_t i = 0; i < host.body.size(); ++i) {
    host.body[i] = (stamp + 1) * 0x9e37'79b9'7f4a'7c15U ^ key << i;
  }
  host.checksum = checksumOf(host);
  return host;
}

inline bool whole(Key key, const Host& host) {
  return host.key == key && host.checksum == checksumOf(host);
}

// Tables that others may write to are refused, also those that a test makes by hand.
inline const mode_t umaskBefore = ::umask(022);

inline constexpr const char* schema = "test-host 1";

using HostWriter = Writer<Key, Host>;
using HostReader = Reader<Key, Host>;
using Stamps = std::map<Key, std::uint64_t>;

// A name nobody else has, and no table left under it afterwards.
class Name {
 public:
  Name() : name_("/memtab-test-" + std::to_string(::getpid()) + "-" + std::to_string(count_++)) {}
  explicit Name(std::string name) : name_(std::move(name)) {}
  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;
  ~Name() { Memtab::remove(name_); }

  const std::string& text() const { return name_; }
  // Where the system shows it as a file.
  std::string path() const { return name_.find('/', 1) == std::string::npos ? "/dev/shm" + name_ : name_; }

 private:
  static inline int count_ = 0;
  std::string name_;
};

inline Options optionsFor(const std::string& name, std::size_t limit = 100'000) {
  Options options;
  options.name = name;
  options.schema = schema;
  options.limit = limit;
  return options;
}
inline Options optionsFor(const Name& name, std::size_t limit = 100'000) {
  return optionsFor(name.text(), limit);
}

// Keys and stamps of a table as its writer has it, in walk order.
inline Stamps contentOf(const HostWriter& writer) {
  Stamps content;
  for (auto record = writer.first(); record; record = writer.next(record->first)) {
    content[record->first] = whole(record->first, record->second) ? record->second.stamp : ~std::uint64_t{0};
  }
  return content;
}

// The same as a reader sees it; a record that is met twice or is not whole gets an impossible stamp.
inline Stamps contentOf(HostReader& reader) {
  Stamps content;
  reader.walk([&](Key key, const Host& host) {
    const bool good = whole(key, host) && !content.contains(key);
    content[key] = good ? host.stamp : ~std::uint64_t{0};
  });
  return content;
}

// What a client keeps that only ever calls follow().
class Mirror {
 public:
  void follow(HostReader& reader) {
    Stamps all;
    last_ = reader.follow(position_, [&](Key key, const std::optional<Host>& host) {
      content_.erase(key);
      if (host) {
        all[key] = content_[key] = whole(key, *host) ? host->stamp : ~std::uint64_t{0};
      }
    });
    if (last_.everything) {
      content_ = all;
    }
  }
  const Stamps& content() const { return content_; }
  const Followed& last() const { return last_; }

 private:
  Position position_;
  Followed last_;
  Stamps content_;
};

}  // namespace Memtab::Test
