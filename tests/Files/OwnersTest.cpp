// Whose files are trusted.
#include "Files/Owners.h"

#include <gmock/gmock.h>

#include "testing/Files/Strangers.h"

namespace {

using Files::Owners;

struct stat fileOf(uid_t owner, mode_t mode) {
  struct stat status {};
  status.st_uid = owner;
  status.st_mode = S_IFREG | mode;
  return status;
}

TEST(OwnersTest, AreRootTheOwnUserAndOneMore) {
  EXPECT_TRUE(Owners().has(0));
  EXPECT_TRUE(Owners().has(::geteuid()));
  EXPECT_FALSE(Owners().has(TestFiles::stranger));
  EXPECT_TRUE(Owners(TestFiles::stranger).has(TestFiles::stranger));
  EXPECT_FALSE(Owners(TestFiles::stranger).has(TestFiles::stranger - 1));
}

TEST(OwnersTest, NobodyElseMayWrite) {
  EXPECT_EQ(Owners().againstWritten(fileOf(0, 0644)), "");
  EXPECT_EQ(Owners().againstWritten(fileOf(0, 0664)), "may be written to by others, its mode is 0664");
  EXPECT_EQ(Owners().againstWritten(fileOf(0, 0646)), "may be written to by others, its mode is 0646");
  EXPECT_EQ(Owners().againstPrivate(fileOf(0, 0600)), "");
  EXPECT_EQ(Owners().againstPrivate(fileOf(0, 0640)), "may be opened by others, its mode is 0640");
  EXPECT_THAT(Owners().againstWritten(fileOf(TestFiles::stranger, 0600)),
              testing::StartsWith("belongs to user (65533), expected is root (0)"));
}

TEST(OwnersTest, UsersHaveNamesAndNumbers) {
  EXPECT_EQ(Files::userText(0), "root (0)");
  EXPECT_EQ(Files::userOf("root"), uid_t{0});
  EXPECT_EQ(Files::userOf("4711"), uid_t{4711});
  EXPECT_EQ(Files::userOf("no-such-user"), std::nullopt);
  EXPECT_EQ(Files::userOf("12x"), std::nullopt);
  EXPECT_EQ(Files::userOf(""), std::nullopt);
}

}  // namespace
