// Socket buffers over a socketpair: what reaches the peer byte for byte, how reads are served from the buffer or
// the socket, the sticky failed state, buffer reuse and allocation failure.

#include <fcntl.h>

#include <cerrno>

#include "clapi_socketbuffer.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

class SocketBufferTest : public ::testing::Test {
 protected:
  void TearDown() override { freeBuffer(&sb); }
  bool isZeroed() const { return std::memcmp(&sb, &kZero, sizeof sb) == 0; }
  static constexpr SocketBuffer kZero{};
  // Failed, errno, bytes buffered, bytes still to come.
  auto state() const { return std::make_tuple(sb.failure, sb.lastErrno, sb.bytesInBuffer, sb.bytesRemaining); }
  SocketPair pair;
  SocketBuffer sb{};
};

// One record through a life of set-ups, each over a record left dirty: the buffer is capped at 1024 bytes, reused,
// never shrunk, and a failed growth forgets the block it released, so that nothing releases it twice.
TEST_F(SocketBufferTest, InitAllocatesReusesAndGrowsTheBufferAndResetsTheRecord) {
  // For writing, the length, the buffer's size after (0: allocations fail), the trace line.
  const std::tuple<bool, uint32_t, uint32_t, const char *> steps[] = {
      {true, 100, 100, "1502 initWriteBuffer Allocated new buffer of 100 bytes"},
      {false, 50, 100, "1513 initReadBuffer Reusing existing buffer of 100 bytes"},
      {false, 2000, 0, "1511 initReadBuffer Failed to malloc 1024 bytes for buffer"},
      {true, 5000, 0, "1501 initWriteBuffer Failed to malloc 1024 bytes for buffer"},
      {false, 20, 0, "1511 initReadBuffer Failed to malloc 20 bytes for buffer"},
      {false, 5000, 1024, "1512 initReadBuffer Allocated new buffer of 1024 bytes"},
      {true, 2000, 1024, "1503 initWriteBuffer Reusing existing buffer of 1024 bytes"},
  };
  for (const auto &[write, length, size, line] : steps) {
    SCOPED_TRACE(line);
    uint8_t junk = 0;
    sb.failure = QVA_ERR_LOSTGWCON, sb.lastErrno = EPIPE, sb.bytesInBuffer = 3, sb.cursor = &junk, sb.socketDesc = -7;
    TraceCapture trace(4);
    std::unique_ptr<FailSocketBufferAllocs> failing(size == 0 ? new FailSocketBufferAllocs : nullptr);
    const int rc = write ? initWriteBuffer(&sb, pair.client, length) : initReadBuffer(&sb, pair.client, length);
    failing.reset();
    EXPECT_EQ(rc, size == 0 ? QVA_ERR_MALLOCFAIL : QVA_OK);
    EXPECT_EQ(std::make_tuple(sb.bufferSize, sb.buffer == nullptr), std::make_tuple(size, size == 0));
    const std::string text = trace.text();
    EXPECT_EQ(
        countLines(text, std::stoi(line), size ? "DEBUG" : "*EXC*", std::string("clapi_socketbuffer\\.") + (line + 5)),
        1)
        << text;
    if (rc != QVA_OK) continue;
    EXPECT_EQ(std::memcmp(sb.eyeCatcher, "QVASCKBF", 8), 0);
    EXPECT_EQ(sb.socketDesc, pair.client);
    EXPECT_EQ(state(), std::make_tuple(0, 0, 0u, length));
    EXPECT_EQ(sb.cursor, write ? sb.buffer : nullptr) << "a read buffer leaves the cursor to fillBuffer";
  }
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  EXPECT_TRUE(isZeroed());
  EXPECT_EQ(freeBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
  EXPECT_TRUE(isZeroed());
}

// ---- Writing ------------------------------------------------------------------------------

// Nothing is sent before the flush, unless a value would not fit: then what is buffered goes first, and a block
// larger than the whole buffer follows it straight from the caller's memory.
TEST_F(SocketBufferTest, AValueThatWouldNotFitFlushesTheBufferedBytesFirst) {
  // Bytes buffered, then written (4 as an int), sent at once, and a trace line.
  const std::tuple<size_t, size_t, int, std::string> cases[] = {
      {1023, 4, 1023, "1552 writeInt Insufficient space in buffer 0x[0-9a-f]+ to write 168496141"},
      {10, 1024, 10, "1561 writeBytes Insufficient space in buffer 0x[0-9a-f]+ to write 1024 bytes"},  // then held
      {10, 1025, 1035,
       "1562 writeBytes Data too large for buffer 0x[0-9a-f]+, writing to socket " + std::to_string(pair.client)},
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
    if (written == 4)
      writeInt(&sb, 0x0A0B0C0D);
    else
      writeBytes(&sb, block.data(), static_cast<uint32_t>(written));
    EXPECT_EQ(pendingBytes(pair.peer), sentAtOnce) << line;
    EXPECT_EQ(state(), std::make_tuple(0, 0, total - sentAtOnce, total - sentAtOnce));
    ASSERT_EQ(flushBuffer(&sb), QVA_OK);
    EXPECT_EQ(sb.bytesRemaining, 0u);
    EXPECT_EQ(recvExactly(pair.peer, total), cat({head, block})) << "in order";
    EXPECT_EQ(countLines(trace.text(), std::stoi(line), "DEBUG", "clapi_socketbuffer\\." + line.substr(5)), 1)
        << trace.text();
  }
}

// While the trace shows none of the buffer's lines (level 2 and below), blocks that do not fit the buffer's room
// are held back and the flush sends the request whole: the peer gets the same bytes in the same order as when each
// piece goes out on its own (level 4), a list of held blocks that is full is sent first, and a send that fails is
// told by the step that would have made it (the flush for buffered bytes, writeBytes for a block larger than the
// buffer).
TEST_F(SocketBufferTest, UntracedWritesGoOutInOneGatheredSendWithTheSameBytes) {
  for (auto [level, size, blocks] : {std::tuple{0, 1500, 1u},
                                     {0, 1500, kGatheredBlocksMax + 2},
                                     {0, 1024, 3u},
                                     {4, 1500, 1u},
                                     {4, 1500, kGatheredBlocksMax + 2},
                                     {4, 1024, 3u}}) {
    SCOPED_TRACE(testing::Message() << "level " << level << ", " << blocks << " blocks of " << size);
    const Bytes big = pattern(size_t(size), 3);
    Bytes want;
    TraceCapture trace(level);
    ASSERT_EQ(initWriteBuffer(&sb, pair.client, uint32_t(blocks * (4 + big.size()) + 2)), QVA_OK);
    for (size_t i = 0; i < blocks; ++i) {
      writeInt(&sb, int32_t(i));
      writeBytes(&sb, big.data(), uint32_t(big.size()));
      want = cat({want, be32(uint32_t(i)), big});
      if (level == 0 && i < kGatheredBlocksMax) {
        EXPECT_EQ(pendingBytes(pair.peer), 0) << "held back";
      }
    }
    writeShort(&sb, 0x7E7F);
    ASSERT_EQ(flushBuffer(&sb), QVA_OK);
    EXPECT_EQ(recvExactly(pair.peer, want.size() + 2), cat({want, hex("7E7F")}));
    EXPECT_EQ(sb.bytesRemaining, 0u);
  }
  const Bytes big = pattern(1500, 3);
  for (const auto &[head, point] : {std::pair{size_t{4}, 1528}, std::pair{size_t{0}, 1565}}) {
    for (int level : {1, 4}) {
      SocketPair p;
      p.closePeer();
      TraceCapture trace(level);
      ASSERT_EQ(initWriteBuffer(&sb, p.client, uint32_t(head + big.size())), QVA_OK);
      if (head) writeInt(&sb, 1);
      writeBytes(&sb, big.data(), uint32_t(big.size()));
      EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
      EXPECT_EQ(std::make_pair(sb.failure, sb.lastErrno), std::make_pair(QVA_ERR_LOSTGWCON, EPIPE));
      EXPECT_EQ(
          countLines(trace.text(), point, "*EXC*", ".* Unable to send data to Gateway: errno=" + std::to_string(EPIPE)),
          1)
          << level << "\n"
          << trace.text();
    }
  }
}

// ---- Reading -------------------------------------------------------------------------------

// Values at any alignment, and values that straddle the end of the first fill of 1024 bytes, completed by a
// refill; never past the message, whose successor's first bytes stay unread. Quiet, the buffer holds what has
// arrived of the message, and still counts the 1024 bytes a fill would bring.
TEST_F(SocketBufferTest, SmallReadersDecodeBigEndianAcrossARefill) {
  TraceCapture trace(0);
  const std::pair<size_t, std::vector<std::pair<int, int32_t>>> cases[] = {
      // prefix, then widths and values
      {0, {{4, -2}, {2, -32767}, {1, 0x7F}, {4, 0x01020304}, {1, 0xFF}}},
      {1021, {{4, static_cast<int32_t>(0xA1B2C3D4u)}, {2, static_cast<int16_t>(0xE5F6)}, {1, 0x17}, {1, 0x28}}},
      {1023, {{2, static_cast<int16_t>(0x9ABC)}, {1, 0xDE}}}};
  for (const auto &[prefix, values] : cases) {
    Bytes message = pattern(prefix);
    for (const auto &[width, value] : values) {
      const Bytes b = be32(static_cast<uint32_t>(value));
      message.insert(message.end(), b.end() - width, b.end());
    }
    ASSERT_TRUE(sendAll(pair.peer, cat({message, hex("EEEEEEEE")})));
    ASSERT_EQ(initReadBuffer(&sb, pair.client, static_cast<uint32_t>(message.size())), QVA_OK);
    Bytes head(prefix);
    readBytes(&sb, head.data(), static_cast<uint32_t>(prefix));
    EXPECT_EQ(head, pattern(prefix));
    if (prefix > 0) {
      EXPECT_EQ(std::make_pair(sb.stepInBuffer, sb.bytesInBuffer),
                std::make_pair(uint32_t(1024 - prefix), uint32_t(message.size() - prefix)));
    }
    for (const auto &[width, value] : values)
      EXPECT_EQ(width == 4 ? readInt(&sb) : width == 2 ? readShort(&sb) : readByte(&sb), value) << prefix;
    EXPECT_EQ(state(), std::make_tuple(0, 0, 0u, 0u));
    EXPECT_EQ(recvExactly(pair.client, 4), hex("EEEEEEEE"));
  }
}

// A block larger than 1024 bytes goes straight into the caller's memory; quiet (level 2 and below), the bytes that
// follow it in the message come along into the buffer in the same recvmsg, and never a byte of the next message.
TEST_F(SocketBufferTest, ALargeBlockBringsWhatFollowsItOnlyWhenQuiet) {
  const Bytes block = pattern(3000, 5);
  for (size_t tail : {size_t{6}, size_t{2000}}) {
    for (int level : {0, 4}) {
      SCOPED_TRACE(testing::Message() << "tail " << tail << ", level " << level);
      const Bytes after = pattern(tail, 9);
      ASSERT_TRUE(sendAll(pair.peer, cat({block, after, hex("EEEEEEEE")})));
      TraceCapture trace(level);
      ASSERT_EQ(initReadBuffer(&sb, pair.client, uint32_t(block.size() + tail)), QVA_OK);
      Bytes into(block.size());
      readBytes(&sb, into.data(), uint32_t(into.size()));
      EXPECT_EQ(into, block);
      EXPECT_EQ(sb.bytesInBuffer, level == 0 ? tail : 0u);
      Bytes rest(tail);
      readBytes(&sb, rest.data(), uint32_t(tail));
      EXPECT_EQ(rest, after);
      EXPECT_EQ(state(), std::make_tuple(0, 0, 0u, 0u));
      EXPECT_EQ(recvExactly(pair.client, 4), hex("EEEEEEEE"));
    }
  }
}

// ---- Failures -------------------------------------------------------------------------------

// A failed buffer hands out and takes nothing, and leaves the next message unread. A reader that would run past
// the end of the message fails it rather than hand out stale bytes of an earlier one; a socket failure fails it
// with the errno (0 after an orderly close) and keeps what arrived before.
TEST_F(SocketBufferTest, AFailedBufferHandsOutNothing) {
  const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  const std::string malformed = "1546 markMalformed Reply in buffer 0x[0-9a-f]+ is shorter than its own lengths: ";
  const std::string recvFailed = "recv returned an error code: errno=";
  // How it fails, the failure, the errno, the bytes buffered, the bytes to come, the trace line.
  const std::tuple<const char *, int, int, uint32_t, uint32_t, std::string> cases[] = {
      {"readInt past the end", QVA_ERR_SYSTEM_ERROR, 0, 2, 0, malformed + "2 bytes left"},
      {"readBytes past the end", QVA_ERR_SYSTEM_ERROR, 0, 0, 0, malformed + "0 bytes left"},
      {"closed before the reply", QVA_ERR_LOSTGWCON, 0, 0, 12, "1543 fillBuffer " + recvFailed + "0"},
      {"closed mid-message", QVA_ERR_LOSTGWCON, 0, 6, 6, "1543 fillBuffer " + recvFailed + "0"},
      {"not a socket", QVA_ERR_LOSTGWCON, ENOTSOCK, 0, 12, "1543 fillBuffer " + recvFailed + std::to_string(ENOTSOCK)},
      {"a send to a closed peer", QVA_ERR_LOSTGWCON, EPIPE, 4, 8,
       "1528 flushBuffer Unable to send data to Gateway: errno=" + std::to_string(EPIPE)}};
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
    } else if (error == EPIPE) {
      p.closePeer();
      ASSERT_EQ(initWriteBuffer(&sb, p.client, 8), QVA_OK);
      writeInt(&sb, 1);
      EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
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
    writeInt(&sb, 2);
    EXPECT_EQ(sb.bytesInBuffer, buffered) << "no more small values";
    EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
    EXPECT_EQ(countLines(trace.text(), std::stoi(line), "*EXC*", "clapi_socketbuffer\\." + line.substr(5)), 1)
        << trace.text();
    if (failure == QVA_ERR_SYSTEM_ERROR) {
      EXPECT_EQ(recvExactly(p.client, 4), hex("00000002")) << "the next message";
    }
  }
  ::close(devNull);
}

}  // namespace
