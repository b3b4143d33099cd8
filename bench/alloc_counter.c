/* malloc and its kin, interposed in the benchmark executable: the library,
 * libstdc++ and libc all reach these, so nothing the calling thread
 * allocates escapes the count. Each forwards to glibc's own allocator. */
#include "alloc_counter.h"

#include <stddef.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QVA_ALLOC_COUNTER_OFF 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QVA_ALLOC_COUNTER_OFF 1
#endif
#endif

#ifdef QVA_ALLOC_COUNTER_OFF

/* The sanitizers own malloc; the count is reported as unavailable. */
int allocCounterAvailable(void) { return 0; }
void allocCounterStart(void) {}
uint64_t allocCounterStop(void) { return 0; }

#else

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *ptr, size_t size);
extern void *__libc_memalign(size_t alignment, size_t size);
extern void __libc_free(void *ptr);

/* initial-exec: reaching the flag must never allocate, or malloc would
 * recurse into itself. */
static __thread int counting __attribute__((tls_model("initial-exec")));
static __thread uint64_t allocations __attribute__((tls_model("initial-exec")));

int allocCounterAvailable(void) { return 1; }

void allocCounterStart(void) {
  allocations = 0;
  counting = 1;
}

uint64_t allocCounterStop(void) {
  counting = 0;
  return allocations;
}

static void note(void) {
  if (counting) ++allocations;
}

void *malloc(size_t size) {
  note();
  return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  note();
  return __libc_calloc(count, size);
}

void *realloc(void *ptr, size_t size) {
  note();
  return __libc_realloc(ptr, size);
}

void *memalign(size_t alignment, size_t size) {
  note();
  return __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size) {
  note();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void **result, size_t alignment, size_t size) {
  /* The checks glibc makes: a power of two that is a multiple of a pointer. */
  if (alignment % sizeof(void *) != 0 || (alignment & (alignment - 1)) != 0) return 22; /* EINVAL */
  note();
  void *p = __libc_memalign(alignment, size);
  if (p == NULL) return 12; /* ENOMEM */
  *result = p;
  return 0;
}

void free(void *ptr) { __libc_free(ptr); }

#endif
