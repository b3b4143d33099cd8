// The emulator's wire, byte for byte: requests written out as literal bytes,
// replies compared against literal bytes.
#include <gtest/gtest.h>

#include "qvaemu/gateway.h"
#include "raw_client.h"

using namespace rawclient;

namespace {

const Bytes kHandshakeReply =
    hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 00000008  0002 656E 0002 4742");

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
    hex("00000001 00000000 00000000 00000000 00000000 00000064 FF 00 00000064"), ascii(kCommarea), hex("00"),
});

// Name blank-padded to 8 plus a NUL, description blank-padded to 60 plus a NUL.
Bytes serverEntry(const std::string& name, const std::string& description) {
  std::string n = name, d = description;
  n.resize(8, ' ');
  d.resize(60, ' ');
  return cat({ascii(n), hex("00"), ascii(d), hex("00")});
}

class WireTest : public ::testing::Test {
 protected:
  void SetUp() override { start({}); }
  void start(qvaemu::Options o) {
    gw_ = std::make_unique<qvaemu::Gateway>(std::move(o));
    std::string error;
    ASSERT_TRUE(gw_->start(&error)) << error;
  }
  // A fresh connection past the handshake, then one request and its reply.
  Message exchange(const Bytes& req) {
    Message m;
    EXPECT_TRUE(open(c_, gw_->port()));
    EXPECT_TRUE(c_.send(req));
    EXPECT_TRUE(readMessage(c_, m));
    return m;
  }
  std::unique_ptr<qvaemu::Gateway> gw_;
  Client c_;
};

TEST_F(WireTest, HandshakeReplyIsExactAndTheRequestIsRecordedWhole) {
  ASSERT_TRUE(c_.connect(gw_->port()));
  ASSERT_TRUE(c_.send(handshakeRequest()));
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.raw(), kHandshakeReply);
  EXPECT_EQ(gw_->received(0), handshakeRequest());
  EXPECT_EQ(gw_->connectionCount(), 1u);
}

TEST_F(WireTest, HandshakeArrivingOneByteAtATimeIsAnswered) {
  ASSERT_TRUE(c_.connect(gw_->port()));
  const Bytes hs = handshakeRequest();
  for (size_t i = 0; i < hs.size(); ++i) {
    ASSERT_TRUE(c_.send({hs[i]}));
    ASSERT_TRUE(gw_->waitForReceived(0, i + 1, kPatience));
  }
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.raw(), kHandshakeReply);
}

TEST_F(WireTest, CloseIsAnsweredWithAnEmptyBodyThenTheConnectionEnds) {
  ASSERT_TRUE(c_.connect(gw_->port()));
  ASSERT_TRUE(c_.send(cat({handshakeRequest(), closeRequest()})));
  Message hs, m;
  ASSERT_TRUE(readMessage(c_, hs));
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.raw(), hex("47617465 10800000 0000000A 00000000 00000000 00000004 42415345 00 00000000"));
  EXPECT_TRUE(c_.eofWithin());
  EXPECT_EQ(gw_->received(0), cat({handshakeRequest(), closeRequest()}));
  c_.close();
  EXPECT_TRUE(gw_->waitForClosed(0, kPatience));
}

TEST_F(WireTest, EchoCallRequestAndReplyAreExact) {
  // The tests' own request builder must agree with the literal bytes.
  Call call;
  call.commarea = ascii(kCommarea);
  ASSERT_EQ(request(call), kEchoRequest);
  EXPECT_EQ(exchange(kEchoRequest).raw(), kEchoReply);
  EXPECT_EQ(gw_->received(0), cat({handshakeRequest(), kEchoRequest}));
}

TEST_F(WireTest, ServerListEntriesAreExact) {
  gw_.reset();
  qvaemu::Options o;
  o.servers = {{"QVADEMO", "Demo server"}, {"SYS2", "Second system"}};
  start(o);
  const Message m = exchange(hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 00000013"
                                 "00000009 00000005 0000 00 FFFFFFFF 00000000"));
  EXPECT_EQ(m.raw(), cat({hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 0000009C"),
                          hex("00000009 00000002 00000000 0000008C"), serverEntry("QVADEMO", "Demo server"),
                          serverEntry("SYS2", "Second system")}));
}

TEST_F(WireTest, ServerListBeyondCapacitySendsCapacityEntriesAndCountsAll) {
  Message m = exchange(listRequest(1));
  // The default list holds two servers: more systems than room (-25).
  EXPECT_EQ(m.body, cat({hex("00000009 00000002 FFFFFFE7 00000046"),
                         serverEntry("QVADEMO", "Emulated demonstration server")}));
  ASSERT_TRUE(c_.send(listRequest(0)));
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.body, hex("00000009 00000002 FFFFFFE7 00000000"));
}

TEST_F(WireTest, ServerListWithoutServersIsRcMinus26) {
  gw_.reset();
  qvaemu::Options o;
  o.useDefaultServers = false;
  start(o);
  EXPECT_EQ(exchange(listRequest(4)).body, hex("00000009 00000000 FFFFFFE6 00000000"));
}

