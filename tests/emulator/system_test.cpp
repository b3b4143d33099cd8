// Many connections at once, and stop() while connections are open and a
// server program is running.

#include <algorithm>
#include <atomic>
#include <cctype>
#include <mutex>
#include <thread>

#include "raw_client.h"

using namespace rawclient;

namespace {

// Each thread calls on its own connection; the mode-1 calls each begin a unit,
// whose tokens must all differ.
TEST(Concurrency, ManyConnectionsEchoTheirOwnDataAndGetDistinctTokens) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  constexpr int kThreads = 16, kCalls = 50;
  std::atomic<int> good{0};
  std::mutex mu;
  std::vector<int32_t> tokens;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Client c;
      if (!open(c, gw.port())) return;
      for (int i = 0; i < kCalls; ++i) {
        Call call = prog(i % 2 ? "UPPER" : "ECHO", "thread " + std::to_string(t) + " call " + std::to_string(i));
        call.extendMode = i % 5 == 4 ? 0 : 1;
        ProgramReply r;
        if (!rawclient::call(c, call, r) || r.replyRc != 0) return;
        Bytes expect = call.commarea;
        if (i % 2)
          std::transform(expect.begin(), expect.end(), expect.begin(), [](uint8_t b) { return std::toupper(b); });
        if (r.data != expect) return;
        good.fetch_add(1);
        std::lock_guard lock(mu);
        if (call.extendMode == 1) tokens.push_back(r.luwToken);
      }
      if (c.send(closeRequest()) && be32(readMessage(c), 8) == 10 && c.eofWithin()) good.fetch_add(1);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(good.load(), kThreads * (kCalls + 1));
  EXPECT_EQ(gw.connectionCount(), static_cast<size_t>(kThreads));
  for (size_t i = 0; i < kThreads; ++i) EXPECT_TRUE(gw.waitForClosed(i, kPatience)) << i;
  std::sort(tokens.begin(), tokens.end());
  EXPECT_EQ(std::adjacent_find(tokens.begin(), tokens.end()), tokens.end());
  EXPECT_EQ(std::count(tokens.begin(), tokens.end(), 0), 0);
}

TEST(Concurrency, StopClosesEveryConnectionEvenMidRequestOrMidSleep) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<Client>());
    ASSERT_TRUE(open(*clients.back(), gw.port()));
  }
  const Bytes req = request(Call{}), sleep = request(prog("SLEEP", "10000"));
  ASSERT_TRUE(clients[0]->send(slice(req, 0, 20)));
  ASSERT_TRUE(clients[1]->send(sleep));
  ASSERT_TRUE(gw.waitForReceived(0, 55 + 20, kPatience));
  ASSERT_TRUE(gw.waitForReceived(1, 55 + sleep.size(), kPatience));
  const auto t0 = std::chrono::steady_clock::now();
  std::thread stopper([&] { gw.stop(); });
  for (auto& c : clients) EXPECT_TRUE(c->eofWithin());
  stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
  gw.stop();  // idempotent
  Client late;
  EXPECT_FALSE(late.connect(gw.port()));
}

}  // namespace
