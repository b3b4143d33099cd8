// Feeds arbitrary bytes to the client as a Gateway's reply: to the ECI flow
// (a COMMAREA call or a server-list request) and to the handshake and close
// flows. Whatever the bytes, a flow must end with a result code, never read
// or write outside the caller's areas, and never block once the peer has
// closed. Each input is read twice, untraced and at level 3, where the
// socket buffer reads piece by piece: the two must end alike.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_request.h"
#include "qvaclient/qvaclient.h"

namespace {

constexpr size_t kMaxInput = 60000;  // stays below a socketpair's buffer
constexpr uint8_t kCanary = 0xA5;

// Area of `size` bytes followed by canaries that must survive the flow.
struct GuardedArea {
  explicit GuardedArea(size_t size) : size(size), bytes(static_cast<uint8_t *>(std::malloc(size + 64))) {
    std::memset(bytes, kCanary, size + 64);
  }
  ~GuardedArea() { std::free(bytes); }
  bool intact() const {
    for (size_t i = size; i < size + 64; ++i) {
      if (bytes[i] != kCanary) return false;
    }
    return true;
  }
  size_t size;
  uint8_t *bytes;
};

// The first input byte picks the flow and the request it answers: bits 0-1
// the flow (0 handshake, 1 close, 2 program call, 3 server list); for a
// program call, bit 2 extend mode 2 (commit, no COMMAREA either way), bit 5
// extend mode 4 (backout), bit 6 extend mode 1, and bits 3-4 the call:
// 0 a plain call, 1 a TPN call (type 12), 2 a call type the reader does not
// know, 3 a plain call bounded to 50 bytes out and 10 back.
// What a flow leaves behind, to compare the untraced and the traced reading:
// the result, the reasons, the caller's area with the name storage, and the
// fields a reply writes.
struct Outcome {
  int rc = 0;
  int32_t reasons = 0;
  std::vector<uint8_t> area;
  std::vector<int64_t> fields;
  bool operator==(const Outcome &) const = default;
};

std::vector<int64_t> replyFields(const GatewayRequest &r) {
  int32_t abend = 0;
  std::memcpy(&abend, r.abendCode, sizeof abend);
  return {r.magic,          r.version,         r.flowType,    r.flowQualifier, r.flowReserved,  r.nameLength,
          r.headerFlag,     r.dataLength,      r.callType,    r.luwToken,      r.spareInt,      abend,
          r.commareaLength, r.replyDataLength, r.systemCount, r.replyRc,       r.unitFieldsRead};
}

Outcome runFlow(uint8_t selector, int socketDesc) {
  Outcome out;
  int32_t &reasons = out.reasons;
  switch (selector % 4) {
    case 0:
      out.rc = clapiFlowHandshakeRequest(socketDesc, &reasons);
      return out;
    case 1:
      out.rc = clapiFlowCloseRequest(socketDesc, &reasons);
      return out;
    default:
      break;
  }
  char name[] = "ECI";
  GatewayRequest request = eciRequest(name);
  const bool list = selector % 4 == 3;
  GuardedArea area(list ? 3 * kSystemEntrySize : 100);
  request.commarea = area.bytes;
  if (list) {
    request.callType = kCallTypeListSystems;
    request.systemCount = 3;
  } else {
    static constexpr int32_t kCallTypes[] = {kCallTypeSync, kCallTypeSyncTpn, 7, kCallTypeSync};
    const int call = (selector >> 3) % 4;
    request.callType = kCallTypes[call];
    request.commareaLength = 100;
    request.extendMode = (selector & 0x04) != 0 ? 2 : (selector & 0x20) != 0 ? 4 : (selector & 0x40) != 0 ? 1 : 0;
    if (call == 3) {
      request.requestDataLength = 50;
      request.replyDataLength = 10;
    }
  }
  out.rc = clapiFlowECIRequest(socketDesc, &request, &reasons);
  if (!area.intact()) std::abort();
  out.area.assign(area.bytes, area.bytes + area.size);
  out.fields = replyFields(request);
  out.area.insert(out.area.end(), name, name + sizeof name);
  return out;
}

// The whole reply is waiting before the flow starts; the peer then closes
// its sending side, so every read ends at the input's end.
Outcome replay(const uint8_t *data, size_t size, int traceLevel) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) std::abort();
  if (size > 1) {
    ssize_t written = write(sockets[1], data + 1, size - 1);
    (void)written;
  }
  shutdown(sockets[1], SHUT_WR);
  QVA_setAPITraceLevel(traceLevel);
  Outcome out = runFlow(data[0], sockets[0]);
  QVA_setAPITraceLevel(0);
  close(sockets[0]);
  close(sockets[1]);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > kMaxInput) return 0;
  static const bool traceDiscarded = QVA_setAPITraceFile("/dev/null") == QVA_OK;
  if (!traceDiscarded) std::abort();
  if (!(replay(data, size, 0) == replay(data, size, 3))) std::abort();
  return 0;
}
