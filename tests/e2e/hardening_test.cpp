// The library against a Gateway and a process that misbehave: every
// allocation failing in turn, a Gateway that never answers, trickles under
// a storm of signals or is slow to close, threads that switch the trace under
// each other's calls, and a close-all while calls are in flight. Linked with
// the static library for its allocation seam and the reply-deadline setter.
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_socketbuffer.h"
#include "e2e_support.h"
#include "qvaemu/gateway.h"
#include "qvatest/net.h"

using namespace qvatest;
using namespace std::chrono_literals;
using qvaemu::Fault;

namespace {

std::atomic<int> allocations{0};
std::atomic<int> failAt{0};  // 0: no allocation fails
std::string runningStep, failedInStep;
bool failNth(uint32_t, const char *) {
  if (++allocations != failAt.load()) return false;
  failedInStep = runningStep;
  return true;
}

class HardeningTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(gw_.start(nullptr)); }
  void TearDown() override {
    setAllocFailHook(nullptr);
    clapiSetReplyTimeout(0);
    EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
    EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
    EXPECT_TRUE(tokenListEmpty());
  }
  int open(QvaGatewayToken **tok) { return QVA_openRemoteGatewayConnection(kLoopback, gw_.port(), tok, 5); }
  // One call of `program` with `text` as the COMMAREA; the COMMAREA it left.
  static int echo(QvaGatewayToken *tok, const std::string &text, std::string *after = nullptr) {
    GuardedArea area(text.size());
    area.set(text);
    ECI_PARMS parms = eciParms("ECHO", area.data(), area.length());
    const int rc = QVA_ECI_Execute(tok, &parms);
    if (after != nullptr) *after = area.guardIntact() ? area.text() : "guard overwritten";
    return rc;
  }

  qvaemu::Gateway gw_;
};

// Every container walks, reads back whole, and the walk ends.
void expectChannelWhole(QvaChannel *ch) {
  ContainerInfo info;
  int rc = ECI_getFirstContainer(ch, &info);
  for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(ch, &info)) {
    std::string data(info.dataLength, '\0');
    uint32_t got = 0;
    EXPECT_EQ(ECI_getContainerData(ch, info.name, data.data(), info.dataLength, 0, &got), ECI_NO_ERROR) << info.name;
    EXPECT_EQ(got, uint32_t{info.dataLength}) << info.name;
  }
  EXPECT_EQ(rc, ECI_ERR_ENDOFCONTAINERS);
}

// One session through every path that allocates: the result of its first
// failing step (and that step's name), or 0 when all went through.
int session(uint16_t port, std::string *failedStep) {
  QvaGatewayToken *tok = nullptr;
  QvaChannel *ch = nullptr;
  char commarea[16] = "hello";
  ECI_PARMS parms = eciParms("ECHO", commarea, sizeof commarea);
  unsigned short systems = 4;
  QVA_SYSTEM_ENTRY list[4];
  ECI_PARMS channelCall = eciParms("CHMIX", nullptr, 0);
  const auto callChannel = [&](const char *program) {
    setField(channelCall.eci_program_name, program);
    channelCall.eci_channel = ch;
    const int rc = QVA_ECI_Execute_Channel(tok, &channelCall);
    expectChannelWhole(ch);
    return rc;
  };
  const std::pair<const char *, std::function<int()>> steps[] = {
      {"open", [&] { return QVA_openRemoteGatewayConnection(kLoopback, port, &tok, 5); }},
      {"execute", [&] { return QVA_ECI_Execute(tok, &parms); }},
      {"list", [&] { return QVA_listSystems(tok, &systems, list); }},
      {"create channel", [&] { return ECI_createChannel("TORTURE", &ch); }},
      {"create TEXT", [&] { return ECI_createContainer(ch, "TEXT", ECI_CHAR, 37, "hello", 5); }},
      {"create RAW", [&] { return ECI_createContainer(ch, "RAW", ECI_BIT, 0, "\x00\x01\x02", 3); }},
      {"set RAW", [&] { return ECI_setContainerData(ch, "RAW", "abcdefgh", 8); }},
      {"CHMIX", [&] { return callChannel("CHMIX"); }},
      {"CHGROW", [&] { return callChannel("CHGROW"); }},
      {"delete TEXT", [&] { return ECI_deleteContainer(ch, "TEXT"); }},
      {"close", [&] { return QVA_closeGatewayConnection(&tok); }},
  };
  for (const auto &[name, run] : steps) {
    runningStep = name;
    const int rc = run();
    if (rc != 0) {
      *failedStep = name;
      return rc;
    }
  }
  return 0;
}

