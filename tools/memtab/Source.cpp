#include "Source.h"

#include "Memtab/Error.h"

std::string fullName(const std::string& name) {
  return name.starts_with('/') ? name : "/" + name;
}

Source::Source(const std::string& name, const Files::Owners& owners)
    : name_(fullName(name)), reading_(Memtab::Attachment(name_, "", std::nullopt, owners)) {
  static_cast<void>(segmentIfAny());
}

const Memtab::Segment* Source::segmentIfAny() {
  const Memtab::Segment* segment = reading_.segment();
  if (segment != nullptr && segment->description().generation != generation_) {
    learn(*segment);
  }
  return segment;
}

const Memtab::Segment& Source::segment() {
  const Memtab::Segment* segment = segmentIfAny();
  if (segment == nullptr) {
    throw Memtab::Error(name_, "there is no such table");
  }
  return *segment;
}

void Source::learn(const Memtab::Segment& segment) {
  const Memtab::Format::Description& description = segment.description();
  generation_ = description.generation;
  keyBytes_ = description.keyBytes;
  valueBytes_ = description.valueBytes;
  key_.assign(Memtab::Format::wordsFor(keyBytes_), 0);
  value_.assign(Memtab::Format::wordsFor(valueBytes_), 0);
  const std::string text = description.fields.data();
  fields_ =
      text.empty() ? std::vector<Memtab::Field>() : Memtab::parseFields(name_, text, keyBytes_, valueBytes_);
}

void Source::walk(const std::function<void()>& visit) {
  static_cast<void>(segment());
  reading_.walk(key_.data(), value_.data(), visit);
}

Memtab::Followed Source::follow(const std::function<void(bool there)>& visit) {
  if (segmentIfAny() == nullptr) {
    return {};
  }
  return reading_.follow(position_, key_.data(), value_.data(), visit);
}
