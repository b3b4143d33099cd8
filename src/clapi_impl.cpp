// Library frame: one-time initialisation, result-code names, versions,
// trace control, the environment settings and the connection API.

#include "clapi_impl.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "clapi_diag.h"
#include "clapi_eci.h"
#include "clapi_gwytok.h"
#include "clapi_socketbuffer.h"
#include "clapi_versions.h"
#include "qvaclient/qvaclient.h"

int32_t clapiInitRc = 0;
int32_t clapiState = 0;
char clapiVersion[8] = {};
char cldllVersion[8] = {};

namespace {

pthread_once_t initState = PTHREAD_ONCE_INIT;

struct CodeName {
  int rc;
  const char *name;
};

constexpr std::array<CodeName, 31> kQvaNames{{
    {QVA_OK, "QVA_OK"},
    {QVA_ERR_INVALID_DATA_LENGTH, "QVA_ERR_INVALID_DATA_LENGTH"},
    {QVA_ERR_SYSTEM_ERROR, "QVA_ERR_SYSTEM_ERROR"},
    {QVA_ERR_MORE_SYSTEMS, "QVA_ERR_MORE_SYSTEMS"},
    {QVA_ERR_NO_SYSTEMS, "QVA_ERR_NO_SYSTEMS"},
    {QVA_ERR_NULLGWTOK, "QVA_ERR_NULLGWTOK"},
    {QVA_ERR_BADGWTOK, "QVA_ERR_BADGWTOK"},
    {QVA_ERR_LOSTGWCON, "QVA_ERR_LOSTGWCON"},
    {QVA_ERR_NULLPARM, "QVA_ERR_NULLPARM"},
    {QVA_ERR_TRACELEVEL, "QVA_ERR_TRACELEVEL"},
    {QVA_ERR_BADPORT, "QVA_ERR_BADPORT"},
    {QVA_ERR_NULLGWTOKPTR, "QVA_ERR_NULLGWTOKPTR"},
    {QVA_ERR_NULLPTR, "QVA_ERR_NULLPTR"},
    {QVA_ERR_MALLOCFAIL, "QVA_ERR_MALLOCFAIL"},
    {QVA_ERR_BADGWTOKLIST, "QVA_ERR_BADGWTOKLIST"},
    {QVA_ERR_CONNECTFAILED, "QVA_ERR_CONNECTFAILED"},
    {QVA_ERR_LOCKFAIL, "QVA_ERR_LOCKFAIL"},
    {QVA_ERR_PIDMISMATCH, "QVA_ERR_PIDMISMATCH"},
    {QVA_ERR_TIDMISMATCH, "QVA_ERR_TIDMISMATCH"},
    {QVA_ERR_TRACEFILE, "QVA_ERR_TRACEFILE"},
    {QVA_ERR_BADHOST, "QVA_ERR_BADHOST"},
    {QVA_ERR_NULLADDRESS, "QVA_ERR_NULLADDRESS"},
    {QVA_ERR_CONNECTTIMEOUT, "QVA_ERR_CONNECTTIMEOUT"},
    {QVA_ERR_NULLECIPOINTER, "QVA_ERR_NULLECIPOINTER"},
    {QVA_ERR_INVALIDTIMEOUTPARM, "QVA_ERR_INVALIDTIMEOUTPARM"},
    {QVA_ERR_UNKNOWN_REQUEST_TYPE, "QVA_ERR_UNKNOWN_REQUEST_TYPE"},
    {QVA_ERR_GATEWAY_CLOSED, "QVA_ERR_GATEWAY_CLOSED"},
    {QVA_ERR_WORK_WAS_REFUSED, "QVA_ERR_WORK_WAS_REFUSED"},
    {QVA_ERR_GATEWAY_EXCEPTION, "QVA_ERR_GATEWAY_EXCEPTION"},
    {QVA_ERR_GATEWAY_BACK_LEVEL, "QVA_ERR_GATEWAY_BACK_LEVEL"},
    {QVA_ERR_INVALID_REQUEST_TYPE, "QVA_ERR_INVALID_REQUEST_TYPE"},
}};

const char *qvaCodeName(int rc) {
  for (const CodeName &entry : kQvaNames) {
    if (entry.rc == rc) return entry.name;
  }
  return "UNKNOWN";
}

int traceLevel() { return clientAPITrace.load(std::memory_order_relaxed); }

void setTraceLevel(int level) { clientAPITrace.store(level, std::memory_order_relaxed); }

// fopen in append mode; a name that would not fit the name buffer is refused
// as ENAMETOOLONG rather than truncated, so the trace never goes to a file
// the caller did not name. The stream is not inherited across exec.
FILE *openTraceFile(const char *name) {
  if (strnlen(name, kTraceFilenameSize) >= static_cast<size_t>(kTraceFilenameSize)) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  return std::fopen(name, "ae");
}

// The banner goes once to each destination once tracing is on there.
void writeBannerIfDue() {
  if (traceLevel() >= 1 && traceHeaderWrite == 0) {
    clapiWriteTraceBanner(traceLevel());
    traceHeaderWrite = 1;
  }
}

}  // namespace

