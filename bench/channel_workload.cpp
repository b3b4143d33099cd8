#include "channel_workload.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "bench_util.h"
#include "qvaemu/gateway.h"

namespace bench {

namespace {

using namespace std::chrono_literals;

constexpr char kChannelName[] = "BENCHCHAN";
// The channel CCSID: CHBIG's SIZE names it; the CHECHO channels, holding
// BIT containers only, take it from LANG, which bench_channel clears so
// that it is the default.
constexpr int32_t kCcsid = 819;

// The library's socket buffer holds at most this many bytes.
constexpr size_t kSocketBufferMax = 1024;
constexpr size_t kReplyHeaderSize = 32;  // with the name "ECI"

// Container i's bytes, different for every container.
Bytes echoData(size_t i, uint32_t size) {
  Bytes data(size);
  for (size_t j = 0; j < data.size(); ++j) data[j] = static_cast<uint8_t>('A' + (i + j) % 26);
  return data;
}

// What CHBIG returns: byte i is i & 0xFF.
bool isBigPattern(const uint8_t *data, size_t size) {
  for (size_t i = 0; i < size; ++i)
    if (data[i] != static_cast<uint8_t>(i)) return false;
  return true;
}

std::string sizeKey(uint32_t size) {
  return size >= (1u << 20) ? std::to_string(size >> 20) + "MiB" : std::to_string(size >> 10) + "KiB";
}

bool expect(bool ok, std::string *error, const std::string &what) {
  if (!ok && error->empty()) *error = what;
  return ok;
}

}  // namespace

ChannelWorkload::ChannelWorkload(Kind kind, std::string key) : kind_(kind), key_(std::move(key)) {}

ChannelWorkload::~ChannelWorkload() {
  if (channel_ != nullptr) ECI_deleteChannel(&channel_);
}

std::unique_ptr<ChannelWorkload> ChannelWorkload::echo(size_t containers, uint32_t size) {
  std::unique_ptr<ChannelWorkload> w(
      new ChannelWorkload(Kind::Echo, "CHECHO_" + std::to_string(containers) + "x" + sizeKey(size)));
  w->payloadBytes_ = size;
  for (size_t i = 0; i < containers; ++i) {
    char name[24];
    std::snprintf(name, sizeof name, "C%03zu", i);
    w->names_.push_back(containers == 1 && size >= (1u << 20) ? "PAYLOAD" : name);
    w->data_.push_back(echoData(i, size));
  }
  std::string error;
  if (!w->create(&error)) {
    std::fprintf(stderr, "bench_channel: %s: %s\n", w->key_.c_str(), error.c_str());
    return nullptr;
  }
  return w;
}

std::unique_ptr<ChannelWorkload> ChannelWorkload::big(uint32_t size) {
  std::unique_ptr<ChannelWorkload> w(new ChannelWorkload(Kind::Big, "CHBIG_" + sizeKey(size)));
  w->payloadBytes_ = size;
  const std::string digits = std::to_string(size);
  w->names_.push_back("SIZE");
  w->data_.emplace_back(digits.begin(), digits.end());
  std::string error;
  if (!w->create(&error)) {
    std::fprintf(stderr, "bench_channel: %s: %s\n", w->key_.c_str(), error.c_str());
    return nullptr;
  }
  return w;
}

// The library's channel and parameter block, and the floor client's request.
bool ChannelWorkload::create(std::string *error) {
  int rc = ECI_createChannel(kChannelName, &channel_);
  if (rc != ECI_NO_ERROR) return expect(false, error, "ECI_createChannel rc=" + std::to_string(rc));
  for (size_t i = 0; i < names_.size(); ++i) {
    const bool sizeField = kind_ == Kind::Big;
    rc = ECI_createContainer(channel_, names_[i].c_str(), sizeField ? ECI_CHAR : ECI_BIT, sizeField ? kCcsid : 0,
                             data_[i].data(), static_cast<uint32_t>(data_[i].size()));
    if (rc != ECI_NO_ERROR) return expect(false, error, "ECI_createContainer rc=" + std::to_string(rc));
  }
  setParms(parms_, programCall(kind_ == Kind::Big ? "CHBIG" : "CHECHO"));
  parms_.eci_channel = channel_;
  request_ = qvaraw::request(wireCall());
  return true;
}

// The request from the wire layout: the channel's containers newest first,
// each ADDED.
qvaraw::Call ChannelWorkload::wireCall() const {
  std::vector<Bytes> entries;
  const bool big = kind_ == Kind::Big;
  for (size_t i = names_.size(); i-- > 0;)
    entries.push_back(
        qvaraw::entry(names_[i], qvaraw::kAdded, big ? qvaraw::kChar : qvaraw::kBit, big ? kCcsid : 0, data_[i]));
  qvaraw::Call call = programCall(big ? "CHBIG" : "CHECHO");
  call.channelBlock = qvaraw::channel(kChannelName, kCcsid, entries);
  return call;
}

uint64_t ChannelWorkload::expectedAllocations() const {
  // The socket buffer holds at most 1024 bytes and is sized to the request;
  // a reply longer than that buffer gets a new one.
  const size_t writeBuffer = std::min<size_t>(request_.size(), kSocketBufferMax);
  const size_t readBuffer = std::min<size_t>(replySize_ - kReplyHeaderSize, kSocketBufferMax);
  const uint64_t socketBuffers = readBuffer > writeBuffer ? 2 : 1;
  // Per returned container: CHECHO, a block that the same-length data is
  // read into before it is copied over the old data; CHBIG, PAYLOAD's data
  // and its container record.
  return socketBuffers + (kind_ == Kind::Big ? 2 : names_.size());
}

int ChannelWorkload::callLibrary(QvaGatewayToken *gw) { return QVA_ECI_Execute_Channel(gw, &parms_); }

bool ChannelWorkload::reset() { return kind_ != Kind::Big || ECI_deleteContainer(channel_, "PAYLOAD") == ECI_NO_ERROR; }

bool ChannelWorkload::checkLibraryResult(std::string *error) {
  char name[17] = {};
  ECI_getChannelName(channel_, name);
  if (!expect(std::strcmp(name, kChannelName) == 0, error, "channel renamed to " + std::string(name))) return false;
  // Every container once: the walk sees as many as there should be.
  const size_t expected = names_.size() + (kind_ == Kind::Big ? 1 : 0);
  size_t walked = 0;
  ContainerInfo info;
  for (int rc = ECI_getFirstContainer(channel_, &info); rc == ECI_NO_ERROR; rc = ECI_getNextContainer(channel_, &info))
    ++walked;
  if (!expect(walked == expected, error, std::to_string(walked) + " containers in the channel")) return false;
  Bytes got;
  for (size_t i = 0; i < names_.size(); ++i) {
    int rc = ECI_getContainerInfo(channel_, names_[i].c_str(), &info);
    if (!expect(rc == ECI_NO_ERROR && info.dataLength == data_[i].size(), error, names_[i] + " lost or resized"))
      return false;
    got.assign(data_[i].size(), 0);
    rc = ECI_getContainerData(channel_, names_[i].c_str(), got.data(), static_cast<uint32_t>(got.size()), 0, nullptr);
    if (!expect(rc == ECI_NO_ERROR && got == data_[i], error, names_[i] + " does not hold its data")) return false;
  }
  if (kind_ != Kind::Big) return true;
  int rc = ECI_getContainerInfo(channel_, "PAYLOAD", &info);
  if (!expect(rc == ECI_NO_ERROR && info.type == ECI_BIT && info.dataLength == payloadBytes_, error,
              "PAYLOAD missing or of the wrong type or size"))
    return false;
  got.assign(payloadBytes_, 0);
  rc = ECI_getContainerData(channel_, "PAYLOAD", got.data(), payloadBytes_, 0, nullptr);
  return expect(rc == ECI_NO_ERROR && isBigPattern(got.data(), got.size()), error, "PAYLOAD data differs");
}

bool ChannelWorkload::checkFloorReply(const uint8_t *message, size_t size, std::string *error) {
  qvaraw::ProgramReply reply;
  qvaraw::Flow flow;
  if (!expect(size >= kReplyHeaderSize && qvaraw::get32(message) == 0x47617465 &&
                  qvaraw::parseProgramReply(message + kReplyHeaderSize, size - kReplyHeaderSize, reply, true) &&
                  reply.channelPresent != 0 && qvaraw::parseFlow(reply.flow, flow),
              error, "the reply does not follow the layout"))
    return false;
  if (!expect(reply.replyRc == 0, error, "replyRc " + std::to_string(reply.replyRc))) return false;
  if (!expect(flow.channelName == kChannelName && flow.ccsid == kCcsid, error, "channel renamed")) return false;
  const size_t extra = kind_ == Kind::Big ? 1 : 0;
  if (!expect(flow.entries.size() == names_.size() + extra, error,
              std::to_string(flow.entries.size()) + " entries in the return flow"))
    return false;
  // The entries come back in the order they went: newest first.
  const bool echoed = kind_ == Kind::Echo;
  for (size_t i = 0; i < names_.size(); ++i) {
    const qvaraw::FlowEntry &e = flow.entries[i];
    const size_t sent = names_.size() - 1 - i;
    const Bytes &data = data_[sent];
    const bool same = e.name == names_[sent] && e.type == (echoed ? qvaraw::kBit : qvaraw::kChar) &&
                      e.ccsid == (echoed ? 0 : kCcsid) && e.length == data.size() &&
                      e.state == (echoed ? qvaraw::kModified : qvaraw::kUnchanged) &&
                      (!echoed || std::memcmp(e.data, data.data(), data.size()) == 0);
    if (!expect(same, error, "entry " + e.name + " is not what the program returns")) return false;
  }
  if (kind_ == Kind::Big) {
    const qvaraw::FlowEntry &e = flow.entries.back();
    const bool ok = e.name == "PAYLOAD" && e.state == qvaraw::kAdded && e.type == qvaraw::kBit && e.ccsid == 0 &&
                    e.length == payloadBytes_ && isBigPattern(e.data, e.length);
    if (!expect(ok, error, "PAYLOAD entry is not what CHBIG returns")) return false;
  }
  replySize_ = size;
  return true;
}

Workloads makeWorkloads() {
  Workloads all;
  for (size_t containers : kContainerCounts) all.push_back(ChannelWorkload::echo(containers, kSmallContainer));
  all.push_back(ChannelWorkload::big(kBigSize));
  all.push_back(ChannelWorkload::echo(1, kBigSize));
  if (std::any_of(all.begin(), all.end(), [](const auto &w) { return w == nullptr; })) all.clear();
  return all;
}

// ---- Checking the wire before timing it --------------------------------------

namespace {

constexpr int kCallsPerWorkload = 2;  // the second shows that the channel is back as it was

// Connection 0 of the gateway; compared before the close flow follows. The
// calls' system calls must reach the counter.
bool checkLibrary(Workloads &workloads, const qvaemu::Gateway &gateway, const Bytes &want) {
  QvaGatewayToken *gw = nullptr;
  int rc = QVA_openRemoteGatewayConnection("127.0.0.1", gateway.port(), &gw, 10);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "bench_channel: library connection to the recording emulator: rc=%d\n", rc);
    return false;
  }
  bool ok = true;
  SyscallTally counted;
  for (auto &w : workloads) {
    for (int call = 0; call < kCallsPerWorkload && ok; ++call) {
      std::string error;
      syscallCounterStart();
      rc = w->callLibrary(gw);
      syscallCounterStop();
      counted.add();
      if (rc != ECI_NO_ERROR) error = "rc=" + std::to_string(rc);
      ok = rc == ECI_NO_ERROR && w->checkLibraryResult(&error) && w->reset();
      if (!ok) std::fprintf(stderr, "bench_channel: library call %s: %s\n", w->key().c_str(), error.c_str());
    }
  }
  ok = checkReceived("bench_channel", gateway, 0, "the library", want, 60s) && ok;
  ok = checkLibraryCounted("bench_channel", counted) && ok;
  QVA_closeGatewayConnection(&gw);
  return ok;
}

