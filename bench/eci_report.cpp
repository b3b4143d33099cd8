#include "eci_report.h"

#include <cstdio>
#include <cstdlib>

#include "eci_workload.h"

namespace bench {

namespace {

// The counter each counted benchmark contributes to the summary.
const std::map<std::string, std::string> kCounters = {{"BM_PairedFloor", "ratio"},
                                                      {"BM_Paired", "ratio"},
                                                      {"BM_LibrarySyscalls", "syscalls_per_call"},
                                                      {"BM_FloorSyscalls", "syscalls_per_call"},
                                                      {"BM_RawSyscalls", "syscalls_per_call"},
                                                      {"BM_LibraryAllocations", "allocs_per_call"}};

// The system-call benchmark of each client.
const std::map<std::string, std::string> kSyscallClients = {
    {"BM_LibrarySyscalls", "library"}, {"BM_FloorSyscalls", "floor"}, {"BM_RawSyscalls", "raw"}};

}  // namespace

void EciReporter::ReportRuns(const std::vector<Run> &reports) {
  ConsoleReporter::ReportRuns(reports);
  for (const Run &run : reports) {
    if (run.error_occurred) continue;
    const int size = std::atoi(run.run_name.args.c_str());
    const std::string &name = run.run_name.function_name;
    const auto counter = kCounters.find(name);
    const bool counted = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
    const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    if (counter != kCounters.end() && (counted || median) && run.counters.count(counter->second) != 0)
      values_[name][size] = run.counters.at(counter->second);
    if (median && counter == kCounters.end()) values_[name][size] = run.GetAdjustedRealTime();
    const auto client = kSyscallClients.find(name);
    if (client != kSyscallClients.end() && counted) syscalls_[client->second][size] = run.report_label;
  }
}

void EciReporter::Finalize() {
  ConsoleReporter::Finalize();
  if (values_.empty()) return;
  // A value with `decimals` decimals, or to four significant digits for -1.
  const auto cell = [this](const char *name, int size, int decimals) {
    char text[32] = "-";
    const auto row = values_.find(name);
    if (row != values_.end() && row->second.count(size) != 0) {
      const double value = row->second.at(size);
      if (decimals < 0) {
        std::snprintf(text, sizeof text, "%.4g", value);
      } else {
        std::snprintf(text, sizeof text, "%.*f", decimals, value);
      }
    }
    return std::string(text);
  };
  const auto ratio = [this](const char *over, const char *under, int size) {
    char text[32] = "-";
    const auto a = values_.find(over);
    const auto b = values_.find(under);
    if (a != values_.end() && b != values_.end() && a->second.count(size) != 0 && b->second.count(size) != 0 &&
        b->second.at(size) > 0) {
      std::snprintf(text, sizeof text, "%.3f", a->second.at(size) / b->second.at(size));
    }
    return std::string(text);
  };

  std::printf(
      "\nMedian round trip in microseconds; the library over the floor and the raw client, from the\n"
      "separate medians and paired; system calls and allocations per call\n");
  std::printf("%8s %9s %9s %9s %8s %9s %8s %8s %8s %8s %8s %7s\n", "COMMAREA", "library", "floor", "lib/flr", "paired",
              "raw", "lib/raw", "paired", "lib sys", "flr sys", "raw sys", "allocs");
  for (int size : kCommareaSizes) {
    bool any = false;
    for (const auto &[name, bySize] : values_) any = any || bySize.count(size) != 0;
    if (!any) continue;
    std::printf("%8d %9s %9s %9s %8s %9s %8s %8s %8s %8s %8s %7s\n", size, cell("BM_Library", size, 2).c_str(),
                cell("BM_Floor", size, 2).c_str(), ratio("BM_Library", "BM_Floor", size).c_str(),
                cell("BM_PairedFloor", size, 3).c_str(), cell("BM_Raw", size, 2).c_str(),
                ratio("BM_Library", "BM_Raw", size).c_str(), cell("BM_Paired", size, 3).c_str(),
                cell("BM_LibrarySyscalls", size, -1).c_str(), cell("BM_FloorSyscalls", size, -1).c_str(),
                cell("BM_RawSyscalls", size, -1).c_str(), cell("BM_LibraryAllocations", size, -1).c_str());
  }
  if (!syscalls_.empty()) {
    std::printf("\nSystem calls per call, by function\n");
    for (const auto &[client, bySize] : syscalls_)
      for (const auto &[size, calls] : bySize) std::printf("%-8s %6d  %s\n", client.c_str(), size, calls.c_str());
  }
  std::fflush(stdout);
}

}  // namespace bench
