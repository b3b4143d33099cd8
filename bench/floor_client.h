// The floor: what a program call costs on the wire itself, for COMMAREA and
// channel calls alike. The request is built beforehand (qvaraw::request,
// the same bytes the library sends, checked at start-up) and goes out in
// one send, looping only if the kernel takes part of it. The reply is
// received into one buffer allocated and touched before timing: the first
// recv takes whatever has arrived, the header's body length (read from the
// bytes already received) says how many the message has, and recv goes on
// until all are there. Nothing else is parsed and nothing is copied.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "qvaemu/raw_wire.h"

namespace bench {

using Bytes = qvaraw::Bytes;

class FloorClient {
 public:
  FloorClient() = default;
  FloorClient(const FloorClient &) = delete;
  FloorClient &operator=(const FloorClient &) = delete;
  ~FloorClient();

  // Connects to 127.0.0.1:port with the library's socket options and does
  // the handshake. False with a reason in *error on any failure.
  bool open(uint16_t port, std::string *error);
  void close();

  // Makes the reply buffer hold at least `bytes`, touched once so that no
  // timed call pays for its first use.
  void reserve(size_t bytes);

  // Sends the request and receives the reply whole. Returns the reply's
  // size (header and body), or kTransportFailure / kMalformedReply. A reply
  // larger than the buffer grows it (only before reserve has made it large
  // enough for the largest reply).
  int64_t call(const Bytes &request);

  // The same, the reply received into the caller's `buffer` of `capacity`
  // bytes, which must hold it whole.
  int64_t callInto(const Bytes &request, uint8_t *buffer, size_t capacity);

  // The last reply that call received.
  const uint8_t *reply() const { return reply_.get(); }

  static constexpr int64_t kTransportFailure = -1000;
  static constexpr int64_t kMalformedReply = -1001;

 private:
  // call and callInto; a null buffer means the client's own.
  int64_t exchange(const Bytes &request, uint8_t *buffer, size_t capacity);
  // Grows the buffer, keeping its first `keep` bytes.
  void grow(size_t bytes, size_t keep);

  int fd_ = -1;
  std::unique_ptr<uint8_t[]> reply_;
  size_t capacity_ = 0;
};

}  // namespace bench
