#include "Vxlan/framework/Trace.h"

#include <cstdio>
#include <exception>

namespace Vxlan {
namespace {

constexpr const char* traceFile = "UbeVxlanControllerSm.rl";
constexpr unsigned traceLevels = 10;
constexpr std::size_t traceRingKiB = 33;

// What the names of this library's entities in messages begin with.
const Kel::String nameSpacePrefix("ns-");

std::string& directory() {
  static std::string text;
  return text;
}

}  // namespace

std::unique_ptr<RingLog::Log> vccRlHandle;
Kel::TraceFacility vccTraceFacility("VxlanController");

void vccRlDirectoryIs(const std::string& newDirectory) {
  directory() = newDirectory;
}

void vccRlHandleInit() {
  if (vccRlHandle != nullptr) {
    return;
  }
  RingLog::Options options;
  options.levels = traceLevels;
  options.ringKiB = traceRingKiB;
  options.mode = RingLog::Mode::SingleThreaded;
  options.directory = directory();
  try {
    vccRlHandle = RingLog::Log::open(traceFile, options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%strace: %s; there will be no trace\n", nameSpacePrefix.c_str(), error.what());
  }
}

}  // namespace Vxlan
