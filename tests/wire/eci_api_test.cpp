// QVA_ECI_Execute and QVA_listSystems over a real gateway token: a loopback
// listener in the test answers the handshake, then the scripted replies, then
// the close request. Checks the parameter block against the bytes on the
// wire, the results copied back, the documented handling of oversized
// replies, and that the password never reaches the trace.

#include <gtest/gtest.h>

#include <cstddef>

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

Bytes eciHeader(uint32_t bodyLength) {
  return cat({hex("47617465 10800000 00000001 00000000 00000000 00000003 454349 00"), wire::be32(bodyLength)});
}

// The reply to a program call: luw token, spare word, rc, abend code,
// COMMAREA length, the lengths part, the data and the channel byte.
Bytes programReply(const std::string &luw, const std::string &rc, const std::string &abend,
                   const std::string &commareaLength, const Bytes &lengths, const Bytes &data, uint8_t channel = 0,
                   const Bytes &after = {}) {
  return wire::reply(1, "ECI", cat({hex("00000001"), hex(luw), hex("00000000"), hex(rc), ascii(abend),
                                    hex(commareaLength), lengths, data, Bytes{channel}, after}));
}

Bytes listReply(uint32_t count, uint32_t rc, const Bytes &list) {
  return wire::reply(1, "ECI", cat({hex("00000009"), wire::be32(count), wire::be32(rc),
                                    wire::be32(static_cast<uint32_t>(list.size())), list}));
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
    gateway = wire::FakeGateway::accepting(listener.fd);
    gateway->expect(55).send(wire::reply(5, "BASE", {}));
    ASSERT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", listener.port, &token, 5), QVA_OK);
    ASSERT_NE(token, nullptr);
    ASSERT_TRUE(gateway->drain()) << gateway->errors();
    ASSERT_EQ(gateway->request(0), wire::handshakeRequest());

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
      gateway->expect(33).send(wire::reply(10, "BASE", {}));
      EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_OK);
      EXPECT_TRUE(gateway->drain()) << gateway->errors();
      EXPECT_EQ(gateway->request(gateway->requestCount() - 1), wire::closeRequest());
    }
  }

  // The request as the block above sends it, with the lengths part and the
  // data given.
  Bytes expectedRequest(uint32_t bodyLength, const std::string &callType, const std::string &transId,
                        const std::string &lengths, const Bytes &data) {
    return cat({eciHeader(bodyLength), hex(callType), hex("00000000 01020304 00000000 00 00000008"), ascii("SYSTEM01"),
                ascii("USER0001        "), ascii(kPassword), ascii("PROGRAM1"), ascii(transId), hex("00000000"),
                hex("00000064"), hex(lengths), data, hex("00 0102 00 FFFFFFFF 00000000")});
  }

  Bytes lastRequest() { return gateway->request(gateway->requestCount() - 1); }

  Bytes commarea() const { return wire::slice(area, 0, 100); }
  bool guardIntact() const { return wire::slice(area, 100, kGuardSize) == fill(kGuardSize, kGuard); }

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

  wire::Listener listener;
  std::unique_ptr<wire::FakeGateway> gateway;
  QvaGatewayToken *token = nullptr;
  ECI_PARMS parms{};
  Bytes area;
};

// ---- Requests ------------------------------------------------------------------------

TEST_F(EciApiTest, ExecuteSendsTheParameterBlockAsA227ByteRequest) {
  const Bytes data = wire::pattern(100, 40);
  std::copy(data.begin(), data.end(), area.begin());
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), wire::pattern(100)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(195, "00000001", "TRN1", "00 00", data));
  EXPECT_EQ(commarea(), wire::pattern(100));
  EXPECT_TRUE(guardIntact());
}

TEST_F(EciApiTest, TpnOfFourBlanksTurnsTheCallIntoType12WithTheTpnAsTransid) {
  std::memcpy(parms.eci_tpn, "    ", 4);
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), wire::pattern(100)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(195, "0000000C", "    ", "00 00", fill(100, kStale)));
}

TEST_F(EciApiTest, SendAndReceiveLengthsAreCappedAtTheCommareaLength) {
  parms.eci_send_length = 200;
  parms.eci_receive_length = 300;
  gateway->expect(32 + 203).send(
      programReply("00000001", "00000000", "    ", "00000064", hex("FF 00 00000064"), wire::pattern(100)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(203, "00000001", "TRN1", "FF 00000064 FF 00000064", fill(100, kStale)));
}

TEST_F(EciApiTest, SendAndReceiveLengthsBelowTheCommareaLengthAreSentAsGiven) {
  parms.eci_send_length = 30;
  parms.eci_receive_length = 40;
  gateway->expect(32 + 133).send(
      programReply("00000001", "00000000", "    ", "00000064", hex("FF 00 00000028"), wire::pattern(40)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(133, "00000001", "TRN1", "FF 0000001E FF 00000028", fill(30, kStale)));
  EXPECT_EQ(commarea(), cat({wire::pattern(40), fill(60, 0)}));
}

TEST_F(EciApiTest, ZeroOrNegativeSendAndReceiveLengthsSendNoLimits) {
  parms.eci_send_length = 0;
  parms.eci_receive_length = -5;
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), wire::pattern(100)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), expectedRequest(195, "00000001", "TRN1", "00 00", fill(100, kStale)));
}

