#include "qvaemu/raw_wire.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qvaraw {

namespace {

void append(Bytes &out, const Bytes &more) { out.insert(out.end(), more.begin(), more.end()); }
void appendText(Bytes &out, std::string_view text) { out.insert(out.end(), text.begin(), text.end()); }
void put16(Bytes &out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}
// A flag byte, then the value when it is present.
void putOptional(Bytes &out, int32_t v) {
  out.push_back(v > 0 ? 0xFF : 0x00);
  if (v > 0) put32(out, static_cast<uint32_t>(v));
}
// The end of every request: no extension strings, a zero trailer word.
void putTrailer(Bytes &out) {
  out.push_back(0);
  put32(out, 0xFFFFFFFF);
  put32(out, 0);
}

// A forward-only reader; any read past the end makes it fail for good.
class Cursor {
 public:
  Cursor(const uint8_t *p, size_t size) : p_(p), end_(p + size) {}
  bool ok() const { return ok_; }
  size_t left() const { return static_cast<size_t>(end_ - p_); }
  const uint8_t *take(size_t n) {
    if (!ok_ || left() < n) {
      ok_ = false;
      return nullptr;
    }
    const uint8_t *at = p_;
    p_ += n;
    return at;
  }
  uint32_t u32() {
    const uint8_t *p = take(4);
    return p != nullptr ? get32(p) : 0;
  }
  int32_t i32() { return static_cast<int32_t>(u32()); }
  uint8_t u8() {
    const uint8_t *p = take(1);
    return p != nullptr ? *p : 0;
  }
  std::string text(size_t n, bool toNul) {
    const auto *p = reinterpret_cast<const char *>(take(n));
    return p == nullptr ? std::string{} : std::string(p, toNul ? strnlen(p, n) : n);
  }

 private:
  const uint8_t *p_;
  const uint8_t *end_;
  bool ok_ = true;
};

}  // namespace

void put32(Bytes &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

uint32_t get32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

Bytes header(uint32_t flowType, std::string_view name, uint32_t bodyLength, uint32_t qualifier) {
  Bytes out;
  appendText(out, "Gate");
  put32(out, 0x10800000);
  put32(out, flowType);
  put32(out, 0);
  put32(out, qualifier);
  put32(out, static_cast<uint32_t>(name.size()));
  appendText(out, name);
  out.push_back(0);
  put32(out, bodyLength);
  return out;
}

Bytes message(uint32_t flowType, std::string_view name, const Bytes &body) {
  Bytes out = header(flowType, name, static_cast<uint32_t>(body.size()));
  append(out, body);
  return out;
}

Bytes handshakeRequest() {
  Bytes body;
  for (std::string_view code : {"en", "GB"}) {
    put16(body, 2);
    appendText(body, code);
  }
  body.resize(22, 0);
  return message(5, "BASE", body);
}

Bytes field(std::string_view text, size_t width, uint8_t pad) {
  Bytes b(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(width, text.size())));
  b.resize(width, pad);
  return b;
}

Bytes name16(std::string_view name) { return field(name, 16, 0); }

Bytes request(const Call &c) {
  const auto length =
      c.commareaLength < 0 ? static_cast<uint32_t>(c.commarea.size()) : static_cast<uint32_t>(c.commareaLength);
  Bytes b;
  b.reserve(95 + c.commarea.size() + c.channelBlock.size());
  put32(b, static_cast<uint32_t>(c.callType));
  put32(b, static_cast<uint32_t>(c.extendMode));
  put32(b, static_cast<uint32_t>(c.luwToken));
  put32(b, 0);  // spare word and byte
  b.push_back(0);
  put32(b, 8);  // server name length
  append(b, field(c.system, 8));
  append(b, field(c.user, 16));
  append(b, field(c.password, 16));
  append(b, field(c.program, 8));
  append(b, field(c.transId, 4));
  put32(b, 0);  // extra data length
  put32(b, length);
  putOptional(b, c.send);
  putOptional(b, c.recv);
  if (c.withData()) append(b, c.commarea);
  b.push_back(c.channelBlock.empty() ? 0x00 : 0xFF);
  append(b, c.channelBlock);
  put16(b, c.timeout);
  putTrailer(b);
  return message(1, "ECI", b);
}

Bytes listRequest(int32_t capacity) {
  Bytes b;
  put32(b, 9);  // call type: list the systems
  put32(b, static_cast<uint32_t>(capacity));
  put16(b, 0);  // time-out
  putTrailer(b);
  return message(1, "ECI", b);
}

