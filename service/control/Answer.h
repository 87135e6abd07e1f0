#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

#include "service/json/Parts.h"

namespace Control {

// The answer that has a part of the document, on its way out a piece at a time.
class Answer {
 public:
  enum class Nothing {
    isError,  // a part that is not there raises RequestError (notFound)
    isNull,   // its value is null
  };

  // `id` is null when the request had none; `pointer` is for the error.
  Answer(nlohmann::json id, std::string pointer, Service::Part part, Nothing nothing)
      : id_(std::move(id)), pointer_(std::move(pointer)), records_(std::move(part)), nothing_(nothing) {}

  const nlohmann::json& id() const { return id_; }
  // Whether some of the text was given out, and whether no step was made yet.
  bool begun() const { return begun_; }
  bool fresh() const { return fresh_; }

  // Appends the text of about `items` records to `out`, without the line's newline; returns how many steps
  // that took. Nothing is appended until there is a record.
  std::size_t step(std::size_t items, std::string& out);
  bool ended() const { return ended_; }

 private:
  void end(std::string& out);

  nlohmann::json id_;
  std::string pointer_;
  Service::Records records_;
  Nothing nothing_;
  Service::RecordText text_;
  bool begun_ = false;
  bool fresh_ = true;
  bool ended_ = false;
};

}  // namespace Control
