// What the end-to-end suites share: ECI parameter blocks, COMMAREAs with
// guard bytes behind them, and the token list read back from the state dump.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "qvaclient/qvaclient.h"
#include "qvatest/bytes.h"
#include "qvatest/trace.h"

namespace qvatest {

inline constexpr const char* kLoopback = "127.0.0.1";

// A blank-padded character field without terminator.
template <size_t N>
inline void setField(char (&field)[N], std::string_view text) {
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

// A COMMAREA with guard bytes behind it, to see that nothing is written past its length.
class GuardedArea {
 public:
  explicit GuardedArea(size_t length) : length_(length), bytes_(length, 0) { bytes_.resize(length + 64, 0xA5); }
  void set(std::string_view text) {
    for (size_t i = 0; i < length_; ++i) bytes_[i] = i < text.size() ? static_cast<uint8_t>(text[i]) : 0;
  }
  void* data() { return bytes_.data(); }
  short length() const { return static_cast<short>(length_); }
  std::string text(size_t n) const {
    return std::string(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n));
  }
  std::string text() const { return text(length_); }
  bool guardIntact() const {
    return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(length_), bytes_.end(),
                       [](uint8_t b) { return b == 0xA5; });
  }

 private:
  size_t length_;
  Bytes bytes_;
};

inline bool hasLine(const std::vector<TraceLine>& lines, int point, const std::string& word,
                    const std::string& message) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const TraceLine& l) { return l.point == point && l.word == word && l.message == message; });
}

// The token-list dump of QVA_dumpState, which is written at every level.
inline std::string dumpState() {
  TraceCapture trace(0);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  return trace.text();
}

inline bool tokenListEmpty() { return dumpState().find("The Gateway Token List is EMPTY\n") != std::string::npos; }

}  // namespace qvatest
