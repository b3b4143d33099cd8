// The floor for channel calls: the request bytes built field by field from
// the wire layout, sent in one send, and the whole reply received into one
// buffer by one recv loop that stops at the length its header announces.
// Nothing is parsed on the way and nothing copied; the parser below serves
// the start-up checks only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "raw_eci_client.h"

namespace bench {

// Container types and the states of a channel entry on the wire.
inline constexpr uint8_t kBitType = 1;
inline constexpr uint8_t kCharType = 2;
inline constexpr uint8_t kAdded = 1;
inline constexpr uint8_t kDeleted = 2;
inline constexpr uint8_t kModified = 3;
inline constexpr uint8_t kUnchanged = 4;

struct ContainerSpec {
  std::string name;  // 1 to 16 characters; zero-padded to 16 on the wire
  uint8_t type = kBitType;
  int32_t ccsid = 0;
  const uint8_t *data = nullptr;
  uint32_t length = 0;
};

// A channel program call: every field not named here travels as 0 (extend
// mode 0, no LUW, no COMMAREA, no limits, no transaction program name, time
// limit 0).
struct ChannelCall {
  ProgramCall call;
  std::string channelName;  // zero-padded to 16
  int32_t channelCcsid = 0;
  std::vector<ContainerSpec> containers;  // in the order they travel
};

// The whole request, header and body.
Bytes buildChannelRequest(const ChannelCall &call);

// One entry of a return flow; `data` points into the reply (null when the
// entry carries none).
struct ReturnEntry {
  std::string name;  // without the padding
  uint8_t state = 0;
  uint8_t type = 0;
  int32_t ccsid = 0;
  uint32_t length = 0;
  const uint8_t *data = nullptr;
};

struct ChannelReply {
  int32_t replyRc = 0;
  std::string channelName;
  int32_t channelCcsid = 0;
  std::vector<ReturnEntry> entries;
};

// Parses a reply message (header and body) to a channel call. False with
// the reason in *error when it does not follow the layout.
bool parseChannelReply(const uint8_t *message, size_t size, ChannelReply *reply, std::string *error);

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
  bool sendAll(const uint8_t *data, size_t length);
  // call and callInto; a null buffer means the client's own.
  int64_t exchange(const Bytes &request, uint8_t *buffer, size_t capacity);
  // Grows the buffer, keeping its first `keep` bytes.
  void grow(size_t bytes, size_t keep);

  int fd_ = -1;
  std::unique_ptr<uint8_t[]> reply_;
  size_t capacity_ = 0;
};

}  // namespace bench
