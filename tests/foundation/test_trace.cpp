// The trace writer and trace control: line format, level thresholds, banner
// rules, destination switching, the frame's trace points and storage dumps.

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <set>

#include "clapi_diag.h"
#include "trace_fixture.h"

namespace {

using namespace qvatest;

// How many descriptors of this process are open on path.
int openDescriptorsOn(const std::string &path) {
  int count = 0;
  for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    if (std::filesystem::read_symlink(fd.path(), ec).string() == path) ++count;
  }
  return count;
}

TEST_F(TraceFileTest, LinePrefixHasTimestampIdsPointAndPaddedWord) {
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  int level = -1;
  ASSERT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
  EXPECT_EQ(level, 3);
  Lines raw = readLines(path());
  ASSERT_EQ(raw.size(), 5u);
  EXPECT_TRUE(std::regex_match(raw[0], bannerFirstLinePattern())) << raw[0];
  EXPECT_EQ(raw[1], bannerSecondLine(3, path()));
  for (size_t i = 2; i < raw.size(); ++i) {
    auto line = parseTraceLine(raw[i]);
    ASSERT_TRUE(line.has_value()) << raw[i];
    EXPECT_EQ(line->pid, static_cast<unsigned>(getpid())) << raw[i];
    EXPECT_EQ(line->tid, selfTid()) << raw[i];
    int day = std::stoi(line->timestamp.substr(0, 2)), month = std::stoi(line->timestamp.substr(3, 2));
    EXPECT_TRUE(day >= 1 && day <= 31 && month >= 1 && month <= 12) << raw[i];
  }
  // The level was 0 on entry to the first call, so only its EXIT shows.
  EXPECT_EQ(normalise(Lines(raw.begin() + 2, raw.end())),
            (Lines{"1096 EXIT   API.QVA_setAPITraceLevel(traceState=3) new trace level=3 rc=0",
                   "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ")",
                   "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ") rc=0"}));
}

// The DLL version shares its points with the rc string.
TEST_F(TraceFileTest, VersionQueriesTraceTheirPointsAndRefuseANullPointer) {
  struct Case {
    int (*query)(const char **);
    std::string api, arg, text;
    int entry;
  };
  for (const Case &c : {Case{QVA_getDLLVersion, "API.QVA_getDLLVersion", "dllVersPtr", "8.0.0.1", 1130},
                        Case{QVA_getAPIVersion, "API.QVA_getAPIVersion", "apiVersPtr", "2.1.0.0", 1088}}) {
    level(3);
    const char *version = nullptr;
    EXPECT_EQ(c.query(&version), QVA_OK);
    EXPECT_STREQ(version, c.text.c_str());
    const char *again = nullptr;
    EXPECT_EQ(c.query(&again), QVA_OK);
    EXPECT_EQ(again, version) << "the text belongs to the library and stays put";
    EXPECT_EQ(c.query(nullptr), QVA_ERR_NULLPTR);
    const std::string entry = std::to_string(c.entry) + " ENTRY  " + c.api + "(&" + c.arg + "=";
    const std::string exit = std::to_string(c.entry + 2) + " EXIT   " + c.api + "(" + c.arg + "=";
    const std::string v = ptrText(&version), a = ptrText(&again);
    EXPECT_EQ(sinceMark(), (Lines{entry + v + ")", exit + v + "), rc=0", entry + a + ")", exit + a + "), rc=0",
                                  entry + ptrText(nullptr) + ")",
                                  std::to_string(c.entry + 1) + " *EXC*  " + c.api + "() Supplied pointer is NULL",
                                  exit + ptrText(nullptr) + "), rc=-109"}));
  }
}

TEST_F(TraceFileTest, SetAndGetTraceLevelTraceTheirValuesAndRejectBadArguments) {
  level(3);
  EXPECT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  EXPECT_EQ(QVA_setAPITraceLevel(6), QVA_ERR_TRACELEVEL);
  EXPECT_EQ(QVA_setAPITraceLevel(-1), QVA_ERR_TRACELEVEL);
  EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
  const std::string set = " API.QVA_setAPITraceLevel(", nil = ptrText(nullptr);
  EXPECT_EQ(sinceMark(), (Lines{"1094 ENTRY " + set + "traceState=4) current trace level=3",
                                "1096 EXIT  " + set + "traceState=4) new trace level=4 rc=0",
                                "1094 ENTRY " + set + "traceState=6) current trace level=4",
                                "1095 *EXC* " + set + ") Supplied trace state value 6 was invalid",
                                "1096 EXIT  " + set + "traceState=6) new trace level=4 rc=-104",
                                "1094 ENTRY " + set + "traceState=-1) current trace level=4",
                                "1095 *EXC* " + set + ") Supplied trace state value -1 was invalid",
                                "1096 EXIT  " + set + "traceState=-1) new trace level=4 rc=-104",
                                "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + nil + ")",
                                "1092 *EXC*  API.QVA_getAPITraceLevel() Supplied pointer is NULL",
                                "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + nil + ") rc=-109"}));
}

TEST_F(TraceFileTest, NothingIsWrittenAtLevelZeroNotEvenExceptions) {
  EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
  EXPECT_EQ(QVA_setAPITraceLevel(9), QVA_ERR_TRACELEVEL);
  EXPECT_EQ(QVA_getDLLVersion(nullptr), QVA_ERR_NULLPTR);
  EXPECT_EQ(QVA_setAPITraceFile((scratch().path() + "/no-such-dir/x.trc").c_str()), QVA_ERR_TRACEFILE);
  QVA_setAPITraceDataOffset(3);
  char name[QVA_RC_STRING_SIZE];
  QVA_getRcString(-22, name);
  EXPECT_EQ(all(), Lines{});
}

// Which trace points a fixed set of calls reaches at each level.
TEST_F(TraceFileTest, EachLevelWordAppearsFromItsThreshold) {
  for (int lvl = 1; lvl <= 5; ++lvl) {
    const std::string file = scratch().file("level-" + std::to_string(lvl) + ".trc");
    ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
    ASSERT_EQ(QVA_setAPITraceFile(file.c_str()), QVA_OK);
    ASSERT_EQ(QVA_setAPITraceLevel(lvl), QVA_OK);
    EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
    QVA_setAPITraceDataOffset(5);
    std::set<int> seen, expected{1092};
    for (const std::string &text : readLines(file))
      if (auto line = parseTraceLine(text)) seen.insert(line->point);
    seen.erase(1096);  // the EXIT of the level change itself, at 3 and above
    if (lvl >= 3) expected.insert({1091, 1093, 1013, 1015});
    if (lvl >= 4) expected.insert(1014);
    if (lvl >= 5) expected.insert({3103, 3106, 3107, 3110});
    EXPECT_EQ(seen, expected) << lvl;
  }
}

TEST_F(TraceFileTest, LockLinesBracketEachTraceLineAtLevelFive) {
  level(5);
  int lvl = -1;
  ASSERT_EQ(QVA_getAPITraceLevel(&lvl), QVA_OK);
  const std::string lock = "(lockPtr=" + ptrText(&traceLock) + ")";
  const std::string request = "3103 ENTRY  clapi_lock.clapiRequestLock" + lock;
  const std::string requested = "3106 EXIT   clapi_lock.clapiRequestLock" + lock + " mutexRc=0 rc=0";
  const std::string release = "3107 ENTRY  clapi_lock.clapiReleaseLock" + lock;
  const std::string released = "3110 EXIT   clapi_lock.clapiReleaseLock" + lock + " mutexRc=0 rc=0";
  EXPECT_EQ(sinceMark(), (Lines{request, requested,
                                "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&lvl) + ")", release,
                                released, request, requested,
                                "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&lvl) + ") rc=0",
                                release, released}));
}

