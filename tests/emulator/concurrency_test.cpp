// Many connections at once, and stop() while connections are open and while a
// server program is running.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <thread>

#include "qvaemu/gateway.h"
#include "raw_client.h"

using namespace rawclient;

namespace {

TEST(Concurrency, ManyConnectionsEchoTheirOwnData) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  constexpr int kThreads = 16;
  constexpr int kCalls = 50;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Client c;
      if (!open(c, gw.port())) return;
      for (int i = 0; i < kCalls; ++i) {
        Call call;
        call.program = i % 2 ? "UPPER" : "ECHO";
        call.commarea = ascii("thread " + std::to_string(t) + " call " + std::to_string(i));
        call.extendMode = i % 5 == 4 ? 0 : 1;
        ProgramReply r;
        if (!rawclient::call(c, call, r) || r.replyRc != 0) return;
        Bytes expect = call.commarea;
        if (i % 2)
          for (auto& b : expect) b = static_cast<uint8_t>(std::toupper(b));
        if (r.data != expect) return;
        good.fetch_add(1);
      }
      Message m;
      if (c.send(closeRequest()) && readMessage(c, m) && m.flowType == 10 && c.eofWithin()) good.fetch_add(1);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(good.load(), kThreads * (kCalls + 1));
  EXPECT_EQ(gw.connectionCount(), static_cast<size_t>(kThreads));
  for (size_t i = 0; i < kThreads; ++i) EXPECT_TRUE(gw.waitForClosed(i, kPatience)) << i;
}

TEST(Concurrency, UnitTokensAreDistinctAcrossConnections) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  constexpr int kThreads = 8;
  std::vector<std::vector<int32_t>> tokens(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Client c;
      if (!open(c, gw.port())) return;
      for (int i = 0; i < 20; ++i) {
        Call call;
        call.commarea = ascii("u");
        call.extendMode = 1;
        ProgramReply r;
        if (rawclient::call(c, call, r)) tokens[t].push_back(r.luwToken);
      }
    });
  }
  for (auto& th : threads) th.join();
  std::vector<int32_t> all;
  for (auto& v : tokens) {
    EXPECT_EQ(v.size(), 20u);
    all.insert(all.end(), v.begin(), v.end());
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
  EXPECT_EQ(std::count(all.begin(), all.end(), 0), 0);
}

TEST(Concurrency, StopClosesConnectedClientsAndReturns) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<Client>());
    ASSERT_TRUE(open(*clients.back(), gw.port()));
  }
  // One of them in the middle of a request.
  const Bytes req = request(Call{});
  ASSERT_TRUE(clients[0]->send(Bytes(req.begin(), req.begin() + 20)));
  ASSERT_TRUE(gw.waitForReceived(0, 55 + 20, kPatience));
  gw.stop();
  for (auto& c : clients) EXPECT_TRUE(c->eofWithin());
  gw.stop();  // idempotent
  Client late;
  EXPECT_FALSE(late.connect(gw.port()));
}

TEST(Concurrency, StopInterruptsARunningSleep) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  Client c;
  ASSERT_TRUE(open(c, gw.port()));
  Call call;
  call.program = "SLEEP";
  call.commarea = ascii("10000");
  const Bytes req = request(call);
  ASSERT_TRUE(c.send(req));
  ASSERT_TRUE(gw.waitForReceived(0, 55 + req.size(), kPatience));
  const auto t0 = std::chrono::steady_clock::now();
  std::thread stopper([&] { gw.stop(); });
  EXPECT_TRUE(c.eofWithin());
  stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
}

TEST(Concurrency, DropConnectionsWhileOthersConnectAndCall) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  std::atomic<bool> done{false};
  std::thread dropper([&] {
    while (!done.load()) {
      gw.dropConnections();
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        Client c;
        if (!open(c, gw.port())) continue;
        ProgramReply r;
        Call call;
        call.commarea = ascii("drop");
        rawclient::call(c, call, r);  // either answered or cut: both are fine here
      }
    });
  }
  for (auto& th : threads) th.join();
  done = true;
  dropper.join();
  gw.stop();
  EXPECT_GE(gw.connectionCount(), 1u);
}

TEST(Concurrency, DestructorStopsAGatewayWithASilentConnection) {
  Client c;
  {
    qvaemu::Gateway gw;
    ASSERT_TRUE(gw.start());
    qvaemu::FaultPlan p;
    p.fault = qvaemu::Fault::NeverAnswer;
    gw.setFault(p);
    ASSERT_TRUE(c.connect(gw.port()));
    ASSERT_TRUE(c.send(handshake()));
    ASSERT_TRUE(gw.waitForReceived(0, 55, kPatience));
  }
  EXPECT_TRUE(c.eofWithin());
}

}  // namespace
