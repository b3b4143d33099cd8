// connTimeout, which the connect honours only with the reply deadline set. A loopback listener whose accept queue
// is full makes a connect hang: the kernel drops every further SYN until the queue has room or the listener goes.

#include <fcntl.h>

#include <csignal>
#include <future>

#include "clapi_socketbuffer.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

class ConnectTest : public ::testing::Test {
 protected:
  void TearDown() override {
    clapiSetReplyTimeout(0);
    for (int fd : fillers) ::close(fd);
  }
  // Connects to the listener until a connect no longer completes.
  bool fillAcceptQueue(const Listener &listener) {
    ::listen(listener.fd, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK), a.sin_port = htons(uint16_t(listener.port));
    for (int i = 0; i < 8; ++i) {
      fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      ::connect(fillers.back(), reinterpret_cast<sockaddr *>(&a), sizeof a);
      pollfd p{fillers.back(), POLLOUT, 0};
      if (::poll(&p, 1, 300) == 0) return true;
    }
    return false;
  }
  std::vector<int> fillers;
};

// With the deadline, a hanging connect gives up after connTimeout. Without it connTimeout is not honoured: the
// connect waits until the listener goes and a retransmitted SYN is refused, unless a signal interrupts it, after
// which it waits connTimeout more. Either way the close flow that follows fails at once, also on a socket still
// connecting, instead of waiting for the connect to end.
TEST_F(ConnectTest, ConnTimeoutIsHonouredWithTheReplyDeadlineOrAfterASignal) {
  struct sigaction action {
  }, saved{};
  action.sa_handler = [](int) {};
  sigemptyset(&action.sa_mask);
  sigaction(SIGUSR1, &action, &saved);  // no SA_RESTART: the connect returns EINTR
  // The reply deadline, a signal at 200 ms, when the listener goes, the result, the "connect timed out" lines.
  const std::tuple<int, bool, std::chrono::milliseconds, int, int> cases[] = {
      {5, false, 5000ms, QVA_ERR_CONNECTTIMEOUT, 1},
      {0, false, 1500ms, QVA_ERR_CONNECTFAILED, 0},
      {0, true, 6000ms, QVA_ERR_CONNECTTIMEOUT, 1},
  };
  for (const auto &[deadline, signal, listenerGoes, rc, timeouts] : cases) {
    SCOPED_TRACE(testing::Message() << deadline << (signal ? " with a signal" : ""));
    Listener listener;
    ASSERT_TRUE(fillAcceptQueue(listener)) << "a connect to a full accept queue completed";
    std::promise<void> opened;
    std::thread helper(
        [&, signal = signal, listenerGoes = listenerGoes, self = pthread_self(), ended = opened.get_future()] {
          if (signal && ended.wait_for(200ms) == std::future_status::timeout) pthread_kill(self, SIGUSR1);
          if (ended.wait_for(listenerGoes) == std::future_status::timeout) ::shutdown(listener.fd, SHUT_RDWR);
        });
    clapiSetReplyTimeout(deadline);
    TraceCapture trace(1);
    QvaGatewayToken *token = nullptr;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", listener.port, &token, 1), rc);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    opened.set_value();
    helper.join();
    EXPECT_EQ(token, nullptr);
    EXPECT_LT(elapsed, 3s);
    const std::string &text = trace.text();
    EXPECT_EQ(countLines(text, 2009, "*EXC*", R"(clapi_gwycon\.waitForConnection socket \d+ connect timed out)"),
              timeouts);
    EXPECT_EQ(countLines(text, 2011, "*EXC*",
                         std::string(R"(clapi_gwycon\.clapiConnectToGatewayUnable to connect to Gateway: )") +
                             (rc == QVA_ERR_CONNECTFAILED ? "Connection refused" : "Connection timed out")),
              1);
    EXPECT_EQ(countLines(text, 1528, "*EXC*", R"(clapi_socketbuffer\.flushBuffer Unable to send data to Gateway: .*)"),
              1);
  }
  sigaction(SIGUSR1, &saved, nullptr);
}

// A connect made in time leaves the socket blocking for the handshake and every call after it.
TEST_F(ConnectTest, AConnectMadeInTimeLeavesTheSocketBlocking) {
  clapiSetReplyTimeout(5);
  Listener listener;
  FakeGateway gateway(-1, [&](FakeGateway &g) { g.accept(listener.fd), g.expect(55), g.send(message(5, "BASE", {})); });
  QvaGatewayToken *token = nullptr;
  ASSERT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", listener.port, &token, 1), QVA_OK);
  EXPECT_EQ(fcntl(token->socket, F_GETFL) & O_NONBLOCK, 0);
  gateway.run([](FakeGateway &g) { g.expect(33), g.send(message(10, "BASE", {})); });
  EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_OK);
  EXPECT_EQ(gateway.finish(), "");
}

}  // namespace
