// The ECI request flow on a filled request record: the request bytes against
// literal vectors, and every reply shape, well-formed or not, from a scripted
// fake Gateway on the other end of a socketpair.

#include <gtest/gtest.h>

#include "clapi_socketcomms.h"
#include "wire_support.h"

namespace {

using wire::ascii;
using wire::Bytes;
using wire::cat;
using wire::fill;
using wire::hex;

constexpr uint8_t kGuard = 0xA5;
constexpr size_t kGuardSize = 16;
constexpr uint8_t kStale = 0x5A;

const std::string kPassword = "S3cr3tPassw0rd!!";

// A request record as the ECI calls fill it, with recognisable values in
// the fields the callers leave at zero, so that a field out of place shows.
struct EciRequest {
  char name[4] = "ECI";
  GatewayRequest req{};
  Bytes area;  // the caller's COMMAREA or list, then guard bytes

  explicit EciRequest(int32_t commareaLength, int32_t callType = 1) {
    area = cat({fill(static_cast<size_t>(commareaLength), kStale), fill(kGuardSize, kGuard)});
    req.magic = kHeaderMagic;
    req.version = kProtocolVersionWord;
    req.flowType = 1;
    req.name = name;
    req.nameLength = 3;
    req.extensionMarker = -1;
    req.callType = callType;
    req.luwToken = 0x01020304;
    req.spareInt = 0x0A0B0C0D;
    req.spareByte = 0xEE;
    std::memcpy(req.systemName, "SYSTEM01", 8);
    std::memcpy(req.userId, "USER0001        ", 16);
    std::memcpy(req.password, kPassword.data(), 16);
    std::memcpy(req.programName, "PROGRAM1", 8);
    std::memcpy(req.transId, "TRN1", 4);
    req.commareaLength = commareaLength;
    req.commarea = commareaLength > 0 ? area.data() : nullptr;
    req.timeout = 0x0102;
    req.trailerFlag = 0x7E;
    req.trailerWord = 0x31323334;
  }

