// Socket buffers, the reading side: the wait for a reply and the readers of
// its fields. Traced, each receive is a step of its own. Quiet, the same
// receives are made at the same points and insist on the same bytes, but
// each also takes along whatever else of the message has arrived, so that
// a reply comes in as few receives as the bytes allow.

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "clapi_diag.h"
#include "clapi_socketbuffer.h"
#include "qvaclient/qva_codes.h"

namespace {

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

// Message bytes the piece-by-piece path would not have received yet.
uint32_t stepRemaining(const SocketBuffer *sockBuffer) {
  return sockBuffer->bytesRemaining + sockBuffer->bytesInBuffer - sockBuffer->stepInBuffer;
}

// Receives as fillBuffer's step does. `pastMessage`: the bytes after the
// message may come along too (the header's read).
int fill(SocketBuffer *sockBuffer, bool pastMessage) {
  TRACE_ENTRY(1540, "clapi_socketbuffer.fillBuffer(sockBuffer=%p)\n", addr(sockBuffer));
  int rc = QVA_OK;
  if (bufferFailed(sockBuffer)) {
    rc = sockBuffer->failure;
  } else if (sockBuffer->buffer == nullptr) {
    rc = QVA_ERR_SYSTEM_ERROR;  // never initialised for reading
  } else {
    // The step fills its buffer as far as the message goes; the bytes it
    // would then hold must be here before this returns.
    const uint32_t stepHolds =
        sockBuffer->stepInBuffer +
        std::min(stepRemaining(sockBuffer),
                 sockBuffer->stepSize - std::min(sockBuffer->stepSize, sockBuffer->stepInBuffer));
    const uint32_t amount = stepHolds > sockBuffer->bytesInBuffer ? stepHolds - sockBuffer->bytesInBuffer : 0;
    // Bytes a header read took past its message are for the body's
    // initReadBuffer only: a later fill of the header drops them.
    if (!pastMessage) sockBuffer->aheadBytes = 0;
    const uint32_t held = sockBuffer->bytesInBuffer + sockBuffer->aheadBytes;
    if (sockBuffer->bytesInBuffer > 0) {
      TRACE_DEBUG(1541, "clapi_socketbuffer.fillBuffer %lu bytes already in buffer %p\n", ul(sockBuffer->bytesInBuffer),
                  addr(sockBuffer));
    }
    // Only a receive needs the room at the end: quiet, a buffer of many
    // kilobytes is not shifted for every step it already holds.
    if (amount > 0) {
      if (held > 0) std::memmove(sockBuffer->buffer, sockBuffer->cursor, held);
      sockBuffer->cursor = sockBuffer->buffer;
    }
    // Traced, exactly the step's bytes; quiet, as much as the room takes.
    uint32_t room = amount;
    if (sockBuffer->quiet) {
      room = sockBuffer->bufferSize - held;
      if (!pastMessage) room = std::min(room, sockBuffer->bytesRemaining);
    }
    if (amount > 0) {
      uint8_t *const end = sockBuffer->buffer + held;
      uint32_t count = 0;
      ssize_t lastRecv = 0;
      while (count < amount) {
        TRACE_DEBUG(1542, "clapi_socketbuffer.fillBuffer Attempting to read %lu bytes\n", ul(amount - count));
        lastRecv = recvSome(sockBuffer, end + count, room - count);
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
        // What came past the message's end is kept apart from it.
        const uint32_t ofMessage = std::min(count, sockBuffer->bytesRemaining);
        sockBuffer->aheadBytes += count - ofMessage;
        sockBuffer->bytesInBuffer += ofMessage;
        sockBuffer->bytesRemaining -= ofMessage;
        TRACE_DEBUG(1545, "clapi_socketbuffer.fillBuffer Read %d bytes, %d bytes remaining\n",
                    static_cast<int>(lastRecv), static_cast<int>(sockBuffer->bytesRemaining));
      }
    }
    if (rc == QVA_OK) sockBuffer->stepInBuffer = stepHolds;
  }
  TRACE_EXIT(1549, "clapi_socketbuffer.fillBuffer() rc=%d\n", rc);
  return rc;
}

// Small readers refill first when the step would not hold the value. A
// message too short for the value fails the buffer instead of handing out
// stale bytes from an earlier message.
bool available(SocketBuffer *sockBuffer, uint32_t width, int point, const char *name) {
  if (sockBuffer->stepInBuffer < width) {
    TRACE_DEBUG(point, "clapi_socketbuffer.%s Insufficient data in buffer %p\n", name, addr(sockBuffer));
    fillBuffer(sockBuffer);
  }
  if (bufferFailed(sockBuffer)) return false;
  if (sockBuffer->stepInBuffer < width) {
    markMalformed(sockBuffer);
    return false;
  }
  return true;
}

void take(SocketBuffer *sockBuffer, uint8_t *bytes, uint32_t width) {
  if (width == 0) return;  // a read buffer's cursor is null until its first fill
  std::memcpy(bytes, sockBuffer->cursor, width);
  sockBuffer->cursor += width;
  sockBuffer->bytesInBuffer -= width;
  sockBuffer->stepInBuffer -= std::min(sockBuffer->stepInBuffer, width);
}

// A block the step reads straight from the socket into the caller's
// memory, after the `have` bytes it holds. Quiet, the buffer may hold more
// of it, and what follows the block in the message comes along into the
// emptied buffer, as much as it holds; the reading stops once the block is
// whole, as the step's does.
void readLargeBlock(SocketBuffer *sockBuffer, uint8_t *data, uint32_t dataLen, uint32_t have) {
  const uint32_t buffered = std::min(sockBuffer->bytesInBuffer, dataLen);
  take(sockBuffer, data, buffered);
  const uint32_t needed = dataLen - buffered;
  uint32_t received = 0;
  uint32_t along = 0;
  const uint32_t followers =
      sockBuffer->quiet ? std::min(sockBuffer->bytesRemaining - needed, sockBuffer->bufferSize) : 0;
  while (received < needed) {
    ssize_t rc = recvSome(sockBuffer, data + buffered + received, needed - received, sockBuffer->buffer, followers);
    if (rc > static_cast<ssize_t>(needed - received)) {
      along = static_cast<uint32_t>(rc) - (needed - received);
      rc = needed - received;
    }
    if (rc < 1) {
      failSocket(sockBuffer, rc < 0 ? errno : 0);
      TRACE_EXC(1531, "clapi_socketbuffer.readBytes recv returned an error code: errno=%d\n", sockBuffer->lastErrno);
      break;
    }
    received += static_cast<uint32_t>(rc);
  }
  if (needed > 0) {
    sockBuffer->bytesRemaining -= received + along;
    sockBuffer->cursor = sockBuffer->buffer;
    sockBuffer->bytesInBuffer = along;
  }
  sockBuffer->stepInBuffer = 0;
  if (received > 0) {
    TRACE_DATA(1532, data + have, received, "clapi_socketbuffer.readBytes data=%p len=%d stopword=%8.8X\n",
               addr(data + have), static_cast<int>(received), 0u);
    TRACE_DEBUG(1533,
                "clapi_socketbuffer.readBytes Read %lu bytes from buffer %p, %lu bytes from socket %d, %lu bytes "
                "remaining\n",
                ul(have), addr(sockBuffer), ul(received), sockBuffer->socketDesc, ul(sockBuffer->bytesRemaining));
  }
}

}  // namespace

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

