// ECI program calls and the server list through a live connection: what the
// sample programs return, units of work, the send and receive limits, the
// server list and its trimming, and the password kept out of the trace.
#include "e2e_support.h"

using namespace e2e;

namespace {

class EciTest : public ::testing::Test {
 protected:
  void SetUp() override { startWith({}); }
  void TearDown() override {
    if (tok_ != nullptr) {
      EXPECT_EQ(QVA_closeGatewayConnection(&tok_), QVA_OK);
    }
  }

  void startWith(qvaemu::Options options) {
    gw_ = std::make_unique<qvaemu::Gateway>(std::move(options));
    E2E_START(*gw_);
    ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_->port(), &tok_, 5), QVA_OK);
  }
  // Closes the connection of SetUp and opens one to a Gateway of its own.
  void restartWith(qvaemu::Options options) {
    ASSERT_EQ(QVA_closeGatewayConnection(&tok_), QVA_OK);
    gw_.reset();
    startWith(std::move(options));
  }

  int execute(ECI_PARMS& parms) { return QVA_ECI_Execute(tok_, &parms); }

  // The messages connection 0 sent, once the last one has arrived whole.
  std::vector<Bytes> sentMessages(size_t expectedBytes) {
    EXPECT_TRUE(gw_->waitForReceived(0, expectedBytes, kPatience));
    return splitMessages(gw_->received(0));
  }

  std::unique_ptr<qvaemu::Gateway> gw_;
  QvaGatewayToken* tok_ = nullptr;
};

// ---- Sample programs ---------------------------------------------------------------

TEST_F(EciTest, EchoSendsTheRequestByteForByteAndGetsItsCommareaBack) {
  GuardedArea area(5);
  area.set("hello");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  setField(parms.eci_userid, "USER1");
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(), "hello");
  EXPECT_TRUE(area.guardIntact());
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), std::string(4, '\0'));
  EXPECT_EQ(parms.eci_luw_token, 0);

  const Bytes expected = concat({
      // Header: "Gate", version, flow type 1, reserved, qualifier, name "ECI", flag, body length 100.
      {0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 'E', 'C', 'I', 0x00, 0x00, 0x00, 0x00, 0x64},
      // Call type 1, extend mode 0, LUW 0, spare word and byte, server name length 8.
      {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
       0x00, 0x00, 0x00, 0x00, 0x08},
      bytesOf("QVADEMO "), bytesOf("USER1           "), bytesOf("                "), bytesOf("ECHO    "),
      // Transaction id (four NULs), no extra data, COMMAREA length 5, no send or receive limit.
      {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00},
      bytesOf("hello"),
      // No channel, time-out 0, trailer flag, no extensions, trailer word.
      {0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00},
  });
  ASSERT_EQ(expected.size(), 132u);
  const auto messages = sentMessages(55 + 132);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0], handshakeBytes());
  EXPECT_EQ(messages[1], expected);
}

TEST_F(EciTest, UpperReturnsTheCommareaInCapitals) {
  GuardedArea area(16);
  area.set("Mixed case 123!");
  ECI_PARMS parms = eciParms("UPPER", area.data(), area.length());
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(), std::string("MIXED CASE 123!") + '\0');
  EXPECT_TRUE(area.guardIntact());
}

TEST_F(EciTest, AShortReplyLeavesTheRestOfTheCommareaZero) {
  GuardedArea area(8);
  area.set("abcdefgh");
  ECI_PARMS parms = eciParms("SHORT", area.data(), area.length());
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(), std::string("abcd") + std::string(4, '\0'));
  EXPECT_TRUE(area.guardIntact());
}

TEST_F(EciTest, AnAbendReturnsItsCode) {
  GuardedArea area(8);
  area.set("XY12rest");
  ECI_PARMS parms = eciParms("ABEND", area.data(), area.length());
  EXPECT_EQ(execute(parms), ECI_ERR_TRANSACTION_ABEND);
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), "XY12");

  GuardedArea blank(8, ' ');
  ECI_PARMS plain = eciParms("ABEND", blank.data(), blank.length());
  EXPECT_EQ(execute(plain), ECI_ERR_TRANSACTION_ABEND);
  EXPECT_EQ(std::string(plain.eci_abend_code, 4), "ABND");
  EXPECT_TRUE(blank.guardIntact());
}

