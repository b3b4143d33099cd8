// Threads against the trace writer and the lock records: whole lines from
// every thread, each carrying its own thread id, and mutual exclusion.

#include <barrier>
#include <map>
#include <thread>

#include "clapi_diag.h"
#include "clapi_lock.h"
#include "trace_fixture.h"

namespace {

using qvatest::TraceFileTest;

using ConcurrentTraceTest = TraceFileTest;

TEST_F(ConcurrentTraceTest, LinesFromManyThreadsStayWholeAndCarryTheirThreadId) {
  ASSERT_EQ(QVA_setAPITraceLevel(5), QVA_OK);
  constexpr int kThreads = 4;
  constexpr int kCalls = 100;
  std::barrier start(kThreads);
  std::vector<uint32_t> tids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      tids[static_cast<size_t>(t)] = qvatest::selfTid();
      start.arrive_and_wait();
      for (int i = 0; i < kCalls; ++i) {
        int level = 0;
        QVA_getAPITraceLevel(&level);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);

  std::map<uint32_t, int> entries;
  int prefixed = 0;
  for (const std::string &text : qvatest::readLines(path())) {
    if (qvatest::isBannerLine(text)) continue;
    auto line = qvatest::parseTraceLine(text);
    ASSERT_TRUE(line.has_value()) << "torn line: " << text;
    ++prefixed;
    EXPECT_EQ(line->pid, static_cast<unsigned>(getpid()));
    if (line->point == 1091) ++entries[line->tid];
  }
  // Each call: ENTRY and EXIT, each between a request and a release of the
  // trace lock with their own ENTRY and EXIT lines.
  EXPECT_GE(prefixed, kThreads * kCalls * 2 * 5);
  for (uint32_t tid : tids) EXPECT_EQ(entries[tid], kCalls) << qvatest::hex8(tid);
}

TEST(ConcurrentLocks, LockRecordExcludesOtherThreads) {
  ClapiLock lock{};
  ASSERT_EQ(clapiInitializeLock(&lock), 0);
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  long counter = 0;  // guarded by lock only; a sanitizer sees any race
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        ASSERT_EQ(clapiRequestLock(&lock), 0);
        long seen = counter;
        counter = seen + 1;
        ASSERT_EQ(clapiReleaseLock(&lock), 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(counter, long{kThreads} * kRounds);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
}

}  // namespace
