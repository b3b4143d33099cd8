// One ECI program call round trip through the library, against the
// in-process Gateway emulator, beside a raw-socket client that sends the
// same bytes on its own connection: the difference is what the library
// costs. Before anything is timed, both clients' requests are checked byte
// for byte against the wire layout on a recording emulator.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_util.h"
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "raw_eci_client.h"

namespace {

using bench::Bytes;
using namespace std::chrono_literals;

constexpr int kSizes[] = {100, 4096, 32767};

// Heap allocations one successful QVA_ECI_Execute makes with the trace off:
// the socket buffer (one for the whole flow, reused by the reply) and the
// masked copy of the parameter block that serves the input and the output
// dump, allocated whatever the trace level.
constexpr uint64_t kExpectedAllocsPerCall = 2;

constexpr int kAllocationCalls = 1000;

// Defaults for a full run on two cores in well under two minutes; a flag on
// the command line wins.
const char *const kDefaultFlags[] = {"--benchmark_repetitions=10", "--benchmark_min_time=0.2",
                                     "--benchmark_enable_random_interleaving=true"};

Bytes payload(int size) {
  Bytes data(static_cast<size_t>(size));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>('A' + i % 26);
  return data;
}

// What one size needs on each side: the library's parameter block and
// COMMAREA, the raw client's request template and COMMAREA.
struct Workload {
  explicit Workload(int size) : data(payload(size)), libCommarea(data), rawCommarea(data) {
    qvaraw::Call call = bench::programCall("ECHO");
    bench::setParms(parms, call);
    parms.eci_commarea = libCommarea.data();
    parms.eci_commarea_length = static_cast<short>(size);
    call.commarea = data;
    request = qvaraw::request(call);
  }

  Bytes data;
  Bytes libCommarea;
  Bytes rawCommarea;
  ECI_PARMS parms;
  Bytes request;
};

// ---- Checking the wire before timing it --------------------------------------

// Runs every size once through each client against a recording emulator:
// both must send exactly the bytes the wire layout gives, and both must get
// the COMMAREA echoed back.
bool checkWire() {
  qvaemu::Options options;
  options.recordReceived = true;
  qvaemu::Gateway gateway(options);
  std::string error;
  if (!gateway.start(&error)) {
    std::fprintf(stderr, "bench_eci: recording emulator: %s\n", error.c_str());
    return false;
  }

  Bytes want = qvaraw::handshakeRequest();
  for (int size : kSizes) {
    Workload w(size);
    want.insert(want.end(), w.request.begin(), w.request.end());
  }

  bool ok = true;
  QvaGatewayToken *gw = nullptr;
  int rc = QVA_openRemoteGatewayConnection("127.0.0.1", gateway.port(), &gw, 10);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "bench_eci: library connection to the recording emulator: rc=%d\n", rc);
    return false;
  }
  for (int size : kSizes) {
    Workload w(size);
    rc = QVA_ECI_Execute(gw, &w.parms);
    if (rc != QVA_OK || w.libCommarea != w.data) {
      std::fprintf(stderr, "bench_eci: library call of %d bytes: rc=%d, COMMAREA %s\n", size, rc,
                   w.libCommarea == w.data ? "echoed" : "not echoed");
      ok = false;
    }
  }
  ok = bench::checkReceived("bench_eci", gateway, 0, "the library", want, 10s) && ok;
  QVA_closeGatewayConnection(&gw);

  bench::RawClient raw;
  if (!raw.open(gateway.port(), &error)) {
    std::fprintf(stderr, "bench_eci: raw connection to the recording emulator: %s\n", error.c_str());
    return false;
  }
  for (int size : kSizes) {
    Workload w(size);
    const int32_t replyRc = raw.call(w.request, w.rawCommarea.data(), w.rawCommarea.size());
    if (replyRc != 0 || w.rawCommarea != w.data) {
      std::fprintf(stderr, "bench_eci: raw call of %d bytes: rc=%d, COMMAREA %s\n", size, replyRc,
                   w.rawCommarea == w.data ? "echoed" : "not echoed");
      ok = false;
    }
  }
  ok = bench::checkReceived("bench_eci", gateway, 1, "the raw client", want, 10s) && ok;
  return ok;
}

// ---- The benchmarked connections ---------------------------------------------

struct Connections {
  std::unique_ptr<qvaemu::Gateway> gateway;
  QvaGatewayToken *gw = nullptr;  // opened by the thread that runs the benchmarks
  bench::RawClient raw;
  std::map<int, std::unique_ptr<Workload>> workloads;

