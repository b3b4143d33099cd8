// The emulated server: its COMMAREA programs, its list of servers and the
// extended units of work of one connection; the channel programs are in
// channels.cpp. No I/O here; connection.cpp reads the request, calls in, and
// writes what comes back.
#ifndef QVAEMU_ECI_H
#define QVAEMU_ECI_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "qvaemu/gateway.h"
#include "wire.h"

namespace qvaemu::eci {

struct Config {
  std::vector<ServerEntry> servers;
  std::vector<User> users;  // empty: no security check
  std::vector<CannedProgram> programs;
};

// Waits up to the given time; false when a stop or a drop cut the wait short.
using Waiter = std::function<bool(std::chrono::milliseconds)>;

// The longest SLEEP a request can ask for.
inline constexpr int kMaxSleepMs = 10000;
inline constexpr int kDefaultSleepMs = 200;

class Session {
 public:
  // Tokens come from one source shared by every connection, so a new unit
  // never reuses a token that another connection holds.
  Session(const Config& config, std::atomic<int32_t>& tokenSource) : config_(config), tokenSource_(tokenSource) {}

  // A program call (call type 1 or 12). nullopt: the wait of a SLEEP was cut
  // short, and nothing is to be sent. A request with a channel always gets a
  // return flow, with no entries when the call fails.
  std::optional<wire::ProgramReply> call(const wire::EciRequest& req, const Waiter& wait);

 private:
  int32_t newToken();
  const Config& config_;
  std::atomic<int32_t>& tokenSource_;
  std::set<int32_t> units_;  // open units of work on this connection
};

// capacity: the request's systemCount, the entries the caller can take.
wire::ServerListReply listServers(const Config& config, int32_t capacity);

}  // namespace qvaemu::eci

#endif
