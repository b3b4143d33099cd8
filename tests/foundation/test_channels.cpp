// Channels and containers without a Gateway, and the checks of an ECI
// parameter block.

#include <cstring>
#include <regex>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_eci.h"
#include "trace_fixture.h"

namespace {

using namespace qvatest;
using EciVerifyTest = TraceFileTest;

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
  int add(const char *name, const std::string &data = "", int32_t type = ECI_BIT, int32_t ccsid = 0,
          QvaChannel *in = nullptr) {
    return ECI_createContainer(in ? in : chan, name, type, ccsid, data.data(), static_cast<uint32_t>(data.size()));
  }
  // The container a cursor call lands on, or its result code; then a whole walk.
  std::string on(int (*call)(QvaChannel *, ContainerInfo *)) {
    ContainerInfo info;
    const int rc = call(chan, &info);
    return rc == ECI_NO_ERROR ? std::string(info.name) : std::to_string(rc);
  }
  std::string walk() {
    std::string names;
    for (std::string name; (name = on(ECI_getNextContainer)) != "-54";) names += name + " ";
    return names;
  }
  // A container's data length, CCSID and type.
  std::string info(const char *name, QvaChannel *in = nullptr) {
    ContainerInfo info{};
    EXPECT_EQ(ECI_getContainerInfo(in != nullptr ? in : chan, name, &info), ECI_NO_ERROR) << name;
    return std::to_string(info.dataLength) + " " + std::to_string(info.ccsid) + " " + std::to_string(info.type);
  }

  QvaChannel *chan = nullptr;
};

TEST_F(ChannelTest, NameRuleAcceptsExactlyTheSetAndSixteenCharacters) {
  const std::string exc = "*EXC*  clapi_channel.validateName name ", tooLong = "1402 " + exc + "length exceeds 16",
                    bad = "1403 " + exc + "contains invalid character '";
  const struct {
    std::string name, exc;  // the *EXC* line validateName writes, if any
  } cases[] = {{"ABCDEFGHIJKLMNOP", ""},
               {"az09<>$@#/%&?!:|", ""},
               {"\\\"=';.-_", ""},
               {"ABCDEFGHIJKLMNOPQ", tooLong},
               {"ABCDEFGHIJKLMNOP ", tooLong},
               {"TWO WORDS", bad + " '"},
               {"A,B", bad + ",'"},
               {"A+", bad + "+'"},
               {"caf\xE9", bad + "\xE9'"},
               {"", "1407 " + exc + "is zero length"}};
  level(1);
  for (const auto &c : cases) {
    mark();
    QvaChannel *made = nullptr;
    EXPECT_EQ(ECI_createChannel(c.name.c_str(), &made), c.exc.empty() ? ECI_NO_ERROR : ECI_ERR_INVALID_NAME) << c.name;
    EXPECT_EQ(sinceMark(), c.exc.empty() ? Lines{} : Lines{c.exc}) << c.name;
    char stored[17] = "xxxxxxxxxxxxxxxx";  // NUL-terminated by the library even at 16 characters
    EXPECT_TRUE(made == nullptr || (ECI_getChannelName(made, stored) == ECI_NO_ERROR && stored == c.name)) << stored;
  }
  mark();
  EXPECT_EQ(add(nullptr), ECI_ERR_INVALID_NAME);
  EXPECT_EQ(sinceMark(), Lines{"1401 " + exc + "is NULL"});
}

TEST_F(ChannelTest, WalkRunsNewestFirstRestartsAfterItsEndAndSurvivesDeletes) {
  for (const char *name : {"A", "B", "C"}) ASSERT_EQ(add(name), ECI_NO_ERROR);
  EXPECT_EQ(walk(), "C B A ");
  EXPECT_EQ(walk(), "C B A ") << "after the end the walk starts over";
  EXPECT_EQ(on(ECI_getFirstContainer), "C");
  EXPECT_EQ(on(ECI_getNextContainer), "B");
  ASSERT_EQ(ECI_deleteContainer(chan, "B"), ECI_NO_ERROR);
  EXPECT_EQ(on(ECI_getNextContainer), "A") << "the walk goes on after the deleted container";
  EXPECT_EQ(on(ECI_getFirstContainer), "C");
  ASSERT_EQ(ECI_deleteContainer(chan, "C"), ECI_NO_ERROR);
  EXPECT_EQ(on(ECI_getNextContainer), "A") << "deleting the first restarts at the new first";
  EXPECT_EQ(add("a"), ECI_NO_ERROR) << "names differ by case";
  EXPECT_EQ(add("A"), ECI_ERR_CONTAINER_EXISTS);
  for (const char *name : {"A", "a"}) ASSERT_EQ(ECI_deleteContainer(chan, name), ECI_NO_ERROR);
  for (auto call : {ECI_getFirstContainer, ECI_getNextContainer}) EXPECT_EQ(on(call), "-54");
  EXPECT_EQ(ECI_deleteContainer(chan, "A"), ECI_ERR_CONTAINER_NOTFOUND);
}

