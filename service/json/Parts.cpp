#include "service/json/Parts.h"

#include <algorithm>

#include "service/json/Text.h"

namespace Service {
namespace {

using nlohmann::json;

std::string dumped(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool isPlain(char c) {
  return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

// A token of a JSON Pointer as the name that it stands for.
std::string unescaped(std::string_view token) {
  std::string name;
  for (std::size_t i = 0; i < token.size(); ++i) {
    if (token[i] == '~' && i + 1 < token.size()) {
      ++i;
      name += token[i] == '1' ? '/' : '~';
    } else {
      name += token[i];
    }
  }
  return name;
}

// The objects of a document that stays as it is.
class JsonBranch final : public Branch {
 public:
  JsonBranch(std::shared_ptr<const json> document, const json& object)
      : document_(std::move(document)), object_(object), at_(object.begin()) {}

  Walked next(std::string& name, Part& part) override {
    if (at_ == object_.end()) {
      return Walked::end;
    }
    name = at_.key();
    part = of(document_, *at_);
    ++at_;
    return Walked::member;
  }
  Part find(const std::string& name) override {
    const auto found = object_.find(name);
    return found == object_.end() ? Part() : of(document_, *found);
  }

  static Part of(const std::shared_ptr<const json>& document, const json& value) {
    return value.is_object() ? Part(std::make_unique<JsonBranch>(document, value)) : recordOf(value);
  }

 private:
  std::shared_ptr<const json> document_;
  const json& object_;
  json::const_iterator at_;
};

}  // namespace

Part::Part(std::unique_ptr<Branch> members) : branch(std::move(members)) {}
Part::Part(Part&&) noexcept = default;
Part& Part::operator=(Part&&) noexcept = default;
Part::~Part() = default;

Members& Members::add(std::string name, Make make) {
  members_.emplace_back(std::move(name), std::move(make));
  return *this;
}

Walked Members::next(std::string& name, Part& part) {
  if (at_ == members_.size()) {
    return Walked::end;
  }
  const auto& [itsName, make] = members_[at_++];
  part = make();
  name = itsName;
  return part.there() ? Walked::member : Walked::search;
}

Part Members::find(const std::string& name) {
  const auto found = std::ranges::find_if(members_, [&](const auto& member) { return member.first == name; });
  return found == members_.end() ? Part() : found->second();
}

Records::Records(Part part) : root_(std::move(part)) {}

Walked Records::next() {
  if (!begun_) {
    begun_ = true;
    if (root_.branch) {
      levels_.push_back({std::move(root_.branch)});
      return Walked::branch;
    }
    text_ = std::move(root_.text);
    return text_.empty() ? Walked::end : Walked::member;
  }
  if (levels_.empty()) {
    return Walked::end;
  }
  Part part;
  const Walked walked = levels_.back().branch->next(name_, part);
  if (walked == Walked::end) {
    return leave();
  }
  if (walked == Walked::search) {
    return walked;
  }
  path_.resize(levels_.size() - 1);
  path_.push_back(name_);
  if (part.branch) {
    levels_.push_back({std::move(part.branch)});
    return Walked::branch;
  }
  return record(std::move(part.text));
}

void Records::skip() {
  levels_.pop_back();
  noteRecord();
}

Walked Records::record(std::string text) {
  text_ = std::move(text);
  noteRecord();
  return Walked::member;
}

// None of the branches around a record is empty.
void Records::noteRecord() {
  for (auto level = levels_.rbegin(); level != levels_.rend() && level->empty; ++level) {
    level->empty = false;
  }
}

// The walk of the innermost branch is over.
Walked Records::leave() {
  const bool isRecord = levels_.back().empty && levels_.back().branch->shownEmpty();
  levels_.pop_back();
  path_.resize(levels_.size());
  if (isRecord) {
    return record("{}");
  }
  return levels_.empty() ? Walked::end : Walked::search;
}

void RecordText::add(const std::vector<std::string>& path, std::string_view text, std::string& out) {
  if (path.empty()) {
    begun_ = whole_ = true;
    out += text;
    return;
  }
  const std::size_t around = path.size() - 1;
  std::size_t common = 0;
  while (common < std::min(around, open_.size()) && open_[common] == path[common]) {
    ++common;
  }
  if (begun_) {
    out.append(open_.size() - common, '}');
  }
  out += begun_ ? ',' : '{';
  begun_ = true;
  open_.resize(common);
  for (std::size_t i = common; i < around; ++i) {
    appendQuoted(out, path[i]);
    out += ":{";
    open_.push_back(path[i]);
  }
  appendQuoted(out, path.back());
  out += ':';
  out += text;
}

void RecordText::end(std::string& out) {
  if (begun_ && !whole_) {
    out.append(open_.size() + 1, '}');
  }
}

Part partAt(Part root, const std::string& pointer) {
  const json::json_pointer checked{pointer};
  std::size_t at = 0;
  while (at < pointer.size() && root.branch) {
    const std::size_t end = std::min(pointer.find('/', at + 1), pointer.size());
    root = root.branch->find(unescaped(std::string_view(pointer).substr(at + 1, end - at - 1)));
    at = end;
  }
  if (at == pointer.size() || !root.there()) {
    return root;
  }
  // A place below a record; such texts are our own, and small.
  const json below = partAt(json::parse(root.text), pointer.substr(at));
  return below.is_null() ? Part() : recordOf(below);
}

Part partOf(json document) {
  const auto shared = std::make_shared<const json>(std::move(document));
  return JsonBranch::of(shared, *shared);
}

json jsonOf(Part part) {
  json document;
  Records records(std::move(part));
  for (Walked walked = records.next(); walked != Walked::end; walked = records.next()) {
    if (walked == Walked::member) {
      json* at = &document;
      for (const std::string& name : records.path()) {
        at = &(*at)[name];
      }
      *at = json::parse(records.text());
    }
  }
  return document;
}

void appendQuoted(std::string& out, std::string_view text) {
  if (std::ranges::all_of(text, isPlain)) {
    out += '"';
    out += text;
    out += '"';
  } else {
    out += dumped(json(text));
  }
}

Part recordOf(const json& value) {
  return Part(dumped(value));
}

}  // namespace Service
