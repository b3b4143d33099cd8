// Channel calls through the emulator: what each channel program does to the
// client's channel, replies that lie about their return flow, and channel
// work from many threads, on separate channels and on one shared channel.
#include <atomic>
#include <thread>

#include "e2e_support.h"

using namespace e2e;

namespace {

class ChannelCallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    E2E_START(gw_);
    ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &tok_, 5), QVA_OK);
  }
  void TearDown() override {
    EXPECT_EQ(QVA_closeGatewayConnection(&tok_), QVA_OK);
    EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
  }

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

  qvaemu::Gateway gw_;
  QvaGatewayToken* tok_ = nullptr;
};

TEST_F(ChannelCallTest, EachChannelProgramChangesTheChannelAsItSays) {
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

TEST_F(ChannelCallTest, LyingReturnFlowsFailTheMergeAndTheConnectionGoesOn) {
  const struct {
    qvaemu::Fault fault;
    int rc;
  } cases[] = {
      {qvaemu::Fault::ChannelLyingLength, QVA_ERR_SYSTEM_ERROR},
      {qvaemu::Fault::ChannelTruncated, QVA_ERR_SYSTEM_ERROR},
      {qvaemu::Fault::ChannelDeleteUnknown, QVA_ERR_SYSTEM_ERROR},
      {qvaemu::Fault::ChannelHugeCount, QVA_ERR_SYSTEM_ERROR},
      {qvaemu::Fault::ChannelUnknownState, ECI_NO_ERROR},
  };
  for (const auto& c : cases) {
    qvaemu::FaultPlan plan = faultPlan(c.fault, 0);
    plan.messages = 1;
    QvaGatewayToken* tok = nullptr;
    gw_.setFault(plan);
    ASSERT_EQ(QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &tok, 5), QVA_OK);
    QvaChannel* ch = sampleChannel();
    EXPECT_EQ(call(tok, ch, "CHUPPER"), c.rc) << qvaemu::faultName(c.fault);
    // Whatever was merged, every container is whole and readable.
    const std::string merged = contents(ch);
    EXPECT_TRUE(merged.find("TEXT:2:37:hello ") != std::string::npos ||
                merged.find("TEXT:2:37:HELLO ") != std::string::npos)
        << qvaemu::faultName(c.fault) << ": " << merged;
    EXPECT_EQ(call(tok, ch, "CHNOOP"), ECI_NO_ERROR) << qvaemu::faultName(c.fault);
    EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
  }
}

// Threads with a connection and a channel each run side by side; threads
// sharing one channel are serialised by its lock, so the shared channel
// doubles exactly once per call and a reader never sees half a change.
TEST_F(ChannelCallTest, ChannelsWorkInParallelAndASharedChannelSerialises) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 20;
  QvaChannel* shared = nullptr;
  ASSERT_EQ(ECI_createChannel("SHARED", &shared), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(shared, "COUNT", ECI_BIT, 0, "x", 1), ECI_NO_ERROR);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      QvaGatewayToken* tok = nullptr;
      if (QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &tok, 5) != QVA_OK) {
        ++failures;
        return;
      }
      QvaChannel* own = sampleChannel();
      for (int i = 0; i < kCalls; ++i) {
        if (call(tok, own, i % 2 == 0 ? "CHUPPER" : "CHNOOP") != ECI_NO_ERROR) ++failures;
        if (t % 2 == 0 && i < 3 && call(tok, shared, "CHGROW") != ECI_NO_ERROR) ++failures;
        ContainerInfo info;
        if (t % 2 == 1 && ECI_getContainerInfo(shared, "COUNT", &info) == ECI_NO_ERROR) {
          const uint32_t length = info.dataLength;
          if ((length & (length - 1)) != 0) ++failures;  // always a power of two
        }
      }
      if (contents(own) != "RAW:1:0:012 TEXT:2:37:HELLO ") ++failures;
      if (ECI_deleteChannel(&own) != ECI_NO_ERROR) ++failures;
      if (QVA_closeGatewayConnection(&tok) != QVA_OK) ++failures;
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  ContainerInfo info;
  ASSERT_EQ(ECI_getContainerInfo(shared, "COUNT", &info), ECI_NO_ERROR);
  EXPECT_EQ(uint32_t{info.dataLength}, 1u << (3 * kThreads / 2));
}

}  // namespace
