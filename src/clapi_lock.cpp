// Lock records. The trace lock is one of these, so this module writes its
// own trace lines without taking it.

#include "clapi_lock.h"

#include <atomic>
#include <cerrno>

#include "clapi_diag.h"

namespace {

// The marker is read without the mutex; it only changes while no other
// thread can use the record.
uint32_t markerOf(ClapiLock *lockPtr) {
  return std::atomic_ref<uint32_t>(lockPtr->marker).load(std::memory_order_relaxed);
}

void setMarker(ClapiLock *lockPtr, uint32_t value) {
  std::atomic_ref<uint32_t>(lockPtr->marker).store(value, std::memory_order_relaxed);
}

#define LOCK_TRACE(threshold, point, word, ...)                              \
  do {                                                                       \
    if (traceOn(threshold)) clapiTraceWithoutLock(point, word, __VA_ARGS__); \
  } while (0)
#define LOCK_ENTRY(point, ...) LOCK_TRACE(kTraceLocks, point, "ENTRY", __VA_ARGS__)
#define LOCK_EXIT(point, ...)  LOCK_TRACE(kTraceLocks, point, "EXIT", __VA_ARGS__)
#define LOCK_EXC(point, ...)   LOCK_TRACE(kTraceExc, point, "*EXC*", __VA_ARGS__)

}  // namespace

uint32_t clapiIsLockInitialized(ClapiLock *lockPtr) { return markerOf(lockPtr); }

int clapiInitializeLock(ClapiLock *lockPtr) {
  LOCK_ENTRY(3100, "clapi_lock.clapiInitializeLock(lockPtr=%p)\n", static_cast<void *>(lockPtr));
  int rc = kLockAlreadyInitialized;
  int mutexRc = 0;
  if (markerOf(lockPtr) != kLockInitialized) {
    mutexRc = pthread_mutex_init(&lockPtr->mutex, nullptr);
    if (mutexRc == 0) {
      setMarker(lockPtr, kLockInitialized);
      rc = kLockOk;
    } else {
      int error = errno;
      LOCK_EXC(3101, "clapi_lock.clapiInitializeLock(lockPtr=%p) Lock initialization failed errno=%d\n",
               static_cast<void *>(lockPtr), error);
      rc = kLockCreateFailed;
    }
  }
  LOCK_EXIT(3102, "clapi_lock.clapiInitializeLock(lockPtr=%p) mutexRc=%d rc=%d\n", static_cast<void *>(lockPtr),
            mutexRc, rc);
  return rc;
}

int clapiRequestLock(ClapiLock *lockPtr) {
  LOCK_ENTRY(3103, "clapi_lock.clapiRequestLock(lockPtr=%p)\n", static_cast<void *>(lockPtr));
  int rc = kLockOk;
  int mutexRc = 0;
  if (markerOf(lockPtr) != kLockInitialized) {
    LOCK_EXC(3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized\n", static_cast<void *>(lockPtr));
    rc = kLockNotInitialized;
  } else {
    mutexRc = pthread_mutex_lock(&lockPtr->mutex);
    if (mutexRc != 0) {
      int error = errno;
      LOCK_EXC(3105, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock request failed errno=%d\n",
               static_cast<void *>(lockPtr), error);
      rc = kLockRequestFailed;
    }
  }
  LOCK_EXIT(3106, "clapi_lock.clapiRequestLock(lockPtr=%p) mutexRc=%d rc=%d\n", static_cast<void *>(lockPtr), mutexRc,
            rc);
  return rc;
}

int clapiReleaseLock(ClapiLock *lockPtr) {
  LOCK_ENTRY(3107, "clapi_lock.clapiReleaseLock(lockPtr=%p)\n", static_cast<void *>(lockPtr));
  int rc = kLockOk;
  int mutexRc = 0;
  if (markerOf(lockPtr) != kLockInitialized) {
    LOCK_EXC(3108, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock not initialized\n", static_cast<void *>(lockPtr));
    rc = kLockNotInitialized;
  } else {
    mutexRc = pthread_mutex_unlock(&lockPtr->mutex);
    if (mutexRc != 0) {
      int error = errno;
      LOCK_EXC(3109, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock release failed errno=%d\n",
               static_cast<void *>(lockPtr), error);
      rc = kLockReleaseFailed;
    }
  }
  LOCK_EXIT(3110, "clapi_lock.clapiReleaseLock(lockPtr=%p) mutexRc=%d rc=%d\n", static_cast<void *>(lockPtr), mutexRc,
            rc);
  return rc;
}

int clapiDestroyLock(ClapiLock *lockPtr) {
  LOCK_ENTRY(3111, "clapi_lock.clapiDestroyLock(lockPtr=%p)\n", static_cast<void *>(lockPtr));
  int rc = kLockOk;
  int mutexRc = 0;
  if (markerOf(lockPtr) != kLockInitialized) {
    LOCK_EXC(3112, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock not initialized\n", static_cast<void *>(lockPtr));
    rc = kLockNotInitialized;
  } else {
    mutexRc = pthread_mutex_destroy(&lockPtr->mutex);
    if (mutexRc == 0) {
      setMarker(lockPtr, kLockDestroyed);
    } else {
      int error = errno;
      LOCK_EXC(3113, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock destroy failed errno=%d\n",
               static_cast<void *>(lockPtr), error);
      rc = kLockRequestFailed;
    }
  }
  LOCK_EXIT(3114, "clapi_lock.clapiDestroyLock(lockPtr=%p) mutexRc=%d rc=%d\n", static_cast<void *>(lockPtr), mutexRc,
            rc);
  return rc;
}
