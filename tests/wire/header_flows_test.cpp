// The message header and the handshake and close flows against a scripted
// fake Gateway on the other end of a socketpair.

#include <sys/resource.h>

#include <cerrno>

#include "clapi_socketcomms.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

class HeaderFlowsTest : public ::testing::Test {
 protected:
  void SetUp() override { gateway = FakeGateway::onSocket(pair.releasePeer()); }
  SocketPair pair;
  std::unique_ptr<FakeGateway> gateway;
  int32_t reasons = -1;
};

TEST_F(HeaderFlowsTest, HandshakeSendsExactly55BytesAndAcceptsAnEmptyReply) {
  gateway->expect(55).send(hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 00000000"));
  reasons = 12345;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0),
            hex("47 61 74 65 10 80 00 00 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 04 42 41 53 45 00 00 00 00 16"
                "00 02 65 6E 00 02 47 42 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
  EXPECT_TRUE(gateway->unread().empty()) << "no byte beyond the 55";
  EXPECT_EQ(pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, CloseSendsExactly33BytesWithQualifierMinusOne) {
  gateway->expect(33).send(message(10, "BASE", {}));
  reasons = 12345;
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0), hex("47617465 10800000 0000000A 00000000 FFFFFFFF 00000004 42415345 00 00000000"));
  EXPECT_TRUE(gateway->unread().empty());
}

// Each reply shape, how the handshake takes it, and that a reply it
// accepts is consumed whole.
TEST_F(HeaderFlowsTest, HandshakeRepliesAreConsumedWholeOrFailTheFlow) {
  struct Case {
    const char* what;
    Bytes reply;
    bool hangUp;
    int rc;
  };
  const Case cases[] = {
      {"body consumed", message(5, "BASE", pattern(22)), false, QVA_OK},
      // 32 header bytes for a 33-byte read: the body's first byte completes it.
      {"shorter name", hex("47617465 10800000 00000005 00000000 00000000 00000003 424153 00 00000000 00"), false, QVA_OK},
      {"longer name", message(5, "BASEX", {}), false, QVA_ERR_SYSTEM_ERROR},
      {"negative body length", hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 FFFFFFF0"), false,
       QVA_ERR_SYSTEM_ERROR},
      {"no reply", {}, true, QVA_ERR_LOSTGWCON},
      {"header cut short", hex("47617465 10800000 00000005"), true, QVA_ERR_LOSTGWCON},
      {"body cut short", cat({header(5, "BASE", 100), pattern(40)}), true, QVA_ERR_LOSTGWCON},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SocketPair p;
    auto peer = FakeGateway::onSocket(p.releasePeer());
    peer->expect(55);
    if (!c.reply.empty()) peer->send(c.reply);
    if (c.hangUp) peer->hangUp();
    reasons = -1;
    EXPECT_EQ(clapiFlowHandshakeRequest(p.client, &reasons), c.rc);
    EXPECT_EQ(reasons, 0) << "malformed replies and orderly closes carry no errno";
    EXPECT_TRUE(peer->drain()) << peer->errors();
    if (c.rc == QVA_OK) {
      EXPECT_EQ(pendingBytes(p.client), 0);
    }
  }
}

TEST_F(HeaderFlowsTest, HandshakeReplyArrivingInPiecesIsReassembled) {
  gateway->expect(55);
  for (uint8_t b : message(5, "BASE", pattern(22))) gateway->send(Bytes{b});
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, ReplyBodiesLongerThanTheBufferAreConsumedSoTheNextFlowParses) {
  gateway->expect(55).send(message(5, "BASE", pattern(3000, 1)));
  gateway->expect(33).send(message(10, "BASE", pattern(12, 2)));
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(pendingBytes(pair.client), 0) << "the handshake left part of its reply behind";
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, HandshakeTracesEntryAndExitWithItsPoints) {
  gateway->expect(55).send(message(5, "BASE", {}));
  TraceCapture trace(3);
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  const std::string text = trace.text();
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  const std::string call = R"(clapi_socketcomms\.clapiFlowHandshakeRequest\(socketDesc=)" + std::to_string(pair.client) +
                           R"(, \*reasons=0x[0-9a-f]+\))";
  EXPECT_EQ(countLines(text, 3215, "ENTRY", call), 1) << text;
  EXPECT_EQ(countLines(text, 3219, "EXIT", call + " rc=0"), 1);
  EXPECT_EQ(countLines(text, 3240, "ENTRY", R"(clapi_socketcomms\.writeHeader\(sockBuffer=0x[0-9a-f]+, req=0x[0-9a-f]+\))"), 1);
  EXPECT_EQ(countLines(text, 3243, "EXIT", R"(clapi_socketcomms\.readHeader\(\) rc=0)"), 1);
}

// A descriptor above FD_SETSIZE would overflow an fd_set; the wait must
// not use one.
TEST_F(HeaderFlowsTest, HandshakeWorksOnADescriptorAboveFdSetSize) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int high = FD_SETSIZE + 200;
  if (limit.rlim_cur <= static_cast<rlim_t>(high)) {
    if (limit.rlim_max <= static_cast<rlim_t>(high)) GTEST_SKIP() << "descriptor limit too low";
    limit.rlim_cur = static_cast<rlim_t>(high) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  ASSERT_EQ(dup2(pair.client, high), high);
  gateway->expect(55).send(message(5, "BASE", pattern(10)));
  EXPECT_EQ(clapiFlowHandshakeRequest(high, &reasons), QVA_OK);
  ::close(high);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, AllocationFailureStopsTheFlowsBeforeAnyByteIsSent) {
  {
    FailSocketBufferAllocs failing;
    EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_MALLOCFAIL);
    EXPECT_EQ(reasons, 0);
    reasons = -1;
    EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_ERR_MALLOCFAIL);
    EXPECT_EQ(reasons, 0);
  }
  ASSERT_TRUE(gateway->drain());
  EXPECT_TRUE(gateway->unread().empty());
}

TEST_F(HeaderFlowsTest, FlowsToAGatewayThatHasGoneGiveLostConnectionWithTheErrno) {
  gateway->hangUp();
  ASSERT_TRUE(gateway->drain());
  for (auto flow : {clapiFlowHandshakeRequest, clapiFlowCloseRequest}) {
    reasons = 0;
    EXPECT_EQ(flow(pair.client, &reasons), QVA_ERR_LOSTGWCON);
    EXPECT_TRUE(reasons == EPIPE || reasons == ECONNRESET) << "reasons=" << reasons;
  }
}

TEST_F(HeaderFlowsTest, FlowsAcceptANullReasonsPointer) {
  gateway->expect(55).send(message(5, "BASE", {})).expect(33).send(message(10, "BASE", {}));
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, nullptr), QVA_OK);
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, nullptr), QVA_OK);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

}  // namespace
