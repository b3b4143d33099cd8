#include "link.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace qvaemu {

namespace {

constexpr auto kTricklePause = std::chrono::microseconds(300);

}  // namespace

void Link::record(const uint8_t* p, size_t n) {
  std::lock_guard lk(g_.mutex);
  if (g_.options.recordReceived) c_.received.insert(c_.received.end(), p, p + n);
  c_.receivedCount += n;
  g_.cv.notify_all();
}

// One recv asks for everything still missing, so a large body arrives in as
// few calls as the kernel allows. False at end of stream; then peerClosed
// tells whether the peer ended it.
bool Link::readExact(uint8_t* p, size_t n) {
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

void Link::endOfStream() {
  std::lock_guard lk(g_.mutex);
  // Our own shutdown also ends the stream; only the peer's counts as a close.
  if (!c_.dropped && !g_.stopping) c_.peerClosed = true;
  g_.cv.notify_all();
}

bool Link::readMessage(wire::Header& h, std::span<const uint8_t>& body) {
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
  const auto size = static_cast<size_t>(h.dataLength);
  if (size > capacity_) {
    buffer_.reset(new uint8_t[size]);
    capacity_ = size;
  }
  if (!readExact(buffer_.get(), size)) return false;
  body = {buffer_.get(), size};
  return true;
}

bool Link::send(std::span<const uint8_t> bytes) {
  const uint8_t* p = bytes.data();
  size_t n = bytes.size();
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

bool Link::send(const wire::Header& h, const wire::Body& body) {
  const std::vector<uint8_t> head = wire::encodeHeader(h);
  std::vector<iovec> iov;
  iov.push_back({const_cast<uint8_t*>(head.data()), head.size()});
  for (const auto& piece : body.pieces())
    if (!piece.empty()) iov.push_back({const_cast<uint8_t*>(piece.data()), piece.size()});
  size_t first = 0;
  while (first < iov.size()) {
    msghdr msg{};
    msg.msg_iov = iov.data() + first;
    msg.msg_iovlen = std::min<size_t>(iov.size() - first, IOV_MAX);
    const ssize_t r = ::sendmsg(fd_, &msg, MSG_NOSIGNAL);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    // Step past what went out: whole pieces, then into a partly sent one.
    auto sent = static_cast<size_t>(r);
    while (first < iov.size() && sent >= iov[first].iov_len) sent -= iov[first++].iov_len;
    if (sent > 0) {
      iov[first].iov_base = static_cast<uint8_t*>(iov[first].iov_base) + sent;
      iov[first].iov_len -= sent;
    }
  }
  return true;
}

bool Link::trickle(std::span<const uint8_t> bytes) {
  size_t pos = 0;
  size_t step = 0;
  while (pos < bytes.size()) {
    const size_t n = std::min<size_t>(1 + step++ % 3, bytes.size() - pos);
    if (!send(bytes.subspan(pos, n))) return false;
    pos += n;
    if (pos < bytes.size() && !wait(kTricklePause)) return false;
  }
  return true;
}

void Link::closeAndDrain() {
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

bool Link::wait(std::chrono::microseconds d) {
  std::unique_lock lk(g_.mutex);
  return !g_.cv.wait_for(lk, d, [this] { return g_.stopping || c_.dropped; });
}

}  // namespace qvaemu
