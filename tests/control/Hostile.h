#pragma once

#include <memory>
#include <random>
#include <string>
#include <utility>

#include "Rig.h"

namespace TestControl {

// A client that means harm: it says random things, most of them wrong, in random pieces, and reads or not.
class HostileClient {
 public:
  HostileClient(std::string path, unsigned seed) : path_(std::move(path)), random_(seed) {}

  // Does something, or nothing.
  void act() {
    if (!client_) {
      if (roll(4) == 0) {
        client_ = std::make_unique<RawClient>(path_);
        reads_ = roll(3) != 0;
        unsent_.clear();
      }
      return;
    }
    if (reads_) {
      client_->take();
      client_->lines.clear();
    }
    if (client_->ended || roll(200) == 0) {
      client_ = nullptr;  // perhaps in the middle
      return;
    }
    if (roll(500) == 0) {
      client_->sayNoMore();
    }
    if (unsent_.empty()) {
      unsent_ = something();
    }
    const std::size_t piece = roll(10) == 0 ? 1 : unsent_.size();  // some speak byte by byte
    unsent_.erase(0, client_->send(unsent_.substr(0, std::min<std::size_t>(piece, 65'536))));
  }

 private:
  unsigned roll(unsigned sides) { return static_cast<unsigned>(random_() % sides); }

  std::string pointer() {
    static const char* const pointers[] = {
        "",         "/output",          "/output/hosts",           "/input",    "/agent",
        "/nowhere", "/output/hosts/17", "/output/hosts/17/number", "/output/~", "x"};
    return pointers[roll(10)];
  }

  std::string bytes(std::size_t count) {
    std::string text(count, ' ');
    for (char& c : text) {
      c = static_cast<char>(random_());
    }
    return text;
  }

  std::string something() {
    switch (roll(14)) {
      case 0:
        return bytes(roll(300)) + '\n';
      case 1:
        return "{\"get\":";  // and no more
      case 2:
        return "{\"get\":\"" + std::string(roll(200'000), 'x') + "\"}\n";
      case 3:
        return std::string(roll(60'000), '[') + '\n';
      case 4:
        return "{\"patch\":" + std::string(roll(100), '{') + "}\n";
      case 5: {
        std::string many;
        for (unsigned i = roll(60); i > 0; --i) {
          many += "{\"subscribe\":\"" + pointer() + "\",\"id\":" + std::to_string(i) + "}\n";
        }
        return many;
      }
      case 6:
        return "{\"call\":\"flush\"}\n{\"call\":\"boom\"}\n";
      case 7:
        return "{\"call\":\"double\",\"params\":{\"number\":\"" + bytes(3) + "\"}}\n";
      case 8:
        return "{\"patch\":{\"a\":1}}\n";
      case 9: {
        std::string many;
        for (unsigned i = roll(200); i > 0; --i) {
          many += "{\"get\":\"\"}\n";
        }
        return many;
      }
      case 10:
        return "{\"id\":\"" + std::string(roll(1'000), 'i') + "\",\"get\":\"/agent\"}\n";
      default:
        return "{\"" + std::string(roll(2) == 0 ? "get" : "subscribe") + "\":\"" + pointer() + "\"}\n";
    }
  }

  std::string path_;
  std::mt19937 random_;
  std::unique_ptr<RawClient> client_;
  bool reads_ = true;
  std::string unsent_;
};

}  // namespace TestControl
