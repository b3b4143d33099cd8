// The emulator's wire, byte for byte: requests written out as literal bytes,
// replies compared against literal bytes.
#include <gtest/gtest.h>

#include "qvaemu/gateway.h"
#include "raw_client.h"

using namespace rawclient;

namespace {

const Bytes kHandshake = {
    0x47, 0x61, 0x74, 0x65,  // "Gate"
    0x10, 0x80, 0x00, 0x00,  // version
    0x00, 0x00, 0x00, 0x05,  // flow type 5
    0x00, 0x00, 0x00, 0x00,  // flowReserved
    0x00, 0x00, 0x00, 0x00,  // flowQualifier
    0x00, 0x00, 0x00, 0x04,  // name length
    0x42, 0x41, 0x53, 0x45,  // "BASE"
    0x00,                    // headerFlag
    0x00, 0x00, 0x00, 0x16,  // dataLength 22
    0x00, 0x02, 0x65, 0x6E, 0x00, 0x02, 0x47, 0x42,  // "en", "GB"
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
};

const Bytes kHandshakeReply = {
    0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x42, 0x41, 0x53, 0x45, 0x00, 0x00, 0x00, 0x00,
    0x08, 0x00, 0x02, 0x65, 0x6E, 0x00, 0x02, 0x47, 0x42,
};

const Bytes kClose = {
    0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00,
    0xFF, 0xFF, 0xFF, 0xFF,  // flowQualifier -1
    0x00, 0x00, 0x00, 0x04, 0x42, 0x41, 0x53, 0x45, 0x00, 0x00, 0x00, 0x00, 0x00,
};

// 100 bytes of COMMAREA, all printable so the vectors stay readable.
const std::string kCommarea =
    "The quick brown fox jumps over the lazy dog; "
    "pack my box with five dozen liquor jugs. 01234567890123";

const Bytes kEciHeader = {
    0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x01,  // flow type 1
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x03, 0x45, 0x43, 0x49,  // "ECI"
    0x00,
    0x00, 0x00, 0x00, 0xC3,  // dataLength 195
};

const Bytes kEciBodyBeforeCommarea = {
    0x00, 0x00, 0x00, 0x01,  // callType 1
    0x00, 0x00, 0x00, 0x00,  // extendMode 0
    0x00, 0x00, 0x00, 0x00,  // luwToken
    0x00, 0x00, 0x00, 0x00,  // spareInt
    0x00,                    // spareByte
    0x00, 0x00, 0x00, 0x08,  // server name length
    0x51, 0x56, 0x41, 0x44, 0x45, 0x4D, 0x4F, 0x20,  // "QVADEMO "
    0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20,  // userId
    0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20,  // password
    0x45, 0x43, 0x48, 0x4F, 0x20, 0x20, 0x20, 0x20,  // "ECHO    "
    0x20, 0x20, 0x20, 0x20,  // transId
    0x00, 0x00, 0x00, 0x00,  // extraDataLength
    0x00, 0x00, 0x00, 0x64,  // commareaLength 100
    0x00,                    // no requestDataLength
    0x00,                    // no replyDataLength
};

const Bytes kEciBodyAfterCommarea = {
    0x00,                    // no channel
    0x00, 0x00,              // timeout
    0x00,                    // trailerFlag
    0xFF, 0xFF, 0xFF, 0xFF,  // extensionMarker -1
    0x00, 0x00, 0x00, 0x00,  // trailerWord
};

const Bytes kEciReplyHeader = {
    0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x45, 0x43, 0x49, 0x00,
    0x00, 0x00, 0x00, 0x83,  // dataLength 131
};

const Bytes kEciReplyBeforeCommarea = {
    0x00, 0x00, 0x00, 0x01,  // callType
    0x00, 0x00, 0x00, 0x00,  // luwToken
    0x00, 0x00, 0x00, 0x00,  // spareInt
    0x00, 0x00, 0x00, 0x00,  // replyRc
    0x00, 0x00, 0x00, 0x00,  // abendCode
    0x00, 0x00, 0x00, 0x64,  // commareaLength 100
    0xFF,                    // length present
    0x00,                    // ignored byte
    0x00, 0x00, 0x00, 0x64,  // replyDataLength 100
};

const Bytes kServerListRequest = {
    0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x45, 0x43, 0x49, 0x00,
    0x00, 0x00, 0x00, 0x13,  // dataLength 19
    0x00, 0x00, 0x00, 0x09,  // callType 9
    0x00, 0x00, 0x00, 0x05,  // systemCount: room for 5
    0x00, 0x00,              // timeout
    0x00,                    // trailerFlag
    0xFF, 0xFF, 0xFF, 0xFF,  // extensionMarker
    0x00, 0x00, 0x00, 0x00,  // trailerWord
};

Bytes text(const char* s, size_t n) { return Bytes(s, s + n); }

class WireTest : public ::testing::Test {
 protected:
  void SetUp() override { start({}); }
  void start(qvaemu::Options o) {
    gw_ = std::make_unique<qvaemu::Gateway>(std::move(o));
    std::string error;
    ASSERT_TRUE(gw_->start(&error)) << error;
  }
  std::unique_ptr<qvaemu::Gateway> gw_;
};

TEST_F(WireTest, HandshakeReplyIsExactAndRequestIsRecordedWhole) {
  ASSERT_EQ(kHandshake.size(), 55u);
  Client c;
  ASSERT_TRUE(c.connect(gw_->port()));
  ASSERT_TRUE(c.send(kHandshake));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.magic, 0x47617465u);
  EXPECT_EQ(m.version, 0x10800000u);
  EXPECT_EQ(m.flowType, 5);
  EXPECT_EQ(m.name, "BASE");
  EXPECT_EQ(m.raw(), kHandshakeReply);
  EXPECT_EQ(gw_->received(0), kHandshake);
  EXPECT_EQ(gw_->connectionCount(), 1u);
}

