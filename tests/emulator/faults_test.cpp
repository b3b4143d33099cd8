// Each fault mode sends what it says, on the connection and message it says.
#include <gtest/gtest.h>

#include "qvaemu/gateway.h"
#include "raw_client.h"

using namespace rawclient;

namespace {

// How long a test listens for a reply that must not come.
constexpr auto kSilence = 200ms;

class FaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(gw_.start(&error)) << error;
  }
  // The fault hits the first ECI request: the handshake is message 0.
  void plan(qvaemu::Fault f, int after = 1, uint32_t extra = 64) {
    qvaemu::FaultPlan p;
    p.fault = f;
    p.afterMessages = after;
    p.extraBytes = extra;
    gw_.setFault(p);
  }
  static Call echo(const std::string& s) {
    Call c;
    c.commarea = ascii(s);
    return c;
  }
  // The reply the ECHO of `s` gets when nothing is bent.
  Bytes normalReply(const std::string& s) {
    qvaemu::Gateway clean;
    EXPECT_TRUE(clean.start());
    Client c;
    EXPECT_TRUE(open(c, clean.port()));
    EXPECT_TRUE(c.send(request(echo(s))));
    Message m;
    EXPECT_TRUE(readMessage(c, m));
    return m.raw();
  }
  qvaemu::Gateway gw_;
  Client c_;
};

TEST_F(FaultsTest, NeverAnswerReadsTheRequestAndStaysSilentUntilDropped) {
  plan(qvaemu::Fault::NeverAnswer);
  ASSERT_TRUE(open(c_, gw_.port()));
  const Bytes req = request(echo("hello"));
  ASSERT_TRUE(c_.send(req));
  ASSERT_TRUE(gw_.waitForReceived(0, 55 + req.size(), kPatience));
  EXPECT_EQ(c_.wait(kSilence), Readable::Timeout);
  gw_.dropConnections();
  EXPECT_TRUE(c_.eofWithin());
  EXPECT_FALSE(gw_.waitForClosed(0, 0ms));  // the server closed it, not the peer
}

TEST_F(FaultsTest, CloseBeforeAnswerGivesEofAfterTheWholeRequest) {
  plan(qvaemu::Fault::CloseBeforeAnswer);
  ASSERT_TRUE(open(c_, gw_.port()));
  const Bytes req = request(echo("hello"));
  ASSERT_TRUE(c_.send(req));
  EXPECT_TRUE(c_.eofWithin());
  EXPECT_EQ(gw_.received(0).size(), 55 + req.size());
  c_.close();
  EXPECT_TRUE(gw_.waitForClosed(0, kPatience));
}

TEST_F(FaultsTest, CloseMidReplySendsTheHeaderAndHalfTheBody) {
  const Bytes full = normalReply("half of this goes");
  plan(qvaemu::Fault::CloseMidReply);
  ASSERT_TRUE(open(c_, gw_.port()));
  ASSERT_TRUE(c_.send(request(echo("half of this goes"))));
  const Bytes got = c_.readToEnd();
  EXPECT_TRUE(c_.eofWithin(0ms));
  const size_t body = full.size() - 32;
  ASSERT_EQ(got.size(), 32 + body / 2);
  EXPECT_EQ(got, Bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(got.size())));
}

TEST_F(FaultsTest, CloseMidReplyOnAnEmptyBodySendsHalfTheHeader) {
  plan(qvaemu::Fault::CloseMidReply);
  ASSERT_TRUE(open(c_, gw_.port()));
  ASSERT_TRUE(c_.send(closeRequest()));
  EXPECT_EQ(c_.readToEnd().size(), 33u / 2);
}

TEST_F(FaultsTest, TrickleDeliversTheExactReplyInSmallPieces) {
  const std::string text(120, 'T');
  const Bytes full = normalReply(text);
  plan(qvaemu::Fault::Trickle);
  ASSERT_TRUE(open(c_, gw_.port()));
  ASSERT_TRUE(c_.send(request(echo(text))));
  Bytes got;
  size_t pieces = 0;
  while (got.size() < full.size()) {
    ASSERT_EQ(c_.wait(kPatience), Readable::Data);
    const size_t before = got.size();
    uint8_t buf[64];
    const ssize_t n = ::recv(c_.fd(), buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    got.insert(got.end(), buf, buf + n);
    ASSERT_GT(got.size(), before);
    ++pieces;
  }
  EXPECT_EQ(got, full);
  // Pieces of at most three bytes, some of them coalesced by the kernel.
  EXPECT_GT(pieces, 4u);
  // The connection carries on: the next reply trickles as well, and is correct.
  ASSERT_TRUE(c_.send(request(echo(text))));
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.raw(), full);
}

