// Channel program calls through the library beside the floor client of
// floor_client.h (the same request bytes in one send, the reply received
// whole into one buffer), both against the in-process Gateway emulator in
// the same run: CHECHO with 1, 10 and 100 containers of 1 KiB, CHBIG
// returning a 64 MiB PAYLOAD, and CHECHO with one 64 MiB container. Before
// anything is timed, both clients' requests are checked byte for byte
// against the wire layout on a recording emulator, and their replies against
// what the programs return.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_util.h"
#include "channel_workload.h"
#include "floor_client.h"
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "syscall_counter.h"

namespace {

using bench::ChannelWorkload;
using Clock = std::chrono::steady_clock;

// Defaults for a full run on two cores in about two minutes; a flag on the
// command line wins.
const char *const kDefaultFlags[] = {"--benchmark_repetitions=10", "--benchmark_min_time=0.2",
                                     "--benchmark_enable_random_interleaving=true"};

// Calls whose allocations or system calls are counted.
constexpr int kSmallCountedCalls = 1000;
constexpr int kLargeCountedCalls = 5;

double microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// ---- The benchmarked connections ---------------------------------------------

struct Connections {
  std::unique_ptr<qvaemu::Gateway> gateway;
  QvaGatewayToken *gw = nullptr;
  bench::FloorClient floor;
};

Connections *connections = nullptr;

bool openConnections(size_t largestReply) {
  auto c = std::make_unique<Connections>();
  qvaemu::Options options;
  options.recordReceived = false;
  c->gateway = std::make_unique<qvaemu::Gateway>(options);
  std::string error;
  if (!c->gateway->start(&error)) {
    std::fprintf(stderr, "bench_channel: emulator: %s\n", error.c_str());
    return false;
  }
  const int rc = QVA_openRemoteGatewayConnection("127.0.0.1", c->gateway->port(), &c->gw, 10);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "bench_channel: library connection: rc=%d\n", rc);
    return false;
  }
  if (!c->floor.open(c->gateway->port(), &error)) {
    std::fprintf(stderr, "bench_channel: floor connection: %s\n", error.c_str());
    return false;
  }
  // The floor client receives every reply into one buffer, ready before the
  // first timed call.
  c->floor.reserve(largestReply);
  connections = c.release();
  return true;
}

void closeConnections() {
  if (connections == nullptr) return;
  QVA_closeGatewayConnection(&connections->gw);
  connections->floor.close();
  connections->gateway->stop();
  delete connections;
  connections = nullptr;
}

bool libraryCall(benchmark::State &state, ChannelWorkload &w) {
  const int rc = w.callLibrary(connections->gw);
  if (rc != ECI_NO_ERROR) {
    state.SkipWithError(("QVA_ECI_Execute_Channel rc=" + std::to_string(rc)).c_str());
    return false;
  }
  return true;
}

bool resetChannel(benchmark::State &state, ChannelWorkload &w) {
  if (w.reset()) return true;
  state.SkipWithError("the channel could not be put back between calls");
  return false;
}

bool floorCall(benchmark::State &state, ChannelWorkload &w) {
  const int64_t size = connections->floor.call(w.request());
  if (size != static_cast<int64_t>(w.replySize())) {
    state.SkipWithError(("floor call returned " + std::to_string(size)).c_str());
    return false;
  }
  return true;
}

void setBytes(benchmark::State &state, const ChannelWorkload &w) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * w.bytesPerCall()));
}

// ---- Benchmarks ----------------------------------------------------------------

// CHBIG's channel is put back (PAYLOAD deleted) outside the timed part; what
// that takes is the counter reset_us.
void BM_Library(benchmark::State &state, ChannelWorkload *w) {
  std::vector<double> resets;
  for (auto _ : state) {
    if (!libraryCall(state, *w)) break;
    if (w->needsReset()) {
      state.PauseTiming();
      const auto start = Clock::now();
      const bool ok = resetChannel(state, *w);
      resets.push_back(microsecondsSince(start));
      state.ResumeTiming();
      if (!ok) break;
    }
  }
  setBytes(state, *w);
  if (!resets.empty()) state.counters["reset_us"] = bench::median(resets);
}

void BM_Floor(benchmark::State &state, ChannelWorkload *w) {
  for (auto _ : state) {
    if (!floorCall(state, *w)) break;
  }
  setBytes(state, *w);
}

