// The emulated server programs, COMMAREA and channel ones, the server and
// security checks, and the extended units of work, driven through the wire.
#include <cstdio>

#include "raw_client.h"

using namespace rawclient;

namespace {

using ProgramsTest = EmulatorTest;
using ChannelsTest = EmulatorTest;

// What each program answers, by its request.
TEST_F(ProgramsTest, EachProgramAnswersAsDocumented) {
  struct Case {
    Call call;
    int32_t rc = 0;
    std::string abend = std::string(4, '\0');
    Bytes data;
    int32_t commareaLength = -1;  // -1: as sent
  };
  const Bytes digits = ascii("0123456789"), some = pattern(256);
  const Case cases[] = {
      {{.commarea = some}, 0, std::string(4, '\0'), some},
      {prog("UPPER", "abc xyz-09 \xE9z"), 0, std::string(4, '\0'), ascii("ABC XYZ-09 \xE9Z")},  // ASCII letters only
      {prog("SHORT", "0123456789"), 0, std::string(4, '\0'), ascii("01234")},                   // half of what it got
      {prog("NOSUCH", "x"), -7, "AEI0"},
      {prog("ABEND", "XY12 and the rest"), -7, "XY12"},
      {prog("ABEND", "WXYZ"), -7, "WXYZ"},  // exactly four
      {prog("ABEND", "XY 2"), -7, "ABND"},  // a blank among the first four
      {prog("ABEND", "XYZ"), -7, "ABND"},   // fewer than four bytes
      {prog("CHMIX", "left alone")},        // a channel program without a channel echoes
      {{.callType = 12, .transId = "TPN1", .commarea = ascii("tpn call")}, 0, std::string(4, '\0'), ascii("tpn call")},
      // The server name is checked, and an empty one means the first.
      {{.system = "NOWHERE", .commarea = ascii("hi")}, -22, std::string(4, '\0')},
      {{.system = "", .commarea = ascii("hi")}},
      {{.system = "QVATEST", .commarea = ascii("hi")}},
      // Send and receive lengths are honoured.
      {{.commarea = digits, .commareaLength = 100, .send = 10}, 0, std::string(4, '\0'), cat({digits, fill(90, 0)})},
      {{.commarea = digits, .commareaLength = 100, .send = 10, .recv = 4}, 0, std::string(4, '\0'), ascii("0123")},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.call.program + " " + std::string(k.call.commarea.begin(), k.call.commarea.end()));
    const ProgramReply r = run(k.call);
    EXPECT_EQ(r.callType, k.call.callType);
    EXPECT_EQ(r.replyRc, k.rc);
    EXPECT_EQ(r.abendCode, k.abend);
    EXPECT_EQ(r.commareaLength,
              k.call.commareaLength < 0 ? static_cast<int32_t>(k.call.commarea.size()) : k.call.commareaLength);
    const bool echoes = k.rc == 0 && k.data.empty();
    EXPECT_EQ(r.data, echoes ? k.call.commarea : k.data);
    EXPECT_EQ(r.replyDataLength, static_cast<int32_t>(r.data.size()));
    EXPECT_EQ(r.channelPresent, 0);
  }
}

TEST(ProgramsSecurity, UserAndPasswordMustMatchAndThePasswordIsNeverLogged) {
  FILE* logFile = std::tmpfile();
  ASSERT_NE(logFile, nullptr);
  qvaemu::Gateway gw({.logMessages = true, .logStream = logFile, .userId = "ALICE", .password = "S3CRET"});
  ASSERT_TRUE(gw.start());
  Client c;
  ASSERT_TRUE(open(c, gw.port()));
  Call call = prog("ECHO", "secure");
  ProgramReply r;
  const struct {
    const char *user, *password;
    int32_t rc;
  } tries[] = {{"", "", -27}, {"ALICE", "WRONG", -27}, {"ALICE", "S3CRET", 0}};
  for (const auto& t : tries) {
    call.user = t.user;
    call.password = t.password;  // sent blank padded, compared trimmed
    ASSERT_TRUE(rawclient::call(c, call, r));
    EXPECT_EQ(r.replyRc, t.rc) << t.user << "/" << t.password;
  }
  EXPECT_EQ(r.data, ascii("secure"));
  gw.stop();
  std::string log;
  std::rewind(logFile);
  for (int ch; (ch = std::fgetc(logFile)) != EOF;) log += static_cast<char>(ch);
  std::fclose(logFile);
  EXPECT_NE(log.find("conn 0: HANDSHAKE"), std::string::npos) << log;
  EXPECT_NE(log.find("conn 0: ECI callType=1 system=QVADEMO program=ECHO extend=0 luw=0 commarea=6 send=0 recv=0 "
                     "timeout=0"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("S3CRET"), std::string::npos) << log;
}

// The channel name fills its 16 bytes: no terminator travels either way.
const std::string kChannel = "SIXTEEN-CHARNAME";
constexpr int32_t kCcsid = 1208;

Bytes sizeEntry(const std::string& digits) { return entry("SIZE", kAdded, kChar, 819, ascii(digits)); }
Bytes bytePattern(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i & 0xFF);
  return b;
}

