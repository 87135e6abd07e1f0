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

#include "service/ovsdb/Framer.h"
#include "service/ovsdb/Protocol.h"
#include "service/ovsdb/ReceiveBuffer.h"
#include "service/ovsdb/Remote.h"
#include "service/ovsdb/UpdateWalk.h"

namespace Ovsdb {

// Follows the database. An update is one transaction, or a snapshot of all rows.
class UpdateSink : public RowSink {
 public:
  // The rows that follow are a full snapshot, or what changed since the last update. An update that was begun
  // and not ended is given up, and the next is a snapshot.
  virtual void beginUpdate(bool snapshot, double now) = 0;
  virtual void endUpdate(double now) = 0;
  // A session that had delivered an update is over.
  virtual void sessionLost(double now) = 0;
};

// How a session behaves. Times in seconds, sizes in bytes.
struct SessionOptions {
  std::vector<Remote> remotes;  // at least one
  double probe = 5.0;  // silence after which the peer is asked, and again until it is given up; also the
                       // time in which a peer sends and takes leastProgress bytes, or all there are
  double snapshotProbe = 60.0;   // the same while all rows are asked for: a server that puts hundreds of
                                 // thousands of them together says nothing else meanwhile
  double answerTimeout = 120.0;  // for a server that is alive to answer, while it does not send the answer
  double connectTimeout = 5.0;   // for the transport to come up
  double firstBackoff = 0.1;     // pause after the first failure; doubles with each one
  double mostBackoff = 8.0;
  double faultKept = 60.0;  // a fault of the server is a problem until updates came for so long
  std::size_t largestFirst = std::size_t{512} << 20;   // the answer that has all rows
  std::size_t largestUpdate = Framer::defaultMessage;  // a message after it
  std::size_t largestOther = std::size_t{256} << 10;   // what is not rows
  std::size_t mostOutput = std::size_t{1} << 20;       // that may wait before no more is read
};

// The client's side of the database protocol (RFC 7047 with the server's extensions: conditional
// monitoring that resumes behind the last transaction seen, and the database "_Server" that tells whether
// a cluster's member is connected to the others). Bytes and time come in as arguments, bytes go out; who
// owns the transport does, in a loop:
//
//   when connectTo() says so: begin to connect, connecting(now); then connected(now) or failed(why, now);
//   when bytes are there and wantsInput(): read into room(), received(size, now); work(...) until false;
//   when output() is not empty: write, written(size, now);
//   at nextWakeup(): tick(now);
//   after any call: if connectionDropped(), close the transport.
//
// Whatever goes wrong ends the connection with one clear text (lastError) and goes on with the next remote
// after a pause, which doubles from failure to failure and is left out after a session that lasted. A fault
// of the server ends it in the same way: a message that may not come in this state (Protocol.h), one that is
// too large or not in the form, a peer that neither sends nor takes at least leastProgress bytes or a whole
// message in a probe time. So does an exception of the receiver of the rows. No call raises for what a server
// sent.
//
// Held for a message: the bytes of it and a quarter more, one row, and the document of what is not rows, of
// at most largestOther bytes of text.
class Session {
 public:
  using Log = std::function<void(const std::string&)>;

  // `schema` and `sink` must outlive the session; `log` gets a line for what an operator wants to know, once
  // while it stays the same. The first attempt is due at once.
  Session(const Schema& schema, SessionOptions options, UpdateSink& sink, Log log);

  // --- the transport
  // The remote to connect to now.
  std::optional<Remote> connectTo(double now) const;
  void connecting(double now);
  void connected(double now);
  // The transport failed, or the peer closed it.
  void failed(std::string_view why, double now);
  // Whether the transport has no use any more; the answer is given once.
  bool connectionDropped();

  // False while what came last is still being worked on, or too much waits to be written, so that the peer is
  // held back.
  bool wantsInput() const { return connectionUp() && !walk_ && !outputFull(); }
  std::span<char> room(std::size_t size) { return input_.room(size); }
  void received(std::size_t size, double now);
  // Works on what has been received, about `items` items of an UpdateWalk or one message; returns whether
  // more is left.
  bool work(std::size_t items, double now);

