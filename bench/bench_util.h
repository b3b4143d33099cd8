// What the benchmark programs share: the command line (CPU placement and
// default flags), pinning, the median, and the allocation counter's
// self-check.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

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

// A TCP connection to 127.0.0.1:port with the options the library sets on
// its own connections (keep-alive, no delay); the descriptor, or -1 with
// *error set.
int connectLoopback(uint16_t port, std::string *error);

// The median of the values (reorders them); 0 for none.
double median(std::vector<double> &values);

// True when the allocation counter counts one malloc as one, or is not
// available at all (sanitizer builds).
bool checkAllocCounter(const char *program);

}  // namespace bench
