// ECI parameter block validation and the ECI result-code names.

#include "clapi_eci.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_socketcomms.h"

namespace {

// Slot rc + 60 names ECI code rc, for rc from -60 to -1.
constexpr std::array<const char *, 60> kEciNames = [] {
  std::array<const char *, 60> names{};
  // NOLINTNEXTLINE(bugprone-misplaced-widening-cast): rc is -60 to -1, the sum cannot overflow
  auto set = [&names](int rc, const char *name) { names[static_cast<size_t>(rc + 60)] = name; };
  set(-1, "ECI_ERR_INVALID_DATA_LENGTH");
  set(-2, "ECI_ERR_INVALID_EXTEND_MODE");
  set(-3, "ECI_ERR_NO_VESK");
  set(-4, "ECI_ERR_VESK_DIED");
  set(-5, "ECI_ERR_REQUEST_TIMEOUT");
  set(-6, "ECI_ERR_RESPONSE_TIMEOUT");
  set(-7, "ECI_ERR_TRANSACTION_ABEND");
  set(-8, "ECI_ERR_LUW_TOKEN");
  set(-9, "ECI_ERR_SYSTEM_ERROR");
  set(-14, "ECI_ERR_INVALID_CALL_TYPE");
  set(-16, "ECI_ERR_RESOURCE_SHORTAGE");
  set(-17, "ECI_ERR_NO_SESSIONS");
  set(-19, "ECI_ERR_INVALID_DATA_AREA");
  set(-21, "ECI_ERR_INVALID_VERSION");
  set(-22, "ECI_ERR_UNKNOWN_SERVER");
  set(-27, "ECI_ERR_SECURITY_ERROR");
  set(-28, "ECI_ERR_MAX_SYSTEMS");
  set(-29, "ECI_ERR_MAX_SESSIONS");
  set(-30, "ECI_ERR_ROLLEDBACK");
  set(-50, "ECI_ERR_INVALID_CHANNEL");
  set(-51, "ECI_ERR_INVALID_NAME");
  set(-52, "ECI_ERR_NULLCHANNELPTR");
  set(-53, "ECI_ERR_CHANNELLOCKFAIL");
  set(-54, "ECI_ERR_ENDOFCONTAINERS");
  set(-55, "ECI_ERR_NULLINFOPTR");
  set(-56, "ECI_ERR_INVALID_TYPE");
  set(-58, "ECI_ERR_CONTAINER_NOTFOUND");
  set(-59, "ECI_ERR_CONTAINER_EXISTS");
  set(-60, "ECI_ERR_COMMAREA_AND_CHANNEL");
  return names;
}();

}  // namespace

const char *eciCodeName(int rc) {
  if (rc < -60 || rc > -1) return nullptr;
  return kEciNames[static_cast<size_t>(rc + 60)];  // NOLINT(bugprone-misplaced-widening-cast): checked above
}

char *QVA_getRcStringECI(int rc, char *rcString) {
  TRACE_ENTRY(3310, "clapi_eci.QVA_getRcStringECI(rc=%d,rcString=%p)\n", rc, static_cast<void *>(rcString));
  if (rcString != nullptr) {
    const char *name = eciCodeName(rc);
    std::strcpy(rcString, name != nullptr ? name : "UNKNOWN");
  }
  TRACE_EXIT(3311, "clapi_eci.QVA_getRcStringECI(rcString=%p) rc=%d\n", static_cast<void *>(rcString), rc);
  return rcString;
}

