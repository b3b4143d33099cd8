// qva-call: calls a server program with a COMMAREA or a channel, or lists the
// servers, through a Gateway. With no --host it starts the embedded Gateway
// emulator on loopback, so it works on a machine with no Gateway at all.

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "common.h"
#include "containers.h"
#include "qva_version.h"
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"

namespace {

using qvacall::parseHex;
using qvacall::parseInt;
using qvacall::rcName;

// The most a COMMAREA can hold: its length travels as a signed 16-bit number.
constexpr size_t kCommareaLimit = 32767;
// A longer COMMAREA is printed as its first kShownBytes bytes.
constexpr size_t kShownBytes = 256;

struct CallOptions {
  std::string host;  // empty: embedded emulator
  int port = 0;
  int connectTimeout = 0;
  bool list = false;
  unsigned listCapacity = 16;
  std::string server;
  std::string program;
  std::string user;
  std::string password;
  std::string tpn;
  std::string transid;
  std::vector<uint8_t> commarea;
  std::optional<int> commareaLength;
  std::string commareaOption;  // the first option that shapes a COMMAREA
  qvacall::ChannelOptions channel;
  int extendMode = ECI_NO_EXTEND;
  int luwToken = 0;
  int timeout = 0;
  int sendLength = 0;
  int receiveLength = 0;
  int traceLevel = -1;
  std::string traceFile;
  bool quiet = false;
};

void usage(FILE *out) {
  std::fputs(
      "usage: qva-call [options] PROGRAM      call a server program\n"
      "       qva-call [options] --list       list the Gateway's servers\n"
      "\n"
      "Gateway (without --host the embedded emulator is started on loopback):\n"
      "  --host HOST             Gateway host name or address\n"
      "  --port N                Gateway port (needed with --host)\n"
      "  --connect-timeout S     seconds allowed for the connect (0-3600)\n"
      "Call:\n"
      "  --server NAME           server name (8 characters at most)\n"
      "  --user NAME             user id\n"
      "  --password TEXT         password (never shown); --password - reads a line\n"
      "                          from standard input, without echo on a terminal;\n"
      "                          or set QVA_PASSWORD\n"
      "  --text TEXT             COMMAREA contents as text (32767 bytes at most,\n"
      "                          as for --hex and --file)\n"
      "  --hex HEX               COMMAREA contents as hex digits\n"
      "  --file PATH             COMMAREA contents from a file\n"
      "  --length N              COMMAREA length (default: the contents' length)\n"
      "  --extend MODE           0|none, 1|extended, 2|commit, 4|backout\n"
      "  --luw TOKEN             LUW token of an extended unit of work\n"
      "  --tpn NAME              transaction program name\n"
      "  --transid NAME          transaction id\n"
      "  --timeout S             ECI time limit in seconds, enforced by the Gateway\n"
      "  --send-length N         send only N COMMAREA bytes\n"
      "  --receive-length N      receive at most N COMMAREA bytes\n"
      "  --list-capacity N       entries --list can take (default 16)\n"
      "Output of a COMMAREA call: the rc= line, \"abend code: XXXX\" when the program\n"
      "abended, \"LUW token: N\", \"COMMAREA (N bytes): \" with the returned COMMAREA\n"
      "as text, then as a hex dump; a COMMAREA over 256 bytes shows its first 256 and a\n"
      "line with the count of the bytes left out.\n",
      out);
  qvacall::channelUsage(out);
  std::fputs(
      "Trace:\n"
      "  --trace-level N         0 (off) to 5\n"
      "  --trace-file PATH       append the trace to PATH (default: standard error)\n"
      "  --quiet                 print only the result line\n"
      "Other:\n"
      "  --version               print the versions of qva-call and of the library\n"
      "  -h, --help              print this text\n"
      "Exit status: 0 when the call (or --list) ends with result 0; 1 when it ends\n"
      "with another result or cannot be made; 2 for a usage error (an unknown option,\n"
      "a bad or oversize value, no program named).\n",
      out);
}

bool parseExtendMode(const std::string &text, int *mode) {
  if (text == "0" || text == "none")
    *mode = ECI_NO_EXTEND;
  else if (text == "1" || text == "extended")
    *mode = ECI_EXTENDED;
  else if (text == "2" || text == "commit")
    *mode = ECI_COMMIT;
  else if (text == "4" || text == "backout")
    *mode = ECI_BACKOUT;
  else
    return false;
  return true;
}

// A line of standard input: from a terminal after a prompt and without echo,
// else as it comes (a pipe or a file).
std::string readPassword() {
  termios saved{};
  bool terminal = tcgetattr(STDIN_FILENO, &saved) == 0;
  if (terminal) {
    std::fputs("Password: ", stderr);
    std::fflush(stderr);
    termios silent = saved;
    silent.c_lflag &= static_cast<tcflag_t>(~ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  std::string password;
  int c;
  while ((c = std::fgetc(stdin)) != EOF && c != '\n') password += static_cast<char>(c);
  if (terminal) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::fputc('\n', stderr);
  }
  return password;
}

void printVersion() {
  char *library = nullptr;
  bool known = QVA_getDLLVersion(&library) == QVA_OK && library != nullptr;
  std::printf("qva-call %s (library %s)\n", QVA_VERSION_TEXT, known ? library : "unknown");
}

// Returns 0 when the options are complete, 2 on a usage error, 1 for --help
// and --version.
int parseOptions(int argc, char **argv, CallOptions *options) {
  bool contentsGiven = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](const char **out) {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "qva-call: %s needs a value\n", arg.c_str());
        return false;
      }
      *out = argv[++i];
      return true;
    };
    const char *v = nullptr;
    auto intOption = [&](long low, long high, int *target) {
      if (!value(&v)) return false;
      if (!parseInt(v, low, high, target)) {
        std::fprintf(stderr, "qva-call: %s takes a whole number from %ld to %ld\n", arg.c_str(), low, high);
        return false;
      }
      return true;
    };
    auto commareaOption = [&]() {
      if (options->commareaOption.empty()) options->commareaOption = arg;
    };
    auto withinLimit = [&]() {
      if (options->commarea.size() <= kCommareaLimit) return true;
      std::fprintf(stderr, "qva-call: COMMAREA of %zu bytes from %s is over the limit of %zu bytes\n",
                   options->commarea.size(), arg.c_str(), kCommareaLimit);
      return false;
    };
    auto contents = [&]() {
      commareaOption();
      if (contentsGiven) {
        std::fputs("qva-call: give the COMMAREA once (--text, --hex or --file)\n", stderr);
        return false;
      }
      contentsGiven = true;
      return value(&v);
    };
    if (auto taken = options->channel.take(argc, argv, &i); taken != qvacall::ChannelOptions::Parse::NotMine) {
      if (taken == qvacall::ChannelOptions::Parse::UsageError) return 2;
    } else if (arg == "--help" || arg == "-h") {
      usage(stdout);
      return 1;
    } else if (arg == "--version") {
      printVersion();
      return 1;
    } else if (arg == "--host") {
      if (!value(&v)) return 2;
      options->host = v;
    } else if (arg == "--port") {
      if (!intOption(1, 65535, &options->port)) return 2;
    } else if (arg == "--connect-timeout") {
      if (!intOption(0, 3600, &options->connectTimeout)) return 2;
    } else if (arg == "--list") {
      options->list = true;
    } else if (arg == "--list-capacity") {
      int capacity = 0;
      if (!intOption(1, 65535, &capacity)) return 2;
      options->listCapacity = static_cast<unsigned>(capacity);
    } else if (arg == "--server") {
      if (!value(&v)) return 2;
      options->server = v;
    } else if (arg == "--program") {
      if (!value(&v)) return 2;
      options->program = v;
    } else if (arg == "--user") {
      if (!value(&v)) return 2;
      options->user = v;
    } else if (arg == "--password") {
      if (!value(&v)) return 2;
      options->password = std::strcmp(v, "-") == 0 ? readPassword() : v;
    } else if (arg == "--text") {
      if (!contents()) return 2;
      options->commarea.assign(v, v + std::strlen(v));
      if (!withinLimit()) return 2;
    } else if (arg == "--hex") {
      if (!contents()) return 2;
      if (!parseHex(v, &options->commarea)) {
        std::fputs("qva-call: --hex takes pairs of hex digits\n", stderr);
        return 2;
      }
      if (!withinLimit()) return 2;
    } else if (arg == "--file") {
      if (!contents()) return 2;
      if (!qvacall::readFile(v, &options->commarea)) {
        std::fprintf(stderr, "qva-call: cannot read %s: %s\n", v, std::strerror(errno));
        return 2;
      }
      if (!withinLimit()) return 2;
    } else if (arg == "--length") {
      commareaOption();
      int length = 0;
      if (!intOption(0, static_cast<long>(kCommareaLimit), &length)) return 2;
      options->commareaLength = length;
    } else if (arg == "--extend") {
      if (!value(&v)) return 2;
      if (!parseExtendMode(v, &options->extendMode)) {
        std::fputs("qva-call: --extend takes 0|none, 1|extended, 2|commit or 4|backout\n", stderr);
        return 2;
      }
    } else if (arg == "--luw") {
      if (!intOption(-2147483647L - 1, 2147483647L, &options->luwToken)) return 2;
    } else if (arg == "--tpn") {
      if (!value(&v)) return 2;
      options->tpn = v;
    } else if (arg == "--transid") {
      if (!value(&v)) return 2;
      options->transid = v;
    } else if (arg == "--timeout") {
      if (!intOption(0, 32767, &options->timeout)) return 2;
    } else if (arg == "--send-length") {
      commareaOption();
      if (!intOption(0, 32767, &options->sendLength)) return 2;
    } else if (arg == "--receive-length") {
      commareaOption();
      if (!intOption(0, 32767, &options->receiveLength)) return 2;
    } else if (arg == "--trace-level") {
      if (!intOption(0, 5, &options->traceLevel)) return 2;
    } else if (arg == "--trace-file") {
      if (!value(&v)) return 2;
      options->traceFile = v;
    } else if (arg == "--quiet") {
      options->quiet = true;
    } else if (!arg.empty() && arg[0] == '-') {
      std::fprintf(stderr, "qva-call: unknown option %s (see --help)\n", arg.c_str());
      return 2;
    } else if (options->program.empty()) {
      options->program = arg;
    } else {
      std::fprintf(stderr, "qva-call: one program at a time (%s)\n", arg.c_str());
      return 2;
    }
  }
  if (!options->channel.finish()) return 2;
  if (options->channel.channelCall() && !options->commareaOption.empty()) {
    std::fprintf(stderr,
                 "qva-call: %s does not go with a channel call (--channel, --container...): it has no COMMAREA\n",
                 options->commareaOption.c_str());
    return 2;
  }
  if (options->channel.channelCall() && options->list) {
    std::fputs("qva-call: --list takes no channel or containers\n", stderr);
    return 2;
  }
  if (!options->host.empty() && options->port == 0) {
    std::fputs("qva-call: --host needs --port\n", stderr);
    return 2;
  }
  if (!options->list && options->program.empty()) {
    std::fputs("qva-call: name a program to call, or --list (see --help)\n", stderr);
    return 2;
  }
  if (options->password.empty()) {
    if (const char *fromEnv = std::getenv("QVA_PASSWORD")) options->password = fromEnv;
  }
  return 0;
}

