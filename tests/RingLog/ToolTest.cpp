// The command, as a person or a script uses it.

#ifdef RINGLOG_TOOL

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Scenario.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

namespace {

struct Result {
  int status;
  std::vector<std::string> lines;
  std::string errors;

  std::string text() const {
    std::string all;
    for (const std::string& line : lines) {
      all += line + "\n";
    }
    return all;
  }
};

std::vector<std::string> linesOf(std::istream&& in) {
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Runs the command to its end. output: a file for its standard output in place of one that is read back.
Result ringlog(const std::string& arguments, const std::string& output = {}) {
  const Directory directory;
  const std::string out = output.empty() ? directory.file("out") : output;
  const std::string command =
      std::string(RINGLOG_TOOL) + " " + arguments + " >" + out + " 2>" + directory.file("errors");
  const int status = std::system(command.c_str());
  std::ifstream errors(directory.file("errors"));
  return {WEXITSTATUS(status), output.empty() ? linesOf(std::ifstream(out)) : std::vector<std::string>(),
          std::string(std::istreambuf_iterator<char>(errors), {})};
}

// A trace of three records on three levels.
class Tool : public testing::Test {
 protected:
  void SetUp() override {
    RINGLOG(*log_, 8, "vni ", 10010U, " vtep ", RingLog::Ipv4{{10, 0, 0, 1}});
    RINGLOG(*log_, 6, "list \"", std::string("a\x1b[1m\n\xff"), "\"");
    RINGLOG(*log_, 2, "cost ", -1.5, " ", true);
  }

  const std::string& path() const { return log_->path(); }

  Directory directory_;
  std::unique_ptr<RingLog::Log> log_ = openIn(directory_);
};

// The command while it runs, with what it prints.
class Running {
 public:
  explicit Running(const std::vector<std::string>& arguments) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      std::vector<char*> argv{const_cast<char*>(RINGLOG_TOOL)};
      for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
      }
      argv.push_back(nullptr);
      execv(RINGLOG_TOOL, argv.data());
      _exit(127);
    }
    close(ends[1]);
    out_ = fdopen(ends[0], "r");
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    std::fclose(out_);
  }

  // The next line that it prints, once it does.
  std::string line() {
    char text[4096];
    return std::fgets(text, sizeof text, out_) == nullptr ? "" : text;
  }

 private:
  pid_t pid_;
  FILE* out_;
};

}  // namespace

TEST_F(Tool, PrintsALineARecordInTheOrderOfTime) {
  const Result result = ringlog(path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  ASSERT_THAT(result.lines, SizeIs(3));
  EXPECT_THAT(result.lines[0],
              MatchesRegex("20[0-9-]+T[0-9:]+[.][0-9]+Z 8 .*SetUp.* vni 10010 vtep 10.0.0.1"));
  EXPECT_THAT(result.lines[1], HasSubstr("Z 6 "));
  EXPECT_THAT(result.lines[2], EndsWith("cost -1.5 true"));
}

TEST_F(Tool, EscapesWhatWouldSteerATerminal) {
  EXPECT_THAT(ringlog(path()).lines[1], EndsWith("list \"a\\x1b[1m\\n\xff\""));
}

TEST_F(Tool, PrintsJsonLines) {
  const Result result = ringlog("--json " + path());
  ASSERT_THAT(result.lines, SizeIs(3));
  const json first = json::parse(result.lines[0]);
  EXPECT_EQ(first["level"], 8);
  EXPECT_EQ(first["message"], "vni 10010 vtep 10.0.0.1");
  EXPECT_EQ(first["form"], "vni {} vtep {}");
  EXPECT_EQ(first["args"], json({10010, "10.0.0.1"}));
  EXPECT_THAT(first["function"], HasSubstr("SetUp"));
  EXPECT_THAT(first["file"], EndsWith("ToolTest.cpp"));
  EXPECT_GT(first["line"], 0);
  const json second = json::parse(result.lines[1]);
  EXPECT_EQ(second["args"], json({"a\x1b[1m\n\xef\xbf\xbd"})) << "what is not UTF-8 is replaced";
  const json third = json::parse(result.lines[2]);
  EXPECT_EQ(third["args"], json({-1.5, true}));
  EXPECT_LE(first["ns"], second["ns"]);
  EXPECT_LE(second["ns"], third["ns"]);
}

TEST_F(Tool, PrintsTraceEvents) {
  const json document = json::parse(ringlog("--trace-event " + path()).text());
  std::vector<json> instants;
  std::vector<std::string> threads;
  for (const json& event : document["traceEvents"]) {
    if (event["ph"] == "i") {
      instants.push_back(event);
    } else if (event["name"] == "thread_name") {
      threads.push_back(event["args"]["name"]);
    }
  }
  EXPECT_THAT(threads, ElementsAre("level 8", "level 6", "level 2"));
  ASSERT_THAT(instants, SizeIs(3));
  EXPECT_THAT(std::string(instants[0]["name"]), EndsWith("Tool::SetUp"));
  EXPECT_EQ(instants[0]["tid"], 8);
  EXPECT_EQ(instants[0]["pid"], getpid());
  EXPECT_EQ(instants[0]["args"]["message"], "vni 10010 vtep 10.0.0.1");
  EXPECT_EQ(instants[0]["args"]["values"], json({10010, "10.0.0.1"}));
  EXPECT_GE(instants[0]["ts"], 0);
  EXPECT_LE(instants[0]["ts"], instants[1]["ts"]);
  EXPECT_LE(instants[1]["ts"], instants[2]["ts"]);
}

TEST_F(Tool, PrintsADocumentEvenOfAnEmptyTrace) {
  const auto empty = openIn(directory_);
  const Result result = ringlog("--trace-event " + empty->path());
  EXPECT_THAT(json::parse(result.text())["traceEvents"], SizeIs(1));
  EXPECT_THAT(ringlog(empty->path()).lines, IsEmpty());
}

TEST_F(Tool, PrintsTheLevelsAskedFor) {
  const auto levels = [&](const std::string& list) {
    std::string result;
    for (const std::string& line : ringlog("--json --level " + list + " " + path()).lines) {
      result += json::parse(line)["level"].dump();
    }
    return result;
  };
  EXPECT_EQ(levels("8"), "8");
  EXPECT_EQ(levels("2,8"), "82");
  EXPECT_EQ(levels("6-9"), "86");
  EXPECT_EQ(levels("0-2,6-6"), "62");
  EXPECT_EQ(levels("7"), "");
}

TEST_F(Tool, PrintsTheRecordsThatContainAText) {
  EXPECT_THAT(ringlog("--grep 10.0.0.1 " + path()).lines, ElementsAre(HasSubstr("vni 10010")));
  EXPECT_THAT(ringlog("--grep SetUp " + path()).lines, SizeIs(3)) << "the function counts too";
  EXPECT_THAT(ringlog("--grep 'no such' " + path()).lines, IsEmpty());
}

TEST_F(Tool, PrintsWhatTheTraceIs) {
  const Result result = ringlog("--info " + path());
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.text(),
              HasSubstr("program          " + processName() + " (process " + std::to_string(getpid()) + ")"));
  EXPECT_THAT(result.text(), HasSubstr("closed           no: "));
  EXPECT_THAT(result.text(), HasSubstr("rings            10 levels of 33 KiB"));
  EXPECT_THAT(result.text(), HasSubstr("call sites       3\n"));
  EXPECT_THAT(result.text(), HasSubstr("records          3\n"));
}

