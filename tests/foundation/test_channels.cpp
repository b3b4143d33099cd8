// Channels and containers without a Gateway: the name rule, the walk and its
// cursor, CCSID decisions, data offsets and lengths, argument checks, stale
// tokens, allocation failures, the trace of a small session; and the checks
// of an ECI parameter block.

#include <cstdlib>
#include <cstring>
#include <regex>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_eci.h"
#include "trace_fixture.h"

namespace {

using namespace qvatest;

class ChannelTest : public TraceFileTest {
 protected:
  void SetUp() override {
    TraceFileTest::SetUp();
    unsetenv("LANG");
    ASSERT_EQ(ECI_createChannel("CHAN", &chan), ECI_NO_ERROR);
  }
  void TearDown() override {
    setAllocFailHook(nullptr);
    EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
    TraceFileTest::TearDown();
  }

  void add(const char *name, const std::string &data = "", int32_t type = ECI_BIT, int32_t ccsid = 0) {
    ASSERT_EQ(ECI_createContainer(chan, name, type, ccsid, data.data(), static_cast<uint32_t>(data.size())),
              ECI_NO_ERROR);
  }
  // The names a whole walk with ECI_getNextContainer yields, up to its end.
  std::string walk() {
    std::string names;
    ContainerInfo info;
    while (ECI_getNextContainer(chan, &info) == ECI_NO_ERROR) names += std::string(info.name) + " ";
    return names;
  }