// Connection 1 of the gateway.
bool checkFloor(Workloads &workloads, const qvaemu::Gateway &gateway, const Bytes &want) {
  FloorClient floor;
  std::string error;
  if (!floor.open(gateway.port(), &error)) {
    std::fprintf(stderr, "bench_channel: floor connection to the recording emulator: %s\n", error.c_str());
    return false;
  }
  bool ok = true;
  for (auto &w : workloads) {
    for (int call = 0; call < kCallsPerWorkload && ok; ++call) {
      const int64_t size = floor.call(w->request());
      if (size < 0) error = "call failed: " + std::to_string(size);
      ok = size >= 0 && w->checkFloorReply(floor.reply(), static_cast<size_t>(size), &error);
      if (!ok) std::fprintf(stderr, "bench_channel: floor call %s: %s\n", w->key().c_str(), error.c_str());
    }
  }
  return ok && checkReceived("bench_channel", gateway, 1, "the floor client", want, 60s);
}

}  // namespace

bool checkWire(Workloads &workloads) {
  qvaemu::Options options;
  options.recordReceived = true;
  qvaemu::Gateway gateway(options);
  std::string error;
  if (!gateway.start(&error)) {
    std::fprintf(stderr, "bench_channel: recording emulator: %s\n", error.c_str());
    return false;
  }
  Bytes want = qvaraw::handshakeRequest();
  for (const auto &w : workloads)
    for (int call = 0; call < kCallsPerWorkload; ++call)
      want.insert(want.end(), w->request().begin(), w->request().end());

  const bool ok = checkLibrary(workloads, gateway, want) && checkFloor(workloads, gateway, want);
  gateway.stop();
  return ok;
}

}  // namespace bench
