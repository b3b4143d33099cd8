// The ECI request flow on a filled request record: the request bytes against
// literal vectors, and every reply shape, well-formed or not, from a scripted
// fake Gateway on the other end of a socketpair.

#include "clapi_socketcomms.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

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

  Bytes commarea() const { return slice(area, 0, area.size() - kGuardSize); }
  bool guardIntact() const { return slice(area, area.size() - kGuardSize, kGuardSize) == fill(kGuardSize, kGuard); }
};


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
  return message(1, "ECI",
                     cat({hex("00000001 11111111 22222222"), hex(rc), ascii("ABCD"), hex(commareaLength), lengths, data,
                          Bytes{channel}, after}));
}

class EciFlowTest : public ::testing::Test {
 protected:
  void SetUp() override { gateway = FakeGateway::onSocket(pair.releasePeer()); }

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
    EXPECT_EQ(pendingBytes(pair.client), 0);
    EXPECT_TRUE(gateway->unread().empty());
  }

  SocketPair pair;
  std::unique_ptr<FakeGateway> gateway;
  int32_t reasons = -1;
};

// ---- Request layouts ------------------------------------------------------------------

TEST_F(EciFlowTest, CommareaCallIs227BytesWithEveryFieldAtItsOffset) {
  EciRequest call(100);
  const Bytes data = pattern(100, 33);
  std::copy(data.begin(), data.end(), call.area.begin());
  gateway->expect(227).send(programReply("00000064", hex("00"), pattern(100, 77)));
  TraceCapture trace(3);
  EXPECT_EQ(run(call), QVA_OK);
  const std::string text = trace.text();
  EXPECT_EQ(reasons, 0);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  const std::string flow = R"(clapi_socketcomms\.clapiFlowECIRequest\(socketDesc=)" + std::to_string(pair.client) +
                           R"(, \*request=0x[0-9a-f]+, \*reasons=0x[0-9a-f]+\))";
  EXPECT_EQ(countLines(text, 3209, "ENTRY", flow), 1) << text;
  EXPECT_EQ(countLines(text, 3214, "EXIT", R"(clapi_socketcomms\.calculateECIRequestSize\(\*request=0x[0-9a-f]+\) requestSize=195)"), 1);
  EXPECT_EQ(countLines(text, 3214, "EXIT", flow + " rc=0"), 1);
  const Bytes sent = gateway->request(0);
  EXPECT_EQ(sent, cat({header(1, "ECI", 195), programCallFront("00000001", "00000000"), hex("00000064 00 00"), data,
                       hex("00"), kTrailer}));
  EXPECT_TRUE(gateway->unread().empty());
  // The reply, copied back.
  EXPECT_EQ(call.req.dataLength, 126);
  EXPECT_EQ(call.req.callType, 1);
  EXPECT_EQ(call.req.luwToken, 0x11111111);
  EXPECT_EQ(call.req.spareInt, 0x22222222);
  EXPECT_EQ(call.req.replyRc, 0);
  EXPECT_EQ(std::memcmp(call.req.abendCode, "ABCD", 4), 0);
  EXPECT_EQ(call.req.commareaLength, 100);
  EXPECT_EQ(call.req.replyDataLength, 100);
  EXPECT_EQ(call.commarea(), pattern(100, 77));
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
              cat({header(1, "ECI", 95), programCallFront("00000001", mode == 2 ? "00000002" : "00000004"),
                   hex("00000064 00 00 00"), kTrailer}));
    EXPECT_EQ(call.req.commareaLength, 100);
    EXPECT_EQ(call.commarea(), fill(100, kStale)) << "nothing read into the COMMAREA, nothing cleared";
    EXPECT_TRUE(call.guardIntact());
    EXPECT_EQ(pendingBytes(pair.client), 0);
  }
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
  EXPECT_EQ(gateway->request(0), cat({header(1, "ECI", 102), front, hex("00000003 E1E2E3 00000004 00 00 44444444 00"), kTrailer}));
}

TEST_F(EciFlowTest, ServerListRequestBodyIs19Bytes) {
  EciRequest call(0, 9);
  call.area = cat({fill(140, kStale), fill(kGuardSize, kGuard)});
  call.req.commarea = call.area.data();
  call.req.systemCount = 5;
  const Bytes list = pattern(140, 21);
  gateway->expect(32 + 19).send(message(1, "ECI", cat({hex("00000009 00000002 00000000 0000008C"), list})));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0), cat({header(1, "ECI", 19), hex("00000009 00000005"), kTrailer}));
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
  gateway->expect(32 + 32).send(message(1, "ECI", hex("00000009 00000000 00000000 00000000")));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0),
            cat({header(1, "ECI", 32), hex("00000009 00000000 0102 7E 00000000 00000002 4142 00000003 58595A 31323334")}));
}