// The floor client receiving into a block allocated for the call, as the
// library must allocate a container's data: what fresh memory costs on this
// machine, apart from the library's own work. Freed outside the timed part.
void BM_FloorFresh(benchmark::State &state, ChannelWorkload *w) {
  for (auto _ : state) {
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[w->replySize()]);  // not touched until recv fills it
    const int64_t size = connections->floor.callInto(w->request(), buffer.get(), w->replySize());
    state.PauseTiming();
    buffer.reset();
    state.ResumeTiming();
    if (size != static_cast<int64_t>(w->replySize())) {
      state.SkipWithError(("floor call returned " + std::to_string(size)).c_str());
      break;
    }
  }
  setBytes(state, *w);
}

// Both clients in turns, each call timed on its own: slow drifts of the
// machine hit both alike, so their ratio is steadier than that of two
// separate runs. The order alternates so that neither always goes first.
void BM_Paired(benchmark::State &state, ChannelWorkload *w) {
  std::vector<double> lib, floor;
  bool libraryFirst = true;
  for (auto _ : state) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool library = (turn == 0) == libraryFirst;
      const auto start = Clock::now();
      if (!(library ? libraryCall(state, *w) : floorCall(state, *w))) return;
      (library ? lib : floor).push_back(microsecondsSince(start));
      if (library && w->needsReset() && !resetChannel(state, *w)) return;
    }
    libraryFirst = !libraryFirst;
  }
  const double libMedian = bench::median(lib);
  const double floorMedian = bench::median(floor);
  state.counters["lib_us"] = libMedian;
  state.counters["floor_us"] = floorMedian;
  state.counters["ratio"] = floorMedian > 0 ? libMedian / floorMedian : 0;
}

// The heap allocations of the calling thread inside QVA_ECI_Execute_Channel;
// the emulator's threads, and the reset between calls, are not counted.
void BM_Allocations(benchmark::State &state, ChannelWorkload *w) {
  if (!allocCounterAvailable()) {
    state.SkipWithError("allocation counting needs malloc interposed (not in sanitizer builds)");
    return;
  }
  if (w->callLibrary(connections->gw) != ECI_NO_ERROR || !w->reset()) {  // one-time set-up is not counted
    state.SkipWithError("warm-up call failed");
    return;
  }
  uint64_t allocations = 0;
  for (auto _ : state) {
    allocCounterStart();
    const int rc = w->callLibrary(connections->gw);
    allocations += allocCounterStop();
    if (rc != ECI_NO_ERROR) {
      state.SkipWithError(("QVA_ECI_Execute_Channel rc=" + std::to_string(rc)).c_str());
      return;
    }
    if (!resetChannel(state, *w)) return;
  }
  const double perCall = static_cast<double>(allocations) / static_cast<double>(state.iterations());
  state.counters["allocs_per_call"] = perCall;
  if (allocations != w->expectedAllocations() * static_cast<uint64_t>(state.iterations())) {
    char message[128];
    std::snprintf(message, sizeof message, "%.3f heap allocations per call, expected %" PRIu64, perCall,
                  w->expectedAllocations());
    state.SkipWithError(message);
  }
}

// The calling thread's system calls inside QVA_ECI_Execute_Channel, after a
// warm-up call; the reset between calls is not counted. Counters
// syscalls_per_call, send, recv, wait and other; the label lists them by
// function.
void BM_LibrarySyscalls(benchmark::State &state, ChannelWorkload *w) {
  if (!syscallCounterAvailable()) {
    state.SkipWithError("system-call counting needs the wrappers interposed (not in sanitizer builds)");
    return;
  }
  if (w->callLibrary(connections->gw) != ECI_NO_ERROR || !w->reset()) {
    state.SkipWithError("warm-up call failed");
    return;
  }
  bench::SyscallTally tally;
  for (auto _ : state) {
    syscallCounterStart();
    const int rc = w->callLibrary(connections->gw);
    syscallCounterStop();
    tally.add();
    if (rc != ECI_NO_ERROR) {
      state.SkipWithError(("QVA_ECI_Execute_Channel rc=" + std::to_string(rc)).c_str());
      return;
    }
    if (!resetChannel(state, *w)) return;
  }
  tally.report(state);
}

// The same for the floor client's call.
void BM_FloorSyscalls(benchmark::State &state, ChannelWorkload *w) {
  if (!syscallCounterAvailable()) {
    state.SkipWithError("system-call counting needs the wrappers interposed (not in sanitizer builds)");
    return;
  }
  bench::SyscallTally tally;
  for (auto _ : state) {
    syscallCounterStart();
    const int64_t size = connections->floor.call(w->request());
    syscallCounterStop();
    tally.add();
    if (size != static_cast<int64_t>(w->replySize())) {
      state.SkipWithError(("floor call returned " + std::to_string(size)).c_str());
      return;
    }
  }
  tally.report(state);
}

