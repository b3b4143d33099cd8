// The Gateway's shared state: the listener (listener.cpp) accepts connections
// into it, each connection's thread (connection.cpp) serves one of them.
#ifndef QVAEMU_GATEWAY_IMPL_H
#define QVAEMU_GATEWAY_IMPL_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "eci.h"
#include "qvaemu/gateway.h"

namespace qvaemu {

struct Connection {
  size_t index = 0;
  FaultPlan plan;  // fixed at accept
  // Guarded by Gateway::Impl::mutex. fd is closed only by the connection's own
  // thread, under the mutex, so a drop never shuts down a reused descriptor.
  int fd = -1;
  std::vector<uint8_t> received;
  size_t receivedCount = 0;
  bool peerClosed = false;
  bool dropped = false;
  bool done = false;
  std::thread thread;
};

struct Gateway::Impl {
  explicit Impl(Options o);

  Options options;
  eci::Config config;
  std::atomic<int32_t> tokenSource{0x00010001};
  std::atomic<uint16_t> port{0};

  std::mutex lifecycle;        // serialises start() and stop()
  bool started = false;        // guarded by lifecycle
  bool running = false;        // guarded by lifecycle
  std::vector<int> listenFds;  // guarded by lifecycle; the accept thread only reads them
  int wakePipe[2] = {-1, -1};
  std::thread acceptThread;

  mutable std::mutex mutex;
  mutable std::condition_variable cv;
  bool stopping = false;
  std::vector<std::shared_ptr<Connection>> connections;
  FaultPlan pendingFault;

  std::mutex logMutex;

  bool bindAll(std::string* error);
  void acceptLoop();
  void accept(int listenFd);
  void serve(const std::shared_ptr<Connection>& c);  // the connection's thread
  void log(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

void closeFd(int& fd);

}  // namespace qvaemu

#endif
