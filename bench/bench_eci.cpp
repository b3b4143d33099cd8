// One ECI program call round trip through the library, against the
// in-process Gateway emulator, beside two clients that send the same bytes
// on connections of their own: the floor client (floor_client.h: one send,
// the reply received whole into one buffer, nothing parsed) measures what
// the wire itself costs, and the raw client (raw_eci_client.h: the reply
// read by its header and the COMMAREA copied back) is the earlier yardstick.
// Before anything is timed, every client's requests are checked byte for
// byte against the wire layout on a recording emulator, and the counters of
// allocations and system calls are checked to count.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_util.h"
#include "eci_report.h"
#include "eci_workload.h"
#include "floor_client.h"
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "raw_eci_client.h"
#include "syscall_counter.h"

namespace {

using bench::EciWorkload;

// Heap allocations one successful QVA_ECI_Execute makes with the trace off:
// the socket buffer (one for the whole flow, reused by the reply) and the
// masked copy of the parameter block that serves the input and the output
// dump, allocated whatever the trace level.
constexpr uint64_t kExpectedAllocsPerCall = 2;

// Calls whose allocations or system calls are counted.
constexpr int kCountedCalls = 1000;

// Defaults for a full run on two cores in well under two minutes; a flag on
// the command line wins.
const char *const kDefaultFlags[] = {"--benchmark_repetitions=10", "--benchmark_min_time=0.2",
                                     "--benchmark_enable_random_interleaving=true"};

// ---- The benchmarked connections ---------------------------------------------

struct Connections {
  std::unique_ptr<qvaemu::Gateway> gateway;
  QvaGatewayToken *gw = nullptr;  // opened by the thread that runs the benchmarks
  bench::RawClient raw;
  bench::FloorClient floor;
  bench::EciWorkloads *workloads = nullptr;

  EciWorkload &workload(int64_t size) { return *workloads->at(static_cast<int>(size)); }
};

Connections *connections = nullptr;

bool openConnections(bench::EciWorkloads &workloads) {
  auto c = std::make_unique<Connections>();
  c->workloads = &workloads;
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
  if (!c->floor.open(c->gateway->port(), &error)) {
    std::fprintf(stderr, "bench_eci: floor connection: %s\n", error.c_str());
    return false;
  }
  // The floor client receives every reply into one buffer, ready before the
  // first timed call.
  size_t largestReply = 0;
  for (const auto &[size, w] : workloads) largestReply = std::max(largestReply, w->replySize);
  c->floor.reserve(largestReply);
  connections = c.release();
  return true;
}

void closeConnections() {
  if (connections == nullptr) return;
  QVA_closeGatewayConnection(&connections->gw);
  connections->raw.close();
  connections->floor.close();
  connections->gateway->stop();
  delete connections;
  connections = nullptr;
}

// One call by each client; false, with the benchmark stopped, on a failure.
using Client = bool (*)(benchmark::State &, EciWorkload &);

bool libraryCall(benchmark::State &state, EciWorkload &w) {
  const int rc = QVA_ECI_Execute(connections->gw, &w.parms);
  if (rc != QVA_OK) {
    state.SkipWithError(("QVA_ECI_Execute rc=" + std::to_string(rc)).c_str());
    return false;
  }
  return true;
}

bool rawCall(benchmark::State &state, EciWorkload &w) {
  const int32_t rc = connections->raw.call(w.request, w.rawCommarea.data(), w.rawCommarea.size());
  if (rc != 0) {
    state.SkipWithError(("raw call rc=" + std::to_string(rc)).c_str());
    return false;
  }
  return true;
}

// Only the reply's size is looked at: the start-up check has parsed it.
bool floorCall(benchmark::State &state, EciWorkload &w) {
  const int64_t size = connections->floor.call(w.request);
  if (size != static_cast<int64_t>(w.replySize)) {
    state.SkipWithError(("floor call returned " + std::to_string(size)).c_str());
    return false;
  }
  return true;
}

void setBytes(benchmark::State &state, int64_t size) {
  // Both directions carry the COMMAREA.
  state.SetBytesProcessed(state.iterations() * 2 * size);
}

// ---- Benchmarks ----------------------------------------------------------------

template <Client client>
void timed(benchmark::State &state) {
  EciWorkload &w = connections->workload(state.range(0));
  for (auto _ : state) {
    if (!client(state, w)) break;
  }
  setBytes(state, state.range(0));
}

void BM_Library(benchmark::State &state) { timed<libraryCall>(state); }
void BM_Raw(benchmark::State &state) { timed<rawCall>(state); }
void BM_Floor(benchmark::State &state) { timed<floorCall>(state); }

// The library and another client in turns, each call timed on its own: slow
// drifts of the machine hit both alike, so their ratio is steadier than that
// of two separate runs. The order alternates so that neither always goes
// first. Counters lib_us and `otherName`_us, the medians, and ratio.
template <Client other>
void paired(benchmark::State &state, const char *otherName) {
  EciWorkload &w = connections->workload(state.range(0));
  std::vector<double> lib, them;
  lib.reserve(static_cast<size_t>(state.max_iterations));
  them.reserve(static_cast<size_t>(state.max_iterations));
  using Clock = std::chrono::steady_clock;
  bool libraryFirst = true;
  for (auto _ : state) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool library = (turn == 0) == libraryFirst;
      const auto start = Clock::now();
      if (!(library ? libraryCall(state, w) : other(state, w))) return;
      const std::chrono::duration<double, std::micro> took = Clock::now() - start;
      (library ? lib : them).push_back(took.count());
    }
    libraryFirst = !libraryFirst;
  }
  const double libMedian = bench::median(lib);
  const double theirMedian = bench::median(them);
  state.counters["lib_us"] = libMedian;
  state.counters[std::string(otherName) + "_us"] = theirMedian;
  state.counters["ratio"] = theirMedian > 0 ? libMedian / theirMedian : 0;
}

