#include "config.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>

namespace qvaemu::config {

namespace {

constexpr size_t kNameLimit = 8;          // server and program names
constexpr size_t kDescriptionLimit = 60;  // a server's description
constexpr size_t kUserLimit = 16;         // user ids and passwords

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

std::optional<long> number(std::string_view text, long max) {
  if (text.empty() || text.size() > 10 ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  long value = 0;
  for (char c : text) value = value * 10 + (c - '0');
  if (value > max) return std::nullopt;
  return value;
}

std::string wantNumber(std::string_view text, long max) {
  return "takes a whole number from 0 to " + std::to_string(max) + ", not " + quoted(text);
}

// 1 to kNameLimit characters, none of them blank or '='.
std::string checkName(std::string_view name) {
  if (name.empty() || name.size() > kNameLimit) return "name " + quoted(name) + " is not 1 to 8 characters";
  if (std::any_of(name.begin(), name.end(), [](char c) { return isBlank(c) || c == '='; }))
    return "name " + quoted(name) + " holds a blank or '='";
  return "";
}

std::optional<std::vector<uint8_t>> hexBytes(std::string_view text) {
  std::vector<uint8_t> bytes;
  int high = -1;
  for (char c : text) {
    if (isBlank(c)) continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    const int nibble = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10;
    if (high < 0) {
      high = nibble;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | nibble));
      high = -1;
    }
  }
  if (high >= 0) return std::nullopt;
  return bytes;
}

template <typename T, typename Key>
void replaceOrAdd(std::vector<T>& list, Key key, T item) {
  auto same = std::find_if(list.begin(), list.end(), [&](const T& t) { return key(t) == key(item); });
  if (same != list.end())
    *same = std::move(item);
  else
    list.push_back(std::move(item));
}

std::string setServer(Settings& settings, std::string_view name, std::string_view description) {
  if (std::string bad = checkName(name); !bad.empty()) return bad;
  if (description.size() > kDescriptionLimit) return "description is longer than 60 characters";
  replaceOrAdd(
      settings.options.servers, [](const ServerEntry& s) { return s.name; },
      ServerEntry{std::string(name), std::string(description)});
  return "";
}

std::string setUser(Settings& settings, std::string_view user, std::string_view password) {
  if (user.empty() || user.size() > kUserLimit) return "user id " + quoted(user) + " is not 1 to 16 characters";
  if (password.size() > kUserLimit) return "password is longer than 16 characters";
  replaceOrAdd(
      settings.options.users, [](const User& u) { return u.userId; }, User{std::string(user), std::string(password)});
  return "";
}

// "text TEXT", "text \"TEXT\"", "hex HEX" or "abend CODE".
std::string setProgram(Settings& settings, std::string_view name, std::string_view value) {
  if (std::string bad = checkName(name); !bad.empty()) return bad;
  const size_t end =
      std::min(value.size(), static_cast<size_t>(std::find_if(value.begin(), value.end(), isBlank) - value.begin()));
  const std::string_view kind = value.substr(0, end);
  const std::string_view rest = trim(value.substr(end));
  CannedProgram program{std::string(name), {}, {}};
  if (kind == "text") {
    std::string_view text = rest;
    if (!text.empty() && text.front() == '"') {
      if (text.size() < 2 || text.back() != '"') return "text that opens with '\"' must close with '\"'";
      text = text.substr(1, text.size() - 2);
    }
    program.commarea.assign(text.begin(), text.end());
  } else if (kind == "hex") {
    auto bytes = hexBytes(rest);
    if (!bytes) return "hex takes pairs of hex digits, not " + quoted(rest);
    program.commarea = std::move(*bytes);
  } else if (kind == "abend") {
    if (rest.size() != 4 || !std::all_of(rest.begin(), rest.end(), [](char c) { return c > ' ' && c < 0x7F; }))
      return "abend takes a code of 4 printable characters, not " + quoted(rest);
    program.abendCode = rest;
  } else {
    return "takes text TEXT, hex HEX or abend CODE, not " + quoted(value);
  }
  if (program.commarea.size() > kCommareaLimit)
    return "reply of " + std::to_string(program.commarea.size()) + " bytes is over the COMMAREA limit of 32767 bytes";
  replaceOrAdd(
      settings.options.programs, [](const CannedProgram& p) { return p.name; }, std::move(program));
  return "";
}

std::string setFault(Settings& settings, std::string_view value) {
  std::string_view mode = value;
  int after = 0;
  if (const size_t colon = value.find(':'); colon != std::string_view::npos) {
    const auto n = number(value.substr(colon + 1), 1000000);
    if (!n) return "takes MODE or MODE:AFTER, AFTER a whole number from 0 to 1000000, not " + quoted(value);
    after = static_cast<int>(*n);
    mode = value.substr(0, colon);
  }
  const auto fault = faultFromName(mode);
  if (!fault) return "names no fault mode: " + quoted(mode) + " (see --help)";
  settings.fault.fault = *fault;
  settings.fault.afterMessages = after;
  return "";
}

std::string setBool(bool& target, std::string_view value) {
  static const std::map<std::string_view, bool> words = {{"yes", true}, {"true", true},   {"on", true},   {"1", true},
                                                         {"no", false}, {"false", false}, {"off", false}, {"0", false}};
  const auto word = words.find(value);
  if (word == words.end()) return "takes yes or no (true/false, on/off, 1/0), not " + quoted(value);
  target = word->second;
  return "";
}

}  // namespace

