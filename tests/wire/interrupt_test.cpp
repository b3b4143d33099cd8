// Signals that interrupt the blocking socket calls of a flow: the wait for
// the reply, a receive in the middle of a reply and a send into a full
// socket. Each call is retried or continued; none fails the flow.
//
// The fake Gateway signals the client thread only once that thread is
// asleep in the kernel at the point under test.

#include <sys/syscall.h>

#include <atomic>
#include <csignal>
#include <fstream>

#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

// The scheduler state of a thread of this process ('R', 'S', ...).
char threadState(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto close = stat.rfind(')');
  return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

// Waits, bounded, until the thread is asleep in the kernel and the condition holds.
bool waitUntilAsleep(pid_t tid, const std::function<bool()> &also) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (threadState(tid) == 'S' && also()) return true;
    std::this_thread::yield();
  }
  return false;
}

std::atomic<int> signalsTaken{0};

void onSignal(int) { signalsTaken.fetch_add(1, std::memory_order_relaxed); }

class InterruptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: blocking calls return EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    signalsTaken = 0;
    clientThread = pthread_self();
    clientTid = static_cast<pid_t>(syscall(SYS_gettid));
  }
  void TearDown() override { sigaction(SIGUSR1, &previous, nullptr); }

  // A step of the fake Gateway: wait until the client sleeps (and the
  // condition holds), then interrupt it.
  std::function<bool(int)> interruptClient(std::function<bool()> also = [] { return true; }) {
    return [this, also](int) {
      if (!waitUntilAsleep(clientTid, also)) return false;
      return pthread_kill(clientThread, SIGUSR1) == 0;
    };
  }

  struct sigaction previous {};
  pthread_t clientThread{};
  pid_t clientTid = 0;
  SocketPair pair;
};

TEST_F(InterruptTest, InterruptedWaitForTheReplyIsResumed) {
  auto gateway = FakeGateway::onSocket(pair.releasePeer());
  gateway->expect(55).then(interruptClient()).send(message(5, "BASE", {}));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_GE(signalsTaken.load(), 1);
}

TEST_F(InterruptTest, InterruptedReceiveInTheMiddleOfAReplyIsResumed) {
  const int client = pair.client;
  const Bytes answer = message(5, "BASE", pattern(22));
  auto gateway = FakeGateway::onSocket(pair.releasePeer());
  gateway->expect(55)
      .send(slice(answer, 0, 10))
      // Asleep with the first ten bytes taken: waiting in recv for the rest.
      .then(interruptClient([client] { return pendingBytes(client) == 0; }))
      .send(slice(answer, 10, answer.size() - 10));
  int32_t reasons = -1;
  EXPECT_EQ(clapiFlowHandshakeRequest(pair.client, &reasons), QVA_OK);
  EXPECT_EQ(reasons, 0);
  EXPECT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_GE(signalsTaken.load(), 1);
  EXPECT_EQ(pendingBytes(pair.client), 0);
}

TEST_F(InterruptTest, InterruptedOrShortSendOfALargeBlockIsContinued) {
  const int small = 4096;
  setsockopt(pair.client, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  setsockopt(pair.peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  const Bytes block = pattern(256 * 1024, 11);
  auto gateway = FakeGateway::onSocket(pair.releasePeer());
  // Asleep in send: the socket is full. The signal cuts the send short.
  gateway->then(interruptClient()).expect(block.size());
  SocketBuffer sb{};
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, static_cast<uint32_t>(block.size())), QVA_OK);
  writeBytes(&sb, block.data(), static_cast<uint32_t>(block.size()));
  EXPECT_EQ(sb.failure, 0);
  EXPECT_EQ(sb.lastErrno, 0);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_GE(signalsTaken.load(), 1);
  EXPECT_EQ(gateway->request(0), block);
  EXPECT_TRUE(gateway->unread().empty());
}

TEST_F(InterruptTest, SendInterruptedBeforeAnyByteIsRetried) {
  const int small = 4096;
  setsockopt(pair.client, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  // Fill the connection first, so that the flush cannot pass a single byte
  // until the fake Gateway reads.
  Bytes filler;
  const Bytes chunk(512, 0xF0);
  while (::send(pair.client, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
    filler.insert(filler.end(), chunk.begin(), chunk.end());
  }
  ASSERT_EQ(errno, EAGAIN);
  const Bytes block = pattern(600, 13);
  auto gateway = FakeGateway::onSocket(pair.releasePeer());
  gateway->then(interruptClient()).expect(filler.size() + block.size());
  SocketBuffer sb{};
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, static_cast<uint32_t>(block.size())), QVA_OK);
  writeBytes(&sb, block.data(), static_cast<uint32_t>(block.size()));
  EXPECT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(sb.lastErrno, 0);
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  ASSERT_TRUE(gateway->drain()) << gateway->errors();
  EXPECT_GE(signalsTaken.load(), 1);
  EXPECT_EQ(gateway->request(0), cat({filler, block}));
}

}  // namespace
