// What the benchmark programs share: the command line (CPU placement and
// default flags), pinning, the median, the allocation and system-call
// counters' self-checks and tallies, and the program call every client
// makes, checked on a recording emulator.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "qvaemu/raw_wire.h"
#include "syscall_counter.h"

namespace bench {

// --bench_cpu not given: the last CPU the process may use.
inline constexpr int kLastAllowedCpu = -2;

struct CommandLine {
  std::vector<char *> args;   // for benchmark::Initialize, ended by a null pointer
  int cpu = kLastAllowedCpu;  // from --bench_cpu=N
  bool keepHeap = true;       // --bench_keep_heap=0 turns it off
  bool console = true;        // the console format (not json or csv) was asked for
  // For a console reporter of our own: colour and tabular counters as the
  // flags --benchmark_color and --benchmark_counters_tabular ask.
  benchmark::ConsoleReporter::OutputOptions consoleOptions = benchmark::ConsoleReporter::OO_None;
};

// Takes --bench_cpu=N and --bench_keep_heap=0|1 out of the arguments and
// adds every default flag that
// the command line does not set itself.
CommandLine parseCommandLine(int argc, char **argv, std::span<const char *const> defaults);

// The value of --name=value on the command line, or null.
const char *flagValue(int argc, char **argv, const char *flag);

// Keeps the calling thread, and every thread it starts later, on one CPU:
// `wanted`, or the last allowed one for kLastAllowedCpu; -1 leaves placement
// to the scheduler. Returns the CPU used, or -1. `program` prefixes messages.
int pinToCpu(int wanted, const char *program);

// Keeps memory that threads free in their heaps instead of giving it back
// to the kernel at once (a trim threshold of 256 MiB, and the mmap threshold
// at the 32 MiB that glibc would raise it to), for the whole process; must
// run before any thread starts. On a virtual machine that hands freed pages
// back to the host, the emulator's per-call trim of a reply buffer of 64 KiB
// or more (MADV_DONTNEED, then the faults that take it back) costs more than
// the round trip it serves, for every client alike. Returns a description
// for the benchmark context.
std::string keepFreedHeap(bool keep);

// A call of `program` on QVADEMO as user BENCHUSR, every other field 0 or
// blank; setParms gives the library's parameter block the same fields.
qvaraw::Call programCall(const char *program);
void setParms(ECI_PARMS &parms, const qvaraw::Call &call);

// True when connection `connection` of the recording emulator got exactly
// `want` within `patience`; otherwise the first difference goes to stderr,
// prefixed with `program` and `who`.
bool checkReceived(const char *program, const qvaemu::Gateway &gateway, size_t connection, const char *who,
                   const qvaraw::Bytes &want, std::chrono::seconds patience);

// The median of the values (reorders them); 0 for none.
double median(std::vector<double> &values);

// True when the allocation counter counts one malloc as one, or is not
// available at all (sanitizer builds).
bool checkAllocCounter(const char *program);

// True when the system-call counter counts each of the send, receive and
// wait functions as one call of its own, nothing while it is stopped and
// nothing on another thread; or when it is not available at all (sanitizer
// builds). `program` prefixes messages.
bool checkSyscallCounter(const char *program);

// The counted system-call wrappers over a number of calls, by function.
class SyscallTally {
 public:
  // Adds what the counter saw between its last start and stop.
  void add();
  uint64_t total() const;
  uint64_t of(SyscallKind kind) const;
  // For `calls` calls: "send 3 + poll 1 + recv 4" per call, functions with
  // no calls left out.
  std::string perCall(uint64_t calls) const;
  // The counters syscalls_per_call, send, recv, wait and other, per
  // iteration, and perCall as the label.
  void report(benchmark::State &state) const;

 private:
  std::vector<uint64_t> byFunction_;
};

// True when the counter saw both a send and a receive in what the library
// did (a tally of whole program calls): otherwise the library's calls do not
// reach the executable's wrappers. Also true when the counter is not
// available. `program` prefixes messages.
bool checkLibraryCounted(const char *program, const SyscallTally &library);

}  // namespace bench