void clapiInitFunc(void) {
  if (clapiState == 1) {
    clapiInitRc = 0;
    return;
  }
  setTraceLevel(1);
  int rc = clapiInitTrace();
  if (rc != 0) {
    std::fprintf(stderr, "clapi_impl.clapiInitFunc() Initialization of qvaclient API trace has failed. rc=%d\n", rc);
  } else {
    rc = clapiInitGTL();
    if (rc != 0) {
      TRACE_EXC(1124,
                "clapi_impl.clapiInitFunc() Initialization of qvaclient API Gateway Token List has failed. rc=%d\n",
                rc);
    } else {
      std::memcpy(clapiVersion, kApiVersion, sizeof kApiVersion);
      std::memcpy(cldllVersion, kDllVersion, sizeof kDllVersion);
      // A send to a Gateway that has gone must fail with EPIPE, not end the process.
      std::signal(SIGPIPE, SIG_IGN);
      clapiState = 1;
      setTraceLevel(0);
    }
  }
  clapiSetAPITraceLevelFromEnv();
  clapiSetAPITraceFileFromEnv();
  clapiSetAPITraceParamsFromEnv();
  clapiSetReplyTimeoutFromEnv();
  clapiInitRc = rc;
}

RcName::RcName(int rc) { QVA_getRcString(rc, text); }

int clapiInit(void) {
  if (pthread_once(&initState, clapiInitFunc) != 0) return QVA_ERR_LOCKFAIL;
  return clapiInitRc;
}

// ---- Result-code names and versions ----------------------------------------

char *QVA_getRcString(int rc, char *rcString) {
  TRACE_ENTRY(1130, "clapi_impl.QVA_getRcString(rc=%d, rcString=%p)\n", rc, static_cast<void *>(rcString));
  char *result = rcString;
  if (rcString != nullptr) {
    std::strcpy(rcString, qvaCodeName(rc));
    if (std::strcmp(rcString, "UNKNOWN") == 0) result = QVA_getRcStringECI(rc, rcString);
  }
  TRACE_EXIT(1131, "clapi_impl.QVA_getRcString(rcString=%s) rc=%d\n", result != nullptr ? result : "(null)", rc);
  return result;
}

int QVA_getDLLVersion(char **dllVersPtr) {
  int rc = clapiInit();
  TRACE_ENTRY(1130, "API.QVA_getDLLVersion(&dllVersPtr=%p)\n", static_cast<void *>(dllVersPtr));
  if (rc == QVA_OK) {
    if (dllVersPtr == nullptr) {
      rc = QVA_ERR_NULLPTR;
      TRACE_EXC(1131, "API.QVA_getDLLVersion() Supplied pointer is NULL\n");
    } else {
      *dllVersPtr = cldllVersion;
    }
  }
  TRACE_EXIT(1132, "API.QVA_getDLLVersion(dllVersPtr=%p), rc=%d\n", static_cast<void *>(dllVersPtr), rc);
  return rc;
}

