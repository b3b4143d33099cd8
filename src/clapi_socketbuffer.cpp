// Socket buffers. Every byte between the library and the Gateway passes
// through one of these; integers travel big-endian at any alignment.

#include "clapi_socketbuffer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <span>

#include "clapi_diag.h"
#include "qvaclient/qva_codes.h"

namespace {

// A send that takes part of a block is continued, and EINTR is retried.
// Returns the bytes sent, or -1 with errno set. `more` is MSG_MORE when
// further bytes of the same message follow at once: the pieces of one
// request then leave in one push instead of a segment each, so the Gateway
// wakes once per request.
ssize_t sendAll(int socketDesc, const uint8_t *data, size_t length, int more = 0) {
  size_t sent = 0;
  while (sent < length) {
    ssize_t rc = send(socketDesc, data + sent, length - sent, MSG_NOSIGNAL | more);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 1) return -1;
    sent += static_cast<size_t>(rc);
  }
  return static_cast<ssize_t>(sent);
}

std::atomic<int> replyTimeoutSeconds{0};

int64_t monotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Waits until the socket is readable: without a deadline at once (the recv
// blocks), with one for what is left of it. False with errno ETIMEDOUT when
// the deadline passes first; the connection is then shut down, since the
// rest of a late reply would put the stream out of step for the next call.
bool readableInTime(SocketBuffer *sockBuffer) {
  if (sockBuffer->replyDeadlineMs == 0) return true;
  pollfd watched{sockBuffer->socketDesc, POLLIN, 0};
  for (;;) {
    const int64_t left = sockBuffer->replyDeadlineMs - monotonicMs();
    const int ready = left > 0 ? poll(&watched, 1, static_cast<int>(std::min<int64_t>(left, 1 << 30))) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      shutdown(sockBuffer->socketDesc, SHUT_RDWR);
      errno = ETIMEDOUT;
      return false;
    }
    return true;  // readable, or an error that the recv will report
  }
}

// One recv, retried on EINTR. 0 means the peer closed. With `after`, the
// bytes past `length` go on into it, up to afterLength.
ssize_t recvSome(SocketBuffer *sockBuffer, uint8_t *data, size_t length, uint8_t *after = nullptr,
                 size_t afterLength = 0) {
  iovec parts[2] = {{data, length}, {after, afterLength}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = afterLength > 0 ? 2 : 1;
  for (;;) {
    if (!readableInTime(sockBuffer)) return -1;
    ssize_t rc =
        afterLength > 0 ? recvmsg(sockBuffer->socketDesc, &message, 0) : recv(sockBuffer->socketDesc, data, length, 0);
    if (rc < 0 && errno == EINTR) continue;
    return rc;
  }
}

// A store the compiler may not drop: the copy of a secret must not outlive
// its use.
void overwriteSecret(uint8_t *data, size_t length) {
  volatile uint8_t *p = data;
  for (size_t i = 0; i < length; ++i) p[i] = '*';
}

// Requests carry the password: a buffer is cleared before it is released.
int releaseBuffer(uint8_t *buffer, uint32_t bufferSize) {
  explicit_bzero(buffer, bufferSize);
  return clapiFree(buffer);
}

void failSocket(SocketBuffer *sockBuffer, int error) {
  sockBuffer->lastErrno = error;
  sockBuffer->failure = QVA_ERR_LOSTGWCON;
}

int initBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen, bool forWriting) {
  const int base = forWriting ? 1500 : 1510;
  const char *const side = forWriting ? "initWriteBuffer" : "initReadBuffer";
  if (forWriting) {
    TRACE_ENTRY(1500, "clapi_socketbuffer.initWriteBuffer(sockBuffer=%p, socketDesc=%d, dataLen=%lu)\n",
                addr(sockBuffer), socketDesc, ul(dataLen));
  } else {
    TRACE_ENTRY(1510, "clapi_socketbuffer.initReadBuffer(sockBuffer=%p, socketDesc=%d, dataLen=%lu)\n",
                addr(sockBuffer), socketDesc, ul(dataLen));
  }
  int rc = QVA_OK;
  uint32_t wanted = std::min(dataLen, kSocketBufferMax);
  uint8_t *buffer = sockBuffer->buffer;
  uint32_t bufferSize = sockBuffer->bufferSize;
  if (wanted > bufferSize) {
    if (buffer != nullptr) {
      rc = releaseBuffer(buffer, bufferSize);
      // The block is gone whatever clapiFree reported about its guards.
      sockBuffer->buffer = nullptr;
      sockBuffer->bufferSize = 0;
    }
    if (rc == QVA_OK) {
      buffer = static_cast<uint8_t *>(clapiMalloc(wanted, "SCKB"));
      if (buffer == nullptr) {
        rc = QVA_ERR_MALLOCFAIL;
        TRACE_EXC(base + 1, "clapi_socketbuffer.%s Failed to malloc %lu bytes for buffer\n", side, ul(wanted));
      } else {
        bufferSize = wanted;
        TRACE_DEBUG(base + 2, "clapi_socketbuffer.%s Allocated new buffer of %lu bytes\n", side, ul(wanted));
      }
    }
  } else {
    TRACE_DEBUG(base + 3, "clapi_socketbuffer.%s Reusing existing buffer of %lu bytes\n", side, ul(bufferSize));
  }
  if (rc == QVA_OK) {
    const int64_t deadline = sockBuffer->replyDeadlineMs;  // spans the reply's header and body
    *sockBuffer = SocketBuffer{};
    sockBuffer->replyDeadlineMs = deadline;
    std::memcpy(sockBuffer->eyeCatcher, "QVASCKBF", 8);
    sockBuffer->socketDesc = socketDesc;
    sockBuffer->buffer = buffer;
    sockBuffer->bufferSize = bufferSize;
    sockBuffer->bytesRemaining = dataLen;
    if (forWriting) sockBuffer->cursor = buffer;
    sockBuffer->quiet = !traceOn(kTraceEntryExit);
  }
  if (forWriting) {
    TRACE_EXIT(1509, "clapi_socketbuffer.initWriteBuffer() rc=%d\n", rc);
  } else {
    TRACE_EXIT(1515, "clapi_socketbuffer.initReadBuffer() rc=%d\n", rc);
  }
  return rc;
}