TEST_F(EciTest, AnUnknownProgramAbendsWithAei0) {
  GuardedArea area(4);
  ECI_PARMS parms = eciParms("NOSUCH", area.data(), area.length());
  EXPECT_EQ(execute(parms), ECI_ERR_TRANSACTION_ABEND);
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), "AEI0");
}

TEST_F(EciTest, AnUnknownServerIsRefused) {
  GuardedArea area(4);
  area.set("abc");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length(), "NOSUCH");
  EXPECT_EQ(execute(parms), ECI_ERR_UNKNOWN_SERVER);
  // The reply carries no data for the COMMAREA's length: it reads back as zeros.
  EXPECT_EQ(area.text(), std::string(4, '\0'));
  // The connection is still good.
  area.set("abc");
  ECI_PARMS good = eciParms("ECHO", area.data(), area.length(), "QVATEST");
  EXPECT_EQ(execute(good), ECI_NO_ERROR);
  EXPECT_EQ(area.text(3), "abc");
}

TEST_F(EciTest, TheGatewayChecksUserAndPassword) {
  qvaemu::Options options;
  options.userId = "ALICE";
  options.password = "s3cret";
  restartWith(options);
  ASSERT_NE(tok_, nullptr);
  GuardedArea area(4);
  area.set("abc");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  EXPECT_EQ(execute(parms), ECI_ERR_SECURITY_ERROR);
  setField(parms.eci_userid, "ALICE");
  setField(parms.eci_password, "wrong");
  EXPECT_EQ(execute(parms), ECI_ERR_SECURITY_ERROR);
  setField(parms.eci_userid, "BOB");
  setField(parms.eci_password, "s3cret");
  EXPECT_EQ(execute(parms), ECI_ERR_SECURITY_ERROR);
  setField(parms.eci_userid, "ALICE");
  area.set("abc");
  EXPECT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(3), "abc");
}

TEST_F(EciTest, AProgramThatOutrunsTheEciTimeoutGivesResponseTimeout) {
  GuardedArea area(8, ' ');
  area.set("5000");  // the program would sleep 5 s; the Gateway gives up after 1 s
  ECI_PARMS parms = eciParms("SLEEP", area.data(), area.length());
  parms.eci_timeout = 1;
  EXPECT_EQ(execute(parms), ECI_ERR_RESPONSE_TIMEOUT);
  const auto messages = sentMessages(55 + 32 + 103);
  ASSERT_EQ(messages.size(), 2u);
  // The time-out travels after the channel byte, unchanged.
  EXPECT_EQ(slice(messages[1], 32 + 84 + 8, 2), (Bytes{0x00, 0x01}));
}

// ---- Units of work -------------------------------------------------------------------

TEST_F(EciTest, AnExtendedUnitKeepsItsTokenUntilCommitted) {
  GuardedArea area(6);
  area.set("first");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  parms.eci_extend_mode = ECI_EXTENDED;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  const int token = parms.eci_luw_token;
  EXPECT_NE(token, 0);
  EXPECT_EQ(area.text(5), "first");

  area.set("second");
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(parms.eci_luw_token, token);
  EXPECT_EQ(area.text(), "second");

  // Commit sends no COMMAREA and reads none back; the unit ends.
  area.set("commit");
  parms.eci_extend_mode = ECI_COMMIT;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(parms.eci_luw_token, 0);
  EXPECT_EQ(area.text(), "commit");
  EXPECT_TRUE(area.guardIntact());

  const size_t withData = 32 + 95 + 6;
  const auto messages = sentMessages(55 + 2 * withData + 32 + 95);
  ASSERT_EQ(messages.size(), 4u);
  const Bytes& commit = messages[3];
  ASSERT_EQ(commit.size(), 32u + 95u);
  EXPECT_EQ(be32(commit, 28), 95u);  // body length
  EXPECT_EQ(be32(commit, 32 + 4), 2u);  // extend mode
  EXPECT_EQ(be32(commit, 32 + 8), static_cast<uint32_t>(token));
  EXPECT_EQ(be32(commit, 32 + 77), 6u);  // the COMMAREA length still travels
  EXPECT_EQ(slice(commit, 32 + 81, 3), (Bytes{0x00, 0x00, 0x00}));  // no limits, no channel
  // Second call of the unit carried the token the first one got.
  EXPECT_EQ(be32(messages[2], 32 + 8), static_cast<uint32_t>(token));

  // The ended unit is gone.
  parms.eci_extend_mode = ECI_EXTENDED;
  parms.eci_luw_token = token;
  EXPECT_EQ(execute(parms), ECI_ERR_LUW_TOKEN);
}

