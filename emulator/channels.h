// The emulated channel programs: what each does to the containers of the
// channel it is called with. No I/O and no byte layout here: a program takes
// the request's channel and gives back the return flow.
#ifndef QVAEMU_CHANNELS_H
#define QVAEMU_CHANNELS_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "wire.h"

namespace qvaemu::channels {

// The largest PAYLOAD that CHBIG makes.
inline constexpr size_t kMaxBigSize = size_t{256} * 1024 * 1024;

bool isChannelProgram(std::string_view program);

struct Outcome {
  int32_t rc = 0;  // an ECI return code; not 0: the return flow has no entries
  wire::Channel flow;
};

// Runs a channel program (isChannelProgram) on the request's channel.
Outcome run(std::string_view program, const wire::Channel& channel);

// The channel named as it came, with no entries: what a failed call returns.
wire::Channel emptyFlow(const wire::Channel& channel);
// Every container UNCHANGED, in request order: CHNOOP, and what a COMMAREA
// program called with a channel returns.
wire::Channel unchangedFlow(const wire::Channel& channel);

}  // namespace qvaemu::channels

#endif
