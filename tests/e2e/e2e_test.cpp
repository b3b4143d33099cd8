// The C interface against the Gateway emulator in this process, for what only
// a real conversation shows; the wire tests pin the bytes. Library state is
// process-wide: every test puts it back.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "e2e_support.h"
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "qvatest/bytes.h"
#include "qvatest/net.h"
#include "qvatest/trace.h"

using namespace qvatest;

namespace {

class E2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(gw_.start(&error)) << error;
  }
  void TearDown() override {
    EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
    EXPECT_TRUE(tokenListEmpty()) << "a test left a connection open";
    // Whatever a failed test left behind must not reach the next one.
    while (!tokenListEmpty() && QVA_closeAllGatewayConnections() != QVA_OK) {
    }
  }
  int open(QvaGatewayToken** tok, int timeout = 5) {
    return QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), tok, timeout);
  }

  qvaemu::Gateway gw_;
};

// With a connection of the test's own open throughout.
class Connected : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    ASSERT_EQ(open(&tok_), QVA_OK);
  }
  void TearDown() override {
    if (tok_ != nullptr) {
      EXPECT_EQ(QVA_closeGatewayConnection(&tok_), QVA_OK);
    }
    E2eTest::TearDown();
  }
  int execute(ECI_PARMS& parms) { return QVA_ECI_Execute(tok_, &parms); }

  // TEXT (CHAR, "hello") added first, RAW (BIT, 00 01 02) second.
  static QvaChannel* sampleChannel() {
    QvaChannel* ch = nullptr;
    EXPECT_EQ(ECI_createChannel("SAMPLE", &ch), ECI_NO_ERROR);
    EXPECT_EQ(ECI_createContainer(ch, "TEXT", ECI_CHAR, 37, "hello", 5), ECI_NO_ERROR);
    EXPECT_EQ(ECI_createContainer(ch, "RAW", ECI_BIT, 0, "\x00\x01\x02", 3), ECI_NO_ERROR);
    return ch;
  }
  static int call(QvaGatewayToken* tok, QvaChannel* ch, const char* program) {
    ECI_PARMS parms = eciParms(program, nullptr, 0);
    parms.eci_channel = ch;
    return QVA_ECI_Execute_Channel(tok, &parms);
  }
  // "NAME:type:ccsid:data" for each container in walk order; data bytes
  // below 0x20 shown as their number.
  static std::string contents(QvaChannel* ch) {
    std::string out;
    ContainerInfo info;
    int rc = ECI_getFirstContainer(ch, &info);
    for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(ch, &info)) {
      std::string data(info.dataLength, '\0');
      uint32_t got = 0;
      EXPECT_EQ(ECI_getContainerData(ch, info.name, data.data(), info.dataLength, 0, &got), ECI_NO_ERROR);
      out += std::string(info.name) + ":" + std::to_string(uint32_t{info.type}) + ":" +
             std::to_string(uint32_t{info.ccsid}) + ":";
      for (char c : data) out += static_cast<unsigned char>(c) < 0x20 ? std::to_string(c) : std::string(1, c);
      out += " ";
    }
    EXPECT_EQ(rc, ECI_ERR_ENDOFCONTAINERS);
    return out;
  }

  QvaGatewayToken* tok_ = nullptr;
};

// ---- Opening and closing ------------------------------------------------------------

