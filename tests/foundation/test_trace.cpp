// The trace writer and trace control: line format, level thresholds, banner
// rules, destination switching and the trace points of the frame functions.

#include <dirent.h>
#include <sys/stat.h>

#include <set>

#include "clapi_diag.h"
#include "trace_fixture.h"

namespace {

using qvatest::bannerSecondLine;
using qvatest::ptrText;
using qvatest::TraceFileTest;
using Lines = std::vector<std::string>;

// How many descriptors of this process are open on path.
int openDescriptorsOn(const std::string &path) {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent *entry = readdir(dir)) {
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    char target[4096];
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n > 0) {
      target[n] = '\0';
      if (path == target) ++count;
    }
  }
  closedir(dir);
  return count;
}

TEST_F(TraceFileTest, LinePrefixHasTimestampIdsPointAndPaddedWord) {
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  int level = -1;
  ASSERT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
  EXPECT_EQ(level, 3);

  Lines raw = qvatest::readLines(path());
  ASSERT_EQ(raw.size(), 5u);
  EXPECT_TRUE(std::regex_match(raw[0], qvatest::bannerFirstLinePattern())) << raw[0];
  EXPECT_EQ(raw[1], bannerSecondLine(3, path()));
  for (size_t i = 2; i < raw.size(); ++i) {
    auto line = qvatest::parseTraceLine(raw[i]);
    ASSERT_TRUE(line.has_value()) << raw[i];
    EXPECT_EQ(line->pid, static_cast<unsigned>(getpid())) << raw[i];
    EXPECT_EQ(line->tid, qvatest::selfTid()) << raw[i];
    int day = std::stoi(line->timestamp.substr(0, 2));
    int month = std::stoi(line->timestamp.substr(3, 2));
    EXPECT_TRUE(day >= 1 && day <= 31 && month >= 1 && month <= 12) << raw[i];
  }
  // The level was 0 on entry to the first call, so only its EXIT shows.
  EXPECT_EQ(qvatest::normalise(Lines(raw.begin() + 2, raw.end())),
            (Lines{"1096 EXIT   API.QVA_setAPITraceLevel(traceState=3) new trace level=3 rc=0",
                   "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ")",
                   "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ") rc=0"}));
}

// The DLL version shares its points with the rc string.
TEST_F(TraceFileTest, VersionQueriesTraceTheirPointsAndRefuseANullPointer) {
  struct Case {
    int (*query)(const char **);
    const char *name;
    const char *arg;
    int entry;
  };
  for (const Case &c : {Case{QVA_getDLLVersion, "QVA_getDLLVersion", "dllVersPtr", 1130},
                        Case{QVA_getAPIVersion, "QVA_getAPIVersion", "apiVersPtr", 1088}}) {
    ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
    mark();
    const char *version = nullptr;
    EXPECT_EQ(c.query(&version), QVA_OK);
    EXPECT_EQ(c.query(nullptr), QVA_ERR_NULLPTR);
    const std::string api = std::string("API.") + c.name;
    const std::string entry = std::to_string(c.entry) + " ENTRY  " + api + "(&" + c.arg + "=";
    const std::string exit = std::to_string(c.entry + 2) + " EXIT   " + api + "(" + c.arg + "=";
    EXPECT_EQ(sinceMark(), (Lines{entry + ptrText(&version) + ")", exit + ptrText(&version) + "), rc=0",
                                  entry + ptrText(nullptr) + ")",
                                  std::to_string(c.entry + 1) + " *EXC*  " + api + "() Supplied pointer is NULL",
                                  exit + ptrText(nullptr) + "), rc=-109"}));
  }
}

TEST_F(TraceFileTest, SetAndGetTraceLevelTraceTheirValuesAndRejectBadArguments) {
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  mark();
  EXPECT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  EXPECT_EQ(QVA_setAPITraceLevel(6), QVA_ERR_TRACELEVEL);
  EXPECT_EQ(QVA_setAPITraceLevel(-1), QVA_ERR_TRACELEVEL);
  EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
  EXPECT_EQ(sinceMark(), (Lines{
                       "1094 ENTRY  API.QVA_setAPITraceLevel(traceState=4) current trace level=3",
                       "1096 EXIT   API.QVA_setAPITraceLevel(traceState=4) new trace level=4 rc=0",
                       "1094 ENTRY  API.QVA_setAPITraceLevel(traceState=6) current trace level=4",
                       "1095 *EXC*  API.QVA_setAPITraceLevel() Supplied trace state value 6 was invalid",
                       "1096 EXIT   API.QVA_setAPITraceLevel(traceState=6) new trace level=4 rc=-104",
                       "1094 ENTRY  API.QVA_setAPITraceLevel(traceState=-1) current trace level=4",
                       "1095 *EXC*  API.QVA_setAPITraceLevel() Supplied trace state value -1 was invalid",
                       "1096 EXIT   API.QVA_setAPITraceLevel(traceState=-1) new trace level=4 rc=-104",
                       "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(nullptr) + ")",
                       "1092 *EXC*  API.QVA_getAPITraceLevel() Supplied pointer is NULL",
                       "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(nullptr) + ") rc=-109",
                   }));
}

