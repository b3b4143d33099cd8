// Socket buffers over a socketpair: what reaches the peer byte for byte, how
// reads are served from the buffer or the socket, the sticky failed state,
// buffer reuse and allocation failure.

#include <gtest/gtest.h>

#include <fcntl.h>

#include <cerrno>

#include "clapi_diag.h"
#include "clapi_socketbuffer.h"
#include "wire_support.h"

namespace {

using wire::Bytes;
using wire::hex;

class SocketBufferTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (sb.buffer != nullptr) freeBuffer(&sb);
  }
  bool isZeroed() const {
    SocketBuffer zero{};
    return std::memcmp(&sb, &zero, sizeof sb) == 0;
  }
  wire::SocketPair pair;
  SocketBuffer sb{};
};

// ---- Initialisation --------------------------------------------------------------

TEST_F(SocketBufferTest, InitWriteBufferCapsTheBufferAt1024AndKeepsTheFullLength) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 5000), QVA_OK);
  EXPECT_EQ(std::memcmp(sb.eyeCatcher, "QVASCKBF", 8), 0);
  EXPECT_EQ(sb.socketDesc, pair.client);
  EXPECT_EQ(sb.bufferSize, 1024u);
  EXPECT_EQ(sb.bytesRemaining, 5000u);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.cursor, sb.buffer);
  EXPECT_EQ(sb.lastErrno, 0);
  EXPECT_EQ(sb.failure, 0);
}

TEST_F(SocketBufferTest, InitReadBufferLeavesTheCursorForFillBuffer) {
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 40), QVA_OK);
  EXPECT_EQ(sb.bufferSize, 40u);
  EXPECT_EQ(sb.bytesRemaining, 40u);
  EXPECT_EQ(sb.cursor, nullptr);
}

TEST_F(SocketBufferTest, BufferIsReusedAndNeverShrinksWithTheDebugLinesToSayWhich) {
  wire::TraceFile trace(4);
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
  std::string text = trace.text();

  EXPECT_EQ(wire::traceLines(text, 1502, "DEBUG",
                             "clapi_socketbuffer\\.initWriteBuffer Allocated new buffer of 100 bytes$")
                .size(),
            1u)
      << text;
  EXPECT_EQ(wire::traceLines(text, 1513, "DEBUG",
                             "clapi_socketbuffer\\.initReadBuffer Reusing existing buffer of 100 bytes$")
                .size(),
            1u);
  EXPECT_EQ(wire::traceLines(text, 1512, "DEBUG",
                             "clapi_socketbuffer\\.initReadBuffer Allocated new buffer of 1024 bytes$")
                .size(),
            1u);
  EXPECT_EQ(wire::traceLines(text, 1503, "DEBUG",
                             "clapi_socketbuffer\\.initWriteBuffer Reusing existing buffer of 1024 bytes$")
                .size(),
            1u);
}

TEST_F(SocketBufferTest, ReinitialisingEndsTheFailedState) {
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 4), QVA_OK);
  ::close(pair.peer);
  pair.peer = -1;
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  ASSERT_NE(sb.failure, 0);
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 4), QVA_OK);
  EXPECT_EQ(sb.failure, 0);
  EXPECT_EQ(sb.lastErrno, 0);
}

// ---- Allocation failure -------------------------------------------------------------

bool failSocketBuffers(uint32_t, const char *tag) { return tag != nullptr && std::strncmp(tag, "SCKB", 4) == 0; }

struct AllocFailGuard {
  AllocFailGuard() { setAllocFailHook(failSocketBuffers); }
  ~AllocFailGuard() { setAllocFailHook(nullptr); }
};

