#include "raw_channel_client.h"
#include "bench_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace bench {

namespace {

constexpr uint32_t kHeaderMagic = 0x47617465;  // "Gate"
constexpr size_t kNameSize = 16;

void put32(Bytes &out, uint32_t v) {
  out.push_back(static_cast<uint8_t>(v >> 24));
  out.push_back(static_cast<uint8_t>(v >> 16));
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

void putBytes(Bytes &out, const void *data, size_t length) {
  const auto *p = static_cast<const uint8_t *>(data);
  out.insert(out.end(), p, p + length);
}

// A channel or container name: its characters, then zero bytes up to 16.
void putName(Bytes &out, const std::string &name) {
  const size_t n = std::min(name.size(), kNameSize);
  putBytes(out, name.data(), n);
  out.insert(out.end(), kNameSize - n, 0);
}

uint32_t get32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// The reply header's size for a name of nameLength characters, and the
// offset of its body length.
constexpr size_t headerSize(size_t nameLength) { return 29 + nameLength; }
constexpr size_t bodyLengthAt(size_t nameLength) { return 25 + nameLength; }

// A forward-only reader over a reply for the checks; every read past the
// end makes it fail.
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
  uint8_t u8() {
    const uint8_t *p = take(1);
    return p != nullptr ? *p : 0;
  }
  std::string name() {
    const uint8_t *p = take(kNameSize);
    if (p == nullptr) return {};
    return std::string(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), kNameSize));
  }

 private:
  const uint8_t *p_;
  const uint8_t *end_;
  bool ok_ = true;
};

}  // namespace

Bytes buildChannelRequest(const ChannelCall &c) {
  uint64_t channelBlock = 24;
  for (const ContainerSpec &wanted : c.containers) channelBlock += 28 + uint64_t{wanted.length};
  // 95 fixed body bytes of a program call without a COMMAREA, the channel
  // block behind them.
  const auto bodyLength = static_cast<uint32_t>(95 + channelBlock);
  Bytes out;
  out.reserve(32 + size_t{bodyLength});
  // Header: "Gate", version, flow type 1, reserved, qualifier, "ECI", flag, body length.
  put32(out, kHeaderMagic);
  put32(out, 0x10800000);
  put32(out, 1);
  put32(out, 0);
  put32(out, 0);
  put32(out, 3);
  putBytes(out, "ECI", 3);
  out.push_back(0);
  put32(out, bodyLength);
  // Body.
  put32(out, 1);  // call type: program call
  put32(out, 0);  // extend mode
  put32(out, 0);  // LUW token
  put32(out, 0);  // spare word
  out.push_back(0);  // spare byte
  put32(out, 8);  // server name length
  putBytes(out, c.call.systemName, 8);
  putBytes(out, c.call.userId, 16);
  putBytes(out, c.call.password, 16);
  putBytes(out, c.call.programName, 8);
  putBytes(out, c.call.transId, 4);
  put32(out, 0);  // extra data length
  put32(out, 0);  // COMMAREA length: a channel call carries none
  out.push_back(0x00);  // no send limit
  out.push_back(0x00);  // no receive limit
  out.push_back(0xFF);  // a channel follows
  putName(out, c.channelName);
  put32(out, static_cast<uint32_t>(c.channelCcsid));
  put32(out, static_cast<uint32_t>(c.containers.size()));
  for (const ContainerSpec &wanted : c.containers) {
    putName(out, wanted.name);
    out.push_back(kAdded);  // every container of a request travels as ADDED
    out.push_back(0);
    out.push_back(0);
    out.push_back(wanted.type);
    put32(out, static_cast<uint32_t>(wanted.ccsid));
    put32(out, wanted.length);
    putBytes(out, wanted.data, wanted.length);
  }
  out.push_back(0x00);  // time limit, 16 bits
  out.push_back(0x00);
  out.push_back(0x00);  // trailer flag
  put32(out, 0xFFFFFFFF);  // no extension strings
  put32(out, 0);  // trailer word
  return out;
}

