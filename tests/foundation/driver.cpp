// Once-per-process behaviour that a shared test program cannot reach: the
// environment settings, concurrent first calls and a failed initialisation.
// CTest runs one scenario per process, "foundation_driver SCENARIO [ARGS]",
// with the environment set for it.
//
// Linked with --wrap=pthread_mutex_init: the InitFail scenarios make the first
// (trace lock) or second (token-list lock) mutex creation of the library fail.

#include <pthread.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "trace_fixture.h"

namespace {

int failAt = 0;
bool armed = false;  // set once gtest has made its own mutexes
std::atomic<int> mutexInits{0};

}  // namespace

extern "C" int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);

extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr) {
  if (armed && ++mutexInits == failAt) return EAGAIN;
  return __real_pthread_mutex_init(mutex, attr);
}

namespace {

using namespace qvatest;

std::vector<std::string> args;

bool exists(const std::string &path) { return std::filesystem::exists(path); }

std::string env(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? value : "";
}

Lines slice(const Lines &lines, size_t from, size_t to) {
  return Lines(lines.begin() + std::min(from, lines.size()), lines.begin() + std::min(to, lines.size()));
}

int currentLevel() {
  int level = -7;
  EXPECT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
  return level;
}

class Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch.path().empty()) << "no scratch directory";
    // A trace file left by an earlier run would add its lines to this one's.
    if (!env("QVA_CLIENT_TRACE_FILE").empty()) unlink(env("QVA_CLIENT_TRACE_FILE").c_str());
    armed = true;
  }
  Lines captured(const std::function<void()> &calls) {
    StderrCapture capture(scratch.file("stderr"));
    calls();
    capture.stop();
    return normalise(capture.lines());
  }
  ScratchDir scratch;
};

