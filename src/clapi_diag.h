// Trace writer, storage dumps, timestamps, thread identities and the guarded
// allocator. Every other module traces through this one.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "clapi_export.h"
#include "clapi_lock.h"

// ---- Trace settings (guarded by traceLock when changed) -------------------

// The level is read without the lock before every trace point, so it is an
// atomic: a level test stays one relaxed load.
extern std::atomic<int32_t> clientAPITrace;
extern FILE *clientAPITraceHandle;
extern char *clientAPITraceFilename;
extern const char *const defaultTraceFilename;
extern uint32_t clientAPIDataOffset;
extern uint32_t clientAPIDataTrunc;
extern int32_t traceHeaderWrite;
extern ClapiLock traceLock;

inline constexpr int kTraceFilenameSize = 1024;

inline constexpr int kTraceExc = 1;
inline constexpr int kTraceEvent = 2;
inline constexpr int kTraceEntryExit = 3;
inline constexpr int kTraceDebug = 4;
inline constexpr int kTraceLocks = 5;

inline bool traceOn(int threshold) { return clientAPITrace.load(std::memory_order_relaxed) >= threshold; }

// Writes one trace line under traceLock. Callers test the level first (the
// macros below do), so a disabled trace point costs one comparison.
CLAPI_EXPORT void clapiTrace(int point, const char *word, const char *fmt, ...) CLAPI_PRINTF(3, 4);

// A "DATA" line followed by the storage dump of the block, both under one
// hold of traceLock so that they stay together.
CLAPI_EXPORT void clapiTraceData(int point, const void *data, uint32_t length, const char *fmt, ...) CLAPI_PRINTF(4, 5);

// The lock module's own lines: same format, written without traceLock,
// because traceLock is itself one of its locks.
void clapiTraceWithoutLock(int point, const char *word, const char *fmt, ...) CLAPI_PRINTF(3, 4);

// Lines without the prefix (banner, dumps, state line).
void clapiTraceRaw(const char *fmt, ...) CLAPI_PRINTF(1, 2);

// Makes stream the trace destination under the name given; the caller holds
// traceLock. Returns the stream that was current before.
FILE *clapiSwitchTraceStream(FILE *stream, const char *name);

// A copy of the current destination's name, taken under the stream guard
// so that a concurrent switch cannot tear it.
std::string clapiTraceFilenameCopy();

// The two banner lines, showing the given level; the caller holds traceLock
// where the destination could change meanwhile.
void clapiWriteTraceBanner(int level);

#define CLAPI_TRACE(threshold, point, word, ...)                  \
  do {                                                            \
    if (traceOn(threshold)) clapiTrace(point, word, __VA_ARGS__); \
  } while (0)
#define TRACE_EXC(point, ...)   CLAPI_TRACE(kTraceExc, point, "*EXC*", __VA_ARGS__)
#define TRACE_EVENT(point, ...) CLAPI_TRACE(kTraceEvent, point, "EVENT", __VA_ARGS__)
#define TRACE_ENTRY(point, ...) CLAPI_TRACE(kTraceEntryExit, point, "ENTRY", __VA_ARGS__)
#define TRACE_EXIT(point, ...)  CLAPI_TRACE(kTraceEntryExit, point, "EXIT", __VA_ARGS__)
#define TRACE_DEBUG(point, ...) CLAPI_TRACE(kTraceDebug, point, "DEBUG", __VA_ARGS__)
#define TRACE_DATA(point, data, length, ...)                                    \
  do {                                                                          \
    if (traceOn(kTraceDebug)) clapiTraceData(point, data, length, __VA_ARGS__); \
  } while (0)

CLAPI_EXPORT int clapiInitTrace(void);

// ---- Time and identities ---------------------------------------------------

// "dd/mm/yy HH:MM:SS:mmm"; buffer of at least 22 characters.
CLAPI_EXPORT char *clapiGetTimestamp(char *buffer);
// "dd/mm/yy"; buffer of at least 9 characters.
CLAPI_EXPORT char *clapiGetDate(char *buffer);
// Process id and the low 32 bits of the thread id; either pointer may be null.
CLAPI_EXPORT void clapiGetPidTid(uint32_t *pid, uint32_t *tid);
CLAPI_EXPORT int clapiCompareTids(pthread_t tid1, pthread_t tid2);

// Formats that print 8 hex digits get the low 32 bits of a pointer.
inline uint32_t low32(const void *p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

// Trace arguments for %p and %lu, so that each argument has the exact type
// its conversion takes.
inline const void *addr(const void *p) { return p; }
inline unsigned long ul(uint32_t value) { return value; }

// ---- Storage dumps ---------------------------------------------------------

CLAPI_EXPORT uint32_t clapiTraceOutStorage(const void *data, uint32_t length, uint32_t stopWord, uint32_t bytesPerLine,
                                           int flag);
CLAPI_EXPORT int clapiWriteStorageLineDual(const uint8_t *data, uint32_t bytesPerLine, int32_t remaining,
                                           uint32_t stopWord, int flag);
CLAPI_EXPORT int clapiWriteStorageLineHex(const uint8_t *data, uint32_t bytesPerLine, int32_t remaining,
                                          uint32_t stopWord, int flag);
CLAPI_EXPORT int clapiWriteStorageLineChar(const uint8_t *data, uint32_t bytesPerLine, int32_t remaining,
                                           uint32_t stopWord, int flag);

// ---- Guarded allocation ----------------------------------------------------

// length, tag, "PF>>", data, "<<SF"; returns the data address or null.
CLAPI_EXPORT void *clapiMalloc(uint32_t length, const char *tag);
// Checks both guards, releases the block in every case; 0 or -9.
CLAPI_EXPORT int clapiFree(void *data);

// malloc for the blocks that carry no guards: the gateway token ("GTOK"),
// its protocol version text ("PVER") and the parameter-block copy of the
// ECI dumps ("EPRM"). Released with free.
void *plainMalloc(size_t length, const char *tag);

// Test seam: when set, clapiMalloc and plainMalloc ask it before each
// allocation and fail the allocation if it returns true.
using AllocFailHook = bool (*)(uint32_t length, const char *tag);
void setAllocFailHook(AllocFailHook hook);
