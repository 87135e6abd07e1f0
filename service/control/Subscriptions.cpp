#include "service/control/Subscriptions.h"

#include <algorithm>
#include <utility>

#include "service/control/Request.h"

namespace Control {

using nlohmann::json;

namespace {

constexpr std::size_t roundItems = 8;         // what beginning a round counts for
constexpr std::size_t itemsAtOnce = 512;      // before another topic has its turn
constexpr std::size_t changesAtOnce = 1'000;  // in a patch

}  // namespace

Subscriptions::Subscriptions(Backend& service, Hooks hooks, std::size_t mostBytes)
    : service_(service), hooks_(std::move(hooks)), mostBytes_(mostBytes) {}

void Subscriptions::subscribe(ClientId client, const std::string& pointer, const Id& id) {
  if (!topics_.contains(pointer) && bytes() >= mostBytes_) {
    throw RequestError(RequestError::Kind::refused, pointer, "too much is followed already");
  }
  Topic& topic = topics_[pointer];
  topic.followers.erase(client);
  topic.joining.erase(client);
  topic.arriving.insert_or_assign(client, id);
  followed_[client].insert(pointer);
  becomesDue(pointer, topic);
}

void Subscriptions::unsubscribe(ClientId client) {
  const auto pointers = followed_.extract(client);
  if (pointers.empty()) {
    return;
  }
  for (const std::string& pointer : pointers.mapped()) {
    Topic& topic = topics_.at(pointer);
    topic.followers.erase(client);
    topic.joining.erase(client);
    topic.arriving.erase(client);
    dropIfUnfollowed(pointer);
  }
}

// A client does not follow a part any more.
void Subscriptions::ended(ClientId client, const std::string& pointer) {
  if (const auto found = followed_.find(client); found != followed_.end()) {
    found->second.erase(pointer);
    if (found->second.empty()) {
      followed_.erase(found);
    }
  }
}

std::size_t Subscriptions::count(ClientId client) const {
  const auto found = followed_.find(client);
  return found == followed_.end() ? 0 : found->second.size();
}

std::size_t Subscriptions::bytes() const {
  std::size_t bytes = 0;
  for (const auto& [pointer, topic] : topics_) {
    bytes += topic.mirror.bytes();
  }
  for (const Mirror& mirror : dying_) {
    bytes += mirror.bytes();
  }
  return bytes;
}

void Subscriptions::refresh() {
  for (auto& [pointer, topic] : topics_) {
    topic.ofRefresh = true;
    becomesDue(pointer, topic);
  }
}

bool Subscriptions::refreshing() const {
  return std::ranges::any_of(topics_, [](const auto& entry) { return entry.second.ofRefresh; });
}

void Subscriptions::becomesDue(const std::string& pointer, Topic& topic) {
  if (!std::exchange(topic.isDue, true) && !topic.inRound) {
    due_.push_back(pointer);
  }
}

void Subscriptions::advance(TurnBudget& budget) {
  while (!due_.empty() && budget.left()) {
    const std::string pointer = std::move(due_.front());
    due_.pop_front();
    const auto found = topics_.find(pointer);
    if (found != topics_.end() && step(pointer, found->second, budget)) {
      due_.push_back(pointer);
    }
  }
  while (!dying_.empty() && budget.left()) {
    std::size_t steps = itemsAtOnce;
    const bool more = dying_.front().dissolve(steps);
    budget.use(itemsAtOnce - steps + 1);
    if (!more) {
      dying_.pop_front();
    }
  }
}

// Goes on with the round of a topic, or begins one; returns whether there is more to do.
bool Subscriptions::step(const std::string& pointer, Topic& topic, TurnBudget& budget) {
  try {
    const bool begins = !topic.inRound;
    if (begins) {
      beginRound(pointer, topic);
      budget.use(roundItems);
    }
    const std::size_t granted = begins ? budget.instant() - roundItems : itemsAtOnce;
    std::size_t items = granted;
    const bool more = read(pointer, topic, items);
    budget.use(granted - items);
    if (more) {
      return true;
    }
    endRound(pointer, topic);
  } catch (const std::exception& error) {
    fail(pointer, topic, error);
  }
  const bool again = topic.isDue;
  dropIfUnfollowed(pointer);
  return again && topics_.contains(pointer);
}

void Subscriptions::beginRound(const std::string& pointer, Topic& topic) {
  topic.inRound = true;
  topic.isDue = false;
  topic.endsRefresh = topic.ofRefresh;
  topic.joining.merge(topic.arriving);
  topic.arriving.clear();
  topic.records.emplace(service_.part(pointer));
  topic.mirror.begin(!topic.isNew);
}

// Reads about `items` records, which it counts down; returns whether there is more.
bool Subscriptions::read(const std::string& pointer, Topic& topic, std::size_t& items) {
  while (topic.records && items > 0) {
    --items;
    const Service::Walked walked = topic.records->next();
    if (walked == Service::Walked::end) {
      topic.records.reset();
    } else if (walked == Service::Walked::member) {
      topic.mirror.record(topic.records->path(), topic.records->text());
    } else if (walked == Service::Walked::branch &&
               !topic.mirror.branch(topic.records->path(), topic.records->stamp())) {
      topic.records->skip();
    }
    if (topic.mirror.changes() >= changesAtOnce) {
      tell(pointer, topic);
    }
  }
  while (!topic.records && items > 0) {
    std::size_t some = std::min(items, changesAtOnce);
    const std::size_t granted = some;
    const bool more = topic.mirror.sweep(some);
    items -= granted - some;
    if (!more) {
      return false;
    }
    if (topic.mirror.changes() >= changesAtOnce) {
      tell(pointer, topic);
    }
  }
  return true;
}

void Subscriptions::tell(const std::string& pointer, Topic& topic) {
  if (const auto patch = topic.mirror.takePatch()) {
    const std::string merge = lineText(*patch);
    std::erase_if(topic.followers, [&](const auto& follower) {
      const bool cut = !hooks_.deliver(follower.first, follower.second, merge);
      if (cut) {
        ended(follower.first, pointer);
      }
      return cut;
    });
  }
}

void Subscriptions::endRound(const std::string& pointer, Topic& topic) {
  tell(pointer, topic);
  topic.inRound = topic.isNew = false;
  topic.ofRefresh = topic.ofRefresh && !topic.endsRefresh;
  for (auto& [client, id] : std::exchange(topic.joining, {})) {
    hooks_.begin(client, id, topic.mirror.part());
    topic.followers.insert_or_assign(client, id);
  }
  topic.isDue = topic.isDue || !topic.arriving.empty();
}

void Subscriptions::fail(const std::string& pointer, Topic& topic, const std::exception& why) {
  topic.records.reset();
  topic.inRound = topic.isDue = topic.ofRefresh = false;
  for (auto& [client, id] : std::exchange(topic.followers, {})) {
    ended(client, pointer);
    hooks_.fail(client, id, true, why);
  }
  topic.joining.merge(topic.arriving);
  topic.arriving.clear();
  for (auto& [client, id] : std::exchange(topic.joining, {})) {
    ended(client, pointer);
    hooks_.fail(client, id, false, why);
  }
}

void Subscriptions::dropIfUnfollowed(const std::string& pointer) {
  const auto found = topics_.find(pointer);
  Topic& topic = found->second;
  if (topic.followers.empty() && topic.joining.empty() && topic.arriving.empty()) {
    dying_.push_back(std::move(topic.mirror));
    topics_.erase(found);
  }
}

}  // namespace Control
