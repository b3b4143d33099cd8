// The handshake and close flows against a scripted fake Gateway on a socketpair, and blocking socket calls cut short
// by a signal or by a peer that delivers a reply in pieces: each is continued or retried, none fails the flow. The
// fake Gateway signals the client thread only once that thread is asleep in the kernel.

#include <sys/resource.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>

#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

std::atomic<int> signalsTaken{0};
constexpr int kSmallBuffer = 4096;

class HeaderFlowsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    struct sigaction action {};
    action.sa_handler = [](int) { signalsTaken.fetch_add(1); };
    action.sa_flags = 0;  // no SA_RESTART: blocking calls return EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    signalsTaken = 0;
  }
  void TearDown() override { sigaction(SIGUSR1, &previous, nullptr); }

  // For the fake Gateway's script: once the client sleeps in the kernel with nothing to read, interrupt it.
  bool interruptClient(int clientFd) {
    const auto asleep = [tid = clientTid] {
      std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
      const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      return stat.size() > stat.rfind(')') + 2 && stat[stat.rfind(')') + 2] == 'S';
    };
    // Only once the handler has run and the client sleeps again may more data come: data that arrived
    // with the signal would let the call return it instead of failing with EINTR.
    return waitFor([&] { return asleep() && pendingBytes(clientFd) == 0; }) &&
           pthread_kill(clientThread, SIGUSR1) == 0 && waitFor([&] { return signalsTaken > 0 && asleep(); });
  }

  const pthread_t clientThread = pthread_self();
  const long clientTid = syscall(SYS_gettid);
  SocketPair pair;
  int32_t reasons = -1;
  struct sigaction previous {};
};

// Each reply shape, how each flow takes it, and that a reply it accepts is consumed whole, so that the next flow
// starts at a header; a Gateway that has gone leaves the errno in the reasons. On a descriptor above FD_SETSIZE,
// which would overflow an fd_set: the wait must not use one.
TEST_F(HeaderFlowsTest, FlowsSendTheirRequestAndConsumeTheReplyWholeOrFail) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int high = FD_SETSIZE + 200;
  if (limit.rlim_max <= static_cast<rlim_t>(high)) GTEST_SKIP() << "descriptor limit too low";
  limit.rlim_cur = std::max(limit.rlim_cur, static_cast<rlim_t>(high) + 1);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const std::tuple<const char *, Bytes, bool, int> cases[] = {
      // what, the reply, then a hang-up, the rc
      {"empty", message(5, "BASE", {}), false, QVA_OK},
      {"body consumed", message(5, "BASE", pattern(22)), false, QVA_OK},
      {"body longer than the buffer", message(5, "BASE", pattern(3000, 1)), false, QVA_OK},
      // 32 header bytes for a 33-byte read: the body's first byte completes it.
      {"shorter name", hex("47617465 10800000 00000005 00000000 00000000 00000003 424153 00 00000000 00"), false,
       QVA_OK},
      {"negative body length", hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 FFFFFFF0"), false,
       QVA_ERR_SYSTEM_ERROR},
      {"no reply", {}, true, QVA_ERR_LOSTGWCON},
      {"header cut short", hex("47617465 10800000 00000005"), true, QVA_ERR_LOSTGWCON},
      {"body cut short", cat({header(5, "BASE", 100), pattern(40)}), true, QVA_ERR_LOSTGWCON},
      {"gone", {}, true, QVA_ERR_LOSTGWCON},
      {"close: empty", message(10, "BASE", {}), false, QVA_OK},
      {"close: body consumed", message(10, "BASE", pattern(12, 2)), false, QVA_OK},
      {"close: gone", {}, true, QVA_ERR_LOSTGWCON},
  };
  for (const auto &[what, reply, hangUp, rc] : cases) {
    SCOPED_TRACE(what);
    const std::string name = what;
    const bool close = name.rfind("close", 0) == 0, gone = name.find("gone") != std::string::npos;
    SocketPair p;
    ASSERT_EQ(dup2(p.client, high), high);
    FakeGateway peer(p.peer, [&, reply = reply, hangUp = hangUp](FakeGateway &g) {
      if (!gone) g.expect(close ? 33 : 55), g.send(reply);
      if (hangUp) g.hangUp();
    });
    if (gone) {
      ASSERT_EQ(peer.finish(), "");
    }
    const auto flow = close ? clapiFlowCloseRequest : clapiFlowHandshakeRequest;
    reasons = 12345;
    TraceCapture trace(3);
    EXPECT_EQ(flow(high, &reasons), rc);
    const std::string text = trace.text();
    EXPECT_TRUE(gone ? reasons == EPIPE || reasons == ECONNRESET : reasons == 0) << "reasons=" << reasons;
    ASSERT_EQ(peer.finish(), "");
    EXPECT_EQ(peer.requests,
              gone ? std::vector<Bytes>{} : std::vector<Bytes>{close ? closeRequest() : handshakeRequest()});
    EXPECT_TRUE(peer.unread().empty()) << "no byte beyond the request";
    if (rc == QVA_OK) {
      EXPECT_EQ(pendingBytes(p.client), 0);
    }
    if (gone) {
      EXPECT_EQ(flow(high, nullptr), QVA_ERR_LOSTGWCON) << "reasons may be null";
    }
    if (name != "body consumed") continue;
    // The body of the reply is taken by one fill.
    std::vector<int> points;
    for (const auto &line : traceLines(text))
      if (line.point / 10 != 109) points.push_back(line.point);  // not the trace's own switching
    EXPECT_EQ(points,
              (std::vector<int>{3215, 1500, 1509, 3240, 1560, 1569, 3241, 1560, 1569, 1525, 1529, 1522, 1524, 3242,
                                1510, 1515, 1540, 1549, 1530, 1539, 3243, 1510, 1515, 1540, 1549, 1516, 1518, 3219}))
        << text;
    const std::string call = R"(clapi_socketcomms\.clapiFlowHandshakeRequest\(socketDesc=)" + std::to_string(high) +
                             R"(, \*reasons=0x[0-9a-f]+\))";
    EXPECT_EQ(countLines(text, 3215, "ENTRY", call), 1) << text;
    EXPECT_EQ(countLines(text, 3219, "EXIT", call + " rc=0"), 1);
  }
  ::close(high);
}

