// Lock records: a mutex that knows whether it was ever initialised.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "clapi_export.h"

inline constexpr uint32_t kLockInitialized = 0xFFEEDDCC;
inline constexpr uint32_t kLockDestroyed = 0xCCDDEEFF;

// A zero-filled record counts as not initialised, so static records need no
// set-up before clapiInitializeLock.
struct ClapiLock {
  pthread_mutex_t mutex;
  uint32_t marker;
};

// Results private to this module (callers map them to QVA_ codes).
inline constexpr int kLockOk = 0;
inline constexpr int kLockAlreadyInitialized = 1;
inline constexpr int kLockNotInitialized = -1;
inline constexpr int kLockCreateFailed = -2;
inline constexpr int kLockRequestFailed = -4;
inline constexpr int kLockReleaseFailed = -5;

CLAPI_EXPORT uint32_t clapiIsLockInitialized(ClapiLock *lockPtr);
CLAPI_EXPORT int clapiInitializeLock(ClapiLock *lockPtr);
CLAPI_EXPORT int clapiRequestLock(ClapiLock *lockPtr);
CLAPI_EXPORT int clapiReleaseLock(ClapiLock *lockPtr);
CLAPI_EXPORT int clapiDestroyLock(ClapiLock *lockPtr);

// Holds a lock record for one scope; releases only what it obtained. A null
// record means the caller already holds what it needs.
class LockHolder {
 public:
  explicit LockHolder(ClapiLock *lock)
      : lock_(lock), rc_(lock != nullptr ? clapiRequestLock(lock) : kLockNotInitialized) {}
  ~LockHolder() { release(); }
  LockHolder(const LockHolder &) = delete;
  LockHolder &operator=(const LockHolder &) = delete;

  bool held() const { return rc_ == kLockOk && lock_ != nullptr; }
  void release() {
    if (held()) {
      clapiReleaseLock(lock_);
      lock_ = nullptr;
    }
  }

 private:
  ClapiLock *lock_;
  int rc_;
};
