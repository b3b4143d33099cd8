// Every fault the emulator can inject, met by the library: what the call
// returns, that nothing is written past the caller's areas, and whether the
// connection stays usable. Each conversation runs in a thread of its own with
// a bounded wait, so a library that hangs fails the test instead.
#include "e2e_support.h"

using namespace e2e;
using qvaemu::Fault;

namespace {

// One conversation's results, filled in the thread that owns the token.
struct Outcome {
  int open = 1;
  std::vector<int> rcs;  // one per call made
  int close = 1;
  bool pointerCleared = false;
};

class FaultsTest : public ::testing::Test {
 protected:
  void SetUp() override { E2E_START(gw_); }
  void TearDown() override { EXPECT_TRUE(tokenListEmpty()) << "a connection was left on the token list"; }

  int open(QvaGatewayToken** tok) { return QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), tok, 5); }

  // Opens, runs the calls, closes: all in the calling thread.
  template <class Calls>
  Outcome converse(Calls calls) {
    Outcome o;
    QvaGatewayToken* tok = nullptr;
    o.open = open(&tok);
    if (o.open != QVA_OK) return o;
    calls(tok, o.rcs);
    o.close = QVA_closeGatewayConnection(&tok);
    o.pointerCleared = tok == nullptr;
    return o;
  }

  static int echo(QvaGatewayToken* tok, GuardedArea& area, std::string_view text, const char* program = "ECHO") {
    area.set(text);
    ECI_PARMS parms = eciParms(program, area.data(), area.length());
    return QVA_ECI_Execute(tok, &parms);
  }

  static void expectClosedCleanly(const Outcome& o) {
    EXPECT_EQ(o.close, QVA_OK);
    EXPECT_TRUE(o.pointerCleared);
  }

  qvaemu::Gateway gw_;
};

// ---- A Gateway that goes silent ---------------------------------------------------

TEST_F(FaultsTest, NeverAnswerOnAnEciCallIsLostConnectionOnceDropped) {
  gw_.setFault(faultPlan(Fault::NeverAnswer, 1));
  auto pending = std::async(std::launch::async, [this] {
    return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
      GuardedArea area(5);
      rcs.push_back(echo(tok, area, "hello"));
    });
  });
  // The whole request arrived and the library is still waiting for the reply.
  const bool arrived = gw_.waitForReceived(0, 55 + 132, kPatience);
  const bool stillWaiting = pending.wait_for(0ms) == std::future_status::timeout;
  gw_.dropConnections();
  const Outcome o = awaitBounded(gw_, pending);
  EXPECT_TRUE(arrived);
  EXPECT_TRUE(stillWaiting);
  ASSERT_EQ(o.open, QVA_OK);
  EXPECT_EQ(o.rcs, std::vector<int>{QVA_ERR_LOSTGWCON});
  expectClosedCleanly(o);
}

TEST_F(FaultsTest, NeverAnswerOnTheHandshakeFailsTheOpenOnceDropped) {
  gw_.setFault(faultPlan(Fault::NeverAnswer, 0));
  QvaGatewayToken* tok = nullptr;
  auto pending = std::async(std::launch::async, [this, &tok] { return open(&tok); });
  const bool arrived = gw_.waitForReceived(0, 55, kPatience);
  const bool stillWaiting = pending.wait_for(0ms) == std::future_status::timeout;
  gw_.dropConnections();
  EXPECT_EQ(awaitBounded(gw_, pending), QVA_ERR_CONNECTFAILED);
  EXPECT_TRUE(arrived);
  EXPECT_TRUE(stillWaiting);
  EXPECT_EQ(tok, nullptr);
}

// ---- A Gateway that closes or sends nonsense ---------------------------------------------

