#include "bench_util.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>

#include "alloc_counter.h"

namespace bench {

qvaraw::Call programCall(const char *program) {
  qvaraw::Call call;
  call.user = "BENCHUSR";
  call.password = "s3cret";
  call.program = program;
  return call;
}

void setParms(ECI_PARMS &parms, const qvaraw::Call &call) {
  const auto copy = [](char *to, const std::string &text, size_t width) {
    const qvaraw::Bytes padded = qvaraw::field(text, width);
    std::memcpy(to, padded.data(), width);
  };
  std::memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  parms.eci_extend_mode = ECI_NO_EXTEND;
  copy(parms.eci_program_name, call.program, sizeof parms.eci_program_name);
  copy(parms.eci_userid, call.user, sizeof parms.eci_userid);
  copy(parms.eci_password, call.password, sizeof parms.eci_password);
  copy(parms.eci_transid, call.transId, sizeof parms.eci_transid);
  copy(parms.eci_system_name, call.system, sizeof parms.eci_system_name);
}

bool checkReceived(const char *program, const qvaemu::Gateway &gateway, size_t connection, const char *who,
                   const qvaraw::Bytes &want, std::chrono::seconds patience) {
  if (!gateway.waitForReceived(connection, want.size(), patience)) {
    std::fprintf(stderr, "%s: %s: the emulator got %zu of %zu bytes within %lld s\n", program, who,
                 gateway.received(connection).size(), want.size(), static_cast<long long>(patience.count()));
    return false;
  }
  const qvaraw::Bytes got = gateway.received(connection);
  if (got == want) return true;
  size_t at = 0;
  while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
  std::fprintf(stderr, "%s: %s sent %zu bytes, the wire layout gives %zu; first difference at offset %zu\n", program,
               who, got.size(), want.size(), at);
  const size_t from = at >= 8 ? at - 8 : 0;
  for (const auto *side : {"sent", "want"}) {
    const qvaraw::Bytes &b = side[0] == 's' ? got : want;
    std::fprintf(stderr, "  %s:", side);
    for (size_t i = from; i < std::min(b.size(), from + 24); ++i) std::fprintf(stderr, " %02X", b[i]);
    std::fprintf(stderr, "\n");
  }
  return false;
}

const char *flagValue(int argc, char **argv, const char *flag) {
  const size_t n = static_cast<size_t>(std::strchr(flag, '=') - flag + 1);
  const char *value = nullptr;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], flag, n) == 0) value = argv[i] + n;
  return value;
}

CommandLine parseCommandLine(int argc, char **argv, std::span<const char *const> defaults) {
  CommandLine line;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strncmp(argv[i], "--bench_cpu=", 12) == 0) {
      line.cpu = std::atoi(argv[i] + 12);
    } else {
      line.args.push_back(argv[i]);
    }
  }
  const int own = static_cast<int>(line.args.size());
  char **ownArgs = line.args.data();
  std::vector<char *> added;
  for (const char *flag : defaults)
    if (flagValue(own, ownArgs, flag) == nullptr) added.push_back(const_cast<char *>(flag));
  const char *format = flagValue(own, ownArgs, "--benchmark_format=");
  line.console = format == nullptr || std::strcmp(format, "console") == 0;
  auto is = [](const char *value, std::initializer_list<const char *> words) {
    for (const char *word : words)
      if (value != nullptr && strcasecmp(value, word) == 0) return true;
    return false;
  };
  const char *color = flagValue(own, ownArgs, "--benchmark_color=");
  const bool colored = is(color, {"true", "yes", "1"}) ||
                       ((color == nullptr || is(color, {"auto"})) && isatty(STDOUT_FILENO) != 0);
  const bool tabular = is(flagValue(own, ownArgs, "--benchmark_counters_tabular="), {"true", "yes", "1"});
  line.consoleOptions = static_cast<benchmark::ConsoleReporter::OutputOptions>(
      (colored ? benchmark::ConsoleReporter::OO_Color : 0) | (tabular ? benchmark::ConsoleReporter::OO_Tabular : 0));
  line.args.insert(line.args.begin() + (own > 0 ? 1 : 0), added.begin(), added.end());
  line.args.push_back(nullptr);
  return line;
}

// On a virtual machine a wake-up sent to another, idle CPU costs tens of
// microseconds, and whether it happens depends on where the scheduler put
// each connection's thread. The threads inherit the calling thread's
// affinity, so this must run before the emulator starts.
int pinToCpu(int wanted, const char *program) {
  if (wanted == -1) return -1;
  int cpu = wanted;
  if (cpu == kLastAllowedCpu) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return -1;
    for (int i = 0; i < CPU_SETSIZE; ++i)
      if (CPU_ISSET(i, &allowed)) cpu = i;
  }
  if (cpu < 0 || cpu >= CPU_SETSIZE) {
    std::fprintf(stderr, "%s: no CPU %d; placement left to the scheduler\n", program, cpu);
    return -1;
  }
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  if (sched_setaffinity(0, sizeof one, &one) != 0) {
    std::fprintf(stderr, "%s: cannot pin to CPU %d; placement left to the scheduler\n", program, cpu);
    return -1;
  }
  return cpu;
}

double median(std::vector<double> &values) {
  if (values.empty()) return 0;
  const auto mid = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), mid, values.end());
  return *mid;
}

bool checkAllocCounter(const char *program) {
  if (!allocCounterAvailable()) return true;
  // Through a volatile pointer, so that the pair cannot be optimised away.
  void *(*volatile allocate)(size_t) = std::malloc;
  allocCounterStart();
  void *p = allocate(16);
  const uint64_t counted = allocCounterStop();
  std::free(p);
  if (counted != 1) {
    std::fprintf(stderr, "%s: the allocation counter saw %" PRIu64 " allocations for one malloc\n", program, counted);
    return false;
  }
  return true;
}

}  // namespace bench
