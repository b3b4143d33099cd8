// What the benchmark programs share: the command line (CPU placement and
// default flags), pinning, the median, the allocation counter's self-check,
// and the program call both clients make, checked on a recording emulator.
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

namespace bench {

// --bench_cpu not given: the last CPU the process may use.
inline constexpr int kLastAllowedCpu = -2;

struct CommandLine {
  std::vector<char *> args;  // for benchmark::Initialize, ended by a null pointer
  int cpu = kLastAllowedCpu;  // from --bench_cpu=N
  bool console = true;  // the console format (not json or csv) was asked for
  // For a console reporter of our own: colour and tabular counters as the
  // flags --benchmark_color and --benchmark_counters_tabular ask.
  benchmark::ConsoleReporter::OutputOptions consoleOptions = benchmark::ConsoleReporter::OO_None;
};

// Takes --bench_cpu=N out of the arguments and adds every default flag that
// the command line does not set itself.
CommandLine parseCommandLine(int argc, char **argv, std::span<const char *const> defaults);

// The value of --name=value on the command line, or null.
const char *flagValue(int argc, char **argv, const char *flag);

// Keeps the calling thread, and every thread it starts later, on one CPU:
// `wanted`, or the last allowed one for kLastAllowedCpu; -1 leaves placement
// to the scheduler. Returns the CPU used, or -1. `program` prefixes messages.
int pinToCpu(int wanted, const char *program);

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

}  // namespace bench
