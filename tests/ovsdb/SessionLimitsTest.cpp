// What a session tolerates from a server, and what it does not: states, sizes, times, exceptions.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "SessionRig.h"

namespace Ovsdb::Testing {

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

class SessionLimits : public SessionTest {
 protected:
  // Lets time pass in steps, with a tick after each, until the session is over or the time is up.
  double overAfter(double seconds, double step = 0.5) {
    const double begin = now;
    while (now < begin + seconds && session.state() != SessionState::backoff) {
      now += step;
      session.tick(now);
    }
    return now - begin;
  }
  // A connection in one of the three states of one.
  void stands(SessionState state) {
    now += 1000;
    session.failed("the next one", now);
    now += 1000;
    if (state == SessionState::checking) {
      connects();
      serverSays(true);
    } else if (state == SessionState::requesting) {
      isAskedForRows();
    } else {
      follows();
    }
    goesOut();
    ASSERT_EQ(session.state(), state);
  }
  void probeIsOut() {
    now += 100;
    session.tick(now);
    ASSERT_EQ(goesOut().size(), 1U);
  }
};

}  // namespace

// --- nesting

TEST_F(SessionLimits, TextThatIsNestedDeepIsRefusedWhereverItStands) {
  const std::string deep = nested(100'000);
  const std::string cases[] = {R"({"method":"echo","id":1,"params":)" + deep + "}",
                               R"({"method":"echo","params":[],"id":)" + deep + "}",
                               R"({"id":"schema","error":null,"result":)" + deep + "}",
                               R"({"id":"server","error":null,"result":)" + deep + "}",
                               R"({"id":"schema","result":null,"error":)" + deep + "}",
                               R"({"id":)" + deep + R"(,"result":1})",
                               R"({"other":)" + deep + "}",
                               std::string(100'000, '{')};
  for (const std::string& text : cases) {
    now += 100;
    connects();
    comes(text);
    EXPECT_THAT(session.lastError(), HasSubstr("a message is nested deeper than 64 levels"));
  }
  for (const char* const where : {"", R"({"Ucast_Macs_Remote":)", R"({"Tunnel":{"x":)"}) {
    stands(SessionState::following);
    comes(R"({"method":"update3","id":null,"params":["rows",")" + std::string{transaction} + "\"," + where +
          deep);
    EXPECT_THAT(session.lastError(), HasSubstr("nested deeper than 64 levels"));
  }
}

TEST_F(SessionLimits, TheMessageItselfIsTheFirstLevelOfSixtyFour) {
  follows();
  comes(R"({"method":"echo","id":1,"params":)" + nested(63) + "}");
  EXPECT_EQ(goesOut().size(), 1U);
  comes(R"({"method":"echo","id":1,"params":)" + nested(64) + "}");
  EXPECT_THAT(session.lastError(), HasSubstr("nested deeper than 64 levels"));
}

// --- what may come in which state

TEST_F(SessionLimits, WhatMayComeInWhichStateIsATable) {
  const std::string t = transaction;
  const std::string update = R"({"id":null,"method":"update3","params":[")";
  struct Case {
    MessageKind kind;
    std::string text;
    std::array<bool, 3> stays;  // checking, requesting, following
  };
  const Case cases[] = {
      {MessageKind::echo, R"({"id":1,"method":"echo","params":[]})", {true, true, true}},
      {MessageKind::canceled, R"({"id":null,"method":"monitor_canceled","params":["rows"]})", {}},
      {MessageKind::probeAnswer, R"({"id":"probe","result":[],"error":null})", {true, true, true}},
      {MessageKind::schemaAnswer,
       json{{"id", "schema"}, {"result", goodSchema()}, {"error", nullptr}}.dump(),
       {true, false, false}},
      {MessageKind::serverAnswer, R"({"id":"server","result":[false,")" + t + R"(",{}],"error":null})", {}},
      {MessageKind::serverUpdate, update + R"(server",")" + t + R"(",{}]})", {true, true, true}},
      {MessageKind::rowsAnswer,
       R"({"id":"rows","result":[false,")" + t + R"(",{}],"error":null})",
       {false, true, false}},
      {MessageKind::rowsUpdate, update + R"(rows",")" + t + R"(",{}]})", {false, false, true}},
  };
  for (const Case& one : cases) {
    for (std::size_t at = 0; at < 3; ++at) {
      const auto state = static_cast<SessionState>(static_cast<std::size_t>(SessionState::checking) + at);
      SCOPED_TRACE(std::string{nameOf(one.kind)} + " while " + std::string{nameOf(state)});
      stands(state);
      if (one.kind == MessageKind::probeAnswer) {
        probeIsOut();
      }
      const std::uint64_t faults = session.faults();
      comes(one.text);
      EXPECT_EQ(session.state() != SessionState::backoff, one.stays[at]) << session.lastError();
      const bool fault = !one.stays[at] && one.kind != MessageKind::canceled;
      EXPECT_EQ(session.faults(), faults + (fault ? 1U : 0U));
      if (fault) {
        EXPECT_THAT(session.lastError(), HasSubstr(std::string{nameOf(one.kind)} + " came unasked while " +
                                                   std::string{nameOf(state)}));
      }
    }
  }
}

