// qvaemu: an in-process Gateway emulator.
//
// It speaks the Gateway side of the binary protocol on loopback: the handshake,
// the close request, ECI program calls with a COMMAREA and the server list.
// Tests, benchmarks and the qva-gateway program start it, talk to it over real
// sockets, read back every byte a connection sent and inject faults per
// connection. Nothing here depends on the client library.
#ifndef QVAEMU_GATEWAY_H
#define QVAEMU_GATEWAY_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvaemu {

// ECI return codes that the emulated server programs put in replyRc.
inline constexpr int32_t kEciNoError = 0;
inline constexpr int32_t kEciErrInvalidExtendMode = -2;
inline constexpr int32_t kEciErrResponseTimeout = -6;
inline constexpr int32_t kEciErrTransactionAbend = -7;
inline constexpr int32_t kEciErrLuwToken = -8;
inline constexpr int32_t kEciErrUnknownServer = -22;
inline constexpr int32_t kEciErrMoreSystems = -25;
inline constexpr int32_t kEciErrNoSystems = -26;
inline constexpr int32_t kEciErrSecurityError = -27;

// Reason word carried in the body of an exception flow (flow type 6): the body
// is the request's flow type, then this reason, both 32-bit big-endian.
enum class ExceptionReason : int32_t {
  MalformedRequest = 1,  // a body that does not parse as its call type says
  ChannelUnsupported = 2,  // a request that carries a channel
  UnknownFlow = 3,  // a flow type other than 1, 5 and 10
  Injected = 4,  // Fault::ExceptionFlow
};

struct ServerEntry {
  std::string name;  // at most 8 characters are sent
  std::string description;  // at most 60 characters are sent
};

enum class Fault {
  None,
  NeverAnswer,  // read the request whole, never reply (until dropConnections()/stop())
  CloseBeforeAnswer,  // read the request whole, then close without replying
  CloseMidReply,  // send the header and part of the body, then close
  Trickle,  // send the reply a few bytes per send (1-3 bytes, tiny pauses), otherwise correct
  MalformedHeader,  // reply whose header is wrong (bad magic, name length unlike the request's); then close
  HugeDataLength,  // reply header announcing a body of 0x7FFFFFF0 bytes, sends a few, then close
  ExceptionFlow,  // reply with flow type 6 (and a short body)
  OversizeCommarea,  // ECI reply announcing and sending extraBytes more COMMAREA bytes than the request's commareaLength
  OversizeServerList,  // server-list reply announcing and sending more entries than the caller's capacity
  ChannelReturnOnCommarea,  // COMMAREA reply whose channel-present byte is 0xFF followed by a return flow
};

// "never-answer", "NeverAnswer" and "never_answer" all name Fault::NeverAnswer.
std::optional<Fault> faultFromName(std::string_view name);
const char* faultName(Fault fault);  // the kebab-case name

struct FaultPlan {
  Fault fault = Fault::None;
  // Messages on the connection answered normally before the fault hits
  // (0 = the handshake). From then on the fault applies to every message it can
  // apply to: the oversize and channel-return modes only touch ECI replies of
  // their call type, the others touch any reply.
  int afterMessages = 0;
  int messages = 0;  // how many messages the fault bends from then on; 0: every one
  uint32_t extraBytes = 64;  // for the oversize modes
  bool everyConnection = false;  // false: only the next connection accepted after setFault()
};

struct Options {
  std::vector<std::string> listenAddresses;  // empty: 127.0.0.1 and ::1 (::1 skipped quietly where IPv6 is unavailable)
  uint16_t port = 0;  // 0: ephemeral; every address shares the one port
  bool logMessages = false;  // one human-readable line per message received, to logStream
  FILE* logStream = stderr;
  std::vector<ServerEntry> servers;  // empty: defaultServers(), unless useDefaultServers is false
  bool useDefaultServers = true;  // false: an empty servers list means a Gateway without servers
  std::string userId, password;  // empty: no security check
  bool recordReceived = true;  // false: received() stays empty (long-running programs)
};

// QVADEMO and QVATEST.
std::vector<ServerEntry> defaultServers();

class Gateway {
 public:
  explicit Gateway(Options options = {});
  ~Gateway();  // stops
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  bool start(std::string* error = nullptr);  // bind + listen + accept thread; returns when ready to accept
  void stop();  // closes everything, joins every thread; idempotent
  uint16_t port() const;

  void setFault(const FaultPlan& plan);
  size_t connectionCount() const;  // connections accepted so far
  std::vector<uint8_t> received(size_t connection) const;  // every byte connection i (0-based, accept order) has sent
  bool waitForReceived(size_t connection, size_t bytes, std::chrono::milliseconds timeout) const;
  bool waitForConnections(size_t count, std::chrono::milliseconds timeout) const;
  bool waitForClosed(size_t connection, std::chrono::milliseconds timeout) const;  // the peer closed it
  void dropConnections();  // close every open connection from the server side

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace qvaemu

#endif
