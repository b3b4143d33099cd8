// Opening and closing Gateway connections through the C interface: argument
// checks in their order, connect failures, what a close does to the caller's
// pointer, the bytes a Gateway sees, and which thread may use a token.
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "e2e_support.h"

using namespace e2e;

namespace {

class ConnectionApiTest : public ::testing::Test {
 protected:
  void SetUp() override { E2E_START(gw_); }
  void TearDown() override { EXPECT_TRUE(tokenListEmpty()) << "a test left a connection open"; }

  int open(QvaGatewayToken** tok, int timeout = 5) {
    return QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), tok, timeout);
  }

  qvaemu::Gateway gw_;
};

// The port is checked first, then the token pointer, the time-out and the host.
TEST_F(ConnectionApiTest, ArgumentsAreCheckedInTheirOrderBeforeAnythingIsConnected) {
  struct Case {
    const char* host;
    int port;
    bool tokenPointer;
    int timeout;
    int rc;
  };
  for (const Case& c : {
           Case{kLoopback, 0, true, 5, QVA_ERR_BADPORT}, Case{kLoopback, 65536, true, 5, QVA_ERR_BADPORT},
           Case{kLoopback, -1, true, 5, QVA_ERR_BADPORT}, Case{kLoopback, 0, false, 5, QVA_ERR_BADPORT},
           Case{nullptr, 65536, true, 5, QVA_ERR_BADPORT}, Case{nullptr, 0, true, 5, QVA_ERR_BADPORT},
           Case{kLoopback, 1, false, 5, QVA_ERR_NULLGWTOKPTR}, Case{kLoopback, 65535, false, 5, QVA_ERR_NULLGWTOKPTR},
           Case{kLoopback, 1, true, 3601, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{kLoopback, 65535, true, 3601, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{kLoopback, 7, true, -1, QVA_ERR_INVALIDTIMEOUTPARM}, Case{nullptr, 7, true, 3601, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{nullptr, 7, true, 3600, QVA_ERR_NULLADDRESS}, Case{nullptr, 7, true, 5, QVA_ERR_NULLADDRESS},
       }) {
    QvaGatewayToken* tok = nullptr;
    EXPECT_EQ(QVA_openRemoteGatewayConnection(c.host, c.port, c.tokenPointer ? &tok : nullptr, c.timeout), c.rc)
        << (c.host ? c.host : "NULL") << ":" << c.port << " timeout " << c.timeout;
    EXPECT_EQ(tok, nullptr);
  }
  EXPECT_EQ(gw_.connectionCount(), 0u);
  // 3600 itself passes.
  QvaGatewayToken* tok = nullptr;
  ASSERT_EQ(open(&tok, 3600), QVA_OK);
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
}

TEST_F(ConnectionApiTest, ArgumentFailuresShowOnlyInTheExitLine) {
  QvaGatewayToken* tok = nullptr;
  TraceCapture trace(3);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, 0, &tok, 5), QVA_ERR_BADPORT);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, 7, &tok, -1), QVA_ERR_INVALIDTIMEOUTPARM);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(nullptr, 7, &tok, 5), QVA_ERR_NULLADDRESS);
  const auto lines = traceLines(trace.text());

  std::vector<std::string> entries, exits;
  for (const auto& l : lines) {
    EXPECT_NE(l.word, "*EXC*") << l.message;
    EXPECT_TRUE(l.word == "ENTRY" || l.word == "EXIT") << l.word << " " << l.message;
    if (l.point == 1002) entries.push_back(l.message);
    if (l.point == 1003) exits.push_back(l.message);
  }
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_TRUE(std::regex_match(
      entries[0], std::regex(R"(API\.QVA_openRemoteGatewayConnection\(hostname=127\.0\.0\.1, port=0, &gwTokPtr=0x0x[0-9a-f]+, connTimeout=5 )")))
      << entries[0];
  EXPECT_TRUE(std::regex_match(
      entries[2], std::regex(R"(API\.QVA_openRemoteGatewayConnection\(hostname=NULL, port=7, &gwTokPtr=0x0x[0-9a-f]+, connTimeout=5 )")))
      << entries[2];
  ASSERT_EQ(exits.size(), 3u);
  EXPECT_EQ(exits[0], "API.QVA_openRemoteGatewayConnection(port=0) rc=-107 QVA_ERR_BADPORT ");
  EXPECT_EQ(exits[1], "API.QVA_openRemoteGatewayConnection(port=7) rc=-138 QVA_ERR_INVALIDTIMEOUTPARM ");
  EXPECT_EQ(exits[2], "API.QVA_openRemoteGatewayConnection(port=7) rc=-133 QVA_ERR_NULLADDRESS ");
}