// The port is checked first, then the token pointer, the time-out and the
// host; failures show only in the exit line.
TEST_F(E2eTest, OpenChecksItsArgumentsInOrderAndTracesOnlyTheExit) {
  struct Case {
    const char* host;
    int port;
    bool tokenPointer;
    int timeout;
    int rc;
  };
  for (const Case& c : {
           Case{kLoopback, 0, true, 5, QVA_ERR_BADPORT},
           Case{kLoopback, 65536, true, 5, QVA_ERR_BADPORT},
           Case{kLoopback, -1, true, 5, QVA_ERR_BADPORT},
           Case{kLoopback, 0, false, 5, QVA_ERR_BADPORT},
           Case{nullptr, 65536, true, 5, QVA_ERR_BADPORT},
           Case{nullptr, 0, true, 5, QVA_ERR_BADPORT},
           Case{kLoopback, 1, false, 5, QVA_ERR_NULLGWTOKPTR},
           Case{kLoopback, 65535, false, 5, QVA_ERR_NULLGWTOKPTR},
           Case{kLoopback, 1, true, 3601, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{kLoopback, 65535, true, 3601, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{kLoopback, 7, true, -1, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{nullptr, 7, true, 3601, QVA_ERR_INVALIDTIMEOUTPARM},
           Case{nullptr, 7, true, 3600, QVA_ERR_NULLADDRESS},
           Case{nullptr, 7, true, 5, QVA_ERR_NULLADDRESS},
       }) {
    QvaGatewayToken* tok = nullptr;
    EXPECT_EQ(QVA_openRemoteGatewayConnection(c.host, c.port, c.tokenPointer ? &tok : nullptr, c.timeout), c.rc)
        << (c.host ? c.host : "NULL") << ":" << c.port << " timeout " << c.timeout;
    EXPECT_EQ(tok, nullptr);
  }
  EXPECT_EQ(gw_.connectionCount(), 0u);
  QvaGatewayToken* tok = nullptr;
  ASSERT_EQ(open(&tok, 3600), QVA_OK) << "3600 itself passes";
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);

  TraceCapture trace(3);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, 0, &tok, 5), QVA_ERR_BADPORT);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, 7, &tok, -1), QVA_ERR_INVALIDTIMEOUTPARM);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(nullptr, 7, &tok, 5), QVA_ERR_NULLADDRESS);
  std::vector<std::string> entries, exits;
  for (const auto& l : traceLines(trace.text())) {
    EXPECT_TRUE(l.word == "ENTRY" || l.word == "EXIT") << l.word << " " << l.message;
    if (l.point == 1002 || l.point == 1003) (l.point == 1002 ? entries : exits).push_back(l.message);
  }
  ASSERT_EQ(entries.size(), 3u);
  const std::string entry = R"(API\.QVA_openRemoteGatewayConnection\(hostname=)";
  EXPECT_TRUE(std::regex_match(entries[0],
                               std::regex(entry + R"(127\.0\.0\.1, port=0, &gwTokPtr=0x0x[0-9a-f]+, connTimeout=5 )")))
      << entries[0];
  EXPECT_TRUE(
      std::regex_match(entries[2], std::regex(entry + R"(NULL, port=7, &gwTokPtr=0x0x[0-9a-f]+, connTimeout=5 )")))
      << entries[2];
  EXPECT_EQ(exits,
            (std::vector<std::string>{"API.QVA_openRemoteGatewayConnection(port=0) rc=-107 QVA_ERR_BADPORT ",
                                      "API.QVA_openRemoteGatewayConnection(port=7) rc=-138 QVA_ERR_INVALIDTIMEOUTPARM ",
                                      "API.QVA_openRemoteGatewayConnection(port=7) rc=-133 QVA_ERR_NULLADDRESS "}));
}

TEST_F(E2eTest, UnresolvableHostIsBadHostAndRefusedConnectIsConnectFailed) {
  QvaGatewayToken* tok = nullptr;
  TraceCapture trace(1);
  EXPECT_EQ(QVA_openRemoteGatewayConnection("no-such-host.invalid", gw_.port(), &tok, 5), QVA_ERR_BADHOST);
  const auto lines = traceLines(trace.text());
  const std::string prefix =
      "clapi_gwycon.getHostInfoUnable to resolve host (no-such-host.invalid:" + std::to_string(gw_.port()) + "): ";
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const TraceLine& l) {
    return l.point == 2001 && l.word == "*EXC*" && l.message.rfind(prefix, 0) == 0;
  }));
  const int port = unusedPort();
  ASSERT_GT(port, 0);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, port, &tok, 0), QVA_ERR_CONNECTFAILED);
  TraceCapture refused(1);
  EXPECT_EQ(QVA_openRemoteGatewayConnection(kLoopback, port, &tok, 5), QVA_ERR_CONNECTFAILED);
  EXPECT_EQ(tok, nullptr);
  // The failed token is deleted with the close flow, which fails at once on
  // the socket that never connected.
  std::vector<std::string> seen;
  for (const auto& l : traceLines(refused.text())) seen.push_back(std::to_string(l.point) + " " + l.message);
  EXPECT_EQ(seen, (std::vector<std::string>{
                      "2011 clapi_gwycon.clapiConnectToGatewayUnable to connect to Gateway: Connection refused",
                      "2142 clapi_qva_gwytok.openClientSocket() Failed to connect to Gateway 127.0.0.1:" +
                          std::to_string(port),
                      "1528 clapi_socketbuffer.flushBuffer Unable to send data to Gateway: errno=32"}));
}