TEST_F(TraceFileTest, BannerIsWrittenEachTimeTheLevelLeavesZeroButOnceOnANewFile) {
  ASSERT_EQ(QVA_setAPITraceLevel(2), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(2), QVA_OK);
  EXPECT_EQ(all(), (Lines{"BANNER", bannerSecondLine(2, path()), "BANNER", bannerSecondLine(2, path())}));
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  const std::string second = scratch().file("banner-second.trc");
  ASSERT_EQ(QVA_setAPITraceFile(second.c_str()), QVA_OK);
  // The file switch sets the banner flag, so toggling the level adds nothing.
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  EXPECT_EQ(all(second), (Lines{"BANNER", bannerSecondLine(1, second)}));
}

TEST_F(TraceFileTest, SwitchingFilesTracesInBothAndClosesTheOld) {
  level(4);
  const std::string first = path(), second = scratch().file("switch-second.trc");
  for (const std::string &next : {first, second}) {
    mark();
    ASSERT_EQ(QVA_setAPITraceFile(next.c_str()), QVA_OK);
    const std::string arg = ptrText(next.c_str());
    Lines expected{"1097 ENTRY  API.QVA_setAPITraceFile(traceFile=" + arg + ") current trace destination=" + first,
                   "BANNER", bannerSecondLine(4, next),
                   "1098 DEBUG  API.QVA_setAPITraceFile() Trace file switched to new destination. Filename=" + next,
                   "1101 EXIT   API.QVA_setAPITraceFile(traceFile=" + arg + ") new trace destination=" + next +
                       " rc=0"};
    if (next == first) {  // the same file again is reopened and reported as a switch
      EXPECT_EQ(sinceMark(), expected);
      EXPECT_EQ(openDescriptorsOn(first), 1);
    } else {
      EXPECT_EQ(sinceMark(), Lines{expected[0]});
      EXPECT_EQ(all(second), Lines(expected.begin() + 1, expected.end()));
    }
  }
  EXPECT_EQ(openDescriptorsOn(first), 0);
  EXPECT_EQ(openDescriptorsOn(second), 1);
}

