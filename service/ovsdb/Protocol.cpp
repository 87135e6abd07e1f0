#include "service/ovsdb/Protocol.h"

#include <utility>

#include "service/ovsdb/JsonReader.h"

namespace Ovsdb {

namespace {

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos ? std::string_view{}
                                         : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// A string as it is written, without its quotes and with its escapes; empty for all else.
std::string_view plain(std::string_view text) {
  return text.size() >= 2 && text.front() == '"' ? text.substr(1, text.size() - 2) : std::string_view{};
}

MessageKind kindOfUpdate(std::string_view params) {
  JsonReader reader(params);
  reader.beginArray();
  if (!reader.nextElement()) {
    reader.fail("want three elements");
  }
  const std::string monitor = reader.string();
  if (monitor == rowsId) {
    return MessageKind::rowsUpdate;
  }
  if (monitor == serverId) {
    return MessageKind::serverUpdate;
  }
  throw ProtocolError("an update came for a monitor that was not asked for: " + printable(monitor));
}

}  // namespace

std::string_view nameOf(SessionState state) {
  static constexpr std::array<std::string_view, 5> names{"backoff", "connecting", "checking", "requesting",
                                                         "following"};
  return names[static_cast<std::size_t>(state)];
}

std::string_view nameOf(MessageKind kind) {
  static constexpr std::array<std::string_view, messageKinds> names{"an echo request",
                                                                    "the end of a monitor",
                                                                    "the answer to an echo request",
                                                                    "the schema",
                                                                    "the server's status",
                                                                    "an update of the server's status",
                                                                    "the answer with the rows",
                                                                    "an update of the rows"};
  return names[static_cast<std::size_t>(kind)];
}

bool isNull(std::string_view value) {
  return value.empty() || value == "null";
}

Envelope envelopeOf(const std::vector<Framer::Member>& members) {
  Envelope message;
  const std::pair<std::string_view, std::string_view*> places[] = {{"\"method\"", &message.method},
                                                                   {"\"id\"", &message.id},
                                                                   {"\"params\"", &message.params},
                                                                   {"\"result\"", &message.result},
                                                                   {"\"error\"", &message.error}};
  for (const Framer::Member& member : members) {
    for (const auto& [name, place] : places) {
      if (member.name != name) {
        continue;
      }
      if (place->data() != nullptr) {
        throw ProtocolError("a message has the member " + std::string{name} + " twice");
      }
      *place = trimmed(member.value);
    }
  }
  return message;
}

MessageKind kindOf(const Envelope& message) {
  const bool answer = !isNull(message.id) && (!message.result.empty() || !message.error.empty());
  if (message.method.empty() == !answer) {
    throw ProtocolError("this is not OVSDB: a message is neither a request nor an answer");
  }
  if (answer) {
    static constexpr std::pair<std::string_view, MessageKind> answers[] = {
        {probeId, MessageKind::probeAnswer},
        {schemaId, MessageKind::schemaAnswer},
        {serverId, MessageKind::serverAnswer},
        {rowsId, MessageKind::rowsAnswer}};
    for (const auto& [id, kind] : answers) {
      if (plain(message.id) == id) {
        return kind;
      }
    }
    throw ProtocolError("an answer came to a request that was not made: id " + printable(message.id));
  }
  if (message.method == "\"echo\"") {
    return MessageKind::echo;
  }
  if (message.method == "\"update3\"") {
    return kindOfUpdate(message.params);
  }
  if (message.method == "\"monitor_canceled\"") {
    return MessageKind::canceled;
  }
  throw ProtocolError("the server may not ask for this: method " + printable(message.method));
}

bool mayCome(MessageKind kind, SessionState state) {
  for (const Admission& admission : admissions) {
    if (admission.kind == kind) {
      return (state == SessionState::checking && admission.checking) ||
             (state == SessionState::requesting && admission.requesting) ||
             (state == SessionState::following && admission.following);
    }
  }
  return false;
}

}  // namespace Ovsdb
