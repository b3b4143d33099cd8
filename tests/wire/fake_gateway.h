// The scripted fake Gateway of the wire tests, in a thread of its own.
//
// It knows nothing of the protocol: it reads exactly the number of bytes a
// test tells it to, records them, and answers with the literal bytes it is
// given. A layout mistake made the same way in the library and in a peer
// derived from it cannot pass here.
#ifndef QVA_TESTS_FAKE_GATEWAY_H
#define QVA_TESTS_FAKE_GATEWAY_H

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "clapi_diag.h"
#include "qvaclient/qvaclient.h"
#include "qvatest/bytes.h"
#include "qvatest/net.h"
#include "qvatest/trace.h"

namespace wire {

using namespace qvatest;

class FakeGateway {
 public:
  // Talks over an already connected descriptor, which it then owns.
  static std::unique_ptr<FakeGateway> onSocket(int fd) {
    return std::unique_ptr<FakeGateway>(new FakeGateway(fd, -1));
  }
  // Accepts one connection on a listening descriptor (not owned) first.
  static std::unique_ptr<FakeGateway> accepting(int listenFd) {
    return std::unique_ptr<FakeGateway>(new FakeGateway(-1, listenFd));
  }

  FakeGateway(const FakeGateway &) = delete;
  FakeGateway &operator=(const FakeGateway &) = delete;

  ~FakeGateway() {
    {
      std::lock_guard<std::mutex> g(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    worker_.join();
    if (fd_ >= 0) ::close(fd_);
  }

  // Reads exactly count bytes and records them as the next request.
  FakeGateway &expect(size_t count) {
    return push([this, count] {
      Bytes got = qvatest::recvExactly(fd_, count);
      bool whole = got.size() == count;
      {
        std::lock_guard<std::mutex> g(mutex_);
        received_.push_back(std::move(got));
      }
      if (!whole) fail("expected " + std::to_string(count) + " bytes, the connection gave fewer");
      return whole;
    });
  }

  FakeGateway &send(Bytes data) {
    return push([this, data = std::move(data)] {
      if (qvatest::sendAll(fd_, data)) return true;
      fail("send to the client failed");
      return false;
    });
  }

  // Closes the connection; the client sees an orderly close.
  FakeGateway &hangUp() {
    return push([this] {
      ::close(fd_);
      fd_ = -1;
      return true;
    });
  }

  // Any other step, run in the fake Gateway's thread with the connection.
  FakeGateway &then(std::function<bool(int fd)> step) {
    return push([this, step = std::move(step)] {
      if (step(fd_)) return true;
      fail("scripted step failed");
      return false;
    });
  }

  // Waits until every queued step has run; true when none failed.
  bool drain() {
    std::unique_lock<std::mutex> g(mutex_);
    bool done = idle_.wait_for(g, 2 * kPatience, [this] { return steps_.empty() && !busy_; });
    if (!done) errors_.push_back("steps still pending");
    return errors_.empty();
  }

  Bytes request(size_t index) {
    std::lock_guard<std::mutex> g(mutex_);
    return index < received_.size() ? received_[index] : Bytes{};
  }

  size_t requestCount() {
    std::lock_guard<std::mutex> g(mutex_);
    return received_.size();
  }

  std::string errors() {
    std::lock_guard<std::mutex> g(mutex_);
    std::string out;
    for (const auto &e : errors_) out += e + "; ";
    return out;
  }

  // Bytes the client sent that no step has read; call after drain().
  Bytes unread() {
    std::lock_guard<std::mutex> g(mutex_);
    return fd_ >= 0 ? qvatest::drainNow(fd_) : Bytes{};
  }

 private:
  FakeGateway(int fd, int listenFd) : fd_(fd), listenFd_(listenFd) {
    if (listenFd_ >= 0) {
      push([this] {
        pollfd p{listenFd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(kPatience.count())) == 1) fd_ = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd_ >= 0) return true;
        fail("no client connected");
        return false;
      });
    }
    worker_ = std::thread([this] { run(); });
  }

  FakeGateway &push(std::function<bool()> step) {
    {
      std::lock_guard<std::mutex> g(mutex_);
      steps_.push_back(std::move(step));
    }
    wake_.notify_all();
    return *this;
  }

  void fail(const std::string &why) {
    std::lock_guard<std::mutex> g(mutex_);
    errors_.push_back(why);
  }

  void run() {
    bool broken = false;
    for (;;) {
      std::function<bool()> step;
      {
        std::unique_lock<std::mutex> g(mutex_);
        wake_.wait(g, [this] { return stop_ || !steps_.empty(); });
        if (steps_.empty()) return;
        step = std::move(steps_.front());
        steps_.pop_front();
        busy_ = true;
      }
      // After a failure the connection is dropped, so that a client waiting
      // for a reply wakes up instead of waiting forever.
      if (!broken && !step()) {
        broken = true;
        if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
      }
      {
        std::lock_guard<std::mutex> g(mutex_);
        busy_ = false;
      }
      idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<bool()>> steps_;
  std::vector<Bytes> received_;
  std::vector<std::string> errors_;
  bool busy_ = false;
  bool stop_ = false;
  int fd_;
  int listenFd_;
  std::thread worker_;
};

// Test data of the ECI tests: caller's areas start stale and end in a guard.
inline constexpr uint8_t kGuard = 0xA5;
inline constexpr size_t kGuardSize = 16;
inline constexpr uint8_t kStale = 0x5A;
inline const std::string kPassword = "S3cr3tPassw0rd!!";

// Makes every socket-buffer allocation fail while it lives.
class FailSocketBufferAllocs {
 public:
  FailSocketBufferAllocs() { setAllocFailHook(&FailSocketBufferAllocs::hook); }
  ~FailSocketBufferAllocs() { setAllocFailHook(nullptr); }

 private:
  static bool hook(uint32_t, const char *tag) { return tag != nullptr && std::strncmp(tag, "SCKB", 4) == 0; }
};

}  // namespace wire

#endif  // QVA_TESTS_FAKE_GATEWAY_H
