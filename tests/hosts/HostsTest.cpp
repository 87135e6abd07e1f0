// The C interface: what each call gives, and what it says of what it cannot do.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Memtab/Name.h"
#include "Table.h"
#include "testing/Files/Strangers.h"

namespace HostsTest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

// The events that were reported, as "begin", "is NUMBER", "gone NUMBER"; the number is the last byte of the
// MAC address.
struct Told {
  std::vector<std::string> events;
  std::size_t most = 1000;  // asks for an end at this one

  static int follow(void* self, int event, const vxlan_host* host) {
    auto& told = *static_cast<Told*>(self);
    if (told.events.size() == told.most) {
      return 1;
    }
    told.events.push_back(event == VXLAN_HOSTS_BEGIN  ? "begin"
                          : event == VXLAN_HOSTS_IS   ? "is " + std::to_string(host->mac[5])
                          : event == VXLAN_HOSTS_GONE ? "gone " + std::to_string(host->mac[5])
                                                      : "unknown");
    return 0;
  }
  static int visit(void* self, const vxlan_host* host) { return follow(self, VXLAN_HOSTS_IS, host); }
};

class Hosts : public ::testing::Test {
 protected:
  ~Hosts() override { vxlan_hosts_close(hosts_); }

  void write() { writer_ = std::make_unique<Writer>(optionsOf(name_.text(), 1000, 1024)); }
  void is(std::uint32_t number, std::uint32_t stamp = 1) {
    writer_->is(keyOf(number), recordOf(keyOf(number), stamp));
  }
  void publish() { writer_->publish(); }
  int open(const char* owner = nullptr) { return vxlan_hosts_open(name_.text(), owner, &hosts_); }
  int lookup(std::uint32_t number) {
    host_.size = sizeof host_;
    return vxlan_hosts_lookup(hosts_, keyOf(number).mac.data(), 10, &host_);
  }
  std::vector<std::string> changes() {
    Told told;
    const std::int64_t calls = vxlan_hosts_changes(hosts_, &cursor_, &Told::follow, &told);
    const bool begun = !told.events.empty() && told.events.front() == "begin";
    EXPECT_EQ(calls, static_cast<std::int64_t>(told.events.size() - (begun ? 1 : 0))) << vxlan_hosts_error();
    return told.events;
  }
  vxlan_hosts_state state() {
    vxlan_hosts_state state{};
    state.size = sizeof state;
    EXPECT_EQ(vxlan_hosts_stand(hosts_, &state), 0) << vxlan_hosts_error();
    return state;
  }

  const Name name_;
  std::unique_ptr<Writer> writer_;
  vxlan_hosts* hosts_ = nullptr;
  vxlan_host host_{};
  vxlan_hosts_cursor cursor_{};
};

TEST_F(Hosts, AReaderIsEmptyUntilThereIsATable) {
  ASSERT_EQ(open(), 0) << vxlan_hosts_error();
  EXPECT_EQ(state().attached, 0U);
  EXPECT_EQ(state().limit, 0U);
  EXPECT_EQ(lookup(1), 0);
  EXPECT_THAT(changes(), ElementsAre());
  write();
  is(1);
  publish();
  EXPECT_EQ(lookup(1), 1);
  EXPECT_EQ(state().attached, 1U);
  EXPECT_EQ(state().hosts, 1U);
  EXPECT_EQ(state().limit, 1000U);
  EXPECT_NE(state().generation, 0U);
}

TEST_F(Hosts, ALookUpGivesTheHostOfMacAndVlan) {
  write();
  is(1, 5);
  publish();
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(lookup(1), 1);
  const Record record = recordOf(keyOf(1), 5);
  EXPECT_EQ(host_.sequence, record.sequence);
  EXPECT_STREQ(host_.intf, "intf5");
  EXPECT_EQ(host_.size, sizeof host_);
  EXPECT_EQ(vxlan_hosts_lookup(hosts_, keyOf(1).mac.data(), 11, &host_), 0);
  EXPECT_EQ(lookup(2), 0);
}

TEST_F(Hosts, WhatIsNotPublishedIsNotSeenAndATurnIsCounted) {
  write();
  ASSERT_EQ(open(), 0);
  const std::uint64_t before = state().turn;
  is(1);
  EXPECT_EQ(lookup(1), 0);
  publish();
  EXPECT_EQ(lookup(1), 1);
  EXPECT_EQ(state().turn, before + 1);
}

