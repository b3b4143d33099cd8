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
  SocketPair pair;
  SocketBuffer sb{};
};

// ---- Set-up, reuse and release --------------------------------------------------

TEST_F(SocketBufferTest, InitCapsTheBufferAt1024AndKeepsTheFullLength) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 5000), QVA_OK);
  EXPECT_EQ(std::memcmp(sb.eyeCatcher, "QVASCKBF", 8), 0);
  EXPECT_EQ(sb.socketDesc, pair.client);
  EXPECT_EQ(sb.bufferSize, 1024u);
  EXPECT_EQ(sb.bytesRemaining, 5000u);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.cursor, sb.buffer);
  EXPECT_EQ(sb.lastErrno, 0);
  EXPECT_EQ(sb.failure, 0);
  freeBuffer(&sb);
  // A read buffer leaves the cursor for fillBuffer.
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 40), QVA_OK);
  EXPECT_EQ(sb.bufferSize, 40u);
  EXPECT_EQ(sb.bytesRemaining, 40u);
  EXPECT_EQ(sb.cursor, nullptr);
}

TEST_F(SocketBufferTest, BufferIsReusedAndNeverShrinksWithTheDebugLinesToSayWhich) {
  TraceCapture trace(4);
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 100), QVA_OK);
  uint8_t *first = sb.buffer;
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 50), QVA_OK);
  EXPECT_EQ(sb.buffer, first);
  EXPECT_EQ(sb.bufferSize, 100u);
  EXPECT_EQ(sb.bytesRemaining, 50u);
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 5000), QVA_OK);
  EXPECT_EQ(sb.bufferSize, 1024u);
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 2000), QVA_OK);
  EXPECT_EQ(sb.bufferSize, 1024u);
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  const std::string text = trace.text();
  EXPECT_EQ(countLines(text, 1502, "DEBUG", R"(clapi_socketbuffer\.initWriteBuffer Allocated new buffer of 100 bytes)"), 1)
      << text;
  EXPECT_EQ(countLines(text, 1513, "DEBUG", R"(clapi_socketbuffer\.initReadBuffer Reusing existing buffer of 100 bytes)"), 1);
  EXPECT_EQ(countLines(text, 1512, "DEBUG", R"(clapi_socketbuffer\.initReadBuffer Allocated new buffer of 1024 bytes)"), 1);
  EXPECT_EQ(countLines(text, 1503, "DEBUG", R"(clapi_socketbuffer\.initWriteBuffer Reusing existing buffer of 1024 bytes)"),
            1);
}

TEST_F(SocketBufferTest, ReinitialisingEndsTheFailedState) {
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 4), QVA_OK);
  pair.closePeer();
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  ASSERT_NE(sb.failure, 0);
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 4), QVA_OK);
  EXPECT_EQ(sb.failure, 0);
  EXPECT_EQ(sb.lastErrno, 0);
}

TEST_F(SocketBufferTest, AllocationFailureGivesMallocFailWithItsExceptionLine) {
  TraceCapture trace(1);
  {
    FailSocketBufferAllocs failing;
    EXPECT_EQ(initWriteBuffer(&sb, pair.client, 5000), QVA_ERR_MALLOCFAIL);
    EXPECT_EQ(initReadBuffer(&sb, pair.client, 20), QVA_ERR_MALLOCFAIL);
  }
  const std::string text = trace.text();
  EXPECT_EQ(countLines(text, 1501, "*EXC*", R"(clapi_socketbuffer\.initWriteBuffer Failed to malloc 1024 bytes for buffer)"),
            1)
      << text;
  EXPECT_EQ(countLines(text, 1511, "*EXC*", R"(clapi_socketbuffer\.initReadBuffer Failed to malloc 20 bytes for buffer)"), 1)
      << text;
}

TEST_F(SocketBufferTest, FailedGrowthForgetsTheReleasedBufferSoFreeCannotReleaseItTwice) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 100), QVA_OK);
  {
    FailSocketBufferAllocs failing;
    EXPECT_EQ(initReadBuffer(&sb, pair.client, 2000), QVA_ERR_MALLOCFAIL);
  }
  EXPECT_EQ(sb.buffer, nullptr);
  EXPECT_EQ(sb.bufferSize, 0u);
  // Under AddressSanitizer a second release of the old block would abort here.
  EXPECT_EQ(freeBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
}