int fillBuffer(SocketBuffer *sockBuffer) { return fill(sockBuffer, false); }

int fillHeaderBuffer(SocketBuffer *sockBuffer) { return fill(sockBuffer, true); }

void markMalformed(SocketBuffer *sockBuffer) {
  if (bufferFailed(sockBuffer)) return;
  sockBuffer->failure = QVA_ERR_SYSTEM_ERROR;
  TRACE_EXC(1546,
            "clapi_socketbuffer.markMalformed Reply in buffer %p is shorter than its own lengths: %lu bytes left\n",
            addr(sockBuffer), ul(unreadBytes(sockBuffer)));
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
  } else if (sockBuffer->stepInBuffer >= dataLen) {
    take(sockBuffer, data, dataLen);
  } else {
    const uint32_t have = sockBuffer->stepInBuffer;
    const uint32_t needed = dataLen - have;
    if (needed > stepRemaining(sockBuffer)) {
      // The message announced fewer bytes than this field needs.
      take(sockBuffer, data, have);
      markMalformed(sockBuffer);
    } else if (needed <= sockBuffer->stepSize) {
      take(sockBuffer, data, have);
      TRACE_DEBUG(1534, "clapi_socketbuffer.readBytes Read %lu bytes from buffer %p, %lu more bytes needed\n", ul(have),
                  addr(sockBuffer), ul(needed));
      fillBuffer(sockBuffer);
      if (!bufferFailed(sockBuffer)) {
        if (sockBuffer->stepInBuffer < needed) {
          markMalformed(sockBuffer);
        } else {
          take(sockBuffer, data + have, needed);
        }
      }
    } else {
      readLargeBlock(sockBuffer, data, dataLen, have);
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