// The first ECI reply is bent; nothing lands past the COMMAREA, and the
// connection can still be closed.
TEST_F(FaultsTest, ABrokenReplyFailsTheCallAndLeavesTheCommareaGuardIntact) {
  struct Case {
    Fault fault;
    int rc;
  };
  for (const Case& c : {Case{Fault::CloseBeforeAnswer, QVA_ERR_LOSTGWCON}, Case{Fault::CloseMidReply, QVA_ERR_LOSTGWCON},
                        Case{Fault::HugeDataLength, QVA_ERR_LOSTGWCON}, Case{Fault::MalformedHeader, QVA_ERR_SYSTEM_ERROR}}) {
    SCOPED_TRACE(qvaemu::faultName(c.fault));
    gw_.setFault(faultPlan(c.fault, 1));
    const Outcome o = runBounded(gw_, [this] {
      return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
        GuardedArea area(40);
        rcs.push_back(echo(tok, area, "a reply that is cut off halfway through"));
        EXPECT_TRUE(area.guardIntact());
      });
    });
    ASSERT_EQ(o.open, QVA_OK);
    EXPECT_EQ(o.rcs, std::vector<int>{c.rc});
    expectClosedCleanly(o);
  }
}

// The socket is closed without a close request.
TEST_F(FaultsTest, ABrokenHandshakeReplyFailsTheOpenWithoutCloseRequest) {
  for (Fault fault : {Fault::HugeDataLength, Fault::MalformedHeader}) {
    SCOPED_TRACE(qvaemu::faultName(fault));
    qvaemu::Gateway gw;
    E2E_START(gw);
    gw.setFault(faultPlan(fault, 0));
    QvaGatewayToken* tok = nullptr;
    TraceCapture trace(1);
    EXPECT_EQ(runBounded(gw, [&gw, &tok] { return QVA_openRemoteGatewayConnection(kLoopback, gw.port(), &tok, 5); }),
              QVA_ERR_CONNECTFAILED);
    const auto lines = traceLines(trace.text());
    EXPECT_EQ(tok, nullptr);
    ASSERT_TRUE(gw.waitForClosed(0, kPatience));
    EXPECT_EQ(gw.received(0), handshakeRequest());
    EXPECT_TRUE(hasLine(lines, 2142, "*EXC*",
                        "clapi_qva_gwytok.openClientSocket() Failed to connect to Gateway 127.0.0.1:" +
                            std::to_string(gw.port())));
    if (fault == Fault::MalformedHeader) {
      EXPECT_TRUE(hasLine(lines, 2014, "*EXC*",
                          "clapi_gwycon.clapiConnectToGatewayHandshake flows failed rc=-9 errno=Success gwyRc=0 authRc=0"));
    }
  }
}

// ---- A Gateway that sends slowly ----------------------------------------------------------

TEST_F(FaultsTest, ATrickledReplyStillArrivesWhole) {
  gw_.setFault(faultPlan(Fault::Trickle, 0));  // the handshake and close replies trickle too
  const Outcome o = runBounded(gw_, [this] {
    return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
      const std::string text = "every byte of this comes back one to three at a time";
      GuardedArea area(text.size());
      rcs.push_back(echo(tok, area, text, "UPPER"));
      EXPECT_EQ(area.text(), "EVERY BYTE OF THIS COMES BACK ONE TO THREE AT A TIME");
      EXPECT_TRUE(area.guardIntact());
      GuardedList list(2);
      unsigned short count = 2;
      rcs.push_back(QVA_listSystems(tok, &count, list.data()));
      EXPECT_EQ(count, 2);
      EXPECT_EQ(nameOf(list[1]), trimmedName("QVATEST"));
    });
  });
  ASSERT_EQ(o.open, QVA_OK);
  EXPECT_EQ(o.rcs, (std::vector<int>{ECI_NO_ERROR, ECI_NO_ERROR}));
  expectClosedCleanly(o);
  ASSERT_TRUE(gw_.waitForClosed(0, kPatience));
  EXPECT_EQ(slice(gw_.received(0), gw_.received(0).size() - 33, 33), closeRequest());
}

// ---- Exception flows and oversize replies ---------------------------------------------------