  Bytes commarea() const { return wire::slice(area, 0, area.size() - kGuardSize); }
  bool guardIntact() const { return wire::slice(area, area.size() - kGuardSize, kGuardSize) == fill(kGuardSize, kGuard); }
};

// The ECI header: name "ECI", then the body length.
Bytes eciHeader(uint32_t bodyLength) {
  return cat({hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00"), wire::be32(bodyLength)});
}

// Body bytes 0 to 76 of a program call made from EciRequest, up to and
// including extraDataLength 0.
Bytes programCallFront(const std::string &callType, const std::string &extendMode) {
  return cat({hex(callType), hex(extendMode), hex("01020304 0A0B0C0D EE 00000008"), ascii("SYSTEM01"),
              ascii("USER0001        "), ascii(kPassword), ascii("PROGRAM1"), ascii("TRN1"), hex("00000000")});
}

const Bytes kTrailer = hex("0102 7E FFFFFFFF 31323334");

// A program-call reply: luw 0x11111111, spare 0x22222222, the rc, abend
// "ABCD", then the lengths part, the data and the channel-present byte.
Bytes programReply(const std::string &commareaLength, const Bytes &lengths, const Bytes &data, uint8_t channel = 0,
                   const std::string &rc = "00000000", const Bytes &after = {}) {
  return wire::reply(1, "ECI",
                     cat({hex("00000001 11111111 22222222"), hex(rc), ascii("ABCD"), hex(commareaLength), lengths, data,
                          Bytes{channel}, after}));
}

class EciFlowTest : public ::testing::Test {
 protected:
  void SetUp() override { gateway = wire::FakeGateway::onSocket(pair.releasePeer()); }

  int run(EciRequest &call) {
    reasons = -1;
    return clapiFlowECIRequest(pair.client, &call.req, &reasons);
  }

  // A plain call after the one under test: it only succeeds when the
  // connection is still in step.
  void expectNextCallWorks() {
    EciRequest next(4);
    gateway->expect(32 + 99).send(programReply("00000004", hex("00"), hex("CAFEF00D")));
    EXPECT_EQ(run(next), QVA_OK);
    EXPECT_EQ(next.commarea(), hex("CAFEF00D"));
    EXPECT_EQ(next.req.luwToken, 0x11111111);
    ASSERT_TRUE(gateway->drain()) << gateway->errors();
    EXPECT_EQ(wire::pendingBytes(pair.client), 0);
    EXPECT_TRUE(gateway->unread().empty());
  }

  wire::SocketPair pair;
  std::unique_ptr<wire::FakeGateway> gateway;
  int32_t reasons = -1;
};

// ---- Request layouts ------------------------------------------------------------------

TEST_F(EciFlowTest, CommareaCallIs227BytesWithEveryFieldAtItsOffset) {
  EciRequest call(100);
  const Bytes data = wire::pattern(100, 33);
  std::copy(data.begin(), data.end(), call.area.begin());
  gateway->expect(227).send(programReply("00000064", hex("00"), wire::pattern(100, 77)));
  EXPECT_EQ(run(call), QVA_OK);
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  const Bytes sent = gateway->request(0);
  EXPECT_EQ(sent, cat({eciHeader(195), programCallFront("00000001", "00000000"), hex("00000064 00 00"), data,
                       hex("00"), kTrailer}));
  EXPECT_TRUE(gateway->unread().empty());
  // The offsets of the body, one by one.
  const Bytes body = wire::slice(sent, 32, 195);
  EXPECT_EQ(wire::slice(sent, 28, 4), hex("000000C3"));
  EXPECT_EQ(wire::slice(body, 17, 4), hex("00000008"));
  EXPECT_EQ(wire::slice(body, 21, 8), ascii("SYSTEM01"));
  EXPECT_EQ(wire::slice(body, 45, 16), ascii(kPassword));
  EXPECT_EQ(wire::slice(body, 69, 4), ascii("TRN1"));
  EXPECT_EQ(wire::slice(body, 77, 4), hex("00000064"));
  EXPECT_EQ(wire::slice(body, 83, 100), data);
  // The reply, copied back.
  EXPECT_EQ(call.req.dataLength, 126);
  EXPECT_EQ(call.req.callType, 1);
  EXPECT_EQ(call.req.luwToken, 0x11111111);
  EXPECT_EQ(call.req.spareInt, 0x22222222);
  EXPECT_EQ(call.req.replyRc, 0);
  EXPECT_EQ(std::memcmp(call.req.abendCode, "ABCD", 4), 0);
  EXPECT_EQ(call.req.commareaLength, 100);
  EXPECT_EQ(call.req.replyDataLength, 100);
  EXPECT_EQ(call.commarea(), wire::pattern(100, 77));
  EXPECT_TRUE(call.guardIntact());
}

TEST_F(EciFlowTest, ExtendModes2And4SendAndReadNoCommareaButKeepItsLength) {
  for (int32_t mode : {2, 4}) {
    SCOPED_TRACE(mode);
    EciRequest call(100);
    call.req.extendMode = mode;
    gateway->expect(32 + 95).send(programReply("00000064", hex("00"), {}));
    EXPECT_EQ(run(call), QVA_OK);
    ASSERT_TRUE(gateway->drain()) << gateway->errors();
    EXPECT_EQ(gateway->request(gateway->requestCount() - 1),
              cat({eciHeader(95), programCallFront("00000001", mode == 2 ? "00000002" : "00000004"),
                   hex("00000064 00 00 00"), kTrailer}));
    EXPECT_EQ(call.req.commareaLength, 100);
    EXPECT_EQ(call.commarea(), fill(100, kStale)) << "nothing read into the COMMAREA, nothing cleared";
    EXPECT_TRUE(call.guardIntact());
    EXPECT_EQ(wire::pendingBytes(pair.client), 0);
  }
}

TEST_F(EciFlowTest, SendAndReplyLimitsTravelWithTheirFlagBytes) {
  EciRequest call(100);
  const Bytes data = wire::pattern(100, 1);
  std::copy(data.begin(), data.end(), call.area.begin());
  call.req.requestDataLength = 30;
  call.req.replyDataLength = 40;
  gateway->expect(32 + 133).send(programReply("00000064", hex("FF 00 00000028"), wire::pattern(40, 90)));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0), cat({eciHeader(133), programCallFront("00000001", "00000000"),
                                      hex("00000064 FF 0000001E FF 00000028"), wire::slice(data, 0, 30), hex("00"),
                                      kTrailer}));
  EXPECT_EQ(call.req.replyDataLength, 40);
  EXPECT_EQ(call.commarea(), cat({wire::pattern(40, 90), fill(60, 0)}));
  EXPECT_TRUE(call.guardIntact());
}

TEST_F(EciFlowTest, ExtraDataFollowsItsLength) {
  EciRequest call(4);
  uint8_t extra[3] = {0xE1, 0xE2, 0xE3};
  call.req.extraDataLength = 3;
  call.req.extraData = extra;
  std::fill(call.area.begin(), call.area.begin() + 4, 0x44);
  gateway->expect(32 + 102).send(programReply("00000004", hex("00"), hex("01020304")));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  Bytes front = programCallFront("00000001", "00000000");
  front.resize(73);
  EXPECT_EQ(gateway->request(0), cat({eciHeader(102), front, hex("00000003 E1E2E3 00000004 00 00 44444444 00"), kTrailer}));
}

TEST_F(EciFlowTest, ServerListRequestBodyIs19Bytes) {
  EciRequest call(0, 9);
  call.area = cat({fill(140, kStale), fill(kGuardSize, kGuard)});
  call.req.commarea = call.area.data();
  call.req.systemCount = 5;
  const Bytes list = wire::pattern(140, 21);
  gateway->expect(32 + 19).send(wire::reply(1, "ECI", cat({hex("00000009 00000002 00000000 0000008C"), list})));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0), cat({eciHeader(19), hex("00000009 00000005"), kTrailer}));
  EXPECT_EQ(call.req.systemCount, 2);
  EXPECT_EQ(call.req.commareaLength, 140);
  EXPECT_EQ(call.commarea(), list);
  EXPECT_TRUE(call.guardIntact());
}

