#pragma once

#include <cstddef>
#include <string>

// The trace files of earlier runs beside the one that is being opened.
namespace RingLog::detail {

// How many files of processes that have ended are kept.
inline constexpr std::size_t keptRuns = 3;

// Says that the process writes to the trace that is open at FD, for as long as the description is open. The
// system lets go of it when the process ends, however it ends, so that a process number that is used again
// tells nothing wrong.
void markLiving(int fd);

// Moves the file at PATH to PATH.1, that to PATH.2, and so on, so that the name is free. Before that, of the
// files of processes that have ended, the last keptRuns stay, and the latest that was not closed in good
// order, however old it is; the others are removed, as is what a process left that died while it made a file.
// The file of a living process stays, whatever its name. Raises std::system_error when a file cannot be
// renamed.
void keepEarlier(const std::string& path);

}  // namespace RingLog::detail
