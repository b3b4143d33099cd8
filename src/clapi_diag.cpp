// Trace writer, storage dumps, timestamps and the guarded allocator.

#include "clapi_diag.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "clapi_versions.h"

std::atomic<int32_t> clientAPITrace{0};
FILE *clientAPITraceHandle = nullptr;
char *clientAPITraceFilename = nullptr;
const char *const defaultTraceFilename = "stderr";
uint32_t clientAPIDataOffset = 0;
uint32_t clientAPIDataTrunc = 128;
int32_t traceHeaderWrite = 0;
ClapiLock traceLock;

namespace {

// Serialises the bytes that reach the trace stream. traceLock alone cannot:
// the lock module writes its lines without it. Always the innermost lock.
std::mutex streamMutex;

FILE *currentStream() { return clientAPITraceHandle != nullptr ? clientAPITraceHandle : stderr; }

CLAPI_PRINTF(4, 0) void writeLine(FILE *out, int point, const char *word, const char *fmt, va_list args) {
  char timeStamp[32];
  uint32_t pid = 0;
  uint32_t tid = 0;
  clapiGetTimestamp(timeStamp);
  clapiGetPidTid(&pid, &tid);
  std::fprintf(out, "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s ", timeStamp, pid, tid, point, word);
  std::vfprintf(out, fmt, args);
  std::fflush(out);
}

AllocFailHook allocFailHook = nullptr;

}  // namespace

// ---- Trace lines -----------------------------------------------------------

void clapiTrace(int point, const char *word, const char *fmt, ...) {
  LockHolder trace(&traceLock);
  std::lock_guard<std::mutex> stream(streamMutex);
  va_list args;
  va_start(args, fmt);
  writeLine(currentStream(), point, word, fmt, args);
  va_end(args);
}

void clapiTraceData(int point, const void *data, uint32_t length, const char *fmt, ...) {
  LockHolder trace(&traceLock);
  std::lock_guard<std::mutex> stream(streamMutex);
  va_list args;
  va_start(args, fmt);
  writeLine(currentStream(), point, "DATA", fmt, args);
  va_end(args);
  clapiTraceOutStorage(data, length, 0, 16, 1);
}

void clapiTraceWithoutLock(int point, const char *word, const char *fmt, ...) {
  std::lock_guard<std::mutex> stream(streamMutex);
  va_list args;
  va_start(args, fmt);
  writeLine(currentStream(), point, word, fmt, args);
  va_end(args);
}

void clapiTraceRaw(const char *fmt, ...) {
  std::lock_guard<std::mutex> stream(streamMutex);
  FILE *out = currentStream();
  va_list args;
  va_start(args, fmt);
  std::vfprintf(out, fmt, args);
  va_end(args);
  std::fflush(out);
}

void clapiWriteTraceBanner(int level) {
  char date[16];
  clapiGetDate(date);
  std::lock_guard<std::mutex> stream(streamMutex);
  FILE *out = currentStream();
  std::fprintf(out, "*** %s Olvex Varnel QVAClient DLL trace V%s API Version %s Build Level %s ***\n", date,
               kDllVersion, kApiVersion, kBuildLevel);
  std::fprintf(out, "*** Trace Level = %d, Trace File = %s ***\n", level,
               clientAPITraceFilename != nullptr ? clientAPITraceFilename : defaultTraceFilename);
  std::fflush(out);
}

FILE *clapiSwitchTraceStream(FILE *stream, const char *name) {
  std::lock_guard<std::mutex> guard(streamMutex);
  FILE *previous = clientAPITraceHandle;
  clientAPITraceHandle = stream;
  if (clientAPITraceFilename != nullptr) {
    std::strncpy(clientAPITraceFilename, name, kTraceFilenameSize - 1);
    clientAPITraceFilename[kTraceFilenameSize - 1] = '\0';
  }
  return previous;
}

std::string clapiTraceFilenameCopy() {
  std::lock_guard<std::mutex> guard(streamMutex);
  return clientAPITraceFilename != nullptr ? clientAPITraceFilename : defaultTraceFilename;
}

int clapiInitTrace(void) {
  clientAPITraceHandle = stderr;
  int lockRc = clapiInitializeLock(&traceLock);
  if (lockRc == kLockAlreadyInitialized) return 0;
  if (lockRc != kLockOk) return -121;  // QVA_ERR_LOCKFAIL
  clientAPITraceFilename = static_cast<char *>(std::malloc(kTraceFilenameSize));
  if (clientAPITraceFilename == nullptr) return -111;  // QVA_ERR_MALLOCFAIL
  std::memset(clientAPITraceFilename, 0, kTraceFilenameSize);
  std::strcpy(clientAPITraceFilename, defaultTraceFilename);
  return 0;
}