void registerBenchmarks(bench::Workloads &workloads) {
  for (auto &owned : workloads) {
    ChannelWorkload *w = owned.get();
    const benchmark::TimeUnit unit = w->large() ? benchmark::kMillisecond : benchmark::kMicrosecond;
    const auto timed = [&](const char *kind, void (*function)(benchmark::State &, ChannelWorkload *)) {
      benchmark::RegisterBenchmark((kind + ("/" + w->key())).c_str(), function, w)
          ->UseRealTime()
          ->Unit(unit)
          ->ReportAggregatesOnly(true);
    };
    const auto counted = [&](const char *kind, void (*function)(benchmark::State &, ChannelWorkload *)) {
      benchmark::RegisterBenchmark((kind + ("/" + w->key())).c_str(), function, w)
          ->Iterations(w->large() ? kLargeCountedCalls : kSmallCountedCalls)
          ->Repetitions(1)
          ->UseRealTime()
          ->Unit(unit);
    };
    timed("Library", BM_Library);
    timed("Floor", BM_Floor);
    if (w->large()) timed("FloorFresh", BM_FloorFresh);
    timed("Paired", BM_Paired);
    counted("Allocations", BM_Allocations);
    counted("Syscalls", BM_LibrarySyscalls);
    counted("FloorSyscalls", BM_FloorSyscalls);
  }
}

// ---- Reporting -----------------------------------------------------------------

// The console report, followed by a table of each workload's medians for
// the library and the floor client, their ratios, the rates they move, and
// the system calls and allocations per call.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter(OutputOptions options, const bench::Workloads &workloads) : ConsoleReporter(options) {
    for (const auto &w : workloads) rows_.push_back({w->key(), w->bytesPerCall(), w->large()});
  }

  void ReportRuns(const std::vector<Run> &reports) override {
    ConsoleReporter::ReportRuns(reports);
    for (const Run &run : reports) {
      if (run.error_occurred) continue;
      const std::string &name = run.run_name.function_name;
      const size_t slash = name.find('/');
      if (slash == std::string::npos) continue;
      const std::string kind = name.substr(0, slash);
      const std::string key = name.substr(slash + 1);
      const auto counter = [&](const char *which, std::map<std::string, double> &into) {
        if (run.counters.count(which) != 0) into[key] = run.counters.at(which);
      };
      if (run.run_type == Run::RT_Iteration) {  // the counted benchmarks run once
        if (kind == "Syscalls") counter("syscalls_per_call", librarySyscalls_);
        if (kind == "FloorSyscalls") counter("syscalls_per_call", floorSyscalls_);
        if (kind == "Allocations") counter("allocs_per_call", allocations_);
        continue;
      }
      if (run.aggregate_name != "median") continue;
      const double seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (kind == "Library") library_[key] = seconds;
      if (kind == "Floor") floor_[key] = seconds;
      if (kind == "FloorFresh") floorFresh_[key] = seconds;
      if (kind == "Paired") counter("ratio", paired_);
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    if (library_.empty() && floor_.empty() && paired_.empty() && librarySyscalls_.empty()) return;
    std::printf(
        "\nMedian time per call, library and floor client; MB/s = 10^6 bytes per second, both directions;"
        " system calls and allocations per call\n");
    std::printf("%-18s %11s %12s %12s %9s %8s %9s %9s %9s %9s %7s\n", "workload", "bytes/call", "library", "floor",
                "lib/floor", "paired", "lib MB/s", "flr MB/s", "lib sys", "flr sys", "allocs");
    for (const Row &row : rows_) {
      const bool both = library_.count(row.key) != 0 && floor_.count(row.key) != 0;
      const bool any = both || paired_.count(row.key) != 0 || librarySyscalls_.count(row.key) != 0 ||
                       floorSyscalls_.count(row.key) != 0 || allocations_.count(row.key) != 0;
      if (!any) continue;
      std::printf("%-18s %11" PRIu64, row.key.c_str(), row.bytes);
      if (both) {
        const double lib = library_[row.key];
        const double floor = floor_[row.key];
        std::printf(" %12s %12s %9.3f", time(lib, row.large).c_str(), time(floor, row.large).c_str(), lib / floor);
      } else {
        std::printf(" %12s %12s %9s", "-", "-", "-");
      }
      std::printf(" %8s", value(paired_, row.key, 4).c_str());
      if (both) {
        const auto bytes = static_cast<double>(row.bytes);
        std::printf(" %9.1f %9.1f", bytes / library_[row.key] / 1e6, bytes / floor_[row.key] / 1e6);
      } else {
        std::printf(" %9s %9s", "-", "-");
      }
      std::printf(" %9s %9s %7s\n", value(librarySyscalls_, row.key, 6).c_str(),
                  value(floorSyscalls_, row.key, 6).c_str(), value(allocations_, row.key, 6).c_str());
    }
    printFresh();
    std::fflush(stdout);
  }

 private:
  // The large workloads beside the floor client that receives into fresh memory.
  void printFresh() {
    bool header = false;
    for (const Row &row : rows_) {
      if (floorFresh_.count(row.key) == 0 || library_.count(row.key) == 0) continue;
      if (!header) {
        std::printf("\nThe floor client receiving into a block allocated for each call\n");
        std::printf("%-18s %12s %12s %7s %9s\n", "workload", "library", "floor fresh", "ratio", "MB/s");
        header = true;
      }
      const double lib = library_[row.key];
      const double fresh = floorFresh_[row.key];
      std::printf("%-18s %12s %12s %7.3f %9.1f\n", row.key.c_str(), time(lib, row.large).c_str(),
                  time(fresh, row.large).c_str(), lib / fresh, static_cast<double>(row.bytes) / fresh / 1e6);
    }
  }

  struct Row {
    std::string key;
    uint64_t bytes;
    bool large;
  };

  static std::string time(double seconds, bool large) {
    char text[32];
    if (large) {
      std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    } else {
      std::snprintf(text, sizeof text, "%.2f us", seconds * 1e6);
    }
    return text;
  }

  // The value for `key` to `digits` significant digits, or "-".
  static std::string value(const std::map<std::string, double> &values, const std::string &key, int digits) {
    const auto found = values.find(key);
    if (found == values.end()) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.*g", digits, found->second);
    return text;
  }

  std::vector<Row> rows_;
  std::map<std::string, double> library_, floor_, floorFresh_, paired_;
  std::map<std::string, double> librarySyscalls_, floorSyscalls_, allocations_;
};

}  // namespace

