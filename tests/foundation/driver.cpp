// Once-per-process behaviour: the environment settings, concurrent first calls
// and a failed initialisation. CTest runs "foundation_driver SCENARIO [ARGS]"
// once per process with the environment set for it. Linked with --wrap=
// pthread_mutex_init: "InitFail N" fails the library's Nth mutex creation.

#include <pthread.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <functional>
#include <thread>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "clapi_socketbuffer.h"
#include "trace_fixture.h"

static int failAt = 0;
static bool armed = false;  // set once gtest has made its own mutexes
static std::atomic<int> mutexInits{0};

extern "C" int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);

extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr) {
  if (armed && ++mutexInits == failAt) return EAGAIN;
  return __real_pthread_mutex_init(mutex, attr);
}

namespace {

using namespace qvatest;

std::vector<std::string> args;

std::string env(const char *name) { return std::getenv(name) != nullptr ? std::getenv(name) : ""; }
bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

class Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch.path().empty()) << "no scratch directory";
    // A trace file left by an earlier run would add its lines to this one's.
    if (!file.empty()) unlink(file.c_str());
    armed = true;
  }
  Lines captured(const std::function<void()> &calls) {
    StderrCapture capture(scratch.file("stderr"));
    calls();
    capture.stop();
    return normalise(capture.lines());
  }
  ScratchDir scratch;
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
};

// The settings the first call finds (ARGS: the level, truncation and offset
// they give, and the reply deadline, 0 if not given) and what the set-up writes to stderr and to the trace file; a
// level value that is not the level it gives was refused. The environment is
// read once: later changes do nothing.
TEST_F(Driver, Env) {
  ASSERT_GE(args.size(), 3u);
  const char *value = std::getenv("QVA_CLIENT_TRACE_LEVEL");
  const std::string length = env("QVA_CLIENT_DATA_LENGTH"), offset = env("QVA_CLIENT_DATA_OFFSET");
  const bool unopenable = file.find("/no-such-dir/") != std::string::npos;
  const std::string later = scratch.file("later.trc");
  int level = -7;
  const Lines err = captured([&] {
    EXPECT_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
    for (const char *var : {"QVA_CLIENT_TRACE_LEVEL", "QVA_CLIENT_DATA_LENGTH", "QVA_CLIENT_DATA_OFFSET"})
      setenv(var, "2", 1);
    setenv("QVA_CLIENT_TRACE_FILE", later.c_str(), 1);
    EXPECT_EQ(clapiInit(), QVA_OK);
  });
  EXPECT_TRUE(level == std::stoi(args[0]) && clientAPITrace.load() == level) << level;
  EXPECT_EQ(std::to_string(clientAPIDataTrunc) + " " + std::to_string(clientAPIDataOffset), args[1] + " " + args[2]);
  EXPECT_EQ(clapiGetReplyTimeout(), args.size() > 3 ? std::stoi(args[3]) : 0);
  const Lines banner{"BANNER", bannerSecondLine(level, file.empty() || unopenable ? "stderr" : file)};
  const std::string impl = "clapi_impl.clapiSetAPITrace",
                    get = "API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ")";
  Lines expected;
  if (value != nullptr && args[0] != value)
    expected = {"1136 *EXC*  " + impl + "LevelFromEnv() Supplied trace environment value " + value + " was invalid"};
  else if (unopenable)
    expected = banner + Lines{"1143 *EXC*  " + impl + "FileFromEnv(" + file +
                              ") file append failed with errno=2. "
                              "Trace file destination is unchanged. Filename=stderr"};
  else if (level == 3)
    expected = banner + Lines{"1050 ENTRY  " + impl + "ParamsFromEnv()", "1055 EXIT   " + impl + "ParamsFromEnv()",
                              "1091 ENTRY  " + get, "1093 EXIT   " + get + " rc=0"};
  EXPECT_EQ(err, expected);
  // A trace file gets the banner; an empty name does nothing, not even that.
  EXPECT_EQ(exists(file), !file.empty() && !unopenable);
  // At level 4 the file shows each setting as it is read and what it set.
  const std::string params = impl + "ParamsFromEnv", shown = " Environment variable QVA_CLIENT_DATA_";
  const Lines traced =
      level < 4
          ? Lines{}
          : Lines{"1141 DEBUG  " + impl + "FileFromEnv() Trace file switched to new destination. Filename=" + file,
                  "1050 ENTRY  " + params + "()",
                  "1051 DEBUG  " + params + shown + "LENGTH=" + length,
                  "1052 DEBUG  " + params + " Data truncation length set to " + args[1],
                  "1053 DEBUG  " + params + shown + "OFFSET=" + offset,
                  "1055 EXIT   " + params + "()",
                  "1091 ENTRY  " + get,
                  "1093 EXIT   " + get + " rc=0"};
  EXPECT_EQ(normalise(readLines(file)), level == 0 || !exists(file) ? Lines{} : banner + traced);
  EXPECT_FALSE(exists(later));
}