int verifyEciParms(const ECI_PARMS *eciParms, int minVersion) {
  const void *block = eciParms;
  TRACE_ENTRY(3300, "clapi_eci.verifyEciParms(&EciParms=%p, minVersion=%d)\n", block, minVersion);
  int rc = ECI_NO_ERROR;
  if (eciParms->eci_call_type != ECI_SYNC) {
    rc = ECI_ERR_INVALID_CALL_TYPE;
    TRACE_EXC(3301, "clapi_eci.verifyEciParms(&EciParms=%p) Invalid Call Type - eci_call_type=%d\n", block,
              eciParms->eci_call_type);
  } else if (static_cast<uint16_t>(eciParms->eci_extend_mode) > 2 && eciParms->eci_extend_mode != ECI_BACKOUT) {
    rc = ECI_ERR_INVALID_EXTEND_MODE;
    TRACE_EXC(3302, "clapi_eci.verifyEciParms(&EciParms=%p) Invalid Extend Mode - eci_extend_mode=%d\n", block,
              eciParms->eci_extend_mode);
  } else if (eciParms->eci_commarea_length < 0) {
    rc = ECI_ERR_INVALID_DATA_LENGTH;
    TRACE_EXC(3303, "clapi_eci.verifyEciParms(&EciParms=%p) Invalid Data Length - eci_commarea_length=%d\n", block,
              eciParms->eci_commarea_length);
  } else if (eciParms->eci_commarea == nullptr && eciParms->eci_commarea_length != 0) {
    rc = ECI_ERR_INVALID_DATA_AREA;
    TRACE_EXC(3304,
              "clapi_eci.verifyEciParms(&EciParms=%p) Invalid Data Area - Commarea null but eci_commarea_length=%d \n",
              block, eciParms->eci_commarea_length);
  } else if (eciParms->eci_commarea != nullptr && eciParms->eci_commarea_length == 0) {
    rc = ECI_ERR_INVALID_DATA_AREA;
    TRACE_EXC(3304,
              "clapi_eci.verifyEciParms(&EciParms=%p) Invalid Data Area - Commarea not null but "
              "eci_commarea_length=0\n",
              block);
  } else if (eciParms->eci_version < minVersion || eciParms->eci_version > ECI_VERSION_4) {
    rc = ECI_ERR_INVALID_VERSION;
    TRACE_EXC(3305, "clapi_eci.verifyEciParms(&EciParms=%p) Invalid ECI Version - eci_version=%d\n", block,
              eciParms->eci_version);
  } else if (eciParms->eci_timeout < 0) {
    rc = ECI_ERR_REQUEST_TIMEOUT;
    TRACE_EXC(3306, "clapi_eci.verifyEciParms(&EciParms=%p) Invalid Timeout - eci_timeout=%d\n", block,
              eciParms->eci_timeout);
  }
  TRACE_EXIT(3307, "clapi_eci.verifyEciParms(&EciParms=%p) rc=%d\n", block, rc);
  return rc;
}

// ---- ECI calls ---------------------------------------------------------------

namespace {

char ECI_REQUEST_NAME[4] = "ECI";

void fillRequestHeader(GatewayRequest *request, char *name) {
  *request = GatewayRequest{};
  request->magic = kHeaderMagic;
  request->version = kProtocolVersionWord;
  request->flowType = kFlowEciRequest;
  request->name = name;
  request->nameLength = static_cast<uint32_t>(std::strlen(name));
  request->extensionMarker = -1;
}

// The block as the trace shows it: a copy whose password reads '*'. The
// copy is allocated at every level, so that an allocation failure shows
// the same whatever the trace level; one copy serves both dumps of a call.
class EciParmsDump {
 public:
  EciParmsDump() : copy_(static_cast<ECI_PARMS *>(plainMalloc(sizeof(ECI_PARMS), "EPRM"))) {}
  ~EciParmsDump() { std::free(copy_); }
  EciParmsDump(const EciParmsDump &) = delete;
  EciParmsDump &operator=(const EciParmsDump &) = delete;

  int write(const ECI_PARMS *eciParms, const char *when) {
    const int size = static_cast<int>(sizeof(ECI_PARMS));
    TRACE_DEBUG(3323, "API.QVA_ECI_Execute(eciParmsSize=%d) %s Eci Stucture \n", size, when);
    if (copy_ == nullptr) {
      TRACE_EXC(3324, "API.QVA_ECI_Execute Failed to allocate %d bytes.\n", size);
      return QVA_ERR_MALLOCFAIL;
    }
    if (traceOn(kTraceDebug)) {
      std::memcpy(copy_, eciParms, sizeof(ECI_PARMS));
      std::memset(copy_->eci_password, '*', sizeof copy_->eci_password);
      clapiTraceData(3325, copy_, sizeof(ECI_PARMS), "API.QVA_ECI_Execute EciParms=%p len=%d stopword=%8.8X\n",
                     addr(copy_), size, 0u);
    }
    return QVA_OK;
  }

