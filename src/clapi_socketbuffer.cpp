// Socket buffers. Every byte between the library and the Gateway passes
// through one of these; integers travel big-endian at any alignment.

#include "clapi_socketbuffer.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "clapi_diag.h"
#include "qvaclient/qva_codes.h"

namespace {

// The longest secret a buffer masks in its dumps.
constexpr uint32_t kMaskedMax = kSocketBufferMax;

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
  const bool quiet = !traceOn(kTraceEntryExit);
  // The piece-by-piece path's buffer grows to the message's size up to
  // 1024 bytes and is then reused; quiet, the buffer may be larger.
  const uint32_t stepSize = std::max(std::min(dataLen, kSocketBufferMax), sockBuffer->stepSize);
  const uint32_t wanted = quiet ? std::max(std::min(dataLen, kQuietBufferMax), stepSize) : stepSize;
  uint8_t *buffer = sockBuffer->buffer;
  uint32_t allocatedSize = sockBuffer->allocatedSize;
  // What a quiet header read took along of this body.
  const uint32_t carried = forWriting ? 0 : std::min(sockBuffer->aheadBytes, dataLen);
  uint8_t *carriedAt = carried > 0 ? sockBuffer->cursor + sockBuffer->bytesInBuffer : nullptr;
  if (wanted > allocatedSize) {
    if (buffer != nullptr && carried == 0) {
      rc = releaseBuffer(buffer, allocatedSize);
      // The block is gone whatever clapiFree reported about its guards.
      sockBuffer->buffer = nullptr;
      sockBuffer->allocatedSize = sockBuffer->bufferSize = sockBuffer->stepSize = 0;
    }
    if (rc == QVA_OK) {
      buffer = static_cast<uint8_t *>(clapiMalloc(wanted, "SCKB"));
      if (buffer == nullptr) {
        rc = QVA_ERR_MALLOCFAIL;
        TRACE_EXC(base + 1, "clapi_socketbuffer.%s Failed to malloc %lu bytes for buffer\n", side, ul(wanted));
      } else {
        allocatedSize = wanted;
        TRACE_DEBUG(base + 2, "clapi_socketbuffer.%s Allocated new buffer of %lu bytes\n", side, ul(wanted));
        if (carried > 0) {
          std::memcpy(buffer, carriedAt, carried);
          carriedAt = buffer;
          rc = releaseBuffer(sockBuffer->buffer, sockBuffer->allocatedSize);
          sockBuffer->buffer = buffer;
          sockBuffer->allocatedSize = sockBuffer->bufferSize = allocatedSize;
        }
      }
    }
  } else {
    TRACE_DEBUG(base + 3, "clapi_socketbuffer.%s Reusing existing buffer of %lu bytes\n", side,
                ul(quiet ? allocatedSize : stepSize));
  }
  if (rc == QVA_OK) {
    const int64_t deadline = sockBuffer->replyDeadlineMs;  // spans the reply's header and body
    *sockBuffer = SocketBuffer{};
    sockBuffer->replyDeadlineMs = deadline;
    std::memcpy(sockBuffer->eyeCatcher, "QVASCKBF", 8);
    sockBuffer->socketDesc = socketDesc;
    sockBuffer->buffer = buffer;
    sockBuffer->allocatedSize = allocatedSize;
    // Traced, only the piece-by-piece path's size is used, whatever an
    // earlier quiet flow left allocated.
    sockBuffer->bufferSize = quiet ? allocatedSize : stepSize;
    sockBuffer->stepSize = stepSize;
    sockBuffer->bytesRemaining = dataLen - carried;
    sockBuffer->bytesInBuffer = carried;
    sockBuffer->cursor = forWriting ? buffer : carriedAt;
    sockBuffer->quiet = quiet;
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

void failSocket(SocketBuffer *sockBuffer, int error) {
  sockBuffer->lastErrno = error;
  sockBuffer->failure = QVA_ERR_LOSTGWCON;
}

int initWriteBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen) {
  return initBuffer(sockBuffer, socketDesc, dataLen, true);
}

int initReadBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen) {
  return initBuffer(sockBuffer, socketDesc, dataLen, false);
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
  // A block the piece-by-piece path would send on its own, or one that
  // would not fit the room left.
  const bool direct = dataLen > sockBuffer->stepSize;
  if (sockBuffer->quiet && (direct || sockBuffer->bytesInBuffer + dataLen > sockBuffer->bufferSize)) {
    // Quiet, it is held back for the flush instead of copied or sent now;
    // a full list of blocks is sent first.
    if (sockBuffer->gatheredCount == kGatheredBlocksMax) flushBuffer(sockBuffer);
    if (!bufferFailed(sockBuffer)) {
      sockBuffer->gathered[sockBuffer->gatheredCount++] = {sockBuffer->bytesInBuffer,
                                                           static_cast<const uint8_t *>(data), dataLen, direct};
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
  if (dataLen > kMaskedMax || sockBuffer->bytesInBuffer + dataLen > sockBuffer->bufferSize) {
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
      uint8_t saved[kMaskedMax];
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

int freeBuffer(SocketBuffer *sockBuffer) {
  TRACE_ENTRY(1516, "clapi_socketbuffer.freeBuffer(sockBuffer=%p)\n", addr(sockBuffer));
  int rc;
  if (sockBuffer->buffer == nullptr) {
    rc = QVA_ERR_SYSTEM_ERROR;
    TRACE_EXC(1517, "clapi_socketbuffer.freeBuffer Buffer not initialized: %p\n", addr(sockBuffer));
  } else {
    rc = releaseBuffer(sockBuffer->buffer, sockBuffer->allocatedSize);
  }
  *sockBuffer = SocketBuffer{};
  TRACE_EXIT(1518, "clapi_socketbuffer.freeBuffer() rc=%d\n", rc);
  return rc;
}
