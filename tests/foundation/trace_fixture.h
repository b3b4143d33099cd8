// A fixture that sends the trace to a fresh file for each test and puts the
// process-wide settings back afterwards; the lines the tests compare.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qvatest/trace.h"

namespace qvatest {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines a, const Lines &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A lock module line, "3106 EXIT   clapi_lock.clapiRequestLock(lockPtr=0x..) mutexRc=0 rc=0".
constexpr char kMutexOk[] = " mutexRc=0 rc=0";
inline std::string lockLine(const std::string &pointWord, const char *op, const void *lock, const char *rest = "") {
  return pointWord + "  clapi_lock.clapi" + op + "Lock(lockPtr=" + ptrText(lock) + ")" + rest;
}

class TraceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    ASSERT_FALSE(scratch().path().empty()) << "no scratch directory";
    path_ = scratch().file("trace-" + std::to_string(++counter) + ".trc");
    // At level 0 the switch writes nothing, so each file starts empty.
    for (int rc : {QVA_setAPITraceLevel(0), QVA_setAPITraceFile(path_.c_str())}) ASSERT_EQ(rc, QVA_OK);
  }
  void TearDown() override {
    QVA_setAPITraceLevel(0);
    QVA_setAPITraceFile(nullptr);
    QVA_setAPITraceDataOffset(0);
    QVA_setAPITraceDataLength(128);
  }
  static ScratchDir &scratch() {
    static ScratchDir dir;
    return dir;
  }
  const std::string &path() const { return path_; }
  Lines all(const std::string &file) const { return normalise(readLines(file)); }
  Lines all() const { return all(path_); }
  // Sets the level, then marks: sinceMark() returns the lines written after.
  void level(int level) {
    ASSERT_EQ(QVA_setAPITraceLevel(level), QVA_OK);
    mark();
  }
  void mark() { mark_ = readLines(path_).size(); }
  Lines sinceMark() const {
    const Lines lines = all();
    return Lines(lines.begin() + static_cast<std::ptrdiff_t>(std::min(mark_, lines.size())), lines.end());
  }

 private:
  std::string path_;
  size_t mark_ = 0;
};

}  // namespace qvatest