TEST_F(EciFlowTest, UnknownCallTypeSendsOnlyTheTrailer) {
  EciRequest call(0, 7);
  gateway->expect(32 + 15).send(message(1, "ECI", hex("00000007")));
  EXPECT_EQ(run(call), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(gateway->request(0), cat({header(1, "ECI", 15), hex("00000007"), kTrailer}));
}

// ---- Replies -----------------------------------------------------------------------------

// The reply rc is stored, not returned by the flow.
TEST_F(EciFlowTest, ShortReplyDataClearsTheRestOfTheCommarea) {
  EciRequest call(100);
  gateway->expect(227).send(programReply("00000064", hex("FF 00 0000000A"), pattern(10, 200), 0, "FFFFFFF9"));
  EXPECT_EQ(run(call), QVA_OK);
  EXPECT_EQ(call.req.replyRc, -7);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(call.req.replyDataLength, 10);
  EXPECT_EQ(call.req.commareaLength, 100);
  EXPECT_EQ(call.commarea(), cat({pattern(10, 200), fill(90, 0)}));
  EXPECT_TRUE(call.guardIntact());
  EXPECT_EQ(pendingBytes(pair.client), 0);
}

TEST_F(EciFlowTest, ExceptionReplyGivesGatewayExceptionAndTheNextCallWorks) {
  EciRequest call(100);
  // A body longer than the buffer: what one fill does not take must be dropped too.
  gateway->expect(227).send(message(6, "ECI", pattern(2000)));
  TraceCapture trace(1);
  EXPECT_EQ(run(call), QVA_ERR_GATEWAY_EXCEPTION);
  const std::string text = trace.text();
  EXPECT_EQ(QVA_ERR_GATEWAY_EXCEPTION, 61446);
  EXPECT_EQ(reasons, 0);
  EXPECT_EQ(call.req.flowType, 6);
  EXPECT_EQ(call.req.luwToken, 0x01020304) << "no output field is set";
  EXPECT_EQ(call.commarea(), fill(100, kStale));
  EXPECT_EQ(countLines(text, 3225, "*EXC*", R"(clapi_socketcomms\.clapiFlowECIRequest An exception occurred in the Gateway daemon)"),
            1)
      << text;
  expectNextCallWorks();
}

TEST_F(EciFlowTest, UnknownReplyCallTypeChangesOnlyTheCallType) {
  EciRequest call(100);
  call.req.replyRc = 77;
  call.req.systemCount = 3;
  gateway->expect(227).send(message(1, "ECI", cat({hex("00000005"), pattern(2000)})));
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

// What does not fit, or should not be there, is read and dropped: the next
// call on the connection gets its own reply.
TEST_F(EciFlowTest, OversizedRepliesAreCutAndTheRestDropped) {
  struct Case {
    const char* what;
    int32_t commarea;
    Bytes reply;
    int rc;
    Bytes kept;
    std::string line;  // the exception line, point 3226 or 3228
  };
  const Case cases[] = {
      {"COMMAREA longer than the caller's", 100, programReply("00000BB8", hex("00"), pattern(3000, 4)),
       QVA_ERR_INVALID_DATA_LENGTH, pattern(100, 4),
       "3226 Gateway returned 3000 COMMAREA bytes, more than the 100 the caller holds; the excess was dropped"},
      {"reply length beyond the COMMAREA", 100, programReply("00000064", hex("FF 00 00000096"), pattern(150, 8)),
       QVA_ERR_INVALID_DATA_LENGTH, pattern(100, 8),
       "3226 Gateway returned 150 COMMAREA bytes, more than the 100 the caller holds; the excess was dropped"},
      {"a channel after the COMMAREA", 4,
       programReply("00000004", hex("00"), hex("01020304"), 0xFF, "00000000", pattern(1500, 6)), QVA_ERR_SYSTEM_ERROR,
       hex("01020304"), "3228 Gateway returned a channel for a COMMAREA request; .*"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EciRequest call(c.commarea);
    gateway->expect(32 + 95 + static_cast<size_t>(c.commarea)).send(c.reply);
    TraceCapture trace(1);
    EXPECT_EQ(run(call), c.rc);
    EXPECT_EQ(countLines(trace.text(), std::stoi(c.line.substr(0, 4)), "*EXC*",
                         R"(clapi_socketcomms\.clapiFlowECIRequest )" + c.line.substr(5)), 1) << trace.text();
    EXPECT_EQ(reasons, 0);
    EXPECT_EQ(call.commarea(), c.kept);
    EXPECT_TRUE(call.guardIntact());
    expectNextCallWorks();
  }
}

TEST_F(EciFlowTest, MalformedRepliesFailAsASystemErrorAndWriteNothing) {
  const std::pair<const char *, Bytes> cases[] = {
      {"shorter than its fields", message(1, "ECI", hex("00000001 11111111 22222222"))},
      {"negative reply length", programReply("00000064", hex("FF 00 FFFFFFFB"), {})},
      {"longer name", message(1, "ECIX", hex("00000007"))},
      {"negative body length", hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00 80000000")},
  };
  for (const auto &[what, reply] : cases) {
    SCOPED_TRACE(what);
    SocketPair p;
    auto peer = FakeGateway::onSocket(p.releasePeer());
    EciRequest call(100);
    peer->expect(227).send(reply);
    reasons = -1;
    EXPECT_EQ(clapiFlowECIRequest(p.client, &call.req, &reasons), QVA_ERR_SYSTEM_ERROR);
    EXPECT_EQ(reasons, 0);
    EXPECT_EQ(call.commarea(), fill(100, kStale));
    EXPECT_TRUE(call.guardIntact());
    EXPECT_EQ(std::string(call.name, 4), std::string("ECI", 4)) << "nothing written past the name storage";
    EXPECT_TRUE(peer->drain()) << peer->errors();
  }
}

TEST_F(EciFlowTest, GatewayClosingMidReplyLosesTheConnection) {
  EciRequest call(100);
  gateway->expect(227).send(cat({header(1, "ECI", 131), hex("00000001 11111111")})).hangUp();
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
