#include "agent/kernel/Adapter.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

constexpr std::size_t answerBuffer = std::size_t{4} << 20U;
constexpr std::size_t dumpPart = std::size_t{32}
                                 << 10U;  // The kernel's parts of a dump are at most this long.
constexpr std::size_t reportBytes = std::size_t{8} << 10U;
constexpr std::size_t answersAtOnce = 32;
constexpr std::size_t reportsAtOnce = 64;
constexpr int readsAtOnce = 16;

}  // namespace

Adapter::Adapter(const Options& options)
    : lock_(options.lockFolder, options.netns),
      engine_(options),
      requests_(options.netns, answerBuffer, dumpPart, answersAtOnce),
      reports_(options.netns, options.reportBuffer, reportBytes, reportsAtOnce),
      batchBytes_(options.batchBytes) {
  if (!reports_.join(RTNLGRP_LINK) || !reports_.join(RTNLGRP_NEIGH)) {
    throw SocketError("rtnetlink socket: the kernel does not report changes of devices and rows");
  }
  (void)reports_.join(RTNLGRP_NEXTHOP);  // Without it there are no nexthops either; the first request shows.
}

Time Adapter::now() {
  return std::chrono::steady_clock::now().time_since_epoch();
}

void Adapter::vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports) {
  engine_.vniIs(vni, vlan, std::move(vti), local, std::move(ports));
}
void Adapter::vniDel(Vlan vlan, const std::string& vti) {
  engine_.vniDel(vlan, vti);
}
void Adapter::hostIs(Vlan vlan, Mac mac, Ip4 vtep) {
  engine_.hostIs(vlan, mac, vtep);
}
void Adapter::hostDel(Vlan vlan, Mac mac) {
  engine_.hostDel(vlan, mac);
}
void Adapter::floodIs(Vlan vlan, Mac mac, FloodType type, std::vector<Ip4> vteps) {
  engine_.floodIs(vlan, mac, type, std::move(vteps));
}
void Adapter::floodDel(Vlan vlan, Mac mac) {
  engine_.floodDel(vlan, mac);
}
void Adapter::initialSyncComplete() {
  engine_.initialSyncComplete();
}

bool Adapter::run(Time budget) {
  const Time begin = now();
  Time at = begin;
  bool idle = false;
  while (!idle && at - begin < budget) {
    engine_.timeIs(at);
    bool heard = readAnswers();
    if (drainReports()) {
      const Batch& batch = engine_.batch();
      if (!batch.empty()) {
        send(batch);
      } else {
        idle = !heard && !engine_.moreWork();
      }
    }
    at = now();
  }
  if (std::exchange(audits_, engine_.counters().audits) != engine_.counters().audits) {
    compared_ = std::chrono::system_clock::now();
  }
  longestSlice_ = std::max(longestSlice_, at - begin);
  return !idle;
}

// Returns whether all reports have been read. At the most some are read, so that a flood of them ends a
// slice.
bool Adapter::drainReports() {
  for (int n = 0; n < readsAtOnce; ++n) {
    switch (reports_.receive(reportsAtOnce, [this](const nlmsghdr& message) { report(message, false); })) {
      case Socket::Heard::messages:
        break;
      case Socket::Heard::overrun:
        engine_.overrun();
        break;
      case Socket::Heard::nothing:
        return true;
    }
  }
  return false;
}

bool Adapter::readAnswers() {
  bool any = false;
  for (int n = 0; n < readsAtOnce; ++n) {
    // A part of a dump is put together as the one before is read, and takes long in a long table: one at a
    // time.
    std::size_t most = outstanding_ > 0 || askSequence_ != 0 ? answersAtOnce : 1;
    switch (requests_.receive(most, [this](const nlmsghdr& message) { heard(message); })) {
      case Socket::Heard::messages:
        any = true;
        break;
      case Socket::Heard::overrun:
        any = true;
        if (std::exchange(outstanding_, 0) != 0) {
          engine_.answersLost();
        }
        if (std::exchange(dumpSequence_, 0) != 0) {
          engine_.dumpEnd(false);
        }
        break;
      case Socket::Heard::nothing:
        return any;
    }
    if (outstanding_ == 0) {
      return any;
    }
  }
  return any;
}

void Adapter::send(const Batch& batch) {
  batchBegin_ = sequence_;
  sequence_ += static_cast<std::uint32_t>(batch.size());
  messages_.clear();
  for (std::size_t at = 0; at < batch.size(); ++at) {
    const Request& request = batch.requests()[at];
    if (messages_.size() >= batchBytes_) {
      sendPending();
    }
    messages_.add(request, batchBegin_ + static_cast<std::uint32_t>(at));
    if (std::holds_alternative<Dump>(request)) {
      dumpSequence_ = batchBegin_ + static_cast<std::uint32_t>(at);
      dumpWhole_ = true;
    } else {
      ++outstanding_;
    }
  }
  sendPending();
  while (outstanding_ > 0 && readAnswers()) {
  }
  // The kernel has worked the batch off when send returns: answers that are not there now never come.
  if (std::exchange(outstanding_, 0) != 0) {
    engine_.answersLost();
  }
}

