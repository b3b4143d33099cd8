/* The C library's system-call wrappers that a socket client could use,
 * interposed in the benchmark executable: each counts one call on the
 * calling thread while that thread counts, then forwards to the C library's
 * own function, found once at start-up with dlsym(RTLD_NEXT). The build
 * exports every name listed here (-Wl,--export-dynamic-symbol), so that the
 * shared library's calls reach these definitions too. */
#undef _FORTIFY_SOURCE /* the checked kinds are defined here, not inlined from the headers */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include "syscall_counter.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QVA_SYSCALL_COUNTER_OFF 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QVA_SYSCALL_COUNTER_OFF 1
#endif
#endif

#ifdef QVA_SYSCALL_COUNTER_OFF

/* The sanitizers intercept these functions themselves; the count is
 * reported as unavailable. */
int syscallCounterAvailable(void) { return 0; }
void syscallCounterStart(void) {}
uint64_t syscallCounterStop(void) { return 0; }
size_t syscallCounterFunctions(void) { return 0; }
const char *syscallCounterName(size_t function) {
  (void)function;
  return "";
}
enum SyscallKind syscallCounterKind(size_t function) {
  (void)function;
  return SYSCALL_OTHER;
}
uint64_t syscallCounterCount(size_t function) {
  (void)function;
  return 0;
}

#else

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

/* Declared by the headers only under _FORTIFY_SOURCE; fortified code calls
 * these in place of recv, recvfrom, read, poll and ppoll. */
ssize_t __recv_chk(int fd, void *buf, size_t len, size_t buflen, int flags);
ssize_t __recvfrom_chk(int fd, void *buf, size_t len, size_t buflen, int flags, struct sockaddr *from,
                       socklen_t *fromlen);
ssize_t __read_chk(int fd, void *buf, size_t nbytes, size_t buflen);
int __poll_chk(struct pollfd *fds, nfds_t nfds, int timeout, size_t fdslen);
int __ppoll_chk(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout, const sigset_t *ss, size_t fdslen);

/* Every interposed function with its family. bench/CMakeLists.txt exports
 * the same names. */
#define QVA_COUNTED_FUNCTIONS(X)  \
  X(send, SYSCALL_SEND)           \
  X(sendto, SYSCALL_SEND)         \
  X(sendmsg, SYSCALL_SEND)        \
  X(sendmmsg, SYSCALL_SEND)       \
  X(write, SYSCALL_SEND)          \
  X(writev, SYSCALL_SEND)         \
  X(recv, SYSCALL_RECV)           \
  X(recvfrom, SYSCALL_RECV)       \
  X(recvmsg, SYSCALL_RECV)        \
  X(recvmmsg, SYSCALL_RECV)       \
  X(read, SYSCALL_RECV)           \
  X(readv, SYSCALL_RECV)          \
  X(__recv_chk, SYSCALL_RECV)     \
  X(__recvfrom_chk, SYSCALL_RECV) \
  X(__read_chk, SYSCALL_RECV)     \
  X(poll, SYSCALL_WAIT)           \
  X(ppoll, SYSCALL_WAIT)          \
  X(__poll_chk, SYSCALL_WAIT)     \
  X(__ppoll_chk, SYSCALL_WAIT)    \
  X(select, SYSCALL_WAIT)         \
  X(pselect, SYSCALL_WAIT)        \
  X(epoll_wait, SYSCALL_WAIT)     \
  X(epoll_pwait, SYSCALL_WAIT)    \
  X(ioctl, SYSCALL_OTHER)         \
  X(getsockopt, SYSCALL_OTHER)    \
  X(setsockopt, SYSCALL_OTHER)    \
  X(shutdown, SYSCALL_OTHER)      \
  X(close, SYSCALL_OTHER)         \
  X(getpid, SYSCALL_OTHER)        \
  X(syscall, SYSCALL_OTHER)

#define QVA_ENUM(name, kind) F_##name,
enum { QVA_COUNTED_FUNCTIONS(QVA_ENUM) F_COUNT };
#undef QVA_ENUM

