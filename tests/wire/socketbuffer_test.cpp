// Socket buffers over a socketpair: what reaches the peer byte for byte, how
// reads are served from the buffer or the socket, the sticky failed state,
// buffer reuse and allocation failure.

#include <fcntl.h>

#include <cerrno>

#include "clapi_socketbuffer.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

class SocketBufferTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (sb.buffer != nullptr) freeBuffer(&sb);
  }
  bool isZeroed() const {
    SocketBuffer zero{};
    return std::memcmp(&sb, &zero, sizeof sb) == 0;
  }
  Bytes readN(uint32_t n) {
    Bytes out(n);
    readBytes(&sb, out.data(), n);
    return out;
  }
  // Failed, errno, bytes buffered, bytes still to come.
  auto state() const { return std::make_tuple(sb.failure, sb.lastErrno, sb.bytesInBuffer, sb.bytesRemaining); }
  SocketPair pair;
  SocketBuffer sb{};
};

// One record through a life of set-ups, each over a record left dirty: the
// buffer is capped at 1024 bytes, reused, never shrunk, and a failed growth
// forgets the block it released so that freeBuffer cannot release it twice.
TEST_F(SocketBufferTest, InitAllocatesReusesAndGrowsTheBufferAndResetsTheRecord) {
  // Free first, for writing, the length, the buffer's size after (0: allocations fail), the trace line.
  const std::tuple<bool, bool, uint32_t, uint32_t, const char *> steps[] = {
      {false, true, 100, 100, "1502 initWriteBuffer Allocated new buffer of 100 bytes"},
      {false, false, 50, 100, "1513 initReadBuffer Reusing existing buffer of 100 bytes"},
      {false, false, 5000, 1024, "1512 initReadBuffer Allocated new buffer of 1024 bytes"},
      {false, true, 2000, 1024, "1503 initWriteBuffer Reusing existing buffer of 1024 bytes"},
      {true, false, 20, 0, "1511 initReadBuffer Failed to malloc 20 bytes for buffer"},
      {false, true, 5000, 0, "1501 initWriteBuffer Failed to malloc 1024 bytes for buffer"},
      {false, true, 100, 100, "1502 initWriteBuffer Allocated new buffer of 100 bytes"},
      {false, false, 2000, 0, "1511 initReadBuffer Failed to malloc 1024 bytes for buffer"},
  };
  for (const auto &[freeFirst, write, length, size, line] : steps) {
    SCOPED_TRACE(line);
    if (freeFirst) {
      EXPECT_EQ(freeBuffer(&sb), QVA_OK);
      EXPECT_TRUE(isZeroed());
    }
    uint8_t junk = 0;
    sb.failure = QVA_ERR_LOSTGWCON, sb.lastErrno = EPIPE, sb.bytesInBuffer = 3, sb.cursor = &junk, sb.socketDesc = -7;
    TraceCapture trace(4);
    std::unique_ptr<FailSocketBufferAllocs> failing(size == 0 ? new FailSocketBufferAllocs : nullptr);
    const int rc = write ? initWriteBuffer(&sb, pair.client, length) : initReadBuffer(&sb, pair.client, length);
    failing.reset();
    EXPECT_EQ(rc, size == 0 ? QVA_ERR_MALLOCFAIL : QVA_OK);
    EXPECT_EQ(sb.bufferSize, size);
    EXPECT_EQ(countLines(trace.text(), std::stoi(line), size ? "DEBUG" : "*EXC*", std::string("clapi_socketbuffer\\.") + (line + 5)), 1)
        << trace.text();
    if (rc != QVA_OK) continue;
    EXPECT_EQ(std::memcmp(sb.eyeCatcher, "QVASCKBF", 8), 0);
    EXPECT_EQ(sb.socketDesc, pair.client);
    EXPECT_EQ(state(), std::make_tuple(0, 0, 0u, length));
    EXPECT_EQ(sb.cursor, write ? sb.buffer : nullptr) << "a read buffer leaves the cursor to fillBuffer";
  }
  EXPECT_EQ(sb.buffer, nullptr);
  // Under AddressSanitizer a second release of the old block would abort here.
  EXPECT_EQ(freeBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
  EXPECT_TRUE(isZeroed());
}

// ---- Writing ------------------------------------------------------------------------------

// Nothing is sent before the flush, unless a value would not fit: then what
// is buffered goes first, and a block larger than the whole buffer follows it
// straight from the caller's memory.
TEST_F(SocketBufferTest, AValueThatWouldNotFitFlushesTheBufferedBytesFirst) {
  // Bytes buffered, then written (4 as an int), sent at once, and a trace line.
  const std::tuple<size_t, size_t, int, std::string> cases[] = {
      {1023, 4, 1023, "1552 writeInt Insufficient space in buffer 0x[0-9a-f]+ to write 168496141"},
      {10, 1024, 10, "1561 writeBytes Insufficient space in buffer 0x[0-9a-f]+ to write 1024 bytes"},  // then held
      {10, 1025, 1035, "1562 writeBytes Data too large for buffer 0x[0-9a-f]+, writing to socket " + std::to_string(pair.client)},
      {10, 1025, 1035, "1564 writeBytes Sent 1025 bytes, 0 bytes remaining"},
      {0, 1, 0, "1527 flushBuffer Sent 1 bytes, 0 bytes remaining"}};  // a send of one byte is whole
  for (const auto &[buffered, written, sentAtOnce, line] : cases) {
    const Bytes head = pattern(buffered, 100), block = written == 4 ? hex("0A0B0C0D") : pattern(written, 7);
    const auto total = static_cast<uint32_t>(buffered + written);
    TraceCapture trace(4);
    ASSERT_EQ(initWriteBuffer(&sb, pair.client, total), QVA_OK);
    EXPECT_EQ(flushBuffer(&sb), QVA_OK) << "an empty flush sends nothing";
    writeBytes(&sb, head.data(), static_cast<uint32_t>(buffered));
    EXPECT_EQ(pendingBytes(pair.peer), 0);
    if (written == 4) writeInt(&sb, 0x0A0B0C0D);
    else writeBytes(&sb, block.data(), static_cast<uint32_t>(written));
    EXPECT_EQ(pendingBytes(pair.peer), sentAtOnce) << line;
    EXPECT_EQ(state(), std::make_tuple(0, 0, total - sentAtOnce, total - sentAtOnce));
    ASSERT_EQ(flushBuffer(&sb), QVA_OK);
    EXPECT_EQ(sb.bytesRemaining, 0u);
    EXPECT_EQ(recvExactly(pair.peer, total), cat({head, block})) << "in order";
    EXPECT_EQ(countLines(trace.text(), std::stoi(line), "DEBUG", "clapi_socketbuffer\\." + line.substr(5)), 1) << trace.text();
  }
}

TEST_F(SocketBufferTest, SendFailureLatchesTheErrnoAndStopsLaterWrites) {
  pair.closePeer();
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 8), QVA_OK);
  writeInt(&sb, 1);
  EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(state(), std::make_tuple(QVA_ERR_LOSTGWCON, EPIPE, 4u, 8u));
  writeInt(&sb, 2);
  EXPECT_EQ(sb.bytesInBuffer, 4u) << "a failed buffer takes no more small values";
  EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
}

