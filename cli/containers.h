// Channel calls of qva-call: the channel options, the channel built from them
// before the call, and the channel printed after it.
#ifndef QVA_CLI_CONTAINERS_H
#define QVA_CLI_CONTAINERS_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "qvaclient/qvaclient.h"

namespace qvacall {

struct ContainerSpec {
  std::string name;
  int32_t type = ECI_CHAR;
  int32_t ccsid = 0;  // CHAR only; 0: the channel's
  std::vector<uint8_t> data;
};

class ChannelOptions {
 public:
  enum class Parse { NotMine, Taken, UsageError };

  // Takes argv[*i] when it is a channel option, with its value (moving *i
  // on). A usage error has had its message written to standard error.
  Parse take(int argc, char **argv, int *i);

  // After the last argument: false, with a message, when --char, --bit or
  // --ccsid has no container after it.
  bool finish() const;

  bool channelCall() const { return channelCall_; }
  const std::string &channelName() const { return channelName_; }
  const std::vector<ContainerSpec> &containers() const { return containers_; }

 private:
  bool channelCall_ = false;
  std::string channelName_ = "QVACALL";
  std::vector<ContainerSpec> containers_;
  // Modifiers waiting for the next container.
  std::optional<int32_t> nextType_;
  std::optional<int32_t> nextCcsid_;
  std::string pendingModifier_;
};

// The --help lines of the channel options, the output and the emulator's
// channel programs.
void channelUsage(FILE *out);

// Creates the channel and its containers in the order given. When the
// library refuses one, writes its result to standard error, deletes the
// channel and returns the result.
int buildChannel(const ChannelOptions &options, QvaChannel **channel);

// Prints the channel as channelUsage() describes it.
void printChannel(QvaChannel *channel);

class JsonWriter;

// Adds "channel": {"name", "containers": [...]} with every container's data
// whole; null when the channel cannot be read (told on standard error).
void channelJson(QvaChannel *channel, JsonWriter &json);

}  // namespace qvacall

#endif