TEST_F(EciTest, BackoutEndsAUnitAndAnUnknownTokenIsRefused) {
  GuardedArea area(4);
  area.set("abc");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  parms.eci_extend_mode = ECI_EXTENDED;
  parms.eci_luw_token = 0x1234;
  EXPECT_EQ(execute(parms), ECI_ERR_LUW_TOKEN);

  parms.eci_luw_token = 0;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  const int token = parms.eci_luw_token;
  ASSERT_NE(token, 0);
  parms.eci_extend_mode = ECI_BACKOUT;
  EXPECT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(parms.eci_luw_token, 0);
  parms.eci_extend_mode = ECI_EXTENDED;
  parms.eci_luw_token = token;
  EXPECT_EQ(execute(parms), ECI_ERR_LUW_TOKEN);
}

// ---- Send and receive limits -----------------------------------------------------------

TEST_F(EciTest, SendLengthLimitsTheBytesSent) {
  GuardedArea area(20);
  area.set("0123456789abcdefghij");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  parms.eci_send_length = 5;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  // The program saw five bytes and zeros, and gave all 20 back.
  EXPECT_EQ(area.text(), "01234" + std::string(15, '\0'));
  EXPECT_TRUE(area.guardIntact());

  const auto messages = sentMessages(55 + 32 + 99 + 5);
  ASSERT_EQ(messages.size(), 2u);
  const Bytes& req = messages[1];
  EXPECT_EQ(be32(req, 28), 104u);
  EXPECT_EQ(be32(req, 32 + 77), 20u);
  EXPECT_EQ(slice(req, 32 + 81, 6), (Bytes{0xFF, 0x00, 0x00, 0x00, 0x05, 0x00}));
  EXPECT_EQ(slice(req, 32 + 87, 5), bytesOf("01234"));
}

TEST_F(EciTest, SendLengthAboveTheCommareaLengthIsCutToIt) {
  GuardedArea area(10);
  area.set("0123456789");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  parms.eci_send_length = 300;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(), "0123456789");
  const auto messages = sentMessages(55 + 32 + 99 + 10);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(slice(messages[1], 32 + 81, 5), (Bytes{0xFF, 0x00, 0x00, 0x00, 0x0A}));
}

TEST_F(EciTest, ReceiveLengthLimitsTheBytesReturned) {
  GuardedArea area(12);
  area.set("abcdefghijkl");
  ECI_PARMS parms = eciParms("UPPER", area.data(), area.length());
  parms.eci_receive_length = 4;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(), "ABCD" + std::string(8, '\0'));
  EXPECT_TRUE(area.guardIntact());

  const auto messages = sentMessages(55 + 32 + 99 + 12);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(slice(messages[1], 32 + 81, 6), (Bytes{0x00, 0xFF, 0x00, 0x00, 0x00, 0x04}));
  EXPECT_EQ(slice(messages[1], 32 + 87, 12), bytesOf("abcdefghijkl"));
}

// ---- Server list -----------------------------------------------------------------------

TEST_F(EciTest, ListSystemsReturnsTheServersWithTrimmedNames) {
  GuardedList list(4);
  unsigned short count = 4;
  ASSERT_EQ(QVA_listSystems(tok_, &count, list.data()), ECI_NO_ERROR);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(nameOf(list[0]), trimmedName("QVADEMO"));
  EXPECT_EQ(descriptionOf(list[0]), sentDescription("Emulated demonstration server"));
  EXPECT_EQ(nameOf(list[1]), trimmedName("QVATEST"));
  EXPECT_EQ(descriptionOf(list[1]), sentDescription("Emulated test server"));
  // Entries 2 and 3 were not sent and stay as they were.
  const auto* untouched = reinterpret_cast<const uint8_t*>(&list[2]);
  EXPECT_TRUE(std::all_of(untouched, untouched + 2 * sizeof(QVA_SYSTEM_ENTRY),
                          [](uint8_t b) { return b == GuardedList::kCanary; }));
  EXPECT_TRUE(list.guardIntact());

  // Call type 9 with the capacity, then the trailer: a body of 19 bytes.
  const auto messages = sentMessages(55 + 32 + 19);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(slice(messages[1], 28, 4), (Bytes{0x00, 0x00, 0x00, 0x13}));
  EXPECT_EQ(slice(messages[1], 32, 19), (Bytes{0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,
                                               0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00}));
}