TEST_F(TraceFileTest, EveryLevelFromZeroToFiveIsAccepted) {
  for (int want = 0; want <= 5; ++want) {
    EXPECT_EQ(QVA_setAPITraceLevel(want), QVA_OK) << want;
    int level = -1;
    EXPECT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
    EXPECT_EQ(level, want);
  }
  EXPECT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
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
class TraceThresholdTest : public TraceFileTest, public ::testing::WithParamInterface<int> {};

TEST_P(TraceThresholdTest, EachLevelWordAppearsFromItsThreshold) {
  const int level = GetParam();
  ASSERT_EQ(QVA_setAPITraceLevel(level), QVA_OK);
  mark();
  EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
  QVA_setAPITraceDataOffset(5);

  std::set<int> seen;
  for (const std::string &text : qvatest::readLines(path())) {
    if (auto line = qvatest::parseTraceLine(text)) seen.insert(line->point);
  }
  if (level >= 1) seen.erase(1096);  // the EXIT of the level change itself, at 3 and above
  std::set<int> expected{1092};
  if (level >= 3) expected.insert({1091, 1093, 1013, 1015});
  if (level >= 4) expected.insert(1014);
  if (level >= 5) expected.insert({3103, 3106, 3107, 3110});
  EXPECT_EQ(seen, expected);
}

INSTANTIATE_TEST_SUITE_P(Levels, TraceThresholdTest, ::testing::Values(1, 2, 3, 4, 5));

TEST_F(TraceFileTest, LockLinesBracketEachTraceLineAtLevelFive) {
  ASSERT_EQ(QVA_setAPITraceLevel(5), QVA_OK);
  mark();
  int level = -1;
  ASSERT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
  const std::string lock = ptrText(&traceLock);
  const std::string request = "3103 ENTRY  clapi_lock.clapiRequestLock(lockPtr=" + lock + ")";
  const std::string requested = "3106 EXIT   clapi_lock.clapiRequestLock(lockPtr=" + lock + ") mutexRc=0 rc=0";
  const std::string release = "3107 ENTRY  clapi_lock.clapiReleaseLock(lockPtr=" + lock + ")";
  const std::string released = "3110 EXIT   clapi_lock.clapiReleaseLock(lockPtr=" + lock + ") mutexRc=0 rc=0";
  EXPECT_EQ(sinceMark(),
            (Lines{request, requested,
                   "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ")", release,
                   released, request, requested,
                   "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ") rc=0", release,
                   released}));
}

TEST_F(TraceFileTest, BannerIsWrittenEachTimeTheLevelLeavesZero) {
  ASSERT_EQ(QVA_setAPITraceLevel(2), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(2), QVA_OK);
  EXPECT_EQ(all(), (Lines{"BANNER", bannerSecondLine(2, path()), "BANNER", bannerSecondLine(2, path())}));
}

TEST_F(TraceFileTest, NewFileStartsWithBannerWhenTracingAndKeepsItOnce) {
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  const std::string second = scratch().file("banner-second.trc");
  ASSERT_EQ(QVA_setAPITraceFile(second.c_str()), QVA_OK);
  // The file switch sets the banner flag, so toggling the level adds nothing.
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  EXPECT_EQ(all(second), (Lines{"BANNER", bannerSecondLine(1, second)}));
}

