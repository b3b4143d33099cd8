// Many connections at once, stop() while connections are open and a server
// program is running, and the qva-gateway program started as a child process.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <fstream>
#include <mutex>
#include <thread>

#include "raw_client.h"

extern char** environ;

using namespace rawclient;

namespace {

// Each thread calls on its own connection; the mode-1 calls each begin a unit,
// whose tokens must all differ.
TEST(Concurrency, ManyConnectionsEchoTheirOwnDataAndGetDistinctTokens) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  constexpr int kThreads = 16, kCalls = 50;
  std::atomic<int> good{0};
  std::mutex mu;
  std::vector<int32_t> tokens;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Client c;
      if (!open(c, gw.port())) return;
      for (int i = 0; i < kCalls; ++i) {
        Call call = prog(i % 2 ? "UPPER" : "ECHO", "thread " + std::to_string(t) + " call " + std::to_string(i));
        call.extendMode = i % 5 == 4 ? 0 : 1;
        ProgramReply r;
        if (!rawclient::call(c, call, r) || r.replyRc != 0) return;
        Bytes expect = call.commarea;
        if (i % 2) std::transform(expect.begin(), expect.end(), expect.begin(), [](uint8_t b) { return std::toupper(b); });
        if (r.data != expect) return;
        good.fetch_add(1);
        std::lock_guard lock(mu);
        if (call.extendMode == 1) tokens.push_back(r.luwToken);
      }
      if (c.send(closeRequest()) && be32(readMessage(c), 8) == 10 && c.eofWithin()) good.fetch_add(1);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(good.load(), kThreads * (kCalls + 1));
  EXPECT_EQ(gw.connectionCount(), static_cast<size_t>(kThreads));
  for (size_t i = 0; i < kThreads; ++i) EXPECT_TRUE(gw.waitForClosed(i, kPatience)) << i;
  std::sort(tokens.begin(), tokens.end());
  EXPECT_EQ(std::adjacent_find(tokens.begin(), tokens.end()), tokens.end());
  EXPECT_EQ(std::count(tokens.begin(), tokens.end(), 0), 0);
}

TEST(Concurrency, StopClosesEveryConnectionEvenMidRequestOrMidSleep) {
  qvaemu::Gateway gw;
  ASSERT_TRUE(gw.start());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<Client>());
    ASSERT_TRUE(open(*clients.back(), gw.port()));
  }
  const Bytes req = request(Call{}), sleep = request(prog("SLEEP", "10000"));
  ASSERT_TRUE(clients[0]->send(slice(req, 0, 20)));
  ASSERT_TRUE(clients[1]->send(sleep));
  ASSERT_TRUE(gw.waitForReceived(0, 55 + 20, kPatience));
  ASSERT_TRUE(gw.waitForReceived(1, 55 + sleep.size(), kPatience));
  const auto t0 = std::chrono::steady_clock::now();
  std::thread stopper([&] { gw.stop(); });
  for (auto& c : clients) EXPECT_TRUE(c->eofWithin());
  stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
  gw.stop();  // idempotent
  Client late;
  EXPECT_FALSE(late.connect(gw.port()));
}

// qva-gateway with these arguments, its standard output on a pipe.
class GatewayProcess {
 public:
  explicit GatewayProcess(std::vector<std::string> args) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], STDOUT_FILENO);
    args.insert(args.begin(), QVA_GATEWAY_PATH);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, QVA_GATEWAY_PATH, &fa, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&fa);
    ::close(out[1]);
    stdout_ = out[0];
  }
  ~GatewayProcess() {
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
    if (stdout_ >= 0) ::close(stdout_);
  }
  // One line of standard output, or "" if none comes in time.
  std::string readLine() {
    std::string line;
    for (char ch; readable() && ::read(stdout_, &ch, 1) == 1 && ch != '\n';) line += ch;
    return line;
  }
  // The port announced on the first line; 0 if none.
  uint16_t port() {
    const std::string line = readLine(), prefix = "qva-gateway listening on port ";
    return line.rfind(prefix, 0) == 0 ? static_cast<uint16_t>(std::stoi(line.substr(prefix.size()))) : 0;
  }
  // Sends `sig` and waits, bounded, for the exit: the end of its standard
  // output tells us it has gone. -1 if it did not exit in time.
  int stopWith(int sig) {
    ::kill(pid_, sig);
    char buf[256];
    while (readable())
      if (::read(stdout_, buf, sizeof buf) <= 0) {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    return -1;
  }

 private:
  bool readable() {
    pollfd p{stdout_, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(kPatience.count())) > 0;
  }
  pid_t pid_ = -1;
  int stdout_ = -1;
};

// Serves its own server list, bends every connection's fourth message, and
// stops with exit code 0 on either signal.
TEST(GatewayProgram, AnnouncesItsPortServesAndStopsOnASignal) {
  for (const int sig : {SIGTERM, SIGINT}) {
    const std::string portFile = ::testing::TempDir() + "qva-gateway-port-" + std::to_string(::getpid());
    GatewayProcess gw({"--port", "0", "--port-file", portFile, "--server", "ALPHA=First", "--server", "BETA=Second",
                       "--fault", "close-before-answer:3"});
    const uint16_t port = gw.port();
    ASSERT_NE(port, 0);
    unsigned filePort = 0;
    std::ifstream(portFile) >> filePort;
    EXPECT_EQ(filePort, port);
    std::remove(portFile.c_str());
    for (int i = 0; i < 2; ++i) {
      Client c;
      ASSERT_TRUE(open(c, port));
      Call call = prog("UPPER", "over the wire");
      call.system = "BETA";
      ProgramReply r;
      ASSERT_TRUE(rawclient::call(c, call, r));
      EXPECT_EQ(r.data, ascii("OVER THE WIRE"));
      call.system = "QVADEMO";  // replaced by the --server list
      ASSERT_TRUE(rawclient::call(c, call, r));
      EXPECT_EQ(r.replyRc, -22);
      ASSERT_TRUE(c.send(request(call)));
      EXPECT_TRUE(c.eofWithin());
    }
    Client idle;
    ASSERT_TRUE(open(idle, port));
    EXPECT_EQ(gw.stopWith(sig), 0) << sig;
    EXPECT_TRUE(idle.eofWithin());
  }
}

TEST(GatewayProgram, HelpNamesEveryFaultModeAndChannelProgramAndBadModesAreRejected) {
  GatewayProcess gw({"--help"});
  std::string help;
  for (std::string line = gw.readLine(); !line.empty(); line = gw.readLine()) help += line + "\n";
  for (int f = 1; f <= static_cast<int>(qvaemu::Fault::ChannelHugeCount); ++f)
    EXPECT_NE(help.find(qvaemu::faultName(static_cast<qvaemu::Fault>(f))), std::string::npos) << f;
  for (const char* p : {"CHNOOP", "CHECHO", "CHADD", "CHUPPER", "CHGROW", "CHDELETE", "CHMIX", "CHBIG"})
    EXPECT_NE(help.find(p), std::string::npos) << p;
  EXPECT_EQ(gw.stopWith(0), 0);  // signal 0 only probes; the program has exited already
  GatewayProcess bad({"--fault", "sometimes"});
  EXPECT_EQ(bad.readLine(), "");
  EXPECT_EQ(bad.stopWith(0), 2);
}

}  // namespace