TEST_F(WireTest, HandshakeArrivingOneByteAtATimeIsAnswered) {
  Client c;
  ASSERT_TRUE(c.connect(gw_->port()));
  for (size_t i = 0; i < kHandshake.size(); ++i) {
    ASSERT_TRUE(c.send({kHandshake[i]}));
    ASSERT_TRUE(gw_->waitForReceived(0, i + 1, kPatience));
  }
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.raw(), kHandshakeReply);
}

TEST_F(WireTest, CloseIsAnsweredWithAnEmptyBodyThenTheConnectionEnds) {
  ASSERT_EQ(kClose.size(), 33u);
  Client c;
  ASSERT_TRUE(c.connect(gw_->port()));
  ASSERT_TRUE(c.send(concat({kHandshake, kClose})));
  Message hs, m;
  ASSERT_TRUE(readMessage(c, hs));
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.magic, 0x47617465u);
  EXPECT_EQ(m.flowType, 10);
  EXPECT_EQ(m.name, "BASE");
  EXPECT_EQ(m.dataLength, 0);
  EXPECT_EQ(m.header.size(), 33u);
  EXPECT_TRUE(c.eofWithin());
  EXPECT_EQ(gw_->received(0), concat({kHandshake, kClose}));
  c.close();
  EXPECT_TRUE(gw_->waitForClosed(0, kPatience));
}

TEST_F(WireTest, EchoCallRequestAndReplyAreExact) {
  ASSERT_EQ(kCommarea.size(), 100u);
  const Bytes req = concat({kEciHeader, kEciBodyBeforeCommarea, bytesOf(kCommarea), kEciBodyAfterCommarea});
  ASSERT_EQ(req.size(), 227u);
  // The test's own request builder must agree with the literal bytes.
  Call call;
  call.commarea = bytesOf(kCommarea);
  ASSERT_EQ(request(call), req);

  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  ASSERT_TRUE(c.send(req));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.raw(), concat({kEciReplyHeader, kEciReplyBeforeCommarea, bytesOf(kCommarea), Bytes{0x00}}));
  EXPECT_EQ(gw_->received(0), concat({kHandshake, req}));
}

TEST_F(WireTest, ServerListEntriesAreExact) {
  gw_.reset();
  qvaemu::Options o;
  o.servers = {{"QVADEMO", "Demo server"}, {"SYS2", "Second system"}};
  start(o);
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  ASSERT_TRUE(c.send(kServerListRequest));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  // Name blank-padded to 8 plus a NUL, description blank-padded to 60 plus a NUL.
  const Bytes entry1 = concat({text("QVADEMO \0", 9), text("Demo server", 11), Bytes(49, ' '), Bytes{0}});
  const Bytes entry2 = concat({text("SYS2    \0", 9), text("Second system", 13), Bytes(47, ' '), Bytes{0}});
  ASSERT_EQ(entry1.size(), 70u);
  ASSERT_EQ(entry2.size(), 70u);
  const Bytes expectedBody = concat({
      Bytes{0x00, 0x00, 0x00, 0x09},  // callType
      Bytes{0x00, 0x00, 0x00, 0x02},  // systemCount
      Bytes{0x00, 0x00, 0x00, 0x00},  // replyRc
      Bytes{0x00, 0x00, 0x00, 0x8C},  // commareaLength 140
      entry1, entry2});
  EXPECT_EQ(m.flowType, 1);
  EXPECT_EQ(m.name, "ECI");
  EXPECT_EQ(m.dataLength, 156);
  EXPECT_EQ(m.body, expectedBody);
}