 private:
  ECI_PARMS *copy_;
};

bool tpnGiven(const ECI_PARMS *eciParms) {
  static constexpr char kNoTpn[4] = {0, 0, 0, 0};
  return std::memcmp(eciParms->eci_tpn, kNoTpn, sizeof kNoTpn) != 0;
}

// The fields that every program call, COMMAREA or channel, sends.
void fillCallRequest(GatewayRequest *request, const ECI_PARMS *eciParms) {
  request->callType = eciParms->eci_call_type;
  request->extendMode = eciParms->eci_extend_mode;
  request->luwToken = eciParms->eci_luw_token;
  std::memcpy(request->systemName, eciParms->eci_system_name, sizeof request->systemName);
  std::memcpy(request->userId, eciParms->eci_userid, sizeof request->userId);
  std::memcpy(request->password, eciParms->eci_password, sizeof request->password);
  std::memcpy(request->programName, eciParms->eci_program_name, sizeof request->programName);
  if (tpnGiven(eciParms)) {
    std::memcpy(request->transId, eciParms->eci_tpn, sizeof request->transId);
    request->callType = kCallTypeSyncTpn;
  } else {
    std::memcpy(request->transId, eciParms->eci_transid, sizeof request->transId);
  }
  request->timeout = eciParms->eci_timeout;
}

void fillCommareaRequest(GatewayRequest *request, const ECI_PARMS *eciParms) {
  request->commarea = static_cast<uint8_t *>(eciParms->eci_commarea);
  request->commareaLength = eciParms->eci_commarea_length;
  if (eciParms->eci_send_length > 0) {
    request->requestDataLength = std::min<int32_t>(eciParms->eci_send_length, eciParms->eci_commarea_length);
  }
  if (eciParms->eci_receive_length > 0) {
    request->replyDataLength = std::min<int32_t>(eciParms->eci_receive_length, eciParms->eci_commarea_length);
  }
}

// The request's copy of the password must not outlive the call.
void forgetPassword(GatewayRequest *request) {
  volatile char *p = request->password;
  for (size_t i = 0; i < sizeof request->password; ++i) p[i] = 0;
}

// One program call over the token's socket, with the block's COMMAREA or
// with `channel`: the flow's failure, or else the Gateway's return code.
// The abend code and LUW token are copied into the block whenever the reply
// carried them, even if a later part of it failed.
int flowProgramCall(QvaGatewayToken *gwTok, ECI_PARMS *eciParms, QvaChannel *channel) {
  char name[sizeof ECI_REQUEST_NAME];
  std::memcpy(name, ECI_REQUEST_NAME, sizeof name);
  GatewayRequest request;
  fillRequestHeader(&request, name);
  fillCallRequest(&request, eciParms);
  if (channel != nullptr) {
    request.channel = channel;
  } else {
    fillCommareaRequest(&request, eciParms);
  }
  int32_t reasons = 0;
  int rc = clapiFlowECIRequest(gwTok->socket, &request, &reasons);
  forgetPassword(&request);
  if (request.unitFieldsRead) {
    std::memcpy(eciParms->eci_abend_code, request.abendCode, sizeof eciParms->eci_abend_code);
    eciParms->eci_luw_token = request.luwToken;
  }
  return rc == QVA_OK ? request.replyRc : rc;
}

// Clears trailing blanks and NULs of the 9-byte name, from the ninth byte
// back to the second; the first byte is kept whatever it is.
void trimSystemName(uint8_t *entry) {
  for (int i = QVA_SYSTEM_NAME_SIZE - 1; i >= 1 && (entry[i] == ' ' || entry[i] == '\0'); --i) entry[i] = '\0';
}

}  // namespace