// Small writers flush first when the value would not fit.
bool roomFor(SocketBuffer *sockBuffer, uint32_t width, int point, const char *name, int value) {
  if (sockBuffer->bytesInBuffer + width > sockBuffer->bufferSize) {
    TRACE_DEBUG(point, "clapi_socketbuffer.%s Insufficient space in buffer %p to write %d\n", name, addr(sockBuffer),
                value);
    flushBuffer(sockBuffer);
  }
  if (bufferFailed(sockBuffer)) return false;
  if (sockBuffer->bytesInBuffer + width > sockBuffer->bufferSize) {
    // Only a buffer that was never initialised for writing gets here.
    sockBuffer->failure = QVA_ERR_SYSTEM_ERROR;
    return false;
  }
  return true;
}

void put(SocketBuffer *sockBuffer, const uint8_t *bytes, uint32_t width) {
  std::memcpy(sockBuffer->cursor, bytes, width);
  sockBuffer->cursor += width;
  sockBuffer->bytesInBuffer += width;
}

// Small readers refill first when the value is not all buffered. A message
// too short for the value fails the buffer instead of handing out stale
// bytes from an earlier message.
bool available(SocketBuffer *sockBuffer, uint32_t width, int point, const char *name) {
  if (sockBuffer->bytesInBuffer < width) {
    TRACE_DEBUG(point, "clapi_socketbuffer.%s Insufficient data in buffer %p\n", name, addr(sockBuffer));
    fillBuffer(sockBuffer);
  }
  if (bufferFailed(sockBuffer)) return false;
  if (sockBuffer->bytesInBuffer < width) {
    markMalformed(sockBuffer);
    return false;
  }
  return true;
}

void take(SocketBuffer *sockBuffer, uint8_t *bytes, uint32_t width) {
  std::memcpy(bytes, sockBuffer->cursor, width);
  sockBuffer->cursor += width;
  sockBuffer->bytesInBuffer -= width;
}

