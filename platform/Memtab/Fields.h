#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Memtab/Export.h"

namespace Memtab {

// One field of a record, for tools that know records from their description only.
//
// A description is "name:kind,name:kind,..." in the order of memory, first the key's fields, then the
// value's, each byte covered. Kinds: u8, u16, u32, u64, f64 (of the machine); mac (6 bytes) and ipv4 (4
// bytes) in the order they are written; ipv4n (an IPv4 address as a u32 of the machine); vlan (a u16);
// text[N] (N bytes, ended by a zero byte or by its length); pad[N] (N bytes, not printed, and its name may
// be left out).
struct Field {
  enum class Kind { U8, U16, U32, U64, F64, Mac, Ipv4, Ipv4n, Vlan, Text, Pad };

  std::string name;
  Kind kind;
  bool ofKey;
  std::size_t at;  // from the beginning of the key, or of the value
  std::size_t bytes;
};

// Reads the description TEXT of records with keys of KEYBYTES and values of VALUEBYTES. Raises Error, which
// names TABLE and the place, when it is no description, or does not cover the record exactly.
MEMTAB_API std::vector<Field> parseFields(const std::string& table, std::string_view text,
                                          std::size_t keyBytes, std::size_t valueBytes);

}  // namespace Memtab