TEST_F(ConnectionApiTest, UnresolvableHostIsBadHost) {
  QvaGatewayToken* tok = nullptr;
  TraceCapture trace(1);
  EXPECT_EQ(QVA_openRemoteGatewayConnection("no-such-host.invalid", gw_.port(), &tok, 5), QVA_ERR_BADHOST);
  EXPECT_EQ(tok, nullptr);
  const auto lines = traceLines(trace.text());
  const std::string prefix =
      "clapi_gwycon.getHostInfoUnable to resolve host (no-such-host.invalid:" + std::to_string(gw_.port()) + "): ";
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const TraceLine& l) {
    return l.point == 2001 && l.word == "*EXC*" && l.message.rfind(prefix, 0) == 0;
  }));
}

TEST_F(ConnectionApiTest, RefusedConnectIsConnectFailed) {
  const int port = unusedPort();
  ASSERT_GT(port, 0);
  QvaGatewayToken* tok = nullptr;
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, port, &tok, 0), QVA_ERR_CONNECTFAILED);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, port, &tok, 5), QVA_ERR_CONNECTFAILED);
  EXPECT_EQ(tok, nullptr);
}

TEST_F(ConnectionApiTest, CloseRefusesNullPointersWithTheirOwnLines) {
  TraceCapture trace(1);
  EXPECT_EQ(QVA_closeGatewayConnection(nullptr), QVA_ERR_NULLGWTOKPTR);
  QvaGatewayToken* tok = nullptr;
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_ERR_NULLGWTOK);
  const auto lines = traceLines(trace.text());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].point, 1005);
  EXPECT_EQ(lines[0].word, "*EXC*");
  EXPECT_EQ(lines[0].message, "API.QVA_closeGatewayConnection(&gwTokPtr=(nil)) Null gateway token Pointer");
  EXPECT_EQ(lines[1].point, 1045);
  EXPECT_EQ(lines[1].word, "*EXC*");
  EXPECT_EQ(lines[1].message, "API.QVA_closeGatewayConnection(gwTokPtr=(nil)) Null gateway token");
}

TEST_F(ConnectionApiTest, ATokenTheLibraryDidNotIssueIsRefusedUntouched) {
  // Looks like a token from the outside, but was never on the list.
  struct {
    char eyecatcher[8];
    int32_t words[16];
  } fake;
  std::memcpy(fake.eyecatcher, "QVAGWTOK", 8);
  std::fill(std::begin(fake.words), std::end(fake.words), -1);
  auto* forged = reinterpret_cast<QvaGatewayToken*>(&fake);

  // Once with an empty list and once with a real token on it.
  for (int round = 0; round < 2; ++round) {
    QvaGatewayToken* real = nullptr;
    if (round == 1) {
      ASSERT_EQ(open(&real), QVA_OK);
    }
    QvaGatewayToken* tok = forged;
    char data[8] = "abc";
    ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
    unsigned short count = 2;
    QVA_SYSTEM_ENTRY list[2];
    EXPECT_EQ(QVA_ECI_Execute(tok, &parms), QVA_ERR_BADGWTOK);
    EXPECT_EQ(QVA_listSystems(tok, &count, list), QVA_ERR_BADGWTOK);
    EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_ERR_BADGWTOK);
    EXPECT_EQ(tok, forged);
    EXPECT_EQ(std::memcmp(fake.eyecatcher, "QVAGWTOK", 8), 0);
    if (real != nullptr) {
      EXPECT_EQ(QVA_closeGatewayConnection(&real), QVA_OK);
    }
  }
}

TEST_F(ConnectionApiTest, CloseClearsTheCallersPointerAndTheOldValueIsRefused) {
  QvaGatewayToken* tok = nullptr;
  QvaGatewayToken* keep = nullptr;
  ASSERT_EQ(open(&tok), QVA_OK);
  ASSERT_NE(tok, nullptr);
  ASSERT_EQ(open(&keep), QVA_OK);  // the list is not empty when the stale value comes back
  QvaGatewayToken* stale = tok;
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
  EXPECT_EQ(tok, nullptr);
  char data[4] = "abc";
  ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
  EXPECT_EQ(QVA_ECI_Execute(stale, &parms), QVA_ERR_BADGWTOK);
  EXPECT_EQ(QVA_closeGatewayConnection(&stale), QVA_ERR_BADGWTOK);
  EXPECT_EQ(QVA_closeGatewayConnection(&keep), QVA_OK);
  EXPECT_EQ(keep, nullptr);
}

