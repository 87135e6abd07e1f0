#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "agent/ovsdb/Framer.h"
#include "agent/ovsdb/ReceiveBuffer.h"
#include "agent/ovsdb/Remote.h"
#include "agent/ovsdb/UpdateWalk.h"

namespace Agent::Ovsdb {

// Who follows the database. An update is one transaction, or all there is.
class UpdateTaker : public RowTaker {
 public:
  // The rows that follow are all there are (`whole`), or what changed since the last update. An update that
  // was begun and not ended is given up, and the next is a whole one.
  virtual void beginUpdate(bool whole, double now) = 0;
  virtual void endUpdate(double now) = 0;
  // A session that had delivered an update is over.
  virtual void sessionLost(double now) = 0;
};

// How a session behaves. Times in seconds, sizes in bytes.
struct SessionOptions {
  std::vector<Remote> remotes;  // at least one
  double probe = 5.0;           // silence after which the peer is asked, and again until it is given up
  double snapshotProbe = 60.0;  // the same while all rows are asked for: a server that puts hundreds of
                                // thousands of them together says nothing else meanwhile
  double connectTimeout = 5.0;  // for the transport to come up
  double firstBackoff = 0.1;    // pause after the first failure; doubles with each one
  double mostBackoff = 8.0;
  std::size_t largestMessage = Framer::defaultMessage;
};

// Where a session stands.
enum class SessionState : std::uint8_t {
  backoff,     // no transport; left when the pause is over, for connecting
  connecting,  // the transport is coming up; left for checking, or after connectTimeout for backoff
  checking,    // schema and server status are asked for; left for requesting when both are answered
  requesting,  // the rows are asked for; left for following with the last row of the answer
  following,   // updates come
};
std::string_view nameOf(SessionState state);

// The client's side of the database protocol (RFC 7047 with the server's extensions: conditional
// monitoring that resumes behind the last transaction seen, and the database "_Server" that tells whether
// a cluster's member is connected to the others). Bytes and time come in as arguments, bytes go out; who
// owns the transport does, in a loop:
//
//   when connectTo() says so: begin to connect, connecting(now); then connected(now) or failed(why, now);
//   when bytes are there and wantsInput(): read into room(), received(size, now); work(...) until false;
//   when output() is not empty: write, written(size);
//   at nextWakeup(): tick(now);
//   after any call: if connectionDropped(), close the transport.
//
// Whatever goes wrong ends the connection with one clear text (lastError) and goes on with the next remote
// after a pause, which doubles from failure to failure and is left out after a session that lasted.
class Session {
 public:
  using Log = std::function<void(const std::string&)>;

  // `taker` must outlive the session; `log` gets a line for what an operator wants to know, once while it
  // stays the same. The first attempt is due at once.
  Session(SessionOptions options, UpdateTaker& taker, Log log);

  // --- the transport
  // The remote to connect to now.
  std::optional<Remote> connectTo(double now) const;
  void connecting(double now);
  void connected(double now);
  // The transport failed, or the peer closed it.
  void failed(std::string_view why, double now);
  // Whether the transport has no use any more; the answer is given once.
  bool connectionDropped();

  // False while what came last is still being worked on, so that the peer is held back.
  bool wantsInput() const { return connectionUp() && !walk_; }
  std::span<char> room(std::size_t size) { return input_.room(size); }
  void received(std::size_t size, double now);
  // Works on what has been received, at most `rows` rows; returns whether more is left.
  bool work(std::size_t rows, double now);

  std::string_view output() const { return output_; }
  void written(std::size_t size) { output_.erase(0, size); }

  void tick(double now);
  // When tick() has something to do; plus infinity if never.
  double nextWakeup() const;

  // Other remotes, at least one. A session with one that is no longer among them ends, and the next begins at
  // once.
  void remotesAre(std::vector<Remote> remotes, double now);

  // --- what it tells
  SessionState state() const { return state_; }
  // The remote in use, or tried last.
  const Remote& remote() const { return options_.remotes[remote_]; }
  // Sessions begun anew after one that had delivered updates.
  std::uint64_t reconnects() const { return reconnects_; }
  // Of them, those that went on behind the last transaction seen.
  std::uint64_t resumptions() const { return resumptions_; }
  const std::string& lastError() const { return lastError_; }
  const std::string& lastTransaction() const { return lastTransaction_; }
  std::uint64_t updates() const { return updates_; }

 private:
  struct Envelope {
    std::string_view method, id, params, result, error;
  };
  struct ServerRow {
    std::string name;
    bool connected = false;
  };

  bool connectionUp() const { return state_ >= SessionState::checking; }
  void drop(const std::string& why, double now);
  void send(const nlohmann::json& message);
  void request(std::string_view id, std::string_view method, nlohmann::json params);
  bool takeMessage(double now);
  void dispatch(const Envelope& message, double now);
  void notification(const Envelope& message, double now);
  void answer(const Envelope& message, double now);
  void answerSchema(const Envelope& message, double now);
  void answerServer(const Envelope& message, double now);
  void serverRows(const nlohmann::json& updates);
  void monitorWhenChecked();
  void beginWalk(std::string_view array, bool answer, double now);
  void endWalk(double now);
  double pause() const;
  double probe() const {
    return state_ == SessionState::requesting ? options_.snapshotProbe : options_.probe;
  }

  SessionOptions options_;
  UpdateTaker& taker_;
  Log log_;

  SessionState state_ = SessionState::backoff;
  std::size_t remote_ = 0;
  bool dropped_ = false;
  double due_ = -std::numeric_limits<double>::infinity();  // of the next attempt, or the end of this one
  unsigned failures_ = 0;
  double followingSince_ = 0;
  double lastReceived_ = 0;
  std::optional<double> probed_;

  ReceiveBuffer input_;
  Framer framer_;
  std::string output_;
  std::optional<UpdateWalk> walk_;  // over the message at the front of input_
  std::string walkTransaction_;

  bool schemaFits_ = false;
  bool serverKnown_ = false;
  std::map<std::string, ServerRow> serverRows_;
  bool everFollowed_ = false;
  std::string lastTransaction_;
  std::uint64_t reconnects_ = 0;
  std::uint64_t resumptions_ = 0;
  std::uint64_t updates_ = 0;
  std::string lastError_;
  std::string lastLogged_;
};

}  // namespace Agent::Ovsdb
