#include "RingLog/Reader.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <queue>
#include <system_error>
#include <utility>

#include "RingLog/Decode.h"
#include "RingLog/Source.h"

namespace RingLog {

// Puts a trace together from a source.
class TraceReader {
 public:
  static Trace read(const detail::Source& source) {
    const Format::Header header = detail::readHeader(source);
    std::vector<detail::RingImage> rings;
    for (unsigned level = 0; level < header.levels; ++level) {
      rings.push_back(detail::readRing(source, header, level));
    }
    const Format::Header after = detail::readHeader(source);
    Trace trace;
    trace.places_ = std::make_shared<const std::vector<Place>>(detail::readPlaces(source, after));
    trace.info_ = infoOf(after);
    detail::Moments moments;
    std::vector<std::vector<Record>> levels;
    for (unsigned level = 0; level < header.levels; ++level) {
      levels.push_back(detail::decodeRing(rings[level], level, *trace.places_, moments, trace.info_));
    }
    trace.records_ = merge(std::move(levels));
    const detail::TimeScale scale(header, std::move(moments));
    for (Record& record : trace.records_) {
      record.time = scale.realtime(record.ticks);
    }
    return trace;
  }

 private:
  static TraceInfo infoOf(const Format::Header& header) {
    TraceInfo info;
    const auto end = std::find(header.program.begin(), header.program.end(), '\0');
    info.program.assign(header.program.begin(), end);
    info.pid = header.pid;
    info.opened = header.openedRealtime;
    info.closed = header.closed == 1;
    info.levels = header.levels;
    info.ringBytes = std::size_t{header.blocksPerRing} * header.blockBytes;
    info.droppedRecords = header.droppedRecords;
    info.droppedSites = header.droppedSites;
    return info;
  }

  // In the order of time; those of one level stay as they were written whatever their ticks say.
  static std::vector<Record> merge(std::vector<std::vector<Record>> levels) {
    std::vector<Record> result;
    using Next = std::pair<std::uint64_t, std::size_t>;  // ticks, level
    std::priority_queue<Next, std::vector<Next>, std::greater<>> queue;
    std::vector<std::size_t> at(levels.size(), 0);
    for (std::size_t level = 0; level < levels.size(); ++level) {
      if (!levels[level].empty()) {
        queue.emplace(levels[level][0].ticks, level);
      }
    }
    while (!queue.empty()) {
      const std::size_t level = queue.top().second;
      queue.pop();
      result.push_back(std::move(levels[level][at[level]]));
      if (++at[level] < levels[level].size()) {
        queue.emplace(levels[level][at[level]].ticks, level);
      }
    }
    return result;
  }
};

Trace Trace::parse(std::span<const std::byte> image) {
  return TraceReader::read(detail::ImageSource(image));
}

namespace {

// Errors of a file begin with its path.
Trace readFile(const detail::FileSource& file, const std::string& path) {
  try {
    return TraceReader::read(file);
  } catch (const TraceError& error) {
    throw TraceError(path + ": " + error.what());
  }
}

}  // namespace

Trace Trace::read(const std::string& path) {
  return readFile(detail::FileSource(path), path);
}

class Follower::File {
 public:
  explicit File(const std::string& path) : source(path) {}
  detail::FileSource source;
};

Follower::Follower(std::string path) : path_(std::move(path)), file_(std::make_unique<File>(path_)) {
  readFile(file_->source, path_);
}
Follower::Follower(Follower&&) noexcept = default;
Follower::~Follower() = default;

std::vector<Follower::News> Follower::poll() {
  std::vector<News> result;
  const bool same = file_->source.isStillAt(path_);
  result.push_back(read());
  if (!same) {
    try {
      file_ = std::make_unique<File>(path_);
    } catch (const std::system_error& error) {
      if (error.code() == std::errc::no_such_file_or_directory) {
        return result;
      }
      throw;
    }
    seen_.clear();
    result.push_back(read());
  }
  return result;
}

Follower::News Follower::read() {
  News news{readFile(file_->source, path_), 0};
  std::vector<Record>& records = news.trace.records_;
  const bool first = seen_.empty();  // what was overwritten before anybody looked is not lost to a follower
  seen_.resize(news.trace.info_.levels);
  std::vector<Position> now = seen_;
  std::vector<bool> any(seen_.size(), false);
  const auto isOld = [&](const Record& record) {
    const Position& seen = seen_[record.place->level];
    return record.block < seen.block || (record.block == seen.block && record.offset <= seen.offset);
  };
  for (const Record& record : records) {
    const unsigned level = record.place->level;
    if (isOld(record)) {
      continue;
    }
    if (!first && !any[level] && record.block > seen_[level].block + 1) {
      news.lostBlocks += record.block - seen_[level].block - 1;
    }
    any[level] = true;
    now[level] = {record.block, record.offset};
  }
  std::erase_if(records, isOld);
  seen_ = now;
  return news;
}

}  // namespace RingLog