int QVA_getAPIVersion(char **apiVersPtr) {
  int rc = clapiInit();
  TRACE_ENTRY(1088, "API.QVA_getAPIVersion(&apiVersPtr=%p)\n", static_cast<void *>(apiVersPtr));
  if (rc == QVA_OK) {
    if (apiVersPtr == nullptr) {
      rc = QVA_ERR_NULLPTR;
      TRACE_EXC(1089, "API.QVA_getAPIVersion() Supplied pointer is NULL\n");
    } else {
      *apiVersPtr = clapiVersion;
    }
  }
  TRACE_EXIT(1090, "API.QVA_getAPIVersion(apiVersPtr=%p), rc=%d\n", static_cast<void *>(apiVersPtr), rc);
  return rc;
}

// ---- Trace control -----------------------------------------------------------

int QVA_setAPITraceLevel(int traceState) {
  int rc = clapiInit();
  TRACE_ENTRY(1094, "API.QVA_setAPITraceLevel(traceState=%d) current trace level=%d\n", traceState, traceLevel());
  if (rc == QVA_OK) {
    if (static_cast<unsigned>(traceState) >= 6) {
      rc = QVA_ERR_TRACELEVEL;
      TRACE_EXC(1095, "API.QVA_setAPITraceLevel() Supplied trace state value %d was invalid\n", traceState);
    } else {
      LockHolder trace(&traceLock);
      // The banner flag is left alone here on purpose: switching the trace
      // off and on again writes the banner each time.
      if (traceHeaderWrite == 0 && traceLevel() == 0 && traceState > 0) clapiWriteTraceBanner(traceState);
      setTraceLevel(traceState);
    }
  }
  TRACE_EXIT(1096, "API.QVA_setAPITraceLevel(traceState=%d) new trace level=%d rc=%d\n", traceState, traceLevel(), rc);
  return rc;
}

int QVA_getAPITraceLevel(int *traceStatePtr) {
  int rc = clapiInit();
  TRACE_ENTRY(1091, "API.QVA_getAPITraceLevel(traceStatePtr=%p)\n", static_cast<void *>(traceStatePtr));
  if (rc == QVA_OK) {
    if (traceStatePtr == nullptr) {
      rc = QVA_ERR_NULLPTR;
      TRACE_EXC(1092, "API.QVA_getAPITraceLevel() Supplied pointer is NULL\n");
    } else {
      *traceStatePtr = traceLevel();
    }
  }
  TRACE_EXIT(1093, "API.QVA_getAPITraceLevel(traceStatePtr=%p) rc=%d\n", static_cast<void *>(traceStatePtr), rc);
  return rc;
}

int QVA_setAPITraceFile(const char *traceFile) {
  int rc = clapiInit();
  TRACE_ENTRY(1097, "API.QVA_setAPITraceFile(traceFile=%p) current trace destination=%s\n",
              static_cast<const void *>(traceFile), clapiTraceFilenameCopy().c_str());
  bool switched = false;
  int openErrno = 0;
  if (rc == QVA_OK) {
    LockHolder trace(&traceLock);
    FILE *previous = nullptr;
    if (traceFile != nullptr) {
      FILE *stream = openTraceFile(traceFile);
      if (stream != nullptr) {
        previous = clapiSwitchTraceStream(stream, traceFile);
        switched = true;
      } else {
        openErrno = errno;
        rc = QVA_ERR_TRACEFILE;
      }
    } else if (clientAPITraceHandle != nullptr && clientAPITraceHandle != stderr) {
      previous = clapiSwitchTraceStream(stderr, defaultTraceFilename);
      switched = true;
    }
    if (switched) {
      if (previous != nullptr && previous != stderr) std::fclose(previous);
      traceHeaderWrite = 0;
    }
    writeBannerIfDue();
  }
  if (rc == QVA_ERR_TRACEFILE) {
    TRACE_EXC(1100,
              "API.QVA_setAPITraceFile(%s) file append failed with errno=%d. Trace file destination is unchanged. "
              "Filename=%s\n",
              traceFile, openErrno, clapiTraceFilenameCopy().c_str());
  } else if (rc == QVA_OK && switched) {
    TRACE_DEBUG(1098, "API.QVA_setAPITraceFile() Trace file switched to new destination. Filename=%s\n",
                clapiTraceFilenameCopy().c_str());
  } else if (rc == QVA_OK) {
    TRACE_DEBUG(1099, "API.QVA_setAPITraceFile() Trace file destination is unchanged. Filename=%s\n",
                clapiTraceFilenameCopy().c_str());
  }
  TRACE_EXIT(1101, "API.QVA_setAPITraceFile(traceFile=%p) new trace destination=%s rc=%d\n",
             static_cast<const void *>(traceFile), clapiTraceFilenameCopy().c_str(), rc);
  return rc;
}