TEST_F(SocketBufferTest, FreeBufferReleasesAndZeroesTheRecordAndRefusesAZeroedOne) {
  EXPECT_EQ(freeBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
  EXPECT_TRUE(isZeroed());
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 64), QVA_OK);
  writeInt(&sb, 7);
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  EXPECT_TRUE(isZeroed());
}

// ---- Writing ------------------------------------------------------------------------------

TEST_F(SocketBufferTest, SmallWritersStoreBigEndianAtAnyPositionAndWaitForTheFlush) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 20), QVA_OK);
  EXPECT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(pendingBytes(pair.peer), 0) << "an empty flush sends nothing";
  writeByte(&sb, 0xAB);
  writeInt(&sb, 0x01020304);          // offset 1
  writeShort(&sb, -2);                // offset 5
  writeInt(&sb, -1);                  // offset 7
  writeByte(&sb, 0x00);               // offset 11
  writeShort(&sb, 0x1234);            // offset 12
  writeInt(&sb, static_cast<int32_t>(0x80000001u));  // offset 14
  writeShort(&sb, 0x7F00);            // offset 18
  EXPECT_EQ(sb.bytesInBuffer, 20u);
  EXPECT_EQ(pendingBytes(pair.peer), 0) << "nothing is sent before the flush";
  ASSERT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(recvExactly(pair.peer, 20), hex("AB 01020304 FFFE FFFFFFFF 00 1234 80000001 7F00"));
  EXPECT_EQ(pendingBytes(pair.peer), 0);
}

TEST_F(SocketBufferTest, SmallWriterFlushesFirstWhenTheValueWouldNotFit) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 1027), QVA_OK);
  const Bytes head = pattern(1023);
  writeBytes(&sb, head.data(), 1023);
  EXPECT_EQ(pendingBytes(pair.peer), 0);
  writeInt(&sb, 0x0A0B0C0D);
  EXPECT_EQ(recvExactly(pair.peer, 1023), head) << "the buffered bytes go first";
  EXPECT_EQ(sb.bytesInBuffer, 4u);
  ASSERT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(recvExactly(pair.peer, 4), hex("0A0B0C0D"));
  EXPECT_EQ(sb.bytesRemaining, 0u);
}

TEST_F(SocketBufferTest, WritingABufferfulBehindTenBufferedBytesFlushesTheTenFirst) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 1034), QVA_OK);
  const Bytes ten = pattern(10, 100);
  const Bytes block = pattern(1024, 7);
  writeBytes(&sb, ten.data(), 10);
  writeBytes(&sb, block.data(), 1024);
  EXPECT_EQ(pendingBytes(pair.peer), 10);
  EXPECT_EQ(recvExactly(pair.peer, 10), ten);
  EXPECT_EQ(sb.bytesInBuffer, 1024u) << "the block is held in the emptied buffer";
  EXPECT_EQ(sb.bytesRemaining, 1024u);
  EXPECT_EQ(std::memcmp(sb.buffer, block.data(), 1024), 0);
  ASSERT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(recvExactly(pair.peer, 1024), block);
  EXPECT_EQ(sb.bytesRemaining, 0u);
}

TEST_F(SocketBufferTest, ABlockLargerThanTheBufferIsSentStraightFromTheCallersMemory) {
  TraceCapture trace(4);
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 1035), QVA_OK);
  const Bytes ten = pattern(10, 50);
  const Bytes block = pattern(1025, 3);
  writeBytes(&sb, ten.data(), 10);
  writeBytes(&sb, block.data(), 1025);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(recvExactly(pair.peer, 1035), cat({ten, block})) << "in order";
  EXPECT_EQ(pendingBytes(pair.peer), 0);
  const std::string text = trace.text();
  EXPECT_EQ(countLines(text, 1562, "DEBUG",
                       R"(clapi_socketbuffer\.writeBytes Data too large for buffer 0x[0-9a-f]+, writing to socket )" +
                           std::to_string(pair.client)),
            1)
      << text;
  EXPECT_EQ(countLines(text, 1564, "DEBUG", R"(clapi_socketbuffer\.writeBytes Sent 1025 bytes, 0 bytes remaining)"), 1);
}

