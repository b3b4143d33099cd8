// Many threads, each with its own connection, calling at once: every reply
// must be the caller's own, the token list must survive concurrent opens and
// closes, and trace lines from all threads must come out whole.
#include <atomic>
#include <set>
#include <thread>

#include "e2e_support.h"

using namespace e2e;

namespace {

constexpr int kThreads = 8;
constexpr int kCalls = 100;

class ConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override { E2E_START(gw_); }
  void TearDown() override { EXPECT_TRUE(tokenListEmpty()); }

  // Each thread opens, makes kCalls calls with data of its own, and closes.
  // Returns the number of replies that matched their request.
  int runAll() {
    std::atomic<int> good{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([this, t, &good, &failures] {
        QvaGatewayToken* tok = nullptr;
        if (QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), &tok, 5) != QVA_OK) {
          ++failures;
          return;
        }
        for (int i = 0; i < kCalls; ++i) {
          char text[40];
          const int n = std::snprintf(text, sizeof text, "thread %d call %03d", t, i);
          // Lengths differ from call to call, so a reply meant for another
          // request would show in the length too.
          GuardedArea area(static_cast<size_t>(n + i % 7));
          area.set(text);
          const std::string sent = area.text();
          ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
          if (QVA_ECI_Execute(tok, &parms) == ECI_NO_ERROR && area.text() == sent && area.guardIntact())
            ++good;
          else
            ++failures;
        }
        if (QVA_closeGatewayConnection(&tok) != QVA_OK || tok != nullptr) ++failures;
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    return good.load();
  }

  qvaemu::Gateway gw_;
};

// Traced at level 4, so that the lines and dumps of all threads interleave.
TEST_F(ConcurrencyTest, EightThreadsGetTheirOwnRepliesAndWholeTraceLines) {
  TraceCapture trace(4);
  EXPECT_EQ(runAll(), kThreads * kCalls);
  const std::string text = trace.text();
  EXPECT_EQ(gw_.connectionCount(), static_cast<size_t>(kThreads));
  for (size_t i = 0; i < kThreads; ++i) {
    ASSERT_TRUE(gw_.waitForClosed(i, kPatience)) << i;
    const auto messages = splitMessages(gw_.received(i));
    ASSERT_EQ(messages.size(), static_cast<size_t>(kCalls + 2)) << i;
    EXPECT_EQ(messages.front(), handshakeRequest());
    EXPECT_EQ(messages.back(), closeRequest());
  }

  // Every line is a trace line, a dump line or a dump's heading: no line
  // holds pieces of two.
  int exits = 0;
  int dumpHeadings = 0;
  std::set<unsigned> threadIds;
  for (const auto& line : linesOf(text)) {
    if (auto l = parseTraceLine(line)) {
      if (l->point == 3326 && l->word == "EXIT") {
        EXPECT_EQ(l->message, "API.QVA_ECI_Execute() rc=0 QVA_OK");
        ++exits;
        threadIds.insert(l->tid);
      }
    } else if (line.rfind("Data truncation size=0, offset=0", 0) == 0) {
      ++dumpHeadings;
    } else if (!isDumpLine(line) && !isBannerLine(line)) {
      ADD_FAILURE() << "torn trace line: " << line;
      break;
    }
  }
  EXPECT_EQ(exits, kThreads * kCalls);
  EXPECT_EQ(threadIds.size(), static_cast<size_t>(kThreads));
  EXPECT_GE(dumpHeadings, 2 * kThreads * kCalls);
}

}  // namespace
