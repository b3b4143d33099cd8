// The yardstick the library is measured against: a client that speaks the
// Gateway protocol over a plain socket with nothing in between. It sends a
// COMMAREA program call built field by field from the wire layout, the
// caller's COMMAREA gathered into the same single send, and reads the reply
// by its header: the header first, then exactly the body length it announces.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <string>

#include "qvaemu/raw_wire.h"

namespace bench {

using Bytes = qvaraw::Bytes;

class RawClient {
 public:
  RawClient() = default;
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;
  ~RawClient();

  // Connects to 127.0.0.1:port with the library's socket options and does
  // the handshake. False with a reason in *error on any failure.
  bool open(uint16_t port, std::string *error);
  void close();

  // One program call on a request that qvaraw::request made for a COMMAREA
  // of `length` bytes: the caller's `commarea` travels in place of the
  // template's, gathered into the same single send (no copy), and the
  // returned COMMAREA is copied back into it (at most `length` bytes).
  // Returns the reply's return code, or kTransportFailure / kMalformedReply.
  int32_t call(const Bytes &request, uint8_t *commarea, size_t length);

  static constexpr int32_t kTransportFailure = -1000;
  static constexpr int32_t kMalformedReply = -1001;

 private:
  bool sendAll(struct iovec *parts, int count);
  // Reads a reply header carrying a name of nameLength characters; returns
  // the body length it announces, or -1.
  int32_t readHeader(uint32_t nameLength);

  int fd_ = -1;
  Bytes body_;  // reused from call to call
};

}  // namespace bench