  std::string_view output() const { return output_; }
  // Whether more waits to be written than may: nothing is read or worked on until less does.
  bool outputFull() const { return output_.size() > options_.mostOutput; }
  void written(std::size_t size, double now);

  // The owner of the transport neither reads nor works for a while, of which the peer is not to blame; and it
  // goes on.
  void hold() { held_ = true; }
  void goOn(double now);

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
  // Sessions begun again after one that had delivered updates.
  std::uint64_t reconnects() const { return reconnects_; }
  // Of them, those that went on behind the last transaction seen.
  std::uint64_t resumptions() const { return resumptions_; }
  const std::string& lastError() const { return lastError_; }
  // The problem that an operator should know now: why there is no session, or that the server was at fault a
  // short while ago; empty if there is nothing.
  std::string problem(double now) const;
  // Sessions that ended by a fault of the server, and by an exception that was contained.
  std::uint64_t faults() const { return faults_; }
  std::uint64_t contained() const { return contained_; }
  // Bytes held for what came and what goes out.
  std::size_t held() const { return input_.capacity() + output_.capacity(); }

  static constexpr std::size_t leastProgress = 4096;
  const std::string& lastTransaction() const { return lastTransaction_; }
  std::uint64_t updates() const { return updates_; }

 private:
  // A row of the server's status.
  struct ServerRow {
    bool ours = false;  // of the database that is followed
    bool connected = false;
  };
  // Bytes that move in one direction, and since when too few of them did.
  struct Progress {
    double since = 0;
    std::size_t bytes = 0;

    void begin(double now) { *this = {now, 0}; }
    void moved(std::size_t size, double now);
  };
  enum class End : std::uint8_t { failure, fault, contained };

  bool connectionUp() const { return state_ >= SessionState::checking; }
  void drop(const std::string& why, End end, double now);
  void enter(SessionState state, double now);
  void send(std::string_view text, double now);
  void request(std::string_view id, std::string_view method, nlohmann::json params, double now);
  bool takeMessage(double now);
  void dispatch(const Envelope& message, double now);
  void consumeMessage(double now);
  void echo(const Envelope& message, double now);
  void answerSchema(const Envelope& message, double now);
  void answerServer(const Envelope& message, double now);
  void updateServer(const Envelope& message, double now);
  void serverRows(const nlohmann::json& updates);
  bool lostCluster() const;
  void answerRows(const Envelope& message, double now);
  void monitorWhenChecked(double now);
  void beginWalk(std::string_view array, bool answer, double now);
  void endWalk(double now);
  bool lacksRest() const;
  double pause() const;
  double probe() const {
    return state_ == SessionState::requesting ? options_.snapshotProbe : options_.probe;
  }

  const Schema& schema_;
  SessionOptions options_;
  UpdateSink& sink_;
  Log log_;

  SessionState state_ = SessionState::backoff;
  std::size_t remote_ = 0;
  bool dropped_ = false;
  // Of the next attempt while there is no connection, and of what the state waits for; plus infinity while it
  // waits for nothing.
  double due_ = -std::numeric_limits<double>::infinity();
  unsigned failures_ = 0;
  double followingSince_ = 0;
  double lastReceived_ = 0;
  std::optional<double> probed_;

  ReceiveBuffer input_;
  Framer framer_;
  std::string output_;
  std::optional<UpdateWalk> walk_;  // over the message at the front of input_
  std::string walkTransaction_;

  bool held_ = false;
  Progress receiving_, sending_;
  // Requests that are not answered yet.
  unsigned probesDue_ = 0;
  bool schemaDue_ = false;
  bool serverDue_ = false;
  std::map<std::string, ServerRow> serverRows_;
  bool everFollowed_ = false;
  std::string lastTransaction_;
  std::uint64_t reconnects_ = 0;
  std::uint64_t resumptions_ = 0;
  std::uint64_t updates_ = 0;
  std::uint64_t faults_ = 0;
  std::uint64_t contained_ = 0;
  std::string fault_;  // of the last session that ended by one
  std::string lastError_;
  std::string lastLogged_;
};

}  // namespace Ovsdb
