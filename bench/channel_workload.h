// The channel calls that bench_channel times, each in two forms: a channel
// and parameter block for the library, and the request bytes for the floor
// client, built from the wire layout without the library's help.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "floor_client.h"
#include "qvaclient/qvaclient.h"

namespace bench {

inline constexpr size_t kContainerCounts[] = {1, 10, 100};
inline constexpr uint32_t kSmallContainer = 1024;
inline constexpr uint32_t kBigSize = uint32_t{64} << 20;  // 64 MiB

class ChannelWorkload {
 public:
  enum class Kind {
    Echo,  // CHECHO: every container comes back MODIFIED with its own data
    Big,   // CHBIG: SIZE asks for a PAYLOAD that comes back ADDED
  };

  // CHECHO with `containers` BIT containers of `size` bytes each.
  static std::unique_ptr<ChannelWorkload> echo(size_t containers, uint32_t size);
  // CHBIG asked for a PAYLOAD of `size` bytes; the request carries SIZE only.
  static std::unique_ptr<ChannelWorkload> big(uint32_t size);

  ~ChannelWorkload();
  ChannelWorkload(const ChannelWorkload &) = delete;
  ChannelWorkload &operator=(const ChannelWorkload &) = delete;

  const std::string &key() const { return key_; }  // for benchmark names, e.g. "CHECHO_10x1KiB"
  bool large() const { return kind_ == Kind::Big || payloadBytes_ >= (1u << 20); }
  const Bytes &request() const { return request_; }

  // Bytes one call moves: the request and the reply, headers included. The
  // reply's size is known once the start-up check has seen it.
  size_t replySize() const { return replySize_; }
  uint64_t bytesPerCall() const { return request_.size() + replySize_; }

  // Heap allocations one library call makes, as bench_channel documents them.
  uint64_t expectedAllocations() const;

  // One QVA_ECI_Execute_Channel; the result.
  int callLibrary(QvaGatewayToken *gw);
  // Puts the channel back as it was before the call, where the call changed
  // it (CHBIG: PAYLOAD deleted, so that the next call gets it ADDED again).
  // Returns false if that failed. Never timed.
  bool needsReset() const { return kind_ == Kind::Big; }
  bool reset();

  // After callLibrary: the channel holds what the program returned.
  bool checkLibraryResult(std::string *error);
  // A whole reply that the floor client received for request(); remembers its size.
  bool checkFloorReply(const uint8_t *message, size_t size, std::string *error);

 private:
  ChannelWorkload(Kind kind, std::string key);
  bool create(std::string *error);
  qvaraw::Call wireCall() const;

  Kind kind_;
  std::string key_;
  std::vector<std::string> names_;  // containers in the order of creation
  std::vector<Bytes> data_;         // their data, in the same order
  uint32_t payloadBytes_ = 0;       // CHBIG: PAYLOAD's size; CHECHO: each container's
  QvaChannel *channel_ = nullptr;
  ECI_PARMS parms_{};
  Bytes request_;
  size_t replySize_ = 0;
};

using Workloads = std::vector<std::unique_ptr<ChannelWorkload>>;

// CHECHO with 1, 10 and 100 containers of 1 KiB, CHBIG of 64 MiB and
// CHECHO of one 64 MiB container. Empty after a failure (reported on stderr).
Workloads makeWorkloads();

// Runs every workload twice through each client against a recording
// emulator: both must send exactly the request bytes that the wire layout
// gives, and both must get back what the program returns. The system-call
// counter must see the library's sends and receives.
bool checkWire(Workloads &workloads);

}  // namespace bench