TEST_F(WireTest, CommitCarriesNoCommareaEitherWay) {
  ASSERT_TRUE(open(c_, gw_->port()));
  Call begin;
  begin.extendMode = 1;
  begin.commarea = ascii(kCommarea);
  ProgramReply r;
  ASSERT_TRUE(call(c_, begin, r));
  ASSERT_NE(r.luwToken, 0);

  Call commit = begin;
  commit.extendMode = 2;
  commit.luwToken = r.luwToken;
  const Bytes req = request(commit);
  ASSERT_EQ(req.size(), 32u + 95u);  // commareaLength is sent, its bytes are not
  ASSERT_TRUE(c_.send(req));
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  // The unit has ended (LUW 0); COMMAREA length 100, reply length 0, no channel.
  EXPECT_EQ(m.body, hex("00000001 00000000 00000000 00000000 00000000 00000064 FF 00 00000000 00"));
}

TEST_F(WireTest, UnknownCallTypeIsAnsweredWithTheCallTypeOnly) {
  const Message m = exchange(hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 0000000F"
                                 "00000007 0000 00 FFFFFFFF 00000000"));
  EXPECT_EQ(m.raw(), message(1, "ECI", hex("00000007")));
}

// CHECHO on QVADEMO with channel MYCHAN (CCSID 819) holding the CHAR container NAME = "abc".
const Bytes kChannelRequest = cat({
    hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 00000096"),
    hex("00000001 00000000 00000000 00000000 00 00000008"), ascii("QVADEMO "), fill(32, ' '), ascii("CHECHO  "),
    fill(4, ' '), hex("00000000 00000000 00 00"),  // no COMMAREA, no lengths
    hex("FF"), ascii("MYCHAN"), fill(10, 0), hex("00000333 00000001"),  // the channel block
    ascii("NAME"), fill(12, 0), hex("01 00 00 02 00000333 00000003"), ascii("abc"),
    hex("0000 00 FFFFFFFF 00000000"),
});
const Bytes kChannelReply = cat({
    hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 00000056"),
    hex("00000001 00000000 00000000 00000000 00000000 00000000 FF 00 00000000"),
    hex("FF"), ascii("MYCHAN"), fill(10, 0), hex("00000333 00000001"),  // the return flow
    ascii("NAME"), fill(12, 0), hex("03 00 00 02 00000333 00000003"), ascii("abc"),
});

TEST_F(WireTest, ChannelCallRequestAndReplyAreExact) {
  Call call;
  call.program = "CHECHO";
  call.channelBlock = channel("MYCHAN", 819, {entry("NAME", kAdded, kChar, 819, ascii("abc"))});
  ASSERT_EQ(request(call), kChannelRequest);
  EXPECT_EQ(exchange(kChannelRequest).raw(), kChannelReply);
}

TEST_F(WireTest, MalformedChannelBlockGetsAnExceptionAndTheConnectionStaysInStep) {
  const Bytes abc = ascii("abc");
  const Bytes spare = cat({name16("NAME"), hex("01 00 07 02 00000333 00000003"), abc});
  for (const Bytes& block : {
           channel("CH", 819, {entry("NAME", kModified, kChar, 819, abc)}),     // not ADDED
           channel("CH", 819, {spare}),                                        // a spare byte not zero
           channel("CH", 819, {entry("NAME", kAdded, kChar, 819, 9, abc)}),     // less data than its length
           channel("CH", 819, {entry("NAME", kAdded, kChar, 819, abc)}, 2),     // more entries than sent
           channel("CH", 819, {}, -1),                                         // a negative count
       }) {
    Call ch;
    ch.channelBlock = block;
    EXPECT_EQ(exchange(request(ch)).raw(), message(6, "ECI", hex("00000001 00000001")));
    Call echo;
    echo.commarea = ascii("still in step");
    ProgramReply r;
    ASSERT_TRUE(call(c_, echo, r));
    EXPECT_EQ(r.data, echo.commarea);
  }
}

TEST_F(WireTest, MalformedBodyGetsAnException) {
  Bytes req = request(Call{});
  req.push_back(0x00);  // one byte more than the fields account for
  req[31] = static_cast<uint8_t>(req[31] + 1);
  EXPECT_EQ(exchange(req).raw(), message(6, "ECI", hex("00000001 00000001")));
}

TEST_F(WireTest, HeaderOutOfStepClosesTheConnection) {
  Bytes badMagic = handshakeRequest();
  badMagic[0] = 'X';
  // The largest body taken is 257 MiB: a 256 MiB container and what goes around it.
  for (const Bytes& bad : {badMagic, header(1, "ECI", (257u << 20) + 1)}) {
    ASSERT_TRUE(c_.connect(gw_->port()));
    ASSERT_TRUE(c_.send(bad));
    EXPECT_TRUE(c_.eofWithin());
  }
}

TEST_F(WireTest, Ipv6LoopbackIsServedOnTheSamePort) {
  if (!c_.connect(gw_->port(), "::1")) GTEST_SKIP() << "no IPv6 loopback here";
  ASSERT_TRUE(c_.send(handshakeRequest()));
  Message m;
  ASSERT_TRUE(readMessage(c_, m));
  EXPECT_EQ(m.raw(), kHandshakeReply);
}

}  // namespace