TEST_F(SocketBufferTest, SendFailureLatchesTheErrnoAndStopsLaterWrites) {
  pair.closePeer();
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 8), QVA_OK);
  writeInt(&sb, 1);
  EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.lastErrno, EPIPE);
  EXPECT_EQ(sb.failure, QVA_ERR_LOSTGWCON);
  writeInt(&sb, 2);
  EXPECT_EQ(sb.bytesInBuffer, 4u) << "a failed buffer takes no more small values";
  EXPECT_EQ(flushBuffer(&sb), QVA_ERR_LOSTGWCON);
}

// ---- Reading ---------------------------------------------------------------------------------

TEST_F(SocketBufferTest, SmallReadersDecodeBigEndian) {
  ASSERT_TRUE(sendAll(pair.peer, hex("FFFFFFFE 8001 7F 01020304 FF")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 12), QVA_OK);
  EXPECT_EQ(readInt(&sb), -2);
  EXPECT_EQ(readShort(&sb), static_cast<int16_t>(-32767));
  EXPECT_EQ(readByte(&sb), 0x7F);
  EXPECT_EQ(readInt(&sb), 0x01020304);
  EXPECT_EQ(readByte(&sb), 0xFF);
  EXPECT_EQ(sb.failure, 0);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
}

// The first fill takes 1024 bytes; values that straddle the end of the
// buffer are completed by a refill.
TEST_F(SocketBufferTest, ValuesStraddlingARefillAreReassembled) {
  ASSERT_TRUE(sendAll(pair.peer, cat({pattern(1021), hex("A1B2C3D4 E5F6 17 28")})));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 1029), QVA_OK);
  EXPECT_EQ(readN(1021), pattern(1021));
  EXPECT_EQ(sb.bytesInBuffer, 3u);
  EXPECT_EQ(sb.bytesRemaining, 5u);
  EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xA1B2C3D4u));
  EXPECT_EQ(readShort(&sb), static_cast<int16_t>(0xE5F6));
  EXPECT_EQ(readByte(&sb), 0x17);
  EXPECT_EQ(readByte(&sb), 0x28);

  ASSERT_TRUE(sendAll(pair.peer, cat({pattern(1023), hex("9A BC DE")})));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 1026), QVA_OK);
  readN(1023);
  EXPECT_EQ(readShort(&sb), static_cast<int16_t>(0x9ABC));
  EXPECT_EQ(readByte(&sb), 0xDE);
  EXPECT_EQ(sb.failure, 0);
}

TEST_F(SocketBufferTest, ReadBytesAllBufferedDoesNotTouchTheSocket) {
  ASSERT_TRUE(sendAll(pair.peer, hex("00000001 0102030405060708 AA")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 13), QVA_OK);
  EXPECT_EQ(readInt(&sb), 1);
  ASSERT_TRUE(sendAll(pair.peer, hex("EE EE EE EE")));  // not part of the message
  EXPECT_EQ(readN(8), hex("0102030405060708"));
  EXPECT_EQ(sb.bytesInBuffer, 1u);
  EXPECT_EQ(pendingBytes(pair.client), 4);
}

TEST_F(SocketBufferTest, ReadBytesPartlyBufferedIsCompletedByARefill) {
  const Bytes message = pattern(1100, 9);
  ASSERT_TRUE(sendAll(pair.peer, message));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 1100), QVA_OK);
  EXPECT_EQ(readN(1000), slice(message, 0, 1000));  // the fill takes 1024 bytes
  EXPECT_EQ(sb.bytesInBuffer, 24u);
  EXPECT_EQ(readN(50), slice(message, 1000, 50));  // 24 buffered, 26 after a refill of 76
  EXPECT_EQ(sb.bytesInBuffer, 50u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(readN(50), slice(message, 1050, 50));
  EXPECT_EQ(sb.failure, 0);
}

