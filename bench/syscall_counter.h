/* Counts the calls one thread makes to the C library's wrappers of the
 * system calls a client could use on its socket (the send, receive and wait
 * families, and a few others), while it asks for it. Like the allocation
 * counter, the wrappers are defined in the benchmark executable and exported,
 * so the shared library's calls reach them; the emulator's threads are never
 * counted. What is counted is calls of these functions, one per call: a
 * system call the C library makes by itself (clock_gettime outside the vDSO,
 * a futex under contention) is not seen, which is why the figures were
 * checked once against strace (bench/RESULTS.md). */
#ifndef QVA_BENCH_SYSCALL_COUNTER_H
#define QVA_BENCH_SYSCALL_COUNTER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The family of each counted function. */
enum SyscallKind {
  SYSCALL_SEND = 0,  /* send, sendto, sendmsg, sendmmsg, write, writev */
  SYSCALL_RECV = 1,  /* recv, recvfrom, recvmsg, recvmmsg, read, readv and the checked kinds */
  SYSCALL_WAIT = 2,  /* poll, ppoll, select, pselect, epoll_wait, epoll_pwait */
  SYSCALL_OTHER = 3, /* ioctl, getsockopt, setsockopt, shutdown, close, getpid, syscall */
  SYSCALL_KINDS = 4
};

/* 0 where the functions are not ours to interpose (sanitizer builds, whose
 * runtimes intercept them themselves). */
int syscallCounterAvailable(void);

/* Starts counting the calling thread's calls from zero. */
void syscallCounterStart(void);

/* Stops counting; returns the number of counted calls since the start. */
uint64_t syscallCounterStop(void);

/* The counted functions, by index from 0 to syscallCounterFunctions() - 1:
 * the name, the family, and the calls since the last start (on the calling
 * thread). */
size_t syscallCounterFunctions(void);
const char *syscallCounterName(size_t function);
enum SyscallKind syscallCounterKind(size_t function);
uint64_t syscallCounterCount(size_t function);

#ifdef __cplusplus
}
#endif

#endif /* QVA_BENCH_SYSCALL_COUNTER_H */
