// ECI program calls and the server list through a live connection: what the
// sample programs give the caller, units of work, and the server list.
// The request and reply layouts, the send and receive limits, name trimming
// and the password in the trace are pinned byte for byte by the wire tests.
#include "e2e_support.h"

using namespace e2e;

namespace {

class EciTest : public ::testing::Test {
 protected:
  void SetUp() override {
    E2E_START(gw_);
    ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &tok_, 5), QVA_OK);
  }
  void TearDown() override {
    if (tok_ != nullptr) {
      EXPECT_EQ(QVA_closeGatewayConnection(&tok_), QVA_OK);
    }
  }

  int execute(ECI_PARMS& parms) { return QVA_ECI_Execute(tok_, &parms); }

  qvaemu::Gateway gw_;
  QvaGatewayToken* tok_ = nullptr;
};

// One after another on the same connection, so each also shows that the
// one before left the connection in step.
TEST_F(EciTest, SampleProgramsGiveTheirResultsAbendCodesAndCommareas) {
  struct Case {
    const char* program;
    const char* system;
    std::string commarea;
    int rc;
    std::string abend;
    std::string after;
  };
  const std::string none(4, '\0');
  for (const Case& c : {
           Case{"ECHO", "QVADEMO", "hello", ECI_NO_ERROR, none, "hello"},
           Case{"UPPER", "QVADEMO", "Mixed case 123!", ECI_NO_ERROR, none, "MIXED CASE 123!"},
           Case{"SHORT", "QVADEMO", "abcdefgh", ECI_NO_ERROR, none, "abcd" + none},
           // An abend's reply carries no data for the COMMAREA's length: it reads back as zeros.
           Case{"ABEND", "QVADEMO", "XY12rest", ECI_ERR_TRANSACTION_ABEND, "XY12", none + none},
           Case{"ABEND", "QVADEMO", "        ", ECI_ERR_TRANSACTION_ABEND, "ABND", none + none},
           Case{"NOSUCH", "QVADEMO", "abcd", ECI_ERR_TRANSACTION_ABEND, "AEI0", none},
           Case{"ECHO", "NOSUCH", "abcd", ECI_ERR_UNKNOWN_SERVER, none, none},
           Case{"ECHO", "QVATEST", "abc", ECI_NO_ERROR, none, "abc"},
       }) {
    SCOPED_TRACE(std::string(c.program) + " on " + c.system);
    GuardedArea area(c.commarea.size());
    area.set(c.commarea);
    ECI_PARMS parms = eciParms(c.program, area.data(), area.length());
    setField(parms.eci_system_name, c.system);
    EXPECT_EQ(execute(parms), c.rc);
    EXPECT_EQ(std::string(parms.eci_abend_code, 4), c.abend);
    EXPECT_EQ(parms.eci_luw_token, 0);
    EXPECT_EQ(area.text(), c.after);
    EXPECT_TRUE(area.guardIntact());
  }
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
  ASSERT_TRUE(gw_.waitForReceived(0, 55 + 2 * withData + 32 + 95, kPatience));
  const auto messages = splitMessages(gw_.received(0));
  ASSERT_EQ(messages.size(), 4u);
  // The second call carried the token the first one got, and so did the commit.
  EXPECT_EQ(be32(messages[2], 32 + 8), static_cast<uint32_t>(token));
  ASSERT_EQ(messages[3].size(), 32u + 95u);
  EXPECT_EQ(be32(messages[3], 32 + 4), 2u);  // extend mode
  EXPECT_EQ(be32(messages[3], 32 + 8), static_cast<uint32_t>(token));

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

// ---- Server list -----------------------------------------------------------------------

TEST_F(EciTest, ListSystemsFillsOnlyTheEntriesTheGatewaySent) {
  GuardedList list(4);
  unsigned short count = 4;
  ASSERT_EQ(QVA_listSystems(tok_, &count, list.data()), ECI_NO_ERROR);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(nameOf(list[0]), trimmedName("QVADEMO"));
  EXPECT_EQ(nameOf(list[1]), trimmedName("QVATEST"));
  std::string description = "Emulated test server";
  description.resize(60, ' ');
  EXPECT_EQ(std::string(list[1].Description, sizeof list[1].Description), description + '\0');
  EXPECT_TRUE(list.untouchedFrom(2)) << "entries 2 and 3 were not sent and stay as they were";
}

}  // namespace