// LANG maps by prefix, the first match winning, else to 819 (reported when
// set). A channel keeps the CCSID of its first CHAR container, given or from
// the locale; BIT containers decide nothing and report 0.
TEST_F(ChannelTest, CcsidComesFromLangAndTheChannelKeepsItsFirst) {
  const std::pair<const char *, int32_t> cases[] = {
      {nullptr, 819},      {"", 819},       {"ar_EG", 1089},   {"trx", 920},        {"zh_TW.big5x", 950},
      {"zh_TW.BIG5", 964}, {"zh_HK", 1383}, {"tchinese", 964}, {"en_US.UTF-8", 819}};
  level(1);
  for (const auto &[lang, expected] : cases) {
    lang == nullptr ? unsetenv("LANG") : setenv("LANG", lang, 1);
    mark();
    int32_t ccsid = -1;
    EXPECT_EQ(getCurrentCcsid(&ccsid), 0);
    EXPECT_EQ(ccsid, expected) << (lang ? lang : "unset");
    EXPECT_EQ(sinceMark(), expected == 819 && lang != nullptr && lang[0] != '\0'
                               ? Lines{"1439 *EXC*  clapi_channel.getCurrentCcsid Unable to find a CCSID for codeset " +
                                       std::string(lang)}
                               : Lines{});
  }
  setenv("LANG", "ru_RU", 1);
  QvaChannel *other = nullptr;
  ASSERT_EQ(ECI_createChannel("OTHER", &other), ECI_NO_ERROR);
  ASSERT_EQ(add("BITS", "x", ECI_BIT, 37, other), ECI_NO_ERROR);
  EXPECT_EQ(other->ccsid, -1);
  for (int rc : {add("LOCALE", "x", ECI_CHAR, 0, other), add("UTF8", "x", ECI_CHAR, 1208, other),
                 add("FIRST", "x", ECI_CHAR, 1208), add("LATER", "x", ECI_CHAR, 0)})
    ASSERT_EQ(rc, ECI_NO_ERROR);
  EXPECT_EQ((Lines{info("BITS", other), info("LOCALE", other), info("UTF8", other), info("FIRST"), info("LATER")}),
            (Lines{"1 0 1", "1 915 2", "1 1208 2", "1 1208 2", "1 1208 2"}));
  EXPECT_EQ(std::to_string(other->ccsid) + " " + std::to_string(chan->ccsid), "915 1208");
}

// Reads stop at the end without wrapping; a set replaces the data with a
// fresh block even at the same length, leaving the old one as it was.
TEST_F(ChannelTest, DataIsReadUpToTheEndAndReplacedWhole) {
  ASSERT_EQ(add("DATA", "0123456789", ECI_CHAR, 37), ECI_NO_ERROR);
  // {length, offset, bytes read}
  const uint32_t cases[][3] = {{100, 0, 10}, {100, 4, 6},         {3, 4, 3},           {100, 10, 0},
                               {100, 11, 0}, {0xFFFFFFFFu, 1, 9}, {0xFFFFFFF8u, 9, 1}, {0, 2, 0}};
  for (const auto &c : cases) {
    std::string buffer(16, '.');
    uint32_t count = 99;
    EXPECT_EQ(ECI_getContainerData(chan, "DATA", buffer.data(), c[0], c[1], &count), ECI_NO_ERROR);
    EXPECT_EQ(count, c[2]) << c[0] << "@" << c[1];
    EXPECT_EQ(buffer, std::string("0123456789").substr(c[1] < 10 ? c[1] : 0, c[2]) + std::string(16 - c[2], '.'));
  }
  char byte;
  EXPECT_EQ(ECI_getContainerData(chan, "DATA", &byte, 1, 0, nullptr), ECI_NO_ERROR);
  Container *cont = findContainer(chan, "DATA");
  uint8_t *old = cont->dataPtr;
  ASSERT_EQ(ECI_setContainerData(chan, "DATA", "abcdefghij", 10), ECI_NO_ERROR);
  EXPECT_TRUE(cont->dataPtr != old && std::memcmp(old, "0123456789", 10) == 0);
  ASSERT_EQ(ECI_setContainerData(chan, "DATA", "longer", 6), ECI_NO_ERROR);
  EXPECT_EQ(info("DATA"), "6 37 2");
  ASSERT_EQ(ECI_setContainerData(chan, "DATA", nullptr, 0), ECI_NO_ERROR);
  EXPECT_TRUE(cont->dataPtr == nullptr && cont->dataLength == 0u);
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
  const int cases[][2] = {// {result, expected}
                          {ECI_createChannel("X", nullptr), ECI_ERR_NULLCHANNELPTR},
                          {ECI_deleteChannel(nullptr), ECI_ERR_NULLCHANNELPTR},
                          {ECI_getChannelName(nullptr, nullptr), ECI_ERR_INVALID_CHANNEL},
                          {ECI_getChannelName(chan, nullptr), ECI_ERR_NULLPTR},
                          {ECI_deleteChannel(&gone), ECI_ERR_INVALID_CHANNEL},
                          {ECI_deleteChannel(&copy), ECI_ERR_INVALID_CHANNEL},
                          {ECI_getChannelName(copy, name), ECI_ERR_INVALID_CHANNEL},
                          {ECI_getNextContainer(copy, &info), ECI_ERR_INVALID_CHANNEL},
                          {ECI_getFirstContainer(foreign, &info), ECI_ERR_INVALID_CHANNEL},
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
                          {ECI_deleteContainer(nullptr, "X"), ECI_ERR_INVALID_CHANNEL}};
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << "case " << i;
}