Bytes entry(std::string_view name, uint8_t state, uint8_t type, int32_t ccsid, uint32_t length, const Bytes &data) {
  Bytes out = name16(name);
  for (uint8_t b : {state, uint8_t{0}, uint8_t{0}, type}) out.push_back(b);
  put32(out, static_cast<uint32_t>(ccsid));
  put32(out, length);
  append(out, data);
  return out;
}

Bytes entry(std::string_view name, uint8_t state, uint8_t type, int32_t ccsid, const Bytes &data) {
  return entry(name, state, type, ccsid, static_cast<uint32_t>(data.size()), data);
}

Bytes channel(std::string_view name, int32_t ccsid, const std::vector<Bytes> &entries, std::optional<int32_t> count) {
  Bytes out = name16(name);
  put32(out, static_cast<uint32_t>(ccsid));
  put32(out, static_cast<uint32_t>(count.value_or(static_cast<int32_t>(entries.size()))));
  for (const auto &e : entries) append(out, e);
  return out;
}

bool parseProgramReply(const uint8_t *body, size_t size, ProgramReply &r, bool withData) {
  Cursor in(body, size);
  r.callType = in.i32();
  r.luwToken = in.i32();
  in.take(4);  // spare word
  r.replyRc = in.i32();
  r.abendCode = in.text(4, false);
  r.commareaLength = r.replyDataLength = in.i32();
  if (in.u8() != 0) {
    in.take(1);
    r.replyDataLength = in.i32();
  }
  if (withData) {
    if (r.replyDataLength < 0) return false;
    const uint8_t *data = in.take(static_cast<size_t>(r.replyDataLength));
    if (data != nullptr) r.data.assign(data, data + r.replyDataLength);
  }
  r.channelPresent = in.u8();
  if (!in.ok()) return false;
  const size_t rest = in.left();
  const uint8_t *flow = in.take(rest);
  r.flow.assign(flow, flow + rest);
  return true;
}

bool parseFlow(const Bytes &flow, Flow &out) {
  Cursor in(flow.data(), flow.size());
  out.channelName = in.text(16, true);
  out.ccsid = in.i32();
  const uint32_t count = in.u32();
  out.entries.clear();
  for (uint32_t i = 0; i < count && in.ok(); ++i) {
    FlowEntry e;
    e.name = in.text(16, true);
    e.state = in.u8();
    in.take(2);
    e.type = in.u8();
    e.ccsid = in.i32();
    e.length = in.u32();
    if (e.state == kAdded || e.state == kModified) e.data = in.take(e.length);
    out.entries.push_back(std::move(e));
  }
  return in.ok() && in.left() == 0;
}

int connectTo(const char *address, uint16_t port, std::string *error) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *ai = nullptr;
  if (int rc = getaddrinfo(address, std::to_string(port).c_str(), &hints, &ai); rc != 0) {
    *error = std::string("getaddrinfo: ") + gai_strerror(rc);
    return -1;
  }
  int fd = ::socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (fd >= 0) {
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
      const int connectErrno = errno;
      ::close(fd);
      fd = -1;
      errno = connectErrno;
    }
  }
  if (fd < 0) *error = std::string("connect: ") + std::strerror(errno);
  freeaddrinfo(ai);
  return fd;
}

int openSession(const char *address, uint16_t port, std::string *error) {
  const int fd = connectTo(address, port, error);
  if (fd < 0) return -1;
  const Bytes hello = handshakeRequest();
  uint8_t head[headerSize(4)];
  Bytes body;
  if (!sendAll(fd, hello.data(), hello.size())) {
    *error = "handshake: send failed";
  } else if (!recvAll(fd, head, sizeof head) || get32(head) != 0x47617465 || get32(head + 8) != 5) {
    *error = "handshake: bad reply header";
  } else if (get32(head + bodyLengthAt(4)) > 4096) {
    *error = "handshake: reply body too long";
  } else {
    body.resize(get32(head + bodyLengthAt(4)));
    if (recvAll(fd, body.data(), body.size())) return fd;
    *error = "handshake: reply body cut short";
  }
  ::close(fd);
  return -1;
}

bool sendAll(int fd, const uint8_t *data, size_t length) {
  while (length > 0) {
    const ssize_t n = ::send(fd, data, length, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

bool recvAll(int fd, uint8_t *data, size_t length) {
  while (length > 0) {
    const ssize_t n = ::recv(fd, data, length, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace qvaraw