// Sends the buffered bytes with the held-back blocks in their places, in as
// few sendmsg calls as the socket allows. A failure is told as the sends of
// one piece at a time would have told it: by writeBytes when it falls in a
// block too large for the buffer, which writeBytes would have sent itself,
// else by flushBuffer.
int sendGathered(SocketBuffer *sockBuffer, int more) {
  iovec parts[2 * kGatheredBlocksMax + 1];
  bool isBlock[2 * kGatheredBlocksMax + 1];
  size_t count = 0;
  uint32_t from = 0;
  auto add = [&](const uint8_t *data, size_t length, bool block) {
    parts[count] = {const_cast<uint8_t *>(data), length};  // sendmsg only reads
    isBlock[count++] = block;
  };
  for (const GatheredBlock &held : std::span(sockBuffer->gathered, sockBuffer->gatheredCount)) {
    if (held.at > from) add(sockBuffer->buffer + from, held.at - from, false);
    add(held.data, held.length, held.direct);
    from = held.at;
  }
  if (sockBuffer->bytesInBuffer > from) add(sockBuffer->buffer + from, sockBuffer->bytesInBuffer - from, false);

  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  while (message.msg_iovlen > 0) {
    ssize_t sent = sendmsg(sockBuffer->socketDesc, &message, MSG_NOSIGNAL | more);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 1) {
      failSocket(sockBuffer, errno);
      if (isBlock[message.msg_iov - parts]) {
        TRACE_EXC(1565, "clapi_socketbuffer.writeBytes Unable to send data to Gateway: errno=%d\n",
                  sockBuffer->lastErrno);
      } else {
        TRACE_EXC(1528, "clapi_socketbuffer.flushBuffer Unable to send data to Gateway: errno=%d\n",
                  sockBuffer->lastErrno);
      }
      return QVA_ERR_LOSTGWCON;
    }
    // Step past what went out, should the socket have taken only part.
    auto left = static_cast<size_t>(sent);
    while (message.msg_iovlen > 0 && left >= message.msg_iov->iov_len) {
      left -= message.msg_iov->iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (left > 0) {
      message.msg_iov->iov_base = static_cast<uint8_t *>(message.msg_iov->iov_base) + left;
      message.msg_iov->iov_len -= left;
    }
  }
  return QVA_OK;
}

}  // namespace

int initWriteBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen) {
  return initBuffer(sockBuffer, socketDesc, dataLen, true);
}

int initReadBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen) {
  return initBuffer(sockBuffer, socketDesc, dataLen, false);
}

void markMalformed(SocketBuffer *sockBuffer) {
  if (bufferFailed(sockBuffer)) return;
  sockBuffer->failure = QVA_ERR_SYSTEM_ERROR;
  TRACE_EXC(1546,
            "clapi_socketbuffer.markMalformed Reply in buffer %p is shorter than its own lengths: %lu bytes left\n",
            addr(sockBuffer), ul(sockBuffer->bytesInBuffer + sockBuffer->bytesRemaining));
}

// ---- Writing ---------------------------------------------------------------

void writeInt(SocketBuffer *sockBuffer, int32_t value) {
  if (!roomFor(sockBuffer, 4, 1552, "writeInt", value)) return;
  auto v = static_cast<uint32_t>(value);
  const uint8_t bytes[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
                            static_cast<uint8_t>(v)};
  put(sockBuffer, bytes, 4);
}

