#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "service/ovsdb/Framer.h"

namespace Ovsdb {

// Where a session stands.
enum class SessionState : std::uint8_t {
  backoff,     // no transport; left when the pause is over, for connecting
  connecting,  // the transport is coming up; left for checking, or after connectTimeout for backoff
  checking,    // schema and server status are asked for; left for requesting when both are answered
  requesting,  // the rows are asked for; left for following with the last row of the answer
  following,   // updates come
};
std::string_view nameOf(SessionState state);

// Names of our requests and monitors.
inline constexpr std::string_view schemaId = "schema";
inline constexpr std::string_view serverId = "server";
inline constexpr std::string_view rowsId = "rows";
inline constexpr std::string_view probeId = "probe";

// The members of a message, as they are written; those that are missing are empty.
struct Envelope {
  std::string_view method, id, params, result, error;
};
// Raises ProtocolError where one of them comes twice.
Envelope envelopeOf(const std::vector<Framer::Member>& members);
// Whether a member is missing or null.
bool isNull(std::string_view value);

// The kinds of messages of the server.
enum class MessageKind : std::uint8_t {
  echo,          // a request that is answered
  canceled,      // a monitor is over: the session begins again
  probeAnswer,   // to our own echo request
  schemaAnswer,  // to "get_schema"
  serverAnswer,  // to "monitor_cond_since" of the database "_Server"
  serverUpdate,  // what changed of the server's status
  rowsAnswer,    // to "monitor_cond_since" of the rows
  rowsUpdate,    // a transaction
};
inline constexpr std::size_t messageKinds = 8;
std::string_view nameOf(MessageKind kind);

// The kind of a message. Raises ProtocolError for one that is none of the above.
MessageKind kindOf(const Envelope& message);

// In which states a message may come, checking, requesting and following. All else is a fault of the server,
// for which the session is left. An answer must also be due: each request is answered once.
struct Admission {
  MessageKind kind;
  bool checking, requesting, following;
};
inline constexpr std::array<Admission, messageKinds> admissions{{
    {MessageKind::echo, true, true, true},
    {MessageKind::canceled, true, true, true},
    {MessageKind::probeAnswer, true, true, true},
    {MessageKind::schemaAnswer, true, false, false},
    {MessageKind::serverAnswer, true, false, false},
    {MessageKind::serverUpdate, true, true, true},
    {MessageKind::rowsAnswer, false, true, false},
    {MessageKind::rowsUpdate, false, false, true},
}};
bool mayCome(MessageKind kind, SessionState state);

}  // namespace Ovsdb