// QVA_CLIENT_TRACE_LEVEL=3: level 3 and the banner at the top of stderr.
TEST_F(Driver, EnvLevelValid) {
  int level = -7;
  const Lines lines = captured([&] { EXPECT_EQ(QVA_getAPITraceLevel(&level), QVA_OK); });
  EXPECT_EQ(level, 3);
  EXPECT_EQ(lines, (Lines{"BANNER", bannerSecondLine(3, "stderr"),
                          "1050 ENTRY  clapi_impl.clapiSetAPITraceParamsFromEnv()",
                          "1055 EXIT   clapi_impl.clapiSetAPITraceParamsFromEnv()",
                          "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ")",
                          "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ") rc=0"}));
}

// An invalid QVA_CLIENT_TRACE_LEVEL (ARGS: the value; none for the empty
// value, which CTest cannot pass): one exception line, then level 0.
TEST_F(Driver, EnvLevelInvalid) {
  ASSERT_LE(args.size(), 1u);
  const std::string value = args.empty() ? "" : args[0];
  ASSERT_NE(std::getenv("QVA_CLIENT_TRACE_LEVEL"), nullptr);
  ASSERT_EQ(env("QVA_CLIENT_TRACE_LEVEL"), value);
  EXPECT_EQ(captured([] { EXPECT_EQ(currentLevel(), 0); }),
            (Lines{"1136 *EXC*  clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value " + value +
                   " was invalid"}));
}

// QVA_CLIENT_TRACE_FILE with a valid level (ARGS: the level): the banner
// opens the file, nothing goes to stderr.
TEST_F(Driver, EnvFile) {
  ASSERT_EQ(args.size(), 1u);
  const int expected = std::stoi(args[0]);
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  EXPECT_EQ(captured([&] { EXPECT_EQ(currentLevel(), expected); }), Lines{});
  ASSERT_TRUE(exists(file));
  const Lines lines = normalise(readLines(file));
  Lines head{"BANNER", bannerSecondLine(expected, file),
             "1141 DEBUG  clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. "
             "Filename=" + file};
  head.resize(expected == 0 ? 0 : expected < 4 ? 2 : 3);
  EXPECT_EQ(expected == 0 ? lines : slice(lines, 0, head.size()), head);
}

// A trace file that cannot be opened: banner and exception on stderr.
TEST_F(Driver, EnvFileBad) {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  EXPECT_EQ(captured([] { EXPECT_EQ(currentLevel(), 1); }),
            (Lines{"BANNER", bannerSecondLine(1, "stderr"),
                   "1143 *EXC*  clapi_impl.clapiSetAPITraceFileFromEnv(" + file +
                       ") file append failed with errno=2. Trace file destination is unchanged. Filename=stderr"}));
  EXPECT_FALSE(exists(file));
}

// An empty QVA_CLIENT_TRACE_FILE does nothing at all, not even the banner.
TEST_F(Driver, EnvFileEmpty) {
  ASSERT_NE(std::getenv("QVA_CLIENT_TRACE_FILE"), nullptr);
  EXPECT_EQ(captured([] { EXPECT_EQ(currentLevel(), 1); }), Lines{});
}

// QVA_CLIENT_DATA_LENGTH / _OFFSET (ARGS: the truncation and offset they
// give): the settings, and a dump that uses them.
TEST_F(Driver, EnvData) {
  ASSERT_EQ(args.size(), 2u);
  const uint32_t truncation = static_cast<uint32_t>(std::stoul(args[0]));
  const uint32_t offset = static_cast<uint32_t>(std::stoul(args[1]));
  EXPECT_EQ(currentLevel(), 0);
  EXPECT_EQ(clientAPIDataTrunc, truncation);
  EXPECT_EQ(clientAPIDataOffset, offset);
  uint8_t block[200] = {};
  uint32_t shown = 0;
  const Lines lines = captured([&] { shown = clapiTraceOutStorage(block, sizeof block, 0, 16, 1); });
  uint32_t expected = offset >= sizeof block ? 0 : static_cast<uint32_t>(sizeof block) - offset;
  if (truncation != 0 && expected > truncation) expected = truncation;
  EXPECT_EQ(shown, expected);
  EXPECT_EQ(slice(lines, 0, 1), (Lines{"Data truncation size=" + std::to_string(truncation) +
                                       ", offset=" + std::to_string(offset)}));
}

// Level 4 with a file: the settings' DEBUG lines follow the banner.
TEST_F(Driver, EnvParamsTraced) {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  EXPECT_EQ(currentLevel(), 4);
  EXPECT_EQ(clientAPIDataTrunc, 64u);
  EXPECT_EQ(clientAPIDataOffset, 0u);
  const std::string params = "clapi_impl.clapiSetAPITraceParamsFromEnv";
  EXPECT_EQ(slice(normalise(readLines(file)), 0, 8),
            (Lines{"BANNER", bannerSecondLine(4, file),
                   "1141 DEBUG  clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. "
                   "Filename=" + file,
                   "1050 ENTRY  " + params + "()",
                   "1051 DEBUG  " + params + " Environment variable QVA_CLIENT_DATA_LENGTH=64k",
                   "1052 DEBUG  " + params + " Data truncation length set to 64",
                   "1053 DEBUG  " + params + " Environment variable QVA_CLIENT_DATA_OFFSET=x64",
                   "1055 EXIT   " + params + "()"}));
}

// The environment is read once: later changes do nothing.
TEST_F(Driver, EnvReadOnce) {
  const std::string later = scratch.file("later.trc");
  EXPECT_EQ(captured([&] {
              EXPECT_EQ(currentLevel(), 2);
              setenv("QVA_CLIENT_TRACE_LEVEL", "5", 1);
              setenv("QVA_CLIENT_TRACE_FILE", later.c_str(), 1);
              setenv("QVA_CLIENT_DATA_LENGTH", "7", 1);
              setenv("QVA_CLIENT_DATA_OFFSET", "3", 1);
              const char *version = nullptr;
              EXPECT_EQ(QVA_getDLLVersion(&version), QVA_OK);
              EXPECT_EQ(clapiInit(), QVA_OK);
              EXPECT_EQ(currentLevel(), 2);
            }),
            (Lines{"BANNER", bannerSecondLine(2, "stderr")}));
  EXPECT_EQ(clientAPIDataTrunc, 50u);
  EXPECT_EQ(clientAPIDataOffset, 0u);
  EXPECT_FALSE(exists(later));
}

// Sixteen threads make their first call at once; the set-up runs once.
TEST_F(Driver, InitRace) {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  constexpr size_t kThreads = 16;
  std::barrier start(kThreads);
  std::vector<int> results(kThreads, -999);
  std::vector<std::string> seen(kThreads);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      const char *text = nullptr;
      int level = -7;
      results[t] = t % 3 == 0 ? QVA_getDLLVersion(&text) : t % 3 == 1 ? QVA_getAPIVersion(&text)
                                                                      : QVA_getAPITraceLevel(&level);
      seen[t] = t % 3 == 2 ? std::to_string(level) : text != nullptr ? text : "(null)";
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (size_t t = 0; t < kThreads; ++t) {
    EXPECT_EQ(results[t], QVA_OK);
    EXPECT_EQ(seen[t], t % 3 == 0 ? "8.0.0.1" : t % 3 == 1 ? "2.1.0.0" : "1");
  }
  EXPECT_EQ(mutexInits.load(), 2);
  EXPECT_EQ(normalise(readLines(file)), (Lines{"BANNER", bannerSecondLine(1, file)}));
}

// Every frame call after a failed initialisation returns the stored code
// without doing its work; the two setters and the close pointer checks still
// do theirs. Returns what went to stderr.
Lines callsAfterFailedInit(const ScratchDir &scratch, int stored) {
  StderrCapture capture(scratch.file("stderr"));
  const char *version = nullptr;
  int level = -7;
  QvaGatewayToken *token = nullptr;
  ECI_PARMS parms{};
  const std::string file = scratch.file("after-failure.trc");
  const int results[] = {QVA_getDLLVersion(&version), QVA_getDLLVersion(nullptr), QVA_getAPIVersion(&version),
                         QVA_setAPITraceLevel(2), QVA_setAPITraceLevel(9), QVA_getAPITraceLevel(&level),
                         QVA_getAPITraceLevel(nullptr), QVA_setAPITraceFile(file.c_str()), QVA_dumpState(),
                         QVA_openRemoteGatewayConnection("127.0.0.1", 1, &token, 1), QVA_closeAllGatewayConnections(),
                         QVA_ECI_Execute(nullptr, &parms), clapiInit()};
  for (size_t i = 0; i < std::size(results); ++i) EXPECT_EQ(results[i], stored) << "call " << i;
  EXPECT_TRUE(version == nullptr && level == -7 && token == nullptr && !exists(file));
  EXPECT_EQ(QVA_closeGatewayConnection(nullptr), QVA_ERR_NULLGWTOKPTR);
  EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_ERR_NULLGWTOK);
  QVA_setAPITraceDataOffset(8);
  QVA_setAPITraceDataLength(0);
  EXPECT_EQ(clientAPIDataOffset, 8u);
  EXPECT_EQ(clientAPIDataTrunc, 0u);
  capture.stop();
  EXPECT_EQ(clientAPITrace.load(), 1);
  const Lines lines = normalise(capture.lines());
  static const std::regex lockInitFailed(
      R"(^3101 \*EXC\*  clapi_lock\.clapiInitializeLock\(lockPtr=0x[0-9a-f]+\) Lock initialization failed errno=-?\d+$)");
  EXPECT_TRUE(!lines.empty() && std::regex_match(lines[0], lockInitFailed)) << lines.size();
  return lines;
}