  QvaChannel *chan = nullptr;
};

TEST_F(ChannelTest, NameRuleAcceptsExactlyTheSetAndSixteenCharacters) {
  const std::string bad = "1403 *EXC*  clapi_channel.validateName name contains invalid character '";
  const std::string tooLong = "1402 *EXC*  clapi_channel.validateName name length exceeds 16";
  const struct {
    std::string name, exc;  // the *EXC* line validateName writes, if any
  } cases[] = {{"ABCDEFGHIJKLMNOP", ""}, {"az09<>$@#/%&?!:|", ""}, {"\\\"=';.-_", ""}, {"ABCDEFGHIJKLMNOPQ", tooLong},
               {"ABCDEFGHIJKLMNOP ", tooLong}, {"TWO WORDS", bad + " '"}, {"A,B", bad + ",'"}, {"A+", bad + "+'"},
               {"caf\xE9", bad + "\xE9'"}, {"", "1407 *EXC*  clapi_channel.validateName name is zero length"}};
  level(1);
  for (const auto &c : cases) {
    mark();
    QvaChannel *made = nullptr;
    EXPECT_EQ(ECI_createChannel(c.name.c_str(), &made), c.exc.empty() ? ECI_NO_ERROR : ECI_ERR_INVALID_NAME) << c.name;
    EXPECT_EQ(sinceMark(), c.exc.empty() ? Lines{} : Lines{c.exc}) << c.name;
    if (made != nullptr) {
      char stored[17];
      std::memset(stored, 'x', sizeof stored);
      EXPECT_EQ(ECI_getChannelName(made, stored), ECI_NO_ERROR);
      EXPECT_EQ(std::string(stored), c.name);  // NUL-terminated even at 16 characters
    }
  }
  mark();
  EXPECT_EQ(ECI_createContainer(chan, nullptr, ECI_BIT, 0, nullptr, 0), ECI_ERR_INVALID_NAME);
  EXPECT_EQ(sinceMark(), Lines{"1401 *EXC*  clapi_channel.validateName name is NULL"});
}

TEST_F(ChannelTest, WalkRunsNewestFirstRestartsAfterItsEndAndSurvivesDeletes) {
  for (const char *name : {"A", "B", "C"}) add(name);
  EXPECT_EQ(walk(), "C B A ");
  EXPECT_EQ(walk(), "C B A ") << "after the end the walk starts over";
  ContainerInfo info;
  ASSERT_EQ(ECI_getFirstContainer(chan, &info), ECI_NO_ERROR);
  ASSERT_EQ(ECI_getNextContainer(chan, &info), ECI_NO_ERROR);  // on B
  ASSERT_EQ(ECI_deleteContainer(chan, "B"), ECI_NO_ERROR);
  ASSERT_EQ(ECI_getNextContainer(chan, &info), ECI_NO_ERROR);
  EXPECT_STREQ(info.name, "A") << "the walk goes on after the deleted container";
  ASSERT_EQ(ECI_getFirstContainer(chan, &info), ECI_NO_ERROR);  // on C, the first
  ASSERT_EQ(ECI_deleteContainer(chan, "C"), ECI_NO_ERROR);
  ASSERT_EQ(ECI_getNextContainer(chan, &info), ECI_NO_ERROR);
  EXPECT_STREQ(info.name, "A") << "deleting the first restarts at the new first";
  add("a");  // names differ by case
  EXPECT_EQ(ECI_createContainer(chan, "A", ECI_BIT, 0, nullptr, 0), ECI_ERR_CONTAINER_EXISTS);
  ASSERT_EQ(ECI_deleteContainer(chan, "A"), ECI_NO_ERROR);
  ASSERT_EQ(ECI_deleteContainer(chan, "a"), ECI_NO_ERROR);
  EXPECT_EQ(ECI_getFirstContainer(chan, &info), ECI_ERR_ENDOFCONTAINERS);
  EXPECT_EQ(ECI_getNextContainer(chan, &info), ECI_ERR_ENDOFCONTAINERS);
  EXPECT_EQ(ECI_deleteContainer(chan, "A"), ECI_ERR_CONTAINER_NOTFOUND);
}

TEST_F(ChannelTest, LangMapsByPrefixFirstMatchWinsAndDefaultsTo819) {
  const struct {
    const char *lang;  // null: unset
    int32_t ccsid;
  } cases[] = {{nullptr, 819},       {"", 819},         {"tr_TR", 920},        {"trx", 920},
               {"ja_JP.UTF-8", 5050}, {"zh_TW.big5x", 950}, {"zh_TWN", 964},   {"zh_TW.BIG5", 964},
               {"zh_HK", 1383},      {"zh_CN.GB2312", 1383}, {"ar_EG", 1089},  {"iw_IL", 916},
               {"tchinese", 964},    {"en_US.UTF-8", 819}, {"de_DE", 819}};
  level(1);
  for (const auto &c : cases) {
    c.lang == nullptr ? unsetenv("LANG") : setenv("LANG", c.lang, 1);
    mark();
    int32_t ccsid = -1;
    EXPECT_EQ(getCurrentCcsid(&ccsid), 0);
    EXPECT_EQ(ccsid, c.ccsid) << (c.lang ? c.lang : "unset");
    const bool unmapped = c.ccsid == 819 && c.lang != nullptr && c.lang[0] != '\0';
    EXPECT_EQ(sinceMark(), unmapped ? Lines{std::string("1439 *EXC*  clapi_channel.getCurrentCcsid Unable to find a "
                                                        "CCSID for codeset ") + c.lang}
                                    : Lines{});
  }
  unsetenv("LANG");
}

TEST_F(ChannelTest, ChannelKeepsItsFirstCcsidAndBitContainersReportZero) {
  setenv("LANG", "ru_RU", 1);
  QvaChannel *other = nullptr;
  ASSERT_EQ(ECI_createChannel("OTHER", &other), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(other, "BITS", ECI_BIT, 37, "x", 1), ECI_NO_ERROR);
  EXPECT_EQ(other->ccsid, -1) << "a BIT container decides nothing";
  ASSERT_EQ(ECI_createContainer(other, "LOCALE", ECI_CHAR, 0, "x", 1), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(other, "UTF8", ECI_CHAR, 1208, "x", 1), ECI_NO_ERROR);
  add("FIRST", "x", ECI_CHAR, 1208);
  add("LATER", "x", ECI_CHAR, 0);
  const struct {
    QvaChannel *chan;
    const char *name;
    uint32_t ccsid;
  } expected[] = {{other, "BITS", 0}, {other, "LOCALE", 915}, {other, "UTF8", 1208}, {chan, "FIRST", 1208},
                  {chan, "LATER", 1208}};
  for (const auto &e : expected) {
    ContainerInfo info;
    ASSERT_EQ(ECI_getContainerInfo(e.chan, e.name, &info), ECI_NO_ERROR);
    EXPECT_EQ(uint32_t{info.ccsid}, e.ccsid) << e.name;
  }
  EXPECT_EQ(other->ccsid, 915);
  EXPECT_EQ(chan->ccsid, 1208);
  unsetenv("LANG");
}

TEST_F(ChannelTest, GetContainerDataCutsAtTheEndWithoutWrapping) {
  add("TEN", "0123456789");
  const struct {
    uint32_t length, offset, count;
  } cases[] = {{100, 0, 10}, {100, 4, 6}, {3, 4, 3}, {100, 10, 0}, {100, 11, 0}, {0xFFFFFFFFu, 1, 9},
               {0xFFFFFFF8u, 9, 1}, {0, 2, 0}};
  for (const auto &c : cases) {
    std::string buffer(16, '.');
    uint32_t count = 99;
    EXPECT_EQ(ECI_getContainerData(chan, "TEN", buffer.data(), c.length, c.offset, &count), ECI_NO_ERROR);
    EXPECT_EQ(count, c.count) << c.length << "@" << c.offset;
    EXPECT_EQ(buffer.substr(0, c.count), std::string("0123456789").substr(c.offset < 10 ? c.offset : 0, c.count));
    EXPECT_EQ(buffer.substr(c.count), std::string(16 - c.count, '.'));
  }
  char byte;
  EXPECT_EQ(ECI_getContainerData(chan, "TEN", &byte, 1, 0, nullptr), ECI_NO_ERROR);
}

TEST_F(ChannelTest, SetDataReplacesEmptiesAndLeavesASameLengthBlockBehind) {
  add("DATA", "abc", ECI_CHAR, 37);
  Container *cont = findContainer(chan, "DATA");
  uint8_t *old = cont->dataPtr;
  ASSERT_EQ(ECI_setContainerData(chan, "DATA", "xyz", 3), ECI_NO_ERROR);
  EXPECT_NE(cont->dataPtr, old) << "the same length gets a fresh block";
  EXPECT_EQ(std::memcmp(old, "abc", 3), 0) << "the old block stays as it was";
  ASSERT_EQ(ECI_setContainerData(chan, "DATA", "longer", 6), ECI_NO_ERROR);
  ContainerInfo info;
  ASSERT_EQ(ECI_getContainerInfo(chan, "DATA", &info), ECI_NO_ERROR);
  EXPECT_EQ(uint32_t{info.dataLength}, 6u);
  EXPECT_EQ(uint32_t{info.ccsid}, 37u);
  EXPECT_EQ(uint32_t{info.type}, static_cast<uint32_t>(ECI_CHAR));
  ASSERT_EQ(ECI_setContainerData(chan, "DATA", nullptr, 0), ECI_NO_ERROR);
  EXPECT_EQ(cont->dataPtr, nullptr);
  EXPECT_EQ(cont->dataLength, 0u);
}

TEST_F(ChannelTest, ArgumentsAreCheckedInOrderAndStaleTokensAreRefused) {
  ContainerInfo info;
  char name[17];
  QvaChannel *gone = nullptr;
  ASSERT_EQ(ECI_createChannel("GONE", &gone), ECI_NO_ERROR);
  QvaChannel *copy = gone;
  ASSERT_EQ(ECI_deleteChannel(&gone), ECI_NO_ERROR);
  EXPECT_EQ(gone, nullptr);
  int notAChannel[32] = {};
  auto *foreign = reinterpret_cast<QvaChannel *>(notAChannel);
  const struct {
    int rc, expected;
  } cases[] = {
      {ECI_createChannel("X", nullptr), ECI_ERR_NULLCHANNELPTR},
      {ECI_getChannelName(nullptr, nullptr), ECI_ERR_INVALID_CHANNEL},
      {ECI_getChannelName(chan, nullptr), ECI_ERR_NULLPTR},
      {ECI_deleteChannel(nullptr), ECI_ERR_NULLCHANNELPTR},
      {ECI_deleteChannel(&gone), ECI_ERR_INVALID_CHANNEL},
      {ECI_deleteChannel(&copy), ECI_ERR_INVALID_CHANNEL},
      {ECI_getChannelName(copy, name), ECI_ERR_INVALID_CHANNEL},
      {ECI_getFirstContainer(foreign, &info), ECI_ERR_INVALID_CHANNEL},
      {ECI_getNextContainer(copy, &info), ECI_ERR_INVALID_CHANNEL},
      {ECI_createContainer(nullptr, nullptr, 9, 0, nullptr, 1), ECI_ERR_INVALID_CHANNEL},
      {ECI_createContainer(chan, nullptr, 9, 0, nullptr, 1), ECI_ERR_INVALID_TYPE},
      {ECI_createContainer(chan, nullptr, ECI_BIT, 0, nullptr, 1), ECI_ERR_INVALID_DATA_LENGTH},
      {ECI_createContainer(copy, "OK", ECI_BIT, 0, nullptr, 0), ECI_ERR_INVALID_CHANNEL},
      {ECI_setContainerData(nullptr, "NONE", nullptr, 1), ECI_ERR_INVALID_CHANNEL},
      {ECI_setContainerData(chan, "NONE", nullptr, 1), ECI_ERR_INVALID_DATA_LENGTH},
      {ECI_setContainerData(chan, "NONE", nullptr, 0), ECI_ERR_CONTAINER_NOTFOUND},
      {ECI_getContainerData(chan, "NONE", nullptr, 1, 0, nullptr), ECI_ERR_NULLPTR},
      {ECI_getContainerData(chan, "NONE", name, 1, 0, nullptr), ECI_ERR_CONTAINER_NOTFOUND},
      {ECI_getContainerInfo(nullptr, "NONE", nullptr), ECI_ERR_INVALID_CHANNEL},
      {ECI_getContainerInfo(chan, "NONE", nullptr), ECI_ERR_NULLINFOPTR},
      {ECI_getContainerInfo(chan, "NO NAME", &info), ECI_ERR_INVALID_NAME},
      {ECI_getNextContainer(chan, nullptr), ECI_ERR_NULLINFOPTR},
      {ECI_deleteContainer(nullptr, "X"), ECI_ERR_INVALID_CHANNEL},
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].rc, cases[i].expected) << "case " << i;
}

