// The message header and the handshake and close flows against a scripted
// fake Gateway on the other end of a socketpair.

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>

#include "clapi_diag.h"
#include "clapi_socketcomms.h"
#include "wire_support.h"

namespace {

using wire::Bytes;
using wire::hex;

class HeaderFlowsTest : public ::testing::Test {
 protected:
  void SetUp() override { gateway = wire::FakeGateway::onSocket(pair.releasePeer()); }
  wire::SocketPair pair;
  std::unique_ptr<wire::FakeGateway> gateway;
};

// ---- Handshake -------------------------------------------------------------------

TEST_F(HeaderFlowsTest, HandshakeSendsExactly55BytesAndAcceptsAnEmptyReply) {
  gateway->expect(55).send(hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 00000000"));
  int32_t reasons = 12345;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0),
            hex("47 61 74 65 10 80 00 00 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 04 42 41 53 45 00 00 00 00 16"
                "00 02 65 6E 00 02 47 42 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
  EXPECT_TRUE(gateway->unread().empty()) << "no byte beyond the 55";
  EXPECT_EQ(wire::pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, HandshakeReplyBodyIsConsumedWhole) {
  gateway->expect(55).send(wire::reply(5, "BASE", wire::pattern(22)));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(wire::pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, HandshakeReplyBodyLongerThanTheBufferIsConsumedSoTheNextFlowParses) {
  gateway->expect(55).send(wire::reply(5, "BASE", wire::pattern(3000, 1)));
  gateway->expect(33).send(wire::reply(10, "BASE", {}));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(wire::pendingBytes(pair.client), 0) << "the handshake left part of its reply behind";
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(1), wire::closeRequest());
}

TEST_F(HeaderFlowsTest, HandshakeReplyArrivingInPiecesIsReassembled) {
  const Bytes answer = wire::reply(5, "BASE", wire::pattern(22));
  gateway->expect(55);
  for (uint8_t b : answer) gateway->send(Bytes{b});
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(wire::pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, HandshakeReplyWithALongerNameFailsAsMalformed) {
  gateway->expect(55).send(wire::reply(5, "BASEX", {}));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(reasons, 0);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, HandshakeReplyWithANegativeBodyLengthFailsAsMalformed) {
  gateway->expect(55).send(hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 FFFFFFF0"));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(reasons, 0);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, HandshakeReplyWithAShorterNameStillParsesWhenTheBytesAreThere) {
  // 32 header bytes for a 33-byte read: the body's first byte completes it.
  gateway->expect(55).send(hex("47617465 10800000 00000005 00000000 00000000 00000003 424153 00 00000000 00"));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, HandshakeReplyCutShortByACloseLosesTheConnection) {
  gateway->expect(55).send(hex("47617465 10800000 00000005")).hangUp();
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(reasons, 0) << "an orderly close carries no errno";
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, GatewayClosingInsteadOfAnsweringLosesTheConnection) {
  gateway->expect(55).hangUp();
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(reasons, 0);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, HandshakeBodyTruncatedByACloseLosesTheConnection) {
  gateway->expect(55).send(wire::cat({wire::replyHeader(5, "BASE", 100), wire::pattern(40)})).hangUp();
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_LOSTGWCON);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

TEST_F(HeaderFlowsTest, HandshakeTracesEntryAndExitWithItsPoints) {
  gateway->expect(55).send(wire::reply(5, "BASE", {}));
  std::string text;
  {
    wire::TraceFile trace(3);
    int32_t reasons = -1;
    EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
    text = trace.text();
  }
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  const std::string fd = std::to_string(pair.client);
  EXPECT_EQ(wire::traceLines(text, 3215, "ENTRY",
                             "clapi_socketcomms\\.clapiFlowHandshakeRequest\\(socketDesc=" + fd +
                                 ", \\*reasons=0x[0-9a-f]+\\)$")
                .size(),
            1u)
      << text;
  EXPECT_EQ(wire::traceLines(text, 3219, "EXIT",
                             "clapi_socketcomms\\.clapiFlowHandshakeRequest\\(socketDesc=" + fd +
                                 ", \\*reasons=0x[0-9a-f]+\\) rc=0$")
                .size(),
            1u);
  EXPECT_EQ(wire::traceLines(text, 3240, "ENTRY", "clapi_socketcomms\\.writeHeader\\(sockBuffer=0x[0-9a-f]+, req=0x[0-9a-f]+\\)$")
                .size(),
            1u);
  EXPECT_EQ(wire::traceLines(text, 3243, "EXIT", "clapi_socketcomms\\.readHeader\\(\\) rc=0$").size(), 1u);
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
  gateway->expect(55).send(wire::reply(5, "BASE", wire::pattern(10)));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(high, &reasons), QVA_OK);
  ::close(high);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

bool failSocketBuffers(uint32_t, const char *tag) { return tag != nullptr && std::strncmp(tag, "SCKB", 4) == 0; }

TEST_F(HeaderFlowsTest, AllocationFailureStopsTheFlowsBeforeAnyByteIsSent) {
  setAllocFailHook(failSocketBuffers);
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_MALLOCFAIL);
  EXPECT_EQ(reasons, 0);
  reasons = -1;
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_ERR_MALLOCFAIL);
  EXPECT_EQ(reasons, 0);
  setAllocFailHook(nullptr);
  ASSERT_TRUE(gateway->drain());
  EXPECT_TRUE(gateway->unread().empty());
}

// ---- Close --------------------------------------------------------------------------

TEST_F(HeaderFlowsTest, CloseSendsExactly33BytesWithQualifierMinusOne) {
  gateway->expect(33).send(wire::reply(10, "BASE", {}));
  int32_t reasons = 12345;
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  const Bytes sent = gateway->request(0);
  EXPECT_EQ(sent, hex("47617465 10800000 0000000A 00000000 FFFFFFFF 00000004 42415345 00 00000000"));
  EXPECT_EQ(wire::slice(sent, 8, 4), hex("0000000A"));
  EXPECT_EQ(wire::slice(sent, 16, 4), hex("FFFFFFFF"));
  EXPECT_TRUE(gateway->unread().empty());
}

TEST_F(HeaderFlowsTest, CloseReplyBodyIsConsumed) {
  gateway->expect(33).send(wire::reply(10, "BASE", wire::pattern(12)));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(wire::pendingBytes(pair.client), 0);
}

TEST_F(HeaderFlowsTest, CloseToAGatewayThatHasGoneGivesLostConnectionWithTheErrno) {
  gateway->hangUp();
  ASSERT_TRUE(gateway->drain());
  int32_t reasons = 0;
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, &reasons), QVA_ERR_LOSTGWCON);
  EXPECT_TRUE(reasons == EPIPE || reasons == ECONNRESET) << "reasons=" << reasons;
}

TEST_F(HeaderFlowsTest, HandshakeToAGatewayThatHasGoneGivesLostConnectionWithTheErrno) {
  gateway->hangUp();
  ASSERT_TRUE(gateway->drain());
  int32_t reasons = 0;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_ERR_LOSTGWCON);
  EXPECT_TRUE(reasons == EPIPE || reasons == ECONNRESET) << "reasons=" << reasons;
}

TEST_F(HeaderFlowsTest, FlowsAcceptANullReasonsPointer) {
  gateway->expect(55).send(wire::reply(5, "BASE", {})).expect(33).send(wire::reply(10, "BASE", {}));
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, nullptr), QVA_OK);
  EXPECT_EQ(clapiFlowCloseRequest(pair.client, nullptr), QVA_OK);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
}

}  // namespace
