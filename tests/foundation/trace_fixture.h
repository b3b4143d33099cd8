// A GoogleTest fixture that sends the trace to a fresh file for each test and
// puts the process-wide trace settings back afterwards.
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

  // Every line of the file, normalised.
  std::vector<std::string> all() const { return normalise(readLines(path_)); }
  std::vector<std::string> all(const std::string &file) const { return normalise(readLines(file)); }

  // Lines written since mark() was last called.
  void mark() { mark_ = readLines(path_).size(); }
  std::vector<std::string> sinceMark() const {
    std::vector<std::string> lines = all();
    if (mark_ >= lines.size()) return {};
    return std::vector<std::string>(lines.begin() + static_cast<std::ptrdiff_t>(mark_), lines.end());
  }

 private:
  std::string path_;
  size_t mark_ = 0;
};

}  // namespace qvatest