TEST_F(FaultsTest, MalformedHeaderHasABadMagicAndALongerNameThenEof) {
  plan(qvaemu::Fault::MalformedHeader);
  ASSERT_TRUE(open(c_, gw_.port()));
  ASSERT_TRUE(c_.send(request(echo("x"))));
  const Bytes got = c_.readToEnd();
  ASSERT_EQ(got.size(), 29u + 5u);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 4), ascii("BAD!"));
  EXPECT_EQ(be32(got, 20), 5u);  // the request's name was 3 long
  EXPECT_TRUE(c_.eofWithin(0ms));
}

TEST_F(FaultsTest, HugeDataLengthAnnouncesTooMuchSendsAFewBytesThenEof) {
  plan(qvaemu::Fault::HugeDataLength);
  ASSERT_TRUE(open(c_, gw_.port()));
  ASSERT_TRUE(c_.send(request(echo("x"))));
  const Bytes got = c_.readToEnd();
  ASSERT_EQ(got.size(), 32u + 8u);
  EXPECT_EQ(be32(got, 0), 0x47617465u);
  EXPECT_EQ(be32(got, 28), 0x7FFFFFF0u);
  EXPECT_EQ(Bytes(got.begin() + 32, got.begin() + 36), (Bytes{0, 0, 0, 1}));  // the real body's start
}

TEST_F(FaultsTest, ExceptionFlowAnswersWithFlowType6AndKeepsTheConnection) {
  plan(qvaemu::Fault::ExceptionFlow, 2);  // the handshake and one call go through
  ASSERT_TRUE(open(c_, gw_.port()));
  ProgramReply r;
  ASSERT_TRUE(call(c_, echo("fine"), r));
  ASSERT_TRUE(c_.send(request(echo("not fine"))));
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.flowType, 6);
  EXPECT_EQ(m.name, "ECI");
  EXPECT_EQ(m.body, (Bytes{0, 0, 0, 1, 0, 0, 0, 4}));
  EXPECT_EQ(c_.wait(0ms), Readable::Timeout);  // still open
}

TEST_F(FaultsTest, OversizeCommareaAnnouncesAndSendsExtraBytes) {
  plan(qvaemu::Fault::OversizeCommarea, 0, 40);  // the handshake is not an ECI reply: untouched
  ASSERT_TRUE(open(c_, gw_.port()));
  ProgramReply r;
  ASSERT_TRUE(call(c_, echo("0123456789"), r));
  EXPECT_EQ(r.commareaLength, 50);
  EXPECT_EQ(r.replyDataLength, 50);
  EXPECT_EQ(r.data, cat({ascii("0123456789"), Bytes(40, 0xEE)}));
}

TEST_F(FaultsTest, OversizeServerListSendsMoreEntriesThanTheCapacity) {
  plan(qvaemu::Fault::OversizeServerList, 1, 100);
  ASSERT_TRUE(open(c_, gw_.port()));
  ASSERT_TRUE(c_.send(listRequest(1)));
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  // Capacity 1, and 100 bytes more make two more entries.
  EXPECT_EQ(sbe32(m.body, 4), 3);
  EXPECT_EQ(sbe32(m.body, 8), 0);
  EXPECT_EQ(sbe32(m.body, 12), 210);
  EXPECT_EQ(m.body.size(), 16u + 210u);
}