  Workload &workload(int size) {
    auto &w = workloads[size];
    if (!w) w = std::make_unique<Workload>(size);
    return *w;
  }
};

Connections *connections = nullptr;

bool openConnections() {
  auto c = std::make_unique<Connections>();
  qvaemu::Options options;
  options.recordReceived = false;
  c->gateway = std::make_unique<qvaemu::Gateway>(options);
  std::string error;
  if (!c->gateway->start(&error)) {
    std::fprintf(stderr, "bench_eci: emulator: %s\n", error.c_str());
    return false;
  }
  const int rc = QVA_openRemoteGatewayConnection("127.0.0.1", c->gateway->port(), &c->gw, 10);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "bench_eci: library connection: rc=%d\n", rc);
    return false;
  }
  if (!c->raw.open(c->gateway->port(), &error)) {
    std::fprintf(stderr, "bench_eci: raw connection: %s\n", error.c_str());
    return false;
  }
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

bool libraryCall(benchmark::State &state, Workload &w) {
  const int rc = QVA_ECI_Execute(connections->gw, &w.parms);
  if (rc != QVA_OK) {
    state.SkipWithError(("QVA_ECI_Execute rc=" + std::to_string(rc)).c_str());
    return false;
  }
  return true;
}

bool rawCall(benchmark::State &state, Workload &w) {
  const int32_t rc = connections->raw.call(w.request, w.rawCommarea.data(), w.rawCommarea.size());
  if (rc != 0) {
    state.SkipWithError(("raw call rc=" + std::to_string(rc)).c_str());
    return false;
  }
  return true;
}

void setBytes(benchmark::State &state, int size) {
  // Both directions carry the COMMAREA.
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * size);
}

// ---- Benchmarks ----------------------------------------------------------------

void BM_Library(benchmark::State &state) {
  const int size = static_cast<int>(state.range(0));
  Workload &w = connections->workload(size);
  for (auto _ : state) {
    if (!libraryCall(state, w)) break;
  }
  setBytes(state, size);
}

void BM_Raw(benchmark::State &state) {
  const int size = static_cast<int>(state.range(0));
  Workload &w = connections->workload(size);
  for (auto _ : state) {
    if (!rawCall(state, w)) break;
  }
  setBytes(state, size);
}

// Both clients in turns, each call timed on its own: slow drifts of the
// machine hit both alike, so their ratio is steadier than that of two
// separate runs. The order alternates so that neither always goes first.
void BM_Paired(benchmark::State &state) {
  const int size = static_cast<int>(state.range(0));
  Workload &w = connections->workload(size);
  std::vector<double> lib, raw;
  lib.reserve(static_cast<size_t>(state.max_iterations));
  raw.reserve(static_cast<size_t>(state.max_iterations));
  using Clock = std::chrono::steady_clock;
  bool libraryFirst = true;
  for (auto _ : state) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool library = (turn == 0) == libraryFirst;
      const auto start = Clock::now();
      if (!(library ? libraryCall(state, w) : rawCall(state, w))) return;
      const std::chrono::duration<double, std::micro> took = Clock::now() - start;
      (library ? lib : raw).push_back(took.count());
    }
    libraryFirst = !libraryFirst;
  }
  const double libMedian = bench::median(lib);
  const double rawMedian = bench::median(raw);
  state.counters["lib_us"] = libMedian;
  state.counters["raw_us"] = rawMedian;
  state.counters["ratio"] = rawMedian > 0 ? libMedian / rawMedian : 0;
}

// The heap allocations of the calling thread inside QVA_ECI_Execute; the
// emulator's threads are not counted.
void BM_LibraryAllocations(benchmark::State &state) {
  if (!allocCounterAvailable()) {
    state.SkipWithError("allocation counting needs malloc interposed (not in sanitizer builds)");
    return;
  }
  const int size = static_cast<int>(state.range(0));
  Workload &w = connections->workload(size);
  if (QVA_ECI_Execute(connections->gw, &w.parms) != QVA_OK) {  // any one-time set-up is not counted
    state.SkipWithError("warm-up call failed");
    return;
  }
  uint64_t allocations = 0;
  for (auto _ : state) {
    allocCounterStart();
    const int rc = QVA_ECI_Execute(connections->gw, &w.parms);
    allocations += allocCounterStop();
    if (rc != QVA_OK) {
      state.SkipWithError(("QVA_ECI_Execute rc=" + std::to_string(rc)).c_str());
      return;
    }
  }
  const double perCall = static_cast<double>(allocations) / static_cast<double>(state.iterations());
  state.counters["allocs_per_call"] = perCall;
  if (allocations != kExpectedAllocsPerCall * static_cast<uint64_t>(state.iterations())) {
    char message[128];
    std::snprintf(message, sizeof message, "%.3f heap allocations per call, expected %" PRIu64, perCall,
                  kExpectedAllocsPerCall);
    state.SkipWithError(message);
  }
}

