#include "bench_util.h"

#include <malloc.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <thread>

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
    } else if (i > 0 && std::strncmp(argv[i], "--bench_keep_heap=", 18) == 0) {
      line.keepHeap = std::atoi(argv[i] + 18) != 0;
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
  const bool colored =
      is(color, {"true", "yes", "1"}) || ((color == nullptr || is(color, {"auto"})) && isatty(STDOUT_FILENO) != 0);
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

std::string keepFreedHeap(bool keep) {
  if (!keep) return "glibc's default trim and mmap threshold";
  // Setting either threshold stops glibc from raising the mmap threshold by
  // itself as blocks are freed, which it does up to 32 MiB: set to that, or
  // every block between 128 KiB and 32 MiB would be mapped and unmapped
  // call after call.
  constexpr int kTrimThreshold = 256 << 20;
  constexpr int kMmapThreshold = 32 << 20;
  if (mallopt(M_TRIM_THRESHOLD, kTrimThreshold) != 1 || mallopt(M_MMAP_THRESHOLD, kMmapThreshold) != 1)
    return "glibc's default trim and mmap threshold (mallopt failed)";
  return "trim threshold 256 MiB, mmap threshold 32 MiB";
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

namespace {

// The counter's index of a function, or the number of functions.
size_t functionIndex(const char *name) {
  const size_t n = syscallCounterFunctions();
  for (size_t i = 0; i < n; ++i)
    if (std::strcmp(syscallCounterName(i), name) == 0) return i;
  return n;
}

// One call of `name`, counted: it must return `result` and count one call,
// of that function.
bool probe(const char *program, const char *name, long result, const std::function<long()> &call) {
  const size_t index = functionIndex(name);
  syscallCounterStart();
  const long got = call();
  const uint64_t total = syscallCounterStop();
  const uint64_t own = index < syscallCounterFunctions() ? syscallCounterCount(index) : 0;
  if (got == result && total == 1 && own == 1) return true;
  std::fprintf(stderr,
               "%s: the system-call counter saw %" PRIu64 " calls (%" PRIu64 " of %s) for one %s, which returned %ld\n",
               program, total, own, name, name, got);
  return false;
}

}  // namespace

bool checkSyscallCounter(const char *program) {
  if (!syscallCounterAvailable()) return true;
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
    std::fprintf(stderr, "%s: socketpair for the system-call counter's check: %s\n", program, std::strerror(errno));
    return false;
  }
  const int a = pair[0];
  const int b = pair[1];
  char byte = 'x';
  char in = 0;
  iovec out{&byte, 1};
  iovec back{&in, 1};
  msghdr outMessage{};
  outMessage.msg_iov = &out;
  outMessage.msg_iovlen = 1;
  msghdr backMessage{};
  backMessage.msg_iov = &back;
  backMessage.msg_iovlen = 1;
  pollfd writable{a, POLLOUT, 0};
  const timespec now{0, 0};
  const auto selectWritable = [a] {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(a, &set);
    timeval zero{0, 0};
    return ::select(a + 1, nullptr, &set, nullptr, &zero);
  };
  const auto pselectWritable = [a, &now] {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(a, &set);
    return ::pselect(a + 1, nullptr, &set, nullptr, &now, nullptr);
  };

  // Each byte sent is read back at once, so the pair is empty between probes.
  bool ok = probe(program, "send", 1, [&] { return ::send(a, &byte, 1, 0); }) &&
            probe(program, "recv", 1, [&] { return ::recv(b, &in, 1, 0); }) &&
            probe(program, "sendto", 1, [&] { return ::sendto(a, &byte, 1, 0, nullptr, 0); }) &&
            probe(program, "recvfrom", 1, [&] { return ::recvfrom(b, &in, 1, 0, nullptr, nullptr); }) &&
            probe(program, "sendmsg", 1, [&] { return ::sendmsg(a, &outMessage, 0); }) &&
            probe(program, "recvmsg", 1, [&] { return ::recvmsg(b, &backMessage, 0); }) &&
            probe(program, "write", 1, [&] { return ::write(a, &byte, 1); }) &&
            probe(program, "read", 1, [&] { return ::read(b, &in, 1); }) &&
            probe(program, "writev", 1, [&] { return ::writev(a, &out, 1); }) &&
            probe(program, "readv", 1, [&] { return ::readv(b, &back, 1); }) &&
            probe(program, "poll", 1, [&] { return ::poll(&writable, 1, 0); }) &&
            probe(program, "ppoll", 1, [&] { return ::ppoll(&writable, 1, &now, nullptr); }) &&
            probe(program, "select", 1, selectWritable) && probe(program, "pselect", 1, pselectWritable);

  // Nothing while stopped, and nothing that another thread does.
  if (ok) {
    syscallCounterStart();
    syscallCounterStop();
    const bool sent = ::send(a, &byte, 1, 0) == 1;
    const uint64_t whileStopped = syscallCounterCount(functionIndex("send"));
    bool received = false;
    syscallCounterStart();
    std::thread([&] { received = ::recv(b, &in, 1, 0) == 1; }).join();
    const uint64_t otherThread = syscallCounterStop();
    if (!sent || !received || whileStopped != 0 || otherThread != 0) {
      std::fprintf(stderr,
                   "%s: the system-call counter counted %" PRIu64 " calls made while it was stopped and %" PRIu64
                   " made by another thread\n",
                   program, whileStopped, otherThread);
      ok = false;
    }
  }
  ::close(a);
  ::close(b);
  return ok;
}

void SyscallTally::add() {
  const size_t n = syscallCounterFunctions();
  byFunction_.resize(n, 0);
  for (size_t i = 0; i < n; ++i) byFunction_[i] += syscallCounterCount(i);
}

uint64_t SyscallTally::total() const {
  uint64_t sum = 0;
  for (uint64_t calls : byFunction_) sum += calls;
  return sum;
}

uint64_t SyscallTally::of(SyscallKind kind) const {
  uint64_t sum = 0;
  for (size_t i = 0; i < byFunction_.size(); ++i)
    if (syscallCounterKind(i) == kind) sum += byFunction_[i];
  return sum;
}

std::string SyscallTally::perCall(uint64_t calls) const {
  std::string text;
  for (size_t i = 0; i < byFunction_.size(); ++i) {
    if (byFunction_[i] == 0) continue;
    char part[64];
    std::snprintf(part, sizeof part, "%s%s %.4g", text.empty() ? "" : " + ", syscallCounterName(i),
                  static_cast<double>(byFunction_[i]) / static_cast<double>(calls > 0 ? calls : 1));
    text += part;
  }
  return text.empty() ? "none" : text;
}

void SyscallTally::report(benchmark::State &state) const {
  const auto calls = static_cast<double>(state.iterations() > 0 ? state.iterations() : 1);
  state.counters["syscalls_per_call"] = static_cast<double>(total()) / calls;
  state.counters["send"] = static_cast<double>(of(SYSCALL_SEND)) / calls;
  state.counters["recv"] = static_cast<double>(of(SYSCALL_RECV)) / calls;
  state.counters["wait"] = static_cast<double>(of(SYSCALL_WAIT)) / calls;
  state.counters["other"] = static_cast<double>(of(SYSCALL_OTHER)) / calls;
  state.SetLabel(perCall(static_cast<uint64_t>(state.iterations())));
}

bool checkLibraryCounted(const char *program, const SyscallTally &library) {
  if (!syscallCounterAvailable()) return true;
  if (library.of(SYSCALL_SEND) > 0 && library.of(SYSCALL_RECV) > 0) return true;
  std::fprintf(stderr,
               "%s: the system-call counter saw %" PRIu64 " sends and %" PRIu64
               " receives in the library's calls: its wrappers are not reached from the shared library\n",
               program, library.of(SYSCALL_SEND), library.of(SYSCALL_RECV));
  return false;
}

}  // namespace bench