// Each allocation of the session fails in turn: the step that made it
// reports -111, every earlier step went through, nothing half-built stays
// behind (the sanitizer build checks for leaks at exit), and the same
// session then runs whole. Two steps report a failed allocation in their
// own terms: the open whose handshake could not get its buffer reports the
// failed handshake (-118), and the close closes all the same.
TEST_F(HardeningTest, EveryAllocationFailingInTurnIsReportedAndLeavesTheLibraryWorking) {
  setAllocFailHook(failNth);
  std::string step;
  ASSERT_EQ(session(gw_.port(), &step), 0) << step;
  const int total = allocations.exchange(0);
  ASSERT_GT(total, 10);
  for (int n = 1; n <= total; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(total));
    allocations = 0;
    failAt = n;
    step.clear();
    const int rc = session(gw_.port(), &step);
    failAt = 0;
    if (failedInStep == "close") {
      EXPECT_EQ(rc, 0);
    } else {
      EXPECT_EQ(step, failedInStep);
      EXPECT_TRUE(rc == QVA_ERR_MALLOCFAIL || (step == "open" && rc == QVA_ERR_CONNECTFAILED))
          << step << " gave " << rc;
    }
    EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
    EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
    EXPECT_TRUE(tokenListEmpty());
    allocations = 0;
    EXPECT_EQ(session(gw_.port(), &step), 0) << "afterwards, " << step;
  }
}

// The list's own delete refuses a token that is not on the list and leaves
// the caller's pointer alone; the API's check normally stops such a token
// first, so only a direct call shows it.
TEST_F(HardeningTest, TheListRefusesToDeleteATokenItDoesNotHold) {
  QvaGatewayToken *real = nullptr;
  ASSERT_EQ(open(&real), QVA_OK);
  QvaGatewayToken stranger = *real;
  QvaGatewayToken *tok = &stranger;
  EXPECT_EQ(clapiDeleteGatewayToken(&tok, 1), QVA_ERR_BADGWTOK);
  EXPECT_EQ(tok, &stranger);
  EXPECT_EQ(QVA_closeGatewayConnection(&real), QVA_OK);
}

std::atomic<int> signalsTaken{0};
void countSignal(int) { ++signalsTaken; }

// An interval timer interrupts every system call the library makes, its
// handler installed without SA_RESTART.
class SignalStorm {
 public:
  SignalStorm() {
    struct sigaction action {};
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &saved_);
    const itimerval every{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &every, nullptr);
  }
  ~SignalStorm() {
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &saved_, nullptr);
  }

 private:
  struct sigaction saved_ {};
};

TEST_F(HardeningTest, SignalsBreakNoCallAndAReplyDeadlineEndsAWaitForSilence) {
  gw_.setFault({.fault = Fault::Trickle, .afterMessages = 1, .everyConnection = true});
  QvaGatewayToken *tok = nullptr;
  ASSERT_EQ(open(&tok), QVA_OK);
  signalsTaken = 0;
  {
    SignalStorm storm;
    for (int i = 0; i < 10; ++i) {
      const std::string sent = "call " + std::to_string(i) + std::string(static_cast<size_t>(40 + i), 'x');
      std::string after;
      EXPECT_EQ(echo(tok, sent, &after), ECI_NO_ERROR) << i;
      EXPECT_EQ(after, sent) << i;
    }
    EXPECT_GT(signalsTaken.load(), 10);
    // A reply deadline ends the wait for a Gateway that never answers, the
    // interruptions not restarting its clock, and the connection is lost
    // from then on: the next call fails at once.
    gw_.setFault({.fault = Fault::NeverAnswer, .afterMessages = 1});
    QvaGatewayToken *silent = nullptr;
    ASSERT_EQ(open(&silent), QVA_OK);
    clapiSetReplyTimeout(1);
    TraceCapture trace(1);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(echo(silent, "hello?"), QVA_ERR_LOSTGWCON);
    const auto t1 = std::chrono::steady_clock::now();
    EXPECT_EQ(echo(silent, "and now?"), QVA_ERR_LOSTGWCON);
    const auto after = std::chrono::steady_clock::now() - t1;
    EXPECT_TRUE(t1 - t0 >= 900ms && t1 - t0 < 5s && after < 500ms)  // the deadline counts whole milliseconds
        << std::chrono::duration_cast<std::chrono::milliseconds>(t1 - t0).count() << " ms, then "
        << std::chrono::duration_cast<std::chrono::milliseconds>(after).count() << " ms";
    EXPECT_TRUE(hasLine(traceLines(trace.text()), 1525, "*EXC*",
                        "clapi_socketbuffer.waitForResponse No reply within 1 seconds: connection lost"));
    EXPECT_EQ(QVA_closeGatewayConnection(&silent), QVA_OK);
  }
  EXPECT_EQ(QVA_closeGatewayConnection(&tok), QVA_OK);
}

