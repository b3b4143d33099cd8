// The Gateway's listener: binds the listen sockets, runs the accept thread
// that polls them and a wake pipe, hands each connection a thread of its own
// (connection.cpp), and the Gateway's public methods.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "gateway_impl.h"

namespace qvaemu {

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

std::vector<ServerEntry> defaultServers() {
  return {{"QVADEMO", "Emulated demonstration server"}, {"QVATEST", "Emulated test server"}};
}

Gateway::Impl::Impl(Options o) : options(std::move(o)) {
  config.servers = options.servers.empty() && options.useDefaultServers ? defaultServers() : options.servers;
  if (!options.userId.empty() || !options.password.empty()) config.users.push_back({options.userId, options.password});
  config.users.insert(config.users.end(), options.users.begin(), options.users.end());
  config.programs = options.programs;
}

namespace {

// Binds one listening socket. port 0 picks an ephemeral port, reported back.
int bindListener(const std::string& address, uint16_t& port, int& err, std::string& what) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* res = nullptr;
  const std::string service = std::to_string(port);
  const int rc = getaddrinfo(address.c_str(), service.c_str(), &hints, &res);
  if (rc != 0) {
    err = EADDRNOTAVAIL;
    what = "cannot resolve " + address + ": " + gai_strerror(rc);
    return -1;
  }
  int fd = ::socket(res->ai_family, res->ai_socktype | SOCK_CLOEXEC, res->ai_protocol);
  if (fd < 0) {
    err = errno;
    what = "socket for " + address + ": " + std::strerror(err);
    freeaddrinfo(res);
    return -1;
  }
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Each family gets its own socket, so the IPv6 one must not claim IPv4 too.
  if (res->ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (::bind(fd, res->ai_addr, res->ai_addrlen) != 0 || ::listen(fd, 128) != 0) {
    err = errno;
    what = "bind " + address + " port " + service + ": " + std::strerror(err);
    freeaddrinfo(res);
    ::close(fd);
    return -1;
  }
  freeaddrinfo(res);
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
  if (ss.ss_family == AF_INET) {
    sockaddr_in sin;
    std::memcpy(&sin, &ss, sizeof sin);
    port = ntohs(sin.sin_port);
  } else {
    sockaddr_in6 sin6;
    std::memcpy(&sin6, &ss, sizeof sin6);
    port = ntohs(sin6.sin6_port);
  }
  return fd;
}

}  // namespace

bool Gateway::Impl::bindAll(std::string* error) {
  const bool defaults = options.listenAddresses.empty();
  const std::vector<std::string> addresses =
      defaults ? std::vector<std::string>{"127.0.0.1", "::1"} : options.listenAddresses;
  // An ephemeral port taken on the first address may be in use on a later one:
  // start over with another port a few times before giving up.
  const int attempts = options.port == 0 && addresses.size() > 1 ? 16 : 1;
  std::string what;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    uint16_t p = options.port;
    bool retry = false;
    bool failed = false;
    for (size_t i = 0; i < addresses.size(); ++i) {
      int err = 0;
      const int fd = bindListener(addresses[i], p, err, what);
      if (fd >= 0) {
        listenFds.push_back(fd);
        continue;
      }
      if (defaults && i > 0 && (err == EADDRNOTAVAIL || err == EAFNOSUPPORT)) continue;  // no IPv6 here
      if (options.port == 0 && i > 0 && err == EADDRINUSE)
        retry = true;
      else
        failed = true;
      break;
    }
    if (!retry && !failed) {
      port = p;
      return true;
    }
    for (int& fd : listenFds) closeFd(fd);
    listenFds.clear();
    if (failed) break;
  }
  if (error) *error = what;
  return false;
}

void Gateway::Impl::log(const char* format, ...) {
  if (!options.logMessages || !options.logStream) return;
  va_list ap;
  va_start(ap, format);
  std::lock_guard lk(logMutex);
  std::vfprintf(options.logStream, format, ap);
  std::fputc('\n', options.logStream);
  std::fflush(options.logStream);
  va_end(ap);
}

void Gateway::Impl::acceptLoop() {
  std::vector<pollfd> fds;
  fds.push_back({wakePipe[0], POLLIN, 0});
  for (int fd : listenFds) fds.push_back({fd, POLLIN, 0});
  for (;;) {
    for (auto& p : fds) p.revents = 0;
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents != 0) return;  // stop() wrote the wake pipe
    for (size_t i = 1; i < fds.size(); ++i)
      if (fds[i].revents & POLLIN) accept(fds[i].fd);

    // Join the threads of connections that have ended, so a long-running
    // Gateway does not pile them up.
    std::vector<std::thread> finished;
    {
      std::lock_guard lk(mutex);
      for (auto& c : connections)
        if (c->done && c->thread.joinable()) finished.push_back(std::move(c->thread));
    }
    for (auto& t : finished) t.join();
  }
}