// These two do their work even after a failed initialisation, on purpose.
void QVA_setAPITraceDataOffset(unsigned int dataOffset) {
  clapiInit();
  TRACE_ENTRY(1013, "API.QVA_setAPITraceDataOffset(dataOffset=%lu)\n", static_cast<unsigned long>(dataOffset));
  uint32_t previous;
  {
    LockHolder trace(&traceLock);
    previous = clientAPIDataOffset;
    clientAPIDataOffset = dataOffset;
  }
  TRACE_DEBUG(1014, "API.QVA_setAPITraceDataOffset Trace data offset changed from %lu to %lu\n",
              static_cast<unsigned long>(previous), static_cast<unsigned long>(dataOffset));
  TRACE_EXIT(1015, "API.QVA_setAPITraceDataOffset()\n");
}

void QVA_setAPITraceDataLength(unsigned int dataLength) {
  clapiInit();
  TRACE_ENTRY(1010, "API.QVA_setAPITraceDataLength(dataLength=%lu)\n", static_cast<unsigned long>(dataLength));
  uint32_t previous;
  {
    LockHolder trace(&traceLock);
    previous = clientAPIDataTrunc;
    clientAPIDataTrunc = dataLength;
  }
  TRACE_DEBUG(1011, "API.QVA_setAPITraceDataLength Trace data truncation length changed from %lu to %lu\n",
              static_cast<unsigned long>(previous), static_cast<unsigned long>(dataLength));
  TRACE_EXIT(1012, "API.QVA_setAPITraceDataLength()\n");
}

int QVA_dumpState(void) {
  int rc = clapiInit();
  TRACE_ENTRY(1106, "API.QVA_dumpState()\n");
  if (rc == QVA_OK) {
    // Written at every level, level 0 included.
    clapiTraceRaw("qvaclient state dump: DLL Version=%s Trace Level=%d clientAPITraceFile=%s\n", kDllVersion,
                  traceLevel(), clapiTraceFilenameCopy().c_str());
    clapiDumpGatewayTokens();
    QVA_ECI_dumpChannels();
  }
  TRACE_EXIT(1107, "API.QVA_dumpState()\n");
  return rc;
}

// ---- Environment settings, read once during initialisation -----------------

int clapiSetAPITraceLevelFromEnv(void) {
  const char *value = std::getenv("QVA_CLIENT_TRACE_LEVEL");
  if (value == nullptr) return 0;
  if (value[0] >= '0' && value[0] <= '5' && value[1] == '\0') {
    LockHolder trace(&traceLock);
    setTraceLevel(value[0] - '0');
    return 0;
  }
  // Said at level 1 whatever the level was, then the trace is off.
  setTraceLevel(1);
  TRACE_EXC(1136, "clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value %s was invalid\n", value);
  setTraceLevel(0);
  return 0;
}

