#include "service/json/PieceParser.h"

#include <algorithm>

#include "service/json/Text.h"

namespace Service {

using nlohmann::json;

bool PieceParser::step(std::size_t bytes) {
  const std::size_t until = at_ + std::min(bytes, text_.size() - at_);
  try {
    while (state_ != State::end && state_ != State::broken && (at_ < until || at_ >= text_.size())) {
      token();
    }
  } catch (const BadJson&) {  // nested too deep, or a string or number that is none
    state_ = State::broken;
  }
  return state_ != State::end && state_ != State::broken;
}

bool PieceParser::skipBlanks() {
  at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size());
  return at_ < text_.size();
}

// One token, and the blanks before it.
void PieceParser::token() {
  if (!skipBlanks()) {
    state_ = state_ == State::next && open_.empty() ? State::end : State::broken;
    return;
  }
  const char c = text_[at_];
  const bool wantsValue = state_ == State::value || state_ == State::firstValue;
  const bool closesEmpty =
      (c == ']' && state_ == State::firstValue) || (c == '}' && state_ == State::firstKey);
  const bool closes = closesEmpty || (state_ == State::next && !open_.empty() && (c == '}' || c == ']'));
  if (wantsValue && (c == '{' || c == '[')) {
    ++at_;
    open(c == '{' ? json::object() : json::array());
  } else if (closes) {
    ++at_;
    close(c);
  } else if (wantsValue) {
    readScalar();
  } else if (c == '"' && (state_ == State::key || state_ == State::firstKey)) {
    readKey();
  } else if (c == ':' && state_ == State::colon) {
    ++at_;
    state_ = State::value;
  } else if (state_ == State::next && !open_.empty() && c == ',') {
    ++at_;
    state_ = open_.back()->is_object() ? State::key : State::value;
  } else {
    state_ = State::broken;
  }
}

void PieceParser::open(json container) {
  const bool object = container.is_object();
  nesting_.open();
  json* place = &root_;
  if (open_.empty()) {
    root_ = std::move(container);
  } else if (open_.back()->is_object()) {
    place = &((*open_.back())[key_] = std::move(container));
  } else {
    open_.back()->push_back(std::move(container));
    place = &open_.back()->back();
  }
  open_.push_back(place);
  state_ = object ? State::firstKey : State::firstValue;
}

void PieceParser::close(char bracket) {
  if (open_.back()->is_object() != (bracket == '}')) {
    state_ = State::broken;
    return;
  }
  open_.pop_back();
  nesting_.close();
  state_ = State::next;
}

void PieceParser::put(json value) {
  if (open_.empty()) {
    root_ = std::move(value);
  } else if (open_.back()->is_object()) {
    (*open_.back())[key_] = std::move(value);
  } else {
    open_.back()->push_back(std::move(value));
  }
  state_ = State::next;
}

// The string that begins here, with its quotes; empty if it does not end.
std::string_view PieceParser::quoted() {
  std::size_t end = at_ + 1;
  while (end < text_.size() && text_[end] != '"') {
    end += text_[end] == '\\' ? std::size_t{2} : std::size_t{1};
  }
  if (end >= text_.size()) {
    return {};
  }
  const std::string_view all = std::string_view(text_).substr(at_, end + 1 - at_);
  at_ = end + 1;
  return all;
}

void PieceParser::readKey() {
  const std::string_view all = quoted();
  const bool plain =
      std::all_of(all.begin(), all.end(), [](char c) { return c >= ' ' && c <= '~' && c != '\\'; });
  key_ = plain && all.size() >= 2 ? all.substr(1, all.size() - 2) : parseJson(all).get<std::string>();
  state_ = State::colon;
}

void PieceParser::readScalar() {
  if (text_[at_] == '"') {
    put(parseJson(quoted()));
    return;
  }
  const std::size_t end = std::min(text_.find_first_of(",]} \t\r\n", at_), text_.size());
  const std::string_view scalar = std::string_view(text_).substr(at_, end - at_);
  at_ = end;
  put(parseJson(scalar));
}

}  // namespace Service
