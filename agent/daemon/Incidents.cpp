#include "agent/daemon/Incidents.h"

#include <algorithm>

#include "agent/daemon/Delivery.h"

namespace Agent {

void Incidents::note(const std::string& kind, const std::string& where, const std::string& text) {
  const nlohmann::json problem = {{"kind", kind}, {"where", where}, {"text", text}};
  if (std::find(kept_.begin(), kept_.end(), problem) != kept_.end()) {
    return;
  }
  log_.line(kind + " in " + where + ": " + text);
  kept_.push_back(problem);
  if (kept_.size() > mostKept) {
    kept_.pop_front();
  }
}

void Incidents::error(std::string_view where, std::string_view what) {
  ++errors_;
  note("error", std::string(where), std::string(what));
}

void Incidents::guarded(const char* what, const std::function<void()>& work) {
  carryThrough(work, [&](const std::exception& error) { this->error(what, error.what()); });
}

}  // namespace Agent
