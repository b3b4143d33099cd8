// qvaemu: an in-process Gateway emulator.
//
// It speaks the Gateway side of the binary protocol on loopback: the handshake,
// the close request, ECI program calls with a COMMAREA or a channel, and the
// server list. Tests, benchmarks and the qva-gateway program start it, talk to
// it over real sockets, read back every byte a connection sent and inject
// faults per connection. Nothing here depends on the client library.
//
// Server programs (names blank padded to 8 on the wire):
//   COMMAREA programs
//     ECHO      the COMMAREA comes back as it came
//     UPPER     ASCII letters upper-cased
//     SHORT     only the first half comes back
//     ABEND     abends (-7) with the code in the COMMAREA's first four bytes,
//               or ABND when they are fewer or hold a blank
//     SLEEP     waits the milliseconds written at the COMMAREA's start (default
//               200, at most 10000), then echoes; longer than the request's
//               time-out: -6 after the time-out
//     any other name abends with AEI0
//   Canned programs (Options::programs) come before all of these: one whose
//   name a call gives answers with its fixed COMMAREA, or abends with its code.
//   Channel programs; the return flow carries the request's channel name and
//   CCSID, lists the request's containers in request order and then those the
//   program adds. An UNCHANGED or DELETED entry carries no data, but its
//   length word still says the length the request gave it.
//     CHNOOP    every container UNCHANGED
//     CHECHO    every container MODIFIED with the data, type and CCSID it came with
//     CHADD     every container UNCHANGED, then an ADDED CHAR container RESULT
//               (the channel's CCSID) holding "Processed N containers", N the
//               number of request containers
//     CHUPPER   CHAR containers MODIFIED, same length, ASCII letters upper-cased;
//               the others UNCHANGED
//     CHGROW    every container MODIFIED with its data twice over; an empty one
//               becomes the 1 byte "!"
//     CHDELETE  the first container DELETED, the others UNCHANGED
//     CHMIX     e0 DELETED, e1 MODIFIED upper-cased, e2 MODIFIED doubled as by
//               CHGROW, the rest UNCHANGED, then an ADDED BIT container MIXED
//               (CCSID 0) holding DE AD BE EF
//     CHBIG     the container SIZE holds N in ASCII decimal (trailing NULs and
//               blanks ignored, 0 <= N <= 256 MiB); the reply holds PAYLOAD, a
//               BIT container of CCSID 0 with N bytes, byte i = i & 0xFF:
//               MODIFIED in place when the request carried a PAYLOAD, else
//               ADDED at the end; the other containers UNCHANGED. A SIZE that
//               is missing or not such a number: replyRc -1 (invalid data
//               length) and a return flow without entries.
//   A COMMAREA program called with a channel runs on the COMMAREA that came
//   (a channel call sends none) and returns every container UNCHANGED. A
//   channel program called without a channel changes nothing: its COMMAREA
//   comes back as it came, with channel-present byte 0. A channel call that
//   fails (any replyRc but 0, an extend mode that ends a unit) returns the
//   channel without entries. A channel block with an entry that is not ADDED
//   or whose two spare bytes are not 0, or whose count or lengths pass the end
//   of the body, is a malformed request.
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
inline constexpr int32_t kEciErrInvalidDataLength = -1;
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
  MalformedRequest = 1,  // a body that does not parse as its call type says (2 is not used)
  UnknownFlow = 3,       // a flow type other than 1, 5 and 10
  Injected = 4,          // Fault::ExceptionFlow
};

struct ServerEntry {
  std::string name;         // at most 8 characters are sent
  std::string description;  // at most 60 characters are sent
};

struct User {
  std::string userId, password;
};

// A COMMAREA program whose reply is fixed. Without an abend code the
// COMMAREA goes back with these bytes at its start and zeros after them, cut
// to the caller's COMMAREA length; with one the call abends (-7) with that
// code and, as every failed call, returns no data.
struct CannedProgram {
  std::string name;  // 1 to 8 characters, compared with the request's trimmed name
  std::vector<uint8_t> commarea;
  std::string abendCode;  // empty, or 4 characters
};