TEST_F(SocketBufferTest, AllocationFailureGivesMallocFailWithItsExceptionLine) {
  wire::TraceFile trace(1);
  {
    AllocFailGuard failing;
    EXPECT_EQ(initWriteBuffer(&sb, pair.client, 5000), QVA_ERR_MALLOCFAIL);
    EXPECT_EQ(initReadBuffer(&sb, pair.client, 20), QVA_ERR_MALLOCFAIL);
  }
  std::string text = trace.text();
  EXPECT_EQ(wire::traceLines(text, 1501, "*EXC*",
                             "clapi_socketbuffer\\.initWriteBuffer Failed to malloc 1024 bytes for buffer$")
                .size(),
            1u)
      << text;
  EXPECT_EQ(wire::traceLines(text, 1511, "*EXC*",
                             "clapi_socketbuffer\\.initReadBuffer Failed to malloc 20 bytes for buffer$")
                .size(),
            1u)
      << text;
}

TEST_F(SocketBufferTest, FailedGrowthForgetsTheReleasedBufferSoFreeCannotReleaseItTwice) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 100), QVA_OK);
  {
    AllocFailGuard failing;
    EXPECT_EQ(initReadBuffer(&sb, pair.client, 2000), QVA_ERR_MALLOCFAIL);
  }
  EXPECT_EQ(sb.buffer, nullptr);
  EXPECT_EQ(sb.bufferSize, 0u);
  // Under AddressSanitizer a second release of the old block would abort here.
  EXPECT_EQ(freeBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
}

// ---- freeBuffer -----------------------------------------------------------------------

TEST_F(SocketBufferTest, FreeBufferOnAZeroedRecordFailsAndLeavesItZeroed) {
  EXPECT_EQ(freeBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
  EXPECT_TRUE(isZeroed());
}

TEST_F(SocketBufferTest, FreeBufferReleasesAndZeroesTheRecord) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 64), QVA_OK);
  writeInt(&sb, 7);
  EXPECT_EQ(freeBuffer(&sb), QVA_OK);
  EXPECT_TRUE(isZeroed());
}

// ---- Writing ------------------------------------------------------------------------------

TEST_F(SocketBufferTest, SmallWritersStoreBigEndianAtAnyPosition) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 20), QVA_OK);
  writeByte(&sb, 0xAB);
  writeInt(&sb, 0x01020304);          // offset 1
  writeShort(&sb, -2);                // offset 5
  writeInt(&sb, -1);                  // offset 7
  writeByte(&sb, 0x00);               // offset 11
  writeShort(&sb, 0x1234);            // offset 12
  writeInt(&sb, static_cast<int32_t>(0x80000001u));  // offset 14
  writeShort(&sb, 0x7F00);            // offset 18
  EXPECT_EQ(sb.bytesInBuffer, 20u);
  EXPECT_EQ(wire::pendingBytes(pair.peer), 0) << "nothing is sent before the flush";
  ASSERT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(wire::recvExactly(pair.peer, 20), hex("AB 01020304 FFFE FFFFFFFF 00 1234 80000001 7F00"));
  EXPECT_EQ(wire::pendingBytes(pair.peer), 0);
}

TEST_F(SocketBufferTest, FlushOfAnEmptyBufferSendsNothing) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 10), QVA_OK);
  EXPECT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(wire::pendingBytes(pair.peer), 0);
}

TEST_F(SocketBufferTest, SmallWriterFlushesFirstWhenTheValueWouldNotFit) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 1027), QVA_OK);
  const Bytes head = wire::pattern(1023);
  writeBytes(&sb, head.data(), 1023);
  EXPECT_EQ(wire::pendingBytes(pair.peer), 0);
  writeInt(&sb, 0x0A0B0C0D);
  EXPECT_EQ(wire::recvExactly(pair.peer, 1023), head) << "the buffered bytes go first";
  EXPECT_EQ(sb.bytesInBuffer, 4u);
  ASSERT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(wire::recvExactly(pair.peer, 4), hex("0A0B0C0D"));
  EXPECT_EQ(sb.bytesRemaining, 0u);
}

