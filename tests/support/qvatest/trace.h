// The library's trace read back for the tests: the prefixed line parser, the
// banner, storage dumps rebuilt as bytes, a trace captured into a file of its
// own, a scratch directory and a capture of standard error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "qvaclient/qvaclient.h"
#include "qvatest/bytes.h"

namespace qvatest {

// One prefixed trace line, split into its fields.
struct TraceLine {
  std::string timestamp;
  unsigned pid = 0;
  unsigned tid = 0;
  int point = 0;
  std::string word;     // "*EXC*", "EVENT", "ENTRY", "EXIT", "DEBUG" or "DATA"
  std::string message;  // after the prefix, without the newline
};

// "dd/mm/yy HH:MM:SS:mmm [0xPPPPPPPP,0xTTTTTTTT] [NNNN] WORD   message": the
// level word padded to six, then one blank. Checked by hand rather than with
// std::regex: traces of thousands of lines are read back, and sanitizer
// builds make a regex per line slow.
inline std::optional<TraceLine> parseTraceLine(const std::string &line) {
  static constexpr std::string_view kShape = "dd/dd/dd dd:dd:dd:ddd [0xhhhhhhhh,0xhhhhhhhh] [dddd] ";
  if (line.size() < kShape.size() + 7) return std::nullopt;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const char c = line[i];
    const char want = kShape[i];
    const bool ok = want == 'd'   ? (c >= '0' && c <= '9')
                    : want == 'h' ? ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))
                                  : c == want;
    if (!ok) return std::nullopt;
  }
  static constexpr std::string_view kWords[] = {"*EXC* ", "EVENT ", "ENTRY ", "EXIT  ", "DEBUG ", "DATA  "};
  const std::string_view word(line.data() + kShape.size(), 6);
  if (std::find(std::begin(kWords), std::end(kWords), word) == std::end(kWords)) return std::nullopt;
  if (line[kShape.size() + 6] != ' ') return std::nullopt;
  TraceLine out;
  out.timestamp = line.substr(0, 21);
  out.pid = static_cast<unsigned>(std::stoul(line.substr(25, 8), nullptr, 16));
  out.tid = static_cast<unsigned>(std::stoul(line.substr(36, 8), nullptr, 16));
  out.point = std::stoi(line.substr(kShape.size() - 6, 4));
  out.word = std::string(word.substr(0, word.find_last_not_of(' ') + 1));
  out.message = line.substr(kShape.size() + 7);
  return out;
}

inline std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

inline std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline std::vector<std::string> readLines(const std::string &path) { return linesOf(readFile(path)); }

// The prefixed lines of a text; raw lines (banner, dumps) are left out.
inline std::vector<TraceLine> traceLines(const std::string &text) {
  std::vector<TraceLine> out;
  for (const auto &line : linesOf(text))
    if (auto l = parseTraceLine(line)) out.push_back(*l);
  return out;
}

// How many lines have this point and word and a message matching the regex whole.
inline int countLines(const std::string &text, int point, const std::string &word, const std::string &messageRegex) {
  const std::regex re(messageRegex);
  int n = 0;
  for (const auto &l : traceLines(text))
    if (l.point == point && l.word == word && std::regex_match(l.message, re)) ++n;
  return n;
}

inline bool isBannerLine(const std::string &text) { return text.rfind("*** ", 0) == 0; }

inline const std::regex &bannerFirstLinePattern() {
  static const std::regex pattern(
      R"(^\*\*\* \d\d/\d\d/\d\d Olvex Varnel QVAClient DLL trace V8\.0\.0\.1 API Version 2\.1\.0\.0 Build Level r800-20101014 \*\*\*$)");
  return pattern;
}

inline std::string bannerSecondLine(int level, const std::string &file) {
  return "*** Trace Level = " + std::to_string(level) + ", Trace File = " + file + " ***";
}

