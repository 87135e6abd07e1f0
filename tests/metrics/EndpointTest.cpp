#include "service/metrics/Endpoint.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <prometheus/text_serializer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Service::EventLoop;
using Service::MetricsEndpoint;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// A family of one gauge.
prometheus::MetricFamily gauge(const std::string& name, double value) {
  prometheus::ClientMetric metric;
  metric.gauge.value = value;
  return {name, "", prometheus::MetricType::Gauge, {metric}};
}

// A connection to the endpoint.
class Connection {
 public:
  explicit Connection(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(fcntl(fd_, F_SETFL, O_NONBLOCK), 0);
  }
  ~Connection() { close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void say(const std::string& text) const {
    EXPECT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  // What has come until now; `ended` afterwards when the other side has closed.
  std::string hear() {
    std::array<char, 4096> buffer;
    ssize_t got = 0;
    while ((got = read(fd_, buffer.data(), buffer.size())) > 0) {
      heard_.append(buffer.data(), static_cast<std::size_t>(got));
    }
    ended = got == 0 || errno != EAGAIN;
    return heard_;
  }

  bool ended = false;

 private:
  int fd_;
  std::string heard_;
};

// An endpoint with few places, in a loop whose time stands still until the test moves it.
class Endpoint : public testing::Test {
 protected:
  static constexpr std::size_t places = 3;

  void turns(int count = 10) {
    for (int turn = 0; turn < count; ++turn) {
      loop.runOnce(0ns);
    }
  }
  // The answer to a request, with the loop running until it is there.
  std::string ask(const std::string& request) {
    Connection client(endpoint.port());
    client.say(request);
    while (!client.ended) {
      loop.runOnce(1ms);
      client.hear();
    }
    return client.hear();
  }

  EventLoop::Clock::time_point time{1h};
  EventLoop loop{[this] { return time; }};
  std::vector<prometheus::MetricFamily> numbers;
  MetricsEndpoint::Families source = [this] { return numbers; };
  MetricsEndpoint endpoint{loop, "127.0.0.1:0", [this] { return source(); }, {places, 1'000, 5s}};
};

TEST_F(Endpoint, ServesTheNumbersOfTheMoment) {
  EXPECT_THAT(ask("GET /metrics HTTP/1.0\r\n\r\n"), HasSubstr("\r\n\r\n"));
  numbers.push_back(gauge("hosts", 42));
  const std::string text = ask("GET /metrics?x=1 HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_THAT(text,
              StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
  EXPECT_THAT(text, HasSubstr("\nhosts 42\n"));
  const std::size_t head = text.find("\r\n\r\n") + 4;
  EXPECT_THAT(text, HasSubstr("Content-Length: " + std::to_string(text.size() - head) + "\r\n"));
  EXPECT_EQ(endpoint.clients(), 0U);
}

TEST_F(Endpoint, AnswersWhatItDoesNotServe) {
  EXPECT_THAT(ask("GET / HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 404 Not Found\r\n"));
  EXPECT_THAT(ask("POST /metrics HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 405 Method Not Allowed\r\n"));
  EXPECT_THAT(ask("nonsense\r\n\r\n"), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
  EXPECT_THAT(ask("GET /metrics SMTP\r\n\r\n"), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
  const std::string head = ask("HEAD /metrics HTTP/1.1\r\n\r\n");
  EXPECT_THAT(head, testing::AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), EndsWith("\r\n\r\n")));
}

TEST_F(Endpoint, TakesARequestThatComesInParts) {
  Connection client(endpoint.port());
  for (const char* part : {"GET /met", "rics HTTP/1.1\r\n", "Host: x\r\n\r", "\n"}) {
    EXPECT_EQ(client.hear(), "");
    client.say(part);
    turns();
  }
  EXPECT_THAT(client.hear(), StartsWith("HTTP/1.1 200 OK"));
}

TEST_F(Endpoint, RefusesARequestThatIsTooLong) {
  EXPECT_THAT(ask("GET /metrics HTTP/1.1\r\nX: " + std::string(2'000, 'x')), StartsWith("HTTP/1.1 431 "));
}

TEST_F(Endpoint, AHalfOpenRequestHoldsUpNobody) {
  Connection half(endpoint.port());
  half.say("GET /met");
  turns();
  EXPECT_THAT(ask("GET /metrics HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 200 OK"));
  half.hear();
  EXPECT_FALSE(half.ended);
  time += 5s;
  turns();
  half.hear();
  EXPECT_TRUE(half.ended) << "its time is up";
  EXPECT_EQ(endpoint.clients(), 0U);
}

TEST_F(Endpoint, WhereAllPlacesAreTakenTheOldestGoes) {
  std::vector<std::unique_ptr<Connection>> idle;
  for (std::size_t client = 0; client < 2 * places; ++client) {
    idle.push_back(std::make_unique<Connection>(endpoint.port()));
    turns();
  }
  EXPECT_EQ(endpoint.clients(), places);
  idle.front()->hear();
  idle.back()->hear();
  EXPECT_TRUE(idle.front()->ended);
  EXPECT_FALSE(idle.back()->ended);
  EXPECT_THAT(ask("GET /metrics HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 200 OK"));
}

TEST_F(Endpoint, AClientThatDoesNotReadItsAnswerGoesInTime) {
  for (int problem = 0; problem < 60'000; ++problem) {
    numbers.push_back(gauge(std::string(60, 'x') + std::to_string(problem), 1));
  }
  const Connection deaf(endpoint.port());
  deaf.say("GET /metrics HTTP/1.1\r\n\r\n");
  turns();
  EXPECT_EQ(endpoint.clients(), 1U) << "the answer is larger than the socket takes";
  time += 5s;
  turns();
  EXPECT_EQ(endpoint.clients(), 0U);
}

TEST_F(Endpoint, ALargeAnswerComesWhole) {
  for (int problem = 0; problem < 60'000; ++problem) {
    numbers.push_back(gauge(std::string(60, 'x') + std::to_string(problem), 1));
  }
  const std::string text = ask("GET /metrics HTTP/1.1\r\n\r\n");
  const std::size_t head = text.find("\r\n\r\n") + 4;
  EXPECT_THAT(text, HasSubstr("Content-Length: " + std::to_string(text.size() - head) + "\r\n"));
}

TEST_F(Endpoint, NumbersThatCannotBeHadAreAnError) {
  source = []() -> std::vector<prometheus::MetricFamily> { throw std::runtime_error("no numbers"); };
  EXPECT_THAT(ask("GET /metrics HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 500 "));
}

TEST_F(Endpoint, SaysWhichAddressIsTaken) {
  const std::string taken = "127.0.0.1:" + std::to_string(endpoint.port());
  EXPECT_THAT([&] { const MetricsEndpoint second(loop, taken, source); },
              testing::ThrowsMessage<std::runtime_error>(
                  HasSubstr("metrics endpoint " + taken + ": Address already in use")));
  EXPECT_THAT([&] { const MetricsEndpoint third(loop, "127.0.0.1:x", source); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("metrics endpoint 127.0.0.1:x: ")));
}

TEST_F(Endpoint, ListensAtAPortOfAllInterfaces) {
  const MetricsEndpoint all(loop, "0", source);
  const Connection client(all.port());
  turns();
  EXPECT_EQ(all.clients(), 1U);
}

}  // namespace