TEST_F(TraceFileTest, SwitchingFilesTracesInBothAndClosesTheOld) {
  ASSERT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  mark();
  const std::string second = scratch().file("switch-second.trc");
  ASSERT_EQ(QVA_setAPITraceFile(second.c_str()), QVA_OK);
  const std::string arg = ptrText(second.c_str());
  EXPECT_EQ(sinceMark(), (Lines{"1097 ENTRY  API.QVA_setAPITraceFile(traceFile=" + arg +
                                ") current trace destination=" + path()}));
  EXPECT_EQ(all(second),
            (Lines{"BANNER", bannerSecondLine(4, second),
                   "1098 DEBUG  API.QVA_setAPITraceFile() Trace file switched to new destination. Filename=" + second,
                   "1101 EXIT   API.QVA_setAPITraceFile(traceFile=" + arg + ") new trace destination=" + second +
                       " rc=0"}));
  EXPECT_EQ(openDescriptorsOn(path()), 0);
  EXPECT_EQ(openDescriptorsOn(second), 1);
}

TEST_F(TraceFileTest, SameFileAgainIsReopenedAndReportedAsSwitch) {
  ASSERT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  mark();
  ASSERT_EQ(QVA_setAPITraceFile(path().c_str()), QVA_OK);
  const std::string arg = ptrText(path().c_str());
  EXPECT_EQ(sinceMark(),
            (Lines{"1097 ENTRY  API.QVA_setAPITraceFile(traceFile=" + arg + ") current trace destination=" + path(),
                   "BANNER", bannerSecondLine(4, path()),
                   "1098 DEBUG  API.QVA_setAPITraceFile() Trace file switched to new destination. Filename=" + path(),
                   "1101 EXIT   API.QVA_setAPITraceFile(traceFile=" + arg + ") new trace destination=" + path() +
                       " rc=0"}));
  EXPECT_EQ(openDescriptorsOn(path()), 1);
}

