#include "options.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common.h"
#include "qva_version.h"

namespace qvacall {

namespace {

void usage(FILE *out) {
  std::fputs(
      "usage: qva-call [options] PROGRAM      call a server program\n"
      "       qva-call [options] --list       list the Gateway's servers\n"
      "\n"
      "Gateway (without --host the embedded emulator is started on loopback):\n"
      "  --host HOST             Gateway host name or address\n"
      "  --port N                Gateway port (needed with --host, 1-65535)\n"
      "  --connect-timeout S     seconds allowed for the connect (0-3600; the library\n"
      "                          honours it when QVA_CLIENT_REPLY_TIMEOUT is set)\n"
      "Call:\n"
      "  --program NAME          the program to call, as PROGRAM (8 characters at most)\n"
      "  --server NAME           server name (8 characters at most)\n"
      "  --user NAME             user id (16 characters at most)\n"
      "  --password TEXT         password (16 characters at most, never shown);\n"
      "                          --password - reads a line from standard input, without\n"
      "                          echo on a terminal; or set QVA_PASSWORD\n"
      "  --text TEXT             COMMAREA contents as text (32767 bytes at most,\n"
      "                          as for --hex and --file; give one of the three)\n"
      "  --hex HEX               COMMAREA contents as hex digits\n"
      "  --file PATH             COMMAREA contents from a file\n"
      "  --length N              COMMAREA length (default: the contents' length)\n"
      "  --extend MODE           0|none, 1|extended, 2|commit, 4|backout\n"
      "  --luw TOKEN             LUW token of an extended unit of work\n"
      "  --tpn NAME              transaction program name (4 characters at most)\n"
      "  --transid NAME          transaction id (4 characters at most)\n"
      "  --timeout S             ECI time limit in seconds, enforced by the Gateway\n"
      "  --send-length N         send only N COMMAREA bytes\n"
      "  --receive-length N      receive at most N COMMAREA bytes\n"
      "  --list-capacity N       entries --list can take (default 16)\n"
      "Output of a COMMAREA call: the rc= line, \"abend code: XXXX\" when the program\n"
      "abended, \"LUW token: N\", \"COMMAREA (N bytes): \" with the returned COMMAREA\n"
      "as text, then as a hex dump; a COMMAREA over 256 bytes shows its first 256 and a\n"
      "line with the count of the bytes left out.\n",
      out);
  channelUsage(out);
  std::fputs(
      "Output:\n"
      "  --json                  one JSON object on standard output instead (see below)\n"
      "  --quiet                 print only the result line\n"
      "Trace:\n"
      "  --trace-level N         0 (off) to 5\n"
      "  --trace-file PATH       append the trace to PATH (default: standard error)\n"
      "Other:\n"
      "  --version               print the versions of qva-call and of the library\n"
      "  -h, --help              print this text\n"
      "JSON output: {\"rc\", \"rc_name\", \"abend_code\" (null when none), \"luw_token\",\n"
      "\"commarea\": {\"length\", \"hex\", \"text\"}} for a COMMAREA call; \"text\" is null\n"
      "unless the bytes before any trailing NULs are printable ASCII, tab, CR or LF.\n"
      "A channel call has \"channel\": {\"name\", \"containers\": [{\"name\", \"type\"\n"
      "(\"BIT\"|\"CHAR\"), \"ccsid\", \"length\", \"hex\", \"text\" (CHAR only, else null)}]}\n"
      "in place of \"commarea\"; --list gives {\"rc\", \"rc_name\", \"server_count\",\n"
      "\"servers\": [{\"name\", \"description\"}]}. Bytes outside printable ASCII are\n"
      "written \\u00XX. A connection that fails gives {\"rc\", \"rc_name\"}.\n"
      "Exit status:\n"
      "  0  the call (or --list) ended with result 0\n"
      "  1  it ended with another result: the program or the ECI call failed\n"
      "  2  a usage error: an unknown option, a missing or bad value, options that\n"
      "     do not go together, a file that cannot be read, a trace file that\n"
      "     cannot be appended to; nothing is sent\n"
      "  3  the Gateway could not be reached or the connection was lost (-102, -118,\n"
      "     -132, -134, the Gateway's own codes 0xF002-0xF00B), or the embedded\n"
      "     emulator could not start\n"
      "  4  the program abended (-7 ECI_ERR_TRANSACTION_ABEND)\n"
      "Environment:\n"
      "  QVA_PASSWORD            the password when no --password is given\n"
      "  QVA_CLIENT_TRACE_LEVEL  the library's trace level, 0-5 (--trace-level wins)\n"
      "  QVA_CLIENT_TRACE_FILE   the library's trace file (--trace-file wins)\n"
      "  QVA_CLIENT_DATA_LENGTH  the bytes of each data dump traced (0: all)\n"
      "  QVA_CLIENT_DATA_OFFSET  where in the data the dumps start\n"
      "  QVA_CLIENT_REPLY_TIMEOUT  seconds the library waits for a reply (0-3600;\n"
      "                          unset or 0: as long as the Gateway takes)\n"
      "  LANG                    decides the CCSID of CHAR containers that give none\n",
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

// Writes the one line of a usage error; false, for the caller to pass on.
bool usageError(const std::string &message) {
  std::fprintf(stderr, "qva-call: %s\n", message.c_str());
  return false;
}

std::string quoted(const char *text) { return std::string("\"") + text + "\""; }

// The checks that need every option: the ones that do not go together.
bool consistent(CallOptions *options, const std::string &shaping, const std::string &callOnly, bool capacityGiven) {
  if (!options->channel.finish()) return false;
  if (options->channel.channelCall() && !shaping.empty()) {
    return usageError(shaping + " does not go with a channel call (--channel, --container...): it has no COMMAREA");
  }
  if (options->list && options->channel.channelCall()) return usageError("--list takes no channel or containers");
  if (options->list && !options->program.empty()) {
    return usageError("--list does not go with a program (" + options->program + ")");
  }
  if (options->list && !callOnly.empty()) return usageError(callOnly + " does not go with --list");
  if (capacityGiven && !options->list) return usageError("--list-capacity goes with --list");
  if (!options->host.empty() && options->port == 0) return usageError("--host needs --port");
  if (options->host.empty() && options->port != 0) return usageError("--port needs --host");
  if (options->json && options->quiet) return usageError("--json does not go with --quiet");
  if (!options->list && options->program.empty()) return usageError("name a program to call, or --list (see --help)");
  if (options->password.empty()) {
    if (const char *fromEnv = std::getenv("QVA_PASSWORD")) options->password = fromEnv;
    if (options->password.size() > 16) return usageError("QVA_PASSWORD holds more than 16 characters");
  }
  return true;
}

// Reads the command line an option at a time into the options.
class Parser {
 public:
  Parser(int argc, char **argv, CallOptions *options) : argc_(argc), argv_(argv), options_(options) {}

  Parsed run() {
    for (i_ = 1; i_ < argc_; ++i_) {
      arg_ = argv_[i_];
      auto taken = options_->channel.take(argc_, argv_, &i_);
      if (taken == ChannelOptions::Parse::UsageError) return Parsed::Usage;
      if (taken == ChannelOptions::Parse::Taken) continue;
      if (arg_ == "--help" || arg_ == "-h") {
        usage(stdout);
        return Parsed::Done;
      }
      if (arg_ == "--version") {
        printVersion();
        return Parsed::Done;
      }
      if (!take()) return Parsed::Usage;
    }
    return consistent(options_, shaping_, callOnly_, capacityGiven_) ? Parsed::Run : Parsed::Usage;
  }

 private:
  // The option's value, in v_.
  bool value() {
    if (i_ + 1 >= argc_) return usageError(arg_ + " needs a value");
    v_ = argv_[++i_];
    return true;
  }

  bool number(long low, long high, int *target) {
    if (!value()) return false;
    if (parseInt(v_, low, high, target)) return true;
    return usageError(arg_ + " takes a whole number from " + std::to_string(low) + " to " + std::to_string(high) +
                      ", not " + quoted(v_));
  }

  // A name or text that fills a fixed field of the request.
  bool field(size_t limit, std::string *target) {
    if (!value()) return false;
    if (std::strlen(v_) > limit) {
      return usageError(arg_ + " takes " + std::to_string(limit) + " characters at most, not " + quoted(v_));
    }
    *target = v_;
    return true;
  }

  // An option that has no use with --list.
  void forCall() {
    if (callOnly_.empty()) callOnly_ = arg_;
  }

  // An option that shapes the COMMAREA, which a channel call does not have.
  void shapes() {
    forCall();
    if (shaping_.empty()) shaping_ = arg_;
  }

  // --text, --hex or --file, whose value gives the COMMAREA's bytes.
  bool contents() {
    shapes();
    if (!contents_.empty()) {
      return usageError(arg_ + " does not go with " + contents_ + ": give the COMMAREA once (--text, --hex or --file)");
    }
    contents_ = arg_;
    return value();
  }

  bool withinLimit() { return withinLimit(options_->commarea.size()); }
  bool withinLimit(uintmax_t size) {
    if (size <= kCommareaLimit) return true;
    return usageError("COMMAREA of " + std::to_string(size) + " bytes from " + arg_ +
                      " is over the limit of 32767 bytes");
  }

  bool take();

  int argc_;
  char **argv_;
  CallOptions *options_;
  int i_ = 1;
  std::string arg_;
  const char *v_ = nullptr;
  std::string contents_;  // the option that gave the COMMAREA's bytes
  std::string shaping_;   // the first option that shapes a COMMAREA
  std::string callOnly_;  // the first option that has no use with --list
  bool capacityGiven_ = false;
};

bool Parser::take() {
  CallOptions &o = *options_;
  const std::string &arg = arg_;
  if (arg == "--host") {
    if (!value()) return false;
    if (*v_ == '\0') return usageError("--host takes a host name or address, not \"\"");
    o.host = v_;
  } else if (arg == "--port") {
    return number(1, 65535, &o.port);
  } else if (arg == "--connect-timeout") {
    return number(0, 3600, &o.connectTimeout);
  } else if (arg == "--list") {
    o.list = true;
  } else if (arg == "--list-capacity") {
    int capacity = 0;
    if (!number(1, 65535, &capacity)) return false;
    o.listCapacity = static_cast<unsigned>(capacity);
    capacityGiven_ = true;
  } else if (arg == "--program") {
    if (!o.program.empty()) return usageError("one program at a time (--program after " + o.program + ")");
    return field(8, &o.program);
  } else if (arg == "--server") {
    forCall();
    return field(8, &o.server);
  } else if (arg == "--user") {
    forCall();
    return field(16, &o.user);
  } else if (arg == "--password") {
    forCall();
    if (!value()) return false;
    o.password = std::strcmp(v_, "-") == 0 ? readPassword() : v_;
    // Never shown: the message names the option only.
    if (o.password.size() > 16) return usageError("--password takes 16 characters at most");
  } else if (arg == "--text") {
    if (!contents()) return false;
    o.commarea.assign(v_, v_ + std::strlen(v_));
    return withinLimit();
  } else if (arg == "--hex") {
    if (!contents()) return false;
    if (!parseHex(v_, &o.commarea)) return usageError("--hex takes pairs of hex digits, not " + quoted(v_));
    return withinLimit();
  } else if (arg == "--file") {
    if (!contents()) return false;
    // A regular file over the limit is refused by its size, before it is read.
    std::error_code notRegular;
    const uintmax_t size = std::filesystem::file_size(v_, notRegular);
    if (!notRegular && !withinLimit(size)) return false;
    if (!readFile(v_, &o.commarea)) return usageError(std::string("cannot read ") + v_ + ": " + std::strerror(errno));
    return withinLimit();
  } else if (arg == "--length") {
    shapes();
    int length = 0;
    if (!number(0, static_cast<long>(kCommareaLimit), &length)) return false;
    o.commareaLength = length;
  } else if (arg == "--extend") {
    forCall();
    if (!value()) return false;
    if (!parseExtendMode(v_, &o.extendMode)) {
      return usageError("--extend takes 0|none, 1|extended, 2|commit or 4|backout, not " + quoted(v_));
    }
  } else if (arg == "--luw") {
    forCall();
    return number(-2147483647L - 1, 2147483647L, &o.luwToken);
  } else if (arg == "--tpn") {
    forCall();
    return field(4, &o.tpn);
  } else if (arg == "--transid") {
    forCall();
    return field(4, &o.transid);
  } else if (arg == "--timeout") {
    forCall();
    return number(0, 32767, &o.timeout);
  } else if (arg == "--send-length") {
    shapes();
    return number(0, 32767, &o.sendLength);
  } else if (arg == "--receive-length") {
    shapes();
    return number(0, 32767, &o.receiveLength);
  } else if (arg == "--trace-level") {
    return number(0, 5, &o.traceLevel);
  } else if (arg == "--trace-file") {
    if (!value()) return false;
    o.traceFile = v_;
  } else if (arg == "--quiet") {
    o.quiet = true;
  } else if (arg == "--json") {
    o.json = true;
  } else if (arg.size() > 1 && arg[0] == '-') {
    return usageError("unknown option " + arg + " (see --help)");
  } else if (!o.program.empty()) {
    return usageError("one program at a time (" + arg + " after " + o.program + ")");
  } else if (arg.size() > 8) {
    return usageError("program name " + quoted(arg.c_str()) + " is longer than 8 characters");
  } else {
    o.program = arg;
  }
  return true;
}

}  // namespace

Parsed parseOptions(int argc, char **argv, CallOptions *options) { return Parser(argc, argv, options).run(); }

}  // namespace qvacall
