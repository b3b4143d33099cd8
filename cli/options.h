// qva-call's command line: the options, their checks and the --help text.
#ifndef QVA_CLI_OPTIONS_H
#define QVA_CLI_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "containers.h"
#include "qvaclient/qvaclient.h"

namespace qvacall {

// The most a COMMAREA can hold: its length travels as a signed 16-bit number.
constexpr size_t kCommareaLimit = 32767;

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
  ChannelOptions channel;
  int extendMode = ECI_NO_EXTEND;
  int luwToken = 0;
  int timeout = 0;
  int sendLength = 0;
  int receiveLength = 0;
  int traceLevel = -1;
  std::string traceFile;
  bool quiet = false;
  bool json = false;
};

enum class Parsed {
  Run,    // the options are complete
  Done,   // --help or --version has been answered
  Usage,  // a usage error, told in one line on standard error
};

Parsed parseOptions(int argc, char **argv, CallOptions *options);

}  // namespace qvacall

#endif
