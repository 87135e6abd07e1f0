// Random sequences against plain maps: the writer's content, what readers see, what followers know, through
// walks with erasure, adoptions and segments made again.

#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "Hosts.h"

namespace Memtab::Test {
namespace {

class Model {
 public:
  Model(std::uint64_t seed, std::string name)
      : random_(seed), name_(std::move(name)), limit_(1 + below(3000)) {
    keys_ = 1 + below(2 * limit_);
    open();
  }
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;
  ~Model() {
    writer_.reset();
    Memtab::remove(name_);
  }

  void run(int steps) {
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      act();
    }
    writer_->publish();
    published_ = current_;
    compare();
  }

 private:
  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }

  void open() {
    writer_ = std::make_unique<HostWriter>(optionsFor(name_, limit_));
    if (!reader_) {
      reader_ = std::make_unique<HostReader>(name_, schema);
    }
  }

  void act() {
    const std::uint64_t choice = below(1000);
    if (choice < 450) {
      is(below(keys_));
    } else if (choice < 800) {
      del(below(keys_));
    } else if (choice < 900) {
      lookUp(below(keys_));
    } else if (choice < 950) {
      publish();
    } else if (choice < 970) {
      ASSERT_EQ(contentOf(*writer_), current_);
    } else if (choice < 980) {
      walkAndErase();
    } else if (choice < 985) {
      deleteAndAddAll();
    } else if (choice < 990) {
      writer_->sweep(below(100));
    } else if (choice < 997) {
      compare();
    } else if (choice < 999) {
      adopt();
    } else {
      makeAnew();
    }
  }

  void is(Key key) {
    const std::uint64_t stamp = below(4) == 0 ? 7 : random_() >> 1U;
    if (!current_.contains(key) && current_.size() == limit_) {
      EXPECT_THROW(writer_->is(key, hostOf(key, stamp)), Full);
      return;
    }
    writer_->is(key, hostOf(key, stamp));
    current_[key] = stamp;
    if (published_.contains(key)) {
      published_[key] = stamp;  // a replaced value is seen at once
    }
  }

  void del(Key key) { EXPECT_EQ(writer_->del(key), current_.erase(key) == 1); }

  void lookUp(Key key) {
    const auto expected = [&](const Stamps& stamps) {
      const auto found = stamps.find(key);
      return found == stamps.end() ? std::nullopt : std::optional<Host>(hostOf(key, found->second));
    };
    ASSERT_EQ(writer_->find(key), expected(current_));
    ASSERT_EQ(reader_->find(key), expected(published_));
  }

  void publish() {
    writer_->publish();
    published_ = current_;
    ASSERT_EQ(reader_->size(), current_.size());
    if (below(2) == 0) {
      mirror_.follow(*reader_);
      ASSERT_EQ(mirror_.content(), published_);
    }
  }

  void walkAndErase() {
    Stamps met;
    for (auto record = writer_->first(); record; record = writer_->next(record->first)) {
      ASSERT_TRUE(met.emplace(record->first, record->second.stamp).second);
      if (below(3) == 0) {
        del(record->first);
      } else if (below(3) == 0) {
        is(record->first);
      }
    }
    for (const auto& [key, stamp] : current_) {
      ASSERT_TRUE(met.contains(key));
    }
  }

  void deleteAndAddAll() {
    const Stamps before = current_;
    for (const auto& [key, stamp] : before) {
      del(key);
    }
    ASSERT_EQ(writer_->first(), std::nullopt);
    for (const auto& [key, stamp] : before) {
      is(key);
    }
  }

  void compare() {
    ASSERT_EQ(writer_->size(), current_.size());
    ASSERT_EQ(contentOf(*writer_), current_);
    ASSERT_EQ(contentOf(*reader_), published_);
  }

  // What was not published does not exist, but for replaced values.
  void adopt() {
    writer_.reset();
    open();
    ASSERT_TRUE(writer_->adopted());
    current_ = published_;
    compare();
  }

  void makeAnew() {
    writer_.reset();
    ASSERT_TRUE(Memtab::remove(name_));
    open();
    ASSERT_FALSE(writer_->adopted());
    current_.clear();
    published_.clear();
    compare();
  }

  std::mt19937_64 random_;
  std::string name_;
  std::uint64_t limit_;
  std::uint64_t keys_ = 0;
  std::unique_ptr<HostWriter> writer_;
  std::unique_ptr<HostReader> reader_;
  Mirror mirror_;
  Stamps current_;
  Stamps published_;
};

TEST(Model, AgreesOverRandomSequences) {
  for (std::uint64_t seed = 1; seed <= 120; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const Name name;
    Model model(seed, name.text());
    model.run(3000);
    if (HasFailure()) {
      break;
    }
  }
}

}  // namespace
}  // namespace Memtab::Test
