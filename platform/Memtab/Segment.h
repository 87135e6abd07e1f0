#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Files/Owners.h"
#include "Memtab/Error.h"
#include "Memtab/Export.h"
#include "Memtab/Format.h"
#include "Memtab/Options.h"

namespace Memtab {

// Takes the table NAME away, and what was left beside it: a damaged one, one that was being made. Readers
// that have it open notice, and look for a successor under the same name. False when there is none. Raises
// Error when it may not be removed.
MEMTAB_API bool remove(const std::string& name);

// A mapped table, as bytes: finds or makes the object under a name, checks its description, maps all of its
// address range once (growth only fills it), and takes memory for it step by step. The meaning of the bytes
// is up to Writer and Reader.
class MEMTAB_API Segment {
 public:
  // Size and type of what a program keeps in the table, to compare with what the segment says.
  struct Shape {
    std::size_t keyBytes;
    std::size_t valueBytes;
  };

  Segment() = default;
  Segment(Segment&& other) noexcept { swap(other); }
  Segment& operator=(Segment&& other) noexcept;
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;
  ~Segment();

  // Opens the table of OPTIONS for its writer, which has the lock, or makes it. Raises Error when it belongs
  // to a user whose table is not adopted, may be written to by others, or was made for another schema or
  // shape; Damaged when it is damaged or of another format. It is unchanged then.
  static Segment forWriter(const Options& options, Shape shape);

  // Makes an empty table that takes the place of the one of OPTIONS by takePlaceOf(): until then it is there
  // under another name (see successorOf), and readers do not find it. Raises Error when it cannot be
  // made.
  static Segment successor(const Options& options, Shape shape);
  // Gives a successor its name NAME. The former segment stays as damagedOf(NAME), and its readers come over.
  void takePlaceOf(const std::string& name);

  // Opens table NAME for reading; without effect on it. The result is empty when there is none (yet). Raises
  // Error when it cannot be read, belongs to none of OWNERS, may be written to by others, or when SCHEMA
  // (unless empty) or SHAPE (unless null) differs; Damaged when its header is damaged or of another format.
  static Segment forReader(const std::string& name, const std::string& schema, const Shape* shape,
                           const Files::Owners& owners = Files::Owners());

  explicit operator bool() const { return base_ != nullptr; }
  const std::string& name() const { return name_; }
  bool adopted() const { return adopted_; }
  // Whether the name leads elsewhere by now, or nowhere.
  bool elsewhere() const;

  // A copy that was checked: a later change of the segment leads no reader or writer outside of it.
  const Format::Description& description() const { return description_; }
  Format::Header& header() const { return *reinterpret_cast<Format::Header*>(base_); }
  Format::State& state() const { return header().state; }
  Format::Journal& journal() const {
    return *reinterpret_cast<Format::Journal*>(base_ + description().journalAt);
  }
  Format::Half* stripes() const { return reinterpret_cast<Format::Half*>(base_ + description().stripesAt); }
  Format::Word* ring() const { return reinterpret_cast<Format::Word*>(base_ + description().ringAt); }
  Format::Half* heads() const { return reinterpret_cast<Format::Half*>(base_ + description().headsAt); }
  std::byte* slots() const { return base_ + description().slotsAt; }

  // Takes memory for FROM .. FROM + BYTES of the segment, so that writing there cannot fail. Raises Error
  // when there is none left.
  void take(std::uint64_t from, std::uint64_t bytes) const;

  // Bytes of memory that the table takes at present.
  std::uint64_t bytesTaken() const;

 private:
  void swap(Segment& other) noexcept;
  void map(std::size_t bytes, bool writable);
  void mapPrivate(std::size_t bytes);
  void make(const Options& options);
  void makeFile(const Options& options);
  void adopt(const Options& options, Shape shape);
  void readDescription(std::uint64_t bytes);
  bool openForWriter(const Options& options);
  void close();

  std::string name_;
  std::byte* base_ = nullptr;
  std::size_t bytes_ = 0;
  int fd_ = -1;
  bool adopted_ = false;
  Format::Description description_{};
};

}  // namespace Memtab
