// Helpers for the foundation tests: a private scratch directory, a trace file
// read back line by line, the prefixed trace-line parser and a capture of
// standard error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace qvatest {

// One prefixed trace line, split into its fields.
struct TraceLine {
  std::string timestamp;
  unsigned pid = 0;
  unsigned tid = 0;
  int point = 0;
  std::string word;  // the 6-character level field, blanks included
  std::string message;
};

// The prefix "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s " of every trace line.
inline const std::regex &traceLinePattern() {
  static const std::regex pattern(
      R"(^(\d\d/\d\d/\d\d \d\d:\d\d:\d\d:\d{3}) \[0x([0-9A-F]{8}),0x([0-9A-F]{8})\] \[(\d{4})\] (.{6}) (.*)$)");
  return pattern;
}

inline std::optional<TraceLine> parseTraceLine(const std::string &text) {
  std::smatch m;
  if (!std::regex_match(text, m, traceLinePattern())) return std::nullopt;
  TraceLine line;
  line.timestamp = m[1];
  line.pid = static_cast<unsigned>(std::stoul(m[2], nullptr, 16));
  line.tid = static_cast<unsigned>(std::stoul(m[3], nullptr, 16));
  line.point = std::stoi(m[4]);
  line.word = m[5];
  line.message = m[6];
  return line;
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

inline std::vector<std::string> readLines(const std::string &path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// The prefixed lines of a file; raw lines (banner, dumps) are left out.
inline std::vector<TraceLine> readTraceLines(const std::string &path) {
  std::vector<TraceLine> result;
  for (const std::string &text : readLines(path)) {
    if (auto line = parseTraceLine(text)) result.push_back(*line);
  }
  return result;
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

// A directory of its own for each test program, removed at the end.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvafound.XXXXXX").string();
    char *made = mkdtemp(pattern.data());
    if (made != nullptr) path_ = made;
  }
  ~ScratchDir() {
    if (!path_.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
    }
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;

  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Points file descriptor 2 at a file until stop() or destruction, so lines
// written to standard error can be read back.
class StderrCapture {
 public:
  explicit StderrCapture(std::string path) : path_(std::move(path)) {
    std::fflush(stderr);
    saved_ = dup(2);
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      dup2(fd, 2);
      close(fd);
    }
  }
  ~StderrCapture() { stop(); }
  StderrCapture(const StderrCapture &) = delete;
  StderrCapture &operator=(const StderrCapture &) = delete;

  void stop() {
    if (saved_ >= 0) {
      std::fflush(stderr);
      dup2(saved_, 2);
      close(saved_);
      saved_ = -1;
    }
  }
  std::vector<std::string> lines() const { return readLines(path_); }

 private:
  std::string path_;
  int saved_ = -1;
};

}  // namespace qvatest
