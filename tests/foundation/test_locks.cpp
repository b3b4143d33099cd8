// Lock records: the marker life cycle, the results for records that are not
// initialised, and the lock module's own trace lines.

#include "clapi_lock.h"

#include <cstring>

#include "clapi_diag.h"
#include "trace_fixture.h"

namespace {

using qvatest::ptrText;
using qvatest::TraceFileTest;
using Lines = std::vector<std::string>;

using LockTest = TraceFileTest;

TEST_F(LockTest, ZeroFilledRecordIsRefusedAndReported) {
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  mark();
  ClapiLock lock;
  std::memset(&lock, 0, sizeof lock);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0u);
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(clapiReleaseLock(&lock), -1);
  EXPECT_EQ(clapiDestroyLock(&lock), -1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0u);
  const std::string p = ptrText(&lock);
  EXPECT_EQ(sinceMark(), (Lines{"3104 *EXC*  clapi_lock.clapiRequestLock(lockPtr=" + p + ") Lock not initialized",
                                "3108 *EXC*  clapi_lock.clapiReleaseLock(lockPtr=" + p + ") Lock not initialized",
                                "3112 *EXC*  clapi_lock.clapiDestroyLock(lockPtr=" + p + ") Lock not initialized"}));
}

TEST_F(LockTest, MarkerFollowsInitialiseAndDestroy) {
  ClapiLock lock;
  std::memset(&lock, 0, sizeof lock);
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xFFEEDDCCu);
  EXPECT_EQ(clapiInitializeLock(&lock), 1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xFFEEDDCCu);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xCCDDEEFFu);
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  mark();
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(sinceMark(),
            (Lines{"3104 *EXC*  clapi_lock.clapiRequestLock(lockPtr=" + ptrText(&lock) + ") Lock not initialized"}));
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  EXPECT_EQ(clapiReleaseLock(&lock), -1);
  EXPECT_EQ(clapiDestroyLock(&lock), -1);
  EXPECT_EQ(clapiIsLockInitialized(&lock), 0xCCDDEEFFu);
  // A destroyed record counts as not initialised and may be set up anew.
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
}

TEST_F(LockTest, EveryOperationTracesEntryAndExitAtLevelFive) {
  ClapiLock lock;
  std::memset(&lock, 0, sizeof lock);
  ASSERT_EQ(QVA_setAPITraceLevel(5), QVA_OK);
  mark();
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiInitializeLock(&lock), 1);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), -1);
  const std::string p = ptrText(&lock);
  EXPECT_EQ(sinceMark(), (Lines{
                             "3100 ENTRY  clapi_lock.clapiInitializeLock(lockPtr=" + p + ")",
                             "3102 EXIT   clapi_lock.clapiInitializeLock(lockPtr=" + p + ") mutexRc=0 rc=0",
                             "3100 ENTRY  clapi_lock.clapiInitializeLock(lockPtr=" + p + ")",
                             "3102 EXIT   clapi_lock.clapiInitializeLock(lockPtr=" + p + ") mutexRc=0 rc=1",
                             "3103 ENTRY  clapi_lock.clapiRequestLock(lockPtr=" + p + ")",
                             "3106 EXIT   clapi_lock.clapiRequestLock(lockPtr=" + p + ") mutexRc=0 rc=0",
                             "3107 ENTRY  clapi_lock.clapiReleaseLock(lockPtr=" + p + ")",
                             "3110 EXIT   clapi_lock.clapiReleaseLock(lockPtr=" + p + ") mutexRc=0 rc=0",
                             "3111 ENTRY  clapi_lock.clapiDestroyLock(lockPtr=" + p + ")",
                             "3114 EXIT   clapi_lock.clapiDestroyLock(lockPtr=" + p + ") mutexRc=0 rc=0",
                             "3107 ENTRY  clapi_lock.clapiReleaseLock(lockPtr=" + p + ")",
                             "3108 *EXC*  clapi_lock.clapiReleaseLock(lockPtr=" + p + ") Lock not initialized",
                             "3110 EXIT   clapi_lock.clapiReleaseLock(lockPtr=" + p + ") mutexRc=0 rc=-1",
                         }));
}

// Entry and exit lines need level 5, and the "not initialised" exception level 1.
TEST_F(LockTest, NothingIsTracedBelowTheThresholds) {
  ClapiLock lock;
  std::memset(&lock, 0, sizeof lock);
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(all(), Lines{});
  ASSERT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  mark();
  EXPECT_EQ(clapiInitializeLock(&lock), 0);
  EXPECT_EQ(clapiRequestLock(&lock), 0);
  EXPECT_EQ(clapiReleaseLock(&lock), 0);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
  EXPECT_EQ(sinceMark(), Lines{});
}

}  // namespace
