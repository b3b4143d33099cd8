// A raw-socket client for driving the Gateway emulator in tests, and the
// fixture its suites share. Requests are built by the raw wire builders that
// the benchmarks use too; the wire tests check them against literal bytes.
#ifndef QVAEMU_TESTS_RAW_CLIENT_H
#define QVAEMU_TESTS_RAW_CLIENT_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "qvaemu/gateway.h"
#include "qvaemu/raw_wire.h"
#include "qvatest/bytes.h"
#include "qvatest/net.h"

namespace rawclient {

using namespace qvatest;
using qvaraw::Call, qvaraw::ProgramReply, qvaraw::request, qvaraw::listRequest, qvaraw::entry, qvaraw::channel,
    qvaraw::field, qvaraw::name16, qvaraw::kAdded, qvaraw::kDeleted, qvaraw::kModified, qvaraw::kUnchanged,
    qvaraw::kBit, qvaraw::kChar;

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
    std::string error;
    fd = qvaraw::connectTo(address, port, &error);
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

inline Call prog(const std::string& program, const std::string& data) {
  return {.program = program, .commarea = ascii(data)};
}

// The reply to a COMMAREA call that ran well: call type 1, no unit, rc 0, no
// abend, the data back at full length, no channel.
inline Bytes echoReply(const Bytes& data) {
  const Bytes n = be32(static_cast<uint32_t>(data.size()));
  return message(1, "ECI",
                 cat({hex("00000001 00000000 00000000 00000000 00000000"), n, hex("FF 00"), n, data, hex("00")}));
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
  const Bytes m = readMessage(c), body = bodyOf(m);
  return m.size() > 12 && be32(m, 8) == 1 && qvaraw::parseProgramReply(body.data(), body.size(), r, call.withData()) &&
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
