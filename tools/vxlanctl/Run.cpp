#include "tools/vxlanctl/Run.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <istream>
#include <iterator>
#include <ostream>
#include <stdexcept>

#include "Files/Owners.h"
#include "Memtab/Error.h"
#include "RingLog/Reader.h"
#include "service/control/Client.h"
#include "service/control/Defaults.h"
#include "service/json/Text.h"
#include "tools/vxlanctl/Completion.h"
#include "tools/vxlanctl/Explain.h"
#include "tools/vxlanctl/HostTable.h"
#include "tools/vxlanctl/Request.h"
#include "tools/vxlanctl/Shows.h"
#include "tools/vxlanctl/TraceText.h"

namespace Vxlanctl {

namespace {

using Control::Client;
using Control::Refused;
using Control::Unreachable;
using nlohmann::json;

// Where a command reads and writes.
struct Streams {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
};

json partOf(Client& client, const std::string& pointer) {
  try {
    return client.get(pointer);
  } catch (const Refused& refusal) {
    if (refusal.kind() == "notFound") {
      return nullptr;
    }
    throw;
  }
}

// The VLAN that the agent maps to a VNI.
std::string vlanOf(std::uint32_t vni, const Part& part) {
  const json maps = part("/input/vlanVniMap");
  for (const auto& [vti, map] : maps.items()) {
    for (const auto& [vlan, mapped] : map.items()) {
      if (mapped == vni) {
        return vlan;
      }
    }
  }
  throw Refused("notFound", "", fmt::format("VNI {} is mapped to no VLAN", vni));
}

std::optional<uid_t> tableOwner(const Request& request) {
  const bool told = !request.tableOwner.empty();
  const std::optional<uid_t> owner = Files::userOf(told ? request.tableOwner : Agent::Defaults::tableOwner);
  if (told && !owner) {
    throw std::invalid_argument("--table-owner: there is no user \"" + request.tableOwner + "\"");
  }
  return owner;
}

// The agent is asked only when a part is: "show hosts" does without.
Sheet sheetOf(Request& request) {
  std::optional<Client> client;
  const Part part = [&](const std::string& pointer) {
    if (!client) {
      client.emplace(request.socket);
    }
    return partOf(*client, pointer);
  };
  if (request.what == "hosts") {
    if (request.vni) {
      request.filters["vlan"] = vlanOf(*request.vni, part);
    }
    return request.received ? showReceivedHosts(part)
                            : hostsInTable(request.table, request.filters, tableOwner(request));
  }
  if (request.what == "problems") {
    return showProblems(Client(request.socket).call("problems"));
  }
  static const std::map<std::string, Sheet (*)(const Part&)> shows{
      {"floods", showFloods},           {"bum", showBum},           {"vni", showVni},      {"vti", showVti},
      {"convergence", showConvergence}, {"machines", showMachines}, {"kernel", showKernel}};
  return shows.at(request.what)(part);
}

ExitCode show(Request& request, const Streams& streams) {
  Sheet sheet = sheetOf(request);
  sheet.keep(request.filters);
  if (request.json) {
    sheet.printJson(streams.out);
  } else {
    sheet.printText(streams.out);
  }
  const bool isFiltered = !request.filters.empty();
  return sheet.empty() && isFiltered ? negative : done;
}

ExitCode explain(const Request& request, const Streams& streams) {
  json params{{"mac", request.mac}};
  if (request.vlan) {
    params["vlan"] = *request.vlan;
  }
  if (request.vni) {
    params["vni"] = *request.vni;
  }
  const json answer = Client(request.socket).call("explain", params);
  if (request.json) {
    streams.out << answer.dump(2) << '\n';
    return answer.value("published", false) ? done : negative;
  }
  return printExplanation(answer, streams.out) ? done : negative;
}

// When it was too slow, it begins again with the whole part.
ExitCode watch(const Request& request, const Streams& streams) {
  Client client(request.socket);
  const auto print = [&streams](const json& line) { streams.out << line.dump() << std::endl; };
  print({{"value", client.subscribe(request.pointer)}});
  for (std::uint64_t seen = 0; request.count == 0 || seen < request.count;) {
    const json update = client.next();
    print(update);
    if (update.contains("cut")) {
      print({{"value", client.subscribe(request.pointer)}});
    } else {
      ++seen;
    }
  }
  return done;
}

ExitCode dump(const Request& request, const Streams& streams) {
  streams.out << Client(request.socket).get(request.pointer).dump(2) << '\n';
  return done;
}

std::string readAll(const std::string& file, std::istream& in) {
  std::ifstream opened;
  if (file != "-") {
    opened.open(file, std::ios::binary);
    if (!opened) {
      throw std::invalid_argument(file + ": cannot be read");
    }
  }
  std::istream& from = file == "-" ? in : opened;
  std::string text{std::istreambuf_iterator<char>(from), std::istreambuf_iterator<char>()};
  if (from.bad()) {
    throw std::invalid_argument(file + ": cannot be read");
  }
  return text;
}

ExitCode patch(const Request& request, const Streams& streams) {
  const std::string text = readAll(request.file, streams.in);
  json patch;
  try {
    patch = Service::parseJson(text);
  } catch (const Service::BadJson& error) {
    if (error.byte() == 0) {
      throw std::invalid_argument(fmt::format("{}: {}", request.file, error.what()));
    }
    const auto before = text.begin() + static_cast<std::ptrdiff_t>(std::min(error.byte(), text.size()));
    const auto line = std::count(text.begin(), before, '\n') + 1;
    throw std::invalid_argument(fmt::format("{}:{}: not JSON", request.file, line));
  }
  Client(request.socket).patch(patch);
  return done;
}

ExitCode flush(const Request& request, const Streams& streams) {
  const json answer = Client(request.socket).call("flush");
  if (request.json) {
    streams.out << answer.dump(2) << '\n';
  } else {
    streams.out << fmt::format("removed {} hosts and {} flood sets\n", answer.value("hosts", 0),
                               answer.value("floodSets", 0));
  }
  return done;
}

// Where the agent says that it keeps its flight recorder; where it usually does if it is not there to be
// asked.
std::string traceFileOf(const Request& request) {
  try {
    Client client(request.socket);
    const json file = partOf(client, "/agent/trace");
    if (file.is_string() && !file.get_ref<const std::string&>().empty()) {
      return file.get<std::string>();
    }
  } catch (const Unreachable&) {
    return Agent::Defaults::traceFile;
  }
  return Agent::Defaults::traceFile;
}

ExitCode trace(const Request& request, const Streams& streams) {
  Request found = request;
  if (found.file.empty()) {
    found.file = traceFileOf(request);
  }
  return printTrace(found, streams.out) == 0 ? negative : done;
}

ExitCode carryOut(const CLI::App& app, Request& request, const Streams& streams) {
  const std::string command = app.get_subcommands().front()->get_name();
  if (command == "show") {
    return show(request, streams);
  }
  if (command == "completion") {
    streams.out << bashCompletion(app);
    return done;
  }
  static const std::map<std::string, ExitCode (*)(const Request&, const Streams&)> commands{
      {"explain", explain}, {"watch", watch}, {"dump", dump},
      {"patch", patch},     {"flush", flush}, {"trace", trace}};
  return commands.at(command)(request, streams);
}

// Carries the command out; what it raises becomes a message and an exit code.
ExitCode answer(const CLI::App& app, Request& request, const Streams& streams) {
  const auto fail = [&streams](const std::exception& error, ExitCode code) {
    streams.err << "vxlanctl: " << error.what() << '\n';
    return code;
  };
  try {
    return carryOut(app, request, streams);
  } catch (const Refused& refusal) {
    return fail(refusal, refusal.kind() == "notFound" ? negative : refused);
  } catch (const Unreachable& error) {
    return fail(error, unreachable);
  } catch (const NoTable& error) {
    return fail(error, unreachable);
  } catch (const Memtab::Error& error) {
    return fail(error, unreachable);
  } catch (const std::exception& error) {  // a file, an argument, an answer that is not of this protocol
    return fail(error, refused);
  }
}

}  // namespace

ExitCode run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
             std::ostream& err) {
  Request request;
  const auto app = commandLine(request);
  try {
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());  // as CLI11 takes them
    app->parse(std::move(reversed));
  } catch (const CLI::ParseError& error) {
    return app->exit(error, out, err) == 0 ? done : refused;
  }
  return answer(*app, request, {in, out, err});
}

}  // namespace Vxlanctl
