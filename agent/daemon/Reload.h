// What SIGHUP does.
#pragma once

#include <string>
#include <vector>

#include "agent/daemon/DatabaseFeed.h"
#include "agent/daemon/Log.h"
#include "agent/daemon/RunOptions.h"
#include "service/control/Server.h"

namespace Agent {

// Reads the configuration again and puts what can change at run time into effect. What cannot is named in the
// log and waits for the next start. A configuration that is wrong changes nothing.
class Reload {
 public:
  // `arguments` are those of the command line, which come before the file. `feed` is null where no database
  // is followed. All outlive this.
  Reload(RunOptions& options, std::vector<std::string> arguments, Log& log, Control::Server& server,
         DatabaseFeed* feed)
      : options_(options), arguments_(std::move(arguments)), log_(log), server_(server), feed_(feed) {}

  void run();

 private:
  void apply(const RunOptions& fresh);

  RunOptions& options_;
  std::vector<std::string> arguments_;
  Log& log_;
  Control::Server& server_;
  DatabaseFeed* feed_;
};

}  // namespace Agent