TEST_F(FaultsTest, AnExceptionFlowIsAGatewayExceptionAndKeepsTheConnectionInStep) {
  // The fault bends every reply from the first ECI call on, the close reply too.
  gw_.setFault(faultPlan(Fault::ExceptionFlow, 1));
  TraceCapture trace(1);
  const Outcome o = runBounded(gw_, [this] {
    return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
      GuardedArea area(5);
      area.set("hello");
      ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
      std::memcpy(parms.eci_abend_code, "zzzz", 4);
      parms.eci_luw_token = 0;
      rcs.push_back(QVA_ECI_Execute(tok, &parms));
      // No output field is touched.
      EXPECT_EQ(area.text(), "hello");
      EXPECT_EQ(std::string(parms.eci_abend_code, 4), "zzzz");
      rcs.push_back(echo(tok, area, "again"));
      GuardedList list(2);
      unsigned short count = 2;
      rcs.push_back(QVA_listSystems(tok, &count, list.data()));
      EXPECT_EQ(count, 2);
      EXPECT_TRUE(list.guardIntact());
    });
  });
  const auto lines = traceLines(trace.text());
  ASSERT_EQ(o.open, QVA_OK);
  EXPECT_EQ(o.rcs, (std::vector<int>{QVA_ERR_GATEWAY_EXCEPTION, QVA_ERR_GATEWAY_EXCEPTION, QVA_ERR_GATEWAY_EXCEPTION}));
  expectClosedCleanly(o);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const TraceLine& l) {
                            return l.point == 3225 && l.word == "*EXC*" &&
                                   l.message == "clapi_socketcomms.clapiFlowECIRequest An exception occurred in the "
                                                "Gateway daemon";
                          }),
            3);
  // Every request arrived whole and in order, the close request last.
  ASSERT_TRUE(gw_.waitForClosed(0, kPatience));
  const auto messages = splitMessages(gw_.received(0));
  ASSERT_EQ(messages.size(), 5u);
  EXPECT_EQ(messages[4], closeRequest());
}

TEST_F(FaultsTest, TheCallAfterAGatewayExceptionSucceeds) {
  qvaemu::FaultPlan plan = faultPlan(Fault::ExceptionFlow, 1);
  plan.messages = 1;
  gw_.setFault(plan);
  const Outcome o = runBounded(gw_, [this] {
    return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
      GuardedArea area(5);
      rcs.push_back(echo(tok, area, "first"));
      rcs.push_back(echo(tok, area, "again"));
      EXPECT_EQ(area.text(), "again");
      EXPECT_TRUE(area.guardIntact());
    });
  });
  ASSERT_EQ(o.open, QVA_OK);
  EXPECT_EQ(o.rcs, (std::vector<int>{QVA_ERR_GATEWAY_EXCEPTION, QVA_OK}));
  expectClosedCleanly(o);
}

TEST_F(FaultsTest, AnOversizeCommareaIsCutAtTheCallersLength) {
  for (uint32_t extra : {1u, 64u, 3000u}) {
    SCOPED_TRACE("extraBytes=" + std::to_string(extra));
    gw_.setFault(faultPlan(Fault::OversizeCommarea, 1, extra));
    TraceCapture trace(1);
    const Outcome o = runBounded(gw_, [this] {
      return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
        GuardedArea area(10);
        rcs.push_back(echo(tok, area, "0123456789"));
        EXPECT_EQ(area.text(), "0123456789");
        EXPECT_TRUE(area.guardIntact());
        // The excess was read and dropped: the next reply is this call's own.
        rcs.push_back(echo(tok, area, "abcdefghij", "UPPER"));
        EXPECT_EQ(area.text(), "ABCDEFGHIJ");
        EXPECT_TRUE(area.guardIntact());
        GuardedList list(2);
        unsigned short count = 2;
        rcs.push_back(QVA_listSystems(tok, &count, list.data()));
        EXPECT_EQ(count, 2);
        EXPECT_EQ(nameOf(list[0]), trimmedName("QVADEMO"));
      });
    });
    const auto lines = traceLines(trace.text());
    ASSERT_EQ(o.open, QVA_OK);
    EXPECT_EQ(o.rcs, (std::vector<int>{QVA_ERR_INVALID_DATA_LENGTH, QVA_ERR_INVALID_DATA_LENGTH, ECI_NO_ERROR}));
    expectClosedCleanly(o);
    EXPECT_TRUE(hasLine(lines, 3226, "*EXC*",
                        "clapi_socketcomms.clapiFlowECIRequest Gateway returned " + std::to_string(10 + extra) +
                            " COMMAREA bytes, more than the 10 the caller holds; the excess was dropped"));
  }
}