Settings::Settings() {
  options.recordReceived = false;
  fault.everyConnection = true;
}

bool isOption(std::string_view name) {
  static constexpr std::string_view names[] = {"listen",      "port",        "port-file", "log",  "fault",
                                               "extra-bytes", "close-delay", "server",    "user", "password"};
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

std::string setOption(Settings& settings, std::string_view name, std::string_view value) {
  Options& options = settings.options;
  if (name == "listen") {
    if (value.empty()) return "takes an address, not \"\"";
    options.listenAddresses.emplace_back(value);
  } else if (name == "port") {
    const auto n = number(value, 65535);
    if (!n) return wantNumber(value, 65535);
    options.port = static_cast<uint16_t>(*n);
  } else if (name == "port-file") {
    if (value.empty()) return "takes a file name, not \"\"";
    settings.portFile = value;
  } else if (name == "log") {
    return setBool(options.logMessages, value);
  } else if (name == "fault") {
    return setFault(settings, value);
  } else if (name == "extra-bytes") {
    const auto n = number(value, 1L << 24);
    if (!n) return wantNumber(value, 1L << 24);
    settings.fault.extraBytes = static_cast<uint32_t>(*n);
  } else if (name == "close-delay") {
    const auto n = number(value, 600000);
    if (!n) return wantNumber(value, 600000);
    settings.fault.closeDelay = std::chrono::milliseconds(*n);
  } else if (name == "server") {
    const size_t eq = value.find('=');
    if (eq == std::string_view::npos) return "takes NAME=DESCRIPTION, not " + quoted(value);
    return setServer(settings, value.substr(0, eq), value.substr(eq + 1));
  } else if (name == "user") {
    if (value.empty() || value.size() > kUserLimit) return "takes a user id of 1 to 16 characters";
    options.userId = value;
  } else if (name == "password") {
    if (value.size() > kUserLimit) return "takes a password of 16 characters at most";
    options.password = value;
  } else {
    return "is not an option";
  }
  return "";
}

void parse(std::istream& in, const std::string& name, Settings& settings, std::vector<std::string>& errors) {
  // Where each "server X", "user X" and "program X" was first given.
  std::map<std::string, size_t> given;
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    auto refuse = [&](const std::string& message) {
      errors.push_back(name + ":" + std::to_string(number) + ": " + message);
    };
    const std::string_view text = trim(line);
    if (text.empty() || text.front() == '#') continue;
    const size_t eq = text.find('=');
    if (eq == std::string_view::npos) {
      refuse("want KEY = VALUE, or KIND NAME = VALUE (no '=' found)");
      continue;
    }
    const std::string_view left = trim(text.substr(0, eq));
    const std::string_view value = trim(text.substr(eq + 1));
    const size_t gap = static_cast<size_t>(std::find_if(left.begin(), left.end(), isBlank) - left.begin());
    const std::string key(left.substr(0, gap));
    const std::string_view subject = trim(left.substr(std::min(gap, left.size())));

    const bool kind = key == "server" || key == "user" || key == "program";
    if (key.empty()) {
      refuse("a key is missing before '='");
    } else if (kind && subject.empty()) {
      refuse(key + " wants a name: " + key + " NAME = " + (key == "user" ? "PASSWORD" : "..."));
    } else if (kind && std::any_of(subject.begin(), subject.end(), isBlank)) {
      refuse(key + " name " + quoted(subject) + " holds a blank");
    } else if (kind) {
      const std::string id = key + " " + std::string(subject);
      if (auto first = given.find(id); first != given.end()) {
        refuse(id + " is given twice (first on line " + std::to_string(first->second) + ")");
        continue;
      }
      given.emplace(id, number);
      std::string bad = key == "server" ? setServer(settings, subject, value)
                        : key == "user" ? setUser(settings, subject, value)
                                        : setProgram(settings, subject, value);
      if (!bad.empty()) refuse(id + ": " + bad);
    } else if (!subject.empty() || key == "user" || key == "password" || !isOption(key)) {
      refuse("unknown setting " + quoted(left));
    } else if (std::string bad = setOption(settings, key, value); !bad.empty()) {
      refuse(key + " " + bad);
    }
  }
}

bool readFile(const std::string& path, Settings& settings, std::vector<std::string>& errors) {
  // A directory opens as a stream but reads as empty; refuse it outright.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    errors.push_back("cannot read " + path + ": " + std::strerror(EISDIR));
    return false;
  }
  std::ifstream in(path);
  if (!in) {
    errors.push_back("cannot read " + path + ": " + std::strerror(errno));
    return false;
  }
  parse(in, path, settings, errors);
  if (in.bad()) {
    errors.push_back("cannot read " + path + ": " + std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace qvaemu::config
