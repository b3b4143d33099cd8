// QVA_ECI_Execute and QVA_listSystems over a real gateway token: a loopback
// listener in the test answers the handshake, then the scripted replies, then
// the close request. Checks the parameter block against the bytes on the
// wire, the results copied back, the documented handling of oversized
// replies, and that the password never reaches the trace.

#include <cstddef>

#include "fake_gateway.h"

namespace {

using namespace wire;


// The reply to a program call: luw token, spare word, rc, abend code,
// COMMAREA length, the lengths part, the data and the channel byte.
Bytes programReply(const std::string &luw, const std::string &rc, const std::string &abend,
                   const std::string &commareaLength, const Bytes &lengths, const Bytes &data, uint8_t channel = 0,
                   const Bytes &after = {}) {
  return message(1, "ECI", cat({hex("00000001"), hex(luw), hex("00000000"), hex(rc), ascii(abend),
                                    hex(commareaLength), lengths, data, Bytes{channel}, after}));
}

Bytes listReply(uint32_t count, uint32_t rc, const Bytes &list) {
  return message(1, "ECI", cat({hex("00000009"), be32(count), be32(rc),
                                    be32(static_cast<uint32_t>(list.size())), list}));
}

// One 70-byte server list entry.
Bytes entry(const std::string &name9, const Bytes &description) {
  Bytes e = ascii(name9);
  e.resize(9, ' ');
  Bytes d = description;
  d.resize(61, '.');
  return cat({e, d});
}

class EciApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gateway = FakeGateway::accepting(listener.fd);
    gateway->expect(55).send(message(5, "BASE", {}));
    ASSERT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", listener.port, &token, 5), QVA_OK);
    ASSERT_NE(token, nullptr);
    ASSERT_TRUE(gateway->drain()) << gateway->errors();
    ASSERT_EQ(gateway->request(0), handshakeRequest()) << "the real open sends the handshake";

    area = cat({fill(100, kStale), fill(kGuardSize, kGuard)});
    parms = ECI_PARMS{};
    parms.eci_version = 3;
    parms.eci_call_type = ECI_SYNC;
    std::memcpy(parms.eci_program_name, "PROGRAM1", 8);
    std::memcpy(parms.eci_userid, "USER0001        ", 16);
    std::memcpy(parms.eci_password, kPassword.data(), 16);
    std::memcpy(parms.eci_transid, "TRN1", 4);
    std::memcpy(parms.eci_system_name, "SYSTEM01", 8);
    parms.eci_commarea = area.data();
    parms.eci_commarea_length = 100;
    parms.eci_timeout = 0x0102;
    parms.eci_extend_mode = ECI_NO_EXTEND;
    parms.eci_luw_token = 0x01020304;
  }

  void TearDown() override {
    if (token != nullptr) {
      gateway->expect(33).send(message(10, "BASE", {}));
      EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_OK);
      EXPECT_TRUE(gateway->drain()) << gateway->errors();
      EXPECT_EQ(gateway->request(gateway->requestCount() - 1), closeRequest());
    }
  }

  // The request as the block above sends it, with the lengths part and the
  // data given.
  Bytes expectedRequest(uint32_t bodyLength, const std::string &callType, const std::string &transId,
                        const std::string &lengths, const Bytes &data) {
    return cat({header(1, "ECI", bodyLength), hex(callType), hex("00000000 01020304 00000000 00 00000008"), ascii("SYSTEM01"),
                ascii("USER0001        "), ascii(kPassword), ascii("PROGRAM1"), ascii(transId), hex("00000000"),
                hex("00000064"), hex(lengths), data, hex("00 0102 00 FFFFFFFF 00000000")});
  }

  Bytes lastRequest() { return gateway->request(gateway->requestCount() - 1); }

  Bytes commarea() const { return slice(area, 0, 100); }
  bool guardIntact() const { return slice(area, 100, kGuardSize) == fill(kGuardSize, kGuard); }

  // A plain call after the one under test, on the same connection.
  void expectNextCallWorks() {
    ECI_PARMS next = parms;
    Bytes small(4, 0);
    next.eci_commarea = small.data();
    next.eci_commarea_length = 4;
    next.eci_send_length = 0;
    next.eci_receive_length = 0;
    next.eci_extend_mode = ECI_NO_EXTEND;
    std::memset(next.eci_tpn, 0, sizeof next.eci_tpn);
    gateway->expect(32 + 99).send(programReply("00000042", "00000000", "    ", "00000004", hex("00"), hex("CAFEF00D")));
    EXPECT_EQ(QVA_ECI_Execute(token, &next), QVA_OK);
    EXPECT_EQ(small, hex("CAFEF00D"));
    EXPECT_EQ(next.eci_luw_token, 0x42);
    EXPECT_TRUE(gateway->drain()) << gateway->errors();
  }

  Listener listener;
  std::unique_ptr<FakeGateway> gateway;
  QvaGatewayToken *token = nullptr;
  ECI_PARMS parms{};
  Bytes area;
};