enum class Fault {
  None,
  NeverAnswer,              // read the request whole, never reply (until dropConnections()/stop())
  CloseBeforeAnswer,        // read the request whole, then close without replying
  CloseMidReply,            // send the header and part of the body, then close
  Trickle,                  // send the reply a few bytes per send (1-3 bytes, tiny pauses), otherwise correct
  MalformedHeader,          // reply whose header is wrong (bad magic, name length unlike the request's); then close
  HugeDataLength,           // reply header announcing a body of 0x7FFFFFF0 bytes, sends a few, then close
  ExceptionFlow,            // reply with flow type 6 (and a short body)
  OversizeCommarea,         // ECI reply announcing and sending extraBytes more COMMAREA bytes than commareaLength
  OversizeServerList,       // server-list reply announcing and sending more entries than the caller's capacity
  ChannelReturnOnCommarea,  // COMMAREA reply whose channel-present byte is 0xFF followed by a return flow
  // The channel modes bend the return flow of a channel call. "The first
  // entry" is the program's first one, or, in a flow without entries, an ADDED
  // CHAR container FAULT (the channel's CCSID) holding "FAULT". The message
  // header's dataLength always counts exactly the bytes sent, and the
  // connection stays open.
  ChannelLyingLength,    // the flow holds only the first entry, ADDED or MODIFIED (an UNCHANGED or DELETED one becomes
                         // MODIFIED with the data it came with), its length word extraBytes more than the data that end
                         // the message
  ChannelUnknownState,   // the first entry's state byte is 9, and no data follows it; the rest as usual
  ChannelTruncated,      // the body ends 10 bytes into the first entry's 28-byte fixed part
  ChannelDeleteUnknown,  // a DELETED CHAR entry NOSUCHCONT (length 0) before the program's entries
  ChannelHugeCount,      // an entry count of 0x7FFFFFFF, and one entry: the first, UNCHANGED
  SlowClose,             // the reply to the close request comes closeDelay late
};

// "never-answer", "NeverAnswer" and "never_answer" all name Fault::NeverAnswer.
std::optional<Fault> faultFromName(std::string_view name);
const char* faultName(Fault fault);  // the kebab-case name

struct FaultPlan {
  Fault fault = Fault::None;
  // Messages on the connection answered normally before the fault hits
  // (0 = the handshake). From then on the fault applies to every message it can
  // apply to: the oversize modes only touch ECI replies of their call type,
  // channel-return-on-commarea only program calls without a channel, the
  // other channel modes only program calls with one; the rest touch any reply.
  int afterMessages = 0;
  int messages = 0;  // how many messages the fault bends from then on, counting only those it can bend; 0: every one
  uint32_t extraBytes = 64;                    // for the oversize modes and channel-lying-length
  std::chrono::milliseconds closeDelay{2000};  // for slow-close
  bool everyConnection = false;                // false: only the next connection accepted after setFault()
};

struct Options {
  std::vector<std::string> listenAddresses;  // empty: 127.0.0.1 and ::1 (::1 skipped quietly where IPv6 is unavailable)
  uint16_t port = 0;                         // 0: ephemeral; every address shares the one port
  bool logMessages = false;                  // one human-readable line per message received, to logStream
  FILE* logStream = stderr;
  std::vector<ServerEntry> servers;  // empty: defaultServers(), unless useDefaultServers is false
  bool useDefaultServers = true;     // false: an empty servers list means a Gateway without servers
  std::string userId, password;      // empty: no security check
  bool recordReceived = true;        // false: received() stays empty (long-running programs)
  // More accounts besides userId/password; any one of them passes the check.
  std::vector<User> users;
  std::vector<CannedProgram> programs;
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
  void stop();                               // closes everything, joins every thread; idempotent
  uint16_t port() const;

  void setFault(const FaultPlan& plan);
  size_t connectionCount() const;                          // connections accepted so far
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