TEST_F(Hosts, AWalkVisitsEachHostOnceAndCanBeEnded) {
  write();
  for (std::uint32_t number = 1; number <= 3; ++number) {
    is(number);
  }
  publish();
  ASSERT_EQ(open(), 0);
  Told told;
  EXPECT_EQ(vxlan_hosts_walk(hosts_, &Told::visit, &told), 3);
  EXPECT_THAT(told.events, UnorderedElementsAre("is 1", "is 2", "is 3"));
  Told ended{{}, 2};
  EXPECT_EQ(vxlan_hosts_walk(hosts_, &Told::visit, &ended), VXLAN_HOSTS_ESTOPPED);
  EXPECT_EQ(ended.events.size(), 2U);
  EXPECT_STREQ(vxlan_hosts_error(), "ended by the caller");
}

TEST_F(Hosts, ACursorTellsEverythingThenWhatChanges) {
  write();
  is(1);
  is(2);
  publish();
  ASSERT_EQ(open(), 0);
  const std::vector<std::string> all = changes();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all.front(), "begin");
  EXPECT_THAT(all, UnorderedElementsAre("begin", "is 1", "is 2"));
  EXPECT_THAT(changes(), ElementsAre());
  is(3);
  EXPECT_TRUE(writer_->del(keyOf(1)));
  publish();
  EXPECT_THAT(changes(), ElementsAre("is 3", "gone 1"));
  EXPECT_THAT(changes(), ElementsAre());
}

TEST_F(Hosts, ACursorBeginsAgainWithAnotherTable) {
  write();
  is(1);
  publish();
  ASSERT_EQ(open(), 0);
  EXPECT_THAT(changes(), ElementsAre("begin", "is 1"));
  const std::uint64_t generation = state().generation;
  writer_ = nullptr;
  Memtab::remove(name_.text());
  write();
  is(2);
  publish();
  EXPECT_THAT(changes(), ElementsAre("begin", "is 2"));
  EXPECT_NE(state().generation, generation);
}

TEST_F(Hosts, ACursorBeginsAgainWhenMoreChangedThanIsRemembered) {
  write();
  is(1);
  publish();
  ASSERT_EQ(open(), 0);
  static_cast<void>(changes());
  for (std::uint32_t stamp = 0; stamp < 2000; ++stamp) {
    is(1, stamp);
  }
  publish();
  EXPECT_THAT(changes(), ElementsAre("begin", "is 1"));
}

TEST_F(Hosts, ACursorStaysWhenTheCallerEndsTheCall) {
  write();
  ASSERT_EQ(open(), 0);
  static_cast<void>(changes());
  is(1);
  is(2);
  publish();
  Told ended{{}, 1};
  EXPECT_EQ(vxlan_hosts_changes(hosts_, &cursor_, &Told::follow, &ended), VXLAN_HOSTS_ESTOPPED);
  EXPECT_THAT(ended.events, ElementsAre("is 1"));
  EXPECT_THAT(changes(), ElementsAre("is 1", "is 2"));
}

TEST_F(Hosts, AnExceptionOfTheCallersFunctionStaysInside) {
  write();
  is(1);
  publish();
  ASSERT_EQ(open(), 0);
  const auto raising = [](void*, const vxlan_host*) -> int { throw 1; };
  EXPECT_EQ(vxlan_hosts_walk(hosts_, raising, nullptr), VXLAN_HOSTS_EFAILED);
  EXPECT_STREQ(vxlan_hosts_error(), "vxlan_hosts: the caller's function raised an exception");
  EXPECT_EQ(lookup(1), 1);
}

TEST_F(Hosts, ALargerHostOfALaterVersionIsFilledAsFarAsItIsKnown) {
  write();
  is(1);
  publish();
  ASSERT_EQ(open(), 0);
  struct Later {
    vxlan_host host;
    std::uint64_t more;
  } later{{}, 77};
  later.host.size = sizeof later;
  ASSERT_EQ(vxlan_hosts_lookup(hosts_, keyOf(1).mac.data(), 10, &later.host), 1);
  EXPECT_EQ(later.host.size, sizeof(vxlan_host));
  EXPECT_EQ(later.more, 77U);
}

