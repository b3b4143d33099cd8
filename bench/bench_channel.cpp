// Channel program calls through the library beside the raw client of
// raw_channel_client.h, both against the in-process Gateway emulator in the
// same run: CHECHO with 1, 10 and 100 containers of 1 KiB, CHBIG returning
// a 64 MiB PAYLOAD, and CHECHO with one 64 MiB container. Before anything is
// timed, both clients' requests are checked byte for byte against the wire
// layout on a recording emulator, and their replies against what the
// programs return.

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
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "raw_channel_client.h"

namespace {

using bench::ChannelWorkload;
using Clock = std::chrono::steady_clock;

// Defaults for a full run on two cores in about two minutes; a flag on the
// command line wins.
const char *const kDefaultFlags[] = {"--benchmark_repetitions=10", "--benchmark_min_time=0.2",
                                     "--benchmark_enable_random_interleaving=true"};

constexpr int kSmallAllocationCalls = 1000;
constexpr int kLargeAllocationCalls = 5;

double microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// ---- The benchmarked connections ---------------------------------------------

struct Connections {
  std::unique_ptr<qvaemu::Gateway> gateway;
  QvaGatewayToken *gw = nullptr;
  bench::RawChannelClient raw;
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
  if (!c->raw.open(c->gateway->port(), &error)) {
    std::fprintf(stderr, "bench_channel: raw connection: %s\n", error.c_str());
    return false;
  }
  // The raw client receives every reply into one buffer, ready before the
  // first timed call.
  c->raw.reserve(largestReply);
  connections = c.release();
  return true;
}

void closeConnections() {
  if (connections == nullptr) return;
  QVA_closeGatewayConnection(&connections->gw);
  connections->raw.close();
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

bool rawCall(benchmark::State &state, ChannelWorkload &w) {
  const int64_t size = connections->raw.call(w.request());
  if (size != static_cast<int64_t>(w.replySize())) {
    state.SkipWithError(("raw call returned " + std::to_string(size)).c_str());
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

void BM_Raw(benchmark::State &state, ChannelWorkload *w) {
  for (auto _ : state) {
    if (!rawCall(state, *w)) break;
  }
  setBytes(state, *w);
}

// The raw client receiving into a block allocated for the call, as the
// library must allocate a container's data: what fresh memory costs on this
// machine, apart from the library's own work. Freed outside the timed part.
void BM_RawFresh(benchmark::State &state, ChannelWorkload *w) {
  for (auto _ : state) {
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[w->replySize()]);  // not touched until recv fills it
    const int64_t size = connections->raw.callInto(w->request(), buffer.get(), w->replySize());
    state.PauseTiming();
    buffer.reset();
    state.ResumeTiming();
    if (size != static_cast<int64_t>(w->replySize())) {
      state.SkipWithError(("raw call returned " + std::to_string(size)).c_str());
      break;
    }
  }
  setBytes(state, *w);
}

// Both clients in turns, each call timed on its own: slow drifts of the
// machine hit both alike, so their ratio is steadier than that of two
// separate runs. The order alternates so that neither always goes first.
void BM_Paired(benchmark::State &state, ChannelWorkload *w) {
  std::vector<double> lib, raw;
  bool libraryFirst = true;
  for (auto _ : state) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool library = (turn == 0) == libraryFirst;
      const auto start = Clock::now();
      if (!(library ? libraryCall(state, *w) : rawCall(state, *w))) return;
      (library ? lib : raw).push_back(microsecondsSince(start));
      if (library && w->needsReset() && !resetChannel(state, *w)) return;
    }
    libraryFirst = !libraryFirst;
  }
  const double libMedian = bench::median(lib);
  const double rawMedian = bench::median(raw);
  state.counters["lib_us"] = libMedian;
  state.counters["raw_us"] = rawMedian;
  state.counters["ratio"] = rawMedian > 0 ? libMedian / rawMedian : 0;
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

void registerBenchmarks(bench::Workloads &workloads) {
  for (auto &owned : workloads) {
    ChannelWorkload *w = owned.get();
    const benchmark::TimeUnit unit = w->large() ? benchmark::kMillisecond : benchmark::kMicrosecond;
    benchmark::RegisterBenchmark(("Library/" + w->key()).c_str(), BM_Library, w)
        ->UseRealTime()
        ->Unit(unit)
        ->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark(("Raw/" + w->key()).c_str(), BM_Raw, w)
        ->UseRealTime()
        ->Unit(unit)
        ->ReportAggregatesOnly(true);
    if (w->large()) {
      benchmark::RegisterBenchmark(("RawFresh/" + w->key()).c_str(), BM_RawFresh, w)
          ->UseRealTime()
          ->Unit(unit)
          ->ReportAggregatesOnly(true);
    }
    benchmark::RegisterBenchmark(("Paired/" + w->key()).c_str(), BM_Paired, w)
        ->UseRealTime()
        ->Unit(unit)
        ->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark(("Allocations/" + w->key()).c_str(), BM_Allocations, w)
        ->Iterations(w->large() ? kLargeAllocationCalls : kSmallAllocationCalls)
        ->Repetitions(1)
        ->UseRealTime()
        ->Unit(unit);
  }
}

// ---- Reporting -----------------------------------------------------------------

// The console report, followed by a table of each workload's medians for
// the library and the raw client, their ratios and the rates they move.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter(OutputOptions options, const bench::Workloads &workloads) : ConsoleReporter(options) {
    for (const auto &w : workloads) rows_.push_back({w->key(), w->bytesPerCall(), w->large()});
  }

