// Channels and containers: the records the whole library shares, the
// channel registry and the helpers the container operations and the reply
// merge have in common.
#pragma once

#include <cstdint>
#include <cstring>

#include "clapi_lock.h"
#include "qvaclient/qvaclient.h"

inline constexpr int kNameSize = 16;

struct Container {
  char eyecatcher[8];    // "QVACONTA", no terminator
  char name[kNameSize];  // NUL-filled; no terminator at full length
  int32_t ccsid;         // 0 for ECI_BIT
  int32_t type;
  uint8_t *dataPtr;  // guarded block "CDAT", or null
  uint32_t dataLength;
  Container *nextCont;
};

// The record behind a channel token.
struct QvaChannel {
  char eyecatcher[8];  // "QVACHANN", no terminator
  char name[kNameSize];
  int32_t ccsid;  // -1 until decided
  int32_t numContainers;
  Container *firstCont;    // newest first
  Container *currentCont;  // the walk's cursor
  ClapiLock lock;          // guards the fields above and the containers
  QvaChannel *nextChannel;
};

// A bounded copy of 16: NUL-filled, no terminator at full length.
inline void copyName(char (&stored)[kNameSize], const char *name) {
  std::memset(stored, 0, kNameSize);
  std::memcpy(stored, name, strnlen(name, kNameSize));
}

extern QvaChannel *chanList;
extern int32_t chanListState;
extern ClapiLock chanListLock;

// The registry's one-time set-up; 0, ECI_ERR_LOCKFAIL or clapiInit's result.
int channelInit();

// 0 or ECI_ERR_INVALID_NAME, with the reason traced.
int validateName(const char *name);

// The name of an ECI code as channel trace lines show it.
const char *getRcString(int rc);

// The EXIT line of a channel or container operation: "<function>() rc=%d (%s)".
void traceChannelExit(int point, const char *function, int rc);

// Requests the lock of a live channel. A token that is not on the registry
// (never a channel, or deleted) is refused without touching its memory.
// Returns 0 when the lock is held.
int lockChannel(QvaChannel *chanTok);

// Holds a live channel's lock until release() or the end of its scope.
class HeldChannel {
 public:
  HeldChannel() = default;
  ~HeldChannel() { release(); }
  HeldChannel(const HeldChannel &) = delete;
  HeldChannel &operator=(const HeldChannel &) = delete;

  // The channel test: false when the token is not a live channel.
  bool acquire(QvaChannel *chanTok) {
    release();
    if (lockChannel(chanTok) == kLockOk) channel_ = chanTok;
    return channel_ != nullptr;
  }
  void release() {
    if (channel_ != nullptr) clapiReleaseLock(&channel_->lock);
    channel_ = nullptr;
  }

 private:
  QvaChannel *channel_ = nullptr;
};

// Walks the channel's containers for a 16-byte name; *predecessor (if not
// null) receives the container before the match.
Container *findContainer(QvaChannel *channel, const char *name, Container **predecessor = nullptr);

// Unlinks the container from the channel, moving the walk's cursor back to
// the predecessor when it stood on it.
void unlinkContainer(QvaChannel *channel, Container *container, Container *predecessor);

// Zero-fills and frees a container's data; the clapiFree result.
int freeContainerData(Container *container);

// Zero-fills and frees a record of `size` bytes; the clapiFree result.
int freeRecord(void *record, uint32_t size);
