// Lock records and guarded allocation: marker life cycle, results for records
// not initialised, block layout and guard checks with their trace lines, the
// allocation-failure seam; and both under threads.

#include <barrier>
#include <cstring>
#include <map>
#include <thread>

#include "clapi_diag.h"
#include "clapi_lock.h"
#include "trace_fixture.h"

namespace {

using namespace qvatest;
using LockTest = TraceFileTest;

TEST_F(LockTest, MarkerFollowsInitialiseAndDestroyAndEachStepIsTracedAtLevelFive) {
  ClapiLock lock{};
  level(5);
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xFFEEDDCCu);
  EXPECT_EQ(clapiInitializeLock(&lock), 1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xFFEEDDCCu);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xCCDDEEFFu);
  EXPECT_EQ(clapiReleaseLock(&lock), -1);
  const std::string p = "(lockPtr=" + ptrText(&lock) + ")";
  EXPECT_EQ(sinceMark(), (Lines{"3100 ENTRY  clapi_lock.clapiInitializeLock" + p,
                                "3102 EXIT   clapi_lock.clapiInitializeLock" + p + " mutexRc=0 rc=0",
                                "3100 ENTRY  clapi_lock.clapiInitializeLock" + p,
                                "3102 EXIT   clapi_lock.clapiInitializeLock" + p + " mutexRc=0 rc=1",
                                "3103 ENTRY  clapi_lock.clapiRequestLock" + p,
                                "3106 EXIT   clapi_lock.clapiRequestLock" + p + " mutexRc=0 rc=0",
                                "3107 ENTRY  clapi_lock.clapiReleaseLock" + p,
                                "3110 EXIT   clapi_lock.clapiReleaseLock" + p + " mutexRc=0 rc=0",
                                "3111 ENTRY  clapi_lock.clapiDestroyLock" + p,
                                "3114 EXIT   clapi_lock.clapiDestroyLock" + p + " mutexRc=0 rc=0",
                                "3107 ENTRY  clapi_lock.clapiReleaseLock" + p,
                                "3108 *EXC*  clapi_lock.clapiReleaseLock" + p + " Lock not initialized",
                                "3110 EXIT   clapi_lock.clapiReleaseLock" + p + " mutexRc=0 rc=-1"}));
  level(1);
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(sinceMark(), (Lines{"3104 *EXC*  clapi_lock.clapiRequestLock" + p + " Lock not initialized"}));
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  EXPECT_EQ(clapiDestroyLock(&lock), -1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xCCDDEEFFu);
  // A destroyed record counts as not initialised and may be set up anew.
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
}

// Entry and exit lines need level 5, the "not initialised" exception level 1.
TEST_F(LockTest, ZeroFilledRecordIsRefusedAndReportedFromLevelOne) {
  ClapiLock lock{};
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(all(), Lines{});
  level(4);
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
  EXPECT_EQ(sinceMark(), Lines{});
  std::memset(&lock, 0, sizeof lock);
  level(1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0u);
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(clapiReleaseLock(&lock), -1);
  EXPECT_EQ(clapiDestroyLock(&lock), -1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0u);
  const std::string p = "(lockPtr=" + ptrText(&lock) + ") Lock not initialized";
  EXPECT_EQ(sinceMark(), (Lines{"3104 *EXC*  clapi_lock.clapiRequestLock" + p,
                                "3108 *EXC*  clapi_lock.clapiReleaseLock" + p,
                                "3112 *EXC*  clapi_lock.clapiDestroyLock" + p}));
}

using GuardedAllocTest = TraceFileTest;

std::string bytesAt(const void *p, size_t n) { return std::string(static_cast<const char *>(p), n); }

TEST_F(GuardedAllocTest, BlockHoldsLengthTagAndGuardsAroundTheData) {
  auto *data = static_cast<uint8_t *>(clapiMalloc(5, "SCKBXYZ"));
  ASSERT_NE(data, nullptr);
  uint32_t length = 0;
  std::memcpy(&length, data - 12, sizeof length);
  EXPECT_EQ(length, 5u);
  EXPECT_EQ(bytesAt(data - 8, 8), "SCKBPF>>");
  EXPECT_EQ(bytesAt(data + 5, 4), "<<SF");
  std::memset(data, 0xA5, 5);
  EXPECT_EQ(clapiFree(data), 0);
  data = static_cast<uint8_t *>(clapiMalloc(0, "CHAN"));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(bytesAt(data - 4, 8), "PF>><<SF");
  EXPECT_EQ(clapiFree(data), 0);
}