int clapiSetAPITraceFileFromEnv(void) {
  const char *value = std::getenv("QVA_CLIENT_TRACE_FILE");
  if (value == nullptr) {
    // No other thread can trace yet: this runs inside the one-time set-up.
    writeBannerIfDue();
    return 0;
  }
  if (value[0] == '\0') return 0;
  bool switched = false;
  int openErrno = 0;
  {
    LockHolder trace(&traceLock);
    FILE *stream = openTraceFile(value);
    if (stream != nullptr) {
      // Standard error, the destination until now, stays open.
      clapiSwitchTraceStream(stream, value);
      traceHeaderWrite = 0;
      switched = true;
    } else {
      openErrno = errno;
    }
    writeBannerIfDue();
  }
  if (switched) {
    TRACE_DEBUG(1141, "clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. Filename=%s\n",
                clapiTraceFilenameCopy().c_str());
  } else {
    TRACE_EXC(1143,
              "clapi_impl.clapiSetAPITraceFileFromEnv(%s) file append failed with errno=%d. Trace file destination "
              "is unchanged. Filename=%s\n",
              value, openErrno, clapiTraceFilenameCopy().c_str());
  }
  return 0;
}

namespace {

// A value whose first character is a digit sets the setting to its leading
// decimal number; anything else is ignored after the line that shows it.
// The number saturates at 2147483647 as a 32-bit strtol does, so that
// 3000000000 is a large limit here too rather than a negative one.
bool readDumpSetting(const char *variable, int shownPoint, uint32_t *setting) {
  const char *value = std::getenv(variable);
  if (value == nullptr) return false;
  TRACE_DEBUG(shownPoint, "clapi_impl.clapiSetAPITraceParamsFromEnv Environment variable %s=%s\n", variable, value);
  if (value[0] < '0' || value[0] > '9') return false;
  LockHolder trace(&traceLock);
  const long number = std::strtol(value, nullptr, 10);
  *setting = static_cast<uint32_t>(std::min<long>(number, std::numeric_limits<int32_t>::max()));
  return true;
}

}  // namespace

