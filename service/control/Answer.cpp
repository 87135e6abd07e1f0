#include "service/control/Answer.h"

#include "service/control/Request.h"

namespace Control {

std::size_t Answer::step(std::size_t items, std::string& out) {
  std::size_t steps = 0;
  fresh_ = false;
  while (steps < items && !ended_) {
    ++steps;
    const Service::Walked walked = records_.next();
    if (walked == Service::Walked::end) {
      end(out);
    } else if (walked == Service::Walked::member) {
      if (!text_.begun()) {
        out += valueHead(id_);
      }
      text_.add(records_.path(), records_.text(), out);
    }
  }
  begun_ = begun_ || text_.begun();
  return steps;
}

void Answer::end(std::string& out) {
  ended_ = true;
  if (text_.begun()) {
    text_.end(out);
    out += '}';
    return;
  }
  if (nothing_ == Nothing::isError) {
    throw RequestError(RequestError::Kind::notFound, pointer_, "nothing is there");
  }
  out += valueLine(id_, nullptr);
}

}  // namespace Control