// The trace lock cannot be created: -121 for good, one raw line on stderr.
TEST_F(Driver, InitFailTrace) {
  const Lines lines = callsAfterFailedInit(scratch, QVA_ERR_LOCKFAIL);
  EXPECT_EQ(mutexInits.load(), 1);
  EXPECT_EQ(slice(lines, 1, 4), (Lines{"clapi_impl.clapiInitFunc() Initialization of qvaclient API trace has failed. "
                                       "rc=-121",
                                       "BANNER", bannerSecondLine(1, "stderr")}));
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string &line) {
              return line.find("Initialization of qvaclient API trace has failed") != std::string::npos;
            }),
            1);
}

// The token-list lock cannot be created: the lock module's -2 for good, and
// the trace stays at level 1: the close's pointer check is reported, no ENTRY
// or EXIT is.
TEST_F(Driver, InitFailGtl) {
  const Lines lines = callsAfterFailedInit(scratch, -2);
  EXPECT_EQ(mutexInits.load(), 2);
  EXPECT_EQ(slice(lines, 1, 4), (Lines{"1124 *EXC*  clapi_impl.clapiInitFunc() Initialization of qvaclient API "
                                       "Gateway Token List has failed. rc=-2",
                                       "BANNER", bannerSecondLine(1, "stderr")}));
  int closeExc = 0;
  for (const std::string &line : lines) {
    if (line.rfind("1005 *EXC*  API.QVA_closeGatewayConnection(", 0) == 0) ++closeExc;
    EXPECT_TRUE(line.find(" ENTRY  ") == std::string::npos && line.find(" EXIT   ") == std::string::npos) << line;
  }
  EXPECT_EQ(closeExc, 1);
}

// With QVA_CLIENT_TRACE_LEVEL=3 the frame still traces entry and exit, and
// skips its checks.
TEST_F(Driver, InitFailGtlTraced) {
  const Lines lines = captured([] { EXPECT_EQ(QVA_getDLLVersion(nullptr), -2); });
  const std::string nil = ptrText(nullptr);
  EXPECT_EQ(slice(lines, 4, lines.size()), (Lines{"1050 ENTRY  clapi_impl.clapiSetAPITraceParamsFromEnv()",
                                                  "1055 EXIT   clapi_impl.clapiSetAPITraceParamsFromEnv()",
                                                  "1130 ENTRY  API.QVA_getDLLVersion(&dllVersPtr=" + nil + ")",
                                                  "1132 EXIT   API.QVA_getDLLVersion(dllVersPtr=" + nil + "), rc=-2"}));
  EXPECT_EQ(clientAPITrace.load(), 3);
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (argc < 2) {
    std::printf("usage: %s SCENARIO [ARGS]\n", argv[0]);
    return 2;
  }
  const std::string scenario = argv[1];
  args.assign(argv + 2, argv + argc);
  failAt = scenario == "InitFailTrace" ? 1 : scenario.rfind("InitFailGtl", 0) == 0 ? 2 : 0;
  GTEST_FLAG_SET(filter, "Driver." + scenario);
  const int rc = RUN_ALL_TESTS();
  return ::testing::UnitTest::GetInstance()->test_to_run_count() == 1 ? rc : 2;
}