// Blank padded, no terminator, cut to the field.
template <size_t N>
void setField(char (&field)[N], const std::string &text) {
  std::memset(field, ' ', N);
  std::memcpy(field, text.data(), std::min(text.size(), N));
}

void printDump(const uint8_t *data, size_t length) {
  for (size_t offset = 0; offset < length; offset += 16) {
    std::printf("  %04zx  ", offset);
    for (size_t i = 0; i < 16; ++i) {
      if (offset + i < length)
        std::printf("%02X ", data[offset + i]);
      else
        std::fputs("   ", stdout);
    }
    std::fputs(" ", stdout);
    for (size_t i = 0; i < 16 && offset + i < length; ++i) {
      unsigned char c = data[offset + i];
      std::fputc(std::isprint(c) ? c : '.', stdout);
    }
    std::fputc('\n', stdout);
  }
}

// The heading with the length and the text, trailing zeros left out, then the
// dump; of the first kShownBytes bytes only when there are more.
void printCommarea(const std::vector<uint8_t> &commarea) {
  size_t shown = std::min(commarea.size(), kShownBytes);
  std::printf("COMMAREA (%zu bytes): ", commarea.size());
  size_t shownText = shown;
  while (shownText > 0 && commarea[shownText - 1] == 0) --shownText;
  for (size_t i = 0; i < shownText; ++i) {
    unsigned char c = commarea[i];
    std::fputc(std::isprint(c) ? c : '.', stdout);
  }
  std::fputc('\n', stdout);
  printDump(commarea.data(), shown);
  if (commarea.size() > shown) std::printf("  (%zu more bytes not shown)\n", commarea.size() - shown);
}

