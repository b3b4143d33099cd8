// The emulator's wire and its fault modes, byte for byte: requests written
// out as literal bytes, replies compared against literal bytes.
#include "raw_client.h"

using namespace rawclient;
using qvaemu::Fault;

namespace {

using WireTest = EmulatorTest;
using FaultsTest = EmulatorTest;

const Bytes kHandshakeReply =
    hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 00000008  0002 656E 0002 4742");
const Bytes kException = message(6, "ECI", hex("00000001 00000001"));

// 100 bytes of COMMAREA, all printable so the vectors stay readable.
const std::string kCommarea =
    "The quick brown fox jumps over the lazy dog; "
    "pack my box with five dozen liquor jugs. 01234567890123";

// ECHO on QVADEMO, no user or password, no transaction id, COMMAREA of 100.
const Bytes kEchoRequest = cat({
    hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 000000C3"),
    hex("00000001 00000000 00000000 00000000 00 00000008"), ascii("QVADEMO "), fill(32, ' '), ascii("ECHO    "),
    fill(4, ' '), hex("00000000 00000064 00 00"), ascii(kCommarea),
    hex("00 0000 00 FFFFFFFF 00000000"),  // no channel, time-out, trailer flag, extension marker, trailer word
});
// Call type 1, LUW 0, spare 0, rc 0, abend 0, COMMAREA 100, length present, reply length 100.
const Bytes kEchoReply = cat({
    hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 00000083"),
    hex("00000001 00000000 00000000 00000000 00000000 00000064 FF 00 00000064"),
    ascii(kCommarea),
    hex("00"),
});

// CHECHO on QVADEMO with channel MYCHAN (CCSID 819) holding the CHAR container NAME = "abc".
const Bytes kChannelRequest = cat({
    hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 00000096"),
    hex("00000001 00000000 00000000 00000000 00 00000008"),
    ascii("QVADEMO "),
    fill(32, ' '),
    ascii("CHECHO  "),
    fill(4, ' '),
    hex("00000000 00000000 00 00"),  // no COMMAREA, no lengths
    hex("FF"),
    ascii("MYCHAN"),
    fill(10, 0),
    hex("00000333 00000001"),  // the channel block
    ascii("NAME"),
    fill(12, 0),
    hex("01 00 00 02 00000333 00000003"),
    ascii("abc"),
    hex("0000 00 FFFFFFFF 00000000"),
});
const Bytes kChannelReply = cat({
    hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 00000056"),
    hex("00000001 00000000 00000000 00000000 00000000 00000000 FF 00 00000000"),
    hex("FF"),
    ascii("MYCHAN"),
    fill(10, 0),
    hex("00000333 00000001"),  // the return flow
    ascii("NAME"),
    fill(12, 0),
    hex("03 00 00 02 00000333 00000003"),
    ascii("abc"),
});

// Name blank-padded to 8 plus a NUL, description blank-padded to 60 plus a NUL.
Bytes serverEntry(const std::string& name, const std::string& description) {
  return cat({field(name, 8), hex("00"), field(description, 60), hex("00")});
}
const Bytes kDemo = serverEntry("QVADEMO", "Emulated demonstration server");

TEST_F(WireTest, HandshakeArrivingOneByteAtATimeIsRecordedAndAnsweredExactly) {
  ASSERT_TRUE(c_.connect(gw_->port()));
  const Bytes hs = handshakeRequest();
  for (size_t i = 0; i < hs.size(); ++i) {
    ASSERT_TRUE(c_.send({hs[i]}));
    ASSERT_TRUE(gw_->waitForReceived(0, i + 1, kPatience));
  }
  EXPECT_EQ(readMessage(c_), kHandshakeReply);
  EXPECT_EQ(gw_->received(0), hs);
  EXPECT_EQ(gw_->connectionCount(), 1u);
  // The raw builders, which the benchmarks use too, must agree with the literal bytes.
  EXPECT_EQ(qvaraw::handshakeRequest(), hs);
  EXPECT_EQ(request(prog("ECHO", kCommarea)), kEchoRequest);
  EXPECT_EQ(echoReply(ascii(kCommarea)), kEchoReply);
  EXPECT_EQ(request({.program = "CHECHO",
                     .channelBlock = channel("MYCHAN", 819, {entry("NAME", kAdded, kChar, 819, ascii("abc"))})}),
            kChannelRequest);
}

TEST_F(WireTest, Ipv6LoopbackIsServedOnTheSamePort) {
  if (!c_.connect(gw_->port(), "::1")) GTEST_SKIP() << "no IPv6 loopback here";
  ASSERT_TRUE(c_.send(handshakeRequest()));
  EXPECT_EQ(readMessage(c_), kHandshakeReply);
}

TEST_F(WireTest, ServerListsAreExact) {
  struct Case {
    qvaemu::Options options;
    int32_t capacity;
    Bytes body;
  };
  const Case cases[] = {
      {{.servers = {{"QVADEMO", "Demo server"}, {"SYS2", "Second system"}}},
       5,
       cat({hex("00000009 00000002 00000000 0000008C"), serverEntry("QVADEMO", "Demo server"),
            serverEntry("SYS2", "Second system")})},
      // Capacity entries, all counted: more systems than room (-25).
      {{}, 1, cat({hex("00000009 00000002 FFFFFFE7 00000046"), kDemo})},
      {{}, 0, hex("00000009 00000002 FFFFFFE7 00000000")},
      {{.useDefaultServers = false}, 4, hex("00000009 00000000 FFFFFFE6 00000000")},  // no servers: -26
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.capacity);
    start(k.options);
    EXPECT_EQ(exchange(listRequest(k.capacity)), message(1, "ECI", k.body));
  }
}

