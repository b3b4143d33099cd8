// One connection's socket: reads whole messages, recording every byte the
// peer sends, and writes replies. Nothing here knows what a message means.
#ifndef QVAEMU_LINK_H
#define QVAEMU_LINK_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "gateway_impl.h"
#include "wire.h"

namespace qvaemu {

// A name longer than this, or a body larger, means the stream is out of step.
// The body limit leaves room for a channel of the largest container the
// emulator makes, and what goes around it.
inline constexpr uint32_t kMaxNameLength = 255;
inline constexpr int32_t kMaxBodyLength = 257 * 1024 * 1024;

class Link {
 public:
  Link(Gateway::Impl& g, Connection& c, int fd) : g_(g), c_(c), fd_(fd) {}

  // The header first, 29 + n bytes, then dataLength body bytes. False at the
  // end of the stream, and when a header that cannot be ours put the stream
  // out of step (then the connection has been closed). body is valid until
  // the next call: the storage is kept from one message to the next, and is
  // not cleared, as every byte of it is read over before it is seen.
  bool readMessage(wire::Header& h, std::span<const uint8_t>& body);

  bool send(std::span<const uint8_t> bytes);
  // The header and the body's pieces, gathered into as few writes as can be.
  bool send(const wire::Header& h, const wire::Body& body);
  // A few bytes per send, with tiny pauses between them.
  bool trickle(std::span<const uint8_t> bytes);
  // Half-close, then read to the end: the peer sees EOF after every byte sent,
  // no reset can overtake them, and its own close is still seen and recorded.
  void closeAndDrain();
  // False when a stop or a drop cut the wait short.
  bool wait(std::chrono::microseconds d);

 private:
  void record(const uint8_t* p, size_t n);
  bool readExact(uint8_t* p, size_t n);
  void endOfStream();

  Gateway::Impl& g_;
  Connection& c_;
  const int fd_;
  std::unique_ptr<uint8_t[]> buffer_;
  size_t capacity_ = 0;
};

}  // namespace qvaemu

#endif