// Sixteen threads make their first call at once; the set-up runs once.
TEST_F(Driver, InitRace) {
  constexpr size_t kThreads = 16;
  std::barrier start(kThreads);
  std::vector<std::string> seen(kThreads);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      char *text = nullptr;
      int level = -7;
      const int rc = t % 3 == 0   ? QVA_getDLLVersion(&text)
                     : t % 3 == 1 ? QVA_getAPIVersion(&text)
                                  : QVA_getAPITraceLevel(&level);
      seen[t] = std::to_string(rc) + " " + (t % 3 == 2 ? std::to_string(level) : text ? text : "(null)");
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (size_t t = 0; t < kThreads; ++t) EXPECT_EQ(seen[t], t % 3 == 0 ? "0 8.0.0.1" : t % 3 == 1 ? "0 2.1.0.0" : "0 1");
  EXPECT_EQ(mutexInits.load(), 2);
  EXPECT_EQ(normalise(readLines(file)), (Lines{"BANNER", bannerSecondLine(1, file)}));
}

// The trace lock (ARGS 1) or the token-list lock (2) cannot be created: frame
// calls return the stored code (-121 or the lock module's -2) without doing
// their work, but the setters and the close's pointer checks still do theirs;
// level 1 stays, each line after the lock module's complaint if it has no lock.
TEST_F(Driver, InitFail) {
  const int stored = failAt == 1 ? QVA_ERR_LOCKFAIL : -2;
  char *version = nullptr;
  int level = -7;
  QvaGatewayToken *token = nullptr;
  ECI_PARMS parms{};
  const std::string after = scratch.file("after-failure.trc");
  const Lines lines = captured([&] {
    EXPECT_EQ(std::vector<int>({QVA_getDLLVersion(&version), QVA_getDLLVersion(nullptr), QVA_getAPIVersion(&version),
                                QVA_setAPITraceLevel(2), QVA_setAPITraceLevel(9), QVA_getAPITraceLevel(&level),
                                QVA_getAPITraceLevel(nullptr), QVA_setAPITraceFile(after.c_str()), QVA_dumpState(),
                                QVA_openRemoteGatewayConnection("127.0.0.1", 1, &token, 1),
                                QVA_closeAllGatewayConnections(), QVA_ECI_Execute(nullptr, &parms), clapiInit()}),
              std::vector<int>(13, stored));
    EXPECT_EQ(QVA_closeGatewayConnection(nullptr), QVA_ERR_NULLGWTOKPTR);
    EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_ERR_NULLGWTOK);
    QVA_setAPITraceDataOffset(8);
    QVA_setAPITraceDataLength(0);
  });
  EXPECT_TRUE(version == nullptr && level == -7 && token == nullptr && !exists(after));
  EXPECT_TRUE(clientAPIDataOffset == 8u && clientAPIDataTrunc == 0u && clientAPITrace.load() == 1);
  EXPECT_EQ(mutexInits.load(), failAt);
  ASSERT_FALSE(lines.empty());
  static const std::regex lockInitFailed(
      R"(3101 \*EXC\*  clapi_lock\.clapiInitializeLock\(lockPtr=0x[0-9a-f]+\) Lock initialization failed errno=-?\d+)");
  EXPECT_TRUE(std::regex_match(lines[0], lockInitFailed)) << lines[0];
  const std::string nil = ptrText(nullptr), close = "*EXC*  API.QVA_closeGatewayConnection(",
                    noLock = failAt == 1 ? lockLine("3104 *EXC*", "Request", &traceLock, " Lock not initialized") : "";
  Lines expected{failAt == 1 ? "clapi_impl.clapiInitFunc() Initialization of qvaclient API trace has failed. rc=-121"
                             : "1124 *EXC*  clapi_impl.clapiInitFunc() Initialization of qvaclient API Gateway Token "
                               "List has failed. rc=-2",
                 "BANNER",
                 bannerSecondLine(1, "stderr"),
                 noLock,
                 "1005 " + close + "&gwTokPtr=" + nil +
                     ") Null "
                     "gateway token Pointer",
                 noLock,
                 "1045 " + close + "gwTokPtr=" + nil + ") Null gateway token",
                 noLock,
                 noLock};
  std::erase(expected, "");
  EXPECT_EQ(Lines(lines.begin() + 1, lines.end()), expected);
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
  if (scenario == "InitFail") failAt = std::stoi(args.at(0));
  GTEST_FLAG_SET(filter, "Driver." + scenario);
  const int rc = RUN_ALL_TESTS();
  return ::testing::UnitTest::GetInstance()->test_to_run_count() == 1 ? rc : 2;
}
