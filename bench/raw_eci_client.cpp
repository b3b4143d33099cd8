#include "raw_eci_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace bench {

using qvaraw::get32;
using qvaraw::kCommareaOffset;

RawClient::~RawClient() { close(); }

void RawClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool RawClient::open(uint16_t port, std::string *error) {
  close();
  fd_ = qvaraw::openSession("127.0.0.1", port, error);
  return fd_ >= 0;
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

int32_t RawClient::readHeader(uint32_t nameLength) {
  // The reply's name is as long as the request's; the header is checked
  // before its body length is believed.
  uint8_t header[29 + 8];
  const size_t size = 29 + nameLength;
  if (nameLength > 8 || !qvaraw::recvAll(fd_, header, size)) return -1;
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
  if (!qvaraw::recvAll(fd_, body_.data(), body_.size())) return kTransportFailure;

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