TEST_F(ChannelTest, FailedAllocationsLeaveNoHalfBuiltContainer) {
  for (int rc : {add("KEEP", "old data"), add("SAME", "old")}) ASSERT_EQ(rc, ECI_NO_ERROR);
  setAllocFailHook([](uint32_t, const char *tag) { return std::strcmp(tag, "CDAT") == 0; });
  EXPECT_EQ(add("NEW", "x", ECI_CHAR), ECI_ERR_MEMORY_SHORTAGE);
  EXPECT_EQ(chan->ccsid, 819) << "a CCSID decided before the failure stays";
  EXPECT_EQ(ECI_setContainerData(chan, "KEEP", "new", 3), ECI_ERR_MEMORY_SHORTAGE);
  EXPECT_EQ(ECI_setContainerData(chan, "SAME", "new", 3), ECI_ERR_MEMORY_SHORTAGE);
  setAllocFailHook([](uint32_t, const char *tag) { return std::strcmp(tag, "CONT") == 0; });
  EXPECT_EQ(add("NEW", "x"), ECI_ERR_MEMORY_SHORTAGE);
  setAllocFailHook([](uint32_t, const char *tag) { return std::strcmp(tag, "CHAN") == 0; });
  QvaChannel *none = nullptr;
  EXPECT_EQ(ECI_createChannel("NONE", &none), ECI_ERR_MEMORY_SHORTAGE);
  EXPECT_EQ(none, nullptr);
  setAllocFailHook(nullptr);
  EXPECT_EQ(walk(), "SAME KEEP ") << "no container was added";
  EXPECT_EQ(info("KEEP") + ", " + info("SAME"), "0 0 1, 0 0 1") << "a failed set leaves the container empty";
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
  const Lines name{"1400 ENTRY  clapi_channel.validateName(name=TEXT)",
                   "1404 EXIT   clapi_channel.validateName() rc=0 (ECI_NO_ERROR)"};
  const std::string create = "API.ECI_createContainer", ccsid = "clapi_channel.getCurrentCcsid",
                    next = "API.ECI_getNextContainer", del = "API.ECI_deleteContainer",
                    get = "API.ECI_getContainerData", ok = " rc=0 (ECI_NO_ERROR)";
  EXPECT_EQ(lines, (Lines{"1345 ENTRY  " + create + "(chanTok=" + chanText +
                          ", name=TEXT, type=2, ccsid=0, data=" + ptrText(hi) + ", dataLength=2)"} +
                    name +
                    Lines{"1435 ENTRY  " + ccsid + "(ccsidPtr=STACK)",
                          "1437 DEBUG  " + ccsid + " LANG environment variable not set, defaulting to CCSID 819",
                          "1441 EXIT   " + ccsid + "() rc=0, *ccsidPtr=819",
                          "1355 EVENT  " + create + " Channel CCSID set to 819 from locale",
                          "1354 EVENT  " + create + " Container CCSID set to 819",
                          "1352 DEBUG  " + create + " Copied 2 bytes of container data into API storage (" + data + ")",
                          "1353 EVENT  " + create + " Created container \"TEXT\" (" + contText +
                              ") in channel \"CHAN\" (" + chanText + ")",
                          "1359 EXIT   " + create + "()" + ok,
                          "1380 ENTRY  " + get + "(chanTok=" + chanText + ", name=TEXT, buffer=" + ptrText(buffer) +
                              ", length=4, offset=2, bytesReadPtr=(nil))"} +
                    name +
                    Lines{"1386 DEBUG  " + get + " No data to copy", "1389 EXIT   " + get + "()" + ok,
                          "1335 ENTRY  " + next + "(chanTok=" + chanText + ", infoPtr=(nil))",
                          "1337 *EXC*  " + next + " infoPtr is NULL",
                          "1344 EXIT   " + next + "() rc=-55 (ECI_ERR_NULLINFOPTR)",
                          "1360 ENTRY  " + del + "(chanTok=" + chanText + ", name=TEXT)"} +
                    name +
                    Lines{"1364 DEBUG  " + del + " Freeing 2 bytes of container data (" + data + ")",
                          "1365 EVENT  " + del + " Deleted container \"TEXT\" (" + contText + ")",
                          "1369 EXIT   " + del + "()" + ok}));
}