#define QVA_NAME(name, kind) #name,
static const char *const names[F_COUNT] = {QVA_COUNTED_FUNCTIONS(QVA_NAME)};
#undef QVA_NAME

#define QVA_KIND(name, kind) kind,
static const enum SyscallKind kinds[F_COUNT] = {QVA_COUNTED_FUNCTIONS(QVA_KIND)};
#undef QVA_KIND

/* The C library's functions, by the same index. */
static void *real[F_COUNT];

/* initial-exec: reaching the counts must never allocate nor call anything
 * that is counted. */
static __thread int counting __attribute__((tls_model("initial-exec")));
static __thread uint64_t counts[F_COUNT] __attribute__((tls_model("initial-exec")));

static void *lookUp(int function) {
  void *p = dlsym(RTLD_NEXT, names[function]);
  if (p == NULL) {
    /* Nothing to forward to: the call cannot be made at all. */
    fprintf(stderr, "syscall_counter: the C library has no %s\n", names[function]);
    abort();
  }
  __atomic_store_n(&real[function], p, __ATOMIC_RELEASE);
  return p;
}

/* Each is looked up once, before main. A call that comes earlier still (from
 * another constructor) looks its function up itself. */
__attribute__((constructor)) static void lookUpAll(void) {
  for (int f = 0; f < F_COUNT; ++f)
    if (__atomic_load_n(&real[f], __ATOMIC_ACQUIRE) == NULL) lookUp(f);
}

static void *resolved(int function) {
  void *p = __atomic_load_n(&real[function], __ATOMIC_ACQUIRE);
  return p != NULL ? p : lookUp(function);
}

#define REAL(name) ((__typeof__(&name))resolved(F_##name))

static inline void note(int function) {
  if (counting) ++counts[function];
}

int syscallCounterAvailable(void) { return 1; }

void syscallCounterStart(void) {
  for (int f = 0; f < F_COUNT; ++f) counts[f] = 0;
  counting = 1;
}

uint64_t syscallCounterStop(void) {
  counting = 0;
  uint64_t total = 0;
  for (int f = 0; f < F_COUNT; ++f) total += counts[f];
  return total;
}

size_t syscallCounterFunctions(void) { return F_COUNT; }

const char *syscallCounterName(size_t function) { return function < F_COUNT ? names[function] : ""; }

enum SyscallKind syscallCounterKind(size_t function) { return function < F_COUNT ? kinds[function] : SYSCALL_OTHER; }

uint64_t syscallCounterCount(size_t function) { return function < F_COUNT ? counts[function] : 0; }

/* ---- Sending -------------------------------------------------------------- */

ssize_t send(int fd, const void *buf, size_t len, int flags) {
  note(F_send);
  return REAL(send)(fd, buf, len, flags);
}

ssize_t sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen) {
  note(F_sendto);
  return REAL(sendto)(fd, buf, len, flags, to, tolen);
}

ssize_t sendmsg(int fd, const struct msghdr *message, int flags) {
  note(F_sendmsg);
  return REAL(sendmsg)(fd, message, flags);
}

int sendmmsg(int fd, struct mmsghdr *messages, unsigned int count, int flags) {
  note(F_sendmmsg);
  return REAL(sendmmsg)(fd, messages, count, flags);
}

ssize_t write(int fd, const void *buf, size_t count) {
  note(F_write);
  return REAL(write)(fd, buf, count);
}

ssize_t writev(int fd, const struct iovec *iov, int count) {
  note(F_writev);
  return REAL(writev)(fd, iov, count);
}

/* ---- Receiving ------------------------------------------------------------ */

ssize_t recv(int fd, void *buf, size_t len, int flags) {
  note(F_recv);
  return REAL(recv)(fd, buf, len, flags);
}

ssize_t recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen) {
  note(F_recvfrom);
  return REAL(recvfrom)(fd, buf, len, flags, from, fromlen);
}