void Gateway::Impl::accept(int listenFd) {
  const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  const int on = 1;
  // Trickled replies must leave as the small segments they were sent in.
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::lock_guard lk(mutex);
  if (stopping) {
    ::close(fd);
    return;
  }
  auto c = std::make_shared<Connection>();
  c->index = connections.size();
  c->fd = fd;
  c->plan = pendingFault;
  if (!pendingFault.everyConnection) pendingFault = FaultPlan{};
  connections.push_back(c);
  try {
    c->thread = std::thread([this, c] { serve(c); });
  } catch (...) {
    closeFd(c->fd);
    c->done = true;
  }
  cv.notify_all();
}

Gateway::Gateway(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Gateway::~Gateway() { stop(); }

bool Gateway::start(std::string* error) {
  Impl& g = *impl_;
  std::lock_guard lk(g.lifecycle);
  if (g.started) {
    if (error) *error = "a Gateway starts once";
    return false;
  }
  if (::pipe2(g.wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    if (error) *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  if (!g.bindAll(error)) {
    closeFd(g.wakePipe[0]);
    closeFd(g.wakePipe[1]);
    return false;
  }
  try {
    g.acceptThread = std::thread([&g] { g.acceptLoop(); });
  } catch (...) {
    if (error) *error = "cannot start the accept thread";
    for (int& fd : g.listenFds) closeFd(fd);
    g.listenFds.clear();
    closeFd(g.wakePipe[0]);
    closeFd(g.wakePipe[1]);
    return false;
  }
  g.started = true;
  g.running = true;
  return true;
}

void Gateway::stop() {
  Impl& g = *impl_;
  std::lock_guard lk(g.lifecycle);
  if (!g.running) return;
  g.running = false;
  {
    std::lock_guard l(g.mutex);
    g.stopping = true;
    for (auto& c : g.connections)
      if (c->fd >= 0) ::shutdown(c->fd, SHUT_RDWR);
    g.cv.notify_all();
  }
  const char byte = 1;
  while (::write(g.wakePipe[1], &byte, 1) < 0 && errno == EINTR) {
  }
  g.acceptThread.join();
  std::vector<std::thread> threads;
  {
    std::lock_guard l(g.mutex);
    for (auto& c : g.connections)
      if (c->thread.joinable()) threads.push_back(std::move(c->thread));
  }
  for (auto& t : threads) t.join();
  for (int& fd : g.listenFds) closeFd(fd);
  g.listenFds.clear();
  closeFd(g.wakePipe[0]);
  closeFd(g.wakePipe[1]);
}

uint16_t Gateway::port() const { return impl_->port.load(); }

void Gateway::setFault(const FaultPlan& plan) {
  std::lock_guard lk(impl_->mutex);
  impl_->pendingFault = plan;
}

size_t Gateway::connectionCount() const {
  std::lock_guard lk(impl_->mutex);
  return impl_->connections.size();
}

std::vector<uint8_t> Gateway::received(size_t connection) const {
  std::lock_guard lk(impl_->mutex);
  if (connection >= impl_->connections.size()) return {};
  return impl_->connections[connection]->received;
}

bool Gateway::waitForReceived(size_t connection, size_t bytes, std::chrono::milliseconds timeout) const {
  std::unique_lock lk(impl_->mutex);
  return impl_->cv.wait_for(lk, timeout, [&] {
    return connection < impl_->connections.size() && impl_->connections[connection]->receivedCount >= bytes;
  });
}

bool Gateway::waitForConnections(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lk(impl_->mutex);
  return impl_->cv.wait_for(lk, timeout, [&] { return impl_->connections.size() >= count; });
}

bool Gateway::waitForClosed(size_t connection, std::chrono::milliseconds timeout) const {
  std::unique_lock lk(impl_->mutex);
  return impl_->cv.wait_for(lk, timeout, [&] {
    return connection < impl_->connections.size() && impl_->connections[connection]->peerClosed;
  });
}

void Gateway::dropConnections() {
  std::lock_guard lk(impl_->mutex);
  for (auto& c : impl_->connections) {
    if (c->fd < 0) continue;
    c->dropped = true;
    ::shutdown(c->fd, SHUT_RDWR);
  }
  impl_->cv.notify_all();
}

}  // namespace qvaemu