// Fields changed from a valid block: the code and line of the first check that
// fails, in the order call type, extend mode, length, area, version, time-out.
TEST_F(EciVerifyTest, EachCheckHasItsCodeAndLineAndTheFirstFailureWins) {
  static char commarea[10];
  const int codes[] = {ECI_ERR_INVALID_CALL_TYPE, ECI_ERR_INVALID_EXTEND_MODE, ECI_ERR_INVALID_DATA_LENGTH,  // 3301 on
                       ECI_ERR_INVALID_DATA_AREA, ECI_ERR_INVALID_VERSION,     ECI_ERR_REQUEST_TIMEOUT};
#define C(...) [](ECI_PARMS &p) { __VA_ARGS__; }
  const struct {
    void (*change)(ECI_PARMS &);
    int minVersion;
    std::string exc;  // the point and message of the exception line, if any
  } cases[] = {
      {C(p.eci_timeout = 0), 3, ""},
      {C(p.eci_extend_mode = ECI_COMMIT), 3, ""},
      {C(p.eci_version = 4), 3, ""},
      {C(p.eci_extend_mode = ECI_BACKOUT), 3, ""},
      {C(p.eci_version = 2), 2, ""},
      {C(p.eci_commarea = commarea; p.eci_commarea_length = 10), 3, ""},
      {C(p.eci_call_type = 0), 3, "3301 Invalid Call Type - eci_call_type=0"},
      {C(p.eci_call_type = 2; p.eci_extend_mode = 3; p.eci_commarea_length = -1), 3,
       "3301 Invalid Call Type - eci_call_type=2"},
      {C(p.eci_extend_mode = -1), 3, "3302 Invalid Extend Mode - eci_extend_mode=-1"},
      {C(p.eci_extend_mode = 3; p.eci_commarea_length = -1), 3, "3302 Invalid Extend Mode - eci_extend_mode=3"},
      // A negative length is reported before the pointer is looked at.
      {C(p.eci_commarea_length = -5; p.eci_version = 9), 3, "3303 Invalid Data Length - eci_commarea_length=-5"},
      {C(p.eci_commarea_length = 4; p.eci_version = 9; p.eci_timeout = -1), 3,
       "3304 Invalid Data Area - Commarea null but eci_commarea_length=4 "},
      {C(p.eci_commarea = commarea), 3, "3304 Invalid Data Area - Commarea not null but eci_commarea_length=0"},
      {C(p.eci_version = 2; p.eci_timeout = -1), 3, "3305 Invalid ECI Version - eci_version=2"},
      {C(p.eci_version = 5), 1, "3305 Invalid ECI Version - eci_version=5"},
      {C(p.eci_timeout = -1), 3, "3306 Invalid Timeout - eci_timeout=-1"}};
#undef C
  level(3);
  for (const auto &c : cases) {
    ECI_PARMS parms{};
    parms.eci_call_type = ECI_SYNC;
    parms.eci_version = 3;
    c.change(parms);
    mark();
    const int rc = c.exc.empty() ? ECI_NO_ERROR : codes[std::stoi(c.exc) - 3301];
    EXPECT_EQ(verifyEciParms(&parms, c.minVersion), rc) << c.exc;
    const std::string call = "clapi_eci.verifyEciParms(&EciParms=" + ptrText(&parms);
    Lines expected{"3300 ENTRY  " + call + ", minVersion=" + std::to_string(c.minVersion) + ")",
                   "3307 EXIT   " + call + ") rc=" + std::to_string(rc)};
    if (!c.exc.empty())
      expected.insert(expected.begin() + 1, c.exc.substr(0, 4) + " *EXC*  " + call + ") " + c.exc.substr(5));
    EXPECT_EQ(sinceMark(), expected) << c.exc;
  }
}

}  // namespace