// The return-flow faults: what follows the channel-present byte, against flows
// built here. Each hits only the second call; the calls around it are normal,
// so each bent message was read whole by its dataLength.
TEST_F(FaultsTest, ReturnFlowFaultsSendTheFlowTheySay) {
  using qvaemu::Fault;
  const Bytes greeting = entry("GREETING", kAdded, kChar, 819, ascii("hello"));
  const Bytes blob = entry("BLOB", kAdded, kBit, 0, hex("0001FF"));
  struct Case {
    Fault fault;
    const char* program;
    std::vector<Bytes> in;
    Bytes flow;  // none: the reply ends at channel-present byte 0
    uint32_t extra = 64;
    bool withChannel = true;  // false: a COMMAREA call
  };
  const Case cases[] = {
      {Fault::ChannelLyingLength, "CHNOOP", {greeting, blob},
       channel("CH", 37, {entry("GREETING", kModified, kChar, 819, 5 + 64, ascii("hello"))})},
      {Fault::ChannelLyingLength, "CHNOOP", {},
       channel("CH", 37, {entry("FAULT", kAdded, kChar, 37, 8, ascii("FAULT"))}), 3},
      {Fault::ChannelUnknownState, "CHECHO", {greeting, blob},
       channel("CH", 37, {entry("GREETING", 9, kChar, 819, 5), entry("BLOB", kModified, kBit, 0, hex("0001FF"))})},
      {Fault::ChannelTruncated, "CHNOOP", {greeting, blob},
       cat({channel("CH", 37, {}, 2), ascii("GREETING"), fill(2, 0)})},  // 10 bytes of the first entry
      {Fault::ChannelDeleteUnknown, "CHNOOP", {greeting},
       channel("CH", 37, {entry("NOSUCHCONT", kDeleted, kChar, 37, 0), entry("GREETING", kUnchanged, kChar, 819, 5)})},
      {Fault::ChannelHugeCount, "CHECHO", {greeting, blob},
       channel("CH", 37, {entry("GREETING", kUnchanged, kChar, 819, 5)}, 0x7FFFFFFF)},
      // Channel faults leave COMMAREA calls alone, and the other way round.
      {Fault::ChannelLyingLength, "ECHO", {}, {}, 64, false},
      {Fault::ChannelReturnOnCommarea, "ECHO", {},
       channel("QVARETURN", 819, {entry("RESULT", kAdded, kChar, 819, ascii("OK"))}), 64, false},
      {Fault::ChannelReturnOnCommarea, "CHNOOP", {greeting},
       channel("CH", 37, {entry("GREETING", kUnchanged, kChar, 819, 5)})},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(qvaemu::faultName(k.fault) + std::string(" ") + k.program);
    qvaemu::FaultPlan p;
    p.fault = k.fault;
    p.afterMessages = 2;
    p.messages = 1;
    p.extraBytes = k.extra;
    gw_.setFault(p);
    Client c;
    ASSERT_TRUE(open(c, gw_.port()));
    Call call;
    call.program = k.program;
    if (k.withChannel) call.channelBlock = channel("CH", 37, k.in);
    Bytes normal, bent, after;
    ProgramReply r;
    ASSERT_TRUE(rawclient::call(c, call, r, &normal));
    ASSERT_TRUE(rawclient::call(c, call, r, &bent));  // the whole message, by its dataLength
    EXPECT_EQ(r.channelPresent, k.flow.empty() ? 0 : 0xFF);
    EXPECT_EQ(bent, k.flow);
    ASSERT_TRUE(rawclient::call(c, call, r, &after));
    EXPECT_EQ(after, normal);
  }
}

TEST_F(FaultsTest, PlanHitsOnlyTheNextConnectionUnlessEveryConnection) {
  plan(qvaemu::Fault::CloseBeforeAnswer, 0);
  Client first, second;
  ASSERT_TRUE(first.connect(gw_.port()));
  ASSERT_TRUE(gw_.waitForConnections(1, kPatience));
  ASSERT_TRUE(second.connect(gw_.port()));
  ASSERT_TRUE(first.send(handshake()));
  EXPECT_TRUE(first.eofWithin());
  Message m;
  ASSERT_TRUE(second.send(handshake()));
  EXPECT_TRUE(readMessage(second, m));

  qvaemu::FaultPlan every;
  every.fault = qvaemu::Fault::CloseBeforeAnswer;
  every.everyConnection = true;
  gw_.setFault(every);
  for (int i = 0; i < 2; ++i) {
    Client c;
    ASSERT_TRUE(c.connect(gw_.port()));
    ASSERT_TRUE(c.send(handshake()));
    EXPECT_TRUE(c.eofWithin());
  }
}

TEST(FaultNames, KebabAndCamelCaseNamesMapToTheSameMode) {
  EXPECT_EQ(qvaemu::faultFromName("never-answer"), qvaemu::Fault::NeverAnswer);
  EXPECT_EQ(qvaemu::faultFromName("NeverAnswer"), qvaemu::Fault::NeverAnswer);
  EXPECT_EQ(qvaemu::faultFromName("channel_return_on_commarea"), qvaemu::Fault::ChannelReturnOnCommarea);
  EXPECT_EQ(qvaemu::faultFromName("ChannelHugeCount"), qvaemu::Fault::ChannelHugeCount);
  EXPECT_FALSE(qvaemu::faultFromName("sometimes-answer").has_value());
  EXPECT_STREQ(qvaemu::faultName(qvaemu::Fault::OversizeServerList), "oversize-server-list");
}

}  // namespace