bool parseChannelReply(const uint8_t *message, size_t size, ChannelReply *reply, std::string *error) {
  auto fail = [error](std::string why) {
    *error = std::move(why);
    return false;
  };
  Cursor in(message, size);
  if (in.u32() != kHeaderMagic) return fail("bad magic");
  in.take(16);  // version, flow type, reserved, qualifier
  if (in.u32() != 3) return fail("name length is not 3");
  in.take(4);  // "ECI" and the header flag
  if (in.u32() != size - headerSize(3)) return fail("body length differs from the message");
  if (in.u32() != 1) return fail("call type is not 1");
  in.take(8);  // LUW token, spare word
  reply->replyRc = static_cast<int32_t>(in.u32());
  in.take(4);  // abend code
  uint32_t dataLength = in.u32();
  if (in.u8() != 0) {
    in.take(1);
    dataLength = in.u32();
  }
  in.take(dataLength);
  if (in.u8() == 0) return fail("no channel in the reply");
  reply->channelName = in.name();
  reply->channelCcsid = static_cast<int32_t>(in.u32());
  const uint32_t entries = in.u32();
  reply->entries.clear();
  for (uint32_t i = 0; i < entries && in.ok(); ++i) {
    ReturnEntry e;
    e.name = in.name();
    e.state = in.u8();
    in.take(2);
    e.type = in.u8();
    e.ccsid = static_cast<int32_t>(in.u32());
    e.length = in.u32();
    if (e.state == kAdded || e.state == kModified) e.data = in.take(e.length);
    reply->entries.push_back(e);
  }
  if (!in.ok()) return fail("reply cut short");
  if (in.left() != 0) return fail(std::to_string(in.left()) + " bytes past the return flow");
  return true;
}

// ---- The client ----------------------------------------------------------------

RawChannelClient::~RawChannelClient() { close(); }

void RawChannelClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void RawChannelClient::grow(size_t bytes, size_t keep) {
  if (bytes <= capacity_) return;
  auto bigger = std::make_unique<uint8_t[]>(bytes);  // value-initialised: every page touched
  if (keep > 0) std::memcpy(bigger.get(), reply_.get(), keep);
  reply_ = std::move(bigger);
  capacity_ = bytes;
}

void RawChannelClient::reserve(size_t bytes) { grow(bytes, 0); }

bool RawChannelClient::open(uint16_t port, std::string *error) {
  close();
  grow(4096, 0);
  fd_ = connectLoopback(port, error);
  if (fd_ < 0) return false;
  if (!sendAll(kHandshakeRequest, sizeof kHandshakeRequest)) {
    *error = "handshake: send failed";
    close();
    return false;
  }
  // The handshake reply, read the way every reply is read, its name "BASE".
  size_t got = 0;
  size_t want = headerSize(4);
  bool sized = false;
  while (got < want) {
    const ssize_t n = ::recv(fd_, reply_.get() + got, want - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) {
      *error = "handshake: reply cut short";
      close();
      return false;
    }
    got += static_cast<size_t>(n);
    if (!sized && got >= headerSize(4)) {
      sized = true;
      want = headerSize(4) + get32(reply_.get() + bodyLengthAt(4));
      grow(want, got);
    }
  }
  return true;
}

bool RawChannelClient::sendAll(const uint8_t *data, size_t length) {
  while (length > 0) {
    const ssize_t n = ::send(fd_, data, length, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

int64_t RawChannelClient::call(const Bytes &request) { return exchange(request, nullptr, 0); }

int64_t RawChannelClient::callInto(const Bytes &request, uint8_t *buffer, size_t capacity) {
  return exchange(request, buffer, capacity);
}

int64_t RawChannelClient::exchange(const Bytes &request, uint8_t *buffer, size_t capacity) {
  if (!sendAll(request.data(), request.size())) return kTransportFailure;
  const bool own = buffer == nullptr;
  if (own) {
    buffer = reply_.get();
    capacity = capacity_;
  }
  // Whatever has arrived, up to the buffer's end until the header has told
  // the message's length, then up to that length.
  size_t got = 0;
  size_t want = capacity;
  bool sized = false;
  while (!sized || got < want) {
    const ssize_t n = ::recv(fd_, buffer + got, want - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return kTransportFailure;
    got += static_cast<size_t>(n);
    if (!sized && got >= headerSize(3)) {
      sized = true;
      want = headerSize(3) + get32(buffer + bodyLengthAt(3));
      if (got > want) return kMalformedReply;  // more than one message
      if (want > capacity) {
        if (!own) return kMalformedReply;
        grow(want, got);  // only before the buffer is reserved for the largest reply
        buffer = reply_.get();
        capacity = capacity_;
      }
    }
  }
  return static_cast<int64_t>(got);
}

}  // namespace bench
