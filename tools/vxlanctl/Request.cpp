#include "tools/vxlanctl/Request.h"

#include "Vxlan/types/Decimal.h"
#include "Vxlan/types/Qnet.h"
#include "service/control/Defaults.h"

namespace Vxlanctl {

namespace {

constexpr const char* footer =
    "Exit status:\n"
    "  0  done\n"
    "  1  the answer is no: nothing matches, the host is not published, nothing is at that pointer\n"
    "  2  wrong usage, or the agent refused\n"
    "  3  the agent, or the table in shared memory, cannot be reached\n"
    "\n"
    "Examples:\n"
    "  vxlanctl show hosts --vlan 10        also while the agent is down\n"
    "  vxlanctl explain 02:00:00:00:00:01 --vlan 10\n"
    "  vxlanctl watch /output/l2Rib/floodSets\n"
    "  echo '{\"vlanVniMap\":{\"Vxlan1\":{\"10\":5010}}}' | vxlanctl patch -\n"
    "  vxlanctl trace --grep 02:00:00:00:00:01 --last 20";

// Checks a MAC or IP address and brings it into the form that rows have.
template <typename Address>
CLI::Validator address(const char* type) {
  return {[type](std::string& text) {
            const auto parsed = Address::parse(text);
            if (!parsed) {
              return "\"" + text + "\" is no " + type + " address";
            }
            text = parsed->text();
            return std::string();
          },
          type};
}

// Checks a number and brings it into the form that rows have.
CLI::Validator number(const char* type, std::uint32_t most) {
  return {[type, most](std::string& text) {
            const auto value = Qnet::parseDecimal(text, most);
            const bool fits = value && *value > 0;
            return fits ? std::string() : "\"" + text + "\" is no " + type + ": 1 to " + std::to_string(most);
          },
          type};
}
CLI::Validator vlan() {
  return number("VLAN", 4094);
}
CLI::Validator vni() {
  return number("VNI", 16'777'215);
}

// A filter of a "show" command: an option, and the member of the rows that it is about.
struct Filter {
  const char* option;
  const char* member;
  const char* about;
  CLI::Validator check;
};

Filter byVlan() {
  return {"--vlan", "vlan", "Only this VLAN", vlan()};
}
Filter byVni() {
  return {"--vni", "vni", "Only this VNI", vni()};
}
Filter byMac() {
  return {"--mac", "mac", "Only this MAC", address<Qnet::EthAddr>("MAC")};
}
Filter byVtep(const char* member) {
  return {"--vtep", member, "Only with this VTEP", address<Qnet::IpAddr>("IP")};
}
Filter byText(const char* option, const char* member, const char* about) {
  return {option, member, about, CLI::Validator()};
}

CLI::App* addShow(CLI::App& show, Request& request, const char* what, const char* about,
                  const std::vector<Filter>& filters) {
  CLI::App* command = show.add_subcommand(what, about);
  command->callback([&request, what] { request.what = what; });
  command->add_flag("--json", request.json, "Print a JSON array of objects");
  for (const Filter& filter : filters) {
    command
        ->add_option_function<std::string>(
            filter.option,
            [&request, member = filter.member](const std::string& text) { request.filters[member] = text; },
            filter.about)
        ->transform(filter.check);
  }
  return command;
}

void addShows(CLI::App& app, Request& request) {
  CLI::App* show = app.add_subcommand("show", "Print a table of what the agent knows");
  show->require_subcommand(1);
  CLI::App* hosts =
      addShow(*show, request, "hosts", "Hosts of the layer-2 RIB, read from shared memory without the agent",
              {byVlan(), byMac(), byVtep("vtepIp"), byText("--vti", "vti", "Only behind this VTI")});
  hosts->add_flag("--received", request.received,
                  "Hosts as the agent has received them, with those marked for deletion");
  hosts->add_option("--vni", request.vni, "Only the VLAN of this VNI, which the agent is asked for")
      ->check(vni())
      ->excludes("--vlan");
  addShow(*show, request, "floods", "Flood sets of the layer-2 RIB", {byVlan(), byMac(), byVtep("dests")});
  addShow(*show, request, "bum", "BUM VTEP lists of this switch",
          {byVlan(), byMac(), byVtep("remoteVtepAddr")});
  addShow(*show, request, "vni", "VNIs, where they are used, and what the controller publishes in them",
          {byVni(), byVlan(), byText("--vti", "vti", "Only on this VTI")});
  addShow(*show, request, "vti", "VXLAN tunnel interfaces", {byText("--vti", "vti", "Only this VTI")});
  addShow(*show, request, "convergence", "Whether the controller converges, and what waits for that", {});
  addShow(*show, request, "machines", "State machines that are there",
          {byText("--machine", "machine", "Only machines of this name")});
  addShow(*show, request, "problems", "What was left out or could not be done, and why",
          {byText("--kind", "kind", "Only this kind")});
  addShow(*show, request, "kernel", "What the kernel shall have, and has",
          {byText("--kind", "kind", "Only objects of this kind")});
}

void addQuestions(CLI::App& app, Request& request) {
  CLI::App* explain = app.add_subcommand(
      "explain",
      "Follow a MAC from the controller to the layer-2 RIB, and say at each step what was decided and why");
  explain->add_option("MAC", request.mac)->required()->transform(address<Qnet::EthAddr>("MAC"));
  auto* const byVlanOption = explain->add_option("--vlan", request.vlan, "In this VLAN")->check(vlan());
  explain->add_option("--vni", request.vni, "In this VNI")->check(vni())->excludes(byVlanOption);
  explain->add_flag("--json", request.json, "Print the agent's answer");

  CLI::App* watch = app.add_subcommand(
      "watch", "Print a part of the document, then a merge patch for each change, a line of JSON each");
  watch->add_option("POINTER", request.pointer, "JSON Pointer, such as /output/l2Rib; all if none is given");
  watch->add_option("--count", request.count, "End after so many changes");

  CLI::App* dump = app.add_subcommand("dump", "Print a part of the document as it is now");
  dump->add_option("POINTER", request.pointer, "JSON Pointer, such as /input; all if none is given");
}

void addActions(CLI::App& app, Request& request) {
  CLI::App* patch =
      app.add_subcommand("patch", "Apply a JSON merge patch to the input document, whole or not at all");
  patch->add_option("FILE", request.file, "File with the patch, - for standard input")->required();

  CLI::App* flush =
      app.add_subcommand("flush", "Remove everything that the agent has put into the switch's state");
  flush->add_flag("--json", request.json, "Print the agent's answer");

  CLI::App* trace =
      app.add_subcommand("trace", "Print the agent's flight recorder, also after it was killed");
  trace
      ->add_option("--file", request.file,
                   "The recorder's file; else the one that the agent says, or its usual one")
      ->envname("VXLANCTL_TRACE");
  trace->add_option("--level", request.levels, "Only these levels: 8, or 0-3,8");
  trace->add_option("--grep", request.grep, "Only messages that contain this text");
  trace->add_option("--last", request.last, "Only the last so many of them");

  CLI::App* completion =
      app.add_subcommand("completion", "Print a script that completes vxlanctl's command line");
  completion->require_subcommand(1);
  completion->add_subcommand("bash", "For bash");
}

}  // namespace

std::unique_ptr<CLI::App> commandLine(Request& request) {
  auto app = std::make_unique<CLI::App>("Asks and drives the VXLAN agent of this switch.", "vxlanctl");
  app->footer(footer);
  app->require_subcommand(1);
  app->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::Throw);
  app->add_option("--socket", request.socket, "The agent's control socket")
      ->envname("VXLANCTL_SOCKET")
      ->default_val(Agent::Defaults::socketPath);
  app->add_option("--table", request.table, "The host table in shared memory")
      ->envname("VXLANCTL_TABLE")
      ->default_val(Agent::Defaults::hostTable);
  app->add_option("--table-owner", request.tableOwner,
                  "Read the table of this user, too, not only of root and yourself; default: vxlan-agent");
  addShows(*app, request);
  addQuestions(*app, request);
  addActions(*app, request);
  return app;
}

}  // namespace Vxlanctl