TEST_F(ChannelTest, FailedAllocationsLeaveNoHalfBuiltContainer) {
  add("KEEP", "old data");
  add("SAME", "old");
  setAllocFailHook([](uint32_t, const char *tag) { return std::strcmp(tag, "CDAT") == 0; });
  EXPECT_EQ(ECI_createContainer(chan, "NEW", ECI_CHAR, 0, "x", 1), ECI_ERR_MEMORY_SHORTAGE);
  EXPECT_EQ(chan->ccsid, 819) << "a CCSID decided before the failure stays";
  EXPECT_EQ(ECI_setContainerData(chan, "KEEP", "new", 3), ECI_ERR_MEMORY_SHORTAGE);
  EXPECT_EQ(ECI_setContainerData(chan, "SAME", "new", 3), ECI_ERR_MEMORY_SHORTAGE);
  setAllocFailHook([](uint32_t, const char *tag) { return std::strcmp(tag, "CONT") == 0; });
  EXPECT_EQ(ECI_createContainer(chan, "NEW", ECI_BIT, 0, "x", 1), ECI_ERR_MEMORY_SHORTAGE);
  setAllocFailHook([](uint32_t, const char *tag) { return std::strcmp(tag, "CHAN") == 0; });
  QvaChannel *none = nullptr;
  EXPECT_EQ(ECI_createChannel("NONE", &none), ECI_ERR_MEMORY_SHORTAGE);
  EXPECT_EQ(none, nullptr);
  setAllocFailHook(nullptr);
  EXPECT_EQ(walk(), "SAME KEEP ") << "no container was added";
  for (const char *name : {"KEEP", "SAME"}) {
    ContainerInfo info;
    ASSERT_EQ(ECI_getContainerInfo(chan, name, &info), ECI_NO_ERROR);
    EXPECT_EQ(uint32_t{info.dataLength}, 0u) << name << ": a failed set leaves the container empty";
  }
}