// ---- Requests ------------------------------------------------------------------------

TEST_F(EciApiTest, ExecuteSendsTheParameterBlockAsA227ByteRequest) {
  const Bytes data = pattern(100, 40);
  std::copy(data.begin(), data.end(), area.begin());
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), pattern(100)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(195, "00000001", "TRN1", "00 00", data));
  EXPECT_EQ(commarea(), pattern(100));
  EXPECT_TRUE(guardIntact());
}

TEST_F(EciApiTest, TpnOfFourBlanksTurnsTheCallIntoType12WithTheTpnAsTransid) {
  std::memcpy(parms.eci_tpn, "    ", 4);
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), pattern(100)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(195, "0000000C", "    ", "00 00", fill(100, kStale)));
}

// Above the COMMAREA length they are cut to it; zero or negative sends none.
TEST_F(EciApiTest, SendAndReceiveLengthsTravelCappedAtTheCommareaLength) {
  struct Case {
    short send, receive;
    uint32_t body;
    const char *lengths;
    size_t sent;
  };
  for (const Case &c : {Case{200, 300, 203, "FF 00000064 FF 00000064", 100}, Case{30, 40, 133, "FF 0000001E FF 00000028", 30},
                        Case{0, -5, 195, "00 00", 100}}) {
    SCOPED_TRACE(std::to_string(c.send) + "/" + std::to_string(c.receive));
    parms.eci_send_length = c.send;
    parms.eci_receive_length = c.receive;
    parms.eci_luw_token = 0x01020304;  // the last reply set it
    const Bytes before = commarea();
    gateway->expect(32 + c.body).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), pattern(100)));
    EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
    ASSERT_TRUE(gateway->drain()) << gateway->errors();
    EXPECT_EQ(lastRequest(), expectedRequest(c.body, "00000001", "TRN1", c.lengths, slice(before, 0, c.sent)));
  }
}

// ---- Replies ---------------------------------------------------------------------------

TEST_F(EciApiTest, LuwTokenAndAbendCodeAreCopiedBackAndTheReplyRcReturned) {
  gateway->expect(227).send(
      programReply("0BADF00D", "FFFFFFF9", "ASRA", "00000064", hex("FF 00 0000000A"), pattern(10, 9)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), ECI_ERR_TRANSACTION_ABEND);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(parms.eci_luw_token, 0x0BADF00D);
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), "ASRA");
  EXPECT_EQ(commarea(), cat({pattern(10, 9), fill(90, 0)}));
  EXPECT_TRUE(guardIntact());
}

// An exception flow fails the call and leaves every output field as it was.
TEST_F(EciApiTest, AnExceptionReplyTouchesNoOutputAndTheConnectionGoesOn) {
  std::memcpy(parms.eci_abend_code, "zzzz", 4);
  Bytes list(70, kStale);
  unsigned short systems = 1;
  gateway->expect(227).send(message(6, "ECI", pattern(20))).expect(32 + 19).send(message(6, "ECI", pattern(20)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_ERR_GATEWAY_EXCEPTION);
  EXPECT_EQ(QVA_listSystems(token, &systems, reinterpret_cast<QVA_SYSTEM_ENTRY *>(list.data())), QVA_ERR_GATEWAY_EXCEPTION);
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), "zzzz");
  EXPECT_EQ(parms.eci_luw_token, 0x01020304);
  EXPECT_EQ(commarea(), fill(100, kStale));
  EXPECT_EQ(systems, 1);
  EXPECT_EQ(list, Bytes(70, kStale));
  expectNextCallWorks();
}