// Each program's return flow: the reply's bytes after the channel-present
// byte against a flow built here from the entry layout.
TEST_F(ChannelsTest, EachProgramReturnsItsFlow) {
  const std::vector<Bytes> four = {entry("GREETING", kAdded, kChar, 819, ascii("hello")),
                                   entry("MIXEDCASE", kAdded, kChar, 37, ascii("MiXed Case 9")),
                                   entry("BLOB", kAdded, kBit, 0, hex("0001FF61")),  // a BIT 'a' is not upper-cased
                                   entry("EMPTY", kAdded, kChar, kCcsid, Bytes{})};
  // The same containers as UNCHANGED entries: no data, the length they came with.
  const Bytes greetingSame = entry("GREETING", kUnchanged, kChar, 819, 5),
              mixedSame = entry("MIXEDCASE", kUnchanged, kChar, 37, 12),
              blobSame = entry("BLOB", kUnchanged, kBit, 0, 4),
              emptySame = entry("EMPTY", kUnchanged, kChar, kCcsid, 0);
  const std::vector<Bytes> same = {greetingSame, mixedSame, blobSame, emptySame};
  const Bytes greetingDeleted = entry("GREETING", kDeleted, kChar, 819, 5);
  struct Case {
    const char* program;
    std::vector<Bytes> in, out;  // out: the entries of the return flow
    int32_t rc = 0;
  };
  const Case cases[] = {
      {"CHNOOP", four, same},
      {"CHNOOP", {}, {}},
      {"CHECHO",
       four,
       {entry("GREETING", kModified, kChar, 819, ascii("hello")),
        entry("MIXEDCASE", kModified, kChar, 37, ascii("MiXed Case 9")),
        entry("BLOB", kModified, kBit, 0, hex("0001FF61")), entry("EMPTY", kModified, kChar, kCcsid, Bytes{})}},
      {"CHADD",
       four,
       {greetingSame, mixedSame, blobSame, emptySame,
        entry("RESULT", kAdded, kChar, kCcsid, ascii("Processed 4 containers"))}},
      {"CHADD", {}, {entry("RESULT", kAdded, kChar, kCcsid, ascii("Processed 0 containers"))}},
      {"CHUPPER",
       four,
       {entry("GREETING", kModified, kChar, 819, ascii("HELLO")),
        entry("MIXEDCASE", kModified, kChar, 37, ascii("MIXED CASE 9")), blobSame,
        entry("EMPTY", kModified, kChar, kCcsid, Bytes{})}},
      {"CHGROW",
       four,
       {entry("GREETING", kModified, kChar, 819, ascii("hellohello")),
        entry("MIXEDCASE", kModified, kChar, 37, ascii("MiXed Case 9MiXed Case 9")),
        entry("BLOB", kModified, kBit, 0, hex("0001FF61 0001FF61")),
        entry("EMPTY", kModified, kChar, kCcsid, ascii("!"))}},
      {"CHDELETE", four, {greetingDeleted, mixedSame, blobSame, emptySame}},
      {"CHDELETE", {}, {}},
      {"CHMIX",
       four,
       {greetingDeleted, entry("MIXEDCASE", kModified, kChar, 37, ascii("MIXED CASE 9")),
        entry("BLOB", kModified, kBit, 0, hex("0001FF61 0001FF61")), emptySame,
        entry("MIXED", kAdded, kBit, 0, hex("DEADBEEF"))}},
      {"CHBIG",
       {sizeEntry("300")},
       {entry("SIZE", kUnchanged, kChar, 819, 3), entry("PAYLOAD", kAdded, kBit, 0, bytePattern(300))}},
      {"CHBIG",
       {four[0], entry("PAYLOAD", kAdded, kBit, 0, ascii("old")), sizeEntry(std::string("7 \0", 3))},
       {greetingSame, entry("PAYLOAD", kModified, kBit, 0, bytePattern(7)), entry("SIZE", kUnchanged, kChar, 819, 3)}},
      {"CHBIG",
       {sizeEntry("0")},
       {entry("SIZE", kUnchanged, kChar, 819, 1), entry("PAYLOAD", kAdded, kBit, 0, Bytes{})}},
      {"CHBIG", {sizeEntry("12x")}, {}, -1},
      {"CHBIG", {sizeEntry("268435457")}, {}, -1},  // 256 MiB + 1
      {"CHBIG", {four[0]}, {}, -1},
      // A COMMAREA program leaves the channel alone, and one that fails returns it empty.
      {"ECHO", four, same},
      {"ABEND", four, {}, -7},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(std::string(k.program) + " with " + std::to_string(k.in.size()) + " containers");
    const ProgramReply r = run({.program = k.program, .channelBlock = channel(kChannel, kCcsid, k.in)});
    EXPECT_EQ(r.replyRc, k.rc);
    EXPECT_EQ(r.commareaLength, 0);
    EXPECT_EQ(r.channelPresent, 0xFF);
    EXPECT_EQ(r.flow, channel(kChannel, kCcsid, k.out));
  }
}

// Large containers go out whole, both ways, and the connection stays in step.
TEST_F(ChannelsTest, LargeContainersTravelWhole) {
  constexpr size_t kBig = 64u << 20;
  ProgramReply r =
      run({.program = "CHBIG", .channelBlock = channel(kChannel, kCcsid, {sizeEntry(std::to_string(kBig))})});
  ASSERT_EQ(r.replyRc, 0);
  const Bytes head = channel(
      kChannel, kCcsid,
      {entry("SIZE", kUnchanged, kChar, 819, 8), entry("PAYLOAD", kAdded, kBit, 0, static_cast<uint32_t>(kBig))});
  EXPECT_TRUE(r.flow == cat({head, bytePattern(kBig)}));  // not EXPECT_EQ: a failure would print 64 MiB
  const Bytes data = pattern(24u << 20);
  r = run({.program = "CHECHO", .channelBlock = channel(kChannel, kCcsid, {entry("DATA", kAdded, kBit, 0, data)})});
  EXPECT_TRUE(r.flow == channel(kChannel, kCcsid, {entry("DATA", kModified, kBit, 0, data)}));
}

}  // namespace