int listServers(QvaGatewayToken *token, const CallOptions &options) {
  std::vector<QVA_SYSTEM_ENTRY> list(options.listCapacity);
  unsigned short systems = static_cast<unsigned short>(options.listCapacity);
  int rc = QVA_listSystems(token, &systems, list.data());
  std::printf("rc=%d %s\n", rc, rcName(rc).c_str());
  if (rc == QVA_OK || rc == QVA_ERR_MORE_SYSTEMS) {
    size_t shown = std::min<size_t>(systems, list.size());
    for (size_t i = 0; i < shown; ++i) {
      std::string description(list[i].Description, strnlen(list[i].Description, sizeof list[i].Description));
      description.erase(description.find_last_not_of(' ') + 1);
      std::printf("%-8.8s  %s\n", list[i].SystemName, description.c_str());
    }
    if (systems > shown) std::printf("(%u servers in all; --list-capacity shows more)\n", systems);
  }
  return rc;
}

// Everything but the COMMAREA and the channel.
void fillParms(ECI_PARMS &parms, const CallOptions &options) {
  std::memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  setField(parms.eci_program_name, options.program);
  setField(parms.eci_userid, options.user);
  setField(parms.eci_password, options.password);
  setField(parms.eci_system_name, options.server);
  if (!options.transid.empty()) setField(parms.eci_transid, options.transid);
  if (!options.tpn.empty()) setField(parms.eci_tpn, options.tpn);
  parms.eci_extend_mode = static_cast<short>(options.extendMode);
  parms.eci_luw_token = options.luwToken;
  parms.eci_timeout = static_cast<short>(options.timeout);
  parms.eci_send_length = static_cast<short>(options.sendLength);
  parms.eci_receive_length = static_cast<short>(options.receiveLength);
}