TEST_F(EciTest, ListSystemsTrimsNamesOfEveryLength) {
  qvaemu::Options options;
  options.servers = {{"A", "one letter"}, {"EIGHTCHR", "full width"}, {"MID 4", "inner blank kept"}};
  restartWith(options);
  GuardedList list(3);
  unsigned short count = 3;
  ASSERT_EQ(QVA_listSystems(tok_, &count, list.data()), ECI_NO_ERROR);
  ASSERT_EQ(count, 3);
  EXPECT_EQ(nameOf(list[0]), trimmedName("A"));
  EXPECT_EQ(nameOf(list[1]), trimmedName("EIGHTCHR"));
  EXPECT_EQ(nameOf(list[2]), trimmedName("MID 4"));
  EXPECT_EQ(descriptionOf(list[2]), sentDescription("inner blank kept"));
  EXPECT_TRUE(list.guardIntact());
}

TEST_F(EciTest, ListSystemsWithASmallListSaysHowManyThereAre) {
  GuardedList list(1);
  unsigned short count = 1;
  EXPECT_EQ(QVA_listSystems(tok_, &count, list.data()), QVA_ERR_MORE_SYSTEMS);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(nameOf(list[0]), trimmedName("QVADEMO"));
  EXPECT_TRUE(list.guardIntact());
  // The connection is in step for the next call.
  GuardedArea area(4);
  area.set("abc");
  ECI_PARMS parms = eciParms("UPPER", area.data(), area.length());
  EXPECT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(3), "ABC");
}

TEST_F(EciTest, ListSystemsOfAGatewayWithoutServers) {
  qvaemu::Options options;
  options.useDefaultServers = false;
  restartWith(options);
  GuardedList list(2);
  unsigned short count = 2;
  EXPECT_EQ(QVA_listSystems(tok_, &count, list.data()), QVA_ERR_NO_SYSTEMS);
  EXPECT_EQ(count, 0);
  const auto* p = reinterpret_cast<const uint8_t*>(&list[0]);
  EXPECT_TRUE(std::all_of(p, p + 2 * sizeof(QVA_SYSTEM_ENTRY), [](uint8_t b) { return b == GuardedList::kCanary; }));
}

// ---- The password and the trace ------------------------------------------------------------

TEST_F(EciTest, ThePasswordTravelsUnchangedButNeverReachesTheTrace) {
  qvaemu::Options options;
  options.userId = "ALICE";
  options.password = "Pa55w0rd";
  restartWith(options);
  GuardedArea area(8);
  area.set("payload");
  ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
  setField(parms.eci_userid, "ALICE");
  setField(parms.eci_password, "Pa55w0rd");

  TraceCapture trace(5);
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  const std::string text = trace.finish();

  // The caller's block keeps the password; the Gateway got it as it was.
  EXPECT_EQ(std::string(parms.eci_password, 16), "Pa55w0rd        ");
  const auto messages = sentMessages(55 + 32 + 95 + 8);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(slice(messages[1], 32 + 45, 16), bytesOf("Pa55w0rd        "));

  const Bytes secret = bytesOf("Pa55w0rd");
  const Bytes stars(16, '*');
  EXPECT_EQ(text.find("Pa55w0rd"), std::string::npos);
  EXPECT_EQ(text.find("50613535"), std::string::npos);
  EXPECT_EQ(text.find("77307264"), std::string::npos);

  int parmDumps = 0;
  int sendDumps = 0;
  for (const auto& d : traceDumps(text)) {
    EXPECT_FALSE(contains(d.bytes, secret)) << d.point << " " << d.message;
    if (d.point == 3325) {
      // The parameter block: password at offset 26, user id at 10.
      ++parmDumps;
      ASSERT_EQ(d.bytes.size(), sizeof(ECI_PARMS));
      EXPECT_EQ(slice(d.bytes, 26, 16), stars);
      EXPECT_EQ(slice(d.bytes, 10, 16), bytesOf("ALICE           "));
    }
    if (d.point == 1526 && d.bytes.size() == 32 + 95 + 8) {
      // The request as it left the socket buffer.
      ++sendDumps;
      EXPECT_EQ(slice(d.bytes, 32 + 45, 16), stars);
      EXPECT_EQ(slice(d.bytes, 32 + 29, 16), bytesOf("ALICE           "));
    }
  }
  EXPECT_EQ(parmDumps, 2);  // input and output
  EXPECT_EQ(sendDumps, 1);
}

}  // namespace
