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

}  // namespace qvacall

#endif
