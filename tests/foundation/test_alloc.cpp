// Guarded allocation: the block layout around the data, the guard checks of
// clapiFree and their trace lines, and the allocation-failure seam.

#include <cstring>
#include <vector>

#include "clapi_diag.h"
#include "trace_fixture.h"

namespace {

using qvatest::ptrText;
using qvatest::TraceFileTest;
using Lines = std::vector<std::string>;

using GuardedAllocTest = TraceFileTest;

std::string bytesAt(const void *p, size_t n) { return std::string(static_cast<const char *>(p), n); }

TEST_F(GuardedAllocTest, BlockHoldsLengthTagAndGuardsAroundTheData) {
  auto *data = static_cast<uint8_t *>(clapiMalloc(5, "SCKBXYZ"));
  ASSERT_NE(data, nullptr);
  uint32_t length = 0;
  std::memcpy(&length, data - 12, sizeof length);
  EXPECT_EQ(length, 5u);
  EXPECT_EQ(bytesAt(data - 8, 4), "SCKB");
  EXPECT_EQ(bytesAt(data - 4, 4), "PF>>");
  EXPECT_EQ(bytesAt(data + 5, 4), "<<SF");
  std::memset(data, 0xA5, 5);
  EXPECT_EQ(clapiFree(data), 0);
}

TEST_F(GuardedAllocTest, EmptyBlockHasSuffixRightBehindPrefix) {
  auto *data = static_cast<uint8_t *>(clapiMalloc(0, "CHAN"));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(bytesAt(data - 4, 8), "PF>><<SF");
  EXPECT_EQ(clapiFree(data), 0);
}

TEST_F(GuardedAllocTest, FullyWrittenBlocksAreAlignedForPointersAndFreeCleanly) {
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  mark();
  for (uint32_t length : {0u, 1u, 3u, 4u, 7u, 15u, 16u, 17u, 24u, 1000u, 65536u}) {
    auto *data = static_cast<uint8_t *>(clapiMalloc(length, "CDAT"));
    ASSERT_NE(data, nullptr) << length;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % alignof(void *), 0u) << length;
    std::memset(data, 0xFF, length);
    EXPECT_EQ(clapiFree(data), 0) << length;
  }
  EXPECT_EQ(sinceMark(), Lines{});
}

// The prefix is checked first, so damage at both ends is reported as prefix damage.
TEST_F(GuardedAllocTest, DamageAroundTheDataIsReportedWithTheEndItHit) {
  struct Case {
    uint32_t length;
    std::vector<int> damaged;  // offsets from the data
    const char *end;
  };
  for (const Case &c : {Case{10, {10}, "Suffix"}, Case{10, {-1}, "Prefix"}, Case{0, {-4, 3}, "Prefix"}}) {
    ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
    mark();
    auto *data = static_cast<uint8_t *>(clapiMalloc(c.length, "CDAT"));
    ASSERT_NE(data, nullptr);
    for (int at : c.damaged) data[at] = 'X';
    EXPECT_EQ(clapiFree(data), -9);
    EXPECT_EQ(sinceMark(), (Lines{"9999 *EXC*  clapiFree " + std::string(c.end) + " not intact, buffer " + ptrText(data) +
                                  " (len=" + std::to_string(c.length) + ") corrupted"}));
  }
}

TEST_F(GuardedAllocTest, DamageIsSilentAtLevelZero) {
  auto *data = static_cast<uint8_t *>(clapiMalloc(8, "CDAT"));
  ASSERT_NE(data, nullptr);
  data[8] = 0;
  EXPECT_EQ(clapiFree(data), -9);
  data = static_cast<uint8_t *>(clapiMalloc(8, "CDAT"));
  ASSERT_NE(data, nullptr);
  data[-2] = 0;
  EXPECT_EQ(clapiFree(data), -9);
  EXPECT_EQ(all(), Lines{});
}

TEST_F(GuardedAllocTest, DamagedLengthWordIsReportedAsSuffixDamage) {
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  mark();
  // A length far past the block: the check must not read there.
  auto *data = static_cast<uint8_t *>(clapiMalloc(16, "CDAT"));
  ASSERT_NE(data, nullptr);
  const uint32_t huge = 0x7FFFFFF0u;
  std::memcpy(data - 12, &huge, sizeof huge);
  EXPECT_EQ(clapiFree(data), -9);
  // A length one short: the suffix is looked for one byte early.
  auto *second = static_cast<uint8_t *>(clapiMalloc(16, "CDAT"));
  ASSERT_NE(second, nullptr);
  std::memset(second, 0, 16);
  const uint32_t shorter = 15;
  std::memcpy(second - 12, &shorter, sizeof shorter);
  EXPECT_EQ(clapiFree(second), -9);
  EXPECT_EQ(sinceMark(),
            (Lines{"9999 *EXC*  clapiFree Suffix not intact, buffer " + ptrText(data) + " (len=2147483632) corrupted",
                   "9999 *EXC*  clapiFree Suffix not intact, buffer " + ptrText(second) + " (len=15) corrupted"}));
}

struct HookRecord {
  static inline uint32_t length = 0;
  static inline std::string tag;
  static bool failAll(uint32_t len, const char *t) {
    length = len;
    tag = t;
    return true;
  }
};

TEST_F(GuardedAllocTest, FailureHookMakesAllocationReturnNull) {
  setAllocFailHook(&HookRecord::failAll);
  void *data = clapiMalloc(42, "SCKB");
  setAllocFailHook(nullptr);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(HookRecord::length, 42u);
  EXPECT_EQ(HookRecord::tag, "SCKB");
  data = clapiMalloc(42, "SCKB");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(clapiFree(data), 0);
}

}  // namespace