void writeShort(SocketBuffer *sockBuffer, int16_t value) {
  if (!roomFor(sockBuffer, 2, 1551, "writeShort", value)) return;
  auto v = static_cast<uint16_t>(value);
  const uint8_t bytes[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  put(sockBuffer, bytes, 2);
}

void writeByte(SocketBuffer *sockBuffer, uint8_t value) {
  if (!roomFor(sockBuffer, 1, 1550, "writeByte", value)) return;
  put(sockBuffer, &value, 1);
}

void writeBytes(SocketBuffer *sockBuffer, const void *data, uint32_t dataLen) {
  TRACE_ENTRY(1560, "clapi_socketbuffer.writeBytes(sockBuffer=%p, data=%p, dataLen=%lu)\n", addr(sockBuffer), data,
              ul(dataLen));
  bool done = false;
  if (sockBuffer->quiet && sockBuffer->bytesInBuffer + dataLen > sockBuffer->bufferSize) {
    // Where the bytes would not fit the room left, they are held back for
    // the flush instead of flushing now; a full list of blocks is sent first.
    if (sockBuffer->gatheredCount == kGatheredBlocksMax) flushBuffer(sockBuffer);
    if (!bufferFailed(sockBuffer)) {
      sockBuffer->gathered[sockBuffer->gatheredCount++] = {
          sockBuffer->bytesInBuffer, static_cast<const uint8_t *>(data), dataLen, dataLen > sockBuffer->bufferSize};
      sockBuffer->gatheredBytes += dataLen;
    }
    done = true;
  } else if (sockBuffer->bytesInBuffer + dataLen > sockBuffer->bufferSize) {
    TRACE_DEBUG(1561, "clapi_socketbuffer.writeBytes Insufficient space in buffer %p to write %lu bytes\n",
                addr(sockBuffer), ul(dataLen));
    // A block too large for the buffer is sent right behind these bytes.
    done = flushBuffer(sockBuffer) != QVA_OK;
  }
  if (!done && dataLen > sockBuffer->bufferSize) {
    // Too large for the buffer: sent straight from the caller's memory.
    TRACE_DEBUG(1562, "clapi_socketbuffer.writeBytes Data too large for buffer %p, writing to socket %d\n",
                addr(sockBuffer), sockBuffer->socketDesc);
    TRACE_DATA(1563, data, dataLen, "clapi_socketbuffer.writeBytes data=%p len=%d stopword=%8.8X\n", data,
               static_cast<int>(dataLen), 0u);
    // The message's own length tells whether more of it follows the block;
    // the flow's last flushBuffer sends that rest and ends the push.
    const int more = sockBuffer->bytesRemaining > dataLen ? MSG_MORE : 0;
    ssize_t sent = sendAll(sockBuffer->socketDesc, static_cast<const uint8_t *>(data), dataLen, more);
    if (sent < 1) {
      failSocket(sockBuffer, errno);
      TRACE_EXC(1565, "clapi_socketbuffer.writeBytes Unable to send data to Gateway: errno=%d\n",
                sockBuffer->lastErrno);
    } else {
      sockBuffer->bytesRemaining -= dataLen;
      TRACE_DEBUG(1564, "clapi_socketbuffer.writeBytes Sent %d bytes, %d bytes remaining\n", static_cast<int>(sent),
                  static_cast<int>(sockBuffer->bytesRemaining));
    }
  } else if (!done && dataLen > 0) {
    // Copied even in the failed state: harmless, nothing will be sent.
    put(sockBuffer, static_cast<const uint8_t *>(data), dataLen);
  }
  TRACE_EXIT(1569, "clapi_socketbuffer.writeBytes()\n");
}

void writeBytesMasked(SocketBuffer *sockBuffer, const void *data, uint32_t dataLen) {
  if (sockBuffer->bytesInBuffer + dataLen > sockBuffer->bufferSize) {
    TRACE_DEBUG(1570, "clapi_socketbuffer.writeBytesMasked Insufficient space in buffer %p to write %lu bytes\n",
                addr(sockBuffer), ul(dataLen));
    flushBuffer(sockBuffer);
  }
  // Only short secrets come here; one that cannot fit even an empty buffer
  // fails the flow rather than overflow it.
  if (bufferFailed(sockBuffer)) return;
  if (sockBuffer->bytesInBuffer + dataLen > sockBuffer->bufferSize) {
    failSocket(sockBuffer, EMSGSIZE);
    return;
  }
  sockBuffer->maskedData = sockBuffer->cursor;
  sockBuffer->maskedLength = dataLen;
  put(sockBuffer, static_cast<const uint8_t *>(data), dataLen);
}

int flushBuffer(SocketBuffer *sockBuffer) {
  TRACE_ENTRY(1525, "clapi_socketbuffer.flushBuffer(sockBuffer=%p)\n", addr(sockBuffer));
  int rc = QVA_OK;
  if (bufferFailed(sockBuffer)) {
    rc = QVA_ERR_LOSTGWCON;
  } else if (sockBuffer->bytesInBuffer > 0 || sockBuffer->gatheredCount > 0) {
    if (traceOn(kTraceDebug)) {
      // The secret is shown as '*' in the dump and sent as it is.
      uint8_t saved[kSocketBufferMax];
      uint32_t maskedLength = 0;
      if (sockBuffer->maskedData != nullptr) {
        maskedLength = sockBuffer->maskedLength;
        std::memcpy(saved, sockBuffer->maskedData, maskedLength);
        std::memset(sockBuffer->maskedData, '*', maskedLength);
      }
      clapiTraceData(1526, sockBuffer->buffer, sockBuffer->bytesInBuffer,
                     "clapi_socketbuffer.flushBuffer data=%p len=%d stopword=%8.8X\n", addr(sockBuffer->buffer),
                     static_cast<int>(sockBuffer->bytesInBuffer), 0u);
      if (maskedLength > 0) {
        std::memcpy(sockBuffer->maskedData, saved, maskedLength);
        overwriteSecret(saved, maskedLength);
      }
    }
    // Only the message's last bytes end the push.
    const uint32_t flushed = sockBuffer->bytesInBuffer + sockBuffer->gatheredBytes;
    const int more = sockBuffer->bytesRemaining > flushed ? MSG_MORE : 0;
    if (sockBuffer->gatheredCount > 0) {
      rc = sendGathered(sockBuffer, more);
    } else if (sendAll(sockBuffer->socketDesc, sockBuffer->buffer, sockBuffer->bytesInBuffer, more) < 1) {
      failSocket(sockBuffer, errno);
      TRACE_EXC(1528, "clapi_socketbuffer.flushBuffer Unable to send data to Gateway: errno=%d\n",
                sockBuffer->lastErrno);
      rc = QVA_ERR_LOSTGWCON;
    }
    if (rc == QVA_OK) {
      sockBuffer->bytesRemaining -= flushed;
      sockBuffer->cursor = sockBuffer->buffer;
      sockBuffer->bytesInBuffer = 0;
      sockBuffer->maskedData = nullptr;
      sockBuffer->maskedLength = 0;
      sockBuffer->gatheredCount = 0;
      sockBuffer->gatheredBytes = 0;
      TRACE_DEBUG(1527, "clapi_socketbuffer.flushBuffer Sent %d bytes, %d bytes remaining\n", static_cast<int>(flushed),
                  static_cast<int>(sockBuffer->bytesRemaining));
    }
  }
  TRACE_EXIT(1529, "clapi_socketbuffer.flushBuffer() rc=%d\n", rc);
  return rc;
}

void clapiSetReplyTimeout(int seconds) { replyTimeoutSeconds.store(std::max(seconds, 0)); }

int clapiGetReplyTimeout(void) { return replyTimeoutSeconds.load(); }

int waitForResponse(SocketBuffer *sockBuffer) {
  TRACE_ENTRY(1522, "clapi_socketbuffer.waitForResponse(sockBuffer=%p)\n", addr(sockBuffer));
  int rc = QVA_OK;
  const int timeoutSeconds = replyTimeoutSeconds.load();
  sockBuffer->replyDeadlineMs = timeoutSeconds > 0 ? monotonicMs() + int64_t{timeoutSeconds} * 1000 : 0;
  // Quiet and without a deadline, the wait is left to the first recv: on a
  // blocking socket it returns on data, a close or an error just as the poll
  // would, and a poll on the one valid descriptor does not fail where the
  // recv would not. Traced, the wait is its own step, as the trace tells;
  // quiet, none of its lines would show.
  if (sockBuffer->quiet && timeoutSeconds == 0) return rc;
  // poll rather than select: a descriptor above FD_SETSIZE must not
  // overflow an fd_set in an application with many files open.
  pollfd watched{sockBuffer->socketDesc, POLLIN, 0};
  for (;;) {
    // No time limit unless a reply deadline was asked for: the Gateway
    // enforces the request's own.
    int ready = timeoutSeconds > 0 ? (readableInTime(sockBuffer) ? 1 : 0) : poll(&watched, 1, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      failSocket(sockBuffer, ETIMEDOUT);
      TRACE_EXC(1525, "clapi_socketbuffer.waitForResponse No reply within %d seconds: connection lost\n",
                timeoutSeconds);
      rc = QVA_ERR_LOSTGWCON;
    } else if (ready < 0) {
      failSocket(sockBuffer, errno);
      TRACE_EXC(1523, "clapi_socketbuffer.waitForResponse select failed: errno=%d\n", sockBuffer->lastErrno);
      rc = QVA_ERR_LOSTGWCON;
    }
    break;
  }
  TRACE_EXIT(1524, "clapi_socketbuffer.waitForResponse() rc=%d\n", rc);
  return rc;
}

// ---- Reading ---------------------------------------------------------------

int fillBuffer(SocketBuffer *sockBuffer) {
  TRACE_ENTRY(1540, "clapi_socketbuffer.fillBuffer(sockBuffer=%p)\n", addr(sockBuffer));
  int rc = QVA_OK;
  if (bufferFailed(sockBuffer)) {
    rc = sockBuffer->failure;
  } else if (sockBuffer->buffer == nullptr) {
    rc = QVA_ERR_SYSTEM_ERROR;  // never initialised for reading
  } else {
    uint32_t amount = std::min(sockBuffer->bytesRemaining, sockBuffer->bufferSize - sockBuffer->bytesInBuffer);
    if (sockBuffer->bytesInBuffer > 0) {
      TRACE_DEBUG(1541, "clapi_socketbuffer.fillBuffer %lu bytes already in buffer %p\n", ul(sockBuffer->bytesInBuffer),
                  addr(sockBuffer));
      std::memmove(sockBuffer->buffer, sockBuffer->cursor, sockBuffer->bytesInBuffer);
      sockBuffer->cursor = sockBuffer->buffer + sockBuffer->bytesInBuffer;
    } else {
      sockBuffer->cursor = sockBuffer->buffer;
    }
    if (amount > 0) {
      uint32_t count = 0;
      ssize_t lastRecv = 0;
      while (count < amount) {
        TRACE_DEBUG(1542, "clapi_socketbuffer.fillBuffer Attempting to read %lu bytes\n", ul(amount - count));
        lastRecv = recvSome(sockBuffer, sockBuffer->cursor + count, amount - count);
        if (lastRecv < 1) {
          // errno is 0 after the peer's orderly close; the buffer fails all the same.
          failSocket(sockBuffer, lastRecv < 0 ? errno : 0);
          rc = QVA_ERR_LOSTGWCON;
          TRACE_EXC(1543, "clapi_socketbuffer.fillBuffer recv returned an error code: errno=%d\n",
                    sockBuffer->lastErrno);
          break;
        }
        count += static_cast<uint32_t>(lastRecv);
      }
      if (count > 0) {
        TRACE_DATA(1544, sockBuffer->buffer, count, "clapi_socketbuffer.fillBuffer data=%p len=%d stopword=%8.8X\n",
                   addr(sockBuffer->buffer), static_cast<int>(count), 0u);
        sockBuffer->cursor = sockBuffer->buffer;
        sockBuffer->bytesInBuffer += count;
        sockBuffer->bytesRemaining -= count;
        TRACE_DEBUG(1545, "clapi_socketbuffer.fillBuffer Read %d bytes, %d bytes remaining\n",
                    static_cast<int>(lastRecv), static_cast<int>(sockBuffer->bytesRemaining));
      }
    }
  }
  TRACE_EXIT(1549, "clapi_socketbuffer.fillBuffer() rc=%d\n", rc);
  return rc;
}

int32_t readInt(SocketBuffer *sockBuffer) {
  uint8_t b[4];
  if (!available(sockBuffer, 4, 1582, "readInt")) return 0;
  take(sockBuffer, b, 4);
  return static_cast<int32_t>(uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]});
}

