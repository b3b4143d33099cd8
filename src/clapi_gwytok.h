// The Gateway Token List: one token per open Gateway connection.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "clapi_export.h"

// The application's handle of one open connection.
struct QvaGatewayToken {
  char eyecatcher[8];  // "QVAGWTOK", no terminator
  int32_t port;
  int32_t connStatus;
  int32_t socket;
  uint32_t owningPid;
  uint32_t owningTid;  // low 32 bits, as traces show it
  // Guarded by tokenUseLock; they fill what would be padding, so the record
  // keeps the size its allocation trace shows.
  uint16_t uses;  // calls that hold the token (see holdGatewayToken)
  bool opening;   // its creator is still connecting it
  char *protocolVersion;
  QvaGatewayToken *nextGwyTokPtr;
  pthread_t owningThread;  // the full id that ownership checks compare
};

static_assert(sizeof(QvaGatewayToken) == 56, "the token's size is part of its allocation trace");

inline constexpr int32_t kConnNew = 0;
inline constexpr int32_t kConnConnected = 1;
inline constexpr int32_t kConnFailed = 2;
inline constexpr int32_t kConnCloseFailed = 3;
inline constexpr int32_t kConnClosed = 4;

// Results of the list walks.
inline constexpr int kGtlHeadNull = 1001;
inline constexpr int kGtlTargetNull = 1002;
inline constexpr int kGtlNotFound = 1003;
inline constexpr int kGtlFound = 1004;
inline constexpr int kGtlRunaway = 1005;
inline constexpr int kGtlEmpty = 1006;
inline constexpr int kGtlRunawayLimit = 256;

inline constexpr int kTokenTextSize = 512;

extern QvaGatewayToken *gtListHeadPtr;
extern QvaGatewayToken *gtListTailPtr;

CLAPI_EXPORT int clapiInitGTL(void);
CLAPI_EXPORT int clapiCreateGatewayToken(QvaGatewayToken **gwTokPtr, const char *hostname, int port, int connTimeout);
CLAPI_EXPORT int clapiVerifyGatewayToken(QvaGatewayToken *gwTok);
CLAPI_EXPORT int clapiDeleteGatewayToken(QvaGatewayToken **gwTokPtr, int lockRequired);
CLAPI_EXPORT int clapiDeleteGatewayTokens(void);
CLAPI_EXPORT int clapiFormatGatewayToken(const QvaGatewayToken *gwTok, char *dst);
CLAPI_EXPORT int clapiDumpGatewayTokens(void);

// The caller holds gtlLock.
int findGatewayToken(const QvaGatewayToken *target, QvaGatewayToken **parent);

// Verifies the token as clapiVerifyGatewayToken does (same result, same
// trace) and, when it passes, holds it for the caller's call until
// releaseGatewayToken: a deletion from another thread meanwhile shuts
// the connection down and waits for the release before it frees anything.
int holdGatewayToken(QvaGatewayToken *gwTok);
void releaseGatewayToken(QvaGatewayToken *gwTok);

// Holds a token for one scope.
class HeldGatewayToken {
 public:
  HeldGatewayToken() = default;
  ~HeldGatewayToken() {
    if (token_ != nullptr) releaseGatewayToken(token_);
  }
  HeldGatewayToken(const HeldGatewayToken &) = delete;
  HeldGatewayToken &operator=(const HeldGatewayToken &) = delete;

  int acquire(QvaGatewayToken *gwTok) {
    int rc = holdGatewayToken(gwTok);
    if (rc == 0) token_ = gwTok;
    return rc;
  }

 private:
  QvaGatewayToken *token_ = nullptr;
};
