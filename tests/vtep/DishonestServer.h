#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace Agent::Vtep::Testing {

// The rows of MACs as they were sent, and a plain function over them: which hosts they justify. It knows
// nothing of how the agent keeps rows. Where a message leaves open what a row is (an insert without a column,
// a row that is inserted again), it keeps every value that may be meant.
class SentRows {
 public:
  // A change of a row as it is sent: "insert", "initial", "modify" or "delete".
  struct Change {
    std::string table, id, verb;
    nlohmann::json columns;
  };
  struct Host {
    std::int64_t vni = 0;
    std::string mac, vtep;
    friend auto operator<=>(const Host&, const Host&) = default;
  };

  void clear() { tables_.clear(); }
  void take(const Change& change);
  // Every host that a row which is there names: its MAC, the key of its logical switch, the address of its
  // locator.
  std::set<Host> justified() const;
  bool contains(const std::string& table, const std::string& id) const;
  std::size_t rows() const;

 private:
  using Row = std::map<std::string, std::set<nlohmann::json>>;  // column to its possible values

  const Row* referred(const std::string& table, const nlohmann::json& reference) const;
  std::map<std::string, std::map<std::string, Row>> tables_;
};

// A database server that follows the protocol as far as it likes. Everything it does is drawn from a seed. It
// is sans-io like the session: it hears bytes and says bytes.
class DishonestServer {
 public:
  // How bad a connection is; drawn for each.
  enum class Temper : std::uint8_t {
    honest,    // valid rows whose references hold
    careless,  // valid messages; rows are inserted twice, changed and deleted before they are there, and
               // refer to nothing
    liar,      // as careless, and every now and then what may not come
    vandal,    // mostly what may not come
  };

  struct Options {
    std::uint32_t seed = 1;
    std::size_t hosts = 40;     // ids of rows of MACs
    std::size_t perUpdate = 6;  // changes in an update, at the most
  };

  explicit DishonestServer(Options options) : options_(options), random_(options.seed) {}

  // A connection begins, or is over.
  void connected();
  void closed();
  // What the client said.
  void hears(std::string_view bytes);
  // What it says now; empty when it waits. Also when it does not close, it may never say anything again.
  std::string says();
  // It hangs up now.
  bool hangsUp() const { return hangsUp_; }
  // It does not read at the moment.
  bool isDeaf() const { return deaf_ > 0; }
  Temper temper() const { return temper_; }
  // From the next connection on it is of this temper alone.
  void becomes(Temper temper) { always_ = temper; }

  // The client has taken the oldest update that was sent and not taken.
  void updateTaken();
  // The rows of the updates that the client has taken.
  const SentRows& taken() const { return taken_; }

  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

 private:
  struct Update {
    bool whole = false;
    std::vector<SentRows::Change> changes;
  };

  void answer(const nlohmann::json& request);
  void answerMonitor(const nlohmann::json& request);
  std::string updateText();
  std::string mischief();
  std::string mischievousUpdate();
  std::vector<SentRows::Change> drawChanges(bool whole);
  SentRows::Change drawChange(const std::string& table, bool whole);
  nlohmann::json drawColumns(const std::string& table, bool all);
  nlohmann::json reference(const std::string& table);
  nlohmann::json references(const std::string& table, std::uint32_t most);
  std::string idOf(const std::string& table, std::size_t index) const;
  std::size_t idsOf(const std::string& table) const;
  std::string drawTransaction();
  std::string textOf(const std::vector<SentRows::Change>& changes);
  bool holds() const { return temper_ == Temper::honest; }

  Options options_;
  std::mt19937 random_;
  std::optional<Temper> always_;
  Temper temper_ = Temper::honest;
  std::string heard_;
  std::deque<std::string> toSay_;
  std::uint32_t deaf_ = 0;
  bool hangsUp_ = false;
  bool follows_ = false;  // the client asked for the rows and was answered
  std::deque<Update> sent_;
  SentRows taken_;  // by the client
  SentRows known_;  // the same with what is on its way
};

}  // namespace Agent::Vtep::Testing
