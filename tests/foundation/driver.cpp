// Once-per-process behaviour that a shared test program cannot reach: the
// environment settings, concurrent first calls and a failed initialisation.
// CTest runs one scenario per process with the environment set for it; the
// driver checks what it observed and exits non-zero on any mismatch.
//
// Linked with --wrap=pthread_mutex_init: the scenarios "init-fail-trace" and
// "init-fail-gtl" make the first (trace lock) or second (token-list lock)
// mutex creation of the process fail.

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "qvaclient/qvaclient.h"
#include "qvatest/trace.h"

namespace {

int failAt = 0;
std::atomic<int> mutexInits{0};

}  // namespace

extern "C" int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);

extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr) {
  if (++mutexInits == failAt) return EAGAIN;
  return __real_pthread_mutex_init(mutex, attr);
}

namespace {

using Lines = std::vector<std::string>;
using qvatest::bannerSecondLine;
using qvatest::normalise;
using qvatest::ptrText;

int failures = 0;

void fail(int line, const std::string &what) {
  std::cout << "driver.cpp:" << line << ": FAILED: " << what << "\n";
  ++failures;
}

std::string show(const Lines &lines) {
  std::ostringstream out;
  out << "{\n";
  for (const std::string &line : lines) out << "  \"" << line << "\"\n";
  out << "}";
  return out.str();
}
std::string show(const std::string &text) { return "\"" + text + "\""; }
template <class T>
T show(T value) {
  return value;
}

#define CHECK(cond)                        \
  do {                                     \
    if (!(cond)) fail(__LINE__, #cond);    \
  } while (0)
#define CHECK_EQ(actual, expected)                                                                            \
  do {                                                                                                        \
    const auto &a_ = (actual);                                                                                \
    const auto &e_ = (expected);                                                                              \
    if (!(a_ == e_)) {                                                                                        \
      std::ostringstream m_;                                                                                  \
      m_ << #actual << "\n  actual:   " << show(a_) << "\n  expected: " << show(e_);                         \
      fail(__LINE__, m_.str());                                                                               \
    }                                                                                                         \
  } while (0)

Lines head(const Lines &lines, size_t n) { return Lines(lines.begin(), lines.begin() + std::min(n, lines.size())); }

bool exists(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

std::string env(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? value : "";
}

int currentLevel() {
  int level = -7;
  int rc = QVA_getAPITraceLevel(&level);
  CHECK_EQ(rc, QVA_OK);
  return level;
}

// ---- Scenarios ---------------------------------------------------------------

// QVA_CLIENT_TRACE_LEVEL=3: level 3 and the banner at the top of stderr.
void levelValid(qvatest::ScratchDir &scratch) {
  qvatest::StderrCapture capture(scratch.file("stderr"));
  int level = -7;
  CHECK_EQ(QVA_getAPITraceLevel(&level), QVA_OK);
  capture.stop();
  CHECK_EQ(level, 3);
  CHECK_EQ(normalise(capture.lines()),
           (Lines{"BANNER", bannerSecondLine(3, "stderr"),
                  "1050 ENTRY  clapi_impl.clapiSetAPITraceParamsFromEnv()",
                  "1055 EXIT   clapi_impl.clapiSetAPITraceParamsFromEnv()",
                  "1091 ENTRY  API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ")",
                  "1093 EXIT   API.QVA_getAPITraceLevel(traceStatePtr=" + ptrText(&level) + ") rc=0"}));
}

// An invalid QVA_CLIENT_TRACE_LEVEL: one exception line, then level 0.
void levelInvalid(qvatest::ScratchDir &scratch, const std::string &value) {
  CHECK(std::getenv("QVA_CLIENT_TRACE_LEVEL") != nullptr);
  CHECK_EQ(env("QVA_CLIENT_TRACE_LEVEL"), value);
  qvatest::StderrCapture capture(scratch.file("stderr"));
  int level = currentLevel();
  capture.stop();
  CHECK_EQ(level, 0);
  CHECK_EQ(normalise(capture.lines()),
           (Lines{"1136 *EXC*  clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value " + value +
                  " was invalid"}));
}

// QVA_CLIENT_TRACE_FILE with a valid level: the banner opens the file.
void fileFromEnv(qvatest::ScratchDir &scratch, int expectedLevel) {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  qvatest::StderrCapture capture(scratch.file("stderr"));
  CHECK_EQ(currentLevel(), expectedLevel);
  capture.stop();
  CHECK_EQ(capture.lines(), Lines{});
  CHECK(exists(file));
  Lines lines = normalise(qvatest::readLines(file));
  if (expectedLevel == 0) {
    CHECK_EQ(lines, Lines{});
  } else {
    CHECK_EQ(head(lines, 2), (Lines{"BANNER", bannerSecondLine(expectedLevel, file)}));
  }
  if (expectedLevel >= 4) {
    CHECK_EQ(lines.size() >= 3 ? lines[2] : std::string(),
             "1141 DEBUG  clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. Filename=" +
                 file);
  }
}

// A trace file that cannot be opened: banner and exception on stderr.
void fileFromEnvBad(qvatest::ScratchDir &scratch) {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  qvatest::StderrCapture capture(scratch.file("stderr"));
  CHECK_EQ(currentLevel(), 1);
  capture.stop();
  CHECK(!exists(file));
  CHECK_EQ(normalise(capture.lines()),
           (Lines{"BANNER", bannerSecondLine(1, "stderr"),
                  "1143 *EXC*  clapi_impl.clapiSetAPITraceFileFromEnv(" + file +
                      ") file append failed with errno=2. Trace file destination is unchanged. Filename=stderr"}));
}

// An empty QVA_CLIENT_TRACE_FILE does nothing at all, not even the banner.
void fileFromEnvEmpty(qvatest::ScratchDir &scratch) {
  CHECK(std::getenv("QVA_CLIENT_TRACE_FILE") != nullptr);
  qvatest::StderrCapture capture(scratch.file("stderr"));
  CHECK_EQ(currentLevel(), 1);
  capture.stop();
  CHECK_EQ(capture.lines(), Lines{});
}

// QVA_CLIENT_DATA_LENGTH / _OFFSET: the settings, and a dump that uses them.
void dataFromEnv(qvatest::ScratchDir &scratch, uint32_t truncation, uint32_t offset) {
  CHECK_EQ(currentLevel(), 0);
  CHECK_EQ(clientAPIDataTrunc, truncation);
  CHECK_EQ(clientAPIDataOffset, offset);
  uint8_t block[200] = {};
  qvatest::StderrCapture capture(scratch.file("stderr"));
  uint32_t shown = clapiTraceOutStorage(block, sizeof block, 0, 16, 1);
  capture.stop();
  uint32_t expected = offset >= sizeof block ? 0 : static_cast<uint32_t>(sizeof block) - offset;
  if (truncation != 0 && expected > truncation) expected = truncation;
  CHECK_EQ(shown, expected);
  Lines lines = capture.lines();
  CHECK_EQ(head(lines, 1), (Lines{"Data truncation size=" + std::to_string(truncation) +
                                  ", offset=" + std::to_string(offset)}));
}

// Level 4 with a file: the settings' DEBUG lines follow the banner.
void paramsTraced() {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  CHECK_EQ(currentLevel(), 4);
  CHECK_EQ(clientAPIDataTrunc, 64u);
  CHECK_EQ(clientAPIDataOffset, 0u);
  CHECK_EQ(head(normalise(qvatest::readLines(file)), 8),
           (Lines{"BANNER", bannerSecondLine(4, file),
                  "1141 DEBUG  clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. "
                  "Filename=" + file,
                  "1050 ENTRY  clapi_impl.clapiSetAPITraceParamsFromEnv()",
                  "1051 DEBUG  clapi_impl.clapiSetAPITraceParamsFromEnv Environment variable "
                  "QVA_CLIENT_DATA_LENGTH=64k",
                  "1052 DEBUG  clapi_impl.clapiSetAPITraceParamsFromEnv Data truncation length set to 64",
                  "1053 DEBUG  clapi_impl.clapiSetAPITraceParamsFromEnv Environment variable "
                  "QVA_CLIENT_DATA_OFFSET=x64",
                  "1055 EXIT   clapi_impl.clapiSetAPITraceParamsFromEnv()"}));
}

// The environment is read once: later changes do nothing.
void envReadOnce(qvatest::ScratchDir &scratch) {
  qvatest::StderrCapture capture(scratch.file("stderr"));
  CHECK_EQ(currentLevel(), 2);
  const std::string later = scratch.file("later.trc");
  setenv("QVA_CLIENT_TRACE_LEVEL", "5", 1);
  setenv("QVA_CLIENT_TRACE_FILE", later.c_str(), 1);
  setenv("QVA_CLIENT_DATA_LENGTH", "7", 1);
  setenv("QVA_CLIENT_DATA_OFFSET", "3", 1);
  const char *version = nullptr;
  CHECK_EQ(QVA_getDLLVersion(&version), QVA_OK);
  CHECK_EQ(clapiInit(), QVA_OK);
  CHECK_EQ(currentLevel(), 2);
  capture.stop();
  CHECK_EQ(clientAPIDataTrunc, 50u);
  CHECK_EQ(clientAPIDataOffset, 0u);
  CHECK(!exists(later));
  CHECK_EQ(normalise(capture.lines()), (Lines{"BANNER", bannerSecondLine(2, "stderr")}));
}

// Sixteen threads make their first call at once; the set-up runs once.
void initRace() {
  const std::string file = env("QVA_CLIENT_TRACE_FILE");
  constexpr int kThreads = 16;
  std::barrier start(kThreads);
  std::vector<int> results(kThreads, -999);
  std::vector<std::string> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      const char *text = nullptr;
      int level = -7;
      int rc;
      switch (t % 3) {
        case 0:
          rc = QVA_getDLLVersion(&text);
          seen[static_cast<size_t>(t)] = text != nullptr ? text : "(null)";
          break;
        case 1:
          rc = QVA_getAPIVersion(&text);
          seen[static_cast<size_t>(t)] = text != nullptr ? text : "(null)";
          break;
        default:
          rc = QVA_getAPITraceLevel(&level);
          seen[static_cast<size_t>(t)] = std::to_string(level);
          break;
      }
      results[static_cast<size_t>(t)] = rc;
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    CHECK_EQ(results[static_cast<size_t>(t)], QVA_OK);
    const char *expected = t % 3 == 0 ? "8.0.0.1" : t % 3 == 1 ? "2.1.0.0" : "1";
    CHECK_EQ(seen[static_cast<size_t>(t)], std::string(expected));
  }
  CHECK_EQ(mutexInits.load(), 2);
  CHECK_EQ(normalise(qvatest::readLines(file)), (Lines{"BANNER", bannerSecondLine(1, file)}));
}

// Every frame call after a failed initialisation returns the stored code
// without doing its work; the two setters and the close pointer checks still
// do theirs.
void callsAfterFailedInit(qvatest::ScratchDir &scratch, int stored) {
  const char *version = nullptr;
  CHECK_EQ(QVA_getDLLVersion(&version), stored);
  CHECK(version == nullptr);
  CHECK_EQ(QVA_getDLLVersion(nullptr), stored);
  CHECK_EQ(QVA_getAPIVersion(&version), stored);
  CHECK(version == nullptr);
  CHECK_EQ(QVA_setAPITraceLevel(2), stored);
  CHECK_EQ(QVA_setAPITraceLevel(9), stored);
  int level = -7;
  CHECK_EQ(QVA_getAPITraceLevel(&level), stored);
  CHECK_EQ(level, -7);
  CHECK_EQ(QVA_getAPITraceLevel(nullptr), stored);
  const std::string file = scratch.file("after-failure.trc");
  CHECK_EQ(QVA_setAPITraceFile(file.c_str()), stored);
  CHECK(!exists(file));
  CHECK_EQ(QVA_dumpState(), stored);
  QvaGatewayToken *token = nullptr;
  CHECK_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", 1, &token, 1), stored);
  CHECK(token == nullptr);
  CHECK_EQ(QVA_closeAllGatewayConnections(), stored);
  ECI_PARMS parms;
  std::memset(&parms, 0, sizeof parms);
  CHECK_EQ(QVA_ECI_Execute(nullptr, &parms), stored);
  CHECK_EQ(QVA_closeGatewayConnection(nullptr), QVA_ERR_NULLGWTOKPTR);
  CHECK_EQ(QVA_closeGatewayConnection(&token), QVA_ERR_NULLGWTOK);
  CHECK_EQ(clapiInit(), stored);

  QVA_setAPITraceDataOffset(8);
  QVA_setAPITraceDataLength(0);
  CHECK_EQ(clientAPIDataOffset, 8u);
  CHECK_EQ(clientAPIDataTrunc, 0u);
}

const std::regex &lockInitFailed() {
  static const std::regex pattern(
      R"(^3101 \*EXC\*  clapi_lock\.clapiInitializeLock\(lockPtr=0x[0-9a-f]+\) Lock initialization failed errno=-?\d+$)");
  return pattern;
}

// The trace lock cannot be created: -121 for good, one raw line on stderr.
void initFailTrace(qvatest::ScratchDir &scratch) {
  qvatest::StderrCapture capture(scratch.file("stderr"));
  callsAfterFailedInit(scratch, QVA_ERR_LOCKFAIL);
  capture.stop();
  CHECK_EQ(mutexInits.load(), 1);
  CHECK_EQ(clientAPITrace.load(), 1);
  Lines lines = normalise(capture.lines());
  CHECK(!lines.empty() && std::regex_match(lines[0], lockInitFailed()));
  CHECK_EQ(Lines(lines.begin() + std::min<size_t>(1, lines.size()), lines.begin() + std::min<size_t>(4, lines.size())),
           (Lines{"clapi_impl.clapiInitFunc() Initialization of qvaclient API trace has failed. rc=-121", "BANNER",
                  bannerSecondLine(1, "stderr")}));
  int raw = 0;
  for (const std::string &line : lines) {
    if (line.find("Initialization of qvaclient API trace has failed") != std::string::npos) ++raw;
  }
  CHECK_EQ(raw, 1);
}

// The token-list lock cannot be created: the lock module's -2 for good, and
// the trace stays at level 1.
void initFailGtl(qvatest::ScratchDir &scratch) {
  qvatest::StderrCapture capture(scratch.file("stderr"));
  callsAfterFailedInit(scratch, -2);
  capture.stop();
  CHECK_EQ(mutexInits.load(), 2);
  CHECK_EQ(clientAPITrace.load(), 1);
  Lines lines = normalise(capture.lines());
  CHECK(!lines.empty() && std::regex_match(lines[0], lockInitFailed()));
  CHECK_EQ(Lines(lines.begin() + std::min<size_t>(1, lines.size()), lines.begin() + std::min<size_t>(4, lines.size())),
           (Lines{"1124 *EXC*  clapi_impl.clapiInitFunc() Initialization of qvaclient API Gateway Token List has "
                  "failed. rc=-2",
                  "BANNER", bannerSecondLine(1, "stderr")}));
  // Level 1: the close's pointer check is reported, no ENTRY or EXIT is.
  int closeExc = 0;
  for (const std::string &line : lines) {
    if (line.rfind("1005 *EXC*  API.QVA_closeGatewayConnection(", 0) == 0) ++closeExc;
    CHECK(line.find(" ENTRY  ") == std::string::npos && line.find(" EXIT   ") == std::string::npos);
  }
  CHECK_EQ(closeExc, 1);
}

// With QVA_CLIENT_TRACE_LEVEL=3 the frame still traces entry and exit, and
// skips its checks.
void initFailGtlTraced(qvatest::ScratchDir &scratch) {
  qvatest::StderrCapture capture(scratch.file("stderr"));
  CHECK_EQ(QVA_getDLLVersion(nullptr), -2);
  capture.stop();
  Lines lines = normalise(capture.lines());
  const std::string nil = ptrText(nullptr);
  CHECK_EQ(Lines(lines.begin() + std::min<size_t>(4, lines.size()), lines.end()),
           (Lines{"1050 ENTRY  clapi_impl.clapiSetAPITraceParamsFromEnv()",
                  "1055 EXIT   clapi_impl.clapiSetAPITraceParamsFromEnv()",
                  "1130 ENTRY  API.QVA_getDLLVersion(&dllVersPtr=" + nil + ")",
                  "1132 EXIT   API.QVA_getDLLVersion(dllVersPtr=" + nil + "), rc=-2"}));
  CHECK_EQ(clientAPITrace.load(), 3);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::cout << "usage: " << argv[0] << " SCENARIO [ARGS]\n";
    return 2;
  }
  const std::string scenario = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (scenario == "init-fail-trace") failAt = 1;
  if (scenario.rfind("init-fail-gtl", 0) == 0) failAt = 2;