// Callers on connections and channels of their own, and on one shared
// channel, while another thread switches the trace level and file under
// them: every call gets its own reply, each connection carries exactly its
// own requests, a shared channel changes once per call, and every trace line
// comes out whole.
TEST_F(HardeningTest, ConcurrentStressWithTheTraceSwitchedUnderneath) {
  constexpr int kCallers = 8, kCalls = 60;
  ScratchDir dir;
  QvaChannel *shared = nullptr;
  ASSERT_EQ(ECI_createChannel("SHARED", &shared), ECI_NO_ERROR);
  ASSERT_EQ(ECI_createContainer(shared, "COUNT", ECI_BIT, 0, "x", 1), ECI_NO_ERROR);
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread switcher([&] {
    for (int i = 0; !done.load(); ++i) {
      QVA_setAPITraceFile(dir.file(i % 2 ? "a.trc" : "b.trc").c_str());
      QVA_setAPITraceLevel(i % 5);
      std::this_thread::sleep_for(1ms);
    }
    QVA_setAPITraceLevel(0);
    QVA_setAPITraceFile(nullptr);
  });
  std::vector<std::thread> callers;
  for (int t = 0; t < kCallers; ++t) {
    callers.emplace_back([&, t] {
      QvaGatewayToken *tok = nullptr;
      if (open(&tok) != QVA_OK) return void(++failures);
      QvaChannel *own = nullptr;
      if (ECI_createChannel(("OWN" + std::to_string(t)).c_str(), &own) != ECI_NO_ERROR) return void(++failures);
      ECI_createContainer(own, "TEXT", ECI_CHAR, 37, "hello", 5);
      ECI_PARMS parms = eciParms("CHUPPER", nullptr, 0);
      for (int i = 0; i < kCalls; ++i) {
        const std::string sent = "thread " + std::to_string(t) + " call " + std::to_string(i);
        std::string after;
        if (echo(tok, sent, &after) != ECI_NO_ERROR || after != sent) ++failures;
        parms.eci_channel = i % 4 == 0 && i < 8 ? shared : own;
        setField(parms.eci_program_name, parms.eci_channel == shared ? "CHGROW" : "CHUPPER");
        if (QVA_ECI_Execute_Channel(tok, &parms) != ECI_NO_ERROR) ++failures;
      }
      if (ECI_deleteChannel(&own) != ECI_NO_ERROR || QVA_closeGatewayConnection(&tok) != QVA_OK) ++failures;
    });
  }
  for (auto &c : callers) c.join();
  done = true;
  switcher.join();
  EXPECT_EQ(failures.load(), 0);
  ASSERT_EQ(gw_.connectionCount(), size_t{kCallers});
  for (size_t i = 0; i < kCallers; ++i) {
    ASSERT_TRUE(gw_.waitForClosed(i, kPatience)) << i;
    const auto messages = splitMessages(gw_.received(i));
    ASSERT_EQ(messages.size(), 2u * kCalls + 2) << i;
    EXPECT_EQ(messages.front(), handshakeRequest());
    EXPECT_EQ(messages.back(), closeRequest());
  }
  ContainerInfo info;
  ASSERT_EQ(ECI_getContainerInfo(shared, "COUNT", &info), ECI_NO_ERROR);
  EXPECT_EQ(uint32_t{info.dataLength}, 1u << (2 * kCallers)) << "each CHGROW doubles it exactly once";
  for (const char *name : {"a.trc", "b.trc"}) {
    for (const auto &line : readLines(dir.file(name))) {
      if (!parseTraceLine(line) && !isDumpLine(line) && !isBannerLine(line) &&
          line.rfind("Data truncation size=", 0) != 0) {
        ADD_FAILURE() << name << ": torn line: " << line;
        break;
      }
    }
  }
}

// A close waiting on a slow Gateway holds up no call on another connection.
TEST_F(HardeningTest, ASlowCloseHoldsUpNoCallOnAnotherConnection) {
  QvaGatewayToken *healthy = nullptr;
  ASSERT_EQ(open(&healthy), QVA_OK);
  gw_.setFault({.fault = Fault::SlowClose, .closeDelay = 2s});
  std::atomic<int> closeRc{1};
  std::chrono::steady_clock::duration closing{};
  std::thread closer([&] {
    QvaGatewayToken *slow = nullptr;
    if (open(&slow) != QVA_OK) return;
    const auto t0 = std::chrono::steady_clock::now();
    closeRc = QVA_closeGatewayConnection(&slow);
    closing = std::chrono::steady_clock::now() - t0;
  });
  ASSERT_TRUE(gw_.waitForReceived(1, handshakeRequest().size() + closeRequest().size(), kPatience));
  const auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(echo(healthy, "call " + std::to_string(i)), ECI_NO_ERROR);
  const auto calls = std::chrono::steady_clock::now() - t0;
  closer.join();
  EXPECT_EQ(closeRc.load(), QVA_OK);
  EXPECT_GE(closing, 1900ms) << "the close did wait for the Gateway";
  EXPECT_LT(calls, 500ms) << std::chrono::duration_cast<std::chrono::milliseconds>(calls).count() << " ms";
}