TEST_F(EciFlowTest, ExtensionStringsAreSentWhenTheMarkerIsSet) {
  EciRequest call(0, 9);
  uint8_t one[2] = {'A', 'B'};
  uint8_t two[3] = {'X', 'Y', 'Z'};
  call.req.extensionMarker = 0;
  call.req.extension1Length = 2;
  call.req.extension1 = one;
  call.req.extension2Length = 3;
  call.req.extension2 = two;
  call.req.systemCount = 0;
  gateway->expect(32 + 32).send(wire::reply(1, "ECI", hex("00000009 00000000 00000000 00000000")));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0),
            cat({eciHeader(32), hex("00000009 00000000 0102 7E 00000000 00000002 4142 00000003 58595A 31323334")}));
}

TEST_F(EciFlowTest, UnknownCallTypeSendsOnlyTheTrailer) {
  EciRequest call(0, 7);
  gateway->expect(32 + 15).send(wire::reply(1, "ECI", hex("00000007")));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0), cat({eciHeader(15), hex("00000007"), kTrailer}));
}

TEST_F(EciFlowTest, PasswordIsStarredInTheRequestDumpAndSentAsItIs) {
  EciRequest call(100);
  gateway->expect(227).send(programReply("00000064", hex("00"), wire::pattern(100)));
  std::string text;
  {
    wire::TraceFile trace(4, 0);
    EXPECT_EQ(run(call), QVA_OK);
    text = trace.text();
  }
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(wire::slice(gateway->request(0), 32 + 45, 16), ascii(kPassword));
  EXPECT_EQ(text.find(kPassword), std::string::npos);
  EXPECT_FALSE(wire::contains(wire::allDumpedBytes(text), ascii(kPassword)));
  bool seen = false;
  for (const auto &d : wire::dumps(text)) {
    if (d.header.find("clapi_socketbuffer.flushBuffer data=") == std::string::npos) continue;
    seen = true;
    ASSERT_EQ(d.bytes.size(), 227u);
    EXPECT_EQ(wire::slice(d.bytes, 32 + 45, 16), fill(16, '*'));
    EXPECT_EQ(wire::slice(d.bytes, 32 + 29, 16), ascii("USER0001        ")) << "only the password is hidden";
  }
  EXPECT_TRUE(seen) << text;
  const std::string fd = std::to_string(pair.client);
  EXPECT_EQ(wire::traceLines(text, 3209, "ENTRY",
                             "clapi_socketcomms\\.clapiFlowECIRequest\\(socketDesc=" + fd +
                                 ", \\*request=0x[0-9a-f]+, \\*reasons=0x[0-9a-f]+\\)$")
                .size(),
            1u);
  EXPECT_EQ(wire::traceLines(text, 3214, "EXIT",
                             "clapi_socketcomms\\.calculateECIRequestSize\\(\\*request=0x[0-9a-f]+\\) requestSize=195$")
                .size(),
            1u);
  EXPECT_EQ(wire::traceLines(text, 3214, "EXIT",
                             "clapi_socketcomms\\.clapiFlowECIRequest\\(socketDesc=" + fd +
                                 ", \\*request=0x[0-9a-f]+, \\*reasons=0x[0-9a-f]+\\) rc=0$")
                .size(),
            1u);
}