TEST_F(WireTest, ServerListBeyondCapacitySendsCapacityEntriesAndCountsAll) {
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  ASSERT_TRUE(c.send(listRequest(1)));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  ASSERT_EQ(m.body.size(), 16u + 70u);
  EXPECT_EQ(sbe32(m.body, 4), 2);    // the default list holds two servers
  EXPECT_EQ(sbe32(m.body, 8), -25);  // more systems than room
  EXPECT_EQ(sbe32(m.body, 12), 70);
  EXPECT_EQ(Bytes(m.body.begin() + 16, m.body.begin() + 25), text("QVADEMO \0", 9));

  ASSERT_TRUE(c.send(listRequest(0)));
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.body, concat({Bytes{0, 0, 0, 9}, Bytes{0, 0, 0, 2}, Bytes{0xFF, 0xFF, 0xFF, 0xE7}, Bytes{0, 0, 0, 0}}));
}

TEST_F(WireTest, ServerListWithoutServersIsRcMinus26) {
  gw_.reset();
  qvaemu::Options o;
  o.useDefaultServers = false;
  start(o);
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  ASSERT_TRUE(c.send(listRequest(4)));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.body, concat({Bytes{0, 0, 0, 9}, Bytes{0, 0, 0, 0}, Bytes{0xFF, 0xFF, 0xFF, 0xE6}, Bytes{0, 0, 0, 0}}));
}

TEST_F(WireTest, CommitCarriesNoCommareaEitherWay) {
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  Call begin;
  begin.extendMode = 1;
  begin.commarea = bytesOf(kCommarea);
  ProgramReply r;
  ASSERT_TRUE(call(c, begin, r));
  ASSERT_NE(r.luwToken, 0);

  Call commit = begin;
  commit.extendMode = 2;
  commit.luwToken = r.luwToken;
  const Bytes req = request(commit);
  ASSERT_EQ(req.size(), 32u + 95u);  // commareaLength is sent, its bytes are not
  ASSERT_TRUE(c.send(req));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.body, (Bytes{
                        0x00, 0x00, 0x00, 0x01,  // callType
                        0x00, 0x00, 0x00, 0x00,  // luwToken: the unit has ended
                        0x00, 0x00, 0x00, 0x00,  // spareInt
                        0x00, 0x00, 0x00, 0x00,  // replyRc
                        0x00, 0x00, 0x00, 0x00,  // abendCode
                        0x00, 0x00, 0x00, 0x64,  // commareaLength 100
                        0xFF, 0x00,              // length present, ignored byte
                        0x00, 0x00, 0x00, 0x00,  // replyDataLength 0
                        0x00,                    // no channel
                    }));
}

TEST_F(WireTest, UnknownCallTypeIsAnsweredWithTheCallTypeOnly) {
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  const Bytes req = concat({
      Bytes{0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x45, 0x43, 0x49, 0x00, 0x00, 0x00, 0x00, 0x0F},
      Bytes{0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00},
  });
  ASSERT_TRUE(c.send(req));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.flowType, 1);
  EXPECT_EQ(m.body, (Bytes{0x00, 0x00, 0x00, 0x07}));
}

TEST_F(WireTest, ChannelRequestGetsAnExceptionAndTheConnectionStaysInStep) {
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  Call ch;
  ch.commarea = {};
  ch.channelBlock = concat({text("MYCHANNEL\0\0\0\0\0\0\0", 16), Bytes{0, 0, 0x03, 0x33}, Bytes{0, 0, 0, 0}});
  ASSERT_TRUE(c.send(request(ch)));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.flowType, 6);
  EXPECT_EQ(m.name, "ECI");
  EXPECT_EQ(m.body, (Bytes{0, 0, 0, 1, 0, 0, 0, 2}));

  Call echo;
  echo.commarea = bytesOf("still in step");
  ProgramReply r;
  ASSERT_TRUE(call(c, echo, r));
  EXPECT_EQ(r.data, echo.commarea);
}

TEST_F(WireTest, MalformedBodyGetsAnException) {
  Client c;
  ASSERT_TRUE(open(c, gw_->port()));
  Bytes req = request(Call{});
  req.push_back(0x00);  // one byte more than the fields account for
  req[31] = static_cast<uint8_t>(req[31] + 1);
  ASSERT_TRUE(c.send(req));
  Message m;
  ASSERT_TRUE(readMessage(c, m));
  EXPECT_EQ(m.flowType, 6);
  EXPECT_EQ(m.body, (Bytes{0, 0, 0, 1, 0, 0, 0, 1}));
}

TEST_F(WireTest, HeaderWithBadMagicClosesTheConnection) {
  Client c;
  ASSERT_TRUE(c.connect(gw_->port()));
  Bytes bad = kHandshake;
  bad[0] = 'X';
  ASSERT_TRUE(c.send(bad));
  EXPECT_TRUE(c.eofWithin());
}

TEST_F(WireTest, Ipv6LoopbackIsServedOnTheSamePort) {
  Client probe;
  if (!probe.connect(gw_->port(), "::1")) GTEST_SKIP() << "no IPv6 loopback here";
  ASSERT_TRUE(probe.send(kHandshake));
  Message m;
  ASSERT_TRUE(readMessage(probe, m));
  EXPECT_EQ(m.raw(), kHandshakeReply);
}

}  // namespace