TEST_F(SessionLimits, AnAnswerThatIsNotDueIsAFault) {
  for (const SessionState state :
       {SessionState::checking, SessionState::requesting, SessionState::following}) {
    stands(state);
    answers("probe", json::array());
    EXPECT_THAT(session.lastError(), HasSubstr("the answer to an echo request came unasked"));
    stands(state);
    probeIsOut();
    answers("probe", json::array());
    EXPECT_NE(session.state(), SessionState::backoff);
    answers("probe", json::array());
    EXPECT_EQ(session.state(), SessionState::backoff);
  }
  now += 1000;
  connects();
  comes(R"({"id":null,"method":"update3","params":["server",")" + std::string{transaction} + R"(",{}]})");
  EXPECT_THAT(session.lastError(), HasSubstr("an update of the server's status came unasked while checking"));
  stands(SessionState::following);
  comes(R"({"method":"update3","params":["server"]})");
  EXPECT_THAT(session.lastError(), HasSubstr("is not [monitor, last transaction, rows]"));
  now += 1000;
  connects();
  answers("schema", goodSchema());
  answers("schema", goodSchema());
  EXPECT_THAT(session.lastError(), HasSubstr("the schema came unasked while checking"));
}

TEST_F(SessionLimits, NobodyGoesOnBehindAnUpdateThatDidNotEnd) {
  follows();
  comes(R"({"method":"update3","id":null,"params":["rows",")" + std::string{transaction} +
        R"(",{"Physical_Locator":{")" + rowId + R"(":{"insert":{"dst_ip":"10.0.0.2"}},"x":{}}}]})");
  EXPECT_THAT(sink.told, ElementsAre("part", "row Physical_Locator", "lost"));
  now += 10;
  isAskedForRows();
  sink.told.clear();
  answers("rows", json::array({true, transaction, oneRow()}));
  EXPECT_THAT(session.lastError(), HasSubstr("goes on behind a transaction that was not asked for"));
  EXPECT_TRUE(sink.told.empty());
  EXPECT_EQ(session.resumptions(), 0U);
}

