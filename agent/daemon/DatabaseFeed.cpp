#include "agent/daemon/DatabaseFeed.h"

#include <utility>

#include "agent/state/JsonChecks.h"

namespace Agent {

namespace {

constexpr std::size_t hostsPerPatch = 128;

}  // namespace

DatabaseFeed::DatabaseFeed(Service::EventLoop& loop, World& world, const Vtep::Adapter::Options& options,
                           Incidents& incidents, Log& log, std::function<void(const nlohmann::json&)> record)
    : loop_(loop),
      world_(world),
      incidents_(incidents),
      record_(std::move(record)),
      adapter_(
          loop, options,
          [this] {
            if (work_ == Service::EventLoop::WorkId::none) {
              work_ = loop_.addWork([this] { return slice(); });
            }
          },
          [&log](const std::string& text) { log.line(text); }) {}

DatabaseFeed::~DatabaseFeed() {
  loop_.dropWork(work_);
}

// Returns whether more is left.
bool DatabaseFeed::slice() {
  while (loop_.budgetLeft()) {
    if (!patch_ && !nextPatch()) {
      work_ = Service::EventLoop::WorkId::none;
      return false;
    }
    step();
  }
  return true;
}

bool DatabaseFeed::nextPatch() {
  std::optional<nlohmann::json> next = adapter_.next(hostsPerPatch);
  if (!next) {
    return false;
  }
  patchText_ = std::move(*next);
  try {
    patch_.emplace(world_, patchText_);
    record_(patchText_);
  } catch (const Refused& refused) {
    incidents_.note("refused", refused.pointer(), refused.what());
  } catch (const std::exception& error) {
    incidents_.error("a patch of the database", error.what());
  }
  return true;
}

// Carries out the next change of the patch, if there is one.
void DatabaseFeed::step() {
  incidents_.guarded("a change of the database", [this] {
    if (patch_ && !patch_->step(InputPatch::hostsInHandler)) {
      patch_.reset();
    }
  });
}

void DatabaseFeed::finishPatch() {
  while (patch_) {
    step();
  }
}

bool DatabaseFeed::settled() const {
  return adapter_.status().session == Ovsdb::SessionState::following && !patch_ &&
         work_ == Service::EventLoop::WorkId::none && !adapter_.mapper().convergence().inProgress();
}

}  // namespace Agent