TEST_F(EciApiTest, ExtendModeCommitSendsNoCommareaAndLeavesItAlone) {
  parms.eci_extend_mode = ECI_COMMIT;
  gateway->expect(32 + 95).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), {}));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  Bytes expected = expectedRequest(95, "00000001", "TRN1", "00 00", {});
  expected[32 + 7] = 0x02;  // extendMode
  EXPECT_EQ(lastRequest(), expected);
  EXPECT_EQ(commarea(), fill(100, kStale));
  EXPECT_TRUE(guardIntact());
  expectNextCallWorks();
}

// ---- Replies ---------------------------------------------------------------------------

TEST_F(EciApiTest, LuwTokenAndAbendCodeAreCopiedBackAndTheReplyRcReturned) {
  gateway->expect(227).send(
      programReply("0BADF00D", "FFFFFFF9", "ASRA", "00000064", hex("FF 00 0000000A"), wire::pattern(10, 9)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), ECI_ERR_TRANSACTION_ABEND);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(parms.eci_luw_token, 0x0BADF00D);
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), "ASRA");
  EXPECT_EQ(commarea(), cat({wire::pattern(10, 9), fill(90, 0)}));
  EXPECT_TRUE(guardIntact());
}

TEST_F(EciApiTest, ExceptionReplyGivesGatewayExceptionAndTheNextCallWorks) {
  gateway->expect(227).send(wire::reply(6, "ECI", wire::pattern(1500)));
  std::string text;
  {
    wire::TraceFile trace(1);
    EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_ERR_GATEWAY_EXCEPTION);
    text = trace.text();
  }
  EXPECT_EQ(parms.eci_luw_token, 0x01020304);
  EXPECT_EQ(commarea(), fill(100, kStale));
  EXPECT_EQ(wire::traceLines(text, 3225, "*EXC*",
                             "clapi_socketcomms\\.clapiFlowECIRequest An exception occurred in the Gateway daemon$")
                .size(),
            1u)
      << text;
  expectNextCallWorks();
}

TEST_F(EciApiTest, UnknownReplyCallTypeReturnsOkAndLeavesTheBlockAlone) {
  gateway->expect(227).send(wire::reply(1, "ECI", cat({hex("00000063"), wire::pattern(1100)})));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
  EXPECT_EQ(parms.eci_luw_token, 0x01020304);
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), std::string(4, '\0'));
  EXPECT_EQ(commarea(), fill(100, kStale));
  expectNextCallWorks();
}

TEST_F(EciApiTest, OversizedCommareaReplyIsCutLeavesTheGuardAndTheNextCallWorks) {
  const Bytes data = wire::pattern(2500, 17);
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "000009C4", hex("00"), data));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_ERR_INVALID_DATA_LENGTH);
  EXPECT_EQ(commarea(), wire::slice(data, 0, 100));
  EXPECT_TRUE(guardIntact());
  expectNextCallWorks();
}

TEST_F(EciApiTest, ChannelInACommareaReplyGivesSystemErrorAndTheNextCallWorks) {
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), wire::pattern(100),
                                         0x01, wire::pattern(300)));
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_ERR_SYSTEM_ERROR);
  EXPECT_TRUE(guardIntact());
  expectNextCallWorks();
}

// ---- Server list ---------------------------------------------------------------------------