TEST_F(Tool, NotesWhatWasNeverWritten) {
  RINGLOG(*log_, 10, "no such level");
  const Result result = ringlog(path());
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.lines, SizeIs(3));
  EXPECT_EQ(result.errors,
            "ringlog: " + path() +
                ": 1 record(s) never written: the site table was full, or they had no such level\n");
}

TEST_F(Tool, FollowsATraceIntoTheNextRun) {
  Running tool({"--follow", "--json", path()});
  for (const unsigned level : {8U, 6U, 2U}) {
    EXPECT_EQ(json::parse(tool.line())["level"], level);
  }
  RINGLOG(*log_, 8, "while it is followed");
  EXPECT_EQ(json::parse(tool.line())["message"], "while it is followed");
  log_ = openIn(directory_);
  RINGLOG(*log_, 8, "of the next run");
  EXPECT_EQ(json::parse(tool.line())["message"], "of the next run");
}

TEST_F(Tool, RefusesADamagedFileWithOneMessageAndStatus2) {
  std::ofstream(directory_.file("foreign")) << std::string(600, 'x');
  std::filesystem::copy_file(path(), directory_.file("short"));
  std::filesystem::resize_file(directory_.file("short"), 5000);
  for (const std::string name : {"foreign", "short"}) {
    for (const std::string form : {"", "--json ", "--trace-event ", "--follow ", "--info "}) {
      const Result result = ringlog(form + directory_.file(name));
      EXPECT_EQ(result.status, 2) << form << name;
      EXPECT_THAT(result.lines, IsEmpty());
      EXPECT_THAT(result.errors, MatchesRegex("ringlog: " + directory_.file(name) + ": [^\n]+\n"));
    }
  }
}

TEST_F(Tool, SaysWhichFileItCannotRead) {
  const Result result = ringlog(directory_.file("none"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors,
            "ringlog: " + directory_.file("none") + ": cannot open: No such file or directory\n");
}

TEST_F(Tool, SaysThatItsOutputCannotBeWritten) {
  if (!std::filesystem::exists("/dev/full")) {
    GTEST_SKIP() << "no /dev/full here";
  }
  const Result result = ringlog(path(), "/dev/full");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "ringlog: standard output: cannot write: No space left on device\n");
}

TEST_F(Tool, RefusesWrongUsage) {
  for (const std::string usage :
       {"", "--level 8-6 x", "--level x x", "--level 64 x", "--level '' x", "--level 1, x",
        "--json --trace-event x", "--follow --trace-event x", "--nonsense x", "x y"}) {
    const Result result = ringlog(usage);
    EXPECT_EQ(result.status, 1) << usage;
    EXPECT_THAT(result.lines, IsEmpty()) << usage;
    EXPECT_NE(result.errors, "") << usage;
  }
}

TEST_F(Tool, ExplainsItself) {
  const Result result = ringlog("--help");
  EXPECT_EQ(result.status, 0);
  for (const char* const word : {"--json", "--trace-event", "--level", "--grep", "--follow", "Exit status"}) {
    EXPECT_THAT(result.text(), HasSubstr(word));
  }
}

#endif
