#include "raw_eci_client.h"
#include "bench_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace bench {

const uint8_t kHandshakeRequest[55] = {
    0x47, 0x61, 0x74, 0x65,  // "Gate"
    0x10, 0x80, 0x00, 0x00,  // version word
    0x00, 0x00, 0x00, 0x05,  // flow type: handshake
    0x00, 0x00, 0x00, 0x00,  // reserved
    0x00, 0x00, 0x00, 0x00,  // qualifier
    0x00, 0x00, 0x00, 0x04,  // name length
    0x42, 0x41, 0x53, 0x45,  // "BASE"
    0x00,                    // header flag
    0x00, 0x00, 0x00, 0x16,  // body length 22
    0x00, 0x02, 0x65, 0x6E,  // "en"
    0x00, 0x02, 0x47, 0x42,  // "GB"
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
};

namespace {

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

uint32_t get32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

}  // namespace

Bytes buildProgramRequest(const ProgramCall &call, const Bytes &commarea) {
  const auto length = static_cast<uint32_t>(commarea.size());
  Bytes out;
  out.reserve(32 + 95 + length);
  // Header: "Gate", version, flow type 1, reserved, qualifier, "ECI", flag, body length.
  put32(out, 0x47617465);
  put32(out, 0x10800000);
  put32(out, 1);
  put32(out, 0);
  put32(out, 0);
  put32(out, 3);
  putBytes(out, "ECI", 3);
  out.push_back(0);
  put32(out, 95 + length);
  // Body.
  put32(out, 1);  // call type: program call
  put32(out, 0);  // extend mode
  put32(out, 0);  // LUW token
  put32(out, 0);  // spare word
  out.push_back(0);  // spare byte
  put32(out, 8);  // server name length
  putBytes(out, call.systemName, 8);
  putBytes(out, call.userId, 16);
  putBytes(out, call.password, 16);
  putBytes(out, call.programName, 8);
  putBytes(out, call.transId, 4);
  put32(out, 0);  // extra data length
  put32(out, length);  // COMMAREA length
  out.push_back(0x00);  // no send limit
  out.push_back(0x00);  // no receive limit
  putBytes(out, commarea.data(), length);
  out.push_back(0x00);  // no channel
  out.push_back(0x00);  // time limit, 16 bits
  out.push_back(0x00);
  out.push_back(0x00);  // trailer flag
  put32(out, 0xFFFFFFFF);  // no extension strings
  put32(out, 0);  // trailer word
  return out;
}

RawClient::~RawClient() { close(); }

void RawClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool RawClient::open(uint16_t port, std::string *error) {
  close();
  fd_ = connectLoopback(port, error);
  if (fd_ < 0) return false;
  if (!sendAll(kHandshakeRequest, sizeof kHandshakeRequest)) {
    *error = "handshake: send failed";
    close();
    return false;
  }
  int32_t bodyLength = readHeader(4);
  if (bodyLength < 0) {
    *error = "handshake: bad reply header";
    close();
    return false;
  }
  body_.resize(static_cast<size_t>(bodyLength));
  if (!recvExact(body_.data(), body_.size())) {
    *error = "handshake: reply body cut short";
    close();
    return false;
  }
  return true;
}

bool RawClient::sendAll(const uint8_t *data, size_t length) {
  while (length > 0) {
    ssize_t n = ::send(fd_, data, length, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

bool RawClient::sendAll(iovec *parts, int count) {
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<size_t>(count);
  while (message.msg_iovlen > 0) {
    ssize_t n = ::sendmsg(fd_, &message, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return false;
    // Step past what went out, should the kernel have taken only part.
    auto left = static_cast<size_t>(n);
    while (message.msg_iovlen > 0 && left >= message.msg_iov->iov_len) {
      left -= message.msg_iov->iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
      message.msg_iov->iov_base = static_cast<uint8_t *>(message.msg_iov->iov_base) + left;
      message.msg_iov->iov_len -= left;
    }
  }
  return true;
}

bool RawClient::recvExact(uint8_t *data, size_t length) {
  while (length > 0) {
    ssize_t n = ::recv(fd_, data, length, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

int32_t RawClient::readHeader(uint32_t nameLength) {
  // The reply's name is as long as the request's; the header is checked
  // before its body length is believed.
  uint8_t header[29 + 8];
  const size_t size = 29 + nameLength;
  if (nameLength > 8 || !recvExact(header, size)) return -1;
  if (get32(header) != 0x47617465 || get32(header + 20) != nameLength) return -1;
  return static_cast<int32_t>(get32(header + 25 + nameLength));
}

int32_t RawClient::call(const Bytes &request, uint8_t *commarea, size_t length) {
  if (request.size() < kCommareaOffset + length) return kMalformedReply;
  auto *frame = const_cast<uint8_t *>(request.data());  // sendmsg only reads
  iovec parts[3] = {{frame, kCommareaOffset},
                    {commarea, length},
                    {frame + kCommareaOffset + length, request.size() - kCommareaOffset - length}};
  if (!sendAll(parts, 3)) return kTransportFailure;
  const int32_t bodyLength = readHeader(3);
  if (bodyLength < 0) return kMalformedReply;
  body_.resize(static_cast<size_t>(bodyLength));
  if (!recvExact(body_.data(), body_.size())) return kTransportFailure;

  // call type, LUW token, spare word, return code, abend code, COMMAREA
  // length, length-present byte
  const uint8_t *p = body_.data();
  const uint8_t *end = p + body_.size();
  if (end - p < 25 || get32(p) != 1) return kMalformedReply;
  const auto replyRc = static_cast<int32_t>(get32(p + 12));
  auto dataLength = static_cast<int32_t>(get32(p + 20));
  const bool lengthPresent = p[24] != 0;
  p += 25;
  if (lengthPresent) {
    if (end - p < 5) return kMalformedReply;
    dataLength = static_cast<int32_t>(get32(p + 1));
    p += 5;
  }
  if (dataLength < 0 || end - p < dataLength + 1) return kMalformedReply;
  std::memcpy(commarea, p, std::min(length, static_cast<size_t>(dataLength)));
  p += dataLength;
  if (*p != 0) return kMalformedReply;  // a channel answers no COMMAREA call
  return replyRc;
}

}  // namespace bench