// ---- Time and identities ---------------------------------------------------

// Two-digit years are what every trace reader expects.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-y2k"

char *clapiGetTimestamp(char *buffer) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  size_t length = std::strftime(buffer, 23, "%d/%m/%y %H:%M:%S:", &local);
  std::snprintf(buffer + length, 4, "%.3d", static_cast<int>(now.tv_nsec / 1000000));
  return buffer;
}

char *clapiGetDate(char *buffer) {
  time_t now = std::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  std::strftime(buffer, 9, "%d/%m/%y", &local);
  return buffer;
}

#pragma GCC diagnostic pop

namespace {

// The process id, read once and again in the child of every fork: every
// token check asks for it, and getpid is a system call each time.
std::atomic<pid_t> cachedPid{0};

void refreshPidInChild() { cachedPid.store(getpid(), std::memory_order_relaxed); }

pid_t currentPid() {
  pid_t pid = cachedPid.load(std::memory_order_relaxed);
  if (pid == 0) {
    static const bool registered = pthread_atfork(nullptr, nullptr, refreshPidInChild) == 0;
    pid = getpid();
    // Without the fork handler a cached id could outlive a fork.
    if (registered) cachedPid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

}  // namespace

void clapiGetPidTid(uint32_t *pid, uint32_t *tid) {
  if (pid != nullptr) *pid = static_cast<uint32_t>(currentPid());
  if (tid != nullptr) *tid = static_cast<uint32_t>(pthread_self());
}

int clapiCompareTids(pthread_t tid1, pthread_t tid2) { return pthread_equal(tid1, tid2) ? 1 : 0; }

// ---- Storage dumps ---------------------------------------------------------

namespace {

// Whether the slot at p still shows data: by count, or, with a remaining
// count of 0, until the 32-bit word at p equals the stop word.
bool slotHasData(const uint8_t *p, uint32_t index, int32_t remaining, uint32_t stopWord) {
  if (remaining != 0) return static_cast<int64_t>(index) < remaining;
  uint32_t word;
  std::memcpy(&word, p, sizeof word);
  return word != stopWord;
}

}  // namespace

int clapiWriteStorageLineHex(const uint8_t *data, uint32_t bytesPerLine, int32_t remaining, uint32_t stopWord,
                             int /*flag*/) {
  FILE *out = currentStream();
  int shown = 0;
  bool more = true;
  for (uint32_t slot = 1; slot <= bytesPerLine; ++slot) {
    const uint8_t *p = data + (slot - 1);
    more = more && slotHasData(p, slot - 1, remaining, stopWord);
    if (more) {
      std::fprintf(out, "%2.2X", *p);
      ++shown;
    } else {
      std::fputs("  ", out);
    }
    if (slot != bytesPerLine) {
      if (slot % 4 == 0) std::fputc(' ', out);
      if (slot % 16 == 0) std::fputc(' ', out);
    }
  }
  return shown;
}

int clapiWriteStorageLineChar(const uint8_t *data, uint32_t bytesPerLine, int32_t remaining, uint32_t stopWord,
                              int /*flag*/) {
  FILE *out = currentStream();
  int shown = 0;
  for (uint32_t slot = 1; slot <= bytesPerLine; ++slot) {
    const uint8_t *p = data + (slot - 1);
    if (!slotHasData(p, slot - 1, remaining, stopWord)) break;
    std::fputc(std::isprint(*p) ? *p : '.', out);
    ++shown;
    if (slot % 16 == 0) std::fputc(' ', out);
  }
  return shown;
}

int clapiWriteStorageLineDual(const uint8_t *data, uint32_t bytesPerLine, int32_t remaining, uint32_t stopWord,
                              int flag) {
  int shown = clapiWriteStorageLineHex(data, bytesPerLine, remaining, stopWord, flag);
  std::fputs(" : ", currentStream());
  clapiWriteStorageLineChar(data, bytesPerLine, remaining, stopWord, flag);
  std::fputc('\n', currentStream());
  return shown;
}

uint32_t clapiTraceOutStorage(const void *data, uint32_t length, uint32_t stopWord, uint32_t bytesPerLine, int flag) {
  FILE *out = currentStream();
  std::fprintf(out, "Data truncation size=%lu, offset=%lu\n", static_cast<unsigned long>(clientAPIDataTrunc),
               static_cast<unsigned long>(clientAPIDataOffset));
  // An offset at or past the end dumps nothing; without the test a huge
  // offset would wrap the difference round to a small positive count.
  int32_t count = clientAPIDataOffset >= length ? 0 : static_cast<int32_t>(length - clientAPIDataOffset);
  int32_t truncation = static_cast<int32_t>(clientAPIDataTrunc);
  if (truncation != 0 && count > truncation) count = truncation;
  uint32_t total = 0;
  if (count > 0 && data != nullptr) {
    const uint8_t *line = static_cast<const uint8_t *>(data) + clientAPIDataOffset;
    while (count > 0) {
      std::fprintf(out, "0x%8.8X: ", low32(line));
      int shown = clapiWriteStorageLineDual(line, bytesPerLine, count, stopWord, flag);
      if (shown <= 0) break;  // zero bytes per line would never advance
      line += shown;
      total += static_cast<uint32_t>(shown);
      count -= shown;
    }
  }
  std::fflush(out);
  return total;
}

// ---- Guarded allocation ----------------------------------------------------

namespace {

constexpr char kPrefixGuard[4] = {'P', 'F', '>', '>'};
constexpr char kSuffixGuard[4] = {'<', '<', 'S', 'F'};
constexpr size_t kHeaderSize = 12;  // length, tag, prefix guard
// The 12-byte header sits right before the data; 4 leading pad bytes keep
// the data 16-byte aligned, so records with pointers may live in a block.
constexpr size_t kLead = 16;

uint8_t *blockBase(uint8_t *data) { return data - kLead; }

// A large container is filled straight from the socket. Faulting its fresh
// pages in 4 KiB at a time costs more than moving the bytes over loopback,
// so large blocks ask for huge pages where the system gives them on request.
void adviseHugePages(uint8_t *base, size_t total) {
  constexpr size_t kLarge = size_t{1} << 20;
  if (total < kLarge) return;
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t from = (reinterpret_cast<uintptr_t>(base) + page - 1) & ~(page - 1);
  const uintptr_t to = (reinterpret_cast<uintptr_t>(base) + total) & ~(page - 1);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address rounded to a page for madvise, never dereferenced
  if (to > from) madvise(reinterpret_cast<void *>(from), to - from, MADV_HUGEPAGE);
}

}  // namespace

void setAllocFailHook(AllocFailHook hook) { allocFailHook = hook; }

void *plainMalloc(size_t length, const char *tag) {
  if (allocFailHook != nullptr && allocFailHook(static_cast<uint32_t>(length), tag)) return nullptr;
  return std::malloc(length);
}

void *clapiMalloc(uint32_t length, const char *tag) {
  if (allocFailHook != nullptr && allocFailHook(length, tag)) return nullptr;
  const size_t total = kLead + size_t{length} + sizeof kSuffixGuard;
  auto *base = static_cast<uint8_t *>(std::malloc(total));
  if (base == nullptr) return nullptr;
  adviseHugePages(base, total);
  uint8_t *data = base + kLead;
  uint8_t *header = data - kHeaderSize;
  std::memset(base, 0, kLead - kHeaderSize);
  std::memcpy(header, &length, 4);
  char tagBytes[4] = {0, 0, 0, 0};
  if (tag != nullptr) std::memcpy(tagBytes, tag, strnlen(tag, 4));
  std::memcpy(header + 4, tagBytes, 4);
  std::memcpy(header + 8, kPrefixGuard, 4);
  std::memcpy(data + length, kSuffixGuard, 4);
  return data;
}

int clapiFree(void *dataPtr) {
  if (dataPtr == nullptr) {
    TRACE_EXC(9999, "clapiFree Null buffer, nothing freed\n");
    return -9;  // QVA_ERR_SYSTEM_ERROR
  }
  auto *data = static_cast<uint8_t *>(dataPtr);
  uint8_t *header = data - kHeaderSize;
  uint8_t *base = blockBase(data);
  std::memcpy(header + 4, "    ", 4);
  uint32_t length;
  std::memcpy(&length, header, 4);
  int rc = 0;
  if (std::memcmp(header + 8, kPrefixGuard, 4) != 0) {
    TRACE_EXC(9999, "clapiFree Prefix not intact, buffer %p (len=%lu) corrupted\n", dataPtr,
              static_cast<unsigned long>(length));
    rc = -9;
  } else if (kLead + size_t{length} + sizeof kSuffixGuard > malloc_usable_size(base) ||
             std::memcmp(data + length, kSuffixGuard, 4) != 0) {
    // A damaged length word is reported as a damaged suffix without reading
    // past the block it came with.
    TRACE_EXC(9999, "clapiFree Suffix not intact, buffer %p (len=%lu) corrupted\n", dataPtr,
              static_cast<unsigned long>(length));
    rc = -9;
  }
  std::free(base);
  return rc;
}
