#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Files/Owners.h"
#include "Memtab/Fields.h"
#include "Memtab/Reading.h"

// The name of a table as the library has it, of one as on the command line: "/name", "name", or a path.
std::string fullName(const std::string& name);

// A table of whatever records, as bytes, with the description of its fields.
class Source {
 public:
  // NAME as on the command line: "/name", "name", or a path. It belongs to one of OWNERS.
  Source(const std::string& name, const Files::Owners& owners);

  const std::string& name() const { return name_; }

  // The segment; raises Memtab::Error when there is none.
  const Memtab::Segment& segment();
  // The same, null when there is none (yet).
  const Memtab::Segment* segmentIfAny();

  // The fields of a record, empty when its maker did not describe them.
  const std::vector<Memtab::Field>& fields() const { return fields_; }
  const std::byte* key() const { return reinterpret_cast<const std::byte*>(key_.data()); }
  const std::byte* value() const { return reinterpret_cast<const std::byte*>(value_.data()); }
  std::size_t keyBytes() const { return keyBytes_; }
  std::size_t valueBytes() const { return valueBytes_; }

  // Calls visit() for each record, which is in key() and value() then.
  void walk(const std::function<void()>& visit);
  // Calls visit(there) for each change since the last time; a record that is gone is in key() only.
  Memtab::Followed follow(const std::function<void(bool there)>& visit);

 private:
  void learn(const Memtab::Segment& segment);

  std::string name_;
  Memtab::Reading<Memtab::FoundShape> reading_;
  Memtab::Position position_;
  std::uint64_t generation_ = 0;
  std::vector<Memtab::Field> fields_;
  std::size_t keyBytes_ = 0;
  std::size_t valueBytes_ = 0;
  std::vector<std::uint64_t> key_;
  std::vector<std::uint64_t> value_;
};
