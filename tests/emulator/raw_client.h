// A tiny raw-socket client for driving the Gateway emulator in tests, and the
// fixture its suites share. It knows the wire only as far as a test needs: it
// sends bytes, reads a message back by its header, and builds program-call
// requests and channel blocks field by field.
#ifndef QVAEMU_TESTS_RAW_CLIENT_H
#define QVAEMU_TESTS_RAW_CLIENT_H

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/tcp.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "qvaemu/gateway.h"
#include "qvatest/bytes.h"
#include "qvatest/net.h"

namespace rawclient {

using namespace qvatest;

struct Client {
  int fd = -1;
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { close(); }
  void close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  bool connect(uint16_t port, const char* address = "127.0.0.1") {
    close();
    addrinfo hints{.ai_flags = AI_NUMERICHOST, .ai_socktype = SOCK_STREAM}, *ai = nullptr;
    if (getaddrinfo(address, std::to_string(port).c_str(), &hints, &ai) != 0) return false;
    fd = ::socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;  // the handshake goes out byte by byte in one test
    if (fd >= 0 && (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
                    ::connect(fd, ai->ai_addr, ai->ai_addrlen) != 0))
      close();
    freeaddrinfo(ai);
    return fd >= 0;
  }
  bool send(const Bytes& b) { return sendAll(fd, b); }
  bool eofWithin(std::chrono::milliseconds timeout = kPatience) { return waitReadable(fd, timeout) == Readable::Eof; }
};

// One whole message, read by its header's name length and dataLength; empty
// when the stream ends or stalls first.
inline Bytes readMessage(Client& c) {
  Bytes head = recvExactly(c.fd, 24);
  if (head.size() < 24 || be32(head, 20) > 255) return {};
  const size_t n = be32(head, 20);
  const Bytes rest = recvExactly(c.fd, n + 5);
  if (rest.size() < n + 5 || be32(rest, n + 1) > (512u << 20)) return {};
  const Bytes body = recvExactly(c.fd, be32(rest, n + 1));
  return body.size() == be32(rest, n + 1) ? cat({head, rest, body}) : Bytes{};
}
inline Bytes bodyOf(const Bytes& m) {
  const size_t at = m.size() < 24 ? m.size() : 29 + be32(m, 20);
  return at > m.size() ? Bytes{} : slice(m, at, m.size() - at);
}

inline Bytes i32(int32_t v) { return be32(static_cast<uint32_t>(v)); }
// A fixed-width text field, blank padded; names are NUL padded to 16 bytes,
// not terminated when they fill them.
inline Bytes field(const std::string& s, size_t width, uint8_t pad = ' ') {
  Bytes b = ascii(s);
  b.resize(width, pad);
  return b;
}
inline Bytes name16(const std::string& s) { return field(s, 16, 0); }
// A flag byte, then the value when it is present.
inline Bytes optional(int32_t v) { return v > 0 ? cat({hex("FF"), i32(v)}) : hex("00"); }

// One program call, built from the request table field by field.
struct Call {
  int32_t callType = 1, extendMode = 0, luwToken = 0;
  std::string system = "QVADEMO", user, password, program = "ECHO", transId;
  Bytes commarea;
  int32_t commareaLength = -1;  // -1: the size of commarea
  int32_t send = 0, recv = 0;  // requestDataLength, replyDataLength; 0: flag byte 00
  uint16_t timeout = 0;
  Bytes channelBlock;  // non-empty: channel-present byte 0xFF, then these bytes
  bool withData() const { return extendMode != 2 && extendMode != 4; }
};

inline Bytes request(const Call& c) {
  const int32_t length = c.commareaLength < 0 ? static_cast<int32_t>(c.commarea.size()) : c.commareaLength;
  return message(1, "ECI", cat({i32(c.callType), i32(c.extendMode), i32(c.luwToken), hex("00000000 00 00000008"),
                                field(c.system, 8), field(c.user, 16), field(c.password, 16), field(c.program, 8),
                                field(c.transId, 4), hex("00000000"), i32(length), optional(c.send), optional(c.recv),
                                c.withData() ? c.commarea : Bytes{},
                                c.channelBlock.empty() ? hex("00") : cat({hex("FF"), c.channelBlock}),
                                Bytes{static_cast<uint8_t>(c.timeout >> 8), static_cast<uint8_t>(c.timeout)},
                                hex("00 FFFFFFFF 00000000")}));
}

inline Call prog(const std::string& program, const std::string& data) {
  return {.program = program, .commarea = ascii(data)};
}

// The reply to a COMMAREA call that ran well: call type 1, no unit, rc 0, no
// abend, the data back at full length, no channel.
inline Bytes echoReply(const Bytes& data) {
  const Bytes n = i32(static_cast<int32_t>(data.size()));
  return message(1, "ECI", cat({hex("00000001 00000000 00000000 00000000 00000000"), n, hex("FF 00"), n, data,
                                hex("00")}));
}

inline constexpr uint8_t kAdded = 1, kDeleted = 2, kModified = 3, kUnchanged = 4;
inline constexpr uint8_t kBit = 1, kChar = 2;

// A container entry: name, state, two zero bytes, type, CCSID, the length
// word, then `data` (pass none for an entry that carries no data).
inline Bytes entry(const std::string& name, uint8_t state, uint8_t type, int32_t ccsid, uint32_t length,
                   const Bytes& data = {}) {
  return cat({name16(name), Bytes{state, 0, 0, type}, i32(ccsid), be32(length), data});
}
// An entry followed by all of its data.
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

// The reply to a program call, field by field; flow: what follows the
// channel-present byte.
struct ProgramReply {
  int32_t callType = 0, luwToken = 0, replyRc = 0, commareaLength = 0, replyDataLength = 0;
  std::string abendCode;
  Bytes data, flow;
  uint8_t channelPresent = 0;
};

// withData: false for extend modes 2 and 4, whose replies carry no COMMAREA.
inline bool parseProgramReply(const Bytes& b, ProgramReply& r, bool withData) {
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
  r.flow = slice(b, off, b.size() - off);
  return true;
}

// Connects and completes the handshake.
inline bool open(Client& c, uint16_t port, const char* address = "127.0.0.1") {
  if (!c.connect(port, address) || !c.send(handshakeRequest())) return false;
  const Bytes m = readMessage(c);
  return m.size() > 12 && be32(m, 8) == 5;
}

// Sends a program call and parses its reply, a flow-type 1 message that ends
// at its channel-present byte when that is 0.
inline bool call(Client& c, const Call& call, ProgramReply& r) {
  if (!c.send(request(call))) return false;
  const Bytes m = readMessage(c);
  return m.size() > 12 && be32(m, 8) == 1 && parseProgramReply(bodyOf(m), r, call.withData()) &&
         (r.channelPresent != 0 || r.flow.empty());
}

// A Gateway started with the given options, and a client of it.
class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start({}); }
  void start(qvaemu::Options o) {
    gw_ = std::make_unique<qvaemu::Gateway>(std::move(o));
    std::string error;
    ASSERT_TRUE(gw_->start(&error)) << error;
  }
  // A fresh connection past the handshake, then one request and its reply.
  Bytes exchange(const Bytes& req) {
    EXPECT_TRUE(open(c_, gw_->port()));
    EXPECT_TRUE(c_.send(req));
    return readMessage(c_);
  }
  // One call on the open connection; opens it first if needed.
  ProgramReply run(const Call& call) {
    if (c_.fd < 0) {
      EXPECT_TRUE(open(c_, gw_->port()));
    }
    ProgramReply r;
    EXPECT_TRUE(rawclient::call(c_, call, r));
    return r;
  }
  std::unique_ptr<qvaemu::Gateway> gw_;
  Client c_;
};

}  // namespace rawclient

#endif