TEST_F(E2eTest, CloseClearsThePointerTracesItAndRefusesNullAndStaleTokens) {
  {
    TraceCapture trace(1);
    EXPECT_EQ(QVA_closeGatewayConnection(nullptr), QVA_ERR_NULLGWTOKPTR);
    QvaGatewayToken* none = nullptr;
    EXPECT_EQ(QVA_closeGatewayConnection(&none), QVA_ERR_NULLGWTOK);
    const auto lines = traceLines(trace.text());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(
        hasLine(lines, 1005, "*EXC*", "API.QVA_closeGatewayConnection(&gwTokPtr=(nil)) Null gateway token Pointer"));
    EXPECT_TRUE(hasLine(lines, 1045, "*EXC*", "API.QVA_closeGatewayConnection(gwTokPtr=(nil)) Null gateway token"));
  }
  QvaGatewayToken* tok = nullptr;
  QvaGatewayToken* keep = nullptr;
  ASSERT_EQ(open(&tok), QVA_OK);
  ASSERT_NE(tok, nullptr);
  ASSERT_EQ(open(&keep), QVA_OK);  // the list is not empty when the stale value comes back
  QvaGatewayToken* stale = tok;
  TraceCapture trace(3);
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
  const auto lines = traceLines(trace.text());
  const std::string address = ptrText(&tok);
  EXPECT_TRUE(hasLine(lines, 1004, "ENTRY", "API.QVA_closeGatewayConnection(&gwTokPtr=" + address + ")"));
  EXPECT_TRUE(
      hasLine(lines, 1133, "EVENT", "API.QVA_closeGatewayConnection Closed Gateway connection for token " + address));
  EXPECT_TRUE(
      hasLine(lines, 1006, "EXIT", "API.QVA_closeGatewayConnection(&gwTokPtrPtr=" + address + ") rc=0 QVA_OK "));
  EXPECT_EQ(tok, nullptr);
  char data[4] = "abc";
  ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
  EXPECT_EQ(QVA_ECI_Execute(stale, &parms), QVA_ERR_BADGWTOK);
  EXPECT_EQ(QVA_closeGatewayConnection(&stale), QVA_ERR_BADGWTOK);
  EXPECT_EQ(QVA_closeGatewayConnection(&keep), QVA_OK);
  EXPECT_EQ(keep, nullptr);
}