TEST_F(SocketBufferTest, ReadBytesLargerThanTheBufferComesStraightFromTheSocket) {
  TraceCapture trace(4);
  const Bytes message = pattern(3000, 5);
  ASSERT_TRUE(sendAll(pair.peer, message));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 3000), QVA_OK);
  const Bytes head = readN(4);  // fills 1024, 1020 left buffered
  EXPECT_EQ(cat({head, readN(2996)}), message);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(sb.failure, 0);
  const std::string text = trace.text();
  EXPECT_EQ(countLines(text, 1533, "DEBUG",
                       R"(clapi_socketbuffer\.readBytes Read 1020 bytes from buffer 0x[0-9a-f]+, 1976 bytes from socket )" +
                           std::to_string(pair.client) + ", 0 bytes remaining"),
            1)
      << text;
}

// ---- Short and closed replies --------------------------------------------------------------

TEST_F(SocketBufferTest, ReadIntPastTheEndOfTheMessageFailsInsteadOfReturningStaleBytes) {
  // A first message leaves recognisable bytes in the buffer.
  ASSERT_TRUE(sendAll(pair.peer, hex("DEADBEEF CAFEBABE")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 8), QVA_OK);
  EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xDEADBEEFu));
  EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xCAFEBABEu));
  // The second announces 6 bytes; the second int would run past them.
  ASSERT_TRUE(sendAll(pair.peer, hex("00000005 0006")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 6), QVA_OK);
  EXPECT_EQ(readInt(&sb), 5);
  EXPECT_EQ(readInt(&sb), 0);
  EXPECT_EQ(sb.failure, QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(sb.lastErrno, 0);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
}

TEST_F(SocketBufferTest, ReadingPastTheEndFailsAndAFailedBufferHandsOutNothing) {
  ASSERT_TRUE(sendAll(pair.peer, hex("0102030405 00000002")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 5), QVA_OK);
  EXPECT_EQ(readByte(&sb), 0x01);
  Bytes out(8, 0x77);
  readBytes(&sb, out.data(), 8);
  EXPECT_EQ(sb.failure, QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(readInt(&sb), 0);
  EXPECT_EQ(readShort(&sb), 0);
  EXPECT_EQ(readByte(&sb), 0);
  out.assign(4, 0x77);
  readBytes(&sb, out.data(), 4);
  EXPECT_EQ(out, Bytes(4, 0x77));
  EXPECT_EQ(pendingBytes(pair.client), 4) << "the next message's bytes are still unread";
}

TEST_F(SocketBufferTest, PeerClosingWhileAReplyIsAwaitedFailsFillBufferAndLatches) {
  TraceCapture trace(1);
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 33), QVA_OK);
  pair.closePeer();
  EXPECT_EQ(waitForResponse(&sb), QVA_OK) << "the close wakes the wait";
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.lastErrno, 0) << "an orderly close leaves errno 0";
  EXPECT_EQ(sb.failure, QVA_ERR_LOSTGWCON) << "and still latches the failure";
  EXPECT_EQ(readInt(&sb), 0);
  EXPECT_EQ(readByte(&sb), 0);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  const std::string text = trace.text();
  EXPECT_EQ(countLines(text, 1543, "*EXC*", R"(clapi_socketbuffer\.fillBuffer recv returned an error code: errno=0)"), 1)
      << text;
}

TEST_F(SocketBufferTest, PeerClosingMidMessageKeepsWhatArrivedAndFails) {
  ASSERT_TRUE(sendAll(pair.peer, hex("00000001 0002")));
  pair.closePeer();
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 12), QVA_OK);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.bytesInBuffer, 6u);
  EXPECT_EQ(sb.bytesRemaining, 6u);
  EXPECT_EQ(readInt(&sb), 0) << "nothing is handed out of a failed buffer";
}

TEST_F(SocketBufferTest, RecvErrorLatchesItsErrno) {
  const int devnull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  ASSERT_GE(devnull, 0);
  ASSERT_EQ(initReadBuffer(&sb, devnull, 8), QVA_OK);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.lastErrno, ENOTSOCK);
  EXPECT_EQ(readInt(&sb), 0);
  ::close(devnull);
}

}  // namespace