TEST_F(WireTest, CommitCarriesNoCommareaEitherWay) {
  Call c = prog("ECHO", kCommarea);
  c.extendMode = 1;
  c.luwToken = run(c).luwToken;
  ASSERT_NE(c.luwToken, 0);
  c.extendMode = 2;
  const Bytes req = request(c);
  ASSERT_EQ(req.size(), 32u + 95u);  // commareaLength is sent, its bytes are not
  ASSERT_TRUE(c_.send(req));
  // The unit has ended (LUW 0); COMMAREA length 100, reply length 0, no channel.
  EXPECT_EQ(bodyOf(readMessage(c_)), hex("00000001 00000000 00000000 00000000 00000000 00000064 FF 00 00000000 00"));
}

// How long a test listens for a reply that must not come.
constexpr auto kSilence = 200ms;

TEST_F(FaultsTest, NeverAnswerReadsTheRequestAndStaysSilentUntilDropped) {
  gw_->setFault({.fault = Fault::NeverAnswer, .afterMessages = 1});
  const Bytes req = request(prog("ECHO", "hello"));
  ASSERT_TRUE(open(c_, gw_->port()));
  ASSERT_TRUE(c_.send(req));
  ASSERT_TRUE(gw_->waitForReceived(0, 55 + req.size(), kPatience));
  EXPECT_EQ(waitReadable(c_.fd, kSilence), Readable::Timeout);
  gw_->dropConnections();
  EXPECT_TRUE(c_.eofWithin());
  EXPECT_FALSE(gw_->waitForClosed(0, 0ms));  // the server closed it, not the peer
}