// ---- Replies -----------------------------------------------------------------------------

TEST_F(EciFlowTest, ShortReplyDataClearsTheRestOfTheCommarea) {
  EciRequest call(100);
  gateway->expect(227).send(programReply("00000064", hex("FF 00 0000000A"), wire::pattern(10, 200)));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(call.req.replyDataLength, 10);
  EXPECT_EQ(call.req.commareaLength, 100);
  EXPECT_EQ(call.commarea(), cat({wire::pattern(10, 200), fill(90, 0)}));
  EXPECT_TRUE(call.guardIntact());
  EXPECT_EQ(wire::pendingBytes(pair.client), 0);
}

TEST_F(EciFlowTest, ReplyRcIsStoredNotReturnedByTheFlow) {
  EciRequest call(4);
  gateway->expect(32 + 99).send(programReply("00000004", hex("00"), hex("00000000"), 0, "FFFFFFF9"));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(call.req.replyRc, -7);
}

TEST_F(EciFlowTest, ExceptionReplyGivesGatewayExceptionAndTheNextCallWorks) {
  EciRequest call(100);
  // A body longer than the buffer: what one fill does not take must be dropped too.
  gateway->expect(227).send(wire::reply(6, "ECI", wire::pattern(2000)));
  std::string text;
  {
    wire::TraceFile trace(1);
    EXPECT_EQ(run(call), QVA_ERR_GATEWAY_EXCEPTION);
    text = trace.text();
  }
  EXPECT_EQ(QVA_ERR_GATEWAY_EXCEPTION, 61446);
  EXPECT_EQ(reasons, 0);
  EXPECT_EQ(call.req.flowType, 6);
  EXPECT_EQ(call.req.luwToken, 0x01020304) << "no output field is set";
  EXPECT_EQ(call.commarea(), fill(100, kStale));
  EXPECT_EQ(wire::traceLines(text, 3225, "*EXC*",
                             "clapi_socketcomms\\.clapiFlowECIRequest An exception occurred in the Gateway daemon$")
                .size(),
            1u)
      << text;
  expectNextCallWorks();
}

TEST_F(EciFlowTest, UnknownReplyCallTypeChangesOnlyTheCallType) {
  EciRequest call(100);
  call.req.replyRc = 77;
  call.req.systemCount = 3;
  gateway->expect(227).send(wire::reply(1, "ECI", cat({hex("00000005"), wire::pattern(2000)})));
  EXPECT_EQ(run(call), QVA_OK);
  EXPECT_EQ(call.req.callType, 5);
  EXPECT_EQ(call.req.luwToken, 0x01020304);
  EXPECT_EQ(call.req.spareInt, 0x0A0B0C0D);
  EXPECT_EQ(call.req.replyRc, 77);
  EXPECT_EQ(std::memcmp(call.req.abendCode, "\0\0\0\0", 4), 0);
  EXPECT_EQ(call.req.commareaLength, 100);
  EXPECT_EQ(call.req.replyDataLength, 0);
  EXPECT_EQ(call.req.systemCount, 3);
  EXPECT_EQ(call.commarea(), fill(100, kStale));
  EXPECT_TRUE(call.guardIntact());
  expectNextCallWorks();
}

// ---- Oversized and malformed replies ----------------------------------------------------

TEST_F(EciFlowTest, CommareaReplyLongerThanTheCommareaIsCutAndTheRestDropped) {
  EciRequest call(100);
  const Bytes data = wire::pattern(3000, 4);
  gateway->expect(227).send(programReply("00000BB8", hex("00"), data));
  EXPECT_EQ(run(call), QVA_ERR_INVALID_DATA_LENGTH);
  EXPECT_EQ(reasons, 0);
  EXPECT_EQ(call.commarea(), wire::slice(data, 0, 100));
  EXPECT_TRUE(call.guardIntact());
  expectNextCallWorks();
}

