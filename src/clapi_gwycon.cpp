// Opening and closing the TCP connection to a Gateway.

#include "clapi_gwycon.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "clapi_diag.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"

int sockOptOn = 1;
int sockOptOff = 0;

namespace {

// By default FIONBIO is given the option's value, not its address, as it
// always has been: kept on purpose. On Linux the request then fails with
// EFAULT and the socket stays blocking, which is the connect behaviour
// applications rely on. The raw system call keeps sanitizer interceptors from
// dereferencing the value. forReal passes the address, and the mode changes.
void setNonBlocking(int socketDesc, int &option, bool forReal) {
  if (forReal) {
    ioctl(socketDesc, FIONBIO, &option);
  } else {
    syscall(SYS_ioctl, socketDesc, FIONBIO, static_cast<long>(option));
  }
}

// Waits for a connect in progress; kConnectOk, kConnectTimedOut or
// kConnectFailed. An interrupted wait resumes with the time that is left, or
// in one-second steps once that is spent: EINTR never abandons it.
int waitForConnection(int socketDesc, int connTimeout) {
  TRACE_DEBUG(2006, "clapi_gwycon.clapiConnectToGateway Waiting for connect to complete\n");
  int waitSeconds = connTimeout;
  time_t start = std::time(nullptr);
  for (;;) {
    TRACE_DEBUG(2007, "clapi_gwycon.waitForConnection Calling select() on socketdescriptor %d\n", socketDesc);
    pollfd watched{socketDesc, POLLOUT, 0};
    int ready = poll(&watched, 1, connTimeout != 0 ? waitSeconds * 1000 : -1);
    if (ready < 0 && errno == EINTR) {
      int elapsed = static_cast<int>(std::difftime(std::time(nullptr), start));
      waitSeconds = (elapsed > 0 && elapsed < connTimeout) ? connTimeout - elapsed : 1;
      continue;
    }
    if (ready < 0) {
      TRACE_EXC(2008, "clapi_gwycon.waitForConnection select call failed with error %d\n", errno);
      return kConnectFailed;
    }
    if (ready == 0) {
      TRACE_EXC(2009, "clapi_gwycon.waitForConnection socket %d connect timed out\n", socketDesc);
      errno = ETIMEDOUT;
      return kConnectTimedOut;
    }
    int soError = 0;
    socklen_t length = sizeof soError;
    if (getsockopt(socketDesc, SOL_SOCKET, SO_ERROR, &soError, &length) != 0) soError = errno;
    if (soError != 0) {
      TRACE_EXC(2010, "clapi_gwycon.waitForConnection socket %d connect() failed error %d\n", socketDesc, soError);
      errno = soError;
      return kConnectFailed;
    }
    return kConnectOk;
  }
}

// The text std::strerror gives for an errno value, without its buffer: that
// may be shared by every thread (glibc documents strerror as MT-Unsafe), and
// connections are opened on many threads at once. strerror_r fills one of
// ours; the temporary lives until the end of the trace call that names it.
// The GNU strerror_r returns the text, the POSIX one an int: one of the two
// overloads below is unused with any given C library.
[[maybe_unused]] const char *chosenText(int /*posixRc*/, const char *buffer) { return buffer; }
[[maybe_unused]] const char *chosenText(const char *gnuText, const char * /*buffer*/) { return gnuText; }
struct ErrnoText {
  explicit ErrnoText(int error) : text(chosenText(strerror_r(error, buffer, sizeof buffer), buffer)) {}
  char buffer[256];
  const char *text;
};

int connectAndGreet(const addrinfo *address, int port, const char *ipAddr, int *socketDescriptorPtr, int connTimeout) {
  TRACE_DEBUG(2002, "clapi_gwycon.clapiConnectToGateway Creating socket for family %d, type %d, protocol %d\n",
              address->ai_family, address->ai_socktype, address->ai_protocol);
  int socketDesc = socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
  *socketDescriptorPtr = socketDesc;
  if (socketDesc < 0) {
    int error = errno;
    TRACE_EXC(2003, "clapi_gwycon.clapiConnectToGateway Unable to create a socket: %s(%d)\n", ErrnoText(error).text,
              error);
    return kConnectNoSocket;
  }
  int on = 1;
  if (setsockopt(socketDesc, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0 ||
      setsockopt(socketDesc, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    TRACE_DEBUG(2004, "clapi_gwycon.clapiConnectToGateway Set socket to KeepAlive or NoDelay failed: %d\n", socketDesc);
    return kConnectNoSocket;
  }
  TRACE_DEBUG(2005, "clapi_gwycon.clapiConnectToGateway Created socket: %d\n", socketDesc);

  // connTimeout is honoured only where the application opted in to the reply
  // deadline: the socket is then really non-blocking while it connects, and
  // blocking again before the handshake. A connect that fails leaves the
  // socket as it is: the token list makes it non-blocking for the close flow
  // that follows, whichever way the connect failed.
  const bool honourTimeout = connTimeout > 0 && clapiGetReplyTimeout() > 0;
  if (connTimeout != 0) setNonBlocking(socketDesc, sockOptOn, honourTimeout);
  int code = kConnectOk;
  if (connect(socketDesc, address->ai_addr, address->ai_addrlen) != 0) {
    // An interrupted connect goes on in the background, like one in progress.
    code = (errno == EINPROGRESS || errno == EINTR) ? waitForConnection(socketDesc, connTimeout) : kConnectFailed;
  }
  if (code != kConnectOk) {
    int error = errno;
    TRACE_EXC(2011, "clapi_gwycon.clapiConnectToGatewayUnable to connect to Gateway: %s\n", ErrnoText(error).text);
    return code == kConnectTimedOut ? kConnectTimedOut : kConnectFailed;
  }
  TRACE_DEBUG(2012, "clapi_gwycon.clapiConnectToGatewayConnected to Gateway %s:%u\n",
              ipAddr != nullptr ? ipAddr : "NULL", static_cast<unsigned>(port));
  if (connTimeout != 0) setNonBlocking(socketDesc, sockOptOff, honourTimeout);

  // Nothing fills the Gateway's own codes on this path; they are shown as 0.
  int32_t reasons = 0;
  int32_t gwyRc = 0;
  int32_t authRc = 0;
  int flowRc = clapiFlowHandshakeRequest(socketDesc, &reasons);
  if (flowRc != 0) {
    TRACE_EXC(2014, "clapi_gwycon.clapiConnectToGatewayHandshake flows failed rc=%d errno=%s gwyRc=%d authRc=%d\n",
              flowRc, ErrnoText(reasons).text, gwyRc, authRc);
    return kConnectFailed;
  }
  TRACE_DEBUG(2013, "clapi_gwycon.clapiConnectToGatewayFlowed Handshake to the Gateway\n");
  return kConnectOk;
}

}  // namespace

int clapiConnectToGateway(int port, const char *ipAddr, int *socketDescriptorPtr, int connTimeout) {
  TRACE_ENTRY(2000, "clapi_gwycon.clapiConnectToGateway(port=%d, ipAddr=%p, socketDescriptorPtr=%p, connTimeout=%d)\n",
              port, addr(ipAddr), addr(socketDescriptorPtr), connTimeout);
  char service[12] = {};
  std::snprintf(service, sizeof service, "%d", port);
  addrinfo hints{};
  hints.ai_flags = AI_ALL | AI_ADDRCONFIG;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *resolved = nullptr;
  int rc;
  int gaiRc = getaddrinfo(ipAddr, service, &hints, &resolved);
  if (gaiRc != 0) {
    TRACE_EXC(2001, "clapi_gwycon.getHostInfoUnable to resolve host (%s:%s): %s(%d)\n",
              ipAddr != nullptr ? ipAddr : "NULL", service, gai_strerror(gaiRc), gaiRc);
    rc = kConnectBadHost;
  } else {
    // Only the first address is tried.
    rc = connectAndGreet(resolved, port, ipAddr, socketDescriptorPtr, connTimeout);
    freeaddrinfo(resolved);
  }
  TRACE_EXIT(2015, "clapi_gwycon.clapiConnectToGateway(port=%d, ipAddr=%p, socketDescriptorPtr=%p) connectRc=%d\n",
             port, addr(ipAddr), addr(socketDescriptorPtr), rc);
  return rc;
}

int clapiCloseConnection(int *socketDescriptorPtr) {
  TRACE_ENTRY(2016, "clapi_gwycon.clapiCloseConnection(socketDescriptorPtr=%p)\n", addr(socketDescriptorPtr));
  int closeRc = -1;
  if (*socketDescriptorPtr >= 0) {
    int32_t reasons = 0;
    clapiFlowCloseRequest(*socketDescriptorPtr, &reasons);
    closeRc = close(*socketDescriptorPtr);
    *socketDescriptorPtr = -1;
  }
  TRACE_EXIT(2017, "clapi_gwycon.clapiCloseConnection(socketDescriptorPtr=%p) closeConnectionRc=%d\n",
             addr(socketDescriptorPtr), closeRc);
  return closeRc;
}