TEST_F(TraceFileTest, NullWhileOnStandardErrorLeavesDestinationUnchanged) {
  ASSERT_EQ(QVA_setAPITraceFile(nullptr), QVA_OK);
  EXPECT_EQ(openDescriptorsOn(path()), 0);
  StderrCapture capture(scratch().file("stderr-null.txt"));
  ASSERT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  EXPECT_EQ(QVA_setAPITraceFile(nullptr), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  capture.stop();
  const std::string nil = ptrText(nullptr);
  // The level change writes the banner without setting the flag, so the
  // null request writes it once more.
  EXPECT_EQ(normalise(capture.lines()),
            (Lines{"BANNER", bannerSecondLine(4, "stderr"),
                   "1096 EXIT   API.QVA_setAPITraceLevel(traceState=4) new trace level=4 rc=0",
                   "1097 ENTRY  API.QVA_setAPITraceFile(traceFile=" + nil + ") current trace destination=stderr",
                   "BANNER", bannerSecondLine(4, "stderr"),
                   "1099 DEBUG  API.QVA_setAPITraceFile() Trace file destination is unchanged. Filename=stderr",
                   "1101 EXIT   API.QVA_setAPITraceFile(traceFile=" + nil + ") new trace destination=stderr rc=0",
                   "1094 ENTRY  API.QVA_setAPITraceLevel(traceState=0) current trace level=4"}));
}

TEST_F(TraceFileTest, UnopenableFileKeepsTracingToTheOldDestination) {
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  const std::string bad = scratch().file("no-such-dir/x.trc");
  EXPECT_EQ(QVA_setAPITraceFile(bad.c_str()), QVA_ERR_TRACEFILE);
  EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
  EXPECT_FALSE(std::filesystem::exists(bad));
  // The level change wrote the banner without the flag; the failed open
  // writes it again and sets the flag.
  EXPECT_EQ(all(), (Lines{"BANNER", bannerSecondLine(1, path()), "BANNER", bannerSecondLine(1, path()),
                          "1100 *EXC*  API.QVA_setAPITraceFile(" + bad +
                              ") file append failed with errno=2. Trace file destination is unchanged. Filename=" +
                              path(),
                          "1092 *EXC*  API.QVA_getAPITraceLevel() Supplied pointer is NULL"}));
}

// A path of exactly the given length whose directories exist.
std::string pathOfLength(std::string path, size_t length) {
  for (; length - path.size() > 201; mkdir(path.c_str(), 0700)) path += "/" + std::string(199, 'd');
  return path + "/" + std::string(length - path.size() - 1, 'f');
}

TEST_F(TraceFileTest, NamesOf1024CharactersOrMoreAreRefusedAndOf1023UsedWhole) {
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  for (size_t length : {size_t{1024}, size_t{5000}}) {
    const std::string tooLong = pathOfLength(scratch().path(), length);
    ASSERT_EQ(tooLong.size(), length);
    mark();
    EXPECT_EQ(QVA_setAPITraceFile(tooLong.c_str()), QVA_ERR_TRACEFILE) << length;
    // The first failed open also writes the banner still due on this file.
    Lines lines;
    for (const std::string &line : sinceMark())
      if (line != "BANNER" && !isBannerLine(line)) lines.push_back(line);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "1100 *EXC*  API.QVA_setAPITraceFile(" + tooLong + ") file append failed with errno=" +
                            std::to_string(ENAMETOOLONG) + ". Trace file destination is unchanged. Filename=" + path());
    EXPECT_EQ(lines[2], "1101 EXIT   API.QVA_setAPITraceFile(traceFile=" + ptrText(tooLong.c_str()) +
                            ") new trace destination=" + path() + " rc=-130");
  }
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  const std::string longest = pathOfLength(scratch().path(), 1023);
  ASSERT_EQ(longest.size(), 1023u);
  ASSERT_EQ(QVA_setAPITraceFile(longest.c_str()), QVA_OK);
  EXPECT_EQ(all(longest), (Lines{"BANNER", bannerSecondLine(1, longest)}));
}