  void ReportRuns(const std::vector<Run> &reports) override {
    ConsoleReporter::ReportRuns(reports);
    for (const Run &run : reports) {
      if (run.error_occurred || run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      const std::string &name = run.run_name.function_name;
      const size_t slash = name.find('/');
      if (slash == std::string::npos) continue;
      const std::string kind = name.substr(0, slash);
      const std::string key = name.substr(slash + 1);
      const double seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (kind == "Library") library_[key] = seconds;
      if (kind == "Raw") raw_[key] = seconds;
      if (kind == "RawFresh") rawFresh_[key] = seconds;
      if (kind == "Paired" && run.counters.count("ratio") != 0) paired_[key] = run.counters.at("ratio");
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    if (library_.empty() && raw_.empty() && paired_.empty()) return;
    std::printf("\nMedian time per call, library and raw client; MB/s = 10^6 bytes per second, both directions\n");
    std::printf("%-18s %11s %12s %12s %7s %8s %9s %9s %9s\n", "workload", "bytes/call", "library", "raw", "ratio",
                "paired", "lib MB/s", "raw MB/s", "lib/raw");
    for (const Row &row : rows_) {
      const bool both = library_.count(row.key) != 0 && raw_.count(row.key) != 0;
      if (!both && paired_.count(row.key) == 0) continue;
      std::printf("%-18s %11" PRIu64, row.key.c_str(), row.bytes);
      if (both) {
        const double lib = library_[row.key];
        const double raw = raw_[row.key];
        std::printf(" %12s %12s %7.3f", time(lib, row.large).c_str(), time(raw, row.large).c_str(), lib / raw);
      } else {
        std::printf(" %12s %12s %7s", "-", "-", "-");
      }
      if (paired_.count(row.key) != 0) {
        std::printf(" %8.3f", paired_[row.key]);
      } else {
        std::printf(" %8s", "-");
      }
      if (both) {
        const double lib = library_[row.key];
        const double raw = raw_[row.key];
        const auto bytes = static_cast<double>(row.bytes);
        std::printf(" %9.1f %9.1f %9.3f\n", bytes / lib / 1e6, bytes / raw / 1e6, raw / lib);
      } else {
        std::printf(" %9s %9s %9s\n", "-", "-", "-");
      }
    }
    printFresh();
    std::fflush(stdout);
  }

 private:
  // The large workloads beside the raw client that receives into fresh memory.
  void printFresh() {
    bool header = false;
    for (const Row &row : rows_) {
      if (rawFresh_.count(row.key) == 0 || library_.count(row.key) == 0) continue;
      if (!header) {
        std::printf("\nThe raw client receiving into a block allocated for each call\n");
        std::printf("%-18s %12s %12s %7s %9s\n", "workload", "library", "raw fresh", "ratio", "MB/s");
        header = true;
      }
      const double lib = library_[row.key];
      const double fresh = rawFresh_[row.key];
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

  std::vector<Row> rows_;
  std::map<std::string, double> library_, raw_, rawFresh_, paired_;
};

}  // namespace

int main(int argc, char **argv) {
  // --bench_cpu=N pins to CPU N, --bench_cpu=-1 does not pin; the default is
  // the last CPU the process may use (under taskset -c 0: CPU 0).
  bench::CommandLine line = bench::parseCommandLine(argc, argv, kDefaultFlags);
  int count = static_cast<int>(line.args.size()) - 1;
  benchmark::Initialize(&count, line.args.data());
  if (benchmark::ReportUnrecognizedArguments(count, line.args.data())) return 1;

  const int cpu = bench::pinToCpu(line.cpu, "bench_channel");
  benchmark::AddCustomContext("bench_cpu", cpu >= 0 ? "pinned to CPU " + std::to_string(cpu) : "not pinned");

  // Whatever the environment asks for, the trace is off while timing. The
  // CHECHO channels take their CCSID from LANG: without it, the default.
  QVA_setAPITraceLevel(0);
  unsetenv("LANG");
  bench::Workloads workloads = bench::makeWorkloads();
  if (!bench::checkAllocCounter("bench_channel") || workloads.empty() || !bench::checkWire(workloads)) {
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
