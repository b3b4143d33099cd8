#include "floor_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace bench {

using qvaraw::bodyLengthAt;
using qvaraw::get32;
using qvaraw::headerSize;

FloorClient::~FloorClient() { close(); }

void FloorClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void FloorClient::grow(size_t bytes, size_t keep) {
  if (bytes <= capacity_) return;
  auto bigger = std::make_unique<uint8_t[]>(bytes);  // value-initialised: every page touched
  if (keep > 0) std::memcpy(bigger.get(), reply_.get(), keep);
  reply_ = std::move(bigger);
  capacity_ = bytes;
}

void FloorClient::reserve(size_t bytes) { grow(bytes, 0); }

bool FloorClient::open(uint16_t port, std::string *error) {
  close();
  grow(4096, 0);
  fd_ = qvaraw::openSession("127.0.0.1", port, error);
  return fd_ >= 0;
}

int64_t FloorClient::call(const Bytes &request) { return exchange(request, nullptr, 0); }

int64_t FloorClient::callInto(const Bytes &request, uint8_t *buffer, size_t capacity) {
  return exchange(request, buffer, capacity);
}

int64_t FloorClient::exchange(const Bytes &request, uint8_t *buffer, size_t capacity) {
  if (!qvaraw::sendAll(fd_, request.data(), request.size())) return kTransportFailure;
  const bool own = buffer == nullptr;
  if (own) {
    buffer = reply_.get();
    capacity = capacity_;
  }
  // Whatever has arrived, up to the buffer's end until the header has told
  // the message's length, then up to that length.
  size_t got = 0;
  size_t want = capacity;
  bool sized = false;
  while (!sized || got < want) {
    const ssize_t n = ::recv(fd_, buffer + got, want - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return kTransportFailure;
    got += static_cast<size_t>(n);
    if (!sized && got >= headerSize(3)) {
      sized = true;
      want = headerSize(3) + get32(buffer + bodyLengthAt(3));
      if (got > want) return kMalformedReply;  // more than one message
      if (want > capacity) {
        if (!own) return kMalformedReply;
        grow(want, got);  // only before the buffer is reserved for the largest reply
        buffer = reply_.get();
        capacity = capacity_;
      }
    }
  }
  return static_cast<int64_t>(got);
}

}  // namespace bench