TEST_F(SocketBufferTest, WritingABufferfulBehindTenBufferedBytesFlushesTheTenFirst) {
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 1034), QVA_OK);
  const Bytes ten = wire::pattern(10, 100);
  const Bytes block = wire::pattern(1024, 7);
  writeBytes(&sb, ten.data(), 10);
  writeBytes(&sb, block.data(), 1024);
  EXPECT_EQ(wire::pendingBytes(pair.peer), 10);
  EXPECT_EQ(wire::recvExactly(pair.peer, 10), ten);
  EXPECT_EQ(sb.bytesInBuffer, 1024u) << "the block is held in the emptied buffer";
  EXPECT_EQ(sb.bytesRemaining, 1024u);
  EXPECT_EQ(std::memcmp(sb.buffer, block.data(), 1024), 0);
  ASSERT_EQ(flushBuffer(&sb), QVA_OK);
  EXPECT_EQ(wire::recvExactly(pair.peer, 1024), block);
  EXPECT_EQ(sb.bytesRemaining, 0u);
}

TEST_F(SocketBufferTest, ABlockLargerThanTheBufferIsSentStraightFromTheCallersMemory) {
  wire::TraceFile trace(4);
  ASSERT_EQ(initWriteBuffer(&sb, pair.client, 1035), QVA_OK);
  const Bytes ten = wire::pattern(10, 50);
  const Bytes block = wire::pattern(1025, 3);
  writeBytes(&sb, ten.data(), 10);
  writeBytes(&sb, block.data(), 1025);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(wire::recvExactly(pair.peer, 1035), wire::cat({ten, block})) << "in order";
  EXPECT_EQ(wire::pendingBytes(pair.peer), 0);
  std::string text = trace.text();
  char expected[160];
  std::snprintf(expected, sizeof expected,
                "clapi_socketbuffer\\.writeBytes Data too large for buffer 0x[0-9a-f]+, writing to socket %d$",
                pair.client);
  EXPECT_EQ(wire::traceLines(text, 1562, "DEBUG", expected).size(), 1u) << text;
  EXPECT_EQ(wire::traceLines(text, 1564, "DEBUG", "clapi_socketbuffer\\.writeBytes Sent 1025 bytes, 0 bytes remaining$")
                .size(),
            1u);
}

TEST_F(SocketBufferTest, MaskedPasswordIsStarredInTheFlushDumpAndSentAsItIs) {
  const std::string password = "S3cr3tPassw0rd!!";
  {
    wire::TraceFile trace(4);
    ASSERT_EQ(initWriteBuffer(&sb, pair.client, 25), QVA_OK);
    writeInt(&sb, 0x11223344);
    writeBytesMasked(&sb, password.data(), 16);
    writeInt(&sb, 0x55667788);
    writeByte(&sb, 0x99);
    ASSERT_EQ(flushBuffer(&sb), QVA_OK);
    std::string text = trace.text();

    EXPECT_EQ(text.find(password), std::string::npos);
    EXPECT_EQ(text.find("S3cr3t"), std::string::npos);
    auto all = wire::dumps(text);
    ASSERT_EQ(all.size(), 1u) << text;
    EXPECT_TRUE(std::regex_search(all[0].header, std::regex(wire::linePrefix(1526, "DATA") +
                                                            "clapi_socketbuffer\\.flushBuffer data=0x[0-9a-f]+ "
                                                            "len=25 stopword=00000000$")))
        << all[0].header;
    EXPECT_EQ(all[0].bytes, wire::cat({wire::hex("11223344"), wire::fill(16, '*'), wire::hex("55667788 99")}));
    EXPECT_FALSE(wire::contains(wire::allDumpedBytes(text), wire::ascii(password)));
  }
  EXPECT_EQ(wire::recvExactly(pair.peer, 25),
            wire::cat({wire::hex("11223344"), wire::ascii(password), wire::hex("55667788 99")}));
}

TEST_F(SocketBufferTest, SendFailureLatchesTheErrnoAndStopsLaterWrites) {
  ::close(pair.peer);
  pair.peer = -1;
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
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("FFFFFFFE 8001 7F 01020304 FF")));
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

