// The command, as a person or a script uses it.

#ifdef MEMTAB_TOOL

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Hosts.h"
#include "Memtab/Describe.h"
#include "testing/Files/Strangers.h"

namespace Memtab::Test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

struct Route {
  std::array<std::uint8_t, 6> mac;
  std::uint16_t vlan;
};
struct Host4 {
  std::array<std::uint8_t, 4> vtep;
  std::uint32_t gateway;
  double time;
  std::array<char, 8> intf;
  std::uint8_t kind;
  std::array<std::uint8_t, 7> pad;
};

struct Result {
  int status;
  std::string out;
};

// Standard output and standard error together.
Result memtab(const std::string& arguments) {
  Result result{0, ""};
  FILE* pipe = ::popen((std::string(MEMTAB_TOOL " ") + arguments + " 2>&1").c_str(), "r");
  std::array<char, 4096> some{};
  while (const std::size_t bytes = std::fread(some.data(), 1, some.size(), pipe)) {
    result.out.append(some.data(), bytes);
  }
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

class Tool : public testing::Test {
 protected:
  static Options options(const std::string& name) {
    Options options;
    options.name = name;
    options.schema = "test-route 1";
    options.fields = "mac:mac,vlan:vlan,vtep:ipv4,gateway:ipv4n,time:f64,intf:text[8],kind:u8,pad[7]";
    options.limit = 1000;
    return options;
  }
  static Route route(std::uint16_t vlan) { return {{2, 0, 0, 0, 0xab, 1}, vlan}; }
  static Host4 host(std::uint8_t last) {
    return {{10, 0, 0, last}, 0xc0a8'0001U, 1.5, {'V', 'x', 'l', 'a', 'n', '1'}, 10, {}};
  }
  void given(std::uint16_t vlan, std::uint8_t last) {
    writer_.is(route(vlan), host(last));
    writer_.publish();
  }

  Name name_;
  Writer<Route, Host4> writer_{options(name_.text())};
};

TEST_F(Tool, DumpsRecordsWithTheirFields) {
  given(100, 1);
  const Result text = memtab("dump " + name_.text());
  EXPECT_EQ(
      text.out,
      "mac=02:00:00:00:ab:01 vlan=100 vtep=10.0.0.1 gateway=192.168.0.1 time=1.5 intf=Vxlan1 kind=10\n");
  EXPECT_EQ(text.status, 0);
}

TEST_F(Tool, DumpsJson) {
  EXPECT_EQ(json::parse(memtab("dump --json " + name_.text()).out), json::array());
  given(100, 1);
  given(200, 2);
  const json dumped = json::parse(memtab("dump " + name_.text().substr(1) + " --json").out);
  const json first{{"mac", "02:00:00:00:ab:01"},
                   {"vlan", 100},
                   {"vtep", "10.0.0.1"},
                   {"gateway", "192.168.0.1"},
                   {"time", 1.5},
                   {"intf", "Vxlan1"},
                   {"kind", 10}};
  json second = first;
  second["vlan"] = 200;
  second["vtep"] = "10.0.0.2";
  EXPECT_THAT(dumped, UnorderedElementsAre(first, second));
}

TEST_F(Tool, DumpsUndescribedRecordsAsBytes) {
  const Name name;
  Options plain;
  plain.name = name.text();
  Writer<std::uint16_t, std::array<std::uint8_t, 3>> writer(plain);
  writer.is(0x0201, {0xaa, 0xbb, 0xcc});
  writer.publish();
  EXPECT_EQ(memtab("dump " + name.text()).out, "key=0102 value=aabbcc\n");
}

TEST_F(Tool, PrintsTextThatIsNoUtf8) {
  writer_.is(route(1), {{10, 0, 0, 1}, 0, 0, {'\xff', 'x'}, 1, {}});
  writer_.publish();
  EXPECT_THAT(json::parse(memtab("dump --json " + name_.text()).out)[0]["intf"].get<std::string>(),
              HasSubstr("x"));
}

TEST_F(Tool, TellsAboutTheTable) {
  given(100, 1);
  const Result result = memtab("info --json " + name_.text());
  EXPECT_EQ(result.status, 0);
  const json info = json::parse(result.out);
  EXPECT_EQ(info["name"], name_.text());
  EXPECT_EQ(info["schema"], "test-route 1");
  EXPECT_EQ(info["records"], 1);
  EXPECT_EQ(info["limit"], 1000);
  EXPECT_EQ(info["writer"], "process " + std::to_string(::getpid()));
  EXPECT_THAT(memtab("info " + name_.text()).out, HasSubstr("schema             test-route 1\n"));
}

TEST_F(Tool, TellsThatTheWriterHasEnded) {
  const Name name;
  { const Writer<Route, Host4> writer(options(name.text())); }
  EXPECT_EQ(json::parse(memtab("info --json " + name.text()).out)["writer"], "none");
}

// Runs "memtab follow" beside the test and hands over its lines as they come.
class Following {
 public:
  explicit Following(const std::string& arguments)
      : pipe_(::popen((std::string(MEMTAB_TOOL " follow --interval 1 ") + arguments).c_str(), "r")) {}
  Following(const Following&) = delete;
  Following& operator=(const Following&) = delete;
  ~Following() { ::pclose(pipe_); }

  std::string nextLine() {
    std::string line;
    for (int c = std::fgetc(pipe_); c != EOF && c != '\n'; c = std::fgetc(pipe_)) {
      line += static_cast<char>(c);
    }
    return line;
  }

 private:
  FILE* pipe_;
};

TEST_F(Tool, FollowsChangesAsTheyArePublished) {
  given(100, 1);
  Following following("--count 4 " + name_.text());
  EXPECT_THAT(following.nextLine(), HasSubstr("+ mac=02:00:00:00:ab:01 vlan=100 vtep=10.0.0.1"));
  EXPECT_EQ(following.nextLine(), "= 1 records, no others");
  given(200, 2);
  EXPECT_THAT(following.nextLine(), HasSubstr("+ mac=02:00:00:00:ab:01 vlan=200 vtep=10.0.0.2"));
  given(100, 3);
  EXPECT_THAT(following.nextLine(), HasSubstr("+ mac=02:00:00:00:ab:01 vlan=100 vtep=10.0.0.3"));
  writer_.del(route(200));
  writer_.publish();
  EXPECT_EQ(following.nextLine(), "- mac=02:00:00:00:ab:01 vlan=200");
  EXPECT_EQ(following.nextLine(), "");
}

TEST_F(Tool, FollowsInJson) {
  given(100, 1);
  Following following("--json --count 2 " + name_.text());
  EXPECT_EQ(json::parse(following.nextLine())["event"], "is");
  EXPECT_EQ(json::parse(following.nextLine()), (json{{"event", "complete"}, {"records", 1}}));
  writer_.del(route(100));
  writer_.publish();
  EXPECT_EQ(json::parse(following.nextLine()),
            (json{{"event", "del"}, {"mac", "02:00:00:00:ab:01"}, {"vlan", 100}}));
}

TEST_F(Tool, RemovesATable) {
  EXPECT_EQ(memtab("remove " + name_.text()).status, 0);
  const Result again = memtab("remove " + name_.text());
  EXPECT_EQ(again.status, 2);
  EXPECT_EQ(again.out, "memtab " + name_.text() + ": there is no such table\n");
}

TEST_F(Tool, NamesTheSlotOfARecordThatIsNeverWhole) {
  given(100, 1);
  const Format::Description description = describe(options(name_.text()), {sizeof(Route), sizeof(Host4)});
  const int fd = ::open(name_.path().c_str(), O_RDWR | O_CLOEXEC);
  const std::uint32_t odd = 77;
  ASSERT_EQ(::pwrite(fd, &odd, sizeof odd, static_cast<off_t>(description.slotsAt)), ssize_t{sizeof odd});
  ::close(fd);
  const Result result = memtab("dump " + name_.text());
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "memtab " + name_.text() + ": damaged: the record in slot 0 is never whole\n");
}

TEST_F(Tool, RemovesATableThatItWouldNotRead) {
  const Name name;
  { const Writer<Route, Host4> writer(options(name.text())); }
  ::chmod(name.path().c_str(), 0666);
  EXPECT_THAT(memtab("info " + name.text()).out, HasSubstr("not to be trusted"));
  EXPECT_EQ(memtab("remove " + name.text()).status, 0);
}

TEST_F(Tool, ReadsTheTableOfTheUserThatIsNamed) {
  NEEDS_A_STRANGER();
  given(100, 1);
  ASSERT_EQ(::chown(name_.path().c_str(), TestFiles::stranger, TestFiles::stranger), 0);
  EXPECT_EQ(memtab("dump " + name_.text()).status, 2);
  EXPECT_THAT(memtab("dump --table-owner 65533 " + name_.text()).out, HasSubstr("vlan=100"));
  EXPECT_EQ(memtab("dump --table-owner no-such-user " + name_.text()).out,
            "memtab: there is no user \"no-such-user\"\n");
}

TEST_F(Tool, SaysWhatIsWrong) {
  for (const char* command : {"info", "dump"}) {
    const Result result = memtab(std::string(command) + " /no-such-table-at-all");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "memtab /no-such-table-at-all: there is no such table\n");
  }
  EXPECT_EQ(memtab("dump /etc/passwd").status, 2);
  EXPECT_EQ(memtab("dump /etc/passwd").out,
            "memtab /etc/passwd: not a table: it does not begin with the mark of one\n");
  EXPECT_EQ(memtab("").status, 2);
  EXPECT_EQ(memtab("no-such-command x").status, 2);
  EXPECT_EQ(memtab("dump").status, 2);
  EXPECT_EQ(memtab("follow --interval 0 x").status, 2);
  EXPECT_EQ(memtab("--help").status, 0);
}

}  // namespace
}  // namespace Memtab::Test

#endif
