// Shared pieces of the end-to-end tests: the library driven through its C
// interface against the Gateway emulator started in the same process.
// Library state (trace settings, token list) is process-wide, so every helper
// that changes it puts it back.
#ifndef QVACLIENT_TESTS_E2E_SUPPORT_H
#define QVACLIENT_TESTS_E2E_SUPPORT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"

namespace e2e {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

// Only reached when something is wrong; generous for sanitizer builds.
inline constexpr std::chrono::milliseconds kPatience = 10s;

inline constexpr const char* kLoopback = "127.0.0.1";

inline Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline uint32_t be32(const Bytes& b, size_t off) {
  return (uint32_t{b.at(off)} << 24) | (uint32_t{b.at(off + 1)} << 16) | (uint32_t{b.at(off + 2)} << 8) |
         uint32_t{b.at(off + 3)};
}

inline Bytes slice(const Bytes& b, size_t off, size_t n) {
  if (off > b.size()) return {};
  n = std::min(n, b.size() - off);
  return Bytes(b.begin() + static_cast<std::ptrdiff_t>(off), b.begin() + static_cast<std::ptrdiff_t>(off + n));
}

// What the library sends to greet a Gateway and to leave it.
inline Bytes handshakeBytes() {
  Bytes b = {0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00,
             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 'B',  'A',  'S',  'E',  0x00, 0x00, 0x00, 0x00,
             0x16, 0x00, 0x02, 'e',  'n',  0x00, 0x02, 'G',  'B'};
  b.resize(55, 0x00);
  return b;
}

inline Bytes closeBytes() {
  return {0x47, 0x61, 0x74, 0x65, 0x10, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00, 0xFF,
          0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x04, 'B',  'A',  'S',  'E',  0x00, 0x00, 0x00, 0x00, 0x00};
}

// Cuts a byte stream that a connection sent into whole messages by their
// headers; a torn tail is returned as a last, short message.
inline std::vector<Bytes> splitMessages(const Bytes& stream) {
  std::vector<Bytes> out;
  size_t pos = 0;
  while (pos < stream.size()) {
    size_t size = stream.size() - pos;
    if (size >= 24) {
      const size_t n = be32(stream, pos + 20);
      if (size >= 29 + n) size = std::min(size, 29 + n + be32(stream, pos + 25 + n));
    }
    out.push_back(slice(stream, pos, size));
    pos += size;
  }
  return out;
}

// ---- ECI parameter blocks ----------------------------------------------------

// A blank-padded character field without terminator.
template <size_t N>
void setField(char (&field)[N], std::string_view text) {
  std::memset(field, ' ', N);
  std::memcpy(field, text.data(), std::min(N, text.size()));
}

inline ECI_PARMS eciParms(std::string_view program, void* commarea, short length,
                          std::string_view system = "QVADEMO") {
  ECI_PARMS p;
  std::memset(&p, 0, sizeof p);
  p.eci_call_type = ECI_SYNC;
  setField(p.eci_program_name, program);
  setField(p.eci_userid, "");
  setField(p.eci_password, "");
  setField(p.eci_system_name, system);
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

  explicit GuardedArea(size_t length, uint8_t fill = 0) : length_(length), bytes_(length + kGuard, kCanary) {
    std::fill_n(bytes_.begin(), length, fill);
  }
  void set(std::string_view text) {
    std::fill_n(bytes_.begin(), length_, 0);
    std::memcpy(bytes_.data(), text.data(), std::min(length_, text.size()));
  }
  void* data() { return bytes_.data(); }
  short length() const { return static_cast<short>(length_); }
  std::string text() const { return std::string(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(length_)); }
  std::string text(size_t n) const { return std::string(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n)); }
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
  bool guardIntact() const {
    const auto* p = reinterpret_cast<const uint8_t*>(entries_.data() + capacity_);
    return std::all_of(p, p + kGuardEntries * sizeof(QVA_SYSTEM_ENTRY), [](uint8_t b) { return b == kCanary; });
  }

 private:
  size_t capacity_;
  std::vector<QVA_SYSTEM_ENTRY> entries_;
};

inline std::string nameOf(const QVA_SYSTEM_ENTRY& e) { return std::string(e.SystemName, sizeof e.SystemName); }
inline std::string descriptionOf(const QVA_SYSTEM_ENTRY& e) {
  return std::string(e.Description, sizeof e.Description);
}
// The name field as the caller sees it after trimming: name, then NULs to 9 bytes.
inline std::string trimmedName(std::string_view name) {
  std::string s(name);
  s.resize(QVA_SYSTEM_NAME_SIZE, '\0');
  return s;
}
// The description as the Gateway sends it: blank padded to 60, then a NUL.
inline std::string sentDescription(std::string_view d) {
  std::string s(d.substr(0, 60));
  s.resize(60, ' ');
  s.push_back('\0');
  return s;
}

// ---- The emulator and the library ----------------------------------------------

inline qvaemu::FaultPlan faultPlan(qvaemu::Fault fault, int afterMessages, uint32_t extraBytes = 64) {
  qvaemu::FaultPlan p;
  p.fault = fault;
  p.afterMessages = afterMessages;
  p.extraBytes = extraBytes;
  return p;
}

// A loopback port that nothing listens on: bound once, then released.
inline int unusedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  socklen_t len = sizeof a;
  int port = -1;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  ::close(fd);
  return port;
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

