// Feeds arbitrary bytes to a channel call as the Gateway's reply, so that
// they are merged into a channel that already holds containers. Whatever the
// bytes, the call must end with a result code and leave a channel whose list,
// count and data agree, that can be walked, read and deleted. Each input is
// merged twice, untraced and at level 3, where the socket buffer reads piece
// by piece: the result and the channel must come out the same.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "clapi_channel.h"
#include "fuzz_request.h"

namespace {

constexpr size_t kMaxInput = 60000;  // stays below a socketpair's buffer

QvaChannel *channelWithContainers() {
  QvaChannel *channel = nullptr;
  if (ECI_createChannel("FUZZ", &channel) != ECI_NO_ERROR) std::abort();
  ECI_createContainer(channel, "KEEP", ECI_BIT, 0, "keep", 4);
  ECI_createContainer(channel, "TEXT", ECI_CHAR, 1208, "some text", 9);
  ECI_createContainer(channel, "EMPTY", ECI_BIT, 0, nullptr, 0);
  ContainerInfo info;
  ECI_getNextContainer(channel, &info);
  ECI_getNextContainer(channel, &info);  // the cursor stands on TEXT
  return channel;
}

// Every container is read whole through the API, the count matches the list,
// and a walk ends. Returns what the walk read: names, types, CCSIDs and data.
std::vector<uint8_t> checkChannel(QvaChannel *channel) {
  std::vector<uint8_t> seen;
  int32_t listed = 0;
  for (Container *cont = channel->firstCont; cont != nullptr; cont = cont->nextCont) {
    ++listed;
    if (cont->dataLength != 0 && cont->dataPtr == nullptr) std::abort();
  }
  if (listed != channel->numContainers) std::abort();
  ContainerInfo info;
  int steps = 0;
  while (ECI_getNextContainer(channel, &info) == ECI_NO_ERROR) {
    std::vector<uint8_t> data(info.dataLength + 1);
    uint32_t count = 0;
    char name[17];
    std::memcpy(name, info.name, sizeof name);
    // Names from the wire need not pass the name rule; read by record then.
    if (ECI_getContainerData(channel, name, data.data(), info.dataLength, 0, &count) == ECI_NO_ERROR &&
        count > info.dataLength) {
      std::abort();
    }
    if (++steps > listed + 1) std::abort();
    const auto *record = reinterpret_cast<const uint8_t *>(&info);
    seen.insert(seen.end(), record, record + sizeof info);
    seen.insert(seen.end(), data.begin(), data.begin() + count);
  }
  return seen;
}

// The whole reply is waiting before the flow starts; the peer then closes
// its sending side, so every read ends at the input's end.
std::vector<uint8_t> merge(const uint8_t *data, size_t size, int traceLevel) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) std::abort();
  if (size > 0) {
    ssize_t written = write(sockets[1], data, size);
    (void)written;
  }
  shutdown(sockets[1], SHUT_WR);

  QvaChannel *channel = channelWithContainers();
  char name[] = "ECI";
  GatewayRequest request = eciRequest(name);
  request.callType = kCallTypeSync;
  request.channel = channel;
  int32_t reasons = 0;
  QVA_setAPITraceLevel(traceLevel);
  const int rc = clapiFlowECIRequest(sockets[0], &request, &reasons);
  QVA_setAPITraceLevel(0);
  std::vector<uint8_t> seen = checkChannel(channel);
  if (ECI_deleteChannel(&channel) != ECI_NO_ERROR) std::abort();
  close(sockets[0]);
  close(sockets[1]);
  const int32_t ends[] = {rc, reasons, request.replyRc, request.luwToken};
  const auto *endBytes = reinterpret_cast<const uint8_t *>(ends);
  seen.insert(seen.end(), endBytes, endBytes + sizeof ends);
  return seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxInput) return 0;
  static const bool traceDiscarded = QVA_setAPITraceFile("/dev/null") == QVA_OK;
  if (!traceDiscarded) std::abort();
  if (merge(data, size, 0) != merge(data, size, 3)) std::abort();
  return 0;
}
