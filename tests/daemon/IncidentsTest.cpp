#include "agent/daemon/Incidents.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

namespace {

using Agent::Incidents;
using testing::SizeIs;

// Incidents whose log goes into a pipe.
class IncidentsTest : public testing::Test {
 protected:
  ~IncidentsTest() override {
    ::close(pipe_[0]);
    ::close(pipe_[1]);
  }

  // The lines that were logged, without their times.
  std::string logged() {
    log.flush();
    std::array<char, 4096> text{};
    const ssize_t size = ::read(pipe_[0], text.data(), text.size());
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }

 private:
  static std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_NONBLOCK), 0);
    return ends;
  }

  std::array<int, 2> pipe_ = makePipe();

 protected:
  Agent::Log log{pipe_[1]};
  Incidents incidents{log};
};

TEST_F(IncidentsTest, EachIsKeptAndLoggedOnce) {
  incidents.note("recording", "/a", "no space");
  incidents.note("recording", "/a", "no space");
  incidents.note("recording", "/b", "no space");
  ASSERT_THAT(incidents.kept(), SizeIs(2));
  EXPECT_EQ(incidents.kept()[0].dump(), R"({"kind":"recording","text":"no space","where":"/a"})");
  const std::string text = logged();
  EXPECT_EQ(text.find("recording in /a: no space"), text.rfind("recording in /a: no space"));
  EXPECT_NE(text.find("recording in /b: no space"), std::string::npos);
  EXPECT_EQ(incidents.errors(), 0U);
}

TEST_F(IncidentsTest, TheOldestGoes) {
  for (std::size_t number = 0; number <= Incidents::mostKept; ++number) {
    incidents.note("kind", std::to_string(number), "text");
  }
  ASSERT_THAT(incidents.kept(), SizeIs(Incidents::mostKept));
  EXPECT_EQ(incidents.kept().front()["where"], "1");
  EXPECT_EQ(incidents.kept().back()["where"], std::to_string(Incidents::mostKept));
}

TEST_F(IncidentsTest, AnExceptionIsCountedAndTheWorkGoesOn) {
  incidents.guarded("a patch", [] { throw std::runtime_error("bad luck"); });
  incidents.guarded("a patch", [] { throw std::runtime_error("bad luck"); });
  bool ran = false;
  incidents.guarded("a patch", [&] { ran = true; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(incidents.errors(), 2U);
  ASSERT_THAT(incidents.kept(), SizeIs(1));
  EXPECT_EQ(incidents.kept()[0].dump(), R"({"kind":"error","text":"bad luck","where":"a patch"})");
}

}  // namespace
