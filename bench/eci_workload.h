// The COMMAREA program calls that bench_eci times, in the form each of its
// three clients needs, and the check of their wire before anything is timed.
#pragma once

#include <cstddef>
#include <map>
#include <memory>

#include "qvaclient/qvaclient.h"
#include "raw_eci_client.h"

namespace bench {

inline constexpr int kCommareaSizes[] = {100, 4096, 32767};

// One call of ECHO with a COMMAREA of `size` bytes: the library's parameter
// block and COMMAREA, the raw client's COMMAREA, and the request bytes that
// the raw and floor clients send (built from the wire layout).
struct EciWorkload {
  explicit EciWorkload(int size);

  Bytes data;  // what every COMMAREA holds before and after the call
  Bytes libCommarea;
  Bytes rawCommarea;
  ECI_PARMS parms;
  Bytes request;
  // The whole reply (header and body) as the floor client receives it;
  // known once checkWire has seen it.
  size_t replySize = 0;
};

using EciWorkloads = std::map<int, std::unique_ptr<EciWorkload>>;

// A workload for each of kCommareaSizes.
EciWorkloads makeEciWorkloads();

// Runs every size once through each client against a recording emulator:
// each must send exactly the bytes that the wire layout gives and get the
// COMMAREA echoed back; the floor client's reply sizes are remembered. The
// system-call counter must see the library's sends and receives.
bool checkEciWire(EciWorkloads &workloads);

}  // namespace bench
