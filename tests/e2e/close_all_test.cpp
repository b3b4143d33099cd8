// Closing every connection at once, the runaway limit of the token list, and
// the token list and the channels as QVA_dumpState shows them.
#include <unistd.h>

#include "e2e_support.h"

using namespace e2e;

namespace {

class CloseAllTest : public ::testing::Test {
 protected:
  void SetUp() override {
    E2E_START(gw_);
    ASSERT_TRUE(tokenListEmpty());
  }
  void TearDown() override {
    // Whatever a failed test left behind must not reach the next one.
    while (!tokenListEmpty() && QVA_closeAllGatewayConnections() != QVA_OK) {
    }
  }

  // Opens n connections; their tokens are kept only by the list.
  void openMany(size_t n) {
    for (size_t i = 0; i < n; ++i) {
      QvaGatewayToken* tok = nullptr;
      ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &tok, 5), QVA_OK) << i;
    }
  }

  bool sawCloseRequest(size_t connection) {
    const Bytes got = gw_.received(connection);
    return got.size() == 88 && slice(got, 55, 33) == closeRequest();
  }

  qvaemu::Gateway gw_;
};

const std::regex& entryLine() {
  static const std::regex re(
      R"(Gateway Token List entry -(\d{4})- : GatwayToken\((0x[0-9a-f]+)\) eyecatcher\(QVAGWTOK\) port\((\d+)\) connStatus\(1\) socket\((\d+)\) owningPid\(([0-9A-F]{8})\) owningTid\([0-9A-F]{8}\) nextGwyTokPtr\((0x[0-9a-f]+|\(nil\))\))");
  return re;
}

TEST_F(CloseAllTest, OnAnEmptyListItReturnsOkAndSaysSoOnlyInTheTrace) {
  {
    TraceCapture trace(2);
    EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
    const auto lines = traceLines(trace.text());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].point, 2171);
    EXPECT_EQ(lines[0].word, "EVENT");
    EXPECT_EQ(lines[0].message, "clapi_qva_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY");
    EXPECT_EQ(lines[1].point, 1134);
    EXPECT_EQ(lines[1].word, "EVENT");
    EXPECT_EQ(lines[1].message, "API.QVA_closeAllGatewayConnections Closed all Gateway connections");
  }
  TraceCapture trace(3);
  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
  const auto lines = traceLines(trace.text());
  const auto exit = std::find_if(lines.begin(), lines.end(), [](const TraceLine& l) { return l.point == 1008; });
  ASSERT_NE(exit, lines.end());
  EXPECT_EQ(exit->word, "EXIT");
  EXPECT_EQ(exit->message, "API.QVA_closeAllGatewayConnections() gwyTokRc=1006, rc=0 QVA_OK");
}

