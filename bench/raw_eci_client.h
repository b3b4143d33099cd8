// The yardstick the library is measured against: a client that speaks the
// Gateway protocol over a plain socket with nothing in between. It greets the
// Gateway with the handshake's literal bytes, sends a COMMAREA program call
// built byte by byte as the wire layout lays it out, and reads the reply by
// its header: the header first, then exactly the body length it announces.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<uint8_t>;

// The 55 bytes of the handshake: the 33-byte header ("BASE", flow type 5,
// body length 22) and the body (language "en", country "GB", 14 zero bytes).
extern const uint8_t kHandshakeRequest[55];

// The fields of a COMMAREA program call that the benchmark varies or sets;
// every other field travels as 0 (extend mode 0, no LUW, no send or receive
// limit, no transaction program name, time limit 0).
struct ProgramCall {
  char systemName[8];
  char userId[16];
  char password[16];
  char programName[8];
  char transId[4];
};

// The whole request (header and body) for a COMMAREA of commarea.size() bytes.
Bytes buildProgramRequest(const ProgramCall &call, const Bytes &commarea);

// Offset of the COMMAREA inside a request built above.
inline constexpr size_t kCommareaOffset = 32 + 83;

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

  // One program call on a request that buildProgramRequest made for a
  // COMMAREA of `length` bytes: the caller's `commarea` travels in place of
  // the template's, gathered into the same single send (no copy), and the
  // returned COMMAREA is copied back into it (at most `length` bytes).
  // Returns the reply's return code, or kTransportFailure / kMalformedReply.
  int32_t call(const Bytes &request, uint8_t *commarea, size_t length);

  static constexpr int32_t kTransportFailure = -1000;
  static constexpr int32_t kMalformedReply = -1001;

 private:
  bool sendAll(const uint8_t *data, size_t length);
  bool sendAll(struct iovec *parts, int count);
  bool recvExact(uint8_t *data, size_t length);
  // Reads a reply header carrying a name of nameLength characters; returns
  // the body length it announces, or -1.
  int32_t readHeader(uint32_t nameLength);

  int fd_ = -1;
  Bytes body_;  // reused from call to call
};

}  // namespace bench
