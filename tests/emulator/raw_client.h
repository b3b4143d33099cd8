// A tiny raw-socket client for driving the Gateway emulator in tests. It knows
// the wire only as far as a test needs: it sends bytes, reads a message back
// by its header, and builds program-call requests field by field.
#ifndef QVAEMU_TESTS_RAW_CLIENT_H
#define QVAEMU_TESTS_RAW_CLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace rawclient {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

// Long enough for a sanitizer build on a loaded machine; only reached on failure.
inline constexpr std::chrono::milliseconds kPatience = 10s;

inline Bytes bytesOf(const std::string& s) { return Bytes(s.begin(), s.end()); }

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline uint32_t be32(const Bytes& b, size_t off) {
  return (uint32_t{b.at(off)} << 24) | (uint32_t{b.at(off + 1)} << 16) | (uint32_t{b.at(off + 2)} << 8) |
         uint32_t{b.at(off + 3)};
}
inline int32_t sbe32(const Bytes& b, size_t off) { return static_cast<int32_t>(be32(b, off)); }

enum class Outcome { Data, Eof, Timeout };

class Client {
 public:
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { close(); }

  bool connect(uint16_t port, const char* address = "127.0.0.1") {
    close();
    sockaddr_storage ss{};
    socklen_t len = 0;
    int family = AF_INET;
    if (std::strchr(address, ':')) {
      family = AF_INET6;
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      a.sin6_port = htons(port);
      if (inet_pton(AF_INET6, address, &a.sin6_addr) != 1) return false;
      std::memcpy(&ss, &a, sizeof a);
      len = sizeof a;
    } else {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(port);
      if (inet_pton(AF_INET, address, &a.sin_addr) != 1) return false;
      std::memcpy(&ss, &a, sizeof a);
      len = sizeof a;
    }
    fd_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
      close();
      return false;
    }
    return true;
  }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  bool send(const Bytes& b) {
    size_t off = 0;
    while (off < b.size()) {
      const ssize_t r = ::send(fd_, b.data() + off, b.size() - off, MSG_NOSIGNAL);
      if (r < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      off += static_cast<size_t>(r);
    }
    return true;
  }

  // Waits up to `timeout` for data or end of stream.
  Outcome wait(std::chrono::milliseconds timeout) {
    pollfd p{fd_, POLLIN, 0};
    const int r = ::poll(&p, 1, static_cast<int>(timeout.count()));
    if (r <= 0) return Outcome::Timeout;
    char c;
    const ssize_t n = ::recv(fd_, &c, 1, MSG_PEEK);
    return n > 0 ? Outcome::Data : Outcome::Eof;
  }

  // Exactly n bytes, each arriving within `timeout` of the last; false on EOF or time-out.
  bool read(size_t n, Bytes& out, std::chrono::milliseconds timeout = kPatience) {
    out.resize(n);
    size_t off = 0;
    while (off < n) {
      if (wait(timeout) != Outcome::Data) {
        out.resize(off);
        return false;
      }
      const ssize_t r = ::recv(fd_, out.data() + off, n - off, 0);
      if (r <= 0) {
        out.resize(off);
        return false;
      }
      off += static_cast<size_t>(r);
      ++recvCalls_;
    }
    return true;
  }

  // Everything until end of stream (or `timeout` of silence).
  Bytes readToEnd(std::chrono::milliseconds timeout = kPatience) {
    Bytes all;
    uint8_t buf[4096];
    while (wait(timeout) == Outcome::Data) {
      const ssize_t r = ::recv(fd_, buf, sizeof buf, 0);
      if (r <= 0) break;
      all.insert(all.end(), buf, buf + r);
    }
    return all;
  }

  bool eofWithin(std::chrono::milliseconds timeout = kPatience) { return wait(timeout) == Outcome::Eof; }
  size_t recvCalls() const { return recvCalls_; }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  size_t recvCalls_ = 0;
};

struct Message {
  Bytes header;  // raw header bytes
  uint32_t magic = 0, version = 0;
  int32_t flowType = 0, flowReserved = 0, flowQualifier = 0;
  std::string name;
  uint8_t headerFlag = 0;
  int32_t dataLength = 0;
  Bytes body;
  Bytes raw() const { return concat({header, body}); }
};