TEST_F(ChannelTest, TraceOfASessionAtLevelFour) {
  level(4);
  const char hi[] = "hi";
  ASSERT_EQ(ECI_createContainer(chan, "TEXT", ECI_CHAR, 0, hi, 2), ECI_NO_ERROR);
  Container *cont = findContainer(chan, "TEXT");
  char buffer[4];
  ASSERT_EQ(ECI_getContainerData(chan, "TEXT", buffer, 4, 2, nullptr), ECI_NO_ERROR);
  ASSERT_EQ(ECI_getNextContainer(chan, nullptr), ECI_ERR_NULLINFOPTR);
  const std::string chanText = ptrText(chan), contText = ptrText(cont), data = ptrText(cont->dataPtr);
  ASSERT_EQ(ECI_deleteContainer(chan, "TEXT"), ECI_NO_ERROR);
  Lines lines = sinceMark();
  // The CCSID is asked for with a pointer into the stack.
  for (auto &line : lines) line = std::regex_replace(line, std::regex("ccsidPtr=0x[0-9a-f]+\\)"), "ccsidPtr=STACK)");
  const std::string valid = "1400 ENTRY  clapi_channel.validateName(name=TEXT)",
                    validated = "1404 EXIT   clapi_channel.validateName() rc=0 (ECI_NO_ERROR)";
  EXPECT_EQ(lines,
            (Lines{"1345 ENTRY  API.ECI_createContainer(chanTok=" + chanText + ", name=TEXT, type=2, ccsid=0, data=" +
                       ptrText(hi) + ", dataLength=2)",
                   valid, validated, "1435 ENTRY  clapi_channel.getCurrentCcsid(ccsidPtr=STACK)",
                   "1437 DEBUG  clapi_channel.getCurrentCcsid LANG environment variable not set, defaulting to CCSID 819",
                   "1441 EXIT   clapi_channel.getCurrentCcsid() rc=0, *ccsidPtr=819",
                   "1355 EVENT  API.ECI_createContainer Channel CCSID set to 819 from locale",
                   "1354 EVENT  API.ECI_createContainer Container CCSID set to 819",
                   "1352 DEBUG  API.ECI_createContainer Copied 2 bytes of container data into API storage (" + data + ")",
                   "1353 EVENT  API.ECI_createContainer Created container \"TEXT\" (" + contText +
                       ") in channel \"CHAN\" (" + chanText + ")",
                   "1359 EXIT   API.ECI_createContainer() rc=0 (ECI_NO_ERROR)",
                   "1380 ENTRY  API.ECI_getContainerData(chanTok=" + chanText + ", name=TEXT, buffer=" +
                       ptrText(buffer) + ", length=4, offset=2, bytesReadPtr=(nil))",
                   valid, validated, "1386 DEBUG  API.ECI_getContainerData No data to copy",
                   "1389 EXIT   API.ECI_getContainerData() rc=0 (ECI_NO_ERROR)",
                   "1335 ENTRY  API.ECI_getNextContainer(chanTok=" + chanText + ", infoPtr=(nil))",
                   "1337 *EXC*  API.ECI_getNextContainer infoPtr is NULL",
                   "1344 EXIT   API.ECI_getNextContainer() rc=-55 (ECI_ERR_NULLINFOPTR)",
                   "1360 ENTRY  API.ECI_deleteContainer(chanTok=" + chanText + ", name=TEXT)", valid, validated,
                   "1364 DEBUG  API.ECI_deleteContainer Freeing 2 bytes of container data (" + data + ")",
                   "1365 EVENT  API.ECI_deleteContainer Deleted container \"TEXT\" (" + contText + ")",
                   "1369 EXIT   API.ECI_deleteContainer() rc=0 (ECI_NO_ERROR)"}));
}

