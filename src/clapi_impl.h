// Library frame: one-time initialisation and the library's global state.
#pragma once

#include <cstdint>

#include "clapi_export.h"

// Runs the one-time initialisation once per process and returns its result
// (or QVA_ERR_LOCKFAIL if it could not be run). Every entry point calls it.
CLAPI_EXPORT int clapiInit(void);

extern int32_t clapiInitRc;
extern int32_t clapiState;
extern char clapiVersion[8];
extern char cldllVersion[8];

CLAPI_EXPORT int clapiSetAPITraceLevelFromEnv(void);
CLAPI_EXPORT int clapiSetAPITraceFileFromEnv(void);
CLAPI_EXPORT int clapiSetAPITraceParamsFromEnv(void);

// Fills a zero-terminated buffer of QVA_RC_STRING_SIZE bytes with the name of
// rc, as the EXIT lines of the entry points show it.
struct RcName {
  char text[40] = {};
  explicit RcName(int rc);
};