TEST_F(EciApiTest, ListSystemsSendsA19ByteBodyAndTrimsTheNames) {
  const Bytes described = ascii("A description with trailing blanks      ");
  const Bytes list = cat({entry("ABC      ", described), entry("         ", described),
                          entry(std::string("XY\0 \0   ", 9), described), entry("SYSTEM01 ", described)});
  Bytes buffer = cat({fill(4 * 70, kStale), fill(kGuardSize, kGuard)});
  unsigned short systems = 4;
  gateway->expect(32 + 19).send(listReply(4, 0, list));
  EXPECT_EQ(QVA_listSystems(token, &systems, reinterpret_cast<QVA_SYSTEM_ENTRY *>(buffer.data())), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(lastRequest(), cat({eciHeader(19), hex("00000009 00000004 0000 00 FFFFFFFF 00000000")}));
  EXPECT_EQ(systems, 4);
  EXPECT_EQ(wire::slice(buffer, 0, 9), cat({ascii("ABC"), fill(6, 0)}));
  EXPECT_EQ(wire::slice(buffer, 70, 9), cat({ascii(" "), fill(8, 0)})) << "an all-blank name keeps its first blank";
  EXPECT_EQ(wire::slice(buffer, 140, 9), cat({ascii("XY"), fill(7, 0)}));
  EXPECT_EQ(wire::slice(buffer, 210, 9), cat({ascii("SYSTEM01"), fill(1, 0)}));
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(wire::slice(buffer, i * 70 + 9, 61), wire::slice(list, i * 70 + 9, 61)) << "entry " << i;
  }
  EXPECT_EQ(wire::slice(buffer, 280, kGuardSize), fill(kGuardSize, kGuard));
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
  EXPECT_EQ(wire::slice(lastRequest(), 32 + 4, 4), hex("00000002"));
  EXPECT_EQ(systems, 4) << "the number the Gateway reports";
  EXPECT_EQ(wire::slice(buffer, 0, 9), cat({ascii("ONE"), fill(6, 0)}));
  EXPECT_EQ(wire::slice(buffer, 70, 9), cat({ascii("TWO"), fill(6, 0)}));
  EXPECT_EQ(wire::slice(buffer, 9, 61), wire::slice(list, 9, 61));
  EXPECT_EQ(wire::slice(buffer, 140, kGuardSize), fill(kGuardSize, kGuard)) << "nothing past capacity*70 bytes";
  expectNextCallWorks();
}

// ---- The password and the trace --------------------------------------------------------------

TEST_F(EciApiTest, PasswordNeverReachesTheTraceAtLevel5) {
  gateway->expect(227).send(programReply("00000001", "00000000", "    ", "00000064", hex("00"), wire::pattern(100)));
  std::string text;
  {
    wire::TraceFile trace(5, 0);
    EXPECT_EQ(QVA_ECI_Execute(token, &parms), QVA_OK);
    text = trace.text();
  }
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_EQ(wire::slice(lastRequest(), 32 + 45, 16), ascii(kPassword)) << "sent unchanged";
  EXPECT_EQ(std::memcmp(parms.eci_password, kPassword.data(), 16), 0) << "the caller's block is not touched";

  EXPECT_EQ(text.find(kPassword), std::string::npos);
  EXPECT_EQ(text.find("S3cr3t"), std::string::npos);
  std::string hexText = wire::toHex(ascii(kPassword));
  hexText.erase(std::remove(hexText.begin(), hexText.end(), ' '), hexText.end());
  std::string packed = text;
  packed.erase(std::remove(packed.begin(), packed.end(), ' '), packed.end());
  EXPECT_EQ(packed.find(hexText), std::string::npos) << "the password in hex";
  EXPECT_FALSE(wire::contains(wire::allDumpedBytes(text), ascii(kPassword)));

  // The block is dumped whole, as this platform lays it out.
  const std::string size = std::to_string(sizeof(ECI_PARMS));
  const size_t passwordAt = offsetof(ECI_PARMS, eci_password);
  const size_t userAt = offsetof(ECI_PARMS, eci_userid);
  EXPECT_EQ(wire::traceLines(text, 3323, "DEBUG",
                             "API\\.QVA_ECI_Execute\\(eciParmsSize=" + size + "\\) Input Eci Stucture $")
                .size(),
            1u)
      << text;
  EXPECT_EQ(wire::traceLines(text, 3323, "DEBUG",
                             "API\\.QVA_ECI_Execute\\(eciParmsSize=" + size + "\\) Output Eci Stucture $")
                .size(),
            1u);
  int parmDumps = 0;
  int requestDumps = 0;
  for (const auto &d : wire::dumps(text)) {
    if (d.header.find("API.QVA_ECI_Execute EciParms=") != std::string::npos) {
      ++parmDumps;
      EXPECT_TRUE(std::regex_search(d.header, std::regex(wire::linePrefix(3325, "DATA") +
                                                         "API\\.QVA_ECI_Execute EciParms=0x[0-9a-f]+ len=" +
                                                         size + " stopword=00000000$")))
          << d.header;
      ASSERT_EQ(d.bytes.size(), sizeof(ECI_PARMS));
      EXPECT_EQ(wire::slice(d.bytes, passwordAt, 16), fill(16, '*'));
      EXPECT_EQ(wire::slice(d.bytes, userAt, 16), ascii("USER0001        "));
    } else if (d.header.find("clapi_socketbuffer.flushBuffer data=") != std::string::npos) {
      ++requestDumps;
      ASSERT_EQ(d.bytes.size(), 227u);
      EXPECT_EQ(wire::slice(d.bytes, 32 + 45, 16), fill(16, '*'));
    }
  }
  EXPECT_EQ(parmDumps, 2) << "input and output";
  EXPECT_EQ(requestDumps, 1);
}

}  // namespace
