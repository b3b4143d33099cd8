// Sockets for the tests: a connected pair, a loopback listener on an
// ephemeral port, and sends and receives whose every wait is bounded.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "qvatest/bytes.h"

namespace qvatest {

using namespace std::chrono_literals;

// Only reached when something is broken; generous for sanitizer builds.
inline constexpr std::chrono::milliseconds kPatience = 10s;

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
  void closePeer() {
    ::close(peer);
    peer = -1;
  }
};

// A loopback listener on an ephemeral port.
struct Listener {
  int fd = -1;
  int port = 0;
  Listener() {
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
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

// A loopback port that nothing listens on: bound once, then released.
inline int unusedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = -1;
  if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  ::close(fd);
  return port;
}

// Bytes waiting to be read on fd.
inline int pendingBytes(int fd) {
  int n = -1;
  return ioctl(fd, FIONREAD, &n) == 0 ? n : -1;
}

inline bool sendAll(int fd, const Bytes &data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t rc = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (rc < 0 && errno == EINTR) continue;
    if (rc <= 0) return false;
    done += static_cast<size_t>(rc);
  }
  return true;
}

enum class Readable { Data, Eof, Timeout };

// Waits up to `timeout` for data or the end of the stream on fd.
inline Readable waitReadable(int fd, std::chrono::milliseconds timeout) {
  pollfd p{fd, POLLIN, 0};
  int ready;
  do ready = ::poll(&p, 1, static_cast<int>(timeout.count()));
  while (ready < 0 && errno == EINTR);
  if (ready <= 0) return Readable::Timeout;
  char c;
  return ::recv(fd, &c, 1, MSG_PEEK) > 0 ? Readable::Data : Readable::Eof;
}

// Reads exactly count bytes within `patience`; a short result means the
// peer closed or the wait ran out.
inline Bytes recvExactly(int fd, size_t count, std::chrono::milliseconds patience = kPatience) {
  Bytes out(count);
  size_t done = 0;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (done < count) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || waitReadable(fd, left) != Readable::Data) break;
    const ssize_t rc = ::recv(fd, out.data() + done, count - done, 0);
    if (rc < 0 && errno == EINTR) continue;
    if (rc <= 0) break;
    done += static_cast<size_t>(rc);
  }
  out.resize(done);
  return out;
}

// Everything until the end of the stream, or until `silence` passes without a byte.
inline Bytes recvToEnd(int fd, std::chrono::milliseconds silence = kPatience) {
  Bytes all;
  uint8_t chunk[4096];
  while (waitReadable(fd, silence) == Readable::Data) {
    const ssize_t rc = ::recv(fd, chunk, sizeof chunk, 0);
    if (rc <= 0) break;
    all.insert(all.end(), chunk, chunk + rc);
  }
  return all;
}

// Whatever is readable on fd right now, without waiting.
inline Bytes drainNow(int fd) {
  Bytes out;
  uint8_t chunk[4096];
  for (;;) {
    const ssize_t rc = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (rc <= 0) break;
    out.insert(out.end(), chunk, chunk + rc);
  }
  return out;
}

}  // namespace qvatest