// ---- Reading -------------------------------------------------------------------------------

// Values at any alignment, and values that straddle the end of the first
// fill of 1024 bytes, completed by a refill.
TEST_F(SocketBufferTest, SmallReadersDecodeBigEndianAcrossARefill) {
  const std::pair<size_t, std::vector<std::pair<int, int32_t>>> cases[] = {  // prefix, then widths and values
      {0, {{4, -2}, {2, -32767}, {1, 0x7F}, {4, 0x01020304}, {1, 0xFF}}},
      {1021, {{4, static_cast<int32_t>(0xA1B2C3D4u)}, {2, static_cast<int16_t>(0xE5F6)}, {1, 0x17}, {1, 0x28}}},
      {1023, {{2, static_cast<int16_t>(0x9ABC)}, {1, 0xDE}}}};
  for (const auto &[prefix, values] : cases) {
    Bytes message = pattern(prefix);
    for (const auto &[width, value] : values) {
      const Bytes b = be32(static_cast<uint32_t>(value));
      message.insert(message.end(), b.end() - width, b.end());
    }
    ASSERT_TRUE(sendAll(pair.peer, message));
    ASSERT_EQ(initReadBuffer(&sb, pair.client, static_cast<uint32_t>(message.size())), QVA_OK);
    EXPECT_EQ(readN(static_cast<uint32_t>(prefix)), pattern(prefix));
    if (prefix > 0) { EXPECT_EQ(sb.bytesInBuffer, 1024 - prefix); }
    for (const auto &[width, value] : values)
      EXPECT_EQ(width == 4 ? readInt(&sb) : width == 2 ? readShort(&sb) : readByte(&sb), value) << prefix;
    EXPECT_EQ(state(), std::make_tuple(0, 0, 0u, 0u));
  }
}

