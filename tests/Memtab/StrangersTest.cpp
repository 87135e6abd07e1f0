// Names in shared memory are anybody's: what another user can put there, hold there or cut there.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>

#include "Hosts.h"
#include "Memtab/BusError.h"
#include "testing/Files/Strangers.h"

namespace Memtab::Test {
namespace {

using TestFiles::asStranger;
using TestFiles::stranger;
using testing::HasSubstr;

std::string errorOf(const std::function<void()>& attempt) {
  try {
    attempt();
  } catch (const Error& error) {
    return error.what();
  }
  return "(no error)";
}
std::string writersError(const Options& options) {
  return errorOf([&] { const HostWriter writer(options); });
}
std::string readersError(const Name& name, std::optional<uid_t> owner = std::nullopt) {
  return errorOf([&] { const HostReader reader(name.text(), schema, owner); });
}

class Strangers : public testing::Test {
 protected:
  void SetUp() override { NEEDS_A_STRANGER(); }

  // A whole table with one host, made by the stranger.
  void givenAForgery(const std::string& name) {
    ASSERT_TRUE(asStranger([&] {
      HostWriter writer(optionsFor(name));
      writer.is(1, hostOf(1, 666));
      writer.publish();
      return true;
    }));
  }

  Name name_;
};

TEST_F(Strangers, TheirTableIsRefusedByWriterAndReader) {
  givenAForgery(name_.text());
  const std::string what =
      "memtab " + name_.text() +
      ": not to be trusted: it belongs to user (65533), expected is root (0); remove it, "
      "use another name, or say that its owner is right";
  EXPECT_EQ(writersError(optionsFor(name_)), what);
  EXPECT_EQ(readersError(name_), what);
}

TEST_F(Strangers, WhoIsNamedAsTheOwnerIsNoStranger) {
  givenAForgery(name_.text());
  HostReader reader(name_.text(), schema, stranger);
  EXPECT_EQ(reader.find(1), hostOf(1, 666));
  Options options = optionsFor(name_);
  options.owner = stranger;
  const HostWriter writer(options);
  EXPECT_TRUE(writer.adopted());
}

TEST_F(Strangers, AReaderDoesNotGoOverToTheirTable) {
  std::optional<HostWriter> writer(optionsFor(name_));
  HostReader reader(name_.text(), schema);
  ASSERT_TRUE(reader.attached());
  writer.reset();
  Memtab::remove(name_.text());
  givenAForgery(name_.text());
  EXPECT_THAT(errorOf([&] { static_cast<void>(reader.find(1)); }), HasSubstr("belongs to user (65533)"));
}

TEST_F(Strangers, ATableThatTheyMayWriteToIsRefused) {
  { const HostWriter writer(optionsFor(name_)); }
  ::chmod(name_.path().c_str(), 0666);
  const std::string what = ": not to be trusted: it may be written to by others, its mode is 0666";
  EXPECT_THAT(writersError(optionsFor(name_)), HasSubstr(what));
  EXPECT_THAT(readersError(name_), HasSubstr(what));
  Options options = optionsFor(name_);
  options.mode = 0664;
  EXPECT_THAT(writersError(options), HasSubstr("a mode that lets others write is not possible"));
}

TEST_F(Strangers, NoLinkOfTheirsLeadsAnywhere) {
  const Name other;
  { const HostWriter writer(optionsFor(other)); }
  ASSERT_TRUE(asStranger([&] { return ::symlink(other.path().c_str(), name_.path().c_str()) == 0; }));
  EXPECT_THAT(writersError(optionsFor(name_)), HasSubstr("it is a link"));
  EXPECT_THAT(readersError(name_), HasSubstr("it is a link"));
}

TEST_F(Strangers, NoLockOfTheirsIsInTheWay) {
  { const HostWriter writer(optionsFor(name_)); }
  const TestFiles::StrangersLock lock(name_.path());
  ASSERT_TRUE(lock.held());
  const HostWriter writer(optionsFor(name_));
  EXPECT_TRUE(writer.adopted());
}

TEST_F(Strangers, TheirLockFileIsRefusedByName) {
  const std::string lock = name_.path() + ".lock";
  ASSERT_TRUE(asStranger([&] { return std::ofstream(lock).is_open(); }));
  EXPECT_THAT(
      writersError(optionsFor(name_)),
      HasSubstr(": its lock file " + lock + " belongs to user (65533), expected is root (0); remove it"));
  ::unlink(lock.c_str());
}

TEST_F(Strangers, RootsTableIsReadByThemAndNotWritten) {
  HostWriter writer(optionsFor(name_));
  writer.is(1, hostOf(1, 1));
  writer.publish();
  EXPECT_TRUE(asStranger([&] { return HostReader(name_.text(), schema).find(1) == hostOf(1, 1); }));
  EXPECT_TRUE(asStranger(
      [&] { return writersError(optionsFor(name_)).find("belongs to root (0)") != std::string::npos; }));
}

TEST_F(Strangers, ATableThatIsNoFileIsRefusedWithoutWaiting) {
  ASSERT_EQ(::mkfifo(name_.path().c_str(), 0600), 0);
  EXPECT_THAT(readersError(name_), HasSubstr("no regular file"));
  EXPECT_THAT(writersError(optionsFor(name_)), HasSubstr("no regular file"));
}

// What a process says on standard error, and how it ends.
struct End {
  int status;
  std::string said;
};
End endOf(const std::function<void()>& work) {
  std::array<int, 2> said{};
  EXPECT_EQ(::pipe(said.data()), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(said[1], STDERR_FILENO);
    ::close(said[0]);
    ::close(said[1]);
    work();
    ::_exit(0);
  }
  ::close(said[1]);
  End end{0, ""};
  std::array<char, 512> some{};
  for (ssize_t bytes = 0; (bytes = ::read(said[0], some.data(), some.size())) > 0;) {
    end.said.append(some.data(), static_cast<std::size_t>(bytes));
  }
  ::close(said[0]);
  ::waitpid(child, &end.status, 0);
  return end;
}

TEST(Truncation, EndsReaderAndWriterWithAMessage) {
  for (const bool asWriter : {true, false}) {
    const Name name;
    const End end = endOf([&] {
      endOnTruncation("testing");
      HostWriter first(optionsFor(name));
      first.is(1, hostOf(1, 1));
      first.publish();
      HostReader reader(name.text(), schema);
      static_cast<void>(::truncate(name.path().c_str(), 0) == 0);
      if (asWriter) {
        first.is(2, hostOf(2, 2));
      } else {
        static_cast<void>(reader.find(1));
      }
    });
    EXPECT_TRUE(WIFEXITED(end.status) && WEXITSTATUS(end.status) == 2) << end.status;
    EXPECT_EQ(end.said,
              "testing: memtab " + name.text() +
                  ": it was truncated while it was in use, or the system has no memory left for it; the "
                  "program ends\n");
  }
}

TEST(Truncation, LeavesOtherBusErrorsAsTheyWere) {
  const End end = endOf([] {
    std::signal(SIGBUS, SIG_DFL);
    endOnTruncation("testing");
    static_cast<void>(::raise(SIGBUS));
    static_cast<void>(::raise(SIGBUS));
  });
  EXPECT_TRUE(WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGBUS) << end.status;
  EXPECT_EQ(end.said, "");
}

}  // namespace
}  // namespace Memtab::Test
