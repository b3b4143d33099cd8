// Feeds arbitrary bytes to the client as a Gateway's reply: to the ECI flow
// (a COMMAREA call or a server-list request) and to the handshake and close
// flows. Whatever the bytes, a flow must end with a result code, never read
// or write outside the caller's areas, and never block once the peer has
// closed.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

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
int runFlow(uint8_t selector, int socketDesc) {
  int32_t reasons = 0;
  switch (selector % 4) {
    case 0:
      return clapiFlowHandshakeRequest(socketDesc, &reasons);
    case 1:
      return clapiFlowCloseRequest(socketDesc, &reasons);
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
  int rc = clapiFlowECIRequest(socketDesc, &request, &reasons);
  if (!area.intact()) std::abort();
  return rc;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > kMaxInput) return 0;
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) return 0;
  // The whole reply is waiting before the flow starts; the peer then closes
  // its sending side, so every read ends at the input's end.
  if (size > 1) {
    ssize_t written = write(sockets[1], data + 1, size - 1);
    (void)written;
  }
  shutdown(sockets[1], SHUT_WR);
  runFlow(data[0], sockets[0]);
  close(sockets[0]);
  close(sockets[1]);
  return 0;
}