// A line as exact comparisons see it: prefixed lines as "NNNN WORD__ message"
// (no timestamp or ids), the first banner line as "BANNER", others as they are.
inline std::string normalise(const std::string &text) {
  if (auto line = parseTraceLine(text)) {
    char head[16];
    std::snprintf(head, sizeof head, "%4.4d %-6s ", line->point, line->word.c_str());
    return head + line->message;
  }
  if (std::regex_match(text, bannerFirstLinePattern())) return "BANNER";
  return text;
}

inline std::vector<std::string> normalise(const std::vector<std::string> &lines) {
  std::vector<std::string> out;
  for (const auto &text : lines) out.push_back(normalise(text));
  return out;
}

// "0xAAAAAAAA: " then 16 hex slots in groups of four, " : " and the text.
inline bool isDumpLine(const std::string &line) {
  if (line.size() < 50 || line.compare(0, 2, "0x") != 0 || line[10] != ':' || line.compare(47, 3, " : ") != 0)
    return false;
  return std::all_of(line.begin() + 12, line.begin() + 47,
                     [](char c) { return c == ' ' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); });
}

// A storage dump rebuilt as bytes from its hex columns, with the trace point
// and message of the DATA line it follows.
struct Dump {
  int point = 0;
  std::string message;
  Bytes bytes;
};

inline std::vector<Dump> dumps(const std::string &text) {
  std::vector<Dump> out;
  for (const auto &line : linesOf(text)) {
    if (auto l = parseTraceLine(line)) {
      if (l->word == "DATA") out.push_back({l->point, l->message, {}});
      continue;
    }
    if (out.empty() || !isDumpLine(line)) continue;
    const Bytes b = hex(line.substr(12, 35));
    out.back().bytes.insert(out.back().bytes.end(), b.begin(), b.end());
  }
  return out;
}

// "%p" as the library prints it.
inline std::string ptrText(const void *p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

inline std::string hex8(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%8.8X", value);
  return text;
}

inline std::string tempPath(const std::string &stem) {
  std::string name = (std::filesystem::temp_directory_path() / (stem + "XXXXXX")).string();
  const int fd = ::mkstemp(name.data());
  if (fd < 0) throw std::runtime_error("mkstemp");
  ::close(fd);
  return name;
}

// Sends the trace at `level` to a fresh file for the life of the object.
// text() turns the trace off, puts it back on standard error with the default
// dump settings, and returns what was written.
class TraceCapture {
 public:
  explicit TraceCapture(int level, unsigned dumpLength = 0) : path_(tempPath("qva_trace_")) {
    QVA_setAPITraceLevel(0);
    QVA_setAPITraceDataOffset(0);
    QVA_setAPITraceDataLength(dumpLength);
    if (QVA_setAPITraceFile(path_.c_str()) != QVA_OK || QVA_setAPITraceLevel(level) != QVA_OK)
      throw std::runtime_error("cannot trace to " + path_);
  }
  TraceCapture(const TraceCapture &) = delete;
  TraceCapture &operator=(const TraceCapture &) = delete;
  ~TraceCapture() { text(); }

  const std::string &path() const { return path_; }

  const std::string &text() {
    if (!finished_) {
      finished_ = true;
      QVA_setAPITraceLevel(0);
      QVA_setAPITraceFile(nullptr);
      QVA_setAPITraceDataLength(128);
      text_ = readFile(path_);
      std::remove(path_.c_str());
    }
    return text_;
  }

 private:
  std::string path_;
  std::string text_;
  bool finished_ = false;
};

// A directory of its own for each test program, removed at the end.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvatest.XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;

  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Points descriptor 2 at a file until stop() or destruction, so lines
// written to standard error can be read back.
class StderrCapture {
 public:
  explicit StderrCapture(std::string path) : path_(std::move(path)) {
    std::fflush(stderr);
    saved_ = dup(2);
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      dup2(fd, 2);
      close(fd);
    }
  }
  ~StderrCapture() { stop(); }
  StderrCapture(const StderrCapture &) = delete;
  StderrCapture &operator=(const StderrCapture &) = delete;

  void stop() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
  }
  std::vector<std::string> lines() const { return readLines(path_); }

 private:
  std::string path_;
  int saved_ = -1;
};

}  // namespace qvatest
