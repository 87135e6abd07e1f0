// Parts of a document that are printed while they are asked for, a record at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Service {

class Branch;

// The content of a place of a document: a value as JSON text (a record), a branch with members, or nothing.
struct Part {
  Part() = default;
  explicit Part(std::string record) : text(std::move(record)) {}
  explicit Part(std::unique_ptr<Branch> members);
  Part(Part&&) noexcept;
  Part& operator=(Part&&) noexcept;
  ~Part();

  bool there() const { return branch != nullptr || !text.empty(); }

  std::string text{};
  std::unique_ptr<Branch> branch{};
};

enum class Walked {
  member,  // here it is
  branch,  // of Records alone: the next records are below this place
  search,  // none was found in this step; the walk goes on
  end,
};

// An object whose members are looked up or walked one by one, however many there are. A walk may pause for as
// long as it likes between two steps, while what it walks changes: a member that is there from beginning to
// end is met once, one that comes or goes meanwhile perhaps. Each operation takes a short time.
class Branch {
 public:
  virtual ~Branch() = default;

  // The next member of the walk.
  virtual Walked next(std::string& name, Part& part) = 0;
  // The member of this name, by one look-up; nothing if there is none.
  virtual Part find(const std::string& name) = 0;
  // While this number is the same, everything below is the same; 0 where nobody counts the changes.
  virtual std::uint64_t stamp() const { return 0; }
  // Whether it is there as {} when it has no members.
  virtual bool shownEmpty() const { return true; }
};

// A branch of members with fixed names, each made when it is asked for.
class Members final : public Branch {
 public:
  using Make = std::function<Part()>;

  Members& add(std::string name, Make make);
  Walked next(std::string& name, Part& part) override;
  Part find(const std::string& name) override;

 private:
  std::vector<std::pair<std::string, Make>> members_;
  std::size_t at_ = 0;
};

// A part record by record, in the order of the walk; the records below one branch come together. A branch
// without members is the record {}.
class Records {
 public:
  explicit Records(Part part);

  // One step. After `member` path() and text() are those of a record; after `branch` path() is that of a
  // branch whose records are next, unless it is skipped.
  Walked next();
  // Leaves out the branch that was just come to.
  void skip();
  // Member names from the part's root on.
  const std::vector<std::string>& path() const { return path_; }
  const std::string& text() const { return text_; }
  // Of the branch that was just come to.
  std::uint64_t stamp() const { return levels_.back().branch->stamp(); }

 private:
  struct Level {
    std::unique_ptr<Branch> branch;
    bool empty = true;
  };

  Walked leave();
  Walked record(std::string text);
  void noteRecord();

  Part root_;
  bool begun_ = false;
  std::vector<Level> levels_;
  std::vector<std::string> path_;
  std::string text_;
  std::string name_;
};

// Puts the records of a part together to its text.
class RecordText {
 public:
  void add(const std::vector<std::string>& path, std::string_view text, std::string& out);
  // After the last record.
  void end(std::string& out);
  bool begun() const { return begun_; }

 private:
  std::vector<std::string> open_;  // the objects around the last record, by their names
  bool begun_ = false;
  bool whole_ = false;  // the part is one record
};

// The part that a well-formed JSON Pointer leads to, by one look-up a token; nothing where it leads nowhere.
// Raises nlohmann::json::parse_error for a text that is no pointer.
Part partAt(Part root, const std::string& pointer);
// A document as a part: its objects are branches, all else are records.
Part partOf(nlohmann::json document);
// All of a part; null when nothing is there.
nlohmann::json jsonOf(Part part);

// Appends a text as a JSON string; bytes that are not UTF-8 are replaced.
void appendQuoted(std::string& out, std::string_view text);
// The record of a value.
Part recordOf(const nlohmann::json& value);

}  // namespace Service
