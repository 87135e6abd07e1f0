#include "agent/daemon/Reload.h"

#include <stdexcept>

#include "agent/daemon/Settings.h"

namespace Agent {

namespace {

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

}  // namespace

void Reload::run() {
  try {
    const RunOptions fresh = readAgain(arguments_);
    const std::vector<std::string> now = differences(options_, fresh, Changeable::atRunTime);
    const std::vector<std::string> later = differences(options_, fresh, Changeable::atTheNextStart);
    if (now.empty() && later.empty()) {
      log_.line("the configuration is as it was");
      return;
    }
    apply(fresh);
    if (!now.empty()) {
      log_.line("the configuration has changed, in effect now: " + joined(now));
    }
    if (!later.empty()) {
      log_.line(
          "the configuration has changed, in effect at the next start, which keeps the forwarding state: " +
          joined(later));
    }
  } catch (const std::exception& error) {
    log_.line("the configuration cannot be: " + std::string(error.what()) +
              "; the agent goes on with the old one");
  }
}

// All of it is checked before the first change.
void Reload::apply(const RunOptions& fresh) {
  if (fresh.ovsdb.empty() != options_.ovsdb.empty()) {
    throw std::invalid_argument("--ovsdb: following a database begins and ends with the agent");
  }
  const std::vector<Ovsdb::Remote> remotes = remotesOf(fresh);
  const Control::Access access = accessOf(fresh);
  server_.accessIs(access);
  if (feed_ != nullptr) {
    if (fresh.ovsdb != options_.ovsdb) {
      feed_->adapter().remotesAre(remotes);
    }
    feed_->adapter().convergenceOptionsAre({fresh.convergeQuiet, fresh.convergeMax});
  }
  options_.ovsdb = fresh.ovsdb;
  options_.convergeQuiet = fresh.convergeQuiet;
  options_.convergeMax = fresh.convergeMax;
  options_.socketGroup = fresh.socketGroup;
  options_.socketReadAll = fresh.socketReadAll;
}

}  // namespace Agent