TEST_F(EciFlowTest, ReplyDataLengthBeyondTheCommareaIsCutAndTheRestDropped) {
  EciRequest call(100);
  const Bytes data = wire::pattern(150, 8);
  gateway->expect(227).send(programReply("00000064", hex("FF 00 00000096"), data));
  EXPECT_EQ(run(call), QVA_ERR_INVALID_DATA_LENGTH);
  EXPECT_EQ(call.commarea(), wire::slice(data, 0, 100));
  EXPECT_TRUE(call.guardIntact());
  expectNextCallWorks();
}

TEST_F(EciFlowTest, ChannelInACommareaReplyIsDroppedAsASystemError) {
  EciRequest call(4);
  gateway->expect(32 + 99).send(programReply("00000004", hex("00"), hex("01020304"), 0xFF, "00000000",
                                             wire::pattern(1500, 6)));
  EXPECT_EQ(run(call), QVA_ERR_SYSTEM_ERROR);
  EXPECT_TRUE(call.guardIntact());
  expectNextCallWorks();
}

TEST_F(EciFlowTest, ServerListLongerThanTheCapacityIsCutAndTheRestDropped) {
  EciRequest call(0, 9);
  call.area = cat({fill(140, kStale), fill(kGuardSize, kGuard)});
  call.req.commarea = call.area.data();
  call.req.systemCount = 2;
  const Bytes list = wire::pattern(280, 3);
  gateway->expect(32 + 19).send(wire::reply(1, "ECI", cat({hex("00000009 00000004 00000000 00000118"), list})));
  EXPECT_EQ(run(call), QVA_ERR_MORE_SYSTEMS);
  EXPECT_EQ(call.commarea(), wire::slice(list, 0, 140));
  EXPECT_TRUE(call.guardIntact());
  EXPECT_EQ(call.req.commareaLength, 140);
  EXPECT_EQ(call.req.systemCount, 4);
  expectNextCallWorks();
}

TEST_F(EciFlowTest, ReplyShorterThanItsFieldsFailsAsASystemError) {
  EciRequest call(100);
  gateway->expect(227).send(wire::reply(1, "ECI", hex("00000001 11111111 22222222")));
  EXPECT_EQ(run(call), QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(reasons, 0);
  EXPECT_EQ(call.commarea(), fill(100, kStale));
  EXPECT_TRUE(call.guardIntact());
}

TEST_F(EciFlowTest, NegativeReplyDataLengthFailsAsASystemError) {
  EciRequest call(100);
  gateway->expect(227).send(programReply("00000064", hex("FF 00 FFFFFFFB"), {}));
  EXPECT_EQ(run(call), QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(call.commarea(), fill(100, kStale));
  EXPECT_TRUE(call.guardIntact());
}

TEST_F(EciFlowTest, ReplyHeaderWithALongerNameFailsAsASystemError) {
  EciRequest call(4);
  gateway->expect(32 + 99).send(wire::reply(1, "ECIX", hex("00000007")));
  EXPECT_EQ(run(call), QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(std::string(call.name, 3), "ECI") << "nothing written past the name storage";
  EXPECT_EQ(call.name[3], '\0');
}

TEST_F(EciFlowTest, ReplyHeaderWithANegativeBodyLengthFailsAsASystemError) {
  EciRequest call(4);
  gateway->expect(32 + 99).send(hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 80000000"));
  EXPECT_EQ(run(call), QVA_ERR_SYSTEM_ERROR);
}

TEST_F(EciFlowTest, GatewayClosingMidReplyLosesTheConnection) {
  EciRequest call(100);
  gateway->expect(227).send(cat({wire::replyHeader(1, "ECI", 131), hex("00000001 11111111")})).hangUp();
  EXPECT_EQ(run(call), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(reasons, 0);
  EXPECT_TRUE(call.guardIntact());
}

TEST_F(EciFlowTest, RequestToAGatewayThatHasGoneReportsTheErrno) {
  EciRequest call(100);
  gateway->hangUp();
  ASSERT_TRUE(gateway->drain());
  EXPECT_EQ(run(call), QVA_ERR_LOSTGWCON);
  EXPECT_TRUE(reasons == EPIPE || reasons == ECONNRESET) << "reasons=" << reasons;
}

}  // namespace