// A message of 1030 bytes: the first fill takes 1024; values that straddle
// the end of the buffer are completed by a refill.
TEST_F(SocketBufferTest, IntegersStraddlingARefillAreReassembled) {
  Bytes message = wire::cat({wire::pattern(1021), hex("A1B2C3D4 E5F6 17 28")});
  ASSERT_EQ(message.size(), 1029u);
  ASSERT_TRUE(wire::sendAllTo(pair.peer, message));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 1029), QVA_OK);
  Bytes head(1021);
  readBytes(&sb, head.data(), 1021);
  EXPECT_EQ(head, wire::pattern(1021));
  EXPECT_EQ(sb.bytesInBuffer, 3u);
  EXPECT_EQ(sb.bytesRemaining, 5u);
  EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xA1B2C3D4u));
  EXPECT_EQ(readShort(&sb), static_cast<int16_t>(0xE5F6));
  EXPECT_EQ(readByte(&sb), 0x17);
  EXPECT_EQ(readByte(&sb), 0x28);
  EXPECT_EQ(sb.failure, 0);
}

TEST_F(SocketBufferTest, ShortStraddlingARefillIsReassembled) {
  Bytes message = wire::cat({wire::pattern(1023), hex("9A BC DE")});
  ASSERT_TRUE(wire::sendAllTo(pair.peer, message));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 1026), QVA_OK);
  Bytes head(1023);
  readBytes(&sb, head.data(), 1023);
  EXPECT_EQ(readShort(&sb), static_cast<int16_t>(0x9ABC));
  EXPECT_EQ(readByte(&sb), 0xDE);
  EXPECT_EQ(sb.failure, 0);
}

TEST_F(SocketBufferTest, ReadBytesAllBufferedDoesNotTouchTheSocket) {
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("00000001 0102030405060708 AA")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 13), QVA_OK);
  EXPECT_EQ(readInt(&sb), 1);
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("EE EE EE EE")));  // not part of the message
  Bytes out(8);
  readBytes(&sb, out.data(), 8);
  EXPECT_EQ(out, hex("0102030405060708"));
  EXPECT_EQ(sb.bytesInBuffer, 1u);
  EXPECT_EQ(wire::pendingBytes(pair.client), 4);
}

TEST_F(SocketBufferTest, ReadBytesPartlyBufferedIsCompletedByARefill) {
  const Bytes message = wire::pattern(1100, 9);
  ASSERT_TRUE(wire::sendAllTo(pair.peer, message));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 1100), QVA_OK);
  Bytes first(1000);
  readBytes(&sb, first.data(), 1000);  // the fill takes 1024 bytes
  EXPECT_EQ(sb.bytesInBuffer, 24u);
  Bytes second(50);
  readBytes(&sb, second.data(), 50);  // 24 buffered, 26 after a refill of 76
  EXPECT_EQ(first, wire::slice(message, 0, 1000));
  EXPECT_EQ(second, wire::slice(message, 1000, 50));
  EXPECT_EQ(sb.bytesInBuffer, 50u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  Bytes rest(50);
  readBytes(&sb, rest.data(), 50);
  EXPECT_EQ(rest, wire::slice(message, 1050, 50));
  EXPECT_EQ(sb.failure, 0);
}

TEST_F(SocketBufferTest, ReadBytesLargerThanTheBufferComesStraightFromTheSocket) {
  wire::TraceFile trace(4);
  const Bytes message = wire::pattern(3000, 5);
  ASSERT_TRUE(wire::sendAllTo(pair.peer, message));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 3000), QVA_OK);
  Bytes head(4);
  readBytes(&sb, head.data(), 4);  // fills 1024, 1020 left buffered
  Bytes rest(2996);
  readBytes(&sb, rest.data(), 2996);
  EXPECT_EQ(wire::cat({head, rest}), message);
  EXPECT_EQ(sb.bytesInBuffer, 0u);
  EXPECT_EQ(sb.bytesRemaining, 0u);
  EXPECT_EQ(sb.failure, 0);
  std::string text = trace.text();
  char expected[200];
  std::snprintf(expected, sizeof expected,
                "clapi_socketbuffer\\.readBytes Read 1020 bytes from buffer 0x[0-9a-f]+, 1976 bytes from socket %d, 0 "
                "bytes remaining$",
                pair.client);
  EXPECT_EQ(wire::traceLines(text, 1533, "DEBUG", expected).size(), 1u) << text;
}