ssize_t recvmsg(int fd, struct msghdr *message, int flags) {
  note(F_recvmsg);
  return REAL(recvmsg)(fd, message, flags);
}

int recvmmsg(int fd, struct mmsghdr *messages, unsigned int count, int flags, struct timespec *timeout) {
  note(F_recvmmsg);
  return REAL(recvmmsg)(fd, messages, count, flags, timeout);
}

ssize_t read(int fd, void *buf, size_t count) {
  note(F_read);
  return REAL(read)(fd, buf, count);
}

ssize_t readv(int fd, const struct iovec *iov, int count) {
  note(F_readv);
  return REAL(readv)(fd, iov, count);
}

ssize_t __recv_chk(int fd, void *buf, size_t len, size_t buflen, int flags) {
  note(F___recv_chk);
  return REAL(__recv_chk)(fd, buf, len, buflen, flags);
}

ssize_t __recvfrom_chk(int fd, void *buf, size_t len, size_t buflen, int flags, struct sockaddr *from,
                       socklen_t *fromlen) {
  note(F___recvfrom_chk);
  return REAL(__recvfrom_chk)(fd, buf, len, buflen, flags, from, fromlen);
}

ssize_t __read_chk(int fd, void *buf, size_t nbytes, size_t buflen) {
  note(F___read_chk);
  return REAL(__read_chk)(fd, buf, nbytes, buflen);
}

/* ---- Waiting -------------------------------------------------------------- */

int poll(struct pollfd *fds, nfds_t nfds, int timeout) {
  note(F_poll);
  return REAL(poll)(fds, nfds, timeout);
}

int ppoll(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout, const sigset_t *mask) {
  note(F_ppoll);
  return REAL(ppoll)(fds, nfds, timeout, mask);
}

int __poll_chk(struct pollfd *fds, nfds_t nfds, int timeout, size_t fdslen) {
  note(F___poll_chk);
  return REAL(__poll_chk)(fds, nfds, timeout, fdslen);
}

int __ppoll_chk(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout, const sigset_t *ss, size_t fdslen) {
  note(F___ppoll_chk);
  return REAL(__ppoll_chk)(fds, nfds, timeout, ss, fdslen);
}

int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout) {
  note(F_select);
  return REAL(select)(nfds, readfds, writefds, exceptfds, timeout);
}

int pselect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, const struct timespec *timeout,
            const sigset_t *mask) {
  note(F_pselect);
  return REAL(pselect)(nfds, readfds, writefds, exceptfds, timeout, mask);
}

int epoll_wait(int epfd, struct epoll_event *events, int maxevents, int timeout) {
  note(F_epoll_wait);
  return REAL(epoll_wait)(epfd, events, maxevents, timeout);
}

int epoll_pwait(int epfd, struct epoll_event *events, int maxevents, int timeout, const sigset_t *mask) {
  note(F_epoll_pwait);
  return REAL(epoll_pwait)(epfd, events, maxevents, timeout, mask);
}

/* ---- Others --------------------------------------------------------------- */

/* The optional argument is taken as a pointer, as the C library reads it
 * itself. */
int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  note(F_ioctl);
  return REAL(ioctl)(fd, request, arg);
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *length) {
  note(F_getsockopt);
  return REAL(getsockopt)(fd, level, name, value, length);
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t length) {
  note(F_setsockopt);
  return REAL(setsockopt)(fd, level, name, value, length);
}

int shutdown(int fd, int how) {
  note(F_shutdown);
  return REAL(shutdown)(fd, how);
}

int close(int fd) {
  note(F_close);
  return REAL(close)(fd);
}

pid_t getpid(void) {
  note(F_getpid);
  return REAL(getpid)();
}

/* Six arguments, as many as the kernel takes; those the call does not use
 * are passed on as they are and ignored. */
long syscall(long number, ...) {
  va_list ap;
  va_start(ap, number);
  long a[6];
  for (int i = 0; i < 6; ++i) a[i] = va_arg(ap, long);
  va_end(ap);
  note(F_syscall);
  return REAL(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

#endif
