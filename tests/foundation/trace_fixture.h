// A fixture that sends the trace to a fresh file for each test and puts the
// process-wide trace settings back afterwards.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qvaclient/qvaclient.h"
#include "qvatest/trace.h"

namespace qvatest {

using Lines = std::vector<std::string>;

// The thread id as the trace shows it: its low 32 bits.
inline uint32_t selfTid() { return static_cast<uint32_t>(pthread_self()); }

class TraceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch().path().empty()) << "no scratch directory";
    ASSERT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
    static int counter = 0;
    path_ = scratch().file("trace-" + std::to_string(++counter) + ".trc");
    // At level 0 the switch writes nothing, so each file starts empty.
    ASSERT_EQ(QVA_setAPITraceFile(path_.c_str()), QVA_OK);
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
    Lines lines = all();
    return mark_ >= lines.size() ? Lines{} : Lines(lines.begin() + static_cast<std::ptrdiff_t>(mark_), lines.end());
  }

 private:
  std::string path_;
  size_t mark_ = 0;
};

}  // namespace qvatest
