// qva-gateway: the Gateway emulator as a program, for scripts and manual runs.
//
// It prints "qva-gateway listening on port N" once it accepts connections, and
// stops cleanly, exit code 0, on SIGINT or SIGTERM. Its settings come from the
// command line and from configuration files (config.h).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config.h"
#include "qva_version.h"
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
      "  --config FILE          read settings from FILE (see below); options after it\n"
      "                         override the file's, options before it are overridden\n"
      "  --listen ADDR          listen on ADDR (repeatable; default 127.0.0.1 and ::1)\n"
      "  --port N               port to listen on (default 0: ephemeral)\n"
      "  --port-file FILE       write the port in use to FILE\n"
      "  --log                  one line per message received, to standard error\n"
      "  --server NAME=DESC     a server of the list (repeatable; default QVADEMO, QVATEST)\n"
      "  --user U --password P  require this user id and password on program calls\n"
      "  --fault MODE[:AFTER]   bend every connection's replies after AFTER messages\n"
      "  --extra-bytes N        surplus of the oversize and channel-lying-length modes (default 64)\n"
      "  --close-delay MS       how late slow-close answers a close request (default 2000)\n"
      "  --version              print the version\n"
      "  -h, --help             this text\n"
      "configuration file: one setting a line, '#' starts a comment line:\n"
      "  listen = ADDR, port = N, port-file = FILE, log = yes|no, fault = MODE[:AFTER],\n"
      "  extra-bytes = N, close-delay = MS     as the options of the same names\n"
      "  server NAME = DESCRIPTION             a server of the list\n"
      "  user USERID = PASSWORD                a user that program calls may give\n"
      "  program NAME = text TEXT | text \"TEXT\" | hex HEX | abend CODE\n"
      "                                        a program with a fixed reply: the COMMAREA\n"
      "                                        holds TEXT or HEX then zeros; or it abends\n"
      "  A malformed line is told as FILE:LINE: message. Canned programs come before\n"
      "  the built-in ones.\n"
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
      "  --close-delay MS late, default 2000)\n"
      "exit status: 0 stopped by SIGINT or SIGTERM; 1 could not start (an address that\n"
      "  cannot be bound, a port file that cannot be written); 2 a bad option or a bad\n"
      "  configuration file.\n",
      out);
}

int fail(int status, const std::string& message) {
  std::fprintf(stderr, "qva-gateway: %s\n", message.c_str());
  return status;
}

// Applies the command line to settings, --config files where they stand.
// Returns -1 to go on, else the exit status.
int parseArguments(int argc, char** argv, qvaemu::config::Settings& settings) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      usage(stdout);
      return 0;
    }
    if (arg == "--version") {
      std::printf("qva-gateway %s\n", QVA_VERSION_TEXT);
      return 0;
    }
    if (arg == "--log") {
      settings.options.logMessages = true;
      continue;
    }
    const bool config = arg == "--config";
    const std::string name = arg.size() > 2 && arg.compare(0, 2, "--") == 0 ? arg.substr(2) : "";
    if (!config && (name == "log" || !qvaemu::config::isOption(name)))
      return fail(2, "unknown option " + arg + " (see --help)");
    if (i + 1 >= argc) return fail(2, arg + " needs a value");
    const char* value = argv[++i];
    if (config) {
      std::vector<std::string> errors;
      // A file that cannot be read is the program's complaint; its bad lines
      // are told as FILE:LINE: message, as compilers do.
      const char* prefix = qvaemu::config::readFile(value, settings, errors) ? "" : "qva-gateway: ";
      for (const auto& e : errors) std::fprintf(stderr, "%s%s\n", prefix, e.c_str());
      if (!errors.empty()) return 2;
    } else if (std::string bad = qvaemu::config::setOption(settings, name, value); !bad.empty()) {
      return fail(2, arg + " " + bad);
    }
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  qvaemu::config::Settings settings;
  if (int status = parseArguments(argc, argv, settings); status >= 0) return status;

  if (::pipe2(signalPipe, O_CLOEXEC) != 0) return fail(1, std::string("pipe: ") + std::strerror(errno));
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  qvaemu::Gateway gateway(settings.options);
  gateway.setFault(settings.fault);
  std::string error;
  if (!gateway.start(&error)) return fail(1, error);

  const std::string& portFile = settings.portFile;
  if (!portFile.empty()) {
    FILE* f = std::fopen(portFile.c_str(), "w");
    if (!f || std::fprintf(f, "%u\n", gateway.port()) < 0 || std::fclose(f) != 0) {
      gateway.stop();
      return fail(1, "cannot write " + portFile);
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