TEST_F(SessionLimits, ATransactionIsNamedByAUuid) {
  isAskedForRows();
  answers("rows", json::array({false, std::string(100'000, 'x'), oneRow()}));
  EXPECT_THAT(session.lastError(), HasSubstr("the name of a transaction is not a UUID: xxx"));
  EXPECT_LT(session.lastError().size(), 200U);
  EXPECT_EQ(session.lastTransaction(), noTransaction);
}

// --- sizes

TEST_F(SessionLimits, EachStateHasTheLargestMessageThatItCanNeed) {
  SessionOptions sizes = options();
  sizes.largestFirst = std::size_t{3} << 20;
  sizes.largestUpdate = std::size_t{1} << 20;
  behaves(sizes);
  const auto echo = [](std::size_t kilobytes) {
    std::string params = "\"" + std::string(1000, 'x') + "\"";
    for (std::size_t i = 0; i < kilobytes; ++i) {
      params += ",\"" + std::string(1021, 'x') + "\"";
    }
    return R"({"id":1,"method":"echo","params":[)" + params + "]}";
  };
  connects();
  comes(echo(250));
  EXPECT_EQ(session.state(), SessionState::checking);
  comes(echo(256));
  EXPECT_THAT(session.lastError(), HasSubstr("a message is larger than the 256 KiB allowed"));

  stands(SessionState::requesting);
  comes(echo(2900));
  EXPECT_THAT(session.lastError(), HasSubstr("an echo request is larger than 256 KiB"));
  stands(SessionState::requesting);
  comes(echo(3072));
  EXPECT_THAT(session.lastError(), HasSubstr("a message is larger than the 3 MiB allowed"));

  stands(SessionState::following);
  comes(echo(1024));
  EXPECT_THAT(session.lastError(), HasSubstr("a message is larger than the 1 MiB allowed"));
  EXPECT_LT(session.held(), std::size_t{2} << 20);
}

TEST_F(SessionLimits, WhatIsNotRowsIsSmall) {
  const std::string large = "[" + std::string(60'000, ' ') + "\"" + std::string(280'000, 'x') + "\"]";
  for (const char* const text :
       {R"({"id":null,"method":"update3","params":["server",)", R"({"id":null,"method":"echo","params":)"}) {
    stands(SessionState::following);
    comes(text + large + (std::string_view{text}.ends_with(',') ? "]}" : "}"));
    EXPECT_THAT(session.lastError(), HasSubstr("is larger than 256 KiB"));
  }
  stands(SessionState::following);
  comes(R"({"method":"echo","params":[],"id":")" + std::string(2000, 'x') + "\"}");
  EXPECT_THAT(session.lastError(), HasSubstr("an id is larger than 1 KiB"));
}

TEST_F(SessionLimits, AMessageOfMembersWithoutEndIsLeftAtTheNinth) {
  follows();
  std::string text = "{";
  while (text.size() < (std::size_t{32} << 20)) {
    text += "\"\":0,";
  }
  comes(text);
  EXPECT_THAT(session.lastError(), HasSubstr("a message has more than 8 members"));
  EXPECT_LT(session.held(), std::size_t{1} << 20);
  stands(SessionState::following);
  comes("{:,:,:,:,:,:,:,:,:,");
  EXPECT_THAT(session.lastError(), HasSubstr("a message has more than 8 members"));
}

TEST_F(SessionLimits, TheStatusOfAServerHasABoundedNumberOfRows) {
  follows();
  for (int part = 0; part < 3 && session.state() != SessionState::backoff; ++part) {
    json rows;
    for (int row = 0; row < 500; ++row) {
      char id[37];
      std::snprintf(id, sizeof id, "%08x-0000-4000-8000-000000000000", part * 500 + row);
      rows[id] = {{"insert", {{"name", "other"}}}};
    }
    comesMessage({{"id", nullptr},
                  {"method", "update3"},
                  {"params", json::array({"server", transaction, {{"Database", rows}}})}});
  }
  EXPECT_THAT(session.lastError(), HasSubstr("the server's status is not in the form"));
}

// --- a peer that does not read

TEST_F(SessionLimits, NothingIsReadWhileAMegabyteWaitsToBeWritten) {
  follows();
  const std::string echo = R"({"id":1,"method":"echo","params":[")" + std::string(100'000, 'x') + "\"]}";
  int taken = 0;
  while (session.wantsInput() && taken < 100) {
    comes(echo);
    ++taken;
  }
  EXPECT_EQ(taken, 11);
  comes(echo);
  comes(echo);
  EXPECT_LT(session.output().size(), 1'200'000U) << "what has come is left alone as well";
  EXPECT_EQ(overAfter(20), 5.0);
  EXPECT_THAT(session.lastError(), HasSubstr("the peer does not read: 11"));
  EXPECT_LT(session.held(), std::size_t{1} << 20);
}

TEST_F(SessionLimits, WhatCameMeanwhileIsWorkedOnWhenThePeerReadsAgain) {
  follows();
  const std::string echo = R"({"id":1,"method":"echo","params":[")" + std::string(100'000, 'x') + "\"]}";
  for (int i = 0; i < 12; ++i) {
    comes(echo);
  }
  EXPECT_FALSE(session.work(1, now));
  EXPECT_FALSE(session.wantsInput());
  goesOut();
  EXPECT_TRUE(session.wantsInput());
  EXPECT_TRUE(session.work(1, now));
  EXPECT_EQ(goesOut().size(), 1U);
}

TEST_F(SessionLimits, APeerThatReadsByDripsIsLeftAndOneThatReadsFourKilobytesIsNot) {
  const std::string echo = R"({"id":1,"method":"echo","params":[")" + std::string(100'000, 'x') + "\"]}";
  for (const std::size_t size : {std::size_t{100}, std::size_t{4096}}) {
    stands(SessionState::following);
    comes(echo);
    for (int i = 0; i < 5 && session.state() == SessionState::following; ++i) {
      now += 4.9;
      session.written(size, now);
      comes(R"({"id":null,"method":"echo","params":[]})");
      session.tick(now);
    }
    EXPECT_EQ(session.state() == SessionState::following, size == 4096) << size;
  }
}

