/* Counts the heap allocations of one thread while it asks for it, so that a
 * benchmark can pin how many the library makes per call while the emulator's
 * threads allocate as they please. */
#ifndef QVA_BENCH_ALLOC_COUNTER_H
#define QVA_BENCH_ALLOC_COUNTER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 0 where malloc is not ours to interpose (sanitizer builds). */
int allocCounterAvailable(void);

/* Starts counting the calling thread's allocations from zero. */
void allocCounterStart(void);

/* Stops counting; returns the number of allocations (malloc, calloc,
 * realloc and the aligned kinds) the thread made since the start. */
uint64_t allocCounterStop(void);

#ifdef __cplusplus
}
#endif

#endif /* QVA_BENCH_ALLOC_COUNTER_H */