TEST_F(GuardedAllocTest, FullyWrittenBlocksAreAlignedForPointersAndFreeCleanly) {
  level(1);
  for (uint32_t length : {0u, 1u, 3u, 4u, 7u, 15u, 16u, 17u, 24u, 1000u, 65536u}) {
    auto *data = static_cast<uint8_t *>(clapiMalloc(length, "CDAT"));
    ASSERT_NE(data, nullptr) << length;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % alignof(void *), 0u) << length;
    std::memset(data, 0xFF, length);
    EXPECT_EQ(clapiFree(data), 0) << length;
  }
  EXPECT_EQ(sinceMark(), Lines{});
}

// The prefix is checked first, so damage at both ends is reported as prefix
// damage; a bad length word makes the suffix be looked for in the wrong place
// (and far past the block must not be read).
TEST_F(GuardedAllocTest, DamageAroundTheDataIsReportedWithTheEndItHitFromLevelOne) {
  const struct {
    uint32_t length;
    std::vector<int> damaged;  // offsets from the data
    uint32_t lengthWord;       // written over the length, if not 0
    const char *end;
  } cases[] = {{10, {10}, 0, "Suffix"}, {10, {-1}, 0, "Prefix"}, {0, {-4, 3}, 0, "Prefix"},
               {16, {}, 0x7FFFFFF0u, "Suffix"}, {16, {}, 15, "Suffix"}};
  for (int lvl : {0, 1}) {
    for (const auto &c : cases) {
      level(lvl);
      auto *data = static_cast<uint8_t *>(clapiMalloc(c.length, "CDAT"));
      ASSERT_NE(data, nullptr);
      std::memset(data, 0, c.length);
      for (int at : c.damaged) data[at] = 'X';
      if (c.lengthWord != 0) std::memcpy(data - 12, &c.lengthWord, sizeof c.lengthWord);
      EXPECT_EQ(clapiFree(data), -9);
      const uint32_t len = c.lengthWord != 0 ? c.lengthWord : c.length;
      EXPECT_EQ(sinceMark(), lvl == 0 ? Lines{}
                                      : Lines{"9999 *EXC*  clapiFree " + std::string(c.end) + " not intact, buffer " +
                                              ptrText(data) + " (len=" + std::to_string(len) + ") corrupted"});
    }
  }
}

TEST_F(GuardedAllocTest, FailureHookMakesAllocationReturnNull) {
  static uint32_t length;
  static std::string tag;
  setAllocFailHook([](uint32_t len, const char *t) {
    length = len;
    tag = t;
    return true;
  });
  void *data = clapiMalloc(42, "SCKB");
  setAllocFailHook(nullptr);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(length, 42u);
  EXPECT_EQ(tag, "SCKB");
  data = clapiMalloc(42, "SCKB");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(clapiFree(data), 0);
}

using ConcurrentTraceTest = TraceFileTest;

TEST_F(ConcurrentTraceTest, LinesFromManyThreadsStayWholeAndCarryTheirThreadId) {
  ASSERT_EQ(QVA_setAPITraceLevel(5), QVA_OK);
  constexpr int kThreads = 4, kCalls = 100;
  std::barrier start(kThreads);
  std::vector<uint32_t> tids(kThreads);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      tids[t] = selfTid();
      start.arrive_and_wait();
      for (int i = 0, level = 0; i < kCalls; ++i) QVA_getAPITraceLevel(&level);
    });
  }
  for (std::thread &thread : threads) thread.join();
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  std::map<uint32_t, int> entries;
  int prefixed = 0;
  for (const std::string &text : readLines(path())) {
    if (isBannerLine(text)) continue;
    auto line = parseTraceLine(text);
    ASSERT_TRUE(line.has_value()) << "torn line: " << text;
    ++prefixed;
    EXPECT_EQ(line->pid, static_cast<unsigned>(getpid()));
    if (line->point == 1091) ++entries[line->tid];
  }
  // Each call: ENTRY and EXIT, each between a request and a release of the
  // trace lock with their own ENTRY and EXIT lines.
  EXPECT_GE(prefixed, kThreads * kCalls * 2 * 5);
  for (uint32_t tid : tids) EXPECT_EQ(entries[tid], kCalls) << hex8(tid);
}

TEST(ConcurrentLocks, LockRecordExcludesOtherThreads) {
  ClapiLock lock{};
  ASSERT_EQ(clapiInitializeLock(&lock), 0);
  constexpr int kThreads = 4, kRounds = 5000;
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