// readBytes takes what the buffer holds, completes it from a refill, or for
// more than a buffer holds reads straight from the socket; never past the
// message, whose successor's first bytes stay unread.
TEST_F(SocketBufferTest, ReadBytesServesFromTheBufferARefillOrTheSocket) {
  // The message's length; each read's size and the bytes left buffered after; the direct read's trace.
  const std::tuple<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>, const char *> cases[] = {
      {13, {{4, 9}, {8, 1}}, nullptr},
      {1100, {{1000, 24}, {50, 50}, {50, 0}}, nullptr},  // 24 buffered, 26 of a refill of 76
      {3000, {{4, 1020}, {2996, 0}}, "1020 bytes from buffer 0x[0-9a-f]+, 1976"}};
  for (const auto &[total, reads, direct] : cases) {
    const Bytes message = pattern(total, 9);
    ASSERT_TRUE(sendAll(pair.peer, cat({message, hex("EEEEEEEE")})));
    TraceCapture trace(4);
    ASSERT_EQ(initReadBuffer(&sb, pair.client, total), QVA_OK);
    size_t at = 0;
    for (const auto &[size, left] : reads) {
      EXPECT_EQ(readN(size), slice(message, at, size)) << total << " at " << at;
      EXPECT_EQ(sb.bytesInBuffer, left);
      at += size;
    }
    EXPECT_EQ(state(), std::make_tuple(0, 0, reads.back().second, 0u));
    EXPECT_EQ(recvExactly(pair.client, 4), hex("EEEEEEEE"));
    const std::string line = std::string(R"(clapi_socketbuffer\.readBytes Read )") + (direct ? direct : "") +
                             " bytes from socket " + std::to_string(pair.client) + ", 0 bytes remaining";
    EXPECT_EQ(countLines(trace.text(), 1533, "DEBUG", direct ? line : ".*"), direct ? 1 : 0) << trace.text();
  }
}

// ---- Failures -------------------------------------------------------------------------------

// A failed buffer hands out nothing and leaves the next message unread. A
// reader that would run past the end of the message fails it rather than
// hand out stale bytes of an earlier message; a socket failure fails it with
// the errno (0 after an orderly close) and keeps what arrived before.
TEST_F(SocketBufferTest, AFailedBufferHandsOutNothing) {
  const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  // How it fails, the failure, the errno, the bytes buffered, the bytes to come, the trace line.
  const std::tuple<const char *, int, int, uint32_t, uint32_t, std::string> cases[] = {
      {"readInt past the end", QVA_ERR_SYSTEM_ERROR, 0, 2, 0, "1546 markMalformed Reply in buffer 0x[0-9a-f]+ is shorter than its own lengths: 2 bytes left"},
      {"readBytes past the end", QVA_ERR_SYSTEM_ERROR, 0, 0, 0, "1546 markMalformed Reply in buffer 0x[0-9a-f]+ is shorter than its own lengths: 0 bytes left"},
      {"closed before the reply", QVA_ERR_LOSTGWCON, 0, 0, 12, "1543 fillBuffer recv returned an error code: errno=0"},
      {"closed mid-message", QVA_ERR_LOSTGWCON, 0, 6, 6, "1543 fillBuffer recv returned an error code: errno=0"},
      {"not a socket", QVA_ERR_LOSTGWCON, ENOTSOCK, 0, 12, "1543 fillBuffer recv returned an error code: errno=" + std::to_string(ENOTSOCK)}};
  for (const auto &[how, failure, error, buffered, toCome, line] : cases) {
    SCOPED_TRACE(how);
    SocketPair p;
    TraceCapture trace(1);
    if (failure == QVA_ERR_SYSTEM_ERROR) {
      // The first message leaves recognisable bytes; the second announces 6, too few for a field of 4 at offset 4.
      ASSERT_TRUE(sendAll(p.peer, hex("DEADBEEF CAFEBABE 00000005 0006 00000002")));
      ASSERT_EQ(initReadBuffer(&sb, p.client, 8), QVA_OK);
      EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xDEADBEEFu));
      EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xCAFEBABEu));
      ASSERT_EQ(initReadBuffer(&sb, p.client, 6), QVA_OK);
      EXPECT_EQ(readInt(&sb), 5);
      Bytes out(4, 0x77);
      EXPECT_EQ(buffered ? readInt(&sb) : (readBytes(&sb, out.data(), 4), 0), 0);
    } else {
      ASSERT_TRUE(sendAll(p.peer, buffered ? hex("00000001 0002") : Bytes{}));
      p.closePeer();
      ASSERT_EQ(initReadBuffer(&sb, error ? devNull : p.client, 12), QVA_OK);
      EXPECT_EQ(waitForResponse(&sb), QVA_OK) << "the close wakes the wait";
      EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
    }
    EXPECT_EQ(state(), std::make_tuple(failure, error, buffered, toCome));
    EXPECT_EQ(std::make_tuple(readInt(&sb), readShort(&sb), readByte(&sb)), std::make_tuple(0, int16_t{0}, uint8_t{0}));
    Bytes out(4, 0x77);
    readBytes(&sb, out.data(), 4);
    EXPECT_EQ(out, Bytes(4, 0x77));
    EXPECT_EQ(fillBuffer(&sb), failure);
    EXPECT_EQ(countLines(trace.text(), std::stoi(line), "*EXC*", "clapi_socketbuffer\\." + line.substr(5)), 1) << trace.text();
    if (failure == QVA_ERR_SYSTEM_ERROR) { EXPECT_EQ(recvExactly(p.client, 4), hex("00000002")) << "the next message"; }
  }
  ::close(devNull);
}

}  // namespace
