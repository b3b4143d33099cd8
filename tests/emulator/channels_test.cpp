// The channel programs, return flow by return flow: each reply's bytes after
// the channel-present byte against a flow built here from the entry layout.
#include <gtest/gtest.h>

#include "qvaemu/gateway.h"
#include "raw_client.h"

using namespace rawclient;

namespace {

// The channel name fills its 16 bytes: no terminator travels either way.
const std::string kChannel = "SIXTEEN-CHARNAME";
constexpr int32_t kCcsid = 1208;

// Request entries, and the same containers as UNCHANGED entries: no data, the length they came with.
const Bytes kGreeting = entry("GREETING", kAdded, kChar, 819, ascii("hello"));
const Bytes kMixed = entry("MIXEDCASE", kAdded, kChar, 37, ascii("MiXed Case 9"));
const Bytes kBlob = entry("BLOB", kAdded, kBit, 0, hex("0001FF61"));  // a BIT 'a' is not upper-cased
const Bytes kEmpty = entry("EMPTY", kAdded, kChar, kCcsid, Bytes{});
const Bytes kGreetingSame = entry("GREETING", kUnchanged, kChar, 819, 5);
const Bytes kMixedSame = entry("MIXEDCASE", kUnchanged, kChar, 37, 12);
const Bytes kBlobSame = entry("BLOB", kUnchanged, kBit, 0, 4);
const Bytes kEmptySame = entry("EMPTY", kUnchanged, kChar, kCcsid, 0);

Bytes sizeEntry(const std::string& digits) { return entry("SIZE", kAdded, kChar, 819, ascii(digits)); }
Bytes bigPattern(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i & 0xFF);
  return b;
}

class ChannelsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(gw_.start(&error)) << error;
    ASSERT_TRUE(open(c_, gw_.port()));
  }
  // Calls `program` with a channel of these entries; the return flow's bytes.
  Bytes run(const std::string& program, const std::vector<Bytes>& entries, ProgramReply& r) {
    Call c;
    c.program = program;
    c.channelBlock = channel(kChannel, kCcsid, entries);
    Bytes flow;
    EXPECT_TRUE(call(c_, c, r, &flow));
    EXPECT_EQ(r.channelPresent, 0xFF);
    return flow;
  }
  qvaemu::Gateway gw_;
  Client c_;
};

