// Shared pieces of the end-to-end tests: the library driven through its C
// interface against the Gateway emulator started in the same process.
// Library state (trace settings, token list) is process-wide, so every helper
// that changes it puts it back.
#ifndef QVACLIENT_TESTS_E2E_SUPPORT_H
#define QVACLIENT_TESTS_E2E_SUPPORT_H

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>
#include <string_view>

#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"
#include "qvatest/bytes.h"
#include "qvatest/net.h"
#include "qvatest/trace.h"

namespace e2e {

using namespace qvatest;

inline constexpr const char* kLoopback = "127.0.0.1";

// A blank-padded character field without terminator.
template <size_t N>
void setField(char (&field)[N], std::string_view text) {
  std::memset(field, ' ', N);
  std::memcpy(field, text.data(), std::min(N, text.size()));
}

inline ECI_PARMS eciParms(std::string_view program, void* commarea, short length) {
  ECI_PARMS p;
  std::memset(&p, 0, sizeof p);
  p.eci_call_type = ECI_SYNC;
  setField(p.eci_program_name, program);
  setField(p.eci_userid, "");
  setField(p.eci_password, "");
  setField(p.eci_system_name, "QVADEMO");
  p.eci_commarea = commarea;
  p.eci_commarea_length = length;
  p.eci_version = ECI_VERSION_4;
  return p;
}

// A COMMAREA with guard bytes behind it, to see that nothing is written past
// its length.
class GuardedArea {
 public:
  static constexpr uint8_t kCanary = 0xA5;
  static constexpr size_t kGuard = 64;

  explicit GuardedArea(size_t length, uint8_t fill = 0) : length_(length), bytes_(length, fill) {
    bytes_.resize(length + kGuard, kCanary);
  }
  void set(std::string_view text) {
    for (size_t i = 0; i < length_; ++i) bytes_[i] = i < text.size() ? static_cast<uint8_t>(text[i]) : 0;
  }
  void* data() { return bytes_.data(); }
  short length() const { return static_cast<short>(length_); }
  std::string text(size_t n) const { return std::string(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n)); }
  std::string text() const { return text(length_); }
  bool guardIntact() const {
    return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(length_), bytes_.end(),
                       [](uint8_t b) { return b == kCanary; });
  }

 private:
  size_t length_;
  Bytes bytes_;
};

// A server list of `capacity` entries with a guard of whole entries behind.
class GuardedList {
 public:
  static constexpr uint8_t kCanary = 0x5A;
  static constexpr size_t kGuardEntries = 4;

  explicit GuardedList(size_t capacity) : capacity_(capacity), entries_(capacity + kGuardEntries) {
    std::memset(entries_.data(), kCanary, entries_.size() * sizeof(QVA_SYSTEM_ENTRY));
  }
  QVA_SYSTEM_ENTRY* data() { return entries_.data(); }
  const QVA_SYSTEM_ENTRY& operator[](size_t i) const { return entries_.at(i); }
  // Entries from `from` on, the guard included, hold nothing but the canary.
  bool untouchedFrom(size_t from) const {
    const auto* p = reinterpret_cast<const uint8_t*>(entries_.data() + from);
    const auto* end = reinterpret_cast<const uint8_t*>(entries_.data() + entries_.size());
    return std::all_of(p, end, [](uint8_t b) { return b == kCanary; });
  }
  bool guardIntact() const { return untouchedFrom(capacity_); }

 private:
  size_t capacity_;
  std::vector<QVA_SYSTEM_ENTRY> entries_;
};

// The name field as the caller sees it after trimming: name, then NULs to 9 bytes.
inline std::string nameOf(const QVA_SYSTEM_ENTRY& e) { return std::string(e.SystemName, sizeof e.SystemName); }
inline std::string trimmedName(std::string_view name) {
  std::string s(name);
  s.resize(QVA_SYSTEM_NAME_SIZE, '\0');
  return s;
}

inline qvaemu::FaultPlan faultPlan(qvaemu::Fault fault, int afterMessages, uint32_t extraBytes = 64) {
  qvaemu::FaultPlan p;
  p.fault = fault;
  p.afterMessages = afterMessages;
  p.extraBytes = extraBytes;
  return p;
}

// Waits within kPatience for a call that runs in another thread. A call
// that hangs is reported, and the emulator's connections are cut so that the
// thread can end and the test fails instead of hanging.
template <class T>
T awaitBounded(qvaemu::Gateway& gw, std::future<T>& result) {
  if (result.wait_for(kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "the library did not return within " << kPatience.count() << " ms";
    gw.dropConnections();
  }
  return result.get();
}

// Runs f in a thread of its own and waits for it as above.
template <class F>
auto runBounded(qvaemu::Gateway& gw, F f) {
  auto result = std::async(std::launch::async, std::move(f));
  return awaitBounded(gw, result);
}

inline bool hasLine(const std::vector<TraceLine>& lines, int point, const std::string& word,
                    const std::string& message) {
  return std::any_of(lines.begin(), lines.end(), [&](const TraceLine& l) {
    return l.point == point && l.word == word && l.message == message;
  });
}

// The token-list dump of QVA_dumpState, which is written at every level.
inline std::string dumpState() {
  TraceCapture trace(0);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  return trace.text();
}

inline bool tokenListEmpty() { return dumpState().find("The Gateway Token List is EMPTY\n") != std::string::npos; }

// A started emulator; the test fails at once when it cannot start.
#define E2E_START(gw)                                     \
  do {                                                    \
    std::string startError_;                              \
    ASSERT_TRUE((gw).start(&startError_)) << startError_; \
  } while (0)

}  // namespace e2e

#endif
