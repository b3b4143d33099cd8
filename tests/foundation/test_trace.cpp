// Result codes, the trace writer and its control, storage dumps, lock
// records and guarded allocation, read back from trace files.

#include <malloc.h>
#include <sys/stat.h>

#include <barrier>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <thread>

#include "clapi_diag.h"
#include "clapi_lock.h"
#include "trace_fixture.h"

namespace {

using namespace qvatest;
using LockTest = TraceFileTest;
using GuardedAllocTest = TraceFileTest;
using ConcurrentTest = TraceFileTest;

// One table, packed by hand.
// clang-format off
const std::map<std::string, long> kAgreed{
    {"QVA_OK", 0}, {"QVA_ERR_INVALID_DATA_LENGTH", -1}, {"QVA_ERR_SYSTEM_ERROR", -9}, {"QVA_ERR_MORE_SYSTEMS", -25},
    {"QVA_ERR_NO_SYSTEMS", -26}, {"QVA_ERR_NULLGWTOK", -100}, {"QVA_ERR_BADGWTOK", -101}, {"QVA_ERR_LOSTGWCON", -102},
    {"QVA_ERR_NULLPARM", -103}, {"QVA_ERR_TRACELEVEL", -104}, {"QVA_ERR_BADPORT", -107}, {"QVA_ERR_NULLGWTOKPTR", -108},
    {"QVA_ERR_NULLPTR", -109}, {"QVA_ERR_MALLOCFAIL", -111}, {"QVA_ERR_BADGWTOKLIST", -115},
    {"QVA_ERR_CONNECTFAILED", -118}, {"QVA_ERR_LOCKFAIL", -121}, {"QVA_ERR_PIDMISMATCH", -123},
    {"QVA_ERR_TIDMISMATCH", -124}, {"QVA_ERR_TRACEFILE", -130}, {"QVA_ERR_BADHOST", -132},
    {"QVA_ERR_NULLADDRESS", -133}, {"QVA_ERR_CONNECTTIMEOUT", -134}, {"QVA_ERR_NULLECIPOINTER", -137},
    {"QVA_ERR_INVALIDTIMEOUTPARM", -138}, {"QVA_ERR_UNKNOWN_REQUEST_TYPE", 61442}, {"QVA_ERR_GATEWAY_CLOSED", 61444},
    {"QVA_ERR_WORK_WAS_REFUSED", 61445}, {"QVA_ERR_GATEWAY_EXCEPTION", 61446}, {"QVA_ERR_GATEWAY_BACK_LEVEL", 61450},
    {"QVA_ERR_INVALID_REQUEST_TYPE", 61451}, {"ECI_NO_ERROR", 0}, {"ECI_ERR_INVALID_DATA_LENGTH", -1},
    {"ECI_ERR_INVALID_EXTEND_MODE", -2}, {"ECI_ERR_NO_VESK", -3}, {"ECI_ERR_VESK_DIED", -4},
    {"ECI_ERR_REQUEST_TIMEOUT", -5}, {"ECI_ERR_RESPONSE_TIMEOUT", -6}, {"ECI_ERR_TRANSACTION_ABEND", -7},
    {"ECI_ERR_LUW_TOKEN", -8}, {"ECI_ERR_SYSTEM_ERROR", -9}, {"ECI_ERR_INVALID_CALL_TYPE", -14},
    {"ECI_ERR_RESOURCE_SHORTAGE", -16}, {"ECI_ERR_NO_SESSIONS", -17}, {"ECI_ERR_INVALID_DATA_AREA", -19},
    {"ECI_ERR_INVALID_VERSION", -21}, {"ECI_ERR_UNKNOWN_SERVER", -22}, {"ECI_ERR_SECURITY_ERROR", -27},
    {"ECI_ERR_MAX_SYSTEMS", -28}, {"ECI_ERR_MAX_SESSIONS", -29}, {"ECI_ERR_ROLLEDBACK", -30},
    {"ECI_ERR_INVALID_CHANNEL", -50}, {"ECI_ERR_INVALID_NAME", -51}, {"ECI_ERR_NULLCHANNELPTR", -52},
    {"ECI_ERR_CHANNELLOCKFAIL", -53}, {"ECI_ERR_ENDOFCONTAINERS", -54}, {"ECI_ERR_NULLINFOPTR", -55},
    {"ECI_ERR_INVALID_TYPE", -56}, {"ECI_ERR_CONTAINER_NOTFOUND", -58}, {"ECI_ERR_CONTAINER_EXISTS", -59},
    {"ECI_ERR_COMMAREA_AND_CHANNEL", -60}, {"ECI_ERR_NULLPTR", -109}, {"ECI_ERR_MEMORY_SHORTAGE", -111},
    {"ECI_ERR_LOCKFAIL", -121}};
// clang-format on

// QVA_getRcString looks in the QVA_ table first, then among the ECI_ names;
// QVA_getRcStringECI knows only the ECI_ names from -60 to -1.
TEST(ResultCodes, HeaderConstantsHaveTheAgreedValuesAndTheLibrarysNames) {
  const std::string content = qvatest::readFile(QVA_CODES_HEADER);
  static const std::regex define(
      R"(#define[ \t]+((?:QVA|ECI)_(?:OK|NO_ERROR|ERR_[A-Z_]+))[ \t]+\(?[ \t]*(-?(?:0x[0-9A-Fa-f]+|[0-9]+))[ \t]*\)?)");
  std::map<std::string, long> header;
  for (auto it = std::sregex_iterator(content.begin(), content.end(), define); it != std::sregex_iterator(); ++it)
    header[(*it)[1]] = std::stol((*it)[2], nullptr, 0);
  EXPECT_EQ(header, kAgreed);
  std::map<long, std::string> qva, eci;
  std::set<long> probes{-105, -106, -110,   -112,   -119,  -120,  -122,   -131,       -135,
                        -136, -139, 0xF000, 0xF00F, 61443, 61447, -61445, 0x7FFFFFFF, static_cast<int>(0x80000000u)};
  for (int rc = -70; rc <= 5; ++rc) probes.insert(rc);
  for (const auto &[name, value] : kAgreed) {
    const bool isQva = name.rfind("QVA_", 0) == 0;
    (isQva ? qva : eci)[value] = name;
    probes.insert(value);
    EXPECT_LE(name.size() + 1, isQva ? size_t{QVA_RC_STRING_SIZE} : 29u) << name;  // 29: the smallest buffer
  }
  const auto nameOf = [](char *(*lookup)(int, char *), long rc) {  // in the caller's buffer
    char buffer[QVA_RC_STRING_SIZE];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(lookup(static_cast<int>(rc), buffer), buffer);
    return std::string(buffer);
  };
  for (long rc : probes) {
    EXPECT_EQ(nameOf(QVA_getRcString, rc), qva.count(rc) ? qva[rc] : eci.count(rc) ? eci[rc] : "UNKNOWN") << rc;
    EXPECT_EQ(nameOf(QVA_getRcStringECI, rc), eci.count(rc) && rc >= -60 && rc <= -1 ? eci[rc] : "UNKNOWN") << rc;
  }
}

// How many descriptors of this process are open on path.
int openDescriptorsOn(const std::string &path) {
  std::error_code ec;
  return static_cast<int>(std::count_if(std::filesystem::directory_iterator("/proc/self/fd"), {}, [&](const auto &fd) {
    return std::filesystem::read_symlink(fd.path(), ec).string() == path;
  }));
}

// The frame's own calls: values, prefixes and exact lines. The dump is written
// at every level; the level was 0 on entry to the first level change, so only
// its EXIT shows; the DLL version shares its points with the rc string.
TEST_F(TraceFileTest, FrameCallsDoTheirWorkTraceItAndRefuseBadArguments) {
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  EXPECT_EQ(QVA_setAPITraceLevel(-1), QVA_ERR_TRACELEVEL);
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  int level = -1;
  ASSERT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
  EXPECT_EQ(level, 3);
  for (int bad : {4, 6}) EXPECT_EQ(QVA_setAPITraceLevel(bad), bad == 4 ? QVA_OK : QVA_ERR_TRACELEVEL);
  EXPECT_EQ(QVA_getAPITraceLevel(nullptr), QVA_ERR_NULLPTR);
  for (unsigned offset : {64u, 4294967295u}) QVA_setAPITraceDataOffset(offset);
  for (unsigned length : {0u, 300u}) QVA_setAPITraceDataLength(length);
  EXPECT_TRUE(clientAPIDataOffset == 4294967295u && clientAPIDataTrunc == 300u);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  char *dllText = nullptr, *apiText = nullptr;
  EXPECT_EQ((std::vector<int>{QVA_getDLLVersion(&dllText), QVA_getDLLVersion(nullptr), QVA_getAPIVersion(&apiText),
                              QVA_getAPIVersion(nullptr)}),
            (std::vector<int>{0, QVA_ERR_NULLPTR, 0, QVA_ERR_NULLPTR}));
  EXPECT_EQ(std::string(dllText) + " " + apiText, "8.0.0.1 2.1.0.0");
  char name[QVA_RC_STRING_SIZE];
  EXPECT_TRUE(QVA_getRcString(-22, name) == name && QVA_getRcString(-121, name) == name);
  const std::string nil = ptrText(nullptr), at = ptrText(&level), dashes(80, '-'), buffer = ptrText(name),
                    set = " API.QVA_setAPITraceLevel(traceState=", get = " API.QVA_getAPITraceLevel(traceStatePtr=",
                    off = " API.QVA_setAPITraceDataOffset", len = " API.QVA_setAPITraceDataLength",
                    offChanged = off + " Trace data offset changed from ",
                    lenChanged = len + " Trace data truncation length changed from ",
                    head = "qvaclient state dump: DLL Version=8.0.0.1 Trace Level=",
                    empty = "The Gateway Token List is EMPTY", tokens = "clapi_qva_gwytok.clapiDumpGatewayTokens()",
                    rc = "clapi_impl.QVA_getRcString(", eci = "clapi_eci.QVA_getRcStringECI(";
  // A version query's lines: given a pointer, then refusing a null one.
  const auto query = [&](int point, const std::string &api, const std::string &arg, const void *given) {
    const std::string in = std::to_string(point) + " ENTRY  API." + api + "(&" + arg + "=",
                      out = std::to_string(point + 2) + " EXIT   API." + api + "(" + arg + "=";
    return Lines{in + ptrText(given) + ")", out + ptrText(given) + "), rc=0", in + nil + ")",
                 std::to_string(point + 1) + " *EXC*  API." + api + "() Supplied pointer is NULL",
                 out + nil + "), rc=-109"};
  };
  const Lines channels{"Channel and container dump", dashes, "The channel list is EMPTY", dashes};
  EXPECT_EQ(all(),
            (Lines{head + "0 clientAPITraceFile=" + path(), empty} + channels +
             Lines{"BANNER",
                   bannerSecondLine(3, path()),
                   "1096 EXIT  " + set + "3) new trace level=3 rc=0",
                   "1091 ENTRY " + get + at + ")",
                   "1093 EXIT  " + get + at + ") rc=0",
                   "1094 ENTRY " + set + "4) current trace level=3",
                   "1096 EXIT  " + set + "4) new trace level=4 rc=0",
                   "1094 ENTRY " + set + "6) current trace level=4",
                   "1095 *EXC*  API.QVA_setAPITraceLevel() Supplied trace state value 6 was invalid",
                   "1096 EXIT  " + set + "6) new trace level=4 rc=-104",
                   "1091 ENTRY " + get + nil + ")",
                   "1092 *EXC*  API.QVA_getAPITraceLevel() Supplied pointer is NULL",
                   "1093 EXIT  " + get + nil + ") rc=-109",
                   "1013 ENTRY " + off + "(dataOffset=64)",
                   "1014 DEBUG " + offChanged + "0 to 64",
                   "1015 EXIT  " + off + "()",
                   "1013 ENTRY " + off + "(dataOffset=4294967295)",
                   "1014 DEBUG " + offChanged + "64 to 4294967295",
                   "1015 EXIT  " + off + "()",
                   "1010 ENTRY " + len + "(dataLength=0)",
                   "1011 DEBUG " + lenChanged + "128 to 0",
                   "1012 EXIT  " + len + "()",
                   "1010 ENTRY " + len + "(dataLength=300)",
                   "1011 DEBUG " + lenChanged + "0 to 300",
                   "1012 EXIT  " + len + "()",
                   "1106 ENTRY  API.QVA_dumpState()",
                   head + "4 clientAPITraceFile=" + path(),
                   "2180 ENTRY  " + tokens,
                   empty,
                   "2182 EXIT   " + tokens + " List length=0 rc=1006",
                   "1410 ENTRY  API.QVA_ECI_dumpChannels()"} +
             channels +
             Lines{"1419 EXIT   API.QVA_ECI_dumpChannels() rc=0 (ECI_NO_ERROR)", "1107 EXIT   API.QVA_dumpState()"} +
             query(1130, "QVA_getDLLVersion", "dllVersPtr", &dllText) +
             query(1088, "QVA_getAPIVersion", "apiVersPtr", &apiText) +
             Lines{"1130 ENTRY  " + rc + "rc=-22, rcString=" + buffer + ")",
                   "3310 ENTRY  " + eci + "rc=-22,rcString=" + buffer + ")",
                   "3311 EXIT   " + eci + "rcString=" + buffer + ") rc=-22",
                   "1131 EXIT   " + rc + "rcString=ECI_ERR_UNKNOWN_SERVER) rc=-22",
                   "1130 ENTRY  " + rc + "rc=-121, rcString=" + buffer + ")",
                   "1131 EXIT   " + rc + "rcString=QVA_ERR_LOCKFAIL) rc=-121"}));
}

// Which points a fixed set of calls reaches at each level; nothing at 0.
TEST_F(TraceFileTest, EachLevelWordAppearsFromItsThreshold) {
  for (int lvl = 0; lvl <= 5; ++lvl) {
    const std::string file = scratch().file("level-" + std::to_string(lvl) + ".trc");
    for (int rc : {QVA_setAPITraceLevel(0), QVA_setAPITraceFile(file.c_str()), QVA_setAPITraceLevel(lvl)})
      ASSERT_EQ(rc, QVA_OK);
    EXPECT_EQ(std::vector<int>({QVA_getAPITraceLevel(nullptr), QVA_setAPITraceLevel(9), QVA_getDLLVersion(nullptr),
                                QVA_setAPITraceFile(scratch().file("no-such-dir/x.trc").c_str())}),
              std::vector<int>({QVA_ERR_NULLPTR, QVA_ERR_TRACELEVEL, QVA_ERR_NULLPTR, QVA_ERR_TRACEFILE}));
    QVA_setAPITraceDataOffset(5);
    char name[QVA_RC_STRING_SIZE];
    QVA_getRcString(-22, name);
    std::set<int> seen, expected;
    for (const std::string &text : readLines(file))
      if (auto line = parseTraceLine(text)) seen.insert(line->point);
    EXPECT_TRUE(lvl != 0 || readLines(file).empty()) << "level 0 writes nothing at all";
    if (lvl >= 1) expected.insert({1092, 1095, 1100, 1131});
    if (lvl >= 3) expected.insert({1091, 1093, 1094, 1096, 1130, 1132, 1097, 1101, 1013, 1015, 3310, 3311});
    if (lvl >= 4) expected.insert(1014);
    if (lvl >= 5) expected.insert({3103, 3106, 3107, 3110});
    EXPECT_EQ(seen, expected) << lvl;
  }
}

// A path of exactly the given length whose directories exist.
std::string pathOfLength(std::string path, size_t length) {
  for (; length - path.size() > 201; mkdir(path.c_str(), 0700)) path += "/" + std::string(199, 'd');
  return path + "/" + std::string(length - path.size() - 1, 'f');
}

std::string setFile(const char *name) { return "API.QVA_setAPITraceFile(traceFile=" + ptrText(name) + ")"; }

// A level leaving 0 writes the banner without setting the flag, so the first
// failed open or a null request on standard error writes it again. A switch,
// even to the same file (reopened), writes it once on the new destination and
// closes the old. Names of 1024 characters or more are refused, 1023 used.
TEST_F(TraceFileTest, DestinationRulesKeepBannerAndDescriptorsRight) {
  for (int lvl : {2, 0, 2, 1, 3}) ASSERT_EQ(QVA_setAPITraceLevel(lvl), QVA_OK);
  EXPECT_EQ(all(), (Lines{"BANNER", bannerSecondLine(2, path()), "BANNER", bannerSecondLine(2, path()),
                          "1096 EXIT   API.QVA_setAPITraceLevel(traceState=3) new trace level=3 rc=0"}));
  const std::pair<std::string, int> bad[] = {{scratch().file("no-such-dir/x.trc"), ENOENT},
                                             {pathOfLength(scratch().path(), 1024), ENAMETOOLONG},
                                             {pathOfLength(scratch().path(), 5000), ENAMETOOLONG}};
  for (const auto &[name, errnum] : bad) {
    mark();
    EXPECT_EQ(QVA_setAPITraceFile(name.c_str()), QVA_ERR_TRACEFILE) << name.size();
    EXPECT_NE(access(name.c_str(), F_OK), 0);
    Lines expected{"1097 ENTRY  " + setFile(name.c_str()) + " current trace destination=" + path(),
                   "1100 *EXC*  API.QVA_setAPITraceFile(" + name + ") file append failed with errno=" +
                       std::to_string(errnum) + ". Trace file destination is unchanged. Filename=" + path(),
                   "1101 EXIT   " + setFile(name.c_str()) + " new trace destination=" + path() + " rc=-130"};
    if (&name == &bad[0].first) expected.insert(expected.begin() + 1, {"BANNER", bannerSecondLine(3, path())});
    EXPECT_EQ(sinceMark(), expected) << name.size();
  }
  level(4);
  const std::string first = path(), second = pathOfLength(scratch().path(), 1023);
  for (const std::string &next : {first, second}) {
    mark();
    ASSERT_EQ(QVA_setAPITraceFile(next.c_str()), QVA_OK);
    const Lines entry{"1097 ENTRY  " + setFile(next.c_str()) + " current trace destination=" + first},
        rest{"BANNER", bannerSecondLine(4, next),
             "1098 DEBUG  API.QVA_setAPITraceFile() Trace file switched to new destination. Filename=" + next,
             "1101 EXIT   " + setFile(next.c_str()) + " new trace destination=" + next + " rc=0"};
    EXPECT_EQ(sinceMark(), next == first ? entry + rest : entry);
    EXPECT_EQ(all(second), next == first ? Lines{} : rest);
    EXPECT_EQ(openDescriptorsOn(first), next == first ? 1 : 0);
  }
  const Lines before = all(second);
  for (int lvl : {0, 1}) ASSERT_EQ(QVA_setAPITraceLevel(lvl), QVA_OK);
  EXPECT_EQ(all(second), before + Lines{"1094 ENTRY  API.QVA_setAPITraceLevel(traceState=0) current trace level=4"});
  for (int rc : {QVA_setAPITraceLevel(0), QVA_setAPITraceFile(nullptr)}) ASSERT_EQ(rc, QVA_OK);
  EXPECT_EQ(openDescriptorsOn(second), 0);
  StderrCapture capture(scratch().file("stderr-null.txt"));
  for (int rc : {QVA_setAPITraceLevel(4), QVA_setAPITraceFile(nullptr), QVA_setAPITraceLevel(0)}) EXPECT_EQ(rc, QVA_OK);
  capture.stop();
  EXPECT_EQ(normalise(capture.lines()),
            (Lines{"BANNER", bannerSecondLine(4, "stderr"),
                   "1096 EXIT   API.QVA_setAPITraceLevel(traceState=4) new trace level=4 rc=0",
                   "1097 ENTRY  " + setFile(nullptr) + " current trace destination=stderr", "BANNER",
                   bannerSecondLine(4, "stderr"),
                   "1099 DEBUG  API.QVA_setAPITraceFile() Trace file destination is unchanged. Filename=stderr",
                   "1101 EXIT   " + setFile(nullptr) + " new trace destination=stderr rc=0",
                   "1094 ENTRY  API.QVA_setAPITraceLevel(traceState=0) current trace level=4"}));
}

// Dumps go to the trace stream whatever the level: a head line, 16 bytes a
// line, hex padded and text not, unprintables as dots; truncation (0: none)
// and offset apply. Given no count, the line writers stop at a stop word.
TEST_F(TraceFileTest, StorageDumpsFormatLinesAndHonourOffsetAndTruncation) {
  const auto at = [](const void *p) { return hex8(low32(p)) + ": "; };
  alignas(16) const uint8_t hello[16] = {'H', 'e', 'l', 'l', 'o', ',', ' ', 'w', 'o', 'r', 'l', 'd', '!', '\n', 0, 0};
  const uint8_t digits[] = "0123456789ABCDEFwxyz", odd[8] = {0x00, 0x7F, 0x1F, 0x80, 0xFF, 0x20, 'A', '~'};
  uint8_t data[300];
  for (size_t i = 0; i < sizeof data; ++i) data[i] = static_cast<uint8_t>('a' + i % 26);
  const struct {
    const uint8_t *bytes;
    uint32_t truncation, offset, length, shown;
  } cases[] = {{hello, 128, 0, 16, 16},
               {digits, 128, 0, 20, 20},
               {odd, 128, 0, 8, 8},
               {data, 128, 0, 300, 128},
               {data, 0, 0, 300, 300},
               {data, 0, 8, 20, 12},
               {data, 0, 20, 20, 0},
               {data, 0, 25, 20, 0},
               {data, 5, 0, 300, 5},
               {data, 5, 4, 300, 5},
               // An offset far past the end must not wrap round to a small count.
               {data, 0, 0xFFFFFFF0u, 20, 0},
               {data, 128, 0x80000000u, 300, 0}};
  Lines last;  // the last line of each dump
  for (const auto &c : cases) {
    QVA_setAPITraceDataLength(c.truncation);
    QVA_setAPITraceDataOffset(c.offset);
    mark();
    EXPECT_EQ(clapiTraceOutStorage(c.bytes, c.length, 0, 16, 1), c.shown) << c.offset;
    const Lines lines = sinceMark();
    ASSERT_EQ(lines.size(), 1 + (c.shown + 15) / 16) << c.offset;
    EXPECT_EQ(lines[0],
              "Data truncation size=" + std::to_string(c.truncation) + ", offset=" + std::to_string(c.offset));
    if (c.shown != 0) last.push_back(lines.back());
  }
  EXPECT_EQ(last, (Lines{at(hello) + "48656C6C 6F2C2077 6F726C64 210A0000 : Hello, world!... ",
                         at(digits + 16) + "7778797A" + std::string(27, ' ') + " : wxyz",
                         at(odd) + "007F1F80 FF20417E" + std::string(18, ' ') + " : ..... A~",
                         at(data + 112) + "696A6B6C 6D6E6F70 71727374 75767778 : ijklmnopqrstuvwx ",
                         at(data + 288) + "63646566 6768696A 6B6C6D6E " + std::string(8, ' ') + " : cdefghijklmn",
                         at(data + 8) + "696A6B6C 6D6E6F70 71727374 " + std::string(8, ' ') + " : ijklmnopqrst",
                         at(data) + "61626364 65" + std::string(24, ' ') + " : abcde",
                         at(data + 4) + "65666768 69" + std::string(24, ' ') + " : efghi"}));
  // The writers read a 32-bit word at each position: a line plus three bytes.
  std::memcpy(data, "abcdef\xDE\xAD\xBE\xEF", 10);
  std::memset(data + 10, 0, 22);
  uint32_t stopWord;
  std::memcpy(&stopWord, data + 6, sizeof stopWord);
  mark();
  EXPECT_EQ(clapiWriteStorageLineHex(data, 16, 0, stopWord, 1), 6);
  std::fputc('|', clientAPITraceHandle);
  EXPECT_EQ(clapiWriteStorageLineChar(data, 16, 0, stopWord, 1), 6);
  std::fputc('\n', clientAPITraceHandle);
  EXPECT_EQ(clapiWriteStorageLineDual(data, 16, 0, stopWord, 1), 6);  // ends its line
  std::memset(data, 0x41, 32);
  EXPECT_EQ(clapiWriteStorageLineHex(data, 16, 0, 0x41414141u, 1), 0);  // a stop word at the first byte
  std::fflush(clientAPITraceHandle);
  const std::string hex = "61626364 6566" + std::string(22, ' ');
  EXPECT_EQ(sinceMark(), (Lines{hex + "|abcdef", hex + " : abcdef", std::string(35, ' ')}));
}

// Only a record with the marker counts as initialised; others are refused,
// which level 1 reports. Entry and exit lines need level 5.
TEST_F(LockTest, MarkerFollowsInitialiseAndDestroyAndRecordsWithoutItAreRefused) {
  ClapiLock lock{};
  EXPECT_EQ(clapiRequestLock(&lock), -1);
  EXPECT_EQ(all(), Lines{});
  const auto line = [&](const char *pointWord, const char *op, const char *rest = "") {
    return lockLine(pointWord, op, &lock, rest);
  };
  const char *ok = kMutexOk, *no = " Lock not initialized";
  level(5);
  EXPECT_EQ((std::vector<int64_t>{clapiInitializeLock(&lock), clapiIsLockInitialized(&lock), clapiInitializeLock(&lock),
                                  clapiIsLockInitialized(&lock), clapiRequestLock(&lock), clapiReleaseLock(&lock),
                                  clapiDestroyLock(&lock), clapiIsLockInitialized(&lock), clapiReleaseLock(&lock)}),
            (std::vector<int64_t>{0, 0xFFEEDDCC, 1, 0xFFEEDDCC, 0, 0, 0, 0xCCDDEEFF, -1}));
  EXPECT_EQ(
      sinceMark(),
      (Lines{line("3100 ENTRY", "Initialize"), line("3102 EXIT ", "Initialize", ok), line("3100 ENTRY", "Initialize"),
             line("3102 EXIT ", "Initialize", " mutexRc=0 rc=1"), line("3103 ENTRY", "Request"),
             line("3106 EXIT ", "Request", ok), line("3107 ENTRY", "Release"), line("3110 EXIT ", "Release", ok),
             line("3111 ENTRY", "Destroy"), line("3114 EXIT ", "Destroy", ok), line("3107 ENTRY", "Release"),
             line("3108 *EXC*", "Release", no), line("3110 EXIT ", "Release", " mutexRc=0 rc=-1")}));
  // A destroyed record may be set up anew; a good cycle writes nothing below level 5.
  level(4);
  for (int rc : {clapiInitializeLock(&lock), clapiRequestLock(&lock), clapiReleaseLock(&lock), clapiDestroyLock(&lock)})
    EXPECT_EQ(rc, 0);
  EXPECT_EQ(sinceMark(), Lines{});
  for (bool zeroFilled : {false, true}) {
    if (zeroFilled) std::memset(&lock, 0, sizeof lock);
    level(1);
    EXPECT_EQ(clapiIsLockInitialized(&lock), zeroFilled ? 0u : 0xCCDDEEFFu);
    for (int rc : {clapiRequestLock(&lock), clapiReleaseLock(&lock), clapiDestroyLock(&lock)}) EXPECT_EQ(rc, -1);
    EXPECT_EQ(sinceMark(), (Lines{line("3104 *EXC*", "Request", no), line("3108 *EXC*", "Release", no),
                                  line("3112 *EXC*", "Destroy", no)}));
  }
}

// Length, tag (four characters) and prefix guard before the data aligned for
// pointers, the suffix guard after it. The prefix is checked first; a bad length
// word moves the suffix looked for, never past the block: one just past (kPast)
// is refused even where a block of ours behind holds a suffix guard there.
TEST_F(GuardedAllocTest, BlocksAreGuardedAndDamageIsReportedWithTheEndItHit) {
  level(1);
  for (uint32_t length : {0u, 1u, 3u, 4u, 5u, 7u, 15u, 16u, 17u, 24u, 1000u, 65536u}) {
    auto *data = static_cast<char *>(clapiMalloc(length, "SCKBXYZ"));
    ASSERT_NE(data, nullptr) << length;
    uint32_t word = 0;
    std::memcpy(&word, data - 12, sizeof word);
    EXPECT_TRUE(word == length && reinterpret_cast<uintptr_t>(data) % alignof(void *) == 0) << length;
    EXPECT_EQ(std::string(data - 8, 8) + std::string(data + length, 4), "SCKBPF>><<SF") << length;
    std::memset(data, 0xFF, length);
    EXPECT_EQ(clapiFree(data), 0) << length;
  }
  EXPECT_EQ(sinceMark(), Lines{});
  constexpr uint32_t kPast = 1;
  const struct {
    uint32_t length;
    std::vector<int> damaged;  // offsets from the data
    uint32_t lengthWord;       // written over the length, if not 0
    const char *end;
  } cases[] = {{10, {10}, 0, "Suffix"},         {10, {-1}, 0, "Prefix"}, {0, {-4, 3}, 0, "Prefix"},
               {16, {}, 0x7FFFFFF0u, "Suffix"}, {16, {}, 15, "Suffix"},  {100000, {}, kPast, "Suffix"}};
  for (const auto &c : cases) {
    mark();
    auto *data = static_cast<uint8_t *>(clapiMalloc(c.length, "CDAT"));
    auto *next = static_cast<uint8_t *>(std::malloc(c.length + 20));
    ASSERT_TRUE(data != nullptr && next != nullptr);
    std::memset(data, 0, c.length);
    for (int at : c.damaged) data[at] = 'X';
    uint32_t length = c.lengthWord != 0 ? c.lengthWord : c.length;
    if (c.lengthWord == kPast) {
      const size_t room = malloc_usable_size(data - 16) - 16;  // the block starts 16 bytes before the data
      const uintptr_t gap = reinterpret_cast<uintptr_t>(next) - reinterpret_cast<uintptr_t>(data);
      length = static_cast<uint32_t>(gap + 4 > room && gap <= room + 12 ? gap : room + 8);
      if (length == gap) std::memcpy(next, "<<SF", 4);
    }
    std::memcpy(data - 12, &length, sizeof length);
    EXPECT_EQ(clapiFree(data), -9);
    std::free(next);
    EXPECT_EQ(sinceMark(), Lines{"9999 *EXC*  clapiFree " + std::string(c.end) + " not intact, buffer " +
                                 ptrText(data) + " (len=" + std::to_string(length) + ") corrupted"});
  }
}

// Threads trace at level 5, then count under a lock record: every line stays
// whole and carries its thread's id; a sanitizer sees any race.
TEST_F(ConcurrentTest, TraceLinesStayWholeAndALockRecordExcludesOtherThreads) {
  ClapiLock lock{};
  ASSERT_EQ(clapiInitializeLock(&lock), 0);
  ASSERT_EQ(QVA_setAPITraceLevel(5), QVA_OK);
  constexpr int kThreads = 4, kCalls = 100, kRounds = 5000;
  std::barrier traced(kThreads, []() noexcept { QVA_setAPITraceLevel(0); });
  long counter = 0;  // guarded by lock only
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0, level = 0; i < kCalls; ++i) QVA_getAPITraceLevel(&level);
      traced.arrive_and_wait();
      for (int i = 0; i < kRounds; ++i) {
        ASSERT_EQ(clapiRequestLock(&lock), 0);
        counter = counter + 1;
        ASSERT_EQ(clapiReleaseLock(&lock), 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(counter, long{kThreads} * kRounds);
  EXPECT_EQ(clapiDestroyLock(&lock), 0);
  std::map<uint32_t, int> entries;
  for (const std::string &text : readLines(path())) {
    if (isBannerLine(text)) continue;
    auto line = parseTraceLine(text);
    ASSERT_TRUE(line && line->pid == static_cast<unsigned>(getpid())) << "torn line: " << text;
    if (line->point == 1091) ++entries[line->tid];
  }
  EXPECT_EQ(entries.size(), size_t{kThreads});
  for (const auto &[tid, count] : entries) EXPECT_EQ(count, kCalls) << hex8(tid);
}

}  // namespace
