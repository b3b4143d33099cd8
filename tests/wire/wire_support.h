// Helpers of the wire tests: literal byte vectors, a scripted fake Gateway
// that runs in a thread of its own, and a trace file that is read back.
//
// The fake Gateway knows nothing of the protocol: it reads exactly the number
// of bytes a test tells it to, records them, and answers with the literal
// bytes it is given. A layout mistake made the same way in the library and in
// a peer derived from it cannot pass here.
#ifndef QVA_TESTS_WIRE_SUPPORT_H
#define QVA_TESTS_WIRE_SUPPORT_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "qvaclient/qvaclient.h"

namespace wire {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

// Only reached when something is broken; generous for sanitizer builds.
inline constexpr std::chrono::milliseconds kPatience = 10s;

// "47 61 74 65" or "47617465": hexadecimal digits, blanks ignored.
inline Bytes hex(const std::string &text) {
  Bytes out;
  int pending = -1;
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::toupper(c) - 'A' + 10;
    if (v < 0 || v > 15) throw std::invalid_argument("bad hex digit in test vector");
    if (pending < 0) {
      pending = v;
    } else {
      out.push_back(static_cast<uint8_t>(pending << 4 | v));
      pending = -1;
    }
  }
  if (pending >= 0) throw std::invalid_argument("odd number of hex digits in test vector");
  return out;
}

inline Bytes ascii(const std::string &text) { return Bytes(text.begin(), text.end()); }

inline Bytes fill(size_t count, uint8_t value) { return Bytes(count, value); }

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// Bytes 0, 1, 2, ... wrapping at 251, so that a shifted or reordered block
// never matches by chance.
inline Bytes pattern(size_t count, uint8_t seed = 0) {
  Bytes out(count);
  for (size_t i = 0; i < count; ++i) out[i] = static_cast<uint8_t>((i + seed) % 251);
  return out;
}

inline std::string toHex(const Bytes &bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (uint8_t b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 15];
    out += ' ';
  }
  return out;
}

inline Bytes slice(const Bytes &b, size_t from, size_t count) {
  if (from + count > b.size()) return {};
  return Bytes(b.begin() + static_cast<std::ptrdiff_t>(from), b.begin() + static_cast<std::ptrdiff_t>(from + count));
}

inline bool contains(const Bytes &haystack, const Bytes &needle) {
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) != haystack.end();
}

// ---- Sockets -----------------------------------------------------------------

// One connected AF_UNIX stream pair: `client` for the library, `peer` for
// the test or its fake Gateway.
struct SocketPair {
  int client = -1;
  int peer = -1;
  SocketPair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) throw std::runtime_error("socketpair");
    client = fds[0];
    peer = fds[1];
  }
  SocketPair(const SocketPair &) = delete;
  SocketPair &operator=(const SocketPair &) = delete;
  ~SocketPair() {
    if (client >= 0) ::close(client);
    if (peer >= 0) ::close(peer);
  }
  // Hands the peer end to someone else (who closes it).
  int releasePeer() {
    int fd = peer;
    peer = -1;
    return fd;
  }
};

// Bytes waiting to be read on fd.
inline int pendingBytes(int fd) {
  int n = -1;
  if (ioctl(fd, FIONREAD, &n) != 0) return -1;
  return n;
}

inline bool sendAllTo(int fd, const Bytes &data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t rc = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (rc < 0 && errno == EINTR) continue;
    if (rc <= 0) return false;
    done += static_cast<size_t>(rc);
  }
  return true;
}

// Reads exactly count bytes, each wait bounded; a short result means the
// peer closed or the wait ran out.
inline Bytes recvExactly(int fd, size_t count, std::chrono::milliseconds patience = kPatience) {
  Bytes out(count);
  size_t done = 0;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (done < count) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{fd, POLLIN, 0};
    int ready = ::poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    ssize_t rc = ::recv(fd, out.data() + done, count - done, 0);
    if (rc < 0 && errno == EINTR) continue;
    if (rc <= 0) break;
    done += static_cast<size_t>(rc);
  }
  out.resize(done);
  return out;
}

// Whatever is readable on fd right now, without waiting.
inline Bytes drainNow(int fd) {
  Bytes out;
  uint8_t chunk[4096];
  for (;;) {
    ssize_t rc = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (rc <= 0) break;
    out.insert(out.end(), chunk, chunk + rc);
  }
  return out;
}

// A loopback listener on an ephemeral port.
struct Listener {
  int fd = -1;
  int port = 0;
  Listener() {
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = 0;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(fd, 4) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
      ::close(fd);
      throw std::runtime_error("listen");
    }
    port = ntohs(a.sin_port);
  }
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  ~Listener() { ::close(fd); }
};

// ---- The scripted fake Gateway ---------------------------------------------

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
      Bytes got = recvExactly(fd_, count);
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
      if (sendAllTo(fd_, data)) return true;
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
    return fd_ >= 0 ? drainNow(fd_) : Bytes{};
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

// ---- Literal messages ----------------------------------------------------------

inline Bytes be32(uint32_t v) {
  return Bytes{static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
               static_cast<uint8_t>(v)};
}