int clapiSetAPITraceParamsFromEnv(void) {
  TRACE_ENTRY(1050, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
  if (readDumpSetting("QVA_CLIENT_DATA_LENGTH", 1051, &clientAPIDataTrunc)) {
    TRACE_DEBUG(1052, "clapi_impl.clapiSetAPITraceParamsFromEnv Data truncation length set to %d\n",
                static_cast<int>(clientAPIDataTrunc));
  }
  if (readDumpSetting("QVA_CLIENT_DATA_OFFSET", 1053, &clientAPIDataOffset)) {
    TRACE_DEBUG(1054, "clapi_impl.clapiSetAPITraceParamsFromEnv Data offset set to %d\n",
                static_cast<int>(clientAPIDataOffset));
  }
  TRACE_EXIT(1055, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
  return 0;
}

// ---- Connection API ----------------------------------------------------------

int QVA_openRemoteGatewayConnection(const char *hostname, int port, QvaGatewayToken **gwTokPtr, int connTimeout) {
  int rc = clapiInit();
  TRACE_ENTRY(1002, "API.QVA_openRemoteGatewayConnection(hostname=%s, port=%d, &gwTokPtr=0x%p, connTimeout=%d \n",
              hostname != nullptr ? hostname : "NULL", port, static_cast<void *>(gwTokPtr), connTimeout);
  if (rc == QVA_OK) {
    // These checks write no line of their own: the EXIT line shows them.
    if (static_cast<unsigned>(port) - 1 > 65534) {
      rc = QVA_ERR_BADPORT;
    } else if (gwTokPtr == nullptr) {
      rc = QVA_ERR_NULLGWTOKPTR;
    } else if (static_cast<unsigned>(connTimeout) > 3600) {
      rc = QVA_ERR_INVALIDTIMEOUTPARM;
    } else if (hostname == nullptr) {
      rc = QVA_ERR_NULLADDRESS;
    } else {
      rc = clapiCreateGatewayToken(gwTokPtr, hostname, port, connTimeout);
    }
  }
  if (traceOn(kTraceEntryExit)) {
    RcName name(rc);
    clapiTrace(1003, "EXIT", "API.QVA_openRemoteGatewayConnection(port=%d) rc=%d %s \n", port, rc, name.text);
  }
  return rc;
}

int QVA_closeGatewayConnection(QvaGatewayToken **gwTokPtr) {
  int rc = clapiInit();
  TRACE_ENTRY(1004, "API.QVA_closeGatewayConnection(&gwTokPtr=%p)\n", static_cast<void *>(gwTokPtr));
  // The two pointers are checked before the initialisation result, on purpose.
  if (gwTokPtr == nullptr) {
    rc = QVA_ERR_NULLGWTOKPTR;
    TRACE_EXC(1005, "API.QVA_closeGatewayConnection(&gwTokPtr=%p) Null gateway token Pointer\n",
              static_cast<void *>(gwTokPtr));
  } else if (*gwTokPtr == nullptr) {
    rc = QVA_ERR_NULLGWTOK;
    TRACE_EXC(1045, "API.QVA_closeGatewayConnection(gwTokPtr=%p) Null gateway token\n", static_cast<void *>(*gwTokPtr));
  } else if (rc == QVA_OK) {
    rc = clapiVerifyGatewayToken(*gwTokPtr);
    if (rc == QVA_OK) {
      rc = clapiDeleteGatewayToken(gwTokPtr, 1);
      TRACE_EVENT(1133, "API.QVA_closeGatewayConnection Closed Gateway connection for token %p\n",
                  static_cast<void *>(gwTokPtr));
    }
  }
  if (traceOn(kTraceEntryExit)) {
    RcName name(rc);
    clapiTrace(1006, "EXIT", "API.QVA_closeGatewayConnection(&gwTokPtrPtr=%p) rc=%d %s \n",
               static_cast<void *>(gwTokPtr), rc, name.text);
  }
  return rc;
}

int QVA_closeAllGatewayConnections(void) {
  int rc = clapiInit();
  TRACE_ENTRY(1007, "API.QVA_closeAllGatewayConnections()\n");
  int gwyTokRc = 0;
  if (rc == QVA_OK) {
    gwyTokRc = clapiDeleteGatewayTokens();
    // An empty list is no failure; the caller sees it only in the trace.
    if (gwyTokRc == kGtlRunaway) rc = QVA_ERR_BADGWTOKLIST;
    TRACE_EVENT(1134, "API.QVA_closeAllGatewayConnections Closed all Gateway connections\n");
  }
  if (traceOn(kTraceEntryExit)) {
    RcName name(rc);
    clapiTrace(1008, "EXIT", "API.QVA_closeAllGatewayConnections() gwyTokRc=%d, rc=%d %s\n", gwyTokRc, rc, name.text);
  }
  return rc;
}

int clapiSetReplyTimeoutFromEnv(void) {
  static constexpr char kVariable[] = "QVA_CLIENT_REPLY_TIMEOUT";
  const char *value = std::getenv(kVariable);
  if (value == nullptr) return 0;
  TRACE_DEBUG(1056, "clapi_impl.clapiSetReplyTimeoutFromEnv Environment variable %s=%s\n", kVariable, value);
  char *end = nullptr;
  const long seconds = std::strtol(value, &end, 10);
  if (value[0] < '0' || value[0] > '9' || *end != '\0' || seconds > 3600) {
    TRACE_EXC(1058,
              "clapi_impl.clapiSetReplyTimeoutFromEnv %s=%s ignored: not a whole number of seconds from 0 to "
              "3600\n",
              kVariable, value);
    return 0;
  }
  clapiSetReplyTimeout(static_cast<int>(seconds));
  TRACE_DEBUG(1057, "clapi_impl.clapiSetReplyTimeoutFromEnv Reply timeout set to %d seconds\n",
              static_cast<int>(seconds));
  return 0;
}