// Reads a header by its own name length, then dataLength body bytes.
inline bool readMessage(Client& c, Message& m, std::chrono::milliseconds timeout = kPatience) {
  Bytes first;
  if (!c.read(24, first, timeout)) return false;
  const uint32_t n = be32(first, 20);
  if (n > 255) return false;
  Bytes rest;
  if (!c.read(n + 5, rest, timeout)) return false;
  m.header = concat({first, rest});
  m.magic = be32(m.header, 0);
  m.version = be32(m.header, 4);
  m.flowType = sbe32(m.header, 8);
  m.flowReserved = sbe32(m.header, 12);
  m.flowQualifier = sbe32(m.header, 16);
  m.name.assign(m.header.begin() + 24, m.header.begin() + 24 + n);
  m.headerFlag = m.header[24 + n];
  m.dataLength = sbe32(m.header, 25 + n);
  if (m.dataLength < 0 || m.dataLength > (1 << 24)) return false;
  return c.read(static_cast<size_t>(m.dataLength), m.body, timeout);
}

class Writer {
 public:
  Writer& u8(uint8_t v) {
    out.push_back(v);
    return *this;
  }
  Writer& i16(int16_t v) {
    const auto u = static_cast<uint16_t>(v);
    out.push_back(static_cast<uint8_t>(u >> 8));
    out.push_back(static_cast<uint8_t>(u));
    return *this;
  }
  Writer& i32(int32_t v) {
    const auto u = static_cast<uint32_t>(v);
    for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<uint8_t>(u >> s));
    return *this;
  }
  Writer& bytes(const Bytes& b) {
    out.insert(out.end(), b.begin(), b.end());
    return *this;
  }
  // A fixed-width text field, padded with `pad`.
  Writer& field(const std::string& s, size_t width, char pad) {
    for (size_t i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(i < s.size() ? s[i] : pad));
    return *this;
  }
  Bytes out;
};

inline Bytes header(int32_t flowType, int32_t qualifier, const std::string& name, int32_t dataLength) {
  Writer w;
  w.i32(0x47617465).i32(0x10800000).i32(flowType).i32(0).i32(qualifier).i32(static_cast<int32_t>(name.size()));
  w.field(name, name.size(), ' ').u8(0).i32(dataLength);
  return w.out;
}

inline Bytes handshake() {
  Bytes body = {0x00, 0x02, 0x65, 0x6E, 0x00, 0x02, 0x47, 0x42};
  body.resize(22, 0);
  return concat({header(5, 0, "BASE", 22), body});
}

inline Bytes closeRequest() { return header(10, -1, "BASE", 0); }

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
  Writer w;
  w.i32(c.callType).i32(c.extendMode).i32(c.luwToken).i32(0).u8(0).i32(8);
  w.field(c.system, 8, ' ').field(c.user, 16, ' ').field(c.password, 16, ' ');
  w.field(c.program, 8, ' ').field(c.transId, 4, ' ').i32(0).i32(length);
  if (c.send > 0) w.u8(0xFF).i32(c.send); else w.u8(0);
  if (c.recv > 0) w.u8(0xFF).i32(c.recv); else w.u8(0);
  if (c.extendMode != 2 && c.extendMode != 4) w.bytes(c.commarea);
  if (c.channelBlock.empty()) w.u8(0); else w.u8(0xFF).bytes(c.channelBlock);
  w.i16(c.timeout).u8(0).i32(-1).i32(0);
  return concat({header(1, 0, "ECI", static_cast<int32_t>(w.out.size())), w.out});
}

inline Bytes listRequest(int32_t capacity) {
  Writer w;
  w.i32(9).i32(capacity).i16(0).u8(0).i32(-1).i32(0);
  return concat({header(1, 0, "ECI", static_cast<int32_t>(w.out.size())), w.out});
}

// The reply to a program call, field by field.
struct ProgramReply {
  int32_t callType = 0, luwToken = 0, spareInt = 0, replyRc = 0;
  std::string abendCode;
  int32_t commareaLength = 0;
  uint8_t lengthPresent = 0;
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
  r.spareInt = sbe32(b, 8);
  r.replyRc = sbe32(b, 12);
  r.abendCode.assign(b.begin() + 16, b.begin() + 20);
  r.commareaLength = sbe32(b, 20);
  r.lengthPresent = b[24];
  size_t off = 25;
  r.replyDataLength = r.commareaLength;
  if (r.lengthPresent != 0) {
    if (b.size() < off + 5) return false;
    r.replyDataLength = sbe32(b, off + 1);
    off += 5;
  }
  if (withData) {
    if (r.replyDataLength < 0 || b.size() < off + static_cast<size_t>(r.replyDataLength)) return false;
    r.data.assign(b.begin() + static_cast<std::ptrdiff_t>(off), b.begin() + static_cast<std::ptrdiff_t>(off) + r.replyDataLength);
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

// Sends a program call and parses its reply.
inline bool call(Client& c, const Call& call, ProgramReply& r) {
  Message m;
  if (!c.send(request(call)) || !readMessage(c, m) || m.flowType != 1) return false;
  return parseProgramReply(m.body, r, call.extendMode != 2 && call.extendMode != 4) && r.consumed == m.body.size();
}

}  // namespace rawclient

#endif
