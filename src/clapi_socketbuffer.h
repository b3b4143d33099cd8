// Socket buffers: buffered big-endian reading and writing of one Gateway
// socket for the length of one flow.
#pragma once

#include <cstdint>

#include "clapi_export.h"

inline constexpr uint32_t kSocketBufferMax = 1024;
// While quiet, a buffer may grow to this size, so that a reply of many
// containers arrives in a few receives instead of one per kilobyte.
inline constexpr uint32_t kQuietBufferMax = 64 * 1024;
// Blocks a write buffer can hold back for one gathered send.
inline constexpr uint32_t kGatheredBlocksMax = 32;

// A block that does not fit the buffer's room, left in the caller's memory
// until the next flush sends it in its place among the buffered bytes.
struct GatheredBlock {
  uint32_t at;  // bytes of the buffer that go before it
  const uint8_t *data;
  uint32_t length;
  bool direct;  // too large for the whole buffer: writeBytes would send it itself
};

// Lives in the flow's stack frame and is zero-filled before the first
// initialisation; only `buffer` is allocated.
struct SocketBuffer {
  char eyeCatcher[8];
  int32_t socketDesc;
  int32_t lastErrno;  // errno of the first failed recv, send or select
  uint8_t *buffer;
  uint32_t bufferSize;     // the part in use: traced, never more than the piece-by-piece path's
  uint32_t allocatedSize;  // what `buffer` holds
  uint8_t *cursor;
  uint32_t bytesInBuffer;   // read side: received, not consumed; write side: stored, not sent
  uint32_t bytesRemaining;  // bytes of the message not yet received or sent
  uint8_t *maskedData;      // the secret written last, shown as '*' in dumps
  uint32_t maskedLength;
  // The sticky failed state: 0 while healthy, else the result code that
  // ended it (QVA_ERR_LOSTGWCON for the socket, QVA_ERR_SYSTEM_ERROR for a
  // reply shorter than its own fields). Kept apart from lastErrno, because a
  // peer's orderly close leaves errno 0 and must still stop every read.
  int32_t failure;
  // Monotonic milliseconds by which the reply must have arrived whole; 0
  // when no reply deadline is set (the default).
  int64_t replyDeadlineMs;
  // Set while the trace writes none of the buffer's lines. Writing, large
  // blocks are then held back and the flush sends the whole request in one
  // gathered sendmsg; reading, a large block read into the caller's memory
  // brings the message's next bytes into the buffer in the same recvmsg.
  // With its lines traced, each piece moves on its own, as the trace tells.
  bool quiet;
  // What the piece-by-piece path would have at this point: its buffer's
  // size and the bytes it would hold unread. Quiet, every receive it would
  // make is made at the same point and insists on the same bytes, only
  // taking along what else has arrived, so that a Gateway that stops or
  // hangs up is met by the same step; and a block it would send on its
  // own is told apart when a send fails. Traced, they equal bufferSize and
  // bytesInBuffer.
  uint32_t stepSize;
  uint32_t stepInBuffer;
  // Bytes past the message's end that a quiet header read took along: they
  // follow the unread message bytes in the buffer, and the next
  // initReadBuffer hands them to the body.
  uint32_t aheadBytes;
  uint32_t gatheredCount;
  uint32_t gatheredBytes;
  GatheredBlock gathered[kGatheredBlocksMax];
};

// The opt-in reply deadline in seconds, 0 for none: read from
// QVA_CLIENT_REPLY_TIMEOUT at start-up. Off by default, a call waits for its
// reply as long as the Gateway takes, and the Gateway enforces the request's
// own time limit.
CLAPI_EXPORT void clapiSetReplyTimeout(int seconds);
CLAPI_EXPORT int clapiGetReplyTimeout(void);

int initWriteBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen);
int initReadBuffer(SocketBuffer *sockBuffer, int socketDesc, uint32_t dataLen);
void writeInt(SocketBuffer *sockBuffer, int32_t value);
void writeShort(SocketBuffer *sockBuffer, int16_t value);
void writeByte(SocketBuffer *sockBuffer, uint8_t value);
// Quiet, the bytes may stay in the caller's memory until the next flush:
// they must stay there unchanged until then.
void writeBytes(SocketBuffer *sockBuffer, const void *data, uint32_t dataLen);
void writeBytesMasked(SocketBuffer *sockBuffer, const void *data, uint32_t dataLen);
int flushBuffer(SocketBuffer *sockBuffer);
int waitForResponse(SocketBuffer *sockBuffer);
int fillBuffer(SocketBuffer *sockBuffer);
// Fills the buffer with a header as fillBuffer does. Quiet, it also takes
// along what has arrived of the body, up to the buffer's room: the body's
// initReadBuffer starts with it. A Gateway speaks only when asked, so
// anything past the body's announced length is not part of any reply and
// is dropped with the flow.
int fillHeaderBuffer(SocketBuffer *sockBuffer);
int32_t readInt(SocketBuffer *sockBuffer);
int16_t readShort(SocketBuffer *sockBuffer);
uint8_t readByte(SocketBuffer *sockBuffer);
void readBytes(SocketBuffer *sockBuffer, void *data, uint32_t dataLen);
int freeBuffer(SocketBuffer *sockBuffer);

// Reads and drops dataLen bytes of the message, so that a reply whose
// extra bytes the caller cannot hold leaves the connection in step.
void discardBytes(SocketBuffer *sockBuffer, uint32_t dataLen);

// Marks a reply that contradicts its own lengths; reads stop from here on.
void markMalformed(SocketBuffer *sockBuffer);

inline bool bufferFailed(const SocketBuffer *sockBuffer) { return sockBuffer->failure != 0; }

// Bytes of the current message not yet consumed.
inline uint32_t unreadBytes(const SocketBuffer *sockBuffer) {
  return sockBuffer->bytesInBuffer + sockBuffer->bytesRemaining;
}

// The socket failed: every later read and write of the flow stops.
void failSocket(SocketBuffer *sockBuffer, int error);