// ---- The trace, read back from a file ------------------------------------------

struct TraceLine {
  int point = 0;
  std::string word;  // "*EXC*", "EVENT", "ENTRY", "EXIT", "DEBUG", "DATA"
  std::string message;  // after the prefix, without the newline
};

// The prefix every trace line carries: date and time to the millisecond,
// process and thread ids, the trace-point number and the padded level word:
// "dd/mm/yy HH:MM:SS:mmm [0xPPPPPPPP,0xTTTTTTTT] [NNNN] WORD   message".
// Checked by hand rather than with std::regex: traces of thousands of lines
// are read back, and sanitizer builds make a regex per line slow.
inline bool parseTraceLine(const std::string& line, TraceLine& out) {
  static constexpr std::string_view kShape = "dd/dd/dd dd:dd:dd:ddd [0xhhhhhhhh,0xhhhhhhhh] [dddd] ";
  if (line.size() < kShape.size() + 7) return false;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const char c = line[i];
    const char want = kShape[i];
    const bool ok = want == 'd'   ? (c >= '0' && c <= '9')
                    : want == 'h' ? ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))
                                  : c == want;
    if (!ok) return false;
  }
  static constexpr std::string_view kWords[] = {"*EXC* ", "EVENT ", "ENTRY ", "EXIT  ", "DEBUG ", "DATA  "};
  const std::string_view word(line.data() + kShape.size(), 6);
  if (std::find(std::begin(kWords), std::end(kWords), word) == std::end(kWords)) return false;
  if (line[kShape.size() + 6] != ' ') return false;
  out.point = std::stoi(line.substr(kShape.size() - 6, 4));
  out.word = std::string(word.substr(0, word.find_last_not_of(' ') + 1));
  out.message = line.substr(kShape.size() + 7);
  return true;
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

inline std::vector<TraceLine> traceLines(const std::string& text) {
  std::vector<TraceLine> out;
  TraceLine l;
  for (const auto& line : linesOf(text))
    if (parseTraceLine(line, l)) out.push_back(l);
  return out;
}

// "0xAAAAAAAA: " then 16 hex slots in groups of four, " : " and the text.
inline bool isDumpLine(const std::string& line) {
  if (line.size() < 50 || line.compare(0, 2, "0x") != 0 || line[10] != ':' || line.compare(47, 3, " : ") != 0)
    return false;
  return std::all_of(line.begin() + 12, line.begin() + 47,
                     [](char c) { return c == ' ' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); });
}

// Every storage dump, rebuilt as bytes from its hex columns, with the
// trace point and message of the DATA line that it follows.
struct Dump {
  int point = 0;
  std::string message;
  Bytes bytes;
};

inline std::vector<Dump> traceDumps(const std::string& text) {
  std::vector<Dump> out;
  TraceLine l;
  for (const auto& line : linesOf(text)) {
    if (parseTraceLine(line, l)) {
      if (l.word == "DATA") out.push_back({l.point, l.message, {}});
      continue;
    }
    if (out.empty() || !isDumpLine(line)) continue;
    std::string hex = line.substr(12, 35);
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
      out.back().bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

inline bool contains(const Bytes& hay, const Bytes& needle) {
  return std::search(hay.begin(), hay.end(), needle.begin(), needle.end()) != hay.end();
}

// Sends the trace at `level` to a fresh file for the lifetime of the object;
// finish() (or the destructor) turns the trace off, puts it back on standard
// error and returns what was written.
class TraceCapture {
 public:
  explicit TraceCapture(int level) {
    std::string dir = ::testing::TempDir();
    if (dir.empty() || dir.back() != '/') dir += '/';
    std::string pattern = dir + "qva_e2e_trace_XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd >= 0) ::close(fd);
    path_ = name.data();
    EXPECT_EQ(QVA_setAPITraceLevel(0), QVA_OK);
    QVA_setAPITraceDataOffset(0);
    QVA_setAPITraceDataLength(0);
    EXPECT_EQ(QVA_setAPITraceFile(path_.c_str()), QVA_OK);
    EXPECT_EQ(QVA_setAPITraceLevel(level), QVA_OK);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;
  ~TraceCapture() { finish(); }

  const std::string& path() const { return path_; }

  std::string finish() {
    if (!finished_) {
      finished_ = true;
      QVA_setAPITraceLevel(0);
      QVA_setAPITraceFile(nullptr);
      std::ifstream in(path_, std::ios::binary);
      std::ostringstream s;
      s << in.rdbuf();
      text_ = s.str();
      std::remove(path_.c_str());
    }
    return text_;
  }

 private:
  std::string path_;
  std::string text_;
  bool finished_ = false;
};

// The token-list dump of QVA_dumpState, which is written at every level.
inline std::string dumpState() {
  TraceCapture trace(0);
  EXPECT_EQ(QVA_dumpState(), QVA_OK);
  return trace.finish();
}

inline bool tokenListEmpty() { return dumpState().find("The Gateway Token List is EMPTY\n") != std::string::npos; }

// A started emulator; the test fails at once when it cannot start.
#define E2E_START(gw)                       \
  do {                                      \
    std::string startError_;                \
    ASSERT_TRUE((gw).start(&startError_)) << startError_; \
  } while (0)

}  // namespace e2e

#endif