// Each connection, past its handshake, gets exactly these replies to these
// requests; one that ends does so after its last reply, and the calls after
// a fault or an error show the connection still in step.
TEST_F(WireTest, EachExchangeIsExactWithOrWithoutAFault) {
  const Bytes half = echoReply(ascii("half of this goes"));
  const Bytes closeReply = hex("47617465 10800000 0000000A 00000000 00000000 00000004 42415345 00 00000000");
  const Bytes fine = request(prog("ECHO", "fine")), x = request(prog("ECHO", "x")), xReply = echoReply(ascii("x"));
  const Bytes abc = ascii("abc");
  Bytes longer = request(Call{});
  longer.push_back(0x00);  // one byte more than the fields account for
  longer[31] = static_cast<uint8_t>(longer[31] + 1);
  const auto bad = [&](const Bytes& block) { return request({.channelBlock = channel("CH", 819, {block})}); };
  struct Case {
    qvaemu::FaultPlan plan;
    std::vector<Bytes> requests, replies;
    bool closes = false;
  };
  const Case cases[] = {
      {{}, {kEchoRequest, kChannelRequest}, {kEchoReply, kChannelReply}},
      {{}, {closeRequest()}, {closeReply}, true},
      // An unknown call type is answered with the call type only.
      {{},
       {message(1, "ECI", hex("00000007 0000 00 FFFFFFFF 00000000")), x},
       {message(1, "ECI", hex("00000007")), xReply}},
      // Malformed bodies get an exception.
      {{}, {longer, x}, {kException, xReply}},
      {{}, {bad(entry("NAME", kModified, kChar, 819, abc)), x}, {kException, xReply}},  // not ADDED
      {{}, {bad(cat({name16("NAME"), hex("01 00 07 02 00000333 00000003"), abc})), x}, {kException, xReply}},  // spare
      {{}, {bad(entry("NAME", kAdded, kChar, 819, 9, abc)), x}, {kException, xReply}},  // less data than its length
      {{},
       {request({.channelBlock = channel("CH", 819, {entry("NAME", kAdded, kChar, 819, abc)}, 2)}), x},
       {kException, xReply}},                                                                  // more entries than sent
      {{}, {request({.channelBlock = channel("CH", 819, {}, -1)}), x}, {kException, xReply}},  // a negative count
      // A header out of step ends the connection; the largest body taken is 257 MiB.
      {{}, {cat({ascii("X"), slice(handshakeRequest(), 1, 54)})}, {{}}, true},
      {{}, {header(1, "ECI", (257u << 20) + 1)}, {{}}, true},
      {{.fault = Fault::CloseBeforeAnswer, .afterMessages = 1}, {fine}, {{}}, true},
      {{.fault = Fault::CloseMidReply, .afterMessages = 1},
       {request(prog("ECHO", "half of this goes"))},
       {slice(half, 0, 32 + (half.size() - 32) / 2)},
       true},
      {{.fault = Fault::CloseMidReply, .afterMessages = 1}, {closeRequest()}, {slice(closeReply, 0, 33 / 2)}, true},
      // A bad magic and a name two bytes longer than the request's.
      {{.fault = Fault::MalformedHeader, .afterMessages = 1},
       {x},
       {cat({hex("42414421 10800000 00000001 00000000 00000000 00000005"), ascii("XXXXX"), hex("00 00000000")})},
       true},
      // 0x7FFFFFF0 bytes announced, the real body's first eight sent.
      {{.fault = Fault::HugeDataLength, .afterMessages = 1},
       {x},
       {cat({header(1, "ECI", 0x7FFFFFF0), hex("00000001 00000000")})},
       true},
      // The handshake and one call go through.
      {{.fault = Fault::ExceptionFlow, .afterMessages = 2, .messages = 1},
       {fine, x, fine},
       {echoReply(ascii("fine")), message(6, "ECI", hex("00000001 00000004")), echoReply(ascii("fine"))}},
      // The handshake is not an ECI reply: untouched.
      {{.fault = Fault::OversizeCommarea, .messages = 1, .extraBytes = 40},
       {request(prog("ECHO", "0123456789")), x},
       {echoReply(cat({ascii("0123456789"), fill(40, 0xEE)})), xReply}},
      // Capacity 1, and 100 bytes more make two more entries.
      {{.fault = Fault::OversizeServerList, .afterMessages = 1, .messages = 1, .extraBytes = 100},
       {listRequest(1), x},
       {message(1, "ECI",
                cat({hex("00000009 00000003 00000000 000000D2"), kDemo, serverEntry("QVATEST", "Emulated test server"),
                     serverEntry("EXTRA002", "Entry beyond the caller's capacity")})),
        xReply}},
  };
  for (size_t n = 0; n < std::size(cases); ++n) {
    const Case& k = cases[n];
    SCOPED_TRACE(std::to_string(n) + " " + qvaemu::faultName(k.plan.fault));
    gw_->setFault(k.plan);
    ASSERT_TRUE(open(c_, gw_->port()));
    Bytes sent = handshakeRequest();
    for (size_t i = 0; i < k.requests.size(); ++i) {
      sent.insert(sent.end(), k.requests[i].begin(), k.requests[i].end());
      ASSERT_TRUE(c_.send(k.requests[i]));
      EXPECT_EQ(k.closes && i + 1 == k.requests.size() ? recvToEnd(c_.fd) : readMessage(c_), k.replies[i]) << i;
    }
    EXPECT_EQ(waitReadable(c_.fd, 0ms), k.closes ? Readable::Eof : Readable::Timeout);
    EXPECT_TRUE((k.closes && k.plan.fault == Fault::None) || gw_->received(n) == sent);  // recorded whole
    c_.close();
    EXPECT_TRUE(gw_->waitForClosed(n, kPatience));
  }
}

TEST_F(FaultsTest, TrickleDeliversTheExactReplyInSmallPieces) {
  gw_->setFault({.fault = Fault::Trickle, .afterMessages = 1});
  const Bytes req = request(prog("ECHO", std::string(120, 'T'))), full = echoReply(ascii(std::string(120, 'T')));
  ASSERT_TRUE(open(c_, gw_->port()));
  ASSERT_TRUE(c_.send(req));
  Bytes got;
  size_t pieces = 0;
  for (; got.size() < full.size(); ++pieces) {
    const Bytes piece = recvExactly(c_.fd, 1);
    ASSERT_EQ(piece.size(), 1u);
    got.insert(got.end(), piece.begin(), piece.end());
    const Bytes more = drainNow(c_.fd);
    got.insert(got.end(), more.begin(), more.end());
  }
  EXPECT_EQ(got, full);
  EXPECT_GT(pieces, 4u);      // pieces of at most three bytes, some coalesced by the kernel
  ASSERT_TRUE(c_.send(req));  // the next reply trickles as well, and is correct
  EXPECT_EQ(readMessage(c_), full);
}