// Wipes the password, prints the result line and, unless quiet, the abend
// code and the LUW token. Returns whether the rest is to be printed.
bool printOutcome(int rc, ECI_PARMS &parms, CallOptions &options) {
  std::memset(parms.eci_password, 0, sizeof parms.eci_password);
  std::fill(options.password.begin(), options.password.end(), '\0');
  std::printf("rc=%d %s\n", rc, rcName(rc).c_str());
  if (options.quiet) return false;
  bool abended = std::memchr(parms.eci_abend_code, 0, sizeof parms.eci_abend_code) != parms.eci_abend_code;
  if (abended) std::printf("abend code: %.4s\n", parms.eci_abend_code);
  std::printf("LUW token: %d\n", parms.eci_luw_token);
  return true;
}

int callProgram(QvaGatewayToken *token, CallOptions &options) {
  size_t length = options.commareaLength.value_or(static_cast<int>(options.commarea.size()));
  std::vector<uint8_t> commarea(length, 0);
  std::memcpy(commarea.data(), options.commarea.data(), std::min(length, options.commarea.size()));

  ECI_PARMS parms;
  fillParms(parms, options);
  parms.eci_commarea = length > 0 ? commarea.data() : nullptr;
  parms.eci_commarea_length = static_cast<short>(length);
  int rc = QVA_ECI_Execute(token, &parms);
  if (!printOutcome(rc, parms, options)) return rc;
  printCommarea(commarea);
  return rc;
}

int callWithChannel(QvaGatewayToken *token, CallOptions &options, QvaChannel *channel) {
  ECI_PARMS parms;
  fillParms(parms, options);
  parms.eci_channel = channel;
  int rc = QVA_ECI_Execute_Channel(token, &parms);
  if (printOutcome(rc, parms, options)) qvacall::printChannel(channel);
  return rc;
}

}  // namespace

int main(int argc, char **argv) {
  CallOptions options;
  int parsed = parseOptions(argc, argv, &options);
  if (parsed != 0) return parsed == 1 ? 0 : 2;

  if (!options.traceFile.empty() && QVA_setAPITraceFile(options.traceFile.c_str()) != QVA_OK) {
    std::fprintf(stderr, "qva-call: cannot append the trace to %s\n", options.traceFile.c_str());
    return 2;
  }
  if (options.traceLevel >= 0) QVA_setAPITraceLevel(options.traceLevel);

  // Built before anything is started, so that a name the library refuses
  // ends the run at once.
  QvaChannel *channel = nullptr;
  if (options.channel.channelCall() && qvacall::buildChannel(options.channel, &channel) != ECI_NO_ERROR) return 1;

  qvaemu::Gateway emulator;
  std::string host = options.host;
  int port = options.port;
  if (host.empty()) {
    std::string error;
    if (!emulator.start(&error)) {
      std::fprintf(stderr, "qva-call: cannot start the embedded Gateway emulator: %s\n", error.c_str());
      if (channel != nullptr) ECI_deleteChannel(&channel);
      return 1;
    }
    host = "127.0.0.1";
    port = emulator.port();
    if (!options.quiet) std::printf("embedded Gateway emulator on %s:%d\n", host.c_str(), port);
  }

  QvaGatewayToken *token = nullptr;
  int rc = QVA_openRemoteGatewayConnection(host.c_str(), port, &token, options.connectTimeout);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "qva-call: cannot connect to %s:%d: rc=%d %s\n", host.c_str(), port, rc, rcName(rc).c_str());
    if (channel != nullptr) ECI_deleteChannel(&channel);
    return 1;
  }
  if (options.list)
    rc = listServers(token, options);
  else if (channel != nullptr)
    rc = callWithChannel(token, options, channel);
  else
    rc = callProgram(token, options);
  if (channel != nullptr) ECI_deleteChannel(&channel);
  QVA_closeGatewayConnection(&token);
  emulator.stop();
  return rc == QVA_OK ? 0 : 1;
}