int QVA_ECI_Execute(QvaGatewayToken *gwTok, ECI_PARMS *EciParms) {
  int rc = clapiInit();
  HeldGatewayToken heldToken;  // until the call returns
  TRACE_ENTRY(3320, "API.QVA_ECI_Execute(gwTok=%p,EciParms=%p )\n", addr(gwTok), addr(EciParms));
  if (rc == QVA_OK) {
    if (gwTok == nullptr) {
      rc = QVA_ERR_NULLGWTOK;
      TRACE_EXC(3321, "API.QVA_ECI_Execute(gwTok=%p) Null gateway token\n", addr(gwTok));
    } else {
      rc = heldToken.acquire(gwTok);
    }
    if (rc == QVA_OK) {
      if (EciParms == nullptr) {
        rc = QVA_ERR_NULLECIPOINTER;
        TRACE_EXC(3322, "API.QVA_ECI_Execute(EciParms=%p) Null Eci Parameter\n", addr(EciParms));
      } else {
        rc = verifyEciParms(EciParms, 3);
      }
    }
    EciParmsDump dump;
    if (EciParms != nullptr && dump.write(EciParms, "Input") != QVA_OK) rc = QVA_ERR_MALLOCFAIL;
    if (rc == QVA_OK) rc = flowProgramCall(gwTok, EciParms, nullptr);
    // Like the input dump, the output dump shows any block that was given,
    // whether or not the call went out.
    if (EciParms != nullptr) dump.write(EciParms, "Output");
  }
  if (traceOn(kTraceEntryExit)) {
    RcName name(rc);
    clapiTrace(3326, "EXIT", "API.QVA_ECI_Execute() rc=%d %s\n", rc, name.text);
  }
  return rc;
}

namespace {

// The channel call dumps the caller's own block, its password briefly
// overwritten in place with '*' and then restored. Below the dump's level
// nothing would show, so the block is left alone.
void dumpChannelCallBlock(ECI_PARMS *eciParms) {
  if (!traceOn(kTraceDebug)) return;
  char saved[sizeof eciParms->eci_password];
  std::memcpy(saved, eciParms->eci_password, sizeof saved);
  std::memset(eciParms->eci_password, '*', sizeof eciParms->eci_password);
  clapiTraceData(3357, eciParms, sizeof(ECI_PARMS), "API.QVA_ECI_Execute_Channel EciParms=%p len=%d stopword=%8.8X\n",
                 addr(eciParms), static_cast<int>(sizeof(ECI_PARMS)), 0u);
  std::memcpy(eciParms->eci_password, saved, sizeof saved);
  volatile char *copy = saved;
  for (size_t i = 0; i < sizeof saved; ++i) copy[i] = '*';
}

// The request size is a 32-bit word: the channel block must leave room in it
// for the header and the fixed fields of the call.
constexpr uint64_t kMaxChannelWireSize = INT32_MAX - 1024;

}  // namespace

int QVA_ECI_Execute_Channel(QvaGatewayToken *gwTok, ECI_PARMS *EciParms) {
  int rc = clapiInit();
  HeldGatewayToken heldToken;  // until the call returns
  TRACE_ENTRY(3350, "API.QVA_ECI_Execute_Channel(gwTok=%p, EciParms=%p)\n", addr(gwTok), addr(EciParms));
  const bool initialised = rc == QVA_OK;
  if (initialised) {
    if (gwTok == nullptr) {
      rc = QVA_ERR_NULLGWTOK;
      TRACE_EXC(3351, "API.QVA_ECI_Execute_Channel gwTok is NULL\n");
    } else {
      rc = heldToken.acquire(gwTok);
    }
    if (EciParms != nullptr) dumpChannelCallBlock(EciParms);
  }
  QvaChannel *channel = nullptr;
  HeldChannel held;
  if (rc == QVA_OK) {
    if (EciParms == nullptr) {
      rc = QVA_ERR_NULLECIPOINTER;
      TRACE_EXC(3352, "API.QVA_ECI_Execute_Channel EciParms is NULL\n");
    } else if ((rc = verifyEciParms(EciParms, ECI_VERSION_4)) != ECI_NO_ERROR) {
      // channels need the version 4 block
    } else if (EciParms->eci_channel == nullptr) {
      rc = ECI_ERR_INVALID_CHANNEL;
      TRACE_EXC(3353, "API.QVA_ECI_Execute_Channel EciParms->channel is NULL\n");
    } else if (EciParms->eci_commarea != nullptr) {
      rc = ECI_ERR_COMMAREA_AND_CHANNEL;
      TRACE_EXC(3354, "API.QVA_ECI_Execute_Channel EciParms contains a channel and a COMMAREA\n");
    } else if (!held.acquire(EciParms->eci_channel)) {
      rc = ECI_ERR_INVALID_CHANNEL;
      TRACE_EXC(3355, "API.QVA_ECI_Execute_Channel EciParms->channel (%p) is not a channel\n",
                addr(EciParms->eci_channel));
    } else {
      channel = EciParms->eci_channel;
    }
  }
  if (channel != nullptr && channel->ccsid == -1) {
    rc = getCurrentCcsid(&channel->ccsid);
    if (rc == 0) TRACE_EVENT(3356, "API.QVA_ECI_Execute_Channel Channel CCSID set to %d\n", channel->ccsid);
  }
  if (channel != nullptr && rc == QVA_OK) {
    const uint64_t channelSize = channelWireSize(channel);
    if (channelSize > kMaxChannelWireSize) {
      rc = ECI_ERR_INVALID_DATA_LENGTH;
      TRACE_EXC(3358, "API.QVA_ECI_Execute_Channel Channel of %llu bytes is too large for one request\n",
                static_cast<unsigned long long>(channelSize));
    }
  }
  if (channel != nullptr && rc == QVA_OK) {
    // The channel stays locked from before the request is written until the
    // reply has been merged into it.
    rc = flowProgramCall(gwTok, EciParms, channel);
  }
  held.release();
  if (initialised && EciParms != nullptr) dumpChannelCallBlock(EciParms);
  if (traceOn(kTraceEntryExit)) {
    RcName rcName(rc);
    clapiTrace(3359, "EXIT", "API.QVA_ECI_Execute_Channel() rc=%d (%s)\n", rc, rcName.text);
  }
  return rc;
}

