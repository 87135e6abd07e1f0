#pragma once

#include <string>

#include "Memtab/Format.h"
#include "Memtab/Options.h"
#include "Memtab/Segment.h"

namespace Memtab {

// The description of a new table: where everything lies for its limit. Raises Error when OPTIONS or SHAPE
// are outside of what the format has room for.
Format::Description describe(const Options& options, Segment::Shape shape);

std::uint64_t checksumOf(const Format::Description& description);

// Raises Error with what is wrong when DESCRIPTION, found in a segment of SEGMENTBYTES under NAME, is not a
// whole one of this format: Damaged when it was one, or is one of another format; else it is no table.
void checkDescription(const std::string& name, const Format::Description& description,
                      std::uint64_t segmentBytes);

// Raises Error when the segment keeps other records than SCHEMA and SHAPE say.
void checkRecords(const std::string& name, const Format::Description& description, const std::string& schema,
                  Segment::Shape shape);

}  // namespace Memtab