// ---- Short and closed replies --------------------------------------------------------------

TEST_F(SocketBufferTest, ReadIntPastTheEndOfTheMessageFailsInsteadOfReturningStaleBytes) {
  // A first message leaves recognisable bytes in the buffer.
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("DEADBEEF CAFEBABE")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 8), QVA_OK);
  EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xDEADBEEFu));
  EXPECT_EQ(readInt(&sb), static_cast<int32_t>(0xCAFEBABEu));
  // The second announces 6 bytes; the second int would run past them.
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("00000005 0006")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 6), QVA_OK);
  EXPECT_EQ(readInt(&sb), 5);
  EXPECT_EQ(readInt(&sb), 0);
  EXPECT_EQ(sb.failure, QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(sb.lastErrno, 0);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_SYSTEM_ERROR);
}

TEST_F(SocketBufferTest, ReadBytesPastTheEndOfTheMessageFails) {
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("0102030405")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 5), QVA_OK);
  Bytes out(8, 0x77);
  readBytes(&sb, out.data(), 8);
  EXPECT_EQ(sb.failure, QVA_ERR_SYSTEM_ERROR);
  EXPECT_EQ(readByte(&sb), 0);
}

TEST_F(SocketBufferTest, ReadIntOnAFailedBufferReturnsZeroAndLeavesTheSocketAlone) {
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("00000001 00000002")));
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 4), QVA_OK);
  EXPECT_EQ(readInt(&sb), 1);
  EXPECT_EQ(readInt(&sb), 0);  // past the announced 4 bytes: failed
  ASSERT_NE(sb.failure, 0);
  EXPECT_EQ(readInt(&sb), 0);
  EXPECT_EQ(readShort(&sb), 0);
  EXPECT_EQ(readByte(&sb), 0);
  Bytes out(4, 0x77);
  readBytes(&sb, out.data(), 4);
  EXPECT_EQ(out, Bytes(4, 0x77));
  EXPECT_EQ(wire::pendingBytes(pair.client), 4) << "the next message's bytes are still unread";
}

TEST_F(SocketBufferTest, PeerClosingWhileAReplyIsAwaitedFailsFillBufferAndLatches) {
  wire::TraceFile trace(1);
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 33), QVA_OK);
  ::close(pair.peer);
  pair.peer = -1;
  EXPECT_EQ(waitForResponse(&sb), QVA_OK) << "the close wakes the wait";
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.lastErrno, 0) << "an orderly close leaves errno 0";
  EXPECT_EQ(sb.failure, QVA_ERR_LOSTGWCON) << "and still latches the failure";
  EXPECT_EQ(readInt(&sb), 0);
  EXPECT_EQ(readShort(&sb), 0);
  EXPECT_EQ(readByte(&sb), 0);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  std::string text = trace.text();
  EXPECT_EQ(wire::traceLines(text, 1543, "*EXC*", "clapi_socketbuffer\\.fillBuffer recv returned an error code: errno=0$")
                .size(),
            1u)
      << text;
}

TEST_F(SocketBufferTest, PeerClosingMidMessageKeepsWhatArrivedAndFails) {
  ASSERT_TRUE(wire::sendAllTo(pair.peer, hex("00000001 0002")));
  ::close(pair.peer);
  pair.peer = -1;
  ASSERT_EQ(initReadBuffer(&sb, pair.client, 12), QVA_OK);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.bytesInBuffer, 6u);
  EXPECT_EQ(sb.bytesRemaining, 6u);
  EXPECT_EQ(readInt(&sb), 0) << "nothing is handed out of a failed buffer";
}

TEST_F(SocketBufferTest, RecvErrorLatchesItsErrno) {
  int devnull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  ASSERT_GE(devnull, 0);
  ASSERT_EQ(initReadBuffer(&sb, devnull, 8), QVA_OK);
  EXPECT_EQ(fillBuffer(&sb), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(sb.lastErrno, ENOTSOCK);
  EXPECT_EQ(readInt(&sb), 0);
  ::close(devnull);
}

}  // namespace