TEST_F(ConnectionApiTest, CloseTracesItsEventWithTheCallersPointerAddress) {
  QvaGatewayToken* tok = nullptr;
  ASSERT_EQ(open(&tok), QVA_OK);
  TraceCapture trace(3);
  ASSERT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
  const auto lines = traceLines(trace.text());
  const std::string address = ptrText(&tok);
  const std::string event = "API.QVA_closeGatewayConnection Closed Gateway connection for token " + address;
  const std::string exit = "API.QVA_closeGatewayConnection(&gwTokPtrPtr=" + address + ") rc=0 QVA_OK ";
  auto has = [&](int point, const char* word, const std::string& message) {
    return std::any_of(lines.begin(), lines.end(), [&](const TraceLine& l) {
      return l.point == point && l.word == word && l.message == message;
    });
  };
  EXPECT_TRUE(has(1004, "ENTRY", "API.QVA_closeGatewayConnection(&gwTokPtr=" + address + ")"));
  EXPECT_TRUE(has(1133, "EVENT", event));
  EXPECT_TRUE(has(1006, "EXIT", exit));
}

// ---- Ownership -------------------------------------------------------------------

TEST_F(ConnectionApiTest, ATokenBelongsToTheThreadThatOpenedIt) {
  QvaGatewayToken* tok = nullptr;
  ASSERT_EQ(open(&tok), QVA_OK);
  int executeRc = 0, listRc = 0, closeRc = 0;
  QvaGatewayToken* seenByOther = nullptr;
  std::thread other([&] {
    char data[8] = "other";
    ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
    executeRc = QVA_ECI_Execute(tok, &parms);
    unsigned short count = 2;
    QVA_SYSTEM_ENTRY list[2];
    listRc = QVA_listSystems(tok, &count, list);
    QvaGatewayToken* copy = tok;
    closeRc = QVA_closeGatewayConnection(&copy);
    seenByOther = copy;
  });
  other.join();
  EXPECT_EQ(executeRc, QVA_ERR_TIDMISMATCH);
  EXPECT_EQ(listRc, QVA_ERR_TIDMISMATCH);
  EXPECT_EQ(closeRc, QVA_ERR_TIDMISMATCH);
  EXPECT_EQ(seenByOther, tok);

  // Nothing was sent for the refused calls; the owner carries on.
  GuardedArea area(8);
  area.set("owner");
  ECI_PARMS parms = eciParms("UPPER", area.data(), area.length());
  EXPECT_EQ(QVA_ECI_Execute(tok, &parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(5), "OWNER");
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
  EXPECT_EQ(tok, nullptr);
}

// The process id is remembered between calls; a forked child must still be
// told apart from the parent that opened the connection.
TEST_F(ConnectionApiTest, AForkedChildMayNotUseItsParentsToken) {
  QvaGatewayToken* tok = nullptr;
  ASSERT_EQ(open(&tok), QVA_OK);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char data[8] = "child";
    ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
    _exit(QVA_ECI_Execute(tok, &parms) == QVA_ERR_PIDMISMATCH ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child was not refused with -123";
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
}

TEST_F(ConnectionApiTest, CloseAllClosesTokensOfEveryThread) {
  QvaGatewayToken* fromOther = nullptr;
  int openRc = -1;
  std::thread other([&] { openRc = open(&fromOther); });
  other.join();
  ASSERT_EQ(openRc, QVA_OK);
  QvaGatewayToken* mine = nullptr;
  ASSERT_EQ(open(&mine), QVA_OK);

  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
  // Each connection got its close request before its socket was closed.
  for (size_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(gw_.waitForClosed(i, kPatience)) << i;
    EXPECT_EQ(gw_.received(i), cat({handshakeRequest(), closeRequest()})) << i;
  }
  // Close-all does not know the callers' pointers; the old values are refused.
  EXPECT_EQ(QVA_closeGatewayConnection(&mine), QVA_ERR_BADGWTOK);
  EXPECT_EQ(QVA_closeGatewayConnection(&fromOther), QVA_ERR_BADGWTOK);
  EXPECT_TRUE(tokenListEmpty());
}

}  // namespace