TEST_F(E2eTest, ATokenTheLibraryDidNotIssueIsRefusedUntouched) {
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

// ---- Ownership -------------------------------------------------------------------

TEST_F(Connected, ATokenBelongsToTheThreadThatOpenedIt) {
  int executeRc = 0, listRc = 0, closeRc = 0;
  QvaGatewayToken* seenByOther = nullptr;
  std::thread other([&] {
    char data[8] = "other";
    ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
    executeRc = QVA_ECI_Execute(tok_, &parms);
    unsigned short count = 2;
    QVA_SYSTEM_ENTRY list[2];
    listRc = QVA_listSystems(tok_, &count, list);
    QvaGatewayToken* copy = tok_;
    closeRc = QVA_closeGatewayConnection(&copy);
    seenByOther = copy;
  });
  other.join();
  EXPECT_EQ(executeRc, QVA_ERR_TIDMISMATCH);
  EXPECT_EQ(listRc, QVA_ERR_TIDMISMATCH);
  EXPECT_EQ(closeRc, QVA_ERR_TIDMISMATCH);
  EXPECT_EQ(seenByOther, tok_);
  // Nothing was sent for the refused calls; the owner carries on.
  GuardedArea area(8);
  area.set("owner");
  ECI_PARMS parms = eciParms("UPPER", area.data(), area.length());
  EXPECT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(area.text(5), "OWNER");
}

// The process id is remembered between calls; a forked child must still be
// told apart from the parent that opened the connection.
TEST_F(Connected, AForkedChildMayNotUseItsParentsToken) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char data[8] = "child";
    ECI_PARMS parms = eciParms("ECHO", data, sizeof data);
    _exit(QVA_ECI_Execute(tok_, &parms) == QVA_ERR_PIDMISMATCH ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child was not refused with -123";
}

// ---- Close-all and the state dump ---------------------------------------------------------

TEST_F(E2eTest, CloseAllClosesTokensOfEveryThreadAndOnAnEmptyListSaysSoInTheTrace) {
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
  {
    TraceCapture trace(2);
    EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
    const auto lines = traceLines(trace.text());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(hasLine(lines, 2171, "EVENT", "clapi_qva_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY"));
    EXPECT_TRUE(hasLine(lines, 1134, "EVENT", "API.QVA_closeAllGatewayConnections Closed all Gateway connections"));
  }
  TraceCapture trace(3);
  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
  EXPECT_TRUE(hasLine(traceLines(trace.text()), 1008, "EXIT",
                      "API.QVA_closeAllGatewayConnections() gwyTokRc=1006, rc=0 QVA_OK"));
}

// 256 tokens already hit the runaway limit; with 257 the newest stays open.
TEST_F(E2eTest, CloseAllDeletesAtMost256TokensAndReportsTheRunawayLimit) {
  for (size_t n : {256u, 257u}) {
    SCOPED_TRACE(n);
    qvaemu::Gateway gw;
    ASSERT_TRUE(gw.start(nullptr));
    for (size_t i = 0; i < n; ++i) {
      QvaGatewayToken* tok = nullptr;  // kept only by the list
      ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw.port(), &tok, 5), QVA_OK) << i;
    }
    TraceCapture trace(3);
    EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_ERR_BADGWTOKLIST);
    const auto lines = traceLines(trace.text());
    EXPECT_TRUE(hasLine(lines, 2173, "*EXC*",
                        "clapi_qva_gwytok.clapiDeleteGatewayTokensGTL iteration has hit RUNAWAY limit 256....."));
    EXPECT_TRUE(
        hasLine(lines, 2174, "EXIT", "clapi_qva_gwytok.clapiDeleteGatewayTokens() Entries deleted=256 rc=1005"));
    EXPECT_TRUE(hasLine(lines, 1008, "EXIT",
                        "API.QVA_closeAllGatewayConnections() gwyTokRc=1005, rc=-115 QVA_ERR_BADGWTOKLIST"));
    // The oldest 256 went, each with its close request.
    for (size_t i = 0; i < 256; ++i) {
      ASSERT_TRUE(gw.waitForClosed(i, kPatience)) << i;
      EXPECT_EQ(gw.received(i), cat({handshakeRequest(), closeRequest()})) << i;
    }
    if (n == 257) {  // the newest stays, alone on the list, until the next close-all
      EXPECT_EQ(gw.received(256), handshakeRequest());
      EXPECT_NE(dumpState().find("Total number of Gateway Token List entries=1\n"), std::string::npos);
      EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
    }
    EXPECT_TRUE(tokenListEmpty());
    EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
  }
}

TEST_F(E2eTest, DumpStateListsEveryTokenThenEveryChannel) {
  QvaGatewayToken *first = nullptr, *second = nullptr;
  ASSERT_EQ(open(&first), QVA_OK);
  ASSERT_EQ(open(&second, 0), QVA_OK);
  QvaChannel *older = nullptr, *newer = nullptr;
  ASSERT_EQ(ECI_createChannel("OLDER", &older), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createChannel("NEWER_CHANNEL_16", &newer), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(newer, "BITS", ECI_BIT, 37, "\x01\x02\x03", 3), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(newer, "TEXT", ECI_CHAR, 1208, "hello", 5), ECI_NO_ERROR);
  TraceCapture trace(0);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  // Every address gets a name by its first appearance, so that a link
  // between entries shows as the same name; sockets and thread ids vary.
  std::map<std::string, std::string> names{
      {ptrText(first), "T1"}, {ptrText(second), "T2"}, {ptrText(newer), "C1"}, {ptrText(older), "C2"}};
  std::string text = std::regex_replace(
      trace.text(),
      std::regex(R"(socket\(\d+\) owningPid\()" + hex8(getpid()).substr(2) + R"(\) owningTid\([0-9A-F]{8}\))"),
      "S P T");
  std::string named;
  std::smatch m;
  for (; std::regex_search(text, m, std::regex("0x[0-9a-f]+")); text = m.suffix()) {
    const auto [at, added] = names.try_emplace(m.str(), "A" + std::to_string(names.size() - 3));
    named += m.prefix().str() + at->second;
  }
  named += text;
  const std::string dashes(80, '-'), port = std::to_string(gw_.port()), token = "Gateway Token List entry -000";
  EXPECT_EQ(
      named,
      "qvaclient state dump: DLL Version=8.0.0.1 Trace Level=0 clientAPITraceFile=" + trace.path() +
          "\nGateway Token List dump\n" + dashes + "\n" + token + "1- : GatwayToken(T1) eyecatcher(QVAGWTOK) port(" +
          port + ") connStatus(1) S P T nextGwyTokPtr(T2)\n" + token +
          "2- : GatwayToken(T2) eyecatcher(QVAGWTOK) port(" + port +
          ") connStatus(1) S P T nextGwyTokPtr((nil))\n"
          "Total number of Gateway Token List entries=2\n" +
          dashes + "\nChannel and container dump\n" + dashes +
          "\n"
          "Channel list entry -0001- : Channel(C1): eyecatcher(QVACHANN) name(NEWER_CHANNEL_16) lock(A1) ccsid(1208) "
          "numContainers(2) nextChannel(C2) firstCont(A2) currentCont((nil))\n"
          "   Container list entry -0001/0001- : Container(A2): eyecatcher(QVACONTA) name(            TEXT) type(2) "
          "ccsid(1208) dataLength(5) dataPtr(A3) nextCont(A4)\n"
          "   Container list entry -0001/0002- : Container(A4): eyecatcher(QVACONTA) name(            BITS) type(1) "
          "ccsid(0) dataLength(3) dataPtr(A5) nextCont((nil))\n"
          "Channel list entry -0002- : Channel(C2): eyecatcher(QVACHANN) name(           OLDER) lock(A6) ccsid(-1) "
          "numContainers(0) nextChannel((nil)) firstCont((nil)) currentCont((nil))\n"
          "Total number of channels=2\n" +
          dashes + "\n");
  EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
  EXPECT_EQ(QVA_closeGatewayConnection(&first), QVA_OK);
  EXPECT_EQ(QVA_closeGatewayConnection(&second), QVA_OK);
}