// ---- Calls cut short ------------------------------------------------------------------------

// A handshake reply cut short: by a signal while asleep in the wait (nothing arrived yet) or in a receive mid-reply
// (ten bytes arrived), or by a peer that delivers it one byte per receive. Each call is resumed.
TEST_F(HeaderFlowsTest, HandshakeRepliesCutShortAreResumed) {
  const Bytes answer = message(5, "BASE", pattern(22));
  std::vector<Bytes> bytes;
  for (uint8_t b : answer) bytes.push_back(Bytes{b});
  for (const int arrived : {0, 10, -1}) {  // -1: one byte at a time
    SocketPair p;
    signalsTaken = 0;
    FakeGateway peer(p.peer, [&](FakeGateway &g) {
      g.expect(55);
      if (arrived < 0) return g.sendInPieces(bytes, p.client);
      g.send(slice(answer, 0, arrived)), g.check(interruptClient(p.client), "no interrupt");
      g.send(slice(answer, arrived, 55 - arrived));
    });
    EXPECT_EQ(clapiFlowHandshakeRequest(p.client, &reasons), QVA_OK) << arrived;
    EXPECT_EQ(reasons, 0);
    EXPECT_EQ(peer.finish(), "");
    EXPECT_GE(signalsTaken.load(), arrived < 0 ? 0 : 1);
    EXPECT_EQ(pendingBytes(p.client), 0);
  }
}

// A send into a full socket: a large block sent from the caller's memory is cut short by the signal and continued;
// a flush interrupted before any byte has left, because the connection was filled first, is retried.
TEST_F(HeaderFlowsTest, InterruptedSendsAreContinuedOrRetried) {
  for (const bool filledFirst : {false, true}) {
    SocketPair p;
    setsockopt(p.client, SOL_SOCKET, SO_SNDBUF, &kSmallBuffer, sizeof kSmallBuffer);
    Bytes filler;
    for (const Bytes chunk(512, 0xF0); filledFirst && ::send(p.client, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0;)
      filler.insert(filler.end(), chunk.begin(), chunk.end());
    const Bytes block = pattern(filledFirst ? 600 : 256 * 1024, 11);
    signalsTaken = 0;
    FakeGateway peer(p.peer, [&](FakeGateway &g) {
      g.check(interruptClient(p.client), "no interrupt"), g.expect(filler.size() + block.size());
    });
    SocketBuffer sb{};
    ASSERT_EQ(initWriteBuffer(&sb, p.client, static_cast<uint32_t>(block.size())), QVA_OK);
    writeBytes(&sb, block.data(), static_cast<uint32_t>(block.size()));
    EXPECT_EQ(flushBuffer(&sb), QVA_OK) << filledFirst;
    EXPECT_EQ(std::make_tuple(sb.lastErrno, sb.bytesRemaining), std::make_tuple(0, 0u));
    EXPECT_EQ(freeBuffer(&sb), QVA_OK);
    ASSERT_EQ(peer.finish(), "");
    EXPECT_GE(signalsTaken.load(), 1);
    EXPECT_EQ(peer.requests, std::vector<Bytes>{cat({filler, block})});
    EXPECT_TRUE(peer.unread().empty());
  }
}

// A block larger than the buffer is read straight into the caller's memory; a first receive that gets a single
// byte is continued. The fill before it takes 1024 bytes and leaves one.
TEST_F(HeaderFlowsTest, ABlockReadIntoTheCallersMemoryIsContinuedAfterAShortReceive) {
  const Bytes message = pattern(3000, 5);
  FakeGateway gateway(pair.peer, [&](FakeGateway &g) {
    g.sendInPieces({slice(message, 0, 1025), slice(message, 1025, 1975)}, pair.client);
  });
  SocketBuffer sb{};
  TraceCapture trace(4);
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 3000), QVA_OK);
  Bytes got(3000);
  readBytes(&sb, got.data(), 4);
  readBytes(&sb, got.data() + 4, 2996);
  EXPECT_EQ(got, message);
  EXPECT_EQ(std::make_tuple(sb.failure, sb.bytesInBuffer, sb.bytesRemaining), std::make_tuple(0, 0u, 0u));
  EXPECT_EQ(countLines(trace.text(), 1533, "DEBUG",
                       R"(clapi_socketbuffer\.readBytes Read 1020 bytes from buffer 0x[0-9a-f]+, )"
                       "1976 bytes from socket " +
                           std::to_string(pair.client) + ", 0 bytes remaining"),
            1);
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  EXPECT_EQ(gateway.finish(), "");
}

}  // namespace