// --- a peer that sends by drips

TEST_F(SessionLimits, AMessageThatComesByDripsIsLeft) {
  follows();
  const double begin = now;
  comes(R"({"id":null,"method":"ec)");
  for (int drip = 0; drip < 10 && session.state() == SessionState::following; ++drip) {
    now += 1;
    comes("h");
    EXPECT_EQ(session.nextWakeup(), begin + 5) << "whatever drips";
    session.tick(now);
  }
  EXPECT_THAT(session.lastError(),
              HasSubstr("the peer is too slow: less than 4 KiB of a message came in 5.0 s"));
  EXPECT_EQ(session.problem(now), session.lastError());
  EXPECT_EQ(session.faults(), 1U);
}

TEST_F(SessionLimits, WhiteSpaceByDripsIsNoProgress) {
  follows();
  for (int drip = 0; drip < 10 && session.state() == SessionState::following; ++drip) {
    comes(" ");
    now += 1;
    session.tick(now);
  }
  EXPECT_EQ(session.state(), SessionState::backoff);
}

TEST_F(SessionLimits, FourKilobytesOrAWholeMessageInAProbeTimeAreProgress) {
  follows();
  comes(R"({"id":null,"method":"echo","params":["x)");
  for (int piece = 0; piece < 10; ++piece) {
    now += 4.9;
    comes(std::string(4096, 'x'));
    session.tick(now);
    ASSERT_EQ(session.state(), SessionState::following) << piece;
  }
  comes(R"("]}{"id":n)");
  for (int message = 0; message < 10; ++message) {
    now += 4.9;
    comes(R"(ull,"method":"echo","params":[]}{"id":n)");
    session.tick(now);
    ASSERT_EQ(session.state(), SessionState::following) << message;
  }
  EXPECT_TRUE(goesOut().empty());
}

TEST_F(SessionLimits, AMessageThatBeginsAfterALongSilenceHasAllItsTime) {
  follows();
  now += 4.5;
  comes("{");
  EXPECT_EQ(overAfter(20), 5.0);
}

// --- what is asked for is due

TEST_F(SessionLimits, TheTimeToConnectIsOverWithTheConnection) {
  SessionOptions quick = options();
  quick.connectTimeout = 1;
  behaves(quick);
  connects();
  goesOut();
  EXPECT_EQ(session.nextWakeup(), now + 5) << "to probe";
  session.tick(now + 1);
  EXPECT_EQ(session.state(), SessionState::checking);
  answers("schema", goodSchema());
  serverSays(true);
  goesOut();
  EXPECT_EQ(session.nextWakeup(), now + 60);
  answers("rows", json::array({false, transaction, json::object()}));
  EXPECT_EQ(session.nextWakeup(), now + 5);
  now += 4;
  comes(R"({"id":null,"method":"echo","params":[]})");
  EXPECT_EQ(session.nextWakeup(), now + 5);
}

TEST_F(SessionLimits, AServerThatLivesAndDoesNotAnswerIsLeft) {
  for (const SessionState state : {SessionState::checking, SessionState::requesting}) {
    stands(state);
    const double begin = now;
    while (session.state() == state && now < begin + 1000) {
      now += 2;
      comes(R"({"id":null,"method":"echo","params":[]})");
      session.tick(now);
    }
    EXPECT_EQ(now - begin, 120.0);
    EXPECT_THAT(session.lastError(), HasSubstr("what was asked for did not come in 120.0 s"));
  }
  stands(SessionState::following);
  for (int minute = 0; minute < 60; ++minute) {
    for (int part = 0; part < 15; ++part) {
      now += 4;
      comes(R"({"id":null,"method":"echo","params":[]})");
      session.tick(now);
    }
  }
  EXPECT_EQ(session.state(), SessionState::following) << "nothing is due";
}

