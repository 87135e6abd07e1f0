// Descriptions of records: read, or refused with what is wrong and where.

#include <gtest/gtest.h>

#include "Memtab/Error.h"
#include "Memtab/Fields.h"

namespace Memtab::Test {
namespace {

std::string print(const std::vector<Field>& fields) {
  std::string text;
  for (const Field& field : fields) {
    text += (field.ofKey ? "key " : "value ") + field.name + " " + std::to_string(field.at) + "+" +
            std::to_string(field.bytes) + "\n";
  }
  return text;
}

std::string refusalOf(const std::string& text, std::size_t keyBytes, std::size_t valueBytes) {
  try {
    return "taken: " + print(parseFields("/t", text, keyBytes, valueBytes));
  } catch (const Error& error) {
    return error.what();
  }
}

TEST(Fields, LieOneBehindTheOtherFirstTheKeysThenTheValues) {
  EXPECT_EQ(print(parseFields("/t", "mac:mac,vlan:vlan,vtep:ipv4,pad[4],time:f64,intf:text[16],n:u32,:pad[4]",
                              8, 40)),
            "key mac 0+6\n"
            "key vlan 6+2\n"
            "value vtep 0+4\n"
            "value  4+4\n"
            "value time 8+8\n"
            "value intf 16+16\n"
            "value n 32+4\n"
            "value  36+4\n");
}

TEST(Fields, MustCoverTheRecord) {
  EXPECT_EQ(refusalOf("a:u64,b:u8", 8, 2),
            "memtab /t: field description: it covers 9 bytes, a record has 10");
  EXPECT_EQ(refusalOf("a:u64,b:u32", 8, 2),
            "memtab /t: field description: it covers 12 bytes, a record has 10");
  EXPECT_EQ(refusalOf("a:u32,b:u64", 8, 4),
            "memtab /t: field description: \"b\" reaches over the end of the key");
}

TEST(Fields, MustHaveNameAndKind) {
  EXPECT_EQ(refusalOf("a:u128", 8, 8), "memtab /t: field description: no kind in \"a:u128\"");
  EXPECT_EQ(refusalOf("u64", 8, 8), "memtab /t: field description: no name in \"u64\"");
  EXPECT_EQ(refusalOf(":u64", 8, 8), "memtab /t: field description: no name in \":u64\"");
  EXPECT_EQ(refusalOf("a:text", 8, 8), "memtab /t: field description: no kind in \"a:text\"");
  EXPECT_EQ(refusalOf("a:text[]", 8, 8), "memtab /t: field description: no kind in \"a:text[]\"");
  EXPECT_EQ(refusalOf("a:text[0]", 8, 8), "memtab /t: field description: no kind in \"a:text[0]\"");
  EXPECT_EQ(refusalOf("a:text[8", 8, 8), "memtab /t: field description: no kind in \"a:text[8\"");
  EXPECT_EQ(refusalOf("a:text[8]x", 8, 8), "memtab /t: field description: no kind in \"a:text[8]x\"");
  EXPECT_EQ(refusalOf("a:u64[8]", 8, 8), "memtab /t: field description: no kind in \"a:u64[8]\"");
  EXPECT_EQ(refusalOf("a:u64,,b:u64", 8, 8), "memtab /t: field description: no kind in \"\"");
}

}  // namespace
}  // namespace Memtab::Test