TEST_F(CloseAllTest, DumpStateListsEveryTokenThenEveryChannel) {
  QvaGatewayToken* first = nullptr;
  QvaGatewayToken* second = nullptr;
  ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &first, 5), QVA_OK);
  ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &second, 0), QVA_OK);
  QvaChannel* older = nullptr;
  QvaChannel* newer = nullptr;
  ASSERT_EQ(ECI_createChannel("OLDER", &older), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createChannel("NEWER_CHANNEL_16", &newer), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(newer, "BITS", ECI_BIT, 37, "\x01\x02\x03", 3), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(newer, "TEXT", ECI_CHAR, 1208, "hello", 5), ECI_NO_ERROR);
  TraceCapture trace(0);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  const auto lines = linesOf(trace.text());

  const std::string dashes(80, '-');
  std::vector<std::string> body;
  std::vector<std::string> channels;
  bool inDump = false;
  for (const auto& l : lines) {
    if (l == "Gateway Token List dump") inDump = true;
    if (l == "Channel and container dump") inDump = false;
    (inDump ? body : channels).push_back(l);
  }
  // Channels newest first, each with its containers newest first.
  const std::string chanPrefix = "Channel list entry -000";
  ASSERT_EQ(channels.size(), 9u) << trace.text();
  EXPECT_EQ(channels[1], "Channel and container dump");
  EXPECT_EQ(channels[2], dashes);
  const std::regex channel(
      R"(Channel list entry -(\d{4})- : Channel\((0x[0-9a-f]+)\): eyecatcher\(QVACHANN\) name\((.{16})\) lock\((0x[0-9a-f]+)\) ccsid\((-?\d+)\) numContainers\((\d+)\) nextChannel\((0x[0-9a-f]+|\(nil\))\) firstCont\((0x[0-9a-f]+|\(nil\))\) currentCont\(\(nil\)\))");
  std::smatch n, o;
  ASSERT_TRUE(std::regex_match(channels[3], n, channel)) << channels[3];
  ASSERT_TRUE(std::regex_match(channels[6], o, channel)) << channels[6];
  EXPECT_EQ(n[1].str() + n[2].str() + n[3].str() + n[5].str() + n[6].str() + n[7].str(),
            "0001" + ptrText(newer) + "NEWER_CHANNEL_16" + "12082" + ptrText(older));
  EXPECT_EQ(o[1].str() + o[2].str() + o[3].str() + o[5].str() + o[6].str() + o[7].str() + o[8].str(),
            "0002" + ptrText(older) + "           OLDER" + "-10(nil)(nil)");
  const std::regex container(
      R"(   Container list entry -0001/(\d{4})- : Container\((0x[0-9a-f]+)\): eyecatcher\(QVACONTA\) name\((.{16})\) type\((\d)\) ccsid\((\d+)\) dataLength\((\d+)\) dataPtr\((0x[0-9a-f]+)\) nextCont\((0x[0-9a-f]+|\(nil\))\))");
  std::smatch c1, c2;
  ASSERT_TRUE(std::regex_match(channels[4], c1, container)) << channels[4];
  ASSERT_TRUE(std::regex_match(channels[5], c2, container)) << channels[5];
  EXPECT_EQ(c1[1].str() + c1[3].str() + c1[4].str() + c1[5].str() + c1[6].str(),
            "0001            TEXT212085");
  EXPECT_EQ(c2[1].str() + c2[3].str() + c2[4].str() + c2[5].str() + c2[6].str(),
            "0002            BITS103");
  EXPECT_EQ(n[8].str(), c1[2].str());
  EXPECT_EQ(c1[8].str(), c2[2].str());
  EXPECT_EQ(c2[8].str(), "(nil)");
  EXPECT_EQ(channels[7], "Total number of channels=2");
  EXPECT_EQ(channels[8], dashes);
  EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "qvaclient state dump: DLL Version=8.0.0.1 Trace Level=0 clientAPITraceFile=" + trace.path());
  ASSERT_EQ(body.size(), 6u) << "\n" << trace.text();
  EXPECT_EQ(body[1], dashes);
  std::smatch m1, m2;
  ASSERT_TRUE(std::regex_match(body[2], m1, entryLine())) << body[2];
  ASSERT_TRUE(std::regex_match(body[3], m2, entryLine())) << body[3];
  EXPECT_EQ(m1[1].str(), "0001");
  EXPECT_EQ(m2[1].str(), "0002");
  EXPECT_EQ(m1[2].str(), ptrText(first));
  EXPECT_EQ(m2[2].str(), ptrText(second));
  EXPECT_EQ(m1[6].str(), ptrText(second));  // first links to second
  EXPECT_EQ(m2[6].str(), "(nil)");
  EXPECT_EQ(m1[3].str(), std::to_string(gw_.port()));
  EXPECT_EQ("0x" + m1[5].str(), hex8(static_cast<unsigned>(getpid())));
  EXPECT_NE(m1[4].str(), m2[4].str());
  EXPECT_EQ(body[4], "Total number of Gateway Token List entries=2");
  EXPECT_EQ(body[5], dashes);

  EXPECT_EQ(QVA_closeGatewayConnection(&first), QVA_OK);
  EXPECT_EQ(QVA_closeGatewayConnection(&second), QVA_OK);
}

TEST_F(CloseAllTest, With257TokensItDeletes256AndReportsTheRunawayLimit) {
  openMany(257);
  ASSERT_FALSE(HasFatalFailure());
  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_ERR_BADGWTOKLIST);
  // The oldest 256 went, each with its close request; the newest stays open.
  for (size_t i = 0; i < 256; ++i) {
    ASSERT_TRUE(gw_.waitForClosed(i, kPatience)) << i;
    EXPECT_TRUE(sawCloseRequest(i)) << i;
  }
  EXPECT_EQ(gw_.received(256), handshakeRequest());
  const std::string state = dumpState();
  EXPECT_NE(state.find("Gateway Token List entry -0001- : GatwayToken("), std::string::npos);
  EXPECT_EQ(state.find("Gateway Token List entry -0002-"), std::string::npos);
  EXPECT_NE(state.find("Total number of Gateway Token List entries=1\n"), std::string::npos);

  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
  ASSERT_TRUE(gw_.waitForClosed(256, kPatience));
  EXPECT_TRUE(sawCloseRequest(256));
  EXPECT_TRUE(tokenListEmpty());
}

TEST_F(CloseAllTest, WithExactly256TokensItAlsoReportsTheRunawayLimit) {
  openMany(256);
  ASSERT_FALSE(HasFatalFailure());
  TraceCapture trace(3);
  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_ERR_BADGWTOKLIST);
  const auto lines = traceLines(trace.text());
  auto find = [&](int point) {
    return std::find_if(lines.begin(), lines.end(), [point](const TraceLine& l) { return l.point == point; });
  };
  ASSERT_NE(find(2173), lines.end());
  EXPECT_EQ(find(2173)->message, "clapi_qva_gwytok.clapiDeleteGatewayTokensGTL iteration has hit RUNAWAY limit 256.....");
  ASSERT_NE(find(2174), lines.end());
  EXPECT_EQ(find(2174)->message, "clapi_qva_gwytok.clapiDeleteGatewayTokens() Entries deleted=256 rc=1005");
  ASSERT_NE(find(1008), lines.end());
  EXPECT_EQ(find(1008)->message, "API.QVA_closeAllGatewayConnections() gwyTokRc=1005, rc=-115 QVA_ERR_BADGWTOKLIST");
  for (size_t i = 0; i < 256; ++i) ASSERT_TRUE(gw_.waitForClosed(i, kPatience)) << i;
  EXPECT_TRUE(tokenListEmpty());
  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
}

}  // namespace