// A handshake answered badly fails the open; the socket is shut without a close request.
TEST_F(EciApiTest, ABadHandshakeReplyFailsTheOpenWithoutACloseRequest) {
  for (const bool malformed : {true, false}) {
    Listener other;
    auto peer = FakeGateway::accepting(other.fd);
    peer->expect(55);
    if (malformed) peer->send(message(5, "BASEX", {}));
    else peer->hangUp();
    QvaGatewayToken *failed = nullptr;
    TraceCapture trace(1);
    EXPECT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", other.port, &failed, 5), QVA_ERR_CONNECTFAILED);
    const std::string text = trace.text();
    EXPECT_EQ(failed, nullptr);
    ASSERT_TRUE(peer->drain()) << peer->errors();
    EXPECT_EQ(peer->request(0), handshakeRequest());
    EXPECT_TRUE(peer->unread().empty());
    EXPECT_EQ(countLines(text, 2142, "*EXC*", R"(clapi_qva_gwytok\.openClientSocket\(\) Failed to connect to Gateway 127\.0\.0\.1:)" +
                                            std::to_string(other.port)), 1) << text;
    EXPECT_EQ(countLines(text, 2014, "*EXC*", R"(clapi_gwycon\.clapiConnectToGatewayHandshake flows failed rc=-9 errno=Success gwyRc=0 authRc=0)"),
              malformed ? 1 : 0) << text;
  }
}

// ---- Server list ---------------------------------------------------------------------------

TEST_F(EciApiTest, ListSystemsSendsA19ByteBodyAndTrimsTheNames) {
  const Bytes described = ascii("A description with trailing blanks      ");
  const Bytes list = cat({entry("A C      ", described), entry("         ", described),
                          entry(std::string("XY\0 \0   ", 9), described), entry("SYSTEM01 ", described)});
  Bytes buffer = cat({fill(4 * 70, kStale), fill(kGuardSize, kGuard)});
  unsigned short systems = 4;
  gateway->expect(32 + 19).send(listReply(4, 0, list));
  EXPECT_EQ(QVA_listSystems(token, &systems, reinterpret_cast<QVA_SYSTEM_ENTRY *>(buffer.data())), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), cat({header(1, "ECI", 19), hex("00000009 00000004 0000 00 FFFFFFFF 00000000")}));
  EXPECT_EQ(systems, 4);
  EXPECT_EQ(slice(buffer, 0, 9), cat({ascii("A C"), fill(6, 0)})) << "an inner blank is kept";
  EXPECT_EQ(slice(buffer, 70, 9), cat({ascii(" "), fill(8, 0)})) << "an all-blank name keeps its first blank";
  EXPECT_EQ(slice(buffer, 140, 9), cat({ascii("XY"), fill(7, 0)}));
  EXPECT_EQ(slice(buffer, 210, 9), cat({ascii("SYSTEM01"), fill(1, 0)}));
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(slice(buffer, i * 70 + 9, 61), slice(list, i * 70 + 9, 61)) << "entry " << i;
  }
  EXPECT_EQ(slice(buffer, 280, kGuardSize), fill(kGuardSize, kGuard));
}

TEST_F(EciApiTest, ListSystemsReturnsTheReplyRc) {
  Bytes buffer(70, kStale);
  unsigned short systems = 1;
  gateway->expect(32 + 19).send(listReply(0, static_cast<uint32_t>(QVA_ERR_NO_SYSTEMS), {}));
  EXPECT_EQ(QVA_listSystems(token, &systems, reinterpret_cast<QVA_SYSTEM_ENTRY *>(buffer.data())),
            QVA_ERR_NO_SYSTEMS);
  EXPECT_EQ(systems, 0);
  EXPECT_EQ(buffer, Bytes(70, kStale));
}