int QVA_listSystems(QvaGatewayToken *gwTok, unsigned short *Systems, QVA_SYSTEM_ENTRY *List) {
  int rc = clapiInit();
  HeldGatewayToken heldToken;  // until the call returns
  TRACE_ENTRY(3340, "API.QVA_listSystems(gwTok=%p, Systems=%p, List=%p)\n", addr(gwTok), addr(Systems), addr(List));
  if (rc == QVA_OK) {
    if (gwTok == nullptr) {
      rc = QVA_ERR_NULLGWTOK;
      TRACE_EXC(3341, "API.QVA_listSystems(gwTok=%p) Null gateway token\n", addr(gwTok));
    } else {
      rc = heldToken.acquire(gwTok);
    }
    if (rc == QVA_OK && Systems == nullptr) {
      rc = QVA_ERR_NULLPTR;
      TRACE_EXC(3342, "API.QVA_listSystems(Systems=%p) Null Systems Parameter\n", addr(Systems));
    } else if (rc == QVA_OK && List == nullptr) {
      rc = QVA_ERR_NULLPTR;
      TRACE_EXC(3343, "API.QVA_listSystems(List=%p) Null List Parameter\n", addr(List));
    }
  }
  if (rc == QVA_OK) {
    char name[sizeof ECI_REQUEST_NAME];
    std::memcpy(name, ECI_REQUEST_NAME, sizeof name);
    GatewayRequest request;
    fillRequestHeader(&request, name);
    request.callType = kCallTypeListSystems;
    request.commarea = reinterpret_cast<uint8_t *>(List);
    const int32_t capacity = *Systems;
    request.systemCount = capacity;
    int32_t reasons = 0;
    rc = clapiFlowECIRequest(gwTok->socket, &request, &reasons);
    // A list longer than the caller's is cut to it; the entries that did
    // arrive are still handed back, trimmed.
    if (rc == QVA_OK || rc == QVA_ERR_MORE_SYSTEMS) {
      *Systems = static_cast<unsigned short>(std::clamp(request.systemCount, 0, 65535));
      int32_t received = std::max(request.commareaLength, 0) / static_cast<int32_t>(kSystemEntrySize);
      int32_t entries = std::min({request.systemCount, capacity, received});
      for (int32_t i = 0; i < entries; ++i) trimSystemName(reinterpret_cast<uint8_t *>(&List[i]));
      if (rc == QVA_OK) rc = request.replyRc;
    }
  }
  if (traceOn(kTraceEntryExit)) {
    RcName name(rc);
    clapiTrace(3344, "EXIT", "API.QVA_listSystems() rc=%d %s\n", rc, name.text);
  }
  return rc;
}
