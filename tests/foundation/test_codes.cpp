// Result codes and their names, and the exported symbols. The public headers
// are read as text: every result-code #define is checked against the agreed
// values and the names the library returns, and every QVA_API name against
// the shared library's dynamic symbol table.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "qvaclient/qvaclient.h"

namespace {

// The name a lookup writes, checked to come back in the caller's buffer.
template <char *(*Lookup)(int, char *)>
std::string nameOf(int rc) {
  char buffer[QVA_RC_STRING_SIZE];
  std::memset(buffer, 'x', sizeof buffer);
  char *result = Lookup(rc, buffer);
  EXPECT_EQ(result, buffer);
  return result;
}
const auto rcString = nameOf<QVA_getRcString>;
const auto rcStringEci = nameOf<QVA_getRcStringECI>;

// The agreed values of every result code.
const std::map<std::string, long> &agreedCodes() {
  static const std::map<std::string, long> codes{
      {"QVA_OK", 0}, {"QVA_ERR_INVALID_DATA_LENGTH", -1}, {"QVA_ERR_SYSTEM_ERROR", -9}, {"QVA_ERR_MORE_SYSTEMS", -25},
      {"QVA_ERR_NO_SYSTEMS", -26}, {"QVA_ERR_NULLGWTOK", -100}, {"QVA_ERR_BADGWTOK", -101},
      {"QVA_ERR_LOSTGWCON", -102}, {"QVA_ERR_NULLPARM", -103}, {"QVA_ERR_TRACELEVEL", -104},
      {"QVA_ERR_BADPORT", -107}, {"QVA_ERR_NULLGWTOKPTR", -108}, {"QVA_ERR_NULLPTR", -109},
      {"QVA_ERR_MALLOCFAIL", -111}, {"QVA_ERR_BADGWTOKLIST", -115}, {"QVA_ERR_CONNECTFAILED", -118},
      {"QVA_ERR_LOCKFAIL", -121}, {"QVA_ERR_PIDMISMATCH", -123}, {"QVA_ERR_TIDMISMATCH", -124},
      {"QVA_ERR_TRACEFILE", -130}, {"QVA_ERR_BADHOST", -132}, {"QVA_ERR_NULLADDRESS", -133},
      {"QVA_ERR_CONNECTTIMEOUT", -134}, {"QVA_ERR_NULLECIPOINTER", -137}, {"QVA_ERR_INVALIDTIMEOUTPARM", -138},
      {"QVA_ERR_UNKNOWN_REQUEST_TYPE", 61442}, {"QVA_ERR_GATEWAY_CLOSED", 61444}, {"QVA_ERR_WORK_WAS_REFUSED", 61445},
      {"QVA_ERR_GATEWAY_EXCEPTION", 61446}, {"QVA_ERR_GATEWAY_BACK_LEVEL", 61450},
      {"QVA_ERR_INVALID_REQUEST_TYPE", 61451}, {"ECI_NO_ERROR", 0}, {"ECI_ERR_INVALID_DATA_LENGTH", -1},
      {"ECI_ERR_INVALID_EXTEND_MODE", -2}, {"ECI_ERR_NO_VESK", -3}, {"ECI_ERR_VESK_DIED", -4},
      {"ECI_ERR_REQUEST_TIMEOUT", -5}, {"ECI_ERR_RESPONSE_TIMEOUT", -6}, {"ECI_ERR_TRANSACTION_ABEND", -7},
      {"ECI_ERR_LUW_TOKEN", -8}, {"ECI_ERR_SYSTEM_ERROR", -9}, {"ECI_ERR_INVALID_CALL_TYPE", -14},
      {"ECI_ERR_RESOURCE_SHORTAGE", -16}, {"ECI_ERR_NO_SESSIONS", -17}, {"ECI_ERR_INVALID_DATA_AREA", -19},
      {"ECI_ERR_INVALID_VERSION", -21}, {"ECI_ERR_UNKNOWN_SERVER", -22}, {"ECI_ERR_SECURITY_ERROR", -27},
      {"ECI_ERR_MAX_SYSTEMS", -28}, {"ECI_ERR_MAX_SESSIONS", -29}, {"ECI_ERR_ROLLEDBACK", -30},
      {"ECI_ERR_INVALID_CHANNEL", -50}, {"ECI_ERR_INVALID_NAME", -51}, {"ECI_ERR_NULLCHANNELPTR", -52},
      {"ECI_ERR_CHANNELLOCKFAIL", -53}, {"ECI_ERR_ENDOFCONTAINERS", -54}, {"ECI_ERR_NULLINFOPTR", -55},
      {"ECI_ERR_INVALID_TYPE", -56}, {"ECI_ERR_CONTAINER_NOTFOUND", -58}, {"ECI_ERR_CONTAINER_EXISTS", -59},
      {"ECI_ERR_COMMAREA_AND_CHANNEL", -60}, {"ECI_ERR_NULLPTR", -109}, {"ECI_ERR_MEMORY_SHORTAGE", -111},
      {"ECI_ERR_LOCKFAIL", -121},
  };
  return codes;
}

std::string textOf(const char *path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Every result-code #define of the public header, with its value.
std::map<std::string, long> headerCodes() {
  const std::string content = textOf(QVA_CODES_HEADER);
  static const std::regex define(
      R"(#define[ \t]+((?:QVA|ECI)_(?:OK|NO_ERROR|ERR_[A-Z_]+))[ \t]+\(?[ \t]*(-?(?:0x[0-9A-Fa-f]+|[0-9]+))[ \t]*\)?)");
  std::map<std::string, long> codes;
  for (auto it = std::sregex_iterator(content.begin(), content.end(), define); it != std::sregex_iterator(); ++it) {
    codes[(*it)[1]] = std::stol((*it)[2], nullptr, 0);
  }
  return codes;
}

TEST(ResultCodes, HeaderConstantsHaveTheAgreedValuesAndTheLibrarysNames) {
  EXPECT_EQ(headerCodes(), agreedCodes());
  std::map<long, std::string> qvaByValue;
  for (const auto &[name, value] : headerCodes()) {
    if (name.rfind("QVA_", 0) != 0) continue;
    qvaByValue[value] = name;
    EXPECT_EQ(rcString(static_cast<int>(value)), name) << value;
    EXPECT_LE(name.size() + 1, static_cast<size_t>(QVA_RC_STRING_SIZE)) << name;
  }
  int named = 0;
  for (const auto &[name, value] : headerCodes()) {
    if (name.rfind("ECI_", 0) != 0) continue;
    const int rc = static_cast<int>(value);
    EXPECT_LE(name.size() + 1, 29u) << name;  // the smallest buffer
    if (rc >= -60 && rc <= -1) {
      EXPECT_EQ(rcStringEci(rc), name) << rc;
      ++named;
    } else {
      // 0, -109, -111 and -121 belong to the channel module's names.
      EXPECT_EQ(rcStringEci(rc), "UNKNOWN") << rc;
    }
    // The QVA_ table is looked at first, so a shared value keeps its QVA_ name.
    auto shared = qvaByValue.find(value);
    EXPECT_EQ(rcString(rc), shared != qvaByValue.end() ? shared->second : name) << rc;
  }
  EXPECT_EQ(named, 29);
}

TEST(ResultCodes, GapsOfTheTablesFallThroughToUnknown) {
  for (int rc : {-105, -106, -110, -112, -119, -120, -122, -131, -135, -136, -139, -10, -57, -61, 1, 61443, 61447,
                 0xF000, 0xF00F, -61445, 0x7FFFFFFF, static_cast<int>(0x80000000u)}) {
    EXPECT_EQ(rcString(rc), "UNKNOWN") << rc;
  }
  // The ECI table covers only -60 to -1.
  std::map<long, std::string> eciByValue;
  for (const auto &[name, value] : agreedCodes()) {
    if (name.rfind("ECI_", 0) == 0 && value >= -60 && value <= -1) eciByValue[value] = name;
  }
  for (int rc = -70; rc <= 5; ++rc) {
    auto it = eciByValue.find(rc);
    EXPECT_EQ(rcStringEci(rc), it != eciByValue.end() ? it->second : "UNKNOWN") << rc;
  }
  EXPECT_EQ(rcStringEci(61445), "UNKNOWN");
}

// The shared library exports exactly the interface: the QVA_, ECI_ and clapi
// names and the code-page pair, plain C names only, and every QVA_API name of
// the public headers.
TEST(Exports, ExactlyTheInterfaceIsExported) {
  std::set<std::string> symbols, declared;
  const std::string command = std::string("nm -D --defined-only '") + QVA_SHARED_LIBRARY + "'";
  FILE *pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[1024];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (fields >> address >> type >> name) symbols.insert(name);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  ASSERT_FALSE(symbols.empty());
  for (const std::string &name : symbols) {
    EXPECT_TRUE(name.rfind("QVA_", 0) == 0 || name.rfind("ECI_", 0) == 0 || name.rfind("clapi", 0) == 0 ||
                name == "getCurrentCcsid" || name == "CodeSetTable")
        << "unexpected export " << name;
  }
  static const std::regex declaration(R"(QVA_API\s+[A-Za-z_][A-Za-z_0-9 ]*?[\s*]([A-Za-z_][A-Za-z_0-9]+)\s*[(\[])");
  for (const char *header : {QVA_API_HEADER, QVA_CHANNEL_HEADER}) {
    const std::string content = textOf(header);
    for (auto it = std::sregex_iterator(content.begin(), content.end(), declaration); it != std::sregex_iterator(); ++it)
      declared.insert((*it)[1]);
  }
  // Guards the header parse itself: 17 QVA_ functions, 11 ECI_ functions,
  // getCurrentCcsid and CodeSetTable.
  ASSERT_EQ(declared.size(), 30u);
  for (const std::string &name : declared) EXPECT_EQ(symbols.count(name), 1u) << name << " is not exported";
}

}  // namespace