TEST_F(TraceFileTest, DataOffsetAndLengthTraceOldAndNewValues) {
  level(4);
  QVA_setAPITraceDataOffset(64);
  QVA_setAPITraceDataOffset(4294967295u);
  QVA_setAPITraceDataLength(0);
  QVA_setAPITraceDataLength(300);
  const std::string off = " API.QVA_setAPITraceDataOffset", len = " API.QVA_setAPITraceDataLength";
  EXPECT_EQ(sinceMark(), (Lines{"1013 ENTRY " + off + "(dataOffset=64)",
                                "1014 DEBUG " + off + " Trace data offset changed from 0 to 64", "1015 EXIT  " + off + "()",
                                "1013 ENTRY " + off + "(dataOffset=4294967295)",
                                "1014 DEBUG " + off + " Trace data offset changed from 64 to 4294967295",
                                "1015 EXIT  " + off + "()", "1010 ENTRY " + len + "(dataLength=0)",
                                "1011 DEBUG " + len + " Trace data truncation length changed from 128 to 0",
                                "1012 EXIT  " + len + "()", "1010 ENTRY " + len + "(dataLength=300)",
                                "1011 DEBUG " + len + " Trace data truncation length changed from 0 to 300",
                                "1012 EXIT  " + len + "()"}));
  EXPECT_EQ(clientAPIDataOffset, 4294967295u);
  EXPECT_EQ(clientAPIDataTrunc, 300u);
}

TEST_F(TraceFileTest, RcStringTracesTheNestedEciLookup) {
  level(3);
  char name[QVA_RC_STRING_SIZE];
  const std::string buffer = ptrText(name);
  ASSERT_EQ(QVA_getRcString(-22, name), name);
  ASSERT_EQ(QVA_getRcString(-121, name), name);
  EXPECT_EQ(sinceMark(), (Lines{"1130 ENTRY  clapi_impl.QVA_getRcString(rc=-22, rcString=" + buffer + ")",
                                "3310 ENTRY  clapi_eci.QVA_getRcStringECI(rc=-22,rcString=" + buffer + ")",
                                "3311 EXIT   clapi_eci.QVA_getRcStringECI(rcString=" + buffer + ") rc=-22",
                                "1131 EXIT   clapi_impl.QVA_getRcString(rcString=ECI_ERR_UNKNOWN_SERVER) rc=-22",
                                "1130 ENTRY  clapi_impl.QVA_getRcString(rc=-121, rcString=" + buffer + ")",
                                "1131 EXIT   clapi_impl.QVA_getRcString(rcString=QVA_ERR_LOCKFAIL) rc=-121"}));
}

TEST_F(TraceFileTest, DumpStatePrintsStateTokensAndChannelsAtEveryLevel) {
  const std::string dashes(80, '-'), head = "qvaclient state dump: DLL Version=8.0.0.1 Trace Level=";
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  EXPECT_EQ(all(), (Lines{head + "0 clientAPITraceFile=" + path(), "The Gateway Token List is EMPTY",
                          "Channel and container dump", dashes, "The channel list is EMPTY", dashes}));
  level(3);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  EXPECT_EQ(sinceMark(), (Lines{"1106 ENTRY  API.QVA_dumpState()", head + "3 clientAPITraceFile=" + path(),
                                "2180 ENTRY  clapi_qva_gwytok.clapiDumpGatewayTokens()",
                                "The Gateway Token List is EMPTY",
                                "2182 EXIT   clapi_qva_gwytok.clapiDumpGatewayTokens() List length=0 rc=1006",
                                "1410 ENTRY  API.QVA_ECI_dumpChannels()", "Channel and container dump", dashes,
                                "The channel list is EMPTY", dashes,
                                "1419 EXIT   API.QVA_ECI_dumpChannels() rc=0 (ECI_NO_ERROR)",
                                "1107 EXIT   API.QVA_dumpState()"}));
}

// The dump functions write to the current trace stream whatever the level.
std::string at(const void *p) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%8.8X: ", low32(p));
  return text;
}