void sizes(benchmark::internal::Benchmark *b) {
  for (int size : kSizes) b->Arg(size);
}

BENCHMARK(BM_Library)->Apply(sizes)->UseRealTime()->Unit(benchmark::kMicrosecond)->ReportAggregatesOnly(true);
BENCHMARK(BM_Raw)->Apply(sizes)->UseRealTime()->Unit(benchmark::kMicrosecond)->ReportAggregatesOnly(true);
BENCHMARK(BM_Paired)->Apply(sizes)->UseRealTime()->Unit(benchmark::kMicrosecond)->ReportAggregatesOnly(true);
BENCHMARK(BM_LibraryAllocations)
    ->Apply(sizes)
    ->Iterations(kAllocationCalls)
    ->Repetitions(1)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// ---- Reporting -----------------------------------------------------------------

// The console report, followed by a table of the library's median beside
// the raw client's for each size.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(OutputOptions options) : ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run> &reports) override {
    ConsoleReporter::ReportRuns(reports);
    for (const Run &run : reports) {
      if (run.error_occurred || run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      const int size = std::atoi(run.run_name.args.c_str());
      const std::string &name = run.run_name.function_name;
      if (name == "BM_Library") library_[size] = run.GetAdjustedRealTime();
      if (name == "BM_Raw") raw_[size] = run.GetAdjustedRealTime();
      if (name == "BM_Paired" && run.counters.count("ratio") != 0) paired_[size] = run.counters.at("ratio");
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    if (library_.empty() && raw_.empty() && paired_.empty()) return;
    std::printf("\nMedian round trip, microseconds (library / raw client)\n");
    std::printf("%10s %12s %12s %8s %14s\n", "COMMAREA", "library", "raw", "ratio", "paired ratio");
    for (int size : kSizes) {
      const bool both = library_.count(size) != 0 && raw_.count(size) != 0;
      if (!both && paired_.count(size) == 0) continue;
      std::printf("%10d", size);
      if (both) {
        std::printf(" %12.2f %12.2f %8.3f", library_[size], raw_[size], library_[size] / raw_[size]);
      } else {
        std::printf(" %12s %12s %8s", "-", "-", "-");
      }
      if (paired_.count(size) != 0) {
        std::printf(" %14.3f\n", paired_[size]);
      } else {
        std::printf(" %14s\n", "-");
      }
    }
    std::fflush(stdout);
  }

 private:
  std::map<int, double> library_, raw_, paired_;
};

}  // namespace

int main(int argc, char **argv) {
  // --bench_cpu=N pins to CPU N, --bench_cpu=-1 does not pin; the default is
  // the last CPU the process may use. Unpinned, each connection's emulator
  // thread may sit on another CPU than the client, and a round trip then
  // pays the virtual machine's cross-CPU wake-up: medians flip between two
  // modes from run to run and hide the library's own cost.
  bench::CommandLine line = bench::parseCommandLine(argc, argv, kDefaultFlags);
  int count = static_cast<int>(line.args.size()) - 1;
  benchmark::Initialize(&count, line.args.data());
  if (benchmark::ReportUnrecognizedArguments(count, line.args.data())) return 1;

  const int cpu = bench::pinToCpu(line.cpu, "bench_eci");
  benchmark::AddCustomContext("bench_cpu", cpu >= 0 ? "pinned to CPU " + std::to_string(cpu) : "not pinned");

  // Whatever the environment asks for, the trace is off while timing.
  QVA_setAPITraceLevel(0);
  if (!bench::checkAllocCounter("bench_eci") || !checkWire()) {
    std::fprintf(stderr, "bench_eci: FAILED: the start-up checks did not pass; nothing was timed\n");
    return 1;
  }
  if (!openConnections()) {
    closeConnections();
    return 1;
  }
  if (line.console) {
    RatioReporter reporter(line.consoleOptions);
    benchmark::RunSpecifiedBenchmarks(&reporter);
  } else {
    benchmark::RunSpecifiedBenchmarks();
  }
  closeConnections();
  benchmark::Shutdown();
  return 0;
}
