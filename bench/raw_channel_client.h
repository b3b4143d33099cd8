// The floor for channel calls: the request bytes (built by qvaraw::request)
// sent in one send, and the whole reply received into one buffer by one recv
// loop that stops at the length its header announces. Nothing is parsed on
// the way and nothing copied.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "raw_eci_client.h"

namespace bench {

class RawChannelClient {
 public:
  RawChannelClient() = default;
  RawChannelClient(const RawChannelClient &) = delete;
  RawChannelClient &operator=(const RawChannelClient &) = delete;
  ~RawChannelClient();

  // Connects to 127.0.0.1:port with the library's socket options and does
  // the handshake. False with a reason in *error on any failure.
  bool open(uint16_t port, std::string *error);
  void close();

  // Makes the reply buffer hold at least `bytes`, touched once so that no
  // timed call pays for its first use.
  void reserve(size_t bytes);

  // Sends the request and receives the reply whole. Returns the reply's
  // size (header and body), or kTransportFailure / kMalformedReply.
  int64_t call(const Bytes &request);

  // The same, the reply received into the caller's `buffer` of `capacity`
  // bytes, which must hold it whole.
  int64_t callInto(const Bytes &request, uint8_t *buffer, size_t capacity);

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
