// The Gateway's sockets and threads: an accept thread that polls the listen
// sockets and a wake pipe, one thread per connection, and the fault modes that
// bend a connection's replies.
#include "qvaemu/gateway.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "eci.h"
#include "wire.h"

namespace qvaemu {

namespace {

// A name longer than this, or a body larger, means the stream is out of step.
constexpr uint32_t kMaxNameLength = 255;
constexpr int32_t kMaxBodyLength = 64 * 1024 * 1024;
constexpr int32_t kHugeDataLength = 0x7FFFFFF0;
constexpr size_t kHugeDataSent = 8;
constexpr auto kTricklePause = std::chrono::microseconds(300);

const uint8_t kHandshakeReplyBody[] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B'};

struct FaultName {
  Fault fault;
  const char* name;
};
constexpr FaultName kFaultNames[] = {
    {Fault::None, "none"},
    {Fault::NeverAnswer, "never-answer"},
    {Fault::CloseBeforeAnswer, "close-before-answer"},
    {Fault::CloseMidReply, "close-mid-reply"},
    {Fault::Trickle, "trickle"},
    {Fault::MalformedHeader, "malformed-header"},
    {Fault::HugeDataLength, "huge-data-length"},
    {Fault::ExceptionFlow, "exception-flow"},
    {Fault::OversizeCommarea, "oversize-commarea"},
    {Fault::OversizeServerList, "oversize-server-list"},
    {Fault::ChannelReturnOnCommarea, "channel-return-on-commarea"},
};

std::string foldName(std::string_view s) {
  std::string out;
  for (char c : s)
    if (c != '-' && c != '_') out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  return out;
}

// Names in the log are shown as they are, with anything unprintable as '.'.
std::string printable(const std::string& s) {
  std::string out = s;
  for (auto& c : out)
    if (c < 0x20 || c > 0x7E) c = '.';
  return out;
}

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

struct Connection {
  size_t index = 0;
  FaultPlan plan;  // fixed at accept
  // Guarded by Gateway::Impl::mutex. fd is closed only by the connection's own
  // thread, under the mutex, so a drop never shuts down a reused descriptor.
  int fd = -1;
  std::vector<uint8_t> received;
  size_t receivedCount = 0;
  bool peerClosed = false;
  bool dropped = false;
  bool done = false;
  std::thread thread;
};

// One message's answer before the transport faults bend it.
struct Reply {
  wire::Header header;
  std::vector<uint8_t> body;
  bool send = true;  // false: the wait of a SLEEP was cut short
  bool closeAfter = false;  // the close flow ends the connection
};

}  // namespace

std::optional<Fault> faultFromName(std::string_view name) {
  const std::string folded = foldName(name);
  for (const auto& f : kFaultNames)
    if (foldName(f.name) == folded) return f.fault;
  return std::nullopt;
}

const char* faultName(Fault fault) {
  for (const auto& f : kFaultNames)
    if (f.fault == fault) return f.name;
  return "unknown";
}

std::vector<ServerEntry> defaultServers() {
  return {{"QVADEMO", "Emulated demonstration server"}, {"QVATEST", "Emulated test server"}};
}

struct Gateway::Impl {
  explicit Impl(Options o) : options(std::move(o)) {
    config.servers = options.servers.empty() && options.useDefaultServers ? defaultServers() : options.servers;
    config.userId = options.userId;
    config.password = options.password;
  }

  Options options;
  eci::Config config;
  std::atomic<int32_t> tokenSource{0x00010001};
  std::atomic<uint16_t> port{0};

  std::mutex lifecycle;  // serialises start() and stop()
  bool started = false;  // guarded by lifecycle
  bool running = false;  // guarded by lifecycle
  std::vector<int> listenFds;  // guarded by lifecycle; the accept thread only reads them
  int wakePipe[2] = {-1, -1};
  std::thread acceptThread;

  mutable std::mutex mutex;
  mutable std::condition_variable cv;
  bool stopping = false;
  std::vector<std::shared_ptr<Connection>> connections;
  FaultPlan pendingFault;

  std::mutex logMutex;