// A close-all while calls are in flight on several threads: each call ends
// with its own reply or with the connection lost (a call that starts after
// its token went finds no token), the close-all does not wait for the
// Gateway's slow replies, and connections opened right after, on the
// descriptor numbers just freed, carry only their own messages.
TEST_F(HardeningTest, CloseAllEndsCallsInFlightAndDisturbsNoConnectionOpenedAfter) {
  constexpr int kSleepers = 3, kEchoers = 3, kFresh = 4;
  std::atomic<int> wrong{0}, lost{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kSleepers + kEchoers; ++t) {
    callers.emplace_back([&, t] {
      QvaGatewayToken *tok = nullptr;
      if (open(&tok) != QVA_OK) return void(++wrong);
      int rc = ECI_NO_ERROR;
      if (t < kSleepers) {
        GuardedArea area(8);
        area.set("3000");  // milliseconds
        ECI_PARMS parms = eciParms("SLEEP", area.data(), area.length());
        rc = QVA_ECI_Execute(tok, &parms);
      }
      for (int i = 0; t >= kSleepers && rc == ECI_NO_ERROR; ++i) {
        const std::string sent = "thread " + std::to_string(t) + " call " + std::to_string(i);
        std::string after;
        rc = echo(tok, sent, &after);
        if (rc == ECI_NO_ERROR && after != sent) ++wrong;
      }
      // A token's address may be reused at once by a connection of the main thread.
      if (rc == QVA_ERR_LOSTGWCON)
        ++lost;
      else if (rc != QVA_ERR_BADGWTOK && rc != QVA_ERR_TIDMISMATCH)
        ++wrong;
    });
  }
  for (size_t i = 0; i < kSleepers + kEchoers; ++i)
    ASSERT_TRUE(gw_.waitForReceived(i, handshakeRequest().size() + 1, kPatience)) << i;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(QVA_closeAllGatewayConnections(), QVA_OK);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 1500ms) << "the sleepers' calls were cut short";
  QvaGatewayToken *fresh[kFresh] = {};
  for (auto &tok : fresh) ASSERT_EQ(open(&tok), QVA_OK);
  for (int i = 0; i < 5 * kFresh; ++i) {
    const std::string sent = "fresh call " + std::to_string(i);
    std::string after;
    EXPECT_EQ(echo(fresh[i % kFresh], sent, &after), ECI_NO_ERROR);
    EXPECT_EQ(after, sent);
  }
  for (auto &c : callers) c.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_GE(lost.load(), kSleepers);
}

// A call past its token check when a close-all takes the token: the
// close-all waits for the call, which ends with the connection lost, before
// it frees the token (the sanitizer builds see any read of freed memory).
std::atomic<bool> callPaused{false}, callMayGoOn{false};
bool pauseAtTheParameterCopy(uint32_t, const char *tag) {
  if (std::string_view(tag) != "EPRM") return false;
  callPaused = true;
  while (!callMayGoOn) std::this_thread::sleep_for(1ms);
  return false;
}

TEST_F(HardeningTest, ACallPastItsTokenCheckOutlivesTheCloseAllThatTakesItsToken) {
  callPaused = false, callMayGoOn = false;
  std::atomic<int> callRc{1};
  std::thread caller([&] {
    QvaGatewayToken *tok = nullptr;
    if (open(&tok) != QVA_OK) return void(callPaused = true);
    setAllocFailHook(pauseAtTheParameterCopy);
    callRc = echo(tok, "in flight");
  });
  while (!callPaused) std::this_thread::sleep_for(1ms);
  std::atomic<int> closeAllRc{1};
  std::thread closer([&] { closeAllRc = QVA_closeAllGatewayConnections(); });
  ASSERT_TRUE(gw_.waitForClosed(0, kPatience));
  std::this_thread::sleep_for(100ms);  // time enough to free a token it should not
  callMayGoOn = true;
  caller.join();
  closer.join();
  EXPECT_EQ(callRc.load(), QVA_ERR_LOSTGWCON);
  EXPECT_EQ(closeAllRc.load(), QVA_OK);
}

}  // namespace
