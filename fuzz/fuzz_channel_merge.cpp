// Feeds arbitrary bytes to a channel call as the Gateway's reply, so that
// they are merged into a channel that already holds containers. Whatever the
// bytes, the call must end with a result code and leave a channel whose list,
// count and data agree, that can be walked, read and deleted.

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
// and a walk ends.
void checkChannel(QvaChannel *channel) {
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
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxInput) return 0;
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) return 0;
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
  clapiFlowECIRequest(sockets[0], &request, &reasons);
  checkChannel(channel);
  if (ECI_deleteChannel(&channel) != ECI_NO_ERROR) std::abort();
  close(sockets[0]);
  close(sockets[1]);
  return 0;
}