int16_t readShort(SocketBuffer *sockBuffer) {
  uint8_t b[2];
  if (!available(sockBuffer, 2, 1581, "readShort")) return 0;
  take(sockBuffer, b, 2);
  return static_cast<int16_t>(uint16_t{b[0]} << 8 | uint16_t{b[1]});
}

uint8_t readByte(SocketBuffer *sockBuffer) {
  uint8_t b = 0;
  if (!available(sockBuffer, 1, 1580, "readByte")) return 0;
  take(sockBuffer, &b, 1);
  return b;
}

void readBytes(SocketBuffer *sockBuffer, void *dataPtr, uint32_t dataLen) {
  TRACE_ENTRY(1530, "clapi_socketbuffer.readBytes(sockBuffer=%p, data=%p, dataLen=%lu)\n", addr(sockBuffer), dataPtr,
              ul(dataLen));
  auto *data = static_cast<uint8_t *>(dataPtr);
  if (bufferFailed(sockBuffer) || dataLen == 0) {
    // nothing to do
  } else if (sockBuffer->bytesInBuffer >= dataLen) {
    take(sockBuffer, data, dataLen);
  } else {
    uint32_t have = sockBuffer->bytesInBuffer;
    if (have > 0) take(sockBuffer, data, have);
    uint32_t needed = dataLen - have;
    if (needed > sockBuffer->bytesRemaining) {
      // The message announced fewer bytes than this field needs.
      markMalformed(sockBuffer);
    } else if (needed <= sockBuffer->bufferSize) {
      TRACE_DEBUG(1534, "clapi_socketbuffer.readBytes Read %lu bytes from buffer %p, %lu more bytes needed\n", ul(have),
                  addr(sockBuffer), ul(needed));
      fillBuffer(sockBuffer);
      if (!bufferFailed(sockBuffer)) {
        if (sockBuffer->bytesInBuffer < needed) {
          markMalformed(sockBuffer);
        } else {
          take(sockBuffer, data + have, needed);
        }
      }
    } else {
      // Large blocks go straight from the socket into the caller's memory.
      // Quiet, what follows the block in the message comes along into the
      // emptied buffer, as much as it holds; the reading stops once the
      // block is whole, as it does piece by piece.
      uint32_t received = 0;
      uint32_t along = 0;
      const uint32_t followers =
          sockBuffer->quiet ? std::min(sockBuffer->bytesRemaining - needed, sockBuffer->bufferSize) : 0;
      while (received < needed) {
        ssize_t rc = recvSome(sockBuffer, data + have + received, needed - received, sockBuffer->buffer, followers);
        if (rc > static_cast<ssize_t>(needed - received)) {
          along = static_cast<uint32_t>(rc) - (needed - received);
          rc = needed - received;
        }
        if (rc < 1) {
          failSocket(sockBuffer, rc < 0 ? errno : 0);
          TRACE_EXC(1531, "clapi_socketbuffer.readBytes recv returned an error code: errno=%d\n",
                    sockBuffer->lastErrno);
          break;
        }
        received += static_cast<uint32_t>(rc);
      }
      if (received > 0) {
        TRACE_DATA(1532, data + have, received, "clapi_socketbuffer.readBytes data=%p len=%d stopword=%8.8X\n",
                   addr(data + have), static_cast<int>(received), 0u);
        sockBuffer->bytesRemaining -= received + along;
        sockBuffer->cursor = sockBuffer->buffer;
        sockBuffer->bytesInBuffer = along;
        TRACE_DEBUG(1533,
                    "clapi_socketbuffer.readBytes Read %lu bytes from buffer %p, %lu bytes from socket %d, %lu bytes "
                    "remaining\n",
                    ul(have), addr(sockBuffer), ul(received), sockBuffer->socketDesc, ul(sockBuffer->bytesRemaining));
      }
    }
  }
  TRACE_EXIT(1539, "clapi_socketbuffer.readBytes()\n");
}

void discardBytes(SocketBuffer *sockBuffer, uint32_t dataLen) {
  uint8_t scratch[kSocketBufferMax];
  while (dataLen > 0 && !bufferFailed(sockBuffer)) {
    uint32_t chunk = std::min<uint32_t>(dataLen, sizeof scratch);
    readBytes(sockBuffer, scratch, chunk);
    dataLen -= chunk;
  }
}

int freeBuffer(SocketBuffer *sockBuffer) {
  TRACE_ENTRY(1516, "clapi_socketbuffer.freeBuffer(sockBuffer=%p)\n", addr(sockBuffer));
  int rc;
  if (sockBuffer->buffer == nullptr) {
    rc = QVA_ERR_SYSTEM_ERROR;
    TRACE_EXC(1517, "clapi_socketbuffer.freeBuffer Buffer not initialized: %p\n", addr(sockBuffer));
  } else {
    rc = releaseBuffer(sockBuffer->buffer, sockBuffer->bufferSize);
  }
  *sockBuffer = SocketBuffer{};
  TRACE_EXIT(1518, "clapi_socketbuffer.freeBuffer() rc=%d\n", rc);
  return rc;
}