TEST_F(EciApiTest, ServerListLongerThanTheCapacityIsCutAndTheNextCallWorks) {
  const Bytes list = cat({entry("ONE      ", {}), entry("TWO      ", {}), entry("THREE    ", {}), entry("FOUR     ", {})});
  Bytes buffer = cat({fill(2 * 70, kStale), fill(kGuardSize, kGuard)});
  unsigned short systems = 2;
  gateway->expect(32 + 19).send(listReply(4, 0, list));
  EXPECT_EQ(QVA_listSystems(token, &systems, reinterpret_cast<QVA_SYSTEM_ENTRY *>(buffer.data())),
            QVA_ERR_MORE_SYSTEMS);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(slice(lastRequest(), 32 + 4, 4), hex("00000002"));
  EXPECT_EQ(systems, 4) << "the number the Gateway reports";
  EXPECT_EQ(slice(buffer, 0, 9), cat({ascii("ONE"), fill(6, 0)}));
  EXPECT_EQ(slice(buffer, 70, 9), cat({ascii("TWO"), fill(6, 0)}));
  EXPECT_EQ(slice(buffer, 9, 61), slice(list, 9, 61));
  EXPECT_EQ(slice(buffer, 140, kGuardSize), fill(kGuardSize, kGuard)) << "nothing past capacity*70 bytes";
  expectNextCallWorks();
}

// ---- The password and the trace --------------------------------------------------------------

TEST_F(EciApiTest, PasswordNeverReachesTheTraceAtLevel5) {
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), pattern(100)));
  TraceCapture trace(5);
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  const std::string text = trace.text();
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(slice(lastRequest(), 32 + 45, 16), ascii(kPassword)) << "sent unchanged";
  EXPECT_EQ(std::memcmp(parms.eci_password, kPassword.data(), 16), 0) << "the caller's block is not touched";

  EXPECT_EQ(text.find("S3cr3t"), std::string::npos);
  std::string packed = text;
  packed.erase(std::remove(packed.begin(), packed.end(), ' '), packed.end());
  EXPECT_EQ(packed.find("53336372337450617373"), std::string::npos) << "the password in hex";

  // The block is dumped whole, as this platform lays it out, on the way in and out.
  const std::string size = std::to_string(sizeof(ECI_PARMS));
  for (const char *way : {"Input", "Output"})
    EXPECT_EQ(countLines(text, 3323, "DEBUG", R"(API\.QVA_ECI_Execute\(eciParmsSize=)" + size + R"(\) )" + way + " Eci Stucture "), 1)
        << text;
  int parmDumps = 0;
  int requestDumps = 0;
  for (const auto &d : dumps(text)) {
    EXPECT_FALSE(contains(d.bytes, ascii(kPassword))) << d.point << " " << d.message;
    if (d.point == 3325) {
      ++parmDumps;
      EXPECT_TRUE(std::regex_match(
          d.message, std::regex(R"(API\.QVA_ECI_Execute EciParms=0x[0-9a-f]+ len=)" + size + " stopword=00000000")))
          << d.message;
      ASSERT_EQ(d.bytes.size(), sizeof(ECI_PARMS));
      EXPECT_EQ(slice(d.bytes, offsetof(ECI_PARMS, eci_password), 16), fill(16, '*'));
      EXPECT_EQ(slice(d.bytes, offsetof(ECI_PARMS, eci_userid), 16), ascii("USER0001        ")) << "only the password is hidden";
    } else if (d.message.rfind("clapi_socketbuffer.flushBuffer data=", 0) == 0) {
      ++requestDumps;
      EXPECT_EQ(d.point, 1526);
      EXPECT_TRUE(std::regex_match(d.message, std::regex(R"(clapi_socketbuffer\.flushBuffer data=0x[0-9a-f]+ len=227 stopword=00000000)")))
          << d.message;
      ASSERT_EQ(d.bytes.size(), 227u);
      EXPECT_EQ(slice(d.bytes, 32 + 45, 16), fill(16, '*'));
      EXPECT_EQ(slice(d.bytes, 32 + 29, 16), ascii("USER0001        "));
    }
  }
  EXPECT_EQ(parmDumps, 2) << "input and output";
  EXPECT_EQ(requestDumps, 1);
}

}  // namespace
