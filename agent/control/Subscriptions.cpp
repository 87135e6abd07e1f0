#include "agent/control/Subscriptions.h"

#include "agent/control/MergeDiff.h"
#include "agent/control/Request.h"

namespace Agent::Control {

using nlohmann::json;

Subscriptions::Subscriptions(Service& service, Deliver deliver)
    : service_(service), deliver_(std::move(deliver)) {}

json Subscriptions::subscribe(ClientId client, const std::string& pointer, const json& id) {
  const auto [topic, isNew] = topics_.try_emplace(pointer);
  if (isNew) {
    topic->second.value = read(pointer);
  } else {
    topic->second.followers.erase(client);
    refresh(pointer, topic->second);  // brings the others to the value that the new one begins with
  }
  topic->second.followers.insert_or_assign(client, id);
  return topic->second.value;
}

void Subscriptions::unsubscribe(ClientId client) {
  for (auto& [pointer, topic] : topics_) {
    topic.followers.erase(client);
  }
  dropUnfollowed();
}

std::size_t Subscriptions::count(ClientId client) const {
  std::size_t number = 0;
  for (const auto& [pointer, topic] : topics_) {
    number += topic.followers.contains(client) ? 1U : 0U;
  }
  return number;
}

void Subscriptions::refresh() {
  for (auto& [pointer, topic] : topics_) {
    refresh(pointer, topic);
  }
  dropUnfollowed();
}

void Subscriptions::dropUnfollowed() {
  std::erase_if(topics_, [](const auto& topic) { return topic.second.followers.empty(); });
}

void Subscriptions::refresh(const std::string& pointer, Topic& topic) {
  json now = read(pointer);
  const auto change = mergeDiff(topic.value, now);
  if (!change) {
    return;
  }
  topic.value = std::move(now);
  const std::string merge = lineText(*change);
  std::erase_if(topic.followers,
                [&](const auto& follower) { return !deliver_(follower.first, follower.second, merge); });
}

json Subscriptions::read(const std::string& pointer) const {
  try {
    return service_.get(pointer);
  } catch (const RequestError&) {
    return nullptr;
  }
}

}  // namespace Agent::Control
