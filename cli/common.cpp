#include "common.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "qvaclient/qvaclient.h"

namespace qvacall {

bool parseInt(const char *text, long low, long high, int *value) {
  errno = 0;
  char *end = nullptr;
  long parsed = std::strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || parsed < low || parsed > high) return false;
  *value = static_cast<int>(parsed);
  return true;
}

bool parseHex(const std::string &text, std::vector<uint8_t> *bytes) {
  std::string digits;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c))) {
      digits += c;
    } else if (!std::isspace(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  if (digits.size() % 2 != 0) return false;
  bytes->clear();
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes->push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return true;
}

bool readFile(const char *path, std::vector<uint8_t> *bytes) {
  // A directory opens as a stream but reads as empty; refuse it outright.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    errno = EISDIR;
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  bytes->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad();
}

std::string rcName(int rc) {
  char name[QVA_RC_STRING_SIZE] = {};
  QVA_getRcString(rc, name);
  return name;
}

ExitStatus exitStatus(int rc) {
  switch (rc) {
    case QVA_OK:
      return kExitSuccess;
    case ECI_ERR_TRANSACTION_ABEND:
      return kExitAbend;
    case QVA_ERR_LOSTGWCON:
    case QVA_ERR_CONNECTFAILED:
    case QVA_ERR_BADHOST:
    case QVA_ERR_CONNECTTIMEOUT:
      return kExitNoGateway;
    default:
      // The Gateway's own codes: it closed, refused the work or failed the
      // conversation; the server program was never reached.
      if (rc >= QVA_ERR_UNKNOWN_REQUEST_TYPE && rc <= QVA_ERR_INVALID_REQUEST_TYPE) return kExitNoGateway;
      return kExitFailed;
  }
}

}  // namespace qvacall
