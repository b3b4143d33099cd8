// qva-gateway's settings, from its command line and from configuration files.
// Both go through setOption(), so a file and the options accept and refuse
// the same values with the same words.
//
// A configuration file is lines of text:
//   # a comment (a line whose first non-blank character is '#')
//   port = 0                   any option that takes a value: listen, port,
//   log = yes                  port-file, fault, extra-bytes, close-delay;
//                              log takes yes/no, true/false, on/off, 1/0
//   server QVADEMO = Demo      a server of the list and its description
//   user ALICE = S3CRET        a user id and its password
//   program HELLO = text Hello, world
//   program RAW = hex 00 01 FF
//   program FAIL = abend ABCD
// Blanks around the key, the name and the value do not count. Text in double
// quotes ("  x  ") keeps its blanks; it is taken as it stands, quotes inside
// included. Later settings replace earlier single values; servers, users,
// programs and listen addresses add up, one of the same name replacing the
// earlier one. Within one file a name given twice is an error.
#ifndef QVAEMU_CONFIG_H
#define QVAEMU_CONFIG_H

#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include "qvaemu/gateway.h"

namespace qvaemu::config {

// The longest COMMAREA: its length travels as a signed 16-bit number.
inline constexpr size_t kCommareaLimit = 32767;

struct Settings {
  Settings();
  Options options;  // recordReceived off: nobody reads them back, and the program may run for long
  FaultPlan fault;  // everyConnection on
  std::string portFile;
};

// Sets an option by its long name without the dashes: listen, port,
// port-file, log, fault, extra-bytes, close-delay, server (NAME=DESCRIPTION),
// user, password. Returns "" when done, else what is wrong, worded to follow
// the option's name: "takes a whole number from 0 to 65535, not \"x\"".
std::string setOption(Settings& settings, std::string_view name, std::string_view value);

// Whether setOption() knows the name.
bool isOption(std::string_view name);

// Applies the lines of a configuration file to settings. Each malformed line
// adds "NAME:LINE: message" to errors and is skipped.
void parse(std::istream& in, const std::string& name, Settings& settings, std::vector<std::string>& errors);

// parse() on the file at path; false, with a message in errors, when it
// cannot be read.
bool readFile(const std::string& path, Settings& settings, std::vector<std::string>& errors);

}  // namespace qvaemu::config

#endif
