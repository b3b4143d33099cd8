// A tiny raw-socket client for driving the Gateway emulator in tests. It knows
// the wire only as far as a test needs: it sends bytes, reads a message back
// by its header, and builds program-call requests and channel blocks field by
// field.
#ifndef QVAEMU_TESTS_RAW_CLIENT_H
#define QVAEMU_TESTS_RAW_CLIENT_H

#include <netinet/tcp.h>

#include <cstring>
#include <optional>
#include <string>

#include "qvatest/bytes.h"
#include "qvatest/net.h"

namespace rawclient {

using namespace qvatest;

class Client {
 public:
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { close(); }

  bool connect(uint16_t port, const char* address = "127.0.0.1") {
    close();
    sockaddr_storage ss{};
    socklen_t len = sizeof(sockaddr_in);
    auto* v4 = reinterpret_cast<sockaddr_in*>(&ss);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&ss);
    if (std::strchr(address, ':') != nullptr) {
      v6->sin6_family = AF_INET6;
      v6->sin6_port = htons(port);
      len = sizeof(sockaddr_in6);
      if (inet_pton(AF_INET6, address, &v6->sin6_addr) != 1) return false;
    } else {
      v4->sin_family = AF_INET;
      v4->sin_port = htons(port);
      if (inet_pton(AF_INET, address, &v4->sin_addr) != 1) return false;
    }
    fd_ = ::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&ss), len) != 0) close();
    return fd_ >= 0;
  }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  bool send(const Bytes& b) { return sendAll(fd_, b); }
  Readable wait(std::chrono::milliseconds timeout) { return waitReadable(fd_, timeout); }
  // Exactly n bytes; false on end of stream or time-out.
  bool read(size_t n, Bytes& out, std::chrono::milliseconds timeout = kPatience) {
    out = recvExactly(fd_, n, timeout);
    return out.size() == n;
  }
  Bytes readToEnd() { return recvToEnd(fd_); }
  bool eofWithin(std::chrono::milliseconds timeout = kPatience) { return wait(timeout) == Readable::Eof; }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

struct Message {
  Bytes header;  // raw header bytes
  int32_t flowType = 0;
  std::string name;
  int32_t dataLength = 0;
  Bytes body;
  Bytes raw() const { return cat({header, body}); }
};

// Reads a header by its own name length, then dataLength body bytes.
inline bool readMessage(Client& c, Message& m, std::chrono::milliseconds timeout = kPatience) {
  Bytes first, rest;
  if (!c.read(24, first, timeout)) return false;
  const uint32_t n = be32(first, 20);
  if (n > 255 || !c.read(n + 5, rest, timeout)) return false;
  m.header = cat({first, rest});
  m.flowType = sbe32(m.header, 8);
  m.name.assign(m.header.begin() + 24, m.header.begin() + 24 + n);
  m.dataLength = sbe32(m.header, 25 + n);
  if (m.dataLength < 0 || m.dataLength > (512 << 20)) return false;
  return c.read(static_cast<size_t>(m.dataLength), m.body, timeout);
}

inline Bytes i32(int32_t v) { return be32(static_cast<uint32_t>(v)); }
inline Bytes i16(int16_t v) { return Bytes{static_cast<uint8_t>(static_cast<uint16_t>(v) >> 8), static_cast<uint8_t>(v)}; }
// A fixed-width text field, blank padded.
inline Bytes field(const std::string& s, size_t width) {
  Bytes b = ascii(s);
  b.resize(width, ' ');
  return b;
}
// A flag byte, then the value when it is present.
inline Bytes optional(int32_t v) { return v > 0 ? cat({hex("FF"), i32(v)}) : hex("00"); }

inline Bytes handshake() { return handshakeRequest(); }

// One program call, built from the request table field by field.
struct Call {
  int32_t callType = 1;
  int32_t extendMode = 0;
  int32_t luwToken = 0;
  std::string system = "QVADEMO";
  std::string user, password;
  std::string program = "ECHO";
  std::string transId;
  Bytes commarea;
  int32_t commareaLength = -1;  // -1: the size of commarea
  int32_t send = 0;  // requestDataLength; 0: flag byte 00
  int32_t recv = 0;  // replyDataLength; 0: flag byte 00
  int16_t timeout = 0;
  Bytes channelBlock;  // non-empty: channel-present byte 0xFF, then these bytes
};