  bool bindAll(std::string* error);
  void acceptLoop();
  void accept(int listenFd);
  void serve(const std::shared_ptr<Connection>& c);
  void log(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

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

namespace {

// The connection's thread: reads messages whole, answers them, bends the
// answers as the fault plan says.
class Server {
 public:
  Server(Gateway::Impl& g, Connection& c, int fd)
      : g_(g), c_(c), fd_(fd), session_(g.config, g.tokenSource) {}

  bool faultApplies(size_t message) const {
    const auto first = static_cast<size_t>(std::max(0, c_.plan.afterMessages));
    if (c_.plan.fault == Fault::None || message < first) return false;
    return c_.plan.messages <= 0 || message < first + static_cast<size_t>(c_.plan.messages);
  }

  void run() {
    size_t message = 0;
    bool silent = false;
    for (;;) {
      wire::Header h;
      std::vector<uint8_t> body;
      if (!readMessage(h, body)) return;
      const bool faulty = faultApplies(message);
      ++message;
      Reply reply = answer(h, body, faulty);
      if (silent) continue;
      if (!reply.send) return;
      const Fault f = faulty ? c_.plan.fault : Fault::None;
      switch (f) {
        case Fault::NeverAnswer:
          // Keep reading, so later bytes are recorded and a close is seen.
          silent = true;
          continue;
        case Fault::CloseBeforeAnswer:
          return closeAndDrain();
        case Fault::CloseMidReply: {
          auto bytes = wire::encodeHeader(reply.header);
          size_t n = bytes.size() + reply.body.size() / 2;
          if (reply.body.empty()) n = bytes.size() / 2;
          bytes.insert(bytes.end(), reply.body.begin(), reply.body.end());
          bytes.resize(n);
          if (!sendAll(bytes)) return;
          return closeAndDrain();
        }
        case Fault::Trickle:
          if (!trickle(encode(reply))) return;
          break;
        case Fault::MalformedHeader: {
          wire::Header bad = reply.header;
          bad.magic = 0x42414421;  // "BAD!"
          bad.name.assign(h.name.size() + 2, 'X');
          bad.dataLength = 0;
          if (!sendAll(wire::encodeHeader(bad))) return;
          return closeAndDrain();
        }
        case Fault::HugeDataLength: {
          wire::Header huge = reply.header;
          huge.dataLength = kHugeDataLength;
          auto bytes = wire::encodeHeader(huge);
          std::vector<uint8_t> few(reply.body.begin(), reply.body.begin() + static_cast<std::ptrdiff_t>(std::min(reply.body.size(), kHugeDataSent)));
          few.resize(kHugeDataSent, 0);
          bytes.insert(bytes.end(), few.begin(), few.end());
          if (!sendAll(bytes)) return;
          return closeAndDrain();
        }
        case Fault::ExceptionFlow: {
          Reply ex = exception(h, ExceptionReason::Injected);
          ex.closeAfter = reply.closeAfter;
          reply = std::move(ex);
          if (!sendAll(encode(reply))) return;
          break;
        }
        default:
          if (!sendAll(encode(reply))) return;
          break;
      }
      if (reply.closeAfter) return closeAndDrain();
    }
  }

 private:
  static std::vector<uint8_t> encode(const Reply& r) {
    auto bytes = wire::encodeHeader(r.header);
    bytes.insert(bytes.end(), r.body.begin(), r.body.end());
    return bytes;
  }

  Reply replyTo(const wire::Header& req, int32_t flowType, std::vector<uint8_t> body) {
    Reply r;
    r.header.flowType = flowType;
    // The client reads the reply header in a block the size of its own
    // request's header, so the reply carries a name of the same length.
    r.header.name = req.name;
    r.header.dataLength = static_cast<int32_t>(body.size());
    r.body = std::move(body);
    return r;
  }

  Reply exception(const wire::Header& req, ExceptionReason reason) {
    return replyTo(req, wire::kFlowException, wire::encodeExceptionBody(req.flowType, static_cast<int32_t>(reason)));
  }

  std::string faultNote(bool faulty) const {
    return faulty ? std::string(" fault=") + faultName(c_.plan.fault) : std::string();
  }

  Reply answer(const wire::Header& h, const std::vector<uint8_t>& body, bool faulty) {
    const Fault f = faulty ? c_.plan.fault : Fault::None;
    const auto note = faultNote(faulty);
    switch (h.flowType) {
      case wire::kFlowHandshake:
        g_.log("conn %zu: HANDSHAKE dataLength=%d%s", c_.index, h.dataLength, note.c_str());
        return replyTo(h, wire::kFlowHandshake, {std::begin(kHandshakeReplyBody), std::end(kHandshakeReplyBody)});
      case wire::kFlowClose: {
        g_.log("conn %zu: CLOSE dataLength=%d%s", c_.index, h.dataLength, note.c_str());
        Reply r = replyTo(h, wire::kFlowClose, {});
        r.closeAfter = true;
        return r;
      }
      case wire::kFlowEci:
        break;
      default:
        g_.log("conn %zu: unknown flowType=%d dataLength=%d%s", c_.index, h.flowType, h.dataLength, note.c_str());
        return exception(h, ExceptionReason::UnknownFlow);
    }

    wire::EciRequest req;
    std::string why;
    const auto parsed = wire::parseEciRequest(body, req, &why);
    if (parsed == wire::ParseResult::Malformed) {
      g_.log("conn %zu: ECI malformed request (%s) dataLength=%d%s", c_.index, why.c_str(), h.dataLength, note.c_str());
      return exception(h, ExceptionReason::MalformedRequest);
    }
    if (wire::isProgramCall(req.callType)) {
      g_.log("conn %zu: ECI callType=%d system=%s program=%s extend=%d luw=%d commarea=%d send=%d recv=%d timeout=%d%s%s",
             c_.index, req.callType, printable(wire::trimField(req.systemName)).c_str(),
             printable(wire::trimField(req.programName)).c_str(), req.extendMode, req.luwToken, req.commareaLength,
             req.requestDataLength, req.replyDataLength, req.timeout, req.hasChannel ? " channel" : "", note.c_str());
      // Channels are a later feature: a request that carries one is refused
      // with an exception flow. Its body was read whole by dataLength, so the
      // connection stays in step.
      if (parsed == wire::ParseResult::Channel) return exception(h, ExceptionReason::ChannelUnsupported);
      auto result = session_.call(req, [this](std::chrono::milliseconds d) { return wait(d); });
      if (!result) {
        Reply r;
        r.send = false;
        return r;
      }
      if (f == Fault::OversizeCommarea && result->sendData) {
        // The reply claims, and carries, more than the caller's COMMAREA holds.
        const size_t n = static_cast<size_t>(req.commareaLength) + c_.plan.extraBytes;
        result->data.resize(n, 0xEE);
        result->commareaLength = static_cast<int32_t>(n);
        result->replyDataLength = static_cast<int32_t>(n);
      }
      if (f == Fault::ChannelReturnOnCommarea) result->channelReturn = channelReturnFlow();
      return replyTo(h, h.flowType, wire::encodeProgramReply(*result));
    }
    if (req.callType == wire::kCallServerList) {
      g_.log("conn %zu: ECI callType=9 systemCount=%d timeout=%d%s", c_.index, req.systemCount, req.timeout, note.c_str());
      auto list = eci::listServers(g_.config, req.systemCount);
      if (f == Fault::OversizeServerList) list = oversizeList(req.systemCount);
      return replyTo(h, h.flowType, wire::encodeServerListReply(list));
    }
    g_.log("conn %zu: ECI callType=%d timeout=%d%s", c_.index, req.callType, req.timeout, note.c_str());
    return replyTo(h, h.flowType, wire::encodeCallTypeOnly(req.callType));
  }

  // More entries than the caller can take: enough to pass its capacity by at
  // least extraBytes bytes, and at least one entry.
  wire::ServerListReply oversizeList(int32_t capacity) const {
    const size_t cap = capacity < 0 ? 0 : static_cast<size_t>(capacity);
    const size_t extra = std::max<size_t>(1, (c_.plan.extraBytes + wire::kEntrySize - 1) / wire::kEntrySize);
    wire::ServerListReply list;
    for (size_t i = 0; i < cap + extra; ++i) {
      if (i < g_.config.servers.size()) {
        wire::appendServerEntry(list.entries, g_.config.servers[i].name, g_.config.servers[i].description);
      } else {
        char name[16];
        std::snprintf(name, sizeof name, "EXTRA%03zu", i % 1000);
        wire::appendServerEntry(list.entries, name, "Entry beyond the caller's capacity");
      }
    }
    list.systemCount = static_cast<int32_t>(cap + extra);
    return list;
  }

  // A return flow with one ADDED character container "RESULT" holding "OK".
  static std::vector<uint8_t> channelReturnFlow() {
    std::vector<uint8_t> out;
    wire::Writer w(out);
    auto name16 = [&w](const char* s) {
      const size_t n = std::strlen(s);
      w.bytes({reinterpret_cast<const uint8_t*>(s), n});
      w.fill(16 - n, 0);
    };
    name16("QVARETURN");
    w.i32(819);
    w.i32(1);
    name16("RESULT");
    w.u8(1);  // ADDED
    w.u8(0);
    w.u8(0);
    w.u8(2);  // character data
    w.i32(819);
    w.i32(2);
    w.text("OK");
    return out;
  }

  // False when a stop or a drop cut the wait short.
  bool wait(std::chrono::microseconds d) {
    std::unique_lock lk(g_.mutex);
    return !g_.cv.wait_for(lk, d, [this] { return g_.stopping || c_.dropped; });
  }

  void record(const uint8_t* p, size_t n) {
    std::lock_guard lk(g_.mutex);
    if (g_.options.recordReceived) c_.received.insert(c_.received.end(), p, p + n);
    c_.receivedCount += n;
    g_.cv.notify_all();
  }

  // False at end of stream; then peerClosed tells whether the peer ended it.
  bool readExact(uint8_t* p, size_t n) {
    while (n > 0) {
      const ssize_t r = ::recv(fd_, p, n, 0);
      if (r > 0) {
        record(p, static_cast<size_t>(r));
        p += r;
        n -= static_cast<size_t>(r);
        continue;
      }
      if (r < 0 && errno == EINTR) continue;
      endOfStream();
      return false;
    }
    return true;
  }

  void endOfStream() {
    std::lock_guard lk(g_.mutex);
    // Our own shutdown also ends the stream; only the peer's counts as a close.
    if (!c_.dropped && !g_.stopping) c_.peerClosed = true;
    g_.cv.notify_all();
  }

  // The header first, 29 + n bytes, then dataLength body bytes. A header that
  // cannot be ours means the stream is out of step: the connection is closed.
  bool readMessage(wire::Header& h, std::vector<uint8_t>& body) {
    std::vector<uint8_t> head(24);
    if (!readExact(head.data(), head.size())) return false;
    const uint32_t n = wire::peekNameLength(head);
    if (n > kMaxNameLength) {
      g_.log("conn %zu: name length %u out of step; closing", c_.index, n);
      closeAndDrain();
      return false;
    }
    head.resize(wire::kHeaderFixed + n);
    if (!readExact(head.data() + 24, head.size() - 24)) return false;
    wire::decodeHeader(head, h);
    if (h.magic != wire::kMagic || h.dataLength < 0 || h.dataLength > kMaxBodyLength) {
      g_.log("conn %zu: bad header (magic=0x%08X dataLength=%d); closing", c_.index, h.magic, h.dataLength);
      closeAndDrain();
      return false;
    }
    body.resize(static_cast<size_t>(h.dataLength));
    return readExact(body.data(), body.size());
  }

  bool sendAll(const std::vector<uint8_t>& bytes) { return sendSome(bytes.data(), bytes.size()); }

  bool sendSome(const uint8_t* p, size_t n) {
    while (n > 0) {
      const ssize_t r = ::send(fd_, p, n, MSG_NOSIGNAL);
      if (r < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      p += r;
      n -= static_cast<size_t>(r);
    }
    return true;
  }

  bool trickle(const std::vector<uint8_t>& bytes) {
    size_t pos = 0;
    size_t step = 0;
    while (pos < bytes.size()) {
      const size_t n = std::min<size_t>(1 + step++ % 3, bytes.size() - pos);
      if (!sendSome(bytes.data() + pos, n)) return false;
      pos += n;
      if (pos < bytes.size() && !wait(kTricklePause)) return false;
    }
    return true;
  }

  // Half-close, then read to the end: the peer sees EOF after every byte sent,
  // no reset can overtake them, and its own close is still seen and recorded.
  void closeAndDrain() {
    ::shutdown(fd_, SHUT_WR);
    uint8_t buf[4096];
    for (;;) {
      const ssize_t r = ::recv(fd_, buf, sizeof buf, 0);
      if (r > 0) {
        record(buf, static_cast<size_t>(r));
      } else if (r == 0 || errno != EINTR) {
        endOfStream();
        return;
      }
    }
  }

  Gateway::Impl& g_;
  Connection& c_;
  const int fd_;
  eci::Session session_;
};

}  // namespace

void Gateway::Impl::serve(const std::shared_ptr<Connection>& c) {
  int fd;
  {
    std::lock_guard lk(mutex);
    fd = c->fd;
  }
  try {
    Server(*this, *c, fd).run();
  } catch (...) {
    log("conn %zu: internal error; closing", c->index);
  }
  std::lock_guard lk(mutex);
  closeFd(c->fd);
  c->done = true;
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