// ---- ECI calls and units of work ---------------------------------------------------------

// One after another on the same connection, so each also shows that the
// one before left the connection in step.
TEST_F(Connected, SampleProgramsGiveTheirResultsAbendCodesAndCommareas) {
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

TEST_F(Connected, AUnitKeepsItsTokenUntilCommittedOrBackedOut) {
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
  ASSERT_TRUE(gw_.waitForReceived(0, 55 + 2 * (32 + 95 + 6) + 32 + 95, kPatience));
  const auto messages = splitMessages(gw_.received(0));
  ASSERT_EQ(messages.size(), 4u);
  // The second call carried the token the first one got, and so did the commit.
  EXPECT_EQ(be32(messages[2], 32 + 8), static_cast<uint32_t>(token));
  ASSERT_EQ(messages[3].size(), 32u + 95u);
  EXPECT_EQ(be32(messages[3], 32 + 4), 2u);  // extend mode
  EXPECT_EQ(be32(messages[3], 32 + 8), static_cast<uint32_t>(token));
  // The ended unit is gone, and so is one that was backed out.
  parms.eci_extend_mode = ECI_EXTENDED;
  parms.eci_luw_token = token;
  EXPECT_EQ(execute(parms), ECI_ERR_LUW_TOKEN);
  parms.eci_luw_token = 0;
  ASSERT_EQ(execute(parms), ECI_NO_ERROR);
  const int backedOut = parms.eci_luw_token;
  parms.eci_extend_mode = ECI_BACKOUT;
  EXPECT_EQ(execute(parms), ECI_NO_ERROR);
  EXPECT_EQ(parms.eci_luw_token, 0);
  parms.eci_extend_mode = ECI_EXTENDED;
  parms.eci_luw_token = backedOut;
  EXPECT_EQ(execute(parms), ECI_ERR_LUW_TOKEN);
}

// ---- Channel programs -----------------------------------------------------------------

TEST_F(Connected, EachChannelProgramChangesTheChannelAsItSays) {
  const struct {
    const char* program;
    std::string after;
  } cases[] = {
      {"CHNOOP", "RAW:1:0:012 TEXT:2:37:hello "},
      {"CHECHO", "RAW:1:0:012 TEXT:2:37:hello "},
      {"CHADD", "RESULT:2:37:Processed 2 containers RAW:1:0:012 TEXT:2:37:hello "},
      {"CHUPPER", "RAW:1:0:012 TEXT:2:37:HELLO "},
      {"CHGROW", "RAW:1:0:012012 TEXT:2:37:hellohello "},
      {"CHDELETE", "TEXT:2:37:hello "},
      {"CHMIX", "MIXED:1:0:\xDE\xAD\xBE\xEF TEXT:2:37:HELLO "},
  };
  for (const auto& c : cases) {
    QvaChannel* ch = sampleChannel();
    EXPECT_EQ(call(tok_, ch, c.program), ECI_NO_ERROR) << c.program;
    EXPECT_EQ(contents(ch), c.after) << c.program;
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
  }
}

}  // namespace