inline Bytes request(const Call& c) {
  const int32_t length = c.commareaLength < 0 ? static_cast<int32_t>(c.commarea.size()) : c.commareaLength;
  const bool withData = c.extendMode != 2 && c.extendMode != 4;
  return message(1, "ECI", cat({i32(c.callType), i32(c.extendMode), i32(c.luwToken), hex("00000000 00 00000008"),
                                field(c.system, 8), field(c.user, 16), field(c.password, 16), field(c.program, 8),
                                field(c.transId, 4), hex("00000000"), i32(length), optional(c.send), optional(c.recv),
                                withData ? c.commarea : Bytes{},
                                c.channelBlock.empty() ? hex("00") : cat({hex("FF"), c.channelBlock}), i16(c.timeout),
                                hex("00 FFFFFFFF 00000000")}));
}

// A name NUL padded to 16 bytes, not terminated when it fills them.
inline Bytes name16(const std::string& s) {
  Bytes b = ascii(s);
  b.resize(16, 0);
  return b;
}

inline constexpr uint8_t kAdded = 1, kDeleted = 2, kModified = 3, kUnchanged = 4;
inline constexpr uint8_t kBit = 1, kChar = 2;

// A container entry: name, state, two zero bytes, type, CCSID, the length
// word, then `data` (pass none for an entry that carries no data).
inline Bytes entry(const std::string& name, uint8_t state, uint8_t type, int32_t ccsid, uint32_t length,
                   const Bytes& data = {}) {
  return cat({name16(name), Bytes{state, 0, 0, type}, i32(ccsid), be32(length), data});
}
// An entry followed by all of its data; in a request every entry is ADDED.
inline Bytes entry(const std::string& name, uint8_t state, uint8_t type, int32_t ccsid, const Bytes& data) {
  return entry(name, state, type, ccsid, static_cast<uint32_t>(data.size()), data);
}

// A request's channel block or a reply's return flow: name, CCSID, the entry
// count (by default the number of entries), the entries.
inline Bytes channel(const std::string& name, int32_t ccsid, const std::vector<Bytes>& entries,
                     std::optional<int32_t> count = std::nullopt) {
  Bytes out = cat({name16(name), i32(ccsid), i32(count.value_or(static_cast<int32_t>(entries.size())))});
  for (const auto& e : entries) out.insert(out.end(), e.begin(), e.end());
  return out;
}

inline Bytes listRequest(int32_t capacity) {
  return message(1, "ECI", cat({hex("00000009"), i32(capacity), hex("0000 00 FFFFFFFF 00000000")}));
}

// The reply to a program call, field by field.
struct ProgramReply {
  int32_t callType = 0, luwToken = 0, replyRc = 0;
  std::string abendCode;
  int32_t commareaLength = 0;
  int32_t replyDataLength = 0;
  Bytes data;
  uint8_t channelPresent = 0;
  size_t consumed = 0;  // body bytes these fields took
};

// withData: false for extend modes 2 and 4, whose replies carry no COMMAREA.
inline bool parseProgramReply(const Bytes& b, ProgramReply& r, bool withData = true) {
  if (b.size() < 25) return false;
  r.callType = sbe32(b, 0);
  r.luwToken = sbe32(b, 4);
  r.replyRc = sbe32(b, 12);
  r.abendCode.assign(b.begin() + 16, b.begin() + 20);
  r.commareaLength = r.replyDataLength = sbe32(b, 20);
  size_t off = 25;
  if (b[24] != 0) {
    if (b.size() < off + 5) return false;
    r.replyDataLength = sbe32(b, off + 1);
    off += 5;
  }
  if (withData) {
    if (r.replyDataLength < 0 || b.size() < off + static_cast<size_t>(r.replyDataLength)) return false;
    r.data = slice(b, off, static_cast<size_t>(r.replyDataLength));
    off += static_cast<size_t>(r.replyDataLength);
  }
  if (b.size() < off + 1) return false;
  r.channelPresent = b[off++];
  r.consumed = off;
  return true;
}

// Connects and completes the handshake.
inline bool open(Client& c, uint16_t port, const char* address = "127.0.0.1") {
  Message m;
  return c.connect(port, address) && c.send(handshake()) && readMessage(c, m) && m.flowType == 5;
}

// Sends a program call and parses its reply. flow: the bytes after the
// channel-present byte; without it, the reply must end at that byte.
inline bool call(Client& c, const Call& call, ProgramReply& r, Bytes* flow = nullptr) {
  Message m;
  if (!c.send(request(call)) || !readMessage(c, m) || m.flowType != 1) return false;
  if (!parseProgramReply(m.body, r, call.extendMode != 2 && call.extendMode != 4)) return false;
  if (!flow) return r.consumed == m.body.size();
  *flow = slice(m.body, r.consumed, m.body.size() - r.consumed);
  return true;
}

}  // namespace rawclient

#endif
