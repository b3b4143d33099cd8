// Parsing and naming helpers shared by qva-call's source files.
#ifndef QVA_CLI_COMMON_H
#define QVA_CLI_COMMON_H

#include <cstdint>
#include <string>
#include <vector>

namespace qvacall {

// A whole number from low to high, in decimal, octal (0...) or hex (0x...).
bool parseInt(const char *text, long low, long high, int *value);

// Pairs of hex digits; white space between them is ignored.
bool parseHex(const std::string &text, std::vector<uint8_t> *bytes);

// Every byte of a file; false (and errno set) when it cannot be read.
bool readFile(const char *path, std::vector<uint8_t> *bytes);

// The library's name for a result code, e.g. "ECI_ERR_INVALID_NAME".
std::string rcName(int rc);

// qva-call's exit statuses.
enum ExitStatus : int {
  kExitSuccess = 0,    // result 0
  kExitFailed = 1,     // any other result: the program or the ECI call failed
  kExitUsage = 2,      // a bad command line; nothing was sent
  kExitNoGateway = 3,  // the Gateway was not reached, or the connection was lost
  kExitAbend = 4,      // the program abended
};

// The exit status that tells a call's result.
ExitStatus exitStatus(int rc);

}  // namespace qvacall

#endif
