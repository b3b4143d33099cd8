// The qva-gateway program: it announces its port on standard output, serves,
// and stops with exit code 0 on SIGTERM or SIGINT.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "qvaemu/gateway.h"
#include "raw_client.h"

extern char** environ;

using namespace rawclient;

namespace {

class GatewayProcess {
 public:
  explicit GatewayProcess(std::vector<std::string> args) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], STDOUT_FILENO);
    std::vector<char*> argv;
    args.insert(args.begin(), QVA_GATEWAY_PATH);
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, QVA_GATEWAY_PATH, &fa, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&fa);
    ::close(out[1]);
    stdout_ = out[0];
  }
  ~GatewayProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      int status;
      ::waitpid(pid_, &status, 0);
    }
    if (stdout_ >= 0) ::close(stdout_);
  }

  // One line of standard output, or "" if none comes in time.
  std::string readLine(std::chrono::milliseconds timeout = kPatience) {
    std::string line;
    char ch;
    pollfd p{stdout_, POLLIN, 0};
    while (::poll(&p, 1, static_cast<int>(timeout.count())) > 0 && ::read(stdout_, &ch, 1) == 1) {
      if (ch == '\n') return line;
      line += ch;
    }
    return line;
  }

  // Sends `sig` and waits, bounded, for the exit: the end of its standard
  // output tells us it has gone. -1 if it did not exit in time.
  int stopWith(int sig, std::chrono::milliseconds timeout = kPatience) {
    ::kill(pid_, sig);
    char buf[256];
    pollfd p{stdout_, POLLIN, 0};
    while (::poll(&p, 1, static_cast<int>(timeout.count())) > 0) {
      if (::read(stdout_, buf, sizeof buf) <= 0) {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return -1;
  }

  bool started() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
  int stdout_ = -1;
};

uint16_t portFrom(const std::string& line) {
  const std::string prefix = "qva-gateway listening on port ";
  if (line.rfind(prefix, 0) != 0) return 0;
  return static_cast<uint16_t>(std::stoi(line.substr(prefix.size())));
}

TEST(GatewayProgram, AnnouncesItsPortServesAndStopsOnSigterm) {
  const std::string portFile = ::testing::TempDir() + "qva-gateway-port-" + std::to_string(::getpid());
  GatewayProcess gw({"--port", "0", "--port-file", portFile, "--server", "ALPHA=First", "--server", "BETA=Second"});
  ASSERT_TRUE(gw.started());
  const std::string line = gw.readLine();
  const uint16_t port = portFrom(line);
  ASSERT_NE(port, 0) << line;
  std::ifstream pf(portFile);
  unsigned filePort = 0;
  pf >> filePort;
  EXPECT_EQ(filePort, port);
  std::remove(portFile.c_str());

  Client c;
  ASSERT_TRUE(open(c, port));
  Call call;
  call.system = "BETA";
  call.program = "UPPER";
  call.commarea = ascii("over the wire");
  ProgramReply r;
  ASSERT_TRUE(rawclient::call(c, call, r));
  EXPECT_EQ(r.data, ascii("OVER THE WIRE"));
  call.system = "QVADEMO";  // replaced by the --server list
  ASSERT_TRUE(rawclient::call(c, call, r));
  EXPECT_EQ(r.replyRc, -22);

  EXPECT_EQ(gw.stopWith(SIGTERM), 0);
  EXPECT_TRUE(c.eofWithin());
}

TEST(GatewayProgram, FaultOptionAppliesToEveryConnectionAndSigintStops) {
  GatewayProcess gw({"--port", "0", "--fault", "close-before-answer:1"});
  ASSERT_TRUE(gw.started());
  const uint16_t port = portFrom(gw.readLine());
  ASSERT_NE(port, 0);
  for (int i = 0; i < 2; ++i) {
    Client c;
    ASSERT_TRUE(open(c, port));  // message 0 is answered
    ASSERT_TRUE(c.send(request(Call{})));
    EXPECT_TRUE(c.eofWithin());
  }
  EXPECT_EQ(gw.stopWith(SIGINT), 0);
}

TEST(GatewayProgram, HelpNamesEveryFaultModeAndChannelProgram) {
  GatewayProcess gw({"--help"});
  ASSERT_TRUE(gw.started());
  std::string help;
  for (std::string line = gw.readLine(); !line.empty(); line = gw.readLine()) help += line + "\n";
  for (int f = 1; f <= static_cast<int>(qvaemu::Fault::ChannelHugeCount); ++f)
    EXPECT_NE(help.find(qvaemu::faultName(static_cast<qvaemu::Fault>(f))), std::string::npos) << f;
  for (const char* p : {"CHNOOP", "CHECHO", "CHADD", "CHUPPER", "CHGROW", "CHDELETE", "CHMIX", "CHBIG"})
    EXPECT_NE(help.find(p), std::string::npos) << p;
  EXPECT_EQ(gw.stopWith(0), 0);
}

TEST(GatewayProgram, RejectsAnUnknownFaultMode) {
  GatewayProcess gw({"--fault", "sometimes"});
  ASSERT_TRUE(gw.started());
  EXPECT_EQ(gw.readLine(), "");
  EXPECT_EQ(gw.stopWith(0), 2);  // signal 0 only probes; the program has exited already
}

}  // namespace
