// bench_eci's console report, followed by a summary of each COMMAREA size:
// the medians of the library, the floor client and the raw client, the
// library's ratio to each (separate runs and paired), and the system calls
// and allocations per call.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

class EciReporter : public benchmark::ConsoleReporter {
 public:
  explicit EciReporter(OutputOptions options) : ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run> &reports) override;
  void Finalize() override;

 private:
  // By benchmark name (BM_Library, BM_Floor, ...), then COMMAREA size: the
  // median time in microseconds, or the counter the summary shows.
  std::map<std::string, std::map<int, double>> values_;
  // By client, then size: the system calls per call, by function.
  std::map<std::string, std::map<int, std::string>> syscalls_;
};

}  // namespace bench