TEST_F(Hosts, ArgumentsAreChecked) {
  const auto refused = [](std::int64_t result, const std::string& text) {
    EXPECT_EQ(result, VXLAN_HOSTS_EINVAL) << text;
    EXPECT_THAT(vxlan_hosts_error(), HasSubstr(text));
  };
  refused(vxlan_hosts_open(nullptr, nullptr, &hosts_), "name is null");
  refused(vxlan_hosts_open("", nullptr, &hosts_), "name is empty");
  refused(vxlan_hosts_open("/x", nullptr, nullptr), "hosts is null");
  refused(vxlan_hosts_open("/x", "no such user", &hosts_), "there is no user \"no such user\"");
  EXPECT_EQ(hosts_, nullptr);
  ASSERT_EQ(open("0"), 0);
  const std::uint8_t mac[6] = {};
  Told told;
  refused(vxlan_hosts_lookup(nullptr, mac, 1, &host_), "hosts is null");
  refused(vxlan_hosts_lookup(hosts_, nullptr, 1, &host_), "mac is null");
  refused(vxlan_hosts_lookup(hosts_, mac, 1, nullptr), "host is null");
  host_.size = sizeof host_ - 1;
  refused(vxlan_hosts_lookup(hosts_, mac, 1, &host_), "its size not set");
  refused(vxlan_hosts_stand(nullptr, nullptr), "hosts is null");
  refused(vxlan_hosts_stand(hosts_, nullptr), "state is null");
  vxlan_hosts_state state{};
  refused(vxlan_hosts_stand(hosts_, &state), "its size not set");
  refused(vxlan_hosts_walk(nullptr, &Told::visit, &told), "hosts is null");
  refused(vxlan_hosts_walk(hosts_, nullptr, &told), "visit is null");
  refused(vxlan_hosts_changes(nullptr, &cursor_, &Told::follow, &told), "hosts is null");
  refused(vxlan_hosts_changes(hosts_, nullptr, &Told::follow, &told), "cursor is null");
  refused(vxlan_hosts_changes(hosts_, &cursor_, nullptr, &told), "follow is null");
  vxlan_hosts_close(nullptr);
  EXPECT_EQ(vxlan_hosts_version(), 1U);
}

TEST_F(Hosts, ATableOfOtherRecordsIsRefusedByName) {
  Memtab::Options options = optionsOf(name_.text(), 1000);
  options.schema = "L2Rib::Host/2";
  const Writer other(options);
  EXPECT_EQ(open(), VXLAN_HOSTS_EREFUSED);
  EXPECT_EQ(hosts_, nullptr);
  EXPECT_THAT(vxlan_hosts_error(), HasSubstr("L2Rib::Host/2"));
  EXPECT_THAT(vxlan_hosts_error(), HasSubstr(name_.text()));
}

// Only root can give a file away.
TEST_F(Hosts, ATableOfAnotherUserIsReadWhenHeIsNamed) {
  if (!TestFiles::canPlayAStranger()) {
    GTEST_SKIP() << "needs root";
  }
  write();
  is(1);
  publish();
  ASSERT_EQ(::chown(Memtab::pathOf(name_.text()).c_str(), TestFiles::stranger, TestFiles::stranger), 0);
  EXPECT_EQ(open(), VXLAN_HOSTS_EREFUSED);
  EXPECT_EQ(open("1"), VXLAN_HOSTS_EREFUSED);
  ASSERT_EQ(open(std::to_string(TestFiles::stranger).c_str()), 0) << vxlan_hosts_error();
  EXPECT_EQ(lookup(1), 1);
}

TEST_F(Hosts, ATableThatOthersMayWriteToIsRefused) {
  write();
  ASSERT_EQ(::chmod(Memtab::pathOf(name_.text()).c_str(), 0666), 0);
  EXPECT_EQ(open(), VXLAN_HOSTS_EREFUSED);
  EXPECT_THAT(vxlan_hosts_error(), HasSubstr("not to be trusted"));
}

TEST_F(Hosts, DamageIsToldAndTheReaderStaysFitForUse) {
  write();
  is(1);
  publish();
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(lookup(1), 1);
  const Memtab::Options options = optionsOf(name_.text(), 1000);
  const Memtab::Segment::Shape shape{sizeof(Key), sizeof(Record)};
  writer_ = nullptr;
  {
    Memtab::Segment segment = Memtab::Segment::forWriter(options, shape);
    for (std::uint32_t bucket = 0; bucket < segment.state().buckets; ++bucket) {
      segment.heads()[bucket] = 0x1111'1111;  // leads outside
    }
  }
  EXPECT_EQ(lookup(1), VXLAN_HOSTS_EDAMAGED);
  EXPECT_THAT(vxlan_hosts_error(), HasSubstr("damaged"));
  Memtab::remove(name_.text());
  write();
  is(2);
  publish();
  EXPECT_EQ(lookup(2), 1);
}

}  // namespace
}  // namespace HostsTest