int main(int argc, char **argv) {
  // --bench_cpu=N pins to CPU N, --bench_cpu=-1 does not pin; the default is
  // the last CPU the process may use (under taskset -c 0: CPU 0).
  // --bench_keep_heap=0 leaves glibc's trim as it is (see keepFreedHeap).
  bench::CommandLine line = bench::parseCommandLine(argc, argv, kDefaultFlags);
  int count = static_cast<int>(line.args.size()) - 1;
  benchmark::Initialize(&count, line.args.data());
  if (benchmark::ReportUnrecognizedArguments(count, line.args.data())) return 1;

  const int cpu = bench::pinToCpu(line.cpu, "bench_channel");
  benchmark::AddCustomContext("bench_cpu", cpu >= 0 ? "pinned to CPU " + std::to_string(cpu) : "not pinned");
  benchmark::AddCustomContext("bench_keep_heap", bench::keepFreedHeap(line.keepHeap));

  // Whatever the environment asks for, the trace is off while timing. The
  // CHECHO channels take their CCSID from LANG: without it, the default.
  QVA_setAPITraceLevel(0);
  unsetenv("LANG");
  bench::Workloads workloads = bench::makeWorkloads();
  if (!bench::checkAllocCounter("bench_channel") || !bench::checkSyscallCounter("bench_channel") || workloads.empty() ||
      !bench::checkWire(workloads)) {
    std::fprintf(stderr, "bench_channel: FAILED: the start-up checks did not pass; nothing was timed\n");
    return 1;
  }
  size_t largestReply = 0;
  for (const auto &w : workloads) largestReply = std::max(largestReply, w->replySize());
  if (!openConnections(largestReply)) {
    closeConnections();
    return 1;
  }
  registerBenchmarks(workloads);
  if (line.console) {
    RatioReporter reporter(line.consoleOptions, workloads);
    benchmark::RunSpecifiedBenchmarks(&reporter);
  } else {
    benchmark::RunSpecifiedBenchmarks();
  }
  closeConnections();
  workloads.clear();  // their channels are deleted while the library is still set up
  benchmark::Shutdown();
  return 0;
}
