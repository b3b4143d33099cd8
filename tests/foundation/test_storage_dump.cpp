// Storage dumps: the line shape, the address column, offset and truncation,
// and the stop-word mode of the line writers. The dump functions write to the
// current trace stream whatever the level, so the fixture's file receives them.

#include <cstring>

#include "clapi_diag.h"
#include "trace_fixture.h"

namespace {

using qvatest::TraceFileTest;
using Lines = std::vector<std::string>;

std::string addressColumn(const void *p) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%8.8X: ", low32(p));
  return text;
}

using StorageDumpTest = TraceFileTest;

TEST_F(StorageDumpTest, SixteenBytesGiveOneFullLine) {
  alignas(16) const uint8_t data[16] = {'H', 'e', 'l', 'l', 'o', ',', ' ', 'w',
                                        'o', 'r', 'l', 'd', '!', '\n', 0, 0};
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 16u);
  EXPECT_EQ(all(), (Lines{"Data truncation size=128, offset=0",
                          addressColumn(data) + "48656C6C 6F2C2077 6F726C64 210A0000 : Hello, world!... "}));
}

TEST_F(StorageDumpTest, ShortLastLineIsPaddedInHexAndNotInCharacters) {
  const uint8_t data[20] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9',
                            'A', 'B', 'C', 'D', 'E', 'F', 'w', 'x', 'y', 'z'};
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 20u);
  EXPECT_EQ(all(), (Lines{"Data truncation size=128, offset=0",
                          addressColumn(data) + "30313233 34353637 38394142 43444546 : 0123456789ABCDEF ",
                          addressColumn(data + 16) + "7778797A" + std::string(27, ' ') + " : wxyz"}));
}

TEST_F(StorageDumpTest, OffsetStartsTheDumpAtThatByteAndItsAddress) {
  const uint8_t data[20] = {0, 1, 2, 3, 4, 5, 6, 7, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l'};
  QVA_setAPITraceDataOffset(8);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 12u);
  EXPECT_EQ(all(), (Lines{"Data truncation size=128, offset=8",
                          addressColumn(data + 8) + "61626364 65666768 696A6B6C " + std::string(8, ' ') +
                              " : abcdefghijkl"}));
}

TEST_F(StorageDumpTest, OffsetAtOrPastTheEndDumpsOnlyTheHeader) {
  const uint8_t data[20] = {};
  QVA_setAPITraceDataOffset(20);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 0u);
  QVA_setAPITraceDataOffset(25);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 0u);
  EXPECT_EQ(all(), (Lines{"Data truncation size=128, offset=20", "Data truncation size=128, offset=25"}));
}

TEST_F(StorageDumpTest, TruncationLimitsTheBytesShown) {
  uint8_t data[300];
  for (size_t i = 0; i < sizeof data; ++i) data[i] = static_cast<uint8_t>('a' + i % 26);

  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 128u);  // the default
  EXPECT_EQ(all().size(), 1u + 8u);

  mark();
  QVA_setAPITraceDataLength(0);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 300u);
  Lines whole = sinceMark();
  ASSERT_EQ(whole.size(), 1u + 19u);
  EXPECT_EQ(whole[0], "Data truncation size=0, offset=0");
  EXPECT_EQ(whole[19].substr(0, 12), addressColumn(data + 288));

  mark();
  QVA_setAPITraceDataLength(5);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 5u);
  EXPECT_EQ(sinceMark(), (Lines{"Data truncation size=5, offset=0",
                                addressColumn(data) + "61626364 65" + std::string(24, ' ') + " : abcde"}));

  mark();
  QVA_setAPITraceDataOffset(4);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 5u);
  EXPECT_EQ(sinceMark(), (Lines{"Data truncation size=5, offset=4",
                                addressColumn(data + 4) + "65666768 69" + std::string(24, ' ') + " : efghi"}));
}

TEST_F(StorageDumpTest, UnprintableBytesShowAsDots) {
  const uint8_t data[8] = {0x00, 0x7F, 0x1F, 0x80, 0xFF, 0x20, 'A', '~'};
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 8u);
  EXPECT_EQ(all(), (Lines{"Data truncation size=128, offset=0",
                          addressColumn(data) + "007F1F80 FF20417E" + std::string(18, ' ') + " : ..... A~"}));
}

TEST_F(StorageDumpTest, LineWritersStopAtTheStopWordWhenCountIsZero) {
  // The writers read a 32-bit word at each position, so the buffer covers
  // a whole line plus three bytes.
  uint8_t data[32] = {};
  const uint8_t head[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
  std::memcpy(data, head, sizeof head);
  const uint8_t stop[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  std::memcpy(data + 6, stop, sizeof stop);
  uint32_t stopWord;
  std::memcpy(&stopWord, stop, sizeof stopWord);

  EXPECT_EQ(clapiWriteStorageLineHex(data, 16, 0, stopWord, 1), 6);
  std::fputc('|', clientAPITraceHandle);
  EXPECT_EQ(clapiWriteStorageLineChar(data, 16, 0, stopWord, 1), 6);
  std::fputc('\n', clientAPITraceHandle);
  EXPECT_EQ(clapiWriteStorageLineDual(data, 16, 0, stopWord, 1), 6);
  std::fflush(clientAPITraceHandle);
  const std::string hex = "61626364 6566" + std::string(22, ' ');
  EXPECT_EQ(all(), (Lines{hex + "|abcdef", hex + " : abcdef"}));
}

TEST_F(StorageDumpTest, StopWordAtTheFirstByteShowsNothing) {
  uint8_t data[20] = {};
  std::memset(data, 0x41, sizeof data);
  EXPECT_EQ(clapiWriteStorageLineHex(data, 16, 0, 0x41414141u, 1), 0);
  std::fflush(clientAPITraceHandle);
  EXPECT_EQ(all(), (Lines{std::string(35, ' ')}));
}

}  // namespace