void Adapter::sendPending() {
  if (messages_.empty()) {
    return;
  }
  // If it fails no answers come, which is taken as answers lost; a dump is asked for again.
  if (requests_.send(messages_.data(), messages_.size()) != 0 && std::exchange(dumpSequence_, 0) != 0) {
    engine_.dumpFailed(ENOBUFS, "the request could not be sent");
  }
  messages_.clear();
}

void Adapter::heard(const nlmsghdr& message) {
  if (askSequence_ != 0 && message.nlmsg_seq == askSequence_) {
    if (message.nlmsg_type == NLMSG_ERROR) {
      askError_ = readAnswer(message).text;
      askSequence_ = 0;
    } else if (auto entry = readEntry(message)) {
      asked_.push_back(*entry);
    }
    return;
  }
  if (dumpSequence_ == 0 || message.nlmsg_seq != dumpSequence_) {
    if (message.nlmsg_type == NLMSG_ERROR) {
      answered(message);
    }
    return;
  }
  if (readInterrupted(message)) {
    dumpWhole_ = false;
  }
  if (message.nlmsg_type == NLMSG_ERROR) {
    Answer answer = readAnswer(message);
    dumpSequence_ = 0;
    engine_.dumpFailed(answer.error, answer.text);
  } else if (message.nlmsg_type == NLMSG_DONE) {
    dumpSequence_ = 0;
    engine_.dumpEnd(dumpWhole_ && readDone(message) == 0);
  } else {
    report(message, true);
  }
}

void Adapter::answered(const nlmsghdr& message) {
  std::uint32_t at = message.nlmsg_seq - batchBegin_;
  if (outstanding_ == 0 || message.nlmsg_seq < batchBegin_ || message.nlmsg_seq >= sequence_) {
    return;
  }
  --outstanding_;
  Answer answer = readAnswer(message);
  engine_.answered(at, answer.error, answer.text);
}

void Adapter::report(const nlmsghdr& message, bool dumped) {
  switch (message.nlmsg_type) {
    case RTM_NEWNEIGH:
      if (auto entry = readEntry(message)) {
        engine_.entryIs(*entry, dumped);
      }
      break;
    case RTM_DELNEIGH:
      if (auto entry = readEntry(message)) {
        engine_.entryDel(*entry);
      }
      break;
    case RTM_NEWNEXTHOP:
      if (auto nexthop = readNexthop(message)) {
        engine_.nexthopIs(*nexthop);
      }
      break;
    case RTM_DELNEXTHOP:
      if (auto nexthop = readNexthop(message)) {
        engine_.nexthopDel(nexthop->id);
      }
      break;
    case RTM_NEWLINK:
      if (auto link = readLink(message)) {
        engine_.linkIs(*link);
      }
      if (auto port = readBridgePort(message)) {
        engine_.portIs(*port);
      }
      break;
    case RTM_DELLINK:
      if (auto link = readLink(message)) {
        engine_.linkDel(link->index);
      }
      break;
    default:
      break;
  }
}

ReadBack Adapter::readBack(const FdbEntry& entry) {
  asked_.clear();
  askError_.clear();
  askSequence_ = sequence_++;
  messages_.clear();
  messages_.add(FdbGet{entry}, askSequence_);
  const int error = requests_.send(messages_.data(), messages_.size());
  messages_.clear();
  while (error == 0 && askSequence_ != 0 && readAnswers()) {
  }
  askSequence_ = 0;
  if (asked_.empty()) {
    return {.answer = askError_};
  }
  const FdbEntry& found = asked_.front();
  ReadBack out{.there = true, .marked = found.marked, .dst = found.dst, .nexthop = found.nexthop};
  if (found.table == Table::bridge) {
    const Link* port = engine_.observed().links.at(found.device);
    out.port = port != nullptr ? port->name : std::to_string(found.device);
  }
  return out;
}

FullExplanation Adapter::explain(Vlan vlan, Mac mac) {
  FullExplanation out{.vlan = vlan, .mac = mac, .known = engine_.status().explain(vlan, mac)};
  if (out.known.deviceIndex != 0) {
    out.device = readBack({.table = Table::device, .device = out.known.deviceIndex, .mac = mac});
  }
  if (out.known.bridgeIndex != 0 && !mac.group()) {
    out.bridge = readBack({.table = Table::bridge, .bridge = out.known.bridgeIndex, .mac = mac});
  }
  return out;
}

AdapterStatus Adapter::status() const {
  return {engine_.status().tallies(), engine_.counters(), compared_,
          engine_.adopted(),          longestSlice_,      engine_.status().problems(0).second};
}

std::pair<std::vector<Problem>, std::size_t> Adapter::problems(std::size_t most) const {
  return engine_.status().problems(most);
}

}  // namespace Agent::Kernel
