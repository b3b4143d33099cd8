// qva-gateway: the Gateway emulator as a program, for scripts and manual runs.
//
// It prints "qva-gateway listening on port N" once it accepts connections, and
// stops cleanly, exit code 0, on SIGINT or SIGTERM.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qvaemu/gateway.h"

namespace {

int signalPipe[2] = {-1, -1};

// Only writes the pipe: the main thread does the stopping.
extern "C" void onSignal(int) {
  const int saved = errno;
  const char byte = 1;
  [[maybe_unused]] ssize_t r = ::write(signalPipe[1], &byte, 1);
  errno = saved;
}

void usage(FILE* out) {
  std::fputs(
      "usage: qva-gateway [options]\n"
      "  --listen ADDR          listen on ADDR (repeatable; default 127.0.0.1 and ::1)\n"
      "  --port N               port to listen on (default 0: ephemeral)\n"
      "  --port-file FILE       write the port in use to FILE\n"
      "  --log                  one line per message received, to standard error\n"
      "  --server NAME=DESC     a server of the list (repeatable; default QVADEMO, QVATEST)\n"
      "  --user U --password P  require this user id and password on program calls\n"
      "  --fault MODE[:AFTER]   bend every connection's replies after AFTER messages\n"
      "  --extra-bytes N        surplus of the oversize and channel-lying-length modes (default 64)\n"
      "  --close-delay MS       how late slow-close answers a close request (default 2000)\n"
      "  --help                 this text\n"
      "server programs, with a COMMAREA:\n"
      "  ECHO      the COMMAREA as it came      UPPER  ASCII letters upper-cased\n"
      "  SHORT     the first half of it         ABEND  abends with the code in bytes 0-3\n"
      "  SLEEP     waits the milliseconds written at its start, then echoes\n"
      "server programs, with a channel (the reply echoes the channel's name and CCSID):\n"
      "  CHNOOP    every container UNCHANGED\n"
      "  CHECHO    every container MODIFIED with the data it came with\n"
      "  CHADD     all UNCHANGED, plus an ADDED CHAR container RESULT: \"Processed N containers\"\n"
      "  CHUPPER   CHAR containers MODIFIED, ASCII letters upper-cased; BIT ones UNCHANGED\n"
      "  CHGROW    every container MODIFIED with its data twice over (empty: \"!\")\n"
      "  CHDELETE  the first container DELETED, the others UNCHANGED\n"
      "  CHMIX     1st DELETED, 2nd upper-cased, 3rd doubled, rest UNCHANGED,\n"
      "            plus an ADDED BIT container MIXED holding DE AD BE EF\n"
      "  CHBIG     container SIZE holds N (decimal, at most 256 MiB): PAYLOAD, a BIT container\n"
      "            of N bytes, byte i = i & 0xFF, MODIFIED if it came, else ADDED; others\n"
      "            UNCHANGED. A bad or missing SIZE: rc -1 and no containers back\n"
      "  A COMMAREA program called with a channel runs on the COMMAREA that came (none from\n"
      "  a channel call) and returns every container UNCHANGED; a channel program called\n"
      "  without a channel returns the COMMAREA unchanged and channel-present byte 0.\n"
      "fault modes: never-answer close-before-answer close-mid-reply trickle malformed-header\n"
      "  huge-data-length exception-flow oversize-commarea oversize-server-list\n"
      "  channel-return-on-commarea (COMMAREA calls); for channel calls:\n"
      "  channel-lying-length channel-unknown-state channel-truncated\n"
      "  channel-delete-unknown channel-huge-count; slow-close (the close reply comes\n"
      "  --close-delay MS late, default 2000)\n",
      out);
}

bool parseNumber(const char* text, long max, long& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtol(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && value >= 0 && value <= max;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "qva-gateway: %s\n", message.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  qvaemu::Options options;
  options.recordReceived = false;  // nobody reads them back, and the program may run for long
  qvaemu::FaultPlan fault;
  fault.everyConnection = true;
  std::string portFile;

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (arg == "--help") {
      usage(stdout);
      return 0;
    }
    if (arg == "--log") {
      options.logMessages = true;
      continue;
    }
    const char* v = value();
    if (!v) {
      usage(stderr);
      return 2;
    }
    long n = 0;
    if (arg == "--listen") {
      options.listenAddresses.emplace_back(v);
    } else if (arg == "--port") {
      if (!parseNumber(v, 65535, n)) return fail(std::string("bad port: ") + v);
      options.port = static_cast<uint16_t>(n);
    } else if (arg == "--port-file") {
      portFile = v;
    } else if (arg == "--server") {
      const char* eq = std::strchr(v, '=');
      if (!eq || eq == v) return fail(std::string("bad server (want NAME=DESCRIPTION): ") + v);
      options.servers.push_back({std::string(v, eq), std::string(eq + 1)});
    } else if (arg == "--user") {
      options.userId = v;
    } else if (arg == "--password") {
      options.password = v;
    } else if (arg == "--fault") {
      std::string mode = v;
      const auto colon = mode.find(':');
      if (colon != std::string::npos) {
        if (!parseNumber(mode.c_str() + colon + 1, 1000000, n)) return fail(std::string("bad fault: ") + v);
        fault.afterMessages = static_cast<int>(n);
        mode.resize(colon);
      }
      const auto f = qvaemu::faultFromName(mode);
      if (!f) return fail("unknown fault mode: " + mode);
      fault.fault = *f;
    } else if (arg == "--extra-bytes") {
      if (!parseNumber(v, 1 << 24, n)) return fail(std::string("bad byte count: ") + v);
      fault.extraBytes = static_cast<uint32_t>(n);
    } else if (arg == "--close-delay") {
      if (!parseNumber(v, 600000, n)) return fail(std::string("bad delay: ") + v);
      fault.closeDelay = std::chrono::milliseconds(n);
    } else {
      usage(stderr);
      return 2;
    }
  }

  if (::pipe2(signalPipe, O_CLOEXEC) != 0) return fail(std::string("pipe: ") + std::strerror(errno));
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  qvaemu::Gateway gateway(options);
  gateway.setFault(fault);
  std::string error;
  if (!gateway.start(&error)) return fail(error);

  if (!portFile.empty()) {
    FILE* f = std::fopen(portFile.c_str(), "w");
    if (!f || std::fprintf(f, "%u\n", gateway.port()) < 0 || std::fclose(f) != 0) {
      gateway.stop();
      return fail("cannot write " + portFile);
    }
  }
  std::printf("qva-gateway listening on port %u\n", gateway.port());
  std::fflush(stdout);

  pollfd p{signalPipe[0], POLLIN, 0};
  while (::poll(&p, 1, -1) < 0 && errno == EINTR) {
  }
  gateway.stop();
  return 0;
}
