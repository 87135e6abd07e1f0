#include "agent/daemon/RunOptions.h"

#include <algorithm>

namespace Agent {

CLI::App* addRunCommand(CLI::App& app, RunOptions& options) {
  CLI::App* run = app.add_subcommand("run", "Run the agent as a daemon, in the foreground");
  run->configurable();
  run->fallthrough();
  const auto option = [run](const char* name, auto& value, const char* help) {
    return run->add_option(name, value, help)->capture_default_str();
  };
  option("--ovsdb", options.ovsdb,
         "Follow this database: unix:PATH, tcp:HOST:PORT or ssl:HOST:PORT, several with commas")
      ->delimiter(',');
  option("--switch", options.switchName, "The name of this switch in the database");
  option("--vti", options.vti, "The tunnel interface that the database is about");
  option("--untagged-vlans", options.untaggedVlans,
         "VLANs for logical switches that are bound untagged, FIRST-LAST");
  option("--ovsdb-key", options.ovsdbKey, "Private key for ssl remotes");
  option("--ovsdb-cert", options.ovsdbCert, "Certificate for ssl remotes");
  option("--ovsdb-ca", options.ovsdbCa, "Authority that ssl remotes must have");
  option("--max-message", options.maxMessage,
         "MiB of the database's first answer, which has all rows, at the most")
      ->check(CLI::Range(std::size_t{1}, std::size_t{65536}));
  option("--converge-quiet", options.convergeQuiet, "Seconds without a change that end a convergence")
      ->check(CLI::Range(0.0, 1e6));
  option("--converge-max", options.convergeMax, "Seconds after which a convergence ends anyhow")
      ->check(CLI::Range(0.0, 1e6));
  run->add_flag("--kernel", options.kernel, "Program the kernel's bridges and VXLAN devices");
  option("--kernel-lock-dir", options.kernelLockDir,
         "The folder of the lock that keeps a second agent out of the network namespace");
  option("--port", options.ports,
         "Put an interface into the bridge of a VLAN: VLAN:INTERFACE, several with commas")
      ->delimiter(',');
  option("--table", options.table, "The table of hosts in shared memory");
  option("--table-owner", options.tableOwner, "Adopt the table of this user, too");
  option("--table-limit", options.tableLimit, "How many hosts a new table may hold")
      ->check(CLI::Range(std::size_t{1}, std::size_t{268435455}));
  option("--metrics", options.metrics, "Serve Prometheus at this ADDRESS:PORT");
  option("--socket", options.socket, "The control socket");
  option("--socket-group", options.socketGroup, "Members of this group may patch");
  run->add_flag("--socket-read-all", options.socketReadAll, "Everybody may read at the control socket");
  option("--trace-dir", options.traceDir, "The folder of the flight recorder; empty: RINGLOG_DIR, or memory");
  option("--record", options.record, "Write every change of the inputs to this journal");
  return run;
}

namespace {

template <auto Member>
bool same(const RunOptions& one, const RunOptions& other) {
  return one.*Member == other.*Member;
}

struct Option {
  const char* name;
  bool (*same)(const RunOptions&, const RunOptions&);
  Changeable changeable;
};

constexpr Option all[] = {
    {"ovsdb", same<&RunOptions::ovsdb>, Changeable::atRunTime},
    {"converge-quiet", same<&RunOptions::convergeQuiet>, Changeable::atRunTime},
    {"converge-max", same<&RunOptions::convergeMax>, Changeable::atRunTime},
    {"socket-group", same<&RunOptions::socketGroup>, Changeable::atRunTime},
    {"socket-read-all", same<&RunOptions::socketReadAll>, Changeable::atRunTime},
    {"switch", same<&RunOptions::switchName>, Changeable::atTheNextStart},
    {"vti", same<&RunOptions::vti>, Changeable::atTheNextStart},
    {"untagged-vlans", same<&RunOptions::untaggedVlans>, Changeable::atTheNextStart},
    {"ovsdb-key", same<&RunOptions::ovsdbKey>, Changeable::atTheNextStart},
    {"ovsdb-cert", same<&RunOptions::ovsdbCert>, Changeable::atTheNextStart},
    {"ovsdb-ca", same<&RunOptions::ovsdbCa>, Changeable::atTheNextStart},
    {"max-message", same<&RunOptions::maxMessage>, Changeable::atTheNextStart},
    {"kernel", same<&RunOptions::kernel>, Changeable::atTheNextStart},
    {"kernel-lock-dir", same<&RunOptions::kernelLockDir>, Changeable::atTheNextStart},
    {"port", same<&RunOptions::ports>, Changeable::atTheNextStart},
    {"table", same<&RunOptions::table>, Changeable::atTheNextStart},
    {"table-owner", same<&RunOptions::tableOwner>, Changeable::atTheNextStart},
    {"table-limit", same<&RunOptions::tableLimit>, Changeable::atTheNextStart},
    {"metrics", same<&RunOptions::metrics>, Changeable::atTheNextStart},
    {"socket", same<&RunOptions::socket>, Changeable::atTheNextStart},
    {"trace-dir", same<&RunOptions::traceDir>, Changeable::atTheNextStart},
    {"record", same<&RunOptions::record>, Changeable::atTheNextStart},
};

}  // namespace

std::vector<std::string> differences(const RunOptions& one, const RunOptions& other, Changeable which) {
  std::vector<std::string> names;
  for (const Option& option : all) {
    if (option.changeable == which && !option.same(one, other)) {
      names.emplace_back(option.name);
    }
  }
  return names;
}

RunOptions readAgain(const std::vector<std::string>& arguments) {
  CLI::App app;
  app.set_config("--config");
  app.allow_config_extras(false);
  RunOptions options;
  addRunCommand(app, options);
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  app.parse(reversed);
  return options;
}

}  // namespace Agent