// A reply header as the Gateway sends it: "Gate", version, flow type, two
// zero words, the name and its length, a zero flag byte, the body length.
inline Bytes replyHeader(uint32_t flowType, const std::string &name, uint32_t bodyLength) {
  return cat({hex("47617465 10800000"), be32(flowType), hex("00000000 00000000"), be32(static_cast<uint32_t>(name.size())),
              ascii(name), hex("00"), be32(bodyLength)});
}

inline Bytes reply(uint32_t flowType, const std::string &name, const Bytes &body) {
  return cat({replyHeader(flowType, name, static_cast<uint32_t>(body.size())), body});
}

// The handshake request, byte for byte.
inline Bytes handshakeRequest() {
  return cat({hex("47617465 10800000 00000005 00000000 00000000 00000004 42415345 00 00000016"),
              hex("0002 656E 0002 4742"), fill(14, 0)});
}

// The close request, byte for byte.
inline Bytes closeRequest() { return hex("47617465 10800000 0000000A 00000000 FFFFFFFF 00000004 42415345 00 00000000"); }

// ---- Trace read back ---------------------------------------------------------

// Sends the trace to a file of its own for the life of the object and
// gives the text back; restores level 0, standard error and the default
// dump length afterwards.
class TraceFile {
 public:
  explicit TraceFile(int level, unsigned dumpLength = 0) {
    char name[] = "/tmp/qva_wire_traceXXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) throw std::runtime_error("mkstemp");
    ::close(fd);
    path_ = name;
    QVA_setAPITraceDataLength(dumpLength);
    QVA_setAPITraceDataOffset(0);
    if (QVA_setAPITraceFile(path_.c_str()) != QVA_OK) throw std::runtime_error("trace file");
    QVA_setAPITraceLevel(level);
  }
  TraceFile(const TraceFile &) = delete;
  TraceFile &operator=(const TraceFile &) = delete;
  ~TraceFile() {
    stop();
    std::remove(path_.c_str());
  }

  // Stops tracing into the file and returns everything it holds.
  std::string text() {
    stop();
    std::ifstream in(path_, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

 private:
  void stop() {
    if (stopped_) return;
    stopped_ = true;
    QVA_setAPITraceLevel(0);
    QVA_setAPITraceFile(nullptr);
    QVA_setAPITraceDataLength(128);
  }
  std::string path_;
  bool stopped_ = false;
};

inline std::vector<std::string> lines(const std::string &text) {
  std::vector<std::string> out;
  std::stringstream s(text);
  std::string line;
  while (std::getline(s, line)) out.push_back(line);
  return out;
}

// One DATA trace line and the bytes its storage dump shows.
struct Dump {
  std::string header;
  Bytes bytes;
};

// Rebuilds the bytes of every storage dump from its hexadecimal column
// ("0x%8.8X: " then 16 slots of two digits, a blank after every fourth).
inline std::vector<Dump> dumps(const std::string &text) {
  std::vector<Dump> out;
  for (const auto &line : lines(text)) {
    if (line.find("] DATA   ") != std::string::npos) {
      out.push_back({line, {}});
      continue;
    }
    if (out.empty() || line.size() < 12 + 35 || line.compare(0, 2, "0x") != 0 || line[10] != ':') continue;
    std::string digits;
    for (char c : line.substr(12, 35)) {
      if (c != ' ') digits += c;
    }
    Bytes b = hex(digits);
    out.back().bytes.insert(out.back().bytes.end(), b.begin(), b.end());
  }
  return out;
}

// Every byte that any dump of the trace shows, in order.
inline Bytes allDumpedBytes(const std::string &text) {
  Bytes all;
  for (const auto &d : dumps(text)) all.insert(all.end(), d.bytes.begin(), d.bytes.end());
  return all;
}

// The regex for the fixed part of a trace line with the given point and
// level word; the message follows.
inline std::string linePrefix(int point, const std::string &word) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "\\[%04d\\] %-6s ", point, word.c_str());
  std::string wordEsc;
  for (char c : std::string(buf)) {
    if (c == '*') wordEsc += "\\*";
    else wordEsc += c;
  }
  return "^\\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d:\\d\\d\\d \\[0x[0-9A-F]{8},0x[0-9A-F]{8}\\] " + wordEsc;
}

// Lines of the trace with the given point and level word whose message
// matches messageRegex from its start.
inline std::vector<std::string> traceLines(const std::string &text, int point, const std::string &word,
                                           const std::string &messageRegex) {
  const std::regex re(linePrefix(point, word) + messageRegex);
  std::vector<std::string> out;
  for (const auto &line : lines(text)) {
    if (std::regex_search(line, re)) out.push_back(line);
  }
  return out;
}

// ---- Threads and signals -------------------------------------------------------

inline pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// The scheduler state of a thread of this process ('R', 'S', ...).
inline char threadState(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return '?';
  return stat[close + 2];
}

// Waits, bounded, until the thread is asleep in the kernel and the
// condition holds.
inline bool waitUntilAsleep(pid_t tid, const std::function<bool()> &also = [] { return true; }) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (threadState(tid) == 'S' && also()) return true;
    std::this_thread::yield();
  }
  return false;
}

}  // namespace wire

#endif  // QVA_TESTS_WIRE_SUPPORT_H
