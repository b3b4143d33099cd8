#include "eci_workload.h"

#include <chrono>
#include <cstdio>
#include <string>

#include "bench_util.h"
#include "floor_client.h"
#include "qvaemu/gateway.h"
#include "syscall_counter.h"

namespace bench {

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kGateMagic = 0x47617465;  // "Gate"
constexpr size_t kReplyHeaderSize = 32;      // with the name "ECI"

Bytes payload(int size) {
  Bytes data(static_cast<size_t>(size));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>('A' + i % 26);
  return data;
}

// Connection 0 of the gateway; compared before the close flow follows.
bool checkLibrary(EciWorkloads &workloads, const qvaemu::Gateway &gateway, const Bytes &want) {
  QvaGatewayToken *gw = nullptr;
  int rc = QVA_openRemoteGatewayConnection("127.0.0.1", gateway.port(), &gw, 10);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "bench_eci: library connection to the recording emulator: rc=%d\n", rc);
    return false;
  }
  bool ok = true;
  SyscallTally counted;
  for (auto &[size, w] : workloads) {
    syscallCounterStart();
    rc = QVA_ECI_Execute(gw, &w->parms);
    syscallCounterStop();
    counted.add();
    if (rc != QVA_OK || w->libCommarea != w->data) {
      std::fprintf(stderr, "bench_eci: library call of %d bytes: rc=%d, COMMAREA %s\n", size, rc,
                   w->libCommarea == w->data ? "echoed" : "not echoed");
      ok = false;
    }
  }
  ok = checkReceived("bench_eci", gateway, 0, "the library", want, 10s) && ok;
  ok = checkLibraryCounted("bench_eci", counted) && ok;
  QVA_closeGatewayConnection(&gw);
  return ok;
}

// Connection 1 of the gateway.
bool checkRaw(EciWorkloads &workloads, const qvaemu::Gateway &gateway, const Bytes &want) {
  RawClient raw;
  std::string error;
  if (!raw.open(gateway.port(), &error)) {
    std::fprintf(stderr, "bench_eci: raw connection to the recording emulator: %s\n", error.c_str());
    return false;
  }
  bool ok = true;
  for (auto &[size, w] : workloads) {
    const int32_t replyRc = raw.call(w->request, w->rawCommarea.data(), w->rawCommarea.size());
    if (replyRc != 0 || w->rawCommarea != w->data) {
      std::fprintf(stderr, "bench_eci: raw call of %d bytes: rc=%d, COMMAREA %s\n", size, replyRc,
                   w->rawCommarea == w->data ? "echoed" : "not echoed");
      ok = false;
    }
  }
  return checkReceived("bench_eci", gateway, 1, "the raw client", want, 10s) && ok;
}

// Connection 2 of the gateway. The floor client parses nothing, so its
// replies are parsed here in full, outside any timing.
bool checkFloor(EciWorkloads &workloads, const qvaemu::Gateway &gateway, const Bytes &want) {
  FloorClient floor;
  std::string error;
  if (!floor.open(gateway.port(), &error)) {
    std::fprintf(stderr, "bench_eci: floor connection to the recording emulator: %s\n", error.c_str());
    return false;
  }
  bool ok = true;
  for (auto &[size, w] : workloads) {
    const int64_t got = floor.call(w->request);
    qvaraw::ProgramReply reply;
    const bool echoed = got > static_cast<int64_t>(kReplyHeaderSize) && qvaraw::get32(floor.reply()) == kGateMagic &&
                        qvaraw::parseProgramReply(floor.reply() + kReplyHeaderSize,
                                                  static_cast<size_t>(got) - kReplyHeaderSize, reply, true) &&
                        reply.replyRc == 0 && reply.data == w->data && reply.channelPresent == 0 && reply.flow.empty();
    if (!echoed) {
      std::fprintf(stderr, "bench_eci: floor call of %d bytes: %lld-byte reply, rc=%d, COMMAREA %s\n", size,
                   static_cast<long long>(got), reply.replyRc, reply.data == w->data ? "echoed" : "not echoed");
      ok = false;
      continue;
    }
    w->replySize = static_cast<size_t>(got);
  }
  return checkReceived("bench_eci", gateway, 2, "the floor client", want, 10s) && ok;
}

}  // namespace

EciWorkload::EciWorkload(int size) : data(payload(size)), libCommarea(data), rawCommarea(data) {
  qvaraw::Call call = programCall("ECHO");
  setParms(parms, call);
  parms.eci_commarea = libCommarea.data();
  parms.eci_commarea_length = static_cast<short>(size);
  call.commarea = data;
  request = qvaraw::request(call);
}

EciWorkloads makeEciWorkloads() {
  EciWorkloads all;
  for (int size : kCommareaSizes) all[size] = std::make_unique<EciWorkload>(size);
  return all;
}

bool checkEciWire(EciWorkloads &workloads) {
  qvaemu::Options options;
  options.recordReceived = true;
  qvaemu::Gateway gateway(options);
  std::string error;
  if (!gateway.start(&error)) {
    std::fprintf(stderr, "bench_eci: recording emulator: %s\n", error.c_str());
    return false;
  }
  Bytes want = qvaraw::handshakeRequest();
  for (const auto &[size, w] : workloads) want.insert(want.end(), w->request.begin(), w->request.end());
  const bool library = checkLibrary(workloads, gateway, want);
  const bool raw = checkRaw(workloads, gateway, want);
  const bool floor = checkFloor(workloads, gateway, want);
  gateway.stop();
  return library && raw && floor;
}

}  // namespace bench