ECI_PARMS validBlock() {
  ECI_PARMS parms;
  std::memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  std::memcpy(parms.eci_program_name, "PROG1   ", 8);
  parms.eci_extend_mode = ECI_NO_EXTEND;
  parms.eci_version = 3;
  return parms;
}

using EciVerifyTest = TraceFileTest;

TEST_F(EciVerifyTest, ValidBlockPassesAndTracesEntryAndExit) {
  level(3);
  ECI_PARMS parms = validBlock();
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR);
  const std::string p = ptrText(&parms);
  EXPECT_EQ(sinceMark(), (Lines{"3300 ENTRY  clapi_eci.verifyEciParms(&EciParms=" + p + ", minVersion=3)",
                                "3307 EXIT   clapi_eci.verifyEciParms(&EciParms=" + p + ") rc=0"}));
}

// Fields changed from a valid block: the code and exception line of the first
// check that fails, in the order call type, extend mode, data length, data
// area, version, time-out.
TEST_F(EciVerifyTest, EachCheckHasItsCodeAndLineAndTheFirstFailureWins) {
  static char commarea[10];
#define CHANGE(...) [](ECI_PARMS &p) { __VA_ARGS__; }
  const struct {
    void (*change)(ECI_PARMS &);
    int minVersion, rc;
    std::string exc;
  } cases[] = {
      {CHANGE(p.eci_commarea = commarea; p.eci_commarea_length = 10), 3, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_extend_mode = 1), 3, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_extend_mode = 2), 3, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_extend_mode = 4), 3, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_version = 4), 3, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_version = 2), 2, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_timeout = 32767), 3, ECI_NO_ERROR, ""},
      {CHANGE(p.eci_call_type = 0), 3, ECI_ERR_INVALID_CALL_TYPE, "3301 Invalid Call Type - eci_call_type=0"},
      {CHANGE(p.eci_call_type = 2; p.eci_extend_mode = 3; p.eci_commarea_length = -1), 3, ECI_ERR_INVALID_CALL_TYPE,
       "3301 Invalid Call Type - eci_call_type=2"},
      {CHANGE(p.eci_extend_mode = -1), 3, ECI_ERR_INVALID_EXTEND_MODE, "3302 Invalid Extend Mode - eci_extend_mode=-1"},
      {CHANGE(p.eci_extend_mode = 3; p.eci_commarea_length = -1), 3, ECI_ERR_INVALID_EXTEND_MODE,
       "3302 Invalid Extend Mode - eci_extend_mode=3"},
      {CHANGE(p.eci_extend_mode = 5), 3, ECI_ERR_INVALID_EXTEND_MODE, "3302 Invalid Extend Mode - eci_extend_mode=5"},
      {CHANGE(p.eci_extend_mode = -32768), 3, ECI_ERR_INVALID_EXTEND_MODE,
       "3302 Invalid Extend Mode - eci_extend_mode=-32768"},
      {CHANGE(p.eci_extend_mode = 0x7FFF), 3, ECI_ERR_INVALID_EXTEND_MODE,
       "3302 Invalid Extend Mode - eci_extend_mode=32767"},
      // A negative length is reported before the pointer is looked at.
      {CHANGE(p.eci_commarea_length = -7), 3, ECI_ERR_INVALID_DATA_LENGTH,
       "3303 Invalid Data Length - eci_commarea_length=-7"},
      {CHANGE(p.eci_commarea_length = -5; p.eci_version = 9), 3, ECI_ERR_INVALID_DATA_LENGTH,
       "3303 Invalid Data Length - eci_commarea_length=-5"},
      {CHANGE(p.eci_commarea = commarea; p.eci_commarea_length = -5; p.eci_version = 9), 3,
       ECI_ERR_INVALID_DATA_LENGTH, "3303 Invalid Data Length - eci_commarea_length=-5"},
      {CHANGE(p.eci_commarea_length = 12), 3, ECI_ERR_INVALID_DATA_AREA,
       "3304 Invalid Data Area - Commarea null but eci_commarea_length=12 "},
      {CHANGE(p.eci_commarea_length = 4; p.eci_version = 9; p.eci_timeout = -1), 3, ECI_ERR_INVALID_DATA_AREA,
       "3304 Invalid Data Area - Commarea null but eci_commarea_length=4 "},
      {CHANGE(p.eci_commarea = commarea), 3, ECI_ERR_INVALID_DATA_AREA,
       "3304 Invalid Data Area - Commarea not null but eci_commarea_length=0"},
      {CHANGE(p.eci_version = 2; p.eci_timeout = -1), 3, ECI_ERR_INVALID_VERSION,
       "3305 Invalid ECI Version - eci_version=2"},
      {CHANGE(p.eci_version = 5), 3, ECI_ERR_INVALID_VERSION, "3305 Invalid ECI Version - eci_version=5"},
      {CHANGE(p.eci_version = 5), 1, ECI_ERR_INVALID_VERSION, "3305 Invalid ECI Version - eci_version=5"},
      {CHANGE(p.eci_version = 1), 2, ECI_ERR_INVALID_VERSION, "3305 Invalid ECI Version - eci_version=1"},
      {CHANGE(p.eci_version = -1), 1, ECI_ERR_INVALID_VERSION, "3305 Invalid ECI Version - eci_version=-1"},
      {CHANGE(p.eci_timeout = -1), 3, ECI_ERR_REQUEST_TIMEOUT, "3306 Invalid Timeout - eci_timeout=-1"},
      {CHANGE(p.eci_timeout = -2), 3, ECI_ERR_REQUEST_TIMEOUT, "3306 Invalid Timeout - eci_timeout=-2"},
  };
#undef CHANGE
  level(1);
  for (size_t i = 0; i < std::size(cases); ++i) {
    ECI_PARMS parms = validBlock();
    cases[i].change(parms);
    mark();
    EXPECT_EQ(verifyEciParms(&parms, cases[i].minVersion), cases[i].rc) << "case " << i;
    const std::string &exc = cases[i].exc;
    EXPECT_EQ(sinceMark(), exc.empty() ? Lines{}
                                       : Lines{exc.substr(0, 4) + " *EXC*  clapi_eci.verifyEciParms(&EciParms=" +
                                               ptrText(&parms) + ") " + exc.substr(5)})
        << "case " << i;
  }
}

}  // namespace