TEST_F(ChannelsTest, EachProgramReturnsItsFlow) {
  const std::vector<Bytes> four = {kGreeting, kMixed, kBlob, kEmpty};
  struct Case {
    const char* program;
    std::vector<Bytes> in;
    std::vector<Bytes> out;  // the entries of the return flow
    int32_t rc = 0;
  };
  const Case cases[] = {
      {"CHNOOP", four, {kGreetingSame, kMixedSame, kBlobSame, kEmptySame}},
      {"CHNOOP", {}, {}},
      {"CHECHO",
       four,
       {entry("GREETING", kModified, kChar, 819, ascii("hello")),
        entry("MIXEDCASE", kModified, kChar, 37, ascii("MiXed Case 9")),
        entry("BLOB", kModified, kBit, 0, hex("0001FF61")), entry("EMPTY", kModified, kChar, kCcsid, Bytes{})}},
      {"CHADD",
       four,
       {kGreetingSame, kMixedSame, kBlobSame, kEmptySame,
        entry("RESULT", kAdded, kChar, kCcsid, ascii("Processed 4 containers"))}},
      {"CHADD", {}, {entry("RESULT", kAdded, kChar, kCcsid, ascii("Processed 0 containers"))}},
      {"CHUPPER",
       four,
       {entry("GREETING", kModified, kChar, 819, ascii("HELLO")),
        entry("MIXEDCASE", kModified, kChar, 37, ascii("MIXED CASE 9")), kBlobSame,
        entry("EMPTY", kModified, kChar, kCcsid, Bytes{})}},
      {"CHGROW",
       four,
       {entry("GREETING", kModified, kChar, 819, ascii("hellohello")),
        entry("MIXEDCASE", kModified, kChar, 37, ascii("MiXed Case 9MiXed Case 9")),
        entry("BLOB", kModified, kBit, 0, hex("0001FF61 0001FF61")),
        entry("EMPTY", kModified, kChar, kCcsid, ascii("!"))}},
      {"CHDELETE", four, {entry("GREETING", kDeleted, kChar, 819, 5), kMixedSame, kBlobSame, kEmptySame}},
      {"CHDELETE", {}, {}},
      {"CHMIX",
       four,
       {entry("GREETING", kDeleted, kChar, 819, 5), entry("MIXEDCASE", kModified, kChar, 37, ascii("MIXED CASE 9")),
        entry("BLOB", kModified, kBit, 0, hex("0001FF61 0001FF61")), kEmptySame,
        entry("MIXED", kAdded, kBit, 0, hex("DEADBEEF"))}},
      {"CHBIG",
       {sizeEntry("300")},
       {entry("SIZE", kUnchanged, kChar, 819, 3), entry("PAYLOAD", kAdded, kBit, 0, bigPattern(300))}},
      {"CHBIG",
       {kGreeting, entry("PAYLOAD", kAdded, kBit, 0, ascii("old")), sizeEntry(std::string("7 \0", 3))},
       {kGreetingSame, entry("PAYLOAD", kModified, kBit, 0, bigPattern(7)), entry("SIZE", kUnchanged, kChar, 819, 3)}},
      {"CHBIG",
       {sizeEntry("0")},
       {entry("SIZE", kUnchanged, kChar, 819, 1), entry("PAYLOAD", kAdded, kBit, 0, Bytes{})}},
      {"CHBIG", {sizeEntry("12x")}, {}, -1},
      {"CHBIG", {sizeEntry("268435457")}, {}, -1},  // 256 MiB + 1
      {"CHBIG", {kGreeting}, {}, -1},
      // A COMMAREA program leaves the channel alone, and one that fails returns it empty.
      {"ECHO", four, {kGreetingSame, kMixedSame, kBlobSame, kEmptySame}},
      {"ABEND", four, {}, -7},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(std::string(k.program) + " with " + std::to_string(k.in.size()) + " containers");
    ProgramReply r;
    const Bytes flow = run(k.program, k.in, r);
    EXPECT_EQ(r.replyRc, k.rc);
    EXPECT_EQ(r.commareaLength, 0);
    EXPECT_EQ(flow, channel(kChannel, kCcsid, k.out));
  }
}

TEST_F(ChannelsTest, ChannelProgramWithoutAChannelEchoesTheCommarea) {
  Call c;
  c.program = "CHMIX";
  c.commarea = ascii("left alone");
  ProgramReply r;
  ASSERT_TRUE(call(c_, c, r));  // the reply ends at channel-present byte 0
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.data, c.commarea);
  EXPECT_EQ(r.channelPresent, 0);
}

// Large containers go out whole, both ways, and the connection stays in step.
TEST_F(ChannelsTest, LargeContainersTravelWhole) {
  constexpr size_t kBig = 64u << 20;
  ProgramReply r;
  Bytes flow = run("CHBIG", {sizeEntry(std::to_string(kBig))}, r);
  ASSERT_EQ(r.replyRc, 0);
  const Bytes head = channel(
      kChannel, kCcsid,
      {entry("SIZE", kUnchanged, kChar, 819, 8), entry("PAYLOAD", kAdded, kBit, 0, static_cast<uint32_t>(kBig))});
  ASSERT_EQ(flow.size(), head.size() + kBig);
  EXPECT_EQ(slice(flow, 0, head.size()), head);
  EXPECT_TRUE(
      std::equal(flow.begin() + static_cast<std::ptrdiff_t>(head.size()), flow.end(), bigPattern(kBig).begin()));

  const Bytes data = pattern(24u << 20);
  flow = run("CHECHO", {entry("DATA", kAdded, kBit, 0, data)}, r);
  EXPECT_TRUE(flow == channel(kChannel, kCcsid, {entry("DATA", kModified, kBit, 0, data)}));
}

}  // namespace