// The return-flow faults: what follows the channel-present byte, against flows
// built here. Each hits only the second call; the calls around it are normal,
// so each bent message was read whole by its dataLength.
TEST_F(FaultsTest, ReturnFlowFaultsSendTheFlowTheySay) {
  const Bytes greeting = entry("GREETING", kAdded, kChar, 819, ascii("hello"));
  const Bytes blob = entry("BLOB", kAdded, kBit, 0, hex("0001FF"));
  const Bytes greetingSame = entry("GREETING", kUnchanged, kChar, 819, 5);
  struct Case {
    Fault fault;
    const char* program;
    std::vector<Bytes> in;
    Bytes flow;  // none: the reply ends at channel-present byte 0
    uint32_t extra = 64;
    bool withChannel = true;  // false: a COMMAREA call
  };
  const Case cases[] = {
      {Fault::ChannelLyingLength,
       "CHNOOP",
       {greeting, blob},
       channel("CH", 37, {entry("GREETING", kModified, kChar, 819, 5 + 64, ascii("hello"))})},
      {Fault::ChannelLyingLength,
       "CHNOOP",
       {},
       channel("CH", 37, {entry("FAULT", kAdded, kChar, 37, 8, ascii("FAULT"))}),
       3},
      {Fault::ChannelUnknownState,
       "CHECHO",
       {greeting, blob},
       channel("CH", 37, {entry("GREETING", 9, kChar, 819, 5), entry("BLOB", kModified, kBit, 0, hex("0001FF"))})},
      {Fault::ChannelTruncated,
       "CHNOOP",
       {greeting, blob},
       cat({channel("CH", 37, {}, 2), ascii("GREETING"), fill(2, 0)})},  // 10 bytes of the first entry
      {Fault::ChannelDeleteUnknown,
       "CHNOOP",
       {greeting},
       channel("CH", 37, {entry("NOSUCHCONT", kDeleted, kChar, 37, 0), greetingSame})},
      {Fault::ChannelHugeCount, "CHECHO", {greeting, blob}, channel("CH", 37, {greetingSame}, 0x7FFFFFFF)},
      // Channel faults leave COMMAREA calls alone, and the other way round.
      {Fault::ChannelLyingLength, "ECHO", {}, {}, 64, false},
      {Fault::ChannelReturnOnCommarea,
       "ECHO",
       {},
       channel("QVARETURN", 819, {entry("RESULT", kAdded, kChar, 819, ascii("OK"))}),
       64,
       false},
      {Fault::ChannelReturnOnCommarea, "CHNOOP", {greeting}, channel("CH", 37, {greetingSame})},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(qvaemu::faultName(k.fault) + std::string(" ") + k.program);
    gw_->setFault({.fault = k.fault, .afterMessages = 2, .messages = 1, .extraBytes = k.extra});
    c_.close();
    const Call call{.program = k.program, .channelBlock = k.withChannel ? channel("CH", 37, k.in) : Bytes{}};
    const Bytes normal = run(call).flow;
    const ProgramReply bent = run(call);  // the whole message, by its dataLength
    EXPECT_EQ(bent.channelPresent, k.flow.empty() ? 0 : 0xFF);
    EXPECT_EQ(bent.flow, k.flow);
    EXPECT_EQ(run(call).flow, normal);
  }
}

TEST_F(FaultsTest, PlanHitsOnlyTheNextConnectionUnlessEveryConnection) {
  gw_->setFault({.fault = Fault::CloseBeforeAnswer});
  Client first, second;
  ASSERT_TRUE(first.connect(gw_->port()));
  ASSERT_TRUE(gw_->waitForConnections(1, kPatience));
  ASSERT_TRUE(open(second, gw_->port()));
  ASSERT_TRUE(first.send(handshakeRequest()));
  EXPECT_TRUE(first.eofWithin());
  gw_->setFault({.fault = Fault::CloseBeforeAnswer, .everyConnection = true});
  for (int i = 0; i < 2; ++i) {
    Client c;
    ASSERT_TRUE(c.connect(gw_->port()));
    ASSERT_TRUE(c.send(handshakeRequest()));
    EXPECT_TRUE(c.eofWithin());
  }
}

TEST(FaultNames, KebabCamelAndSnakeCaseNamesMapToTheSameMode) {
  for (const char* name : {"never-answer", "NeverAnswer", "never_answer"})
    EXPECT_EQ(qvaemu::faultFromName(name), Fault::NeverAnswer) << name;
  EXPECT_FALSE(qvaemu::faultFromName("sometimes-answer").has_value());
}

}  // namespace