TEST_F(TraceFileTest, StorageDumpLinesPadHexNotCharactersAndShowUnprintablesAsDots) {
  alignas(16) const uint8_t hello[16] = {'H', 'e', 'l', 'l', 'o', ',', ' ', 'w', 'o', 'r', 'l', 'd', '!', '\n', 0, 0};
  const uint8_t digits[20] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9',
                              'A', 'B', 'C', 'D', 'E', 'F', 'w', 'x', 'y', 'z'};
  const uint8_t odd[8] = {0x00, 0x7F, 0x1F, 0x80, 0xFF, 0x20, 'A', '~'};
  EXPECT_EQ(clapiTraceOutStorage(hello, sizeof hello, 0, 16, 1), 16u);
  EXPECT_EQ(clapiTraceOutStorage(digits, sizeof digits, 0, 16, 1), 20u);
  EXPECT_EQ(clapiTraceOutStorage(odd, sizeof odd, 0, 16, 1), 8u);
  const std::string head = "Data truncation size=128, offset=0";
  EXPECT_EQ(all(), (Lines{head, at(hello) + "48656C6C 6F2C2077 6F726C64 210A0000 : Hello, world!... ", head,
                          at(digits) + "30313233 34353637 38394142 43444546 : 0123456789ABCDEF ",
                          at(digits + 16) + "7778797A" + std::string(27, ' ') + " : wxyz", head,
                          at(odd) + "007F1F80 FF20417E" + std::string(18, ' ') + " : ..... A~"}));
}

TEST_F(TraceFileTest, StorageDumpHonoursOffsetAndTruncation) {
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
  EXPECT_EQ(whole[19].substr(0, 12), at(data + 288));
  mark();
  QVA_setAPITraceDataOffset(8);
  EXPECT_EQ(clapiTraceOutStorage(data, 20, 0, 16, 1), 12u);
  QVA_setAPITraceDataOffset(20);
  EXPECT_EQ(clapiTraceOutStorage(data, 20, 0, 16, 1), 0u);
  QVA_setAPITraceDataOffset(25);
  EXPECT_EQ(clapiTraceOutStorage(data, 20, 0, 16, 1), 0u);
  QVA_setAPITraceDataLength(5);
  QVA_setAPITraceDataOffset(0);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 5u);
  QVA_setAPITraceDataOffset(4);
  EXPECT_EQ(clapiTraceOutStorage(data, sizeof data, 0, 16, 1), 5u);
  EXPECT_EQ(sinceMark(), (Lines{"Data truncation size=0, offset=8",
                                at(data + 8) + "696A6B6C 6D6E6F70 71727374 " + std::string(8, ' ') + " : ijklmnopqrst",
                                "Data truncation size=0, offset=20", "Data truncation size=0, offset=25",
                                "Data truncation size=5, offset=0",
                                at(data) + "61626364 65" + std::string(24, ' ') + " : abcde",
                                "Data truncation size=5, offset=4",
                                at(data + 4) + "65666768 69" + std::string(24, ' ') + " : efghi"}));
}

TEST_F(TraceFileTest, LineWritersStopAtTheStopWordWhenCountIsZero) {
  // The writers read a 32-bit word at each position, so the buffer covers
  // a whole line plus three bytes.
  uint8_t data[32] = {'a', 'b', 'c', 'd', 'e', 'f', 0xDE, 0xAD, 0xBE, 0xEF};
  uint32_t stopWord;
  std::memcpy(&stopWord, data + 6, sizeof stopWord);
  EXPECT_EQ(clapiWriteStorageLineHex(data, 16, 0, stopWord, 1), 6);
  std::fputc('|', clientAPITraceHandle);
  EXPECT_EQ(clapiWriteStorageLineChar(data, 16, 0, stopWord, 1), 6);
  std::fputc('\n', clientAPITraceHandle);
  EXPECT_EQ(clapiWriteStorageLineDual(data, 16, 0, stopWord, 1), 6);  // ends its line
  std::memset(data, 0x41, sizeof data);
  EXPECT_EQ(clapiWriteStorageLineHex(data, 16, 0, 0x41414141u, 1), 0);  // a stop word at the first byte
  std::fflush(clientAPITraceHandle);
  const std::string hex = "61626364 6566" + std::string(22, ' ');
  EXPECT_EQ(all(), (Lines{hex + "|abcdef", hex + " : abcdef", std::string(35, ' ')}));
}

}  // namespace