  qvatest::ScratchDir scratch;
  if (scratch.path().empty()) {
    std::cout << "no scratch directory\n";
    return 2;
  }
  // A trace file left by an earlier run would add its lines to this one's.
  const std::string traceFile = env("QVA_CLIENT_TRACE_FILE");
  if (!traceFile.empty()) unlink(traceFile.c_str());

  if (scenario == "env-level-valid") {
    levelValid(scratch);
  } else if (scenario == "env-level-invalid" && args.size() <= 1) {
    // No argument stands for the empty value, which CTest cannot pass.
    levelInvalid(scratch, args.empty() ? std::string() : args[0]);
  } else if (scenario == "env-file" && args.size() == 1) {
    fileFromEnv(scratch, std::stoi(args[0]));
  } else if (scenario == "env-file-bad") {
    fileFromEnvBad(scratch);
  } else if (scenario == "env-file-empty") {
    fileFromEnvEmpty(scratch);
  } else if (scenario == "env-data" && args.size() == 2) {
    dataFromEnv(scratch, static_cast<uint32_t>(std::stoul(args[0])), static_cast<uint32_t>(std::stoul(args[1])));
  } else if (scenario == "env-params-traced") {
    paramsTraced();
  } else if (scenario == "env-read-once") {
    envReadOnce(scratch);
  } else if (scenario == "init-race") {
    initRace();
  } else if (scenario == "init-fail-trace") {
    initFailTrace(scratch);
  } else if (scenario == "init-fail-gtl") {
    initFailGtl(scratch);
  } else if (scenario == "init-fail-gtl-traced") {
    initFailGtlTraced(scratch);
  } else {
    std::cout << "unknown scenario or arguments: " << scenario << "\n";
    return 2;
  }
  std::cout << scenario << ": " << (failures == 0 ? "ok" : "FAILED") << "\n";
  return failures == 0 ? 0 : 1;
}