TEST_F(TraceFileTest, NullWhileOnStandardErrorLeavesDestinationUnchanged) {
  ASSERT_EQ(QVA_setAPITraceFile(nullptr), QVA_OK);
  EXPECT_EQ(openDescriptorsOn(path()), 0);
  qvatest::StderrCapture capture(scratch().file("stderr-null.txt"));
  ASSERT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  EXPECT_EQ(QVA_setAPITraceFile(nullptr), QVA_OK);
  ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
  capture.stop();
  const std::string nil = ptrText(nullptr);
  // The level change writes the banner without setting the flag, so the
  // null request writes it once more.
  EXPECT_EQ(qvatest::normalise(capture.lines()),
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
  struct stat info;
  EXPECT_NE(stat(bad.c_str(), &info), 0);
  // The level change wrote the banner without the flag; the failed open
  // writes it again and sets the flag.
  EXPECT_EQ(all(), (Lines{"BANNER", bannerSecondLine(1, path()), "BANNER", bannerSecondLine(1, path()),
                          "1100 *EXC*  API.QVA_setAPITraceFile(" + bad +
                              ") file append failed with errno=2. Trace file destination is unchanged. Filename=" +
                              path(),
                          "1092 *EXC*  API.QVA_getAPITraceLevel() Supplied pointer is NULL"}));
}

// A path of exactly the given length whose directories exist.
std::string pathOfLength(const std::string &base, size_t length) {
  std::string path = base;
  while (length - path.size() > 201) {
    path += "/" + std::string(199, 'd');
    mkdir(path.c_str(), 0700);
  }
  path += "/" + std::string(length - path.size() - 1, 'f');
  return path;
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
    for (const std::string &line : sinceMark()) {
      if (line != "BANNER" && !qvatest::isBannerLine(line)) lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "1100 *EXC*  API.QVA_setAPITraceFile(" + tooLong + ") file append failed with errno=" +
                            std::to_string(ENAMETOOLONG) +
                            ". Trace file destination is unchanged. Filename=" + path());
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
  ASSERT_EQ(QVA_setAPITraceLevel(4), QVA_OK);
  mark();
  QVA_setAPITraceDataOffset(64);
  QVA_setAPITraceDataOffset(4294967295u);
  QVA_setAPITraceDataLength(0);
  QVA_setAPITraceDataLength(300);
  EXPECT_EQ(sinceMark(),
            (Lines{"1013 ENTRY  API.QVA_setAPITraceDataOffset(dataOffset=64)",
                   "1014 DEBUG  API.QVA_setAPITraceDataOffset Trace data offset changed from 0 to 64",
                   "1015 EXIT   API.QVA_setAPITraceDataOffset()",
                   "1013 ENTRY  API.QVA_setAPITraceDataOffset(dataOffset=4294967295)",
                   "1014 DEBUG  API.QVA_setAPITraceDataOffset Trace data offset changed from 64 to 4294967295",
                   "1015 EXIT   API.QVA_setAPITraceDataOffset()",
                   "1010 ENTRY  API.QVA_setAPITraceDataLength(dataLength=0)",
                   "1011 DEBUG  API.QVA_setAPITraceDataLength Trace data truncation length changed from 128 to 0",
                   "1012 EXIT   API.QVA_setAPITraceDataLength()",
                   "1010 ENTRY  API.QVA_setAPITraceDataLength(dataLength=300)",
                   "1011 DEBUG  API.QVA_setAPITraceDataLength Trace data truncation length changed from 0 to 300",
                   "1012 EXIT   API.QVA_setAPITraceDataLength()"}));
  EXPECT_EQ(clientAPIDataOffset, 4294967295u);
  EXPECT_EQ(clientAPIDataTrunc, 300u);
}

TEST_F(TraceFileTest, RcStringTracesTheNestedEciLookup) {
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  mark();
  char name[QVA_RC_STRING_SIZE];
  const std::string buffer = ptrText(name);
  ASSERT_EQ(QVA_getRcString(-22, name), name);
  ASSERT_EQ(QVA_getRcString(-121, name), name);
  EXPECT_EQ(sinceMark(),
            (Lines{"1130 ENTRY  clapi_impl.QVA_getRcString(rc=-22, rcString=" + buffer + ")",
                   "3310 ENTRY  clapi_eci.QVA_getRcStringECI(rc=-22,rcString=" + buffer + ")",
                   "3311 EXIT   clapi_eci.QVA_getRcStringECI(rcString=" + buffer + ") rc=-22",
                   "1131 EXIT   clapi_impl.QVA_getRcString(rcString=ECI_ERR_UNKNOWN_SERVER) rc=-22",
                   "1130 ENTRY  clapi_impl.QVA_getRcString(rc=-121, rcString=" + buffer + ")",
                   "1131 EXIT   clapi_impl.QVA_getRcString(rcString=QVA_ERR_LOCKFAIL) rc=-121"}));
}

TEST_F(TraceFileTest, DumpStatePrintsStateTokensAndChannelsAtEveryLevel) {
  const std::string dashes(80, '-');
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  EXPECT_EQ(all(), (Lines{"qvaclient state dump: DLL Version=8.0.0.1 Trace Level=0 clientAPITraceFile=" + path(),
                          "The Gateway Token List is EMPTY", "Channel and container dump", dashes,
                          "The channel list is EMPTY", dashes}));
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  mark();
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  EXPECT_EQ(sinceMark(), (Lines{"1106 ENTRY  API.QVA_dumpState()",
                                "qvaclient state dump: DLL Version=8.0.0.1 Trace Level=3 clientAPITraceFile=" + path(),
                                "2180 ENTRY  clapi_qva_gwytok.clapiDumpGatewayTokens()",
                                "The Gateway Token List is EMPTY",
                                "2182 EXIT   clapi_qva_gwytok.clapiDumpGatewayTokens() List length=0 rc=1006",
                                "1410 ENTRY  API.QVA_ECI_dumpChannels()",
                                "Channel and container dump",
                                dashes,
                                "The channel list is EMPTY",
                                dashes,
                                "1419 EXIT   API.QVA_ECI_dumpChannels() rc=0 (ECI_NO_ERROR)",
                                "1107 EXIT   API.QVA_dumpState()"}));
}

}  // namespace