TEST_F(SessionLimits, ALargeAnswerMayTakeLongWhileItComes) {
  SessionOptions large = options();
  large.largestFirst = std::size_t{64} << 20;
  behaves(large);
  isAskedForRows();
  comes(R"({"id":"rows","error":null,"result":[false,")" + std::string{transaction} +
        R"(",{"Physical_Locator":{)");
  comes(std::string(10, '\n'));
  for (int part = 0; part < 100; ++part) {
    comes((part > 0 ? ",\"" : "\"") + std::string{"11111111-1111-4111-8111-1111111111"} +
          std::to_string(part + 100).substr(1) + R"(":{"insert":{"dst_ip":")" + std::string(60'000, '1') +
          "\"}}");
    now += 10;
    session.tick(now);
    ASSERT_EQ(session.state(), SessionState::requesting) << part << session.lastError();
  }
  comes("}}]}");
  EXPECT_EQ(session.state(), SessionState::following);
}

TEST_F(SessionLimits, TimeInWhichTheOwnerDoesNotReadIsNotThePeers) {
  follows();
  comes("{");
  session.hold();
  EXPECT_EQ(session.nextWakeup(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(overAfter(100), 100.0);
  session.goOn(now);
  EXPECT_EQ(session.nextWakeup(), now + 5);
  EXPECT_EQ(overAfter(100), 5.0);
  EXPECT_THAT(session.lastError(), HasSubstr("the peer is too slow"));

  stands(SessionState::following);
  now += 5;
  session.tick(now);
  EXPECT_EQ(goesOut().size(), 1U);
  session.hold();
  now += 100;
  session.goOn(now);
  EXPECT_EQ(overAfter(100), 5.0) << "the answer to the probe may be there, unread";
}

// --- exceptions, problems, pauses

TEST_F(SessionLimits, AnExceptionOfWhoTakesTheRowsIsContained) {
  follows();
  sink.raises = "no such slot";
  comesMessage(update());
  EXPECT_EQ(session.state(), SessionState::backoff);
  EXPECT_TRUE(session.connectionDropped());
  EXPECT_EQ(session.lastError(), "unix:/one: what came could not be taken: no such slot");
  EXPECT_EQ(log.back(), session.lastError());
  EXPECT_EQ(session.contained(), 1U);
  EXPECT_EQ(session.faults(), 0U);
  EXPECT_EQ(session.problem(now), session.lastError());
  sink.raises.clear();
  now += 10;
  connects();
  answers("schema", goodSchema());
  serverSays(true);
  EXPECT_EQ(goesOut().back()["params"][3], noTransaction) << "all rows are asked for";

  stands(SessionState::following);
  sink.raisesAtTheEnd = true;
  comesMessage(update());
  EXPECT_EQ(session.contained(), 2U);
  sink.raisesAtTheEnd = false;
  now += 10;
  connects();
  answers("schema", goodSchema());
  serverSays(true);
  EXPECT_EQ(goesOut().back()["params"][3], noTransaction);
}

TEST_F(SessionLimits, AFaultIsAProblemUntilUpdatesCameForAMinute) {
  follows();
  comes("x");
  const std::string fault = session.lastError();
  EXPECT_EQ(session.problem(now), fault);
  now += 10;
  follows();
  EXPECT_EQ(session.problem(now), fault);
  EXPECT_EQ(session.problem(now + 59), fault);
  EXPECT_EQ(session.problem(now + 60), "");
  session.failed("the peer closed the connection", now);
  EXPECT_EQ(session.problem(now), session.lastError());
  now += 10;
  follows();
  EXPECT_EQ(session.problem(now), "") << "no fault, and mended";
}

TEST_F(SessionLimits, AServerThatIsAtFaultAgainAndAgainIsNotAskedAgainAtOnce) {
  const auto pauseAfter = [&](double seconds) {
    follows();
    for (double left = seconds; left > 0; left -= 4) {
      now += std::min(left, 4.0);
      comes(R"({"id":null,"method":"echo","params":[]})");
    }
    comes("x");
    const double pause = session.nextWakeup() - now;
    now += pause;
    return std::round(pause * 10) / 10;
  };
  EXPECT_EQ(pauseAfter(1), 0.1);
  EXPECT_EQ(pauseAfter(1), 0.2);
  EXPECT_EQ(pauseAfter(59), 0.4);
  EXPECT_EQ(pauseAfter(60), 0.1);
}

}  // namespace Ovsdb::Testing
