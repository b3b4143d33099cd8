// What the wire tests share: a scripted fake Gateway, and a gateway token opened through one. The fake Gateway
// knows nothing of the protocol: its script, run in a thread of its own, reads exactly the number of bytes the
// test tells it to, records them, and answers with the literal bytes it is given. A layout mistake made the same
// way in the library and in a peer derived from it cannot pass here.
#ifndef QVA_TESTS_FAKE_GATEWAY_H
#define QVA_TESTS_FAKE_GATEWAY_H

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "qvaclient/qvaclient.h"
#include "qvatest/bytes.h"
#include "qvatest/net.h"
#include "qvatest/trace.h"

namespace wire {

using namespace qvatest;

// Polls, bounded, until the condition holds.
inline bool waitFor(const std::function<bool()> &condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (; !condition(); std::this_thread::yield())
    if (std::chrono::steady_clock::now() > deadline) return false;
  return true;
}

class FakeGateway {
 public:
  // On a connected descriptor, not owned; or on one accepted by the first script.
  explicit FakeGateway(int fd = -1) : fd_(fd) {}
  FakeGateway(int fd, const std::function<void(FakeGateway &)> &script) : fd_(fd) { run(script); }
  FakeGateway(const FakeGateway &) = delete;
  FakeGateway &operator=(const FakeGateway &) = delete;
  ~FakeGateway() {
    finish();
    if (owned_) ::close(fd_);
  }
  // Starts a script; finish() waits for its end and says what went wrong, if anything.
  void run(const std::function<void(FakeGateway &)> &script) {
    finish();
    thread_ = std::thread([this, script] { script(*this); });
  }
  std::string finish() {
    if (thread_.joinable()) thread_.join();
    return std::exchange(error_, "");
  }

  // ---- For the script. After a failure the connection is shut, so that a
  // client waiting for a reply wakes up, and the rest of the script does nothing.
  bool check(bool good, const std::string &what) {
    if (!good && error_.empty()) {
      error_ = what;
      ::shutdown(fd_, SHUT_RDWR);
    }
    return good;
  }
  void accept(int listenFd) {
    pollfd p{listenFd, POLLIN, 0};
    const bool ready = ::poll(&p, 1, static_cast<int>(kPatience.count())) == 1;
    const int fd = ready ? ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (check(fd >= 0, "no client connected")) {
      fd_ = fd;
      owned_ = true;
    }
  }
  // Reads exactly count bytes, recorded as the next request.
  void expect(size_t count) {
    requests.push_back(error_.empty() ? recvExactly(fd_, count) : Bytes{});
    check(requests.back().size() == count, "expected " + std::to_string(count) + " bytes, the connection gave fewer");
  }
  void send(const Bytes &data) {
    if (error_.empty()) check(sendAll(fd_, data), "send failed");
  }
  // Sends each piece once the client has read the one before, so that no
  // receive of the client gets more than one piece.
  void sendInPieces(const std::vector<Bytes> &pieces, int clientFd) {
    for (const Bytes &piece : pieces) {
      send(piece);
      if (&piece != &pieces.back() && error_.empty())
        check(waitFor([=] { return pendingBytes(clientFd) == 0; }), "unread");
    }
  }
  // The client sees an orderly close.
  void hangUp() { ::shutdown(fd_, SHUT_RDWR); }

  // ---- After finish(): what was received, and what the client sent that no step read.
  Bytes unread() { return drainNow(fd_); }
  std::vector<Bytes> requests;

 private:
  int fd_;
  bool owned_ = false;
  std::string error_;
  std::thread thread_;
};

// Callers' areas start stale and end in a guard.
inline constexpr uint8_t kGuard = 0xA5, kStale = 0x5A;
inline constexpr size_t kGuardSize = 16;
inline Bytes guarded(size_t size) { return cat({fill(size, kStale), fill(kGuardSize, kGuard)}); }
inline Bytes unguarded(const Bytes &area) { return slice(area, 0, area.size() - kGuardSize); }
inline bool guardIntact(const Bytes &area) {
  return slice(area, area.size() - kGuardSize, kGuardSize) == fill(kGuardSize, kGuard);
}
inline const std::string kPassword = "S3cr3tPassw0rd!!";

// Fills a fixed-size field of a record, which has no terminator.
template <size_t N>
void setField(char (&field)[N], std::string_view text) {
  std::memcpy(field, text.data(), N);
}

// A program-call reply: `fields` are the luw token, spare word, rc, abend code, COMMAREA length and lengths part.
inline Bytes programReply(const std::string &fields, const Bytes &data, uint8_t channel = 0, const Bytes &after = {}) {
  return message(1, "ECI", cat({hex("00000001"), hex(fields), data, Bytes{channel}, after}));
}

// Makes every socket-buffer allocation fail while it lives.
struct FailSocketBufferAllocs {
  FailSocketBufferAllocs() {
    setAllocFailHook([](uint32_t, const char *tag) { return tag != nullptr && std::strncmp(tag, "SCKB", 4) == 0; });
  }
  ~FailSocketBufferAllocs() { setAllocFailHook(nullptr); }
};

// A gateway token opened with the real handshake against a fake Gateway and closed with a close request at the
// end, and an ECI parameter block for a 100-byte COMMAREA that starts stale and ends in a guard.
class OverAToken : public ::testing::Test {
 protected:
  void SetUp() override {
    gateway.run([this](FakeGateway &g) { g.accept(listener.fd), g.expect(55), g.send(message(5, "BASE", {})); });
    ASSERT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", listener.port, &token, 5), QVA_OK);
    parms.eci_version = 3, parms.eci_call_type = ECI_SYNC, parms.eci_timeout = 0x0102, parms.eci_luw_token = 0x01020304;
    parms.eci_commarea = area.data(), parms.eci_commarea_length = 100;
    setField(parms.eci_program_name, "PROGRAM1"), setField(parms.eci_userid, "USER0001        ");
    setField(parms.eci_password, kPassword), setField(parms.eci_transid, "TRN1"),
        setField(parms.eci_system_name, "SYSTEM01");
  }
  void TearDown() override {
    if (token == nullptr) return;
    serve(message(10, "BASE", {}), 33);
    EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_OK);
    EXPECT_EQ(gateway.finish(), "");
    EXPECT_EQ(gateway.requests.front(), handshakeRequest());
    EXPECT_EQ(gateway.requests.back(), closeRequest()) << "the close request, and no stray bytes before it";
  }
  // Reads a request of `size` bytes and answers with `reply`.
  void serve(const Bytes &reply, size_t size) {
    gateway.run([=](FakeGateway &g) { g.expect(size), g.send(reply); });
  }

  Listener listener;
  FakeGateway gateway;
  QvaGatewayToken *token = nullptr;
  Bytes area = guarded(100);
  ECI_PARMS parms{};
};

}  // namespace wire

#endif  // QVA_TESTS_FAKE_GATEWAY_H
