#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "tools/vxlanctl/Request.h"

namespace {

using testing::HasSubstr;

// A page or a file of the project, with the escapes of dashes and the changes of font taken out.
std::string plain(const std::string& name) {
  std::ifstream file(std::string(PROJECT_FOLDER) + "/" + name);
  EXPECT_TRUE(file) << name;
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  return std::regex_replace(std::regex_replace(text, std::regex(R"(\\-)"), "-"), std::regex(R"(\\f[BIR])"),
                            "");
}

void expectDescribed(const CLI::App& command, const std::string& page) {
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      if (name != "help") {
        EXPECT_THAT(page, HasSubstr("--" + name)) << "of " << command.get_name();
      }
    }
  }
  for (const CLI::App* sub : command.get_subcommands({})) {
    EXPECT_THAT(page, HasSubstr(sub->get_name()));
    expectDescribed(*sub, page);
  }
}

TEST(ManPage, DescribesEveryCommandAndOption) {
  Vxlanctl::Request request;
  expectDescribed(*Vxlanctl::commandLine(request), plain("man/vxlanctl.1"));
}

TEST(ManPage, OfTheAgentDescribesEveryLineOfTheExampleConfiguration) {
  const std::string page = plain("man/vxlan-agent.8");
  const std::string example = plain("packaging/vxlan-agent.conf");
  const std::regex setting(R"(\n#?([a-z-]+) = )");
  int settings = 0;
  for (std::sregex_iterator found(example.begin(), example.end(), setting); found != std::sregex_iterator();
       ++found) {
    EXPECT_THAT(page, HasSubstr("--" + (*found)[1].str()));
    ++settings;
  }
  EXPECT_GT(settings, 10);
}

}  // namespace