void BM_Paired(benchmark::State &state) { paired<rawCall>(state, "raw"); }
void BM_PairedFloor(benchmark::State &state) { paired<floorCall>(state, "floor"); }

// The heap allocations of the calling thread inside QVA_ECI_Execute; the
// emulator's threads are not counted.
void BM_LibraryAllocations(benchmark::State &state) {
  if (!allocCounterAvailable()) {
    state.SkipWithError("allocation counting needs malloc interposed (not in sanitizer builds)");
    return;
  }
  EciWorkload &w = connections->workload(state.range(0));
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

// The calling thread's calls of the system-call wrappers inside one call of
// a client, after a warm-up call; the emulator's threads are not counted.
// Counters syscalls_per_call, send, recv, wait and other; the label lists
// them by function.
template <Client client>
void syscalls(benchmark::State &state) {
  if (!syscallCounterAvailable()) {
    state.SkipWithError("system-call counting needs the wrappers interposed (not in sanitizer builds)");
    return;
  }
  EciWorkload &w = connections->workload(state.range(0));
  if (!client(state, w)) return;
  bench::SyscallTally tally;
  for (auto _ : state) {
    syscallCounterStart();
    const bool ok = client(state, w);
    syscallCounterStop();
    tally.add();
    if (!ok) return;
  }
  tally.report(state);
}

void BM_LibrarySyscalls(benchmark::State &state) { syscalls<libraryCall>(state); }
void BM_FloorSyscalls(benchmark::State &state) { syscalls<floorCall>(state); }
void BM_RawSyscalls(benchmark::State &state) { syscalls<rawCall>(state); }

void sizes(benchmark::internal::Benchmark *b) {
  for (int size : bench::kCommareaSizes) b->Arg(size);
}

#define QVA_TIMED(function) \
  BENCHMARK(function)->Apply(sizes)->UseRealTime()->Unit(benchmark::kMicrosecond)->ReportAggregatesOnly(true)
#define QVA_COUNTED(function)     \
  BENCHMARK(function)             \
      ->Apply(sizes)              \
      ->Iterations(kCountedCalls) \
      ->Repetitions(1)            \
      ->UseRealTime()             \
      ->Unit(benchmark::kMicrosecond)

QVA_TIMED(BM_Library);
QVA_TIMED(BM_Floor);
QVA_TIMED(BM_Raw);
QVA_TIMED(BM_PairedFloor);
QVA_TIMED(BM_Paired);
QVA_COUNTED(BM_LibraryAllocations);
QVA_COUNTED(BM_LibrarySyscalls);
QVA_COUNTED(BM_FloorSyscalls);
QVA_COUNTED(BM_RawSyscalls);

}  // namespace

int main(int argc, char **argv) {
  // --bench_cpu=N pins to CPU N, --bench_cpu=-1 does not pin; the default is
  // the last CPU the process may use. Unpinned, each connection's emulator
  // thread may sit on another CPU than the client, and a round trip then
  // pays the virtual machine's cross-CPU wake-up: medians flip between two
  // modes from run to run and hide the library's own cost.
  // --bench_keep_heap=0 leaves glibc's trim as it is (see keepFreedHeap).
  bench::CommandLine line = bench::parseCommandLine(argc, argv, kDefaultFlags);
  int count = static_cast<int>(line.args.size()) - 1;
  benchmark::Initialize(&count, line.args.data());
  if (benchmark::ReportUnrecognizedArguments(count, line.args.data())) return 1;

  const int cpu = bench::pinToCpu(line.cpu, "bench_eci");
  benchmark::AddCustomContext("bench_cpu", cpu >= 0 ? "pinned to CPU " + std::to_string(cpu) : "not pinned");
  benchmark::AddCustomContext("bench_keep_heap", bench::keepFreedHeap(line.keepHeap));

  // Whatever the environment asks for, the trace is off while timing.
  QVA_setAPITraceLevel(0);
  bench::EciWorkloads workloads = bench::makeEciWorkloads();
  if (!bench::checkAllocCounter("bench_eci") || !bench::checkSyscallCounter("bench_eci") ||
      !bench::checkEciWire(workloads)) {
    std::fprintf(stderr, "bench_eci: FAILED: the start-up checks did not pass; nothing was timed\n");
    return 1;
  }
  if (!openConnections(workloads)) {
    closeConnections();
    return 1;
  }
  if (line.console) {
    bench::EciReporter reporter(line.consoleOptions);
    benchmark::RunSpecifiedBenchmarks(&reporter);
  } else {
    benchmark::RunSpecifiedBenchmarks();
  }
  closeConnections();
  benchmark::Shutdown();
  return 0;
}
