// Library frame: one-time initialisation and the library's global state.
#pragma once

#include <cstdint>

#include "clapi_export.h"

// Runs the one-time initialisation once per process and returns its result
// (or QVA_ERR_LOCKFAIL if it could not be run). Every entry point calls it.
CLAPI_EXPORT int clapiInit(void);
// The initialisation itself, run by clapiInit through pthread_once.
CLAPI_EXPORT void clapiInitFunc(void);

extern int32_t clapiInitRc;
extern int32_t clapiState;
extern char clapiVersion[8];
extern char cldllVersion[8];

CLAPI_EXPORT int clapiSetAPITraceLevelFromEnv(void);
CLAPI_EXPORT int clapiSetAPITraceFileFromEnv(void);
CLAPI_EXPORT int clapiSetAPITraceParamsFromEnv(void);
// QVA_CLIENT_REPLY_TIMEOUT: the opt-in reply deadline, whole seconds from 0
// (none) to 3600. Unset, it writes no trace line at all.
CLAPI_EXPORT int clapiSetReplyTimeoutFromEnv(void);

// Fills a zero-terminated buffer of QVA_RC_STRING_SIZE bytes with the name of
// rc, as the EXIT lines of the entry points show it.
struct RcName {
  char text[40] = {};
  explicit RcName(int rc);
};