TEST_F(FaultsTest, AnOversizeServerListIsCutAtTheCallersCapacity) {
  for (uint32_t extra : {64u, 3000u}) {
    SCOPED_TRACE("extraBytes=" + std::to_string(extra));
    const unsigned short announced = static_cast<unsigned short>(2 + (extra + 69) / 70);
    gw_.setFault(faultPlan(Fault::OversizeServerList, 1, extra));
    const Outcome o = runBounded(gw_, [this, announced] {
      return converse([announced](QvaGatewayToken* tok, std::vector<int>& rcs) {
        GuardedList list(2);
        unsigned short count = 2;
        rcs.push_back(QVA_listSystems(tok, &count, list.data()));
        EXPECT_EQ(count, announced);
        EXPECT_EQ(nameOf(list[0]), trimmedName("QVADEMO"));
        EXPECT_EQ(nameOf(list[1]), trimmedName("QVATEST"));
        EXPECT_TRUE(list.guardIntact());
        GuardedArea area(6);
        rcs.push_back(echo(tok, area, "normal"));
        EXPECT_EQ(area.text(), "normal");
        GuardedList again(2);
        count = 2;
        rcs.push_back(QVA_listSystems(tok, &count, again.data()));
        EXPECT_TRUE(again.guardIntact());
      });
    });
    ASSERT_EQ(o.open, QVA_OK);
    EXPECT_EQ(o.rcs, (std::vector<int>{QVA_ERR_MORE_SYSTEMS, ECI_NO_ERROR, QVA_ERR_MORE_SYSTEMS}));
    expectClosedCleanly(o);
  }
}

TEST_F(FaultsTest, AChannelReturnedForACommareaCallIsASystemError) {
  gw_.setFault(faultPlan(Fault::ChannelReturnOnCommarea, 1));
  TraceCapture trace(1);
  const Outcome o = runBounded(gw_, [this] {
    return converse([](QvaGatewayToken* tok, std::vector<int>& rcs) {
      GuardedArea area(5);
      rcs.push_back(echo(tok, area, "hello", "UPPER"));
      // The COMMAREA came before the channel and was kept.
      EXPECT_EQ(area.text(), "HELLO");
      EXPECT_TRUE(area.guardIntact());
      GuardedList list(2);
      unsigned short count = 2;
      rcs.push_back(QVA_listSystems(tok, &count, list.data()));
      EXPECT_EQ(nameOf(list[1]), trimmedName("QVATEST"));
      rcs.push_back(echo(tok, area, "twice"));
      EXPECT_EQ(area.text(), "twice");
    });
  });
  const auto lines = traceLines(trace.text());
  ASSERT_EQ(o.open, QVA_OK);
  EXPECT_EQ(o.rcs, (std::vector<int>{QVA_ERR_SYSTEM_ERROR, ECI_NO_ERROR, QVA_ERR_SYSTEM_ERROR}));
  expectClosedCleanly(o);
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const TraceLine& l) {
    return l.point == 3228 && l.word == "*EXC*" &&
           l.message.rfind("clapi_socketcomms.clapiFlowECIRequest Gateway returned a channel for a COMMAREA request; ",
                           0) == 0;
  }));
}

}  // namespace
